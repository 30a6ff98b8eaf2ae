// The aligner on barcoding workloads, for each build of Align and of the batch
// paths: a 150-base read window against 48 references of 70 bases (band 151),
// and the shipped configuration's shape (BM_Barcodes): 42-base references,
// 150-base windows, band 151, the shipped scores and gap costs, with 48 or 192
// references, the per-end counts of VB-NB24 and VB-NB96. The batch kernel has
// no data-dependent branch, so random references of the same number, length
// and score range cost what the kit's do; benchmarks/run_kernel.sh compares
// BM_Barcodes with the shipped binary's own kernel figure. Reports alignments
// per second and GCUPS, counting (L1 + 1) * (L2 + 1) cells per alignment, and
// kernel_GCUPS, the same figure as the shipped binary measures it
// (kernel_stats.h).

#include <benchmark/benchmark.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "pair_alignment/fast_align.h"
#include "pair_alignment/kernel_stats.h"

using namespace PairAlignment;

namespace {

constexpr int kQueryLength = 150;
constexpr int kQueries = 32;
constexpr int kBandWidth = 151;

struct Workload {
    std::vector<int> matrix;
    std::vector<int> gaps;
    std::vector<std::vector<int>> references;
    std::vector<std::vector<int>> queries;
    double cells_per_query = 0;
};

// Each query carries one of the references with about 8% substitutions,
// insertions and deletions, between random flanks.
Workload MakeWorkload(std::vector<int> matrix, std::vector<int> gaps, int count, int length) {
    Workload w;
    w.matrix = std::move(matrix);
    w.gaps = std::move(gaps);
    std::mt19937 rng(5);
    auto base = [&] { return static_cast<int>(rng() % 4); };
    for (int k = 0; k < count; ++k) {
        std::vector<int> ref(length);
        for (int& b : ref)
            b = base();
        w.references.push_back(ref);
    }
    for (int k = 0; k < kQueries; ++k) {
        std::vector<int> carried;
        for (int b : w.references[rng() % count]) {
            const int event = rng() % 100;
            if (event < 3) continue;                    // deletion
            if (event < 6) carried.push_back(base());   // insertion
            carried.push_back(event < 8 ? base() : b);  // substitution
        }
        std::vector<int> query;
        const int flank = (kQueryLength - static_cast<int>(carried.size())) / 3;
        for (int i = 0; i < flank; ++i)
            query.push_back(base());
        query.insert(query.end(), carried.begin(), carried.end());
        while (static_cast<int>(query.size()) < kQueryLength)
            query.push_back(base());
        query.resize(kQueryLength);
        w.queries.push_back(query);
    }
    w.cells_per_query = static_cast<double>(count) * (length + 1) * (kQueryLength + 1);
    return w;
}

const Workload& GetWorkload() {
    static const Workload workload =
        MakeWorkload({2, -1, -1, -1, -1, 2, -1, -1, -1, -1, 2, -1, -1, -1, -1, 2}, {1, 1, 3, 3, 6, 6, 3, 3}, 48, 70);
    return workload;
}

// data/barcoding's matrix (match 5, mismatch -4) and gap costs (configuration.cfg).
const Workload& GetBarcodeWorkload(int count) {
    static std::map<int, Workload> workloads;
    auto found = workloads.find(count);
    if (found == workloads.end()) {
        std::vector<int> matrix(16, -4);
        for (int k = 0; k < 4; ++k)
            matrix[5 * k] = 5;
        found = workloads.emplace(count, MakeWorkload(matrix, {0, 0, 7, 7, 7, 7, 7, 7}, count, 42)).first;
    }
    return found->second;
}

brim::data_wrappers::VecView<int> View(const std::vector<int>& s) {
    return brim::data_wrappers::VecView<int>(const_cast<int*>(s.data()), s.size());
}

FastAlign MakeAligner(const Workload& w) {
    return FastAlign(brim::data_wrappers::MatView<int>(const_cast<int*>(w.matrix.data()), 4, 4), w.gaps, kBandWidth);
}

void SetCounters(benchmark::State& state, const Workload& w) {
    const double queries = static_cast<double>(state.iterations());
    state.counters["alignments/s"] =
        benchmark::Counter(queries * static_cast<double>(w.references.size()), benchmark::Counter::kIsRate);
    state.counters["GCUPS"] = benchmark::Counter(queries * w.cells_per_query * 1e-9, benchmark::Counter::kIsRate);
}

bool Force(benchmark::State& state, const char* build) {
    try {
        ForceSimdBuild(build);
        return true;
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
        return false;
    }
}

// One query per iteration, in turn, against every reference of the workload.
template <typename AlignOne>
void AlignEachReference(benchmark::State& state, const Workload& w, AlignOne align_one) {
    size_t next = 0;
    for (auto _ : state) {
        const auto& query = w.queries[next++ % kQueries];
        for (const auto& ref : w.references)
            benchmark::DoNotOptimize(align_one(View(ref), View(query)));
    }
    SetCounters(state, w);
}

// Align with its path, one reference at a time; barcodes: the shipped
// configuration's matrix and gap costs (which take the 8-bit band kernel), on
// the 48-reference workload of BM_Barcodes.
void BM_Align(benchmark::State& state, const char* build, bool barcodes) {
    if (!Force(state, build)) return;
    const Workload& w = barcodes ? GetBarcodeWorkload(48) : GetWorkload();
    FastAlign aligner = MakeAligner(w);
    Path path;
    AlignEachReference(state, w, [&](const auto& ref, const auto& query) { return aligner.Align(ref, query, path); });
}

// AlignSpan as the shipped binary calls it for the references it reports:
// the barcodes' band kernel and the walk of the trace, without the path.
void BM_AlignSpan(benchmark::State& state, const char* build) {
    if (!Force(state, build)) return;
    const Workload& w = GetBarcodeWorkload(48);
    FastAlign aligner = MakeAligner(w);
    PairedSpan span;
    AlignEachReference(state, w,
                       [&](const auto& ref, const auto& query) { return aligner.AlignSpan(ref, query, span); });
}

void BM_Batch(benchmark::State& state, const char* build, bool with_paths) {
    if (!Force(state, build)) return;
    const Workload& w = GetWorkload();
    FastAlign aligner = MakeAligner(w);
    const auto batch = aligner.PrepareReferences(w.references);
    const std::vector<uint8_t> want(w.references.size(), 1);
    std::vector<int> scores;
    std::vector<Path> paths;
    size_t next = 0;
    for (auto _ : state) {
        const auto& query = w.queries[next++ % kQueries];
        if (with_paths)
            aligner.AlignBatch(*batch, View(query), want, scores, paths);
        else
            aligner.ScoreBatch(*batch, View(query), scores);
        benchmark::DoNotOptimize(scores.data());
    }
    SetCounters(state, w);
}

// ScoreBatch as the shipped binary calls it, with the kernel counters on.
void BM_Barcodes(benchmark::State& state, const char* build) {
    if (!Force(state, build)) return;
    const Workload& w = GetBarcodeWorkload(static_cast<int>(state.range(0)));
    FastAlign aligner = MakeAligner(w);
    const auto batch = aligner.PrepareReferences(w.references);
    std::vector<int> scores;
    SetKernelStatsEnabled(true);
    ResetKernelStats();
    size_t next = 0;
    for (auto _ : state) {
        aligner.ScoreBatch(*batch, View(w.queries[next++ % kQueries]), scores);
        benchmark::DoNotOptimize(scores.data());
    }
    const KernelStats kernel = KernelStatsTotal();
    SetKernelStatsEnabled(false);
    SetCounters(state, w);
    state.counters["kernel_GCUPS"] = kernel.seconds > 0 ? static_cast<double>(kernel.cells) / kernel.seconds * 1e-9 : 0;
}

}  // namespace

