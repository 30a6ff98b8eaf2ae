// Myers (1999) keeps one column of the edit-distance matrix as vertical
// differences (+1, 0, -1) packed in the bit vectors Pv and Mv; one text base
// updates the whole column with a handful of word operations. Patterns longer
// than 64 bases are cut into blocks, each passing its bottom row's horizontal
// difference to the block below (Hyyrö 2003). The matrix's top row is 0 at
// every text position (the pattern may start anywhere), so the first block
// gets no carry; the bottom row's value, tracked from the last block's top
// bit, is the pattern's edit distance to the best stretch ending there.

#include "pair_alignment/pattern_edits.h"

#include <emmintrin.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace PairAlignment {

PatternEdits::PatternEdits(const std::vector<int>& pattern)
    : length_(pattern.size()), blocks_((pattern.size() + 63) / 64), match_(4 * blocks_, 0) {
    if (pattern.empty()) throw std::runtime_error("PatternEdits: empty pattern");
    for (size_t i = 0; i < pattern.size(); ++i) {
        const int code = pattern[i];
        if (code < 0 || code > 3) throw std::runtime_error("PatternEdits: pattern bases must be codes 0..3");
        match_[static_cast<size_t>(code) * blocks_ + i / 64] |= uint64_t{1} << (i % 64);
    }
    if (blocks_ > 1) return;
    // One block: the pattern moves to the word's top bits, so that its last
    // base is bit 63, and the rows below it match any base. Such rows stay 0
    // in every column, as the free top row does.
    const size_t free_rows = 64 - length_;
    for (auto& word : match_)
        word = free_rows == 0 ? word : (word << free_rows) | ((uint64_t{1} << free_rows) - 1);
}

void PatternEdits::Ends(const uint8_t* text, size_t length, int most, std::vector<int>& ends) const {
    ends.clear();
    if (blocks_ == 1) {  // references up to 64 bases: no carries between blocks
        Run(Start(), text, 0, length, most, ends);
        return;
    }
    int score = static_cast<int>(length_);
    constexpr size_t kMaxBlocks = 16;  // references of up to 1000 bases
    uint64_t pv[kMaxBlocks], mv[kMaxBlocks];
    if (blocks_ > kMaxBlocks) throw std::runtime_error("PatternEdits: pattern too long");
    std::fill(pv, pv + blocks_, ~uint64_t{0});
    std::fill(mv, mv + blocks_, uint64_t{0});
    const uint64_t last_bit = uint64_t{1} << ((length_ - 1) % 64);
    for (size_t j = 0; j < length; ++j) {
        const uint64_t* match = match_.data() + static_cast<size_t>(text[j] & 3) * blocks_;
        int carry = 0;  // horizontal difference entering the block from above
        for (size_t b = 0; b < blocks_; ++b) {
            uint64_t eq = match[b];
            const uint64_t xv = eq | mv[b];
            if (carry < 0) eq |= 1;
            const uint64_t xh = (((eq & pv[b]) + pv[b]) ^ pv[b]) | eq;
            uint64_t ph = mv[b] | ~(xh | pv[b]);
            uint64_t mh = pv[b] & xh;
            const uint64_t top = b + 1 == blocks_ ? last_bit : uint64_t{1} << 63;
            const int out = (ph & top) ? 1 : (mh & top) ? -1 : 0;
            ph <<= 1;
            mh <<= 1;
            if (carry < 0) {
                mh |= 1;
            } else if (carry > 0) {
                ph |= 1;
            }
            pv[b] = mh | ~(xv | ph);
            mv[b] = ph & xv;
            carry = out;
        }
        score += carry;
        if (score <= most) ends.push_back(static_cast<int>(j));
    }
}

PatternEdits::Column PatternEdits::Start() const {
    // The free rows start at 0, the pattern's at 1 each.
    return {~uint64_t{0} << (64 - length_), 0, static_cast<int>(length_)};
}

void PatternEdits::Run(Column column, const uint8_t* text, size_t from, size_t length, int most,
                       std::vector<int>& ends) const {
    // In locals: the loop then keeps them in registers, where the member,
    // which the write of an end might change as far as the compiler knows,
    // would be read again for every text base.
    uint64_t pv = column.pv, mv = column.mv;
    int score = column.score;
    const uint64_t match[4] = {match_[0], match_[1], match_[2], match_[3]};
    for (size_t j = from; j < length; ++j) {
        const uint64_t eq = match[text[j] & 3];
        const uint64_t xv = eq | mv;
        const uint64_t xh = (((eq & pv) + pv) ^ pv) | eq;
        const uint64_t ph = mv | ~(xh | pv);
        const uint64_t mh = pv & xh;
        // The bottom row's horizontal difference is the top bit of ph
        // (+1) or mh (-1). Doubling a word shifts that bit out as the
        // carry, which the compiler adds to the score directly (adc,
        // sbb): four instructions fewer per text base than shifting it
        // down and subtracting, in a loop of about thirty.
        uint64_t ph1 = 0, mh1 = 0;
        score += static_cast<int>(__builtin_add_overflow(ph, ph, &ph1));
        score -= static_cast<int>(__builtin_add_overflow(mh, mh, &mh1));
        pv = mh1 | ~(xv | ph1);
        mv = ph1 & xv;
        if (score <= most) ends.push_back(static_cast<int>(j));
    }
}

