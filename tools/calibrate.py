#!/usr/bin/env python3
"""Calibrate vorpa_barcoder's min_score, mixed-read bars and barcode quality across kit designs.

One default has to serve kits that users design themselves, so the values are
chosen on a family of designs (tools/design_kit.py --family: constant flanks
of 0..40 bases per side, barcodes of 16, 24 and 40 bases, kits of 12, 24 and
96 barcodes, double- and single-ended), with reads from two independent error
models: tools/simulate_reads.py's own and Debian's pbsim. Targets hold for the
worst design with flanks of TARGET_FLANK bases or more, not the average; the
designs without flanks are reported on their own.

Stages, all against the real program:
  1. family and reads: the designs are written once into <work>/family; reads
     are simulated once per design, identity, error model and read group and
     kept in <work>/reads: the calibration seeds (the usual mix of reads) and
     reads without any barcode (the unbarcoded target needs thousands of
     them per design to be measured at 0.05 %), and the same two groups on
     other seeds for the report;
  2. runs: the program runs once per read set with a very low min_score and
     the evidence columns (--barcode_evidence_columns). From a row's detect
     scores and evidence every verdict at any min_score and any mixed-read
     bars follows: with one kit and scoring MAX a read's call at m is the
     row's arrangement when barcode_score >= m, or when its two ends each
     score at least the agreeing-end floor and add up to m (the program then
     reports the better end at m); an end names the called
     barcode when it scores >= m there, and another one when that one passes
     there or is the best of its kit there (runner-up score above 0) with
     presence >= the evidence bar while the called barcode scores at most
     -rival margin there (BarcodeScorer::IsMixed, taken on the called
     arrangement);
  3. choice: min_score is the lowest threshold serving the most designs
     (every default-mode target at every identity with both error models):
     a higher one serving as many only loses reads, front-only reads of
     single-ended kits most (the held-out report checks the choice); then, at that
     min_score, the pair of mixed-read bars serving the most designs for the
     --reject_mixed_barcodes targets (ties: fewest reads lost, then most
     chimeras caught);
  4. quality: a logistic model of the probability that a call is wrong, fitted
     on the calibration reads (tools/barcode_quality.py, the program's
     formula); --write-config stores it in data/barcoding/vb_quality.tsv with
     min_score in configuration.cfg (the mixed-read bars are constants of
     barcoding/barcode_scorer.h, set by hand from the report);
  5. report: real runs of the program as built (the shipped min_score,
     its bars and quality model) on the report reads, in default mode, with
     --reject_mixed_barcodes and with --require_barcodes_both_ends: the worst
     design per identity and error model, pooled figures, the reliability of
     the quality by bin, and checks that the program's calls and qualities
     are those the model of stage 2 predicts.

Usage:
  tools/calibrate.py [--program build/bin/vorpa_barcoder] [--work /tmp/vb_calibration]
                     [--reads 1000] [--none-reads 1000] [--write-config]
  tools/calibrate.py --report-only ...   stage 5 alone, for the program as built
  tools/calibrate.py --report-only --derived ...
                                         stage 5 from one low-threshold run per read set: the
                                         calls and qualities at the shipped settings derived
                                         as in stage 2 (an hour less; stage 5 without
                                         --derived checks the derivation against real runs)
  tools/calibrate.py --smoke ...         a small family, every stage (CI: seconds)
"""

import argparse
import bisect
import json
import math
import multiprocessing
import os
import random
import re
import shutil
import subprocess
import sys
import time
from dataclasses import dataclass, field, replace

TOOLS = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(TOOLS)
sys.path.insert(0, TOOLS)
import barcode_quality  # noqa: E402
import design_kit  # noqa: E402
import simulate_reads  # noqa: E402
from barcode_quality import End  # noqa: E402

IDENTITIES = (0.87, 0.92, 0.97)
MODELS = ("builtin", "pbsim")
LOW_MIN_SCORE = -1000
FRACTIONS = dict(frac_double=0.6, frac_front=0.1, frac_none=0.1, frac_chimera=0.2)
NONE_ONLY = dict(frac_double=0.0, frac_front=0.0, frac_none=1.0, frac_chimera=0.0)
THRESHOLDS = [k / 2 for k in range(20, 81)]  # 10 .. 40
RIVAL_MARGINS = (20, 25, 30, 35, 40)
EVIDENCE_PRESENCES = (0, 5, 10, 15, 20, 25)
QUALITY_BINS = ((0, 9), (10, 19), (20, 29), (30, 39), (40, 60))

# Targets (percent), per identity, for designs with flanks of TARGET_FLANK or more.
TARGET_FLANK = 10
DOUBLE_RECALL = {0.97: 99.9, 0.92: 99.9, 0.87: 99.5}
PRECISION = 99.95
NONE_CLASSIFIED = 0.05  # at most
CHIMERAS_REJECTED = {0.97: 99.0, 0.92: 99.0, 0.87: 97.0}
ONE_BARCODE_LOST = 0.1  # at most: reads with one barcode (at one or both ends) lost to --reject_mixed_barcodes
HIGH_QUALITY = 30
HIGH_QUALITY_WRONG = 0.2  # at most, percent of the calls of quality >= HIGH_QUALITY

# ------------------------------------------------------------------ parsing

EVIDENCE_COLUMNS = ("presence", "over_rival", "over_random", "runner_up_score", "runner_up_presence", "window")


@dataclass
class Row:
    arrangement: str
    score: float
    front: End
    rear: End
    quality: int = None  # the program's barcode_quality, when written


