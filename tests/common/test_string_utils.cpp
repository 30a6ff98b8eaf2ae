#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <string>
#include <vector>

#include "common/string_utils.h"

TEST(StringUtils, FormatStringHandlesNumbersTextAndLongResults) {
    EXPECT_EQ(Common::FormatString("barcode%02d", 7), "barcode07");
    EXPECT_EQ(Common::FormatString("%s_%s%03u", std::string("kit"), "var", 12u), "kit_var012");
    EXPECT_EQ(Common::FormatString("no arguments"), "no arguments");
    EXPECT_EQ(Common::FormatString(""), "");
    std::string long_text(5000, 'x');
    EXPECT_EQ(Common::FormatString("<%s>%d", long_text, -1), "<" + long_text + ">-1");
}

TEST(StringUtils, RemoveWhitespaceMatchesNaiveReference) {
    std::mt19937 rng(1234);
    const std::string alphabet = std::string("ab \t\n\v\f\r=#") + char(0xa0) + char(0x85);
    for (int round = 0; round < 500; ++round) {
        std::string text;
        for (int i = rng() % 30; i > 0; --i)
            text += alphabet[rng() % alphabet.size()];
        std::string expected;
        for (char c : text) {
            if (c != ' ' && c != '\t' && c != '\n' && c != '\v' && c != '\f' && c != '\r') expected += c;
        }
        EXPECT_EQ(Common::RemoveWhitespace(text), expected);
    }
}

TEST(StringUtils, UsableFileNameComponents) {
    for (const std::string& name : std::vector<std::string>{"barcode01", "unclassified", "a b", ".hidden", "...",
                                                            "x..y", "\xc3\xa9t\xc3\xa9", std::string(255, 'n')})
        EXPECT_TRUE(Common::IsUsableFileNameComponent(name)) << name;
    for (const std::string& name :
         std::vector<std::string>{"", ".", "..", "../x", "a/b", "/", "tab\there", "new\nline", "cr\r", "del\x7f",
                                  std::string("nul\0x", 5), std::string(256, 'n')})
        EXPECT_FALSE(Common::IsUsableFileNameComponent(name)) << name;
}
