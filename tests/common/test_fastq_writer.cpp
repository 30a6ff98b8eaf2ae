#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>

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
    for (int index = 0; index < 2; ++index)
        EXPECT_EQ(Gunzip(Slurp(root_ / "bc" / ("fastq_runid_R1_" + std::to_string(index) + ".fastq.gz"))),
                  expected[index]);
}

TEST_F(FastqWriterTest, MisuseIsRefused) {
    EXPECT_THROW(BarcodeFastqWriter(std::vector<std::string>{}, FastqWriterOptions{}), std::runtime_error);
    BarcodeFastqWriter writer({root_.string()}, Settings(false, 0));
    writer.Write(Record(0), "bc", "R1");
    writer.Flush();
    EXPECT_EQ(Slurp(root_ / "bc/fastq_runid_R1_0.fastq"), Record(0).ToString());
    writer.Finalise();
    writer.Finalise();  // harmless
    EXPECT_THROW(writer.Write(Record(1), "bc", "R1"), std::runtime_error);
    EXPECT_THROW(writer.Flush(), std::runtime_error);
    // A root that is a file cannot take folders.
    std::ofstream((root_ / "blocker").string()) << "x";
    BarcodeFastqWriter blocked({(root_ / "blocker").string()}, Settings(false, 0));
    EXPECT_THROW(blocked.Write(Record(0), "", "R1"), std::runtime_error);
}

enum Format { kPlain, kGzip, kBam };
const std::string kBamHeader = BamHeaderText({"@RG\tID:g\tPU:R1"}, "1", "test");

FastqWriterOptions Options(Format format, unsigned limit, unsigned open_files) {
    FastqWriterOptions options;
    options.compress = format == kGzip;
    options.format = format == kBam ? OutputFormat::bam : OutputFormat::fastq;
    options.records_per_fastq = limit;
    options.max_open_files = open_files;
    return options;
}

// Records first..first+count of one series, encoded and compressed as a
// worker does.
FastqChunk Chunk(Format format, const std::string& folder, const std::string& run_id, int first, int count) {
    FastqChunk chunk;
    chunk.folder = folder;
    chunk.run_id = run_id;
    for (int k = first; k < first + count; ++k) {
        if (format != kBam) {
            chunk.AddRecord(FastQRecord("@read" + std::to_string(k) + " runid=" + run_id, "ACGT", "!!!!"));
            continue;
        }
        std::string aux;
        AppendTextTag(aux, kArrangementTag, folder);
        AppendBamRecord(chunk.text, "read" + std::to_string(k), std::string(5 + k % 7, "ACGT"[k % 4]),
                        std::string(5 + k % 7, static_cast<char>('!' + k % 40)), aux);
        chunk.record_ends.push_back(chunk.text.size());
    }
    if (format == kGzip) GzipMemberWriter().Append(chunk.text, chunk.gzip);
    if (format == kBam) AppendBgzfBlocks(chunk.text, chunk.gzip, kBamCompressionLevel);
    return chunk;
}

std::unique_ptr<FastqWriter> Writer(const fs::path& root, const FastqWriterOptions& options) {
    auto writer = std::make_unique<FastqWriter>(std::vector<std::string>{root.string()}, options);
    writer->SetFileHeader(options.format == OutputFormat::bam ? EncodeBamHeader(kBamHeader) : "");
    return writer;
}

// The read names of an output file, after checking that it is whole: gzip
// that inflates to the end; BAM with the header first and exactly one
// end-of-file block, at the end.
std::vector<std::string> ReadNames(const fs::path& path, Format format) {
    std::vector<std::string> names;
    if (format == kBam) {
        const std::string data = TestSupport::ReadFile(path.string());
        EXPECT_EQ(data.find(BgzfEofBlock()), data.size() - BgzfEofBlock().size()) << path;
        const auto file = HtslibFiles::ReadAlignments(path.string());
        EXPECT_EQ(file.header, kBamHeader) << path;
        for (const auto& record : file.records)
            names.push_back(record.name);
        return names;
    }
    const std::string raw = TestSupport::ReadFile(path.string());
    std::istringstream text(format == kGzip ? Gunzip(raw) : raw);
    for (std::string line[4]; std::getline(text, line[0]) && std::getline(text, line[1]) &&
                              std::getline(text, line[2]) && std::getline(text, line[3]);) {
        EXPECT_EQ(line[1] + line[2] + line[3], "ACGT+!!!!") << path;
        names.push_back(line[0].substr(1, line[0].find(' ') - 1));
    }
    return names;
}

