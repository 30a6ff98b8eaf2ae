#pragma once
// The banded aligner's kernel in 8-bit lanes, for one alignment whose band
// covers the whole matrix, whose costs are small (the caller checks both, as
// for the many-reference 8-bit kernel, see diff_kernel.h) and whose shorter
// sequence has at most kBandBytesMaxLength bases: the same score and the same
// trace codes as band_kernel.h. Written once over a byte-lane type B,
// instantiated by each build with its own.
//
// Below the last row and left of the last column the kernel keeps only the
// differences of diff_kernel.h, shifted the same way (A = x - open1,
// Yt = y - open2, Mt = M - open1 - open2), which stay within a byte whatever
// the lengths. Every candidate of a cell is S(i-1, j-1) + open1 + open2 plus
//   diag: Mt(ref[i-1], q[j-1]),  up: Yt(i, j-1),  right: A(i-1, j)
// so comparing the shifted values gives exactly the trace codes of the scores.
// The cells are filled along anti-diagonals as in band_kernel.h, indexed by
// query index j. A diagonal needs only the one before, which stays in
// registers (FillDiagonals): the diagonals are short and many, and passing
// them through memory made each wait on the stores of the one before. Row 0
// and column 0 are constant differences (start1 and start2), set in the lanes
// that read them.
//
// The last row and column may hold large differences (a free end gap lets y
// on row L1 grow with the window past the reference). They are computed
// afterwards on scores, one cell at a time: S(L1 - 1, j) and S(i, L2 - 1) are
// summed up from the differences the diagonals leave, and the plain
// recurrence gives S(L1, j), S(i, L2), their trace codes and the score.
// Codes of row 0 and column 0 are never read (the traceback stops there) and
// are not written.
//
// B provides kLanes (kByteBlockBytes), Elem (int8_t), T, Load, Store, Add,
// Sub, Max, Set1, CmpGt (all ones where a > b), And, Blend(a, b, mask) (b
// where mask is all ones), Lane0 (lane 0 as an int), ShiftUp and ShiftDown
// (one lane across two vectors, see the builds), a type Table built from 16
// bytes (index r * 4 + q) and Lookup(const Table&, const uint8_t* ref, const
// uint8_t* query): the kLanes table entries of (ref[p], query[p]), codes < 4.
// A diagonal's last vector may reach kLanes - 1 cells past it; those lanes
// read the padding of the job's arrays and their trace codes land on later
// diagonals, the last row or column, or outside the matrix, all written or
// never read later.

#include <cstdint>

