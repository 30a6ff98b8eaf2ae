# Settings, input discovery and the shard plan, fixed when the workflow is
# read: every job of a run (also a cluster job, which reads the workflow
# again) sees the same sorted file list and so the same shards.

import math
import os
import shlex
import shutil
import sys

sys.path.insert(0, os.path.join(workflow.basedir, "scripts"))

from shard_plan import PlanError, discover_inputs, make_shards  # noqa: E402

# Options the workflow sets for every shard itself.
RESERVED_OPTIONS = {
    "-i", "--input_path", "-s", "--save_path", "-t", "--worker_threads",
    "-r", "--recursive", "-z", "--quiet",
}


def setting_error(message):
    raise WorkflowError(f"{message} (settings: config/config.yaml or --config key=value)")


def text_setting(key):
    value = config.get(key)
    return "" if value is None else str(value)


def bool_setting(key):
    value = config.get(key, False)
    if isinstance(value, bool):
        return value
    text = str(value).strip().lower()
    if text in ("true", "yes", "1"):
        return True
    if text in ("false", "no", "0", ""):
        return False
    setting_error(f"{key} must be true or false, not '{value}'")


def int_setting(key, minimum):
    value = config.get(key)
    try:
        number = int(value)
    except (TypeError, ValueError):
        setting_error(f"{key} must be a whole number, not '{value}'")
    if number < minimum:
        setting_error(f"{key} must be at least {minimum}, not {number}")
    return number


def barcoder_path():
    """The barcoder: a path (relative ones from the folder Snakemake runs
    in) or a program name looked up on PATH."""
    value = text_setting("barcoder")
    found = shutil.which(value) if os.sep not in value else value
    if not found or not os.access(found, os.X_OK):
        setting_error(f"barcoder '{value}' is not an executable program; build it first (make build)")
    return os.path.abspath(found)


def barcoder_options():
    try:
        words = shlex.split(text_setting("options"))
    except ValueError as error:
        setting_error(f"options '{text_setting('options')}' cannot be split into words: {error}")
    for word in words:
        if word.split("=", 1)[0] in RESERVED_OPTIONS:
            setting_error(f"options must not contain {word}: the workflow sets it for each shard")
    return words


INPUT_PATH = os.path.normpath(text_setting("input_path")) if text_setting("input_path") else ""
SAVE_PATH = os.path.normpath(text_setting("save_path")) if text_setting("save_path") else ""
if not INPUT_PATH or not SAVE_PATH:
    setting_error("input_path and save_path must both be set")
RECURSIVE = bool_setting("recursive")
FILES_PER_SHARD = int_setting("files_per_shard", 1)
THREADS = int_setting("threads", 1)
MERGE_ON_CLUSTER = bool_setting("merge_on_cluster")
BARCODER = barcoder_path()
OPTIONS = barcoder_options()

try:
    SHARDS = make_shards(discover_inputs(INPUT_PATH, SAVE_PATH, RECURSIVE), FILES_PER_SHARD)
except PlanError as error:
    setting_error(str(error))
if not SHARDS:
    setting_error(f"no *.fastq or *.fastq.<ext> files in input_path '{INPUT_PATH}'"
                  + ("" if RECURSIVE else " (recursive is off)"))

# What a shard asks a cluster for. A shard streams its input: memory is the
# program and the batches in flight, a few MB per worker thread, and a
# little per output file kept open, which grows slowly with the input
# (35 MB peak with one thread, 51 MB with two, 67 MB with eight on 30,000
# reads of 1.5 kb); the request leaves several times that. The time limit
# assumes 2 MB of input a second per thread, a fraction of what one thread
# manages on gzip input even on a busy machine (about 8), plus ten minutes
# for a slow start or a busy shared file system.
SHARD_MB_PER_MINUTE_PER_THREAD = 120


def shard_mem_mb(input_mb, threads):
    return 256 + 64 * threads + int(input_mb / 100)


def shard_runtime_min(input_mb, threads):
    return 10 + math.ceil(input_mb / (SHARD_MB_PER_MINUTE_PER_THREAD * threads))


SHARD_ROOT = os.path.join(SAVE_PATH, ".shards")
MERGED_REPORT = os.path.join(SAVE_PATH, "barcoding_report.json")
MERGED_SUMMARY = os.path.join(SAVE_PATH, "barcoding_summary.txt")
LOGS = os.path.join(SAVE_PATH, "logs")


wildcard_constraints:
    shard="shard_[0-9]+",
