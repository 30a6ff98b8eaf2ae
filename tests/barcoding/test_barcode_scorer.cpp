#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <unordered_map>

#include "barcoding/barcode_scorer.h"
#include "barcoding/score_scale.h"
#include "common/logger.h"
#include "pair_alignment/fast_align.h"
#include "pair_alignment/score_matrix.h"
#include "tests/support/error_of.h"
#include "tests/support/random_bases.h"
#include "tests/support/shipped_configuration.h"
#include "tests/support/temp_folder.h"

namespace Barcoding {
namespace {

using TestSupport::TempFolder;

using TestSupport::RandomBases;
using TestSupport::ReverseComplement;
const std::vector<int>& kMatrix = TestSupport::kMatchMismatch;

ScorerOptions Options(const std::string& kits) {
    ScorerOptions options;
    options.barcode_kits = kits;
    options.open_gap1 = options.extend_gap1 = options.open_gap2 = options.extend_gap2 = 8;
    options.start_gap2 = options.end_gap2 = 9;
    options.min_score = 60;
    options.front_window_size = 70;
    options.rear_window_size = 60;
    ValidateScorerOptions(options);
    return options;
}

// Barcodes BC01..BC05 of 24 random bases, kit "DK" with the same barcode at
// both ends (ADD), kit "AK" with BC02 front and BC03 rear (MAX), kit "SK" with
// BC04 at the front only, kit "BAD" with an unknown scoring function.
class ScorerTest : public ::testing::Test {
protected:
    ScorerTest() {
        std::mt19937 random(11);
        std::string fasta;
        for (int i = 1; i <= 5; ++i) {
            barcodes_.push_back(RandomBases(random, 24));
            fasta += ">BC0" + std::to_string(i) + "\n" + barcodes_.back() + "\n";
        }
        dir_.Write("bc.fasta", fasta);
        const std::string file = dir_.Write(
            "arr.cfg",
            "[loading_options]\nbarcodes_filename = bc.fasta\n"
            "[barcode%02i]\nkit = DK\nbarcode1 = BC%02i\nbarcode2 = BC%02i\nfirst_index = 1\nlast_index = 2\n"
            "scoring_function = ADD\ncompatible_kits = DK\n"
            "[pair]\nkit = AK\nbarcode1 = BC02\nbarcode2 = BC03\nscoring_function = MAX\ncompatible_kits = AK\n"
            "[single]\nkit = SK\nbarcode1 = BC04\nscoring_function = SUM\ncompatible_kits = SK\n"
            "[bad]\nkit = BAD\nbarcode1 = BC05\nbarcode2 = BC05\nscoring_function = SUM\ncompatible_kits = BAD\n");
        manager_ = std::make_shared<BarcodeManager>(std::vector<std::string>{file}, "");
    }

    // flank + front barcode + insert + reverse-complemented rear barcode + flank
    std::string Read(const std::string& front, const std::string& rear, size_t flank = 10) {
        std::mt19937 random(static_cast<unsigned>(front.size() * 31 + rear.size() + flank));
        std::string read = RandomBases(random, flank) + front + RandomBases(random, 300);
        if (!rear.empty()) read += ReverseComplement(rear);
        return read + RandomBases(random, flank);
    }

