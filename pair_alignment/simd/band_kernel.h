#pragma once
// The banded aligner's vector kernel (one alignment, with its trace), written
// once over a lane type B and instantiated by each vector build with its own B
// (declared in that build's anonymous namespace, like lane_kernel.h's).
//
// B provides what lane_kernel.h asks for (kLanes, T, Elem, Load, Store, Add,
// Max, Set1), where kLanes is here the number of band cells per step, and
// also: CmpGt(T, T) (all ones where a > b, else zero), And(T, T), a type Table
// built from the 4 x 4 matrix, Match(const Table&, const uint8_t* ref, const
// uint8_t* query) (the kLanes scores M(ref[p], query[p]), codes < 4), and
// StoreCodes(uint8_t*, T) (each lane's low byte, kLanes bytes).
//
// A whole anti-diagonal per vector loop. Rows are indexed by slot j + 1 for
// query index j; the slots just outside the band hold the impossible score, so
// band edges and matrix borders need no special case: each cell takes its gap
// costs from the per-position arrays of the job (border costs included), and
// its predecessors outside the band read the guards (see BandJob). The loop may
// run up to kLanes - 1 cells past the band; what it writes there is either
// overwritten by the guards or never read.

#include <cstdint>
#include <cstring>
#include <utility>

#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment::Core {
namespace {

// The rows are int arrays that hold Elem scores: scalars go through memcpy,
// vectors through the builds' unaligned loads and stores.
template <typename Elem>
inline void PutScalar(Elem* p, Elem value) {
    std::memcpy(p, &value, sizeof(Elem));
}

// The per-position gap costs (up, right) in the lane width (see BandJob).
template <typename Elem>
inline std::pair<const Elem*, const Elem*> GapCosts(const BandJob& job) {
    if constexpr (sizeof(Elem) == 2)
        return {job.up_cost16, job.right_cost16};
    else
        return {job.up_cost, job.right_cost};
}

template <class B>
int FillBand(const BandJob& job, int sentinel) {
    using T = typename B::T;
    using Elem = typename B::Elem;
    constexpr int lanes = B::kLanes;
    const int total = job.l1 + job.l2;
    const Elem none = static_cast<Elem>(sentinel);
    Elem* prev2 = reinterpret_cast<Elem*>(job.rows[0]);
    Elem* prev = reinterpret_cast<Elem*>(job.rows[1]);
    Elem* cur = reinterpret_cast<Elem*>(job.rows[2]);
    // Diagonal 0 (the origin, slot 1) and its guards; diagonal -1 is all guard.
    for (int s = 0; s < 3; ++s)
        PutScalar(prev2 + s, none);
    PutScalar(prev, none);
    PutScalar(prev + 1, Elem{0});
    PutScalar(prev + 2, none);
    const typename B::Table table(job.matrix);
    const T two = B::Set1(2);
    const auto [up_costs, right_costs] = GapCosts<Elem>(job);
    for (int d = 1; d <= total; ++d) {
        const int off = job.offsets[d];
        const int len = job.lengths[d];
        uint8_t* trace = job.trace + static_cast<size_t>(d) * job.width;
        // Cell p of the band is (i, j) = (d - off - p, off + p).
        const int k0 = job.l1 - d + off;  // l1 - i of cell 0
        const uint8_t* ref_codes = job.ref_rev8 + k0;
        const Elem* up_cost = up_costs + k0;
        const uint8_t* query_codes = job.query8 + off - 1;
        const Elem* right_cost = right_costs + off;
        const Elem* up_row = prev + off;     // S(i, j-1) at [p], S(i-1, j) at [p + 1]
        const Elem* diag_row = prev2 + off;  // S(i-1, j-1) at [p]
        Elem* out = cur + off + 1;
        for (int p = 0; p < len; p += lanes) {
            // S(i,j) = max(S(i-1,j-1) + M, S(i,j-1) + gap1(i), S(i-1,j) + gap2(j))
            const T diag = B::Add(B::Load(diag_row + p), B::Match(table, ref_codes + p, query_codes + p));
            const T up = B::Add(B::Load(up_row + p), B::Load(up_cost + p));
            const T right = B::Add(B::Load(up_row + p + 1), B::Load(right_cost + p));
            const T gap = B::Max(up, right);
            B::Store(out + p, B::Max(diag, gap));
            // DIAG (0) unless a gap beats diag; then UP (1) if up > right, else RIGHT (2).
            B::StoreCodes(trace + p, B::And(B::CmpGt(gap, diag), B::Add(two, B::CmpGt(up, right))));
        }
        // After the loop, which may have written past the band.
        PutScalar(cur + off, none);
        PutScalar(cur + off + len + 1, none);

        Elem* spare = prev2;
        prev2 = prev;
        prev = cur;
        cur = spare;
    }
    Elem score;
    std::memcpy(&score, prev + job.l2 + 1, sizeof(score));
    return score;
}

// The build's entry point: 16-bit lanes when the scores fit them.
template <class B16, class B32>
int FillBandEither(const BandJob& job) {
    return job.lanes16 ? FillBand<B16>(job, kSentinel16) : FillBand<B32>(job, kSentinel32);
}

}  // namespace
}  // namespace PairAlignment::Core
