#!/usr/bin/env python3
"""Figures of watching and of the report page.

watch:  a writer adds FILES input files over MINUTES minutes to a watched
        folder (every other one renamed into place, the rest appended to in
        pieces); the barcoder watches it with --watch --resume on one thread.
        Prints the peak resident memory of the barcoder and checks that every
        read was written once.
report: a 96-barcode run of READS reads; prints the size of
        barcoding_report.html and how long the pages took to write.

Usage: watch_and_report.py BUILD [--minutes 30] [--files 200] [--reads-per-file 4000] [--report-reads 1000000]
Standard library only; simulated reads come from tools/simulate_reads.py.
"""

import argparse
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)


def simulate(path, kit, reads, seed):
    subprocess.run([sys.executable, os.path.join(SOURCE, "tools", "simulate_reads.py"), "-o", path, "--kit", kit,
                    "-n", str(reads), "--seed", str(seed)], check=True, capture_output=True)
    with open(path) as handle:
        return handle.read().split("\n")[:-1]


def renamed(lines, prefix):
    """The records with read ids made unique for one file."""
    out = list(lines)
    for i in range(0, len(out), 4):
        out[i] = "@" + prefix + out[i][1:]
    return "\n".join(out) + "\n"


def write_files(folder, lines, files, seconds):
    gap = seconds / files
    for k in range(files):
        start = time.monotonic()
        text = renamed(lines, f"f{k}_").encode()
        path = os.path.join(folder, f"reads_{k:04d}.fastq")
        if k % 2 == 0:
            with open(path + ".tmp", "wb") as handle:
                handle.write(text)
            os.rename(path + ".tmp", path)
        else:
            for piece in range(4):
                with open(path, "ab") as handle:
                    handle.write(text[piece * len(text) // 4:(piece + 1) * len(text) // 4])
                time.sleep(min(0.5, gap / 8))
        time.sleep(max(0.0, gap - (time.monotonic() - start)))


def watch_figure(binary, work, minutes, files, reads_per_file):
    lines = simulate(os.path.join(work, "watch_reads.fastq"), "VB-NB24", reads_per_file, 5)
    folder, save = os.path.join(work, "watched"), os.path.join(work, "watch_out")
    os.makedirs(folder)
    writer = threading.Thread(target=write_files, args=(folder, lines, files, minutes * 60.0))
    started = time.monotonic()
    writer.start()
    process = subprocess.Popen([binary, "-i", folder, "-s", save, "--barcode_kits", "VB-NB24", "-t", "1", "-z",
                                "--watch", "--watch_settle", "5", "--watch_timeout", "30", "--resume"])
    process.wait()
    writer.join()
    peak_mb = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss / 1024
    with open(os.path.join(save, "barcoding_summary.txt")) as handle:
        rows = sum(1 for _ in handle) - 1
    expected = files * (len(lines) // 4)
    print(f"watch: {files} files over {(time.monotonic() - started) / 60:.1f} min, {rows} of {expected} reads "
          f"written, exit status {process.returncode}, peak memory {peak_mb:.1f} MB (target < 100 MB)")
    return rows == expected and process.returncode == 0


def report_figure(binary, work, reads):
    folder, save = os.path.join(work, "report_in"), os.path.join(work, "report_out")
    os.makedirs(folder)
    simulate(os.path.join(folder, "reads.fastq"), "VB-NB96", reads, 6)
    subprocess.run([binary, "-i", folder, "-s", save, "--barcode_kits", "VB-NB96", "-z"], check=True)
    html = os.path.join(save, "barcoding_report.html")
    with open(os.path.join(save, "barcoding_summary.txt")) as handle:
        rows = sum(1 for _ in handle) - 1
    print(f"report: 96-barcode run of {rows} reads, barcoding_report.html {os.path.getsize(html) / 1024:.0f} kB "
          f"(target < 2048 kB)")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("--minutes", type=float, default=30)
    parser.add_argument("--files", type=int, default=200)
    parser.add_argument("--reads-per-file", type=int, default=4000)
    parser.add_argument("--report-reads", type=int, default=1000000)
    parser.add_argument("--skip", choices=["watch", "report"], default=None)
    args = parser.parse_args()
    binary = os.path.join(os.path.abspath(args.build), "bin", "vorpa_barcoder")
    work = tempfile.mkdtemp(prefix="vb_watch_bench_")
    try:
        ok = True
        if args.skip != "watch":
            ok = watch_figure(binary, work, args.minutes, args.files, args.reads_per_file)
        if args.skip != "report":
            report_figure(binary, work, args.report_reads)
        return 0 if ok else 1
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
