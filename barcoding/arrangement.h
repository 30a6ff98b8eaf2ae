#pragma once
// One barcode arrangement after expansion, and the per-file options that
// control how an arrangement file is expanded.

#include <string>
#include <vector>

namespace Barcoding {

struct Arrangement {
    std::string id;             // section name, formatted with the index; "_var1"/"_var2" appended
    std::string normalised_id;  // name reported for classified reads
    std::string kit;
    std::string barcode1;          // front barcode name, empty = no front barcode
    std::string barcode2;          // rear barcode name, empty = no rear barcode
    std::string scoring_function;  // "ADD" or "MAX"; checked when the kit is selected
    std::string variant;           // "n/a", "var1" or "var2"
    std::string source_file;       // file name of the arrangement file that defined it
    std::vector<std::string> compatible_kits;
};

// The "loading_options" section of an arrangement file.
struct LoadingOptions {
    std::string barcodes_filename;  // required
    bool double_barcodes_revcmpl = true;
    bool double_variants_frontrear = true;
    bool append_indicator_fwdbwd = true;
};

}  // namespace Barcoding
