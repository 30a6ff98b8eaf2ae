#pragma once
// zlib as the reference gzip implementation, random line text and log capture for the gzip and FASTQ tests.

#include <zlib.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace TestSupport {

// One gzip member holding text; a rich header also carries a file name and a header CRC, as the gzip command
// and some other tools write.
inline std::string Gzip(std::string_view text, int level = 6, bool rich_header = false) {
    z_stream z{};
    if (deflateInit2(&z, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) throw std::runtime_error("zlib");
    char name[] = "reads.fastq";
    gz_header header{};
    header.name = reinterpret_cast<Bytef*>(name);
    header.hcrc = 1;
    if (rich_header) deflateSetHeader(&z, &header);
    std::string out(deflateBound(&z, text.size()) + 128, '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    z.avail_in = static_cast<uInt>(text.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    if (result != Z_STREAM_END) throw std::runtime_error("zlib deflate did not finish");
    return out;
}

struct Inflated {
    std::string text;       // everything zlib could inflate
    bool complete = false;  // every member ended cleanly and nothing followed
};

// Inflates members one after another, to the end of the data or to the first damage.
inline Inflated Gunzip(std::string_view data) {
    Inflated result;
    std::string chunk(1 << 16, '\0');
    for (size_t offset = 0; offset < data.size();) {
        z_stream z{};
        inflateInit2(&z, 15 + 16);
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data() + offset));
        z.avail_in = static_cast<uInt>(data.size() - offset);
        int status = Z_OK;
        while (status == Z_OK) {
            z.next_out = reinterpret_cast<Bytef*>(chunk.data());
            z.avail_out = static_cast<uInt>(chunk.size());
            status = inflate(&z, Z_NO_FLUSH);
            result.text.append(chunk.data(), chunk.size() - z.avail_out);
        }
        offset += z.total_in;
        inflateEnd(&z);
        if (status != Z_STREAM_END) return result;
    }
    result.complete = true;
    return result;
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// FASTQ-looking lines of 0 to max_line characters, so that compressed sizes and line ends land anywhere.
inline std::string RandomLines(std::mt19937& rng, size_t bytes, size_t max_line) {
    std::string text;
    while (text.size() < bytes) {
        const size_t length = rng() % (max_line + 1);
        const bool bases = rng() % 2 == 0;
        for (size_t i = 0; i < length; ++i)
            text += bases ? "ACGT"[rng() % 4] : static_cast<char>('!' + rng() % 40);
        text += '\n';
    }
    text.resize(bytes);
    return text;
}

// Runs fn with std::clog captured: logging is not initialised in the test binaries, so records land there.
template <typename Fn>
std::string CapturingLog(Fn fn) {
    std::ostringstream log;
    struct Restore {
        std::streambuf* old;
        ~Restore() { std::clog.rdbuf(old); }
    } restore{std::clog.rdbuf(log.rdbuf())};
    fn();
    return log.str();
}

}  // namespace TestSupport
