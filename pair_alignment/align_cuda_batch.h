#pragma once
// PairAlignment::FastAlignGpuBatch: scores of many windows against a fixed set
// of references in few kernel launches, for a barcoder worker that collects the
// windows of a whole batch of reads. Scores only, each exactly
// FastAlign::Align's with the same matrix, gaps and band width; paths are left
// to the CPU aligner, which the caller needs for the few it reports.
//
// The references stay on the device. Windows go in launches of up to
// windows_per_launch, over two streams with page-locked double buffers, so
// that one launch's copies overlap the other's compute.

#include <memory>
#include <string>
#include <vector>

#include "common/cuda_driver.h"
#include "common/data_wrappers.h"

namespace Common {
class CUDADevice;
}

namespace PairAlignment {

class FastAlignGpuBatch {
public:
    // Whether the batch kernel's rows hold every band that references up to
    // this length and windows up to max_window_length need.
    static bool Fits(int band_width, size_t max_reference_length, size_t max_window_length);

    // matrix: 4 x 4 mismatch scores; gaps: 6 or 8 positive penalties (see
    // score_matrix.h); references: base codes 0..3. device: a device string,
    // only its first device is used. Throws std::runtime_error when the sizes
    // do not fit (Fits), for a bad code, or when the device cannot be used.
    FastAlignGpuBatch(const brim::data_wrappers::MatView<int>& matrix, const std::vector<int>& gaps, int band_width,
                      const std::vector<std::vector<int>>& references, const std::string& device,
                      size_t max_window_length, size_t windows_per_launch = 2048);
    ~FastAlignGpuBatch();
    FastAlignGpuBatch(const FastAlignGpuBatch&) = delete;
    FastAlignGpuBatch& operator=(const FastAlignGpuBatch&) = delete;

    size_t ReferenceCount() const { return reference_count_; }
    size_t MaxWindowLength() const { return max_window_length_; }

    // scores[w * ReferenceCount() + k]: reference k against windows[w] (codes
    // 0..3, at most MaxWindowLength() of them). Calls must not overlap.
    void ScoreWindows(const std::vector<std::vector<int>>& windows, std::vector<int>& scores);

private:
    struct Buffers;
    void Release() noexcept;

    std::shared_ptr<Common::CUDADevice> device_;
    Common::CUfunction kernel_ = nullptr;
    std::unique_ptr<Buffers> buffers_;
    size_t reference_count_ = 0;
    size_t max_window_length_ = 0;
    size_t windows_per_launch_ = 0;
};

}  // namespace PairAlignment
