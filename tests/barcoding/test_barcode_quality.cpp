// The barcode quality: its model file, and the properties every fitted model
// keeps whatever its coefficients.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <stdexcept>
#include <string>

#include "barcoding/barcode_quality.h"
#include "tests/support/error_of.h"

namespace Barcoding {
namespace {

EndEvidence RandomEnd(std::mt19937& random) {
    std::uniform_real_distribution<float> score(-100, 100), margin(-10, 25);
    EndEvidence end;
    end.barcode = random() % 5 != 0;
    end.score = score(random);
    end.presence = score(random);
    end.over_rival = margin(random);
    end.over_random = margin(random);
    end.runner_up_score = score(random);
    end.runner_up_presence = score(random);
    end.window = 150;
    return end;
}

// Whatever the call, a wider margin over the runner-up at an end where the
// called barcode is the best never lowers the quality; nor does more
// presence. Checked on the shipped model and on random models of the allowed
// signs.
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
            int quality = PhredQuality(p);
            for (int step = 0; step < 10; ++step) {
                if (n % 3 == 0)
                    end.presence += 7;
                else
                    end.over_rival += 1.5f;
                const double next = WrongCallProbability(model, inputs);
                ASSERT_LE(next, p) << "model " << model_index << " read " << n << " step " << step;
                ASSERT_GE(PhredQuality(next), quality);
                p = next;
                quality = PhredQuality(next);
            }
        }
    }
}

TEST(BarcodeQuality, PhredScaleRoundsAndCaps) {
    const struct {
        double p;
        int quality;
    } cases[] = {{1.0, 0}, {0.9, 0}, {0.1, 10}, {0.0316, 15}, {0.01, 20}, {1e-6, 60}, {0.0, 60}, {1e-3, 30}};
    for (const auto& c : cases)
        EXPECT_EQ(PhredQuality(c.p), c.quality) << c.p;
}

TEST(BarcodeQuality, ModelFileIsCheckedLineByLine) {
    const std::string good = "# comment\nintercept\t1.5\nmargin\t-1\npresence\t-10\nconflict\t12\n";
    const QualityModel model = ParseQualityModel(good, "m.tsv");
    EXPECT_EQ(model.intercept, 1.5);
    EXPECT_EQ(model.conflict, 12);
    const struct {
        std::string text, message;
    } bad[] = {
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
    for (const auto& c : bad) {
        const std::string error = TestSupport::ErrorOf([&] { ParseQualityModel(c.text, "m.tsv"); });
        EXPECT_EQ(error.rfind(c.message, 0), 0u) << error;
    }
}

// Two ends agreeing count twice; an end without a barcode counts for nothing;
// another barcode best at an end lowers the quality by its presence.
TEST(BarcodeQuality, EvidenceOfBothEndsAddsUp) {
    const QualityModel model{1, -1, -10, 12};
    EndEvidence agreeing;
    agreeing.barcode = true;
    agreeing.score = 40;
    agreeing.presence = 70;
    agreeing.over_rival = 4;
    const EndEvidence none;
    const double one = WrongCallProbability(model, {agreeing, none});
    EXPECT_NEAR(std::log(one / (1 - one)), 1 - 4 - 7, 1e-9);
    const double two = WrongCallProbability(model, {agreeing, agreeing});
    EXPECT_NEAR(std::log(two / (1 - two)), 1 - 8 - 7, 1e-9);
    EndEvidence beaten = agreeing;
    beaten.score = -35;
    beaten.runner_up_score = 35;
    beaten.runner_up_presence = 60;
    const double conflicting = WrongCallProbability(model, {agreeing, beaten});
    EXPECT_NEAR(std::log(conflicting / (1 - conflicting)), 1 - 4 - 7 + 12 * 0.6, 1e-9);
    EXPECT_GT(conflicting, one);
}

}  // namespace
}  // namespace Barcoding
