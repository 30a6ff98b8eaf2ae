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
// through a gzip decompressor (the content is not sniffed). Throws
// std::runtime_error "Could not open input file '<path>'" when the file cannot
// be opened. Read errors of the stream (for example corrupt gzip data) are
// thrown from its reads, which FastQIterable turns into the end of iteration.
std::unique_ptr<std::istream> OpenFastqFile(const std::string& path);

// One pass over one stream:
//   FastQIterable reads(stream.get());
//   for (reads.Begin(); !reads.AtEnd(); reads.Increment()) use(reads.Record());
// Lenient about layout (the '@' and '+' lines are not checked), strict about
// content: the first record failing FastQRecord's checks ends the iteration,
// with an error log line. Never throws from Increment.
class FastQIterable {
public:
    // The stream is not owned and must outlive the iteration.
    explicit FastQIterable(std::istream* stream);

    // Reads the first record; throws std::runtime_error
    // "Cannot start FastQ iteration twice" when called again.
    FastQIterable& Begin();
    void Increment();
    bool AtEnd() const { return state_ == kEnd; }
    // Why the iteration ended: empty at a clean end of input, else the
    // message of the record or stream failure that ended it.
    const std::string& Error() const { return error_; }
    // Valid only while !AtEnd(). Not const so a consumer may move it out.
    FastQRecord& Record() { return record_; }
    const FastQRecord& Record() const { return record_; }

private:
    static constexpr int32_t kNotStarted = 0;
    static constexpr int32_t kRunning = 1;
    static constexpr int32_t kEnd = 2;

    void ReadLine(std::string& line);

    FastQRecord record_;
    int32_t state_ = kNotStarted;
    std::istream* stream_;
    std::string plus_line_;
    std::string error_;
};

}  // namespace Common
