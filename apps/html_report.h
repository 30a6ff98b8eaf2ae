#pragma once
// barcoding_report.html: the run for people to look at. One self-contained
// page (styles inline, plots as inline SVG, no script, nothing fetched), which
// is also well-formed XML so that tools can read it back.

#include <string>

#include "apps/run_report.h"

namespace Vorpa {

inline constexpr const char* kHtmlReportFileName = "barcoding_report.html";

// Arrangements whose read lengths are plotted one line each (by reads, most
// first); unclassified reads get a line of their own besides.
inline constexpr size_t kLengthPlotArrangements = 24;

// The page: headline figures; reads and bases per arrangement (and reads per
// sample with a sample sheet); read lengths of the leading arrangements and
// of unclassified reads; barcode scores of classified against unclassified
// reads; unclassified reads by reason; mixed-barcode reads; files and reads
// lost; the settings. With info.finished false the page says that the run
// is still going.
std::string FormatHtmlReport(const RunTally& tally, const RunInfo& info);

}  // namespace Vorpa
