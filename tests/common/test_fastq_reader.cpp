#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "common/barcode_trimmer.h"
#include "common/fastq_reader.h"
#include "common/gzip_member_writer.h"
#include "tests/common/gzip_test_support.h"
#include "tests/support/error_of.h"
#include "tests/support/temp_folder.h"

using Common::BarcodeTrimmer;
using Common::FastQRecord;
using namespace TestSupport;

namespace {

// Why a record with these fields is refused, from the rules: lengths first, then the first bad base, then the
// first bad quality; "" when it is taken.
std::string ExpectedReason(const std::string& seq, const std::string& qual) {
    if (seq.size() != qual.size()) return "Sequence is not the same length as the qstring";
    const size_t base = seq.find_first_not_of("ACGTU");
    if (base != std::string::npos)
        return "Sequence contained an unexpected character '" + seq.substr(base, 1) + "' at position " +
               std::to_string(base);
    const auto quality = std::find_if(qual.begin(), qual.end(), [](char c) { return c < '!' || c > '~'; });
    return quality == qual.end() ? "" : "Unsupported character in the Qstring: " + std::string(1, *quality);
}

struct Outcome {
    std::string records;  // as text
    std::string error;
};

Outcome ReadFastqFile(const std::string& path) {
    Outcome outcome;
    const auto stream = Common::OpenFastqFile(path);
    Common::FastQIterable reads(stream.get(), path);
    for (reads.Begin(); !reads.AtEnd(); reads.Increment())
        outcome.records += reads.Record().ToString();
    outcome.error = reads.Error();
    return outcome;
}

// The reader's rules written out plainly: the text split into lines (one "\r" dropped from each), four at a time.
// A stream that fails with stream_error after the text fails the first record that needs more than it gave.
Outcome NaiveRead(const std::string& text, const std::string& stream_error = "") {
    std::vector<std::string> lines;
    bool unended = false;
    for (size_t start = 0; start < text.size();) {
        const size_t newline = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, newline - start));
        if (!lines.back().empty() && lines.back().back() == '\r') lines.back().pop_back();
        unended = newline == text.size();
        start = newline + 1;
    }
    if (unended && !stream_error.empty()) lines.pop_back();
    const auto capped = [](const std::string& field) {
        return field.size() <= 200 ? field
                                   : field.substr(0, 200) + "... (" + std::to_string(field.size()) + " characters)";
    };
    Outcome expected;
    for (size_t i = 0, record = 1; i <= lines.size(); i += 4, ++record) {
        const size_t have = std::min<size_t>(4, lines.size() - i);
        std::string f[4];
        std::copy_n(lines.begin() + static_cast<long>(i), have, f);
        const size_t ended = have - (i + have == lines.size() && unended ? 1 : 0);
        const std::string reason = ExpectedReason(f[1], f[3]);
        const std::string where = "record " + std::to_string(record) + " (line ";
        if (have < 4 && !stream_error.empty()) {
            expected.error =
                where + std::to_string(lines.size() + 1) + "): " + stream_error + "; the rest of the file was skipped.";
        } else if (have < 4 && f[0].empty() && f[1].empty() && f[2].empty()) {
            break;  // blank lines at the end
        } else if (have < 4 && (ended < 3 || !reason.empty())) {
            expected.error = where + std::to_string(i + 1) + "): the input ends inside the record, after " +
                             std::to_string(have) + " of its 4 lines";
        } else if (!reason.empty()) {
            expected.error = where + std::to_string(i + 1) + "): " + reason +
                             "; the rest of the file was skipped.\n  Header: " + capped(f[0]) +
                             "\n  Sequence: " + capped(f[1]) + "\n  Qstring: " + capped(f[3]);
        }
        if (!expected.error.empty()) break;
        expected.records += FastQRecord(f[0], f[1], f[3]).ToString();
    }
    return expected;
}

