#!/usr/bin/env python3
"""End-to-end checks of the vorpa_barcoder binary on simulated reads.

Each case runs the real program in a fresh folder and checks what it leaves
behind: the summary file, the FASTQ output tree, the console and the exit
status. Reads come from tools/simulate_reads.py with fixed seeds, so every run
sees the same input. Standard library only.

Usage: e2e_driver.py --binary BIN --source REPO --work DIR --case NAME
"""

import argparse
import collections
import gzip
import json
import math
import os
import shutil
import signal
import subprocess
import sys
import time

SUMMARY = "barcoding_summary.txt"
# The run's reports: figures of the output, not output themselves.
REPORTS = ("barcoding_report.json", "barcoding_report.html", "barcoding_mqc.json", "barcoding_stats_mqc.json")
KIT = "VB-NB24"


class Failure(Exception):
    pass


class Skip(Exception):
    """The case cannot be checked here (reported to CTest as skipped)."""


SKIPPED = 77


def check(condition, message):
    if not condition:
        raise Failure(message)


class Context:
    def __init__(self, binary, source, work):
        self.binary = binary
        self.source = source
        self.work = work

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def run(self, args, stdin_text=None, expect=0, user=None):
        result = subprocess.run([self.binary] + args, input=stdin_text, capture_output=True, text=True,
                                cwd=self.work, timeout=100, user=user)
        if expect is not None and result.returncode != expect:
            raise Failure(f"{' '.join(args)}: status {result.returncode}, expected {expect}\n"
                          f"stdout:\n{result.stdout[-3000:]}\nstderr:\n{result.stderr[-3000:]}")
        return result

    def simulate(self, name, reads, seed, files=(), folder="in"):
        """Simulated reads as a list of (title, sequence, quality), and the
        expected arrangement per read id: the barcode of a read that carries
        one at its front, "unclassified" for one without, None for chimeras.
        With files, the reads are also written round-robin into those files
        of folder."""
        scratch = self.path("sim_" + name)
        os.makedirs(scratch, exist_ok=True)
        fastq = os.path.join(scratch, "reads.fastq")
        truth = os.path.join(scratch, "truth.tsv")
        subprocess.run([sys.executable, os.path.join(self.source, "tools", "simulate_reads.py"), "-o", fastq,
                        "--truth", truth, "--kit", KIT, "-n", str(reads), "--seed", str(seed)],
                       check=True, capture_output=True, text=True)
        records = read_fastq(fastq)
        if files:
            split_into_files(self.path(folder), records, files)
        return records, read_truth(truth)


# ---------------------------------------------------------------- file helpers

def read_fastq(path):
    opener = gzip.open if path.endswith(".gz") else open
    with opener(path, "rt") as handle:
        lines = handle.read().splitlines()
    check(len(lines) % 4 == 0, f"{path}: {len(lines)} lines, not a whole number of records")
    records = []
    for i in range(0, len(lines), 4):
        check(lines[i].startswith("@") and lines[i + 2] == "+", f"{path}: bad record at line {i + 1}")
        records.append((lines[i], lines[i + 1], lines[i + 3]))
    return records


def read_truth_rows(path):
    """read id -> the simulator's truth row (column name -> value)."""
    with open(path) as handle:
        columns = handle.readline().rstrip("\n").split("\t")
        rows = [dict(zip(columns, line.rstrip("\n").split("\t"))) for line in handle]
    return {row["read_id"]: row for row in rows}


def read_truth_kinds(path):
    """read id -> (kind, front, rear) from the simulator's truth table."""
    return {rid: (row["kind"], row["front"], row["rear"]) for rid, row in read_truth_rows(path).items()}


def read_truth(path):
    """read id -> the arrangement expected: the front barcode of a read that
    carries one, "unclassified" for one without, None for chimeras."""
    expected = {}
    for rid, (kind, front, _) in read_truth_kinds(path).items():
        expected[rid] = front if kind in ("double", "front") else "unclassified" if kind == "none" else None
    return expected


def fastq_text(records):
    return "".join(f"{t}\n{s}\n+\n{q}\n" for t, s, q in records)


def write_fastq(path, records, compress=None):
    text = fastq_text(records)
    if compress or (compress is None and path.endswith(".gz")):
        with gzip.open(path, "wt") as handle:
            handle.write(text)
    else:
        with open(path, "w") as handle:
            handle.write(text)


def read_id(title):
    return title[1:].split(" ", 1)[0]


def read_summary(path, columns):
    with open(path) as handle:
        lines = handle.read().split("\n")
    check(lines[-1] == "", f"{path} does not end in a newline")
    rows = [line.split("\t") for line in lines[:-1]]
    check(len(rows) >= 1, f"{path} has no header")
    for row in rows:
        check(len(row) == columns, f"{path}: {len(row)} columns, expected {columns}: {row}")
    header = rows[0]
    check(header[0] == "read_id" and header[1] == "barcode_arrangement", f"unexpected header {header}")
    body = rows[1:]
    ids = [row[0] for row in body]
    check(len(set(ids)) == len(ids), f"{path}: a read id appears more than once")
    return header, {row[0]: row for row in body}


