#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/string_utils.h"

// Reports cover the usual formats; the result is measured, never cut at a buffer's size.
TEST(StringUtils, FormatStringHandlesLongResults) {
    const std::string long_text(5000, 'x');
    EXPECT_EQ(Common::FormatString("<%s>%d", long_text, -1), "<" + long_text + ">-1");
}

// Only the six ASCII spaces go; bytes above 0x7f are never taken for spaces.
TEST(StringUtils, RemoveWhitespaceMatchesNaiveReference) {
    std::mt19937 rng(1234);
    const std::string alphabet = "ab \t\n\v\f\r=#\xa0\x85";
    for (int round = 0; round < 500; ++round) {
        std::string text, expected;
        for (int i = rng() % 30; i > 0; --i) {
            text += alphabet[rng() % alphabet.size()];
            if (std::string(" \t\n\v\f\r").find(text.back()) == std::string::npos) expected += text.back();
        }
        EXPECT_EQ(Common::RemoveWhitespace(text), expected);
    }
}

// Only the whole mark at the very start goes; a stream without one, or with a
// piece of one, is read from its first byte.
TEST(StringUtils, SkipByteOrderMark) {
    const std::string mark = "\xEF\xBB\xBF";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {mark + "arrangement\tsample\n", "arrangement\tsample\n"},
        {mark, ""},
        {"", ""},
        {"plain", "plain"},
        {"\xEF\xBB" + std::string("x"), "\xEF\xBBx"},
        {"\xEF", "\xEF"},
        {"x" + mark, "x" + mark},
        {mark + mark + "x", mark + "x"}};
    for (const auto& [text, rest] : cases) {
        std::istringstream in(text);
        Common::SkipByteOrderMark(in);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), rest) << text;
    }
}

TEST(StringUtils, UsableFileNameComponents) {
    for (const std::string name : {"barcode01", "a b", ".hidden", "...", "x..y", "\xc3\xa9t\xc3\xa9"})
        EXPECT_TRUE(Common::IsUsableFileNameComponent(name)) << name;
    for (const std::string name : {"", ".", "..", "../x", "a/b", "/", "tab\there", "new\nline", "cr\r", "del\x7f"})
        EXPECT_FALSE(Common::IsUsableFileNameComponent(name)) << name;
    EXPECT_FALSE(Common::IsUsableFileNameComponent(std::string("nul\0x", 5)));
    EXPECT_TRUE(Common::IsUsableFileNameComponent(std::string(255, 'n')));
    EXPECT_FALSE(Common::IsUsableFileNameComponent(std::string(256, 'n')));
}
