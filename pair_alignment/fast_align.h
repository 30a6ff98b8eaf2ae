#pragma once
// Banded anti-diagonal global aligner with linear gap costs and separate costs
// for gaps before and after each sequence, so a short reference can float
// inside a longer query. The long story (band placement, tie-breaks, traceback)
// is in fast_align.cpp.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/data_wrappers.h"

namespace PairAlignment {

namespace Core {
struct Costs;
}

// Score of an impossible cell, and of an alignment with an empty side.
constexpr int ZERO_PROB_SCORE = -1000000000;

// Direction codes of the trace matrix.
constexpr uint8_t DIAG = 0;   // both sequences advance
constexpr uint8_t UP = 1;     // the query advances alone (gap in the reference)
constexpr uint8_t RIGHT = 2;  // the reference advances alone (gap in the query)
// Flags of a band's edge cells.
constexpr int START = 1;
constexpr int END = 2;
constexpr int BOTH = 3;

// (reference index, query index) pairs from the start of the alignment to its
// end; -1 on the side that has a gap at that step.
using Path = std::vector<std::pair<int, int>>;

// The first and last query index that an alignment's path pairs with a
// reference base; both -1 when it pairs none.
struct PairedSpan {
    int first = -1;
    int last = -1;
    bool operator==(const PairedSpan&) const = default;
};
PairedSpan PairedSpanOf(const Path& path);

class Aligner {
public:
    virtual ~Aligner() = default;
};

// References prepared once for many ScoreBatch/AlignBatch calls (grouped by
// length, laid out for the vector lanes). Opaque to callers.
struct ReferenceBatch;

class FastAlign : public Aligner {
public:
    // matrix: n x n mismatch scores (copied); gaps: 6 or 8 positive costs (see
    // score_matrix.h); band_width: rounded up to odd, must be positive.
    FastAlign(const brim::data_wrappers::MatView<int>& matrix, std::vector<int> gaps, int band_width);
    ~FastAlign() override;

    // seq1 = reference, seq2 = query, both base codes 0..n-1 with unit stride.
    // Returns the global alignment score and fills path (cleared first).
    virtual int Align(const brim::data_wrappers::VecView<int>& seq1, const brim::data_wrappers::VecView<int>& seq2,
                      std::vector<std::pair<int, int>>& path);
    // The score of Align and the span of its path, without making the path.
    int AlignSpan(const brim::data_wrappers::VecView<int>& seq1, const brim::data_wrappers::VecView<int>& seq2,
                  PairedSpan& span);
    // Element (i, j) of the matrix; out of range logs to std::clog and gives 0.
    virtual int GetMismatchScore(int i, int j);

    // Many references against one query. Scores (and the paths asked for) are
    // exactly those Align would give for each reference on its own. A batch
    // may only be used with an aligner of the same matrix (checked).
    std::shared_ptr<const ReferenceBatch> PrepareReferences(const std::vector<std::vector<int>>& references) const;
    // scores[k] for reference k, no traceback at all.
    void ScoreBatch(const ReferenceBatch& batch, const brim::data_wrappers::VecView<int>& query,
                    std::vector<int>& scores);
    // As ScoreBatch, and paths[k] filled only where want_path[k] is non-zero
    // (the others are left empty; entries past the end of want_path count as
    // zero).
    void AlignBatch(const ReferenceBatch& batch, const brim::data_wrappers::VecView<int>& query,
                    const std::vector<uint8_t>& want_path, std::vector<int>& scores, std::vector<Path>& paths);

private:
    struct Work;  // score rows, match row, trace matrix, band offsets/lengths
    // Fills the trace of one alignment (both lengths > 0); returns its score.
    int FillTrace(const int* ref, int l1, const int* query, int l2, int width);
    // Places the band of (l1, l2, width) in the work buffers unless it is
    // already there; returns whether its ends step by at most one cell.
    bool PrepareBand(int l1, int l2, int width);
    void Traceback(int l1, int l2, int width, Path& path) const;
    PairedSpan TracebackSpan(int l1, int l2, int width) const;
    Core::Costs InternalCosts() const;

    std::vector<int> matrix_;
    std::vector<int> gap_costs_;
    int band_width_;
    int n_;
    int64_t max_abs_cost_ = 0;  // largest |matrix element| or |gap cost|
    bool costs_fit8_ = false;   // the costs allow the 8-bit kernel (Core::kLimit8Cost)
    std::unique_ptr<Work> work_;
};

// Which build of the core routines is in use: "generic", "sse41", "avx2" or
// "avx512".
// Chosen once from the processor's features; the environment variable VB_SIMD
// forces one (an unknown or unsupported value is an error), and so does
// ForceSimdBuild for tests and benchmarks.
const char* ActiveSimdBuild();

// Makes name ("generic", "sse41", "avx2", "avx512") the active build for the
// whole process, as VB_SIMD would; for tests and benchmarks. Throws
// std::runtime_error for an unknown or unsupported name.
void ForceSimdBuild(const std::string& name);

}  // namespace PairAlignment
