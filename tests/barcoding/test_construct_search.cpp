#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "barcoding/base_codes.h"
#include "barcoding/construct_search.h"
#include "barcoding/molecule_parts.h"
#include "barcoding/reference_aligner.h"
#include "barcoding/score_scale.h"
#include "barcoding/scorer_options.h"
#include "tests/support/random_bases.h"

namespace Barcoding {
namespace {

const std::vector<int>& kMatrix = TestSupport::kMatchMismatch;

std::vector<int> Gaps() {
    ScorerOptions options;
    options.open_gap1 = options.extend_gap1 = options.open_gap2 = options.extend_gap2 = 8;
    options.start_gap2 = options.end_gap2 = 9;
    return options.GapVector();
}

using TestSupport::RandomCodes;

std::vector<int> ReverseComplement(const std::vector<int>& codes) {
    std::vector<int> result(codes.rbegin(), codes.rend());
    for (int& c : result)
        c = 3 - c;
    return result;
}

// A kit of `count` random barcodes, between constant flanks of `flank` bases
// each, 24 bases long, or 40 bases long without flanks (as long as the
// flanked references: shorter ones stand out too little from random
// sequence over the length of a read). Each is also read backwards.
std::vector<SearchReference> Kit(std::mt19937& random, int count, size_t flank) {
    const auto left = RandomCodes(random, flank), right = RandomCodes(random, flank);
    std::vector<ScaleReference> forward;
    for (int k = 0; k < count; ++k) {
        std::vector<int> codes = left;
        const auto barcode = RandomCodes(random, flank > 0 ? 24 : 40);
        codes.insert(codes.end(), barcode.begin(), barcode.end());
        codes.insert(codes.end(), right.begin(), right.end());
        forward.push_back({"bc" + std::to_string(k), codes, {{"KIT", "bc" + std::to_string(k)}}});
    }
    const auto scale = ShareScoreScale(ScaleSettings{kMatrix, Gaps(), 150, 150}, forward);
    std::vector<SearchReference> references;
    for (size_t k = 0; k < forward.size(); ++k) {
        references.push_back({forward[k].name, forward[k].codes, true, scale, k});
        references.push_back({forward[k].name + " rc", ReverseComplement(forward[k].codes), false, scale, k});
    }
    return references;
}

using TestSupport::Mutate;

struct Span {
    int begin, end;
};

bool Overlaps(const Span& span, const std::vector<FoundConstruct>& found) {
    return std::any_of(found.begin(), found.end(),
                       [&](const FoundConstruct& f) { return f.begin < span.end && f.end > span.begin; });
}

// What a full alignment along the whole read finds: every reference aligned
// in overlapping windows that step by its length, so that any copy of up to
// twice its length lies whole in one of them; a copy counts when its raw
// score reaches the bar the search uses.
std::vector<Span> FullAlignment(const std::vector<SearchReference>& references, const ConstructSearch& search,
                                const std::vector<uint8_t>& read) {
    std::vector<std::vector<int>> codes;
    size_t longest = 0;
    for (const auto& reference : references) {
        codes.push_back(reference.codes);
        longest = std::max(longest, reference.codes.size());
    }
    const int band = static_cast<int>(3 * longest + 16);
    auto matrix = kMatrix;
    const brim::data_wrappers::MatView<int> view(matrix.data(), 4, 4);
    const auto aligner = MakeCpuReferenceAligner(view, Gaps(), band, codes);
    std::vector<Span> hits;
    PairAlignment::Path path;
    for (size_t r = 0; r < references.size(); ++r) {
        const size_t length = references[r].codes.size();
        const size_t window = 2 * length + 16;
        for (size_t begin = 0; begin < read.size(); begin += length) {
            const size_t end = std::min(read.size(), begin + window);
            const std::vector<int> stretch(read.begin() + static_cast<long>(begin),
                                           read.begin() + static_cast<long>(end));
            if (aligner->AlignOne(r, stretch, path) < search.MinRaw(r)) continue;
            int first = -1, last = -1;
            for (const auto& [ref, query] : path) {
                if (ref < 0 || query < 0) continue;
                if (first < 0) first = query;
                last = query;
            }
            if (first >= 0) hits.push_back({static_cast<int>(begin) + first, static_cast<int>(begin) + last + 1});
            if (end == read.size()) break;
        }
    }
    return hits;
}

// Random reads with constructs planted at random places and error rates: the
// search finds every construct that aligning along the whole read finds, and
// nearly every planted copy up to 8 % errors.
TEST(ConstructSearchTest, FindsWhatAFullAlignmentFinds) {
    std::mt19937 random(1801);
    const std::vector<std::pair<int, size_t>> kits = {{12, 20}, {8, 0}};  // (barcodes, flank length)
    for (const auto& [count, flank] : kits) {
        const auto references = Kit(random, count, flank);
        ConstructSearch search(references, kMatrix, Gaps());
        int planted_clean = 0, found_clean = 0, full_hits = 0;
        for (int read_index = 0; read_index < 30; ++read_index) {
            std::vector<int> read = RandomCodes(random, 200 + random() % 400);
            std::vector<std::pair<Span, double>> planted;
            const int copies = static_cast<int>(random() % 4);
            for (int c = 0; c < copies; ++c) {
                const double rate = std::vector<double>{0, 0.03, 0.08, 0.13, 0.2}[random() % 5];
                const auto copy = Mutate(random, references[random() % references.size()].codes, rate);
                const int begin = static_cast<int>(read.size());
                read.insert(read.end(), copy.begin(), copy.end());
                planted.push_back({{begin, static_cast<int>(read.size())}, rate});
                const auto spacer = RandomCodes(random, 100 + random() % 500);
                read.insert(read.end(), spacer.begin(), spacer.end());
            }
            const std::vector<uint8_t> bytes(read.begin(), read.end());
            std::vector<FoundConstruct> found;
            search.Find(bytes, found);
            for (const Span& hit : FullAlignment(references, search, bytes)) {
                ++full_hits;
                EXPECT_TRUE(Overlaps(hit, found))
                    << "kit of " << count << ", read " << read_index << ": a full alignment finds a construct at "
                    << hit.begin << ".." << hit.end << " that the search misses";
            }
            for (const auto& [span, rate] : planted)
                if (rate <= 0.08) {
                    ++planted_clean;
                    found_clean += Overlaps(span, found);
                }
            for (size_t k = 1; k < found.size(); ++k)
                EXPECT_LE(found[k - 1].begin, found[k].begin) << "constructs in read order";
        }
        EXPECT_GT(full_hits, 10);
        EXPECT_GE(found_clean, planted_clean * 95 / 100) << "kit of " << count;
    }
}

// Random sequence holds no construct: every hit on a normal read would reject it.
TEST(ConstructSearchTest, RandomSequenceHoldsNone) {
    std::mt19937 random(1802);
    for (size_t flank : {size_t{20}, size_t{0}}) {
        const auto references = Kit(random, 24, flank);
        ConstructSearch search(references, kMatrix, Gaps());
        std::vector<FoundConstruct> found;
        for (int k = 0; k < 20; ++k) {
            const auto read = RandomCodes(random, 10000);
            search.Find(std::vector<uint8_t>(read.begin(), read.end()), found);
            EXPECT_TRUE(found.empty()) << "flank " << flank << ", read " << k << ": " << found.size();
        }
    }
}

// Searching within read stretches finds the constructs that lie wholly in
// one of them, and nothing that reaches outside.
TEST(ConstructSearchTest, SearchesOnlyWithinTheStretchesGiven) {
    std::mt19937 random(1803);
    const auto references = Kit(random, 12, 20);
    ConstructSearch search(references, kMatrix, Gaps());
    std::vector<int> read = RandomCodes(random, 300);
    std::vector<Span> planted;
    for (int c = 0; c < 3; ++c) {
        const auto& copy = references[random() % references.size()].codes;
        planted.push_back({static_cast<int>(read.size()), static_cast<int>(read.size() + copy.size())});
        read.insert(read.end(), copy.begin(), copy.end());
        const auto spacer = RandomCodes(random, 300);
        read.insert(read.end(), spacer.begin(), spacer.end());
    }
    const std::vector<uint8_t> bytes(read.begin(), read.end());
    const int length = static_cast<int>(bytes.size());
    std::vector<FoundConstruct> whole, found;
    search.Find(bytes, whole);
    ASSERT_EQ(whole.size(), 3u);
    search.Find(bytes, {{0, length}}, found);
    EXPECT_EQ(found.size(), 3u) << "the whole read as one stretch";
    struct Case {
        const char* name;
        std::vector<std::pair<int, int>> within;
        std::vector<int> expected;  // planted copies found
    };
    const std::vector<Case> cases = {
        {"middle copy left out", {{0, planted[1].begin}, {planted[1].end, length}}, {0, 2}},
        {"middle copy cut in half", {{0, (planted[1].begin + planted[1].end) / 2}}, {0}},
        {"only the middle copy", {{planted[1].begin, planted[1].end}}, {1}},
        {"nothing", {}, {}},
    };
    for (const auto& c : cases) {
        search.Find(bytes, c.within, found);
        std::vector<int> got;
        for (const auto& construct : found) {
            EXPECT_TRUE(
                std::any_of(c.within.begin(), c.within.end(),
                            [&](const auto& w) { return construct.begin >= w.first && construct.end <= w.second; }))
                << c.name << ": " << construct.begin << ".." << construct.end << " reaches outside";
            for (size_t p = 0; p < planted.size(); ++p)
                if (Overlaps(planted[p], {construct})) got.push_back(static_cast<int>(p));
        }
        EXPECT_EQ(got, c.expected) << c.name;
    }
}

// Every character, at every place of a short read and among long runs of
// bases: codes as the scorer's table gives them, and an error for any
// character the table does not read as a base.
TEST(ConstructSearchTest, ReadCodesAgreeWithTheBaseTable) {
    std::mt19937 random(1804);
    const std::string bases = "ACGTUacgtu";
    std::vector<uint8_t> codes;
    for (int c = 0; c < 256; ++c) {
        std::string read;
        for (size_t k = 0, length = 1 + random() % 70; k < length; ++k)
            read += bases[random() % bases.size()];
        read.insert(read.begin() + static_cast<long>(random() % (read.size() + 1)), static_cast<char>(c));
        if (kBaseCodes[static_cast<unsigned char>(c)] < 0) {
            EXPECT_THROW(ReadCodes(read, codes), std::runtime_error) << "character " << c;
            continue;
        }
        ReadCodes(read, codes);
        ASSERT_EQ(codes.size(), read.size());
        for (size_t k = 0; k < read.size(); ++k)
            ASSERT_EQ(codes[k], kBaseCodes[static_cast<unsigned char>(read[k])]) << "character " << c << " at " << k;
    }
}

FoundConstruct At(int begin, int end, bool starts) {
    FoundConstruct construct;
    construct.begin = begin;
    construct.end = end;
    construct.starts_molecule = starts;
    return construct;
}

// A molecule's front construct is cut before, its rear construct after; a
// rear followed closely by the next front is cut once between them.
TEST(MoleculePartsTest, CutsAtEachMoleculeBoundary) {
    struct Case {
        const char* name;
        int length;
        std::vector<FoundConstruct> internal;
        std::vector<std::pair<int, int>> parts;  // kept parts
        int dropped;
    };
    const std::vector<Case> cases = {
        {"none", 1000, {}, {{0, 1000}}, 0},
        {"front inside", 1000, {At(400, 460, true)}, {{0, 400}, {400, 1000}}, 0},
        {"rear inside", 1000, {At(400, 460, false)}, {{0, 460}, {460, 1000}}, 0},
        {"rear then front close by", 1000, {At(400, 460, false), At(500, 560, true)}, {{0, 480}, {480, 1000}}, 0},
        {"rear then front far apart",
         1000,
         {At(300, 360, false), At(600, 660, true)},
         {{0, 360}, {360, 600}, {600, 1000}},
         0},
        {"short part dropped", 1000, {At(40, 100, true)}, {{40, 1000}}, 1},
        {"front at the very start", 1000, {At(0, 60, true)}, {{0, 1000}}, 0},
    };
    for (const auto& c : cases) {
        const auto parts = CutIntoMolecules(c.length, c.internal, 100);
        std::vector<std::pair<int, int>> kept;
        int dropped = 0, covered = 0;
        for (const auto& part : parts) {
            EXPECT_EQ(part.begin, covered) << c.name << ": parts cover the read in order";
            covered = part.end;
            if (part.kept)
                kept.emplace_back(part.begin, part.end);
            else
                ++dropped;
        }
        EXPECT_EQ(covered, c.length) << c.name;
        EXPECT_EQ(kept, c.parts) << c.name;
        EXPECT_EQ(dropped, c.dropped) << c.name;
    }
}

}  // namespace
}  // namespace Barcoding
