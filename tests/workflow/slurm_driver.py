#!/usr/bin/env python3
"""The sharded workflow on a real one-node Slurm cluster, with the README's
command (the Slurm profile, account and partition given on the command line),
run inside tests/workflow/with_slurm.sh, which starts the cluster.

  readme: on a 2-CPU node, the example reads; then a few thousand simulated
          reads in 8 shards, one of which is cancelled while its barcoder
          runs: the run stops with the shard named and its log kept, the next
          run redoes only that shard; each merge is compared with a single
          run. A shard over its memory and one asking for more CPUs than the
          node has fail with the shard named.
  large:  a node with 16 CPUs, threads=4, the simulated reads cut at 100
          records per file.

Usage: slurm_driver.py --barcoder BIN --source REPO --work DIR --snakemake PATH --case NAME
"""

import os
import signal
import stat
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from save_folder import check, compare_save_folders  # noqa: E402
from workflow_driver import limit_of, main  # noqa: E402

ACCOUNT_AND_PARTITION = ["--default-resources", "slurm_account=vbtest", "slurm_partition=debug"]
# Snakemake runs with USER unset, as under some batch systems and containers.
NO_USER = {k: v for k, v in os.environ.items() if k != "USER"}
OPTIONS = "--barcode_kits VB-NB24 --compress_fastq"


def readme_command(ctx, input_path, save, *extra, options=OPTIONS, barcoder=None, config=()):
    """The README's Slurm command with this checkout's paths."""
    return [ctx.snakemake_program, "-s", os.path.join(ctx.source, "workflow", "Snakefile"),
            "--profile", os.path.join(ctx.source, "workflow", "profiles", "slurm"), *ACCOUNT_AND_PARTITION,
            *extra, "--config", f"input_path={input_path}", f"save_path={ctx.path(save)}", "files_per_shard=1",
            f"options={options}", f"barcoder={barcoder or ctx.barcoder}", *config]


def slurm(*args):
    return subprocess.run(args, capture_output=True, text=True, check=True, timeout=60).stdout


def accounted_jobs():
    """{job name: (state, account, partition, CPUs)} of every job so far."""
    jobs = {}
    for line in slurm("sacct", "--noheader", "--parsable2", "--allocations",
                      "--format=JobName,State,Account,Partition,AllocCPUS").splitlines():
        name, state, account, partition, cpus = line.split("|")
        jobs[name] = (state, account, partition, cpus)
    return jobs


def queued():
    return slurm("squeue", "--noheader", "--format=%i %j %T").strip()


def simulate(ctx, folder, reads, files):
    path = ctx.path(folder)
    os.makedirs(path)
    ctx.run([sys.executable, os.path.join(ctx.source, "tools", "simulate_reads.py"), "-o",
             os.path.join(path, "sim.fastq.gz"), "--truth", ctx.path(folder + ".truth.tsv"), "--kit", "VB-NB24",
             "-n", str(reads), "--seed", "11", "--split", str(files), "--median-length", "800"])
    return path


def check_slurm_layout(save, shards):
    logs = os.path.join(save, "logs")
    names = sorted(os.listdir(logs))
    check(names == sorted([f"shard_{i:03d}.log" for i in range(shards)] + ["merge.log", "slurm"]), f"logs: {names}")
    outputs = sorted(n.rsplit("-", 1)[0] for n in os.listdir(os.path.join(logs, "slurm")))
    check(outputs == [f"shard_{i:03d}" for i in range(shards)], f"Slurm's outputs: {outputs}")


def readme_run(ctx, input_path, save, shards, options=OPTIONS, threads=None):
    config = [f"threads={threads}"] if threads else []
    ctx.run(readme_command(ctx, input_path, save, options=options, config=config), env=NO_USER)
    check_slurm_layout(ctx.path(save), shards)
    single = ctx.single_run(save + "_single", options, input_path=input_path)
    compare_save_folders(single, ctx.path(save), limit_of(options))
    jobs = accounted_jobs()
    for i in range(shards):
        state, account, partition, cpus = jobs.get(f"vb.shard_{i:03d}", ("missing", "", "", ""))
        check((state, account, partition, cpus) == ("COMPLETED", "vbtest", "debug", str(threads or 1)),
              f"shard_{i:03d}: {jobs.get(f'vb.shard_{i:03d}')}")
    check("vb.merge_shards" not in jobs, "the merge was submitted although it is a local rule")
    check(queued() == "", f"jobs left in the queue: {queued()}")


# The barcoder of shard_003, while STOP exists: started on its file list
# (standard input) repeated 500 times, then held still once it has begun its
# log (SIGSTOP), so that the test can cancel it mid-run. The shard's own 500
# reads take tens of milliseconds: on a busy machine the barcoder finished
# them between beginning its log and the SIGSTOP, and there was no run left
# to cancel.
HOLDING_BARCODER = """#!/bin/bash
real={barcoder}
for arg in "$@"; do
  if [[ "$arg" == */shard_003 && -e {stop} ]]; then
    list=$(cat)
    for i in $(seq 500); do printf '%s\\n' "$list"; done | "$real" "$@" &
    pid=$!
    until compgen -G "$arg/vorpa_barcoder_log-*.log" >/dev/null; do sleep 0.05; done
    kill -STOP $pid
    touch {held}
    trap 'kill -CONT $pid' TERM
    wait $pid
    wait $pid
    exit $?
  fi
done
exec "$real" "$@"
"""


