#pragma once
// Shared by the gzip and FASTQ reader tests: zlib as the reference gzip
// implementation, temporary files, random line text, and log capture.

#include <unistd.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace TestSupport {

// One gzip member holding `text`. With `rich_header` the header also carries
// a name, a comment, an extra field and a header CRC, as some tools write.
inline std::string Gzip(std::string_view text, int level = 6, bool rich_header = false) {
    z_stream z{};
    if (deflateInit2(&z, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) throw std::runtime_error("zlib");
    gz_header header{};
    char name[] = "reads.fastq";
    char comment[] = "made by the tests";
    unsigned char extra[] = {'V', 'B', 2, 0, 1, 2};
    if (rich_header) {
        header.name = reinterpret_cast<Bytef*>(name);
        header.comment = reinterpret_cast<Bytef*>(comment);
        header.extra = extra;
        header.extra_len = sizeof(extra);
        header.hcrc = 1;
        deflateSetHeader(&z, &header);
    }
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

// Inflates members one after another as far as zlib gets: to the end of the
// data, or to the first damage.
inline Inflated Gunzip(std::string_view data) {
    Inflated result;
    size_t offset = 0;
    std::string chunk(1 << 16, '\0');
    while (offset < data.size()) {
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

inline std::filesystem::path TempFile(const std::string& name) {
    return std::filesystem::temp_directory_path() / ("vb_test_" + std::to_string(::getpid()) + "_" + name);
}

inline void WriteFile(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// FASTQ-looking text: lines of 0 to max_line characters, so that compressed
// sizes and line boundaries land anywhere.
inline std::string RandomLines(std::mt19937& rng, size_t bytes, size_t max_line) {
    std::string text;
    text.reserve(bytes + max_line + 1);
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

// Runs fn with std::clog captured (logging is not initialised in the test
// binaries, so log records land there).
template <typename Fn>
std::string CapturingLog(Fn fn) {
    std::ostringstream log;
    auto* old = std::clog.rdbuf(log.rdbuf());
    try {
        fn();
    } catch (...) {
        std::clog.rdbuf(old);
        throw;
    }
    std::clog.rdbuf(old);
    return log.str();
}

}  // namespace TestSupport
