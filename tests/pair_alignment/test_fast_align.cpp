// The banded aligner against a plain full-matrix dynamic program written
// here, and every build and batch path against the generic build.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "pair_alignment/band_placement.h"
#include "pair_alignment/fast_align.h"
#include "pair_alignment/kernel_stats.h"
#include "pair_alignment/simd_dispatch.h"
#include "tests/pair_alignment/sequences.h"
#include "tests/support/error_of.h"

using namespace PairAlignment;
using brim::data_wrappers::MatView;
using brim::data_wrappers::VecView;

namespace {

struct Result {
    int score = 0;
    Path path;
    bool operator==(const Result& o) const { return score == o.score && path == o.path; }
};

using AlignerTest::View;
// Row-major (L1 + 1) x (L2 + 1) dynamic program over the cells allowed by
// in_band, with the aligner's costs and tie-breaks, and a traceback that
// writes each step's pair directly.
Result Naive(const std::vector<int>& m, const std::vector<int>& g, const std::vector<int>& ref,
             const std::vector<int>& qry, const std::vector<std::vector<bool>>& in_band) {
    const int l1 = ref.size(), l2 = qry.size();
    Result r;
    if (l1 == 0 || l2 == 0) {
        for (int j = 0; j < l2; ++j)
            r.path.emplace_back(-1, j);
        for (int i = 0; i < l1; ++i)
            r.path.emplace_back(i, -1);
        r.score = ZERO_PROB_SCORE;
        return r;
    }
    const int none = ZERO_PROB_SCORE;
    std::vector<std::vector<int>> s(l1 + 1, std::vector<int>(l2 + 1, none));
    std::vector<std::vector<char>> how(l1 + 1, std::vector<char>(l2 + 1, ' '));
    s[0][0] = 0;
    for (int i = 0; i <= l1; ++i)
        for (int j = 0; j <= l2; ++j) {
            if ((i == 0 && j == 0) || !in_band[i][j]) continue;
            const bool d_ok = i > 0 && j > 0 && in_band[i - 1][j - 1];
            const bool u_ok = j > 0 && in_band[i][j - 1];
            const bool r_ok = i > 0 && in_band[i - 1][j];
            const int diag = (d_ok ? s[i - 1][j - 1] : none) + (i > 0 && j > 0 ? m[4 * ref[i - 1] + qry[j - 1]] : 0);
            const int up = (u_ok ? s[i][j - 1] : none) + (i == 0 ? g[0] : i == l1 ? g[1] : g[2]);
            const int right = (r_ok ? s[i - 1][j] : none) + (j == 0 ? g[3] : j == l2 ? g[4] : g[5]);
            if (diag >= up && diag >= right) {
                s[i][j] = diag, how[i][j] = 'D';
            } else if (right < up) {
                s[i][j] = up, how[i][j] = 'U';
            } else {
                s[i][j] = right, how[i][j] = 'R';
            }
        }
    r.score = s[l1][l2];
    for (int i = l1, j = l2; i > 0 || j > 0;) {
        const char h = i == 0 ? 'U' : j == 0 ? 'R' : how[i][j];
        if (h == 'D') r.path.emplace_back(--i, --j);
        if (h == 'U') r.path.emplace_back(-1, --j);
        if (h == 'R') r.path.emplace_back(--i, -1);
    }
    std::reverse(r.path.begin(), r.path.end());
    return r;
}

std::vector<std::vector<bool>> Band(int l1, int l2, int configured) {
    std::vector<std::vector<bool>> in(l1 + 1, std::vector<bool>(l2 + 1, false));
    std::vector<int> off(l1 + l2 + 1), len(l1 + l2 + 1);
    PlaceBand(l1, l2, EffectiveBandWidth(l1, l2, configured), off.data(), len.data());
    for (int d = 0; d <= l1 + l2; ++d)
        for (int j = off[d]; j < off[d] + len[d]; ++j)
            in[d - j][j] = true;
    return in;
}

struct Case {
    std::vector<int> matrix, gaps, costs, ref, qry;
    int width = 1;
};

using AlignerTest::RandomSeq;

// Small value ranges so that ties between the three moves are common.
Case RandomCase(std::mt19937& rng, int max_len) {
    Case c;
    const int lo = -int(rng() % 4), hi = rng() % 4;
    c.matrix.resize(16);
    for (int& v : c.matrix)
        v = lo + int(rng() % (hi - lo + 1));
    c.gaps.resize(rng() % 2 ? 6 : 8);
    for (int& v : c.gaps)
        v = int(rng() % 5) - 1;
    c.costs.clear();
    for (int k : c.gaps.size() == 6 ? std::vector<int>{0, 1, 2, 3, 4, 5} : std::vector<int>{0, 1, 2, 4, 5, 6})
        c.costs.push_back(-c.gaps[k]);
    c.ref = RandomSeq(rng, rng() % (max_len + 1));
    // Queries are often a mutated copy of the reference, so alignments are not
    // all noise.
    if (rng() % 2) {
        c.qry = c.ref;
        for (int& b : c.qry)
            if (rng() % 8 == 0) b = rng() % 4;
        const int extra = rng() % (max_len / 2 + 1);
        c.qry.insert(c.qry.begin() + rng() % (c.qry.size() + 1), extra / 2, 1);
        c.qry.resize(std::min<size_t>(c.qry.size() + extra - extra / 2, max_len), 2);
    } else {
        c.qry = RandomSeq(rng, rng() % (max_len + 1));
    }
    c.width = 1 + rng() % (rng() % 3 ? 40 : 2 * max_len + 2);
    return c;
}

Result RunAlign(const Case& c, const std::string& build) {
    ForceSimdBuild(build);
    FastAlign aligner(MatView<int>(const_cast<int*>(c.matrix.data()), 4, 4), c.gaps, c.width);
    Result r;
    r.score = aligner.Align(View(c.ref), View(c.qry), r.path);
    return r;
}

std::vector<std::string> SupportedBuilds() {
    std::vector<std::string> builds;
    for (const char* name : {"generic", "sse41", "avx2", "avx512"})
        if (TestSupport::ErrorOf([&] { ForceSimdBuild(name); }) == "(no error)") builds.push_back(name);
    return builds;
}

class FastAlignTest : public ::testing::Test {
protected:
    void SetUp() override { original_ = ActiveSimdBuild(); }
    void TearDown() override {
        ForceSimdBuild(original_);
        SetKernelStatsEnabled(false);
        ResetKernelStats();
    }
    std::string original_;
};

std::string Describe(const Case& c) {
    auto join = [](const std::vector<int>& v) {
        std::string s;
        for (int x : v)
            s += std::to_string(x) + ",";
        return s;
    };
    return "matrix " + join(c.matrix) + " gaps " + join(c.gaps) + " width " + std::to_string(c.width) + "\nref " +
           join(c.ref) + "\nqry " + join(c.qry);
}

// Costs for the 8-bit kernels' tests: values up to `limit` (the extremes
// often), the two opens equal when asked, and each way past the kernels'
// conditions on request: one matrix value at `limit` (the caller passes 26)
// or a start gap dearer than its open.
struct ByteCosts {
    std::vector<int> matrix, gaps, costs;
};
ByteCosts RandomByteCosts(std::mt19937& rng, int limit, bool too_large, bool dear_start, bool equal_opens) {
    auto value = [&](int lo, int hi) {
        return rng() % 4 == 0 ? (rng() % 2 ? hi : lo) : lo + int(rng() % (hi - lo + 1));
    };
    ByteCosts c;
    c.matrix.resize(16);
    for (int& v : c.matrix)
        v = value(-limit, limit);
    if (too_large) c.matrix[rng() % 16] = rng() % 2 ? limit : -limit;
    const int open1 = value(0, limit), open2 = equal_opens ? open1 : value(0, limit);
    const int start1 = value(0, open1);
    const int start2 = dear_start ? open2 + 1 : value(0, open2);
    c.gaps = {start1, value(0, limit), open1, open1, start2, value(0, limit), open2, open2};
    c.costs = {-c.gaps[0], -c.gaps[1], -c.gaps[2], -c.gaps[4], -c.gaps[5], -c.gaps[6]};
    return c;
}

}  // namespace

