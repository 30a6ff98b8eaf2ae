#include "common/gzip_inflate_streambuf.h"

#include <fcntl.h>
#include <isa-l/igzip_lib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "common/logger.h"

namespace Common {

namespace {

// Compressed input is read in large blocks so system calls stay rare; the
// output area only serves small reads, large ones are inflated in place.
constexpr size_t kInputSize = 1 << 20;
constexpr size_t kOutputSize = 256 << 10;
// isal_inflate counts in 32 bits.
constexpr size_t kMaxChunk = 1u << 30;

const Logger& GzipLogger() {
    static const Logger logger("gzip_input");
    return logger;
}

const char* DescribeInflateError(int code) {
    switch (code) {
        case ISAL_INVALID_BLOCK:
            return "invalid deflate block";
        case ISAL_INVALID_SYMBOL:
            return "invalid deflate code";
        case ISAL_INVALID_LOOKBACK:
            return "back-reference before the start of the data";
        case ISAL_INVALID_WRAPPER:
            return "invalid gzip member header";
        case ISAL_UNSUPPORTED_METHOD:
            return "unsupported compression method";
        case ISAL_INCORRECT_CHECKSUM:
            return "CRC-32 or length of the member does not match its data";
        default:
            return "inflate error";
    }
}

}  // namespace

GzipInflateStreambuf::GzipInflateStreambuf(const std::string& path)
    : path_(path),
      state_(std::make_unique<inflate_state>()),
      in_(std::make_unique_for_overwrite<uint8_t[]>(kInputSize)),
      out_(std::make_unique_for_overwrite<char[]>(kOutputSize)) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) throw std::runtime_error("Could not open input file '" + path + "'");
    struct stat info {};
    if (::fstat(fd_, &info) == 0 && S_ISREG(info.st_mode)) file_size_ = static_cast<uint64_t>(info.st_size);
    ::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
    isal_inflate_init(state_.get());
}

GzipInflateStreambuf::~GzipInflateStreambuf() {
    if (zlib_) inflateEnd(zlib_.get());
    if (fd_ >= 0) ::close(fd_);
}

GzipInflateStreambuf::int_type GzipInflateStreambuf::underflow() {
    if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
    const size_t n = Inflate(out_.get(), kOutputSize);
    if (n == 0) {
        if (!error_.empty()) ThrowError();
        return traits_type::eof();
    }
    setg(out_.get(), out_.get(), out_.get() + n);
    return traits_type::to_int_type(*gptr());
}

// Returns short only at the end of the data or at damage; bytes already copied
// are returned first and the error is thrown by the next read, so nothing
// inflated before the damage is lost.
std::streamsize GzipInflateStreambuf::xsgetn(char* s, std::streamsize n) {
    std::streamsize got = 0;
    while (got < n) {
        const std::streamsize buffered = egptr() - gptr();
        if (buffered > 0) {
            const std::streamsize k = std::min(buffered, n - got);
            std::memcpy(s + got, gptr(), static_cast<size_t>(k));
            gbump(static_cast<int>(k));
            got += k;
            continue;
        }
        const size_t wanted = static_cast<size_t>(n - got);
        if (wanted >= kOutputSize) {
            const size_t k = Inflate(s + got, wanted);
            if (k == 0) break;
            got += static_cast<std::streamsize>(k);
            continue;
        }
        const size_t k = Inflate(out_.get(), kOutputSize);
        if (k == 0) break;
        setg(out_.get(), out_.get(), out_.get() + k);
    }
    if (got == 0 && !error_.empty()) ThrowError();
    return got;
}

