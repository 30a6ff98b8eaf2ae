#pragma once
// Shared by the fuzz targets: a private scratch folder for the files a target
// hands to file-based APIs, and logging switched off so that rejected inputs
// cost no console output.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "common/logger.h"

namespace Fuzz {

// Created on first use and removed when the process exits.
inline const std::filesystem::path& Scratch() {
    static const std::filesystem::path folder = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "vb-fuzz-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        std::atexit([] { std::filesystem::remove_all(Scratch()); });
        return std::filesystem::path(pattern);
    }();
    return folder;
}

inline std::string WriteScratch(const std::string& name, std::string_view bytes) {
    const std::filesystem::path path = Scratch() / name;
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path.string();
}

inline void QuietLogging() {
    Common::LoggingSettings settings;
    settings.quiet = true;
    Common::InitLogging(settings);
}

// A broken invariant: abort so that libFuzzer keeps the input.
#define FUZZ_CHECK(condition) \
    do {                      \
        if (!(condition)) {   \
            std::abort();     \
        }                     \
    } while (false)

}  // namespace Fuzz
