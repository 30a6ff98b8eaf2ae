// Banded anti-diagonal global alignment.
//
// Cell (i, j) means i reference and j query bases consumed and lies on
// anti-diagonal d = i + j. Its score is the best of
//   diag  = S(i-1, j-1) + M(ref[i-1], query[j-1])
//   up    = S(i, j-1) + gap in the reference (start1 at i = 0, end1 at i = L1, else open1)
//   right = S(i-1, j) + gap in the query     (start2 at j = 0, end2 at j = L2, else open2)
// with diagonal winning every tie and, between the gaps, the gap in the query
// (RIGHT) winning. A predecessor outside the matrix or the band is impossible
// (ZERO_PROB_SCORE). The different start and end costs let a short reference
// float inside a longer query.
//
// Only a band of W cells per anti-diagonal is computed (see band_placement.cpp
// for where it lies), three score rows are kept, and one trace byte per band
// cell records the choice. The per-build core (simd/) fills the trace and
// returns the score; traceback and gap marking are shared and live here.

#include "pair_alignment/fast_align.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "pair_alignment/band_placement.h"
#include "pair_alignment/fast_align_work.h"
#include "pair_alignment/score_matrix.h"
#include "pair_alignment/simd_dispatch.h"

namespace PairAlignment {

namespace {

void CheckUnitStride(const brim::data_wrappers::VecView<int>& seq) {
    if (seq.stride() != 1) throw std::runtime_error("Fast aligner does not allow non-unit-stride sequence vectors.");
}

}  // namespace

FastAlign::FastAlign(const brim::data_wrappers::MatView<int>& matrix, std::vector<int> gaps, int band_width)
    : gap_costs_(ConvertGapVector(gaps)),
      band_width_(band_width % 2 == 0 ? band_width + 1 : band_width),
      n_(static_cast<int>(matrix.rows())),
      work_(std::make_unique<Work>()) {
    if (band_width_ < 1) throw std::runtime_error("Band width must be positive.");
    // The build is chosen here rather than at the first alignment, so that a
    // bad VB_SIMD stops the program while it sets up, before any read, instead
    // of failing every read on its own.
    ActiveKernels();
    // Kept n x n so that every in-range (i, j) has an element; columns the
    // view lacks read as 0.
    matrix_.assign(static_cast<size_t>(n_) * n_, 0);
    for (int x = 0; x < n_; ++x)
        for (int y = 0; y < n_ && y < static_cast<int>(matrix.cols()); ++y)
            matrix_[n_ * x + y] = matrix(x, y);
    for (int value : matrix_)
        max_abs_cost_ = std::max<int64_t>(max_abs_cost_, std::abs(static_cast<int64_t>(value)));
    for (int value : gap_costs_)
        max_abs_cost_ = std::max<int64_t>(max_abs_cost_, std::abs(static_cast<int64_t>(value)));
    const Core::Costs c = InternalCosts();
    costs_fit8_ = max_abs_cost_ <= Core::kLimit8Cost && c.start1 >= c.open1 && c.start2 >= c.open2;
    for (auto& row : work_->rows)
        row.resize(band_width_ + Core::kPad);
    work_->match.resize(band_width_ + Core::kPad);
}

FastAlign::~FastAlign() = default;

int FastAlign::GetMismatchScore(int i, int j) {
    if (i < 0 || i >= n_ || j < 0 || j >= n_) {
        std::clog << "Trying to access mismatch matrix element (" << i << ", " << j << ")!" << std::endl;
        return 0;
    }
    return matrix_[n_ * i + j];
}

int FastAlign::Align(const brim::data_wrappers::VecView<int>& seq1, const brim::data_wrappers::VecView<int>& seq2,
                     std::vector<std::pair<int, int>>& path) {
    CheckUnitStride(seq1);
    CheckUnitStride(seq2);
    path.clear();
    const int l1 = static_cast<int>(seq1.size());
    const int l2 = static_cast<int>(seq2.size());
    // With an empty side there is nothing to align: every base of the other
    // side faces a gap, and the alignment is impossible.
    if (l1 == 0 || l2 == 0) {
        for (int j = 0; j < l2; ++j)
            path.emplace_back(-1, j);
        for (int i = 0; i < l1; ++i)
            path.emplace_back(i, -1);
        return ZERO_PROB_SCORE;
    }
    const int width = EffectiveBandWidth(l1, l2, band_width_);
    const int score = FillTrace(seq1.data(), l1, seq2.data(), l2, width);
    Traceback(l1, l2, width, path);
    return score;
}

PairedSpan PairedSpanOf(const Path& path) {
    PairedSpan span;
    for (const auto& [ref, query] : path) {
        if (ref < 0 || query < 0) continue;
        if (span.first < 0) span.first = query;
        span.last = query;
    }
    return span;
}

int FastAlign::AlignSpan(const brim::data_wrappers::VecView<int>& seq1, const brim::data_wrappers::VecView<int>& seq2,
                         PairedSpan& span) {
    CheckUnitStride(seq1);
    CheckUnitStride(seq2);
    span = PairedSpan{};
    const int l1 = static_cast<int>(seq1.size());
    const int l2 = static_cast<int>(seq2.size());
    if (l1 == 0 || l2 == 0) return ZERO_PROB_SCORE;  // a path of gaps only
    const int width = EffectiveBandWidth(l1, l2, band_width_);
    const int score = FillTrace(seq1.data(), l1, seq2.data(), l2, width);
    span = TracebackSpan(l1, l2, width);
    return score;
}

namespace {

// Copies values[k] into a buffer readable over [-kPad, count + kPad) and
// returns a pointer to element 0; fill is what the padding reads.
template <typename T, typename F>
const T* Padded(std::vector<T>& buffer, int count, T fill, F&& values) {
    buffer.assign(static_cast<size_t>(count) + 2 * Core::kPad, fill);
    T* base = buffer.data() + Core::kPad;
    for (int k = 0; k < count; ++k)
        base[k] = static_cast<T>(values(k));
    return base;
}

}  // namespace

int FastAlign::FillTrace(const int* ref, int l1, const int* query, int l2, int width) {
    Work& w = *work_;
    const size_t diagonals = static_cast<size_t>(l1) + l2 + 1;
    const bool band_steps_by_one = PrepareBand(l1, l2, width);
    w.trace.resize(diagonals * width + Core::kPad);
    const size_t row_size = static_cast<size_t>(std::max(width, l2 + 3)) + Core::kPad;
    for (auto& row : w.rows)
        if (row.size() < row_size) row.resize(row_size);
    if (w.match.size() < row_size) w.match.resize(row_size);

    Core::BandJob job;
    job.l1 = l1;
    job.l2 = l2;
    job.width = width;
    job.ref = ref;
    job.query = query;
    job.matrix = matrix_.data();
    job.n = n_;
    job.costs = InternalCosts();
    job.offsets = w.offsets.data();
    job.lengths = w.lengths.data();
    job.trace = w.trace.data();
    for (int k = 0; k < 3; ++k)
        job.rows[k] = w.rows[k].data();
    job.match = w.match.data();

    // The vector builds look the matrix up by byte codes, so they need it
    // 4 x 4, and their impossible scores differ from the generic build's by a
    // cost, which is harmless only while real scores stay far from them.
    const int64_t range = (static_cast<int64_t>(l1) + l2 + 1) * max_abs_cost_;
    const bool vector_safe = n_ == 4 && range <= Core::kLimit32 && band_steps_by_one;
    const SimdKernels& kernels = vector_safe ? ActiveKernels() : GenericKernels();
    // The 8-bit kernel where its conditions hold (band_diff_kernel.h): the
    // costs of the many-reference 8-bit kernel and a band over the whole
    // matrix; its last row and column are on ints, so any range within
    // kLimit32 will do. Every build has it, the readable one included.
    const bool bytes =
        vector_safe && costs_fit8_ && w.band_covers_matrix && std::min(l1, l2) <= Core::kBandBytesMaxLength;
    if (!bytes && &kernels == &GenericKernels()) return kernels.core.fill_band(job);

    job.ref_rev8 = Padded<uint8_t>(w.ref_rev8, l1, 0, [&](int k) { return ref[l1 - 1 - k]; });
    job.query8 = Padded<uint8_t>(w.query8, l2, 0, [&](int j) { return query[j]; });
    if (bytes) {
        w.band_diffs.resize(2 * (static_cast<size_t>(l1) + l2));
        job.diffs = w.band_diffs.data();
        return kernels.core.fill_band8(job);
    }
    const Core::Costs& c = job.costs;
    auto up_cost = [&](int k) { return k == l1 ? c.start1 : k == 0 ? c.end1 : c.open1; };  // i = l1 - k
    auto right_cost = [&](int j) { return j == 0 ? c.start2 : j == l2 ? c.end2 : c.open2; };
    job.lanes16 = range <= Core::kLimit16;
    if (job.lanes16) {
        job.up_cost16 = Padded<int16_t>(w.up_cost16, l1 + 1, 0, up_cost);
        job.right_cost16 = Padded<int16_t>(w.right_cost16, l2 + 1, 0, right_cost);
    } else {
        job.up_cost = Padded<int>(w.up_cost, l1 + 1, 0, up_cost);
        job.right_cost = Padded<int>(w.right_cost, l2 + 1, 0, right_cost);
    }
    return kernels.core.fill_band(job);
}

bool FastAlign::PrepareBand(int l1, int l2, int width) {
    Work& w = *work_;
    if (w.band_l1 == l1 && w.band_l2 == l2 && w.band_width == width) return w.band_steps_by_one;
    const size_t diagonals = static_cast<size_t>(l1) + l2 + 1;
    w.offsets.resize(diagonals);
    w.lengths.resize(diagonals);
    PlaceBand(l1, l2, width, w.offsets.data(), w.lengths.data());
    w.band_steps_by_one = BandEndsStepByOne(w.offsets.data(), w.lengths.data(), static_cast<int>(diagonals));
    w.band_covers_matrix = BandCoversMatrix(l1, l2, w.offsets.data(), w.lengths.data());
    w.band_l1 = l1;
    w.band_l2 = l2;
    w.band_width = width;
    return w.band_steps_by_one;
}

namespace {

// Walks the trace from (L1, L2) back to a border, calling visit(di, dj) for
// every step taken from cell (i, j) before moving: di/dj say whether the step
// consumed a reference/query base. Leaves i and j at the border reached.
// The step is chosen by branches, not arithmetic on the code: a path runs in
// long stretches of one kind (the free end gaps along the last row, then the
// reference's diagonal), which the processor predicts and walks ahead on,
// while arithmetic would make every load of the trace wait on the one before.
// (Work is deduced, so this stays a private helper of FastAlign's file.)
template <typename Work, typename Visit>
void WalkTrace(const Work& w, int width, int& i, int& j, Visit visit) {
    int d = i + j + 2;
    int position = 0;
    while (i >= 0 && j >= 0) {
        const uint8_t code = w.trace[static_cast<size_t>(d) * width + position];
        if (code == DIAG) {
            visit(1, 1, i, j);
            --i;
            --j;
            d -= 2;
        } else if (code == UP) {  // the query base alone
            visit(0, 1, i, j);
            --j;
            --d;
        } else {  // the reference base alone
            visit(1, 0, i, j);
            --i;
            --d;
        }
        position = j + 1 - w.offsets[d];
    }
}

}  // namespace

// Collects the (reference, query) index pair of every cell the walk passes.
// A step that leaves one index unchanged aligned the other base against a
// gap, so that index is marked -1. Marking each pair as its step is taken
// gives exactly the pairs of the two-pass formulation (collect, then compare
// each pair with the next): the next pair repeats an index precisely when the
// step kept it. Once one sequence is exhausted, the rest of the other faces
// gaps.
void FastAlign::Traceback(int l1, int l2, int width, Path& path) const {
    path.reserve(static_cast<size_t>(l1) + l2);
    int i = l1 - 1;
    int j = l2 - 1;
    WalkTrace(*work_, width, i, j,
              [&path](int di, int dj, int at_i, int at_j) { path.emplace_back(di ? at_i : -1, dj ? at_j : -1); });
    for (; i >= 0; --i)
        path.emplace_back(i, -1);
    for (; j >= 0; --j)
        path.emplace_back(-1, j);
    std::reverse(path.begin(), path.end());
}

// The same walk, keeping only the query indices of its diagonal steps:
// walking backwards, the first one met is the span's last, the final one its
// first. The steps after one sequence is exhausted are gaps only.
PairedSpan FastAlign::TracebackSpan(int l1, int l2, int width) const {
    PairedSpan span;
    int i = l1 - 1;
    int j = l2 - 1;
    WalkTrace(*work_, width, i, j, [&span](int di, int dj, int, int at_j) {
        if (!(di && dj)) return;
        if (span.last < 0) span.last = at_j;
        span.first = at_j;
    });
    return span;
}

Core::Costs FastAlign::InternalCosts() const {
    return {gap_costs_[0], gap_costs_[1], gap_costs_[2], gap_costs_[3], gap_costs_[4], gap_costs_[5]};
}

}  // namespace PairAlignment
