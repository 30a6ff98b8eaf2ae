#include "common/base_modifications.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <stdexcept>

#include "common/bam_record.h"

namespace Common {

namespace {

constexpr size_t kNone = std::numeric_limits<size_t>::max();
// Fundamental bases in MM; U is stored as T in BAM, and N counts every base.
constexpr std::string_view kFundamentalBases = "ACGTUN";
constexpr int kAnyBase = 4;

constexpr int CountIndex(char fundamental) {
    switch (fundamental) {
        case 'A':
            return 0;
        case 'C':
            return 1;
        case 'G':
            return 2;
        case 'T':
        case 'U':
            return 3;
        default:
            return kAnyBase;
    }
}

// Occurrences of each fundamental base (A, C, G, T, any) before the kept
// part, in it, and in the whole read.
struct BaseCounts {
    std::array<size_t, 5> front{};
    std::array<size_t, 5> kept{};
    std::array<size_t, 5> total{};
};

// CountIndex as a table, for the loop over every base of the read; N and
// other letters land in a slot that is not read.
constexpr std::array<uint8_t, 256> MakeCountTable() {
    std::array<uint8_t, 256> table{};
    for (size_t c = 0; c < table.size(); ++c)
        table[c] = static_cast<uint8_t>(CountIndex(static_cast<char>(c)));
    return table;
}
constexpr std::array<uint8_t, 256> kCountTable = MakeCountTable();

BaseCounts CountBases(std::string_view bases, size_t front, size_t rear) {
    const auto count = [](std::string_view part) {
        std::array<size_t, 5> counts{};
        for (char base : part)
            ++counts[kCountTable[static_cast<uint8_t>(base)]];
        counts[kAnyBase] = part.size();
        return counts;
    };
    BaseCounts counts;
    counts.front = count(bases.substr(0, front));
    counts.kept = count(bases.substr(front, bases.size() - front - rear));
    const auto back = count(bases.substr(bases.size() - rear));
    for (size_t i = 0; i < 5; ++i)
        counts.total[i] = counts.front[i] + counts.kept[i] + back[i];
    return counts;
}

// Where the modification tags sit in aux, as offsets of their fields.
struct Fields {
    // [0]: MM with ML; [1]: the older Mm with Ml.
    std::array<size_t, 2> lists{kNone, kNone};
    std::array<size_t, 2> probabilities{kNone, kNone};
    size_t length = kNone;  // MN
};

bool IsTag(std::string_view aux, size_t at, const char* tag) {
    return aux[at] == tag[0] && aux[at + 1] == tag[1];
}

// Records where each field sits; "" unless one is there twice.
std::string FindFields(std::string_view aux, Fields& fields) {
    for (size_t at = 0; at < aux.size();) {
        const size_t size = AuxFieldSize(aux, at);
        if (size == 0) return "damaged tags";
        size_t* slot = IsTag(aux, at, "MM")   ? &fields.lists[0]
                       : IsTag(aux, at, "Mm") ? &fields.lists[1]
                       : IsTag(aux, at, "ML") ? &fields.probabilities[0]
                       : IsTag(aux, at, "Ml") ? &fields.probabilities[1]
                       : IsTag(aux, at, "MN") ? &fields.length
                                              : nullptr;
        if (slot != nullptr) {
            if (*slot != kNone) return std::string(aux.substr(at, 2)) + " twice";
            *slot = at;
        }
        at += size;
    }
    return "";
}

// The integer value of an integer field, or nothing for another type.
std::optional<int64_t> IntegerValue(std::string_view aux, size_t at) {
    const char* value = aux.data() + at + 3;
    const auto read = [&](auto type) {
        decltype(type) number;
        std::memcpy(&number, value, sizeof number);
        return static_cast<int64_t>(number);
    };
    switch (aux[at + 2]) {
        case 'c':
            return read(int8_t{});
        case 'C':
            return read(uint8_t{});
        case 's':
            return read(int16_t{});
        case 'S':
            return read(uint16_t{});
        case 'i':
            return read(int32_t{});
        case 'I':
            return read(uint32_t{});
        default:
            return std::nullopt;
    }
}

// The bytes of a B:C array field, or nothing for another type.
std::optional<std::string_view> ByteArray(std::string_view aux, size_t at) {
    if (aux[at + 2] != 'B' || aux[at + 3] != 'C') return std::nullopt;
    return aux.substr(at + 8, AuxFieldSize(aux, at) - 8);
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}
bool IsLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// One MM value trimmed into kept_lists, with the probabilities of the kept
// calls (from probabilities, when the read has them) into kept_probabilities.
// Returns why the value cannot be read, or "".
std::string TrimLists(std::string_view lists, std::optional<std::string_view> probabilities, const BaseCounts& counts,
                      std::string& kept_lists, std::string& kept_probabilities) {
    size_t at = 0;
    size_t probability = 0;  // first probability of the current call
    const auto fail = [&](const std::string& what) { return what + " at character " + std::to_string(at + 1); };
    while (at < lists.size()) {
        // The list's head: fundamental base, strand, codes, mode.
        const size_t head = at;
        if (kFundamentalBases.find(lists[at]) == std::string_view::npos) return fail("no base A, C, G, T, U or N");
        const auto base = static_cast<size_t>(CountIndex(lists[at]));
        ++at;
        if (at >= lists.size() || (lists[at] != '+' && lists[at] != '-')) return fail("no strand '+' or '-'");
        ++at;
        size_t codes = 0;
        if (at < lists.size() && IsDigit(lists[at])) {
            // A numeric code stands alone.
            codes = 1;
            while (at < lists.size() && IsDigit(lists[at]))
                ++at;
        } else {
            for (; at < lists.size() && IsLetter(lists[at]); ++at)
                ++codes;
        }
        if (codes == 0) return fail("no modification code");
        if (at < lists.size() && (lists[at] == '.' || lists[at] == '?')) ++at;
        kept_lists.append(lists.substr(head, at - head));

        // The calls: each skips that many occurrences of the base after the
        // previous call. Kept ones are those on occurrences in the kept part;
        // the first of them skips the kept occurrences before it.
        const size_t first_kept = counts.front[base];
        const size_t end_kept = first_kept + counts.kept[base];
        size_t next = 0;  // occurrence after the previous call
        bool kept_any = false;
        while (at < lists.size() && lists[at] == ',') {
            ++at;
            const size_t digits = at;
            size_t skip = 0;
            for (; at < lists.size() && IsDigit(lists[at]); ++at) {
                // Larger than the read is already wrong, and cannot overflow.
                if (skip <= counts.total[base]) skip = skip * 10 + static_cast<size_t>(lists[at] - '0');
            }
            if (at == digits) return fail("no skip count");
            if (skip >= counts.total[base] || next + skip >= counts.total[base])
                return fail("a call past the last '" + std::string(1, lists[head]) + "' of the read");
            const size_t occurrence = next + skip;
            next = occurrence + 1;
            if (probabilities && probability + codes > probabilities->size())
                return "more calls in the modification list than probabilities in its ML";
            if (occurrence >= first_kept && occurrence < end_kept) {
                kept_lists += ',';
                kept_lists += std::to_string(kept_any ? skip : occurrence - first_kept);
                kept_any = true;
                if (probabilities) kept_probabilities.append(probabilities->substr(probability, codes));
            }
            probability += codes;
        }
        if (at >= lists.size() || lists[at] != ';') return fail("no ';' ending the list");
        ++at;
        kept_lists += ';';
    }
    if (probabilities && probability != probabilities->size())
        return std::to_string(probabilities->size()) + " probabilities in ML for " + std::to_string(probability) +
               " calls and codes in the modification lists";
    return "";
}

void AppendProbabilities(std::string& aux, const char* tag, std::string_view values) {
    aux.append(tag, 2);
    aux += "BC";
    const auto count = static_cast<uint32_t>(values.size());
    char bytes[4];
    std::memcpy(bytes, &count, 4);
    aux.append(bytes, 4);
    aux.append(values);
}

void AppendLength(std::string& aux, size_t length) {
    aux += "MNi";
    const auto value = static_cast<int32_t>(length);
    char bytes[4];
    std::memcpy(bytes, &value, 4);
    aux.append(bytes, 4);
}

std::string Rewrite(std::string& aux, std::string_view bases, size_t front, size_t rear) {
    Fields fields;
    if (auto problem = FindFields(aux, fields); !problem.empty()) return problem;
    const bool any_list = fields.lists[0] != kNone || fields.lists[1] != kNone;
    if (!any_list && fields.probabilities[0] == kNone && fields.probabilities[1] == kNone && fields.length == kNone)
        return "";
    if (fields.length != kNone) {
        const auto length = IntegerValue(aux, fields.length);
        if (!length) return "MN is not an integer";
        if (*length != static_cast<int64_t>(bases.size()))
            return "MN says " + std::to_string(*length) + " bases, the read has " + std::to_string(bases.size());
    }

    const BaseCounts counts = CountBases(bases, front, rear);
    std::array<std::string, 2> kept_lists, kept_probabilities;
    static constexpr const char* kListTags[] = {"MM", "Mm"};
    static constexpr const char* kProbabilityTags[] = {"ML", "Ml"};
    for (size_t k = 0; k < 2; ++k) {
        std::optional<std::string_view> probabilities;
        if (fields.probabilities[k] != kNone) {
            if (fields.lists[k] == kNone) return std::string(kProbabilityTags[k]) + " without " + kListTags[k];
            probabilities = ByteArray(aux, fields.probabilities[k]);
            if (!probabilities) return std::string(kProbabilityTags[k]) + " is not an array of bytes (B:C)";
        }
        if (fields.lists[k] == kNone) continue;
        const size_t at = fields.lists[k];
        if (aux[at + 2] != 'Z') return std::string(kListTags[k]) + " is not text (Z)";
        const std::string_view lists = std::string_view(aux).substr(at + 3, AuxFieldSize(aux, at) - 4);
        if (auto problem = TrimLists(lists, probabilities, counts, kept_lists[k], kept_probabilities[k]);
            !problem.empty())
            return std::string(kListTags[k]) + ": " + problem;
    }

    const size_t kept = bases.size() - front - rear;
    std::string out;
    out.reserve(aux.size() + 8);
    for (size_t at = 0; at < aux.size();) {
        const size_t size = AuxFieldSize(aux, at);
        bool replaced = false;
        for (size_t k = 0; k < 2; ++k) {
            if (at == fields.lists[k]) {
                out.append(kListTags[k], 2);
                out += 'Z';
                out += kept_lists[k];
                out += '\0';
                replaced = true;
            } else if (at == fields.probabilities[k]) {
                AppendProbabilities(out, kProbabilityTags[k], kept_probabilities[k]);
                replaced = true;
            }
        }
        if (at == fields.length) {
            AppendLength(out, kept);
            replaced = true;
        }
        if (!replaced) out.append(aux, at, size);
        at += size;
    }
    if (any_list && fields.length == kNone) AppendLength(out, kept);
    aux.swap(out);
    return "";
}

}  // namespace

std::string TrimModificationTags(std::string& aux, std::string_view bases, size_t front, size_t rear) {
    if (front > bases.size() || rear > bases.size() - front)
        throw std::invalid_argument("TrimModificationTags: more bases cut than the read has");
    std::string problem = Rewrite(aux, bases, front, rear);
    if (!problem.empty()) RemoveTags(aux, kModificationTags);
    return problem;
}

}  // namespace Common
