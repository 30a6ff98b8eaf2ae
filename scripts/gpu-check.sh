#!/usr/bin/env bash
# The GPU check, in one command, on a machine with an NVIDIA GPU:
#
#   scripts/gpu-check.sh [--build DIR] [--prebuilt] [--reads N] [--emulated-reads N]
#                        [--sweep-reads N] [--tests REGEX] OUT
#
# 1. builds with the GPU kernels for this machine's GPU (into DIR, default
#    build-gpu; packages as for make test); with --prebuilt DIR is used as it
#    is, built elsewhere with -DVB_CUDA_ARCHITECTURES for this GPU (for a GPU
#    machine that can neither install packages nor reach a package registry);
# 2. runs every test (those matching REGEX only, with --tests); a test that
#    skipped itself for want of a GPU, a device or the kernels fails the check;
# 3. runs the barcoder on the example reads and on N simulated reads (default
#    100,000) of VB-NB24 and of VB-NB96, each on the CPU and with
#    --device cuda:0, and compares the summaries (sorted) and every output
#    file's records (scripts/device-matches-cpu.sh);
# 4. times --device cuda:0 with 1, 4 and 16 worker threads against the CPU
#    with every core, on the first --sweep-reads reads of each kit (default
#    20,000), with the GPU's utilisation (nvidia-smi dmon) beside each GPU run;
# 5. runs bench_align_cuda, and puts the CPU and GPU runs' throughput side by
#    side for both kits.
#
# Everything it writes, logs and figures, goes to OUT; OUT/report.md sums it
# up. Without a GPU (no working nvidia-smi) the same steps run against the
# stand-in driver of tests/fake_cuda, whose kernels run on the CPU: that keeps
# the check itself working (CI runs it so), but says nothing about a GPU. Its
# runs are slow, so --emulated-reads (default: the --reads count) sets their
# read count.
set -euo pipefail
cd "$(dirname "$0")/.."
source_root=$(pwd)

build=build-gpu
reads=100000
emulated_reads=
sweep_reads=20000
prebuilt=
tests=
out=
while [ $# -gt 0 ]; do
  case $1 in
    --build) build=$2; shift 2 ;;
    --reads) reads=$2; shift 2 ;;
    --emulated-reads) emulated_reads=$2; shift 2 ;;
    --sweep-reads) sweep_reads=$2; shift 2 ;;
    --prebuilt) prebuilt=1; shift ;;
    --tests) tests=$2; shift 2 ;;
    -*) echo "gpu-check: unknown option $1" >&2; exit 2 ;;
    *) out=$1; shift ;;
  esac
done
if [ -z "$out" ]; then
  echo "usage: $0 [--build DIR] [--reads N] [--emulated-reads N] [--tests REGEX] OUT" >&2
  exit 2
fi
mkdir -p "$out"
out=$(cd "$out" && pwd)
report=$out/report.md
step() { echo "== gpu-check: $(date +%T) $*" | tee -a "$out/steps.log"; }
fail() {
  echo "gpu-check: FAILED: $*" | tee -a "$out/steps.log" >&2
  printf '\n**FAILED**: %s\n' "$*" >> "$report"
  exit 1
}

# A GPU is there when nvidia-smi names one; its compute capability (e.g. 9.0)
# is the one architecture the kernels are built for.
gpu=$(nvidia-smi --query-gpu=name,compute_cap --format=csv,noheader 2>/dev/null | head -n 1 || true)
cmake_args=(-DCMAKE_BUILD_TYPE=Release -DVB_CUDA=ON)
if [ -n "$gpu" ]; then
  arch=$(tr -d ' .' <<<"${gpu##*,}")
  cmake_args+=("-DVB_CUDA_ARCHITECTURES=$arch")
  mode="GPU: $gpu"
  runtime_env=()
else
  reads=${emulated_reads:-$reads}
  mode="no GPU: the stand-in driver of tests/fake_cuda (kernels emulated on the CPU)"
  runtime_env=("LD_LIBRARY_PATH=$source_root/$build/fake_cuda${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}")
fi
printf '# GPU check\n\n- %s\n- commit %s\n- %s simulated reads per kit\n' "$mode" \
  "$(git rev-parse --short HEAD 2>/dev/null || echo unknown)" "$reads" > "$report"
step "$mode"

