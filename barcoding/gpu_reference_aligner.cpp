#include "barcoding/gpu_reference_aligner.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "pair_alignment/align_cuda.h"
#include "pair_alignment/align_cuda_batch.h"

namespace Barcoding {
namespace {

// One worker's GPU aligner. Where the batch kernel's rows hold the scorer's
// windows (always, with windows up to a few hundred bases), scores come from
// FastAlignGpuBatch: a worker prepares the windows of a whole batch of reads
// in a few launches, and ScoreAll hands them out in order. The few paths the
// scorer reports are aligned on the CPU, which gives exactly the same ones.
// Otherwise (very wide windows) each window is one launch of FastAlignGPU,
// which brings back every score and path: AlignOne on the window just scored
// is answered from the last launch. References beyond one such launch's
// capacity are split over several FastAlignGPU objects on the same device.
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
        // fits every window; a longer one rebuilds the aligners (Run) or goes
        // to the one-launch-per-window path.
        const size_t window = static_cast<size_t>(std::max(band_width, 1));
        if (PairAlignment::FastAlignGpuBatch::Fits(band_width, max_reference_length_, window)) {
            batch_ = std::make_unique<PairAlignment::FastAlignGpuBatch>(matrix, gaps, band_width, references_, device,
                                                                        window);
            paths_aligner_ = MakeCpuReferenceAligner(matrix, gaps, band_width, references_);
        } else {
            Build(window);
        }
    }

    bool Batches() const override { return batch_ != nullptr; }

    void Prepare(std::vector<std::vector<int>> windows) override {
        prepared_ = std::move(windows);
        next_ = 0;
        if (!batch_) {
            prepared_.clear();
            return;
        }
        std::erase_if(prepared_, [&](const auto& window) { return window.size() > batch_->MaxWindowLength(); });
        batch_->ScoreWindows(prepared_, prepared_scores_);
    }

    void ScoreAll(const std::vector<int>& window, std::vector<int>& scores) override {
        if (!batch_ || window.size() > batch_->MaxWindowLength()) {
            Run(window);
            scores = scores_;
            return;
        }
        // Mostly the next prepared window; a read that failed part-way leaves
        // some behind, so the search goes on from there.
        for (size_t k = next_; k < prepared_.size(); ++k) {
            if (prepared_[k] != window) continue;
            const auto first = prepared_scores_.begin() + static_cast<long>(k * references_.size());
            scores.assign(first, first + static_cast<long>(references_.size()));
            next_ = k + 1;
            return;
        }
        batch_->ScoreWindows({window}, scores);
    }

    int AlignOne(size_t reference, const std::vector<int>& window, PairAlignment::Path& path) override {
        if (batch_) return paths_aligner_->AlignOne(reference, window, path);
        if (!have_results_ || window != window_) Run(window);
        path = paths_.at(reference);
        return scores_.at(reference);
    }

    int AlignSpan(size_t reference, const std::vector<int>& window, PairAlignment::PairedSpan& span) override {
        if (batch_) return paths_aligner_->AlignSpan(reference, window, span);
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

    // The batch path: scores of the prepared windows (window-major), handed
    // out from next_ on; paths from the CPU.
    std::unique_ptr<PairAlignment::FastAlignGpuBatch> batch_;
    std::unique_ptr<ReferenceAligner> paths_aligner_;
    std::vector<std::vector<int>> prepared_;
    std::vector<int> prepared_scores_;
    size_t next_ = 0;

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
