#pragma once
// The banded anti-diagonal alignment of one reference against one query, as run
// by one thread of the Align kernel. This header is compiled twice: by nvcc
// into the kernel image and by the host compiler for the emulated kernel test,
// so the recurrence checked against the CPU aligner on the host is the very
// code the GPU runs. It must stay free of library calls and of anything that
// differs between the two compilers (no fused multiply-add in the band
// placement: the double products are rounded one by one on both sides).
//
// Recurrence, band rule, tie-breaks and traceback are those of
// PairAlignment::FastAlign; fast_align.cpp tells the long story.

#if defined(__CUDACC__)
#define VB_HD __host__ __device__ __forceinline__
#else
#define VB_HD inline
#endif

namespace FastAlignKernels {

constexpr int ZERO_PROB_SCORE = -1000000000;
constexpr unsigned char DIAG = 0;      // both sequences advance
constexpr unsigned char UP = 1;        // the query advances alone (gap in the reference)
constexpr unsigned char RIGHT = 2;     // the reference advances alone (gap in the query)
constexpr int START = 1;               // first cell of a diagonal's band
constexpr int END = 2;                 // last cell
constexpr int BOTH = 3;                // a one-cell band
constexpr int subMatrixSize = 4;       // the matrix is subMatrixSize x subMatrixSize, [subMatrixSize * ref + query]
constexpr int blockWidth = 32;         // threads (and stride) of SeqToInts
constexpr int maxThreads = 352;        // references per Align launch
constexpr int batchThreads = 128;      // threads per block of ScoreBatch
constexpr int maxBatchRowWidth = 511;  // widest band row ScoreBatch keeps (rows live in thread-local memory)

// Indices into the six negated gap costs.
constexpr int kStartGap1 = 0, kEndGap1 = 1, kOpenGap1 = 2, kStartGap2 = 3, kEndGap2 = 4, kOpenGap2 = 5;

// Width of the band rows for sequences whose longer one has length longest:
// the whole matrix (rounded up to odd) when it fits in the configured band.
VB_HD int BandRowWidth(int longest, int band_width) {
    if (longest > band_width) return band_width;
    return (longest + 1) % 2 == 1 ? longest + 1 : longest + 2;
}

// One thread's slices of the work areas. rows[0..2] hold row_width ints each;
// band offsets and lengths hold L1 + L2 + 1 ints, trace (L1 + L2 + 1) * W codes.
struct ThreadWork {
    int* rows[3];
    int* match;
    int* band_offsets;
    int* band_lengths;
    unsigned char* trace;
};

VB_HD double RoundedMul(double a, double b) {
#if defined(__CUDA_ARCH__)
    return __dmul_rn(a, b);
#else
    return a * b;
#endif
}

VB_HD double RoundedSub(double a, double b) {
#if defined(__CUDA_ARCH__)
    return __dsub_rn(a, b);
#else
    return a - b;
#endif
}

VB_HD int MaxInt(int a, int b) {
    return a > b ? a : b;
}
VB_HD int MinInt(int a, int b) {
    return a < b ? a : b;
}

// The band's centre (r, q) walks the line (0, 0) -> (l1, l2): on each
// anti-diagonal it steps along whichever sequence lags the line more, the
// query on a tie, rounding as PlaceBand does on the CPU. Step gives the band
// of diagonal d (d = 1, 2, ... in turn): query indices jlo .. jhi.
struct BandWalk {
    int l1, l2, half;
    double inverse;  // 1 / (l1 + l2 + 1)
    int r = 0, q = 0;

