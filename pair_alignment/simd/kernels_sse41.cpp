// SSE4.1 build of the aligner's kernels: a 32-byte lane block is two 128-bit
// registers, 16 lanes of int16_t or 8 of int32_t, for the many-reference score
// kernel and the band kernel alike. The band kernel looks the 4 x 4 matrix up
// by byte shuffles, one table per byte of its elements.

#include <smmintrin.h>

#include <cstdint>

#include "pair_alignment/simd/band_diff_kernel.h"
#include "pair_alignment/simd/band_kernel.h"
#include "pair_alignment/simd/diff_kernel.h"
#include "pair_alignment/simd/lane_kernel.h"

namespace PairAlignment::Core {
namespace {

template <typename E>
struct Lanes {
    using Elem = E;
    static constexpr bool kShort = sizeof(E) == 2;
    static constexpr int kPerRegister = 16 / sizeof(Elem);
    static constexpr int kLanes = 2 * kPerRegister;
    static_assert(kLanes * sizeof(Elem) == kNarrowBlockBytes);
    struct T {
        __m128i lo, hi;
    };
    static T Load(const Elem* p) {
        return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + kPerRegister))};
    }
    static void Store(Elem* p, const T& a) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), a.lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + kPerRegister), a.hi);
    }
    static T Add(const T& a, const T& b) {
        if constexpr (kShort)
            return {_mm_adds_epi16(a.lo, b.lo), _mm_adds_epi16(a.hi, b.hi)};
        else
            return {_mm_add_epi32(a.lo, b.lo), _mm_add_epi32(a.hi, b.hi)};
    }
    static T Max(const T& a, const T& b) {
        if constexpr (kShort)
            return {_mm_max_epi16(a.lo, b.lo), _mm_max_epi16(a.hi, b.hi)};
        else
            return {_mm_max_epi32(a.lo, b.lo), _mm_max_epi32(a.hi, b.hi)};
    }
    static T CmpGt(const T& a, const T& b) {
        if constexpr (kShort)
            return {_mm_cmpgt_epi16(a.lo, b.lo), _mm_cmpgt_epi16(a.hi, b.hi)};
        else
            return {_mm_cmpgt_epi32(a.lo, b.lo), _mm_cmpgt_epi32(a.hi, b.hi)};
    }
    static T And(const T& a, const T& b) { return {_mm_and_si128(a.lo, b.lo), _mm_and_si128(a.hi, b.hi)}; }
    static T Set1(int x) {
        const __m128i v = kShort ? _mm_set1_epi16(static_cast<int16_t>(x)) : _mm_set1_epi32(x);
        return {v, v};
    }

    // Byte k of each of the 16 matrix elements, as table k.
    struct Table {
        __m128i bytes[sizeof(E)];
        explicit Table(const int* matrix) {
            for (size_t k = 0; k < sizeof(E); ++k) {
                alignas(16) uint8_t values[16];
                for (int e = 0; e < 16; ++e)
                    values[e] = static_cast<uint8_t>(static_cast<unsigned>(matrix[e]) >> (8 * k));
                bytes[k] = _mm_load_si128(reinterpret_cast<const __m128i*>(values));
            }
        }
    };
    static T Match(const Table& table, const uint8_t* ref, const uint8_t* query) {
        // Byte index r * 4 + q (codes < 4, so the 16-bit shift never carries
        // into the neighbouring byte).
        if constexpr (kShort) {
            const __m128i index =
                _mm_or_si128(_mm_slli_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(ref)), 2),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(query)));
            const __m128i low = _mm_shuffle_epi8(table.bytes[0], index);
            const __m128i high = _mm_shuffle_epi8(table.bytes[1], index);
            return {_mm_unpacklo_epi8(low, high), _mm_unpackhi_epi8(low, high)};
        } else {
            const __m128i index =
                _mm_or_si128(_mm_slli_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref)), 2),
                             _mm_loadl_epi64(reinterpret_cast<const __m128i*>(query)));
            const __m128i low =
                _mm_unpacklo_epi8(_mm_shuffle_epi8(table.bytes[0], index), _mm_shuffle_epi8(table.bytes[1], index));
            const __m128i high =
                _mm_unpacklo_epi8(_mm_shuffle_epi8(table.bytes[2], index), _mm_shuffle_epi8(table.bytes[3], index));
            return {_mm_unpacklo_epi16(low, high), _mm_unpackhi_epi16(low, high)};
        }
    }
    static void StoreCodes(uint8_t* p, const T& codes) {
        if constexpr (kShort) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(codes.lo, codes.hi));
        } else {
            const __m128i codes16 = _mm_packs_epi32(codes.lo, codes.hi);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(codes16, codes16));
        }
    }
};

