// The aligner on the barcoding workload: a 150-base read window against every
// reference of a 48-barcode kit (70 bases each), band width 151. Reports
// alignments per second and GCUPS, counting (L1 + 1) * (L2 + 1) cells per
// alignment, for each build of Align and for the batch paths.

#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "pair_alignment/fast_align.h"
#include "pair_alignment/simd_dispatch.h"

using namespace PairAlignment;

namespace {

constexpr int kReferences = 48;
constexpr int kReferenceLength = 70;
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
const Workload& GetWorkload() {
    static const Workload workload = [] {
        Workload w;
        w.matrix = {2, -1, -1, -1, -1, 2, -1, -1, -1, -1, 2, -1, -1, -1, -1, 2};
        w.gaps = {1, 1, 3, 3, 6, 6, 3, 3};
        std::mt19937 rng(5);
        auto base = [&] { return static_cast<int>(rng() % 4); };
        for (int k = 0; k < kReferences; ++k) {
            std::vector<int> ref(kReferenceLength);
            for (int& b : ref)
                b = base();
            w.references.push_back(ref);
        }
        for (int k = 0; k < kQueries; ++k) {
            std::vector<int> carried;
            for (int b : w.references[rng() % kReferences]) {
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
        w.cells_per_query = static_cast<double>(kReferences) * (kReferenceLength + 1) * (kQueryLength + 1);
        return w;
    }();
    return workload;
}

brim::data_wrappers::VecView<int> View(const std::vector<int>& s) {
    return brim::data_wrappers::VecView<int>(const_cast<int*>(s.data()), s.size());
}

FastAlign MakeAligner(const Workload& w) {
    return FastAlign(brim::data_wrappers::MatView<int>(const_cast<int*>(w.matrix.data()), 4, 4), w.gaps, kBandWidth);
}

void SetCounters(benchmark::State& state, const Workload& w) {
    const double queries = static_cast<double>(state.iterations());
    state.counters["alignments/s"] = benchmark::Counter(queries * kReferences, benchmark::Counter::kIsRate);
    state.counters["GCUPS"] = benchmark::Counter(queries * w.cells_per_query * 1e-9, benchmark::Counter::kIsRate);
}

void BM_Align(benchmark::State& state, const char* build) {
    try {
        ForceSimdBuild(build);
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
        return;
    }
    const Workload& w = GetWorkload();
    FastAlign aligner = MakeAligner(w);
    Path path;
    size_t next = 0;
    for (auto _ : state) {
        const auto& query = w.queries[next++ % kQueries];
        for (const auto& ref : w.references)
            benchmark::DoNotOptimize(aligner.Align(View(ref), View(query), path));
    }
    SetCounters(state, w);
}

void BM_Batch(benchmark::State& state, const char* build, bool with_paths) {
    try {
        ForceSimdBuild(build);
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
        return;
    }
    const Workload& w = GetWorkload();
    FastAlign aligner = MakeAligner(w);
    const auto batch = aligner.PrepareReferences(w.references);
    const std::vector<uint8_t> want(kReferences, 1);
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

}  // namespace

BENCHMARK_CAPTURE(BM_Align, generic, "generic");
BENCHMARK_CAPTURE(BM_Align, sse41, "sse41");
BENCHMARK_CAPTURE(BM_Align, avx2, "avx2");
BENCHMARK_CAPTURE(BM_Batch, paths_avx2, "avx2", true);
BENCHMARK_CAPTURE(BM_Batch, scores_generic, "generic", false);
BENCHMARK_CAPTURE(BM_Batch, scores_sse41, "sse41", false);
BENCHMARK_CAPTURE(BM_Batch, scores_avx2, "avx2", false);
BENCHMARK_CAPTURE(BM_Batch, scores_avx512, "avx512", false);

BENCHMARK_MAIN();
