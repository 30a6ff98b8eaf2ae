#pragma once
// Entry points of the "fastalign" kernel image. Written once for two
// compilers: nvcc builds them into the image (fastalign.cu), and host code that
// includes pair_alignment/cuda/cuda_emulation.h first can run them thread by thread.

#if !defined(__CUDACC__)
#include "pair_alignment/cuda/cuda_emulation.h"
#define VB_KERNEL inline
#define VB_ALIGN_BOUNDS
#define VB_BATCH_BOUNDS
#else
#define VB_KERNEL extern "C" __global__
// A launch has up to maxThreads threads: registers are budgeted for that.
#define VB_ALIGN_BOUNDS __launch_bounds__(FastAlignKernels::maxThreads)
#define VB_BATCH_BOUNDS __launch_bounds__(FastAlignKernels::batchThreads)
#endif

#include "pair_alignment/cuda/align_thread.h"

namespace FastAlignKernels {

// codes[k] = table[characters[k] as a signed byte, taken modulo 256] for k <
// count; thread t handles k = t, t + blockWidth, ... Launched as one block of
// blockWidth threads.
VB_KERNEL void SeqToInts(const char* characters, int* codes, int count, const int* table) {
    for (int k = static_cast<int>(threadIdx.x); k < count; k += blockWidth)
        codes[k] = table[static_cast<unsigned char>(static_cast<signed char>(characters[k]))];
}

// Thread t aligns reference t (references + t * config[1], referenceLengths[t]
// codes) against the query (*queryLength codes) with band width config[0],
// writing scores[t], pathLengths[t] and its path block: pathLengths[t]
// (reference index, query index) int pairs at paths + t * 2 * (rows - 1).
// Each thread's work areas start at thread index times width (score and match
// rows), times rows (band offsets and lengths) and times rows * width (trace).
VB_KERNEL void VB_ALIGN_BOUNDS Align(const int* matrix, const int* gapCosts, const int* config, const int* references,
                                     const int* referenceLengths, const int* query, const int* queryLength, int* rowA,
                                     int* rowB, int* rowC, int* matchRow, int* bandOffsets, int* bandLengths,
                                     unsigned char* trace, int* scores, int* paths, int* pathLengths, int width,
                                     int rows) {
    const int t = static_cast<int>(threadIdx.x);
    int localMatrix[subMatrixSize * subMatrixSize];
    for (int k = 0; k < subMatrixSize * subMatrixSize; ++k)
        localMatrix[k] = matrix[k];
    int gaps[6];
    for (int k = 0; k < 6; ++k)
        gaps[k] = gapCosts[k];

    ThreadWork work;
    work.rows[0] = rowA + t * width;
    work.rows[1] = rowB + t * width;
    work.rows[2] = rowC + t * width;
    work.match = matchRow + t * width;
    work.band_offsets = bandOffsets + t * rows;
    work.band_lengths = bandLengths + t * rows;
    work.trace = trace + static_cast<long long>(t) * rows * width;

    int pathLength = 0;
    scores[t] = AlignThread(localMatrix, gaps, config[0], references + t * config[1], referenceLengths[t], query,
                            *queryLength, work, paths + 2 * t * (rows - 1), pathLength);
    pathLengths[t] = pathLength;
}

// Scores of many windows against every reference, one thread per pair:
// thread g of the grid (blocks of batchThreads) scores window g / referenceCount
// against reference g % referenceCount, so that the threads of a warp share
// their window. Window w is windows[windowOffsets[w] .. windowOffsets[w + 1]),
// reference k references[k * referenceStride ..] of referenceLengths[k] codes;
// scores[g] is the score AlignThread returns. config: band width (odd, with
// rows of at most maxBatchRowWidth), referenceStride, referenceCount,
// windowCount.
VB_KERNEL void VB_BATCH_BOUNDS ScoreBatch(const int* matrix, const int* gapCosts, const int* config,
                                          const unsigned char* references, const int* referenceLengths,
                                          const unsigned char* windows, const int* windowOffsets, int* scores) {
    const int referenceCount = config[2];
    const long long g = static_cast<long long>(blockIdx.x) * batchThreads + threadIdx.x;
    if (g >= static_cast<long long>(config[3]) * referenceCount) return;
    const int w = static_cast<int>(g / referenceCount);
    const int k = static_cast<int>(g % referenceCount);
    int localMatrix[subMatrixSize * subMatrixSize];
    for (int m = 0; m < subMatrixSize * subMatrixSize; ++m)
        localMatrix[m] = matrix[m];
    int gaps[6];
    for (int m = 0; m < 6; ++m)
        gaps[m] = gapCosts[m];
    int rows[3][maxBatchRowWidth];
    const int begin = windowOffsets[w];
    scores[g] =
        ScoreThread(localMatrix, gaps, config[0], references + static_cast<long long>(k) * config[1],
                    referenceLengths[k], windows + begin, windowOffsets[w + 1] - begin, rows[0], rows[1], rows[2]);
}

}  // namespace FastAlignKernels
