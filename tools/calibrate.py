#!/usr/bin/env python3
"""Calibrate vorpa_barcoder's default min_score (and matrix and gaps) across kit designs.

One default has to serve kits that users design themselves, so the values are
chosen on a family of designs (tools/design_kit.py --family: constant flanks
of 0..40 bases per side, barcodes of 16, 24 and 40 bases, kits of 12, 24 and
96 barcodes, double- and single-ended), with reads from two independent error
models: tools/simulate_reads.py's own and Debian's pbsim. Targets hold for the
worst design, not the average.

Stages, all against the real program:
  1. family and reads: the designs are written once into <work>/family; reads
     are simulated once per design, identity, error model and seed group and
     kept in <work>/reads (calibration seeds for the sweep, other seeds for
     the report);
  2. sweep: for every matrix and gap setting the program runs once per design,
     identity and error model with a very low min_score, and the summaries are
     re-thresholded in Python. With one kit and scoring MAX that is exact: an
     arrangement survives min_score m exactly when max(front, rear) >= m,
     which is its combined score, so a read's call at m is the row's
     arrangement when barcode_score >= m, else "unclassified". A chimera is
     left unclassified by --reject_mixed_barcodes at least when both its ends
     pass, and each end of a chimera is scored like an end of a
     double-barcoded read of the same kit, so the sweep takes the doubles
     whose weaker end passes as a lower bound of that share (the switch also
     catches chimeras whose weaker end shows evidence without passing, which
     a summary row does not show); with --require_barcodes_both_ends no
     chimera can pass at a positive threshold (at most one reference per end
     and kit scores above 0). Both are then checked with real runs (stage 4);
  3. choice: per setting and threshold, the designs meeting every target at
     every identity with both error models; the setting and threshold range
     serving the most designs wins (ties: the widest range), and min_score is
     the middle of that range, rounded down to a half point;
  4. report: real runs at the chosen values on the report seeds, in default
     mode, with --reject_mixed_barcodes and with --require_barcodes_both_ends;
     the tables give the worst design per identity and error model, and every
     design missing a target is listed with its figures. What the switch
     costs is counted read by read: double-barcoded and front-only reads
     called right in default mode that the switch leaves unclassified.

Usage:
  tools/calibrate.py [--program build/bin/vorpa_barcoder] [--work /tmp/vb_calibration]
                     [--reads 1000] [--report-reads 1500] [--write-config]
  tools/calibrate.py --smoke ...   a small family (CI: under a minute)
"""

import argparse
import bisect
import json
import math
import multiprocessing
import os
import re
import shutil
import subprocess
import sys
import time
from dataclasses import dataclass, field

TOOLS = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(TOOLS)
sys.path.insert(0, TOOLS)
import design_kit  # noqa: E402
import simulate_reads  # noqa: E402

IDENTITIES = (0.87, 0.92, 0.97)
MODELS = ("builtin", "pbsim")
LOW_MIN_SCORE = -1000
FRACTIONS = dict(frac_double=0.6, frac_front=0.1, frac_none=0.1, frac_chimera=0.2)
THRESHOLDS = [k / 2 for k in range(1, 181)]  # 0.5 .. 90

# Targets (percent), per identity.
DOUBLE_RECALL = {0.97: 99.9, 0.92: 99.9, 0.87: 99.5}
FRONT_RECALL = {0.92: 99.0}
PRECISION = 99.95
NONE_CLASSIFIED = 0.1  # at most
CHIMERAS_REJECTED = {0.97: 99.0, 0.92: 99.0, 0.87: 97.0}


# ------------------------------------------------------------------ parsing


@dataclass
class Call:
    arrangement: str
    score: float
    front_id: str
    front_score: float
    rear_id: str
    rear_score: float


def read_summary(path):
    """read_id -> Call from barcoding_summary.txt (header row required)."""
    calls = {}
    with open(path) as f:
        header = f.readline().rstrip("\n").split("\t")
        if header[:2] != ["read_id", "barcode_arrangement"]:
            raise ValueError(f"{path}: not a barcoding summary")
        for line in f:
            c = line.rstrip("\n").split("\t")
            if len(c) < 14:
                raise ValueError(f"{path}: short row {line!r}")
            calls[c[0]] = Call(c[1], float(c[5]), c[6], float(c[7]), c[12], float(c[13]))
    return calls


