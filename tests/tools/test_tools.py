"""Checks of the kit designer, the simulator and the calibration metrics.

Run with: python3 -m unittest discover -s tests/tools
"""

import os
import random
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "tools"))

import calibrate  # noqa: E402
import design_kit  # noqa: E402
import simulate_reads  # noqa: E402


def naive_distance(a, b, free_text_ends=False):
    prev = [0 if free_text_ends else j for j in range(len(b) + 1)]
    for i in range(1, len(a) + 1):
        cur = [i] + [0] * len(b)
        for j in range(1, len(b) + 1):
            cur[j] = min(prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (a[i - 1] != b[j - 1]))
        prev = cur
    return min(prev) if free_text_ends else prev[-1]


class DistanceTest(unittest.TestCase):
    def test_bit_parallel_matches_naive(self):
        rng = random.Random(7)
        for _ in range(1500):
            a = "".join(rng.choices("ACGT", k=rng.randint(1, 40)))
            b = "".join(rng.choices("ACG", k=rng.randint(0, 45)))
            self.assertEqual(design_kit.levenshtein(a, b), naive_distance(a, b), (a, b))
            self.assertEqual(design_kit.best_placement_distance(a, b), naive_distance(a, b, True), (a, b))


FRONT_FLANK = 10  # the design's front flank length; barcodes are 24 bases


class ShippedKitTest(unittest.TestCase):
    """The files in data/barcoding still satisfy the design constraints."""

    def test_barcodes(self):
        refs = simulate_reads.read_fasta(os.path.join(ROOT, "data", "barcoding", "vb_barcodes.fasta"))
        seqs = list(refs.values())
        self.assertEqual(len(seqs), 96)
        self.assertEqual(len(set(s[:FRONT_FLANK] for s in seqs)), 1)
        self.assertEqual(len(set(s[FRONT_FLANK + 24:] for s in seqs)), 1)
        for s in seqs:
            self.assertLessEqual(design_kit.longest_homopolymer(s), 2)
        full = [s[FRONT_FLANK:FRONT_FLANK + 24] for s in seqs]
        for bc in full:
            self.assertTrue(0.4 <= design_kit.gc_fraction(bc) <= 0.6, bc)
        # VB01..VB24 (the 24-barcode kit) are spaced wider than the rest.
        for i, a in enumerate(full):
            self.assertGreaterEqual(design_kit.levenshtein(a, design_kit.revcomp(a)), 13 if i < 24 else 11)
            for j, b in enumerate(full[i + 1:], i + 1):
                need = 13 if j < 24 else 11
                self.assertGreaterEqual(design_kit.levenshtein(a, b), need)
                self.assertGreaterEqual(design_kit.levenshtein(a, design_kit.revcomp(b)), need)

    def test_kits_load(self):
        nb24 = simulate_reads.load_kit("VB-NB24")
        self.assertEqual([a[0] for a in nb24][:2], ["barcode01", "barcode02"])
        self.assertEqual(len(nb24), 24)
        self.assertEqual(len(simulate_reads.load_kit("VB-NB96")), 96)
        rb12 = simulate_reads.load_kit("VB-RB12")
        self.assertEqual(len(rb12), 12)
        self.assertTrue(all(front and not rear for _, front, rear in rb12))


