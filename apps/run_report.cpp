#include "apps/run_report.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "common/output_file.h"
#include "common/string_utils.h"

namespace Vorpa {

namespace {

// The reasons every JSON report lists, zero or not, first and in this order.
constexpr const char* kListedReasonKeys[] = {"no_barcode_above_minimum", "mixed_barcodes", "one_end_only",
                                             "low_barcode_quality"};

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

// A reason's text as a JSON key: "only one end" reads "one_end_only", the
// rest in snake case ("no barcode above the minimum" drops its article).
std::string ReasonKey(const std::string& reason) {
    if (reason == "only one end") return "one_end_only";
    if (reason == "no barcode above the minimum") return "no_barcode_above_minimum";
    std::string key = reason;
    for (char& c : key)
        if (c == ' ') c = '_';
    return key;
}

// The run's estimate and the sample that has the most of it.
void AddCrossTalkLines(std::vector<std::string>& lines, const CrossTalkEstimate& estimate) {
    if (!estimate.measurable) {
        lines.push_back("Cross-talk: not measurable (" + estimate.not_measurable + ").");
        return;
    }
    auto figure = [](const CrossTalkFigure& f) {
        return Common::FormatString("%.3f%% (95%% interval %.3f-%.3f%%)", 100 * f.share, 100 * f.low, 100 * f.high);
    };
    lines.push_back(Common::FormatString(
        "Cross-talk, reads from other samples: %s of %llu assigned reads, from "
        "%llu reads of %s.",
        figure(estimate.run), U(estimate.run.reads), U(estimate.unlisted_reads), std::string(estimate.method)));
    const std::pair<const std::string, CrossTalkFigure>* most = nullptr;
    for (const auto& sample : estimate.samples)
        if (most == nullptr || sample.second.share > most->second.share) most = &sample;
    if (most != nullptr && estimate.samples.size() > 1)
        lines.push_back("  most in sample " + most->first + ": " + figure(most->second) + ".");
}

std::string CrossTalkFigureJson(const CrossTalkFigure& figure) {
    return JsonObject({{"reads", JsonInteger(figure.reads)},
                       {"foreign_reads", JsonNumber(figure.foreign)},
                       {"share", JsonNumber(figure.share)},
                       {"low", JsonNumber(figure.low)},
                       {"high", JsonNumber(figure.high)}});
}

// "cross_talk": the method, whether it could be measured (and why not), the
// unlisted reads it rests on, the run's figure and one per sample.
std::string CrossTalkJson(const CrossTalkEstimate& estimate) {
    std::string text = "{\n    \"method\": " + JsonString(estimate.method) + ",\n";
    text += "    \"measurable\": " + std::string(estimate.measurable ? "true" : "false") + ",\n";
    if (!estimate.measurable) return text + "    \"reason\": " + JsonString(estimate.not_measurable) + "\n  }";
    text += "    \"unlisted_reads\": " + JsonInteger(estimate.unlisted_reads) + ",\n";
    text += "    \"run\": " + CrossTalkFigureJson(estimate.run) + ",\n";
    text += "    \"samples\": {";
    bool first = true;
    for (const auto& [sample, figure] : estimate.samples) {
        text += first ? "\n" : ",\n";
        text += "      " + JsonString(sample) + ": " + CrossTalkFigureJson(figure);
        first = false;
    }
    return text + (first ? "}\n  }" : "\n    }\n  }");
}

std::string ArrangementJson(const ArrangementTally& figures) {
    const double mean_length = figures.reads == 0 ? 0.0 : static_cast<double>(figures.bases) / figures.reads;
    const double mean_score = figures.scored == 0 ? 0.0 : figures.score_sum / figures.scored;
    return JsonObject({{"reads", JsonInteger(figures.reads)},
                       {"bases", JsonInteger(figures.bases)},
                       {"mean_read_length", JsonNumber(mean_length)},
                       {"mean_score", JsonNumber(mean_score)},
                       {"expected_wrong_calls", JsonNumber(figures.expected_wrong)}});
}

}  // namespace

void ArrangementTally::Add(uint64_t read_bases, float score, double error_probability) {
    ++reads;
    expected_wrong += error_probability;
    bases += read_bases;
    lengths.Add(read_bases);
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
    lengths.Add(other.lengths);
    expected_wrong += other.expected_wrong;
}

void InternalTally::Add(const InternalTally& other) {
    searched |= other.searched;
    reads += other.reads;
    parts += other.parts;
    parts_dropped += other.parts_dropped;
}

void RunTally::AddRead(const std::string& arrangement, uint64_t bases, float score, double error_probability,
                       int candidate_quality) {
    arrangements[arrangement].Add(bases, score, error_probability);
    AddScores(arrangement, score, candidate_quality);
}

void RunTally::NoteRead(const std::string& arrangement, uint64_t bases, float score, double error_probability,
                        int candidate_quality) {
    noted.push_back({arrangement, bases, score, error_probability});
    AddScores(arrangement, score, candidate_quality);
}

void RunTally::AddScores(const std::string& arrangement, float score, int candidate_quality) {
    const bool classified = arrangement != kUnclassified;
    scores.Add(classified, score);
    if (candidate_quality >= 0) quality.Add(classified, candidate_quality);
}

// Each arrangement's reads are counted among themselves in read order and
// then added, so that every figure comes out as it did when a batch kept a
// tally per arrangement: sums of doubles taken in another order can differ
// in the last bit, and the report prints them in full.
void RunTally::AddNoted(const std::vector<NotedRead>& reads) {
    std::vector<uint32_t> order(reads.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return reads[a].arrangement < reads[b].arrangement; });
    for (size_t i = 0; i < order.size();) {
        const std::string& name = reads[order[i]].arrangement;
        ArrangementTally group;
        for (; i < order.size() && reads[order[i]].arrangement == name; ++i) {
            const NotedRead& read = reads[order[i]];
            group.Add(read.bases, read.score, read.error_probability);
        }
        arrangements[name].Add(group);
    }
}

