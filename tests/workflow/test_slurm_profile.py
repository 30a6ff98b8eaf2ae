"""workflow/profiles/slurm/slurm.py against stand-ins for sbatch, scontrol,
sacct and scancel that answer as Slurm 22.05 does: the job states and
reasons a cluster run meets, mapped to running, success or failed, and what
a submission asks sbatch for. The real cluster is in slurm_driver.py."""

import json
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPT = os.path.join(HERE, "..", "..", "workflow", "profiles", "slurm", "slurm.py")

# Each stand-in logs its arguments and prints FAKE_<NAME>_OUT, or fails
# with FAKE_<NAME>_ERR on standard error.
FAKE = """#!/bin/sh
echo "$0 $*" >>"$FAKE_CALLS"
name=$(basename "$0" | tr a-z A-Z)
eval "err=\\${FAKE_${name}_ERR:-}" "out=\\${FAKE_${name}_OUT:-}"
if [ -n "$err" ]; then echo "$err" >&2; exit 1; fi
printf '%s' "$out"
"""


def scontrol_line(state, reason, name, stdout):
    return (f"JobId=42 JobName={name} UserId=root(0) GroupId=root(0) Priority=1 Account=lab42 JobState={state} "
            f"Reason={reason} Dependency=(null) ExitCode=0:15 RunTime=00:00:03 TimeLimit=00:10:00 NumCPUs=64 "
            f"MinMemoryNode=700M "
            f"WorkDir=/data StdErr={stdout} StdIn=/dev/null StdOut={stdout} Power=\n")


INVALID = "slurm_load_jobs error: Invalid job id specified"