std::string FileName(Format format, const std::string& run_id, size_t index) {
    return (format == kBam ? "bam_runid_" : "fastq_runid_") + run_id + "_" + std::to_string(index) +
           (format == kBam    ? ".bam"
            : format == kGzip ? ".fastq.gz"
                              : ".fastq");
}

// Random chunks for random series through writers that keep one or two files
// open and rotate files (so files are closed and reopened for appending all
// the time): every file is whole and holds its series' records in order, cut
// every records_per_fastq into files, the simplest model.
TEST_F(FastqWriterTest, SeriesLandInOrderAcrossEvictionsAndRotation) {
    std::mt19937 rng(31337);
    for (Format format : {kPlain, kGzip, kBam}) {
        for (unsigned limit : {0u, 1u, 3u, 7u}) {
            for (unsigned open_files : {1u, 2u}) {
                fs::remove_all(root_);
                std::map<std::pair<std::string, std::string>, std::vector<std::string>> model;
                {
                    auto writer = Writer(root_, Options(format, limit, open_files));
                    for (int c = 0, next = 0; c < 50; ++c) {
                        const std::string folder = "bc" + std::to_string(rng() % 4);
                        const std::string run_id = "run" + std::to_string(rng() % 3);
                        const int count = static_cast<int>(rng() % 8);
                        for (int k = next; k < next + count; ++k)
                            model[{folder, run_id}].push_back("read" + std::to_string(k));
                        writer->BeginBatch();
                        writer->Append(Chunk(format, folder, run_id, next, count));
                        writer->CommitBatch();
                        EXPECT_LE(OpenFilesBelow(root_), open_files);
                        next += count;
                    }
                    writer->Finalise();
                }
                size_t files_expected = 0;
                for (const auto& [key, names] : model) {
                    const size_t per_file = limit == 0 ? names.size() : limit;
                    for (size_t first = 0, index = 0; first < names.size(); first += per_file, ++index) {
                        const std::vector<std::string> expected(
                            names.begin() + first, names.begin() + std::min(names.size(), first + per_file));
                        const fs::path file = root_ / key.first / FileName(format, key.second, index);
                        ASSERT_TRUE(fs::exists(file)) << file;
                        EXPECT_EQ(ReadNames(file, format), expected) << file;
                        ++files_expected;
                    }
                }
                EXPECT_EQ(Files().size(), files_expected) << format << " " << limit << " " << open_files;
            }
        }
    }
}

// The files kept open are always the most recently used ones (a naive list
// of uses as the reference), so that a series written every batch is never
// the one closed to make room; random uses of many series, for several caps.
TEST_F(FastqWriterTest, KeepsTheMostRecentlyUsedFilesOpen) {
    std::mt19937 rng(99);
    for (unsigned cap : {1u, 2u, 5u}) {
        fs::remove_all(root_);
        auto writer = Writer(root_, Options(kPlain, 0, cap));
        std::vector<std::string> uses;  // series by last use, newest last
        for (int c = 0; c < 120; ++c) {
            const std::string folder = "s" + std::to_string(rng() % 2 == 0 ? rng() % 3 : rng() % 12);
            writer->Append(Chunk(kPlain, folder, "R1", c, 1));
            std::erase(uses, folder);
            uses.push_back(folder);
            std::set<std::string> expected(uses.end() - std::min<size_t>(cap, uses.size()), uses.end());
            std::set<std::string> open;
            for (fs::directory_iterator it("/proc/self/fd"), end; it != end; ++it) {
                std::error_code error;
                const fs::path target = fs::read_symlink(it->path(), error);
                if (!error && target.string().rfind(root_.string() + "/", 0) == 0)
                    open.insert(target.parent_path().filename().string());
            }
            ASSERT_EQ(open, expected) << "cap " << cap << ", chunk " << c;
        }
        writer->Finalise();
    }
}

