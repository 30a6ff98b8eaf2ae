// Input discovery against the plain directory iteration it replaced, on random
// trees, and its behaviour where that iteration gave up: entries that cannot
// be resolved, folders that cannot be read, and the save folder.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "apps/input_files.h"

namespace fs = std::filesystem;

namespace {

// The listing of earlier versions, which only worked on trees without bad
// entries, less the names of files still being written (*.tmp, *.part,
// hidden names).
std::vector<std::string> NaiveListing(const fs::path& root, bool recursive) {
    auto take = [](const fs::directory_entry& entry) {
        const fs::path& p = entry.path();
        const std::string name = p.filename().string();
        const bool unfinished = name[0] == '.' || p.extension() == ".tmp" || p.extension() == ".part";
        return entry.is_regular_file() && !unfinished &&
               (p.extension() == ".fastq" || p.stem().extension() == ".fastq");
    };
    std::vector<std::string> files;
    if (recursive) {
        for (const auto& entry : fs::recursive_directory_iterator(root))
            if (take(entry)) files.push_back(entry.path().string());
    } else {
        for (const auto& entry : fs::directory_iterator(root))
            if (take(entry)) files.push_back(entry.path().string());
    }
    return files;
}

class InputFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        root = fs::temp_directory_path() / ("vb_test_input_files_" + std::to_string(::getpid()));
        fs::remove_all(root);
        fs::create_directories(root / "in");
    }
    void TearDown() override {
        std::error_code ignored;
        fs::permissions(root / "in" / "locked", fs::perms::owner_all, ignored);
        fs::remove_all(root);
    }
    void Touch(const fs::path& path) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "@r\nA\n+\nI\n";
    }
    Vorpa::InputFiles Discover(bool recursive, const fs::path& save) {
        std::istringstream unused;
        return Vorpa::DiscoverInputFiles((root / "in").string(), recursive, save.string(), unused);
    }
    // Random folders and files: FASTQ names, other names, folders named like
    // FASTQ files, links to files and links to folders.
    void RandomTree(std::mt19937& rng) {
        std::vector<fs::path> folders = {root / "in"};
        const char* names[] = {".fastq", ".fastq.gz", ".fq", ".fastq.txt.gz", ".txt", "", ".fastq.tmp", ".fastq.part"};
        for (int k = 0; k < 60; ++k) {
            const fs::path parent = folders[rng() % folders.size()];
            std::string stem = "n";
            stem += std::to_string(k);
            const unsigned kind = rng() % 5;
            if (kind == 0) {
                std::string name = stem;
                if (rng() % 4 == 0) name.append(".fastq");  // a folder named like a FASTQ file
                folders.push_back(parent / name);
                fs::create_directories(folders.back());
            } else if (kind == 1) {
                fs::create_symlink(folders[rng() % folders.size()], parent / (stem + ".fastq"));
            } else {
                const fs::path file = parent / ((rng() % 8 == 0 ? "." : "") + stem + names[rng() % 8]);
                Touch(file);
                if (rng() % 6 == 0) fs::create_symlink(file, parent / (stem + "l.fastq"));
            }
        }
    }
    fs::path root;
};

}  // namespace

TEST_F(InputFilesTest, SameFilesInTheSameOrderAsPlainIteration) {
    std::mt19937 rng(2024);
    for (int tree = 0; tree < 8; ++tree) {
        fs::remove_all(root / "in");
        fs::create_directories(root / "in");
        RandomTree(rng);
        for (bool recursive : {false, true}) {
            const auto found = Discover(recursive, root / "elsewhere");
            EXPECT_EQ(found.files, NaiveListing(root / "in", recursive)) << tree << " " << recursive;
        }
    }
}

// A link that points at itself or nowhere is named in a warning and passed
// over; the files listed after it are still found.
TEST_F(InputFilesTest, UnresolvableLinksAreSkippedWithAWarning) {
    std::mt19937 rng(7);
    RandomTree(rng);
    const auto expected_flat = NaiveListing(root / "in", false);
    const auto expected_deep = NaiveListing(root / "in", true);
    fs::create_directories(root / "in" / "sub");
    for (const fs::path& loop : {root / "in" / "loop.fastq", root / "in" / "sub" / "loop"})
        fs::create_symlink(loop.filename(), loop);
    fs::create_symlink(root / "in" / "absent.fastq", root / "in" / "gone.fastq");
    for (bool recursive : {false, true}) {
        auto found = Discover(recursive, root / "elsewhere");
        std::sort(found.files.begin(), found.files.end());
        auto expected = recursive ? expected_deep : expected_flat;
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(found.files, expected);
        std::string warnings;
        for (const auto& warning : found.warnings)
            warnings += warning + "\n";
        EXPECT_EQ(found.warnings.size(), recursive ? 3u : 2u) << warnings;
        EXPECT_NE(warnings.find("Skipping '" + (root / "in" / "loop.fastq").string() + "': "), std::string::npos);
        EXPECT_NE(warnings.find("Skipping '" + (root / "in" / "gone.fastq").string() + "': "), std::string::npos);
    }
}

