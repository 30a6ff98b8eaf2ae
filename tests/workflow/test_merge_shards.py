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
import struct
import sys
import tempfile
import unittest
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "workflow", "scripts"))
sys.path.insert(0, HERE)

import merge_shards  # noqa: E402
from save_folder import compare_save_folders, read_bam  # noqa: E402

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


def read_group(read):
    return f"g{int(read.read_id[4:]) // 10}"


def bam_record(read):
    """An unmapped BAM record of the read, its read group and arrangement as tags."""
    name = read.read_id.encode() + b"\0"
    codes = [b"ACGT".index(c.encode()) for c in read.sequence]
    codes = [1 << c for c in codes] + ([0] if len(codes) % 2 else [])
    packed = bytes(codes[i] << 4 | codes[i + 1] for i in range(0, len(codes), 2))
    aux = b"RGZ" + read_group(read).encode() + b"\0arZ" + read.arrangement.encode() + b"\0"
    body = (struct.pack("<iiBBHHHIiii", -1, -1, len(name), 0, 4680, 0, 4, len(read.sequence), -1, -1, 0) + name
            + packed + bytes([30] * len(read.sequence)) + aux)
    return struct.pack("<i", len(body)) + body


def bgzf(data, rng):
    """data in BGZF blocks cut at random places."""
    out, start = b"", 0
    while start < len(data):
        end = min(len(data), start + rng.randint(1, 300))
        deflate = zlib.compressobj(6, zlib.DEFLATED, -15)
        body = deflate.compress(data[start:end]) + deflate.flush()
        out += struct.pack("<4sI2sHHHH", b"\x1f\x8b\x08\x04", 0, b"\0\xff", 6, 0x4342, 2, len(body) + 25) + body
        out += struct.pack("<II", zlib.crc32(data[start:end]), end - start)
        start = end
    return out


EOF_BLOCK = bytes.fromhex("1f8b08040000000000ff0600424302001b0003000000000000000000")


def bam_header(folder, reads):
    groups = sorted({read_group(r) for r in reads})
    text = "@HD\tVN:1.6\tSO:unsorted\n" + "".join(f"@RG\tID:{g}\tDS:runid=x\n" for g in groups)
    text += f"@PG\tID:vorpa_barcoder\tPN:vorpa_barcoder\tVN:0.1.0\tCL:vorpa_barcoder -s {folder}\n"
    return b"BAM\x01" + struct.pack("<i", len(text)) + text.encode() + struct.pack("<i", 0)


def write_output_file(path, records, compressed, header, rng):
    """A FASTQ file, or a BAM file (header not None) with the header in
    blocks of its own, as the barcoder writes it, or now and then sharing a
    block with the first records."""
    if header is None:
        with (gzip.open if compressed else open)(path, "wb") as handle:
            handle.write(b"".join(records))
        return
    body = b"".join(records)
    shared = rng.randint(0, min(len(body), 100)) if rng.random() < 0.3 else 0
    with open(path, "wb") as handle:
        handle.write(bgzf(header + body[:shared], rng) + bgzf(body[shared:], rng) + EOF_BLOCK)