    TempFolder dir_;
    std::vector<std::string> barcodes_;
    std::shared_ptr<BarcodeManager> manager_;
};

// Where each end was found, its sequence and the tie-breaks are the naive
// comparison's business below; here what a perfect copy scores.
TEST_F(ScorerTest, PerfectCopiesScoreNearTheTopAndAnEmptyReadIsUnclassified) {
    BarcodeScorer scorer(Options("DK AK SK"), manager_, kMatrix);
    // A perfect copy scores 100 unless a competitor finds a better spot in the
    // read around it than on the copy alone.
    auto best = scorer.Score(Read(barcodes_[0], barcodes_[0], 7))[0];
    EXPECT_EQ(best.normalised_id, "barcode01");
    EXPECT_GT(best.score, 190);
    EXPECT_LE(best.score, 200);
    // Single-ended kit: the front score alone, whatever the scoring function says.
    best = scorer.Score(Read(barcodes_[3], ""))[0];
    EXPECT_EQ(best.id, "single_var1");
    EXPECT_GT(best.score, 95);
    EXPECT_EQ(scorer.Score("")[0].normalised_id, "unclassified");
}

TEST_F(ScorerTest, ConfigurationFaults) {
    // An unknown scoring function fails when the kit is selected, not per read.
    EXPECT_EQ(TestSupport::ErrorOf([&] { BarcodeScorer(Options("BAD"), manager_, kMatrix); }),
              "Scoring function can only have values ADD or MAX (found 'SUM' in section [bad] of arr.cfg)");

    dir_.Write("odd.fasta", ">lower\nacguacgu\n>ambiguous\nACGNT\n");
    const std::string file = dir_.Write("odd.cfg",
                                        "[loading_options]\nbarcodes_filename = odd.fasta\n"
                                        "[l]\nbarcode1 = lower\ncompatible_kits = L\n"
                                        "[n]\nbarcode1 = ambiguous\ncompatible_kits = N\n");
    auto manager = std::make_shared<BarcodeManager>(std::vector<std::string>{file}, "");
    BarcodeScorer lower(Options("L"), manager, kMatrix);
    const auto best = lower.Score("TTTACGTACGTTTT")[0];
    EXPECT_EQ(best.front.id, "lower_FWD");
    EXPECT_FLOAT_EQ(best.front.score, 100);
    EXPECT_EQ(best.front.begin_index, 3);
    const std::string message = TestSupport::ErrorOf([&] { BarcodeScorer(Options("N"), manager, kMatrix); });
    EXPECT_TRUE(TestSupport::Holds(message, "ambiguous_FWD") && TestSupport::Holds(message, "'N'")) << message;
}

TEST_F(ScorerTest, InspectionAndTracingAgreeWithScore) {
    const std::string read = Read(barcodes_[0], barcodes_[0]);
    BarcodeScorer scorer(Options("DK"), manager_, kMatrix);
    const auto quiet = scorer.Score(read, SIZE_MAX);

    const auto front = scorer.InspectFront(read, "DK");
    ASSERT_EQ(front.size(), 4u);  // BC01/BC02, each _FWD (var1) and _REV (var2)
    EXPECT_EQ(front[0].id, quiet[0].front.id);
    EXPECT_EQ(front[0].found_sequence, quiet[0].front.found_sequence);
    const auto rear = scorer.InspectRear(read, "DK");
    EXPECT_EQ(rear[0].id, "BC01_REV");
    EXPECT_EQ(rear[0].begin_index, quiet[0].rear.begin_index);
    EXPECT_THROW(scorer.InspectFront(read, "AK"), std::runtime_error);

    // Tracing takes the slow, fully detailed path; the results must not change.
    TempFolder logs;
    Common::LoggingSettings settings;
    settings.folder = logs.Path();
    settings.log_file_name = "scorer.log";
    settings.quiet = true;
    settings.trace_categories = {"barcode_scorer"};
    Common::InitLogging(settings);
    const auto traced = scorer.Score(read, SIZE_MAX);
    Common::ShutdownLogging();
    ASSERT_EQ(traced.size(), quiet.size());
    for (size_t r = 0; r < traced.size(); ++r) {
        EXPECT_EQ(traced[r].id, quiet[r].id);
        EXPECT_EQ(traced[r].score, quiet[r].score);
        EXPECT_EQ(traced[r].rear.found_sequence, quiet[r].rear.found_sequence);
    }
}

// Naive reference: every reference aligned on its own with FastAlign::Align,
// the scale's rival, floor and background found by brute force over the
// arrangements, then the arrangement rules applied directly.
class NaiveScorer {
public:
    NaiveScorer(const ScorerOptions& options, BarcodeManager& manager, const std::vector<int>& matrix)
        : options_(options),
          manager_(manager),
          matrix_(matrix),
          aligner_(brim::data_wrappers::MatView<int>(matrix_.data(), 4, 4), options.GapVector(),
                   std::max(options.front_window_size, options.rear_window_size)) {}

    // Raw score of a reference on the current read's window at one end, memoised per read.
    int RawOnRead(const std::string& reference, const std::vector<int>& window, bool front) {
        auto& memo = on_read_[front ? 0 : 1];
        auto found = memo.find(reference);
        if (found != memo.end()) return found->second;
        return memo[reference] = Raw(reference, window);
    }

