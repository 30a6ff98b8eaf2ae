#!/usr/bin/env python3
"""Whole-program throughput against zcat, as a user sees it.

Times the shipped binary beside `zcat` of the same gzip files, interleaved
(every repetition runs each command once, in turn), and prints medians with
their ratio to zcat, so that a busy machine slows both sides alike:

  1.5 kb reads zcat; a 24-barcode kit of 80-base references       (2 threads)
  2 kb reads   zcat; VB-NB24; VB-NB24 --compress_fastq; VB-NB96   (2 threads)
  10 kb reads  zcat; VB-NB24                                      (2 threads)
  memory       peak RSS for 20,000 and 1,000,000 short reads, with and
               without --compress_fastq: flat means bounded by the batches
               in flight, not by the input.

The 80-base kit is a user's kit as the README describes one: 24-base barcodes
between flanks of 28 bases, windows raised by the 38 bases longer references
(188). Its files are made here (fixed seed) next to its reads. At the end the
three figures the aligner is judged by are printed together.

The reads are simulated once (tools/simulate_reads.py, fixed seeds) into
<build>/bench_pipeline_data (beside, not inside, the bench_data folder that
bench_reads.sh empties when it simulates again) and kept until the simulator
or the kits change.

Usage: pipeline_bench.py <build dir> [--repeats N] [--threads T] [--baseline BIN]
  --baseline BIN  also time another vorpa_barcoder (e.g. an older build) on
                  the same runs and print its ratio.
"""

import argparse
import hashlib
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def data_key():
    digest = hashlib.sha1(b"l80-1")
    for path in [os.path.join(ROOT, "tools", "simulate_reads.py")] + sorted(
            os.path.join(ROOT, "data", "barcoding", name) for name in os.listdir(os.path.join(ROOT, "data", "barcoding"))):
        with open(path, "rb") as handle:
            digest.update(handle.read())
    return digest.hexdigest()[:12]


def simulate(folder, reads, median, seed, split, plain=False, kit="VB-NB24", kit_data=None):
    os.makedirs(folder, exist_ok=True)
    name = "reads.fastq" if plain else "reads.fastq.gz"
    extra = ["--data", kit_data] if kit_data else []
    subprocess.run([sys.executable, os.path.join(ROOT, "tools", "simulate_reads.py"), "-o", os.path.join(folder, name),
                    "--kit", kit, "-n", str(reads), "--seed", str(seed), "--split", str(split),
                    "--median-length", str(median), *extra], check=True, stdout=subprocess.DEVNULL)


LONG_KIT = "VB-L80"
LONG_WINDOW = "188"


def make_long_kit(folder):
    """A 24-barcode kit of 80-base references: the shipped barcodes' 24-base
    cores between two 28-base flanks of random sequence. Returns its
    arrangement file."""
    rng = random.Random(80)
    flank = lambda: "".join(rng.choice("ACGT") for _ in range(28))
    left, right = flank(), flank()
    cores = []
    with open(os.path.join(ROOT, "data", "barcoding", "vb_barcodes.fasta")) as handle:
        for line in handle:
            if not line.startswith(">") and len(cores) < 24:
                cores.append(line.strip()[10:34])
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "l80_barcodes.fasta"), "w") as out:
        for number, core in enumerate(cores, 1):
            out.write(f">L80_{number:02d}\n{left}{core}{right}\n")
    ini = os.path.join(folder, "l80.ini")
    with open(ini, "w") as out:
        out.write("[loading_options]\nbarcodes_filename = l80_barcodes.fasta\ndouble_barcodes_revcmpl = true\n"
                  "double_variants_frontrear = true\nappend_indicator_fwdbwd = true\n\n"
                  "[L80_barcode%02i]\nnormalised_id = barcode%02i\nkit = " + LONG_KIT + "\n"
                  "barcode1 = L80_%02i\nbarcode2 = L80_%02i\nscoring_function = MAX\n"
                  "compatible_kits = " + LONG_KIT + "\nfirst_index = 1\nlast_index = 24\n")
    return ini


def repeat_reads(source_folder, target, copies):
    """target: one plain FASTQ holding the source's reads `copies` times, each
    copy under its own read ids."""
    sources = sorted(os.path.join(source_folder, name) for name in os.listdir(source_folder)
                     if name.endswith(".fastq"))
    with open(target, "w") as out:
        for copy in range(copies):
            for source in sources:
                with open(source) as handle:
                    for number, line in enumerate(handle):
                        out.write(f"@k{copy}_{line[1:]}" if number % 4 == 0 else line)


def prepare(data):
    marker = os.path.join(data, ".complete-" + data_key())
    if os.path.exists(marker):
        return
    shutil.rmtree(data, ignore_errors=True)
    print(f"Simulating benchmark reads into {data} (once) ...", flush=True)
    kit = os.path.join(data, "kit80")
    make_long_kit(kit)
    simulate(os.path.join(data, "1.5kb_l80"), 20000, 1500, 6, 4, kit=LONG_KIT, kit_data=kit)
    simulate(os.path.join(data, "2kb"), 50000, 2000, 7, 10)
    simulate(os.path.join(data, "10kb"), 10000, 10000, 8, 4)
    simulate(os.path.join(data, "short_20k"), 20000, 300, 9, 1, plain=True)
    os.makedirs(os.path.join(data, "short_1m"))
    repeat_reads(os.path.join(data, "short_20k"), os.path.join(data, "short_1m", "reads.fastq"), 50)
    open(marker, "w").close()


GNU_TIME = "/usr/bin/time"


