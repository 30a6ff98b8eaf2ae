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
#include <vector>

#include "apps/progress_display.h"
#include "common/fastq_record.h"
#include "common/logger.h"
#include "common/parameters.h"

namespace Vorpa {

class ReadProcessor : public Common::Parameters {
public:
    ReadProcessor();
    ~ReadProcessor() override;

    // Parses the options, prints banner / help / messages, creates the save
    // folder and starts logging. Ends the process with 0 after the help and
    // with 255 on option errors.
    void Initialise(int argc, char** argv, const std::string& data_subfolder, const std::string& default_config_file);
    // Processes every input file; per-file and per-read failures are logged
    // and skipped. Returns the process exit status (0). Exceptions from
    // PrepareRun (configuration errors) propagate.
    int Run();
    // One input file through ProcessRead on worker_threads threads /
    // through SubmitRead and WaitForCompletion. 0 on success, -1 when the
    // file failed (logged).
    int ProcessFastqFile(const std::string& path);
    int ProcessFastqFileAsync(const std::string& path);

protected:
    void AddOptions() override;
    bool ValidateParams() override;

    virtual void AddApplicationOptions() = 0;
    virtual std::string GetLogFileName() = 0;
    virtual std::string GetSummaryFileName() = 0;
    // Right after parsing and logging start-up, before messages are printed.
    virtual void OnParametersParsed() {}
    // After the summary file is opened, before the inputs are listed.
    virtual void PrepareRun() = 0;
    virtual void StartNewFile(const std::string& path) = 0;
    // Synchronous per-read work; called from worker threads concurrently.
    virtual void ProcessRead(const Common::FastQRecord& record) = 0;
    // Asynchronous path: hand one record to the application's own workers,
    // then, at the end of each file, wait until all handed records are done.
    virtual int SubmitRead(const Common::FastQRecord& record) = 0;
    virtual void WaitForCompletion() = 0;

    // Initialise without ending the process: returns the exit status when the
    // process should end now (help, option errors), nothing to go on.
    std::optional<int> SetUp(int argc, char** argv, const std::string& data_subfolder,
                             const std::string& default_config_file);
    // The input files: the names read from `names` when input_path is empty,
    // else the *.fastq and *.fastq.<ext> regular files in input_path (the
    // whole tree with recursive), in directory iteration order.
    std::vector<std::string> FindInputFiles(std::istream& names) const;

    bool quiet = false;
    bool recursive = false;
    bool verbose_logs = false;
    bool use_async = false;  // set by the application: ProcessFastqFileAsync instead of ProcessFastqFile
    int32_t worker_threads;  // hardware concurrency by default
    std::string input_path;
    std::string save_path;
    std::vector<std::string> trace_categories_logs;
    std::string config_file_used;  // resolved configuration file path
    bool verbose_enabled = false;  // verbose_logger accepts verbose records (cached once)
    std::ofstream summary_stream;
    std::unique_ptr<ProgressDisplay> progress;

    Common::Logger logger{"read_processor"};
    Common::Logger verbose_logger{"read_processor_verbose"};

private:
    // Logs the start of a read (when verbose) and runs `work`, turning an
    // exception into an error line so the next read goes on.
    template <typename Work>
    void GuardRead(const Common::FastQRecord& record, Work&& work);
    // The frame shared by both per-file paths: start, open, let `feed` hand
    // every record on (it returns the count), and turn any failure into the
    // per-file error line. Returns 0, or -1 when the file failed.
    template <typename Feed>
    int ProcessInputFile(const std::string& path, Feed&& feed);
    void LogFileError(const std::string& path, const std::string& what);
    void FinishFile();
};

}  // namespace Vorpa
