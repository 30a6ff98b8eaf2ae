// Random reads against a small kit, with the scoring settings (matrix, gap
// costs, windows, minimum score) taken from the input within their documented
// bounds, so that the 16-bit, 32-bit and scalar alignment paths all run.
// Input: 16 matrix bytes, 8 gap bytes, 2 window bytes, 1 minimum-score byte,
// 1 flag byte, then the read (byte % 4 is the base; 0xff is an 'N').
//
// Oracles: every reported score equals the detect score of a plain
// FastAlign::Align of that reference against the window, and every found
// sequence is the read's text at the reported position.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "barcoding/barcode_manager.h"
#include "barcoding/barcode_scorer.h"
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

void CheckEnd(const Barcoding::BarcodeDetectResult& end, bool front, const std::string& read,
              const Barcoding::ScorerOptions& options, const std::vector<int>& matrix) {
    if (end.id.empty()) return;
    const int length = static_cast<int>(read.size());
    const int count = std::min(front ? options.front_window_size : options.rear_window_size, length);
    const std::vector<int> window = Codes(read.substr(front ? 0 : static_cast<size_t>(length - count), count));
    const std::vector<int> reference = Codes(end.reference_sequence);
    int self = 0;
    for (int code : reference)
        self += matrix[4 * code + code];
    PairAlignment::FastAlign aligner(brim::data_wrappers::MatView<int>(const_cast<int*>(matrix.data()), 4, 4),
                                     options.GapVector(),
                                     std::max({options.front_window_size, options.rear_window_size, 1}));
    PairAlignment::Path path;
    const int score =
        aligner.Align(brim::data_wrappers::VecView<int>(const_cast<int*>(reference.data()), reference.size()),
                      brim::data_wrappers::VecView<int>(const_cast<int*>(window.data()), window.size()), path);
    FUZZ_CHECK(end.score == static_cast<float>(100.0 * static_cast<double>(score) / static_cast<double>(self)));

    const size_t found = end.found_sequence.size();
    if (found == 0) return;
    const long start = front ? end.begin_index : static_cast<long>(length) - end.begin_index - static_cast<long>(found);
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
    for (const auto& result : results) {
        CheckEnd(result.front, true, read, options, matrix);
        CheckEnd(result.rear, false, read, options, matrix);
    }
    return 0;
}
