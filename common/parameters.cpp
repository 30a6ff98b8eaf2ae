#include "common/parameters.h"

#include <algorithm>
#include <boost/program_options.hpp>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>
#include <type_traits>

#include "common/string_utils.h"

namespace Common {

namespace po = boost::program_options;
namespace fs = std::filesystem;

namespace {

// Shortest text that reads back to the same value, so a dumped configuration
// reproduces the run exactly without printing 0.6 as 0.60000002.
template <typename T>
std::string FloatText(T value) {
    for (int precision : {6, std::numeric_limits<T>::max_digits10}) {
        std::ostringstream out;
        out.precision(precision);
        out << value;
        std::istringstream in(out.str());
        T back{};
        in >> back;
        if (back == value || precision == std::numeric_limits<T>::max_digits10) return out.str();
    }
    return "";
}

// One "name\t\t=\tvalue" line per value; vectors repeat the key per element
// (an empty vector writes nothing, which reads back as empty).
template <typename T>
std::vector<std::string> ValueLines(const T& value) {
    if constexpr (std::is_same_v<T, std::vector<std::string>>) {
        return value;
    } else if constexpr (std::is_same_v<T, bool>) {
        return {value ? "true" : "false"};
    } else if constexpr (std::is_floating_point_v<T>) {
        return {FloatText(value)};
    } else if constexpr (std::is_same_v<T, std::string>) {
        return {value};
    } else {
        return {std::to_string(value)};
    }
}

bool HasParent(const std::string& path) {
    return fs::path(path).has_parent_path();
}

// Levenshtein distance (insertions, deletions, substitutions), two rows.
size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> previous(b.size() + 1), current(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j)
        previous[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        current[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t substitute = previous[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            current[j] = std::min({previous[j] + 1, current[j - 1] + 1, substitute});
        }
        std::swap(previous, current);
    }
    return previous[b.size()];
}

// The declared option a mistyped name most likely meant, or "": one that
// differs only by '-' typed for '_', else the nearest within two edits (the
// first declared on a tie). Names under three characters get no distance
// hint, since every one-letter option is within two edits of them.
std::string LikelyOption(const std::string& typed, const po::options_description& known) {
    std::string name = typed;
    std::replace(name.begin(), name.end(), '-', '_');
    constexpr size_t kMaxEdits = 2;
    std::string best;
    size_t best_distance = kMaxEdits + 1;
    for (const auto& option : known.options()) {
        const std::string& candidate = option->long_name();
        if (candidate.empty()) continue;
        if (candidate == name) return candidate;
        if (typed.size() < 3) continue;
        const size_t distance = EditDistance(name, candidate);
        if (distance < best_distance) {
            best = candidate;
            best_distance = distance;
        }
    }
    return best;
}

// What the user typed for an unknown command-line option: its first token,
// without the "=value" of a long option.
std::string TypedOption(const po::option& option) {
    if (option.original_tokens.empty()) return option.string_key;
    const std::string& token = option.original_tokens.front();
    if (token.rfind("--", 0) == 0) return token.substr(0, token.find('='));
    return token;
}

bool LooksLikeNumber(const std::string& token) {
    char* end = nullptr;
    std::strtod(token.c_str(), &end);
    return !token.empty() && end == token.c_str() + token.size();
}

}  // namespace

struct Parameters::Options {
    po::options_description command_line{"Command line parameters", po::options_description::m_default_line_length,
                                         po::options_description::m_default_line_length / 2};
    po::options_description config_file{"Configuration file parameters.",
                                        po::options_description::m_default_line_length,
                                        po::options_description::m_default_line_length / 2};
    std::map<std::string, bool> required;  // long name -> seen in some source
    struct Declared {
        std::string name;
        bool in_config_file;
        std::function<std::vector<std::string>()> value_lines;
    };
    std::vector<Declared> declared;