TEST_F(FastAlignTest, EveryBuildMatchesTheFullMatrixProgramOverTheBand) {
    std::mt19937 rng(20261121);
    const auto builds = SupportedBuilds();
    for (int n = 0; n < 1500; ++n) {
        Case c = RandomCase(rng, n < 1000 ? 40 : 200);
        // Now and then scores too wide for 16-bit lanes.
        if (n % 4 == 3) {
            for (int& v : c.matrix)
                v *= 100;
            for (int& v : c.costs)
                v *= 100;
            for (int& v : c.gaps)
                v *= 100;
        }
        const Result expected = Naive(c.matrix, c.costs, c.ref, c.qry, Band(c.ref.size(), c.qry.size(), c.width));
        // The span of the expected path: first and last query index of a pair.
        int first = -1, last = -1;
        for (const auto& [ref, query] : expected.path) {
            if (ref < 0 || query < 0) continue;
            if (first < 0) first = query;
            last = query;
        }
        for (const auto& build : builds) {
            ASSERT_EQ(RunAlign(c, build), expected) << build << "\n" << Describe(c);
            FastAlign aligner(MatView<int>(const_cast<int*>(c.matrix.data()), 4, 4), c.gaps, c.width);
            PairedSpan span;
            ASSERT_EQ(aligner.AlignSpan(View(c.ref), View(c.qry), span), expected.score) << build;
            ASSERT_EQ(span, (PairedSpan{first, last})) << build << "\n" << Describe(c);
        }
    }
}

