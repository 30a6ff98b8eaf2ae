"""Reads a barcoder save folder and compares two of them the way users see
them: the same summary rows, the same reads per arrangement folder and run id,
files cut the same way, and the same report figures; BAM files each whole
(one end-of-file marker, at the end) with the header a run over all the
inputs would give. Shared by the workflow driver and the merge tests;
standard library only."""

import collections
import gzip
import json
import math
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import bam_file  # noqa: E402

SUMMARY = "barcoding_summary.txt"
REPORT = "barcoding_report.json"
FASTQ_NAME = re.compile(r"^fastq_runid_(.+)_(\d+)\.fastq(\.gz)?$")
BAM_NAME = re.compile(r"^bam_runid_(.+)_(\d+)\.bam$")
REPORT_KEYS = ["program", "version", "options", "wall_time_s", "files", "reads", "mixed_barcodes",
               "unclassified_reasons", "arrangements"]
# Options that differ between a sharded and a single run by design.
RUN_SPECIFIC_OPTIONS = {"input_path", "save_path", "worker_threads"}


class Mismatch(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Mismatch(message)


def read_records(path):
    opener = gzip.open if path.endswith(".gz") else open
    with opener(path, "rb") as handle:
        lines = handle.read().split(b"\n")
    check(lines[-1] == b"", f"{path} does not end in a newline")
    lines.pop()
    check(len(lines) % 4 == 0, f"{path}: {len(lines)} lines, not whole records")
    return [tuple(lines[i:i + 4]) for i in range(0, len(lines), 4)]


def read_bam(path):
    """(header text, records as bytes) of a whole BAM file without reference sequences."""
    text, references, records = bam_file.read_bam(path, Mismatch)
    check(references == 0, f"{path}: reference sequences in the header")
    return text, records


def header_lines(text, kind):
    return [line for line in text.split("\n") if line.startswith(kind)]


def check_bam_headers(single, merged):
    """Each merged file: the single run's @HD first, the same @RG lines,
    @PG lines with distinct IDs."""
    texts = {}
    for folder in (single, merged):
        texts[folder] = [read_bam(os.path.join(current, name))[0] for current, _, names in os.walk(folder)
                         for name in names if BAM_NAME.match(name)]
    if not texts[single]:
        return
    reference = texts[single][0]
    for text in texts[merged]:
        check(text.split("\n")[0] == reference.split("\n")[0], f"@HD differs: {text[:80]!r}")
        check(sorted(header_lines(text, "@RG")) == sorted(header_lines(reference, "@RG")),
              f"@RG lines differ: {header_lines(text, '@RG')} vs {header_lines(reference, '@RG')}")
        ids = [re.search(r"\tID:([^\t]*)", line).group(1) for line in header_lines(text, "@PG")]
        check(ids and len(set(ids)) == len(ids), f"@PG IDs {ids}")


def read_summary(folder):
    with open(os.path.join(folder, SUMMARY), "rb") as handle:
        lines = handle.read().split(b"\n")
    check(lines[-1] == b"", f"{folder}: summary does not end in a newline")
    check(len(lines) >= 2, f"{folder}: summary has no header")
    return lines[0], sorted(lines[1:-1])


def read_series(folder):
    """(folder relative to save, run id) -> {index: records} over every FASTQ
    or BAM file."""
    series = collections.defaultdict(dict)
    for current, _, names in os.walk(folder):
        relative = os.path.relpath(current, folder)
        for name in names:
            path = os.path.join(current, name)
            if match := FASTQ_NAME.match(name):
                series[(relative, match.group(1))][int(match.group(2))] = read_records(path)
            elif match := BAM_NAME.match(name):
                series[(relative, match.group(1))][int(match.group(2))] = read_bam(path)[1]
    return series


def read_report(folder):
    with open(os.path.join(folder, REPORT), encoding="utf-8") as handle:
        report = json.load(handle)
    check(list(report) == REPORT_KEYS, f"{folder}: report keys {list(report)}")
    names = list(report["arrangements"])
    expected = sorted(n for n in names if n != "unclassified") + (["unclassified"] if "unclassified" in names else [])
    check(names == expected, f"{folder}: arrangements out of order: {names}")
    return report


def check_cut(series, limit):
    """Files numbered from 0 without gaps, all holding limit records but the
    last, which holds 1 to limit; without a limit one file."""
    for key, files in series.items():
        check(sorted(files) == list(range(len(files))), f"{key}: file indices {sorted(files)}")
        if limit == 0:
            check(len(files) == 1, f"{key}: {len(files)} files without records_per_fastq")
            continue
        counts = [len(files[i]) for i in range(len(files))]
        check(all(c == limit for c in counts[:-1]) and 1 <= counts[-1] <= limit,
              f"{key}: records per file {counts} with records_per_fastq {limit}")


def close(a, b):
    return math.isclose(a, b, rel_tol=1e-9, abs_tol=1e-9)


def compare_reports(single, merged):
    for section in ("files", "reads", "unclassified_reasons"):
        check(single[section] == merged[section], f"{section}: {single[section]} vs {merged[section]}")
    check(single["mixed_barcodes"] == merged["mixed_barcodes"], "mixed_barcodes differ")
    check(single["version"] == merged["version"] and single["program"] == merged["program"], "program differs")
    check(list(single["arrangements"]) == list(merged["arrangements"]),
          f"arrangements {list(single['arrangements'])} vs {list(merged['arrangements'])}")
    for name, one in single["arrangements"].items():
        other = merged["arrangements"][name]
        check(one["reads"] == other["reads"] and one["bases"] == other["bases"], f"{name}: {one} vs {other}")
        check(close(one["mean_read_length"], other["mean_read_length"]) and close(one["mean_score"],
                                                                                   other["mean_score"]),
              f"{name}: means {one} vs {other}")
    options = [single["options"], merged["options"]]
    for name in set(options[0]) | set(options[1]):
        if name not in RUN_SPECIFIC_OPTIONS:
            check(options[0].get(name) == options[1].get(name),
                  f"option {name}: {options[0].get(name)!r} vs {options[1].get(name)!r}")


def compare_save_folders(single, merged, limit):
    """Raises Mismatch unless merged holds what single holds. The records of
    a series are compared as sets: their order within a run id is no promise,
    a single run with several threads already varies it."""
    check(read_summary(single) == read_summary(merged), "summary rows differ (header or sorted rows)")
    one, other = read_series(single), read_series(merged)
    check(set(one) == set(other), f"(folder, run id) series differ: {sorted(set(one) ^ set(other))}")
    check_cut(other, limit)
    for key in one:
        check(set(one[key]) == set(other[key]), f"{key}: file names differ: {sorted(one[key])} vs {sorted(other[key])}")
        records = [sorted(r for f in series[key].values() for r in f) for series in (one, other)]
        check(records[0] == records[1], f"{key}: the reads differ")
    check_bam_headers(single, merged)
    compare_reports(read_report(single), read_report(merged))
