// The readable build of the many-reference score kernel: plain loops over the
// lanes of a block, which the compiler may vectorise with baseline flags.

#include <cstdint>

#include "pair_alignment/simd/lane_kernel.h"

namespace PairAlignment::Core {
namespace {

struct Lanes16 {
    using Elem = int16_t;
    struct T {
        int16_t v[16];
    };
    static T Load(const Elem* p) {
        T r;
        for (int k = 0; k < 16; ++k)
            r.v[k] = p[k];
        return r;
    }
    static void Store(Elem* p, const T& a) {
        for (int k = 0; k < 16; ++k)
            p[k] = a.v[k];
    }
    // Saturating, like the vector builds' 16-bit adds: the sentinel stays at
    // the bottom of the range instead of wrapping.
    static T Add(const T& a, const T& b) {
        T r;
        for (int k = 0; k < 16; ++k) {
            const int sum = a.v[k] + b.v[k];
            r.v[k] = static_cast<int16_t>(sum < -32768 ? -32768 : sum > 32767 ? 32767 : sum);
        }
        return r;
    }
    static T Max(const T& a, const T& b) {
        T r;
        for (int k = 0; k < 16; ++k)
            r.v[k] = a.v[k] > b.v[k] ? a.v[k] : b.v[k];
        return r;
    }
    static T Set1(int x) {
        T r;
        for (int k = 0; k < 16; ++k)
            r.v[k] = static_cast<int16_t>(x);
        return r;
    }
};

struct Lanes32 {
    using Elem = int32_t;
    struct T {
        int32_t v[8];
    };
    static T Load(const Elem* p) {
        T r;
        for (int k = 0; k < 8; ++k)
            r.v[k] = p[k];
        return r;
    }
    static void Store(Elem* p, const T& a) {
        for (int k = 0; k < 8; ++k)
            p[k] = a.v[k];
    }
    static T Add(const T& a, const T& b) {
        T r;
        for (int k = 0; k < 8; ++k)
            r.v[k] = a.v[k] + b.v[k];
        return r;
    }
    static T Max(const T& a, const T& b) {
        T r;
        for (int k = 0; k < 8; ++k)
            r.v[k] = a.v[k] > b.v[k] ? a.v[k] : b.v[k];
        return r;
    }
    static T Set1(int x) {
        T r;
        for (int k = 0; k < 8; ++k)
            r.v[k] = x;
        return r;
    }
};

}  // namespace

void ScoreLanes16Generic(const LaneJob& job) {
    ScoreLanes<Lanes16>(job, kSentinel16);
}
void ScoreLanes32Generic(const LaneJob& job) {
    ScoreLanes<Lanes32>(job, kSentinel32);
}

}  // namespace PairAlignment::Core
