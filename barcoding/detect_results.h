#pragma once
// Plain results of barcode detection: one barcode found at one read end, and
// one candidate classification of a whole read.

#include <limits>
#include <string>

namespace Barcoding {

struct BarcodeDetectResult {
    std::string id;                                         // barcode reference name, empty = no barcode at this end
    std::string reference_sequence;                         // the reference as aligned
    std::string found_sequence;                             // read bases the alignment pairs with the reference
    float score = -std::numeric_limits<float>::infinity();  // 100 = the reference aligned perfectly
    // Front: first base of the found sequence in the read. Rear: number of
    // window bases after the found sequence's last base. -1 when empty.
    int begin_index = -1;
};

struct ArrangementDetectResult {
    std::string id;             // full arrangement name (e.g. "barcode01_var1")
    std::string normalised_id;  // reported name, or "unclassified"
    std::string kit;
    std::string variant;
    float score = -std::numeric_limits<float>::infinity();  // front and rear combined
    BarcodeDetectResult front;
    BarcodeDetectResult rear;
};

}  // namespace Barcoding
