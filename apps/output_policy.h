#pragma once
// Where one classified read goes and what it carries with it, decided from
// plain values: the read, its classification and the output options. The
// barcoder's workers apply the decision (Barcoder::WriteResults); keeping it
// apart keeps every rule of the output in one place that tests can reach
// without a run.

#include <string>
#include <string_view>
#include <vector>

#include "apps/sample_sheet.h"
#include "apps/summary_row.h"
#include "barcoding/detect_results.h"
#include "barcoding/scorer_options.h"
#include "common/fastq_record.h"

namespace Vorpa {

// The options the decision depends on, fixed for a run.
struct OutputPolicy {
    Barcoding::ScorerOptions scorer;            // trimming, minimum scores, the rear window
    bool bam = false;                           // BAM records instead of FASTQ text
    const SampleSheet* sample_sheet = nullptr;  // files reads by sample when set
    bool reason_column = false;                 // the summary's barcode_unclassified_reason
    QualityColumns quality_columns;             // the summary's barcode quality and evidence columns
    bool internal_count_column = false;         // the summary's barcode_internal_count
};

// What the worker knows of a read beyond its classification, with
// --internal_barcodes reject or split.
struct ReadExtras {
    int internal_count = 0;  // barcode constructs inside it (a part: inside the read it was cut from)
    // A part of a split read: the id of the read it was cut from, which its
    // title (parent_read_id=) or BAM record (tag pi) names.
    std::string_view parent_read_id;
};

// What becomes of one read.
struct ReadOutput {
    std::string folder;       // relative to the save path: the sample's, else the arrangement's
    std::string run_id;       // names the file series within the folder
    std::string arrangement;  // as reported: the title tag, BAM tag ar, the run's tally
    // With a sample sheet: the sample, "unclassified" for a read of no
    // listed arrangement; nullptr without one.
    const std::string* sample = nullptr;
    // Its number in the sheet's samples; the sheet's sample count for
    // "unclassified". Counted by it: no lookup of the name per read.
    size_t sample_number = 0;
    TrimmedBases trim;        // bases to cut from each end (0 without trimming)
    std::string title_tag;    // FASTQ output: appended to the title after a space
    std::string bam_tags;     // BAM output: the record's tags (raw aux bytes)
    std::string summary_row;  // its line of barcoding_summary.txt
    const char* reason = "";  // why it is unclassified; "" for a classified read
    bool mixed = false;       // its ends named different barcodes
    float score = 0;          // the best arrangement's score (-infinity without one)
    int quality = 0;          // the call's barcode quality, 0 when unclassified
    // The probability that the call is wrong; 0 when unclassified (no call,
    // no wrong call to expect).
    double error_probability = 0;
    int candidate_quality = -1;  // the best candidate's quality, made or not; -1 without one
    // With a sample sheet: the arrangement (or pair) the read was called to
    // that the sheet does not list, which only misassignment explains; empty
    // otherwise. The cross-talk estimate counts these.
    std::string unlisted;
};

// Decides for a read that has a run id; results are the scorer's, best
// first (an empty list means nothing found). Throws std::runtime_error when
// the read cannot be written as asked (a read id that cannot be a BAM read
// name). Logs the trimmer's warnings for amounts it had to clamp. out is
// filled in place, so that its strings keep their capacity from one read to
// the next.
void DecideOutput(const Common::FastQRecord& record, const std::vector<Barcoding::ArrangementDetectResult>& results,
                  const OutputPolicy& policy, ReadOutput& out, const ReadExtras& extras = {});

}  // namespace Vorpa
