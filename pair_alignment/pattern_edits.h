#pragma once
// The fewest unit-cost edits (substitutions, insertions, deletions) that turn
// a whole pattern into some stretch of a text, the text bases around that
// stretch being free: Myers' bit-parallel search, in blocks of 64 pattern
// bases. A few operations per text base and block, far cheaper than a scored
// alignment, and a lower bound for one: every edit of a scored alignment
// costs at least the cheapest edit's points (MinEditCost).

#include <cstddef>
#include <cstdint>
#include <vector>

namespace PairAlignment {

class PatternEdits {
public:
    // pattern: base codes 0..3, at least one base.
    explicit PatternEdits(const std::vector<int>& pattern);

    // text: base codes 0..3. The text bases j, in order, that end a stretch
    // the whole pattern turns into with at most `most` edits.
    void Ends(const uint8_t* text, size_t length, int most, std::vector<int>& ends) const;

    // Ends for two patterns at once, each over its own text: the same
    // answers as two calls, with the two columns side by side in one vector
    // register while both texts last (for patterns of one block, up to 64
    // bases; longer ones take two calls).
    static void EndsOfTwo(const PatternEdits& a, const uint8_t* text_a, size_t length_a, int most_a,
                          std::vector<int>& ends_a, const PatternEdits& b, const uint8_t* text_b, size_t length_b,
                          int most_b, std::vector<int>& ends_b);

    size_t Length() const { return length_; }

private:
    // One column of a single-block pattern, and the pattern's edit count at its bottom.
    struct Column {
        uint64_t pv, mv;
        int score;
    };
    Column Start() const;
    // Text bases [from, length) of a single-block pattern, from the column before `from`.
    void Run(Column column, const uint8_t* text, size_t from, size_t length, int most, std::vector<int>& ends) const;

    size_t length_;
    size_t blocks_;
    std::vector<uint64_t> match_;  // per base code, per block: the pattern positions holding it
};

// The fewest points an edit costs an alignment of a whole reference under
// this 4 x 4 matrix (row-major, reference code then query code) and these
// gap costs (ScorerOptions::GapVector order: start1, end1, open1, extend1,
// start2, end2, open2, extend2): a substitution loses the match and gains the
// mismatch, a read base inside the reference costs open1, a reference base
// left out loses its match and costs open2 (start2 or end2 at the ends).
// 0 or less when edits can be free, and then edits bound nothing.
int MinEditCost(const std::vector<int>& matrix, const std::vector<int>& gaps);

}  // namespace PairAlignment
