#!/usr/bin/env python3
"""End-to-end checks of BAM input and output and of the sample sheet.

Same frame as e2e_driver.py (whose helpers it uses): each case runs the real
program in a fresh folder. BAM output is read back by a small reader here, so
that only the cases that need BAM *input* (made with `samtools import`) need
samtools; they are skipped, with a message, when it is not installed.

Usage: bam_and_samples.py --binary BIN --source REPO --work DIR --case NAME
"""

import collections
import json
import os
import shutil
import signal
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import bam_file  # noqa: E402
from e2e_driver import (SUMMARY, Context, Failure, Skip, barcoder_args, check, interrupt_when_written,  # noqa: E402
                        main, many_reads, many_run_ids, output_reads, read_fastq, read_id, read_summary,
                        read_truth_rows, run_with_few_descriptors, split_into_files, tree_bytes, write_fastq)

COMPLEMENT = str.maketrans("ACGT", "TGCA")


def need_samtools():
    if shutil.which("samtools") is None:
        raise Skip("samtools is not installed (scripts/install-deps.sh optional installs it)")


# ---------------------------------------------------------------- BAM reading

def read_bam(path):
    """(header text, records as dicts of name, flag, seq, qual and tags) of a whole BAM file."""
    header, _, records = bam_file.read_bam(path, Failure)
    return header, [bam_file.decode(record) for record in records]


def output_bam_reads(save):
    """read id -> (folder relative to save, file name, record) over every BAM file written."""
    found = {}
    for folder, _, files in os.walk(save):
        for name in files:
            if not name.endswith(".bam"):
                continue
            check(name.startswith("bam_runid_"), f"unexpected output file {name}")
            for record in read_bam(os.path.join(folder, name))[1]:
                check(record["name"] not in found, f"read {record['name']} written twice")
                found[record["name"]] = (os.path.relpath(folder, save), name, record)
    return found


def tag(record, name):
    values = [value for t, _, value in record["tags"] if t == name]
    return values[0] if values else None


def samtools_agree(save):
    """samtools finds every BAM file whole; returns its count of reads per folder."""
    by_folder = collections.defaultdict(list)
    for folder, _, names in os.walk(save):
        by_folder[os.path.relpath(folder, save)] += [os.path.join(folder, n) for n in names if n.endswith(".bam")]
    files = [path for paths in by_folder.values() for path in paths]
    result = subprocess.run(["samtools", "quickcheck", "-u"] + files, capture_output=True, text=True)
    check(result.returncode == 0, f"samtools quickcheck -u fails: {result.stdout}{result.stderr}")
    counts = collections.Counter()
    for folder, paths in by_folder.items():
        if not paths:
            continue
        joined = subprocess.run(["samtools", "cat"] + paths, capture_output=True, check=True).stdout
        out = subprocess.run(["samtools", "view", "-c", "-"], input=joined, capture_output=True, check=True)
        counts[folder] = int(out.stdout)
    return counts


# ---------------------------------------------------------------- input files

def revcomp(seq):
    return seq.translate(COMPLEMENT)[::-1]


def title_fields(title):
    return dict(field.split("=", 1) for field in title.split(" ")[1:] if "=" in field)


def import_bam(ctx, path, records, run_tag=False, read_group=None):
    """records as an unaligned BAM made by samtools import: the title's fields
    become tags xc (channel), xn (read number) and xs (start time), and the run
    id goes into a read group's PU or the ri tag."""
    fastq = path + ".source.fastq"
    converted = []
    for title, seq, qual in records:
        fields = title_fields(title)
        # samtools import takes tab-separated SAM tags from the comment.
        comment = f"xc:i:{fields['ch']}\txn:i:{fields['read']}\txs:Z:{fields['start_time']}"
        if run_tag:
            comment += f"\tri:Z:{fields['runid']}"
        converted.append((f"@{read_id(title)} {comment}", seq, qual))
    write_fastq(fastq, converted)
    command = ["samtools", "import", "-0", fastq, "-T", "*", "-o", path]
    if read_group:
        command += ["-r", f"ID:{read_group[0]}", "-r", f"PU:{read_group[1]}"]
    subprocess.run(command, check=True, capture_output=True)
    os.remove(fastq)


def by_run_id(records):
    groups = collections.defaultdict(list)
    for record in records:
        groups[title_fields(record[0])["runid"]].append(record)
    return [groups[key] for key in sorted(groups)]


def summary_columns(trim=False, sample=False):
    return 18 + (2 if trim else 0) + (1 if sample else 0)


