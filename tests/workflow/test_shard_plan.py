"""The workflow must read the files a single run of the barcoder would read:
random folder trees are listed by shard_plan.discover_inputs and by the
barcoder itself (its verbose log names every input file it starts), and the
two lists must agree. Also: the save folder is never read, and shards keep
the file order.

The comparison with the barcoder needs VB_BARCODER (set by CTest); without
it that test is skipped.
"""

import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "workflow", "scripts"))

from shard_plan import PlanError, discover_inputs, make_shards  # noqa: E402

# Names around the edges of "*.fastq or *.fastq.<ext>".
NAMES = ["a.fastq", "b.fastq.gz", "c.fq", ".fastq", ".fastq.gz", "..fastq", "d.fastq.gz.bak", "e.FASTQ",
         "f.fastq.tmp", "g.fastq.gz.part", ".h.fastq",
         "f.fastq.", "g.fastq.x.y", "h.tar.fastq", "fastq", "i.fastqq", "j.fast.q", "k .fastq", "l.fastq.bz2"]


def barcoder_inputs(barcoder, folder, save, recursive):
    """The files the barcoder starts, from its verbose log."""
    args = [barcoder, "-i", folder, "-s", save, "--verbose_logs", "--quiet", "--barcode_kits", "VB-NB24"]
    subprocess.run(args + (["-r"] if recursive else []), check=True, capture_output=True, timeout=60)
    logs = [name for name in os.listdir(save) if name.endswith(".log")]
    with open(os.path.join(save, logs[0]), encoding="utf-8", errors="surrogateescape") as handle:
        return sorted(re.findall(r"Starting input file: (.*)", handle.read()))


class DiscoveryTest(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="vb_plan_test_")

    def tearDown(self):
        shutil.rmtree(self.work)

    def random_tree(self, rng, root):
        """Empty files, folders named like FASTQ files, links to files, to
        folders and to nothing, a few levels deep."""
        os.makedirs(root)
        folders = [root]
        for i in range(rng.randint(5, 25)):
            parent = rng.choice(folders)
            kind = rng.random()
            name = rng.choice(NAMES) if rng.random() < 0.8 else f"n{i}.fastq"
            path = os.path.join(parent, name)
            if os.path.lexists(path):
                continue
            if kind < 0.55:
                open(path, "w").close()
            elif kind < 0.75:
                os.makedirs(path)
                folders.append(path)
            elif kind < 0.85:
                os.symlink(os.path.join(root, "..", "elsewhere.txt"), path)  # a link to a file
            elif kind < 0.92:
                os.symlink(rng.choice(folders), path)  # a link to a folder
            else:
                os.symlink(os.path.join(root, "missing"), path)  # a link to nothing

    @unittest.skipUnless(os.environ.get("VB_BARCODER"), "VB_BARCODER is not set")
    def test_the_same_files_as_the_barcoder(self):
        rng = random.Random(4242)
        open(os.path.join(self.work, "elsewhere.txt"), "w").close()
        for round_ in range(12):
            root = os.path.join(self.work, f"tree{round_}")
            self.random_tree(rng, root)
            for recursive in (False, True):
                save = os.path.join(self.work, f"save{round_}_{recursive}")
                expected = barcoder_inputs(os.environ["VB_BARCODER"], root, save, recursive)
                self.assertEqual(discover_inputs(root, save, recursive), expected,
                                 f"round {round_}, recursive={recursive}")

    def test_the_save_folder_is_never_read(self):
        root = os.path.join(self.work, "in")
        for folder in ("", "sub", "out", os.path.join("out", ".shards", "shard_000"), os.path.join("out", "x")):
            os.makedirs(os.path.join(root, folder), exist_ok=True)
            open(os.path.join(root, folder, "r.fastq"), "w").close()
        found = discover_inputs(root, os.path.join(root, "out"), True)
        self.assertEqual(found, [os.path.join(root, "r.fastq"), os.path.join(root, "sub", "r.fastq")])
        # The save folder given another way still is the save folder.
        found = discover_inputs(root, os.path.join(root, "sub", "..", "out"), True)
        self.assertEqual(len(found), 2)
        # Next to the input, without recursion, is what a single run allows too.
        self.assertEqual(discover_inputs(root, root, False), [os.path.join(root, "r.fastq")])
        with self.assertRaisesRegex(PlanError, "is input_path itself"):
            discover_inputs(root, root, True)
        with self.assertRaisesRegex(PlanError, "is not a folder"):
            discover_inputs(os.path.join(root, "r.fastq"), "x", False)
        open(os.path.join(root, "line\nbreak.fastq"), "w").close()
        with self.assertRaisesRegex(PlanError, "line break"):
            discover_inputs(root, "x", False)


class ShardTest(unittest.TestCase):
    def test_shards_keep_the_file_order_and_sort_by_name(self):
        for count, per_shard in [(1, 1), (3, 1), (7, 3), (9, 3), (1001, 1), (5, 10)]:
            files = [f"f{i:05d}.fastq" for i in range(count)]
            shards = make_shards(files, per_shard)
            self.assertEqual(sum(shards.values(), []), files)
            self.assertEqual(list(shards), sorted(shards))
            self.assertTrue(all(1 <= len(s) <= per_shard for s in shards.values()))
            self.assertEqual(len(shards), -(-count // per_shard))
        self.assertEqual(make_shards([], 2), {})
        with self.assertRaisesRegex(PlanError, "at least 1"):
            make_shards(["a.fastq"], 0)


if __name__ == "__main__":
    unittest.main()