    VB_HD void Step(int d, int& jlo, int& jhi) {
        const double a = RoundedSub(RoundedMul(static_cast<double>((l1 + 1) * d), inverse), r);
        const double b = RoundedSub(RoundedMul(RoundedMul(static_cast<double>(d), inverse), l2 + 1), q);
        if (a <= b)
            ++q;
        else
            ++r;
        jlo = MaxInt(MaxInt(0, d - l1), q - half);
        jhi = MinInt(MinInt(l2, d), q + half);
    }
};

// Whether query index j lies on a diagonal's band.
VB_HD bool InBand(int offset, int length, int j) {
    return j >= offset && j < offset + length;
}

// Picks the best predecessor: diagonal wins every tie, and between the gaps
// a tie goes to the gap in the query.
VB_HD int Choose(int diag, int up, int right, unsigned char& code) {
    if (diag >= up && diag >= right) {
        code = DIAG;
        return diag;
    }
    if (right < up) {
        code = UP;
        return up;
    }
    code = RIGHT;
    return right;
}

// Everything an edge cell needs to find its predecessors.
struct Diagonals {
    const int* prev1;  // diagonal d - 1
    const int* prev2;  // diagonal d - 2
    int offset1, length1, offset2, length2;
};

// A band edge cell (i, j): the first (START) or last (END) cell of its
// diagonal, or the only one (BOTH). Only these can lie on the matrix borders or
// have a predecessor outside the band (which makes that candidate impossible),
// so the borders are tested by position: with a one-cell band the first cell is
// also the last.
VB_HD int EdgeCell(int i, int j, int l1, int l2, int match, const int* gaps, const Diagonals& diagonals,
                   unsigned char& code) {
    int diag = ZERO_PROB_SCORE;
    int up = ZERO_PROB_SCORE;
    int right = ZERO_PROB_SCORE;
    if (i >= 1 && j >= 1 && InBand(diagonals.offset2, diagonals.length2, j - 1))
        diag = diagonals.prev2[j - 1 - diagonals.offset2] + match;
    if (j >= 1 && InBand(diagonals.offset1, diagonals.length1, j - 1))
        up = diagonals.prev1[j - 1 - diagonals.offset1] + (i == 0    ? gaps[kStartGap1]
                                                           : i == l1 ? gaps[kEndGap1]
                                                                     : gaps[kOpenGap1]);
    if (i >= 1 && InBand(diagonals.offset1, diagonals.length1, j))
        right = diagonals.prev1[j - diagonals.offset1] + (j == 0    ? gaps[kStartGap2]
                                                          : j == l2 ? gaps[kEndGap2]
                                                                    : gaps[kOpenGap2]);
    return Choose(diag, up, right, code);
}

// Aligns reference ref (l1 codes) against query (l2 codes) with the banded
// recurrence. matrix is subMatrixSize^2 scores, gaps the six negated costs,
// band_width odd. Writes path_length (reference index, query index) pairs into
// path (room for l1 + l2 pairs), from the start of the alignment to its end,
// and returns the score of cell (l1, l2).
VB_HD int AlignThread(const int* matrix, const int* gaps, int band_width, const int* ref, int l1, const int* query,
                      int l2, ThreadWork work, int* path, int& path_length) {
    path_length = 0;
    if (l1 == 0 || l2 == 0) {
        // No matrix work: every base of the non-empty side against a gap.
        for (int k = 0; k < l1 + l2; ++k) {
            path[2 * k] = l1 == 0 ? -1 : k;
            path[2 * k + 1] = l1 == 0 ? k : -1;
        }
        path_length = l1 + l2;
        return ZERO_PROB_SCORE;
    }

    const int width = BandRowWidth(MaxInt(l1, l2), band_width);
    const int last = l1 + l2;  // index of the last anti-diagonal
    BandWalk band{l1, l2, width / 2, 1.0 / (last + 1)};
    int* prev2 = work.rows[0];
    int* prev1 = work.rows[1];
    int* current = work.rows[2];
    work.band_offsets[0] = 0;
    work.band_lengths[0] = 1;
    prev1[0] = 0;
    work.trace[0] = DIAG;

    for (int d = 1; d <= last; ++d) {
        int jlo, jhi;
        band.Step(d, jlo, jhi);
        const int length = jhi - jlo + 1;
        work.band_offsets[d] = jlo;
        work.band_lengths[d] = length;
        unsigned char* trace = work.trace + d * width;

        Diagonals diagonals;
        diagonals.prev1 = prev1;
        diagonals.prev2 = prev2;
        diagonals.offset1 = work.band_offsets[d - 1];
        diagonals.length1 = work.band_lengths[d - 1];
        diagonals.offset2 = d >= 2 ? work.band_offsets[d - 2] : 0;
        diagonals.length2 = d >= 2 ? work.band_lengths[d - 2] : 0;

        // Match scores of the cells whose diagonal predecessor is in the matrix.
        for (int p = 0; p < length; ++p) {
            const int j = jlo + p;
            const int i = d - j;
            work.match[p] = i >= 1 && j >= 1 ? matrix[subMatrixSize * ref[i - 1] + query[j - 1]] : 0;
        }

        current[0] = EdgeCell(d - jlo, jlo, l1, l2, work.match[0], gaps, diagonals, trace[0]);
        // Interior cells lie off the matrix borders and their predecessors
        // inside the band (band edges move by at most one per diagonal), so
        // they need no checks. The shifts locate (i, j-1) and (i-1, j) on d-1
        // and (i-1, j-1) on d-2 from the differences of the band offsets.
        const int shift1 = jlo - diagonals.offset1;
        const int shift2 = jlo - diagonals.offset2;
        for (int p = 1; p < length - 1; ++p) {
            const int diag = prev2[p + shift2 - 1] + work.match[p];
            const int up = prev1[p + shift1 - 1] + gaps[kOpenGap1];
            const int right = prev1[p + shift1] + gaps[kOpenGap2];
            current[p] = Choose(diag, up, right, trace[p]);
        }
        if (length > 1)
            current[length - 1] =
                EdgeCell(d - jhi, jhi, l1, l2, work.match[length - 1], gaps, diagonals, trace[length - 1]);

        int* recycled = prev2;
        prev2 = prev1;
        prev1 = current;
        current = recycled;
    }
    const int score = prev1[0];

    // Traceback from (l1 - 1, l2 - 1), collected backwards.
    int i = l1 - 1;
    int j = l2 - 1;
    int d = last;
    int position = 0;
    int count = 0;
    while (i >= 0 && j >= 0) {
        path[2 * count] = i;
        path[2 * count + 1] = j;
        ++count;
        const unsigned char code = work.trace[d * width + position];
        if (code == DIAG) {
            --i;
            --j;
            d -= 2;
        } else if (code == UP) {
            --j;
            --d;
        } else {
            --i;
            --d;
        }
        position = j + 1 - work.band_offsets[d];
    }
    for (; i >= 0; --i, ++count) {
        path[2 * count] = i;
        path[2 * count + 1] = -1;
    }
    for (; j >= 0; --j, ++count) {
        path[2 * count] = -1;
        path[2 * count + 1] = j;
    }

    // A base repeated by the next pair was consumed against a gap.
    for (int k = 0; k + 1 < count; ++k) {
        if (path[2 * k] == path[2 * k + 2]) path[2 * k] = -1;
        if (path[2 * k + 1] == path[2 * k + 3]) path[2 * k + 1] = -1;
    }
    for (int lo = 0, hi = count - 1; lo < hi; ++lo, --hi) {
        const int ref_index = path[2 * lo];
        const int query_index = path[2 * lo + 1];
        path[2 * lo] = path[2 * hi];
        path[2 * lo + 1] = path[2 * hi + 1];
        path[2 * hi] = ref_index;
        path[2 * hi + 1] = query_index;
    }
    path_length = count;
    return score;
}

// The score of AlignThread without the path: the same band and recurrence,
// keeping only the last three diagonals (rows[0..2], row_width ints each) and
// the last two bands' positions, so that a thread's memory stays a few rows.
// Codes are bytes here: the batch kernel streams windows of many reads.
VB_HD int ScoreThread(const int* matrix, const int* gaps, int band_width, const unsigned char* ref, int l1,
                      const unsigned char* query, int l2, int* row0, int* row1, int* row2) {
    if (l1 == 0 || l2 == 0) return ZERO_PROB_SCORE;
    const int width = BandRowWidth(MaxInt(l1, l2), band_width);
    const int last = l1 + l2;
    BandWalk band{l1, l2, width / 2, 1.0 / (last + 1)};
    int* prev2 = row0;
    int* prev1 = row1;
    int* current = row2;
    prev1[0] = 0;
    Diagonals diagonals;
    diagonals.offset1 = 0;  // diagonal 0: the one cell (0, 0)
    diagonals.length1 = 1;
    diagonals.offset2 = 0;  // diagonal -1: none
    diagonals.length2 = 0;
    unsigned char code;  // the trace AlignThread keeps; unused here

    for (int d = 1; d <= last; ++d) {
        int jlo, jhi;
        band.Step(d, jlo, jhi);
        const int length = jhi - jlo + 1;
        diagonals.prev1 = prev1;
        diagonals.prev2 = prev2;

        const int ilo = d - jlo;
        const int first_match = ilo >= 1 && jlo >= 1 ? matrix[subMatrixSize * ref[ilo - 1] + query[jlo - 1]] : 0;
        current[0] = EdgeCell(ilo, jlo, l1, l2, first_match, gaps, diagonals, code);
        const int shift1 = jlo - diagonals.offset1;
        const int shift2 = jlo - diagonals.offset2;
        for (int p = 1; p < length - 1; ++p) {
            const int j = jlo + p;
            const int match = matrix[subMatrixSize * ref[d - j - 1] + query[j - 1]];
            const int diag = prev2[p + shift2 - 1] + match;
            const int up = prev1[p + shift1 - 1] + gaps[kOpenGap1];
            const int right = prev1[p + shift1] + gaps[kOpenGap2];
            current[p] = Choose(diag, up, right, code);
        }
        if (length > 1) {
            const int ihi = d - jhi;
            const int last_match = ihi >= 1 && jhi >= 1 ? matrix[subMatrixSize * ref[ihi - 1] + query[jhi - 1]] : 0;
            current[length - 1] = EdgeCell(ihi, jhi, l1, l2, last_match, gaps, diagonals, code);
        }

        diagonals.offset2 = diagonals.offset1;
        diagonals.length2 = diagonals.length1;
        diagonals.offset1 = jlo;
        diagonals.length1 = length;
        int* recycled = prev2;
        prev2 = prev1;
        prev1 = current;
        current = recycled;
    }
    return prev1[0];
}

}  // namespace FastAlignKernels
