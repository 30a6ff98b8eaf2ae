#pragma once
// Run-time choice among the generic, SSE4.1, AVX2 and AVX-512BW builds of the
// aligner's core routines (see simd/fast_align_core.h). The choice is made
// once, from the processor's features or the environment variable VB_SIMD.

#include <cstdint>
#include <string>
#include <vector>

#include "pair_alignment/simd/fast_align_core.h"

namespace PairAlignment {

struct SimdKernels {
    const char* name;  // "generic", "sse41", "avx2" or "avx512"
    const Core::BuildKernels& core;
    int block_bytes;   // lane block width of the score kernels' profiles and rows
    int block_bytes8;  // the same for the 8-bit kernel
};

// What the processor offers and the operating system has enabled: a vector
// extension is usable only when the OS saves its registers (XCR0), whatever
// CPUID says.
struct CpuFeatures {
    bool sse41 = false;
    bool avx2 = false;
    bool avx512bw = false;  // with AVX-512F and VL, and the ZMM state enabled
};

// Decodes CPUID leaf 1 ECX, leaf 7 (subleaf 0) EBX and XCR0 (meaningful only
// when leaf 1 reports OSXSAVE).
CpuFeatures DecodeCpuFeatures(uint32_t leaf1_ecx, uint32_t leaf7_ebx, uint64_t xcr0);
// This processor's features.
CpuFeatures ProbeCpuFeatures();

// The build that name selects on a processor with cpu; an empty name picks the
// widest usable build. Throws std::runtime_error, with origin appended to the
// build's name, for an unknown name or one the processor cannot run.
const SimdKernels& SelectKernels(const std::string& name, const CpuFeatures& cpu, const std::string& origin = "");

// The build in use; the first call decides (and throws if VB_SIMD names an
// unknown build or one this processor cannot run).
const SimdKernels& ActiveKernels();

// The readable build, whatever is active (used where a build needs the 4 x 4
// matrix and the aligner has another).
const SimdKernels& GenericKernels();

// Lane block widths of every build this processor can run, each once: a
// prepared reference batch holds a profile for each, so it serves whichever
// build is active.
const std::vector<int>& RunnableBlockBytes();
// The same for the 8-bit kernel.
const std::vector<int>& RunnableByteBlockBytes();

}  // namespace PairAlignment
