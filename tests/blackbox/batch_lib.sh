# Shared by the batch-mode scripts: a fresh working directory and a batch run under a
# virtual X server. The sourcing script sets align and make_volumes first.
work=$(mktemp -d "${TMPDIR:-/tmp}/align-batch-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
unset QOR_HOME

if ! command -v xvfb-run > /dev/null 2>&1; then
    echo "SKIP: xvfb-run is not installed"
    exit 77
fi

# batch_run <individual> <template>: runs the batch alignment, prints its time, fails the
# script when align does not end with status 0 or leaves no align.com.
batch_run() {
    start=$(date +%s)
    xvfb-run -a -s "-screen 0 1280x1024x24" "$align" "$1" -t "$2" -a > out.txt 2> err.txt
    status=$?
    echo "batch run: status $status, $(( $(date +%s) - start )) s"
    if [ "$status" != 0 ] || [ ! -f align.com ]; then
        echo "FAIL: batch run ended with status $status"
        tail -20 out.txt
        cat err.txt
        exit 1
    fi
    grep -q "Alignment parameters were saved in file align.com" out.txt || {
        echo "FAIL: no save message"; tail -20 out.txt; exit 1; }
}
