// Choosing the aligner's build: what the processor and OS allow, what
// VB_SIMD or ForceSimdBuild ask for, and the errors for builds that cannot
// run here.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "pair_alignment/fast_align.h"
#include "pair_alignment/simd_dispatch.h"
#include "tests/support/error_of.h"

using namespace PairAlignment;

namespace {

// CPUID leaf 1 ECX: SSE4.1 (19), OSXSAVE (27), AVX (28). Leaf 7 EBX: AVX2
// (5), AVX-512F (16), AVX-512BW (30), AVX-512VL (31). XCR0: SSE and AVX
// state (0x6), opmask and ZMM state (0xe0).
constexpr uint32_t kLeaf1All = (1u << 19) | (1u << 27) | (1u << 28);
constexpr uint32_t kLeaf7All = (1u << 5) | (1u << 16) | (1u << 30) | (1u << 31);
constexpr uint64_t kXcr0All = 0xe7;

std::string ErrorOf(const std::string& name, const CpuFeatures& cpu) {
    const std::string error = TestSupport::ErrorOf([&] { SelectKernels(name, cpu); });
    return error == "(no error)" ? "" : error;
}

class SimdDispatchTest : public ::testing::Test {
protected:
    void SetUp() override { original_ = ActiveSimdBuild(); }
    void TearDown() override { ForceSimdBuild(original_); }
    std::string original_;
};

}  // namespace

TEST(CpuFeatures, ExtensionsNeedTheOperatingSystemToSaveTheirRegisters) {
    const CpuFeatures all = DecodeCpuFeatures(kLeaf1All, kLeaf7All, kXcr0All);
    EXPECT_TRUE(all.sse41 && all.avx2 && all.avx512bw);

    // The processor has AVX-512, but the OS saves only the YMM state.
    const CpuFeatures no_zmm = DecodeCpuFeatures(kLeaf1All, kLeaf7All, 0x7);
    EXPECT_TRUE(no_zmm.avx2);
    EXPECT_FALSE(no_zmm.avx512bw);

    // No OSXSAVE: XCR0 cannot be read, so nothing past SSE is usable.
    const CpuFeatures no_xsave = DecodeCpuFeatures(kLeaf1All & ~(1u << 27), kLeaf7All, kXcr0All);
    EXPECT_TRUE(no_xsave.sse41);
    EXPECT_FALSE(no_xsave.avx2 || no_xsave.avx512bw);

    // Each of F, BW and VL is required.
    for (int bit : {16, 30, 31}) {
        EXPECT_FALSE(DecodeCpuFeatures(kLeaf1All, kLeaf7All & ~(1u << bit), kXcr0All).avx512bw) << bit;
        EXPECT_TRUE(DecodeCpuFeatures(kLeaf1All, kLeaf7All & ~(1u << bit), kXcr0All).avx2) << bit;
    }
    EXPECT_FALSE(DecodeCpuFeatures(kLeaf1All, kLeaf7All & ~(1u << 5), kXcr0All).avx512bw);
    EXPECT_FALSE(DecodeCpuFeatures(0, 0, 0).sse41);
}

TEST(SelectKernels, PicksTheWidestUsableBuildAndRefusesTheOthers) {
    CpuFeatures cpu;
    EXPECT_STREQ(SelectKernels("", cpu).name, "generic");
    cpu.sse41 = true;
    EXPECT_STREQ(SelectKernels("", cpu).name, "sse41");
    cpu.avx2 = true;
    EXPECT_STREQ(SelectKernels("", cpu).name, "avx2");
    EXPECT_EQ(ErrorOf("avx512", cpu), "SIMD build \"avx512\" is not supported by this processor.");
    EXPECT_STREQ(SelectKernels("sse41", cpu).name, "sse41");
    cpu.avx512bw = true;
    EXPECT_STREQ(SelectKernels("", cpu).name, "avx512");
    EXPECT_STREQ(SelectKernels("generic", cpu).name, "generic");

    EXPECT_EQ(ErrorOf("avx2", CpuFeatures{}), "SIMD build \"avx2\" is not supported by this processor.");
    EXPECT_EQ(ErrorOf("avx1024", cpu), "Unknown SIMD build \"avx1024\" (expected generic, sse41, avx2 or avx512).");
    EXPECT_EQ(ErrorOf("AVX2", cpu), "Unknown SIMD build \"AVX2\" (expected generic, sse41, avx2 or avx512).");

    // The wide build's blocks are what its kernels and the profiles share.
    EXPECT_EQ(SelectKernels("avx512", cpu).block_bytes, Core::kWideBlockBytes);
    EXPECT_EQ(SelectKernels("avx2", cpu).block_bytes, Core::kNarrowBlockBytes);
}

TEST_F(SimdDispatchTest, ForcingFollowsThisProcessor) {
    const CpuFeatures cpu = ProbeCpuFeatures();
    if (cpu.avx512bw) {
        ForceSimdBuild("avx512");
        EXPECT_STREQ(ActiveSimdBuild(), "avx512");
    } else {
        EXPECT_THROW(ForceSimdBuild("avx512"), std::runtime_error);
    }
    EXPECT_THROW(ForceSimdBuild("avx1024"), std::runtime_error);
    ForceSimdBuild("generic");
    EXPECT_STREQ(ActiveSimdBuild(), "generic");
    // A profile width for every build that can be forced here, each once.
    const std::vector<int>& widths = RunnableBlockBytes();
    EXPECT_EQ(std::count(widths.begin(), widths.end(), Core::kNarrowBlockBytes), 1);
    EXPECT_EQ(std::count(widths.begin(), widths.end(), Core::kWideBlockBytes), cpu.avx512bw ? 1 : 0);
}

TEST(SimdDispatchEnvironment, UnknownOrUnsupportedBuildInEnvironmentIsAnError) {
    // The build is chosen once per process, so the choice is made in a fresh
    // child that re-runs this test. Making an aligner is what reports it, so
    // that the program stops while it sets up.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* old = std::getenv("VB_SIMD");
    const std::string saved = old ? old : "";
    auto expect_refused = [](const char* value, const std::string& message) {
        setenv("VB_SIMD", value, 1);
        EXPECT_EXIT(
            {
                try {
                    std::vector<int> matrix(16, 1);
                    FastAlign aligner(brim::data_wrappers::MatView<int>(matrix.data(), 4, 4), {1, 1, 1, 1, 1, 1}, 5);
                } catch (const std::runtime_error& e) {
                    std::cerr << e.what();
                    std::exit(3);
                }
                std::exit(0);
            },
            ::testing::ExitedWithCode(3), message);
    };
    expect_refused("avx1024", "Unknown SIMD build \"avx1024\" in VB_SIMD");
    if (!ProbeCpuFeatures().avx512bw)
        expect_refused("avx512", "SIMD build \"avx512\" in VB_SIMD is not supported by this processor");
    if (old)
        setenv("VB_SIMD", saved.c_str(), 1);
    else
        unsetenv("VB_SIMD");
}
