#!/usr/bin/env python3
"""Simulate barcoded long reads for a kit described in data/barcoding.

A molecule is  junk + adapter stem + front reference + insert
               + revcomp(rear reference) + revcomp(adapter stem) + junk
where the references are the barcode file's sequences (flank + barcode +
flank), so any kit whose arrangement and barcode files are in the data folder
can be simulated. Ligation-style kits (an arrangement with a rear barcode) get
the whole read reverse complemented half of the time; front-only kits are read
from the adapter end, as their chemistry dictates, and keep their orientation.

Kinds of reads (fractions configurable):
  double      the same arrangement's barcodes at both ends
  front       only the front construct (the rear adapter was lost or never read)
  none        no barcode construct; half of them still carry a bare adapter stem
  chimera     the front barcode of one arrangement, the rear of another
  concatemer  two or three whole molecules ligated end to end (off by
              default): each a double-barcoded molecule of a ligation kit (in
              either orientation) or a front-barcoded one of a front-only kit,
              all of one arrangement or (--concatemer-same) each of another
              than the molecule before it; adapter stems join them

Errors: substitutions, insertions and deletions at the chosen identity, plus
extra indels in homopolymer runs (runs of 3 or more), the way long-read errors
cluster. The identity is that of sequence without such runs (barcodes and
flanks have none), so the read as a whole is a little less accurate:
conservative for calibration. Qualities are Phred+33 around a per-read mean that
follows the identity, low at the erroneous bases.

With --sample-sheet the molecules come from the samples it lists, and the
truth table gains a last column, sample: the sample the molecule was made for
("-" for none). A sheet with an arrangement column draws the listed
arrangements only; --frac-swap of them carry the barcodes of another
arrangement of the kit, drawn uniformly (cross-contaminated barcodes: kind
"swapped"). A sheet with front and rear columns simulates pairs: a pair kit's
barcodes combined, a front barcode at the start and a rear barcode, reverse
complemented, at the end, and the whole read reverse complemented half of the
time. Its kinds:
  pair      a listed pair at both ends
  front     the front barcode only (one end missing)
  rear      the rear barcode only
  unlisted  a pair of the sheet's front and rear barcodes that it does not list
  chimera   the front barcode of one listed pair and the rear barcode of
            another (drawn over the reads, so by abundance): its sample is
            the front molecule's
  none      no barcode construct
with --frac-double, --frac-front (half front, half rear), --frac-unlisted,
--frac-chimera and --frac-none.

Everything (ids, run ids, lengths, errors) comes from --seed. Output is FASTQ
(gzip when the name ends in .gz, optionally split into several files) plus a
truth table: read_id, kind, front, rear, orientation, where front and rear are
the normalised arrangement names of the molecule's ends ("-" for none) and
orientation is "-" when the read is the molecule's reverse complement. With
concatemers asked for, a sixth column, molecules, lists every molecule of the
read in read order as its arrangement name and orientation ("barcode03+");
"-" for the reads of the other kinds; front and rear are then the read's
first and last molecule's.
"""

import argparse
import configparser
import glob
import gzip
import io
import math
import os
import random
import re
import statistics
import sys

COMPLEMENT = str.maketrans("ACGT", "TGCA")
BASES_FROM_BYTE = bytes(b"ACGT"[b & 3] for b in range(256))
HOMOPOLYMER = re.compile(r"A{3,}|C{3,}|G{3,}|T{3,}")
OTHER_BASES = {"A": "CGT", "C": "AGT", "G": "ACT", "T": "ACG"}
DEFAULT_DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "barcoding")

# Shares of the non-homopolymer errors; the rest are insertions.
SUB_SHARE, DEL_SHARE = 0.5, 0.3
# Homopolymer errors: share of the error budget and the deletions among them.
DEFAULT_HOMOPOLYMER_SHARE, HOMOPOLYMER_DEL_SHARE = 0.25, 0.6


def revcomp(seq):
    return seq.translate(COMPLEMENT)[::-1]


