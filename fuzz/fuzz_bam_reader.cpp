// BAM and SAM records decoded into reads (BamIterable, through htslib), and
// their base-modification tags rewritten for a cut (TrimModificationTags).
// Inputs are SAM text, or the uncompressed BAM stream (magic, header,
// records), which the target wraps into BGZF blocks so that the fuzzer works
// on records rather than on deflate data; an input already in BGZF form is
// read as it is. Whatever the bytes, a file either opens or is refused naming
// itself, every read delivered is whole and plain (A, C, G, T; qualities
// '!'..'~'; whole tag fields; a read id and run id that can be asked for),
// an iteration that ends early says at which record, and the rewritten tags
// are whole fields that read back without a problem, or none are left.

#include <htslib/hts_log.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/bam_reader.h"
#include "common/bam_record.h"
#include "common/base_modifications.h"
#include "common/bgzf_blocks.h"
#include "fuzz/fuzz_support.h"

namespace {

// More would only make the target slower; the input size bounds it anyway.
constexpr size_t kMaxRecords = 10000;

bool HasModificationTag(std::string_view aux) {
    for (size_t at = 0; at < aux.size(); at += Common::AuxFieldSize(aux, at)) {
        for (auto tag : Common::kModificationTags)
            if (aux.substr(at, 2) == tag) return true;
    }
    return false;
}

void CheckRead(Common::FastQRecord& record) {
    FUZZ_CHECK(record.tags.has_value());
    const std::string& tags = *record.tags;
    FUZZ_CHECK(record.sequence.size() == record.qstring.size());
    for (char c : record.sequence)
        FUZZ_CHECK(c == 'A' || c == 'C' || c == 'G' || c == 'T');
    for (char c : record.qstring)
        FUZZ_CHECK(c >= '!' && c <= '~');
    FUZZ_CHECK(Common::ValidAux(tags));
    record.ReadId();
    record.Comment();
    record.RunId();

    // Cut a third from the front and a quarter from the rear.
    const size_t length = record.sequence.size();
    const size_t front = length / 3, rear = length / 4;
    std::string aux = tags;
    const std::string problem = Common::TrimModificationTags(aux, record.sequence, front, rear);
    FUZZ_CHECK(Common::ValidAux(aux));
    if (!problem.empty()) {
        FUZZ_CHECK(!HasModificationTag(aux));
        return;
    }
    const std::string kept = record.sequence.substr(front, length - front - rear);
    std::string again = aux;
    FUZZ_CHECK(Common::TrimModificationTags(again, kept, 0, 0).empty());
    FUZZ_CHECK(again == aux);
}

// htslib sizes its buffers by the lengths a BAM stream declares (header
// text, reference count and names, record sizes) before reading what they
// announce: a length beyond the input is a huge allocation that fails, an
// error for the program but a finding for the fuzzer's memory limit. Such
// inputs are left out.
bool SizesFitInput(std::string_view bytes) {
    size_t at = 4;
    // The next length; 0 when the input ends first (htslib then stops cleanly).
    const auto next = [&] {
        uint32_t value = 0;
        if (at + 4 <= bytes.size()) std::memcpy(&value, bytes.data() + at, 4);
        at += 4;
        return value;
    };
    const uint32_t text = next();
    at += text;
    const uint32_t references = next();
    if (text > bytes.size() || references > bytes.size()) return false;
    for (uint32_t k = 0; k < references && at < bytes.size(); ++k) {
        const uint32_t name = next();
        if (name > bytes.size()) return false;
        at += name + 4;
    }
    while (at < bytes.size()) {
        const uint32_t record = next();
        if (record > bytes.size()) return false;
        at += record;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLogging();
    hts_set_log_level(HTS_LOG_OFF);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::string path;
    if (bytes.starts_with("\x1f\x8b")) {
        path = Fuzz::WriteScratch("raw.bam", bytes);
    } else if (bytes.starts_with("BAM\1")) {
        if (!SizesFitInput(bytes)) return 0;
        std::string blocks;
        Common::AppendBgzfBlocks(bytes, blocks, Common::kBamCompressionLevel);
        path = Fuzz::WriteScratch("in.bam", blocks + std::string(Common::BgzfEofBlock()));
    } else {
        path = Fuzz::WriteScratch("in.sam", bytes);
    }
    try {
        Common::BamIterable reads(path, 0);
        size_t count = 0;
        for (reads.Begin(); !reads.AtEnd() && count < kMaxRecords; reads.Increment(), ++count)
            CheckRead(reads.Record());
        if (reads.AtEnd() && !reads.Error().empty()) FUZZ_CHECK(reads.Error().find("record") != std::string::npos);
    } catch (const std::runtime_error& error) {
        FUZZ_CHECK(std::string_view(error.what()).find(path) != std::string_view::npos);
    }
    return 0;
}
