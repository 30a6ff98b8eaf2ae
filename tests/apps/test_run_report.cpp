// barcoding_report.json: workflows and QC tools parse it instead of the log,
// so its strings must always decode, its figures must add up and a reader
// must never find it half written.

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "apps/html_report.h"
#include "apps/run_report.h"
#include "tests/support/error_of.h"
#include "tests/support/temp_folder.h"

namespace fs = std::filesystem;

namespace {

// Appends code point cp as UTF-8.
void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// A strict JSON string decoder (RFC 8259): fails the test on anything a
// conforming parser would reject, such as a raw control character.
std::string DecodeJsonString(const std::string& literal) {
    EXPECT_GE(literal.size(), 2u);
    EXPECT_EQ(literal.front(), '"');
    EXPECT_EQ(literal.back(), '"');
    std::string out;
    for (size_t i = 1; i + 1 < literal.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(literal[i]);
        EXPECT_GE(c, 0x20) << "raw control character in " << literal;
        EXPECT_NE(c, '"') << "unescaped quote in " << literal;
        if (c != '\\') {
            out += static_cast<char>(c);
            continue;
        }
        const char e = literal[++i];
        switch (e) {
            case '"':
                out += '"';
                break;
            case '\\':
                out += '\\';
                break;
            case '/':
                out += '/';
                break;
            case 'b':
                out += '\b';
                break;
            case 'f':
                out += '\f';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'u':
                AppendUtf8(out, static_cast<uint32_t>(std::stoul(literal.substr(i + 1, 4), nullptr, 16)));
                i += 4;
                break;
            default:
                ADD_FAILURE() << "bad escape \\" << e << " in " << literal;
        }
    }
    return out;
}

// The text as a well-formed UTF-8 string: each maximal run of bytes that is no
// valid sequence becomes U+FFFD byte by byte, found by decoding code points.
std::string ReferenceSanitise(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        const int length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
        bool valid = length > 0 && i + length <= text.size();
        uint32_t cp = length == 1 ? lead : length == 2 ? lead & 0x1F : length == 3 ? lead & 0x0F : lead & 0x07;
        for (int k = 1; valid && k < length; ++k) {
            const unsigned char next = static_cast<unsigned char>(text[i + k]);
            valid = next >> 6 == 2;
            cp = (cp << 6) | (next & 0x3F);
        }
        const uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        valid = valid && cp >= smallest[length] && cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF);
        if (!valid) {
            out += "\xEF\xBF\xBD";
            ++i;
            continue;
        }
        out.append(text, i, length);
        i += length;
    }
    return out;
}

TEST(JsonString, RandomTextsDecodeBackToTheirWellFormedForm) {
    std::mt19937 random(20240611);
    // Weighted towards the bytes that matter: controls, quotes, backslashes,
    // UTF-8 leads and continuations, overlong and surrogate starts.
    const std::string interesting =
        std::string("\"\\/\n\r\t\b\f\x01\x1f\x7f", 12) + "\xC0\xC1\xC2\xDF\xE0\xED\xEF\xF0\xF4\xF5\xFF\x80\x9F\xA0\xBF";
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        const int length = static_cast<int>(random() % 12);
        for (int i = 0; i < length; ++i) {
            if (random() % 3 == 0) {
                text += interesting[random() % interesting.size()];
            } else if (random() % 2 == 0) {
                AppendUtf8(text, random() % 3 == 0 ? 0x10000 + random() % 0xFFFF : random() % 0xD000);
            } else {
                text += static_cast<char>(random() % 256);
            }
        }
        const std::string literal = Vorpa::JsonString(text);
        ASSERT_EQ(DecodeJsonString(literal), ReferenceSanitise(text)) << "round " << round;
    }
}

