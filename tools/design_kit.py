#!/usr/bin/env python3
"""Design the VB barcode kits shipped in data/barcoding.

Everything is drawn from one seeded generator, so running this again with the
same options rewrites byte-identical files. The barcodes are drawn before the
flanks, from a stream of their own, so changing a flank length never changes
the barcodes.

Constraints enforced on the 24-base barcodes:
  * GC content 40..60 %, no homopolymer longer than 2;
  * Levenshtein distance >= --min-distance (11) between every pair of barcodes,
    between every barcode and every reverse complement (its own included);
    the leading barcodes, used by the smaller kits, keep larger distances
    among themselves (--tiers: VB01..VB12 >= 14, VB01..VB24 >= 13);
  * no barcode resembles a flank: the best placement of a barcode (or its
    reverse complement) inside any flank context is at least
    --min-flank-distance edits away;
  * the assembled references (front flank + barcode + inner flank) carry no
    homopolymer longer than 2 across the joins either.

Flanks are short on purpose (10 + 24 + 8 = 42 bases): the scorer divides an
alignment score by the reference's self-score, so flank bases shared by every
reference add read-error noise to right and wrong barcodes alike without
separating them; much shorter references, though, start to find barcode-like
stretches in random sequence. See docs/calibration.md for the measurements.

Usage: tools/design_kit.py [--out data/barcoding] [--seed N] ...
"""

import argparse
import os
import random
import shutil
import sys

COMPLEMENT = str.maketrans("ACGT", "TGCA")
BARCODE_LENGTH = 24


def revcomp(seq):
    return seq.translate(COMPLEMENT)[::-1]


def _peq(pattern):
    masks = {}
    for i, c in enumerate(pattern):
        masks[c] = masks.get(c, 0) | (1 << i)
    return masks


def _myers(pattern, text, anchored):
    """Bit-parallel edit distance of pattern against text (Myers' algorithm).

    anchored: the whole of text must be matched (global distance, returned as
    the final score). Otherwise pattern may sit anywhere in text, and the
    smallest score seen at any text position is returned.
    """
    m = len(pattern)
    peq = _peq(pattern)
    full = (1 << m) - 1
    high = 1 << (m - 1)
    # Shifting a 1 in charges every text character consumed before the pattern
    # starts: that is what makes the anchored form global rather than a search.
    carry = 1 if anchored else 0
    pv, mv, score = full, 0, m
    best = m
    for c in text:
        eq = peq.get(c, 0)
        xv = eq | mv
        xh = (((eq & pv) + pv) ^ pv) | eq
        ph = mv | (~(xh | pv) & full)
        mh = pv & xh
        if ph & high:
            score += 1
        elif mh & high:
            score -= 1
        ph = ((ph << 1) | carry) & full
        mh = (mh << 1) & full
        pv = mh | (~(xv | ph) & full)
        mv = ph & xv
        best = min(best, score)
    return score if anchored else best


def levenshtein(a, b):
    """Global edit distance, bit-parallel over the columns of a (any length)."""
    if not a:
        return len(b)
    return _myers(a, b, anchored=True)


def best_placement_distance(pattern, text):
    """Fewest edits turning pattern into some substring of text."""
    return _myers(pattern, text, anchored=False)


def longest_homopolymer(seq):
    best = run = 1 if seq else 0
    for prev, cur in zip(seq, seq[1:]):
        run = run + 1 if cur == prev else 1
        best = max(best, run)
    return best


def gc_fraction(seq):
    return (seq.count("G") + seq.count("C")) / len(seq)


def random_sequence(rng, length, gc_lo=0.4, gc_hi=0.6):
    """Uniform bases without runs longer than 2, redrawn until the GC fits."""
    while True:
        out = []
        for _ in range(length):
            banned = out[-1] if len(out) >= 2 and out[-1] == out[-2] else None
            out.append(rng.choice([b for b in "ACGT" if b != banned]))
        seq = "".join(out)
        if gc_lo <= gc_fraction(seq) <= gc_hi:
            return seq


