#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "pair_alignment/pattern_edits.h"

namespace PairAlignment {
namespace {

// The textbook table: row 0 is free (the pattern may start at any text base),
// column 0 costs a deletion per pattern base; the last row is the answer.
std::vector<int> NaiveEnds(const std::vector<int>& pattern, const std::vector<uint8_t>& text, int most) {
    const size_t m = pattern.size();
    std::vector<int> column(m + 1), ends;
    for (size_t i = 0; i <= m; ++i)
        column[i] = static_cast<int>(i);
    for (size_t j = 0; j < text.size(); ++j) {
        int diagonal = column[0];
        column[0] = 0;
        for (size_t i = 1; i <= m; ++i) {
            const int next = std::min({column[i] + 1, column[i - 1] + 1, diagonal + (pattern[i - 1] != text[j])});
            diagonal = column[i];
            column[i] = next;
        }
        if (column[m] <= most) ends.push_back(static_cast<int>(j));
    }
    return ends;
}

// Random patterns of one to three blocks, texts holding damaged copies of
// them, and every bound from exact to loose.
// Each round's pattern also runs beside the previous round's in EndsOfTwo
// (texts of different lengths, one or both patterns beyond one block).
TEST(PatternEditsTest, EndsMatchTheFullTable) {
    std::mt19937 random(1803);
    std::vector<int> last_pattern = {0};
    std::vector<uint8_t> last_text;
    int last_most = 0;
    for (int round = 0; round < 300; ++round) {
        const size_t m = 1 + random() % 150;
        std::vector<int> pattern(m);
        for (int& c : pattern)
            c = static_cast<int>(random() % 4);
        std::vector<uint8_t> text(random() % 300);
        for (auto& c : text)
            c = static_cast<uint8_t>(random() % 4);
        const size_t at = text.empty() ? 0 : random() % text.size();
        for (size_t i = 0; i < m && at + i < text.size(); ++i)
            if (random() % 8 != 0) text[at + i] = static_cast<uint8_t>(pattern[i]);
        const int most = static_cast<int>(random() % (m / 2 + 2));
        std::vector<int> ends;
        PatternEdits(pattern).Ends(text.data(), text.size(), most, ends);
        const std::vector<int> naive = NaiveEnds(pattern, text, most);
        EXPECT_EQ(ends, naive) << "round " << round << ", pattern of " << m;

        const PatternEdits last(last_pattern);
        std::vector<int> ends_last;
        PatternEdits::EndsOfTwo(last, last_text.data(), last_text.size(), last_most, ends_last, PatternEdits(pattern),
                                text.data(), text.size(), most, ends);
        EXPECT_EQ(ends_last, NaiveEnds(last_pattern, last_text, last_most)) << "round " << round << ", first of two";
        EXPECT_EQ(ends, naive) << "round " << round << ", second of two";
        last_pattern = pattern;
        last_text = text;
        last_most = most;
    }
}

}  // namespace
}  // namespace PairAlignment
