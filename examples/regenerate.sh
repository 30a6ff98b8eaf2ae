#!/usr/bin/env bash
# Rewrites examples/reads and examples/truth.tsv from the shipped kit files.
# Run it again whenever the VB-NB24 barcodes change: the reads carry them.
set -euo pipefail
cd "$(dirname "$0")/.."
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
rm -rf examples/reads
mkdir -p examples/reads
python3 tools/simulate_reads.py -o examples/reads/vb_nb24_part.fastq.gz --truth "$tmp/part.tsv" \
  --kit VB-NB24 -n 200 --seed 2024 --split 2 --median-length 600
python3 tools/simulate_reads.py -o examples/reads/vb_nb24_extra.fastq --truth "$tmp/extra.tsv" \
  --kit VB-NB24 -n 100 --seed 2025 --median-length 600
(cat "$tmp/part.tsv"; tail -n +2 "$tmp/extra.tsv") > examples/truth.tsv
