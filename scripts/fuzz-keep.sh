#!/usr/bin/env bash
# Keeps an input that made a fuzz target fail as a regression case, which ctest replays in every
# build and the fuzz stage starts from: fuzz-keep.sh <target> <input file> <name> <description>
# writes tests/fuzz/regressions/<target>/<name>.hex (the description as '#' lines, then the
# bytes in hexadecimal, 32 a line).
set -euo pipefail
[ $# = 4 ] || { echo "usage: $0 <target> <input file> <name> <description>" >&2; exit 2; }
top="$(cd "$(dirname "$0")/.." && pwd)"
dir="$top/tests/fuzz/regressions/$1"
mkdir -p "$dir"
{
    printf '%s\n' "$4" | fold -s -w 98 | sed 's/^/# /'
    od -An -v -tx1 -w32 "$2" | tr -d ' '
} > "$dir/$3.hex"
echo "$dir/$3.hex"
