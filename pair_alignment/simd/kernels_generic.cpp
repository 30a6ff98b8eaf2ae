// The readable build of the many-reference score kernels: plain loops over
// the lanes of a block, which the compiler may vectorise with baseline flags.

#include <algorithm>
#include <cstdint>
#include <limits>

#include "pair_alignment/simd/band_diff_kernel.h"
#include "pair_alignment/simd/diff_kernel.h"
#include "pair_alignment/simd/lane_kernel.h"

namespace PairAlignment::Core {
namespace {

// One block of lanes as a plain array, 32 bytes unless told otherwise.
// Arithmetic saturates to the element's range like the vector builds' 16-bit
// adds, so the sentinel stays at the bottom instead of wrapping; 32-bit and
// 8-bit jobs never come near the limits.
template <typename E, int kCount = kNarrowBlockBytes / sizeof(E)>
struct ScalarLanes {
    using Elem = E;
    static constexpr int kLanes = kCount;
    struct T {
        E v[kLanes];
    };
    static T Load(const Elem* p) {
        T r;
        for (int k = 0; k < kLanes; ++k)
            r.v[k] = p[k];
        return r;
    }
    static void Store(Elem* p, const T& a) {
        for (int k = 0; k < kLanes; ++k)
            p[k] = a.v[k];
    }
    static T Set1(int x) {
        T r;
        for (int k = 0; k < kLanes; ++k)
            r.v[k] = static_cast<E>(x);
        return r;
    }
    // f(a, b) lane by lane, clamped to the element's range.
    template <class F>
    static T Each(const T& a, const T& b, F f) {
        T r;
        for (int k = 0; k < kLanes; ++k)
            r.v[k] = static_cast<E>(std::clamp<int64_t>(f(int64_t{a.v[k]}, int64_t{b.v[k]}),
                                                        std::numeric_limits<E>::min(), std::numeric_limits<E>::max()));
        return r;
    }
    static T Add(const T& a, const T& b) {
        return Each(a, b, [](int64_t x, int64_t y) { return x + y; });
    }
    static T Sub(const T& a, const T& b) {
        return Each(a, b, [](int64_t x, int64_t y) { return x - y; });
    }
    static T Max(const T& a, const T& b) {
        return Each(a, b, [](int64_t x, int64_t y) { return std::max(x, y); });
    }
};

// Byte lanes with the 16-bit lanes of the same count that the 8-bit kernel
// sums its scores in.
// CmpGt and below serve the band kernel of band_diff_kernel.h.
struct ScalarBytes : ScalarLanes<int8_t>, OneWide<ScalarLanes<int16_t, ScalarLanes<int8_t>::kLanes>> {
    static W Widen(const T& a) {
        W r;
        for (int k = 0; k < kLanes; ++k)
            r.v[k] = a.v[k];
        return r;
    }
    static T CmpGt(const T& a, const T& b) {
        return Each(a, b, [](int64_t x, int64_t y) { return x > y ? -1 : 0; });
    }
    static T And(const T& a, const T& b) {
        return Each(a, b, [](int64_t x, int64_t y) { return x & y; });
    }
    struct Table {
        explicit Table(const uint8_t* values) : entries(values) {}
        const uint8_t* entries;
    };
    static T Lookup(const Table& table, const uint8_t* ref, const uint8_t* query) {
        T r;
        for (int k = 0; k < kLanes; ++k)
            r.v[k] = static_cast<int8_t>(table.entries[ref[k] * 4 + query[k]]);
        return r;
    }
    static T Blend(const T& a, const T& b, const T& mask) {
        T r;
        for (int k = 0; k < kLanes; ++k)
            r.v[k] = mask.v[k] ? b.v[k] : a.v[k];
        return r;
    }
    static int Lane0(const T& a) { return a.v[0]; }
    // Lane 0 from prev's last lane, lane k from cur's lane k - 1 ...
    static T ShiftUp(const T& prev, const T& cur) {
        T r;
        r.v[0] = prev.v[kLanes - 1];
        for (int k = 1; k < kLanes; ++k)
            r.v[k] = cur.v[k - 1];
        return r;
    }
    // ... and lane k from cur's lane k + 1, the last from next's lane 0.
    static T ShiftDown(const T& cur, const T& next) {
        T r;
        for (int k = 0; k + 1 < kLanes; ++k)
            r.v[k] = cur.v[k + 1];
        r.v[kLanes - 1] = next.v[0];
        return r;
    }
};

}  // namespace

// The band routine is the readable one of fast_align_generic.cpp.
constinit const BuildKernels kGenericBuild = {FillBandGeneric, ScoreLanes<ScalarLanes<int16_t>>,
                                              ScoreLanes<ScalarLanes<int32_t>>, ScoreDiffs<ScalarBytes>,
                                              FillBandDiffs<ScalarBytes>};

}  // namespace PairAlignment::Core
