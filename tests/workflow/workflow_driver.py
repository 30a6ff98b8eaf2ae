#!/usr/bin/env python3
"""The sharded workflow run locally and (inside with_slurm.sh) through the Slurm profile: a merged save folder must
read like a single barcoder run over the same files.

Usage: workflow_driver.py BARCODER REPOSITORY WORK_FOLDER SNAKEMAKE CASE
"""

import collections
import gzip
import json
import math
import os
import re
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import bam_file  # noqa: E402

SUMMARY = "barcoding_summary.txt"
REPORT = "barcoding_report.json"
OUTPUT_NAME = re.compile(r"^(?:fastq|bam)_runid_(.+)_(\d+)(\.fastq|\.fastq\.gz|\.bam)$")
# Options that differ between a sharded and a single run by design.
RUN_SPECIFIC_OPTIONS = ("input_path", "save_path", "worker_threads")
KIT = "--barcode_kits VB-NB24"
# On the cluster Snakemake runs with USER unset, as under some batch systems.
NO_USER = {k: v for k, v in os.environ.items() if k != "USER"}


def check(condition, message):
    if not condition:
        raise AssertionError(message)


def read_records(path):
    with (gzip.open if path.endswith(".gz") else open)(path, "rb") as handle:
        lines = handle.read().split(b"\n")
    check(lines[-1] == b"" and len(lines) % 4 == 1, f"{path}: not whole records ending in a newline")
    return [tuple(lines[i:i + 4]) for i in range(0, len(lines) - 1, 4)]


def output_files(save):
    for folder, _, names in os.walk(save):
        for name in names:
            if match := OUTPUT_NAME.match(name):
                yield os.path.relpath(folder, save), match, os.path.join(folder, name)


def read_series(save):
    """(folder, run id, file type) -> the records of file 0, 1, ..., numbered without gaps."""
    series = collections.defaultdict(dict)
    for folder, match, path in output_files(save):
        records = bam_file.read_bam(path, AssertionError)[2] if path.endswith(".bam") else read_records(path)
        series[(folder, match.group(1), match.group(3))][int(match.group(2))] = records
    for key, files in series.items():
        check(sorted(files) == list(range(len(files))), f"{save}: {key}: file indices {sorted(files)}")
    return {key: [files[i] for i in range(len(files))] for key, files in series.items()}


def read_report(save):
    with open(os.path.join(save, REPORT), encoding="utf-8") as handle:
        return json.load(handle)


def compare_save_folders(single, merged):
    """merged holds single's summary rows, each series' reads cut into files the same way (in any order: threads vary
    it), and its report but for run-specific figures."""
    summaries = []
    for save in (single, merged):
        with open(os.path.join(save, SUMMARY), "rb") as handle:
            lines = handle.read().split(b"\n")
        summaries.append((lines[0], lines[-1], sorted(lines[1:-1])))
    check(summaries[0] == summaries[1], "summary rows differ (header, final newline or sorted rows)")
    one, other = read_series(single), read_series(merged)
    check(set(one) == set(other), f"series differ: {sorted(set(one) ^ set(other))}")
    for key, files in one.items():
        check([len(f) for f in files] == [len(f) for f in other[key]], f"{key}: records per file differ")
        records = [sorted(r for f in series[key] for r in f) for series in (one, other)]
        check(records[0] == records[1], f"{key}: the reads differ")
    reports = read_report(single), read_report(merged)
    check(list(reports[0]) == list(reports[1]), f"report sections {list(reports[0])} vs {list(reports[1])}")
    for key in reports[0]:
        one, other = (report[key] for report in reports)
        if key == "options":
            one, other = ({k: v for k, v in o.items() if k not in RUN_SPECIFIC_OPTIONS} for o in (one, other))
        if key == "arrangements":
            check(list(one) == list(other) and all(one[n].keys() == other[n].keys() for n in one)
                  and all(math.isclose(one[n][f], other[n][f], rel_tol=1e-9) for n in one for f in one[n]),
                  f"arrangements {one} vs {other}")
        elif key != "wall_time_s":
            check(one == other, f"{key}: {one} vs {other}")


