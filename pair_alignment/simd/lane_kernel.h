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
// sides. Before a diagonal is filled, the slots just outside its band are set
// to the sentinel, which is far below every real score (the caller bounds the
// range). Band ends move by at most one cell per diagonal, so every read of the
// next two diagonals falls on a band cell or on one of these two guards, and
// the interior loop needs no band tests at all.
//
// Diagonals are filled two at a time, d and d + 1 in one sweep over j: cell
// (d + 1, j) needs cells j - 1 and j of diagonal d, which the same sweep has
// just made, and the diagonal move of (d + 1, j) is the left move of (d, j).
// Both cells also share the query code and the profile address. A cell then
// loads two lane blocks instead of three; the kernel is bound by loads, and
// this measured about 20 % faster. Four rows of work space: d - 2, d - 1, d
// and d + 1.

#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment::Core {
namespace {

inline int MaxOf(int a, int b) {
    return a > b ? a : b;
}
inline int MinOf(int a, int b) {
    return a < b ? a : b;
}

// S(i,j) = max(S(i-1,j-1) + M(ref[i-1], q[j-1]), S(i,j-1) + open1, S(i-1,j) + open2)
// for 1 <= i < l1 and 1 <= j < l2, with diag = S(i-1,j-1) + M already added.
// Costs come by value: stores to the rows may alias anything a lambda
// captures by reference, which would then be reloaded for every cell.
template <class B, bool kEqualOpen, class T>
inline T Inner(T diag, T left, T above, T open1, T open2) {
    if constexpr (kEqualOpen)
        return B::Max(diag, B::Add(B::Max(left, above), open1));
    else
        return B::Max(diag, B::Max(B::Add(left, open1), B::Add(above, open2)));
}

// Interior cells first..last of diagonals d (into cur) and d + 1 (into next)
// in one sweep; row is cell (d, first)'s profile row.
template <class B, bool kEqualOpen>
__attribute__((always_inline)) inline void SweepTwo(typename B::Elem* cur, typename B::Elem* next,
                                                    const typename B::Elem* prev, const typename B::Elem* prev2,
                                                    const typename B::Elem* profile, const int* query, int first,
                                                    int last, int row, int step, typename B::T open1,
                                                    typename B::T open2) {
    using T = typename B::T;
    constexpr int lanes = B::kLanes;
    T left = B::Load(prev + first * lanes);      // S(d - 1, j - 1): left of (d, j), diagonal of (d + 1, j)
    T next_left = B::Load(cur + first * lanes);  // S(d, j - 1)
    for (int j = first; j <= last; ++j, row -= step) {
        const int code = query[j - 1] * lanes;
        const T above = B::Load(prev + (j + 1) * lanes);
        const T here = Inner<B, kEqualOpen>(B::Add(B::Load(prev2 + j * lanes), B::Load(profile + row + code)), left,
                                            above, open1, open2);
        B::Store(cur + (j + 1) * lanes, here);
        const T below =
            Inner<B, kEqualOpen>(B::Add(left, B::Load(profile + row + step + code)), next_left, here, open1, open2);
        B::Store(next + (j + 1) * lanes, below);
        left = above;
        next_left = here;
    }
}

// A cell on a matrix border or next to it, with the border costs and without
// reading outside the matrix. A few per diagonal, kept out of line.
template <class B>
__attribute__((noinline)) void EdgeCell(const LaneJob& job, int sentinel, const typename B::Elem* profile, int d, int j,
                                        typename B::Elem* cur, const typename B::Elem* prev,
                                        const typename B::Elem* prev2) {
    using T = typename B::T;
    constexpr int lanes = B::kLanes;
    const Costs& c = job.costs;
    const int i = d - j;
    const T none = B::Set1(sentinel);
    T diag = none;
    T up = none;
    T right = none;
    if (i >= 1 && j >= 1)
        diag = B::Add(B::Load(prev2 + j * lanes), B::Load(profile + ((i - 1) * job.n + job.query[j - 1]) * lanes));
    if (j >= 1) up = B::Add(B::Load(prev + j * lanes), B::Set1(i == 0 ? c.start1 : i == job.l1 ? c.end1 : c.open1));
    if (i >= 1)
        right = B::Add(B::Load(prev + (j + 1) * lanes), B::Set1(j == 0 ? c.start2 : j == job.l2 ? c.end2 : c.open2));
    B::Store(cur + (j + 1) * lanes, B::Max(diag, B::Max(up, right)));
}

// kEqualOpen: the two gap-open costs are equal (the shipped settings), so
// max(left + open, above + open) = max(left, above) + open saves one add per
// cell; a saturating add keeps this exact, being monotonic like plain addition.
template <class B, bool kEqualOpen>
void ScoreLanesWith(const LaneJob& job, int sentinel) {
    using T = typename B::T;
    using Elem = typename B::Elem;
    constexpr int lanes = B::kLanes;
    static_assert(sizeof(T) == lanes * sizeof(Elem), "a lane block is exactly kLanes elements");
    const int l1 = job.l1;
    const int l2 = job.l2;
    const int n = job.n;
    const int total = l1 + l2;
    const int slots = l2 + 3;
    const int step = n * lanes;  // one reference position in a block's profile
    const Costs& c = job.costs;
    const T none = B::Set1(sentinel);
    const T open1 = B::Set1(c.open1);
    const T open2 = B::Set1(c.open2);
    Elem* rows = static_cast<Elem*>(job.rows);
    const int* query = job.query;

    const int* offsets = job.offsets;
    const int* lengths = job.lengths;

    for (int block = 0; block < job.blocks; ++block) {
        const Elem* profile = static_cast<const Elem*>(job.profile) + static_cast<size_t>(block) * l1 * step;

        // Cells from..to of diagonal d, one at a time: the few outside the
        // two-diagonal sweep.
        auto cells = [=](int d, int from, int to, Elem* cur, const Elem* prev, const Elem* prev2) {
            for (int j = from; j <= to; ++j) {
                const int i = d - j;
                if (i < 1 || i >= l1 || j < 1 || j >= l2) {
                    EdgeCell<B>(job, sentinel, profile, d, j, cur, prev, prev2);
                    continue;
                }
                const T diag =
                    B::Add(B::Load(prev2 + j * lanes), B::Load(profile + (i - 1) * step + query[j - 1] * lanes));
                B::Store(cur + (j + 1) * lanes, Inner<B, kEqualOpen>(diag, B::Load(prev + j * lanes),
                                                                     B::Load(prev + (j + 1) * lanes), open1, open2));
            }
        };

        // Roles of the four rows: diagonals d - 2, d - 1, d, d + 1.
        Elem* prev2 = rows;
        Elem* prev = rows + slots * lanes;
        Elem* cur = rows + 2 * slots * lanes;
        Elem* next = rows + 3 * slots * lanes;
        B::Store(prev + 0 * lanes, none);
        B::Store(prev + 1 * lanes, B::Set1(0));
        B::Store(prev + 2 * lanes, none);

        int d = 1;
        for (; d + 1 <= total; d += 2) {
            const int lo = offsets[d], hi = lo + lengths[d] - 1;
            const int next_lo = offsets[d + 1], next_hi = next_lo + lengths[d + 1] - 1;
            // Guards first: the slots just outside each band.
            B::Store(cur + lo * lanes, none);
            B::Store(cur + (hi + 2) * lanes, none);
            B::Store(next + next_lo * lanes, none);
            B::Store(next + (next_hi + 2) * lanes, none);
            // Cells j in the interior of both diagonals (1 <= i < l1, 1 <= j <
            // l2, only open costs) are swept together.
            const int f0 = MaxOf(MaxOf(lo, next_lo), MaxOf(1, d - l1 + 2));
            const int f1 = MinOf(MinOf(hi, next_hi), MinOf(l2 - 1, d - 1));
            if (f0 > f1) {
                cells(d, lo, hi, cur, prev, prev2);
                cells(d + 1, next_lo, next_hi, next, cur, prev);
            } else {
                // Cells before the sweep; those of d + 1 need cells of d up to j.
                cells(d, lo, f0 - 1, cur, prev, prev2);
                cells(d + 1, next_lo, f0 - 1, next, cur, prev);
                SweepTwo<B, kEqualOpen>(cur, next, prev, prev2, profile, query, f0, f1, (d - f0 - 1) * step, step,
                                        open1, open2);
                cells(d, f1 + 1, hi, cur, prev, prev2);
                cells(d + 1, f1 + 1, next_hi, next, cur, prev);
            }
            Elem* spare2 = prev2;
            Elem* spare = prev;
            prev2 = cur;
            prev = next;
            cur = spare2;
            next = spare;
        }
        if (d == total) {
            const int lo = offsets[d], hi = lo + lengths[d] - 1;
            B::Store(cur + lo * lanes, none);
            B::Store(cur + (hi + 2) * lanes, none);
            cells(d, lo, hi, cur, prev, prev2);
            prev = cur;
        }
        // prev holds diagonal l1 + l2, whose only cell is (l1, l2).
        alignas(64) Elem last_scores[lanes];
        B::Store(last_scores, B::Load(prev + (l2 + 1) * lanes));
        for (int k = 0; k < lanes; ++k)
            job.scores[block * lanes + k] = last_scores[k];
    }
}

// The build's entry point for lane type B.
template <class B>
void ScoreLanes(const LaneJob& job) {
    const int sentinel = sizeof(typename B::Elem) == 2 ? kSentinel16 : kSentinel32;
    if (job.costs.open1 == job.costs.open2)
        ScoreLanesWith<B, true>(job, sentinel);
    else
        ScoreLanesWith<B, false>(job, sentinel);
}

}  // namespace
}  // namespace PairAlignment::Core
