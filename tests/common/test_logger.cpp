#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

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

TEST(Logger, FileAndConsoleSinksFormatRecords) {
    fs::path folder = FreshFolder("sinks");
    Common::LoggingSettings settings;
    settings.folder = folder.string();
    settings.log_file_name = "vorpa_barcoder.log";
    Logger logger("read_processor");
    {
        StreamCapture capture(std::cout);
        Common::InitLogging(settings);
        VB_LOG(logger, Severity::warning) << "Found " << 3 << " fastq files.";
        Common::ShutdownLogging();
        EXPECT_EQ(capture.Text(), "[warning] Found 3 fastq files.\n");
    }
    std::string file = ReadSingleLogFile(folder);
    // vorpa_barcoder_log-YYYY-MM-DD_HH-MM-SS.log
    EXPECT_EQ(file.find("vorpa_barcoder_log-2"), 0u) << file;
    EXPECT_EQ(file.find(".log\n"), std::string("vorpa_barcoder_log-2026-11-21_18-00-00").size()) << file;
    EXPECT_NE(file.find("] [read_processor] [warning] Found 3 fastq files."), std::string::npos) << file;
    fs::remove_all(folder);
}
