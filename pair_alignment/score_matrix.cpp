#include "pair_alignment/score_matrix.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "common/string_utils.h"

namespace PairAlignment {

namespace {

std::vector<std::string> SplitTabs(const std::string& line) {
    std::vector<std::string> fields;
    size_t start = 0;
    while (true) {
        const size_t tab = line.find('\t', start);
        if (tab == std::string::npos) {
            fields.push_back(line.substr(start));
            return fields;
        }
        fields.push_back(line.substr(start, tab - start));
        start = tab + 1;
    }
}

int ParseMatrixValue(const std::string& text, const std::string& column, const std::string& filename) {
    size_t used = 0;
    long value = 0;
    try {
        value = std::stol(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size())
        throw std::runtime_error("Invalid value \"" + text + "\" in column " + column + " of score matrix \"" +
                                 filename + "\".");
    if (value < -kMaxScoreMagnitude || value > kMaxScoreMagnitude)
        throw std::runtime_error("Value " + text + " in column " + column + " of score matrix \"" + filename +
                                 "\" is outside the allowed range -" + std::to_string(kMaxScoreMagnitude) + " to " +
                                 std::to_string(kMaxScoreMagnitude) + ".");
    return static_cast<int>(value);
}

}  // namespace

Table ReadTable(const std::string& filename) {
    std::ifstream in(filename);
    if (!in) throw std::runtime_error("Error: Failed to open file \"" + filename + "\"");
    Common::SkipByteOrderMark(in);

    Table table;
    std::vector<std::string> header;
    std::string line;
    // Physical line numbers, comments and blank lines included, so the message
    // points at the line an editor shows.
    for (unsigned long line_number = 1; std::getline(in, line); ++line_number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> fields = SplitTabs(line);
        if (header.empty()) {
            header = std::move(fields);
            for (const auto& name : header)
                table[name];
            continue;
        }
        if (fields.size() != header.size())
            throw std::runtime_error("Error: Incomplete row in line " + std::to_string(line_number) + " of \"" +
                                     filename + "\": expecting " +
                                     std::to_string(static_cast<unsigned long>(header.size())) + " columns but got " +
                                     std::to_string(static_cast<unsigned long>(fields.size())));
        for (size_t k = 0; k < fields.size(); ++k)
            table[header[k]].push_back(std::move(fields[k]));
    }
    return table;
}

std::vector<int> LoadMismatchMatrix(const std::string& filename) {
    if (!std::filesystem::is_regular_file(filename))
        throw std::runtime_error("Error: could not find mismatch matrix file \"" + filename +
                                 "\", check configuration.");
    const Table table = ReadTable(filename);
    static const char* const kColumns[] = {"A", "C", "G", "T"};
    std::vector<int> matrix(16);
    for (int b = 0; b < 4; ++b) {
        const std::string name = kColumns[b];
        const auto it = table.find(name);
        if (it == table.end() || it->second.size() != 4)
            throw std::runtime_error("Column " + name + " in score matrix \"" + filename + "\" has wrong size.");
        for (int a = 0; a < 4; ++a)
            matrix[4 * a + b] = ParseMatrixValue(it->second[a], name, filename);
    }
    return matrix;
}

std::vector<int> ConvertGapVector(const std::vector<int>& gaps) {
    static const int kFromSix[] = {0, 1, 2, 3, 4, 5};
    static const int kFromEight[] = {0, 1, 2, 4, 5, 6};
    const int* source = nullptr;
    if (gaps.size() == 6) source = kFromSix;
    if (gaps.size() == 8) source = kFromEight;
    if (source == nullptr) throw std::runtime_error("Gap penalty vector must be length 6 or 8.");
    std::vector<int> costs(6);
    for (int k = 0; k < 6; ++k)
        costs[k] = -gaps[source[k]];
    return costs;
}

}  // namespace PairAlignment
