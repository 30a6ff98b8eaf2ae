#include <gtest/gtest.h>

#include <tuple>

#include "common/parameters.h"
#include "tests/support/error_of.h"
#include "tests/support/temp_folder.h"

using TestSupport::ErrorOf;
using TestSupport::Holds;

namespace {

using P = Common::Parameters;

class TestParameters : public Common::Parameters {
public:
    using Parameters::config_file;
    using Parameters::default_config_file;
    using Parameters::error_text;
    using Parameters::message_text;
    using Parameters::usage_text;

    int threads = 4;
    std::string name = "initial";
    float ratio = 0.6f;
    bool flag = false;
    std::vector<std::string> list;
    std::string needed;
    bool toggle = false;

    unsigned Parse(std::vector<std::string> args) {
        args.insert(args.begin(), "prog");
        std::vector<char*> argv;
        for (auto& arg : args)
            argv.push_back(arg.data());
        return ParseParameters(static_cast<int>(argv.size()), argv.data(), "");
    }

protected:
    void AddOptions() override {
        AddOption("threads,t", "threads", &threads, CommandLine | ConfigFile);
        AddOption("name", "config only", &name, ConfigFile);
        AddOption("ratio", "both by default", &ratio, 0);
        AddOption("flag,f", "a switch", &flag, Flag);
        AddOption("list", "several words", &list, 0);
        AddOption("needed,n", "must be given", &needed, Required);
        AddOption("toggle", "a switch and a key", &toggle, Switch);
        AddIgnoredOption("old_key");
    }
    bool ValidateParams() override { return true; }
};

template <typename T, unsigned kFlags>
struct Misdeclared : TestParameters {
    T value{};
    void AddOptions() override { AddOption("count", "", &value, kFlags); }
};

class ParametersTest : public ::testing::Test {
protected:
    TestSupport::TempFolder dir;
    const std::string folder = dir.Path();
};

}  // namespace

// A value given on the command line replaces the configuration file's (a list as a whole); one given nowhere
// keeps its initial value. A configuration file name without a folder is looked up in the data path. The run
// report lists the values as texts that read back to the same values, in declaration order. The file was saved
// with a byte order mark, as some editors do.
TEST_F(ParametersTest, CommandLineWinsOverConfigFileOnlyForGivenOptions) {
    dir.Write(
        "run.cfg",
        "\xEF\xBB\xBFthreads = 8\nname = from_file\nlist = a\nlist = b\nneeded = x y\nold_key = 1\ntoggle = true\n");
    TestParameters p;
    p.default_config_file = "run.cfg";
    EXPECT_EQ(p.Parse({"-d", folder, "-t", "3", "--flag"}), 0u) << p.error_text << p.message_text;
    EXPECT_EQ(p.config_file, folder + "/run.cfg");
    const std::vector<std::pair<std::string, std::string>> values = {
        {"threads", "3"}, {"name", "from_file"}, {"ratio", "0.6"},  {"flag", "true"},
        {"list", "a b"},  {"needed", "x y"},     {"toggle", "true"}};
    EXPECT_EQ(p.OptionValues(), values);

    TestParameters q;
    q.default_config_file = "run.cfg";
    EXPECT_EQ(q.Parse({"-d", folder, "--list", "c", "d", "--ratio", "0.1"}), 0u) << q.error_text;
    EXPECT_EQ(std::tie(q.threads, q.list, q.ratio, q.flag),
              std::make_tuple(8, std::vector<std::string>{"c", "d"}, 0.1f, false));
    EXPECT_EQ(q.OptionValues()[2].second, "0.1");
}