uint64_t RunTally::Written() const {
    uint64_t written = 0;
    for (const auto& [name, counts] : arrangements)
        written += counts.reads;
    return written;
}

// A split read has at least two parts, written or dropped; a read whose parts
// were all dropped counts too (it was taken in).
uint64_t RunTally::WrittenBeforeSplit() const {
    const bool split = internal.parts + internal.parts_dropped > 0;
    return split ? Written() - internal.parts + internal.reads : Written();
}

uint64_t RunTally::Unclassified() const {
    const auto found = arrangements.find(kUnclassified);
    return found == arrangements.end() ? 0 : found->second.reads;
}

void RunTally::Add(const RunTally& other) {
    for (const auto& [name, counts] : other.arrangements)
        arrangements[name].Add(counts);
    AddNoted(other.noted);
    for (const auto& [reason, count] : other.unclassified_reasons)
        unclassified_reasons[reason] += count;
    dropped += other.dropped;
    failed += other.failed;
    mixed += other.mixed;
    internal.Add(other.internal);
    files_found += other.files_found;
    files_read += other.files_read;
    files_ended_early += other.files_ended_early;
    files_failed += other.files_failed;
    records_skipped += other.records_skipped;
    for (const auto& [sample, reads] : other.samples)
        samples[sample] += reads;
    for (const auto& [name, reads] : other.unlisted)
        unlisted[name] += reads;
    scores.Add(other.scores);
    quality.Add(other.quality);
}

