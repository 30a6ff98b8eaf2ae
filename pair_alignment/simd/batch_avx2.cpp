// AVX2 build of the many-reference score kernel: one 256-bit register per
// lane block.

#include <immintrin.h>

#include <cstdint>

#include "pair_alignment/simd/lane_kernel.h"

namespace PairAlignment::Core {
namespace {

struct Lanes16 {
    using Elem = int16_t;
    static constexpr int kLanes = kNarrowBlockBytes / sizeof(Elem);
    using T = __m256i;
    static T Load(const Elem* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static void Store(Elem* p, T a) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), a); }
    static T Add(T a, T b) { return _mm256_adds_epi16(a, b); }
    static T Max(T a, T b) { return _mm256_max_epi16(a, b); }
    static T Set1(int x) { return _mm256_set1_epi16(static_cast<int16_t>(x)); }
};

struct Lanes32 {
    using Elem = int32_t;
    static constexpr int kLanes = kNarrowBlockBytes / sizeof(Elem);
    using T = __m256i;
    static T Load(const Elem* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static void Store(Elem* p, T a) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), a); }
    static T Add(T a, T b) { return _mm256_add_epi32(a, b); }
    static T Max(T a, T b) { return _mm256_max_epi32(a, b); }
    static T Set1(int x) { return _mm256_set1_epi32(x); }
};

}  // namespace

void ScoreLanes16Avx2(const LaneJob& job) {
    ScoreLanes<Lanes16>(job, kSentinel16);
}
void ScoreLanes32Avx2(const LaneJob& job) {
    ScoreLanes<Lanes32>(job, kSentinel32);
}

}  // namespace PairAlignment::Core
