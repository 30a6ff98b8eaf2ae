#include "apps/barcoder.h"

#include <algorithm>
#include <csignal>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <utility>

#include "apps/barcoder_worker.h"
#include "apps/html_report.h"
#include "apps/multiqc_report.h"
#include "apps/ordered_pipeline.h"
#include "apps/output_policy.h"
#include "apps/read_batch.h"
#include "apps/read_parts.h"
#include "apps/summary_row.h"
#include "barcoding/barcode_manager.h"
#include "barcoding/barcode_scorer.h"
#include "common/bam_header.h"
#include "common/bam_reader.h"
#include "common/bam_record.h"
#include "common/barcode_trimmer.h"
#include "common/fastq_record.h"
#include "common/fastq_writer.h"
#include "common/logger.h"
#include "common/output_file.h"
#include "common/stop_signal.h"
#include "common/string_utils.h"
#include "pair_alignment/score_matrix.h"

namespace Vorpa {

namespace {

// A batch ends after this many bases or reads, whichever comes first. Cutting
// by bases keeps batches of very long reads from starving the workers and
// bounds memory; the cuts depend on the input alone, never on timing or the
// number of workers, so the output does not either. A batch of about a
// megabase is a few megabytes in flight and big enough that each output file
// gets a gzip member of useful size.
constexpr uint64_t kBatchBases = 1u << 20;
constexpr size_t kBatchReads = 4096;
// Batches in flight (queued, being processed, or waiting for the writer): each
// worker can hold one, and two more wait on either side.
size_t BatchesInFlight(size_t workers) {
    return workers + 2;
}

const char* SignalName(int sig) {
    return sig == SIGINT ? "SIGINT" : sig == SIGTERM ? "SIGTERM" : "a signal";
}

const char* const kUsage =
    "\nUsage:\n\n  vorpa_barcoder -i <input fastq path> -s <save path>\nWith "
    "kit name:\n  vorpa_barcoder -i <input "
    "fastq path> -s <save path> --barcode_kits <kit name>\nList supported "
    "barcoding kits:\n  vorpa_barcoder "
    "--print_kits\n\n";

constexpr unsigned kValue = Common::Parameters::CommandLine | Common::Parameters::ConfigFile;
constexpr unsigned kSwitch = Common::Parameters::Flag;
// A switch on the command line, "name = true" in the configuration file.
constexpr unsigned kSwitchOrKey = Common::Parameters::Switch;

}  // namespace

Barcoder::Barcoder() {
    usage_text = kUsage;
    use_async = true;
}

Barcoder::~Barcoder() {
    // Normally the threads are gone by now; this covers a run torn down early.
    if (pipeline) pipeline->Stop();
    StopThreads();
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
    AddOption<bool>(
        "reject_mixed_barcodes",
        "Leave a read unclassified when its two ends name different barcodes (a chimera): one end passes the "
        "minimum score and the other passes it for another barcode, or fails it but fits another barcode best "
        "and clearly better than random sequence. Reads with a barcode at one end only are still classified.",
        &o.reject_mixed_barcodes, kSwitchOrKey);
    AddOption<int>("min_barcode_quality",
                   "Leave a read unclassified when its barcode quality (the Phred-scaled probability that its "
                   "barcode is wrong, 0 to 60) is below this; 0 (default) keeps every call.",
                   &o.min_barcode_quality, kValue);
    AddOption<bool>(
        "barcode_quality_column",
        "Add a summary column 'barcode_quality': how sure the call is, -10 log10 of the probability that the "
        "read's barcode is wrong (another barcode or none), 0 to 60; 0 for unclassified reads.",
        &quality_columns.quality, kSwitchOrKey);
    AddOption<bool>(
        "barcode_evidence_columns",
        "Add summary columns with what the barcode quality is computed from, per end: the barcode's presence, "
        "its margins in substitutions over the best other barcode and over random sequence, the best other "
        "barcode's score and presence, and the bases searched (for refitting the quality model).",
        &quality_columns.evidence, kSwitchOrKey);
    AddOption<bool>(
        "unclassified_reason_column",
        "Add a last column 'barcode_unclassified_reason' to the summary: why a read was left unclassified (empty "
        "for classified reads).",
        &unclassified_reason_column, kSwitchOrKey);

    AddOption<std::string>(
        "internal_barcodes",
        "What to do with a read holding barcode constructs away from its ends (molecules ligated end to end): "
        "'ignore' (default: only the ends are looked at), 'reject' (leave it unclassified, reason 'internal "
        "barcode') or 'split' (cut it into its molecules, each classified and written as a read of its own, "
        "with the id <read id>_<k> and the tag parent_read_id).",
        &o.internal_barcodes, kValue);
    AddOption<int>("min_part_length",
                   "With --internal_barcodes split: parts shorter than this are not written (they are counted). "
                   "Default 100.",
                   &o.min_part_length, kValue);
    AddOption<bool>(
        "internal_count_column",
        "Add a last column 'barcode_internal_count' to the summary: the barcode constructs found inside the read "
        "(for a part of a split read, inside the read it was cut from). Needs --internal_barcodes reject or split.",
        &internal_count_column, kSwitchOrKey);

    AddOption<int>("records_per_fastq,q",
                   "Maximum number of records per fastq file, 0 means use a "
                   "single file (per run id).",
                   &records_per_fastq, kValue);
    AddOption<bool>("compress_fastq", "Compress fastq output files with gzip.", &compress_fastq, kSwitch);
    AddOption<std::string>("output_format",
                           "Output files as 'fastq' (default) or 'bam' (unaligned BAM, input tags kept, "
                           "the arrangement in tag ar).",
                           &output_format, kValue);
    AddOption<std::string>("sample_sheet",
                           "Tab-separated file with the columns 'arrangement' and 'sample': reads are filed "
                           "by sample, reads of arrangements it does not list as unclassified.",
                           &sample_sheet_path, kValue);
    AddOption<bool>(
        "resume",
        "Carry on in a save folder that an earlier run with --resume filled: input files it finished are skipped, "
        "a file it had only partly done is read on from where it got, and the output files, the summary and the "
        "reports are added to. In a new save folder: start afresh and keep the state that lets a later run "
        "resume.",
        &resume, kSwitchOrKey);
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

// Configuration errors end the run before any read is processed; main ends
// the process with the status of an option error. The message goes to the
// log and the console; with --quiet to standard error, so that a failed run
// never stays silent.
void Barcoder::FailRun(const std::string& message) {
    ReportError(message);
    throw RunRefused(message);
}

std::optional<int> Barcoder::OnParametersParsed() {
    if (!print_kits) return std::nullopt;
    PrintKits();
    return 0;
}

// Answers --print_kits without needing input or save paths; the program then
// ends.
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
}

int Barcoder::Run() {
    Common::InstallStopSignalHandlers();
    Common::RaiseOpenFileLimit();
    PrepareConfiguration();
    if (resume) PrepareResume();
    try {
        ReadProcessor::Run();
    } catch (const Common::OutputError& error) {
        // The summary could not even be opened: nothing was written.
        failure = error.what();
    }
    WaitForCompletion();
    if (running) running->Finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - run_start).count();
    StopThreads();
    try {
        if (writer) writer->Finalise();
        summary_file.Close();
    } catch (const std::exception& error) {
        if (failure.empty()) failure = error.what();
    }
    ReportRun(seconds);
    return ExitStatus();
}

