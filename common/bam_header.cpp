#include "common/bam_header.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>

#include "common/bgzf_blocks.h"

namespace Common {

namespace {

// The value of the ID field of a header line, empty when there is none.
std::string_view LineId(std::string_view line) {
    for (size_t at = line.find('\t'); at != std::string_view::npos; at = line.find('\t', at + 1)) {
        if (line.substr(at + 1, 3) == "ID:") {
            const size_t end = line.find('\t', at + 1);
            return line.substr(at + 4, end == std::string_view::npos ? std::string_view::npos : end - at - 4);
        }
    }
    return {};
}

std::string Quoted(const std::string& argument) {
    if (!argument.empty() && argument.find_first_of(" '\"\\$`") == std::string::npos) return argument;
    std::string quoted = "'";
    for (char c : argument) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

}  // namespace

std::vector<std::string> MergeReadGroups(std::vector<std::string>& merged, const std::vector<std::string>& lines,
                                         const std::string& source) {
    std::vector<std::string> warnings;
    // merged never holds two lines of one ID, so the first of that ID decides.
    for (const auto& line : lines) {
        const auto same_id = std::find_if(merged.begin(), merged.end(),
                                          [&](const std::string& kept) { return LineId(kept) == LineId(line); });
        if (same_id == merged.end()) {
            merged.push_back(line);
        } else if (*same_id != line) {
            warnings.push_back("The read group '" + std::string(LineId(line)) + "' of " + source +
                               " differs from the one of the same ID in an earlier input; the output header keeps "
                               "the earlier one: " +
                               *same_id);
        }
    }
    return warnings;
}

std::string BamHeaderText(const std::vector<std::string>& read_groups, std::string_view version,
                          std::string_view command_line) {
    std::string text = "@HD\tVN:1.6\tSO:unsorted\n";
    for (const auto& line : read_groups)
        text.append(line).append("\n");
    std::string command(command_line);
    for (char& c : command) {
        if (c == '\t' || c == '\n' || c == '\r') c = ' ';
    }
    text.append("@PG\tID:vorpa_barcoder\tPN:vorpa_barcoder\tVN:").append(version).append("\tCL:");
    text.append(command).append("\n");
    return text;
}

std::string EncodeBamHeader(std::string_view text) {
    std::string raw = "BAM\1";
    const auto length = static_cast<int32_t>(text.size());
    raw.append(reinterpret_cast<const char*>(&length), sizeof length);
    raw.append(text);
    const int32_t references = 0;
    raw.append(reinterpret_cast<const char*>(&references), sizeof references);
    std::string blocks;
    AppendBgzfBlocks(raw, blocks, kBamCompressionLevel);
    return blocks;
}

std::string ProcessCommandLine() {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    const std::string raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string line;
    size_t start = 0;
    while (start < raw.size()) {
        size_t end = raw.find('\0', start);
        if (end == std::string::npos) end = raw.size();
        if (!line.empty()) line += ' ';
        line += Quoted(raw.substr(start, end - start));
        start = end + 1;
    }
    return line;
}

}  // namespace Common
