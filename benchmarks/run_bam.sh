#!/usr/bin/env bash
# BAM against FASTQ: the whole program on the end-to-end benchmark's reads,
# once as gzip FASTQ in and gzip FASTQ out (--compress_fastq), once as
# unaligned BAM in and BAM out (--output_format bam). The BAM copy is made
# once with samtools import (the run id in the ri tag, the title's other
# fields as tags). Runs alternate between the two paths, so that a busy
# machine slows both alike; the medians and their ratio are printed.
# Usage: benchmarks/run_bam.sh <build dir>   (needs samtools)
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
cd "$(dirname "$0")/.."

if ! command -v samtools > /dev/null; then
  echo "run_bam.sh: samtools is not installed (scripts/install-deps.sh optional)" >&2
  exit 1
fi
binary="$build/bin/vorpa_barcoder"
rounds=${VB_BENCH_ROUNDS:-5}
threads=${VB_BENCH_THREADS:-2}
kit=${VB_BENCH_KIT:-VB-NB24}
source benchmarks/bench_reads.sh "$build"

if [ ! -f "$data/bam/.complete" ]; then
  rm -rf "$data/bam"
  mkdir -p "$data/bam"
  echo "Converting the reads to unaligned BAM in $data/bam ..."
  for fastq in "$data"/reads/*.fastq.gz; do
    name=$(basename "$fastq" .fastq.gz)
    python3 - "$fastq" "$data/bam/$name.tagged.fastq" <<'PY'
import gzip, sys
# "@id runid=R sampleid=S read=N ch=C start_time=T" -> SAM tags in the comment.
names = {"runid": "ri:Z:", "read": "xn:i:", "ch": "xc:i:", "start_time": "xs:Z:"}
with gzip.open(sys.argv[1], "rt") as src, open(sys.argv[2], "w") as out:
    for k, line in enumerate(src):
        if k % 4 == 0:
            head, *fields = line.rstrip("\n").split(" ")
            tags = [names[key] + value for key, value in (f.split("=", 1) for f in fields) if key in names]
            line = "\t".join([head] + tags) + "\n"
        out.write(line)
PY
    samtools import -0 "$data/bam/$name.tagged.fastq" -T '*' -o "$data/bam/$name.bam"
    rm "$data/bam/$name.tagged.fastq"
  done
  touch "$data/bam/.complete"
fi

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
python3 - "$binary" "$data" "$out" "$rounds" "$threads" "$kit" <<'PY'
import os, resource, shutil, statistics, subprocess, sys, time
binary, data, out, rounds, threads, kit = sys.argv[1:7]
paths = {
    "fastq.gz": ["-i", os.path.join(data, "reads"), "--compress_fastq"],
    "bam": ["-i", os.path.join(data, "bam"), "--output_format", "bam"],
}
wall = {name: [] for name in paths}
cpu = {name: [] for name in paths}
for round_ in range(int(rounds)):
    for name, args in paths.items():
        save = os.path.join(out, name)
        shutil.rmtree(save, ignore_errors=True)
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        start = time.monotonic()
        subprocess.run([binary, *args, "-s", save, "--barcode_kits", kit, "-t", threads, "--quiet"], check=True)
        wall[name].append(time.monotonic() - start)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        cpu[name].append(after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)
print(f"{'input/output':<14}{'median s':>10}{'min s':>8}{'max s':>8}{'cpu s':>8}   (kit {kit}, {threads} threads, "
      f"{rounds} rounds, alternating)")
for name in paths:
    print(f"{name:<14}{statistics.median(wall[name]):>10.2f}{min(wall[name]):>8.2f}{max(wall[name]):>8.2f}"
          f"{statistics.median(cpu[name]):>8.2f}")
ratios = [b / f for b, f in zip(wall["bam"], wall["fastq.gz"])]
print(f"bam / fastq.gz wall time: median {statistics.median(wall['bam']) / statistics.median(wall['fastq.gz']):.3f}, "
      f"per round {' '.join(f'{r:.3f}' for r in ratios)}")
PY
