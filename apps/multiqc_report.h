#pragma once
// MultiQC custom content: two files in the save folder that `multiqc <save
// folder>` turns into a section of its report. MultiQC reads one section per
// "*_mqc.json" file, so the bar graph and the general statistics are apart.

#include <string>

#include "apps/run_report.h"

namespace Vorpa {

inline constexpr const char* kMultiqcReadsFileName = "barcoding_mqc.json";
inline constexpr const char* kMultiqcStatsFileName = "barcoding_stats_mqc.json";

// Reads per arrangement (per sample with a sample sheet, "unclassified"
// last) as a bar graph, with the run's headline figures in its description.
std::string FormatMultiqcReads(const RunTally& tally);

// One general-statistics row per arrangement (or sample): reads, percent of
// the run's reads and, per arrangement, bases and mean read length.
std::string FormatMultiqcStats(const RunTally& tally);

}  // namespace Vorpa
