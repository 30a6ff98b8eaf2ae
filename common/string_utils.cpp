#include "common/string_utils.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>

namespace Common {

namespace detail {

std::string FormatRaw(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list measure;
    va_copy(measure, args);
    int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string result;
    if (length > 0) {
        // vsnprintf writes the terminating NUL too; std::string keeps room for it.
        result.resize(static_cast<size_t>(length));
        std::vsnprintf(result.data(), result.size() + 1, format, args);
    }
    va_end(args);
    return result;
}

}  // namespace detail

std::string RemoveWhitespace(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    std::copy_if(text.begin(), text.end(), std::back_inserter(result),
                 [](char c) { return !std::isspace(static_cast<unsigned char>(c)); });
    return result;
}

std::string TrimWhitespace(const std::string& text) {
    auto is_space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    auto begin = std::find_if_not(text.begin(), text.end(), is_space);
    auto end = std::find_if_not(text.rbegin(), std::make_reverse_iterator(begin), is_space).base();
    return std::string(begin, end);
}

void SkipByteOrderMark(std::istream& in) {
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    if (in.peek() != static_cast<unsigned char>(kMark[0])) return;
    const std::streampos start = in.tellg();
    char head[3] = {};
    in.read(head, 3);
    if (in.gcount() == 3 && std::string_view(head, 3) == kMark) return;
    in.clear();
    in.seekg(start);
}

// 255 bytes is NAME_MAX on the usual Linux file systems; a longer name fails
// only when the file is created, which is too late for a configuration check.
bool IsUsableFileNameComponent(std::string_view text) {
    constexpr size_t kMaxNameBytes = 255;
    if (text.empty() || text == "." || text == ".." || text.size() > kMaxNameBytes) return false;
    return std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return c == '/' || byte < 0x20 || byte == 0x7f;
    });
}

namespace {

char Complement(char base) {
    switch (base) {
        case 'A':
            return 'T';
        case 'C':
            return 'G';
        case 'G':
            return 'C';
        case 'T':
            return 'A';
        case 'U':
            return 'A';
        case 'a':
            return 't';
        case 'c':
            return 'g';
        case 'g':
            return 'c';
        case 't':
            return 'a';
        case 'u':
            return 'a';
        default:
            return base;  // ambiguity codes and the like stay as they are
    }
}

}  // namespace

std::string ReverseComplement(std::string sequence) {
    std::reverse(sequence.begin(), sequence.end());
    std::transform(sequence.begin(), sequence.end(), sequence.begin(), Complement);
    return sequence;
}

size_t Utf8SequenceLength(const std::string& text, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) return 1;
    size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    for (size_t k = 1; k < length; ++k) {
        const unsigned char c = byte(i + k);
        if (c < (k == 1 ? low : 0x80) || c > (k == 1 ? high : 0xBF)) return 0;
    }
    return length;
}

}  // namespace Common
