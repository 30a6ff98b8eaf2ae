#pragma once
// FASTQ (or BAM) output split by folder and run id. Every (folder, run id)
// pair has its own series of files "fastq_runid_<run id>_<index>.fastq[.gz]"
// ("bam_runid_<run id>_<index>.bam"), indices from 0; with records_per_fastq
// > 0 the next file starts when a record arrives after the current one is
// full.
//
// Records arrive as chunks: the text of many records of one series, already
// formatted (and, with compression, already made into a gzip member) by a
// worker. The writer only appends bytes and decides where a series' next file
// begins, which depends on everything written before and so belongs here.
// Not thread-safe: one writer thread (or the caller's lock) serialises it.
//
// BAM files get the header set with SetFileHeader when they are created and
// the BGZF end-of-file block when they are closed; a file reopened for
// appending loses that block again first, so a closed file is always whole.

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/fastq_record.h"

namespace Common {

class GzipMemberWriter;
enum class OutputFormat { fastq, bam };

// Compresses output text as its format's files hold it: one gzip member for
// FASTQ, whole BGZF blocks for BAM (ISA-L level 1 both), appended to out.
// Keeps its compressor state: one per thread.
class OutputCompressor {
public:
    explicit OutputCompressor(OutputFormat format);
    ~OutputCompressor();
    OutputCompressor(const OutputCompressor&) = delete;
    OutputCompressor& operator=(const OutputCompressor&) = delete;

    void Append(std::string_view text, std::string& out);

private:
    OutputFormat format_;
    std::unique_ptr<GzipMemberWriter> gzip_;  // FASTQ only
};

struct FastqWriterOptions {
    bool split_pass_fail = false;    // "pass"/"fail" folder level
    bool compress = false;           // gzip
    unsigned records_per_fastq = 0;  // 0 = one file per folder and run id
    // Output files kept open at once; the least recently used is closed (and
    // later reopened for appending) beyond that. 0 = derived from the
    // process's open-file limit.
    unsigned max_open_files = 0;
    OutputFormat format = OutputFormat::fastq;  // bam: always BGZF compressed, whatever compress says
};

// The records of one series in one batch, in input order.
//
// Plain FASTQ may point at its records instead of copying them (AddRecordView):
// pieces then holds each record's bytes in kPiecesPerRecord parts, written by
// one gathering write, and text stays empty. Such a chunk is only valid while
// its records live unchanged, i.e. until it has been written.
struct FastqChunk {
    static constexpr size_t kPiecesPerRecord = 6;

    std::string folder;  // relative to the save path; "" = the save path itself
    std::string run_id;
    std::string text;                      // FASTQ text or BAM records; may be empty when gzip holds it all
    std::vector<size_t> record_ends;       // end offset of each record in the chunk's bytes (text or pieces)
    std::string gzip;                      // compressed text: one gzip member, or BGZF blocks for BAM
    std::vector<std::string_view> pieces;  // plain FASTQ by reference; empty otherwise

    size_t Records() const { return record_ends.size(); }
    void AddRecord(const FastQRecord& record);
    void AddRecordView(const FastQRecord& record);
};

// Where one series stood, for a later run to carry on from (--resume).
struct SeriesState {
    std::string folder;  // relative to the save path, as in FastqChunk
    std::string run_id;
    unsigned index = 0;    // of the current file
    uint64_t records = 0;  // in the current file
    uint64_t size = 0;     // bytes of the current file on disk; 0 when it does not exist yet
    bool trailer = false;  // the current file is closed and ends with the trailer
};

class FastqWriter {
public:
    // save_paths are the output roots ("writer objects"): every record is
    // written below each of them. Throws when the list is empty.
    FastqWriter(std::vector<std::string> save_paths, const FastqWriterOptions& options);
    virtual ~FastqWriter();
    FastqWriter(const FastqWriter&) = delete;
    FastqWriter& operator=(const FastqWriter&) = delete;

    // Appends the chunk's records to their series under every root. With
    // compression (and always for BAM), chunk.gzip is written as it is when
    // the records all go to one file; a chunk that straddles a file boundary
    // needs chunk.text. Without compression a chunk of pieces is written
    // from its pieces.
    // Throws OutputError (output_file.h) when a file cannot be opened or written.
    void Append(const FastqChunk& chunk);
    // The bytes every new file starts with (BAM: the compressed header). Set
    // before the first record.
    void SetFileHeader(std::string bytes) { file_header_ = std::move(bytes); }

    // Everything appended between BeginBatch and RollbackBatch is cut off
    // again (files cut back to their earlier size), so that a failed batch
    // leaves whole batches behind. CommitBatch forgets the record.
    void BeginBatch();
    void CommitBatch();
    void RollbackBatch();

    // Where every series stands (outside a batch): enough for Resume to
    // carry on in a later process.
    std::vector<SeriesState> Snapshot() const;
    // Before the first write: carries on from an earlier run's Snapshot
    // under the first save path. Each series' current file is cut back to
    // its recorded size (so what the earlier run wrote after the snapshot is
    // gone), and every output file of the current format that the snapshot
    // does not account for (a later index, a series it does not list) is
    // removed. Returns one line per file cut back or removed. Throws
    // OutputError when a file is shorter than recorded or cannot be changed.
    std::vector<std::string> Resume(const std::vector<SeriesState>& series);

    // Closes every file (BAM: after its end-of-file block); later writes
    // throw. The destructor finalises quietly when this was not called.
    void Finalise();

    const FastqWriterOptions& Options() const { return options_; }

protected:
    struct Series;
    using Key = std::pair<std::string, std::string>;  // (full folder path, run id)

    // Closes the series' current file and moves on to the next index.
    void startNewFile(Series& series);
    // Whether files hold compressed bytes (gzip, or BAM's BGZF), and the
    // compressed form of text.
    bool Compressed() const;
    std::string CompressPiece(std::string_view text);

private:
    Series& FindSeries(const Key& key, const std::string& relative_folder);
    // The series of a chunk below save path number root, found without
    // building its full path (a lookup per chunk, thousands of series).
    Series& SeriesOf(size_t root, const FastqChunk& chunk);
    // The open files form a list by last use, oldest first.
    void MarkUsed(Series& series);
    void Unlist(Series& series);
    void WriteToSeries(Series& series, std::string_view bytes);
    void WriteToSeries(Series& series, std::span<const std::string_view> pieces);
    void EnsureOpen(Series& series);
    void CloseSeriesFile(Series& series);
    void CloseLeastRecentlyUsed();
    void NoteClosed(Series& series);
    void NoteUndo(Series& series, const std::string& path, uint64_t size, bool created);

    std::vector<std::string> save_paths_;
    FastqWriterOptions options_;
    std::string file_header_;
    std::string_view file_trailer_;
    unsigned max_open_;
    bool finalised_ = false;
    std::map<Key, std::unique_ptr<Series>> series_;
    std::unordered_map<std::string, Series*> chunk_series_;  // by root number, folder and run id
    std::string chunk_key_;                                  // reused: no allocation per lookup
    size_t open_count_ = 0;
    Series* oldest_ = nullptr;  // open files by last use: oldest_ ... newest_
    Series* newest_ = nullptr;
    bool in_batch_ = false;
    uint64_t batch_id_ = 0;
    struct Undo {
        std::string path;
        uint64_t size;  // before the batch, without the trailer
        bool created;   // by the batch
        Series* series;
    };
    std::vector<Undo> batch_undo_;
    std::unique_ptr<OutputCompressor> compressor_;  // for chunks cut at a file boundary
};

}  // namespace Common
