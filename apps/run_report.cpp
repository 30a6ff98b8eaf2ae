#include "apps/run_report.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "common/string_utils.h"

namespace Vorpa {

namespace {

const char* const kUnclassified = "unclassified";

double Percent(uint64_t part, uint64_t total) {
    return total == 0 ? 0.0 : 100.0 * part / total;
}

unsigned long long U(uint64_t value) {
    return static_cast<unsigned long long>(value);
}

// "Reads per <what>:" and a table of name, reads and percent of written, by
// name with "unclassified" last.
void AddTable(std::vector<std::string>& lines, const std::string& what,
              const std::vector<std::pair<std::string, uint64_t>>& rows, uint64_t written) {
    size_t name_width = what.size();
    for (const auto& [name, reads] : rows)
        name_width = std::max(name_width, name.size());
    const int width = static_cast<int>(name_width);
    lines.push_back("Reads per " + what + ":");
    lines.push_back(Common::FormatString("  %-*s %10s %8s", width, what.c_str(), "reads", "percent"));
    auto add_row = [&](const std::string& name, uint64_t reads) {
        lines.push_back(
            Common::FormatString("  %-*s %10llu %7.2f%%", width, name.c_str(), U(reads), Percent(reads, written)));
    };
    for (const auto& [name, reads] : rows) {
        if (name != kUnclassified) add_row(name, reads);
    }
    for (const auto& [name, reads] : rows) {
        if (name == kUnclassified) add_row(name, reads);
    }
}

}  // namespace

void ArrangementTally::Add(uint64_t read_bases, float score) {
    ++reads;
    bases += read_bases;
    if (std::isfinite(score)) {
        score_sum += score;
        ++scored;
    }
}

void ArrangementTally::Add(const ArrangementTally& other) {
    reads += other.reads;
    bases += other.bases;
    score_sum += other.score_sum;
    scored += other.scored;
}

uint64_t RunTally::Written() const {
    uint64_t written = 0;
    for (const auto& [name, counts] : arrangements)
        written += counts.reads;
    return written;
}

uint64_t RunTally::Unclassified() const {
    const auto found = arrangements.find(kUnclassified);
    return found == arrangements.end() ? 0 : found->second.reads;
}

void RunTally::Add(const RunTally& other) {
    for (const auto& [name, counts] : other.arrangements)
        arrangements[name].Add(counts);
    for (const auto& [reason, count] : other.unclassified_reasons)
        unclassified_reasons[reason] += count;
    dropped += other.dropped;
    failed += other.failed;
    mixed += other.mixed;
    files_found += other.files_found;
    files_read += other.files_read;
    files_ended_early += other.files_ended_early;
    files_failed += other.files_failed;
    records_skipped += other.records_skipped;
    for (const auto& [sample, reads] : other.samples)
        samples[sample] += reads;
}

std::vector<std::string> FormatRunReport(const RunTally& tally, double seconds) {
    const uint64_t written = tally.Written();
    const uint64_t unclassified = tally.Unclassified();
    std::vector<std::string> lines;
    std::vector<std::pair<std::string, uint64_t>> rows;
    for (const auto& [name, counts] : tally.arrangements)
        rows.emplace_back(name, counts.reads);
    AddTable(lines, "arrangement", rows, written);
    if (!tally.samples.empty()) {
        AddTable(lines, "sample", {tally.samples.begin(), tally.samples.end()}, written);
    }

    const uint64_t classified = written - unclassified;
    lines.push_back(Common::FormatString("Classified: %llu of %llu reads (%.2f%%), unclassified: %llu (%.2f%%).",
                                         U(classified), U(written), Percent(classified, written), U(unclassified),
                                         Percent(unclassified, written)));
    for (const auto& [reason, count] : tally.unclassified_reasons) {
        if (count > 0) lines.push_back(Common::FormatString("  unclassified, %s: %llu", reason.c_str(), U(count)));
    }
    lines.push_back(Common::FormatString("Mixed barcodes: %llu.", U(tally.mixed)));
    if (tally.dropped > 0)
        lines.push_back(Common::FormatString("Reads without a run id (not written): %llu.", U(tally.dropped)));
    if (tally.failed > 0)
        lines.push_back(Common::FormatString("Reads that failed (not written): %llu.", U(tally.failed)));
    if (tally.files_ended_early > 0)
        lines.push_back(Common::FormatString("Input files ended early by a malformed record or damaged data: %llu.",
                                             U(tally.files_ended_early)));
    if (tally.files_failed > 0)
        lines.push_back(Common::FormatString("Input files that could not be read: %llu.", U(tally.files_failed)));
    if (tally.records_skipped > 0)
        lines.push_back(Common::FormatString(
            "Secondary and supplementary records skipped (not reads of their own): %llu.", U(tally.records_skipped)));
    const uint64_t taken = written + tally.dropped + tally.failed;
    const double rate = seconds > 0 ? taken / seconds : 0.0;
    lines.push_back(Common::FormatString("Throughput: %.0f reads/s (%llu reads in %.3f s).", rate, U(taken), seconds));
    return lines;
}

}  // namespace Vorpa