# ---------------------------------------------------------------- kit files


def read_fasta(path):
    records, name, seq = {}, None, []
    with open(path) as f:
        for line in f:
            line = "".join(line.split())
            if line.startswith((">", ";")):
                if name and seq:
                    records[name] = "".join(seq)
                name, seq = line[1:], []
            elif line:
                seq.append(line)
    if name and seq:
        records[name] = "".join(seq)
    return records


def arrangement_files(data):
    """The arrangement files of the folder: those its configuration.cfg lists
    (all *.ini files without one), then its other *.ini files, so that a kit
    added to a copy of the shipped folder is found without listing it there."""
    every = sorted(glob.glob(os.path.join(data, "*.ini")))
    cfg = os.path.join(data, "configuration.cfg")
    if os.path.exists(cfg):
        with open(cfg) as f:
            for line in f:
                key, _, value = line.partition("=")
                if key.strip() == "arrangements_files" and not line.lstrip().startswith("#"):
                    listed = [os.path.join(data, p) for p in value.split()]
                    return [listed, [p for p in every if p not in listed]]
    return [every]


def kit_arrangements(kit, path, known):
    """[(normalised_id, front, rear)] of the kit in one arrangement file; adds
    every kit the file names to the set known."""
    ini = configparser.ConfigParser(interpolation=None, comment_prefixes=(";", "#"))
    ini.optionxform = str
    ini.read(path)
    fasta = ini.get("loading_options", "barcodes_filename", fallback="")
    if not os.path.exists(fasta):
        fasta = os.path.join(os.path.dirname(path), fasta)
    out, barcodes = [], None
    for name in ini.sections():
        if name == "loading_options":
            continue
        sec = ini[name]
        kits = sec.get("compatible_kits", "").split(",")
        known.update(k for k in kits if k)
        if kit not in kits:
            continue
        if barcodes is None:
            barcodes = read_fasta(fasta)
        first, last = int(sec.get("first_index", -1)), int(sec.get("last_index", -1))
        indices = [None] if first < 0 or last < 0 or last < first else range(first, last + 1)
        for i in indices:
            fields = [sec.get("normalised_id", name), sec.get("barcode1", ""), sec.get("barcode2", "")]
            if i is not None:
                fields = [f % i if "%" in f else f for f in fields]
                if i == 12 and sec.get("kit", "") == "RLB":
                    fields = [fields[0] + "a"] + [f + "A" if f else f for f in fields[1:]]
            front, rear = (barcodes[f] if f else "" for f in fields[1:])
            out.append((fields[0], front, rear))
    return out


def load_kit(kit, data=DEFAULT_DATA):
    """[(normalised_id, front sequence or "", rear sequence or "")] for the kit:
    from the configured arrangement files, or from the folder's others when
    none of those has it."""
    known = set()
    for paths in arrangement_files(data):
        out = [a for path in paths for a in kit_arrangements(kit, path, known)]
        if out:
            return out
    sys.exit(f"kit {kit!r} not found in {data} (kits there: {', '.join(sorted(known)) or 'none'})")


def read_sample_sheet(path):
    """(rows, pairs): rows as dicts of the sheet's columns (blank lines and
    '#' comments skipped); pairs is True for a sheet with front and rear
    columns."""
    rows, header = [], None
    with open(path) as f:
        for line in f:
            fields = [x.strip() for x in line.rstrip("\r\n").split("\t")]
            if not "".join(fields) or fields[0].startswith("#"):
                continue
            if header is None:
                header = fields
                continue
            rows.append(dict(zip(header, fields)))
    if header is None or "sample" not in header:
        sys.exit(f"{path}: no header with a sample column")
    pairs = "front" in header and "rear" in header
    if not pairs and "arrangement" not in header:
        sys.exit(f"{path}: the header names neither 'arrangement' nor 'front' and 'rear'")
    return rows, pairs


# ---------------------------------------------------------------- sequences


