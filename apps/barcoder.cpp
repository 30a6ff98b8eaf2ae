#include "apps/barcoder.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "apps/barcoder_worker.h"
#include "apps/summary_row.h"
#include "barcoding/barcode_manager.h"
#include "barcoding/barcode_scorer.h"
#include "common/barcode_trimmer.h"
#include "common/fastq_record.h"
#include "common/fastq_writer.h"
#include "common/logger.h"
#include "pair_alignment/score_matrix.h"

namespace Vorpa {

namespace {

// Reads travel to the workers in batches of this many; the queue holds at most
// kQueuedBatchesPerWorker batches per worker, which bounds the memory held by
// reads in flight whatever the input size.
constexpr size_t kBatchSize = 64;
constexpr size_t kQueuedBatchesPerWorker = 4;

const char* const kUsage =
    "\nUsage:\n\n  vorpa_barcoder -i <input fastq path> -s <save path>\nWith "
    "kit name:\n  vorpa_barcoder -i <input "
    "fastq path> -s <save path> --barcode_kits <kit name>\nList supported "
    "barcoding kits:\n  vorpa_barcoder "
    "--print_kits\n\n";

constexpr unsigned kValue = Common::Parameters::CommandLine | Common::Parameters::ConfigFile;
constexpr unsigned kSwitch = Common::Parameters::Flag;

}  // namespace

Barcoder::Barcoder() {
    usage_text = kUsage;
    use_async = true;
}

Barcoder::~Barcoder() {
    // Normally the workers are gone by now; this covers a run torn down early.
    if (queue) queue->Close();
    workers.clear();
}

void Barcoder::AddApplicationOptions() {
    auto& o = scorer_options;
    AddOption<std::string>("barcode_kits",
                           "Space separated list of barcoding kit(s) or "
                           "expansion kit(s) to detect against. Must be in "
                           "double quotes.",
                           &o.barcode_kits, kValue);
    AddOption<bool>("trim_barcodes", "Trim the barcodes from the output sequences in the FastQ files.",
                    &o.trim_barcodes, kSwitch);
    AddOption<int>("num_extra_bases_trim",
                   "How vigorous to be in trimming the barcode. Default is 0 "
                   "i.e. the length of the detected barcode. "
                   "A positive integer means extra bases will be trimmed, a "
                   "negative number is how many fewer bases "
                   "(less vigorous) will be trimmed.",
                   &o.num_extra_bases_trim, kValue);
    AddOption<std::string>("arrangements_files", "Files containing arrangements.", &o.arrangements_files, kValue);
    AddOption<std::string>("score_matrix_filename", "File containing mismatch score matrix.", &o.score_matrix_filename,
                           kValue);
    AddOption<int>("start_gap1", "Gap penalty for aligning before the reference.", &o.start_gap1, kValue);
    AddOption<int>("end_gap1", "Gap penalty for aligning after the reference.", &o.end_gap1, kValue);
    AddOption<int>("open_gap1", "Penalty for opening a new gap in the reference.", &o.open_gap1, kValue);
    AddOption<int>("extend_gap1", "Penalty for extending a gap in the reference.", &o.extend_gap1, kValue);
    AddOption<int>("start_gap2", "Gap penalty for aligning before the query.", &o.start_gap2, kValue);
    AddOption<int>("end_gap2", "Gap penalty for aligning after the query.", &o.end_gap2, kValue);
    AddOption<int>("open_gap2", "Penalty for opening a new gap in the query.", &o.open_gap2, kValue);
    AddOption<int>("extend_gap2", "Penalty for extending a gap in the query.", &o.extend_gap2, kValue);
    AddOption<float>("min_score", "Minimum score to consider a valid alignment.", &o.min_score, kValue);
    AddOption<float>("min_score_rear_override",
                     "Minimum score to consider a valid alignment for the rear "
                     "barcode only (and min_score will then "
                     "be used for the front only when this is set).",
                     &o.min_score_rear_override, kValue);
    AddOption<int>("front_window_size", "Window size for the beginning barcode.", &o.front_window_size, kValue);
    AddOption<int>("rear_window_size", "Window size for the ending barcode.", &o.rear_window_size, kValue);
    AddOption<bool>("require_barcodes_both_ends",
                    "Reads will only be classified if there is a barcode above "
                    "the min_score at both ends of the "
                    "read.",
                    &o.require_barcodes_both_ends, kSwitch);

    AddOption<int>("records_per_fastq,q",
                   "Maximum number of records per fastq file, 0 means use a "
                   "single file (per run id).",
                   &records_per_fastq, kValue);
    AddOption<bool>("compress_fastq", "Compress fastq output files with gzip.", &compress_fastq, kSwitch);
    AddOption<bool>("print_kits", "Output all available barcoding kits.", &print_kits, kSwitch);
    AddOption<std::string>("device,x",
                           "Specify GPU device to accelerate barcode detection: "
                           "'auto', or 'cuda:<device_id>'.",
                           &device, kValue);
}

std::string Barcoder::GetLogFileName() {
    return "vorpa_barcoder.log";
}

std::string Barcoder::GetSummaryFileName() {
    return "barcoding_summary.txt";
}

// Configuration errors end the process before any read is processed, with the
// status of an option error. The message goes to the log and the console;
// with --quiet to standard error, so that a failed run never stays silent.
void Barcoder::FailRun(const std::string& message) {
    VB_LOG(logger, Common::Severity::error) << message;
    if (quiet) std::cerr << message << std::endl;
    Common::ShutdownLogging();
    std::exit(255);
}

void Barcoder::OnParametersParsed() {
    if (print_kits) PrintKits();
}

// Answers --print_kits without needing input or save paths, then ends the
// program.
void Barcoder::PrintKits() {
    if (scorer_options.arrangements_files.empty()) FailRun("No arrangements files specified!");
    try {
        Barcoding::BarcodeManager kits(
            Barcoding::BarcodeManager::SplitArrangementFiles(scorer_options.arrangements_files), data_path);
        std::cout << "Available barcoding kits are:\n" << kits.KitListing() << std::flush;
    } catch (const std::exception& error) {
        FailRun(error.what());
    }
    Common::ShutdownLogging();
    std::exit(0);
}

int Barcoder::Run() {
    PrepareConfiguration();
    const int status = ReadProcessor::Run();
    // A file that failed after handing over some reads never waited for them.
    WaitForCompletion();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - run_start).count();
    StopWorkers();
    try {
        if (writer) writer->Finalise();
    } catch (const std::exception& error) {
        VB_LOG(logger, Common::Severity::error) << "Error while closing the output files: " << error.what();
    }
    summary_stream.flush();
    ReportRun(seconds);
    return status;
}