#include "pair_alignment/fast_align.h"
#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment::Core {
namespace {

// Diagonal wins every tie; between the gaps a tie goes to RIGHT. The code is
// arithmetic on the comparisons: the outcome is data, and written as a choice
// GCC compiled it to a branch that the processor often mispredicts (the
// whole alignment took a sixth longer).
inline int ChooseScore(int diag, int up, int right, uint8_t* code) {
    static_assert(DIAG == 0 && UP == 1 && RIGHT == 2);
    const int up_wins = right < up;
    const int gap = up > right ? up : right;
    const int diag_loses = diag < gap;
    *code = static_cast<uint8_t>(diag_loses * (RIGHT - up_wins));
    return diag > gap ? diag : gap;
}

// Masks for Blend: kLanes bytes from bytes + 3 * kLanes - t have all ones in
// lane t alone, for t in [-2 * kLanes, 3 * kLanes) (none where t is outside
// [0, kLanes)).
template <int kLanes>
struct OneLane {
    int8_t bytes[6 * kLanes] = {};
    constexpr OneLane() { bytes[3 * kLanes] = -1; }
};

// The diagonals of the cells off the last row and column, each held in kCount
// vectors of registers (lane p of vector k: slot lo + kLanes * k + p of that
// diagonal), so that a diagonal reads the one before from registers: through
// memory, every diagonal would wait on the stores of the one before. Leaves
// A(L1 - 1, d - L1 + 1) in last_x[d] and Yt(d - L2 + 1, L2 - 1) in last_y[d].
template <class B, int kCount>
void FillDiagonals(const BandJob& job, typename B::Elem* last_x, typename B::Elem* last_y) {
    using T = typename B::T;
    using Elem = typename B::Elem;
    constexpr int lanes = B::kLanes;
    static constexpr OneLane<lanes> kOneLane;
    const int l1 = job.l1;
    const int l2 = job.l2;
    const Costs& c = job.costs;
    alignas(16) uint8_t shifted[16];
    for (int e = 0; e < 16; ++e)
        shifted[e] = static_cast<uint8_t>(job.matrix[e] - c.open1 - c.open2);
    const typename B::Table table(shifted);
    const T two = B::Set1(2);
    const T first_x = B::Set1(c.start1 - c.open1);  // A on row 0
    const T first_y = B::Set1(c.start2 - c.open2);  // Yt on column 0
    // Cell (d - j, j) reads ref_codes[j] = ref_rev8[l1 - d + j] and query_codes[j].
    const uint8_t* ref_codes = job.ref_rev8 + l1 - 2;
    const uint8_t* query_codes = job.query8 - 1;
    uint8_t* row = job.trace + 2 * static_cast<size_t>(job.width);
    T xs[kCount], ys[kCount];  // the diagonal before (diagonal 1: guards only)
    for (int k = 0; k < kCount; ++k)
        xs[k] = ys[k] = two;
    alignas(64) Elem spill[kCount * lanes];
    for (int d = 2; d <= l1 + l2 - 2; ++d) {
        const int lo = d - l1 + 1 > 1 ? d - l1 + 1 : 1;
        const int hi = d - 1 < l2 - 1 ? d - 1 : l2 - 1;
        // Cell (i, j) needs A(i - 1, j) and Yt(i, j - 1) of the diagonal
        // before, whose slots start at lo - 1 (past row L1 - 1) or at lo.
        T x[kCount], y[kCount];
        for (int k = 0; k < kCount; ++k) {
            if (d > l1) {
                x[k] = B::ShiftDown(xs[k], xs[k + 1 < kCount ? k + 1 : k]);
                y[k] = ys[k];
            } else {
                x[k] = xs[k];
                y[k] = B::ShiftUp(k > 0 ? ys[k - 1] : first_y, ys[k]);  // lane 0 of 0: column 0
            }
        }
        if (d <= l2)  // cell (1, d - 1) starts from row 0
            for (int k = 0; k < kCount; ++k)
                x[k] = B::Blend(x[k], first_x, B::Load(kOneLane.bytes + 3 * lanes - (d - 1 - lo - lanes * k)));
        uint8_t* codes = row - (lo - 1);  // the band starts at max(0, d - l1)
        for (int k = 0; k < kCount; ++k) {
            const int j = lo + lanes * k;
            // Vectors past the diagonal carry no cell; their lanes stay out of
            // the cells of the next diagonals but for the guards set above.
            const T m = j <= hi ? B::Lookup(table, ref_codes + j, query_codes + j) : two;
            const T gap = B::Max(x[k], y[k]);
            const T z = B::Max(m, gap);
            // DIAG (0) unless a gap beats diag; then UP (1) if up > right, else RIGHT (2).
            if (j <= hi)
                B::Store(reinterpret_cast<Elem*>(codes + j),
                         B::And(B::CmpGt(gap, m), B::Add(two, B::CmpGt(y[k], x[k]))));
            xs[k] = B::Sub(z, y[k]);
            ys[k] = B::Sub(z, x[k]);
        }
        if (d >= l1) last_x[d] = static_cast<Elem>(B::Lane0(xs[0]));  // cell (L1 - 1, lo)
        if (d >= l2) {                                                // cell (d - L2 + 1, L2 - 1)
            for (int k = 0; k < kCount; ++k)
                B::Store(spill + lanes * k, ys[k]);
            last_y[d] = spill[hi - lo];
        }
        --ref_codes;
        row += job.width;
    }
}

template <class B>
int FillBandDiffs(const BandJob& job) {
    using Elem = typename B::Elem;
    constexpr int lanes = B::kLanes;
    static_assert(lanes == kByteBlockBytes);
    const int l1 = job.l1;
    const int l2 = job.l2;
    Elem* const last_x = job.diffs;
    Elem* const last_y = job.diffs + l1 + l2;
    const int cells = (l1 < l2 ? l1 : l2) - 1;  // the most on one diagonal
    if (cells > 0) {
        if (cells <= lanes)
            FillDiagonals<B, 1>(job, last_x, last_y);
        else if (cells <= 2 * lanes)
            FillDiagonals<B, 2>(job, last_x, last_y);
        else
            FillDiagonals<B, 3>(job, last_x, last_y);
    }

    // Column L2, then row L1, then their corner, on scores. S(i, L2 - 1) and
    // S(L1 - 1, j) are summed up on the way from column 0 or row 0 and the
    // differences the diagonals left. Copies of the job's fields, as the
    // code stores may alias anything.
    const Costs c = job.costs;
    const int* const ref = job.ref;
    const int* const query = job.query;
    const int* const matrix = job.matrix;
    uint8_t* const trace = job.trace;
    const size_t width = static_cast<size_t>(job.width);
    int above = l2 * c.start1;       // S(i - 1, L2)
    int diag = (l2 - 1) * c.start1;  // S(i - 1, L2 - 1)
    const int last_query = query[l2 - 1];
    for (int i = 1; i < l1; ++i) {
        const int left = diag + (l2 == 1 ? c.start2 : last_y[i + l2 - 1] + c.open2);  // S(i, L2 - 1)
        const int from = i + l2 - l1 > 0 ? i + l2 - l1 : 0;                           // the band's offset
        above = ChooseScore(diag + matrix[4 * ref[i - 1] + last_query], left + c.open1, above + c.end2,
                            trace + (i + l2) * width + (l2 - from));
        diag = left;
    }
    // Cell (L1, j) is the first of its diagonal's band.
    const int* const last_ref = matrix + 4 * ref[l1 - 1];
    uint8_t* code = trace + (l1 + 1) * width;
    int left = l1 * c.start2;    // S(L1, j - 1)
    diag = (l1 - 1) * c.start2;  // S(L1 - 1, j - 1)
    for (int j = 1; j < l2; ++j) {
        const int up = diag + (l1 == 1 ? c.start1 : last_x[l1 - 1 + j] + c.open1);  // S(L1 - 1, j)
        left = ChooseScore(diag + last_ref[query[j - 1]], left + c.end1, up + c.open2, code);
        diag = up;
        code += width;
    }
    return ChooseScore(diag + last_ref[last_query], left + c.end1, above + c.end2, code);
}

}  // namespace
}  // namespace PairAlignment::Core