// Valid records with the faults users meet, one in fault_odds records: odd characters, lines lost or added, a
// stray CR; CR LF and a cut anywhere. Some records are longer than the reader's 1 MB buffer, so lines cross its
// refills; some fields are longer than an error message shows. Title and separator lines are not checked.
std::string RandomFastq(std::mt19937& rng, unsigned fault_odds) {
    std::string text;
    for (int i = static_cast<int>(rng() % 30); i > 0; --i) {
        const size_t length = rng() % 20 == 0 ? rng() % 2'500'000 : rng() % 4 == 0 ? rng() % 400 : rng() % 60;
        std::string seq, qual;
        for (size_t n = 0; n < std::min<size_t>(length, 4096); ++n) {
            seq += "ACGTU"[rng() % 5];
            qual += static_cast<char>('!' + rng() % 94);
        }
        while (seq.size() < length) {
            seq += seq.substr(0, length - seq.size());
            qual += qual.substr(0, length - qual.size());
        }
        std::string lines[4] = {(rng() % 8 ? "@r" : "r") + std::to_string(i) + std::string(rng() % 8 ? 0 : 300, 't'),
                                seq, rng() % 2 ? "+" : "+r" + std::to_string(i), qual};
        const unsigned fault = rng() % fault_odds;
        if (fault == 0 && !seq.empty()) lines[1][rng() % seq.size()] = "acgtnN.\xc1"[rng() % 8];
        if (fault == 1) lines[3] += 'I';
        if (fault == 2 && !qual.empty()) lines[3][rng() % qual.size()] = " \xa1\x7f\t"[rng() % 4];
        if (fault == 3) lines[rng() % 4] = "";
        if (fault == 4) text += "\n";
        if (fault == 5) lines[rng() % 4] += "\r\r";
        for (const std::string& line : lines)
            text += line + (rng() % 8 == 0 ? "\r\n" : "\n");
    }
    const unsigned end = rng() % 4;
    if (end == 0 && !text.empty()) text.resize(rng() % text.size());
    if (end == 1 && !text.empty()) text.pop_back();
    if (end == 2) text += std::string(rng() % 3, '\n');
    return text;
}

}  // namespace

// The exact error, logged once, with the file's name, and the records before it: plain files, one gzip member,
// and members split anywhere in the text as the writer makes them; gzip cut anywhere half the time, which gives
// what inflates before the cut. The extension alone decides: plain text named .gz goes to the decompressor, which
// says it is not gzip.
TEST(FastQReader, MatchesTheRulesOnRandomInput) {
    std::mt19937 rng(1234);
    TempFolder dir;
    const char* const kNames[] = {"a.fastq", "a.fastq.gz", "a.fq.gz"};
    int errors = 0;
    for (int round = 0; round < 200; ++round) {
        const std::string text = RandomFastq(rng, round % 2 ? 40 : 1000);
        std::string file = round % 3 == 0 ? text : round % 3 == 1 ? Gzip(text, 1) : "";
        for (size_t from = 0, size; round % 3 == 2 && (from < text.size() || file.empty()); from += size)
            Common::GzipMemberWriter().Append(text.substr(from, size = 1 + rng() % (text.size() / 2 + 1)), file);
        if (round % 3 != 0 && rng() % 2 == 0) file.resize(1 + rng() % (file.size() - 1));
        const Inflated reference = Gunzip(file);
        const std::string path = dir.Write(kNames[round % 3], file);
        const std::string cut = "gzip data is truncated after " + std::to_string(file.size()) + " compressed bytes";
        Outcome expected = round % 3 == 0 ? NaiveRead(text) : NaiveRead(reference.text, reference.complete ? "" : cut);
        if (!expected.error.empty()) expected.error = "'" + path + "': " + expected.error;
        Outcome got;
        const std::string log = CapturingLog([&] { got = ReadFastqFile(path); });
        SCOPED_TRACE("round " + std::to_string(round));
        EXPECT_TRUE(got.records == expected.records);
        EXPECT_EQ(got.error, expected.error);
        EXPECT_EQ(log, expected.error.empty()
                           ? ""
                           : "[error] [fastq_reader] Caught exception, so setting END flag. " + expected.error + "\n");
        errors += !expected.error.empty();
    }
    EXPECT_GT(errors, 40);
    const std::string mislabelled = dir.Write("b.fastq.gz", "@r\nA\n+\nI\n");
    EXPECT_EQ(ReadFastqFile(mislabelled).error,
              "'" + mislabelled +
                  "': record 1 (line 1): gzip data is corrupt at compressed byte 0 (not in gzip format); "
                  "the rest of the file was skipped.");
    for (const std::string& path : {dir.Path() + "/missing.fastq", dir.Path() + "/missing.fastq.gz"})
        EXPECT_EQ(ErrorOf([&] { Common::OpenFastqFile(path); }), "Could not open input file '" + path + "'");
}

