#!/usr/bin/env python3
"""End-to-end checks: the vorpa_barcoder binary on simulated reads (fixed seeds), each case in a fresh folder.
Cases needing samtools, Chromium or MultiQC skip without them (scripts/install-deps.sh installs them).

Usage: e2e_driver.py --binary BIN --source REPO --work DIR --case NAME
"""

import argparse
import collections
import gzip
import json
import multiprocessing
import os
import pathlib
import random
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ElementTree
from unittest import SkipTest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import bam_file  # noqa: E402

SUMMARY = "barcoding_summary.txt"
REPORTS = ("barcoding_report.json", "barcoding_report.html", "barcoding_mqc.json", "barcoding_stats_mqc.json")
KIT = "VB-NB24"
NOBODY = 65534
SECTIONS = ["summary", "arrangements", "lengths", "scores", "quality", "unclassified", "events", "losses", "settings"]


def check(condition, message):
    if not condition:
        raise AssertionError(message)


class Context:
    """A case's work folder and the program under test; paths are relative to the folder."""

    def __init__(self, binary, source, work):
        self.binary, self.source, self.work = binary, source, work

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def run(self, args, expect=0, **options):
        """The program's result; options go to subprocess.run (input, user, env, preexec_fn)."""
        result = subprocess.run([self.binary] + args, capture_output=True, text=True, cwd=self.work, timeout=100,
                                **options)
        if expect is not None and result.returncode != expect:
            raise AssertionError(f"{' '.join(args)}: status {result.returncode}, expected {expect}\n"
                                 f"stdout:\n{result.stdout[-3000:]}\nstderr:\n{result.stderr[-3000:]}")
        return result

    def start(self, args, **options):
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True, **options}
        return subprocess.Popen([self.binary] + args, cwd=self.work, **options)

    def simulate(self, name, reads, seed, *extra, kit=KIT, files=(), folder="in"):
        """Simulated (title, sequence, quality) records, also written round-robin into files, and truth rows."""
        fastq, truth = self.path(f"sim_{name}.fastq"), self.path(f"sim_{name}.tsv")
        subprocess.run([sys.executable, os.path.join(self.source, "tools", "simulate_reads.py"), "-o", fastq,
                        "--truth", truth, "--kit", kit, "-n", str(reads), "--seed", str(seed), *extra],
                       check=True, capture_output=True)
        records = read_fastq(fastq)
        self.split(folder, records, files)
        columns, *rows = [line.split("\t") for line in self.read(truth).splitlines()]
        return records, {row[0]: dict(zip(columns, row)) for row in rows}

    def many_reads(self, name, seed, reads):
        """Short reads over several batches; VB_E2E_SCALE shrinks them for slow (sanitizer) builds."""
        reads = max(1000, int(reads * float(os.environ.get("VB_E2E_SCALE", "1"))))
        return self.simulate(name, reads, seed, "--median-length", "300")[0]

    def read(self, name):
        return pathlib.Path(self.path(name)).read_text()

    def write(self, name, text):
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with (gzip.open if name.endswith(".gz") else open)(self.path(name), "wt") as handle:
            handle.write(text)
        return name

    def write_fastq(self, name, records):
        self.write(name, "".join(f"{t}\n{s}\n+\n{q}\n" for t, s, q in records))

    def split(self, folder, records, names):
        for k, name in enumerate(names):
            self.write_fastq(os.path.join(folder, name), records[k::len(names)])

    def write_sam(self, name, lines):
        """SAM lines as BAM or CRAM (by the name), by samtools."""
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        subprocess.run(["samtools", "view", "-C" if name.endswith(".cram") else "-b", "-o", self.path(name), "-"],
                       input="\n".join(lines) + "\n", text=True, check=True, capture_output=True)

    def configuration(self, name, *lines):
        """The shipped configuration file with lines added, as a -c argument."""
        shipped = self.read(os.path.join(self.source, "data", "barcoding", "configuration.cfg"))
        return ["-c", "./" + self.write(name, shipped + "\n" + "".join(line + "\n" for line in lines))]

    def summary(self, save, columns=18):
        """(header, read id -> row) of a summary file, every row whole and once."""
        lines = self.read(os.path.join(save, SUMMARY)).split("\n")
        check(lines[-1] == "" and len(lines) > 1, f"{save}: the summary is empty or does not end in a newline")
        rows = [line.split("\t") for line in lines[:-1]]
        check(all(len(row) == columns for row in rows), f"{save}: rows not of {columns} columns")
        check(rows[0][:2] == ["read_id", "barcode_arrangement"], f"unexpected header {rows[0]}")
        check(len({row[0] for row in rows}) == len(rows), f"{save}: a read id appears more than once")
        return rows[0], {row[0]: row for row in rows[1:]}

    def rows(self, save, columns=18):
        return self.summary(save, columns)[1]

    def report(self, save, name="barcoding_report.json"):
        return json.loads(self.read(os.path.join(save, name)))

    def files(self, save):
        for folder, _, names in os.walk(self.path(save)):
            for name in names:
                yield os.path.relpath(folder, self.path(save)), name, os.path.join(folder, name)

    def outputs(self, save):
        """read id -> (folder below save, file name, record) of every FASTQ (as a dict) and BAM record, none twice."""
        found = {}
        for folder, name, path in self.files(save):
            if name.startswith("fastq_runid_"):
                records = [{"name": read_id(t), "title": t, "seq": s, "qual": q} for t, s, q in read_fastq(path)]
            elif name.endswith(".bam"):
                check(name.startswith("bam_runid_"), f"unexpected output file {name}")
                records = read_bam(path)[1]
            else:
                continue
            for record in records:
                check(record["name"] not in found, f"read {record['name']} written twice")
                found[record["name"]] = (folder, name, record)
        return found

    def consistent(self, save, columns=18):
        """(summary rows, outputs) naming the same reads; every gzip file valid."""
        rows, written = self.rows(save, columns), self.outputs(save)
        packed = [path for _, name, path in self.files(save) if name.endswith(".gz")]
        check(not packed or subprocess.run(["gzip", "-t", *packed]).returncode == 0, f"invalid gzip in {save}")
        check(set(written) == set(rows), f"{save}: {len(set(rows) - set(written))} rows without record, "
                                         f"{len(set(written) - set(rows))} records without row")
        return rows, written

    def tree(self, save):
        """Relative path -> bytes of every output file but the logs and reports, which hold timings and options."""
        return {os.path.normpath(os.path.join(folder, name)): pathlib.Path(path).read_bytes()
                for folder, name, path in self.files(save) if not name.endswith(".log") and name not in REPORTS}

    def samtools_counts(self, save):
        """samtools finds every BAM file whole; its count of reads per folder."""
        by_folder, counts = collections.defaultdict(list), collections.Counter()
        for folder, name, path in self.files(save):
            if name.endswith(".bam"):
                by_folder[folder].append(path)
        for folder, paths in by_folder.items():
            check(subprocess.run(["samtools", "quickcheck", "-u", *paths]).returncode == 0, f"{folder}: not whole")
            joined = subprocess.run(["samtools", "cat", *paths], capture_output=True, check=True).stdout
            view = subprocess.run(["samtools", "view", "-c", "-"], input=joined, capture_output=True, check=True)
            counts[folder] = int(view.stdout)
        return counts


def read_fastq(path):
    with (gzip.open if path.endswith(".gz") else open)(path, "rt") as handle:
        lines = handle.read().splitlines()
    check(len(lines) % 4 == 0, f"{path}: {len(lines)} lines, not a whole number of records")
    for i in range(0, len(lines), 4):
        check(lines[i].startswith("@") and lines[i + 2] == "+", f"{path}: bad record at line {i + 1}")
    return [(lines[i], lines[i + 1], lines[i + 3]) for i in range(0, len(lines), 4)]


def read_bam(path):
    """(header text, records as dicts of name, flag, seq, qual and tags); the file must be whole."""
    header, _, records = bam_file.read_bam(path, AssertionError)
    return header, [bam_file.decode(record) for record in records]


def read_id(title):
    return title[1:].split(" ", 1)[0]


def fields(title):
    return dict(field.split("=", 1) for field in title.split(" ")[1:] if "=" in field)


def args(inputs, save, *extra):
    return ["-i", inputs, "-s", save, "--barcode_kits", KIT] + list(extra)


def counted(rows, column=1):
    return collections.Counter(row[column] for row in rows.values())


def tag(record, name):
    return next((value for t, _, value in record["tags"] if t == name), None)


def need(program, what):
    if shutil.which(program) is None:
        raise SkipTest(f"{program} is not installed (scripts/install-deps.sh {what} installs it)")
    return shutil.which(program)


