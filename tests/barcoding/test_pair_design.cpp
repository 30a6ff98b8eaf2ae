// Pairs of a front and a rear barcode: reads from either strand, with one end
// missing, or of a pair the sheet does not list, called by the scorer against
// a naive expectation written here.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "barcoding/barcode_quality.h"
#include "barcoding/barcode_scorer.h"
#include "barcoding/pair_design.h"
#include "tests/support/random_bases.h"
#include "tests/support/temp_folder.h"

namespace Barcoding {
namespace {

using TestSupport::RandomBases;
using TestSupport::ReverseComplement;
const std::vector<int>& kMatrix = TestSupport::kMatchMismatch;

// A few substitutions, so that the ends are not perfect copies.
void Mutate(std::mt19937& random, std::string& bases, int count) {
    for (int k = 0; k < count; ++k)
        bases[random() % bases.size()] = "ACGT"[random() % 4];
}

ScorerOptions Options() {
    ScorerOptions options;
    options.barcode_kits = "PK";
    options.open_gap1 = options.extend_gap1 = options.open_gap2 = options.extend_gap2 = 8;
    options.start_gap2 = options.end_gap2 = 9;
    options.min_score = 60;
    options.front_window_size = 70;
    options.rear_window_size = 70;
    ValidateScorerOptions(options);
    return options;
}

// Kit PK: fronts F01..F04, rears R01..R03, the arrangement file written as a
// user would (one front-only and one rear-only section, variants on).
class PairTest : public ::testing::Test {
protected:
    PairTest() {
        std::mt19937 random(21);
        std::string fasta;
        for (int i = 1; i <= 4; ++i) {
            fronts_.push_back(RandomBases(random, 24));
            fasta += ">F0" + std::to_string(i) + "\n" + fronts_.back() + "\n";
        }
        for (int i = 1; i <= 3; ++i) {
            rears_.push_back(RandomBases(random, 24));
            fasta += ">R0" + std::to_string(i) + "\n" + rears_.back() + "\n";
        }
        dir_.Write("pk.fasta", fasta);
        const std::string file =
            dir_.Write("pk.ini",
                       "[loading_options]\nbarcodes_filename = pk.fasta\n"
                       "[F%02i]\nkit = PK\nbarcode1 = F%02i\nscoring_function = MAX\ncompatible_kits = PK\n"
                       "first_index = 1\nlast_index = 4\n"
                       "[R%02i]\nkit = PK\nbarcode2 = R%02i\nscoring_function = MAX\ncompatible_kits = PK\n"
                       "first_index = 1\nlast_index = 3\n");
        manager_ = std::make_shared<BarcodeManager>(std::vector<std::string>{file}, "");
    }

