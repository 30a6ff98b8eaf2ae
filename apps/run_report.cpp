#include "apps/run_report.h"

#include <algorithm>

#include "common/string_utils.h"

namespace Vorpa {

namespace {

const char* const kUnclassified = "unclassified";

double Percent(uint64_t part, uint64_t total) {
    return total == 0 ? 0.0 : 100.0 * part / total;
}

}  // namespace

std::vector<std::string> FormatRunReport(const RunTally& tally, double seconds) {
    uint64_t written = 0;
    size_t name_width = std::string("arrangement").size();
    for (const auto& [name, reads] : tally.reads_per_arrangement) {
        written += reads;
        name_width = std::max(name_width, name.size());
    }
    const auto unclassified_it = tally.reads_per_arrangement.find(kUnclassified);
    const uint64_t unclassified = unclassified_it == tally.reads_per_arrangement.end() ? 0 : unclassified_it->second;
    const int width = static_cast<int>(name_width);

    std::vector<std::string> lines;
    lines.push_back("Reads per arrangement:");
    lines.push_back(Common::FormatString("  %-*s %10s %8s", width, "arrangement", "reads", "percent"));
    auto add_row = [&](const std::string& name, uint64_t reads) {
        lines.push_back(Common::FormatString("  %-*s %10llu %7.2f%%", width, name.c_str(),
                                             static_cast<unsigned long long>(reads), Percent(reads, written)));
    };
    for (const auto& [name, reads] : tally.reads_per_arrangement) {
        if (name != kUnclassified) add_row(name, reads);
    }
    if (unclassified_it != tally.reads_per_arrangement.end()) add_row(kUnclassified, unclassified);

    const uint64_t classified = written - unclassified;
    lines.push_back(Common::FormatString(
        "Classified: %llu of %llu reads (%.2f%%), unclassified: %llu (%.2f%%).",
        static_cast<unsigned long long>(classified), static_cast<unsigned long long>(written),
        Percent(classified, written), static_cast<unsigned long long>(unclassified), Percent(unclassified, written)));
    if (tally.dropped > 0) {
        lines.push_back(Common::FormatString("Reads without a run id (not written): %llu.",
                                             static_cast<unsigned long long>(tally.dropped)));
    }
    const uint64_t taken = written + tally.dropped;
    const double rate = seconds > 0 ? taken / seconds : 0.0;
    lines.push_back(Common::FormatString("Throughput: %.0f reads/s (%llu reads in %.3f s).", rate,
                                         static_cast<unsigned long long>(taken), seconds));
    return lines;
}

}  // namespace Vorpa
