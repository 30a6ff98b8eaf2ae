#include "common/fastq_reader.h"

#include <boost/iostreams/device/file.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "common/logger.h"

namespace Common {

namespace {

// Inputs run to tens of gigabytes; large buffers keep the per-call overhead
// of the stream layers out of the profile.
constexpr std::streamsize kBufferSize = 1 << 20;

const Logger& ReaderLogger() {
    static const Logger logger("fastq_reader");
    return logger;
}

// An ifstream with a buffer of its own; the buffer must be installed before
// open() for libstdc++ to use it.
class BufferedFileStream : public std::ifstream {
public:
    explicit BufferedFileStream(const std::string& path) : buffer_(kBufferSize) {
        rdbuf()->pubsetbuf(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
        open(path);
    }

private:
    std::vector<char> buffer_;
};

std::string Extension(const std::string& path) {
    size_t slash = path.find_last_of('/');
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    return path.substr(dot);
}

}  // namespace

std::unique_ptr<std::istream> OpenFastqFile(const std::string& path) {
    if (Extension(path) == ".fastq") {
        auto stream = std::make_unique<BufferedFileStream>(path);
        if (!stream->is_open()) throw std::runtime_error("Could not open input file '" + path + "'");
        return stream;
    }
    namespace io = boost::iostreams;
    io::file_source source(path, std::ios::in | std::ios::binary);
    if (!source.is_open()) throw std::runtime_error("Could not open input file '" + path + "'");
    auto stream = std::make_unique<io::filtering_istream>();
    stream->push(io::gzip_decompressor(io::zlib::default_window_bits, kBufferSize), kBufferSize);
    stream->push(source, kBufferSize);
    // Without this a corrupt or truncated archive would only set badbit and
    // read as an early, silent end of file.
    stream->exceptions(std::ios::badbit);
    return stream;
}

FastQIterable::FastQIterable(std::istream* stream) : stream_(stream) {}

FastQIterable& FastQIterable::Begin() {
    if (state_ != kNotStarted) throw std::runtime_error("Cannot start FastQ iteration twice");
    Increment();
    return *this;
}

// End of input is only seen by the read after the one that hit it: a file
// ending in "\n" yields an extra, empty title read with state still running,
// and the remaining three reads then set the end. A last line without "\n"
// sets eof while still being returned, so that record is delivered.
void FastQIterable::ReadLine(std::string& line) {
    if (stream_->eof()) {
        line.clear();
        state_ = kEnd;
        return;
    }
    if (stream_->fail()) throw std::runtime_error("Input stream is in a failed state");
    std::getline(*stream_, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    state_ = kRunning;
}

void FastQIterable::Increment() {
    const Logger& logger = ReaderLogger();
    const bool trace = logger.Enabled(Severity::trace);
    if (trace) VB_LOG(logger, Severity::trace) << __PRETTY_FUNCTION__ << ": FastQIterable::Increment()";
    try {
        // The record's strings are reused as line buffers, so steady-state
        // reading allocates nothing. On failure the record is left partly
        // overwritten, but it is never used once the end is reached.
        ReadLine(record_.title);
        if (trace) VB_LOG(logger, Severity::trace) << "title:  " << record_.title;
        ReadLine(record_.sequence);
        if (trace) VB_LOG(logger, Severity::trace) << "seq:    " << record_.sequence;
        ReadLine(plus_line_);
        if (trace) VB_LOG(logger, Severity::trace) << "plus:   " << plus_line_;
        ReadLine(record_.qstring);
        if (trace) VB_LOG(logger, Severity::trace) << "qstring:" << record_.qstring;
        record_.Validate();
    } catch (const std::exception& e) {
        VB_LOG(logger, Severity::error) << "Caught exception, so setting END flag. " << e.what();
        error_ = e.what();
        state_ = kEnd;
    } catch (...) {
        VB_LOG(logger, Severity::error) << "Caught unknown exception, so setting END flag.";
        error_ = "unknown error";
        state_ = kEnd;
    }
}

}  // namespace Common
