#include "common/gzip_member_writer.h"

#include <isa-l/igzip_lib.h>

#include <algorithm>
#include <stdexcept>

#include "common/isal_level.h"

namespace Common {

namespace {

// isal_deflate counts in 32 bits.
constexpr size_t kMaxChunk = 1u << 30;
// Room for the header, block headers and trailer on top of the text itself:
// FASTQ text always shrinks, so the first guess is rarely outgrown.
constexpr size_t kSlack = 1024;

}  // namespace

GzipMemberWriter::GzipMemberWriter(int level) : stream_(std::make_unique<isal_zstream>()) {
    // The header is written here, not by ISA-L: its reset starts the next
    // member without one.
    InitIsalDeflate(*stream_, level_buffer_, level, IGZIP_GZIP_NO_HDR, "gzip");
}

GzipMemberWriter::~GzipMemberWriter() = default;
// The stream's level_buf points into level_buffer_'s heap block, which a move
// hands over unchanged.

// Deflates straight into `out`, grown to a guess first and further only when
// the guess was short; the text is fed in chunks ISA-L's counters can hold.
void GzipMemberWriter::Append(std::string_view text, std::string& out) {
    isal_zstream* stream = stream_.get();
    isal_deflate_reset(stream);
    stream->flush = NO_FLUSH;
    stream->avail_in = 0;

    // No name, no time stamp, "unknown" operating system: the bytes depend
    // on the text alone.
    static constexpr char kHeader[10] = {'\x1f', '\x8b', 8, 0, 0, 0, 0, 0, 0, '\xff'};
    out.append(kHeader, sizeof(kHeader));
    const size_t start = out.size();
    size_t capacity = text.size() + text.size() / 8 + kSlack;
    out.resize(start + capacity);
    size_t fed = 0;
    size_t written = 0;
    for (;;) {
        if (stream->avail_in == 0 && fed < text.size()) {
            const size_t chunk = std::min(text.size() - fed, kMaxChunk);
            // ISA-L does not write through next_in.
            stream->next_in = reinterpret_cast<uint8_t*>(const_cast<char*>(text.data() + fed));
            stream->avail_in = static_cast<uint32_t>(chunk);
            fed += chunk;
        }
        stream->end_of_stream = fed == text.size() ? 1 : 0;
        if (written == capacity) {
            capacity += capacity / 2 + kSlack;
            out.resize(start + capacity);
        }
        uint8_t* next_out = reinterpret_cast<uint8_t*>(out.data() + start + written);
        stream->next_out = next_out;
        stream->avail_out = static_cast<uint32_t>(std::min(capacity - written, kMaxChunk));
        const int result = isal_deflate(stream);
        written += static_cast<size_t>(stream->next_out - next_out);
        if (result != COMP_OK) {
            out.resize(start - sizeof(kHeader));
            throw std::runtime_error("gzip compression failed (ISA-L error " + std::to_string(result) + ")");
        }
        if (stream->internal_state.state == ZSTATE_END) break;
    }
    out.resize(start + written);
}

}  // namespace Common
