#!/usr/bin/env bash
# The benchmarks' reads: simulated VB-NB24 reads (median 1.5 kb) in gzip
# FASTQ files under <build>/<folder>/reads, by default 50,000 reads in ten
# files under <build>/bench_data. Simulated once with a fixed seed and kept;
# made again (the folder emptied first) when the count, the simulator or the
# kit files change, since they carry the barcodes.
# Usage: source benchmarks/bench_reads.sh <build dir> [folder reads files]
#   (sets data, the folder, and reads, the count)
data="$1/${2:-bench_data}"
reads=${3:-${VB_BENCH_READS:-50000}}
key=$(cat tools/simulate_reads.py data/barcoding/* | cksum | cut -d' ' -f1)
if [ ! -f "$data/.complete-$reads-$key" ]; then
  rm -rf "$data"
  mkdir -p "$data/reads"
  echo "Simulating $reads reads into $data ..."
  python3 tools/simulate_reads.py -o "$data/reads/bench.fastq.gz" --truth "$data/truth.tsv" \
    --kit VB-NB24 -n "$reads" --seed 7 --split "${4:-10}" --median-length 1500
  touch "$data/.complete-$reads-$key"
fi
