// Files stay open between writes: the map holds one open stream per (folder,
// run id), so a read costs one formatted append. A gzip file is a compressor
// chained in front of the file stream; closing the chain is what writes the
// gzip trailer, so every path that drops a file goes through Close().

#include "common/fastq_writer.h"

// GCC 12 reports a false -Wrestrict inside the gzip compressor's inlined
// buffer copies (boost/iostreams with libstdc++ char_traits).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wrestrict"
#endif

#include <boost/filesystem.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>
#include <fstream>
#include <stdexcept>

#include "common/logger.h"

namespace Common {

namespace {
const Logger& WriterLog() {
    static const Logger logger("fastq_writer");
    return logger;
}
}  // namespace

struct FastqWriter::OpenFile {
    std::string path;
    unsigned index = 0;
    unsigned records = 0;  // written to the current file
    std::ofstream file;
    std::unique_ptr<boost::iostreams::filtering_ostream> gzip;  // null for plain text

    std::ostream& Stream() { return gzip ? static_cast<std::ostream&>(*gzip) : file; }
    void Close() {
        if (gzip) gzip->reset();  // flushes the compressor and writes the trailer
        gzip.reset();
        file.close();
    }
};

FastqWriter::FastqWriter(std::vector<std::string> save_paths, const FastqWriterOptions& options)
    : save_paths_(std::move(save_paths)), options_(options) {
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

std::unique_ptr<FastqWriter::OpenFile> FastqWriter::Open(const Key& key, unsigned index) const {
    namespace fs = boost::filesystem;
    const fs::path folder(key.first);
    if (!folder.empty() && !fs::exists(folder)) fs::create_directories(folder);
    std::string name = "fastq_runid_" + key.second + "_" + std::to_string(index) + ".fastq";
    if (options_.compress) name += ".gz";
    auto file = std::make_unique<OpenFile>();
    file->path = (folder / name).string();
    file->index = index;
    if (fs::exists(file->path))
        VB_LOG(WriterLog(), Severity::warning) << "The output file '" << file->path << "' will be overwitten.";
    file->file.open(file->path, std::ios::out | std::ios::binary | std::ios::trunc);
    if (!file->file) throw std::runtime_error("Failed to open file '" + file->path + "' for writing.");
    if (options_.compress) {
        namespace io = boost::iostreams;
        file->gzip = std::make_unique<io::filtering_ostream>();
        file->gzip->push(io::gzip_compressor(io::gzip_params(io::gzip::best_speed)));
        file->gzip->push(file->file);
    }
    return file;
}

void FastqWriter::startNewFile(const Key& key) {
    std::unique_ptr<OpenFile>& slot = files_.at(key);
    const unsigned next = slot->index + 1;
    slot->Close();
    slot = Open(key, next);
}

void FastqWriter::WriteToFolder(const FastQRecord& record, const std::string& folder, const std::string& run_id) {
    if (finalised_) throw std::runtime_error("Attempted to write record after finalizing the writer.");
    const std::string text = record.ToString();
    for (const auto& root : save_paths_) {
        const Key key((boost::filesystem::path(root) / folder).string(), run_id);
        auto found = files_.find(key);
        if (found == files_.end()) found = files_.emplace(key, Open(key, 0)).first;
        if (options_.records_per_fastq > 0 && found->second->records >= options_.records_per_fastq) startNewFile(key);
        OpenFile& file = *found->second;
        file.Stream() << text;
        if (!file.Stream()) throw std::runtime_error("Failed to write to file '" + file.path + "'.");
        ++file.records;
    }
}

void FastqWriter::Flush() {
    if (finalised_) throw std::runtime_error("Attempted to flush after finalizing the writer.");
    for (auto& [key, file] : files_)
        file->Stream().flush();
}

void FastqWriter::Finalise() {
    if (finalised_) return;
    finalised_ = true;
    for (auto& [key, file] : files_) {
        file->Stream().flush();
        file->Close();
    }
    files_.clear();
}

BarcodeFastqWriter::BarcodeFastqWriter(const std::string& save_path, bool compress, unsigned records_per_fastq,
                                       bool split_pass_fail)
    : FastqWriter({save_path}, FastqWriterOptions{split_pass_fail, compress, records_per_fastq}) {}

BarcodeFastqWriter::BarcodeFastqWriter(std::vector<std::string> save_paths, const FastqWriterOptions& options)
    : FastqWriter(std::move(save_paths), options) {}

void BarcodeFastqWriter::Write(const FastQRecord& record, const std::string& arrangement, const std::string& run_id,
                               bool pass, bool calibration) {
    boost::filesystem::path folder;
    if (calibration) {
        folder = "calibration_strands";
    } else {
        if (Options().split_pass_fail) folder /= pass ? "pass" : "fail";
        if (!arrangement.empty()) folder /= arrangement;
    }
    WriteToFolder(record, folder.string(), run_id);
}

}  // namespace Common
