#!/usr/bin/env bash
# Cost of sharding: the workflow on 2 local cores against one
# vorpa_barcoder -t 2 process on the same input. Runs are interleaved so that
# load from elsewhere hits all set-ups alike; prints each run's wall and CPU
# seconds (user + system, all processes), where the workflow's time went
# (shards, merge, the rest), Snakemake's fixed cost (a rerun with nothing to
# do), then the medians and the ratios to the single run.
#
#   benchmarks/run_workflow.sh [BUILD] [ROUNDS] [FILES_PER_SHARD:THREADS...]
#
# Each FILES_PER_SHARD:THREADS is one workflow set-up; the default 4:1 and 1:2
# are two shards side by side with one worker thread each, and eight shards
# one after the other with two. The input, 200,000 simulated reads (median
# 1.5 kb) in 8 gzip files, is made once in BUILD/bench_workflow/reads
# (benchmarks/bench_reads.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
build=$(realpath "${1:-build}")
rounds=${2:-3}
setups=("${@:3}")
[ ${#setups[@]} -gt 0 ] || setups=(4:1 1:2)
barcoder=$build/bin/vorpa_barcoder
options="--barcode_kits VB-NB24"
source benchmarks/bench_reads.sh "$build" bench_workflow 200000 8
work=$data

results=$work/results.tsv
: >"$results"
# timed NAME COMMAND...: one line "NAME wall cpu" in results.
timed() {
  local name=$1
  shift
  /usr/bin/time -f "%e %U %S" -o "$work/time.txt" "$@" >"$work/last_run.log" 2>&1 ||
    { cat "$work/last_run.log" >&2; exit 1; }
  read -r wall user sys <"$work/time.txt"
  cpu=$(python3 -c "print(f'{$user + $sys:.2f}')")
  echo "$name $wall $cpu" >>"$results"
  printf '  %-24s %7.2f s wall %7.2f s CPU\n' "$name" "$wall" "$cpu"
}

for round in $(seq "$rounds"); do
  echo "round $round"
  rm -rf "$work/single"
  timed single "$barcoder" -i "$work/reads" -s "$work/single" -t 2 --quiet $options
  for setup in "${setups[@]}"; do
    save=$work/sharded_${setup/:/_}
    rm -rf "$save" "$work/.snakemake"
    start=$(date +%s.%N)
    workflow=(snakemake -s "$repo/workflow/Snakefile" --directory "$work" --cores 2 --quiet
      --config input_path="$work/reads" save_path="$save" files_per_shard="${setup%:*}"
      threads="${setup#*:}" barcoder="$barcoder" options="$options")
    timed "workflow_$setup" "${workflow[@]}"
    # Shards end when their log is written, the merge when its log is; the
    # rest is Snakemake starting up and removing the shard folders.
    python3 - "$save/logs" "$start" "$(date +%s.%N)" <<'EOF'
import os, sys
logs, start, end = sys.argv[1], float(sys.argv[2]), float(sys.argv[3])
mtime = lambda name: os.stat(os.path.join(logs, name)).st_mtime
first = min(mtime(n) for n in os.listdir(logs) if n.startswith("shard_"))
last = max(mtime(n) for n in os.listdir(logs) if n.startswith("shard_"))
merge = mtime("merge.log")
print(f"    to the first shard's end {first - start:6.2f} s, to the last {last - start:6.2f} s, "
      f"merge {merge - last:5.2f} s, after the merge {end - merge:5.2f} s")
EOF
    # The same command again finds everything done: Snakemake's own fixed
    # cost (start, reading the workflow, stop), which no set-up avoids.
    if [ "$setup" = "${setups[0]}" ]; then timed "nothing_to_do" "${workflow[@]}"; fi
  done
done

echo
python3 - "$results" <<'EOF'
import collections, statistics, sys
runs = collections.defaultdict(list)
for line in open(sys.argv[1]):
    name, wall, cpu = line.split()
    runs[name].append((float(wall), float(cpu)))
median = {name: [statistics.median(v[i] for v in values) for i in (0, 1)] for name, values in runs.items()}
base = median["single"]
for name, values in runs.items():
    wall, cpu = median[name]
    print(f"{name:16} wall {[v[0] for v in values]} median {wall:6.2f} s ({wall / base[0]:.3f} of single), "
          f"CPU median {cpu:6.2f} s ({cpu / base[1]:.3f})")
EOF