    TestSupport::TempFolder dir_;
    std::vector<std::string> fronts_, rears_;
    std::shared_ptr<BarcodeManager> manager_;
};

TEST_F(PairTest, BarcodeNamesAndTheTableInBothOrders) {
    const auto& selected = manager_->GetArrangements("PK");
    EXPECT_EQ(PairBarcodeNames(selected), (std::vector<std::string>{"F01", "F02", "F03", "F04", "R01", "R02", "R03"}));
    const PairDesign design(selected, *manager_, {{"F01", "R02"}, {"F03", "R01"}});
    ASSERT_EQ(design.Barcodes().size(), 7u);
    EXPECT_EQ(design.Barcodes()[0].start_sequence, fronts_[0]);
    // A rear barcode reads as written at the start of a read of the other strand.
    EXPECT_EQ(design.Barcodes()[4].start_sequence, rears_[0]);
    EXPECT_EQ(design.Barcodes()[4].end_sequence, ReverseComplement(rears_[0]));

    const auto forward = design.Find(0, 5);
    EXPECT_EQ(forward.listed, 0);
    EXPECT_FALSE(forward.reverse);
    const auto reverse = design.Find(4, 2);
    EXPECT_EQ(reverse.listed, 1);
    EXPECT_TRUE(reverse.reverse);
    EXPECT_EQ(reverse.front, 2u);
    // Unlisted: put in sheet order where the columns say which is which.
    const auto unlisted = design.Find(5, 2);
    EXPECT_EQ(unlisted.listed, -1);
    EXPECT_TRUE(unlisted.reverse);
    EXPECT_EQ(unlisted.front, 2u);

    EXPECT_THROW(PairDesign(selected, *manager_, {{"F01", "R09"}}), std::runtime_error);
    EXPECT_THROW(PairDesign(selected, *manager_, {{"F01", "R01"}, {"F01", "R01"}}), std::runtime_error);
}

// Random reads of every kind against what a reader of the design expects.
TEST_F(PairTest, ReadsOfEitherStrandAgainstANaiveCall) {
    const std::vector<BarcodePair> listed = {
        {"F01", "R01"}, {"F01", "R02"}, {"F02", "R03"}, {"F03", "R01"}, {"F04", "R02"}};
    const std::set<std::pair<int, int>> listed_cells = {{0, 0}, {0, 1}, {1, 2}, {2, 0}, {3, 1}};
    auto design = std::make_shared<PairDesign>(manager_->GetArrangements("PK"), *manager_, listed);
    BarcodeScorer scorer(Options(), manager_, kMatrix, "", design);

    std::mt19937 random(5);
    std::map<std::string, int> kinds;
    for (int n = 0; n < 600; ++n) {
        const int f = static_cast<int>(random() % 4), r = static_cast<int>(random() % 3);
        // 0, 1: both ends; 2: front only; 3: rear only; 4, 5: the front or
        // the rear damaged, scoring around the minimum
        const int kind = static_cast<int>(random() % 6);
        const bool has_front = kind != 3, has_rear = kind != 2;
        std::string front = fronts_[f], rear = rears_[r];
        const int damage = 3 + static_cast<int>(random() % 5);
        Mutate(random, front, kind == 4 ? damage : 1);
        Mutate(random, rear, kind == 5 ? damage : 1);
        std::string read = RandomBases(random, 5 + random() % 20);
        read += has_front ? front : RandomBases(random, 24);
        read += RandomBases(random, 200 + random() % 200);
        read += has_rear ? ReverseComplement(rear) : RandomBases(random, 24);
        read += RandomBases(random, 5 + random() % 20);
        const bool reversed = random() % 2 == 1;
        if (reversed) read = ReverseComplement(read);

        const std::string name = "F0" + std::to_string(f + 1) + "_R0" + std::to_string(r + 1);
        const auto results = scorer.Score(read);
        ASSERT_EQ(results.size(), 1u);
        const auto& call = results[0];
        SCOPED_TRACE(name + " kind " + std::to_string(kind) + (reversed ? " reversed" : ""));
        EXPECT_FALSE(call.mixed);
        const bool listed_cell = listed_cells.count({f, r}) > 0;
        if (kind >= 4) {
            // Naive rule: a damaged end below the minimum (60) but at half of
            // it or more still says the pair, when it names the right barcode.
            const float damaged = call.front.score < 60 ? call.front.score : call.rear.score;
            const bool strong = call.front.score >= 60 && call.rear.score >= 60;
            const bool seen = damaged >= 30 && call.id == name;
            const UnclassifiedReason expected = strong && listed_cell  ? UnclassifiedReason::kNone
                                                : !listed_cell && seen ? UnclassifiedReason::kPairNotInSheet
                                                : damaged < 30         ? UnclassifiedReason::kOneEndOnly
                                                                       : call.reason;
            EXPECT_EQ(call.reason, expected) << call.front.score << " " << call.rear.score;
            if (!strong && seen) kinds[listed_cell ? "damaged, listed" : "damaged, unlisted"]++;
            if (damaged < 30) kinds["damaged, too weak"]++;
            continue;
        }
        if (has_front && has_rear && listed_cell) {
            EXPECT_EQ(call.normalised_id, name);
            EXPECT_EQ(call.reason, UnclassifiedReason::kNone);
            EXPECT_EQ(call.variant, reversed ? "rev" : "fwd");
            EXPECT_GT(call.score, 60);
            EXPECT_GT(call.quality, 0);
            EXPECT_EQ(call.candidate_quality, call.quality);
            kinds["listed"]++;
        } else if (has_front && has_rear) {
            EXPECT_EQ(call.normalised_id, "unclassified");
            EXPECT_EQ(call.quality, 0);
            EXPECT_GE(call.candidate_quality, 0);
            EXPECT_EQ(call.reason, UnclassifiedReason::kPairNotInSheet);
            EXPECT_EQ(call.id, name);
            kinds["unlisted"]++;
        } else {
            EXPECT_EQ(call.normalised_id, "unclassified");
            // Rarely, one substitution in the right place takes the one end under the minimum too.
            const bool none_passes = call.front.score < 60 && call.rear.score < 60;
            EXPECT_EQ(call.reason,
                      none_passes ? UnclassifiedReason::kNoBarcodeAboveMinimum : UnclassifiedReason::kOneEndOnly);
            kinds["one end"]++;
        }
    }
    EXPECT_GT(kinds["listed"], 50);
    EXPECT_GT(kinds["unlisted"], 50);
    EXPECT_GT(kinds["one end"], 100);
    EXPECT_GT(kinds["damaged, listed"], 5);
    EXPECT_GT(kinds["damaged, unlisted"], 5);
    EXPECT_GT(kinds["damaged, too weak"], 5);

    // Nothing at either end.
    const auto none = scorer.Score(RandomBases(random, 400))[0];
    EXPECT_EQ(none.reason, UnclassifiedReason::kNoBarcodeAboveMinimum);
    EXPECT_EQ(none.normalised_id, "unclassified");
}

// Pair calls carry a barcode quality, and min_barcode_quality applies to them:
// with the bar at its top only the surest calls stay, the rest go to "low
// barcode quality"; every other outcome is the same. (Barcodes this far apart
// give the top quality even to an end scoring just above the minimum.)
TEST_F(PairTest, QualityOfPairCallsAgainstTheBar) {
    auto design =
        std::make_shared<PairDesign>(manager_->GetArrangements("PK"), *manager_,
                                     std::vector<BarcodePair>{{"F01", "R01"}, {"F02", "R02"}, {"F03", "R03"}});
    ScorerOptions options = Options();
    options.min_score = options.min_score_rear_override = 30;
    BarcodeScorer loose(options, manager_, kMatrix, "", design);
    options.min_barcode_quality = kMaxBarcodeQuality;
    BarcodeScorer strict(options, manager_, kMatrix, "", design);

    std::mt19937 random(17);
    int classified = 0;
    for (int n = 0; n < 300; ++n) {
        const int k = static_cast<int>(random() % 3);
        std::string front = fronts_[k], rear = rears_[k];
        Mutate(random, random() % 2 == 0 ? front : rear, static_cast<int>(random() % 8));
        const std::string read = RandomBases(random, 10) + front + RandomBases(random, 300) + ReverseComplement(rear) +
                                 RandomBases(random, 10);
        const auto call = loose.Score(read)[0];
        const auto strict_call = strict.Score(read)[0];
        if (call.reason != UnclassifiedReason::kNone) {
            EXPECT_EQ(call.quality, 0);
            EXPECT_EQ(strict_call.reason, call.reason);
            continue;
        }
        ++classified;
        EXPECT_GT(call.quality, 0);
        EXPECT_EQ(call.candidate_quality, call.quality);
        EXPECT_LT(call.error_probability, 1);
        const bool kept = call.quality >= kMaxBarcodeQuality;
        EXPECT_EQ(strict_call.reason, kept ? UnclassifiedReason::kNone : UnclassifiedReason::kLowBarcodeQuality);
        EXPECT_EQ(strict_call.normalised_id, kept ? call.normalised_id : "unclassified");
        EXPECT_EQ(strict_call.candidate_quality, call.quality);
    }
    EXPECT_GT(classified, 100);
}

}  // namespace
}  // namespace Barcoding
