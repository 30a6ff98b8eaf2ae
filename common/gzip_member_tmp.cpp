#include <zlib.h>

#include <stdexcept>

#include "common/gzip_member_tmp.h"

namespace Common {

void GzipMemberWriter::Append(std::string_view text, std::string& out) {
    z_stream stream{};
    if (deflateInit2(&stream, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("deflateInit2 failed");
    const size_t start = out.size();
    out.resize(start + deflateBound(&stream, text.size()) + 32);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data() + start);
    stream.avail_out = static_cast<uInt>(out.size() - start);
    const int result = deflate(&stream, Z_FINISH);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) throw std::runtime_error("deflate failed");
    out.resize(out.size() - stream.avail_out);
}

}  // namespace Common
