// AVX-512BW build of the many-reference score kernels. A lane block is two
// 512-bit registers (64 lanes of int16_t, 32 of int32_t): each cell's query
// code, profile address and loop step are then shared by twice as many lanes
// as with one register. That measured about 20 % faster than one-register
// blocks even for 48 references, where a quarter of the 64 lanes idle; four
// registers ran out of registers and were slower than one.

#include <immintrin.h>

#include <cstdint>

#include "pair_alignment/simd/diff_kernel.h"
#include "pair_alignment/simd/lane_kernel.h"

namespace PairAlignment::Core {
namespace {

constexpr int kRegisters = kWideBlockBytes / 64;

template <typename E>
struct WideLanes {
    using Elem = E;
    static constexpr int kLanes = kWideBlockBytes / sizeof(Elem);
    static constexpr int kPerRegister = 64 / sizeof(Elem);
    struct T {
        __m512i r[kRegisters];
    };
    static T Load(const Elem* p) {
        T a;
        for (int k = 0; k < kRegisters; ++k)
            a.r[k] = _mm512_loadu_si512(p + k * kPerRegister);
        return a;
    }
    static void Store(Elem* p, const T& a) {
        for (int k = 0; k < kRegisters; ++k)
            _mm512_storeu_si512(p + k * kPerRegister, a.r[k]);
    }
    static T Add(const T& a, const T& b) {
        T c;
        for (int k = 0; k < kRegisters; ++k) {
            if constexpr (sizeof(Elem) == 2)
                c.r[k] = _mm512_adds_epi16(a.r[k], b.r[k]);
            else
                c.r[k] = _mm512_add_epi32(a.r[k], b.r[k]);
        }
        return c;
    }
    static T Max(const T& a, const T& b) {
        T c;
        for (int k = 0; k < kRegisters; ++k) {
            // With every lane selected the zero-masking form is plain vpmaxsd;
            // unlike _mm512_max_epi32 it does not trip GCC 12's false
            // maybe-uninitialized warning.
            if constexpr (sizeof(Elem) == 2)
                c.r[k] = _mm512_max_epi16(a.r[k], b.r[k]);
            else
                c.r[k] = _mm512_maskz_max_epi32(static_cast<__mmask16>(0xffff), a.r[k], b.r[k]);
        }
        return c;
    }
    static T Set1(int x) {
        __m512i v;
        if constexpr (sizeof(Elem) == 2)
            v = _mm512_set1_epi16(static_cast<int16_t>(x));
        else
            v = _mm512_set1_epi32(x);
        T a;
        for (int k = 0; k < kRegisters; ++k)
            a.r[k] = v;
        return a;
    }
};

// Byte lanes for the 8-bit kernel: one register of 64 lanes, twice as many
// per register as the 16-bit blocks above, which hold their scores.
struct Bytes : OneWide<WideLanes<int16_t>> {
    using Elem = int8_t;
    static constexpr int kLanes = kWideByteBlockBytes;
    using T = __m512i;
    static_assert(Wide::kLanes == kLanes);
    static T Load(const Elem* p) { return _mm512_loadu_si512(p); }
    static void Store(Elem* p, T a) { _mm512_storeu_si512(p, a); }
    static T Add(T a, T b) { return _mm512_add_epi8(a, b); }
    static T Sub(T a, T b) { return _mm512_sub_epi8(a, b); }
    static T Max(T a, T b) { return _mm512_max_epi8(a, b); }
    static T Set1(int x) { return _mm512_set1_epi8(static_cast<char>(x)); }
    static void Opaque(T& a) { asm("" : "+v"(a)); }  // diff_kernel.h
    // Zero-masking extracts with every element selected, for the reason given
    // at Max above.
    static W Widen(T a) {
        const __mmask8 all = 0xf;
        return {{_mm512_cvtepi8_epi16(_mm512_maskz_extracti64x4_epi64(all, a, 0)),
                 _mm512_cvtepi8_epi16(_mm512_maskz_extracti64x4_epi64(all, a, 1))}};
    }
};

}  // namespace

constinit const BuildKernels kAvx512Build = {FillBandAvx2, ScoreLanes<WideLanes<int16_t>>,
                                             ScoreLanes<WideLanes<int32_t>>, ScoreDiffs<Bytes>, FillBandDiffsAvx2};

}  // namespace PairAlignment::Core
