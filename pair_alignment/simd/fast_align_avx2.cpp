// AVX2 build of the banded aligner: a whole anti-diagonal per vector loop,
// 16 cells per step in 16-bit lanes when the scores fit, else 8 in 32-bit
// lanes. Rows are indexed by slot j + 1 for query index j; the slots just
// outside the band hold the impossible score, so band edges and matrix borders
// need no special case (see BandJob).

#include <immintrin.h>

#include <cstring>

#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment::Core {

namespace {

template <typename T>
inline void PutScalar(T* p, T value) {
    std::memcpy(p, &value, sizeof(T));
}

int FillBand32(const BandJob& job) {
    const int total = job.l1 + job.l2;
    const int none = kSentinel32;
    int* prev2 = job.rows[0];
    int* prev = job.rows[1];
    int* cur = job.rows[2];
    for (int s = 0; s < 3; ++s)
        prev2[s] = none;
    prev[0] = none;
    prev[1] = 0;
    prev[2] = none;
    // Matrix elements 0..7 and 8..15; a lane's index r * 4 + q picks one of the
    // 8 in each half, and bit 3 of the index chooses the half.
    const __m256i table_lo = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(job.matrix));
    const __m256i table_hi = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(job.matrix + 8));
    const __m256i two = _mm256_set1_epi32(2);
    for (int d = 1; d <= total; ++d) {
        const int off = job.offsets[d];
        const int len = job.lengths[d];
        uint8_t* trace = job.trace + static_cast<size_t>(d) * job.width;
        // Cell p of the band is (i, j) = (d - off - p, off + p).
        const int k0 = job.l1 - d + off;  // l1 - i of cell 0
        const uint8_t* ref_codes = job.ref_rev8 + k0;
        const int* up_cost = job.up_cost + k0;
        const uint8_t* query_codes = job.query8 + off - 1;
        const int* right_cost = job.right_cost + off;
        const int* up_row = prev + off;     // S(i, j-1) at [p], S(i-1, j) at [p + 1]
        const int* diag_row = prev2 + off;  // S(i-1, j-1) at [p]
        int* out = cur + off + 1;
        for (int p = 0; p < len; p += 8) {
            const __m256i r = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref_codes + p)));
            const __m256i q = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(query_codes + p)));
            const __m256i index = _mm256_or_si256(_mm256_slli_epi32(r, 2), q);
            const __m256i match =
                _mm256_castps_si256(_mm256_blendv_ps(_mm256_castsi256_ps(_mm256_permutevar8x32_epi32(table_lo, index)),
                                                     _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(table_hi, index)),
                                                     _mm256_castsi256_ps(_mm256_slli_epi32(index, 28))));
            // S(i,j) = max(S(i-1,j-1) + M, S(i,j-1) + gap1(i), S(i-1,j) + gap2(j))
            const __m256i diag =
                _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(diag_row + p)), match);
            const __m256i up = _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(up_row + p)),
                                                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(up_cost + p)));
            const __m256i right =
                _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(up_row + p + 1)),
                                 _mm256_loadu_si256(reinterpret_cast<const __m256i*>(right_cost + p)));
            const __m256i gap = _mm256_max_epi32(up, right);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + p), _mm256_max_epi32(diag, gap));
            // DIAG (0) unless a gap beats diag; then UP (1) if up > right, else RIGHT (2).
            const __m256i code =
                _mm256_and_si256(_mm256_cmpgt_epi32(gap, diag), _mm256_add_epi32(two, _mm256_cmpgt_epi32(up, right)));
            const __m128i code16 = _mm_packs_epi32(_mm256_castsi256_si128(code), _mm256_extracti128_si256(code, 1));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(trace + p), _mm_packus_epi16(code16, code16));
        }
        // After the loop, which may have written past the band.
        cur[off] = none;
        cur[off + len + 1] = none;

        int* spare = prev2;
        prev2 = prev;
        prev = cur;
        cur = spare;
    }
    return prev[job.l2 + 1];
}

