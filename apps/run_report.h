#pragma once
// The end-of-run report: how the reads were classified, what was lost and
// why, and how fast, as log lines for people and as barcoding_report.json for
// workflows and QC tools.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/cross_talk.h"
#include "apps/histogram.h"

namespace Vorpa {

// The arrangement name of reads that carry no barcode the run accepts.
inline constexpr const char* kUnclassified = "unclassified";

// Name of the machine-readable report in the save folder.
inline constexpr const char* kJsonReportFileName = "barcoding_report.json";

struct ArrangementTally {
    uint64_t reads = 0;
    uint64_t bases = 0;
    double score_sum = 0;     // of the finite barcode scores
    uint64_t scored = 0;      // reads with a finite barcode score
    LengthHistogram lengths;  // of the reads as written
    // Sum over the classified reads of the probability that the call is wrong.
    double expected_wrong = 0;

    void Add(uint64_t read_bases, float score, double error_probability = 0);
    void Add(const ArrangementTally& other);
};

// Barcode constructs inside reads (--internal_barcodes reject or split).
struct InternalTally {
    bool searched = false;       // the run looked for them
    uint64_t reads = 0;          // reads in which some were found
    uint64_t parts = 0;          // split: parts written, each a read of its own
    uint64_t parts_dropped = 0;  // split: parts shorter than min_part_length, not written

    void Add(const InternalTally& other);
};

// Counted where the reads are (per batch) and summed by the writer, so no
// counter is shared between threads.
struct RunTally {
    // Scale of the barcode score histograms: 100 is a perfect barcode.
    static constexpr ValueScale kScoreScale{-50, 5, 31};
    // Scale of the barcode quality histograms: 0 to 60 in steps of 5.
    static constexpr ValueScale kQualityScale{0, 5, 13};

    // Written reads by reported arrangement name, "unclassified" included;
    // a read split into parts counts as its parts.
    std::map<std::string, ArrangementTally> arrangements;
    uint64_t dropped = 0;  // reads without a run id: written nowhere
    uint64_t failed = 0;   // reads whose processing failed: written nowhere
    uint64_t mixed = 0;    // reads whose two ends passed for different barcodes
    InternalTally internal;
    // Unclassified reads by reason text ("no barcode above the minimum", ...).
    std::map<std::string, uint64_t, std::less<>> unclassified_reasons;
    uint64_t files_found = 0;
    uint64_t files_read = 0;         // opened and read, to their end or not
    uint64_t files_ended_early = 0;  // stopped by a malformed record or damaged data
    uint64_t files_failed = 0;       // could not be read at all
    uint64_t records_skipped = 0;    // secondary and supplementary BAM records: not reads of their own
    // With a sample sheet: written reads by sample ("unclassified" included).
    std::map<std::string, uint64_t> samples;
    // With a sample sheet: unclassified reads whose best arrangement (or
    // pair) the sheet does not list, by its name; the cross-talk estimate
    // rests on them.
    std::map<std::string, uint64_t> unlisted;
    // Barcode scores of the best candidate, classified against unclassified.
    ClassifiedSplit scores{kScoreScale, {}, {}};
    // Barcode quality of the best candidate's call (made or not), likewise.
    ClassifiedSplit quality{kQualityScale, {}, {}};

    // One written read: its reported arrangement, bases as written, score, the
    // probability that its call is wrong (0 when unclassified) and the
    // quality of its best candidate's call (negative: no candidate).
    void AddRead(const std::string& arrangement, uint64_t bases, float score, double error_probability = 0,
                 int candidate_quality = -1);
    // The same for a batch's tally: the read is counted under its arrangement
    // when the batch is added to the run's tally. A batch of a run with
    // thousands of samples holds a read or two per arrangement, and an entry
    // of its own per arrangement (with its length histogram), made in one
    // thread and freed in another, cost more than the read.
    void NoteRead(const std::string& arrangement, uint64_t bases, float score, double error_probability,
                  int candidate_quality);
    uint64_t Written() const;
    // The reads written, a split read counting once rather than as its parts.
    uint64_t WrittenBeforeSplit() const;
    uint64_t Unclassified() const;
    void Add(const RunTally& other);

    struct NotedRead {
        std::string arrangement;
        uint64_t bases = 0;
        float score = 0;
        double error_probability = 0;
    };
    std::vector<NotedRead> noted;  // by NoteRead, in read order

private:
    void AddScores(const std::string& arrangement, float score, int candidate_quality);
    void AddNoted(const std::vector<NotedRead>& reads);
};

// The report as lines of text (no newlines): a table of arrangement, reads and
// percent of written reads (arrangements by name, "unclassified" last), the
// same by sample when there are samples, the classified and unclassified
// totals, the unclassified reads by reason, the reads with internal barcodes
// and their parts when those were looked for, the cross-talk estimate when
// given, the reads and files lost, the records skipped and the throughput
// over seconds.
std::vector<std::string> FormatRunReport(const RunTally& tally, double seconds,
                                         const CrossTalkEstimate* cross_talk = nullptr);

// What the JSON report says about the run besides the tally.
struct RunInfo {
    std::string version;
    std::vector<std::pair<std::string, std::string>> options;  // name and value text, in declaration order
    double wall_time_s = 0;
    bool finished = true;  // false for the pages written while a watching run goes on
    std::optional<CrossTalkEstimate> cross_talk = std::nullopt;  // with a sample sheet
};

// The text of barcoding_report.json (ends in a newline). Keys keep a fixed
// order; counts are JSON integers, the other figures JSON numbers with a
// fraction; arrangements by name with "unclassified" last. Unclassified
// reasons are keyed by their text in snake case ("no_barcode_above_minimum",
// "mixed_barcodes", "one_end_only", "low_barcode_quality", always present;
// "not_in_sample_sheet" with a sample sheet, "pair_not_in_sample_sheet" with
// a sheet of pairs, "internal_barcode" when internal barcodes were looked
// for); "samples" and "cross_talk" are there with a sample sheet only,
// "internal_barcodes" (reads with internal barcodes, parts written and
// dropped) when they were looked for.
std::string FormatJsonReport(const RunTally& tally, const RunInfo& info);

// text as a JSON string literal, quotes included. Bytes that are not UTF-8
// come out as U+FFFD, so the report always parses.
std::string JsonString(const std::string& text);

// Replaces path by a file holding text, through a temporary file in the same
// folder that is renamed over it: readers see the old file or the whole new
// one, never a part. Throws std::runtime_error naming the file.
void WriteFileAtomically(const std::string& path, const std::string& text);

}  // namespace Vorpa
