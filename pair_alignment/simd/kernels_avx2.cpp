// AVX2 build of the aligner's kernels: one 256-bit register per lane block, 16
// lanes of int16_t or 8 of int32_t, for the many-reference score kernel and the
// band kernel alike. The band kernel looks the 4 x 4 matrix up by byte
// shuffles (16-bit lanes) or by lane permutes (32-bit lanes).

#include <immintrin.h>

#include <cstdint>

#include "pair_alignment/simd/band_diff_kernel.h"
#include "pair_alignment/simd/band_kernel.h"
#include "pair_alignment/simd/diff_kernel.h"
#include "pair_alignment/simd/lane_kernel.h"

namespace PairAlignment::Core {
namespace {

template <typename E>
struct Lanes {
    using T = __m256i;
    using Elem = E;
    static constexpr int kLanes = kNarrowBlockBytes / sizeof(Elem);
    static constexpr bool kShort = sizeof(E) == 2;
    static T Load(const Elem* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static void Store(Elem* p, T a) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), a); }
    static T Add(T a, T b) { return kShort ? _mm256_adds_epi16(a, b) : _mm256_add_epi32(a, b); }
    static T Max(T a, T b) { return kShort ? _mm256_max_epi16(a, b) : _mm256_max_epi32(a, b); }
    static T CmpGt(T a, T b) { return kShort ? _mm256_cmpgt_epi16(a, b) : _mm256_cmpgt_epi32(a, b); }
    static T And(T a, T b) { return _mm256_and_si256(a, b); }
    static T Set1(int x) { return kShort ? _mm256_set1_epi16(static_cast<int16_t>(x)) : _mm256_set1_epi32(x); }

    // 16-bit lanes: the low and the high bytes of the 16 matrix elements, for
    // byte shuffles. 32-bit lanes: elements 0..7 and 8..15; a lane's index
    // r * 4 + q picks one of the 8 in each half, and bit 3 of the index
    // chooses the half.
    struct Table {
        __m256i lo, hi;
        explicit Table(const int* matrix) {
            if constexpr (kShort) {
                alignas(16) uint8_t bytes[2][16];
                for (int e = 0; e < 16; ++e) {
                    bytes[0][e] = static_cast<uint8_t>(matrix[e] & 0xff);
                    bytes[1][e] = static_cast<uint8_t>((matrix[e] >> 8) & 0xff);
                }
                lo = _mm256_castsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(bytes[0])));
                hi = _mm256_castsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(bytes[1])));
            } else {
                lo = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(matrix));
                hi = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(matrix + 8));
            }
        }
    };
    static T Match(const Table& table, const uint8_t* ref, const uint8_t* query) {
        if constexpr (kShort) {
            // Byte index r * 4 + q (codes < 4, so the 16-bit shift never
            // carries into the neighbouring byte).
            const __m128i index =
                _mm_or_si128(_mm_slli_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(ref)), 2),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(query)));
            const __m128i low = _mm_shuffle_epi8(_mm256_castsi256_si128(table.lo), index);
            const __m128i high = _mm_shuffle_epi8(_mm256_castsi256_si128(table.hi), index);
            return _mm256_set_m128i(_mm_unpackhi_epi8(low, high), _mm_unpacklo_epi8(low, high));
        } else {
            const __m256i r = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref)));
            const __m256i q = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(query)));
            const __m256i index = _mm256_or_si256(_mm256_slli_epi32(r, 2), q);
            return _mm256_castps_si256(
                _mm256_blendv_ps(_mm256_castsi256_ps(_mm256_permutevar8x32_epi32(table.lo, index)),
                                 _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(table.hi, index)),
                                 _mm256_castsi256_ps(_mm256_slli_epi32(index, 28))));
        }
    }
    static void StoreCodes(uint8_t* p, T codes) {
        if constexpr (kShort) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(p),
                             _mm_packus_epi16(_mm256_castsi256_si128(codes), _mm256_extracti128_si256(codes, 1)));
        } else {
            const __m128i codes16 = _mm_packs_epi32(_mm256_castsi256_si128(codes), _mm256_extracti128_si256(codes, 1));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(codes16, codes16));
        }
    }
};

// Byte lanes for the 8-bit kernel: one register of 32 lanes; their scores
// in two 16-bit blocks.
struct Bytes : TwoWide<Lanes<int16_t>> {
    using Elem = int8_t;
    static constexpr int kLanes = kByteBlockBytes;
    using T = __m256i;
    static T Load(const Elem* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static void Store(Elem* p, T a) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), a); }
    static T Add(T a, T b) { return _mm256_add_epi8(a, b); }
    static T Sub(T a, T b) { return _mm256_sub_epi8(a, b); }
    static T Max(T a, T b) { return _mm256_max_epi8(a, b); }
    static T CmpGt(T a, T b) { return _mm256_cmpgt_epi8(a, b); }
    static T And(T a, T b) { return _mm256_and_si256(a, b); }
    static T Set1(int x) { return _mm256_set1_epi8(static_cast<char>(x)); }
    static void Opaque(T& a) { asm("" : "+x"(a)); }  // diff_kernel.h
    // band_diff_kernel.h: the 16 entries in both halves, as byte shuffles
    // look up within each half.
    struct Table {
        __m256i entries;
        explicit Table(const uint8_t* values)
            : entries(_mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(values)))) {}
    };
    static T Lookup(const Table& table, const uint8_t* ref, const uint8_t* query) {
        // Index r * 4 + q (codes < 4, so the 16-bit shift never carries into
        // the neighbouring byte).
        const __m256i index = _mm256_or_si256(_mm256_slli_epi16(Load(reinterpret_cast<const Elem*>(ref)), 2),
                                              Load(reinterpret_cast<const Elem*>(query)));
        return _mm256_shuffle_epi8(table.entries, index);
    }
    static T Blend(T a, T b, T mask) { return _mm256_blendv_epi8(a, b, mask); }
    static int Lane0(T a) { return static_cast<int8_t>(_mm_cvtsi128_si32(_mm256_castsi256_si128(a))); }
    // Lane 0 from prev's last lane, lane k from cur's lane k - 1 ...
    static T ShiftUp(T prev, T cur) { return _mm256_alignr_epi8(cur, _mm256_permute2x128_si256(prev, cur, 0x21), 15); }
    // ... and lane k from cur's lane k + 1, the last from next's lane 0.
    static T ShiftDown(T cur, T next) { return _mm256_alignr_epi8(_mm256_permute2x128_si256(cur, next, 0x21), cur, 1); }
    static W Widen(T a) {
        return {_mm256_cvtepi8_epi16(_mm256_castsi256_si128(a)), _mm256_cvtepi8_epi16(_mm256_extracti128_si256(a, 1))};
    }
};

}  // namespace

int FillBandAvx2(const BandJob& job) {
    return FillBandEither<Lanes<int16_t>, Lanes<int32_t>>(job);
}
int FillBandDiffsAvx2(const BandJob& job) {
    return FillBandDiffs<Bytes>(job);
}
constinit const BuildKernels kAvx2Build = {FillBandAvx2, ScoreLanes<Lanes<int16_t>>, ScoreLanes<Lanes<int32_t>>,
                                           ScoreDiffs<Bytes>, FillBandDiffsAvx2};

}  // namespace PairAlignment::Core
