// SSE4.1 build of the many-reference score kernel: a 32-byte lane block is two
// 128-bit registers.

#include <smmintrin.h>

#include <cstdint>

#include "pair_alignment/simd/lane_kernel.h"

namespace PairAlignment::Core {
namespace {

struct Lanes16 {
    using Elem = int16_t;
    static constexpr int kLanes = kNarrowBlockBytes / sizeof(Elem);
    struct T {
        __m128i lo, hi;
    };
    static T Load(const Elem* p) {
        return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8))};
    }
    static void Store(Elem* p, const T& a) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), a.lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 8), a.hi);
    }
    static T Add(const T& a, const T& b) { return {_mm_adds_epi16(a.lo, b.lo), _mm_adds_epi16(a.hi, b.hi)}; }
    static T Max(const T& a, const T& b) { return {_mm_max_epi16(a.lo, b.lo), _mm_max_epi16(a.hi, b.hi)}; }
    static T Set1(int x) {
        const __m128i v = _mm_set1_epi16(static_cast<int16_t>(x));
        return {v, v};
    }
};

struct Lanes32 {
    using Elem = int32_t;
    static constexpr int kLanes = kNarrowBlockBytes / sizeof(Elem);
    struct T {
        __m128i lo, hi;
    };
    static T Load(const Elem* p) {
        return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 4))};
    }
    static void Store(Elem* p, const T& a) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), a.lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 4), a.hi);
    }
    static T Add(const T& a, const T& b) { return {_mm_add_epi32(a.lo, b.lo), _mm_add_epi32(a.hi, b.hi)}; }
    static T Max(const T& a, const T& b) { return {_mm_max_epi32(a.lo, b.lo), _mm_max_epi32(a.hi, b.hi)}; }
    static T Set1(int x) {
        const __m128i v = _mm_set1_epi32(x);
        return {v, v};
    }
};

}  // namespace

void ScoreLanes16Sse41(const LaneJob& job) {
    ScoreLanes<Lanes16>(job, kSentinel16);
}
void ScoreLanes32Sse41(const LaneJob& job) {
    ScoreLanes<Lanes32>(job, kSentinel32);
}

}  // namespace PairAlignment::Core
