#!/usr/bin/env bash
# End-to-end throughput: the whole program on 50,000 simulated gzip reads
# (median 1.5 kb), with 1 and 2 worker threads and two kit sizes, beside zcat
# of the same files as the floor any FASTQ reader pays.
# Usage: benchmarks/run_e2e.sh <build dir>
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
cd "$(dirname "$0")/.."

binary="$build/bin/vorpa_barcoder"
threads_list=${VB_BENCH_THREADS:-"1 2"}
kits_list=${VB_BENCH_KITS:-"VB-NB24 VB-NB96"}
source benchmarks/bench_reads.sh "$build"

# Runs a command with its output discarded, prints "<seconds> <peak KiB>
# <cpu seconds>". CPU time (user + system) tells a busy machine apart from a
# slow program. GNU time measures the command alone; the Python fallback's
# peak may include the interpreter's own pages copied at fork.
measure() {
  if [ -x /usr/bin/time ]; then
    local log
    log=$(mktemp)
    if ! /usr/bin/time -o "$log" -f "%e %M %U %S" "$@" > /dev/null; then
      echo "command failed: $*" >&2
      exit 1
    fi
    awk '{ printf "%s %s %.2f\n", $1, $2, $3 + $4 }' "$log"
    rm -f "$log"
    return
  fi
  python3 - "$@" <<'PY'
import resource, subprocess, sys, time
start = time.monotonic()
with open('/dev/null', 'wb') as sink:
    status = subprocess.call(sys.argv[1:], stdout=sink)
seconds = time.monotonic() - start
usage = resource.getrusage(resource.RUSAGE_CHILDREN)
if status != 0:
    sys.exit(f"command failed with status {status}: {' '.join(sys.argv[1:])}")
print(f"{seconds:.3f} {usage.ru_maxrss} {usage.ru_utime + usage.ru_stime:.3f}")
PY
}

inputs=("$data"/reads/*.fastq.gz)
read -r zcat_seconds zcat_peak zcat_cpu < <(measure zcat "${inputs[@]}")

# row <label> <threads> <seconds> <peak KiB> <cpu seconds>
row() {
  awk -v label="$1" -v threads="$2" -v s="$3" -v peak="$4" -v cpu="$5" -v reads="$reads" -v z="$zcat_seconds" \
    'BEGIN { printf "%-10s %7s %9.2f %9.2f %9.0f %12.0f %9.1f %9.1f\n", label, threads, s, cpu, reads / s,
      (threads == "-" ? reads / s : reads / s / threads), peak / 1024, s / z }'
}

printf '%-10s %7s %9s %9s %9s %12s %9s %9s\n' kit threads seconds "cpu s" reads/s reads/s/thr "peak MiB" "x zcat"
row zcat - "$zcat_seconds" "$zcat_peak" "$zcat_cpu"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for kit in $kits_list; do
  for threads in $threads_list; do
    rm -rf "$out/run"
    read -r seconds peak cpu < <(measure "$binary" -i "$data/reads" -s "$out/run" --barcode_kits "$kit" \
      --worker_threads "$threads" --quiet)
    row "$kit" "$threads" "$seconds" "$peak" "$cpu"
  done
done
