#!/usr/bin/env python3
"""Calibrate the alignment settings of vorpa_barcoder on simulated reads.

Stages (all driven against the real program):
  1. simulate reads at identities 0.87, 0.92 and 0.97, with calibration seeds
     and separate held-out report seeds (tools/simulate_reads.py);
  2. sweep: for every (matrix, gap, window) setting run the program once per
     identity with a very low min_score, then re-threshold in Python. With
     scoring function MAX and without require_barcodes_both_ends this is
     exact: an arrangement survives min_score m exactly when max(front, rear)
     >= m, which is its combined score, so the read's call at m is the row's
     best arrangement when barcode_score >= m and "unclassified" otherwise;
  3. for each setting, the default-mode feasible min_score interval is the run
     of thresholds where every target holds at every identity; the
     --require_barcodes_both_ends bounds (chimeras rejected at every identity,
     doubles kept at 0.92) are found by bisection with real runs, since that mode cannot be
     re-thresholded from a summary. Settings are ranked by the width of the
     joint interval in read errors (robustness); among the near-best the
     mildest penalties win, and the middle of their range is min_score;
  4. MAX or ADD is chosen on the calibration seeds, the choice is confirmed
     with real runs on the held-out report seeds (both scoring functions and
     the 96-barcode kit are reported) and the tables are written as Markdown.

Usage:
  tools/calibrate.py [--program build/bin/vorpa_barcoder] [--work /tmp/vb_calibration]
                     [--reads 3000] [--report-reads 5000] [--write-config]
"""

import argparse
import itertools
import math
import os
import shutil
import subprocess
import sys
import time
from dataclasses import dataclass, field

TOOLS = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(TOOLS)
sys.path.insert(0, TOOLS)
import simulate_reads  # noqa: E402

IDENTITIES = (0.87, 0.92, 0.97)
# Targets per identity: (precision, recall), in percent.
TARGETS = {0.97: (99.9, 99.9), 0.92: (99.9, 99.8), 0.87: (99.5, 99.5)}
UNBARCODED_TARGET = 99.0
BOTH_ENDS_IDENTITY = 0.92
CHIMERA_TARGET, BOTH_ENDS_RECALL_TARGET = 95.0, 98.0
LOW_MIN_SCORE = -1000
# Kit files the reads are simulated from and the program reads (--data).
DATA = os.path.join(ROOT, "data", "barcoding")
FRACTIONS = dict(frac_double=0.6, frac_front=0.1, frac_none=0.1, frac_chimera=0.2)


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
    none_unclassified: int = 0
    nones: int = 0
    chimera_unclassified: int = 0
    chimeras: int = 0
    front_recalled: int = 0
    fronts: int = 0

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
            c.none_unclassified += got == "unclassified"
        else:
            c.chimeras += 1
            c.chimera_unclassified += got == "unclassified"
    return c


def meets_default_targets(counts_by_identity):
    for ident, c in counts_by_identity.items():
        p_target, r_target = TARGETS[ident]
        if pct(c.precise, c.called) < p_target or pct(c.recalled, c.doubles) < r_target:
            return False
        if pct(c.none_unclassified, c.nones) < UNBARCODED_TARGET:
            return False
    return True


def feasible_interval(counts_at, thresholds):
    """Widest run of consecutive thresholds whose counts meet every target.

    counts_at(m) -> {identity: Counts}. Returns (low, high) or None.
    """
    best, start = None, None
    for i, m in enumerate(thresholds):
        ok = meets_default_targets(counts_at(m))
        if ok and start is None:
            start = i
        if start is not None and (not ok or i == len(thresholds) - 1):
            end = i if ok else i - 1
            if best is None or thresholds[end] - thresholds[start] > best[1] - best[0]:
                best = (thresholds[start], thresholds[end])
            start = None
    return best


def first_true(pred, lo, hi):
    """Smallest integer m in [lo, hi] with pred(m), for pred false then true; hi + 1 if none."""
    while lo <= hi:
        mid = (lo + hi) // 2
        if pred(mid):
            hi = mid - 1
        else:
            lo = mid + 1
    return lo


def chimera_share(c):
    return c.chimera_unclassified, c.chimeras


def double_share(c):
    return c.recalled, c.doubles


def span(interval):
    return f"{interval[0]} .. {interval[1]}" if interval and interval[0] <= interval[1] else "none"


# ------------------------------------------------------------------ running


