// CPU reference aligner: the references are prepared once for FastAlign's
// many-reference path, so scoring a window against all of them costs one
// ScoreBatch call and no traceback.

#include "barcoding/reference_aligner.h"

#include <stdexcept>

#include "barcoding/gpu_reference_aligner.h"

namespace Barcoding {

namespace {

using brim::data_wrappers::VecView;

// FastAlign takes mutable views but never writes through them.
VecView<int> View(const std::vector<int>& codes) {
    return VecView<int>(const_cast<int*>(codes.data()), codes.size());
}

class CpuReferenceAligner : public ReferenceAligner {
public:
    CpuReferenceAligner(const brim::data_wrappers::MatView<int>& matrix, const std::vector<int>& gaps, int band_width,
                        const std::vector<std::vector<int>>& references)
        : aligner_(matrix, gaps, band_width), references_(references) {
        batch_ = aligner_.PrepareReferences(references_);
    }

    void ScoreAll(const std::vector<int>& window, std::vector<int>& scores) override {
        aligner_.ScoreBatch(*batch_, View(window), scores);
    }

    int AlignOne(size_t reference, const std::vector<int>& window, PairAlignment::Path& path) override {
        if (reference >= references_.size()) throw std::out_of_range("reference index out of range");
        return aligner_.Align(View(references_[reference]), View(window), path);
    }

    int AlignSpan(size_t reference, const std::vector<int>& window, PairAlignment::PairedSpan& span) override {
        if (reference >= references_.size()) throw std::out_of_range("reference index out of range");
        return aligner_.AlignSpan(View(references_[reference]), View(window), span);
    }

private:
    PairAlignment::FastAlign aligner_;
    std::vector<std::vector<int>> references_;
    std::shared_ptr<const PairAlignment::ReferenceBatch> batch_;
};

}  // namespace

std::unique_ptr<ReferenceAligner> MakeCpuReferenceAligner(const brim::data_wrappers::MatView<int>& matrix,
                                                          const std::vector<int>& gaps, int band_width,
                                                          const std::vector<std::vector<int>>& references) {
    return std::make_unique<CpuReferenceAligner>(matrix, gaps, band_width, references);
}

std::unique_ptr<ReferenceAligner> MakeReferenceAligner(const std::string& device,
                                                       const brim::data_wrappers::MatView<int>& matrix,
                                                       const std::vector<int>& gaps, int band_width,
                                                       const std::vector<std::vector<int>>& references) {
    if (device.empty()) return MakeCpuReferenceAligner(matrix, gaps, band_width, references);
    return MakeGpuReferenceAligner(device, matrix, gaps, band_width, references);
}

}  // namespace Barcoding
