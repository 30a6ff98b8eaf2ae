#include "common/bgzf_blocks.h"

#include <htslib/bgzf.h>

#include <algorithm>
#include <stdexcept>

namespace Common {

std::string_view BgzfEofBlock() {
    static constexpr char kEof[] =
        "\x1f\x8b\x08\x04\x00\x00\x00\x00\x00\xff\x06\x00\x42\x43\x02\x00\x1b\x00\x03\x00\x00\x00\x00\x00\x00\x00\x00"
        "\x00";
    return std::string_view(kEof, sizeof kEof - 1);
}

void AppendBgzfBlocks(std::string_view data, std::string& out, int level) {
    for (size_t at = 0; at < data.size(); at += BGZF_BLOCK_SIZE) {
        const size_t take = std::min<size_t>(BGZF_BLOCK_SIZE, data.size() - at);
        const size_t start = out.size();
        out.resize(start + BGZF_MAX_BLOCK_SIZE);
        size_t written = BGZF_MAX_BLOCK_SIZE;
        if (bgzf_compress(out.data() + start, &written, data.data() + at, take, level) != 0) {
            out.resize(start);
            throw std::runtime_error("BGZF compression failed");
        }
        out.resize(start + written);
    }
}

}  // namespace Common
