#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

#include "apps/progress_display.h"
#include "apps/read_processor.h"
#include "tests/support/temp_folder.h"

namespace fs = std::filesystem;

namespace {

class TestProcessor : public Vorpa::ReadProcessor {
public:
    using ReadProcessor::FindInputFiles;
    using ReadProcessor::input_path;
    using ReadProcessor::quiet;
    using ReadProcessor::recursive;
    using ReadProcessor::save_path;
    using ReadProcessor::use_async;
    using ReadProcessor::worker_threads;

    std::mutex mutex;
    std::vector<std::string> files_started;
    std::vector<std::string> reads;  // read ids handed to ProcessRead / SubmitRead
    std::vector<std::string> tags;   // of the reads from BAM-family input, in order
    int waits = 0;
    std::vector<Vorpa::InputFileEnd> ends;
    bool prepared = false;

    std::optional<int> Start(std::vector<std::string> args) {
        args.insert(args.begin(), "prog");
        std::vector<char*> argv;
        for (auto& arg : args)
            argv.push_back(arg.data());
        return Initialise(static_cast<int>(argv.size()), argv.data(), "", "");
    }

protected:
    void AddApplicationOptions() override {}
    std::string GetLogFileName() override { return "test.log"; }
    std::string GetSummaryFileName() override { return "summary.txt"; }
    void PrepareRun() override { prepared = true; }
    void StartNewFile(const std::string& path) override { files_started.push_back(path); }
    void ProcessRead(const Common::FastQRecord& record) override { Take(record); }
    int SubmitRead(Common::FastQRecord&& record) override {
        if (record.tags) tags.push_back(*record.tags);
        Take(record);
        return 1;
    }
    void EndOfInputFile(const Vorpa::InputFileEnd& end) override {
        ends.push_back(end);
        AdvanceProgress();
    }
    void WaitForCompletion() override { ++waits; }

private:
    void Take(const Common::FastQRecord& record) {
        std::string id = record.GetReadId();
        if (id.rfind("boom", 0) == 0) throw std::runtime_error("bad read " + id);
        std::lock_guard<std::mutex> lock(mutex);
        reads.push_back(id);
    }
};

// Captures std::cout and std::clog (console log records and the progress bar).
class OutputCapture {
public:
    OutputCapture() : cout_(std::cout.rdbuf(text_.rdbuf())), clog_(std::clog.rdbuf(text_.rdbuf())) {}
    ~OutputCapture() {
        std::cout.rdbuf(cout_);
        std::clog.rdbuf(clog_);
    }
    std::string Text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* cout_;
    std::streambuf* clog_;
};

std::string Fastq(const std::vector<std::string>& ids) {
    std::string text;
    for (const auto& id : ids)
        text += "@" + id + " runid=r\nACGT\n+\nIIII\n";
    return text;
}

class ReadProcessorTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(root / "in" / "sub"); }
    void TearDown() override { Common::ShutdownLogging(); }
    void Write(const std::string& relative, const std::string& text) { std::ofstream(root / relative) << text; }
    TestSupport::TempFolder dir;
    const fs::path root = dir.Root();
};

}  // namespace

TEST_F(ReadProcessorTest, InitialiseResolvesTheSaveFolder) {
    std::string in = (root / "in").string();
    {
        TestProcessor p;
        EXPECT_FALSE(p.Start({"-i", in, "-s", "INPUT_PATH", "-z"}));
        EXPECT_EQ(p.save_path, in);
    }
    {
        TestProcessor p;
        std::string nested = (root / "out" / "deeper").string();
        EXPECT_FALSE(p.Start({"-i", in, "-s", nested, "-z", "-t", "3"}));
        EXPECT_TRUE(fs::is_directory(nested));
        EXPECT_EQ(p.worker_threads, 3);
    }
    // Refused options and the usage text: the end-to-end refused_runs and help_and_kits cases.
}