# ---------------------------------------------------------------- cases

def case_bam_round_trip(ctx):
    """FASTQ and the same reads as BAM give the same calls; BAM output keeps
    every input tag, adds the arrangement, and trims like FASTQ output."""
    need_samtools()
    records, _ = ctx.simulate("rt", 240, 71, ["a.fastq", "b.fastq.gz"], folder="fq")
    first, second = by_run_id(records)
    os.makedirs(ctx.path("bam"))
    run_a = title_fields(first[0][0])["runid"]
    import_bam(ctx, ctx.path("bam", "a.bam"), first, read_group=("grpA", run_a))
    import_bam(ctx, ctx.path("bam", "b.bam"), second, run_tag=True)
    inputs = {read_id(t): (t, s, q) for t, s, q in records}

    quality = "--barcode_quality_column"
    ctx.run(barcoder_args("fq", "fq_fq", "--trim_barcodes", quality))
    ctx.run(barcoder_args("fq", "fq_bam", "--trim_barcodes", quality, "--output_format", "bam"))
    ctx.run(barcoder_args("bam", "bam_bam", "--trim_barcodes", quality, "--output_format", "bam", "-t", "2"))
    ctx.run(barcoder_args("bam", "bam_fq", "--trim_barcodes", quality))
    columns = summary_columns(trim=True) + 1
    _, rows = read_summary(ctx.path("fq_fq", SUMMARY), columns)
    for save in ("fq_bam", "bam_bam", "bam_fq"):
        _, other = read_summary(ctx.path(save, SUMMARY), columns)
        check(other == rows, f"{save}: the summary differs from the FASTQ run's")
    check(len(rows) == len(records), "reads were lost")

    fastq_out = {rid: (folder, *record) for rid, (folder, _, record) in output_reads(ctx.path("fq_fq")).items()}
    input_tags = {}
    for name in ("a.bam", "b.bam"):
        for record in read_bam(ctx.path("bam", name))[1]:
            input_tags[record["name"]] = record["tags"]

    from_fastq = output_bam_reads(ctx.path("fq_bam"))
    from_bam = output_bam_reads(ctx.path("bam_bam"))
    check(set(from_fastq) == set(from_bam) == set(fastq_out), "the outputs hold different reads")
    trimmed = 0
    for rid, (folder, title, seq, qual) in fastq_out.items():
        arrangement = rows[rid][1]
        for label, written in (("FASTQ input", from_fastq), ("BAM input", from_bam)):
            out_folder, name, record = written[rid]
            check(out_folder == folder == arrangement, f"{rid} filed under {out_folder}, {label}")
            check(record["flag"] == 4, f"{rid}: flag {record['flag']}")
            check((record["seq"], record["qual"]) == (seq, qual), f"{rid} trimmed otherwise than as FASTQ ({label})")
            check(tag(record, "ar") == arrangement and record["tags"][-2][0] == "ar",
                  f"{rid}: arrangement tag missing or misplaced ({label})")
            # The barcode quality last, as the summary gives it (0 when unclassified).
            check(record["tags"][-1][0] == "bq" and record["tags"][-1][2] == int(rows[rid][20]),
                  f"{rid}: barcode quality tag {record['tags'][-1]} against {rows[rid][20]} ({label})")
            check((arrangement == "unclassified") <= (tag(record, "bq") == 0), f"{rid}: unclassified with a quality")
        trimmed += len(seq) < len(inputs[rid][1])
        # FASTQ input: the title's fields in CO, as the FASTQ output's title has them.
        check(tag(from_fastq[rid][2], "CO") + f" barcode={arrangement}" == title.split(" ", 1)[1],
              f"{rid}: CO does not hold the title's fields")
        # BAM input: every tag it had, in order, then ar and bq.
        check(from_bam[rid][2]["tags"][:-2] == input_tags[rid], f"{rid}: input tags not kept")
        run_id = title_fields(inputs[rid][0])["runid"]
        check(from_bam[rid][1] == from_fastq[rid][1] == f"bam_runid_{run_id}_0.bam", f"{rid}: wrong file")
    check(trimmed > 150, f"only {trimmed} reads trimmed: the case does not test trimming")

    header, _ = read_bam(os.path.join(ctx.path("bam_bam"), *next(iter(from_bam.values()))[:2]))
    lines = header.splitlines()
    check(lines[0].startswith("@HD\tVN:") and f"@RG\tID:grpA\tPU:{run_a}" in lines, f"header:\n{header}")
    check(lines[-1].startswith("@PG\tID:vorpa_barcoder\tPN:vorpa_barcoder\tVN:") and "--output_format bam" in lines[-1],
          f"no @PG line with the command line:\n{header}")
    counts = samtools_agree(ctx.path("bam_bam"))
    check(counts == collections.Counter(row[1] for row in rows.values()), "samtools counts differ from the summary")
    # BAM input, FASTQ output: the title carries the run id from the tag or the read group.
    for rid, (_, _, (out_title, _, _)) in output_reads(ctx.path("bam_fq")).items():
        run_id = title_fields(inputs[rid][0])["runid"]
        check(out_title == f"@{rid} runid={run_id} barcode={rows[rid][1]}", f"title {out_title}")


