// The readable build of the many-reference score kernel: plain loops over the
// lanes of a block, which the compiler may vectorise with baseline flags.

#include <algorithm>
#include <cstdint>
#include <limits>

#include "pair_alignment/simd/lane_kernel.h"

namespace PairAlignment::Core {
namespace {

// One narrow block of lanes as a plain array. Adds saturate to the element's
// range like the vector builds' 16-bit adds, so the sentinel stays at the
// bottom instead of wrapping; 32-bit jobs never come near the limits.
template <typename E>
struct ScalarLanes {
    using Elem = E;
    static constexpr int kLanes = kNarrowBlockBytes / sizeof(E);
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
    static T Add(const T& a, const T& b) {
        T r;
        for (int k = 0; k < kLanes; ++k) {
            const int64_t sum = int64_t{a.v[k]} + b.v[k];
            r.v[k] =
                static_cast<E>(std::clamp<int64_t>(sum, std::numeric_limits<E>::min(), std::numeric_limits<E>::max()));
        }
        return r;
    }
    static T Max(const T& a, const T& b) {
        T r;
        for (int k = 0; k < kLanes; ++k)
            r.v[k] = a.v[k] > b.v[k] ? a.v[k] : b.v[k];
        return r;
    }
    static T Set1(int x) {
        T r;
        for (int k = 0; k < kLanes; ++k)
            r.v[k] = static_cast<E>(x);
        return r;
    }
};

}  // namespace

// The band routine is the readable one of fast_align_generic.cpp.
constinit const BuildKernels kGenericBuild = {FillBandGeneric, ScoreLanes<ScalarLanes<int16_t>>,
                                              ScoreLanes<ScalarLanes<int32_t>>};

}  // namespace PairAlignment::Core
