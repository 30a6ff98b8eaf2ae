#!/usr/bin/env bash
# make demo: classify the bundled example reads against the VB-NB24 kit and
# count the reads filed under each barcode.
set -euo pipefail
build=${1:-build}
cd "$(dirname "$0")/.."

binary="$build/bin/vorpa_barcoder"
if [ ! -x "$binary" ]; then
  echo "demo: $binary not found; build first (make demo does)" >&2
  exit 1
fi

# The demo owns demo_output; starting clean keeps earlier runs out of the counts.
rm -rf demo_output
"$binary" -i examples/reads -s demo_output --barcode_kits VB-NB24

echo
echo "Reads per barcode (from demo_output/barcoding_summary.txt):"
awk -F'\t' 'NR > 1 { count[$2]++; total++ }
  END {
    for (name in count) printf "  %-14s %6d\n", name, count[name] | "sort"
    close("sort")
    printf "  %-14s %6d\n", "total", total
  }' demo_output/barcoding_summary.txt

# The example reads are simulated, so their true barcodes are known.
if [ -f examples/truth.tsv ]; then
  awk -F'\t' 'FNR == 1 { next }
    FILENAME ~ /truth/ { if ($2 == "double" || $2 == "front") expected[$1] = $3; next }
    ($1 in expected) { total++; if ($2 == expected[$1]) correct++ }
    END { printf "\nBarcoded reads given their true barcode: %d of %d (%.1f%%)\n", correct, total, 100 * correct / total }' \
    examples/truth.tsv demo_output/barcoding_summary.txt
fi
echo
echo "Reads are filed under demo_output/<barcode>/fastq_runid_<run id>_0.fastq"
