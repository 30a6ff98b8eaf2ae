#pragma once
// The sample sheet: which arrangement's reads belong to which sample, so that
// output folders (and the summary) are named by sample.
//
// A tab-separated text file. The first line that is neither blank nor a
// comment (first character '#') is the header; it names the columns, in any
// order, and must have "arrangement" and "sample". Other columns (say
// "description") are ignored. Every further line lists one arrangement, by
// the name reads are reported with (e.g. barcode07), and its sample; a sample
// may have several arrangements. Fields are trimmed of surrounding spaces;
// Windows line ends are accepted.

#include <istream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Vorpa {

struct SampleSheet {
    std::map<std::string, std::string> sample_of;  // arrangement -> sample
    std::vector<std::string> samples;              // each sample once, in order of first listing

    // The sample an arrangement's reads go to; nullptr when the sheet does
    // not list the arrangement.
    const std::string* SampleOf(const std::string& arrangement) const;
};

// Reads and checks the sheet. known_arrangements are the names the selected
// kits report; reserved names ("unclassified", the summary file) may not name
// a sample. Throws std::runtime_error naming the file and line: missing
// columns, no samples, an arrangement listed twice or unknown, a sample name
// that cannot be a folder name (empty, ".", "..", '/', control characters, a
// reserved name) or that differs from another only in letter case.
SampleSheet LoadSampleSheet(const std::string& path, const std::set<std::string>& known_arrangements,
                            const std::vector<std::string>& reserved_names);
// The same from a stream; name stands for the file in messages.
SampleSheet ParseSampleSheet(std::istream& in, const std::string& name, const std::set<std::string>& known_arrangements,
                             const std::vector<std::string>& reserved_names);

}  // namespace Vorpa