def path(*parts):
    return os.path.join(WORK, *parts)


def run(args, expect=0, **kwargs):  # standard error in the result's stdout
    result = subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, cwd=WORK, timeout=300,
                            **kwargs)
    check(expect is None or result.returncode == expect,
          f"{' '.join(args)}: status {result.returncode}, expected {expect}\n{result.stdout[-6000:]}")
    return result


def single_run(save, options, input_path, *extra):
    run([BARCODER, "-i", input_path, "-s", path(save), "-t", "2", "--quiet", *options.split(), *extra])
    return path(save)


def slurm_command(save, options, input_path, *config, extra=()):
    """The README's Slurm command, with account and partition."""
    return [SNAKEMAKE, "-s", os.path.join(SOURCE, "workflow", "Snakefile"), "--profile",
            os.path.join(SOURCE, "workflow", "profiles", "slurm"), "--default-resources", "slurm_account=vbtest",
            "slurm_partition=debug", *extra, "--config", f"input_path={input_path}", f"save_path={path(save)}",
            "files_per_shard=1", f"barcoder={BARCODER}", f"options={options}", *config]


def log_times(save, names):
    return {name: os.stat(path(save, "logs", name)).st_mtime_ns for name in names}


def check_layout(save, shards, *more_logs):
    """A single run's entries, the shard logs under logs/, nothing of the workflow's own left behind."""
    entries = set(os.listdir(save))
    check({SUMMARY, REPORT, "logs"} <= entries and not entries & {".shards", ".merge_staging"}, f"{sorted(entries)}")
    logs = sorted(os.listdir(os.path.join(save, "logs")))
    check(logs == sorted([f"shard_{i:03d}.log" for i in range(shards)] + ["merge.log", *more_logs]), f"logs: {logs}")


def case_test_data():
    """The .test configuration, lint-free: a failed shard blocks the merge and alone is redone; shards a killed merge
    began to move are named, dropped and redone; the result reads like a single run; a further run changes nothing."""
    test_config = os.path.join(SOURCE, ".test", "config", "config.yaml")
    test_reads = os.path.join(SOURCE, ".test", "reads")
    fault = path("FAULT")
    open(fault, "w").close()
    wrapper = path("flaky_barcoder.sh")
    with open(wrapper, "w") as handle:
        handle.write(f"""#!/bin/bash
for arg in "$@"; do
  if [[ "$arg" == */shard_001 && -e {fault} ]]; then echo "simulated failure of this shard" >&2; exit 3; fi
done
exec {BARCODER} "$@"
""")
    os.chmod(wrapper, 0o755)
    command = [SNAKEMAKE, "-s", os.path.join(SOURCE, "workflow", "Snakefile"), "--directory", WORK, "--cores", "2",
               "--configfile", test_config, "--config", f"barcoder={wrapper}", f"input_path={test_reads}",
               f"save_path={path('out')}"]
    lints = json.loads(subprocess.run(command + ["--lint", "json"], capture_output=True, text=True).stdout)
    # The workflow runs this repository's build and the system's python3: no conda environment per rule.
    found = [(item["for"], lint["title"]) for group in ("snakefiles", "rules") for item in lints[group]
             for lint in item["lints"] if lint["title"] != "Specify a conda environment or container for each rule."]
    check(not found, f"lints: {found}")

    output = run(command, expect=1).stdout
    check("shard shard_001 failed" in output, f"the failure does not name the shard:\n{output[-3000:]}")
    check(not {SUMMARY, REPORT} & set(os.listdir(path("out"))), "merged output written although a shard failed")
    with open(path("out", "logs", "shard_001.log")) as handle:
        check("simulated failure of this shard" in handle.read(), "the shard's log lacks the failure")
    shards = [path("out", ".shards", f"shard_{i:03d}") for i in range(3)]
    finished = log_times("out", [f"{os.path.basename(s)}.log" for s in shards if os.path.isfile(f"{s}/{REPORT}")])
    os.remove(fault)
    run(command + ["--until", "barcode_shard"])
    check(log_times("out", finished) == finished, f"shards {sorted(finished)} finished before but ran again")
    check(all(os.path.isfile(os.path.join(s, REPORT)) for s in shards), "not every shard finished")

    open(os.path.join(shards[0], ".taken_by_merge"), "w").close()  # what a killed merge leaves
    output = run(command, expect=1).stdout
    check("shards shard_000 were partly merged and have been removed" in output,
          f"a half-merged shard was not named:\n{output[-3000:]}")
    untouched = log_times("out", ["shard_001.log", "shard_002.log"])
    run(command)
    check(log_times("out", untouched) == untouched, "shards that were whole ran again")
    check_layout(path("out"), 3)
    with open(test_config) as handle:
        options = next(line for line in handle if line.startswith("options:")).split('"')[1]
    compare_save_folders(single_run("single", options, test_reads, "-r"), path("out"))
    merged = read_report(path("out"))["options"]
    check((merged["input_path"], merged["save_path"], merged["recursive"]) == (test_reads, path("out"), "true"),
          f"the merged report's options do not name the whole run: {merged}")
    before = os.stat(path("out", REPORT)).st_mtime_ns
    check("Nothing to be done" in run(command).stdout, "a further run was not a no-op")
    check(os.stat(path("out", REPORT)).st_mtime_ns == before, "a further run rewrote the report")