if [ -n "$prebuilt" ]; then
  step "prebuilt ($build)"
  [ -s "$build/kernels/fastalign.fatbin" ] || fail "$build holds no GPU kernels (configure it with -DVB_CUDA=ON)"
  # A build made on another machine (scripts/gpu-bundle.sh): its shared
  # libraries travel beside it, and its tests name the source folder and the
  # Python of the machine that configured it.
  [ ! -d "$build/bundle-libs" ] ||
    export LD_LIBRARY_PATH="$source_root/$build/bundle-libs${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
  configured=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$build/CMakeCache.txt")
  if [ -n "$configured" ] && [ "$configured" != "$source_root" ]; then
    if [ -e "$configured" ]; then
      [ "$(cd "$configured" && pwd -P)" = "$(pwd -P)" ] ||
        fail "$build was configured in $configured, which is another folder here"
    else
      { mkdir -p "$(dirname "$configured")" && ln -s "$source_root" "$configured"; } ||
        fail "$build was configured in $configured: link that path to $source_root"
      step "linked $configured to $source_root, where $build was configured"
    fi
  fi
  python=$(sed -n 's/^_\{0,1\}Python3_EXECUTABLE:[A-Z]*=//p' "$build/CMakeCache.txt" | head -n 1)
  if [ -n "$python" ] && [ ! -x "$python" ]; then
    here=$(command -v python3) || fail "no python3 here (the tests run $python)"
    find "$build" -name CTestTestfile.cmake -exec sed -i "s#\"$python\"#\"$here\"#g" {} +
    step "tests run $here instead of $python"
  fi
else
  step "build ($build)"
  bash scripts/install-deps.sh test optional > "$out/install.log" 2>&1 || fail "installing packages (install.log)"
  {
    cmake -S . -B "$build" "${cmake_args[@]}" && cmake --build "$build" -j "$(nproc)"
  } > "$out/build.log" 2>&1 || fail "the build (build.log)"
  build_log=$(cat "$out/build.log")
  [[ "$build_log" == *"GPU kernels: "*nvcc* ]] || fail "the build has no GPU kernels (nvcc not found? see build.log)"
fi
binary=$source_root/$build/bin/vorpa_barcoder

# The reads are simulated while the tests run.
step "simulated reads ($reads per kit), in the background"
for kit in VB-NB24 VB-NB96; do
  python3 tools/simulate_reads.py --kit "$kit" -n "$reads" --seed 23 -o "$out/reads/$kit/reads.fastq.gz" \
    > "$out/simulate_$kit.log" 2>&1 &
done

step "tests ${tests:-(all)}"
rm -rf "$out/gtest"
(cd "$build" && GTEST_OUTPUT="xml:$out/gtest/" ctest --output-on-failure -j "$(nproc)" ${tests:+-R "$tests"}) \
  > "$out/ctest.log" 2>&1 || fail "tests (ctest.log)"
# Tests skipped here, by name and reason; on a GPU none may be skipped for want
# of a GPU, a device or the kernels.
python3 - "$out/gtest" > "$out/skipped.txt" <<'EOF'
import glob, sys, xml.etree.ElementTree as ET
for path in sorted(glob.glob(sys.argv[1] + "/*.xml")):
    for case in ET.parse(path).iter("testcase"):
        skipped = case.find("skipped")
        if skipped is not None or case.get("result") == "skipped":
            reason = skipped.get("message", "") if skipped is not None else ""
            print(f"{case.get('classname')}.{case.get('name')}\t{' '.join(reason.splitlines()[1:])}")
EOF
summary=$(tail -n 3 "$out/ctest.log" | grep 'tests passed' || true)
printf '\n## Tests\n\n%s\n\nSkipped (skipped.txt):\n\n```\n%s\n```\n' "$summary" "$(cat "$out/skipped.txt")" >> "$report"
if [ -n "$gpu" ]; then
  # (One test checks the message for a missing driver, and skips where there is one.)
  gpu_skips=$(grep -i -E 'nvcc|device|gpu|cuda' "$out/skipped.txt" | grep -v 'a CUDA driver is installed here' || true)
  [ -z "$gpu_skips" ] || fail "GPU tests were skipped on a GPU machine: $gpu_skips"
fi

for kit in VB-NB24 VB-NB96; do
  wait -n || fail "simulating reads (simulate_*.log)"
done

step "CPU against --device cuda:0"
printf '\n## CPU against --device cuda:0\n\n' >> "$report"
printf 'kit\treads\tcpu_s\tgpu_s\tcpu_reads_per_s\tgpu_reads_per_s\n' > "$out/throughput.tsv"
compare() {
  local name=$1 input=$2 count=$3
  shift 3
  env "${runtime_env[@]}" bash scripts/device-matches-cpu.sh "$binary" "$out/runs/$name" cuda:0 "$input" "$@" \
    > "$out/compare_$name.log" 2>&1 || fail "CPU and GPU runs differ on $name (compare_$name.log)"
  printf -- '- %s: %s\n' "$name" "$(tail -n 1 "$out/compare_$name.log")" >> "$report"
  if [ "$count" -gt 0 ]; then
    local cpu_s gpu_s
    cpu_s=$(awk '$1 == "cpu" { print $2 }' "$out/runs/$name/seconds.tsv")
    gpu_s=$(awk '$1 == "device" { print $2 }' "$out/runs/$name/seconds.tsv")
    awk -v k="$name" -v n="$count" -v c="$cpu_s" -v g="$gpu_s" \
      'BEGIN { printf "%s\t%d\t%.2f\t%.2f\t%.0f\t%.0f\n", k, n, c, g, n / c, n / g }' >> "$out/throughput.tsv"
  fi
}
compare examples examples/reads 0 --barcode_kits VB-NB24 --trim_barcodes
compare VB-NB24 "$out/reads/VB-NB24" "$reads" --barcode_kits VB-NB24 --trim_barcodes
compare VB-NB96 "$out/reads/VB-NB96" "$reads" --barcode_kits VB-NB96 --compress_fastq
printf '\nThroughput, whole program, default worker threads (throughput.tsv):\n\n```\n%s\n```\n' \
  "$(column -t < "$out/throughput.tsv" 2>/dev/null || cat "$out/throughput.tsv")" >> "$report"

