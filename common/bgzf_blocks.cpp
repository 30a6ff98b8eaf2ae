// BGZF blocks made with ISA-L, the deflate the gzip output uses too: at the
// fastest levels it compresses several times faster than the generic
// deflate htslib would call, and BAM output runs beside the reads' scoring on
// the same cores. Each block is a gzip member with the "BC" extra field that
// holds the block's size, so any BGZF reader takes them.

#include "common/bgzf_blocks.h"

#include <isa-l/crc.h>
#include <isa-l/igzip_lib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "common/isal_level.h"

namespace Common {

namespace {

// Uncompressed bytes per block, as htslib cuts them: even data that does not
// compress then fits a block of at most 64 KiB stored.
constexpr size_t kBlockData = 0xff00;
constexpr size_t kMaxBlock = 0x10000;
constexpr size_t kHeaderSize = 18;
constexpr size_t kTrailerSize = 8;

void PutLittleEndian(char* at, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        at[i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

// One deflate state per thread, reset for every block.
class RawDeflater {
public:
    explicit RawDeflater(int level) { InitIsalDeflate(stream_, level_buffer_, level, IGZIP_DEFLATE, "BGZF"); }
    int Level() const { return static_cast<int>(stream_.level); }

    // Raw deflate of data into out[0, capacity); the size written, or 0 when
    // it does not fit.
    size_t Deflate(std::string_view data, char* out, size_t capacity) {
        isal_deflate_reset(&stream_);
        stream_.flush = NO_FLUSH;
        stream_.end_of_stream = 1;
        stream_.next_in = reinterpret_cast<uint8_t*>(const_cast<char*>(data.data()));
        stream_.avail_in = static_cast<uint32_t>(data.size());
        stream_.next_out = reinterpret_cast<uint8_t*>(out);
        stream_.avail_out = static_cast<uint32_t>(capacity);
        const int result = isal_deflate(&stream_);
        if (result != COMP_OK)
            throw std::runtime_error("BGZF compression failed (ISA-L error " + std::to_string(result) + ")");
        if (stream_.internal_state.state != ZSTATE_END) return 0;
        return static_cast<size_t>(reinterpret_cast<char*>(stream_.next_out) - out);
    }

private:
    isal_zstream stream_{};
    std::vector<uint8_t> level_buffer_;
};

RawDeflater& DeflaterFor(int level) {
    thread_local std::unique_ptr<RawDeflater> deflater;
    if (!deflater || deflater->Level() != level) deflater = std::make_unique<RawDeflater>(level);
    return *deflater;
}

// A stored deflate block: for data that deflate would make larger.
size_t Store(std::string_view data, char* out) {
    out[0] = 1;  // the last block, stored
    PutLittleEndian(out + 1, static_cast<uint32_t>(data.size()), 2);
    PutLittleEndian(out + 3, static_cast<uint32_t>(~data.size() & 0xffff), 2);
    std::memcpy(out + 5, data.data(), data.size());
    return data.size() + 5;
}

void AppendBlock(std::string_view data, std::string& out, int level) {
    const size_t start = out.size();
    out.resize(start + kMaxBlock);
    char* block = out.data() + start;
    static constexpr char kHeader[kHeaderSize] = {'\x1f', '\x8b', 8, 4,   0,   0, 0, 0, 0,
                                                  '\xff', 6,      0, 'B', 'C', 2, 0, 0, 0};
    std::memcpy(block, kHeader, kHeaderSize);
    char* body = block + kHeaderSize;
    const size_t room = kMaxBlock - kHeaderSize - kTrailerSize;
    size_t body_size = DeflaterFor(level).Deflate(data, body, room);
    if (body_size == 0) body_size = Store(data, body);
    const size_t total = kHeaderSize + body_size + kTrailerSize;
    PutLittleEndian(block + 16, static_cast<uint32_t>(total - 1), 2);
    PutLittleEndian(block + kHeaderSize + body_size,
                    crc32_gzip_refl(0, reinterpret_cast<const uint8_t*>(data.data()), data.size()), 4);
    PutLittleEndian(block + kHeaderSize + body_size + 4, static_cast<uint32_t>(data.size()), 4);
    out.resize(start + total);
}

}  // namespace

std::string_view BgzfEofBlock() {
    static constexpr char kEof[] =
        "\x1f\x8b\x08\x04\x00\x00\x00\x00\x00\xff\x06\x00\x42\x43\x02\x00\x1b\x00\x03\x00\x00\x00\x00\x00\x00\x00\x00"
        "\x00";
    return std::string_view(kEof, sizeof kEof - 1);
}

void AppendBgzfBlocks(std::string_view data, std::string& out, int level) {
    for (size_t at = 0; at < data.size(); at += kBlockData)
        AppendBlock(data.substr(at, std::min(kBlockData, data.size() - at)), out, level);
}

}  // namespace Common
