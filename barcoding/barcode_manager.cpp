// Arrangement files are INI files: one "loading_options" section naming the
// barcode FASTA file and switching the expansions, and one section per
// arrangement template. A template with a valid first_index..last_index range
// stands for one arrangement per index, its texts formatted printf-style with
// the index. The expansions then add reverse-complement references
// ("_FWD"/"_REV") and front/rear variants ("_var1"/"_var2"), and every barcode
// an arrangement names must exist in the barcode map.
//
// Invariants after loading: every non-empty barcode1/barcode2 is a key of
// barcodes_; arrangements_ is in load order (file, section, index, variant).
// Kit selections are cached in a std::map whose nodes never move or go away,
// so references handed out stay valid for the manager's lifetime.

#include "barcoding/barcode_manager.h"

#include <algorithm>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cctype>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "barcoding/scorer_options.h"
#include "common/logger.h"
#include "common/string_utils.h"

namespace Barcoding {

namespace {

namespace fs = std::filesystem;

const Common::Logger& ManagerLog() {
    static const Common::Logger logger("barcode_manager");
    return logger;
}

// Template texts are format strings supplied by configuration. printf with a
// conversion that does not match the int we pass would be undefined, so only
// int conversions without length modifiers are accepted; each gets the index.
constexpr int kMaxConversions = 4;
// A conversion's width and precision: names and folder names are short, and
// "%1999999999i" would ask the formatter for gigabytes.
constexpr int kMaxFieldWidth = 64;

std::string FormatWithIndex(const std::string& text, int index) {
    auto unsupported = [&text](const std::string& why) {
        return std::runtime_error("Unsupported format text '" + text + "' in arrangement file: " + why);
    };
    // The digits at k as a number (saturating), k moved past them.
    auto number = [&text](size_t& k) {
        int value = 0;
        for (; k < text.size() && std::isdigit(static_cast<unsigned char>(text[k])); ++k)
            value = std::min(10 * value + (text[k] - '0'), kMaxFieldWidth + 1);
        return value;
    };
    int conversions = 0;
    for (size_t k = 0; k < text.size(); ++k) {
        if (text[k] != '%') continue;
        if (++k < text.size() && text[k] == '%') continue;
        while (k < text.size() && std::strchr("-+ #0", text[k]) != nullptr)
            ++k;
        int widest = number(k);
        if (k < text.size() && text[k] == '.') widest = std::max(widest, number(++k));
        if (k >= text.size() || std::strchr("diouxXc", text[k]) == nullptr || ++conversions > kMaxConversions)
            throw unsupported("only integer conversions such as %02i are allowed");
        if (widest > kMaxFieldWidth)
            throw unsupported("a width or precision of at most " + std::to_string(kMaxFieldWidth) + " is allowed");
    }
    return Common::FormatString(text, index, index, index, index);
}

std::vector<std::string> SplitAtComma(const std::string& text) {
    std::vector<std::string> parts;
    if (text.empty()) return parts;
    size_t begin = 0;
    while (true) {
        size_t comma = text.find(',', begin);
        parts.push_back(text.substr(begin, comma == std::string::npos ? std::string::npos : comma - begin));
        if (comma == std::string::npos) return parts;
        begin = comma + 1;
    }
}

// FASTA records in file order of first appearance; a repeated name replaces
// the earlier sequence. Whitespace anywhere in a line is dropped.
std::vector<std::pair<std::string, std::string>> ReadFasta(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("Could not load barcode file: '" + path + "'");
    Common::SkipByteOrderMark(in);
    std::vector<std::pair<std::string, std::string>> records;
    std::string name, sequence, line;
    size_t line_number = 0, name_line = 0;
    auto store = [&]() {
        if (name.empty() || sequence.empty()) return;
        auto same = std::find_if(records.begin(), records.end(), [&](const auto& r) { return r.first == name; });
        if (same == records.end()) {
            records.emplace_back(name, sequence);
            return;
        }
        // The later record wins, as across files; a kit edited by hand that
        // names two barcodes alike would otherwise lose one without a word.
        if (same->second != sequence)
            VB_LOG(ManagerLog(), Common::Severity::warning)
                << "Barcode '" << name << "' is defined again in '" << path << "', line " << name_line
                << ", with another sequence; the later definition is used.";
        same->second = sequence;
    };
    while (std::getline(in, line)) {
        ++line_number;
        line = Common::RemoveWhitespace(line);
        if (!line.empty() && (line[0] == '>' || line[0] == ';')) {
            store();
            name_line = line_number;
            name = line.substr(1);
            sequence.clear();
        } else {
            sequence += line;
        }
    }
    store();
    return records;
}

// The property tree's get(key, default) answers the default for a value it
// cannot convert, which would turn "last_index = 1O" into "no range" without
// a word. Numbers and switches are therefore read as text and parsed here.
std::string BadValue(const std::string& key, const std::string& text, const std::string& section,
                     const std::string& source_file, const char* expected) {
    return "Invalid value '" + text + "' for " + key + " in section [" + section + "] of " + source_file +
           ": must be " + expected;
}

int ReadIndex(const boost::property_tree::ptree& values, const std::string& key, const std::string& section,
              const std::string& source_file) {
    const auto text = values.get_optional<std::string>(key);
    if (!text) return -1;
    const std::string trimmed = Common::TrimWhitespace(*text);
    int value = 0;
    const auto [end, error] = std::from_chars(trimmed.data(), trimmed.data() + trimmed.size(), value);
    if (trimmed.empty() || error != std::errc() || end != trimmed.data() + trimmed.size())
        throw std::runtime_error(BadValue(key, *text, section, source_file, "a whole number"));
    return value;
}

bool ReadSwitch(const boost::property_tree::ptree& values, const std::string& key, bool fallback,
                const std::string& section, const std::string& source_file) {
    const auto text = values.get_optional<std::string>(key);
    if (!text) return fallback;
    const std::string trimmed = Common::TrimWhitespace(*text);
    if (trimmed == "true" || trimmed == "1") return true;
    if (trimmed == "false" || trimmed == "0") return false;
    throw std::runtime_error(BadValue(key, *text, section, source_file, "true or false"));
}

LoadingOptions ReadLoadingOptions(const boost::property_tree::ptree& section, const std::string& source_file) {
    const std::string name = "loading_options";
    LoadingOptions options;
    options.barcodes_filename = section.get<std::string>("barcodes_filename", "");
    options.double_barcodes_revcmpl = ReadSwitch(section, "double_barcodes_revcmpl", true, name, source_file);
    options.double_variants_frontrear = ReadSwitch(section, "double_variants_frontrear", true, name, source_file);
    options.append_indicator_fwdbwd = ReadSwitch(section, "append_indicator_fwdbwd", true, name, source_file);
    return options;
}

// Classified reads are filed in a folder named after normalised_id, so it must
// be one plain folder name: "../x" or "a/b" would write outside the save folder.
void CheckNormalisedId(const std::string& id, const std::string& section, const std::string& source_file) {
    if (Common::IsUsableFileNameComponent(id)) return;
    throw std::runtime_error("normalised_id '" + id + "' in section [" + section + "] of " + source_file +
                             " cannot be used as a folder name: it must not be empty, '.' or '..', nor contain '/' "
                             "or control characters");
}

void ExpandSection(const std::string& name, const boost::property_tree::ptree& section, const std::string& source_file,
                   std::vector<Arrangement>& out) {
    Arrangement base;
    base.id = name;
    base.normalised_id = section.get<std::string>("normalised_id", name);
    base.kit = section.get<std::string>("kit", "");
    base.barcode1 = section.get<std::string>("barcode1", "");
    base.barcode2 = section.get<std::string>("barcode2", "");
    base.scoring_function = section.get<std::string>("scoring_function", "");
    base.source_file = source_file;
    base.compatible_kits = SplitAtComma(section.get<std::string>("compatible_kits", ""));
    const int first = ReadIndex(section, "first_index", name, source_file);
    const int last = ReadIndex(section, "last_index", name, source_file);
    if (first < 0 || last < 0 || last < first) {
        CheckNormalisedId(base.normalised_id, name, source_file);
        out.push_back(base);
        return;
    }
    if (static_cast<long long>(last) - first + 1 > kMaxArrangementSpan)
        throw std::runtime_error("Section [" + name + "] of " + source_file + " spans first_index " +
                                 std::to_string(first) + " to last_index " + std::to_string(last) + "; at most " +
                                 std::to_string(kMaxArrangementSpan) + " arrangements per section are allowed");
    for (int i = first;; ++i) {
        Arrangement a = base;
        a.id = FormatWithIndex(base.id, i);
        a.normalised_id = FormatWithIndex(base.normalised_id, i);
        a.kit = FormatWithIndex(base.kit, i);
        a.barcode1 = FormatWithIndex(base.barcode1, i);
        a.barcode2 = FormatWithIndex(base.barcode2, i);
        // This kit's twelfth barcode carries a letter suffix; kept deliberately.
        if (i == 12 && base.kit == "RLB") {
            a.normalised_id += "a";
            a.id += "A";
            // An end without a barcode stays without one.
            if (!a.barcode1.empty()) a.barcode1 += "A";
            if (!a.barcode2.empty()) a.barcode2 += "A";
        }
        CheckNormalisedId(a.normalised_id, name, source_file);
        out.push_back(std::move(a));
        if (i == last) break;  // not "i <= last": last may be INT_MAX
    }
}

// Both ends of a double-barcode arrangement are combined by its scoring
// function; a single-barcode arrangement never uses it.
void CheckScoringFunctions(const std::vector<Arrangement>& arrangements) {
    for (const auto& a : arrangements) {
        if (a.barcode1.empty() || a.barcode2.empty()) continue;
        if (a.scoring_function == "ADD" || a.scoring_function == "MAX") continue;
        // The section as formatted, without the strand variant's suffix.
        std::string section = a.id;
        if (a.variant == "var1" || a.variant == "var2") section.resize(section.size() - 5);
        throw std::runtime_error("Scoring function can only have values ADD or MAX (found '" + a.scoring_function +
                                 "' in section [" + section + "] of " + a.source_file + ")");
    }
}

}  // namespace

BarcodeManager::BarcodeManager(const std::vector<std::string>& arrangement_files, const std::string& data_path)
    : data_path_(data_path) {
    for (const auto& file : arrangement_files)
        LoadArrangementFile(ResolveDataFile(file, data_path_));
}

std::vector<std::string> BarcodeManager::SplitArrangementFiles(const std::string& text) {
    std::vector<std::string> files;
    std::istringstream in(text);
    std::string file;
    while (in >> file)
        files.push_back(file);
    return files;
}

void BarcodeManager::LoadArrangementFile(const std::string& path) {
    if (!fs::exists(path)) throw std::runtime_error("Could not find arrangement file " + path);
    // A device or a pipe would be read forever.
    if (!fs::is_regular_file(path)) throw std::runtime_error("Arrangement file " + path + " is not a regular file");
    boost::property_tree::ptree tree;
    std::ifstream in(path);
    if (!in) throw std::runtime_error("Could not read arrangement file " + path);
    Common::SkipByteOrderMark(in);
    try {
        boost::property_tree::read_ini(in, tree);
    } catch (const boost::property_tree::ini_parser_error& error) {
        // Read from a stream, the parser knows no file name.
        throw boost::property_tree::ini_parser_error(error.message(), path, error.line());
    }

    const std::string source_file = fs::path(path).filename().string();
    LoadingOptions options;
    std::vector<Arrangement> loaded;
    for (const auto& [name, section] : tree) {
        // A key outside any section is a value, not a section: ignore it.
        if (section.empty() && !section.data().empty()) continue;
        if (name == "loading_options")
            options = ReadLoadingOptions(section, source_file);
        else
            ExpandSection(name, section, source_file, loaded);
    }
    if (options.barcodes_filename.empty())
        throw std::runtime_error("arrangement file does not contain loading_options.barcodes_filename");

    std::string barcode_file = options.barcodes_filename;
    if (!fs::is_regular_file(barcode_file) && fs::path(barcode_file).is_relative())
        barcode_file = (fs::path(path).parent_path() / barcode_file).string();
    if (!fs::exists(barcode_file)) throw std::runtime_error("Could not load barcode file: '" + barcode_file + "'");
    if (!fs::is_regular_file(barcode_file))
        throw std::runtime_error("Barcode file '" + barcode_file + "' is not a regular file");

    for (const auto& [name, sequence] : ReadFasta(barcode_file)) {
        if (sequence.size() > static_cast<size_t>(kMaxReferenceLength))
            throw std::runtime_error("Barcode '" + name + "' in '" + barcode_file + "' is " +
                                     std::to_string(sequence.size()) + " bases long; at most " +
                                     std::to_string(kMaxReferenceLength) + " are allowed");
        auto enter = [&](const std::string& key, const std::string& seq) {
            auto found = barcodes_.find(key);
            if (found != barcodes_.end() && found->second.source_file != barcode_file)
                VB_LOG(ManagerLog(), Common::Severity::warning)
                    << "Barcode '" << key << "' defined in '" << found->second.source_file << "' is redefined in '"
                    << barcode_file << "'; the later definition is used.";
            barcodes_[key] = Barcode{seq, barcode_file};
        };
        if (options.double_barcodes_revcmpl) {
            enter(name + "_FWD", sequence);
            enter(name + "_REV", Common::ReverseComplement(sequence));
        } else {
            enter(name, sequence);
        }
    }

    // Orientation belongs to the barcode's place in the arrangement as
    // written: the written front barcode is always "_FWD" and the written rear
    // one "_REV". The second variant then exchanges the two ends, so a double
    // barcode BC01/BC01 gives var1 = BC01_FWD|BC01_REV and var2 =
    // BC01_REV|BC01_FWD. The swap is recorded here and applied after the
    // suffixes below.
    std::vector<Arrangement> expanded;
    if (options.double_variants_frontrear) {
        expanded.reserve(2 * loaded.size());
        for (const auto& a : loaded) {
            Arrangement var1 = a;
            var1.id += "_var1";
            var1.variant = "var1";
            Arrangement var2 = a;
            var2.id += "_var2";
            var2.variant = "var2";
            expanded.push_back(std::move(var1));
            expanded.push_back(std::move(var2));
        }
    } else {
        expanded = std::move(loaded);
        for (auto& a : expanded)
            a.variant = "n/a";
    }
    if (options.double_barcodes_revcmpl || options.double_variants_frontrear || options.append_indicator_fwdbwd) {
        for (auto& a : expanded) {
            if (!a.barcode1.empty()) a.barcode1 += "_FWD";
            if (!a.barcode2.empty()) a.barcode2 += "_REV";
        }
    }
    for (auto& a : expanded)
        if (a.variant == "var2") std::swap(a.barcode1, a.barcode2);

    for (const auto& a : expanded) {
        for (const std::string* name : {&a.barcode1, &a.barcode2}) {
            if (!name->empty() && !HasBarcode(*name))
                throw std::runtime_error("Barcode '" + *name +
                                         "' was referenced in arrangement, but not found in barcode file");
        }
    }
    arrangements_.insert(arrangements_.end(), expanded.begin(), expanded.end());
}

const std::vector<Arrangement>& BarcodeManager::GetArrangements(const std::string& kits) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto cached = kit_cache_.find(kits);
    if (cached != kit_cache_.end()) return cached->second;
    if (kits.empty()) {
        CheckScoringFunctions(arrangements_);
        return arrangements_;
    }

