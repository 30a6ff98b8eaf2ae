// The filter, the console and the dated log file of Common::Logger.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <thread>

#include "common/logger.h"
#include "tests/support/temp_folder.h"

namespace {

using Common::Logger;
using Common::Severity;

// Whether each severity, error to trace, passes on read_processor,
// read_processor_verbose and fastq_reader.
std::string Passing() {
    std::string out;
    for (const char* channel : {"read_processor", "read_processor_verbose", "fastq_reader"}) {
        for (int severity = 0; severity < 6; ++severity)
            out += Logger(channel).Enabled(static_cast<Severity>(severity)) ? '1' : '0';
        out += ' ';
    }
    return out;
}

// What passes follows the settings, and a dropped record is never formatted.
// A log file that cannot be made (its folder is a file) drops its own records
// only: the console still shows every severity by name, one line each.
// Without sinks, important records still reach the console.
TEST(Logger, FilterAndConsole) {
    const TestSupport::TempFolder folder("vb-log");
    Common::ShutdownLogging();
    EXPECT_EQ(Passing(), "111100 000000 111100 ");
    Common::InitLogging({folder.Path(), "unit.log", true, false, {"fastq_reader"}});
    EXPECT_EQ(Passing(), "111100 000000 111101 ");
    const Logger logger("read_processor");
    int evaluated = 0;
    VB_LOG(logger, Severity::trace) << ++evaluated;
    VB_LOG(logger, Severity::info) << ++evaluated;
    EXPECT_EQ(evaluated, 1);
    Common::InitLogging({folder.Path(), "unit.log", true, true, {}});
    EXPECT_EQ(Passing(), "111110 111110 111110 ");
    Common::InitLogging({"", "unit.log", true, true, {"fastq_reader"}});  // nothing would be seen
    EXPECT_EQ(Passing(), "000000 000000 000000 ");

    const std::string blocked = folder.Write("blocked", "not a folder");
    testing::internal::CaptureStdout();
    Common::InitLogging({blocked, "blocked.log", false, true, {"read_processor"}});
    for (int severity = 0; severity < 6; ++severity)
        EXPECT_NO_THROW(VB_LOG(logger, static_cast<Severity>(severity)) << severity << (severity == 1 ? "\n" : ""));
    Common::ShutdownLogging();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[error] 0\n[warning] 1\n[info] 2\n[message] 3\n[verbose] 4\n[trace] 5\n");
    EXPECT_TRUE(std::filesystem::is_regular_file(blocked));
    testing::internal::CaptureStderr();
    VB_LOG(logger, Severity::error) << "broken " << 42;
    VB_LOG(logger, Severity::trace) << "not shown";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[error] [read_processor] broken 42\n");
}

// Threads writing records one by one or as blocks: each record whole in the
// file with its time, thread and channel, a newline ending it (a text's own
// final newline included), the records of one thread in order.
TEST(Logger, FileRecordsStayWholeAcrossThreadsWhateverTheirLineEnds) {
    const TestSupport::TempFolder folder("vb-log");
    const std::vector<std::string> texts = {"plain", "ends in a newline\n", "first\nsecond", ""};
    const std::vector<std::string> shown = {"plain\n", "ends in a newline\n", "first\nsecond\n", "\n"};
    constexpr int kThreads = 4, kRounds = 25;
    Common::InitLogging({folder.Path(), "threads.log", true, false, {}});
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &texts] {
            const Logger logger("channel_" + std::to_string(t));
            for (int round = 0; round < kRounds; ++round) {
                if (t % 2 == 1) {
                    logger.WriteAll(Severity::info, texts);  // one block, as the run's report writes
                    continue;
                }
                for (const auto& text : texts)
                    VB_LOG(logger, Severity::info) << text;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    Common::ShutdownLogging();

    const auto files = std::vector(std::filesystem::directory_iterator(folder.Root()), {});
    ASSERT_EQ(files.size(), 1u);
    const std::string name = files[0].path().filename().string();
    EXPECT_TRUE(std::regex_match(name, std::regex(R"(threads_log-\d{4}(-\d\d){2}_\d\d(-\d\d){2}\.log)"))) << name;
    const std::string file(std::istreambuf_iterator<char>(std::ifstream(files[0].path()).rdbuf()), {});
    // Texts hold no '[', so each record's text runs to the next record.
    const std::regex record(
        R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}\] \[(0x[0-9a-f]{16})\] \[channel_(\d)\] \[info\] ([^[]*))");
    std::vector<size_t> next(kThreads, 0);
    std::map<std::string, int> thread_of_id;
    size_t covered = 0;
    for (auto match = std::sregex_iterator(file.begin(), file.end(), record); match != std::sregex_iterator();
         ++match) {
        const int t = std::stoi((*match)[2]);
        EXPECT_EQ(thread_of_id.emplace((*match)[1], t).first->second, t) << "two threads, one id";
        EXPECT_EQ((*match)[3], shown[next[t]++ % shown.size()]) << match->position();
        covered += match->length();
    }
    EXPECT_EQ(covered, file.size());
    EXPECT_EQ(next, std::vector<size_t>(kThreads, kRounds * shown.size()));
    EXPECT_EQ(thread_of_id.size(), size_t{kThreads}) << "one thread, several ids";
}

}  // namespace
