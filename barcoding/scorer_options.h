#pragma once
// Settings of the barcode scorer as read from the command line and the
// configuration file, their validation, and the data-file lookup shared with
// the barcode manager.

#include <cstdint>
#include <string>
#include <vector>

namespace Barcoding {

// What becomes of a read that holds barcode constructs away from its ends
// (molecules ligated end to end): nothing (the ends decide, no search), the
// read is left unclassified, or it is cut into its molecules.
enum class InternalBarcodes : uint8_t { kIgnore, kReject, kSplit };

struct ScorerOptions {
    std::string barcode_kits;  // space separated; empty = every loaded arrangement
    bool trim_barcodes = false;
    int num_extra_bases_trim = 0;
    std::string arrangements_files;  // whitespace separated
    std::string score_matrix_filename;
    // Gap costs; suffix 1 = the reference (barcode), 2 = the query (read window).
    int start_gap1 = 0, end_gap1 = 0, open_gap1 = 0, extend_gap1 = 0;
    int start_gap2 = 0, end_gap2 = 0, open_gap2 = 0, extend_gap2 = 0;
    float min_score = 0;
    float min_score_rear_override = -1.0f;  // -1 = same as min_score; after validation always the rear minimum
    int front_window_size = 0;
    int rear_window_size = 0;
    bool require_barcodes_both_ends = false;
    // Leave unclassified a read whose two ends pass for different barcodes.
    bool reject_mixed_barcodes = false;
    // Leave unclassified a read whose barcode quality is below this.
    int min_barcode_quality = 0;
    // "ignore", "reject" or "split"; validation sets internal_mode from it.
    std::string internal_barcodes = "ignore";
    InternalBarcodes internal_mode = InternalBarcodes::kIgnore;
    int min_part_length = 100;  // split: shorter parts are dropped (and counted)

    // The eight gap costs in aligner order: start1, end1, open1, extend1, start2, ...
    std::vector<int> GapVector() const;
};

// Bounds of the scoring settings. Together with the score matrix's bound
// (PairAlignment::kMaxScoreMagnitude, also the bound of every gap cost) they
// keep every alignment score far inside 32-bit arithmetic; see the .cpp.
constexpr int kMaxWindowSize = 10000;       // front_window_size, rear_window_size: 1 .. this
constexpr int kMaxReferenceLength = 1000;   // bases of one barcode (reference) sequence
constexpr int kMaxExtraTrim = 10000;        // |num_extra_bases_trim|
constexpr int kMaxArrangementSpan = 10000;  // last_index - first_index + 1 of one arrangement section
constexpr int kMaxPartLength = 1000000;     // min_part_length

// Throws std::runtime_error, naming the setting and the allowed range, for a
// gap cost outside 0 .. kMaxScoreMagnitude, a window outside 1 ..
// kMaxWindowSize, a minimum score that is not finite, a minimum barcode
// quality outside 0 .. 60, an extra trim outside
// +-kMaxExtraTrim, and inconsistent trim settings. Then resolves the rear
// minimum (min_score_rear_override becomes min_score when it is exactly -1).
// Also throws for an internal_barcodes other than ignore, reject or split and
// a min_part_length outside 1 .. kMaxPartLength.
void ValidateScorerOptions(ScorerOptions& options);

// name itself when it exists or is absolute, otherwise data_path/name (whether
// or not that exists, so the caller's "not found" message names a real place).
std::string ResolveDataFile(const std::string& name, const std::string& data_path);

}  // namespace Barcoding
