"""Checks of the kit designer, the simulator and the calibration metrics.

Run with: python3 -m unittest discover -s tests/tools
"""

import math
import os
import random
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "tools"))

import barcode_quality  # noqa: E402
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


def end(score, presence=60.0, over_rival=3.0, runner_up=-30.0, runner_up_presence=50.0, barcode=True):
    return calibrate.End(barcode, score, presence, over_rival, 0.0, runner_up, runner_up_presence, 150)


NO_END = calibrate.End()
BARS = calibrate.Bars(min_score=25, rival_margin=30, evidence_presence=10)


class VerdictTest(unittest.TestCase):
    def test_mixed_reads_as_the_program_decides(self):
        """(front, rear, called in default mode, called with --reject_mixed_barcodes)."""
        cases = [
            # Both ends for the called barcode.
            (end(60), end(50), "b1", "b1"),
            # The rear passes for another barcode: mixed.
            (end(60), end(-40, runner_up=40), "b1", "unclassified"),
            # The rear fails, its best is another barcode with evidence, and
            # the called one is clearly beaten there: mixed.
            (end(60), end(-35, runner_up=12, runner_up_presence=40), "b1", "unclassified"),
            # ... only a little beaten (a damaged end of a one-barcode read): not mixed.
            (end(60), end(-10, runner_up=12, runner_up_presence=40), "b1", "b1"),
            # ... with too little presence (random sequence): not mixed.
            (end(60), end(-80, runner_up=12, runner_up_presence=5), "b1", "b1"),
            # ... or no barcode best there at all.
            (end(60), end(-80, runner_up=-3), "b1", "b1"),
            # The called barcode tops the rear without passing: it names itself.
            (end(60), end(10, runner_up=-10), "b1", "b1"),
            # A front-only kit: nothing at the rear to name.
            (end(60), NO_END, "b1", "b1"),
            # Evidence at the front, the rear passing.
            (end(-50, runner_up=20, runner_up_presence=30), end(70), "b1", "unclassified"),
            # Nothing passes.
            (end(20), end(24.9), "unclassified", "unclassified"),
        ]
        for front, rear, plain, strict in cases:
            row = calibrate.Row("b1", max(front.score, rear.score), front, rear)
            self.assertEqual(calibrate.verdict(row, BARS), plain, (front, rear))
            self.assertEqual(calibrate.verdict(row, BARS, True), strict, (front, rear))

    def test_summary_columns_are_read_by_name(self):
        header = ["read_id", "barcode_arrangement", "full", "kit", "variant", "barcode_score", "barcode_front_id",
                  "barcode_front_score"] + [f"c{i}" for i in range(8, 12)] + ["barcode_rear_id", "barcode_rear_score"] + \
            [f"c{i}" for i in range(14, 18)] + ["barcode_quality"] + \
            [f"barcode_{side}_{name}" for side in ("front", "rear") for name in calibrate.EVIDENCE_COLUMNS]
        row = ["r1", "barcode01", "a", "K", "var1", "55", "B01_FWD", "55", "x", "x", "0", "0", "", "0", "0", "0", "0",
               "0", "31", "70.5", "4.5", "9", "-55", "-inf", "150", "0", "0", "0", "0", "0", "140"]
        with tempfile.TemporaryDirectory() as d:
            path = os.path.join(d, "barcoding_summary.txt")
            with open(path, "w") as f:
                f.write("\t".join(header) + "\n" + "\t".join(row) + "\n")
            got = calibrate.read_summary(path)["r1"]
        self.assertEqual((got.arrangement, got.score, got.quality), ("barcode01", 55.0, 31))
        self.assertEqual(got.front, calibrate.End(True, 55.0, 70.5, 4.5, 9.0, -55.0, -math.inf, 150))
        self.assertFalse(got.rear.barcode)


