#pragma once
// Barcode constructs anywhere in a read, not only in the end windows: a read
// that holds several molecules ligated end to end carries the barcodes of the
// inner molecules in its middle. The whole read is scanned cheaply for spots
// where a reference's k-mers cluster (PairAlignment::SeedScan); each spot is
// bounded by a bit-parallel edit count (PairAlignment::PatternEdits), which
// never rejects an alignment that could reach the presence bar; the few spots
// left are aligned, and a construct counts when its presence (ScoreScale::
// Presence: how far it fits better than random sequence) reaches the bar.

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "pair_alignment/pattern_edits.h"
#include "pair_alignment/seed_scan.h"

namespace Barcoding {

class ReferenceAligner;
class ScoreScale;

// The presence a construct inside a read needs. A read end is one window of
// the scale's size, but the search looks at every stretch of the read, so the
// bar sits above what random sequence reaches over the length of long reads;
// measured on the kit family in docs/internal_barcodes.md.
constexpr float kInternalPresence = 35;

// One reference to look for.
struct SearchReference {
    std::string name;
    std::vector<int> codes;  // base codes 0..3
    // By its orientation: the front barcode of the molecule it starts, or
    // else the rear barcode of the one it ends.
    bool starts_molecule = true;
    // Its presence is that of entry `index` of this scale (a reverse
    // complement takes its forward reference's).
    std::shared_ptr<const ScoreScale> scale;
    size_t index = 0;
};

// One construct found.
struct FoundConstruct {
    int begin = 0;  // read bases [begin, end) its reference aligned to
    int end = 0;
    uint32_t reference = 0;  // index into the search's references
    float presence = 0;
    bool starts_molecule = true;
};

class ConstructSearch {
public:
    // matrix: 4 x 4, row-major (reference code, read code); gaps in
    // ScorerOptions::GapVector order.
    ConstructSearch(std::vector<SearchReference> references, const std::vector<int>& matrix,
                    const std::vector<int>& gaps, float min_presence = kInternalPresence);
    ~ConstructSearch();
    ConstructSearch(const ConstructSearch&) = delete;
    ConstructSearch& operator=(const ConstructSearch&) = delete;

    // Every construct in the read (base codes 0..3), in read order; of
    // constructs overlapping by more than half the shorter, the one of
    // higher presence.
    void Find(const std::vector<uint8_t>& read, std::vector<FoundConstruct>& found);
    // The same, of constructs lying wholly inside one of the read stretches
    // [begin, end) given (in read order, not overlapping).
    void Find(const std::vector<uint8_t>& read, const std::vector<std::pair<int, int>>& within,
              std::vector<FoundConstruct>& found);

    const std::vector<SearchReference>& References() const { return references_; }
    const PairAlignment::SeedScan& Scan() const { return scan_; }
    // The raw alignment score a reference needs to reach the presence bar,
    // and the most edits such an alignment can hold (-1 = no bound).
    int MinRaw(size_t reference) const { return min_raw_[reference]; }
    int MaxEdits(size_t reference) const { return max_edits_[reference]; }

private:
    // A spot's stretch for one reference, and where its ends are in ends_.
    struct Bounded {
        uint32_t reference;
        int begin, end;
        size_t first_end, ends;
    };
    void Keep(Bounded& job, const std::vector<int>& ends);
    void Bound(const Bounded& job, const std::vector<uint8_t>& read);
    void Align(uint32_t reference, const std::vector<uint8_t>& read, int begin, int end);
    bool Verify(uint32_t reference, const std::vector<uint8_t>& read, int begin, int end, FoundConstruct& out);

    std::vector<SearchReference> references_;
    float min_presence_;
    PairAlignment::SeedScan scan_;
    std::vector<PairAlignment::PatternEdits> edits_;
    std::vector<int> min_raw_;
    std::vector<int> max_edits_;
    std::unique_ptr<ReferenceAligner> aligner_;
    // Reused per read.
    PairAlignment::SeedScan::Work scan_work_;
    std::vector<PairAlignment::SeedScan::Spot> spots_;
    std::vector<Bounded> bounds_;
    std::vector<int> ends_;  // every stretch's ends, one after another
    std::vector<int> ends_first_, ends_second_;
    std::vector<int> window_;
    std::vector<std::pair<int, int>> path_;
    std::vector<FoundConstruct> candidates_;
    std::vector<std::array<int, 3>> aligned_;  // (reference, begin, end) of every stretch aligned
};

// The read's bases as codes 0..3 (U as T). Throws for any other character.
void ReadCodes(const std::string& sequence, std::vector<uint8_t>& codes);

}  // namespace Barcoding