def output_reads(save):
    """read id -> (folder relative to save, file name, record) over every FASTQ file written."""
    found = {}
    for folder, _, files in os.walk(save):
        for name in files:
            if not name.startswith("fastq_runid_"):
                continue
            for record in read_fastq(os.path.join(folder, name)):
                rid = read_id(record[0])
                check(rid not in found, f"read {rid} written twice")
                found[rid] = (os.path.relpath(folder, save), name, record)
    return found


def split_into_files(folder, records, names):
    """Writes records round-robin into the named files (".gz" ones compressed)."""
    os.makedirs(folder, exist_ok=True)
    parts = [records[i::len(names)] for i in range(len(names))]
    for name, part in zip(names, parts):
        write_fastq(os.path.join(folder, name), part)


def barcoder_args(inputs, save, *extra):
    return ["-i", inputs, "-s", save, "--barcode_kits", KIT] + list(extra)


# ---------------------------------------------------------------- cases

def case_classification(ctx):
    records, truth = ctx.simulate("cls", 240, 11, ["a.fastq", "b.fastq.gz", "c.fastq"])
    result = ctx.run(barcoder_args("in", "out", "-t", "2", "-q", "4"))
    _, rows = read_summary(ctx.path("out", SUMMARY), 18)
    check(set(rows) == {read_id(r[0]) for r in records}, "summary rows do not match the input reads")
    # Standard output is a pipe here: the progress bar still ends before the time is reported.
    bar = "*" * 51 + "\n[info] Done in "
    check(bar in result.stdout, f"the progress bar does not end before 'Done in':\n{result.stdout[-800:]}")

    barcoded = [rid for rid in rows if truth[rid] not in (None, "unclassified")]
    correct = sum(rows[rid][1] == truth[rid] for rid in barcoded)
    check(len(barcoded) > 150, "the simulation gave too few barcoded reads to judge")
    check(correct >= 0.9 * len(barcoded), f"only {correct} of {len(barcoded)} barcoded reads classified correctly")
    wrong = [rid for rid in rows if truth[rid] is not None and rows[rid][1] not in (truth[rid], "unclassified")]
    check(len(wrong) <= 0.02 * len(rows), f"{len(wrong)} reads given a barcode they do not carry")

    written = output_reads(ctx.path("out"))
    inputs = {read_id(r[0]): r for r in records}
    check(set(written) == set(inputs), "FASTQ output does not hold every input read exactly once")
    for rid, (folder, name, (title, seq, qual)) in written.items():
        arrangement = rows[rid][1]
        check(folder == arrangement, f"{rid} filed under {folder}, classified {arrangement}")
        check(title == inputs[rid][0] + " barcode=" + arrangement, f"unexpected title {title}")
        check((seq, qual) == inputs[rid][1:], f"{rid} changed without trimming")
    # Files of four reads each, numbered from 0 per folder and run id.
    series = collections.defaultdict(collections.Counter)
    for folder, name, _ in written.values():
        run_id, index = name[len("fastq_runid_"):-len(".fastq")].rsplit("_", 1)
        series[(folder, run_id)][int(index)] += 1
    for key, counts in series.items():
        total = sum(counts.values())
        check(sorted(counts) == list(range(math.ceil(total / 4))), f"{key}: file indices {sorted(counts)}")
        check(all(counts[i] == 4 for i in sorted(counts)[:-1]), f"{key}: a file before the last is not full")


def case_trimming(ctx):
    records, _ = ctx.simulate("trim", 120, 12, ["a.fastq"])
    ctx.run(barcoder_args("in", "out", "--trim_barcodes"))
    header, rows = read_summary(ctx.path("out", SUMMARY), 20)
    check(header[18:] == ["barcode_front_total_trimmed", "barcode_rear_total_trimmed"], f"header {header}")
    written = output_reads(ctx.path("out"))
    inputs = {read_id(r[0]): r for r in records}
    trimmed_reads = 0
    for rid, row in rows.items():
        front, rear = int(row[18]), int(row[19])
        _, seq, qual = inputs[rid]
        out_seq, out_qual = written[rid][2][1], written[rid][2][2]
        check(out_seq == seq[front:len(seq) - rear] and out_qual == qual[front:len(qual) - rear],
              f"{rid}: output is not the input less {front} front and {rear} rear bases")
        check(len(out_seq) >= 1, f"{rid} trimmed to nothing")
        if row[1] != "unclassified":
            check(front > 0 or rear > 0, f"classified read {rid} was not trimmed")
            trimmed_reads += 1
    check(trimmed_reads > 60, "too few classified reads to judge trimming")

    # Fewer bases with a negative extra: never more than the plain trim.
    ctx.run(barcoder_args("in", "out_less", "--trim_barcodes", "--num_extra_bases_trim", "-4"))
    _, less = read_summary(ctx.path("out_less", SUMMARY), 20)
    for rid, row in rows.items():
        for column in (18, 19):
            if int(row[column]) > 4:
                check(int(less[rid][column]) == int(row[column]) - 4, f"{rid}: extra trim not applied")


