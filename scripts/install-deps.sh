#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need. Idempotent: when
# everything is already there it only checks and says nothing.
#   scripts/install-deps.sh              what the build and the tests need
#   scripts/install-deps.sh --optional   also the tools some tests use when
#                                        present (samtools: the BAM tests)
set -euo pipefail

packages=(
  build-essential cmake ccache pkg-config python3 gzip
  zlib1g-dev libhts-dev
  libboost-program-options-dev libboost-filesystem-dev libboost-iostreams-dev
  libboost-log-dev libboost-thread-dev libboost-date-time-dev libboost-regex-dev
  libboost-system-dev libboost-chrono-dev libboost-atomic-dev libboost-timer-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
)
optional=(samtools)
if [ "${1:-}" = "--optional" ]; then
  packages+=("${optional[@]}")
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
