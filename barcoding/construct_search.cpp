// Why three stages. Aligning every reference along a whole read costs the
// number of references times the read's length times the reference's length:
// hundreds of times the two end windows. The seed scan costs a table lookup
// per read base and finds nearly every copy that the presence bar accepts
// (docs/internal_barcodes.md measures how nearly); but on random sequence it
// also proposes spots, dozens per 10 kb with the larger kits. The edit count
// throws out nearly all of those at a few operations per window base, and it
// is exact in one direction: an alignment of raw score s holds at most
// (self - s) / MinEditCost edits, so a spot whose best stretch needs more
// edits than the bar's raw score allows cannot reach the bar, and nothing the
// aligner would accept is lost there. Only the spots left are aligned.
//
// The presence of a reference at a spot is that of its end's scale, measured
// on windows of the end's size. The bar (kInternalPresence) accounts for the
// many stretches of a long read; the window of the alignment does not change
// the scale.

#include "barcoding/construct_search.h"

#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>

#include "barcoding/base_codes.h"
#include "barcoding/reference_aligner.h"
#include "barcoding/score_scale.h"
#include "common/data_wrappers.h"
#include "pair_alignment/score_limits.h"

namespace Barcoding {

namespace {

std::vector<std::vector<int>> CodesOf(const std::vector<SearchReference>& references) {
    std::vector<std::vector<int>> codes;
    for (const auto& reference : references)
        codes.push_back(reference.codes);
    return codes;
}

// The longest stretch one spot can span, which the aligner's band must cover
// so that each spot is aligned in full.
int LongestSpot(const std::vector<SearchReference>& references) {
    size_t longest = 1;
    for (const auto& reference : references)
        longest = std::max(longest, reference.codes.size());
    return static_cast<int>(3 * longest + 16);
}

// 0xFF when c == v, else 0: one byte comparison once vectorised.
unsigned char Equals(unsigned char c, unsigned char v) {
    return static_cast<unsigned char>(-static_cast<int>(c == v));
}

}  // namespace

void ReadCodes(const std::string& sequence, std::vector<uint8_t>& codes) {
    codes.resize(sequence.size());
    // Every read base goes through here, so one pass without branches or
    // table lookups: A, C, G, T/U (either case) give ((c >> 1) ^ (c >> 2)) & 3
    // = 0, 1, 2, 3, and any other character clears a bit of `good`. Clearing
    // bit 5 folds the lower case onto the upper, clearing bit 0 too folds U
    // onto T: four byte comparisons per base.
    const auto* in = reinterpret_cast<const unsigned char*>(sequence.data());
    uint8_t* out = codes.data();
    const size_t length = sequence.size();  // a local, or the loop would not vectorise
    unsigned char good = 0xFF;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = in[i], upper = c & 0xDF;
        good &= static_cast<unsigned char>(Equals(upper, 'A') | Equals(upper, 'C') | Equals(upper, 'G') |
                                           Equals(c & 0xDE, 'T'));
        out[i] = static_cast<uint8_t>(((c >> 1) ^ (c >> 2)) & 3);
    }
    if (good == 0xFF) return;
    for (const char c : sequence)
        if (kBaseCodes[static_cast<unsigned char>(c)] < 0)
            throw std::runtime_error("Read sequence contains the character '" + std::string(1, c) +
                                     "', which is not one of A, C, G, T or U.");
}

