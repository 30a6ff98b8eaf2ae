#pragma once
// The shipped configuration file's "key = value" lines, for tests that hold
// the shipped settings to their promises.

#include <fstream>
#include <map>
#include <string>

namespace TestSupport {

inline std::map<std::string, std::string> ReadConfiguration(const std::string& path) {
    std::map<std::string, std::string> values;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        const size_t equals = line.find('=');
        if (line.empty() || line[0] == '#' || equals == std::string::npos) continue;
        auto trim = [](std::string text) {
            text.erase(0, text.find_first_not_of(" \t"));
            text.erase(text.find_last_not_of(" \t\r") + 1);
            return text;
        };
        values[trim(line.substr(0, equals))] = trim(line.substr(equals + 1));
    }
    return values;
}

inline std::map<std::string, std::string> ShippedConfiguration() {
    return ReadConfiguration(std::string(VB_SOURCE_DIR) + "/data/barcoding/configuration.cfg");
}

}  // namespace TestSupport