def cancelled_shard(ctx, reads):
    stop, held = ctx.path("STOP"), ctx.path("HELD")
    wrapper = ctx.path("holding_barcoder.sh")
    with open(wrapper, "w") as handle:
        handle.write(HOLDING_BARCODER.format(barcoder=ctx.barcoder, stop=stop, held=held))
    os.chmod(wrapper, os.stat(wrapper).st_mode | stat.S_IXUSR)
    open(stop, "w").close()

    command = readme_command(ctx, reads, "cancel", options="--barcode_kits VB-NB24", barcoder=wrapper)
    with open(ctx.path("cancel.out"), "w") as out:
        run = subprocess.Popen(command, cwd=ctx.work, stdout=out, stderr=subprocess.STDOUT, text=True, env=NO_USER)
        try:
            deadline = time.monotonic() + 120
            while not os.path.exists(held):
                check(time.monotonic() < deadline and run.poll() is None, "shard_003 never started")
                time.sleep(0.2)
            jobid = slurm("squeue", "--noheader", "--name=vb.shard_003", "--format=%i").strip()
            check(jobid.isdigit(), f"no queued job for shard_003: '{jobid}'")
            slurm("scancel", jobid)
            cancelled = time.monotonic()
            status = run.wait(timeout=120)
        finally:
            if run.poll() is None:
                run.send_signal(signal.SIGINT)
                run.wait(timeout=60)
    stopped_after = time.monotonic() - cancelled
    with open(ctx.path("cancel.out")) as handle:
        output = handle.read()
    check(status != 0, "the run succeeded although a shard was cancelled")
    check(stopped_after < 60, f"the run took {stopped_after:.0f} s to stop after the cancel")
    check(f"shard shard_003 failed: Slurm job {jobid} ended CANCELLED" in output,
          f"the failure does not name the shard:\n{output[-3000:]}")
    log = ctx.path("cancel", "logs", "shard_003.log")
    check(f"its log: {log}" in output, f"the failure does not say where the log is:\n{output[-3000:]}")
    with open(log) as handle:
        text = handle.read()
    check("[info]" in text and "stopped by SIGTERM" in text, f"shard_003's log:\n{text}")
    check(queued() == "", f"jobs left in the queue: {queued()}")
    print(f"  cancelled shard: the run stopped {stopped_after:.1f} s after scancel")

    # The next run redoes shard_003 alone.
    os.remove(stop)
    logs = {n: os.stat(ctx.path("cancel", "logs", n)).st_mtime_ns for n in os.listdir(ctx.path("cancel", "logs"))
            if n.startswith("shard_") and n != "shard_003.log"}
    ctx.run(command)
    check({n: os.stat(ctx.path("cancel", "logs", n)).st_mtime_ns for n in logs} == logs,
          "shards that had finished ran again")
    compare_save_folders(ctx.single_run("cancel_single", "--barcode_kits VB-NB24", input_path=reads),
                         ctx.path("cancel"), 0)
    check(queued() == "", f"jobs left in the queue: {queued()}")


def refused_shards(ctx, reads):
    """Over its memory, and more CPUs than the node has: failed, named."""
    result = ctx.run(readme_command(ctx, reads, "oom", "--set-resources", "barcode_shard:mem_mb=1",
                                    options="--barcode_kits VB-NB24") + ["files_per_shard=8"], expect=None)
    output = result.stdout + result.stderr
    check(result.returncode != 0 and "shard shard_000 failed" in output and "over its memory" in output
          and "barcode_shard:mem_mb=" in output, f"over its memory:\n{output[-3000:]}")

    result = ctx.run(readme_command(ctx, reads, "cpus", options="--barcode_kits VB-NB24", config=["threads=64"]),
                     expect=None)
    output = result.stdout + result.stderr
    check(result.returncode != 0 and "cannot start as asked (64 CPUs" in output and "PartitionConfig" in output,
          f"more CPUs than the node has:\n{output[-3000:]}")
    check(queued() == "", f"jobs left in the queue: {queued()}")


def timed(step, *args):
    start = time.monotonic()
    step(*args)
    print(f"  {step.__name__}: {time.monotonic() - start:.1f} s")


def case_readme(ctx):
    timed(readme_run, ctx, ctx.reads, "examples", 3)
    reads = simulate(ctx, "simulated", 4000, 8)
    timed(cancelled_shard, ctx, reads)
    timed(refused_shards, ctx, reads)


def case_large(ctx):
    reads = simulate(ctx, "simulated", 4000, 8)
    timed(readme_run, ctx, reads, "simulated", 8, OPTIONS + " -q 100", 4)


CASES = {"readme": case_readme, "large": case_large}


if __name__ == "__main__":
    sys.exit(main(CASES, "slurm_"))