def write_save_folder(folder, reads, limit, compressed, files=1, wall_time=1.5, bam=False, header_reads=None,
                      **option_changes):
    """What the barcoder leaves for these reads: summary, FASTQ or BAM series
    cut at limit, report, and the workflow's list of input files. A BAM
    header names the read groups of header_reads (by default, of reads)."""
    os.makedirs(folder)
    rng = random.Random(folder)
    with open(os.path.join(folder, "barcoding_summary.txt"), "w") as handle:
        handle.write(HEADER)
        handle.writelines(f"{r.read_id}\t{r.arrangement}\t{r.score}\n" for r in reads)
    series = collections.defaultdict(list)
    for read in reads:
        quality = "I" * len(read.sequence)
        text = f"@{read.read_id} runid={read.run_id} barcode={read.arrangement}\n{read.sequence}\n+\n{quality}\n"
        series[(read.arrangement, read.run_id)].append(bam_record(read) if bam else text.encode())
    header = bam_header(folder, reads if header_reads is None else header_reads) if bam else None
    for (arrangement, run_id), records in series.items():
        os.makedirs(os.path.join(folder, arrangement), exist_ok=True)
        chunks = [records] if limit == 0 else [records[i:i + limit] for i in range(0, len(records), limit)]
        for index, chunk in enumerate(chunks):
            name = (f"bam_runid_{run_id}_{index}.bam" if bam else
                    f"fastq_runid_{run_id}_{index}.fastq" + (".gz" if compressed else ""))
            write_output_file(os.path.join(folder, arrangement, name), chunk, compressed, header, rng)
    if bam:
        option_changes["output_format"] = "bam"
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

    def make_shards(self, parts, limit=0, compressed=False, changes=None, bam=False):
        folders = []
        for i, reads in enumerate(parts):
            folder = self.path(".shards", f"shard_{i:03d}")
            write_save_folder(folder, reads, limit, compressed, bam=bam, **(changes or {}).get(i, {}))
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
                bam = rng.random() < 0.4
                shards = rng.randint(1, 6)
                reads = random_reads(rng, rng.randint(0, 120), 0)
                # Files go to shards whole, so a shard holds a run of reads;
                # a shard may also be empty.
                cuts = sorted(rng.randint(0, len(reads)) for _ in range(shards - 1))
                parts = [reads[a:b] for a, b in zip([0] + cuts, cuts + [len(reads)])]
                write_save_folder(self.path("single"), reads, limit, compressed, files=shards, wall_time=1.5 * shards,
                                  bam=bam)
                folders = self.make_shards(parts, limit, compressed, bam=bam)
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

    def test_damaged_bam_shards_are_refused_by_name(self):
        rng = random.Random(11)

        def fresh():
            shutil.rmtree(self.work)
            os.makedirs(self.work)
            folders = self.make_shards([random_reads(rng, 12, 100 * i) for i in range(2)], bam=True)
            paths = sorted(os.path.join(d, n) for d, _, names in os.walk(folders[1]) for n in names
                           if n.endswith(".bam"))
            return folders, paths[0]

        # The blocks are cut at random places (a block may hold a single
        # byte), so each damage is placed by the file's own blocks: the last
        # record block loses its footer, the first block's compressed body
        # turns to zeros.
        def cut_last_block(data):
            end = len(data) - len(EOF_BLOCK)
            return data[:end - 8] + EOF_BLOCK

        def zero_first_body(data):
            size = struct.unpack_from("<H", data, 16)[0] + 1
            return data[:18] + b"\0" * (size - 26) + data[size - 8:]

        damages = [
            (lambda data: data[:-28], "no end-of-file marker: the file is truncated"),
            (cut_last_block, "no BGZF block at byte"),
            (zero_first_body, "is damaged"),
            (lambda data: bgzf(b"BAM\x01" + struct.pack("<i", 100) + b"@HD", rng) + EOF_BLOCK,
             "ends inside its header"),
        ]
        for damage, message in damages:
            folders, path = fresh()
            with open(path, "rb") as handle:
                data = handle.read()
            with open(path, "wb") as handle:
                handle.write(damage(data))
            self.assert_refused(folders, f"shard shard_001: {path}", message)
            self.assertTrue(all(os.path.isdir(folder) for folder in folders), "a refused merge used up shards")

    def test_a_read_group_defined_twice_keeps_the_first_definition(self):
        reads = random_reads(random.Random(13), 20, 0)
        folders = self.make_shards([reads[:10], reads[10:]], bam=True)
        # The second shard's header also names group g0, with another description.
        for current, _, names in os.walk(folders[1]):
            for path in (os.path.join(current, name) for name in names if name.endswith(".bam")):
                text, records = read_bam(path)
                header = text.replace("@HD\tVN:1.6\tSO:unsorted\n", "@HD\tVN:1.6\tSO:unsorted\n"
                                      "@RG\tID:g0\tDS:runid=y\n").encode()
                with open(path, "wb") as handle:
                    handle.write(bgzf(b"BAM\x01" + struct.pack("<i", len(header)) + header + struct.pack("<i", 0)
                                      + b"".join(records), random.Random(1)) + EOF_BLOCK)
        stderr = io.StringIO()
        with contextlib.redirect_stderr(stderr):
            merge_shards.merge(folders, self.path("merged"), {})
        self.assertIn("read group 'g0' is defined differently by two shards; the merged header keeps the first: "
                      "@RG\tID:g0\tDS:runid=x", stderr.getvalue())
        for current, _, names in os.walk(self.path("merged")):
            for name in names:
                if name.endswith(".bam"):
                    text = read_bam(os.path.join(current, name))[0]
                    self.assertIn("@RG\tID:g0\tDS:runid=x\n", text)
                    self.assertNotIn("runid=y", text)
                    self.assertEqual(text.count("@PG\tID:vorpa_barcoder\t"), 1)
                    self.assertEqual(text.count("@PG\tID:vorpa_barcoder.1\t"), 1)

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