def read_summary(path):
    """read_id -> Row from barcoding_summary.txt; the evidence and quality
    columns are read when the header has them."""
    rows = {}
    with open(path) as f:
        header = f.readline().rstrip("\n").split("\t")
        if header[:2] != ["read_id", "barcode_arrangement"]:
            raise ValueError(f"{path}: not a barcoding summary")
        col = {name: i for i, name in enumerate(header)}
        evidence = "barcode_front_presence" in col
        quality = col.get("barcode_quality")
        for line in f:
            c = line.rstrip("\n").split("\t")
            if len(c) != len(header):
                raise ValueError(f"{path}: row of {len(c)} columns under a header of {len(header)}: {line!r}")

            def end(side, id_column, score_column):
                e = End(barcode=c[id_column] != "", score=float(c[score_column]) if c[id_column] else -math.inf)
                if evidence and e.barcode:
                    values = [float(c[col[f"barcode_{side}_{name}"]]) for name in EVIDENCE_COLUMNS]
                    e.presence, e.over_rival, e.over_random, e.runner_up_score, e.runner_up_presence = values[:5]
                    e.window = int(values[5])
                return e

            rows[c[0]] = Row(c[1], float(c[5]), end("front", 6, 7), end("rear", 12, 13),
                             int(c[quality]) if quality is not None else None)
    return rows


def read_truth(path):
    """read_id -> (kind, front, rear); "-" stands for no barcode."""
    truth = {}
    with open(path) as f:
        next(f)
        for line in f:
            rid, kind, front, rear, _ = line.rstrip("\n").split("\t")
            truth[rid] = (kind, front, rear)
    return truth


def header_constants(*names, path=os.path.join(ROOT, "barcoding", "barcode_scorer.h")):
    """Values of the scorer's float constants, read from its header."""
    with open(path) as f:
        text = f.read()
    found = [re.search(rf"constexpr float {name} = ([0-9.]+);", text) for name in names]
    if not all(found):
        raise ValueError(f"{path}: the constants {', '.join(names)} are not where expected")
    return tuple(float(m.group(1)) for m in found)


def scorer_constants():
    """(rival margin, evidence presence) of the program's mixed-read test."""
    return header_constants("kMixedRivalMargin", "kMixedEvidencePresence")


AGREEING_END_FLOOR, = header_constants("kAgreeingEndFloor")


# ------------------------------------------------------------------ the program's verdicts


@dataclass(frozen=True)
class Bars:
    min_score: float
    rival_margin: float
    evidence_presence: float


def names_other(end, bars):
    """Whether an end names a barcode other than the called one: another passes
    there, or is the best of its kit there with evidence while the called
    barcode is clearly beaten."""
    if not end.barcode or end.score > 0 or not end.runner_up_score > 0:
        return False
    if end.runner_up_score >= bars.min_score:
        return True
    return end.runner_up_presence >= bars.evidence_presence and end.score <= -bars.rival_margin


def agreeing(row):
    """Whether the row's arrangement has barcodes at both ends that each score
    at least the agreeing-end floor."""
    return row.front.barcode and row.rear.barcode and min(row.front.score, row.rear.score) >= AGREEING_END_FLOOR


def passing_score(row):
    """The highest min_score at which the program calls the row's arrangement
    (scoring MAX): its score, or the sum of its two ends where they agree
    (the program then raises the better end to min_score)."""
    return max(row.score, row.front.score + row.rear.score) if agreeing(row) else row.score


def raised(row, min_score):
    """The row as a run at min_score reports it: where neither end reaches
    min_score but the two agree and add up to it, the better end scores
    min_score (kAgreeingEndFloor in barcoding/barcode_scorer.h)."""
    if row.front.score >= min_score or row.rear.score >= min_score or not agreeing(row) or \
            not row.front.score + row.rear.score >= min_score:
        return row
    if row.front.score >= row.rear.score:
        return replace(row, score=min_score, front=replace(row.front, score=min_score))
    return replace(row, score=min_score, rear=replace(row.rear, score=min_score))


def verdict(row, bars, reject_mixed=False):
    """The call the program makes at these bars: the row's arrangement or "unclassified"."""
    row = raised(row, bars.min_score)
    if not row.score >= bars.min_score:
        return "unclassified"
    if reject_mixed:
        front_x, rear_x = row.front.score >= bars.min_score, row.rear.score >= bars.min_score
        if (front_x and not rear_x and names_other(row.rear, bars)) or \
                (rear_x and not front_x and names_other(row.front, bars)):
            return "unclassified"
    return row.arrangement


# ------------------------------------------------------------------ metrics


@dataclass
class Counts:
    precise: int = 0
    called: int = 0  # non-chimeric reads given a barcode
    recalled: int = 0
    doubles: int = 0
    none_classified: int = 0
    nones: int = 0
    chimera_unclassified: int = 0
    chimeras: int = 0
    front_recalled: int = 0
    fronts: int = 0
    # Reads called right in default mode that a switch left unclassified.
    double_lost: int = 0
    front_lost: int = 0

    def add(self, other):
        for k in other.__dataclass_fields__:
            setattr(self, k, getattr(self, k) + getattr(other, k))
        return self


def pct(num, den):
    return 100.0 * num / den if den else float("nan")


def right_barcode(front, rear):
    return front if front != "-" else rear