// The band's ends move at most one cell per diagonal, it stays in the matrix,
// and a band at least as wide as the matrix covers all of it; also for
// lengths whose (l1 + 1) * d once overflowed int and threw the band out of
// the matrix. The offsets match a reference that forms the product in 64-bit
// integers: the band the int product gave wherever it fitted (the GPU kernel
// reproduces that one), the intended one beyond.
TEST_F(FastAlignTest, BandPlacementKeepsItsShapeForShortAndLongSequences) {
    auto reference = [](int l1, int l2, int width, std::vector<int>& off) {
        const int total = l1 + l2, half = width / 2;
        const double inv_n = 1.0 / (total + 1);
        int r = 0, q = 0;
        off.assign(total + 1, 0);
        for (int d = 1; d <= total; ++d) {
            const double a = static_cast<double>(static_cast<long long>(l1 + 1) * d) * inv_n - r;
            if (a <= d * inv_n * (l2 + 1) - q)
                ++q;
            else
                ++r;
            off[d] = std::max({0, d - l1, q - half});
        }
    };
    std::mt19937 rng(5);
    std::vector<std::pair<int, int>> sizes = {{100000, 150}, {150, 100000}, {60000, 60000}, {46000, 47000}};
    for (int n = 0; n < 20; ++n)
        sizes.emplace_back(1 + rng() % 46000, 1 + rng() % 46000);
    for (int n = 0; n < 400; ++n)
        sizes.emplace_back(1 + rng() % 150, 1 + rng() % 150);
    for (const auto& [l1, l2] : sizes) {
        const bool wide = rng() % 3 == 0;
        const int width =
            EffectiveBandWidth(l1, l2, wide ? std::max(l1, l2) | 1 : 1 + 2 * static_cast<int>(rng() % 200));
        const size_t diagonals = static_cast<size_t>(l1) + l2 + 1;
        std::vector<int> off(diagonals), len(diagonals), expected;
        PlaceBand(l1, l2, width, off.data(), len.data());
        ASSERT_TRUE(BandEndsStepByOne(off.data(), len.data(), static_cast<int>(diagonals))) << l1 << " " << l2;
        ASSERT_EQ(off[l1 + l2], l2);
        for (int d = 0; d <= l1 + l2; ++d) {
            ASSERT_GE(off[d], std::max(0, d - l1)) << l1 << " " << l2 << " " << d;
            ASSERT_LE(off[d] + len[d] - 1, std::min(l2, d)) << l1 << " " << l2 << " " << d;
            ASSERT_GE(len[d], 1);
            if (wide) {
                ASSERT_EQ(len[d], std::min(l2, d) - std::max(0, d - l1) + 1) << l1 << " " << l2 << " " << d;
            }
        }
        reference(l1, l2, width, expected);
        ASSERT_EQ(off, expected) << l1 << " " << l2;
    }
}

