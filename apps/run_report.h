#pragma once
// The end-of-run report: how the reads were classified and how fast.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Vorpa {

struct RunTally {
    std::map<std::string, uint64_t> reads_per_arrangement;  // by reported arrangement name, "unclassified" included
    uint64_t dropped = 0;                                   // reads without a run id, written nowhere
};

// The report as lines of text (no newlines): a table of arrangement, reads and
// percent of written reads (arrangements by name, "unclassified" last), the
// classified and unclassified totals and the throughput over seconds.
std::vector<std::string> FormatRunReport(const RunTally& tally, double seconds);

}  // namespace Vorpa
