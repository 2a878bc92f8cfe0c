# align-batch --search specified reproduces align -a: on the same volumes, in fresh directories,
# the two write the same align.com byte for byte (a shifted phantom, and a phantom under a full
# affine). align -a opens the display, so it runs under a virtual X server; align-batch does not.
batch=$1 align=$2 make_volumes=$3
here=$(cd "$(dirname "$0")" && pwd)
. "$here/align_batch_lib.sh"
if ! command -v xvfb-run > /dev/null 2>&1; then
    echo "SKIP: xvfb-run is not installed"
    exit 77
fi

"$make_volumes" shifted-phantom 4 shifted.nii tpl.nii > /dev/null || exit 1
"$make_volumes" moved tpl.nii moved.nii 2 -3 1 3 -2 4 1.03 0.98 1.02 > /dev/null || exit 1
for ind in shifted moved; do
    mkdir "a_$ind" && (cd "a_$ind" && xvfb-run -a -s "-screen 0 1280x1024x24" "$align" "../$ind.nii" -t ../tpl.nii -a \
                           > out.txt 2>&1) || { echo "FAIL: align -a on $ind"; tail -5 "a_$ind/out.txt"; fail=1; continue; }
    "$batch" "$ind.nii" tpl.nii --out "b_$ind" --search specified > "b_$ind.txt" 2>&1 ||
        { echo "FAIL: align-batch on $ind"; tail -5 "b_$ind.txt"; fail=1; continue; }
    if cmp "a_$ind/align.com" "b_$ind/align.com"; then
        echo "ok $ind: $(grep translations "b_$ind/align.com")"
    else
        echo "FAIL: $ind: align.com differs"; diff "a_$ind/align.com" "b_$ind/align.com"; fail=1
    fi
done
/usr/bin/python3 -c "import json, sys; s = json.load(open('b_moved/summary.json'))
sys.exit(0 if s['search'] == 'specified' and 'start' not in s else 1)" || { echo "FAIL: summary of the specified search"; fail=1; }

# with --nonlinear, align's automatic non-linear alignment follows on the current grid
"$make_volumes" warped tpl.nii warped.nii 3 1 -1 0.5 1 0 0 1 1 1 > /dev/null || exit 1
"$batch" warped.nii tpl.nii --out b_nl --search specified --nonlinear > b_nl.txt 2>&1 ||
    { echo "FAIL: specified non-linear run"; tail -10 b_nl.txt; fail=1; }
grep -q "^MI = .* on final pass for level 1" b_nl.txt || { echo "FAIL: no non-linear pass"; fail=1; }
grep -qx "set registration-distortions $work/b_nl/distortions.nii" b_nl/align.com ||
    { echo "FAIL: distortion line"; cat b_nl/align.com; fail=1; }

[ "$fail" = 0 ] && echo PASS
exit $fail
