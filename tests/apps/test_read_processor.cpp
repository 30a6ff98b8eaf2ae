// The run's skeleton: which input files are found or, watching a folder,
// handed out; every read handed over once, a bad read or file reported and
// passed over; the progress bar; the pipeline's bound on batches in flight.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "apps/input_files.h"
#include "apps/input_watch.h"
#include "apps/ordered_pipeline.h"
#include "apps/progress_display.h"
#include "apps/read_processor.h"
#include "tests/support/temp_folder.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class InputTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(in); }
    void TearDown() override { Common::ShutdownLogging(); }
    static std::string Touch(const fs::path& path, const std::string& text = "@r\nA\n+\nI\n") {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::app) << text;
        return path.string();
    }
    Vorpa::InputFiles Discover(bool recursive, const fs::path& save) {
        std::istringstream unused;
        return Vorpa::DiscoverInputFiles(in.string(), recursive, save.string(), unused);
    }
    TestSupport::TempFolder dir;
    const fs::path in = dir.Root() / "in";
};

// Plain iteration: the regular files named as input (not *.tmp, *.part or
// hidden: still being written), and the entries it cannot resolve or that
// are named like reads but not as input (reads.fq, READS.FASTQ.GZ).
void NaiveListing(const fs::path& root, bool recursive, std::vector<std::string>& files,
                  std::vector<std::string>& bad) {
    auto visit = [&](const fs::directory_entry& entry) {
        const fs::path& p = entry.path();
        const std::string name = p.filename().string(), extension = p.extension().string();
        std::error_code error;
        const fs::file_status target = fs::status(p, error);
        if (fs::is_directory(entry.symlink_status())) return;
        if (error || !fs::exists(target)) return bad.push_back(p.string());
        const bool unfinished = name[0] == '.' || extension == ".tmp" || extension == ".part";
        const bool named = extension == ".fastq" || p.stem().extension() == ".fastq" || extension == ".bam" ||
                           extension == ".sam" || extension == ".cram";
        if (!fs::is_regular_file(target)) return;
        if (named && !unfinished) return files.push_back(p.string());
        static const std::regex like_reads(R"(^[^.].*\.(fq|fastq)(\.(gz|bgz|bz2|xz|zst))?$)", std::regex::icase);
        if (std::regex_match(name, like_reads)) bad.push_back(p.string());
    };
    for (auto entry = fs::recursive_directory_iterator(root); entry != fs::recursive_directory_iterator(); ++entry) {
        if (!recursive) entry.disable_recursion_pending();
        visit(*entry);
    }
}

// Random trees with links to files, folders, themselves and nowhere: the
// files after a bad entry are still found, and the bad entry named.
TEST_F(InputTest, SameFilesInTheSameOrderAsPlainIteration) {
    std::mt19937 rng(2024);
    const char* names[] = {".fastq",     ".fastq.gz",   ".fq",    ".fastq.txt.gz", ".txt",  "",
                           ".fastq.tmp", ".fastq.part", ".bam",   ".sam",          ".cram", ".bam.bai",
                           ".cram.crai", ".FASTQ",      ".Fq.gz", ".fq.zst"};
    const size_t kinds = std::size(names);
    for (int tree = 0; tree < 8; ++tree) {
        fs::remove_all(in);
        std::vector<fs::path> folders = {in};
        fs::create_directories(in);
        for (int k = 0; k < 60; ++k) {
            const fs::path parent = folders[rng() % folders.size()];
            const std::string stem = std::string(1, 'n') += std::to_string(k);
            const unsigned kind = rng() % 6;
            if (kind == 0) {
                folders.push_back(parent / (stem + (rng() % 4 == 0 ? ".fastq" : "")));
                fs::create_directories(folders.back());
            } else if (kind == 1) {
                fs::create_symlink(folders[rng() % folders.size()], parent / (stem + ".fastq"));
            } else if (kind == 2 && rng() % 3 == 0) {
                const std::string link = stem + (rng() % 2 == 0 ? ".fastq" : "");
                fs::create_symlink(rng() % 2 == 0 ? fs::path(link) : in / "absent.fastq", parent / link);
            } else {
                const std::string file = Touch(parent / ((rng() % 8 == 0 ? "." : "") + stem + names[rng() % kinds]));
                if (rng() % 6 == 0) fs::create_symlink(file, parent / (stem + "l.fastq"));
            }
        }
        for (bool recursive : {false, true}) {
            std::vector<std::string> files, bad;
            NaiveListing(in, recursive, files, bad);
            const auto found = Discover(recursive, dir.Root() / "elsewhere");
            EXPECT_EQ(found.files, files) << tree << " " << recursive;
            ASSERT_EQ(found.warnings.size(), bad.size()) << tree << " " << recursive;
            for (size_t k = 0; k < bad.size(); ++k)
                EXPECT_EQ(found.warnings[k].rfind("Skipping '" + bad[k] + "': ", 0), 0u) << found.warnings[k];
        }
    }
}