class Simulator:
    def __init__(self, args, arrangements, sheet=None):
        self.args = args
        self.rng = random.Random(args.seed)
        self.arr = arrangements
        self.ligation = any(rear for _, _, rear in arrangements)
        self.double = [a for a in arrangements if a[1] and a[2]]
        self.fronted = [a for a in arrangements if a[1]]
        self.sheet = sheet  # (rows, pairs) or None
        self.sample_of = {}
        self.pairs = None
        if sheet is not None:
            self.use_sheet(*sheet)
        # The stem is the part of the adapter upstream of the reference; it is
        # ours, drawn from a fixed seed so that every run shares it.
        stem_rng = random.Random("vb-adapter-stem")
        self.stem = "".join(stem_rng.choice("ACGT") for _ in range(args.stem_length))
        self.quality_tables = {}
        self.runids = ["%040x" % self.rng.getrandbits(160) for _ in range(2)]
        self.read_number = 0

    def use_sheet(self, rows, pairs):
        by_name = {nid: (front, rear) for nid, front, rear in self.arr}
        if not pairs:
            self.sample_of = {row["arrangement"]: row["sample"] for row in rows}
            self.all_double = self.double
            self.double = [a for a in self.double if a[0] in self.sample_of]
            self.fronted = [a for a in self.fronted if a[0] in self.sample_of]
            if not self.double and not self.fronted:
                sys.exit("the sample sheet lists no arrangement of the kit")
            return
        # A pair barcode reads at the start of a read as the sequence of its
        # front reference, or the reverse complement of its rear reference.
        self.ligation = True
        self.start_seq = {}
        for nid, (front, rear) in by_name.items():
            if bool(front) != bool(rear):
                self.start_seq[nid] = front or rear
        listed = []
        for row in rows:
            for column in ("front", "rear"):
                if row[column] not in self.start_seq:
                    sys.exit(f"{row[column]} is not a single-barcode arrangement of the kit")
            listed.append((row["front"], row["rear"]))
            self.sample_of[row["front"], row["rear"]] = row["sample"]
        self.pairs = listed
        fronts = sorted({f for f, _ in listed})
        rears = sorted({r for _, r in listed})
        self.unlisted = [(f, r) for f in fronts for r in rears if (f, r) not in self.sample_of]
        if self.args.frac_unlisted > 0 and not self.unlisted:
            sys.exit("the sample sheet lists every pair of its barcodes: there are no unlisted pairs to simulate")

    def random_bases(self, n):
        return self.rng.randbytes(n).translate(BASES_FROM_BYTE).decode()

    def quality_table(self, mean_q):
        """256-entry byte map whose uniform input gives Phred ~ N(mean_q, 4)."""
        table = self.quality_tables.get(mean_q)
        if table is None:
            dist = statistics.NormalDist(mean_q, 4.0)
            table = bytes(33 + min(50, max(2, round(dist.inv_cdf((b + 0.5) / 256)))) for b in range(256))
            self.quality_tables[mean_q] = table
        return table

    def junk(self, mean):
        return self.random_bases(min(int(self.rng.expovariate(1.0 / mean)), 6 * int(mean) + 1)) if mean > 0 else ""

    def adapter_start(self):
        # Reads often begin part-way into the adapter.
        if self.rng.random() < 0.3:
            return self.stem[self.rng.randrange(len(self.stem) + 1):]
        return self.stem

    def insert_length(self):
        a = self.args
        return max(a.min_insert, int(a.median_length * math.exp(self.rng.gauss(0.0, a.length_sigma))))

    def pair_molecule(self, fixed_length=0):
        """(molecule, kind, front, rear, orientation, molecules, sample) of a
        pair read."""
        a, rng = self.args, self.rng
        shares = [("pair", a.frac_double), ("front", a.frac_front / 2), ("rear", a.frac_front / 2),
                  ("unlisted", a.frac_unlisted), ("chimera", a.frac_chimera), ("none", a.frac_none)]
        r = rng.random() * sum(share for _, share in shares)
        for kind, share in shares:
            if r < share:
                break
            r -= share
        insert = "" if fixed_length else self.random_bases(self.insert_length())
        head, tail = self.junk(a.junk_mean), self.junk(a.junk_mean / 2)
        front = rear = sample = "-"
        if kind == "unlisted":
            front, rear = rng.choice(self.unlisted)
        elif kind != "none":
            front, rear = rng.choice(self.pairs)
            sample = self.sample_of[front, rear]
            if kind == "chimera":
                rear = rng.choice(self.pairs)[1]
        left, right = head, tail
        if kind == "none" and rng.random() < 0.5:
            left += self.adapter_start()
        if kind == "front":
            rear = "-"
        if kind == "rear":
            front = "-"
        if front != "-":
            left += self.adapter_start() + self.start_seq[front]
        if rear != "-":
            right = revcomp(self.start_seq[rear]) + revcomp(self.stem) + tail
        if fixed_length:
            insert = self.random_bases(max(a.min_insert, fixed_length - len(left) - len(right)))
        mol, orientation = left + insert + right, "+"
        if rng.random() < 0.5:
            mol, orientation = revcomp(mol), "-"
        return mol, kind, front, rear, orientation, "-", sample

    def molecule(self, fixed_length=0):
        """(read bases, kind, front, rear, orientation, molecules, sample);
        sample is "-" without a sample sheet."""
        if self.pairs is not None:
            return self.pair_molecule(fixed_length)
        return self.plain_molecule(fixed_length)

    def plain_molecule(self, fixed_length=0):
        a, rng = self.args, self.rng
        total = a.frac_double + a.frac_front + a.frac_none + a.frac_chimera + a.frac_concatemer
        r = rng.random() * total
        if r >= total - a.frac_concatemer:
            return self.concatemer(fixed_length)
        total -= a.frac_concatemer
        if not self.ligation:  # every barcoded read of a front-only kit is a front read
            kind = "none" if r >= total - a.frac_none else "front"
        elif r < a.frac_double:
            kind = "double"
        elif r < a.frac_double + a.frac_front:
            kind = "front"
        elif r < a.frac_double + a.frac_front + a.frac_none:
            kind = "none"
        else:
            kind = "chimera"
        # A fixed molecule length (templates for pbsim) sizes the insert last;
        # otherwise it is drawn first, which keeps the seeded reads as they were.
        insert = "" if fixed_length else self.random_bases(self.insert_length())
        head, tail = self.junk(a.junk_mean), self.junk(a.junk_mean / 2)
        front_id = rear_id = sample = "-"
        if kind == "none":
            stem = self.adapter_start() if rng.random() < 0.5 else ""
            left, right = head + stem, tail
        elif kind == "front":
            nid, front, _ = rng.choice(self.fronted)
            front_id = sample = nid
            if self.swapped():
                kind = "swapped"
                front_id, front, _ = rng.choice([x for x in self.arr if x[1] and x[0] != nid])
            left, right = head + self.adapter_start() + front, tail
        else:
            nid, front, rear = rng.choice(self.double)
            front_id = rear_id = sample = nid
            if kind == "double" and self.swapped():
                kind = "swapped"
                front_id, front, rear = rng.choice([x for x in self.all_double if x[0] != nid])
                rear_id = front_id
            if kind == "chimera":
                others = [x for x in self.double if x[0] != nid]
                rear_id, _, rear = rng.choice(others)
            left, right = head + self.adapter_start() + front, revcomp(rear) + revcomp(self.stem) + tail
        if fixed_length:
            insert = self.random_bases(max(a.min_insert, fixed_length - len(left) - len(right)))
        mol = left + insert + right
        orientation = "+"
        if self.ligation and rng.random() < 0.5:
            mol, orientation = revcomp(mol), "-"
        return mol, kind, front_id, rear_id, orientation, "-", self.sample_of.get(sample, "-")

    def concatemer(self, fixed_length=0):
        """Two or three molecules end to end. Each ligation-kit molecule is
        stem + front + insert + revcomp(rear) + revcomp(stem), in either
        orientation; each front-only one stem + front + insert. The read may
        begin part-way into the first stem; junk lies only at the read's ends."""
        a, rng = self.args, self.rng
        count = rng.choice(a.concatemer_molecules)
        pool = self.double if self.ligation else self.fronted
        chosen = [rng.choice(pool)]
        for _ in range(count - 1):
            others = [x for x in pool if x[0] != chosen[-1][0]]
            chosen.append(chosen[-1] if rng.random() < a.concatemer_same or not others else rng.choice(others))
        # A fixed read length (templates for pbsim) is shared out among the inserts.
        flat = sum(len(self.stem) + len(front) + len(rear) + len(self.stem) for _, front, rear in chosen)
        share = max(a.min_insert, (fixed_length - flat) // count) if fixed_length else 0
        pieces, names = [], []
        for i, (nid, front, rear) in enumerate(chosen):
            insert = self.random_bases(share or self.insert_length())
            stem = self.adapter_start() if i == 0 else self.stem
            if self.ligation:
                mol = self.stem + front + insert + revcomp(rear) + revcomp(self.stem)
                orientation = "+"
                if rng.random() < 0.5:
                    mol, orientation = revcomp(mol), "-"
                mol = stem + mol[len(self.stem):]
            else:
                mol, orientation = stem + front + insert, "+"
            pieces.append(mol)
            names.append(nid + orientation)
        head, tail = self.junk(a.junk_mean), self.junk(a.junk_mean / 2)
        first, last = chosen[0][0], chosen[-1][0]
        return (head + "".join(pieces) + tail, "concatemer", first, last if self.ligation else "-", "+",
                ",".join(names), self.sample_of.get(first, "-"))

    def swapped(self):
        """Whether this molecule carries another arrangement's barcodes (a
        cross-contaminated barcode); drawn only with a sample sheet, so reads
        simulated without one stay as they were."""
        return self.sheet is not None and self.rng.random() < self.args.frac_swap

    def read_identity(self):
        a = self.args
        if a.identity_sd <= 0:
            return a.identity
        return min(0.995, max(0.6, self.rng.gauss(a.identity, a.identity_sd)))

    def mutate(self, seq, identity):
        """Apply errors; return the read and the indices of its suspect bases."""
        rng, n = self.rng, len(seq)
        rate = 1.0 - identity
        events = {}
        # Uniform errors at the nominal rate everywhere, so that barcodes and
        # flanks (which have no runs longer than 2) see exactly the chosen
        # identity; homopolymer runs of 3 or more get extra indels on top, in
        # proportion to their length, making up the chosen share of all errors
        # of a typical read.
        share = self.args.homopolymer_share
        runs = [(m.start(), m.end()) for m in HOMOPOLYMER.finditer(seq)]
        hp_bases = sum(e - s for s, e in runs)
        if hp_bases and 0 < share < 1:
            per_base = share / (1 - share) * rate * n / hp_bases
            for s, e in runs:
                if rng.random() < per_base * (e - s):
                    pos = rng.randrange(s, e)
                    events[pos] = ("D",) if rng.random() < HOMOPOLYMER_DEL_SHARE else ("I", seq[pos])
        expected = rate * n
        k = max(0, min(n, round(rng.gauss(expected, math.sqrt(max(expected, 1e-9) * (1 - rate))))))
        for pos in rng.sample(range(n), k):
            if pos in events:
                continue
            r = rng.random()
            if r < SUB_SHARE:
                events[pos] = ("S", rng.choice(OTHER_BASES[seq[pos]]))
            elif r < SUB_SHARE + DEL_SHARE:
                events[pos] = ("D",)
            else:
                events[pos] = ("I", rng.choice("ACGT"))
        pieces, suspect, last, out_len = [], [], 0, 0
        for pos in sorted(events):
            ev = events[pos]
            pieces.append(seq[last:pos])
            out_len += pos - last
            if ev[0] == "S":
                pieces.append(ev[1])
                suspect.append(out_len)
                out_len += 1
            elif ev[0] == "I":
                pieces.append(ev[1] + seq[pos])
                suspect.append(out_len)
                out_len += 2
            else:
                suspect.append(max(0, out_len - 1))
            last = pos + 1
        pieces.append(seq[last:])
        read = "".join(pieces)
        if not read:  # never emit an empty read
            read = seq[:1] or "A"
        return read, [p for p in suspect if p < len(read)]

    def qualities(self, n, identity, suspect):
        mean_q = max(4, min(30, round(-10 * math.log10(max(1e-3, 1 - identity))) + 2))
        q = bytearray(self.rng.randbytes(n).translate(self.quality_table(mean_q)))
        for p in suspect:
            q[p] = 33 + self.rng.randint(2, 7)
        return q.decode()

    def record(self):
        mol, *truth = self.molecule()
        identity = self.read_identity()
        read, suspect = self.mutate(mol, identity)
        qual = self.qualities(len(read), identity, suspect)
        return self.format(read, qual, *truth)

    def truth_header(self):
        return ("read_id\tkind\tfront\trear\torientation" + ("\tmolecules" if self.args.frac_concatemer > 0 else "") +
                ("\tsample" if self.sheet else "") + "\n")

    def format(self, read, qual, kind, front, rear, orientation, molecules="-", sample="-"):
        """FASTQ text and truth row of one read, with a fresh id and header."""
        rng = self.rng
        h = "%032x" % rng.getrandbits(128)
        read_id = f"{h[:8]}-{h[8:12]}-4{h[13:16]}-{'89ab'[int(h[16], 16) & 3]}{h[17:20]}-{h[20:32]}"
        self.read_number += 1
        runid = self.runids[rng.getrandbits(1)]
        secs = 600 + self.read_number // 7
        start = "2026-11-21T%02d:%02d:%02dZ" % (8 + secs // 3600, secs // 60 % 60, secs % 60)
        title = (f"@{read_id} runid={runid} sampleid={self.args.sample} read={self.read_number} "
                 f"ch={rng.randint(1, 512)} start_time={start}")
        fastq = f"{title}\n{read}\n+\n{qual}\n"
        row = f"{read_id}\t{kind}\t{front}\t{rear}\t{orientation}"
        if self.args.frac_concatemer > 0:
            row += f"\t{molecules}"
        if self.sheet:
            row += f"\t{sample}"
        return fastq, row + "\n"


# ---------------------------------------------------------------- pbsim

PBSIM_MODEL = "/usr/share/pbsim/models/model_qc_clr"
PBSIM_MOST_TEMPLATES = 9999


def aligned_cut(ref_row, read_row, begin, end):
    """(offset, bases): the read bases aligned to template positions [begin,
    end) of one MAF block and how many read bases come before them, or None
    when the read does not reach both ends. Positions count from the block's
    first template base."""
    pos, before, reached = 0, 0, False
    out = []
    for r, q in zip(ref_row, read_row):
        inside = begin <= pos < end
        if r != "-":
            pos += 1
            reached |= pos == end
        if q != "-":
            if inside:
                out.append(q)
            elif pos <= begin:
                before += 1
    if begin < 0 or not reached:
        return None
    return before, "".join(out)


def read_maf(path):
    """[(template name, template start, gapped template row, read name, read strand, gapped read row)]."""
    blocks, rows = [], []
    with open(path) as f:
        for line in f:
            if line.startswith("s "):
                rows.append(line.split())
                if len(rows) == 2:
                    (_, ref, start, _, _, _, ref_row), (_, name, _, _, strand, _, read_row) = rows
                    blocks.append((ref, int(start), ref_row, name, strand, read_row))
                    rows = []
    return blocks


def pbsim_chunk(sim, args, chunk, seed, pad, total):
    """(records, dropped) for one pbsim run over the molecules of chunk, each
    padded to a template of total bases."""
    import subprocess
    import tempfile
    records, dropped = [], 0
    with tempfile.TemporaryDirectory() as tmp:
        with open(os.path.join(tmp, "templates.fasta"), "w") as f:
            for i, (mol, *_rest) in enumerate(chunk):
                f.write(f">t{i}\n{sim.random_bases(pad)}{mol}{sim.random_bases(max(pad, total - pad - len(mol)))}\n")
        accuracy = min(args.identity, 0.999)
        cmd = ["pbsim", "--prefix", os.path.join(tmp, "sd"), "--data-type", "CLR", "--depth", "1",
               "--length-min", str(total), "--length-max", str(total), "--length-mean", str(total),
               "--length-sd", "0", "--accuracy-mean", str(accuracy), "--accuracy-sd", "0",
               "--accuracy-min", str(max(0.75, accuracy - 0.01)), "--accuracy-max", str(min(1.0, accuracy + 0.01)),
               "--model_qc", PBSIM_MODEL, "--seed", str(seed), os.path.join(tmp, "templates.fasta")]
        proc = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if proc.returncode != 0:
            sys.exit(f"pbsim failed ({proc.returncode}):\n{proc.stdout[-2000:]}")
        for i, (mol, *truth) in enumerate(chunk):
            record = pbsim_read(sim, os.path.join(tmp, f"sd_{i + 1:04d}"), pad, mol, truth)
            if record is None:
                dropped += 1
            else:
                records.append(record)
    return records, dropped


def pbsim_read(sim, stem, pad, mol, truth):
    """The record of one template's read, cut to its molecule by pbsim's own
    alignment, or None when the read does not cover the molecule."""
    quals = {}
    with open(stem + ".fastq") as f:
        lines = f.read().split("\n")
    for k in range(0, len(lines) - 3, 4):
        quals[lines[k][1:]] = lines[k + 3]
    for ref, start, ref_row, name, strand, read_row in read_maf(stem + ".maf"):
        cut = aligned_cut(ref_row, read_row, pad - start, pad - start + len(mol))
        if cut is not None:
            offset, read = cut
            # Qualities follow the read as sequenced; the MAF row is on the template strand.
            qual = quals[name][::-1] if strand == "-" else quals[name]
            return sim.format(read, qual[offset:offset + len(read)], *truth)
    return None


def pbsim_records(sim, args, count):
    """(fastq, truth row) for reads whose errors come from pbsim's CLR model.

    Each molecule is a fixed-length template (padded with random bases on
    both sides); pbsim samples full-length reads from it, and the part aligned
    to the molecule, cut by pbsim's own alignment, becomes the read. The
    truth travels by template name. Reads that do not cover their whole
    molecule are dropped (reported on standard error)."""
    if not os.path.exists(PBSIM_MODEL):
        sys.exit(f"pbsim's quality model {PBSIM_MODEL} is missing: install pbsim "
                 "(scripts/install-deps.sh --calibration)")
    length = args.template_length
    pad = math.ceil(0.15 * length)
    molecules = [sim.molecule(fixed_length=length) for _ in range(count)]
    total = length + 2 * pad
    records = []
    dropped = 0
    # pbsim takes at most 9,999 templates a run: larger sets go in chunks,
    # each with its own seed (the first chunk keeps the given one, so that a
    # set of up to 9,999 reads is the same as before).
    for first in range(0, count, PBSIM_MOST_TEMPLATES):
        chunk_records, chunk_dropped = pbsim_chunk(sim, args, molecules[first:first + PBSIM_MOST_TEMPLATES],
                                                   args.seed + first // PBSIM_MOST_TEMPLATES, pad, total)
        records += chunk_records
        dropped += chunk_dropped
    if dropped:
        print(f"pbsim: {dropped} of {count} reads did not cover their molecule and were dropped", file=sys.stderr)
    return records


def output_names(path, parts):
    if parts <= 1:
        return [path]
    m = re.match(r"(.*?)((?:\.fastq|\.fq)?(?:\.gz)?)$", path)
    return [f"{m.group(1)}_{i}{m.group(2)}" for i in range(parts)]


def open_out(path):
    if path.endswith(".gz"):
        # mtime 0 keeps the compressed bytes reproducible from the seed too.
        return io.TextIOWrapper(gzip.GzipFile(path, "wb", compresslevel=1, mtime=0))
    return open(path, "w")


def parse_args(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("-o", "--output", required=True, help="FASTQ file (.gz for gzip)")
    ap.add_argument("--truth", help="truth table (default: output name with .truth.tsv)")
    ap.add_argument("--kit", default="VB-NB24")
    ap.add_argument("--data", default=DEFAULT_DATA, help="folder with the kit files")
    ap.add_argument("-n", "--reads", type=int, default=10000)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--split", type=int, default=1, help="number of output files")
    ap.add_argument("--identity", type=float, default=0.92)
    ap.add_argument("--identity-sd", type=float, default=0.0, help="per-read spread of the identity")
    ap.add_argument("--homopolymer-share", type=float, default=DEFAULT_HOMOPOLYMER_SHARE,
                    help="share of a typical read's errors that are extra indels in homopolymer runs")
    ap.add_argument("--median-length", type=int, default=1500, help="median insert length")
    ap.add_argument("--length-sigma", type=float, default=0.6, help="log-normal sigma of the insert length")
    ap.add_argument("--min-insert", type=int, default=60)
    ap.add_argument("--junk-mean", type=float, default=12.0, help="mean junk length before the adapter")
    ap.add_argument("--stem-length", type=int, default=22, help="adapter bases upstream of the reference")
    ap.add_argument("--frac-double", type=float, default=0.75)
    ap.add_argument("--frac-front", type=float, default=0.10)
    ap.add_argument("--frac-none", type=float, default=0.10)
    ap.add_argument("--frac-chimera", type=float, default=0.05)
    ap.add_argument("--frac-concatemer", type=float, default=0.0,
                    help="share of reads made of several molecules (adds the truth column molecules)")
    ap.add_argument("--concatemer-molecules", type=lambda t: [int(x) for x in t.split(",")], default=[2, 3],
                    help="molecules per concatemer, drawn from this comma-separated list")
    ap.add_argument("--concatemer-same", type=float, default=0.5,
                    help="chance that a molecule has the arrangement of the one before it")
    ap.add_argument("--frac-unlisted", type=float, default=0.05, help="pairs the sample sheet does not list")
    ap.add_argument("--frac-swap", type=float, default=0.0,
                    help="with an arrangement sample sheet: molecules carrying another arrangement's barcodes")
    ap.add_argument("--sample-sheet", help="simulate the samples of this sheet (arrangements, or front and rear pairs)")
    ap.add_argument("--sample", default="vb_sim")
    ap.add_argument("--error-model", choices=["builtin", "pbsim"], default="builtin",
                    help="builtin: this script's errors; pbsim: Debian's pbsim (CLR model) on fixed-length templates")
    ap.add_argument("--template-length", type=int, default=600, help="molecule length with --error-model pbsim")
    return ap.parse_args(argv)


def main(argv=None):
    args = parse_args(argv)
    sheet = read_sample_sheet(args.sample_sheet) if args.sample_sheet else None
    sim = Simulator(args, load_kit(args.kit, args.data), sheet)
    truth = args.truth or re.sub(r"(\.fastq|\.fq)?(\.gz)?$", "", args.output) + ".truth.tsv"
    names = output_names(args.output, args.split)
    for path in names + [truth]:
        os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    outs = [open_out(p) for p in names]
    with open(truth, "w") as t:
        t.write(sim.truth_header())
        per_file = -(-args.reads // len(outs))
        if args.error_model == "pbsim":
            records = pbsim_records(sim, args, args.reads)
        else:
            records = (sim.record() for _ in range(args.reads))
        for i, (fastq, row) in enumerate(records):
            outs[i // per_file].write(fastq)
            t.write(row)
    for f in outs:
        f.close()


if __name__ == "__main__":
    main()
