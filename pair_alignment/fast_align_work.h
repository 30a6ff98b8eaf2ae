#pragma once
// Private to the aligner's sources: its reusable work buffers and the layout
// of a prepared reference batch.

#include <cstdint>
#include <vector>

#include "pair_alignment/aligned_vector.h"
#include "pair_alignment/fast_align.h"

namespace PairAlignment {

struct FastAlign::Work {
    std::vector<int> rows[3];  // anti-diagonal score rows (band positions)
    std::vector<int> match;    // matrix scores of the current diagonal's cells
    std::vector<uint8_t> trace;
    std::vector<int> offsets;  // band offset and length per anti-diagonal
    std::vector<int> lengths;
    // What offsets and lengths were placed for: consecutive calls usually share
    // both lengths, so the band is placed once for many alignments.
    int band_l1 = -1, band_l2 = -1, band_width = -1;
    bool band_steps_by_one = false;
    bool band_covers_matrix = false;
    std::vector<uint8_t> ref_rev8;  // padded inputs of the vector builds
    std::vector<uint8_t> query8;
    std::vector<int> up_cost;
    std::vector<int> right_cost;
    std::vector<int16_t> up_cost16;
    std::vector<int16_t> right_cost16;
    std::vector<int8_t> band_diffs;      // the 8-bit band kernel's work space
    AlignedVector<int16_t> lane_rows16;  // batch kernels' score rows
    AlignedVector<int32_t> lane_rows32;
    AlignedVector<int8_t> lane_rows8;
    std::vector<int> lane_scores;
    std::vector<int> query_offsets8;  // the 8-bit kernel's work space
    Path scratch_path;
};

// Query-independent lane profile of one group for one lane block width: for
// block b, reference position i and query code c, the lane block of
// M(reference[i], c) at ((b * length + i) * n + c) * lanes. Lanes past the
// last member repeat it.
template <typename Elem>
struct LaneProfile {
    int block_bytes = 0;
    int lanes = 0;
    int blocks = 0;
    AlignedVector<Elem> values;
};

struct ReferenceBatch {
    // One group per distinct reference length; its references share one band
    // and run in lock-step, one lane each.
    struct Group {
        int length = 0;
        std::vector<int> members;  // reference indices in lane order
        // One profile per block width among the builds this processor can
        // run, so that the batch serves whichever is active. profiles16 is
        // empty when the matrix does not fit 16 bits.
        std::vector<LaneProfile<int16_t>> profiles16;
        std::vector<LaneProfile<int32_t>> profiles32;
        // For the 8-bit kernel, when the aligner's costs allow it
        // (FastAlign::costs_fit8_); else empty.
        std::vector<LaneProfile<int8_t>> profiles8;
    };
    std::vector<int> matrix;  // of the aligner that prepared the batch
    std::vector<std::vector<int>> references;
    std::vector<Group> groups;
};

}  // namespace PairAlignment