int Barcoder::ExitStatus() const {
    if (!failure.empty()) return 1;
    const int sig = Common::StopSignal();
    return sig != 0 ? 128 + sig : 0;
}

// Everything that can reject the configuration happens here, before the read
// processor opens (and so truncates) the summary file: an error leaves the
// save folder as it was, apart from the log.
void Barcoder::PrepareConfiguration() {
    VB_LOG(logger, Common::Severity::info) << "QRX Vorpa barcoding software version " << VB_VERSION;
    try {
        Barcoding::ValidateScorerOptions(scorer_options);
        LogSettings();
        Common::RequireInRange("worker_threads", worker_threads, 1, Common::kMaxWorkerThreads);
        if (records_per_fastq < 0) {
            throw std::runtime_error("Invalid number of records per fastq file: " + std::to_string(records_per_fastq));
        }
        if (output_format != "fastq" && output_format != "bam") {
            throw std::runtime_error("Unknown output format '" + output_format + "': use fastq or bam");
        }
        bam_output = output_format == "bam";
        if (internal_count_column && scorer_options.internal_mode == Barcoding::InternalBarcodes::kIgnore)
            throw std::runtime_error(
                "--internal_count_column needs --internal_barcodes reject or split: with ignore no read is "
                "searched for internal barcodes");
        tally.internal.searched = scorer_options.internal_mode != Barcoding::InternalBarcodes::kIgnore;
        manager = std::make_shared<Barcoding::BarcodeManager>(
            Barcoding::BarcodeManager::SplitArrangementFiles(scorer_options.arrangements_files), data_path);
        // Selecting once up front turns an unknown kit into a run error rather
        // than a failure of every read, and fills the manager's cache.
        manager->GetArrangements(scorer_options.barcode_kits);
        WarnAboutKitDesign();
        LoadSamples();
        // A sheet of pairs wants both ends of every read already, although
        // each of the kit's sections names one barcode.
        if (!pair_design) CheckBothEndsRequirement();
        const auto matrix = PairAlignment::LoadMismatchMatrix(
            Barcoding::ResolveDataFile(scorer_options.score_matrix_filename, data_path));
        for (int i = 0; i < worker_threads; ++i) {
            scorers.push_back(
                std::make_shared<Barcoding::BarcodeScorer>(scorer_options, manager, matrix, device, pair_design));
        }
    } catch (const std::exception& error) {
        FailRun(error.what());
    }
    // The "first 10 results" lines need found sequences for ten results; the
    // usual run needs them for the best one only.
    detailed_results = verbose_logger.Enabled(Common::Severity::verbose) ? 10 : 1;
    output_policy.scorer = scorer_options;
    output_policy.bam = bam_output;
    output_policy.sample_sheet = sample_sheet ? &*sample_sheet : nullptr;
    output_policy.reason_column = unclassified_reason_column;
    output_policy.quality_columns = quality_columns;
    output_policy.internal_count_column = internal_count_column;
}

