"""Which input files a sharded run reads, and how they are grouped into shards.

Discovery follows vorpa_barcoder's own rules, so that the workflow reads the
files a single run on the same folder would: regular files (symbolic links
followed) named *.fastq or *.fastq.<ext> (not *.tmp, *.part or hidden) in
the input folder, and in its whole tree with recursive (without following
linked folders). Unlike a single
run, the save folder is never searched: the workflow writes its shards there,
and a second run must not read the first one's output as input.

Standard library only; the Snakefile imports it and the tests run it.
"""

import os


class PlanError(Exception):
    pass


def _extension(name):
    """The extension as std::filesystem::path::extension() gives it: from the
    last dot on, empty when the only dot leads the name."""
    if name in (".", ".."):
        return ""
    dot = name.rfind(".")
    return "" if dot <= 0 else name[dot:]


def is_fastq_name(name):
    """*.fastq or *.fastq.<ext>, and *.bam, *.sam, *.cram, as the barcoder
    decides what it reads; never the names of files still being written
    (*.tmp, *.part, hidden names)."""
    extension = _extension(name)
    if name.startswith(".") or extension in (".tmp", ".part"):
        return False
    if extension in (".bam", ".sam", ".cram"):
        return True
    return extension == ".fastq" or _extension(name[: len(name) - len(extension)]) == ".fastq"


def _raise(error):
    raise PlanError(f"cannot list '{error.filename}': {error.strerror}")


def discover_inputs(input_path, save_path, recursive):
    """The input files, sorted, as paths starting with input_path."""
    if not os.path.isdir(input_path):
        raise PlanError(f"input_path '{input_path}' is not a folder")
    save = os.path.realpath(save_path) if save_path else None
    if recursive and save == os.path.realpath(input_path):
        raise PlanError(f"save_path '{save_path}' is input_path itself: with recursive, a later run would read "
                        "this run's output as input; choose another save folder")
    files = []
    for folder, subfolders, names in os.walk(input_path, onerror=_raise):
        if not recursive:
            subfolders.clear()
        else:
            subfolders[:] = [d for d in subfolders if os.path.realpath(os.path.join(folder, d)) != save]
        for name in names:
            path = os.path.join(folder, name)
            if is_fastq_name(name) and os.path.isfile(path):
                files.append(path)
    for path in files:
        # The barcoder takes a shard's files as lines on standard input.
        if "\n" in path or "\r" in path:
            raise PlanError(f"input file name with a line break cannot be handed to a shard: {path!r}")
    return sorted(files)


def make_shards(files, files_per_shard):
    """{shard name: its files}, files_per_shard files each (the last may hold
    fewer), in file order. Names are zero-padded so that they sort in order."""
    if files_per_shard < 1:
        raise PlanError(f"files_per_shard must be at least 1, not {files_per_shard}")
    chunks = [files[i:i + files_per_shard] for i in range(0, len(files), files_per_shard)]
    width = max(3, len(str(len(chunks) - 1)))
    return {f"shard_{i:0{width}d}": chunk for i, chunk in enumerate(chunks)}
