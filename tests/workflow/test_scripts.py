"""The workflow's scripts with the barcoder: merged shards read as a single run, bad shards refused by name, the
shard plan reads what the barcoder reads, slurm.py meets Slurm 22.05's answers.
Run: VB_BARCODER=build/bin/vorpa_barcoder python3 -m unittest discover -s tests/workflow"""

import collections
import contextlib
import gzip
import io
import json
import math
import os
import pathlib
import random
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from unittest import mock

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "workflow", "scripts"))
sys.path.insert(0, os.path.join(HERE, "..", "..", "workflow", "profiles", "slurm"))
sys.path.insert(0, HERE)

import merge_shards  # noqa: E402
from bam_files import EOF_BLOCK, compress  # noqa: E402
import slurm  # noqa: E402
from shard_plan import PlanError, discover_inputs, make_shards  # noqa: E402
from workflow_driver import (REPORT, SUMMARY, bam_file, compare_save_folders, output_files, read_records,  # noqa: E402
                             read_report, read_series)

BARCODER = os.environ.get("VB_BARCODER")
EXAMPLE = os.path.join(HERE, "..", "..", "examples", "reads", "vb_nb24_extra.fastq")


def barcode(inputs, save, *options):
    """A barcoder run on the files listed, as run_shard.sh starts one."""
    subprocess.run([BARCODER, "-i", "", "-s", save, "--quiet", *options], input="".join(f + "\n" for f in inputs),
                   text=True, check=True, capture_output=True, timeout=60)
    edit(os.path.join(save, "files.txt"), "".join(f + "\n" for f in inputs))
    return save


def bgzf(data, rng):
    """data in BGZF blocks cut at random places, so that records and the header span blocks."""
    cuts = [0]
    while cuts[-1] < len(data):
        cuts.append(min(len(data), cuts[-1] + rng.randint(1, 300)))
    return b"".join(compress(data[a:b]) for a, b in zip(cuts, cuts[1:]))


def edit(path, text, mode="w"):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, mode) as handle:
        handle.write(text)


def bam_paths(folder):
    return sorted(path for *_, path in output_files(folder) if path.endswith(".bam"))


class Folder(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="vb_workflow_test_")
        self.addCleanup(shutil.rmtree, self.work)

    def path(self, *parts):
        return os.path.join(self.work, *parts)


