"""BAM files as the merge needs them: where the header ends and the records
begin in the BGZF blocks, the records themselves, the headers of several
shards joined into one, and BGZF blocks written anew.

BGZF is gzip cut into members ("blocks") of at most 64 KiB that each say
their own size, ending with an empty block (the end-of-file marker). A BAM
file is a header (magic, text, references) followed by records, each led by
its size, all in one BGZF stream. This program's writer compresses the
header into blocks of its own, so the records of a file start at a block
boundary and their blocks can be copied from file to file as they are.

Standard library only.
"""

import os
import re
import struct
import zlib

EOF_BLOCK = bytes.fromhex("1f8b08040000000000ff0600424302001b0003000000000000000000")
MAGIC = b"BAM\x01"
BLOCK_DATA = 0xFF00  # bytes of data per block written, as the barcoder does
LEVEL = 1
_BLOCK_HEADER = struct.Struct("<4sI2sHHH")  # gzip magic..flags, mtime, xfl+os, xlen, 'BC', slen


class BamError(Exception):
    pass


def compress(data):
    """data as BGZF blocks (no end-of-file marker)."""
    out = bytearray()
    for start in range(0, len(data), BLOCK_DATA):
        piece = data[start:start + BLOCK_DATA]
        deflate = zlib.compressobj(LEVEL, zlib.DEFLATED, -15)
        body = deflate.compress(piece) + deflate.flush()
        out += struct.pack("<4sI2sHHHH", b"\x1f\x8b\x08\x04", 0, b"\x00\xff", 6, 0x4342, 2, len(body) + 25)
        out += body
        out += struct.pack("<II", zlib.crc32(piece), len(piece))
    return bytes(out)


def _blocks(handle, path):
    """(offset, size, data size) of every block, checking that they chain to
    the end of the file."""
    size = os.fstat(handle.fileno()).st_size
    blocks, offset = [], 0
    while offset < size:
        handle.seek(offset)
        head = handle.read(18)
        if len(head) < 18 or head[:4] != b"\x1f\x8b\x08\x04" or head[12:16] != b"BC\x02\x00":
            raise BamError(f"{path}: no BGZF block at byte {offset}")
        block_size = struct.unpack_from("<H", head, 16)[0] + 1
        if offset + block_size > size:
            raise BamError(f"{path}: the block at byte {offset} runs past the end of the file (truncated)")
        handle.seek(offset + block_size - 4)
        data_size = struct.unpack("<I", handle.read(4))[0]
        blocks.append((offset, block_size, data_size))
        offset += block_size
    return blocks


def _inflate(handle, block, path):
    offset, size, data_size = block
    handle.seek(offset)
    raw = handle.read(size)
    try:
        data = zlib.decompress(raw[18:-8], -15)
    except zlib.error as error:
        raise BamError(f"{path}: the block at byte {offset} is damaged: {error}") from None
    if len(data) != data_size or zlib.crc32(data) != struct.unpack_from("<I", raw, size - 8)[0]:
        raise BamError(f"{path}: the block at byte {offset} is damaged (size or checksum)")
    return data


class Header:
    def __init__(self, text, references):
        self.text = text              # str, lines ended by "\n"
        self.references = references  # the encoded reference list (n_ref and entries)

    def encode(self):
        text = self.text.encode("utf-8", "surrogateescape")
        return compress(MAGIC + struct.pack("<i", len(text)) + text + self.references)

    def __eq__(self, other):
        return self.text == other.text and self.references == other.references


