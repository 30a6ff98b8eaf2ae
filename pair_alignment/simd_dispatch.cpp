// Compiled with baseline flags: it must run on any x86-64 processor, since it
// is what decides whether the wider builds may be called at all.

#include "pair_alignment/simd_dispatch.h"

#include <atomic>
#include <cstdlib>
#include <stdexcept>

#include "pair_alignment/fast_align.h"

namespace PairAlignment {

namespace {

const SimdKernels kGeneric = {"generic", Core::FillBandGeneric, Core::ScoreLanes16Generic, Core::ScoreLanes32Generic};
const SimdKernels kSse41 = {"sse41", Core::FillBandSse41, Core::ScoreLanes16Sse41, Core::ScoreLanes32Sse41};
const SimdKernels kAvx2 = {"avx2", Core::FillBandAvx2, Core::ScoreLanes16Avx2, Core::ScoreLanes32Avx2};

bool Supported(const SimdKernels& kernels) {
    __builtin_cpu_init();
    if (&kernels == &kAvx2) return __builtin_cpu_supports("avx2");
    if (&kernels == &kSse41) return __builtin_cpu_supports("sse4.1");
    return true;
}

const SimdKernels& ByName(const std::string& name, const std::string& origin) {
    const SimdKernels* kernels = nullptr;
    for (const SimdKernels* candidate : {&kGeneric, &kSse41, &kAvx2})
        if (name == candidate->name) kernels = candidate;
    if (kernels == nullptr)
        throw std::runtime_error("Unknown SIMD build \"" + name + "\"" + origin +
                                 " (expected generic, sse41 or avx2).");
    if (!Supported(*kernels))
        throw std::runtime_error("SIMD build \"" + name + "\"" + origin + " is not supported by this processor.");
    return *kernels;
}

const SimdKernels* Detect() {
    const char* forced = std::getenv("VB_SIMD");
    if (forced != nullptr && *forced != '\0') return &ByName(forced, " in VB_SIMD");
    if (Supported(kAvx2)) return &kAvx2;
    if (Supported(kSse41)) return &kSse41;
    return &kGeneric;
}

std::atomic<const SimdKernels*> forced_kernels{nullptr};

}  // namespace

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

void ForceSimdBuild(const std::string& name) {
    forced_kernels.store(&ByName(name, ""), std::memory_order_release);
}

const char* ActiveSimdBuild() {
    return ActiveKernels().name;
}

}  // namespace PairAlignment
