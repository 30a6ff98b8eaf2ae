// FastAlignGPU on the barcoding workload: a 150-base read window against N
// references of 70 bases (band width 151), one launch per window, for launch
// sizes up to the 352-thread limit. Reports alignments per second (scores and
// paths back on the host). The device comes from VB_BENCH_DEVICE (default
// "cuda:0"); without a GPU, a driver or a build with kernels every case is
// skipped with the reason. The CPU aligner on the same work is the baseline.
// FastAlignGpuBatch, the barcoder's path, scores 2,048 such windows (a worker's
// batch of reads, both ends) against N references per call, scores only.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "pair_alignment/align_cuda.h"
#include "pair_alignment/align_cuda_batch.h"
#include "pair_alignment/fast_align.h"

namespace {

using PairAlignment::FastAlignGPU;
using PairAlignment::Path;

constexpr int kReferenceLength = 70;
constexpr int kQueryLength = 150;
constexpr int kBandWidth = 151;

struct Workload {
    std::vector<int> matrix = {2, -1, -1, -1, -1, 2, -1, -1, -1, -1, 2, -1, -1, -1, -1, 2};
    std::vector<int> gaps = {1, 1, 3, 3, 6, 6, 3, 3};
    std::vector<std::vector<int>> references;
    std::string query;
};

Workload MakeWorkload(int references) {
    Workload w;
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> base(0, 3);
    w.references.resize(static_cast<size_t>(references));
    for (auto& reference : w.references) {
        reference.resize(kReferenceLength);
        for (int& code : reference)
            code = base(rng);
    }
    // The first reference sits in the window between random flanks.
    for (int k = 0; k < kQueryLength; ++k) {
        const int offset = k - 40;
        const int code = offset >= 0 && offset < kReferenceLength ? w.references[0][offset] : base(rng);
        w.query.push_back("ACGT"[code]);
    }
    return w;
}

const char* Device() {
    const char* device = std::getenv("VB_BENCH_DEVICE");
    return device != nullptr ? device : "cuda:0";
}

void BM_FastAlignGpu(benchmark::State& state) {
    const int references = static_cast<int>(state.range(0));
    Workload w = MakeWorkload(references);
    const brim::data_wrappers::MatView<int> view(w.matrix.data(), 4, 4);
    std::unique_ptr<FastAlignGPU> gpu;
    try {
        gpu = std::make_unique<FastAlignGPU>(view, w.gaps, FastAlignGPU::BaseCodeTable(), kReferenceLength,
                                             kQueryLength, Device(), kBandWidth);
        gpu->SetReferences(w.references);
    } catch (const std::exception& e) {
        state.SkipWithError((std::string("no GPU to run on: ") + e.what()).c_str());
        return;
    }
    std::vector<int> scores;
    std::vector<Path> paths;
    for (auto _ : state) {
        gpu->AlignAll(w.query, scores, paths);
        benchmark::DoNotOptimize(scores.data());
    }
    state.counters["alignments/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * references, benchmark::Counter::kIsRate);
}

void BM_FastAlignGpuBatch(benchmark::State& state) {
    const int references = static_cast<int>(state.range(0));
    constexpr int kWindows = 2048;
    Workload w = MakeWorkload(references);
    const brim::data_wrappers::MatView<int> view(w.matrix.data(), 4, 4);
    std::vector<int> query;
    for (char c : w.query)
        query.push_back(FastAlignGPU::BaseCodeTable()[static_cast<unsigned char>(c)]);
    const std::vector<std::vector<int>> windows(kWindows, query);
    std::unique_ptr<PairAlignment::FastAlignGpuBatch> gpu;
    try {
        gpu = std::make_unique<PairAlignment::FastAlignGpuBatch>(view, w.gaps, kBandWidth, w.references, Device(),
                                                                 kQueryLength);
    } catch (const std::exception& e) {
        state.SkipWithError((std::string("no GPU to run on: ") + e.what()).c_str());
        return;
    }
    std::vector<int> scores;
    for (auto _ : state) {
        gpu->ScoreWindows(windows, scores);
        benchmark::DoNotOptimize(scores.data());
    }
    state.counters["alignments/s"] = benchmark::Counter(static_cast<double>(state.iterations()) * references * kWindows,
                                                        benchmark::Counter::kIsRate);
}

void BM_FastAlignCpu(benchmark::State& state) {
    const int references = static_cast<int>(state.range(0));
    Workload w = MakeWorkload(references);
    const brim::data_wrappers::MatView<int> view(w.matrix.data(), 4, 4);
    PairAlignment::FastAlign cpu(view, w.gaps, kBandWidth);
    std::vector<int> query;
    for (char c : w.query)
        query.push_back(FastAlignGPU::BaseCodeTable()[static_cast<unsigned char>(c)]);
    Path path;
    for (auto _ : state) {
        for (auto& reference : w.references)
            benchmark::DoNotOptimize(cpu.Align(brim::data_wrappers::VecView<int>(reference.data(), reference.size()),
                                               brim::data_wrappers::VecView<int>(query.data(), query.size()), path));
    }
    state.counters["alignments/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * references, benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_FastAlignGpu)->Arg(24)->Arg(48)->Arg(96)->Arg(192)->Arg(352)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FastAlignGpuBatch)->Arg(24)->Arg(96)->Arg(384)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FastAlignCpu)->Arg(24)->Arg(352)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
