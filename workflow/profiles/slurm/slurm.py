#!/usr/bin/env python3
"""Slurm glue of the barcoding workflow's profile, called by Snakemake:

  slurm.py submit JOBSCRIPT   submits the job, prints its Slurm job id
  slurm.py status JOBID       prints running, success or failed

submit reads the job's rule, shard, threads and resources from the job script
Snakemake wrote and hands them to sbatch: the job is named vb.<shard> (or
vb.<rule>), asks for the rule's threads as CPUs and its mem_mb and runtime,
and writes Slurm's own output beside the rule's log: logs/shard_007.log and
logs/slurm/shard_007-<job id>.log. The
resources slurm_account, slurm_partition and slurm_extra (further sbatch
options) are passed on when set, e.g. with --default-resources.

status asks slurmctld first and the accounting database once slurmctld has
forgotten the job. Any end but COMPLETED is a failure (cancelled, timed out,
out of memory, node failure, ...), and so is a job that waits for a reason
only a changed request can clear; failures are explained on standard error
with the shard's name and where its logs are. Standard library only.
"""

import json
import os
import re
import shlex
import subprocess
import sys

JOB_PREFIX = "vb."
# A pending job with one of these reasons never starts as it was asked for.
HOPELESS_REASONS = {"BadConstraints", "PartitionConfig", "PartitionTimeLimit", "InvalidAccount", "InvalidQOS",
                    "AccountNotAllowed"}
# States in which a job has not ended yet (squeue's list, less the ends).
WAITING_STATES = {"PENDING", "CONFIGURING", "RUNNING", "COMPLETING", "SUSPENDED", "REQUEUED", "REQUEUE_FED",
                  "REQUEUE_HOLD", "RESIZING", "RESV_DEL_HOLD", "SIGNALING", "STAGE_OUT", "STOPPED"}


def fail(message):
    print(f"slurm.py: {message}", file=sys.stderr)
    sys.exit(1)


def run(args):
    """(status, stdout, stderr) of a Slurm command; a missing one is status 127."""
    try:
        result = subprocess.run(args, capture_output=True, text=True, timeout=60)
    except FileNotFoundError:
        return 127, "", f"{args[0]}: command not found"
    except subprocess.TimeoutExpired:
        return 124, "", f"{args[0]} did not answer within 60 s"
    return result.returncode, result.stdout, result.stderr.strip()


# ---------------------------------------------------------------- submit

def job_properties(jobscript):
    with open(jobscript, encoding="utf-8") as handle:
        for line in handle:
            if line.startswith("# properties = "):
                return json.loads(line[len("# properties = "):])
    fail(f"{jobscript} holds no '# properties = ' line; is this a Snakemake job script?")


def job_name(properties):
    """vb.shard_007 for a shard, vb.<rule> for any other job."""
    shard = properties.get("wildcards", {}).get("shard")
    return JOB_PREFIX + (shard or properties.get("rule", "job"))


def sbatch_args(properties, output):
    resources = properties.get("resources", {})
    args = ["sbatch", "--parsable", f"--job-name={job_name(properties)}", f"--output={output}",
            f"--cpus-per-task={properties.get('threads', 1)}"]
    for resource, option in (("mem_mb", "--mem"), ("runtime", "--time"), ("slurm_account", "--account"),
                             ("slurm_partition", "--partition")):
        if resources.get(resource) not in (None, ""):
            args.append(f"{option}={resources[resource]}")
    args += shlex.split(str(resources.get("slurm_extra", "")))
    return args


def submit(jobscript):
    properties = job_properties(jobscript)
    name = job_name(properties)
    # Slurm's output goes beside the rule's log: logs/shard_007.log and
    # logs/slurm/shard_007-<job id>.log.
    logs = properties.get("log") or []
    folder, stem = (os.path.dirname(os.path.abspath(logs[0])), os.path.basename(logs[0])) if logs else (
        os.path.abspath(".snakemake"), name[len(JOB_PREFIX):])
    folder = os.path.join(folder, "slurm")
    os.makedirs(folder, exist_ok=True)
    args = sbatch_args(properties, os.path.join(folder, re.sub(r"\.log$", "", stem) + "-%j.log"))
    status, out, err = run(args + [jobscript])
    if status != 0:
        fail(f"{name[len(JOB_PREFIX):]}: sbatch refused the job: {err or out}\n  (sbatch {shlex.join(args[1:])})")
    print(out.strip().split(";")[0])


# ---------------------------------------------------------------- status

