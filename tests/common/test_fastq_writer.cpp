#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "common/bam_header.h"
#include "common/bam_record.h"
#include "common/bgzf_blocks.h"
#include "common/fastq_writer.h"
#include "common/gzip_member_writer.h"
#include "common/output_file.h"
#include "tests/common/gzip_test_support.h"
#include "tests/common/htslib_files.h"
#include "tests/support/temp_folder.h"

namespace Common {
namespace {

namespace fs = std::filesystem;

// zlib as the reference reader: every member of a gzip file, one after another.
std::string Gunzip(const std::string& data) {
    const TestSupport::Inflated inflated = TestSupport::Gunzip(data);
    EXPECT_TRUE(inflated.complete) << "not valid gzip";
    return inflated.text;
}

FastqWriterOptions Settings(bool compress, unsigned records_per_fastq, bool split_pass_fail = false) {
    FastqWriterOptions options;
    options.compress = compress;
    options.records_per_fastq = records_per_fastq;
    options.split_pass_fail = split_pass_fail;
    return options;
}

// Descriptors this process holds open on files below root.
size_t OpenFilesBelow(const fs::path& root) {
    size_t count = 0;
    for (fs::directory_iterator it("/proc/self/fd"), end; it != end; ++it) {
        std::error_code error;
        const std::string target = fs::read_symlink(it->path(), error).string();
        if (!error && target.rfind(root.string() + "/", 0) == 0) ++count;
    }
    return count;
}

class FastqWriterTest : public ::testing::Test {
protected:
    FastqWriterTest() : root_(TestSupport::UniqueTempPath("vb-writer")) {}
    ~FastqWriterTest() override { fs::remove_all(root_); }

    static FastQRecord Record(int k, const std::string& run_id = "R1") {
        return FastQRecord("@read" + std::to_string(k) + " runid=" + run_id, "ACGT", "!!!!");
    }
    static std::string Slurp(const fs::path& path) { return TestSupport::ReadFile(path.string()); }
    // Relative paths of every file below the root, sorted.
    std::vector<std::string> Files() const {
        std::vector<std::string> files;
        if (!fs::exists(root_)) return files;
        for (fs::recursive_directory_iterator it(root_), end; it != end; ++it)
            if (fs::is_regular_file(it->path())) files.push_back(fs::relative(it->path(), root_).string());
        std::sort(files.begin(), files.end());
        return files;
    }

