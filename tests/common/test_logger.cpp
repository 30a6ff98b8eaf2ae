#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "common/logger.h"

namespace fs = std::filesystem;
using Common::Logger;
using Common::Severity;

namespace {

// Captures what a stream receives while alive.
class StreamCapture {
public:
    explicit StreamCapture(std::ostream& stream) : stream_(stream), old_(stream.rdbuf(buffer_.rdbuf())) {}
    ~StreamCapture() { stream_.rdbuf(old_); }
    std::string Text() const { return buffer_.str(); }

private:
    std::ostream& stream_;
    std::ostringstream buffer_;
    std::streambuf* old_;
};

fs::path FreshFolder(const std::string& name) {
    fs::path folder = fs::temp_directory_path() / ("vb_test_logger_" + name);
    fs::remove_all(folder);
    return folder;
}

std::string ReadSingleLogFile(const fs::path& folder) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder))
        files.push_back(entry.path());
    if (files.size() != 1) return "expected one log file, found " + std::to_string(files.size());
    std::ifstream in(files[0]);
    std::stringstream text;
    text << in.rdbuf();
    return files[0].filename().string() + "\n" + text.str();
}

}  // namespace

TEST(Logger, SeverityNamesRoundTripAndRejectUnknown) {
    for (auto name : {"error", "warning", "info", "message", "verbose", "trace"}) {
        EXPECT_EQ(Common::SeverityToString(Common::SeverityFromString(name)), name);
    }
    EXPECT_EQ(Common::SeverityToString(static_cast<Severity>(17)), "unknown");
    EXPECT_THROW(Common::SeverityFromString("Info"), std::runtime_error);
}

TEST(Logger, BeforeInitialisationImportantRecordsReachTheConsole) {
    Common::ShutdownLogging();
    Logger logger("early");
    StreamCapture capture(std::clog);
    VB_LOG(logger, Severity::error) << "broken " << 42;
    VB_LOG(logger, Severity::trace) << "not shown";
    EXPECT_NE(capture.Text().find("broken 42"), std::string::npos);
    EXPECT_NE(capture.Text().find("error"), std::string::npos);
    EXPECT_EQ(capture.Text().find("not shown"), std::string::npos);
}

TEST(Logger, FilterFollowsSettingsAndSkipsFormattingOfDroppedRecords) {
    Logger plain("read_processor");
    Logger verbose_channel("read_processor_verbose");
    Logger reader("fastq_reader");

    Common::LoggingSettings settings;
    settings.quiet = true;
    settings.folder = FreshFolder("filter").string();
    settings.log_file_name = "unit.log";
    settings.trace_categories = {"fastq_reader"};
    Common::InitLogging(settings);
    EXPECT_TRUE(plain.Enabled(Severity::message));
    EXPECT_FALSE(plain.Enabled(Severity::verbose));
    EXPECT_FALSE(plain.Enabled(Severity::trace));
    EXPECT_FALSE(verbose_channel.Enabled(Severity::info));
    EXPECT_TRUE(reader.Enabled(Severity::trace));

    int evaluated = 0;
    auto count = [&] { return ++evaluated; };
    VB_LOG(plain, Severity::trace) << count();
    VB_LOG(plain, Severity::info) << count();
    EXPECT_EQ(evaluated, 1);

    settings.verbose = true;
    settings.trace_categories.clear();
    settings.folder = FreshFolder("filter2").string();
    Common::InitLogging(settings);
    EXPECT_TRUE(plain.Enabled(Severity::verbose));
    EXPECT_TRUE(verbose_channel.Enabled(Severity::info));
    EXPECT_FALSE(reader.Enabled(Severity::trace));

    // Quiet and no folder: nothing would be seen, so nothing is enabled.
    settings.folder.clear();
    Common::InitLogging(settings);
    EXPECT_FALSE(plain.Enabled(Severity::error));
    Common::ShutdownLogging();
}

