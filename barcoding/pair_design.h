#pragma once
// Pairs of barcodes: a front barcode at one end of a read and a rear barcode
// at the other name a sample, so that F front and R rear barcodes serve F x R
// samples. A pair kit is an ordinary arrangement file whose sections carry one
// barcode each; the sample sheet lists the pairs in use by the sections'
// normalised ids.
//
// Every pair barcode has one sequence as it reads at the start of a read (its
// front reference, or the reverse complement of its rear reference) and the
// reverse complement of that at the end. A read of the pair (F, R) carries F
// at its start and R, reverse complemented, at its end; a read of the other
// strand carries R at its start and F, reverse complemented, at its end. So
// every pair barcode is searched for at both ends, each end is scored once,
// and the two barcodes found are looked up in a table of the listed pairs, in
// both orders. The front/rear variants of the arrangement file play no part:
// they keep their meaning for ordinary arrangements.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "barcoding/arrangement.h"

namespace Barcoding {

class BarcodeManager;

// One row of a sample sheet with front and rear columns: normalised ids.
struct BarcodePair {
    std::string front;
    std::string rear;
};

// The name a pair is reported by: "<front>_<rear>".
std::string PairName(const std::string& front, const std::string& rear);

// One barcode a pair can use, with its references at the two read ends.
struct PairBarcode {
    std::string name;  // normalised id
    std::string kit;
    std::string start_reference;  // reference name at the start of a read (e.g. "F01_FWD")
    std::string start_sequence;
    std::string end_reference;  // at the end: the reverse complement (e.g. "F01_REV")
    std::string end_sequence;
};

// What a pair of barcodes found at a read's start and end is.
struct PairCall {
    uint32_t front = 0;  // barcode indices in pair order (front, rear)
    uint32_t rear = 0;
    bool reverse = false;  // the read is of the other strand: the rear barcode was at its start
    int listed = -1;       // index of the listed pair, -1 when the sheet does not list it
};

// The normalised ids a sample sheet may pair: those of the arrangements in
// selected with exactly one barcode.
std::vector<std::string> PairBarcodeNames(const std::vector<Arrangement>& selected);

class PairDesign {
public:
    // selected: the run's arrangements (BarcodeManager::GetArrangements);
    // listed: the sheet's pairs, each barcode one of PairBarcodeNames, no pair
    // twice. The design searches for every single-barcode arrangement of the
    // kits the listed barcodes belong to, listed or not, so that reads of
    // unlisted pairs are recognised as such. Throws std::runtime_error for a
    // name it cannot use.
    PairDesign(const std::vector<Arrangement>& selected, const BarcodeManager& manager,
               const std::vector<BarcodePair>& listed);

    const std::vector<PairBarcode>& Barcodes() const { return barcodes_; }
    const std::vector<BarcodePair>& Listed() const { return listed_; }
    const std::string& ListedName(size_t pair) const { return listed_names_[pair]; }

    // The pair of barcode start found at the read's start and barcode end at
    // its end. A listed pair wins in either order; a pair the sheet does not
    // list is put in the order the sheet uses its barcodes in (front-column
    // barcode first) where that is clear, else in read order.
    PairCall Find(uint32_t start, uint32_t end) const;

private:
    int ListedIndex(uint32_t front, uint32_t rear) const;

    std::vector<PairBarcode> barcodes_;
    std::vector<BarcodePair> listed_;
    std::vector<std::string> listed_names_;
    // Per front barcode its listed rear barcodes, in order, with their pairs:
    // rows_[row_start_[f] .. row_start_[f + 1]) as (rear, listed pair). Every
    // read looks up one or two pairs, and a sheet may list thousands: a few
    // contiguous entries stay in cache where a hash table's nodes did not.
    std::vector<uint32_t> row_start_;
    std::vector<std::pair<uint32_t, int>> rows_;
    std::vector<uint8_t> in_front_column_;  // per barcode
    std::vector<uint8_t> in_rear_column_;
};

}  // namespace Barcoding
