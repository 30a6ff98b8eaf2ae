"""The kit designer, simulator, calibration and quality model, and with the program (VB_PROGRAM, set by CTest) the
README's own-kit recipe and a calibration smoke run. Run: python3 -m unittest discover -s tests/tools"""

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

PROGRAM = os.environ.get("VB_PROGRAM")


def naive_distance(a, b, free_text_ends=False):
    prev = [0 if free_text_ends else j for j in range(len(b) + 1)]
    for i in range(1, len(a) + 1):
        cur = [i] + [0] * len(b)
        for j in range(1, len(b) + 1):
            cur[j] = min(prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (a[i - 1] != b[j - 1]))
        prev = cur
    return min(prev) if free_text_ends else prev[-1]


def end(score, presence=60.0, over_rival=3.0, runner_up=-30.0, runner_up_presence=50.0):
    return calibrate.End(True, score, presence, over_rival, 0.0, runner_up, runner_up_presence, 150)


NO_END = calibrate.End()


class ToolsTest(unittest.TestCase):
    def test_bit_parallel_distances_match_naive(self):
        rng = random.Random(7)
        for _ in range(1500):
            a = "".join(rng.choices("ACGT", k=rng.randint(1, 40)))
            b = "".join(rng.choices("ACG", k=rng.randint(0, 45)))
            self.assertEqual(design_kit.levenshtein(a, b), naive_distance(a, b), (a, b))
            self.assertEqual(design_kit.best_placement_distance(a, b), naive_distance(a, b, True), (a, b))

    def test_shipped_barcodes_keep_the_design_constraints(self):
        seqs = list(simulate_reads.read_fasta(os.path.join(ROOT, "data", "barcoding", "vb_barcodes.fasta")).values())
        self.assertEqual(len(seqs), 96)
        flank = 10  # the front flank; barcodes are 24 bases
        self.assertEqual((len({s[:flank] for s in seqs}), len({s[flank + 24:] for s in seqs})), (1, 1))
        full = [s[flank:flank + 24] for s in seqs]
        for i, a in enumerate(full):
            self.assertTrue(design_kit.longest_homopolymer(seqs[i]) <= 2 and 0.4 <= design_kit.gc_fraction(a) <= 0.6)
            # Apart from every other and every reverse complement; VB01..VB24 (the 24-barcode kit) wider.
            for j, b in enumerate(full[i:], i):
                distances = [design_kit.levenshtein(a, x) for x in ([design_kit.revcomp(b)] + [b] * (j > i))]
                self.assertGreaterEqual(min(distances), 13 if j < 24 else 11, (i, j))
        kits = {k: simulate_reads.load_kit(k) for k in ("VB-NB24", "VB-NB96", "VB-RB12")}
        self.assertEqual([kits["VB-NB24"][0][0], *(len(kit) for kit in kits.values())], ["barcode01", 24, 96, 12])
        self.assertTrue(all(front and not rear for _, front, rear in kits["VB-RB12"]))  # a front-only kit

    def test_family_designs_differ_in_one_respect_at_a_time(self):
        with tempfile.TemporaryDirectory() as out:
            chosen = [d for d in design_kit.family_designs() if d[3] == 16 and d[4] in (12, 96)]
            design_kit.write_family(out, designs=chosen)
            cores = []
            for name, kit, flank, length, count, ends in chosen:
                kit_refs = simulate_reads.load_kit(kit, os.path.join(out, name))
                seqs = [front for _, front, _ in kit_refs]
                self.assertEqual((len(kit_refs), all(rear for _, _, rear in kit_refs), {len(s) for s in seqs},
                                  len({s[:flank] for s in seqs}), len({s[len(s) - flank:] for s in seqs})),
                                 (count, ends == "double", {2 * flank + length}, 1, 1))
                cores.append([s[flank:flank + length] for s in seqs])
        # Same barcode length: the same barcodes whatever the flanks or ends;
        # the small kit takes the leading ones, spaced as planned.
        big = max(cores, key=len)
        for c in cores:
            self.assertEqual(c, big[:len(c)])
        for i, a in enumerate(big[:12]):
            for b in big[i + 1:12]:
                self.assertGreaterEqual(design_kit.levenshtein(a, b), design_kit.FAMILY_TIERS[16][0][1])

    def test_reads_agree_with_their_truth(self):
        refs = {name: (front, rear) for name, front, rear in simulate_reads.load_kit("VB-NB24")}
        with tempfile.TemporaryDirectory() as d:
            runs = []
            for name, extra in (("a", []), ("b", []), ("p", ["--identity", "1.0"])):
                out = os.path.join(d, name + ".fastq")
                simulate_reads.main(["-o", out, "-n", "300", "--seed", "5", "--median-length", "200", *extra])
                with open(out) as f, open(out.replace(".fastq", ".truth.tsv")) as t:
                    runs.append((f.read().split("\n"), [line.rstrip("\n").split("\t") for line in t][1:]))
        (a, truth), (b, _), (perfect, perfect_truth) = runs
        self.assertEqual((a, len(truth)), (b, 300))
        titles = a[0:-1:4]
        self.assertEqual([t.split()[0][1:] for t in titles], [row[0] for row in truth])
        self.assertEqual({t.split()[1][:6] for t in titles}, {"runid="})
        self.assertEqual(len({t.split()[1] for t in titles}), 2)
        for s, q in zip(a[1::4], a[3::4]):
            self.assertTrue(len(s) == len(q) and set(s) <= set("ACGT") and all(33 <= ord(c) <= 126 for c in q))
        for _, kind, front, rear, orient in truth:
            self.assertIn(orient, "+-")
            expected = {"double": front == rear, "chimera": front != rear, "front": rear == "-"}
            self.assertTrue(expected.get(kind, (front, rear) == ("-", "-")), (kind, front, rear))
        for seq, (_, kind, front, rear, orient) in zip(perfect[1::4], perfect_truth):
            seq = simulate_reads.revcomp(seq) if orient == "-" else seq
            if kind in ("double", "front", "chimera"):
                self.assertIn(refs[front][0], seq[:200])
            if kind in ("double", "chimera"):
                self.assertIn(simulate_reads.revcomp(refs[rear][1]), seq[-200:])

    def test_cut_matches_a_column_walk(self):
        """aligned_cut against the obvious definition on random gapped rows."""
        rng = random.Random(11)
        for _ in range(300):
            cols = [rng.choice([("A", "-"), ("-", "C"), ("G", "T"), ("G", "T"), ("G", "T")])
                    for _ in range(rng.randint(1, 40))]
            ref_row, read_row = "".join(c[0] for c in cols), "".join(c[1] for c in cols)
            length = len(ref_row.replace("-", ""))
            begin = rng.randint(-1, length)
            end = rng.randint(begin + 1, length + 1)
            pos, before, bases = 0, 0, []
            for r, q in cols:
                if q != "-" and begin <= pos < end:
                    bases.append(q)
                elif q != "-" and pos <= begin:
                    before += 1
                pos += r != "-"
            expected = (before, "".join(bases)) if 0 <= begin and 0 < end <= length else None
            self.assertEqual(simulate_reads.aligned_cut(ref_row, read_row, begin, end), expected, (cols, begin, end))

    def test_mixed_reads_as_the_program_decides(self):
        bars = calibrate.Bars(min_score=25, rival_margin=30, evidence_presence=10)
        cases = [  # (front, rear, called in default mode, called with --reject_mixed_barcodes)
            (end(60), end(50), "b1", "b1"),
            (end(60), end(-40, runner_up=40), "b1", "unclassified"),  # another barcode passes at the rear
            # Another barcode best at the rear with evidence, the called one clearly beaten: mixed; only a little
            # beaten (a damaged end), too little presence (random sequence) or no barcode best there: not mixed.
            (end(60), end(-35, runner_up=12, runner_up_presence=40), "b1", "unclassified"),
            (end(60), end(-10, runner_up=12, runner_up_presence=40), "b1", "b1"),
            (end(60), end(-80, runner_up=12, runner_up_presence=5), "b1", "b1"),
            (end(60), end(-80, runner_up=-3), "b1", "b1"),
            (end(60), end(10, runner_up=-10), "b1", "b1"),  # the called barcode tops the rear without passing
            (end(60), NO_END, "b1", "b1"),  # a front-only kit
            (end(-50, runner_up=20, runner_up_presence=30), end(70), "b1", "unclassified"),
            # Neither end passes: two agreeing ends pass together when each scores 10 or more and the two reach 25.
            (end(20), end(24.9), "b1", "b1"),
            (end(9.9), end(24.9), "unclassified", "unclassified"),
            (end(12), end(12.9), "unclassified", "unclassified"),
        ]
        for front, rear, plain, strict in cases:
            row = calibrate.Row("b1", max(front.score, rear.score), front, rear)
            self.assertEqual((calibrate.verdict(row, bars), calibrate.verdict(row, bars, True)), (plain, strict),
                             (front, rear))
        # As the program reports such a call: the better end at the minimum, the other as found.
        raised = calibrate.raised(calibrate.Row("b1", 24.9, end(24.9), end(20)), 25)
        self.assertEqual((raised.score, raised.front.score, raised.rear.score), (25, 25, 20))
        self.assertEqual(calibrate.passing_score(calibrate.Row("b1", 24.9, end(24.9), end(20))), 44.9)

    def test_counts_and_what_a_switch_costs(self):
        truth = {"d1": ("double", "b1", "b1"), "d2": ("double", "b1", "b1"), "d3": ("double", "b3", "b3"),
                 "f1": ("front", "b4", "-"), "n1": ("none", "-", "-"), "c1": ("chimera", "b6", "b7"),
                 "c2": ("chimera", "b6", "b8")}
        plain = {"d1": "b1", "d2": "b2", "d3": "unclassified", "f1": "b4", "n1": "b5", "c1": "b6", "c2": "b8"}
        switched = dict(plain, d1="unclassified", d2="unclassified", f1="unclassified", c1="unclassified")
        c = calibrate.evaluate(plain, truth, switched)
        # d2 and n1 wrong; d2 was wrong anyway, so its switch costs nothing.
        self.assertEqual((c.precise, c.called, c.recalled, c.doubles, c.front_recalled, c.none_classified, c.nones,
                          c.chimera_unclassified, c.chimeras, c.double_lost, c.front_lost),
                         (2, 4, 1, 3, 1, 1, 1, 1, 2, 1, 1))
        self.assertAlmostEqual(calibrate.one_barcode_lost(c), 50.0)

    def test_curves_agree_with_verdicts_read_by_read(self):
        """Curves answers every threshold from sorted lists; verdict walks the reads."""
        rng = random.Random(3)
        for _ in range(20):
            rows, truth = {}, {}
            for n in range(rng.randint(1, 60)):
                kind = rng.choice(["double", "front", "none", "chimera"])
                front = "-" if kind == "none" else f"b{rng.randint(1, 3)}"
                scores = [round(rng.uniform(-20, 100), 1) for _ in range(2)]
                called = rng.choice(["b1", "b2", "b3", "unclassified"])
                rows[f"r{n}"] = calibrate.Row(called, max(scores), end(scores[0]), end(scores[1]))
                truth[f"r{n}"] = (kind, front, {"double": front, "chimera": "b9"}.get(kind, "-"))
            curves = calibrate.Curves(rows, truth)
            for m in [-5, 0, 10.5, 33, 50, 99.5]:
                bars = calibrate.Bars(m, 30, 10)
                c = calibrate.evaluate({rid: calibrate.verdict(row, bars) for rid, row in rows.items()}, truth)
                self.assertEqual((curves.at_least("right_double", m), curves.at_least("none", m),
                                  curves.at_least("called", m) - curves.at_least("wrong", m), curves.totals.doubles),
                                 (c.recalled, c.none_classified, c.precise, c.doubles))

    def test_best_range_reliability_and_calibration_targets(self):
        # The most designs served, and every run of thresholds serving them, lowest first.
        self.assertEqual([calibrate.best_runs(counts, list(range(len(counts))))
                          for counts in ([1, 2, 2, 1, 2, 2, 2, 0, 2, 1], [3, 1, 1], [0, 0, 5])],
                         [(2, [(1, 2), (4, 6), (8, 8)]), (3, [(0, 0)]), (5, [(2, 2)])])
        calls = [(0.5, 3, True), (0.05, 13, False), (0.001, 30, False), (1e-5, 50, False)] * 40
        bins = calibrate.reliability(calls)
        self.assertEqual(([b[1] for b in bins], round(bins[0][2], 9), bins[0][3]), ([40, 40, 0, 40, 40], 20.0, 40))
        self.assertEqual(calibrate.calibration_misses(calls), [])  # 40 wrong against 22.1: within 2
        # quality >= 30: 3 of 83 wrong
        self.assertEqual(len(calibrate.calibration_misses(calls + [(1e-5, 50, True)] * 3)), 1)

    def test_fit_recovers_a_known_model(self):
        truth = {"intercept": 0.5, "margin": -1.2, "presence": -6.0, "conflict": 5.0}
        rng = random.Random(9)
        xs = [(rng.uniform(0, 8), rng.uniform(-0.2, 1.0), rng.choice([0.0, 0.0, 0.0, rng.uniform(0, 1)]))
              for _ in range(20000)]
        ys = [int(rng.random() < barcode_quality.sigmoid(barcode_quality.linear(truth, x))) for x in xs]
        fitted = barcode_quality.fit(xs, ys, [1.0] * len(xs))
        for name, value in truth.items():
            self.assertAlmostEqual(fitted[name], value, delta=0.25 * abs(value) + 0.15, msg=name)

    def test_features_follow_the_program(self):
        """As barcoding/barcode_quality.cpp: agreeing margins add up, a rival best at an end is a conflict."""
        model = {"intercept": 1.0, "margin": -1.0, "presence": -10.0, "conflict": 12.0}
        cases = [
            (end(40, 70, 4), NO_END, (4.0, 0.7, 0.0)),
            (end(40, 70, 4), end(30, 50, 5), (9.0, 0.7, 0.0)),
            (end(40, 70, 15), end(30, 50, 15), (20.0, 0.7, 0.0)),
            (end(40, 70, 4), end(-35, 80, -4, 35, 60), (4.0, 0.8, 0.6)),
            (end(-10, -50, -1, -5, 10), NO_END, (0.0, -0.5, 0.0)),
        ]
        for front, rear, expected in cases:
            self.assertEqual(tuple(round(v, 9) for v in barcode_quality.features(front, rear)), expected)
            p = barcode_quality.probability(model, front, rear)
            self.assertAlmostEqual(math.log(p / (1 - p)), 1 - expected[0] - 10 * expected[1] + 12 * expected[2])
        self.assertEqual([barcode_quality.phred(p) for p in (1.0, 0.1, 0.0316, 1e-9, 0.0)], [0, 10, 15, 60, 60])


