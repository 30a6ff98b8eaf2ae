#pragma once
// Plain results of barcode detection: one barcode found at one read end, and
// one candidate classification of a whole read.

#include <cstdint>
#include <limits>
#include <string>

namespace Barcoding {

struct BarcodeDetectResult {
    std::string id;                  // barcode reference name, empty = no barcode at this end
    std::string reference_sequence;  // the reference as aligned
    std::string found_sequence;      // read bases the alignment pairs with the reference
    // 100 = the reference aligned perfectly; 0 = no better than the closest
    // other reference of the same end and kit on this read; below 0: another
    // reference fits better.
    float score = -std::numeric_limits<float>::infinity();
    // How far the reference fits better than random sequence, whatever the
    // other references do (ScoreScale::Presence); 0 = no better than random.
    float presence = -std::numeric_limits<float>::infinity();
    // Front: first base of the found sequence in the read. Rear: number of
    // window bases after the found sequence's last base. -1 when empty.
    int begin_index = -1;
};

// Why a read was left unclassified. When several apply, the first in this
// order (after kNone) is given: barcode constructs inside the read rejected by
// internal_barcodes, a mixed read rejected by reject_mixed_barcodes, then one
// end passing where require_barcodes_both_ends (or a pair) asks for both, then
// no barcode passing at all, then a call below min_barcode_quality. A pair
// call has one more, before "one end": the sample sheet does not list the
// pair of its two ends (both passing, or one passing and the other close,
// kPairEndSeenShare in barcode_scorer.h).
enum class UnclassifiedReason : uint8_t {
    kNone,
    kNoBarcodeAboveMinimum,
    kMixedBarcodes,
    kOneEndOnly,
    kLowBarcodeQuality,
    kInternalBarcode,
    kPairNotInSheet
};

// "no barcode above the minimum", "mixed barcodes", "only one end", "low
// barcode quality", "internal barcode", "pair not in sample sheet"; empty for
// kNone.
inline const char* UnclassifiedReasonText(UnclassifiedReason reason) {
    switch (reason) {
        case UnclassifiedReason::kNoBarcodeAboveMinimum:
            return "no barcode above the minimum";
        case UnclassifiedReason::kMixedBarcodes:
            return "mixed barcodes";
        case UnclassifiedReason::kOneEndOnly:
            return "only one end";
        case UnclassifiedReason::kLowBarcodeQuality:
            return "low barcode quality";
        case UnclassifiedReason::kInternalBarcode:
            return "internal barcode";
        case UnclassifiedReason::kPairNotInSheet:
            return "pair not in sample sheet";
        case UnclassifiedReason::kNone:
            break;
    }
    return "";
}

// What the scorer knows about a read's call at one end: the inputs of the
// barcode quality (barcoding/barcode_quality.h). Margins count substitutions:
// raw alignment points divided by what one substitution costs (the matrix's
// mean match minus its mean mismatch), so they mean the same under any matrix.
struct EndEvidence {
    bool barcode = false;  // the arrangement has a barcode at this end; the rest is unset otherwise
    float score = -std::numeric_limits<float>::infinity();     // of the called barcode
    float presence = -std::numeric_limits<float>::infinity();  // of the called barcode
    // How far the called barcode fits better than the best other barcode of
    // its kit at this end (below 0: another fits better; 0 when the kit has
    // no other), and than the top of the random range (ScoreScale::RandomTop).
    float over_rival = 0;
    float over_random = 0;
    // The best other barcode of the kit at this end: its score and presence.
    float runner_up_score = -std::numeric_limits<float>::infinity();
    float runner_up_presence = -std::numeric_limits<float>::infinity();
    int window = 0;  // bases of the read end searched
};

struct QualityInputs {
    EndEvidence front;
    EndEvidence rear;
};

struct ArrangementDetectResult {
    std::string id;             // full arrangement name (e.g. "barcode01_var1")
    std::string normalised_id;  // reported name, or "unclassified"
    std::string kit;
    std::string variant;
    float score = -std::numeric_limits<float>::infinity();  // front and rear combined
    BarcodeDetectResult front;
    BarcodeDetectResult rear;
    // Set on the first result of a read only: reason is kNone for a classified
    // read; mixed is true whenever the read's two ends name different barcodes
    // (BarcodeScorer::Score says when an end names a barcode), whether or not
    // that left it unclassified.
    UnclassifiedReason reason = UnclassifiedReason::kNone;
    bool mixed = false;
    // Also on the first result only: the evidence for its call, the
    // probability that the call is wrong (1 for an unclassified read) and that
    // on the Phred scale (barcoding/barcode_quality.h; 0 when unclassified).
    // candidate_quality is the quality the best candidate's call has or would
    // have had (the run report plots it for unclassified reads too); -1 when
    // there is no candidate at all.
    QualityInputs inputs;
    double error_probability = 1;
    int quality = 0;
    int candidate_quality = -1;
    // A call of a pair of barcodes that the sample sheet lists: the pair's
    // row among the sheet's pairs (PairCall::listed), so that its sample is
    // found without looking up its name; -1 otherwise.
    int listed_pair = -1;
};

}  // namespace Barcoding
