// The end-of-run reports, which workflows parse: their strings must decode,
// their figures add up, a reader never finds one half written; the figures
// behind the page; the resume state, which brings every figure back exactly.

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "apps/cross_talk.h"
#include "apps/histogram.h"
#include "apps/html_report.h"
#include "apps/resume_state.h"
#include "apps/run_report.h"
#include "tests/support/error_of.h"
#include "tests/support/temp_folder.h"

namespace Vorpa {
namespace {

namespace fs = std::filesystem;
using TestSupport::ErrorOf;
using TestSupport::Holds;

// Both reports of one tally: arrangements by name, "unclassified" last.
TEST(RunReport, LogLinesAndJsonAddUp) {
    RunTally tally;
    tally.arrangements["unclassified"].Add(100, 40.0f);
    tally.arrangements["unclassified"].Add(300, 0.0f);
    tally.arrangements["barcode10"].Add(1000, 90.0f, 0.25);
    tally.arrangements["barcode10"].Add(2000, 80.5f, 0.125);
    tally.arrangements["barcode10"].Add(3001, -INFINITY);  // not in the mean
    tally.arrangements["barcode02"].Add(7, 100.0f);
    tally.dropped = 4, tally.files_found = 3, tally.files_read = 3;
    tally.unclassified_reasons["no barcode above the minimum"] = 1;
    tally.unclassified_reasons["not in sample sheet"] = 1;
    EXPECT_EQ(FormatJsonReport(tally, {"1.2.3", {{"barcode_kits", "VB-NB24"}, {"save_path", "a\"b"}}, 2.0}), R"({
  "program": "vorpa_barcoder",
  "version": "1.2.3",
  "options": {
    "barcode_kits": "VB-NB24",
    "save_path": "a\"b"
  },
  "wall_time_s": 2.0,
  "files": {"found": 3, "read": 3, "ended_early": 0, "failed": 0},
  "reads": {"total": 10, "written": 6, "classified": 4, "unclassified": 2, "dropped_no_run_id": 4, "failed": 0, "records_skipped": 0},
  "mixed_barcodes": 0,
  "unclassified_reasons": {"no_barcode_above_minimum": 1, "mixed_barcodes": 0, "one_end_only": 0, "low_barcode_quality": 0, "not_in_sample_sheet": 1},
  "arrangements": {
    "barcode02": {"reads": 1, "bases": 7, "mean_read_length": 7.0, "mean_score": 100.0, "expected_wrong_calls": 0.0},
    "barcode10": {"reads": 3, "bases": 6001, "mean_read_length": 2000.3333333333333, "mean_score": 85.25, "expected_wrong_calls": 0.375},
    "unclassified": {"reads": 2, "bases": 400, "mean_read_length": 200.0, "mean_score": 20.0, "expected_wrong_calls": 0.0}
  }
}
)");
    std::string text;
    for (const auto& line : FormatRunReport(tally, 2.0))
        text += line + "\n";
    EXPECT_LT(text.find("barcode02"), text.find("barcode10"));
    EXPECT_LT(text.find("barcode10"), text.find("unclassified"));
    for (const char* line :
         {"  barcode10             3   50.00%\n", "Classified: 4 of 6 reads (66.67%), unclassified: 2 (33.33%).\n",
          "  unclassified, no barcode above the minimum: 1\n", "Reads without a run id (not written): 4.\n",
          "Throughput: 5 reads/s"})
        EXPECT_TRUE(Holds(text, line)) << line << " in\n" << text;
    EXPECT_FALSE(Holds(text, "Reads per sample:") || Holds(text, "Secondary and supplementary")) << text;
}

void AppendUtf8(std::string& out, uint32_t cp) {
    const int extra = cp < 0x80 ? 0 : cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
    const uint32_t lead[] = {0, 0xC0, 0xE0, 0xF0};
    out += static_cast<char>(lead[extra] | (cp >> (6 * extra)));
    for (int k = extra - 1; k >= 0; --k)
        out += static_cast<char>(0x80 | ((cp >> (6 * k)) & 0x3F));
}

// A strict JSON string decoder (RFC 8259): fails on a raw control character.
std::string DecodeJsonString(const std::string& literal) {
    EXPECT_TRUE(literal.size() >= 2 && literal.front() == '"' && literal.back() == '"') << literal;
    const std::string escapes = "\"\"\\\\//b\bf\fn\nr\rt\t";
    std::string out;
    for (size_t i = 1; i + 1 < literal.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(literal[i]);
        EXPECT_TRUE(c >= 0x20 && c != '"') << "raw control character or quote in " << literal;
        if (c != '\\') {
            out += static_cast<char>(c);
        } else if (literal[++i] == 'u') {
            AppendUtf8(out, static_cast<uint32_t>(std::stoul(literal.substr(i + 1, 4), nullptr, 16)));
            i += 4;
        } else {
            size_t at = 0;
            while (at < escapes.size() && escapes[at] != literal[i])
                at += 2;
            EXPECT_LT(at, escapes.size()) << "bad escape in " << literal;
            out += at < escapes.size() ? escapes[at + 1] : '?';
        }
    }
    return out;
}

// The text with each byte that starts no valid UTF-8 sequence as U+FFFD.
std::string ReferenceSanitise(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        const int length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
        bool valid = length > 0 && i + length <= text.size();
        uint32_t cp = length == 1 ? lead : length == 2 ? lead & 0x1F : length == 3 ? lead & 0x0F : lead & 0x07;
        for (int k = 1; valid && k < length; ++k) {
            const unsigned char next = static_cast<unsigned char>(text[i + k]);
            valid = next >> 6 == 2;
            cp = (cp << 6) | (next & 0x3F);
        }
        const uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        valid = valid && cp >= smallest[length] && cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF);
        out.append(valid ? text.substr(i, length) : "\xEF\xBF\xBD");
        i += valid ? length : 1;
    }
    return out;
}

