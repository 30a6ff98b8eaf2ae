#include "apps/html_report.h"

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "apps/svg_plot.h"
#include "common/string_utils.h"

namespace Vorpa {

namespace {

using Common::FormatString;

const char* const kStyle =
    "body{font-family:sans-serif;margin:24px auto;max-width:1200px;color:#222;padding:0 16px}"
    "h1{font-size:22px;margin-bottom:4px}h2{font-size:17px;margin-top:32px;border-bottom:1px solid #ccc}"
    "p.note{color:#555;font-size:13px;max-width:900px}"
    "table{border-collapse:collapse;font-size:13px}td,th{padding:3px 10px;border-bottom:1px solid #eee;"
    "text-align:left}td.n{text-align:right;font-variant-numeric:tabular-nums}"
    ".plot{overflow-x:auto}.running{background:#fff3cd;padding:6px 10px;border:1px solid #e0c060}";

// 1234567 -> "1,234,567".
std::string Grouped(uint64_t value) {
    const std::string digits = std::to_string(value);
    std::string grouped;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
        grouped += digits[i];
    }
    return grouped;
}

// Bases as "812 b", "3.4 kb", "1.23 Gb".
std::string Bases(double value) {
    const char* units[] = {"b", "kb", "Mb", "Gb", "Tb"};
    size_t unit = 0;
    while (value >= 1000 && unit + 1 < std::size(units)) {
        value /= 1000;
        ++unit;
    }
    return unit == 0 ? FormatString("%.0f b", value) : FormatString("%.3g %s", value, units[unit]);
}

std::string PercentText(uint64_t part, uint64_t total) {
    return total == 0 ? "0.0 %" : FormatString("%.1f %%", 100.0 * static_cast<double>(part) / total);
}

// Arrangements by name with unclassified last: the order of every table.
std::vector<std::pair<std::string, const ArrangementTally*>> InReportOrder(const RunTally& tally) {
    std::vector<std::pair<std::string, const ArrangementTally*>> order;
    for (const auto& [name, figures] : tally.arrangements)
        if (name != kUnclassified) order.emplace_back(name, &figures);
    if (const auto found = tally.arrangements.find(kUnclassified); found != tally.arrangements.end())
        order.emplace_back(found->first, &found->second);
    return order;
}

struct Page {
    std::string html;