def case_slurm_readme():
    """The README's Slurm command, 8 shards of 2 threads waiting for the node's 4 CPUs; shards Slurm cannot run fail
    by name."""
    reads, options = path("simulated"), KIT + " --compress_fastq"
    run([sys.executable, os.path.join(SOURCE, "tools", "simulate_reads.py"), "-o", os.path.join(reads, "sim.fastq.gz"),
         "--kit", "VB-NB24", "-n", "4000", "--seed", "11", "--split", "8", "--median-length", "800"])
    run(slurm_command("readme", options, reads, "threads=2"), env=NO_USER)
    check_layout(path("readme"), 8, "slurm")
    outputs = sorted(name.rsplit("-", 1)[0] for name in os.listdir(path("readme", "logs", "slurm")))
    check(outputs == [f"shard_{i:03d}" for i in range(8)], f"Slurm's outputs: {outputs}")
    compare_save_folders(single_run("single", options, reads), path("readme"))
    jobs = [dict(re.findall(r"(\w+)=(\S*)", line)) for line in run(["scontrol", "show", "job", "-o"]).stdout.split("\n")
            if line]
    check(sorted((job["JobName"], job["JobState"], job["Account"], job["Partition"], job["NumCPUs"]) for job in jobs)
          == [(f"vb.shard_{i:03d}", "COMPLETED", "vbtest", "debug", "2") for i in range(8)],
          f"jobs {jobs}: the merge is a local rule")
    refusals = [("oom", ["files_per_shard=8"], ["--set-resources", "barcode_shard:mem_mb=1"],
                 ["shard shard_000 failed", "over its memory", "barcode_shard:mem_mb="]),
                ("cpus", ["threads=64"], [], ["cannot start as asked (64 CPUs", "PartitionConfig"])]
    for save, config, extra, words in refusals:
        output = run(slurm_command(save, KIT, reads, *config, extra=extra), 1, env=NO_USER).stdout
        check(all(word in output for word in words), f"{save}: {words} not all in\n{output[-3000:]}")
    check(run(["squeue", "--noheader"]).stdout == "", "jobs left in the queue")


if __name__ == "__main__":
    BARCODER, SOURCE, WORK, SNAKEMAKE, CASE = sys.argv[1:]
    WORK = os.path.join(WORK, CASE)
    shutil.rmtree(WORK, ignore_errors=True)
    os.makedirs(WORK)
    globals()["case_" + CASE]()
    print(f"ok {CASE}")