TEST(JsonString, RandomTextsDecodeBackToTheirWellFormedForm) {
    std::mt19937 random(20240611);
    // Controls, quotes, backslashes, UTF-8 leads, continuations, overlong and surrogate starts.
    const std::string interesting =
        std::string("\"\\/\n\r\t\b\f\x01\x1f\x7f", 12) + "\xC0\xC1\xC2\xDF\xE0\xED\xEF\xF0\xF4\xF5\xFF\x80\x9F\xA0\xBF";
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        const int length = static_cast<int>(random() % 12);
        for (int i = 0; i < length; ++i) {
            if (random() % 3 == 0) {
                text += interesting[random() % interesting.size()];
            } else if (random() % 2 == 0) {
                AppendUtf8(text, random() % 3 == 0 ? 0x10000 + random() % 0xFFFF : random() % 0xD000);
            } else {
                text += static_cast<char>(random() % 256);
            }
        }
        ASSERT_EQ(DecodeJsonString(JsonString(text)), ReferenceSanitise(text)) << "round " << round;
    }
}

// Smallest k with P(M <= k) >= q, M negative binomial (r successes,
// success probability p), summing the probabilities one by one.
double NaiveQuantile(double r, double p, double q) {
    double sum = 0;
    for (int k = 0; r > 0; ++k) {
        sum +=
            std::exp(std::lgamma(k + r) - std::lgamma(k + 1.0) - std::lgamma(r) + r * std::log(p) + k * std::log1p(-p));
        if (sum >= q - 1e-12) return k;
    }
    return 0;
}