void Barcoder::LogSettings() {
    VB_LOG(logger, Common::Severity::info) << "input path: " << input_path;
    VB_LOG(logger, Common::Severity::info) << "save path: " << save_path;
    VB_LOG(logger, Common::Severity::info) << "arrangement files: " << scorer_options.arrangements_files;
    VB_LOG(logger, Common::Severity::info) << "min. score front: " << scorer_options.min_score;
    VB_LOG(logger, Common::Severity::info) << "min. score rear: " << scorer_options.min_score_rear_override;
    if (!device.empty()) VB_LOG(logger, Common::Severity::info) << "gpu device: " << device;
    if (output_format != "fastq") VB_LOG(logger, Common::Severity::info) << "output format: " << output_format;
    if (!sample_sheet_path.empty()) VB_LOG(logger, Common::Severity::info) << "sample sheet: " << sample_sheet_path;
}

// Reads go to folders named by sample; the sheet may only name arrangements
// the selected kits can report, or pairs of their single-barcode ones.
void Barcoder::LoadSamples() {
    if (sample_sheet_path.empty()) return;
    const auto& selected = manager->GetArrangements(scorer_options.barcode_kits);
    std::set<std::string> known;
    for (const auto& arrangement : selected)
        known.insert(arrangement.normalised_id);
    const auto pair_names = Barcoding::PairBarcodeNames(selected);
    sample_sheet = LoadSampleSheet(sample_sheet_path, known, {kUnclassified, GetSummaryFileName()},
                                   {pair_names.begin(), pair_names.end()});
    if (!sample_sheet->pairs.empty()) {
        pair_design = std::make_shared<Barcoding::PairDesign>(selected, *manager, sample_sheet->pairs);
        tally.unclassified_reasons.emplace(
            Barcoding::UnclassifiedReasonText(Barcoding::UnclassifiedReason::kPairNotInSheet), 0);
        if (scorer_options.reject_mixed_barcodes)
            VB_LOG(logger, Common::Severity::warning)
                << "A sample sheet of pairs expects different barcodes at the two ends of a read: "
                   "'reject_mixed_barcodes' does not apply to it.";
    }
    cross_talk_design = MakeCrossTalkDesign(*sample_sheet, {known.begin(), known.end()});
    // Every sample shows in the report, also one that gets no reads.
    for (const auto& sample : sample_sheet->samples)
        tally.samples[sample] = 0;
}