    int Raw(const std::string& reference, const std::vector<int>& window) {
        std::vector<int> codes = Codes(reference), query = window;
        PairAlignment::Path path;
        return aligner_.Align(brim::data_wrappers::VecView<int>(codes.data(), codes.size()),
                              brim::data_wrappers::VecView<int>(query.data(), query.size()), path);
    }

    std::vector<int> Window(const std::string& read, bool front) const {
        const int length = static_cast<int>(read.size());
        const int begin = front ? 0 : std::max(0, length - options_.rear_window_size);
        const int count = front ? std::min(options_.front_window_size, length) : length - begin;
        return Codes(read.substr(static_cast<size_t>(begin), static_cast<size_t>(count)));
    }

    // Sequences of the references at this end in arrangements of name's kits
    // that stand for another barcode: not the same sequence, nor linked to it
    // by a chain of shared sequences or shared (kit, normalised id).
    const std::vector<std::string>& Competitors(const std::string& name, bool front) {
        const std::string key = name + (front ? ">" : "<");
        auto found = competitors_.find(key);
        if (found != competitors_.end()) return found->second;
        const auto& arrangements = manager_.GetArrangements(options_.barcode_kits);
        auto at_end = [front](const Arrangement& a) { return front ? a.barcode1 : a.barcode2; };
        const std::set<std::string>& same = SameBarcode(name, front);
        std::vector<std::string> result;
        for (const auto& mine : arrangements) {
            if (at_end(mine) != name) continue;
            for (const auto& other : arrangements)
                if (other.kit == mine.kit && !at_end(other).empty() && !same.count(at_end(other)))
                    result.push_back(manager_.GetBarcodeSequence(at_end(other)));
        }
        return competitors_[key] = result;
    }

    // Names linked to name at this end by a chain of shared sequences or
    // shared (kit, normalised id): grown pairwise until nothing changes.
    const std::set<std::string>& SameBarcode(const std::string& name, bool front) {
        auto& groups = same_[front ? 0 : 1];
        if (groups.empty()) {
            const auto& arrangements = manager_.GetArrangements(options_.barcode_kits);
            auto at_end = [front](const Arrangement& a) { return front ? a.barcode1 : a.barcode2; };
            for (const auto& a : arrangements)
                if (!at_end(a).empty()) groups[at_end(a)] = {at_end(a)};
            for (bool grew = true; grew;) {
                grew = false;
                for (const auto& x : arrangements)
                    for (const auto& y : arrangements) {
                        if (at_end(x).empty() || at_end(y).empty()) continue;
                        const bool linked =
                            manager_.GetBarcodeSequence(at_end(x)) == manager_.GetBarcodeSequence(at_end(y)) ||
                            (x.kit == y.kit && x.normalised_id == y.normalised_id);
                        if (!linked) continue;
                        auto& mine = groups[at_end(x)];
                        const auto theirs = groups[at_end(y)];
                        for (const auto& other : theirs)
                            grew = mine.insert(other).second || grew;
                    }
            }
        }
        return groups.at(name);
    }

    // Floor, background and top of the random range of a reference, computed once.
    struct Statics {
        double floor, background, random_top;
    };
    Statics Static(const std::string& name, bool front) {
        const std::string key = name + (front ? ">" : "<");
        auto found = static_.find(key);
        if (found != static_.end()) return found->second;
        const std::string sequence = manager_.GetBarcodeSequence(name);
        double floor = -std::numeric_limits<double>::infinity(), random_rival = 0;
        const auto& competitors = Competitors(name, front);
        for (const auto& other : competitors)
            floor = std::max(floor, static_cast<double>(Raw(other, Codes(sequence))));
        const auto windows = BackgroundWindows(front ? options_.front_window_size : options_.rear_window_size);
        int64_t sum = 0, squares = 0;
        for (size_t w = 0; w < windows.size(); ++w) {
            auto on_random = [&](const std::string& reference) {
                auto& memo = on_random_[reference + (front ? ">" : "<") + std::to_string(w)];
                if (!memo) memo = Raw(reference, windows[w]);
                return *memo;
            };
            int best = INT_MIN;
            for (const auto& other : competitors)
                best = std::max(best, on_random(other));
            const int64_t top = std::max(best, on_random(sequence));
            sum += top;
            squares += top * top;
            if (!competitors.empty()) random_rival += best / static_cast<double>(windows.size());
        }
        const double n = static_cast<double>(windows.size());
        const double background = static_cast<double>(sum) / n;
        const double spread = std::sqrt(std::max(static_cast<double>(squares) / n - background * background, 0.0));
        if (!competitors.empty()) floor = std::max(floor, random_rival);
        return static_[key] = {floor, background, background + kPresenceSpread * spread};
    }

