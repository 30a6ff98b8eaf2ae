#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/gzip_inflate_streambuf.h"
#include "common/gzip_member_writer.h"
#include "tests/common/gzip_test_support.h"
#include "tests/support/error_of.h"
#include "tests/support/temp_folder.h"

using namespace TestSupport;

namespace {

struct Read {
    std::string text;
    std::string error;  // the exception that ended reading, if any
};

// Reads with sizes below and above the stream buffer's own areas, so that both the buffered and the in-place
// paths are taken.
Read ReadAll(const std::string& path, std::mt19937& rng) {
    static const std::streamsize kSizes[] = {1, 777, 100'000, 300'000, 3 << 20};
    Common::GzipInflateStreambuf buffer(path);
    Read read;
    std::vector<char> chunk(3 << 20);
    try {
        for (std::streamsize n; (n = buffer.sgetn(chunk.data(), kSizes[rng() % 5])) > 0;)
            read.text.append(chunk.data(), static_cast<size_t>(n));
    } catch (const std::runtime_error& e) {
        read.error = e.what();
        // The error sticks: a later read does not pretend the data went on.
        EXPECT_THROW(buffer.sgetn(chunk.data(), 10), std::runtime_error);
    }
    return read;
}

// Empty, smaller than the buffers, larger than both the output area and the compressed input block, and bytes
// that do not compress at all (the writer's output outgrows its first guess).
std::string RandomMemberText(std::mt19937& rng) {
    const unsigned kind = rng() % 7;
    if (kind == 0) return "";
    if (kind <= 2) return RandomLines(rng, rng() % 2000, 80);
    if (kind <= 4) return RandomLines(rng, 50'000 + rng() % 400'000, 5000);
    if (kind == 6) return RandomLines(rng, 2'500'000 + rng() % 1'000'000, 12'000);
    std::string noise(rng() % 300'000, '\0');
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(rng()); });
    return noise;
}

struct MultiMember {
    std::string text;
    std::string gzip;
    std::vector<size_t> member_starts;  // offsets in gzip
};

// Members from zlib (any level, some with a name and a header CRC) and from our writer (every level it has,
// one writer reused, appending to what is there).
MultiMember MakeMembers(std::mt19937& rng, int members) {
    MultiMember file;
    Common::GzipMemberWriter writer(static_cast<int>(rng() % 4));
    for (int i = 0; i < members; ++i) {
        const std::string text = RandomMemberText(rng);
        file.member_starts.push_back(file.gzip.size());
        if (rng() % 2) {
            writer.Append(text, file.gzip);
        } else {
            file.gzip += Gzip(text, text.size() > 1'000'000 ? 1 : 1 + static_cast<int>(rng() % 9), rng() % 3 == 0);
        }
        file.text += text;
    }
    return file;
}

}  // namespace

