#!/usr/bin/env python3
"""Gathers the save folders of barcoder shards into one save folder that reads
like the save folder of a single run over all their input files.

    merge_shards.py --save OUT [--input-path IN] [--recursive true|false] SHARD...

What comes out, under OUT:
  barcoding_summary.txt   one header, then every shard's rows, shard by shard
  <arrangement>/fastq_runid_<run id>_<n>.fastq[.gz]
                          per folder and run id the shards' reads; without
                          records_per_fastq one file (gzip members simply
                          follow each other), with it files numbered from 0
                          without gaps, each full but the last, as a single
                          run cuts them
  <arrangement>/bam_runid_<run id>_<n>.bam
                          the same with --output_format bam: each file one
                          header (the first @HD, the shards' @RG lines joined,
                          their @PG lines), the shards' record blocks copied
                          as they are, one end-of-file marker
  barcoding_report.json   the shards' reports summed (see merge_reports)

A shard counts as finished when its folder holds barcoding_report.json, which
the barcoder writes last, after every output file is closed. The merge refuses
an incomplete or inconsistent set of shards, naming the shard, before it
changes anything. It builds the result in OUT/.merge_staging and moves it into
place at the end, the report last, so that a report in OUT always stands for a
complete merge.

Copying is what a merge costs, so it takes the shards' files over instead
where it can: a file that starts an output file is moved, not copied, and only
the files that follow it are copied onto its end. A merge therefore uses its
shards up. Each shard is marked before the first file moves; a merge that
fails after that point, or finds the mark of one that was killed, removes
those shards and says so, and the next workflow run simply redoes them.

Standard library only.
"""

import argparse
import gzip
import json
import os
import re
import shutil
import sys

import bam_files

REPORT = "barcoding_report.json"
SUMMARY = "barcoding_summary.txt"
FILE_LIST = "files.txt"  # the shard's input files, one per line, written by the workflow
STAGING = ".merge_staging"
TAKEN = ".taken_by_merge"  # in a shard whose files a merge has begun to move
UNCLASSIFIED = "unclassified"
FASTQ_NAME = re.compile(r"^fastq_runid_(.+)_(\d+)\.fastq(\.gz)?$")
BAM_NAME = re.compile(r"^bam_runid_(.+)_(\d+)\.bam$")

# Options that differ between the shards of one run by design: each shard has
# its own input list and save folder, and a shard rerun may get fewer threads
# (Snakemake scales threads down to the cores it has), which changes no result.
SHARD_SPECIFIC_OPTIONS = ("input_path", "save_path", "worker_threads")


class MergeError(Exception):
    pass


class Shard:
    def __init__(self, folder, report, series):
        self.folder = folder
        self.name = os.path.basename(os.path.normpath(folder))
        self.report = report
        # (folder relative to the shard, run id) -> file paths in index order
        self.series = series


# ---------------------------------------------------------------- reading shards

def check_complete(folders):
    """Names every shard that is missing or did not finish."""
    problems = []
    for folder in folders:
        name = os.path.basename(os.path.normpath(folder))
        if not os.path.isdir(folder):
            problems.append(f"shard {name} is missing (no folder {folder})")
        elif not os.path.isfile(os.path.join(folder, REPORT)):
            problems.append(f"shard {name} did not finish ({folder} has no {REPORT}, which the barcoder writes "
                            "last; see the shard's log)")
    if problems:
        raise MergeError("incomplete set of shards: " + "; ".join(problems) + ". Run the workflow again to redo them")


def load_shard(folder):
    name = os.path.basename(os.path.normpath(folder))
    report_path = os.path.join(folder, REPORT)
    try:
        with open(report_path, encoding="utf-8") as handle:
            report = json.load(handle)
    except (OSError, ValueError) as error:
        raise MergeError(f"shard {name}: cannot read {report_path}: {error}") from None
    check_report(name, report)
    if not os.path.isfile(os.path.join(folder, SUMMARY)):
        raise MergeError(f"shard {name}: {folder} has a report but no {SUMMARY}")

    listed = os.path.join(folder, FILE_LIST)
    if os.path.isfile(listed):
        with open(listed, encoding="utf-8", errors="surrogateescape") as handle:
            expected = sum(1 for line in handle if line.strip("\n"))
        found = report["files"]["found"]
        if found != expected:
            raise MergeError(f"shard {name}: the barcoder took up {found} of the shard's {expected} input files")

    return Shard(folder, report, find_series(name, folder, report["options"]))