@unittest.skipUnless(PROGRAM and os.path.exists(PROGRAM), "VB_PROGRAM not set")
class WithTheProgramTest(unittest.TestCase):
    def test_readme_kit_recipe(self):
        """The README's own kit, not in configuration.cfg, simulated into a new folder, listed and classified."""
        with open(os.path.join(ROOT, "README.md")) as f:
            recipe = f.read().split("## Your own kit", 1)[1]
        with tempfile.TemporaryDirectory() as work:
            data = os.path.join(work, "data")
            shutil.copytree(os.path.join(ROOT, "data", "barcoding"), data)
            for name, marker, skip in (("my_barcodes.fasta", "```\n>", 4), ("my_kit.ini", "```ini\n", 7)):
                text = recipe[recipe.index(marker) + skip:]
                with open(os.path.join(data, name), "w") as f:
                    f.write(text[:text.index("```")])
            reads = os.path.join(work, "new", "folder", "reads.fastq")
            simulate_reads.main(["--kit", "MY-KIT", "--data", data, "-o", reads, "-n", "50"])
            options = ["--arrangements_files", "my_kit.ini", "--data_path", data]
            self.assertIn("MY-KIT", subprocess.run([PROGRAM, "--print_kits"] + options, capture_output=True, text=True,
                                                   check=True).stdout)
            subprocess.run([PROGRAM, "-i", os.path.dirname(reads), "-s", os.path.join(work, "out"), "--barcode_kits",
                            "MY-KIT", "--quiet"] + options, check=True)
            with open(os.path.join(work, "out", "barcoding_summary.txt")) as f:
                calls = [line.split("\t")[1] for line in f.read().splitlines()[1:]]
        self.assertTrue(len(calls) == 50 and calls.count("barcode01") + calls.count("barcode02") > 25, calls)

    def test_calibration_smoke(self):
        """The driver on a two-design family: its report and the one derived from the runs hold the same tables."""
        with tempfile.TemporaryDirectory() as work:
            args = ["--program", PROGRAM, "--work", work, "--smoke", "--models", "builtin"]
            chosen = calibrate.main(args + ["--processes", "1"])
            calibrate.main(args + ["--report-only", "--derived", "--report", os.path.join(work, "derived.md")])
            with open(os.path.join(work, "report.md")) as f, open(os.path.join(work, "derived.md")) as g:
                report, derived = f.read(), g.read()
        tables = [[line for line in text[text.index("## Held-out"):].splitlines() if line.startswith("|")]
                  for text in (report, derived)]
        self.assertEqual(tables[0], tables[1])
        self.assertTrue(len(tables[0]) > 20 and chosen["min_score"] > 0)
        self.assertIn(chosen["rival_margin"], calibrate.RIVAL_MARGINS)
        for text in ("worst design per identity", "chimeras unclassified, --reject_mixed_barcodes",
                     "one-barcode reads lost to --reject_mixed_barcodes", "Reliability of the barcode quality",
                     # The program's qualities and switch are those this script models.
                     "differs from this script's formula on 0 of", "differ from the modelled ones on 0 reads"):
            self.assertIn(text, report)
        # With both ends required nothing can pass at both ends of a chimera.
        line = next(x for x in report.splitlines() if x.startswith("| chimeras unclassified, --require"))
        self.assertEqual(line.count("100.00 %"), 3, line)


if __name__ == "__main__":
    unittest.main()
