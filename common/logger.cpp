// Back end of the logging front end in logger.h: a console sink and a dated
// log file, written under one lock.
//
// Filter policy (applied by Logger::Enabled, which Write also honours):
//   - error, warning, info, message: pass on every channel, except that a
//     channel whose name ends in "_verbose" is silent unless verbose logging is
//     on (so "read_processor_verbose" is wholly switched by --verbose_logs);
//   - verbose: passes on every channel when verbose logging is on, never
//     otherwise;
//   - trace: passes only on channels named in the trace categories, whatever
//     the verbose setting.
//   Records that would reach no sink (quiet and no log folder) do not pass.
// Before InitLogging and after ShutdownLogging there are no sinks: error to
// message records go straight to std::clog so that early failures are never
// lost, and verbose or trace records are dropped.
//
// Enabled is called on hot paths (several times per read), so the filter state
// lives in plain atomics that InitLogging publishes; it never takes the lock.
// The trace category list is an immutable vector published through an atomic
// pointer; replaced lists are retired, never freed while running, so a
// concurrent reader can never see a dangling list.
//
// Record formats (a newline is added unless the text ends in one):
//   console: "[info] text"
//   file:    "[2026-11-21 18:00:00.123456] [0x00007f0123456789] [channel] [info] text"
//            (local time; the writing thread's id in 16 hex digits)
// The file is named after the moment its first record is written,
// "<stem>_log-YYYY-MM-DD_HH-MM-SS.log", and replaces a file of that name. A log
// file that cannot be opened or written must not take a worker down with it:
// its records are dropped, and the next record tries a file again.

#include "common/logger.h"

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>

namespace Common {

namespace {

const char* const kSeverityNames[] = {"error", "warning", "info", "message", "verbose", "trace"};
// A literal, not a std::string: loggers may be constructed during static
// initialisation of other files.
constexpr std::string_view kVerboseSuffix = "_verbose";

using TraceList = std::vector<std::string>;

std::atomic<bool> g_initialised{false};
std::atomic<bool> g_has_sink{false};
std::atomic<bool> g_verbose{false};
std::atomic<const TraceList*> g_trace{nullptr};

struct Sinks {
    bool console = false;
    std::string folder;  // empty: no log file
    std::string stem;    // the file name up to "_log-"
    std::ofstream file;  // opened by the first record
};

// Guards the sinks (InitLogging, ShutdownLogging, every record) and the
// pre-initialisation console.
std::mutex& SinkMutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
}

Sinks& TheSinks() {
    static auto* sinks = new Sinks;
    return *sinks;
}

// Published trace lists stay alive until exit (they are reachable from here,
// so leak checkers do not flag them); there are only as many as InitLogging calls.
std::vector<std::unique_ptr<TraceList>>& RetiredTraceLists() {
    static auto* lists = new std::vector<std::unique_ptr<TraceList>>;
    return *lists;
}

bool EndsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// "vorpa_barcoder.log" -> "vorpa_barcoder"
std::string FileStem(const std::string& log_file_name) {
    std::string stem = log_file_name;
    if (EndsWith(stem, ".log")) stem.resize(stem.size() - 4);
    if (stem.empty()) stem = "vorpa";
    return stem;
}

std::string FormatLocalTime(std::time_t seconds, const char* format) {
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, format, &local));
}

// "[2026-11-21 18:00:00.123456] [0x00007f0123456789] "
std::string FilePrefix() {
    timeval now{};
    gettimeofday(&now, nullptr);
    std::tm local{};
    std::time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    char text[80];
    std::size_t length = std::strftime(text, sizeof text, "[%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%06ld] [0x%016" PRIxMAX "] ", static_cast<long>(now.tv_usec),
                  static_cast<std::uintmax_t>(pthread_self()));
    return text;
}

// The newline that ends a record of this text, unless the text has one.
const char* EndOfRecord(const std::string& text) {
    return !text.empty() && text.back() == '\n' ? "" : "\n";
}

