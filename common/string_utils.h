#pragma once
// Small text helpers shared by configuration loading and messages.

#include <istream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Common {

namespace detail {
// printf into a std::string; the arguments must already be printf-compatible.
std::string FormatRaw(const char* format, ...);

inline const char* FormatArg(const std::string& text) {
    return text.c_str();
}
template <typename T>
T FormatArg(T value) {
    static_assert(std::is_arithmetic_v<T> || std::is_pointer_v<T>,
                  "FormatString takes numbers, C strings and std::string only");
    return value;
}
}  // namespace detail

// printf-style formatting with the result as a string: FormatString("barcode%02d", 7)
// gives "barcode07". std::string arguments may be passed directly for "%s".
template <typename... Args>
std::string FormatString(const std::string& format, const Args&... args) {
    return detail::FormatRaw(format.c_str(), detail::FormatArg(args)...);
}

// Removes every character for which C isspace() is true, wherever it is.
std::string RemoveWhitespace(const std::string& text);
// Removes the isspace() characters at both ends only.
std::string TrimWhitespace(const std::string& text);

// Steps over a UTF-8 byte order mark at the stream's start: editors and
// spreadsheets on some systems put one before the text of a file saved as
// UTF-8, and it is no part of the first line. Anything else is left unread.
void SkipByteOrderMark(std::istream& in);

// Whether text can be used as-is as one component of a file path (a folder or
// file name inside a known folder): not empty, not "." or "..", at most 255
// bytes, and free of '/', NUL and other control characters (bytes below 0x20
// and 0x7f). Text that passes cannot climb out of its folder or split a path.
bool IsUsableFileNameComponent(std::string_view text);

// The reverse complement of a nucleotide sequence: A, C, G, T and U (either
// case) become their complements (U becomes A), anything else (ambiguity
// codes) stays as it is. Takes the sequence by value, so a moved-in string is
// turned in place.
std::string ReverseComplement(std::string sequence);

// Length of the well-formed UTF-8 sequence starting at text[i], 0 when the
// bytes there are not one (overlong forms and surrogates included).
size_t Utf8SequenceLength(const std::string& text, size_t i);

}  // namespace Common