def find_series(name, folder, options):
    """The shard's output files by (folder, run id), checked against the
    options the shard ran with."""
    bam = is_bam(options)
    compressed = options.get("compress_fastq") == "true"
    indexed = {}
    for current, _, names in os.walk(folder):
        relative = os.path.relpath(current, folder)
        if relative == ".":
            continue  # the summary, the report, the file list and the log
        for file_name in names:
            match = (BAM_NAME if bam else FASTQ_NAME).match(file_name)
            if not match:
                raise MergeError(f"shard {name}: unexpected file {os.path.join(current, file_name)}")
            if not bam and bool(match.group(3)) != compressed:
                raise MergeError(f"shard {name}: {file_name} does not match compress_fastq={compressed}")
            key = (relative, match.group(1))
            indexed.setdefault(key, {})[int(match.group(2))] = os.path.join(current, file_name)
    single_file = options.get("records_per_fastq", "0") == "0"
    series = {}
    for key, files in indexed.items():
        if sorted(files) != list(range(len(files))):
            raise MergeError(f"shard {name}: files of run id {key[1]} in {key[0]} are numbered "
                             f"{sorted(files)}, not from 0 without gaps")
        if single_file and len(files) > 1:
            raise MergeError(f"shard {name}: {len(files)} files of run id {key[1]} in {key[0]} although "
                             "records_per_fastq is 0")
        series[key] = [files[i] for i in range(len(files))]
    return series


# The report keys the merge relies on, with the counts it reads directly.
REPORT_LAYOUT = {
    "program": None, "version": None, "wall_time_s": None, "mixed_barcodes": None,
    "options": (), "files": ("found",), "reads": ("written",), "unclassified_reasons": (), "arrangements": (),
}


def is_bam(options):
    return options.get("output_format") == "bam"


def check_report(name, report):
    """Refuses a damaged report by name rather than failing half way."""
    if not isinstance(report, dict):
        raise MergeError(f"shard {name}: its {REPORT} is not a JSON object")
    for key, counts in REPORT_LAYOUT.items():
        if key not in report:
            raise MergeError(f"shard {name}: its {REPORT} has no '{key}'")
        if counts is not None and not (isinstance(report[key], dict) and all(c in report[key] for c in counts)):
            raise MergeError(f"shard {name}: its {REPORT} has a damaged '{key}'")


def check_compatible(shards):
    """Shards of one run: same program, version and options (apart from the
    shard-specific ones) and the same summary columns."""
    first = shards[0]
    for shard in shards[1:]:
        for key in ("program", "version"):
            if shard.report.get(key) != first.report.get(key):
                raise MergeError(f"shards {first.name} and {shard.name} come from different programs: "
                                 f"{key} '{first.report.get(key)}' and '{shard.report.get(key)}'")
        ours, theirs = first.report["options"], shard.report["options"]
        for option in sorted(set(ours) | set(theirs)):
            if option in SHARD_SPECIFIC_OPTIONS or ours.get(option) == theirs.get(option):
                continue
            raise MergeError(f"shards {first.name} and {shard.name} ran with different options: {option} is "
                             f"'{ours.get(option)}' in one and '{theirs.get(option)}' in the other; "
                             "merge only the shards of one run")
    headers = {}
    for shard in shards:
        with open(os.path.join(shard.folder, SUMMARY), "rb") as handle:
            headers[shard.name] = handle.readline()
    if len(set(headers.values())) > 1:
        raise MergeError(f"the shards' summaries have different columns: {sorted(headers)}")


# ---------------------------------------------------------------- FASTQ output