// The interval against a naive sum; an estimate that cannot be made says why.
TEST(CrossTalk, IntervalMatchesTheNegativeBinomialSummedTermByTerm) {
    const std::vector<std::tuple<uint64_t, double, double>> cases = {
        {0, 10, 10}, {1, 10, 10}, {5, 3, 40}, {20, 100, 50}, {37, 8, 8}, {3, 1, 200}, {150, 90, 120}, {0, 2, 500}};
    for (const auto& [unlisted, unlisted_weight, weight] : cases) {
        const auto [low, high] = ForeignReadsInterval(unlisted, unlisted_weight, weight, 1e9);
        const double p = unlisted_weight / (unlisted_weight + weight), u = static_cast<double>(unlisted);
        EXPECT_EQ(low, NaiveQuantile(u, p, 0.025)) << unlisted << " " << weight;
        EXPECT_EQ(high, NaiveQuantile(u + 1, p, 0.975)) << unlisted << " " << weight;
    }
    EXPECT_EQ(ForeignReadsInterval(500, 1, 100, 80).second, 80) << "bounded by the reads there are";

    CrossTalkDesign design;
    design.kit_names = {"bc1", "bc2"};
    design.sample_of = {{"bc1", "A"}, {"bc2", "B"}};
    const auto estimate = EstimateCrossTalk(design, {{"bc1", 10}, {"bc2", 5}}, {});
    EXPECT_FALSE(estimate.measurable);
    EXPECT_EQ(estimate.not_measurable, "the sample sheet lists every arrangement of the selected kits");
    EXPECT_EQ(EstimateCrossTalk(design, {}, {}).not_measurable, "no read was assigned to a sample");
}

// A misassigned read lands on any other of 12 arrangements (7 listed), or
// takes one end's barcode from another read (8 of 4 x 3 pairs listed). The
// estimate of the reads moved between listed names lands within 2x of the
// truth, its interval covering it, in all but a rare run.
TEST(CrossTalk, EstimateFindsASimulatedRate) {
    const auto named = [](char prefix, int k) { return std::string{prefix, static_cast<char>('a' + k)}; };
    for (const bool pairs : {false, true}) {
        std::mt19937_64 random(pairs ? 4 : 3);
        CrossTalkDesign design;
        design.pairs = pairs;
        std::vector<std::string> names;  // identity k: arrangement k, or front k / 3 with rear k % 3
        for (int k = 0; k < 12; ++k)
            names.push_back(pairs ? named('F', k / 3) + "_" + named('R', k % 3) : named('b', k));
        if (!pairs) design.kit_names = names;
        std::vector<int> reads;  // the true identity of each read
        const std::vector<int> listed = pairs ? std::vector{0, 1, 4, 5, 6, 8, 9, 10} : std::vector{0, 1, 2, 3, 4, 5, 6};
        for (int c = 0; c < static_cast<int>(listed.size()); ++c) {
            const int k = listed[c];
            design.sample_of[names[k]] = pairs ? names[k] : named('S', k / 2);
            if (pairs) design.pair_cells.push_back({named('F', k / 3), named('R', k % 3)});
            reads.insert(reads.end(), pairs ? 1500 + 700 * c : 3500 + 1500 * c, k);
        }
        int runs = 0, covered = 0, within_two = 0;
        for (int trial = 0; trial < 150; ++trial) {
            const double rate = (pairs ? 0.002 : 0.001) * (1 + trial % 4);
            std::map<std::string, uint64_t> called, unlisted;
            uint64_t foreign = 0, assigned = 0;
            for (const int truth : reads) {
                int to = truth;
                if (std::uniform_real_distribution<>(0, 1)(random) < rate) {
                    const int donor = reads[random() % reads.size()];
                    if (!pairs)
                        to = static_cast<int>((truth + 1 + random() % 11) % 12);
                    else
                        to = random() % 2 == 0 ? donor / 3 * 3 + truth % 3 : truth / 3 * 3 + donor % 3;
                }
                const bool listed = design.sample_of.count(names[to]) > 0;
                ++(listed ? called : unlisted)[names[to]];
                foreign += listed && to != truth;
                assigned += listed;
            }
            const auto estimate = EstimateCrossTalk(design, called, unlisted);
            ASSERT_TRUE(estimate.measurable);
            EXPECT_EQ(estimate.unlisted_reads, reads.size() - assigned);
            EXPECT_EQ(estimate.run.reads, assigned);
            const double truth = static_cast<double>(foreign), reads_assigned = static_cast<double>(assigned);
            if (truth < 20) continue;  // too few to judge
            ++runs;
            const double estimated = estimate.run.share * reads_assigned;
            within_two += estimated <= 2 * truth && estimated >= truth / 2;
            covered += estimate.run.low * reads_assigned <= truth && truth <= estimate.run.high * reads_assigned;
        }
        EXPECT_GT(runs, 80) << pairs;
        EXPECT_GE(within_two, runs * 97 / 100) << within_two << " of " << runs << " " << pairs;
        EXPECT_GE(covered, runs * 9 / 10) << covered << " of " << runs << " " << pairs;
    }
}