def case_bam_input_kinds(ctx):
    """A folder of FASTQ, BAM and CRAM; mapped records of both strands;
    secondary and supplementary records skipped and counted; a record without
    a run id dropped and counted."""
    need_samtools()
    records, _ = ctx.simulate("kinds", 200, 72)
    run_id = title_fields(records[0][0])["runid"]
    os.makedirs(ctx.path("in"))
    write_fastq(ctx.path("in", "a.fastq.gz"), records[:60])
    import_bam(ctx, ctx.path("in", "b.bam"), records[60:110], run_tag=True)
    import_bam(ctx, ctx.path("tmp.bam"), records[110:140], read_group=("g", run_id))
    subprocess.run(["samtools", "view", "-C", "-o", ctx.path("in", "c.cram"), ctx.path("tmp.bam")], check=True)
    lines = ["@HD\tVN:1.6", "@SQ\tSN:ref\tLN:10000000", f"@RG\tID:g\tPU:{run_id}"]
    reverse, extra = set(), 0
    for k, (title, seq, qual) in enumerate(records[140:]):
        rid = read_id(title)
        if k % 2:
            reverse.add(rid)
            lines.append(f"{rid}\t16\tref\t{100 + k}\t60\t{len(seq)}M\t*\t0\t0\t{revcomp(seq)}\t{qual[::-1]}"
                         "\tRG:Z:g\tNM:i:0")
        else:
            lines.append(f"{rid}\t0\tref\t{100 + k}\t60\t{len(seq)}M\t*\t0\t0\t{seq}\t{qual}\tRG:Z:g\tNM:i:0")
        if k % 5 == 0:
            lines.append(f"{rid}\t256\tref\t5\t0\t{len(seq)}M\t*\t0\t0\t*\t*\tRG:Z:g")
            lines.append(f"{rid}\t2064\tref\t9\t0\t20M{len(seq) - 20}H\t*\t0\t0\t{revcomp(seq[:20])}\t*\tRG:Z:g")
            extra += 2
    lines.append("no_run_id\t4\t*\t0\t0\t*\t*\t0\t0\tACGTACGTAC\t*")
    with open(ctx.path("mapped.sam"), "w") as handle:
        handle.write("\n".join(lines) + "\n")
    subprocess.run(["samtools", "view", "-b", "-o", ctx.path("in", "d.bam"), ctx.path("mapped.sam")], check=True)

    result = ctx.run(barcoder_args("in", "out", "-t", "2"))
    split_into_files(ctx.path("ref_in"), records, ["all.fastq"])
    ctx.run(barcoder_args("ref_in", "ref"))
    _, rows = read_summary(ctx.path("out", SUMMARY), 18)
    _, reference = read_summary(ctx.path("ref", SUMMARY), 18)
    check(rows == reference, "BAM, CRAM and mapped input are classified otherwise than the same reads as FASTQ")
    check(f"Secondary and supplementary records skipped (not reads of their own): {extra}." in result.stdout,
          "skipped records are not reported:\n" + result.stdout[-1500:])
    check("Reads without a run id (not written): 1." in result.stdout, "the read without a run id is not reported")
    check("Found 4 fastq files." in result.stdout, "the BAM and CRAM files were not all found")
    inputs = {read_id(t): (s, q) for t, s, q in records}
    for rid, (_, _, (_, seq, qual)) in output_reads(ctx.path("out")).items():
        check((seq, qual) == inputs[rid], f"{rid} not in its own orientation"
                                          f"{' (reverse strand)' if rid in reverse else ''}")


