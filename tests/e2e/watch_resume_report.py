#!/usr/bin/env python3
"""End-to-end checks of watching an input folder, of resuming a killed run,
and of the report pages (HTML, and the MultiQC files).

Same frame as e2e_driver.py, whose helpers it uses. The HTML page is rendered
in headless Chromium and the save folder read by MultiQC when they are
installed (scripts/install-deps.sh report); those cases are skipped, with a
message, when they are not.

Usage: watch_resume_report.py --binary BIN --source REPO --work DIR --case NAME
"""

import collections
import gzip
import json
import multiprocessing
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ElementTree

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from bam_and_samples import output_bam_reads  # noqa: E402
from e2e_driver import (SUMMARY, Failure, Skip, barcoder_args, check, fastq_text, main, many_reads,  # noqa: E402
                        output_reads, read_summary, write_fastq)

STATE = "barcoding_resume_state.txt"
HTML = "barcoding_report.html"
XHTML = "{http://www.w3.org/1999/xhtml}"
SECTIONS = ["summary", "arrangements", "lengths", "scores", "quality", "unclassified", "events", "losses", "settings"]


def summary_rows(save, columns=18):
    return read_summary(os.path.join(save, SUMMARY), columns)[1]


def written_records(save, bam=False):
    """read id -> (folder, record) over every output file, each read once."""
    if bam:
        return {rid: (folder, (r["seq"], r["qual"])) for rid, (folder, _, r) in output_bam_reads(save).items()}
    return {rid: (folder, record) for rid, (folder, _, record) in output_reads(save).items()}


def check_same_output(save, reference, bam=False, columns=18):
    """The save folder holds the reference's summary rows and output records,
    every read once (the readers refuse a read written twice)."""
    rows, expected_rows = summary_rows(save, columns), summary_rows(reference, columns)
    check(rows.keys() == expected_rows.keys(), f"{len(rows)} summary rows, the single run has {len(expected_rows)}; "
                                               f"{len(rows.keys() - expected_rows.keys())} extra, "
                                               f"{len(expected_rows.keys() - rows.keys())} missing")
    differ = [rid for rid in rows if rows[rid] != expected_rows[rid]]
    check(not differ, f"{len(differ)} summary rows differ from the single run's, e.g. {differ[:1]}")
    records, expected = written_records(save, bam), written_records(reference, bam)
    check(records == expected, f"{len(records)} output records, the single run wrote {len(expected)}; "
                               f"{sum(1 for r in records if records[r] != expected.get(r))} differ")
    packed = [os.path.join(f, n) for f, _, names in os.walk(save) for n in names if n.endswith(".gz")]
    if packed:
        check(subprocess.run(["gzip", "-t"] + packed, capture_output=True).returncode == 0, "invalid gzip output")
    return len(rows)


# ---------------------------------------------------------------- watch

def feed_folder(folder, parts, start_delay):
    """The writer process: files appear one after another, some renamed into
    place, some appended to slowly (cut inside a record, so that reading one
    before it is complete would break it)."""
    time.sleep(start_delay)
    for name, records, how in parts:
        path = os.path.join(folder, name)
        text = fastq_text(records)
        data = gzip.compress(text.encode()) if name.endswith(".gz") else text.encode()
        if how == "rename":
            with open(path + ".part", "wb") as handle:
                handle.write(data)
            time.sleep(0.5)
            os.rename(path + ".part", path)
        else:
            pieces = 5
            step = len(data) // pieces + 1
            for k in range(pieces):
                with open(path, "ab") as handle:
                    handle.write(data[k * step:(k + 1) * step])
                time.sleep(0.3)
        time.sleep(0.3)


