// The figures behind the report pages: histogram bins against a naive
// search over the bin edges, and the resume state, which must bring every
// figure back exactly or refuse a damaged file.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

#include "apps/histogram.h"
#include "apps/html_report.h"
#include "apps/resume_state.h"
#include "tests/support/error_of.h"

namespace Vorpa {
namespace {

// The last bin whose start is at or below the value.
template <typename Start>
size_t NaiveBin(double value, size_t bins, Start start) {
    size_t bin = 0;
    while (bin + 1 < bins && start(bin + 1) <= value)
        ++bin;
    return bin;
}

TEST(Histogram, BinsAgreeWithTheirEdges) {
    std::mt19937_64 rng(7);
    for (int i = 0; i < 20000; ++i) {
        // Log-uniform lengths up to 2^32, and the edges themselves.
        uint64_t length = static_cast<uint64_t>(std::exp2(std::uniform_real_distribution<double>(0, 32)(rng))) - 1;
        if (i % 3 == 0) length = LengthHistogram::BinStart(rng() % LengthHistogram::kBins);
        const size_t expected = NaiveBin(static_cast<double>(length), LengthHistogram::kBins, [](size_t bin) {
            return static_cast<double>(LengthHistogram::BinStart(bin));
        });
        ASSERT_EQ(LengthHistogram::BinOf(length), expected) << length;
    }
    for (size_t bin = 1; bin < LengthHistogram::kBins; ++bin)
        ASSERT_LT(LengthHistogram::BinStart(bin - 1), LengthHistogram::BinStart(bin)) << bin;

    const ValueScale scale = RunTally::kScoreScale;
    for (int i = 0; i < 20000; ++i) {
        const double value = std::uniform_real_distribution<double>(-80, 130)(rng);
        ASSERT_EQ(scale.BinOf(value), NaiveBin(value, scale.bins, [&](size_t bin) { return scale.BinStart(bin); }))
            << value;
    }
    EXPECT_EQ(scale.BinOf(std::nan("")), 0u);
}

// A tally with every kind of figure, random but fixed by the seed.
RunTally RandomTally(std::mt19937_64& rng) {
    RunTally tally;
    const char* names[] = {"barcode01", "barcode02", "odd\tname%", kUnclassified};
    for (int read = 0; read < 500; ++read) {
        const std::string name = names[rng() % 4];
        const float score = rng() % 10 == 0 ? -INFINITY : std::uniform_real_distribution<float>(-60, 100)(rng);
        const int quality = static_cast<int>(rng() % 62) - 1;  // -1: no candidate
        tally.AddRead(name, rng() % 100000, score, std::uniform_real_distribution<double>(0, 1)(rng), quality);
    }
    tally.unclassified_reasons["no barcode above the minimum"] = rng() % 50;
    tally.unclassified_reasons["mixed barcodes"] = rng() % 50;
    tally.samples["patient\n1"] = rng() % 50;
    tally.dropped = 1, tally.failed = 2, tally.mixed = 3, tally.files_read = 4;
    tally.files_ended_early = 5, tally.files_failed = 6, tally.records_skipped = 7;
    return tally;
}

TEST(ResumeState, EveryFigureComesBack) {
    std::mt19937_64 rng(11);
    ResumeState state;
    state.options = {{"compress_fastq", "true"}, {"barcode_kits", "A B"}, {"sample_sheet", ""}};
    state.summary_size = 123456789012;
    state.wall_time_s = 0.1 + 1e-12;
    state.tally = RandomTally(rng);
    state.outputs = {{"barcode01", "run\t1", 3, 17, 4096, true}, {"unclassified", "r2", 0, 0, 0, false}};
    state.inputs["/in/a b.fastq"] = {100, -5, 7, false};
    state.inputs["/in/c%.fastq.gz"] = {1 << 30, 1700000000123456789, 4000, true};
    const std::string text = FormatResumeState(state);
    const ResumeState back = ParseResumeState(text, "state");
    EXPECT_EQ(FormatResumeState(back), text);
    EXPECT_EQ(back.options, state.options);
    EXPECT_EQ(back.wall_time_s, state.wall_time_s);
    EXPECT_EQ(back.tally.Written(), state.tally.Written());
    EXPECT_EQ(back.tally.arrangements.at("odd\tname%").lengths.counts,
              state.tally.arrangements.at("odd\tname%").lengths.counts);
    EXPECT_EQ(back.tally.scores.classified.counts, state.tally.scores.classified.counts);
    EXPECT_EQ(back.tally.quality.unclassified.counts, state.tally.quality.unclassified.counts);
    EXPECT_EQ(back.tally.arrangements.at("barcode01").expected_wrong,
              state.tally.arrangements.at("barcode01").expected_wrong);
    EXPECT_EQ(back.tally.arrangements.at("barcode01").score_sum, state.tally.arrangements.at("barcode01").score_sum);
    EXPECT_EQ(back.outputs.front().run_id, "run\t1");
    EXPECT_EQ(back.inputs.at("/in/c%.fastq.gz").mtime_ns, 1700000000123456789);
    // The report of the restored tally is the report of the original.
    EXPECT_EQ(FormatHtmlReport(back.tally, RunInfo{"v", {}, 1, true}),
              FormatHtmlReport(state.tally, RunInfo{"v", {}, 1, true}));
}

TEST(ResumeState, DamagedFilesAreRefusedWithTheLine) {
    const std::string good = FormatResumeState(ResumeState{});
    const struct {
        std::string text;
        std::string message;
    } cases[] = {
        {"", "empty"},
        {good.substr(0, good.size() - 4), "cut short"},
        {"other program 1\n" + good.substr(good.find('\n') + 1), "line 1"},
        {good.substr(0, good.find('\n') + 1) + "summary_size\t12x\nend\n", "line 2: bad number '12x'"},
        {good.substr(0, good.find('\n') + 1) + "input\ta\t1\t2\t3\nend\n", "line 2: expected 6 fields"},
        {good.substr(0, good.find('\n') + 1) + "mystery\nend\n", "unknown record 'mystery'"},
        {good + "summary_size\t1\n", "unexpected line"},
        {good.substr(0, good.find('\n') + 1) + "split\tscores\t99:1\t-\nend\n", "bad bins"},
    };
    for (const auto& c : cases) {
        const std::string error = TestSupport::ErrorOf([&] { ParseResumeState(c.text, "folder/state"); });
        EXPECT_TRUE(TestSupport::Holds(error, c.message) && TestSupport::Holds(error, "folder/state")) << error;
    }
}

TEST(ResumeState, OnlyOptionsThatShapeTheOutputMustMatch) {
    const std::vector<std::pair<std::string, std::string>> earlier = {
        {"worker_threads", "2"}, {"input_path", "a"}, {"compress_fastq", "false"}, {"min_score", "60"}};
    EXPECT_TRUE(OptionsThatDiffer(earlier, {{"worker_threads", "8"},
                                            {"input_path", "./a"},
                                            {"watch", "true"},
                                            {"compress_fastq", "false"},
                                            {"min_score", "60"}})
                    .empty());
    EXPECT_EQ(OptionsThatDiffer(earlier, {{"compress_fastq", "true"}, {"min_score", "60"}, {"new_option", "x"}}),
              (std::vector<std::string>{"compress_fastq (earlier: 'false', now: 'true')",
                                        "new_option (earlier: '(not set)', now: 'x')"}));
}

}  // namespace
}  // namespace Vorpa