TEST(Logger, FileRecordsStayWholeAcrossThreadsWhateverTheirLineEnds) {
    fs::path folder = FreshFolder("threads");
    Common::LoggingSettings settings;
    settings.folder = folder.string();
    settings.log_file_name = "threads.log";
    // Text as given -> the lines the file shows after the record's prefix:
    // one newline ends every record, a text's own final newline included.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"plain", "plain\n"},
        {"ends in a newline\n", "ends in a newline\n"},
        {"first\nsecond", "first\nsecond\n"},
        {"", "\n"},
    };
    constexpr int kThreads = 4, kRounds = 25;
    std::string console;
    {
        StreamCapture capture(std::cout);
        Common::InitLogging(settings);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t, &cases] {
                Logger logger("channel_" + std::to_string(t));
                std::vector<std::string> texts;
                for (const auto& [text, shown] : cases)
                    texts.push_back(text);
                for (int round = 0; round < kRounds; ++round) {
                    // Odd threads write a round as one block, as the run's report does.
                    if (t % 2 == 1) {
                        logger.WriteAll(Severity::info, texts);
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
        console = capture.Text();
    }
    std::string file = ReadSingleLogFile(folder);
    // threads.log -> threads_log-YYYY-MM-DD_HH-MM-SS.log
    ASSERT_TRUE(std::regex_search(file, std::regex(R"(^threads_log-\d{4}(-\d\d){2}_\d\d(-\d\d){2}\.log\n)"))) << file;
    file.erase(0, file.find('\n') + 1);

    // Each record: its prefix, then the lines its case shows; records of one
    // thread in the order written.
    const std::regex prefix(
        R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}\] \[(0x[0-9a-f]{16})\] \[channel_(\d)\] \[info\] )");
    std::vector<int> next_case(kThreads, 0);
    std::vector<std::string> thread_id(kThreads);
    std::size_t at = 0;
    int records = 0;
    while (at < file.size()) {
        std::smatch match;
        std::string rest = file.substr(at);
        ASSERT_TRUE(std::regex_search(rest, match, prefix, std::regex_constants::match_continuous))
            << "no record prefix at: " << rest.substr(0, 80);
        int t = std::stoi(match[2]);
        if (thread_id[t].empty()) thread_id[t] = match[1];
        EXPECT_EQ(match[1], thread_id[t]) << "one thread, one id";
        const std::string& shown = cases[next_case[t]++ % cases.size()].second;
        ASSERT_EQ(rest.compare(match.length(), shown.size(), shown), 0) << rest.substr(0, 80);
        at += match.length() + shown.size();
        ++records;
    }
    EXPECT_EQ(records, kThreads * kRounds * static_cast<int>(cases.size()));
    for (int t = 0; t < kThreads; ++t)
        EXPECT_NE(thread_id[t], thread_id[(t + 1) % kThreads]);

    // The console shows "[info] " and the same lines, in whatever order the threads wrote them.
    std::multiset<std::string> shown_lines, expected_lines;
    std::string line;
    for (std::istringstream lines(console); std::getline(lines, line);)
        shown_lines.insert(line);
    for (int i = 0; i < kThreads * kRounds; ++i)
        for (const auto& [text, shown] : cases)
            for (std::istringstream lines("[info] " + shown); std::getline(lines, line);)
                expected_lines.insert(line);
    EXPECT_EQ(shown_lines, expected_lines);
    fs::remove_all(folder);
}

TEST(Logger, ALogFileThatCannotBeOpenedDropsItsRecordsOnly) {
    // The log folder is taken by a file: no log file can be made there.
    fs::path blocked = FreshFolder("blocked");
    std::ofstream(blocked) << "not a folder";
    Common::LoggingSettings settings;
    settings.folder = blocked.string();
    settings.log_file_name = "blocked.log";
    Logger logger("read_processor");
    StreamCapture capture(std::cout);
    Common::InitLogging(settings);
    EXPECT_NO_THROW(VB_LOG(logger, Severity::error) << "first");
    EXPECT_NO_THROW(VB_LOG(logger, Severity::error) << "second");
    Common::ShutdownLogging();
    EXPECT_EQ(capture.Text(), "[error] first\n[error] second\n");
    EXPECT_TRUE(fs::is_regular_file(blocked));
    fs::remove(blocked);
}
