#pragma once
// Classifies one read into a barcode arrangement: the barcode references are
// aligned against a window at each end of the read, scored on the scale of
// score_scale.h, the per-end detections are combined per arrangement, and the
// survivors of the score thresholds come back best first (or one
// "unclassified" result). One scorer per thread; scorers built for the same
// kits and settings share the scale's tables.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "barcoding/arrangement.h"
#include "barcoding/barcode_manager.h"
#include "barcoding/construct_search.h"
#include "barcoding/detect_results.h"
#include "barcoding/pair_design.h"
#include "barcoding/scorer_options.h"

namespace Barcoding {

class ReferenceAligner;

// A read is mixed when its two ends name different barcodes: both pass for
// different barcodes, or one passes and the other, where none passes, shows
// evidence of another barcode (the best of its kit, scoring above 0, with at
// least kMixedEvidencePresence presence, ScoreScale::Presence) while the
// passing end's barcode scores at most -kMixedRivalMargin there. So a chimera
// whose weaker end is too damaged to pass is still caught, while a damaged
// end of a read with one barcode, where another barcode edges out the right
// one by a little, and random sequence, where no barcode is present, rarely
// make a read mixed. Measured on the kit family in docs/calibration.md.
constexpr float kMixedEvidencePresence = 10;
constexpr float kMixedRivalMargin = 30;

// Two ends that agree count together. On a read where no barcode reaches its
// minimum, an arrangement with barcodes at both ends passes when each end
// scores at least kAgreeingEndFloor and the two scores add up to the better
// end's minimum: that end's score is raised to its minimum (the other keeps
// its own, so this never helps where both ends are required). The scale
// measures each end against its rivals and random sequence on its own, so two
// ends naming the same barcode are independent evidence, and a damaged
// barcode is seldom damaged alike at both ends. Measured on the kit family
// (docs/calibration.md): at identity 0.87, 16-base barcodes behind 10-base
// flanks, it calls half the double-barcoded reads that failed the minimum,
// all of them right; barcode-less reads reach a sum of 14 at most.
constexpr float kAgreeingEndFloor = 10;

// A pair read with one end passing is of a pair the sheet does not list (not
// "only one end") when its other end reaches this share of the minimum and
// the two ends' barcodes make an unlisted pair. It never classifies a read.
// Measured at min_score 25 (12 x 8 and 24 x 24 designs, both error models,
// identities 0.87-0.97): the missing end of reads with one barcode reached at
// most 13.3, the failing true end of reads of unlisted pairs 13.7-24.8.
constexpr float kPairEndSeenShare = 0.5f;

class BarcodeScorer {
public:
    // options must have been through ValidateScorerOptions. matrix: the 4 x 4
    // mismatch matrix, row-major (reference code, read code). The kit
    // selection, the reference lists and the aligners (CPU when device is
    // empty) are built here, once. Throws for a reference holding a character
    // that is not a base. With pairs, reads are called as the pairs of the
    // design (pair_design.h) instead of the kits' arrangements.
    BarcodeScorer(const ScorerOptions& options, std::shared_ptr<BarcodeManager> manager, const std::vector<int>& matrix,
                  const std::string& device = "", std::shared_ptr<const PairDesign> pairs = nullptr);
    ~BarcodeScorer();
    BarcodeScorer(const BarcodeScorer&) = delete;
    BarcodeScorer& operator=(const BarcodeScorer&) = delete;

    // Ranked arrangements for the read (never empty). Only the first
    // `detailed` results carry reference and found sequences and indices; the
    // rest carry ids, scores and presences. sequence: letters A, C, G, T, U.
    // Ranking: kits by the best raw alignment score of their passing
    // arrangements, then arrangements by score. An unclassified read comes
    // back as its best arrangement by score renamed "unclassified", with the
    // reason (a call below min_barcode_quality as that call); the first result
    // says whether the read is mixed (see kMixedEvidencePresence) and carries
    // the evidence for its call and, when classified, its quality.
    // With pairs: one result, the pair of the barcodes found at the two ends
    // (id and normalised id "<front>_<rear>", variant "fwd", or "rev" for a
    // read of the other strand, score the weaker end's), or unclassified when
    // an end or both fall short of their minimum or the sheet does not list
    // the pair; a pair read is never mixed.
    std::vector<ArrangementDetectResult> Score(const std::string& sequence, size_t detailed = 1);

    // Tells the aligners the reads that Score will be given next, in this
    // order, so that a GPU aligner scores all their windows in a few launches.
    // Nothing for CPU aligners; results never depend on it.
    void Prepare(const std::vector<const std::string*>& sequences);

    // Every front (rear) reference of the scorer's kits against the read's
    // front (rear) window, fully detailed. kits must be the scorer's kits.
    std::vector<BarcodeDetectResult> InspectFront(const std::string& sequence, const std::string& kits);
    std::vector<BarcodeDetectResult> InspectRear(const std::string& sequence, const std::string& kits);

