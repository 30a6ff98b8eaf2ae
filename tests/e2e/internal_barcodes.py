#!/usr/bin/env python3
"""End-to-end checks of --internal_barcodes: reads made of several molecules
(simulated with their truth) rejected or split into parts.

Same frame as e2e_driver.py (whose helpers it uses).

Usage: internal_barcodes.py --binary BIN --source REPO --work DIR --case NAME
"""

import json
import os
import re
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from e2e_driver import SUMMARY, check, main, output_reads, read_summary, read_truth_rows, tree_bytes  # noqa: E402
from bam_and_samples import output_bam_reads, tag  # noqa: E402

KITS = ("VB-NB24", "VB-RB12")  # double-ended and front-only


def simulate(ctx, kit, reads, seed, concatemers=0.4):
    """Input folder of simulated reads; read id -> truth row (kind, molecules: [arrangement, ...])."""
    folder = ctx.path(f"in_{kit}_{seed}")
    os.makedirs(folder, exist_ok=True)
    fastq, truth = os.path.join(folder, "reads.fastq"), ctx.path(f"truth_{kit}_{seed}.tsv")
    subprocess.run([sys.executable, os.path.join(ctx.source, "tools", "simulate_reads.py"), "-o", fastq, "--truth",
                    truth, "--kit", kit, "-n", str(reads), "--seed", str(seed), "--median-length", "800",
                    "--frac-concatemer", str(concatemers), "--identity", "0.93"],
                   check=True, capture_output=True, text=True)
    return folder, {rid: (row["kind"], [] if row["molecules"] == "-" else [m[:-1] for m in row["molecules"].split(",")])
                    for rid, row in read_truth_rows(truth).items()}


def run(ctx, kit, folder, save, *extra):
    shutil.rmtree(ctx.path(save), ignore_errors=True)
    ctx.run(["-i", folder, "-s", save, "--barcode_kits", kit, "--internal_count_column",
             "--unclassified_reason_column"] + list(extra))
    header, rows = read_summary(ctx.path(save, SUMMARY), 22 if "--trim_barcodes" in extra else 20)
    check(header[-2:] == ["barcode_unclassified_reason", "barcode_internal_count"], f"header {header}")
    with open(ctx.path(save, "barcoding_report.json")) as handle:
        return rows, json.load(handle)


def case_internal_reject(ctx):
    for kit in KITS:
        folder, truth = simulate(ctx, kit, 200, 181)
        rows, report = run(ctx, kit, folder, "out", "--internal_barcodes", "reject")
        concatemers = [rid for rid, (kind, _) in truth.items() if kind == "concatemer"]
        check(len(concatemers) >= 50, f"{kit}: only {len(concatemers)} concatemers simulated")
        rejected = [rid for rid in concatemers if rows[rid][-2] == "internal barcode"]
        check(len(rejected) >= 0.95 * len(concatemers), f"{kit}: {len(rejected)} of {len(concatemers)} rejected")
        for rid in rejected:
            check(rows[rid][1] == "unclassified" and int(rows[rid][-1]) >= 1, f"{kit}: {rid}: {rows[rid]}")
        wrongly = [rid for rid, row in rows.items() if truth[rid][0] != "concatemer" and row[-1] != "0"]
        check(len(wrongly) <= 1, f"{kit}: single-molecule reads with internal barcodes: {wrongly}")
        with_internal = sum(1 for row in rows.values() if row[-1] != "0")
        check(report["internal_barcodes"] == {"reads": with_internal, "parts_written": 0, "parts_dropped": 0},
              f"{kit}: {report['internal_barcodes']}")
        reasons = sum(1 for row in rows.values() if row[-2] == "internal barcode")
        check(report["unclassified_reasons"]["internal_barcode"] == reasons, f"{kit}: reason count")


def check_parts(kit, truth, rows, written, parent_of):
    """Parts carry their parent and are numbered from 1 in read order; the
    molecules of nearly every concatemer come out as parts of their own barcode."""
    parts = {}
    for rid in rows:
        match = re.fullmatch(r"(.+)_(\d+)", rid)
        if rid in truth:
            check(parent_of(written[rid]) is None, f"{kit}: {rid} is no part but names a parent")
            continue
        check(match is not None and match.group(1) in truth, f"{kit}: unexpected read id {rid}")
        parent = match.group(1)
        check(parent_of(written[rid]) == parent, f"{kit}: {rid} names parent {parent_of(written[rid])}")
        check(rows[rid][-1] == rows[f"{parent}_1"][-1] != "0", f"{kit}: {rid}: count differs from its first part")
        parts.setdefault(parent, []).append(int(match.group(2)))
    for parent, numbers in parts.items():
        check(sorted(numbers) == list(range(1, len(numbers) + 1)), f"{kit}: {parent} has parts {numbers}")
        check(parent not in rows, f"{kit}: {parent} written whole and in parts")
    concatemers = [rid for rid, (kind, _) in truth.items() if kind == "concatemer"]
    exact = sum(1 for rid in concatemers
                if [rows.get(f"{rid}_{k + 1}", [None, None])[1] for k in range(len(truth[rid][1]) + 1)] ==
                truth[rid][1] + [None])
    check(exact >= 0.85 * len(concatemers), f"{kit}: {exact} of {len(concatemers)} split into their own molecules")
    return parts