// Unknown options are named as typed, with a hint when they are a likely slip for a declared one; the value
// typed after one is not reported as an option, and parsing goes on. An expected text ending in "..." is a
// prefix (the rest is the option library's own wording).
TEST_F(ParametersTest, ResultsAndMessages) {
    const unsigned kUnexpected = P::UnexpectedOption;
    const char* in_file = "in configuration file";
    const auto unknown = [](const std::string& typed, const std::string& hint = "",
                            const char* where = "on command line") {
        return "Unexpected option '" + typed + "' found " + where + "." +
               (hint.empty() ? "" : " Did you mean '" + hint + "'?") + "\n";
    };
    const std::string other = std::filesystem::relative(dir.Write("other.cfg", "threads = 5\n")).string();
    const struct {
        std::string config;             // written to run.cfg and used when not empty
        std::vector<std::string> args;  // "-n x -d <folder>" follow
        unsigned result;
        std::string errors, messages;
    } cases[] = {
        {"", {"--threds", "3"}, kUnexpected, "", unknown("--threds", "--threads")},
        {"", {"--thraeds=3"}, kUnexpected, "", unknown("--thraeds", "--threads")},
        {"", {"--ratio-x", "-5"}, kUnexpected, "", unknown("--ratio-x", "--ratio")},
        {"", {"--old-key"}, kUnexpected, "", unknown("--old-key")},  // a configuration-file key
        {"", {"--data-path", "elsewhere"}, kUnexpected, "", unknown("--data-path", "--data_path")},
        {"", {"--zzzzzz", "1", "--lst", "a"}, kUnexpected, "", unknown("--zzzzzz") + unknown("--lst", "--list")},
        {"", {"-y"}, kUnexpected, "", unknown("-y")},
        {"", {"--ls"}, kUnexpected, "", unknown("--ls")},  // too short for a hint
        {"", {"extra"}, kUnexpected, "", unknown("extra")},
        {"", {"--flag", "extra"}, kUnexpected, "", unknown("extra")},
        {"thread = 2\n", {}, kUnexpected, "", unknown("thread", "threads", in_file)},
        {"nmae = y\n", {}, kUnexpected, "", unknown("nmae", "name", in_file)},
        {"bogus = 1\n", {"--stray"}, kUnexpected, "", unknown("bogus", "", in_file) + unknown("--stray")},
        {"", {"--config", other}, 0, "", ""},  // a path with a folder is used as it is
        {"", {"-c", "absent.cfg"}, P::Error, "Config file: " + folder + "/absent.cfg does not exist!\n", ""},
        {"threads = many\n", {}, P::ParseError, "Error parsing config file: '...", ""},
        {"", {"--version"}, P::VersionRequested, "", "Version requested.\n"},
        {"", {"--help"}, P::HelpRequested, "", "Usage: prog\nCommand line parameters..."},
    };
    const auto matches = [](const std::string& text, const std::string& expected) {
        return expected.ends_with("...") ? text.starts_with(expected.substr(0, expected.size() - 3)) : text == expected;
    };
    for (const auto& c : cases) {
        TestParameters p;
        p.usage_text = "Usage: prog\n";
        if (!c.config.empty()) {
            dir.Write("run.cfg", c.config);
            p.default_config_file = "run.cfg";
        }
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"-n", "x", "-d", folder});
        EXPECT_EQ(p.Parse(args), c.result) << c.messages;
        EXPECT_TRUE(matches(p.error_text, c.errors)) << p.error_text;
        EXPECT_TRUE(matches(p.message_text, c.messages)) << p.message_text;
        EXPECT_EQ(p.needed, "x");
        if (c.result != P::HelpRequested) continue;
        EXPECT_TRUE(Holds(p.message_text, "--threads"));
        EXPECT_FALSE(Holds(p.message_text, "--name"));  // configuration-file only
    }
    EXPECT_TRUE(TestParameters().Parse({}) & P::HelpRequested);  // no arguments at all
    // The pre-scan leaves a -d without a value to the parser.
    TestParameters trailing;
    EXPECT_EQ(trailing.Parse({"-n", "x", "-d"}), P::ParseError | P::Error);
    EXPECT_EQ(trailing.error_text.rfind("Error parsing command line: '", 0), 0u) << trailing.error_text;
    // Declarations the options cannot be.
    EXPECT_EQ(ErrorOf([] { Misdeclared<int, P::Switch>().Parse({}); }),
              "Switch options must have a storage type of bool.");
    EXPECT_EQ(ErrorOf([] { Misdeclared<int, P::Flag>().Parse({}); }), "Flag options must have a storage type of bool.");
    EXPECT_EQ(ErrorOf([] { Misdeclared<bool, P::Flag | P::ConfigFile>().Parse({}); }),
              "Flag options cannot also be configuration options.");
}
