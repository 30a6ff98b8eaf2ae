#pragma once
// Option declaration and parsing shared by the applications: every option is
// a plain member of the application object, declared once with AddOption and
// filled from the configuration file and then from the command line.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Common {

class Parameters {
public:
    // Bits for AddOption.
    enum OptionFlags : unsigned {
        CommandLine = 1,
        ConfigFile = 2,
        Flag = 4,  // switch without value; bool storage, command line only
        Required = 8,
        // A switch without value on the command line that is also a
        // configuration key taking true or false: one option, declared once.
        // Bool storage.
        Switch = 16,
    };
    // Bits returned by ParseParameters and kept in parse_result.
    enum ParseResult : unsigned {
        Error = 1,  // missing required option, missing config file, or ValidateParams failed
        UnexpectedOption = 2,
        ReadConfigError = 4,
        ParseError = 8,
        ProcessingError = 16,
        HelpRequested = 32,
        VersionRequested = 64,
    };

    Parameters();
    virtual ~Parameters();
    Parameters(const Parameters&) = delete;
    Parameters& operator=(const Parameters&) = delete;

    // Every declared option, command-line-only ones included, in declaration
    // order with its current value; a list's elements are joined by single
    // spaces.
    std::vector<std::pair<std::string, std::string>> OptionValues() const;

    // Canonical path of the running executable (from /proc/self/exe).
    static std::string GetExecutablePath();

protected:
    // The application declares its options here (called by ParseParameters).
    virtual void AddOptions() = 0;
    // Checks the parsed values; false sets Error.
    virtual bool ValidateParams() = 0;

    // Declares one option. name is "long" or "long,s". The storage keeps its
    // current value unless the option is actually given; the command line wins
    // over the configuration file. Throws std::runtime_error for a Flag whose
    // storage is not bool or that is also a ConfigFile option, and for a
    // Switch whose storage is not bool. Available for
    // bool, int, unsigned, long, unsigned long, float, double, std::string and
    // std::vector<std::string> (multi-token on the command line, repeated key
    // in the configuration file).
    template <typename T>
    void AddOption(const std::string& name, const std::string& help, T* storage, unsigned flags);
    // A configuration-file key that old files may still carry; accepted and dropped.
    void AddIgnoredOption(const std::string& name);

    // Reads the configuration file, then the command line. Never throws for
    // option problems and never ends the process: fatal problems go to
    // error_text, informational ones (and the help text) to message_text, and
    // the result bits to parse_result, which is returned.
    unsigned ParseParameters(int argc, char** argv, const std::string& data_subfolder);

    std::string default_config_file;  // tried when no --config/-c is given
    std::string usage_text;           // printed before the option list in the help
    uint32_t parse_result = 0;
    std::string error_text;
    std::string message_text;
    std::string config_file;  // option "config"; resolved against data_path after parsing
    std::string data_path;    // option "data_path"; defaults to <install>/data/<data_subfolder>

private:
    struct Options;
    std::unique_ptr<Options> options_;
};

// Upper bound of worker_threads: far above the cores of any machine we run on,
// low enough that a slip such as "-t 100000" is refused rather than spending
// memory on per-thread state until the machine runs out.
constexpr int kMaxWorkerThreads = 1024;

// Start-up checks of option values. Each throws std::runtime_error naming the
// option and what is allowed, e.g. "Invalid value 0 for 'front_window_size':
// must be between 1 and 10000."
void RequireInRange(const std::string& option, long long value, long long min, long long max);
void RequireFinite(const std::string& option, double value);

}  // namespace Common