@dataclass(frozen=True)
class Setting:
    match: int = 5
    mismatch: int = -4
    open_gap: int = 8
    end_gap_ref: int = 0  # start_gap1 / end_gap1: read bases around the barcode
    window: int = 150

    def error_points(self, ref_length):
        """Score points one read error costs on average, for the simulator's mix.

        A substitution loses match - mismatch, a deleted base a match plus a
        gap in the read, an inserted base a gap in the reference.
        """
        # References have no homopolymer runs, so only the uniform errors hit them.
        sub, dele = simulate_reads.SUB_SHARE, simulate_reads.DEL_SHARE
        ins = 1 - sub - dele
        cost = sub * (self.match - self.mismatch) + dele * (self.open_gap + self.match) + ins * self.open_gap
        return 100.0 * cost / (self.match * ref_length)

    def label(self):
        return f"m{self.match}/{self.mismatch} gap{self.open_gap} ends{self.end_gap_ref} win{self.window}"

    def options(self, matrix_file):
        g = self.open_gap
        return {
            "score_matrix_filename": matrix_file,
            "start_gap1": self.end_gap_ref, "end_gap1": self.end_gap_ref, "open_gap1": g, "extend_gap1": g,
            "start_gap2": g, "end_gap2": g, "open_gap2": g, "extend_gap2": g,
            "front_window_size": self.window, "rear_window_size": self.window,
        }


def reference_length(kit):
    lengths = {len(front) for _, front, _ in simulate_reads.load_kit(kit, DATA)}
    return round(sum(lengths) / len(lengths))


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
    kit: str
    threads: int
    data: str = ""  # alternative data folder (-d), e.g. with ADD arrangements
    runs: int = 0
    seconds: float = 0.0
    cache: dict = field(default_factory=dict)

    def matrix(self, s):
        path = os.path.join(self.work, "matrices", f"m{s.match}_{-s.mismatch}.tsv")
        if not os.path.exists(path):
            os.makedirs(os.path.dirname(path), exist_ok=True)
            write_matrix(path, s.match, s.mismatch)
        return path

    def run(self, reads_dir, setting, min_score, both_ends=False, data=None, kit=None):
        kit = kit or self.kit
        key = (reads_dir, setting, min_score, both_ends, data, kit)
        if key in self.cache:
            return self.cache[key]
        out = os.path.join(self.work, "runs", f"run{self.runs:04d}")
        shutil.rmtree(out, ignore_errors=True)
        opts = setting.options(self.matrix(setting))
        opts["min_score"] = min_score
        cmd = [self.program, "-i", reads_dir, "-s", out, "--barcode_kits", kit, "-t", str(self.threads)]
        if data or self.data:
            cmd += ["-d", data or self.data]
        cmd += [f"--{k}={v}" for k, v in opts.items()]
        if both_ends:
            cmd.append("--require_barcodes_both_ends")
        t0 = time.time()
        proc = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.seconds += time.time() - t0
        self.runs += 1
        if proc.returncode != 0:
            sys.exit(f"{' '.join(cmd)}\nfailed with status {proc.returncode}:\n{proc.stdout[-3000:]}")
        calls = read_summary(os.path.join(out, "barcoding_summary.txt"))
        shutil.rmtree(out, ignore_errors=True)  # the per-barcode FASTQ copies are not needed
        self.cache[key] = calls
        return calls


def simulate(work, identity, seeds, reads, kit, name):
    """One input folder per identity holding one file per seed; merged truth."""
    folder = os.path.join(work, "reads", f"{name}_{identity}")
    truth_path = os.path.join(work, "reads", f"{name}_{identity}.truth.tsv")
    if os.path.exists(truth_path):
        return folder, read_truth(truth_path)
    os.makedirs(folder, exist_ok=True)
    truth = {}
    for seed in seeds:
        fq = os.path.join(folder, f"s{seed}.fastq")
        tp = os.path.join(work, "reads", f"{name}_{identity}_s{seed}.tsv")
        args = ["-o", fq, "--truth", tp, "--kit", kit, "-n", str(reads), "--seed", str(seed),
                "--identity", str(identity), "--median-length", "300", "--data", DATA]
        for k, v in FRACTIONS.items():
            args += [f"--{k.replace('_', '-')}", str(v)]
        simulate_reads.main(args)
        truth.update(read_truth(tp))
    with open(truth_path, "w") as f:
        f.write("read_id\tkind\tfront\trear\torientation\n")
        for rid, (kind, fr, rr) in truth.items():
            f.write(f"{rid}\t{kind}\t{fr}\t{rr}\t.\n")
    return folder, truth


