#include "common/kernel_images.h"

#include <map>

// The byte arrays are generated at build time from nvcc's fat binaries (see
// cmake/cuda.cmake); VB_HAVE_FASTALIGN_FATBIN is defined only when they exist.
#ifdef VB_HAVE_FASTALIGN_FATBIN
extern "C" const unsigned char vb_fastalign_fatbin[];
extern "C" const size_t vb_fastalign_fatbin_size;
#endif

namespace Common {
namespace {

// Only the alignment image is built: the other images of the table (the shared
// and neural-network kernels) are never loaded by barcoding.
const std::map<std::string, KernelImage>& Table() {
    static const std::map<std::string, KernelImage> table = {
#ifdef VB_HAVE_FASTALIGN_FATBIN
        {"fastalign.fatbin", {vb_fastalign_fatbin, vb_fastalign_fatbin_size}},
#endif
    };
    return table;
}

}  // namespace

const KernelImage* FindKernelImage(const std::string& name) {
    const auto& table = Table();
    const auto found = table.find(name);
    return found == table.end() ? nullptr : &found->second;
}

}  // namespace Common
