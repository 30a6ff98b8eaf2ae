#include "apps/read_processor.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <iostream>
#include <mutex>
#include <thread>

#include "apps/input_files.h"
#include "apps/input_watch.h"
#include "common/bam_reader.h"
#include "common/fastq_reader.h"
#include "common/stop_signal.h"

namespace Vorpa {

namespace fs = std::filesystem;
using Common::FastQRecord;
using Common::Severity;

namespace {

// Records waiting for a worker; bounded so that a fast reader cannot pull a
// whole file into memory ahead of slow workers.
constexpr size_t kQueuedRecordsPerWorker = 256;

// Fixed pool of workers draining a bounded queue of records. The job must not
// throw (the caller wraps it); anything that still escapes is dropped so that
// one record cannot end the process.
class RecordJobLoop {
public:
    RecordJobLoop(int workers, std::function<void(const FastQRecord&)> job)
        : job_(std::move(job)), capacity_(kQueuedRecordsPerWorker * static_cast<size_t>(workers)) {
        for (int i = 0; i < workers; ++i)
            threads_.emplace_back([this] { Work(); });
    }
    ~RecordJobLoop() { Finish(); }

    void Push(FastQRecord record) {
        std::unique_lock<std::mutex> lock(mutex_);
        space_.wait(lock, [this] { return queue_.size() < capacity_; });
        queue_.push_back(std::move(record));
        lock.unlock();
        ready_.notify_one();
    }

    // Lets the workers drain the queue, then joins them.
    void Finish() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
        }
        ready_.notify_all();
        for (auto& thread : threads_) {
            if (thread.joinable()) thread.join();
        }
    }

private:
    void Work() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex_);
            ready_.wait(lock, [this] { return closed_ || !queue_.empty(); });
            if (queue_.empty()) return;
            FastQRecord record = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            space_.notify_one();
            try {
                job_(record);
            } catch (...) {
            }
        }
    }

    std::function<void(const FastQRecord&)> job_;
    size_t capacity_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::condition_variable space_;
    std::deque<FastQRecord> queue_;
    bool closed_ = false;
    std::vector<std::thread> threads_;
};

// htslib threads decompressing one BAM input: one keeps up with the workers
// of a small machine; a few more with many workers.
int BamReaderThreads(int workers) {
    return std::clamp(workers / 4, 1, 4);
}