    void MarkRequiredSeen(const po::variables_map& values) {
        for (auto& [name, seen] : required) {
            if (values.count(name)) seen = true;
        }
    }
};

Parameters::Parameters() : options_(std::make_unique<Options>()) {}
Parameters::~Parameters() = default;

template <typename T>
void Parameters::AddOption(const std::string& name, const std::string& help, T* storage, unsigned flags) {
    if (flags & Flag) {
        if (!std::is_same_v<T, bool>) throw std::runtime_error("Flag options must have a storage type of bool.");
        if (flags & ConfigFile) throw std::runtime_error("Flag options cannot also be configuration options.");
        flags |= CommandLine;
    }
    if (flags & Switch) {
        if (!std::is_same_v<T, bool>) throw std::runtime_error("Switch options must have a storage type of bool.");
        flags |= CommandLine | ConfigFile;
    }
    if (!(flags & (CommandLine | ConfigFile))) flags |= CommandLine | ConfigFile;
    std::string key = name.substr(0, name.find(','));
    if (flags & Required) options_->required[key] = false;

    // No default_value(): notify() then writes only options actually given, so
    // the member's initial value survives, and a value from the configuration
    // file survives the command line's notify unless that names it too.
    // A switch takes no value on the command line only; in the configuration
    // file it is written "name = true".
    auto make_value = [&](bool command_line) {
        auto* value = po::value<T>(storage);
        if constexpr (std::is_same_v<T, bool>) {
            if (command_line && (flags & (Flag | Switch))) value->zero_tokens()->implicit_value(true);
        }
        if constexpr (std::is_same_v<T, std::vector<std::string>>) value->multitoken();
        return value;
    };
    if (flags & ConfigFile) options_->config_file.add_options()(name.c_str(), make_value(false), help.c_str());
    if (flags & CommandLine) options_->command_line.add_options()(name.c_str(), make_value(true), help.c_str());
    options_->declared.push_back({key, (flags & ConfigFile) != 0, [storage] { return ValueLines(*storage); }});
}

template void Parameters::AddOption<bool>(const std::string&, const std::string&, bool*, unsigned);
template void Parameters::AddOption<int>(const std::string&, const std::string&, int*, unsigned);
template void Parameters::AddOption<unsigned>(const std::string&, const std::string&, unsigned*, unsigned);
template void Parameters::AddOption<long>(const std::string&, const std::string&, long*, unsigned);
template void Parameters::AddOption<unsigned long>(const std::string&, const std::string&, unsigned long*, unsigned);
template void Parameters::AddOption<float>(const std::string&, const std::string&, float*, unsigned);
template void Parameters::AddOption<double>(const std::string&, const std::string&, double*, unsigned);
template void Parameters::AddOption<std::string>(const std::string&, const std::string&, std::string*, unsigned);
template void Parameters::AddOption<std::vector<std::string>>(const std::string&, const std::string&,
                                                              std::vector<std::string>*, unsigned);

void Parameters::AddIgnoredOption(const std::string& name) {
    options_->config_file.add_options()(name.c_str(), po::value<std::string>(),
                                        "Allowed, but ignored by this application.");
}

std::string Parameters::GetExecutablePath() {
    return fs::canonical(fs::read_symlink("/proc/self/exe")).string();
}

unsigned Parameters::ParseParameters(int argc, char** argv, const std::string& data_subfolder) {
    parse_result &= ~128u;
    AddOptions();
    options_->command_line.add_options()                                          //
        ("help,h", "produce help message")                                        //
        ("version,v", "print version number")                                     //
        ("config,c", po::value<std::string>(&config_file), "Config file to use")  //
        ("data_path,d", po::value<std::string>(&data_path),
         "Path to use for loading any data files the application requires.");

    // The data path and the configuration file must be known before the
    // library parses anything, so they are pre-scanned by hand. A flag in the
    // last position has no value and is left to the parser.
    std::string config_candidate;
    for (int i = 1; i < argc - 1; ++i) {
        std::string arg = argv[i];
        if (arg == "--data_path" || arg == "-d") data_path = argv[i + 1];
        if (arg == "--config" || arg == "-c") config_candidate = argv[i + 1];
    }
    if (data_path.empty()) {
        fs::path path = fs::path(GetExecutablePath()).parent_path().parent_path() / "data";
        if (!data_subfolder.empty()) path /= data_subfolder;
        data_path = path.string();
    }
    if (config_candidate.empty() && !default_config_file.empty()) {
        config_candidate = default_config_file;
        config_file = default_config_file;
    }

    if (!config_candidate.empty()) {
        std::string path =
            HasParent(config_candidate) ? config_candidate : (fs::path(data_path) / config_candidate).string();
        if (!fs::exists(path)) {
            error_text += "Config file: " + path + " does not exist!\n";
            parse_result |= Error;
        } else {
            try {
                std::ifstream file(path);
                if (!file) throw po::reading_file(path.c_str());
                SkipByteOrderMark(file);
                po::parsed_options parsed = po::parse_config_file(file, options_->config_file, true);
                po::variables_map values;
                po::store(parsed, values);
                options_->MarkRequiredSeen(values);
                po::notify(values);
                bool unexpected = false;
                for (const auto& option : parsed.options) {
                    if (!option.unregistered) continue;
                    message_text += "Unexpected option '" + option.string_key + "' found in configuration file.";
                    const std::string likely = LikelyOption(option.string_key, options_->config_file);
                    if (!likely.empty()) message_text += " Did you mean '" + likely + "'?";
                    message_text += "\n";
                    unexpected = true;
                }
                if (unexpected) parse_result |= UnexpectedOption;
            } catch (const po::reading_file& e) {
                error_text += "Error reading config file: '" + std::string(e.what()) + "'.\n";
                parse_result |= ReadConfigError;
            } catch (const po::error& e) {
                error_text += "Error parsing config file: '" + std::string(e.what()) + "'.\n";
                parse_result |= ParseError;
            } catch (const std::exception& e) {
                error_text += "Error processing config file: '" + std::string(e.what()) + "'.\n";
                parse_result |= ProcessingError;
            }
        }
    }

    po::variables_map command_line;
    try {
        po::parsed_options parsed =
            po::command_line_parser(argc, argv).options(options_->command_line).allow_unregistered().run();
        po::store(parsed, command_line);
        options_->MarkRequiredSeen(command_line);
        po::notify(command_line);
        // The parser cannot know whether an unknown option takes a value, so
        // "--name value" arrives as the unknown "--name" plus a stray token
        // (or, for "-5", a second unknown option). That token is the option's
        // value, not an option of its own; any other stray token is reported.
        bool after_unknown = false;
        for (const auto& option : parsed.options) {
            const bool stray = option.position_key >= 0;
            if (!option.unregistered && !stray) {
                after_unknown = false;
                continue;
            }
            const std::string typed = TypedOption(option);
            if (after_unknown && (stray || LooksLikeNumber(typed))) {
                after_unknown = false;
                continue;
            }
            after_unknown = option.unregistered && option.original_tokens.size() == 1 &&
                            option.original_tokens.front().find('=') == std::string::npos;
            message_text += "Unexpected option '" + typed + "' found on command line.";
            if (option.unregistered) {
                const std::string bare = typed.substr(std::min(typed.find_first_not_of('-'), typed.size()));
                const std::string likely = LikelyOption(bare, options_->command_line);
                if (!likely.empty()) message_text += " Did you mean '--" + likely + "'?";
            }
            message_text += "\n";
            parse_result |= UnexpectedOption;
        }
    } catch (const po::error& e) {
        error_text += "Error parsing command line: '" + std::string(e.what()) + "'.\n";
        parse_result |= ParseError;
    } catch (const std::exception& e) {
        error_text += "Error processing command line: '" + std::string(e.what()) + "'.\n";
        parse_result |= ProcessingError;
    }

    if (command_line.count("version")) {
        message_text += "Version requested.\n";
        parse_result |= VersionRequested;
    }
    if (command_line.count("help") || argc == 1) {
        std::ostringstream help;
        help << options_->command_line;
        message_text += usage_text + help.str();
        parse_result |= HelpRequested;
    }
    for (const auto& [name, seen] : options_->required) {
        if (seen) continue;
        error_text += "Missing required option '" + name + "'.\n";
        parse_result |= Error;
    }
    if (!config_file.empty() && !HasParent(config_file)) config_file = (fs::path(data_path) / config_file).string();
    if (!ValidateParams()) parse_result |= Error;
    return parse_result;
}

void RequireInRange(const std::string& option, long long value, long long min, long long max) {
    if (value >= min && value <= max) return;
    throw std::runtime_error("Invalid value " + std::to_string(value) + " for '" + option + "': must be between " +
                             std::to_string(min) + " and " + std::to_string(max) + ".");
}

void RequireFinite(const std::string& option, double value) {
    if (std::isfinite(value)) return;
    std::ostringstream text;
    text << "Invalid value " << value << " for '" << option << "': must be a finite number.";
    throw std::runtime_error(text.str());
}

std::vector<std::pair<std::string, std::string>> Parameters::OptionValues() const {
    std::vector<std::pair<std::string, std::string>> values;
    for (const auto& option : options_->declared) {
        std::string text;
        for (const auto& line : option.value_lines()) {
            if (!text.empty()) text += ' ';
            text += line;
        }
        values.emplace_back(option.name, text);
    }
    return values;
}

}  // namespace Common
