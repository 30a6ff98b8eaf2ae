#include "common/fastq_record.h"

#include <array>
#include <stdexcept>

#include "common/logger.h"

namespace Common {

namespace {

const Logger& RecordLogger() {
    static const Logger logger("fastq_record");
    return logger;
}

// Table lookups keep validation branch-light: it runs on every read of every file.
constexpr std::array<bool, 256> MakeBaseTable() {
    std::array<bool, 256> table{};
    for (char c : {'A', 'C', 'G', 'T', 'U'})
        table[static_cast<unsigned char>(c)] = true;
    return table;
}
constexpr std::array<bool, 256> kValidBase = MakeBaseTable();

// Clean records are the rule, so each field first gets one pass without an
// early exit, in byte arithmetic the compiler vectorises (baseline SSE2, so
// no CPU check); the loops that name the first bad character run only when
// a pass fails. (A chain of == would be turned into a bit test on a 64-bit
// mask, which does not vectorise.)

// 0x80 when c == v, else 0: (c ^ v) - 1 sets bit 7 by borrowing only from 0,
// and ~c clears it for bytes that have it already.
inline unsigned char Equals(unsigned char c, unsigned char v) {
    return static_cast<unsigned char>(static_cast<unsigned char>((c ^ v) - 1) & ~c & 0x80);
}

bool OnlyBases(const std::string& text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    unsigned char bad = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = bytes[i];
        bad |= static_cast<unsigned char>(Equals(c, 'A') | Equals(c, 'C') | Equals(c, 'G') | Equals(c, 'T') |
                                          Equals(c, 'U')) ^
               0x80;
    }
    return bad == 0;
}

bool OnlyQualities(const std::string& text) {
    const auto* bytes = reinterpret_cast<const signed char*>(text.data());
    unsigned char bad = 0;
    for (size_t i = 0; i < text.size(); ++i)
        bad |= static_cast<unsigned char>((bytes[i] < 33) | (bytes[i] == 127));
    return bad == 0;
}

}  // namespace

FastQRecord::FastQRecord(std::string title_, std::string sequence_, std::string qstring_)
    : title(std::move(title_)), sequence(std::move(sequence_)), qstring(std::move(qstring_)) {
    Validate();
    ParseTitle();
}

void FastQRecord::Validate() const {
    // Lengths first: a shifted record usually also has odd characters, and the
    // length mismatch is the more telling report.
    if (sequence.size() != qstring.size()) {
        throw std::runtime_error("Sequence is not the same length as the qstring\n" + Print());
    }
    if (OnlyBases(sequence) && OnlyQualities(qstring)) return;
    for (size_t i = 0; i < sequence.size(); ++i) {
        if (!kValidBase[static_cast<unsigned char>(sequence[i])]) {
            throw std::runtime_error("Sequence contained an unexpected character '" + std::string(1, sequence[i]) +
                                     "' at position " + std::to_string(i) + "\n" + Print());
        }
    }
    for (char c : qstring) {
        if (static_cast<unsigned>(static_cast<unsigned char>(c) - 33u) > 93u) {
            throw std::runtime_error("Unsupported character in the Qstring: " + std::string(1, c));
        }
    }
}

void FastQRecord::ParseTitle() {
    fields = TitleFields{};
    if (title.size() >= 2) {
        // Index 0 is the '@' (or whatever stands there): skipped unchecked.
        const size_t space = title.find(' ', 1);
        fields.read_id_end = space == std::string::npos ? title.size() : space;
        if (space != std::string::npos) {
            fields.comment_begin = space + 1;
            fields.comment_end = title.size();
        }
    }
    // From index 1: a title starting with "runid=" has no read id, so no run id.
    const size_t match = title.find("runid=", 1);
    if (match == std::string::npos) return;
    const size_t end = title.find(' ', match);
    fields.run_id_begin = match + 6;
    fields.run_id_end = end == std::string::npos ? title.size() : end;
    fields.has_run_id = true;
}

void FastQRecord::ComposeTitle(std::string_view read_id, std::optional<std::string_view> comment,
                               std::optional<std::string_view> run_id) {
    fields = TitleFields{};
    title.assign(1, '@').append(read_id);
    if (!read_id.empty()) fields.read_id_end = title.size();
    if (comment) {
        title.append(" ");
        fields.comment_begin = title.size();
        title.append(*comment);
        fields.comment_end = title.size();
        const size_t match = comment->find("runid=");
        if (match != std::string_view::npos) {
            const size_t end = comment->find(' ', match);
            fields.run_id_begin = fields.comment_begin + match + 6;
            fields.run_id_end = end == std::string_view::npos ? fields.comment_end : fields.comment_begin + end;
            fields.has_run_id = true;
            return;
        }
    }
    if (!run_id) return;
    title.append(" runid=");
    fields.run_id_begin = title.size();
    title.append(*run_id);
    fields.run_id_end = title.size();
    fields.has_run_id = true;
}

std::string FastQRecord::Print() const {
    return "Header: " + title + "\nSequence: " + sequence + "\nQstring: " + qstring;
}

std::string FastQRecord::ToString() const {
    std::string text;
    AppendTo(text);
    return text;
}

void FastQRecord::AppendTo(std::string& out) const {
    out.reserve(out.size() + title.size() + sequence.size() + qstring.size() + 5);  // 5: the separators
    out.append(title).append("\n").append(sequence).append("\n+\n").append(qstring).append("\n");
}

std::string_view FastQRecord::ReadId() const {
    if (fields.read_id_end == 0) return kInvalidReadId;
    return std::string_view(title).substr(1, fields.read_id_end - 1);
}

std::string_view FastQRecord::Comment() const {
    return std::string_view(title).substr(fields.comment_begin, fields.comment_end - fields.comment_begin);
}

std::string_view FastQRecord::RunId() const {
    if (!fields.has_run_id) return kInvalidRunId;
    return std::string_view(title).substr(fields.run_id_begin, fields.run_id_end - fields.run_id_begin);
}

std::string FastQRecord::GetReadId() const {
    if (title.empty()) throw std::runtime_error("Cannot get the read ID from an empty FastQ record.");
    if (fields.read_id_end == 0) {
        // The wording speaks of a space; it is kept as users know it.
        VB_LOG(RecordLogger(), Severity::error)
            << "Read title '" << title << "' does not have any space. Continuing with next read.";
    }
    return std::string(ReadId());
}

std::string FastQRecord::GetRunId() const {
    if (title.empty()) throw std::runtime_error("Cannot get the run ID from an empty FastQ record.");
    if (!fields.has_run_id)
        VB_LOG(RecordLogger(), Severity::error) << "Could not find 'runid=' in the title: " << title;
    return std::string(RunId());
}

}  // namespace Common
