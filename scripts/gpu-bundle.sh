#!/usr/bin/env bash
# Prepares the GPU check for a GPU machine that can neither install packages
# nor reach a package registry: builds here, with the kernels for that GPU
# alone, and puts the shared libraries the programs need (other than the C
# and C++ runtimes and the compression libraries every system has) beside the
# build, in DIR/bundle-libs.
#
#   scripts/gpu-bundle.sh [--build DIR] ARCH
#
# ARCH is the GPU's compute capability without the dot (90 for an H100 or
# H200). Copy the source tree with DIR (default build-gpu, inside the tree)
# to the GPU machine, or send them with the session's device tool, and run
# there, from the tree's root:
#
#   scripts/gpu-check.sh --prebuilt --build DIR OUT
#
# gpu-check.sh then uses DIR/bundle-libs, the python3 it finds, and links the
# path the tree had here to the tree there (the tests name it) when that path
# is free.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build-gpu
while [ $# -gt 0 ]; do
  case $1 in
    --build) build=$2; shift 2 ;;
    -*) echo "gpu-bundle: unknown option $1" >&2; exit 2 ;;
    *) arch=$1; shift ;;
  esac
done
if [ -z "${arch:-}" ] || [[ ! "$arch" =~ ^[0-9]+$ ]]; then
  echo "usage: $0 [--build DIR] ARCH   (ARCH: compute capability without the dot, e.g. 90)" >&2
  exit 2
fi
case $build in /*) echo "gpu-bundle: give DIR inside the source tree, relative to it" >&2; exit 2 ;; esac

bash scripts/install-deps.sh test
PATH=$PATH:/usr/local/cuda/bin
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DVB_CUDA=ON "-DVB_CUDA_ARCHITECTURES=$arch" > /dev/null
cmake --build "$build" -j "$(nproc)"
[ -s "$build/kernels/fastalign.fatbin" ] || { echo "gpu-bundle: no GPU kernels were built (nvcc missing?)" >&2; exit 1; }

libs=$build/bundle-libs
rm -rf "$libs"
mkdir -p "$libs"
ldd "$build"/bin/* 2>/dev/null | awk '/=> \// { print $1, $3 }' | sort -u |
  while read -r name path; do
    case $name in
      libc.so* | libm.so* | libpthread.so* | libdl.so* | librt.so* | ld-linux* | libstdc++.so* | libgcc_s.so* | \
        libz.so* | liblzma.so* | libbz2.so*) ;;
      *) cp -L "$path" "$libs/$name" ;;
    esac
  done
# What only the build needed, and what earlier tests left, need not travel.
find "$build" -name '*.o' -delete
rm -rf "$build"/tests/e2e/work "$build"/gpu_emulated_end_to_end
echo "gpu-bundle: $build is ready ($(du -sh "$build" | cut -f1), libraries: $(ls "$libs" | tr '\n' ' '))"
echo "on the GPU machine, from the source tree's root: scripts/gpu-check.sh --prebuilt --build $build OUT"