def case_thread_count_invariance(ctx):
    """Output bytes do not depend on the number of worker threads, for FASTQ
    (plain, compressed, trimmed) and BAM. Enough reads for several batches, in
    files of uneven sizes, so that batches start and end inside files and span
    file boundaries. The threads are set in a configuration file so that the
    command line (and so the BAM header) stays the same."""
    records = many_reads(ctx, "threads", 20)
    os.makedirs(ctx.path("in"))
    bounds = [0, 700, 701, 4500, 6000, len(records)]
    for k in range(len(bounds) - 1):
        write_fastq(ctx.path("in", f"part{k}.fastq" + (".gz" if k % 2 else "")), records[bounds[k]:bounds[k + 1]])
    with open(os.path.join(ctx.source, "data", "barcoding", "configuration.cfg")) as handle:
        base = handle.read()
    bam = ["--output_format", "bam"]
    few, many = ("1", "4"), ("1", "2", "8")
    for extra, threads_list in (([], many), (["--compress_fastq", "-q", "250"], many), (["--trim_barcodes"], many),
                                (bam, few), (bam + ["-q", "250", "--trim_barcodes"], few)):
        trees = []
        for threads in threads_list:
            with open(ctx.path("threads.cfg"), "w") as handle:
                handle.write(base + f"\nworker_threads = {threads}\n")
            shutil.rmtree(ctx.path("out"), ignore_errors=True)
            ctx.run(["-c", "./threads.cfg"] + barcoder_args("in", "out", *extra))
            trees.append(tree_bytes(ctx.path("out")))
        check(all(tree == trees[0] for tree in trees), f"output bytes depend on the number of worker threads {extra}")
        written = (output_bam_reads if "bam" in extra else output_reads)(ctx.path("out"))
        _, rows = read_summary(ctx.path("out", SUMMARY), summary_columns(trim="--trim_barcodes" in extra))
        check(len(written) == len(records) and set(written) == set(rows),
              f"{len(records)} reads in, {len(rows)} summary rows, {len(written)} records written")


def case_bam_rotation_and_few_files(ctx):
    """-q rotation and far more output files than descriptors (ulimit -n 64):
    every BAM file whole, the reads of each folder those the summary files
    there; and whole again after an interrupted run."""
    records, _ = ctx.simulate("bamfd", 1500, 73)
    renamed = many_run_ids(records)
    split_into_files(ctx.path("in"), renamed, ["a.fastq", "b.fastq"])
    for extra in ([], ["-q", "3"]):
        save = "out" + str(len(extra))
        result = run_with_few_descriptors(ctx, barcoder_args("in", save, "-t", "2", "--output_format", "bam", *extra))
        check(result.returncode == 0, f"status {result.returncode} under ulimit -n 64\n{result.stdout[-2000:]}")
        _, rows = read_summary(ctx.path(save, SUMMARY), 18)
        written = output_bam_reads(ctx.path(save))
        check(set(written) == set(rows) == {read_id(t) for t, _, _ in renamed}, "reads lost under ulimit -n 64")
        for rid, (folder, name, _) in written.items():
            check(folder == rows[rid][1], f"{rid} in {folder}, classified {rows[rid][1]}")
        series = {(folder, name.rsplit("_", 1)[0]) for folder, name, _ in written.values()}
        check(len(series) > 200, f"only {len(series)} output series: the case does not test eviction")
        if extra:
            sizes = collections.Counter((folder, name) for folder, name, _ in written.values())
            check(max(sizes.values()) <= 3 and any(name.endswith("_1.bam") for _, name in sizes),
                  "files are not cut at 3 records")
        if shutil.which("samtools"):
            counts = samtools_agree(ctx.path(save))
            check(counts == collections.Counter(row[1] for row in rows.values()), "samtools counts differ")

    # Interrupted: the files closed on the way out are whole.
    os.makedirs(ctx.path("many"))
    # Far more reads than the batches in flight, so that the stop comes first.
    copies = 40
    for copy in range(copies):
        write_fastq(ctx.path("many", f"copy{copy}.fastq"), [(f"@c{copy}_{t[1:]}", s, q) for t, s, q in renamed])
    returncode, out, err = interrupt_when_written(
        ctx, barcoder_args("many", "stopped", "-t", "1", "--output_format", "bam", "-q", "5"), "stopped", signal.SIGINT)
    check(returncode == 130, f"status {returncode} after SIGINT\n{out[-1500:]}{err[-1500:]}")
    _, rows = read_summary(ctx.path("stopped", SUMMARY), 18)
    written = output_bam_reads(ctx.path("stopped"))
    check(set(written) == set(rows) and 0 < len(rows) < copies * len(renamed), f"{len(rows)} rows after SIGINT")


