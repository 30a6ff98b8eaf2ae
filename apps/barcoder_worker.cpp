#include "apps/barcoder_worker.h"

#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "apps/barcoder.h"
#include "apps/read_parts.h"
#include "barcoding/barcode_scorer.h"
#include "barcoding/molecule_parts.h"
#include "common/bam_record.h"
#include "common/fastq_record.h"
#include "common/logger.h"
#include "common/string_utils.h"

namespace Vorpa {

namespace {

const Common::Logger& WorkerLogger() {
    static const Common::Logger logger("read_processor");
    return logger;
}

const Common::Logger& WorkerVerboseLogger() {
    static const Common::Logger logger("read_processor_verbose");
    return logger;
}

}  // namespace

BarcoderWorker::BarcoderWorker(Barcoder& owner, OrderedPipeline<ReadBatch>& pipeline,
                               std::shared_ptr<Barcoding::BarcodeScorer> scorer, const Settings& settings)
    : owner_(owner), pipeline_(pipeline), scorer_(std::move(scorer)), settings_(settings) {
    if (settings_.compress)
        compressor_ = std::make_unique<Common::OutputCompressor>(settings_.bam ? Common::OutputFormat::bam
                                                                               : Common::OutputFormat::fastq);
}

BarcoderWorker::~BarcoderWorker() {
    // Only reached without Join when the run is torn down early; the owner
    // stops or closes the pipeline first, so the loop ends.
    if (thread_.joinable()) thread_.join();
}

void BarcoderWorker::Start() {
    std::packaged_task<int()> task([this] { return WorkerLoop(); });
    status_ = task.get_future();
    try {
        thread_ = std::thread(std::move(task));
    } catch (const std::system_error&) {
        throw std::runtime_error("Could not start worker thread");
    }
}

int BarcoderWorker::Join() {
    if (thread_.joinable()) thread_.join();
    return status_.valid() ? status_.get() : 0;
}

int BarcoderWorker::WorkerLoop() {
    ReadBatch batch;
    while (pipeline_.Take(batch)) {
        try {
            ProcessBatch(batch);
        } catch (const std::exception& error) {
            // Per-read failures are handled below; this is a failure of the
            // batch as a whole (memory, compression), which no later batch
            // can make up for: the run stops rather than lose reads silently.
            owner_.FailPipeline(std::string("Processing a batch of reads failed: ") + error.what());
            return 1;
        }
        pipeline_.Finish(std::move(batch));
    }
    return 0;
}

void BarcoderWorker::ProcessBatch(ReadBatch& batch) {
    prepared_.clear();
    for (const auto& record : batch.reads)
        prepared_.push_back(&record.sequence);
    scorer_->Prepare(prepared_);
    for (auto& record : batch.reads)
        ProcessOne(record, batch);
    // Plain FASTQ chunks point into the reads, which go to the writer with them.
    if (!compressor_) return;
    // Else the input is no longer needed; free it before the batch waits for the writer.
    std::vector<Common::FastQRecord>().swap(batch.reads);
    std::vector<std::vector<Common::FastQRecord>>().swap(batch.parts);
    for (auto& chunk : batch.chunks) {
        compressor_->Append(chunk.text, chunk.gzip);
        if (!settings_.keep_text) std::string().swap(chunk.text);
    }
}

// Every read of a batch ends here exactly once: formatted for output, dropped
// for want of a run id, or logged as failed. None of these stops the worker.
void BarcoderWorker::ProcessOne(Common::FastQRecord& record, ReadBatch& batch) {
    try {
        if (!record.HasRunId()) {
            // GetRunId logs what the title lacks (and throws for a record without one).
            record.GetRunId();
            VB_LOG(WorkerLogger(), Common::Severity::error)
                << "Unable to detect run ID for read with ID " << record.GetReadId()
                << ". This read will not be processed.";
            ++batch.tally.dropped;
            return;
        }
        CheckRunId(record.RunId());
        auto results = scorer_->Score(record.sequence, settings_.detailed_results);
        if (settings_.internal == Barcoding::InternalBarcodes::kIgnore) {
            owner_.WriteResults(results, record, batch);
        } else {
            const auto& internal = scorer_->InternalConstructs(record.sequence);
            ReadExtras extras;
            extras.internal_count = static_cast<int>(internal.size());
            if (!internal.empty()) ++batch.tally.internal.reads;
            if (internal.empty() || settings_.internal == Barcoding::InternalBarcodes::kReject) {
                if (!internal.empty()) Barcoding::RejectForInternalBarcodes(results);
                owner_.WriteResults(results, record, batch, extras);
            } else {
                WriteParts(record, internal, batch);
            }
        }
        VB_LOG(WorkerVerboseLogger(), Common::Severity::verbose) << "Done with read " << record.ReadId();
    } catch (const std::exception& error) {
        VB_LOG(WorkerLogger(), Common::Severity::error) << "Error while processing read " << record.ReadId() << ": "
                                                        << error.what() << ". Continuing with next read.";
        ++batch.tally.failed;
    }
}

// Cuts a read with internal barcode constructs into its molecules and writes
// each part long enough as a read of its own, scored by its own ends. The
// parts are all made (and their names checked) before the first is written,
// so that a read fails whole or is written whole.
void BarcoderWorker::WriteParts(const Common::FastQRecord& record,
                                const std::vector<Barcoding::FoundConstruct>& internal, ReadBatch& batch) {
    ReadExtras extras;
    extras.internal_count = static_cast<int>(internal.size());
    extras.parent_read_id = record.ReadId();
    std::vector<Common::FastQRecord> parts;
    uint64_t dropped = 0;
    for (const auto& part :
         Barcoding::CutIntoMolecules(static_cast<int>(record.sequence.size()), internal, settings_.min_part_length)) {
        if (!part.kept) {
            ++dropped;
            continue;
        }
        parts.push_back(MakeReadPart(record, part.begin, part.end, static_cast<int>(parts.size()) + 1));
        if (settings_.bam && !Common::ValidBamReadName(parts.back().ReadId()))
            throw std::runtime_error("the part id '" + std::string(parts.back().ReadId()) +
                                     "' cannot be a BAM read name");
    }
    // Kept with the batch: its chunks may point into them.
    for (auto& part : batch.parts.emplace_back(std::move(parts))) {
        const auto results = scorer_->Score(part.sequence, settings_.detailed_results);
        owner_.WriteResults(results, part, batch, extras);
    }
    batch.tally.internal.parts += batch.parts.back().size();
    batch.tally.internal.parts_dropped += dropped;
}

// A run id names output files, so it must be one harmless file-name
// component. Reads come in long stretches of one run: the last run id found
// usable is remembered, so each is checked once per stretch, not per read.
void BarcoderWorker::CheckRunId(std::string_view run_id) {
    if (!run_id.empty() && run_id == usable_run_id_) return;  // never empty once set
    if (!Common::IsUsableFileNameComponent(run_id))
        throw std::runtime_error("the run id '" + std::string(run_id) + "' cannot be used in a file name");
    usable_run_id_ = run_id;
}

}  // namespace Vorpa
