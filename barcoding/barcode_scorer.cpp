// Per-read hot path. Each read end has one ReferenceAligner holding that end's
// references (front: barcode1 of the selected arrangements, rear: barcode2,
// each deduplicated in first-appearance order). A read costs:
//   1. one ScoreAll per window: scores of every reference, no traceback;
//   2. the arrangement combination, from scores alone;
//   3. one AlignSpan per reference whose details are reported (the leading
//      `detailed` results), to recover the found sequence and its position
//      (the span of the path, found without making the path).
// Scores and paths are exactly those of aligning every reference on its own,
// because ScoreAll and AlignSpan both reproduce FastAlign::Align.
//
// Detect scores are on the scale of score_scale.h: 100 = the reference
// aligned perfectly, 0 = no better than the closest other reference of the
// same end and kit on this read, or than random sequence. The scale's tables
// are built once per kit selection and settings and shared by every scorer.
//
// Passing an end means scoring at least that end's minimum, or, where no
// barcode does, for an arrangement with barcodes at both ends, two ends that
// agree adding up to it (kAgreeingEndFloor): the better end is then reported
// at its minimum. A read is mixed when its two ends name different barcodes
// (normalised ids): an end names the barcodes passing there or, where none
// passes, the one with evidence (score above 0, presence at least
// kMixedEvidencePresence); at least one end must pass. Both ends passing for
// different barcodes is the plain case; the evidence catches the chimeras
// whose weaker end is too damaged to pass: at identity 0.87 a 16-base
// barcode's margin over its closest rival is often below the minimum, while
// its presence stays above random sequence. Evidence needs the score above 0
// as well, because presence alone does not say which barcode it is: with
// constant flanks every barcode of the kit shares it. And the passing barcode
// must be clearly beaten at the evidence end (kMixedRivalMargin): where one
// barcode of a kit is damaged, the best fit there is often a close neighbour
// edging it out by a few points, which says nothing about a second molecule.
//
// The first result carries the evidence for its call (QualityInputs): per
// end, its barcode's score, presence and raw margins, and the best other
// barcode's score and presence (TopTwo, kept while the arrangements are
// combined).
//
// All per-read buffers live in the scorer and only grow; allocation per read
// is limited to the returned results.

#include "barcoding/barcode_scorer.h"

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "barcoding/barcode_quality.h"
#include "barcoding/base_codes.h"
#include "barcoding/reference_aligner.h"
#include "barcoding/score_scale.h"
#include "common/logger.h"

namespace Barcoding {

namespace {

constexpr float kNoScore = -std::numeric_limits<float>::infinity();
constexpr int kNoRaw = std::numeric_limits<int>::min();

// Two ends of one arrangement, neither at its minimum, that pass together
// (kAgreeingEndFloor): raises the better one to its minimum and says so.
bool RaiseAgreeingEnd(float& front, float& rear, float min_front, float min_rear) {
    if (front >= min_front || rear >= min_rear) return false;
    if (!(front >= kAgreeingEndFloor && rear >= kAgreeingEndFloor)) return false;
    const bool front_better = front >= rear;
    const float minimum = front_better ? min_front : min_rear;
    if (!(front + rear >= minimum)) return false;
    (front_better ? front : rear) = minimum;
    return true;
}

const Common::Logger& ScorerLog() {
    static const Common::Logger logger("barcode_scorer");
    return logger;
}

}  // namespace

struct BarcodeScorer::End {
    bool front = true;
    std::vector<std::string> names;
    std::vector<std::string> sequences;  // as in the barcode file
    std::unique_ptr<ReferenceAligner> aligner;
    std::shared_ptr<const ScoreScale> scale;
    ScoreScale::Work scale_work;

