// One query against many references at once. References of one length share
// the band, so they are aligned together, one vector lane each, by the score
// kernels of simd/lane_kernel.h; the matrix lookups are prepared once per
// reference as lane profiles, so a cell costs a few adds and maxes per block
// of 16 to 64 references. Scores equal FastAlign::Align's exactly: the lanes
// compute the same recurrence over the same band, and the score of a cell is
// the maximum of its three candidates whatever the tie-break.
//
// A profile's layout depends on the lane block width of the build that reads
// it, and the build may change after the batch was prepared (VB_SIMD is read
// at the first alignment, tests force builds), so a batch holds one profile
// per block width among the builds this processor can run: one for the 32-byte
// builds and, with AVX-512, one for the 128-byte blocks. Both together are a
// few hundred kilobytes for a 96-barcode kit.

#include <algorithm>
#include <chrono>
#include <map>
#include <stdexcept>

#include "pair_alignment/band_placement.h"
#include "pair_alignment/fast_align.h"
#include "pair_alignment/fast_align_work.h"
#include "pair_alignment/kernel_stats.h"
#include "pair_alignment/simd_dispatch.h"

namespace PairAlignment {

namespace {

template <typename Elem>
LaneProfile<Elem> BuildProfile(const std::vector<std::vector<int>>& references, const std::vector<int>& members,
                               int length, const std::vector<int>& matrix, int n, int block_bytes) {
    LaneProfile<Elem> profile;
    profile.block_bytes = block_bytes;
    profile.lanes = block_bytes / static_cast<int>(sizeof(Elem));
    const int lanes = profile.lanes;
    profile.blocks = (static_cast<int>(members.size()) + lanes - 1) / lanes;
    profile.values.assign(static_cast<size_t>(profile.blocks) * length * n * lanes, 0);
    for (int block = 0; block < profile.blocks; ++block)
        for (int lane = 0; lane < lanes; ++lane) {
            const size_t member = std::min<size_t>(static_cast<size_t>(block) * lanes + lane, members.size() - 1);
            const std::vector<int>& ref = references[members[member]];
            for (int i = 0; i < length; ++i)
                for (int code = 0; code < n; ++code)
                    profile.values[((static_cast<size_t>(block) * length + i) * n + code) * lanes + lane] =
                        static_cast<Elem>(matrix[n * ref[i] + code]);
        }
    return profile;
}

template <typename Elem>
const LaneProfile<Elem>* FindProfile(const std::vector<LaneProfile<Elem>>& profiles, int block_bytes) {
    for (const LaneProfile<Elem>& profile : profiles)
        if (profile.block_bytes == block_bytes) return &profile;
    return nullptr;
}

// Matrix cells of one query against the whole batch, counted as the
// benchmarks count them: (L1 + 1) * (L2 + 1) per reference, whatever the band.
int64_t GroupCells(const ReferenceBatch::Group& group, int l2) {
    return static_cast<int64_t>(group.members.size()) * (group.length + 1) * (static_cast<int64_t>(l2) + 1);
}
int64_t BatchCells(const ReferenceBatch& batch, int l2) {
    int64_t cells = 0;
    for (const ReferenceBatch::Group& group : batch.groups)
        if (group.length > 0) cells += GroupCells(group, l2);
    return cells;
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
            for (int block_bytes : RunnableBlockBytes()) {
                group.profiles32.push_back(
                    BuildProfile<int32_t>(references, group.members, group.length, matrix_, n_, block_bytes));
                if (max_matrix <= Core::kLimit16)
                    group.profiles16.push_back(
                        BuildProfile<int16_t>(references, group.members, group.length, matrix_, n_, block_bytes));
            }
            if (costs_fit8_)
                for (int block_bytes : RunnableByteBlockBytes())
                    group.profiles8.push_back(
                        BuildProfile<int8_t>(references, group.members, group.length, matrix_, n_, block_bytes));
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
    const bool timed = KernelStatsEnabled();
    const auto start = timed ? std::chrono::steady_clock::now() : std::chrono::steady_clock::time_point{};
    Work& w = *work_;
    const SimdKernels& kernels = ActiveKernels();
    int64_t byte_cells = 0;
    for (const ReferenceBatch::Group& group : batch.groups) {
        const int l1 = group.length;
        if (l1 == 0) continue;
        const size_t diagonals = static_cast<size_t>(l1) + l2 + 1;
        const bool band_steps_by_one = PrepareBand(l1, l2, EffectiveBandWidth(l1, l2, band_width_));
        const int64_t range = static_cast<int64_t>(diagonals) * max_abs_cost_;
        const auto* profile16 = FindProfile(group.profiles16, kernels.block_bytes);
        const auto* profile32 = FindProfile(group.profiles32, kernels.block_bytes);
        // Batches hold a profile for every build this processor can run.
        if (profile32 == nullptr) throw std::logic_error("Reference batch has no lane profile for the active build.");
        const bool use16 = range <= Core::kLimit16 && profile16 != nullptr;
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
        auto run = [&](const auto& profile, auto& rows, size_t row_blocks, Core::ScoreLanesFn kernel) {
            job.blocks = profile.blocks;
            job.profile = profile.values.data();
            rows.resize(row_blocks * profile.lanes);
            job.rows = rows.data();
            w.lane_scores.resize(static_cast<size_t>(job.blocks) * profile.lanes);
            job.scores = w.lane_scores.data();
            kernel(job);
        };
        // The 8-bit kernel where its conditions hold (fast_align_core.h), else
        // the narrowest lanes the range allows. The batch may come from an
        // aligner with the same matrix and other gap costs: the costs checked
        // are this aligner's.
        const auto* profile8 = FindProfile(group.profiles8, kernels.block_bytes8);
        const size_t row_blocks = 4 * (static_cast<size_t>(l2) + 3);
        if (use16 && costs_fit8_ && profile8 != nullptr && w.band_covers_matrix) {
            w.query_offsets8.resize(static_cast<size_t>(l2));
            job.query_offsets = w.query_offsets8.data();
            run(*profile8, w.lane_rows8, static_cast<size_t>(l2) + 1 + static_cast<size_t>(l1) * n_,
                kernels.core.score_lanes8);
            byte_cells += GroupCells(group, l2);
        } else if (use16)
            run(*profile16, w.lane_rows16, row_blocks, kernels.core.score_lanes16);
        else
            run(*profile32, w.lane_rows32, row_blocks, kernels.core.score_lanes32);
        for (size_t k = 0; k < group.members.size(); ++k)
            scores[group.members[k]] = w.lane_scores[k];
    }
    if (timed) {
        const auto elapsed = std::chrono::steady_clock::now() - start;
        RecordKernelCall(BatchCells(batch, l2), std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count(),
                         byte_cells);
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