    std::set<std::string> requested;
    for (const auto& kit : SplitArrangementFiles(kits))
        requested.insert(kit);
    std::set<std::string> matched;
    std::vector<Arrangement> selection;
    for (const auto& a : arrangements_) {
        for (const auto& kit : requested) {
            if (std::find(a.compatible_kits.begin(), a.compatible_kits.end(), kit) == a.compatible_kits.end()) continue;
            // Only the first matching kit is recorded for an arrangement: a kit
            // matched only through arrangements already claimed counts as unmatched.
            matched.insert(kit);
            selection.push_back(a);
            break;
        }
    }
    if (selection.empty())
        throw std::runtime_error("Could not match any specified kit(s) \"" + kits +
                                 "\" with any compatible kits in the loaded configurations.");
    if (matched.size() < requested.size()) {
        std::string missing;
        for (const auto& kit : requested)
            if (matched.count(kit) == 0) missing += kit + " ";
        throw std::runtime_error("Could not match the following kits with compatible kits in the configurations: " +
                                 missing);
    }
    CheckScoringFunctions(selection);
    return kit_cache_.emplace(kits, std::move(selection)).first->second;
}

std::string BarcodeManager::GetBarcodeSequence(const std::string& name) const {
    auto found = barcodes_.find(name);
    if (found == barcodes_.end()) throw std::runtime_error("Unknown barcode '" + name + "'");
    return found->second.sequence;
}

