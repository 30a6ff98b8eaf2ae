#!/usr/bin/env bash
# The Slurm profile against local cores: 8 shards of a few seconds each, one
# input file each, through the README's Slurm command on a 2-CPU one-node
# cluster (tests/workflow/with_slurm.sh, which needs root, namespaces and
# scripts/install-deps.sh slurm; it skips otherwise), and through the same
# workflow with --cores 2. Runs are interleaved; prints each run's wall
# seconds, then the medians and their ratio.
#
#   benchmarks/run_slurm.sh [BUILD] [ROUNDS]
#
# The input, 120,000 simulated reads (median 1.5 kb) in 8 gzip files, is made
# once in BUILD/bench_slurm/reads (benchmarks/bench_reads.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
build=$(realpath "${1:-build}")
rounds=${2:-3}
if [ -z "${VB_SLURM_INSIDE:-}" ]; then
  source benchmarks/bench_reads.sh "$build" bench_slurm 120000 8
  status=0
  tests/workflow/with_slurm.sh --cpus 2 "$build/bench_slurm/cluster" -- "$0" "$build" "$rounds" || status=$?
  [ "$status" -eq 77 ] && { echo "(Slurm benchmark skipped: see the reason above)"; exit 0; }
  exit "$status"
fi

# Inside the cluster's namespaces.
work=$build/bench_slurm
barcoder=$build/bin/vorpa_barcoder
options="--barcode_kits VB-NB24"
results=$work/results.tsv
: >"$results"
timed() {  # NAME COMMAND...
  local name=$1 start end
  shift
  start=$(date +%s.%N)
  "$@" >"$work/last_run.log" 2>&1 || { tail -n 40 "$work/last_run.log" >&2; exit 1; }
  end=$(date +%s.%N)
  python3 -c "print('$name', f'{$end - $start:.2f}')" | tee -a "$results"
}
config=(--config input_path="$work/reads" files_per_shard=1 barcoder="$barcoder" options="$options")
for round in $(seq "$rounds"); do
  echo "round $round"
  rm -rf "$work/local" "$work/slurm" "$work/.snakemake"
  cd "$work"
  timed local snakemake -s "$repo/workflow/Snakefile" --cores 2 "${config[@]}" save_path="$work/local"
  timed slurm snakemake -s "$repo/workflow/Snakefile" --profile "$repo/workflow/profiles/slurm" \
    --default-resources slurm_account=vbtest slurm_partition=debug "${config[@]}" save_path="$work/slurm"
done
python3 - "$results" <<'EOF'
import collections, statistics, sys
runs = collections.defaultdict(list)
for line in open(sys.argv[1]):
    name, wall = line.split()
    runs[name].append(float(wall))
local, slurm = statistics.median(runs["local"]), statistics.median(runs["slurm"])
print(f"8 shards, local --cores 2: median {local:.2f} s; Slurm profile on a 2-CPU node: median {slurm:.2f} s "
      f"({slurm / local:.2f} x local)")
EOF