TEST(JsonReport, FiguresAddUpAndUnclassifiedComesLast) {
    Vorpa::RunTally tally;
    tally.arrangements["unclassified"].Add(100, 40.0f);
    tally.arrangements["unclassified"].Add(300, 0.0f);
    tally.arrangements["barcode10"].Add(1000, 90.0f, 0.25);
    tally.arrangements["barcode10"].Add(2000, 80.5f, 0.125);
    tally.arrangements["barcode10"].Add(3001, -std::numeric_limits<float>::infinity());  // not in the mean
    tally.arrangements["barcode02"].Add(7, 100.0f);
    tally.dropped = 4;
    tally.files_found = 3;
    tally.files_read = 3;
    tally.unclassified_reasons["no barcode above the minimum"] = 1;
    tally.unclassified_reasons["not in sample sheet"] = 1;
    const std::string text =
        Vorpa::FormatJsonReport(tally, {"1.2.3", {{"barcode_kits", "VB-NB24"}, {"save_path", "a\"b"}}, 2.0});

    const std::string expected = R"({
  "program": "vorpa_barcoder",
  "version": "1.2.3",
  "options": {
    "barcode_kits": "VB-NB24",
    "save_path": "a\"b"
  },
  "wall_time_s": 2.0,
  "files": {"found": 3, "read": 3, "ended_early": 0, "failed": 0},
  "reads": {"total": 10, "written": 6, "classified": 4, "unclassified": 2, "dropped_no_run_id": 4, "failed": 0, "records_skipped": 0},
  "mixed_barcodes": 0,
  "unclassified_reasons": {"no_barcode_above_minimum": 1, "mixed_barcodes": 0, "one_end_only": 0, "low_barcode_quality": 0, "not_in_sample_sheet": 1},
  "arrangements": {
    "barcode02": {"reads": 1, "bases": 7, "mean_read_length": 7.0, "mean_score": 100.0, "expected_wrong_calls": 0.0},
    "barcode10": {"reads": 3, "bases": 6001, "mean_read_length": 2000.3333333333333, "mean_score": 85.25, "expected_wrong_calls": 0.375},
    "unclassified": {"reads": 2, "bases": 400, "mean_read_length": 200.0, "mean_score": 20.0, "expected_wrong_calls": 0.0}
  }
}
)";
    EXPECT_EQ(text, expected);
}

// The report page shows the cross-talk estimate only with a sample sheet.
TEST(HtmlReport, CrossTalkSectionOnlyWithASampleSheet) {
    Vorpa::RunTally tally;
    tally.arrangements["F01_R01"].Add(1000, 90.0f);
    Vorpa::CrossTalkEstimate measured;
    measured.method = "unlisted pairs";
    measured.measurable = true;
    measured.unlisted_reads = 48;
    measured.run = {15897, 554.8, 0.0349, 0.02535, 0.04674};
    measured.samples["S1"] = {100, 1, 0.01, 0.001, 0.05};
    measured.samples["S2"] = {100, 5, 0.05, 0.02, 0.09};
    Vorpa::CrossTalkEstimate unmeasurable;
    unmeasurable.not_measurable = "the sample sheet lists every pair";
    const struct {
        std::optional<Vorpa::CrossTalkEstimate> estimate;
        std::vector<std::string> shown;
    } cases[] = {
        {std::nullopt, {}},
        {unmeasurable, {"not measurable (the sample sheet lists every pair)"}},
        {measured,
         {"3.490 % (95 % interval 2.535-4.674 %) of 15,897 assigned reads", "48 reads of unlisted pairs",
          "Most, in sample S2", "5.000 % (95 % interval 2.000-9.000 %) of 100 assigned reads"}},
    };
    for (const auto& c : cases) {
        Vorpa::RunInfo info{"v", {}, 1, true, c.estimate};
        const std::string page = Vorpa::FormatHtmlReport(tally, info);
        EXPECT_EQ(page.find("id=\"cross_talk\"") != std::string::npos, c.estimate.has_value());
        for (const auto& text : c.shown)
            EXPECT_NE(page.find(text), std::string::npos) << text;
    }
}

TEST(WriteFileAtomically, ReplacesTheFileAndLeavesNoTemporary) {
    const TestSupport::TempFolder scratch;
    const fs::path& folder = scratch.Root();
    const std::string path = (folder / "report.json").string();
    std::ofstream(path) << "old contents that are longer than the new ones";
    Vorpa::WriteFileAtomically(path, "new");
    std::ifstream in(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "new");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);

    const std::string missing = (folder / "no_such_folder" / "report.json").string();
    EXPECT_TRUE(TestSupport::Holds(TestSupport::ErrorOf([&] { Vorpa::WriteFileAtomically(missing, "x"); }), missing));

    // A full disk while writing: the reason and the file are named, the old
    // report stays whole, and the temporary is gone.
    if (fs::exists("/dev/full")) {
        fs::create_symlink("/dev/full", path + ".tmp");
        const std::string what = TestSupport::ErrorOf([&] { Vorpa::WriteFileAtomically(path, "newer"); });
        EXPECT_TRUE(TestSupport::Holds(what, "No space left on device") && TestSupport::Holds(what, path + ".tmp"))
            << what;
        std::ifstream again(path);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(again), {}), "new");
        EXPECT_FALSE(fs::exists(fs::symlink_status(path + ".tmp")));
    }
}

}  // namespace
