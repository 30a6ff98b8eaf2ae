#include "apps/sample_sheet.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/string_utils.h"

namespace Vorpa {

namespace {

std::string Trim(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \r");
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(" \r") + 1 - begin);
}

std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        const size_t tab = line.find('\t', start);
        fields.push_back(Trim(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start)));
        if (tab == std::string::npos) return fields;
        start = tab + 1;
    }
}

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// Why name cannot be a folder of its own in the save folder, or "".
std::string FolderNameProblem(const std::string& name, const std::vector<std::string>& reserved_names) {
    // File systems refuse longer names; better said here than when the first read of the sample is written.
    constexpr size_t kMaxNameBytes = 255;
    if (name.empty()) return "the sample name is empty";
    if (name.size() > kMaxNameBytes)
        return "the sample name '" + name.substr(0, 20) + "...' has " + std::to_string(name.size()) +
               " bytes; a folder name may have at most " + std::to_string(kMaxNameBytes);
    if (name == "." || name == "..") return "the sample name '" + name + "' is not a folder name";
    for (unsigned char c : name) {
        if (c == '/') return "the sample name '" + name + "' contains '/'";
        if (c < 0x20 || c == 0x7f) return "the sample name '" + name + "' contains a control character";
    }
    for (const auto& reserved : reserved_names) {
        if (Lower(name) == Lower(reserved)) return "the sample name '" + name + "' is reserved for other output";
    }
    return "";
}

}  // namespace

const std::string* SampleSheet::SampleOf(const std::string& arrangement) const {
    const int number = SampleNumberOf(arrangement);
    return number < 0 ? nullptr : &samples[static_cast<size_t>(number)];
}

int SampleSheet::SampleNumberOf(const std::string& arrangement) const {
    const auto found = number_of_.find(arrangement);
    return found == number_of_.end() ? -1 : static_cast<int>(found->second);
}

void SampleSheet::Index() {
    std::unordered_map<std::string, uint32_t> sample_number;
    sample_number.reserve(samples.size());
    for (size_t k = 0; k < samples.size(); ++k)
        sample_number.emplace(samples[k], static_cast<uint32_t>(k));
    number_of_.clear();
    number_of_.reserve(sample_of.size());
    for (const auto& [arrangement, sample] : sample_of) {
        const auto [at, added] = sample_number.emplace(sample, static_cast<uint32_t>(samples.size()));
        if (added) samples.push_back(sample);
        number_of_.emplace(arrangement, at->second);
    }
    pair_sample_numbers_.clear();
    for (const auto& pair : pairs)
        pair_sample_numbers_.push_back(number_of_.at(Barcoding::PairName(pair.front, pair.rear)));
}

SampleSheet LoadSampleSheet(const std::string& path, const std::set<std::string>& known_arrangements,
                            const std::vector<std::string>& reserved_names,
                            const std::set<std::string>& pair_barcodes) {
    std::ifstream in(path);
    if (!in.is_open()) throw std::runtime_error("Could not open the sample sheet '" + path + "'");
    return ParseSampleSheet(in, path, known_arrangements, reserved_names, pair_barcodes);
}

