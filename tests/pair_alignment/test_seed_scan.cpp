#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "pair_alignment/kmer_codes.h"
#include "pair_alignment/pattern_edits.h"
#include "pair_alignment/seed_scan.h"
#include "tests/support/random_bases.h"

namespace PairAlignment {

bool operator==(const SeedScan::Spot& a, const SeedScan::Spot& b) {
    return std::tie(a.target, a.begin, a.end, a.cover) == std::tie(b.target, b.begin, b.end, b.cover);
}

namespace {

using Codes = std::vector<int>;
using TestSupport::RandomCodes;

Codes Join(Codes a, const Codes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The spots by brute force, taking only the families (Members) from the scan:
// every k-mer of every reference compared at every read position, and for
// every seed, in order, all earlier seeds of its target looked at.
std::vector<SeedScan::Spot> NaiveFind(const SeedScan& scan, const std::vector<Codes>& references, const Codes& read) {
    const int k = scan.SeedLength(), targets = scan.Targets();
    std::vector<int> family_of(references.size(), -1), length(targets, 0);
    for (int t = 0; t < targets; ++t)
        for (uint32_t m : scan.Members(t)) {
            length[t] = std::max<int>(length[t], references[m].size());
            if (scan.IsFamily(t)) family_of[m] = t;
        }
    // k-mer -> offset -> references holding it there.
    std::map<Codes, std::map<int, std::vector<int>>> places;
    for (size_t r = 0; r < references.size(); ++r)
        for (size_t o = 0; o + k <= references[r].size(); ++o)
            places[Codes(references[r].begin() + o, references[r].begin() + o + k)][o].push_back(r);
    // (position, diagonal, target) per target, in read order; at one position
    // a reference's own seed before its family's. A k-mer is its family's when
    // every holder is a member and they are at least half of it.
    using Seed = std::tuple<int, int, int>;
    std::vector<std::vector<Seed>> hits(targets);
    for (int p = 0; p + k <= static_cast<int>(read.size()); ++p) {
        const auto found = places.find(Codes(read.begin() + p, read.begin() + p + k));
        if (found == places.end()) continue;
        for (const auto& [offset, holders] : found->second) {
            const int family = family_of[holders.front()];
            bool shared = family >= 0 && 2 * holders.size() >= scan.Members(family).size();
            for (int h : holders)
                shared = shared && family_of[h] == family;
            for (int h : shared ? std::vector<int>{family} : holders)
                hits[h].emplace_back(p, p - offset, h);
        }
    }
    std::vector<SeedScan::Spot> spots;
    auto group = [&](int target, std::vector<Seed> seeds) {
        std::stable_sort(seeds.begin(), seeds.end(), [](auto& x, auto& y) { return std::get<0>(x) < std::get<0>(y); });
        const int drift = 2 + length[target] / 8, reach = length[target] + 2 * drift;
        const int need = std::min(length[target], std::max(k + 3, length[target] / 4));
        const size_t before = spots.size();
        for (size_t i = 0; i < seeds.size(); ++i) {
            const auto [position, diagonal, who] = seeds[i];
            int cover = 0, covered_to = -1000000, low = diagonal, high = diagonal;
            bool own = false;
            for (size_t j = 0; j <= i; ++j) {
                const auto [p, d, t] = seeds[j];
                if (p < position - reach || std::abs(d - diagonal) > 2 * drift) continue;
                own = own || t == target;
                cover += p + k - std::max(p, covered_to);
                covered_to = p + k;
                low = std::min(low, d);
                high = std::max(high, d);
            }
            if (cover < need || !own) continue;
            const int begin = std::max(0, low - drift);
            const int end = std::min<int>(read.size(), high + length[target] + drift);
            if (spots.size() == before || spots.back().end < begin) spots.push_back({uint32_t(target), begin, end, 0});
            SeedScan::Spot& last = spots.back();  // merged with an overlapping spot of the target
            last = {last.target, std::min(last.begin, begin), std::max(last.end, end), std::max(last.cover, cover)};
        }
    };
    for (int t = references.size(); t < targets; ++t)
        group(t, hits[t]);
    for (int r = 0; r < static_cast<int>(references.size()); ++r) {
        std::vector<Seed> seeds = hits[r];
        if (!seeds.empty() && family_of[r] >= 0)
            seeds.insert(seeds.end(), hits[family_of[r]].begin(), hits[family_of[r]].end());
        group(r, seeds);
    }
    std::stable_sort(spots.begin(), spots.end(), [](auto& x, auto& y) { return x.begin < y.begin; });
    return spots;
}

// Kits with and without constant flanks, many and few references (so seeds
// of 5 to 9 bases), on reads of random sequence with damaged copies of the
// references: the scan's spots are exactly the brute-force ones.
TEST(SeedScanTest, SpotsMatchABruteForceGrouping) {
    std::mt19937 random(2611);
    // Count, flank, barcode length and the seed length chosen (longer between flanks).
    const std::vector<std::tuple<int, int, int, int>> kits = {{4, 0, 24, 5},   {12, 0, 56, 7}, {12, 12, 24, 7},
                                                              {48, 13, 24, 8}, {96, 9, 24, 8}, {96, 0, 40, 7},
                                                              {6, 30, 16, 6},  {200, 0, 60, 9}};
    for (const auto& [count, flank, barcode, k] : kits) {
        const Codes left = RandomCodes(random, flank), right = RandomCodes(random, flank);
        std::vector<Codes> references;
        for (int b = 0; b < count; ++b) {  // each barcode and its reverse complement
            const Codes codes = Join(Join(left, RandomCodes(random, barcode)), right);
            Codes reverse(codes.size());
            std::transform(codes.rbegin(), codes.rend(), reverse.begin(), [](int c) { return 3 - c; });
            references.insert(references.end(), {codes, reverse});
        }
        const SeedScan scan(references);
        EXPECT_EQ(scan.SeedLength(), k) << "kit of " << count;
        SeedScan::Work work;
        std::vector<SeedScan::Spot> spots;
        for (int r = 0; r < 6; ++r) {
            Codes read = RandomCodes(random, 50 + random() % 300);
            // Eight copies among spacers; in the last read, 40 more of one
            // reference, more hits than the scan first makes room for.
            const Codes& repeated = references[random() % references.size()];
            for (int c = 0; c < (r == 5 ? 48 : 8); ++c) {
                const Codes& reference = c < 8 ? references[random() % references.size()] : repeated;
                const Codes copy = TestSupport::Mutate(random, reference, c < 8 ? 0.05 * (random() % 4) : 0.05);
                read = Join(Join(read, copy), RandomCodes(random, c < 8 ? random() % 200 : 0));
            }
            if (r % 2 == 0) read = Join(read, repeated);  // a whole copy last: its last seed ends the read
            const std::vector<uint8_t> bytes(read.begin(), read.end());
            scan.Find(bytes.data(), bytes.size(), spots, work);
            EXPECT_EQ(spots, NaiveFind(scan, references, read)) << "kit of " << count << ", read " << r;
        }
    }
}

// Every k-mer length, lengths around each pass's reach (and empty), one
// scratch reused throughout so that longer earlier calls leave their data
// behind: the k-mers are those rolled base by base.
TEST(SeedScanTest, KmerCodesMatchRolledKmers) {
    std::mt19937 random(1805);
    Kmers kmers;
    for (int round = 0; round < 400; ++round) {
        const int k = 1 + round % kMaxKmerLength;
        const Codes codes = RandomCodes(random, round % 7 == 0 ? 200 + random() % 300 : random() % 40);
        const std::vector<uint8_t> sequence(codes.begin(), codes.end());
        std::vector<uint32_t> expected;
        for (size_t p = 0; p + k <= sequence.size(); ++p) {
            uint32_t kmer = 0;
            for (int i = 0; i < k; ++i)
                kmer = kmer * 4 + sequence[p + i];
            expected.push_back(kmer);
        }
        ASSERT_EQ(KmerCodes(sequence.data(), sequence.size(), k, kmers), expected.size()) << "k " << k;
        EXPECT_TRUE(k <= kMaxShortKmer ? std::equal(expected.begin(), expected.end(), kmers.eights.begin())
                                       : std::equal(expected.begin(), expected.end(), kmers.codes.begin()))
            << "k " << k << ", length " << sequence.size();
    }
}

// The textbook table: row 0 is free (the pattern may start at any text base),
// column 0 costs a deletion per pattern base; the last row is the answer.
std::vector<int> NaiveEnds(const Codes& pattern, const std::vector<uint8_t>& text, int most) {
    std::vector<int> column(pattern.size() + 1), ends;
    for (size_t i = 0; i < column.size(); ++i)
        column[i] = i;
    for (size_t j = 0; j < text.size(); ++j) {
        int diagonal = std::exchange(column[0], 0);  // the cell up and left of the one computed
        for (size_t i = 1; i < column.size(); ++i)
            diagonal = std::exchange(
                column[i], std::min({column[i] + 1, column[i - 1] + 1, diagonal + (pattern[i - 1] != text[j])}));
        if (column.back() <= most) ends.push_back(j);
    }
    return ends;
}

// Patterns of one to three blocks of 64, texts holding damaged copies of
// them, every bound from exact to loose; each round's pattern also runs
// beside the previous round's in EndsOfTwo (texts of different lengths, one
// or both patterns beyond one block).
TEST(PatternEditsTest, EndsMatchTheFullTable) {
    std::mt19937 random(1803);
    std::tuple<Codes, std::vector<uint8_t>, int> last = {{0}, {}, 0};  // the previous round's
    for (int round = 0; round < 300; ++round) {
        const Codes pattern = RandomCodes(random, 1 + random() % 150);
        const Codes codes = RandomCodes(random, random() % 300);
        std::vector<uint8_t> text(codes.begin(), codes.end());
        const size_t at = text.empty() ? 0 : random() % text.size();
        for (size_t i = 0; i < pattern.size() && at + i < text.size(); ++i)
            if (random() % 8 != 0) text[at + i] = pattern[i];
        const int most = random() % (pattern.size() / 2 + 2);
        const std::vector<int> naive = NaiveEnds(pattern, text, most);
        std::vector<int> ends, ends_last;
        PatternEdits(pattern).Ends(text.data(), text.size(), most, ends);
        EXPECT_EQ(ends, naive) << "round " << round;
        const auto& [last_pattern, last_text, last_most] = last;
        PatternEdits::EndsOfTwo(PatternEdits(last_pattern), last_text.data(), last_text.size(), last_most, ends_last,
                                PatternEdits(pattern), text.data(), text.size(), most, ends);
        EXPECT_EQ(ends_last, NaiveEnds(last_pattern, last_text, last_most)) << "round " << round << ", first of two";
        EXPECT_EQ(ends, naive) << "round " << round << ", second of two";
        last = {pattern, text, most};
    }
}

}  // namespace
}  // namespace PairAlignment
