#pragma once
// Cuts detected barcodes off a record's sequence and quality string. The
// length asked for is clamped to what the record can give; a record is never
// trimmed to nothing.

#include <cstddef>
#include <string>

namespace Common {

class BarcodeTrimmer {
public:
    // Number of bases that may actually be cut: 0 for a negative length, at
    // most sequence length - 1 (warnings logged for both). Throws
    // std::runtime_error when sequence and qstring differ in length.
    static int CheckTrimLengthValid(int trim_length, std::string& sequence, std::string& qstring);
    // The same clamping (and warnings) for a sequence of `bases` bases.
    static int TrimmableBases(int trim_length, size_t bases);
    // Cut from the start / the end; return the number of bases removed.
    static int TrimFront(int trim_length, std::string& sequence, std::string& qstring);
    static int TrimRear(int trim_length, std::string& sequence, std::string& qstring);
};

}  // namespace Common