def read_truth(path):
    """read_id -> (kind, front, rear); "-" stands for no barcode."""
    truth = {}
    with open(path) as f:
        next(f)
        for line in f:
            rid, kind, front, rear, _ = line.rstrip("\n").split("\t")
            truth[rid] = (kind, front, rear)
    return truth


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
        for k in self.__dataclass_fields__:
            setattr(self, k, getattr(self, k) + getattr(other, k))
        return self


def pct(num, den):
    return 100.0 * num / den if den else float("nan")


def evaluate(calls, truth, min_score=None):
    """Counts of the metrics; min_score re-thresholds a low-threshold MAX run."""
    c = Counts()
    for rid, (kind, front, rear) in truth.items():
        call = calls.get(rid)
        if call is None:
            raise ValueError(f"read {rid} missing from the summary")
        got = call.arrangement
        if min_score is not None and not call.score >= min_score:
            got = "unclassified"
        if kind != "chimera" and got != "unclassified":
            c.called += 1
            c.precise += got == (front if front != "-" else rear)
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
            c.chimera_unclassified += got == "unclassified"
    return c


def count_lost(counts, default_calls, calls, truth):
    """Adds to counts the double-barcoded and front-only reads that default_calls
    got right and calls (the same reads with a switch) left unclassified."""
    for rid, (kind, front, _) in truth.items():
        if kind in ("double", "front") and default_calls[rid].arrangement == front and \
                calls[rid].arrangement == "unclassified":
            if kind == "double":
                counts.double_lost += 1
            else:
                counts.front_lost += 1
    return counts


class Curves:
    """Every sweep metric of one low-threshold run as a function of min_score.

    Sorted score lists answer "how many reach m" by bisection, so a whole
    threshold grid costs no more than one pass over the reads."""

    def __init__(self, calls, truth):
        self.lists = {k: [] for k in ("right_double", "both_ends_double", "right_front", "called", "wrong",
                                      "none")}
        self.totals = Counts()
        for rid, (kind, front, rear) in truth.items():
            call = calls[rid]
            right = call.arrangement == (front if front != "-" else rear)
            # A row left unclassified even at the low threshold stays so at any.
            score = call.score if call.arrangement != "unclassified" else -math.inf
            if kind == "chimera":
                self.totals.chimeras += 1
                continue
            self.lists["called"].append(score)
            if not right:
                self.lists["wrong"].append(score)
            if kind == "double":
                self.totals.doubles += 1
                if right:
                    self.lists["right_double"].append(score)
                    self.lists["both_ends_double"].append(min(call.front_score, call.rear_score))
            elif kind == "front":
                self.totals.fronts += 1
                if right:
                    self.lists["right_front"].append(score)
            else:
                self.totals.nones += 1
                self.lists["none"].append(score)
        for values in self.lists.values():
            values.sort()

    def at_least(self, name, m):
        values = self.lists[name]
        return len(values) - bisect.bisect_left(values, m)

    def failures(self, identity, m, double_ended):
        """Names of the targets missed at min_score m (empty: all met)."""
        t, missed = self.totals, []
        if double_ended and pct(self.at_least("right_double", m), t.doubles) < DOUBLE_RECALL[identity]:
            missed.append("recall")
        if identity in FRONT_RECALL and t.fronts and \
                pct(self.at_least("right_front", m), t.fronts) < FRONT_RECALL[identity]:
            missed.append("front-only recall")
        called = self.at_least("called", m)
        if called and pct(called - self.at_least("wrong", m), called) < PRECISION:
            missed.append("precision")
        if pct(self.at_least("none", m), t.nones) > NONE_CLASSIFIED:
            missed.append("unbarcoded")
        if double_ended and t.chimeras and \
                pct(self.at_least("both_ends_double", m), t.doubles) < CHIMERAS_REJECTED[identity]:
            missed.append("chimeras (mixed)")
        return missed