// Two mistakes in a kit of one's own that no read would show: a reference
// longer than its end's window is never seen whole (every read fails it a
// little, and a kit of such references classifies nothing), and two
// arrangements of one kit with the same sequences at both ends cannot be told
// apart (every read of either is called the first).
void Barcoder::WarnAboutKitDesign() {
    std::set<std::string> warned;
    std::map<std::string, std::string> named_by;  // kit and both ends' sequences -> normalised id
    for (const auto& arrangement : manager->GetArrangements(scorer_options.barcode_kits)) {
        auto sequence = [&](const std::string& name) { return name.empty() ? "" : manager->GetBarcodeSequence(name); };
        const std::string key =
            arrangement.kit + '\n' + sequence(arrangement.barcode1) + '\n' + sequence(arrangement.barcode2);
        const auto [first, added] = named_by.emplace(key, arrangement.normalised_id);
        if (!added && first->second != arrangement.normalised_id &&
            warned.insert(first->second + '\n' + arrangement.normalised_id).second)
            VB_LOG(logger, Common::Severity::warning)
                << "Arrangements '" << first->second << "' and '" << arrangement.normalised_id << "' of kit '"
                << arrangement.kit << "' carry the same barcode sequences and cannot be told apart: their reads "
                << "are all called '" << first->second << "'.";
        for (const bool front : {true, false}) {
            const std::string& name = front ? arrangement.barcode1 : arrangement.barcode2;
            const int window = front ? scorer_options.front_window_size : scorer_options.rear_window_size;
            if (name.empty() || !warned.insert(name + (front ? "\n1" : "\n2")).second) continue;
            const size_t length = manager->GetBarcodeSequence(name).size();
            if (length <= static_cast<size_t>(window)) continue;
            const char* side = front ? "front" : "rear";
            VB_LOG(logger, Common::Severity::warning)
                << "Barcode '" << name << "' is " << length << " bases long, longer than the " << side << " window ("
                << window << " bases): it cannot be found whole there. Raise --" << side
                << "_window_size to its length plus the bases that may precede it.";
        }
    }
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
    if (!append_summary)
        summary_file.Write(SummaryHeader(scorer_options.trim_barcodes, sample_sheet.has_value(),
                                         unclassified_reason_column, quality_columns, internal_count_column));
    Common::FastqWriterOptions options;
    options.compress = compress_fastq;
    options.records_per_fastq = static_cast<unsigned>(records_per_fastq);
    options.format = bam_output ? Common::OutputFormat::bam : Common::OutputFormat::fastq;
    writer = std::make_unique<Common::FastqWriter>(std::vector<std::string>{save_path}, options);
    if (resume) {
        try {
            for (const auto& change : writer->Resume(earlier_outputs))
                VB_LOG(logger, Common::Severity::info)
                    << "Resuming: " << change << " (written after the last saved state)";
        } catch (const std::exception& error) {
            FailRun(error.what());
        }
    }
    pipeline = std::make_unique<OrderedPipeline<ReadBatch>>(BatchesInFlight(scorers.size()));
    pending = std::make_unique<ReadBatch>();
    BarcoderWorker::Settings settings;
    settings.detailed_results = detailed_results;
    settings.compress = compress_fastq || bam_output;
    settings.bam = bam_output;
    settings.keep_text = settings.compress && records_per_fastq > 0;
    settings.internal = scorer_options.internal_mode;
    settings.min_part_length = scorer_options.min_part_length;
    try {
        for (auto& scorer : scorers) {
            workers.push_back(std::make_unique<BarcoderWorker>(*this, *pipeline, scorer, settings));
            workers.back()->Start();
        }
        writer_thread = std::thread([this] { WriterLoop(); });
    } catch (const std::exception& error) {
        pipeline->Stop();
        StopThreads();
        FailRun(error.what());
    }
    run_start = std::chrono::steady_clock::now();
    last_checkpoint = last_page = run_start;
}

// The BAM header needs the read groups of every input before the first output
// file is created, so the inputs' headers are read now. While watching, the
// files found later add theirs for the output files created after them.
void Barcoder::OnInputFilesFound(const std::vector<std::string>& files) {
    if (!bam_output) return;
    for (const auto& file : files) {
        if (!Common::IsBamFileName(file)) continue;
        try {
            for (const auto& warning : Common::MergeReadGroups(read_groups, Common::ReadGroupLines(file), file))
                VB_LOG(logger, Common::Severity::warning) << warning;
        } catch (const std::exception&) {
            // Reported when the file is read in its turn.
        }
    }
    writer->SetFileHeader(
        Common::EncodeBamHeader(Common::BamHeaderText(read_groups, VB_VERSION, Common::ProcessCommandLine())));
}