    BarcodeDetectResult Detect(const std::string& name, const std::string& read, bool front) {
        if (name.empty()) return {};
        const std::vector<int> window = Window(read, front);
        BarcodeDetectResult result;
        result.id = name;
        result.reference_sequence = manager_.GetBarcodeSequence(name);
        const std::vector<int> reference = Codes(result.reference_sequence);
        int self = 0;
        for (int code : reference)
            self += matrix_[static_cast<size_t>(5 * code)];
        const int raw = RawOnRead(result.reference_sequence, window, front);
        raw_[name + (front ? ">" : "<")] = raw;
        double rival = -std::numeric_limits<double>::infinity();
        for (const auto& other : Competitors(name, front))
            rival = std::max(rival, static_cast<double>(RawOnRead(other, window, front)));
        const auto [floor, background, random_top] = Static(name, front);
        result.score = DetectScore(raw, self, rival, floor, background, random_top);
        result.presence = static_cast<float>(std::min(100.0, 100.0 * (raw - random_top) / (self - random_top)));

        PairAlignment::Path path;
        std::vector<int> codes = reference, query = window;
        aligner_.Align(brim::data_wrappers::VecView<int>(codes.data(), codes.size()),
                       brim::data_wrappers::VecView<int>(query.data(), query.size()), path);
        std::vector<int> paired;
        for (const auto& [r, q] : path)
            if (r >= 0 && q >= 0) paired.push_back(q);
        result.begin_index = 0;
        if (paired.empty()) return result;
        const size_t begin = front ? 0 : read.size() - window.size();
        result.found_sequence = read.substr(begin + static_cast<size_t>(paired.front()),
                                            static_cast<size_t>(paired.back() - paired.front() + 1));
        result.begin_index = front ? paired.front() : static_cast<int>(window.size()) - 1 - paired.back();
        return result;
    }

