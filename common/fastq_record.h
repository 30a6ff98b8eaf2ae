#pragma once
// One FASTQ read as held in memory: header line, bases and qualities.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Common {

// Returned by GetReadId / GetRunId when the title does not carry the field;
// callers compare against these to skip such reads.
inline constexpr char kInvalidReadId[] = "[invalid read id]";
inline constexpr char kInvalidRunId[] = "[invalid run id]";

// Where a title's fields stand: offsets into the title, so they survive moving
// the record and appending tags to its title. Found once, when the record is
// read (FastQRecord::ParseTitle, or the BAM reader from the record's fields).
struct TitleFields {
    size_t read_id_end = 0;    // read id: title[1, read_id_end); 0 when there is none
    size_t comment_begin = 0;  // comment: title[comment_begin, comment_end)
    size_t comment_end = 0;
    size_t run_id_begin = 0;  // run id: title[run_id_begin, run_id_end)
    size_t run_id_end = 0;
    bool has_run_id = false;
};

// Invariant once constructed from text: sequence and qstring have the same
// length, sequence holds only "ACGTU" (upper case), qstring only '!'..'~'.
// An all-empty record is valid.
struct FastQRecord {
    std::string title;  // whole header line, leading '@' included
    std::string sequence;
    std::string qstring;
    // The tags (raw BAM aux bytes) of a read from BAM, SAM or CRAM input;
    // none for a read from FASTQ.
    std::optional<std::string> tags;
    // Set by ParseTitle; whoever assigns title directly parses it again.
    TitleFields fields;

    FastQRecord() = default;
    // Takes the fields, runs Validate and ParseTitle; throws
    // std::runtime_error on a bad record.
    FastQRecord(std::string title, std::string sequence, std::string qstring);

    // Throws std::runtime_error naming the first broken invariant.
    void Validate() const;
    // Finds the read id, the comment and the run id in title (see ReadId,
    // Comment and RunId for the rules).
    void ParseTitle();
    // Builds title from fields found elsewhere (BAM input), setting fields
    // as it goes: "@" + read_id, then " " + comment, then " runid=" + run_id
    // when there is one and the comment names none (the comment's own wins,
    // as it would in ParseTitle).
    void ComposeTitle(std::string_view read_id, std::optional<std::string_view> comment,
                      std::optional<std::string_view> run_id);
    // Debug dump used inside error messages (no final newline).
    std::string Print() const;
    // The four FASTQ lines, each ended by '\n', with a bare "+" line.
    std::string ToString() const;
    // The same, appended to out.
    void AppendTo(std::string& out) const;

    // The fields as found, without copies or log lines. Read id: the title up
    // to its first space, without its first character (kInvalidReadId for a
    // title of under two characters). Comment: the text after that space
    // (empty when none). Run id: the value of the first "runid=" from index
    // 1 on, up to the next space (kInvalidRunId when absent; see HasRunId).
    std::string_view ReadId() const;
    std::string_view Comment() const;
    std::string_view RunId() const;
    bool HasRunId() const { return fields.has_run_id; }

    // ReadId, with an error log line when there is none. Throws on an empty title.
    std::string GetReadId() const;
    // RunId, with an error log line when there is none. Throws on an empty title.
    std::string GetRunId() const;
};

}  // namespace Common
