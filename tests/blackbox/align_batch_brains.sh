# align-batch on brains with known truth, at 2 mm voxels: the template is mricron's ch2bet, the
# individual its unstripped twin ch2 moved by a moderate and by a large affine, the same with
# the contrast inverted (another contrast of the same brain), turned by a quarter turn and
# shifted by a centimetre (a scan whose orientation is off), and ch2 under a smooth 3.5 mm warp
# on top of an affine with the non-linear stage. The mean mapping error over the template's brain
# voxels must stay within a tenth of a voxel for the affine cases (the maps: well below the
# affine error, under half a millimetre, no folded voxel). Prints the errors and the times.
batch=$1 make_volumes=$2
here=$(cd "$(dirname "$0")" && pwd)
. "$here/align_batch_lib.sh"
templates=/usr/share/mricron/templates
if [ ! -f "$templates/ch2.nii.gz" ] || [ ! -f "$templates/ch2bet.nii.gz" ]; then
    echo "SKIP: mricron-data is not installed"
    exit 77
fi
"$make_volumes" halve "$templates/ch2bet.nii.gz" tpl.nii > /dev/null || exit 1
"$make_volumes" halve "$templates/ch2.nii.gz" head.nii > /dev/null || exit 1

# case NAME BOUND_MM INDIVIDUAL [--nonlinear]: runs align-batch, measures against truth_NAME.nii
case_run() {
    name=$1 bound=$2 ind=$3
    shift 3
    start=$(date +%s)
    "$batch" "$ind" tpl.nii --out "out_$name" "$@" > "$name.txt" 2>&1 || {
        echo "FAIL $name: status $?"; tail -20 "$name.txt"; fail=1; return; }
    seconds=$(( $(date +%s) - start ))
    "$make_volumes" mapping-error tpl.nii "out_$name/align.com" --truth "truth_$name.nii" > "error_$name.txt" || {
        fail=1; return; }
    error=$(awk '$1 == "mean_error_mm" { print $2 }' "error_$name.txt")
    echo "$name: mean mapping error $error mm (bound $bound), $seconds s"
    awk -v e="$error" -v b="$bound" 'BEGIN { exit !(e < b) }' || { echo "FAIL $name"; fail=1; }
}

moderate="3 -2 4 4 -3 2 1.03 0.97 1.02"
large="12 -10 14 12 -15 10 1.06 0.95 1.04 0.02 -0.03 0.01"
turned="8 -10 6 90 3 -2 1 1 1"
warp="2 -1.5 1 2 1 0 1.02 0.99 1.01"
"$make_volumes" moved head.nii moderate.nii $moderate > /dev/null &&
    "$make_volumes" truth-field tpl.nii truth_moderate.nii 0 $moderate > /dev/null &&
    "$make_volumes" moved head.nii large.nii $large > /dev/null &&
    "$make_volumes" truth-field tpl.nii truth_large.nii 0 $large > /dev/null &&
    "$make_volumes" moved head.nii turned.nii $turned > /dev/null &&
    "$make_volumes" truth-field tpl.nii truth_turned.nii 0 $turned > /dev/null &&
    "$make_volumes" warped head.nii warped.nii 3.5 $warp > /dev/null &&
    "$make_volumes" truth-field tpl.nii truth_warped.nii 3.5 $warp > /dev/null || exit 1
# another contrast: inside the head the intensities are turned upside down (dark grey matter
# becomes bright and so on); the background stays dark
/usr/bin/python3 - <<'END' || exit 1
import struct
data = bytearray(open("moderate.nii", "rb").read())
n = (len(data) - 352) // 4
values = struct.unpack("<%df" % n, data[352:])
inverted = [0.0 if v < 20.0 else 300.0 - v for v in values]
data[352:] = struct.pack("<%df" % n, *inverted)
open("inverted.nii", "wb").write(bytes(data))
END
cp truth_moderate.nii truth_inverted.nii

case_run moderate 0.2 moderate.nii
case_run large 0.2 large.nii
case_run inverted 0.2 inverted.nii
case_run turned 0.2 turned.nii
grep "^set registration-orientation" out_turned/align.com
case_run warped 0.5 warped.nii --nonlinear
grep -v "^set registration-distortions" out_warped/align.com > affine_warped.com
"$make_volumes" mapping-error tpl.nii affine_warped.com --truth truth_warped.nii > affine_error.txt || exit 1
affine=$(awk '$1 == "mean_error_mm" { print $2 }' affine_error.txt)
nl=$(awk '$1 == "mean_error_mm" { print $2 }' error_warped.txt)
echo "warped: affine part alone $affine mm"
awk -v a="$affine" -v n="$nl" 'BEGIN { exit !(n < 0.3 * a) }' || { echo "FAIL: the maps do not recover the warp"; fail=1; }
/usr/bin/python3 -c "import json, sys; d = json.load(open('out_warped/summary.json'))['deformation']
print('warped: %d folded voxels, Jacobian %.3f to %.3f' % (d['folded_voxels'], d['jacobian_min'], d['jacobian_max']))
sys.exit(0 if d['folded_voxels'] == 0 else 1)" || { echo "FAIL: folded voxels"; fail=1; }
uptime

[ "$fail" = 0 ] && echo PASS
exit $fail
