// The FASTQ reader through its public API (OpenFastqFile, FastQIterable) on
// the same bytes from memory and from a file: a ".fastq" file, or gzip
// compressed in a ".fastq.gz" file as one member or as two concatenated ones
// (as `cat a.gz b.gz` makes), chosen by the input size so that each pass costs
// one file (opening one allocates megabytes of buffers). Every way must give
// the same records, each keeping the record invariants. An input that starts
// like a gzip archive is also read raw as a ".fastq.gz" file: a corrupt
// archive may end the iteration but nothing else.

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "common/fastq_reader.h"
#include "common/fastq_record.h"
#include "fuzz/fuzz_support.h"

namespace {

// More would only make the target slower; the input size bounds it anyway.
constexpr size_t kMaxRecords = 10000;

void CheckRecord(const Common::FastQRecord& record) {
    FUZZ_CHECK(record.sequence.size() == record.qstring.size());
    for (char c : record.sequence)
        FUZZ_CHECK(c == 'A' || c == 'C' || c == 'G' || c == 'T' || c == 'U');
    for (char c : record.qstring)
        FUZZ_CHECK(c >= '!' && c <= '~');
    if (!record.title.empty()) {
        record.GetReadId();
        record.GetRunId();
    }
}

std::vector<Common::FastQRecord> ReadAll(std::istream* stream) {
    std::vector<Common::FastQRecord> records;
    Common::FastQIterable reads(stream);
    for (reads.Begin(); !reads.AtEnd() && records.size() < kMaxRecords; reads.Increment()) {
        CheckRecord(reads.Record());
        records.push_back(reads.Record());
    }
    return records;
}

std::vector<Common::FastQRecord> ReadFile(const std::string& path) {
    auto stream = Common::OpenFastqFile(path);
    return ReadAll(stream.get());
}

// One gzip member holding bytes.
std::string Gzip(std::string_view bytes) {
    z_stream z{};
    FUZZ_CHECK(deflateInit2(&z, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) == Z_OK);
    std::string out(deflateBound(&z, bytes.size()) + 32, '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    z.avail_in = static_cast<uInt>(bytes.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    FUZZ_CHECK(deflate(&z, Z_FINISH) == Z_STREAM_END);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

bool Same(const std::vector<Common::FastQRecord>& a, const std::vector<Common::FastQRecord>& b) {
    if (a.size() != b.size()) return false;
    for (size_t k = 0; k < a.size(); ++k) {
        if (a[k].title != b[k].title || a[k].sequence != b[k].sequence || a[k].qstring != b[k].qstring) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::istringstream memory{std::string(bytes)};
    const auto expected = ReadAll(&memory);

    const size_t half = size / 2;
    std::string path;
    switch (size % 3) {
        case 0:
            path = Fuzz::WriteScratch("plain.fastq", bytes);
            break;
        case 1:
            path = Fuzz::WriteScratch("packed.fastq.gz", Gzip(bytes));
            break;
        default:
            path = Fuzz::WriteScratch("packed.fastq.gz", Gzip(bytes.substr(0, half)) + Gzip(bytes.substr(half)));
    }
    FUZZ_CHECK(Same(ReadFile(path), expected));

    if (size >= 2 && data[0] == 0x1f && data[1] == 0x8b) ReadFile(Fuzz::WriteScratch("raw.fastq.gz", bytes));
    return 0;
}
