#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "barcoding/barcode_manager.h"
#include "barcoding/scorer_options.h"
#include "common/logger.h"
#include "tests/support/error_of.h"
#include "tests/support/temp_folder.h"

namespace Barcoding {
namespace {

using TestSupport::ErrorOf;
using TestSupport::TempFolder;

// Loading options with every expansion off, so names stay as written.
std::string NoExpansion(const std::string& fasta = "bc.fasta") {
    return "[loading_options]\nbarcodes_filename = " + fasta +
           "\ndouble_barcodes_revcmpl = false\ndouble_variants_frontrear = false\nappend_indicator_fwdbwd = false\n";
}

// Writes bc.fasta and arr.cfg and loads them.
BarcodeManager Load(const TempFolder& dir, const std::string& fasta, const std::string& arrangement) {
    dir.Write("bc.fasta", fasta);
    return BarcodeManager({dir.Write("arr.cfg", arrangement)}, "");
}

// An arrangement in one line: id, normalised id, kit, its two ends and its variant.
std::string Line(const Arrangement& a) {
    return a.id + " " + a.normalised_id + " " + a.kit + " " + a.barcode1 + "|" + a.barcode2 + " " + a.variant;
}

TEST(BarcodeManager, IndexedSectionsExpandWithTheTwelfthBarcodeQuirk) {
    TempFolder dir;
    std::string fasta = ">barcode12A\nACGT\n>barcode09X\nACGT\n";
    for (int i = 1; i <= 11; ++i)
        fasta += ">barcode" + std::string(i < 10 ? "0" : "") + std::to_string(i) + "\nACGT\n";
    BarcodeManager manager =
        Load(dir, fasta,
             NoExpansion() +
                 "[barcode%02i]\nkit = RLB\nnormalised_id = barcode%02i\nbarcode1 = barcode%02i\n"
                 "first_index = 1\nlast_index = 12\nscoring_function = MAX\ncompatible_kits = K1,K2\n"
                 "[other%02i]\nkit = X%i\nbarcode1 = barcode%02iX\nfirst_index = 9\nlast_index = 9\n"
                 "[plain%02i]\nbarcode2 = barcode01\nfirst_index = 3\n"
                 "[reversed%02i]\nfirst_index = 3\nlast_index = 2\n");
    const auto& all = manager.AllArrangements();
    ASSERT_EQ(all.size(), 15u);
    EXPECT_EQ(Line(all[0]), "barcode01 barcode01 RLB barcode01| n/a");
    EXPECT_EQ(Line(all[10]), "barcode11 barcode11 RLB barcode11| n/a");
    EXPECT_EQ(Line(all[11]), "barcode12A barcode12a RLB barcode12A| n/a");
    EXPECT_EQ(all[11].source_file, "arr.cfg");
    EXPECT_EQ(all[11].compatible_kits, (std::vector<std::string>{"K1", "K2"}));
    // Only kit "RLB" gets the suffix, and index 12 only.
    EXPECT_EQ(Line(all[12]), "other09 other09 X9 barcode09X| n/a");
    // Missing or inverted ranges keep the template as written.
    EXPECT_EQ(Line(all[13]), "plain%02i plain%02i  |barcode01 n/a");
    EXPECT_EQ(all[14].id, "reversed%02i");
}

TEST(BarcodeManager, DefaultOptionsAddOrientationsAndStrandVariants) {
    TempFolder dir;
    BarcodeManager manager = Load(dir, ">BC01\nAACGTTG\n>BC02\nacgUN\n",
                                  "[loading_options]\nbarcodes_filename = bc.fasta\n"
                                  "[double]\nbarcode1 = BC01\nbarcode2 = BC02\ncompatible_kits = D\n"
                                  "[single]\nbarcode1 = BC01\ncompatible_kits = S\n");
    EXPECT_EQ(manager.GetBarcodeSequence("BC01_FWD"), "AACGTTG");
    EXPECT_EQ(manager.GetBarcodeSequence("BC01_REV"), "CAACGTT");
    EXPECT_EQ(manager.GetBarcodeSequence("BC02_REV"), "NAcgt");  // case kept, unknown letters kept
    EXPECT_FALSE(manager.HasBarcode("BC01"));
    const auto& all = manager.AllArrangements();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(Line(all[0]), "double_var1 double  BC01_FWD|BC02_REV var1");
    EXPECT_EQ(Line(all[1]), "double_var2 double  BC02_REV|BC01_FWD var2");
    EXPECT_EQ(Line(all[2]), "single_var1 single  BC01_FWD| var1");
    EXPECT_EQ(Line(all[3]), "single_var2 single  |BC01_FWD var2");
    // The mirrored variant does not make a front-only kit double-ended.
    const std::string listing = manager.KitListing();
    EXPECT_NE(listing.find("1 barcode, front and rear\n"), std::string::npos) << listing;
    EXPECT_NE(listing.find("1 barcode, front only\n"), std::string::npos) << listing;
}

TEST(BarcodeManager, FastaQuirks) {
    TempFolder dir;
    dir.Write("sub/bc.fasta", "> BC 01\nAC GT\n\tAA\n>empty\n;semi\nGG\n>BC 01\nTTTT\n>noseq\n>semi\nGG\n");
    auto arrangement = [&](const std::string& barcode) {
        return dir.Write("sub/arr.cfg", NoExpansion() + "[a]\nbarcode1 = " + barcode + "\n");
    };
    // The barcode file is found next to the arrangement file. A repeated name
    // replaces the earlier record, and says so when its sequence differs.
    TempFolder logs;
    Common::InitLogging({.folder = logs.Path(), .log_file_name = "manager.log", .quiet = true, .trace_categories = {}});
    BarcodeManager manager({arrangement("BC01")}, "");
    Common::ShutdownLogging();
    EXPECT_EQ(manager.GetBarcodeSequence("BC01"), "TTTT");
    std::string log;
    for (const auto& file : std::filesystem::directory_iterator(logs.Root())) {  // named by the time
        std::ifstream in(file.path());
        log.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    const std::string warning = "Barcode 'BC01' is defined again in '" + dir.Path() +
                                "/sub/bc.fasta', line 7, with another sequence; the later definition is used.";
    EXPECT_NE(log.find(warning), std::string::npos) << log;
    EXPECT_EQ(log.find("'semi'"), std::string::npos) << log;
    EXPECT_EQ(manager.GetBarcodeSequence("semi"), "GG");
    for (const std::string dropped : {"empty", "noseq"})
        EXPECT_EQ(ErrorOf([&] { BarcodeManager({arrangement(dropped)}, ""); }),
                  "Barcode '" + dropped + "' was referenced in arrangement, but not found in barcode file");
}

// Files saved with a byte order mark and Windows line ends, as some editors
// write them, load as the same barcodes and arrangements.
TEST(BarcodeManager, ByteOrderMarkAndWindowsLineEnds) {
    TempFolder dir;
    const std::string fasta = ">BC01\nAACGTTG\n>BC02\nACGTACC\n";
    const std::string arrangement =
        "[loading_options]\nbarcodes_filename = bc.fasta\n"
        "[double]\nbarcode1 = BC01\nbarcode2 = BC02\ncompatible_kits = D\n";
    auto windows = [](const std::string& text) {
        std::string out = "\xEF\xBB\xBF";
        for (char c : text)
            out += c == '\n' ? std::string("\r\n") : std::string(1, c);
        return out;
    };
    auto lines = [](const BarcodeManager& manager) {
        std::string all;
        for (const auto& a : manager.AllArrangements())
            all += Line(a) + " " + manager.GetBarcodeSequence(a.barcode1) + "\n";
        return all;
    };
    const std::string plain = lines(Load(dir, fasta, arrangement));
    EXPECT_EQ(lines(Load(dir, windows(fasta), windows(arrangement))), plain);
    EXPECT_NE(plain.find("double_var1 double  BC01_FWD|BC02_REV var1 AACGTTG"), std::string::npos) << plain;
}

// Unreadable files and settings that would escape the save folder, never finish loading or
// overflow the aligner are refused naming file and section; edge values load.
TEST(BarcodeManager, RefusesWhatItCannotLoad) {
    TempFolder dir;
    const std::string none = dir.Path() + "/none.cfg", ok = "(no error)";
    EXPECT_EQ(ErrorOf([&] { BarcodeManager({none}, ""); }), "Could not find arrangement file " + none);
    EXPECT_EQ(ErrorOf([&] { BarcodeManager({"/dev/zero"}, ""); }), "Arrangement file /dev/zero is not a regular file");
    const std::string folder_name =
        " of arr.cfg cannot be used as a folder name: it must not be empty, '.' or '..', nor contain '/' or control "
        "characters";
    const std::string longest(kMaxReferenceLength, 'A');
    const struct {
        std::string fasta, arrangement, error;
    } cases[] = {
        {"", "[a]\nbarcode1 = X\n", "arrangement file does not contain loading_options.barcodes_filename"},
        {"", "[loading_options]\nbarcodes_filename = gone.fasta\n",
         "Could not load barcode file: '" + dir.Path() + "/gone.fasta'"},
        {"", "[loading_options]\nbarcodes_filename = /dev/zero\n", "Barcode file '/dev/zero' is not a regular file"},
        {"", "[a]\nkit=1\n[a]\nkit=2\n", "duplicate section name"},
        {"", NoExpansion() + "[a%s]\nfirst_index = 1\nlast_index = 2\n", "Unsupported format text 'a%s'"},
        // A width the formatter would need gigabytes for; 64 is the most.
        {"", NoExpansion() + "[a%1999999999i]\nfirst_index = 1\nlast_index = 2\n",
         "Unsupported format text 'a%1999999999i' in arrangement file: a width or precision of at most 64"},
        {"", NoExpansion() + "[a%.65i]\nfirst_index = 1\nlast_index = 2\n", "a width or precision of at most 64"},
        {"", NoExpansion() + "[a%064.64i]\nfirst_index = 1\nlast_index = 2\n", ok},
        {"", NoExpansion() + "[sec]\nnormalised_id = a/b\nbarcode1 = X\n", "normalised_id 'a/b' in section [sec]"},
        {"", NoExpansion() + "[sec]\nnormalised_id =\nbarcode1 = X\n",
         "normalised_id '' in section [sec]" + folder_name},
        // Checked after formatting with the index.
        {"", NoExpansion() + "[s%i]\nnormalised_id = %i/x\nfirst_index = 1\nlast_index = 2\n",
         "normalised_id '1/x' in section [s%i]" + folder_name},
        {"", NoExpansion() + "[s%i]\nfirst_index = 1\nlast_index = 2000000000\n",
         "Section [s%i] of arr.cfg spans first_index 1 to last_index 2000000000; at most 10000 arrangements per "
         "section are allowed"},
        {"", NoExpansion() + "[s%i]\nfirst_index = 0\nlast_index = 9999\n", ok},
        // The last index a section may name does not overflow the loop.
        {"", NoExpansion() + "[s%i]\nfirst_index = 2147483645\nlast_index = 2147483647\n", ok},
        {"", NoExpansion() + "[s%i]\nfirst_index = 1\nlast_index = 1O\n",
         "Invalid value '1O' for last_index in section [s%i] of arr.cfg: must be a whole number"},
        {"", NoExpansion() + "[s%i]\nfirst_index = 1\nlast_index = 99999999999\n",
         "Invalid value '99999999999' for last_index in section [s%i] of arr.cfg: must be a whole number"},
        {"", "[loading_options]\nbarcodes_filename = bc.fasta\ndouble_barcodes_revcmpl = maybe\n",
         "Invalid value 'maybe' for double_barcodes_revcmpl in section [loading_options] of arr.cfg: must be true or "
         "false"},
        {">long\n" + longest + "\n", NoExpansion() + "[sec]\nbarcode1 = long\n", ok},
        {">X\nACGT\n>long\n" + longest + "A\n", NoExpansion() + "[sec]\nbarcode1 = X\n",
         "Barcode 'long' in '" + dir.Path() + "/bc.fasta' is 1001 bases long; at most 1000 are allowed"},
    };
    for (const auto& c : cases) {
        const std::string error = ErrorOf([&] { Load(dir, c.fasta.empty() ? ">X\nACGT\n" : c.fasta, c.arrangement); });
        EXPECT_TRUE(TestSupport::Holds(error, c.error)) << c.arrangement << "\n" << error;
    }
}

// Scoring functions are checked only for the kits selected.
TEST(BarcodeManager, ScoringFunctionsOfSelectedKitsOnly) {
    TempFolder dir;
    BarcodeManager manager = Load(dir, ">X\nACGT\n",
                                  "[loading_options]\nbarcodes_filename = bc.fasta\n"
                                  "[good]\nbarcode1 = X\nbarcode2 = X\nscoring_function = ADD\ncompatible_kits = G\n"
                                  "[single]\nbarcode1 = X\nscoring_function = SUM\ncompatible_kits = S\n"
                                  "[odd%02i]\nbarcode1 = X\nbarcode2 = X\nscoring_function = max\ncompatible_kits = O\n"
                                  "first_index = 3\nlast_index = 4\n");
    EXPECT_EQ(manager.GetArrangements("G").size(), 2u);
    EXPECT_EQ(manager.GetArrangements("S").size(), 2u);
    for (const char* kits : {"O", "G O", ""})
        EXPECT_EQ(ErrorOf([&] { manager.GetArrangements(kits); }),
                  "Scoring function can only have values ADD or MAX (found 'max' in section [odd03] of arr.cfg)");
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
    BarcodeManager manager = Load(dir, ">X\nA\n",
                                  NoExpansion() +
                                      "[a1]\nbarcode1 = X\ncompatible_kits = A,B\n"   // claimed by A only
                                      "[c1]\nbarcode1 = X\ncompatible_kits = C, D\n"  // kits "C" and " D"
                                      "[a2]\nbarcode1 = X\ncompatible_kits = A\n");
    EXPECT_EQ(&manager.GetArrangements(""), &manager.AllArrangements());
    const auto& a = manager.GetArrangements("A");
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[0].id + " " + a[1].id, "a1 a2");
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
