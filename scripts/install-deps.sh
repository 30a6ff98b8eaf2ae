#!/usr/bin/env bash
# Installs the Debian packages the program needs to build. Idempotent: when
# everything is already there it only checks and says nothing.
#
# Optional groups, named as arguments, add what some builds and tools need:
#   test         GoogleTest, Google Benchmark, Python and ccache, for the tests
#                and benchmarks (make test and make build name it; make demo
#                does not)
#   fuzz         clang and its libFuzzer runtime, for the fuzz targets (-DVB_FUZZ=ON)
#   calibration  pbsim, the second read error model of tools/calibrate.py
#                (which installs it itself when missing)
#   optional     samtools, used by the BAM tests when present
#   workflow     Snakemake, for the sharded workflow (workflow/) and its tests
#   report       Chromium and MultiQC, which the report tests open the HTML
#                report and the MultiQC files with
#   slurm        Slurm, munge, slurmdbd and MariaDB, for the test that runs the
#                workflow's Slurm profile on a one-node cluster of its own
#                (the test starts and stops its daemons; none is started here)
# e.g. `bash scripts/install-deps.sh test fuzz`, as .ci/run does.
set -euo pipefail

# The compiler and make (not all of build-essential: its packaging tools are
# never used here), then one package for each library the build includes or
# links: Boost's program_options and headers (property_tree), zlib, ISA-L and
# htslib.
packages=(
  g++ make cmake pkg-config
  libboost-dev libboost-program-options-dev
  zlib1g-dev libisal-dev libhts-dev
)
for group in "$@"; do
  case "${group#--}" in
    test) packages+=(libgtest-dev libbenchmark-dev python3 ccache) ;;
    fuzz) packages+=(clang libclang-rt-14-dev) ;;
    calibration) packages+=(pbsim) ;;
    optional) packages+=(samtools) ;;
    workflow) packages+=(snakemake) ;;
    report) packages+=(chromium multiqc) ;;
    slurm) packages+=(slurm-wlm munge slurmdbd mariadb-server) ;;
    *) echo "install-deps: unknown group '$group' (known: test, fuzz, calibration, optional, workflow, report, slurm)" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  # The status is captured, not piped into `grep -q`: under pipefail an early
  # grep exit could kill dpkg-query and make an installed package look missing.
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  if [ "$status" != "install ok installed" ]; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
# Debian starts a package's service when it installs it; the slurm group's
# daemons are the test's to start (with its own configuration), so while
# they are installed a policy that starts none is in place, unless the
# machine has a policy of its own.
policy=/usr/sbin/policy-rc.d
if [[ " ${missing[*]} " =~ \ (slurm-wlm|munge|slurmdbd|mariadb-server)\  ]] && [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | $SUDO tee "$policy" >/dev/null
  $SUDO chmod 755 "$policy"
  trap '$SUDO rm -f "$policy"' EXIT
fi
# dpkg without a sync of every unpacked file: on a new machine it then takes a
# third less time (the program's packages on a loaded 2-core machine: 134 ->
# 95 s). The price: a crash in the middle may leave unpacked files empty, and
# those packages want `apt-get install --reinstall` afterwards.
$SUDO apt-get install -y -qq --no-install-recommends -o Dpkg::Options::=--force-unsafe-io "${missing[@]}" >/dev/null
