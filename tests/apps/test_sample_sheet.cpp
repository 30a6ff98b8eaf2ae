// The sample sheet: what it accepts, and that every fault is refused with the
// file and line named, before a run writes anything.

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "apps/sample_sheet.h"
#include "tests/support/error_of.h"

namespace {

const std::set<std::string> kKnown = {"barcode01", "barcode02", "barcode03", "barcode04"};
const std::vector<std::string> kReserved = {"unclassified", "barcoding_summary.txt"};

// Pairs: a front and a rear column instead of the arrangement column.
const std::set<std::string> kPairBarcodes = {"F01", "F02", "R01", "R02"};

// Every sheet is read with the pair barcodes known: they are only used when
// the header has a front and a rear column.
Vorpa::SampleSheet Parse(const std::string& text) {
    std::istringstream in(text);
    return Vorpa::ParseSampleSheet(in, "sheet.tsv", kKnown, kReserved, kPairBarcodes);
}

std::string ErrorOf(const std::string& text) {
    return TestSupport::ErrorOf([&] { Parse(text); });
}

TEST(SampleSheet, ColumnsInAnyOrderCommentsAndMergedArrangements) {
    const auto sheet = Parse(
        "# run 12, plate 3\r\n"
        "\n"
        "description\tsample\tarrangement\r\n"
        "first mouse\t Liver-A \tbarcode03\r\n"
        "\t\t\n"
        "# barcode04 failed\n"
        "\tKidney\tbarcode01\n"
        "again\tLiver-A\tbarcode02\n");
    EXPECT_EQ(sheet.samples, (std::vector<std::string>{"Liver-A", "Kidney"}));
    EXPECT_EQ(*sheet.SampleOf("barcode03"), "Liver-A");
    EXPECT_EQ(*sheet.SampleOf("barcode02"), "Liver-A");
    EXPECT_EQ(*sheet.SampleOf("barcode01"), "Kidney");
    EXPECT_EQ(sheet.SampleOf("barcode04"), nullptr);
    EXPECT_EQ(sheet.SampleOf("unclassified"), nullptr);
    // The longest name a folder may have is a sample name too.
    const std::string longest(255, 'L');
    EXPECT_EQ(*Parse("arrangement\tsample\nbarcode01\t" + longest + "\n").SampleOf("barcode01"), longest);
}

TEST(SampleSheet, EveryFaultNamesTheFileAndLine) {
    const std::string head = "arrangement\tsample\n", pair_head = "front\trear\tsample\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "Sample sheet 'sheet.tsv' is empty: it needs a header line."},
        {"# only a comment\n\n", "Sample sheet 'sheet.tsv' is empty: it needs a header line."},
        {head, "Sample sheet 'sheet.tsv' lists no samples."},
        {"barcode\tsample\nbarcode01\tA\n",
         "Sample sheet 'sheet.tsv', line 1: the header must name the columns 'arrangement' and 'sample' (tab "
         "separated)."},
        {"arrangement sample\nbarcode01 A\n", "line 1: the header must name the columns"},
        {"arrangement\tsample\tsample\n", "line 1: the column 'sample' is named twice."},
        {head + "barcode01\tA\nbarcode01\tB\n",
         "Sample sheet 'sheet.tsv', line 3: the arrangement 'barcode01' is already listed on line 2."},
        {head + "barcode99\tA\n", "line 2: 'barcode99' is not an arrangement of the selected kits."},
        {head + "\tA\n", "line 2: the arrangement is empty."},
        {head + "barcode01\n", "line 2: no sample field."},
        {head + "barcode01\tA\textra\n", "line 2: 3 fields, but the header names 2 columns."},
        {head + "barcode01\t \n", "line 2: the sample name is empty."},
        {head + "barcode01\t.\n", "line 2: the sample name '.' is not a folder name."},
        {head + "barcode01\t..\n", "line 2: the sample name '..' is not a folder name."},
        {head + "barcode01\tliver/left\n", "line 2: the sample name 'liver/left' contains '/'."},
        {head + "barcode01\tli\x01ver\n", "contains a control character."},
        {head + "barcode01\t" + std::string(256, 'x') + "\n",
         "line 2: the sample name 'xxxxxxxxxxxxxxxxxxxx...' has 256 bytes; a folder name may have at most 255."},
        {head + "barcode01\tUnclassified\n", "line 2: the sample name 'Unclassified' is reserved for other output."},
        {head + "barcode01\tbarcoding_summary.txt\n", "is reserved for other output."},
        {head + "barcode01\tPatientA\nbarcode02\tpatienta\n",
         "line 3: the sample name 'patienta' differs from 'PatientA' (line 2) only in letter case; they would "
         "share a folder on some file systems."},
        // Sheets of pairs: a front and a rear column instead of the arrangement column.
        {"arrangement\tfront\trear\tsample\nF01\tF01\tR01\tA\n",
         "Sample sheet 'sheet.tsv', line 1: the header names 'arrangement' and 'front': a sheet lists either "
         "arrangements or pairs of a front and a rear barcode."},
        {"front\tsample\nF01\tA\n", "line 1: the header must name the columns 'front', 'rear' and 'sample'"},
        {"front\trear\nF01\tR01\n", "line 1: the header must name the columns 'front', 'rear' and 'sample'"},
        {pair_head + "F01\tR01\tA\nF01\tR01\tB\n", "line 3: the pair F01 + R01 is already listed on line 2."},
        {pair_head + "F01\tR02\tA\nR02\tF01\tB\n",
         "line 3: the pair R02 + F01 is the pair F01 + R02 on line 2 read from the other strand."},
        {pair_head + "F01\tR09\tA\n", "line 2: the rear barcode 'R09' is not a single-barcode arrangement"},
        {pair_head + "barcode01\tR01\tA\n", "line 2: the front barcode 'barcode01' is not a single-barcode"},
        {pair_head + "\tR01\tA\n", "line 2: the front barcode is empty."},
        {pair_head + "F01\n", "line 2: no rear field."},
        {pair_head + "F01\tR01\tunclassified\n", "line 2: the sample name 'unclassified' is reserved"},
    };
    for (const auto& [text, message] : cases) {
        const std::string error = ErrorOf(text);
        EXPECT_NE(error.find(message), std::string::npos) << "sheet:\n" << text << "\nerror: " << error;
    }
    EXPECT_EQ(TestSupport::ErrorOf([] { Vorpa::LoadSampleSheet("/no/such/sheet.tsv", kKnown, kReserved); }),
              "Could not open the sample sheet '/no/such/sheet.tsv'");
}

