#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "common/parameters.h"
#include "tests/support/error_of.h"
#include "tests/support/temp_folder.h"

namespace fs = std::filesystem;

namespace {

class TestParameters : public Common::Parameters {
public:
    using Parameters::config_file;
    using Parameters::data_path;
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
    bool valid = true;

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
    bool ValidateParams() override { return valid; }
};

class ParametersTest : public ::testing::Test {
protected:
    std::string Config(const std::string& name, const std::string& text) { return dir.Write(name, text); }
    TestSupport::TempFolder dir;
    const fs::path folder = dir.Root();
};

using P = Common::Parameters;

}  // namespace

TEST_F(ParametersTest, CommandLineWinsOverConfigFileOnlyForGivenOptions) {
    Config("run.cfg", "threads = 8\nname = from_file\nlist = a\nlist = b\nneeded = x\nold_key = whatever\n");
    TestParameters p;
    p.default_config_file = "run.cfg";
    EXPECT_EQ(p.Parse({"-d", folder.string(), "-t", "3", "--flag"}), 0u) << p.error_text << p.message_text;
    EXPECT_EQ(p.threads, 3);
    EXPECT_EQ(p.name, "from_file");
    EXPECT_EQ(p.list, (std::vector<std::string>{"a", "b"}));
    EXPECT_FLOAT_EQ(p.ratio, 0.6f);  // given nowhere: the initial value survives
    EXPECT_TRUE(p.flag);
    EXPECT_EQ(p.config_file, (folder / "run.cfg").string());

    TestParameters q;
    q.default_config_file = "run.cfg";
    EXPECT_EQ(q.Parse({"-d", folder.string(), "--list", "c", "d", "-n", "y"}), 0u) << q.error_text;
    EXPECT_EQ(q.threads, 8);
    EXPECT_EQ(q.list, (std::vector<std::string>{"c", "d"}));
    EXPECT_EQ(q.needed, "y");
}

TEST_F(ParametersTest, ConfigFileLookupAndFailures) {
    // A name without folder is looked up in the data path; with one, used as given.
    std::string explicit_path = Config("other.cfg", "threads = 5\n");
    TestParameters p;
    EXPECT_EQ(p.Parse({"-n", "x", "-d", (folder / "nowhere").string(), "--config", explicit_path}), 0u) << p.error_text;
    EXPECT_EQ(p.threads, 5);

    TestParameters missing;
    missing.default_config_file = "absent.cfg";
    EXPECT_EQ(missing.Parse({"-n", "x", "-d", folder.string()}), unsigned(P::Error));
    EXPECT_EQ(missing.error_text, "Config file: " + (folder / "absent.cfg").string() + " does not exist!\n");

    Config("bad.cfg", "threads = many\n");
    TestParameters bad;
    EXPECT_EQ(bad.Parse({"-n", "x", "-d", folder.string(), "-c", "bad.cfg"}), unsigned(P::ParseError));
    EXPECT_EQ(bad.error_text.rfind("Error parsing config file: '", 0), 0u) << bad.error_text;

    // A trailing -d has no value: the pre-scan ignores it and the parser objects.
    TestParameters trailing;
    unsigned result = trailing.Parse({"-n", "x", "-d"});
    EXPECT_TRUE(result & P::ParseError);
    EXPECT_NE(trailing.error_text.find("Error parsing command line: '"), std::string::npos);
}

TEST_F(ParametersTest, MessagesForUnexpectedMissingAndInvalid) {
    Config("run.cfg", "bogus = 1\nthreads = 2\n");
    TestParameters p;
    unsigned result = p.Parse({"-d", folder.string(), "-c", "run.cfg", "--stray", "-t", "7"});
    EXPECT_EQ(result, unsigned(P::UnexpectedOption | P::Error));
    EXPECT_NE(p.message_text.find("Unexpected option 'bogus' found in configuration file.\n"), std::string::npos);
    EXPECT_NE(p.message_text.find("Unexpected option '--stray' found on command line.\n"), std::string::npos)
        << p.message_text;
    EXPECT_EQ(p.error_text, "Missing required option 'needed'.\n");
    EXPECT_EQ(p.threads, 7);  // parsing went on after the unexpected ones

    TestParameters invalid;
    invalid.valid = false;
    EXPECT_EQ(invalid.Parse({"-n", "x", "-d", folder.string()}), unsigned(P::Error));
    EXPECT_TRUE(invalid.error_text.empty());
}

