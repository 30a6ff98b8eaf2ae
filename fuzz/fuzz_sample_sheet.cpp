// The sample sheet through LoadSampleSheet, from a file as users bring it. A
// sheet is either refused with a message that names the file (and, past the
// header, the line), or loaded with the documented guarantees: every listed
// arrangement is one of the kits', every sample is listed once, can be a
// folder name, is not reserved, and no two differ only in letter case.

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "apps/sample_sheet.h"
#include "common/string_utils.h"
#include "fuzz/fuzz_support.h"

namespace {

const std::set<std::string>& Known() {
    static const std::set<std::string> known = [] {
        std::set<std::string> names = {"barcode01_barcode02", "unclassified_like"};
        for (int i = 1; i <= 24; ++i)
            names.insert(Common::FormatString("barcode%02d", i));
        return names;
    }();
    return known;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path =
        Fuzz::WriteScratch("sheet.tsv", std::string_view(reinterpret_cast<const char*>(data), size));
    const std::vector<std::string> reserved = {"unclassified", "barcoding_summary.txt"};
    Vorpa::SampleSheet sheet;
    try {
        sheet = Vorpa::LoadSampleSheet(path, Known(), reserved);
    } catch (const std::runtime_error& error) {
        FUZZ_CHECK(std::string_view(error.what()).starts_with("Sample sheet '" + path + "'"));
        return 0;
    }
    FUZZ_CHECK(!sheet.samples.empty());
    std::set<std::string> samples(sheet.samples.begin(), sheet.samples.end()), folded;
    FUZZ_CHECK(samples.size() == sheet.samples.size());
    for (const auto& sample : samples) {
        FUZZ_CHECK(Common::IsUsableFileNameComponent(sample));
        FUZZ_CHECK(std::find(reserved.begin(), reserved.end(), sample) == reserved.end());
        FUZZ_CHECK(folded.insert(Lower(sample)).second);
    }
    for (const auto& [arrangement, sample] : sheet.sample_of) {
        FUZZ_CHECK(Known().count(arrangement) == 1);
        FUZZ_CHECK(samples.count(sample) == 1);
        FUZZ_CHECK(sheet.SampleOf(arrangement) != nullptr && *sheet.SampleOf(arrangement) == sample);
    }
    for (const auto& arrangement : Known())
        FUZZ_CHECK((sheet.SampleOf(arrangement) == nullptr) == (sheet.sample_of.count(arrangement) == 0));
    return 0;
}
