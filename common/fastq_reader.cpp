#include "common/fastq_reader.h"

#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "common/gzip_inflate_streambuf.h"
#include "common/logger.h"

namespace Common {

namespace {

// Inputs run to tens of gigabytes; large blocks keep the per-call overhead of
// the stream layers out of the profile, and lines are cut with memchr.
constexpr std::streamsize kBufferSize = 1 << 20;
// A record dump in an error message shows at most this much of each field:
// one 100 MB line must not become a 100 MB log record.
constexpr size_t kDumpFieldLimit = 200;

const Logger& ReaderLogger() {
    static const Logger logger("fastq_reader");
    return logger;
}

// An ifstream with a buffer of its own; the buffer must be installed before
// open() for libstdc++ to use it.
class BufferedFileStream : public std::ifstream {
public:
    explicit BufferedFileStream(const std::string& path)
        : buffer_(std::make_unique_for_overwrite<char[]>(kBufferSize)) {
        rdbuf()->pubsetbuf(buffer_.get(), kBufferSize);
        open(path);
    }

private:
    std::unique_ptr<char[]> buffer_;
};

// Owns the inflating buffer. badbit raises, so readers going through the
// istream see the damage as the exception the buffer threw, not as an early,
// silent end of file.
class GzipFileStream : public std::istream {
public:
    explicit GzipFileStream(const std::string& path) : std::istream(nullptr), buffer_(path) {
        rdbuf(&buffer_);
        exceptions(std::ios::badbit);
    }

private:
    GzipInflateStreambuf buffer_;
};

std::string Extension(const std::string& path) {
    size_t slash = path.find_last_of('/');
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    return path.substr(dot);
}

std::string Capped(const std::string& field) {
    if (field.size() <= kDumpFieldLimit) return field;
    return field.substr(0, kDumpFieldLimit) + "... (" + std::to_string(field.size()) + " characters)";
}

std::string Dump(const FastQRecord& record) {
    return "\n  Header: " + Capped(record.title) + "\n  Sequence: " + Capped(record.sequence) +
           "\n  Qstring: " + Capped(record.qstring);
}

// FastQRecord::Validate puts the reason on the first line and an uncapped
// dump after it; only the reason is kept.
std::string Reason(const char* what) {
    const char* newline = std::strchr(what, '\n');
    return newline == nullptr ? std::string(what) : std::string(what, newline);
}

}  // namespace

std::unique_ptr<std::istream> OpenFastqFile(const std::string& path) {
    if (Extension(path) == ".fastq") {
        auto stream = std::make_unique<BufferedFileStream>(path);
        if (!stream->is_open()) throw std::runtime_error("Could not open input file '" + path + "'");
        return stream;
    }
    return std::make_unique<GzipFileStream>(path);
}

FastQIterable::FastQIterable(std::istream* stream) : FastQIterable(stream, "") {}

FastQIterable::FastQIterable(std::istream* stream, std::string name) : stream_(stream), name_(std::move(name)) {}

FastQIterable& FastQIterable::Begin() {
    if (state_ != kNotStarted) throw std::runtime_error("Cannot start FastQ iteration twice");
    if (stream_ == nullptr || stream_->rdbuf() == nullptr || stream_->fail()) {
        Stop((name_.empty() ? std::string() : "'" + name_ + "': ") + "the input stream is in a failed state");
        return *this;
    }
    Increment();
    return *this;
}

void FastQIterable::Increment() {
    if (state_ == kEnd) return;
    const Logger& logger = ReaderLogger();
    try {
        ReadRecord();
    } catch (const std::exception& e) {
        // A stream error: its message usually names the file already.
        std::string what = e.what();
        const std::string prefix = "'" + name_ + "': ";
        if (!name_.empty() && what.compare(0, prefix.size(), prefix) == 0) what.erase(0, prefix.size());
        Stop(Where(records_ + 1, lines_ + 1) + ": " + what + "; the rest of the file was skipped.");
        return;
    } catch (...) {
        Stop(Where(records_ + 1, lines_ + 1) + ": unknown error; the rest of the file was skipped.");
        return;
    }
    if (state_ != kEnd && logger.Enabled(Severity::trace)) {
        VB_LOG(logger, Severity::trace) << "record " << records_ << "\ntitle:  " << Capped(record_.title)
                                        << "\nseq:    " << Capped(record_.sequence)
                                        << "\nplus:   " << Capped(plus_line_)
                                        << "\nqstring:" << Capped(record_.qstring);
    }
}

// The record's strings are reused as line buffers, so steady-state reading
// allocates nothing. Throws only what the stream throws.
void FastQIterable::ReadRecord() {
    const uint64_t first_line = lines_ + 1;
    std::string* fields[4] = {&record_.title, &record_.sequence, &plus_line_, &record_.qstring};
    int taken = 0;
    int ended = 0;
    bool blank = true;
    while (taken < 4) {
        const Line line = ReadLine(*fields[taken]);
        if (line == Line::kNone) break;
        blank = blank && fields[taken]->empty();
        ++taken;
        if (line == Line::kUnended) break;
        ++ended;
    }
    for (int i = taken; i < 4; ++i)
        fields[i]->clear();
    // The input ended inside this record when fewer than four lines came.
    const bool cut = taken < 4;
    if (taken == 0 || (cut && blank)) {
        state_ = kEnd;
        return;
    }
    std::string invalid;
    try {
        record_.Validate();
    } catch (const std::exception& e) {
        invalid = Reason(e.what());
    }
    // Three complete lines make a record: an empty last line cannot be told
    // from a missing one.
    if (cut && (ended < 3 || !invalid.empty())) {
        Stop(Where(records_ + 1, first_line) + ": the input ends inside the record, after " + std::to_string(taken) +
             " of its 4 lines");
        return;
    }
    if (!invalid.empty()) {
        Stop(Where(records_ + 1, first_line) + ": " + invalid + "; the rest of the file was skipped." + Dump(record_));
        return;
    }
    record_.ParseTitle();
    ++records_;
    state_ = kRunning;
}

// Takes the next line without its "\n" (and one "\r" before it). kUnended is
// a last line without "\n"; kNone means the input had ended before it.
FastQIterable::Line FastQIterable::ReadLine(std::string& line) {
    line.clear();
    bool partial = false;
    for (;;) {
        if (begin_ == end_ && !Refill()) break;
        const char* start = buffer_.get() + begin_;
        const size_t available = end_ - begin_;
        const void* newline = std::memchr(start, '\n', available);
        if (newline != nullptr) {
            const size_t length = static_cast<size_t>(static_cast<const char*>(newline) - start);
            line.append(start, length);
            begin_ += length + 1;
            ++lines_;
            if (!line.empty() && line.back() == '\r') line.pop_back();
            return Line::kEnded;
        }
        line.append(start, available);
        begin_ = end_;
        partial = true;
    }
    if (!partial) return Line::kNone;
    ++lines_;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return Line::kUnended;
}

// sgetn returns short only at the end of the input, so 0 is the end.
bool FastQIterable::Refill() {
    if (input_done_) return false;
    if (!buffer_) buffer_ = std::make_unique_for_overwrite<char[]>(kBufferSize);
    const std::streamsize n = stream_->rdbuf()->sgetn(buffer_.get(), kBufferSize);
    begin_ = 0;
    end_ = n > 0 ? static_cast<size_t>(n) : 0;
    if (end_ == 0) input_done_ = true;
    return end_ > 0;
}

std::string FastQIterable::Where(uint64_t record, uint64_t line) const {
    std::string where = name_.empty() ? std::string() : "'" + name_ + "': ";
    return where + "record " + std::to_string(record) + " (line " + std::to_string(line) + ")";
}

void FastQIterable::Stop(const std::string& message) {
    state_ = kEnd;
    error_ = message;
    VB_LOG(ReaderLogger(), Severity::error) << "Caught exception, so setting END flag. " << message;
}

}  // namespace Common