def write_sam_as_bam(path, lines):
    with open(path + ".sam", "w") as handle:
        handle.write("\n".join(lines) + "\n")
    subprocess.run(["samtools", "view", "-b", "-o", path, path + ".sam"], check=True, capture_output=True)
    os.remove(path + ".sam")


def case_bam_run_id_from_read_group(ctx):
    """BAM as basecallers write it: the run id only as runid= in the read
    group's DS, the flow cell in PU, shared by two runs (a reload). The same
    calls, files and reads as the FASTQ with runid= in the titles. A read
    group with PU alone files its reads under the PU, with one warning."""
    need_samtools()
    records, _ = ctx.simulate("rg", 240, 76, ["a.fastq"], folder="fq")
    groups = by_run_id(records)
    check(len(groups) >= 2, "the case needs the reads of two runs")
    lines = ["@HD\tVN:1.6\tSO:unsorted"]
    lines += [f"@RG\tID:rg{k}\tPU:FLOWCELL1\tDS:basecall_model=fast runid={title_fields(g[0][0])['runid']} x=1"
              for k, g in enumerate(groups)]
    for k, group in enumerate(groups):
        lines += [f"{read_id(t)}\t4\t*\t0\t0\t*\t*\t0\t0\t{s}\t{q}\tRG:Z:rg{k}" for t, s, q in group]
    os.makedirs(ctx.path("bam"))
    write_sam_as_bam(ctx.path("bam", "a.bam"), lines)
    ctx.run(barcoder_args("fq", "from_fq", "--trim_barcodes"))
    result = ctx.run(barcoder_args("bam", "from_bam", "--trim_barcodes"))
    check("platform unit" not in result.stdout, "a warning about PU although DS names the run")
    columns = summary_columns(trim=True)
    check(read_summary(ctx.path("from_fq", SUMMARY), columns) == read_summary(ctx.path("from_bam", SUMMARY), columns),
          "the summaries differ")
    fastq, bam = output_reads(ctx.path("from_fq")), output_reads(ctx.path("from_bam"))
    check(set(fastq) == set(bam) == {read_id(t) for t, _, _ in records}, "reads lost")
    for rid, (folder, name, (_, seq, qual)) in fastq.items():
        check(bam[rid][:2] == (folder, name) and bam[rid][2][1:] == (seq, qual), f"{rid}: {bam[rid][:2]}, not "
              f"{(folder, name)}, or other bases")

    # PU alone: the run id, with one warning naming the file and the group.
    lines = ["@HD\tVN:1.6", "@RG\tID:only\tPU:FLOWCELL1"]
    lines += [f"{read_id(t)}\t4\t*\t0\t0\t*\t*\t0\t0\t{s}\t{q}\tRG:Z:only" for t, s, q in records[:20]]
    os.makedirs(ctx.path("pu"))
    write_sam_as_bam(ctx.path("pu", "b.bam"), lines)
    result = ctx.run(barcoder_args("pu", "from_pu"))
    warnings = [line for line in result.stdout.splitlines() if "platform unit" in line]
    check(len(warnings) == 1 and "b.bam" in warnings[0] and "'only'" in warnings[0], f"warnings: {warnings}")
    names = {name for _, name, _ in output_reads(ctx.path("from_pu")).values()}
    check(names == {"fastq_runid_FLOWCELL1_0.fastq"}, f"files {names}")


def modification_calls(seq, mm, ml):
    """(list head, read position, probabilities) of every call in MM/ML,
    found by walking the read; the reference for what the program writes."""
    calls, probabilities = [], list(ml[1]) if ml else []
    used = 0
    for entry in mm.split(";")[:-1]:
        head, *skips = entry.split(",")
        base = head[0]
        codes = 1 if head[2].isdigit() else len(head[2:].rstrip(".?"))
        position = -1
        for skip in map(int, skips):
            for _ in range(skip + 1):
                position += 1
                while base != "N" and seq[position] != base.replace("U", "T"):
                    position += 1
            calls.append((head, position, tuple(probabilities[used:used + codes])))
            used += codes
    check(used == len(probabilities), f"{len(probabilities)} ML values for {used} calls in {mm}")
    return calls


def random_modifications(rng, seq):
    """MM and ML values for a read: several lists on both strands."""
    lists, ml = [], []
    for head, base, codes in (("C+mh?", "C", 2), ("G-m.", "G", 1), ("N+n", "N", 1), ("A+a", "A", 1)):
        skip, entry = 0, head
        for b in seq:
            if base != "N" and b != base:
                continue
            if rng.random() < 0.3:
                entry += f",{skip}"
                ml += [rng.randrange(256) for _ in range(codes)]
                skip = 0
            else:
                skip += 1
        lists.append(entry + ";")
    return "".join(lists), ml


