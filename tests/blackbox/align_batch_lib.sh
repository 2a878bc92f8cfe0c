# Shared by the align-batch scripts: a fresh working directory, no display, and helpers.
work=$(mktemp -d "${TMPDIR:-/tmp}/align-batch-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
unset DISPLAY QOR_HOME
fail=0

# expect_failure NAME MESSAGE ARGS...: align-batch ARGS ends with status 1, prints MESSAGE
# (a fixed string) and leaves no summary.json in out/.
expect_failure() {
    name=$1 message=$2
    shift 2
    "$batch" "$@" > "$name.txt" 2>&1
    status=$?
    if [ "$status" != 1 ]; then
        echo "FAIL $name: status $status, not 1"; tail -5 "$name.txt"; fail=1
    elif ! grep -qF -- "$message" "$name.txt"; then
        echo "FAIL $name: no message '$message'"; tail -5 "$name.txt"; fail=1
    elif [ -e out/summary.json ]; then
        echo "FAIL $name: out/summary.json exists after a failure"; fail=1
    else
        echo "ok $name"
    fi
}

# value_of KEY FILE: the three numbers of a "set registration-KEY" line.
value_of() { awk -v k="set registration-$1" '$1 " " $2 == k { print $3, $4, $5 }' "$2"; }
