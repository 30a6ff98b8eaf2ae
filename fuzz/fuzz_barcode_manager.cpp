// Arrangement (INI) and barcode (FASTA) files through the barcode manager.
// The input is the arrangement file, a NUL byte, then the barcode file. A
// load either throws std::exception or leaves the documented invariants:
// every barcode an arrangement names exists, every normalised_id is one
// usable folder name, and kit selection answers or throws.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <set>
#include <string>
#include <string_view>

#include "barcoding/barcode_manager.h"
#include "common/string_utils.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const size_t split = bytes.find('\0');
    const std::string_view arrangements = bytes.substr(0, split);
    const std::string_view barcodes = split == std::string_view::npos ? "" : bytes.substr(split + 1);
    // A barcode file name with a folder could reach files such as
    // /proc/kcore, which take forever to read. Plain names resolve against
    // the working folder (run from one without huge files, such as the
    // repository root) and then the scratch folder.
    if (arrangements.find('/') != std::string_view::npos) return 0;
    const std::string file = Fuzz::WriteScratch("arr.ini", arrangements);
    Fuzz::WriteScratch("bc.fasta", barcodes);
    try {
        Barcoding::BarcodeManager manager({file}, "");
        std::set<std::string> kits;
        for (const auto& a : manager.AllArrangements()) {
            FUZZ_CHECK(a.barcode1.empty() || manager.HasBarcode(a.barcode1));
            FUZZ_CHECK(a.barcode2.empty() || manager.HasBarcode(a.barcode2));
            FUZZ_CHECK(Common::IsUsableFileNameComponent(a.normalised_id));
            for (const auto& kit : a.compatible_kits)
                if (kits.size() < 4) kits.insert(kit);
        }
        manager.KitListing();
        kits.insert("");
        for (const auto& kit : kits) {
            try {
                manager.GetArrangements(kit);
            } catch (const std::runtime_error&) {
            }
        }
    } catch (const std::exception&) {
    }
    return 0;
}
