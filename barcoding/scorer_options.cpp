#include "barcoding/scorer_options.h"

#include <filesystem>
#include <stdexcept>

#include "barcoding/barcode_quality.h"
#include "common/parameters.h"
#include "pair_alignment/score_limits.h"

namespace Barcoding {

std::vector<int> ScorerOptions::GapVector() const {
    return {start_gap1, end_gap1, open_gap1, extend_gap1, start_gap2, end_gap2, open_gap2, extend_gap2};
}

// Why these bounds: the aligners work on anti-diagonals of a (reference length
// + window + 1)-long band, and no score in it exceeds that length times the
// largest |cost| in magnitude. With references of at most 1000 bases, windows
// of at most 10000 and costs of at most 1000 that is about 1.1e7, fifty times
// below the limit of the 32-bit kernels (which keep an impossible-score
// sentinel clear of every real score) and two hundred times below 2^31, so no
// alignment ever falls back to overflowing arithmetic. The 16-bit kernels are
// still chosen per alignment, only when its own range fits them.
static_assert((static_cast<long long>(kMaxReferenceLength) + kMaxWindowSize + 1) * PairAlignment::kMaxScoreMagnitude <=
                  PairAlignment::kMaxScoreRange32 / 40,
              "scoring bounds must keep every score far inside the 32-bit kernels' range");

void ValidateScorerOptions(ScorerOptions& options) {
    static const char* const kGapNames[] = {"start_gap1", "end_gap1", "open_gap1", "extend_gap1",
                                            "start_gap2", "end_gap2", "open_gap2", "extend_gap2"};
    const std::vector<int> gaps = options.GapVector();
    for (size_t k = 0; k < gaps.size(); ++k)
        Common::RequireInRange(kGapNames[k], gaps[k], 0, PairAlignment::kMaxScoreMagnitude);
    Common::RequireInRange("front_window_size", options.front_window_size, 1, kMaxWindowSize);
    Common::RequireInRange("rear_window_size", options.rear_window_size, 1, kMaxWindowSize);
    Common::RequireFinite("min_score", options.min_score);
    Common::RequireFinite("min_score_rear_override", options.min_score_rear_override);
    Common::RequireInRange("min_barcode_quality", options.min_barcode_quality, 0, kMaxBarcodeQuality);
    Common::RequireInRange("num_extra_bases_trim", options.num_extra_bases_trim, -kMaxExtraTrim, kMaxExtraTrim);
    if (options.num_extra_bases_trim != 0 && !options.trim_barcodes)
        throw std::runtime_error("Must specify trim_barcodes flag when altering num_extra_bases_trim.");
    // Only fewer-bases trimming is bounded by the windows: trimming more than a
    // window holds is allowed on purpose.
    if (options.num_extra_bases_trim < 0) {
        const long magnitude = -static_cast<long>(options.num_extra_bases_trim);
        if (magnitude >= options.front_window_size || magnitude >= options.rear_window_size)
            throw std::runtime_error("Cannot trim " + std::to_string(options.num_extra_bases_trim) +
                                     " because it is bigger than the window length, which would mean adding bases!");
    }
    if (options.min_score_rear_override == -1.0f) options.min_score_rear_override = options.min_score;
    if (options.internal_barcodes == "ignore") {
        options.internal_mode = InternalBarcodes::kIgnore;
    } else if (options.internal_barcodes == "reject") {
        options.internal_mode = InternalBarcodes::kReject;
    } else if (options.internal_barcodes == "split") {
        options.internal_mode = InternalBarcodes::kSplit;
    } else {
        throw std::runtime_error("Unknown internal_barcodes '" + options.internal_barcodes +
                                 "': use ignore, reject or split");
    }
    Common::RequireInRange("min_part_length", options.min_part_length, 1, kMaxPartLength);
}

std::string ResolveDataFile(const std::string& name, const std::string& data_path) {
    namespace fs = std::filesystem;
    const fs::path given(name);
    if (name.empty() || given.is_absolute() || fs::exists(given) || data_path.empty()) return name;
    return (fs::path(data_path) / given).string();
}

}  // namespace Barcoding
