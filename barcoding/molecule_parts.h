#pragma once
// Where a read that holds several molecules is cut into them, given the
// barcode constructs found inside it (BarcodeScorer::InternalConstructs). A
// construct that starts a molecule is cut before, one that ends a molecule
// after, so that each part keeps the constructs of its own molecule and is
// classified by its ends as a read of its own would be. Where a molecule's end
// is followed by the next one's start with less than a part's minimum length
// between them (the adapters joining them), the read is cut once, half way
// between, rather than leave a scrap.

#include <vector>

#include "barcoding/construct_search.h"

namespace Barcoding {

struct ReadPart {
    int begin = 0;  // read bases [begin, end)
    int end = 0;
    bool kept = true;  // at least min_part_length bases
};

// The read's parts in read order, covering it whole. internal: in read order.
std::vector<ReadPart> CutIntoMolecules(int read_length, const std::vector<FoundConstruct>& internal,
                                       int min_part_length);

}  // namespace Barcoding
