// Each series knows its current file and how many records it holds, so the
// writer alone decides rotation, in input order. Files are plain descriptors
// written one chunk at a time; with compression every chunk is one gzip
// member, and a gzip file may hold any number of members back to back, so a
// file is valid after every chunk and can be closed and reopened for
// appending at any time. That is what lets the writer keep only a bounded
// number of files open whatever the number of arrangements and run ids.

#include "common/fastq_writer.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "common/gzip_member_writer.h"
#include "common/logger.h"
#include "common/output_file.h"

namespace Common {

namespace fs = std::filesystem;

namespace {

const Logger& WriterLog() {
    static const Logger logger("fastq_writer");
    return logger;
}

// Half of the open-file limit, leaving the rest to inputs, logs and the
// summary; never fewer than a handful.
unsigned DefaultMaxOpenFiles() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 1024;
    return static_cast<unsigned>(std::clamp<rlim_t>(limit.rlim_cur / 2, 4, 1024));
}

bool OutOfDescriptors(const OutputError& error) {
    return error.ErrorNumber() == EMFILE || error.ErrorNumber() == ENFILE;
}

}  // namespace

void FastqChunk::AddRecord(const FastQRecord& record) {
    text.reserve(text.size() + record.title.size() + record.sequence.size() + record.qstring.size() + 4);
    text += record.title;
    text += '\n';
    text += record.sequence;
    text += "\n+\n";
    text += record.qstring;
    text += '\n';
    record_ends.push_back(text.size());
}

struct FastqWriter::Series {
    std::string folder;
    std::string run_id;
    unsigned index = 0;
    uint64_t records = 0;  // in the current file
    bool created = false;  // the current file was created (emptied) by this run
    uint64_t last_use = 0;
    uint64_t undo_batch = 0;  // the batch whose undo record holds this file's earlier size
    std::string undo_path;
    uint64_t created_batch = 0;  // the batch that created the current file
    OutputFile file;

    std::string Path(bool compress) const {
        std::string name = "fastq_runid_" + run_id + "_" + std::to_string(index) + ".fastq";
        if (compress) name += ".gz";
        return (fs::path(folder) / name).string();
    }
};

FastqWriter::FastqWriter(std::vector<std::string> save_paths, const FastqWriterOptions& options)
    : save_paths_(std::move(save_paths)),
      options_(options),
      max_open_(options.max_open_files > 0 ? options.max_open_files : DefaultMaxOpenFiles()) {
    if (save_paths_.empty()) throw std::runtime_error("Cannot create FastqWriter with no writer objects!");
}

FastqWriter::~FastqWriter() {
    if (finalised_) return;
    try {
        Finalise();
    } catch (const std::exception& e) {
        VB_LOG(WriterLog(), Severity::error) << "Failed to close fastq output: " << e.what();
    }
}

FastqWriter::Series& FastqWriter::FindSeries(const Key& key) {
    auto found = series_.find(key);
    if (found != series_.end()) return *found->second;
    auto series = std::make_unique<Series>();
    series->folder = key.first;
    series->run_id = key.second;
    return *series_.emplace(key, std::move(series)).first->second;
}

void FastqWriter::CloseLeastRecentlyUsed() {
    Series* oldest = nullptr;
    for (auto& [key, series] : series_) {
        if (series->file.IsOpen() && (oldest == nullptr || series->last_use < oldest->last_use)) oldest = series.get();
    }
    if (oldest == nullptr) return;
    oldest->file.Close();
    --open_count_;
}

// The first open of a file in this run empties it (an older run's file of the
// same name is replaced); a reopen after an eviction appends.
void FastqWriter::EnsureOpen(Series& series) {
    series.last_use = ++use_clock_;
    if (series.file.IsOpen()) return;
    while (open_count_ >= max_open_)
        CloseLeastRecentlyUsed();
    const std::string path = series.Path(options_.compress);
    if (!series.created) {
        std::error_code error;
        if (!series.folder.empty() && !fs::is_directory(series.folder, error)) {
            fs::create_directories(series.folder, error);
            if (error) throw OutputError("Failed to create folder '" + series.folder + "': " + error.message() + ".");
        }
        if (fs::exists(path, error))
            VB_LOG(WriterLog(), Severity::warning) << "The output file '" << path << "' will be overwitten.";
    }
    if (!series.created) series.created_batch = in_batch_ ? batch_id_ : 0;
    for (int attempt = 0;; ++attempt) {
        try {
            series.file.Open(path, !series.created);
            break;
        } catch (const OutputError& error) {
            // Another part of the process may hold descriptors we counted on.
            if (attempt > 0 || !OutOfDescriptors(error) || open_count_ == 0) throw;
            max_open_ = std::max(1u, static_cast<unsigned>(open_count_ / 2));
            while (open_count_ > max_open_ - 1)
                CloseLeastRecentlyUsed();
        }
    }
    series.created = true;
    ++open_count_;
}

void FastqWriter::WriteToSeries(Series& series, std::string_view bytes) {
    EnsureOpen(series);
    // The size before the first write of a batch to this file is where a
    // rollback cuts it back to.
    if (in_batch_ && (series.undo_batch != batch_id_ || series.undo_path != series.file.Path())) {
        batch_undo_.push_back({series.file.Path(), series.file.Size(), series.created_batch == batch_id_});
        series.undo_batch = batch_id_;
        series.undo_path = series.file.Path();
    }
    series.file.Write(bytes);
}

