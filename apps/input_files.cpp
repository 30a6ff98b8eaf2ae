// Input discovery walks the folders itself, one directory_iterator per folder
// and the error_code overloads throughout, instead of one
// recursive_directory_iterator: that iterator stops for good at the first entry
// it cannot resolve (a link pointing at itself) or the first folder it cannot
// open, and everything after it would be lost. The walk visits entries in the
// same order as that iterator did (pre-order, each folder in iteration order),
// so the files come in the order earlier versions listed them.

#include "apps/input_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <istream>
#include <system_error>

#include "common/bam_reader.h"

namespace Vorpa {

namespace fs = std::filesystem;

bool IsInputFileName(const std::string& name) {
    const fs::path path(name);
    const std::string file = path.filename().string();
    if (file.empty() || file.front() == '.' || path.extension() == ".tmp" || path.extension() == ".part") return false;
    return path.extension() == ".fastq" || path.stem().extension() == ".fastq" || Common::IsBamFileName(name);
}

namespace {

// For a name IsInputFileName passes over: only its names are read, and a file
// called reads.fq is passed over, which a lab would rather hear about than
// find out from an empty run.
bool LooksLikeReadsFileName(const std::string& name) {
    std::string file = fs::path(name).filename().string();
    if (file.empty() || file.front() == '.') return false;
    for (char& c : file)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    fs::path path(file);
    for (const char* packed : {".gz", ".bgz", ".bz2", ".xz", ".zst"})
        if (path.extension() == packed) path = path.stem();
    return path.extension() == ".fq" || path.extension() == ".fastq";
}

constexpr const char* kReadNames = "only files named *.fastq or *.fastq.gz (and *.bam, *.sam, *.cram) are read";

struct Walk {
    bool recursive = false;
    fs::path save;  // the save folder when it exists, else empty
    InputFiles* found = nullptr;

    void Warn(const fs::path& path, const std::string& why) const {
        found->warnings.push_back("Skipping '" + path.string() + "': " + why);
    }
    bool IsSaveFolder(const fs::path& folder) const {
        std::error_code error;
        return !save.empty() && fs::equivalent(folder, save, error);
    }
};

void SearchFolder(const fs::path& folder, const Walk& walk);

void VisitEntry(const fs::directory_entry& entry, const Walk& walk) {
    std::error_code error;
    const fs::file_status own = entry.symlink_status(error);
    if (error) return walk.Warn(entry.path(), error.message());
    if (fs::is_directory(own)) {
        if (walk.recursive && !walk.IsSaveFolder(entry.path())) SearchFolder(entry.path(), walk);
        return;
    }
    // Links are resolved for every entry, not only FASTQ-named ones, so that a
    // broken or looping link is reported rather than silently passed over.
    const fs::file_status target = entry.status(error);
    if (error || target.type() == fs::file_type::not_found)
        return walk.Warn(entry.path(), error ? error.message() : "the link points nowhere");
    if (!fs::is_regular_file(target)) return;
    if (IsInputFileName(entry.path().string())) {
        walk.found->files.push_back(entry.path().string());
    } else if (LooksLikeReadsFileName(entry.path().string())) {
        walk.Warn(entry.path(), kReadNames);
    }
}

void SearchFolder(const fs::path& folder, const Walk& walk) {
    std::error_code error;
    fs::directory_iterator entries(folder, error);
    if (error) return walk.Warn(folder, error.message());
    for (const fs::directory_iterator end; entries != end;) {
        VisitEntry(*entries, walk);
        entries.increment(error);
        if (error) return walk.Warn(folder, "listing stopped: " + error.message());
    }
}

}  // namespace

InputFiles DiscoverInputFiles(const std::string& input_path, bool recursive, const std::string& save_path,
                              std::istream& names) {
    InputFiles found;
    if (input_path.empty()) {
        std::string line;
        while (std::getline(names, line)) {
            if (!line.empty()) found.files.push_back(line);
        }
        return found;
    }
    Walk walk;
    walk.recursive = recursive;
    walk.found = &found;
    std::error_code error;
    const fs::path save = save_path.empty() ? fs::path(".") : fs::path(save_path);
    if (fs::is_directory(save, error)) walk.save = save;
    if (recursive && walk.IsSaveFolder(input_path)) {
        walk.recursive = false;
        found.warnings.push_back("Not searching the subfolders of '" + input_path +
                                 "': it is also the save folder, and its subfolders hold the output of earlier runs");
    }
    SearchFolder(input_path, walk);
    return found;
}

std::string InputPathProblem(const std::string& input_path) {
    if (input_path.empty()) return "";
    std::error_code error;
    const fs::file_status status = fs::status(input_path, error);
    if (status.type() == fs::file_type::not_found) return "Input path '" + input_path + "' does not exist";
    if (error) return "Cannot access input path '" + input_path + "': " + error.message();
    if (!fs::is_directory(status)) return "Input path '" + input_path + "' is not a folder";
    fs::directory_iterator probe(input_path, error);
    if (error) return "Cannot read input folder '" + input_path + "': " + error.message();
    return "";
}

std::string PrepareSaveFolder(const std::string& save_path) {
    const fs::path folder = save_path.empty() ? fs::path(".") : fs::path(save_path);
    const std::string name = folder.string();
    std::error_code error;
    const fs::file_status status = fs::status(folder, error);
    if (status.type() == fs::file_type::not_found) {
        fs::create_directories(folder, error);
        if (error) return "Cannot create save folder '" + name + "': " + error.message();
    } else if (error) {
        return "Cannot access save path '" + name + "': " + error.message();
    } else if (!fs::is_directory(status)) {
        return "Save path '" + name + "' exists and is not a folder";
    }
    // Permission bits do not tell the whole story (read-only mounts, ACLs,
    // running as root), so the folder is asked directly.
    std::string probe = (folder / ".vorpa_barcoder_probe_XXXXXX").string();
    const int descriptor = ::mkstemp(probe.data());
    if (descriptor < 0) return "Cannot write into save folder '" + name + "': " + std::strerror(errno);
    ::close(descriptor);
    fs::remove(probe, error);
    return "";
}

}  // namespace Vorpa
