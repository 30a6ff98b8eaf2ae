#pragma once
// The work memory ISA-L's deflate needs per compression level, for the gzip
// member and BGZF block writers alike.

#include <isa-l/igzip_lib.h>

#include <cstddef>
#include <stdexcept>
#include <string>

namespace Common {

// Bytes of level buffer for ISA-L level 0 (fastest) to 3; throws
// std::invalid_argument, naming the output (`what`: "gzip", "BGZF"), outside.
inline size_t IsalLevelBufferSize(int level, const char* what) {
    switch (level) {
        case 0:
            return ISAL_DEF_LVL0_DEFAULT;
        case 1:
            return ISAL_DEF_LVL1_DEFAULT;
        case 2:
            return ISAL_DEF_LVL2_DEFAULT;
        case 3:
            return ISAL_DEF_LVL3_DEFAULT;
        default:
            throw std::invalid_argument(std::string(what) + " level must be 0 to 3, not " + std::to_string(level));
    }
}

}  // namespace Common
