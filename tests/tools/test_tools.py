"""Checks of the kit designer, the simulator and the calibration metrics.

Run with: python3 -m unittest discover -s tests/tools
"""

import os
import random
import shutil
import subprocess
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
        self.assertEqual((low.none_classified, low.chimera_unclassified), (1, 0))
        at60 = calibrate.evaluate(calls, truth, 60)
        self.assertEqual((at60.precise, at60.called), (2, 3))
        self.assertEqual((at60.recalled, at60.doubles), (1, 3))
        self.assertEqual((at60.none_classified, at60.nones, at60.front_recalled), (0, 1, 1))
        self.assertEqual(calibrate.evaluate(calls, truth, 95).called, 0)

        # What a switch costs: reads right without it, unclassified with it.
        switched = dict(calls)
        for rid in ("d1", "d2", "f1", "c1"):
            switched[rid] = calibrate.Call("unclassified", 0, "", 0, "", 0)
        lost = calibrate.count_lost(calibrate.Counts(), calls, switched, truth)
        self.assertEqual((lost.double_lost, lost.front_lost), (1, 1))  # d2 was wrong anyway, c1 a chimera

    def test_curves_agree_with_rethresholding_read_by_read(self):
        """Curves answers every threshold from sorted lists; evaluate walks the
        reads. Random summaries, every threshold of a grid: the same counts."""
        rng = random.Random(3)
        kinds = ["double", "front", "none", "chimera"]
        for _ in range(20):
            calls, truth = {}, {}
            for n in range(rng.randint(1, 60)):
                kind = rng.choice(kinds)
                front = "-" if kind == "none" else f"barcode{rng.randint(1, 3):02d}"
                rear = {"double": front, "chimera": "barcode09"}.get(kind, "-")
                called = rng.choice(["barcode01", "barcode02", "barcode03", "unclassified"])
                scores = [round(rng.uniform(-20, 100), 1) for _ in range(2)]
                calls[f"r{n}"] = calibrate.Call(called, max(scores), "x", scores[0], "y", scores[1])
                truth[f"r{n}"] = (kind, front, rear)
            curves = calibrate.Curves(calls, truth)
            for m in [-5, 0, 10.5, 33, 50, 99.5]:
                c = calibrate.evaluate(calls, truth, m)
                self.assertEqual(curves.at_least("right_double", m), c.recalled)
                self.assertEqual(curves.at_least("right_front", m), c.front_recalled)
                self.assertEqual(curves.at_least("none", m), c.none_classified)
                self.assertEqual(curves.at_least("called", m) - curves.at_least("wrong", m), c.precise)
                both = sum(1 for rid, (kind, front, _) in truth.items()
                           if kind == "double" and calls[rid].arrangement == front
                           and min(calls[rid].front_score, calls[rid].rear_score) >= m)
                self.assertEqual(curves.at_least("both_ends_double", m), both)
            self.assertEqual(curves.totals.doubles, c.doubles)
            self.assertEqual(curves.totals.chimeras, c.chimeras)

    def test_best_range_takes_the_most_designs_then_the_widest_run(self):
        thresholds = list(range(10))
        self.assertEqual(calibrate.best_range([1, 2, 2, 1, 2, 2, 2, 0, 2, 1], thresholds), (2, 4, 6))
        self.assertEqual(calibrate.best_range([3, 1, 1], thresholds[:3]), (3, 0, 0))
        self.assertEqual(calibrate.best_range([0, 0, 5], thresholds[:3]), (5, 2, 2))


class FamilyTest(unittest.TestCase):
    def test_designs_differ_in_one_respect_at_a_time(self):
        designs = list(design_kit.family_designs())
        self.assertEqual(len(designs), 90)
        self.assertEqual(len({d[0] for d in designs}), 90)
        self.assertEqual(len({d[1] for d in designs}), 90)
        with tempfile.TemporaryDirectory() as out:
            chosen = [d for d in designs if d[3] == 16 and d[4] in (12, 96)]
            design_kit.write_family(out, designs=chosen)
            refs = {}
            for name, kit, flank, length, count, ends in chosen:
                folder = os.path.join(out, name)
                kit_refs = simulate_reads.load_kit(kit, folder)
                self.assertEqual(len(kit_refs), count)
                self.assertEqual(all(rear for _, _, rear in kit_refs), ends == "double")
                seqs = [front for _, front, _ in kit_refs]
                self.assertTrue(all(len(s) == 2 * flank + length for s in seqs))
                # Constant flanks: one left and one right flank per design.
                self.assertEqual(len({s[:flank] for s in seqs}), 1)
                self.assertEqual(len({s[len(s) - flank:] for s in seqs}), 1)
                refs[name] = [s[flank:flank + length] for s in seqs]
            # Same barcode length: the same barcodes whatever the flanks or
            # ends; the small kit takes the leading ones, spaced as planned.
            cores = list(refs.values())
            for c in cores:
                self.assertEqual(c, cores[0][:len(c)] if len(c) < len(cores[0]) else c)
            big = max(cores, key=len)
            for i, a in enumerate(big[:12]):
                for b in big[i + 1:12]:
                    self.assertGreaterEqual(design_kit.levenshtein(a, b), design_kit.FAMILY_TIERS[16][0][1])


