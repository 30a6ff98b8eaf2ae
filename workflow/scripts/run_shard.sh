#!/usr/bin/env bash
# One shard of the sharded barcoding workflow: vorpa_barcoder on the shard's
# input files, handed over as a list on standard input (-i ""), into the
# shard's own save folder. The barcoder's log becomes the shard's log, as
# it is written.
#
#   run_shard.sh BARCODER SHARD_FOLDER LOG THREADS [OPTION...] -- FILE...
#
# The shard is finished only when the barcoder exits with status 0 and has
# written barcoding_report.json, which it does after closing every output
# file; otherwise this exits non-zero and Snakemake marks the shard failed.
set -uo pipefail

barcoder=$1 folder=$2 log=$3 threads=$4
shift 4
options=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
  options+=("$1")
  shift
done
shift  # the "--"
shard=$(basename "$folder")

rm -rf "$folder"
mkdir -p "$folder" "$(dirname "$log")"
printf '%s\n' "$@" >"$folder/files.txt"

# The shard's log grows as the barcoder logs: a shard killed on a cluster
# (cancelled, out of time or memory) leaves what it had written so far.
header="shard $shard: $# input files, $threads threads, on $(hostname)${SLURM_JOB_ID:+ in Slurm job $SLURM_JOB_ID}"
echo "$header" >"$log"
"$barcoder" -i "" -s "$folder" -t "$threads" --quiet "${options[@]}" \
  <"$folder/files.txt" >"$folder/console.txt" 2>&1 &
barcoder_pid=$!
follow_log() {
  local file
  until file=$(compgen -G "$folder/vorpa_barcoder_log-*.log"); do
    kill -0 "$barcoder_pid" 2>/dev/null || return 0
    sleep 0.2
  done
  exec tail -n +1 -s 0.2 --pid="$barcoder_pid" -f "$file"
}
follow_log >>"$log" 2>/dev/null &
follower_pid=$!

# Slurm and Ctrl-C signal every process of the job: the barcoder stops at
# the next batch and says so in its log, and this script waits for that.
stopped_by=""
trap 'stopped_by=SIGTERM' TERM
trap 'stopped_by=SIGINT' INT
while :; do
  wait "$barcoder_pid"
  status=$?
  kill -0 "$barcoder_pid" 2>/dev/null || break
done
wait "$follower_pid" 2>/dev/null

# With --quiet the console holds only what went wrong before logging started.
{
  echo "$header"
  cat "$folder"/vorpa_barcoder_log-*.log 2>/dev/null
  cat "$folder/console.txt"
  [ -n "$stopped_by" ] && echo "shard $shard: stopped by $stopped_by"
} >"$log"
rm -f "$folder"/vorpa_barcoder_log-*.log "$folder/console.txt"

if [ "$status" -ne 0 ]; then
  echo "shard $shard failed: $barcoder ended with status $status; see $log" >&2
  tail -n 5 "$log" >&2
  exit "$status"
fi
if [ ! -f "$folder/barcoding_report.json" ]; then
  echo "shard $shard failed: $barcoder wrote no barcoding_report.json; see $log" >&2
  exit 1
fi
