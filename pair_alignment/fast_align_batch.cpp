// One query against many references at once. References of one length share
// the band, so they are aligned together, one vector lane each, by the score
// kernels of simd/lane_kernel.h; the matrix lookups are prepared once per
// reference as lane profiles, so a cell costs a few adds and maxes per block
// of 16 (or 8) references. Scores equal FastAlign::Align's exactly: the lanes
// compute the same recurrence over the same band, and the score of a cell is
// the maximum of its three candidates whatever the tie-break.

#include <algorithm>
#include <map>
#include <stdexcept>

#include "pair_alignment/band_placement.h"
#include "pair_alignment/fast_align.h"
#include "pair_alignment/fast_align_work.h"
#include "pair_alignment/simd_dispatch.h"

namespace PairAlignment {

namespace {

template <typename Elem>
void BuildProfile(const std::vector<std::vector<int>>& references, const std::vector<int>& members, int length,
                  const std::vector<int>& matrix, int n, int lanes, int blocks, std::vector<Elem>& profile) {
    profile.assign(static_cast<size_t>(blocks) * length * n * lanes, 0);
    for (int block = 0; block < blocks; ++block)
        for (int lane = 0; lane < lanes; ++lane) {
            const size_t member = std::min<size_t>(static_cast<size_t>(block) * lanes + lane, members.size() - 1);
            const std::vector<int>& ref = references[members[member]];
            for (int i = 0; i < length; ++i)
                for (int code = 0; code < n; ++code)
                    profile[((static_cast<size_t>(block) * length + i) * n + code) * lanes + lane] =
                        static_cast<Elem>(matrix[n * ref[i] + code]);
        }
}

}  // namespace

std::shared_ptr<const ReferenceBatch> FastAlign::PrepareReferences(
    const std::vector<std::vector<int>>& references) const {
    auto batch = std::make_shared<ReferenceBatch>();
    batch->matrix = matrix_;
    batch->references = references;
    std::map<size_t, std::vector<int>> by_length;
    for (size_t k = 0; k < references.size(); ++k)
        by_length[references[k].size()].push_back(static_cast<int>(k));
    int64_t max_matrix = 0;
    for (int value : matrix_)
        max_matrix = std::max<int64_t>(max_matrix, std::abs(static_cast<int64_t>(value)));
    for (auto& [length, members] : by_length) {
        ReferenceBatch::Group group;
        group.length = static_cast<int>(length);
        group.members = std::move(members);
        if (length > 0) {
            const int count = static_cast<int>(group.members.size());
            group.blocks32 = (count + Core::kLanes32 - 1) / Core::kLanes32;
            BuildProfile(references, group.members, group.length, matrix_, n_, Core::kLanes32, group.blocks32,
                         group.profile32);
            if (max_matrix <= Core::kLimit16) {
                group.blocks16 = (count + Core::kLanes16 - 1) / Core::kLanes16;
                BuildProfile(references, group.members, group.length, matrix_, n_, Core::kLanes16, group.blocks16,
                             group.profile16);
            }
        }
        batch->groups.push_back(std::move(group));
    }
    return batch;
}

void FastAlign::ScoreBatch(const ReferenceBatch& batch, const brim::data_wrappers::VecView<int>& query,
                           std::vector<int>& scores) {
    if (query.stride() != 1) throw std::runtime_error("Fast aligner does not allow non-unit-stride sequence vectors.");
    if (batch.matrix != matrix_)
        throw std::runtime_error("Reference batch was prepared by an aligner with another mismatch matrix.");
    scores.assign(batch.references.size(), ZERO_PROB_SCORE);
    const int l2 = static_cast<int>(query.size());
    if (l2 == 0) return;
    Work& w = *work_;
    const SimdKernels& kernels = ActiveKernels();
    for (const ReferenceBatch::Group& group : batch.groups) {
        const int l1 = group.length;
        if (l1 == 0) continue;
        const size_t diagonals = static_cast<size_t>(l1) + l2 + 1;
        const bool band_steps_by_one = PrepareBand(l1, l2, EffectiveBandWidth(l1, l2, band_width_));
        const int64_t range = static_cast<int64_t>(diagonals) * max_abs_cost_;
        const bool use16 = range <= Core::kLimit16 && !group.profile16.empty();
        if ((!use16 && range > Core::kLimit32) || !band_steps_by_one) {
            // Scores too large for 32-bit lanes with a safe sentinel (or a band
            // the kernels cannot walk): one by one.
            for (int member : group.members) {
                const std::vector<int>& ref = batch.references[member];
                scores[member] = Align(brim::data_wrappers::VecView<int>(const_cast<int*>(ref.data()), ref.size()),
                                       query, w.scratch_path);
            }
            continue;
        }
        Core::LaneJob job;
        job.l1 = l1;
        job.l2 = l2;
        job.n = n_;
        job.query = query.data();
        job.costs = InternalCosts();
        job.offsets = w.offsets.data();
        job.lengths = w.lengths.data();
        const size_t row_blocks = 3 * (static_cast<size_t>(l2) + 3);
        int lanes = 0;
        if (use16) {
            lanes = Core::kLanes16;
            job.blocks = group.blocks16;
            job.profile = group.profile16.data();
            w.lane_rows16.resize(row_blocks * lanes);
            job.rows = w.lane_rows16.data();
        } else {
            lanes = Core::kLanes32;
            job.blocks = group.blocks32;
            job.profile = group.profile32.data();
            w.lane_rows32.resize(row_blocks * lanes);
            job.rows = w.lane_rows32.data();
        }
        w.lane_scores.resize(static_cast<size_t>(job.blocks) * lanes);
        job.scores = w.lane_scores.data();
        (use16 ? kernels.score_lanes16 : kernels.score_lanes32)(job);
        for (size_t k = 0; k < group.members.size(); ++k)
            scores[group.members[k]] = w.lane_scores[k];
    }
}

void FastAlign::AlignBatch(const ReferenceBatch& batch, const brim::data_wrappers::VecView<int>& query,
                           const std::vector<uint8_t>& want_path, std::vector<int>& scores, std::vector<Path>& paths) {
    ScoreBatch(batch, query, scores);
    paths.resize(batch.references.size());
    // The few paths wanted are recomputed by Align, which gives the same score.
    for (size_t k = 0; k < paths.size(); ++k) {
        paths[k].clear();
        if (k >= want_path.size() || want_path[k] == 0) continue;
        const std::vector<int>& ref = batch.references[k];
        Align(brim::data_wrappers::VecView<int>(const_cast<int*>(ref.data()), ref.size()), query, paths[k]);
    }
}

}  // namespace PairAlignment