// The save folder is made and probed (/proc refuses new files even to root)
// and never searched for input, however its path is spelled.
TEST_F(InputTest, SaveFolder) {
    const std::string file = Touch(dir.Root() / "file"), nested = (dir.Root() / "out" / "deeper").string();
    EXPECT_EQ(Vorpa::PrepareSaveFolder(nested), "");
    EXPECT_TRUE(fs::is_directory(nested));
    EXPECT_TRUE(fs::is_empty(nested)) << "the probe file must be removed";
    EXPECT_EQ(Vorpa::PrepareSaveFolder(file + "/below").rfind("Cannot create save folder '" + file + "/below': ", 0),
              0u);
    if (fs::is_directory("/proc/self")) {
        EXPECT_EQ(Vorpa::PrepareSaveFolder("/proc").rfind("Cannot write into save folder '/proc': ", 0), 0u);
        EXPECT_EQ(Vorpa::PrepareSaveFolder("/proc/vb_new").rfind("Cannot create save folder '/proc/vb_new': ", 0), 0u);
    }
    const std::string a = Touch(in / "a.fastq");
    Touch(in / "out/barcode01/fastq_runid_r_0.fastq");
    EXPECT_EQ(Discover(true, in / "out" / "barcode01" / "..").files, std::vector<std::string>{a});
    EXPECT_TRUE(Discover(false, in).warnings.empty()) << "subfolders are not searched anyway";
    std::istringstream names("x/one.fq\n\n/abs/two\n");
    EXPECT_EQ(Vorpa::DiscoverInputFiles("", true, in.string(), names).files,
              (std::vector<std::string>{"x/one.fq", "/abs/two"}));
}

// Watching: an old file is complete at once; a change after it was handed
// out is said once; Remaining takes unsettled files, in subfolders too.
TEST_F(InputTest, WatchSaysLateChangesAndTakesTheRestAtTheEnd) {
    Touch(in / "old.fastq");
    fs::last_write_time(in / "old.fastq", fs::file_time_type::clock::now() - 1h);
    Vorpa::InputWatcher watcher(in.string(), true, (dir.Root() / "out").string(), 60);
    Touch(in / "sub/b.fastq");
    Touch(in / "writing.fastq.tmp");
    EXPECT_EQ(watcher.Poll(10ms), std::vector<std::string>{(in / "old.fastq").string()});
    for (int i = 0; i < 2; ++i) {
        Touch(in / "old.fastq");
        EXPECT_TRUE(watcher.Poll(10ms).empty());
    }
    const auto warnings = watcher.TakeWarnings();
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("old.fastq' changed after it was read"), std::string::npos) << warnings[0];
    EXPECT_EQ(watcher.Remaining(), std::vector<std::string>{(in / "sub/b.fastq").string()});
}

class TestProcessor : public Vorpa::ReadProcessor {
public:
    using ReadProcessor::use_async;

    std::mutex mutex;
    std::vector<std::string> reads;  // read ids handed to ProcessRead / SubmitRead
    std::vector<Vorpa::InputFileEnd> ends;
    int waits = 0;

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
    void PrepareRun() override {}
    void StartNewFile(const std::string&) override {}
    void ProcessRead(const Common::FastQRecord& record) override { Take(record); }
    int SubmitRead(Common::FastQRecord&& record) override {
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
        const std::string id = record.GetReadId();
        if (id.starts_with("boom")) throw std::runtime_error("bad read " + id);
        std::lock_guard<std::mutex> lock(mutex);
        reads.push_back(id);
    }
};

// Captures std::cout and std::clog (log records and the progress bar).
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