// Everything that can reject the configuration happens here, before the read
// processor opens (and so truncates) the summary file: an error leaves the
// save folder as it was, apart from the log.
void Barcoder::PrepareConfiguration() {
    VB_LOG(logger, Common::Severity::info) << "QRX Vorpa barcoding software version " << VB_VERSION;
    try {
        Barcoding::ValidateScorerOptions(scorer_options);
        LogSettings();
        if (worker_threads < 1) {
            throw std::runtime_error("Invalid number of threads: " + std::to_string(worker_threads));
        }
        if (records_per_fastq < 0) {
            throw std::runtime_error("Invalid number of records per fastq file: " + std::to_string(records_per_fastq));
        }
        manager = std::make_shared<Barcoding::BarcodeManager>(
            Barcoding::BarcodeManager::SplitArrangementFiles(scorer_options.arrangements_files), data_path);
        // Selecting once up front turns an unknown kit into a run error rather
        // than a failure of every read, and fills the manager's cache.
        manager->GetArrangements(scorer_options.barcode_kits);
        CheckBothEndsRequirement();
        const auto matrix = PairAlignment::LoadMismatchMatrix(
            Barcoding::ResolveDataFile(scorer_options.score_matrix_filename, data_path));
        for (int i = 0; i < worker_threads; ++i) {
            scorers.push_back(std::make_shared<Barcoding::BarcodeScorer>(scorer_options, manager, matrix, device));
        }
    } catch (const std::exception& error) {
        FailRun(error.what());
    }
    // The "first 10 results" lines need found sequences for ten results; the
    // usual run needs them for the best one only.
    detailed_results = verbose_logger.Enabled(Common::Severity::verbose) ? 10 : 1;
}

