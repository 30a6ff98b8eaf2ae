// Random reads against a small kit, with the scoring settings (matrix, gap
// costs, windows, minimum score) taken from the input within their documented
// bounds, so that the 16-bit, 32-bit and scalar alignment paths all run.
// Input: 16 matrix bytes, 8 gap bytes, 2 window bytes, 1 minimum-score byte,
// 1 flag byte, then the read (byte % 4 is the base; 0xff is an 'N').
//
// Oracles: every reported score and presence follow, on the kit's score
// scale, from plain FastAlign::Align scores of the end's references against
// the window, and every found sequence is the read's text at the reported
// position.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "barcoding/barcode_manager.h"
#include "barcoding/barcode_scorer.h"
#include "barcoding/score_scale.h"
#include "barcoding/scorer_options.h"
#include "fuzz/fuzz_support.h"
#include "pair_alignment/fast_align.h"

namespace {

constexpr size_t kHeader = 28;

std::shared_ptr<Barcoding::BarcodeManager> Kit() {
    static const auto manager = [] {
        Fuzz::WriteScratch("kit.fasta",
                           ">A1\nGATTCCAGTTGACGGTCAACTTAG\n>A2\nTTGCAGGACCTAAGTCCGATTGGACATCCA\n>S1\nCAGTTAGGCATG\n");
        const std::string file = Fuzz::WriteScratch(
            "kit.ini",
            "[loading_options]\nbarcodes_filename = kit.fasta\n"
            "[dmax]\nbarcode1 = A1\nbarcode2 = A2\nscoring_function = MAX\ncompatible_kits = K\n"
            "[dadd]\nbarcode1 = A2\nbarcode2 = A1\nscoring_function = ADD\ncompatible_kits = K\n"
            "[front]\nbarcode1 = S1\ncompatible_kits = K\n[rear]\nbarcode2 = S1\ncompatible_kits = K\n");
        return std::make_shared<Barcoding::BarcodeManager>(std::vector<std::string>{file}, "");
    }();
    return manager;
}

std::vector<int> Codes(const std::string& bases) {
    std::vector<int> codes;
    for (char c : bases)
        codes.push_back(c == 'A' ? 0 : c == 'C' ? 1 : c == 'G' ? 2 : 3);
    return codes;
}

// What one read end should report: the plain alignment score of each of the
// end's references on the read's window, and those scores on the end's scale.
// The references, their order and their uses are gathered as the scorer
// gathers them, so the scale is the scorer's own (shared, not rebuilt).
struct EndOracle {
    std::vector<std::string> names;
    std::vector<int> raw;
    std::vector<float> scores;
    std::shared_ptr<const Barcoding::ScoreScale> scale;
};

EndOracle BuildOracle(bool front, const std::string& read, const Barcoding::ScorerOptions& options,
                      const std::vector<int>& matrix) {
    std::vector<Barcoding::ScaleReference> references;
    for (const auto& a : Kit()->GetArrangements("K")) {
        const std::string& name = front ? a.barcode1 : a.barcode2;
        if (name.empty()) continue;
        auto found = std::find_if(references.begin(), references.end(),
                                  [&name](const Barcoding::ScaleReference& r) { return r.name == name; });
        if (found == references.end())
            found = references.insert(references.end(),
                                      Barcoding::ScaleReference{name, Codes(Kit()->GetBarcodeSequence(name)), {}});
        const std::pair<std::string, std::string> use{a.kit, a.normalised_id};
        if (std::find(found->uses.begin(), found->uses.end(), use) == found->uses.end()) found->uses.push_back(use);
    }
    const int window_size = front ? options.front_window_size : options.rear_window_size;
    const int length = static_cast<int>(read.size());
    const int count = std::min(window_size, length);
    std::vector<int> window = Codes(read.substr(front ? 0 : static_cast<size_t>(length - count), count));
    const int band_width = std::max({options.front_window_size, options.rear_window_size, 1});
    PairAlignment::FastAlign aligner(brim::data_wrappers::MatView<int>(const_cast<int*>(matrix.data()), 4, 4),
                                     options.GapVector(), band_width);
    EndOracle oracle;
    for (auto& reference : references) {
        PairAlignment::Path path;
        oracle.names.push_back(reference.name);
        // An empty read has one path: every reference base against a gap
        // before the read.
        oracle.raw.push_back(
            window.empty()
                ? -options.start_gap2 * static_cast<int>(reference.codes.size())
                : aligner.Align(brim::data_wrappers::VecView<int>(reference.codes.data(), reference.codes.size()),
                                brim::data_wrappers::VecView<int>(window.data(), window.size()), path));
    }
    oracle.scale = Barcoding::ShareScoreScale(
        Barcoding::ScaleSettings{matrix, options.GapVector(), band_width, window_size}, references);
    Barcoding::ScoreScale::Work work;
    oracle.scale->Apply(oracle.raw, oracle.scores, work);
    return oracle;
}

size_t OracleIndex(const Barcoding::BarcodeDetectResult& end, const EndOracle& oracle) {
    const size_t k =
        static_cast<size_t>(std::find(oracle.names.begin(), oracle.names.end(), end.id) - oracle.names.begin());
    FUZZ_CHECK(k < oracle.names.size());
    return k;
}

// raised: the score the end may be reported with instead of its own, where
// the two ends of its arrangement pass together (NaN where they cannot).
void CheckEnd(const Barcoding::BarcodeDetectResult& end, bool front, const std::string& read, const EndOracle& oracle,
              float raised) {
    if (end.id.empty()) return;
    const size_t k = OracleIndex(end, oracle);
    FUZZ_CHECK(end.reference_sequence == Kit()->GetBarcodeSequence(end.id));
    FUZZ_CHECK(end.score == oracle.scores[k] || end.score == raised);
    FUZZ_CHECK(end.presence == oracle.scale->Presence(k, oracle.raw[k]));

    const size_t found = end.found_sequence.size();
    if (found == 0) return;
    const long length = static_cast<long>(read.size());
    const long start = front ? end.begin_index : length - end.begin_index - static_cast<long>(found);
    FUZZ_CHECK(start >= 0 && static_cast<size_t>(start) + found <= read.size());
    FUZZ_CHECK(read.compare(static_cast<size_t>(start), found, end.found_sequence) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLogging();
    Kit();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kHeader) return 0;
    const uint8_t flags = data[27];
    std::vector<int> matrix(16);
    for (int k = 0; k < 16; ++k)
        matrix[k] = static_cast<int8_t>(data[k]) * (flags & 1 ? 7 : 1);
    Barcoding::ScorerOptions options;
    options.barcode_kits = "K";
    int* gaps[] = {&options.start_gap1, &options.end_gap1, &options.open_gap1, &options.extend_gap1,
                   &options.start_gap2, &options.end_gap2, &options.open_gap2, &options.extend_gap2};
    for (int k = 0; k < 8; ++k)
        *gaps[k] = data[16 + k] * (flags & 2 ? 3 : 1);
    options.front_window_size = 1 + data[24] * (flags & 4 ? 4 : 1);
    options.rear_window_size = 1 + data[25] * (flags & 4 ? 4 : 1);
    options.min_score = static_cast<int8_t>(data[26]);
    options.require_barcodes_both_ends = (flags & 8) != 0;
    Barcoding::ValidateScorerOptions(options);  // the settings above are inside every bound

    std::string read;
    for (size_t k = kHeader; k < size; ++k)
        read += data[k] == 0xff ? 'N' : "ACGT"[data[k] % 4];
    std::unique_ptr<Barcoding::BarcodeScorer> scorer;
    try {
        scorer = std::make_unique<Barcoding::BarcodeScorer>(options, Kit(), matrix);
    } catch (const std::runtime_error&) {
        return 0;  // a matrix under which a barcode does not score above 0 against itself
    }
    std::vector<Barcoding::ArrangementDetectResult> results;
    try {
        results = scorer->Score(read, SIZE_MAX);
    } catch (const std::runtime_error&) {
        FUZZ_CHECK(read.find('N') != std::string::npos);
        return 0;
    }
    FUZZ_CHECK(!results.empty());
    const EndOracle front = BuildOracle(true, read, options, matrix);
    const EndOracle rear = BuildOracle(false, read, options, matrix);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const auto& result : results) {
        // Two ends below their minimums that agree may pass together, the
        // better one then reported at its minimum (only where no barcode
        // passes alone, which the oracle does not check).
        float front_raised = nan, rear_raised = nan;
        if (!result.front.id.empty() && !result.rear.id.empty()) {
            const float f = front.scores[OracleIndex(result.front, front)];
            const float r = rear.scores[OracleIndex(result.rear, rear)];
            const float min_rear = options.min_score_rear_override;
            if (f < options.min_score && r < min_rear && f >= Barcoding::kAgreeingEndFloor &&
                r >= Barcoding::kAgreeingEndFloor) {
                if (f >= r && f + r >= options.min_score) front_raised = options.min_score;
                if (f < r && f + r >= min_rear) rear_raised = min_rear;
            }
        }
        CheckEnd(result.front, true, read, front, front_raised);
        CheckEnd(result.rear, false, read, rear, rear_raised);
    }
    return 0;
}
