#pragma once
// A bounded queue of read batches between the feeding thread and the barcoder
// workers. Reads travel in batches so that one lock round-trip moves many
// reads; the bound keeps memory flat when the workers fall behind the reader.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <vector>

#include "common/fastq_record.h"

namespace Vorpa {

using ReadBatch = std::vector<Common::FastQRecord>;

class ReadBatchQueue {
public:
    explicit ReadBatchQueue(size_t max_batches);

    // Blocks while the queue is full. An empty batch is ignored.
    void Push(ReadBatch&& batch);
    // Blocks until a batch is available; false once the queue is closed and drained.
    bool Pop(ReadBatch& batch);
    // Wakes every waiting Pop; batches already queued are still handed out.
    void Close();

private:
    const size_t max_batches_;
    std::mutex mutex_;
    std::condition_variable not_empty_;
    std::condition_variable not_full_;
    std::deque<ReadBatch> batches_;
    bool closed_ = false;
};

}  // namespace Vorpa
