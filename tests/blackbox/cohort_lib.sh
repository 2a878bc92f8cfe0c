# Shared by the align-cohort scripts (bash): a working directory whose name has a space and a
# quote (the job script must quote every path), three phantom subjects and their table, and
# checks of a cohort's outputs. The sourcing script sets cohort and make_volumes first.

work=$(mktemp -d "${TMPDIR:-/tmp}/align-cohort-XXXXXX") || exit 1
cleanup() { rm -rf "$work"; }
trap cleanup EXIT
data="$work/subject's data"
mkdir -p "$data" || exit 1
cd "$work" || exit 1

fail() {
    echo "FAIL: $*"
    exit 1
}

# make_subjects: the template tpl.nii, two subjects with known alignments and one broken on
# purpose (a NIfTI file cut short), and subjects.tsv (header, comment, relative names, an
# options column that asks for the non-linear stage for rat_b only).
# Sets want_a (the x translation that aligns subject a) and want_b (subject b's parameters).
make_subjects() {
    want_a=$("$make_volumes" shifted-phantom 5 "$data/a.nii" "$data/tpl.nii") || fail "make_test_volumes"
    want_a=${want_a#translation }
    want_a=${want_a%% *}
    want_b="-3 2 0 4 0 0 1 1 1"
    # shellcheck disable=SC2086
    "$make_volumes" moved "$data/tpl.nii" "$data/b.nii" $want_b > /dev/null || fail "make_test_volumes moved"
    head -c 2000 "$data/a.nii" > "$data/broken.nii"
    printf 'id\tindividual\tgroup\toptions\n# the third is broken on purpose\nrat-a\ta.nii\tcontrol\nrat_b\tb.nii\tcontrol\t--nonlinear\nrat.c\tbroken.nii\tlesion\n' \
        > "$data/subjects.tsv"
}

# tsv_value ID COLUMN [FILE]: the cell of report.tsv (or FILE) in the row of ID under COLUMN.
tsv_value() {
    awk -F '\t' -v id="$1" -v col="$2" '
        NR == 1 { for (i = 1; i <= NF; i++) if ($i == col) c = i; next }
        $1 == id && c { print $c }' "${3:-out/report.tsv}"
}

# near VALUE WANT TOLERANCE: succeeds when |VALUE - WANT| <= TOLERANCE.
near() {
    awk -v v="$1" -v w="$2" -v t="$3" 'BEGIN { d = v - w; if (d < 0) d = -d; exit !(v != "" && d <= t) }'
}

# check_cohort DIR: the two good subjects aligned with every output of align-batch, their
# parameters in the report near the known ones, the broken subject failed with its log kept
# and shown in the HTML page, the report's rows in table order.
check_cohort() {
    local dir=$1 id f
    [ "$(head -n 1 "$dir/report.tsv" | cut -f 1,2)" = "$(printf 'id\tstatus')" ] || fail "report.tsv header"
    [ "$(tail -n +2 "$dir/report.tsv" | cut -f 1,2 | tr '\t\n' ':,')" = "rat-a:ok,rat_b:ok,rat.c:failed," ] ||
        fail "report.tsv rows: $(cut -f 1,2 "$dir/report.tsv" | tr '\n' ' ')"
    for id in rat-a rat_b; do
        for f in align.com aligned.nii.gz qc.png summary.json log.txt; do
            [ -s "$dir/$id/$f" ] || fail "$id: no $f"
        done
        [ "$(head -c 4 "$dir/$id/qc.png" | od -An -c | tr -d ' ')" = "211PNG" ] || fail "$id: qc.png is no PNG"
        python3 -c 'import json, sys; json.load(open(sys.argv[1]))' "$dir/$id/summary.json" ||
            fail "$id: summary.json does not parse"
        [ -n "$(tsv_value "$id" similarity "$dir/report.tsv")" ] || fail "$id: no similarity in the report"
        grep -q "<img [^>]*src=\"$id/qc.png\"" "$dir/report.html" || fail "$id: no QC picture in report.html"
    done
    # Only rat_b ran the non-linear stage: its folded voxels are counted (none for so smooth a
    # change), rat-a's cell stays empty; each row has its time.
    [ -s "$dir/rat_b/distortions.nii" ] || fail "rat_b: no distortions.nii although its options ask for it"
    [ ! -e "$dir/rat-a/distortions.nii" ] || fail "rat-a: a non-linear stage nobody asked for"
    [ "$(tsv_value rat_b folded_voxels "$dir/report.tsv")" = 0 ] ||
        fail "rat_b: folded voxels '$(tsv_value rat_b folded_voxels "$dir/report.tsv")', want 0"
    [ -z "$(tsv_value rat-a folded_voxels "$dir/report.tsv")" ] || fail "rat-a: folded voxels without a non-linear stage"
    for id in rat-a rat_b; do
        awk -v s="$(tsv_value "$id" seconds "$dir/report.tsv")" 'BEGIN { exit !(s != "" && s + 0 > 0 && s + 0 < 600) }' ||
            fail "$id: seconds '$(tsv_value "$id" seconds "$dir/report.tsv")'"
    done
    # Each row holds its own subject's alignment (the two differ by 2 mm in x and 4 degrees).
    near "$(tsv_value rat-a x "$dir/report.tsv")" "$want_a" 1 ||
        fail "rat-a: x $(tsv_value rat-a x "$dir/report.tsv"), want $want_a"
    set -- $want_b
    local name
    for name in x y z phi_xy; do
        near "$(tsv_value rat_b "$name" "$dir/report.tsv")" "$1" 1.5 ||
            fail "rat_b: $name $(tsv_value rat_b "$name" "$dir/report.tsv"), want $1"
        shift
    done
    [ -s "$dir/rat.c/log.txt" ] || fail "the broken subject's log is gone"
    [ ! -e "$dir/rat.c/summary.json" ] || fail "the broken subject has a summary.json"
    [ -n "$(tsv_value rat.c message "$dir/report.tsv")" ] || fail "no message for the broken subject"
    # The failed row shows the last words of its log (as HTML text).
    local last
    last=$(grep -v '^align-cohort:' "$dir/rat.c/log.txt" | grep . | tail -n 1 |
           python3 -c 'import html, sys; print(html.escape(sys.stdin.read().strip()))')
    grep -qF -- "$last" "$dir/report.html" || fail "report.html lacks the broken subject's log line: $last"
    grep -q '<tr class="failed" id="rat.c">' "$dir/report.html" || fail "report.html does not mark rat.c failed"
}