    fs::path root_;
};

TEST_F(FastqWriterTest, SplitsFilesByLimitRunIdAndFolder) {
    {
        BarcodeFastqWriter writer({root_.string()}, Settings(false, 2));
        for (int k = 0; k < 5; ++k)
            writer.Write(Record(k), "barcode01", "R1");
        writer.Write(Record(5, "R2"), "barcode01", "R2");
        writer.Write(Record(6), "", "R1");
        writer.Write(Record(7), "barcode02", "R1", true, true);
    }  // the destructor finalises
    EXPECT_EQ(Files(),
              (std::vector<std::string>{"barcode01/fastq_runid_R1_0.fastq", "barcode01/fastq_runid_R1_1.fastq",
                                        "barcode01/fastq_runid_R1_2.fastq", "barcode01/fastq_runid_R2_0.fastq",
                                        "calibration_strands/fastq_runid_R1_0.fastq", "fastq_runid_R1_0.fastq"}));
    EXPECT_EQ(Slurp(root_ / "barcode01/fastq_runid_R1_1.fastq"), Record(2).ToString() + Record(3).ToString());
    EXPECT_EQ(Slurp(root_ / "barcode01/fastq_runid_R1_2.fastq"), Record(4).ToString());
}

TEST_F(FastqWriterTest, PassFailFoldersAndOverwrite) {
    fs::create_directories(root_ / "fail");
    std::ofstream((root_ / "fail/fastq_runid_R1_0.fastq").string()) << "old content that is longer\n";
    BarcodeFastqWriter writer({root_.string()}, Settings(false, 0, true));
    writer.Write(Record(0), "bc", "R1", true);
    writer.Write(Record(1), "", "R1", false);
    writer.Finalise();
    EXPECT_EQ(Files(), (std::vector<std::string>{"fail/fastq_runid_R1_0.fastq", "pass/bc/fastq_runid_R1_0.fastq"}));
    EXPECT_EQ(Slurp(root_ / "fail/fastq_runid_R1_0.fastq"), Record(1).ToString());
}

TEST_F(FastqWriterTest, GzipOutputIsCompleteAfterEveryRotation) {
    BarcodeFastqWriter writer({root_.string()}, Settings(true, 3));
    std::string expected[2];
    for (int k = 0; k < 5; ++k) {
        writer.Write(Record(k), "bc", "R1");
        expected[k / 3] += Record(k).ToString();
    }
    writer.Finalise();
    for (int index = 0; index < 2; ++index) {
        const fs::path file = root_ / "bc" / ("fastq_runid_R1_" + std::to_string(index) + ".fastq.gz");
        ASSERT_TRUE(fs::exists(file));
        EXPECT_EQ(std::system(("gzip -t '" + file.string() + "'").c_str()), 0);
        const fs::path plain = root_ / ("plain" + std::to_string(index));
        ASSERT_EQ(std::system(("gzip -dc '" + file.string() + "' > '" + plain.string() + "'").c_str()), 0);
        EXPECT_EQ(Slurp(plain), expected[index]);
    }
}

TEST_F(FastqWriterTest, MisuseIsRefused) {
    EXPECT_THROW(BarcodeFastqWriter(std::vector<std::string>{}, FastqWriterOptions{}), std::runtime_error);
    BarcodeFastqWriter writer({root_.string()}, Settings(false, 0));
    writer.Write(Record(0), "bc", "R1");
    writer.Flush();
    EXPECT_EQ(Slurp(root_ / "bc/fastq_runid_R1_0.fastq"), Record(0).ToString());
    writer.Finalise();
    writer.Finalise();  // harmless
    try {
        writer.Write(Record(1), "bc", "R1");
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Attempted to write record after finalizing the writer.");
    }
    try {
        writer.Flush();
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Attempted to flush after finalizing the writer.");
    }
    // A root that is a file cannot take folders.
    std::ofstream((root_ / "blocker").string()) << "x";
    BarcodeFastqWriter blocked({(root_ / "blocker").string()}, Settings(false, 0));
    EXPECT_THROW(blocked.Write(Record(0), "", "R1"), std::runtime_error);
}

// Chunks of random sizes for random series, through writers with file limits,
// compression and only two files open at a time (so files are closed and
// reopened for appending all the time), against the simplest model: each
// series' records in order, cut every records_per_fastq into files.
TEST_F(FastqWriterTest, ChunksLandWhereRecordByRecordWritingWouldPutThem) {
    std::mt19937 rng(20261122);
    for (bool compress : {false, true}) {
        for (unsigned limit : {0u, 1u, 3u, 7u}) {
            fs::remove_all(root_);
            FastqWriterOptions options;
            options.compress = compress;
            options.records_per_fastq = limit;
            options.max_open_files = 2;
            std::map<std::pair<std::string, std::string>, std::vector<std::string>> model;
            {
                FastqWriter writer({root_.string()}, options);
                GzipMemberWriter gzip;
                int next = 0;
                for (int c = 0; c < 60; ++c) {
                    FastqChunk chunk;
                    chunk.folder = "bc" + std::to_string(rng() % 4);
                    chunk.run_id = "run" + std::to_string(rng() % 3);
                    const int records = static_cast<int>(rng() % 9);
                    for (int r = 0; r < records; ++r) {
                        const FastQRecord record = Record(next++, chunk.run_id);
                        chunk.AddRecord(record);
                        model[{chunk.folder, chunk.run_id}].push_back(record.ToString());
                    }
                    if (compress) gzip.Append(chunk.text, chunk.gzip);
                    writer.Append(chunk);
                    EXPECT_LE(OpenFilesBelow(root_), 2u);
                }
                writer.Finalise();
            }
            size_t files_expected = 0;
            for (const auto& [key, records] : model) {
                const size_t per_file = limit == 0 ? records.size() : limit;
                for (size_t first = 0, index = 0; first < records.size(); first += per_file, ++index) {
                    std::string expected;
                    for (size_t r = first; r < std::min(records.size(), first + per_file); ++r)
                        expected += records[r];
                    fs::path file = root_ / key.first /
                                    ("fastq_runid_" + key.second + "_" + std::to_string(index) +
                                     (compress ? ".fastq.gz" : ".fastq"));
                    ASSERT_TRUE(fs::exists(file)) << file;
                    EXPECT_EQ(compress ? Gunzip(Slurp(file)) : Slurp(file), expected) << file;
                    ++files_expected;
                }
            }
            EXPECT_EQ(Files().size(), files_expected) << compress << " " << limit;
        }
    }
}

// A failed batch is cut off again: files hold exactly what the committed
// batches wrote, also across a rotation inside the failed batch.
TEST_F(FastqWriterTest, RollbackLeavesOnlyCommittedBatches) {
    FastqWriterOptions options;
    options.records_per_fastq = 3;
    FastqWriter writer({root_.string()}, options);
    auto chunk_of = [&](int first, int count) {
        FastqChunk chunk;
        chunk.folder = "bc";
        chunk.run_id = "R1";
        for (int k = first; k < first + count; ++k)
            chunk.AddRecord(Record(k));
        return chunk;
    };
    writer.BeginBatch();
    writer.Append(chunk_of(0, 2));
    writer.CommitBatch();
    writer.BeginBatch();
    writer.Append(chunk_of(2, 3));  // fills file 0, starts file 1
    writer.RollbackBatch();
    writer.Finalise();
    EXPECT_EQ(Slurp(root_ / "bc/fastq_runid_R1_0.fastq"), Record(0).ToString() + Record(1).ToString());
    EXPECT_FALSE(fs::exists(root_ / "bc/fastq_runid_R1_1.fastq"));  // created by the failed batch
}

// BAM output: a chunk of encoded records, compressed as a worker does.
FastqChunk BamChunk(const std::string& folder, const std::string& run_id, int first, int count) {
    FastqChunk chunk;
    chunk.folder = folder;
    chunk.run_id = run_id;
    for (int k = first; k < first + count; ++k) {
        std::string aux;
        AppendTextTag(aux, kArrangementTag, folder);
        AppendBamRecord(chunk.text, "read" + std::to_string(k), std::string(5 + k % 7, "ACGT"[k % 4]),
                        std::string(5 + k % 7, static_cast<char>('!' + k % 40)), aux);
        chunk.record_ends.push_back(chunk.text.size());
    }
    AppendBgzfBlocks(chunk.text, chunk.gzip, kBamCompressionLevel);
    return chunk;
}

// The read names of a BAM file, after checking that it is whole: the header
// first and exactly one end-of-file block, at the end.
std::vector<std::string> BamReadNames(const fs::path& path, const std::string& header) {
    const std::string data = TestSupport::ReadFile(path.string());
    EXPECT_EQ(data.find(BgzfEofBlock()), data.size() - BgzfEofBlock().size()) << path;
    const auto file = HtslibFiles::ReadAlignments(path.string());
    EXPECT_EQ(file.header, header) << path;
    std::vector<std::string> names;
    for (const auto& record : file.records)
        names.push_back(record.name);
    return names;
}

// Random chunks through writers that keep one or two files open and rotate
// files: every BAM file is whole (header, records, one end-of-file block at
// the end) and holds its series' records in order, however often it was
// closed and reopened.
TEST_F(FastqWriterTest, BamFilesAreWholeAcrossEvictionsAndRotation) {
    std::mt19937 rng(31337);
    const std::string header = BamHeaderText({"@RG\tID:g\tPU:R1"}, "1", "test");
    for (unsigned limit : {0u, 1u, 3u, 7u}) {
        for (unsigned open_files : {1u, 2u}) {
            fs::remove_all(root_);
            FastqWriterOptions options;
            options.format = OutputFormat::bam;
            options.records_per_fastq = limit;
            options.max_open_files = open_files;
            std::map<std::pair<std::string, std::string>, std::vector<std::string>> model;
            {
                FastqWriter writer({root_.string()}, options);
                writer.SetFileHeader(EncodeBamHeader(header));
                int next = 0;
                for (int c = 0; c < 50; ++c) {
                    const std::string folder = "bc" + std::to_string(rng() % 3);
                    const std::string run_id = "run" + std::to_string(rng() % 2);
                    const int count = static_cast<int>(rng() % 8);
                    for (int k = next; k < next + count; ++k)
                        model[{folder, run_id}].push_back("read" + std::to_string(k));
                    writer.BeginBatch();
                    writer.Append(BamChunk(folder, run_id, next, count));
                    writer.CommitBatch();
                    next += count;
                }
                writer.Finalise();
            }
            size_t files_expected = 0;
            for (const auto& [key, names] : model) {
                const size_t per_file = limit == 0 ? names.size() : limit;
                for (size_t first = 0, index = 0; first < names.size(); first += per_file, ++index) {
                    const std::vector<std::string> expected(names.begin() + first,
                                                            names.begin() + std::min(names.size(), first + per_file));
                    const fs::path file =
                        root_ / key.first / ("bam_runid_" + key.second + "_" + std::to_string(index) + ".bam");
                    ASSERT_TRUE(fs::exists(file)) << file;
                    EXPECT_EQ(BamReadNames(file, header), expected) << file;
                    ++files_expected;
                }
            }
            EXPECT_EQ(Files().size(), files_expected) << limit << " " << open_files;
        }
    }
}

// A failed batch that reopened a closed BAM file, rotated it and closed
// another: the files are cut back to the committed records and each ends
// with its end-of-file block again.
TEST_F(FastqWriterTest, BamRollbackLeavesWholeFiles) {
    FastqWriterOptions options;
    options.format = OutputFormat::bam;
    options.records_per_fastq = 3;
    options.max_open_files = 1;
    const std::string header = BamHeaderText({}, "1", "test");
    FastqWriter writer({root_.string()}, options);
    writer.SetFileHeader(EncodeBamHeader(header));
    writer.BeginBatch();
    writer.Append(BamChunk("a", "R1", 0, 2));
    writer.Append(BamChunk("b", "R1", 2, 1));  // closes a's file
    writer.CommitBatch();
    writer.BeginBatch();
    writer.Append(BamChunk("a", "R1", 3, 2));  // reopens a, fills file 0, starts file 1
    writer.Append(BamChunk("b", "R1", 5, 1));
    writer.RollbackBatch();
    writer.Finalise();
    EXPECT_EQ(Files(), (std::vector<std::string>{"a/bam_runid_R1_0.bam", "b/bam_runid_R1_0.bam"}));
    EXPECT_EQ(BamReadNames(root_ / "a/bam_runid_R1_0.bam", header), (std::vector<std::string>{"read0", "read1"}));
    EXPECT_EQ(BamReadNames(root_ / "b/bam_runid_R1_0.bam", header), (std::vector<std::string>{"read2"}));
}

// A full disk is reported with the reason and the file; the file never
// silently holds a cut record.
TEST_F(FastqWriterTest, WriteFailureNamesTheFile) {
    fs::create_directories(root_ / "bc");
    fs::create_symlink("/dev/full", root_ / "bc/fastq_runid_R1_0.fastq");
    BarcodeFastqWriter writer({root_.string()}, Settings(false, 0));
    try {
        writer.Write(Record(0), "bc", "R1");
        FAIL();
    } catch (const OutputError& e) {
        EXPECT_NE(std::string(e.what()).find("No space left on device while writing '"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("bc/fastq_runid_R1_0.fastq'"), std::string::npos) << e.what();
    }
}

// Every file's bytes below a root, by relative path.
std::map<std::string, std::string> Tree(const fs::path& root) {
    std::map<std::string, std::string> files;
    for (fs::recursive_directory_iterator it(root), end; it != end; ++it)
        if (fs::is_regular_file(it->path()))
            files[fs::relative(it->path(), root).string()] = TestSupport::ReadFile(it->path().string());
    return files;
}

// A run that saved a snapshot, wrote more (a new series, rotations) and
// ended, then a second writer that resumes from the snapshot and writes the
// rest: the files are byte for byte those of one writer that wrote
// everything, for plain, gzip and BAM output, with and without rotation and
// with files evicted and reopened.
TEST_F(FastqWriterTest, ResumedWriterEndsWithTheBytesOfAnUninterruptedOne) {
    std::mt19937 rng(20261125);
    const std::string header = EncodeBamHeader(BamHeaderText({}, "1", "test"));
    for (int format = 0; format < 3; ++format) {
        for (unsigned limit : {0u, 3u}) {
            FastqWriterOptions options;
            options.compress = format == 1;
            options.format = format == 2 ? OutputFormat::bam : OutputFormat::fastq;
            options.records_per_fastq = limit;
            options.max_open_files = 1 + rng() % 2;
            std::vector<FastqChunk> chunks;
            GzipMemberWriter gzip;
            for (int c = 0, next = 0; c < 30; ++c) {
                const std::string folder = "bc" + std::to_string(rng() % 3);
                const std::string run_id = "run" + std::to_string(rng() % 2);
                const int count = 1 + static_cast<int>(rng() % 4);
                if (format == 2) {
                    chunks.push_back(BamChunk(folder, run_id, next, count));
                } else {
                    FastqChunk chunk;
                    chunk.folder = folder;
                    chunk.run_id = run_id;
                    for (int r = 0; r < count; ++r)
                        chunk.AddRecord(Record(next + r, run_id));
                    if (options.compress) gzip.Append(chunk.text, chunk.gzip);
                    chunks.push_back(std::move(chunk));
                }
                next += count;
            }
            const size_t cut = 5 + rng() % 20;
            auto write = [&](FastqWriter& writer, size_t from, size_t to) {
                for (size_t c = from; c < to; ++c) {
                    writer.BeginBatch();
                    writer.Append(chunks[c]);
                    writer.CommitBatch();
                }
            };
            const fs::path whole = root_ / "whole", resumed = root_ / "resumed";
            {
                FastqWriter writer({whole.string()}, options);
                writer.SetFileHeader(format == 2 ? header : "");
                write(writer, 0, chunks.size());
                writer.Finalise();
            }
            std::vector<SeriesState> snapshot;
            {
                FastqWriter writer({resumed.string()}, options);
                writer.SetFileHeader(format == 2 ? header : "");
                write(writer, 0, cut);
                snapshot = writer.Snapshot();
                write(writer, cut, std::min(chunks.size(), cut + 6));  // lost with the process
            }
            FastqWriter writer({resumed.string()}, options);
            writer.SetFileHeader(format == 2 ? header : "");
            writer.Resume(snapshot);
            write(writer, cut, chunks.size());
            writer.Finalise();
            const auto got = Tree(resumed), expected = Tree(whole);
            std::string differ;
            for (const auto& [name, bytes] : expected)
                if (!got.count(name) || got.at(name) != bytes) differ += " " + name;
            for (const auto& [name, bytes] : got)
                if (!expected.count(name)) differ += " +" + name;
            EXPECT_EQ(differ, "") << "format " << format << ", limit " << limit << ", cut " << cut;
            fs::remove_all(root_);
        }
    }
}

// A snapshot that claims more than a file holds (the file was changed
// since) is refused rather than patched over.
TEST_F(FastqWriterTest, ResumeRefusesAFileShorterThanItsSnapshot) {
    std::vector<SeriesState> snapshot;
    {
        BarcodeFastqWriter writer({root_.string()}, Settings(false, 0));
        writer.Write(Record(0), "bc", "R1");
        snapshot = writer.Snapshot();
    }
    TruncateOutputFile((root_ / "bc/fastq_runid_R1_0.fastq").string(), 3);
    BarcodeFastqWriter writer({root_.string()}, Settings(false, 0));
    EXPECT_THROW(writer.Resume(snapshot), OutputError);
}

}  // namespace
}  // namespace Common
