#pragma once
// Skeleton of a read-processing application: common options, output folder
// and logging set-up, input discovery, and the per-file loop with progress bar
// and per-file / per-read error isolation. Applications fill in the hooks.

#include <cstdint>
#include <fstream>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/progress_display.h"
#include "common/fastq_record.h"
#include "common/logger.h"
#include "common/output_file.h"
#include "common/parameters.h"

namespace Vorpa {

// How the reading of one input file ended, handed to the application after the
// file's last record.
struct InputFileEnd {
    std::string path;
    uint64_t size = 0;       // when reading began
    int64_t mtime_ns = 0;    // modification time when reading began
    uint64_t resumed = 0;    // leading records an earlier run had done, not handed over again
    uint64_t reads = 0;      // records taken from the file and handed over
    uint64_t skipped = 0;    // secondary and supplementary records of BAM input, not handed over
    bool failed = false;     // the file could not be read at all (error says why)
    bool cut_short = false;  // reading stopped before the end (a signal, a failed output)
    std::string error;       // why reading stopped early; empty after a clean end of input
};

class ReadProcessor : public Common::Parameters {
public:
    ReadProcessor();
    ~ReadProcessor() override;

    // Parses the options, prints banner / help / messages, creates the save
    // folder and starts logging. Returns the exit status when the process
    // should end now (0 after the help, 255 on option errors), nothing to go
    // on with Run.
    std::optional<int> Initialise(int argc, char** argv, const std::string& data_subfolder,
                                  const std::string& default_config_file);
    // Processes every input file; per-file and per-read failures are logged
    // and skipped. Returns the process exit status (0). Exceptions from
    // PrepareRun (configuration errors) propagate. Reading stops early when
    // ShouldStopReading() says so (a signal, a failed output). With --watch
    // the input folder is watched for new files after the first ones. On the
    // asynchronous path it returns after WaitForCompletion.
    int Run();
    // One input file through ProcessRead on worker_threads threads, each
    // read finished before it returns. 0 on success, -1 when the file failed
    // (logged).
    int ProcessFastqFile(const std::string& path);
    // One input file handed to the application's own pipeline through
    // SubmitRead, then EndOfInputFile; returns without waiting for the reads
    // to be processed. 0 on success, -1 when the file failed (logged).
    int ProcessFastqFileAsync(const std::string& path);

protected:
    void AddOptions() override;
    bool ValidateParams() override;

    virtual void AddApplicationOptions() = 0;
    virtual std::string GetLogFileName() = 0;
    virtual std::string GetSummaryFileName() = 0;
    // Right after parsing and logging start-up, before messages are printed.
    // A status ends the process with it at once (an answer such as a kit list).
    virtual std::optional<int> OnParametersParsed() { return std::nullopt; }
    // After the summary file is opened, before the inputs are listed.
    virtual void PrepareRun() = 0;
    // The inputs are listed; none has been read yet.
    virtual void OnInputFilesFound(const std::vector<std::string>& /*files*/) {}
    virtual void StartNewFile(const std::string& path) = 0;
    // Synchronous per-read work; called from worker threads concurrently.
    virtual void ProcessRead(const Common::FastQRecord& record) = 0;
    // Asynchronous path, all called from the reading thread: hand one record
    // over (0 = the application takes no more reads); say that a file's last
    // record has been handed over; after the last file, wait until every
    // handed record is done. Reads of consecutive files flow on without a
    // wait in between, so the application reports a file as done (progress)
    // when its last read is, with AdvanceProgress.
    // A record from BAM, SAM or CRAM input carries its tags.
    virtual int SubmitRead(Common::FastQRecord&& record) = 0;
    virtual void EndOfInputFile(const InputFileEnd& /*end*/) {}
    // Before a file is read (path, size and modification time filled in):
    // how many of its leading records an earlier run has already done, which
    // are then read past; kWholeFileDone skips the file. 0 by default.
    static constexpr uint64_t kWholeFileDone = UINT64_MAX;
    virtual uint64_t RecordsAlreadyDone(const InputFileEnd& /*file*/) { return 0; }
    // While watching, after each search that found nothing more to read:
    // the application hands on what it holds back and refreshes its reports.
    virtual void OnWatchIdle() {}
    virtual void WaitForCompletion() = 0;
    // Polled between records: true stops reading (the files not yet read
    // are skipped). By default: a stop signal arrived.
    virtual bool ShouldStopReading() const;
    // One more file is done: the progress bar moves (unless quiet); while
    // watching, the count of files and reads_written is shown instead.
    void AdvanceProgress(uint64_t reads_written = 0);

    // The input files: the names read from `names` when input_path is empty,
    // else the regular files in input_path (the whole tree with recursive)
    // that IsInputFileName accepts, in directory iteration order.
    std::vector<std::string> FindInputFiles(std::istream& names) const;
    // An error that ends or cuts short the run: to the log, and to standard
    // error as well under --quiet, so that a failed run never stays silent.
    void ReportError(const std::string& message);

    bool quiet = false;
    bool recursive = false;
    bool verbose_logs = false;
    bool use_async = false;  // set by the application: ProcessFastqFileAsync instead of ProcessFastqFile
    int32_t worker_threads;  // hardware concurrency by default
    std::string input_path;
    std::string save_path;
    std::vector<std::string> trace_categories_logs;
    bool watch = false;               // keep reading new input files (see input_watch.h)
    double watch_settle = 10;         // seconds a file must stay unchanged
    double watch_timeout = 3600;      // seconds without a new complete file that end the run
    std::string watch_stop_file;      // a file of this name in the input folder ends the run
    bool append_summary = false;      // set by the application: Run appends to the summary instead of emptying it
    std::string config_file_used;     // resolved configuration file path
    bool verbose_enabled = false;     // verbose_logger accepts verbose records (cached once)
    Common::OutputFile summary_file;  // the run's summary, opened (emptied) by Run
    uint64_t input_files_found = 0;
    std::unique_ptr<ProgressDisplay> progress;
    std::unique_ptr<RunningCount> running;  // instead of the bar while watching

    Common::Logger logger{"read_processor"};
    Common::Logger verbose_logger{"read_processor_verbose"};

private:
    // Logs the start of a read (when verbose) and runs `work`, turning an
    // exception into an error line so the next read goes on.
    template <typename Work>
    void GuardRead(const Common::FastQRecord& record, Work&& work);
    // The frame shared by both per-file paths: start, open, let `feed` hand
    // every record on (it returns the count), and turn any failure into the
    // per-file error line. Fills end; returns 0, or -1 when the file failed.
    template <typename Feed>
    int ProcessInputFile(const std::string& path, InputFileEnd& end, Feed&& feed);
    void LogFileError(const std::string& path, const std::string& what);
    // The files found while watching, until the timeout, the stop file or a stop.
    void WatchInput();
    void ProcessFiles(const std::vector<std::string>& files);
};

}  // namespace Vorpa