    void Section(const char* id, const std::string& title, const std::string& note = "") {
        html += FormatString("<section id=\"%s\"><h2>%s</h2>", id, XmlEscape(title));
        if (!note.empty()) html += "<p class=\"note\">" + XmlEscape(note) + "</p>";
    }
    void EndSection() { html += "</section>\n"; }
    void Plot(const std::string& svg) { html += "<div class=\"plot\">" + svg + "</div>"; }
    // A two-column table of label and figure; rows with an empty figure are left out.
    void Table(const std::vector<std::pair<std::string, std::string>>& rows) {
        html += "<table>";
        for (const auto& [label, figure] : rows) {
            if (figure.empty()) continue;
            html += "<tr><th>" + XmlEscape(label) + "</th><td class=\"n\">" + XmlEscape(figure) + "</td></tr>";
        }
        html += "</table>";
    }
};

void Headline(Page& page, const RunTally& tally, const RunInfo& info) {
    const uint64_t written = tally.Written(), unclassified = tally.Unclassified();
    uint64_t bases = 0;
    for (const auto& [name, figures] : tally.arrangements)
        bases += figures.bases;
    const uint64_t taken = written + tally.dropped + tally.failed;
    page.Section("summary", "Summary");
    page.Table(
        {{"Reads written", Grouped(written)},
         {"Classified", Grouped(written - unclassified) + " (" + PercentText(written - unclassified, written) + ")"},
         {"Unclassified", Grouped(unclassified) + " (" + PercentText(unclassified, written) + ")"},
         {"Bases written", Bases(static_cast<double>(bases))},
         {"Mean read length", written == 0 ? "0" : FormatString("%.0f", static_cast<double>(bases) / written)},
         {"Input files read", Grouped(tally.files_read) + " of " + Grouped(tally.files_found)},
         {"Wall time", FormatString("%.1f s", info.wall_time_s)},
         {"Throughput", info.wall_time_s > 0 ? FormatString("%.0f reads/s", taken / info.wall_time_s) : ""}});
    page.EndSection();
}

void ReadsAndBases(Page& page, const RunTally& tally) {
    BarChart chart;
    BarPanel reads{"reads", {}, {}}, bases{"bases", {}, {}};
    const uint64_t written = tally.Written();
    for (const auto& [name, figures] : InReportOrder(tally)) {
        chart.labels.push_back(name);
        chart.muted.push_back(name == kUnclassified);
        reads.values.push_back(static_cast<double>(figures->reads));
        reads.texts.push_back(Grouped(figures->reads) + " (" + PercentText(figures->reads, written) + ")");
        bases.values.push_back(static_cast<double>(figures->bases));
        bases.texts.push_back(Bases(static_cast<double>(figures->bases)));
    }
    chart.panels = {std::move(reads), std::move(bases)};
    page.Section("arrangements", "Reads and bases per arrangement",
                 "Reads as written to each arrangement's output, bases after trimming.");
    page.Plot(BarChartSvg(chart));
    page.EndSection();
    if (tally.samples.empty()) return;
    BarChart samples;
    BarPanel panel{"reads", {}, {}};
    for (const auto& [sample, count] : tally.samples) {
        if (sample == kUnclassified) continue;
        samples.labels.push_back(sample);
        panel.values.push_back(static_cast<double>(count));
        panel.texts.push_back(Grouped(count) + " (" + PercentText(count, written) + ")");
    }
    if (const auto found = tally.samples.find(kUnclassified); found != tally.samples.end()) {
        samples.labels.push_back(kUnclassified);
        panel.values.push_back(static_cast<double>(found->second));
        panel.texts.push_back(Grouped(found->second) + " (" + PercentText(found->second, written) + ")");
    }
    samples.muted.assign(samples.labels.size(), false);
    if (!samples.muted.empty() && samples.labels.back() == kUnclassified) samples.muted.back() = true;
    samples.panels = {std::move(panel)};
    page.Section("samples", "Reads per sample", "Arrangements the sample sheet does not list count as unclassified.");
    page.Plot(BarChartSvg(samples));
    page.EndSection();
}

// One line per leading arrangement and one for unclassified reads, each as
// percent of its own reads, over the bins that hold any read.
void ReadLengths(Page& page, const RunTally& tally) {
    std::vector<std::pair<std::string, const ArrangementTally*>> shown;
    for (const auto& [name, figures] : tally.arrangements)
        if (name != kUnclassified) shown.emplace_back(name, &figures);
    std::stable_sort(shown.begin(), shown.end(),
                     [](const auto& a, const auto& b) { return a.second->reads > b.second->reads; });
    const size_t others = shown.size() > kLengthPlotArrangements ? shown.size() - kLengthPlotArrangements : 0;
    shown.resize(std::min(shown.size(), kLengthPlotArrangements));
    if (const auto found = tally.arrangements.find(kUnclassified); found != tally.arrangements.end())
        shown.emplace_back(found->first, &found->second);

    size_t first = LengthHistogram::kBins, last = 0;
    for (const auto& [name, figures] : shown) {
        for (size_t bin = 0; bin < LengthHistogram::kBins; ++bin) {
            if (figures->lengths.counts[bin] == 0) continue;
            first = std::min(first, bin);
            last = std::max(last, bin);
        }
    }
    LineChart chart;
    chart.log_x = true;
    chart.x_title = "read length (bases, log scale)";
    chart.y_title = "percent of the arrangement's reads";
    if (first <= last) {
        // Length 0 has no place on a log scale; it counts with length 1.
        first = std::max<size_t>(first, 1);
        last = std::max(last, first);
        for (size_t bin = first; bin <= last; ++bin)
            chart.x.push_back(static_cast<double>(LengthHistogram::BinStart(bin)));
        for (const auto& [name, figures] : shown) {
            LineSeries series{name + " (" + Grouped(figures->reads) + ")", {}, name == kUnclassified};
            const double total = static_cast<double>(std::max<uint64_t>(1, figures->lengths.Total()));
            for (size_t bin = first; bin <= last; ++bin) {
                uint64_t count = figures->lengths.counts[bin];
                if (bin == first && first == 1) count += figures->lengths.counts[0];
                series.y.push_back(100.0 * static_cast<double>(count) / total);
            }
            chart.series.push_back(std::move(series));
        }
    }
    std::string note = "Lengths as written, in quarter-octave bins.";
    if (others > 0)
        note += FormatString(" The %zu arrangements with the most reads are shown; %zu more are not.",
                             kLengthPlotArrangements, others);
    page.Section("lengths", "Read lengths", note);
    page.Plot(LineChartSvg(chart));
    page.EndSection();
}

// Each per-read value the tally splits by classified and unclassified reads.
void Distributions(Page& page, const RunTally& tally) {
    const struct {
        const char* id;
        const char* title;
        const char* axis;
        const ClassifiedSplit* split;
    } plots[] = {
        {"scores", "Barcode scores", "barcode score (100: a perfect barcode)", &tally.scores},
        {"quality", "Barcode quality", "barcode quality (-10 log10 of the chance that the barcode is wrong)",
         &tally.quality},
    };
    for (const auto& plot : plots) {
        LineChart chart;
        chart.x_title = plot.axis;
        chart.y_title = "percent of the group's reads";
        const ValueScale& scale = plot.split->scale;
        for (size_t bin = 0; bin < scale.bins; ++bin)
            chart.x.push_back(scale.BinStart(bin));
        const std::pair<const char*, const ValueHistogram*> groups[] = {{"classified", &plot.split->classified},
                                                                        {kUnclassified, &plot.split->unclassified}};
        for (const auto& [name, histogram] : groups) {
            LineSeries series{std::string(name) + " (" + Grouped(histogram->Total()) + ")", {}, name == kUnclassified};
            const double total = static_cast<double>(std::max<uint64_t>(1, histogram->Total()));
            for (size_t bin = 0; bin < scale.bins; ++bin)
                series.y.push_back(bin < histogram->counts.size() ? 100.0 * histogram->counts[bin] / total : 0.0);
            chart.series.push_back(std::move(series));
        }
        page.Section(plot.id, plot.title,
                     "Of the best candidate arrangement of each read; the ends of the scale hold everything beyond.");
        page.Plot(LineChartSvg(chart));
        page.EndSection();
    }
}

void Unclassified(Page& page, const RunTally& tally) {
    BarChart chart;
    BarPanel panel{"reads", {}, {}};
    const uint64_t unclassified = tally.Unclassified();
    for (const auto& [reason, count] : tally.unclassified_reasons) {
        if (count == 0) continue;
        chart.labels.push_back(reason);
        panel.values.push_back(static_cast<double>(count));
        panel.texts.push_back(Grouped(count) + " (" + PercentText(count, unclassified) + ")");
    }
    chart.panels = {std::move(panel)};
    page.Section("unclassified", "Unclassified reads by reason");
    if (chart.labels.empty()) {
        page.html += "<p>No read was left unclassified.</p>";
    } else {
        page.Plot(BarChartSvg(chart));
    }
    page.EndSection();
}

// Barcode events besides the classification. A row whose figure is empty is
// left out: counts that only some runs make show only where they are made.
void Events(Page& page, const RunTally& tally) {
    const uint64_t written = tally.Written();
    if (!tally.internal.searched) {
        page.Section("events", "Mixed barcodes",
                     "Reads whose two ends name different barcodes (chimeras), classified or not.");
        page.Table({{"Mixed barcodes", Grouped(tally.mixed) + " (" + PercentText(tally.mixed, written) + ")"}});
        page.EndSection();
        return;
    }
    // Reads with internal barcodes are counted before any split, so their
    // share is of the reads taken in, not of the reads written.
    const InternalTally& internal = tally.internal;
    const uint64_t taken = tally.WrittenBeforeSplit();
    page.Section("events", "Mixed and internal barcodes",
                 "Reads whose two ends name different barcodes (chimeras), classified or not, and reads with "
                 "barcode constructs inside them (molecules ligated end to end).");
    std::vector<std::pair<std::string, std::string>> rows{
        {"Mixed barcodes", Grouped(tally.mixed) + " (" + PercentText(tally.mixed, written) + ")"},
        {"Internal barcode", Grouped(internal.reads) + " (" + PercentText(internal.reads, taken) + " of reads taken)"}};
    if (internal.parts + internal.parts_dropped > 0) {
        rows.emplace_back("Parts written as reads of their own", Grouped(internal.parts));
        rows.emplace_back("Parts shorter than min_part_length (not written)", Grouped(internal.parts_dropped));
    }
    page.Table(rows);
    page.EndSection();
}

void Losses(Page& page, const RunTally& tally) {
    page.Section("losses", "Input files and reads not written");
    auto count = [](uint64_t value) { return Grouped(value); };
    page.Table({{"Input files found", count(tally.files_found)},
                {"Input files read", count(tally.files_read)},
                {"Input files ended early by a malformed record or damaged data", count(tally.files_ended_early)},
                {"Input files that could not be read", count(tally.files_failed)},
                {"Reads without a run id (not written)", count(tally.dropped)},
                {"Reads that failed (not written)", count(tally.failed)},
                {"Secondary and supplementary records skipped", count(tally.records_skipped)}});
    page.EndSection();
}

// With a sample sheet: the run's cross-talk estimate and the sample with the
// most of it (the JSON report has every sample's).
void CrossTalk(Page& page, const RunInfo& info) {
    if (!info.cross_talk) return;
    const CrossTalkEstimate& estimate = *info.cross_talk;
    page.Section("cross_talk", "Cross-talk",
                 "Reads estimated to belong to another sample, from the reads called to barcodes (or pairs) of the "
                 "kits that the sample sheet does not list; see the README, \"Cross-talk\".");
    if (!estimate.measurable) {
        page.Table({{"Estimate", "not measurable (" + estimate.not_measurable + ")"}});
        page.EndSection();
        return;
    }
    auto figure = [](const CrossTalkFigure& f) {
        return FormatString("%.3f %% (95 %% interval %.3f-%.3f %%) of %s assigned reads", 100 * f.share, 100 * f.low,
                            100 * f.high, Grouped(f.reads));
    };
    std::vector<std::pair<std::string, std::string>> rows{
        {"Reads from other samples, run", figure(estimate.run)},
        {"Measured on", Grouped(estimate.unlisted_reads) + " reads of " + estimate.method}};
    const std::pair<const std::string, CrossTalkFigure>* most = nullptr;
    for (const auto& sample : estimate.samples)
        if (most == nullptr || sample.second.share > most->second.share) most = &sample;
    if (most != nullptr && estimate.samples.size() > 1)
        rows.emplace_back("Most, in sample " + most->first, figure(most->second));
    page.Table(rows);
    page.EndSection();
}

void Settings(Page& page, const RunInfo& info) {
    page.Section("settings", "Settings");
    std::vector<std::pair<std::string, std::string>> rows{{"version", info.version}};
    std::set<std::string> listed;
    // An option taken from the command line and the configuration file alike is declared twice.
    for (const auto& [name, value] : info.options)
        if (listed.insert(name).second) rows.emplace_back(name, value.empty() ? std::string("(none)") : value);
    page.html += "<table>";
    for (const auto& [name, value] : rows)
        page.html += "<tr><th>" + XmlEscape(name) + "</th><td>" + XmlEscape(value) + "</td></tr>";
    page.html += "</table>";
    page.EndSection();
}

}  // namespace

std::string FormatHtmlReport(const RunTally& tally, const RunInfo& info) {
    Page page;
    page.html =
        "<!DOCTYPE html>\n<html xmlns=\"http://www.w3.org/1999/xhtml\" lang=\"en\"><head><meta "
        "charset=\"utf-8\"/><title>Barcoding report</title><style>";
    page.html += kStyle;
    page.html += "</style></head>\n<body><h1>Barcoding report</h1>";
    page.html += "<p class=\"note\">vorpa_barcoder " + XmlEscape(info.version) + "</p>";
    if (!info.finished)
        page.html +=
            "<p class=\"running\">The run is still going: this page shows the reads written so far and is "
            "refreshed every few minutes.</p>";
    page.html += "\n";
    Headline(page, tally, info);
    ReadsAndBases(page, tally);
    ReadLengths(page, tally);
    Distributions(page, tally);
    Unclassified(page, tally);
    Events(page, tally);
    Losses(page, tally);
    CrossTalk(page, info);
    Settings(page, info);
    page.html += "</body></html>\n";
    return page.html;
}

}  // namespace Vorpa
