# align-batch on a phantom moved by a known twelve-parameter affine: status 0, the transform
# recovered, every output written and consistent (summary.json against align.com, qc.png showing
# the phantom with edges before and after, aligned.nii.gz on the template's grid following the
# template), no temporary file left. Then the non-linear stage on the phantom under a smooth
# warp: distortions.nii named by its absolute path in align.com, no folded voxel, and align-apply
# reads the result. (The phantom is a hard-edged ramp with little inside it to guide a field:
# the accuracy of the maps is measured on a textured phantom by the unit tests and on brains by
# align_batch_brains.)
batch=$1 make_volumes=$2 apply=$3 version=$4
here=$(cd "$(dirname "$0")" && pwd)
. "$here/align_batch_lib.sh"
check="/usr/bin/python3 $here/align_batch_check.py"

set -- 3 -2 2 4 -3 2 1.03 0.97 1.02 0.01 -0.02 0.015
"$make_volumes" shifted-phantom 2 ignored.nii tpl.nii > /dev/null || exit 1
"$make_volumes" moved tpl.nii ind.nii "$@" > /dev/null || exit 1
"$batch" ind.nii tpl.nii --out out > run.txt 2>&1
status=$?
[ "$status" = 0 ] || { echo "FAIL: status $status"; tail -20 run.txt; exit 1; }
grep -q "^align-batch finished in" run.txt || { echo "FAIL: no closing line"; tail -5 run.txt; exit 1; }
for f in align.com aligned.nii.gz qc.png summary.json; do
    [ -s "out/$f" ] || { echo "FAIL: out/$f missing"; fail=1; }
done
[ -e out/distortions.nii ] && { echo "FAIL: distortions.nii without --nonlinear"; fail=1; }
ls -a out | grep -q "^\.part-" && { echo "FAIL: temporary files left: $(ls -a out)"; fail=1; }
"$make_volumes" mapping-error tpl.nii out/align.com "$@" > error.txt || exit 1
grep error_mm error.txt
# a hard-edged phantom: a failed search is millimetres off
awk '$1 == "mean_error_mm" { found = 1; ok = ($2 < 0.5) } END { exit !(found && ok) }' error.txt ||
    { echo "FAIL: transform not recovered"; fail=1; }
$check summary out/summary.json out/align.com "$version" accurate || fail=1
$check picture out/qc.png || fail=1
$check volume out/aligned.nii.gz tpl.nii || fail=1

# the non-linear stage
set -- 1 -1 0.5 1 0 0 1 1 1
"$make_volumes" warped tpl.nii warped.nii 3 "$@" > /dev/null || exit 1
"$batch" warped.nii tpl.nii --out nl --nonlinear > nl.txt 2>&1 || { echo "FAIL: non-linear run"; tail -20 nl.txt; exit 1; }
grep -qx "set registration-distortions $work/nl/distortions.nii" nl/align.com ||
    { echo "FAIL: distortion line"; cat nl/align.com; fail=1; }
[ -s nl/distortions.nii ] || { echo "FAIL: no distortions.nii"; fail=1; }
/usr/bin/python3 -c "import json, sys; s = json.load(open('nl/summary.json')); d = s['deformation']
sys.exit(0 if s['nonlinear'] and d['folded_voxels'] == 0 and d['jacobian_min'] > 0 else 1)" ||
    { echo "FAIL: folded voxels in the summary"; grep -A5 deformation nl/summary.json; fail=1; }
$check summary nl/summary.json nl/align.com "$version" accurate || fail=1
"$apply" --template tpl.nii --alignment nl/align.com warped.nii applied.nii > apply.txt 2>&1 ||
    { echo "FAIL: align-apply does not take the result"; tail -5 apply.txt; fail=1; }

[ "$fail" = 0 ] && echo PASS
exit $fail