def evaluate(calls, truth, switched=None):
    """Counts of the metrics; calls: read_id -> called arrangement. switched:
    the calls of the same reads with a switch (chimeras and lost reads are
    counted on those)."""
    c = Counts()
    for rid, (kind, front, rear) in truth.items():
        got = calls[rid]
        if kind != "chimera" and got != "unclassified":
            c.called += 1
            c.precise += got == right_barcode(front, rear)
        if kind == "double":
            c.doubles += 1
            c.recalled += got == front
        elif kind == "front":
            c.fronts += 1
            c.front_recalled += got == front
        elif kind == "none":
            c.nones += 1
            c.none_classified += got != "unclassified"
        else:
            c.chimeras += 1
            c.chimera_unclassified += (switched or calls)[rid] == "unclassified"
        if switched is not None and kind in ("double", "front") and got == front and \
                switched[rid] == "unclassified":
            if kind == "double":
                c.double_lost += 1
            else:
                c.front_lost += 1
    return c


def one_barcode_lost(c):
    return pct(c.double_lost + c.front_lost, c.doubles + c.fronts)


class Curves:
    """The default-mode metrics of one low-threshold run as functions of
    min_score: sorted score lists answer "how many reach m" by bisection."""

    def __init__(self, rows, truth):
        self.lists = {k: [] for k in ("right_double", "called", "wrong", "none")}
        self.totals = Counts()
        for rid, (kind, front, rear) in truth.items():
            row = rows[rid]
            score = passing_score(row) if row.arrangement != "unclassified" else -math.inf
            if kind == "chimera":
                continue
            self.lists["called"].append(score)
            if row.arrangement != right_barcode(front, rear):
                self.lists["wrong"].append(score)
            if kind == "double":
                self.totals.doubles += 1
                if row.arrangement == front:
                    self.lists["right_double"].append(score)
            elif kind == "none":
                self.totals.nones += 1
                self.lists["none"].append(score)
        for values in self.lists.values():
            values.sort()

    def at_least(self, name, m):
        values = self.lists[name]
        return len(values) - bisect.bisect_left(values, m)

    def failures(self, identity, m, double_ended):
        """Names of the default-mode targets missed at min_score m."""
        t, missed = self.totals, []
        if double_ended and pct(self.at_least("right_double", m), t.doubles) < DOUBLE_RECALL[identity]:
            missed.append("recall")
        called = self.at_least("called", m)
        if called and pct(called - self.at_least("wrong", m), called) < PRECISION:
            missed.append("precision")
        if t.nones and pct(self.at_least("none", m), t.nones) > NONE_CLASSIFIED:
            missed.append("unbarcoded")
        return missed


def best_runs(counts_by_threshold, thresholds=THRESHOLDS):
    """(count, runs): the most designs served, and the runs of consecutive
    thresholds serving that many, as (low, high), lowest first."""
    top = max(counts_by_threshold)
    runs, start = [], None
    for i, n in enumerate(counts_by_threshold + [-1]):
        if n == top and start is None:
            start = i
        elif n != top and start is not None:
            runs.append((thresholds[start], thresholds[i - 1]))
            start = None
    return top, runs


# ------------------------------------------------------------------ running


@dataclass(frozen=True)
class Setting:
    match: int = 5
    mismatch: int = -4
    gap: int = 7
    window: int = 150

    def options(self, matrix_file, window=None):
        g, window = self.gap, window or self.window
        return {
            "score_matrix_filename": matrix_file,
            "start_gap1": 0, "end_gap1": 0, "open_gap1": g, "extend_gap1": g,
            "start_gap2": g, "end_gap2": g, "open_gap2": g, "extend_gap2": g,
            "front_window_size": window, "rear_window_size": window,
        }


def write_matrix(path, match, mismatch, comment=None):
    with open(path, "w") as f:
        f.write(f"# {comment or f'match {match}, mismatch {mismatch}'}\n")
        f.write("A\tC\tG\tT\n")
        for i in range(4):
            f.write("\t".join(str(match if i == j else mismatch) for j in range(4)) + "\n")


@dataclass
class Runner:
    program: str
    work: str
    threads: int
    setting: Setting = field(default_factory=Setting)
    runs: int = 0
    seconds: float = 0.0

    def matrix(self):
        s = self.setting
        path = os.path.join(self.work, "matrices", f"m{s.match}_{-s.mismatch}.tsv")
        if not os.path.exists(path):
            os.makedirs(os.path.dirname(path), exist_ok=True)
            write_matrix(path, s.match, s.mismatch)
        return path

    def run(self, reads_dir, design, min_score, *switches, keep=None):
        """Rows of the program's summary for one read set, with the evidence
        and quality columns. keep: a path where the summary is kept, and read
        back instead of running when it is already there."""
        if keep and os.path.exists(keep):
            return read_summary(keep)
        out = os.path.join(self.work, "runs", f"run{os.getpid()}_{self.runs:05d}")
        shutil.rmtree(out, ignore_errors=True)
        opts = self.setting.options(self.matrix(), design.window(self.setting.window))
        opts["min_score"] = min_score
        cmd = [self.program, "-i", reads_dir, "-s", out, "-d", design.folder, "--barcode_kits", design.kit,
               "-t", str(self.threads), "--quiet", "--barcode_quality_column", "--barcode_evidence_columns"] + \
            [f"--{k}={v}" for k, v in opts.items()] + list(switches)
        t0 = time.time()
        proc = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.seconds += time.time() - t0
        self.runs += 1
        if proc.returncode != 0:
            sys.exit(f"{' '.join(cmd)}\nfailed with status {proc.returncode}:\n{proc.stdout[-3000:]}")
        summary = os.path.join(out, "barcoding_summary.txt")
        rows = read_summary(summary)
        if keep:
            os.makedirs(os.path.dirname(keep), exist_ok=True)
            shutil.move(summary, keep + ".part")
            os.replace(keep + ".part", keep)
        shutil.rmtree(out, ignore_errors=True)  # the per-barcode FASTQ copies are not needed
        return rows

    def identity(self):
        """A short digest of the program's bytes: kept summaries are those of this build."""
        import hashlib
        with open(self.program, "rb") as f:
            return hashlib.sha1(f.read()).hexdigest()[:12]


