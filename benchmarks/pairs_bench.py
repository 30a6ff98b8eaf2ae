#!/usr/bin/env python3
"""Figures of pairs of a front and a rear barcode, and of the cross-talk estimate.

accuracy:   pair kits of our own design (12 x 8 and 24 x 24, a seed no test
            uses), a sheet listing all pairs but one in twelve, simulated reads
            at identities 0.87, 0.92 and 0.97 with both error models (pbsim's
            when installed). Prints the precision of sample calls (a call is
            right when the read carries that pair), the recall of reads
            carrying a listed pair, and the share of reads of unlisted pairs
            left unclassified as "pair not in sample sheet".
cross-talk: the same kits, no reads of unlisted pairs simulated; chimeras
            (the rear barcode of another molecule) are the misassignment.
            Prints the estimate with its interval next to the true number of
            reads called to a sample they do not belong to.
scale:      a 96 x 96 kit with all 9,216 pairs listed against the same reads
            with the kit's 192 barcodes as plain arrangements: wall time
            (median of interleaved runs), peak memory, user and system CPU
            time and the output folders written of each; at the simulated
            depth (about two reads per sample) and again on those reads
            --deep-copies times over (about twenty per sample), where the
            folder and file of each sample are paid for once for many reads.

Usage: pairs_bench.py BUILD [--reads 4000] [--scale-reads 20000] [--rounds 3] [--deep-copies 10]
                      [--only accuracy,cross-talk,scale]
Standard library only; reads come from tools/simulate_reads.py, kits from
tools/design_kit.py --pairs.
"""

import argparse
import json
import os
import random
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
TOOLS = os.path.join(SOURCE, "tools")
SEED = 424242  # kit designs no test has seen


def design(folder, fronts, rears, seed=SEED):
    kit = f"PAIR{fronts}X{rears}"
    subprocess.run([sys.executable, os.path.join(TOOLS, "design_kit.py"), "--pairs", folder, "--pair-kit", kit,
                    "--pair-size", f"{fronts}x{rears}", "--seed", str(seed)], check=True, capture_output=True)
    return kit


