#pragma once
// GPU implementation of ReferenceAligner: every reference against a window in
// one kernel launch on the device named by a device string ("cuda:0", "auto").

#include <memory>
#include <string>
#include <vector>

#include "barcoding/reference_aligner.h"

namespace Barcoding {

// Throws std::runtime_error when this build has no GPU support, no CUDA driver
// is found, or the device string is malformed.
std::unique_ptr<ReferenceAligner> MakeGpuReferenceAligner(const std::string& device,
                                                          const brim::data_wrappers::MatView<int>& matrix,
                                                          const std::vector<int>& gaps, int band_width,
                                                          const std::vector<std::vector<int>>& references);

}  // namespace Barcoding
