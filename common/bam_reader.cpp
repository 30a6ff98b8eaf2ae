#include "common/bam_reader.h"

#include <htslib/sam.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>

#include "common/bam_record.h"
#include "common/logger.h"
#include "common/string_utils.h"

namespace Common {

namespace {

// Two bases per byte of packed sequence, and whether both are A, C, G or T.
struct BasePairs {
    std::array<std::array<char, 2>, 256> text{};
    std::array<bool, 256> plain{};
};

constexpr BasePairs MakeBasePairs() {
    constexpr char kCodes[] = "=ACMGRSVTWYHKDBN";
    constexpr bool kPlain[16] = {false, true,  true,  false, true,  false, false, false,
                                 true,  false, false, false, false, false, false, false};
    BasePairs pairs;
    for (int byte = 0; byte < 256; ++byte) {
        pairs.text[byte] = {kCodes[byte >> 4], kCodes[byte & 15]};
        pairs.plain[byte] = kPlain[byte >> 4] && kPlain[byte & 15];
    }
    return pairs;
}
constexpr BasePairs kBasePairs = MakeBasePairs();

// What a read group's @RG line says about the run: the value of a "runid="
// field of its description (DS, space-separated key=value fields, as
// basecallers write it) and its platform unit (PU, often the flow cell,
// which two runs may share). Empty when absent.
struct ReadGroupRun {
    std::string run_id;
    std::string platform_unit;
};
// Looked up by the record's tag text without copying it.
using ReadGroupRuns = std::map<std::string, ReadGroupRun, std::less<>>;

std::string_view RunIdInDescription(std::string_view description) {
    for (size_t at = 0; at < description.size();) {
        size_t end = description.find(' ', at);
        if (end == std::string_view::npos) end = description.size();
        if (description.substr(at, 6) == "runid=" && end > at + 6) return description.substr(at + 6, end - at - 6);
        at = end + 1;
    }
    return {};
}

ReadGroupRuns RunsOfReadGroups(sam_hdr_t* header) {
    ReadGroupRuns runs;
    const int lines = sam_hdr_count_lines(header, "RG");
    kstring_t value = KS_INITIALIZE;
    for (int i = 0; i < lines; ++i) {
        const char* id = sam_hdr_line_name(header, "RG", i);
        if (id == nullptr) continue;
        ReadGroupRun run;
        if (sam_hdr_find_tag_pos(header, "RG", i, "DS", &value) == 0)
            run.run_id = RunIdInDescription(std::string_view(value.s, value.l));
        if (sam_hdr_find_tag_pos(header, "RG", i, "PU", &value) == 0) run.platform_unit.assign(value.s, value.l);
        if (!run.run_id.empty() || !run.platform_unit.empty()) runs.emplace(id, std::move(run));
    }
    ks_free(&value);
    return runs;
}

const Logger& ReaderLog() {
    static const Logger logger("bam_reader");
    return logger;
}

// A file opened with its header read, closed again by the destructor.
struct HtsInput {
    samFile* file = nullptr;
    sam_hdr_t* header = nullptr;
    bool truncated = false;  // a BAM or CRAM file without its end-of-file marker

    HtsInput(const std::string& path, int threads) {
        file = sam_open(path.c_str(), "r");
        if (file == nullptr) throw std::runtime_error("Could not open input file '" + path + "'");
        truncated = hts_check_EOF(file) == 0;
        header = sam_hdr_read(file);
        if (header == nullptr) {
            sam_close(file);
            throw std::runtime_error("Could not read the header of '" + path + "'");
        }
        // Threads only once the header is read: reading it checks for the
        // end-of-file marker again, and with threads running that check can
        // wait forever on a damaged file (htslib 1.16).
        if (threads > 0) hts_set_threads(file, threads);
    }
    ~HtsInput() {
        sam_hdr_destroy(header);
        sam_close(file);
    }
    HtsInput(const HtsInput&) = delete;
    HtsInput& operator=(const HtsInput&) = delete;
};

}  // namespace

struct BamIterable::Htslib : HtsInput {
    bam1_t* record = nullptr;
    ReadGroupRuns read_group_runs;
    bool told_platform_unit = false;  // the warning that a PU stands in for the run id, once per file

