#pragma once
// FASTQ output split by folder and run id. Every (folder, run id) pair has its
// own series of files "fastq_runid_<run id>_<index>.fastq[.gz]", indices from
// 0; with records_per_fastq > 0 the next file starts when a record arrives
// after the current one is full. Not thread-safe: the caller serialises.

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/fastq_record.h"

namespace Common {

struct FastqWriterOptions {
    bool split_pass_fail = false;    // "pass"/"fail" folder level
    bool compress = false;           // gzip, fastest level
    unsigned records_per_fastq = 0;  // 0 = one file per folder and run id
};

class FastqWriter {
public:
    // save_paths are the output roots ("writer objects"): every record is
    // written below each of them, so one run can fill a local and a shared
    // folder at once. Throws when the list is empty.
    FastqWriter(std::vector<std::string> save_paths, const FastqWriterOptions& options);
    virtual ~FastqWriter();
    FastqWriter(const FastqWriter&) = delete;
    FastqWriter& operator=(const FastqWriter&) = delete;

    // Appends record to the current file of (root / folder, run_id) under every
    // root; folder is relative ("" = the root itself). Missing folders are created.
    void WriteToFolder(const FastQRecord& record, const std::string& folder, const std::string& run_id);
    void Flush();
    // Flushes and closes every file (gzip trailers included); later writes and
    // flushes throw. The destructor finalises when this was not called.
    void Finalise();

    const FastqWriterOptions& Options() const { return options_; }

protected:
    struct OpenFile;
    using Key = std::pair<std::string, std::string>;  // (full folder path, run id)

    // Closes the entry's current file and opens the next index.
    void startNewFile(const Key& key);

private:
    std::unique_ptr<OpenFile> Open(const Key& key, unsigned index) const;

    std::vector<std::string> save_paths_;
    FastqWriterOptions options_;
    bool finalised_ = false;
    std::map<Key, std::unique_ptr<OpenFile>> files_;
};

// Chooses the folder from the classification: "calibration_strands" for
// calibration reads, else optional "pass"/"fail", then the arrangement name.
class BarcodeFastqWriter : public FastqWriter {
public:
    BarcodeFastqWriter(const std::string& save_path, bool compress, unsigned records_per_fastq,
                       bool split_pass_fail = false);
    BarcodeFastqWriter(std::vector<std::string> save_paths, const FastqWriterOptions& options);

    void Write(const FastQRecord& record, const std::string& arrangement, const std::string& run_id, bool pass = true,
               bool calibration = false);
};

}  // namespace Common
