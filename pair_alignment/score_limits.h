#pragma once
// Bounds on alignment scores that the code checking user settings relies on.
// Free of includes, so the per-instruction-set builds can share it.

namespace PairAlignment {

// Largest |value| of a matrix element (and of a gap cost, checked with the
// other scoring settings): small enough that no alignment score of the
// bounded reference and window lengths comes near 32-bit limits.
constexpr int kMaxScoreMagnitude = 1000;

// The 32-bit kernels are exact for an alignment of lengths l1 and l2 as long as
// (l1 + l2 + 1) * (largest |matrix element| or |gap cost|) is at most this.
constexpr long long kMaxScoreRange32 = 500000000;

}  // namespace PairAlignment