// The writer keeps one series of files per arrangement folder and run id for
// the whole run, so a new input continues those series rather than starting
// over them (which would overwrite the reads of earlier inputs).
void Barcoder::StartNewFile(const std::string& /*path*/) {
    std::error_code error;
    if (!save_path.empty() && !std::filesystem::exists(save_path, error)) {
        VB_LOG(logger, Common::Severity::info) << "Creating output folder " << save_path;
        std::filesystem::create_directories(save_path);
    }
}

void Barcoder::ProcessRead(const Common::FastQRecord& /*record*/) {
    throw std::runtime_error("Non-async barcoding no longer supported!");
}

// Adds the read to the batch being filled and submits the batch when full.
// 0 once the run has stopped (a failed write, a signal): reading ends.
int Barcoder::SubmitRead(Common::FastQRecord&& record) {
    if (!pipeline || pipeline->Stopped()) return 0;
    ++reading.reads;
    pending->bases += record.sequence.size();
    pending->reads.push_back(std::move(record));
    if (pending->bases >= kBatchBases || pending->reads.size() >= kBatchReads) SubmitPending();
    return pipeline->Stopped() ? 0 : 1;
}

// A file's end rides with the batch holding its last read, so that the writer
// reports the file done once all of its reads are written. Batches run on
// across files: no wait here.
void Barcoder::EndOfInputFile(const InputFileEnd& end) {
    reading = InputFileEnd{};
    if (!pending) return;
    pending->file_ends.push_back(end);
}

// Files are known by their canonical path, so that a run that names the
// input folder differently still finds them.
uint64_t Barcoder::RecordsAlreadyDone(const InputFileEnd& file) {
    if (!resume) return 0;
    std::error_code error;
    const std::string key = std::filesystem::weakly_canonical(file.path, error).string();
    reading = file;
    reading.path = error ? file.path : key;
    reading.reads = 0;
    const auto found = earlier_inputs.find(reading.path);
    if (found == earlier_inputs.end()) return 0;
    const InputProgress& earlier = found->second;
    const bool changed = earlier.size != file.size || earlier.mtime_ns != file.mtime_ns;
    if (earlier.finished) {
        if (changed)
            VB_LOG(logger, Common::Severity::warning)
                << "The input file '" << file.path << "' changed since an earlier run read it; it is not read again.";
        reading = InputFileEnd{};
        return kWholeFileDone;
    }
    if (changed)
        VB_LOG(logger, Common::Severity::warning)
            << "The input file '" << file.path << "' changed since an earlier run began it; reading on after its first "
            << earlier.records << " records.";
    reading.resumed = earlier.records;
    return earlier.records;
}

void Barcoder::SubmitPending() {
    if (pending->reads.empty() && pending->file_ends.empty()) return;
    if (resume) pending->reading = reading;
    pipeline->Submit(std::move(*pending));
    pending = std::make_unique<ReadBatch>();
}

void Barcoder::WaitForCompletion() {
    if (!pipeline) return;
    SubmitPending();
    pipeline->Close();
    pipeline->WaitUntilEmitted();
}

bool Barcoder::ShouldStopReading() const {
    return ReadProcessor::ShouldStopReading() || (pipeline && pipeline->Stopped());
}

void Barcoder::FailPipeline(const std::string& message) {
    {
        std::lock_guard<std::mutex> lock(output_mutex);
        if (failure.empty()) failure = message;
    }
    pipeline->Stop();
}

void Barcoder::StopThreads() {
    for (auto& worker : workers)
        worker->Join();
    workers.clear();
    if (writer_thread.joinable()) writer_thread.join();
}

void Barcoder::WriterLoop() {
    ReadBatch batch;
    while (pipeline->NextInOrder(batch)) {
        EmitBatch(batch);
        pipeline->Emitted();
    }
}

