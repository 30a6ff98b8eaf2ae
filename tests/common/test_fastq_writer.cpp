#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "common/fastq_writer.h"

namespace Common {
namespace {

namespace fs = boost::filesystem;

class FastqWriterTest : public ::testing::Test {
protected:
    FastqWriterTest() : root_(fs::temp_directory_path() / fs::unique_path("vb-writer-%%%%-%%%%")) {}
    ~FastqWriterTest() override { fs::remove_all(root_); }

    static FastQRecord Record(int k, const std::string& run_id = "R1") {
        return FastQRecord("@read" + std::to_string(k) + " runid=" + run_id, "ACGT", "!!!!");
    }
    static std::string Slurp(const fs::path& path) {
        std::ifstream in(path.string(), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // Relative paths of every file below the root, sorted.
    std::vector<std::string> Files() const {
        std::vector<std::string> files;
        if (!fs::exists(root_)) return files;
        for (fs::recursive_directory_iterator it(root_), end; it != end; ++it)
            if (fs::is_regular_file(it->path())) files.push_back(fs::relative(it->path(), root_).string());
        std::sort(files.begin(), files.end());
        return files;
    }

    fs::path root_;
};

TEST_F(FastqWriterTest, SplitsFilesByLimitRunIdAndFolder) {
    {
        BarcodeFastqWriter writer(root_.string(), false, 2);
        for (int k = 0; k < 5; ++k)
            writer.Write(Record(k), "barcode01", "R1");
        writer.Write(Record(5, "R2"), "barcode01", "R2");
        writer.Write(Record(6), "", "R1");
        writer.Write(Record(7), "barcode02", "R1", true, true);
    }  // the destructor finalises
    EXPECT_EQ(Files(),
              (std::vector<std::string>{"barcode01/fastq_runid_R1_0.fastq", "barcode01/fastq_runid_R1_1.fastq",
                                        "barcode01/fastq_runid_R1_2.fastq", "barcode01/fastq_runid_R2_0.fastq",
                                        "calibration_strands/fastq_runid_R1_0.fastq", "fastq_runid_R1_0.fastq"}));
    EXPECT_EQ(Slurp(root_ / "barcode01/fastq_runid_R1_1.fastq"), Record(2).ToString() + Record(3).ToString());
    EXPECT_EQ(Slurp(root_ / "barcode01/fastq_runid_R1_2.fastq"), Record(4).ToString());
}

TEST_F(FastqWriterTest, PassFailFoldersAndOverwrite) {
    fs::create_directories(root_ / "fail");
    std::ofstream((root_ / "fail/fastq_runid_R1_0.fastq").string()) << "old content that is longer\n";
    BarcodeFastqWriter writer(root_.string(), false, 0, true);
    writer.Write(Record(0), "bc", "R1", true);
    writer.Write(Record(1), "", "R1", false);
    writer.Finalise();
    EXPECT_EQ(Files(), (std::vector<std::string>{"fail/fastq_runid_R1_0.fastq", "pass/bc/fastq_runid_R1_0.fastq"}));
    EXPECT_EQ(Slurp(root_ / "fail/fastq_runid_R1_0.fastq"), Record(1).ToString());
}

TEST_F(FastqWriterTest, GzipOutputIsCompleteAfterEveryRotation) {
    BarcodeFastqWriter writer(root_.string(), true, 3);
    std::string expected[2];
    for (int k = 0; k < 5; ++k) {
        writer.Write(Record(k), "bc", "R1");
        expected[k / 3] += Record(k).ToString();
    }
    writer.Finalise();
    for (int index = 0; index < 2; ++index) {
        const fs::path file = root_ / "bc" / ("fastq_runid_R1_" + std::to_string(index) + ".fastq.gz");
        ASSERT_TRUE(fs::exists(file));
        EXPECT_EQ(std::system(("gzip -t '" + file.string() + "'").c_str()), 0);
        const fs::path plain = root_ / ("plain" + std::to_string(index));
        ASSERT_EQ(std::system(("gzip -dc '" + file.string() + "' > '" + plain.string() + "'").c_str()), 0);
        EXPECT_EQ(Slurp(plain), expected[index]);
    }
}

TEST_F(FastqWriterTest, MisuseIsRefused) {
    EXPECT_THROW(BarcodeFastqWriter(std::vector<std::string>{}, FastqWriterOptions{}), std::runtime_error);
    BarcodeFastqWriter writer(root_.string(), false, 0);
    writer.Write(Record(0), "bc", "R1");
    writer.Flush();
    EXPECT_EQ(Slurp(root_ / "bc/fastq_runid_R1_0.fastq"), Record(0).ToString());
    writer.Finalise();
    writer.Finalise();  // harmless
    try {
        writer.Write(Record(1), "bc", "R1");
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Attempted to write record after finalizing the writer.");
    }
    try {
        writer.Flush();
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Attempted to flush after finalizing the writer.");
    }
    // A root that is a file cannot take folders.
    std::ofstream((root_ / "blocker").string()) << "x";
    BarcodeFastqWriter blocked((root_ / "blocker").string(), false, 0);
    EXPECT_THROW(blocked.Write(Record(0), "", "R1"), std::runtime_error);
}

}  // namespace
}  // namespace Common
