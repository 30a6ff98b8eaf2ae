#include "barcoding/gpu_reference_aligner.h"

#include <algorithm>
#include <stdexcept>

#include "pair_alignment/align_cuda.h"

namespace Barcoding {
namespace {

// One worker's GPU aligner. A launch aligns the window against every reference
// and brings back all scores and paths, so AlignOne on the window just scored
// is answered from the last launch. References beyond one launch's capacity
// are split over several FastAlignGPU objects, all on the same device.
class GpuReferenceAligner : public ReferenceAligner {
public:
    GpuReferenceAligner(const std::string& device, const brim::data_wrappers::MatView<int>& matrix,
                        const std::vector<int>& gaps, int band_width, const std::vector<std::vector<int>>& references)
        : device_(device),
          rows_(matrix.rows()),
          cols_(matrix.cols()),
          gaps_(gaps),
          band_width_(band_width),
          references_(references) {
        for (size_t r = 0; r < rows_; ++r)
            for (size_t c = 0; c < cols_; ++c)
                matrix_.push_back(matrix(r, c));
        for (const auto& reference : references_)
            max_reference_length_ = std::max(max_reference_length_, reference.size());
        // The scorer's band width is its largest window, so this normally
        // fits every window; a longer one rebuilds the aligners (Run).
        Build(static_cast<size_t>(std::max(band_width, 1)));
    }

    void ScoreAll(const std::vector<int>& window, std::vector<int>& scores) override {
        Run(window);
        scores = scores_;
    }

    int AlignOne(size_t reference, const std::vector<int>& window, PairAlignment::Path& path) override {
        if (!have_results_ || window != window_) Run(window);
        path = paths_.at(reference);
        return scores_.at(reference);
    }

    int AlignSpan(size_t reference, const std::vector<int>& window, PairAlignment::PairedSpan& span) override {
        if (!have_results_ || window != window_) Run(window);
        span = PairAlignment::PairedSpanOf(paths_.at(reference));
        return scores_.at(reference);
    }

private:
    void Build(size_t max_query_length) {
        chunks_.clear();
        const brim::data_wrappers::MatView<int> view(matrix_.data(), rows_, cols_);
        const std::vector<int> lookup = PairAlignment::FastAlignGPU::BaseCodeTable();
        const size_t per_launch = PairAlignment::FastAlignGPU::kMaxReferences;
        for (size_t first = 0; first == 0 || first < references_.size(); first += per_launch) {
            auto aligner = std::make_shared<PairAlignment::FastAlignGPU>(view, gaps_, lookup, max_reference_length_,
                                                                         max_query_length, device_, band_width_);
            const size_t last = std::min(references_.size(), first + per_launch);
            aligner->SetReferences(std::vector<std::vector<int>>(references_.begin() + static_cast<long>(first),
                                                                 references_.begin() + static_cast<long>(last)));
            chunks_.push_back(std::move(aligner));
        }
        max_query_length_ = max_query_length;
        have_results_ = false;
    }

    void Run(const std::vector<int>& window) {
        if (window.size() > max_query_length_) Build(std::max(window.size(), 2 * max_query_length_));
        query_.resize(window.size());
        for (size_t k = 0; k < window.size(); ++k) {
            if (window[k] < 0 || window[k] > 3) throw std::runtime_error("GPU aligner: base code out of range.");
            query_[k] = "ACGT"[window[k]];
        }
        scores_.clear();
        paths_.clear();
        for (auto& chunk : chunks_) {
            chunk->AlignAll(query_, chunk_scores_, chunk_paths_);
            scores_.insert(scores_.end(), chunk_scores_.begin(), chunk_scores_.end());
            for (auto& path : chunk_paths_)
                paths_.push_back(std::move(path));
        }
        window_ = window;
        have_results_ = true;
    }

    std::string device_;
    std::vector<int> matrix_;
    size_t rows_, cols_;
    std::vector<int> gaps_;
    int band_width_;
    std::vector<std::vector<int>> references_;
    size_t max_reference_length_ = 0;
    size_t max_query_length_ = 0;
    std::vector<std::shared_ptr<PairAlignment::FastAlignGPU>> chunks_;

    // The last launch.
    bool have_results_ = false;
    std::vector<int> window_;
    std::string query_;
    std::vector<int> scores_;
    std::vector<PairAlignment::Path> paths_;
    std::vector<int> chunk_scores_;
    std::vector<PairAlignment::Path> chunk_paths_;
};

}  // namespace

std::unique_ptr<ReferenceAligner> MakeGpuReferenceAligner(const std::string& device,
                                                          const brim::data_wrappers::MatView<int>& matrix,
                                                          const std::vector<int>& gaps, int band_width,
                                                          const std::vector<std::vector<int>>& references) {
    return std::make_unique<GpuReferenceAligner>(device, matrix, gaps, band_width, references);
}

}  // namespace Barcoding
