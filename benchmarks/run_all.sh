#!/usr/bin/env bash
# make bench: every micro-benchmark, the end-to-end throughput run, then the
# alignment kernel inside the shipped binary next to its benchmark.
set -euo pipefail
build=${1:-build}
cd "$(dirname "$0")/.."
for b in "$build"/bin/bench_*; do
  [ -x "$b" ] || continue
  echo "== $(basename "$b")"
  "$b"
done
echo "== whole program against zcat (interleaved runs)"
python3 benchmarks/pipeline_bench.py "$build"
if [ -f benchmarks/run_e2e.sh ]; then
  echo "== end-to-end throughput"
  bash benchmarks/run_e2e.sh "$build"
fi
if [ -x "$build/bin/bench_fast_align" ]; then
  echo "== alignment kernel: shipped binary vs benchmark"
  bash benchmarks/run_kernel.sh "$build"
fi
if command -v samtools > /dev/null; then
  echo "== BAM against gzip FASTQ"
  bash benchmarks/run_bam.sh "$build"
fi
if command -v snakemake > /dev/null; then
  echo "== sharded workflow against one process"
  bash benchmarks/run_workflow.sh "$build"
fi
