#include "apps/output_policy.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string_view>

#include "apps/read_parts.h"
#include "apps/run_report.h"
#include "barcoding/barcode_scorer.h"
#include "common/bam_record.h"
#include "common/barcode_trimmer.h"
#include "common/base_modifications.h"
#include "common/logger.h"

namespace Vorpa {

namespace {

const char* const kNotInSampleSheet = "not in sample sheet";
const std::string kUnclassifiedSample = kUnclassified;

// Bases each end loses: what the best result asks for, clamped as the trimmer
// clamps it, the rear on what the front leaves.
TrimmedBases TrimAmounts(const Barcoding::ArrangementDetectResult& best, const Barcoding::ScorerOptions& options,
                         size_t bases) {
    TrimmedBases trim;
    trim.front = Common::BarcodeTrimmer::TrimmableBases(Barcoding::FrontTrimLength(best, options), bases);
    trim.rear = Common::BarcodeTrimmer::TrimmableBases(Barcoding::RearTrimLength(best, options),
                                                       bases - static_cast<size_t>(trim.front));
    return trim;
}

const Common::Logger& PolicyLog() {
    static const Common::Logger logger("output");
    return logger;
}

// A read from BAM input keeps its tags, less earlier arrangement and barcode
// quality tags and, when bases are cut off, the per-base tags (one value per
// base, of no use for a part of the read). Its base modifications follow the
// cut instead: the calls on kept bases stay on them, which needs the bases as
// they were (the record is not trimmed yet). Modification tags that cannot be
// read are dropped, with a warning naming the read, rather than written
// wrong. A read from FASTQ keeps its title's comment (the key=value fields)
// as the standard comment tag CO, which BAM input reads back into the title.
// A part of a split read names its parent (pi, replacing an earlier one).
// Then come the arrangement (ar) and the barcode quality (bq).
void BamTags(const Common::FastQRecord& record, const ReadOutput& out, std::string_view parent, std::string& tags) {
    tags.clear();
    if (record.tags) {
        tags = *record.tags;
        const std::string_view our_tags[] = {Common::kArrangementTag, Common::kBarcodeQualityTag};
        Common::RemoveTags(tags, our_tags);
        if (!parent.empty()) {
            const std::string_view parent_tag[] = {kParentTag};
            Common::RemoveTags(tags, parent_tag);
        }
        if (out.trim.front + out.trim.rear > 0) {
            Common::RemoveTags(tags, Common::kPerBaseTags);
            const std::string problem = Common::TrimModificationTags(
                tags, record.sequence, static_cast<size_t>(out.trim.front), static_cast<size_t>(out.trim.rear));
            if (!problem.empty())
                VB_LOG(PolicyLog(), Common::Severity::warning)
                    << "Read '" << record.ReadId() << "': its base-modification tags cannot be read (" << problem
                    << "); they are dropped, not written";
        }
    } else if (!record.Comment().empty()) {
        Common::AppendTextTag(tags, "CO", record.Comment());
    }
    if (!parent.empty()) Common::AppendTextTag(tags, kParentTag, parent);
    Common::AppendTextTag(tags, Common::kArrangementTag, out.arrangement);
    Common::AppendIntTag(tags, Common::kBarcodeQualityTag, out.quality);
}

}  // namespace

void DecideOutput(const Common::FastQRecord& record, const std::vector<Barcoding::ArrangementDetectResult>& results,
                  const OutputPolicy& policy, ReadOutput& out, const ReadExtras& extras) {
    const std::string_view read_id = record.ReadId();
    if (policy.bam && !Common::ValidBamReadName(read_id))
        throw std::runtime_error("the read id '" + std::string(read_id) + "' cannot be a BAM read name");

    const bool trimming = policy.scorer.trim_barcodes;
    out.arrangement = kUnclassified;
    out.score = -std::numeric_limits<float>::infinity();
    out.trim = TrimmedBases{};
    out.mixed = false;
    out.quality = 0;
    out.error_probability = 0;
    out.candidate_quality = -1;
    out.unlisted.clear();
    // The scorer always returns a result; an empty list counts as nothing found.
    out.reason = Barcoding::UnclassifiedReasonText(Barcoding::UnclassifiedReason::kNoBarcodeAboveMinimum);
    if (!results.empty()) {
        const auto& best = results.front();
        out.arrangement = best.normalised_id;
        out.score = best.score;
        out.reason = Barcoding::UnclassifiedReasonText(best.reason);
        out.mixed = best.mixed;
        out.quality = best.quality;
        out.error_probability = best.error_probability;
        out.candidate_quality = best.candidate_quality;
        // The cross-talk estimate scales unlisted pairs to listed calls, so it
        // counts only those called as firmly: both ends passing.
        if (best.reason == Barcoding::UnclassifiedReason::kPairNotInSheet &&
            best.front.score >= policy.scorer.min_score && best.rear.score >= policy.scorer.min_score_rear_override)
            out.unlisted = best.id;
        if (trimming) out.trim = TrimAmounts(best, policy.scorer, record.sequence.size());
    }
    // With a sample sheet, a read whose arrangement the sheet does not list
    // is unclassified; its summary row still shows the best candidate.
    out.sample = nullptr;
    bool unlisted = false;
    if (policy.sample_sheet != nullptr && out.arrangement != kUnclassified) {
        const int pair = results.front().listed_pair;
        const int number = pair >= 0 ? policy.sample_sheet->SampleNumberOfPair(static_cast<size_t>(pair))
                                     : policy.sample_sheet->SampleNumberOf(out.arrangement);
        if (number >= 0) {
            out.sample_number = static_cast<size_t>(number);
            out.sample = &policy.sample_sheet->samples[out.sample_number];
        } else {
            unlisted = true;
            out.unlisted = out.arrangement;
            out.arrangement = kUnclassified;
            out.reason = kNotInSampleSheet;
        }
    }
    if (out.arrangement == kUnclassified) {
        out.quality = 0;
        out.error_probability = 0;
    } else {
        out.reason = "";
    }
    out.folder = out.sample != nullptr ? *out.sample : out.arrangement;
    if (policy.sample_sheet != nullptr && out.sample == nullptr) {
        out.sample = &kUnclassifiedSample;
        out.sample_number = policy.sample_sheet->samples.size();
    }
    out.run_id.assign(record.RunId());

    out.title_tag.clear();
    out.bam_tags.clear();
    if (policy.bam) {
        BamTags(record, out, extras.parent_read_id, out.bam_tags);
    } else {
        if (!extras.parent_read_id.empty())
            out.title_tag.append(kParentTitleKey).append(1, '=').append(extras.parent_read_id).append(1, ' ');
        out.title_tag.append("barcode=").append(out.arrangement);
    }

    out.summary_row.clear();
    const char* reason_column = policy.reason_column ? out.reason : nullptr;
    const int* count_column = policy.internal_count_column ? &extras.internal_count : nullptr;
    if (results.empty()) {
        out.summary_row =
            NoResultRow(read_id, trimming, out.sample, reason_column, policy.quality_columns, count_column);
        return;
    }
    const int rear_window = std::min(policy.scorer.rear_window_size, static_cast<int>(record.sequence.size()));
    const TrimmedBases* trim_columns = trimming ? &out.trim : nullptr;
    if (unlisted) {
        auto shown = results.front();
        shown.normalised_id = kUnclassified;
        shown.quality = 0;
        AppendSummaryRow(out.summary_row, read_id, shown, rear_window, trim_columns, out.sample, reason_column,
                         policy.quality_columns, count_column);
    } else {
        AppendSummaryRow(out.summary_row, read_id, results.front(), rear_window, trim_columns, out.sample,
                         reason_column, policy.quality_columns, count_column);
    }
}

}  // namespace Vorpa
