#pragma once
// Base-modification tags kept right when bases are cut off a read's ends.
//
// MM (or the older Mm) lists, per fundamental base, strand and modification
// codes, which occurrences of that base carry a call, as counts of
// occurrences skipped since the previous call; ML (Ml) holds one probability
// byte per call and code, in MM's order; MN is the read length MM was
// written for. The counts are relative to the read in the orientation it was
// sequenced in, which is how reads are held here (a reverse-strand BAM record
// is turned back on input), so cutting bases changes which occurrences remain
// and nothing else.

#include <string>
#include <string_view>

namespace Common {

// Rewrites the modification tags in aux (whole, valid tag fields) for a read
// whose bases, before the cut, are `bases`, when `front` bases are cut from
// its start and `rear` from its end (front + rear <= bases.size()):
//   - each list keeps its calls on kept bases, with the first kept call's
//     skip count counted from the new start; its mode flag ('.', '?' or
//     none) and codes stay; an emptied list stays as an empty list;
//   - the ML/Ml values of dropped calls go, the others keep their order;
//   - MN becomes the new length (added when MM or Mm is there without it).
// Other tags keep their bytes and order. Returns "" when done; otherwise why
// the tags cannot be read (syntax, a call past the read's end, an ML count
// that does not match, an MN that is not the read's length), and aux has then
// lost every modification tag rather than keep one that is wrong.
std::string TrimModificationTags(std::string& aux, std::string_view bases, size_t front, size_t rear);

}  // namespace Common
