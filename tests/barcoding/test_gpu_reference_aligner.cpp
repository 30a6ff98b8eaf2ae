// The scorer's GPU aligner against its CPU one, through the fake CUDA driver
// running the fastalign kernels on the CPU.

#include <gtest/gtest.h>

#include <random>

#include "barcoding/gpu_reference_aligner.h"
#include "common/kernel_images.h"
#include "tests/common/fake_cuda_driver.h"
#include "tests/pair_alignment/emulated_fastalign_kernels.h"

namespace {

TEST(GpuReferenceAligner, AgreesWithTheCpuAligner) {
    if (Common::FindKernelImage("fastalign.fatbin") == nullptr) GTEST_SKIP() << "built without nvcc";
    FakeCuda::FakeCudaDriver fake;
    FakeCuda::RegisterEmulatedFastAlign(fake.state());
    std::mt19937 rng(31);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    std::vector<int> matrix = {3, -2, -2, -2, -2, 3, -2, -2, -2, -2, 3, -2, -2, -2, -2, 3};
    const brim::data_wrappers::MatView<int> view(matrix.data(), 4, 4);
    const std::vector<int> gaps = {1, 1, 4, 4, 5, 5, 4, 4};
    std::vector<std::vector<int>> references(400);  // more than one launch takes
    for (auto& reference : references) {
        reference.resize(static_cast<size_t>(uniform(5, 20)));
        for (int& code : reference)
            code = uniform(0, 3);
    }
    const int band_width = 30;
    {
        auto gpu = Barcoding::MakeGpuReferenceAligner("cuda:0", view, gaps, band_width, references);
        auto cpu = Barcoding::MakeCpuReferenceAligner(view, gaps, band_width, references);
        for (int round = 0; round < 6; ++round) {
            // Later rounds exceed the band width the aligner was sized for.
            std::vector<int> window(static_cast<size_t>(round < 3 ? uniform(0, 30) : uniform(31, 80)));
            for (int& code : window)
                code = uniform(0, 3);
            std::vector<int> gpu_scores, cpu_scores;
            gpu->ScoreAll(window, gpu_scores);
            cpu->ScoreAll(window, cpu_scores);
            ASSERT_EQ(gpu_scores, cpu_scores) << "round " << round;
            const size_t launches = fake.state().launches.size();
            for (size_t k : {size_t{0}, size_t{351}, size_t{352}, size_t{399}}) {
                PairAlignment::Path gpu_path, cpu_path;
                EXPECT_EQ(gpu->AlignOne(k, window, gpu_path), cpu->AlignOne(k, window, cpu_path));
                EXPECT_EQ(gpu_path, cpu_path) << "round " << round << " reference " << k;
                PairAlignment::PairedSpan gpu_span, cpu_span;
                EXPECT_EQ(gpu->AlignSpan(k, window, gpu_span), cpu->AlignSpan(k, window, cpu_span));
                EXPECT_EQ(gpu_span, cpu_span) << "round " << round << " reference " << k;
            }
            EXPECT_EQ(fake.state().launches.size(), launches);  // paths came with the scores
        }
    }
    EXPECT_TRUE(fake.state().device_blocks.empty());
    EXPECT_EQ(fake.state().live_contexts, 0);
}

// The worker prepares a batch of reads' windows; ScoreAll then hands the
// scores out without launching, also when a window is skipped (a read that
// failed) or one comes that was never prepared (scored when asked).
TEST(GpuReferenceAligner, PreparedWindowsNeedNoLaunch) {
    if (Common::FindKernelImage("fastalign.fatbin") == nullptr) GTEST_SKIP() << "built without nvcc";
    FakeCuda::FakeCudaDriver fake;
    FakeCuda::RegisterEmulatedFastAlign(fake.state());
    std::mt19937 rng(1127);
    auto codes = [&](int length) {
        std::vector<int> out(static_cast<size_t>(length));
        for (int& code : out)
            code = static_cast<int>(rng() % 4);
        return out;
    };
    std::vector<int> matrix = {3, -2, -2, -2, -2, 3, -2, -2, -2, -2, 3, -2, -2, -2, -2, 3};
    const brim::data_wrappers::MatView<int> view(matrix.data(), 4, 4);
    const std::vector<int> gaps = {1, 1, 4, 4, 5, 5, 4, 4};
    std::vector<std::vector<int>> references;
    for (int k = 0; k < 12; ++k)
        references.push_back(codes(24));
    auto gpu = Barcoding::MakeGpuReferenceAligner("cuda:0", view, gaps, 150, references);
    auto cpu = Barcoding::MakeCpuReferenceAligner(view, gaps, 150, references);
    ASSERT_TRUE(gpu->Batches());
    std::vector<std::vector<int>> windows;
    for (int w = 0; w < 9; ++w)
        windows.push_back(codes(w == 4 ? 0 : 150));
    gpu->Prepare(windows);
    const size_t launches = fake.state().launches.size();
    std::vector<int> gpu_scores, cpu_scores;
    for (size_t w = 0; w < windows.size(); ++w) {
        if (w == 2 || w == 3) continue;
        gpu->ScoreAll(windows[w], gpu_scores);
        cpu->ScoreAll(windows[w], cpu_scores);
        ASSERT_EQ(gpu_scores, cpu_scores) << "window " << w;
        PairAlignment::PairedSpan gpu_span, cpu_span;
        EXPECT_EQ(gpu->AlignSpan(w % 12, windows[w], gpu_span), cpu->AlignSpan(w % 12, windows[w], cpu_span));
        EXPECT_EQ(gpu_span, cpu_span);
    }
    EXPECT_EQ(fake.state().launches.size(), launches);
    gpu->ScoreAll(windows[2], gpu_scores);  // passed over: scored anew
    cpu->ScoreAll(windows[2], cpu_scores);
    EXPECT_EQ(gpu_scores, cpu_scores);
    EXPECT_EQ(fake.state().launches.size(), launches + 1);
}

}  // namespace
