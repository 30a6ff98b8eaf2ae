#include "common/parameters.h"

#include <boost/program_options.hpp>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>
#include <type_traits>

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
    if (!(flags & (CommandLine | ConfigFile))) flags |= CommandLine | ConfigFile;
    std::string key = name.substr(0, name.find(','));
    if (flags & Required) options_->required[key] = false;

    // No default_value(): notify() then writes only options actually given, so
    // the member's initial value survives, and a value from the configuration
    // file survives the command line's notify unless that names it too.
    auto make_value = [&]() {
        auto* value = po::value<T>(storage);
        if constexpr (std::is_same_v<T, bool>) {
            if (flags & Flag) value->zero_tokens()->implicit_value(true);
        }
        if constexpr (std::is_same_v<T, std::vector<std::string>>) value->multitoken();
        return value;
    };
    if (flags & ConfigFile) options_->config_file.add_options()(name.c_str(), make_value(), help.c_str());
    if (flags & CommandLine) options_->command_line.add_options()(name.c_str(), make_value(), help.c_str());
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
                po::parsed_options parsed = po::parse_config_file<char>(path.c_str(), options_->config_file, true);
                po::variables_map values;
                po::store(parsed, values);
                options_->MarkRequiredSeen(values);
                po::notify(values);
                bool unexpected = false;
                for (const auto& option : parsed.options) {
                    if (!option.unregistered) continue;
                    message_text += "Unexpected option '" + option.string_key + "' found in configuration file.\n";
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
        for (const auto& option : parsed.options) {
            if (!option.unregistered && option.position_key < 0) continue;
            // Unknown "--name value" arrives as "--name" plus a stray token;
            // both are reported so nothing the user typed goes unnoticed.
            std::string name = option.string_key.empty() && !option.original_tokens.empty()
                                   ? option.original_tokens.front()
                                   : option.string_key;
            message_text += "Unexpected option '" + name + "' found on command line.\n";
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

void Parameters::WriteConfigFile(const std::string& path, const std::vector<std::string>& header_lines,
                                 bool include_command_line_only) {
    std::ofstream out(path);
    if (!out.is_open()) throw std::runtime_error("Could not open configuration file for writing: '" + path + "'");
    if (!header_lines.empty()) {
        for (const auto& line : header_lines)
            out << "# " << line << "\n";
        out << "\n\n";
    }
    for (const auto& option : options_->declared) {
        if (!option.in_config_file && !include_command_line_only) continue;
        for (const auto& value : option.value_lines())
            out << option.name << "\t\t=\t" << value << "\n";
    }
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