// A batch is written whole or not at all: FASTQ chunks first, then the
// summary rows, so that the summary never lists a read whose record is not
// in the FASTQ output; if any write fails, everything this batch wrote is cut
// off again, the run stops reading and ends with the error.
void Barcoder::EmitBatch(ReadBatch& batch) {
    std::lock_guard<std::mutex> lock(output_mutex);
    if (!failure.empty()) return;
    const uint64_t summary_size = summary_file.Size();
    writer->BeginBatch();
    try {
        for (const auto& chunk : batch.chunks)
            writer->Append(chunk);
        summary_file.Write(batch.summary);
        writer->CommitBatch();
    } catch (const std::exception& error) {
        failure = error.what();
        try {
            writer->RollbackBatch();
            Common::TruncateOutputFile(summary_file.Path(), summary_size);
        } catch (const std::exception& undo) {
            failure += std::string(" (") + undo.what() + ")";
        }
        pipeline->Stop();
        return;
    }
    tally.Add(batch.tally);
    AddSampleReads(batch.read_samples);
    for (const auto& end : batch.file_ends) {
        tally.records_skipped += end.skipped;
        if (end.failed) {
            ++tally.files_failed;
        } else if (!end.cut_short) {
            ++tally.files_read;
            if (!end.error.empty()) ++tally.files_ended_early;
        }
        AdvanceProgress(tally.Written());
    }
    if (!resume) return;
    try {
        Checkpoint(batch);
    } catch (const std::exception& error) {
        failure = error.what();
        pipeline->Stop();
    }
}

// Runs under output_mutex on the writer thread, after the batch is written:
// the state it saves never claims more than the files hold.
void Barcoder::Checkpoint(const ReadBatch& batch) {
    for (const auto& end : batch.file_ends) {
        std::error_code error;
        const std::string key = std::filesystem::weakly_canonical(end.path, error).string();
        inputs[error ? end.path : key] = {end.size, end.mtime_ns, end.resumed + end.reads, !end.cut_short};
    }
    if (!batch.reading.path.empty()) {
        const InputFileEnd& file = batch.reading;
        inputs[file.path] = {file.size, file.mtime_ns, file.resumed + file.reads, false};
    }
    const auto now = std::chrono::steady_clock::now();
    if (batch.file_ends.empty() && now - last_checkpoint < std::chrono::seconds(1)) return;
    last_checkpoint = now;
    ResumeState state;
    state.summary_size = summary_file.Size();
    state.wall_time_s = earlier_wall_time_s + std::chrono::duration<double>(now - run_start).count();
    state.outputs = writer->Snapshot();
    state.inputs = inputs;
    SaveResumeState(std::move(state));
}

// The state with this run's options and figures, replacing the file whole.
void Barcoder::SaveResumeState(ResumeState state) const {
    state.options = OptionValues();
    state.tally = tally;
    WriteFileAtomically((std::filesystem::path(save_path) / kResumeStateFileName).string(), FormatResumeState(state));
}

// An earlier run's state is taken over whole, or the run stops before it
// changes anything: a save folder with output but no state cannot be resumed
// (the output of its last moments cannot be told apart), nor one written with
// other output options.
void Barcoder::PrepareResume() {
    namespace fs = std::filesystem;
    const fs::path folder(save_path);
    const fs::path state_path = folder / kResumeStateFileName;
    const fs::path summary_path = folder / GetSummaryFileName();
    std::error_code error;
    if (!fs::exists(state_path, error)) {
        if (fs::exists(summary_path, error) && fs::file_size(summary_path, error) > 0)
            FailRun("Cannot resume in '" + save_path +
                    "': it holds the output of a run that was not started with "
                    "--resume (there is no " +
                    kResumeStateFileName + "). Use another save folder, or leave out --resume to start over.");
        // A new run's state before it writes anything, not even the summary's
        // header: nothing read, no output file. Without it a run killed
        // before its first checkpoint would leave output and no state, which
        // --resume must refuse; with it the next run starts over in the same
        // folder (the summary written again from its header, every output
        // file removed).
        try {
            SaveResumeState(ResumeState{});
        } catch (const std::exception& problem) {
            FailRun(problem.what());
        }
        return;
    }
    ResumeState state;
    try {
        std::ifstream in(state_path, std::ios::binary);
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!in.good() && !in.eof()) throw std::runtime_error("Could not read '" + state_path.string() + "'");
        state = ParseResumeState(text, state_path.string());
    } catch (const std::exception& problem) {
        FailRun(problem.what());
    }
    const std::vector<std::string> differ = OptionsThatDiffer(state.options, OptionValues());
    if (!differ.empty()) {
        std::string list;
        for (const auto& option : differ)
            list += (list.empty() ? "" : "; ") + option;
        FailRun("Cannot resume in '" + save_path + "': the earlier run wrote its output with other options: " + list);
    }
    const uint64_t summary_size = fs::exists(summary_path, error) ? fs::file_size(summary_path, error) : 0;
    if (summary_size < state.summary_size)
        FailRun("Cannot resume: '" + summary_path.string() + "' holds " + std::to_string(summary_size) +
                " bytes, fewer than the " + std::to_string(state.summary_size) + " the earlier run had written.");
    // From here on the folder is changed: the earlier run's last unsaved
    // rows go, and a report from a finished earlier run no longer describes
    // the folder until this run writes its own.
    try {
        Common::TruncateOutputFile(summary_path.string(), state.summary_size);
    } catch (const std::exception& problem) {
        FailRun(problem.what());
    }
    fs::remove(folder / kJsonReportFileName, error);
    append_summary = state.summary_size > 0;  // 0: a starting state, the summary begins again
    const std::map<std::string, uint64_t> samples = std::move(tally.samples);
    tally = std::move(state.tally);
    for (const auto& [sample, reads] : samples)
        tally.samples.try_emplace(sample, reads);
    earlier_inputs = state.inputs;
    inputs = std::move(state.inputs);
    earlier_outputs = std::move(state.outputs);
    earlier_wall_time_s = state.wall_time_s;
    uint64_t finished = 0;
    for (const auto& [path, input] : earlier_inputs)
        finished += input.finished ? 1 : 0;
    VB_LOG(logger, Common::Severity::info) << "Resuming the run in " << save_path << ": " << tally.Written()
                                           << " reads written, " << finished << " input files finished.";
}