class DerivedRunner:
    """Stands in for Runner in the report: one low-threshold run per read set
    (kept per build like stage 2's), and from it the calls that a run at
    min_score with the given switches makes (verdict) and the qualities of the
    given model, as the program computes them."""

    def __init__(self, runner, bars, model):
        self.runner, self.bars, self.model = runner, bars, model
        self.kept = os.path.join(runner.work, "low", runner.identity())
        self.last = (None, None)

    @property
    def runs(self):
        return self.runner.runs

    @property
    def seconds(self):
        return self.runner.seconds

    def run(self, reads_dir, design, min_score, *switches):
        if self.last[0] != reads_dir:
            rel = os.path.relpath(reads_dir, os.path.join(self.runner.work, "reads"))
            self.last = (reads_dir, self.runner.run(reads_dir, design, LOW_MIN_SCORE,
                                                    keep=os.path.join(self.kept, rel + ".tsv")))
        bars = replace(self.bars, min_score=min_score)
        both = "--require_barcodes_both_ends" in switches
        out = {}
        for rid, row in self.last[1].items():
            row = raised(row, min_score)
            call = verdict(row, bars, "--reject_mixed_barcodes" in switches)
            if both and not (row.front.score >= min_score and row.rear.score >= min_score):
                call = "unclassified"
            quality = 0 if call == "unclassified" else \
                barcode_quality.phred(barcode_quality.probability(self.model, row.front, row.rear))
            out[rid] = replace(row, arrangement=call, quality=quality)
        return out


@dataclass(frozen=True)
class Design:
    name: str
    kit: str
    flank: int
    length: int
    count: int
    ends: str
    folder: str

    @property
    def double(self):
        return self.ends == "double"

    @property
    def targeted(self):
        return self.flank >= TARGET_FLANK

    def window(self, base=150):
        """The window a user of this design sets: the shipped 42-base
        references leave `base` - 42 bases for junk and adapter, and so does
        every design (a window must hold the whole reference)."""
        return base + max(0, 2 * self.flank + self.length - 42)


def simulate_one(job):
    """One input folder of reads and its truth table (kept: later runs reuse them)."""
    design, model, identity, seeds, reads, fractions, folder = job
    truth_path = folder + ".truth.tsv"
    if os.path.exists(truth_path):
        return
    os.makedirs(folder, exist_ok=True)
    rows = []
    for seed in seeds:
        tp = os.path.join(folder, f"s{seed}.truth")
        args = ["-o", os.path.join(folder, f"s{seed}.fastq"), "--truth", tp, "--kit", design.kit, "-n", str(reads),
                "--seed", str(seed), "--identity", str(identity), "--median-length", "300", "--data", design.folder,
                "--error-model", model]
        for k, v in fractions.items():
            args += [f"--{k.replace('_', '-')}", str(v)]
        simulate_reads.main(args)
        with open(tp) as f:
            rows += f.readlines()[1:]
        os.remove(tp)
    with open(truth_path + ".part", "w") as f:
        f.write("read_id\tkind\tfront\trear\torientation\n")
        f.writelines(rows)
    os.replace(truth_path + ".part", truth_path)


def reads_folder(work, group, design, model, identity):
    return os.path.join(work, "reads", group, model, design.name, str(identity))


def simulate_all(work, designs, group, seeds, reads, processes, fractions=FRACTIONS):
    jobs = [(d, m, i, seeds, reads, fractions, reads_folder(work, group, d, m, i))
            for d in designs for m in MODELS for i in IDENTITIES]
    todo = [j for j in jobs if not os.path.exists(j[-1] + ".truth.tsv")]
    if todo:
        print(f"simulating {len(todo)} read sets ({group})", flush=True)
        if processes > 1:
            with multiprocessing.Pool(processes) as pool:
                pool.map(simulate_one, todo, chunksize=1)
        else:
            for job in todo:
                simulate_one(job)


def family(work, smoke):
    out = os.path.join(work, "family_smoke" if smoke else "family")
    if smoke:
        designs = list(design_kit.family_designs(flanks=(0, 20), lengths=(24,), counts=(12,)))
    else:
        designs = list(design_kit.family_designs())
    if not all(os.path.exists(os.path.join(out, d[0], "configuration.cfg")) for d in designs):
        design_kit.write_family(out, designs=designs)
    return [Design(*d, folder=os.path.join(out, d[0])) for d in designs]


@dataclass
class ReadSet:
    """One design, error model and identity: its reads with the usual mix and
    its reads without barcode, each as (rows, truth)."""
    design: Design
    model: str
    identity: float
    mix: tuple
    none: tuple


def low_threshold_sets(runner, work, designs, group, none_group):
    """The low-threshold runs; their summaries are kept in the work folder per
    build of the program, so that an interrupted calibration resumes."""
    kept = os.path.join(work, "low", runner.identity())
    sets = []
    for d in designs:
        for m in MODELS:
            for i in IDENTITIES:
                pair = []
                for g in (group, none_group):
                    folder = reads_folder(work, g, d, m, i)
                    keep = os.path.join(kept, g, m, d.name, f"{i}.tsv")
                    pair.append((runner.run(folder, d, LOW_MIN_SCORE, keep=keep), read_truth(folder + ".truth.tsv")))
                sets.append(ReadSet(d, m, i, *pair))
    return sets


# ------------------------------------------------------------------ choices