def sam(rid, seq, qual, *tags, flag=4, pos=100):
    """A SAM line: unmapped (flag 4), or mapped at pos, reverse complemented with flag 16."""
    if flag & 16:
        seq, qual = seq.translate(str.maketrans("ACGT", "TGCA"))[::-1], qual[::-1]
    where = "*\t0\t0\t*" if flag & 4 else f"ref\t{pos}\t60\t{len(seq)}M"
    return "\t".join([rid, str(flag), where, "*\t0\t0", seq, qual, *tags])


def case_classification(ctx):
    """Calls against the truth, filed once under their call; reads without a run id dropped; trims as summarised."""
    records, truth = ctx.simulate("cls", 270, 11)
    kept, stripped = {read_id(r[0]): r for r in records[:240]}, {read_id(r[0]) for r in records[240:]}
    records[240:] = [(t.replace(f" runid={fields(t)['runid']}", ""), s, q) for t, s, q in records[240:]]
    ctx.split("in", records, ["a.fastq", "b.fastq.gz", "c.fastq"])
    result = ctx.run(args("in", "out", "-t", "2", "-q", "4"))
    rows, written = ctx.consistent("out")
    check(rows.keys() == kept.keys(), "the summary does not hold exactly the reads with a run id")
    unnamed = [r for r in stripped if f"ID for read with ID {r}. This read will not be processed." not in result.stdout]
    check(not unnamed and result.stdout.count("Could not find 'runid='") == len(stripped), f"drop messages: {unnamed}")
    # Standard output is a pipe here: the progress bar still ends before the time is reported.
    check("*" * 51 + "\n[info] Done in " in result.stdout, f"the bar does not end before 'Done in':\n{result.stdout}")
    expected = {rid: row["front"] if row["kind"] in ("double", "front") else "unclassified" if row["kind"] == "none"
                else None for rid, row in truth.items()}
    barcoded = [rid for rid in rows if expected[rid] not in (None, "unclassified")]
    correct = sum(rows[rid][1] == expected[rid] for rid in barcoded)
    check(len(barcoded) > 150 and correct >= 0.9 * len(barcoded), f"{correct} of {len(barcoded)} called correctly")
    wrong = [rid for rid in rows if expected[rid] is not None and rows[rid][1] not in (expected[rid], "unclassified")]
    check(len(wrong) <= 0.02 * len(rows), f"{len(wrong)} reads given a barcode they do not carry")
    series = collections.defaultdict(collections.Counter)
    for rid, (folder, name, record) in written.items():
        check(folder == rows[rid][1], f"{rid} filed under {folder}, classified {rows[rid][1]}")
        check((record["title"], record["seq"], record["qual"]) == (kept[rid][0] + " barcode=" + folder, *kept[rid][1:]),
              f"{rid} written as {record}")
        run_id, index = name[len("fastq_runid_"):-len(".fastq")].rsplit("_", 1)
        series[(folder, run_id)][int(index)] += 1
    for key, files in series.items():
        full, rest = divmod(sum(files.values()), 4)
        check(files == {i: 4 if i < full else rest for i in range(full + (rest > 0))}, f"{key}: files {files}")

    ctx.run(args("in", "trim", "--trim_barcodes"))
    header, trim = ctx.summary("trim", 20)
    check(header[18:] == ["barcode_front_total_trimmed", "barcode_rear_total_trimmed"], f"header {header}")
    for rid, (_, _, record) in ctx.consistent("trim", 20)[1].items():
        front, rear = int(trim[rid][18]), int(trim[rid][19])
        seq, qual = (bases[front:len(bases) - rear] for bases in kept[rid][1:])
        check(record["seq"] and (record["seq"], record["qual"]) == (seq, qual),
              f"{rid}: output is not the input less {front} front and {rear} rear bases, or empty")
        check(trim[rid][1] == "unclassified" or front + rear > 0, f"classified read {rid} was not trimmed")

    # A window too short for the kit's 42-base references is said at the start, per barcode and end.
    narrow = ctx.run(args("in", "narrow", "--front_window_size", "40")).stdout
    check("' is 42 bases long, longer than the front window (40 bases): it cannot be found whole there." in narrow
          and "longer than the rear window" not in narrow and "longer than the" not in result.stdout,
          f"window warnings:\n{narrow[-3000:]}")
    # Two arrangements of one kit with the same sequences, which no read could tell apart: said at the start.
    shutil.copy(os.path.join(ctx.source, "data", "barcoding", "vb_barcodes.fasta"), ctx.work)
    ctx.write("twins.ini", "[loading_options]\nbarcodes_filename = vb_barcodes.fasta\ndouble_barcodes_revcmpl = false\n"
              "double_variants_frontrear = false\nappend_indicator_fwdbwd = false\n" +
              "".join(f"[{name}]\nkit = TW\nbarcode1 = {barcode}\ncompatible_kits = TW\n"
                      for name, barcode in (("one", "VB01"), ("two", "VB02"), ("again", "VB01"))))
    twins = ctx.run(["-i", "in", "-s", "twins", "--arrangements_files", ctx.path("twins.ini"),
                     "--barcode_kits", "TW"]).stdout
    check("Arrangements 'one' and 'again' of kit 'TW' carry the same barcode sequences and cannot be told apart: "
          "their reads are all called 'one'." in twins and "'two'" not in twins and "cannot be told" not in narrow,
          f"twin warnings:\n{twins[-3000:]}")


