// BAM input and output against htslib and plain models: run ids, titles, tags
// kept or dropped, records and headers, modification calls through trimming.

#include <gtest/gtest.h>

#include <filesystem>
#include <numeric>
#include <optional>
#include <random>

#include "common/bam_header.h"
#include "common/bam_reader.h"
#include "common/bam_record.h"
#include "common/base_modifications.h"
#include "common/bgzf_blocks.h"
#include "tests/common/htslib_files.h"
#include "tests/support/error_of.h"
#include "tests/support/random_bases.h"
#include "tests/support/temp_folder.h"

namespace Common {
namespace {

std::string Text(const std::string& tag, const std::string& text) {
    return tag + "Z" + text + '\0';
}
std::string Int32(const std::string& tag, int32_t value) {
    return tag + "i" + std::string(reinterpret_cast<const char*>(&value), 4);
}
std::string Bytes(const std::string& tag, const std::string& bytes) {
    const auto count = static_cast<uint32_t>(bytes.size());
    return tag + "BC" + std::string(reinterpret_cast<const char*>(&count), 4) + bytes;
}
// Printable text by default, any bytes with (0, 256).
std::string RandomText(std::mt19937& rng, size_t length, int first = '!', int count = 94) {
    std::string text;
    while (text.size() < length)
        text += static_cast<char>(first + static_cast<int>(rng() % count));
    return text;
}

const std::vector<std::string> kReadGroups = {"@RG\tID:g1\tPU:unit7\tSM:s", "@RG\tID:g2\tSM:t",
                                              "@RG\tID:g3\tPU:unit7\tDS:model=fast xrunid=no runid=fromds x=1"};

std::string SamLine(const std::string& name, int flag, const std::string& bases, const std::string& qualities,
                    const std::string& tags = "") {
    const std::string place = flag & 4 ? "\t*\t0\t0\t*" : "\tchr1\t100\t60\t" + std::to_string(bases.size()) + "M";
    return name + "\t" + std::to_string(flag) + place + "\t*\t0\t0\t" + bases + "\t" + qualities + tags + "\n";
}

// Title, "read id|comment|run id" as the record holds them, bases, qualities, tags.
using Read = std::vector<std::string>;

// Writes SAM text with the read groups above through htslib, as SAM or BAM by the extension.
void Write(const std::string& path, const std::string& records) {
    std::string text = "@HD\tVN:1.6\tSO:unsorted\n@SQ\tSN:chr1\tLN:1000000\n";
    for (const auto& line : kReadGroups)
        text += line + "\n";
    HtslibFiles::WriteAlignments(path, text + records);
}

// Every read, the error that ended them, and the records skipped.
std::vector<Read> ReadAll(const std::string& path, std::string& error, uint64_t* skipped = nullptr) {
    BamIterable reads(path, 2);
    std::vector<Read> out;
    for (reads.Begin(); !reads.AtEnd(); reads.Increment()) {
        const FastQRecord& r = reads.Record();
        const std::string fields = std::string(r.ReadId()).append("|").append(r.Comment()).append("|");
        out.push_back({r.title, fields + std::string(r.RunId()), r.sequence, r.qstring, *r.tags});
    }
    error = reads.Error();
    if (skipped != nullptr) *skipped = reads.Skipped();
    return out;
}

// The run id comes from the comment (CO), else a runid= field of the read
// group's DS, else the ri tag, else the read group's PU. Then random mapped
// records of either strand, between secondary and supplementary ones: each
// read comes back in its own orientation; alignment tags go, and per-base
// tags with a turned record; other tags keep their bytes. A record that
// cannot be a FASTQ record ends the file there, with an error that names it.
TEST(BamInput, RunIdsTitlesTagsOrientationAndBadRecords) {
    const TestSupport::TempFolder folder("vb-bam");
    const std::string co = "\tCO:Z:runid=fromco ch=5", ri = "\tri:Z:fromtag", g1 = "\tRG:Z:g1", g3 = "\tRG:Z:g3";
    const std::string table[][3] = {
        {co + ri + g1, "@r runid=fromco ch=5", "r|runid=fromco ch=5|fromco"},
        {ri + g1 + "\txq:i:-3", "@r runid=fromtag", "r||fromtag"},
        {g1, "@r runid=unit7", "r||unit7"},
        {"\tRG:Z:g2", "@r", std::string("r||") + kInvalidRunId},
        {"", "@r", std::string("r||") + kInvalidRunId},  // stored without qualities
        {ri + g3, "@r runid=fromds", "r||fromds"},
        {"\tCO:Z:ch=1" + g3, "@r ch=1 runid=fromds", "r|ch=1|fromds"},
        {"\tCO:Z:runid=fromco" + g3, "@r runid=fromco", "r|runid=fromco|fromco"},
    };
    std::string records;
    std::vector<Read> expected;
    for (const auto& [tags, title, fields] : table) {
        records += SamLine("r", 4, "ACGT", tags.empty() ? "*" : "!#%'", tags);
        expected.push_back({title, fields, "ACGT", tags.empty() ? std::string(4, kMissingQuality) : "!#%'", ""});
    }
    std::mt19937 rng(404);
    uint64_t extra = 0;
    for (int k = 0; k < 200; ++k) {
        const std::string bases = TestSupport::RandomBases(rng, 1 + rng() % 300);
        const std::string qualities = RandomText(rng, bases.size(), '!', 60);
        const bool reverse = rng() % 2 == 0, secondary = rng() % 3 == 0;
        const std::string stored = reverse ? TestSupport::ReverseComplement(bases) : bases;
        const std::string stored_q = reverse ? std::string(qualities.rbegin(), qualities.rend()) : qualities;
        records += SamLine("m", reverse ? 16 : 0, stored, stored_q,
                           "\tNM:i:0\tOQ:Z:" + stored_q + "\tMM:Z:C+m?;\tri:Z:run\tAS:i:7");
        const std::string tags = Text("MM", "C+m?;") + Text("ri", "run");
        expected.push_back({"@m runid=run", "m||run", bases, qualities, reverse ? tags : Text("OQ", qualities) + tags});
        if (secondary) records += SamLine("m", rng() % 2 ? 256 : 2064, stored, stored_q);
        extra += secondary;
    }
    const std::string bad = std::to_string(std::size(table) + 201 + extra);
    for (const std::string name : {"in.sam", "in.bam"}) {
        std::string error;
        uint64_t skipped = 0;
        const std::string path = folder.Path() + "/" + name;
        const bool sam = name == "in.sam";  // ends with a bad record
        Write(path, records + (sam ? SamLine("bad", 4, "ACNT", "IIII") + SamLine("after", 4, "A", "I") : ""));
        const auto reference = HtslibFiles::ReadAlignments(path);
        const auto reads = ReadAll(path, error, &skipped);
        EXPECT_EQ(error, sam ? "record " + bad + " ('bad'): unexpected base 'N' at position 2" : "");
        EXPECT_EQ(skipped, extra) << name;
        ASSERT_EQ(reads.size(), expected.size()) << name;
        for (size_t k = 0; k < reads.size(); ++k) {
            Read want = expected[k];
            if (k < std::size(table)) want[4] = reference.records[k].aux;  // the tags as htslib reads them
            ASSERT_EQ(reads[k], want) << name << " " << k;
        }
        EXPECT_EQ(ReadGroupLines(path), kReadGroups);
    }
    EXPECT_TRUE(TestSupport::Holds(TestSupport::ErrorOf([&] { BamIterable(folder.Path() + "/none.bam", 1); }),
                                   "Could not open input file '"));
}

// Up to six whole fields of every value type: fixed sizes with random bytes,
// text and hex ended by NUL, arrays of each element type.
std::vector<std::string> RandomFields(std::mt19937& rng) {
    static const std::string kTypes = "AcCsSiIfZHB";
    static const size_t kSizes[] = {1, 1, 1, 2, 2, 4, 4, 4};
    std::vector<std::string> fields(rng() % 7);
    for (auto& field : fields) {
        const size_t type = rng() % kTypes.size();
        field = std::string("arCOMMMLOQNMriRGxyZq").substr(2 * (rng() % 10), 2) + kTypes[type];
        if (type < 8) {
            field += type == 0 ? RandomText(rng, 1) : RandomText(rng, kSizes[type], 0, 256);
        } else if (type < 10) {
            field += (type == 8 ? RandomText(rng, rng() % 12) : RandomText(rng, rng() % 6, '0', 10)) + '\0';
        } else {
            const size_t element = 1 + rng() % 7;  // "cCsSiIf"
            const uint32_t count = rng() % 5;
            field += kTypes[element] + std::string(reinterpret_cast<const char*>(&count), 4) +
                     RandomText(rng, count * kSizes[element], 0, 256);
        }
    }
    return fields;
}

// Random records (empty, odd-length, longer than a BGZF block, U bases, names
// of every allowed kind, tags of every type and of random bytes that do not
// compress), cut into chunks at random record ends and compressed chunk by
// chunk as the workers do: htslib reads back the header and every field and
// tag byte for byte. Tag editing on each agrees with editing the list of its
// fields, and no cut inside a field passes for whole tags.
TEST(BamFile, RecordsAndTagsAgainstHtslibAndAFieldList) {
    std::mt19937 rng(77);
    std::vector<HtslibFiles::Record> expected;
    std::vector<std::string> chunks(1);
    for (int k = 0; k < 2000; ++k) {
        const auto fields = RandomFields(rng);
        std::string aux = std::accumulate(fields.begin(), fields.end(), std::string());
        std::vector<size_t> boundaries = {0};
        for (const auto& field : fields) {
            ASSERT_EQ(AuxFieldSize(aux, boundaries.back()), field.size());
            boundaries.push_back(boundaries.back() + field.size());
        }
        for (size_t cut = 0; cut <= aux.size(); ++cut) {
            const bool boundary = std::find(boundaries.begin(), boundaries.end(), cut) != boundaries.end();
            ASSERT_EQ(ValidAux(std::string_view(aux).substr(0, cut)), boundary) << k << " cut " << cut;
        }
        for (const char* tag : {"CO", "ar", "RG"}) {
            const auto first = std::find_if(fields.begin(), fields.end(), [&](auto& f) { return f.starts_with(tag); });
            std::optional<std::string> value;
            if (first != fields.end() && (*first)[2] == 'Z') value = first->substr(3, first->size() - 4);
            ASSERT_EQ(FindTextTag(aux, tag), value);
        }
        const std::vector<std::string_view> removed = {"MM", "ar", "OQ"};
        std::string kept, edited = aux;
        for (const auto& field : fields) {
            if (std::find(removed.begin(), removed.end(), field.substr(0, 2)) == removed.end()) kept += field;
        }
        RemoveTags(edited, removed);
        ASSERT_EQ(edited, kept);

        const size_t length = k == 7 ? 70000 + rng() % 5000 : k % 50 == 0 ? 0 : 1 + rng() % 400;
        std::string bases = TestSupport::RandomBases(rng, length);
        if (k % 3 == 0) std::replace(bases.begin(), bases.end(), 'T', 'U');
        if (k == 7) aux += Bytes("xb", RandomText(rng, 200000, 0, 256));
        std::string name = std::vector<std::string>{"r", "a60b-f7f1", "a@b", "x:y/1"}[k % 4] + RandomText(rng, k % 5);
        if (k == 9) name = std::string(254, 'r');
        HtslibFiles::Record& read =
            expected.emplace_back(HtslibFiles::Record{name, bases, RandomText(rng, length), aux});
        AppendBamRecord(chunks.back(), read.name, bases, read.qualities, read.aux);
        std::replace(read.bases.begin(), read.bases.end(), 'U', 'T');
        if (rng() % 100 == 0) chunks.emplace_back();
    }
    const std::string too_long(255, 'r');
    for (const std::string bad : {"", "@r", "a b", "a\tb", "caf\xc3\xa9", too_long.c_str()})
        EXPECT_THROW(AppendBamRecord(chunks.back(), bad, "ACGT", "!!!!", {}), std::runtime_error) << bad;
    // Read groups once each, the first of an ID kept, this program last.
    std::vector<std::string> groups;
    EXPECT_TRUE(MergeReadGroups(groups, {"@RG\tID:a\tPU:r1", "@RG\tID:b\tPU:r2"}, "one.bam").empty());
    EXPECT_TRUE(MergeReadGroups(groups, {"@RG\tID:b\tPU:r2", "@RG\tID:c"}, "two.bam").empty());
    const auto warnings = MergeReadGroups(groups, {"@RG\tID:a\tPU:other"}, "three.bam");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_TRUE(TestSupport::Holds(warnings[0], "'a' of three.bam")) << warnings[0];
    std::string file = EncodeBamHeader(BamHeaderText(groups, "1.2", "prog\t-s 'a b'"));
    for (const auto& chunk : chunks)
        AppendBgzfBlocks(chunk, file, kBamCompressionLevel);
    file += BgzfEofBlock();
    const TestSupport::TempFolder folder("vb-bam");
    const std::string path = folder.Write("out.bam", file);
    const auto read = HtslibFiles::ReadAlignments(path);
    EXPECT_EQ(read.header,
              "@HD\tVN:1.6\tSO:unsorted\n@RG\tID:a\tPU:r1\n@RG\tID:b\tPU:r2\n@RG\tID:c\n"
              "@PG\tID:vorpa_barcoder\tPN:vorpa_barcoder\tVN:1.2\tCL:prog -s 'a b'\n");
    ASSERT_EQ(read.records.size(), expected.size());
    for (size_t k = 0; k < expected.size(); ++k)
        ASSERT_TRUE(read.records[k] == expected[k]) << expected[k].name;
    // This program reads it too; cut at its end-of-file marker or in the
    // middle, it ends where the file does, saying why.
    std::string error;
    EXPECT_EQ(ReadAll(path, error).size(), expected.size());
    EXPECT_EQ(error, "");
    std::filesystem::resize_file(path, file.size() - BgzfEofBlock().size());
    EXPECT_EQ(ReadAll(path, error).size(), expected.size());
    EXPECT_EQ(error, "no end-of-file marker after record 2000: the file is truncated");
    std::filesystem::resize_file(path, file.size() / 2);
    EXPECT_LT(ReadAll(path, error).size(), expected.size());
    EXPECT_TRUE(TestSupport::Holds(error, "damaged or truncated data after record") ||
                TestSupport::Holds(error, "the file is truncated"))
        << error;
    std::string text;
    AppendTextTag(text, "CO", "runid=r1\tch=5\nx\x7fy");
    EXPECT_EQ(text, Text("CO", "runid=r1 ch=5 x y"));
}

bool Matches(char fundamental, char base) {
    return fundamental == 'N' || fundamental == base || (fundamental == 'U' && base == 'T');
}

struct List {
    std::string head;                                   // base, strand, codes, mode: "C+mh?"
    std::vector<std::pair<size_t, std::string>> calls;  // read position, one probability byte per code
};

// MM and ML values of the calls on bases[front, end), as a read of those bases.
std::pair<std::string, std::string> Encode(const std::string& bases, const std::vector<List>& lists, size_t front,
                                           size_t end) {
    std::string mm, ml;
    for (const auto& list : lists) {
        mm += list.head;
        size_t from = front;
        for (const auto& [position, probabilities] : list.calls) {
            if (position < front || position >= end) continue;
            size_t skip = 0;
            for (; from < position; ++from)
                skip += Matches(list.head[0], bases[from]);
            mm.append(",").append(std::to_string(skip));
            ml += probabilities;
            from = position + 1;
        }
        mm += ';';
    }
    return {mm, ml};
}

// The model holds each call at its read position and encodes the expected
// tags afresh from the calls on kept bases, walking the read base by base
// (the code counts occurrences). Lists on either strand, of letter or numeric
// codes, in every mode, dense or sparse; the old tag names; reads without ML
// or MN; other tags around them in any order: those keep their bytes.
TEST(TrimModificationTags, RandomListsKeepEveryCallOnItsBase) {
    std::mt19937 rng(19);
    for (int round = 0; round < 4000; ++round) {
        const std::string bases = TestSupport::RandomBases(rng, 1 + rng() % 160);
        std::vector<List> lists(rng() % 5);
        for (auto& list : lists) {
            const size_t codes = rng() % 5 == 0 ? 1 : 1 + rng() % 3;
            const std::string code =
                codes == 1 && rng() % 2 ? "27551" : RandomText(rng, codes, rng() % 2 ? 'a' : 'A', 26);
            list.head =
                std::string(1, "ACGTUN"[rng() % 6]) + "+-"[rng() % 2] + code + std::string(".?").substr(rng() % 3, 1);
            const unsigned density = rng() % 100;
            for (size_t i = 0; i < bases.size(); ++i) {
                if (!Matches(list.head[0], bases[i]) || rng() % 100 >= density) continue;
                list.calls.emplace_back(i, RandomText(rng, codes, 0, 256));
            }
        }
        const size_t front = rng() % 3 == 0 ? 0 : rng() % bases.size();
        const size_t rear = rng() % 3 == 0 ? 0 : rng() % (bases.size() - front);
        const size_t kept = bases.size() - front - rear;
        const bool old_names = rng() % 4 == 0, with_ml = rng() % 5, with_ar = rng() % 2, with_mn = rng() % 2,
                   swap = rng() % 2;
        const auto tags = [&](size_t from, size_t size) {
            const auto [mm, ml] = Encode(bases, lists, from, from + size);
            std::vector<std::string> fields = {Text("RG", "group"), Text(old_names ? "Mm" : "MM", mm)};
            if (with_ar) fields.push_back(Text("ar", "barcode01"));
            if (with_ml) fields.push_back(Bytes(old_names ? "Ml" : "ML", ml));
            if (with_mn) fields.push_back(Int32("MN", static_cast<int32_t>(size)));
            if (swap) std::swap(fields[1], fields.back());
            return std::accumulate(fields.begin(), fields.end(), std::string());
        };
        std::string aux = tags(0, bases.size());
        SCOPED_TRACE(bases + " front " + std::to_string(front) + " rear " + std::to_string(rear));
        ASSERT_EQ(TrimModificationTags(aux, bases, front, rear), "");
        ASSERT_EQ(aux, tags(front, kept) + (with_mn ? "" : Int32("MN", static_cast<int32_t>(kept))));
    }
}

// Tags that cannot be read are dropped, all of them, never written wrong;
// the other tags stay.
TEST(TrimModificationTags, UnreadableTagsAreDropped) {
    const std::string two("\x01\x02", 2), mm = Text("MM", "C+m,0;");
    const std::pair<std::string, const char*> cases[] = {
        {Text("MM", "C+m,1,1") + Bytes("ML", two), "no ';'"},
        {Text("MM", "X+m,1;"), "no base"},
        {Text("MM", "C*m,1;"), "no strand"},
        {Text("MM", "C+,1;"), "no modification code"},
        {Text("MM", "C+m,,1;"), "no skip count"},
        {Text("MM", "C+m,4;"), "past the last 'C'"},
        {Text("MM", "C+m,99999999999999999999999;"), "past the last 'C'"},
        {Text("MM", "C+m,0,0;") + Bytes("ML", "\x01"), "more calls"},
        {mm + Bytes("ML", two), "2 probabilities"},
        {mm + Text("ML", "x"), "not an array of bytes"},
        {"MMAC", "not text"},
        {Bytes("ML", two), "ML without MM"},
        {mm + Int32("MN", 6), "MN says 6 bases, the read has 7"},
        {mm + Text("MN", "7"), "MN is not an integer"},
        {mm + mm, "MM twice"},
    };
    const std::string others = Text("RG", "group") + Text("ar", "barcode01");
    for (const auto& [fields, problem] : cases) {
        std::string aux = Text("RG", "group") + fields + Text("ar", "barcode01");
        EXPECT_TRUE(TestSupport::Holds(TrimModificationTags(aux, "ACCCGGC", 1, 1), problem)) << problem;
        EXPECT_EQ(aux, others) << problem;
    }
    // Without modification tags nothing changes; a cut longer than the read is a caller's bug.
    std::string aux = others;
    EXPECT_EQ(TrimModificationTags(aux, "ACGT", 1, 1), "");
    EXPECT_EQ(aux, others);
    EXPECT_THROW(TrimModificationTags(aux, "ACGT", 3, 2), std::invalid_argument);
}

}  // namespace
}  // namespace Common
