#include "apps/resume_state.h"

#include <charconv>
#include <cstdio>
#include <set>
#include <sstream>
#include <stdexcept>

#include "common/string_utils.h"

namespace Vorpa {

namespace {

constexpr const char* kFirstLine = "vorpa_barcoder resume state 1";

// Options that may differ between the runs that fill one save folder: where
// the files are, how many threads, what is logged, the device and watching.
const std::set<std::string> kFreeOptions = {
    "input_path", "save_path",  "worker_threads", "quiet",         "verbose_logs",    "trace_categories_logs",
    "device",     "watch",      "watch_settle",   "watch_timeout", "watch_stop_file", "resume",
    "recursive",  "print_kits", "config"};

std::string Escape(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '%' || byte < 0x20 || byte == 0x7f) {
            out += Common::FormatString("%%%02X", byte);
        } else {
            out += c;
        }
    }
    return out;
}

std::string Unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string Exact(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

// Nonzero bins as "bin:count,bin:count"; "-" when there are none.
template <typename Counts>
std::string Bins(const Counts& counts) {
    std::string text;
    for (size_t i = 0; i < counts.size(); ++i) {
        if (counts[i] == 0) continue;
        if (!text.empty()) text += ',';
        text += std::to_string(i) + ':' + std::to_string(counts[i]);
    }
    return text.empty() ? "-" : text;
}

// The histograms split by classified and unclassified reads, by name: a new
// one is one more line here.
template <typename Tally>
auto Splits(Tally& tally) {
    return std::vector<std::pair<const char*, decltype(&tally.scores)>>{{"scores", &tally.scores},
                                                                        {"quality", &tally.quality}};
}

class Line {
public:
    Line(const std::string& text, const std::string& name, size_t number) : name_(name), number_(number) {
        std::string field;
        std::istringstream in(text);
        while (std::getline(in, field, '\t'))
            fields_.push_back(field);
        if (!text.empty() && text.back() == '\t') fields_.emplace_back();
    }
    [[noreturn]] void Fail(const std::string& why) const {
        throw std::runtime_error("Malformed resume state '" + name_ + "', line " + std::to_string(number_) + ": " +
                                 why);
    }
    size_t Size() const { return fields_.size(); }
    const std::string& Kind() const { return fields_.front(); }
    void Expect(size_t count) const {
        if (fields_.size() != count) Fail("expected " + std::to_string(count) + " fields");
    }
    std::string Text(size_t i) const { return Unescape(fields_.at(i)); }
    uint64_t Count(size_t i) const { return Number<uint64_t>(i); }
    template <typename T>
    T Number(size_t i) const {
        T value{};
        const std::string& field = fields_.at(i);
        const auto result = std::from_chars(field.data(), field.data() + field.size(), value);
        if (result.ec != std::errc() || result.ptr != field.data() + field.size()) Fail("bad number '" + field + "'");
        return value;
    }
    double Real(size_t i) const {
        try {
            size_t used = 0;
            const double value = std::stod(fields_.at(i), &used);
            if (used == fields_.at(i).size()) return value;
        } catch (const std::exception&) {
        }
        Fail("bad number '" + fields_.at(i) + "'");
    }
    template <typename Counts>
    void ReadBins(size_t i, Counts& counts) const {
        const std::string& field = fields_.at(i);
        if (field == "-") return;
        std::istringstream in(field);
        std::string pair;
        while (std::getline(in, pair, ',')) {
            const size_t colon = pair.find(':');
            uint64_t bin = 0, count = 0;
            const auto first = std::from_chars(pair.data(), pair.data() + colon, bin);
            const auto second = std::from_chars(pair.data() + colon + 1, pair.data() + pair.size(), count);
            if (colon == std::string::npos || first.ec != std::errc() || second.ec != std::errc() ||
                bin >= counts.size())
                Fail("bad bins '" + field + "'");
            counts[bin] = count;
        }
    }

private:
    std::vector<std::string> fields_;
    const std::string& name_;
    size_t number_;
};

}  // namespace

std::string FormatResumeState(const ResumeState& state) {
    std::string text = std::string(kFirstLine) + "\n";
    auto line = [&](std::initializer_list<std::string> fields) {
        bool first = true;
        for (const auto& field : fields) {
            if (!first) text += '\t';
            text += field;
            first = false;
        }
        text += '\n';
    };
    for (const auto& [name, value] : state.options)
        line({"option", Escape(name), Escape(value)});
    line({"summary_size", std::to_string(state.summary_size)});
    line({"wall_time_s", Exact(state.wall_time_s)});
    const RunTally& t = state.tally;
    line({"counts", std::to_string(t.dropped), std::to_string(t.failed), std::to_string(t.mixed),
          std::to_string(t.files_read), std::to_string(t.files_ended_early), std::to_string(t.files_failed),
          std::to_string(t.records_skipped)});
    if (t.internal.searched)
        line({"internal", std::to_string(t.internal.reads), std::to_string(t.internal.parts),
              std::to_string(t.internal.parts_dropped)});
    for (const auto& [name, figures] : t.arrangements)
        line({"arrangement", Escape(name), std::to_string(figures.reads), std::to_string(figures.bases),
              Exact(figures.score_sum), std::to_string(figures.scored), Bins(figures.lengths.counts),
              Exact(figures.expected_wrong)});
    for (const auto& [reason, count] : t.unclassified_reasons)
        line({"reason", Escape(reason), std::to_string(count)});
    for (const auto& [sample, count] : t.samples)
        line({"sample", Escape(sample), std::to_string(count)});
    for (const auto& [name, count] : t.unlisted)
        line({"unlisted", Escape(name), std::to_string(count)});
    for (const auto& [name, split] : Splits(t))
        line({"split", name, Bins(split->classified.counts), Bins(split->unclassified.counts)});
    for (const auto& output : state.outputs)
        line({"output", Escape(output.folder), Escape(output.run_id), std::to_string(output.index),
              std::to_string(output.records), std::to_string(output.size), output.trailer ? "1" : "0"});
    for (const auto& [path, input] : state.inputs)
        line({"input", Escape(path), std::to_string(input.size), std::to_string(input.mtime_ns),
              std::to_string(input.records), input.finished ? "1" : "0"});
    return text + "end\n";
}

