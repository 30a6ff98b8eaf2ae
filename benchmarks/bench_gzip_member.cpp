// Output compression: FASTQ text cut into gzip members by GzipMemberWriter at
// ISA-L levels 0 and 1, for member sizes from a batch spread over many output
// files (a few KB) to a whole batch (a few MB). Reports input MB/s and the
// output size relative to `gzip -1` of the whole text in one piece; the
// gzip command itself is timed on the same text for scale. Times are CPU
// seconds (gzip: those of the child process), which stay comparable on a
// machine shared with other work.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>

#include "benchmarks/command_timing.h"
#include "common/gzip_member_writer.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kTextBytes = 32 << 20;

struct Input {
    std::string text;
    std::string path;
    double gzip1_bytes = 0;  // `gzip -1` of the whole text
};

// Long reads of 8 to 10 kb with one run id, as in the reader benchmark.
const Input& GetInput() {
    static const Input input = [] {
        Input in;
        std::mt19937 rng(11);
        for (int id = 0; in.text.size() < kTextBytes; ++id) {
            const size_t length = 8000 + rng() % 2000;
            in.text += "@read_" + std::to_string(id) + " runid=bench_run sampleid=s read=" + std::to_string(id) +
                       " ch=" + std::to_string(id % 512) + "\n";
            for (size_t i = 0; i < length; ++i)
                in.text += "ACGT"[rng() % 4];
            in.text += "\n+\n";
            for (size_t i = 0; i < length; ++i)
                in.text += static_cast<char>('!' + 5 + rng() % 35);
            in.text += "\n";
        }
        in.path = (fs::temp_directory_path() / "vb_bench_gzip_member.fastq").string();
        std::ofstream(in.path, std::ios::binary) << in.text;
        FILE* pipe = popen(("gzip -1 -c '" + in.path + "'").c_str(), "r");
        if (pipe == nullptr) throw std::runtime_error("cannot run gzip");
        char buffer[1 << 16];
        for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
            in.gzip1_bytes += static_cast<double>(n);
        pclose(pipe);
        return in;
    }();
    return input;
}

void BM_GzipMember(benchmark::State& state) {
    const Input& input = GetInput();
    const int level = static_cast<int>(state.range(0));
    const size_t member = static_cast<size_t>(state.range(1));
    Common::GzipMemberWriter writer(level);
    std::string out;
    size_t compressed = 0;
    for (auto _ : state) {
        compressed = 0;
        for (size_t at = 0; at < input.text.size(); at += member) {
            out.clear();
            writer.Append(std::string_view(input.text).substr(at, member), out);
            compressed += out.size();
        }
        benchmark::DoNotOptimize(compressed);
    }
    const double bytes = static_cast<double>(input.text.size()) * static_cast<double>(state.iterations());
    state.counters["MB/s"] = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsRate);
    state.counters["vs_gzip-1"] = static_cast<double>(compressed) / input.gzip1_bytes;
}

void BM_GzipCommandLevel1(benchmark::State& state) {
    const Input& input = GetInput();
    if (!Bench::TimeCommand(state, "gzip -1 -c '" + input.path + "' > /dev/null", "gzip")) return;
    const double bytes = static_cast<double>(input.text.size()) * static_cast<double>(state.iterations());
    state.counters["MB/s"] = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsRate);
}

BENCHMARK(BM_GzipMember)
    ->ArgsProduct({{0, 1}, {4 << 10, 16 << 10, 64 << 10, 256 << 10, 1 << 20, 4 << 20}})
    ->ArgNames({"level", "member"})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GzipCommandLevel1)->Unit(benchmark::kMillisecond)->Iterations(2)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