def case_reads_without_run_id(ctx):
    records, _ = ctx.simulate("norun", 40, 18)
    stripped = []
    for i, (title, seq, qual) in enumerate(records):
        if i % 5 == 0:
            title = " ".join(f for f in title.split(" ") if not f.startswith("runid="))
            stripped.append(read_id(title))
        records[i] = (title, seq, qual)
    split_into_files(ctx.path("in"), records, ["a.fastq"])
    result = ctx.run(barcoder_args("in", "out", "-t", "2"))
    _, rows = read_summary(ctx.path("out", SUMMARY), 18)
    written = output_reads(ctx.path("out"))
    check(len(rows) == len(records) - len(stripped), "reads without a run id must be dropped, the rest kept")
    for rid in stripped:
        check(rid not in rows and rid not in written, f"{rid} has no run id but was written")
        check(f"Unable to detect run ID for read with ID {rid}. This read will not be processed." in result.stdout,
              f"no drop message for {rid}")
    check(result.stdout.count("Could not find 'runid='") == len(stripped), "one title message per dropped read")


def tree_bytes(save):
    """Relative path -> bytes of every output file (logs and the run reports,
    which hold timings and the options, aside)."""
    files = {}
    for folder, _, names in os.walk(save):
        for name in names:
            if name.endswith(".log") or name in REPORTS:
                continue
            path = os.path.join(folder, name)
            with open(path, "rb") as handle:
                files[os.path.relpath(path, save)] = handle.read()
    return files


def many_reads(ctx, name, seed, reads=9000, median=300, scalable=True):
    """Simulated reads for runs that span several batches. VB_E2E_SCALE (a
    factor, default 1) shrinks them for slow builds such as ThreadSanitizer's;
    at a quarter they still span several batches."""
    if scalable:
        reads = max(1000, int(reads * float(os.environ.get("VB_E2E_SCALE", "1"))))
    fastq = ctx.path("sim_" + name + ".fastq")
    subprocess.run([sys.executable, os.path.join(ctx.source, "tools", "simulate_reads.py"), "-o", fastq,
                    "--kit", KIT, "-n", str(reads), "--seed", str(seed), "--median-length", str(median)],
                   check=True, capture_output=True, text=True)
    return read_fastq(fastq)


def case_compressed_equals_plain(ctx):
    records = many_reads(ctx, "gzplain", 31, reads=5000)
    split_into_files(ctx.path("in"), records, ["a.fastq", "b.fastq.gz"])
    for extra in ([], ["-q", "37"]):
        shutil.rmtree(ctx.path("plain"), ignore_errors=True)
        shutil.rmtree(ctx.path("packed"), ignore_errors=True)
        ctx.run(barcoder_args("in", "plain", *extra))
        ctx.run(barcoder_args("in", "packed", "--compress_fastq", "-t", "2", *extra))
        plain = tree_bytes(ctx.path("plain"))
        packed = tree_bytes(ctx.path("packed"))
        check(plain.pop(SUMMARY) == packed.pop(SUMMARY), "the summary depends on --compress_fastq")
        check(sorted(name + ".gz" for name in plain) == sorted(packed), "compressed output has other files")
        for name, data in plain.items():
            path = ctx.path("packed", name + ".gz")
            check(subprocess.run(["gzip", "-t", path]).returncode == 0, f"{path} is not valid gzip")
            check(gzip.decompress(packed[name + ".gz"]) == data, f"{path} does not hold what the plain run wrote")


def check_consistent(save, columns=18):
    """Summary rows and FASTQ records list the same reads; the summary ends in
    a whole row; every gzip file is valid. Returns the number of reads."""
    _, rows = read_summary(os.path.join(save, SUMMARY), columns)
    packed = [os.path.join(folder, name) for folder, _, names in os.walk(save) for name in names
              if name.endswith(".gz")]
    if packed:
        check(subprocess.run(["gzip", "-t"] + packed, capture_output=True).returncode == 0,
              f"not valid gzip among {len(packed)} files in {save}")
    written = output_reads(save)
    check(set(written) == set(rows), f"{len(rows)} summary rows but {len(written)} FASTQ records "
                                     f"({len(set(rows) - set(written))} rows without record, "
                                     f"{len(set(written) - set(rows))} records without row)")
    return len(rows)


def unmount_below(folder):
    """Unmounts what an earlier, killed run of a case left mounted there."""
    try:
        with open("/proc/mounts") as handle:
            mounts = [line.split()[1] for line in handle]
    except OSError:
        return
    for point in sorted(mounts, reverse=True):
        if point == folder or point.startswith(folder + os.sep):
            subprocess.run(["umount", point], capture_output=True)


def mount_small_tmpfs(folder, size):
    os.makedirs(folder, exist_ok=True)
    if os.geteuid() != 0:
        return False
    return subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", folder],
                          capture_output=True).returncode == 0


