#include <gtest/gtest.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "common/fastq_reader.h"

namespace fs = std::filesystem;
using Common::FastQRecord;

namespace {

std::vector<FastQRecord> ReadAll(std::istream& stream) {
    std::vector<FastQRecord> records;
    Common::FastQIterable reads(&stream);
    for (reads.Begin(); !reads.AtEnd(); reads.Increment())
        records.push_back(reads.Record());
    return records;
}

std::vector<FastQRecord> ReadText(const std::string& text) {
    std::istringstream stream(text);
    return ReadAll(stream);
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

std::string Join(const std::vector<FastQRecord>& records, const std::string& eol, bool final_eol) {
    std::string text;
    for (const auto& r : records)
        text += r.title + eol + r.sequence + eol + "+" + eol + r.qstring + eol;
    if (!final_eol && !text.empty()) text.resize(text.size() - eol.size());
    return text;
}

void ExpectSame(const std::vector<FastQRecord>& got, const std::vector<FastQRecord>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_EQ(got[i].ToString(), want[i].ToString()) << i;
}

fs::path TempFile(const std::string& name) {
    return fs::temp_directory_path() / ("vb_test_reader_" + name);
}

void WriteGzip(const fs::path& path, const std::string& text) {
    gzFile file = gzopen(path.c_str(), "wb");
    gzwrite(file, text.data(), static_cast<unsigned>(text.size()));
    gzclose(file);
}

// Runs fn with std::clog captured (logging is not initialised in this test
// binary, so error records land there).
template <typename Fn>
std::string CapturingLog(Fn fn) {
    std::ostringstream log;
    auto* old = std::clog.rdbuf(log.rdbuf());
    fn();
    std::clog.rdbuf(old);
    return log.str();
}

}  // namespace

TEST(FastQReader, LineEndingsAndFinalNewlineDoNotChangeRecords) {
    std::mt19937 rng(7);
    for (int count : {0, 1, 2, 37}) {
        auto records = RandomRecords(rng, count);
        for (std::string eol : {"\n", "\r\n"}) {
            for (bool final_eol : {true, false}) {
                SCOPED_TRACE(std::to_string(count) + (eol.size() == 2 ? " CRLF" : " LF") + (final_eol ? " final" : ""));
                ExpectSame(ReadText(Join(records, eol, final_eol)), records);
            }
        }
    }
    // Only one carriage return is removed, so the second one is a bad base.
    CapturingLog([] { EXPECT_TRUE(ReadText("@r\r\r\nA\r\r\n+\nI\r\r\n").empty()); });
    // Layout is not checked: odd title and separator lines are fine.
    ExpectSame(ReadText("title\nAC\nnot plus\nII\n"), {FastQRecord("title", "AC", "II")});
}

TEST(FastQReader, BadRecordEndsTheFileAfterEarlierRecords) {
    std::vector<FastQRecord> got;
    std::string log = CapturingLog([&] { got = ReadText("@a\nAC\n+\nII\n@b\nAcG\n+\nIII\n@c\nA\n+\nI\n"); });
    ExpectSame(got, {FastQRecord("@a", "AC", "II")});
    EXPECT_NE(log.find("Caught exception, so setting END flag. Sequence contained an unexpected character 'c'"),
              std::string::npos)
        << log;

    // Two lines after the last record: the missing lines read as empty.
    log = CapturingLog([&] { got = ReadText("@a\nAC\n+\nII\n@b\nACG\n"); });
    EXPECT_EQ(got.size(), 1u);
    EXPECT_NE(log.find("Sequence is not the same length as the qstring"), std::string::npos) << log;

    // A blank line shifts the grouping; the shifted record is rejected.
    log = CapturingLog([&] { got = ReadText("@a\nAC\n+\nII\n\n@b\nAC\n+\nII\n"); });
    EXPECT_EQ(got.size(), 1u);
}

TEST(FastQReader, BeginOnlyOnce) {
    std::istringstream stream("");
    Common::FastQIterable reads(&stream);
    EXPECT_TRUE(reads.Begin().AtEnd());
    try {
        reads.Begin();
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Cannot start FastQ iteration twice");
    }
}

TEST(FastQReader, OpensPlainAndGzipFilesByExtension) {
    std::mt19937 rng(99);
    auto records = RandomRecords(rng, 500);
    std::string text = Join(records, "\n", true);
    fs::path plain = TempFile("a.fastq");
    fs::path gzip = TempFile("a.fastq.gz");
    std::ofstream(plain) << text;
    WriteGzip(gzip, text);
    ExpectSame(ReadAll(*Common::OpenFastqFile(plain.string())), records);
    ExpectSame(ReadAll(*Common::OpenFastqFile(gzip.string())), records);

    // The extension alone decides: plain text named .gz goes to the
    // decompressor, fails there, and simply ends the file.
    fs::path mislabelled = TempFile("b.fastq.gz");
    fs::copy_file(plain, mislabelled, fs::copy_options::overwrite_existing);
    std::vector<FastQRecord> got;
    CapturingLog([&] { got = ReadAll(*Common::OpenFastqFile(mislabelled.string())); });
    EXPECT_TRUE(got.empty());

    // A truncated archive delivers what it could decompress, then ends.
    std::string compressed;
    {
        std::ifstream in(gzip, std::ios::binary);
        compressed.assign(std::istreambuf_iterator<char>(in), {});
    }
    std::ofstream(mislabelled, std::ios::binary).write(compressed.data(), compressed.size() / 2);
    std::string log = CapturingLog([&] { got = ReadAll(*Common::OpenFastqFile(mislabelled.string())); });
    EXPECT_LT(got.size(), records.size());
    EXPECT_NE(log.find("setting END flag"), std::string::npos);

    fs::path missing = TempFile("missing.fastq");
    for (const std::string& path : {missing.string(), missing.string() + ".gz"}) {
        try {
            Common::OpenFastqFile(path);
            FAIL() << path;
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), "Could not open input file '" + path + "'");
        }
    }
    for (const auto& path : {plain, gzip, mislabelled})
        fs::remove(path);
}
