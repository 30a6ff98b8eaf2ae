// Input throughput: reading a 100 MB FASTQ file through FastQIterable, plain,
// gzip-compressed in one member (zlib level 6) and as 1 MB members the way
// the output is written, against `zcat` of the same archive into /dev/null.
// The files are generated once into the temp folder and reused by later runs.
//
// Times are CPU seconds (zcat: those of the child process), which stay
// comparable on a machine shared with other work; compare wall-clock times
// in separate, interleaved runs.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>

#include "benchmarks/command_timing.h"
#include "common/fastq_reader.h"
#include "common/gzip_member_writer.h"

namespace fs = std::filesystem;

namespace {

constexpr uintmax_t kTargetBytes = 100'000'000;

struct InputFiles {
    std::string plain;
    std::string gzip;
    std::string members;
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

// The plain text again, as 1 MB gzip members (cut anywhere, as batches are
// not: the reader must not care).
void WriteMembers(const std::string& plain, const std::string& members) {
    std::ifstream in(plain, std::ios::binary);
    std::ofstream out(members, std::ios::binary);
    Common::GzipMemberWriter writer;
    std::string text(1 << 20, '\0');
    std::string packed;
    while (in.read(text.data(), static_cast<std::streamsize>(text.size())) || in.gcount() > 0) {
        packed.clear();
        writer.Append(std::string_view(text.data(), static_cast<size_t>(in.gcount())), packed);
        out.write(packed.data(), static_cast<std::streamsize>(packed.size()));
    }
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
        f.members = f.plain + ".members.gz";
        if (!fs::exists(f.members)) WriteMembers(f.plain, f.members);
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
        Common::FastQIterable reads(stream.get(), path);
        size_t records = 0, bases = 0;
        for (reads.Begin(); !reads.AtEnd(); reads.Increment()) {
            ++records;
            bases += reads.Record().sequence.size();
        }
        benchmark::DoNotOptimize(bases);
        state.counters["records"] = static_cast<double>(records);
        if (!reads.Error().empty()) state.SkipWithError(reads.Error().c_str());
    }
    ReportThroughput(state, Files().bytes);
}

void BM_FastqReaderPlain(benchmark::State& state) {
    ReadThroughIterable(state, Files().plain);
}
void BM_FastqReaderGzip(benchmark::State& state) {
    ReadThroughIterable(state, Files().gzip);
}
void BM_FastqReaderGzipMembers(benchmark::State& state) {
    ReadThroughIterable(state, Files().members);
}

// The decompression floor: the system's zcat writing to /dev/null, timed by
// the CPU seconds of the child processes.
void BM_ZcatToDevNull(benchmark::State& state) {
    if (!Bench::TimeCommand(state, "zcat '" + Files().gzip + "' > /dev/null", "zcat")) return;
    ReportThroughput(state, Files().bytes);
}

BENCHMARK(BM_FastqReaderPlain)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FastqReaderGzip)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FastqReaderGzipMembers)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_ZcatToDevNull)->Unit(benchmark::kMillisecond)->Iterations(3)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
