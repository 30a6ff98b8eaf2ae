#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "barcoding/barcode_manager.h"
#include "barcoding/scorer_options.h"
#include "tests/support/error_of.h"
#include "tests/support/temp_folder.h"

namespace Barcoding {
namespace {

using TestSupport::TempFolder;

using TestSupport::ErrorOf;

// Loading options with every expansion off, so names stay as written.
std::string NoExpansion(const std::string& fasta = "bc.fasta") {
    return "[loading_options]\nbarcodes_filename = " + fasta +
           "\ndouble_barcodes_revcmpl = false\ndouble_variants_frontrear = false\nappend_indicator_fwdbwd = false\n";
}

TEST(BarcodeManager, IndexedSectionsExpandWithTheTwelfthBarcodeQuirk) {
    TempFolder dir;
    std::string fasta;
    for (int i = 1; i <= 11; ++i)
        fasta += ">barcode" + std::string(i < 10 ? "0" : "") + std::to_string(i) + "\nACGT\n";
    fasta += ">barcode12A\nACGT\n>barcode09X\nACGT\n";
    dir.Write("bc.fasta", fasta);
    const std::string file =
        dir.Write("arr.cfg", NoExpansion() +
                                 "[barcode%02i]\nkit = RLB\nnormalised_id = barcode%02i\nbarcode1 = barcode%02i\n"
                                 "first_index = 1\nlast_index = 12\nscoring_function = MAX\ncompatible_kits = K1,K2\n"
                                 "[other%02i]\nkit = X%i\nbarcode1 = barcode%02iX\nfirst_index = 9\nlast_index = 9\n"
                                 "[plain%02i]\nbarcode2 = barcode01\nfirst_index = 3\n"
                                 "[reversed%02i]\nfirst_index = 3\nlast_index = 2\n");
    BarcodeManager manager({file}, "");
    const auto& all = manager.AllArrangements();
    ASSERT_EQ(all.size(), 15u);
    EXPECT_EQ(all[0].id, "barcode01");
    EXPECT_EQ(all[10].barcode1, "barcode11");
    EXPECT_EQ(all[11].id, "barcode12A");
    EXPECT_EQ(all[11].normalised_id, "barcode12a");
    EXPECT_EQ(all[11].barcode1, "barcode12A");
    EXPECT_EQ(all[11].variant, "n/a");
    EXPECT_EQ(all[11].source_file, "arr.cfg");
    EXPECT_EQ(all[11].compatible_kits, (std::vector<std::string>{"K1", "K2"}));
    // Only kit "RLB" gets the suffix, and index 12 only.
    EXPECT_EQ(all[12].id, "other09");
    EXPECT_EQ(all[12].kit, "X9");
    EXPECT_EQ(all[12].normalised_id, "other09");
    // Missing or inverted ranges keep the template as written.
    EXPECT_EQ(all[13].id, "plain%02i");
    EXPECT_EQ(all[13].barcode2, "barcode01");
    EXPECT_EQ(all[14].id, "reversed%02i");
}

TEST(BarcodeManager, DefaultOptionsAddOrientationsAndStrandVariants) {
    TempFolder dir;
    dir.Write("bc.fasta", ">BC01\nAACGTTG\n>BC02\nacgUN\n");
    const std::string file = dir.Write("arr.cfg",
                                       "[loading_options]\nbarcodes_filename = bc.fasta\n"
                                       "[double]\nbarcode1 = BC01\nbarcode2 = BC02\ncompatible_kits = D\n"
                                       "[single]\nbarcode1 = BC01\ncompatible_kits = S\n");
    BarcodeManager manager({file}, "");
    EXPECT_EQ(manager.GetBarcodeSequence("BC01_FWD"), "AACGTTG");
    EXPECT_EQ(manager.GetBarcodeSequence("BC01_REV"), "CAACGTT");
    EXPECT_EQ(manager.GetBarcodeSequence("BC02_REV"), "NAcgt");  // case kept, unknown letters kept
    EXPECT_FALSE(manager.HasBarcode("BC01"));

    const auto& all = manager.AllArrangements();
    ASSERT_EQ(all.size(), 4u);
    auto ends = [](const Arrangement& a) { return a.id + ":" + a.barcode1 + "|" + a.barcode2 + ":" + a.variant; };
    EXPECT_EQ(ends(all[0]), "double_var1:BC01_FWD|BC02_REV:var1");
    EXPECT_EQ(ends(all[1]), "double_var2:BC02_REV|BC01_FWD:var2");
    EXPECT_EQ(ends(all[2]), "single_var1:BC01_FWD|:var1");
    EXPECT_EQ(ends(all[3]), "single_var2:|BC01_FWD:var2");
    EXPECT_EQ(all[1].normalised_id, "double");
    // The mirrored variant does not make a front-only kit double-ended.
    const std::string listing = manager.KitListing();
    EXPECT_NE(listing.find("1 barcode, front and rear\n"), std::string::npos) << listing;
    EXPECT_NE(listing.find("1 barcode, front only\n"), std::string::npos) << listing;
}

TEST(BarcodeManager, FastaQuirks) {
    TempFolder dir;
    dir.Write("sub/bc.fasta", "> BC 01\nAC GT\n\tAA\n>empty\n;semi\nGG\n>BC 01\nTTTT\n>noseq\n");
    auto arrangement = [&](const std::string& barcode) {
        return dir.Write("sub/arr.cfg", NoExpansion() + "[a]\nbarcode1 = " + barcode + "\n");
    };
    // The barcode file is found next to the arrangement file.
    BarcodeManager manager({arrangement("BC01")}, "");
    EXPECT_EQ(manager.GetBarcodeSequence("BC01"), "TTTT");  // a repeated name replaces the earlier record
    EXPECT_EQ(manager.GetBarcodeSequence("semi"), "GG");
    for (const char* dropped : {"empty", "noseq"})
        EXPECT_EQ(
            ErrorOf([&] { BarcodeManager({arrangement(dropped)}, ""); }),
            "Barcode '" + std::string(dropped) + "' was referenced in arrangement, but not found in barcode file");
}

TEST(BarcodeManager, LoadingFaults) {
    TempFolder dir;
    EXPECT_EQ(ErrorOf([&] { BarcodeManager({dir.Path() + "/none.cfg"}, ""); }),
              "Could not find arrangement file " + dir.Path() + "/none.cfg");
    const std::string no_barcodes = dir.Write("a.cfg", "[a]\nbarcode1 = X\n");
    EXPECT_EQ(ErrorOf([&] { BarcodeManager({no_barcodes}, ""); }),
              "arrangement file does not contain loading_options.barcodes_filename");
    const std::string missing = dir.Write("b.cfg", "[loading_options]\nbarcodes_filename = gone.fasta\n");
    EXPECT_EQ(ErrorOf([&] { BarcodeManager({missing}, ""); }),
              "Could not load barcode file: '" + dir.Path() + "/gone.fasta'");
    const std::string device = dir.Write("dev.cfg", "[loading_options]\nbarcodes_filename = /dev/zero\n");
    EXPECT_EQ(ErrorOf([&] { BarcodeManager({device}, ""); }), "Barcode file '/dev/zero' is not a regular file");
    EXPECT_EQ(ErrorOf([&] { BarcodeManager({"/dev/zero"}, ""); }), "Arrangement file /dev/zero is not a regular file");
    const std::string duplicate = dir.Write("c.cfg", "[a]\nkit=1\n[a]\nkit=2\n");
    EXPECT_NE(ErrorOf([&] { BarcodeManager({duplicate}, ""); }).find("duplicate section name"), std::string::npos);
    const std::string bad_format = dir.Write("d.cfg", NoExpansion() + "[a%s]\nfirst_index = 1\nlast_index = 2\n");
    dir.Write("bc.fasta", ">X\nA\n");
    EXPECT_NE(ErrorOf([&] { BarcodeManager({bad_format}, ""); }).find("Unsupported format text 'a%s'"),
              std::string::npos);
}

// Settings that would write outside the save folder, never finish loading or
// overflow the aligner are refused at load time, naming file and section.
TEST(BarcodeManager, RefusesUnusableNamesRangesAndLengths) {
    TempFolder dir;
    dir.Write("bc.fasta", ">X\nACGT\n");
    auto load = [&](const std::string& sections) {
        const std::string file = dir.Write("arr.cfg", NoExpansion() + sections);
        return ErrorOf([&] { BarcodeManager({file}, ""); });
    };
    for (const std::string id : {"../x", "a/b", ".", "..", "tab\there"}) {
        EXPECT_EQ(load("[sec]\nnormalised_id = " + id + "\nbarcode1 = X\n"),
                  "normalised_id '" + id +
                      "' in section [sec] of arr.cfg cannot be used as a folder name: it must not be empty, '.' or "
                      "'..', nor contain '/' or control characters");
    }
    EXPECT_NE(load("[sec]\nnormalised_id =\nbarcode1 = X\n").find("normalised_id '' in section [sec]"),
              std::string::npos);
    // Checked after formatting with the index.
    EXPECT_NE(load("[s%i]\nnormalised_id = %i/x\nfirst_index = 1\nlast_index = 2\n")
                  .find("normalised_id '1/x' in section [s%i] of arr.cfg"),
              std::string::npos);

    EXPECT_EQ(load("[s%i]\nfirst_index = 1\nlast_index = 2000000000\n"),
              "Section [s%i] of arr.cfg spans first_index 1 to last_index 2000000000; at most 10000 arrangements per "
              "section are allowed");
    EXPECT_EQ(load("[s%i]\nfirst_index = 0\nlast_index = 9999\n"), "(no error)");
    // The last index a section may name does not overflow the loop.
    EXPECT_EQ(load("[s%i]\nfirst_index = 2147483645\nlast_index = 2147483647\n"), "(no error)");
    EXPECT_EQ(load("[s%i]\nfirst_index = 1\nlast_index = 1O\n"),
              "Invalid value '1O' for last_index in section [s%i] of arr.cfg: must be a whole number");
    EXPECT_EQ(load("[s%i]\nfirst_index = 1\nlast_index = 99999999999\n"),
              "Invalid value '99999999999' for last_index in section [s%i] of arr.cfg: must be a whole number");
    const std::string options = "[loading_options]\nbarcodes_filename = bc.fasta\ndouble_barcodes_revcmpl = maybe\n";
    EXPECT_EQ(ErrorOf([&] { BarcodeManager({dir.Write("switch.cfg", options)}, ""); }),
              "Invalid value 'maybe' for double_barcodes_revcmpl in section [loading_options] of switch.cfg: must be "
              "true or false");

    dir.Write("bc.fasta", ">long\n" + std::string(kMaxReferenceLength, 'A') + "\n");
    EXPECT_EQ(load("[sec]\nbarcode1 = long\n"), "(no error)");
    dir.Write("bc.fasta", ">X\nACGT\n>long\n" + std::string(kMaxReferenceLength + 1, 'A') + "\n");
    EXPECT_EQ(load("[sec]\nbarcode1 = X\n"),
              "Barcode 'long' in '" + dir.Path() + "/bc.fasta' is 1001 bases long; at most 1000 are allowed");
}

// A double-barcode arrangement's scoring function is checked when its kit is
// selected; kits not asked for may carry anything.
TEST(BarcodeManager, ScoringFunctionsOfSelectedKitsOnly) {
    TempFolder dir;
    dir.Write("bc.fasta", ">X\nACGT\n");
    const std::string file =
        dir.Write("arr.cfg",
                  "[loading_options]\nbarcodes_filename = bc.fasta\n"
                  "[good]\nbarcode1 = X\nbarcode2 = X\nscoring_function = ADD\ncompatible_kits = G\n"
                  "[single]\nbarcode1 = X\nscoring_function = SUM\ncompatible_kits = S\n"
                  "[odd%02i]\nbarcode1 = X\nbarcode2 = X\nscoring_function = max\ncompatible_kits = O\n"
                  "first_index = 3\nlast_index = 4\n");
    BarcodeManager manager({file}, "");
    EXPECT_EQ(manager.GetArrangements("G").size(), 2u);
    EXPECT_EQ(manager.GetArrangements("S").size(), 2u);
    const std::string message =
        "Scoring function can only have values ADD or MAX (found 'max' in section [odd03] of arr.cfg)";
    EXPECT_EQ(ErrorOf([&] { manager.GetArrangements("O"); }), message);
    EXPECT_EQ(ErrorOf([&] { manager.GetArrangements("G O"); }), message);
    EXPECT_EQ(ErrorOf([&] { manager.GetArrangements(""); }), message);
}

TEST(BarcodeManager, FilesResolveAgainstTheDataPathAndLaterBarcodesWin) {
    TempFolder dir;
    dir.Write("one.fasta", ">S\nAAAA\n>T\nCCCC\n");
    dir.Write("two.fasta", ">S\nGGGG\n");
    dir.Write("one.cfg", NoExpansion("one.fasta") + "[a]\nbarcode1 = T\n");
    dir.Write("two.cfg", NoExpansion("two.fasta") + "[b]\nbarcode1 = S\n");
    const auto files = BarcodeManager::SplitArrangementFiles("  one.cfg\ttwo.cfg\n");
    ASSERT_EQ(files, (std::vector<std::string>{"one.cfg", "two.cfg"}));
    BarcodeManager manager(files, dir.Path());
    EXPECT_EQ(manager.GetBarcodeSequence("S"), "GGGG");
    EXPECT_EQ(manager.GetBarcodeSequence("T"), "CCCC");
    EXPECT_EQ(manager.AllArrangements().size(), 2u);
}

TEST(BarcodeManager, KitSelection) {
    TempFolder dir;
    dir.Write("bc.fasta", ">X\nA\n");
    const std::string file =
        dir.Write("arr.cfg", NoExpansion() +
                                 "[a1]\nbarcode1 = X\ncompatible_kits = A,B\n"   // claimed by A only
                                 "[c1]\nbarcode1 = X\ncompatible_kits = C, D\n"  // kits "C" and " D"
                                 "[a2]\nbarcode1 = X\ncompatible_kits = A\n");
    BarcodeManager manager({file}, "");
    EXPECT_EQ(&manager.GetArrangements(""), &manager.AllArrangements());

    const auto& a = manager.GetArrangements("A");
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[0].id, "a1");
    EXPECT_EQ(a[1].id, "a2");
    EXPECT_EQ(&manager.GetArrangements("A"), &a);
    const auto& ac = manager.GetArrangements("C  A");
    ASSERT_EQ(ac.size(), 3u);
    EXPECT_EQ(ac[1].id, "c1");

    EXPECT_EQ(ErrorOf([&] { manager.GetArrangements("A Z B"); }),
              "Could not match the following kits with compatible kits in the configurations: B Z ");
    EXPECT_EQ(ErrorOf([&] { manager.GetArrangements("D Q"); }),
              "Could not match any specified kit(s) \"D Q\" with any compatible kits in the loaded configurations.");
    // A failed selection is not cached.
    EXPECT_THROW(manager.GetArrangements("A Z B"), std::runtime_error);

    const std::string listing = manager.KitListing();
    for (const char* kit : {"A ", "B ", "C ", " D "})
        EXPECT_NE(listing.find(kit), std::string::npos) << kit << " in\n" << listing;
    EXPECT_EQ(std::count(listing.begin(), listing.end(), '\n'), 4);
}

}  // namespace
}  // namespace Barcoding
