#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "common/fastq_reader.h"
#include "common/gzip_member_writer.h"
#include "tests/common/gzip_test_support.h"
#include "tests/support/error_of.h"

namespace fs = std::filesystem;
using Common::FastQRecord;
using namespace TestSupport;

namespace {

struct Outcome {
    std::vector<FastQRecord> records;
    std::string error;
};

Outcome ReadAll(std::istream& stream, const std::string& name = "") {
    Outcome outcome;
    Common::FastQIterable reads(&stream, name);
    for (reads.Begin(); !reads.AtEnd(); reads.Increment())
        outcome.records.push_back(reads.Record());
    outcome.error = reads.Error();
    return outcome;
}

Outcome ReadText(const std::string& text) {
    std::istringstream stream(text);
    return ReadAll(stream);
}

Outcome ReadFastqFile(const fs::path& path) {
    return ReadAll(*Common::OpenFastqFile(path.string()), path.string());
}

std::vector<FastQRecord> RandomRecords(std::mt19937& rng, int count) {
    std::vector<FastQRecord> records;
    for (int i = 0; i < count; ++i) {
        std::string seq, qual;
        for (int n = rng() % 40; n > 0; --n) {
            seq += "ACGTU"[rng() % 5];
            qual += static_cast<char>('!' + rng() % 94);
        }
        records.emplace_back("@read" + std::to_string(i) + " runid=r", seq, qual);
    }
    return records;
}

std::string Join(const std::vector<FastQRecord>& records) {
    std::string text;
    for (const auto& r : records)
        text += r.ToString();
    return text;
}

void ExpectSame(const std::vector<FastQRecord>& got, const std::vector<FastQRecord>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_EQ(got[i].ToString(), want[i].ToString()) << i;
}

// The reader's rules written out plainly: whole text split into lines, four
// at a time. `where` is "record <n> (line <l>)" of the first problem.
struct Expected {
    std::vector<FastQRecord> records;
    std::string where;
};

Expected NaiveRead(const std::string& text) {
    std::vector<std::string> lines;
    bool last_unended = false;
    for (size_t start = 0; start < text.size();) {
        size_t newline = text.find('\n', start);
        last_unended = newline == std::string::npos;
        lines.push_back(text.substr(start, last_unended ? std::string::npos : newline - start));
        if (!lines.back().empty() && lines.back().back() == '\r') lines.back().pop_back();
        start = last_unended ? text.size() : newline + 1;
    }
    Expected expected;
    for (size_t i = 0; i < lines.size(); i += 4) {
        const size_t have = std::min<size_t>(4, lines.size() - i);
        std::string fields[4];
        bool blank = true;
        for (size_t k = 0; k < have; ++k) {
            fields[k] = lines[i + k];
            blank = blank && fields[k].empty();
        }
        FastQRecord record;
        record.title = fields[0];
        record.sequence = fields[1];
        record.qstring = fields[3];
        bool valid = record.sequence.size() == record.qstring.size();
        for (char c : record.sequence)
            valid &= c == 'A' || c == 'C' || c == 'G' || c == 'T' || c == 'U';
        for (char c : record.qstring)
            valid &= c >= '!' && c <= '~';
        const size_t ended = have - (i + have == lines.size() && last_unended ? 1 : 0);
        const std::string where =
            "record " + std::to_string(expected.records.size() + 1) + " (line " + std::to_string(i + 1) + ")";
        if (!valid || (ended < 3 && !blank)) expected.where = where;
        if (!valid || ended < 3) break;
        expected.records.push_back(record);
    }
    return expected;
}

// Valid records with the faults users meet: odd characters, lines lost or
// added, CR LF, a cut anywhere. Some records are longer than the reader's
// buffer, so lines cross its refills.
std::string RandomFastq(std::mt19937& rng) {
    std::string text;
    const int records = static_cast<int>(rng() % 30);
    for (int i = 0; i < records; ++i) {
        // Long records repeat a random block: cheap to make, and their lines
        // still cross the reader's 1 MB refills.
        const size_t length = rng() % 20 == 0 ? rng() % 2'500'000 : rng() % 60;
        std::string seq, qual;
        for (size_t n = 0; n < std::min<size_t>(length, 4096); ++n) {
            seq += "ACGTU"[rng() % 5];
            qual += static_cast<char>('!' + rng() % 94);
        }
        while (seq.size() < length) {
            seq += seq.substr(0, length - seq.size());
            qual += qual.substr(0, length - qual.size());
        }
        std::string lines[4] = {"@r" + std::to_string(i), seq, rng() % 2 ? "+" : "+r" + std::to_string(i), qual};
        switch (rng() % 40) {
            case 0:
                if (!seq.empty()) lines[1][rng() % seq.size()] = "acgtnN.\xc1"[rng() % 8];
                break;
            case 1:
                lines[3] += 'I';
                break;
            case 2:
                if (!qual.empty()) lines[3][rng() % qual.size()] = " \xa1\x7f\t"[rng() % 4];
                break;
            case 3:
                lines[rng() % 4] = "";
                break;
            case 4:
                text += "\n";
                break;
        }
        for (const std::string& line : lines)
            text += line + (rng() % 8 == 0 ? "\r\n" : "\n");
    }
    switch (rng() % 4) {
        case 0:
            if (!text.empty()) text.resize(rng() % text.size());
            break;
        case 1:
            if (!text.empty()) text.pop_back();
            break;
        case 2:
            text += std::string(rng() % 3, '\n');
            break;
    }
    return text;
}

fs::path TempFastq(const std::string& name) {
    return TempFile("reader_" + name);
}

}  // namespace

