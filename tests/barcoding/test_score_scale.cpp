// Properties of the detect-score scale across kit designs, and the per-read
// verdicts built on it (mixed barcodes, unclassified reasons).

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "barcoding/barcode_scorer.h"
#include "barcoding/score_scale.h"
#include "tests/support/error_of.h"
#include "tests/support/random_bases.h"
#include "tests/support/shipped_configuration.h"
#include "tests/support/temp_folder.h"

namespace Barcoding {
namespace {

using TestSupport::TempFolder;

using TestSupport::Mutate;
using TestSupport::RandomBases;
using TestSupport::ReverseComplement;
const std::vector<int>& kMatrix = TestSupport::kMatchMismatch;

ScorerOptions Options(const std::string& kits) {
    ScorerOptions options;
    options.barcode_kits = kits;
    options.open_gap1 = options.extend_gap1 = options.open_gap2 = options.extend_gap2 = 7;
    options.start_gap2 = options.end_gap2 = 7;
    options.min_score = 40;
    options.front_window_size = options.rear_window_size = 150;
    ValidateScorerOptions(options);
    return options;
}

// A kit "K": `count` random barcodes of `length` bases between constant
// flanks of `flank` bases on each side, written as references BC01.. (flank +
// barcode + flank); double-ended (MAX of the two ends, both orientations) or
// front-only as written.
struct Kit {
    TempFolder dir;
    std::vector<std::string> references;
    std::shared_ptr<BarcodeManager> manager;

    Kit(size_t count, size_t length, size_t flank, unsigned seed, bool front_only = false) {
        std::mt19937 random(seed);
        const std::string left = RandomBases(random, flank), right = RandomBases(random, flank);
        std::string fasta;
        for (size_t i = 1; i <= count; ++i) {
            references.push_back(left + RandomBases(random, length) + right);
            fasta += ">BC" + std::string(i < 10 ? "0" : "") + std::to_string(i) + "\n" + references.back() + "\n";
        }
        dir.Write("kit.fasta", fasta);
        const std::string options = front_only ? "double_barcodes_revcmpl = false\ndouble_variants_frontrear = false\n"
                                                 "append_indicator_fwdbwd = false\n"
                                               : "";
        const std::string file = dir.Write("kit.ini", "[loading_options]\nbarcodes_filename = kit.fasta\n" + options +
                                                          "[K_barcode%02i]\nnormalised_id = barcode%02i\nkit = K\n"
                                                          "barcode1 = BC%02i\n" +
                                                          (front_only ? "" : "barcode2 = BC%02i\n") +
                                                          "scoring_function = MAX\ncompatible_kits = K\n"
                                                          "first_index = 1\nlast_index = " +
                                                          std::to_string(count) + "\n");
        manager = std::make_shared<BarcodeManager>(std::vector<std::string>{file}, "");
    }

