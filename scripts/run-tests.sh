#!/usr/bin/env bash
# Sets everything up and runs every test. ALIGN_SANITIZE=1 builds with AddressSanitizer and
# UndefinedBehaviorSanitizer and leaves out the real-data alignment runs (labels "realdata" and
# "long"); ALIGN_LONG_TESTS=0 leaves the longest of them (label "long") out of the normal build.
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
build="$(bash "$top/scripts/setup.sh" | tail -n 1)"
cd "$build"
if [ "${ALIGN_SANITIZE:-0}" = 1 ]; then
    export ASAN_OPTIONS=detect_leaks=0:abort_on_error=0
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    ctest --output-on-failure -j "$(nproc)" -LE "long|realdata"
elif [ "${ALIGN_LONG_TESTS:-1}" = 0 ]; then
    ctest --output-on-failure -j "$(nproc)" -LE long
else
    ctest --output-on-failure -j "$(nproc)"
fi