class SimulatorTest(unittest.TestCase):
    def simulate(self, folder, name, *extra):
        out = os.path.join(folder, name)
        simulate_reads.main(["-o", out, "-n", "300", "--seed", "5", "--median-length", "200", *extra])
        with open(out) as f:
            fastq = f.read().split("\n")
        with open(out.replace(".fastq", ".truth.tsv")) as f:
            truth = [line.rstrip("\n").split("\t") for line in f][1:]
        return fastq, truth

    def test_deterministic_and_consistent(self):
        with tempfile.TemporaryDirectory() as d:
            a, truth = self.simulate(d, "a.fastq")
            b, _ = self.simulate(d, "b.fastq")
            self.assertEqual(a, b)
            self.assertEqual(len(truth), 300)
            titles, seqs, quals = a[0:-1:4], a[1::4], a[3::4]
            self.assertEqual([t.split()[0][1:] for t in titles], [row[0] for row in truth])
            runids = {t.split()[1] for t in titles}
            self.assertEqual(len(runids), 2)
            for t, s, q in zip(titles, seqs, quals):
                keys = [field.split("=")[0] for field in t.split()[1:]]
                self.assertEqual(keys, ["runid", "sampleid", "read", "ch", "start_time"])
                self.assertEqual(len(s), len(q))
                self.assertTrue(set(s) <= set("ACGT"))
                self.assertTrue(all(33 <= ord(c) <= 126 for c in q))
            for rid, kind, front, rear, orient in truth:
                self.assertIn(orient, "+-")
                if kind == "double":
                    self.assertEqual(front, rear)
                elif kind == "chimera":
                    self.assertNotEqual(front, rear)
                elif kind == "front":
                    self.assertEqual(rear, "-")
                else:
                    self.assertEqual((front, rear), ("-", "-"))

    def test_perfect_reads_carry_the_reference(self):
        refs = dict((nid, (f, r)) for nid, f, r in simulate_reads.load_kit("VB-NB24"))
        with tempfile.TemporaryDirectory() as d:
            fastq, truth = self.simulate(d, "p.fastq", "--identity", "1.0")
            for seq, (rid, kind, front, rear, orient) in zip(fastq[1::4], truth):
                if orient == "-":
                    seq = simulate_reads.revcomp(seq)
                if kind in ("double", "front", "chimera"):
                    self.assertIn(refs[front][0], seq[:200])
                if kind in ("double", "chimera"):
                    self.assertIn(simulate_reads.revcomp(refs[rear][1]), seq[-200:])


SUMMARY_HEADER = "\t".join(["read_id", "barcode_arrangement"] + [f"c{i}" for i in range(3, 19)])


def summary_row(rid, arrangement, score, front, rear):
    cols = [rid, arrangement, "full", "VB-NB24", "var1", str(score), "VB01_FWD", str(front), "", "", "0", "0",
            "VB01_REV", str(rear), "", "", "0", "0"]
    return "\t".join(cols)


class MetricsTest(unittest.TestCase):
    def test_counts_and_rethresholding(self):
        rows = [
            ("d1", "barcode01", 90, 90, 80, ("double", "barcode01", "barcode01")),
            ("d2", "barcode02", 65, 65, 40, ("double", "barcode01", "barcode01")),  # wrong call
            ("d3", "barcode03", 55, 55, 30, ("double", "barcode03", "barcode03")),  # lost at 60
            ("f1", "barcode04", 70, 70, 20, ("front", "barcode04", "-")),
            ("n1", "barcode05", 58, 58, 10, ("none", "-", "-")),  # wrong unless thresholded away
            ("c1", "barcode06", 88, 88, 40, ("chimera", "barcode06", "barcode07")),
        ]
        with tempfile.TemporaryDirectory() as d:
            path = os.path.join(d, "barcoding_summary.txt")
            with open(path, "w") as f:
                f.write(SUMMARY_HEADER + "\n")
                for rid, arr, score, front, rear, _ in rows:
                    f.write(summary_row(rid, arr, score, front, rear) + "\n")
            calls = calibrate.read_summary(path)
        truth = {r[0]: r[5] for r in rows}
        self.assertEqual(calls["d2"].rear_score, 40.0)
        low = calibrate.evaluate(calls, truth)
        self.assertEqual((low.precise, low.called), (3, 5))
        self.assertEqual((low.recalled, low.doubles), (2, 3))
        self.assertEqual((low.none_unclassified, low.chimera_unclassified), (0, 0))
        at60 = calibrate.evaluate(calls, truth, 60)
        self.assertEqual((at60.precise, at60.called), (2, 3))
        self.assertEqual((at60.recalled, at60.doubles), (1, 3))
        self.assertEqual((at60.none_unclassified, at60.nones, at60.front_recalled), (1, 1, 1))
        self.assertEqual(calibrate.evaluate(calls, truth, 95).called, 0)

    def test_feasible_interval_takes_the_widest_run(self):
        good = {1, 2, 5, 6, 7, 9}
        fake = {0.87: None}

        def counts_at(m):
            c = calibrate.Counts(precise=1, called=1, recalled=1, doubles=1, none_unclassified=1, nones=1)
            if m not in good:
                c.recalled = 0
            return {i: c for i in fake} | {0.92: c, 0.97: c}

        self.assertEqual(calibrate.feasible_interval(counts_at, list(range(11))), (5, 7))
        self.assertIsNone(calibrate.feasible_interval(counts_at, [0, 3, 4]))

    def test_first_true(self):
        for cut in range(-1, 12):
            self.assertEqual(calibrate.first_true(lambda m: m >= cut, 0, 10), min(max(cut, 0), 11))


if __name__ == "__main__":
    unittest.main()