// A failed batch that reopened a closed file, rotated it and closed another:
// the files are cut back to the committed records (BAM files end with their
// end-of-file block again) and the file the batch started is gone.
TEST_F(FastqWriterTest, RollbackLeavesOnlyCommittedBatches) {
    for (Format format : {kPlain, kGzip, kBam}) {
        fs::remove_all(root_);
        auto writer = Writer(root_, Options(format, 3, 1));
        writer->BeginBatch();
        writer->Append(Chunk(format, "a", "R1", 0, 2));
        writer->Append(Chunk(format, "b", "R1", 2, 1));  // closes a's file
        writer->CommitBatch();
        writer->BeginBatch();
        writer->Append(Chunk(format, "a", "R1", 3, 2));  // reopens a, fills file 0, starts file 1
        writer->Append(Chunk(format, "b", "R1", 5, 1));
        writer->RollbackBatch();
        writer->Finalise();
        EXPECT_EQ(Files(),
                  (std::vector<std::string>{"a/" + FileName(format, "R1", 0), "b/" + FileName(format, "R1", 0)}));
        EXPECT_EQ(ReadNames(root_ / "a" / FileName(format, "R1", 0), format),
                  (std::vector<std::string>{"read0", "read1"}));
        EXPECT_EQ(ReadNames(root_ / "b" / FileName(format, "R1", 0), format), (std::vector<std::string>{"read2"}));
    }
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
    for (Format format : {kPlain, kGzip, kBam}) {
        for (unsigned limit : {0u, 3u}) {
            const FastqWriterOptions options = Options(format, limit, 1 + rng() % 2);
            std::vector<FastqChunk> chunks;
            for (int c = 0, next = 0; c < 30; ++c) {
                const int count = 1 + static_cast<int>(rng() % 4);
                chunks.push_back(
                    Chunk(format, "bc" + std::to_string(rng() % 3), "run" + std::to_string(rng() % 2), next, count));
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
                auto writer = Writer(whole, options);
                write(*writer, 0, chunks.size());
                writer->Finalise();
            }
            std::vector<SeriesState> snapshot;
            {
                auto writer = Writer(resumed, options);
                write(*writer, 0, cut);
                snapshot = writer->Snapshot();
                write(*writer, cut, std::min(chunks.size(), cut + 6));  // lost with the process
            }
            auto writer = Writer(resumed, options);
            writer->Resume(snapshot);
            write(*writer, cut, chunks.size());
            writer->Finalise();
            EXPECT_TRUE(Tree(resumed) == Tree(whole)) << "format " << format << ", limit " << limit << ", cut " << cut;
            fs::remove_all(root_);
        }
    }
}

// A snapshot that claims more than a file holds (the file was changed
// since) is refused rather than patched over.
// Chunks that point at their records (plain FASTQ from a worker) against
// chunks of copied text, for random records (empty ones too) and series: the
// same files byte for byte, with rotation cutting chunks and files closed and
// reopened, and chunks of more pieces than one gathering write takes.
TEST_F(FastqWriterTest, ChunksOfRecordViewsWriteTheBytesOfTextChunks) {
    std::mt19937 rng(4242);
    auto bases = [&](size_t length) {
        std::string text(length, 'A');
        for (auto& base : text)
            base = "ACGT"[rng() % 4];
        return text;
    };
    for (unsigned limit : {0u, 1u, 3u, 200u}) {
        std::vector<FastQRecord> records;  // addresses stay: reserved up front
        records.reserve(4000);
        std::vector<FastqChunk> texts, views;
        for (int c = 0; c < 24 && records.size() < 3600; ++c) {
            FastqChunk text, view;
            text.folder = view.folder = "bc" + std::to_string(rng() % 3);
            text.run_id = view.run_id = "run" + std::to_string(rng() % 2);
            const size_t count = rng() % 4 == 0 ? 150 + rng() % 250 : rng() % 5;
            for (size_t k = 0; k < count; ++k) {
                const size_t length = rng() % 5 == 0 ? 0 : rng() % 300;
                records.emplace_back("@r" + std::to_string(records.size()) + " x=" + bases(rng() % 20), bases(length),
                                     std::string(length, static_cast<char>('!' + rng() % 40)));
                text.AddRecord(records.back());
                view.AddRecordView(records.back());
            }
            texts.push_back(std::move(text));
            views.push_back(std::move(view));
        }
        for (unsigned open_files : {1u, 2u}) {
            for (auto* chunks : {&texts, &views}) {
                auto writer = Writer(root_ / (chunks == &texts ? "text" : "view"), Options(kPlain, limit, open_files));
                for (const auto& chunk : *chunks) {
                    writer->BeginBatch();
                    writer->Append(chunk);
                    writer->CommitBatch();
                }
                writer->Finalise();
            }
            EXPECT_TRUE(Tree(root_ / "view") == Tree(root_ / "text")) << "limit " << limit << ", open " << open_files;
            fs::remove_all(root_);
        }
    }
}

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