class SlurmProfile(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.bin = os.path.join(self.dir.name, "bin")
        os.makedirs(self.bin)
        for name in ("sbatch", "scontrol", "sacct", "scancel"):
            path = os.path.join(self.bin, name)
            with open(path, "w") as handle:
                handle.write(FAKE)
            os.chmod(path, 0o755)
        self.calls = os.path.join(self.dir.name, "calls")

    def tearDown(self):
        self.dir.cleanup()

    def run_script(self, *args, **fake):
        # USER is unset on purpose: nothing may depend on it.
        env = {k: v for k, v in os.environ.items() if k != "USER" and not k.startswith("FAKE_")}
        env.update({f"FAKE_{k.upper()}": v for k, v in fake.items()}, FAKE_CALLS=self.calls,
                   PATH=self.bin + os.pathsep + env["PATH"])
        result = subprocess.run([sys.executable, SCRIPT, *args], capture_output=True, text=True, env=env,
                                cwd=self.dir.name, timeout=60)
        calls = []
        if os.path.exists(self.calls):
            with open(self.calls) as handle:
                calls = handle.read().splitlines()
            os.remove(self.calls)
        return result, calls

    def test_status(self):
        logs = os.path.join(self.dir.name, "o u t", "logs")
        os.makedirs(os.path.join(logs, "slurm"))
        open(os.path.join(logs, "shard_007.log"), "w").close()
        stdout = os.path.join(logs, "slurm", "shard_007-42.log")
        log = f"its log: {logs}/shard_007.log; Slurm's output: {stdout}"
        with open(os.path.join(logs, "slurm", "shard_008-42.log"), "w") as handle:
            handle.write("slurmstepd-n1: error: Exceeded job memory limit\n")
        with open(os.path.join(logs, "slurm", "shard_009-42.log"), "w") as handle:
            handle.write("slurmstepd-n1: error: *** JOB 42 ON n1 CANCELLED AT 2026-11-25T10:00:00 DUE TO TIME LIMIT ***\n")

        def line(state, reason="None", name="vb.shard_007", stdout=stdout):
            return scontrol_line(state, reason, name, stdout)

        cases = [
            # (scontrol out, scontrol err, sacct out, printed, words on stderr, scancel called)
            (line("RUNNING"), "", "", "running", [], False),
            (line("PENDING", "Priority"), "", "", "running", [], False),
            (line("COMPLETING"), "", "", "running", [], False),
            (line("SUSPENDED"), "", "", "running", [], False),
            (line("COMPLETED"), "", "", "success", [], False),
            (line("CANCELLED"), "", "", "failed",
             ["shard shard_007 failed: Slurm job 42 ended CANCELLED (exit code 0:15)", log], False),
            (line("TIMEOUT"), "", "", "failed", ["ended TIMEOUT", "barcode_shard:runtime=", log], False),
            (line("OUT_OF_MEMORY"), "", "", "failed", ["ended OUT_OF_MEMORY", "barcode_shard:mem_mb="],
             False),
            (line("NODE_FAIL"), "", "", "failed", ["ended NODE_FAIL"], False),
            (line("PREEMPTED"), "", "", "failed", ["ended PREEMPTED"], False),
            (line("FAILED"), "", "", "failed", ["ended FAILED"], False),
            (line("PENDING", "PartitionConfig"), "", "", "failed",
             ["shard shard_007 failed", "cannot start as asked (64 CPUs, 700M memory, 00:10:00 time; Slurm's "
              "reason: PartitionConfig", "was cancelled"], True),
            # Killed over its memory or time, as slurmstepd says: a hint, and
            # no shard log named where the shard never began one.
            (line("FAILED", name="vb.shard_008", stdout=f"{logs}/slurm/shard_008-42.log"), "", "", "failed",
             ["shard shard_008 failed", "ended FAILED (exit code 0:15), over its memory", "Slurm's output"], False),
            (line("CANCELLED", name="vb.shard_009", stdout=f"{logs}/slurm/shard_009-42.log"), "", "", "failed",
             ["ended CANCELLED (exit code 0:15), out of time"], False),
            (line("FAILED", name="vb.merge_shards", stdout=f"{logs}/slurm/merge-42.log"), "",
             "", "failed", ["rule merge_shards failed: Slurm job 42 ended FAILED (exit code 0:15); Slurm's output"],
             False),
            # Forgotten by slurmctld: the accounting database answers.
            ("", INVALID, "CANCELLED by 0|None|vb.shard_002|0:15\n", "failed",
             ["shard shard_002 failed: Slurm job 42 ended CANCELLED"], False),
            ("", INVALID, "COMPLETED|None|vb.shard_002|0:0\n", "success", [], False),
            ("", INVALID, "", "failed", ["unknown to slurmctld"], False),
            # slurmctld out of reach for a moment: keep waiting.
            ("", "slurm_load_jobs error: Unable to contact slurm controller", "", "running", ["cannot ask Slurm"],
             False),
        ]
        for scontrol_out, scontrol_err, sacct_out, printed, words, cancelled in cases:
            with self.subTest(scontrol=scontrol_out or scontrol_err, sacct=sacct_out):
                result, calls = self.run_script("status", "42", scontrol_out=scontrol_out, scontrol_err=scontrol_err,
                                                sacct_out=sacct_out)
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertEqual(result.stdout, printed + "\n")
                for word in words:
                    self.assertIn(word, result.stderr)
                if "shard_008" in result.stderr or "merge" in result.stderr:
                    self.assertNotIn("its log", result.stderr)
                if not words:
                    self.assertEqual(result.stderr, "")
                self.assertEqual(any(c.endswith("scancel 42") for c in calls), cancelled, calls)

    def jobscript(self, rule, wildcards, resources, threads=3, log="out/logs/shard_004.log"):
        properties = {"type": "single", "rule": rule, "local": False, "input": [], "output": [],
                      "wildcards": wildcards, "params": {}, "log": [log] if log else [], "threads": threads,
                      "resources": resources, "jobid": 5, "cluster": {}}
        path = os.path.join(self.dir.name, "snakejob.sh")
        with open(path, "w") as handle:
            handle.write(f"#!/bin/sh\n# properties = {json.dumps(properties)}\necho job\n")
        return path

    def test_submit(self):
        full = {"mem_mb": 700, "runtime": 25, "slurm_account": "lab42", "slurm_partition": "short",
                "slurm_extra": "--qos=long --constraint='a b'", "tmpdir": "/tmp"}
        out = os.path.join(self.dir.name, "out", "logs", "slurm")
        cases = [
            ("barcode_shard", {"shard": "shard_004"}, full, "out/logs/shard_004.log",
             ["--job-name=vb.shard_004", f"--output={out}/shard_004-%j.log", "--cpus-per-task=3", "--mem=700",
              "--time=25", "--account=lab42", "--partition=short", "--qos=long", "--constraint=a b"]),
            ("merge_shards", {}, {"mem_mb": 1000}, "out/logs/merge.log",
             ["--job-name=vb.merge_shards", f"--output={out}/merge-%j.log", "--mem=1000"]),
            ("barcode_shard", {"shard": "shard_000"}, {}, None,
             ["--job-name=vb.shard_000", f"--output={self.dir.name}/.snakemake/slurm/shard_000-%j.log"]),
        ]
        for rule, wildcards, resources, log, expected in cases:
            with self.subTest(rule=rule, resources=resources):
                script = self.jobscript(rule, wildcards, resources, log=log)
                result, calls = self.run_script("submit", script, sbatch_out="123;vbtest\n")
                self.assertEqual((result.returncode, result.stdout), (0, "123\n"), result.stderr)
                self.assertEqual(len(calls), 1)
                args = calls[0].split(" ")
                for option in expected:
                    if " " not in option:
                        self.assertIn(option, args)
                    else:
                        self.assertIn(option, calls[0])
                self.assertEqual(args[-1], script)
                self.assertTrue(os.path.isdir(os.path.dirname(expected[1].split("=", 1)[1])))
                if "slurm_account" not in resources:
                    self.assertFalse([a for a in args if a.startswith(("--account", "--partition"))], args)

        script = self.jobscript("barcode_shard", {"shard": "shard_009"}, {"mem_mb": 700}, threads=64)
        result, _ = self.run_script("submit", script, sbatch_err="sbatch: error: Batch job submission failed: "
                                    "Requested node configuration is not available")
        self.assertEqual(result.returncode, 1)
        self.assertIn("shard_009: sbatch refused the job: sbatch: error: Batch job submission failed: Requested node "
                      "configuration is not available", result.stderr)
        self.assertIn("--cpus-per-task=64", result.stderr)


if __name__ == "__main__":
    unittest.main()
