// The cross-talk estimate: its interval against a naive sum of the negative
// binomial, and the estimate against runs simulated under each model, where
// the true number of foreign reads is known.

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "apps/cross_talk.h"

namespace Vorpa {
namespace {

// Smallest k with P(M <= k) >= q, M negative binomial (r successes,
// success probability p), summing the probabilities one by one.
double NaiveQuantile(double r, double p, double q) {
    if (r == 0) return 0;
    double sum = 0;
    for (int k = 0;; ++k) {
        const double log_pmf =
            std::lgamma(k + r) - std::lgamma(k + 1.0) - std::lgamma(r) + r * std::log(p) + k * std::log1p(-p);
        sum += std::exp(log_pmf);
        if (sum >= q - 1e-12) return k;
    }
}

TEST(CrossTalk, IntervalMatchesTheNegativeBinomialSummedTermByTerm) {
    struct Case {
        uint64_t unlisted;
        double unlisted_weight, weight;
    };
    const std::vector<Case> cases = {{0, 10, 10}, {1, 10, 10}, {5, 3, 40},     {20, 100, 50},
                                     {37, 8, 8},  {3, 1, 200}, {150, 90, 120}, {0, 2, 500}};
    for (const auto& c : cases) {
        const auto [low, high] = ForeignReadsInterval(c.unlisted, c.unlisted_weight, c.weight, 1e9);
        const double p = c.unlisted_weight / (c.unlisted_weight + c.weight);
        const double u = static_cast<double>(c.unlisted);
        EXPECT_EQ(low, NaiveQuantile(u, p, 0.025)) << c.unlisted << " " << c.weight;
        EXPECT_EQ(high, NaiveQuantile(u + 1, p, 0.975)) << c.unlisted << " " << c.weight;
    }
    // Bounded by the reads there are.
    EXPECT_EQ(ForeignReadsInterval(500, 1, 100, 80).second, 80);
}

// prefix followed by k; appended, since GCC 12 warns (wrongly) about
// "text" + std::to_string(k).
std::string Named(const char* prefix, int k) {
    std::string name(prefix);
    name += std::to_string(k);
    return name;
}

// How often the estimate lands within 2x of the true count of moved reads and
// its interval covers it, over runs with enough of them to judge.
struct Coverage {
    int runs = 0, covered = 0, within_two = 0;