def add_variant_data(work, scoring):
    """Copy of the data folder whose ligation arrangements use `scoring`."""
    dst = os.path.join(work, f"data_{scoring.lower()}")
    shutil.rmtree(dst, ignore_errors=True)
    shutil.copytree(DATA, dst)
    for name in os.listdir(dst):
        if name.endswith(".ini"):
            p = os.path.join(dst, name)
            with open(p) as f:
                text = f.read()
            if "barcode2 = " in text:
                text = text.replace("scoring_function = MAX", f"scoring_function = {scoring}")
                text = text.replace("scoring_function = ADD", f"scoring_function = {scoring}")
            with open(p, "w") as f:
                f.write(text)
    return dst


# ------------------------------------------------------------------ report


def fmt(num, den):
    return f"{pct(num, den):.2f} % ({num}/{den})"


def default_table(rows):
    out = ["| identity | precision | recall (double) | front-only called right | unbarcoded unclassified |",
           "|---|---|---|---|---|"]
    for ident, c in rows:
        out.append(f"| {ident} | {fmt(c.precise, c.called)} | {fmt(c.recalled, c.doubles)} | "
                   f"{fmt(c.front_recalled, c.fronts)} | {fmt(c.none_unclassified, c.nones)} |")
    return "\n".join(out)


def both_table(rows):
    out = ["| identity | chimeras unclassified | recall (double) | precision |", "|---|---|---|---|"]
    for ident, c in rows:
        out.append(f"| {ident} | {fmt(c.chimera_unclassified, c.chimeras)} | {fmt(c.recalled, c.doubles)} | "
                   f"{fmt(c.precise, c.called)} |")
    return "\n".join(out)


def write_config(setting, min_score, scoring):
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
    for name in ("vb_nb24.ini", "vb_nb96.ini"):
        p = os.path.join(data, name)
        with open(p) as f:
            text = f.read()
        text = text.replace("scoring_function = MAX", f"scoring_function = {scoring}")
        text = text.replace("scoring_function = ADD", f"scoring_function = {scoring}")
        with open(p, "w") as f:
            f.write(text)