if [ -n "$gpu" ] && [ "$sweep_reads" -gt 0 ]; then
  step "worker threads ($sweep_reads reads per kit)"
  printf 'kit\trun\tworker_threads\treads\tseconds\treads_per_s\tmean_sm_percent\n' > "$out/sweep.tsv"
  sweep_run() {
    local kit=$1 device=$2 threads=$3 input=$out/sweep/$kit start ms util=- status=0
    rm -rf "$out/sweep/$kit-run"
    [ -z "$device" ] || { nvidia-smi dmon -s u -d 1 > "$out/sweep/dmon_${kit}_$threads.txt" 2>&1 & }
    local dmon=$!
    start=$(date +%s%N)
    timeout "${VB_SWEEP_TIMEOUT:-90}" "$binary" -i "$input" -s "$out/sweep/$kit-run" --barcode_kits "$kit" -t "$threads" \
      ${device:+--device "$device"} > "$out/sweep/$kit-$threads${device:+-gpu}.out" 2>&1 || status=$?
    ms=$((($(date +%s%N) - start) / 1000000))
    if [ -n "$device" ]; then
      kill "$dmon" 2>/dev/null || true
      wait "$dmon" 2>/dev/null || true
      util=$(awk '$1 !~ /^#/ && NF > 1 { s += $2; n++ } END { if (n) printf "%.0f", s / n; else print "-" }' \
        "$out/sweep/dmon_${kit}_$threads.txt")
    fi
    # A run that failed or timed out (status 124) has no rate.
    awk -v k="$kit" -v r="${device:-cpu}" -v t="$threads" -v n="$sweep_reads" -v ms="$ms" -v u="$util" -v st="$status" \
      'BEGIN { rate = st ? "exit_" st : sprintf("%.0f", n * 1000 / ms)
               printf "%s\t%s\t%d\t%d\t%.2f\t%s\t%s\n", k, r, t, n, ms / 1000, rate, u }' >> "$out/sweep.tsv"
  }
  mkdir -p "$out/sweep"
  for kit in VB-NB24 VB-NB96; do
    # (gzip stops on a broken pipe once head has its lines.)
    mkdir -p "$out/sweep/$kit"
    { gzip -dc "$out/reads/$kit/reads.fastq.gz" || true; } | head -n $((4 * sweep_reads)) > "$out/sweep/$kit/reads.fastq"
    sweep_run "$kit" "" "$(nproc)"
    for threads in 1 4 16; do sweep_run "$kit" cuda:0 "$threads"; done
    sweep_run "$kit" "" "$(nproc)"
  done
  printf '\nWorker threads, %s reads per kit, plain FASTQ, CPU with every core (before and after) and\n--device cuda:0; mean SM utilisation from nvidia-smi dmon (sweep.tsv):\n\n```\n%s\n```\n' \
    "$sweep_reads" "$(column -t < "$out/sweep.tsv" 2>/dev/null || cat "$out/sweep.tsv")" >> "$report"
fi

step "bench_align_cuda"
bench=$source_root/$build/bin/bench_align_cuda
[ -x "$bench" ] || fail "bench_align_cuda was not built (Google Benchmark missing?)"
bench_args=()
# Emulated launches are slow: there the batch kernel runs its smallest case only.
[ -n "$gpu" ] || bench_args=(--benchmark_min_time=0.01 '--benchmark_filter=BM_FastAlign(Gpu|Cpu)/|Batch/24/')
env "${runtime_env[@]}" VB_BENCH_DEVICE=cuda:0 "$bench" "${bench_args[@]}" > "$out/bench_align_cuda.txt" 2>&1 ||
  fail "bench_align_cuda (bench_align_cuda.txt)"
bench_text=$(cat "$out/bench_align_cuda.txt")
[[ "$bench_text" != *"no GPU to run on"* ]] || fail "bench_align_cuda found no GPU (bench_align_cuda.txt)"
printf '\n## bench_align_cuda\n\n```\n%s\n```\n' "$(grep -E '^(BM_|Benchmark|-)' "$out/bench_align_cuda.txt")" >> "$report"

printf '\nAll steps passed.\n' >> "$report"
step "passed; see $report"
cat "$report"
