#!/usr/bin/env bash
# The fuzz stage: builds the readers' libFuzzer programs with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer) in their own build directory, then runs every target from the
# generated seeds and the kept inputs (tests/fuzz/regressions), with its dictionary of keywords
# (tests/fuzz/dictionaries), for FUZZ_SECONDS seconds each
# (default 40), FUZZ_JOBS at a time (default 2). Fails on any report: a crash, a sanitizer
# report, a leak, a broken promise of a reader, an input slower than 10 s or a memory limit.
# A failing input is left in <build>/fuzz-findings/<target>/; keep it with scripts/fuzz-keep.sh.
# FUZZ_BUILD_DIR chooses the build directory (default build-fuzz), FUZZ_TARGETS the targets.
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
build="$(mkdir -p "${FUZZ_BUILD_DIR:-$top/build-fuzz}" && cd "${FUZZ_BUILD_DIR:-$top/build-fuzz}" && pwd)"
seconds="${FUZZ_SECONDS:-40}"
jobs="${FUZZ_JOBS:-2}"

cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
      -DALIGN_WERROR=ON -DALIGN_FUZZ=ON -DALIGN_BENCHMARKS=OFF > "$build/configure.log"
cmake --build "$build" -j "$(nproc)" --target fuzz_programs

fuzz="$build/tests/fuzz"
targets="${FUZZ_TARGETS:-$(ls "$fuzz" | sed -n 's/^fuzz_\(.*\)$/\1/p' | grep -v '\.' | sort | tr '\n' ' ')}"
rm -rf "$build/fuzz-seeds" "$build/fuzz-findings" "$build/fuzz-logs"
"$fuzz/align_fuzz_seeds" "$build/fuzz-seeds" "$top/tests/fuzz/regressions"
mkdir -p "$build/fuzz-logs"

# run_target <target>: one bounded run; the corpus grows in <build>/fuzz-corpus/<target>.
run_target() {
    local target=$1 log="$build/fuzz-logs/$1.log" status=0 dict=()
    [ -f "$top/tests/fuzz/dictionaries/$target.dict" ] && dict=(-dict="$top/tests/fuzz/dictionaries/$target.dict")
    mkdir -p "$build/fuzz-corpus/$target" "$build/fuzz-findings/$target"
    ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=0" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
        "$fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -close_fd_mask=3 -print_final_stats=1 "${dict[@]}" -artifact_prefix="$build/fuzz-findings/$target/" \
        "$build/fuzz-corpus/$target" "$build/fuzz-seeds/$target" > "$log" 2>&1 || status=$?
    local runs
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    if [ "$status" = 0 ]; then
        printf '%-11s %10s executions in %s s, no report\n' "$target" "${runs:-?}" "$seconds"
    else
        printf '%-11s FAILED (status %s) after %s executions; log %s, input in %s\n' \
               "$target" "$status" "${runs:-?}" "$log" "$build/fuzz-findings/$target/"
        grep -m 5 -E '^(==[0-9]+==ERROR|SUMMARY|.*runtime error|fuzz target: )' "$log" | sed 's/^/    /' || true
    fi
    return "$status"
}
export -f run_target
export top build fuzz seconds

printf '%s\n' $targets | xargs -P "$jobs" -I{} bash -c 'run_target "$@"' _ {} && result=0 || result=1
[ "$result" = 0 ] && echo "fuzz stage: every target ran ${seconds} s without a report" ||
    echo "fuzz stage: FAILED"
exit "$result"
