#pragma once
// Bases for the barcode tests: random sequence, its reverse complement, a
// copy with sequencing errors, and the plain match/mismatch matrix; random
// sequence and error copies also as base codes 0..3, for the search tests.

#include <random>
#include <string>
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

// Substitutions, deletions and insertions, each at rate / 3 per base.
inline std::string Mutate(std::mt19937& random, const std::string& sequence, double rate) {
    std::uniform_real_distribution<double> uniform(0, 1);
    std::string out;
    for (char c : sequence) {
        const double r = uniform(random);
        if (r < rate / 3) {
            out += "ACGT"[random() % 4];
        } else if (r < 2 * rate / 3) {
            continue;
        } else if (r < rate) {
            out += "ACGT"[random() % 4];
            out += c;
        } else {
            out += c;
        }
    }
    return out;
}

inline std::vector<int> RandomCodes(std::mt19937& random, size_t length) {
    std::vector<int> codes(length);
    for (int& c : codes)
        c = static_cast<int>(random() % 4);
    return codes;
}

// Substitutions, insertions and deletions, each at rate / 3 per base.
inline std::vector<int> Mutate(std::mt19937& random, const std::vector<int>& codes, double rate) {
    std::uniform_real_distribution<double> uniform(0, 1);
    std::vector<int> out;
    for (int c : codes) {
        const double u = uniform(random);
        if (u < rate / 3) continue;
        if (u < 2 * rate / 3) out.push_back(static_cast<int>(random() % 4));
        out.push_back(u < rate && u >= 2 * rate / 3 ? (c + 1 + static_cast<int>(random() % 3)) % 4 : c);
    }
    return out;
}

}  // namespace TestSupport