def choose_min_score(sets):
    """(designs served, total, runs, min_score) over the targeted designs:
    min_score is the lowest threshold serving the most designs, since every
    higher one loses reads that carry a barcode and serves no more designs."""
    curves = {}
    for s in sets:
        mix, none = Curves(*s.mix), Curves(*s.none)
        mix.lists["none"] = sorted(mix.lists["none"] + none.lists["none"])
        mix.totals.nones += none.totals.nones
        curves[s.design, s.model, s.identity] = mix
    designs = sorted({s.design for s in sets if s.design.targeted}, key=lambda d: d.name)

    def served(m):
        return sum(all(not curves[d, mo, i].failures(i, m, d.double) for mo in MODELS for i in IDENTITIES)
                   for d in designs)

    count, runs = best_runs([served(t) for t in THRESHOLDS])
    return count, len(designs), runs, runs[0][0]


def choose_mixed_bars(sets, min_score):
    """The rival margin and evidence presence serving the most targeted
    double-ended designs for the --reject_mixed_barcodes targets: [(served,
    lost, caught, Bars)] best first."""
    doubles = [s for s in sets if s.design.double and s.design.targeted]
    options = []
    for margin in RIVAL_MARGINS:
        for presence in EVIDENCE_PRESENCES:
            bars = Bars(min_score, margin, presence)
            ok, lost, caught = {}, 0, 0
            for s in doubles:
                rows, truth = s.mix
                default = {rid: verdict(row, bars) for rid, row in rows.items()}
                switched = {rid: verdict(row, bars, True) for rid, row in rows.items()}
                c = evaluate(default, truth, switched)
                lost += c.double_lost + c.front_lost
                caught += c.chimera_unclassified
                good = pct(c.chimera_unclassified, c.chimeras) >= CHIMERAS_REJECTED[s.identity] and \
                    one_barcode_lost(c) <= ONE_BARCODE_LOST
                ok[s.design] = ok.get(s.design, True) and good
            options.append((sum(ok.values()), -lost, caught, bars))
    options.sort(key=lambda o: (o[0], o[1], o[2]), reverse=True)
    return [(served, -neg_lost, caught, bars) for served, neg_lost, caught, bars in options]


def fit_quality(sets, min_score, seed=1):
    """The quality model fitted on the non-chimeric calls of the usual mix
    that the program makes at min_score, and (features, wrong) counts. Only
    those: calls just below min_score are wrong more often for the same
    features, and fitting on them made the quality too cautious where calls
    are made. Calls that are plainly right (margin of 6 substitutions or more
    and presence 40 or more) are sampled at one in 20 and weighted 20."""
    rnd = random.Random(seed)
    xs, ys, ws = [], [], []
    for s in sets:
        rows, truth = s.mix
        for rid, (kind, front, rear) in truth.items():
            row = raised(rows[rid], min_score)
            if kind == "chimera" or row.arrangement == "unclassified" or not row.score >= min_score:
                continue
            x = barcode_quality.features(row.front, row.rear)
            wrong = row.arrangement != right_barcode(front, rear)
            weight = 1.0
            if not wrong and x[0] >= 6 and x[1] >= 0.4:
                if rnd.random() >= 0.05:
                    continue
                weight = 20.0
            xs.append(x)
            ys.append(int(wrong))
            ws.append(weight)
    if sum(ys) < 5:
        return None, (len(xs), sum(ys))
    return barcode_quality.fit(xs, ys, ws), (len(xs), sum(ys))


# ------------------------------------------------------------------ report


def fmt(num, den):
    return f"{pct(num, den):.2f} % ({num}/{den})" if den else "-"


def worst(rows, value, pick=min):
    """The (design, Counts) whose counts give the worst value."""
    rows = [(d, c) for d, c in rows if not math.isnan(value(c))]
    if not rows:
        return None
    return pick(rows, key=lambda r: value(r[1]))


METRICS = [
    ("recall (double)", lambda c: pct(c.recalled, c.doubles), min, lambda c: (c.recalled, c.doubles)),
    ("front-only called right", lambda c: pct(c.front_recalled, c.fronts), min,
     lambda c: (c.front_recalled, c.fronts)),
    ("precision", lambda c: pct(c.precise, c.called), min, lambda c: (c.precise, c.called)),
    ("unbarcoded classified", lambda c: pct(c.none_classified, c.nones), max,
     lambda c: (c.none_classified, c.nones)),
    ("chimeras unclassified, --reject_mixed_barcodes", lambda c: pct(c.chimera_unclassified, c.chimeras), min,
     lambda c: (c.chimera_unclassified, c.chimeras)),
    ("one-barcode reads lost to --reject_mixed_barcodes", one_barcode_lost, max,
     lambda c: (c.double_lost + c.front_lost, c.doubles + c.fronts)),
    ("chimeras unclassified, --require_barcodes_both_ends", lambda c: pct(c.both_chimeras, c.chimeras), min,
     lambda c: (c.both_chimeras, c.chimeras)),
    ("recall (double), --require_barcodes_both_ends", lambda c: pct(c.both_recalled, c.doubles), min,
     lambda c: (c.both_recalled, c.doubles)),
]


@dataclass
class ReportCounts(Counts):
    both_chimeras: int = 0
    both_recalled: int = 0


def worst_tables(results, designs_wanted, title):
    """Markdown: per error model, the worst design per identity for each metric."""
    out = []
    for model in MODELS:
        out.append(f"{title}, error model **{model}**: worst design per identity (its value, counts)\n")
        out.append("| metric | " + " | ".join(str(i) for i in IDENTITIES) + " |")
        out.append("|---|" + "---|" * len(IDENTITIES))
        for label, value, pick, num_den in METRICS:
            cells = []
            for i in IDENTITIES:
                rows = [(d, c) for (d, mo, ident), c in results.items()
                        if mo == model and ident == i and designs_wanted(d)]
                w = worst(rows, value, pick)
                cells.append("-" if w is None else f"{fmt(*num_den(w[1]))} {w[0].name}")
            out.append(f"| {label} | " + " | ".join(cells) + " |")
        out.append("")
    return "\n".join(out)