std::string BarcodeManager::KitListing() const {
    struct KitSummary {
        std::set<std::string> barcodes;  // distinct reported names: variants count once
        bool front = false;
        bool rear = false;
    };
    std::map<std::string, KitSummary> kits;
    for (const auto& a : arrangements_) {
        for (const auto& kit : a.compatible_kits) {
            if (kit.empty()) continue;
            KitSummary& summary = kits[kit];
            summary.barcodes.insert(a.normalised_id);
            // The second variant is the same construct read from the other
            // strand: its ends say nothing about where the kit puts barcodes.
            if (a.variant == "var2") continue;
            summary.front |= !a.barcode1.empty();
            summary.rear |= !a.barcode2.empty();
        }
    }
    std::ostringstream out;
    for (const auto& [kit, summary] : kits) {
        const char* ends = summary.front && summary.rear ? "front and rear"
                           : summary.front               ? "front only"
                           : summary.rear                ? "rear only"
                                                         : "none";
        const int count = static_cast<int>(summary.barcodes.size());
        out << Common::FormatString("  %-24s %4d barcode%s, %s\n", kit, count, std::string(count == 1 ? "" : "s"),
                                    std::string(ends));
    }
    return out.str();
}

std::string ToString(const BarcodeDetectResult& result) {
    if (result.id.empty()) return "[none]";
    std::ostringstream out;
    out << result.id << " scored " << result.score << ", begin index: " << result.begin_index;
    return out.str();
}

std::string ToString(const ArrangementDetectResult& result) {
    std::ostringstream out;
    out << "ID:             " << result.id << "\n"
        << "normalised ID:  " << result.normalised_id << "\n"
        << "kit:            " << result.kit << "\n"
        << "variant:        " << result.variant << "\n"
        << "score:          " << result.score << "\n"
        << "front barcode:  " << ToString(result.front) << "\n"
        << "rear barcode:   " << ToString(result.rear);
    return out.str();
}

}  // namespace Barcoding
