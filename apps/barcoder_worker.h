#pragma once
// One barcoder worker thread: takes read batches off the queue, scores each
// read with its own scorer and hands the results to the barcoder's output.

#include <cstdint>
#include <future>
#include <memory>
#include <thread>

#include "apps/read_batch_queue.h"

namespace Barcoding {
class BarcodeScorer;
}

namespace Vorpa {

class Barcoder;

class BarcoderWorker {
public:
    // detailed_results: how many leading results need their found sequences.
    BarcoderWorker(Barcoder& owner, ReadBatchQueue& queue, std::shared_ptr<Barcoding::BarcodeScorer> scorer,
                   size_t detailed_results);
    ~BarcoderWorker();
    BarcoderWorker(const BarcoderWorker&) = delete;
    BarcoderWorker& operator=(const BarcoderWorker&) = delete;

    // Throws std::runtime_error "Could not start worker thread".
    void Start();
    // Waits until the queue is closed and drained; the loop's status.
    int Join();
    // Reads dropped for want of a run id; valid after Join.
    uint64_t DroppedReads() const { return dropped_; }

private:
    int WorkerLoop();
    void ProcessOne(Common::FastQRecord& record);

    Barcoder& owner_;
    ReadBatchQueue& queue_;
    std::shared_ptr<Barcoding::BarcodeScorer> scorer_;
    size_t detailed_results_;
    uint64_t dropped_ = 0;
    std::future<int> status_;
    std::thread thread_;
};

}  // namespace Vorpa