std::vector<std::string> FormatRunReport(const RunTally& tally, double seconds, const CrossTalkEstimate* cross_talk) {
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
    if (tally.internal.searched) {
        const InternalTally& internal = tally.internal;
        lines.push_back(Common::FormatString("Reads with internal barcodes: %llu.", U(internal.reads)));
        if (internal.parts + internal.parts_dropped > 0)
            lines.push_back(Common::FormatString(
                "  split into %llu parts written as reads of their own; %llu shorter than min_part_length dropped.",
                U(internal.parts), U(internal.parts_dropped)));
    }
    if (cross_talk != nullptr) AddCrossTalkLines(lines, *cross_talk);
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

std::string FormatJsonReport(const RunTally& tally, const RunInfo& info) {
    const uint64_t written = tally.Written();
    const uint64_t unclassified = tally.Unclassified();

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
                        {"read", JsonInteger(tally.files_read)},
                        {"ended_early", JsonInteger(tally.files_ended_early)},
                        {"failed", JsonInteger(tally.files_failed)}}) +
            ",\n";
    text += "  \"reads\": " +
            JsonObject({{"total", JsonInteger(written + tally.dropped + tally.failed)},
                        {"written", JsonInteger(written)},
                        {"classified", JsonInteger(written - unclassified)},
                        {"unclassified", JsonInteger(unclassified)},
                        {"dropped_no_run_id", JsonInteger(tally.dropped)},
                        {"failed", JsonInteger(tally.failed)},
                        {"records_skipped", JsonInteger(tally.records_skipped)}}) +
            ",\n";
    text += "  \"mixed_barcodes\": " + JsonInteger(tally.mixed) + ",\n";
    if (tally.internal.searched)
        text += "  \"internal_barcodes\": " +
                JsonObject({{"reads", JsonInteger(tally.internal.reads)},
                            {"parts_written", JsonInteger(tally.internal.parts)},
                            {"parts_dropped", JsonInteger(tally.internal.parts_dropped)}}) +
                ",\n";
    std::map<std::string, uint64_t> reasons;
    if (tally.internal.searched) reasons["internal_barcode"] = 0;
    for (const auto& [reason, count] : tally.unclassified_reasons)
        reasons[ReasonKey(reason)] += count;
    std::vector<std::pair<std::string, std::string>> reason_members;
    for (const char* key : kListedReasonKeys) {
        reason_members.emplace_back(key, JsonInteger(reasons[key]));
        reasons.erase(key);
    }
    for (const auto& [key, count] : reasons)  // the others, by name
        reason_members.emplace_back(key, JsonInteger(count));
    text += "  \"unclassified_reasons\": " + JsonObject(reason_members) + ",\n";
    if (!tally.samples.empty()) {
        std::vector<std::pair<std::string, std::string>> samples;
        for (const auto& [sample, reads] : tally.samples)
            samples.emplace_back(sample, JsonInteger(reads));
        text += "  \"samples\": " + JsonObject(samples) + ",\n";
    }
    if (info.cross_talk) text += "  \"cross_talk\": " + CrossTalkJson(*info.cross_talk) + ",\n";
    text += "  \"arrangements\": {";
    // Arrangements by name, "unclassified" last.
    std::vector<std::pair<std::string, const ArrangementTally*>> order;
    for (const auto& [name, figures] : tally.arrangements)
        if (name != kUnclassified) order.emplace_back(name, &figures);
    if (const auto found = tally.arrangements.find(kUnclassified); found != tally.arrangements.end())
        order.emplace_back(found->first, &found->second);
    for (size_t i = 0; i < order.size(); ++i) {
        text += i == 0 ? "\n" : ",\n";
        text += "    " + JsonString(order[i].first) + ": " + ArrangementJson(*order[i].second);
    }
    text += order.empty() ? "}\n" : "\n  }\n";
    text += "}\n";
    return text;
}

std::string JsonString(const std::string& text) {
    std::string quoted = "\"";
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t length = Common::Utf8SequenceLength(text, i);
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
    std::error_code error;
    try {
        // The output files' writer: the same retry of short writes, and the
        // same wording of a failure ("No space left on device while writing").
        Common::OutputFile out;
        out.Open(temporary, true);
        out.Write(text);
        out.Close();
    } catch (...) {
        fs::remove(temporary, error);
        throw;
    }
    fs::rename(temporary, path, error);
    if (!error) return;
    const std::string reason = error.message();
    fs::remove(temporary, error);
    throw std::runtime_error("Could not rename '" + temporary + "' to '" + path + "': " + reason + ".");
}

}  // namespace Vorpa
