// Where a read goes and what it carries: folder, run id, sample, trimming,
// title tag, BAM tags, summary row; and the sample sheet behind the folders.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "apps/output_policy.h"
#include "common/bam_record.h"
#include "tests/support/error_of.h"
#include "tests/support/random_bases.h"

namespace Vorpa {
namespace {

using Barcoding::ArrangementDetectResult;
using Barcoding::UnclassifiedReason;
using TestSupport::ErrorOf;

// The fields of a row, which must be one line.
std::vector<std::string> Columns(const std::string& row) {
    EXPECT_EQ(row.find_first_of("\r\n"), row.size() - 1) << row;
    std::vector<std::string> columns;
    std::istringstream fields(row.substr(0, row.size() - 1) + "\t");
    for (std::string field; std::getline(fields, field, '\t');)
        columns.push_back(field);
    return columns;
}

// count fields of a row from `from` on, joined by '|'.
std::string Fields(const std::vector<std::string>& row, size_t from, size_t count) {
    std::string text;
    for (size_t k = from; k < std::min(row.size(), from + count); ++k)
        text += (k > from ? "|" : "") + row[k];
    return text;
}

// Found 10 bases into the read and 5 before the end of the rear window.
ArrangementDetectResult Barcode03(UnclassifiedReason reason = UnclassifiedReason::kNone, bool mixed = false) {
    const bool called = reason == UnclassifiedReason::kNone;
    ArrangementDetectResult best;
    best.id = "barcode03_var1", best.normalised_id = called ? "barcode03" : "unclassified", best.kit = "KIT";
    best.variant = "var1", best.score = 65, best.reason = reason, best.mixed = mixed;
    best.front = {"BC03", std::string(24, 'A'), std::string(24, 'A'), 80, 90, 10};
    best.rear = {"BC03_REV", std::string(24, 'C'), std::string(24, 'C'), 50, 60, 5};
    best.error_probability = called ? 2e-4 : 1, best.quality = called ? 37 : 0, best.candidate_quality = 37;
    return best;
}

Common::FastQRecord Read(const std::string& title, size_t bases) {
    return Common::FastQRecord(title, std::string(bases, 'G'), std::string(bases, 'I'));
}

struct Options {
    bool trim = false;
    int extra = 0;  // num_extra_bases_trim
    float min_front = 30, min_rear = 30;
    const SampleSheet* sheet = nullptr;
    bool reason = false, bam = false;
};

OutputPolicy Policy(const Options& o) {
    OutputPolicy policy;
    policy.scorer.min_score = o.min_front;
    policy.scorer.min_score_rear_override = o.min_rear;
    policy.scorer.rear_window_size = 150;
    policy.scorer.trim_barcodes = o.trim;
    policy.scorer.num_extra_bases_trim = o.extra;
    policy.sample_sheet = o.sheet;
    policy.reason_column = o.reason;
    policy.bam = o.bam;
    return policy;
}

// Each read follows one of another kind, which must leave nothing behind.
TEST(OutputPolicy, FoldersSamplesTrimmingAndSummaryRows) {
    SampleSheet sheet, other;
    sheet.sample_of = {{"barcode03", "S1"}, {"barcode04", "S2"}};
    sheet.Index();
    other.sample_of = {{"barcode04", "S2"}};
    other.Index();
    const std::string bc03 = "barcode03", none = "unclassified";
    const std::vector<ArrangementDetectResult> found = {Barcode03()},
                                               one_end = {Barcode03(UnclassifiedReason::kOneEndOnly)};
    struct Case {
        const char* name;
        Options options;
        std::vector<ArrangementDetectResult> results;
        size_t bases;
        std::string arrangement, sample, reason;  // sample "": no sample sheet
        TrimmedBases trim;
    };
    const Case cases[] = {
        {"classified", {}, found, 200, bc03, "", "", {}},
        {"extra bases trimmed", {.trim = true, .extra = 3}, found, 200, bc03, "", "", {37, 32}},
        {"ends below their minimum", {.trim = true, .min_front = 81, .min_rear = 51}, found, 200, bc03, "", "", {}},
        // A short read keeps one base; the rear window is the read.
        {"short read", {.trim = true}, found, 40, bc03, "", "", {34, 5}},
        {"listed", {.trim = true, .sheet = &sheet}, found, 200, bc03, "S1", "", {34, 29}},
        // Unclassified, the candidate still shown.
        {"not listed", {.sheet = &other, .reason = true}, found, 200, none, none, "not in sample sheet", {}},
        {"one end", {.sheet = &sheet, .reason = true}, one_end, 200, none, none, "only one end", {}},
        {"no result", {.trim = true, .reason = true}, {}, 200, none, "", "no barcode above the minimum", {}},
    };
    for (const auto& c : cases) {
        const Options& o = c.options;
        const OutputPolicy policy = Policy(o);
        ReadOutput out;
        DecideOutput(Read("@old runid=OLD", 300), {Barcode03(UnclassifiedReason::kMixedBarcodes, true)}, policy, out);
        DecideOutput(Read("@r1 runid=RUN7 ch=5", c.bases), c.results, policy, out);
        SCOPED_TRACE(c.name);
        const int quality = c.arrangement == none ? 0 : 37;
        EXPECT_EQ(out.folder + "|" + out.run_id + "|" + out.arrangement + "|" + (out.sample ? *out.sample : "") + "|" +
                      out.reason + "|" + out.title_tag,
                  (c.sample.empty() ? c.arrangement : c.sample) + "|RUN7|" + c.arrangement + "|" + c.sample + "|" +
                      c.reason + "|barcode=" + c.arrangement);
        EXPECT_TRUE(out.trim.front == c.trim.front && out.trim.rear == c.trim.rear) << out.trim.front;
        EXPECT_TRUE(!out.mixed && out.bam_tags.empty() && std::isinf(out.score) == c.results.empty());
        // An unclassified read is no call: it adds nothing to the wrong calls to expect.
        EXPECT_TRUE(out.quality == quality && out.error_probability == (quality > 0 ? 2e-4 : 0)) << out.quality;
        const auto columns = Columns(out.summary_row);
        ASSERT_EQ(columns.size(), 18u + 2 * o.trim + (o.sheet != nullptr) + o.reason) << out.summary_row;
        EXPECT_EQ(Fields(columns, 0, 2), "r1|" + c.arrangement);
        EXPECT_EQ(columns[6], c.results.empty() ? "" : "BC03");
        EXPECT_EQ(columns[17], c.results.empty() ? "0" : std::to_string(std::min<size_t>(c.bases, 150) - 29));
        EXPECT_EQ(Fields(columns, 18, 2 * o.trim),
                  o.trim ? std::to_string(c.trim.front) + "|" + std::to_string(c.trim.rear) : "");
        EXPECT_EQ(o.reason || o.sheet != nullptr ? columns.back() : "", o.reason ? c.reason : c.sample);
    }
}

std::string TextTags(const std::vector<std::pair<const char*, std::string>>& fields) {
    std::string aux;
    for (const auto& [tag, value] : fields)
        Common::AppendTextTag(aux, tag, value);
    return aux;
}

// A BAM read keeps its tags but an earlier run's ar and bq and, once cut,
// the per-base OQ; a part names its parent (pi replacing an older one).
TEST(OutputPolicy, BamTags) {
    std::string old = TextTags({{"ar", "barcode09"}, {"pi", "older"}});
    Common::AppendIntTag(old, "bq", 12);
    const std::string kept = TextTags({{"xq", "kept"}}), per_base = TextTags({{"OQ", std::string(200, 'I')}});
    for (const bool trim : {false, true}) {
        for (const std::string parent : {"", "r1"}) {
            Common::FastQRecord record = Read("@r1_2 runid=RUN7", 200);
            record.tags = old + kept + per_base;
            ReadOutput out;
            ReadExtras extras;
            extras.parent_read_id = parent;
            DecideOutput(record, {Barcode03()}, Policy({.trim = trim, .bam = true}), out, extras);
            std::string want = (parent.empty() ? TextTags({{"pi", "older"}}) : "") + kept + (trim ? "" : per_base);
            if (!parent.empty()) want += TextTags({{"pi", parent}});
            want += TextTags({{"ar", "barcode03"}});
            Common::AppendIntTag(want, "bq", 37);
            EXPECT_EQ(out.bam_tags, want) << trim << " " << parent;
            EXPECT_TRUE(out.title_tag.empty());
            DecideOutput(record, {Barcode03()}, Policy({.trim = trim}), out, extras);
            EXPECT_EQ(out.title_tag, (parent.empty() ? "" : "parent_read_id=r1 ") + std::string("barcode=barcode03"));
        }
    }
    ReadOutput out;
    DecideOutput(Read("@@odd runid=R", 50), {Barcode03()}, Policy({}), out);  // a fine FASTQ title
    EXPECT_EQ(ErrorOf([&] { DecideOutput(Read("@@odd runid=R", 50), {Barcode03()}, Policy({.bam = true}), out); }),
              "the read id '@odd' cannot be a BAM read name");
}

// Scores of any magnitude: the summary prints them as a default stream does.
float RandomScore(std::mt19937& rng) {
    constexpr float kInf = std::numeric_limits<float>::infinity();
    const float special[] = {0.0f, -0.0f, 1e-7f, 123456.0f, 1234567.0f, 1e30f, kInf, -kInf, 1e-45f};
    if (rng() % 4 == 0) return special[rng() % 9];
    if (rng() % 2 == 0) return static_cast<float>(static_cast<int>(rng() % 40000) - 20000) / 100.0f;
    const uint32_t bits = static_cast<uint32_t>(rng());
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return std::isnan(value) ? 56.5f : value;
}

Barcoding::BarcodeDetectResult RandomEnd(std::mt19937& rng, const std::string& id) {
    if (rng() % 4 == 0) return {};  // no barcode at this end
    return {id, TestSupport::RandomBases(rng, 24), TestSupport::RandomBases(rng, 20 + rng() % 8), RandomScore(rng),
            0,  static_cast<int>(rng() % 60)};
}

// A row as documented, written with a plain stream: TAB, CR and newline in
// texts as '_', an end without a barcode as five zeros, the rear index from
// the window start, then the optional columns in order.
std::string NaiveRow(const std::string& id, const ArrangementDetectResult& best, int window, const TrimmedBases* trim,
                     const std::string* sample, const char* reason, QualityColumns quality, const int* count) {
    const auto text = [](std::string field) {
        for (char& c : field)
            if (c == '\t' || c == '\r' || c == '\n') c = '_';
        return field;
    };
    std::ostringstream out;
    out << text(id) << '\t' << text(best.normalised_id) << '\t' << text(best.id) << '\t' << text(best.kit) << '\t'
        << text(best.variant) << '\t' << best.score;
    for (const auto* end : {&best.front, &best.rear}) {
        const int length = static_cast<int>(end->found_sequence.size());
        out << '\t' << text(end->id);
        if (end->id.empty())
            out << "\t0\t0\t0\t0\t0";
        else
            out << '\t' << end->score << '\t' << end->reference_sequence << '\t' << end->found_sequence << '\t'
                << length << '\t' << (end == &best.front ? end->begin_index : window - length - end->begin_index);
    }
    if (trim != nullptr) out << '\t' << trim->front << '\t' << trim->rear;
    if (quality.quality) out << '\t' << best.quality;
    for (const auto* e : {&best.inputs.front, &best.inputs.rear}) {
        if (!quality.evidence) break;
        if (e->barcode)
            out << '\t' << e->presence << '\t' << e->over_rival << '\t' << e->over_random << '\t' << e->runner_up_score
                << '\t' << e->runner_up_presence << '\t' << e->window;
        else
            out << "\t0\t0\t0\t0\t0\t" << e->window;
    }
    if (sample != nullptr) out << '\t' << *sample;
    if (reason != nullptr) out << '\t' << reason;
    if (count != nullptr) out << '\t' << *count;
    return out.str() + "\n";
}

// Random rows of both kinds and every optional column against the naive row.
TEST(SummaryRow, RandomRowsAgreeWithTheirDocumentation) {
    std::mt19937 rng(7);
    const std::string sample = "Liver-A", id = "r\t1\r\n2";
    const TrimmedBases no_trim;
    ArrangementDetectResult no_result;  // a read without results: unclassified, empty texts, zeros
    no_result.normalised_id = "unclassified";
    no_result.score = 0;
    for (int trial = 0; trial < 5000; ++trial) {
        const float score = RandomScore(rng);
        ArrangementDetectResult best{.id = "odd\tid",
                                     .normalised_id = "barcode07",
                                     .kit = "K\r",
                                     .variant = "var1",
                                     .score = score,
                                     .front = RandomEnd(rng, "BC07_FWD"),
                                     .rear = RandomEnd(rng, "BC07_REV"),
                                     .inputs = {{true, 55.5f, 80.25f, 6.5f, 20, -55.5f, 3.5f, 150}, {.window = 120}},
                                     .quality = 37};
        const int window = 40 + static_cast<int>(rng() % 100), internal = static_cast<int>(rng() % 5);
        const unsigned mask = rng() % 64;
        const bool trim = mask & 1, sample_column = mask & 8, reason = mask & 16, count = mask & 32;
        const QualityColumns quality{(mask & 2) != 0, (mask & 4) != 0};
        const TrimmedBases trimmed{static_cast<int>(rng() % 50), static_cast<int>(rng() % 50)};
        const std::string* sample_field = sample_column ? &sample : nullptr;
        const int* count_field = count ? &internal : nullptr;
        std::string row;
        AppendSummaryRow(row, id, best, window, trim ? &trimmed : nullptr, sample_field, reason ? "" : nullptr, quality,
                         count_field);
        ASSERT_EQ(row, NaiveRow(id, best, window, trim ? &trimmed : nullptr, sample_field, reason ? "" : nullptr,
                                quality, count_field));
        ASSERT_EQ(NoResultRow(id, trim, sample_field, reason ? "x" : nullptr, quality, count_field),
                  NaiveRow(id, no_result, 0, trim ? &no_trim : nullptr, sample_field, reason ? "x" : nullptr, quality,
                           count_field));

        const auto header = Columns(SummaryHeader(trim, sample_column, reason, quality, count));
        ASSERT_EQ(header.size(), Columns(row).size());
        std::string names = "barcode_rear_end_index";
        if (trim) names += "|barcode_front_total_trimmed|barcode_rear_total_trimmed";
        if (quality.quality) names += "|barcode_quality";
        for (const char* end : {"front", "rear"})
            for (const char* name :
                 {"presence", "over_rival", "over_random", "runner_up_score", "runner_up_presence", "window"})
                names += quality.evidence ? std::string("|barcode_") + end + "_" + name : "";
        if (sample_column) names += "|sample";
        if (reason) names += "|barcode_unclassified_reason";
        if (count) names += "|barcode_internal_count";
        EXPECT_EQ(Fields(header, 17, 99), names);
    }
}

const std::set<std::string> kKnown = {"barcode01", "barcode02", "barcode03", "barcode04"};
const std::vector<std::string> kReserved = {"unclassified", "barcoding_summary.txt"};

// Pair barcodes are known but only used when the header names front and rear.
SampleSheet Parse(const std::string& text, const std::set<std::string>& pairs = {"F01", "F02", "R01", "R02"}) {
    std::istringstream in(text);
    return ParseSampleSheet(in, "sheet.tsv", kKnown, kReserved, pairs);
}

TEST(SampleSheet, EveryFaultNamesTheFileAndLine) {
    const std::string head = "arrangement\tsample\n", pair_head = "front\trear\tsample\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "Sample sheet 'sheet.tsv' is empty: it needs a header line."},
        {"# only a comment\n\n", "Sample sheet 'sheet.tsv' is empty: it needs a header line."},
        {head, "Sample sheet 'sheet.tsv' lists no samples."},
        {"barcode\tsample\nbarcode01\tA\n", "line 1: the header must name the columns 'arrangement' and 'sample' (tab"},
        {"arrangement sample\nbarcode01 A\n", "line 1: the header must name the columns"},
        {"arrangement\tsample\tsample\n", "line 1: the column 'sample' is named twice."},
        {head + "barcode01\tA\nbarcode01\tB\n", "line 3: the arrangement 'barcode01' is already listed on line 2."},
        {head + "barcode99\tA\n", "line 2: 'barcode99' is not an arrangement of the selected kits."},
        {head + "\tA\n", "line 2: the arrangement is empty."},
        {head + "barcode01\n", "line 2: no sample field."},
        {head + "barcode01\tA\textra\n", "line 2: 3 fields, but the header names 2 columns."},
        {head + "barcode01\t \n", "line 2: the sample name is empty."},
        {head + "barcode01\t.\n", "line 2: the sample name '.' is not a folder name."},
        {head + "barcode01\t..\n", "line 2: the sample name '..' is not a folder name."},
        {head + "barcode01\tliver/left\n", "line 2: the sample name 'liver/left' contains '/'."},
        {head + "barcode01\tli\x01ver\n", "contains a control character."},
        {head + "barcode01\t" + std::string(256, 'x') + "\n",
         "line 2: the sample name 'xxxxxxxxxxxxxxxxxxxx...' has 256 bytes; a folder name may have at most 255."},
        {head + "barcode01\tUnclassified\n", "line 2: the sample name 'Unclassified' is reserved for other output."},
        {head + "barcode01\tbarcoding_summary.txt\n", "is reserved for other output."},
        {head + "barcode01\tPatientA\nbarcode02\tpatienta\n",
         "line 3: the sample name 'patienta' differs from 'PatientA' (line 2) only in letter case; they would "
         "share a folder on some file systems."},
        {"arrangement\tfront\trear\tsample\nF01\tF01\tR01\tA\n",
         "line 1: the header names 'arrangement' and 'front': a sheet lists either arrangements or pairs of a front"},
        {"front\tsample\nF01\tA\n", "line 1: the header must name the columns 'front', 'rear' and 'sample'"},
        {"front\trear\nF01\tR01\n", "line 1: the header must name the columns 'front', 'rear' and 'sample'"},
        {pair_head + "F01\tR01\tA\nF01\tR01\tB\n", "line 3: the pair F01 + R01 is already listed on line 2."},
        {pair_head + "F01\tR02\tA\nR02\tF01\tB\n",
         "line 3: the pair R02 + F01 is the pair F01 + R02 on line 2 read from the other strand."},
        {pair_head + "F01\tR09\tA\n", "line 2: the rear barcode 'R09' is not a single-barcode arrangement"},
        {pair_head + "barcode01\tR01\tA\n", "line 2: the front barcode 'barcode01' is not a single-barcode"},
        {pair_head + "\tR01\tA\n", "line 2: the front barcode is empty."},
        {pair_head + "F01\n", "line 2: no rear field."},
        {pair_head + "F01\tR01\tunclassified\n", "line 2: the sample name 'unclassified' is reserved"},
    };
    for (const auto& [text, message] : cases) {
        const std::string error = ErrorOf([&] { Parse(text); });
        EXPECT_TRUE(error.starts_with("Sample sheet 'sheet.tsv'") && TestSupport::Holds(error, message))
            << "sheet:\n"
            << text << "\nerror: " << error;
    }
    EXPECT_EQ(ErrorOf([] { LoadSampleSheet("/no/such/sheet.tsv", kKnown, kReserved); }),
              "Could not open the sample sheet '/no/such/sheet.tsv'");
    // The longest name a folder may have is a sample name too.
    EXPECT_EQ(*Parse(head + "barcode01\t" + std::string(255, 'L') + "\n").SampleOf("barcode01"), std::string(255, 'L'));
}

// Random sheets of pairs (any column order, comments, blank lines, CRLF,
// padding, a byte order mark) against their rows; also a copy with entries
// added by hand.
TEST(SampleSheet, LookupAgreesWithTheRowsOfRandomSheets) {
    std::mt19937 rng(2611);
    const auto named = [](char end, unsigned k) {
        return std::string(1, end) + (k < 10 ? "0" : "") + std::to_string(k);
    };
    std::set<std::string> barcodes;
    for (unsigned k = 1; k <= 12; ++k)
        barcodes.insert({named('F', k), named('R', k)});
    for (int round = 0; round < 20; ++round) {
        std::vector<std::string> columns = {"front", "rear", "sample", "note"};
        std::shuffle(columns.begin(), columns.end(), rng);
        const std::string end = round % 2 == 0 ? "\n" : "\r\n";
        std::string text = (round % 3 == 0 ? "\xEF\xBB\xBF" : "") + ("# plate " + std::to_string(round)) + end +
                           columns[0] + "\t" + columns[1] + "\t" + columns[2] + "\t" + columns[3] + end;
        std::map<std::string, std::string> rows;  // pair name -> sample
        std::string pairs, listed;
        for (unsigned f = 1; f <= 12; ++f)
            for (unsigned r = 1; r <= 12; ++r) {
                if (rng() % 3 == 0) {
                    text += rng() % 2 == 0 ? "\t\t\t" + end : "# " + end;
                    continue;
                }
                std::map<std::string, std::string> field = {
                    {"front", named('F', f)}, {"rear", named('R', r)}, {"sample", "S"}, {"note", "x y"}};
                field["sample"] += std::to_string(rng() % (1 + round * 5));
                for (size_t k = 0; k < 4; ++k)
                    text += (rng() % 4 == 0 ? " " : "") + field[columns[k]] + (k < 3 ? "\t" : end);
                rows[named('F', f) + "_" + named('R', r)] = field["sample"];
                pairs += named('F', f) + named('R', r);
            }
        const auto parsed = Parse(text, barcodes);
        for (const auto& pair : parsed.pairs)
            listed += pair.front + pair.rear;
        EXPECT_EQ(listed, pairs);
        auto sheet = parsed;  // the lookup must not point into the sheet it was built for
        sheet.sample_of["F01_R01"] = "added";
        sheet.sample_of["F01_R02"] = parsed.samples.front();
        sheet.Index();
        EXPECT_EQ(sheet.samples.back(), "added");
        EXPECT_EQ(sheet.samples.size(), parsed.samples.size() + 1);
        for (const SampleSheet* checked : {&parsed, static_cast<const SampleSheet*>(&sheet)})
            for (unsigned f = 1; f <= 13; ++f)
                for (unsigned r = 1; r <= 12; ++r) {
                    const std::string name = f == 13 ? named('F', r) : named('F', f) + "_" + named('R', r);
                    const auto& want = checked == &parsed ? rows : checked->sample_of;
                    const auto row = want.find(name);
                    const std::string* got = checked->SampleOf(name);
                    const int number = checked->SampleNumberOf(name);
                    EXPECT_EQ(got != nullptr ? *got : "-", row != want.end() ? row->second : "-") << name;
                    EXPECT_EQ(number < 0 ? nullptr : &checked->samples[static_cast<size_t>(number)], got) << name;
                }
        // Reads of a listed pair find their sample by the pair's row, not its name.
        for (size_t p = 0; p < sheet.pairs.size(); ++p)
            EXPECT_EQ(sheet.SampleNumberOfPair(p),
                      sheet.SampleNumberOf(Barcoding::PairName(sheet.pairs[p].front, sheet.pairs[p].rear)));
    }
}

}  // namespace
}  // namespace Vorpa
