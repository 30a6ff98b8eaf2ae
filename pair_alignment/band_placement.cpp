#include "pair_alignment/band_placement.h"

#include <algorithm>

namespace PairAlignment {

int EffectiveBandWidth(int l1, int l2, int configured) {
    const int m = std::max(l1, l2);
    if (m > configured) return configured;
    return (m + 1) % 2 == 1 ? m + 1 : m + 2;
}

// The centre (r, q) walks the straight line from (0, 0) to (l1, l2): on each
// anti-diagonal it steps along whichever sequence lags the line more, the query
// on a tie. The arithmetic (double precision, multiplication by 1/N in this
// order) is part of the contract: the GPU kernel reproduces it bit for bit, and
// a different rounding would move the band by a cell on some diagonals.
//
// Each of the three terms of jlo and jhi grows by 0 or 1 per diagonal, so the
// band's ends never move by more than one cell between diagonals. That makes
// every band cell have at least one in-band predecessor, so no band score is
// ever derived from the impossible score alone.
//
// (l1 + 1) * d is formed in double: as an int product it overflows once the
// lengths reach tens of thousands. Both factors and the product are exact in
// double far beyond that, so the value (and the band) is the one the int
// product had wherever it did not overflow.
void PlaceBand(int l1, int l2, int width, int* offsets, int* lengths) {
    const int total = l1 + l2;
    const int half = width / 2;
    const double inv_n = 1.0 / (static_cast<double>(total) + 1);
    int r = 0;
    int q = 0;
    offsets[0] = 0;
    lengths[0] = 1;
    for (int d = 1; d <= total; ++d) {
        const double a = (static_cast<double>(l1) + 1) * d * inv_n - r;
        const double b = d * inv_n * (l2 + 1) - q;
        if (a <= b)
            ++q;
        else
            ++r;
        const int jlo = std::max({0, d - l1, q - half});
        const int jhi = std::min({l2, d, q + half});
        offsets[d] = jlo;
        lengths[d] = jhi - jlo + 1;
    }
}

bool BandEndsStepByOne(const int* offsets, const int* lengths, int diagonals) {
    for (int d = 1; d < diagonals; ++d) {
        const int start_step = offsets[d] - offsets[d - 1];
        const int end_step = offsets[d] + lengths[d] - offsets[d - 1] - lengths[d - 1];
        if (start_step < 0 || start_step > 1 || end_step < 0 || end_step > 1) return false;
    }
    return true;
}

bool BandCoversMatrix(int l1, int l2, const int* offsets, const int* lengths) {
    for (int d = 0; d <= l1 + l2; ++d) {
        const int first = std::max(0, d - l1);
        if (offsets[d] != first || lengths[d] != std::min(l2, d) - first + 1) return false;
    }
    return true;
}

}  // namespace PairAlignment
