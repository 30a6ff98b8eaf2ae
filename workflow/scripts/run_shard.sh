#!/usr/bin/env bash
# One shard of the sharded barcoding workflow: vorpa_barcoder on the shard's
# input files, handed over as a list on standard input (-i ""), into the
# shard's own save folder. The barcoder's log becomes the shard's log.
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

status=0
"$barcoder" -i "" -s "$folder" -t "$threads" --quiet "${options[@]}" \
  <"$folder/files.txt" >"$folder/console.txt" 2>&1 || status=$?

# With --quiet the console holds only what went wrong before logging started.
{
  cat "$folder"/vorpa_barcoder_log-*.log 2>/dev/null
  cat "$folder/console.txt"
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
