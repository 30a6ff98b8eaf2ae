#pragma once
// Unmapped BAM records as bytes, and the tag (aux) bytes that travel with a
// read: enough to write unaligned BAM without going through htslib's record
// structure, so that workers can encode whole chunks into plain strings.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Common {

// The tag that carries a read's barcode arrangement in BAM output. A
// lower-case tag is the user's own by the format's rules, and stays clear of
// the standard BC (a barcode sequence).
inline constexpr char kArrangementTag[] = "ar";
// The tag that carries a read's barcode quality (0 to 60, 0 unclassified);
// text output shows it as bq:i.
inline constexpr char kBarcodeQualityTag[] = "bq";
// A run id for BAM input records (see BamIterable for the full rule).
inline constexpr char kRunIdTag[] = "ri";

// Bytes of the tag field starting at aux[at] (name, type and value), or 0
// when the bytes there are not one whole, well-formed field.
size_t AuxFieldSize(std::string_view aux, size_t at);
// True when aux is a sequence of whole, well-formed tag fields.
bool ValidAux(std::string_view aux);
// The value of a Z (text) tag, or nothing when the tag is absent or of
// another type. aux must be valid.
std::optional<std::string_view> FindTextTag(std::string_view aux, const char tag[2]);
// Removes every field whose tag is in tags. aux must be valid.
void RemoveTags(std::string& aux, std::span<const std::string_view> tags);
// Appends tag:Z:value; characters the format does not allow in text (tabs and
// other control characters) become spaces.
void AppendTextTag(std::string& aux, const char tag[2], std::string_view value);
// Appends tag:i:value in the narrowest integer type that holds it, as htslib does.
void AppendIntTag(std::string& aux, const char tag[2], int32_t value);

// Tags whose values follow the sequence base by base or index into it: they
// no longer fit once bases are cut off (or turned around, for the per-base
// ones), so they are dropped then. Base modifications (MM, ML and the older
// Mm, Ml, with MN, the length MM was written for) keep the read's own
// orientation and so survive turning a record back, but not trimming.
inline constexpr std::string_view kPerBaseTags[] = {"OQ", "E2", "U2", "CQ", "CS", "FZ"};
inline constexpr std::string_view kModificationTags[] = {"MM", "ML", "Mm", "Ml", "MN"};
// Standard tags that describe an alignment; meaningless on the unmapped
// records written from a mapped input record.
inline constexpr std::string_view kAlignmentTags[] = {"AS", "CC", "CG", "CP", "H0", "H1", "H2", "HI",
                                                      "IH", "MC", "MD", "MQ", "NH", "NM", "SA", "TS"};

// True when name can be a BAM read name: 1 to 254 printable characters, no
// space, not starting with '@'.
bool ValidBamReadName(std::string_view name);

// Appends one unmapped, unpaired record (flag 4), block size first, to out.
// bases are A, C, G, T (U is stored as T); qualities are Phred+33 text of the
// same length. Throws std::runtime_error for an invalid read name.
void AppendBamRecord(std::string& out, std::string_view read_name, std::string_view bases, std::string_view qualities,
                     std::string_view aux);

}  // namespace Common