ConstructSearch::ConstructSearch(std::vector<SearchReference> references, const std::vector<int>& matrix,
                                 const std::vector<int>& gaps, float min_presence)
    : references_(std::move(references)), min_presence_(min_presence), scan_(CodesOf(references_)) {
    if (matrix.size() != 16) throw std::runtime_error("ConstructSearch needs a 4 x 4 mismatch matrix");
    const int edit_cost = PairAlignment::MinEditCost(matrix, gaps);
    for (const auto& reference : references_) {
        if (reference.codes.empty() || !reference.scale)
            throw std::runtime_error("ConstructSearch: reference '" + reference.name + "' is empty or has no scale");
        edits_.emplace_back(reference.codes);
        int self = 0;
        for (int c : reference.codes)
            self += matrix[static_cast<size_t>(5 * c)];
        // The least raw score at the bar: presence rises with the raw score.
        int low = -PairAlignment::kMaxScoreMagnitude * static_cast<int>(3 * reference.codes.size() + 2), high = self;
        if (!(reference.scale->Presence(reference.index, high) >= min_presence_)) {
            min_raw_.push_back(std::numeric_limits<int>::max());  // never reaches the bar
            max_edits_.push_back(0);
            continue;
        }
        while (low < high) {
            const int middle = low + (high - low) / 2;
            if (reference.scale->Presence(reference.index, middle) >= min_presence_)
                high = middle;
            else
                low = middle + 1;
        }
        min_raw_.push_back(high);
        max_edits_.push_back(edit_cost > 0 ? (self - high) / edit_cost : -1);
    }
    const brim::data_wrappers::MatView<int> view(const_cast<int*>(matrix.data()), 4, 4);
    aligner_ = MakeCpuReferenceAligner(view, gaps, LongestSpot(references_), CodesOf(references_));
}

ConstructSearch::~ConstructSearch() = default;

void ConstructSearch::Find(const std::vector<uint8_t>& read, std::vector<FoundConstruct>& found) {
    Find(read, {{0, static_cast<int>(read.size())}}, found);
}

void ConstructSearch::Find(const std::vector<uint8_t>& read, const std::vector<std::pair<int, int>>& within,
                           std::vector<FoundConstruct>& found) {
    found.clear();
    candidates_.clear();
    aligned_.clear();
    bounds_.clear();
    for (const auto& [begin, end] : within) {
        if (begin < 0 || end > static_cast<int>(read.size()) || end < begin)
            throw std::logic_error("ConstructSearch: stretch outside the read");
        scan_.Find(read.data() + begin, static_cast<size_t>(end - begin), spots_, scan_work_);
        for (const auto& spot : spots_)
            for (uint32_t reference : scan_.Members(spot.target))
                if (min_raw_[reference] != std::numeric_limits<int>::max() && spot.end > spot.begin)
                    bounds_.push_back({reference, begin + spot.begin, begin + spot.end, 0, 0});
    }
    // The edit counts of two stretches at a time (see EndsOfTwo), then the
    // stretches in their order, as if each had been counted and aligned in
    // turn.
    ends_.clear();
    Bounded* waiting = nullptr;
    for (auto& job : bounds_) {
        if (max_edits_[job.reference] < 0) continue;
        if (waiting == nullptr) {
            waiting = &job;
            continue;
        }
        Bounded& first = *waiting;
        const int most_first = max_edits_[first.reference], most = max_edits_[job.reference];
        PairAlignment::PatternEdits::EndsOfTwo(edits_[first.reference], read.data() + first.begin,
                                               static_cast<size_t>(first.end - first.begin), most_first, ends_first_,
                                               edits_[job.reference], read.data() + job.begin,
                                               static_cast<size_t>(job.end - job.begin), most, ends_second_);
        Keep(first, ends_first_);
        Keep(job, ends_second_);
        waiting = nullptr;
    }
    if (waiting != nullptr) {
        Bounded& last = *waiting;
        edits_[last.reference].Ends(read.data() + last.begin, static_cast<size_t>(last.end - last.begin),
                                    max_edits_[last.reference], ends_first_);
        Keep(last, ends_first_);
    }
    for (const auto& job : bounds_)
        Bound(job, read);
    // Best first; a construct overlapping a better one by more than half the
    // shorter of the two is the same construct.
    std::sort(candidates_.begin(), candidates_.end(), [](const FoundConstruct& x, const FoundConstruct& y) {
        if (x.presence != y.presence) return x.presence > y.presence;
        if (x.begin != y.begin) return x.begin < y.begin;
        return x.reference < y.reference;
    });
    for (const auto& candidate : candidates_) {
        const bool taken = std::any_of(found.begin(), found.end(), [&](const FoundConstruct& kept) {
            const int overlap = std::min(kept.end, candidate.end) - std::max(kept.begin, candidate.begin);
            const int shorter = std::min(kept.end - kept.begin, candidate.end - candidate.begin);
            return 2 * overlap > shorter;
        });
        if (!taken) found.push_back(candidate);
    }
    std::sort(found.begin(), found.end(),
              [](const FoundConstruct& x, const FoundConstruct& y) { return x.begin < y.begin; });
}