// The report page shows the cross-talk estimate only with a sample sheet.
TEST(HtmlReport, CrossTalkSectionOnlyWithASampleSheet) {
    RunTally tally;
    tally.arrangements["F01_R01"].Add(1000, 90.0f);
    CrossTalkEstimate measured{"unlisted pairs", true, "", 48, {15897, 554.8, 0.0349, 0.02535, 0.04674}, {}};
    measured.samples = {{"S1", {100, 1, 0.01, 0.001, 0.05}}, {"S2", {100, 5, 0.05, 0.02, 0.09}}};
    const std::pair<std::optional<CrossTalkEstimate>, std::vector<std::string>> cases[] = {
        {std::nullopt, {}},
        {CrossTalkEstimate{"", false, "the sample sheet lists every pair", 0, {}, {}},
         {"not measurable (the sample sheet lists every pair)"}},
        {measured,
         {"3.490 % (95 % interval 2.535-4.674 %) of 15,897 assigned reads", "48 reads of unlisted pairs",
          "Most, in sample S2", "5.000 % (95 % interval 2.000-9.000 %) of 100 assigned reads"}},
    };
    for (const auto& [estimate, shown] : cases) {
        const std::string page = FormatHtmlReport(tally, RunInfo{"v", {}, 1, true, estimate});
        EXPECT_EQ(Holds(page, "id=\"cross_talk\""), estimate.has_value());
        for (const auto& text : shown)
            EXPECT_TRUE(Holds(page, text)) << text;
    }
}