def count_records(path, compressed):
    opener = gzip.open if compressed else open
    lines = 0
    with opener(path, "rb") as handle:
        while chunk := handle.read(1 << 20):
            lines += chunk.count(b"\n")
    if lines % 4:
        raise MergeError(f"{path}: {lines} lines, not a whole number of FASTQ records")
    return lines // 4


def record_offsets(data, counts):
    """Byte offsets in data after each cumulative record count in counts."""
    offsets, position, seen = [], 0, 0
    for count in counts:
        while seen < count:
            for _ in range(4):
                position = data.index(b"\n", position) + 1
            seen += 1
        offsets.append(position)
    return offsets


def append_file(source, handle, start=0, end=None):
    """Appends the bytes of source (from start to end, by default all of
    them) to the unbuffered binary handle, in the kernel where it can."""
    with open(source, "rb") as src:
        end = os.fstat(src.fileno()).st_size if end is None else end
        copied = start
        try:
            while copied < end:
                step = os.copy_file_range(src.fileno(), handle.fileno(), end - copied, offset_src=copied)
                if step == 0:
                    break
                copied += step
        except (AttributeError, OSError):
            src.seek(copied)
            while copied < end:
                chunk = src.read(min(1 << 20, end - copied))
                if not chunk:
                    break
                write_all(handle, chunk)
                copied += len(chunk)
        if copied != end:
            raise OSError(f"{source} ended at byte {copied} while being copied")


def write_all(handle, data):
    """The handle is unbuffered: one write may take only part of the bytes."""
    view = memoryview(data)
    while view:
        view = view[handle.write(view):]


def move(source, target):
    try:
        os.replace(source, target)
    except OSError:  # another file system
        shutil.copyfile(source, target)


class SeriesOutput:
    """One (folder, run id) series of output files, numbered from 0. With a
    limit every file is filled to it before the next one starts."""

    def __init__(self, folder, run_id, compressed, limit):
        self.folder = folder
        self.run_id = run_id
        self.compressed = compressed
        self.limit = limit
        self.next_index = 0
        self.handle = None
        self.count = 0  # records in the open file

    def _path(self, index):
        suffix = ".fastq.gz" if self.compressed else ".fastq"
        return os.path.join(self.folder, f"fastq_runid_{self.run_id}_{index}{suffix}")

    def _start_file(self):
        self.close()
        os.makedirs(self.folder, exist_ok=True)
        self.handle = open(self._path(self.next_index), "wb", buffering=0)
        self.next_index += 1
        self.count = 0

    def _room(self):
        return self.limit - self.count if self.limit else sys.maxsize

    def place_whole(self, source):
        """Moves in a file that is already what the output needs at the next index."""
        self.close()
        os.makedirs(self.folder, exist_ok=True)
        move(source, self._path(self.next_index))
        self.next_index += 1

    def _adopt(self, source, count):
        """Moves source in as the start of the next file, which stays open."""
        self.place_whole(source)
        self.handle = open(self._path(self.next_index - 1), "r+b", buffering=0)
        self.handle.seek(0, os.SEEK_END)
        self.count = count

    def append(self, source, count):
        """Adds the count records of source: moved in when they start a file,
        copied as bytes when they fit into the open one (gzip members may
        follow each other), else cut at record boundaries and compressed
        again."""
        if self.handle is None or self._room() == 0:
            if not self.limit or count <= self.limit:
                self._adopt(source, count)
                return
            self._start_file()
        if count <= self._room():
            append_file(source, self.handle)
            self.count += count
            return
        opener = gzip.open if self.compressed else open
        with opener(source, "rb") as handle:
            data = handle.read()
        # Cut after the records that fill the open file, then after every
        # further limit records; what is left after the last cut (at most
        # limit, at least one record) starts the last file.
        cuts, cut = [], self._room()
        while cut < count:
            cuts.append(cut)
            cut += self.limit
        start = 0
        for end in record_offsets(data, cuts):
            self._write(data[start:end])
            self._start_file()
            start = end
        self._write(data[start:])
        self.count = count - cuts[-1]

    def _write(self, text):
        write_all(self.handle, gzip.compress(text, compresslevel=1, mtime=0) if self.compressed else text)

    def close(self):
        if self.handle is not None:
            self.handle.close()
            self.handle = None