def design_barcodes(rng, plan, max_tries=5_000_000, length=BARCODE_LENGTH):
    """Greedy random draw; plan = [(count, min_distance), ...] with growing counts.

    The first tier's barcodes keep the first tier's distance among themselves,
    and so on: the small kits use the leading barcodes, so they get the widest
    spacing, while every pair still keeps the last tier's distance.
    """
    chosen = []
    others = []  # every chosen barcode and its reverse complement
    tries = 0
    for count, min_distance in plan:
        while len(chosen) < count:
            tries += 1
            if tries > max_tries:
                raise RuntimeError(f"only {len(chosen)} barcodes found in {max_tries} tries")
            cand = random_sequence(rng, length)
            if cand[0] == cand[1] or cand[-1] == cand[-2]:
                continue  # a doubled end would make a run of 3 with half of all flanks
            rc = revcomp(cand)
            if levenshtein(cand, rc) < min_distance:
                continue
            if any(levenshtein(cand, o) < min_distance for o in others):
                continue
            chosen.append(cand)
            others.extend((cand, rc))
    return chosen, tries


def design_flanks(rng, lengths, barcodes, min_flank_distance, max_tries=100_000):
    """Flanks that neither resemble each other nor host a barcode-like stretch.

    lengths come in (front, inner) pairs; every barcode must join both flanks
    of a pair without making a run longer than 2.

    A barcode placed inside a flank context (flank plus the neighbouring join)
    must stay min_flank_distance edits away, in both orientations, so the
    aligner has no second good spot for a barcode within a reference.
    """
    for _ in range(max_tries):
        flanks = [random_sequence(rng, n) for n in lengths]
        if any(f[-1] == f[-2] for f in flanks[0::2]) or any(f[0] == f[1] for f in flanks[1::2]):
            continue
        contexts = []
        for f in flanks:
            contexts += [f, revcomp(f)]
        ok = True
        for i, a in enumerate(contexts):
            for b in contexts[i + 1:]:
                if len(a) >= 8 and len(b) >= 8 and best_placement_distance(a[:8], b) < 2:
                    ok = False
        for f in flanks:
            if len(f) >= 12 and levenshtein(f, revcomp(f)) < len(f) // 2:
                ok = False  # hairpin-like flank
        for front, inner in zip(flanks[0::2], flanks[1::2]):
            if any(longest_homopolymer(front[-3:] + bc[:3]) > 2 or longest_homopolymer(bc[-3:] + inner[:3]) > 2
                   for bc in barcodes):
                ok = False
        if not ok:
            continue
        for bc in barcodes:
            for form in (bc, revcomp(bc)):
                if any(best_placement_distance(form, ctx) < min_flank_distance for ctx in contexts if len(ctx) >= len(form)):
                    ok = False
                    break
            if not ok:
                break
        if ok:
            return flanks
    raise RuntimeError("no acceptable flanks found")


def check_references(references, barcodes, min_distance):
    for name, ref in references:
        if longest_homopolymer(ref) > 2:
            return f"{name}: homopolymer across a join"
    for i, a in enumerate(barcodes):
        for b in barcodes[i:]:
            if levenshtein(a, revcomp(b)) < min_distance:
                return "barcode meets a reverse complement"
            if a is not b and levenshtein(a, b) < min_distance:
                return "barcode pair too close"
    return None


def write_fasta(path, records):
    with open(path, "w") as f:
        for name, seq in records:
            f.write(f">{name}\n{seq}\n")


def write_ligation_kit(path, kit, tag, count, fasta, scoring, prefix="VB"):
    with open(path, "w") as f:
        f.write(f"; {kit}: barcodes at both read ends, the rear one reverse complemented.\n")
        f.write("[loading_options]\n")
        f.write(f"barcodes_filename = {fasta}\n")
        f.write("double_barcodes_revcmpl = true\n")
        f.write("double_variants_frontrear = true\n")
        f.write("append_indicator_fwdbwd = true\n\n")
        f.write(f"[{tag}_barcode%02i]\n")
        f.write("normalised_id = barcode%02i\n")
        f.write(f"kit = {kit}\n")
        f.write(f"barcode1 = {prefix}%02i\n")
        f.write(f"barcode2 = {prefix}%02i\n")
        f.write(f"scoring_function = {scoring}\n")
        f.write(f"compatible_kits = {kit}\n")
        f.write("first_index = 1\n")
        f.write(f"last_index = {count}\n")


