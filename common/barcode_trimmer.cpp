#include "common/barcode_trimmer.h"

#include <stdexcept>

#include "common/logger.h"

namespace Common {

namespace {
const Logger& TrimmerLog() {
    static const Logger logger("barcode_trimmer");
    return logger;
}
}  // namespace

int BarcodeTrimmer::CheckTrimLengthValid(int trim_length, std::string& sequence, std::string& qstring) {
    if (sequence.size() != qstring.size())
        throw std::runtime_error(
            "Mismatching sequence and qstring lengths passed to BarcodeTrimmer::CheckTrimLengthValid");
    return TrimmableBases(trim_length, sequence.size());
}

int BarcodeTrimmer::TrimmableBases(int trim_length, size_t bases) {
    if (trim_length == 0) return 0;
    if (trim_length < 0) {
        VB_LOG(TrimmerLog(), Severity::warning)
            << "Cannot trim a negative number, so will trim 0, Trim length: " << trim_length;
        return 0;
    }
    if (static_cast<size_t>(trim_length) < bases) return trim_length;
    VB_LOG(TrimmerLog(), Severity::warning)
        << "Cannot trim more than the size of the FastQ Record sequence, so keeping one base to stop the read being "
           "completely empty. Trim length: "
        << trim_length << " Sequence length: " << bases;
    // An empty record has nothing to keep or cut.
    return bases == 0 ? 0 : static_cast<int>(bases) - 1;
}

int BarcodeTrimmer::TrimFront(int trim_length, std::string& sequence, std::string& qstring) {
    const int k = CheckTrimLengthValid(trim_length, sequence, qstring);
    sequence.erase(0, static_cast<size_t>(k));
    qstring.erase(0, static_cast<size_t>(k));
    return k;
}

int BarcodeTrimmer::TrimRear(int trim_length, std::string& sequence, std::string& qstring) {
    const int k = CheckTrimLengthValid(trim_length, sequence, qstring);
    sequence.resize(sequence.size() - static_cast<size_t>(k));
    qstring.resize(qstring.size() - static_cast<size_t>(k));
    return k;
}

}  // namespace Common
