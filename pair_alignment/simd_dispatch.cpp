// Compiled with baseline flags: it must run on any x86-64 processor, since it
// is what decides whether the wider builds may be called at all.

#include "pair_alignment/simd_dispatch.h"

#include <cpuid.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <stdexcept>

#include "pair_alignment/fast_align.h"

namespace PairAlignment {

namespace {

using Core::kNarrowBlockBytes;
using Core::kWideBlockBytes;

const SimdKernels kGeneric = {"generic", Core::kGenericBuild, kNarrowBlockBytes, Core::kByteBlockBytes};
const SimdKernels kSse41 = {"sse41", Core::kSse41Build, kNarrowBlockBytes, Core::kByteBlockBytes};
const SimdKernels kAvx2 = {"avx2", Core::kAvx2Build, kNarrowBlockBytes, Core::kByteBlockBytes};
const SimdKernels kAvx512 = {"avx512", Core::kAvx512Build, kWideBlockBytes, Core::kWideByteBlockBytes};

// Widest first: the order in which an unforced choice tries them.
const SimdKernels* const kBuilds[] = {&kAvx512, &kAvx2, &kSse41, &kGeneric};

bool Bit(uint64_t word, int bit) {
    return (word >> bit) & 1;
}

bool Runs(const SimdKernels& kernels, const CpuFeatures& cpu) {
    if (&kernels == &kAvx512) return cpu.avx512bw;
    if (&kernels == &kAvx2) return cpu.avx2;
    if (&kernels == &kSse41) return cpu.sse41;
    return true;
}

uint64_t ReadXcr0() {
    uint32_t low = 0, high = 0;
    // xgetbv by opcode, so that this file needs no -mxsave.
    __asm__ volatile(".byte 0x0f, 0x01, 0xd0" : "=a"(low), "=d"(high) : "c"(0));
    return (uint64_t{high} << 32) | low;
}

const SimdKernels* Detect() {
    const char* forced = std::getenv("VB_SIMD");
    return &SelectKernels(forced != nullptr ? forced : "", ProbeCpuFeatures(), " in VB_SIMD");
}

std::atomic<const SimdKernels*> forced_kernels{nullptr};

}  // namespace

CpuFeatures DecodeCpuFeatures(uint32_t leaf1_ecx, uint32_t leaf7_ebx, uint64_t xcr0) {
    CpuFeatures cpu;
    cpu.sse41 = Bit(leaf1_ecx, 19);
    // XCR0 bits 1 and 2: SSE and AVX (YMM upper halves) state; bits 5 to 7:
    // opmask registers, ZMM upper halves and ZMM16-31.
    const bool os_saves = Bit(leaf1_ecx, 27);
    const bool ymm_state = os_saves && (xcr0 & 0x6) == 0x6;
    const bool zmm_state = os_saves && (xcr0 & 0xe6) == 0xe6;
    cpu.avx2 = ymm_state && Bit(leaf1_ecx, 28) && Bit(leaf7_ebx, 5);
    cpu.avx512bw = cpu.avx2 && zmm_state && Bit(leaf7_ebx, 16) && Bit(leaf7_ebx, 30) && Bit(leaf7_ebx, 31);
    return cpu;
}

CpuFeatures ProbeCpuFeatures() {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return {};
    const uint32_t leaf1_ecx = ecx;
    const uint64_t xcr0 = Bit(leaf1_ecx, 27) ? ReadXcr0() : 0;
    uint32_t leaf7_ebx = 0;
    if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) leaf7_ebx = ebx;
    return DecodeCpuFeatures(leaf1_ecx, leaf7_ebx, xcr0);
}

const SimdKernels& SelectKernels(const std::string& name, const CpuFeatures& cpu, const std::string& origin) {
    if (name.empty()) {
        for (const SimdKernels* kernels : kBuilds)
            if (Runs(*kernels, cpu)) return *kernels;
    }
    for (const SimdKernels* kernels : kBuilds) {
        if (name != kernels->name) continue;
        if (!Runs(*kernels, cpu))
            throw std::runtime_error("SIMD build \"" + name + "\"" + origin + " is not supported by this processor.");
        return *kernels;
    }
    throw std::runtime_error("Unknown SIMD build \"" + name + "\"" + origin +
                             " (expected generic, sse41, avx2 or avx512).");
}

const SimdKernels& ActiveKernels() {
    if (const SimdKernels* forced = forced_kernels.load(std::memory_order_acquire)) return *forced;
    // A throwing initialiser leaves the static uninitialised, so a bad VB_SIMD
    // is reported again on every call rather than silently replaced.
    static const SimdKernels* const detected = Detect();
    return *detected;
}

const SimdKernels& GenericKernels() {
    return kGeneric;
}

namespace {

// Each block width among the builds this processor can run, once.
std::vector<int> RunnableWidths(int SimdKernels::*width) {
    const CpuFeatures cpu = ProbeCpuFeatures();
    std::vector<int> found;
    for (const SimdKernels* kernels : kBuilds)
        if (Runs(*kernels, cpu) && std::find(found.begin(), found.end(), kernels->*width) == found.end())
            found.push_back(kernels->*width);
    return found;
}

}  // namespace

const std::vector<int>& RunnableBlockBytes() {
    static const std::vector<int> widths = RunnableWidths(&SimdKernels::block_bytes);
    return widths;
}

const std::vector<int>& RunnableByteBlockBytes() {
    static const std::vector<int> widths = RunnableWidths(&SimdKernels::block_bytes8);
    return widths;
}

void ForceSimdBuild(const std::string& name) {
    forced_kernels.store(&SelectKernels(name, ProbeCpuFeatures()), std::memory_order_release);
}

const char* ActiveSimdBuild() {
    return ActiveKernels().name;
}

}  // namespace PairAlignment