def best_range(counts_by_threshold, thresholds=THRESHOLDS):
    """(count, low, high): the most designs served, and the widest run of
    consecutive thresholds serving that many."""
    top = max(counts_by_threshold)
    best, start = None, None
    for i, n in enumerate(counts_by_threshold + [-1]):
        if n == top and start is None:
            start = i
        elif n != top and start is not None:
            if best is None or thresholds[i - 1] - thresholds[start] > best[1] - best[0]:
                best = (thresholds[start], thresholds[i - 1])
            start = None
    return top, best[0], best[1]


# ------------------------------------------------------------------ running


@dataclass(frozen=True)
class Setting:
    match: int = 5
    mismatch: int = -4
    gap: int = 7
    window: int = 150

    def label(self):
        return f"m{self.match}/{self.mismatch} gap{self.gap}"

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
    runs: int = 0
    seconds: float = 0.0

    def matrix(self, s):
        path = os.path.join(self.work, "matrices", f"m{s.match}_{-s.mismatch}.tsv")
        if not os.path.exists(path):
            os.makedirs(os.path.dirname(path), exist_ok=True)
            write_matrix(path, s.match, s.mismatch)
        return path

    def run(self, reads_dir, design, setting, min_score, *switches):
        out = os.path.join(self.work, "runs", f"run{os.getpid()}_{self.runs:05d}")
        shutil.rmtree(out, ignore_errors=True)
        opts = setting.options(self.matrix(setting), design.window(setting.window))
        data, kit = design.folder, design.kit
        opts["min_score"] = min_score
        cmd = [self.program, "-i", reads_dir, "-s", out, "-d", data, "--barcode_kits", kit, "-t", str(self.threads),
               "--quiet"] + [f"--{k}={v}" for k, v in opts.items()] + list(switches)
        t0 = time.time()
        proc = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.seconds += time.time() - t0
        self.runs += 1
        if proc.returncode != 0:
            sys.exit(f"{' '.join(cmd)}\nfailed with status {proc.returncode}:\n{proc.stdout[-3000:]}")
        calls = read_summary(os.path.join(out, "barcoding_summary.txt"))
        shutil.rmtree(out, ignore_errors=True)  # the per-barcode FASTQ copies are not needed
        return calls


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

    def window(self, base=150):
        """The window a user of this design sets: the shipped 42-base
        references leave `base` - 42 bases for junk and adapter, and so does
        every design (a window must hold the whole reference)."""
        return base + max(0, 2 * self.flank + self.length - 42)


def simulate_one(job):
    """One input folder of reads and its truth table (kept: later runs reuse them)."""
    design, model, identity, seeds, reads, folder = job
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
        for k, v in FRACTIONS.items():
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


