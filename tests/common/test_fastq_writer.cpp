#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "common/bam_header.h"
#include "common/bam_record.h"
#include "common/bgzf_blocks.h"
#include "common/fastq_writer.h"
#include "common/gzip_member_writer.h"
#include "common/output_file.h"
#include "tests/common/gzip_test_support.h"
#include "tests/common/htslib_files.h"
#include "tests/support/error_of.h"
#include "tests/support/temp_folder.h"

namespace Common {
namespace {

namespace fs = std::filesystem;

enum Format { kPlain, kViews, kGzip, kBam };  // kViews: plain FASTQ from chunks that point at their records
const std::string kBamHeader = BamHeaderText({"@RG\tID:g\tPU:R1"}, "1", "test");

FastqWriterOptions Options(Format format, unsigned limit, unsigned open_files) {
    return {.compress = format == kGzip,
            .records_per_fastq = limit,
            .max_open_files = open_files,
            .format = format == kBam ? OutputFormat::bam : OutputFormat::fastq};
}

std::string FileName(Format format, const std::string& run_id, size_t index) {
    static const char* const kExtensions[] = {".fastq", ".fastq", ".fastq.gz", ".bam"};
    return (format == kBam ? "bam_runid_" : "fastq_runid_") + run_id + "_" + std::to_string(index) +
           kExtensions[format];
}

// What a file holds, after checking that it is whole: FASTQ text (gzip inflating to its end), or for BAM (the
// header first and exactly one end-of-file block, at the end) each record's name and a newline.
std::string Content(const fs::path& path, Format format) {
    const std::string data = TestSupport::ReadFile(path);
    const TestSupport::Inflated inflated = TestSupport::Gunzip(data);
    EXPECT_TRUE(format != kGzip || inflated.complete) << path;
    if (format != kBam) return format == kGzip ? inflated.text : data;
    EXPECT_EQ(data.find(BgzfEofBlock()), data.size() - BgzfEofBlock().size()) << path;
    const auto file = HtslibFiles::ReadAlignments(path.string());
    EXPECT_EQ(file.header, kBamHeader) << path;
    std::string names;
    for (const auto& record : file.records)
        names += record.name + "\n";
    return names;
}

// Every file's bytes below a root, by relative path.
std::map<std::string, std::string> Tree(const fs::path& root) {
    std::map<std::string, std::string> files;
    for (fs::recursive_directory_iterator it(root), end; it != end; ++it)
        if (fs::is_regular_file(it->path()))
            files[fs::relative(it->path(), root).string()] = TestSupport::ReadFile(it->path());
    return files;
}

class FastqWriterTest : public ::testing::Test {
protected:
    // Records first.. of one series, encoded (and compressed) as a worker does. What each adds to its file is
    // noted for the series in expected_.
    FastqChunk Chunk(Format format, const std::string& folder, const std::string& run_id, int first, int count) {
        FastqChunk chunk;
        chunk.folder = folder;
        chunk.run_id = run_id;
        for (int k = first; k < first + count; ++k) {
            const std::string name = "read" + std::to_string(k);
            const size_t length = k % 5 == 0 ? 0 : static_cast<size_t>(k * 7919 % 300);
            const FastQRecord& record =
                records_.emplace_back("@" + name + " runid=" + run_id, std::string(length, "ACGT"[k % 4]),
                                      std::string(length, static_cast<char>('!' + k % 40)));
            expected_[{folder, run_id}].push_back(format == kBam ? name + "\n" : record.ToString());
            if (format == kViews) chunk.AddRecordView(record);
            if (format == kPlain || format == kGzip) chunk.AddRecord(record);
            if (format != kBam) continue;
            std::string aux;
            AppendTextTag(aux, kArrangementTag, folder);
            AppendBamRecord(chunk.text, name, record.sequence, record.qstring, aux);
            chunk.record_ends.push_back(chunk.text.size());
        }
        if (format == kGzip) GzipMemberWriter().Append(chunk.text, chunk.gzip);
        if (format == kBam) AppendBgzfBlocks(chunk.text, chunk.gzip, kBamCompressionLevel);
        return chunk;
    }

    static std::unique_ptr<FastqWriter> Writer(const fs::path& root, const FastqWriterOptions& options) {
        auto writer = std::make_unique<FastqWriter>(std::vector<std::string>{root.string()}, options);
        writer->SetFileHeader(options.format == OutputFormat::bam ? EncodeBamHeader(kBamHeader) : "");
        return writer;
    }

    // Files this process holds open below the root, relative to it.
    std::set<std::string> OpenFiles() const {
        std::set<std::string> open;
        for (fs::directory_iterator it("/proc/self/fd"), end; it != end; ++it) {
            std::error_code error;
            const fs::path target = fs::read_symlink(it->path(), error);
            if (!error && target.string().rfind(root_.string() + "/", 0) == 0)
                open.insert(fs::relative(target, root_).string());
        }
        return open;
    }