class MetricsTest(unittest.TestCase):
    def test_counts_and_what_a_switch_costs(self):
        truth = {"d1": ("double", "b1", "b1"), "d2": ("double", "b1", "b1"), "d3": ("double", "b3", "b3"),
                 "f1": ("front", "b4", "-"), "n1": ("none", "-", "-"), "c1": ("chimera", "b6", "b7"),
                 "c2": ("chimera", "b6", "b8")}
        plain = {"d1": "b1", "d2": "b2", "d3": "unclassified", "f1": "b4", "n1": "b5", "c1": "b6", "c2": "b8"}
        switched = dict(plain, d1="unclassified", d2="unclassified", f1="unclassified", c1="unclassified")
        c = calibrate.evaluate(plain, truth, switched)
        self.assertEqual((c.precise, c.called), (2, 4))  # d2 and n1 wrong
        self.assertEqual((c.recalled, c.doubles, c.front_recalled), (1, 3, 1))
        self.assertEqual((c.none_classified, c.nones), (1, 1))
        self.assertEqual((c.chimera_unclassified, c.chimeras), (1, 2))
        self.assertEqual((c.double_lost, c.front_lost), (1, 1))  # d2 was wrong anyway
        self.assertAlmostEqual(calibrate.one_barcode_lost(c), 50.0)

    def test_curves_agree_with_verdicts_read_by_read(self):
        """Curves answers every threshold from sorted lists; verdict walks the
        reads. Random summaries, a grid of thresholds: the same counts."""
        rng = random.Random(3)
        kinds = ["double", "front", "none", "chimera"]
        for _ in range(20):
            rows, truth = {}, {}
            for n in range(rng.randint(1, 60)):
                kind = rng.choice(kinds)
                front = "-" if kind == "none" else f"b{rng.randint(1, 3)}"
                rear = {"double": front, "chimera": "b9"}.get(kind, "-")
                called = rng.choice(["b1", "b2", "b3", "unclassified"])
                scores = [round(rng.uniform(-20, 100), 1) for _ in range(2)]
                rows[f"r{n}"] = calibrate.Row(called, max(scores), end(scores[0]), end(scores[1]))
                truth[f"r{n}"] = (kind, front, rear)
            curves = calibrate.Curves(rows, truth)
            for m in [-5, 0, 10.5, 33, 50, 99.5]:
                bars = calibrate.Bars(m, 30, 10)
                c = calibrate.evaluate({rid: calibrate.verdict(row, bars) for rid, row in rows.items()}, truth)
                self.assertEqual(curves.at_least("right_double", m), c.recalled)
                self.assertEqual(curves.at_least("none", m), c.none_classified)
                self.assertEqual(curves.at_least("called", m) - curves.at_least("wrong", m), c.precise)
            self.assertEqual(curves.totals.doubles, c.doubles)

    def test_best_range_takes_the_most_designs_then_the_widest_run(self):
        thresholds = list(range(10))
        self.assertEqual(calibrate.best_range([1, 2, 2, 1, 2, 2, 2, 0, 2, 1], thresholds), (2, 4, 6))
        self.assertEqual(calibrate.best_range([3, 1, 1], thresholds[:3]), (3, 0, 0))
        self.assertEqual(calibrate.best_range([0, 0, 5], thresholds[:3]), (5, 2, 2))

    def test_reliability_bins_and_calibration_targets(self):
        calls = [(0.5, 3, True), (0.05, 13, False), (0.001, 30, False), (1e-5, 50, False)] * 40
        bins = calibrate.reliability(calls)
        self.assertEqual([b[1] for b in bins], [40, 40, 0, 40, 40])
        self.assertAlmostEqual(bins[0][2], 20.0)
        self.assertEqual(bins[0][3], 40)
        self.assertEqual(calibrate.calibration_misses(calls), [])  # 40 wrong against 22.1: within 2
        worse = calls + [(1e-5, 50, True)] * 3
        self.assertEqual(len(calibrate.calibration_misses(worse)), 1)  # quality >= 30: 3 of 83 wrong