TEST(FastQReader, MatchesTheRulesOnRandomInput) {
    std::mt19937 rng(1234);
    int errors = 0;
    for (int round = 0; round < 200; ++round) {
        const std::string text = RandomFastq(rng);
        const Expected expected = NaiveRead(text);
        Outcome got;
        CapturingLog([&] { got = ReadText(text); });
        SCOPED_TRACE("round " + std::to_string(round));
        ExpectSame(got.records, expected.records);
        EXPECT_EQ(got.error.empty(), expected.where.empty()) << got.error;
        if (!expected.where.empty()) {
            ++errors;
            EXPECT_EQ(got.error.compare(0, expected.where.size(), expected.where), 0)
                << got.error.substr(0, 300) << " / " << expected.where;
        }
    }
    EXPECT_GT(errors, 40);
}

// Line endings, a missing final newline and trailing blank lines are the
// random input's business; these are the edges it does not reach.
TEST(FastQReader, LineEdges) {
    // Only one carriage return is removed, so the second one is a bad base.
    CapturingLog([] { EXPECT_TRUE(ReadText("@r\r\r\nA\r\r\n+\nI\r\r\n").records.empty()); });
    // Layout is not checked: odd title and separator lines are fine.
    ExpectSame(ReadText("title\nAC\nnot plus\nII\n").records, {FastQRecord("title", "AC", "II")});
    // Blank lines after the last record end the file cleanly.
    EXPECT_EQ(ReadText("@a\nAC\n+\nII\n\n\n").error, "");
}

TEST(FastQReader, ErrorNamesFileRecordAndLineAndIsLoggedOnce) {
    const fs::path path = TempFastq("bad.fastq");
    WriteFile(path, "@a\nAC\n+\nII\n@b\nAcG\n+\nIII\n@c\nA\n+\nI\n");
    Outcome got;
    std::string log = CapturingLog([&] { got = ReadFastqFile(path); });
    ExpectSame(got.records, {FastQRecord("@a", "AC", "II")});
    const std::string error = "'" + path.string() +
                              "': record 2 (line 5): Sequence contained an unexpected character 'c' at position 1; "
                              "the rest of the file was skipped.\n  Header: @b\n  Sequence: AcG\n  Qstring: III";
    EXPECT_EQ(got.error, error);
    EXPECT_EQ(log, "[error] [fastq_reader] Caught exception, so setting END flag. " + error + "\n");

    // A record cut by the end of the input is reported as such, a title
    // alone too; an empty sequence needs no quality line.
    CapturingLog([&] { got = ReadText("@a\nAC\n+\nII\n@b\nACG\n"); });
    EXPECT_EQ(got.records.size(), 1u);
    EXPECT_EQ(got.error, "record 2 (line 5): the input ends inside the record, after 2 of its 4 lines");
    CapturingLog([&] { got = ReadText("@a\nAC\n+\nII\n@b"); });
    EXPECT_EQ(got.error, "record 2 (line 5): the input ends inside the record, after 1 of its 4 lines");
    got = ReadText("@a\nAC\n+\nII\n@b\n\n+\n");
    ExpectSame(got.records, {FastQRecord("@a", "AC", "II"), FastQRecord("@b", "", "")});
    EXPECT_EQ(got.error, "");
    // A blank line shifts the grouping; the shifted record is rejected.
    CapturingLog([&] { got = ReadText("@a\nAC\n+\nII\n\n@b\nAC\n+\nII\n"); });
    EXPECT_EQ(got.records.size(), 1u);
    EXPECT_EQ(got.error.rfind("record 2 (line 5): ", 0), 0) << got.error;
    fs::remove(path);
}

