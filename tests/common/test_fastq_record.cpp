#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "common/fastq_record.h"
#include "tests/support/error_of.h"

using Common::FastQRecord;

namespace {

// What the constructor should report for these fields, written straight from
// the rules: lengths first, then the first bad base, then the first bad quality.
std::string ExpectedError(const std::string& title, const std::string& seq, const std::string& qual) {
    std::string dump = "Header: " + title + "\nSequence: " + seq + "\nQstring: " + qual;
    if (seq.size() != qual.size()) return "Sequence is not the same length as the qstring\n" + dump;
    for (size_t i = 0; i < seq.size(); ++i) {
        if (std::string("ACGTU").find(seq[i]) == std::string::npos) {
            return "Sequence contained an unexpected character '" + std::string(1, seq[i]) + "' at position " +
                   std::to_string(i) + "\n" + dump;
        }
    }
    for (char c : qual) {
        int code = static_cast<unsigned char>(c);
        if (code < 33 || code > 126) return "Unsupported character in the Qstring: " + std::string(1, c);
    }
    return "";
}

std::string ErrorOf(const std::string& title, const std::string& seq, const std::string& qual) {
    const std::string error = TestSupport::ErrorOf([&] { FastQRecord record(title, seq, qual); });
    return error == "(no error)" ? "" : error;
}

}  // namespace

TEST(FastQRecord, ValidationMatchesReferenceOnRandomRecords) {
    std::mt19937 rng(20261121);
    const std::string bases = "ACGTUACGTUacgnN.";
    const std::string quals = std::string("!~5I+ ") + char(127) + char(200);
    int failures = 0;
    for (int round = 0; round < 3000; ++round) {
        size_t length = rng() % 12;
        std::string seq, qual;
        for (size_t i = 0; i < length; ++i)
            seq += bases[rng() % (round % 3 == 0 ? bases.size() : 5)];
        size_t qual_length = rng() % 8 == 0 ? rng() % 12 : length;
        for (size_t i = 0; i < qual_length; ++i)
            qual += quals[rng() % (round % 2 == 0 ? quals.size() : 5)];
        std::string expected = ExpectedError("@r", seq, qual);
        failures += !expected.empty();
        ASSERT_EQ(ErrorOf("@r", seq, qual), expected) << "seq=" << seq << " qual=" << qual;
    }
    EXPECT_GT(failures, 300);  // every rule actually exercised, not only the happy path
    EXPECT_EQ(
        ErrorOf("@r", "ACGTN", "IIIII"),
        "Sequence contained an unexpected character 'N' at position 4\nHeader: @r\nSequence: ACGTN\nQstring: IIIII");
    EXPECT_EQ(ErrorOf("", "", ""), "");
}

TEST(FastQRecord, ReadAndRunIdsFromTitles) {
    struct Case {
        std::string title, read_id, run_id;
    };
    const Case cases[] = {
        {"@abc", "abc", Common::kInvalidRunId},
        {"@abc def", "abc", Common::kInvalidRunId},
        {"@", Common::kInvalidReadId, Common::kInvalidRunId},
        {"x", Common::kInvalidReadId, Common::kInvalidRunId},
        {"@r runid=R1 ch=5", "r", "R1"},
        {"@r runid=R1", "r", "R1"},
        {"@r ch=5 runid= x", "r", ""},
        {"runid=R9 x", "unid=R9", Common::kInvalidRunId},
        {"@r xrunid=Q", "r", "Q"},
    };
    std::ostringstream log;
    auto* old = std::clog.rdbuf(log.rdbuf());
    for (const auto& c : cases) {
        FastQRecord record;
        record.title = c.title;
        record.ParseTitle();
        EXPECT_EQ(record.GetReadId(), c.read_id) << c.title;
        EXPECT_EQ(record.GetRunId(), c.run_id) << c.title;
    }
    std::clog.rdbuf(old);
    EXPECT_NE(log.str().find("Read title '@' does not have any space. Continuing with next read."), std::string::npos);
    EXPECT_NE(log.str().find("Could not find 'runid=' in the title: @abc def"), std::string::npos) << log.str();

    FastQRecord empty;
    EXPECT_THROW(empty.GetReadId(), std::runtime_error);
    EXPECT_THROW(empty.GetRunId(), std::runtime_error);
}

// The record text itself: the writer tests and every end-to-end comparison of output records.
TEST(FastQRecord, Titles) {
    FastQRecord record("@r", "ACGU", "!!~~");
    record.AppendToTitle("barcode", "barcode01");
    EXPECT_EQ(record.title, "@r barcode=barcode01");

    Common::FastQReadMetadata metadata{"id7", "run3", "s1", "2026-01-01T00:00:00Z", 4000000000u, 12};
    std::string title = FastQRecord::MakeTitle(metadata);
    EXPECT_EQ(title, "@id7 runid=run3 sampleid=s1 read=12 ch=4000000000 start_time=2026-01-01T00:00:00Z");
    FastQRecord titled(title, "", "");
    EXPECT_EQ(titled.GetReadId(), "id7");
    EXPECT_EQ(titled.GetRunId(), "run3");
}

TEST(FastQRecord, ReadIdWhitelist) {
    auto path = std::filesystem::temp_directory_path() / "vb_test_whitelist.txt";
    std::ofstream(path) << "a1\n  b2\t\r\na1\nbad id\n\nc3";
    std::ostringstream log;
    auto* old = std::clog.rdbuf(log.rdbuf());
    auto ids = Common::getReadIdWhitelist(path.string());
    std::clog.rdbuf(old);
    EXPECT_EQ(ids, (std::unordered_set<std::string>{"a1", "b2", "c3"}));
    EXPECT_NE(log.str().find("read_id is invalid as it contains a space bad id"), std::string::npos);
    std::filesystem::remove(path);
    EXPECT_EQ(TestSupport::ErrorOf([&] { Common::getReadIdWhitelist(path.string()); }),
              "Could not load readIdWhitelist file: '" + path.string() + "'");
}