def scontrol_fields(text):
    """'JobId=5 JobName=vb.shard_001 ... StdOut=/a b/c.log' -> dict; values
    may hold spaces (paths), keys are the words before '='."""
    fields = {}
    for match in re.finditer(r"(?:^|\s)([A-Za-z:/]+)=(.*?)(?=\s+[A-Za-z:/]+=|\s*$)", text.strip()):
        fields.setdefault(match.group(1), match.group(2))
    return fields


def query(jobid):
    """The job as (state, reason, name, exit code, Slurm output path, what
    it asks for); None
    when neither slurmctld nor the accounting database knows it, "" when
    slurmctld cannot be asked now."""
    status, out, err = run(["scontrol", "show", "job", "--oneliner", jobid])
    if status == 0 and out.strip():
        fields = scontrol_fields(out)
        asked = f"{fields.get('NumCPUs', '?')} CPUs, {fields.get('MinMemoryNode', '?')} memory, " \
                f"{fields.get('TimeLimit', '?')} time"
        return (fields.get("JobState", ""), fields.get("Reason", ""), fields.get("JobName", ""),
                fields.get("ExitCode", ""), fields.get("StdOut", ""), asked)
    if "Invalid job id" not in err:
        print(f"slurm.py: cannot ask Slurm about job {jobid} now: {err}", file=sys.stderr)
        return ""
    # slurmctld forgets ended jobs after MinJobAge; accounting remembers them.
    status, out, _ = run(["sacct", "--noheader", "--parsable2", "--allocations", "--jobs", jobid,
                          "--format=State,Reason,JobName,ExitCode"])
    lines = out.strip().splitlines() if status == 0 else []
    if lines:
        state, reason, name, code = (lines[0].split("|") + ["", "", "", ""])[:4]
        return state, reason, name, code, "", ""
    return None


def slurm_verdict(slurm_output):
    """What slurmstepd wrote at the end of the job's output about why it
    ended: a job killed over its memory may end FAILED, not OUT_OF_MEMORY."""
    try:
        with open(slurm_output, "rb") as handle:
            handle.seek(max(0, os.path.getsize(slurm_output) - 4096))
            tail = handle.read().decode("utf-8", "replace")
    except OSError:
        return ""
    if "memory limit" in tail or "oom-kill" in tail or "OUT_OF_MEMORY" in tail:
        return "OUT_OF_MEMORY"
    if "DUE TO TIME LIMIT" in tail:
        return "TIMEOUT"
    return ""


def explain(jobid, name, what, slurm_output):
    """One message naming the shard (or rule) and where to read more."""
    subject = name[len(JOB_PREFIX):] if name.startswith(JOB_PREFIX) else name or "job"
    kind = "shard " if subject.startswith("shard_") else "rule "
    where = ""
    if slurm_output:
        log = os.path.join(os.path.dirname(os.path.dirname(slurm_output)),
                           re.sub(r"-[0-9]+\.log$", ".log", os.path.basename(slurm_output)))
        where = (f"; its log: {log}" if os.path.exists(log) else "") + f"; Slurm's output: {slurm_output}"
    print(f"{kind}{subject} failed: Slurm job {jobid} {what}{where}", file=sys.stderr)


def status(jobid):
    found = query(jobid)
    if found == "":
        return "running"
    if found is None:
        explain(jobid, "", "is unknown to slurmctld and to the accounting database (sacct); "
                "it may have ended long ago", "")
        return "failed"
    state, reason, name, code, slurm_output, asked = found
    # sacct writes "CANCELLED by 1000"; the first word is the state.
    state = state.split(" ")[0]
    if state == "COMPLETED":
        return "success"
    if state in WAITING_STATES:
        if state == "PENDING" and reason in HOPELESS_REASONS:
            run(["scancel", jobid])
            explain(jobid, name, f"cannot start as asked ({asked}; Slurm's reason: {reason}: more than the "
                    "partition's nodes or limits allow, or an account it does not take) and was cancelled; "
                    "fewer threads, --set-resources or another partition may fit", slurm_output)
            return "failed"
        return "running"
    hints = {"OUT_OF_MEMORY": ", over its memory: ask for more with --set-resources barcode_shard:mem_mb=...",
             "TIMEOUT": ", out of time: ask for more with --set-resources barcode_shard:runtime=..."}
    verdict = state if state in hints else slurm_verdict(slurm_output)
    explain(jobid, name, f"ended {state}" + (f" (exit code {code})" if code else "") + hints.get(verdict, ""),
            slurm_output)
    return "failed"


def main(argv):
    if len(argv) != 3 or argv[1] not in ("submit", "status"):
        fail("usage: slurm.py submit JOBSCRIPT | slurm.py status JOBID")
    if argv[1] == "submit":
        submit(argv[2])
    else:
        print(status(argv[2]))


if __name__ == "__main__":
    main(sys.argv)
