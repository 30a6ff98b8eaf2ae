#pragma once
// Scalar pieces shared by every build of the banded aligner: the choice rule
// and the edge-cell routine. Included only by simd/*.cpp; everything is static
// so each build keeps its own copy compiled with its own flags.

#include "pair_alignment/fast_align.h"
#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment::Core {
namespace {

// Diagonal wins every tie; between the two gaps a tie goes to the gap in the
// query (RIGHT).
inline int ChooseCell(int diag, int up, int right, uint8_t* code) {
    if (diag >= up && diag >= right) {
        *code = DIAG;
        return diag;
    }
    if (right < up) {
        *code = UP;
        return up;
    }
    *code = RIGHT;
    return right;
}

inline bool InBand(const BandJob& job, int d, int j) {
    return d >= 0 && j >= job.offsets[d] && j < job.offsets[d] + job.lengths[d];
}

inline int MatchScore(const BandJob& job, int i, int j) {
    return i >= 1 && j >= 1 ? job.matrix[job.n * job.ref[i - 1] + job.query[j - 1]] : 0;
}

// The first (START) and last (END) cell of a diagonal, or its only one (BOTH
// on the last diagonal). These are the only cells that can touch the matrix
// borders or have a predecessor outside the band, so this routine decides
// both by position rather than by the flag: with a one-cell band every cell is
// both first and last, and a flag-driven shortcut would read outside the band.
inline int EdgeCell(const BandJob& job, int d, int p, const int* prev, const int* prev2, uint8_t* code) {
    const int j = job.offsets[d] + p;
    const int i = d - j;
    const Costs& c = job.costs;
    int diag = ZERO_PROB_SCORE;
    int up = ZERO_PROB_SCORE;
    int right = ZERO_PROB_SCORE;
    if (i >= 1 && j >= 1 && InBand(job, d - 2, j - 1)) diag = prev2[j - 1 - job.offsets[d - 2]] + MatchScore(job, i, j);
    if (j >= 1 && InBand(job, d - 1, j - 1))
        up = prev[j - 1 - job.offsets[d - 1]] + (i == 0 ? c.start1 : i == job.l1 ? c.end1 : c.open1);
    if (i >= 1 && InBand(job, d - 1, j))
        right = prev[j - job.offsets[d - 1]] + (j == 0 ? c.start2 : j == job.l2 ? c.end2 : c.open2);
    return ChooseCell(diag, up, right, code);
}

}  // namespace
}  // namespace PairAlignment::Core