void Barcoder::LogSettings() {
    VB_LOG(logger, Common::Severity::info) << "input path: " << input_path;
    VB_LOG(logger, Common::Severity::info) << "save path: " << save_path;
    VB_LOG(logger, Common::Severity::info) << "arrangement files: " << scorer_options.arrangements_files;
    VB_LOG(logger, Common::Severity::info) << "min. score front: " << scorer_options.min_score;
    VB_LOG(logger, Common::Severity::info) << "min. score rear: " << scorer_options.min_score_rear_override;
    if (!device.empty()) VB_LOG(logger, Common::Severity::info) << "gpu device: " << device;
}

void Barcoder::CheckBothEndsRequirement() {
    if (!scorer_options.require_barcodes_both_ends) return;
    const auto& arrangements = manager->AllArrangements();
    const auto single = std::count_if(arrangements.begin(), arrangements.end(), [](const auto& arrangement) {
        return arrangement.barcode1.empty() || arrangement.barcode2.empty();
    });
    if (single == static_cast<long>(arrangements.size())) {
        throw std::runtime_error(
            "All configurations only have one barcode, so "
            "'require_barcodes_both_ends' cannot be specified");
    }
    if (single > 0) {
        VB_LOG(logger, Common::Severity::warning)
            << "Specifying 'require_barcodes_both_ends' whilst having barcode kits "
               "with only one barcode in the "
               "configuration means these kits will have 'unclassified' as the "
               "result.";
    }
}

void Barcoder::PrepareRun() {
    summary_stream << SummaryHeader(scorer_options.trim_barcodes) << std::flush;
    writer = std::make_unique<Common::BarcodeFastqWriter>(save_path, compress_fastq,
                                                          static_cast<unsigned>(records_per_fastq));
    queue = std::make_unique<ReadBatchQueue>(kQueuedBatchesPerWorker * scorers.size());
    pending.reserve(kBatchSize);
    try {
        for (auto& scorer : scorers) {
            workers.push_back(std::make_unique<BarcoderWorker>(*this, *queue, scorer, detailed_results));
            workers.back()->Start();
        }
    } catch (const std::exception& error) {
        queue->Close();
        workers.clear();
        FailRun(error.what());
    }
    run_start = std::chrono::steady_clock::now();
}

// The writer keeps one series of files per arrangement folder and run id for
// the whole run, so a new input continues those series rather than starting
// over them (which would overwrite the reads of earlier inputs).
void Barcoder::StartNewFile(const std::string& /*path*/) {
    {
        std::lock_guard<std::mutex> lock(output_mutex);
        ++tally.files_found;
    }
    std::error_code error;
    if (!save_path.empty() && !std::filesystem::exists(save_path, error)) {
        VB_LOG(logger, Common::Severity::info) << "Creating output folder " << save_path;
        std::filesystem::create_directories(save_path);
    }
}

void Barcoder::ProcessRead(const Common::FastQRecord& /*record*/) {
    throw std::runtime_error("Non-async barcoding no longer supported!");
}

int Barcoder::SubmitRead(const Common::FastQRecord& record) {
    pending.push_back(record);
    ++submitted;
    if (pending.size() >= kBatchSize) {
        queue->Push(std::move(pending));
        pending = ReadBatch();
        pending.reserve(kBatchSize);
    }
    return 1;
}

void Barcoder::WaitForCompletion() {
    if (!queue) return;
    if (!pending.empty()) {
        queue->Push(std::move(pending));
        pending = ReadBatch();
        pending.reserve(kBatchSize);
    }
    std::unique_lock<std::mutex> lock(completion_mutex);
    completion.wait(lock, [this] { return processed.load() == submitted; });
}

