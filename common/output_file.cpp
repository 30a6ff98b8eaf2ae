#include "common/output_file.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Common {

std::string WriteFailureText(const std::string& path, int error_number) {
    return std::string(std::strerror(error_number)) + " while writing '" + path + "'";
}

OutputFile::~OutputFile() {
    if (fd_ >= 0) ::close(fd_);
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)), size_(other.size_) {}

OutputFile& OutputFile::operator=(OutputFile&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        path_ = std::move(other.path_);
        fd_ = std::exchange(other.fd_, -1);
        size_ = other.size_;
    }
    return *this;
}

void OutputFile::Open(const std::string& path, bool truncate) {
    if (fd_ >= 0) Close();
    path_ = path;
    size_ = 0;
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (truncate ? O_TRUNC : O_APPEND);
    int fd;
    do {
        fd = ::open(path.c_str(), flags, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        const int error = errno;
        throw OutputError("Failed to open file '" + path + "' for writing: " + std::strerror(error) + ".", error);
    }
    struct stat status {};
    if (!truncate && ::fstat(fd, &status) == 0) size_ = static_cast<uint64_t>(status.st_size);
    fd_ = fd;
}

void OutputFile::Write(std::string_view data) {
    if (fd_ < 0) throw OutputError("Attempted to write to '" + path_ + "', which is not open.");
    while (!data.empty()) {
        const ssize_t written = ::write(fd_, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            const int error = errno;
            throw OutputError(WriteFailureText(path_, error), error);
        }
        // A regular file only writes short when the disk fills; the next
        // write then reports why.
        data.remove_prefix(static_cast<size_t>(written));
        size_ += static_cast<uint64_t>(written);
    }
}

// As many pieces as one call takes (at most IOV_MAX, 1024 on Linux); a short
// write carries on from the byte where it stopped.
void OutputFile::Write(std::span<const std::string_view> pieces) {
    if (fd_ < 0) throw OutputError("Attempted to write to '" + path_ + "', which is not open.");
    constexpr size_t kMaxPieces = 1024;
    iovec vectors[kMaxPieces];
    size_t next = 0;    // first piece not yet written whole
    size_t offset = 0;  // bytes of it already written
    while (true) {
        size_t count = 0;
        for (size_t k = next; k < pieces.size() && count < kMaxPieces; ++k) {
            const size_t skip = k == next ? offset : 0;
            if (pieces[k].size() == skip) continue;
            vectors[count++] = {const_cast<char*>(pieces[k].data() + skip), pieces[k].size() - skip};
        }
        if (count == 0) return;
        const ssize_t written = ::writev(fd_, vectors, static_cast<int>(count));
        if (written < 0) {
            if (errno == EINTR) continue;
            const int error = errno;
            throw OutputError(WriteFailureText(path_, error), error);
        }
        size_ += static_cast<uint64_t>(written);
        for (size_t left = static_cast<size_t>(written); left > 0;) {
            const size_t rest = pieces[next].size() - offset;
            if (left < rest) {
                offset += left;
                break;
            }
            left -= rest;
            ++next;
            offset = 0;
        }
    }
}

void OutputFile::Close() {
    if (fd_ < 0) return;
    const int fd = std::exchange(fd_, -1);
    // close() is not retried on EINTR: on Linux the descriptor is gone either way.
    if (::close(fd) != 0 && errno != EINTR) {
        const int error = errno;
        throw OutputError(WriteFailureText(path_, error), error);
    }
}

void TruncateOutputFile(const std::string& path, uint64_t size) {
    int result;
    do {
        result = ::truncate(path.c_str(), static_cast<off_t>(size));
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const int error = errno;
        throw OutputError(
            "Failed to cut '" + path + "' back to " + std::to_string(size) + " bytes: " + std::strerror(error) + ".",
            error);
    }
}

}  // namespace Common

namespace Common {

void RaiseOpenFileLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    // An unlimited hard limit may still be refused by the kernel's ceiling;
    // the writer then works within the soft limit it finds.
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace Common
