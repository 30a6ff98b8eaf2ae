#!/usr/bin/env bash
# with_slurm.sh [--cpus N] WORK -- COMMAND...: runs COMMAND against a throw-away one-node Slurm cluster (munge,
# slurmctld, one slurmd offering N CPUs, by default the machine's; state under WORK) in network, PID and mount
# namespaces of its own, so that nothing of it is reachable from outside or outlives the run. COMMAND sees
# SLURM_CONF, VB_SLURM_INSIDE and the default partition "debug". Exits with its status, or 77 (skipped) with the
# reason where the cluster cannot run (root, namespaces, Debian's slurm-wlm and munge: install-deps.sh slurm).
set -euo pipefail

skip() { echo "SKIPPED: one-node Slurm cluster: $*" >&2; exit 77; }

cpus=$(nproc)
[ "${1:-}" != --cpus ] || { cpus=$2; shift 2; }
[ $# -ge 3 ] && [ "$2" = -- ] || { echo "usage: with_slurm.sh [--cpus N] WORK -- COMMAND..." >&2; exit 2; }
work=$(realpath -m "$1")
shift 2

if [ -z "${VB_SLURM_INSIDE:-}" ]; then
  [ "$(id -u)" -eq 0 ] || skip "the daemons need root (slurmd starts jobs as their owner)"
  for program in munged mungekey slurmctld slurmd sbatch; do
    PATH="$PATH:/usr/sbin:/sbin" command -v "$program" >/dev/null || skip "no $program (install-deps.sh slurm)"
  done
  namespaces=(unshare --net --pid --mount --uts --fork --kill-child --mount-proc)
  "${namespaces[@]}" true 2>/dev/null ||
    skip "unshare refused namespaces; without them the cluster's ports and munge socket could clash with a real one"
  # Again as the namespaces' first process: when it or unshare (killed with this script) ends, every daemon ends.
  VB_SLURM_INSIDE=1 setpriv --pdeathsig KILL -- "${namespaces[@]}" "$0" --cpus "$cpus" "$work" -- "$@" &
  trap 'kill -KILL $!; exit 143' TERM INT  # unshare itself ignores both
  status=0
  wait $! || status=$?
  exit "$status"
fi
export PATH="$PATH:/usr/sbin:/sbin"

# A folder of an earlier cluster is emptied, no other.
[ ! -e "$work" ] || [ -e "$work/.vb_slurm_cluster" ] || { echo "with_slurm: $work: not a cluster folder" >&2; exit 2; }
rm -rf "$work"
mkdir -p "$work"/{state,spool,run}
touch "$work/.vb_slurm_cluster"
chmod 700 "$work"
# On failure the daemons' logs may say why.
trap 'status=$?; [ "$status" -eq 0 ] || tail -n 15 "$work"/run/*.log >&2; exit "$status"' EXIT

ip link set lo up
# Slurm resolves addresses with AI_ADDRCONFIG, for which 127.0.0.1 alone
# does not count as IPv4 being configured; a second loopback address does.
address=127.0.0.2
ip addr add $address/32 dev lo
hostname vbhost
echo "$address vbhost localhost" >"$work/run/hosts"
mount --bind "$work/run/hosts" /etc/hosts
# A /run of our own: munge and the Slurm clients meet at munge's default socket.
mount -t tmpfs -o mode=755 vbrun /run
mkdir -p /run/munge
mungekey --create --keyfile="$work/run/munge.key" >/dev/null
chmod 400 "$work/run/munge.key"
munged --force --key-file="$work/run/munge.key" --log-file="$work/run/munged.log" \
  --seed-file="$work/run/munged.seed" >>"$work/run/munged.log" 2>&1

# config_overrides: the node offers the CPUs configured here, not those slurmd finds.
cat >"$work/slurm.conf" <<EOF
ClusterName=vbtest
SlurmctldHost=vbhost($address)
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldLogFile=$work/run/slurmctld.log
SlurmdLogFile=$work/run/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core_Memory
SlurmdParameters=config_overrides
MailProg=/bin/true
ReturnToService=2
KillWait=5
JobAcctGatherType=jobacct_gather/linux
JobAcctGatherFrequency=task=1
JobAcctGatherParams=OverMemoryKill
NodeName=vbnode NodeAddr=$address NodeHostname=vbhost CPUs=$cpus RealMemory=$((cpus * 1000)) State=UNKNOWN
PartitionName=debug Nodes=vbnode Default=YES MaxTime=INFINITE State=UP
EOF
# Read by slurmd wherever it looks for a cgroup plugin: the first hierarchy.
echo "CgroupPlugin=cgroup/v1" >"$work/cgroup.conf"
export SLURM_CONF=$work/slurm.conf
slurmctld -f "$SLURM_CONF" >>"$work/run/slurmctld.log" 2>&1
slurmd -f "$SLURM_CONF" -N vbnode >>"$work/run/slurmd.log" 2>&1
for _ in $(seq 300); do
  [ "$(timeout 5 sinfo -h -n vbnode -o %T 2>/dev/null)" = idle ] && break
  sleep 0.2
done
[ "$(sinfo -h -n vbnode -o %T)" = idle ] || { echo "with_slurm: the node did not come up" >&2; exit 1; }

"$@"
