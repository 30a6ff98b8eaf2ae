#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/gzip_member_writer.h"
#include "tests/common/gzip_test_support.h"

namespace fs = std::filesystem;
using namespace TestSupport;

namespace {

// Batch-like texts: empty, tiny, and 64 KB to a few MB; now and then bytes
// that do not compress at all, so the output outgrows its first guess.
std::string RandomBatch(std::mt19937& rng) {
    switch (rng() % 5) {
        case 0:
            return rng() % 2 ? "" : "@r\nA\n+\nI\n";
        case 1: {
            std::string noise(rng() % 300'000, '\0');
            for (char& c : noise)
                c = static_cast<char>(rng());
            return noise;
        }
        case 2:
            return RandomLines(rng, 2'000'000 + rng() % 2'000'000, 10'000);
        default:
            return RandomLines(rng, 65'536 + rng() % 500'000, 3'000);
    }
}

}  // namespace

// Every member inflates alone to its text (zlib), the appended series to all
// texts in order (the gzip command).
TEST(GzipMemberWriter, MembersInflateWithZlibAndGzip) {
    std::mt19937 rng(8080);
    const fs::path path = TempFile("writer.gz");
    for (int level : {0, 1, 2, 3}) {
        Common::GzipMemberWriter writer(level);
        std::string out = "kept";
        std::string all;
        std::vector<size_t> starts;
        std::vector<std::string> texts;
        for (int i = 0; i < 6; ++i) {
            texts.push_back(RandomBatch(rng));
            starts.push_back(out.size());
            writer.Append(texts.back(), out);
            all += texts.back();
        }
        starts.push_back(out.size());
        SCOPED_TRACE("level " + std::to_string(level));
        ASSERT_EQ(out.substr(0, 4), "kept");
        for (size_t i = 0; i < texts.size(); ++i) {
            const Inflated member = Gunzip(std::string_view(out).substr(starts[i], starts[i + 1] - starts[i]));
            EXPECT_TRUE(member.complete) << i;
            EXPECT_TRUE(member.text == texts[i]) << i;
        }
        WriteFile(path, std::string_view(out).substr(4));
        const fs::path inflated_path = TempFile("writer.out");
        const std::string command = "gzip -dc '" + path.string() + "' > '" + inflated_path.string() + "'";
        ASSERT_EQ(std::system(command.c_str()), 0);
        EXPECT_TRUE(ReadFile(inflated_path) == all);
        fs::remove(inflated_path);
    }
    fs::remove(path);
}

TEST(GzipMemberWriter, RejectsLevelsIsalDoesNotHave) {
    EXPECT_THROW(Common::GzipMemberWriter(-1), std::invalid_argument);
    EXPECT_THROW(Common::GzipMemberWriter(4), std::invalid_argument);
}
