#pragma once
// Scratch space for tests: paths unique to the process and the call, and a
// folder removed with everything in it.

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>

namespace TestSupport {

// A fresh path in the temporary folder, removed first should an earlier
// process of the same id have left it behind.
inline std::filesystem::path UniqueTempPath(const std::string& prefix) {
    static std::atomic<unsigned> calls{0};
    auto path = std::filesystem::temp_directory_path() /
                (prefix + "-" + std::to_string(::getpid()) + "-" + std::to_string(calls++));
    std::filesystem::remove_all(path);
    return path;
}

class TempFolder {
public:
    explicit TempFolder(const std::string& prefix = "vb") : path_(UniqueTempPath(prefix)) {
        std::filesystem::create_directories(path_);
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& Root() const { return path_; }
    std::string Path() const { return path_.string(); }
    // Writes text to name (relative to the folder) and returns the full path.
    std::string Write(const std::string& name, const std::string& text) const {
        const auto file = path_ / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
        return file.string();
    }

private:
    std::filesystem::path path_;
};

}  // namespace TestSupport