def pooled_table(results):
    groups = [(f"{length}, {'flanks' if flanked else 'no flanks'}",
               lambda d, L=length, F=flanked: d.length == L and d.targeted == F)
              for length in (16, 24, 40) for flanked in (True, False)]
    out = ["| barcodes | identity | recall (double) | precision | unbarcoded classified | chimeras unclassified "
           "(mixed) | one-barcode reads lost (mixed) |", "|---|---|---|---|---|---|---|"]
    for label, wanted in groups:
        if not any(wanted(d) for d, _, _ in results):
            continue
        for i in IDENTITIES:
            t = ReportCounts()
            for (d, _, ident), c in results.items():
                if ident == i and wanted(d):
                    t.add(c)
            out.append(f"| {label} | {i} | {fmt(t.recalled, t.doubles)} | {fmt(t.precise, t.called)} | "
                       f"{fmt(t.none_classified, t.nones)} | {fmt(t.chimera_unclassified, t.chimeras)} | "
                       f"{fmt(t.double_lost + t.front_lost, t.doubles + t.fronts)} |")
    return "\n".join(out)


def reliability(calls):
    """calls: [(p, quality, wrong)] -> per bin (n, predicted, observed), and totals."""
    bins = []
    for lo, hi in QUALITY_BINS:
        inside = [(p, w) for p, q, w in calls if lo <= q <= hi]
        bins.append((f"{lo}-{hi}" if hi < 60 else f"{lo}+", len(inside), sum(p for p, _ in inside),
                     sum(w for _, w in inside)))
    return bins


def reliability_table(named_calls):
    out = ["| reads | quality | calls | predicted wrong (sum of p) | observed wrong | observed / predicted |",
           "|---|---|---|---|---|---|"]
    for name, calls in named_calls:
        for label, n, predicted, observed in reliability(calls) + [("all", len(calls), sum(c[0] for c in calls),
                                                                      sum(c[2] for c in calls))]:
            ratio = f"{observed / predicted:.2f}" if predicted > 0 else "-"
            out.append(f"| {name} | {label} | {n} | {predicted:.1f} | {observed} | {ratio} |")
    return "\n".join(out)


def calibration_misses(calls):
    """The calibration targets missed by these calls (empty: all met)."""
    missed = []
    predicted, observed = sum(c[0] for c in calls), sum(c[2] for c in calls)
    if observed >= 20 and not 0.5 <= observed / predicted <= 2:
        missed.append(f"total {observed} wrong against {predicted:.1f} predicted")
    for label, n, p, o in reliability(calls):
        if p >= 20 and not 0.5 <= o / p <= 2:
            missed.append(f"quality {label}: {o} wrong against {p:.1f} predicted")
    high = [c for c in calls if c[1] >= HIGH_QUALITY]
    if high and pct(sum(c[2] for c in high), len(high)) > HIGH_QUALITY_WRONG:
        missed.append(f"quality >= {HIGH_QUALITY}: {fmt(sum(c[2] for c in high), len(high))} wrong")
    return missed


