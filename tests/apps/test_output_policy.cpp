// Where a read goes and what it carries: folders, run ids, samples, trimming,
// the title tag, BAM tags and the summary row, for one read at a time.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/output_policy.h"
#include "common/bam_record.h"
#include "tests/support/error_of.h"

namespace Vorpa {
namespace {

using Barcoding::ArrangementDetectResult;
using Barcoding::UnclassifiedReason;

std::vector<std::string> Columns(const std::string& row) {
    std::vector<std::string> columns(1);
    for (char c : row.substr(0, row.size() - 1)) {
        if (c == '\t')
            columns.emplace_back();
        else
            columns.back() += c;
    }
    return columns;
}

// barcode03 found 10 bases into the read (24 bases) and 5 bases before the
// end of the rear window (24 bases).
ArrangementDetectResult Barcode03() {
    ArrangementDetectResult best;
    best.id = "barcode03_var1";
    best.normalised_id = "barcode03";
    best.kit = "KIT";
    best.variant = "var1";
    best.score = 65;
    best.front = {"BC03", std::string(24, 'A'), std::string(24, 'A'), 80, 90, 10};
    best.rear = {"BC03_REV", std::string(24, 'C'), std::string(24, 'C'), 50, 60, 5};
    best.error_probability = 2e-4;
    best.quality = 37;
    best.candidate_quality = 37;
    return best;
}

ArrangementDetectResult Unclassified(UnclassifiedReason reason, bool mixed = false) {
    ArrangementDetectResult result = Barcode03();
    result.normalised_id = "unclassified";
    result.reason = reason;
    result.mixed = mixed;
    result.error_probability = 1;
    result.quality = 0;
    return result;
}

Common::FastQRecord Read(const std::string& title, size_t bases) {
    return Common::FastQRecord(title, std::string(bases, 'G'), std::string(bases, 'I'));
}

OutputPolicy Policy() {
    OutputPolicy policy;
    policy.scorer.min_score = 30;
    policy.scorer.min_score_rear_override = 30;
    policy.scorer.rear_window_size = 150;
    return policy;
}

// The summary row is checked by its column count and columns 2 (the
// arrangement shown, which is the reported one), 7 (front id), 18 (rear end
// index) and the last.
struct Expected {
    std::string folder, arrangement, sample = "(none)", reason = "";
    TrimmedBases trim = {};
    size_t columns = 18;
    std::string front_id = "BC03", rear_end = "121", last_column = "";
    int quality = 0;  // the call's, 0 for an unclassified read
};

TEST(OutputPolicy, FoldersSamplesTrimmingAndSummaryRows) {
    SampleSheet sheet;
    sheet.sample_of = {{"barcode03", "S1"}, {"barcode04", "S2"}};
    sheet.samples = {"S1", "S2"};
    sheet.Index();
    SampleSheet other;
    other.sample_of = {{"barcode04", "S2"}};
    other.samples = {"S2"};
    other.Index();

    struct Case {
        const char* name;
        std::function<void(OutputPolicy&)> set;
        std::vector<ArrangementDetectResult> results;
        size_t bases;
        Expected want;
    };
    const std::vector<Case> cases = {
        {"classified",
         [](OutputPolicy&) {},
         {Barcode03()},
         200,
         {.folder = "barcode03", .arrangement = "barcode03", .quality = 37}},
        {"trimmed with extra bases",
         [](OutputPolicy& p) {
             p.scorer.trim_barcodes = true;
             p.scorer.num_extra_bases_trim = 3;
         },
         {Barcode03()},
         200,
         {.folder = "barcode03", .arrangement = "barcode03", .trim = {37, 32}, .columns = 20, .quality = 37}},
        {"ends below their minimum are not trimmed",
         [](OutputPolicy& p) {
             p.scorer.trim_barcodes = true;
             p.scorer.min_score = 81;
             p.scorer.min_score_rear_override = 51;
         },
         {Barcode03()},
         200,
         {.folder = "barcode03", .arrangement = "barcode03", .columns = 20, .quality = 37}},
        {"a short read keeps one base; the rear window is the read",
         [](OutputPolicy& p) { p.scorer.trim_barcodes = true; },
         {Barcode03()},
         40,
         {.folder = "barcode03",
          .arrangement = "barcode03",
          .trim = {34, 5},
          .columns = 20,
          .rear_end = "11",
          .quality = 37}},
        {"listed in the sample sheet: the sample column after the trim columns",
         [&](OutputPolicy& p) {
             p.sample_sheet = &sheet;
             p.scorer.trim_barcodes = true;
         },
         {Barcode03()},
         200,
         {.folder = "S1",
          .arrangement = "barcode03",
          .sample = "S1",
          .trim = {34, 29},
          .columns = 21,
          .last_column = "S1",
          .quality = 37}},
        {"not listed: unclassified, the candidate still shown",
         [&](OutputPolicy& p) {
             p.sample_sheet = &other;
             p.reason_column = true;
         },
         {Barcode03()},
         200,
         {.folder = "unclassified",
          .arrangement = "unclassified",
          .sample = "unclassified",
          .reason = "not in sample sheet",
          .columns = 20,
          .last_column = "not in sample sheet"}},
        {"unclassified by the scorer",
         [&](OutputPolicy& p) {
             p.sample_sheet = &sheet;
             p.reason_column = true;
         },
         {Unclassified(UnclassifiedReason::kOneEndOnly)},
         200,
         {.folder = "unclassified",
          .arrangement = "unclassified",
          .sample = "unclassified",
          .reason = "only one end",
          .columns = 20,
          .last_column = "only one end"}},
        {"no result at all",
         [](OutputPolicy& p) {
             p.scorer.trim_barcodes = true;
             p.reason_column = true;
         },
         {},
         200,
         {.folder = "unclassified",
          .arrangement = "unclassified",
          .reason = "no barcode above the minimum",
          .columns = 21,
          .front_id = "",
          .rear_end = "0",
          .last_column = "no barcode above the minimum"}},
    };
    for (const auto& c : cases) {
        OutputPolicy policy = Policy();
        c.set(policy);
        const Common::FastQRecord record = Read("@r1 runid=RUN7 ch=5", c.bases);
        ReadOutput out;
        // Filled twice: nothing of an earlier read may stay behind.
        DecideOutput(Read("@old runid=OLD", 300), {Unclassified(UnclassifiedReason::kMixedBarcodes, true)}, policy,
                     out);
        DecideOutput(record, c.results, policy, out);
        const Expected& want = c.want;
        EXPECT_EQ(out.folder, want.folder) << c.name;
        EXPECT_EQ(out.run_id, "RUN7") << c.name;
        EXPECT_EQ(out.arrangement, want.arrangement) << c.name;
        EXPECT_EQ(out.sample != nullptr ? *out.sample : "(none)", want.sample) << c.name;
        EXPECT_STREQ(out.reason, want.reason.c_str()) << c.name;
        EXPECT_EQ(out.trim.front, want.trim.front) << c.name;
        EXPECT_EQ(out.trim.rear, want.trim.rear) << c.name;
        EXPECT_FALSE(out.mixed) << c.name;
        EXPECT_EQ(out.title_tag, "barcode=" + want.arrangement) << c.name;
        EXPECT_TRUE(out.bam_tags.empty()) << c.name;
        EXPECT_EQ(std::isinf(out.score), c.results.empty()) << c.name;
        EXPECT_EQ(out.quality, want.quality) << c.name;
        // An unclassified read is no call: it adds nothing to the wrong calls to expect.
        EXPECT_EQ(out.error_probability, want.quality > 0 ? 2e-4 : 0) << c.name;

        const auto columns = Columns(out.summary_row);
        ASSERT_EQ(columns.size(), want.columns) << c.name << ": " << out.summary_row;
        EXPECT_EQ(columns[0], "r1") << c.name;
        EXPECT_EQ(columns[1], want.arrangement) << c.name;
        EXPECT_EQ(columns[6], want.front_id) << c.name;
        EXPECT_EQ(columns[17], want.rear_end) << c.name;
        if (want.trim.front + want.trim.rear > 0) {
            EXPECT_EQ(columns[18], std::to_string(want.trim.front)) << c.name;
            EXPECT_EQ(columns[19], std::to_string(want.trim.rear)) << c.name;
        }
        if (!want.last_column.empty()) {
            EXPECT_EQ(columns.back(), want.last_column) << c.name;
        }
    }
}

void AppendLength(std::string& aux, int32_t length) {
    aux += "MNi";
    aux.append(reinterpret_cast<const char*>(&length), 4);
}

// BAM output: a FASTQ read's comment becomes CO, a BAM read keeps its tags
// (less an old arrangement tag, and less the per-base tags once bases are
// cut off; its modification lists follow the cut and get MN); the
// arrangement and the barcode quality go last as ar and bq.
TEST(OutputPolicy, BamTags) {
    std::string input_tags;
    Common::AppendTextTag(input_tags, "ar", "barcode09");
    Common::AppendIntTag(input_tags, "bq", 12);
    Common::AppendTextTag(input_tags, "MM", "C+m?;");
    Common::AppendTextTag(input_tags, "xq", "kept");
    Common::AppendTextTag(input_tags, "OQ", std::string(200, 'I'));
    // MN (the read length the modifications were written for), when given,
    // goes before ar, the last of the fields; bq follows.
    auto tags = [](std::vector<std::pair<const char*, std::string>> fields, int32_t length = -1) {
        std::string aux;
        for (const auto& [tag, value] : fields) {
            if (length >= 0 && &value == &fields.back().second) AppendLength(aux, length);
            Common::AppendTextTag(aux, tag, value);
        }
        Common::AppendIntTag(aux, "bq", 37);
        return aux;
    };
    struct Case {
        const char* title;
        bool from_bam, trim;
        float min_front;  // above the front's score: only the rear is cut
        std::string want;
    };
    const Case cases[] = {
        {"@r1 runid=RUN7 ch=5", false, false, 30, tags({{"CO", "runid=RUN7 ch=5"}, {"ar", "barcode03"}})},
        {"@r1 runid=RUN7", false, true, 30, tags({{"CO", "runid=RUN7"}, {"ar", "barcode03"}})},
        {"@r1", false, false, 30, tags({{"ar", "barcode03"}})},
        {"@r1 runid=RUN7", true, false, 30,
         tags({{"MM", "C+m?;"}, {"xq", "kept"}, {"OQ", std::string(200, 'I')}, {"ar", "barcode03"}})},
        {"@r1 runid=RUN7", true, true, 30, tags({{"MM", "C+m?;"}, {"xq", "kept"}, {"ar", "barcode03"}}, 137)},
        {"@r1 runid=RUN7", true, true, 90, tags({{"MM", "C+m?;"}, {"xq", "kept"}, {"ar", "barcode03"}}, 171)},
    };
    for (const auto& c : cases) {
        OutputPolicy policy = Policy();
        policy.bam = true;
        policy.scorer.trim_barcodes = c.trim;
        policy.scorer.min_score = c.min_front;
        Common::FastQRecord record = Read(c.title, 200);
        if (c.from_bam) record.tags = input_tags;
        ReadOutput out;
        DecideOutput(record, {Barcode03()}, policy, out);
        EXPECT_EQ(out.bam_tags, c.want) << c.title << " from_bam=" << c.from_bam << " trim=" << c.trim;
        EXPECT_TRUE(out.title_tag.empty());
    }

    OutputPolicy policy = Policy();
    ReadOutput out;
    DecideOutput(Read("@@odd runid=R", 50), {Barcode03()}, policy, out);  // a fine FASTQ title
    policy.bam = true;
    EXPECT_EQ(TestSupport::ErrorOf([&] { DecideOutput(Read("@@odd runid=R", 50), {Barcode03()}, policy, out); }),
              "the read id '@odd' cannot be a BAM read name");
}

// Modification calls through trimming: the calls on kept bases stay on the
// same bases (skip counts from the new start, their probabilities kept);
// tags that do not fit the read are dropped whole, other tags kept.
TEST(OutputPolicy, BamModificationTagsFollowTheCut) {
    // Calls on the 1st, 52nd and 153rd G of 200.
    std::string input;
    Common::AppendTextTag(input, "MM", "G-m.,0,50,100;");
    const std::string probabilities = {'B', 'C', 3, 0, 0, 0, 11, 22, 33};
    input.append("ML").append(probabilities);
    Common::AppendTextTag(input, "xq", "kept");
    std::string broken;
    Common::AppendTextTag(broken, "MM", "C+m,5;");  // no C in the read
    Common::AppendTextTag(broken, "xq", "kept");

    auto expect = [](const std::string& lists, std::vector<char> values, int32_t length) {
        std::string aux;
        Common::AppendTextTag(aux, "MM", lists);
        aux.append("MLBC").append(1, static_cast<char>(values.size())).append(3, '\0');
        aux.append(values.begin(), values.end());
        Common::AppendTextTag(aux, "xq", "kept");
        AppendLength(aux, length);
        return aux;
    };
    std::string only_xq;
    Common::AppendTextTag(only_xq, "xq", "kept");
    struct Case {
        const std::string* tags;
        float min_front;  // 90: only the rear is cut
        std::string want;
    };
    const Case cases[] = {
        {&input, 30, expect("G-m.,17,100;", {22, 33}, 137)},  // 34 cut off the front, 29 off the rear
        {&input, 90, expect("G-m.,0,50,100;", {11, 22, 33}, 171)},
        {&broken, 30, only_xq},
    };
    for (const auto& c : cases) {
        OutputPolicy policy = Policy();
        policy.bam = true;
        policy.scorer.trim_barcodes = true;
        policy.scorer.min_score = c.min_front;
        Common::FastQRecord record = Read("@r1 runid=RUN7", 200);
        record.tags = *c.tags;
        ReadOutput out;
        DecideOutput(record, {Barcode03()}, policy, out);
        std::string want = c.want;
        Common::AppendTextTag(want, "ar", "barcode03");
        Common::AppendIntTag(want, "bq", 37);
        EXPECT_EQ(out.bam_tags, want) << c.min_front;
    }
}

// With --internal_barcodes: the count column comes last, after the reason;
// a part names the read it was cut from in its title tag or as BAM tag pi,
// replacing a pi the input record had.
TEST(OutputPolicy, InternalCountAndParts) {
    OutputPolicy policy = Policy();
    policy.reason_column = true;
    policy.internal_count_column = true;
    ReadOutput out;
    ReadExtras rejected;
    rejected.internal_count = 2;
    DecideOutput(Read("@r1 runid=RUN7", 200), {Unclassified(UnclassifiedReason::kInternalBarcode)}, policy, out,
                 rejected);
    auto columns = Columns(out.summary_row);
    ASSERT_EQ(columns.size(), 20u) << out.summary_row;
    EXPECT_EQ(columns[18], "internal barcode");
    EXPECT_EQ(columns[19], "2");
    EXPECT_EQ(out.title_tag, "barcode=unclassified");
    DecideOutput(Read("@r1 runid=RUN7", 200), {}, policy, out, rejected);
    EXPECT_EQ(Columns(out.summary_row).back(), "2") << "a read without results has the column too";

    ReadExtras part;
    part.internal_count = 1;
    part.parent_read_id = "r1";
    DecideOutput(Read("@r1_2 runid=RUN7", 200), {Barcode03()}, policy, out, part);
    EXPECT_EQ(out.title_tag, "parent_read_id=r1 barcode=barcode03");
    EXPECT_EQ(Columns(out.summary_row)[0], "r1_2");

    policy.bam = true;
    Common::FastQRecord record = Read("@r1_2 runid=RUN7", 200);
    record.tags.emplace();
    Common::AppendTextTag(*record.tags, "pi", "older");
    Common::AppendTextTag(*record.tags, "xq", "kept");
    DecideOutput(record, {Barcode03()}, policy, out, part);
    std::string want;
    Common::AppendTextTag(want, "xq", "kept");
    Common::AppendTextTag(want, "pi", "r1");
    Common::AppendTextTag(want, "ar", "barcode03");
    // The barcode quality tag follows.
    EXPECT_EQ(out.bam_tags.substr(0, want.size()), want);
    EXPECT_EQ(out.bam_tags.substr(want.size(), 2), "bq");
    EXPECT_TRUE(out.title_tag.empty());
}

}  // namespace
}  // namespace Vorpa