    Htslib(const std::string& path, int threads) : HtsInput(path, threads) {}
    ~Htslib() {
        if (record != nullptr) bam_destroy1(record);
    }
};

bool IsBamFileName(const std::string& path) {
    return path.ends_with(".bam") || path.ends_with(".sam") || path.ends_with(".cram");
}

std::vector<std::string> ReadGroupLines(const std::string& path) {
    const HtsInput hts(path, 0);
    std::vector<std::string> lines;
    const int count = sam_hdr_count_lines(hts.header, "RG");
    kstring_t line = KS_INITIALIZE;
    for (int i = 0; i < count; ++i) {
        if (sam_hdr_find_line_pos(hts.header, "RG", i, &line) == 0) lines.emplace_back(line.s, line.l);
    }
    ks_free(&line);
    return lines;
}

BamIterable::BamIterable(const std::string& path, int threads)
    : hts_(std::make_unique<Htslib>(path, threads)), path_(path) {
    hts_->record = bam_init1();
    if (hts_->record == nullptr) throw std::runtime_error("Out of memory reading '" + path + "'");
    hts_->read_group_runs = RunsOfReadGroups(hts_->header);
}

BamIterable::~BamIterable() = default;

BamIterable& BamIterable::Begin() {
    if (started_) throw std::runtime_error("Cannot start BAM iteration twice");
    started_ = true;
    ReadNext();
    return *this;
}

void BamIterable::Increment() {
    if (!at_end_) ReadNext();
}

void BamIterable::Stop(std::string error) {
    at_end_ = true;
    error_ = std::move(error);
}

void BamIterable::ReadNext() {
    for (;;) {
        const int status = sam_read1(hts_->file, hts_->header, hts_->record);
        if (status == -1) {
            // A file cut at a block boundary reads to a clean end; only the
            // missing marker tells that records are lost.
            Stop(hts_->truncated
                     ? "no end-of-file marker after record " + std::to_string(records_) + ": the file is truncated"
                     : "");
            return;
        }
        if (status < -1) {
            Stop("damaged or truncated data after record " + std::to_string(records_));
            return;
        }
        ++records_;
        if (hts_->record->core.flag & (BAM_FSECONDARY | BAM_FSUPPLEMENTARY)) {
            ++skipped_;
            continue;
        }
        if (Convert()) return;
    }
}

// The run id of a record whose comment names none: a runid= in its read
// group's DS, else its ri tag, else its read group's PU (with a warning once
// per file, since two runs on one flow cell share a PU).
std::optional<std::string_view> BamIterable::RunIdOf(std::string_view tags) {
    const auto group = FindTextTag(tags, "RG");
    const auto run = group ? hts_->read_group_runs.find(*group) : hts_->read_group_runs.end();
    if (run != hts_->read_group_runs.end() && !run->second.run_id.empty()) return run->second.run_id;
    if (const auto run_id = FindTextTag(tags, kRunIdTag)) return run_id;
    if (run == hts_->read_group_runs.end() || run->second.platform_unit.empty()) return std::nullopt;
    if (!hts_->told_platform_unit) {
        hts_->told_platform_unit = true;
        VB_LOG(ReaderLog(), Severity::warning)
            << "'" << path_ << "': the read group '" << run->first
            << "' names no run (no runid= in its DS, no ri tag on the reads), so its platform unit (PU) '"
            << run->second.platform_unit
            << "' is used as the run id: two runs on one flow cell then share their output files";
    }
    return run->second.platform_unit;
}

// Fills record_ (its tags included) from the htslib record; false (with the iteration
// stopped) when the record cannot be a FASTQ record.
bool BamIterable::Convert() {
    const bam1_t* b = hts_->record;
    const auto flag = b->core.flag;
    const std::string_view name = bam_get_qname(b);
    const auto where = [&] { return "record " + std::to_string(records_) + " ('" + std::string(name) + "')"; };

    const auto length = static_cast<size_t>(std::max(0, b->core.l_qseq));
    const uint8_t* packed = bam_get_seq(b);
    std::string& bases = record_.sequence;
    bases.resize(length + 1);
    // Whole bytes are checked by table, without a branch per base; only a
    // record that fails is searched for the base to name.
    bool plain = true;
    for (size_t i = 0; i < length / 2; ++i) {
        std::memcpy(&bases[2 * i], kBasePairs.text[packed[i]].data(), 2);
        plain &= kBasePairs.plain[packed[i]];
    }
    if (length % 2 != 0) {
        const uint8_t last = packed[length / 2];
        bases[length - 1] = kBasePairs.text[last][0];
        plain &= kBasePairs.plain[(last & 0xf0) | 0x01];
    }
    bases.resize(length);
    if (!plain) {
        for (size_t i = 0; i < length; ++i) {
            if (bases[i] != 'A' && bases[i] != 'C' && bases[i] != 'G' && bases[i] != 'T') {
                Stop(where() + ": unexpected base '" + std::string(1, bases[i]) + "' at position " + std::to_string(i));
                return false;
            }
        }
    }

    const uint8_t* phred = bam_get_qual(b);
    std::string& qualities = record_.qstring;
    qualities.resize(length);
    if (length > 0 && phred[0] == 0xff) {
        std::fill(qualities.begin(), qualities.end(), kMissingQuality);
    } else {
        uint8_t highest = 0;
        for (size_t i = 0; i < length; ++i) {
            highest = std::max(highest, phred[i]);
            qualities[i] = static_cast<char>(phred[i] + 33);
        }
        if (highest > 93) {
            const size_t at =
                static_cast<size_t>(std::find_if(phred, phred + length, [](uint8_t q) { return q > 93; }) - phred);
            Stop(where() + ": quality " + std::to_string(phred[at]) + " at position " + std::to_string(at) +
                 " is above 93");
            return false;
        }
    }

    if (!record_.tags) record_.tags.emplace();
    std::string& tags = *record_.tags;
    tags.assign(reinterpret_cast<const char*>(bam_get_aux(b)), static_cast<size_t>(bam_get_l_aux(b)));
    if (!ValidAux(tags)) {
        Stop(where() + ": damaged tags");
        return false;
    }
    if (flag & BAM_FREVERSE) {
        bases = ReverseComplement(std::move(bases));
        std::reverse(qualities.begin(), qualities.end());
        RemoveTags(tags, kPerBaseTags);
    }
    if (!(flag & BAM_FUNMAP)) RemoveTags(tags, kAlignmentTags);

    const auto comment = FindTextTag(tags, "CO");
    const bool comment_names_run = comment && comment->find("runid=") != std::string_view::npos;
    record_.ComposeTitle(name, comment, comment_names_run ? std::nullopt : RunIdOf(tags));
    return true;
}

}  // namespace Common
