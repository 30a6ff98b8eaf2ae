"""merge_shards.py against a naive model of the barcoder's save folder: random
reads are written once as a single run and once split over shards; merging
the shards must give the single run's folder. Then the refusals: every
incomplete or mixed set of shards is named and leaves the save folder alone.

Run: python3 -m unittest discover -s tests/workflow
"""

import collections
import contextlib
import gzip
import io
import json
import os
import random
import shutil
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "workflow", "scripts"))
sys.path.insert(0, HERE)

import merge_shards  # noqa: E402
from save_folder import compare_save_folders  # noqa: E402

HEADER = "read_id\tbarcode_arrangement\tbarcode_score\n"
Read = collections.namedtuple("Read", "read_id arrangement run_id sequence score")


def options(limit, compressed, **changes):
    values = {"quiet": "true", "worker_threads": "2", "input_path": "", "save_path": "x", "recursive": "false",
              "barcode_kits": "VB-NB24", "records_per_fastq": str(limit),
              "compress_fastq": "true" if compressed else "false"}
    values.update(changes)
    return values


def naive_report(reads, opts, wall_time, files):
    """The report as its fields are defined, from the reads alone."""
    by_name = collections.defaultdict(list)
    for read in reads:
        by_name[read.arrangement].append(read)
    unclassified = len(by_name.get("unclassified", []))
    names = sorted(n for n in by_name if n != "unclassified") + (["unclassified"] if unclassified else [])
    arrangements = {}
    for name in names:
        group = by_name[name]
        bases = sum(len(r.sequence) for r in group)
        arrangements[name] = {"reads": len(group), "bases": bases, "mean_read_length": bases / len(group),
                              "mean_score": sum(r.score for r in group) / len(group)}
    return {
        "program": "vorpa_barcoder", "version": "0.1.0", "options": opts, "wall_time_s": wall_time,
        "files": {"found": files, "read": files, "ended_early": 0, "failed": 0},
        "reads": {"total": len(reads), "written": len(reads), "classified": len(reads) - unclassified,
                  "unclassified": unclassified, "dropped_no_run_id": 0, "failed": 0},
        "mixed_barcodes": 0,
        "unclassified_reasons": {"no_barcode_above_minimum": unclassified, "mixed_barcodes": 0, "one_end_only": 0},
        "arrangements": arrangements,
    }


def write_save_folder(folder, reads, limit, compressed, files=1, wall_time=1.5, **option_changes):
    """What the barcoder leaves for these reads: summary, FASTQ series cut at
    limit, report, and the workflow's list of input files."""
    os.makedirs(folder)
    with open(os.path.join(folder, "barcoding_summary.txt"), "w") as handle:
        handle.write(HEADER)
        handle.writelines(f"{r.read_id}\t{r.arrangement}\t{r.score}\n" for r in reads)
    series = collections.defaultdict(list)
    for read in reads:
        quality = "I" * len(read.sequence)
        text = f"@{read.read_id} runid={read.run_id} barcode={read.arrangement}\n{read.sequence}\n+\n{quality}\n"
        series[(read.arrangement, read.run_id)].append(text.encode())
    for (arrangement, run_id), records in series.items():
        os.makedirs(os.path.join(folder, arrangement), exist_ok=True)
        chunks = [records] if limit == 0 else [records[i:i + limit] for i in range(0, len(records), limit)]
        for index, chunk in enumerate(chunks):
            name = f"fastq_runid_{run_id}_{index}.fastq" + (".gz" if compressed else "")
            opener = gzip.open if compressed else open
            with opener(os.path.join(folder, arrangement, name), "wb") as handle:
                handle.write(b"".join(chunk))
    report = naive_report(reads, options(limit, compressed, save_path=folder, **option_changes), wall_time, files)
    with open(os.path.join(folder, "barcoding_report.json"), "w") as handle:
        json.dump(report, handle)
    with open(os.path.join(folder, "files.txt"), "w") as handle:
        handle.writelines(f"input_{i}.fastq\n" for i in range(files))
    with open(os.path.join(folder, "vorpa_barcoder_log-2024-01-01_00-00-00.log"), "w") as handle:
        handle.write("log\n")


