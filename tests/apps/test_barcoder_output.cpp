// The summary rows and the end-of-run report: where a read could silently lose
// a column or be miscounted.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "apps/run_report.h"
#include "apps/summary_row.h"
#include "tests/support/random_bases.h"

namespace {

using TestSupport::RandomBases;

std::vector<std::string> SplitRow(const std::string& row) {
    EXPECT_FALSE(row.empty());
    EXPECT_EQ(row.back(), '\n');
    std::vector<std::string> fields;
    std::string field;
    for (char c : row.substr(0, row.size() - 1)) {
        if (c == '\t') {
            fields.push_back(field);
            field.clear();
        } else {
            field += c;
        }
    }
    fields.push_back(field);
    return fields;
}

std::string SummaryRow(const std::string& read_id, const Barcoding::ArrangementDetectResult& best, int rear_window,
                       const Vorpa::TrimmedBases* trimmed, const std::string* sample = nullptr) {
    std::string row;
    Vorpa::AppendSummaryRow(row, read_id, best, rear_window, trimmed, sample);
    return row;
}

Barcoding::BarcodeDetectResult RandomEnd(std::mt19937& rng, const std::string& id) {
    Barcoding::BarcodeDetectResult end;
    if (rng() % 4 == 0) return end;  // no barcode at this end
    end.id = id;
    end.reference_sequence = RandomBases(rng, 24);
    end.found_sequence = RandomBases(rng, 20 + rng() % 8);
    end.score = static_cast<float>(rng() % 10000) / 100.0f;
    end.begin_index = static_cast<int>(rng() % 60);
    return end;
}

std::string Text(float value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

// Every row, whatever ends it has, lines up with the header; an end without a
// barcode is its empty id and five zeros; the rear index is turned around.
TEST(SummaryRow, ColumnsAgreeWithHeaderAndDetections) {
    std::mt19937 rng(7);
    for (int trial = 0; trial < 200; ++trial) {
        Barcoding::ArrangementDetectResult best;
        best.id = "barcode07_var1";
        best.normalised_id = "barcode07";
        best.kit = "VB-NB24";
        best.variant = "var1";
        best.score = 71.5f;
        best.front = RandomEnd(rng, "BC07_FWD");
        best.rear = RandomEnd(rng, "BC07_REV");
        const int window = 40 + static_cast<int>(rng() % 100);
        const bool trim = rng() % 2 == 0;
        const Vorpa::TrimmedBases trimmed{static_cast<int>(rng() % 50), static_cast<int>(rng() % 50)};

        const auto header = SplitRow(Vorpa::SummaryHeader(trim));
        const auto row = SplitRow(SummaryRow("read1", best, window, trim ? &trimmed : nullptr));
        const auto empty = SplitRow(Vorpa::NoResultRow("read2", trim));
        ASSERT_EQ(header.size(), trim ? 20u : 18u);
        ASSERT_EQ(row.size(), header.size());
        ASSERT_EQ(empty.size(), header.size());
        EXPECT_EQ(header[17], "barcode_rear_end_index");
        EXPECT_EQ(empty[1], "unclassified");

        EXPECT_EQ(row[1], "barcode07");
        EXPECT_EQ(row[2], "barcode07_var1");
        EXPECT_EQ(row[5], "71.5");
        for (int side = 0; side < 2; ++side) {
            const auto& end = side == 0 ? best.front : best.rear;
            const size_t first = side == 0 ? 6 : 12;
            EXPECT_EQ(row[first], end.id);
            if (end.id.empty()) {
                for (size_t k = first + 1; k < first + 6; ++k)
                    EXPECT_EQ(row[k], "0");
                continue;
            }
            const int length = static_cast<int>(end.found_sequence.size());
            EXPECT_EQ(row[first + 1], Text(end.score));
            EXPECT_EQ(row[first + 3], end.found_sequence);
            EXPECT_EQ(row[first + 4], std::to_string(length));
            const int position = side == 0 ? end.begin_index : window - length - end.begin_index;
            EXPECT_EQ(row[first + 5], std::to_string(position));
        }
        if (trim) {
            EXPECT_EQ(row[18], std::to_string(trimmed.front));
            EXPECT_EQ(row[19], std::to_string(trimmed.rear));
        }
    }
}

// Scores are written as a default-formatted stream writes a float, whatever
// their magnitude: users and scripts parse these columns.
TEST(SummaryRow, ScoresPrintLikeTheStreamDefault) {
    std::mt19937 rng(11);
    std::vector<float> values = {0.0f,
                                 -0.0f,
                                 100.0f,
                                 -100.0f,
                                 56.5f,
                                 1e-7f,
                                 123456.0f,
                                 1234567.0f,
                                 1e30f,
                                 std::numeric_limits<float>::infinity(),
                                 -std::numeric_limits<float>::infinity(),
                                 std::numeric_limits<float>::denorm_min()};
    for (int k = 0; k < 20000; ++k) {
        uint32_t bits = static_cast<uint32_t>(rng());
        float value;
        std::memcpy(&value, &bits, sizeof value);
        if (std::isnan(value)) continue;
        values.push_back(value);
        values.push_back(static_cast<float>(static_cast<int>(rng() % 40000) - 20000) / 100.0f);
    }
    for (float value : values) {
        Barcoding::ArrangementDetectResult best;
        best.score = value;
        const auto row = SplitRow(SummaryRow("r", best, 100, nullptr));
        ASSERT_EQ(row[5], Text(value)) << value;
    }
}

// A read id may hold TAB, CR or newline (only spaces end it); each becomes
// '_' so the row keeps its columns and stays one line.
TEST(SummaryRow, ControlCharactersInTextsKeepTheRowShape) {
    Barcoding::ArrangementDetectResult best;
    best.id = "odd\tid";
    best.normalised_id = "barcode01";
    best.kit = "K\r";
    best.variant = "var1";
    best.front.id = "BC01_FWD";
    best.front.found_sequence = "ACGT";
    const std::string id = "r\t1\r\n2";
    for (bool trim : {false, true}) {
        const Vorpa::TrimmedBases trimmed{1, 2};
        for (const std::string& text :
             {SummaryRow(id, best, 100, trim ? &trimmed : nullptr), Vorpa::NoResultRow(id, trim)}) {
            EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
            EXPECT_EQ(text.find('\r'), std::string::npos);
            const auto row = SplitRow(text);
            ASSERT_EQ(row.size(), trim ? 20u : 18u);
            EXPECT_EQ(row[0], "r_1__2");
        }
    }
    const auto row = SplitRow(SummaryRow(id, best, 100, nullptr));
    EXPECT_EQ(row[2], "odd_id");
    EXPECT_EQ(row[3], "K_");
}

// Every combination of optional columns: header and both kinds of row line
// up, the optional columns come in their documented order, and without the
// quality columns a row is what it was before they existed.
TEST(SummaryRow, QualityColumnsSitBetweenTrimAndSample) {
    Barcoding::ArrangementDetectResult best;
    best.normalised_id = "barcode03";
    best.front.id = "BC03_FWD";
    best.quality = 37;
    best.inputs.front = {true, 55.5f, 80.25f, 6.5f, 20, -55.5f, 3.5f, 150};
    best.inputs.rear.window = 120;  // an end without a barcode: zeros, then its window
    const Vorpa::TrimmedBases trimmed{12, 7};
    const std::string sample = "Liver-A";
    for (int mask = 0; mask < 32; ++mask) {
        const bool trim = mask & 1, sample_column = mask & 8, reason = mask & 16;
        const Vorpa::QualityColumns quality{(mask & 2) != 0, (mask & 4) != 0};
        SCOPED_TRACE(mask);
        const auto header = SplitRow(Vorpa::SummaryHeader(trim, sample_column, reason, quality));
        std::string text;
        Vorpa::AppendSummaryRow(text, "r1", best, 100, trim ? &trimmed : nullptr, sample_column ? &sample : nullptr,
                                reason ? "" : nullptr, quality);
        const auto row = SplitRow(text);
        const auto empty = SplitRow(
            Vorpa::NoResultRow("r2", trim, sample_column ? &sample : nullptr, reason ? "x" : nullptr, quality));
        ASSERT_EQ(header.size(), 18u + 2 * trim + quality.quality + 12 * quality.evidence + sample_column + reason);
        ASSERT_EQ(row.size(), header.size());
        ASSERT_EQ(empty.size(), header.size());
        size_t at = 18 + 2 * trim;
        if (quality.quality) {
            EXPECT_EQ(header[at], "barcode_quality");
            EXPECT_EQ(row[at], "37");
            EXPECT_EQ(empty[at], "0");
            ++at;
        }
        if (quality.evidence) {
            EXPECT_EQ(header[at], "barcode_front_presence");
            EXPECT_EQ(header[at + 11], "barcode_rear_window");
            const std::vector<std::string> front = {"80.25", "6.5", "20", "-55.5", "3.5", "150"};
            const std::vector<std::string> rear = {"0", "0", "0", "0", "0", "120"};
            EXPECT_EQ(std::vector<std::string>(row.begin() + at, row.begin() + at + 6), front);
            EXPECT_EQ(std::vector<std::string>(row.begin() + at + 6, row.begin() + at + 12), rear);
            at += 12;
        }
        if (sample_column) {
            EXPECT_EQ(header[at++], "sample");
        }
        if (reason) {
            EXPECT_EQ(header[at++], "barcode_unclassified_reason");
        }
        EXPECT_EQ(at, header.size());
        if (!quality.quality && !quality.evidence && !reason) {
            EXPECT_EQ(text, SummaryRow("r1", best, 100, trim ? &trimmed : nullptr, sample_column ? &sample : nullptr));
        }
    }
}

TEST(RunReport, TotalsAndUnclassifiedLast) {
    Vorpa::RunTally tally;
    for (const auto& [name, reads] :
         std::vector<std::pair<std::string, int>>{{"unclassified", 25}, {"barcode02", 25}, {"barcode10", 50}}) {
        for (int k = 0; k < reads; ++k)
            tally.arrangements[name].Add(1000, 80.0f);
    }
    tally.dropped = 3;
    tally.unclassified_reasons["no barcode above the minimum"] = 25;
    const auto lines = Vorpa::FormatRunReport(tally, 2.0);
    std::string text;
    for (const auto& line : lines)
        text += line + "\n";
    EXPECT_LT(text.find("barcode02"), text.find("barcode10"));
    EXPECT_LT(text.find("barcode10"), text.find("unclassified"));
    EXPECT_NE(text.find("50.00%"), std::string::npos);
    EXPECT_NE(text.find("Classified: 75 of 100 reads (75.00%), unclassified: 25 (25.00%)."), std::string::npos);
    EXPECT_NE(text.find("52 reads/s"), std::string::npos);  // 103 reads taken in 2 s
    EXPECT_NE(text.find("no barcode above the minimum: 25"), std::string::npos);
    EXPECT_NE(text.find("Reads without a run id (not written): 3."), std::string::npos);
    EXPECT_EQ(text.find("Reads per sample:"), std::string::npos);
    EXPECT_EQ(text.find("Secondary and supplementary"), std::string::npos);

    // Per-batch tallies add up to the same totals in any grouping.
    Vorpa::RunTally halves[2];
    for (int k = 0; k < 100; ++k)
        halves[k % 2].arrangements[k % 3 == 0 ? "a" : "b"].Add(10, k % 7 == 0 ? -INFINITY : 50.0f);
    Vorpa::RunTally sum;
    sum.Add(halves[0]);
    sum.Add(halves[1]);
    EXPECT_EQ(sum.Written(), 100u);
    EXPECT_EQ(sum.arrangements["a"].reads + sum.arrangements["b"].reads, 100u);
    EXPECT_EQ(sum.arrangements["a"].bases + sum.arrangements["b"].bases, 1000u);
    EXPECT_EQ(sum.arrangements["a"].scored + sum.arrangements["b"].scored, 100u - 15u);
}

// With a sample sheet the report also counts reads per sample, a sample
// without reads included, "unclassified" last.
TEST(RunReport, ReadsPerSampleAndSkippedRecords) {
    Vorpa::RunTally tally;
    tally.samples = {{"Liver-A", 0}, {"Kidney", 0}, {"zebra", 0}};
    Vorpa::RunTally batch;
    for (int k = 0; k < 40; ++k) {
        const std::string sample = k < 30 ? "Liver-A" : "unclassified";
        batch.arrangements[k < 20 ? "barcode01" : k < 30 ? "barcode02" : "unclassified"].Add(100, 70.0f);
        ++batch.samples[sample];
    }
    batch.unclassified_reasons["not in sample sheet"] = 10;
    batch.records_skipped = 4;
    tally.Add(batch);
    std::string text;
    for (const auto& line : Vorpa::FormatRunReport(tally, 1.0))
        text += line + "\n";
    const size_t table = text.find("Reads per sample:\n  sample            reads  percent\n");
    ASSERT_NE(table, std::string::npos) << text;
    EXPECT_NE(text.find("  Liver-A              30   75.00%\n", table), std::string::npos) << text;
    EXPECT_NE(text.find("  Kidney                0    0.00%\n", table), std::string::npos) << text;
    EXPECT_LT(text.find("zebra", table), text.find("unclassified", table));
    EXPECT_NE(text.find("  unclassified, not in sample sheet: 10"), std::string::npos) << text;
    EXPECT_NE(text.find("Secondary and supplementary records skipped (not reads of their own): 4."), std::string::npos);
}

}  // namespace