// --version prints the banner alone; Run waits once, after the last file.
TEST_F(InputTest, EveryReadOnceWhateverFailsAndTheProgressBar) {
    {
        OutputCapture capture;
        EXPECT_EQ(TestProcessor().Start({"--version"}), 255);  // required options are missing
        EXPECT_EQ(capture.Text(), "prog, part of Vorpa basecalling suite " VB_VERSION "\n");
    }
    std::string big;
    std::vector<std::string> good;
    for (int i = 0; i < 3000; ++i) {
        const std::string id = (i % 97 == 0 ? "boom" : "r") + std::to_string(i);
        big += "@" + id + " runid=r\nACGT\n+\nIIII\n";
        if (i % 97 != 0) good.push_back(id);
    }
    const std::string a = Touch(in / "a.fastq", big);
    Touch(in / "b.fastq", "@b1 runid=r\nACGT\n+\nIIII\n@b2\nACGa\n+\nIIII\n@b3\nACGT\n+\nIIII\n");
    Touch(in / "c.fastq.gz", "not compressed at all");
    OutputCapture capture;
    TestProcessor p;
    ASSERT_FALSE(p.Start({"-i", in.string(), "-s", (dir.Root() / "out").string()}));
    p.use_async = true;
    EXPECT_EQ(p.Run(), 0);
    good.push_back("b1");
    std::sort(good.begin(), good.end());
    std::sort(p.reads.begin(), p.reads.end());
    EXPECT_EQ(p.reads, good);
    EXPECT_EQ(p.waits, 1);
    std::sort(p.ends.begin(), p.ends.end(), [](const auto& x, const auto& y) { return x.path < y.path; });
    std::string ends;
    for (const auto& end : p.ends)
        ends += fs::path(end.path).filename().string() + " " + std::to_string(end.reads) + " " +
                std::to_string(end.skipped) + (end.failed ? " failed" : "") + (end.error.empty() ? "\n" : " error\n");
    EXPECT_EQ(ends, "a.fastq 3000 0\nb.fastq 1 0 error\nc.fastq.gz 0 0 error\n");
    EXPECT_NE(p.ends[1].error.find("unexpected character 'a'"), std::string::npos) << p.ends[1].error;

    const std::string out = capture.Text();
    for (const char* text : {"Found 3 fastq files.",
                             "\n0%   10   20   30   40   50   60   70   80   90   100%\n"
                             "|----|----|----|----|----|----|----|----|----|----|\n",
                             "Error while processing read: bad read boom0. Continuing with next read.", "Done in "})
        EXPECT_NE(out.find(text), std::string::npos) << text << " in\n" << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '*'), 51);

    EXPECT_EQ(p.ProcessFastqFileAsync(a + "x"), -1);
}

TEST(ProgressDisplay, DrawsFiftyOneMarksWhateverTheCount) {
    for (unsigned long expected : {0ul, 1ul, 2ul, 3ul, 7ul, 50ul, 51ul, 333ul}) {
        std::ostringstream out;
        Vorpa::ProgressDisplay display(expected, out);
        size_t marks = 0;
        for (unsigned long done = 1; done <= std::max(expected, 1ul); ++done) {
            display.Advance();
            const std::string text = out.str();
            const size_t now = std::count(text.begin(), text.end(), '*');
            // Never behind the share of the work done, never ahead of the bar.
            EXPECT_GE(now, 50 * done / std::max(expected, 1ul)) << expected << " " << done;
            EXPECT_GE(now, marks);
            marks = now;
        }
        EXPECT_EQ(marks, 51u) << expected;
        EXPECT_EQ(out.str().back(), '\n');
    }
}

// A stalled writer holds the submitter back after exactly max_in_flight
// batches, each emitted one letting one more in; a stop releases everyone.
TEST(OrderedPipeline, StalledWriterHoldsTheSubmitterBack) {
    struct Item {
        uint64_t sequence = 0;
    };
    Vorpa::OrderedPipeline<Item> pipeline(4);
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w) {
        threads.emplace_back([&pipeline] {
            for (Item item; pipeline.Take(item);)
                pipeline.Finish(std::move(item));
        });
    }
    std::atomic<int> submitted{0};
    threads.emplace_back([&] {
        for (int k = 0; k < 20 && pipeline.Submit(Item{}); ++k)
            ++submitted;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(submitted.load(), 4);
    Item item;
    for (uint64_t k = 0; k < 3; ++k) {
        ASSERT_TRUE(pipeline.NextInOrder(item));
        EXPECT_EQ(item.sequence, k);
        pipeline.Emitted();
    }
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(submitted.load(), 7);
    pipeline.Stop();
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(submitted.load(), 7);
    EXPECT_FALSE(pipeline.Submit(Item{}));
    EXPECT_FALSE(pipeline.NextInOrder(item));
    EXPECT_TRUE(pipeline.Stopped());
}

}  // namespace