// Fills out[0, capacity) as far as the data goes. Stops early only at the
// clean end or at damage (error_ set); never throws.
size_t GzipInflateStreambuf::Inflate(char* out, size_t capacity) {
    size_t produced = 0;
    while (produced < capacity && error_.empty() && phase_ != Phase::kDone) {
        if (phase_ == Phase::kBeforeMember) {
            if (StartNextMember()) phase_ = Phase::kInMember;
            continue;
        }
        if (phase_ == Phase::kZlibTail) {
            produced += InflateZlibTail(out + produced, capacity - produced);
            continue;
        }
        if (in_pos_ == in_end_ && !file_eof_) {
            Refill();
            continue;
        }
        const size_t in_before = in_pos_;
        state_->next_in = in_.get() + in_pos_;
        state_->avail_in = static_cast<uint32_t>(in_end_ - in_pos_);
        state_->next_out = reinterpret_cast<uint8_t*>(out + produced);
        state_->avail_out = static_cast<uint32_t>(std::min(capacity - produced, kMaxChunk));
        const int result = isal_inflate(state_.get());
        const size_t written = static_cast<size_t>(reinterpret_cast<char*>(state_->next_out) - (out + produced));
        produced += written;
        member_output_ += written;
        in_pos_ = static_cast<size_t>(state_->next_in - in_.get());
        if (result < 0) {
            // A bad header is reported where the member starts.
            const bool header = result == ISAL_INVALID_WRAPPER || result == ISAL_UNSUPPORTED_METHOD;
            StartZlibTail("gzip data is corrupt at compressed byte " +
                          std::to_string(header ? member_start_ : CompressedOffset()) + " (" +
                          DescribeInflateError(result) + ")");
            continue;
        }
        if (state_->block_state == ISAL_BLOCK_FINISH) {
            phase_ = Phase::kBeforeMember;
            continue;
        }
        if (state_->avail_out == 0) continue;
        // More output was possible, so ISA-L wants input: at the end of the
        // file the member is cut short.
        const bool stuck = written == 0 && in_pos_ == in_before;
        if (in_pos_ < in_end_ && !stuck) continue;
        if (file_eof_) {
            StartZlibTail("gzip data is truncated after " + std::to_string(in_offset_ + in_end_) + " compressed bytes");
            continue;
        }
        if (in_pos_ < in_end_) {
            // It wants more at once than the buffer holds from here: move
            // the rest to the front and read on.
            if (in_pos_ == 0 && in_end_ == kInputSize) {
                Fail("gzip data is corrupt at compressed byte " + std::to_string(CompressedOffset()) +
                     " (inflate makes no progress)");
                break;
            }
            Refill();
        }
    }
    return produced;
}

// Decides what the bytes after a member (or at the start) are, as gzip does:
// a file must start with a member; later, 0x1f 0x8b (or a lone 0x1f at the
// very end) starts one, and anything else ends the data.
bool GzipInflateStreambuf::StartNextMember() {
    while (in_end_ - in_pos_ < 2 && !file_eof_) {
        if (!Refill()) return false;
    }
    const size_t available = in_end_ - in_pos_;
    if (available == 0) {
        if (members_ == 0) {
            Fail("gzip data is truncated after 0 compressed bytes");
        } else {
            phase_ = Phase::kDone;
        }
        return false;
    }
    const uint8_t* bytes = in_.get() + in_pos_;
    const bool magic = bytes[0] == 0x1f && (available == 1 || bytes[1] == 0x8b);
    if (!magic) {
        if (members_ == 0) {
            Fail("gzip data is corrupt at compressed byte " + std::to_string(CompressedOffset()) +
                 " (not in gzip format)");
        } else {
            SkipTrailingBytes();
            phase_ = Phase::kDone;
        }
        return false;
    }
    isal_inflate_reset(state_.get());
    state_->crc_flag = ISAL_GZIP;
    ++members_;
    member_start_ = in_offset_ + in_pos_;
    member_output_ = 0;
    return true;
}

// Zero padding (tape blocks, preallocated files) is dropped without a word,
// anything else with a warning: both are what gzip does with them.
void GzipInflateStreambuf::SkipTrailingBytes() {
    const uint64_t start = CompressedOffset();
    for (;;) {
        const uint8_t* begin = in_.get() + in_pos_;
        const uint8_t* end = in_.get() + in_end_;
        if (std::find_if(begin, end, [](uint8_t b) { return b != 0; }) != end) break;
        in_pos_ = in_end_;
        if (file_eof_) return;
        if (!Refill()) return;
    }
    std::string count = file_size_ > start ? std::to_string(file_size_ - start) + " bytes" : "the bytes";
    VB_LOG(GzipLogger(), Severity::warning)
        << "'" << path_ << "': ignored " << count << " after the last gzip member, from compressed byte " << start
        << ": they are not gzip data (trailing garbage)";
}

