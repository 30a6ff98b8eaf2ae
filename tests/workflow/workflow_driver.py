#!/usr/bin/env python3
"""End-to-end checks of barcoding_report.json and of the sharded workflow.

The workflow cases run Snakemake on the bundled example reads, one file per
shard, and compare the merged save folder with a single barcoder run over the
same files (tests/workflow/save_folder.py says what "the same" means). The
fault case makes one shard fail and checks that nothing is merged, that the
failure names the shard, and that the next run completes. Standard library only.

Usage: workflow_driver.py --barcoder BIN --source REPO --work DIR --case NAME [--snakemake PATH]
"""

import argparse
import collections
import json
import math
import os
import shutil
import stat
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from save_folder import (REPORT, SUMMARY, Mismatch, check, compare_save_folders, read_records,  # noqa: E402
                         read_report, read_series)

KIT_OPTIONS = "--barcode_kits VB-NB24"
# The software-definition lint asks for a conda environment or container per
# rule; the workflow runs this repository's own build and the system's
# python3, so it has neither. Any other lint fails the check.
ALLOWED_LINTS = {"Specify a conda environment or container for each rule."}


class Context:
    def __init__(self, args, work):
        self.barcoder = os.path.abspath(args.barcoder)
        self.source = os.path.abspath(args.source)
        self.snakemake_program = args.snakemake
        self.work = work
        self.reads = os.path.join(self.source, "examples", "reads")

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def run(self, args, expect=0, **kwargs):
        result = subprocess.run(args, capture_output=True, text=True, cwd=self.work, timeout=300, **kwargs)
        if expect is not None and result.returncode != expect:
            raise Mismatch(f"{' '.join(args)}: status {result.returncode}, expected {expect}\n"
                           f"stdout:\n{result.stdout[-4000:]}\nstderr:\n{result.stderr[-4000:]}")
        return result

    def single_run(self, save, options, input_path=None, recursive=False):
        args = [self.barcoder, "-i", input_path or self.reads, "-s", self.path(save), "-t", "2", "--quiet"]
        self.run(args + (["-r"] if recursive else []) + options.split())
        return self.path(save)

    def snakemake(self, save, options, *config, barcoder=None, expect=0, extra=()):
        if not self.snakemake_program:
            raise Mismatch("this case needs snakemake (--snakemake)")
        args = [self.snakemake_program, "-s", os.path.join(self.source, "workflow", "Snakefile"),
                "--directory", self.work, "--cores", "2", *extra, "--config", f"input_path={self.reads}",
                f"save_path={self.path(save)}", "files_per_shard=1", "threads=1",
                f"barcoder={barcoder or self.barcoder}", f"options={options}", *config]
        return self.run(args, expect=expect)


def limit_of(options):
    words = options.split()
    for flag in ("-q", "--records_per_fastq"):
        if flag in words:
            return int(words[words.index(flag) + 1])
    return 0


def check_merged_layout(save, shards):
    """A single run's entries, with the shard logs under logs/ and nothing of
    the workflow's own left behind."""
    entries = set(os.listdir(save))
    check({SUMMARY, REPORT, "logs"} <= entries, f"merged folder lacks files: {sorted(entries)}")
    check(not entries & {".shards", ".merge_staging"}, f"workflow leftovers in the merged folder: {sorted(entries)}")
    logs = sorted(os.listdir(os.path.join(save, "logs")))
    check(logs == sorted([f"shard_{i:03d}.log" for i in range(shards)] + ["merge.log"]), f"logs: {logs}")


# ---------------------------------------------------------------- cases

