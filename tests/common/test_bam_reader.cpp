// BAM, SAM and CRAM input: files written by htslib from SAM text, read as
// FASTQ records with their tags.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "common/bam_reader.h"
#include "common/bam_record.h"
#include "tests/common/htslib_files.h"
#include "tests/support/error_of.h"
#include "tests/support/random_bases.h"
#include "tests/support/temp_folder.h"

namespace Common {
namespace {

namespace fs = std::filesystem;

const char* const kHeader =
    "@HD\tVN:1.6\tSO:unsorted\n@SQ\tSN:chr1\tLN:1000000\n@RG\tID:g1\tPU:unit7\tSM:s\n@RG\tID:g2\tSM:t\n"
    "@RG\tID:g3\tPU:unit7\tDS:model=fast xrunid=no runid=fromds x=1\n";

struct Read {
    std::string title, bases, qualities, tags;
    std::string fields;  // "read id|comment|run id" as the record found them
};

std::string Unaligned(const std::string& name, const std::string& bases, const std::string& qualities,
                      const std::string& tags = "") {
    return name + "\t4\t*\t0\t0\t*\t*\t0\t0\t" + bases + "\t" + qualities + (tags.empty() ? "" : "\t" + tags) + "\n";
}

class BamReaderTest : public ::testing::Test {
protected:
    BamReaderTest() : root_(TestSupport::UniqueTempPath("vb-bamin")) { fs::create_directories(root_); }
    ~BamReaderTest() override { fs::remove_all(root_); }

    std::string Make(const std::string& name, const std::string& records) const {
        const std::string path = (root_ / name).string();
        HtslibFiles::WriteAlignments(path, kHeader + records);
        return path;
    }
    // Every read, how the iteration ended, and the records skipped.
    static std::vector<Read> ReadAll(const std::string& path, std::string* error = nullptr,
                                     uint64_t* skipped = nullptr) {
        BamIterable reads(path, 2);
        std::vector<Read> out;
        for (reads.Begin(); !reads.AtEnd(); reads.Increment()) {
            const FastQRecord& r = reads.Record();
            const std::string fields =
                std::string(r.ReadId()) + "|" + std::string(r.Comment()) + "|" + std::string(r.RunId());
            out.push_back({r.title, r.sequence, r.qstring, r.tags.value_or("(none)"), fields});
        }
        if (error != nullptr) *error = reads.Error();
        if (skipped != nullptr) *skipped = reads.Skipped();
        return out;
    }