BENCHMARK_CAPTURE(BM_Align, generic, "generic", false);
BENCHMARK_CAPTURE(BM_Align, sse41, "sse41", false);
BENCHMARK_CAPTURE(BM_Align, avx2, "avx2", false);
BENCHMARK_CAPTURE(BM_Align, barcodes_generic, "generic", true);
BENCHMARK_CAPTURE(BM_Align, barcodes_sse41, "sse41", true);
BENCHMARK_CAPTURE(BM_Align, barcodes_avx2, "avx2", true);
BENCHMARK_CAPTURE(BM_AlignSpan, barcodes_generic, "generic");
BENCHMARK_CAPTURE(BM_AlignSpan, barcodes_sse41, "sse41");
BENCHMARK_CAPTURE(BM_AlignSpan, barcodes_avx2, "avx2");
BENCHMARK_CAPTURE(BM_Batch, paths_avx2, "avx2", true);
BENCHMARK_CAPTURE(BM_Batch, scores_generic, "generic", false);
BENCHMARK_CAPTURE(BM_Batch, scores_sse41, "sse41", false);
BENCHMARK_CAPTURE(BM_Batch, scores_avx2, "avx2", false);
BENCHMARK_CAPTURE(BM_Batch, scores_avx512, "avx512", false);
BENCHMARK_CAPTURE(BM_Barcodes, generic, "generic")->Arg(48)->Arg(192);
BENCHMARK_CAPTURE(BM_Barcodes, sse41, "sse41")->Arg(48)->Arg(192);
BENCHMARK_CAPTURE(BM_Barcodes, avx2, "avx2")->Arg(48)->Arg(192);
BENCHMARK_CAPTURE(BM_Barcodes, avx512, "avx512")->Arg(48)->Arg(192);

BENCHMARK_MAIN();