// The same steps as Run, on two 64-bit lanes (SSE2, which every x86-64
// processor has): each text base costs about as many instructions for both
// patterns as Run spends on one. The scores sit in the low 32 bits of each
// lane; they never fall below 0.
void PatternEdits::EndsOfTwo(const PatternEdits& a, const uint8_t* text_a, size_t length_a, int most_a,
                             std::vector<int>& ends_a, const PatternEdits& b, const uint8_t* text_b, size_t length_b,
                             int most_b, std::vector<int>& ends_b) {
    if (a.blocks_ != 1 || b.blocks_ != 1) {
        a.Ends(text_a, length_a, most_a, ends_a);
        b.Ends(text_b, length_b, most_b, ends_b);
        return;
    }
    ends_a.clear();
    ends_b.clear();
    const Column start_a = a.Start(), start_b = b.Start();
    __m128i pv = _mm_set_epi64x(static_cast<int64_t>(start_b.pv), static_cast<int64_t>(start_a.pv));
    __m128i mv = _mm_setzero_si128();
    __m128i score = _mm_set_epi32(0, start_b.score, 0, start_a.score);
    // A lane's score is at most its bound where bound + 1 > score.
    const __m128i bound = _mm_set_epi32(0, most_b + 1, 0, most_a + 1);
    const __m128i ones = _mm_set1_epi32(-1);
    // Locals, as in Run.
    const uint64_t* match_a = a.match_.data();
    const uint64_t* match_b = b.match_.data();
    const size_t both = std::min(length_a, length_b);
    for (size_t j = 0; j < both; ++j) {
        const __m128i eq =
            _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(match_a + (text_a[j] & 3))),
                               _mm_loadl_epi64(reinterpret_cast<const __m128i*>(match_b + (text_b[j] & 3))));
        const __m128i xv = _mm_or_si128(eq, mv);
        const __m128i xh = _mm_or_si128(_mm_xor_si128(_mm_add_epi64(_mm_and_si128(eq, pv), pv), pv), eq);
        const __m128i ph = _mm_or_si128(mv, _mm_xor_si128(_mm_or_si128(xh, pv), ones));
        const __m128i mh = _mm_and_si128(pv, xh);
        score = _mm_add_epi32(score, _mm_sub_epi32(_mm_srli_epi64(ph, 63), _mm_srli_epi64(mh, 63)));
        const __m128i ph1 = _mm_slli_epi64(ph, 1), mh1 = _mm_slli_epi64(mh, 1);
        pv = _mm_or_si128(mh1, _mm_xor_si128(_mm_or_si128(xv, ph1), ones));
        mv = _mm_and_si128(ph1, xv);
        const int low = _mm_movemask_epi8(_mm_cmpgt_epi32(bound, score)) & 0x0101;
        if (low != 0) {
            if (low & 0x0001) ends_a.push_back(static_cast<int>(j));
            if (low & 0x0100) ends_b.push_back(static_cast<int>(j));
        }
    }
    alignas(16) uint64_t pvs[2], mvs[2];
    alignas(16) int scores[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(pvs), pv);
    _mm_store_si128(reinterpret_cast<__m128i*>(mvs), mv);
    _mm_store_si128(reinterpret_cast<__m128i*>(scores), score);
    if (length_a > both) a.Run({pvs[0], mvs[0], scores[0]}, text_a, both, length_a, most_a, ends_a);
    if (length_b > both) b.Run({pvs[1], mvs[1], scores[2]}, text_b, both, length_b, most_b, ends_b);
}

int MinEditCost(const std::vector<int>& matrix, const std::vector<int>& gaps) {
    if (matrix.size() != 16 || gaps.size() < 8) throw std::runtime_error("MinEditCost: need a 4 x 4 matrix and 8 gaps");
    int cost = std::numeric_limits<int>::max();
    int least_match = std::numeric_limits<int>::max();
    for (int a = 0; a < 4; ++a) {
        least_match = std::min(least_match, matrix[static_cast<size_t>(5 * a)]);
        for (int b = 0; b < 4; ++b)
            if (a != b)
                cost = std::min(cost, matrix[static_cast<size_t>(5 * a)] - matrix[static_cast<size_t>(4 * a + b)]);
    }
    cost = std::min(cost, gaps[2]);                                              // open1
    cost = std::min(cost, least_match + std::min({gaps[4], gaps[5], gaps[6]}));  // start2, end2, open2
    return cost;
}

}  // namespace PairAlignment