    // junk + front reference + insert + reverse-complemented rear reference + junk
    std::string Read(std::mt19937& random, int front, int rear, double error_rate) const {
        std::string read = RandomBases(random, 5 + random() % 20);
        if (front >= 0) read += Mutate(random, references[static_cast<size_t>(front)], error_rate);
        read += RandomBases(random, 200);
        if (rear >= 0) read += Mutate(random, ReverseComplement(references[static_cast<size_t>(rear)]), error_rate);
        return read + RandomBases(random, 5 + random() % 20);
    }
};

// The point of the scale: the same read quality gives the same scores whatever
// the flank length, barcode length or number of barcodes, with the right
// barcode far above 0 and every wrong one at or below it. Without flanks a
// short barcode's presence, not its margin, sets its score (random sequence
// comes closer to it), so only its sign is held there.
TEST(ScoreScale, RightBarcodeFarAboveWrongOnesForEveryFlankAndBarcodeLength) {
    for (size_t length : {16, 24, 40}) {
        std::vector<double> means;
        for (size_t flank : {0, 10, 20, 30, 40}) {
            SCOPED_TRACE("barcode " + std::to_string(length) + ", flanks " + std::to_string(flank));
            const Kit kit(12, length, flank, static_cast<unsigned>(length * 100 + flank));
            BarcodeScorer scorer(Options("K"), kit.manager, kMatrix);
            std::mt19937 random(static_cast<unsigned>(7 + length + flank));
            double sum = 0;
            const int reads = 40;
            for (int n = 0; n < reads; ++n) {
                const int truth = static_cast<int>(random() % 12);
                const std::string read = kit.Read(random, truth, -1, 0.06);
                const auto front = scorer.InspectFront(read, "K");
                const std::string right = "BC" + std::string(truth < 9 ? "0" : "") + std::to_string(truth + 1) + "_FWD";
                // The barcode's other orientation (_REV) is the same barcode, not a wrong one.
                float right_score = -1000, wrong_score = -1000;
                for (const auto& result : front) {
                    if (result.id == right)
                        right_score = result.score;
                    else if (result.id.substr(0, 4) != right.substr(0, 4))
                        wrong_score = std::max(wrong_score, result.score);
                }
                EXPECT_LE(wrong_score, 0) << read;
                EXPECT_GT(right_score, flank > 0 ? 20 : 0) << read;
                if (flank > 0) {
                    EXPECT_GT(right_score - wrong_score, 45) << read;
                }
                sum += right_score;
            }
            if (flank > 0) means.push_back(sum / reads);
        }
        // The old score (raw / self-score) moved by tens of points between
        // flank lengths at the same error rate; this one stays within what
        // the random barcodes themselves differ by.
        const auto [low, high] = std::minmax_element(means.begin(), means.end());
        EXPECT_GT(*low, 70) << "barcode length " << length;
        EXPECT_LT(*high - *low, 20) << "barcode length " << length;
    }
}

// A read end without the kit's flanks stays below the shipped min_score,
// whatever the flank and barcode length: random sequence, and a construct of
// another kit (its flanks around a random core). Presence keeps both out,
// however well their bases happen to fit one barcode core better than the
// others. (The kit's own flanks around a foreign core are a barcode construct:
// whether that passes depends on how close the core comes to a barcode.)
TEST(ScoreScale, ReadEndsWithoutABarcodeOfTheKitStayBelowTheMinimum) {
    ScorerOptions options = Options("K");
    options.min_score = options.min_score_rear_override =
        std::stof(TestSupport::ShippedConfiguration().at("min_score"));
    for (size_t flank : {10, 20, 30, 40}) {
        for (size_t length : {16, 24, 40}) {
            SCOPED_TRACE("barcode " + std::to_string(length) + ", flanks " + std::to_string(flank));
            const Kit kit(24, length, flank, static_cast<unsigned>(31 + length + flank));
            ScorerOptions sized = options;
            sized.front_window_size = sized.rear_window_size = static_cast<int>(150 + 2 * flank + length - 42);
            BarcodeScorer scorer(sized, kit.manager, kMatrix);
            std::mt19937 random(static_cast<unsigned>(flank * 7 + length));
            float highest[2] = {-1000, -1000};
            const std::string other_left = RandomBases(random, flank), other_right = RandomBases(random, flank);
            auto end_of_kind = [&](int kind) {
                if (kind == 0) return RandomBases(random, 2 * flank + length);
                return other_left + RandomBases(random, length) + other_right;
            };
            for (int n = 0; n < 60; ++n) {
                for (int kind = 0; kind < 2; ++kind) {
                    const std::string read = RandomBases(random, 5 + random() % 20) + end_of_kind(kind) +
                                             RandomBases(random, 200) + ReverseComplement(end_of_kind(kind)) +
                                             RandomBases(random, 5 + random() % 20);
                    const auto best = scorer.Score(read)[0];
                    EXPECT_EQ(best.reason, UnclassifiedReason::kNoBarcodeAboveMinimum)
                        << kind << " " << best.front.score << " " << best.rear.score << " " << read;
                    highest[kind] = std::max({highest[kind], best.front.score, best.rear.score});
                }
            }
            // Random sequence and other kits' constructs stay below with room to spare.
            EXPECT_LT(std::max(highest[0], highest[1]), options.min_score - 5);
        }
    }
}

TEST(ScoreScale, PerfectCopyScores100AndNoCompetitorMeansRandomBackground) {
    const Kit kit(24, 24, 20, 3);
    BarcodeScorer scorer(Options("K"), kit.manager, kMatrix);
    std::mt19937 random(4);
    for (int n = 0; n < 20; ++n) {
        const auto best = scorer.Score(kit.Read(random, n % 24, n % 24, 0))[0];
        EXPECT_GE(best.front.score, 97);
        EXPECT_LE(best.front.score, 100);
        EXPECT_GE(best.rear.score, 97);
    }
    // A short read: each window holds both barcodes, one in either
    // orientation. The two orientations are the same barcode, not rivals.
    for (int n = 0; n < 10; ++n) {
        const std::string& reference = kit.references[static_cast<size_t>(n)];
        const std::string read = RandomBases(random, 10) + reference + RandomBases(random, 20) +
                                 ReverseComplement(reference) + RandomBases(random, 10);
        const auto best = scorer.Score(read)[0];
        EXPECT_GE(best.front.score, 97);
        EXPECT_GE(best.rear.score, 97);
    }
    // Random reads: no reference stands out from its competitors.
    for (int n = 0; n < 50; ++n)
        EXPECT_EQ(scorer.Score(kit.Read(random, -1, -1, 0))[0].reason, UnclassifiedReason::kNoBarcodeAboveMinimum);

    // A lone reference (no competitor) is scaled by its random background.
    const Kit lone(1, 24, 10, 5, true);
    BarcodeScorer lone_scorer(Options("K"), lone.manager, kMatrix);
    EXPECT_FLOAT_EQ(lone_scorer.Score(lone.Read(random, 0, -1, 0))[0].front.score, 100);
    float random_best = -1000;
    for (int n = 0; n < 30; ++n)
        random_best = std::max(random_best, lone_scorer.Score(lone.Read(random, -1, -1, 0))[0].score);
    EXPECT_LT(random_best, 45);
}

TEST(ScoreScale, ScorersOfTheSameKitsShareOneScale) {
    const Kit kit(4, 16, 5, 9);
    ScaleSettings settings{kMatrix, Options("K").GapVector(), 150, 150};
    std::vector<ScaleReference> references;
    for (size_t k = 0; k < kit.references.size(); ++k) {
        std::vector<int> codes;
        for (char c : kit.references[k])
            codes.push_back(static_cast<int>(std::string("ACGT").find(c)));
        references.push_back(ScaleReference{"r", codes, {{"K", "barcode" + std::to_string(k)}}});
    }
    const auto first = ShareScoreScale(settings, references);
    EXPECT_EQ(ShareScoreScale(settings, references), first);
    settings.window_size = 100;
    EXPECT_NE(ShareScoreScale(settings, references), first);

    // An identical sequence is the same barcode, not a competitor; a
    // reference that differs from another only by what hangs off a window
    // costs nothing is another matter: they cannot be told apart.
    references.push_back(references[0]);
    EXPECT_NO_THROW(ScoreScale(settings, references));
    std::vector<ScaleReference> contained = {references[0], references[1]};
    contained[0].name = "short";
    contained[1].name = "long";
    contained[1].codes = contained[0].codes;
    contained[1].codes.insert(contained[1].codes.end(), {0, 1, 2, 3});
    settings.gaps = {0, 0, 7, 7, 0, 0, 7, 7};
    const std::string message = TestSupport::ErrorOf([&] { ScoreScale scale(settings, contained); });
    EXPECT_TRUE(TestSupport::Holds(message, "'short' and 'long'")) << message;
}

}  // namespace
}  // namespace Barcoding
