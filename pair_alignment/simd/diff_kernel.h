#pragma once
// The many-reference score kernel in 8-bit lanes: the same scores as
// lane_kernel.h, with twice as many lanes per register, for alignments whose
// band covers the whole matrix and whose costs are small (the caller checks
// both, see FastAlign::ScoreBatch). Written once over a byte-lane type B,
// instantiated by each build with its own B.
//
// A cell's score grows with the alignment, but the difference between two
// neighbouring cells stays small whatever the lengths. The kernel keeps, for
// cell (i, j), x = S(i, j) - S(i, j-1) and y = S(i, j) - S(i-1, j), and with
// z = S(i, j) - S(i-1, j-1):
//   z = max(M(ref[i-1], q[j-1]), y(i, j-1) + open1, x(i-1, j) + open2)
//   x(i, j) = z - y(i, j-1),  y(i, j) = z - x(i-1, j)
// The first row and column are constant differences (start1 and start2). For
// 1 <= i < L1 and 1 <= j < L2 only the open costs apply, and there
//   x in [open1, max(M - min(open2, start2), open1, start1)]
// and the same for y with the roles swapped, as long as a start gap costs no
// more than an open one (start >= open in the negated costs): by induction
// over i (x) and j (y). So with every cost within K = kLimit8Cost, x and y
// lie within [-K, 2K], and the shifted values below fit a byte.
// The last row and column are different: with a free end gap (end1 = 0), y on
// row L1 grows with the stretch of window after the reference. They are
// computed on scores instead, in 16-bit lanes (the caller keeps the whole
// range within kLimit16): S(L1 - 1, j) and S(i, L2 - 1) are summed up from
// the differences, S(L1, j) and S(i, L2) follow the plain recurrence.
//
// Rows go along j. The differences are kept shifted so that a cell costs
// four operations, two maxima and two subtractions: with c = open1 + open2,
//   A = x - open1,  Yt = y - open2,  zt = z - c,  Mt = M - c
// the recurrence above becomes
//   zt = max(Mt, A(i-1, j), Yt(i, j-1)),  A(i, j) = zt - Yt(i, j-1),  Yt(i, j) = zt - A(i-1, j)
// and only a max and a subtraction lie on the chain from one cell to the
// next. By the bounds above A and Yt lie within [0, 3K] and Mt within
// [-3K, 3K], so zt lies within [0, 3K] and both differences within
// [-3K, 3K]: a byte holds every value, so wrapping and saturating arithmetic
// agree. Mt is the block's profile less c, made once per block in the work
// space after the row (rows holds l2 + 1 + l1 * n lane blocks).
//
// B provides: kLanes, Elem (int8_t), T, Load, Store, Add, Sub, Max, Set1, and
// a 16-bit type W of the same lanes with Widen(T), AddW, MaxW, Set1W and
// StoreW(int16_t*, W); all but Widen come from OneWide or TwoWide below.

#include <cstdint>
#include <type_traits>