def write_rapid_kit(path, kit, tag, count, fasta, prefix="VR"):
    with open(path, "w") as f:
        f.write(f"; {kit}: one barcode at the start of the read, nothing at the rear.\n")
        f.write("[loading_options]\n")
        f.write(f"barcodes_filename = {fasta}\n")
        f.write("double_barcodes_revcmpl = false\n")
        f.write("double_variants_frontrear = false\n")
        f.write("append_indicator_fwdbwd = false\n\n")
        f.write(f"[{tag}_barcode%02i]\n")
        f.write("normalised_id = barcode%02i\n")
        f.write(f"kit = {kit}\n")
        f.write(f"barcode1 = {prefix}%02i\n")
        f.write("; no barcode2: the rear of a read is never inspected for this kit\n")
        f.write("scoring_function = MAX\n")
        f.write(f"compatible_kits = {kit}\n")
        f.write("first_index = 1\n")
        f.write(f"last_index = {count}\n")


def write_matrix(path, match, mismatch):
    with open(path, "w") as f:
        f.write(f"# vorpa_barcoder mismatch scores: match {match}, mismatch {mismatch}\n")
        f.write("A\tC\tG\tT\n")
        for i in range(4):
            f.write("\t".join(str(match if i == j else mismatch) for j in range(4)) + "\n")


# ---------------------------------------------------------------- kit family
#
# Calibration must hold for kits users design themselves, not only for ours:
# the family spans constant flanks of 0..40 bases per side, barcodes of 16, 24
# and 40 bases, kits of 12, 24 and 96 barcodes, with barcodes at both ends or
# at the front only. Each length has one barcode set (the smaller kits take
# the leading barcodes, spaced wider, as in our own kits) and each flank
# length one flank pair, so that designs differ in one respect at a time.

FAMILY_FLANKS = (0, 10, 20, 30, 40)
FAMILY_LENGTHS = (16, 24, 40)
FAMILY_COUNTS = (12, 24, 96)
FAMILY_ENDS = ("double", "single")
# Edit-distance tiers per barcode length: about what a greedy random draw
# reaches within seconds (the leading 12 and 24 wider apart).
FAMILY_TIERS = {16: [(12, 8), (24, 8), (96, 7)], 24: [(12, 13), (24, 12), (96, 11)],
                40: [(12, 22), (24, 21), (96, 19)]}


def design_name(flank, length, count, ends):
    return f"f{flank}_l{length}_n{count}_{ends}"


def kit_name(flank, length, count, ends):
    return f"FAM-F{flank}-L{length}-N{count}-{ends[0].upper()}"


def family_designs(flanks=FAMILY_FLANKS, lengths=FAMILY_LENGTHS, counts=FAMILY_COUNTS, ends=FAMILY_ENDS):
    """(folder name, kit name, flank, length, count, ends) for every combination."""
    for length in lengths:
        for flank in flanks:
            for count in counts:
                for end in ends:
                    yield (design_name(flank, length, count, end), kit_name(flank, length, count, end), flank,
                           length, count, end)


