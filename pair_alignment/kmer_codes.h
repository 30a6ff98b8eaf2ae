#pragma once
// The 2-bit code of the k-mer starting at every position of a sequence of base
// codes, computed in a few whole-sequence passes that the compiler turns into
// vector instructions, instead of one k-mer rolled along base by base.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace PairAlignment {

// Scratch of KmerCodes, one per thread, and its answer: k-mers of up to
// kMaxShortKmer bases at the front of `eights`, 16 bits each (half the bytes
// to write and to read again of 32), longer ones at the front of `codes`.
// Sized up only, never down: a vector resized to fewer elements and back
// would set the regained ones to zero, a pass over them for every read.
struct Kmers {
    std::vector<uint8_t> pairs, quads;
    std::vector<uint16_t> eights;
    std::vector<uint32_t> codes;
};

constexpr int kMaxKmerLength = 16;
constexpr int kMaxShortKmer = 8;

// sequence: base codes 0..3. k: 1 .. kMaxKmerLength. Puts the length - k + 1
// k-mers (none if the sequence is shorter than k) at the front of
// kmers.eights (k <= kMaxShortKmer) or kmers.codes and returns their number;
// k-mer p is the sum over i < k of sequence[p + i] << 2 (k - 1 - i): its
// first base in the highest bits.
size_t KmerCodes(const uint8_t* sequence, size_t length, int k, Kmers& kmers);

}  // namespace PairAlignment
