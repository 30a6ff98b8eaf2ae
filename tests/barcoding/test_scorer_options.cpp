#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "barcoding/scorer_options.h"
#include "pair_alignment/score_matrix.h"
#include "tests/support/error_of.h"

namespace Barcoding {
namespace {

ScorerOptions Valid() {
    ScorerOptions options;
    options.open_gap1 = options.extend_gap1 = options.start_gap2 = options.end_gap2 = 7;
    options.open_gap2 = options.extend_gap2 = 7;
    options.min_score = 56.5f;
    options.front_window_size = options.rear_window_size = 150;
    return options;
}

std::string ErrorOf(ScorerOptions options) {
    return TestSupport::ErrorOf([&] { ValidateScorerOptions(options); });
}

struct Change {
    std::function<void(ScorerOptions&)> apply;
    std::string error;  // "(no error)" for a value on the edge of its range
};

}  // namespace

// Every bounded setting just inside and just outside its range.
TEST(ScorerOptions, EachSettingIsCheckedAgainstItsRange) {
    const int cost = PairAlignment::kMaxScoreMagnitude;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const std::string ok = "(no error)";
    const std::vector<Change> changes = {
        {[](ScorerOptions& o) { o.open_gap1 = -1; }, "Invalid value -1 for 'open_gap1': must be between 0 and 1000."},
        {[](ScorerOptions& o) { o.start_gap1 = -5; }, "Invalid value -5 for 'start_gap1': must be between 0 and 1000."},
        {[](ScorerOptions& o) { o.extend_gap2 = -1; },
         "Invalid value -1 for 'extend_gap2': must be between 0 and 1000."},
        {[=](ScorerOptions& o) { o.end_gap2 = cost + 1; },
         "Invalid value 1001 for 'end_gap2': must be between 0 and 1000."},
        {[=](ScorerOptions& o) { o.end_gap1 = cost; }, ok},
        {[](ScorerOptions& o) { o.front_window_size = 0; },
         "Invalid value 0 for 'front_window_size': must be between 1 and 10000."},
        {[](ScorerOptions& o) { o.rear_window_size = -150; },
         "Invalid value -150 for 'rear_window_size': must be between 1 and 10000."},
        {[](ScorerOptions& o) { o.rear_window_size = kMaxWindowSize + 1; },
         "Invalid value 10001 for 'rear_window_size': must be between 1 and 10000."},
        {[](ScorerOptions& o) { o.front_window_size = 1; }, ok},
        {[](ScorerOptions& o) { o.front_window_size = kMaxWindowSize; }, ok},
        {[=](ScorerOptions& o) { o.min_score = nan; }, "Invalid value nan for 'min_score': must be a finite number."},
        {[=](ScorerOptions& o) { o.min_score = -inf; }, "Invalid value -inf for 'min_score': must be a finite number."},
        {[=](ScorerOptions& o) { o.min_score_rear_override = inf; },
         "Invalid value inf for 'min_score_rear_override': must be a finite number."},
        {[](ScorerOptions& o) { o.min_score = -1e30f; }, ok},
        {[](ScorerOptions& o) {
             o.trim_barcodes = true;
             o.num_extra_bases_trim = 2147483647;
         },
         "Invalid value 2147483647 for 'num_extra_bases_trim': must be between -10000 and 10000."},
        {[](ScorerOptions& o) {
             o.trim_barcodes = true;
             o.num_extra_bases_trim = kMaxExtraTrim;
         },
         ok},
        {[](ScorerOptions& o) {
             o.trim_barcodes = true;
             o.num_extra_bases_trim = -150;
         },
         "Cannot trim -150 because it is bigger than the window length, which would mean adding bases!"},
        {[](ScorerOptions& o) { o.num_extra_bases_trim = 3; },
         "Must specify trim_barcodes flag when altering num_extra_bases_trim."},
    };
    for (size_t k = 0; k < changes.size(); ++k) {
        ScorerOptions options = Valid();
        changes[k].apply(options);
        EXPECT_EQ(ErrorOf(options), changes[k].error) << "change " << k;
    }
}

TEST(ScorerOptions, RearMinimumDefaultsToTheFrontOne) {
    ScorerOptions options = Valid();
    options.min_score_rear_override = -1.0f;
    ValidateScorerOptions(options);
    EXPECT_EQ(options.min_score_rear_override, 56.5f);
    options.min_score_rear_override = 40.0f;
    ValidateScorerOptions(options);
    EXPECT_EQ(options.min_score_rear_override, 40.0f);
}

}  // namespace Barcoding