TEST(SampleSheet, PairsAreReportedAsFrontUnderscoreRear) {
    const auto sheet = Parse("sample\trear\tfront\nA\tR01\tF01\nB\tR02\tF01\nA\tR01\tF02\n");
    EXPECT_EQ(sheet.samples, (std::vector<std::string>{"A", "B"}));
    ASSERT_EQ(sheet.pairs.size(), 3u);
    EXPECT_EQ(sheet.pairs[1].front, "F01");
    EXPECT_EQ(sheet.pairs[1].rear, "R02");
    EXPECT_EQ(*sheet.SampleOf("F01_R02"), "B");
    EXPECT_EQ(*sheet.SampleOf("F02_R01"), "A");
    EXPECT_EQ(sheet.SampleOf("F02_R02"), nullptr);
    EXPECT_EQ(sheet.SampleOf("F01"), nullptr);
}

// Random sheets of pairs against the rows as written: every name a read can
// be reported by finds its row's sample, also in a copy of the sheet and
// after entries are added by hand and the sheet indexed again.
TEST(SampleSheet, LookupAgreesWithTheRowsOfRandomSheets) {
    std::mt19937 rng(2611);
    const auto named = [](char end, unsigned k) {
        return std::string(1, end) + (k < 10 ? "0" : "") + std::to_string(k);
    };
    std::set<std::string> barcodes;
    for (unsigned k = 1; k <= 12; ++k)
        barcodes.insert({named('F', k), named('R', k)});
    for (int round = 0; round < 20; ++round) {
        std::map<std::string, std::string> rows;  // pair name -> sample
        std::string text = "front\trear\tsample\n";
        for (unsigned f = 1; f <= 12; ++f)
            for (unsigned r = 1; r <= 12; ++r) {
                if (rng() % 3 == 0) continue;
                const std::string sample = "S" + std::to_string(rng() % (1 + round * 5));
                text += named('F', f) + "\t" + named('R', r) + "\t" + sample + "\n";
                rows[named('F', f) + "_" + named('R', r)] = sample;
            }
        std::istringstream in(text);
        const auto parsed = Vorpa::ParseSampleSheet(in, "pairs.tsv", kKnown, kReserved, barcodes);
        auto sheet = parsed;  // the lookup must not point into the sheet it was built for
        sheet.sample_of["F01_R01"] = "added";
        sheet.sample_of["F01_R02"] = parsed.samples.front();
        sheet.Index();
        for (const Vorpa::SampleSheet* checked : {&parsed, static_cast<const Vorpa::SampleSheet*>(&sheet)})
            for (unsigned f = 1; f <= 12; ++f)
                for (unsigned r = 1; r <= 12; ++r) {
                    const std::string name = named('F', f) + "_" + named('R', r);
                    const auto& want = checked == &parsed ? rows : checked->sample_of;
                    const auto row = want.find(name);
                    const std::string* got = checked->SampleOf(name);
                    const int number = checked->SampleNumberOf(name);
                    if (row == want.end()) {
                        EXPECT_EQ(got, nullptr) << name;
                        EXPECT_EQ(number, -1) << name;
                        continue;
                    }
                    ASSERT_NE(got, nullptr) << name;
                    EXPECT_EQ(*got, row->second) << name;
                    ASSERT_GE(number, 0) << name;
                    EXPECT_EQ(&checked->samples[static_cast<size_t>(number)], got) << name;
                }
        EXPECT_EQ(sheet.samples.back(), "added");
        EXPECT_EQ(sheet.samples.size(), parsed.samples.size() + 1);
    }
}

}  // namespace