// ISA-L decodes some runs of literals as one table step and will not split
// one, so at a cut it can stop a few bytes short of what the bits give; at
// corrupt data it may differ from zlib likewise. zlib goes symbol by symbol:
// it inflates the damaged member again from its start, drops what ISA-L
// gave, and delivers the rest before the error is raised. This costs one
// more pass over that member, on damaged input only.
void GzipInflateStreambuf::StartZlibTail(std::string message) {
    pending_error_ = std::move(message);
    zlib_ = std::make_unique<z_stream>();
    if (inflateInit2(zlib_.get(), 15 + 16) != Z_OK) {
        zlib_.reset();
        phase_ = Phase::kDone;
        Fail(pending_error_);
        return;
    }
    zlib_in_.resize(kInputSize);
    zlib_offset_ = member_start_;
    zlib_skip_ = member_output_;
    phase_ = Phase::kZlibTail;
}

// Returns what zlib gives past ISA-L's point; when it has no more, the
// pending error is raised (and 0 may be returned).
size_t GzipInflateStreambuf::InflateZlibTail(char* out, size_t capacity) {
    std::vector<uint8_t> dropped;
    size_t produced = 0;
    bool input_end = false;
    while (produced < capacity) {
        z_stream& z = *zlib_;
        if (z.avail_in == 0 && !input_end) {
            const ssize_t n = ::pread(fd_, zlib_in_.data(), zlib_in_.size(), static_cast<off_t>(zlib_offset_));
            input_end = n <= 0;
            zlib_offset_ += input_end ? 0 : static_cast<uint64_t>(n);
            z.next_in = zlib_in_.data();
            z.avail_in = input_end ? 0 : static_cast<uInt>(n);
        }
        const bool dropping = zlib_skip_ > 0;
        if (dropping && dropped.empty()) dropped.resize(kOutputSize);
        uint8_t* target = dropping ? dropped.data() : reinterpret_cast<uint8_t*>(out + produced);
        const size_t room =
            dropping ? std::min<uint64_t>(zlib_skip_, dropped.size()) : std::min(capacity - produced, kMaxChunk);
        z.next_out = target;
        z.avail_out = static_cast<uInt>(room);
        const int status = inflate(&z, Z_NO_FLUSH);
        const size_t got = room - z.avail_out;
        if (dropping) {
            zlib_skip_ -= got;
        } else {
            produced += got;
        }
        // Z_BUF_ERROR: no progress possible; zlib may still hold output
        // after filling a buffer, so the end of input alone is not the end.
        if (status != Z_OK || (input_end && got == 0)) break;
    }
    if (produced == capacity) return produced;
    inflateEnd(zlib_.get());
    zlib_.reset();
    phase_ = Phase::kDone;
    Fail(pending_error_);
    return produced;
}

// Moves unread input to the front and reads more behind it. Returns false on
// a read error (error_ set).
bool GzipInflateStreambuf::Refill() {
    if (in_pos_ > 0) {
        std::memmove(in_.get(), in_.get() + in_pos_, in_end_ - in_pos_);
        in_offset_ += in_pos_;
        in_end_ -= in_pos_;
        in_pos_ = 0;
    }
    while (in_end_ < kInputSize) {
        const ssize_t n = ::read(fd_, in_.get() + in_end_, kInputSize - in_end_);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            Fail("read error after " + std::to_string(in_offset_ + in_end_) + " compressed bytes (" +
                 std::strerror(errno) + ")");
            return false;
        }
        if (n == 0) file_eof_ = true;
        in_end_ += static_cast<size_t>(n);
        break;
    }
    return true;
}

// File offset of the next byte ISA-L has not looked at yet; bits it holds in
// its look-ahead register are counted as not yet read.
uint64_t GzipInflateStreambuf::CompressedOffset() const {
    uint64_t offset = in_offset_ + in_pos_;
    if (phase_ == Phase::kInMember && state_->read_in_length > 0) {
        offset -= std::min<uint64_t>(offset, static_cast<uint64_t>(state_->read_in_length / 8));
    }
    return offset;
}

void GzipInflateStreambuf::Fail(std::string message) {
    if (error_.empty()) error_ = "'" + path_ + "': " + message;
}

void GzipInflateStreambuf::ThrowError() const {
    throw std::runtime_error(error_);
}

}  // namespace Common
