// FastAlignGPU without a GPU: the fake driver runs every launch through the
// very kernel entry points nvcc compiles into the image (SeqToInts and Align,
// each GPU thread one loop iteration), so buffer sizing, the 19 launch
// parameters, per-thread slices, path blocks and the conversion back to paths
// are all exercised, and the results must equal the CPU aligner's.

#include <gtest/gtest.h>

#include <random>

#include "common/cuda_driver.h"
#include "common/kernel_images.h"
#include "pair_alignment/align_cuda.h"
#include "pair_alignment/fast_align.h"
#include "tests/common/fake_cuda_driver.h"
#include "tests/pair_alignment/emulated_fastalign_kernels.h"
#include "tests/support/error_of.h"

namespace {

using brim::data_wrappers::MatView;
using brim::data_wrappers::VecView;
using PairAlignment::FastAlignGPU;
using PairAlignment::Path;

// The fake driver with the two fastalign kernels registered as emulated launches.
class EmulatedGpu : public ::testing::Test {
protected:
    void SetUp() override {
        if (Common::FindKernelImage("fastalign.fatbin") == nullptr)
            GTEST_SKIP() << "built without nvcc: FastAlignGPU refuses to start";
        FakeCuda::RegisterEmulatedFastAlign(fake_.state());
    }

    // Nothing of the aligner or its device may outlive them.
    void ExpectAllReleased() {
        const auto& s = fake_.state();
        EXPECT_TRUE(s.device_blocks.empty());
        EXPECT_TRUE(s.host_blocks.empty());
        EXPECT_EQ(s.live_streams, 0);
        EXPECT_EQ(s.live_contexts, 0);
        EXPECT_EQ(s.live_modules, 0);
    }

