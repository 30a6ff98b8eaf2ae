#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "barcoding/base_codes.h"
#include "barcoding/construct_search.h"
#include "barcoding/molecule_parts.h"
#include "barcoding/reference_aligner.h"
#include "barcoding/score_scale.h"
#include "tests/support/random_bases.h"

namespace Barcoding {
namespace {

using TestSupport::RandomCodes;
const std::vector<int>& kMatrix = TestSupport::kMatchMismatch;
const std::vector<int> kGaps = {0, 0, 8, 8, 9, 9, 8, 8};  // start, end, open, extend; reference, then read

// `count` random barcodes between flanks of `flank` bases, 24 long, or 40 without flanks
// (shorter ones stand out too little from a whole read's random sequence); each also reversed.
std::vector<SearchReference> Kit(std::mt19937& random, int count, size_t flank) {
    const auto left = RandomCodes(random, flank), right = RandomCodes(random, flank);
    std::vector<ScaleReference> forward;
    for (int k = 0; k < count; ++k) {
        std::vector<int> codes = left, barcode = RandomCodes(random, flank > 0 ? 24 : 40);
        codes.insert(codes.end(), barcode.begin(), barcode.end());
        codes.insert(codes.end(), right.begin(), right.end());
        forward.push_back({"bc" + std::to_string(k), codes, {{"KIT", "bc" + std::to_string(k)}}});
    }
    const auto scale = ShareScoreScale(ScaleSettings{kMatrix, kGaps, 150, 150}, forward);
    std::vector<SearchReference> references;
    for (size_t k = 0; k < forward.size(); ++k) {
        std::vector<int> reverse(forward[k].codes.rbegin(), forward[k].codes.rend());
        for (int& c : reverse)
            c = 3 - c;
        references.push_back({forward[k].name, forward[k].codes, true, scale, k});
        references.push_back({forward[k].name + " rc", reverse, false, scale, k});
    }
    return references;
}

struct Span {
    int begin, end;
};

bool Overlaps(const Span& span, const std::vector<FoundConstruct>& found) {
    return std::any_of(found.begin(), found.end(),
                       [&](const FoundConstruct& f) { return f.begin < span.end && f.end > span.begin; });
}

// Naive search: every reference aligned in overlapping windows that step by its length, so
// that any copy up to twice its length lies whole in one; a hit reaches the search's bar.
std::vector<Span> FullAlignment(const std::vector<SearchReference>& references, const ConstructSearch& search,
                                const std::vector<uint8_t>& read) {
    std::vector<std::vector<int>> codes;
    size_t longest = 0;
    for (const auto& reference : references) {
        codes.push_back(reference.codes);
        longest = std::max(longest, reference.codes.size());
    }
    auto matrix = kMatrix;
    const brim::data_wrappers::MatView<int> view(matrix.data(), 4, 4);
    const auto aligner = MakeCpuReferenceAligner(view, kGaps, static_cast<int>(3 * longest + 16), codes);
    std::vector<Span> hits;
    PairAlignment::Path path;
    for (size_t r = 0; r < references.size(); ++r) {
        const size_t length = references[r].codes.size();
        for (size_t begin = 0; begin < read.size(); begin += length) {
            const size_t end = std::min(read.size(), begin + 2 * length + 16);
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

// Planted constructs: all the naive search finds, nearly every copy up to 8 % errors and nothing
// in random sequence (that would reject normal reads); within stretches, nothing reaching out.
TEST(ConstructSearchTest, FindsWhatAFullAlignmentFinds) {
    std::mt19937 random(1801);
    for (const auto& [count, flank] : std::vector<std::pair<int, size_t>>{{24, 20}, {24, 0}}) {
        const auto references = Kit(random, count, flank);
        ConstructSearch search(references, kMatrix, kGaps);
        int planted_clean = 0, found_clean = 0, full_hits = 0;
        for (int read_index = 0; read_index < 50; ++read_index) {
            SCOPED_TRACE("flanks " + std::to_string(flank) + ", read " + std::to_string(read_index));
            // The first reads are long and random: aligning along them would take long and find nothing.
            const bool long_random = read_index < 20;
            std::vector<int> read = RandomCodes(random, long_random ? 10000 : 200 + random() % 400);
            std::vector<std::pair<Span, double>> planted;
            for (int copies = long_random ? 0 : static_cast<int>(random() % 4); copies > 0; --copies) {
                const double rate = std::vector<double>{0, 0.03, 0.08, 0.13, 0.2}[random() % 5];
                const auto copy = TestSupport::Mutate(random, references[random() % references.size()].codes, rate);
                planted.push_back({{static_cast<int>(read.size()), static_cast<int>(read.size() + copy.size())}, rate});
                read.insert(read.end(), copy.begin(), copy.end());
                const auto spacer = RandomCodes(random, 100 + random() % 500);
                read.insert(read.end(), spacer.begin(), spacer.end());
            }
            const std::vector<uint8_t> bytes(read.begin(), read.end());
            std::vector<FoundConstruct> found, within_found;
            search.Find(bytes, found);
            for (const Span& hit : long_random ? std::vector<Span>{} : FullAlignment(references, search, bytes)) {
                ++full_hits;
                EXPECT_TRUE(Overlaps(hit, found)) << "the search misses " << hit.begin << ".." << hit.end;
            }
            for (const auto& construct : found)
                EXPECT_TRUE(std::any_of(planted.begin(), planted.end(),
                                        [&](const auto& copy) { return Overlaps(copy.first, {construct}); }))
                    << "a construct in random sequence at " << construct.begin;
            EXPECT_TRUE(std::is_sorted(found.begin(), found.end(), [](const auto& x, const auto& y) {
                return x.begin < y.begin;
            })) << "constructs in read order";
            for (const auto& [span, rate] : planted) {
                planted_clean += rate <= 0.08;
                found_clean += rate <= 0.08 && Overlaps(span, found);
            }

            // All of the read but one random stretch.
            const int length = static_cast<int>(bytes.size()), cut = static_cast<int>(random() % bytes.size());
            const int cut_end = std::min(length, cut + 50 + static_cast<int>(random() % 300));
            auto outside_the_cut = [&](const FoundConstruct& c) { return c.end <= cut || c.begin >= cut_end; };
            search.Find(bytes, {{0, cut}, {cut_end, length}}, within_found);
            for (const auto& construct : found)
                EXPECT_TRUE(!outside_the_cut(construct) || Overlaps({construct.begin, construct.end}, within_found))
                    << construct.begin;
            for (const auto& construct : within_found)
                EXPECT_TRUE(outside_the_cut(construct) && Overlaps({construct.begin, construct.end}, found))
                    << construct.begin << ".." << construct.end << " around the cut " << cut << ".." << cut_end;
        }
        EXPECT_GT(full_hits, 10);
        EXPECT_GE(found_clean, planted_clean * 95 / 100) << "flanks " << flank;
    }
}

// Every character anywhere in a read: the table's code, or an error where it is no base.
TEST(ConstructSearchTest, ReadCodesAgreeWithTheBaseTable) {
    std::mt19937 random(1804);
    std::vector<uint8_t> codes;
    for (int c = 0; c < 256; ++c) {
        std::string read;
        for (size_t k = 0, length = 1 + random() % 70; k < length; ++k)
            read += "ACGTUacgtu"[random() % 10];
        read.insert(read.begin() + static_cast<long>(random() % (read.size() + 1)), static_cast<char>(c));
        if (kBaseCodes[c] < 0) {
            EXPECT_THROW(ReadCodes(read, codes), std::runtime_error) << "character " << c;
            continue;
        }
        ReadCodes(read, codes);
        EXPECT_TRUE(std::equal(read.begin(), read.end(), codes.begin(), codes.end(),
                               [](char b, uint8_t code) { return kBaseCodes[static_cast<unsigned char>(b)] == code; }))
            << "character " << c;
    }
}

// A molecule's front construct is cut before, its rear construct after; a
// rear followed closely by the next front is cut once between them.
TEST(MoleculePartsTest, CutsAtEachMoleculeBoundary) {
    auto at = [](int begin, int end, bool starts) {
        return FoundConstruct{.begin = begin, .end = end, .starts_molecule = starts};
    };
    const struct {
        const char* name;
        std::vector<FoundConstruct> internal;
        std::vector<std::pair<int, int>> parts;  // kept parts
        int dropped;
    } cases[] = {
        {"none", {}, {{0, 1000}}, 0},
        {"front inside", {at(400, 460, true)}, {{0, 400}, {400, 1000}}, 0},
        {"rear inside", {at(400, 460, false)}, {{0, 460}, {460, 1000}}, 0},
        {"rear, front close by", {at(400, 460, false), at(500, 560, true)}, {{0, 480}, {480, 1000}}, 0},
        {"rear, front far apart", {at(300, 360, false), at(600, 660, true)}, {{0, 360}, {360, 600}, {600, 1000}}, 0},
        {"short part dropped", {at(40, 100, true)}, {{40, 1000}}, 1},
        {"front at the very start", {at(0, 60, true)}, {{0, 1000}}, 0},
    };
    for (const auto& c : cases) {
        std::vector<std::pair<int, int>> kept;
        int dropped = 0, covered = 0;
        for (const auto& part : CutIntoMolecules(1000, c.internal, 100)) {
            EXPECT_EQ(part.begin, covered) << c.name << ": parts cover the read in order";
            covered = part.end;
            if (part.kept)
                kept.emplace_back(part.begin, part.end);
            else
                ++dropped;
        }
        EXPECT_EQ(covered, 1000) << c.name;
        EXPECT_EQ(kept, c.parts) << c.name;
        EXPECT_EQ(dropped, c.dropped) << c.name;
    }
}

}  // namespace
}  // namespace Barcoding
