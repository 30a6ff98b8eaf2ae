#include "barcoding/molecule_parts.h"

#include <algorithm>

namespace Barcoding {

std::vector<ReadPart> CutIntoMolecules(int read_length, const std::vector<FoundConstruct>& internal,
                                       int min_part_length) {
    std::vector<int> cuts;
    for (size_t k = 0; k < internal.size(); ++k) {
        const FoundConstruct& construct = internal[k];
        if (construct.starts_molecule) {
            cuts.push_back(construct.begin);
            continue;
        }
        // A molecule's end, and the next construct starts the next molecule
        // close by: one cut between the two.
        if (k + 1 < internal.size() && internal[k + 1].starts_molecule &&
            internal[k + 1].begin - construct.end < min_part_length) {
            cuts.push_back((construct.end + internal[k + 1].begin) / 2);
            ++k;
            continue;
        }
        cuts.push_back(construct.end);
    }
    std::vector<ReadPart> parts;
    int begin = 0;
    cuts.push_back(read_length);
    for (int cut : cuts) {
        cut = std::clamp(cut, begin, read_length);
        if (cut == begin && cut != read_length) continue;
        if (cut == begin) break;
        parts.push_back(ReadPart{begin, cut, cut - begin >= min_part_length});
        begin = cut;
    }
    return parts;
}

}  // namespace Barcoding
