#pragma once
// Where short references may lie in a long sequence, found without aligning
// along all of it: exact k-mer matches ("seeds") between the sequence and the
// references are grouped by reference and diagonal (sequence position minus
// reference position), and a group whose seeds cover enough of the reference
// is a spot worth aligning. Insertions and deletions shift a copy's diagonal
// by one base each, so seeds within a reference's drift of each other count
// together. The cost is a table lookup per sequence base plus a little per
// seed, whatever the number of references.
//
// References that share k-mers at the same offsets (barcodes behind the same
// constant flanks) form a family: a shared k-mer is one seed of the family,
// which counts for each member, and the family's own seeds alone can make a
// spot for all of its members (a copy whose variable part is too damaged to
// seed).

#include <cstddef>
#include <cstdint>
#include <vector>

#include "pair_alignment/kmer_codes.h"

namespace PairAlignment {

class SeedScan {
public:
    // references: base codes 0..3. k: the seed length, 4 .. kMaxSeedLength;
    // 0 takes the shortest from 5 on whose table holds a seed at no more than
    // every other position of random sequence (the fewer the references, the
    // shorter the seeds and the more damaged the copies found), or, while the
    // seeds stay within a sixth of the shortest reference (a fifth where
    // every reference belongs to a family), at no more than 15 % of
    // positions. A reference shorter than k is never seeded.
    explicit SeedScan(const std::vector<std::vector<int>>& references, int k = 0);

    static constexpr int kMaxSeedLength = 10;

    // A stretch of the sequence that may hold a copy of a reference, or of
    // any member of a family.
    struct Spot {
        uint32_t target;  // a reference index, or a family (IsFamily)
        int begin;        // sequence bases [begin, end): the copy with room for its drift
        int end;
        int cover;  // sequence bases its seeds match
    };

    // Per-call scratch, one per thread.
    struct Work {
        struct Hit {
            uint32_t target;
            int32_t diagonal;
            int32_t position;
        };
        Kmers kmers;                   // the k-mer at every position
        std::vector<uint32_t> seeded;  // the positions of the k-mers present
        std::vector<Hit> sorted;       // hits by target, in sequence order within each (grows only)
        std::vector<uint32_t> first;   // per target: its first index in sorted
        std::vector<uint32_t> next;    // per target: where its next hit goes in sorted, then one past its last
        std::vector<Hit> merged;       // one reference's hits with its family's (grows only)
    };

    // Spots in sequence (base codes 0..3), ordered by begin; overlapping spots
    // of one target are merged.
    void Find(const uint8_t* sequence, size_t length, std::vector<Spot>& spots, Work& work) const;

    size_t References() const { return references_; }
    // References, then families.
    size_t Targets() const { return length_.size(); }
    bool IsFamily(uint32_t target) const { return target >= references_; }
    // The references of a family target; the reference itself otherwise.
    const std::vector<uint32_t>& Members(uint32_t target) const { return members_[target]; }
    int SeedLength() const { return k_; }

private:
    struct Entry {
        uint32_t target;
        uint32_t offset;  // of the k-mer in the reference (or in every member)
    };
    void Build(const std::vector<std::vector<int>>& references, int k);
    // Find's work after the k-mers, for either width of k-mer code.
    template <typename Code>
    void Collect(const Code* kmers, size_t positions, size_t length, std::vector<Spot>& spots, Work& work) const;
    void Group(const Work::Hit* first, const Work::Hit* last, uint32_t target, size_t length, std::vector<Spot>& spots,
               Work& work) const;

    int k_;
    size_t references_;
    std::vector<uint8_t> present_;  // per k-mer: 1 if some reference holds it
    std::vector<uint32_t> start_;   // entries of k-mer x: entries_[start_[x] .. start_[x + 1])
    std::vector<Entry> entries_;
    // Per target (references, then families).
    std::vector<int> length_;
    std::vector<int> min_cover_;
    std::vector<int> drift_;
    std::vector<std::vector<uint32_t>> members_;
    std::vector<int64_t> family_of_;  // per reference: its family target, -1 = none
};

}  // namespace PairAlignment
