#pragma once
// A read-only stream buffer that inflates a gzip file with ISA-L.

#include <cstdint>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

struct inflate_state;
struct z_stream_s;

namespace Common {

// Reads the gzip file at `path` as one text: members one after another (as
// `cat a.gz b.gz` or per-batch compression makes them) are inflated in turn.
//
// Bytes after the last member are judged as gzip judges them: zero padding is
// ignored, anything else that cannot start a member is ignored with a warning
// log line naming the file ("trailing garbage"). A 0x1f 0x8b there starts a
// member, so a damaged one is an error, not garbage.
//
// Damage never loses data silently: every byte that zlib (and so gzip) can
// inflate before it is delivered first, then reads throw std::runtime_error,
// and keep throwing:
//   "'<path>': gzip data is truncated after <n> compressed bytes"
//   "'<path>': gzip data is corrupt at compressed byte <n> (<reason>)"
//   "'<path>': read error after <n> compressed bytes (<system message>)"
// An empty file is truncated after 0 bytes, as gzip says. Used through
// std::istream the exception sets badbit and, with exceptions(badbit), is
// rethrown to the caller.
class GzipInflateStreambuf : public std::streambuf {
public:
    // Throws std::runtime_error "Could not open input file '<path>'".
    explicit GzipInflateStreambuf(const std::string& path);
    ~GzipInflateStreambuf() override;
    GzipInflateStreambuf(const GzipInflateStreambuf&) = delete;
    GzipInflateStreambuf& operator=(const GzipInflateStreambuf&) = delete;

protected:
    int_type underflow() override;
    // Large reads are inflated straight into the caller's memory.
    std::streamsize xsgetn(char* s, std::streamsize n) override;

private:
    enum class Phase { kBeforeMember, kInMember, kZlibTail, kDone };

    size_t Inflate(char* out, size_t capacity);
    bool StartNextMember();
    void SkipTrailingBytes();
    bool Refill();
    void StartZlibTail(std::string message);
    size_t InflateZlibTail(char* out, size_t capacity);
    uint64_t CompressedOffset() const;
    void Fail(std::string message);
    [[noreturn]] void ThrowError() const;

    std::string path_;
    int fd_ = -1;
    uint64_t file_size_ = 0;
    std::unique_ptr<inflate_state> state_;
    std::unique_ptr<uint8_t[]> in_;
    size_t in_pos_ = 0;  // in_[in_pos_, in_end_) is read but not yet inflated
    size_t in_end_ = 0;
    uint64_t in_offset_ = 0;  // file offset of in_[0]
    bool file_eof_ = false;
    Phase phase_ = Phase::kBeforeMember;
    uint64_t members_ = 0;
    uint64_t member_start_ = 0;   // file offset of the current member
    uint64_t member_output_ = 0;  // bytes it has given so far
    // After damage inside a member: zlib re-inflates it from its start to
    // give the last bytes before the damage (see StartZlibTail).
    std::unique_ptr<z_stream_s> zlib_;
    std::vector<uint8_t> zlib_in_;
    uint64_t zlib_offset_ = 0;  // next file offset zlib reads
    uint64_t zlib_skip_ = 0;    // output bytes zlib still has to drop
    std::string pending_error_;
    std::unique_ptr<char[]> out_;
    std::string error_;  // set once; every later read throws it
};

}  // namespace Common
