// Input throughput: reading a 100 MB FASTQ file through FastQIterable, plain
// and gzip-compressed, against `zcat` decompressing the same archive. The
// files are generated once into the temp folder and reused by later runs.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/fastq_reader.h"

namespace fs = std::filesystem;

namespace {

constexpr uintmax_t kTargetBytes = 100'000'000;

struct InputFiles {
    std::string plain;
    std::string gzip;
    uintmax_t bytes = 0;  // uncompressed size
};

// Reads of 200 to 5000 bases, roughly like long-read runs, with one run id.
void Generate(const std::string& plain, const std::string& gzip) {
    std::mt19937 rng(42);
    std::ofstream out(plain, std::ios::binary);
    gzFile packed = gzopen(gzip.c_str(), "wb6");
    if (!out || packed == nullptr) throw std::runtime_error("cannot write benchmark input in the temp folder");
    std::string record;
    uintmax_t written = 0;
    for (int id = 0; written < kTargetBytes; ++id) {
        size_t length = 200 + rng() % 4800;
        record = "@read_" + std::to_string(id) + " runid=bench_run sampleid=s read=" + std::to_string(id) +
                 " ch=" + std::to_string(id % 512) + "\n";
        for (size_t i = 0; i < length; ++i)
            record += "ACGT"[rng() % 4];
        record += "\n+\n";
        for (size_t i = 0; i < length; ++i)
            record += static_cast<char>('!' + 5 + rng() % 35);
        record += "\n";
        out << record;
        gzwrite(packed, record.data(), static_cast<unsigned>(record.size()));
        written += record.size();
    }
    gzclose(packed);
}

const InputFiles& Files() {
    static InputFiles files = [] {
        InputFiles f;
        fs::path folder = fs::temp_directory_path();
        f.plain = (folder / "vb_bench_reads_100mb.fastq").string();
        f.gzip = f.plain + ".gz";
        if (!fs::exists(f.plain) || !fs::exists(f.gzip) || fs::file_size(f.plain) < kTargetBytes) {
            Generate(f.plain, f.gzip);
        }
        f.bytes = fs::file_size(f.plain);
        return f;
    }();
    return files;
}

void ReportThroughput(benchmark::State& state, uintmax_t bytes) {
    state.SetBytesProcessed(static_cast<int64_t>(bytes * state.iterations()));
    state.counters["MB/s"] = benchmark::Counter(
        static_cast<double>(bytes) * static_cast<double>(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
}

void ReadThroughIterable(benchmark::State& state, const std::string& path) {
    for (auto _ : state) {
        auto stream = Common::OpenFastqFile(path);
        Common::FastQIterable reads(stream.get());
        size_t records = 0, bases = 0;
        for (reads.Begin(); !reads.AtEnd(); reads.Increment()) {
            ++records;
            bases += reads.Record().sequence.size();
        }
        benchmark::DoNotOptimize(bases);
        state.counters["records"] = static_cast<double>(records);
    }
    ReportThroughput(state, Files().bytes);
}

void BM_FastqReaderPlain(benchmark::State& state) {
    ReadThroughIterable(state, Files().plain);
}
void BM_FastqReaderGzip(benchmark::State& state) {
    ReadThroughIterable(state, Files().gzip);
}

// The decompression floor: the system's zcat writing into a pipe we drain.
// Its work happens in another process, so only wall-clock time is meaningful
// (all three use real time for that reason).
void BM_ZcatPipe(benchmark::State& state) {
    std::vector<char> buffer(1 << 20);
    const std::string command = "zcat '" + Files().gzip + "'";
    for (auto _ : state) {
        FILE* pipe = popen(command.c_str(), "r");
        if (pipe == nullptr) {
            state.SkipWithError("popen failed");
            return;
        }
        size_t total = 0;
        for (size_t n; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
            total += n;
        pclose(pipe);
        benchmark::DoNotOptimize(total);
    }
    ReportThroughput(state, Files().bytes);
}

BENCHMARK(BM_FastqReaderPlain)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_FastqReaderGzip)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_ZcatPipe)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
