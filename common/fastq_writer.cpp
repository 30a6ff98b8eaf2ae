// Each series knows its current file and how many records it holds, so the
// writer alone decides rotation, in input order. Files are plain descriptors
// written one chunk at a time; with compression every chunk is one gzip
// member, and a gzip file may hold any number of members back to back, so a
// file is valid after every chunk and can be closed and reopened for
// appending at any time. That is what lets the writer keep only a bounded
// number of files open whatever the number of arrangements and run ids.
//
// BAM is BGZF, a gzip file of small members, and works the same way with two
// additions: a file starts with the header (its own BGZF blocks) and ends
// with the empty end-of-file block. The writer appends that block (the
// trailer) whenever it closes a file, and cuts it off again when it reopens
// one, so every file that is not open is a whole BAM file.

#include "common/fastq_writer.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "common/bgzf_blocks.h"
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

// The open-file limit less a reserve for inputs, logs, the summary, the
// report and a GPU driver (a few dozen at most), or half the limit where that
// leaves more; never fewer than a handful. A sheet of thousands of samples
// keeps every sample's file open where the limit allows: with fewer open than
// files in use, reads in random order close one file to reopen another on a
// share of the writes, and reads in the same order as an earlier batch on
// every one of them.
constexpr rlim_t kMostOpenFiles = 32768;

unsigned DefaultMaxOpenFiles() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kMostOpenFiles;
    const rlim_t reserve = std::max<rlim_t>(256, limit.rlim_cur / 16);
    const rlim_t usable = limit.rlim_cur > 2 * reserve ? limit.rlim_cur - reserve : limit.rlim_cur / 2;
    return static_cast<unsigned>(std::clamp<rlim_t>(usable, 4, kMostOpenFiles));
}

// Creates the folder (and its parents): true when this call made it, so that
// it cannot hold an older run's file yet, false when it was there. One system
// call for a new folder rather than three looks first: a sheet of thousands
// of samples makes a folder for each.
bool MakeFolder(const std::string& folder) {
    if (::mkdir(folder.c_str(), 0777) == 0) return true;
    const int reason = errno;
    std::error_code error;
    if (reason == EEXIST && fs::is_directory(folder, error)) return false;
    if (reason == ENOENT) fs::create_directories(folder, error);
    if (reason != ENOENT || error) {
        const std::string why = reason == ENOENT ? error.message() : std::generic_category().message(reason);
        throw OutputError("Failed to create folder '" + folder + "': " + why + ".");
    }
    return true;
}

bool OutOfDescriptors(const OutputError& error) {
    return error.ErrorNumber() == EMFILE || error.ErrorNumber() == ENFILE;
}

}  // namespace

OutputCompressor::OutputCompressor(OutputFormat format) : format_(format) {
    if (format_ == OutputFormat::fastq) gzip_ = std::make_unique<GzipMemberWriter>();
}

OutputCompressor::~OutputCompressor() = default;

void OutputCompressor::Append(std::string_view text, std::string& out) {
    if (format_ == OutputFormat::bam) {
        AppendBgzfBlocks(text, out, kBamCompressionLevel);
    } else {
        gzip_->Append(text, out);
    }
}

void FastqChunk::AddRecord(const FastQRecord& record) {
    record.AppendTo(text);
    record_ends.push_back(text.size());
}

// The same bytes as AppendTo, in place.
void FastqChunk::AddRecordView(const FastQRecord& record) {
    pieces.insert(pieces.end(), {record.title, "\n", record.sequence, "\n+\n", record.qstring, "\n"});
    const size_t before = record_ends.empty() ? 0 : record_ends.back();
    record_ends.push_back(before + record.title.size() + record.sequence.size() + record.qstring.size() + 5);
}