    // Current read.
    const std::string* read = nullptr;
    size_t window_start = 0;
    std::vector<int> window;  // codes
    std::vector<int> raw_scores;
    std::vector<float> scores;  // detect scores
    // The window's best-fitting reference and where it aligned (read
    // coordinates), found when an internal construct needs it.
    bool match_known = false;
    int match_begin = 0, match_end = 0;
    // The reference last aligned with its path on this window (-1 = none),
    // and the window bases [first, last] the path pairs with it.
    int traced = -1;
    int traced_first = -1, traced_last = -1;
};

BarcodeScorer::BarcodeScorer(const ScorerOptions& options, std::shared_ptr<BarcodeManager> manager,
                             const std::vector<int>& matrix, const std::string& device,
                             std::shared_ptr<const PairDesign> pairs)
    : options_(options), manager_(std::move(manager)), pairs_(std::move(pairs)), matrix_(matrix) {
    if (!manager_) throw std::runtime_error("BarcodeScorer needs a barcode manager");
    if (matrix_.size() != 16) throw std::runtime_error("BarcodeScorer needs a 4 x 4 mismatch matrix");
    if (pairs_) {
        MakePairArrangements();
        arrangements_ = &pair_arrangements_;
    } else {
        arrangements_ = &manager_->GetArrangements(options_.barcode_kits);
    }

    std::vector<std::string> front_names, rear_names;
    // Per reference: (kit, normalised id) of the arrangements that use it at that end.
    std::vector<Uses> front_uses, rear_uses;
    auto index_of = [this](std::vector<std::string>& names, std::vector<Uses>& uses, const std::string& name,
                           const Arrangement& a) {
        if (name.empty()) return -1;
        auto found = std::find(names.begin(), names.end(), name);
        if (found == names.end()) {
            found = names.insert(names.end(), name);
            uses.emplace_back();
        }
        auto& its_uses = uses[static_cast<size_t>(found - names.begin())];
        // Any pair barcode can be at either end of a read, whatever its kit:
        // at each end they all compete with each other.
        const std::pair<std::string, std::string> use{pairs_ ? std::string() : a.kit, a.normalised_id};
        if (std::find(its_uses.begin(), its_uses.end(), use) == its_uses.end()) its_uses.push_back(use);
        return static_cast<int>(found - names.begin());
    };
    std::vector<std::string> normalised, kits;
    for (const auto& a : *arrangements_) {
        auto kit = std::find(kits.begin(), kits.end(), a.kit);
        if (kit == kits.end()) kit = kits.insert(kits.end(), a.kit);
        kit_of_.push_back(static_cast<uint32_t>(kit - kits.begin()));
        front_of_.push_back(index_of(front_names, front_uses, a.barcode1, a));
        rear_of_.push_back(index_of(rear_names, rear_uses, a.barcode2, a));
        combine_.push_back(a.scoring_function == "ADD"   ? Combine::kAdd
                           : a.scoring_function == "MAX" ? Combine::kMax
                                                         : Combine::kUnknown);
        auto found = std::find(normalised.begin(), normalised.end(), a.normalised_id);
        if (found == normalised.end()) found = normalised.insert(normalised.end(), a.normalised_id);
        name_of_.push_back(static_cast<uint32_t>(found - normalised.begin()));
    }
    double diagonal = 0, off_diagonal = 0;
    for (size_t k = 0; k < 16; ++k)
        (k % 5 == 0 ? diagonal : off_diagonal) += matrix_[k];
    substitution_ = std::max(diagonal / 4 - off_diagonal / 12, 1.0);
    front_ = MakeEnd(front_names, front_uses, true, device);
    rear_ = MakeEnd(rear_names, rear_uses, false, device);
    if (options_.internal_mode != InternalBarcodes::kIgnore) MakeSearch(matrix_);
    candidates_.reserve(arrangements_->size());
    name_mark_.assign(normalised.size(), 0);
    kit_fit_.assign(kits.size(), kNoRaw);
}

BarcodeScorer::~BarcodeScorer() = default;

std::unique_ptr<BarcodeScorer::End> BarcodeScorer::MakeEnd(const std::vector<std::string>& names,
                                                           const std::vector<Uses>& uses, bool front,
                                                           const std::string& device) {
    auto end = std::make_unique<End>();
    end->front = front;
    end->names = names;
    std::vector<std::vector<int>> references;
    std::vector<ScaleReference> scale_references;
    for (size_t k = 0; k < names.size(); ++k) {
        const std::string& name = names[k];
        std::string sequence = pairs_ ? pair_sequences_.at(name) : manager_->GetBarcodeSequence(name);
        std::vector<int> codes;
        int self_score = 0;
        for (char c : sequence) {
            const int code = kBaseCodes[static_cast<unsigned char>(c)];
            if (code < 0)
                throw std::runtime_error("Barcode '" + name + "' contains the character '" + std::string(1, c) +
                                         "', which is not one of A, C, G, T or U.");
            codes.push_back(code);
            self_score += matrix_[4 * code + code];
        }
        if (self_score <= 0)
            throw std::runtime_error("Barcode '" + name +
                                     "' does not score above 0 against itself with this score matrix.");
        end->sequences.push_back(std::move(sequence));
        scale_references.push_back(ScaleReference{name, codes, uses[k]});
        references.push_back(std::move(codes));
    }
    if (!references.empty()) {
        const brim::data_wrappers::MatView<int> view(matrix_.data(), 4, 4);
        const int band_width = std::max({options_.front_window_size, options_.rear_window_size, 1});
        // The aligner first: built after the scale's tables, its reference
        // batch landed at heap addresses that made the per-read scoring 25 %
        // slower (same instructions, measured), so the order is kept.
        end->aligner = MakeReferenceAligner(device, view, options_.GapVector(), band_width, references);
        end->scale = ShareScoreScale(ScaleSettings{matrix_, options_.GapVector(), band_width,
                                                   front ? options_.front_window_size : options_.rear_window_size},
                                     scale_references);
    }
    return end;
}

// Cuts this end's window from the read into codes (start: its first base in
// the read). Returns the read offset of the first character that is not a
// base, or -1.
int BarcodeScorer::CutWindow(const End& end, const std::string& sequence, size_t& start,
                             std::vector<int>& codes) const {
    const int length = static_cast<int>(sequence.size());
    int begin = 0, count = 0;
    if (end.front) {
        count = std::min(std::max(options_.front_window_size, 0), length);
    } else {
        // 64-bit so that a negative window size cannot overflow; it yields an empty window.
        const int64_t first = static_cast<int64_t>(length) - options_.rear_window_size;
        begin = static_cast<int>(std::clamp<int64_t>(first, 0, length));
        count = length - begin;
    }
    start = static_cast<size_t>(begin);
    codes.resize(static_cast<size_t>(count));
    for (int k = 0; k < count; ++k) {
        const int code = kBaseCodes[static_cast<unsigned char>(sequence[static_cast<size_t>(begin + k)])];
        if (code < 0) return begin + k;
        codes[static_cast<size_t>(k)] = code;
    }
    return -1;
}

// Cuts this end's window from the read, converts it to codes and scores every
// reference against it.
void BarcodeScorer::AlignWindow(End& end, const std::string& sequence) {
    end.read = &sequence;
    end.match_known = false;
    end.traced = -1;
    const int bad = CutWindow(end, sequence, end.window_start, end.window);
    if (bad >= 0)
        throw std::runtime_error("Read sequence contains the character '" +
                                 std::string(1, sequence[static_cast<size_t>(bad)]) +
                                 "', which is not one of A, C, G, T or U.");
    end.scores.resize(end.names.size());
    if (end.names.empty()) return;
    end.aligner->ScoreAll(end.window, end.raw_scores);
    // A window without bases (an empty read) cannot be aligned, and the
    // aligner's impossible score would come out on the scale as minus
    // hundreds of millions: in the summary, and in every mean score of the
    // report that the read enters. It scores instead as the one path there
    // is, every reference base facing a gap at the window's start: the limit
    // of ever shorter windows, so an empty read scores just below a one-base
    // read.
    if (end.window.empty())
        for (size_t k = 0; k < end.raw_scores.size(); ++k)
            end.raw_scores[k] = -options_.start_gap2 * static_cast<int>(end.sequences[k].size());
    end.scale->Apply(end.raw_scores, end.scores, end.scale_work);
}

// The window bases [first, last] that the reference's path pairs with a
// reference base (-1, -1: none). The call's detail and the search for
// internal constructs both ask for the best reference's path: it is aligned
// once per window.
std::pair<int, int> BarcodeScorer::Trace(End& end, size_t reference) {
    if (end.traced == static_cast<int>(reference)) return {end.traced_first, end.traced_last};
    PairAlignment::PairedSpan span;
    end.aligner->AlignSpan(reference, end.window, span);
    end.traced = static_cast<int>(reference);
    end.traced_first = span.first;
    end.traced_last = span.last;
    return {span.first, span.last};
}

// Name, score and presence of one reference on the current window.
void BarcodeScorer::Summarise(const End& end, size_t reference, BarcodeDetectResult& result) {
    result.id = end.names[reference];
    result.score = end.scores[reference];
    result.presence = end.scale->Presence(reference, end.raw_scores[reference]);
}

// The same with the reference, found sequence and index.
// The found sequence runs from the first to the last read base the path pairs
// with a reference base.
void BarcodeScorer::Detail(End& end, size_t reference, BarcodeDetectResult& result) {
    Summarise(end, reference, result);
    result.reference_sequence = end.sequences[reference];
    const auto [first, last] = Trace(end, reference);
    if (first < 0) {
        result.found_sequence.clear();
        result.begin_index = 0;
        return;
    }
    result.found_sequence.assign(*end.read, end.window_start + static_cast<size_t>(first),
                                 static_cast<size_t>(last - first + 1));
    result.begin_index = end.front ? first : static_cast<int>(end.window.size()) - 1 - last;
}

void BarcodeScorer::TraceEnd(End& end) {
    const char* side = end.front ? "front" : "rear";
    {
        std::ostringstream text;
        text << "Aligning sequence '" << end.read->substr(end.window_start, end.window.size()) << "' to references";
        for (const auto& name : end.names)
            text << " " << name << ":" << side;
        ScorerLog().Write(Common::Severity::trace, text.str());
    }
    std::ostringstream text;
    text << "results after " << side << " alignment:";
    BarcodeDetectResult result;
    for (size_t k = 0; k < end.names.size(); ++k) {
        Detail(end, k, result);
        text << "\n" << ToString(result);
    }
    ScorerLog().Write(Common::Severity::trace, text.str());
}

std::vector<BarcodeDetectResult> BarcodeScorer::InspectEnd(End& end, const std::string& sequence,
                                                           const std::string& kits) {
    if (kits != options_.barcode_kits)
        throw std::runtime_error("This barcode scorer was built for the kits \"" + options_.barcode_kits +
                                 "\" and cannot inspect the kits \"" + kits + "\"");
    const bool trace = ScorerLog().Enabled(Common::Severity::trace);
    if (trace)
        ScorerLog().Write(Common::Severity::trace, end.front ? "Entering BarcodeDetector::InspectFront()"
                                                             : "Entering BarcodeDetector::InspectRear()");
    AlignWindow(end, sequence);
    if (trace) TraceEnd(end);
    std::vector<BarcodeDetectResult> results(end.names.size());
    for (size_t k = 0; k < end.names.size(); ++k)
        Detail(end, k, results[k]);
    return results;
}

std::vector<BarcodeDetectResult> BarcodeScorer::InspectFront(const std::string& sequence, const std::string& kits) {
    return InspectEnd(*front_, sequence, kits);
}

std::vector<BarcodeDetectResult> BarcodeScorer::InspectRear(const std::string& sequence, const std::string& kits) {
    return InspectEnd(*rear_, sequence, kits);
}

void BarcodeScorer::Prepare(const std::vector<const std::string*>& sequences) {
    for (End* end : {front_.get(), rear_.get()}) {
        if (end->names.empty() || !end->aligner->Batches()) continue;
        std::vector<std::vector<int>> windows(sequences.size());
        size_t kept = 0, start = 0;
        for (const std::string* sequence : sequences)
            if (CutWindow(*end, *sequence, start, windows[kept]) < 0) ++kept;  // a bad read fails when scored
        windows.resize(kept);
        end->aligner->Prepare(std::move(windows));
    }
}

void BarcodeScorer::TopTwo::Clear() {
    name[0] = name[1] = std::numeric_limits<uint32_t>::max();
    arrangement[0] = arrangement[1] = 0;
    score[0] = score[1] = kNoScore;
}

// Keeps the two best distinct names; a name's score is that of its best
// arrangement. Called for every reference of a read: most score below both
// kept and leave at the first test. Inline, before its callers, so that the
// compiler puts it in their loops.
inline void BarcodeScorer::TopTwo::Add(uint32_t id, uint32_t a, float value) {
    if (value <= score[1] && id != name[0]) return;
    if (id == name[0]) {
        if (value > score[0]) {
            arrangement[0] = a;
            score[0] = value;
        }
    } else if (value > score[0]) {
        name[1] = name[0];
        arrangement[1] = arrangement[0];
        score[1] = score[0];
        name[0] = id;
        arrangement[0] = a;
        score[0] = value;
    } else if (value > score[1]) {
        name[1] = id;
        arrangement[1] = a;
        score[1] = value;
    }
}

std::vector<ArrangementDetectResult> BarcodeScorer::Score(const std::string& sequence, size_t detailed) {
    const bool trace = ScorerLog().Enabled(Common::Severity::trace);
    if (trace) ScorerLog().Write(Common::Severity::trace, "Entering BarcodeDetector::InspectFront()");
    AlignWindow(*front_, sequence);
    if (trace) TraceEnd(*front_);
    if (trace) ScorerLog().Write(Common::Severity::trace, "Entering BarcodeDetector::InspectRear()");
    AlignWindow(*rear_, sequence);
    if (trace) TraceEnd(*rear_);
    if (pairs_) return ScorePair(detailed);

    const float min_front = options_.min_score;
    const float min_rear = options_.min_score_rear_override;
    const size_t count = arrangements_->size();
    auto front_score = [&](size_t a) { return front_of_[a] < 0 ? kNoScore : front_->scores[front_of_[a]]; };
    auto rear_score = [&](size_t a) { return rear_of_[a] < 0 ? kNoScore : rear_->scores[rear_of_[a]]; };

    candidates_.clear();
    front_top_.Clear();
    rear_top_.Clear();
    std::fill(kit_fit_.begin(), kit_fit_.end(), kNoRaw);
    front_passing_.clear();
    rear_passing_.clear();
    front_evidence_.clear();
    rear_evidence_.clear();
    size_t best = 0;
    float best_score = kNoScore;
    agreed_ = false;
    for (size_t a = 0; a < count; ++a) {
        const float front = front_score(a);
        const float rear = rear_score(a);
        float combined;
        if (front_of_[a] < 0) {
            combined = rear;
        } else if (rear_of_[a] < 0) {
            combined = front;
        } else if (combine_[a] == Combine::kAdd) {
            combined = front + rear;
        } else if (combine_[a] == Combine::kMax) {
            combined = std::max(front, rear);
        } else {
            throw std::runtime_error("Scoring function can only have values ADD or MAX");
        }
        if (a == 0 || combined > best_score) {
            best = a;
            best_score = combined;
        }
        if (front_of_[a] >= 0) front_top_.Add(name_of_[a], static_cast<uint32_t>(a), front);
        if (rear_of_[a] >= 0) rear_top_.Add(name_of_[a], static_cast<uint32_t>(a), rear);
        const bool front_ok = front >= min_front;
        const bool rear_ok = rear >= min_rear;
        if (front_ok)
            front_passing_.push_back(static_cast<uint32_t>(a));
        else if (IsEvidence(*front_, front_of_[a], front))
            front_evidence_.push_back(name_of_[a]);
        if (rear_ok)
            rear_passing_.push_back(static_cast<uint32_t>(a));
        else if (IsEvidence(*rear_, rear_of_[a], rear))
            rear_evidence_.push_back(name_of_[a]);
        const bool keep = options_.require_barcodes_both_ends ? front_ok && rear_ok : front_ok || rear_ok;
        if (!keep) continue;
        const int fit = std::max(front_of_[a] < 0 ? kNoRaw : front_->raw_scores[front_of_[a]],
                                 rear_of_[a] < 0 ? kNoRaw : rear_->raw_scores[rear_of_[a]]);
        candidates_.push_back(Candidate{static_cast<uint32_t>(a), combined});
        kit_fit_[kit_of_[a]] = std::max(kit_fit_[kit_of_[a]], fit);
    }
    // Only where no barcode passes on its own, so that agreement never
    // changes a call the ends make alone (and costs a read that passes one
    // test). With both ends required it cannot help: the weaker end stays.
    if (candidates_.empty() && !options_.require_barcodes_both_ends) {
        for (size_t a = 0; a < count; ++a) {
            float front = front_score(a), rear = rear_score(a);
            if (!RaiseAgreeingEnd(front, rear, min_front, min_rear)) continue;
            agreed_ = true;
            // Both ends are there, and the scoring function was checked above.
            const float combined = combine_[a] == Combine::kAdd ? front + rear : std::max(front, rear);
            if (combined > best_score || (combined == best_score && a < best)) {
                best = a;
                best_score = combined;
            }
            (front >= min_front ? front_passing_ : rear_passing_).push_back(static_cast<uint32_t>(a));
            candidates_.push_back(Candidate{static_cast<uint32_t>(a), combined});
            const int fit = std::max(front_->raw_scores[front_of_[a]], rear_->raw_scores[rear_of_[a]]);
            kit_fit_[kit_of_[a]] = std::max(kit_fit_[kit_of_[a]], fit);
        }
    }
    const bool mixed = IsMixed();

    auto make_result = [&](size_t a, float combined, bool with_detail) {
        const Arrangement& arrangement = (*arrangements_)[a];
        ArrangementDetectResult result;
        result.id = arrangement.id;
        result.normalised_id = arrangement.normalised_id;
        result.kit = arrangement.kit;
        result.variant = arrangement.variant;
        result.score = combined;
        for (End* end : {front_.get(), rear_.get()}) {
            const int reference = end->front ? front_of_[a] : rear_of_[a];
            if (reference < 0) continue;
            BarcodeDetectResult& detect = end->front ? result.front : result.rear;
            if (with_detail)
                Detail(*end, static_cast<size_t>(reference), detect);
            else
                Summarise(*end, static_cast<size_t>(reference), detect);
        }
        if (agreed_) RaiseAgreeingEnd(result.front.score, result.rear.score, min_front, min_rear);
        return result;
    };

    UnclassifiedReason reason = UnclassifiedReason::kNone;
    if (mixed && options_.reject_mixed_barcodes) {
        reason = UnclassifiedReason::kMixedBarcodes;
    } else if (candidates_.empty()) {
        const bool some_end = !front_passing_.empty() || !rear_passing_.empty();
        reason = options_.require_barcodes_both_ends && some_end ? UnclassifiedReason::kOneEndOnly
                                                                 : UnclassifiedReason::kNoBarcodeAboveMinimum;
    }

    std::vector<ArrangementDetectResult> results;
    if (reason != UnclassifiedReason::kNone) {
        ArrangementDetectResult unclassified;
        if (count > 0) unclassified = make_result(best, best_score, detailed > 0);
        unclassified.normalised_id = "unclassified";
        unclassified.reason = reason;
        unclassified.mixed = mixed;
        if (count > 0) {
            FillEvidence(*front_, front_top_, best, unclassified.inputs.front);
            FillEvidence(*rear_, rear_top_, best, unclassified.inputs.rear);
            if (agreed_)
                RaiseAgreeingEnd(unclassified.inputs.front.score, unclassified.inputs.rear.score, min_front, min_rear);
            unclassified.candidate_quality =
                PhredQuality(WrongCallProbability(ShippedQualityModel(), unclassified.inputs));
        }
        results.push_back(std::move(unclassified));
        return results;
    }
    // Kits first, by how well their references fit the read in raw points,
    // then arrangements by score. The scale compares a barcode with its own
    // kit only, so two kits sharing barcode cores (behind different flanks)
    // both pass on one read; the kit whose whole reference matches is the one
    // on the read.
    std::stable_sort(candidates_.begin(), candidates_.end(), [this](const Candidate& x, const Candidate& y) {
        const int x_kit = kit_fit_[kit_of_[x.arrangement]], y_kit = kit_fit_[kit_of_[y.arrangement]];
        if (x_kit != y_kit) return x_kit > y_kit;
        return x.score > y.score;
    });
    results.reserve(candidates_.size());
    for (size_t r = 0; r < candidates_.size(); ++r)
        results.push_back(make_result(candidates_[r].arrangement, candidates_[r].score, r < detailed));
    ArrangementDetectResult& call = results.front();
    call.mixed = mixed;
    FillEvidence(*front_, front_top_, candidates_.front().arrangement, call.inputs.front);
    FillEvidence(*rear_, rear_top_, candidates_.front().arrangement, call.inputs.rear);
    // The evidence carries the scores as reported.
    if (agreed_) RaiseAgreeingEnd(call.inputs.front.score, call.inputs.rear.score, min_front, min_rear);
    call.error_probability = WrongCallProbability(ShippedQualityModel(), call.inputs);
    call.quality = PhredQuality(call.error_probability);
    call.candidate_quality = call.quality;
    if (call.quality < options_.min_barcode_quality) {
        results.resize(1);
        call.normalised_id = "unclassified";
        call.reason = UnclassifiedReason::kLowBarcodeQuality;
        call.error_probability = 1;
        call.quality = 0;
    }
    return results;
}

// The evidence at one end for calling `arrangement`.
void BarcodeScorer::FillEvidence(const End& end, const TopTwo& top, size_t arrangement, EndEvidence& evidence) const {
    const int reference = end.front ? front_of_[arrangement] : rear_of_[arrangement];
    evidence = EndEvidence{};
    evidence.window = static_cast<int>(end.window.size());
    if (reference < 0) return;
    const auto k = static_cast<size_t>(reference);
    const int raw = end.raw_scores[k];
    const int rival = end.scale->Rival(k, end.scale_work);
    evidence.barcode = true;
    evidence.score = end.scores[k];
    evidence.presence = end.scale->Presence(k, raw);
    evidence.over_rival = rival == kNoRaw ? 0.0f : static_cast<float>(static_cast<double>(raw - rival) / substitution_);
    evidence.over_random = static_cast<float>((raw - end.scale->RandomTop(k)) / substitution_);
    const int other = top.name[0] == name_of_[arrangement] ? 1 : 0;
    if (top.name[other] == std::numeric_limits<uint32_t>::max()) return;
    const uint32_t runner_up = top.arrangement[other];
    const auto j = static_cast<size_t>(end.front ? front_of_[runner_up] : rear_of_[runner_up]);
    evidence.runner_up_score = top.score[other];
    evidence.runner_up_presence = end.scale->Presence(j, end.raw_scores[j]);
}

// The references of both ends, each sequence once, and the reverse complement
// of each where the ends lack it (a front-only kit's barcode read backwards
// ends a molecule). A reference's role comes from where the arrangements put
// it: an arrangement's front barcode starts a molecule, its rear barcode ends
// one, and a reverse complement has the opposite role. The swapped variants
// (var2) decide only for sequences no other arrangement places, so that a
// double-barcoded kit's forward barcode starts a molecule.
void BarcodeScorer::MakeSearch(const std::vector<int>& matrix) {
    std::vector<SearchReference> references;
    std::map<std::vector<int>, size_t> index_of;
    std::vector<int> role;  // per reference: 1 starts, 0 ends, -1 not placed yet
    auto add = [&](const std::string& name, std::vector<int> codes, std::shared_ptr<const ScoreScale> scale, size_t k) {
        const auto [slot, added] = index_of.emplace(codes, references.size());
        if (!added) return slot->second;
        references.push_back(SearchReference{name, std::move(codes), true, std::move(scale), k});
        role.push_back(-1);
        return slot->second;
    };
    for (const End* end : {front_.get(), rear_.get()})
        for (size_t k = 0; k < end->names.size(); ++k) {
            std::vector<int> codes;
            for (char c : end->sequences[k])
                codes.push_back(kBaseCodes[static_cast<unsigned char>(c)]);
            add(end->names[k], std::move(codes), end->scale, k);
        }
    auto codes_of = [&](const End& end, int k) {
        std::vector<int> codes;
        for (char c : end.sequences[static_cast<size_t>(k)])
            codes.push_back(kBaseCodes[static_cast<unsigned char>(c)]);
        return codes;
    };
    for (bool swapped : {false, true})
        for (size_t a = 0; a < arrangements_->size(); ++a) {
            if (((*arrangements_)[a].variant == "var2") != swapped) continue;
            if (front_of_[a] >= 0) {
                int& r = role[index_of[codes_of(*front_, front_of_[a])]];
                if (r < 0) r = 1;
            }
            if (rear_of_[a] >= 0) {
                int& r = role[index_of[codes_of(*rear_, rear_of_[a])]];
                if (r < 0) r = 0;
            }
        }
    const size_t forward = references.size();
    for (size_t k = 0; k < forward; ++k) {
        std::vector<int> reverse(references[k].codes.rbegin(), references[k].codes.rend());
        for (int& c : reverse)
            c = 3 - c;
        const size_t r = add(references[k].name + " reverse complement", std::move(reverse), references[k].scale,
                             references[k].index);
        if (role[r] < 0) role[r] = role[k] == 1 ? 0 : 1;
    }
    for (size_t k = 0; k < references.size(); ++k)
        references[k].starts_molecule = role[k] != 0;
    search_ = std::make_unique<ConstructSearch>(std::move(references), matrix, options_.GapVector());
}

// The read stretch [begin, end) that the end's best-fitting reference aligned
// to; empty for an end without a window or references.
std::pair<int, int> BarcodeScorer::EndMatch(End& end) {
    if (end.names.empty() || end.window.empty()) return {0, 0};
    if (!end.match_known) {
        const int window_begin = static_cast<int>(end.window_start);
        const int window_end = window_begin + static_cast<int>(end.window.size());
        const auto best = std::max_element(end.raw_scores.begin(), end.raw_scores.end()) - end.raw_scores.begin();
        const auto [first, last] = Trace(end, static_cast<size_t>(best));
        end.match_begin = first < 0 ? window_end : window_begin + first;
        end.match_end = first < 0 ? window_end : window_begin + last + 1;
        end.match_known = true;
    }
    return {end.match_begin, end.match_end};
}

const std::vector<FoundConstruct>& BarcodeScorer::InternalConstructs(const std::string& sequence) {
    if (!search_) throw std::runtime_error("This barcode scorer was built without the search for internal barcodes");
    if (front_->read != &sequence ||
        front_->window.size() != std::min<size_t>(sequence.size(), std::max(options_.front_window_size, 0)))
        throw std::logic_error("InternalConstructs needs the read last given to Score");
    ReadCodes(sequence, read_codes_);
    // A construct overlapping an end's match is that end's barcode, not an
    // internal one. The search skips both matches: every read holds them,
    // and with a flanked kit each would bring every barcode behind those
    // flanks to the edit bound and the aligner. Not where no barcode passes
    // at that end: the match is then often a construct cut by the window's
    // edge, which the search must see whole (see below).
    const std::pair<int, int> failed[] = {FailedWindow(*front_, options_.min_score),
                                          FailedWindow(*rear_, options_.min_score_rear_override)};
    std::array<std::pair<int, int>, 2> matches = {EndMatch(*front_), EndMatch(*rear_)};
    for (size_t e = 0; e < 2; ++e)
        if (failed[e].second > failed[e].first) matches[e] = {0, 0};
    if (matches[0].first > matches[1].first) std::swap(matches[0], matches[1]);
    within_.clear();
    int from = 0;
    for (const auto& [begin, end] : matches) {
        if (end <= begin) continue;
        if (begin > from) within_.emplace_back(from, begin);
        from = std::max(from, end);
    }
    if (static_cast<int>(sequence.size()) > from) within_.emplace_back(from, static_cast<int>(sequence.size()));
    search_->Find(read_codes_, within_, internal_);
    if (internal_.empty()) return internal_;
    // A construct in the window of an end where no barcode passes is most
    // likely that end's own, set off by the window's edge: behind a long
    // leftover adapter it reaches past the window, the end's alignment cannot
    // place it whole, and the search meets it outside the end's match. A read
    // whose constructs all lie there holds one molecule: counted as inside,
    // they would reject or cut it. A read with a construct inside keeps them
    // as cuts, so that its end molecule starts (or ends) at its construct,
    // which trimming then removes.
    const auto at_failed_end = [&](const FoundConstruct& construct) {
        return std::any_of(std::begin(failed), std::end(failed), [&](const std::pair<int, int>& window) {
            return construct.begin < window.second && construct.end > window.first;
        });
    };
    if (std::all_of(internal_.begin(), internal_.end(), at_failed_end)) internal_.clear();
    return internal_;
}

// The read stretch of the end's window when no barcode passes there; empty
// otherwise, and for an end without a window or references.
std::pair<int, int> BarcodeScorer::FailedWindow(const End& end, float min_score) const {
    if (end.names.empty() || end.window.empty()) return {0, 0};
    if (std::any_of(end.scores.begin(), end.scores.end(), [&](float score) { return score >= min_score; }))
        return {0, 0};
    const int begin = static_cast<int>(end.window_start);
    return {begin, begin + static_cast<int>(end.window.size())};
}

const std::string& BarcodeScorer::ConstructName(const FoundConstruct& construct) const {
    return search_->References().at(construct.reference).name;
}

void RejectForInternalBarcodes(std::vector<ArrangementDetectResult>& results) {
    if (results.empty()) results.emplace_back();
    results.resize(1);
    results.front().normalised_id = "unclassified";
    results.front().reason = UnclassifiedReason::kInternalBarcode;
    results.front().quality = 0;
}

// Every pair barcode, once at each end: arrangement 2k holds barcode k's
// start reference, 2k + 1 its end reference, so that the ends, the scale and
// the detail work as for a kit's arrangements.
void BarcodeScorer::MakePairArrangements() {
    for (const auto& barcode : pairs_->Barcodes()) {
        Arrangement a;
        a.id = barcode.name;
        a.normalised_id = barcode.name;
        a.kit = barcode.kit;
        a.scoring_function = "MAX";
        a.variant = "n/a";
        Arrangement start = a, end = a;
        start.barcode1 = barcode.start_reference;
        end.barcode2 = barcode.end_reference;
        pair_arrangements_.push_back(std::move(start));
        pair_arrangements_.push_back(std::move(end));
        pair_sequences_[barcode.start_reference] = barcode.start_sequence;
        pair_sequences_[barcode.end_reference] = barcode.end_sequence;
    }
}

// The best barcode at each end (the first of equals), then the pair table.
// Both ends must pass: the pair names the sample, and either end alone could
// belong to many.
std::vector<ArrangementDetectResult> BarcodeScorer::ScorePair(size_t detailed) {
    const auto& barcodes = pairs_->Barcodes();
    uint32_t start = 0, end = 0;
    float start_score = kNoScore, end_score = kNoScore;
    front_top_.Clear();
    rear_top_.Clear();
    for (uint32_t k = 0; k < barcodes.size(); ++k) {
        const float at_start = front_->scores[static_cast<size_t>(front_of_[2 * k])];
        const float at_end = rear_->scores[static_cast<size_t>(rear_of_[2 * k + 1])];
        front_top_.Add(name_of_[2 * k], 2 * k, at_start);
        rear_top_.Add(name_of_[2 * k + 1], 2 * k + 1, at_end);
        if (k == 0 || at_start > start_score) {
            start = k;
            start_score = at_start;
        }
        if (k == 0 || at_end > end_score) {
            end = k;
            end_score = at_end;
        }
    }
    std::vector<ArrangementDetectResult> results(1);
    ArrangementDetectResult& result = results.front();
    if (barcodes.empty()) {
        result.normalised_id = "unclassified";
        result.reason = UnclassifiedReason::kNoBarcodeAboveMinimum;
        return results;
    }
    const PairCall call = pairs_->Find(start, end);
    result.id = call.listed >= 0 ? pairs_->ListedName(static_cast<size_t>(call.listed))
                                 : PairName(barcodes[call.front].name, barcodes[call.rear].name);
    result.normalised_id = result.id;
    result.listed_pair = call.listed;
    result.kit = barcodes[call.front].kit;
    result.variant = call.reverse ? "rev" : "fwd";
    result.score = std::min(start_score, end_score);
    const auto start_reference = static_cast<size_t>(front_of_[2 * start]);
    const auto end_reference = static_cast<size_t>(rear_of_[2 * end + 1]);
    if (detailed > 0) {
        Detail(*front_, start_reference, result.front);
        Detail(*rear_, end_reference, result.rear);
    } else {
        Summarise(*front_, start_reference, result.front);
        Summarise(*rear_, end_reference, result.rear);
    }
    const bool start_ok = start_score >= options_.min_score;
    const bool end_ok = end_score >= options_.min_score_rear_override;
    // An end below the minimum but above kPairEndSeenShare of it still shows
    // which barcode it carries: too weakly to name a sample, enough to tell a
    // read of a pair the sheet lacks from a read with one barcode.
    const bool start_seen = start_ok || start_score >= kPairEndSeenShare * options_.min_score;
    const bool end_seen = end_ok || end_score >= kPairEndSeenShare * options_.min_score_rear_override;
    if (!start_ok && !end_ok) {
        result.reason = UnclassifiedReason::kNoBarcodeAboveMinimum;
    } else if (call.listed < 0 && start_seen && end_seen) {
        result.reason = UnclassifiedReason::kPairNotInSheet;
    } else if (!start_ok || !end_ok) {
        result.reason = UnclassifiedReason::kOneEndOnly;
    }
    // The quality of the call each end makes, as for a kit's arrangement with
    // a barcode at both ends; every other barcode of the design is a rival.
    FillEvidence(*front_, front_top_, 2 * start, result.inputs.front);
    FillEvidence(*rear_, rear_top_, 2 * end + 1, result.inputs.rear);
    result.error_probability = WrongCallProbability(ShippedQualityModel(), result.inputs);
    result.quality = PhredQuality(result.error_probability);
    result.candidate_quality = result.quality;
    if (result.reason == UnclassifiedReason::kNone && result.quality < options_.min_barcode_quality)
        result.reason = UnclassifiedReason::kLowBarcodeQuality;
    if (result.reason != UnclassifiedReason::kNone) {
        result.normalised_id = "unclassified";
        result.error_probability = 1;
        result.quality = 0;
    }
    return results;
}

// Scores above 0 are rare (at most one barcode per kit and end), so presence
// is worked out for those only.
bool BarcodeScorer::IsEvidence(const End& end, int reference, float score) {
    if (reference < 0 || !(score > 0)) return false;
    const auto k = static_cast<size_t>(reference);
    return end.scale->Presence(k, end.raw_scores[k]) >= kMixedEvidencePresence;
}

// Both ends passing: mixed when no barcode passes at both. One end passing:
// mixed when the other end has evidence of a barcode the passing end does not
// name, and every arrangement passing at the passing end scores at most
// -kMixedRivalMargin at the other (its barcode is clearly beaten there, not
// merely damaged). Names are marked with this read's stamp, then looked up.
bool BarcodeScorer::IsMixed() {
    if (front_passing_.empty() && rear_passing_.empty()) return false;
    const bool both = !front_passing_.empty() && !rear_passing_.empty();
    const bool front_passes = !front_passing_.empty();
    const auto& passing = front_passes ? front_passing_ : rear_passing_;
    if (++stamp_ == 0) {  // wrapped: clear the old marks once
        std::fill(name_mark_.begin(), name_mark_.end(), 0);
        stamp_ = 1;
    }
    for (uint32_t a : passing)
        name_mark_[name_of_[a]] = stamp_;
    if (both) {
        for (uint32_t a : rear_passing_)
            if (name_mark_[name_of_[a]] == stamp_) return false;
        return true;
    }
    const auto& evidence = front_passes ? rear_evidence_ : front_evidence_;
    if (evidence.empty()) return false;
    for (uint32_t name : evidence)
        if (name_mark_[name] == stamp_) return false;
    const End& other = front_passes ? *rear_ : *front_;
    const auto& other_of = front_passes ? rear_of_ : front_of_;
    for (uint32_t a : passing)
        if (other_of[a] < 0 || other.scores[static_cast<size_t>(other_of[a])] > -kMixedRivalMargin) return false;
    return true;
}

int FrontTrimLength(const ArrangementDetectResult& result, const ScorerOptions& options) {
    if (result.front.id.empty() || !(result.front.score >= options.min_score)) return 0;
    return result.front.begin_index + static_cast<int>(result.front.found_sequence.size()) +
           options.num_extra_bases_trim;
}

int RearTrimLength(const ArrangementDetectResult& result, const ScorerOptions& options) {
    if (result.rear.id.empty() || !(result.rear.score >= options.min_score_rear_override)) return 0;
    return result.rear.begin_index + static_cast<int>(result.rear.found_sequence.size()) + options.num_extra_bases_trim;
}

}  // namespace Barcoding
