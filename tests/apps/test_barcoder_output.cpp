// The summary rows and the read hand-over between the feeding thread and the
// workers: the two places where a read could silently lose a column or vanish.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "apps/read_batch_queue.h"
#include "apps/run_report.h"
#include "apps/summary_row.h"

namespace {

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

std::string RandomBases(std::mt19937& rng, int length) {
    std::string bases;
    for (int i = 0; i < length; ++i)
        bases += "ACGT"[rng() % 4];
    return bases;
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
        const auto row = SplitRow(Vorpa::SummaryRow("read1", best, window, trim ? &trimmed : nullptr));
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

TEST(RunReport, TotalsAndUnclassifiedLast) {
    Vorpa::RunTally tally;
    tally.arrangements = {{"unclassified", {25}}, {"barcode02", {25}}, {"barcode10", {50}}};
    tally.dropped = 3;
    const auto lines = Vorpa::FormatRunReport(tally, 2.0);
    std::string text;
    for (const auto& line : lines)
        text += line + "\n";
    EXPECT_LT(text.find("barcode02"), text.find("barcode10"));
    EXPECT_LT(text.find("barcode10"), text.find("unclassified"));
    EXPECT_NE(text.find("50.00%"), std::string::npos);
    EXPECT_NE(text.find("Classified: 75 of 100 reads (75.00%), unclassified: 25 (25.00%)."), std::string::npos);
    EXPECT_NE(text.find("52 reads/s"), std::string::npos);  // 103 reads taken in 2 s
}

// Several feeders and workers through a two-batch queue, so that feeders
// block on a full queue: every read still comes out exactly once.
TEST(ReadBatchQueue, EveryReadHandedOutOnce) {
    constexpr int kFeeders = 3, kWorkers = 4, kBatchesPerFeeder = 300;
    Vorpa::ReadBatchQueue queue(2);
    std::vector<std::vector<std::string>> taken(kWorkers);
    std::vector<std::thread> threads;
    for (int w = 0; w < kWorkers; ++w) {
        threads.emplace_back([&, w] {
            Vorpa::ReadBatch batch;
            while (queue.Pop(batch)) {
                for (const auto& record : batch)
                    taken[w].push_back(record.title);
            }
        });
    }
    std::vector<std::thread> feeders;
    for (int f = 0; f < kFeeders; ++f) {
        feeders.emplace_back([&, f] {
            std::mt19937 rng(f);
            for (int b = 0; b < kBatchesPerFeeder; ++b) {
                Vorpa::ReadBatch batch(rng() % 5);  // empty batches are ignored
                for (size_t r = 0; r < batch.size(); ++r) {
                    batch[r].title = std::to_string(f * 1000000 + b * 10 + static_cast<int>(r));
                }
                queue.Push(std::move(batch));
            }
        });
    }
    for (auto& feeder : feeders)
        feeder.join();
    queue.Close();
    for (auto& thread : threads)
        thread.join();

    std::vector<std::string> all;
    for (const auto& titles : taken)
        all.insert(all.end(), titles.begin(), titles.end());
    std::set<std::string> unique(all.begin(), all.end());
    EXPECT_EQ(unique.size(), all.size());
    size_t expected = 0;
    for (int f = 0; f < kFeeders; ++f) {
        std::mt19937 rng(f);
        for (int b = 0; b < kBatchesPerFeeder; ++b)
            expected += rng() % 5;
    }
    EXPECT_EQ(all.size(), expected);
}

}  // namespace
