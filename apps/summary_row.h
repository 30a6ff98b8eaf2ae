#pragma once
// Rows of barcoding_summary.txt: one tab-separated line per classified read.

#include <string>
#include <string_view>

#include "barcoding/detect_results.h"

namespace Vorpa {

// Bases actually removed from each end of a read; present only when trimming is on.
struct TrimmedBases {
    int front = 0;
    int rear = 0;
};

// The columns about how sure a call is, each on or off for a whole run.
struct QualityColumns {
    bool quality = false;   // "barcode_quality": the call's Phred-scaled quality, 0 when unclassified
    bool evidence = false;  // per end, the quality's inputs (Barcoding::EndEvidence), 12 columns
};

// Optional columns follow the fixed ones, always in this order: the two trim
// columns (with --trim_barcodes), "barcode_quality", the evidence columns,
// "sample" (with a sample sheet), "barcode_unclassified_reason" (with
// --unclassified_reason_column), then "barcode_internal_count" (with
// --internal_count_column). Each is present in the header exactly when it is
// in every row.

// The column names, tab separated, ending in a newline.
std::string SummaryHeader(bool with_trim_columns, bool with_sample_column = false, bool with_reason_column = false,
                          QualityColumns quality = {}, bool with_internal_count_column = false);

// Appends the row for a read classified as best to out. rear_window is the
// length of the rear window actually used: min(rear_window_size, read
// length). trimmed == nullptr leaves out the two trim columns, sample ==
// nullptr the sample column, reason == nullptr the reason column (an empty
// text leaves it empty), internal_count == nullptr barcode_internal_count.
void AppendSummaryRow(std::string& out, std::string_view read_id, const Barcoding::ArrangementDetectResult& best,
                      int rear_window, const TrimmedBases* trimmed, const std::string* sample = nullptr,
                      const char* reason = nullptr, QualityColumns quality = {}, const int* internal_count = nullptr);

// The row for a read the scorer returned nothing for: the read id,
// "unclassified", then empty or zero values, as many columns as AppendSummaryRow.
std::string NoResultRow(std::string_view read_id, bool with_trim_columns, const std::string* sample = nullptr,
                        const char* reason = nullptr, QualityColumns quality = {}, const int* internal_count = nullptr);

}  // namespace Vorpa
