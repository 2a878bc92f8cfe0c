#!/usr/bin/env bash
# Installs the Debian packages that align needs to build, test and run (as root), then
# configures and builds it. BUILD_DIR and ALIGN_SANITIZE=1 select the build.
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
if [ "$(id -u)" = 0 ] && [ "${ALIGN_SKIP_APT:-0}" != 1 ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update
    apt-get install -y --no-install-recommends \
        build-essential cmake pkg-config git ca-certificates \
        libx11-dev libfftw3-dev libniftiio-dev libnifti2-dev libznz-dev zlib1g-dev \
        libgtest-dev googletest libbenchmark-dev \
        xvfb xauth xdotool x11-apps x11-utils imagemagick \
        mricron-data python3 python3-nibabel python3-numpy \
        clang libclang-rt-14-dev llvm \
        libpng-dev nlohmann-json3-dev parallel slurm-wlm munge
fi
sanitize="${ALIGN_SANITIZE:-0}"
if [ "$sanitize" = 1 ]; then build="${BUILD_DIR:-$top/build-asan}"; else build="${BUILD_DIR:-$top/build}"; fi
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DALIGN_WERROR=ON \
      -DALIGN_SANITIZE="$([ "$sanitize" = 1 ] && echo ON || echo OFF)" \
      -DALIGN_BENCHMARKS="$([ "$sanitize" = 1 ] && echo OFF || echo ON)"
cmake --build "$build" -j "$(nproc)"
echo "$build"