def case_watch_growing_folder(ctx):
    records = many_reads(ctx, "watch", 71, reads=3000)
    chunks = [records[i::6] for i in range(6)]
    os.makedirs(ctx.path("in"))
    write_fastq(ctx.path("in", "a.fastq"), chunks[0])  # there at the start
    # Never input: the names writers use while a file is unfinished.
    write_fastq(ctx.path("in", "leftover.fastq.tmp"), chunks[5][:10])
    write_fastq(ctx.path("in", ".hidden.fastq"), chunks[5][10:20])
    parts = [("b.fastq", chunks[1], "rename"), ("c.fastq", chunks[2], "append"),
             ("d.fastq.gz", chunks[3], "rename"), ("e.fastq.gz", chunks[4], "append"),
             ("f.fastq", chunks[5], "append")]
    writer = multiprocessing.Process(target=feed_folder, args=(ctx.path("in"), parts, 1.0))
    writer.start()
    started = time.monotonic()
    # Pieces come every 0.3 s: settling takes 2 s, so that a stalled writer
    # on a busy machine does not look finished.
    result = ctx.run(barcoder_args("in", "watched", "--watch", "--watch_settle", "2", "--watch_timeout", "5",
                                   "-t", "2"))
    took = time.monotonic() - started
    writer.join()
    check("No new input file for 5 s: the run ends." in result.stdout, f"no timeout message:\n{result.stdout[-2000:]}")
    check("Files done: 6, reads written:" in result.stdout, f"no running count of files:\n{result.stdout[-2000:]}")
    check(took < 40, f"the watch took {took:.0f} s")
    ctx.run(barcoder_args("in", "single"))
    count = check_same_output(ctx.path("watched"), ctx.path("single"))
    check(count == len(records), f"{count} reads written of {len(records)}")
    with open(ctx.path("watched", "barcoding_report.json")) as handle:
        report = json.load(handle)
    check(report["files"]["read"] == 6, f"{report['files']} files in the report, 6 read")


