#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <unordered_map>

#include "barcoding/barcode_quality.h"
#include "barcoding/barcode_scorer.h"
#include "barcoding/pair_design.h"
#include "barcoding/score_scale.h"
#include "common/logger.h"
#include "pair_alignment/fast_align.h"
#include "pair_alignment/score_matrix.h"
#include "tests/support/error_of.h"
#include "tests/support/random_bases.h"
#include "tests/support/temp_folder.h"

namespace Barcoding {
namespace {

using TestSupport::RandomBases;
using TestSupport::ReverseComplement;
const std::vector<int>& kMatrix = TestSupport::kMatchMismatch;

ScorerOptions Options(const std::string& kits, int front_window = 70, int rear_window = 60) {
    ScorerOptions options;
    options.barcode_kits = kits;
    options.open_gap1 = options.extend_gap1 = options.open_gap2 = options.extend_gap2 = 8;
    options.start_gap2 = options.end_gap2 = 9;
    options.min_score = 60;
    options.front_window_size = front_window;
    options.rear_window_size = rear_window;
    ValidateScorerOptions(options);
    return options;
}

// Barcodes BC01.. of `length` random bases between constant flanks of `flank` bases.
struct Kit {
    TestSupport::TempFolder dir;
    std::vector<std::string> references;
    std::shared_ptr<BarcodeManager> manager;

    Kit(unsigned seed, size_t count, size_t length, size_t flank = 0) {
        std::mt19937 random(seed);
        const std::string left = RandomBases(random, flank), right = RandomBases(random, flank);
        for (size_t i = 0; i < count; ++i)
            references.push_back(left + RandomBases(random, length) + right);
        WriteFasta(references);
    }
    static std::string Name(size_t i) { return "BC" + std::string(i < 9 ? "0" : "") + std::to_string(i + 1); }
    void WriteFasta(const std::vector<std::string>& sequences) const {
        std::string fasta;
        for (size_t i = 0; i < sequences.size(); ++i)
            fasta += ">" + Name(i) + "\n" + sequences[i] + "\n";
        dir.Write("kit.fasta", fasta);
    }
    void Load(const std::string& sections) {
        const std::string file = dir.Write("kit.ini", "[loading_options]\nbarcodes_filename = kit.fasta\n" + sections);
        manager = std::make_shared<BarcodeManager>(std::vector<std::string>{file}, "");
    }
};

std::vector<int> Codes(const std::string& sequence) {
    std::vector<int> codes;
    for (char c : sequence)
        codes.push_back(static_cast<int>(std::min<size_t>(std::string("ACGTUacgtu").find(c) % 5, 3)));  // U as T
    return codes;
}

// Naive reference: every reference aligned on its own, the scale found by brute
// force, the arrangement rules applied directly. End 0 is the front, 1 the rear.
class NaiveScorer {
public:
    NaiveScorer(const ScorerOptions& options, BarcodeManager& manager, const std::vector<int>& matrix)
        : options_(options),
          manager_(manager),
          matrix_(matrix),
          arrangements_(manager.GetArrangements(options.barcode_kits)),
          aligner_(brim::data_wrappers::MatView<int>(matrix_.data(), 4, 4), options.GapVector(),
                   std::max(options.front_window_size, options.rear_window_size)) {
        for (int end : {0, 1}) {
            random_[end] = BackgroundWindows(end == 0 ? options.front_window_size : options.rear_window_size);
            // Names of one barcode: linked by a shared sequence or a shared (kit, normalised id), transitively.
            std::map<std::string, std::string> first_of;
            for (const auto& a : arrangements_) {
                const std::string& name = At(a, end);
                if (name.empty()) continue;
                root_[end].emplace(name, name);
                for (const std::string& key : {"=" + manager.GetBarcodeSequence(name), a.kit + "\n" + a.normalised_id})
                    if (const auto [other, added] = first_of.emplace(key, name); !added)
                        root_[end][Root(end, name)] = Root(end, other->second);
            }
        }
    }

