#pragma once
// Where the aligner's band lies. It depends only on the two lengths and the
// width, so every reference of one length shares it (the batch kernels rely on
// that to move their lanes in lock-step).

namespace PairAlignment {

// The width actually used for lengths l1, l2 and the configured (odd) width:
// wide enough to cover the whole matrix when max(l1, l2) <= configured, always odd.
int EffectiveBandWidth(int l1, int l2, int configured);

// For every anti-diagonal d = 0 .. l1 + l2: offsets[d] is the first query index
// j of the band and lengths[d] its number of cells (cells (d - j, j) with j
// increasing). Both arrays hold l1 + l2 + 1 values.
void PlaceBand(int l1, int l2, int width, int* offsets, int* lengths);

// Whether both ends of the band advance by 0 or 1 cell per diagonal, as
// PlaceBand guarantees. The vector kernels, which read just past the band's
// previous ends, rely on it and check it before trusting a band.
bool BandEndsStepByOne(const int* offsets, const int* lengths, int diagonals);

// Whether the band of (l1, l2) holds every cell of the matrix.
bool BandCoversMatrix(int l1, int l2, const int* offsets, const int* lengths);

}  // namespace PairAlignment