TEST_F(FastAlignTest, BatchesMatchAlignForEveryBuild) {
    std::mt19937 rng(99);
    const auto builds = SupportedBuilds();
    for (int n = 0; n < 120; ++n) {
        Case c = RandomCase(rng, 200);
        // Value scales that select 16-bit lanes, 32-bit lanes (near and past
        // the 16-bit limit) and the one-by-one fallback.
        const int scale = std::vector<int>{1, 1, 40, 80, 300, 3000000}[rng() % 6];
        for (int& v : c.matrix)
            v *= scale;
        for (int& v : c.gaps)
            v *= scale;
        // Equal open costs (the shipped settings) take a kernel of their own.
        if (n % 3 == 0) c.gaps[c.gaps.size() == 6 ? 5 : 6] = c.gaps[2];
        std::vector<std::vector<int>> refs;
        const int count = 1 + rng() % 40;
        const int common = rng() % 80;
        for (int k = 0; k < count; ++k)
            refs.push_back(RandomSeq(rng, rng() % 3 ? common : rng() % 90));
        std::vector<uint8_t> want(count);
        for (auto& w : want)
            w = rng() % 3 == 0;

        // A fresh aligner per expected result, so that nothing carried between
        // calls (buffers, the placed band) can hide in both sides.
        ForceSimdBuild("generic");
        std::vector<Result> expected(count);
        for (int k = 0; k < count; ++k) {
            FastAlign reference(MatView<int>(c.matrix.data(), 4, 4), c.gaps, c.width);
            expected[k].score = reference.Align(View(refs[k]), View(c.qry), expected[k].path);
        }

        for (const auto& build : builds) {
            ForceSimdBuild(build);
            FastAlign aligner(MatView<int>(c.matrix.data(), 4, 4), c.gaps, c.width);
            const auto batch = aligner.PrepareReferences(refs);
            std::vector<int> scores;
            std::vector<Path> paths;
            aligner.ScoreBatch(*batch, View(c.qry), scores);
            for (int k = 0; k < count; ++k)
                ASSERT_EQ(scores[k], expected[k].score) << build << " ref " << k;
            aligner.AlignBatch(*batch, View(c.qry), want, scores, paths);
            ASSERT_EQ(paths.size(), size_t(count));
            for (int k = 0; k < count; ++k) {
                ASSERT_EQ(scores[k], expected[k].score) << build << " ref " << k;
                ASSERT_EQ(paths[k], want[k] ? expected[k].path : Path{}) << build << " ref " << k;
            }
        }
    }
}

// The lane kernels on the shapes where their bookkeeping could slip: counts
// around each build's block of 8, 16, 32 or 64 lanes, references longer than
// the query, bands narrower than the matrix, scores in 16- and 32-bit lanes,
// two reference lengths in one batch. One batch, prepared once, serves every
// build.
TEST_F(FastAlignTest, BatchScoresMatchTheFullMatrixProgramForEveryBuild) {
    std::mt19937 rng(31415);
    const auto builds = SupportedBuilds();
    const std::vector<int> counts = {1, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 100, 129};
    for (int n = 0; n < 75; ++n) {
        Case c = RandomCase(rng, 60);
        // 1: 16-bit lanes; 40: 16-bit lanes near their limit; 300: 32-bit lanes.
        const int scale = std::vector<int>{1, 1, 40, 300}[n % 4];
        for (std::vector<int>* values : {&c.matrix, &c.gaps, &c.costs})
            for (int& v : *values)
                v *= scale;
        const int l2 = 1 + rng() % 60;
        int l1 = 1 + rng() % 60;
        if (n % 3 == 0) l1 = l2 + 1 + rng() % 30;       // reference longer than the query
        if (n % 3 == 1) c.width = 1 + 2 * (rng() % 6);  // band narrower than the matrix
        c.qry = RandomSeq(rng, l2);
        const int count = counts[n % counts.size()];
        std::vector<std::vector<int>> refs;
        for (int k = 0; k < count; ++k)
            refs.push_back(RandomSeq(rng, k % 5 == 4 ? 1 + rng() % 40 : l1));
        std::vector<int> expected;
        for (const auto& ref : refs)
            expected.push_back(Naive(c.matrix, c.costs, ref, c.qry, Band(ref.size(), c.qry.size(), c.width)).score);

        ForceSimdBuild(builds.back());
        const auto batch = FastAlign(MatView<int>(c.matrix.data(), 4, 4), c.gaps, c.width).PrepareReferences(refs);
        for (const auto& build : builds) {
            ForceSimdBuild(build);
            FastAlign aligner(MatView<int>(c.matrix.data(), 4, 4), c.gaps, c.width);
            std::vector<int> scores;
            aligner.ScoreBatch(*batch, View(c.qry), scores);
            ASSERT_EQ(scores, expected) << build << " case " << n << " count " << count << "\n" << Describe(c);
        }
    }
}

