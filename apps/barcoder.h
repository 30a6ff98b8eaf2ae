#pragma once
// vorpa_barcoder: classifies every read of the input FASTQ files by the
// barcodes at its ends, writes one row per read to barcoding_summary.txt and
// files the read, tagged with its arrangement, under the arrangement's folder.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "apps/read_batch_queue.h"
#include "apps/read_processor.h"
#include "apps/run_report.h"
#include "barcoding/detect_results.h"
#include "barcoding/scorer_options.h"

namespace Barcoding {
class BarcodeManager;
class BarcodeScorer;
}  // namespace Barcoding

namespace Common {
class BarcodeFastqWriter;
}

namespace Vorpa {

class BarcoderWorker;

class Barcoder : public ReadProcessor {
public:
    Barcoder();
    ~Barcoder() override;

    // Checks the whole barcode configuration before any output is touched,
    // processes the input, then closes every output file and reports. A
    // configuration error is reported and ends the process with status 255.
    int Run();

    // Writes the summary row and the FASTQ record of one read (trimmed when
    // asked). Called by the workers; rows and records leave in the same order.
    void WriteResults(const std::vector<Barcoding::ArrangementDetectResult>& results, Common::FastQRecord& record);

    // A worker finished count reads taken from the queue (written or dropped);
    // their summary rows are flushed before they count as done.
    void ReadsDone(size_t count);

protected:
    void AddApplicationOptions() override;
    std::string GetLogFileName() override;
    std::string GetSummaryFileName() override;
    void OnParametersParsed() override;
    void PrepareRun() override;
    void StartNewFile(const std::string& path) override;
    void ProcessRead(const Common::FastQRecord& record) override;
    int SubmitRead(const Common::FastQRecord& record) override;
    void WaitForCompletion() override;

private:
    struct RunIdEntry {
        std::mutex mutex;
        uint64_t records = 0;
    };

    [[noreturn]] void FailRun(const std::string& message);
    void PrintKits();
    void PrepareConfiguration();
    void LogSettings();
    void CheckBothEndsRequirement();
    void StopWorkers();
    void ReportRun(double seconds);

    // Options.
    Barcoding::ScorerOptions scorer_options;
    int records_per_fastq = 0;
    bool compress_fastq = false;
    bool print_kits = false;
    std::string device;

    // Loaded configuration, read-only once the workers run.
    std::shared_ptr<Barcoding::BarcodeManager> manager;
    std::vector<std::shared_ptr<Barcoding::BarcodeScorer>> scorers;  // one per worker
    size_t detailed_results = 1;

    // Feeding: only the reading thread touches pending and submitted.
    std::unique_ptr<ReadBatchQueue> queue;
    ReadBatch pending;
    uint64_t submitted = 0;
    std::atomic<uint64_t> processed{0};
    std::mutex completion_mutex;
    std::condition_variable completion;
    std::vector<std::unique_ptr<BarcoderWorker>> workers;

    // Output. Lock order: writer_map_mutex, then an entry's mutex (never both
    // held), then output_mutex.
    std::mutex writer_map_mutex;
    std::map<std::string, std::unique_ptr<RunIdEntry>> run_id_entries;
    std::mutex output_mutex;
    std::unique_ptr<Common::BarcodeFastqWriter> writer;  // under output_mutex
    RunTally tally;                                      // under output_mutex
    std::chrono::steady_clock::time_point run_start;
};

}  // namespace Vorpa