#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment::Core {
namespace {

// The 16-bit side of a byte type whose lanes fit one register of the 16-bit
// lane type Wide (the scalar build, AVX-512)...
template <class Wide_>
struct OneWide {
    using Wide = Wide_;
    using W = typename Wide::T;
    static W AddW(const W& a, const W& b) { return Wide::Add(a, b); }
    static W MaxW(const W& a, const W& b) { return Wide::Max(a, b); }
    static W Set1W(int x) { return Wide::Set1(x); }
    static void StoreW(int16_t* p, const W& a) { Wide::Store(p, a); }
};

// ... or need two of them, a low and a high half (SSE4.1, AVX2).
template <class Wide_>
struct TwoWide {
    using Wide = Wide_;
    struct W {
        typename Wide::T lo, hi;
    };
    static W AddW(const W& a, const W& b) { return {Wide::Add(a.lo, b.lo), Wide::Add(a.hi, b.hi)}; }
    static W MaxW(const W& a, const W& b) { return {Wide::Max(a.lo, b.lo), Wide::Max(a.hi, b.hi)}; }
    static W Set1W(int x) { return {Wide::Set1(x), Wide::Set1(x)}; }
    static void StoreW(int16_t* p, const W& a) {
        Wide::Store(p, a.lo);
        Wide::Store(p + Wide::kLanes, a.hi);
    }
};

// Cell (i, j) from above = A(i-1, j) and the shifted profile's m = Mt(ref[i-1],
// q[j-1]): left holds Yt(i, j-1) and becomes Yt(i, j); returns A(i, j).
template <class B>
__attribute__((always_inline)) inline typename B::T DiffCell(typename B::T m, typename B::T above,
                                                             typename B::T& left) {
    const typename B::T z = B::Max(B::Max(m, above), left);
    typename B::T x = B::Sub(z, left);
    left = B::Sub(z, above);
    // Where B offers it, an empty barrier: without it GCC rewrites the next
    // row's z - x as (z - z') + y and forms both, seven operations for four.
    if constexpr (requires { B::Opaque(x); }) B::Opaque(x);
    return x;
}

template <class B>
void ScoreDiffs(const LaneJob& job) {
    using T = typename B::T;
    using W = typename B::W;
    using Elem = typename B::Elem;
    constexpr int lanes = B::kLanes;
    const int l1 = job.l1;
    const int l2 = job.l2;
    const int step = job.n * lanes;  // one reference position in a block's profile
    const Costs& c = job.costs;
    const int* query = job.query;
    const T both = B::Set1(c.open1 + c.open2);
    const T first_x = B::Set1(c.start1 - c.open1);  // row 0: A with x = start1
    const T first_y = B::Set1(c.start2 - c.open2);  // column 0: Yt with y = start2
    const W open1 = B::Set1W(c.open1), open2 = B::Set1W(c.open2);
    const W end1 = B::Set1W(c.end1), end2 = B::Set1W(c.end2);
    const W unbias_x = B::Set1W(c.open1), unbias_y = B::Set1W(c.open2);
    Elem* xs = static_cast<Elem*>(job.rows);                   // A(i, j) at slot j, 1 <= j < l2
    Elem* shifted = xs + static_cast<size_t>(l2 + 1) * lanes;  // Mt of the block, the profile's layout
    // Query code times the lane count, once per call: a cell's profile
    // address is then one load and an add away.
    int* at = job.query_offsets;
    for (int j = 0; j < l2; ++j)
        at[j] = query[j] * lanes;
    auto match = [at](const Elem* row, int j) { return B::Load(row + at[j - 1]); };

    for (int block = 0; block < job.blocks; ++block) {
        const Elem* profile = static_cast<const Elem*>(job.profile) + static_cast<size_t>(block) * l1 * step;
        for (int k = 0; k < l1 * job.n; ++k)
            B::Store(shifted + k * lanes, B::Sub(B::Load(profile + k * lanes), both));
        for (int j = 1; j < l2; ++j)
            B::Store(xs + j * lanes, first_x);
        // Column L2 on scores: left = S(i, L2 - 1), last = S(i, L2), one row
        // at a time from Yt(i, L2 - 1).
        W left = B::Set1W((l2 - 1) * c.start1);
        W last = B::Set1W(l2 * c.start1);
        auto column = [&](const Elem* row, T y) {
            // S(i, L2) = max(S(i-1, L2-1) + M, S(i, L2-1) + open1, S(i-1, L2) + end2)
            const W next_left = B::AddW(B::AddW(left, B::Widen(y)), unbias_y);
            last = B::MaxW(B::MaxW(B::AddW(left, B::Widen(match(row, l2))), B::AddW(next_left, open1)),
                           B::AddW(last, end2));
            left = next_left;
        };
        // Rows R at a time, column by column: the R cells of a column share
        // the query offset and one load and store of A, and the R chains from
        // cell to cell (one per row) overlap. Eight rows, then four, then one.
        auto rows = [&](auto count, int i) {
            constexpr int R = decltype(count)::value;
            const Elem* cells = shifted + (i - 1) * step;
            T y[R];
#pragma GCC unroll 8
            for (int r = 0; r < R; ++r)
                y[r] = first_y;
            for (int j = 1; j < l2; ++j) {
                const int at_j = at[j - 1];
                T x = B::Load(xs + j * lanes);
#pragma GCC unroll 8
                for (int r = 0; r < R; ++r)
                    x = DiffCell<B>(B::Load(cells + r * step + at_j), x, y[r]);
                B::Store(xs + j * lanes, x);
            }
#pragma GCC unroll 8
            for (int r = 0; r < R; ++r)
                column(profile + (i - 1 + r) * step, y[r]);
        };
        int i = 1;
        for (; i + 7 < l1; i += 8)
            rows(std::integral_constant<int, 8>{}, i);
        for (; i + 3 < l1; i += 4)
            rows(std::integral_constant<int, 4>{}, i);
        for (; i < l1; ++i)
            rows(std::integral_constant<int, 1>{}, i);
        // Row L1 on scores: above = S(L1 - 1, j - 1), here = S(L1, j).
        // S(L1, j) = max(S(L1-1, j-1) + M, S(L1, j-1) + end1, S(L1-1, j) + gap2(j))
        const Elem* row = profile + (l1 - 1) * step;
        W above = B::Set1W((l1 - 1) * c.start2);
        W here = B::Set1W(l1 * c.start2);
        for (int j = 1; j < l2; ++j) {
            const W next_above = B::AddW(B::AddW(above, B::Widen(B::Load(xs + j * lanes))), unbias_x);
            here = B::MaxW(B::MaxW(B::AddW(above, B::Widen(match(row, j))), B::AddW(here, end1)),
                           B::AddW(next_above, open2));
            above = next_above;
        }
        // (L1, L2): the cell above it is S(L1 - 1, L2), the column's last.
        here = B::MaxW(B::MaxW(B::AddW(above, B::Widen(match(row, l2))), B::AddW(here, end1)), B::AddW(last, end2));
        alignas(64) int16_t scores[lanes];
        B::StoreW(scores, here);
        for (int k = 0; k < lanes; ++k)
            job.scores[block * lanes + k] = scores[k];
    }
}

}  // namespace
}  // namespace PairAlignment::Core