@unittest.skipUnless(BARCODER, "VB_BARCODER is not set")
class MergeTest(Folder):
    def inputs(self, rng, files, reads):
        """FASTQ files (some empty or compressed) of example reads under two run ids, one with underscores, or none
        (dropped: self.dropped counts them)."""
        chosen = rng.sample(read_records(EXAMPLE), reads)
        cuts = sorted(rng.randint(0, reads) for _ in range(files - 1))
        paths = [self.path("in", f"part{i}.fastq" + (".gz" if rng.random() < 0.3 else "")) for i in range(files)]
        os.makedirs(self.path("in"), exist_ok=True)
        self.dropped = 0
        for name, a, b in zip(paths, [0] + cuts, cuts + [reads]):
            with (gzip.open if name.endswith(".gz") else open)(name, "wb") as handle:
                for title, *rest in chosen[a:b]:
                    run_id = rng.choices([b"runid=r1 ", b"runid=run_2_with_underscores ", b""], [10, 10, 1])[0]
                    self.dropped += not run_id
                    handle.write(b"\n".join([re.sub(rb"runid=\S+ ", run_id, title), *rest]) + b"\n")
        return paths

    def check_report(self, save, files, options):
        """barcoding_report.json agrees with the summary and the output it describes."""
        report = read_report(save)
        with open(os.path.join(save, SUMMARY)) as handle:
            rows = [line.split("\t") for line in handle.read().splitlines()[1:]]
        scores, bases = collections.defaultdict(list), collections.Counter()
        for row in rows:
            scores[row[1]].append(float(row[5]))
        for (folder, *_), series in read_series(save).items():  # a BAM record's length is at byte 20
            bases[folder] += sum(len(r[1]) if isinstance(r, tuple) else struct.unpack_from("<i", r, 20)[0]
                                 for f in series for r in f)
        reads, unclassified = report["reads"], len(scores.get("unclassified", []))
        self.assertEqual((reads["total"], reads["written"], reads["classified"], reads["unclassified"],
                          reads["dropped_no_run_id"], report["unclassified_reasons"]["no_barcode_above_minimum"],
                          report["files"], report["options"]["trim_barcodes"], report["options"]["worker_threads"]),
                         (len(rows) + self.dropped, len(rows), len(rows) - unclassified, unclassified, self.dropped,
                          unclassified, {"found": files, "read": files, "ended_early": 0, "failed": 0},
                          str("--trim_barcodes" in options).lower(), "2"))
        self.assertEqual(list(report["arrangements"]), sorted(scores, key=lambda name: (name == "unclassified", name)))
        for name, figures in report["arrangements"].items():
            n = len(scores[name])
            self.assertEqual((figures["reads"], figures["bases"]), (n, bases[name]), name)
            self.assertAlmostEqual(figures["mean_read_length"], bases[name] / n)
            # The summary prints scores to six digits.
            self.assertTrue(math.isclose(figures["mean_score"], sum(scores[name]) / n, rel_tol=1e-5), name)

    def shards(self, inputs, *options, threads=lambda: "1"):
        """One shard per input file under .shards/, as the workflow lays them out."""
        return [barcode([f], self.path(".shards", f"shard_{i:03d}"), "-t", threads(), *options)
                for i, f in enumerate(inputs)]

    def test_merged_shards_equal_a_single_run(self):
        rng = random.Random(1234)
        for round_ in range(24):
            with self.subTest(round=round_):
                self.setUp()
                options = ["--barcode_kits", "VB-NB24"] + rng.choice([[], [], ["-q", "2"], ["-q", "3"], ["-q", "7"]])
                options += rng.choice([[], ["--compress_fastq"], ["--output_format", "bam"], ["--trim_barcodes"]])
                inputs = self.inputs(rng, rng.randint(1, 6), rng.randint(1, 60) if round_ else 0)
                single = barcode(inputs, self.path("single"), "-t", "2", *options)
                self.check_report(single, len(inputs), options)
                # A shard rerun may get fewer threads.
                folders = self.shards(inputs, *options, threads=lambda: rng.choice("12"))
                wall_time = sum(read_report(folder)["wall_time_s"] for folder in folders)
                # A merge may be redone over an earlier one, killed or not, that left its staging folder.
                if rng.random() < 0.3:
                    shutil.copytree(self.path(".shards"), self.path("copy"))
                    merge_shards.merge(folders, self.path("merged"), {})
                    shutil.rmtree(self.path(".shards"))
                    os.rename(self.path("copy"), self.path(".shards"))
                    os.makedirs(self.path("merged", merge_shards.STAGING, "leftover"))
                merge_shards.merge(folders, self.path("merged"), {"input_path": "in"})
                compare_save_folders(single, self.path("merged"))
                report = read_report(self.path("merged"))
                self.assertEqual((report["options"]["input_path"], report["options"]["save_path"]),
                                 ("in", self.path("merged")))
                self.assertAlmostEqual(report["wall_time_s"], wall_time)
                self.assertNotIn(merge_shards.STAGING, os.listdir(self.path("merged")))
                # samtools, when installed, reads every merged record, checksums included.
                for path in bam_paths(self.path("merged")) if shutil.which("samtools") else []:
                    view = subprocess.run(["samtools", "view", "-c", path], capture_output=True, text=True)
                    self.assertEqual((view.returncode, view.stderr), (0, ""), path)

    def test_a_merge_that_fails_half_way_removes_the_shards_it_used(self):
        folders = self.shards(self.inputs(random.Random(5), 3, 90), "--barcode_kits", "VB-NB24")
        failing = mock.patch.object(merge_shards, "append_file", side_effect=OSError(28, "No space left on device"))
        with failing as copy, self.assertRaisesRegex(merge_shards.MergeError, "No space left on device; shards "
                                                     "shard_000, shard_001, shard_002 were partly merged and have "
                                                     "been removed"):
            merge_shards.merge(folders, self.path("merged"), {})
        self.assertEqual((copy.called, [f for f in folders if os.path.exists(f)], os.listdir(self.path("merged"))),
                         (True, [], []))

    def test_bam_shards_refused_when_damaged_merged_when_read_groups_clash(self):
        """Each damage to a fresh copy of the shards is named, leaving the save folder and the shards alone."""
        folders = self.shards(self.inputs(random.Random(5), 3, 90), "--barcode_kits", "VB-NB24", "--output_format",
                              "bam", "-q", "1")
        shutil.move(self.path(".shards"), self.path("template"))

        def bam(folders):
            return bam_paths(folders[1])[0]

        def damaged(change):
            def damage(folders):
                with open(bam(folders), "rb") as handle:
                    data = handle.read()
                edit(bam(folders), change(data), "wb")
            return damage

        def other_options(folders):
            report = read_report(folders[2])
            report["options"]["barcode_kits"] = "VB-NB96"
            edit(os.path.join(folders[2], REPORT), json.dumps(report))

        def zero_first_body(data):
            size = struct.unpack_from("<H", data, 16)[0] + 1
            return data[:18] + b"\0" * (size - 26) + data[size - 8:]

        cases = [  # (damage, words of the refusal or functions of the shards giving them)
            (lambda f: (shutil.rmtree(f[1]), os.remove(os.path.join(f[2], REPORT))),
             "incomplete set of shards: shard shard_001 is missing", "; shard shard_002 did not finish"),
            (lambda f: edit(os.path.join(f[1], REPORT), '{"program": "vorpa"'), "shard shard_001: cannot read"),
            (lambda f: edit(os.path.join(f[1], REPORT), '{"program": "vorpa_barcoder"}'),
             "shard shard_001: its barcoding_report.json has no"),
            (other_options, "shard_000 and shard_002 ran with different options", "barcode_kits"),
            (lambda f: edit(os.path.join(f[0], SUMMARY), "extra\tunclassified\t0\n", "a"),
             "shard shard_000: barcoding_summary.txt has", "rows but its report counts"),
            (lambda f: edit(os.path.join(f[1], "files.txt"), "one_more.fastq\n", "a"),
             "shard shard_001: the barcoder took up 1 of the shard's 2 input files"),
            (lambda f: edit(os.path.join(f[0], "unclassified", "notes.txt"), "x"), "shard shard_000: unexpected file",
             "notes.txt"),
            (lambda f: os.remove(next(p for p in bam_paths(f[1]) if p.endswith("_1.bam")).replace("_1.bam", "_0.bam")),
             "shard shard_001: files of run id", "not from 0 without gaps"),
            (lambda f: f.clear(), "no shards to merge"),
            # At the file's blocks: the end-of-file marker or last footer goes, the first body zeroed, the header cut.
            (damaged(lambda data: data[:-28]), lambda f: f"shard shard_001: {bam(f)}",
             "no end-of-file marker: the file is truncated"),
            (damaged(lambda data: data[:len(data) - 36] + EOF_BLOCK), "no BGZF block at byte"),
            (damaged(zero_first_body), "is damaged"),
            (damaged(lambda data: bgzf(b"BAM\x01" + struct.pack("<i", 100) + b"@HD", random.Random(1)) + EOF_BLOCK),
             "ends inside its header"),
        ]
        for damage, *fragments in cases:
            with self.subTest(fragments[-1]):
                shutil.rmtree(self.path(".shards"), ignore_errors=True)
                shutil.copytree(self.path("template"), self.path(".shards"))
                shards = list(folders)
                fragments = [f(shards) if callable(f) else f for f in fragments]
                damage(shards)
                existing = [folder for folder in shards if os.path.isdir(folder)]
                stderr = io.StringIO()
                with contextlib.redirect_stderr(stderr):
                    self.assertEqual(merge_shards.main(["--save", self.path("merged")] + shards), 1)
                for fragment in fragments:
                    self.assertIn(fragment, stderr.getvalue())
                self.assertFalse(os.path.exists(self.path("merged")) and os.listdir(self.path("merged")))
                self.assertEqual([f for f in existing if os.path.exists(os.path.join(f, merge_shards.TAKEN))
                                  or not os.path.isdir(f)], [])
        # A read group defined differently by two shards, blocks cut anywhere: every merged file has the first @HD,
        # every group, the first definition and distinct @PG IDs.
        shutil.copytree(self.path("template"), self.path("groups"))
        folders = [os.path.join(self.path("groups"), os.path.basename(f)) for f in folders]
        shards, rng, records = [f for f in folders if bam_paths(f)], random.Random(1), []  # some may have no reads
        for shard, groups in zip(shards, (["g0\tDS:runid=x"], ["g0\tDS:runid=y", "g1\tDS:runid=z"], [])):
            for path in bam_paths(shard):
                text, _, file_records = bam_file.read_bam(path, AssertionError)
                text = text.replace("SO:unsorted\n", "SO:unsorted\n" + "".join(f"@RG\tID:{g}\n" for g in groups))
                header = b"BAM\x01" + struct.pack("<i", len(text)) + text.encode() + struct.pack("<i", 0)
                edit(path, bgzf(header + b"".join(file_records), rng) + EOF_BLOCK, "wb")
                records += file_records
        stderr = io.StringIO()
        with contextlib.redirect_stderr(stderr):
            merge_shards.merge(folders, self.path("merged"), {})
        self.assertIn("read group 'g0' is defined differently by two shards; the merged header keeps the first: "
                      "@RG\tID:g0\tDS:runid=x", stderr.getvalue())
        merged = []
        for path in bam_paths(self.path("merged")):
            text, _, file_records = bam_file.read_bam(path, AssertionError)
            merged += file_records
            groups = "@RG\tID:g0\tDS:runid=x\n@RG\tID:g1\tDS:runid=z\n"
            self.assertTrue(text.startswith("@HD\tVN:1.6\tSO:unsorted\n" + groups), text)
            ids = ["", *(f".{i}" for i in range(1, len(shards) + 1))]
            self.assertEqual([text.count(f"@PG\tID:vorpa_barcoder{i}\t") for i in ids], [1] * len(shards) + [0])
        self.assertEqual(sorted(merged), sorted(records))


