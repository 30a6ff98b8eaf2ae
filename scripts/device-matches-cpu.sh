#!/usr/bin/env bash
# Runs the barcoder twice on the same input, once on the CPU and once with
# --device, and checks that the two runs classify alike: the summaries (rows
# sorted: they are written in input order, sorting only keeps a difference in
# order from hiding a difference in content) and every output file's records.
#
#   device-matches-cpu.sh BINARY WORK DEVICE INPUT [barcoder options...]
#
# DEVICE is what --device gets ("auto", "cuda:0"). The runs go to WORK/cpu and
# WORK/device, their console output to WORK/cpu.out and WORK/device.out, and the
# wall-clock seconds of each to WORK/seconds.tsv. To run against the stand-in
# driver of tests/fake_cuda, put its folder on LD_LIBRARY_PATH.
set -euo pipefail
if [ $# -lt 4 ]; then
  echo "usage: $0 BINARY WORK DEVICE INPUT [barcoder options...]" >&2
  exit 2
fi
binary=$1 work=$2 device=$3 input=$4
shift 4

rm -rf "$work"
mkdir -p "$work"
printf 'run\tseconds\n' > "$work/seconds.tsv"
run() {
  local name=$1
  shift
  local start
  start=$(date +%s%N)
  if ! "$binary" -i "$input" -s "$work/$name" "$@" > "$work/$name.out" 2>&1; then
    echo "device-matches-cpu: the $name run failed (see $work/$name.out):" >&2
    tail -n 5 "$work/$name.out" >&2
    exit 1
  fi
  local ms=$((($(date +%s%N) - start) / 1000000))
  printf '%s\t%d.%03d\n' "$name" $((ms / 1000)) $((ms % 1000)) >> "$work/seconds.tsv"
}
run cpu "$@"
run device "$@" --device "$device"

# Without this line in its log the run fell back to the CPU aligner, and the
# comparison below would prove nothing.
device_log=$(cat "$work"/device/*.log)
if [[ "$device_log" != *"Total GPU memory allocated by FastAlignGPU is:"* ]]; then
  echo "device-matches-cpu: the --device run did not use the GPU aligner (see $work/device/)" >&2
  exit 1
fi

# One record per line, sorted, whatever the compression; BAM records through
# samtools (their header names the command line, which differs).
records() {
  case $1 in
    *.bam) samtools view "$1" ;;
    *.gz) gzip -dc "$1" | paste - - - - ;;
    *) paste - - - - < "$1" ;;
  esac | LC_ALL=C sort
}

differ=0
# The summaries and the read files; reports and logs carry times and paths.
files() {
  (cd "$1" && find . -type f \( -name barcoding_summary.txt -o -name '*.fastq' -o -name '*.fastq.gz' \
    -o -name '*.bam' \) | LC_ALL=C sort)
}
if ! diff <(files "$work/cpu") <(files "$work/device") > "$work/files.diff"; then
  echo "device-matches-cpu: the runs wrote different files (see $work/files.diff)" >&2
  differ=1
fi
rows=0
while read -r file; do
  [ -f "$work/device/$file" ] || continue
  case $file in
    */barcoding_summary.txt)
      rows=$(($(wc -l < "$work/cpu/$file") - 1))
      cmp -s <(LC_ALL=C sort "$work/cpu/$file") <(LC_ALL=C sort "$work/device/$file") || {
        echo "device-matches-cpu: summaries differ: $file" >&2
        differ=1
      } ;;
    *)
      cmp -s <(records "$work/cpu/$file") <(records "$work/device/$file") || {
        echo "device-matches-cpu: records differ: $file" >&2
        differ=1
      } ;;
  esac
done < <(files "$work/cpu")
[ $differ -eq 0 ] || exit 1
echo "device-matches-cpu: CPU and --device $device agree ($rows summary rows, $(files "$work/cpu" | wc -l) files)"
