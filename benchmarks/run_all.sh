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
# Watching: peak memory while a writer adds files (VB_BENCH_WATCH_MINUTES,
# default 5; the figure in the README is from 30 minutes and 200 files), and
# the size of the report page of a 96-barcode run of a million reads.
echo "== watch memory and report size"
minutes=${VB_BENCH_WATCH_MINUTES:-5}
python3 benchmarks/watch_and_report.py "$build" --minutes "$minutes" --files $((minutes * 200 / 30))
echo "== barcodes inside reads: --internal_barcodes ignore, reject, split"
bash benchmarks/run_internal.sh "$build"
# Pairs of a front and a rear barcode: accuracy on simulated 12 x 8 and
# 24 x 24 designs, the cross-talk estimate against the truth, and a 96 x 96
# sheet against the kit's barcodes as plain arrangements.
echo "== pairs of barcodes and cross-talk"
python3 benchmarks/pairs_bench.py "$build"
if command -v samtools > /dev/null; then
  echo "== BAM against gzip FASTQ"
  bash benchmarks/run_bam.sh "$build"
fi
if command -v snakemake > /dev/null; then
  echo "== sharded workflow against one process"
  bash benchmarks/run_workflow.sh "$build"
fi
if command -v snakemake > /dev/null && [ -x /usr/sbin/slurmctld ]; then
  echo "== Slurm profile against local cores (one-node cluster)"
  bash benchmarks/run_slurm.sh "$build"
fi