// Whole files, files cut anywhere (headers and trailers included), files with any byte flipped and files with a
// chosen field damaged: we deliver exactly what zlib inflates from them, and report damage where zlib finds it
// (a cut with the file's name and size, a damaged field with the reason and its place); where zlib finds none
// (time stamps, flags) we read the whole text too.
TEST(GzipInflateStreambuf, DeliversWhatZlibDeliversWholeCutOrDamaged) {
    std::mt19937 rng(4242);
    TempFolder dir;
    const char* checksum = "CRC-32 or length of the member does not match its data";
    const struct {
        int at;  // from the member's end when negative, else from its start
        const char* reason;
    } fields[] = {{-8, checksum}, {-4, checksum}, {2, "unsupported compression method"}, {10, "invalid deflate block"}};
    int damaged = 0;
    for (int round = 0; round < 80; ++round) {
        MultiMember file = MakeMembers(rng, 1 + static_cast<int>(rng() % 4));
        const int kind = round % 4;  // whole, cut, flipped, field
        const auto& field = fields[round / 4 % 4];
        const size_t member = rng() % file.member_starts.size(), start = file.member_starts[member];
        const size_t end = member + 1 < file.member_starts.size() ? file.member_starts[member + 1] : file.gzip.size();
        if (kind == 3 && field.at == 10 && file.gzip[start + 3] != 0) continue;  // optional header fields come first
        const size_t at = kind < 3       ? rng() % file.gzip.size()
                          : field.at < 0 ? end - static_cast<size_t>(-field.at)
                                         : start + static_cast<size_t>(field.at);
        if (kind == 1) file.gzip.resize(std::max<size_t>(at, 1));
        if (kind == 2) file.gzip[at] = static_cast<char>(file.gzip[at] ^ (1 + rng() % 255));
        // The first block header gets the reserved block type.
        if (kind == 3) file.gzip[at] = static_cast<char>(field.at == 10 ? file.gzip[at] | 0x06 : file.gzip[at] ^ 0x01);
        const std::string path = dir.Write("damaged.gz", file.gzip);
        const Read read = ReadAll(path, rng);
        const Inflated reference = Gunzip(file.gzip);
        SCOPED_TRACE("round " + std::to_string(round) + ", byte " + std::to_string(at));
        EXPECT_EQ(read.error.empty(), reference.complete) << read.error;
        // How far zlib gets into a damaged block before it notices depends on how its input arrives: for a flipped
        // byte, the same text give or take one match.
        const size_t common = std::min(read.text.size(), reference.text.size());
        EXPECT_LE(std::max(read.text.size(), reference.text.size()) - common, kind == 2 ? 258u : 0u);
        EXPECT_EQ(read.text.compare(0, common, reference.text, 0, common), 0);
        EXPECT_TRUE(kind != 0 || (reference.complete && read.text == file.text));
        if (kind == 1 && !reference.complete) {
            EXPECT_EQ(read.error, "'" + path + "': gzip data is truncated after " + std::to_string(file.gzip.size()) +
                                      " compressed bytes");
        }
        if (kind == 3) {
            const std::string prefix = "'" + path + "': gzip data is corrupt at compressed byte ";
            ASSERT_EQ(read.error.compare(0, prefix.size(), prefix), 0) << read.error;
            EXPECT_TRUE(Holds(read.error, std::string("(") + field.reason + ")")) << read.error;
            // The reported place is the damaged byte or a few bytes past it.
            const size_t reported = std::stoul(read.error.substr(prefix.size()));
            EXPECT_LE(at, reported + 8);
            EXPECT_LE(reported, end);
        }
        damaged += kind >= 2 && !reference.complete ? 1 : 0;
    }
    EXPECT_GT(damaged, 25);
    EXPECT_THROW(Common::GzipMemberWriter(-1), std::invalid_argument);
    EXPECT_THROW(Common::GzipMemberWriter(4), std::invalid_argument);
}

// After the last member gzip ignores zero padding silently and other bytes with a warning; bytes that may start
// a member must be one.
TEST(GzipInflateStreambuf, BytesAfterTheLastMember) {
    std::mt19937 rng(3);
    const std::string text = RandomLines(rng, 10'000, 100);
    const std::string member = Gzip(text);
    TempFolder dir;
    const std::string path = dir.Path() + "/trailing.gz", where = "'" + path + "': ";
    const std::string garbage =
        where + "ignored 7 bytes after the last gzip member, from compressed byte " + std::to_string(member.size());
    const std::string corrupt = where + "gzip data is corrupt at compressed byte " + std::to_string(member.size()) +
                                " (unsupported compression method)";
    const auto truncated = [&](size_t size) {
        return where + "gzip data is truncated after " + std::to_string(size) + " compressed bytes";
    };
    const struct {
        std::string tail, error, warning;  // after the member
    } cases[] = {
        {std::string(5000, '\0'), "", ""},
        {"garbage", "", garbage},
        {std::string(3, '\0') + "\x1f\x8b" + "xx", "", garbage},
        {"\x1f\x8b" + std::string(16, 'x'), corrupt, ""},
        {"\x1f", truncated(member.size() + 1), ""},
        {"\x1f\x8b\x08", truncated(member.size() + 3), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error + c.warning);
        dir.Write("trailing.gz", member + c.tail);
        Read read;
        const std::string log = CapturingLog([&] { read = ReadAll(path, rng); });
        EXPECT_TRUE(read.text == text);
        EXPECT_EQ(read.error, c.error);
        EXPECT_TRUE(c.warning.empty() ? log.empty() : Holds(log, c.warning)) << log;
    }
    dir.Write("trailing.gz", "");
    EXPECT_EQ(ReadAll(path, rng).error, truncated(0));
}
