#include "apps/summary_row.h"

#include <sstream>

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

// A TAB, CR or newline inside a text field (a read id may carry any of them
// but space) would add a column or start a new row. Each becomes '_': the
// field keeps its length and stays one whitespace-free token.
struct Field {
    const std::string& text;
};

std::ostream& operator<<(std::ostream& out, Field field) {
    const std::string& text = field.text;
    if (text.find_first_of("\t\r\n") == std::string::npos) return out << text;
    for (char c : text)
        out << (c == '\t' || c == '\r' || c == '\n' ? '_' : c);
    return out;
}

// An end without a barcode reads as its empty id followed by five zeros, so
// that every row has the same number of columns whatever the arrangement.
const char* const kNoBarcodeTail = "\t0\t0\t0\t0\t0";

void WriteFront(std::ostream& out, const Barcoding::BarcodeDetectResult& front) {
    out << '\t' << Field{front.id};
    if (front.id.empty()) {
        out << kNoBarcodeTail;
        return;
    }
    out << '\t' << front.score << '\t' << front.reference_sequence << '\t' << front.found_sequence << '\t'
        << front.found_sequence.size() << '\t' << front.begin_index;
}

// The rear detection counts its index back from the end of the window; the
// summary reports where the found sequence ends counted from the window start.
void WriteRear(std::ostream& out, const Barcoding::BarcodeDetectResult& rear, int rear_window) {
    out << '\t' << Field{rear.id};
    if (rear.id.empty()) {
        out << kNoBarcodeTail;
        return;
    }
    const int found_length = static_cast<int>(rear.found_sequence.size());
    out << '\t' << rear.score << '\t' << rear.reference_sequence << '\t' << rear.found_sequence << '\t' << found_length
        << '\t' << (rear_window - found_length - rear.begin_index);
}

}  // namespace

std::string SummaryHeader(bool with_trim_columns) {
    const int count = with_trim_columns ? kColumnsWithTrim : kColumnsWithoutTrim;
    std::string header;
    for (int i = 0; i < count; ++i) {
        if (i > 0) header += '\t';
        header += kColumns[i];
    }
    header += '\n';
    return header;
}

std::string SummaryRow(const std::string& read_id, const Barcoding::ArrangementDetectResult& best, int rear_window,
                       const TrimmedBases* trimmed) {
    std::ostringstream out;
    out << Field{read_id} << '\t' << Field{best.normalised_id} << '\t' << Field{best.id} << '\t' << Field{best.kit}
        << '\t' << Field{best.variant} << '\t' << best.score;
    WriteFront(out, best.front);
    WriteRear(out, best.rear, rear_window);
    if (trimmed != nullptr) out << '\t' << trimmed->front << '\t' << trimmed->rear;
    out << '\n';
    return out.str();
}

std::string NoResultRow(const std::string& read_id, bool with_trim_columns) {
    // Columns 3 to 5 are texts (left empty), 6 is the score, then both ends
    // in their no-barcode form.
    std::ostringstream out;
    out << Field{read_id};
    std::string row = out.str() + "\tunclassified\t\t\t\t0\t" + kNoBarcodeTail + '\t' + kNoBarcodeTail;
    if (with_trim_columns) row += "\t0\t0";
    row += '\n';
    return row;
}

}  // namespace Vorpa