def case_watch_stop_file(ctx):
    records = many_reads(ctx, "stop", 72, reads=1000)
    os.makedirs(ctx.path("in"))
    # Settling would take a minute and the timeout an hour: only the stop
    # file can end this run, and the files it finds unsettled are read too.
    parts = [("a.fastq", records[:500], "append"), ("b.fastq.gz", records[500:], "rename")]

    def feed_then_stop():
        feed_folder(ctx.path("in"), parts, 0.5)
        with open(ctx.path("in", "RUN_DONE"), "w"):
            pass

    writer = multiprocessing.Process(target=feed_then_stop)
    writer.start()
    started = time.monotonic()
    result = ctx.run(barcoder_args("in", "out", "--watch", "--watch_settle", "60", "--watch_stop_file", "RUN_DONE"))
    took = time.monotonic() - started
    writer.join()
    check(took < 30, f"the run went on {took:.0f} s after the stop file")
    check("Stop file" in result.stdout, f"no stop message:\n{result.stdout[-2000:]}")
    check(len(summary_rows(ctx.path("out"))) == len(records), "the files not yet settled were not read")
    # A signal ends a watching run as any other: status 130, every file closed.
    process = subprocess.Popen([ctx.binary] + barcoder_args("in", "signalled", "--watch", "--watch_settle", "0"),
                               cwd=ctx.work, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    def rows_so_far():
        try:
            return len(summary_rows(ctx.path("signalled")))
        except (OSError, Failure):  # not there yet, or caught mid-write
            return 0

    deadline = time.monotonic() + 60
    while time.monotonic() < deadline and rows_so_far() < len(records):
        time.sleep(0.2)
    process.send_signal(signal.SIGINT)
    out, err = process.communicate(timeout=60)
    check(process.returncode == 130, f"status {process.returncode} after SIGINT while watching\n{out[-2000:]}{err}")
    check(len(summary_rows(ctx.path("signalled"))) == len(records), "reads lost to the signal")


# ---------------------------------------------------------------- resume

def state_inputs(save):
    """path -> (records, finished) from the resume state."""
    inputs = {}
    with open(os.path.join(save, STATE)) as handle:
        for line in handle:
            fields = line.rstrip("\n").split("\t")
            if fields[0] == "input":
                inputs[fields[1]] = (int(fields[4]), fields[5] == "1")
    return inputs


def kill_mid_file(ctx, args, save):
    """Starts a run and kills it (SIGKILL) once its saved state shows an
    input file partly done; returns that state's inputs.

    The state is saved at file ends and at most once a second, so on a fast
    machine a file can be read whole between two saves. The run is therefore
    held in slow motion (stopped nine tenths of the time) until the kill."""
    process = subprocess.Popen([ctx.binary] + args, cwd=ctx.work, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 600
    try:
        while time.monotonic() < deadline and process.poll() is None:
            try:
                inputs = state_inputs(ctx.path(save))
            except (OSError, IndexError):
                inputs = {}
            if any(records > 0 and not finished for records, finished in inputs.values()):
                process.kill()
                process.wait()
                return inputs
            process.send_signal(signal.SIGCONT)
            time.sleep(0.005)
            if process.poll() is None:
                process.send_signal(signal.SIGSTOP)
            time.sleep(0.045)
    finally:
        if process.poll() is None:
            process.kill()
            process.wait()
    raise Failure(f"the run ended (status {process.returncode}) before a file was seen partly done")


def resume_case(ctx, extra, bam=False):
    records = many_reads(ctx, "resume", 81, reads=12000)
    os.makedirs(ctx.path("in"))
    # Files of several batches each, so that a kill lands inside one.
    for k in range(4):
        write_fastq(ctx.path("in", f"part{k}.fastq" + (".gz" if k % 2 else "")), records[k::4])
    ctx.run(barcoder_args("in", "single", *extra))
    args = barcoder_args("in", "resumed", "--resume", "-t", "2", *extra)
    for _ in range(2):  # killed, resumed and killed again, then resumed to the end
        kill_mid_file(ctx, args, "resumed")
    result = ctx.run(args)
    check("Resuming the run" in result.stdout, f"the last run did not resume:\n{result.stdout[-2000:]}")
    count = check_same_output(ctx.path("resumed"), ctx.path("single"), bam=bam)
    check(count == len(records), f"{count} reads written of {len(records)}")
    with open(ctx.path("resumed", "barcoding_report.json")) as handle:
        report = json.load(handle)
    check(report["reads"]["written"] == len(records) and report["files"]["read"] == 4,
          f"the report does not cover both runs: {report['reads']}, {report['files']}")
    # A run over a finished folder reads nothing again.
    ctx.run(args)
    check(len(summary_rows(ctx.path("resumed"))) == len(records), "a finished run's files were read again")


def case_resume_plain(ctx):
    resume_case(ctx, [])


def case_resume_gzip(ctx):
    resume_case(ctx, ["--compress_fastq", "-q", "1000"])


def case_resume_bam(ctx):
    resume_case(ctx, ["--output_format", "bam", "-q", "1500"], bam=True)


def case_resume_refused(ctx):
    records = many_reads(ctx, "refuse", 82, reads=1000)
    os.makedirs(ctx.path("in"))
    write_fastq(ctx.path("in", "a.fastq"), records)
    ctx.run(barcoder_args("in", "plain"))
    result = ctx.run(barcoder_args("in", "plain", "--resume"), expect=255)
    check("was not started with --resume" in result.stdout + result.stderr, f"no reason given:\n{result.stdout}")
    ctx.run(barcoder_args("in", "kept", "--resume"))
    before = summary_rows(ctx.path("kept"))
    result = ctx.run(barcoder_args("in", "kept", "--resume", "--compress_fastq"), expect=255)
    check("compress_fastq (earlier: 'false', now: 'true')" in result.stdout + result.stderr,
          f"the differing option is not named:\n{result.stdout[-2000:]}")
    check(summary_rows(ctx.path("kept")) == before, "a refused resume changed the summary")


# ---------------------------------------------------------------- report

def page(save):
    """The HTML report parsed as XML: it must be well-formed."""
    try:
        return ElementTree.parse(os.path.join(save, HTML)).getroot()
    except ElementTree.ParseError as error:
        raise Failure(f"{HTML} is not well-formed: {error}")


def section_ids(root):
    return [element.get("id") for element in root.iter(XHTML + "section")]


def report_run(ctx):
    records = many_reads(ctx, "report", 91, reads=2000)
    os.makedirs(ctx.path("in"))
    write_fastq(ctx.path("in", "a.fastq"), records)
    ctx.run(barcoder_args("in", "out", "--trim_barcodes"))
    return ctx.path("out"), summary_rows(ctx.path("out"), 20)


def case_report_pages(ctx):
    save, rows = report_run(ctx)
    root = page(save)
    check(section_ids(root) == SECTIONS, f"sections {section_ids(root)}")
    text = "".join(root.itertext())
    check(f"Reads written{len(rows):,}" in text, "the page does not give the number of reads written")
    for element in root.iter():
        check(not (element.get("href") or element.get("src") or "").startswith(("http", "//")),
              "the page fetches something")
    counts = collections.Counter(row[1] for row in rows.values())
    # Every arrangement has its bar, with its count in the tooltip.
    tooltips = [t.text for t in root.iter("{http://www.w3.org/2000/svg}title")]
    for name, count in counts.items():
        check(any(t.startswith(f"{name}: {count:,} ") for t in tooltips), f"no bar for {name} with {count} reads")
    lines = [p for p in root.iter("{http://www.w3.org/2000/svg}polyline")]
    check(len(lines) >= min(len(counts), 25) + 2, f"{len(lines)} lines in the length and score plots")
    with open(os.path.join(save, "barcoding_mqc.json")) as handle:
        bars = json.load(handle)
    check(bars["plot_type"] == "bargraph", "the MultiQC file is not a bar graph")
    check({k: v["reads"] for k, v in bars["data"].items()} == dict(counts), "MultiQC reads differ from the summary")
    with open(os.path.join(save, "barcoding_stats_mqc.json")) as handle:
        stats = json.load(handle)
    check(stats["plot_type"] == "generalstats" and stats["data"].keys() == counts.keys(), "general statistics")
    check(os.path.getsize(os.path.join(save, HTML)) < 2 * 1024 * 1024, "the page is 2 MB or more")


def chromium():
    for name in ("chromium", "chromium-browser"):
        if shutil.which(name):
            return shutil.which(name)
    raise Skip("Chromium is not installed (scripts/install-deps.sh report installs it)")


def render(browser, path, *extra):
    """Headless Chromium on a file: (DOM after loading, console messages)."""
    with tempfile.TemporaryDirectory() as profile:
        result = subprocess.run(
            [browser, "--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
             "--disable-component-update", "--disable-sync", "--no-first-run", f"--user-data-dir={profile}",
             "--enable-logging=stderr", "--v=0", *extra, "file://" + os.path.abspath(path)],
            capture_output=True, text=True, timeout=120)
    console = [line for line in result.stderr.splitlines() if "CONSOLE" in line or "Uncaught" in line]
    return result.stdout, console


def case_report_in_chromium(ctx):
    browser = chromium()
    save, _ = report_run(ctx)
    # The check itself must see errors: a page with a failing script.
    broken = ctx.path("broken.html")
    with open(broken, "w") as handle:
        handle.write("<!DOCTYPE html><html><body><p>x</p><script>undefinedFunction();</script></body></html>")
    _, console = render(browser, broken, "--dump-dom")
    check(any("undefinedFunction" in line for line in console),
          "Chromium's console messages are not seen, so errors could not be either")
    dom, console = render(browser, os.path.join(save, HTML), "--dump-dom")
    check(not console, f"console messages: {console}")
    for section in SECTIONS:
        check(f'id="{section}"' in dom, f"section {section} missing from the rendered page")
    check(dom.count("<svg") >= 4, "plots missing from the rendered page")


def case_report_in_multiqc(ctx):
    if shutil.which("multiqc") is None:
        raise Skip("MultiQC is not installed (scripts/install-deps.sh report installs it)")
    save, rows = report_run(ctx)
    result = subprocess.run(["multiqc", "-f", "-o", ctx.path("multiqc"), "--data-format", "json", save],
                            capture_output=True, text=True, timeout=300, cwd=ctx.work)
    check(result.returncode == 0, f"multiqc failed:\n{result.stdout[-2000:]}{result.stderr[-2000:]}")
    with open(ctx.path("multiqc", "multiqc_data", "multiqc_data.json")) as handle:
        data = json.load(handle)
    plot = data.get("report_plot_data", {}).get("vorpa_barcoding_reads")
    check(plot is not None, f"no bar graph of ours in MultiQC's data: {sorted(data.get('report_plot_data', {}))}")
    counts = collections.Counter(row[1] for row in rows.values())
    shown = dict(zip(plot["samples"][0], plot["datasets"][0][0]["data"]))
    check(shown == dict(counts), f"MultiQC shows {shown}, the summary has {dict(counts)}")
    general = {}
    for table in data.get("report_general_stats_data", []):
        for sample, values in table.items():
            general.setdefault(sample, {}).update(values)
    check(all(general.get(name, {}).get("barcoded_reads") == count for name, count in counts.items()),
          "the general statistics do not hold our read counts")
    with open(ctx.path("multiqc", "multiqc_report.html")) as handle:
        check("Barcoding" in handle.read(), "MultiQC's report has no Barcoding section")


CASES = {name[len("case_"):]: fn for name, fn in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(main(CASES))