    // The barcode constructs inside the read last given to Score (sequence
    // must be that same string, unchanged): those found anywhere in it
    // (ConstructSearch) that overlap neither end's match, the best-fitting
    // reference in that end's window. None when all of them lie in the
    // window of an end where no barcode passes (there a construct is that
    // end's own, cut by the window's edge). In read order. Throws unless the
    // options ask for internal barcodes (reject or split).
    const std::vector<FoundConstruct>& InternalConstructs(const std::string& sequence);
    // The name of a found construct's reference.
    const std::string& ConstructName(const FoundConstruct& construct) const;

private:
    struct End;
    enum class Combine : uint8_t { kAdd, kMax, kUnknown };
    struct Candidate {
        uint32_t arrangement;
        float score;
    };
    // The two best barcodes (normalised ids) of one end on the current read,
    // each with its best-scoring arrangement.
    struct TopTwo {
        uint32_t name[2];
        uint32_t arrangement[2];
        float score[2];
        void Clear();
        void Add(uint32_t name, uint32_t arrangement, float score);
    };

    using Uses = std::vector<std::pair<std::string, std::string>>;  // (kit, normalised id) per arrangement
    std::unique_ptr<End> MakeEnd(const std::vector<std::string>& names, const std::vector<Uses>& uses, bool front,
                                 const std::string& device);
    void MakePairArrangements();
    std::vector<ArrangementDetectResult> ScorePair(size_t detailed);
    bool IsMixed();
    static bool IsEvidence(const End& end, int reference, float score);
    int CutWindow(const End& end, const std::string& sequence, size_t& start, std::vector<int>& codes) const;
    void AlignWindow(End& end, const std::string& sequence);
    static void Summarise(const End& end, size_t reference, BarcodeDetectResult& result);
    void FillEvidence(const End& end, const TopTwo& top, size_t arrangement, EndEvidence& evidence) const;
    void Detail(End& end, size_t reference, BarcodeDetectResult& result);
    std::vector<BarcodeDetectResult> InspectEnd(End& end, const std::string& sequence, const std::string& kits);
    void TraceEnd(End& end);
    void MakeSearch(const std::vector<int>& matrix);
    std::pair<int, int> EndMatch(End& end);
    std::pair<int, int> FailedWindow(const End& end, float min_score) const;
    static std::pair<int, int> Trace(End& end, size_t reference);

    ScorerOptions options_;
    std::shared_ptr<BarcodeManager> manager_;
    // With pairs: per pair barcode k, arrangement 2k holds its start
    // reference and 2k + 1 its end reference.
    std::shared_ptr<const PairDesign> pairs_;
    std::vector<Arrangement> pair_arrangements_;
    std::map<std::string, std::string> pair_sequences_;  // reference name -> sequence
    std::vector<int> matrix_;
    double substitution_ = 1;  // raw points one substitution costs: mean match minus mean mismatch
    const std::vector<Arrangement>* arrangements_;
    // Per arrangement: index into the front/rear reference list (-1 = none) and
    // how its two scores combine.
    std::vector<int> front_of_;
    std::vector<int> rear_of_;
    std::vector<Combine> combine_;
    std::vector<uint32_t> name_of_;  // per arrangement: its normalised id, numbered
    std::vector<uint32_t> kit_of_;   // per arrangement: its kit, numbered
    std::unique_ptr<End> front_;
    std::unique_ptr<End> rear_;
    // Reused per read.
    std::vector<Candidate> candidates_;
    // The read passes only by agreeing ends: every kept arrangement's scores
    // are raised as RaiseAgreeingEnd says, which leaves any other unchanged.
    bool agreed_ = false;
    std::vector<uint32_t> front_passing_;  // arrangements passing at the front
    std::vector<uint32_t> rear_passing_;
    std::vector<uint32_t> front_evidence_;  // normalised ids not passing there but with evidence (IsEvidence)
    std::vector<uint32_t> rear_evidence_;
    std::vector<uint32_t> name_mark_;  // per normalised id: stamp of the last read that named it (IsMixed)
    uint32_t stamp_ = 0;
    std::vector<int> kit_fit_;  // per kit: best raw fit among its passing arrangements
    TopTwo front_top_, rear_top_;
    std::unique_ptr<ConstructSearch> search_;  // with internal barcodes only
    std::vector<uint8_t> read_codes_;
    std::vector<std::pair<int, int>> within_;  // read stretches searched
    std::vector<FoundConstruct> internal_;
};

// The result of a read with constructs inside it under --internal_barcodes
// reject: its best arrangement, renamed "unclassified", with the reason
// kInternalBarcode; the other results go.
void RejectForInternalBarcodes(std::vector<ArrangementDetectResult>& results);

// Bases to cut for a result's front (rear) barcode: 0 unless that end scored
// at least its minimum; otherwise the barcode's extent from the read end plus
// num_extra_bases_trim. The trimmer clamps the value to the read.
int FrontTrimLength(const ArrangementDetectResult& result, const ScorerOptions& options);
int RearTrimLength(const ArrangementDetectResult& result, const ScorerOptions& options);

}  // namespace Barcoding
