#include "apps/summary_row.h"

#include <charconv>
#include <cmath>

namespace Vorpa {

namespace {

const char* const kColumns[] = {"read_id",
                                "barcode_arrangement",
                                "barcode_full_arrangement",
                                "barcode_kit",
                                "barcode_variant",
                                "barcode_score",
                                "barcode_front_id",
                                "barcode_front_score",
                                "barcode_front_refseq",
                                "barcode_front_foundseq",
                                "barcode_front_foundseq_length",
                                "barcode_front_begin_index",
                                "barcode_rear_id",
                                "barcode_rear_score",
                                "barcode_rear_refseq",
                                "barcode_rear_foundseq",
                                "barcode_rear_foundseq_length",
                                "barcode_rear_end_index",
                                "barcode_front_total_trimmed",
                                "barcode_rear_total_trimmed"};
constexpr int kColumnsWithoutTrim = 18;
constexpr int kColumnsWithTrim = 20;
const char* const kSampleColumn = "sample";
// Per end, after "barcode_front_" or "barcode_rear_": the evidence columns.
const char* const kEvidenceColumns[] = {"presence",        "over_rival",         "over_random",
                                        "runner_up_score", "runner_up_presence", "window"};

// A TAB, CR or newline inside a text field (a read id may carry any of them
// but space) would add a column or start a new row. Each becomes '_': the
// field keeps its length and stays one whitespace-free token.
void AppendField(std::string& out, std::string_view text) {
    if (text.find_first_of("\t\r\n") == std::string_view::npos) {
        out += text;
        return;
    }
    for (char c : text)
        out += (c == '\t' || c == '\r' || c == '\n') ? '_' : c;
}

// An end without a barcode reads as its empty id followed by five zeros, so
// that every row has the same number of columns whatever the arrangement.
const char* const kNoBarcodeTail = "\t0\t0\t0\t0\t0";

// As a default-formatted stream prints a float: up to six significant digits
// ("%g"), "inf"/"-inf"/"nan" for the rest.
void AppendScore(std::string& out, float score) {
    if (std::isnan(score)) {
        out += std::signbit(score) ? "-nan" : "nan";
        return;
    }
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, score, std::chars_format::general, 6);
    out.append(text, result.ptr);
}

void AppendInt(std::string& out, long long value) {
    char text[24];
    const auto result = std::to_chars(text, text + sizeof text, value);
    out.append(text, result.ptr);
}

// One end's columns: barcode, score, reference, found sequence, its length
// and `index`, the found sequence's position, which the front and rear count
// differently (see AppendSummaryRow).
void AppendEnd(std::string& out, const Barcoding::BarcodeDetectResult& end, long long index) {
    out += '\t';
    AppendField(out, end.id);
    if (end.id.empty()) {
        out += kNoBarcodeTail;
        return;
    }
    out += '\t';
    AppendScore(out, end.score);
    out += '\t';
    out += end.reference_sequence;
    out += '\t';
    out += end.found_sequence;
    out += '\t';
    AppendInt(out, static_cast<long long>(end.found_sequence.size()));
    out += '\t';
    AppendInt(out, index);
}

// One end's evidence columns; zeros for an end without a barcode.
void AppendEvidence(std::string& out, const Barcoding::EndEvidence& end) {
    if (!end.barcode) {
        out += "\t0\t0\t0\t0\t0\t";
        AppendInt(out, end.window);
        return;
    }
    for (float value : {end.presence, end.over_rival, end.over_random, end.runner_up_score, end.runner_up_presence}) {
        out += '\t';
        AppendScore(out, value);
    }
    out += '\t';
    AppendInt(out, end.window);
}

// The optional columns of a row, in header order, and its end. best is
// nullptr for the no-result row.
void AppendOptionalColumns(std::string& out, const TrimmedBases* trimmed, const std::string* sample, const char* reason,
                           QualityColumns quality, const Barcoding::ArrangementDetectResult* best,
                           const int* internal_count) {
    if (trimmed != nullptr) {
        out += '\t';
        AppendInt(out, trimmed->front);
        out += '\t';
        AppendInt(out, trimmed->rear);
    }
    if (quality.quality) {
        out += '\t';
        AppendInt(out, best == nullptr ? 0 : best->quality);
    }
    if (quality.evidence) {
        const Barcoding::QualityInputs none;
        AppendEvidence(out, best == nullptr ? none.front : best->inputs.front);
        AppendEvidence(out, best == nullptr ? none.rear : best->inputs.rear);
    }
    if (sample != nullptr) {
        out += '\t';
        out += *sample;
    }
    if (reason != nullptr) {
        out += '\t';
        out += reason;
    }
    if (internal_count != nullptr) {
        out += '\t';
        AppendInt(out, *internal_count);
    }
    out += '\n';
}

}  // namespace

std::string SummaryHeader(bool with_trim_columns, bool with_sample_column, bool with_reason_column,
                          QualityColumns quality, bool with_internal_count_column) {
    const int count = with_trim_columns ? kColumnsWithTrim : kColumnsWithoutTrim;
    std::string header;
    for (int i = 0; i < count; ++i) {
        if (i > 0) header += '\t';
        header += kColumns[i];
    }
    if (quality.quality) header += "\tbarcode_quality";
    if (quality.evidence)
        for (const char* end : {"front", "rear"})
            for (const char* column : kEvidenceColumns)
                header.append("\tbarcode_").append(end).append("_").append(column);
    if (with_sample_column) header.append("\t").append(kSampleColumn);
    if (with_reason_column) header += "\tbarcode_unclassified_reason";
    if (with_internal_count_column) header += "\tbarcode_internal_count";
    header += '\n';
    return header;
}

void AppendSummaryRow(std::string& out, std::string_view read_id, const Barcoding::ArrangementDetectResult& best,
                      int rear_window, const TrimmedBases* trimmed, const std::string* sample, const char* reason,
                      QualityColumns quality, const int* internal_count) {
    AppendField(out, read_id);
    out += '\t';
    AppendField(out, best.normalised_id);
    out += '\t';
    AppendField(out, best.id);
    out += '\t';
    AppendField(out, best.kit);
    out += '\t';
    AppendField(out, best.variant);
    out += '\t';
    AppendScore(out, best.score);
    AppendEnd(out, best.front, best.front.begin_index);
    // The rear detection counts its index back from the end of the window;
    // the summary reports where the found sequence ends counted from the
    // window start.
    const auto rear_found = static_cast<long long>(best.rear.found_sequence.size());
    AppendEnd(out, best.rear, rear_window - rear_found - best.rear.begin_index);
    AppendOptionalColumns(out, trimmed, sample, reason, quality, &best, internal_count);
}

std::string NoResultRow(std::string_view read_id, bool with_trim_columns, const std::string* sample, const char* reason,
                        QualityColumns quality, const int* internal_count) {
    // Columns 3 to 5 are texts (left empty), 6 is the score, then both ends
    // in their no-barcode form.
    std::string row;
    AppendField(row, read_id);
    row += "\tunclassified\t\t\t\t0\t";
    row += kNoBarcodeTail;
    row += '\t';
    row += kNoBarcodeTail;
    const TrimmedBases none;
    AppendOptionalColumns(row, with_trim_columns ? &none : nullptr, sample, reason, quality, nullptr, internal_count);
    return row;
}

}  // namespace Vorpa
