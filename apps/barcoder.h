#pragma once
// vorpa_barcoder: classifies every read of the input FASTQ (or BAM) files by
// the barcodes at its ends, writes one row per read to barcoding_summary.txt
// and files the read, tagged with its arrangement, under the arrangement's
// folder (or its sample's, with a sample sheet), as FASTQ or unaligned BAM.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "apps/cross_talk.h"
#include "apps/output_policy.h"
#include "apps/read_processor.h"
#include "apps/resume_state.h"
#include "apps/run_report.h"
#include "apps/sample_sheet.h"
#include "apps/summary_row.h"
#include "barcoding/detect_results.h"
#include "barcoding/scorer_options.h"

namespace Barcoding {
class BarcodeManager;
class BarcodeScorer;
}  // namespace Barcoding

namespace Common {
class FastqWriter;
struct FastqChunk;
}  // namespace Common

namespace Vorpa {

// A run refused before any read (a configuration error), already reported:
// main ends the process with status 255.
struct RunRefused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class BarcoderWorker;
template <typename Batch>
class OrderedPipeline;
struct ReadBatch;

// A run is a three-step pipeline (apps/ordered_pipeline.h): the reading
// thread (ReadProcessor::Run) cuts the input into numbered batches through
// SubmitRead; workers score and format whole batches (WriteResults), with
// compression when asked; one writer thread appends each batch's bytes to the
// summary and the FASTQ files strictly in input order, under the output
// mutex. Output is therefore byte-identical for any number of workers.
class Barcoder : public ReadProcessor {
public:
    Barcoder();
    ~Barcoder() override;

    // Checks the whole barcode configuration before any output is touched,
    // processes the input, then closes every output file and reports.
    // Returns 0, 1 when an output could not be written (the run stops at the
    // first failure), or 128 + the signal number after SIGINT / SIGTERM. A
    // configuration error is reported and ends the process with status 255.
    int Run();

    // Formats one read (which has a run id) into the batch as DecideOutput
    // (apps/output_policy.h) decides: its summary row, its record (trimmed,
    // tagged with its arrangement) into the chunk of its output file as FASTQ
    // text or a BAM record, and its counts. Called by the workers; nothing is
    // written here. Throws when the read cannot be written as asked.
    void WriteResults(const std::vector<Barcoding::ArrangementDetectResult>& results, Common::FastQRecord& record,
                      ReadBatch& batch, const ReadExtras& extras = {});

    // A worker could not process a batch at all: the run stops with message.
    void FailPipeline(const std::string& message);

protected:
    void AddApplicationOptions() override;
    std::string GetLogFileName() override;
    std::string GetSummaryFileName() override;
    std::optional<int> OnParametersParsed() override;
    void PrepareRun() override;
    void OnInputFilesFound(const std::vector<std::string>& files) override;
    void StartNewFile(const std::string& path) override;
    void ProcessRead(const Common::FastQRecord& record) override;
    int SubmitRead(Common::FastQRecord&& record) override;
    void EndOfInputFile(const InputFileEnd& end) override;
    uint64_t RecordsAlreadyDone(const InputFileEnd& file) override;
    void OnWatchIdle() override;
    void WaitForCompletion() override;
    bool ShouldStopReading() const override;

private:
    [[noreturn]] void FailRun(const std::string& message);
    void PrintKits();
    void PrepareConfiguration();
    void LogSettings();
    void CheckBothEndsRequirement();
    void WarnAboutKitDesign();
    void LoadSamples();
    void SubmitPending();
    void WriterLoop();
    void EmitBatch(ReadBatch& batch);
    void AddSampleReads(const std::vector<uint32_t>& read_samples);
    void StopThreads();
    void ReportRun(double seconds);
    // Writes the HTML page and the MultiQC files, and barcoding_report.json
    // when info.finished; adds the cross-talk estimate to info with a sample
    // sheet. Throws std::runtime_error naming the file.
    void WriteReports(const RunTally& figures, RunInfo info) const;
    std::optional<CrossTalkEstimate> EstimateCrossTalk(const RunTally& figures) const;
    // --resume: takes over an earlier run's state before anything is written.
    void PrepareResume();
    // After a batch is written: notes how far the inputs got and, after a
    // file's end or a second after the last time, saves the resume state.
    void Checkpoint(const ReadBatch& batch);
    void SaveResumeState(ResumeState state) const;
    int ExitStatus() const;

    // Options.
    Barcoding::ScorerOptions scorer_options;
    int records_per_fastq = 0;
    bool compress_fastq = false;
    std::string output_format = "fastq";  // or "bam"
    std::string sample_sheet_path;
    bool print_kits = false;
    bool unclassified_reason_column = false;
    QualityColumns quality_columns;
    bool internal_count_column = false;
    std::string device;
    bool resume = false;

    // Loaded configuration, read-only once the workers run.
    std::shared_ptr<Barcoding::BarcodeManager> manager;
    std::vector<std::shared_ptr<Barcoding::BarcodeScorer>> scorers;  // one per worker
    size_t detailed_results = 1;
    bool bam_output = false;
    std::optional<SampleSheet> sample_sheet;
    OutputPolicy output_policy;                                // what WriteResults does with each read
    std::shared_ptr<const Barcoding::PairDesign> pair_design;  // a sheet of pairs
    std::optional<CrossTalkDesign> cross_talk_design;          // with a sample sheet

    // The pipeline. Only the reading thread touches pending.
    std::unique_ptr<OrderedPipeline<ReadBatch>> pipeline;
    std::unique_ptr<ReadBatch> pending;
    std::vector<std::unique_ptr<BarcoderWorker>> workers;
    std::thread writer_thread;

    // Output: only the writer thread writes, under output_mutex.
    std::mutex output_mutex;
    std::unique_ptr<Common::FastqWriter> writer;
    RunTally tally;
    // tally.samples' count of each sheet sample by its number (AddSampleReads).
    std::vector<uint64_t*> sample_counts;
    std::string failure;  // the first fault that stopped the run
    std::chrono::steady_clock::time_point run_start;
    std::vector<std::string> read_groups;  // of the BAM inputs so far, for the BAM output header

    // --resume. The reading thread owns earlier_inputs and reading; the
    // writer thread (under output_mutex) inputs and the rest.
    std::map<std::string, InputProgress> earlier_inputs;  // as the earlier run left them
    InputFileEnd reading;                                 // the file being read, records so far
    std::map<std::string, InputProgress> inputs;
    std::vector<Common::SeriesState> earlier_outputs;
    double earlier_wall_time_s = 0;
    std::chrono::steady_clock::time_point last_checkpoint;
    std::chrono::steady_clock::time_point last_page;  // HTML refreshed while watching
};

}  // namespace Vorpa