class BamFile:
    """One BAM file: its header, and where its records are. `leading` holds
    the records of the header's last block when that block also holds
    records; `start`..`end` are the file bytes of the whole record blocks
    after it, the end-of-file marker excluded."""

    def __init__(self, path):
        self.path = path
        with open(path, "rb") as handle:
            blocks = _blocks(handle, path)
            if not blocks or blocks[-1][2] != 0:
                raise BamError(f"{path}: no end-of-file marker: the file is truncated")
            data, used = b"", 0
            header = None
            while header is None:
                if used == len(blocks):
                    raise BamError(f"{path}: the file ends inside its header")
                data += _inflate(handle, blocks[used], path)
                used += 1
                header, consumed = _parse_header(data, path)
            self.header = header
            self.leading = data[consumed:]
            self.start = blocks[used][0] if used < len(blocks) else blocks[-1][0]
            self.end = blocks[-1][0]

    def records(self):
        """Every record as bytes, its size field included."""
        with open(self.path, "rb") as handle:
            handle.seek(self.start)
            body = handle.read(self.end - self.start)
        data = bytearray(self.leading)
        offset = 0
        while offset < len(body):
            size = struct.unpack_from("<H", body, offset + 16)[0] + 1
            data += _inflate_bytes(body[offset:offset + size], self.path, self.start + offset)
            offset += size
        return split_records(bytes(data), self.path)

    def count(self):
        return len(self.records())


def _inflate_bytes(raw, path, offset):
    try:
        return zlib.decompress(raw[18:-8], -15)
    except zlib.error as error:
        raise BamError(f"{path}: the block at byte {offset} is damaged: {error}") from None


def _parse_header(data, path):
    """(Header, bytes used) once data holds the whole header, else (None, 0)."""
    if len(data) < 8:
        return None, 0
    if data[:4] != MAGIC:
        raise BamError(f"{path}: not a BAM file (no BAM magic)")
    text_length = struct.unpack_from("<i", data, 4)[0]
    at = 8 + text_length
    if len(data) < at + 4:
        return None, 0
    count = struct.unpack_from("<i", data, at)[0]
    end = at + 4
    for _ in range(count):
        if len(data) < end + 4:
            return None, 0
        end += 4 + struct.unpack_from("<i", data, end)[0] + 4
        if len(data) < end:
            return None, 0
    text = data[8:8 + text_length].rstrip(b"\0").decode("utf-8", "surrogateescape")
    return Header(text, data[at:end]), end


def split_records(data, path):
    records, offset = [], 0
    while offset < len(data):
        if offset + 4 > len(data):
            raise BamError(f"{path}: a record is cut off after record {len(records)}")
        size = 4 + struct.unpack_from("<i", data, offset)[0]
        if size < 36 or offset + size > len(data):
            raise BamError(f"{path}: record {len(records) + 1} is damaged or cut off")
        records.append(data[offset:offset + size])
        offset += size
    return records


# ---------------------------------------------------------------- headers

def _line_id(line):
    for field in line.split("\t")[1:]:
        if field.startswith("ID:"):
            return field[3:]
    return None


def merge_headers(headers):
    """One header for the shards' headers, as one run over all their inputs
    would write it: the first @HD; every distinct @RG line once, an ID
    defined twice keeping the first definition; every distinct @PG line, a
    repeated ID made unique with a suffix (".1", ".2", ...), as the format
    asks IDs to be; other lines once each. Returns (header, warnings)."""
    if any(h.references != headers[0].references for h in headers):
        raise BamError("the shards' BAM headers list different reference sequences")
    hd, groups, programs, others, warnings = None, {}, [], [], []
    program_ids = set()
    for header in headers:
        for line in header.text.split("\n"):
            kind = line[:3]
            if not line:
                continue
            if kind == "@HD":
                hd = hd or line
            elif kind == "@RG":
                group = _line_id(line)
                if group not in groups:
                    groups[group] = line
                elif groups[group] != line:
                    warnings.append(f"read group '{group}' is defined differently by two shards; the merged header "
                                    f"keeps the first: {groups[group]}")
            elif kind == "@PG":
                if line not in programs:
                    programs.append(line)
            elif line not in others:
                others.append(line)
    named = []
    for line in programs:
        program = _line_id(line)
        unique, suffix = program, 0
        while unique in program_ids:
            suffix += 1
            unique = f"{program}.{suffix}"
        program_ids.add(unique)
        named.append(line if unique == program else re.sub(r"\tID:[^\t]*", "\tID:" + unique, line, count=1))
    lines = ([hd] if hd else []) + list(groups.values()) + others + named
    return Header("".join(line + "\n" for line in lines), headers[0].references), warnings