def case_report(ctx):
    """barcoding_report.json of a single run agrees with the summary and the
    FASTQ output it describes."""
    inputs = ctx.path("in")
    shutil.copytree(ctx.reads, inputs)
    # Five reads without a run id: dropped, and counted as such.
    records = read_records(os.path.join(ctx.reads, "vb_nb24_extra.fastq"))[:20]
    with open(os.path.join(inputs, "no_run_id.fastq"), "wb") as handle:
        for i, (title, sequence, plus, quality) in enumerate(records):
            if i % 4 == 0:
                title = b" ".join(f for f in title.split(b" ") if not f.startswith(b"runid="))
            handle.write(b"\n".join((title.replace(b"@", b"@x", 1), sequence, plus, quality)) + b"\n")
    save = ctx.single_run("out", KIT_OPTIONS + " --trim_barcodes", input_path=inputs)
    report = read_report(save)

    options = report["options"]
    check(list(options)[:5] == ["quiet", "worker_threads", "input_path", "save_path", "recursive"],
          f"options start {list(options)[:5]}")
    check(options["barcode_kits"] == "VB-NB24" and options["trim_barcodes"] == "true"
          and options["worker_threads"] == "2" and options["input_path"] == inputs, f"options {options}")
    check(report["program"] == "vorpa_barcoder" and report["version"], "program and version")
    check(report["files"] == {"found": 4, "read": 4, "ended_early": 0, "failed": 0}, f"files {report['files']}")
    check(isinstance(report["wall_time_s"], float) and report["wall_time_s"] > 0, "wall_time_s")

    with open(os.path.join(save, SUMMARY)) as handle:
        header = handle.readline().rstrip("\n").split("\t")
        rows = [dict(zip(header, line.rstrip("\n").split("\t"))) for line in handle]
    per_arrangement = collections.defaultdict(list)
    for row in rows:
        per_arrangement[row["barcode_arrangement"]].append(float(row["barcode_score"]))
    reads = report["reads"]
    unclassified = len(per_arrangement.get("unclassified", []))
    check(reads["written"] == len(rows) and reads["unclassified"] == unclassified
          and reads["classified"] == len(rows) - unclassified, f"reads {reads}")
    check(reads["dropped_no_run_id"] == 5 and reads["total"] == len(rows) + 5 + reads["failed"], f"reads {reads}")
    check(report["unclassified_reasons"]["no_barcode_above_minimum"] == unclassified, "unclassified reasons")

    bases = collections.Counter()
    for (folder, _), files in read_series(save).items():
        bases[folder] += sum(len(r[1]) for f in files.values() for r in f)
    check(set(report["arrangements"]) == set(per_arrangement), "arrangements differ from the summary's")
    for name, figures in report["arrangements"].items():
        scores = per_arrangement[name]
        check(figures["reads"] == len(scores), f"{name}: reads")
        check(figures["bases"] == bases[name], f"{name}: {figures['bases']} bases, {bases[name]} written")
        check(math.isclose(figures["mean_read_length"], bases[name] / len(scores)), f"{name}: mean length")
        # The summary prints scores to six digits.
        check(math.isclose(figures["mean_score"], sum(scores) / len(scores), rel_tol=1e-5), f"{name}: mean score")
    check(not [n for n in os.listdir(save) if n.endswith(".tmp")], "temporary report left behind")

    # No input at all still gives a complete report.
    os.makedirs(ctx.path("empty"))
    report = read_report(ctx.single_run("out_empty", KIT_OPTIONS, input_path=ctx.path("empty")))
    check(report["reads"]["total"] == 0 and report["arrangements"] == {} and report["files"]["found"] == 0,
          f"empty run report {report}")


def quickcheck(folder):
    """samtools (when installed) takes every BAM file of the folder as whole
    (-u: unaligned files name no reference) and reads every record."""
    samtools = shutil.which("samtools")
    paths = [os.path.join(d, n) for d, _, names in os.walk(folder) for n in names if n.endswith(".bam")]
    if not samtools or not paths:
        return
    result = subprocess.run([samtools, "quickcheck", "-u", "-v", *paths], capture_output=True, text=True)
    check(result.returncode == 0, f"samtools quickcheck refused: {result.stdout} {result.stderr}")
    for path in paths:
        view = subprocess.run([samtools, "view", "-c", path], capture_output=True, text=True)
        check(view.returncode == 0 and not view.stderr, f"samtools view {path}: {view.stderr}")


def sharded_case(options):
    def case(ctx):
        single = ctx.single_run("single", options)
        ctx.snakemake("merged", options)
        check_merged_layout(ctx.path("merged"), 3)
        compare_save_folders(single, ctx.path("merged"), limit_of(options))
        quickcheck(ctx.path("merged"))
        merged = read_report(ctx.path("merged"))
        check(merged["options"]["input_path"] == ctx.reads and merged["options"]["save_path"] == ctx.path("merged"),
              "merged report options name the whole run")
        # A second run finds everything done and changes nothing.
        before = os.stat(ctx.path("merged", REPORT)).st_mtime_ns
        result = ctx.snakemake("merged", options)
        check("Nothing to be done" in result.stdout + result.stderr, "second run was not a no-op")
        check(os.stat(ctx.path("merged", REPORT)).st_mtime_ns == before, "second run rewrote the report")
    return case


case_sharded_plain = sharded_case(KIT_OPTIONS)
case_sharded_compressed = sharded_case(KIT_OPTIONS + " --compress_fastq")
case_sharded_records_per_fastq = sharded_case(KIT_OPTIONS + " -q 7")
case_sharded_bam = sharded_case(KIT_OPTIONS + " --output_format bam --trim_barcodes -q 7")


def log_times(ctx, names):
    return {name: os.stat(ctx.path("merged", "logs", name + ".log")).st_mtime_ns for name in names}