void ConstructSearch::Keep(Bounded& job, const std::vector<int>& ends) {
    job.first_end = ends_.size();
    job.ends = ends.size();
    ends_.insert(ends_.end(), ends.begin(), ends.end());
}

// An alignment that reaches the bar holds at most MaxEdits edits, so it ends
// at a base where the edit count allows that, and starts at most the
// reference's length plus MaxEdits bases before. Only the stretches around
// such ends are aligned; everything else in the spot cannot reach the bar.
void ConstructSearch::Bound(const Bounded& job, const std::vector<uint8_t>& read) {
    const uint32_t reference = job.reference;
    const int begin = job.begin, end = job.end;
    const int most = max_edits_[reference];
    if (most < 0) {
        Align(reference, read, begin, end);
        return;
    }
    const int reach = static_cast<int>(references_[reference].codes.size()) + most;
    int from = -1, to = -1;  // the stretch gathered so far
    for (size_t e = job.first_end; e < job.first_end + job.ends; ++e) {
        const int j = ends_[e];
        const int first = std::max(begin, begin + j + 1 - reach), last = begin + j + 1;
        if (from >= 0 && first <= to) {
            to = last;
            continue;
        }
        if (from >= 0) Align(reference, read, from, to);
        from = first;
        to = last;
    }
    if (from >= 0) Align(reference, read, from, to);
}

// A stretch longer than the aligner's band is aligned in overlapping pieces.
void ConstructSearch::Align(uint32_t reference, const std::vector<uint8_t>& read, int begin, int end) {
    const int piece = LongestSpot(references_);
    const int step = std::max(1, piece - static_cast<int>(references_[reference].codes.size()) - 8);
    for (int from = begin; from < end; from += step) {
        // A construct in both its reference's spot and its family's is
        // bounded to the same stretch twice: the second alignment could only
        // add a copy of the first candidate, which the overlap rule drops.
        const std::array<int, 3> stretch = {static_cast<int>(reference), from, std::min(end, from + piece)};
        if (std::find(aligned_.begin(), aligned_.end(), stretch) == aligned_.end()) {
            aligned_.push_back(stretch);
            FoundConstruct construct;
            if (Verify(reference, read, from, stretch[2], construct)) candidates_.push_back(construct);
        }
        if (stretch[2] >= end) break;
    }
}

bool ConstructSearch::Verify(uint32_t reference, const std::vector<uint8_t>& read, int begin, int end,
                             FoundConstruct& out) {
    const uint8_t* stretch = read.data() + begin;
    window_.assign(stretch, stretch + (end - begin));
    const int raw = aligner_->AlignOne(reference, window_, path_);
    if (raw < min_raw_[reference]) return false;
    int first = -1, last = -1;
    for (const auto& [ref, query] : path_) {
        if (ref < 0 || query < 0) continue;
        if (first < 0) first = query;
        last = query;
    }
    if (first < 0) return false;
    const SearchReference& r = references_[reference];
    out =
        FoundConstruct{begin + first, begin + last + 1, reference, r.scale->Presence(r.index, raw), r.starts_molecule};
    return true;
}

}  // namespace Barcoding