    fs::path root_;
};

// The run id comes from the comment (CO), else a runid= field of the read
// group's DS, else the ri tag, else the read group's PU; the title is
// composed from them; the tags come through byte for byte.
TEST_F(BamReaderTest, FieldsAndTitlesByTheDocumentedRule) {
    const std::string records = Unaligned("r1", "ACGT", "!#%'", "CO:Z:runid=fromco ch=5\tri:Z:fromtag\tRG:Z:g1") +
                                Unaligned("r2", "ACGTA", "IIIII", "ri:Z:fromtag\tRG:Z:g1\txq:i:-3") +
                                Unaligned("r3", "A", "5", "RG:Z:g1") + Unaligned("r4", "CC", "55", "RG:Z:g2") +
                                Unaligned("r5", "GGT", "*") + Unaligned("r6", "T", "5", "ri:Z:fromtag\tRG:Z:g3") +
                                Unaligned("r7", "T", "5", "CO:Z:ch=1\tRG:Z:g3") +
                                Unaligned("r8", "T", "5", "CO:Z:runid=fromco\tRG:Z:g3");
    const std::vector<std::string> titles = {
        "@r1 runid=fromco ch=5", "@r2 runid=fromtag",     "@r3 runid=unit7", "@r4", "@r5",
        "@r6 runid=fromds",      "@r7 ch=1 runid=fromds", "@r8 runid=fromco"};
    const std::string none = kInvalidRunId;
    const std::vector<std::string> fields = {"r1|runid=fromco ch=5|fromco",
                                             "r2||fromtag",
                                             "r3||unit7",
                                             "r4||" + none,
                                             "r5||" + none,
                                             "r6||fromds",
                                             "r7|ch=1|fromds",
                                             "r8|runid=fromco|fromco"};
    // CRAM input is checked end to end (tests/e2e): htslib's CRAM writer
    // leaks a block, which the sanitizer build would report here.
    for (const char* name : {"in.sam", "in.bam"}) {
        const std::string path = Make(name, records);
        const auto reference = HtslibFiles::ReadAlignments(path);
        std::string error;
        const auto reads = ReadAll(path, &error);
        EXPECT_EQ(error, "") << name;
        ASSERT_EQ(reads.size(), titles.size()) << name;
        for (size_t k = 0; k < reads.size(); ++k) {
            EXPECT_EQ(reads[k].title, titles[k]) << name;
            EXPECT_EQ(reads[k].fields, fields[k]) << name;
            EXPECT_EQ(reads[k].bases, reference.records[k].bases) << name;
            EXPECT_EQ(reads[k].tags, reference.records[k].aux) << name << " " << titles[k];
        }
        EXPECT_EQ(reads[1].qualities, "IIIII");
        EXPECT_EQ(reads[4].qualities, std::string(3, kMissingQuality)) << "stored without qualities";
    }
}

// Mapped records of either strand, between secondary and supplementary ones:
// every read comes out in its own orientation, against a plain reverse
// complement; alignment tags go, and per-base tags with a turned record.
TEST_F(BamReaderTest, MappedRecordsComeBackInReadOrientation) {
    std::mt19937 rng(404);
    std::string records;
    std::vector<Read> expected;
    std::vector<bool> reversed;
    uint64_t extra = 0;
    for (int k = 0; k < 200; ++k) {
        const size_t length = 1 + rng() % 300;
        std::string bases, qualities;
        for (size_t i = 0; i < length; ++i) {
            bases += "ACGT"[rng() % 4];
            qualities += static_cast<char>('!' + rng() % 60);
        }
        const bool reverse = rng() % 2 == 0;
        const std::string name = "m" + std::to_string(k);
        const std::string stored = reverse ? TestSupport::ReverseComplement(bases) : bases;
        const std::string stored_q = reverse ? std::string(qualities.rbegin(), qualities.rend()) : qualities;
        records += name + "\t" + (reverse ? "16" : "0") + "\tchr1\t" + std::to_string(100 + k) + "\t60\t" +
                   std::to_string(length) + "M\t*\t0\t0\t" + stored + "\t" + stored_q + "\tNM:i:0\tOQ:Z:" + stored_q +
                   "\tMM:Z:C+m?;\tri:Z:run\tAS:i:7\n";
        expected.push_back({"@" + name + " runid=run", bases, qualities, "", name + "||run"});
        reversed.push_back(reverse);
        if (rng() % 3 == 0) {
            records += name + "\t" + (rng() % 2 ? "256" : "2064") + "\tchr1\t5\t0\t" + std::to_string(length) +
                       "M\t*\t0\t0\t" + stored + "\t" + stored_q + "\n";
            ++extra;
        }
    }
    std::string error;
    uint64_t skipped = 0;
    const auto reads = ReadAll(Make("mapped.bam", records), &error, &skipped);
    EXPECT_EQ(error, "");
    EXPECT_EQ(skipped, extra);
    ASSERT_EQ(reads.size(), expected.size());
    for (size_t k = 0; k < reads.size(); ++k) {
        ASSERT_EQ(reads[k].title, expected[k].title);
        ASSERT_EQ(reads[k].fields, expected[k].fields);
        ASSERT_EQ(reads[k].bases, expected[k].bases) << reads[k].title;
        ASSERT_EQ(reads[k].qualities, expected[k].qualities) << reads[k].title;
        std::string expected_tags;
        if (!reversed[k]) AppendTextTag(expected_tags, "OQ", expected[k].qualities);
        AppendTextTag(expected_tags, "MM", "C+m?;");
        AppendTextTag(expected_tags, "ri", "run");
        ASSERT_EQ(reads[k].tags, expected_tags) << reads[k].title;
    }
}

// A record that cannot be a FASTQ record ends the file where it stands; the
// reads before it are kept, and the error names the record.
TEST_F(BamReaderTest, BadRecordsAndDamagedFilesEndTheFileWithAReason) {
    const std::string path = Make("bad.bam", Unaligned("ok1", "ACGT", "IIII") + Unaligned("ok2", "AC", "II") +
                                                 Unaligned("bad", "ACNT", "IIII") + Unaligned("after", "A", "I"));
    std::string error;
    const auto reads = ReadAll(path, &error);
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(error, "record 3 ('bad'): unexpected base 'N' at position 2");

    std::string many;
    for (int k = 0; k < 3000; ++k)
        many += Unaligned("r" + std::to_string(k), std::string(200, "ACGT"[k % 4]), std::string(200, 'I'));
    const std::string whole = Make("whole.bam", many);
    fs::resize_file(whole, fs::file_size(whole) / 2);
    const auto partial = ReadAll(whole, &error);
    EXPECT_LT(partial.size(), 3000u);
    EXPECT_TRUE(error.find("damaged or truncated data after record") != std::string::npos ||
                error.find("the file is truncated") != std::string::npos)
        << error;
    // Cut at a block boundary, the records read to a clean end: the missing
    // end-of-file marker still tells.
    const std::string cut = Make("cut.bam", many);
    fs::resize_file(cut, fs::file_size(cut) - 28);
    const auto all = ReadAll(cut, &error);
    EXPECT_EQ(all.size(), 3000u);
    EXPECT_EQ(error, "no end-of-file marker after record 3000: the file is truncated");

    EXPECT_TRUE(TestSupport::Holds(TestSupport::ErrorOf([&] { BamIterable((root_ / "none.bam").string(), 1); }),
                                   "Could not open input file '"));
}

TEST_F(BamReaderTest, ReadGroupLines) {
    const std::string path = Make("groups.bam", Unaligned("r", "A", "I"));
    EXPECT_EQ(ReadGroupLines(path),
              (std::vector<std::string>{"@RG\tID:g1\tPU:unit7\tSM:s", "@RG\tID:g2\tSM:t",
                                        "@RG\tID:g3\tPU:unit7\tDS:model=fast xrunid=no runid=fromds x=1"}));
}

}  // namespace
}  // namespace Common