def case_fault(ctx):
    """One shard fails: nothing is merged, the failure names the shard, the
    merge refuses the incomplete set; once the fault is gone the next run
    redoes only the missing shard. Then a merge killed after it began to move
    shard files: the next run names and drops those shards, the one after
    redoes them and completes."""
    fault = ctx.path("FAULT")
    open(fault, "w").close()
    wrapper = ctx.path("flaky_barcoder.sh")
    with open(wrapper, "w") as handle:
        handle.write(f"""#!/bin/bash
# Fails the shard shard_001 while {fault} exists.
for arg in "$@"; do
  if [[ "$arg" == */shard_001 && -e {fault} ]]; then echo "simulated failure of this shard" >&2; exit 3; fi
done
exec {ctx.barcoder} "$@"
""")
    os.chmod(wrapper, os.stat(wrapper).st_mode | stat.S_IXUSR)
    options = KIT_OPTIONS + " -q 7"

    result = ctx.snakemake("merged", options, barcoder=wrapper, expect=None)
    output = result.stdout + result.stderr
    check(result.returncode != 0, "the workflow succeeded although a shard failed")
    check("shard shard_001 failed" in output, f"the failure does not name the shard:\n{output[-3000:]}")
    check(not os.path.exists(ctx.path("merged", SUMMARY)) and not os.path.exists(ctx.path("merged", REPORT)),
          "merged output written although a shard failed")
    with open(ctx.path("merged", "logs", "shard_001.log")) as handle:
        check("simulated failure of this shard" in handle.read(), "the shard's log lacks the failure")

    shard_root = ctx.path("merged", ".shards")
    shards = [os.path.join(shard_root, f"shard_{i:03d}") for i in range(3)]
    refused = ctx.run([sys.executable, os.path.join(ctx.source, "workflow", "scripts", "merge_shards.py"),
                       "--save", ctx.path("merged"), *shards], expect=1)
    check("incomplete set of shards" in refused.stderr and "shard shard_001 is missing" in refused.stderr,
          f"merge message: {refused.stderr}")

    finished = log_times(ctx, [os.path.basename(s) for s in shards if os.path.isfile(os.path.join(s, REPORT))])
    os.remove(fault)
    ctx.snakemake("merged", options, barcoder=wrapper, extra=["--until", "barcode_shard"])
    check(log_times(ctx, finished) == finished, f"shards {sorted(finished)} finished before but ran again")
    check(all(os.path.isfile(os.path.join(s, REPORT)) for s in shards), "not every shard finished")

    open(os.path.join(shards[0], ".taken_by_merge"), "w").close()  # what a killed merge leaves
    result = ctx.snakemake("merged", options, barcoder=wrapper, expect=None)
    output = result.stdout + result.stderr
    check(result.returncode != 0 and "shards shard_000 were partly merged and have been removed" in output,
          f"a half-merged shard was not named:\n{output[-3000:]}")
    untouched = log_times(ctx, ["shard_001", "shard_002"])
    ctx.snakemake("merged", options, barcoder=wrapper)
    check(log_times(ctx, untouched) == untouched, "shards that were whole ran again")
    check_merged_layout(ctx.path("merged"), 3)
    compare_save_folders(ctx.single_run("single", options), ctx.path("merged"), 7)


def case_test_data(ctx):
    """snakemake --lint on the workflow, then the .test configuration (nested
    input folder, compressed output cut at 5 records) against a single run."""
    test_config = os.path.join(ctx.source, ".test", "config", "config.yaml")
    test_reads = os.path.join(ctx.source, ".test", "reads")
    base = [ctx.snakemake_program, "-s", os.path.join(ctx.source, "workflow", "Snakefile"), "--directory", ctx.work,
            "--configfile", test_config]
    config = ["--config", f"barcoder={ctx.barcoder}", f"input_path={test_reads}", f"save_path={ctx.path('results')}"]
    lint = ctx.run(base + ["--lint", "json"] + config, expect=None)
    lints = json.loads(lint.stdout)
    found = [(item["for"], l["title"]) for group in ("snakefiles", "rules") for item in lints[group]
             for l in item["lints"] if l["title"] not in ALLOWED_LINTS]
    check(not found, f"lints: {found}")

    ctx.run(base + ["--cores", "2"] + config)
    with open(test_config) as handle:
        options = next(line for line in handle if line.startswith("options:")).split('"')[1]
    single = ctx.single_run("single", options, input_path=test_reads, recursive=True)
    compare_save_folders(single, ctx.path("results"), limit_of(options))
    check(read_report(ctx.path("results"))["options"]["recursive"] == "true", "recursive lost in the merge")


CASES = {name[len("case_"):]: fn for name, fn in globals().items() if name.startswith("case_")}


def main(cases, prefix=""):
    """Runs one case of `cases` (name -> function of a Context), given by the
    command line, in a fresh folder named prefix + case; returns the exit
    status. The Slurm driver calls it with its own cases."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--barcoder", required=True)
    parser.add_argument("--source", required=True)
    parser.add_argument("--work", required=True)
    parser.add_argument("--snakemake")
    parser.add_argument("--case", required=True, choices=sorted(cases))
    args = parser.parse_args()
    work = os.path.join(os.path.abspath(args.work), prefix + args.case)
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    try:
        cases[args.case](Context(args, work))
    except Mismatch as failure:
        print(f"FAIL {prefix}{args.case}: {failure}")
        return 1
    print(f"ok {prefix}{args.case}")
    return 0


if __name__ == "__main__":
    sys.exit(main(CASES))