def simulate_all(work, designs, group, seeds, reads, processes):
    jobs = [(d, m, i, seeds, reads, reads_folder(work, group, d, m, i))
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


# The sweep may run on a corner subset of the family (the extremes of flank
# length and kit size, every barcode length and both kinds of ends); the
# report always covers every design.
SWEEP_SUBSET = dict(flanks=(0, 20, 40), counts=(12, 96))


def family(work, smoke):
    out = os.path.join(work, "family_smoke" if smoke else "family")
    if smoke:
        designs = list(design_kit.family_designs(flanks=(0, 30), lengths=(24,), counts=(12,)))
    else:
        designs = list(design_kit.family_designs())
    if not all(os.path.exists(os.path.join(out, d[0], "configuration.cfg")) for d in designs):
        design_kit.write_family(out, designs=designs)
    return [Design(*d, folder=os.path.join(out, d[0])) for d in designs]


# ------------------------------------------------------------------ report


def fmt(num, den):
    return f"{pct(num, den):.2f} % ({num}/{den})" if den else "-"


def worst(rows, value, pick=min):
    """The design whose counts give the worst value (rows: [(design, Counts)])."""
    rows = [(d, c) for d, c in rows if not math.isnan(value(c))]
    if not rows:
        return None
    return pick(rows, key=lambda r: value(r[1]))


def report_tables(results):
    """Markdown: worst design per identity and error model, per metric.

    results: {(mode, model, identity): [(design, Counts)]}."""
    metrics = [
        ("default", "recall (double)", lambda c: pct(c.recalled, c.doubles), min, lambda c: (c.recalled, c.doubles)),
        ("default", "front-only called right", lambda c: pct(c.front_recalled, c.fronts), min,
         lambda c: (c.front_recalled, c.fronts)),
        ("default", "precision", lambda c: pct(c.precise, c.called), min, lambda c: (c.precise, c.called)),
        ("default", "unbarcoded classified", lambda c: pct(c.none_classified, c.nones), max,
         lambda c: (c.none_classified, c.nones)),
        ("mixed", "chimeras unclassified, --reject_mixed_barcodes", lambda c: pct(c.chimera_unclassified, c.chimeras),
         min, lambda c: (c.chimera_unclassified, c.chimeras)),
        ("mixed", "recall (double), --reject_mixed_barcodes", lambda c: pct(c.recalled, c.doubles), min,
         lambda c: (c.recalled, c.doubles)),
        ("mixed", "double-barcoded lost to --reject_mixed_barcodes", lambda c: pct(c.double_lost, c.doubles), max,
         lambda c: (c.double_lost, c.doubles)),
        ("mixed", "front-only lost to --reject_mixed_barcodes", lambda c: pct(c.front_lost, c.fronts), max,
         lambda c: (c.front_lost, c.fronts)),
        ("both", "chimeras unclassified, --require_barcodes_both_ends",
         lambda c: pct(c.chimera_unclassified, c.chimeras), min, lambda c: (c.chimera_unclassified, c.chimeras)),
        ("both", "recall (double), --require_barcodes_both_ends", lambda c: pct(c.recalled, c.doubles), min,
         lambda c: (c.recalled, c.doubles)),
    ]
    out = []
    for model in MODELS:
        out.append(f"Error model **{model}**: worst design per identity (its value, counts)\n")
        out.append("| metric | " + " | ".join(str(i) for i in IDENTITIES) + " |")
        out.append("|---|" + "---|" * len(IDENTITIES))
        for mode, label, value, pick, num_den in metrics:
            cells = []
            for i in IDENTITIES:
                w = worst(results.get((mode, model, i), []), value, pick)
                cells.append("-" if w is None else f"{fmt(*num_den(w[1]))} {w[0].name}")
            out.append(f"| {label} | " + " | ".join(cells) + " |")
        out.append("")
    return "\n".join(out)


def missed_targets(results):
    """[(design, model, identity, [(metric, value text)])] for every target missed in real runs."""
    out = {}
    for (mode, model, i), rows in results.items():
        for d, c in rows:
            miss = []
            if mode == "default":
                if d.double and pct(c.recalled, c.doubles) < DOUBLE_RECALL[i]:
                    miss.append(("recall", fmt(c.recalled, c.doubles)))
                if i in FRONT_RECALL and c.fronts and pct(c.front_recalled, c.fronts) < FRONT_RECALL[i]:
                    miss.append(("front-only recall", fmt(c.front_recalled, c.fronts)))
                if c.called and pct(c.precise, c.called) < PRECISION:
                    miss.append(("precision", fmt(c.precise, c.called)))
                if pct(c.none_classified, c.nones) > NONE_CLASSIFIED:
                    miss.append(("unbarcoded classified", fmt(c.none_classified, c.nones)))
            elif c.chimeras and pct(c.chimera_unclassified, c.chimeras) < CHIMERAS_REJECTED[i]:
                miss.append((f"chimeras ({mode})", fmt(c.chimera_unclassified, c.chimeras)))
            if miss:
                out.setdefault((d.name, model, i), []).extend(miss)
    return sorted(out.items())


def write_config(setting, min_score):
    data = os.path.join(ROOT, "data", "barcoding")
    write_matrix(os.path.join(data, "vb_matrix.tsv"), setting.match, setting.mismatch,
                 f"vorpa_barcoder mismatch scores (calibrated, docs/calibration.md): match {setting.match}, "
                 f"mismatch {setting.mismatch}")
    cfg = os.path.join(data, "configuration.cfg")
    opts = setting.options("vb_matrix.tsv")
    opts["min_score"] = int(min_score) if min_score == int(min_score) else min_score
    lines = []
    with open(cfg) as f:
        for line in f:
            key = line.split("=")[0].strip()
            if "=" in line and not line.lstrip().startswith("#") and key in opts:
                line = f"{key} = {opts[key]}\n"
            lines.append(line)
    with open(cfg, "w") as f:
        f.writelines(lines)


def parse_settings(text):
    out = []
    for item in text.split(","):
        match, mismatch, gap = (int(x) for x in item.split(":"))
        out.append(Setting(match, mismatch, gap))
    return out


def main(argv=None):
    global MODELS
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--program", default=os.path.join(ROOT, "build", "bin", "vorpa_barcoder"))
    ap.add_argument("--work", default="/tmp/vb_calibration")
    ap.add_argument("--reads", type=int, default=1000, help="reads per design, identity and model (sweep)")
    ap.add_argument("--report-reads", type=int, default=750, help="reads per report seed, design, identity and model")
    ap.add_argument("--calib-seeds", type=int, nargs="+", default=[11])
    ap.add_argument("--report-seeds", type=int, nargs="+", default=[101, 102])
    ap.add_argument("--threads", type=int, default=2)
    ap.add_argument("--processes", type=int, default=2, help="parallel read simulations")
    ap.add_argument("--settings", default="5:-4:7,5:-6:9", help="match:mismatch:gap, comma separated")
    ap.add_argument("--min-score", type=float, help="skip the sweep: report this min_score (first setting)")
    ap.add_argument("--models", default=",".join(MODELS), help="error models, comma separated")
    ap.add_argument("--smoke", action="store_true", help="a four-design family and few reads (CI)")
    ap.add_argument("--skip-report", action="store_true")
    ap.add_argument("--only", help="only the designs whose name matches this regular expression")
    ap.add_argument("--sweep-subset", action="store_true",
                    help="sweep on flanks 0, 20, 40 and kits of 12 and 96 only (the report still covers all)")
    ap.add_argument("--write-config", action="store_true")
    ap.add_argument("--report", help="Markdown output (default: <work>/report.md)")
    args = ap.parse_args(argv)
    MODELS = tuple(args.models.split(","))
    if args.smoke:
        args.reads, args.report_reads, args.report_seeds = min(args.reads, 200), min(args.report_reads, 200), [101]

    if "pbsim" in MODELS and not shutil.which("pbsim"):
        subprocess.run(["bash", os.path.join(ROOT, "scripts", "install-deps.sh"), "--calibration"], check=True)
    os.makedirs(args.work, exist_ok=True)
    runner = Runner(os.path.abspath(args.program), args.work, args.threads)
    designs = family(args.work, args.smoke)
    if args.only:
        designs = [d for d in designs if re.search(args.only, d.name)]
    settings = parse_settings(args.settings)
    md = [f"Family: {len(designs)} designs; error models {', '.join(MODELS)}; identities "
          f"{', '.join(map(str, IDENTITIES))}.\n"]

    if args.min_score is not None:
        setting, min_score = settings[0], args.min_score
        md.append(f"Given: {setting.label()}, min_score {min_score}.\n")
    else:
        sweep_designs = designs
        if args.sweep_subset:
            sweep_designs = [d for d in designs
                             if d.flank in SWEEP_SUBSET["flanks"] and d.count in SWEEP_SUBSET["counts"]]
        simulate_all(args.work, sweep_designs, "calib", args.calib_seeds, args.reads, args.processes)
        md.append(f"### Sweep (calibration seeds {args.calib_seeds}, {args.reads} reads per design, identity and "
                  f"error model, {len(sweep_designs)} designs)\n")
        md.append("Designs meeting every target at every identity with both error models, at the best threshold "
                  "range of each setting:\n")
        md.append("| setting | designs served | min_score range | designs out of reach at that range |\n"
                  "|---|---|---|---|")
        choices = []
        for s in settings:
            curves = {}
            for d in sweep_designs:
                for m in MODELS:
                    for i in IDENTITIES:
                        folder = reads_folder(args.work, "calib", d, m, i)
                        curves[d, m, i] = Curves(runner.run(folder, d, s, LOW_MIN_SCORE),
                                                 read_truth(folder + ".truth.tsv"))

            def served(t):
                return sum(all(not curves[d, m, i].failures(i, t, d.double) for m in MODELS for i in IDENTITIES)
                           for d in sweep_designs)

            count, lo, hi = best_range([served(t) for t in THRESHOLDS])
            mid = math.floor(lo + hi) / 2
            out_of_reach = []
            for d in sweep_designs:
                why = sorted({f"{x} at {i} ({m})" for m in MODELS for i in IDENTITIES
                              for x in curves[d, m, i].failures(i, mid, d.double)})
                if why:
                    out_of_reach.append(f"{d.name}: {'; '.join(why)}")
            md.append(f"| {s.label()} | {count} of {len(sweep_designs)} | {lo} .. {hi} | "
                      f"{'<br>'.join(out_of_reach) or 'none'} |")
            print(f"{s.label()}: {count} designs served at {lo} .. {hi}", flush=True)
            choices.append((count, hi - lo, s, mid, lo, hi))
        # The most designs served, then the widest range; a range no more
        # than a point wider does not displace a setting listed earlier (the
        # shipped one comes first).
        top = max(c[0] for c in choices)
        widest = max(c[1] for c in choices if c[0] == top)
        count, _, setting, min_score, lo, hi = next(c for c in choices if c[0] == top and c[1] >= widest - 1.0)
        md.append(f"\nChosen: {setting.label()}, min_score {min_score} (middle of {lo} .. {hi}, serving {count} of "
                  f"{len(sweep_designs)} designs).\n")

    if not args.skip_report:
        simulate_all(args.work, designs, "report", args.report_seeds, args.report_reads, args.processes)
        results = {}
        for d in designs:
            for m in MODELS:
                for i in IDENTITIES:
                    folder = reads_folder(args.work, "report", d, m, i)
                    truth = read_truth(folder + ".truth.tsv")
                    modes = [("default", ())]
                    if d.double:
                        modes += [("mixed", ("--reject_mixed_barcodes",)),
                                  ("both", ("--require_barcodes_both_ends",))]
                    default_calls = None
                    for mode, switches in modes:
                        calls = runner.run(folder, d, setting, min_score, *switches)
                        counts = evaluate(calls, truth)
                        if default_calls is None:
                            default_calls = calls
                        else:
                            count_lost(counts, default_calls, calls, truth)
                        results.setdefault((mode, m, i), []).append((d, counts))
        md.append(f"### Held-out seeds {args.report_seeds} ({args.report_reads} reads each per design, identity "
                  f"and error model), {setting.label()}, min_score {min_score}\n")
        md.append(report_tables(results))
        with open(os.path.join(args.work, "results.json"), "w") as f:
            json.dump({f"{mode} {model} {i}": {d.name: vars(c) for d, c in rows}
                       for (mode, model, i), rows in results.items()}, f, indent=0)
        missed = missed_targets(results)
        md.append(f"Designs missing a target ({len(missed)} design, model and identity combinations):\n")
        for (name, model, i), miss in missed:
            md.append(f"- {name}, {model}, {i}: " + "; ".join(f"{k} {v}" for k, v in miss))
        print(report_tables(results), flush=True)

    md.append(f"\n{runner.runs} program runs, {runner.seconds:.0f} s in the program.\n")
    report_path = args.report or os.path.join(args.work, "report.md")
    with open(report_path, "w") as f:
        f.write("\n".join(md) + "\n")
    print(f"report: {report_path}")
    if args.write_config:
        write_config(setting, min_score)
        print("configuration.cfg and vb_matrix.tsv updated")
    return setting, min_score


if __name__ == "__main__":
    main()