// While watching: the reads held back for a full batch go on (so a quiet
// input folder does not keep the last reads from the output), and the pages
// are refreshed every two minutes.
void Barcoder::OnWatchIdle() {
    if (pending) SubmitPending();
    const auto now = std::chrono::steady_clock::now();
    if (now - last_page < std::chrono::minutes(2)) return;
    last_page = now;
    RunTally figures;
    {
        std::lock_guard<std::mutex> lock(output_mutex);
        figures = tally;
    }
    figures.files_found = input_files_found;
    const double seconds = earlier_wall_time_s + std::chrono::duration<double>(now - run_start).count();
    try {
        WriteReports(figures, RunInfo{VB_VERSION, OptionValues(), seconds, false});
    } catch (const std::exception& error) {
        VB_LOG(logger, Common::Severity::warning) << "Could not refresh the report: " << error.what();
    }
}

void Barcoder::WriteResults(const std::vector<Barcoding::ArrangementDetectResult>& results, Common::FastQRecord& record,
                            ReadBatch& batch, const ReadExtras& extras) {
    // Per worker thread: its strings keep their capacity from read to read.
    thread_local ReadOutput out;
    // Decided before anything of the read is in the batch: it may refuse the read.
    DecideOutput(record, results, output_policy, out, extras);

    if (verbose_logger.Enabled(Common::Severity::verbose)) {
        std::string text = "first 10 results of front & rear barcode detection: ";
        const size_t shown = std::min<size_t>(results.size(), 10);
        for (size_t i = 0; i < shown; ++i) {
            text += '\n';
            text += Barcoding::ToString(results[i]);
        }
        VB_LOG(verbose_logger, Common::Severity::verbose) << text;
    }
    if (results.empty()) VB_LOG(logger, Common::Severity::warning) << "all arrangements below min_score";

    // The amounts are already clamped to what the read can give.
    if (out.trim.front > 0) Common::BarcodeTrimmer::TrimFront(out.trim.front, record.sequence, record.qstring);
    if (out.trim.rear > 0) Common::BarcodeTrimmer::TrimRear(out.trim.rear, record.sequence, record.qstring);
    auto& chunk = batch.ChunkFor(out.folder, out.run_id);
    if (bam_output) {
        Common::AppendBamRecord(chunk.text, record.ReadId(), record.sequence, record.qstring, out.bam_tags);
        chunk.record_ends.push_back(chunk.text.size());
    } else {
        record.title.append(1, ' ').append(out.title_tag);
        // Written from the record itself unless a worker compresses the text.
        if (compress_fastq) {
            chunk.AddRecord(record);
        } else {
            chunk.AddRecordView(record);
        }
    }
    batch.summary += out.summary_row;

    RunTally& tally = batch.tally;
    if (out.mixed) ++tally.mixed;
    if (*out.reason != '\0') {
        // Looked up by the text itself: no string is made for a reason already counted.
        const auto counted = tally.unclassified_reasons.find(std::string_view(out.reason));
        if (counted != tally.unclassified_reasons.end())
            ++counted->second;
        else
            tally.unclassified_reasons.emplace(out.reason, 1);
    }
    // Bases as written: after trimming.
    tally.NoteRead(out.arrangement, record.sequence.size(), out.score, out.error_probability, out.candidate_quality);
    if (out.sample != nullptr) batch.read_samples.push_back(static_cast<uint32_t>(out.sample_number));
    if (!out.unlisted.empty()) ++tally.unlisted[out.unlisted];
}

