#pragma once
// Base-code sequences for the aligner tests, and the views the aligner takes.

#include <random>
#include <vector>

#include "common/data_wrappers.h"

namespace AlignerTest {

inline brim::data_wrappers::VecView<int> View(const std::vector<int>& s) {
    return brim::data_wrappers::VecView<int>(const_cast<int*>(s.data()), s.size());
}

// length random base codes 0..3.
inline std::vector<int> RandomSeq(std::mt19937& rng, int length) {
    std::vector<int> s(length);
    for (int& b : s)
        b = rng() % 4;
    return s;
}

}  // namespace AlignerTest