def case_disk_full(ctx):
    # Unscaled: the disk must fill after some batches, not within the first.
    records = many_reads(ctx, "full", 41, reads=8000, scalable=False)
    split_into_files(ctx.path("in"), records, ["a.fastq", "b.fastq.gz"])
    for extra in ([], ["--compress_fastq"]):
        # A disk that fills up part way through the run.
        ctx.run(barcoder_args("in", "sized", "-z", *extra))
        full_size = sum(len(data) for data in tree_bytes(ctx.path("sized")).values())
        shutil.rmtree(ctx.path("sized"))
        save = ctx.path("small")
        if mount_small_tmpfs(save, f"{full_size * 45 // 100 // 1024}k"):
            try:
                result = ctx.run(barcoder_args("in", save, "-t", "2", *extra), expect=1)
                check("No space left on device while writing '" in result.stdout + result.stderr,
                      "the failure is not named:\n" + result.stdout[-2000:] + result.stderr[-2000:])
                written = check_consistent(save)
                check(0 < written < len(records), f"{written} of {len(records)} reads written on a full disk")
                check(f"{written} reads were written" in result.stdout + result.stderr,
                      "the count of written reads is not reported")
            finally:
                subprocess.run(["umount", save])
            shutil.rmtree(save)
        # Without mounting: an output file that always reports a full disk.
        save = ctx.path("devfull")
        shutil.rmtree(save, ignore_errors=True)
        os.makedirs(os.path.join(save, "barcode05"))
        target = "fastq_runid_" + records[0][0].split("runid=")[1].split(" ")[0] + "_0.fastq"
        if extra:
            target += ".gz"
        os.symlink("/dev/full", os.path.join(save, "barcode05", target))
        result = ctx.run(barcoder_args("in", save, "-z", *extra), expect=1)
        check("No space left on device while writing '" in result.stderr and "barcode05" in result.stderr,
              "a quiet run must still say what failed:\n" + result.stderr[-2000:])
        # The batch that failed created that file, so it was removed with the rest of the batch.
        check(not os.path.lexists(os.path.join(save, "barcode05", target)), "the failed file was left behind")
        check_consistent(save)


def interrupt_when_written(ctx, args, save, sig):
    """Runs the program with args, sends sig once some reads are in the
    summary under save (however fast the build runs), and returns
    (status, standard output, standard error)."""
    process = subprocess.Popen([ctx.binary] + args, cwd=ctx.work, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               text=True)
    summary = os.path.join(ctx.path(save), SUMMARY)
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline and process.poll() is None:
        if os.path.exists(summary) and os.path.getsize(summary) > 4096:
            break
        time.sleep(0.05)
    process.send_signal(sig)
    out, err = process.communicate(timeout=60)
    return process.returncode, out, err


def many_run_ids(records, count=60):
    """The records spread over count run ids: far more output files than a
    small descriptor limit allows open."""
    return [(f"@{read_id(title)} runid=run{k % count:02d}", seq, qual) for k, (title, seq, qual) in enumerate(records)]


def run_with_few_descriptors(ctx, args, limit=64):
    """The program under `ulimit -n limit`."""
    import resource

    def lower():
        resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))

    return subprocess.run([ctx.binary] + args, cwd=ctx.work, capture_output=True, text=True, preexec_fn=lower,
                          timeout=100)


