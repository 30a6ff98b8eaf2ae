// Each thread adds its ScoreBatch calls to its own counters, so recording
// takes no lock and shares no cache line; the counters are atomics only so
// that a summary may read them while their thread runs. A thread that ends
// folds its counters into the retired total first.
//
// The time of a call is wall time: a per-thread CPU clock costs a system call
// (about a microsecond here, a tenth of a barcode-sized call). On a busy
// machine a call during which the scheduler hands the CPU to another process
// lasts milliseconds instead of microseconds, and a few such calls would
// dominate the total. They stand out: a call that took more than
// kInterruptedFactor times the thread's fastest time per cell so far is
// counted as interrupted and left out of the cells and seconds (its number is
// reported). What remains is the kernel's speed while it runs, comparable with
// a benchmark's CPU-time figure.

#include "pair_alignment/kernel_stats.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <vector>

#include "pair_alignment/fast_align.h"

namespace PairAlignment {

namespace {

constexpr double kInterruptedFactor = 2.0;

std::atomic<bool> enabled{[] {
    const char* value = std::getenv("VB_KERNEL_STATS");
    return value != nullptr && std::strcmp(value, "1") == 0;
}()};

struct ThreadCounters;

struct Registry {
    std::mutex mutex;
    std::vector<ThreadCounters*> live;
    KernelStats retired;
    int64_t retired_nanoseconds = 0;
};

// Never destroyed: threads may end (and fold their counters in) during exit.
Registry& GetRegistry() {
    static Registry* const registry = new Registry;
    return *registry;
}

struct ThreadCounters {
    std::atomic<int64_t> cells{0};
    std::atomic<int64_t> nanoseconds{0};
    std::atomic<int64_t> calls{0};
    std::atomic<int64_t> interrupted{0};
    std::atomic<int64_t> every_cell{0};
    std::atomic<int64_t> byte_cells{0};
    double best = 0;  // fastest nanoseconds per cell so far; this thread only (and ResetKernelStats)

    ThreadCounters() {
        Registry& registry = GetRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        registry.live.push_back(this);
    }
    ~ThreadCounters() {
        Registry& registry = GetRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        registry.retired.cells += cells.load(std::memory_order_relaxed);
        registry.retired_nanoseconds += nanoseconds.load(std::memory_order_relaxed);
        registry.retired.calls += calls.load(std::memory_order_relaxed);
        registry.retired.interrupted += interrupted.load(std::memory_order_relaxed);
        registry.retired.every_cell += every_cell.load(std::memory_order_relaxed);
        registry.retired.byte_cells += byte_cells.load(std::memory_order_relaxed);
        registry.live.erase(std::find(registry.live.begin(), registry.live.end(), this));
    }
    void Reset() {
        for (auto* counter : {&cells, &nanoseconds, &calls, &interrupted, &every_cell, &byte_cells})
            counter->store(0, std::memory_order_relaxed);
        best = 0;  // the pace too: the calls to come may be of another kind
    }
};

ThreadCounters& Mine() {
    thread_local ThreadCounters counters;
    return counters;
}

// Only the owning thread writes, so a load and a store suffice.
void Add(std::atomic<int64_t>& counter, int64_t value) {
    counter.store(counter.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
}

}  // namespace

bool KernelStatsEnabled() {
    return enabled.load(std::memory_order_relaxed);
}

void SetKernelStatsEnabled(bool on) {
    enabled.store(on, std::memory_order_relaxed);
}

void RecordKernelCall(int64_t cells, int64_t nanoseconds, int64_t byte_cells) {
    if (cells <= 0) return;
    ThreadCounters& mine = Mine();
    Add(mine.calls, 1);
    Add(mine.every_cell, cells);
    Add(mine.byte_cells, byte_cells);
    const double per_cell = static_cast<double>(nanoseconds) / static_cast<double>(cells);
    if (mine.best > 0 && per_cell > kInterruptedFactor * mine.best) {
        Add(mine.interrupted, 1);
        return;
    }
    if (mine.best == 0 || per_cell < mine.best) mine.best = per_cell;
    Add(mine.cells, cells);
    Add(mine.nanoseconds, nanoseconds);
}

KernelStats KernelStatsTotal() {
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    KernelStats total = registry.retired;
    int64_t nanoseconds = registry.retired_nanoseconds;
    for (const ThreadCounters* counters : registry.live) {
        total.cells += counters->cells.load(std::memory_order_relaxed);
        nanoseconds += counters->nanoseconds.load(std::memory_order_relaxed);
        total.calls += counters->calls.load(std::memory_order_relaxed);
        total.interrupted += counters->interrupted.load(std::memory_order_relaxed);
        total.every_cell += counters->every_cell.load(std::memory_order_relaxed);
        total.byte_cells += counters->byte_cells.load(std::memory_order_relaxed);
    }
    total.seconds = static_cast<double>(nanoseconds) * 1e-9;
    return total;
}

void ResetKernelStats() {
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.retired = KernelStats{};
    registry.retired_nanoseconds = 0;
    for (ThreadCounters* counters : registry.live)
        counters->Reset();
}

std::string KernelStatsSummary() {
    const KernelStats total = KernelStatsTotal();
    std::string build;
    try {
        build = ActiveSimdBuild();
    } catch (const std::exception&) {
        build = "no build chosen";  // VB_SIMD was refused; no call ran
    }
    const double gcups = total.seconds > 0 ? static_cast<double>(total.cells) / total.seconds * 1e-9 : 0.0;
    char line[256];
    const double bytes = total.every_cell > 0 ? 100.0 * total.byte_cells / total.every_cell : 0.0;
    std::snprintf(line, sizeof(line), "Alignment kernel: %lld cells in %.3f s, %.2f GCUPS (%s), %.0f %% in 8-bit lanes",
                  static_cast<long long>(total.cells), total.seconds, gcups, build.c_str(), bytes);
    std::string summary = line;
    if (total.interrupted > 0) {
        std::snprintf(line, sizeof(line), "; %lld of %lld calls left out as interrupted",
                      static_cast<long long>(total.interrupted), static_cast<long long>(total.calls));
        summary += line;
    }
    return summary;
}

}  // namespace PairAlignment
