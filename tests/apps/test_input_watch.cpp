// Watching an input folder: when a file counts as complete (settled,
// renamed in, old enough), what is never input, and what happens to a file
// that changes after it was handed out. Settle times are short; the waits
// are generous multiples of them.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "apps/input_watch.h"
#include "tests/support/temp_folder.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class InputWatchTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(root / "in"); }
    void Append(const std::string& name, const std::string& text = "@r\nA\n+\nI\n") {
        std::ofstream(root / "in" / name, std::ios::app) << text;
    }
    std::vector<std::string> Names(const std::vector<std::string>& paths) {
        std::vector<std::string> names;
        for (const auto& path : paths)
            names.push_back(fs::path(path).filename().string());
        return names;
    }
    TestSupport::TempFolder dir;
    const fs::path root = dir.Root();
};

TEST_F(InputWatchTest, FilesAreHandedOutOnceSettledOrRenamedIn) {
    Append("old.fastq");
    fs::last_write_time(root / "in" / "old.fastq", fs::file_time_type::clock::now() - 1h);
    Vorpa::InputWatcher watcher((root / "in").string(), false, (root / "out").string(), 1.0);
    Append("growing.fastq");
    Append("writing.fastq.tmp");
    Append("renamed.fastq.part");
    // Unchanged for an hour by its modification time: complete at once.
    EXPECT_EQ(Names(watcher.Poll(10ms)), (std::vector<std::string>{"old.fastq"}));
    fs::rename(root / "in" / "renamed.fastq.part", root / "in" / "renamed.fastq");
    const auto renamed = Names(watcher.Poll(100ms));
    if (watcher.Notified()) {
        EXPECT_EQ(renamed, (std::vector<std::string>{"renamed.fastq"}));
    }
    // Appends keep a file from settling.
    for (int i = 0; i < 4; ++i) {
        std::this_thread::sleep_for(150ms);
        Append("growing.fastq");
        for (const auto& name : Names(watcher.Poll(10ms)))
            EXPECT_NE(name, "growing.fastq") << "handed out while still growing";
    }
    std::this_thread::sleep_for(1500ms);
    auto settled = Names(watcher.Poll(10ms));
    std::erase(settled, "renamed.fastq");
    EXPECT_EQ(settled, (std::vector<std::string>{"growing.fastq"}));
    EXPECT_TRUE(watcher.Poll(10ms).empty());
    EXPECT_TRUE(watcher.Remaining().empty()) << "a *.tmp file or a file handed out before";
    EXPECT_TRUE(watcher.TakeWarnings().empty());

    // A file that changes after it was handed out is said once.
    Append("growing.fastq");
    watcher.Poll(10ms);
    Append("growing.fastq");
    watcher.Poll(10ms);
    const auto warnings = watcher.TakeWarnings();
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("growing.fastq' changed after it was read"), std::string::npos) << warnings[0];
}

TEST_F(InputWatchTest, RemainingTakesUnsettledFilesAndSubfoldersWhenRecursive) {
    Vorpa::InputWatcher watcher((root / "in").string(), true, (root / "out").string(), 60);
    Append("a.fastq");
    fs::create_directories(root / "in" / "sub");
    Append("sub/b.fastq");
    EXPECT_TRUE(watcher.Poll(10ms).empty());
    auto names = Names(watcher.Remaining());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"a.fastq", "b.fastq"}));
}

}  // namespace
