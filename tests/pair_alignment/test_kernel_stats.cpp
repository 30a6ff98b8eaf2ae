// The opt-in kernel counters: what ScoreBatch records, summing over threads
// (ended ones included), leaving out calls that were interrupted, and the
// summary line the program prints.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "pair_alignment/fast_align.h"
#include "pair_alignment/kernel_stats.h"
#include "tests/pair_alignment/sequences.h"

using namespace PairAlignment;

namespace {

using AlignerTest::RandomSeq;
using AlignerTest::View;

class KernelStatsTest : public ::testing::Test {
protected:
    void SetUp() override {
        SetKernelStatsEnabled(true);
        ResetKernelStats();
    }
    void TearDown() override {
        SetKernelStatsEnabled(false);
        ResetKernelStats();
    }
};

}  // namespace

TEST_F(KernelStatsTest, ScoreBatchCountsMatrixCellsOfEveryReference) {
    std::mt19937 rng(3);
    std::vector<int> matrix(16, -4);
    for (int k = 0; k < 4; ++k)
        matrix[5 * k] = 5;
    FastAlign aligner(brim::data_wrappers::MatView<int>(matrix.data(), 4, 4), {0, 0, 7, 7, 7, 7, 7, 7}, 151);
    // Two lengths and an empty reference, which costs nothing.
    std::vector<std::vector<int>> refs;
    for (int k = 0; k < 20; ++k)
        refs.push_back(RandomSeq(rng, k < 13 ? 42 : 24));
    refs.push_back({});
    const auto batch = aligner.PrepareReferences(refs);
    const std::vector<int> window = RandomSeq(rng, 150);
    std::vector<int> scores;
    for (int call = 0; call < 3; ++call)
        aligner.ScoreBatch(*batch, View(window), scores);
    aligner.ScoreBatch(*batch, View({}), scores);  // an empty window: no call recorded

    const KernelStats total = KernelStatsTotal();
    EXPECT_EQ(total.calls, 3);
    const int64_t per_call = (13 * 43 + 7 * 25) * 151;
    EXPECT_EQ(total.cells + total.interrupted * per_call, 3 * per_call);
    EXPECT_EQ(total.byte_cells, 3 * per_call);  // the shipped costs take the 8-bit kernel
    EXPECT_GT(total.seconds, 0);

    SetKernelStatsEnabled(false);
    aligner.ScoreBatch(*batch, View(window), scores);
    EXPECT_EQ(KernelStatsTotal().calls, 3);
}

TEST_F(KernelStatsTest, SumsOverThreadsAndLeavesOutInterruptedCalls) {
    // Each thread has its own fastest time per cell; a call more than twice
    // as slow is left out. Fresh threads, so that no earlier test's calls set
    // the pace; they end before the sum is read.
    std::thread first([] {
        RecordKernelCall(1000, 2000);
        RecordKernelCall(1000, 1000);
        RecordKernelCall(2000, 3900);
        RecordKernelCall(1000, 2100, 400);  // interrupted, still counted in every_cell
        RecordKernelCall(0, 500);           // nothing computed: ignored
    });
    first.join();
    std::thread second([] { RecordKernelCall(500, 50000); });
    second.join();
    std::thread([] { RecordKernelCall(300, 600); }).join();

    const KernelStats total = KernelStatsTotal();
    EXPECT_EQ(total.calls, 6);
    EXPECT_EQ(total.interrupted, 1);
    EXPECT_EQ(total.cells, 1000 + 1000 + 2000 + 500 + 300);
    EXPECT_NEAR(total.seconds, (2000 + 1000 + 3900 + 50000 + 600) * 1e-9, 1e-12);
    EXPECT_EQ(total.every_cell, total.cells + 1000);
    EXPECT_EQ(total.byte_cells, 400);

    ResetKernelStats();
    EXPECT_EQ(KernelStatsTotal().calls, 0);
    EXPECT_EQ(KernelStatsTotal().seconds, 0);
}

TEST_F(KernelStatsTest, SummaryLine) {
    std::thread([] { RecordKernelCall(3000000, 1000000, 750000); }).join();
    EXPECT_EQ(KernelStatsSummary(), std::string("Alignment kernel: 3000000 cells in 0.001 s, 3.00 GCUPS (") +
                                        ActiveSimdBuild() + "), 25 % in 8-bit lanes");
    std::thread([] {
        RecordKernelCall(1000, 1000);
        RecordKernelCall(1000, 9000);
    }).join();
    EXPECT_TRUE(KernelStatsSummary().ends_with("lanes; 1 of 3 calls left out as interrupted")) << KernelStatsSummary();
}
