#pragma once
// The end-of-run report: how the reads were classified and how fast, as log
// lines for people and as barcoding_report.json for workflows and QC tools.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Vorpa {

// Name of the machine-readable report in the save folder.
inline constexpr const char* kJsonReportFileName = "barcoding_report.json";

// What was written under one reported arrangement name.
struct ArrangementTally {
    uint64_t reads = 0;
    uint64_t bases = 0;         // sequence bases written (after trimming, when on)
    uint64_t scored_reads = 0;  // reads whose barcode_score is finite
    double score_sum = 0;       // sum of those barcode_score values
};

struct RunTally {
    std::map<std::string, ArrangementTally> arrangements;  // by reported name, "unclassified" included
    uint64_t dropped = 0;                                  // reads without a run id, written nowhere
    uint64_t files_found = 0;                              // input files taken up by the run
};

// Counts one written read: its arrangement, the bases written and the value
// of its summary row's barcode_score column.
void CountRead(RunTally& tally, const std::string& arrangement, uint64_t bases, double score);

// The report as lines of text (no newlines): a table of arrangement, reads and
// percent of written reads (arrangements by name, "unclassified" last), the
// classified and unclassified totals and the throughput over seconds.
std::vector<std::string> FormatRunReport(const RunTally& tally, double seconds);

// What the JSON report says about the run besides the tally.
struct RunInfo {
    std::string version;
    std::vector<std::pair<std::string, std::string>> options;  // name and value text, in declaration order
    double wall_time_s = 0;
};

// The text of barcoding_report.json (ends in a newline). Keys keep a fixed
// order; counts are JSON integers, the other figures JSON numbers with a
// fraction; arrangements by name with "unclassified" last.
std::string FormatJsonReport(const RunTally& tally, const RunInfo& info);

// text as a JSON string literal, quotes included. Bytes that are not UTF-8
// come out as U+FFFD, so the report always parses.
std::string JsonString(const std::string& text);

// Replaces path by a file holding text, through a temporary file in the same
// folder that is renamed over it: readers see the old file or the whole new
// one, never a part. Throws std::runtime_error naming the file.
void WriteFileAtomically(const std::string& path, const std::string& text);

}  // namespace Vorpa