def case_internal_split(ctx):
    for kit in KITS:
        folder, truth = simulate(ctx, kit, 160, 182)
        trees = {}
        for threads in ("1", "8"):
            rows, report = run(ctx, kit, folder, "out" + threads, "--internal_barcodes", "split", "-t", threads)
            trees[threads] = tree_bytes(ctx.path("out" + threads))
        check(trees["1"] == trees["8"], f"{kit}: output bytes depend on the number of worker threads")
        written = output_reads(ctx.path("out8"))
        check(set(written) == set(rows), f"{kit}: {len(rows)} summary rows, {len(written)} records")

        def parent_of(entry):
            found = re.search(r" parent_read_id=(\S+)", entry[2][0])
            return found.group(1) if found else None

        parts = check_parts(kit, truth, rows, written, parent_of)
        counts = report["internal_barcodes"]
        part_count = sum(len(numbers) for numbers in parts.values())
        check(counts["reads"] == len(parts) and counts["parts_written"] == part_count,
              f"{kit}: report {counts}, {len(parts)} reads in {part_count} parts")
        check(report["reads"]["written"] == len(rows), f"{kit}: written {report['reads']['written']}")
        check(len(truth) - len(parts) + part_count == len(rows) and counts["parts_dropped"] == 0,
              f"{kit}: reads and parts do not add up")
        # A part's title is the read's with its own id and the parent added.
        for rid in parts:
            title = written[f"{rid}_1"][2][0]
            check(title.startswith(f"@{rid}_1 runid="), f"{kit}: part title {title}")


def case_internal_split_bam(ctx):
    folder, truth = simulate(ctx, "VB-NB24", 80, 183)
    rows, _ = run(ctx, "VB-NB24", folder, "out", "--internal_barcodes", "split", "--output_format", "bam",
                  "--trim_barcodes", "--min_part_length", "150")
    written = output_bam_reads(ctx.path("out"))
    check(set(written) == set(rows), f"{len(rows)} summary rows, {len(written)} records")
    parts = check_parts("VB-NB24", truth, rows, written, lambda entry: tag(entry[2], "pi"))
    check(len(parts) >= 20, f"only {len(parts)} reads split")
    for rid, entry in written.items():
        check(tag(entry[2], "ar") == rows[rid][1], f"{rid}: ar {tag(entry[2], 'ar')}")


def case_internal_options(ctx):
    folder, _ = simulate(ctx, "VB-NB24", 40, 184, concatemers=0.2)
    base = ["-i", folder, "--barcode_kits", "VB-NB24", "-d", os.path.join(ctx.source, "data", "barcoding")]
    ctx.run(base + ["-s", "plain"])
    ctx.run(base + ["-s", "ignore", "--internal_barcodes", "ignore"])
    check(tree_bytes(ctx.path("plain")) == tree_bytes(ctx.path("ignore")), "ignore changes the output")
    result = ctx.run(base + ["-s", "bad", "--internal_barcodes", "cut"], expect=255)
    check("Unknown internal_barcodes 'cut': use ignore, reject or split" in result.stdout + result.stderr,
          f"message: {result.stdout}{result.stderr}")
    result = ctx.run(base + ["-s", "bad2", "--internal_count_column"], expect=255)
    check("--internal_count_column needs --internal_barcodes reject or split" in result.stdout + result.stderr,
          f"message: {result.stdout}{result.stderr}")
    # The configuration file takes the same keys.
    with open(os.path.join(ctx.source, "data", "barcoding", "configuration.cfg")) as handle:
        shipped = handle.read()
    with open(ctx.path("run.cfg"), "w") as handle:
        handle.write(shipped + "\ninternal_barcodes = reject\ninternal_count_column = true\n")
    ctx.run(base + ["-s", "cfg", "--config", ctx.path("run.cfg")])
    header, _ = read_summary(ctx.path("cfg", SUMMARY), 19)
    check(header[-1] == "barcode_internal_count", f"header {header}")


CASES = {name[len("case_"):]: fn for name, fn in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(main(CASES))
