#include "apps/histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numeric>

namespace Vorpa {

// The bin is read off the length's leading bits: four bins per power of two,
// chosen by the two bits after the highest one. Below 8 every length has a
// bin of its own (bins 0 to 7 are the lengths themselves).
size_t LengthHistogram::BinOf(uint64_t length) {
    if (length < 8) return static_cast<size_t>(length);
    const unsigned exponent = 63u - static_cast<unsigned>(std::countl_zero(length));
    const size_t bin = 4 * (exponent - 1) + ((length >> (exponent - 2)) & 3u);
    return std::min(bin, kBins - 1);
}

uint64_t LengthHistogram::BinStart(size_t bin) {
    if (bin < 8) return bin;
    const unsigned exponent = static_cast<unsigned>(bin / 4 + 1);
    return (uint64_t{4} + (bin % 4)) << (exponent - 2);
}

void LengthHistogram::Add(const LengthHistogram& other) {
    for (size_t i = 0; i < kBins; ++i)
        counts[i] += other.counts[i];
}

uint64_t LengthHistogram::Total() const {
    return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

size_t ValueScale::BinOf(double value) const {
    const double position = std::floor((value - low) / width);
    if (!(position > 0)) return 0;
    return std::min(static_cast<size_t>(std::min(position, 1e9)), bins - 1);
}

void ValueHistogram::Add(const ValueScale& scale, double value) {
    if (counts.empty()) counts.assign(scale.bins, 0);
    ++counts[scale.BinOf(value)];
}

void ValueHistogram::Add(const ValueHistogram& other) {
    if (counts.size() < other.counts.size()) counts.resize(other.counts.size(), 0);
    for (size_t i = 0; i < other.counts.size(); ++i)
        counts[i] += other.counts[i];
}

uint64_t ValueHistogram::Total() const {
    return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

void ClassifiedSplit::Add(bool is_classified, double value) {
    if (!std::isfinite(value)) return;
    (is_classified ? classified : unclassified).Add(scale, value);
}

void ClassifiedSplit::Add(const ClassifiedSplit& other) {
    classified.Add(other.classified);
    unclassified.Add(other.unclassified);
}

}  // namespace Vorpa
