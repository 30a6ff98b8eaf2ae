// SSE4.1 build of the banded aligner: four interior cells of a diagonal per
// step. The 4 x 4 matrix is looked up by byte shuffles, one table per byte of
// the 32-bit elements, so any element value works.

#include <smmintrin.h>

#include <cstring>

#include "pair_alignment/simd/band_cells.h"

namespace PairAlignment::Core {

namespace {

inline __m128i LoadFourBytes(const uint8_t* p) {
    int word;
    std::memcpy(&word, p, sizeof(word));
    return _mm_cvtsi32_si128(word);
}

}  // namespace

int FillBandSse41(const BandJob& job) {
    const int total = job.l1 + job.l2;
    int* prev2 = job.rows[0];
    int* prev = job.rows[1];
    int* cur = job.rows[2];
    prev[0] = 0;
    alignas(16) uint8_t bytes[4][16];
    for (int e = 0; e < 16; ++e)
        for (int k = 0; k < 4; ++k)
            bytes[k][e] = static_cast<uint8_t>(static_cast<unsigned>(job.matrix[e]) >> (8 * k));
    __m128i tables[4];
    for (int k = 0; k < 4; ++k)
        tables[k] = _mm_load_si128(reinterpret_cast<const __m128i*>(bytes[k]));
    const __m128i open1 = _mm_set1_epi32(job.costs.open1);
    const __m128i open2 = _mm_set1_epi32(job.costs.open2);
    const __m128i two = _mm_set1_epi32(2);
    for (int d = 1; d <= total; ++d) {
        const int off = job.offsets[d];
        const int len = job.lengths[d];
        uint8_t* trace = job.trace + static_cast<size_t>(d) * job.width;
        cur[0] = EdgeCell(job, d, 0, prev, prev2, &trace[0]);

        const int up_shift = off - job.offsets[d - 1] - 1;
        const int diag_shift = off - (d >= 2 ? job.offsets[d - 2] : 0) - 1;
        const uint8_t* ref_codes = job.ref_rev8 + (job.l1 - d + off);
        const uint8_t* query_codes = job.query8 + off - 1;
        for (int p = 1; p < len - 1; p += 4) {
            // Byte index r * 4 + q (codes < 4, so the 16-bit shift never carries
            // into the neighbouring byte).
            const __m128i index =
                _mm_or_si128(_mm_slli_epi16(LoadFourBytes(ref_codes + p), 2), LoadFourBytes(query_codes + p));
            const __m128i low =
                _mm_unpacklo_epi8(_mm_shuffle_epi8(tables[0], index), _mm_shuffle_epi8(tables[1], index));
            const __m128i high =
                _mm_unpacklo_epi8(_mm_shuffle_epi8(tables[2], index), _mm_shuffle_epi8(tables[3], index));
            const __m128i match = _mm_unpacklo_epi16(low, high);
            // S(i,j) = max(S(i-1,j-1) + M, S(i,j-1) + open1, S(i-1,j) + open2)
            const __m128i diag =
                _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(prev2 + p + diag_shift)), match);
            const __m128i up =
                _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(prev + p + up_shift)), open1);
            const __m128i right =
                _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(prev + p + up_shift + 1)), open2);
            const __m128i gap = _mm_max_epi32(up, right);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(cur + p), _mm_max_epi32(diag, gap));
            // DIAG (0) unless a gap beats diag; then UP (1) if up > right, else RIGHT (2).
            const __m128i code =
                _mm_and_si128(_mm_cmpgt_epi32(gap, diag), _mm_add_epi32(two, _mm_cmpgt_epi32(up, right)));
            const __m128i code16 = _mm_packs_epi32(code, code);
            const int packed = _mm_cvtsi128_si32(_mm_packus_epi16(code16, code16));
            std::memcpy(trace + p, &packed, sizeof(packed));
        }
        if (len > 1) cur[len - 1] = EdgeCell(job, d, len - 1, prev, prev2, &trace[len - 1]);

        int* spare = prev2;
        prev2 = prev;
        prev = cur;
        cur = spare;
    }
    return prev[0];
}

}  // namespace PairAlignment::Core