// A batch's reads by sample number into the run's tally by name. Every listed
// sample is in it from the start (LoadSamples, or the earlier run's state),
// so its entries stay where they are and are found once; "unclassified" is
// there only once it has reads, as the report shows it only then.
void Barcoder::AddSampleReads(const std::vector<uint32_t>& read_samples) {
    if (read_samples.empty()) return;
    const auto& samples = sample_sheet->samples;
    if (sample_counts.empty())
        for (const auto& sample : samples)
            sample_counts.push_back(&tally.samples[sample]);
    uint64_t unclassified = 0;
    for (const uint32_t number : read_samples) {
        if (number < samples.size()) {
            ++*sample_counts[number];
        } else {
            ++unclassified;
        }
    }
    if (unclassified > 0) tally.samples[kUnclassified] += unclassified;
}

// The report goes to the log (and the console unless quiet). What stopped a
// run early, and reads lost on the way, also go to standard error: a quiet
// run must not lose reads without a word.
void Barcoder::ReportRun(double seconds) {
    tally.files_found = input_files_found;
    const auto cross_talk = EstimateCrossTalk(tally);
    logger.WriteAll(Common::Severity::info, FormatRunReport(tally, seconds, cross_talk ? &*cross_talk : nullptr));
    const unsigned long long written = tally.Written();
    std::string alarm;
    if (!failure.empty()) {
        // Most failures are whole sentences already; one full stop, not two.
        const bool sentence = failure.back() == '.';
        alarm = "Stopped: " + failure + (sentence ? " " : ". ") + std::to_string(written) +
                " reads were written (each with its summary row); the rest of the input was not processed.";
    } else if (const int sig = Common::StopSignal(); sig != 0) {
        alarm = std::string("Interrupted by ") + SignalName(sig) + ": stopped reading; " + std::to_string(written) +
                " reads were written (each with its summary row) and every output file was closed.";
    }
    if (!alarm.empty()) ReportError(alarm);
    if (quiet && (tally.dropped + tally.failed + tally.files_ended_early + tally.files_failed) > 0) {
        std::cerr << "Warning: " << tally.dropped << " reads without a run id and " << tally.failed
                  << " reads that failed were not written; " << tally.files_ended_early
                  << " input files ended early and " << tally.files_failed << " could not be read. See the log in "
                  << save_path << "." << std::endl;
    }
    if (!failure.empty() || Common::StopSignal() != 0) return;
    try {
        WriteReports(tally, RunInfo{VB_VERSION, OptionValues(), earlier_wall_time_s + seconds, true, cross_talk});
    } catch (const std::exception& error) {
        // Every read is written, but a workflow waiting for the report would
        // take the run for unfinished: say so, and end with the output status.
        failure = std::string("Could not write the run report: ") + error.what();
        ReportError(failure);
    }
}

std::optional<CrossTalkEstimate> Barcoder::EstimateCrossTalk(const RunTally& figures) const {
    if (!cross_talk_design) return std::nullopt;
    std::map<std::string, uint64_t> listed;
    for (const auto& [name, counts] : figures.arrangements)
        if (name != kUnclassified) listed[name] = counts.reads;
    return Vorpa::EstimateCrossTalk(*cross_talk_design, listed, figures.unlisted);
}

// The pages for people and for MultiQC first; the JSON report last, once
// every output file is closed, and only for a run that finished: its presence
// tells a workflow that the save folder is complete.
void Barcoder::WriteReports(const RunTally& figures, RunInfo info) const {
    if (!info.cross_talk) info.cross_talk = EstimateCrossTalk(figures);
    const std::filesystem::path folder(save_path);
    WriteFileAtomically((folder / kHtmlReportFileName).string(), FormatHtmlReport(figures, info));
    WriteFileAtomically((folder / kMultiqcReadsFileName).string(), FormatMultiqcReads(figures));
    WriteFileAtomically((folder / kMultiqcStatsFileName).string(), FormatMultiqcStats(figures));
    if (info.finished) WriteFileAtomically((folder / kJsonReportFileName).string(), FormatJsonReport(figures, info));
}

}  // namespace Vorpa
