#!/usr/bin/env bash
# Runs a command against a throw-away one-node Slurm cluster: munge, MariaDB
# (socket only), slurmdbd, slurmctld and one slurmd, all on the loopback
# address, all state under WORK. Every daemon is stopped when the command
# ends, also when it fails or this script is interrupted; where the machine
# allows namespaces the cluster lives in a network and PID namespace of its
# own, so nothing of it is reachable from outside or can outlive the run.
#
#   with_slurm.sh [--cpus N] WORK -- COMMAND...
#
# --cpus sets the CPUs the node offers Slurm (default: the machine's); more
# than the machine has simulates a larger node. COMMAND runs with SLURM_CONF
# set, the partition "debug" as default and the account "vbtest" registered.
# Exits with COMMAND's status, or 77 (skipped) with the reason where this
# machine cannot run a cluster (needs root and Debian's slurm-wlm, slurmdbd,
# munge and mariadb-server: scripts/install-deps.sh slurm).
set -euo pipefail

skip() {
  echo "SKIPPED: one-node Slurm cluster: $*" >&2
  exit 77
}

cpus=$(nproc)
if [ "${1:-}" = --cpus ]; then
  cpus=$2
  shift 2
fi
[ $# -ge 3 ] && [ "$2" = -- ] || { echo "usage: with_slurm.sh [--cpus N] WORK -- COMMAND..." >&2; exit 2; }
work=$(realpath -m "$1")
shift 2

# Enter fresh network, PID, mount and UTS namespaces once: the kernel ends
# every process of a PID namespace with its first one, whatever happens to
# this script, and the network namespace has nothing but its own loopback.
if [ -z "${VB_SLURM_INSIDE:-}" ]; then
  [ "$(id -u)" -eq 0 ] || skip "the daemons need root (slurmd starts jobs as their owner)"
  for program in munged mungekey mariadbd mariadb-install-db slurmdbd slurmctld slurmd sbatch sacctmgr; do
    command -v "$program" >/dev/null || [ -x "/usr/sbin/$program" ] ||
      skip "$program not installed (scripts/install-deps.sh slurm)"
  done
  namespaces=(unshare --net --pid --mount --uts --fork --kill-child --mount-proc)
  "${namespaces[@]}" true 2>/dev/null ||
    skip "unshare refused namespaces here; without its own network and mount namespace the cluster's ports and munge socket could clash with a real one"
  # unshare itself ignores SIGTERM; the script inside is told instead, and
  # killed (and with it the whole namespace) if it does not end in time, or
  # at once when this script is killed (SIGKILL, e.g. a test's time limit).
  VB_SLURM_INSIDE=1 setpriv --pdeathsig KILL -- "${namespaces[@]}" "$0" --cpus "$cpus" "$work" -- "$@" &
  outer=$!
  forward() {
    local inner
    inner=$(ps -o pid= --ppid "$outer" || true)
    [ -n "$inner" ] && kill -TERM $inner 2>/dev/null
    for _ in $(seq 150); do kill -0 "$outer" 2>/dev/null || return 0; sleep 0.1; done
    kill -KILL "$outer" 2>/dev/null || true
  }
  trap 'forward; exit 143' TERM
  trap 'forward; exit 130' INT
  status=0
  wait "$outer" || status=$?
  exit "$status"
fi
export PATH="$PATH:/usr/sbin:/sbin"

# A folder of an earlier cluster is emptied, no other.
if [ -e "$work" ]; then
  [ -e "$work/.vb_slurm_cluster" ] || { echo "with_slurm: $work exists and is not a cluster folder" >&2; exit 2; }
  rm -rf "$work"
fi
mkdir -p "$work"/{db,state,spool,run}
touch "$work/.vb_slurm_cluster"
chmod 700 "$work"
pids=()

stop_cluster() {
  local status=$?
  trap - EXIT INT TERM
  if [ -n "${SLURM_CONF:-}" ]; then
    # Jobs first, so that no job step outlives its slurmd.
    timeout 10 scancel --quiet --full --state=PENDING,RUNNING,SUSPENDED "--user=$(id -u)" 2>/dev/null || true
  fi
  local pid i
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    pid=${pids[i]}
    kill -TERM "$pid" 2>/dev/null || continue
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
  done
  wait 2>/dev/null || true
  if [ "$status" -ne 0 ] && [ "$status" -ne 77 ]; then
    for log in "$work"/run/*.log; do
      [ -s "$log" ] && { echo "---- tail of $log"; tail -n 15 "$log"; } >&2
    done
  fi
  exit "$status"
}
trap stop_cluster EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Daemons that fork into the background report their pid in a file.
pid_from_file() {
  for _ in $(seq 100); do
    [ -s "$1" ] && { pids+=("$(cat "$1")"); return 0; }
    sleep 0.1
  done
  echo "with_slurm: $2 did not start; see $work/run/$2.log" >&2
  return 1
}

# Polls COMMAND until it succeeds, giving up when the daemon started last
# has died or after SECONDS.
wait_for() {  # SECONDS WHAT COMMAND...
  local seconds=$1 what=$2 deadline output=""
  shift 2
  deadline=$((SECONDS + seconds))
  while [ $SECONDS -lt $deadline ]; do
    output=$(timeout 5 "$@" 2>&1) && return 0
    kill -0 "${pids[-1]}" 2>/dev/null || break
    sleep 0.2
  done
  echo "with_slurm: $what not ready: $*: $output" >&2
  return 1
}

ip link set lo up
# Slurm resolves addresses with AI_ADDRCONFIG, for which 127.0.0.1 alone
# does not count as IPv4 being configured; a second loopback address does.
address=127.0.0.2
ip addr add $address/32 dev lo
hostname vbhost
host=vbhost
echo "$address $host localhost" >"$work/run/hosts"
mount --bind "$work/run/hosts" /etc/hosts
# A /run of our own: munge and the Slurm clients meet at munge's default
# socket, where no real munged can be.
mount -t tmpfs -o mode=755 vbrun /run
mkdir -p /run/munge
base_port=6817

# munge, with a key of our own.
mungekey --create --keyfile="$work/run/munge.key" >/dev/null
chmod 400 "$work/run/munge.key"
munged --force --key-file="$work/run/munge.key" --pid-file="$work/run/munged.pid" \
  --log-file="$work/run/munged.log" --seed-file="$work/run/munged.seed" >>"$work/run/munged.log" 2>&1
pid_from_file "$work/run/munged.pid" munged

# MariaDB without networking: slurmdbd reaches it through the socket.
db_socket=$work/run/mysql.socket
db_options=(--no-defaults "--datadir=$work/db" --user=root --innodb-buffer-pool-size=32M --innodb-log-file-size=16M)
mariadb-install-db "${db_options[@]}" --auth-root-authentication-method=normal --skip-test-db --skip-name-resolve >"$work/run/mariadb-install.log" 2>&1
mariadbd "${db_options[@]}" --socket="$db_socket" --skip-networking --pid-file="$work/run/mariadbd.pid" \
  --log-error="$work/run/mariadbd.log" --innodb-lock-wait-timeout=900 >>"$work/run/mariadbd.log" 2>&1 &
pids+=("$!")
wait_for 60 MariaDB test -S "$db_socket"

cat >"$work/slurmdbd.conf" <<EOF
AuthType=auth/munge
DbdAddr=$address
DbdHost=$host
DbdPort=$((base_port + 2))
SlurmUser=root
LogFile=$work/run/slurmdbd.log
PidFile=$work/run/slurmdbd.pid
StorageType=accounting_storage/mysql
StorageHost=localhost
StorageUser=root
StorageLoc=slurm_acct_db
EOF
chmod 600 "$work/slurmdbd.conf"

# The node: as many CPUs as asked; more than the machine has works because
# the configured figures override what slurmd finds.
cat >"$work/slurm.conf" <<EOF
ClusterName=vbtest
SlurmctldHost=$host($address)
SlurmctldPort=$base_port
SlurmdPort=$((base_port + 1))
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
CredType=cred/munge
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/run/slurmctld.pid
SlurmdPidFile=$work/run/slurmd.pid
SlurmctldLogFile=$work/run/slurmctld.log
SlurmdLogFile=$work/run/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core_Memory
SlurmdParameters=config_overrides
MpiDefault=none
MailProg=/bin/true
ReturnToService=2
KillWait=5
AccountingStorageType=accounting_storage/slurmdbd
AccountingStorageHost=$host
AccountingStoragePort=$((base_port + 2))
JobAcctGatherType=jobacct_gather/linux
JobAcctGatherFrequency=task=1
JobAcctGatherParams=OverMemoryKill
NodeName=vbnode NodeAddr=$address NodeHostname=$host CPUs=$cpus RealMemory=$((cpus * 1000)) State=UNKNOWN
PartitionName=debug Nodes=vbnode Default=YES MaxTime=INFINITE State=UP
EOF
# Read by slurmd wherever it looks for a cgroup plugin: the first hierarchy.
echo "CgroupPlugin=cgroup/v1" >"$work/cgroup.conf"

# slurmdbd.conf is read from the folder of slurm.conf.
export SLURM_CONF=$work/slurm.conf
MYSQL_UNIX_PORT=$db_socket slurmdbd >>"$work/run/slurmdbd.log" 2>&1
pid_from_file "$work/run/slurmdbd.pid" slurmdbd
wait_for 60 slurmdbd sacctmgr -n list cluster
timeout 30 sacctmgr -i add cluster vbtest >/dev/null
timeout 30 sacctmgr -i add account vbtest description=tests organization=tests >/dev/null
timeout 30 sacctmgr -i add user "$(id -un)" account=vbtest >/dev/null

slurmctld -f "$work/slurm.conf" >>"$work/run/slurmctld.log" 2>&1
pid_from_file "$work/run/slurmctld.pid" slurmctld
slurmd -f "$work/slurm.conf" -N vbnode >>"$work/run/slurmd.log" 2>&1
pid_from_file "$work/run/slurmd.pid" slurmd
wait_for 60 "the node" sh -c '[ "$(sinfo -h -n vbnode -o %T)" = idle ]'

# In the background, so that a signal to this script is handled at once:
# the command is told and the cluster stopped.
"$@" &
command_pid=$!
trap 'kill -TERM "$command_pid" 2>/dev/null; exit 143' TERM
trap 'kill -INT "$command_pid" 2>/dev/null; exit 130' INT
status=0
wait "$command_pid" || status=$?
exit "$status"