def write_sheet(path, fronts, rears, skip_every=12, seed=SEED):
    """All pairs but one in skip_every (drawn at random); returns the listed pairs."""
    cells = [(f, r) for f in range(1, fronts + 1) for r in range(1, rears + 1)]
    rng = random.Random(seed)
    dropped = set(rng.sample(cells, len(cells) // skip_every)) if skip_every else set()
    listed = [c for c in cells if c not in dropped]
    with open(path, "w") as handle:
        handle.write("front\trear\tsample\n")
        for f, r in listed:
            handle.write(f"F{f:02d}\tR{r:02d}\tS{f:02d}_{r:02d}\n")
    return listed


def simulate(folder, kit, data, sheet, reads, seed, identity, model, extra=()):
    os.makedirs(os.path.join(folder, "in"), exist_ok=True)
    truth = os.path.join(folder, "truth.tsv")
    cmd = [sys.executable, os.path.join(TOOLS, "simulate_reads.py"), "-o", os.path.join(folder, "in", "reads.fastq"),
           "--truth", truth, "--kit", kit, "--data", data, "--sample-sheet", sheet, "-n", str(reads), "--seed",
           str(seed), "--identity", str(identity), "--error-model", model, *extra]
    subprocess.run(cmd, check=True, capture_output=True)
    return truth


def run(binary, data, kit, inputs, save, sheet=None, threads=2):
    shutil.rmtree(save, ignore_errors=True)
    cmd = [binary, "-c", os.path.join(data, "configuration.cfg"), "-d", data, "--barcode_kits", kit, "-i", inputs,
           "-s", save, "-t", str(threads), "--unclassified_reason_column"]
    if sheet:
        cmd += ["--sample_sheet", sheet]
    start = time.monotonic()
    subprocess.run(cmd, check=True, capture_output=True)
    return time.monotonic() - start


def read_table(path):
    with open(path) as handle:
        columns = handle.readline().rstrip("\n").split("\t")
        for line in handle:
            yield dict(zip(columns, line.rstrip("\n").split("\t")))


def score(truth_path, save):
    truth = {row["read_id"]: row for row in read_table(truth_path)}
    right = wrong = carrying = found = unlisted = unlisted_ok = foreign = 0
    for row in read_table(os.path.join(save, "barcoding_summary.txt")):
        t = truth[row["read_id"]]
        called = row["barcode_arrangement"]
        if called != "unclassified":
            if called == f"{t['front']}_{t['rear']}":
                right += 1
            else:
                wrong += 1
            foreign += row["sample"] != t["sample"]
        if t["kind"] == "pair":
            carrying += 1
            found += called == f"{t['front']}_{t['rear']}"
        if t["kind"] == "unlisted":
            unlisted += 1
            unlisted_ok += row["barcode_unclassified_reason"] == "pair not in sample sheet"
    return {"precision": right / max(1, right + wrong), "wrong": wrong, "called": right + wrong,
            "recall": found / max(1, carrying), "carrying": carrying,
            "unlisted": unlisted_ok / max(1, unlisted), "unlisted_reads": unlisted, "foreign": foreign}


def models():
    have_pbsim = shutil.which("pbsim") and os.path.exists("/usr/share/pbsim/models/model_qc_clr")
    return ["builtin", "pbsim"] if have_pbsim else ["builtin"]


def accuracy(binary, work, kits, reads):
    print("design  model    identity  precision (wrong/called)   recall (of reads with both)   "
          "unlisted pairs unclassified")
    unlisted = unlisted_ok = 0
    for (fronts, rears), (kit, data, sheet) in kits.items():
        for model in models():
            for k, identity in enumerate((0.87, 0.92, 0.97)):
                folder = os.path.join(work, f"acc_{fronts}x{rears}_{model}_{identity}")
                truth = simulate(folder, kit, data, sheet, reads, 100 + k, identity, model,
                                 ["--frac-unlisted", "0.1", "--median-length", "800"])
                run(binary, data, kit, os.path.join(folder, "in"), os.path.join(folder, "out"), sheet)
                s = score(truth, os.path.join(folder, "out"))
                print(f"{fronts}x{rears:<5} {model:8} {identity:<9} {100 * s['precision']:8.3f}% ({s['wrong']}/"
                      f"{s['called']}){'':6} {100 * s['recall']:8.3f}% ({s['carrying']} reads){'':8} "
                      f"{100 * s['unlisted']:8.3f}% ({s['unlisted_reads']} reads)", flush=True)
                unlisted += s["unlisted_reads"]
                unlisted_ok += round(s["unlisted"] * s["unlisted_reads"])
                shutil.rmtree(folder)
    # One read moves a row's share by 0.1-0.3 %: the rows together say more.
    print(f"all rows: reads of unlisted pairs unclassified as 'pair not in sample sheet' "
          f"{100 * unlisted_ok / max(1, unlisted):.3f}% ({unlisted_ok} of {unlisted})", flush=True)


def cross_talk(binary, work, kits, reads):
    print("design  model    identity  estimated foreign reads (95% interval)   true foreign reads   within 2x  covered")
    for (fronts, rears), (kit, data, sheet) in kits.items():
        for model in models():
            for k, identity in enumerate((0.87, 0.92, 0.97)):
                folder = os.path.join(work, f"ct_{fronts}x{rears}_{model}_{identity}")
                truth = simulate(folder, kit, data, sheet, reads, 200 + k, identity, model,
                                 ["--frac-unlisted", "0", "--frac-chimera", "0.03", "--median-length", "800"])
                save = os.path.join(folder, "out")
                run(binary, data, kit, os.path.join(folder, "in"), save, sheet)
                s = score(truth, save)
                with open(os.path.join(save, "barcoding_report.json")) as handle:
                    estimate = json.load(handle)["cross_talk"]
                if not estimate["measurable"]:
                    print(f"{fronts}x{rears:<5} {model:8} {identity:<9} not measurable: {estimate['reason']}")
                    continue
                figure = estimate["run"]
                low, high = figure["low"] * figure["reads"], figure["high"] * figure["reads"]
                est, true = figure["foreign_reads"], s["foreign"]
                within = true < 20 or true / 2 <= est <= 2 * true
                print(f"{fronts}x{rears:<5} {model:8} {identity:<9} {est:9.1f} ({low:.0f}-{high:.0f}){'':20} "
                      f"{true:8d}{'':12} {'yes' if within else 'NO':9}  {'yes' if low <= true <= high else 'NO'}",
                      flush=True)
                shutil.rmtree(folder)


def peak_memory_of(cmd):
    """Wall seconds, peak resident memory (MB), user and system CPU seconds of one command."""
    code = ("import resource, subprocess, sys, time; s = time.monotonic(); "
            "subprocess.run(sys.argv[1:], check=True, capture_output=True); w = time.monotonic() - s; "
            "u = resource.getrusage(resource.RUSAGE_CHILDREN); "
            "print(w, u.ru_maxrss / 1024, u.ru_utime, u.ru_stime)")
    out = subprocess.run([sys.executable, "-c", code, *cmd], check=True, capture_output=True, text=True).stdout
    return tuple(float(x) for x in out.split())


def deepen(source, target, copies):
    """The reads of source copies times over, each copy's read ids given a suffix."""
    os.makedirs(target, exist_ok=True)
    with open(os.path.join(source, "reads.fastq")) as handle:
        lines = handle.readlines()
    with open(os.path.join(target, "reads.fastq"), "w") as out:
        for copy in range(copies):
            for k, line in enumerate(lines):
                if k % 4 == 0:
                    name, _, rest = line.partition(" ")
                    line = f"{name.rstrip(chr(10))}-{copy}" + (" " + rest if rest else "\n")
                out.write(line)


def scale(binary, work, reads, rounds, copies):
    data = os.path.join(work, "kit96x96")
    kit = design(data, 96, 96)
    sheet = os.path.join(work, "sheet96x96.tsv")
    write_sheet(sheet, 96, 96, skip_every=0)
    folder = os.path.join(work, "scale")
    simulate(folder, kit, data, sheet, reads, 300, 0.92, "builtin", ["--frac-unlisted", "0", "--median-length", "800"])
    # Every run writes a new folder, all removed after the last run: removing
    # thousands of folders just before a run that creates thousands makes
    # some file systems (ext4 without a journal skips recently freed inodes
    # one by one) charge the run seconds of system time for the benchmark's
    # own cleanup.
    saves = []
    compare(binary, data, kit, sheet, folder, os.path.join(folder, "in"), rounds,
            f"{reads} reads, ~{reads / 9216:.1f} per sample", saves)
    if copies > 1:
        # A lab's run puts thousands of reads on each sample, not two: the
        # folder and file of each sample are then paid once for many reads.
        deep = os.path.join(folder, "deep")
        deepen(os.path.join(folder, "in"), deep, copies)
        compare(binary, data, kit, sheet, folder, deep, rounds,
                f"{reads * copies} reads (the {reads} {copies} times, new read ids), ~{reads * copies / 9216:.1f} "
                f"per sample", saves)
        shutil.rmtree(deep)
    for save in saves:
        shutil.rmtree(save)


def compare(binary, data, kit, sheet, folder, inputs, rounds, title, saves):
    """Interleaved runs of the plain and the pairs configuration; each run's new output folder is added to saves."""
    print(f"   {title}:", flush=True)
    base = [binary, "-c", os.path.join(data, "configuration.cfg"), "-d", data, "--barcode_kits", kit, "-i", inputs,
            "-t", "2"]
    runs = {"plain arrangements": [], "9,216 listed pairs": []}
    memory = {name: 0.0 for name in runs}
    cpu = {name: [] for name in runs}
    folders = {}
    for _ in range(rounds):
        for name in runs:
            save = os.path.join(folder, f"out{len(saves)}")
            shutil.rmtree(save, ignore_errors=True)
            saves.append(save)
            extra = ["--sample_sheet", sheet] if "pairs" in name else []
            wall, mb, user, system = peak_memory_of(base + ["-s", save] + extra)
            runs[name].append(wall)
            memory[name] = max(memory[name], mb)
            cpu[name].append((user, system))
            folders[name] = sum(entry.is_dir() for entry in os.scandir(save))
    # The scoring is the same work either way; the pairs run also creates a
    # folder and a file for every sample that gets a read (at this depth,
    # most of them for a read or two) and reports 9,216 samples: the system
    # CPU time and the folder count show that part.
    plain = statistics.median(runs["plain arrangements"])
    for name, walls in runs.items():
        median = statistics.median(walls)
        user = statistics.median(u for u, _ in cpu[name])
        system = statistics.median(s for _, s in cpu[name])
        print(f"{name:20} wall {median:7.2f} s (median of {rounds}, {median / plain:.3f}x plain)  "
              f"peak memory {memory[name]:6.1f} MB  CPU user {user:.2f} s, system {system:.2f} s  "
              f"{folders[name]} output folders", flush=True)


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("build")
    ap.add_argument("--reads", type=int, default=4000)
    ap.add_argument("--scale-reads", type=int, default=20000)
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--deep-copies", type=int, default=10, help="the scale row again on its reads this many times")
    ap.add_argument("--only", default="accuracy,cross-talk,scale")
    args = ap.parse_args(argv)
    binary = os.path.abspath(os.path.join(args.build, "bin", "vorpa_barcoder"))
    parts = args.only.split(",")
    with tempfile.TemporaryDirectory(prefix="vb-pairs-") as work:
        kits = {}
        if "accuracy" in parts or "cross-talk" in parts:
            for fronts, rears in ((12, 8), (24, 24)):
                data = os.path.join(work, f"kit{fronts}x{rears}")
                kit = design(data, fronts, rears)
                sheet = os.path.join(work, f"sheet{fronts}x{rears}.tsv")
                write_sheet(sheet, fronts, rears)
                kits[(fronts, rears)] = (kit, data, sheet)
        if "accuracy" in parts:
            print(f"-- pairs: accuracy ({args.reads} reads per row, one listed pair in twelve left out of the sheet)")
            accuracy(binary, work, kits, args.reads)
        if "cross-talk" in parts:
            print(f"-- pairs: cross-talk estimate ({args.reads} reads per row, 3% chimeras)")
            cross_talk(binary, work, kits, args.reads)
        if "scale" in parts:
            print(f"-- pairs: 96 x 96 kit, {args.scale_reads} reads")
            scale(binary, work, args.scale_reads, args.rounds, args.deep_copies)


if __name__ == "__main__":
    main()
