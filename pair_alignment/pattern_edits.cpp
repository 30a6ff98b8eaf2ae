// Myers (1999) keeps one column of the edit-distance matrix as vertical
// differences (+1, 0, -1) packed in the bit vectors Pv and Mv; one text base
// updates the whole column with a handful of word operations. Patterns longer
// than 64 bases are cut into blocks, each passing its bottom row's horizontal
// difference to the block below (Hyyrö 2003). The matrix's top row is 0 at
// every text position (the pattern may start anywhere), so the first block
// gets no carry; the bottom row's value, tracked from the last block's top
// bit, is the pattern's edit distance to the best stretch ending there.

#include "pair_alignment/pattern_edits.h"

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
    int score = static_cast<int>(length_);

    if (blocks_ == 1) {                                        // references up to 64 bases: no carries between blocks
        uint64_t pv = ~uint64_t{0} << (64 - length_), mv = 0;  // the free rows start at 0, the pattern's at 1 each
        // In locals: the loop then keeps them in registers, where the member,
        // which the write of an end might change as far as the compiler
        // knows, would be read again for every text base.
        const uint64_t match[4] = {match_[0], match_[1], match_[2], match_[3]};
        for (size_t j = 0; j < length; ++j) {
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
        return;
    }
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