int FillBand16(const BandJob& job) {
    const int total = job.l1 + job.l2;
    const int16_t none = kSentinel16;
    // The int rows hold 16-bit scores here; they are touched only through
    // vector loads and stores or memcpy.
    int16_t* prev2 = reinterpret_cast<int16_t*>(job.rows[0]);
    int16_t* prev = reinterpret_cast<int16_t*>(job.rows[1]);
    int16_t* cur = reinterpret_cast<int16_t*>(job.rows[2]);
    for (int s = 0; s < 3; ++s)
        PutScalar(prev2 + s, none);
    PutScalar(prev, none);
    PutScalar(prev + 1, int16_t{0});
    PutScalar(prev + 2, none);
    // Low and high bytes of the 16 matrix elements, looked up by byte shuffles.
    alignas(16) uint8_t bytes[2][16];
    for (int e = 0; e < 16; ++e) {
        bytes[0][e] = static_cast<uint8_t>(job.matrix[e] & 0xff);
        bytes[1][e] = static_cast<uint8_t>((job.matrix[e] >> 8) & 0xff);
    }
    const __m128i table_lo = _mm_load_si128(reinterpret_cast<const __m128i*>(bytes[0]));
    const __m128i table_hi = _mm_load_si128(reinterpret_cast<const __m128i*>(bytes[1]));
    const __m256i two = _mm256_set1_epi16(2);
    for (int d = 1; d <= total; ++d) {
        const int off = job.offsets[d];
        const int len = job.lengths[d];
        uint8_t* trace = job.trace + static_cast<size_t>(d) * job.width;
        const int k0 = job.l1 - d + off;
        const uint8_t* ref_codes = job.ref_rev8 + k0;
        const int16_t* up_cost = job.up_cost16 + k0;
        const uint8_t* query_codes = job.query8 + off - 1;
        const int16_t* right_cost = job.right_cost16 + off;
        const int16_t* up_row = prev + off;
        const int16_t* diag_row = prev2 + off;
        int16_t* out = cur + off + 1;
        for (int p = 0; p < len; p += 16) {
            // Byte index r * 4 + q (codes < 4, so the 16-bit shift never carries
            // into the neighbouring byte).
            const __m128i index =
                _mm_or_si128(_mm_slli_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(ref_codes + p)), 2),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(query_codes + p)));
            const __m128i low = _mm_shuffle_epi8(table_lo, index);
            const __m128i high = _mm_shuffle_epi8(table_hi, index);
            const __m256i match = _mm256_set_m128i(_mm_unpackhi_epi8(low, high), _mm_unpacklo_epi8(low, high));
            // S(i,j) = max(S(i-1,j-1) + M, S(i,j-1) + gap1(i), S(i-1,j) + gap2(j)), saturating
            const __m256i diag =
                _mm256_adds_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(diag_row + p)), match);
            const __m256i up = _mm256_adds_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(up_row + p)),
                                                 _mm256_loadu_si256(reinterpret_cast<const __m256i*>(up_cost + p)));
            const __m256i right =
                _mm256_adds_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(up_row + p + 1)),
                                  _mm256_loadu_si256(reinterpret_cast<const __m256i*>(right_cost + p)));
            const __m256i gap = _mm256_max_epi16(up, right);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + p), _mm256_max_epi16(diag, gap));
            const __m256i code =
                _mm256_and_si256(_mm256_cmpgt_epi16(gap, diag), _mm256_add_epi16(two, _mm256_cmpgt_epi16(up, right)));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(trace + p),
                             _mm_packus_epi16(_mm256_castsi256_si128(code), _mm256_extracti128_si256(code, 1)));
        }
        PutScalar(cur + off, none);
        PutScalar(cur + off + len + 1, none);

        int16_t* spare = prev2;
        prev2 = prev;
        prev = cur;
        cur = spare;
    }
    int16_t score;
    std::memcpy(&score, prev + job.l2 + 1, sizeof(score));
    return score;
}

}  // namespace

int FillBandAvx2(const BandJob& job) {
    return job.lanes16 ? FillBand16(job) : FillBand32(job);
}

}  // namespace PairAlignment::Core
