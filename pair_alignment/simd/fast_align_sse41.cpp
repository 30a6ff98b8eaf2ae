// SSE4.1 build of the banded aligner: the same whole-diagonal loop as the AVX2
// build, 8 cells per step in 16-bit lanes or 4 in 32-bit lanes. The 4 x 4
// matrix is looked up by byte shuffles, one table per byte of its elements.

#include <smmintrin.h>

#include <cstring>

#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment::Core {

namespace {

template <typename T>
inline void PutScalar(T* p, T value) {
    std::memcpy(p, &value, sizeof(T));
}

inline __m128i LoadFourBytes(const uint8_t* p) {
    int word;
    std::memcpy(&word, p, sizeof(word));
    return _mm_cvtsi32_si128(word);
}

// Byte k of each of the 16 matrix elements.
inline __m128i ByteTable(const int* matrix, int k) {
    alignas(16) uint8_t bytes[16];
    for (int e = 0; e < 16; ++e)
        bytes[e] = static_cast<uint8_t>(static_cast<unsigned>(matrix[e]) >> (8 * k));
    return _mm_load_si128(reinterpret_cast<const __m128i*>(bytes));
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
    const __m128i tables[4] = {ByteTable(job.matrix, 0), ByteTable(job.matrix, 1), ByteTable(job.matrix, 2),
                               ByteTable(job.matrix, 3)};
    const __m128i two = _mm_set1_epi32(2);
    for (int d = 1; d <= total; ++d) {
        const int off = job.offsets[d];
        const int len = job.lengths[d];
        uint8_t* trace = job.trace + static_cast<size_t>(d) * job.width;
        // Cell p of the band is (i, j) = (d - off - p, off + p).
        const int k0 = job.l1 - d + off;
        const uint8_t* ref_codes = job.ref_rev8 + k0;
        const int* up_cost = job.up_cost + k0;
        const uint8_t* query_codes = job.query8 + off - 1;
        const int* right_cost = job.right_cost + off;
        const int* up_row = prev + off;     // S(i, j-1) at [p], S(i-1, j) at [p + 1]
        const int* diag_row = prev2 + off;  // S(i-1, j-1) at [p]
        int* out = cur + off + 1;
        for (int p = 0; p < len; p += 4) {
            const __m128i index =
                _mm_or_si128(_mm_slli_epi16(LoadFourBytes(ref_codes + p), 2), LoadFourBytes(query_codes + p));
            const __m128i low =
                _mm_unpacklo_epi8(_mm_shuffle_epi8(tables[0], index), _mm_shuffle_epi8(tables[1], index));
            const __m128i high =
                _mm_unpacklo_epi8(_mm_shuffle_epi8(tables[2], index), _mm_shuffle_epi8(tables[3], index));
            const __m128i match = _mm_unpacklo_epi16(low, high);
            // S(i,j) = max(S(i-1,j-1) + M, S(i,j-1) + gap1(i), S(i-1,j) + gap2(j))
            const __m128i diag = _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(diag_row + p)), match);
            const __m128i up = _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(up_row + p)),
                                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(up_cost + p)));
            const __m128i right = _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(up_row + p + 1)),
                                                _mm_loadu_si128(reinterpret_cast<const __m128i*>(right_cost + p)));
            const __m128i gap = _mm_max_epi32(up, right);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + p), _mm_max_epi32(diag, gap));
            // DIAG (0) unless a gap beats diag; then UP (1) if up > right, else RIGHT (2).
            const __m128i code =
                _mm_and_si128(_mm_cmpgt_epi32(gap, diag), _mm_add_epi32(two, _mm_cmpgt_epi32(up, right)));
            const __m128i code16 = _mm_packs_epi32(code, code);
            PutScalar(reinterpret_cast<int*>(trace + p), _mm_cvtsi128_si32(_mm_packus_epi16(code16, code16)));
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
    const __m128i table_lo = ByteTable(job.matrix, 0);
    const __m128i table_hi = ByteTable(job.matrix, 1);
    const __m128i two = _mm_set1_epi16(2);
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
        for (int p = 0; p < len; p += 8) {
            // Byte index r * 4 + q (codes < 4, so the 16-bit shift never carries
            // into the neighbouring byte).
            const __m128i index =
                _mm_or_si128(_mm_slli_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref_codes + p)), 2),
                             _mm_loadl_epi64(reinterpret_cast<const __m128i*>(query_codes + p)));
            const __m128i match =
                _mm_unpacklo_epi8(_mm_shuffle_epi8(table_lo, index), _mm_shuffle_epi8(table_hi, index));
            // S(i,j) = max(S(i-1,j-1) + M, S(i,j-1) + gap1(i), S(i-1,j) + gap2(j)), saturating
            const __m128i diag = _mm_adds_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(diag_row + p)), match);
            const __m128i up = _mm_adds_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(up_row + p)),
                                              _mm_loadu_si128(reinterpret_cast<const __m128i*>(up_cost + p)));
            const __m128i right = _mm_adds_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(up_row + p + 1)),
                                                 _mm_loadu_si128(reinterpret_cast<const __m128i*>(right_cost + p)));
            const __m128i gap = _mm_max_epi16(up, right);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + p), _mm_max_epi16(diag, gap));
            const __m128i code =
                _mm_and_si128(_mm_cmpgt_epi16(gap, diag), _mm_add_epi16(two, _mm_cmpgt_epi16(up, right)));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(trace + p), _mm_packus_epi16(code, code));
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

int FillBandSse41(const BandJob& job) {
    return job.lanes16 ? FillBand16(job) : FillBand32(job);
}

}  // namespace PairAlignment::Core