def case_unclassified_reasons(ctx):
    """Chimeras, --min_barcode_quality and the reasons and qualities of calls, counted in log and report."""
    _, truth = ctx.simulate("mixed", 800, 23, files=["a.fastq", "b.fastq.gz"])

    def run(save, *extra):
        ctx.run(args("in", save, "--barcode_quality_column", "--unclassified_reason_column", *extra))
        header, rows = ctx.summary(save, 20)
        check(header[18:] == ["barcode_quality", "barcode_unclassified_reason"], f"columns {header[18:]}")
        for rid, row in rows.items():
            check(0 <= int(row[18]) <= 60 and (row[1] == "unclassified") == (row[19] != "") and
                  (row[1] != "unclassified" or row[18] == "0"), f"{rid}: {row[1]}, quality {row[18]}, '{row[19]}'")
        reasons = ctx.report(save)["unclassified_reasons"]
        check(sum(reasons.values()) == counted(rows)["unclassified"], f"reasons {reasons} do not add up")
        return rows, reasons

    (plain, _), (strict, _) = run("plain"), run("strict", "--reject_mixed_barcodes")
    chimeras = [rid for rid, row in truth.items() if row["kind"] == "chimera"]
    rejected = [rid for rid in chimeras if strict[rid][19] == "mixed barcodes"]
    check(len(chimeras) >= 20 and len(rejected) >= 0.9 * len(chimeras), f"{len(rejected)} of {len(chimeras)}")
    check(all(plain[rid][1] in (truth[rid]["front"], truth[rid]["rear"]) for rid in chimeras), "chimeras' calls")
    check(all(truth[rid]["kind"] not in ("double", "front") or row[1] == plain[rid][1] for rid, row in strict.items()),
          "the switch changed the call of a read with one barcode")
    log = "".join(ctx.read(path) for _, name, path in ctx.files("strict") if name.endswith(".log"))
    counts = [f"unclassified, {reason}: {count}" for reason, count in counted(strict, 19).items() if reason]
    check(all(count in log for count in counts + [f"Mixed barcodes: {len(rejected)}."]), f"the log lacks {counts}")

    qualities = sorted(int(row[18]) for row in plain.values() if row[1] != "unclassified")
    check(len(set(qualities)) > 3, f"too few distinct qualities to test with: {set(qualities)}")
    for name, figures in ctx.report("plain")["arrangements"].items():
        q = [int(row[18]) for row in plain.values() if row[1] == name != "unclassified"]
        # Each quality q stands for a probability between 10^(-(q + 0.5) / 10) and 10^(-(q - 0.5) / 10).
        low, high = sum(10 ** (-(x + 0.5) / 10) for x in q if x < 60), sum(10 ** (-(x - 0.5) / 10) for x in q)
        check(low <= figures["expected_wrong_calls"] <= high, f"{name}: {figures}, qualities give {low} .. {high}")
    for bar in (qualities[len(qualities) // 4], qualities[len(qualities) // 2], 60):
        rows, reasons = run(f"bar{bar}", "--min_barcode_quality", str(bar))
        moved = [rid for rid, row in plain.items() if row[1] != "unclassified" and int(row[18]) < bar]
        check(reasons["low_barcode_quality"] == len(moved), f"{len(moved)} reads moved, {reasons} in the report")
        for rid, row in rows.items():
            check((row[1], row[18], row[19]) == ("unclassified", "0", "low barcode quality") if rid in moved else
                  row == plain[rid], f"{rid} of quality {plain[rid][18]} against {bar}: {row[1]} {row[19]}")


def case_thread_count_invariance(ctx):
    """Output bytes whatever the worker threads (set in a file: BAM names the command line) or SIMD build."""
    records = ctx.many_reads("threads", 20, 9000)
    bounds = [0, 700, 701, 4500, 6000, len(records)]
    for k in range(len(bounds) - 1):
        ctx.write_fastq(f"in/part{k}.fastq" + (".gz" if k % 2 else ""), records[bounds[k]:bounds[k + 1]])
    bam, trees = ["--output_format", "bam"], {}
    for name, extra, counts in (("plain", ["-q", "250"], "128"), ("packed", ["--compress_fastq", "-q", "250"], "128"),
                                ("trim", ["--trim_barcodes"], "128"), ("bam", bam, "14"),
                                ("bam_trim", bam + ["-q", "250", "--trim_barcodes"], "14")):
        for threads in counts:
            shutil.rmtree(ctx.path("out"), ignore_errors=True)
            ctx.run(ctx.configuration("threads.cfg", f"worker_threads = {threads}") + args("in", "out", *extra))
            trees[name + threads] = ctx.tree("out")
            check(trees[name + threads] == trees[name + "1"], f"{name}: output bytes depend on the worker threads")
        rows, _ = ctx.consistent("out", 20 if "--trim_barcodes" in extra else 18)
        check(len(rows) == len(records), f"{name}: {len(records)} reads in, {len(rows)} out")
    plain, packed = dict(trees["plain1"]), dict(trees["packed1"])
    check(plain.pop(SUMMARY) == packed.pop(SUMMARY), "the summary depends on --compress_fastq")
    check({name + ".gz": data for name, data in plain.items()} == {k: gzip.decompress(v) for k, v in packed.items()},
          "compressed output does not hold what the plain run wrote")
    flags = ctx.read("/proc/cpuinfo")
    for build in ["generic", "sse41", "avx2"] + (["avx512"] if " avx512bw" in flags and " avx512vl" in flags else []):
        ctx.run(args("in", build, "--compress_fastq", "-q", "250"), env=dict(os.environ, VB_SIMD=build))
        check(ctx.tree(build) == trees["packed1"], f"output with VB_SIMD={build} differs from the other builds'")


def case_disk_full(ctx):
    """A disk filling part way (tmpfs) or a file always full: status 1, named, summary and files agreeing."""
    records, _ = ctx.simulate("full", 8000, 41, "--median-length", "300", files=["a.fastq", "b.fastq.gz"])
    for extra, suffix in (([], ""), (["--compress_fastq"], ".gz")):
        ctx.run(args("in", "sized" + suffix, "-z", *extra))
        size = f"size={sum(len(data) for data in ctx.tree('sized' + suffix).values()) * 45 // 100 // 1024}k"
        os.makedirs(ctx.path("small"))
        if os.geteuid() == 0 and subprocess.run(["mount", "-t", "tmpfs", "-o", size, "tmpfs", "small"],
                                                cwd=ctx.work).returncode == 0:
            try:
                result = ctx.run(args("in", "small", "-t", "2", *extra), expect=1)
                written = len(ctx.consistent("small")[0])
                check(0 < written < len(records), f"{written} of {len(records)} reads written on a full disk")
                check("No space left on device while writing '" in result.stdout and
                      f"{written} reads were written" in result.stdout, f"not reported:\n{result.stdout[-2000:]}")
            finally:
                subprocess.run(["umount", ctx.path("small")])
        shutil.rmtree(ctx.path("small"))
        target = ctx.path("small", "barcode05", f"fastq_runid_{fields(records[0][0])['runid']}_0.fastq{suffix}")
        os.makedirs(os.path.dirname(target))
        os.symlink("/dev/full", target)
        result = ctx.run(args("in", "small", "-z", *extra), expect=1)
        check("No space left on device while writing '" in result.stderr and "barcode05" in result.stderr,
              "a quiet run must still say what failed:\n" + result.stderr[-2000:])
        # The batch that failed created that file, so it was removed with the rest of the batch.
        check(not os.path.lexists(target), "the failed file was left behind")
        ctx.consistent("small")
        shutil.rmtree(ctx.path("small"))


def many_run_ids(records, count=60):
    """The records spread over count run ids: far more output files than a small descriptor limit allows open."""
    return [(f"@{read_id(title)} runid=run{k % count:02d}", seq, qual) for k, (title, seq, qual) in enumerate(records)]


def case_signals(ctx):
    """SIGINT, SIGTERM: status 128 + signal, files whole and as summarised; a closed stdout stops nothing."""
    records = many_run_ids(ctx.many_reads("sig", 51, 3000))
    # Many copies under other read ids: a run long enough to interrupt.
    for copy in range(40):
        ctx.write_fastq(f"in/copy{copy}.fastq", [(f"@c{copy}_{t[1:]}", s, q) for t, s, q in records])
    for sig, extra in ((signal.SIGINT, ["--compress_fastq"]), (signal.SIGTERM, ["--output_format", "bam", "-q", "5"])):
        process = ctx.start(["-i", "in", "-s", sig.name, "--barcode_kits", "VB-NB96", "-t", "1", *extra])
        path, deadline = ctx.path(sig.name, SUMMARY), time.monotonic() + 120
        while time.monotonic() < deadline and process.poll() is None and not (
                os.path.exists(path) and os.path.getsize(path) > 4096):
            time.sleep(0.05)
        process.send_signal(sig)
        out, err = process.communicate(timeout=200)
        check(process.returncode == 128 + sig, f"status {process.returncode} after {sig.name}\n{out[-2000:]}{err}")
        check(f"Interrupted by {sig.name}" in out + err, "the interruption is not reported")
        written = len(ctx.consistent(sig.name)[0])
        check(0 < written < 40 * len(records), f"{written} reads written after {sig.name}")
    ctx.split("small", records, ["a.fastq", "b.fastq.gz"])
    process = ctx.start(args("small", "piped"))
    process.stdout.close()
    check(process.wait(timeout=120) == 0, f"status {process.returncode} with a closed standard output")
    check(len(ctx.consistent("piped")[0]) == len(records), "reads were lost with a closed stdout")


def case_few_file_descriptors(ctx):
    """Far more output files than descriptors (ulimit -n 64): FASTQ, gzip and BAM, with and without -q."""
    records = many_run_ids(ctx.simulate("fd", 1500, 61)[0])
    ctx.split("in", records, ["a.fastq", "b.fastq"])
    bam = ["--output_format", "bam"]
    for k, extra in enumerate(([], ["--compress_fastq", "-q", "3"], bam, bam + ["-q", "3"])):
        ctx.run(args("in", f"out{k}", "-t", "2", *extra),
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (64, 64)))
        rows, written = ctx.consistent(f"out{k}")
        check(len(rows) == len(records), "reads were lost under ulimit -n 64")
        check(all(folder == rows[rid][1] for rid, (folder, _, _) in written.items()), "a read not under its call")
        files = collections.Counter((folder, name) for folder, name, _ in written.values())
        check(len({(folder, name.rsplit("_", 1)[0]) for folder, name in files}) > 200, "too few series for eviction")
        check("-q" not in extra or (max(files.values()) <= 3 and any(n.endswith(("_1.bam", "_1.fastq.gz"))
                                                                      for _, n in files)), "files not cut at 3")
        check("bam" not in extra or not shutil.which("samtools") or
              ctx.samtools_counts(f"out{k}") == counted(rows), "samtools counts differ from the summary")


def case_heap_pages(ctx):
    """The restart asking glibc for huge heap pages keeps the run whole and leaves the user's GLIBC_TUNABLES alone."""
    records, _ = ctx.simulate("pages", 40, 31, files=["a.fastq"])
    pages = "/sys/kernel/mm/transparent_hugepage/enabled"
    on_request = os.path.exists(pages) and "[madvise]" in ctx.read(pages)
    base = {k: v for k, v in os.environ.items() if k not in ("GLIBC_TUNABLES", "LD_PRELOAD")}
    # The restart asks for more than huge pages, but glibc may shorten the variable to its first setting.
    for name, env, expected in (("asked", base, b"glibc.malloc.hugetlb=1" if on_request else None),
                                ("users", dict(base, GLIBC_TUNABLES="glibc.malloc.perturb=0"),
                                 b"glibc.malloc.perturb=0")):
        process = ctx.start(args("", name), stdin=subprocess.PIPE, stderr=subprocess.STDOUT, text=False, env=env)
        try:
            deadline = time.monotonic() + (20 if expected else 1)
            while True:  # the program waits on its standard input meanwhile
                with open(f"/proc/{process.pid}/environ", "rb") as f:
                    value = dict(v.split(b"=", 1) for v in f.read().split(b"\0") if b"=" in v).get(b"GLIBC_TUNABLES")
                if (expected and value and value.startswith(expected)) or time.monotonic() > deadline:
                    break
            output, _ = process.communicate((ctx.path("in", "a.fastq") + "\n").encode(), timeout=100)
        finally:
            process.kill()
        check(value is None if expected is None else value is not None and value.startswith(expected),
              f"{name}: GLIBC_TUNABLES {value!r}, expected {expected!r}")
        check(process.returncode == 0, f"{name}: status {process.returncode}\n{output.decode()[-2000:]}")
        check(ctx.rows(name).keys() == {read_id(r[0]) for r in records}, f"{name}: the summary lacks input reads")


def case_refused_runs(ctx):
    """Refusals name the fault and leave an earlier run's output alone; the usage text and kit listing."""
    usage, kits = ctx.run([]).stdout, ctx.run(["--print_kits"]).stdout
    check(usage.startswith("\nUsage:\n") and "--barcode_kits" in usage and kits.startswith("Available barcoding kits")
          and all(kit in kits for kit in ("VB-NB24", "VB-NB96", "VB-RB12")), f"usage or kit listing:\n{usage}{kits}")
    records, _ = ctx.simulate("refused", 10, 30, files=["a.fastq"])
    ctx.write_fastq("out/barcode01/fastq_runid_old_0.fastq", records[:1])
    ctx.write(f"out/{SUMMARY}", "earlier run\n")
    earlier = ctx.tree("out")
    ctx.write("twice.tsv", "arrangement\tsample\nbarcode01\tA\nbarcode01\tB\n")
    ctx.write("rapid.tsv", "arrangement\tsample\nbarcode13\tA\n")
    # A kit file whose arrangement name would lead out of the save folder.
    source = os.path.join(ctx.source, "data", "barcoding")
    shutil.copy(os.path.join(source, "vb_rapid_barcodes.fasta"), ctx.work)
    ctx.write("escape.ini", ctx.read(os.path.join(source, "vb_rb12.ini")).replace("= barcode%02i", "= ../x%02i"))
    a_file = ctx.path("in", "a.fastq")
    # Each message is pinned by a unit test: here one of each way a refusal reaches the user.
    for extra, message in (
            ("--open_gap1 -3", "Invalid value -3 for 'open_gap1': must be between 0 and 1000."),
            ("--min_score nan", "Invalid value nan for 'min_score': must be a finite number."),
            ("--num_extra_bases_trim 3", "Must specify trim_barcodes flag when altering num_extra_bases_trim."),
            ("-t 100000", "Invalid value 100000 for 'worker_threads': must be between 1 and 1024."),
            ("--worker_threads 0", "Invalid number of threads: 0"),
            ("--min_barcode_quality 61", "Invalid value 61 for 'min_barcode_quality': must be between 0 and 60."),
            ("--score_matrix_filename no_such_matrix.txt", "no_such_matrix.txt"),
            ("--output_format sam", "Unknown output format 'sam': use fastq or bam"),
            ("--internal_barcodes cut", "Unknown internal_barcodes 'cut': use ignore, reject or split"),
            ("--internal_count_column", "--internal_count_column needs --internal_barcodes reject or split"),
            ("--sample_sheet twice.tsv", "Sample sheet 'twice.tsv', line 3: the arrangement 'barcode01' is already"),
            ("--sample_sheet missing.tsv", "Could not open the sample sheet 'missing.tsv'"),
            (["--print_kits", "--arrangements_files", ""], "No arrangements files specified!"),
            (["-i", "in", "-s", "out", "--barcode_kits", "NOPE"], 'Could not match any specified kit(s) "NOPE"'),
            (["-i", "in"], "Missing required option 'save_path'."),
            (args("absent", "out"), "Input path 'absent' does not exist"),
            (args(a_file, "out"), f"Input path '{a_file}' is not a folder"),
            (args("in", a_file), f"Save path '{a_file}' exists and is not a folder"),
            (["-i", "in", "-s", "out", "--barcode_kits", "VB-RB12", "--sample_sheet", "rapid.tsv"],
             "'barcode13' is not an arrangement of the selected kits"),
            # A front-only kit can never satisfy the requirement.
            (["-i", "in", "-s", "out", "--arrangements_files", "vb_rb12.ini", "--require_barcodes_both_ends"],
             "All configurations only have one barcode, so 'require_barcodes_both_ends' cannot be specified"),
            (["-i", "in", "-s", "out", "--arrangements_files", ctx.path("escape.ini")],
             "normalised_id '../x01' in section [RB12_barcode%02i] of escape.ini cannot be used as a folder name")):
        command = extra if isinstance(extra, list) else args("in", "out", *extra.split())
        result = ctx.run(command, expect=255)
        check(message in result.stdout + result.stderr, f"{command}: {message!r} missing:\n{result.stdout[-2000:]}")
        check(ctx.tree("out") == earlier, f"{command}: the earlier run's output changed")
    check(not os.path.exists(ctx.path("x01")), "a read was written outside the save folder")
    # Refused before and after logging is set up, --quiet still says why, on standard error.
    for command in (args("in", "out", "--open_gap1", "-3"), ["-i", "in", "-s", "out", "--barcode_kits", "NOPE"],
                    args("in", "out", "--sample_sheet", "twice.tsv")):
        result = ctx.run(command + ["--quiet"], expect=255)
        check(result.stdout == "" and result.stderr != "", f"{command}: message expected on stderr only")
    ctx.run(args("absent", "fresh"), expect=255)
    check(not os.path.exists(ctx.path("fresh")), "a refused run created its save folder")


def case_discovery(ctx):
    """Bad links and unreadable folders passed over with a warning; output below the input never read back."""
    records, _ = ctx.simulate("entries", 90, 32)
    ctx.split("in", records[:60], [f"f{k:02d}.fastq" for k in range(20)] + ["sub/b.fastq"])
    os.symlink("loop", ctx.path("in", "loop"))
    os.symlink("self.fastq", ctx.path("in", "self.fastq"))
    for _ in range(2):  # the second run finds the first one's output
        result = ctx.run(args("in", "in/out", "-r"))
        check("Found 21 fastq files." in result.stdout, f"files missed or output read:\n{result.stdout}")
        check("Skipping 'in/loop': " in result.stdout and "Skipping 'in/self.fastq': " in result.stdout, "no warning")
        check(ctx.rows("in/out").keys() == {read_id(r[0]) for r in records[:60]}, "the summary lacks input reads")

    ctx.split("in2", records[60:], ["a.fastq", "open/b.fastq", "locked/c.fastq"])
    os.chmod(ctx.path("in2", "locked"), 0)
    user = None
    if os.geteuid() == 0:  # root reads every folder
        if subprocess.run(["ls", ctx.path("in2")], user=NOBODY, capture_output=True).returncode != 0:
            raise SkipTest("running as root and nobody cannot reach the work folder: unreadable folders not checked")
        os.makedirs(ctx.path("out2"))
        os.chown(ctx.path("out2"), NOBODY, -1)
        user = NOBODY
    result = ctx.run(args("in2", "out2", "-r"), user=user)
    refused = ctx.run(args("in2/locked", "out2"), user=user, expect=255)
    check("Cannot read input folder 'in2/locked': Permission denied" in refused.stdout, refused.stdout)
    check("Found 2 fastq files." in result.stdout and "Skipping 'in2/locked': Permission denied" in result.stdout,
          f"the readable files not all found, or no warning:\n{result.stdout[-2000:]}")
    check(ctx.rows("out2").keys() == {read_id(r[0]) for r in records[60::3] + records[61::3]}, "the readable reads")


def case_bam_round_trip(ctx):
    """FASTQ and BAM in and out give the same calls, trims and files; BAM output keeps tags and read groups."""
    need("samtools", "optional")
    records, _ = ctx.simulate("rt", 240, 71, files=["a.fastq", "b.fastq.gz"], folder="fq")
    runs = collections.defaultdict(list)
    for title, seq, qual in records:
        f = fields(title)
        runs[f["runid"]].append(sam(read_id(title), seq, qual, f"xc:i:{f['ch']}", f"xn:i:{f['read']}",
                                    f"xs:Z:{f['start_time']}"))
    check(len(runs) == 2, "the case needs the reads of two runs")
    groups = [f"@RG\tID:rg{k}\tPU:FLOWCELL1\tDS:model=fast runid={run} x=1" for k, run in enumerate(runs)]
    ctx.write_sam("bam/a.bam", groups + [line + f"\tRG:Z:rg{k}" for k, lines in enumerate(runs.values())
                                         for line in lines[::2]])
    ctx.write_sam("bam/b.bam", [line + f"\tri:Z:{run}" for run, lines in runs.items() for line in lines[1::2]])
    input_tags = {r["name"]: r["tags"] for name in ("a.bam", "b.bam") for r in read_bam(ctx.path("bam", name))[1]}
    out = {}
    for save, source, extra in (("fq_fq", "fq", []), ("fq_bam", "fq", ["--output_format", "bam"]),
                                ("bam_bam", "bam", ["--output_format", "bam", "-t", "2"])):
        result = ctx.run(args(source, save, "--trim_barcodes", "--barcode_quality_column", *extra))
        check("platform unit" not in result.stdout, "a warning about PU although DS names the run")
        rows, out[save] = ctx.consistent(save, 21)
        check(rows == ctx.rows("fq_fq", 21) and len(rows) == len(records), f"{save}: other rows")
    trimmed = 0
    for title, seq, _ in records:
        rid, run_id = read_id(title), fields(title)["runid"]
        folder, _, fastq = out["fq_fq"][rid]
        trimmed += len(fastq["seq"]) < len(seq)
        for save in ("fq_bam", "bam_bam"):
            bam_folder, bam_name, record = out[save][rid]
            check((bam_folder, bam_name, record["flag"], record["seq"], record["qual"]) ==
                  (folder, f"bam_runid_{run_id}_0.bam", 4, fastq["seq"], fastq["qual"]), f"{rid}: {save} differs")
            check([t[::2] for t in record["tags"][-2:]] == [("ar", rows[rid][1]), ("bq", int(rows[rid][20]))],
                  f"{rid}: {save} ends in tags {record['tags'][-2:]}, not ar and bq as the summary has them")
        # FASTQ input: the title's fields in CO, as the FASTQ output's title has them; BAM input: every tag, in order.
        check(tag(out["fq_bam"][rid][2], "CO") + f" barcode={folder}" == fastq["title"].split(" ", 1)[1], f"{rid}: CO")
        check(out["bam_bam"][rid][2]["tags"][:-2] == input_tags[rid], f"{rid}: input tags not kept")
    check(trimmed > 150, f"only {trimmed} reads trimmed: the case does not test trimming")
    folder, name, _ = next(iter(out["bam_bam"].values()))
    lines = read_bam(ctx.path("bam_bam", folder, name))[0].splitlines()
    check(lines[0].startswith("@HD\tVN:") and set(groups) <= set(lines) and
          lines[-1].startswith("@PG\tID:vorpa_barcoder\tPN:vorpa_barcoder\tVN:") and "--output_format bam" in lines[-1],
          f"header without the read groups or the command line:\n{lines}")
    check(ctx.samtools_counts("bam_bam") == counted(rows), "samtools counts differ from the summary")


def case_bam_input_kinds(ctx):
    """BAM, CRAM and mapped reads (both strands) classified as FASTQ; extra records counted; PU alone warned of."""
    need("samtools", "optional")
    records, _ = ctx.simulate("kinds", 200, 72, files=["all.fastq"], folder="ref")
    ctx.split("in", records[:60], ["a.fastq.gz"])
    ctx.write_sam("in/b.bam", [sam(read_id(t), s, q, f"ri:Z:{fields(t)['runid']}") for t, s, q in records[60:110]])
    group = ["@RG\tID:g\tPU:FLOWCELL1"]
    ctx.write_sam("in/c.cram", group + [sam(read_id(t), s, q, "RG:Z:g") for t, s, q in records[110:140]])
    lines, extra = ["@HD\tVN:1.6", "@SQ\tSN:ref\tLN:10000000"] + group, 0
    for k, (title, seq, qual) in enumerate(records[140:]):
        rid = read_id(title)
        lines.append(sam(rid, seq, qual, "RG:Z:g", "NM:i:0", flag=16 * (k % 2), pos=100 + k))
        if k % 5 == 0:
            lines += [sam(rid, "*", "*", "RG:Z:g", flag=256, pos=5), sam(rid, seq[:20], "*", "RG:Z:g", flag=2064)]
            extra += 2
    ctx.write_sam("in/d.bam", lines + ["no_run_id\t4\t*\t0\t0\t*\t*\t0\t0\tACGTACGTAC\t*"])
    result = ctx.run(args("in", "out", "-t", "2"))
    ctx.run(args("ref", "ref_out"))
    (rows, written), (reference, expected) = ctx.consistent("out"), ctx.consistent("ref_out")
    check(rows == reference, "BAM, CRAM and mapped input are classified otherwise than the same reads as FASTQ")
    check(f"Secondary and supplementary records skipped (not reads of their own): {extra}." in result.stdout and
          "Reads without a run id (not written): 1." in result.stdout and "Found 4 fastq files." in result.stdout,
          "skipped records, dropped reads or files not reported:\n" + result.stdout[-1500:])
    warnings = [line for line in result.stdout.splitlines() if "platform unit" in line]
    check(len(warnings) == 2 and all("'g'" in line for line in warnings) and "c.cram" in warnings[0] + warnings[1] and
          "d.bam" in warnings[0] + warnings[1], f"warnings: {warnings}")
    pu_alone = {read_id(r[0]) for r in records[110:]}
    for rid, (folder, name, record) in written.items():
        want_folder, want_name, want = expected[rid]
        want_name = "fastq_runid_FLOWCELL1_0.fastq" if rid in pu_alone else want_name
        check((folder, name, record["seq"], record["qual"]) == (want_folder, want_name, want["seq"], want["qual"]),
              f"{rid}: {folder}/{name}, or not in its own orientation")


def modification_calls(seq, mm, ml):
    """(list head, read position, probabilities) of each MM/ML call, by walking the read: the naive reference."""
    calls, probabilities, used = [], list(ml[1]) if ml else [], 0
    for entry in mm.split(";")[:-1]:
        head, *skips = entry.split(",")
        codes, bases = 1 if head[2].isdigit() else len(head[2:].rstrip(".?")), iter(range(len(seq)))
        for skip in map(int, skips):
            position = [next(i for i in bases if head[0] in ("N", seq[i])) for _ in range(skip + 1)][-1]
            calls.append((head, position, tuple(probabilities[used:used + codes])))
            used += codes
    check(used == len(probabilities), f"{len(probabilities)} ML values for {used} calls in {mm}")
    return calls


def random_modifications(rng, seq):
    """MM and ML values for a read, several lists on both strands: three in ten of their bases called."""
    mm, ml = "", []
    for head, base, codes in (("C+mh?", "C", 2), ("G-m.", "G", 1), ("N+n", "N", 1), ("A+a", "A", 1)):
        called = [k for k in range(sum(base in ("N", b) for b in seq)) if rng.random() < 0.3]
        mm += head + "".join(f",{k - j - 1}" for j, k in zip([-1] + called, called)) + ";"
        ml += [rng.randrange(256) for _ in range(codes * len(called))]
    return mm, ml


def case_bam_modifications_trimmed(ctx):
    """Modification calls follow --trim_barcodes on either strand; unreadable tags dropped with a warning."""
    need("samtools", "optional")
    rng = random.Random(77)
    records, _ = ctx.simulate("mods", 200, 77)
    lines = ["@HD\tVN:1.6", "@SQ\tSN:ref\tLN:10000000", f"@RG\tID:g\tDS:runid={fields(records[0][0])['runid']}"]
    inputs, broken = {}, read_id(records[7][0])
    for k, (title, seq, qual) in enumerate(records):
        mm, ml = random_modifications(rng, seq) if k != 7 else ("C+m,100000;", [])  # past the read's last C
        inputs[read_id(title)] = (seq, mm, ml)
        ml_tag = [f"ML:B:C,{','.join(map(str, ml))}"] if ml else []
        # Stored reverse complemented: the tags keep the read's orientation.
        lines.append(sam(read_id(title), seq, qual, "RG:Z:g", f"MM:Z:{mm}", *ml_tag, flag=16 if k % 3 == 1 else 4))
    ctx.write_sam("in/mods.bam", lines)
    result = ctx.run(args("in", "out", "--trim_barcodes", "--output_format", "bam"))
    warnings = [line for line in result.stdout.splitlines() if "modification" in line]
    check(len(warnings) == 1 and broken in warnings[0] and "MM" in warnings[0], f"warnings: {warnings}")
    rows, written = ctx.consistent("out", 20)
    check(len(rows) == len(inputs), "reads lost")
    cut_calls = kept_calls = 0
    for rid, (seq, mm, ml) in inputs.items():
        record, front, rear = written[rid][2], int(rows[rid][18]), int(rows[rid][19])
        check(record["seq"] == seq[front:len(seq) - rear], f"{rid}: bases")
        if rid == broken:
            check(not {"MM", "ML", "MN"} & {t for t, _, _ in record["tags"]}, f"{rid} kept unreadable tags")
            continue
        before = modification_calls(seq, mm, ("C", ml) if ml else None)
        expected = [(h, p - front, v) for h, p, v in before if front <= p < len(seq) - rear]
        check(modification_calls(record["seq"], tag(record, "MM"), tag(record, "ML")) == expected,
              f"{rid}: modification calls moved or lost")
        check(tag(record, "MN") == len(record["seq"]) or (front + rear == 0 and tag(record, "MN") is None),
              f"{rid}: MN {tag(record, 'MN')}")
        cut_calls += len(before) - len(expected)
        kept_calls += len(expected)
    check(cut_calls > 100 and kept_calls > 1000, f"{cut_calls} calls cut, {kept_calls} kept: too few to judge")
    check(sum(ctx.samtools_counts("out").values()) == len(inputs), "samtools does not read every record")


def case_sample_sheet(ctx):
    """Listed arrangements under their samples, unlisted ones unclassified with the best candidate still shown."""
    ctx.simulate("samples", 300, 74, files=["a.fastq", "b.fastq.gz"])
    ctx.run(args("in", "plain"))
    plain = ctx.rows("plain")
    ctx.write("sheet.tsv", "# plate 1\nsample\tarrangement\tdescription\nLiver-A\tbarcode01\tleft lobe\n"
                           "Liver-A\tbarcode02\tright lobe\nKidney\tbarcode03\t\nEmpty\tbarcode24\tnone\n")
    samples = {"barcode01": "Liver-A", "barcode02": "Liver-A", "barcode03": "Kidney", "barcode24": "Empty"}
    for save, columns, extra in (("sheet", 19, []), ("trimmed", 21, ["--trim_barcodes", "--output_format", "bam"])):
        result = ctx.run(args("in", save, "--sample_sheet", "sheet.tsv", *extra))
        rows, written = ctx.consistent(save, columns)
        before = "barcode_rear_total_trimmed" if extra else "barcode_rear_end_index"
        check(ctx.summary(save, columns)[0][-2:] == [before, "sample"] and rows.keys() == plain.keys(), "header")
        unlisted = 0
        for rid, row in rows.items():
            arrangement = plain[rid][1]
            if arrangement in samples:
                check(row[1] == arrangement and row[-1] == samples[arrangement], f"{rid}: {row[1]}, {row[-1]}")
            else:
                check(row[1] == row[-1] == "unclassified" and row[2:18] == plain[rid][2:18],
                      f"{rid}: {row[1]} in {row[-1]}, or the best candidate is no longer shown")
                unlisted += arrangement != "unclassified"
            check(written[rid][0] == row[-1], f"{rid} in {written[rid][0]}")
        check(unlisted > 100, "too few reads of unlisted arrangements to judge")
        folders = sorted(d for d in os.listdir(ctx.path(save)) if os.path.isdir(ctx.path(save, d)))
        check(folders == sorted({samples.get(row[1], "unclassified") for row in plain.values()} | {"unclassified"}),
              f"folders {folders}")
        check(f"unclassified, not in sample sheet: {unlisted}" in result.stdout, "the reason is not counted")
        check("Reads per sample:" in result.stdout and "  Empty " in result.stdout and
              result.stdout.index("  Kidney ") < result.stdout.index("  Liver-A ") <
              result.stdout.rindex("  unclassified "), "reads per sample are not reported:\n" + result.stdout[-2000:])


def case_sample_sheet_pairs(ctx):
    """A pair kit: listed pairs called, one end or unlisted pairs unclassified; samples and cross-talk add up."""
    subprocess.run([sys.executable, os.path.join(ctx.source, "tools", "design_kit.py"), "--pairs", ctx.path("kit"),
                    "--pair-kit", "PK", "--pair-size", "4x3"], check=True, capture_output=True)
    kit = ["-c", "kit/configuration.cfg", "-d", "kit", "--barcode_kits", "PK", "-i", "in"]
    # Every pair but F04 + R01 and F02 + R03; F02 + R02 is sample B's as well.
    listed = [(f, r) for f in range(1, 5) for r in range(1, 4) if (f, r) not in ((4, 1), (2, 3))]
    samples = {f"F{f:02d}_R{r:02d}": "B" if (f, r) == (2, 2) else f"S{f}{r}" for f, r in listed}
    ctx.write("pairs.tsv", "sample\tfront\trear\n" + "".join(f"{s}\t{p[:3]}\t{p[4:]}\n" for p, s in samples.items()))
    _, truth = ctx.simulate("pairs", 700, 81, "--data", ctx.path("kit"), "--sample-sheet", ctx.path("pairs.tsv"),
                            "--frac-unlisted", "0.15", "--frac-front", "0.15", "--median-length", "400", kit="PK",
                            files=["reads.fastq"])
    result = ctx.run(kit + ["-s", "out", "--sample_sheet", "pairs.tsv", "--unclassified_reason_column"])
    header, rows = ctx.summary("out", 20)
    check(header[-2:] == ["sample", "barcode_unclassified_reason"] and rows.keys() == truth.keys(), f"header {header}")
    found = collections.defaultdict(list)  # kind and strand -> outcomes
    for rid, row in rows.items():
        carried = f"{truth[rid]['front']}_{truth[rid]['rear']}"
        outcome = "called" if row[1] == carried else row[-1] if row[1] == "unclassified" else "wrong"
        found[truth[rid]["kind"] + truth[rid]["orientation"]].append(outcome)
        check(row[1] == "unclassified" or (row[-2], row[-1]) == (samples[row[1]], ""), f"{rid}: {row[1]} in {row[-2]}")
    for kinds, outcome, share, fewest in (("pair+", "called", 0.97, 150), ("pair-", "called", 0.97, 150),
                                          ("front+ front- rear+ rear-", "only one end", 0.95, 20),
                                          ("unlisted+ unlisted-", "pair not in sample sheet", 0.98, 50)):
        outcomes = sum((found[kind] for kind in kinds.split()), [])
        check(outcomes.count(outcome) >= share * len(outcomes) and len(outcomes) > fewest, f"{kinds}: {outcomes}")
    wrong = sum(outcomes.count("wrong") for outcomes in found.values())
    check(wrong <= 1, f"{wrong} reads called to a pair they do not carry")

    figures = ctx.report("out")
    reads, reasons, cross_talk = figures["reads"], figures["unclassified_reasons"], figures["cross_talk"]
    check({sample: n for sample, n in figures["samples"].items() if n} == counted(rows, -2) and
          set(samples.values()) <= set(figures["samples"]) and reads["written"] == len(truth), f"samples {figures}")
    check(sum(reasons.values()) == reads["unclassified"] == figures["samples"]["unclassified"] and
          reasons["pair_not_in_sample_sheet"] == counted(rows, -1)["pair not in sample sheet"], f"reasons {reasons}")
    check(cross_talk["method"] == "unlisted pairs" and cross_talk["measurable"] and
          cross_talk["unlisted_reads"] == reasons["pair_not_in_sample_sheet"] and
          set(cross_talk["samples"]) == set(samples.values()), f"cross_talk {cross_talk}")
    check("Cross-talk, reads from other samples:" in result.stdout, result.stdout[-2000:])
    folders = {d for d in os.listdir(ctx.path("out")) if os.path.isdir(ctx.path("out", d))}
    check(folders <= set(samples.values()) | {"unclassified"} and "B" in folders, f"folders {folders}")
    # Pairs want both ends already: asking for it changes nothing (the kit's sections name one barcode each).
    ctx.run(kit + ["-s", "both", "--sample_sheet", "pairs.tsv", "--unclassified_reason_column",
                   "--require_barcodes_both_ends"])
    check(ctx.read(ctx.path("both", SUMMARY)) == ctx.read(ctx.path("out", SUMMARY)), "both ends required: other calls")
    ctx.write("bad.tsv", "front\trear\tsample\nF01\tR07\tA\n")
    result = ctx.run(kit + ["-s", "refused", "--sample_sheet", "bad.tsv"], expect=255)
    check("Sample sheet 'bad.tsv', line 2: the rear barcode 'R07' is not a single-barcode arrangement" in result.stdout,
          result.stdout[-1500:])


def concatemers(ctx, kit, reads, seed):
    """(input folder, read id -> (kind, [arrangement per molecule])) of simulated reads of several molecules."""
    _, rows = ctx.simulate(f"{kit}_{seed}", reads, seed, "--median-length", "800", "--frac-concatemer", "0.4",
                           "--identity", "0.93", kit=kit, files=["reads.fastq"], folder=f"in_{kit}_{seed}")
    return f"in_{kit}_{seed}", {rid: (row["kind"], [m[:-1] for m in row["molecules"].split(",") if m != "-"])
                                for rid, row in rows.items()}


def internal_run(ctx, kit, folder, save, *extra):
    """(summary rows, report, outputs) of a run with the reason and internal count columns."""
    ctx.run(["-i", folder, "-s", save, "--barcode_kits", kit, "--unclassified_reason_column", *extra])
    header, _ = ctx.summary(save, 22 if "--trim_barcodes" in extra else 20)
    check(header[-2:] == ["barcode_unclassified_reason", "barcode_internal_count"], f"header {header}")
    rows, written = ctx.consistent(save, len(header))
    return rows, ctx.report(save), written


def case_internal_barcodes(ctx):
    """Concatemers rejected, or split into numbered parts naming their parent (also as BAM); ignore is a no-op."""
    for kit, extra in (("VB-NB24", ["--internal_barcodes", "reject", "--internal_count_column"]),
                       ("VB-RB12", ctx.configuration("run.cfg", "internal_barcodes = reject",
                                                     "internal_count_column = true"))):
        folder, truth = concatemers(ctx, kit, 200, 181)
        rows, figures, _ = internal_run(ctx, kit, folder, "reject_" + kit, *extra)
        joined = [rid for rid, (kind, _) in truth.items() if kind == "concatemer"]
        rejected = [rid for rid in joined if rows[rid][-2] == "internal barcode"]
        check(len(joined) >= 50 and len(rejected) >= 0.95 * len(joined), f"{kit}: {len(rejected)} of {len(joined)}")
        check(all(rows[rid][1] == "unclassified" and int(rows[rid][-1]) >= 1 for rid in rejected), f"{kit}: rejected")
        wrongly = [rid for rid, row in rows.items() if truth[rid][0] != "concatemer" and row[-1] != "0"]
        check(len(wrongly) <= 1, f"{kit}: single-molecule reads with internal barcodes: {wrongly}")
        counts = {"reads": sum(row[-1] != "0" for row in rows.values()), "parts_written": 0, "parts_dropped": 0}
        check(figures["internal_barcodes"] == counts and figures["unclassified_reasons"]["internal_barcode"] ==
              counted(rows, -2)["internal barcode"], f"{kit}: {figures['internal_barcodes']}")

    bam = ["--output_format", "bam", "--trim_barcodes", "--min_part_length", "150"]
    for kit, reads, seed, extra in (("VB-NB24", 160, 182, []), ("VB-RB12", 160, 182, []), ("VB-NB24", 80, 183, bam)):
        folder, truth = concatemers(ctx, kit, reads, seed)
        # BAM output names the command line: the threads compared on FASTQ alone.
        for threads in ("8", "1")[bool(extra):]:
            rows, figures, written = internal_run(ctx, kit, folder, folder + threads, "--internal_barcodes", "split",
                                                  "--internal_count_column", "-t", threads, *extra)
        check(extra or ctx.tree(folder + "1") == ctx.tree(folder + "8"), f"{kit}: output bytes depend on the threads")
        parts = collections.defaultdict(list)
        for rid, (_, _, record) in written.items():
            parent = tag(record, "pi") if extra else fields(record["title"]).get("parent_read_id")
            check(not extra or tag(record, "ar") == rows[rid][1], f"{rid}: ar tag against {rows[rid][1]}")
            if rid in truth:
                check(parent is None, f"{kit}: {rid} is no part but names a parent")
                continue
            check(parent in truth and rid.rsplit("_", 1)[0] == parent, f"{kit}: part {rid} of {parent}")
            check(rows[rid][-1] == rows[f"{parent}_1"][-1] != "0", f"{kit}: {rid}: count differs from its first part")
            check(extra or record["title"].startswith(f"@{rid} runid="), f"{kit}: the title of part {rid}")
            parts[parent].append(int(rid.rsplit("_", 1)[1]))
        check(all(sorted(n) == list(range(1, len(n) + 1)) and p not in rows for p, n in parts.items()), f"{kit}: parts")
        joined = [rid for rid, (kind, _) in truth.items() if kind == "concatemer"]
        exact = sum([rows.get(f"{rid}_{k + 1}", [None, None])[1] for k in range(len(truth[rid][1]) + 1)] ==
                    truth[rid][1] + [None] for rid in joined)
        check(exact >= 0.85 * len(joined) and len(parts) >= 20, f"{kit}: {exact} of {len(joined)} split rightly")
        counts = figures["internal_barcodes"]
        check(counts["reads"] == len(parts) and counts["parts_written"] == sum(map(len, parts.values())) and
              (extra or figures["reads"]["written"] == len(rows) == len(truth) - len(parts) + counts["parts_written"]
               and counts["parts_dropped"] == 0), f"{kit}: report {counts}, {len(parts)} reads split")
    ctx.run(args("in_VB-NB24_182", "ignore", "--internal_barcodes", "ignore"))
    ctx.run(args("in_VB-NB24_182", "plain"))
    check(ctx.tree("plain") == ctx.tree("ignore"), "ignore changes the output")


def feed_folder(folder, parts, start_delay):
    """The writer: files appear one by one, renamed into place or appended to slowly, cut inside records."""
    time.sleep(start_delay)
    for name, records, how in parts:
        data = "".join(f"{t}\n{s}\n+\n{q}\n" for t, s, q in records).encode()
        data = gzip.compress(data) if name.endswith(".gz") else data
        path = os.path.join(folder, name) + (".part" if how == "rename" else "")
        for k in range(5):
            with open(path, "ab") as handle:
                handle.write(data[k * len(data) // 5:(k + 1) * len(data) // 5])
            time.sleep(0.3 if how == "append" else 0)
        if how == "rename":
            time.sleep(0.5)
            os.rename(path, os.path.join(folder, name))
        time.sleep(0.3)


def same_output(ctx, save, reference):
    """The save folder holds the single run's summary rows and output records, every read once."""
    (rows, written), (expected_rows, expected) = ctx.consistent(save), ctx.consistent(reference)
    check(rows == expected_rows, f"{len(rows)} rows, {sum(rows.get(r) != v for r, v in expected_rows.items())} unlike")
    written, expected = ({rid: (e[0], e[2]) for rid, e in found.items()} for found in (written, expected))
    check(written == expected, f"{sum(written[rid] != expected.get(rid) for rid in written)} records differ")
    return len(rows)


def case_watch(ctx):
    """Files written while watched give the single run's output; timeout, stop file and SIGINT end the run."""
    records = ctx.many_reads("watch", 71, 3000)
    chunks = [records[i::6] for i in range(6)]
    ctx.write_fastq("in/a.fastq", chunks[0])  # there at the start
    ctx.split("in", chunks[5][:20], ["leftover.fastq.tmp", ".hidden.fastq"])  # never input: unfinished files' names
    parts = [("b.fastq", chunks[1], "rename"), ("c.fastq", chunks[2], "append"), ("d.fastq.gz", chunks[3], "rename"),
             ("e.fastq.gz", chunks[4], "append"), ("f.fastq", chunks[5], "append")]
    writer = multiprocessing.Process(target=feed_folder, args=(ctx.path("in"), parts, 1.0))
    writer.start()
    started = time.monotonic()
    # Pieces come every 0.3 s: settling takes 2 s, so that a stalled writer on a busy machine does not look finished.
    result = ctx.run(args("in", "watched", "--watch", "--watch_settle", "2", "--watch_timeout", "5", "-t", "2"))
    took = time.monotonic() - started
    writer.join()
    check("No new input file for 5 s: the run ends." in result.stdout and "Files done: 6, reads written:" in
          result.stdout and took < 40, f"{took:.0f} s, no timeout message or count of files:\n{result.stdout[-2000:]}")
    ctx.run(args("in", "single"))
    check(same_output(ctx, "watched", "single") == len(records), "reads lost")
    check(ctx.report("watched")["files"]["read"] == 6, "the report does not count 6 files read")

    # Settling would take a minute and the timeout an hour: only the stop file ends this run.
    parts = [("a.fastq", records[:500], "append"), ("b.fastq.gz", records[500:1000], "rename")]
    writer = multiprocessing.Process(target=feed_folder, args=(ctx.path("in2"), parts, 0.5))
    os.makedirs(ctx.path("in2"))
    writer.start()
    started = time.monotonic()
    process = ctx.start(args("in2", "stopped", "--watch", "--watch_settle", "60", "--watch_stop_file", "RUN_DONE"))
    writer.join()
    ctx.write("in2/RUN_DONE", "")
    out, _ = process.communicate(timeout=100)
    took = time.monotonic() - started
    check(process.returncode == 0 and took < 30 and "Stop file" in out, f"{took:.0f} s, no stop message:\n{out}")
    check(len(ctx.rows("stopped")) == 1000, "the files not yet settled were not read")
    process = ctx.start(args("in2", "signalled", "--watch", "--watch_settle", "0"))
    path, deadline = ctx.path("signalled", SUMMARY), time.monotonic() + 60
    while time.monotonic() < deadline and (not os.path.exists(path) or len(open(path).readlines()) <= 1000):
        time.sleep(0.2)
    process.send_signal(signal.SIGINT)
    out, err = process.communicate(timeout=60)
    check(process.returncode == 130, f"status {process.returncode} after SIGINT while watching\n{out[-2000:]}{err}")
    check(len(ctx.consistent("signalled")[0]) == 1000, "reads lost to the signal")


def kill_when(ctx, command, ready, what):
    """SIGKILLs a run as soon as ready() holds, the run held in slow motion (stopped nine tenths of the time) lest it
    get past the moment in between two looks."""
    process, deadline = ctx.start(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL), time.monotonic() + 600
    try:
        while time.monotonic() < deadline and process.poll() is None:
            try:
                if ready():
                    return
            except (OSError, IndexError, ValueError):
                pass
            process.send_signal(signal.SIGCONT)
            time.sleep(0.005)
            if process.poll() is None:
                process.send_signal(signal.SIGSTOP)
            time.sleep(0.045)
        raise AssertionError(f"the run ended (status {process.returncode}) before {what}")
    finally:
        process.kill()
        process.wait()


def kill_mid_file(ctx, command, save):
    """SIGKILLs a run once its saved state shows a file partly done (the state is saved at file ends and at most once
    a second)."""
    def partly_done():
        state = ctx.read(os.path.join(save, "barcoding_resume_state.txt")).splitlines()
        return any(int(line.split("\t")[4]) > 0 and line.split("\t")[5] != "1" for line in state
                   if line.startswith("input\t"))
    kill_when(ctx, command, partly_done, "a file was seen partly done")


def kill_at_first_rows(ctx, command, save):
    """SIGKILLs a new run once its summary lists reads, most likely before it first saves how far it got."""
    kill_when(ctx, command, lambda: len(ctx.read(os.path.join(save, "barcoding_summary.txt")).splitlines()) > 1,
              "its summary listed a read")


def resume(ctx, *extra):
    """Killed at once, then mid-file twice, then resumed: the single run's output; other settings refused."""
    records = ctx.many_reads("resume", 81, 12000)
    # Files of several batches each, so that a kill lands inside one.
    for k in range(4):
        ctx.write_fastq(f"in/part{k}.fastq" + (".gz" if k % 2 else ""), records[k::4])
    ctx.run(args("in", "single", *extra))
    command = args("in", "resumed", "--resume", "-t", "2", *extra)
    # Killed first in its first moments, then mid-file twice.
    kill_at_first_rows(ctx, command, "resumed")
    for _ in range(2):
        kill_mid_file(ctx, command, "resumed")
    result = ctx.run(command)
    check("Resuming the run" in result.stdout, f"the last run did not resume:\n{result.stdout[-2000:]}")
    check(same_output(ctx, "resumed", "single") == len(records), "reads lost")
    figures = ctx.report("resumed")
    check(figures["reads"]["written"] == len(records) and figures["files"]["read"] == 4,
          f"the report does not cover every run: {figures['reads']}, {figures['files']}")
    ctx.run(command)
    rows = ctx.rows("resumed")
    check(len(rows) == len(records), "a finished run's files were read again")
    for refused, message in ((args("in", "single", "--resume", *extra), "was not started with --resume"),
                             (command + ["--trim_barcodes"], "trim_barcodes (earlier: 'false', now: 'true')")):
        result = ctx.run(refused, expect=255)
        check(message in result.stdout + result.stderr, f"{message!r} missing:\n{result.stdout[-2000:]}")
    check(ctx.rows("resumed") == rows, "a refused resume changed the summary")


def report_run(ctx):
    ctx.write_fastq("in/a.fastq", ctx.many_reads("report", 91, 2000))
    ctx.run(args("in", "out", "--trim_barcodes"))
    return ctx.path("out"), counted(ctx.rows("out", 20))


def case_report_pages(ctx):
    """The page well-formed, self-contained, with every section, bar and plot; the MultiQC files hold the counts."""
    save, counts = report_run(ctx)
    root = ElementTree.parse(os.path.join(save, "barcoding_report.html")).getroot()  # fails unless well-formed
    check([e.get("id") for e in root.iter("{http://www.w3.org/1999/xhtml}section")] == SECTIONS, "sections")
    check(f"Reads written{sum(counts.values()):,}" in "".join(root.itertext()), "no number of reads written")
    check(not any((e.get("href") or e.get("src") or "").startswith(("http", "//")) for e in root.iter()), "a fetch")
    tooltips = [t.text for t in root.iter("{http://www.w3.org/2000/svg}title")]
    check(all(any(t.startswith(f"{name}: {n:,} ") for t in tooltips) for name, n in counts.items()), "bars lost")
    lines = list(root.iter("{http://www.w3.org/2000/svg}polyline"))
    check(len(lines) >= min(len(counts), 25) + 2, f"{len(lines)} lines in the length and score plots")
    check(os.path.getsize(os.path.join(save, "barcoding_report.html")) < 2 * 1024 * 1024, "the page is 2 MB or more")
    bars = ctx.report("out", "barcoding_mqc.json")
    check(bars["plot_type"] == "bargraph" and {k: v["reads"] for k, v in bars["data"].items()} == counts, "bars")
    stats = ctx.report("out", "barcoding_stats_mqc.json")
    check(stats["plot_type"] == "generalstats" and stats["data"].keys() == counts.keys(), "general statistics")


def render(browser, path):
    """Headless Chromium on a file: (DOM after loading, console messages)."""
    with tempfile.TemporaryDirectory() as profile:
        result = subprocess.run(
            [browser, "--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
             "--disable-component-update", "--disable-sync", "--no-first-run", f"--user-data-dir={profile}",
             "--enable-logging=stderr", "--v=0", "--dump-dom", "file://" + os.path.abspath(path)],
            capture_output=True, text=True, timeout=120)
    return result.stdout, [line for line in result.stderr.splitlines() if "CONSOLE" in line or "Uncaught" in line]


def case_report_in_chromium(ctx):
    browser = shutil.which("chromium-browser") or need("chromium", "report")
    save, _ = report_run(ctx)
    # The check itself must see errors: a page with a failing script.
    ctx.write("broken.html", "<!DOCTYPE html><html><body><script>undefinedFunction();</script></body></html>")
    check(any("undefinedFunction" in line for line in render(browser, ctx.path("broken.html"))[1]),
          "Chromium's console messages are not seen, so errors could not be either")
    dom, console = render(browser, os.path.join(save, "barcoding_report.html"))
    check(not console and all(f'id="{section}"' in dom for section in SECTIONS) and dom.count("<svg") >= 4,
          f"console messages {console}, or sections or plots lost")


def case_report_in_multiqc(ctx):
    need("multiqc", "report")
    save, counts = report_run(ctx)
    result = subprocess.run(["multiqc", "-f", "-o", ctx.path("multiqc"), "--data-format", "json", save],
                            capture_output=True, text=True, timeout=300, cwd=ctx.work)
    check(result.returncode == 0, f"multiqc failed:\n{result.stdout[-2000:]}{result.stderr[-2000:]}")
    data = ctx.report("multiqc/multiqc_data", "multiqc_data.json")
    plot = data.get("report_plot_data", {}).get("vorpa_barcoding_reads")
    check(plot is not None, f"no bar graph of ours in MultiQC's data: {sorted(data.get('report_plot_data', {}))}")
    shown = dict(zip(plot["samples"][0], plot["datasets"][0][0]["data"]))
    check(shown == counts, f"MultiQC shows {shown}, the summary has {counts}")
    tables = data.get("report_general_stats_data", [])
    check(all(any(table.get(name, {}).get("barcoded_reads") == n for table in tables) for name, n in counts.items()),
          "the general statistics do not hold our read counts")
    check("Barcoding" in ctx.read("multiqc/multiqc_report.html"), "MultiQC's report has no Barcoding section")


CASES = {name[len("case_"):]: fn for name, fn in globals().items() if name.startswith("case_")}
CASES.update({"resume_plain": resume, "resume_gzip": lambda ctx: resume(ctx, "--compress_fastq", "-q", "1000"),
              "resume_bam": lambda ctx: resume(ctx, "--output_format", "bam", "-q", "1500")})


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    for option in ("--binary", "--source", "--work"):
        parser.add_argument(option, required=True)
    parser.add_argument("--case", required=True, choices=sorted(CASES))
    options = parser.parse_args()
    work = os.path.join(os.path.abspath(options.work), options.case)
    # What an earlier, killed disk_full run left mounted.
    for point in sorted(line.split()[1] for line in pathlib.Path("/proc/mounts").read_text().splitlines())[::-1]:
        if point == work or point.startswith(work + os.sep):
            subprocess.run(["umount", point], capture_output=True)
    subprocess.run(["chmod", "-R", "u+rwX", work], capture_output=True)  # what a killed discovery case left locked
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    try:
        CASES[options.case](Context(os.path.abspath(options.binary), os.path.abspath(options.source), work))
    except AssertionError as failure:
        print(f"FAIL {options.case}: {failure}")
        return 1
    except SkipTest as reason:  # 77: CTest's SKIP_RETURN_CODE
        print(f"SKIP {options.case}: {reason}")
        return 77
    print(f"ok {options.case}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