TEST(FastQRecord, ReadAndRunIdsFromTitles) {
    const std::string none = Common::kInvalidReadId, no_run = Common::kInvalidRunId;
    const std::string cases[][3] = {
        {"@abc", "abc", no_run},       {"@abc def", "abc", no_run},       {"@", none, no_run},
        {"x", none, no_run},           {"@r runid=R1 ch=5", "r", "R1"},   {"@r runid=R1", "r", "R1"},
        {"@r ch=5 runid= x", "r", ""}, {"runid=R9 x", "unid=R9", no_run}, {"@r xrunid=Q", "r", "Q"},
    };
    const std::string log = CapturingLog([&] {
        for (const auto& [title, read_id, run_id] : cases) {
            FastQRecord record;
            record.title = title;
            record.ParseTitle();
            EXPECT_EQ(record.GetReadId(), read_id) << title;
            EXPECT_EQ(record.GetRunId(), run_id) << title;
        }
    });
    EXPECT_TRUE(Holds(log, "Read title '@' does not have any space. Continuing with next read.")) << log;
    EXPECT_TRUE(Holds(log, "Could not find 'runid=' in the title: @abc def")) << log;
    EXPECT_THROW(FastQRecord().GetReadId(), std::runtime_error);
    EXPECT_THROW(FastQRecord().GetRunId(), std::runtime_error);
}

// Against the clamping rules: a negative amount trims nothing, one of at least the length keeps one base. Fields
// of different lengths are refused, whatever the amount, and left as they were.
TEST(BarcodeTrimmer, RandomTrimsMatchTheClampingRules) {
    std::mt19937 random(7);
    for (int round = 0; round < 500; ++round) {
        const int length = static_cast<int>(random() % 12);
        std::string sequence, qstring;
        for (int k = 0; k < length; ++k) {
            sequence += "ACGT"[random() % 4];
            qstring += static_cast<char>('!' + k);
        }
        const int trim = static_cast<int>(random() % 20) - 5;
        const size_t expected = trim <= 0 ? 0 : static_cast<size_t>(trim < length ? trim : std::max(length - 1, 0));
        std::string front_seq = sequence, front_q = qstring, rear_seq = sequence, rear_q = qstring;
        if (round % 10 == 0) {
            front_q += 'I';
            EXPECT_EQ(ErrorOf([&] { BarcodeTrimmer::TrimFront(trim, front_seq, front_q); }),
                      "Mismatching sequence and qstring lengths passed to BarcodeTrimmer::CheckTrimLengthValid");
            EXPECT_EQ(front_seq, sequence);
            continue;
        }
        ASSERT_EQ(BarcodeTrimmer::TrimFront(trim, front_seq, front_q), static_cast<int>(expected));
        ASSERT_EQ(BarcodeTrimmer::TrimRear(trim, rear_seq, rear_q), static_cast<int>(expected));
        EXPECT_EQ(std::tie(front_seq, front_q), std::make_tuple(sequence.substr(expected), qstring.substr(expected)));
        EXPECT_EQ(std::tie(rear_seq, rear_q), std::make_tuple(sequence.substr(0, sequence.size() - expected),
                                                              qstring.substr(0, qstring.size() - expected)));
    }
}
