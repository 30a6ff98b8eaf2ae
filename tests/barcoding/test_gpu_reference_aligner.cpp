// The scorer's GPU aligner against its CPU one, through the fake CUDA driver
// running the fastalign kernels on the CPU.

#include <gtest/gtest.h>

#include <random>

#include "barcoding/gpu_reference_aligner.h"
#include "common/kernel_images.h"
#include "tests/common/fake_cuda_driver.h"
#include "tests/pair_alignment/emulated_fastalign_kernels.h"
#include "tests/support/random_bases.h"

namespace Barcoding {
namespace {

using Codes = std::vector<int>;

// More references than one launch of the unbatched kernel takes. A worker
// prepares a batch of reads' windows; ScoreAll hands their scores out without
// a launch, also past a window skipped (a read that failed); one never
// prepared is scored when asked, and one wider than the band the aligner was
// sized for takes the launch-per-window path. Paths need no launch of their own.
TEST(GpuReferenceAligner, AgreesWithTheCpuAligner) {
    if (Common::FindKernelImage("fastalign.fatbin") == nullptr) GTEST_SKIP() << "built without nvcc";
    FakeCuda::FakeCudaDriver fake;
    FakeCuda::RegisterEmulatedFastAlign(fake.state());
    std::mt19937 rng(31);
    auto random = [&](int shortest, int longest) {
        return TestSupport::RandomCodes(rng, std::uniform_int_distribution<int>(shortest, longest)(rng));
    };
    Codes matrix = {3, -2, -2, -2, -2, 3, -2, -2, -2, -2, 3, -2, -2, -2, -2, 3}, gpu_scores, cpu_scores;
    const brim::data_wrappers::MatView<int> view(matrix.data(), 4, 4);
    const Codes gaps = {1, 1, 4, 4, 5, 5, 4, 4};
    std::vector<Codes> references(400), windows;
    for (auto& reference : references)
        reference = random(5, 20);
    for (int w = 0; w < 10; ++w)
        windows.push_back(w == 4 ? Codes{} : w == 1 ? random(30, 30) : w < 7 ? random(1, 30) : random(31, 80));
    // A band of 513 needs rows wider than the batch kernel keeps: every window
    // is then a launch, whose paths answer the path requests.
    for (int band : {30, 513}) {
        auto gpu = MakeGpuReferenceAligner("cuda:0", view, gaps, band, references);
        auto cpu = MakeCpuReferenceAligner(view, gaps, band, references);
        ASSERT_EQ(gpu->Batches(), band == 30);
        gpu->Prepare(windows);
        for (size_t w : {0, 1, 3, 4, 5, 6, 2, 7, 8, 9}) {
            const size_t before = fake.state().launches.size();
            gpu->ScoreAll(windows[w], gpu_scores);
            cpu->ScoreAll(windows[w], cpu_scores);
            ASSERT_EQ(gpu_scores, cpu_scores) << "band " << band << " window " << w;
            const size_t scored = fake.state().launches.size();
            EXPECT_EQ(scored > before, band > 30 || w == 2 || w >= 7) << "band " << band << " window " << w;
            for (size_t k : {size_t{0}, size_t{351}, size_t{352}, size_t{399}}) {
                PairAlignment::Path gpu_path, cpu_path;
                EXPECT_EQ(gpu->AlignOne(k, windows[w], gpu_path), cpu->AlignOne(k, windows[w], cpu_path));
                EXPECT_EQ(gpu_path, cpu_path) << "band " << band << " window " << w << " reference " << k;
                PairAlignment::PairedSpan gpu_span, cpu_span;
                EXPECT_EQ(gpu->AlignSpan(k, windows[w], gpu_span), cpu->AlignSpan(k, windows[w], cpu_span));
                EXPECT_EQ(gpu_span, cpu_span) << "band " << band << " window " << w << " reference " << k;
            }
            EXPECT_EQ(fake.state().launches.size(), scored);  // none for the paths
        }
    }
    EXPECT_TRUE(fake.state().device_blocks.empty());
    EXPECT_EQ(fake.state().live_contexts, 0);
}

}  // namespace
}  // namespace Barcoding