    std::vector<ArrangementDetectResult> Score(const std::string& read) {
        std::vector<ArrangementDetectResult> all;
        std::vector<int> fits;
        raw_.clear();
        on_read_[0].clear();
        on_read_[1].clear();
        for (const auto& a : manager_.GetArrangements(options_.barcode_kits)) {
            ArrangementDetectResult r;
            r.id = a.id;
            r.normalised_id = a.normalised_id;
            r.kit = a.kit;
            r.variant = a.variant;
            r.front = Detect(a.barcode1, read, true);
            r.rear = Detect(a.barcode2, read, false);
            r.score = r.front.id.empty()            ? r.rear.score
                      : r.rear.id.empty()           ? r.front.score
                      : a.scoring_function == "ADD" ? r.front.score + r.rear.score
                                                    : std::max(r.front.score, r.rear.score);
            all.push_back(r);
            fits.push_back(std::max(a.barcode1.empty() ? INT_MIN : raw_.at(a.barcode1 + ">"),
                                    a.barcode2.empty() ? INT_MIN : raw_.at(a.barcode2 + "<")));
        }
        const float front_min = options_.min_score, rear_min = options_.min_score_rear_override;
        std::vector<size_t> kept;
        // Per end: the barcodes passing there, and those with evidence.
        std::set<std::string> front_names, rear_names, front_evidence, rear_evidence;
        auto evidence = [](const BarcodeDetectResult& detect) {
            return !detect.id.empty() && detect.score > 0 && detect.presence >= kMixedEvidencePresence;
        };
        std::map<std::string, int> kit_fit;
        for (size_t i = 0; i < all.size(); ++i) {
            const auto& r = all[i];
            const bool front_ok = r.front.score >= front_min, rear_ok = r.rear.score >= rear_min;
            if (front_ok) front_names.insert(r.normalised_id);
            if (rear_ok) rear_names.insert(r.normalised_id);
            if (evidence(r.front)) front_evidence.insert(r.normalised_id);
            if (evidence(r.rear)) rear_evidence.insert(r.normalised_id);
            if (!(options_.require_barcodes_both_ends ? front_ok && rear_ok : front_ok || rear_ok)) continue;
            kept.push_back(i);
            kit_fit[r.kit] = std::max(kit_fit.count(r.kit) ? kit_fit[r.kit] : INT_MIN, fits[i]);
        }
        // Both ends pass: mixed when nothing passes at both. One end passes:
        // mixed when the other has evidence of a barcode the passing end does
        // not name and every passing arrangement's barcode is clearly beaten
        // there.
        bool mixed = false;
        if (!front_names.empty() && !rear_names.empty()) {
            mixed = true;
            for (const auto& name : front_names)
                mixed &= rear_names.count(name) == 0;
        } else if (!front_names.empty() || !rear_names.empty()) {
            const bool front_passes = !front_names.empty();
            const auto& named = front_passes ? front_names : rear_names;
            const auto& evidence = front_passes ? rear_evidence : front_evidence;
            mixed = !evidence.empty();
            for (const auto& name : evidence)
                mixed &= named.count(name) == 0;
            for (size_t i = 0; i < all.size(); ++i) {
                const auto& here = front_passes ? all[i].front : all[i].rear;
                const auto& there = front_passes ? all[i].rear : all[i].front;
                if (!(here.score >= (front_passes ? front_min : rear_min))) continue;
                mixed &= !there.id.empty() && there.score <= -kMixedRivalMargin;
            }
        }
        const bool both_pass = !front_names.empty() && !rear_names.empty();
        if (mixed && !both_pass) ++mixed_by_evidence;
        UnclassifiedReason reason = UnclassifiedReason::kNone;
        if (mixed && options_.reject_mixed_barcodes)
            reason = UnclassifiedReason::kMixedBarcodes;
        else if (kept.empty())
            reason = options_.require_barcodes_both_ends && (!front_names.empty() || !rear_names.empty())
                         ? UnclassifiedReason::kOneEndOnly
                         : UnclassifiedReason::kNoBarcodeAboveMinimum;
        if (reason != UnclassifiedReason::kNone) {
            auto best = all[0];
            for (const auto& r : all)
                if (r.score > best.score) best = r;
            best.normalised_id = "unclassified";
            best.reason = reason;
            best.mixed = mixed;
            return {best};
        }
        std::stable_sort(kept.begin(), kept.end(), [&](size_t x, size_t y) {
            const int x_fit = kit_fit[all[x].kit], y_fit = kit_fit[all[y].kit];
            return x_fit != y_fit ? x_fit > y_fit : all[x].score > all[y].score;
        });
        std::vector<ArrangementDetectResult> result;
        for (size_t i : kept)
            result.push_back(all[i]);
        result.front().mixed = mixed;
        return result;
    }

    int mixed_by_evidence = 0;  // reads mixed with only one end passing

private:
    static std::vector<int> Codes(const std::string& sequence) {
        std::vector<int> codes;
        for (char c : sequence) {
            const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            codes.push_back(static_cast<int>(std::string("ACGT").find(upper == 'U' ? 'T' : upper)));
        }
        return codes;
    }

