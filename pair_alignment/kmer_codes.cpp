// Doubling: the 2-mer at p is base p shifted above base p + 1, the 4-mer two
// 2-mers two apart, the 8-mer two 4-mers four apart, the 16-mer two 8-mers
// eight apart; a k-mer is the top 2k bits of the next power's. Each pass is a
// shift and an OR over whole arrays, which the compiler vectorises even for
// the baseline instruction set: three passes for 8-mers cost about 2.5
// instructions per base where rolling a k-mer along costs 4, and the scan
// that reads them needs no more than a load per base. K-mers of up to 8
// bases are written in 16 bits: the last pass then widens each byte once
// instead of twice, and the scan reads half the bytes. The positions near the
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

// The same into 16 bits, from bytes kApart apart: constant shifts, which the
// compiler keeps in 16-bit lanes (a shift by a variable would widen them to
// 32 bits and back).
template <size_t kApart, int kDrop>
void Short(const uint8_t* in, size_t count, uint16_t* out) {
    for (size_t p = 0; p < count; ++p)
        out[p] = static_cast<uint16_t>(static_cast<uint16_t>((in[p] << (2 * kApart)) | in[p + kApart]) >> kDrop);
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
    if (k <= kMaxShortKmer) {
        uint16_t* eights = at_least(kmers.eights);
        if (k <= 2) {
            k == 1 ? Short<0, 0>(sequence, count, eights) : Short<1, 0>(sequence, count, eights);
            return count;
        }
        uint8_t* pairs = at_least(kmers.pairs);
        Double(sequence, length, 1, 2, pairs);
        if (k <= 4) {
            k == 3 ? Short<2, 2>(pairs, count, eights) : Short<2, 0>(pairs, count, eights);
            return count;
        }
        uint8_t* quads = at_least(kmers.quads);
        Double(pairs, length, 2, 4, quads);
        switch (k) {
            case 5:
                Short<4, 6>(quads, count, eights);
                break;
            case 6:
                Short<4, 4>(quads, count, eights);
                break;
            case 7:
                Short<4, 2>(quads, count, eights);
                break;
            default:
                Short<4, 0>(quads, count, eights);
                break;
        }
        return count;
    }
    uint8_t* pairs = at_least(kmers.pairs);
    Double(sequence, length, 1, 2, pairs);
    uint8_t* quads = at_least(kmers.quads);
    Double(pairs, length, 2, 4, quads);
    uint16_t* eights = at_least(kmers.eights);
    Double(quads, length, 4, 8, eights);
    Last(eights, 8, 16, 2 * (16 - k), count, at_least(kmers.codes));
    return count;
}

}  // namespace PairAlignment
