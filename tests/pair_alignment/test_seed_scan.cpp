#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "pair_alignment/kmer_codes.h"
#include "pair_alignment/seed_scan.h"
#include "tests/support/random_bases.h"

namespace PairAlignment {
namespace {

using Codes = std::vector<int>;

using TestSupport::Mutate;
using TestSupport::RandomCodes;

// The spots by brute force, taking only the families (Members) from the
// scan: every k-mer of every reference compared at every read position, and
// for every seed, in order, all earlier seeds of its target looked at.
struct NaiveSpot {
    uint32_t target;
    int begin, end, cover;
    bool operator==(const NaiveSpot&) const = default;
};

std::vector<NaiveSpot> NaiveFind(const SeedScan& scan, const std::vector<Codes>& references, const Codes& read) {
    const int k = scan.SeedLength();
    const size_t targets = scan.Targets();
    std::vector<int64_t> family_of(references.size(), -1);
    std::vector<int> length(targets, 0);
    for (size_t t = 0; t < targets; ++t)
        for (uint32_t m : scan.Members(static_cast<uint32_t>(t))) {
            length[t] = std::max(length[t], static_cast<int>(references[m].size()));
            if (scan.IsFamily(static_cast<uint32_t>(t))) family_of[m] = static_cast<int64_t>(t);
        }

    // k-mer -> offset -> references holding it there.
    std::map<Codes, std::map<int, std::vector<uint32_t>>> places;
    for (size_t r = 0; r < references.size(); ++r)
        for (int o = 0; o + k <= static_cast<int>(references[r].size()); ++o)
            places[Codes(references[r].begin() + o, references[r].begin() + o + k)][o].push_back(
                static_cast<uint32_t>(r));
    // Seeds per target, in read order; at one position a reference's own before its family's.
    std::vector<std::vector<std::tuple<int, int, uint32_t>>> hits(targets);  // (position, diagonal, target)
    for (int p = 0; p + k <= static_cast<int>(read.size()); ++p) {
        const auto found = places.find(Codes(read.begin() + p, read.begin() + p + k));
        if (found == places.end()) continue;
        for (const auto& [offset, holders] : found->second) {
            const int64_t family = family_of[holders.front()];
            bool one_family = family >= 0 && 2 * holders.size() >= scan.Members(static_cast<uint32_t>(family)).size();
            for (uint32_t h : holders)
                one_family = one_family && family_of[h] == family;
            if (one_family) {
                hits[static_cast<size_t>(family)].emplace_back(p, p - offset, static_cast<uint32_t>(family));
            } else {
                for (uint32_t h : holders)
                    hits[h].emplace_back(p, p - offset, h);
            }
        }
    }
    std::vector<NaiveSpot> spots;
    auto group = [&](uint32_t target, std::vector<std::tuple<int, int, uint32_t>> seeds) {
        std::stable_sort(seeds.begin(), seeds.end(),
                         [](const auto& x, const auto& y) { return std::get<0>(x) < std::get<0>(y); });
        const int drift = 2 + length[target] / 8;
        const int reach = length[target] + 2 * drift;
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
            const int end = std::min(static_cast<int>(read.size()), high + length[target] + drift);
            if (spots.size() > before && spots.back().end >= begin) {
                spots.back().begin = std::min(spots.back().begin, begin);
                spots.back().end = std::max(spots.back().end, end);
                spots.back().cover = std::max(spots.back().cover, cover);
            } else {
                spots.push_back({target, begin, end, cover});
            }
        }
    };
    for (size_t t = references.size(); t < targets; ++t)
        group(static_cast<uint32_t>(t), hits[t]);
    for (size_t r = 0; r < references.size(); ++r) {
        if (hits[r].empty()) continue;
        auto seeds = hits[r];
        if (family_of[r] >= 0) {
            const auto& family = hits[static_cast<size_t>(family_of[r])];
            seeds.insert(seeds.end(), family.begin(), family.end());
        }
        group(static_cast<uint32_t>(r), seeds);
    }
    std::stable_sort(spots.begin(), spots.end(),
                     [](const NaiveSpot& x, const NaiveSpot& y) { return x.begin < y.begin; });
    return spots;
}

// Kits with and without constant flanks, many and few references (so seeds
// of 5 to 8 bases), on reads of random sequence with damaged copies of the
// references: the scan's spots are exactly the brute-force ones.
TEST(SeedScanTest, SpotsMatchABruteForceGrouping) {
    std::mt19937 random(2611);
    struct Kit {
        int count;
        size_t flank, barcode;
        int k;  // the seed length chosen: longer between flanks, whose seeds still find a damaged barcode
    };
    const std::vector<Kit> kits = {{4, 0, 24, 5},  {12, 0, 56, 7}, {12, 12, 24, 7}, {48, 13, 24, 8},
                                   {96, 9, 24, 8}, {96, 0, 40, 7}, {6, 30, 16, 6},  {200, 0, 60, 9}};
    for (const auto& kit : kits) {
        const Codes left = RandomCodes(random, kit.flank), right = RandomCodes(random, kit.flank);
        std::vector<Codes> references;
        for (int b = 0; b < kit.count; ++b) {
            Codes codes = left;
            const Codes barcode = RandomCodes(random, kit.barcode);
            codes.insert(codes.end(), barcode.begin(), barcode.end());
            codes.insert(codes.end(), right.begin(), right.end());
            references.push_back(codes);
            references.emplace_back(codes.rbegin(), codes.rend());
            for (int& c : references.back())
                c = 3 - c;
        }
        const SeedScan scan(references);
        EXPECT_EQ(scan.SeedLength(), kit.k) << "kit of " << kit.count << " (flank " << kit.flank << ")";
        SeedScan::Work work;
        std::vector<SeedScan::Spot> spots;
        size_t total = 0;
        for (int r = 0; r < 6; ++r) {
            Codes read = RandomCodes(random, 50 + random() % 300);
            for (int c = 0; c < 8; ++c) {
                const Codes copy = Mutate(random, references[random() % references.size()], 0.05 * (random() % 4));
                read.insert(read.end(), copy.begin(), copy.end());
                const Codes spacer = RandomCodes(random, random() % 200);
                read.insert(read.end(), spacer.begin(), spacer.end());
            }
            if (r == 5) {  // one reference over and over: more hits than the scan first makes room for
                const Codes& repeated = references[random() % references.size()];
                for (int c = 0; c < 40; ++c) {
                    const Codes copy = Mutate(random, repeated, 0.05);
                    read.insert(read.end(), copy.begin(), copy.end());
                }
            }
            if (r % 2 == 0) {  // a whole copy as the read's last bases: its last seed ends the read
                const Codes& last = references[random() % references.size()];
                read.insert(read.end(), last.begin(), last.end());
            }
            const std::vector<uint8_t> bytes(read.begin(), read.end());
            scan.Find(bytes.data(), bytes.size(), spots, work);
            std::vector<NaiveSpot> got;
            for (const auto& spot : spots)
                got.push_back({spot.target, spot.begin, spot.end, spot.cover});
            const auto expected = NaiveFind(scan, references, read);
            EXPECT_EQ(got, expected) << "kit of " << kit.count << " (flank " << kit.flank << ", k " << scan.SeedLength()
                                     << "), read " << r;
            total += got.size();
        }
        EXPECT_GT(total, 12u) << "kit of " << kit.count;
    }
}

// Every k-mer length, sequence lengths around each pass's reach (and empty),
// one scratch reused throughout so that longer earlier calls leave their
// data behind: the k-mers are those rolled base by base.
TEST(SeedScanTest, KmerCodesMatchRolledKmers) {
    std::mt19937 random(1805);
    Kmers kmers;
    for (int round = 0; round < 400; ++round) {
        const int k = 1 + round % kMaxKmerLength;
        const size_t length = round % 7 == 0 ? 200 + random() % 300 : random() % 40;
        std::vector<uint8_t> sequence(length);
        for (auto& c : sequence)
            c = static_cast<uint8_t>(random() % 4);
        std::vector<uint32_t> expected;
        for (size_t p = 0; p + static_cast<size_t>(k) <= length; ++p) {
            uint32_t kmer = 0;
            for (int i = 0; i < k; ++i)
                kmer = kmer * 4 + sequence[p + static_cast<size_t>(i)];
            expected.push_back(kmer);
        }
        const size_t count = KmerCodes(sequence.data(), length, k, kmers);
        ASSERT_EQ(count, expected.size()) << "k " << k << ", length " << length;
        const bool equal = k <= kMaxShortKmer ? std::equal(expected.begin(), expected.end(), kmers.eights.begin())
                                              : std::equal(expected.begin(), expected.end(), kmers.codes.begin());
        EXPECT_TRUE(equal) << "k " << k << ", length " << length;
    }
}

}  // namespace
}  // namespace PairAlignment
