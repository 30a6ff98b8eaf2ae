#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <tuple>

#include "barcoding/barcode_quality.h"
#include "barcoding/scorer_options.h"
#include "tests/support/error_of.h"

namespace Barcoding {
namespace {

// Every bounded setting just inside and just outside its range.
TEST(ScorerOptions, EachSettingIsCheckedAgainstItsRange) {
    const float inf = std::numeric_limits<float>::infinity();
    const std::string ok = "(no error)";
    const struct {
        std::function<void(ScorerOptions&)> apply;
        std::string error;
    } changes[] = {
        {[](ScorerOptions& o) { o.start_gap1 = -5; }, "Invalid value -5 for 'start_gap1': must be between 0 and 1000."},
        {[](ScorerOptions& o) { o.open_gap2 = -1; }, "Invalid value -1 for 'open_gap2': must be between 0 and 1000."},
        {[](ScorerOptions& o) { o.end_gap2 = 1001; }, "Invalid value 1001 for 'end_gap2': must be between 0 and 1000."},
        {[](ScorerOptions& o) { o.end_gap1 = 1000; }, ok},
        {[](ScorerOptions& o) { o.front_window_size = 0; },
         "Invalid value 0 for 'front_window_size': must be between 1 and 10000."},
        {[](ScorerOptions& o) { o.rear_window_size = -150; },
         "Invalid value -150 for 'rear_window_size': must be between 1 and 10000."},
        {[](ScorerOptions& o) { o.rear_window_size = kMaxWindowSize + 1; },
         "Invalid value 10001 for 'rear_window_size': must be between 1 and 10000."},
        {[](ScorerOptions& o) { o.front_window_size = 1; }, ok},
        {[](ScorerOptions& o) { o.front_window_size = kMaxWindowSize; }, ok},
        {[=](ScorerOptions& o) { o.min_score = -inf; }, "Invalid value -inf for 'min_score': must be a finite number."},
        {[=](ScorerOptions& o) { o.min_score_rear_override = inf; },
         "Invalid value inf for 'min_score_rear_override': must be a finite number."},
        {[](ScorerOptions& o) { o.min_score = -1e30f; }, ok},
        {[](ScorerOptions& o) { o.min_score_rear_override = 40; }, ok},
        {[](ScorerOptions& o) { o.num_extra_bases_trim = kMaxExtraTrim; }, ok},
        {[](ScorerOptions& o) { o.num_extra_bases_trim = -150; },
         "Cannot trim -150 because it is bigger than the window length, which would mean adding bases!"},
        {[](ScorerOptions& o) { o.min_part_length = 0; },
         "Invalid value 0 for 'min_part_length': must be between 1 and 1000000."},
    };
    for (size_t k = 0; k < std::size(changes); ++k) {
        ScorerOptions options;
        options.trim_barcodes = true;
        options.open_gap1 = options.extend_gap1 = options.start_gap2 = options.end_gap2 = 7;
        options.open_gap2 = options.extend_gap2 = 7;
        options.min_score = 56.5f;
        options.front_window_size = options.rear_window_size = 150;
        changes[k].apply(options);
        const float rear = options.min_score_rear_override;
        EXPECT_EQ(TestSupport::ErrorOf([&] { ValidateScorerOptions(options); }), changes[k].error) << "change " << k;
        if (changes[k].error != ok) continue;
        // The rear minimum follows the front one unless given.
        EXPECT_EQ(options.min_score_rear_override, rear == -1 ? options.min_score : rear) << "change " << k;
    }
}

EndEvidence RandomEnd(std::mt19937& random) {
    std::uniform_real_distribution<float> score(-100, 100), margin(-10, 25);
    // Braced initialisers run left to right, so the draws stay in this order.
    return {random() % 5 != 0, score(random), score(random), margin(random),
            margin(random),    score(random), score(random), 150};
}

// A wider margin or more presence never lowers the quality, on the shipped model and random ones.
TEST(BarcodeQuality, NeverFallsAsTheMarginOrPresenceGrows) {
    std::mt19937 random(5);
    std::uniform_real_distribution<double> coefficient(0, 15);
    for (int model_index = 0; model_index < 20; ++model_index) {
        QualityModel model = ShippedQualityModel();
        if (model_index > 0)
            model = {coefficient(random) - 7, -coefficient(random) / 5, -coefficient(random), coefficient(random)};
        for (int n = 0; n < 500; ++n) {
            QualityInputs inputs{RandomEnd(random), RandomEnd(random)};
            EndEvidence& end = n % 2 ? inputs.front : inputs.rear;
            double p = WrongCallProbability(model, inputs);
            for (int step = 0; step < 10; ++step) {
                if (n % 3 == 0)
                    end.presence += 7;
                else
                    end.over_rival += 1.5f;
                const double next = WrongCallProbability(model, inputs);
                ASSERT_LE(next, p) << "model " << model_index << " read " << n << " step " << step;
                ASSERT_GE(PhredQuality(next), PhredQuality(p));
                p = next;
            }
        }
    }
}

// Two agreeing ends count twice, an end without a barcode not at all; another barcode best at
// an end lowers the quality by its presence. The Phred scale rounds and caps.
TEST(BarcodeQuality, EvidenceOfBothEndsAddsUpOnThePhredScale) {
    const QualityModel model{1, -1, -10, 12};
    const EndEvidence agreeing{.barcode = true, .score = 40, .presence = 70, .over_rival = 4};
    EndEvidence beaten = agreeing;
    std::tie(beaten.score, beaten.runner_up_score, beaten.runner_up_presence) = std::tuple(-35, 35, 60);
    auto log_odds = [&](const QualityInputs& inputs) {
        const double p = WrongCallProbability(model, inputs);
        return std::log(p / (1 - p));
    };
    EXPECT_NEAR(log_odds({agreeing, EndEvidence{}}), 1 - 4 - 7, 1e-9);
    EXPECT_NEAR(log_odds({agreeing, agreeing}), 1 - 8 - 7, 1e-9);
    EXPECT_NEAR(log_odds({agreeing, beaten}), 1 - 4 - 7 + 12 * 0.6, 1e-9);

    const std::pair<double, int> phred[] = {{1.0, 0},   {0.9, 0},   {0.1, 10}, {0.0316, 15},
                                            {0.01, 20}, {1e-6, 60}, {0.0, 60}, {1e-3, 30}};
    for (const auto& [p, quality] : phred)
        EXPECT_EQ(PhredQuality(p), quality) << p;
}

TEST(BarcodeQuality, ModelFileIsCheckedLineByLine) {
    const QualityModel model =
        ParseQualityModel("# comment\nintercept\t1.5\nmargin\t-1\npresence\t-10\nconflict\t12\n", "m.tsv");
    EXPECT_EQ(model.intercept, 1.5);
    EXPECT_EQ(model.conflict, 12);
    const std::pair<std::string, std::string> bad[] = {
        {"intercept 1\n", "m.tsv, line 1: expected a name, a tab and a value"},
        {"slope\t1\n", "m.tsv, line 1: unknown coefficient 'slope'"},
        {"intercept\t1\nintercept\t2\n", "m.tsv, line 2: 'intercept' given twice"},
        {"intercept\tone\n", "m.tsv, line 1: 'one' is not a number"},
        {"intercept\t1x\n", "m.tsv, line 1: '1x' is not a number"},
        {"intercept\tnan\n", "m.tsv, line 1: 'nan' is not a number"},
        {"intercept\t1\nmargin\t-1\npresence\t-1\n", "m.tsv: no value for 'conflict'"},
        {"intercept\t1\nmargin\t1\npresence\t-1\nconflict\t1\n", "m.tsv: a wider margin or more presence"},
        {"intercept\t1\nmargin\t-1\npresence\t-1\nconflict\t-1\n", "m.tsv: a wider margin or more presence"},
    };
    for (const auto& [text, message] : bad) {
        const std::string error = TestSupport::ErrorOf([&] { ParseQualityModel(text, "m.tsv"); });
        EXPECT_EQ(error.rfind(message, 0), 0u) << error;
    }
}

}  // namespace
}  // namespace Barcoding