// Summary rows are flushed once per batch rather than per row: the file stays
// at most one batch behind, and no system call is made while the output mutex
// is held for a single read.
void Barcoder::ReadsDone(size_t count) {
    {
        std::lock_guard<std::mutex> lock(output_mutex);
        summary_stream.flush();
    }
    {
        std::lock_guard<std::mutex> lock(completion_mutex);
        processed += count;
    }
    completion.notify_all();
}

void Barcoder::StopWorkers() {
    if (!queue) return;
    queue->Close();
    for (auto& worker : workers) {
        worker->Join();
        tally.dropped += worker->DroppedReads();
    }
    workers.clear();
}

void Barcoder::WriteResults(const std::vector<Barcoding::ArrangementDetectResult>& results,
                            Common::FastQRecord& record) {
    const std::string run_id = record.GetRunId();
    const std::string read_id = record.GetReadId();
    RunIdEntry* entry = nullptr;
    {
        std::lock_guard<std::mutex> lock(writer_map_mutex);
        auto& slot = run_id_entries[run_id];
        if (!slot) slot = std::make_unique<RunIdEntry>();
        entry = slot.get();
    }
    {
        std::lock_guard<std::mutex> lock(entry->mutex);
        ++entry->records;
    }

    // The row text and the trimming depend on this read alone, so they are
    // prepared before the output mutex; only the writes are serialised.
    const bool trimming = scorer_options.trim_barcodes;
    std::string row;
    std::string arrangement = "unclassified";
    if (results.empty()) {
        row = NoResultRow(read_id, trimming);
    } else {
        const auto& best = results.front();
        arrangement = best.normalised_id;
        const int read_length = static_cast<int>(record.sequence.size());
        const int rear_window = std::min(scorer_options.rear_window_size, read_length);
        TrimmedBases trimmed;
        if (trimming) {
            trimmed.front = Common::BarcodeTrimmer::TrimFront(Barcoding::FrontTrimLength(best, scorer_options),
                                                              record.sequence, record.qstring);
            trimmed.rear = Common::BarcodeTrimmer::TrimRear(Barcoding::RearTrimLength(best, scorer_options),
                                                            record.sequence, record.qstring);
        }
        row = SummaryRow(read_id, best, rear_window, trimming ? &trimmed : nullptr);
    }
    record.AppendToTitle("barcode", arrangement);

    std::lock_guard<std::mutex> lock(output_mutex);
    if (verbose_logger.Enabled(Common::Severity::verbose)) {
        VB_LOG(verbose_logger, Common::Severity::verbose) << "first 10 results of front & rear barcode detection: ";
        const size_t shown = std::min<size_t>(results.size(), 10);
        for (size_t i = 0; i < shown; ++i) {
            VB_LOG(verbose_logger, Common::Severity::verbose) << Barcoding::ToString(results[i]);
        }
    }
    if (results.empty()) VB_LOG(logger, Common::Severity::warning) << "all arrangements below min_score";
    summary_stream << row;
    writer->Write(record, arrangement, run_id);
    CountRead(tally, arrangement, record.sequence.size(), results.empty() ? 0.0 : results.front().score);
}

// The JSON report is written last, once every output file is closed, so that
// its presence tells a workflow that the save folder is complete.
void Barcoder::ReportRun(double seconds) {
    for (const auto& line : FormatRunReport(tally, seconds))
        VB_LOG(logger, Common::Severity::info) << line;
    try {
        const auto path = std::filesystem::path(save_path) / kJsonReportFileName;
        WriteFileAtomically(path.string(), FormatJsonReport(tally, RunInfo{VB_VERSION, OptionValues(), seconds}));
    } catch (const std::exception& error) {
        VB_LOG(logger, Common::Severity::error) << "Could not write the run report: " << error.what();
    }
}

}  // namespace Vorpa
