// Doubling: the 2-mer at p is base p shifted above base p + 1, the 4-mer two
// 2-mers two apart, the 8-mer two 4-mers four apart, the 16-mer two 8-mers
// eight apart; a k-mer is the top 2k bits of the next power's. Each pass is a
// shift and an OR over whole arrays, which the compiler vectorises even for
// the baseline instruction set: three passes for 8-mers cost about 3
// instructions per base where rolling a k-mer along costs 4, and the scan
// that reads them needs no more than a load per base. The positions near the
// end, whose wider words run past the sequence, read zeros there, which only
// ever fill the low bits that the final shift drops.

#include "pair_alignment/kmer_codes.h"

#include <algorithm>
#include <stdexcept>

namespace PairAlignment {

namespace {

// out[p] = in[p] << shift | in[p + apart], with in read as zeros from `length` on.
template <typename Out, typename In>
void Double(const In* in, size_t length, size_t apart, int shift, Out* out) {
    const size_t inside = length > apart ? length - apart : 0;
    for (size_t p = 0; p < inside; ++p)
        out[p] = static_cast<Out>((static_cast<Out>(in[p]) << shift) | in[p + apart]);
    for (size_t p = inside; p < length; ++p)
        out[p] = static_cast<Out>(static_cast<Out>(in[p]) << shift);
}

// out[p] = (in[p] << shift | in[p + apart]) >> drop for the first `count`
// positions, which never read past the input: apart is less than k.
template <typename In>
void Last(const In* in, size_t apart, int shift, int drop, size_t count, uint32_t* out) {
    for (size_t p = 0; p < count; ++p)
        out[p] = ((static_cast<uint32_t>(in[p]) << shift) | in[p + apart]) >> drop;
}

}  // namespace

size_t KmerCodes(const uint8_t* sequence, size_t length, int k, Kmers& kmers) {
    if (k < 1 || k > kMaxKmerLength) throw std::logic_error("KmerCodes: k out of range");
    const auto width = static_cast<size_t>(k);
    if (length < width) return 0;
    const size_t count = length - width + 1;
    auto at_least = [length](auto& scratch) {
        if (scratch.size() < length) scratch.resize(length);
        return scratch.data();
    };
    uint32_t* codes = at_least(kmers.codes);
    if (k == 1) {
        Last(sequence, 0, 0, 0, count, codes);
        return count;
    }
    if (k == 2) {
        Last(sequence, 1, 2, 0, count, codes);
        return count;
    }
    uint8_t* pairs = at_least(kmers.pairs);
    Double(sequence, length, 1, 2, pairs);
    if (k <= 4) {
        Last(pairs, 2, 4, 2 * (4 - k), count, codes);
        return count;
    }
    uint8_t* quads = at_least(kmers.quads);
    Double(pairs, length, 2, 4, quads);
    if (k <= 8) {
        Last(quads, 4, 8, 2 * (8 - k), count, codes);
        return count;
    }
    uint16_t* eights = at_least(kmers.eights);
    Double(quads, length, 4, 8, eights);
    Last(eights, 8, 16, 2 * (16 - k), count, codes);
    return count;
}

}  // namespace PairAlignment