def main(argv=None):
    global DATA
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--program", default=os.path.join(ROOT, "build", "bin", "vorpa_barcoder"))
    ap.add_argument("--work", default="/tmp/vb_calibration")
    ap.add_argument("--kit", default="VB-NB96", help="kit to calibrate on (the largest: closest barcodes)")
    ap.add_argument("--extra-kit", default="VB-NB24", help="also report this kit (empty: skip)")
    ap.add_argument("--reads", type=int, default=3000, help="reads per calibration seed and identity")
    ap.add_argument("--report-reads", type=int, default=5000, help="reads per report seed and identity")
    ap.add_argument("--calib-seeds", type=int, nargs="+", default=[11, 12])
    ap.add_argument("--report-seeds", type=int, nargs="+", default=[101, 102])
    ap.add_argument("--threads", type=int, default=2)
    ap.add_argument("--matches", default="5:-3,5:-4,5:-5,5:-6,5:-8", help="match:mismatch pairs")
    ap.add_argument("--gaps", default="5,7,9,11,13")
    ap.add_argument("--windows", default="150")
    ap.add_argument("--end-gaps", default="0", help="start_gap1/end_gap1 values")
    ap.add_argument("--setting", help="skip the sweep: match:mismatch,gap,end_gap,window (with --min-score)")
    ap.add_argument("--min-score", type=float, default=60)
    ap.add_argument("--stress-identity", type=float, default=0.82, help="extra identity for MAX versus ADD (0: none)")
    ap.add_argument("--tie", type=float, default=0.15, help="joint widths (in errors) this close count as equal")
    ap.add_argument("--data", default=DATA, help="kit folder to calibrate (e.g. an alternative design)")
    ap.add_argument("--write-config", action="store_true")
    ap.add_argument("--report", help="Markdown output (default: <work>/report.md)")
    args = ap.parse_args(argv)

    DATA = os.path.abspath(args.data)
    os.makedirs(args.work, exist_ok=True)
    # The sweep relies on MAX for its re-thresholding, whatever is shipped.
    runner = Runner(args.program, args.work, args.kit, args.threads)
    runner.data = add_variant_data(args.work, "MAX")
    data_for = {"MAX": runner.data, "ADD": add_variant_data(args.work, "ADD")}
    calib = {i: simulate(args.work, i, args.calib_seeds, args.reads, args.kit, "calib") for i in IDENTITIES}
    report = {i: simulate(args.work, i, args.report_seeds, args.report_reads, args.kit, "report")
              for i in IDENTITIES}
    thresholds = [k / 2 for k in range(0, 181)]  # 0 .. 90 in steps of 0.5
    md = []

    if args.setting:
        match, gap, end_gap, window = args.setting.split(",")
        setting = Setting(int(match.split(":")[0]), int(match.split(":")[1]), int(gap), int(end_gap), int(window))
        min_score = args.min_score
        md.append(f"Given: {setting.label()}, min_score {min_score}.\n")
    else:
        # Stage 2: sweep with exact re-thresholding; stage 3: both-ends bounds.
        settings = [Setting(int(mm.split(":")[0]), int(mm.split(":")[1]), g, e, w)
                    for mm, g, w, e in itertools.product(args.matches.split(","), map(int, args.gaps.split(",")),
                                                         map(int, args.windows.split(",")),
                                                         map(int, args.end_gaps.split(",")))]
        ref_length = reference_length(args.kit)

        def both_counts(s, m, identity=BOTH_ENDS_IDENTITY):
            return evaluate(runner.run(calib[identity][0], s, m, both_ends=True), calib[identity][1])

        sweep = []
        for s in settings:
            calls = {i: runner.run(calib[i][0], s, LOW_MIN_SCORE) for i in IDENTITIES}
            default = feasible_interval(lambda m: {i: evaluate(calls[i], calib[i][1], m) for i in IDENTITIES},
                                        thresholds)
            # Bisection in half points (k / 2).
            # Chimeras must be rejected at every identity (at high identity a
            # wrong barcode loses fewest points), doubles kept at 0.92.
            both_lo = max(first_true(lambda k: pct(*chimera_share(both_counts(s, k / 2, i))) >= CHIMERA_TARGET,
                                     0, 200) / 2 for i in IDENTITIES)
            both_hi = (first_true(lambda k: pct(*double_share(both_counts(s, k / 2))) < BOTH_ENDS_RECALL_TARGET,
                                  0, 200) - 1) / 2
            joint = None
            if default and both_lo <= both_hi:
                joint = (max(default[0], both_lo), min(default[1], both_hi))
                if joint[0] > joint[1]:
                    joint = None
            sweep.append((s, default, (both_lo, both_hi), joint))
            print(f"{s.label():36s} default {default} both-ends {both_lo}..{both_hi} joint {joint} "
                  f"({s.error_points(ref_length):.2f} points per error)", flush=True)

        # Harsher penalties stretch the score scale, and with it every range,
        # so settings are compared by the joint width in read errors: how
        # many more errors per barcode the threshold tolerates either way.
        def width(x):
            return (x[3][1] - x[3][0]) / x[0].error_points(ref_length) if x[3] else -1

        sweep.sort(key=width, reverse=True)
        md.append("### Sweep (calibration seeds, scoring MAX)\n")
        md.append("Feasible min_score ranges. Default mode: every precision, recall and unbarcoded target met at "
                  f"all three identities (thresholds {thresholds[0]} .. {thresholds[-1]} tried). Both ends: with "
                  f"--require_barcodes_both_ends, at least {CHIMERA_TARGET} % of chimeras unclassified at every "
                  f"identity and at least {BOTH_ENDS_RECALL_TARGET} % recall at {BOTH_ENDS_IDENTITY}. Joint: both.\n")
        md.append("Width: joint range in points, and divided by the points one average read error costs "
                  f"(simulated error mix, {ref_length}-base references).\n")
        md.append("| setting | default mode | both ends | joint | width (points) | width (errors) |\n"
                  "|---|---|---|---|---|---|")
        for s, default, both, joint in sweep:
            w = width((s, default, both, joint))
            md.append(f"| {s.label()} | {span(default)} | {span(both)} | {span(joint)} | "
                      f"{joint[1] - joint[0] if joint else '-'} | {f'{w:.2f}' if joint else '-'} |")
        if not sweep or not sweep[0][3]:
            sys.exit("no setting meets every target")
        # The top of the ranking is flat within the sampling noise of the tail
        # estimates; among the settings close to the best, take the mildest
        # penalties (fewest points per error), the least extreme choice.
        best = width(sweep[0])
        band = [x for x in sweep if width(x) >= best - args.tie]
        setting, _, _, (lo, hi) = min(band, key=lambda x: (x[0].error_points(ref_length), -width(x)))
        min_score = math.floor(lo + hi) / 2
        md.append(f"\nSettings within {args.tie} errors of the widest: {', '.join(x[0].label() for x in band)}. "
                  f"Chosen (mildest penalties among them): {setting.label()}, min_score {min_score} "
                  f"(middle of the joint range {lo} .. {hi}).\n")

    # Self-check: the re-thresholded sweep equals a real run at the chosen value.
    for i in IDENTITIES:
        low = evaluate(runner.run(calib[i][0], setting, LOW_MIN_SCORE), calib[i][1], min_score)
        real = evaluate(runner.run(calib[i][0], setting, min_score), calib[i][1])
        if low != real:
            print(f"warning: re-thresholding differs from a real run at identity {i}: {low} vs {real}")

    # MAX or ADD: fewer wrong calls plus missed doubles on the calibration seeds,
    # with a harder identity added because the targets hardly tell them apart.
    stress = {i: calib[i] for i in IDENTITIES}
    if args.stress_identity:
        stress[args.stress_identity] = simulate(args.work, args.stress_identity, args.calib_seeds, args.reads,
                                                args.kit, "calib")
    errors = {}
    for scoring, data in data_for.items():
        total = Counts()
        for i, (folder, truth) in stress.items():
            total.add(evaluate(runner.run(folder, setting, min_score, data=data), truth))
        errors[scoring] = (total.called - total.precise) + (total.doubles - total.recalled)
    scoring_choice = min(errors, key=lambda k: (errors[k], k != "MAX"))
    md.append(f"Wrong calls plus missed doubles on the calibration seeds (identities {sorted(stress)}): "
              f"{errors}; chosen {scoring_choice}.\n")

    # Stage 4: held-out seeds, real runs, both scoring functions.
    for scoring, data in data_for.items():
        rows = [(i, evaluate(runner.run(report[i][0], setting, min_score, data=data), report[i][1]))
                for i in IDENTITIES]
        both = [(i, evaluate(runner.run(report[i][0], setting, min_score, both_ends=True, data=data),
                             report[i][1])) for i in IDENTITIES]
        md.append(f"### Held-out seeds {args.report_seeds}, scoring {scoring}, min_score {min_score}\n")
        md.append(default_table(rows) + "\n")
        md.append("With --require_barcodes_both_ends:\n")
        md.append(both_table(both) + "\n")
        print(f"\n{scoring}\n{default_table(rows)}\n{both_table(both)}", flush=True)

    # The larger kit on its own held-out reads: more barcodes to confuse.
    if args.extra_kit:
        data = data_for[scoring_choice]
        rows, both = [], []
        for i in IDENTITIES:
            folder, truth = simulate(args.work, i, args.report_seeds, args.report_reads, args.extra_kit,
                                     f"report_{args.extra_kit}")
            rows.append((i, evaluate(runner.run(folder, setting, min_score, data=data, kit=args.extra_kit), truth)))
            both.append((i, evaluate(runner.run(folder, setting, min_score, both_ends=True, data=data,
                                                kit=args.extra_kit), truth)))
        md.append(f"### {args.extra_kit}, held-out seeds {args.report_seeds}, scoring {scoring_choice}, "
                  f"min_score {min_score}\n")
        md.append(default_table(rows) + "\n")
        md.append("With --require_barcodes_both_ends:\n")
        md.append(both_table(both) + "\n")
        print(f"\n{args.extra_kit}\n{default_table(rows)}\n{both_table(both)}", flush=True)

    md.append(f"\n{runner.runs} program runs, {runner.seconds:.0f} s in the program.\n")
    report_path = args.report or os.path.join(args.work, "report.md")
    with open(report_path, "w") as f:
        f.write("\n".join(md) + "\n")
    print(f"report: {report_path}")
    if args.write_config:
        write_config(setting, min_score, scoring_choice)
        print(f"configuration.cfg, vb_matrix.tsv and the ligation kits updated (scoring {scoring_choice})")


if __name__ == "__main__":
    main()