// An unknown option is named as typed, with a hint when it is a likely slip
// for a declared one; the value typed after it is not reported as an option.
TEST_F(ParametersTest, UnknownOptionsAreNamedAsTypedWithAHint) {
    auto messages = [&](std::vector<std::string> args) {
        TestParameters p;
        args.insert(args.end(), {"-n", "x", "-d", folder.string()});
        EXPECT_EQ(p.Parse(args), unsigned(P::UnexpectedOption)) << p.message_text;
        return p.message_text;
    };
    const std::string tail = "' found on command line.";
    EXPECT_EQ(messages({"--threds", "3"}), "Unexpected option '--threds" + tail + " Did you mean '--threads'?\n");
    EXPECT_EQ(messages({"--thraeds=3"}), "Unexpected option '--thraeds" + tail + " Did you mean '--threads'?\n");
    EXPECT_EQ(messages({"--ratio-x", "-5"}), "Unexpected option '--ratio-x" + tail + " Did you mean '--ratio'?\n");
    EXPECT_EQ(messages({"--old-key"}), "Unexpected option '--old-key" + tail + "\n");  // config-file only
    EXPECT_EQ(messages({"--data-path", "elsewhere"}),
              "Unexpected option '--data-path" + tail + " Did you mean '--data_path'?\n");
    EXPECT_EQ(messages({"--zzzzzz", "1", "--lst", "a"}),
              "Unexpected option '--zzzzzz" + tail + "\nUnexpected option '--lst" + tail + " Did you mean '--list'?\n");
    EXPECT_EQ(messages({"-y"}), "Unexpected option '-y" + tail + "\n");
    // A stray word that follows no unknown option is reported as it is.
    EXPECT_EQ(messages({"extra"}), "Unexpected option 'extra" + tail + "\n");
    EXPECT_EQ(messages({"--flag", "extra"}), "Unexpected option 'extra" + tail + "\n");

    Config("typo.cfg", "thread = 2\nnmae = y\n");
    TestParameters config;
    config.Parse({"-n", "x", "-d", folder.string(), "-c", "typo.cfg"});
    EXPECT_EQ(config.message_text,
              "Unexpected option 'thread' found in configuration file. Did you mean 'threads'?\n"
              "Unexpected option 'nmae' found in configuration file. Did you mean 'name'?\n");
}

TEST_F(ParametersTest, HelpAndVersion) {
    TestParameters none;
    none.usage_text = "Usage: prog\n";
    EXPECT_TRUE(none.Parse({"-d", folder.string()}) & P::Error);
    TestParameters empty;
    empty.usage_text = "Usage: prog\n";
    EXPECT_TRUE(empty.Parse({}) & P::HelpRequested);
    EXPECT_EQ(empty.message_text.rfind("Usage: prog\nCommand line parameters", 0), 0u) << empty.message_text;
    EXPECT_NE(empty.message_text.find("--threads"), std::string::npos);
    EXPECT_EQ(empty.message_text.find("--name"), std::string::npos);  // configuration-file only

    TestParameters version;
    unsigned result = version.Parse({"-d", folder.string(), "--version"});
    EXPECT_EQ(result, unsigned(P::VersionRequested | P::Error));
    EXPECT_NE(version.message_text.find("Version requested.\n"), std::string::npos);
}

template <typename Declaration>
std::string Refusal() {
    return TestSupport::ErrorOf([] { Declaration().Parse({}); });
}

struct BadFlag : TestParameters {
    void AddOptions() override { AddOption("count", "", &threads, Flag); }
};
struct BadSwitch : TestParameters {
    void AddOptions() override { AddOption("count", "", &threads, Switch); }
};
struct ConfigFlag : TestParameters {
    void AddOptions() override { AddOption("switch", "", &flag, Flag | ConfigFile); }
};

TEST_F(ParametersTest, MisdeclaredFlagsThrow) {
    EXPECT_EQ(Refusal<BadSwitch>(), "Switch options must have a storage type of bool.");
    EXPECT_EQ(Refusal<BadFlag>(), "Flag options must have a storage type of bool.");
    EXPECT_EQ(Refusal<ConfigFlag>(), "Flag options cannot also be configuration options.");
}

TEST_F(ParametersTest, WrittenConfigurationReadsBackToTheSameValues) {
    TestParameters p;
    ASSERT_EQ(p.Parse({"-d", folder.string(), "-n", "x y", "-t", "9", "--list", "a", "b c", "--ratio", "0.1", "--flag",
                       "--toggle"}),
              0u)
        << p.error_text;
    std::string path = (folder / "dump.cfg").string();
    p.WriteConfigFile(path, {"written by the test"}, false);
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(text.rfind("# written by the test\n\n\n", 0), 0u);
    EXPECT_NE(text.find("ratio\t\t=\t0.1\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("flag"), std::string::npos);  // command-line only
    // A switch that is also a key is written once, as a key.
    EXPECT_NE(text.find("toggle\t\t=\ttrue\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("toggle"), text.rfind("toggle")) << text;

    TestParameters q;
    q.default_config_file = "dump.cfg";
    ASSERT_EQ(q.Parse({"-d", folder.string()}), 0u) << q.error_text;
    EXPECT_EQ(q.threads, 9);
    EXPECT_EQ(q.needed, "x y");
    EXPECT_EQ(q.list, p.list);
    EXPECT_EQ(q.ratio, p.ratio);
    EXPECT_FALSE(q.flag);
    EXPECT_TRUE(q.toggle);
}

// The run report lists the options with these texts; they must be the dump's.
TEST_F(ParametersTest, OptionValuesAreTheDumpedTextsInDeclarationOrder) {
    TestParameters p;
    ASSERT_EQ(p.Parse({"-d", folder.string(), "-n", "x y", "--list", "a", "b c", "--ratio", "0.1", "--flag"}), 0u);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"threads", "4"},  {"name", "initial"}, {"ratio", "0.1"},   {"flag", "true"},
        {"list", "a b c"}, {"needed", "x y"},   {"toggle", "false"}};
    EXPECT_EQ(p.OptionValues(), expected);
}
