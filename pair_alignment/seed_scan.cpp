// The k-mers of every reference sit in a table indexed by the k-mer's 2-bit
// code: one presence byte per k-mer, which the scan adds up at every sequence
// position, and for the k-mers present, their (target, offset) entries. A
// k-mer found at the same offset in kFamilyShare or more references of one
// family has one entry for the family instead of one per reference.
//
// A seed at sequence position p of a k-mer at reference offset o lies on
// diagonal p - o: where the reference would start if the copy had no indels
// before it. The seeds are bucketed by target, keeping sequence order. A
// reference's seeds, merged with its family's, are then walked in order: each
// seed joins the earlier seeds within the reference's reach behind it and
// within twice its drift of its diagonal, and the group's cover is the number
// of sequence bases its seeds span (a run of r matching bases gives r - k + 1
// overlapping seeds covering r bases): cover rather than the number of seeds,
// so that one long exact match, which random sequence produces far more often
// than two separate ones, does not count many times. A family's seeds alone
// are walked the same way.
//
// Thresholds (MinCover, Drift, the seed length) were measured on planted
// copies of references of 16 to 120 bases at 85 to 100 % identity and on
// random sequence: docs/internal_barcodes.md.

#include "pair_alignment/seed_scan.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <string>

#include "pair_alignment/kmer_codes.h"

