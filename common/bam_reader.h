#pragma once
// Reads of a BAM, SAM or CRAM file (through htslib) as FASTQ records, each
// with its tags as raw BAM aux bytes (FastQRecord::tags).
//
// Which records: secondary and supplementary records are skipped (and
// counted): the primary record holds the whole read. A record mapped to the
// reverse strand is turned back to the read's own orientation (bases reverse
// complemented, qualities reversed). Missing qualities ("*") read as
// kMissingQuality throughout.
//
// The fields come from the record: the read id is its name, the comment the
// text of its CO tag (the FASTQ comment kept by this program's BAM output and
// by common conversion tools). The run id, in this order: the comment's
// "runid="; a "runid=" field of the DS (description) of the record's read
// group (RG tag -> @RG line), as basecallers write it; the record's ri:Z tag;
// the PU (platform unit) of its read group, with a warning once per file,
// since a flow cell may hold several runs. Without any of these the read has
// no run id, like such a FASTQ read. The title,
// which FASTQ output carries, is composed from them
// (FastQRecord::ComposeTitle): "@<name> <comment> runid=<run id>".
//
// Tags dropped on the way (see common/bam_record.h): the per-base tags of a
// turned-back record, the alignment tags of any mapped record.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/fastq_record.h"

namespace Common {

// Phred 0, "no information": the quality of every base of a record stored
// without qualities.
inline constexpr char kMissingQuality = '!';

// True for file names ending in .bam, .sam or .cram.
bool IsBamFileName(const std::string& path);

// The @RG lines of the file's header, without line ends. Throws
// std::runtime_error when the file cannot be opened or its header read.
std::vector<std::string> ReadGroupLines(const std::string& path);

// One pass over one file, iterated like FastQIterable:
//   BamIterable reads(path, threads);
//   for (reads.Begin(); !reads.AtEnd(); reads.Increment()) use(reads.Record());
// A record that cannot be a FASTQ record (bases other than A, C, G, T,
// qualities above 93, damaged tags) or damaged data ends the iteration;
// Error() then says why and where.
class BamIterable {
public:
    // Opens the file and reads its header; decompression runs on `threads`
    // htslib threads (0: on the calling thread). Throws std::runtime_error
    // "Could not open input file '<path>'" (or that its header is damaged).
    BamIterable(const std::string& path, int threads);
    ~BamIterable();
    BamIterable(const BamIterable&) = delete;
    BamIterable& operator=(const BamIterable&) = delete;

    BamIterable& Begin();
    void Increment();
    bool AtEnd() const { return at_end_; }
    const std::string& Error() const { return error_; }
    // Valid only while !AtEnd(); not const so that a consumer may move it out.
    FastQRecord& Record() { return record_; }
    // Secondary and supplementary records passed over so far.
    uint64_t Skipped() const { return skipped_; }

private:
    struct Htslib;
    void ReadNext();
    bool Convert();
    std::optional<std::string_view> RunIdOf(std::string_view tags);
    void Stop(std::string error);

    std::unique_ptr<Htslib> hts_;
    std::string path_;
    FastQRecord record_;
    uint64_t records_ = 0;  // read from the file, skipped ones included
    uint64_t skipped_ = 0;
    bool started_ = false;
    bool at_end_ = false;
    std::string error_;
};

}  // namespace Common