// The 8-bit kernel against the full-matrix program, for every build: costs
// up to its limit (25, the extremes often), equal and unequal opens, free and
// dear end gaps, up to 70 references (several lane blocks), references of 1000
// bases and windows of 10000 (with costs small enough for 16-bit scores). And
// just past each of its conditions (a cost of 26, a start gap dearer than an
// open one, a band narrower than the matrix), where the wider kernels must
// give the same scores instead.
TEST_F(FastAlignTest, ByteLanesMatchTheFullMatrixProgramForEveryBuild) {
    enum Kind { kBytes, kCostTooLarge, kDearStart, kNarrowBand, kKinds };
    std::mt19937 rng(2718);
    const auto builds = SupportedBuilds();
    SetKernelStatsEnabled(true);
    for (int n = 0; n < 120; ++n) {
        const Kind kind = static_cast<Kind>(n % kKinds);
        const bool huge = n >= 116;  // 1000-base references, windows up to 10000
        const int limit = kind == kCostTooLarge ? 26 : huge ? 2 : 25;
        auto [matrix, gaps, costs] = RandomByteCosts(rng, limit, kind == kCostTooLarge, kind == kDearStart, n % 3 == 0);
        const int open2 = gaps[6];
        const bool narrow = kind == kNarrowBand;
        const int l1 = huge ? 1000 : (narrow ? 3 : 1) + rng() % 80;
        const int l2 = huge ? (n % 2 ? 10000 : 1 + rng() % 1200) : (narrow ? 3 : 1) + rng() % 300;
        // A band of at most min(l1, l2) cells misses part of the longest diagonals.
        const int width = narrow ? 1 + 2 * int(rng() % ((std::min(l1, l2) - 1) / 2)) : std::max(l1, l2) + rng() % 3;
        const std::vector<int> qry = RandomSeq(rng, l2);
        std::vector<std::vector<int>> refs;  // now and then a second, shorter length
        for (int k = 0, count = huge ? 2 : 1 + rng() % 70; k < count; ++k)
            refs.push_back(RandomSeq(rng, k % 9 == 8 && !narrow ? 1 + rng() % l1 : l1));
        std::vector<int> expected;
        for (const auto& ref : refs)
            expected.push_back(Naive(matrix, costs, ref, qry, Band(ref.size(), l2, width)).score);

        for (const auto& build : builds) {
            ForceSimdBuild(build);
            FastAlign aligner(MatView<int>(matrix.data(), 4, 4), gaps, width);
            // A dear start gap scores a batch prepared by an aligner whose
            // costs take the 8-bit kernel: the scoring aligner's costs decide.
            std::vector<int> cheap_start = gaps;
            cheap_start[4] = open2;
            const auto batch =
                kind == kDearStart
                    ? FastAlign(MatView<int>(matrix.data(), 4, 4), cheap_start, width).PrepareReferences(refs)
                    : aligner.PrepareReferences(refs);
            std::vector<int> scores;
            ResetKernelStats();
            aligner.ScoreBatch(*batch, View(qry), scores);
            ASSERT_EQ(scores, expected) << build << " case " << n << " kind " << kind;
            const KernelStats stats = KernelStatsTotal();
            if (kind == kBytes)
                ASSERT_EQ(stats.byte_cells, stats.every_cell) << build << " case " << n;
            else
                ASSERT_EQ(stats.byte_cells, 0) << build << " case " << n << " kind " << kind;
        }
    }
}

