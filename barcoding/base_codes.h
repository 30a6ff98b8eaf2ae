#pragma once

#include <array>
#include <cstdint>

namespace Barcoding {

// Base codes in matrix order A, C, G, T; U counts as T; -1 = not a base.
// One table for the scorer and the construct search, so both read a base
// the same way.
inline std::array<int8_t, 256> MakeBaseCodeTable() {
    std::array<int8_t, 256> table;
    table.fill(-1);
    const char* bases[4] = {"Aa", "Cc", "Gg", "TtUu"};
    for (int code = 0; code < 4; ++code)
        for (const char* c = bases[code]; *c != '\0'; ++c)
            table[static_cast<unsigned char>(*c)] = static_cast<int8_t>(code);
    return table;
}
inline const std::array<int8_t, 256> kBaseCodes = MakeBaseCodeTable();

}  // namespace Barcoding
