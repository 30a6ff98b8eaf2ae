#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <random>
#include <thread>
#include <tuple>

#include "common/kernel_images.h"
#include "pair_alignment/align_cuda.h"
#include "pair_alignment/align_cuda_batch.h"
#include "pair_alignment/band_placement.h"
#include "pair_alignment/fast_align.h"
#include "pair_alignment/kernel_stats.h"
#include "pair_alignment/score_matrix.h"
#include "pair_alignment/simd_dispatch.h"
#include "tests/common/fake_cuda_driver.h"
#include "tests/pair_alignment/emulated_fastalign_kernels.h"
#include "tests/support/error_of.h"
#include "tests/support/random_bases.h"
#include "tests/support/temp_folder.h"

namespace PairAlignment {
namespace {

using brim::data_wrappers::MatView;
using brim::data_wrappers::VecView;
using Codes = std::vector<int>;
using Result = std::pair<int, Path>;  // score and path
using TestSupport::ErrorOf;
using TestSupport::RandomCodes;

VecView<int> View(const Codes& s) {
    return VecView<int>(const_cast<int*>(s.data()), s.size());
}

// A 4 x 4 matrix, 6 or 8 gap penalties, and the costs they stand for: start1,
// end1, open1, start2, end2, open2, negated.
struct Costs {
    Codes matrix, gaps, six;
    FastAlign Aligner(int width) const {
        return FastAlign(MatView<int>(const_cast<int*>(matrix.data()), 4, 4), gaps, width);
    }
};

// The band's centre (r, q) steps along whichever sequence lags the line from
// (0, 0) to (l1, l2) more, the query on a tie; (l1 + 1) * d in 64 bits.
void ReferenceBand(int l1, int l2, int width, Codes& off, Codes& len) {
    const double inv_n = 1.0 / (l1 + l2 + 1);
    off.assign(l1 + l2 + 1, 0);
    len.assign(l1 + l2 + 1, 1);
    for (int d = 1, r = 0, q = 0; d <= l1 + l2; ++d) {
        ++(static_cast<double>(static_cast<long long>(l1 + 1) * d) * inv_n - r <= d * inv_n * (l2 + 1) - q ? q : r);
        off[d] = std::max({0, d - l1, q - width / 2});
        len[d] = std::min({l2, d, q + width / 2}) - off[d] + 1;
    }
}

// Row-major (L1 + 1) x (L2 + 1) program over the band's cells with the
// aligner's costs and tie-breaks, and a traceback writing each step's pair.
Result Naive(const Costs& c, int width, const Codes& ref, const Codes& qry) {
    const int l1 = ref.size(), l2 = qry.size(), none = ZERO_PROB_SCORE;
    Result r{none, {}};
    if (l1 == 0 || l2 == 0) {  // nothing to align: gaps only
        for (int k = 0; k < l1 + l2; ++k)
            r.second.emplace_back(l1 ? k : -1, l1 ? -1 : k);
        return r;
    }
    Codes off, len;
    ReferenceBand(l1, l2, EffectiveBandWidth(l1, l2, width), off, len);
    auto in = [&](int i, int j) { return i >= 0 && j >= 0 && j >= off[i + j] && j < off[i + j] + len[i + j]; };
    std::vector<Codes> s(l1 + 1, Codes(l2 + 1, none));
    std::vector<std::string> how(l1 + 1, std::string(l2 + 1, ' '));
    s[0][0] = 0;
    for (int i = 0; i <= l1; ++i)
        for (int j = i == 0; j <= l2; ++j) {
            if (!in(i, j)) continue;
            const int diag = in(i - 1, j - 1) ? s[i - 1][j - 1] + c.matrix[4 * ref[i - 1] + qry[j - 1]] : none;
            const int up = (in(i, j - 1) ? s[i][j - 1] : none) + c.six[i == 0 ? 0 : i == l1 ? 1 : 2];
            const int right = (in(i - 1, j) ? s[i - 1][j] : none) + c.six[j == 0 ? 3 : j == l2 ? 4 : 5];
            s[i][j] = std::max({diag, up, right});
            how[i][j] = diag == s[i][j] ? 'D' : right == s[i][j] ? 'R' : 'U';
        }
    r.first = s[l1][l2];
    for (int i = l1, j = l2; i > 0 || j > 0;) {
        const char h = i == 0 ? 'U' : j == 0 ? 'R' : how[i][j];
        r.second.emplace_back(h == 'U' ? -1 : --i, h == 'R' ? -1 : --j);
    }
    std::reverse(r.second.begin(), r.second.end());
    return r;
}

// Costs up to limit, the extremes often (a small limit makes ties common), now
// and then one just past the 8-bit kernels' 25, gap rewards, start gaps cheaper
// or dearer than opens, mostly equal opens (a kernel of their own); scaled.
Costs RandomCosts(std::mt19937& rng, int limit, int scale) {
    auto value = [&](int lo, int hi) { return rng() % 4 ? lo + int(rng() % (hi - lo + 1)) : rng() % 2 ? hi : lo; };
    Costs c{Codes(16), {}, {}};
    for (int& v : c.matrix)
        v = value(-limit, limit) * scale;
    if (limit == 25 && rng() % 5 == 0) c.matrix[rng() % 16] = rng() % 2 ? 26 : -26;
    const int open1 = value(-1, limit), open2 = rng() % 3 ? open1 : value(-1, limit);
    Codes six = {value(-1, open1 + 1), value(-1, limit), open1, value(-1, open2 + 1), value(-1, limit), open2};
    for (int& v : six)
        v *= scale;
    c.gaps = rng() % 3 ? Codes{six[0], six[1], six[2], value(-1, 9), six[3], six[4], six[5], value(-1, 9)} : six;
    for (int v : six)
        c.six.push_back(-v);
    return c;
}

// Within the 8-bit kernels' conditions: costs within 25, no start gap dearer than an open one.
bool Fit8(const Costs& c) {
    Codes all = c.matrix;
    all.insert(all.end(), c.six.begin(), c.six.end());
    const auto [lo, hi] = std::minmax_element(all.begin(), all.end());
    return *lo >= -25 && *hi <= 25 && c.six[0] >= c.six[2] && c.six[3] >= c.six[5];
}

class FastAlignTest : public ::testing::Test {
protected:
    // Every build this processor runs, each in use once forced.
    void SetUp() override {
        for (const char* name : {"generic", "sse41", "avx2", "avx512"})
            if (ErrorOf([&] { ForceSimdBuild(name); }) == "(no error)" && ActiveSimdBuild() == std::string(name))
                builds_.push_back(name);
        const CpuFeatures cpu = ProbeCpuFeatures();
        EXPECT_EQ(builds_.size(), 1u + cpu.sse41 + cpu.avx2 + cpu.avx512bw);
    }
    void TearDown() override {
        ForceSimdBuild(original_);
        SetKernelStatsEnabled(false);
        ResetKernelStats();
    }
    const std::string original_ = ActiveSimdBuild();
    std::vector<std::string> builds_;
};

// Costs for every kernel (16- and 32-bit lanes, 8-bit band and just past each
// of its conditions), bands over the matrix or not, lengths from 0, queries
// mostly holding a damaged copy of the reference, windows of up to 10000.
TEST_F(FastAlignTest, AlignMatchesTheFullMatrixProgramOnEveryBuild) {
    std::mt19937 rng(20261121);
    for (int n = 0; n < 1800; ++n) {
        const bool huge = n >= 1796;
        const Costs c = RandomCosts(rng, rng() % 2 ? 3 : 25, huge ? 1 : Codes{1, 1, 40, 100}[n % 4]);
        const Codes ref = RandomCodes(rng, huge ? 1000 : rng() % Codes{5, 41, 121}[n % 3]);
        const int flank = huge ? (n % 2 ? 9000 : 1000) : rng() % 3 ? 9 : 2 * ref.size() + 6;
        Codes qry = RandomCodes(rng, rng() % flank);
        const Codes copy = TestSupport::Mutate(rng, ref, 0.05 * (rng() % 5));
        if (rng() % 4) qry.insert(qry.begin() + rng() % (qry.size() + 1), copy.begin(), copy.end());
        const int width = rng() % 2   ? std::max(ref.size(), qry.size()) + rng() % 3
                          : rng() % 3 ? 1 + rng() % 12
                                      : 1 + rng() % 250;
        const Result expected = Naive(c, width, ref, qry);
        for (const auto& build : builds_) {
            ForceSimdBuild(build);
            FastAlign aligner = c.Aligner(width);
            Path path;
            const int score = aligner.Align(View(ref), View(qry), path);
            ASSERT_EQ(Result(score, path), expected) << build << " case " << n;
            PairedSpan span;
            ASSERT_EQ(aligner.AlignSpan(View(ref), View(qry), span), score) << build << " case " << n;
            ASSERT_EQ(span, PairedSpanOf(path)) << build << " case " << n;
        }
    }
    Codes strided = {0, 9, 1, 9};
    Path path;
    EXPECT_THROW(RandomCosts(rng, 3, 1).Aligner(3).Align(VecView<int>(strided.data(), 2, 2), View({0, 1}), path),
                 std::runtime_error);
}

// Where lane bookkeeping could slip: counts around each build's blocks of 8 to
// 64 lanes, two lengths or empty references, references longer than the query,
// narrow bands, long windows, 8-, 16-, 32-bit lanes or none. The batch comes
// from an aligner with the same matrix, perhaps other gaps, under any build;
// the 8-bit kernel takes every cell where the scoring aligner allows it.
TEST_F(FastAlignTest, BatchesMatchTheFullMatrixProgramOnEveryBuild) {
    std::mt19937 rng(2718);
    const Codes counts = {1, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 100, 129};
    for (int n = 0; n < 180; ++n) {
        const bool huge = n >= 177, stats = n % 7 != 0;
        const int scale = huge ? 1 : Codes{1, 1, 1, 40, 300, 3000000}[rng() % 6];
        const Costs c = RandomCosts(rng, huge ? 2 : scale > 1000 || rng() % 2 ? 3 : 25, scale);
        Costs preparer = rng() % 3 ? c : RandomCosts(rng, 25, 1);
        preparer.matrix = c.matrix;
        const int band = huge ? 0 : rng() % 3;  // 0: over the whole matrix, 1: narrower than it, 2: any
        const int l2 = huge ? (n % 2 ? 10000 : 1 + rng() % 1200) : (band == 1 ? 3 : 1) + rng() % 300;
        const int l1 = huge ? 1000 : rng() % 4 == 0 ? l2 + 1 + rng() % 30 : 3 + rng() % 80;
        const int width = band == 0   ? std::max(l1, l2) + rng() % 3
                          : band == 1 ? 1 + 2 * int(rng() % ((std::min(l1, l2) - 1) / 2))
                                      : 1 + rng() % 40;
        std::vector<Codes> refs;
        int64_t cells = 0;
        for (int k = 0, count = huge ? 2 : counts[rng() % counts.size()]; k < count; ++k) {
            refs.push_back(RandomCodes(rng, k % 5 == 4 && band != 1 ? rng() % (l1 + 1) : l1));
            cells += refs.back().empty() ? 0 : (refs.back().size() + 1) * (l2 + 1);
        }
        const Codes qry = RandomCodes(rng, l2);
        std::vector<uint8_t> want(rng() % (refs.size() + 1));  // those past its end count as zero
        for (auto& w : want)
            w = rng() % 3 == 0;
        std::vector<Result> expected;
        ForceSimdBuild("generic");
        for (const auto& ref : refs) {
            Result r;  // scores too wide for the program's ints: the generic build's
            if (scale > 1000) r.first = c.Aligner(width).Align(View(ref), View(qry), r.second);
            expected.push_back(scale > 1000 ? r : Naive(c, width, ref, qry));
        }
        ForceSimdBuild(builds_[rng() % builds_.size()]);
        const auto batch = preparer.Aligner(width).PrepareReferences(refs);
        for (const auto& build : builds_) {
            ForceSimdBuild(build);
            FastAlign aligner = c.Aligner(width);
            SetKernelStatsEnabled(stats);
            ResetKernelStats();
            Codes scores;
            std::vector<Path> paths;
            aligner.AlignBatch(*batch, View(qry), want, scores, paths);
            for (size_t k = 0; k < refs.size(); ++k) {
                ASSERT_EQ(scores.at(k), expected[k].first) << build << " case " << n << " reference " << k;
                ASSERT_EQ(paths.at(k), k < want.size() && want[k] ? expected[k].second : Path{}) << build << " " << n;
            }
            // One call of (L1 + 1) x (L2 + 1) cells per non-empty reference, timed unless interrupted.
            const KernelStats s = KernelStatsTotal();
            const bool bytes = stats && band == 0 && Fit8(c) && Fit8(preparer);
            ASSERT_EQ(s.calls, stats ? 1 : 0) << build << " case " << n;
            ASSERT_EQ(s.every_cell, stats ? cells : 0);
            ASSERT_EQ(s.cells, stats && !s.interrupted ? cells : 0);
            ASSERT_TRUE(!stats || s.interrupted || s.seconds > 0);
            ASSERT_EQ(s.byte_cells, band == 2 ? s.byte_cells : bytes ? cells : 0) << build << " case " << n;
            aligner.ScoreBatch(*batch, View({}), scores);  // an empty window: nothing to align, no call
            ASSERT_EQ(scores, Codes(refs.size(), ZERO_PROB_SCORE));
            ASSERT_EQ(KernelStatsTotal().calls, stats ? 1 : 0);
        }
    }
}

// The reference band (the int product's wherever that fitted, as on the GPU),
// ends moving by at most one cell, and a wide one covering the matrix, also
// where (l1 + 1) * d overflows int.
TEST(BandPlacement, FollowsTheDiagonalForShortAndLongSequences) {
    std::mt19937 rng(5);
    std::vector<std::pair<int, int>> sizes = {{100000, 150}, {150, 100000}, {60000, 60000}, {46000, 47000}};
    for (int n = 0; n < 420; ++n)
        sizes.emplace_back(1 + rng() % (n < 20 ? 46000 : 150), 1 + rng() % (n < 20 ? 46000 : 150));
    for (const auto& [l1, l2] : sizes) {
        const bool wide = rng() % 3 == 0;
        const int width = EffectiveBandWidth(l1, l2, wide ? std::max(l1, l2) | 1 : 1 + 2 * int(rng() % 200));
        Codes off(l1 + l2 + 1), len(l1 + l2 + 1), expected_off, expected_len;
        PlaceBand(l1, l2, width, off.data(), len.data());
        ReferenceBand(l1, l2, width, expected_off, expected_len);
        ASSERT_EQ(std::tie(off, len), std::tie(expected_off, expected_len)) << l1 << " x " << l2;
        ASSERT_TRUE(BandEndsStepByOne(off.data(), len.data(), l1 + l2 + 1)) << l1 << " x " << l2;
        if (wide || width <= std::min(l1, l2)) {
            ASSERT_EQ(BandCoversMatrix(l1, l2, off.data(), len.data()), wide) << l1 << " x " << l2;
        }
    }
}

// Summed over threads, ended ones included. A call more than twice as slow
// per cell as its thread's fastest so far (fresh threads: no earlier call
// sets the pace) is left out of the cells and seconds, and counted.
TEST_F(FastAlignTest, KernelStatsSumOverThreadsAndLeaveOutInterruptedCalls) {
    std::thread([] {
        RecordKernelCall(1000, 2000);
        RecordKernelCall(1000, 1000);
        RecordKernelCall(2000, 3900);
        RecordKernelCall(1000, 2100, 400);  // interrupted, still counted in every_cell
        RecordKernelCall(0, 500);           // nothing computed: ignored
    }).join();
    std::thread([] { RecordKernelCall(500, 50000); }).join();
    std::thread([] { RecordKernelCall(2995500, 943100, 750250); }).join();
    EXPECT_EQ(std::tuple(KernelStatsTotal().every_cell, KernelStatsTotal().byte_cells), std::tuple(3001000, 750650));
    const std::string build = ActiveSimdBuild();
    EXPECT_EQ(KernelStatsSummary(), "Alignment kernel: 3000000 cells in 0.001 s, 3.00 GCUPS (" + build +
                                        "), 25 % in 8-bit lanes; 1 of 6 calls left out as interrupted");
    ResetKernelStats();
    EXPECT_EQ(KernelStatsSummary(),
              "Alignment kernel: 0 cells in 0.000 s, 0.00 GCUPS (" + build + "), 0 % in 8-bit lanes");
}

// FastAlignGPU without a GPU: the fake driver runs each launch through the
// kernel entry points nvcc compiles (a GPU thread is a loop iteration).
class EmulatedGpu : public ::testing::Test {
protected:
    void SetUp() override {
        if (Common::FindKernelImage("fastalign.fatbin") == nullptr) GTEST_SKIP() << "built without nvcc";
        FakeCuda::RegisterEmulatedFastAlign(fake_.state());
    }
    // Nothing of the aligners or their device may outlive them.
    void TearDown() override {
        const auto& s = fake_.state();
        EXPECT_TRUE(s.device_blocks.empty() && s.host_blocks.empty());
        EXPECT_EQ(s.live_streams + s.live_contexts + s.live_modules, 0);
    }
    FakeCuda::FakeCudaDriver fake_;
    const Codes table_ = FastAlignGPU::BaseCodeTable();
    Codes matrix_ = TestSupport::kMatchMismatch;
    const MatView<int> view_{matrix_.data(), 4, 4};
    const Codes gaps_ = {2, 3, 8, 8, 2, 3, 8, 8};
};

// Both kernels against the CPU aligner: buffers, launch parameters, per-thread
// slices and paths read back, with lengths from 0, query letters in either
// case and U, now and then a full launch of 352 (the last thread's slices are
// the likeliest to overrun) or a band up to the batch kernel's widest row. The
// batch kernel scores the same queries in launches of a few windows each, so
// that both its slots are reused.
TEST_F(EmulatedGpu, MatchesTheCpuAligner) {
    std::mt19937 rng(20261121);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int config = 0; config < 150; ++config) {
        const Costs c = RandomCosts(rng, uniform(0, 3) ? 6 : 1, 1);
        const bool large = config % 10 == 0, wide = config % 30 == 5;
        const int band_width = wide                 ? uniform(200, FastAlignKernels::maxBatchRowWidth - 1)
                               : large              ? uniform(1, 250)
                               : uniform(0, 3) == 0 ? uniform(0, 4)
                                                    : uniform(5, 40);
        const int max_reference = uniform(0, large ? 100 : 30);
        const int max_query = wide ? band_width : uniform(0, large ? 250 : 60);
        const MatView<int> view(const_cast<int*>(c.matrix.data()), 4, 4);
        FastAlignGPU gpu(view, c.gaps, table_, max_reference, max_query, "cuda:0", band_width);
        FastAlign cpu = c.Aligner(band_width);
        for (int batch = 0; batch < 3; ++batch) {
            std::vector<Codes> references(config % 25 == 1 && batch == 0 ? 352 : uniform(1, 24));
            for (auto& reference : references)
                reference = RandomCodes(rng, uniform(0, max_reference));
            gpu.SetReferences(references);
            std::vector<Codes> windows(uniform(0, 6));
            Codes scores, expected;
            for (auto& codes : windows) {
                codes = RandomCodes(rng, uniform(0, max_query));
                std::string query;
                for (int code : codes)
                    query += "ACGTacgtUu"[code == 3 && uniform(0, 2) == 0 ? uniform(8, 9) : code + 4 * uniform(0, 1)];
                std::vector<Path> paths;
                gpu.AlignAll(query, scores, paths);
                for (size_t k = 0; k < references.size(); ++k) {
                    Path path;
                    ASSERT_EQ(scores.at(k), cpu.Align(View(references[k]), View(codes), path)) << config;
                    ASSERT_EQ(paths.at(k), path) << "config " << config << " reference " << k;
                }
                expected.insert(expected.end(), scores.begin(), scores.end());
            }
            FastAlignGpuBatch batched(view, c.gaps, band_width, references, "cuda:0", max_query, uniform(1, 5));
            batched.ScoreWindows(windows, scores);
            ASSERT_EQ(scores, expected) << "config " << config;
        }
    }
}

// Refusals name their cause; of two devices named the first is used; workers
// share one context, each on its own stream; a call launches SeqToInts in a
// block of 32 threads, then Align in one block of 352. The batch kernel
// launches one grid of 128-thread blocks per group of windows. What was
// allocated before a refusal is released again (TearDown).
TEST_F(EmulatedGpu, LaunchesContextsAndRefusals) {
    auto error = [&](const std::string& device, const Codes& g = {2, 3, 8, 8, 2, 3, 8, 8}, int n = 4) {
        return ErrorOf([&] { FastAlignGPU(MatView<int>(matrix_.data(), n, n), g, table_, 10, 10, device, 11); });
    };
    EXPECT_EQ(error("cuda:0", gaps_, 3), "FastAlignGPU only supports a 4 x 4 mismatch matrix!");
    EXPECT_EQ(error("cuda:0", Codes(7, 1)), "Gap penalty vector must be length 6 or 8.");
    fake_.state().free_memory = {size_t{1} << 30, size_t{1} << 30};
    EXPECT_EQ(error("cuda:1,0"), "(no error)");
    EXPECT_EQ(fake_.state().contexts_created, Codes{1});
    // The memory limit covers the aligner's own buffers; a failing driver call names this file and the error.
    EXPECT_TRUE(error("cuda:0:1000").starts_with("GPU memory limit of 1000 bytes reached on CUDA device 0: "));
    fake_.state().fail_allocation_after = fake_.state().allocations + 6;
    EXPECT_TRUE(FakeCuda::MatchesWithLine(error("cuda:0"),
                                          "CUDA error at pair_alignment/align_cuda:", ": CUDA_ERROR_OUT_OF_MEMORY"));
    fake_.state().fail_allocation_after = -1;
    const int widest = FastAlignKernels::maxBatchRowWidth;
    EXPECT_TRUE(FastAlignGpuBatch::Fits(widest, 40, widest - 1));
    EXPECT_FALSE(FastAlignGpuBatch::Fits(widest + 2, 40, widest + 1));
    EXPECT_TRUE(FastAlignGpuBatch::Fits(101, 40, 5000));  // a narrow band holds long windows
    const std::vector<Codes> three(3, Codes(10, 1));
    auto refusal = [&](int band, const std::vector<Codes>& refs, const std::string& device, int window) {
        return ErrorOf([&] { FastAlignGpuBatch(view_, gaps_, band, refs, device, window); });
    };
    EXPECT_EQ(refusal(widest + 2, three, "cuda:0", widest + 1),
              "FastAlignGPU: windows of " + std::to_string(widest + 1) + " bases with band width " +
                  std::to_string(widest + 2) + " are too wide for the batch kernel.");
    EXPECT_EQ(refusal(11, {Codes{0, 4}}, "cuda:0", 20), "FastAlignGPU base codes must be 0 to 3.");
    EXPECT_TRUE(
        refusal(11, three, "cuda:0:100", 20).starts_with("GPU memory limit of 100 bytes reached on CUDA device 0: "));
    const size_t contexts = fake_.state().contexts_created.size();
    FastAlignGPU first(view_, gaps_, table_, 10, 20, "cuda:0", 11),
        second(view_, gaps_, table_, 10, 20, "cuda:0:50%", 11);
    EXPECT_EQ(fake_.state().contexts_created.size(), contexts + 1);
    EXPECT_EQ(fake_.state().live_streams, 2);
    std::vector<Codes> references(FastAlignGPU::kMaxReferences, Codes(10, 2));
    first.SetReferences(references);
    Codes scores;
    std::vector<Path> paths;
    first.AlignAll(std::string(20, 'A'), scores, paths);
    const auto& launches = fake_.state().launches;
    ASSERT_EQ(launches.size(), 2u);
    EXPECT_EQ(launches[0].kernel + " " + launches[1].kernel, "SeqToInts Align");
    EXPECT_EQ(std::tuple(launches[0].block[0], launches[1].block[0], launches[1].grid[0]), std::tuple(32u, 352u, 1u));
    EXPECT_THROW(first.AlignAll(std::string(21, 'A'), scores, paths), std::runtime_error);
    EXPECT_THROW(first.SetReferences({Codes(11, 0)}), std::runtime_error);
    EXPECT_THROW(first.SetReferences({Codes{0, 4}}), std::runtime_error);
    references.emplace_back(5, 0);
    EXPECT_EQ(ErrorOf([&] { first.SetReferences(references); }), "Too many sequences for GPU threads to contain!");
    FastAlignGpuBatch batch(view_, gaps_, 11, three, "cuda:0", 20, 50);
    EXPECT_EQ(fake_.state().live_streams, 4);
    fake_.state().launches.clear();
    batch.ScoreWindows(std::vector<Codes>(120, Codes(20, 1)), scores);
    ASSERT_EQ(launches.size(), 3u);  // 50 + 50 + 20 windows
    EXPECT_EQ(std::tuple(launches[0].kernel, launches[0].block[0], launches[0].grid[0], launches[2].grid[0]),
              std::tuple(std::string("ScoreBatch"), 128u, 2u, 1u));  // 150 and 60 threads
    EXPECT_THROW(batch.ScoreWindows({Codes(21, 0)}, scores), std::runtime_error);
    EXPECT_THROW(batch.ScoreWindows({Codes{0, 4}}, scores), std::runtime_error);
}

// Each case takes one bit from a processor and system that have everything
// (CPUID leaf 1 ECX, leaf 7 EBX, XCR0): an extension counts only where the
// system saves its registers, and no name picks the widest build that runs.
TEST(SimdDispatch, PicksTheWidestBuildTheProcessorAndSystemAllow) {
    const std::vector<std::tuple<int, int, std::string>> cases = {{0, -1, "avx512"}, {2, 7, "avx2"},  {1, 16, "avx2"},
                                                                  {1, 30, "avx2"},   {1, 31, "avx2"}, {1, 5, "sse41"},
                                                                  {0, 28, "sse41"},  {2, 2, "sse41"}, {0, 27, "sse41"}};
    for (const auto& [word, bit, build] : cases) {
        // SSE4.1, OSXSAVE, AVX; AVX2, AVX-512 F, BW, VL; SSE, AVX, opmask and ZMM state.
        uint64_t words[] = {(1u << 19) | (1u << 27) | (1u << 28), (1u << 5) | (1u << 16) | (1u << 30) | (1u << 31),
                            0xe7};
        if (bit >= 0) words[word] &= ~(uint64_t{1} << bit);
        EXPECT_EQ(SelectKernels("", DecodeCpuFeatures(words[0], words[1], words[2])).name, build) << word << " " << bit;
    }
    EXPECT_STREQ(SelectKernels("", DecodeCpuFeatures(0, 0, 0)).name, "generic");
    const CpuFeatures none, avx2{true, true, false}, all{true, true, true};
    EXPECT_EQ(ErrorOf([&] { SelectKernels("avx512", avx2); }),
              "SIMD build \"avx512\" is not supported by this processor.");
    EXPECT_EQ(ErrorOf([&] { SelectKernels("avx2", none); }), "SIMD build \"avx2\" is not supported by this processor.");
    for (const std::string name : {"avx1024", "AVX2"})
        EXPECT_EQ(ErrorOf([&] { SelectKernels(name, all); }),
                  "Unknown SIMD build \"" + name + "\" (expected generic, sse41, avx2 or avx512).");
    // A reference batch holds a profile per lane block width of the builds that run here, once.
    EXPECT_EQ(RunnableBlockBytes(), (ProbeCpuFeatures().avx512bw ? Codes{128, 32} : Codes{32}));
}

// The build is chosen once per process, so a fresh one tries a bad VB_SIMD:
// making an aligner reports it, so that the program stops while it sets up.
TEST(SimdDispatch, UnknownOrUnsupportedBuildInEnvironmentIsRefused) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto refuse = [](const char* value) {
        setenv("VB_SIMD", value, 1);
        std::cerr << ErrorOf([] { Costs{Codes(16), Codes(6), Codes(6)}.Aligner(5); });
        std::exit(3);
    };
    EXPECT_EXIT(refuse("avx1024"), ::testing::ExitedWithCode(3), "Unknown SIMD build \"avx1024\" in VB_SIMD");
    if (!ProbeCpuFeatures().avx512bw) {
        EXPECT_EXIT(refuse("avx512"), ::testing::ExitedWithCode(3),
                    "SIMD build \"avx512\" in VB_SIMD is not supported by this processor");
    }
}

