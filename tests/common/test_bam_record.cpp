// BAM records, tags, BGZF blocks and headers as this program writes them,
// read back by htslib; tag editing against a plain list of fields.

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "common/bam_header.h"
#include "common/bam_record.h"
#include "common/bgzf_blocks.h"
#include "tests/common/htslib_files.h"
#include "tests/support/temp_folder.h"

namespace Common {
namespace {

namespace fs = std::filesystem;

// One tag field as the test knows it: the reference the aux bytes are
// checked against.
struct Field {
    std::string tag;
    char type;
    std::string value;  // the bytes after the type, as stored
};

std::string Encode(const std::vector<Field>& fields) {
    std::string aux;
    for (const auto& field : fields)
        aux += field.tag + field.type + field.value;
    return aux;
}

std::string RandomText(std::mt19937& rng, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i)
        text += static_cast<char>('!' + rng() % 94);
    return text;
}

// Every value type: fixed sizes with random bytes, text and hex ended by NUL,
// arrays of each element type.
Field RandomField(std::mt19937& rng) {
    static const char* const kTags[] = {"ar", "CO", "MM", "ML", "OQ", "NM", "ri", "RG", "xy", "Zq"};
    static const std::string kTypes = "AcCsSiIfZHB";
    static const size_t kSizes[] = {1, 1, 1, 2, 2, 4, 4, 4};
    auto bytes = [&](size_t n) {
        std::string value;
        for (size_t i = 0; i < n; ++i)
            value += static_cast<char>(rng() % 256);
        return value;
    };
    Field field{kTags[rng() % 10], kTypes[rng() % kTypes.size()], ""};
    const size_t type = kTypes.find(field.type);
    if (type < 8) {
        field.value = field.type == 'A' ? RandomText(rng, 1) : bytes(kSizes[type]);
    } else if (field.type == 'Z') {
        field.value = RandomText(rng, rng() % 12) + '\0';
    } else if (field.type == 'H') {
        for (size_t i = rng() % 6; i > 0; --i)
            field.value += "0123456789ABCDEF"[rng() % 16];
        field.value += '\0';
    } else {
        const size_t element = 1 + rng() % 7;  // "cCsSiIf"
        const uint32_t count = rng() % 5;
        field.value = std::string(1, kTypes[element]);
        field.value.append(reinterpret_cast<const char*>(&count), 4);
        field.value += bytes(count * kSizes[element]);
    }
    return field;
}

std::vector<Field> RandomFields(std::mt19937& rng) {
    std::vector<Field> fields;
    for (size_t n = rng() % 7; n > 0; --n)
        fields.push_back(RandomField(rng));
    return fields;
}

// Tag editing agrees with editing the list of fields, and no cut inside a
// field passes for whole tags.
TEST(BamTags, EditingMatchesTheFieldList) {
    std::mt19937 rng(5150);
    for (int trial = 0; trial < 2000; ++trial) {
        const auto fields = RandomFields(rng);
        const std::string aux = Encode(fields);
        ASSERT_TRUE(ValidAux(aux));

        std::vector<size_t> boundaries = {0};
        for (const auto& field : fields)
            boundaries.push_back(boundaries.back() + 3 + field.value.size());
        for (size_t k = 0; k + 1 < boundaries.size(); ++k)
            ASSERT_EQ(AuxFieldSize(aux, boundaries[k]), boundaries[k + 1] - boundaries[k]);
        for (size_t cut = 0; cut <= aux.size(); ++cut) {
            const bool boundary = std::find(boundaries.begin(), boundaries.end(), cut) != boundaries.end();
            ASSERT_EQ(ValidAux(std::string_view(aux).substr(0, cut)), boundary) << trial << " cut " << cut;
        }

        for (const char* tag : {"CO", "ar", "RG"}) {
            std::optional<std::string> expected;
            for (const auto& field : fields) {
                if (field.tag != tag) continue;
                if (field.type == 'Z') expected = field.value.substr(0, field.value.size() - 1);
                break;
            }
            const auto found = FindTextTag(aux, tag);
            ASSERT_EQ(found.has_value(), expected.has_value());
            if (expected) {
                ASSERT_EQ(std::string(*found), *expected);
            }
        }

        const std::vector<std::string_view> removed = {"MM", "ar", "OQ"};
        std::vector<Field> kept;
        for (const auto& field : fields) {
            if (std::find(removed.begin(), removed.end(), field.tag) == removed.end()) kept.push_back(field);
        }
        std::string edited = aux;
        RemoveTags(edited, removed);
        ASSERT_EQ(edited, Encode(kept));
    }
}

TEST(BamTags, TextTagsHoldNoControlCharacters) {
    std::string aux;
    AppendTextTag(aux, "CO", "runid=r1\tch=5\nx\x7fy");
    EXPECT_EQ(aux, std::string("COZrunid=r1 ch=5 x y\0", 21));
    EXPECT_EQ(std::string(*FindTextTag(aux, "CO")), "runid=r1 ch=5 x y");
}

TEST(BamRecord, ReadNamesTheFormatCannotHoldAreRefused) {
    for (const char* good : {"r", "4141a60b-f7f1-40fa-b8d0-df326a46ffb8", "a@b", "x:y/1"})
        EXPECT_TRUE(ValidBamReadName(good)) << good;
    for (const std::string& bad : {std::string(), std::string("@r"), std::string("a b"), std::string("a\tb"),
                                   std::string(255, 'r'), std::string("caf\xc3\xa9")})
        EXPECT_FALSE(ValidBamReadName(bad)) << bad;
    std::string out;
    EXPECT_THROW(AppendBamRecord(out, "a b", "ACGT", "!!!!", {}), std::runtime_error);
    EXPECT_TRUE(out.empty());
}

class BamFileTest : public ::testing::Test {
protected:
    BamFileTest() : root_(TestSupport::UniqueTempPath("vb-bam")) { fs::create_directories(root_); }
    ~BamFileTest() override { fs::remove_all(root_); }
    std::string Write(const std::string& name, const std::string& bytes) const {
        const std::string path = (root_ / name).string();
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    fs::path root_;
};

// Random records (empty, odd-length, longer than a BGZF block, U bases), cut
// into chunks at random record ends and compressed chunk by chunk as the
// workers do: htslib reads back every field and tag byte for byte.
TEST_F(BamFileTest, HtslibReadsBackWhatWasEncoded) {
    std::mt19937 rng(77);
    struct Expected {
        std::string name, bases, qualities, aux;
    };
    std::vector<Expected> expected;
    std::vector<std::string> chunks(1);
    for (int k = 0; k < 300; ++k) {
        const size_t length = k == 7 ? 70000 + rng() % 5000 : k % 50 == 0 ? 0 : 1 + rng() % 400;
        Expected read;
        read.name = "read" + std::to_string(k) + RandomText(rng, rng() % 5);
        if (read.name.find(' ') != std::string::npos) read.name = "read" + std::to_string(k);
        std::string bases;
        for (size_t i = 0; i < length; ++i)
            bases += "ACGTU"[rng() % 5];
        read.qualities = RandomText(rng, length);
        read.aux = Encode(RandomFields(rng));
        AppendBamRecord(chunks.back(), read.name, bases, read.qualities, read.aux);
        std::replace(bases.begin(), bases.end(), 'U', 'T');
        read.bases = bases;
        expected.push_back(read);
        if (rng() % 20 == 0) chunks.emplace_back();
    }
    const std::string text = BamHeaderText({"@RG\tID:a\tPU:run1"}, "9.9", "prog -i in");
    std::string file = EncodeBamHeader(text);
    for (const auto& chunk : chunks)
        AppendBgzfBlocks(chunk, file, kBamCompressionLevel);
    file += BgzfEofBlock();

    const auto read = HtslibFiles::ReadAlignments(Write("out.bam", file));
    EXPECT_EQ(read.header, text);
    ASSERT_EQ(read.records.size(), expected.size());
    for (size_t k = 0; k < expected.size(); ++k) {
        const auto& got = read.records[k];
        ASSERT_EQ(got.name, expected[k].name);
        ASSERT_EQ(got.flag, 4);
        ASSERT_EQ(got.bases, expected[k].bases) << got.name;
        ASSERT_EQ(got.qualities, expected[k].qualities) << got.name;
        ASSERT_EQ(got.aux, expected[k].aux) << got.name;
    }
}

// Every block is a gzip member whose "BC" field gives its size and whose
// data inflates (zlib as the reference) back to the input; data that does
// not compress (random bytes) is stored and still fits a block.
TEST(Bgzf, BlocksCarryTheirSizeAndInflateBack) {
    std::mt19937 rng(5);
    for (int kind = 0; kind < 3; ++kind) {
        std::string data;
        const size_t length = kind == 0 ? 1 : 200000 + rng() % 70000;
        for (size_t i = 0; i < length; ++i)
            data += kind == 2 ? static_cast<char>(rng()) : "ACGT\n"[rng() % 5];
        std::string blocks;
        AppendBgzfBlocks(data, blocks, kBamCompressionLevel);
        std::string inflated;
        size_t at = 0, count = 0;
        while (at < blocks.size()) {
            ASSERT_GE(blocks.size() - at, 26u);
            ASSERT_EQ(blocks.compare(at, 4, "\x1f\x8b\x08\x04"), 0);
            ASSERT_EQ(blocks.compare(at + 12, 2, "BC"), 0);
            const size_t size =
                1 + (static_cast<unsigned char>(blocks[at + 16]) | static_cast<unsigned char>(blocks[at + 17]) << 8);
            ASSERT_LE(at + size, blocks.size());
            z_stream stream{};
            ASSERT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
            stream.next_in = reinterpret_cast<Bytef*>(blocks.data() + at);
            stream.avail_in = static_cast<uInt>(size);
            std::string out(0x10000, '\0');
            stream.next_out = reinterpret_cast<Bytef*>(out.data());
            stream.avail_out = static_cast<uInt>(out.size());
            ASSERT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
            EXPECT_EQ(stream.avail_in, 0u);  // the size field ends the member exactly
            inflated.append(out.data(), out.size() - stream.avail_out);
            inflateEnd(&stream);
            at += size;
            ++count;
        }
        EXPECT_EQ(inflated, data) << kind;
        EXPECT_EQ(count, (data.size() + 0xff00 - 1) / 0xff00) << kind;
    }
}

TEST(BamHeader, ReadGroupsOnceEachAndThisProgramLast) {
    std::vector<std::string> merged;
    EXPECT_TRUE(MergeReadGroups(merged, {"@RG\tID:a\tPU:r1", "@RG\tID:b\tPU:r2"}, "one.bam").empty());
    EXPECT_TRUE(MergeReadGroups(merged, {"@RG\tID:b\tPU:r2", "@RG\tID:c"}, "two.bam").empty());
    const auto warnings = MergeReadGroups(merged, {"@RG\tID:a\tPU:other"}, "three.bam");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("'a' of three.bam"), std::string::npos) << warnings[0];
    EXPECT_EQ(merged, (std::vector<std::string>{"@RG\tID:a\tPU:r1", "@RG\tID:b\tPU:r2", "@RG\tID:c"}));

    EXPECT_EQ(BamHeaderText(merged, "1.2", "prog\t-s 'a b'"),
              "@HD\tVN:1.6\tSO:unsorted\n@RG\tID:a\tPU:r1\n@RG\tID:b\tPU:r2\n@RG\tID:c\n"
              "@PG\tID:vorpa_barcoder\tPN:vorpa_barcoder\tVN:1.2\tCL:prog -s 'a b'\n");
    EXPECT_NE(ProcessCommandLine().find("test_common"), std::string::npos) << ProcessCommandLine();
}

}  // namespace
}  // namespace Common