def case_signals(ctx):
    records = many_reads(ctx, "sig", 51, reads=3000)
    os.makedirs(ctx.path("in"))
    # Many copies under other read ids: a run long enough to interrupt.
    for copy in range(12):
        write_fastq(ctx.path("in", f"copy{copy}.fastq"),
                    [(f"@c{copy}_{t[1:]}", s, q) for t, s, q in records])
    split_into_files(ctx.path("in_small"), records, ["a.fastq", "b.fastq.gz"])
    for sig, status in ((signal.SIGINT, 130), (signal.SIGTERM, 143)):
        save = ctx.path(f"out{status}")
        args = ["-i", "in", "-s", save, "--barcode_kits", "VB-NB96", "-t", "1", "--compress_fastq"]
        returncode, out, err = interrupt_when_written(ctx, args, save, sig)
        check(returncode == status, f"status {returncode} after {sig.name}, expected {status}\n"
                                    f"{out[-2000:]}{err[-2000:]}")
        check(f"Interrupted by {sig.name}" in out + err, "the interruption is not reported")
        written = check_consistent(save)
        check(0 < written < 12 * len(records), f"{written} reads written after {sig.name}")
    # A closed standard output (a pager quit early) does not stop the work.
    process = subprocess.Popen([ctx.binary] + barcoder_args("in_small", "piped"), cwd=ctx.work,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    process.stdout.close()
    process.wait(timeout=120)
    check(process.returncode == 0, f"status {process.returncode} with a closed standard output")
    check(check_consistent(ctx.path("piped")) == len(records), "reads were lost with a closed stdout")


def case_few_file_descriptors(ctx):
    records, _ = ctx.simulate("fd", 1500, 61)
    # 60 run ids x the kit's barcodes: far more output files than descriptors.
    split_into_files(ctx.path("in"), many_run_ids(records), ["a.fastq", "b.fastq"])
    for extra in ([], ["--compress_fastq", "-q", "3"]):
        save = "out" + str(len(extra))
        result = run_with_few_descriptors(ctx, barcoder_args("in", save, "-t", "2", *extra))
        check(result.returncode == 0, f"status {result.returncode} under ulimit -n 64\n{result.stdout[-2000:]}")
        check(check_consistent(ctx.path(save)) == len(records), "reads were lost under ulimit -n 64")
        series = {(folder, name.rsplit("_", 1)[0]) for folder, name, _ in output_reads(ctx.path(save)).values()}
        check(len(series) > 200, f"only {len(series)} output series: the case does not test eviction")


def case_mixed_barcodes(ctx):
    records, _ = ctx.simulate("mixed", 800, 23)
    kinds = read_truth_kinds(ctx.path("sim_mixed", "truth.tsv"))
    split_into_files(ctx.path("in"), records, ["a.fastq", "b.fastq.gz"])
    ctx.run(barcoder_args("in", "plain", "--unclassified_reason_column"))
    ctx.run(barcoder_args("in", "strict", "--reject_mixed_barcodes", "--unclassified_reason_column"))
    _, plain = read_summary(ctx.path("plain", SUMMARY), 19)
    _, strict = read_summary(ctx.path("strict", SUMMARY), 19)
    chimeras = [rid for rid, kind in kinds.items() if kind[0] == "chimera"]
    check(len(chimeras) >= 20, f"only {len(chimeras)} chimeras simulated")
    for rid in chimeras:
        # Without the switch a chimera goes to one of its two barcodes, as before.
        check(plain[rid][1] in kinds[rid][1:], f"chimera {rid} called {plain[rid][1]} without the switch")
    rejected = [rid for rid in chimeras if strict[rid][18] == "mixed barcodes"]
    check(len(rejected) >= 0.9 * len(chimeras), f"only {len(rejected)} of {len(chimeras)} chimeras rejected")
    for rid in rejected:
        check(strict[rid][1] == "unclassified", f"{rid} has a reason but is classified")
    for rid, row in strict.items():
        if kinds[rid][0] in ("double", "front"):
            check(row[1] == plain[rid][1], f"the switch changed the call of {kinds[rid][0]} read {rid}")
        # A reason exactly for the unclassified rows.
        check((row[1] == "unclassified") == (row[18] != ""), f"{rid}: reason '{row[18]}' for {row[1]}")
    # Each read counted once, per reason, adding up to the unclassified total.
    log = "".join(open(os.path.join(ctx.path("strict"), name)).read() for name in os.listdir(ctx.path("strict"))
                  if name.endswith(".log"))
    reasons = collections.Counter(row[18] for row in strict.values() if row[18])
    for reason, count in reasons.items():
        check(f"unclassified, {reason}: {count}" in log, f"report lacks '{reason}: {count}'")
    unclassified = sum(1 for row in strict.values() if row[1] == "unclassified")
    check(sum(reasons.values()) == unclassified, "reasons do not add up to the unclassified reads")
    check(f"Mixed barcodes: {len(rejected)}." in log, "mixed reads not counted in the report")

    ctx.run(barcoder_args("in", "both", "--require_barcodes_both_ends", "--min_score", "50"))
    _, rows = read_summary(ctx.path("both", SUMMARY), 18)
    classified = [row for row in rows.values() if row[1] != "unclassified"]
    check(len(classified) > len(rows) // 2, "too few reads classified with both ends required")
    for row in classified:
        check(float(row[7]) >= 50 and float(row[13]) >= 50, f"{row[0]} classified without both barcodes")


def case_barcode_quality(ctx):
    """The quality column sits before the reason column and is 0 exactly for
    unclassified reads; --min_barcode_quality moves the calls below it, and
    only those, to unclassified with their reason; the report counts them and
    gives each arrangement's expected wrong calls within the rounding of the
    qualities."""
    records, _ = ctx.simulate("quality", 600, 41, ["a.fastq"])
    columns = ["--barcode_quality_column", "--unclassified_reason_column"]
    ctx.run(barcoder_args("in", "plain", *columns))
    header, plain = read_summary(ctx.path("plain", SUMMARY), 20)
    check(header[18:] == ["barcode_quality", "barcode_unclassified_reason"], f"columns {header[18:]}")
    for rid, row in plain.items():
        check(0 <= int(row[18]) <= 60, f"{rid}: quality {row[18]}")
        check((row[1] == "unclassified") == (row[19] != ""), f"{rid}: {row[1]} with reason '{row[19]}'")
        check(row[1] != "unclassified" or row[18] == "0", f"{rid}: unclassified of quality {row[18]}")
    qualities = sorted(int(row[18]) for row in plain.values() if row[1] != "unclassified")
    check(len(set(qualities)) > 3, f"too few distinct qualities to test with: {set(qualities)}")
    with open(ctx.path("plain", "barcoding_report.json")) as handle:
        report = json.load(handle)
    for name, figures in report["arrangements"].items():
        q = [int(row[18]) for row in plain.values() if row[1] == name]
        if name == "unclassified":
            check(figures["expected_wrong_calls"] == 0, "unclassified reads count as expected wrong calls")
            continue
        # Each quality q stands for a probability between 10^(-(q + 0.5) / 10) and 10^(-(q - 0.5) / 10).
        low = sum(10 ** (-(x + 0.5) / 10) for x in q if x < 60)
        high = sum(10 ** (-(x - 0.5) / 10) for x in q)
        check(low <= figures["expected_wrong_calls"] <= high, f"{name}: {figures['expected_wrong_calls']} expected "
              f"wrong calls, qualities give {low} .. {high}")

    for bar in (qualities[len(qualities) // 4], qualities[len(qualities) // 2], 60):
        save = f"bar{bar}"
        ctx.run(barcoder_args("in", save, "--min_barcode_quality", str(bar), *columns))
        _, strict = read_summary(ctx.path(save, SUMMARY), 20)
        moved = 0
        for rid, row in strict.items():
            before = plain[rid]
            if before[1] != "unclassified" and int(before[18]) < bar:
                moved += 1
                check(row[1] == "unclassified" and row[19] == "low barcode quality" and row[18] == "0",
                      f"{rid} of quality {before[18]} kept below {bar}: {row[1]} {row[19]}")
            else:
                check(row == before, f"{rid} changed by --min_barcode_quality {bar}")
        with open(ctx.path(save, "barcoding_report.json")) as handle:
            reasons = json.load(handle)["unclassified_reasons"]
        check(reasons["low_barcode_quality"] == moved, f"{moved} reads moved, {reasons} in the report")
        unclassified = sum(row[1] == "unclassified" for row in strict.values())
        check(sum(reasons.values()) == unclassified, f"reasons {reasons} do not add up to {unclassified}")
    ctx.run(barcoder_args("in", "refused", "--min_barcode_quality", "61"), expect=255)


def case_simd_builds_agree(ctx):
    records, _ = ctx.simulate("simd", 300, 24, ["a.fastq", "b.fastq.gz"])
    with open("/proc/cpuinfo") as handle:
        flags = handle.read()
    builds = ["generic", "sse41", "avx2"] + (["avx512"] if " avx512bw" in flags and " avx512vl" in flags else [])
    trees = {}
    for build in builds:
        env = dict(os.environ, VB_SIMD=build)
        save = "out_" + build
        result = subprocess.run([ctx.binary] + barcoder_args("in", save, "-t", "2", "--compress_fastq"),
                                cwd=ctx.work, capture_output=True, text=True, env=env, timeout=100)
        check(result.returncode == 0, f"VB_SIMD={build}: status {result.returncode}\n{result.stdout[-2000:]}")
        trees[build] = tree_bytes(ctx.path(save))
    for build in builds[1:]:
        check(trees[build] == trees["generic"], f"output with VB_SIMD={build} differs from the generic build's")


def case_help_and_kits(ctx):
    result = ctx.run([])
    check(result.stdout.startswith("\nUsage:\n") and "--barcode_kits" in result.stdout,
          f"usage text:\n{result.stdout[:400]}")
    result = ctx.run(["--print_kits"])
    check(result.stdout.startswith("Available barcoding kits are:\n"), f"kit listing:\n{result.stdout[:400]}")
    for kit in ("VB-NB24", "VB-NB96", "VB-RB12"):
        check(kit in result.stdout, f"{kit} missing from the kit listing")
    result = ctx.run(["--print_kits", "--arrangements_files", ""], expect=255)
    check("No arrangements files specified!" in result.stdout + result.stderr, "empty arrangements_files message")


def tunables_once_waiting(process, wanted, seconds=20):
    """GLIBC_TUNABLES of a running program (None when unset), read once it
    starts with `wanted` (or after `seconds`): the program waits on its
    standard input meanwhile."""
    deadline = time.monotonic() + seconds
    while True:
        with open(f"/proc/{process.pid}/environ", "rb") as f:
            variables = dict(v.split(b"=", 1) for v in f.read().split(b"\0") if b"=" in v)
        value = variables.get(b"GLIBC_TUNABLES")
        if (wanted is not None and value is not None and value.startswith(wanted)) or time.monotonic() > deadline:
            return value


def case_heap_pages(ctx):
    """The program restarts itself with huge heap pages asked of glibc, where
    the system lends them on request, keeping its arguments, input, output
    and status; a GLIBC_TUNABLES the user set is left as it is."""
    records, _ = ctx.simulate("pages", 40, 31, ["a.fastq"])
    try:
        with open("/sys/kernel/mm/transparent_hugepage/enabled") as f:
            on_request = "[madvise]" in f.read()
    except OSError:
        on_request = False
    base = {k: v for k, v in os.environ.items() if k not in ("GLIBC_TUNABLES", "LD_PRELOAD")}
    # The restart asks for more than huge pages, but glibc may shorten the
    # variable it was started with to its first setting.
    asked = b"glibc.malloc.hugetlb=1"
    for name, user_value, expected in (("asked", None, asked if on_request else None),
                                       ("users", "glibc.malloc.perturb=0", b"glibc.malloc.perturb=0")):
        env = dict(base) if user_value is None else dict(base, GLIBC_TUNABLES=user_value)
        process = subprocess.Popen([ctx.binary] + barcoder_args("", name), stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd=ctx.work, env=env)
        try:
            value = tunables_once_waiting(process, expected, 20 if expected else 1)
            output, _ = process.communicate((ctx.path("in", "a.fastq") + "\n").encode(), timeout=100)
        finally:
            process.kill()
        check(value == expected if expected is None else value is not None and value.startswith(expected),
              f"{name}: GLIBC_TUNABLES {value!r}, expected {expected!r}")
        check(process.returncode == 0, f"{name}: status {process.returncode}\n{output.decode()[-2000:]}")
        _, rows = read_summary(ctx.path(name, SUMMARY), 18)
        check(set(rows) == {read_id(r[0]) for r in records}, f"{name}: the summary does not hold the input reads")


# ---------------------------------------------------------------- refused settings

EARLIER = "earlier run\n"


def prepare_earlier_run(ctx, reads=10, seed=30):
    """An input folder and a save folder holding an earlier run's summary and
    one FASTQ file, which a refused run must leave exactly as they are."""
    records, _ = ctx.simulate("refused", reads, seed, ["a.fastq"])
    os.makedirs(ctx.path("out", "barcode01"), exist_ok=True)
    with open(ctx.path("out", SUMMARY), "w") as handle:
        handle.write(EARLIER)
    write_fastq(ctx.path("out", "barcode01", "fastq_runid_old_0.fastq"), records[:1])


def check_refused(ctx, args, message, stdin_text=None):
    result = ctx.run(args, expect=255, stdin_text=stdin_text)
    text = result.stdout + result.stderr
    check(message in text, f"{' '.join(args)}: message {message!r} missing:\n{text[-2000:]}")
    with open(ctx.path("out", SUMMARY)) as handle:
        check(handle.read() == EARLIER, f"{' '.join(args)}: the earlier summary was touched")
    outputs = sorted(os.path.relpath(os.path.join(d, f), ctx.path("out"))
                     for d, _, fs in os.walk(ctx.path("out")) for f in fs if f.startswith("fastq_"))
    check(outputs == [os.path.join("barcode01", "fastq_runid_old_0.fastq")],
          f"{' '.join(args)}: FASTQ output changed: {outputs}")
    return result


def case_refused_runs(ctx):
    """Settings, kit files and paths the program refuses: the run names the
    fault (on standard error alone with --quiet) and leaves an earlier run's
    output as it was, creating no save folder either."""
    prepare_earlier_run(ctx)
    a_file = ctx.path("in", "a.fastq")
    refused = [
        (["--open_gap1", "-3"], "Invalid value -3 for 'open_gap1': must be between 0 and 1000."),
        (["--min_score", "nan"], "Invalid value nan for 'min_score': must be a finite number."),
        (["-t", "100000"], "Invalid value 100000 for 'worker_threads': must be between 1 and 1024."),
        (["--worker_threads", "0"], "Invalid number of threads: 0"),
        (["--trim_barcodes", "--num_extra_bases_trim", "2147483647"],
         "Invalid value 2147483647 for 'num_extra_bases_trim': must be between -10000 and 10000."),
        (["--num_extra_bases_trim", "3"], "Must specify trim_barcodes flag when altering num_extra_bases_trim."),
        (["--score_matrix_filename", "no_such_matrix.txt"], "no_such_matrix.txt"),
        (["--output_format", "sam"], "Unknown output format 'sam': use fastq or bam"),
        # Sample sheets: the unit tests pin every fault's message; here one
        # fault of the sheet, one against the selected kits, a missing sheet.
        (["--sample_sheet", "twice.tsv"],
         "Sample sheet 'twice.tsv', line 3: the arrangement 'barcode01' is already listed on line 2."),
        (["--sample_sheet", "missing.tsv"], "Could not open the sample sheet 'missing.tsv'"),
    ]
    for name, text in (("twice.tsv", "barcode01\tA\nbarcode01\tB\n"), ("rapid.tsv", "barcode13\tA\n")):
        with open(ctx.path(name), "w") as handle:
            handle.write("arrangement\tsample\n" + text)
    for extra, message in refused:
        check_refused(ctx, barcoder_args("in", "out", *extra), message)
    for args, message in ((["-i", "in", "-s", "out", "--barcode_kits", "NOPE"],
                           'Could not match any specified kit(s) "NOPE" with any compatible kits in the loaded '
                           'configurations.'),
                          (["-i", "in"], "Missing required option 'save_path'."),
                          (barcoder_args("absent", "out"), "Input path 'absent' does not exist"),
                          (barcoder_args(a_file, "out"), f"Input path '{a_file}' is not a folder"),
                          (barcoder_args("in", a_file), f"Save path '{a_file}' exists and is not a folder"),
                          (["-i", "in", "-s", "out", "--barcode_kits", "VB-RB12", "--sample_sheet", "rapid.tsv"],
                           "'barcode13' is not an arrangement of the selected kits"),
                          # A front-only kit can never satisfy the requirement.
                          (["-i", "in", "-s", "out", "--arrangements_files", "vb_rb12.ini",
                            "--require_barcodes_both_ends"], "All configurations only have one barcode, so "
                                                             "'require_barcodes_both_ends' cannot be specified")):
        check_refused(ctx, args, message)
    # A kit file fault (the unit tests pin each one's message): an arrangement
    # name that would lead out of the save folder.
    source = os.path.join(ctx.source, "data", "barcoding")
    shutil.copy(os.path.join(source, "vb_rapid_barcodes.fasta"), ctx.path("vb_rapid_barcodes.fasta"))
    with open(os.path.join(source, "vb_rb12.ini")) as handle, open(ctx.path("escape.ini"), "w") as escape:
        escape.write(handle.read().replace("normalised_id = barcode%02i", "normalised_id = ../x%02i"))
    check_refused(ctx, ["-i", "in", "-s", "out", "--arrangements_files", ctx.path("escape.ini")],
                  "normalised_id '../x01' in section [RB12_barcode%02i] of escape.ini cannot be used as a folder name")
    check(not os.path.exists(ctx.path("x01")), "a read was written outside the save folder")
    # Refused before and after logging is set up, --quiet still says why, on standard error.
    for args in (barcoder_args("in", "out", "--open_gap1", "-3"), ["-i", "in", "-s", "out", "--barcode_kits", "NOPE"],
                 barcoder_args("in", "out", "--sample_sheet", "twice.tsv")):
        result = check_refused(ctx, args + ["--quiet"], "")
        check(result.stdout == "" and result.stderr != "", f"{args}: message expected on stderr only")
    ctx.run(barcoder_args("absent", "fresh"), expect=255)
    check(not os.path.exists(ctx.path("fresh")), "a refused run created its save folder")


# ---------------------------------------------------------------- paths and discovery

NOBODY = 65534


def ordinary_user(ctx, what):
    """The user to run a permission case as: None (ourselves) unless we are
    root, whom no mode stops; then nobody, after checking that nobody can reach
    the work folder (the case is skipped otherwise)."""
    if os.geteuid() != 0:
        return None
    if subprocess.run(["ls", ctx.path("in")], user=NOBODY, capture_output=True).returncode != 0:
        raise Skip(f"running as root and an ordinary user cannot reach the work folder, so {what} cannot be checked")
    return NOBODY


def case_discovery_unreadable_folder(ctx):
    records, _ = ctx.simulate("locked", 40, 33)
    split_into_files(ctx.path("in"), records[:20], ["a.fastq"])
    split_into_files(ctx.path("in", "open"), records[20:30], ["b.fastq"])
    split_into_files(ctx.path("in", "locked"), records[30:], ["c.fastq"])
    os.chmod(ctx.path("in", "locked"), 0)
    if os.geteuid() == 0:
        # Root reads every folder; an ordinary user runs instead.
        for folder in (ctx.path("in"), ctx.path("in", "open")):
            os.chmod(folder, 0o755)
        os.makedirs(ctx.path("out"))
        os.chown(ctx.path("out"), NOBODY, -1)
    user = ordinary_user(ctx, "folder permissions")
    try:
        result = ctx.run(barcoder_args("in", "out", "-r"), user=user)
        # The unreadable folder as the input folder is an error, not an empty run.
        refused = ctx.run(barcoder_args(os.path.join("in", "locked"), "out"), user=user, expect=255)
    finally:
        os.chmod(ctx.path("in", "locked"), 0o755)
    check(f"Cannot read input folder '{os.path.join('in', 'locked')}': Permission denied" in refused.stdout,
          f"message missing:\n{refused.stdout}")
    check("Found 2 fastq files." in result.stdout, f"the readable files were not all found:\n{result.stdout[-2000:]}")
    check(f"Skipping '{os.path.join('in', 'locked')}': Permission denied" in result.stdout,
          "no warning naming the unreadable folder")
    _, rows = read_summary(ctx.path("out", SUMMARY), 18)
    check(set(rows) == {read_id(r[0]) for r in records[:30]}, "the reads of the readable files are not all there")


def case_discovery(ctx):
    """Links to nowhere or to themselves are named and passed over; output
    below the input folder is never read back in, also by a second run; the
    input folder as save folder has its subfolders left unsearched, as has
    every run without -r; without -i the files listed on standard input are
    read. (Which names count: the unit tests.)"""
    records, _ = ctx.simulate("entries", 60, 32)
    split_into_files(ctx.path("in"), records[:40], [f"f{k:02d}.fastq" for k in range(20)])
    split_into_files(ctx.path("in", "sub"), records[40:], ["b.fastq"])
    os.symlink("loop", ctx.path("in", "loop"))
    os.symlink("self.fastq", ctx.path("in", "self.fastq"))
    for save, found, reads in ((os.path.join("in", "out"), 21, records), ("INPUT_PATH", 20, records[:40])):
        for _ in range(2):  # the second run finds the first one's output
            result = ctx.run(barcoder_args("in", save, "-r"))
            check(f"Found {found} fastq files." in result.stdout, f"files missed or output read:\n{result.stdout}")
            for link in ("loop", "self.fastq"):
                check(f"Skipping '{os.path.join('in', link)}': " in result.stdout, f"no warning naming {link}")
            _, rows = read_summary(ctx.path("in" if save == "INPUT_PATH" else save, SUMMARY), 18)
            check(set(rows) == {read_id(r[0]) for r in reads}, f"{save}: the summary does not hold the input reads")
    check("Not searching the subfolders of 'in': it is also the save folder" in result.stdout,
          "no warning that the subfolders were not searched")
    result = ctx.run(barcoder_args("in", "flat"))
    check("Found 20 fastq files." in result.stdout, f"without -r subfolders were searched:\n{result.stdout}")
    # Without -i the files are those listed on standard input.
    listing = "".join(ctx.path("in", name) + "\n" for name in ("f00.fastq", "f01.fastq", "sub/b.fastq"))
    ctx.run(barcoder_args("", "listed"), stdin_text=listing)
    _, rows = read_summary(ctx.path("listed", SUMMARY), 18)
    check(set(rows) == {read_id(r[0]) for r in records[0:40:20] + records[1:40:20] + records[40:]}, "listed files")


CASES = {name[len("case_"):]: fn for name, fn in globals().items() if name.startswith("case_")}


def main(cases):
    """Runs one case of `cases` (name -> function of a Context), given by the
    command line; returns the exit status for CTest. Other drivers of this
    folder call it with their own cases."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--binary", required=True)
    parser.add_argument("--source", required=True)
    parser.add_argument("--work", required=True)
    parser.add_argument("--case", required=True, choices=sorted(cases))
    args = parser.parse_args()
    work = os.path.join(os.path.abspath(args.work), args.case)
    unmount_below(work)
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    try:
        cases[args.case](Context(os.path.abspath(args.binary), os.path.abspath(args.source), work))
    except Failure as failure:
        print(f"FAIL {args.case}: {failure}")
        return 1
    except Skip as reason:
        print(f"SKIP {args.case}: {reason}")
        return SKIPPED
    print(f"ok {args.case}")
    return 0


if __name__ == "__main__":
    sys.exit(main(CASES))