def case_bam_modifications_trimmed(ctx):
    """Base modifications through --trim_barcodes: every call on a kept base
    stays on that base, with its probabilities, on reads stored either way
    round; calls on cut bases are gone; unreadable tags are dropped with a
    warning naming the read; samtools reads every record."""
    need_samtools()
    import random
    rng = random.Random(77)
    records, _ = ctx.simulate("mods", 200, 77)
    lines = ["@HD\tVN:1.6", "@SQ\tSN:ref\tLN:10000000"]
    lines.append(f"@RG\tID:g\tDS:runid={title_fields(records[0][0])['runid']}")
    inputs = {}
    for k, (title, seq, qual) in enumerate(records):
        rid = read_id(title)
        mm, ml = random_modifications(rng, seq)
        if k == 7:
            mm = "C+m,100000;"  # past the read's last C
        inputs[rid] = (seq, mm, ml)
        tags = f"RG:Z:g\tMM:Z:{mm}" + (f"\tML:B:C,{','.join(map(str, ml))}" if ml else "")
        if k % 3 == 1:  # stored reverse complemented; the tags keep the read's orientation
            lines.append(f"{rid}\t16\tref\t{100 + k}\t60\t{len(seq)}M\t*\t0\t0\t{revcomp(seq)}\t{qual[::-1]}\t{tags}")
        else:
            lines.append(f"{rid}\t4\t*\t0\t0\t*\t*\t0\t0\t{seq}\t{qual}\t{tags}")
    os.makedirs(ctx.path("in"))
    write_sam_as_bam(ctx.path("in", "mods.bam"), lines)
    result = ctx.run(barcoder_args("in", "out", "--trim_barcodes", "--output_format", "bam"))

    broken = read_id(records[7][0])
    warnings = [line for line in result.stdout.splitlines() if "modification" in line]
    check(len(warnings) == 1 and broken in warnings[0] and "MM" in warnings[0], f"warnings: {warnings}")
    header, rows = read_summary(ctx.path("out", SUMMARY), summary_columns(trim=True))
    front_column, rear_column = header.index("barcode_front_total_trimmed"), header.index("barcode_rear_total_trimmed")
    written = output_bam_reads(ctx.path("out"))
    check(set(written) == set(inputs), "reads lost")
    cut_calls = kept_calls = 0
    for rid, (seq, mm, ml) in inputs.items():
        record = written[rid][2]
        front, rear = int(rows[rid][front_column]), int(rows[rid][rear_column])
        check(record["seq"] == seq[front:len(seq) - rear], f"{rid}: bases")
        if rid == broken:
            check(not {"MM", "ML", "MN"} & {t for t, _, _ in record["tags"]}, f"{rid} kept unreadable tags")
            continue
        before = modification_calls(seq, mm, ("C", ml) if ml else None)
        expected = [(h, p - front, v) for h, p, v in before if front <= p < len(seq) - rear]
        after = modification_calls(record["seq"], tag(record, "MM"), tag(record, "ML"))
        check(after == expected, f"{rid}: modification calls moved or lost")
        check(tag(record, "MN") == len(record["seq"]) or (front + rear == 0 and tag(record, "MN") is None),
              f"{rid}: MN {tag(record, 'MN')}")
        cut_calls += len(before) - len(expected)
        kept_calls += len(expected)
    check(cut_calls > 100 and kept_calls > 1000, f"{cut_calls} calls cut, {kept_calls} kept: too few to judge")
    print(f"{kept_calls} modification calls on kept bases in place, {cut_calls} on cut bases gone")
    check(sum(samtools_agree(ctx.path("out")).values()) == len(inputs), "samtools does not read every record")


def write_sheet(ctx, name, text):
    with open(ctx.path(name), "w") as handle:
        handle.write(text)
    return name