def run(command):
    """(wall seconds, cpu seconds, peak MiB) of one run, output discarded.
    The peak comes from GNU time when it is there: a child forked from this
    interpreter would otherwise report the interpreter's own pages."""
    peak_file = None
    if os.access(GNU_TIME, os.X_OK):
        handle, peak_file = tempfile.mkstemp(prefix="vb-peak-")
        os.close(handle)
        command = [GNU_TIME, "-f", "%M", "-o", peak_file] + command
    start = time.monotonic()
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic() - start
    err = process.stderr.read().decode(errors="replace")
    process.stderr.close()
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"command failed ({os.waitstatus_to_exitcode(status)}): {' '.join(command)}\n{err[-2000:]}")
    peak = usage.ru_maxrss / 1024
    if peak_file:
        with open(peak_file) as handle:
            peak = int(handle.read().split()[-1]) / 1024
        os.unlink(peak_file)
    return wall, usage.ru_utime + usage.ru_stime, peak


def files_of(folder):
    return sorted(os.path.join(folder, name) for name in os.listdir(folder) if ".fastq" in name)


def read_count(folder):
    truth = [name for name in os.listdir(folder) if name.endswith(".truth.tsv")]
    with open(os.path.join(folder, truth[0])) as handle:
        return sum(1 for _ in handle) - 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("--repeats", type=int, default=5)
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--baseline")
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    binary = os.path.join(build, "bin", "vorpa_barcoder")
    data = os.path.join(build, "bench_pipeline_data")
    prepare(data)
    out = tempfile.mkdtemp(prefix="vb-bench-")
    threads = str(args.threads)

    def barcoder(program, inputs, kit, *extra):
        save = os.path.join(out, "run")
        return lambda: (shutil.rmtree(save, ignore_errors=True),
                        run([program, "-i", inputs, "-s", save, "--barcode_kits", kit, "-t", threads, "-z",
                             *extra]))[1]

    def zcat(inputs):
        return lambda: run(["zcat"] + files_of(inputs))

    groups = []
    long_kit = ("--arrangements_files", os.path.join(data, "kit80", "l80.ini"), "--front_window_size", LONG_WINDOW,
                "--rear_window_size", LONG_WINDOW)
    inputs = os.path.join(data, "1.5kb_l80")
    runs = [("zcat", zcat(inputs)), (LONG_KIT, barcoder(binary, inputs, LONG_KIT, *long_kit))]
    if args.baseline:
        runs += [("baseline " + LONG_KIT, barcoder(args.baseline, inputs, LONG_KIT, *long_kit))]
    groups.append(("1.5 kb reads, 24 barcodes of 80-base references", inputs, runs))
    for label, folder in (("2 kb reads", "2kb"), ("10 kb reads", "10kb")):
        inputs = os.path.join(data, folder)
        runs = [("zcat", zcat(inputs)), ("VB-NB24", barcoder(binary, inputs, "VB-NB24"))]
        if folder == "2kb":
            runs += [("VB-NB24 --compress_fastq", barcoder(binary, inputs, "VB-NB24", "--compress_fastq")),
                     ("VB-NB96", barcoder(binary, inputs, "VB-NB96"))]
        if args.baseline:
            runs += [("baseline VB-NB24", barcoder(args.baseline, inputs, "VB-NB24"))]
            if folder == "2kb":
                runs += [("baseline VB-NB96", barcoder(args.baseline, inputs, "VB-NB96"))]
        groups.append((label, inputs, runs))

    ratios = {}
    try:
        for label, inputs, runs in groups:
            reads = read_count(inputs)
            figures = {name: [] for name, _ in runs}
            for _ in range(args.repeats):
                for name, command in runs:
                    figures[name].append(command())
            zcat_wall = statistics.median(f[0] for f in figures["zcat"])
            print(f"\n{label}: {reads} reads, {threads} threads, medians of {args.repeats} interleaved runs")
            print(f"  {'run':28s} {'wall s':>8s} {'cpu s':>8s} {'reads/s':>9s} {'peak MiB':>9s} {'x zcat':>7s}")
            for name, values in figures.items():
                wall = statistics.median(v[0] for v in values)
                cpu = statistics.median(v[1] for v in values)
                peak = max(v[2] for v in values)
                print(f"  {name:28s} {wall:8.2f} {cpu:8.2f} {reads / wall:9.0f} {peak:9.1f} {wall / zcat_wall:7.2f}")
                ratios[(label, name)] = wall / zcat_wall

        print(f"\nThe aligner's targets (x zcat, {threads} threads, gzip input, medians of interleaved runs):")
        for label, name, target in (("1.5 kb reads, 24 barcodes of 80-base references", LONG_KIT, 1.0),
                                    ("2 kb reads", "VB-NB96", 1.0), ("2 kb reads", "VB-NB24", 0.6)):
            figure = ratios[(label, name)]
            print(f"  {name:8s} {label.split(',')[0]:13s} {figure:5.2f}  (target <= {target:.1f}: "
                  f"{'met' if figure <= target else 'not met'})")

        print(f"\nPeak memory ({threads} threads, VB-NB24, ~300-base reads): should not grow with the input")
        print(f"  {'input':12s} {'plain MiB':>10s} {'--compress_fastq MiB':>21s}")
        for label, folder in (("20k reads", "short_20k"), ("1M reads", "short_1m")):
            inputs = os.path.join(data, folder)
            plain = barcoder(binary, inputs, "VB-NB24")()[2]
            packed = barcoder(binary, inputs, "VB-NB24", "--compress_fastq")()[2]
            print(f"  {label:12s} {plain:10.1f} {packed:21.1f}")
    finally:
        shutil.rmtree(out, ignore_errors=True)


if __name__ == "__main__":
    main()
