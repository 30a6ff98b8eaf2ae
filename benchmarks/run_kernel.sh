#!/usr/bin/env bash
# The alignment kernel's speed inside the shipped binary next to
# bench_fast_align's on the same work, per SIMD build: 42-base references,
# 150-base windows, band 151, 48 references per read end (VB-NB24) and 192
# (VB-NB96). The binary measures its own kernel under VB_KERNEL_STATS=1
# (pair_alignment/kernel_stats.h); bench_fast_align's BM_Barcodes measures
# the same calls the same way (kernel_GCUPS) and by CPU time (GCUPS). Runs are
# interleaved and each figure is the median of VB_KERNEL_RUNS runs, since
# other work on the machine slows whichever run it overlaps.
# Usage: benchmarks/run_kernel.sh <build dir>
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
cd "$(dirname "$0")/.."

binary="$build/bin/vorpa_barcoder"
bench="$build/bin/bench_fast_align"
runs=${VB_KERNEL_RUNS:-5}
reads=${VB_KERNEL_READS:-2000}
builds=${VB_KERNEL_BUILDS:-"generic sse41 avx2 avx512"}
kits="VB-NB24:48 VB-NB96:192"  # kit : references per read end
if [ ! -x "$bench" ]; then
  echo "run_kernel.sh: $bench is missing (Google Benchmark not installed?)" >&2
  exit 1
fi

data="$build/bench_kernel_data"
key=$(cat tools/simulate_reads.py data/barcoding/* | cksum | cut -d' ' -f1)
if [ ! -f "$data/.complete-$reads-$key" ]; then
  rm -rf "$data"
  mkdir -p "$data/reads"
  echo "Simulating $reads reads into $data ..."
  python3 tools/simulate_reads.py -o "$data/reads/kernel.fastq.gz" --truth "$data/truth.tsv" \
    --kit VB-NB24 -n "$reads" --seed 11 --median-length 1500
  touch "$data/.complete-$reads-$key"
fi
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# shipped <build> <kit>: the binary's kernel GCUPS, one worker thread like the benchmark.
shipped() {
  rm -rf "$out/run"
  VB_SIMD=$1 VB_KERNEL_STATS=1 "$binary" -i "$data/reads" -s "$out/run" --barcode_kits "$2" \
    --worker_threads 1 --quiet 2> "$out/stderr" > /dev/null || true
  sed -n 's/^Alignment kernel: .*, \([0-9.]*\) GCUPS .*/\1/p' "$out/stderr"
}

# benchmark <build> <references>: "<kernel_GCUPS> <GCUPS>", nothing when the build cannot run here.
benchmark() {
  "$bench" --benchmark_filter="^BM_Barcodes/$1/$2\$" --benchmark_min_time=0.5 2> /dev/null |
    sed -n 's/.*GCUPS=\([0-9.]*\)\/s.*kernel_GCUPS=\([0-9.]*\).*/\2 \1/p'
}

median() {
  printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

declare -A shipped_runs bench_runs cpu_runs
for ((run = 1; run <= runs; run++)); do
  for entry in $kits; do
    kit=${entry%%:*} refs=${entry#*:}
    for simd in $builds; do
      read -r kernel cpu < <(benchmark "$simd" "$refs"; echo) || true
      [ -n "${kernel:-}" ] || continue  # not supported by this processor
      bench_runs[$simd/$refs]+=" $kernel"
      cpu_runs[$simd/$refs]+=" $cpu"
      shipped_runs[$simd/$refs]+=" $(shipped "$simd" "$kit")"
    done
  done
done

echo "Kernel GCUPS, medians of $runs interleaved runs (bench: kernel counters, and CPU time)"
printf '%-8s %5s %14s %13s %13s %14s\n' build refs "shipped" "bench" "bench (cpu)" "shipped/bench"
for entry in $kits; do
  refs=${entry#*:}
  for simd in $builds; do
    if [ -z "${bench_runs[$simd/$refs]:-}" ]; then
      printf '%-8s %5s %14s\n' "$simd" "$refs" "skipped: not supported by this processor"
      continue
    fi
    # shellcheck disable=SC2086
    s=$(median ${shipped_runs[$simd/$refs]}) b=$(median ${bench_runs[$simd/$refs]}) c=$(median ${cpu_runs[$simd/$refs]})
    awk -v simd="$simd" -v refs="$refs" -v s="$s" -v b="$b" -v c="$c" \
      'BEGIN { printf "%-8s %5s %14.2f %13.2f %13.2f %14.2f\n", simd, refs, s, b, c, s / b }'
  done
done