void FastqWriter::startNewFile(const Key& key) {
    Series& series = FindSeries(key);
    if (series.file.IsOpen()) {
        series.file.Close();
        --open_count_;
    }
    ++series.index;
    series.records = 0;
    series.created = false;
}

std::string FastqWriter::CompressPiece(std::string_view text) {
    if (!gzip_) gzip_ = std::make_unique<GzipMemberWriter>();
    std::string member;
    gzip_->Append(text, member);
    return member;
}

void FastqWriter::Append(const FastqChunk& chunk) {
    if (finalised_) throw std::runtime_error("Attempted to write record after finalizing the writer.");
    if (chunk.Records() == 0) return;
    const uint64_t limit = options_.records_per_fastq;
    for (const auto& root : save_paths_) {
        const Key key((fs::path(root) / chunk.folder).string(), chunk.run_id);
        Series& series = FindSeries(key);
        if (limit > 0 && series.records >= limit) startNewFile(key);
        if (limit == 0 || series.records + chunk.Records() <= limit) {
            WriteToSeries(series, options_.compress ? std::string_view(chunk.gzip) : std::string_view(chunk.text));
            series.records += chunk.Records();
            continue;
        }
        // The chunk straddles one or more file boundaries: cut it at record
        // ends, filling the current file first.
        if (chunk.text.size() != chunk.record_ends.back())
            throw std::logic_error("A FASTQ chunk crossing a file boundary must carry its text.");
        size_t done = 0;
        while (done < chunk.Records()) {
            if (series.records >= limit) startNewFile(key);
            const size_t take = std::min<size_t>(chunk.Records() - done, limit - series.records);
            const size_t begin = done == 0 ? 0 : chunk.record_ends[done - 1];
            const size_t end = chunk.record_ends[done + take - 1];
            const std::string_view piece(chunk.text.data() + begin, end - begin);
            if (options_.compress) {
                WriteToSeries(series, CompressPiece(piece));
            } else {
                WriteToSeries(series, piece);
            }
            series.records += take;
            done += take;
        }
    }
    records_written_ += chunk.Records();
}

void FastqWriter::WriteToFolder(const FastQRecord& record, const std::string& folder, const std::string& run_id) {
    FastqChunk chunk;
    chunk.folder = folder;
    chunk.run_id = run_id;
    chunk.AddRecord(record);
    if (options_.compress) CompressPiece(chunk.text).swap(chunk.gzip);
    Append(chunk);
}

void FastqWriter::BeginBatch() {
    in_batch_ = true;
    ++batch_id_;
    batch_undo_.clear();
}

void FastqWriter::CommitBatch() {
    in_batch_ = false;
    batch_undo_.clear();
}

void FastqWriter::RollbackBatch() {
    in_batch_ = false;
    std::vector<Undo> undo;
    undo.swap(batch_undo_);
    std::string failures;
    for (const auto& [path, size, created] : undo) {
        try {
            // A file the batch created goes again: an empty .gz is not valid gzip.
            std::error_code error;
            if (created && fs::remove(path, error)) continue;
            TruncateOutputFile(path, size);
        } catch (const OutputError& error) {
            failures += std::string(failures.empty() ? "" : " ") + error.what();
        }
    }
    if (!failures.empty()) throw OutputError(failures);
}

void FastqWriter::Flush() {
    if (finalised_) throw std::runtime_error("Attempted to flush after finalizing the writer.");
}

void FastqWriter::Finalise() {
    if (finalised_) return;
    finalised_ = true;
    std::string failures;
    for (auto& [key, series] : series_) {
        try {
            series->file.Close();
        } catch (const OutputError& error) {
            failures += std::string(failures.empty() ? "" : " ") + error.what();
        }
    }
    open_count_ = 0;
    series_.clear();
    if (!failures.empty()) throw OutputError(failures);
}

BarcodeFastqWriter::BarcodeFastqWriter(const std::string& save_path, bool compress, unsigned records_per_fastq,
                                       bool split_pass_fail)
    : FastqWriter({save_path}, FastqWriterOptions{split_pass_fail, compress, records_per_fastq, 0}) {}

BarcodeFastqWriter::BarcodeFastqWriter(std::vector<std::string> save_paths, const FastqWriterOptions& options)
    : FastqWriter(std::move(save_paths), options) {}

std::string BarcodeFastqWriter::FolderFor(const std::string& arrangement, bool split_pass_fail, bool pass,
                                          bool calibration) {
    if (calibration) return "calibration_strands";
    fs::path folder;
    if (split_pass_fail) folder /= pass ? "pass" : "fail";
    if (!arrangement.empty()) folder /= arrangement;
    return folder.string();
}

void BarcodeFastqWriter::Write(const FastQRecord& record, const std::string& arrangement, const std::string& run_id,
                               bool pass, bool calibration) {
    WriteToFolder(record, FolderFor(arrangement, Options().split_pass_fail, pass, calibration), run_id);
}

}  // namespace Common