// On a full disk the reason and file are named and the old report stays.
TEST(WriteFileAtomically, ReplacesTheFileAndLeavesNoTemporary) {
    const TestSupport::TempFolder scratch;
    const std::string path = scratch.Write("report.json", "old contents that are longer than the new ones");
    const auto contents = [&] {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    WriteFileAtomically(path, "new");
    EXPECT_EQ(contents(), "new");
    EXPECT_EQ(std::distance(fs::directory_iterator(scratch.Root()), fs::directory_iterator()), 1);
    const std::string missing = scratch.Path() + "/no_such_folder/report.json";
    EXPECT_TRUE(Holds(ErrorOf([&] { WriteFileAtomically(missing, "x"); }), missing));
    if (!fs::exists("/dev/full")) return;
    fs::create_symlink("/dev/full", path + ".tmp");
    const std::string what = ErrorOf([&] { WriteFileAtomically(path, "newer"); });
    EXPECT_TRUE(Holds(what, "No space left on device") && Holds(what, path + ".tmp")) << what;
    EXPECT_EQ(contents(), "new");
    EXPECT_FALSE(fs::exists(fs::symlink_status(path + ".tmp")));
}

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

// A state with every kind of figure and odd names reads back to the same.
TEST(ResumeState, EveryFigureComesBack) {
    std::mt19937_64 rng(11);
    ResumeState state;
    RunTally& tally = state.tally;
    const char* names[] = {"barcode01", "barcode02", "odd\tname%", kUnclassified};
    for (int read = 0; read < 500; ++read) {
        const float score = rng() % 10 == 0 ? -INFINITY : std::uniform_real_distribution<float>(-60, 100)(rng);
        const int quality = static_cast<int>(rng() % 62) - 1;  // -1: no candidate
        tally.AddRead(names[rng() % 4], rng() % 100000, score, std::uniform_real_distribution<double>(0, 1)(rng),
                      quality);
    }
    tally.unclassified_reasons["no barcode above the minimum"] = rng() % 50;
    tally.unclassified_reasons["mixed barcodes"] = rng() % 50;
    tally.samples["patient\n1"] = rng() % 50;
    tally.dropped = 1, tally.failed = 2, tally.mixed = 3, tally.files_read = 4;
    tally.files_ended_early = 5, tally.files_failed = 6, tally.records_skipped = 7;
    state.options = {{"compress_fastq", "true"}, {"barcode_kits", "A B"}, {"sample_sheet", ""}};
    state.summary_size = 123456789012;
    state.wall_time_s = 0.1 + 1e-12;
    state.outputs = {{"barcode01", "run\t1", 3, 17, 4096, true}, {"unclassified", "r2", 0, 0, 0, false}};
    state.inputs["/in/a b.fastq"] = {100, -5, 7, false};
    state.inputs["/in/c%.fastq.gz"] = {1 << 30, 1700000000123456789, 4000, true};
    const std::string text = FormatResumeState(state);
    const ResumeState back = ParseResumeState(text, "state");
    EXPECT_EQ(FormatResumeState(back), text);
    EXPECT_EQ(back.options, state.options);
    EXPECT_EQ(back.wall_time_s, state.wall_time_s);
    EXPECT_EQ(back.summary_size, state.summary_size);
    EXPECT_EQ(back.outputs.front().run_id, "run\t1");
    EXPECT_EQ(back.inputs.at("/in/c%.fastq.gz").mtime_ns, 1700000000123456789);
    // The reports of the restored tally, and of a run's sum of it, are those of the original.
    const RunInfo info{"v", {}, 1, true};
    RunTally sum;
    sum.Add(back.tally);
    for (const RunTally& other : {back.tally, sum}) {
        EXPECT_EQ(FormatHtmlReport(other, info), FormatHtmlReport(tally, info));
        EXPECT_EQ(FormatJsonReport(other, info), FormatJsonReport(tally, info));
    }
    // Batches that note their reads add up, to the last bit of every sum, as
    // batches that count them per arrangement.
    RunTally counted, noted;
    for (int batch = 0; batch < 40; ++batch) {
        RunTally by_arrangement, by_read;
        for (int read = static_cast<int>(rng() % 30); read > 0; --read) {
            const char* name = names[rng() % 4];
            const uint64_t bases = rng() % 100000;
            const float score = rng() % 10 == 0 ? -INFINITY : std::uniform_real_distribution<float>(-60, 100)(rng);
            const double p = std::uniform_real_distribution<double>(0, 1)(rng);
            by_arrangement.AddRead(name, bases, score, p, 7);
            by_read.NoteRead(name, bases, score, p, 7);
        }
        counted.Add(by_arrangement);
        noted.Add(by_read);
    }
    EXPECT_EQ(FormatJsonReport(noted, info), FormatJsonReport(counted, info));
}

// Damaged files are refused with the line; only options that shape the
// output must match.
TEST(ResumeState, RefusesDamagedFilesAndChangedOptions) {
    const std::string good = FormatResumeState(ResumeState{});
    const std::string head = good.substr(0, good.find('\n') + 1);
    const std::pair<std::string, std::string> cases[] = {
        {"", "empty"},
        {good.substr(0, good.size() - 4), "cut short"},
        {"other program 1\n" + good.substr(head.size()), "line 1"},
        {head + "summary_size\t12x\nend\n", "line 2: bad number '12x'"},
        {head + "input\ta\t1\t2\t3\nend\n", "line 2: expected 6 fields"},
        {head + "mystery\nend\n", "unknown record 'mystery'"},
        {good + "summary_size\t1\n", "unexpected line"},
        {head + "split\tscores\t99:1\t-\nend\n", "bad bins"},
    };
    for (const auto& [text, message] : cases) {
        const std::string error = ErrorOf([&] { ParseResumeState(text, "folder/state"); });
        EXPECT_TRUE(Holds(error, message) && Holds(error, "folder/state")) << error;
    }
    using Options = std::vector<std::pair<std::string, std::string>>;
    const Options earlier = {
        {"worker_threads", "2"}, {"input_path", "a"}, {"compress_fastq", "false"}, {"min_score", "60"}};
    const Options now = {{"worker_threads", "8"},    {"input_path", "./a"}, {"watch", "true"},
                         {"compress_fastq", "true"}, {"min_score", "60"},   {"new_option", "x"}};
    EXPECT_EQ(OptionsThatDiffer(earlier, now),
              (std::vector<std::string>{"compress_fastq (earlier: 'false', now: 'true')",
                                        "new_option (earlier: '(not set)', now: 'x')"}));
}

}  // namespace
}  // namespace Vorpa
