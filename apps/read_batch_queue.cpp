#include "apps/read_batch_queue.h"

#include <utility>

namespace Vorpa {

ReadBatchQueue::ReadBatchQueue(size_t max_batches) : max_batches_(max_batches == 0 ? 1 : max_batches) {}

void ReadBatchQueue::Push(ReadBatch&& batch) {
    if (batch.empty()) return;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        not_full_.wait(lock, [this] { return batches_.size() < max_batches_ || closed_; });
        batches_.push_back(std::move(batch));
    }
    not_empty_.notify_one();
}

bool ReadBatchQueue::Pop(ReadBatch& batch) {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        not_empty_.wait(lock, [this] { return !batches_.empty() || closed_; });
        if (batches_.empty()) return false;
        batch = std::move(batches_.front());
        batches_.pop_front();
    }
    not_full_.notify_one();
    return true;
}

void ReadBatchQueue::Close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    not_empty_.notify_all();
    not_full_.notify_all();
}

}  // namespace Vorpa
