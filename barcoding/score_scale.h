#pragma once
// The detect-score scale of one read end. A reference's raw alignment score on
// a read becomes the smaller of two figures, each capped at 100:
//
//   margin    100 * (raw - max(rival, background)) / (self - max(floor, background))
//   presence  100 * (raw - random) / (self - random)
//
// where
//   rival       the best raw score on the same read of the reference's
//               competitors: the other references of this end used by
//               arrangements of the same kit (references of other kits do not
//               compete; an identical sequence, or a reference standing for
//               the same barcode, e.g. its other orientation, is the same
//               barcode);
//   floor       the best raw score a competitor reaches against a perfect copy
//               of the reference, or on average in a window of random
//               sequence if that is more (on a read, the copy sits among
//               other bases);
//   background  the mean over windows of random sequence of the window size
//               (a fixed seed) of the best raw score any reference of its
//               kits reaches there, its own included; this also scales a
//               reference without competitors;
//   random      the top of that random range: background plus
//               kPresenceSpread standard deviations of the same best scores;
//   self        the reference's score against itself.
// The margin says which barcode it is: 100 = a perfect copy, 0 = no better
// than the closest competitor, below 0 = a competitor fits the read better,
// whatever the flank length, barcode length and number of barcodes. Presence
// says that a barcode construct is there at all: the whole reference, flanks
// included, against the best that random sequence reaches. A read end needs both to score, so one
// without the kit's flanks cannot pass however its bases happen to favour one
// barcode core over the others. The tables are built once per kit selection
// and settings and shared (ShareScoreScale).

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Barcoding {

// How many standard deviations of the random windows' best scores above
// their mean presence counts from (see docs/calibration.md).
constexpr double kPresenceSpread = 2.5;

// One reference of a read end, as the scale needs it.
struct ScaleReference {
    std::string name;        // for error messages
    std::vector<int> codes;  // base codes 0..3
    // (kit, normalised id) of every arrangement using it at this end.
    std::vector<std::pair<std::string, std::string>> uses;
};

// Alignment settings the raw scores come from.
struct ScaleSettings {
    std::vector<int> matrix;  // 4 x 4, row-major
    std::vector<int> gaps;    // ScorerOptions::GapVector()
    int band_width = 1;
    int window_size = 0;  // bases of the read end searched
};

class ScoreScale {
public:
    // Aligns every reference against a perfect copy of each competitor and
    // against the background windows. Throws std::runtime_error, naming the
    // references, when a reference cannot score above its floor or background
    // (two barcodes that cannot be told apart, or one too short to stand out
    // from random sequence).
    ScoreScale(const ScaleSettings& settings, const std::vector<ScaleReference>& references);

    // Per-read scratch of Apply, one per thread (the scale itself is shared).
    struct Work {
        std::vector<int> best, second;  // per kit: the two best raw scores of different barcodes
        std::vector<uint32_t> best_group;
    };

    // scores[k] on the scale (the smaller of margin and presence) for the raw
    // scores of every reference on one read. work keeps, per kit, the two best
    // barcodes of the read for Rival.
    void Apply(const std::vector<int>& raw, std::vector<float>& scores, Work& work) const;

    // The raw score of reference k's rival on the read Apply last saw with
    // work; std::numeric_limits<int>::min() without competitors.
    int Rival(size_t k, const Work& work) const;

    // Presence of reference k on a read where it scores raw: how far it fits
    // better than random sequence, 100 * (raw - random) / (self - random),
    // capped at 100. It ignores the other barcodes on the read,
    // so it says that a barcode construct is there, not which one: a damaged
    // copy whose closest rival fits almost as well scores near 0 but keeps
    // its presence.
    float Presence(size_t k, int raw) const;

    size_t Size() const { return self_.size(); }
    int SelfScore(size_t k) const { return self_[k]; }
    double Floor(size_t k) const { return floor_[k]; }  // -infinity without competitors
    // 0 where the end has no window.
    double Background(size_t k) const { return background_[k]; }
    // Where presence counts from: background + kPresenceSpread standard deviations.
    double RandomTop(size_t k) const { return random_top_[k]; }

private:
    std::vector<int> self_;
    std::vector<double> floor_;
    std::vector<double> background_;
    std::vector<double> random_top_;
    std::vector<double> inverse_margin_range_;    // 1 / (self - max(floor, background))
    std::vector<double> inverse_presence_range_;  // 1 / (self - random top)
    struct Membership {
        uint32_t kit;
        uint32_t group;  // index into members_[kit]
        bool operator==(const Membership&) const = default;
    };
    // Best raw score among the references of other barcodes of k's kits.
    int BestRival(size_t k, const std::vector<int>& raw) const;

    std::vector<std::vector<std::vector<uint32_t>>> members_;  // per kit, per barcode: its references
    std::vector<std::vector<Membership>> kits_of_;             // per reference
};

// The scale for these settings and references, built on first use and shared
// with every later caller asking for the same while one is alive. Thread-safe.
std::shared_ptr<const ScoreScale> ShareScoreScale(const ScaleSettings& settings,
                                                  const std::vector<ScaleReference>& references);

// The margin's formula; rival and floor are -infinity where there is none.
float ScaledScore(int raw, int self, double rival, double floor, double background);

// The detect score: the smaller of the margin and the presence, which counts
// from random_top.
float DetectScore(int raw, int self, double rival, double floor, double background, double random_top);

// The random windows of `length` base codes the background is measured on.
std::vector<std::vector<int>> BackgroundWindows(int length);

}  // namespace Barcoding
