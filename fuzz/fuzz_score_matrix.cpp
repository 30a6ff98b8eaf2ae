// The score matrix reader on arbitrary file contents: it either throws
// std::runtime_error or returns 16 values inside the documented bound.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "pair_alignment/score_matrix.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path =
        Fuzz::WriteScratch("matrix.tsv", std::string_view(reinterpret_cast<const char*>(data), size));
    try {
        const auto matrix = PairAlignment::LoadMismatchMatrix(path);
        FUZZ_CHECK(matrix.size() == 16);
        for (int value : matrix)
            FUZZ_CHECK(value >= -PairAlignment::kMaxScoreMagnitude && value <= PairAlignment::kMaxScoreMagnitude);
    } catch (const std::runtime_error&) {
    }
    return 0;
}
