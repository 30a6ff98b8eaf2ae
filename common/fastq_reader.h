#pragma once
// Cuts a text stream into FASTQ records, four lines each, and opens input
// files as such streams (plain or gzip by file name).

#include <cstdint>
#include <istream>
#include <memory>
#include <string>

#include "common/fastq_record.h"

namespace Common {

// Opens an input FASTQ file: ".fastq" is read as text, any other extension
// as gzip (the content is not sniffed), see GzipInflateStreambuf for
// multi-member files, trailing bytes and damage. Throws std::runtime_error
// "Could not open input file '<path>'" when the file cannot be opened. Read
// errors of the stream (for example corrupt gzip data) are thrown from its
// reads, after every byte before them was delivered; FastQIterable turns them
// into the end of iteration with Error() set.
std::unique_ptr<std::istream> OpenFastqFile(const std::string& path);

// One pass over one stream:
//   FastQIterable reads(stream.get(), path);
//   for (reads.Begin(); !reads.AtEnd(); reads.Increment()) use(reads.Record());
//   if (!reads.Error().empty()) report(reads.Error());
// Lenient about layout (the '@' and '+' lines are not checked), strict about
// content: the first record failing FastQRecord's checks ends the iteration.
// "\r\n" reads like "\n"; a last line without "\n" still counts. When the
// input ends inside a record, it is still delivered if its first three lines
// are complete and it passes the checks (an empty last line cannot be told
// from a missing one), blank lines are a clean end, anything else is an
// error. A stream error (gzip damage, read error) ends the iteration the
// same way. Each error is logged once, as
// "Caught exception, so setting END flag. " + Error(). Never throws from
// Increment.
class FastQIterable {
public:
    // The stream is not owned and must outlive the iteration; it is read
    // through its stream buffer in large blocks. `name` (usually the path)
    // appears in error messages.
    explicit FastQIterable(std::istream* stream);
    FastQIterable(std::istream* stream, std::string name);

    // Reads the first record; throws std::runtime_error
    // "Cannot start FastQ iteration twice" when called again.
    FastQIterable& Begin();
    void Increment();
    bool AtEnd() const { return state_ == kEnd; }
    // Valid only while !AtEnd(). Not const so a consumer may move it out.
    FastQRecord& Record() { return record_; }
    const FastQRecord& Record() const { return record_; }

    // Why the iteration ended: empty for the clean end of input (and before
    // it), else "'<name>': record <n> (line <l>) ...; the rest of the file was
    // skipped." with record fields capped at 200 characters.
    const std::string& Error() const { return error_; }

private:
    static constexpr int32_t kNotStarted = 0;
    static constexpr int32_t kRunning = 1;
    static constexpr int32_t kEnd = 2;

    enum class Line { kEnded, kUnended, kNone };

    void ReadRecord();
    Line ReadLine(std::string& line);
    bool Refill();
    std::string Where(uint64_t record, uint64_t line) const;
    void Stop(const std::string& message);

    FastQRecord record_;
    int32_t state_ = kNotStarted;
    std::istream* stream_;
    std::string name_;
    std::string plus_line_;
    std::unique_ptr<char[]> buffer_;  // allocated by the first read
    size_t begin_ = 0;                // buffer_[begin_, end_) is read but not yet cut into lines
    size_t end_ = 0;
    bool input_done_ = false;
    uint64_t records_ = 0;
    uint64_t lines_ = 0;  // lines taken so far, blank ones included
    std::string error_;
};

}  // namespace Common
