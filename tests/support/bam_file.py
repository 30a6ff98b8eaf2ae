"""BAM files read back without samtools, for the end-to-end and workflow
tests: the BGZF blocks walked one by one, so that a file counts as whole only
when every block is complete and the one empty block, the end-of-file
marker, comes last. Standard library only."""

import struct
import zlib

BASES = "=ACMGRSVTWYHKDBN"
TAG_FORMATS = {"c": "b", "C": "B", "s": "h", "S": "H", "i": "i", "I": "I", "f": "f"}


def read_bam(path, fault):
    """(header text, number of reference sequences, records as bytes with
    their length prefix); raises fault(message) when the file is not whole."""
    with open(path, "rb") as handle:
        data = handle.read()
    raw, empty, offset = bytearray(), [], 0
    while offset < len(data):
        if data[offset:offset + 4] != b"\x1f\x8b\x08\x04" or offset + 18 > len(data):
            raise fault(f"{path}: no BGZF block at byte {offset}")
        size = struct.unpack_from("<H", data, offset + 16)[0] + 1
        piece = zlib.decompress(data[offset + 18:offset + size - 8], -15)
        if not piece:
            empty.append(offset)
        raw += piece
        offset += size
    if offset != len(data) or empty != [len(data) - 28]:
        raise fault(f"{path}: empty blocks at {empty} of {len(data)} bytes")
    if raw[:4] != b"BAM\x01":
        raise fault(f"{path}: no BAM magic")
    text_length = struct.unpack_from("<i", raw, 4)[0]
    text = bytes(raw[8:8 + text_length]).decode()
    offset = 8 + text_length
    references = struct.unpack_from("<i", raw, offset)[0]
    offset += 4
    for _ in range(references):
        offset += 4 + struct.unpack_from("<i", raw, offset)[0] + 4
    records = []
    while offset < len(raw):
        size = 4 + struct.unpack_from("<i", raw, offset)[0]
        if offset + size > len(raw):
            raise fault(f"{path}: record cut off")
        records.append(bytes(raw[offset:offset + size]))
        offset += size
    return text, references, records


def parse_tags(data):
    """Raw aux bytes -> list of (tag, type, value); B arrays as (subtype, tuple)."""
    tags, at = [], 0
    while at < len(data):
        tag, kind = data[at:at + 2].decode(), chr(data[at + 2])
        at += 3
        if kind == "A":
            value, at = chr(data[at]), at + 1
        elif kind in TAG_FORMATS:
            fmt = "<" + TAG_FORMATS[kind]
            value, at = struct.unpack_from(fmt, data, at)[0], at + struct.calcsize(fmt)
        elif kind in "ZH":
            end = data.index(b"\0", at)
            value, at = data[at:end].decode(), end + 1
        elif kind == "B":
            sub, count = chr(data[at]), struct.unpack_from("<I", data, at + 1)[0]
            fmt = "<%d%s" % (count, TAG_FORMATS[sub])
            value, at = (sub, struct.unpack_from(fmt, data, at + 5)), at + 5 + struct.calcsize(fmt)
        else:
            raise ValueError(f"unknown tag type {kind!r}")
        tags.append((tag, kind, value))
    return tags


def decode(record):
    """A record (as read_bam gives it) as a dict of name, flag, seq, qual and tags."""
    (_, _, name_length, _, _, cigar_ops, flag, length, _, _, _) = struct.unpack_from("<iiBBHHHIiii", record, 4)
    p = 36
    name = record[p:p + name_length - 1].decode()
    p += name_length + 4 * cigar_ops
    packed = record[p:p + (length + 1) // 2]
    seq = "".join(BASES[packed[i // 2] >> 4 if i % 2 == 0 else packed[i // 2] & 15] for i in range(length))
    p += (length + 1) // 2
    qual = "".join(chr(q + 33) for q in record[p:p + length]) if length and record[p] != 0xff else ""
    return {"name": name, "flag": flag, "seq": seq, "qual": qual, "tags": parse_tags(record[p + length:])}