ResumeState ParseResumeState(const std::string& text, const std::string& name) {
    ResumeState state;
    std::istringstream in(text);
    std::string raw;
    size_t number = 0;
    bool ended = false;
    while (std::getline(in, raw)) {
        ++number;
        if (number == 1) {
            if (raw != kFirstLine) Line(raw, name, number).Fail("not a resume state of this program's version");
            continue;
        }
        const Line line(raw, name, number);
        if (ended || line.Size() == 0) line.Fail("unexpected line");
        const std::string& kind = line.Kind();
        RunTally& t = state.tally;
        if (kind == "option") {
            line.Expect(3);
            state.options.emplace_back(line.Text(1), line.Text(2));
        } else if (kind == "summary_size") {
            line.Expect(2);
            state.summary_size = line.Count(1);
        } else if (kind == "wall_time_s") {
            line.Expect(2);
            state.wall_time_s = line.Real(1);
        } else if (kind == "counts") {
            line.Expect(8);
            t.dropped = line.Count(1);
            t.failed = line.Count(2);
            t.mixed = line.Count(3);
            t.files_read = line.Count(4);
            t.files_ended_early = line.Count(5);
            t.files_failed = line.Count(6);
            t.records_skipped = line.Count(7);
        } else if (kind == "internal") {
            line.Expect(4);
            t.internal.searched = true;
            t.internal.reads = line.Count(1);
            t.internal.parts = line.Count(2);
            t.internal.parts_dropped = line.Count(3);
        } else if (kind == "arrangement") {
            line.Expect(8);
            ArrangementTally& figures = t.arrangements[line.Text(1)];
            figures.reads = line.Count(2);
            figures.bases = line.Count(3);
            figures.score_sum = line.Real(4);
            figures.scored = line.Count(5);
            line.ReadBins(6, figures.lengths.counts);
            figures.expected_wrong = line.Real(7);
        } else if (kind == "reason") {
            line.Expect(3);
            t.unclassified_reasons[line.Text(1)] = line.Count(2);
        } else if (kind == "sample") {
            line.Expect(3);
            t.samples[line.Text(1)] = line.Count(2);
        } else if (kind == "unlisted") {
            line.Expect(3);
            t.unlisted[line.Text(1)] = line.Count(2);
        } else if (kind == "split") {
            line.Expect(4);
            bool known = false;
            for (auto& [split_name, split] : Splits(t)) {
                if (line.Text(1) != split_name) continue;
                known = true;
                split->classified.counts.assign(split->scale.bins, 0);
                split->unclassified.counts.assign(split->scale.bins, 0);
                line.ReadBins(2, split->classified.counts);
                line.ReadBins(3, split->unclassified.counts);
            }
            if (!known) line.Fail("unknown histogram '" + line.Text(1) + "'");
        } else if (kind == "output") {
            line.Expect(7);
            state.outputs.push_back({line.Text(1), line.Text(2), line.Number<unsigned>(3), line.Count(4), line.Count(5),
                                     line.Text(6) == "1"});
        } else if (kind == "input") {
            line.Expect(6);
            state.inputs[line.Text(1)] = {line.Count(2), line.Number<int64_t>(3), line.Count(4), line.Text(5) == "1"};
        } else if (kind == "end") {
            ended = true;
        } else {
            line.Fail("unknown record '" + kind + "'");
        }
    }
    if (number == 0) throw std::runtime_error("Malformed resume state '" + name + "': empty");
    if (!ended) throw std::runtime_error("Malformed resume state '" + name + "': it is cut short");
    return state;
}

std::vector<std::string> OptionsThatDiffer(const std::vector<std::pair<std::string, std::string>>& earlier,
                                           const std::vector<std::pair<std::string, std::string>>& now) {
    const std::map<std::string, std::string> before(earlier.begin(), earlier.end());
    std::vector<std::string> differ;
    for (const auto& [name, value] : now) {
        if (kFreeOptions.count(name) > 0) continue;
        const auto found = before.find(name);
        const std::string old = found == before.end() ? "(not set)" : found->second;
        if (old != value) differ.push_back(name + " (earlier: '" + old + "', now: '" + value + "')");
    }
    return differ;
}

}  // namespace Vorpa