class BamSeriesOutput:
    """SeriesOutput for BAM files. Every file starts with the merged header
    and ends with one end-of-file marker, so the shards' files cannot simply
    be moved in: their record blocks are copied as they are, and only the
    records of a file cut at the limit are compressed again."""

    def __init__(self, folder, run_id, files, header_blocks, limit):
        self.folder = folder
        self.run_id = run_id
        self.files = files  # path -> bam_files.BamFile
        self.header_blocks = header_blocks
        self.limit = limit
        self.next_index = 0
        self.handle = None
        self.count = 0

    def _start_file(self):
        self.close()
        os.makedirs(self.folder, exist_ok=True)
        path = os.path.join(self.folder, f"bam_runid_{self.run_id}_{self.next_index}.bam")
        self.handle = open(path, "wb", buffering=0)
        write_all(self.handle, self.header_blocks)
        self.next_index += 1
        self.count = 0

    def _copy_records(self, source):
        bam = self.files[source]
        if bam.leading:
            write_all(self.handle, bam_files.compress(bam.leading))
        append_file(source, self.handle, bam.start, bam.end)

    def place_whole(self, source):
        """A full file of a shard becomes the next file."""
        self._start_file()
        self._copy_records(source)
        self.close()

    def append(self, source, count):
        if self.handle is None or (self.limit and self.count == self.limit):
            self._start_file()
        if not self.limit or self.count + count <= self.limit:
            self._copy_records(source)
            self.count += count
            return
        records = self.files[source].records()
        start = self.limit - self.count
        write_all(self.handle, bam_files.compress(b"".join(records[:start])))
        while start < count:
            self._start_file()
            write_all(self.handle, bam_files.compress(b"".join(records[start:start + self.limit])))
            self.count = min(self.limit, count - start)
            start += self.limit

    def close(self):
        if self.handle is not None:
            write_all(self.handle, bam_files.EOF_BLOCK)
            self.handle.close()
            self.handle = None


def open_bam_files(shards):
    """Every BAM file of the shards read as far as its header and checked
    for whole blocks and an end-of-file marker, and the one header of the
    merged files; before anything changes, so that a damaged shard is
    refused by name."""
    files, headers = {}, []
    for shard in shards:
        shard_header = None
        for paths in shard.series.values():
            for path in paths:
                try:
                    files[path] = bam_files.BamFile(path)
                except bam_files.BamError as error:
                    raise MergeError(f"shard {shard.name}: {error}") from None
                if shard_header is None:
                    shard_header = files[path].header
                    headers.append(shard_header)
                elif files[path].header != shard_header:
                    raise MergeError(f"shard {shard.name}: {path} has another header than the shard's other files")
    if not headers:
        return files, b""
    try:
        header, warnings = bam_files.merge_headers(headers)
    except bam_files.BamError as error:
        raise MergeError(str(error)) from None
    for warning in warnings:
        print(f"merge_shards: warning: {warning}", file=sys.stderr)
    return files, header.encode()


def merge_series(shards, staging, make_output, count, limit):
    """Writes every (folder, run id) series of the shards under staging."""
    keys = sorted({key for shard in shards for key in shard.series})
    for folder, run_id in keys:
        parts = [shard.series[(folder, run_id)] for shard in shards if (folder, run_id) in shard.series]
        output = make_output(os.path.join(staging, folder), run_id)
        try:
            if limit == 0:
                merge_single_files(output, parts)
            else:
                merge_cut_files(output, parts, count, limit)
        finally:
            output.close()


def merge_single_files(output, parts):
    """Without a limit each shard wrote one file per series (load_shard
    checks): they follow each other in one file."""
    for files in parts:
        output.append(files[0], 0)