// Byte lanes for the 8-bit kernel: two registers of 16 lanes; their scores
// in two 16-bit blocks.
struct Bytes : TwoWide<Lanes<int16_t>> {
    using Elem = int8_t;
    static constexpr int kLanes = kByteBlockBytes;
    struct T {
        __m128i lo, hi;
    };
    static T Load(const Elem* p) {
        return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16))};
    }
    static void Store(Elem* p, const T& a) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), a.lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 16), a.hi);
    }
    static T Add(const T& a, const T& b) { return {_mm_add_epi8(a.lo, b.lo), _mm_add_epi8(a.hi, b.hi)}; }
    static T Sub(const T& a, const T& b) { return {_mm_sub_epi8(a.lo, b.lo), _mm_sub_epi8(a.hi, b.hi)}; }
    static T Max(const T& a, const T& b) { return {_mm_max_epi8(a.lo, b.lo), _mm_max_epi8(a.hi, b.hi)}; }
    static T CmpGt(const T& a, const T& b) { return {_mm_cmpgt_epi8(a.lo, b.lo), _mm_cmpgt_epi8(a.hi, b.hi)}; }
    static T And(const T& a, const T& b) { return {_mm_and_si128(a.lo, b.lo), _mm_and_si128(a.hi, b.hi)}; }
    static T Set1(int x) {
        const __m128i v = _mm_set1_epi8(static_cast<char>(x));
        return {v, v};
    }
    // band_diff_kernel.h: the 16 entries for byte shuffles.
    struct Table {
        __m128i entries;
        explicit Table(const uint8_t* values) : entries(_mm_loadu_si128(reinterpret_cast<const __m128i*>(values))) {}
    };
    static T Lookup(const Table& table, const uint8_t* ref, const uint8_t* query) {
        // Index r * 4 + q (codes < 4: the 16-bit shift never carries).
        const T r = Load(reinterpret_cast<const Elem*>(ref));
        const T q = Load(reinterpret_cast<const Elem*>(query));
        return {_mm_shuffle_epi8(table.entries, _mm_or_si128(_mm_slli_epi16(r.lo, 2), q.lo)),
                _mm_shuffle_epi8(table.entries, _mm_or_si128(_mm_slli_epi16(r.hi, 2), q.hi))};
    }
    static T Blend(const T& a, const T& b, const T& mask) {
        return {_mm_blendv_epi8(a.lo, b.lo, mask.lo), _mm_blendv_epi8(a.hi, b.hi, mask.hi)};
    }
    static int Lane0(const T& a) { return static_cast<int8_t>(_mm_cvtsi128_si32(a.lo)); }
    // Lane 0 from prev's last lane, lane k from cur's lane k - 1 ...
    static T ShiftUp(const T& prev, const T& cur) {
        return {_mm_alignr_epi8(cur.lo, prev.hi, 15), _mm_alignr_epi8(cur.hi, cur.lo, 15)};
    }
    // ... and lane k from cur's lane k + 1, the last from next's lane 0.
    static T ShiftDown(const T& cur, const T& next) {
        return {_mm_alignr_epi8(cur.hi, cur.lo, 1), _mm_alignr_epi8(next.lo, cur.hi, 1)};
    }
    static Wide::T Widen(__m128i a) { return {_mm_cvtepi8_epi16(a), _mm_cvtepi8_epi16(_mm_srli_si128(a, 8))}; }
    static W Widen(const T& a) { return {Widen(a.lo), Widen(a.hi)}; }
};

}  // namespace

constinit const BuildKernels kSse41Build = {FillBandEither<Lanes<int16_t>, Lanes<int32_t>>, ScoreLanes<Lanes<int16_t>>,
                                            ScoreLanes<Lanes<int32_t>>, ScoreDiffs<Bytes>, FillBandDiffs<Bytes>};

}  // namespace PairAlignment::Core