def write_family(out, seed=20261122, designs=None, config=None):
    """One folder per design under out, each a data folder of its own:
    <name>.fasta, <name>.ini, configuration.cfg (the shipped settings with
    this kit as the only arrangement file) and the shipped vb_matrix.tsv.
    Returns the design tuples."""
    designs = list(designs or family_designs())
    config = config or os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "barcoding",
                                    "configuration.cfg")
    with open(config) as f:
        config_lines = f.readlines()
    barcode_sets, flank_pairs = {}, {}
    for name, kit, flank, length, count, ends in designs:
        if length not in barcode_sets:
            plan = [(n, d) for n, d in FAMILY_TIERS[length] if n <= max(c for *_, c, _ in designs)] or \
                FAMILY_TIERS[length][:1]
            plan = [(max(n, count), d) for n, d in plan] if plan[-1][0] < count else plan
            barcode_sets[length], _ = design_barcodes(random.Random(f"family-barcodes-{seed}-{length}"), plan,
                                                      max_tries=2_000_000, length=length)
        barcodes = barcode_sets[length]
        if (flank, length) not in flank_pairs:
            if flank == 0:
                flank_pairs[flank, length] = ("", "")
            else:
                pair = design_flanks(random.Random(f"family-flanks-{seed}-{flank}-{length}"), [flank, flank],
                                     barcodes, max(3, length // 4), max_tries=20_000)
                flank_pairs[flank, length] = tuple(pair)
        left, right = flank_pairs[flank, length]
        folder = os.path.join(out, name)
        os.makedirs(folder, exist_ok=True)
        write_fasta(os.path.join(folder, f"{name}.fasta"),
                    [(f"B{i + 1:02d}", left + bc + right) for i, bc in enumerate(barcodes[:count])])
        ini = os.path.join(folder, f"{name}.ini")
        if ends == "double":
            write_ligation_kit(ini, kit, "FAM", count, f"{name}.fasta", "MAX", prefix="B")
        else:
            write_rapid_kit(ini, kit, "FAM", count, f"{name}.fasta", prefix="B")
        shutil.copy(os.path.join(os.path.dirname(config), "vb_matrix.tsv"), folder)
        with open(os.path.join(folder, "configuration.cfg"), "w") as f:
            for line in config_lines:
                if line.split("=")[0].strip() == "arrangements_files":
                    line = f"arrangements_files = {name}.ini\n"
                f.write(line)
    return designs


# ---------------------------------------------------------------- pair kits
#
# A pair kit multiplexes front x rear samples: one set of barcodes for the
# start of a read, another for its end, each behind flanks of its own (the two
# primers of a dual-barcoded amplicon). The arrangement file uses no syntax of
# its own: a front-only section for the front barcodes and a rear-only one for
# the rear barcodes; the sample sheet's front and rear columns name the pairs.


def write_pair_kit(folder, kit, fronts, rears, length=24, flank=12, min_distance=None, seed=20261201, config=None):
    """A data folder for a pair kit of fronts x rears barcodes: <kit>.fasta
    (F01.., R01..), <kit>.ini, configuration.cfg (the shipped settings with
    this kit as the only arrangement file) and the shipped vb_matrix.tsv.
    Returns the file name stem."""
    config = config or os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "barcoding",
                                    "configuration.cfg")
    distance = min_distance or {16: 7, 24: 11, 40: 19}.get(length, max(3, length // 2 - 1))
    barcodes, _ = design_barcodes(random.Random(f"pair-barcodes-{seed}-{length}"), [(fronts + rears, distance)],
                                  max_tries=2_000_000, length=length)
    flanks = design_flanks(random.Random(f"pair-flanks-{seed}-{flank}-{length}"), [flank] * 4, barcodes,
                           max(3, length // 4), max_tries=20_000) if flank else [""] * 4
    stem = kit.lower().replace("-", "_")
    os.makedirs(folder, exist_ok=True)
    records = [(f"F{i + 1:02d}", flanks[0] + bc + flanks[1]) for i, bc in enumerate(barcodes[:fronts])]
    records += [(f"R{i + 1:02d}", flanks[2] + bc + flanks[3]) for i, bc in enumerate(barcodes[fronts:])]
    write_fasta(os.path.join(folder, f"{stem}.fasta"), records)
    with open(os.path.join(folder, f"{stem}.ini"), "w") as f:
        f.write(f"; {kit}: {fronts} front x {rears} rear barcodes; the sample sheet names the pairs.\n")
        f.write("[loading_options]\n")
        f.write(f"barcodes_filename = {stem}.fasta\n")
        f.write("double_barcodes_revcmpl = true\n")
        f.write("double_variants_frontrear = true\n")
        f.write("append_indicator_fwdbwd = true\n")
        for section, key, count in (("F", "barcode1", fronts), ("R", "barcode2", rears)):
            f.write(f"\n[{section}%02i]\n")
            f.write(f"normalised_id = {section}%02i\n")
            f.write(f"kit = {kit}\n")
            f.write(f"{key} = {section}%02i\n")
            f.write("scoring_function = MAX\n")
            f.write(f"compatible_kits = {kit}\n")
            f.write("first_index = 1\n")
            f.write(f"last_index = {count}\n")
    shutil.copy(os.path.join(os.path.dirname(config), "vb_matrix.tsv"), folder)
    with open(config) as f, open(os.path.join(folder, "configuration.cfg"), "w") as out:
        for line in f:
            if line.split("=")[0].strip() == "arrangements_files":
                line = f"arrangements_files = {stem}.ini\n"
            out.write(line)
    return stem


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--out", default=os.path.join(os.path.dirname(__file__), "..", "data", "barcoding"))
    ap.add_argument("--seed", type=int, default=20261121)
    ap.add_argument("--count", type=int, default=96)
    ap.add_argument("--min-distance", type=int, default=11)
    ap.add_argument("--tiers", default="12:14,24:13",
                    help="leading subsets with a larger distance, count:distance,... (the small kits)")
    ap.add_argument("--min-flank-distance", type=int, default=9)
    ap.add_argument("--front-flank", type=int, default=10)
    ap.add_argument("--inner-flank", type=int, default=8)
    ap.add_argument("--rapid-count", type=int, default=12)
    ap.add_argument("--scoring", default="MAX", choices=["MAX", "ADD"])
    ap.add_argument("--match", type=int, default=5)
    ap.add_argument("--mismatch", type=int, default=-4)
    ap.add_argument("--matrix", action="store_true",
                    help="also write vb_matrix.tsv (normally written by tools/calibrate.py --write-config)")
    ap.add_argument("--family", metavar="DIR",
                    help="write the calibration family of kit designs into DIR instead (one folder per design)")
    ap.add_argument("--pairs", metavar="DIR",
                    help="write a pair kit (front-only and rear-only sections) into DIR instead; see --pair-*")
    ap.add_argument("--pair-kit", default="PAIR", help="kit name of --pairs")
    ap.add_argument("--pair-size", default="12x8", help="front x rear barcodes of --pairs")
    ap.add_argument("--pair-length", type=int, default=24, help="barcode length of --pairs")
    ap.add_argument("--pair-flank", type=int, default=12, help="flank bases on each side of a --pairs barcode")
    args = ap.parse_args(argv)

    if args.pairs:
        fronts, rears = (int(x) for x in args.pair_size.split("x"))
        stem = write_pair_kit(args.pairs, args.pair_kit, fronts, rears, args.pair_length, args.pair_flank,
                              seed=args.seed)
        print(f"{args.pair_kit}: {fronts} x {rears} barcodes in {os.path.join(args.pairs, stem)}.ini")
        return

    if args.family:
        designs = write_family(args.family)
        print(f"{len(designs)} kit designs in {args.family}")
        return

    barcode_rng = random.Random(f"vb-barcodes-{args.seed}")
    flank_rng = random.Random(f"vb-flanks-{args.seed}-{args.front_flank}-{args.inner_flank}")

    plan = [tuple(int(x) for x in t.split(":")) for t in args.tiers.split(",") if t] + [(args.count, args.min_distance)]
    barcodes, tries = design_barcodes(barcode_rng, plan)
    front, inner, rapid_front, rapid_inner = design_flanks(
        flank_rng, [args.front_flank, args.inner_flank, args.front_flank, args.inner_flank], barcodes,
        args.min_flank_distance)

    ligation = [(f"VB{i + 1:02d}", front + bc + inner) for i, bc in enumerate(barcodes)]
    rapid = [(f"VR{i + 1:02d}", rapid_front + bc + rapid_inner) for i, bc in enumerate(barcodes[:args.rapid_count])]
    problem = check_references(ligation + rapid, barcodes, args.min_distance)
    if problem:
        sys.exit(f"design failed: {problem}")

    os.makedirs(args.out, exist_ok=True)
    write_fasta(os.path.join(args.out, "vb_barcodes.fasta"), ligation)
    write_fasta(os.path.join(args.out, "vb_rapid_barcodes.fasta"), rapid)
    write_ligation_kit(os.path.join(args.out, "vb_nb24.ini"), "VB-NB24", "NB24", 24, "vb_barcodes.fasta", args.scoring)
    write_ligation_kit(os.path.join(args.out, "vb_nb96.ini"), "VB-NB96", "NB96", 96, "vb_barcodes.fasta", args.scoring)
    write_rapid_kit(os.path.join(args.out, "vb_rb12.ini"), "VB-RB12", "RB12", args.rapid_count,
                    "vb_rapid_barcodes.fasta")
    if args.matrix:
        write_matrix(os.path.join(args.out, "vb_matrix.tsv"), args.match, args.mismatch)

    print(f"{len(barcodes)} barcodes from {tries} candidates; reference length {len(ligation[0][1])}")
    for count, _ in plan:
        sub = barcodes[:count]
        pair = min(levenshtein(a, b) for i, a in enumerate(sub) for b in sub[i + 1:])
        rc = min(levenshtein(a, revcomp(b)) for a in sub for b in sub)
        print(f"  first {count}: min distance between barcodes {pair}, to reverse complements {rc}")


if __name__ == "__main__":
    main()