def case_sample_sheet(ctx):
    records, _ = ctx.simulate("samples", 300, 74, ["a.fastq", "b.fastq.gz"])
    ctx.run(barcoder_args("in", "plain"))
    _, plain = read_summary(ctx.path("plain", SUMMARY), 18)
    sheet = write_sheet(ctx, "sheet.tsv", "# plate 1\nsample\tarrangement\tdescription\n"
                                          "Liver-A\tbarcode01\tleft lobe\nLiver-A\tbarcode02\tright lobe\n"
                                          "Kidney\tbarcode03\t\nEmpty\tbarcode24\tnot loaded\n")
    samples = {"barcode01": "Liver-A", "barcode02": "Liver-A", "barcode03": "Kidney", "barcode24": "Empty"}
    for trim in (False, True):
        save = "sheet" + ("_trim" if trim else "")
        extra = ["--trim_barcodes"] if trim else []
        result = ctx.run(barcoder_args("in", save, "--sample_sheet", sheet, *extra))
        header, rows = read_summary(ctx.path(save, SUMMARY), summary_columns(trim, sample=True))
        check(header[-1] == "sample" and (not trim or header[-2] == "barcode_rear_total_trimmed"),
              f"header {header}")
        check(set(rows) == set(plain), "reads lost")
        unlisted = 0
        for rid, row in rows.items():
            arrangement = plain[rid][1]
            if arrangement in samples:
                check(row[1] == arrangement and row[-1] == samples[arrangement], f"{rid}: {row[1]}, {row[-1]}")
            else:
                check(row[1] == "unclassified" and row[-1] == "unclassified", f"{rid}: {row[1]} {row[-1]}")
                check(row[2:18] == plain[rid][2:18], f"{rid}: the best candidate is no longer shown")
                unlisted += arrangement != "unclassified"
        check(unlisted > 100, "too few reads of unlisted arrangements to judge")
        folders = sorted(d for d in os.listdir(ctx.path(save)) if os.path.isdir(ctx.path(save, d)))
        expected = sorted({samples.get(row[1], "unclassified") for row in plain.values()} | {"unclassified"})
        check(folders == expected and "Liver-A" in folders, f"folders {folders}")
        for folder in folders:
            for name in os.listdir(ctx.path(save, folder)):
                for title, _, _ in read_fastq(ctx.path(save, folder, name)):
                    check(rows[read_id(title)][-1] == folder, f"{read_id(title)} in {folder}")
        check(f"unclassified, not in sample sheet: {unlisted}" in result.stdout, "the reason is not counted")
        check("Reads per sample:" in result.stdout and "  Empty " in result.stdout and
              result.stdout.index("  Kidney ") < result.stdout.index("  Liver-A ") <
              result.stdout.rindex("  unclassified "), "reads per sample are not reported:\n" + result.stdout[-2000:])

    # The same from the configuration file, with BAM output.
    with open(os.path.join(ctx.source, "data", "barcoding", "configuration.cfg")) as handle:
        base = handle.read()
    with open(ctx.path("samples.cfg"), "w") as handle:
        handle.write(base + "\nsample_sheet = sheet.tsv\noutput_format = bam\n")
    ctx.run(["-c", "./samples.cfg"] + barcoder_args("in", "from_cfg"))
    _, rows = read_summary(ctx.path("from_cfg", SUMMARY), summary_columns(sample=True))
    _, earlier = read_summary(ctx.path("sheet", SUMMARY), summary_columns(sample=True))
    check(rows == earlier, "the configuration file's sample sheet is not used")
    for rid, (folder, _, record) in output_bam_reads(ctx.path("from_cfg")).items():
        check(folder == rows[rid][-1] and tag(record, "ar") == rows[rid][1], f"{rid} in {folder}")


def pair_kit(ctx, fronts, rears):
    """A pair kit of our own design (fronts x rears barcodes) in ctx/kit, and
    the arguments that select it."""
    subprocess.run([sys.executable, os.path.join(ctx.source, "tools", "design_kit.py"), "--pairs", ctx.path("kit"),
                    "--pair-kit", "PK", "--pair-size", f"{fronts}x{rears}"], check=True, capture_output=True)
    return ["-c", os.path.join("kit", "configuration.cfg"), "-d", "kit", "--barcode_kits", "PK"]