    void Add(const CrossTalkEstimate& estimate, uint64_t assigned, uint64_t foreign) {
        const double truth = static_cast<double>(foreign);
        if (truth < 20) return;
        ++runs;
        const double estimated = estimate.run.share * static_cast<double>(assigned);
        within_two += estimated <= 2 * truth && estimated >= truth / 2;
        covered += estimate.run.low * assigned <= truth && truth <= estimate.run.high * assigned;
    }
    // The estimate rests on a count of its own: a rare run misses by more.
    void Check() const {
        EXPECT_GE(within_two, runs * 97 / 100) << within_two << " of " << runs;
        EXPECT_GE(covered, runs * 9 / 10) << covered << " of " << runs;
    }
};

// Arrangements: a misassigned read lands on any other arrangement of the kit
// with equal chance. 12 arrangements, 7 listed.
TEST(CrossTalk, ArrangementEstimateFindsASimulatedRate) {
    std::mt19937_64 random(3);
    CrossTalkDesign design;
    for (int k = 1; k <= 12; ++k)
        design.kit_names.push_back(Named("bc", k));
    for (int k = 1; k <= 7; ++k)
        design.sample_of[Named("bc", k)] = Named("S", (k + 1) / 2);
    Coverage run;
    for (int trial = 0; trial < 200; ++trial) {
        const double rate = 0.001 * (1 + trial % 5);
        std::map<std::string, uint64_t> called, unlisted;
        uint64_t foreign = 0;
        for (int k = 1; k <= 7; ++k) {
            const int reads = 2000 + 1500 * k;
            for (int n = 0; n < reads; ++n) {
                int to = k;
                if (std::uniform_real_distribution<>(0, 1)(random) < rate) {
                    to = 1 + static_cast<int>(random() % 11);
                    if (to >= k) ++to;
                }
                const std::string name = Named("bc", to);
                (to <= 7 ? called : unlisted)[name]++;
                foreign += to <= 7 && to != k;
            }
        }
        uint64_t moved = 0;
        for (const auto& [name, reads] : unlisted)
            moved += reads;
        const auto estimate = EstimateCrossTalk(design, called, unlisted);
        ASSERT_TRUE(estimate.measurable);
        EXPECT_EQ(estimate.unlisted_reads, moved);
        uint64_t assigned = 0;
        for (const auto& [name, reads] : called)
            assigned += reads;
        EXPECT_EQ(estimate.run.reads, assigned);
        // Reads that moved between listed arrangements (also two of one
        // sample's): what the estimate aims at.
        run.Add(estimate, assigned, foreign);
    }
    EXPECT_GT(run.runs, 100);
    run.Check();
}

// Pairs: one end of a misassigned read carries the barcode of another read,
// drawn by its share at that end. 4 fronts x 3 rears, 8 of the 12 listed.
TEST(CrossTalk, PairEstimateFindsASimulatedRate) {
    std::mt19937_64 random(4);
    CrossTalkDesign design;
    design.pairs = true;
    const std::vector<std::pair<int, int>> cells = {{1, 1}, {1, 2}, {2, 2}, {2, 3}, {3, 1}, {3, 3}, {4, 1}, {4, 2}};
    auto name = [](int f, int r) { return Named("F", f) + Named("_R", r); };
    for (const auto& [f, r] : cells) {
        design.pair_cells.push_back({Named("F", f), Named("R", r)});
        design.sample_of[name(f, r)] = name(f, r);
    }
    Coverage run;
    for (int trial = 0; trial < 150; ++trial) {
        const double rate = 0.002 * (1 + trial % 4);
        std::vector<std::pair<int, int>> reads;
        for (size_t c = 0; c < cells.size(); ++c)
            reads.insert(reads.end(), 1500 + 700 * c, cells[c]);
        std::map<std::string, uint64_t> called, unlisted;
        uint64_t foreign = 0;
        for (const auto& [f, r] : reads) {
            auto [to_f, to_r] = std::pair{f, r};
            if (std::uniform_real_distribution<>(0, 1)(random) < rate) {
                // The donor's barcode at the same end.
                const auto& donor = reads[random() % reads.size()];
                if (random() % 2 == 0)
                    to_f = donor.first;
                else
                    to_r = donor.second;
            }
            const bool listed = design.sample_of.count(name(to_f, to_r)) > 0;
            (listed ? called : unlisted)[name(to_f, to_r)]++;
            foreign += listed && (to_f != f || to_r != r);
        }
        const auto estimate = EstimateCrossTalk(design, called, unlisted);
        ASSERT_TRUE(estimate.measurable);
        uint64_t assigned = 0;
        for (const auto& [cell, count] : called)
            assigned += count;
        run.Add(estimate, assigned, foreign);
    }
    EXPECT_GT(run.runs, 80);
    run.Check();
}

TEST(CrossTalk, NotMeasurableSaysWhy) {
    CrossTalkDesign design;
    design.kit_names = {"bc1", "bc2"};
    design.sample_of = {{"bc1", "A"}, {"bc2", "B"}};
    auto estimate = EstimateCrossTalk(design, {{"bc1", 10}, {"bc2", 5}}, {});
    EXPECT_FALSE(estimate.measurable);
    EXPECT_EQ(estimate.not_measurable, "the sample sheet lists every arrangement of the selected kits");
    estimate = EstimateCrossTalk(design, {}, {});
    EXPECT_EQ(estimate.not_measurable, "no read was assigned to a sample");
}

}  // namespace
}  // namespace Vorpa