TEST_F(ReadProcessorTest, VersionAlonePrintsOnlyTheBanner) {
    OutputCapture capture;
    TestProcessor p;
    EXPECT_EQ(p.Start({"--version"}), 255);  // required options are missing
    EXPECT_EQ(capture.Text(), "prog, part of Vorpa basecalling suite " VB_VERSION "\n");
}

TEST_F(ReadProcessorTest, FindsFastqFilesByNameInFolderTreeOrList) {
    for (auto name : {"in/a.fastq", "in/b.fastq.gz", "in/c.fq", "in/d.fastq.txt.gz", "in/sub/e.fastq", "in/f.bam",
                      "in/f.bam.bai", "in/g.sam", "in/h.cram", "in/h.cram.crai"})
        Write(name, "");
    fs::create_directories(root / "in" / "folder.fastq");
    TestProcessor p;
    p.input_path = (root / "in").string();
    std::istringstream unused;
    auto names = [](std::vector<std::string> files) {
        for (auto& file : files)
            file = fs::path(file).filename().string();
        std::sort(files.begin(), files.end());
        return files;
    };
    EXPECT_EQ(names(p.FindInputFiles(unused)),
              (std::vector<std::string>{"a.fastq", "b.fastq.gz", "f.bam", "g.sam", "h.cram"}));
    p.recursive = true;
    EXPECT_EQ(names(p.FindInputFiles(unused)),
              (std::vector<std::string>{"a.fastq", "b.fastq.gz", "e.fastq", "f.bam", "g.sam", "h.cram"}));

    p.input_path.clear();
    std::istringstream list("x/one.fq\n/abs/two\n");
    EXPECT_EQ(p.FindInputFiles(list), (std::vector<std::string>{"x/one.fq", "/abs/two"}));
}

TEST_F(ReadProcessorTest, AsyncRunHandsEveryReadOverAndSurvivesBadFiles) {
    Write("in/a.fastq", Fastq({"a1", "a2", "boom3", "a4"}));
    Write("in/b.fastq", Fastq({"b1"}) + "@b2\nACGa\n+\nIIII\n" + Fastq({"b3"}));
    Write("in/c.fastq.gz", "not compressed at all");
    OutputCapture capture;
    TestProcessor p;
    ASSERT_FALSE(p.Start({"-i", (root / "in").string(), "-s", (root / "out").string()}));
    p.use_async = true;
    EXPECT_EQ(p.Run(), 0);
    std::sort(p.reads.begin(), p.reads.end());
    EXPECT_EQ(p.reads, (std::vector<std::string>{"a1", "a2", "a4", "b1"}));
    // Files flow on without waiting, Run waits once after the last; each end
    // is reported with how it ended.
    EXPECT_EQ(p.waits, 1);
    ASSERT_EQ(p.ends.size(), 3u);
    std::sort(p.ends.begin(), p.ends.end(), [](const auto& x, const auto& y) { return x.path < y.path; });
    EXPECT_EQ(p.ends[0].reads, 4u);
    EXPECT_TRUE(p.ends[0].error.empty());
    EXPECT_EQ(p.ends[1].reads, 1u);
    EXPECT_NE(p.ends[1].error.find("unexpected character 'a'"), std::string::npos) << p.ends[1].error;
    EXPECT_FALSE(p.ends[1].failed);
    EXPECT_TRUE(p.ends[2].failed || !p.ends[2].error.empty());
    EXPECT_EQ(p.files_started.size(), 3u);
    EXPECT_TRUE(p.prepared);
    EXPECT_TRUE(fs::exists(root / "out" / "summary.txt"));

    std::string out = capture.Text();
    EXPECT_NE(out.find("Found 3 fastq files."), std::string::npos) << out;
    EXPECT_NE(out.find("\n0%   10   20   30   40   50   60   70   80   90   100%\n"
                       "|----|----|----|----|----|----|----|----|----|----|\n"),
              std::string::npos);
    EXPECT_EQ(std::count(out.begin(), out.end(), '*'), 51);
    EXPECT_NE(out.find("Error while processing read: bad read boom3. Continuing with next read."), std::string::npos);
    EXPECT_NE(out.find("Done in "), std::string::npos);
}