class PbsimCutTest(unittest.TestCase):
    def test_cut_matches_a_column_walk(self):
        """aligned_cut against the obvious definition on random gapped rows."""
        rng = random.Random(11)
        for _ in range(300):
            cols = []
            for _ in range(rng.randint(1, 40)):
                kind = rng.random()
                cols.append(("A", "-") if kind < 0.2 else ("-", "C") if kind < 0.4 else ("G", "T"))
            ref_row = "".join(c[0] for c in cols)
            read_row = "".join(c[1] for c in cols)
            length = ref_row.count("A") + ref_row.count("G")
            begin = rng.randint(-1, length)
            end = rng.randint(begin + 1, length + 1)
            got = simulate_reads.aligned_cut(ref_row, read_row, begin, end)
            # Expected: template position of each column (None for a read-only column before it).
            pos, before, bases = 0, 0, []
            for r, q in cols:
                if q != "-" and begin <= pos < end:
                    bases.append(q)
                elif q != "-" and pos <= begin:
                    before += 1
                if r != "-":
                    pos += 1
            reached = 0 <= begin and end <= length and end > 0
            if begin < 0 or not reached:
                self.assertIsNone(got, (ref_row, read_row, begin, end))
            else:
                self.assertEqual(got, (before, "".join(bases)), (ref_row, read_row, begin, end))


class ReadmeKitRecipeTest(unittest.TestCase):
    """The README's own kit, copied into a copy of the data folder as a new
    user would, without listing it in configuration.cfg: the simulator finds
    it, writes into a folder that does not exist yet, and the program lists the
    kit and classifies the reads."""

    def test_recipe(self):
        with open(os.path.join(ROOT, "README.md")) as f:
            readme = f.read()
        recipe = readme[readme.index("## Your own kit"):]
        fasta = recipe[recipe.index("```\n>") + 4:]
        ini = recipe[recipe.index("```ini\n") + 7:]
        with tempfile.TemporaryDirectory() as work:
            data = os.path.join(work, "data")
            shutil.copytree(os.path.join(ROOT, "data", "barcoding"), data)
            for name, text in (("my_barcodes.fasta", fasta), ("my_kit.ini", ini)):
                with open(os.path.join(data, name), "w") as f:
                    f.write(text[:text.index("```")])
            reads = os.path.join(work, "new", "folder", "reads.fastq")
            simulate_reads.main(["--kit", "MY-KIT", "--data", data, "-o", reads, "-n", "50"])
            self.assertEqual(len(open(reads).read().splitlines()), 200)
            program = os.environ.get("VB_PROGRAM")
            if not program or not os.path.exists(program):
                self.skipTest("VB_PROGRAM not set")
            options = ["--arrangements_files", "my_kit.ini", "--data_path", data]
            kits = subprocess.run([program, "--print_kits"] + options, capture_output=True, text=True, check=True)
            self.assertIn("MY-KIT", kits.stdout)
            subprocess.run([program, "-i", os.path.dirname(reads), "-s", os.path.join(work, "out"), "--barcode_kits",
                            "MY-KIT", "--quiet"] + options, check=True)
            with open(os.path.join(work, "out", "barcoding_summary.txt")) as f:
                calls = [line.split("\t")[1] for line in f.read().splitlines()[1:]]
            self.assertEqual(len(calls), 50)
            self.assertGreater(calls.count("barcode01") + calls.count("barcode02"), 25)


class CalibrationSmokeTest(unittest.TestCase):
    """The whole driver on a four-design family with the real program: reads,
    sweep, choice, report. Needs VB_PROGRAM (the ctest registration sets it)."""

    def test_smoke(self):
        program = os.environ.get("VB_PROGRAM")
        if not program or not os.path.exists(program):
            self.skipTest("VB_PROGRAM not set")
        models = "builtin,pbsim" if shutil.which("pbsim") and os.path.exists(simulate_reads.PBSIM_MODEL) \
            else "builtin"
        with tempfile.TemporaryDirectory() as work:
            setting, min_score = calibrate.main(["--program", program, "--work", work, "--smoke", "--reads", "150",
                                                 "--report-reads", "150", "--models", models, "--processes", "1",
                                                 "--settings", "5:-4:7"])
            with open(os.path.join(work, "report.md")) as f:
                report = f.read()
        self.assertEqual(setting.label(), "m5/-4 gap7")
        self.assertGreater(min_score, 0)
        self.assertIn("worst design per identity", report)
        self.assertIn("chimeras unclassified, --reject_mixed_barcodes", report)
        self.assertIn("front-only lost to --reject_mixed_barcodes", report)
        # With both ends required nothing can pass at both ends of a chimera.
        line = next(x for x in report.splitlines() if x.startswith("| chimeras unclassified, --require"))
        self.assertEqual(line.count("100.00 %"), 3, line)


if __name__ == "__main__":
    unittest.main()
