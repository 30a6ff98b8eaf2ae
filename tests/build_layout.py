#!/usr/bin/env python3
"""Checks the layout the build relies on but cannot check itself.

- Source lists are explicit (no file(GLOB)), and every source file is named in
  the CMake files of its folder or above it (or cmake/), so none is silently
  left out of the build.
- A library includes only its own headers and those of the libraries below it:
  common < pair_alignment < barcoding < apps.
- A library's private headers (those in its sub-folders, and the ones listed
  below) are included only by the library itself and its tests.

Usage: build_layout.py REPOSITORY_ROOT
"""
import os
import re
import sys

LAYERS = ["common", "pair_alignment", "barcoding", "apps"]
# Folders whose files may include any library's public headers.
CLIENTS = ["benchmarks", "fuzz"]
PRIVATE_FILES = {
    "pair_alignment/aligned_vector.h",
    "pair_alignment/band_placement.h",
    "pair_alignment/device_array.h",
    "pair_alignment/fast_align_work.h",
    "pair_alignment/simd_dispatch.h",
}
SOURCE_SUFFIXES = (".cpp", ".cu")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def files_under(root, folder):
    for dirpath, _, names in os.walk(os.path.join(root, folder)):
        for name in names:
            yield os.path.relpath(os.path.join(dirpath, name), root).replace(os.sep, "/")


def read(root, path):
    with open(os.path.join(root, path), encoding="utf-8", errors="replace") as f:
        return f.read()


def cmake_files(root):
    found = ["CMakeLists.txt"]
    for folder in LAYERS + CLIENTS + ["tests", "cmake"]:
        found += [p for p in files_under(root, folder) if p.endswith(("CMakeLists.txt", ".cmake"))]
    return found


def is_private(header):
    parts = header.split("/")
    return header in PRIVATE_FILES or (parts[0] in LAYERS and len(parts) > 2)


def allowed(source, header):
    """None when source may include header, otherwise why not."""
    top, target = source.split("/")[0], header.split("/")[0]
    if top == "tests" or target not in LAYERS:
        return None
    if is_private(header) and top != target:
        return "a private header of " + target
    if top in LAYERS and LAYERS.index(target) > LAYERS.index(top):
        return "a library above " + top
    return None


def main(root):
    problems = []
    texts = {path: read(root, path) for path in cmake_files(root)}
    for path, text in texts.items():
        if re.search(r"file\s*\(\s*GLOB", text, re.I):
            problems.append(f"{path}: file(GLOB) - list the files")

    for folder in LAYERS + CLIENTS + ["tests"]:
        for path in files_under(root, folder):
            if path.endswith(SOURCE_SUFFIXES):
                # The CMake files that may name it: its folder's and every one above, and cmake/.
                parts = path.split("/")
                candidates = ["/".join(parts[:k] + ["CMakeLists.txt"]) for k in range(len(parts))]
                candidates += [p for p in texts if p.startswith("cmake/")]
                stem = os.path.splitext(parts[-1])[0]
                named = re.compile(r"(?<![\w.])" + re.escape(stem) + r"(\.\w+)?(?![\w.])")
                if not any(named.search(texts.get(c, "")) for c in candidates):
                    problems.append(f"{path}: not named in any CMakeLists.txt of its folder or above")
            if path.endswith(SOURCE_SUFFIXES + (".h", ".cuh")):
                for header in INCLUDE.findall(read(root, path)):
                    why = allowed(path, header)
                    if why:
                        problems.append(f"{path}: includes {header}, {why}")

    for problem in problems:
        print(problem)
    print(f"build layout: {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "."))