struct FastqWriter::Series {
    std::string folder;
    std::string relative_folder;  // below its save path
    std::string run_id;
    unsigned index = 0;
    uint64_t records = 0;     // in the current file
    bool created = false;     // the current file was created (emptied) by this run
    Series* older = nullptr;  // neighbours in the list of open files by last use
    Series* newer = nullptr;
    bool listed = false;
    uint64_t undo_batch = 0;  // the batch whose undo record holds this file's earlier size
    std::string undo_path;
    uint64_t created_batch = 0;    // the batch that created the current file
    bool trailer_on_disk = false;  // the current file is closed and ends with the trailer
    OutputFile file;

    std::string Path(const FastqWriterOptions& options) const {
        const std::string stem = "_runid_" + run_id + "_" + std::to_string(index);
        if (options.format == OutputFormat::bam) return (fs::path(folder) / ("bam" + stem + ".bam")).string();
        return (fs::path(folder) / ("fastq" + stem + (options.compress ? ".fastq.gz" : ".fastq"))).string();
    }
};

FastqWriter::FastqWriter(std::vector<std::string> save_paths, const FastqWriterOptions& options)
    : save_paths_(std::move(save_paths)),
      options_(options),
      max_open_(options.max_open_files > 0 ? options.max_open_files : DefaultMaxOpenFiles()) {
    if (save_paths_.empty()) throw std::runtime_error("Cannot create FastqWriter with no writer objects!");
    if (options_.format == OutputFormat::bam) file_trailer_ = BgzfEofBlock();
}

FastqWriter::~FastqWriter() {
    if (finalised_) return;
    try {
        Finalise();
    } catch (const std::exception& e) {
        VB_LOG(WriterLog(), Severity::error) << "Failed to close fastq output: " << e.what();
    }
}

FastqWriter::Series& FastqWriter::FindSeries(const Key& key, const std::string& relative_folder) {
    auto found = series_.find(key);
    if (found != series_.end()) return *found->second;
    auto series = std::make_unique<Series>();
    series->folder = key.first;
    series->relative_folder = relative_folder;
    series->run_id = key.second;
    return *series_.emplace(key, std::move(series)).first->second;
}

FastqWriter::Series& FastqWriter::SeriesOf(size_t root, const FastqChunk& chunk) {
    chunk_key_.assign(reinterpret_cast<const char*>(&root), sizeof root);
    chunk_key_ += chunk.folder;
    chunk_key_ += '\0';
    chunk_key_ += chunk.run_id;
    const auto found = chunk_series_.find(chunk_key_);
    if (found != chunk_series_.end()) return *found->second;
    Series& series = FindSeries(Key((fs::path(save_paths_[root]) / chunk.folder).string(), chunk.run_id), chunk.folder);
    chunk_series_.emplace(chunk_key_, &series);
    return series;
}

void FastqWriter::CloseLeastRecentlyUsed() {
    if (oldest_ != nullptr) CloseSeriesFile(*oldest_);
}

// Every open file is in a list by last use, so that the least recently used
// one is found, and a use noted, at once however many series there are.
void FastqWriter::MarkUsed(Series& series) {
    if (newest_ == &series) return;
    Unlist(series);
    series.older = newest_;
    series.newer = nullptr;
    if (newest_ != nullptr) newest_->newer = &series;
    newest_ = &series;
    if (oldest_ == nullptr) oldest_ = &series;
    series.listed = true;
}

void FastqWriter::Unlist(Series& series) {
    if (!series.listed) return;
    (series.older != nullptr ? series.older->newer : oldest_) = series.newer;
    (series.newer != nullptr ? series.newer->older : newest_) = series.older;
    series.older = series.newer = nullptr;
    series.listed = false;
}

void FastqWriter::NoteClosed(Series& series) {
    Unlist(series);
    --open_count_;
}

// The trailer goes on before the file closes; the descriptor is released even
// when writing it fails (a rollback then repairs the file).
void FastqWriter::CloseSeriesFile(Series& series) {
    if (!series.file.IsOpen()) return;
    try {
        if (!file_trailer_.empty()) {
            NoteUndo(series, series.file.Path(), series.file.Size(), series.created_batch == batch_id_);
            series.file.Write(file_trailer_);
        }
    } catch (...) {
        try {
            series.file.Close();
        } catch (const OutputError&) {
        }
        NoteClosed(series);
        throw;
    }
    NoteClosed(series);
    series.trailer_on_disk = !file_trailer_.empty();
    series.file.Close();
}

