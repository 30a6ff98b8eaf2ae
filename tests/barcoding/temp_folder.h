#pragma once
// A scratch folder for configuration files, removed with everything in it.

#include <boost/filesystem.hpp>
#include <fstream>
#include <string>

namespace BarcodingTest {

class TempFolder {
public:
    TempFolder() : path_(boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("vb-%%%%-%%%%")) {
        boost::filesystem::create_directories(path_);
    }
    ~TempFolder() { boost::filesystem::remove_all(path_); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string Path() const { return path_.string(); }
    // Writes text to name (relative to the folder) and returns the full path.
    std::string Write(const std::string& name, const std::string& text) const {
        const auto file = path_ / name;
        boost::filesystem::create_directories(file.parent_path());
        std::ofstream(file.string()) << text;
        return file.string();
    }

private:
    boost::filesystem::path path_;
};

}  // namespace BarcodingTest
