#pragma once
// The three-step flow of a run: one thread submits numbered batches, any
// number of workers process them in whatever order they get to them, and one
// writer takes them back strictly in submission order.
//
//   Submit(batch)        Take(batch) ... Finish(batch)        NextInOrder(batch) ... Emitted()
//   reading thread       workers                              writer thread
//
// Memory is bounded by tickets: a batch holds one from Submit until the writer
// calls Emitted, and Submit blocks while every ticket is out. Results wait in a
// ring of as many slots as there are tickets, indexed by sequence number, so
// the writer never searches and never sees a batch out of order; output is
// therefore the same whatever the number of workers.
//
// Stop() is for faults (a failed write, a signal): it wakes everyone, Submit
// and Take return false from then on, batches in flight are dropped, and the
// writer gets nothing more. Close() is the normal end: no more submissions,
// and NextInOrder returns false once everything submitted has been emitted.
//
// Batch must be movable, default-constructible and have a `uint64_t sequence`
// member, which Submit sets.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace Vorpa {

template <typename Batch>
class OrderedPipeline {
public:
    explicit OrderedPipeline(size_t max_in_flight) : slots_(max_in_flight == 0 ? 1 : max_in_flight) {}

    // Numbers the batch and queues it for the workers. Blocks while
    // max_in_flight batches are submitted but not yet emitted. Returns false,
    // dropping the batch, once the pipeline is stopped or closed.
    bool Submit(Batch&& batch) {
        std::unique_lock<std::mutex> lock(mutex_);
        ticket_free_.wait(lock, [this] { return stopped_ || submitted_ - emitted_ < slots_.size(); });
        if (stopped_ || closed_) return false;
        batch.sequence = submitted_++;
        work_.push_back(std::move(batch));
        lock.unlock();
        work_ready_.notify_one();
        return true;
    }

    // Worker side: the next batch to process. False once the pipeline is
    // stopped, or closed with no work left.
    bool Take(Batch& batch) {
        std::unique_lock<std::mutex> lock(mutex_);
        work_ready_.wait(lock, [this] { return stopped_ || closed_ || !work_.empty(); });
        if (stopped_ || work_.empty()) return false;
        batch = std::move(work_.front());
        work_.pop_front();
        return true;
    }

    // Worker side: the batch is processed and ready for the writer.
    void Finish(Batch&& batch) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (stopped_) return;
        const uint64_t sequence = batch.sequence;
        slots_[sequence % slots_.size()].emplace(std::move(batch));
        const bool next = sequence == emitted_;
        lock.unlock();
        if (next) result_ready_.notify_one();
    }

    // Writer side: the batch that follows the last one emitted, waiting for a
    // worker to finish it. False once stopped, or closed and all emitted.
    // The writer must call Emitted() after each batch it gets.
    bool NextInOrder(Batch& batch) {
        std::unique_lock<std::mutex> lock(mutex_);
        auto& slot = slots_[emitted_ % slots_.size()];
        result_ready_.wait(lock, [&] { return stopped_ || slot.has_value() || (closed_ && emitted_ == submitted_); });
        if (stopped_ || !slot.has_value()) return false;
        batch = std::move(*slot);
        slot.reset();
        return true;
    }

    // Writer side: the batch from the last NextInOrder has been written; its
    // ticket goes back to the submitter.
    void Emitted() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++emitted_;
        }
        ticket_free_.notify_one();
        result_ready_.notify_one();
        all_emitted_.notify_all();
    }

    // No more submissions; workers and writer drain what is queued.
    void Close() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
        }
        WakeAll();
    }

    // Abandons everything in flight (see the header comment).
    void Stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopped_ = true;
            work_.clear();
            for (auto& slot : slots_)
                slot.reset();
        }
        WakeAll();
    }

    // Without the lock: the reading thread asks for every read.
    bool Stopped() const { return stopped_.load(std::memory_order_acquire); }

    // Blocks until every batch submitted so far has been emitted, or the
    // pipeline is stopped.
    void WaitUntilEmitted() {
        std::unique_lock<std::mutex> lock(mutex_);
        all_emitted_.wait(lock, [this] { return stopped_ || emitted_ == submitted_; });
    }

private:
    void WakeAll() {
        ticket_free_.notify_all();
        work_ready_.notify_all();
        result_ready_.notify_all();
        all_emitted_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable ticket_free_;
    std::condition_variable work_ready_;
    std::condition_variable result_ready_;
    std::condition_variable all_emitted_;
    std::deque<Batch> work_;
    std::vector<std::optional<Batch>> slots_;
    uint64_t submitted_ = 0;
    uint64_t emitted_ = 0;
    bool closed_ = false;
    // Set under the mutex, like everything else; atomic so that Stopped()
    // can read it without.
    std::atomic<bool> stopped_ = false;
};

}  // namespace Vorpa
