#pragma once
// Run-time choice among the generic, SSE4.1 and AVX2 builds of the aligner's
// core routines (see simd/fast_align_core.h). The choice is made once, from the
// processor's features or the environment variable VB_SIMD.

#include <string>

#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment {

struct SimdKernels {
    const char* name;  // "generic", "sse41" or "avx2"
    Core::FillBandFn fill_band;
    Core::ScoreLanesFn score_lanes16;
    Core::ScoreLanesFn score_lanes32;
};

// The build in use; the first call decides (and throws if VB_SIMD names an
// unknown build or one this processor cannot run).
const SimdKernels& ActiveKernels();

// The readable build, whatever is active (used where a build needs the 4 x 4
// matrix and the aligner has another).
const SimdKernels& GenericKernels();

// Makes name ("generic", "sse41", "avx2") the active build for the whole
// process, as VB_SIMD would; for tests and benchmarks. Throws
// std::runtime_error for an unknown or unsupported name.
void ForceSimdBuild(const std::string& name);

}  // namespace PairAlignment
