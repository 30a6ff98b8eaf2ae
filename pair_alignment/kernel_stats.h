#pragma once
// Opt-in counters of the many-reference score kernel (FastAlign::ScoreBatch):
// cells computed and seconds spent, kept per thread and summed on request.
// Off unless the environment variable VB_KERNEL_STATS is 1 (read once) or a
// test or benchmark turns them on; when off, ScoreBatch only tests a flag.
// How interrupted calls are told apart: kernel_stats.cpp.

#include <cstdint>
#include <string>

namespace PairAlignment {

struct KernelStats {
    int64_t cells = 0;        // (L1 + 1) * (L2 + 1) per reference, over the calls kept
    double seconds = 0;       // wall time of the calls kept
    int64_t calls = 0;        // every call recorded
    int64_t interrupted = 0;  // calls left out: the thread lost its CPU during them
    // Over every call, interrupted or not: all cells, and those computed in
    // 8-bit lanes (simd/diff_kernel.h).
    int64_t every_cell = 0;
    int64_t byte_cells = 0;
};

bool KernelStatsEnabled();
void SetKernelStatsEnabled(bool on);

// Adds one ScoreBatch call to the calling thread's counters; byte_cells of
// its cells were computed in 8-bit lanes.
void RecordKernelCall(int64_t cells, int64_t nanoseconds, int64_t byte_cells = 0);

// Sum over every thread that recorded a call, ended threads included.
KernelStats KernelStatsTotal();
// Zeroes every counter; only while no other thread records calls.
void ResetKernelStats();

// "Alignment kernel: <cells> cells in <s> s, <x> GCUPS (<build>), <p> % in
// 8-bit lanes", followed by how many calls were left out when there were any.
std::string KernelStatsSummary();

}  // namespace PairAlignment
