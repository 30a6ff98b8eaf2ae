#include "apps/run_report.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "common/string_utils.h"

namespace Vorpa {

namespace {

const char* const kUnclassified = "unclassified";

double Percent(uint64_t part, uint64_t total) {
    return total == 0 ? 0.0 : 100.0 * part / total;
}

uint64_t ReadsOf(const RunTally& tally, const std::string& name) {
    const auto found = tally.arrangements.find(name);
    return found == tally.arrangements.end() ? 0 : found->second.reads;
}

uint64_t WrittenReads(const RunTally& tally) {
    uint64_t written = 0;
    for (const auto& [name, figures] : tally.arrangements)
        written += figures.reads;
    return written;
}

// Arrangements by name, "unclassified" last (std::map already sorts by name).
std::vector<std::pair<std::string, ArrangementTally>> ReportOrder(const RunTally& tally) {
    std::vector<std::pair<std::string, ArrangementTally>> order;
    for (const auto& entry : tally.arrangements) {
        if (entry.first != kUnclassified) order.push_back(entry);
    }
    const auto unclassified = tally.arrangements.find(kUnclassified);
    if (unclassified != tally.arrangements.end()) order.push_back(*unclassified);
    return order;
}

// Length of the well-formed UTF-8 sequence starting at text[i], 0 when the
// bytes there are not one (overlong forms and surrogates included).
size_t Utf8SequenceLength(const std::string& text, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) return 1;
    size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    for (size_t k = 1; k < length; ++k) {
        const unsigned char c = byte(i + k);
        if (c < (k == 1 ? low : 0x80) || c > (k == 1 ? high : 0xBF)) return 0;
    }
    return length;
}

// Shortest text that reads back to the same double, always with a fraction or
// an exponent so that readers see a float; JSON has no infinities or NaN.
std::string JsonNumber(double value) {
    if (!std::isfinite(value)) value = 0;
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    if (text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
}

std::string JsonInteger(uint64_t value) {
    return std::to_string(value);
}

// {"key": value, ...} on one line, values already JSON text.
std::string JsonObject(const std::vector<std::pair<std::string, std::string>>& members) {
    std::string text = "{";
    for (const auto& [key, value] : members) {
        if (text.size() > 1) text += ", ";
        text += JsonString(key) + ": " + value;
    }
    return text + "}";
}

std::string ArrangementJson(const ArrangementTally& figures) {
    const double mean_length = figures.reads == 0 ? 0.0 : static_cast<double>(figures.bases) / figures.reads;
    const double mean_score = figures.scored_reads == 0 ? 0.0 : figures.score_sum / figures.scored_reads;
    return JsonObject({{"reads", JsonInteger(figures.reads)},
                       {"bases", JsonInteger(figures.bases)},
                       {"mean_read_length", JsonNumber(mean_length)},
                       {"mean_score", JsonNumber(mean_score)}});
}

}  // namespace

void CountRead(RunTally& tally, const std::string& arrangement, uint64_t bases, double score) {
    ArrangementTally& figures = tally.arrangements[arrangement];
    ++figures.reads;
    figures.bases += bases;
    if (!std::isfinite(score)) return;
    ++figures.scored_reads;
    figures.score_sum += score;
}

std::vector<std::string> FormatRunReport(const RunTally& tally, double seconds) {
    const uint64_t written = WrittenReads(tally);
    const uint64_t unclassified = ReadsOf(tally, kUnclassified);
    size_t name_width = std::string("arrangement").size();
    for (const auto& entry : tally.arrangements)
        name_width = std::max(name_width, entry.first.size());
    const int width = static_cast<int>(name_width);

    std::vector<std::string> lines;
    lines.push_back("Reads per arrangement:");
    lines.push_back(Common::FormatString("  %-*s %10s %8s", width, "arrangement", "reads", "percent"));
    for (const auto& [name, figures] : ReportOrder(tally)) {
        lines.push_back(Common::FormatString("  %-*s %10llu %7.2f%%", width, name.c_str(),
                                             static_cast<unsigned long long>(figures.reads),
                                             Percent(figures.reads, written)));
    }

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

// Figures the barcoder does not tally yet (files that ended early or failed,
// reads that failed, mixed barcodes, finer unclassified reasons) are written
// as 0, so that readers can rely on every key being there. Every unclassified
// read counts as "no barcode above the minimum" until then.
std::string FormatJsonReport(const RunTally& tally, const RunInfo& info) {
    const uint64_t written = WrittenReads(tally);
    const uint64_t unclassified = ReadsOf(tally, kUnclassified);
    const uint64_t failed_reads = 0;
    const uint64_t failed_files = 0, ended_early = 0;

    std::string text = "{\n";
    text += "  \"program\": \"vorpa_barcoder\",\n";
    text += "  \"version\": " + JsonString(info.version) + ",\n";
    text += "  \"options\": {";
    for (size_t i = 0; i < info.options.size(); ++i) {
        text += i == 0 ? "\n" : ",\n";
        text += "    " + JsonString(info.options[i].first) + ": " + JsonString(info.options[i].second);
    }
    text += info.options.empty() ? "},\n" : "\n  },\n";
    text += "  \"wall_time_s\": " + JsonNumber(info.wall_time_s) + ",\n";
    text += "  \"files\": " +
            JsonObject({{"found", JsonInteger(tally.files_found)},
                        {"read", JsonInteger(tally.files_found - failed_files - ended_early)},
                        {"ended_early", JsonInteger(ended_early)},
                        {"failed", JsonInteger(failed_files)}}) +
            ",\n";
    text += "  \"reads\": " +
            JsonObject({{"total", JsonInteger(written + tally.dropped + failed_reads)},
                        {"written", JsonInteger(written)},
                        {"classified", JsonInteger(written - unclassified)},
                        {"unclassified", JsonInteger(unclassified)},
                        {"dropped_no_run_id", JsonInteger(tally.dropped)},
                        {"failed", JsonInteger(failed_reads)}}) +
            ",\n";
    text += "  \"mixed_barcodes\": 0,\n";
    text += "  \"unclassified_reasons\": " +
            JsonObject({{"no_barcode_above_minimum", JsonInteger(unclassified)},
                        {"mixed_barcodes", JsonInteger(0)},
                        {"one_end_only", JsonInteger(0)}}) +
            ",\n";
    text += "  \"arrangements\": {";
    const auto order = ReportOrder(tally);
    for (size_t i = 0; i < order.size(); ++i) {
        text += i == 0 ? "\n" : ",\n";
        text += "    " + JsonString(order[i].first) + ": " + ArrangementJson(order[i].second);
    }
    text += order.empty() ? "}\n" : "\n  }\n";
    text += "}\n";
    return text;
}

std::string JsonString(const std::string& text) {
    std::string quoted = "\"";
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t length = Utf8SequenceLength(text, i);
        if (length == 0) {
            quoted += "\xEF\xBF\xBD";  // U+FFFD for a byte that starts no valid sequence
            ++i;
            continue;
        }
        if (length > 1) {
            quoted.append(text, i, length);
        } else if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += static_cast<char>(c);
        } else if (c == '\n') {
            quoted += "\\n";
        } else if (c == '\t') {
            quoted += "\\t";
        } else if (c == '\r') {
            quoted += "\\r";
        } else if (c < 0x20) {
            quoted += Common::FormatString("\\u%04x", c);
        } else {
            quoted += static_cast<char>(c);
        }
        i += length;
    }
    return quoted + "\"";
}

void WriteFileAtomically(const std::string& path, const std::string& text) {
    namespace fs = std::filesystem;
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::out | std::ios::binary | std::ios::trunc);
        if (!out)
            throw std::runtime_error("Could not open '" + temporary + "' for writing: " + std::strerror(errno) + ".");
        out << text;
        out.close();
        if (!out) throw std::runtime_error("Could not write '" + temporary + "'.");
    }
    std::error_code error;
    fs::rename(temporary, path, error);
    if (!error) return;
    const std::string reason = error.message();
    fs::remove(temporary, error);
    throw std::runtime_error("Could not rename '" + temporary + "' to '" + path + "': " + reason + ".");
}

}  // namespace Vorpa