// The caller holds SinkMutex. Each record keeps its own prefix (time and
// thread); the block reaches the file in one flush.
void WriteToFile(Sinks& sinks, Severity severity, const std::string& channel, std::span<const std::string> texts) {
    if (!sinks.file.is_open()) {
        std::string name = sinks.stem + FormatLocalTime(std::time(nullptr), "_log-%Y-%m-%d_%H-%M-%S.log");
        sinks.file.open(std::filesystem::path(sinks.folder) / name, std::ios::out | std::ios::trunc);
        if (!sinks.file.is_open()) return;
    }
    for (const std::string& text : texts)
        sinks.file << FilePrefix() << "[" << channel << "] [" << SeverityToString(severity) << "] " << text
                   << EndOfRecord(text);
    sinks.file.flush();
    // A failed write (a full disk) leaves the stream unusable; closed, the
    // next record tries a new file instead of writing nothing from then on.
    if (!sinks.file) sinks.file.close();
}

// The caller holds SinkMutex.
void ConsoleFallback(Severity severity, const std::string& channel, const std::string& text) {
    std::clog << "[" << SeverityToString(severity) << "] [" << channel << "] " << text << std::endl;
}

}  // namespace

std::string SeverityToString(Severity severity) {
    auto index = static_cast<unsigned>(severity);
    if (index >= std::size(kSeverityNames)) return "unknown";
    return kSeverityNames[index];
}

void InitLogging(const LoggingSettings& settings) {
    std::lock_guard<std::mutex> lock(SinkMutex());
    Sinks& sinks = TheSinks();
    g_initialised = false;
    sinks.file.close();
    sinks.console = !settings.quiet;
    sinks.folder = settings.folder;
    sinks.stem = FileStem(settings.log_file_name);
    // The file is opened by its first record, in a folder that exists by then.
    if (!sinks.folder.empty()) {
        std::error_code ignored;
        std::filesystem::create_directories(sinks.folder, ignored);
    }

    auto trace = std::make_unique<TraceList>(settings.trace_categories);
    g_trace = trace.get();
    RetiredTraceLists().push_back(std::move(trace));
    g_verbose = settings.verbose;
    g_has_sink = sinks.console || !sinks.folder.empty();
    g_initialised = true;
}

void ShutdownLogging() {
    std::lock_guard<std::mutex> lock(SinkMutex());
    g_initialised = false;
    g_verbose = false;
    g_trace = nullptr;
    Sinks& sinks = TheSinks();
    sinks.file.close();
    sinks.console = false;
    sinks.folder.clear();
}

Logger::Logger(std::string channel)
    : channel_(std::move(channel)), verbose_channel_(EndsWith(channel_, kVerboseSuffix)) {}

bool Logger::Enabled(Severity severity) const {
    if (!g_initialised.load(std::memory_order_acquire)) {
        return severity <= Severity::message && !verbose_channel_;
    }
    if (!g_has_sink.load(std::memory_order_relaxed)) return false;
    switch (severity) {
        case Severity::error:
        case Severity::warning:
        case Severity::info:
        case Severity::message:
            return !verbose_channel_ || g_verbose.load(std::memory_order_relaxed);
        case Severity::verbose:
            return g_verbose.load(std::memory_order_relaxed);
        case Severity::trace: {
            const TraceList* trace = g_trace.load(std::memory_order_acquire);
            if (trace == nullptr) return false;
            for (const auto& category : *trace) {
                if (category == channel_) return true;
            }
            return false;
        }
    }
    return false;
}

void Logger::Write(Severity severity, const std::string& text) const {
    WriteAll(severity, std::span<const std::string>(&text, 1));
}

void Logger::WriteAll(Severity severity, std::span<const std::string> texts) const {
    if (!Enabled(severity)) return;
    std::lock_guard<std::mutex> lock(SinkMutex());
    if (!g_initialised.load(std::memory_order_acquire)) {
        // Also when logging was shut down after Enabled looked: then only
        // what the pre-initialisation console takes.
        if (severity <= Severity::message && !verbose_channel_) {
            for (const std::string& text : texts)
                ConsoleFallback(severity, channel_, text);
        }
        return;
    }
    Sinks& sinks = TheSinks();
    if (sinks.console) {
        const std::string prefix = "[" + SeverityToString(severity) + "] ";
        for (const std::string& text : texts)
            std::cout << prefix << text << EndOfRecord(text);
        std::cout.flush();
    }
    if (!sinks.folder.empty()) WriteToFile(sinks, severity, channel_, texts);
}

}  // namespace Common