class QualityModelTest(unittest.TestCase):
    def test_fit_recovers_a_known_model(self):
        """Calls drawn from a known logistic model: the fit finds its coefficients."""
        truth = {"intercept": 0.5, "margin": -1.2, "presence": -6.0, "conflict": 5.0}
        rng = random.Random(9)
        xs, ys, ws = [], [], []
        for _ in range(20000):
            x = (rng.uniform(0, 8), rng.uniform(-0.2, 1.0), rng.choice([0.0, 0.0, 0.0, rng.uniform(0, 1)]))
            p = barcode_quality.sigmoid(barcode_quality.linear(truth, x))
            xs.append(x)
            ys.append(int(rng.random() < p))
            ws.append(1.0)
        fitted = barcode_quality.fit(xs, ys, ws)
        for name, value in truth.items():
            self.assertAlmostEqual(fitted[name], value, delta=0.25 * abs(value) + 0.15, msg=name)

    def test_features_follow_the_program(self):
        """The features of barcoding/barcode_quality.cpp: agreeing ends add
        their margins, another barcode best at an end is a conflict, an end
        without a barcode counts for nothing."""
        model = {"intercept": 1.0, "margin": -1.0, "presence": -10.0, "conflict": 12.0}
        cases = [
            (end(40, 70, 4), NO_END, (4.0, 0.7, 0.0)),
            (end(40, 70, 4), end(30, 50, 5), (9.0, 0.7, 0.0)),
            (end(40, 70, 15), end(30, 50, 15), (20.0, 0.7, 0.0)),
            (end(40, 70, 4), end(-35, 80, -4, 35, 60), (4.0, 0.8, 0.6)),
            (end(-10, -50, -1, -5, 10), NO_END, (0.0, -0.5, 0.0)),
        ]
        for front, rear, expected in cases:
            got = barcode_quality.features(front, rear)
            self.assertEqual(tuple(round(v, 9) for v in got), expected)
            p = barcode_quality.probability(model, front, rear)
            self.assertAlmostEqual(math.log(p / (1 - p)), 1 - expected[0] - 10 * expected[1] + 12 * expected[2])
        self.assertEqual([barcode_quality.phred(p) for p in (1.0, 0.1, 0.0316, 1e-9, 0.0)], [0, 10, 15, 60, 60])


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
    """The whole driver on a two-design family with the real program: reads,
    choices, quality fit (too few wrong calls here: the shipped model stays),
    report. Needs VB_PROGRAM (the ctest registration sets it)."""

    def test_smoke(self):
        program = os.environ.get("VB_PROGRAM")
        if not program or not os.path.exists(program):
            self.skipTest("VB_PROGRAM not set")
        with tempfile.TemporaryDirectory() as work:
            chosen = calibrate.main(["--program", program, "--work", work, "--smoke", "--models", "builtin",
                                     "--processes", "1"])
            with open(os.path.join(work, "report.md")) as f:
                report = f.read()
            # The report derived from low-threshold runs has every table of the real runs'.
            calibrate.main(["--program", program, "--work", work, "--smoke", "--models", "builtin",
                            "--report-only", "--derived", "--report", os.path.join(work, "derived.md")])
            with open(os.path.join(work, "derived.md")) as f:
                derived = f.read()
        tables = [[line for line in text[text.index("## Held-out"):].splitlines() if line.startswith("|")]
                  for text in (report, derived)]
        self.assertGreater(len(tables[0]), 20)
        self.assertEqual(tables[0], tables[1])
        self.assertGreater(chosen["min_score"], 0)
        self.assertIn(chosen["rival_margin"], calibrate.RIVAL_MARGINS)
        for text in ("worst design per identity", "chimeras unclassified, --reject_mixed_barcodes",
                     "one-barcode reads lost to --reject_mixed_barcodes", "Reliability of the barcode quality"):
            self.assertIn(text, report)
        # The program's qualities and switch are those this script models.
        self.assertIn("differs from this script's formula on 0 of", report)
        self.assertIn("differ from the modelled ones on 0 reads", report)
        # With both ends required nothing can pass at both ends of a chimera.
        line = next(x for x in report.splitlines() if x.startswith("| chimeras unclassified, --require"))
        self.assertEqual(line.count("100.00 %"), 3, line)


if __name__ == "__main__":
    unittest.main()
