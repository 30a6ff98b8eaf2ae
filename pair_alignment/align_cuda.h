#pragma once
// PairAlignment::FastAlignGPU: FastAlign's banded alignment on an NVIDIA GPU,
// one query against up to 352 references in a single kernel launch, one GPU
// thread per reference. Scores and paths are exactly those of
// FastAlign::Align with the same matrix, gaps and band width.

#include <memory>
#include <string>
#include <vector>

#include "common/cuda_driver.h"
#include "common/data_wrappers.h"
#include "pair_alignment/fast_align.h"

namespace Common {
class CUDADevice;
}

namespace PairAlignment {

class FastAlignGPU : public Aligner {
public:
    static constexpr size_t kMaxReferences = 352;  // threads of one Align launch

    // matrix: 4 x 4 mismatch scores (copied). gaps: 6 or 8 positive penalties
    // (see score_matrix.h). lookup: 256 base codes indexed by character byte
    // (BaseCodeTable()). The two lengths size every buffer, allocated here once.
    // device: a device string; only its first device is used. band_width as
    // for FastAlign (even widths are rounded up).
    FastAlignGPU(const brim::data_wrappers::MatView<int>& matrix, const std::vector<int>& gaps,
                 const std::vector<int>& lookup, unsigned long max_reference_length, unsigned long max_query_length,
                 std::string device, int band_width);
    ~FastAlignGPU() override;
    FastAlignGPU(const FastAlignGPU&) = delete;
    FastAlignGPU& operator=(const FastAlignGPU&) = delete;

    // Stages the references (base codes 0..3) for every later call. Throws
    // "Too many sequences for GPU threads to contain!" beyond kMaxReferences.
    void SetReferences(const std::vector<std::vector<int>>& references);
    size_t ReferenceCount() const { return reference_count_; }

    // Aligns query (characters, coded through the lookup table on the GPU)
    // against every staged reference: scores[k] and paths[k] for reference k.
    // Calls on one object must not overlap.
    void AlignAll(const std::string& query, std::vector<int>& scores, std::vector<Path>& paths);

    // A=a=0, C=c=1, G=g=2, T=t=U=u=3, anything else 0.
    static std::vector<int> BaseCodeTable();

private:
    struct Buffers;
    void Allocate();
    void Release() noexcept;

    std::shared_ptr<Common::CUDADevice> device_;
    Common::CUfunction seq_to_ints_ = nullptr;
    Common::CUfunction align_ = nullptr;
    Common::CUstream stream_ = nullptr;
    std::unique_ptr<Buffers> buffers_;
    std::vector<int> matrix_;
    std::vector<int> gap_costs_;
    std::vector<int> lookup_;
    int max_reference_length_;
    int max_query_length_;
    int band_width_;
    int row_width_;  // the widest band row any pair of allowed lengths needs
    int rows_;       // anti-diagonals of the longest pair: lengths summed, plus one
    size_t reference_count_ = 0;
};

// One reference's result block (path_length (reference, query) int pairs, as
// the Align kernel writes them) as a Path.
void PathFromBlock(const int* block, int path_length, Path& path);

}  // namespace PairAlignment