def merge_cut_files(output, parts, count, limit):
    """Each shard cut its series like a single run: every file full but the
    last. The full ones keep their contents under new numbers; the last ones
    follow, packed and cut at the limit, so that again only the very last
    file of the series holds fewer records."""
    tails = []
    for files in parts:
        for path in files[:-1]:
            output.place_whole(path)
        records = count(files[-1])
        if records == limit:
            output.place_whole(files[-1])
        else:
            tails.append((files[-1], records))
    for path, records in tails:
        output.append(path, records)


# ---------------------------------------------------------------- summary and report

def merge_summaries(shards, target):
    """One header, then each shard's rows; checks each shard's row count
    against its report."""
    with open(target, "wb") as out:
        for i, shard in enumerate(shards):
            with open(os.path.join(shard.folder, SUMMARY), "rb") as handle:
                header = handle.readline()
                if i == 0:
                    out.write(header)
                rows = 0
                while chunk := handle.read(1 << 20):
                    rows += chunk.count(b"\n")
                    out.write(chunk)
            written = shard.report["reads"]["written"]
            if rows != written:
                raise MergeError(f"shard {shard.name}: {SUMMARY} has {rows} rows but its report counts "
                                 f"{written} written reads")


def report_order(names):
    return sorted(n for n in names if n != UNCLASSIFIED) + ([UNCLASSIFIED] if UNCLASSIFIED in names else [])


def merge_reports(reports, workflow_options):
    """Counts summed, means recomputed from sums (a mean score times the reads
    gives the score sum, exact while every score is finite, as the scorer's
    are), options from the first shard with the run-wide ones of
    workflow_options put back. wall_time_s is the sum of the shards' times:
    what one process would have spent, comparable with a single run's figure;
    the workflow's elapsed time is in Snakemake's own log."""
    first = reports[0]
    options = dict(first["options"])
    options.update(workflow_options)

    def summed(section):
        # Keys in first-seen order: a shard may name a reason the others never met.
        keys = list(dict.fromkeys(key for r in reports for key in r.get(section, {})))
        return {key: sum(r.get(section, {}).get(key, 0) for r in reports) for key in keys}

    arrangements = {}
    for report in reports:
        for name, figures in report["arrangements"].items():
            total = arrangements.setdefault(name, {"reads": 0, "bases": 0, "score_sum": 0.0, "expected_wrong": 0.0})
            total["reads"] += figures["reads"]
            total["expected_wrong"] += figures.get("expected_wrong_calls", 0.0)
            total["bases"] += figures["bases"]
            total["score_sum"] += figures["mean_score"] * figures["reads"]
    merged_arrangements = {}
    for name in report_order(arrangements):
        total = arrangements[name]
        reads = total["reads"]
        merged_arrangements[name] = {
            "reads": reads,
            "bases": total["bases"],
            "mean_read_length": total["bases"] / reads if reads else 0.0,
            "mean_score": total["score_sum"] / reads if reads else 0.0,
            "expected_wrong_calls": total["expected_wrong"],
        }
    return {
        "program": first["program"],
        "version": first["version"],
        "options": options,
        "wall_time_s": float(sum(r["wall_time_s"] for r in reports)),
        "files": summed("files"),
        "reads": summed("reads"),
        "mixed_barcodes": sum(r["mixed_barcodes"] for r in reports),
        "unclassified_reasons": summed("unclassified_reasons"),
        **({"samples": summed("samples")} if any("samples" in r for r in reports) else {}),
        "arrangements": merged_arrangements,
    }


def format_report(report):
    """The report laid out as the barcoder writes it: options and
    arrangements one per line, the other sections on one line each."""
    def value(v):
        return json.dumps(float(v) if isinstance(v, float) else v, ensure_ascii=False)

    def inline(section):
        return "{" + ", ".join(f"{value(k)}: {value(v)}" for k, v in section.items()) + "}"

    def block(section, render):
        if not section:
            return "{}"
        return "{\n" + ",\n".join(f"    {value(k)}: {render(v)}" for k, v in section.items()) + "\n  }"

    parts = []
    for key, v in report.items():
        if key == "options":
            text = block(v, value)
        elif key == "arrangements":
            text = block(v, inline)
        elif isinstance(v, dict):
            text = inline(v)
        else:
            text = value(v)
        parts.append(f"  {value(key)}: {text}")
    return "{\n" + ",\n".join(parts) + "\n}\n"


