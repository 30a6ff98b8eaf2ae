#pragma once
// Benchmarks of a system command (zcat, gzip) beside our own code: each
// iteration runs the command through the shell and counts the CPU seconds its
// child processes used, so the figure compares with CPU-bound in-process work
// whatever else the machine is doing. For benchmarks registered with
// UseManualTime().

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdlib>
#include <string>

namespace Bench {

inline double ChildCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Runs `command` once per iteration; false, with the benchmark marked as
// failed ("<name> failed"), when it exits with an error.
inline bool TimeCommand(benchmark::State& state, const std::string& command, const std::string& name) {
    for (auto _ : state) {
        const double before = ChildCpuSeconds();
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError((name + " failed").c_str());
            return false;
        }
        state.SetIterationTime(ChildCpuSeconds() - before);
    }
    return true;
}

}  // namespace Bench