def case_sample_sheet_pairs(ctx):
    kit = pair_kit(ctx, 4, 3)
    # Every pair but F04 + R01 and F02 + R03; F02 + R02 is sample B's as well.
    listed = [(f, r) for f in range(1, 5) for r in range(1, 4) if (f, r) not in ((4, 1), (2, 3))]
    samples = {f"F{f:02d}_R{r:02d}": "B" if (f, r) == (2, 2) else f"S{f}{r}" for f, r in listed}
    write_sheet(ctx, "pairs.tsv", "sample\tfront\trear\n" + "".join(
        f"{samples[f'F{f:02d}_R{r:02d}']}\tF{f:02d}\tR{r:02d}\n" for f, r in listed))
    subprocess.run([sys.executable, os.path.join(ctx.source, "tools", "simulate_reads.py"), "-o",
                    ctx.path("in", "reads.fastq"), "--truth", ctx.path("truth.tsv"), "--kit", "PK", "--data",
                    ctx.path("kit"), "--sample-sheet", ctx.path("pairs.tsv"), "-n", "700", "--seed", "81",
                    "--frac-unlisted", "0.15", "--frac-front", "0.15", "--median-length", "400"],
                   check=True, capture_output=True)
    kinds = read_truth_rows(ctx.path("truth.tsv"))
    result = ctx.run(kit + ["-i", "in", "-s", "out", "--sample_sheet", "pairs.tsv", "--unclassified_reason_column"])
    header, rows = read_summary(ctx.path("out", SUMMARY), summary_columns(sample=True) + 1)
    check(header[-2:] == ["sample", "barcode_unclassified_reason"], f"header {header}")
    check(set(rows) == set(kinds), "reads lost")
    found = {}
    for rid, row in rows.items():
        truth = kinds[rid]
        carried = f"{truth['front']}_{truth['rear']}"
        outcome = "called" if row[1] == carried else row[-1] if row[1] == "unclassified" else "wrong"
        found.setdefault((truth["kind"], truth["orientation"]), []).append(outcome)
        if row[1] != "unclassified":
            check(row[-2] == samples[row[1]] and row[-1] == "", f"{rid}: {row[1]} in {row[-2]}")
    for orientation in "+-":
        pairs = found[("pair", orientation)]
        check(pairs.count("called") >= 0.97 * len(pairs) and len(pairs) > 150,
              f"reads of listed pairs, strand {orientation}: {pairs.count('called')} of {len(pairs)} called")
    one_end = found[("front", "+")] + found[("front", "-")] + found[("rear", "+")] + found[("rear", "-")]
    check(one_end.count("only one end") >= 0.95 * len(one_end) and "wrong" not in one_end,
          f"one end missing: {sorted(set(one_end))}, {one_end.count('only one end')} of {len(one_end)}")
    unlisted = found[("unlisted", "+")] + found[("unlisted", "-")]
    check(unlisted.count("pair not in sample sheet") >= len(unlisted) - 1 and len(unlisted) > 50,
          f"unlisted pairs: {unlisted.count('pair not in sample sheet')} of {len(unlisted)}")
    wrong = sum(outcomes.count("wrong") for outcomes in found.values())
    check(wrong <= 1, f"{wrong} reads called to a pair they do not carry")

    # The report adds up: samples, reasons, folders.
    with open(ctx.path("out", "barcoding_report.json")) as handle:
        report = json.load(handle)
    reads = report["reads"]
    check(sum(report["samples"].values()) == reads["written"] == len(kinds), f"samples {report['samples']}")
    by_row = collections.Counter(row[-2] for row in rows.values())
    check({sample: n for sample, n in report["samples"].items() if n} == by_row and
          set(samples.values()) <= set(report["samples"]), f"samples {report['samples']}, summary {by_row}")
    check(sum(report["unclassified_reasons"].values()) == reads["unclassified"] == report["samples"]["unclassified"],
          f"reasons {report['unclassified_reasons']}, {reads}")
    check(report["unclassified_reasons"]["pair_not_in_sample_sheet"] >= len(unlisted) - 1, "unlisted not counted")
    cross_talk = report["cross_talk"]
    check(cross_talk["method"] == "unlisted pairs" and cross_talk["measurable"] and
          cross_talk["unlisted_reads"] == report["unclassified_reasons"]["pair_not_in_sample_sheet"] and
          set(cross_talk["samples"]) == set(samples.values()), f"cross_talk {cross_talk}")
    check("Cross-talk, reads from other samples:" in result.stdout, result.stdout[-2000:])
    folders = sorted(d for d in os.listdir(ctx.path("out")) if os.path.isdir(ctx.path("out", d)))
    check(set(folders) <= set(samples.values()) | {"unclassified"} and "B" in folders, f"folders {folders}")

    # A sheet naming a barcode the kit does not have is refused, naming the
    # line (the unit tests pin every fault's message).
    write_sheet(ctx, "bad.tsv", "front\trear\tsample\nF01\tR07\tA\n")
    result = ctx.run(kit + ["-i", "in", "-s", "refused", "--sample_sheet", "bad.tsv"], expect=255)
    check("Sample sheet 'bad.tsv', line 2: the rear barcode 'R07' is not a single-barcode arrangement" in result.stdout,
          result.stdout[-1500:])


CASES = {name[len("case_"):]: fn for name, fn in globals().items() if name.startswith("case_")}


if __name__ == "__main__":
    sys.exit(main(CASES))
