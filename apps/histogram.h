#pragma once
// Fixed-bin histograms for the run report: small, fixed size whatever the
// number of reads, and summed batch by batch like the other counts.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Vorpa {

// Read lengths in quarter-octave bins: lengths 1 to 7 have a bin each, then
// every doubling of the length is cut into four equal parts ([8, 10), [10, 12),
// ...). Length 0 has bin 0; lengths from 7 x 2^25 (235 Mb) on share the last
// bin.
struct LengthHistogram {
    static constexpr size_t kBins = 4 * 27;
    std::array<uint64_t, kBins> counts{};

    static size_t BinOf(uint64_t length);
    // The smallest length of a bin (bin 0: 0).
    static uint64_t BinStart(size_t bin);

    void Add(uint64_t length) { ++counts[BinOf(length)]; }
    void Add(const LengthHistogram& other);
    uint64_t Total() const;
};

// A linear scale: bins of equal width from low; values below low fall in the
// first bin, values at or above the last edge in the last bin.
struct ValueScale {
    double low = 0;
    double width = 1;
    size_t bins = 1;

    size_t BinOf(double value) const;
    double BinStart(size_t bin) const { return low + width * static_cast<double>(bin); }
};

// Values on a linear scale. Counts are allocated at the first value, so an
// unused histogram costs nothing in a batch's tally.
struct ValueHistogram {
    std::vector<uint64_t> counts;  // empty, or one per bin of the scale

    void Add(const ValueScale& scale, double value);
    void Add(const ValueHistogram& other);
    uint64_t Total() const;
};

// One value of every read, kept apart for classified and unclassified reads
// (the report plots the two against each other). Non-finite values (a read
// with no barcode candidate at all) are not counted.
struct ClassifiedSplit {
    ValueScale scale;
    ValueHistogram classified;
    ValueHistogram unclassified;

    void Add(bool is_classified, double value);
    void Add(const ClassifiedSplit& other);
};

}  // namespace Vorpa
