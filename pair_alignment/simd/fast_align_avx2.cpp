// AVX2 build of the banded aligner: eight interior cells of a diagonal per
// step, with the 4 x 4 matrix looked up lane-wise by a pair of permutes.

#include <immintrin.h>

#include "pair_alignment/simd/band_cells.h"

namespace PairAlignment::Core {

int FillBandAvx2(const BandJob& job) {
    const int total = job.l1 + job.l2;
    int* prev2 = job.rows[0];
    int* prev = job.rows[1];
    int* cur = job.rows[2];
    prev[0] = 0;
    // Matrix elements 0..7 and 8..15; a lane's index r * 4 + q picks one of the
    // 8 in each half, and bit 3 of the index chooses the half.
    const __m256i table_lo = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(job.matrix));
    const __m256i table_hi = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(job.matrix + 8));
    const __m256i open1 = _mm256_set1_epi32(job.costs.open1);
    const __m256i open2 = _mm256_set1_epi32(job.costs.open2);
    const __m256i two = _mm256_set1_epi32(2);
    for (int d = 1; d <= total; ++d) {
        const int off = job.offsets[d];
        const int len = job.lengths[d];
        uint8_t* trace = job.trace + static_cast<size_t>(d) * job.width;
        cur[0] = EdgeCell(job, d, 0, prev, prev2, &trace[0]);

        const int up_shift = off - job.offsets[d - 1] - 1;
        const int diag_shift = off - (d >= 2 ? job.offsets[d - 2] : 0) - 1;
        // Cell p is (d - off - p, off + p): reference base ref[d - off - p - 1]
        // = ref_rev8[l1 - d + off + p], query base query8[off + p - 1].
        const uint8_t* ref_codes = job.ref_rev8 + (job.l1 - d + off);
        const uint8_t* query_codes = job.query8 + off - 1;
        for (int p = 1; p < len - 1; p += 8) {
            const __m256i r = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref_codes + p)));
            const __m256i q = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(query_codes + p)));
            const __m256i index = _mm256_or_si256(_mm256_slli_epi32(r, 2), q);
            const __m256i in_lo = _mm256_permutevar8x32_epi32(table_lo, index);
            const __m256i in_hi = _mm256_permutevar8x32_epi32(table_hi, index);
            const __m256i match =
                _mm256_castps_si256(_mm256_blendv_ps(_mm256_castsi256_ps(in_lo), _mm256_castsi256_ps(in_hi),
                                                     _mm256_castsi256_ps(_mm256_slli_epi32(index, 28))));
            // S(i,j) = max(S(i-1,j-1) + M, S(i,j-1) + open1, S(i-1,j) + open2)
            const __m256i diag =
                _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(prev2 + p + diag_shift)), match);
            const __m256i up =
                _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(prev + p + up_shift)), open1);
            const __m256i right =
                _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(prev + p + up_shift + 1)), open2);
            const __m256i gap = _mm256_max_epi32(up, right);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(cur + p), _mm256_max_epi32(diag, gap));
            // DIAG (0) unless a gap beats diag; then UP (1) if up > right, else RIGHT (2).
            const __m256i code =
                _mm256_and_si256(_mm256_cmpgt_epi32(gap, diag), _mm256_add_epi32(two, _mm256_cmpgt_epi32(up, right)));
            const __m128i code16 = _mm_packs_epi32(_mm256_castsi256_si128(code), _mm256_extracti128_si256(code, 1));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(trace + p), _mm_packus_epi16(code16, code16));
        }
        // The vector loop may have run past the interior; the last cell is
        // computed after it, so its score and code are the ones that stay.
        if (len > 1) cur[len - 1] = EdgeCell(job, d, len - 1, prev, prev2, &trace[len - 1]);

        int* spare = prev2;
        prev2 = prev;
        prev = cur;
        cur = spare;
    }
    return prev[0];
}

}  // namespace PairAlignment::Core
