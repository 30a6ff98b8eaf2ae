#include "barcoding/scorer_options.h"

#include <boost/filesystem.hpp>
#include <stdexcept>

namespace Barcoding {

std::vector<int> ScorerOptions::GapVector() const {
    return {start_gap1, end_gap1, open_gap1, extend_gap1, start_gap2, end_gap2, open_gap2, extend_gap2};
}

void ValidateScorerOptions(ScorerOptions& options) {
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
}

std::string ResolveDataFile(const std::string& name, const std::string& data_path) {
    namespace fs = boost::filesystem;
    const fs::path given(name);
    if (name.empty() || given.is_absolute() || fs::exists(given) || data_path.empty()) return name;
    return (fs::path(data_path) / given).string();
}

}  // namespace Barcoding
