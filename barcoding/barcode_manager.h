#pragma once
// The barcoding configuration: barcode reference sequences (FASTA barcode
// files) and the expanded list of arrangements (INI arrangement files), with
// the per-kit selection the scorers ask for. Loaded once, then shared by every
// worker; only the kit cache changes afterwards, under its own mutex.

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "barcoding/arrangement.h"
#include "barcoding/detect_results.h"

namespace Barcoding {

class BarcodeManager {
public:
    // Loads every file in order. Relative names that do not exist as given are
    // looked up in data_path.
    BarcodeManager(const std::vector<std::string>& arrangement_files, const std::string& data_path);

    // Parses one arrangement file and its barcode file, expands its sections
    // and appends them. Throws std::runtime_error, naming the file and
    // section, on any configuration fault: among them a normalised_id that is
    // not one plain folder name (Common::IsUsableFileNameComponent), a section
    // spanning more than kMaxArrangementSpan indices, and a barcode longer
    // than kMaxReferenceLength.
    void LoadArrangementFile(const std::string& path);

    // Arrangements serving the whitespace-separated kit names in kits (all of
    // them for an empty text). Thread-safe; the list lives as long as the
    // manager and the same text always yields the same object. Throws when a
    // selected double-barcode arrangement has a scoring_function other than
    // ADD or MAX, so that a bad kit fails the run, not every read.
    const std::vector<Arrangement>& GetArrangements(const std::string& kits);
    const std::vector<Arrangement>& AllArrangements() const { return arrangements_; }

    // Sequence of a barcode reference (e.g. "BC01_FWD"); throws when unknown.
    std::string GetBarcodeSequence(const std::string& name) const;
    bool HasBarcode(const std::string& name) const { return barcodes_.count(name) != 0; }

    // One line per kit (sorted): name, barcode count, and which ends carry barcodes.
    std::string KitListing() const;

    // The arrangements_files option text split at whitespace.
    static std::vector<std::string> SplitArrangementFiles(const std::string& text);

private:
    struct Barcode {
        std::string sequence;
        std::string source_file;  // barcode file that defined it, for the redefinition warning
    };

    std::string data_path_;
    std::map<std::string, Barcode> barcodes_;
    std::vector<Arrangement> arrangements_;
    std::mutex mutex_;
    std::map<std::string, std::vector<Arrangement>> kit_cache_;
};

// Labelled multi-line debug texts.
std::string ToString(const BarcodeDetectResult& result);
std::string ToString(const ArrangementDetectResult& result);

}  // namespace Barcoding