    TestSupport::TempFolder dir_{"vb-writer"};
    const fs::path root_ = dir_.Root();
    std::deque<FastQRecord> records_;  // chunks of kViews point at these
    std::map<std::pair<std::string, std::string>, std::vector<std::string>> expected_;  // by folder and run id
};

// Random chunks for random series through writers that keep one or three files open and rotate files (so files
// are closed and reopened for appending all the time), then a batch rolled back: every file is whole and holds
// its series' committed records in order, cut every records_per_fastq; the files kept open are those of the most
// recently used series; an older run's file is replaced. Some chunks hold more pieces than one gathering write
// takes. A second writer that resumes from a snapshot taken halfway cuts the files back to it and, writing the rest
// again, ends with the same bytes.
TEST_F(FastqWriterTest, RandomChunksLandInOrderAcrossEvictionsRotationRollbackAndResume) {
    std::mt19937 rng(31337);
    for (Format format : {kPlain, kViews, kGzip, kBam}) {
        for (unsigned limit : {0u, 1u, 3u, 200u}) {
            const unsigned open_files = (format + limit) % 2 == 0 ? 1 : 3;  // each format and limit meets both
            const std::string where = std::to_string(format) + "/" + std::to_string(limit);
            fs::remove_all(root_);
            expected_.clear();
            std::vector<std::pair<std::string, std::string>> uses;  // series by last use, newest last
            int next = 0;
            const auto random_chunk = [&] {
                const int count = next == 0 ? 5 : static_cast<int>(rng() % 10 == 0 ? 180 + rng() % 100 : rng() % 8);
                const auto series = std::make_pair("bc" + std::to_string(rng() % 4), "r" + std::to_string(rng() % 3));
                if (next == 0)
                    dir_.Write(series.first + "/" + FileName(format, series.second, 0), "older, longer file");
                if (count > 0) {
                    std::erase(uses, series);
                    uses.push_back(series);
                }
                next += count;
                return Chunk(format, series.first, series.second, next - count, count);
            };
            auto writer = Writer(root_, Options(format, limit, open_files));
            std::vector<SeriesState> snapshot;
            std::map<std::string, std::string> at_snapshot;
            std::vector<FastqChunk> after_snapshot;
            for (int c = 0; c < 50; ++c) {
                if (c == 25) {
                    snapshot = writer->Snapshot();
                    at_snapshot = Tree(root_);
                }
                const FastqChunk chunk = random_chunk();
                writer->BeginBatch();
                writer->Append(chunk);
                writer->CommitBatch();
                if (c >= 25) after_snapshot.push_back(chunk);
                std::set<std::string> recent;
                for (size_t u = uses.size() - std::min<size_t>(open_files, uses.size()); u < uses.size(); ++u) {
                    const size_t records = expected_[uses[u]].size();
                    recent.insert(uses[u].first + "/" +
                                  FileName(format, uses[u].second, limit == 0 ? 0 : (records - 1) / limit));
                }
                ASSERT_EQ(OpenFiles(), recent) << where << ", chunk " << c;
            }
            const auto committed = expected_;
            writer->BeginBatch();
            for (int c = 0; c < 4; ++c)
                writer->Append(random_chunk());
            writer->RollbackBatch();
            expected_ = committed;
            writer->Finalise();
            size_t files = 0;
            for (const auto& [series, units] : expected_) {
                const size_t per_file = limit == 0 ? units.size() : limit;
                for (size_t first = 0; first < units.size(); first += per_file, ++files) {
                    std::string text;
                    for (size_t k = first; k < std::min(units.size(), first + per_file); ++k)
                        text += units[k];
                    const fs::path file = root_ / series.first / FileName(format, series.second, first / per_file);
                    EXPECT_EQ(Content(file, format), text) << file;
                }
            }
            const auto whole = Tree(root_);
            EXPECT_EQ(whole.size(), files) << where;
            writer = Writer(root_, Options(format, limit, open_files));
            writer->Resume(snapshot);
            // Cut back to the snapshot (BAM files that were open get their end-of-file block).
            EXPECT_TRUE(format == kBam ? Tree(root_).size() == at_snapshot.size() : Tree(root_) == at_snapshot);
            for (const FastqChunk& chunk : after_snapshot)
                writer->Append(chunk);
            if (open_files == 1) writer->Finalise();  // else the destructor does it
            writer.reset();
            EXPECT_TRUE(Tree(root_) == whole) << where;
            // A snapshot that claims more than a file holds is refused.
            const SeriesState& first = snapshot.front();
            TruncateOutputFile((root_ / first.folder / FileName(format, first.run_id, first.index)).string(), 1);
            EXPECT_THROW(Writer(root_, Options(format, limit, open_files))->Resume(snapshot), OutputError);
        }
    }
}

// A full disk is reported with the reason and the file.
TEST_F(FastqWriterTest, FullDiskNamesTheFile) {
    fs::create_directories(root_ / "bc");
    fs::create_symlink("/dev/full", root_ / "bc/fastq_runid_R1_0.fastq");
    EXPECT_EQ(
        TestSupport::ErrorOf([&] { Writer(root_, Options(kPlain, 0, 0))->Append(Chunk(kPlain, "bc", "R1", 0, 1)); }),
        "No space left on device while writing '" + (root_ / "bc/fastq_runid_R1_0.fastq").string() + "'");
}

}  // namespace
}  // namespace Common