TEST(FastQReader, RecordDumpsAreCapped) {
    const std::string title = "@" + std::string(999, 't');
    const std::string seq = std::string(100'000, 'A') + "x";
    const std::string qual(100'001, 'I');
    Outcome got;
    const std::string log = CapturingLog([&] { got = ReadText(title + "\n" + seq + "\n+\n" + qual + "\n"); });
    EXPECT_EQ(got.error,
              "record 1 (line 1): Sequence contained an unexpected character 'x' at position 100000; "
              "the rest of the file was skipped.\n  Header: " +
                  title.substr(0, 200) + "... (1000 characters)\n  Sequence: " + std::string(200, 'A') +
                  "... (100001 characters)\n  Qstring: " + std::string(200, 'I') + "... (100001 characters)");
    EXPECT_LT(log.size(), 1000u);
}

TEST(FastQReader, BeginOnlyOnceAndFailedStreams) {
    std::istringstream stream("");
    Common::FastQIterable reads(&stream);
    EXPECT_TRUE(reads.Begin().AtEnd());
    EXPECT_EQ(reads.Error(), "");
    EXPECT_EQ(TestSupport::ErrorOf([&] { reads.Begin(); }), "Cannot start FastQ iteration twice");
    std::ifstream closed;
    closed.setstate(std::ios::failbit);
    Common::FastQIterable failed(&closed, "in.fastq");
    CapturingLog([&] { EXPECT_TRUE(failed.Begin().AtEnd()); });
    EXPECT_EQ(failed.Error(), "'in.fastq': the input stream is in a failed state");
}

TEST(FastQReader, OpensPlainAndGzipFilesByExtension) {
    std::mt19937 rng(99);
    auto records = RandomRecords(rng, 500);
    std::string text = Join(records);
    fs::path plain = TempFastq("a.fastq");
    fs::path gzip = TempFastq("a.fastq.gz");
    fs::path members = TempFastq("a.fq.gz");
    WriteFile(plain, text);
    WriteFile(gzip, Gzip(text));
    // Output files are series of members, a few records each.
    std::string packed;
    Common::GzipMemberWriter writer;
    for (size_t i = 0; i < records.size(); i += 7)
        writer.Append(Join({records.begin() + i, records.begin() + std::min(i + 7, records.size())}), packed);
    WriteFile(members, packed);
    for (const fs::path& path : {plain, gzip, members}) {
        const Outcome got = ReadFastqFile(path);
        ExpectSame(got.records, records);
        EXPECT_EQ(got.error, "");
    }

    // The extension alone decides: plain text named .gz goes to the
    // decompressor, which says it is not gzip.
    fs::path mislabelled = TempFastq("b.fastq.gz");
    WriteFile(mislabelled, text);
    Outcome got;
    CapturingLog([&] { got = ReadFastqFile(mislabelled); });
    EXPECT_TRUE(got.records.empty());
    EXPECT_EQ(got.error, "'" + mislabelled.string() +
                             "': record 1 (line 1): gzip data is corrupt at compressed byte 0 (not in gzip "
                             "format); the rest of the file was skipped.");

    fs::path missing = TempFastq("missing.fastq");
    for (const std::string& path : {missing.string(), missing.string() + ".gz"})
        EXPECT_EQ(TestSupport::ErrorOf([&] { Common::OpenFastqFile(path); }),
                  "Could not open input file '" + path + "'");
    for (const auto& path : {plain, gzip, members, mislabelled})
        fs::remove(path);
}

// A cut archive gives every record that ends before the cut, then says where
// reading stopped.
TEST(FastQReader, TruncatedGzipDeliversTheRecordsBeforeTheCut) {
    std::mt19937 rng(2718);
    const fs::path path = TempFastq("cut.fastq.gz");
    std::string text;
    std::vector<size_t> record_ends;
    std::vector<FastQRecord> records;
    for (int i = 0; i < 1500; ++i) {
        std::string seq, qual;
        for (size_t n = rng() % 3000; n > 0; --n) {
            seq += "ACGT"[rng() % 4];
            qual += static_cast<char>('!' + rng() % 40);
        }
        records.emplace_back("@read" + std::to_string(i), seq, qual);
        text += records.back().ToString();
        record_ends.push_back(text.size());
    }
    const std::string packed = Gzip(text, 1);
    for (int round = 0; round < 6; ++round) {
        const size_t cut = 1 + rng() % (packed.size() - 1);
        WriteFile(path, packed.substr(0, cut));
        const size_t inflated = Gunzip(packed.substr(0, cut)).text.size();
        const size_t complete = static_cast<size_t>(std::upper_bound(record_ends.begin(), record_ends.end(), inflated) -
                                                    record_ends.begin());
        Outcome got;
        CapturingLog([&] { got = ReadFastqFile(path); });
        SCOPED_TRACE("cut at " + std::to_string(cut));
        ExpectSame(got.records, {records.begin(), records.begin() + complete});
        EXPECT_EQ(got.error.rfind("'" + path.string() + "': record " + std::to_string(complete + 1) + " (line ", 0), 0)
            << got.error;
        EXPECT_NE(got.error.find("): gzip data is truncated after " + std::to_string(cut) +
                                 " compressed bytes; the rest of the file was skipped."),
                  std::string::npos)
            << got.error;
    }
    fs::remove(path);
}
