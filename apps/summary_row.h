#pragma once
// Rows of barcoding_summary.txt: one tab-separated line per classified read.

#include <string>

#include "barcoding/detect_results.h"

namespace Vorpa {

// Bases actually removed from each end of a read; present only when trimming is on.
struct TrimmedBases {
    int front = 0;
    int rear = 0;
};

// The column names, tab separated, ending in a newline. The two trim columns
// are present exactly when with_trim_columns is set, as in every row.
// With with_reason_column, a last column "barcode_unclassified_reason", which
// the caller fills (rows here end before it).
std::string SummaryHeader(bool with_trim_columns, bool with_reason_column = false);

// Appends the row for a read classified as best to out (see SummaryRow).
void AppendSummaryRow(std::string& out, const std::string& read_id, const Barcoding::ArrangementDetectResult& best,
                      int rear_window, const TrimmedBases* trimmed);

// The row for a read classified as best. rear_window is the length of the rear
// window actually used: min(rear_window_size, read length). trimmed == nullptr
// leaves out the two trim columns.
std::string SummaryRow(const std::string& read_id, const Barcoding::ArrangementDetectResult& best, int rear_window,
                       const TrimmedBases* trimmed);

// The row for a read the scorer returned nothing for: the read id,
// "unclassified", then empty or zero values, as many columns as SummaryRow.
std::string NoResultRow(const std::string& read_id, bool with_trim_columns);

}  // namespace Vorpa
