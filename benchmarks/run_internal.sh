#!/usr/bin/env bash
# What --internal_barcodes costs: the whole program on gzip FASTQ reads of
# about 2 kb and 10 kb (the simulator's usual mix, 1 % of them concatemers),
# for VB-NB24 and VB-NB96, with ignore, reject and split. Runs alternate
# between the three modes, so that a busy machine slows them alike; the
# medians and their ratios to ignore are printed. Each run reads its set
# several times (links to the one file), so that a run lasts a few seconds:
# runs of a fraction of a second gave ratios that moved by 0.1-0.2 from one
# call to the next.
# Usage: benchmarks/run_internal.sh <build dir>
#   VB_BENCH_ROUNDS (default 3), VB_BENCH_THREADS (default 2),
#   VB_BENCH_INTERNAL_BASES (bases per simulated set, default 20 million),
#   VB_BENCH_INTERNAL_REPEAT (times each run reads its set, default 10)
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
cd "$(dirname "$0")/.."
binary="$build/bin/vorpa_barcoder"
rounds=${VB_BENCH_ROUNDS:-3}
threads=${VB_BENCH_THREADS:-2}
bases=${VB_BENCH_INTERNAL_BASES:-20000000}
repeat=${VB_BENCH_INTERNAL_REPEAT:-10}
data="$build/bench_internal"
key=$(cat tools/simulate_reads.py data/barcoding/* | cksum | cut -d' ' -f1)-$bases

for kit in VB-NB24 VB-NB96; do
  for length in 2000 10000; do
    folder="$data/$kit-$length"
    if [ ! -f "$folder/.complete-$key" ]; then
      rm -rf "$folder"
      mkdir -p "$folder/reads"
      echo "Simulating $((bases / length)) reads of about $length bases ($kit) into $folder ..."
      python3 tools/simulate_reads.py -o "$folder/reads/reads.fastq.gz" --truth "$folder/truth.tsv" --kit "$kit" \
        -n $((bases / length)) --seed 18 --median-length "$length" --length-sigma 0.1 --frac-concatemer 0.01
      touch "$folder/.complete-$key"
    fi
  done
done

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for kit in VB-NB24 VB-NB96; do
  for length in 2000 10000; do
    mkdir -p "$out/in/$kit-$length/reads"
    for i in $(seq "$repeat"); do
      ln -s "$data/$kit-$length/reads/reads.fastq.gz" "$out/in/$kit-$length/reads/reads-$i.fastq.gz"
    done
  done
done
echo "Each run reads its set $repeat times ($((bases * repeat / 1000000)) million bases)"
python3 - "$binary" "$out/in" "$out" "$rounds" "$threads" <<'PY'
import os, shutil, statistics, subprocess, sys, time
binary, data, out, rounds, threads = sys.argv[1:6]
modes = ("ignore", "reject", "split")
print(f"{'kit':<9}{'read':>7}" + "".join(f"{m + ' s':>10}" for m in modes) + f"{'reject/ign':>12}{'split/ign':>11}"
      f"   (gzip in, {threads} threads, {rounds} rounds, alternating; medians)")
for kit in ("VB-NB24", "VB-NB96"):
    for length in ("2000", "10000"):
        inputs = os.path.join(data, f"{kit}-{length}", "reads")
        wall = {m: [] for m in modes}
        for _ in range(int(rounds)):
            for mode in modes:
                save = os.path.join(out, mode)
                shutil.rmtree(save, ignore_errors=True)
                start = time.monotonic()
                subprocess.run([binary, "-i", inputs, "-s", save, "--barcode_kits", kit, "-t", threads, "--quiet",
                                "--internal_barcodes", mode], check=True, stdout=subprocess.DEVNULL)
                wall[mode].append(time.monotonic() - start)
        med = {m: statistics.median(wall[m]) for m in modes}
        print(f"{kit:<9}{length:>7}" + "".join(f"{med[m]:>10.2f}" for m in modes) +
              f"{med['reject'] / med['ignore']:>12.3f}{med['split'] / med['ignore']:>11.3f}", flush=True)
PY
