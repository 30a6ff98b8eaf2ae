#!/usr/bin/env python3
"""Figures of --internal_barcodes on simulated reads with their truth.

Per kit design, error model and identity, two read sets are simulated once
and kept: reads of two or three molecules (tools/simulate_reads.py
--frac-concatemer 1, molecules of the same or of other arrangements) and
single-molecule reads (the simulator's usual mix of double, front-only,
unbarcoded and chimeric reads). The program runs on both in reject mode and
in split mode with --trim_barcodes; the trimmed parts are then run again in
reject mode to find construct bases left in them. Printed per design and in
a worst-design table:

  reject caught   concatemers left unclassified by reject
  singles hit     single-molecule reads with an internal construct (rejected)
  split recall    molecules of concatemers that come out as a part called with
                  their own barcode (parts and molecules matched in read order)
  part precision  classified parts called with a barcode of their molecule
  parts left      trimmed parts still holding a construct (inside or at an end)
  singles split   single-molecule reads cut into parts

Usage:
  tools/internal_figures.py [--program build/bin/vorpa_barcoder] [--work /tmp/vb_internal]
                            [--designs shipped|corners|family] [--reads 300]
"""

import argparse
import collections
import csv
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, HERE)
import design_kit  # noqa: E402
import simulate_reads  # noqa: E402

SHIPPED = [("VB-NB24", "VB-NB24", True), ("VB-NB96", "VB-NB96", True), ("VB-RB12", "VB-RB12", False)]


def designs(which, work):
    """(name, kit, data folder, double-ended)."""
    shipped = os.path.join(ROOT, "data", "barcoding")
    if which == "shipped":
        return [(name, kit, shipped, double) for name, kit, double in SHIPPED]
    if which == "corners":
        chosen = list(design_kit.family_designs(flanks=(0, 40), lengths=(16, 40), counts=(96,)))
    else:
        chosen = list(design_kit.family_designs())
    out = os.path.join(work, "family")
    if not all(os.path.exists(os.path.join(out, d[0], "configuration.cfg")) for d in chosen):
        design_kit.write_family(out, designs=chosen)
    return [(d[0], d[1], os.path.join(out, d[0]), d[5] == "double") for d in chosen]


def simulate(folder, kit, data, model, identity, reads, seed, concatemers):
    truth = folder + ".truth.tsv"
    if os.path.exists(truth):
        return truth
    os.makedirs(folder, exist_ok=True)
    args = ["-o", os.path.join(folder, "reads.fastq"), "--truth", truth + ".part", "--kit", kit, "-n", str(reads),
            "--seed", str(seed), "--identity", str(identity), "--median-length", "1000", "--data", data,
            "--error-model", model]
    if concatemers:
        args += ["--frac-double", "0", "--frac-front", "0", "--frac-none", "0", "--frac-chimera", "0",
                 "--frac-concatemer", "1"]
    else:
        args += ["--frac-concatemer", "0.0000001"]  # the molecules column, no concatemer in practice
    simulate_reads.main(args)
    os.replace(truth + ".part", truth)
    return truth


def read_truth(path):
    rows = {}
    with open(path) as handle:
        for row in csv.DictReader(handle, delimiter="\t"):
            molecules = [] if row["molecules"] == "-" else [m[:-1] for m in row["molecules"].split(",")]
            rows[row["read_id"]] = (row["kind"], molecules)
    return rows


def run(program, inputs, save, kit, data, threads, *extra):
    subprocess.run([program, "-i", inputs, "-s", save, "--barcode_kits", kit, "-d", data, "-t", str(threads),
                    "--quiet", "--unclassified_reason_column", "--internal_count_column", *extra],
                   check=True, stdout=subprocess.DEVNULL)
    with open(os.path.join(save, "barcoding_summary.txt")) as handle:
        return {row["read_id"]: row for row in csv.DictReader(handle, delimiter="\t")}


def lcs(a, b):
    table = [[0] * (len(b) + 1) for _ in range(len(a) + 1)]
    for i, x in enumerate(a):
        for j, y in enumerate(b):
            table[i + 1][j + 1] = table[i][j] + 1 if x == y else max(table[i][j + 1], table[i + 1][j])
    return table[-1][-1]


def parts_of(rows):
    """parent read id -> its parts' arrangements in read order."""
    parts = collections.defaultdict(dict)
    for rid, row in rows.items():
        head, _, k = rid.rpartition("_")
        if head and k.isdigit():
            parts[head][int(k)] = row["barcode_arrangement"]
    return {parent: [calls[k] for k in sorted(calls)] for parent, calls in parts.items()}


