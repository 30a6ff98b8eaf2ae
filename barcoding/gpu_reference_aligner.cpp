#include "barcoding/gpu_reference_aligner.h"

#include <stdexcept>

namespace Barcoding {

// Placeholder until the GPU aligner lands.
std::unique_ptr<ReferenceAligner> MakeGpuReferenceAligner(const std::string&, const brim::data_wrappers::MatView<int>&,
                                                          const std::vector<int>&, int,
                                                          const std::vector<std::vector<int>>&) {
    throw std::runtime_error("This build of vorpa_barcoder has no GPU support.");
}

}  // namespace Barcoding