// BAM-family input reaches the application with each record's tags; secondary and supplementary records are counted,
// not handed on.
TEST_F(ReadProcessorTest, AlignmentFilesHandTheirTagsOver) {
    Write("in/a.sam",
          "@HD\tVN:1.6\n"
          "s1\t4\t*\t0\t0\t*\t*\t0\t0\tACGT\tIIII\txy:i:7\n"
          "s1\t260\t*\t0\t0\t*\t*\t0\t0\tACGT\tIIII\n"
          "s2\t2052\t*\t0\t0\t*\t*\t0\t0\tACGT\tIIII\n"
          "s3\t4\t*\t0\t0\t*\t*\t0\t0\tAC\tII\n");
    Write("in/b.fastq", Fastq({"f1"}));
    TestProcessor p;
    ASSERT_FALSE(p.Start({"-i", (root / "in").string(), "-s", (root / "out").string(), "-z"}));
    p.use_async = true;
    EXPECT_EQ(p.Run(), 0);
    std::sort(p.reads.begin(), p.reads.end());
    EXPECT_EQ(p.reads, (std::vector<std::string>{"f1", "s1", "s3"}));
    EXPECT_EQ(p.tags, (std::vector<std::string>{std::string("xyC\x07", 4), ""}));
    ASSERT_EQ(p.ends.size(), 2u);
    const auto sam =
        std::find_if(p.ends.begin(), p.ends.end(), [](const auto& end) { return end.path.ends_with(".sam"); });
    ASSERT_NE(sam, p.ends.end());
    EXPECT_EQ(sam->reads, 2u);
    EXPECT_EQ(sam->skipped, 2u);
    EXPECT_TRUE(sam->error.empty()) << sam->error;
}

TEST_F(ReadProcessorTest, ThreadedLoopProcessesEveryReadOnce) {
    std::vector<std::string> ids;
    for (int i = 0; i < 5000; ++i)
        ids.push_back((i % 97 == 0 ? "boom" : "r") + std::to_string(i));
    Write("in/big.fastq", Fastq(ids));
    OutputCapture capture;
    TestProcessor p;
    ASSERT_FALSE(p.Start({"-i", (root / "in").string(), "-s", (root / "out").string(), "-t", "4", "-z"}));
    EXPECT_EQ(p.ProcessFastqFile((root / "in" / "big.fastq").string()), 0);
    std::vector<std::string> expected;
    for (const auto& id : ids) {
        if (id.rfind("boom", 0) != 0) expected.push_back(id);
    }
    std::sort(expected.begin(), expected.end());
    std::sort(p.reads.begin(), p.reads.end());
    EXPECT_EQ(p.reads, expected);

    std::string missing = (root / "in" / "missing.fastq").string();
    EXPECT_EQ(p.ProcessFastqFile(missing), -1);
    EXPECT_EQ(p.ProcessFastqFileAsync(missing), -1);
}

TEST(ProgressDisplay, DrawsFiftyOneMarksWhateverTheCount) {
    for (unsigned long expected : {0ul, 1ul, 2ul, 3ul, 7ul, 50ul, 51ul, 333ul}) {
        std::ostringstream out;
        Vorpa::ProgressDisplay display(expected, out);
        size_t marks = 0;
        for (unsigned long done = 1; done <= std::max(expected, 1ul); ++done) {
            display.Advance();
            std::string text = out.str();
            size_t now = std::count(text.begin(), text.end(), '*');
            // Never behind the share of the work done, never ahead of the bar.
            EXPECT_GE(now, 50 * done / std::max(expected, 1ul)) << expected << " " << done;
            EXPECT_GE(now, marks);
            marks = now;
        }
        EXPECT_EQ(marks, 51u) << expected;
        EXPECT_EQ(out.str().back(), '\n');
    }
}
