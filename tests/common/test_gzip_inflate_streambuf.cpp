#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/gzip_inflate_streambuf.h"
#include "tests/common/gzip_test_support.h"

namespace fs = std::filesystem;
using namespace TestSupport;

namespace {

struct Read {
    std::string text;
    std::string error;  // the exception that ended reading, if any
};

// Reads with sizes below and above the stream buffer's own areas, so that
// both the buffered and the in-place paths are taken.
Read ReadAll(const fs::path& path, std::mt19937& rng) {
    static const size_t kSizes[] = {1, 777, 100'000, 300'000, 3 << 20};
    Common::GzipInflateStreambuf buffer(path.string());
    Read read;
    std::vector<char> chunk(3 << 20);
    try {
        for (;;) {
            const std::streamsize n = buffer.sgetn(chunk.data(), static_cast<std::streamsize>(kSizes[rng() % 5]));
            if (n <= 0) break;
            read.text.append(chunk.data(), static_cast<size_t>(n));
        }
    } catch (const std::runtime_error& e) {
        read.error = e.what();
        // The error sticks: a later read does not pretend the data went on.
        EXPECT_THROW(buffer.sgetn(chunk.data(), 10), std::runtime_error);
    }
    return read;
}

// Members of assorted sizes: empty, smaller than the buffers, and larger than
// both the output area and the compressed input block.
std::string RandomMemberText(std::mt19937& rng) {
    switch (rng() % 6) {
        case 0:
            return "";
        case 1:
        case 2:
            return RandomLines(rng, rng() % 2000, 80);
        case 3:
        case 4:
            return RandomLines(rng, 50'000 + rng() % 400'000, 5000);
        default:
            return RandomLines(rng, 2'500'000 + rng() % 1'000'000, 12'000);
    }
}

struct MultiMember {
    std::string text;
    std::string gzip;
    std::vector<size_t> member_starts;  // offsets in `gzip`
    std::vector<size_t> text_ends;      // text inflated once member i is done
};

MultiMember MakeMembers(std::mt19937& rng, int members) {
    MultiMember file;
    for (int i = 0; i < members; ++i) {
        const std::string text = RandomMemberText(rng);
        file.member_starts.push_back(file.gzip.size());
        file.gzip += Gzip(text, text.size() > 1'000'000 ? 1 : 1 + static_cast<int>(rng() % 9), rng() % 3 == 0);
        file.text += text;
        file.text_ends.push_back(file.text.size());
    }
    return file;
}

// gzip itself stores the file name in the header; `cat a.gz b.gz` is how
// users join files.
TEST(GzipInflateStreambuf, ReadsWhatTheGzipCommandWrites) {
    std::mt19937 rng(5);
    const std::string text = RandomLines(rng, 700'000, 3000);
    const fs::path plain = TempFile("cmd.fastq");
    const fs::path packed = TempFile("cmd.fastq.gz");
    WriteFile(plain, text);
    const std::string command = "gzip -c -1 '" + plain.string() + "' > '" + packed.string() + "' && gzip -c '" +
                                plain.string() + "' >> '" + packed.string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const Read read = ReadAll(packed, rng);
    EXPECT_EQ(read.error, "");
    EXPECT_TRUE(read.text == text + text);
    fs::remove(plain);
    fs::remove(packed);
}

TEST(GzipInflateStreambuf, CorruptMemberIsReportedWhereItIs) {
    std::mt19937 rng(31);
    const fs::path path = TempFile("corrupt.gz");
    struct Damage {
        const char* name;
        const char* reason;
        bool member_text_delivered;  // its data inflates before the check fails
    };
    const Damage kinds[] = {
        {"crc", "CRC-32 or length of the member does not match its data", true},
        {"size", "CRC-32 or length of the member does not match its data", true},
        {"method", "unsupported compression method", false},
        {"block type", "invalid deflate block", false},
    };
    for (int round = 0; round < 16; ++round) {
        const Damage& damage = kinds[round % 4];
        MultiMember file = MakeMembers(rng, 3);
        const size_t member = rng() % 3;
        const size_t start = file.member_starts[member];
        const size_t end = member + 1 < 3 ? file.member_starts[member + 1] : file.gzip.size();
        size_t at = 0;
        std::string name = damage.name;
        if (name == "crc") at = end - 8;
        if (name == "size") at = end - 4;
        if (name == "method") at = start + 2;
        if (name == "block type") at = start + 10;  // zlib writes no optional header fields here
        if (name == "block type" && (static_cast<unsigned char>(file.gzip[start + 3]) != 0)) continue;
        if (name == "block type") {
            file.gzip[at] = static_cast<char>(file.gzip[at] | 0x06);  // BTYPE 11 is reserved
        } else {
            file.gzip[at] = static_cast<char>(file.gzip[at] ^ 0x01);
        }
        WriteFile(path, file.gzip);
        const Read read = ReadAll(path, rng);
        SCOPED_TRACE(std::string(damage.name) + " in member " + std::to_string(member));
        const size_t delivered = damage.member_text_delivered ? file.text_ends[member]
                                 : member == 0                ? 0
                                                              : file.text_ends[member - 1];
        ASSERT_EQ(read.text.size(), delivered);
        EXPECT_TRUE(read.text == file.text.substr(0, delivered));
        const std::string prefix = "'" + path.string() + "': gzip data is corrupt at compressed byte ";
        ASSERT_EQ(read.error.compare(0, prefix.size(), prefix), 0) << read.error;
        EXPECT_NE(read.error.find(std::string("(") + damage.reason + ")"), std::string::npos) << read.error;
        // The reported place is the damaged byte or a few bytes past it.
        const size_t reported = std::stoul(read.error.substr(prefix.size()));
        EXPECT_LE(at, reported + 8);
        EXPECT_LE(reported, end);
    }
    fs::remove(path);
}

// Whole files, files cut anywhere (headers and trailers included) and files
// with any byte flipped: we deliver exactly what zlib inflates from them, and
// report damage where zlib finds it (a cut with the file's name and size);
// where zlib finds none (time stamps, flags) we read the whole text too.
TEST(GzipInflateStreambuf, DeliversWhatZlibDeliversWholeCutOrDamaged) {
    std::mt19937 rng(4242);
    const fs::path path = TempFile("flipped.gz");
    int damaged = 0;
    for (int round = 0; round < 60; ++round) {
        MultiMember file = MakeMembers(rng, 1 + static_cast<int>(rng() % 4));
        const int kind = round % 3;  // whole, cut, flipped
        const size_t at = rng() % file.gzip.size();
        if (kind == 1) file.gzip.resize(std::max<size_t>(at, 1));
        if (kind == 2) file.gzip[at] = static_cast<char>(file.gzip[at] ^ (1 + rng() % 255));
        WriteFile(path, file.gzip);
        const Read read = ReadAll(path, rng);
        const Inflated reference = Gunzip(file.gzip);
        SCOPED_TRACE("round " + std::to_string(round) + ", byte " + std::to_string(at));
        EXPECT_EQ(read.error.empty(), reference.complete) << read.error;
        if (kind == 2 && !reference.complete) {
            // How far zlib gets into a damaged block before it notices depends
            // on how its input arrives: the same text, give or take one match.
            const size_t common = std::min(read.text.size(), reference.text.size());
            EXPECT_LE(std::max(read.text.size(), reference.text.size()) - common, 258u);
            EXPECT_EQ(read.text.compare(0, common, reference.text, 0, common), 0);
        } else {
            EXPECT_EQ(read.text.size(), reference.text.size());
            EXPECT_TRUE(read.text == reference.text);
        }
        if (kind == 0) {
            EXPECT_TRUE(reference.complete && read.text == file.text);
        }
        if (kind == 1 && !reference.complete) {
            EXPECT_EQ(read.error, "'" + path.string() + "': gzip data is truncated after " +
                                      std::to_string(file.gzip.size()) + " compressed bytes");
        }
        damaged += kind == 2 && !reference.complete ? 1 : 0;
    }
    EXPECT_GT(damaged, 10);
    fs::remove(path);
}

// After the last member gzip ignores zero padding silently and other bytes
// with a warning; bytes that may start a member must be one.
TEST(GzipInflateStreambuf, BytesAfterTheLastMember) {
    std::mt19937 rng(3);
    const std::string text = RandomLines(rng, 10'000, 100);
    const std::string member = Gzip(text);
    const fs::path path = TempFile("trailing.gz");
    const std::string where = "'" + path.string() + "': ";
    struct Case {
        std::string file;
        std::string text;
        std::string error;
        std::string warning;
    };
    const std::string garbage_warning =
        where + "ignored 7 bytes after the last gzip member, from compressed byte " + std::to_string(member.size());
    const Case cases[] = {
        {member + std::string(5000, '\0'), text, "", ""},
        {member + "garbage", text, "", garbage_warning},
        {member + std::string(3, '\0') + "\x1f\x8b" + "xx", text, "", garbage_warning},
        {member + "\x1f\x8b" + "xxxxxxxxxxxxxxxx", text,
         where + "gzip data is corrupt at compressed byte " + std::to_string(member.size()) +
             " (unsupported compression method)",
         ""},
        {member + "\x1f", text,
         where + "gzip data is truncated after " + std::to_string(member.size() + 1) + " compressed bytes", ""},
        {member + "\x1f\x8b\x08", text,
         where + "gzip data is truncated after " + std::to_string(member.size() + 3) + " compressed bytes", ""},
        {"", "", where + "gzip data is truncated after 0 compressed bytes", ""},
        {text, "", where + "gzip data is corrupt at compressed byte 0 (not in gzip format)", ""},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i));
        WriteFile(path, c.file);
        Read read;
        const std::string log = CapturingLog([&] { read = ReadAll(path, rng); });
        EXPECT_TRUE(read.text == c.text);
        EXPECT_EQ(read.error, c.error);
        if (c.warning.empty()) {
            EXPECT_EQ(log, "");
        } else {
            EXPECT_NE(log.find(c.warning), std::string::npos) << log;
        }
    }
    fs::remove(path);
    EXPECT_THROW(Common::GzipInflateStreambuf(path.string()), std::runtime_error);
}

}  // namespace