// Columns in any order, element (a, b) being row a of column b, copied through
// both strides of a view. Each fault names the file and line or column; values
// past the bound would let alignments overflow, and text that is no integer
// (too long for one, or empty) is refused before any range check. A byte
// order mark and Windows line ends are no part of the table.
TEST(ScoreMatrix, LaysColumnsSideBySideAndNamesEachFault) {
    const TestSupport::TempFolder folder;
    Codes m = LoadMismatchMatrix(folder.Write("matrix.txt",
                                              "\xEF\xBB\xBF# made up\r\nT\tG\tC\tA\r\n3\t2\t1\t0\n\n# "
                                              "mid\n7\t6\t5\t4\n11\t10\t9\t8\n-1000\t14\t13\t1000\r\n"));
    EXPECT_EQ(m, (Codes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 1000, 13, 14, -1000}));
    EXPECT_EQ(FastAlign(MatView<int>(m.data(), 4, 4, 1, 4), {1, 1, 1, 1, 1, 1}, 10).GetMismatchScore(1, 2), 9);
    const std::string ones = "\t1\t1\t1\n1\t1\t1\t1\n1\t1\t1\t1\n1\t1\t1\t1\n";
    const std::vector<std::string> values = {
        "1001", "-1001", "2147483647", "-2147483648", "99999999999", "99999999999999999999", "1x", ""};
    for (size_t k = 0; k < values.size(); ++k) {  // the first five are integers
        const auto file = folder.Write("value.txt", "A\tC\tG\tT\n" + values[k] + ones);
        const std::string where = " in column A of score matrix \"" + file + "\"";
        EXPECT_EQ(ErrorOf([&] { LoadMismatchMatrix(file); }),
                  k < 5 ? "Value " + values[k] + where + " is outside the allowed range -1000 to 1000."
                        : "Invalid value \"" + values[k] + "\"" + where + ".");
    }
    // Line numbers count every line, comments included.
    const std::string row = "Error: Incomplete row in line ", column = " in score matrix \"";
    const std::vector<std::array<std::string, 3>> faults = {
        {"# c\nA\tC\tG\tT\n1\t2\t3\n", row + "3 of \"", "\": expecting 4 columns but got 3"},
        {"A\tC\tG\tT\n1" + ones + "1\t2\t3\t4\t5\n", row + "6 of \"", "\": expecting 4 columns but got 5"},
        {"A\tC\tG\tT\n1" + ones + "1\t1\t1\t1\n", "Column A" + column, "\" has wrong size."},
        {"A\tX\tG\tT\n1" + ones, "Column C" + column, "\" has wrong size."}};
    for (const auto& [text, before, after] : faults) {
        const auto file = folder.Write("fault.txt", text);
        EXPECT_EQ(ErrorOf([&] { LoadMismatchMatrix(file); }), before + file + after);
    }
    EXPECT_EQ(ErrorOf([] { ReadTable("no/such/table.txt"); }), "Error: Failed to open file \"no/such/table.txt\"");
    EXPECT_EQ(ErrorOf([] { LoadMismatchMatrix("absent.txt"); }),
              "Error: could not find mismatch matrix file \"absent.txt\", check configuration.");
    EXPECT_EQ(ErrorOf([] { ConvertGapVector({1, 2, 3, 4, 5, 6, 7}); }), "Gap penalty vector must be length 6 or 8.");
}

}  // namespace
}  // namespace PairAlignment
