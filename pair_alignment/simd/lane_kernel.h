#pragma once
// The many-reference score kernel, written once over a lane-block type B and
// instantiated by each build with its own B (declared in that build's
// anonymous namespace, so every instantiation stays private to its object).
//
// B provides: kLanes (lanes per block), type T (one block of lanes: one or more
// registers), type Elem (lane element), Load(const Elem*), Store(Elem*, T),
// Add(T, T) (saturating for 16-bit lanes), Max(T, T), Set1(int). The block
// width is the build's choice: wider blocks share each cell's address and
// query work among more lanes, and the caller lays profiles out to match
// (LaneJob).
//
// Rows are indexed by slot j + 1 for query index j, with guard slots on both
// sides. After each diagonal the slots just outside its band are set to the
// sentinel, which is far below every real score (the caller bounds the range).
// Band ends move by at most one cell per diagonal, so every read of the next
// two diagonals falls on a band cell or on one of these two guards, and the
// interior loop needs no band tests at all.

#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment::Core {
namespace {

inline int MaxOf(int a, int b) {
    return a > b ? a : b;
}
inline int MinOf(int a, int b) {
    return a < b ? a : b;
}

template <class B>
void ScoreLanes(const LaneJob& job, int sentinel) {
    using T = typename B::T;
    using Elem = typename B::Elem;
    constexpr int lanes = B::kLanes;
    static_assert(sizeof(T) == lanes * sizeof(Elem), "a lane block is exactly kLanes elements");
    const int l1 = job.l1;
    const int l2 = job.l2;
    const int n = job.n;
    const int total = l1 + l2;
    const int slots = l2 + 3;
    const Costs& c = job.costs;
    const T none = B::Set1(sentinel);
    const T open1 = B::Set1(c.open1);
    const T open2 = B::Set1(c.open2);
    Elem* rows = static_cast<Elem*>(job.rows);
    const int* query = job.query;

    for (int block = 0; block < job.blocks; ++block) {
        const Elem* profile = static_cast<const Elem*>(job.profile) + static_cast<size_t>(block) * l1 * n * lanes;
        Elem* prev2 = rows;
        Elem* prev = rows + slots * lanes;
        Elem* cur = rows + 2 * slots * lanes;
        B::Store(prev + 0 * lanes, none);
        B::Store(prev + 1 * lanes, B::Set1(0));
        B::Store(prev + 2 * lanes, none);

        // A cell on a matrix border or next to it, with the border costs and
        // without reading outside the matrix.
        auto edge_cell = [&](int d, int j) {
            const int i = d - j;
            T diag = none;
            T up = none;
            T right = none;
            if (i >= 1 && j >= 1)
                diag = B::Add(B::Load(prev2 + j * lanes), B::Load(profile + ((i - 1) * n + query[j - 1]) * lanes));
            if (j >= 1) up = B::Add(B::Load(prev + j * lanes), B::Set1(i == 0 ? c.start1 : i == l1 ? c.end1 : c.open1));
            if (i >= 1)
                right = B::Add(B::Load(prev + (j + 1) * lanes), B::Set1(j == 0    ? c.start2
                                                                        : j == l2 ? c.end2
                                                                                  : c.open2));
            B::Store(cur + (j + 1) * lanes, B::Max(diag, B::Max(up, right)));
        };

        for (int d = 1; d <= total; ++d) {
            const int lo = job.offsets[d];
            const int hi = lo + job.lengths[d] - 1;
            B::Store(cur + lo * lanes, none);
            B::Store(cur + (hi + 2) * lanes, none);
            // Cells with 1 <= i < l1 and 1 <= j < l2 only pay open costs.
            const int first = MaxOf(lo, MaxOf(1, d - l1 + 1));
            const int last = MinOf(hi, MinOf(l2 - 1, d - 1));
            for (int j = lo; j <= hi && j < first; ++j)
                edge_cell(d, j);
            // Profile row of reference position i - 1, walking down as j goes up.
            int row = (d - first - 1) * n * lanes;
            // S(i-1, j) of one cell is S(i, j-1) of the next: carried, not reloaded.
            T left = B::Load(prev + first * lanes);
            for (int j = first; j <= last; ++j, row -= n * lanes) {
                // S(i,j) = max(S(i-1,j-1) + M(ref[i-1], q[j-1]), S(i,j-1) + open1, S(i-1,j) + open2)
                const T above = B::Load(prev + (j + 1) * lanes);
                const T diag = B::Add(B::Load(prev2 + j * lanes), B::Load(profile + row + query[j - 1] * lanes));
                const T up = B::Add(left, open1);
                const T right = B::Add(above, open2);
                B::Store(cur + (j + 1) * lanes, B::Max(diag, B::Max(up, right)));
                left = above;
            }
            for (int j = MaxOf(last + 1, first); j <= hi; ++j)
                edge_cell(d, j);
            Elem* spare = prev2;
            prev2 = prev;
            prev = cur;
            cur = spare;
        }
        // prev holds diagonal l1 + l2, whose only cell is (l1, l2).
        alignas(64) Elem last_scores[lanes];
        B::Store(last_scores, B::Load(prev + (l2 + 1) * lanes));
        for (int k = 0; k < lanes; ++k)
            job.scores[block * lanes + k] = last_scores[k];
    }
}

}  // namespace
}  // namespace PairAlignment::Core
