// The sample sheet: what it accepts, and that every fault is refused with the
// file and line named, before a run writes anything.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "apps/sample_sheet.h"

namespace {

const std::set<std::string> kKnown = {"barcode01", "barcode02", "barcode03", "barcode04"};
const std::vector<std::string> kReserved = {"unclassified", "barcoding_summary.txt"};

Vorpa::SampleSheet Parse(const std::string& text) {
    std::istringstream in(text);
    return Vorpa::ParseSampleSheet(in, "sheet.tsv", kKnown, kReserved);
}

std::string ErrorOf(const std::string& text) {
    try {
        Parse(text);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(accepted)";
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
}

TEST(SampleSheet, EveryFaultNamesTheFileAndLine) {
    const std::string head = "arrangement\tsample\n";
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
        {head + "barcode01\tUnclassified\n", "line 2: the sample name 'Unclassified' is reserved for other output."},
        {head + "barcode01\tbarcoding_summary.txt\n", "is reserved for other output."},
        {head + "barcode01\tPatientA\nbarcode02\tpatienta\n",
         "line 3: the sample name 'patienta' differs from 'PatientA' (line 2) only in letter case; they would "
         "share a folder on some file systems."},
    };
    for (const auto& [text, message] : cases) {
        const std::string error = ErrorOf(text);
        EXPECT_NE(error.find(message), std::string::npos) << "sheet:\n" << text << "\nerror: " << error;
    }
    try {
        Vorpa::LoadSampleSheet("/no/such/sheet.tsv", kKnown, kReserved);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Could not open the sample sheet '/no/such/sheet.tsv'");
    }
}

}  // namespace