    FakeCuda::FakeCudaDriver fake_;
};

std::vector<int> Codes(const std::string& text) {
    const auto table = FastAlignGPU::BaseCodeTable();
    std::vector<int> codes;
    for (char c : text)
        codes.push_back(table[static_cast<unsigned char>(c)]);
    return codes;
}

std::vector<int> kDefaultMatrix = {5, -4, -4, -4, -4, 5, -4, -4, -4, -4, 5, -4, -4, -4, -4, 5};
std::vector<int> kDefaultGaps = {2, 3, 8, 8, 2, 3, 8, 8};

TEST_F(EmulatedGpu, MatchesCpuAlignerOnRandomCases) {
    std::mt19937 rng(20261121);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    const std::string letters = "ACGTacgtUu";
    int compared = 0;
    for (int config = 0; config < 150; ++config) {
        // Small value ranges make ties between the three moves common.
        std::vector<int> matrix(16);
        const int spread = uniform(0, 3) == 0 ? 1 : 6;
        for (int& value : matrix)
            value = uniform(-spread, spread);
        std::vector<int> gaps(uniform(0, 1) == 0 ? 6 : 8);
        for (int& gap : gaps)
            gap = uniform(0, 6);
        // Mostly small cases, every tenth of barcoding size (windows of a few
        // hundred bases, bands that do and do not cover the whole matrix).
        const bool large = config % 10 == 0;
        const int band_width = large ? uniform(1, 250) : uniform(0, 3) == 0 ? uniform(0, 4) : uniform(5, 40);
        const int max_reference = uniform(0, large ? 100 : 30);
        const int max_query = uniform(0, large ? 250 : 60);
        const MatView<int> view(matrix.data(), 4, 4);
        FastAlignGPU gpu(view, gaps, FastAlignGPU::BaseCodeTable(), max_reference, max_query, "cuda:0", band_width);
        PairAlignment::FastAlign cpu(view, gaps, band_width);

        for (int batch = 0; batch < 3; ++batch) {
            std::vector<std::vector<int>> references(uniform(1, 24));
            for (auto& reference : references) {
                reference.resize(uniform(0, max_reference));
                for (int& code : reference)
                    code = uniform(0, 3);
            }
            gpu.SetReferences(references);
            for (int call = 0; call < 4; ++call) {
                std::string query(uniform(0, max_query), 'A');
                for (char& c : query)
                    c = letters[uniform(0, static_cast<int>(letters.size()) - 1)];
                std::vector<int> query_codes = Codes(query);
                std::vector<int> scores;
                std::vector<Path> paths;
                gpu.AlignAll(query, scores, paths);
                ASSERT_EQ(scores.size(), references.size());
                ASSERT_EQ(paths.size(), references.size());
                for (size_t k = 0; k < references.size(); ++k) {
                    Path expected;
                    const int score = cpu.Align(VecView<int>(references[k].data(), references[k].size()),
                                                VecView<int>(query_codes.data(), query_codes.size()), expected);
                    ASSERT_EQ(scores[k], score) << "config " << config << " reference " << k;
                    ASSERT_EQ(paths[k], expected) << "config " << config << " reference " << k;
                    ++compared;
                }
            }
        }
    }
    EXPECT_GT(compared, 5000);
}

TEST_F(EmulatedGpu, FullLaunchOf352AndTheLimit) {
    const MatView<int> view(kDefaultMatrix.data(), 4, 4);
    {
        FastAlignGPU gpu(view, kDefaultGaps, FastAlignGPU::BaseCodeTable(), 12, 40, "cuda:0", 11);
        PairAlignment::FastAlign cpu(view, kDefaultGaps, 11);
        std::mt19937 rng(7);
        std::vector<std::vector<int>> references(FastAlignGPU::kMaxReferences);
        for (auto& reference : references) {
            reference.resize(std::uniform_int_distribution<int>(8, 12)(rng));
            for (int& code : reference)
                code = std::uniform_int_distribution<int>(0, 3)(rng);
        }
        gpu.SetReferences(references);
        const std::string query = "TTGACCGTAGGCATTACGGATCCAGTAGCATGGCAATCGA";
        std::vector<int> scores;
        std::vector<Path> paths;
        gpu.AlignAll(query, scores, paths);
        const auto& launches = fake_.state().launches;
        ASSERT_EQ(launches.size(), 2u);
        EXPECT_EQ(launches[0].kernel, "SeqToInts");
        EXPECT_EQ(launches[0].block[0], 32u);
        EXPECT_EQ(launches[1].kernel, "Align");
        EXPECT_EQ(launches[1].block[0], 352u);
        EXPECT_EQ(launches[1].grid[0], 1u);
        // The last thread's slices are the ones most likely to overrun.
        auto codes = Codes(query);
        Path expected;
        EXPECT_EQ(scores.back(), cpu.Align(VecView<int>(references.back().data(), references.back().size()),
                                           VecView<int>(codes.data(), codes.size()), expected));
        EXPECT_EQ(paths.back(), expected);

        references.emplace_back(5, 0);
        EXPECT_EQ(TestSupport::ErrorOf([&] { gpu.SetReferences(references); }),
                  "Too many sequences for GPU threads to contain!");
    }
    ExpectAllReleased();
}

TEST_F(EmulatedGpu, ConstructorChecks) {
    std::vector<int> five(25, 1);
    const MatView<int> view5(five.data(), 5, 5);
    const MatView<int> view(kDefaultMatrix.data(), 4, 4);
    auto message = [](auto&& build) { return TestSupport::ErrorOf(build); };
    const auto table = FastAlignGPU::BaseCodeTable();
    EXPECT_EQ(message([&] { FastAlignGPU(view5, kDefaultGaps, table, 10, 10, "cuda:0", 11); }),
              "FastAlignGPU only supports a 4 x 4 mismatch matrix!");
    std::vector<int> seven(7, 1);
    EXPECT_EQ(message([&] { FastAlignGPU(view, seven, table, 10, 10, "cuda:0", 11); }),
              "Gap penalty vector must be length 6 or 8.");
    EXPECT_EQ(message([&] { FastAlignGPU(view, kDefaultGaps, table, 10, 10, "cuda:x", 11); }),
              "Malformed device string: cuda:x");

    // Two devices named: the first is used, the other never opened.
    fake_.state().free_memory = {size_t{1} << 30, size_t{1} << 30};
    {
        FastAlignGPU gpu(view, kDefaultGaps, table, 10, 10, "cuda:1,0", 11);
        EXPECT_EQ(fake_.state().contexts_created, std::vector<int>{1});
    }
    // The device string's memory limit covers the aligners' own buffers.
    EXPECT_EQ(message([&] {
                  FastAlignGPU(view, kDefaultGaps, table, 10, 10, "cuda:0:1000", 11);
              }).rfind("GPU memory limit of 1000 bytes reached on CUDA device 0: ", 0),
              0u);
    EXPECT_TRUE(fake_.state().device_blocks.empty());
    // A failing driver call names this aligner's source and the driver's error,
    // and what was allocated before it is released again.
    fake_.state().fail_allocation_after = 6;
    const std::string failure = message([&] { FastAlignGPU(view, kDefaultGaps, table, 10, 10, "cuda:0", 11); });
    EXPECT_TRUE(
        FakeCuda::MatchesWithLine(failure, "CUDA error at pair_alignment/align_cuda:", ": CUDA_ERROR_OUT_OF_MEMORY"))
        << failure;
    ExpectAllReleased();
}

TEST_F(EmulatedGpu, WorkersShareOneContextAndQueriesAreBounded) {
    const MatView<int> view(kDefaultMatrix.data(), 4, 4);
    const auto table = FastAlignGPU::BaseCodeTable();
    {
        FastAlignGPU first(view, kDefaultGaps, table, 10, 20, "cuda:0", 11);
        FastAlignGPU second(view, kDefaultGaps, table, 10, 20, "cuda:0:50%", 11);
        EXPECT_EQ(fake_.state().contexts_created.size(), 1u);
        EXPECT_EQ(fake_.state().live_streams, 2);

        first.SetReferences({Codes("ACGTACGT")});
        std::vector<int> scores;
        std::vector<Path> paths;
        EXPECT_THROW(first.AlignAll(std::string(21, 'A'), scores, paths), std::runtime_error);
        first.AlignAll(std::string(20, 'A'), scores, paths);
        EXPECT_THROW(first.SetReferences({std::vector<int>(11, 0)}), std::runtime_error);
        EXPECT_THROW(first.SetReferences({std::vector<int>{0, 4}}), std::runtime_error);
    }
    ExpectAllReleased();
}

}  // namespace