// Within a batch, the first write to a file records the size to cut it back
// to on rollback (without the trailer, which the rollback puts back).
void FastqWriter::NoteUndo(Series& series, const std::string& path, uint64_t size, bool created) {
    if (!in_batch_) return;
    if (series.undo_batch == batch_id_ && series.undo_path == path) return;
    batch_undo_.push_back({path, size, created, &series});
    series.undo_batch = batch_id_;
    series.undo_path = path;
}

// The first open of a file in this run empties it (an older run's file of the
// same name is replaced) and writes the header; a reopen after an eviction
// cuts the trailer off and appends.
void FastqWriter::EnsureOpen(Series& series) {
    if (series.file.IsOpen()) {
        MarkUsed(series);
        return;
    }
    while (open_count_ >= max_open_)
        CloseLeastRecentlyUsed();
    const std::string path = series.Path(options_);
    if (!series.created) {
        std::error_code error;
        const bool new_folder = !series.folder.empty() && MakeFolder(series.folder);
        if (!new_folder && fs::exists(path, error))
            VB_LOG(WriterLog(), Severity::warning) << "The output file '" << path << "' will be overwitten.";
        series.created_batch = in_batch_ ? batch_id_ : 0;
    } else if (series.trailer_on_disk) {
        std::error_code error;
        const uint64_t size = fs::file_size(path, error);
        if (error) throw OutputError("Failed to reopen '" + path + "': " + error.message() + ".");
        const uint64_t content = size - std::min<uint64_t>(size, file_trailer_.size());
        NoteUndo(series, path, content, series.created_batch == batch_id_);
        TruncateOutputFile(path, content);
        series.trailer_on_disk = false;
    }
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
    ++open_count_;
    MarkUsed(series);
    if (series.created) return;
    series.created = true;
    NoteUndo(series, path, 0, series.created_batch == batch_id_);
    if (!file_header_.empty()) series.file.Write(file_header_);
}

void FastqWriter::WriteToSeries(Series& series, std::string_view bytes) {
    EnsureOpen(series);
    NoteUndo(series, series.file.Path(), series.file.Size(), series.created_batch == batch_id_);
    series.file.Write(bytes);
}

void FastqWriter::WriteToSeries(Series& series, std::span<const std::string_view> pieces) {
    EnsureOpen(series);
    NoteUndo(series, series.file.Path(), series.file.Size(), series.created_batch == batch_id_);
    series.file.Write(pieces);
}

void FastqWriter::startNewFile(Series& series) {
    CloseSeriesFile(series);
    ++series.index;
    series.records = 0;
    series.created = false;
    series.trailer_on_disk = false;
}

bool FastqWriter::Compressed() const {
    return options_.compress || options_.format == OutputFormat::bam;
}

std::string FastqWriter::CompressPiece(std::string_view text) {
    if (!compressor_) compressor_ = std::make_unique<OutputCompressor>(options_.format);
    std::string compressed;
    compressor_->Append(text, compressed);
    return compressed;
}

