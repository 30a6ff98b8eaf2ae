// The readable build of the banded aligner; the vector builds compute exactly
// this, only several interior cells at a time.

#include "pair_alignment/simd/band_cells.h"

namespace PairAlignment::Core {

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