# Names around the edges of "*.fastq or *.fastq.<ext>".
NAMES = ["a.fastq", "b.fastq.gz", "c.fq", ".fastq", ".fastq.gz", "..fastq", "d.fastq.gz.bak", "e.FASTQ", "f.fastq.tmp",
         "g.fastq.gz.part", ".h.fastq", "f.fastq.", "g.fastq.x.y", "h.tar.fastq", "fastq", "i.fastqq", "j.fast.q",
         "k .fastq", "l.fastq.bz2"]


class ShardPlanTest(Folder):
    @unittest.skipUnless(BARCODER, "VB_BARCODER is not set")
    def test_the_same_files_as_the_barcoder(self):
        """Random trees of files, folders named like FASTQ files and links, against the barcoder's verbose log."""
        rng = random.Random(4242)
        open(self.path("elsewhere.txt"), "w").close()
        for round_ in range(12):
            root = self.path(f"tree{round_}")
            folders = [root]
            os.makedirs(root)
            for i in range(rng.randint(5, 25)):
                path = os.path.join(rng.choice(folders), rng.choice(NAMES) if rng.random() < 0.8 else f"n{i}.fastq")
                kind = rng.random()
                if os.path.lexists(path):
                    continue
                if kind < 0.55:
                    open(path, "w").close()
                elif kind < 0.75:
                    os.makedirs(path)
                    folders.append(path)
                else:
                    os.symlink(rng.choice([self.path("elsewhere.txt"), rng.choice(folders), self.path("no")]), path)
            for recursive in (False, True):
                save = self.path(f"save{round_}_{recursive}")
                subprocess.run([BARCODER, "-i", root, "-s", save, "--verbose_logs", "--quiet", "--barcode_kits",
                                "VB-NB24"] + (["-r"] if recursive else []), check=True, capture_output=True, timeout=60)
                log = next(pathlib.Path(save).glob("*.log")).read_text(encoding="utf-8", errors="surrogateescape")
                expected = sorted(re.findall(r"Starting input file: (.*)", log))
                self.assertEqual(discover_inputs(root, save, recursive), expected, f"round {round_}, {recursive}")

    @unittest.skipUnless(BARCODER, "VB_BARCODER is not set")
    def test_a_shard_stopped_by_a_signal_logs_it_and_fails(self):
        """Slurm and Ctrl-C signal the whole job: the shard's log keeps what it had and says why it stopped."""
        log = pathlib.Path(self.path("shard_000.log"))
        shard = subprocess.Popen(["bash", os.path.join(HERE, "..", "..", "workflow", "scripts", "run_shard.sh"),
                                  BARCODER, self.path("shard_000"), str(log), "1", "--barcode_kits", "VB-NB24", "--",
                                  *[EXAMPLE] * 3000], stderr=subprocess.DEVNULL, start_new_session=True)
        for _ in range(600):
            if log.exists() and "[info]" in log.read_text():
                break
            time.sleep(0.05)
        os.killpg(shard.pid, signal.SIGTERM)
        self.assertNotEqual(shard.wait(timeout=120), 0)
        text = log.read_text()
        self.assertTrue("[info]" in text and text.endswith("shard shard_000: stopped by SIGTERM\n"), text[-2000:])

    def test_the_save_folder_is_never_read(self):
        root = self.path("in")
        for folder in ("", "sub", "out", os.path.join("out", ".shards", "shard_000"), os.path.join("out", "x")):
            edit(os.path.join(root, folder, "r.fastq"), "")
        found = discover_inputs(root, os.path.join(root, "out"), True)
        self.assertEqual(found, [os.path.join(root, "r.fastq"), os.path.join(root, "sub", "r.fastq")])
        self.assertEqual(len(discover_inputs(root, os.path.join(root, "sub", "..", "out"), True)), 2)
        # Next to the input, without recursion, is what a single run allows too.
        self.assertEqual(discover_inputs(root, root, False), [os.path.join(root, "r.fastq")])
        edit(os.path.join(root, "line\nbreak.fastq"), "")
        for args, message in (((root, root, True), "is input_path itself"),
                              ((os.path.join(root, "r.fastq"), "x", False), "is not a folder"),
                              ((root, "x", False), "line break")):
            with self.assertRaisesRegex(PlanError, message):
                discover_inputs(*args)

    def test_shards_keep_the_file_order_and_sort_by_name(self):
        for count, per_shard in [(0, 2), (1, 1), (7, 3), (9, 3), (1001, 1), (5, 10)]:
            files = [f"f{i:05d}.fastq" for i in range(count)]
            shards = make_shards(files, per_shard)
            self.assertEqual((sum(shards.values(), []), list(shards), len(shards)),
                             (files, sorted(shards), -(-count // per_shard)))
            self.assertTrue(all(len(s) == per_shard for s in list(shards.values())[:-1]))
        self.assertRaisesRegex(PlanError, "at least 1", make_shards, ["a.fastq"], 0)


class SlurmProfileTest(Folder):
    def setUp(self):
        super().setUp()
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(self.work)

    def call(self, *argv, **answers):
        """slurm.py, USER unset, Slurm answering from answers (sbatch_out, ...): (status, out, err, commands run)."""
        commands, out, err = [], io.StringIO(), io.StringIO()

        def answer(args):
            commands.append(args)
            err = answers.get(f"{args[0]}_err", "")
            return int(bool(err)), answers.get(f"{args[0]}_out", ""), err

        with mock.patch.object(slurm, "run", answer), mock.patch.dict(os.environ), contextlib.redirect_stdout(out), \
                contextlib.redirect_stderr(err):
            os.environ.pop("USER", None)
            try:
                slurm.main(["slurm.py", *argv])
                status = 0
            except SystemExit as exit:
                status = exit.code
        return status, out.getvalue(), err.getvalue(), commands

    def test_status(self):
        logs = self.path("o u t", "logs")
        edit(os.path.join(logs, "shard_007.log"), "")
        stdout = os.path.join(logs, "slurm", "shard_007-42.log")
        log = f"its log: {logs}/shard_007.log; Slurm's output: {stdout}"
        for shard, verdict in (("008", "error: Exceeded job memory limit"),
                               ("009", "*** JOB 42 ON n1 CANCELLED AT 2026-11-25T10:00:00 DUE TO TIME LIMIT ***")):
            edit(os.path.join(logs, "slurm", f"shard_{shard}-42.log"), f"slurmstepd-n1: {verdict}\n")

        def line(state, reason="None", name="vb.shard_007", stdout=stdout):
            return (f"JobId=42 JobName={name} UserId=root(0) Account=lab42 JobState={state} Reason={reason} "
                    f"Dependency=(null) ExitCode=0:15 TimeLimit=00:10:00 NumCPUs=64 MinMemoryNode=700M "
                    f"WorkDir=/data StdErr={stdout} StdIn=/dev/null StdOut={stdout} Power=\n")

        invalid = "slurm_load_jobs error: Invalid job id specified"
        cases = [  # (scontrol's answer or the commands' answers, printed, words on stderr)
            (line("RUNNING"), "running", []), (line("PENDING", "Priority"), "running", []),
            (line("COMPLETING"), "running", []), (line("SUSPENDED"), "running", []), (line("COMPLETED"), "success", []),
            (line("CANCELLED"), "failed",
             ["shard shard_007 failed: Slurm job 42 ended CANCELLED (exit code 0:15)", log]),
            (line("TIMEOUT"), "failed", ["ended TIMEOUT", "barcode_shard:runtime=", log]),
            (line("OUT_OF_MEMORY"), "failed", ["ended OUT_OF_MEMORY", "barcode_shard:mem_mb="]),
            *[(line(state), "failed", [f"ended {state}"]) for state in ("NODE_FAIL", "PREEMPTED", "FAILED")],
            # Waiting for a reason only a changed request clears: cancelled.
            (line("PENDING", "PartitionConfig"), "failed",
             ["shard shard_007 failed", "cannot start as asked (64 CPUs, 700M memory, 00:10:00 time; Slurm's "
              "reason: PartitionConfig", "was cancelled"]),
            # Killed over its memory or time, as slurmstepd says: a hint; no shard log named where none was begun.
            (line("FAILED", name="vb.shard_008", stdout=f"{logs}/slurm/shard_008-42.log"), "failed",
             ["shard shard_008 failed", "ended FAILED (exit code 0:15), over its memory", "Slurm's output"]),
            (line("CANCELLED", name="vb.shard_009", stdout=f"{logs}/slurm/shard_009-42.log"), "failed",
             ["ended CANCELLED (exit code 0:15), out of time"]),
            (line("FAILED", name="vb.merge_shards", stdout=f"{logs}/slurm/merge-42.log"), "failed",
             ["rule merge_shards failed: Slurm job 42 ended FAILED (exit code 0:15); Slurm's output"]),
            # Forgotten by slurmctld: the accounting database answers.
            ({"scontrol_err": invalid, "sacct_out": "CANCELLED by 0|None|vb.shard_002|0:15\n"}, "failed",
             ["shard shard_002 failed: Slurm job 42 ended CANCELLED"]),
            ({"scontrol_err": invalid, "sacct_out": "COMPLETED|None|vb.shard_002|0:0\n"}, "success", []),
            ({"scontrol_err": invalid}, "failed", ["unknown to slurmctld"]),
            ({"scontrol_err": "slurm_load_jobs error: Unable to contact slurm controller"}, "running",  # for a moment
             ["cannot ask Slurm"]),
        ]
        for answer, printed, words in cases:
            with self.subTest(answer=answer):
                status, out, err, commands = self.call("status", "42", **(answer if isinstance(answer, dict) else
                                                                          {"scontrol_out": answer}))
                self.assertEqual((status, out, err == ""), (0, printed + "\n", not words), err)
                for word in words:
                    self.assertIn(word, err)
                if "shard_008" in err or "merge" in err:
                    self.assertNotIn("its log", err)
                self.assertEqual(["scancel", "42"] in commands, "was cancelled" in words, commands)

    def test_submit(self):
        def submit(rule, wildcards, resources, log, threads=3, **answers):
            properties = {"type": "single", "rule": rule, "local": False, "input": [], "output": [],
                          "wildcards": wildcards, "params": {}, "log": [log] if log else [], "threads": threads,
                          "resources": resources, "jobid": 5, "cluster": {}}
            edit(self.path("snakejob.sh"), f"#!/bin/sh\n# properties = {json.dumps(properties)}\necho job\n")
            return self.call("submit", self.path("snakejob.sh"), **answers)

        full = {"mem_mb": 700, "runtime": 25, "slurm_account": "lab42", "slurm_partition": "short",
                "slurm_extra": "--qos=long --constraint='a b'", "tmpdir": "/tmp"}
        out = self.path("out", "logs", "slurm")
        cases = [
            ("barcode_shard", {"shard": "shard_004"}, full, "out/logs/shard_004.log",
             ["--job-name=vb.shard_004", f"--output={out}/shard_004-%j.log", "--cpus-per-task=3", "--mem=700",
              "--time=25", "--account=lab42", "--partition=short", "--qos=long", "--constraint=a b"]),
            ("merge_shards", {}, {"mem_mb": 1000}, "out/logs/merge.log",
             ["--job-name=vb.merge_shards", f"--output={out}/merge-%j.log", "--mem=1000"]),
            ("barcode_shard", {"shard": "shard_000"}, {}, None,
             ["--job-name=vb.shard_000", f"--output={self.work}/.snakemake/slurm/shard_000-%j.log"]),
        ]
        for rule, wildcards, resources, log, expected in cases:
            with self.subTest(rule=rule, resources=resources):
                status, printed, err, [args] = submit(rule, wildcards, resources, log, sbatch_out="123;vbtest\n")
                self.assertEqual((status, printed, args[-1]), (0, "123\n", self.path("snakejob.sh")), err)
                for option in expected:
                    self.assertIn(option, args)
                self.assertTrue(os.path.isdir(os.path.dirname(expected[1].split("=", 1)[1])))
                if "slurm_account" not in resources:
                    self.assertFalse([a for a in args if a.startswith(("--account", "--partition"))], args)
        status, _, err, _ = submit("barcode_shard", {"shard": "shard_009"}, {"mem_mb": 700}, None, threads=64,
                                   sbatch_err="sbatch: error: Batch job submission failed: Requested node "
                                   "configuration is not available")
        self.assertEqual(status, 1)
        self.assertIn("shard_009: sbatch refused the job: sbatch: error: Batch job submission failed: Requested node "
                      "configuration is not available", err)
        self.assertIn("--cpus-per-task=64", err)


if __name__ == "__main__":
    unittest.main()
