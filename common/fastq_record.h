#pragma once
// One FASTQ read as held in memory: header line, bases and qualities.

#include <cstdint>
#include <string>
#include <unordered_set>

namespace Common {

// Returned by GetReadId / GetRunId when the title does not carry the field;
// callers compare against these to skip such reads.
inline constexpr char kInvalidReadId[] = "[invalid read id]";
inline constexpr char kInvalidRunId[] = "[invalid run id]";

// Per-read fields of a canonical title (see FastQRecord::MakeTitle).
struct FastQReadMetadata {
    std::string read_id;
    std::string run_id;
    std::string sample_id;
    std::string start_time;
    uint32_t channel = 0;
    uint32_t read_number = 0;
};

// Invariant once constructed from text: sequence and qstring have the same
// length, sequence holds only "ACGTU" (upper case), qstring only '!'..'~'.
// An all-empty record is valid.
struct FastQRecord {
    std::string title;  // whole header line, leading '@' included
    std::string sequence;
    std::string qstring;

    FastQRecord() = default;
    // Takes the fields and runs Validate; throws std::runtime_error on a bad record.
    FastQRecord(std::string title, std::string sequence, std::string qstring);

    // Throws std::runtime_error naming the first broken invariant.
    void Validate() const;
    // Debug dump used inside error messages (no final newline).
    std::string Print() const;
    // The four FASTQ lines, each ended by '\n', with a bare "+" line.
    std::string ToString() const;
    // The same, appended to out.
    void AppendTo(std::string& out) const;
    // title += " " + key + "=" + value
    void AppendToTitle(const std::string& key, const std::string& value);

    // Title up to the first space, without its first character; kInvalidReadId
    // (with an error log line) for a one-character title. Throws on an empty title.
    std::string GetReadId() const;
    // Value of the "runid=" tag; kInvalidRunId (with an error log line) when
    // absent. Throws on an empty title.
    std::string GetRunId() const;

    // "@<read id> runid=<..> sampleid=<..> read=<..> ch=<..> start_time=<..>"
    static std::string MakeTitle(const FastQReadMetadata& metadata);
};

// Read ids listed one per line; lines holding a space are skipped with a
// warning. Throws std::runtime_error when the file cannot be opened.
std::unordered_set<std::string> getReadIdWhitelist(const std::string& path);

}  // namespace Common
