#pragma once
// Bases for the barcode tests: random sequence, its reverse complement, a
// copy with sequencing errors, and the plain match/mismatch matrix; random
// sequence and error copies also as base codes 0..3, for the search tests.

#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace TestSupport {

// Match 5, mismatch -4, over A, C, G, T.
inline const std::vector<int> kMatchMismatch = {5, -4, -4, -4, -4, 5, -4, -4, -4, -4, 5, -4, -4, -4, -4, 5};

inline std::string RandomBases(std::mt19937& random, size_t length) {
    std::string bases;
    for (size_t k = 0; k < length; ++k)
        bases += "ACGT"[random() % 4];
    return bases;
}

inline std::string ReverseComplement(const std::string& sequence) {
    std::string result(sequence.rbegin(), sequence.rend());
    for (char& c : result)
        c = c == 'A' ? 'T' : c == 'C' ? 'G' : c == 'G' ? 'C' : 'A';
    return result;
}

inline std::vector<int> RandomCodes(std::mt19937& random, size_t length) {
    std::vector<int> codes(length);
    for (int& c : codes)
        c = static_cast<int>(random() % 4);
    return codes;
}

// Deletions, insertions and substitutions (to another base), each at rate / 3
// per base, of letters ACGT or of base codes.
template <typename Sequence>
Sequence Mutate(std::mt19937& random, const Sequence& sequence, double rate) {
    constexpr bool kLetters = std::is_same_v<Sequence, std::string>;
    auto base = [](size_t code) { return static_cast<typename Sequence::value_type>(kLetters ? "ACGT"[code] : code); };
    std::uniform_real_distribution<double> uniform(0, 1);
    Sequence out;
    for (const auto c : sequence) {
        const double u = uniform(random);
        if (u < rate / 3) continue;
        if (u < 2 * rate / 3) out.push_back(base(random() % 4));
        size_t code = static_cast<size_t>(c);
        if constexpr (kLetters) code = std::string_view("ACGT").find(c);
        out.push_back(u < rate && u >= 2 * rate / 3 ? base((code + 1 + random() % 3) % 4) : c);
    }
    return out;
}

}  // namespace TestSupport