TEST_F(InputFilesTest, UnreadableFolderIsSkippedWithAWarning) {
    if (::geteuid() == 0) GTEST_SKIP() << "running as root: folder permissions are not enforced";
    Touch(root / "in" / "a.fastq");
    Touch(root / "in" / "locked" / "hidden.fastq");
    Touch(root / "in" / "open" / "b.fastq");
    fs::permissions(root / "in" / "locked", fs::perms::none);
    auto found = Discover(true, root / "elsewhere");
    std::sort(found.files.begin(), found.files.end());
    EXPECT_EQ(found.files, (std::vector<std::string>{(root / "in" / "a.fastq").string(),
                                                     (root / "in" / "open" / "b.fastq").string()}));
    ASSERT_EQ(found.warnings.size(), 1u);
    EXPECT_EQ(found.warnings[0].rfind("Skipping '" + (root / "in" / "locked").string() + "': ", 0), 0u);
}

// Earlier output in the save folder is never read back in.
TEST_F(InputFilesTest, SaveFolderIsNeverSearched) {
    Touch(root / "in" / "a.fastq");
    Touch(root / "in" / "sub" / "b.fastq");
    Touch(root / "in" / "out" / "barcode01" / "fastq_runid_r_0.fastq");
    auto found = Discover(true, root / "in" / "out");
    std::sort(found.files.begin(), found.files.end());
    EXPECT_EQ(found.files, (std::vector<std::string>{(root / "in" / "a.fastq").string(),
                                                     (root / "in" / "sub" / "b.fastq").string()}));
    EXPECT_TRUE(found.warnings.empty());
    // The same folder reached through another spelling.
    found = Discover(true, root / "in" / "sub" / ".." / "out" / ".");
    EXPECT_EQ(found.files.size(), 2u);

    // The input folder itself as the save folder: its own files only.
    found = Discover(true, root / "in");
    EXPECT_EQ(found.files, (std::vector<std::string>{(root / "in" / "a.fastq").string()}));
    ASSERT_EQ(found.warnings.size(), 1u);
    EXPECT_EQ(found.warnings[0], "Not searching the subfolders of '" + (root / "in").string() +
                                     "': it is also the save folder, and its subfolders hold the output of earlier "
                                     "runs");
    EXPECT_TRUE(Discover(false, root / "in").warnings.empty());
}

TEST_F(InputFilesTest, ListFromStandardInput) {
    std::istringstream names("x/one.fq\n\n/abs/two\n");
    const auto found = Vorpa::DiscoverInputFiles("", true, (root / "in").string(), names);
    EXPECT_EQ(found.files, (std::vector<std::string>{"x/one.fq", "/abs/two"}));
}

TEST_F(InputFilesTest, InputAndSavePathChecks) {
    const std::string in = (root / "in").string();
    Touch(root / "file.fastq");
    const std::string file = (root / "file.fastq").string();
    EXPECT_EQ(Vorpa::InputPathProblem(in), "");
    EXPECT_EQ(Vorpa::InputPathProblem(""), "");
    EXPECT_EQ(Vorpa::InputPathProblem(in + "/absent"), "Input path '" + in + "/absent' does not exist");
    EXPECT_EQ(Vorpa::InputPathProblem(file), "Input path '" + file + "' is not a folder");

    const std::string nested = (root / "out" / "deeper").string();
    EXPECT_EQ(Vorpa::PrepareSaveFolder(nested), "");
    EXPECT_TRUE(fs::is_directory(nested));
    EXPECT_TRUE(fs::is_empty(nested)) << "the probe file must be removed";
    EXPECT_EQ(Vorpa::PrepareSaveFolder(file), "Save path '" + file + "' exists and is not a folder");
    EXPECT_EQ(Vorpa::PrepareSaveFolder(file + "/below").rfind("Cannot create save folder '" + file + "/below': ", 0),
              0u);
    // /proc refuses new files even to root, so these two hold whoever runs them.
    if (!fs::is_directory("/proc/self")) GTEST_SKIP() << "no /proc file system";
    EXPECT_EQ(Vorpa::PrepareSaveFolder("/proc").rfind("Cannot write into save folder '/proc': ", 0), 0u);
    EXPECT_EQ(Vorpa::PrepareSaveFolder("/proc/vb_new").rfind("Cannot create save folder '/proc/vb_new': ", 0), 0u);
}
