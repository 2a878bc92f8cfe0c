# Shared by the driver's black-box scripts: a fresh working directory, running align with
# its output caught, and exact comparisons of output and exit status.
# The sourcing script sets align (the binary) and root (the source tree) first.
fail=0
work=$(mktemp -d "${TMPDIR:-/tmp}/align-driver-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
unset QOR_HOME

# small_nifti <name>: a readable 2x2x2 float NIfTI-1 volume (method 1), so that a run gets past
# the reading of the individual.
small_nifti() {
    python3 -c '
import struct, sys
h = bytearray(348)
struct.pack_into("<i", h, 0, 348)
struct.pack_into("<8h", h, 40, 3, 2, 2, 2, 1, 1, 1, 1)
struct.pack_into("<hh", h, 70, 16, 32)
struct.pack_into("<8f", h, 76, 1, 1, 1, 1, 0, 0, 0, 0)
struct.pack_into("<f", h, 108, 352.0)
h[344:348] = b"n+1\0"
with open(sys.argv[1], "wb") as f:
    f.write(h + bytes(4) + struct.pack("<8f", *range(1, 9)))
' "$1"
}

# run <command...>: standard input from $input (default /dev/null); sets status.
run() {
    "$@" > out.txt 2> err.txt < "${input:-/dev/null}"
    status=$?
}

# expect <label> <status> <printf format of the whole expected output>
expect() {
    printf "$3" > want.txt
    expect_file "$1" "$2" want.txt
}

# expect_file <label> <status> <file with the whole expected output>
expect_file() {
    if [ "$status" != "$2" ]; then
        echo "FAIL $1: exit status $status, wanted $2"
        fail=1
    fi
    if ! cmp -s "$3" out.txt; then
        echo "FAIL $1: standard output differs (wanted, got):"
        diff "$3" out.txt
        fail=1
    fi
}

# reaches_volumes <label>: both file lists were accepted (no list error) and the run failed
# later, at the volumes, which do not exist here.
reaches_volumes() {
    if grep -q "Error: no files for the" out.txt; then
        echo "FAIL $1: a file list was refused:"
        cat out.txt
        fail=1
    fi
    if [ "$status" != 1 ]; then
        echo "FAIL $1: exit status $status, wanted 1"
        fail=1
    fi
}

finish() {
    [ "$fail" = 0 ] && echo "all checks passed"
    exit "$fail"
}