def report(runner, work, designs, quality_model, bars, md):
    """Real runs of the program as built on the report reads; appends the tables to md."""
    results, quality_calls, checks = {}, {}, Counts()
    quality_mismatch = verdict_mismatch = 0
    for d in designs:
        for m in MODELS:
            for i in IDENTITIES:
                folder = reads_folder(work, "report", d, m, i)
                truth = read_truth(folder + ".truth.tsv")
                rows = runner.run(folder, d, bars.min_score)
                calls = {rid: r.arrangement for rid, r in rows.items()}
                switched = calls
                if d.double:
                    mixed = runner.run(folder, d, bars.min_score, "--reject_mixed_barcodes")
                    switched = {rid: r.arrangement for rid, r in mixed.items()}
                    verdict_mismatch += sum(verdict(rows[rid], bars, True) != switched[rid] for rid in rows)
                c = ReportCounts()
                c.add(evaluate(calls, truth, switched if d.double else None))
                if d.double:
                    both = runner.run(folder, d, bars.min_score, "--require_barcodes_both_ends")
                    for rid, (kind, front, _) in truth.items():
                        c.both_chimeras += kind == "chimera" and both[rid].arrangement == "unclassified"
                        c.both_recalled += kind == "double" and both[rid].arrangement == front
                none_folder = reads_folder(work, "none_report", d, m, i)
                none_rows = runner.run(none_folder, d, bars.min_score)
                c.nones += len(none_rows)
                c.none_classified += sum(r.arrangement != "unclassified" for r in none_rows.values())
                results[d, m, i] = c
                # The quality of every non-chimeric call, as the program gives it.
                qc = []
                for rid, (kind, front, rear) in truth.items():
                    row = rows[rid]
                    if kind == "chimera" or row.arrangement == "unclassified":
                        continue
                    p = barcode_quality.probability(quality_model, row.front, row.rear)
                    quality_mismatch += barcode_quality.phred(p) != row.quality
                    qc.append((p, row.quality, row.arrangement != right_barcode(front, rear)))
                quality_calls[d, m, i] = qc
                checks.called += len(qc)

    md.append("### Designs with flanks of 10 bases or more\n")
    md.append(worst_tables(results, lambda d: d.targeted, "Flanks of 10 to 40 bases"))
    md.append("### Designs without flanks\n")
    md.append(worst_tables(results, lambda d: not d.targeted, "No flanks"))
    md.append("### Pooled over the designs of a barcode length (both models)\n")
    md.append(pooled_table(results) + "\n")

    md.append("### Reliability of the barcode quality\n")
    named = []
    for model in MODELS + ("both",):
        for label, wanted in (("all designs", lambda d: True), ("flanks >= 10", lambda d: d.targeted)):
            calls = [c for (d, mo, _), qc in quality_calls.items() if (model == "both" or mo == model) and wanted(d)
                     for c in qc]
            named.append((f"{model}, {label}", calls))
    per_design = {}
    for (d, _, _), qc in quality_calls.items():
        per_design.setdefault(d, []).extend(qc)
    hardest = max(per_design, key=lambda d: sum(c[2] for c in per_design[d]))
    for model in MODELS:
        named.append((f"{model}, worst design {hardest.name}",
                      [c for (d, mo, _), qc in quality_calls.items() if d == hardest and mo == model for c in qc]))
    md.append(reliability_table(named) + "\n")
    everything = [c for qc in quality_calls.values() for c in qc]
    misses = calibration_misses(everything)
    md.append(f"Calibration targets over all {len(everything)} non-chimeric calls: "
              f"{'met' if not misses else 'missed: ' + '; '.join(misses)}.\n")
    md.append(f"Checks: the program's quality differs from this script's formula on {quality_mismatch} of "
              f"{checks.called} calls; its --reject_mixed_barcodes calls differ from the modelled ones on "
              f"{verdict_mismatch} reads.\n")

    missed = []
    for (d, m, i), c in sorted(results.items(), key=lambda r: (r[0][0].name, r[0][1], r[0][2])):
        if not d.targeted:
            continue
        miss = []
        if d.double and pct(c.recalled, c.doubles) < DOUBLE_RECALL[i]:
            miss.append(f"recall {fmt(c.recalled, c.doubles)}")
        if c.called and pct(c.precise, c.called) < PRECISION:
            miss.append(f"precision {fmt(c.precise, c.called)}")
        if pct(c.none_classified, c.nones) > NONE_CLASSIFIED:
            miss.append(f"unbarcoded classified {fmt(c.none_classified, c.nones)}")
        if d.double and pct(c.chimera_unclassified, c.chimeras) < CHIMERAS_REJECTED[i]:
            miss.append(f"chimeras (mixed) {fmt(c.chimera_unclassified, c.chimeras)}")
        if d.double and one_barcode_lost(c) > ONE_BARCODE_LOST:
            miss.append(f"lost to the switch {fmt(c.double_lost + c.front_lost, c.doubles + c.fronts)}")
        if miss:
            missed.append(f"- {d.name}, {m}, {i}: " + "; ".join(miss))
    md.append(f"Designs with flanks missing a target ({len(missed)} design, model and identity combinations):\n")
    md.extend(missed)
    with open(os.path.join(work, "results.json"), "w") as f:
        json.dump({f"{d.name} {m} {i}": vars(c) for (d, m, i), c in results.items()}, f, indent=0)
    return results, misses


def write_config(min_score, model, comment):
    data = os.path.join(ROOT, "data", "barcoding")
    cfg = os.path.join(data, "configuration.cfg")
    value = int(min_score) if min_score == int(min_score) else min_score
    with open(cfg) as f:
        lines = [f"min_score = {value}\n" if line.split("=")[0].strip() == "min_score" and
                 not line.lstrip().startswith("#") else line for line in f]
    with open(cfg, "w") as f:
        f.writelines(lines)
    barcode_quality.write_model(os.path.join(data, "vb_quality.tsv"), model, comment)


