#pragma once
// Stand-in gzip member writer (zlib); replaced by the ISA-L one.

#include <string>
#include <string_view>

namespace Common {

class GzipMemberWriter {
public:
    // Appends one complete gzip member holding text to out.
    void Append(std::string_view text, std::string& out);
};

}  // namespace Common