    ScorerOptions options_;
    BarcodeManager& manager_;
    std::vector<int> matrix_;
    PairAlignment::FastAlign aligner_;
    std::map<std::string, int> raw_;                   // "<name>>" front, "<name><" rear, for the current read
    std::unordered_map<std::string, int> on_read_[2];  // per end: reference sequence -> raw, current read
    std::map<std::string, std::vector<std::string>> competitors_;
    std::map<std::string, std::set<std::string>> same_[2];  // per end: name -> names of the same barcode
    std::map<std::string, Statics> static_;
    std::unordered_map<std::string, std::optional<int>> on_random_;  // sequence, end, window -> raw
};

void ExpectSameDetect(const BarcodeDetectResult& fast, const BarcodeDetectResult& naive, bool detailed) {
    EXPECT_EQ(fast.id, naive.id);
    EXPECT_EQ(fast.score, naive.score);
    if (!fast.id.empty()) {
        EXPECT_FLOAT_EQ(fast.presence, naive.presence);
    }
    if (!detailed) return;
    EXPECT_EQ(fast.reference_sequence, naive.reference_sequence);
    EXPECT_EQ(fast.found_sequence, naive.found_sequence);
    EXPECT_EQ(fast.begin_index, naive.begin_index);
}

// Random reads, some carrying mutated barcodes, through both scorers.
// evidence_only: where given, receives the number of reads that were mixed
// with only one end passing.
void CompareWithNaive(const ScorerOptions& options, const std::shared_ptr<BarcodeManager>& manager,
                      const std::vector<std::string>& barcodes, int reads, unsigned seed,
                      const std::vector<int>& matrix = kMatrix, const std::string& device = "",
                      int* evidence_only = nullptr) {
    std::unique_ptr<BarcodeScorer> built;
    try {
        built = std::make_unique<BarcodeScorer>(options, manager, matrix, device);
    } catch (const std::runtime_error& e) {
        if (device.empty()) throw;
        GTEST_SKIP() << "no usable device " << device << ": " << e.what();
    }
    BarcodeScorer& scorer = *built;
    NaiveScorer naive(options, *manager, matrix);
    std::mt19937 random(seed);
    auto mutate = [&](std::string s) {
        for (char& c : s)
            if (random() % 8 == 0) c = "ACGT"[random() % 4];
        if (random() % 3 == 0) s.erase(random() % s.size(), 1 + random() % 3);
        return s;
    };
    for (int n = 0; n < reads; ++n) {
        std::string read = RandomBases(random, random() % 40);
        if (random() % 4 != 0) read += mutate(barcodes[random() % barcodes.size()]);
        read += RandomBases(random, random() % 150);
        if (random() % 2 == 0) read += ReverseComplement(mutate(barcodes[random() % barcodes.size()]));
        read += RandomBases(random, random() % 30);
        if (random() % 2 == 0) read = ReverseComplement(read);

        const auto expected = naive.Score(read);
        for (size_t detailed : {size_t{1}, size_t{SIZE_MAX}}) {
            const auto results = scorer.Score(read, detailed);
            ASSERT_EQ(results.size(), expected.size()) << read;
            for (size_t r = 0; r < results.size(); ++r) {
                SCOPED_TRACE(read + " result " + std::to_string(r));
                EXPECT_EQ(results[r].id, expected[r].id);
                EXPECT_EQ(results[r].normalised_id, expected[r].normalised_id);
                EXPECT_EQ(results[r].variant, expected[r].variant);
                EXPECT_EQ(results[r].score, expected[r].score);
                EXPECT_EQ(results[r].reason, expected[r].reason);
                EXPECT_EQ(results[r].mixed, expected[r].mixed);
                ExpectSameDetect(results[r].front, expected[r].front, r < detailed);
                ExpectSameDetect(results[r].rear, expected[r].rear, r < detailed);
            }
        }
    }
    if (evidence_only) *evidence_only = naive.mixed_by_evidence;
}

TEST_F(ScorerTest, MatchesNaivePerReferenceAlignment) {
    ScorerOptions options = Options("DK AK SK");
    int evidence_only = 0;
    CompareWithNaive(options, manager_, barcodes_, 300, 5, kMatrix, "", &evidence_only);
    EXPECT_GE(evidence_only, 3) << "too few reads where the weaker end's evidence decides";
    options.reject_mixed_barcodes = true;
    CompareWithNaive(options, manager_, barcodes_, 100, 7);
    options.reject_mixed_barcodes = false;
    options.require_barcodes_both_ends = true;
    CompareWithNaive(options, manager_, barcodes_, 100, 8);
    options.reject_mixed_barcodes = true;
    options.min_score = 40;
    options.min_score_rear_override = 75;
    CompareWithNaive(options, manager_, barcodes_, 100, 6);
}

// A barcode pushed past the end window (behind a long leftover adapter, say)
// fails at its end, and the search meets it outside the end's match. On a read
// of one molecule it is still that end's barcode, not a second molecule's; the
// same copy in the middle of the read is one, and then the pushed one stays a
// cut too, so that the first molecule starts at its barcode.
TEST_F(ScorerTest, ABarcodeCutByTheWindowEdgeIsNotInsideTheRead) {
    ScorerOptions options = Options("DK");
    options.internal_barcodes = "reject";
    ValidateScorerOptions(options);
    BarcodeScorer scorer(options, manager_, kMatrix);
    std::mt19937 random(5);
    const std::string insert = RandomBases(random, 400);
    const std::string tail = ReverseComplement(barcodes_[0]) + RandomBases(random, 8);
    for (size_t head : {50, 60}) {  // the window holds 70 bases: 4 or 14 of the barcode's 24 lie past it
        const std::string read = RandomBases(random, head) + barcodes_[0] + insert + tail;
        const auto best = scorer.Score(read)[0];
        ASSERT_LT(best.front.score, options.min_score) << head;
        ASSERT_GE(best.rear.score, options.min_score) << head;
        EXPECT_TRUE(scorer.InternalConstructs(read).empty()) << head;
    }
    for (size_t head : {8, 60}) {
        const std::string read =
            RandomBases(random, head) + barcodes_[0] + insert.substr(0, 200) + barcodes_[0] + insert.substr(200) + tail;
        scorer.Score(read);
        const auto& found = scorer.InternalConstructs(read);
        ASSERT_EQ(found.size(), head == 8 ? 1u : 2u) << head;
        EXPECT_NEAR(found.front().begin, head == 8 ? 8 + 24 + 200 : 60, 3) << head;
        EXPECT_NEAR(found.back().begin, static_cast<int>(head) + 24 + 200, 3) << head;
    }
}

struct ShippedKits {
    ScorerOptions options;
    std::shared_ptr<BarcodeManager> manager;
    std::vector<int> matrix;
    std::vector<std::string> barcodes;  // front references, for building reads
};

ShippedKits LoadShippedKits() {
    const std::string data = std::string(VB_SOURCE_DIR) + "/data/barcoding";
    auto config = TestSupport::ShippedConfiguration();
    ShippedKits kits;
    ScorerOptions& options = kits.options;
    options.arrangements_files = config.at("arrangements_files");
    options.score_matrix_filename = config.at("score_matrix_filename");
    for (auto [name, field] : {std::pair{"start_gap1", &ScorerOptions::start_gap1},
                               {"end_gap1", &ScorerOptions::end_gap1},
                               {"open_gap1", &ScorerOptions::open_gap1},
                               {"extend_gap1", &ScorerOptions::extend_gap1},
                               {"start_gap2", &ScorerOptions::start_gap2},
                               {"end_gap2", &ScorerOptions::end_gap2},
                               {"open_gap2", &ScorerOptions::open_gap2},
                               {"extend_gap2", &ScorerOptions::extend_gap2}})
        options.*field = std::stoi(config.at(name));
    options.front_window_size = std::stoi(config.at("front_window_size"));
    options.rear_window_size = std::stoi(config.at("rear_window_size"));
    options.min_score = std::stof(config.at("min_score"));
    ValidateScorerOptions(options);

    kits.manager =
        std::make_shared<BarcodeManager>(BarcodeManager::SplitArrangementFiles(options.arrangements_files), data);
    kits.matrix = PairAlignment::LoadMismatchMatrix(ResolveDataFile(options.score_matrix_filename, data));
    for (const auto& a : kits.manager->AllArrangements())
        if (!a.barcode1.empty()) kits.barcodes.push_back(kits.manager->GetBarcodeSequence(a.barcode1));
    return kits;
}

TEST(ShippedKits, FastPathMatchesNaiveAlignmentOnRealReferences) {
    const ShippedKits kits = LoadShippedKits();
    ASSERT_FALSE(kits.barcodes.empty());
    CompareWithNaive(kits.options, kits.manager, kits.barcodes, 80, 9, kits.matrix);
}

// The same on a GPU, where this machine has one.
TEST(ShippedKits, GpuFastPathMatchesNaiveAlignment) {
    const ShippedKits kits = LoadShippedKits();
    CompareWithNaive(kits.options, kits.manager, kits.barcodes, 80, 10, kits.matrix, "cuda:0");
}

}  // namespace
}  // namespace Barcoding
