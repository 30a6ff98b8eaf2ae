#pragma once
// Logging front end: callers see a light Logger handle and the VB_LOG macro,
// which tests the filter before anything is formatted; the sinks stay inside
// logger.cpp.

#include <span>
#include <sstream>
#include <string>
#include <vector>

namespace Common {

// Most severe first. The order is the filter order: a record passes the default
// filter when it is at least as severe as "message".
enum class Severity { error = 0, warning, info, message, verbose, trace };

// "error", "warning", ...; a value outside the enum prints as "unknown".
std::string SeverityToString(Severity severity);

struct LoggingSettings {
    std::string folder;                         // where the log file goes; empty = no log file
    std::string log_file_name;                  // e.g. "vorpa_barcoder.log"
    bool quiet = false;                         // no console output
    bool verbose = false;                       // enables channels whose name ends in "_verbose"
    std::vector<std::string> trace_categories;  // channels allowed to emit trace
};

// Sets up the console and file sinks. May be called again (the later call
// replaces the sinks); before the first call records go to the console only.
void InitLogging(const LoggingSettings& settings);
// Flushes and removes every sink (end of run, tests).
void ShutdownLogging();

// A named channel. Cheap to copy; thread-safe.
class Logger {
public:
    explicit Logger(std::string channel);
    const std::string& Channel() const { return channel_; }

    // Whether a record of this severity on this channel would reach any sink.
    // Reads a few atomics only, so it is cheap enough for per-read checks.
    bool Enabled(Severity severity) const;
    void Write(Severity severity, const std::string& text) const;
    // Several records of the same severity, each formatted as by Write, in
    // one write per sink: a table of thousands of rows (one per sample) is
    // not thousands of system calls.
    void WriteAll(Severity severity, std::span<const std::string> texts) const;

private:
    std::string channel_;
    bool verbose_channel_;  // name ends in "_verbose": silent unless verbose logging is on
};

// Collects one record and writes it when destroyed.
class LogLine {
public:
    LogLine(const Logger& logger, Severity severity) : logger_(logger), severity_(severity) {}
    ~LogLine() { logger_.Write(severity_, stream_.str()); }
    std::ostream& stream() { return stream_; }

private:
    const Logger& logger_;
    Severity severity_;
    std::ostringstream stream_;
};

}  // namespace Common

// VB_LOG(logger, Common::Severity::info) << "Found " << n << " fastq files.";
// The stream expression is only evaluated when the record would be kept.
#define VB_LOG(logger, severity)                                                       \
    for (bool vb_log_on_ = (logger).Enabled(severity); vb_log_on_; vb_log_on_ = false) \
    ::Common::LogLine((logger), (severity)).stream()
