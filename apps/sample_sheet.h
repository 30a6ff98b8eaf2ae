#pragma once
// The sample sheet: which arrangement's reads belong to which sample, so that
// output folders (and the summary) are named by sample.
//
// A tab-separated text file. The first line that is neither blank nor a
// comment (first character '#') is the header; it names the columns, in any
// order, and must have "sample" and either "arrangement" or "front" and
// "rear". Other columns (say "description") are ignored. Every further line
// lists one arrangement, by the name reads are reported with (e.g.
// barcode07), or one pair of a front and a rear barcode (each the name of a
// single-barcode arrangement, barcoding/pair_design.h), and its sample; a
// sample may have several. A pair's reads are reported as "<front>_<rear>".
// Fields are trimmed of surrounding spaces; Windows line ends are accepted.

#include <cstdint>
#include <istream>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "barcoding/pair_design.h"

namespace Vorpa {

struct SampleSheet {
    std::map<std::string, std::string> sample_of;  // arrangement (or pair name) -> sample
    std::vector<std::string> samples;              // each sample once, in order of first listing
    // A sheet of pairs: every pair in order of listing; empty for a sheet of arrangements.
    std::vector<Barcoding::BarcodePair> pairs;

    // The sample an arrangement's reads go to (one of samples); nullptr when
    // the sheet does not list the arrangement. Looked up by Index().
    const std::string* SampleOf(const std::string& arrangement) const;
    // The same as a sample's number in samples; -1 when not listed.
    int SampleNumberOf(const std::string& arrangement) const;
    // The sample number of pairs[pair], known without its name (every read of
    // a listed pair asks).
    int SampleNumberOfPair(size_t pair) const { return static_cast<int>(pair_sample_numbers_.at(pair)); }
    // Builds the lookup of SampleOf from sample_of (adding to samples any
    // sample it lacks); call it again after changing either. The parser
    // does. Every read asks, and a sheet may list thousands of pairs: a hash
    // lookup instead of a search of the ordered map.
    void Index();

private:
    std::unordered_map<std::string, uint32_t> number_of_;  // arrangement -> index into samples
    std::vector<uint32_t> pair_sample_numbers_;            // per pair
};

// Reads and checks the sheet. known_arrangements are the names the selected
// kits report, pair_barcodes those a pair may use (Barcoding::
// PairBarcodeNames); reserved names ("unclassified", the summary file) may
// not name a sample. Throws std::runtime_error naming the file and line:
// missing columns, both "arrangement" and "front"/"rear", no samples, an
// arrangement or pair listed twice, an unknown name, a pair that reads as
// another listed pair from the other strand or is reported by the same name,
// a sample name that cannot be a folder name (empty, ".", "..", '/', control
// characters, a reserved name) or that differs from another only in letter
// case.
SampleSheet LoadSampleSheet(const std::string& path, const std::set<std::string>& known_arrangements,
                            const std::vector<std::string>& reserved_names,
                            const std::set<std::string>& pair_barcodes = {});
// The same from a stream; name stands for the file in messages.
SampleSheet ParseSampleSheet(std::istream& in, const std::string& name, const std::set<std::string>& known_arrangements,
                             const std::vector<std::string>& reserved_names,
                             const std::set<std::string>& pair_barcodes = {});

}  // namespace Vorpa