def measure(args, name, kit, data, double, model, identity):
    base = os.path.join(args.work, "reads", name, model, str(identity))
    figures = collections.Counter()
    for concatemers in (True, False):
        folder = base + ("/concatemers" if concatemers else "/singles")
        truth = read_truth(simulate(folder, kit, data, model, identity, args.reads, args.seed, concatemers))
        out = base + ("/out_concatemers" if concatemers else "/out_singles")
        subprocess.run(["rm", "-rf", out])
        rejected = run(args.program, folder, out + "/reject", kit, data, args.threads, "--internal_barcodes", "reject")
        split = run(args.program, folder, out + "/split", kit, data, args.threads, "--internal_barcodes", "split",
                    "--trim_barcodes")
        parts = parts_of(split)
        if concatemers:
            figures["concatemers"] += len(truth)
            figures["caught"] += sum(1 for rid in truth if rejected[rid]["barcode_arrangement"] == "unclassified")
            for rid, (_, molecules) in truth.items():
                calls = parts.get(rid, [split[rid]["barcode_arrangement"]] if rid in split else [])
                figures["molecules"] += len(molecules)
                matched = lcs(molecules, calls)
                figures["recovered"] += matched
                figures["parts_classified"] += sum(1 for c in calls if c != "unclassified")
                figures["parts_right"] += matched
            # Trimmed parts searched again: a construct left inside or at an end.
            again = run(args.program, out + "/split", out + "/again", kit, data, args.threads, "--internal_barcodes",
                        "reject", "-r")
            part_ids = [rid for rid in again if rid.rpartition("_")[0] in parts]
            figures["parts"] += len(part_ids)
            figures["parts_left"] += sum(1 for rid in part_ids
                                         if again[rid]["barcode_internal_count"] != "0" or
                                         float(again[rid]["barcode_score"] or 0) >= 30 and
                                         again[rid]["barcode_arrangement"] != "unclassified")
        else:
            figures["singles"] += len(truth)
            figures["singles_hit"] += sum(1 for row in rejected.values() if row["barcode_internal_count"] != "0")
            figures["singles_split"] += len(parts)
    return figures


def pct(num, den):
    return f"{100.0 * num / den:.2f}" if den else "-"


METRICS = [("reject caught %", "caught", "concatemers", min), ("singles hit %", "singles_hit", "singles", max),
           ("split recall %", "recovered", "molecules", min),
           ("part precision %", "parts_right", "parts_classified", min),
           ("parts left %", "parts_left", "parts", max), ("singles split %", "singles_split", "singles", max)]


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--program", default=os.path.join(ROOT, "build", "bin", "vorpa_barcoder"))
    ap.add_argument("--work", default="/tmp/vb_internal")
    ap.add_argument("--designs", choices=["shipped", "corners", "family"], default="shipped")
    ap.add_argument("--reads", type=int, default=300, help="reads per set (concatemers, singles)")
    ap.add_argument("--seed", type=int, default=1801)
    ap.add_argument("--identities", type=float, nargs="+", default=[0.87, 0.92, 0.97])
    ap.add_argument("--models", nargs="+", default=["builtin", "pbsim"])
    ap.add_argument("--threads", type=int, default=2)
    args = ap.parse_args(argv)
    worst = {}
    print("| design | model | identity | " + " | ".join(m[0] for m in METRICS) + " |")
    print("|---|---|---|" + "---|" * len(METRICS))
    for name, kit, data, double in designs(args.designs, args.work):
        for model in args.models:
            for identity in args.identities:
                f = measure(args, name, kit, data, double, model, identity)
                cells = []
                for label, num, den, pick in METRICS:
                    value = 100.0 * f[num] / f[den] if f[den] else None
                    cells.append(pct(f[num], f[den]))
                    key = (label, model, identity, "double" if double else "front-only")
                    if value is not None:
                        worst[key] = value if key not in worst else pick(worst[key], value)
                print(f"| {name} | {model} | {identity} | " + " | ".join(cells) + " |", flush=True)
    print("\nWorst design per kit type, model and identity:")
    for key in sorted(worst):
        print(f"  {key[0]:<18} {key[3]:<10} {key[1]:<8} {key[2]}: {worst[key]:.2f}")


if __name__ == "__main__":
    main()
