// Boost.Log back end of the logging front end in logger.h.
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
// Before InitLogging and after ShutdownLogging there are no Boost sinks: error
// to message records go straight to std::clog so that early failures are never
// lost, and verbose or trace records are dropped.
//
// Enabled is called on hot paths (several times per read), so the filter state
// lives in plain atomics that InitLogging publishes; it never consults the
// Boost core. The trace category list is an immutable vector published through
// an atomic pointer; replaced lists are retired, never freed while running, so
// a concurrent reader can never see a dangling list.

#include "common/logger.h"

#include <atomic>
#include <boost/core/null_deleter.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/attributes/current_thread_id.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_file_backend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/log/utility/exception_handler.hpp>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string_view>

namespace Common {

namespace {

namespace logging = boost::log;
namespace expr = boost::log::expressions;
namespace sinks = boost::log::sinks;

const char* const kSeverityNames[] = {"error", "warning", "info", "message", "verbose", "trace"};
// A literal, not a std::string: loggers may be constructed during static
// initialisation of other files.
constexpr std::string_view kVerboseSuffix = "_verbose";

using TraceList = std::vector<std::string>;

std::atomic<bool> g_initialised{false};
std::atomic<bool> g_has_sink{false};
std::atomic<bool> g_verbose{false};
std::atomic<const TraceList*> g_trace{nullptr};

// Guards InitLogging/ShutdownLogging and the pre-initialisation console.
std::mutex& SetupMutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
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

// "vorpa_barcoder.log" -> "vorpa_barcoder_log-%Y-%m-%d_%H-%M-%S.log"
std::string DatedFilePattern(const std::string& log_file_name) {
    std::string stem = log_file_name;
    if (EndsWith(stem, ".log")) stem.resize(stem.size() - 4);
    if (stem.empty()) stem = "vorpa";
    return stem + "_log-%Y-%m-%d_%H-%M-%S.log";
}

void FormatShort(const logging::record_view& rec, logging::formatting_ostream& out) {
    auto severity = logging::extract<Severity>("Severity", rec);
    out << "[" << (severity ? SeverityToString(*severity) : std::string("unknown")) << "] " << rec[expr::smessage];
}

void ConsoleFallback(Severity severity, const std::string& channel, const std::string& text) {
    std::lock_guard<std::mutex> lock(SetupMutex());
    std::clog << "[" << SeverityToString(severity) << "] [" << channel << "] " << text << std::endl;
}

}  // namespace

std::string SeverityToString(Severity severity) {
    auto index = static_cast<unsigned>(severity);
    if (index >= std::size(kSeverityNames)) return "unknown";
    return kSeverityNames[index];
}

Severity SeverityFromString(const std::string& name) {
    for (unsigned i = 0; i < std::size(kSeverityNames); ++i) {
        if (name == kSeverityNames[i]) return static_cast<Severity>(i);
    }
    throw std::runtime_error("unable to find severity for string: " + name);
}

void InitLogging(const LoggingSettings& settings) {
    std::lock_guard<std::mutex> lock(SetupMutex());
    auto core = logging::core::get();
    core->remove_all_sinks();
    g_initialised = false;

    static bool core_prepared = false;
    if (!core_prepared) {
        core->add_global_attribute("TimeStamp", logging::attributes::local_clock());
        core->add_global_attribute("ThreadID", logging::attributes::current_thread_id());
        // A log file that cannot be written must not take a worker down with it.
        core->set_exception_handler(logging::make_exception_suppressor());
        core_prepared = true;
    }

    bool has_sink = false;
    if (!settings.quiet) {
        auto backend = boost::make_shared<sinks::text_ostream_backend>();
        backend->add_stream(boost::shared_ptr<std::ostream>(&std::cout, boost::null_deleter()));
        backend->auto_flush(true);
        auto sink = boost::make_shared<sinks::synchronous_sink<sinks::text_ostream_backend>>(backend);
        sink->set_formatter(&FormatShort);
        core->add_sink(sink);
        has_sink = true;
    }
    if (!settings.folder.empty()) {
        // The file backend opens its file lazily and does not create folders.
        std::error_code ignored;
        std::filesystem::create_directories(settings.folder, ignored);
        auto pattern = (std::filesystem::path(settings.folder) / DatedFilePattern(settings.log_file_name)).string();
        auto backend = boost::make_shared<sinks::text_file_backend>();
        backend->set_file_name_pattern(pattern);
        // Records are rare outside trace runs; flushing each keeps the file
        // complete when the process is ended early.
        backend->auto_flush(true);
        auto sink = boost::make_shared<sinks::synchronous_sink<sinks::text_file_backend>>(backend);
        sink->set_formatter(
            expr::stream << "[" << expr::format_date_time<boost::posix_time::ptime>("TimeStamp", "%Y-%m-%d %H:%M:%S.%f")
                         << "] [" << expr::attr<logging::attributes::current_thread_id::value_type>("ThreadID") << "] ["
                         << expr::attr<std::string>("Channel") << "] ["
                         << expr::wrap_formatter([](const logging::record_view& rec, logging::formatting_ostream& out) {
                                auto severity = logging::extract<Severity>("Severity", rec);
                                out << (severity ? SeverityToString(*severity) : std::string("unknown"));
                            })
                         << "] " << expr::smessage);
        core->add_sink(sink);
        has_sink = true;
    }

    auto trace = std::make_unique<TraceList>(settings.trace_categories);
    g_trace = trace.get();
    RetiredTraceLists().push_back(std::move(trace));
    g_verbose = settings.verbose;
    g_has_sink = has_sink;
    g_initialised = true;
}

void ShutdownLogging() {
    std::lock_guard<std::mutex> lock(SetupMutex());
    g_initialised = false;
    g_verbose = false;
    g_trace = nullptr;
    auto core = logging::core::get();
    core->flush();
    core->remove_all_sinks();
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
    if (!Enabled(severity)) return;
    if (!g_initialised.load(std::memory_order_acquire)) {
        ConsoleFallback(severity, channel_, text);
        return;
    }
    logging::attribute_set attributes;
    attributes.insert("Channel", logging::attributes::constant<std::string>(channel_));
    attributes.insert("Severity", logging::attributes::constant<Severity>(severity));
    auto core = logging::core::get();
    logging::record record = core->open_record(attributes);
    if (!record) return;
    {
        logging::record_ostream stream(record);
        stream << text;
        stream.flush();
    }
    core->push_record(std::move(record));
}

}  // namespace Common
