#pragma once
// An output file written with plain system calls, so that every failure is
// seen when it happens and reported with its reason and the file's name.
// Nothing is buffered here: callers hand over whole batches, one write each.

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Common {

// A write, open or close of an output file failed. The message says what and
// where, e.g. "No space left on device while writing 'out/summary.txt'".
class OutputError : public std::runtime_error {
public:
    explicit OutputError(const std::string& what, int error_number = 0)
        : std::runtime_error(what), error_number_(error_number) {}
    // The system's error code behind it, 0 when there is none.
    int ErrorNumber() const { return error_number_; }

private:
    int error_number_;
};

class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile();  // closes quietly; call Close() to see close errors
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    OutputFile(OutputFile&& other) noexcept;
    OutputFile& operator=(OutputFile&& other) noexcept;

    // Opens path for writing, emptied (truncate) or appended to. Throws
    // OutputError "Failed to open file '<path>' for writing: <reason>.".
    void Open(const std::string& path, bool truncate);
    // Writes all of data (retrying short writes). Throws OutputError.
    void Write(std::string_view data);
    // Writes the pieces one after another, gathered by the system (no copy
    // into one buffer first). Throws OutputError.
    void Write(std::span<const std::string_view> pieces);
    // Throws OutputError when the system reports a failure on close.
    void Close();

    bool IsOpen() const { return fd_ >= 0; }
    const std::string& Path() const { return path_; }
    // Bytes in the file as far as this object knows: its size when opened
    // plus everything written since.
    uint64_t Size() const { return size_; }

private:
    std::string path_;
    int fd_ = -1;
    uint64_t size_ = 0;
};

// Cuts the file at path back to size bytes (undoing a partly written batch).
// Throws OutputError when that fails too.
void TruncateOutputFile(const std::string& path, uint64_t size);

// Raises the soft open-file limit to the hard one (best effort): a run with
// many arrangements and run ids keeps many output files open.
void RaiseOpenFileLimit();

// "<reason> while writing '<path>'" for the given errno.
std::string WriteFailureText(const std::string& path, int error_number);

}  // namespace Common
