#include "apps/multiqc_report.h"

#include <utility>
#include <vector>

#include "common/string_utils.h"

namespace Vorpa {

namespace {

using Common::FormatString;

// Rows of the sections: samples with a sample sheet, else arrangements; each
// with its reads and, for arrangements, the arrangement's figures.
struct Row {
    std::string name;
    uint64_t reads = 0;
    const ArrangementTally* figures = nullptr;
};

std::vector<Row> Rows(const RunTally& tally) {
    std::vector<Row> rows, last;
    if (!tally.samples.empty()) {
        for (const auto& [sample, reads] : tally.samples)
            (sample == kUnclassified ? last : rows).push_back({sample, reads, nullptr});
    } else {
        for (const auto& [name, figures] : tally.arrangements)
            (name == kUnclassified ? last : rows).push_back({name, figures.reads, &figures});
    }
    rows.insert(rows.end(), last.begin(), last.end());
    return rows;
}

double PercentOfRun(uint64_t part, uint64_t total) {
    return total == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(total);
}

// "data": {"row": {members}, ...} with one member text per row.
std::string DataObject(const std::vector<Row>& rows, const std::vector<std::string>& members) {
    std::string text = "  \"data\": {";
    for (size_t i = 0; i < rows.size(); ++i)
        text += (i == 0 ? "\n    " : ",\n    ") + JsonString(rows[i].name) + ": {" + members[i] + "}";
    return text + (rows.empty() ? "}\n" : "\n  }\n");
}

}  // namespace

std::string FormatMultiqcReads(const RunTally& tally) {
    const uint64_t written = tally.Written(), unclassified = tally.Unclassified();
    const bool samples = !tally.samples.empty();
    const std::vector<Row> rows = Rows(tally);
    std::vector<std::string> members;
    for (const auto& row : rows)
        members.push_back("\"reads\": " + std::to_string(row.reads));
    const std::string description =
        FormatString("Reads per %s written by vorpa_barcoder: %llu reads, %llu classified (%.1f%%), %llu unclassified.",
                     samples ? "sample" : "barcode arrangement", static_cast<unsigned long long>(written),
                     static_cast<unsigned long long>(written - unclassified),
                     PercentOfRun(written - unclassified, written), static_cast<unsigned long long>(unclassified));
    std::string text = "{\n";
    text += "  \"id\": \"vorpa_barcoding\",\n";
    text += "  \"section_name\": \"Barcoding\",\n";
    text += "  \"description\": " + JsonString(description) + ",\n";
    text += "  \"plot_type\": \"bargraph\",\n";
    text += "  \"pconfig\": {\"id\": \"vorpa_barcoding_reads\", \"title\": \"Barcoding: reads per " +
            std::string(samples ? "sample" : "arrangement") + "\", \"ylab\": \"Reads\", \"tt_decimals\": 0},\n";
    text += "  \"categories\": {\"reads\": {\"name\": \"Reads\"}},\n";
    return text + DataObject(rows, members) + "}\n";
}

std::string FormatMultiqcStats(const RunTally& tally) {
    const uint64_t written = tally.Written();
    const std::vector<Row> rows = Rows(tally);
    std::vector<std::string> members;
    for (const auto& row : rows) {
        std::string member = "\"barcoded_reads\": " + std::to_string(row.reads) +
                             FormatString(", \"percent_of_run\": %.3f", PercentOfRun(row.reads, written));
        if (row.figures != nullptr) {
            const double mean =
                row.figures->reads == 0 ? 0.0 : static_cast<double>(row.figures->bases) / row.figures->reads;
            member += ", \"barcoded_bases\": " + std::to_string(row.figures->bases) +
                      FormatString(", \"mean_read_length\": %.1f", mean);
        }
        members.push_back(member);
    }
    std::string text = "{\n";
    text += "  \"id\": \"vorpa_barcoding_stats\",\n";
    text += "  \"section_name\": \"Barcoding statistics\",\n";
    text += "  \"plot_type\": \"generalstats\",\n";
    text += "  \"pconfig\": [\n";
    text +=
        "    {\"barcoded_reads\": {\"title\": \"Barcoded reads\", \"description\": \"Reads written for this "
        "arrangement or sample\", \"format\": \"{:,.0f}\", \"scale\": \"Blues\"}},\n";
    text +=
        "    {\"percent_of_run\": {\"title\": \"% of run\", \"description\": \"Percent of the run's written "
        "reads\", \"suffix\": \"%\", \"max\": 100, \"min\": 0, \"scale\": \"Greens\"}},\n";
    text +=
        "    {\"barcoded_bases\": {\"title\": \"Barcoded bases\", \"description\": \"Bases written (after "
        "trimming)\", \"format\": \"{:,.0f}\", \"hidden\": true}},\n";
    text +=
        "    {\"mean_read_length\": {\"title\": \"Mean length\", \"description\": \"Mean length of the written "
        "reads\", \"suffix\": \" bp\", \"format\": \"{:,.0f}\"}}\n";
    text += "  ],\n";
    return text + DataObject(rows, members) + "}\n";
}

}  // namespace Vorpa