int64_t NowMs() {
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace

ReadProcessor::ReadProcessor()
    : worker_threads(static_cast<int32_t>(std::max(1u, std::thread::hardware_concurrency()))) {}

ReadProcessor::~ReadProcessor() = default;

void ReadProcessor::AddOptions() {
    AddOption("quiet,z", "Quiet mode. Nothing will be output to stdout if this option is set.", &quiet, Flag);
    AddOption("worker_threads,t", "Number of worker threads.", &worker_threads, CommandLine | ConfigFile);
    AddOption("input_path,i", "Path to input fastq files.", &input_path, CommandLine | Required);
    AddOption("save_path,s", "Path to save fastq files.", &save_path, CommandLine | Required);
    AddOption("recursive,r", "Search for input file recursively.", &recursive, Flag);
    AddOption("trace_categories_logs", "Enable trace logs - list of strings with the desired names.",
              &trace_categories_logs, CommandLine | ConfigFile);
    AddOption("verbose_logs", "Enable verbose logs.", &verbose_logs, Flag);
    // A switch on the command line and "watch = true" in the configuration file.
    const char* const watch_help =
        "After the files present at the start, keep reading new input files as they are written into the input "
        "folder, each once it is complete (see --watch_settle), until --watch_timeout or --watch_stop_file.";
    AddOption("watch", watch_help, &watch, Flag);
    AddOption("watch", watch_help, &watch, ConfigFile);
    AddOption("watch_settle",
              "With --watch: seconds an input file's size and modification time must stay unchanged before it is "
              "read (a file renamed into the folder is read at once).",
              &watch_settle, CommandLine | ConfigFile);
    AddOption("watch_timeout", "With --watch: end the run after this many seconds without a new complete input file.",
              &watch_timeout, CommandLine | ConfigFile);
    AddOption("watch_stop_file",
              "With --watch: end the run when a file of this name appears in the input folder (the files not yet "
              "read are read first).",
              &watch_stop_file, CommandLine | ConfigFile);
    AddApplicationOptions();
}

// Only zero threads are refused here; a negative count is left to the stages
// that use it.
bool ReadProcessor::ValidateParams() {
    if (worker_threads == 0) {
        VB_LOG(logger, Severity::error) << "Invalid number of threads: " << worker_threads;
        return false;
    }
    if (!(watch_settle >= 0 && watch_settle <= 1e6) || !(watch_timeout >= 0 && watch_timeout <= 1e9)) {
        VB_LOG(logger, Severity::error) << "Invalid --watch_settle or --watch_timeout: " << watch_settle << ", "
                                        << watch_timeout << " (seconds, not negative)";
        return false;
    }
    if (watch && input_path.empty()) {
        VB_LOG(logger, Severity::error) << "--watch needs an input folder (--input_path)";
        return false;
    }
    return true;
}

std::optional<int> ReadProcessor::Initialise(int argc, char** argv, const std::string& data_subfolder,
                                             const std::string& default_config_file_name) {
    default_config_file = default_config_file_name;
    unsigned flags = ParseParameters(argc, argv, data_subfolder);
    config_file_used = config_file;

    if (flags & VersionRequested) {
        std::cout << (argc > 0 ? argv[0] : "") << ", part of Vorpa basecalling suite " << VB_VERSION << std::endl;
    }
    if (flags & HelpRequested) {
        std::cout << message_text << std::endl;
        return 0;
    }

    // Console logging first, so the application's hook can already log;
    // the log file follows once the save folder exists.
    Common::LoggingSettings settings;
    settings.quiet = quiet;
    settings.verbose = verbose_logs;
    settings.trace_categories = trace_categories_logs;
    Common::InitLogging(settings);
    if (const std::optional<int> status = OnParametersParsed()) return status;

    if (flags != 0) {
        // With --version the banner stands alone.
        if (!(flags & VersionRequested)) std::cout << message_text << "\n" << error_text << std::endl;
        // A failed ValidateParams may leave error_text empty (it logs
        // instead); the Error bit alone must still stop the run.
        if (!error_text.empty() || (flags & Error)) return 255;
    }

    if (save_path == "INPUT_PATH") save_path = input_path;
    // Both paths are checked before anything is written, so that a run that
    // cannot read or cannot write leaves the save folder as it was.
    std::string problem = InputPathProblem(input_path);
    if (problem.empty()) problem = PrepareSaveFolder(save_path);
    if (!problem.empty()) {
        ReportError(problem);
        return 255;
    }

    settings.folder = save_path;
    settings.log_file_name = GetLogFileName();
    Common::InitLogging(settings);
    verbose_enabled = verbose_logger.Enabled(Severity::verbose);
    return std::nullopt;
}

std::vector<std::string> ReadProcessor::FindInputFiles(std::istream& names) const {
    InputFiles found = DiscoverInputFiles(input_path, recursive, save_path, names);
    for (const auto& warning : found.warnings)
        VB_LOG(logger, Severity::warning) << warning;
    return std::move(found.files);
}

int ReadProcessor::Run() {
    summary_file.Open((fs::path(save_path) / GetSummaryFileName()).string(), !append_summary);
    PrepareRun();
    // While watching, the files present at the start must settle like any other.
    std::vector<std::string> files;
    if (!watch) {
        files = FindInputFiles(std::cin);
        OnInputFilesFound(files);
    }
    input_files_found = files.size();
    if (!quiet) {
        std::cout << std::endl;
        if (watch) {
            VB_LOG(logger, Severity::info) << "Watching " << input_path << " for input files.";
            running = std::make_unique<RunningCount>(std::cout);
        } else {
            VB_LOG(logger, Severity::info) << "Found " << files.size() << " fastq files.";
            progress = std::make_unique<ProgressDisplay>(files.size(), std::cout);
        }
    }
    int64_t start = NowMs();
    if (watch) {
        WatchInput();
    } else {
        ProcessFiles(files);
    }
    // The application moves the progress bar as files' last reads are done:
    // waiting for them first keeps the bar whole above this line.
    if (use_async) WaitForCompletion();
    VB_LOG(logger, Severity::info) << "Done in " << NowMs() - start << " ms.";
    return 0;
}

void ReadProcessor::ProcessFiles(const std::vector<std::string>& files) {
    for (const auto& file : files) {
        if (ShouldStopReading()) break;
        if (use_async) {
            ProcessFastqFileAsync(file);
        } else {
            ProcessFastqFile(file);
        }
    }
}

// Searches at least every second (sooner when inotify reports a change), so
// a file is read about settle seconds after its last change.
void ReadProcessor::WatchInput() {
    using Clock = std::chrono::steady_clock;
    InputWatcher watcher(input_path, recursive, save_path, watch_settle);
    if (!watcher.Notified())
        VB_LOG(logger, Severity::info) << "Change notification unavailable: searching " << input_path
                                       << " every second.";
    const fs::path stop_file = watch_stop_file.empty() ? fs::path() : fs::path(input_path) / watch_stop_file;
    const auto wait = std::chrono::milliseconds(static_cast<int64_t>(std::clamp(watch_settle * 250, 50.0, 1000.0)));
    auto last_file = Clock::now();
    for (;;) {
        if (ShouldStopReading()) break;
        std::error_code error;
        const bool stop = !stop_file.empty() && fs::exists(stop_file, error);
        std::vector<std::string> files = stop ? watcher.Remaining() : watcher.Poll(wait);
        for (const auto& warning : watcher.TakeWarnings())
            VB_LOG(logger, Severity::warning) << warning;
        if (!files.empty()) {
            input_files_found += files.size();
            OnInputFilesFound(files);
            ProcessFiles(files);
            last_file = Clock::now();
        }
        if (stop) {
            VB_LOG(logger, Severity::info) << "Stop file " << stop_file.string() << " found: the run ends.";
            break;
        }
        if (std::chrono::duration<double>(Clock::now() - last_file).count() >= watch_timeout) {
            VB_LOG(logger, Severity::info) << "No new input file for " << watch_timeout << " s: the run ends.";
            break;
        }
        if (files.empty()) OnWatchIdle();
    }
}

void ReadProcessor::ReportError(const std::string& message) {
    VB_LOG(logger, Severity::error) << message;
    if (quiet) std::cerr << message << std::endl;
}

bool ReadProcessor::ShouldStopReading() const {
    return Common::StopSignal() != 0;
}

template <typename Work>
void ReadProcessor::GuardRead(const FastQRecord& record, Work&& work) {
    try {
        if (verbose_enabled) {
            VB_LOG(verbose_logger, Severity::verbose) << "Starting to process read: " << record.ReadId();
        }
        work();
    } catch (const std::exception& e) {
        if (*e.what() == '\0') {
            VB_LOG(logger, Severity::error) << "Error while processing read. Continuing with next read.";
        } else {
            VB_LOG(logger, Severity::error)
                << "Error while processing read: " << e.what() << ". Continuing with next read.";
        }
    } catch (...) {
        VB_LOG(logger, Severity::error) << "Error while processing read. Continuing with next read.";
    }
}

// Per-file progress lines go to the verbose channel: on the console they would
// break up the progress bar, which already shows the file count.
template <typename Feed>
int ReadProcessor::ProcessInputFile(const std::string& path, InputFileEnd& end, Feed&& feed) {
    end.path = path;
    try {
        VB_LOG(verbose_logger, Severity::info) << "Starting input file: " << path;
        StartNewFile(path);
        if (Common::IsBamFileName(path)) {
            Common::BamIterable reads(path, BamReaderThreads(worker_threads));
            end.reads = feed(reads);
            end.error = reads.Error();
            end.skipped = reads.Skipped();
        } else {
            auto stream = Common::OpenFastqFile(path);
            Common::FastQIterable reads(stream.get(), path);
            end.reads = feed(reads);
            end.error = reads.Error();
        }
        if (end.error.empty()) {
            VB_LOG(verbose_logger, Severity::info)
                << "Successfully finished input file: " << path << " (" << end.reads << " reads)";
        } else {
            // The reader has logged why, naming the file and the record.
            VB_LOG(verbose_logger, Severity::info)
                << "Input file ended early: " << path << " (" << end.reads << " reads)";
        }
        return 0;
    } catch (const std::exception& e) {
        LogFileError(path, e.what());
        end.error = e.what();
    } catch (...) {
        LogFileError(path, "");
        end.error = "unknown error";
    }
    end.failed = true;
    return -1;
}

int ReadProcessor::ProcessFastqFile(const std::string& path) {
    InputFileEnd end;
    const int result = ProcessInputFile(path, end, [this](auto& reads) {
        uint64_t count = 0;
        RecordJobLoop loop(std::max(1, worker_threads),
                           [this](const FastQRecord& record) { GuardRead(record, [&] { ProcessRead(record); }); });
        for (reads.Begin(); !reads.AtEnd() && !ShouldStopReading(); reads.Increment()) {
            loop.Push(std::move(reads.Record()));
            ++count;
        }
        loop.Finish();
        return count;
    });
    AdvanceProgress();
    return result;
}

// Records move from the reader into the application; nothing here waits for
// them to be processed. Records an earlier run has done are read past.
int ReadProcessor::ProcessFastqFileAsync(const std::string& path) {
    InputFileEnd end;
    end.path = path;
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        end.size = static_cast<uint64_t>(status.st_size);
        end.mtime_ns = static_cast<int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
    }
    end.resumed = RecordsAlreadyDone(end);
    if (end.resumed == kWholeFileDone) {
        VB_LOG(verbose_logger, Severity::info) << "Skipping input file: " << path << " (done by an earlier run)";
        return 0;
    }
    const int result = ProcessInputFile(path, end, [this, &end](auto& reads) {
        uint64_t count = 0;
        uint64_t to_skip = end.resumed;
        for (reads.Begin(); !reads.AtEnd(); reads.Increment()) {
            if (ShouldStopReading()) {
                end.cut_short = true;
                break;
            }
            if (to_skip > 0) {
                --to_skip;
                continue;
            }
            FastQRecord& record = reads.Record();
            // The record moves on; its successor is read into empty strings,
            // each allocated once at the size of its line (a line is cut whole
            // from the read buffer but for the rare one across a refill).
            // Reserving the last read's sizes instead would reallocate for
            // every longer read and keep slack in every batch.
            bool refused = false;
            GuardRead(record, [&] { refused = SubmitRead(std::move(record)) == 0; });
            if (refused) {
                end.cut_short = true;
                break;
            }
            ++count;
        }
        return count;
    });
    EndOfInputFile(end);
    return result;
}

void ReadProcessor::LogFileError(const std::string& path, const std::string& what) {
    if (what.empty()) {
        VB_LOG(logger, Severity::error) << "Error while processing input file " << path
                                        << ". Will continue with next input file.";
    } else {
        VB_LOG(logger, Severity::error) << "Error while processing input file " << path << ": " << what
                                        << ". Will continue with next input file.";
    }
}

void ReadProcessor::AdvanceProgress(uint64_t reads_written) {
    if (quiet) return;
    if (progress) progress->Advance();
    if (running) running->FileDone(reads_written);
}

}  // namespace Vorpa
