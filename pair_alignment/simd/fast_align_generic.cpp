// The readable build of the banded aligner, position by position as the
// recurrence is stated: a tight loop over each diagonal's interior cells and a
// separate routine for its first and last cell. The vector builds must give
// exactly its scores and traces.

#include "pair_alignment/fast_align.h"
#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment::Core {
namespace {

// Diagonal wins every tie; between the two gaps a tie goes to the gap in the
// query (RIGHT).
int ChooseCell(int diag, int up, int right, uint8_t* code) {
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

bool InBand(const BandJob& job, int d, int j) {
    return d >= 0 && j >= job.offsets[d] && j < job.offsets[d] + job.lengths[d];
}

int MatchScore(const BandJob& job, int i, int j) {
    return i >= 1 && j >= 1 ? job.matrix[job.n * job.ref[i - 1] + job.query[j - 1]] : 0;
}

// The first (START) and last (END) cell of a diagonal, or its only one (BOTH
// on the last diagonal). These are the only cells that can touch the matrix
// borders or have a predecessor outside the band, so this routine decides
// both by position rather than by the flag: with a one-cell band every cell is
// both first and last, and a flag-driven shortcut would read outside the band.
int EdgeCell(const BandJob& job, int d, int p, const int* prev, const int* prev2, uint8_t* code) {
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

int FillBandGeneric(const BandJob& job) {
    const int total = job.l1 + job.l2;
    const Costs& c = job.costs;
    int* prev2 = job.rows[0];
    int* prev = job.rows[1];
    int* cur = job.rows[2];
    prev[0] = 0;  // the origin, diagonal 0
    for (int d = 1; d <= total; ++d) {
        const int off = job.offsets[d];
        const int len = job.lengths[d];
        uint8_t* trace = job.trace + static_cast<size_t>(d) * job.width;
        for (int p = 0; p < len; ++p)
            job.match[p] = MatchScore(job, d - off - p, off + p);

        cur[0] = EdgeCell(job, d, 0, prev, prev2, &trace[0]);
        // Interior cells have all three predecessors inside the band and lie off
        // the matrix borders, so only the open costs apply. Their predecessors sit
        // at fixed shifts, since band offsets grow by at most 1 per diagonal.
        const int up_shift = off - job.offsets[d - 1] - 1;
        const int diag_shift = off - (d >= 2 ? job.offsets[d - 2] : 0) - 1;
        for (int p = 1; p < len - 1; ++p) {
            const int diag = prev2[p + diag_shift] + job.match[p];
            const int up = prev[p + up_shift] + c.open1;
            const int right = prev[p + up_shift + 1] + c.open2;
            cur[p] = ChooseCell(diag, up, right, &trace[p]);
        }
        if (len > 1) cur[len - 1] = EdgeCell(job, d, len - 1, prev, prev2, &trace[len - 1]);

        int* spare = prev2;
        prev2 = prev;
        prev = cur;
        cur = spare;
    }
    return prev[0];
}

}  // namespace PairAlignment::Core