void FastqWriter::Append(const FastqChunk& chunk) {
    if (finalised_) throw std::runtime_error("Attempted to write record after finalizing the writer.");
    if (chunk.Records() == 0) return;
    if (Compressed() && !chunk.pieces.empty())
        throw std::logic_error("A compressed output takes the chunk's text, not its records in place.");
    const uint64_t limit = options_.records_per_fastq;
    for (size_t root = 0; root < save_paths_.size(); ++root) {
        Series& series = SeriesOf(root, chunk);
        if (limit > 0 && series.records >= limit) startNewFile(series);
        const bool by_pieces = !Compressed() && !chunk.pieces.empty();
        if (limit == 0 || series.records + chunk.Records() <= limit) {
            if (by_pieces) {
                WriteToSeries(series, chunk.pieces);
            } else {
                WriteToSeries(series, Compressed() ? std::string_view(chunk.gzip) : std::string_view(chunk.text));
            }
            series.records += chunk.Records();
            continue;
        }
        // The chunk straddles one or more file boundaries: cut it at record
        // ends, filling the current file first.
        if (!by_pieces && chunk.text.size() != chunk.record_ends.back())
            throw std::logic_error("An output chunk crossing a file boundary must carry its text.");
        size_t done = 0;
        while (done < chunk.Records()) {
            if (series.records >= limit) startNewFile(series);
            const size_t take = std::min<size_t>(chunk.Records() - done, limit - series.records);
            const size_t begin = done == 0 ? 0 : chunk.record_ends[done - 1];
            const size_t end = chunk.record_ends[done + take - 1];
            if (by_pieces) {
                WriteToSeries(series,
                              std::span(chunk.pieces)
                                  .subspan(done * FastqChunk::kPiecesPerRecord, take * FastqChunk::kPiecesPerRecord));
            } else if (Compressed()) {
                WriteToSeries(series, CompressPiece(std::string_view(chunk.text.data() + begin, end - begin)));
            } else {
                WriteToSeries(series, std::string_view(chunk.text.data() + begin, end - begin));
            }
            series.records += take;
            done += take;
        }
    }
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

// Files the batch wrote to are closed first, so that their sizes are known
// again when they are next opened; each is cut back (or removed, when the
// batch created it: an empty .gz or .bam is not valid) and gets its trailer
// back. The series keep their counts: after a rollback the run ends.
void FastqWriter::RollbackBatch() {
    in_batch_ = false;
    std::vector<Undo> undo;
    undo.swap(batch_undo_);
    std::string failures;
    auto fail = [&](const std::string& what) { failures += std::string(failures.empty() ? "" : " ") + what; };
    for (const auto& entry : undo) {
        Series& series = *entry.series;
        if (!series.file.IsOpen() || series.file.Path() != entry.path) continue;
        try {
            series.file.Close();
        } catch (const OutputError&) {
        }
        NoteClosed(series);
    }
    for (const auto& [path, size, created, series] : undo) {
        try {
            std::error_code error;
            if (created && fs::remove(path, error)) {
                if (series->Path(options_) == path) series->created = false;
                continue;
            }
            TruncateOutputFile(path, size);
            if (!file_trailer_.empty()) {
                OutputFile file;
                file.Open(path, false);
                file.Write(file_trailer_);
                file.Close();
                if (series->Path(options_) == path) series->trailer_on_disk = true;
            }
        } catch (const OutputError& error) {
            fail(error.what());
        }
    }
    if (!failures.empty()) throw OutputError(failures);
}

std::vector<SeriesState> FastqWriter::Snapshot() const {
    std::vector<SeriesState> states;
    const fs::path root(save_paths_.front());
    for (const auto& [key, series] : series_) {
        if (key.first != (root / series->relative_folder).string()) continue;
        SeriesState state{series->relative_folder, series->run_id, series->index, series->records, 0, false};
        if (series->created) {
            const std::string path = series->Path(options_);
            std::error_code error;
            state.size = series->file.IsOpen() ? series->file.Size() : fs::file_size(path, error);
            if (error) throw OutputError("Cannot find the size of '" + path + "': " + error.message() + ".");
            state.trailer = series->trailer_on_disk;
        }
        states.push_back(std::move(state));
    }
    return states;
}

namespace {

// "<prefix><run id>_<index><extension>" -> run id and index; false for any other name.
bool ParseOutputName(const std::string& name, const std::string& prefix, const std::string& extension,
                     std::string& run_id, unsigned long& index) {
    if (name.size() <= prefix.size() + extension.size() || name.compare(0, prefix.size(), prefix) != 0 ||
        name.compare(name.size() - extension.size(), extension.size(), extension) != 0)
        return false;
    const std::string middle = name.substr(prefix.size(), name.size() - prefix.size() - extension.size());
    const size_t cut = middle.rfind('_');
    if (cut == std::string::npos || cut + 1 == middle.size() ||
        middle.find_first_not_of("0123456789", cut + 1) != std::string::npos || middle.size() - cut > 10)
        return false;
    run_id = middle.substr(0, cut);
    index = std::stoul(middle.substr(cut + 1));
    return true;
}

}  // namespace

std::vector<std::string> FastqWriter::Resume(const std::vector<SeriesState>& states) {
    std::vector<std::string> changes;
    const fs::path root(save_paths_.front());
    std::map<std::pair<std::string, std::string>, unsigned> current;  // (folder name, run id) -> index
    for (const auto& state : states) {
        Series& series = FindSeries(Key((root / state.folder).string(), state.run_id), state.folder);
        series.index = state.index;
        series.records = state.records;
        series.created = state.size > 0;
        series.trailer_on_disk = series.created && state.trailer;
        current[{fs::path(state.folder).filename().string(), state.run_id}] = state.index;
        const std::string path = series.Path(options_);
        std::error_code error;
        const uint64_t size = fs::exists(path, error) ? fs::file_size(path, error) : 0;
        if (error) throw OutputError("Cannot resume with '" + path + "': " + error.message() + ".");
        if (size < state.size) {
            throw OutputError("Cannot resume: '" + path + "' holds " + std::to_string(size) +
                              " bytes, fewer than the " + std::to_string(state.size) + " the earlier run had written.");
        }
        if (size > state.size && state.size == 0) {
            fs::remove(path, error);
            if (error) throw OutputError("Cannot remove '" + path + "': " + error.message() + ".");
            changes.push_back("removed '" + path + "'");
        } else if (size > state.size) {
            TruncateOutputFile(path, state.size);
            changes.push_back("cut '" + path + "' back to " + std::to_string(state.size) + " bytes");
        }
        // A file that was open is closed now: like every closed file it gets
        // its trailer, which a reopen cuts off again.
        if (series.created && !series.trailer_on_disk && !file_trailer_.empty()) {
            OutputFile file;
            file.Open(path, false);
            file.Write(file_trailer_);
            file.Close();
            series.trailer_on_disk = true;
        }
    }
    // Files that series started after the snapshot, or series it never saw.
    const bool bam = options_.format == OutputFormat::bam;
    const std::string prefix = bam ? "bam_runid_" : "fastq_runid_";
    const std::string extension = bam ? ".bam" : options_.compress ? ".fastq.gz" : ".fastq";
    std::error_code error;
    for (const auto& folder : fs::directory_iterator(root, error)) {
        std::error_code inner;
        if (!folder.is_directory(inner) || folder.is_symlink(inner)) continue;
        for (const auto& file : fs::directory_iterator(folder.path(), inner)) {
            std::string run_id;
            unsigned long index = 0;
            if (!ParseOutputName(file.path().filename().string(), prefix, extension, run_id, index)) continue;
            const auto found = current.find({folder.path().filename().string(), run_id});
            if (found != current.end() && index <= found->second) continue;
            std::error_code removed;
            fs::remove(file.path(), removed);
            if (removed) throw OutputError("Cannot remove '" + file.path().string() + "': " + removed.message() + ".");
            changes.push_back("removed '" + file.path().string() + "'");
        }
    }
    return changes;
}

void FastqWriter::Finalise() {
    if (finalised_) return;
    finalised_ = true;
    std::string failures;
    for (auto& [key, series] : series_) {
        try {
            CloseSeriesFile(*series);
        } catch (const OutputError& error) {
            failures += std::string(failures.empty() ? "" : " ") + error.what();
        }
    }
    open_count_ = 0;
    oldest_ = newest_ = nullptr;
    chunk_series_.clear();
    series_.clear();
    if (!failures.empty()) throw OutputError(failures);
}

}  // namespace Common