// The 8-bit band kernel (one alignment with its path) against the
// full-matrix program, for every build: costs up to its limit (the extremes
// often, or a narrow range so that ties between the moves are common), free
// and dear end gaps, queries that hold a mutated copy of the reference
// anywhere or none, lengths from 1 (no cell off the last row and column),
// references of 1000 bases in windows of up to 10000. And just past each of
// its conditions (a cost of 26, a start gap dearer than an open one, a band
// narrower than the matrix), where the wider kernels take over.
TEST_F(FastAlignTest, ByteBandMatchesTheFullMatrixProgramForEveryBuild) {
    enum Kind { kBytes, kCostTooLarge, kDearStart, kNarrowBand, kKinds };
    std::mt19937 rng(4711);
    const auto builds = SupportedBuilds();
    for (int n = 0; n < 400; ++n) {
        const Kind kind = n % 2 ? kBytes : static_cast<Kind>(n / 2 % kKinds);
        const bool huge = n >= 396;
        const int limit = kind == kCostTooLarge ? 26 : n % 3 == 0 ? 3 : 25;
        auto [matrix, gaps, costs] = RandomByteCosts(rng, limit, kind == kCostTooLarge, kind == kDearStart, n % 5 == 0);
        const bool narrow = kind == kNarrowBand;
        const int l1 = huge ? 1000 : (narrow ? 3 : 1) + rng() % (n % 7 ? 100 : 4);
        const int l2 = huge ? (n % 2 ? 10000 : 1 + rng() % 2000) : (narrow ? 3 : 1) + rng() % (n % 11 ? 300 : 4);
        const std::vector<int> ref = RandomSeq(rng, l1);
        std::vector<int> qry = RandomSeq(rng, l2);
        if (rng() % 4 != 0) {
            const int at = rng() % l2;
            for (int k = 0; k < l1 && at + k < l2; ++k)
                qry[at + k] = rng() % 6 == 0 ? int(rng() % 4) : ref[k];
        }
        const int width = narrow ? 1 + 2 * int(rng() % ((std::min(l1, l2) - 1) / 2)) : std::max(l1, l2) + rng() % 3;
        const Result expected = Naive(matrix, costs, ref, qry, Band(l1, l2, width));
        PairedSpan expected_span;
        for (const auto& [i, j] : expected.path)
            if (i >= 0 && j >= 0) {
                if (expected_span.first < 0) expected_span.first = j;
                expected_span.last = j;
            }
        for (const auto& build : builds) {
            ForceSimdBuild(build);
            FastAlign aligner(MatView<int>(matrix.data(), 4, 4), gaps, width);
            Result r;
            r.score = aligner.Align(View(ref), View(qry), r.path);
            ASSERT_EQ(r, expected) << build << " case " << n << " kind " << kind << " " << l1 << " x " << l2;
            PairedSpan span;
            ASSERT_EQ(aligner.AlignSpan(View(ref), View(qry), span), expected.score) << build << " case " << n;
            ASSERT_EQ(span, expected_span) << build << " case " << n;
        }
    }
}

// Ties, empty sequences and wide scores are the random cases' business;
// only the layout check is left to show by hand.
TEST_F(FastAlignTest, StridedViewsAreRefused) {
    std::vector<int> m(16, -1), strided = {0, 9, 1, 9};
    FastAlign aligner(MatView<int>(m.data(), 4, 4), {1, 1, 1, 1, 1, 1}, 3);
    Path path;
    EXPECT_THROW(aligner.Align(VecView<int>(strided.data(), 2, 2), View({0, 1}), path), std::runtime_error);
}