SampleSheet ParseSampleSheet(std::istream& in, const std::string& name, const std::set<std::string>& known_arrangements,
                             const std::vector<std::string>& reserved_names,
                             const std::set<std::string>& pair_barcodes) {
    Common::SkipByteOrderMark(in);
    SampleSheet sheet;
    std::optional<size_t> arrangement_column, front_column, rear_column, sample_column;
    size_t columns = 0;
    bool pairs = false;
    // Where each arrangement (or pair, by its reported name) was listed.
    std::map<std::string, std::pair<Barcoding::BarcodePair, size_t>> listed_at;
    std::map<std::pair<std::string, std::string>, size_t> pair_line;  // (front, rear) -> line
    std::map<std::string, std::pair<std::string, size_t>> folder_of;  // lower-case name -> (name, line)
    std::string line;
    size_t number = 0;
    auto fail = [&](const std::string& what) {
        throw std::runtime_error("Sample sheet '" + name + "', line " + std::to_string(number) + ": " + what + ".");
    };
    auto at_line = [](size_t line_number) { return " on line " + std::to_string(line_number); };
    while (std::getline(in, line)) {
        ++number;
        const std::string trimmed = Trim(line);
        if (trimmed.find_first_not_of('\t') == std::string::npos || trimmed[0] == '#') continue;
        const auto fields = Fields(line);
        if (columns == 0) {
            columns = fields.size();
            for (size_t i = 0; i < fields.size(); ++i) {
                std::optional<size_t>* column = fields[i] == "arrangement" ? &arrangement_column
                                                : fields[i] == "front"     ? &front_column
                                                : fields[i] == "rear"      ? &rear_column
                                                : fields[i] == "sample"    ? &sample_column
                                                                           : nullptr;
                if (column == nullptr) continue;
                if (*column) fail("the column '" + fields[i] + "' is named twice");
                *column = i;
            }
            pairs = front_column || rear_column;
            if (pairs && arrangement_column)
                fail("the header names 'arrangement' and '" + std::string(front_column ? "front" : "rear") +
                     "': a sheet lists either arrangements or pairs of a front and a rear barcode");
            if (pairs && !(front_column && rear_column && sample_column))
                fail("the header must name the columns 'front', 'rear' and 'sample' for pairs (tab separated)");
            if (!pairs && !(arrangement_column && sample_column))
                fail("the header must name the columns 'arrangement' and 'sample' (tab separated)");
            continue;
        }
        if (fields.size() > columns)
            fail(std::to_string(fields.size()) + " fields, but the header names " + std::to_string(columns) +
                 " columns");
        const std::pair<const char*, std::optional<size_t>> needed[] = {{"arrangement", arrangement_column},
                                                                        {"front", front_column},
                                                                        {"rear", rear_column},
                                                                        {"sample", sample_column}};
        for (const auto& [what, column] : needed)
            if (column && *column >= fields.size()) fail("no " + std::string(what) + " field");
        const std::string& sample = fields[*sample_column];
        std::string item;  // the name the sample's reads are reported by
        Barcoding::BarcodePair pair;
        if (pairs) {
            pair = {fields[*front_column], fields[*rear_column]};
            for (const auto& [what, barcode] : {std::pair{"front", &pair.front}, std::pair{"rear", &pair.rear}}) {
                if (barcode->empty()) fail("the " + std::string(what) + " barcode is empty");
                if (pair_barcodes.count(*barcode) == 0)
                    fail("the " + std::string(what) + " barcode '" + *barcode +
                         "' is not a single-barcode arrangement of the selected kits");
            }
            item = Barcoding::PairName(pair.front, pair.rear);
            const std::string shown = pair.front + " + " + pair.rear;
            if (const auto earlier = pair_line.find({pair.front, pair.rear}); earlier != pair_line.end())
                fail("the pair " + shown + " is already listed" + at_line(earlier->second));
            if (const auto earlier = pair_line.find({pair.rear, pair.front}); earlier != pair_line.end())
                fail("the pair " + shown + " is the pair " + pair.rear + " + " + pair.front + at_line(earlier->second) +
                     " read from the other strand");
            if (const auto earlier = listed_at.find(item); earlier != listed_at.end())
                fail("the pair " + shown + " would be reported as '" + item + "', as is the pair " +
                     earlier->second.first.front + " + " + earlier->second.first.rear +
                     at_line(earlier->second.second));
            pair_line.emplace(std::make_pair(pair.front, pair.rear), number);
        } else {
            item = fields[*arrangement_column];
            if (item.empty()) fail("the arrangement is empty");
            if (known_arrangements.count(item) == 0) fail("'" + item + "' is not an arrangement of the selected kits");
            if (const auto earlier = listed_at.find(item); earlier != listed_at.end())
                fail("the arrangement '" + item + "' is already listed" + at_line(earlier->second.second));
        }
        if (const std::string problem = FolderNameProblem(sample, reserved_names); !problem.empty()) fail(problem);
        const auto [other, first] = folder_of.emplace(Lower(sample), std::make_pair(sample, number));
        if (!first && other->second.first != sample)
            fail("the sample name '" + sample + "' differs from '" + other->second.first + "' (line " +
                 std::to_string(other->second.second) +
                 ") only in letter case; they would share a folder on some file systems");
        if (first) sheet.samples.push_back(sample);
        listed_at.emplace(item, std::make_pair(pair, number));
        if (pairs) sheet.pairs.push_back(pair);
        sheet.sample_of.emplace(item, sample);
    }
    if (columns == 0) throw std::runtime_error("Sample sheet '" + name + "' is empty: it needs a header line.");
    if (sheet.samples.empty()) throw std::runtime_error("Sample sheet '" + name + "' lists no samples.");
    sheet.Index();
    return sheet;
}

}  // namespace Vorpa
