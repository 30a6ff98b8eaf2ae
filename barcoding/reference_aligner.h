#pragma once
// The scorer aligns each read window against a fixed list of references. This
// interface hides whether that happens on the CPU (FastAlign's many-reference
// path) or on a GPU, so the scorer holds one of either.

#include <memory>
#include <string>
#include <vector>

#include "common/data_wrappers.h"
#include "pair_alignment/fast_align.h"

namespace Barcoding {

class ReferenceAligner {
public:
    virtual ~ReferenceAligner() = default;
    // scores[k] = FastAlign::Align score of reference k against window (codes 0..3).
    virtual void ScoreAll(const std::vector<int>& window, std::vector<int>& scores) = 0;
    // Score and path of one reference against window.
    virtual int AlignOne(size_t reference, const std::vector<int>& window, PairAlignment::Path& path) = 0;
    // Score of AlignOne and the span of its path (PairAlignment::PairedSpanOf),
    // found without making the path where the aligner can.
    virtual int AlignSpan(size_t reference, const std::vector<int>& window, PairAlignment::PairedSpan& span) = 0;

    // Whether scoring many windows at once pays (the GPU: one launch for a
    // batch of reads instead of one per window).
    virtual bool Batches() const { return false; }
    // Scores these windows ahead of the ScoreAll calls that will ask for them,
    // expected in the same order; a window not prepared is scored when asked.
    virtual void Prepare(std::vector<std::vector<int>> windows) { (void)windows; }
};

// CPU implementation over FastAlign. references are base codes 0..3.
std::unique_ptr<ReferenceAligner> MakeCpuReferenceAligner(const brim::data_wrappers::MatView<int>& matrix,
                                                          const std::vector<int>& gaps, int band_width,
                                                          const std::vector<std::vector<int>>& references);

}  // namespace Barcoding

namespace Barcoding {

// The CPU aligner when device is empty, otherwise MakeGpuReferenceAligner.
std::unique_ptr<ReferenceAligner> MakeReferenceAligner(const std::string& device,
                                                       const brim::data_wrappers::MatView<int>& matrix,
                                                       const std::vector<int>& gaps, int band_width,
                                                       const std::vector<std::vector<int>>& references);

}  // namespace Barcoding