    std::vector<ArrangementDetectResult> Score(const std::string& read) {
        const size_t length = read.size(), front = std::min<size_t>(length, options_.front_window_size);
        const size_t rear_begin = length - std::min<size_t>(length, options_.rear_window_size);
        window_[0] = Codes(read.substr(0, front));
        window_[1] = Codes(read.substr(rear_begin));
        raw_.erase(&window_[0]);
        raw_.erase(&window_[1]);
        std::vector<ArrangementDetectResult> all;
        std::vector<int> fits;
        for (const auto& a : arrangements_) {
            ArrangementDetectResult r;
            std::tie(r.id, r.normalised_id, r.kit, r.variant) = std::tie(a.id, a.normalised_id, a.kit, a.variant);
            r.front = Detect(a.barcode1, 0, read, 0);
            r.rear = Detect(a.barcode2, 1, read, rear_begin);
            r.score = a.barcode1.empty()            ? r.rear.score
                      : a.barcode2.empty()          ? r.front.score
                      : a.scoring_function == "ADD" ? r.front.score + r.rear.score
                                                    : std::max(r.front.score, r.rear.score);
            all.push_back(r);
            int fit = INT_MIN;
            for (int end : {0, 1})
                if (!At(a, end).empty()) fit = std::max(fit, Raw(Sequence(At(a, end)), window_[end]));
            fits.push_back(fit);
        }
        const float minimum[2] = {options_.min_score, options_.min_score_rear_override};
        std::set<std::string> passing[2], evidence[2];  // per end: normalised ids
        std::vector<size_t> kept, agreeing;
        std::map<std::string, int> kit_fit;
        for (size_t i = 0; i < all.size(); ++i) {
            bool ok[2];
            for (int end : {0, 1}) {
                const auto& d = At(all[i], end);
                ok[end] = d.score >= minimum[end];
                if (ok[end]) passing[end].insert(all[i].normalised_id);
                if (!d.id.empty() && d.score > 0 && d.presence >= kMixedEvidencePresence)
                    evidence[end].insert(all[i].normalised_id);
            }
            if (!(options_.require_barcodes_both_ends ? ok[0] && ok[1] : ok[0] || ok[1])) continue;
            kept.push_back(i);
            kit_fit.try_emplace(all[i].kit, INT_MIN);
            kit_fit[all[i].kit] = std::max(kit_fit[all[i].kit], fits[i]);
        }
        // No barcode passes on its own: arrangements whose two ends agree may.
        for (size_t i = 0; i < all.size() && kept.empty() && !options_.require_barcodes_both_ends; ++i) {
            if (!RaiseAgreeing(all[i])) continue;
            all[i].score = arrangements_[i].scoring_function == "ADD" ? all[i].front.score + all[i].rear.score
                                                                      : std::max(all[i].front.score, all[i].rear.score);
            passing[all[i].front.score >= minimum[0] ? 0 : 1].insert(all[i].normalised_id);
            agreeing.push_back(i);
            kit_fit.try_emplace(all[i].kit, INT_MIN);
            kit_fit[all[i].kit] = std::max(kit_fit[all[i].kit], fits[i]);
        }
        kept.insert(kept.end(), agreeing.begin(), agreeing.end());
        // Both pass: mixed when nothing passes at both. One passes: mixed when the other end shows
        // another barcode and beats every passing arrangement's barcode clearly.
        auto none_in = [](const std::set<std::string>& names, const std::set<std::string>& in) {
            return std::none_of(names.begin(), names.end(), [&](const std::string& name) { return in.count(name); });
        };
        const bool both = !passing[0].empty() && !passing[1].empty();
        bool mixed = both && none_in(passing[0], passing[1]);
        if (!both && (!passing[0].empty() || !passing[1].empty())) {
            const int here = passing[0].empty() ? 1 : 0, there = 1 - here;
            mixed = !evidence[there].empty() && none_in(evidence[there], passing[here]);
            for (const auto& r : all)
                if (At(r, here).score >= minimum[here])
                    mixed &= !At(r, there).id.empty() && At(r, there).score <= -kMixedRivalMargin;
            mixed_by_evidence += mixed;
        }
        UnclassifiedReason reason = UnclassifiedReason::kNone;
        if (mixed && options_.reject_mixed_barcodes)
            reason = UnclassifiedReason::kMixedBarcodes;
        else if (kept.empty())
            reason = options_.require_barcodes_both_ends && (!passing[0].empty() || !passing[1].empty())
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
    int agreed = 0;             // arrangements whose two ends passed together

private:
    // Both ends found, both below their minimum, both at the floor or above, and
    // together at the better end's minimum: that end is raised to it.
    bool RaiseAgreeing(ArrangementDetectResult& r) {
        if (r.front.id.empty() || r.rear.id.empty()) return false;
        const float minimum[2] = {options_.min_score, options_.min_score_rear_override};
        if (r.front.score >= minimum[0] || r.rear.score >= minimum[1]) return false;
        if (std::min(r.front.score, r.rear.score) < kAgreeingEndFloor) return false;
        const int better = r.front.score >= r.rear.score ? 0 : 1;
        if (r.front.score + r.rear.score < minimum[better]) return false;
        (better == 0 ? r.front : r.rear).score = minimum[better];
        ++agreed;
        return true;
    }
    static const std::string& At(const Arrangement& a, int end) { return end == 0 ? a.barcode1 : a.barcode2; }
    static const BarcodeDetectResult& At(const ArrangementDetectResult& r, int end) { return end ? r.rear : r.front; }
    std::string Sequence(const std::string& name) const { return manager_.GetBarcodeSequence(name); }
    std::string Root(int end, std::string name) {
        while (root_[end].at(name) != name)
            name = root_[end].at(name);
        return name;
    }

    int Align(const std::string& reference, std::vector<int> window, PairAlignment::Path* path = nullptr) {
        std::vector<int> codes = Codes(reference);
        PairAlignment::Path scratch;
        return aligner_.Align(brim::data_wrappers::VecView<int>(codes.data(), codes.size()),
                              brim::data_wrappers::VecView<int>(window.data(), window.size()), path ? *path : scratch);
    }
    // Memoised per window: the read's two, or one of the random ones.
    int Raw(const std::string& reference, const std::vector<int>& window) {
        const auto [slot, added] = raw_[&window].try_emplace(reference, 0);
        // An empty read has one path: each reference base against a gap
        // before the (empty) read.
        if (added)
            slot->second =
                window.empty() ? -options_.start_gap2 * static_cast<int>(reference.size()) : Align(reference, window);
        return slot->second;
    }

    // References at this end, in name's kits, that stand for another barcode.
    const std::vector<std::string>& Competitors(const std::string& name, int end) {
        const auto [slot, added] = competitors_[end].try_emplace(name);
        if (!added) return slot->second;
        std::set<std::string> kits;
        for (const auto& a : arrangements_)
            if (At(a, end) == name) kits.insert(a.kit);
        for (const auto& a : arrangements_)
            if (kits.count(a.kit) && !At(a, end).empty() && Root(end, At(a, end)) != Root(end, name))
                slot->second.push_back(Sequence(At(a, end)));
        return slot->second;
    }

    struct Scale {
        double floor, background, random_top;
    };
    const Scale& Static(const std::string& name, int end) {
        const auto [slot, added] = scales_[end].try_emplace(name);
        if (!added) return slot->second;
        const std::string sequence = Sequence(name);
        const auto& competitors = Competitors(name, end);
        double floor = -INFINITY, rival_sum = 0, sum = 0, squares = 0;
        for (const auto& other : competitors)
            floor = std::max(floor, static_cast<double>(Align(other, Codes(sequence))));
        for (const auto& window : random_[end]) {
            int rival = INT_MIN;
            for (const auto& other : competitors)
                rival = std::max(rival, Raw(other, window));
            const double best = std::max(rival, Raw(sequence, window));
            sum += best;
            squares += best * best;
            rival_sum += rival;
        }
        const double n = static_cast<double>(random_[end].size()), background = sum / n;
        if (!competitors.empty()) floor = std::max(floor, rival_sum / n);
        const double spread = std::sqrt(std::max(squares / n - background * background, 0.0));
        return slot->second = {floor, background, background + kPresenceSpread * spread};
    }

    BarcodeDetectResult Detect(const std::string& name, int end, const std::string& read, size_t window_begin) {
        BarcodeDetectResult result;
        if (name.empty()) return result;
        result.id = name;
        result.reference_sequence = Sequence(name);
        const std::vector<int>& window = window_[end];
        int self = 0;
        for (int code : Codes(result.reference_sequence))
            self += matrix_[static_cast<size_t>(5 * code)];
        const int raw = Raw(result.reference_sequence, window);
        double rival = -INFINITY;
        for (const auto& other : Competitors(name, end))
            rival = std::max(rival, static_cast<double>(Raw(other, window)));
        const auto [floor, background, random_top] = Static(name, end);
        result.score = DetectScore(raw, self, rival, floor, background, random_top);
        result.presence = static_cast<float>(std::min(100.0, 100.0 * (raw - random_top) / (self - random_top)));

        PairAlignment::Path path;
        Align(result.reference_sequence, window, &path);
        std::vector<int> paired;
        for (const auto& [r, q] : path)
            if (r >= 0 && q >= 0) paired.push_back(q);
        result.begin_index = 0;
        if (paired.empty()) return result;
        result.found_sequence = read.substr(window_begin + static_cast<size_t>(paired.front()),
                                            static_cast<size_t>(paired.back() - paired.front() + 1));
        result.begin_index = end == 0 ? paired.front() : static_cast<int>(window.size()) - 1 - paired.back();
        return result;
    }

    ScorerOptions options_;
    BarcodeManager& manager_;
    std::vector<int> matrix_;
    const std::vector<Arrangement>& arrangements_;
    PairAlignment::FastAlign aligner_;
    std::vector<int> window_[2];                                                   // the current read's
    std::vector<std::vector<int>> random_[2];                                      // background windows
    std::map<std::string, std::string> root_[2];                                   // same-barcode links
    std::map<const std::vector<int>*, std::unordered_map<std::string, int>> raw_;  // per window: sequence -> raw
    std::map<std::string, std::vector<std::string>> competitors_[2];
    std::map<std::string, Scale> scales_[2];
};

auto Call(const ArrangementDetectResult& r) {
    return std::tie(r.id, r.normalised_id, r.variant, r.score, r.reason, r.mixed);
}

void ExpectSameDetect(const BarcodeDetectResult& fast, const BarcodeDetectResult& naive, bool detailed) {
    EXPECT_EQ(std::tie(fast.id, fast.score), std::tie(naive.id, naive.score));
    EXPECT_FLOAT_EQ(fast.presence, naive.presence);
    if (!detailed) return;
    EXPECT_EQ(std::tie(fast.reference_sequence, fast.found_sequence, fast.begin_index),
              std::tie(naive.reference_sequence, naive.found_sequence, naive.begin_index));
}

// Random reads (mutated barcodes, lower case with U, one empty) through both scorers.
void CompareWithNaive(const ScorerOptions& options, const std::shared_ptr<BarcodeManager>& manager,
                      const std::vector<std::string>& barcodes, int reads, unsigned seed,
                      const std::vector<int>& matrix = kMatrix, const std::string& device = "",
                      int* evidence_only = nullptr, int* agreed = nullptr) {
    std::unique_ptr<BarcodeScorer> scorer;
    try {
        scorer = std::make_unique<BarcodeScorer>(options, manager, matrix, device);
    } catch (const std::runtime_error& e) {
        if (device.empty()) throw;
        GTEST_SKIP() << "no usable device " << device << ": " << e.what();
    }
    NaiveScorer naive(options, *manager, matrix);
    std::mt19937 random(seed);
    auto mutate = [&](const std::string& s) { return TestSupport::Mutate(random, s, 0.15); };
    for (int n = 0; n < reads; ++n) {
        std::string read = RandomBases(random, random() % 40);
        if (random() % 4 != 0) read += mutate(barcodes[random() % barcodes.size()]);
        read += RandomBases(random, random() % 150);
        if (random() % 2 == 0) read += ReverseComplement(mutate(barcodes[random() % barcodes.size()]));
        read += RandomBases(random, random() % 30);
        if (random() % 2 == 0) read = ReverseComplement(read);
        if (n % 5 == 1)
            for (char& c : read)
                c = c == 'T' ? 'u' : static_cast<char>(std::tolower(c));
        if (n == 0) read.clear();

        const auto expected = naive.Score(read);
        for (size_t detailed : {size_t{1}, size_t{SIZE_MAX}}) {
            const auto results = scorer->Score(read, detailed);
            ASSERT_EQ(results.size(), expected.size()) << read;
            for (size_t r = 0; r < results.size(); ++r) {
                SCOPED_TRACE(read + " result " + std::to_string(r));
                EXPECT_EQ(Call(results[r]), Call(expected[r]));
                ExpectSameDetect(results[r].front, expected[r].front, r < detailed);
                ExpectSameDetect(results[r].rear, expected[r].rear, r < detailed);
            }
        }
    }
    if (evidence_only) *evidence_only = naive.mixed_by_evidence;
    if (agreed) *agreed = naive.agreed;
}

// "DK": BC01, BC02 at both ends (ADD); "AK": BC02 front, BC03 rear (MAX); "SK": BC04 front only.
class ScorerTest : public ::testing::Test {
protected:
    ScorerTest() : kit_(11, 4, 24) {
        auto written = kit_.references;
        for (char& c : written[2])
            c = c == 'T' ? 'u' : static_cast<char>(std::tolower(c));
        kit_.WriteFasta(written);
        kit_.Load(
            "[barcode%02i]\nkit = DK\nbarcode1 = BC%02i\nbarcode2 = BC%02i\nfirst_index = 1\nlast_index = 2\n"
            "scoring_function = ADD\ncompatible_kits = DK\n"
            "[pair]\nkit = AK\nbarcode1 = BC02\nbarcode2 = BC03\nscoring_function = MAX\ncompatible_kits = AK\n"
            "[single]\nkit = SK\nbarcode1 = BC04\nscoring_function = SUM\ncompatible_kits = SK\n");
    }
    Kit kit_;
};

TEST_F(ScorerTest, MatchesNaivePerReferenceAlignment) {
    ScorerOptions options = Options("DK AK SK");
    int evidence_only = 0, agreed = 0;
    CompareWithNaive(options, kit_.manager, kit_.references, 300, 5, kMatrix, "", &evidence_only, &agreed);
    EXPECT_GE(evidence_only, 3) << "too few reads where the weaker end's evidence decides";
    EXPECT_GE(agreed, 3) << "too few arrangements passing by their ends' agreement";
    options.reject_mixed_barcodes = true;
    CompareWithNaive(options, kit_.manager, kit_.references, 100, 7);
    options.reject_mixed_barcodes = false;
    options.require_barcodes_both_ends = true;
    CompareWithNaive(options, kit_.manager, kit_.references, 100, 8);
    options.reject_mixed_barcodes = true;
    options.min_score = 40;
    options.min_score_rear_override = 75;
    // Tracing takes the slow, fully detailed path; the results must not change.
    TestSupport::TempFolder logs;
    Common::InitLogging(
        {.folder = logs.Path(), .log_file_name = "scorer.log", .quiet = true, .trace_categories = {"barcode_scorer"}});
    CompareWithNaive(options, kit_.manager, kit_.references, 100, 6);
    Common::ShutdownLogging();
}

// A barcode pushed past the end window is still that end's, not a second molecule's,
// unless another copy lies inside the read; then it stays a cut too.
TEST_F(ScorerTest, ABarcodeCutByTheWindowEdgeIsNotInsideTheRead) {
    ScorerOptions options = Options("DK");
    options.internal_barcodes = "reject";
    ValidateScorerOptions(options);
    BarcodeScorer scorer(options, kit_.manager, kMatrix);
    std::mt19937 random(5);
    const std::string& barcode = kit_.references[0];
    const std::string insert = RandomBases(random, 400);
    const std::string tail = ReverseComplement(barcode) + RandomBases(random, 8);
    for (size_t head : {50, 60}) {  // the window holds 70 bases: 4 or 14 of the barcode's 24 lie past it
        const std::string read = RandomBases(random, head) + barcode + insert + tail;
        const auto best = scorer.Score(read)[0];
        ASSERT_LT(best.front.score, options.min_score) << head;
        ASSERT_GE(best.rear.score, options.min_score) << head;
        EXPECT_TRUE(scorer.InternalConstructs(read).empty()) << head;
    }
    for (size_t head : {8, 60}) {
        const std::string read =
            RandomBases(random, head) + barcode + insert.substr(0, 200) + barcode + insert.substr(200) + tail;
        scorer.Score(read);
        const auto& found = scorer.InternalConstructs(read);
        ASSERT_EQ(found.size(), head == 8 ? 1u : 2u) << head;
        EXPECT_NEAR(found.front().begin, head == 8 ? 8 + 24 + 200 : 60, 3) << head;
        EXPECT_NEAR(found.back().begin, static_cast<int>(head) + 24 + 200, 3) << head;
    }
    // A long construct (40-base flanks) so far in that its end fails: that
    // end's alignment covers most of it, and the search must see it whole.
    Kit flanked(13, 4, 24, 40);
    flanked.Load(
        "[b%02i]\nkit = FK\ncompatible_kits = FK\nbarcode1 = BC%02i\nbarcode2 = BC%02i\nfirst_index = 1\n"
        "last_index = 4\nscoring_function = MAX\n");
    options = Options("FK", 150, 150);
    options.internal_barcodes = "reject";
    ValidateScorerOptions(options);
    BarcodeScorer long_scorer(options, flanked.manager, kMatrix);
    const std::string read = RandomBases(random, 90) + flanked.references[1] + insert.substr(0, 300) +
                             flanked.references[2] + insert.substr(100) + ReverseComplement(flanked.references[2]);
    ASSERT_LT(long_scorer.Score(read)[0].front.score, options.min_score);
    const auto& found = long_scorer.InternalConstructs(read);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_NEAR(found[0].begin, 90, 3);
    EXPECT_NEAR(found[1].begin, 90 + 104 + 300, 3);
}

// The shipped configuration file's "key = value" lines.
std::map<std::string, std::string> ShippedConfiguration() {
    std::map<std::string, std::string> values;
    std::ifstream in(std::string(VB_SOURCE_DIR) + "/data/barcoding/configuration.cfg");
    auto trim = [](std::string text) {
        text.erase(0, text.find_first_not_of(" \t"));
        return text.erase(text.find_last_not_of(" \t\r") + 1);
    };
    for (std::string line; std::getline(in, line);)
        if (const size_t equals = line.find('='); line[0] != '#' && equals != std::string::npos)
            values[trim(line.substr(0, equals))] = trim(line.substr(equals + 1));
    return values;
}

// The shipped kits and settings, on the CPU or a device.
void CompareOnShippedKits(unsigned seed, const std::string& device) {
    const std::string data = std::string(VB_SOURCE_DIR) + "/data/barcoding";
    const auto config = ShippedConfiguration();
    ScorerOptions options;
    int* const fields[] = {&options.start_gap1,      &options.end_gap1,    &options.open_gap1,
                           &options.extend_gap1,     &options.start_gap2,  &options.end_gap2,
                           &options.open_gap2,       &options.extend_gap2, &options.front_window_size,
                           &options.rear_window_size};
    const char* const keys[] = {"start_gap1", "end_gap1",  "open_gap1",   "extend_gap1",       "start_gap2",
                                "end_gap2",   "open_gap2", "extend_gap2", "front_window_size", "rear_window_size"};
    for (size_t k = 0; k < std::size(keys); ++k)
        *fields[k] = std::stoi(config.at(keys[k]));
    options.min_score = std::stof(config.at("min_score"));
    ValidateScorerOptions(options);
    auto manager =
        std::make_shared<BarcodeManager>(BarcodeManager::SplitArrangementFiles(config.at("arrangements_files")), data);
    std::vector<std::string> barcodes;
    for (const auto& a : manager->AllArrangements())
        if (!a.barcode1.empty()) barcodes.push_back(manager->GetBarcodeSequence(a.barcode1));
    ASSERT_FALSE(barcodes.empty());
    const auto matrix = PairAlignment::LoadMismatchMatrix(ResolveDataFile(config.at("score_matrix_filename"), data));
    CompareWithNaive(options, manager, barcodes, 80, seed, matrix, device);
}

TEST(ShippedKits, FastPathMatchesNaiveAlignmentOnRealReferences) {
    CompareOnShippedKits(9, "");
}

// The same on a GPU, where this machine has one.
TEST(ShippedKits, GpuFastPathMatchesNaiveAlignment) {
    CompareOnShippedKits(10, "cuda:0");
}

// Same read quality, same scores whatever the flank, barcode length or count (without
// flanks only the sign holds); ends without the kit's construct stay below min_score.
TEST(ScoreScale, SameScoresForEveryKitDesignAndNoneWithoutTheKitsFlanks) {
    const float shipped_min = std::stof(ShippedConfiguration().at("min_score"));
    for (size_t length : {16, 24, 40}) {
        std::vector<double> means;
        for (size_t flank : {0, 10, 20, 30, 40}) {
            SCOPED_TRACE("barcode " + std::to_string(length) + ", flanks " + std::to_string(flank));
            // Without flanks, barcodes this short are told apart only among fewer.
            const size_t count = flank > 0 ? 24 : 12;
            Kit kit(static_cast<unsigned>(length * 100 + flank), count, length, flank);
            kit.Load(
                "[barcode%02i]\nkit = K\nbarcode1 = BC%02i\nbarcode2 = BC%02i\nscoring_function = MAX\n"
                "compatible_kits = K\nfirst_index = 1\nlast_index = " +
                std::to_string(count) + "\n");
            const int window = static_cast<int>(150 + 2 * flank + length - 42);
            ScorerOptions options = Options("K", window, window);
            options.min_score = options.min_score_rear_override = shipped_min;
            options.open_gap1 = options.extend_gap1 = options.open_gap2 = options.extend_gap2 = 7;
            options.start_gap2 = options.end_gap2 = 7;
            BarcodeScorer scorer(options, kit.manager, kMatrix);
            std::mt19937 random(static_cast<unsigned>(7 + length + flank));
            auto junk = [&] { return RandomBases(random, 5 + random() % 20); };
            double sum = 0;
            int wins = 0;
            for (int n = 0; n < 40; ++n) {
                const size_t truth = random() % count;
                const double rate = n % 4 == 0 ? 0 : 0.06;
                const std::string read = junk() + TestSupport::Mutate(random, kit.references[truth], rate) +
                                         RandomBases(random, 200) + junk();
                // The barcode's other orientation (_REV) is the same barcode, not a wrong one.
                float right = -1000, wrong = -1000;
                for (const auto& result : scorer.InspectFront(read, "K")) {
                    if (result.id == Kit::Name(truth) + "_FWD")
                        right = result.score;
                    else if (result.id.substr(0, 4) != Kit::Name(truth))
                        wrong = std::max(wrong, result.score);
                }
                EXPECT_LE(wrong, 0) << read;
                wins += right > 0;
                if (flank == 0) continue;
                EXPECT_GT(right, rate == 0 ? 96 : 20) << read;
                EXPECT_GT(right - wrong, 45) << read;
                sum += right;
            }
            if (flank == 0) {
                EXPECT_GE(wins, 36);
                continue;
            }
            means.push_back(sum / 40);
            const std::string other_left = RandomBases(random, flank), other_right = RandomBases(random, flank);
            auto foreign_end = [&](int n) {
                return n % 2 ? RandomBases(random, 2 * flank + length)
                             : other_left + RandomBases(random, length) + other_right;
            };
            float highest = -1000;
            for (int n = 0; n < 120; ++n) {
                const std::string read =
                    junk() + foreign_end(n) + RandomBases(random, 200) + ReverseComplement(foreign_end(n)) + junk();
                const auto best = scorer.Score(read)[0];
                EXPECT_EQ(best.reason, UnclassifiedReason::kNoBarcodeAboveMinimum) << read;
                highest = std::max({highest, best.front.score, best.rear.score});
            }
            EXPECT_LT(highest, shipped_min - 5) << "no room to spare";
        }
        // A raw / self-score scale moved by tens of points between flank lengths.
        const auto [low, high] = std::minmax_element(means.begin(), means.end());
        EXPECT_GT(*low, 70) << "barcode length " << length;
        EXPECT_LT(*high - *low, 20) << "barcode length " << length;
    }
}

// One scale per kits and settings; identical sequences are one barcode; references told
// apart only by free end gaps, or holding a non-base, are refused.
TEST(ScoreScale, SharedPerSettingsAndRefusedWhereBarcodesCannotBeScored) {
    Kit kit(9, 4, 16, 5);
    ScaleSettings settings{kMatrix, Options("K").GapVector(), 150, 150};
    std::vector<ScaleReference> references;
    for (size_t k = 0; k < kit.references.size(); ++k)
        references.push_back({"r", Codes(kit.references[k]), {{"K", "barcode" + std::to_string(k)}}});
    const auto first = ShareScoreScale(settings, references);
    EXPECT_EQ(ShareScoreScale(settings, references), first);
    settings.window_size = 100;
    EXPECT_NE(ShareScoreScale(settings, references), first);

    references.push_back(references[0]);
    EXPECT_NO_THROW(ScoreScale(settings, references));
    std::vector<ScaleReference> contained = {references[0], references[1]};
    contained[0].name = "short";
    contained[1].name = "long";
    contained[1].codes = contained[0].codes;
    contained[1].codes.insert(contained[1].codes.end(), {0, 1, 2, 3});
    settings.gaps = {0, 0, 7, 7, 0, 0, 7, 7};
    std::string message = TestSupport::ErrorOf([&] { ScoreScale scale(settings, contained); });
    EXPECT_TRUE(TestSupport::Holds(message, "'short' and 'long'")) << message;

    kit.WriteFasta({"ACGNT"});
    kit.Load("[n]\nbarcode1 = BC01\ncompatible_kits = N\n");
    message = TestSupport::ErrorOf([&] { BarcodeScorer(Options("N"), kit.manager, kMatrix); });
    EXPECT_TRUE(TestSupport::Holds(message, "'BC01_FWD'") && TestSupport::Holds(message, "'N'")) << message;
}

// Pair kit: fronts F01..F04, rears R05..R07; random reads of every kind from either strand
// against the expected call. min_barcode_quality at its top keeps only the surest pair calls.
TEST(PairTest, ReadsOfEitherStrandAgainstANaiveCall) {
    Kit kit(21, 7, 24);
    kit.Load(
        "[F%02i]\nkit = PK\nbarcode1 = BC%02i\nscoring_function = MAX\ncompatible_kits = PK\n"
        "first_index = 1\nlast_index = 4\n"
        "[R%02i]\nkit = PK\nbarcode2 = BC%02i\nscoring_function = MAX\ncompatible_kits = PK\n"
        "first_index = 5\nlast_index = 7\n");
    auto design = [&](const std::vector<BarcodePair>& listed) {
        return std::make_shared<PairDesign>(kit.manager->GetArrangements("PK"), *kit.manager, listed);
    };
    EXPECT_THROW(design({{"F01", "R09"}}), std::runtime_error);
    EXPECT_THROW(design({{"F01", "R05"}, {"F01", "R05"}}), std::runtime_error);
    const std::set<std::pair<int, int>> listed = {{0, 0}, {0, 1}, {1, 2}, {2, 0}, {3, 1}};
    std::vector<BarcodePair> pairs;
    for (const auto& [f, r] : listed)
        pairs.push_back({"F0" + std::to_string(f + 1), "R0" + std::to_string(r + 5)});
    BarcodeScorer scorer(Options("PK"), kit.manager, kMatrix, "", design(pairs));
    ScorerOptions options = Options("PK");
    options.min_score = options.min_score_rear_override = 30;
    BarcodeScorer loose(options, kit.manager, kMatrix, "", design(pairs));
    options.min_barcode_quality = kMaxBarcodeQuality;
    BarcodeScorer strict(options, kit.manager, kMatrix, "", design(pairs));

    std::mt19937 random(5);
    auto damaged = [&](size_t k, int substitutions) {
        std::string bases = kit.references[k];
        for (int n = 0; n < substitutions; ++n)
            bases[random() % bases.size()] = "ACGT"[random() % 4];
        return bases;
    };
    std::map<std::string, int> kinds;
    for (int n = 0; n < 600; ++n) {
        const int f = static_cast<int>(random() % 4), r = static_cast<int>(random() % 3);
        // 0, 1: both ends; 2: front only; 3: rear only; 4, 5: front or rear damaged
        const int kind = static_cast<int>(random() % 6), damage = 3 + static_cast<int>(random() % 5);
        const std::string front = damaged(static_cast<size_t>(f), kind == 4 ? damage : 1);
        const std::string rear = damaged(static_cast<size_t>(r + 4), kind == 5 ? damage : 1);
        std::string read = RandomBases(random, 5 + random() % 20) + (kind != 3 ? front : RandomBases(random, 24)) +
                           RandomBases(random, 200 + random() % 200) +
                           (kind != 2 ? ReverseComplement(rear) : RandomBases(random, 24)) +
                           RandomBases(random, 5 + random() % 20);
        const bool reversed = random() % 2 == 1;
        if (reversed) read = ReverseComplement(read);

        const std::string name = "F0" + std::to_string(f + 1) + "_R0" + std::to_string(r + 5);
        const auto results = scorer.Score(read);
        ASSERT_EQ(results.size(), 1u);
        const auto& call = results[0];
        SCOPED_TRACE(name + " kind " + std::to_string(kind) + (reversed ? " reversed" : ""));
        EXPECT_FALSE(call.mixed);
        const bool listed_cell = listed.count({f, r}) > 0;
        if (kind >= 4) {
            // A damaged end at half the minimum or more still says the pair.
            const float weaker = std::min(call.front.score, call.rear.score);
            const bool strong = weaker >= 60, seen = weaker >= 30 && call.id == name;
            const UnclassifiedReason expected = strong && listed_cell  ? UnclassifiedReason::kNone
                                                : !listed_cell && seen ? UnclassifiedReason::kPairNotInSheet
                                                : weaker < 30          ? UnclassifiedReason::kOneEndOnly
                                                                       : call.reason;
            EXPECT_EQ(call.reason, expected) << call.front.score << " " << call.rear.score;
            if (!strong && seen) kinds[listed_cell ? "damaged, listed" : "damaged, unlisted"]++;
            if (weaker < 30) kinds["damaged, too weak"]++;
        } else if (kind < 2 && listed_cell) {
            EXPECT_EQ(std::tie(call.normalised_id, call.reason, call.variant),
                      std::tuple(name, UnclassifiedReason::kNone, reversed ? "rev" : "fwd"));
            ASSERT_GE(call.listed_pair, 0);  // the sheet row its sample is found by
            const BarcodePair& row = pairs[static_cast<size_t>(call.listed_pair)];
            EXPECT_EQ(PairName(row.front, row.rear), name);
            kinds["listed"]++;
        } else if (kind < 2) {
            EXPECT_EQ(std::tie(call.normalised_id, call.reason, call.id),
                      std::tuple("unclassified", UnclassifiedReason::kPairNotInSheet, name));
            EXPECT_EQ(call.listed_pair, -1);
            kinds["unlisted"]++;
        } else {
            EXPECT_EQ(call.normalised_id, "unclassified");
            // Rarely, one substitution in the right place takes the one end under the minimum too.
            const bool none_passes = call.front.score < 60 && call.rear.score < 60;
            EXPECT_EQ(call.reason,
                      none_passes ? UnclassifiedReason::kNoBarcodeAboveMinimum : UnclassifiedReason::kOneEndOnly);
            kinds["one end"]++;
        }

        const auto loose_call = loose.Score(read)[0], strict_call = strict.Score(read)[0];
        if (loose_call.reason != UnclassifiedReason::kNone) {
            EXPECT_EQ(loose_call.quality, 0);
            EXPECT_EQ(strict_call.reason, loose_call.reason);
            continue;
        }
        EXPECT_GT(loose_call.quality, 0);
        EXPECT_EQ(loose_call.candidate_quality, loose_call.quality);
        EXPECT_LT(loose_call.error_probability, 1);
        const bool kept = loose_call.quality >= kMaxBarcodeQuality;
        EXPECT_EQ(std::tie(strict_call.reason, strict_call.normalised_id, strict_call.candidate_quality),
                  std::tuple(kept ? UnclassifiedReason::kNone : UnclassifiedReason::kLowBarcodeQuality,
                             kept ? loose_call.normalised_id : "unclassified", loose_call.quality));
        kinds["classified at 30"]++;
    }
    for (const char* kind : {"listed", "unlisted", "one end", "damaged, listed", "damaged, unlisted",
                             "damaged, too weak", "classified at 30"})
        EXPECT_GT(kinds[kind], 5) << kind;
    EXPECT_EQ(scorer.Score(RandomBases(random, 400))[0].reason, UnclassifiedReason::kNoBarcodeAboveMinimum);
}

}  // namespace
}  // namespace Barcoding
