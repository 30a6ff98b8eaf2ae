// BAM is little-endian; so is every machine this builds for, which lets the
// fixed fields be copied as they are in memory.

#include "common/bam_record.h"

#include <array>
#include <bit>
#include <cstring>
#include <stdexcept>

namespace Common {

static_assert(std::endian::native == std::endian::little, "BAM encoding assumes a little-endian machine");

namespace {

// Size of one value of an aux type, 0 for the variable-length types.
size_t FixedValueSize(char type) {
    switch (type) {
        case 'A':
        case 'c':
        case 'C':
            return 1;
        case 's':
        case 'S':
            return 2;
        case 'i':
        case 'I':
        case 'f':
            return 4;
        default:
            return 0;
    }
}

// 4-bit base codes of the format ("=ACMGRSVTWYHKDBN"); every other character
// is N. U is T: the format has no code for it.
constexpr std::array<uint8_t, 256> MakeBaseCodes() {
    std::array<uint8_t, 256> codes{};
    for (auto& code : codes)
        code = 15;
    codes['A'] = 1;
    codes['C'] = 2;
    codes['G'] = 4;
    codes['T'] = 8;
    codes['U'] = 8;
    return codes;
}
constexpr std::array<uint8_t, 256> kBaseCode = MakeBaseCodes();

template <typename T>
void AppendValue(std::string& out, T value) {
    char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    out.append(bytes, sizeof(T));
}

}  // namespace

size_t AuxFieldSize(std::string_view aux, size_t at) {
    if (at + 3 > aux.size()) return 0;
    const char type = aux[at + 2];
    const size_t value = at + 3;
    if (const size_t fixed = FixedValueSize(type); fixed > 0) return value + fixed <= aux.size() ? 3 + fixed : 0;
    if (type == 'Z' || type == 'H') {
        const size_t nul = aux.find('\0', value);
        return nul == std::string_view::npos ? 0 : nul + 1 - at;
    }
    if (type != 'B' || value + 5 > aux.size()) return 0;
    const size_t element = FixedValueSize(aux[value]);
    uint32_t count = 0;
    std::memcpy(&count, aux.data() + value + 1, sizeof count);
    if (element == 0 || count > (aux.size() - value - 5) / element) return 0;
    return 3 + 5 + static_cast<size_t>(count) * element;
}

bool ValidAux(std::string_view aux) {
    for (size_t at = 0; at < aux.size();) {
        const size_t size = AuxFieldSize(aux, at);
        if (size == 0) return false;
        at += size;
    }
    return true;
}

std::optional<std::string_view> FindTextTag(std::string_view aux, const char tag[2]) {
    for (size_t at = 0; at < aux.size();) {
        const size_t size = AuxFieldSize(aux, at);
        if (size == 0) return std::nullopt;
        if (aux[at] == tag[0] && aux[at + 1] == tag[1]) {
            if (aux[at + 2] != 'Z') return std::nullopt;
            return aux.substr(at + 3, size - 4);
        }
        at += size;
    }
    return std::nullopt;
}

void RemoveTags(std::string& aux, std::span<const std::string_view> tags) {
    size_t kept = 0;
    for (size_t at = 0; at < aux.size();) {
        const size_t size = AuxFieldSize(aux, at);
        if (size == 0) break;  // not valid past here: left as it is
        bool drop = false;
        for (auto tag : tags)
            drop = drop || (aux[at] == tag[0] && aux[at + 1] == tag[1]);
        if (!drop) {
            if (kept != at) std::memmove(aux.data() + kept, aux.data() + at, size);
            kept += size;
        }
        at += size;
    }
    aux.resize(kept);
}

void AppendTextTag(std::string& aux, const char tag[2], std::string_view value) {
    aux.append(tag, 2);
    aux += 'Z';
    const size_t start = aux.size();
    aux.append(value);
    for (size_t i = start; i < aux.size(); ++i) {
        const auto c = static_cast<unsigned char>(aux[i]);
        if (c < 0x20 || c == 0x7f) aux[i] = ' ';
    }
    aux += '\0';
}

void AppendIntTag(std::string& aux, const char tag[2], int32_t value) {
    aux.append(tag, 2);
    auto append = [&aux](char type, auto v) {
        aux += type;
        for (size_t k = 0; k < sizeof v; ++k)
            aux += static_cast<char>((static_cast<uint64_t>(v) >> (8 * k)) & 0xff);
    };
    if (value >= 0) {
        if (value <= UINT8_MAX) return append('C', static_cast<uint8_t>(value));
        if (value <= UINT16_MAX) return append('S', static_cast<uint16_t>(value));
        return append('I', static_cast<uint32_t>(value));
    }
    if (value >= INT8_MIN) return append('c', static_cast<int8_t>(value));
    if (value >= INT16_MIN) return append('s', static_cast<int16_t>(value));
    append('i', value);
}

bool ValidBamReadName(std::string_view name) {
    if (name.empty() || name.size() > 254 || name[0] == '@') return false;
    for (unsigned char c : name) {
        if (c <= 0x20 || c >= 0x7f) return false;
    }
    return true;
}

void AppendBamRecord(std::string& out, std::string_view read_name, std::string_view bases, std::string_view qualities,
                     std::string_view aux) {
    if (!ValidBamReadName(read_name))
        throw std::runtime_error("the read id '" + std::string(read_name) + "' cannot be a BAM read name");
    if (qualities.size() != bases.size()) throw std::runtime_error("bases and qualities differ in length");
    const auto length = static_cast<uint32_t>(bases.size());
    const size_t packed = (bases.size() + 1) / 2;
    const size_t body = 32 + read_name.size() + 1 + packed + bases.size() + aux.size();
    const size_t start = out.size();
    out.reserve(start + 4 + body);
    AppendValue<int32_t>(out, static_cast<int32_t>(body));
    AppendValue<int32_t>(out, -1);  // reference
    AppendValue<int32_t>(out, -1);  // position
    AppendValue<uint8_t>(out, static_cast<uint8_t>(read_name.size() + 1));
    AppendValue<uint8_t>(out, 0);        // mapping quality
    AppendValue<uint16_t>(out, 4680);    // bin of an unplaced record
    AppendValue<uint16_t>(out, 0);       // CIGAR operations
    AppendValue<uint16_t>(out, 4);       // flag: unmapped
    AppendValue<uint32_t>(out, length);  // sequence length
    AppendValue<int32_t>(out, -1);       // mate reference
    AppendValue<int32_t>(out, -1);       // mate position
    AppendValue<int32_t>(out, 0);        // template length
    out.append(read_name);
    out += '\0';
    const size_t seq = out.size();
    out.resize(seq + packed + bases.size());
    auto* packed_bases = reinterpret_cast<uint8_t*>(out.data() + seq);
    const auto* text = reinterpret_cast<const unsigned char*>(bases.data());
    for (size_t i = 0; i + 1 < bases.size(); i += 2)
        packed_bases[i / 2] = static_cast<uint8_t>(kBaseCode[text[i]] << 4 | kBaseCode[text[i + 1]]);
    if (bases.size() % 2 != 0) packed_bases[packed - 1] = static_cast<uint8_t>(kBaseCode[text[bases.size() - 1]] << 4);
    char* phred = out.data() + seq + packed;
    for (size_t i = 0; i < qualities.size(); ++i)
        phred[i] = static_cast<char>(qualities[i] - 33);
    out.append(aux);
}

}  // namespace Common
