#include "barcoding/pair_design.h"

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <tuple>

#include "barcoding/barcode_manager.h"
#include "common/string_utils.h"

namespace Barcoding {

namespace {

bool SingleBarcode(const Arrangement& a) {
    return a.barcode1.empty() != a.barcode2.empty();
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The name of the reference that is the reverse complement of `name`: its
// other orientation where the barcode file was doubled ("_FWD" <-> "_REV"),
// else the name with "_rc".
std::string MirrorName(const std::string& name, const std::string& mirrored_sequence, const BarcodeManager& manager) {
    for (const auto& [from, to] : {std::pair<std::string, std::string>{"_FWD", "_REV"}, {"_REV", "_FWD"}}) {
        if (!EndsWith(name, from)) continue;
        const std::string other = name.substr(0, name.size() - from.size()) + to;
        if (manager.HasBarcode(other) && manager.GetBarcodeSequence(other) == mirrored_sequence) return other;
    }
    return name + "_rc";
}

}  // namespace

std::string PairName(const std::string& front, const std::string& rear) {
    return front + "_" + rear;
}

std::vector<std::string> PairBarcodeNames(const std::vector<Arrangement>& selected) {
    std::vector<std::string> names;
    std::set<std::string> seen;
    for (const auto& a : selected)
        if (SingleBarcode(a) && seen.insert(a.normalised_id).second) names.push_back(a.normalised_id);
    return names;
}

PairDesign::PairDesign(const std::vector<Arrangement>& selected, const BarcodeManager& manager,
                       const std::vector<BarcodePair>& listed)
    : listed_(listed) {
    // The first single-barcode arrangement of each name stands for it; its
    // second variant is the same barcode at the other end, written the same
    // way, and adds nothing.
    std::map<std::string, const Arrangement*> first;
    for (const auto& a : selected)
        if (SingleBarcode(a) && a.variant != "var2") first.emplace(a.normalised_id, &a);
    for (const auto& a : selected)
        if (SingleBarcode(a)) first.emplace(a.normalised_id, &a);
    std::set<std::string> kits;
    for (const auto& pair : listed_) {
        for (const std::string* name : {&pair.front, &pair.rear}) {
            const auto found = first.find(*name);
            if (found == first.end())
                throw std::runtime_error("'" + *name + "' is not a single-barcode arrangement of the selected kits");
            kits.insert(found->second->kit);
        }
    }
    std::map<std::string, uint32_t> index;
    std::map<std::string, std::string> name_of_sequence;  // start sequence -> barcode name
    for (const auto& a : selected) {
        if (!SingleBarcode(a) || kits.count(a.kit) == 0 || first.at(a.normalised_id) != &a) continue;
        PairBarcode barcode;
        barcode.name = a.normalised_id;
        barcode.kit = a.kit;
        const bool front = !a.barcode1.empty();
        const std::string& reference = front ? a.barcode1 : a.barcode2;
        const std::string sequence = manager.GetBarcodeSequence(reference);
        const std::string mirrored = Common::ReverseComplement(sequence);
        const std::string mirror = MirrorName(reference, mirrored, manager);
        barcode.start_reference = front ? reference : mirror;
        barcode.start_sequence = front ? sequence : mirrored;
        barcode.end_reference = front ? mirror : reference;
        barcode.end_sequence = front ? mirrored : sequence;
        // One sequence under two names could not say which of them a read carries.
        if (const auto [other, added] = name_of_sequence.emplace(barcode.start_sequence, barcode.name); !added)
            throw std::runtime_error("'" + other->second + "' and '" + barcode.name +
                                     "' are the same barcode (one sequence at a read's start); a pair kit needs "
                                     "each barcode once, in one section, whichever column names it");
        index.emplace(barcode.name, static_cast<uint32_t>(barcodes_.size()));
        barcodes_.push_back(std::move(barcode));
    }
    in_front_column_.assign(barcodes_.size(), 0);
    in_rear_column_.assign(barcodes_.size(), 0);
    struct Listed {
        uint32_t front, rear;
        int pair;
    };
    std::vector<Listed> by_barcodes;
    for (size_t p = 0; p < listed_.size(); ++p) {
        const uint32_t f = index.at(listed_[p].front), r = index.at(listed_[p].rear);
        in_front_column_[f] = 1;
        in_rear_column_[r] = 1;
        by_barcodes.push_back({f, r, static_cast<int>(p)});
        listed_names_.push_back(PairName(listed_[p].front, listed_[p].rear));
    }
    std::sort(by_barcodes.begin(), by_barcodes.end(), [](const Listed& x, const Listed& y) {
        return std::tie(x.front, x.rear, x.pair) < std::tie(y.front, y.rear, y.pair);
    });
    row_start_.assign(barcodes_.size() + 1, 0);
    for (size_t k = 0; k < by_barcodes.size(); ++k) {
        const Listed& row = by_barcodes[k];
        if (k > 0 && row.front == by_barcodes[k - 1].front && row.rear == by_barcodes[k - 1].rear)
            throw std::runtime_error("the pair " + listed_[static_cast<size_t>(row.pair)].front + " + " +
                                     listed_[static_cast<size_t>(row.pair)].rear + " is listed twice");
        rows_.emplace_back(row.rear, row.pair);
        ++row_start_[row.front + 1];
    }
    for (size_t f = 0; f < barcodes_.size(); ++f)
        row_start_[f + 1] += row_start_[f];
}

int PairDesign::ListedIndex(uint32_t front, uint32_t rear) const {
    const auto* first = rows_.data() + row_start_[front];
    const auto* last = rows_.data() + row_start_[front + 1];
    const auto* found = std::lower_bound(first, last, rear,
                                         [](const std::pair<uint32_t, int>& row, uint32_t r) { return row.first < r; });
    return found != last && found->first == rear ? found->second : -1;
}

PairCall PairDesign::Find(uint32_t start, uint32_t end) const {
    PairCall call{start, end, false, ListedIndex(start, end)};
    if (call.listed >= 0) return call;
    const PairCall reversed{end, start, true, ListedIndex(end, start)};
    if (reversed.listed >= 0) return reversed;
    const bool forward_fits = in_front_column_[start] && in_rear_column_[end];
    const bool reverse_fits = in_front_column_[end] && in_rear_column_[start];
    return reverse_fits && !forward_fits ? reversed : call;
}

}  // namespace Barcoding
