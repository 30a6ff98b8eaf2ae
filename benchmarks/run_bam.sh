#!/usr/bin/env bash
# BAM against FASTQ: the whole program on the end-to-end benchmark's reads,
# once as gzip FASTQ in and gzip FASTQ out (--compress_fastq), once as
# unaligned BAM in and BAM out (--output_format bam), each with and without
# --trim_barcodes. The BAM copy is made once the way basecallers write
# unaligned BAM: one read group per run with the run id in its description
# (DS:runid=...), the title's other fields as tags, and base modifications
# (MM/ML: 5-methylcytosine on about one C in five, 6-methyladenine on about
# one A in twenty), which trimming rewrites for every read. Runs alternate
# between the paths, so that a busy machine slows them alike; the medians and
# the BAM/FASTQ ratios are printed.
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

if [ ! -f "$data/bam/.complete-rg-mods" ]; then
  rm -rf "$data/bam"
  mkdir -p "$data/bam"
  echo "Converting the reads to unaligned BAM in $data/bam ..."
  for fastq in "$data"/reads/*.fastq.gz; do
    name=$(basename "$fastq" .fastq.gz)
    python3 - "$fastq" <<'PY' | samtools view -b -o "$data/bam/$name.bam" -
import gzip, random, sys
# "@id runid=R sampleid=S read=N ch=C start_time=T": R names the read group,
# the other fields become tags.
names = {"read": "xn:i:", "ch": "xc:i:", "start_time": "xs:Z:"}
rng = random.Random(sys.argv[1])

def modifications(seq):
    lists, ml = [], []
    for head, base, rate in (("C+m?", "C", 0.2), ("A+a.", "A", 0.05)):
        entry, skip = head, 0
        for b in seq:
            if b != base:
                continue
            if rng.random() < rate:
                entry += f",{skip}"
                ml.append(str(rng.randrange(256)))
                skip = 0
            else:
                skip += 1
        lists.append(entry + ";")
    return "MM:Z:" + "".join(lists), "ML:B:C," + ",".join(ml) if ml else None

with gzip.open(sys.argv[1], "rt") as src:
    lines = src.read().split("\n")
records, runs = [], []
for k in range(0, len(lines) - 3, 4):
    head, *fields = lines[k][1:].split(" ")
    values = dict(f.split("=", 1) for f in fields)
    if values["runid"] not in runs:
        runs.append(values["runid"])
    seq = lines[k + 1]
    tags = [names[key] + value for key, value in values.items() if key in names]
    tags.append("RG:Z:" + values["runid"])
    tags += [t for t in modifications(seq) if t]
    records.append("\t".join([head, "4", "*", "0", "0", "*", "*", "0", "0", seq, lines[k + 3]] + tags))
print("@HD\tVN:1.6\tSO:unsorted")
for run in runs:
    print(f"@RG\tID:{run}\tPU:FLOWCELL\tDS:basecall_model=sim runid={run}")
print("\n".join(records))
PY
  done
  touch "$data/bam/.complete-rg-mods"
fi

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
python3 - "$binary" "$data" "$out" "$rounds" "$threads" "$kit" <<'PY'
import os, resource, shutil, statistics, subprocess, sys, time
binary, data, out, rounds, threads, kit = sys.argv[1:7]
fastq = ["-i", os.path.join(data, "reads"), "--compress_fastq"]
bam = ["-i", os.path.join(data, "bam"), "--output_format", "bam"]
paths = {"fastq.gz": fastq, "bam": bam, "fastq.gz trim": fastq + ["--trim_barcodes"], "bam trim": bam + ["--trim_barcodes"]}
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
    if round_ == 0:
        # The run id found in the read groups names the same files as the titles.
        files = {name: sorted(os.path.join(os.path.relpath(d, os.path.join(out, name)), f.split("_runid_")[1].split(".")[0])
                              for d, _, names in os.walk(os.path.join(out, name)) for f in names if "_runid_" in f)
                 for name in paths}
        if files["bam"] != files["fastq.gz"] or not files["bam"]:
            sys.exit(f"BAM and FASTQ output files differ: {files['bam'][:5]} against {files['fastq.gz'][:5]}")
print(f"{'input/output':<16}{'median s':>10}{'min s':>8}{'max s':>8}{'cpu s':>8}   (kit {kit}, {threads} threads, "
      f"{rounds} rounds, alternating)")
for name in paths:
    print(f"{name:<16}{statistics.median(wall[name]):>10.2f}{min(wall[name]):>8.2f}{max(wall[name]):>8.2f}"
          f"{statistics.median(cpu[name]):>8.2f}")
for suffix in ("", " trim"):
    b, f = wall["bam" + suffix], wall["fastq.gz" + suffix]
    ratios = [x / y for x, y in zip(b, f)]
    print(f"bam{suffix} / fastq.gz{suffix} wall time: median {statistics.median(b) / statistics.median(f):.3f}, "
          f"per round {' '.join(f'{r:.3f}' for r in ratios)}; cpu time: median "
          f"{statistics.median(cpu['bam' + suffix]) / statistics.median(cpu['fastq.gz' + suffix]):.3f}")
PY
