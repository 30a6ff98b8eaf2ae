#pragma once
// Setting up an ISA-L deflate stream at one of its levels, with the work
// memory that level needs, for the gzip member and BGZF block writers alike.

#include <isa-l/igzip_lib.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace Common {

// Initialises stream for ISA-L level 0 (fastest) to 3 and the given
// gzip_flag (IGZIP_DEFLATE, IGZIP_GZIP_NO_HDR, ...), with level_buffer, sized
// here, as its work memory: the stream points into it, so it must stay put
// (a moved vector keeps its heap block). Throws std::invalid_argument, naming
// the output (`what`: "gzip", "BGZF"), for another level.
inline void InitIsalDeflate(isal_zstream& stream, std::vector<uint8_t>& level_buffer, int level, uint16_t gzip_flag,
                            const char* what) {
    size_t size = 0;
    switch (level) {
        case 0:
            size = ISAL_DEF_LVL0_DEFAULT;
            break;
        case 1:
            size = ISAL_DEF_LVL1_DEFAULT;
            break;
        case 2:
            size = ISAL_DEF_LVL2_DEFAULT;
            break;
        case 3:
            size = ISAL_DEF_LVL3_DEFAULT;
            break;
        default:
            throw std::invalid_argument(std::string(what) + " level must be 0 to 3, not " + std::to_string(level));
    }
    level_buffer.assign(size, 0);
    isal_deflate_init(&stream);
    stream.level = static_cast<uint32_t>(level);
    stream.level_buf = level_buffer.empty() ? nullptr : level_buffer.data();
    stream.level_buf_size = static_cast<uint32_t>(level_buffer.size());
    stream.gzip_flag = gzip_flag;
}

}  // namespace Common