# ---------------------------------------------------------------- the merge

def install(staging, save):
    """Moves the staged result into save, the report last."""
    for current, _, names in os.walk(staging):
        relative = os.path.relpath(current, staging)
        if relative == ".":
            continue
        os.makedirs(os.path.join(save, relative), exist_ok=True)
        for name in names:
            os.replace(os.path.join(current, name), os.path.join(save, relative, name))
    os.replace(os.path.join(staging, SUMMARY), os.path.join(save, SUMMARY))
    os.replace(os.path.join(staging, REPORT), os.path.join(save, REPORT))
    shutil.rmtree(staging)


def remove_taken(folders, why):
    """Removes the shards a merge has begun to move files out of."""
    taken = [folder for folder in folders if os.path.exists(os.path.join(folder, TAKEN))]
    if not taken:
        return
    for folder in taken:
        shutil.rmtree(folder, ignore_errors=True)
    names = ", ".join(os.path.basename(os.path.normpath(folder)) for folder in taken)
    raise MergeError(f"{why}; shards {names} were partly merged and have been removed: "
                     "run the workflow again to redo them")


def merge(shard_folders, save, workflow_options):
    """Merges the shards into save and returns the merged report, whose
    options are the shards' with save_path and workflow_options put in. The
    shards are used up."""
    if not shard_folders:
        raise MergeError("no shards to merge")
    remove_taken(shard_folders, "an earlier merge of these shards did not finish")
    check_complete(shard_folders)
    shards = [load_shard(folder) for folder in shard_folders]
    check_compatible(shards)
    options = shards[0].report["options"]
    compressed = options.get("compress_fastq") == "true"
    limit = int(options.get("records_per_fastq", "0"))
    if is_bam(options):
        files, header_blocks = open_bam_files(shards)

        def make_output(folder, run_id):
            return BamSeriesOutput(folder, run_id, files, header_blocks, limit)

        def count(path):
            return len(files[path].records())
    else:
        def make_output(folder, run_id):
            return SeriesOutput(folder, run_id, compressed, limit)

        def count(path):
            return count_records(path, compressed)

    staging = os.path.join(save, STAGING)
    shutil.rmtree(staging, ignore_errors=True)
    os.makedirs(staging)
    try:
        merge_summaries(shards, os.path.join(staging, SUMMARY))
        report = merge_reports([shard.report for shard in shards], {**workflow_options, "save_path": save})
    except BaseException:
        shutil.rmtree(staging, ignore_errors=True)
        raise
    for shard in shards:
        open(os.path.join(shard.folder, TAKEN), "w").close()
    try:
        merge_series(shards, staging, make_output, count, limit)
        with open(os.path.join(staging, REPORT), "w", encoding="utf-8") as handle:
            handle.write(format_report(report))
    except (OSError, MergeError, bam_files.BamError) as error:
        shutil.rmtree(staging, ignore_errors=True)
        remove_taken(shard_folders, f"merging the output files failed: {error}")
    install(staging, save)
    return report


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--save", required=True, help="the merged save folder")
    parser.add_argument("--input-path", help="input_path of the whole run, for the merged report")
    parser.add_argument("--recursive", choices=("true", "false"), help="recursive of the whole run")
    parser.add_argument("shards", nargs="*", help="shard save folders, in shard order")
    args = parser.parse_args(argv)
    workflow_options = {}
    if args.input_path is not None:
        workflow_options["input_path"] = args.input_path
    if args.recursive is not None:
        workflow_options["recursive"] = args.recursive
    try:
        report = merge(args.shards, args.save, workflow_options)
    except MergeError as error:
        print(f"merge_shards: {error}", file=sys.stderr)
        return 1
    reads = report["reads"]
    print(f"merge_shards: {len(args.shards)} shards merged into {args.save}: {reads['written']} reads written, "
          f"{reads['classified']} classified, {reads['unclassified']} unclassified")
    return 0


if __name__ == "__main__":
    sys.exit(main())