def random_reads(rng, count, start):
    arrangements = ["barcode01", "barcode02", "barcode17", "unclassified"]
    run_ids = ["r1", "run_2_with_underscores"]
    return [Read(f"read{start + i}", rng.choice(arrangements), rng.choice(run_ids),
                 "".join(rng.choice("ACGT") for _ in range(rng.randint(1, 30))), rng.uniform(-5, 100))
            for i in range(count)]


class MergeTest(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="vb_merge_test_")

    def tearDown(self):
        shutil.rmtree(self.work)

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def make_shards(self, parts, limit=0, compressed=False, changes=None):
        folders = []
        for i, reads in enumerate(parts):
            folder = self.path(".shards", f"shard_{i:03d}")
            write_save_folder(folder, reads, limit, compressed, **(changes or {}).get(i, {}))
            folders.append(folder)
        return folders

    def test_merged_shards_equal_a_single_run(self):
        rng = random.Random(1234)
        for round_ in range(60):
            with self.subTest(round=round_):
                self.tearDown()
                self.setUp()
                limit = rng.choice([0, 0, 2, 3, 5, 7])
                compressed = rng.random() < 0.5
                shards = rng.randint(1, 6)
                reads = random_reads(rng, rng.randint(0, 120), 0)
                # Files go to shards whole, so a shard holds a run of reads;
                # a shard may also be empty.
                cuts = sorted(rng.randint(0, len(reads)) for _ in range(shards - 1))
                parts = [reads[a:b] for a, b in zip([0] + cuts, cuts + [len(reads)])]
                write_save_folder(self.path("single"), reads, limit, compressed, files=shards, wall_time=1.5 * shards)
                folders = self.make_shards(parts, limit, compressed)
                merge_shards.merge(folders, self.path("merged"), {"input_path": "in"})
                compare_save_folders(self.path("single"), self.path("merged"), limit)

                with open(self.path("merged", "barcoding_report.json")) as handle:
                    report = json.load(handle)
                self.assertEqual(report["options"]["input_path"], "in")
                self.assertEqual(report["options"]["save_path"], self.path("merged"))
                self.assertAlmostEqual(report["wall_time_s"], 1.5 * shards)
                self.assertNotIn(merge_shards.STAGING, os.listdir(self.path("merged")))

    def test_merging_again_over_an_earlier_merge_gives_the_same_folder(self):
        rng = random.Random(99)
        reads = random_reads(rng, 40, 0)
        write_save_folder(self.path("single"), reads, 3, True, files=2, wall_time=3.0)
        merge_shards.merge(self.make_shards([reads[:13], reads[13:]], 3, True), self.path("merged"), {})
        shutil.rmtree(self.path(".shards"))
        os.makedirs(self.path("merged", merge_shards.STAGING, "leftover"))  # as a merge killed half way leaves it
        merge_shards.merge(self.make_shards([reads[:13], reads[13:]], 3, True), self.path("merged"), {})
        compare_save_folders(self.path("single"), self.path("merged"), 3)
        self.assertNotIn(merge_shards.STAGING, os.listdir(self.path("merged")))

    def test_a_merge_that_fails_half_way_removes_the_shards_it_used(self):
        reads = random_reads(random.Random(3), 30, 0)
        folders = self.make_shards([reads[:10], reads[10:20], reads[20:]])
        calls = []

        def failing_copy(source, handle):
            calls.append(source)
            raise OSError(28, "No space left on device")

        original = merge_shards.append_file
        merge_shards.append_file = failing_copy
        try:
            with self.assertRaisesRegex(merge_shards.MergeError, "No space left on device; shards shard_000, "
                                        "shard_001, shard_002 were partly merged and have been removed"):
                merge_shards.merge(folders, self.path("merged"), {})
        finally:
            merge_shards.append_file = original
        self.assertTrue(calls)
        self.assertFalse(any(os.path.exists(folder) for folder in folders))
        self.assertEqual(os.listdir(self.path("merged")), [])

        # A merge killed after it began to move files leaves its mark: the
        # next merge removes the marked shards rather than merge what is left.
        folders = self.make_shards([reads[:10], reads[10:20], reads[20:]])
        open(os.path.join(folders[1], merge_shards.TAKEN), "w").close()
        with self.assertRaisesRegex(merge_shards.MergeError, "did not finish; shards shard_001 were partly merged"):
            merge_shards.merge(folders, self.path("merged"), {})
        self.assertEqual([os.path.exists(folder) for folder in folders], [True, False, True])

    def test_threads_may_differ_between_shards(self):
        reads = random_reads(random.Random(5), 10, 0)
        folders = self.make_shards([reads[:5], reads[5:]], changes={1: {"worker_threads": "1"}})
        merge_shards.merge(folders, self.path("merged"), {})
        self.assertTrue(os.path.isfile(self.path("merged", "barcoding_report.json")))

    def assert_refused(self, folders, *fragments):
        stderr = io.StringIO()
        with contextlib.redirect_stderr(stderr):
            status = merge_shards.main(["--save", self.path("merged")] + folders)
        self.assertEqual(status, 1)
        for fragment in fragments:
            self.assertIn(fragment, stderr.getvalue())
        merged = os.listdir(self.path("merged")) if os.path.isdir(self.path("merged")) else []
        self.assertEqual(merged, [], "a refused merge must leave the save folder alone")

    def test_incomplete_or_mixed_shards_are_refused_by_name(self):
        rng = random.Random(7)

        def fresh(limit=0, compressed=False, changes=None):
            shutil.rmtree(self.work)
            os.makedirs(self.work)
            parts = [random_reads(rng, 12, 100 * i) for i in range(3)]
            return self.make_shards(parts, limit, compressed, changes)

        folders = fresh()
        shutil.rmtree(folders[1])
        os.remove(os.path.join(folders[2], "barcoding_report.json"))
        self.assert_refused(folders, "incomplete set of shards: shard shard_001 is missing",
                            "; shard shard_002 did not finish")

        folders = fresh()
        with open(os.path.join(folders[1], "barcoding_report.json"), "w") as handle:
            handle.write('{"program": "vorpa_barcoder"')
        self.assert_refused(folders, "shard shard_001: cannot read")

        folders = fresh()
        with open(os.path.join(folders[1], "barcoding_report.json"), "w") as handle:
            json.dump({"program": "vorpa_barcoder"}, handle)
        self.assert_refused(folders, "shard shard_001: its barcoding_report.json has no")

        folders = fresh(changes={2: {"barcode_kits": "VB-NB96"}})
        self.assert_refused(folders, "shard_000 and shard_002 ran with different options", "barcode_kits")

        folders = fresh()
        with open(os.path.join(folders[0], "barcoding_summary.txt"), "a") as handle:
            handle.write("extra\tunclassified\t0\n")
        self.assert_refused(folders, "shard shard_000: barcoding_summary.txt has 13 rows", "12 written reads")

        folders = fresh()
        with open(os.path.join(folders[1], "files.txt"), "a") as handle:
            handle.write("one_more.fastq\n")
        self.assert_refused(folders, "shard shard_001: the barcoder took up 1 of the shard's 2 input files")

        folders = fresh(limit=2)
        with open(os.path.join(folders[0], "unclassified", "notes.txt"), "w") as handle:
            handle.write("x")
        self.assert_refused(folders, "shard shard_000: unexpected file", "notes.txt")

        folders = fresh(limit=1)
        second = [os.path.join(d, n) for d, _, names in os.walk(folders[0]) for n in names if n.endswith("_1.fastq")]
        self.assertTrue(second, "the seed should give some series of two files")
        os.remove(second[0].replace("_1.fastq", "_0.fastq"))
        self.assert_refused(folders, "shard shard_000: files of run id", "not from 0 without gaps")

        self.assert_refused([], "no shards to merge")


if __name__ == "__main__":
    unittest.main()
