#!/usr/bin/env bash
# Sets everything up and runs every test: the normal build with every ctest (the real-data
# acceptances included), then an AddressSanitizer + UndefinedBehaviorSanitizer build without the
# real-data runs (labels "realdata" and "long"), then the fuzz stage (scripts/run-fuzz.sh).
# Non-zero on any failure; the stages still to run are skipped then.
#   ALIGN_STAGES   the stages to run, any of "normal sanitize fuzz" (default: all three)
#   ALIGN_LONG_TESTS=0   leaves the longest real-data run (label "long") out of the normal build
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
stages="${ALIGN_STAGES:-normal sanitize fuzz}"
apt_done=0

# run_ctest <sanitize 0|1> <ctest label exclusion or empty>
run_ctest() {
    local build
    build="$(ALIGN_SANITIZE=$1 ALIGN_SKIP_APT=$apt_done bash "$top/scripts/setup.sh" | tail -n 1)"
    apt_done=1
    local exclude=()
    [ -n "$2" ] && exclude=(-LE "$2")
    (cd "$build" && ctest --output-on-failure -j "$(nproc)" "${exclude[@]}")
}

for stage in $stages; do
    echo "=== $stage stage: started $(date -u +%H:%M:%S)"
    case "$stage" in
        normal)
            if [ "${ALIGN_LONG_TESTS:-1}" = 0 ]; then run_ctest 0 long; else run_ctest 0 ""; fi ;;
        sanitize)
            export ASAN_OPTIONS=detect_leaks=0:abort_on_error=0
            export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
            run_ctest 1 "long|realdata"
            unset ASAN_OPTIONS UBSAN_OPTIONS ;;
        fuzz)
            if [ "$apt_done" = 0 ]; then ALIGN_SKIP_APT=0 bash "$top/scripts/setup.sh" > /dev/null; apt_done=1; fi
            bash "$top/scripts/run-fuzz.sh" ;;
        *)
            echo "run-tests.sh: unknown stage \"$stage\" in ALIGN_STAGES (normal, sanitize, fuzz)" >&2
            exit 2 ;;
    esac
    echo "=== $stage stage: passed $(date -u +%H:%M:%S)"
done
