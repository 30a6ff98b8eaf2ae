#pragma once
// Entry points of the per-instruction-set builds of the aligner's core
// routines. Each simd/*_<isa>.cpp file is compiled with its own flags and
// defines the functions with its suffix; only simd_dispatch.cpp, built with
// baseline flags, chooses among them. Everything here is plain data so that no
// inline library code is shared between differently compiled objects.

#include <cstddef>
#include <cstdint>

#include "pair_alignment/score_limits.h"

namespace PairAlignment::Core {

// Readable elements before and after the padded sequence copies and score rows,
// so vector loads may run past the band's ends.
constexpr int kPad = 32;

// The six internal (negated) gap costs.
struct Costs {
    int start1, end1, open1, start2, end2, open2;
};

// One banded alignment: fill the trace matrix, return the score of (l1, l2).
//
// The generic build follows the band position by position with three score
// rows of band positions and a separate routine for each diagonal's two edge
// cells. The vector builds index their rows by query index instead, with
// sentinel guards just outside the band, and take each cell's gap costs from
// per-position arrays, so one vector loop covers the whole diagonal, edges and
// matrix borders included. Both give identical scores and traces as long as
// every impossible candidate stays below every real one, which the caller
// guarantees by handing the vector builds only jobs within kLimit32 (or
// kLimit16 with lanes16 set) - see fast_align.cpp.
struct BandJob {
    int l1 = 0, l2 = 0, width = 0;
    const int* ref = nullptr;     // l1 codes
    const int* query = nullptr;   // l2 codes
    const int* matrix = nullptr;  // n x n, row = reference code
    int n = 0;
    Costs costs{};
    const int* offsets = nullptr;  // l1 + l2 + 1 band offsets and lengths
    const int* lengths = nullptr;
    uint8_t* trace = nullptr;                    // (l1 + l2 + 1) * width codes, plus kPad writable bytes
    int* rows[3] = {nullptr, nullptr, nullptr};  // max(width, l2 + 3) + kPad ints each
    int* match = nullptr;                        // width + kPad ints

    // For the vector builds only (the matrix is then 4 x 4). Indexed by
    // k = l1 - i for reference position i, or by query index j, and readable
    // over [-kPad, length + kPad):
    const uint8_t* ref_rev8 = nullptr;   // [k] = ref[i - 1], zero outside
    const uint8_t* query8 = nullptr;     // [j] = query[j], zero outside
    const int* up_cost = nullptr;        // [k] = gap cost of a reference gap at i (start1, open1, end1)
    const int* right_cost = nullptr;     // [j] = gap cost of a query gap at j (start2, open2, end2)
    const int16_t* up_cost16 = nullptr;  // the same in 16 bits, when lanes16
    const int16_t* right_cost16 = nullptr;
    bool lanes16 = false;  // scores fit 16-bit lanes (within kLimit16)
    // For the 8-bit band kernel (band_diff_kernel.h) only:
    int8_t* diffs = nullptr;  // 2 * (l1 + l2) bytes of work space
};
using FillBandFn = int (*)(const BandJob&);

// Many references of one length l1 against one query, one lane per reference,
// scores only. Lanes come in blocks of the build's block width: 32 bytes (16
// lanes of int16_t or 8 of int32_t) for the generic, SSE4.1 and AVX2 builds,
// 128 bytes (64 or 32 lanes, two registers) for AVX-512; the 8-bit kernel's
// blocks are 32 bytes (32 lanes), and 64 (one register) for AVX-512. profile
// holds, per
// block, for reference position i and query code b, the block of matrix
// scores M(reference_lane[i], b) at ((i * n) + b) * lanes. profile and rows
// start on a 64-byte boundary. The caller guarantees that no score of the band
// comes near the lane type's range (see fast_align.cpp), so the kernels need
// no overflow checks.
struct LaneJob {
    int l1 = 0, l2 = 0, n = 0;
    const int* query = nullptr;  // l2 codes
    Costs costs{};
    const int* offsets = nullptr;  // band of (l1, l2)
    const int* lengths = nullptr;
    const void* profile = nullptr;  // blocks * l1 * n lane blocks
    int blocks = 0;
    void* rows = nullptr;          // 4 * (l2 + 3) lane blocks of work space (8-bit: l2 + 1 + l1 * n)
    int* scores = nullptr;         // blocks * lanes results
    int* query_offsets = nullptr;  // 8-bit kernel: l2 ints of work space
};
using ScoreLanesFn = void (*)(const LaneJob&);
constexpr int kNarrowBlockBytes = 32;
constexpr int kWideBlockBytes = 128;
constexpr int kByteBlockBytes = 32;
constexpr int kWideByteBlockBytes = 64;
// The impossible score of each lane type. A kernel may be used only when
// (l1 + l2 + 1) * (largest |matrix element| or |gap cost|) is at most the
// limit: then every band score lies within (l1 + l2) * that cost of zero, and
// the sentinel plus any one cost stays below all of them without overflowing.
constexpr int kSentinel16 = -32768;
constexpr long long kLimit16 = 32000;
constexpr int kSentinel32 = -1000000000;
constexpr long long kLimit32 = kMaxScoreRange32;
// The 8-bit kernel (diff_kernel.h) needs, besides kLimit16, a band over the
// whole matrix, no start gap dearer than an open one (start1 >= open1 and
// start2 >= open2 in the negated costs) and every cost within this.
constexpr int kLimit8Cost = 25;
// The 8-bit band kernel (band_diff_kernel.h) holds a diagonal in at most three
// byte blocks of registers: it takes the shorter sequence up to this length.
constexpr int kBandBytesMaxLength = 3 * kByteBlockBytes + 1;

// One build's kernels. Each build's object defines its table, constant-
// initialised, so that the dispatcher's own tables are constant too.
struct BuildKernels {
    FillBandFn fill_band;
    ScoreLanesFn score_lanes16;
    ScoreLanesFn score_lanes32;
    ScoreLanesFn score_lanes8;  // diff_kernel.h
    FillBandFn fill_band8;      // band_diff_kernel.h
};
extern const BuildKernels kGenericBuild;
extern const BuildKernels kSse41Build;
extern const BuildKernels kAvx2Build;
// Single alignments gain nothing from 512-bit registers at barcode lengths, so
// the AVX-512 build's band routines are the AVX2 ones (every AVX-512BW
// processor has AVX2).
extern const BuildKernels kAvx512Build;
int FillBandGeneric(const BandJob& job);
int FillBandAvx2(const BandJob& job);
int FillBandDiffsAvx2(const BandJob& job);

}  // namespace PairAlignment::Core
