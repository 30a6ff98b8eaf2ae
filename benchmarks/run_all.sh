#!/usr/bin/env bash
# make bench: every micro-benchmark, then the end-to-end throughput run.
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
