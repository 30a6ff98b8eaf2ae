#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "pair_alignment/fast_align.h"
#include "pair_alignment/score_matrix.h"
#include "tests/support/error_of.h"

using namespace PairAlignment;

namespace {

std::string WriteFile(const std::string& name, const std::string& text) {
    const std::string path = ::testing::TempDir() + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

using TestSupport::ErrorOf;

}  // namespace

TEST(ReadTable, ParsesColumnsSkippingCommentsAndCarriageReturns) {
    const auto file = WriteFile("table_ok.txt", "# made up\nX\tY\r\n1\t2\r\n\n# mid\n3\t\r\n");
    const Table table = ReadTable(file);
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table.at("X"), (std::vector<std::string>{"1", "3"}));
    EXPECT_EQ(table.at("Y"), (std::vector<std::string>{"2", ""}));
}

TEST(LoadMismatchMatrix, LaysColumnsSideBySide) {
    // Columns may come in any order in the file; element (a, b) is row a of
    // column b.
    const auto file = WriteFile("matrix_ok.txt",
                                "# asymmetric on purpose\nT\tG\tC\tA\n3\t2\t1\t0\n7\t6\t5\t4\n"
                                "11\t10\t9\t8\n15\t14\t13\t-12\n");
    const std::vector<int> m = LoadMismatchMatrix(file);
    EXPECT_EQ(m, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, -12, 13, 14, 15}));
}

// Each fault names the file (and the line or column).
TEST(LoadMismatchMatrix, ReportsMissingFilesRaggedRowsAndBadColumns) {
    EXPECT_EQ(ErrorOf([] { ReadTable("no/such/table.txt"); }), "Error: Failed to open file \"no/such/table.txt\"");
    // Line numbers are physical lines, the comment included.
    const auto short_row = WriteFile("table_short.txt", "# c\nA\tC\tG\tT\n1\t2\t3\n");
    EXPECT_EQ(ErrorOf([&] { ReadTable(short_row); }),
              "Error: Incomplete row in line 3 of \"" + short_row + "\": expecting 4 columns but got 3");
    const auto long_row = WriteFile("table_long.txt", "A\tC\n1\t2\n1\t2\t3\n");
    EXPECT_NE(ErrorOf([&] { ReadTable(long_row); }).find("expecting 2 columns but got 3"), std::string::npos);
    EXPECT_EQ(ErrorOf([] { LoadMismatchMatrix("absent_matrix.txt"); }),
              "Error: could not find mismatch matrix file \"absent_matrix.txt\", check configuration.");
    const auto five = WriteFile("matrix_five.txt",
                                "A\tC\tG\tT\n1\t1\t1\t1\n1\t1\t1\t1\n1\t1\t1\t1\n1\t1\t1\t1\n"
                                "1\t1\t1\t1\n");
    EXPECT_EQ(ErrorOf([&] { LoadMismatchMatrix(five); }), "Column A in score matrix \"" + five + "\" has wrong size.");
    const auto no_c = WriteFile("matrix_no_c.txt", "A\tX\tG\tT\n1\t1\t1\t1\n1\t1\t1\t1\n1\t1\t1\t1\n1\t1\t1\t1\n");
    EXPECT_EQ(ErrorOf([&] { LoadMismatchMatrix(no_c); }), "Column C in score matrix \"" + no_c + "\" has wrong size.");
}

// Values beyond the bound would let scores of long references and windows
// overflow the aligners' arithmetic; the bound itself is accepted, and text
// that is no integer (or does not fit one) is refused before any range check.
TEST(LoadMismatchMatrix, RefusesValuesOutsideTheBound) {
    auto matrix_with = [](const std::string& value) {
        return WriteFile("matrix_value.txt",
                         "A\tC\tG\tT\n" + value + "\t1\t1\t1\n1\t1\t1\t1\n1\t1\t1\t1\n1\t1\t1\t1\n");
    };
    const std::string bound = std::to_string(kMaxScoreMagnitude);
    for (const std::string& value : {bound, "-" + bound})
        EXPECT_EQ(LoadMismatchMatrix(matrix_with(value))[0], std::stoi(value));
    for (const std::string value : {"1001", "-1001", "2147483647", "-2147483648", "99999999999"}) {
        const auto file = matrix_with(value);
        EXPECT_EQ(ErrorOf([&] { LoadMismatchMatrix(file); }), "Value " + value + " in column A of score matrix \"" +
                                                                  file +
                                                                  "\" is outside the allowed range -1000 to 1000.");
    }
    const auto file = matrix_with("99999999999999999999");
    EXPECT_EQ(ErrorOf([&] { LoadMismatchMatrix(file); }),
              "Invalid value \"99999999999999999999\" in column A of score matrix \"" + file + "\".");
}

TEST(GapVector, ConvertsSixOrEightValues) {
    EXPECT_EQ(ConvertGapVector({1, 2, 3, 4, 5, 6}), (std::vector<int>{-1, -2, -3, -4, -5, -6}));
    EXPECT_EQ(ConvertGapVector({1, 2, 3, 99, 5, 6, 7, 98}), (std::vector<int>{-1, -2, -3, -5, -6, -7}));
    EXPECT_EQ(ErrorOf([] { ConvertGapVector({1, 2, 3, 4, 5, 6, 7}); }), "Gap penalty vector must be length 6 or 8.");
    std::vector<int> m(16, 1);
    brim::data_wrappers::MatView<int> view(m.data(), 4, 4);
    EXPECT_EQ(ErrorOf([&] {
                  FastAlign aligner(view, std::vector<int>{1, 2, 3}, 11);
              }),
              "Gap penalty vector must be length 6 or 8.");
}

TEST(GetMismatchScore, ChecksBoundsAndLogs) {
    std::vector<int> m(16);
    for (int k = 0; k < 16; ++k)
        m[k] = k;
    // A transposing view: the aligner copies through both strides.
    FastAlign aligner(brim::data_wrappers::MatView<int>(m.data(), 4, 4, 1, 4), {1, 1, 1, 1, 1, 1}, 10);
    EXPECT_EQ(aligner.GetMismatchScore(1, 2), 9);
    std::ostringstream captured;
    auto* old = std::clog.rdbuf(captured.rdbuf());
    const int outside = aligner.GetMismatchScore(4, 0);
    std::clog.rdbuf(old);
    EXPECT_EQ(outside, 0);
    EXPECT_EQ(captured.str(), "Trying to access mismatch matrix element (4, 0)!\n");
}