namespace PairAlignment {

namespace {

// A k-mer at one offset in this many references makes them a family.
constexpr size_t kFamilyShare = 3;

// How far a copy's diagonal may wander: about one indel per eight bases,
// beyond what long reads at 85 % identity show.
int DriftFor(int length) {
    return 2 + length / 8;
}

// Sequence bases a group's seeds must cover: three more than one seed, and a
// quarter of a long reference.
int MinCoverFor(int length, int k) {
    return std::min(length, std::max(k + 3, length / 4));
}

// The table holds a seed at no more than one position in this many of random sequence.
constexpr double kSeedDensity = 0.5;
// Seeds grow further, to hold one at no more than this share of positions,
// while they stay within a sixth of the shortest reference. Every chance seed
// costs the grouping, and two of one reference make a spot to bound: on a
// kit of 48 references of 42 bases, 7-base seeds instead of 6 cut the
// search's cost by half. The price is the rare copy so damaged that it keeps
// one run of 7 bases but several of 6 (about 1 in 200 at 87 % identity).
constexpr double kSparseDensity = 0.15;
constexpr size_t kShortestPerSeed = 6;
// Where every reference belongs to a family (barcodes between constant
// flanks), a copy whose barcode is too damaged to keep a longer seed is still
// proposed through its flanks' seeds (the family's spot), so seeds grow on
// to a fifth of the shortest reference. On 96 barcodes of 42 bases with
// flanks, 8-base seeds instead of 7 hit a quarter as many read positions and
// cut the search's cost on 10 kb reads by more than half, at the price of
// one molecule in 500 at 87 % identity. Without flanks they would cost a
// front-only kit of 96 barcodes of 40 bases 4 % of its concatemers there.
constexpr size_t kShortestPerSeedInFamilies = 5;

// Places per target for a read's hits before they are counted: this many,
// plus this many times the read's seeds shared out over the targets.
constexpr size_t kRoomPerTarget = 32;
constexpr size_t kRoomPerSeed = 4;

}  // namespace

SeedScan::SeedScan(const std::vector<std::vector<int>>& references, int k) : references_(references.size()) {
    if (k != 0) {
        if (k < 4 || k > kMaxSeedLength)
            throw std::runtime_error("Seed length must be between 4 and " + std::to_string(kMaxSeedLength));
        Build(references, k);
        return;
    }
    size_t shortest = std::numeric_limits<size_t>::max();
    for (const auto& reference : references)
        shortest = std::min(shortest, reference.size());
    for (k = 5;; ++k) {
        Build(references, k);
        const double density = static_cast<double>(entries_.size()) / static_cast<double>(size_t{1} << (2 * k));
        const bool in_families =
            std::all_of(family_of_.begin(), family_of_.end(), [](int64_t family) { return family >= 0; });
        const size_t per_seed = in_families ? kShortestPerSeedInFamilies : kShortestPerSeed;
        const bool longer_fits = static_cast<size_t>(k + 1) * per_seed <= shortest;
        if (k == kMaxSeedLength || (density <= kSeedDensity && (density <= kSparseDensity || !longer_fits))) return;
    }
}

void SeedScan::Build(const std::vector<std::vector<int>>& references, int k) {
    k_ = k;
    length_.clear();
    members_.clear();
    drift_.clear();
    min_cover_.clear();
    entries_.clear();
    const size_t kmers = size_t{1} << (2 * k);
    const auto mask = static_cast<uint32_t>(kmers - 1);

    // Every (k-mer, offset, reference), sorted so that equal (k-mer, offset) pairs are together.
    struct Occurrence {
        uint32_t kmer, offset, reference;
    };
    std::vector<Occurrence> all;
    for (size_t r = 0; r < references.size(); ++r) {
        uint32_t kmer = 0;
        const auto& reference = references[r];
        for (size_t i = 0; i < reference.size(); ++i) {
            const int code = reference[i];
            if (code < 0 || code > 3) throw std::runtime_error("SeedScan: reference bases must be codes 0..3");
            kmer = ((kmer << 2) | static_cast<uint32_t>(code)) & mask;
            if (i + 1 >= static_cast<size_t>(k))
                all.push_back({kmer, static_cast<uint32_t>(i + 1 - static_cast<size_t>(k)), static_cast<uint32_t>(r)});
        }
    }
    std::sort(all.begin(), all.end(), [](const Occurrence& x, const Occurrence& y) {
        if (x.kmer != y.kmer) return x.kmer < y.kmer;
        if (x.offset != y.offset) return x.offset < y.offset;
        return x.reference < y.reference;
    });
    auto same_place = [](const Occurrence& x, const Occurrence& y) { return x.kmer == y.kmer && x.offset == y.offset; };

    // Families: references joined by a k-mer they share at one offset.
    std::vector<uint32_t> parent(references.size());
    std::iota(parent.begin(), parent.end(), 0u);
    auto root = [&parent](uint32_t x) {
        while (parent[x] != x)
            x = parent[x] = parent[parent[x]];
        return x;
    };
    for (size_t a = 0; a < all.size();) {
        size_t b = a;
        while (b < all.size() && same_place(all[a], all[b]))
            ++b;
        if (b - a >= kFamilyShare)
            for (size_t i = a + 1; i < b; ++i)
                parent[root(all[i].reference)] = root(all[a].reference);
        a = b;
    }
    for (size_t r = 0; r < references.size(); ++r) {
        length_.push_back(static_cast<int>(references[r].size()));
        members_.push_back({static_cast<uint32_t>(r)});
    }
    family_of_.assign(references.size(), -1);
    std::vector<int64_t> family_of_root(references.size(), -1);
    for (size_t r = 0; r < references.size(); ++r) {
        const uint32_t top = root(static_cast<uint32_t>(r));
        bool alone = true;
        for (size_t other = 0; other < references.size() && alone; ++other)
            alone = other == r || root(static_cast<uint32_t>(other)) != top;
        if (alone) continue;
        if (family_of_root[top] < 0) {
            family_of_root[top] = static_cast<int64_t>(members_.size());
            members_.emplace_back();
            length_.push_back(0);
        }
        const auto family = static_cast<size_t>(family_of_root[top]);
        family_of_[r] = family_of_root[top];
        members_[family].push_back(static_cast<uint32_t>(r));
        length_[family] = std::max(length_[family], length_[r]);
    }
    for (size_t t = 0; t < length_.size(); ++t) {
        drift_.push_back(DriftFor(length_[t]));
        min_cover_.push_back(MinCoverFor(length_[t], k));
    }

    // Entries: a k-mer shared at one offset by enough members of a family is
    // one family seed; any other occurrence is a seed of its reference.
    std::vector<std::pair<uint32_t, Entry>> entries;
    for (size_t a = 0; a < all.size();) {
        size_t b = a;
        while (b < all.size() && same_place(all[a], all[b]))
            ++b;
        const int64_t family = family_of_[all[a].reference];
        // Shared by most of one family: constant sequence such as a flank.
        bool one_family = family >= 0 && 2 * (b - a) >= members_[static_cast<size_t>(family)].size();
        for (size_t i = a; i < b && one_family; ++i)
            one_family = family_of_[all[i].reference] == family;
        if (one_family) {
            entries.emplace_back(all[a].kmer, Entry{static_cast<uint32_t>(family), all[a].offset});
        } else {
            for (size_t i = a; i < b; ++i)
                entries.emplace_back(all[i].kmer, Entry{all[i].reference, all[i].offset});
        }
        a = b;
    }
    present_.assign(kmers, 0);
    start_.assign(kmers + 1, 0);
    entries_.reserve(entries.size());
    for (const auto& [kmer, entry] : entries) {  // still in k-mer order
        present_[kmer] = 1;
        ++start_[kmer + 1];
        entries_.push_back(entry);
    }
    for (size_t x = 0; x < kmers; ++x)
        start_[x + 1] += start_[x];
}

void SeedScan::Find(const uint8_t* sequence, size_t length, std::vector<Spot>& spots, Work& work) const {
    spots.clear();
    const size_t positions = KmerCodes(sequence, length, k_, work.kmers);
    if (k_ <= kMaxShortKmer)
        Collect(work.kmers.eights.data(), positions, length, spots, work);
    else
        Collect(work.kmers.codes.data(), positions, length, spots, work);
}

template <typename Code>
void SeedScan::Collect(const Code* kmers, size_t positions, size_t length, std::vector<Spot>& spots, Work& work) const {
    // The positions of the k-mers present: every position is written and the
    // count moves on only for a present k-mer, so that the loop has no branch
    // that random sequence would make unpredictable.
    auto& seeded = work.seeded;
    if (seeded.size() < positions) seeded.resize(positions);
    uint32_t* out = seeded.data();
    const uint8_t* present = present_.data();
    size_t count = 0;
    auto step = [&](size_t p) {
        out[count] = static_cast<uint32_t>(p);
        count += present[kmers[p]];
    };
    size_t p = 0;
    for (; p + 8 <= positions; p += 8) {  // eight a round: less loop control per base
        for (size_t i = 0; i < 8; ++i)
            step(p + i);
    }
    for (; p < positions; ++p)
        step(p);

    // The seeds' hits by target, in sequence order within each, target t's
    // at sorted[first[t] .. next[t]). In one pass, each target into `room`
    // places of its own: several times what a read of random sequence gives
    // one target, so that a read fills one only where it repeats a
    // reference's k-mers; such a read's hits are counted per target first
    // and placed again. Counting every read first would cost a second walk
    // over the seeds and their entries, about an eighth of the search.
    // In locals, which the compiler keeps in registers across the stores.
    const size_t targets = length_.size();
    const uint32_t* start = start_.data();
    const Entry* entries = entries_.data();
    const uint32_t* seeds = seeded.data();
    auto& first = work.first;
    auto& next_at = work.next;
    first.resize(targets + 1);
    next_at.resize(targets);
    const size_t room = kRoomPerTarget + kRoomPerSeed * count / targets;
    // Each seed's hits to their target's next place, up to stop[target];
    // false as soon as a target has no room left.
    auto place = [=, &work, &next_at](const uint32_t* stop) {
        Work::Hit* hits = work.sorted.data();
        uint32_t* next = next_at.data();
        for (size_t s = 0; s < count; ++s) {
            const auto position = static_cast<int32_t>(seeds[s]);
            const uint32_t x = kmers[position];
            for (uint32_t e = start[x]; e < start[x + 1]; ++e) {
                const Entry entry = entries[e];
                const uint32_t at = next[entry.target];
                if (at == stop[entry.target]) return false;
                hits[at] = {entry.target, position - static_cast<int32_t>(entry.offset), position};
                next[entry.target] = at + 1;
            }
        }
        return true;
    };
    if (work.sorted.size() < room * targets) work.sorted.resize(room * targets);
    for (size_t t = 0; t <= targets; ++t)
        first[t] = static_cast<uint32_t>(t * room);
    std::copy(first.begin(), first.end() - 1, next_at.begin());
    if (!place(first.data() + 1)) {
        first.assign(targets + 1, 0);
        uint32_t* counts = first.data() + 1;
        for (size_t s = 0; s < count; ++s) {
            const uint32_t x = kmers[seeds[s]];
            for (uint32_t e = start[x]; e < start[x + 1]; ++e)
                ++counts[entries[e].target];
        }
        for (size_t t = 0; t < targets; ++t)
            first[t + 1] += first[t];
        if (work.sorted.size() < first[targets]) work.sorted.resize(first[targets]);
        std::copy(first.begin(), first.end() - 1, next_at.begin());
        place(first.data() + 1);  // exact room: never full
    }
    const Work::Hit* sorted = work.sorted.data();
    const uint32_t* next = next_at.data();
    for (size_t t = references_; t < targets; ++t)
        if (first[t] < next[t])
            Group(sorted + first[t], sorted + next[t], static_cast<uint32_t>(t), length, spots, work);
    for (size_t r = 0; r < references_; ++r) {
        if (first[r] == next[r]) continue;
        const int64_t family = family_of_[r];
        if (family < 0 || first[static_cast<size_t>(family)] == next[static_cast<size_t>(family)]) {
            Group(sorted + first[r], sorted + next[r], static_cast<uint32_t>(r), length, spots, work);
            continue;
        }
        const auto f = static_cast<size_t>(family);
        const size_t both = (next[r] - first[r]) + (next[f] - first[f]);
        if (work.merged.size() < both) work.merged.resize(both);
        std::merge(sorted + first[r], sorted + next[r], sorted + first[f], sorted + next[f], work.merged.begin(),
                   [](const Work::Hit& x, const Work::Hit& y) { return x.position < y.position; });
        Group(work.merged.data(), work.merged.data() + both, static_cast<uint32_t>(r), length, spots, work);
    }
    std::stable_sort(spots.begin(), spots.end(), [](const Spot& x, const Spot& y) { return x.begin < y.begin; });
}

// The seeds of one target, in sequence order.
void SeedScan::Group(const Work::Hit* first, const Work::Hit* last, uint32_t target, size_t length,
                     std::vector<Spot>& spots, Work& /*work*/) const {
    const int drift = drift_[target];
    const int reach = length_[target] + 2 * drift;
    const int need = min_cover_[target];
    // Nearly every seed has no other within reach behind it, and is passed
    // over by the first three tests below: they see only locals (k_ too),
    // which the compiler keeps in registers across the loop.
    const int k = k_;
    const int apart = need - k;
    const size_t spots_before = spots.size();
    const Work::Hit* behind = first;
    int32_t own_at = std::numeric_limits<int32_t>::min() / 2;  // the latest seed of the target itself
    for (const Work::Hit* hit = first; hit < last; ++hit) {
        const int32_t position = hit->position, from = position - reach;
        if (hit->target == target) own_at = position;
        // A group needs a seed of its own (below): none within reach, no group.
        if (own_at < from) continue;
        while (behind->position < from)
            ++behind;
        // Seeds that all start within fewer bases than need - k cannot
        // cover enough (a lone seed, or a run of a few), nor can too few
        // seeds: each covers at most k bases.
        if (position - behind->position < apart) continue;
        if (static_cast<int>(hit - behind + 1) * k < need) continue;
        int cover = 0;
        int32_t covered_to = std::numeric_limits<int32_t>::min();
        int32_t low = hit->diagonal, high = hit->diagonal;
        // A reference's group needs a seed of its own: its family's seeds
        // alone are the family's spot.
        bool own = false;
        for (const Work::Hit* seed = behind; seed <= hit; ++seed) {
            if (std::abs(seed->diagonal - hit->diagonal) > 2 * drift) continue;
            own |= seed->target == target;
            cover += seed->position + k - std::max(seed->position, covered_to);
            covered_to = seed->position + k;
            low = std::min(low, seed->diagonal);
            high = std::max(high, seed->diagonal);
        }
        if (cover < need || !own) continue;
        const int begin = std::max(0, low - drift);
        const int end =
            static_cast<int>(std::min<int64_t>(static_cast<int64_t>(length), int64_t{high} + length_[target] + drift));
        if (spots.size() > spots_before && spots.back().end >= begin) {
            Spot& spot = spots.back();
            spot.begin = std::min(spot.begin, begin);
            spot.end = std::max(spot.end, end);
            spot.cover = std::max(spot.cover, cover);
        } else {
            spots.push_back({target, begin, end, cover});
        }
    }
}

}  // namespace PairAlignment
