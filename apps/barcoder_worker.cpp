#include "apps/barcoder_worker.h"

#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "apps/barcoder.h"
#include "barcoding/barcode_scorer.h"
#include "common/fastq_record.h"
#include "common/logger.h"

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

// For messages only: a record without a usable title still gets a name.
std::string ReadIdForMessage(const Common::FastQRecord& record) {
    try {
        return record.GetReadId();
    } catch (const std::exception&) {
        return Common::kInvalidReadId;
    }
}

}  // namespace

BarcoderWorker::BarcoderWorker(Barcoder& owner, ReadBatchQueue& queue, std::shared_ptr<Barcoding::BarcodeScorer> scorer,
                               size_t detailed_results)
    : owner_(owner), queue_(queue), scorer_(std::move(scorer)), detailed_results_(detailed_results) {}

BarcoderWorker::~BarcoderWorker() {
    // Only reached without Join when the run is being torn down early; the
    // owner closes the queue first, so the loop ends.
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
    while (queue_.Pop(batch)) {
        for (auto& record : batch)
            ProcessOne(record);
        owner_.ReadsDone(batch.size());
        batch.clear();
    }
    return 0;
}

// Every read taken off the queue ends here exactly once: written, dropped for
// want of a run id, or logged as failed. None of these stops the worker.
void BarcoderWorker::ProcessOne(Common::FastQRecord& record) {
    try {
        if (record.GetRunId() == Common::kInvalidRunId) {
            VB_LOG(WorkerLogger(), Common::Severity::error)
                << "Unable to detect run ID for read with ID " << record.GetReadId()
                << ". This read will not be processed.";
            ++dropped_;
            return;
        }
        const auto results = scorer_->Score(record.sequence, detailed_results_);
        owner_.WriteResults(results, record);
        VB_LOG(WorkerVerboseLogger(), Common::Severity::verbose) << "Done with read " << record.GetReadId();
    } catch (const std::exception& error) {
        VB_LOG(WorkerLogger(), Common::Severity::error) << "Error while processing read " << ReadIdForMessage(record)
                                                        << ": " << error.what() << ". Continuing with next read.";
    }
}

}  // namespace Vorpa