def main(argv=None):
    global MODELS
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--program", default=os.path.join(ROOT, "build", "bin", "vorpa_barcoder"))
    ap.add_argument("--work", default="/tmp/vb_calibration")
    ap.add_argument("--reads", type=int, default=1000, help="reads per calibration seed, design, identity and model")
    ap.add_argument("--none-reads", type=int, default=1000,
                    help="reads without barcode per seed, design, identity and model")
    ap.add_argument("--calib-seeds", type=int, nargs="+", default=[11, 12])
    ap.add_argument("--none-calib-seeds", type=int, nargs="+", default=[201])
    ap.add_argument("--report-reads", type=int, default=1500, help="reads per report seed, design, identity and model")
    ap.add_argument("--report-seeds", type=int, nargs="+", default=[101, 102])
    ap.add_argument("--none-report-seeds", type=int, nargs="+", default=[301, 302])
    ap.add_argument("--threads", type=int, default=2)
    ap.add_argument("--processes", type=int, default=2, help="parallel read simulations")
    ap.add_argument("--models", default=",".join(MODELS), help="error models, comma separated")
    ap.add_argument("--smoke", action="store_true", help="a four-design family and few reads (CI)")
    ap.add_argument("--report-only", action="store_true", help="skip the choices: report the program as built")
    ap.add_argument("--skip-report", action="store_true")
    ap.add_argument("--derived", action="store_true",
                    help="report from one low-threshold run per read set (calls and qualities derived)")
    ap.add_argument("--only", help="only the designs whose name matches this regular expression")
    ap.add_argument("--write-config", action="store_true",
                    help="store the chosen min_score and quality model in data/barcoding")
    ap.add_argument("--report", help="Markdown output (default: <work>/report.md)")
    args = ap.parse_args(argv)
    MODELS = tuple(args.models.split(","))
    if args.smoke:
        args.reads, args.none_reads, args.report_reads = min(args.reads, 100), min(args.none_reads, 50), \
            min(args.report_reads, 100)
        args.calib_seeds, args.none_calib_seeds = args.calib_seeds[:1], args.none_calib_seeds[:1]
        args.report_seeds, args.none_report_seeds = args.report_seeds[:1], args.none_report_seeds[:1]

    if "pbsim" in MODELS and not shutil.which("pbsim"):
        subprocess.run(["bash", os.path.join(ROOT, "scripts", "install-deps.sh"), "--calibration"], check=True)
    os.makedirs(args.work, exist_ok=True)
    runner = Runner(os.path.abspath(args.program), args.work, args.threads)
    designs = family(args.work, args.smoke)
    if args.only:
        designs = [d for d in designs if re.search(args.only, d.name)]
    shipped_margin, shipped_presence = scorer_constants()
    md = [f"Family: {len(designs)} designs; error models {', '.join(MODELS)}; identities "
          f"{', '.join(map(str, IDENTITIES))}.\n"]
    model = barcode_quality.read_model(os.path.join(ROOT, "data", "barcoding", "vb_quality.tsv"))
    min_score = None
    chosen = {}

    if not args.report_only:
        simulate_all(args.work, designs, "calib", args.calib_seeds, args.reads, args.processes)
        simulate_all(args.work, designs, "none_calib", args.none_calib_seeds, args.none_reads, args.processes,
                     NONE_ONLY)
        sets = low_threshold_sets(runner, args.work, designs, "calib", "none_calib")
        md.append(f"### Choices (calibration seeds {args.calib_seeds}, {args.reads} reads each, and "
                  f"{args.none_reads} reads without barcode per seed {args.none_calib_seeds}, per design, identity "
                  f"and error model)\n")
        served, total, runs, min_score = choose_min_score(sets)
        md.append(f"min_score: {served} of {total} designs with flanks meet every default-mode target at "
                  f"{', '.join(f'{lo} .. {hi}' for lo, hi in runs)}; chosen {min_score}, the lowest.\n")
        options = choose_mixed_bars(sets, min_score)
        md.append("Mixed-read bars at that min_score (best first):\n")
        md.append("| rival margin | evidence presence | designs served | one-barcode reads lost | chimeras caught |")
        md.append("|---|---|---|---|---|")
        for served_bars, lost, caught, bars in options[:8]:
            md.append(f"| {bars.rival_margin} | {bars.evidence_presence} | {served_bars} | {lost} | {caught} |")
        best_bars = options[0][3]
        md.append(f"\nChosen: rival margin {best_bars.rival_margin}, evidence presence "
                  f"{best_bars.evidence_presence} (the program has {shipped_margin} and {shipped_presence}).\n")
        fitted, (n, wrong) = fit_quality(sets, min_score)
        if fitted is None:
            md.append(f"Quality: too few wrong calls to fit ({wrong} of {n}); the shipped model stays.\n")
        else:
            model = fitted
            md.append(f"Quality model fitted on {n} calls ({wrong} wrong): " +
                      ", ".join(f"{k} {v:.4g}" for k, v in fitted.items()) + ".\n")
        chosen = dict(min_score=min_score, rival_margin=best_bars.rival_margin,
                      evidence_presence=best_bars.evidence_presence, quality=model)
        print(f"chosen: {chosen}", flush=True)
        if args.write_config:
            if model["margin"] > 0 or model["presence"] > 0 or model["conflict"] < 0:
                sys.exit(f"the fitted model {model} has a coefficient of the wrong sign; not written")
            write_config(min_score, model, [
                "vorpa_barcoder barcode quality model (barcoding/barcode_quality.h): logistic",
                "coefficients of the probability that a call is wrong, fitted by",
                f"tools/calibrate.py on {n} calls ({wrong} wrong) of simulated reads of the kit family",
                "(docs/calibration.md)."])
            print("configuration.cfg and vb_quality.tsv updated (rebuild, then report with --report-only)")

    if not args.skip_report:
        simulate_all(args.work, designs, "report", args.report_seeds, args.report_reads, args.processes)
        simulate_all(args.work, designs, "none_report", args.none_report_seeds, args.none_reads, args.processes,
                     NONE_ONLY)
        bars = Bars(shipped_min_score(), shipped_margin, shipped_presence)
        md.append(f"## Held-out seeds {args.report_seeds} ({args.report_reads} reads each) and "
                  f"{args.none_report_seeds} ({args.none_reads} reads without barcode each), per design, identity "
                  f"and error model; the program as built\n")
        shipped_model = barcode_quality.read_model(os.path.join(ROOT, "data", "barcoding", "vb_quality.tsv"))
        if args.derived:
            md.append("Calls and qualities derived from one low-threshold run per read set (--derived).\n")
        _, misses = report(DerivedRunner(runner, bars, shipped_model) if args.derived else runner, args.work, designs,
                           shipped_model, bars, md)
        chosen["calibration_misses"] = misses

    md.append(f"\n{runner.runs} program runs, {runner.seconds:.0f} s in the program.\n")
    report_path = args.report or os.path.join(args.work, "report.md")
    with open(report_path, "w") as f:
        f.write("\n".join(md) + "\n")
    print(f"report: {report_path}")
    return chosen


def shipped_min_score():
    """The min_score of data/barcoding/configuration.cfg."""
    path = os.path.join(ROOT, "data", "barcoding", "configuration.cfg")
    with open(path) as f:
        for line in f:
            key, _, value = line.partition("=")
            if key.strip() == "min_score" and not line.lstrip().startswith("#"):
                return float(value)
    raise ValueError(f"{path} sets no min_score")


if __name__ == "__main__":
    main()
