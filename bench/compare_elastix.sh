#!/usr/bin/env bash
# Side by side: align-batch and elastix on the same brain cases with known truth, made by
# make_test_volumes from mricron's ch2 templates. Prints, per case, the mean (and median) mapping
# error over the template's brain voxels and the wall time of both, with the machine and its load.
# align-batch's time is given whole (with aligned.nii.gz and qc.png written) and for the
# registration alone (reading and searching, from its summary.json); elastix writes no image.
# elastix (Debian's `elastix` package) is a peer for this comparison only, never a dependency.
#
#   bench/compare_elastix.sh [BUILD_DIR] [--voxel 1|2] [--cases "moderate large inverted better warp"]
#
# Cases (template ch2bet; individual made from ch2 unless said otherwise):
#   moderate  ch2 moved by 3,-2,4 mm, 4,-3,2 degrees, inflations 1.03,0.97,1.02
#   large     ch2 moved by 12,-10,14 mm, 12,-15,10 degrees, inflations 1.06,0.95,1.04, skews
#   inverted  the moderate case with the head's contrast turned upside down (another contrast)
#   better    ch2better (another scan of the same brain, 0.5 mm voxels) as it lies; the truth is
#             the relation of the two files' world coordinates (their sform matrices)
#   warp      ch2 under a smooth 3.5 mm displacement on top of a small affine; align-batch
#             --nonlinear against elastix affine + B-spline
# --voxel 2 halves every volume first (2 mm voxels, as the tests do); 1 (default) keeps 1 mm.
# elastix gets the template's brain as its fixed mask (align-batch compares only the template's
# non-zero voxels too) and the parameter files in bench/elastix/.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$here/../build"
voxel=1
cases="moderate large inverted better warp"
while [ $# -gt 0 ]; do
    case "$1" in
    --voxel) voxel=$2; shift 2 ;;
    --cases) cases=$2; shift 2 ;;
    *) build=$1; shift ;;
    esac
done
batch="$build/align-batch"
make_volumes="$build/make_test_volumes"
py=/usr/bin/python3
tool="$py $here/elastix_error.py"
templates=/usr/share/mricron/templates
for need in "$batch" "$make_volumes"; do [ -x "$need" ] || { echo "missing $need (build first)"; exit 1; }; done
command -v elastix > /dev/null && command -v transformix > /dev/null || { echo "elastix is not installed"; exit 1; }
[ -f "$templates/ch2.nii.gz" ] || { echo "mricron-data is not installed"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/align-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"
unset DISPLAY

echo "machine: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'), $(nproc) CPUs," \
     "$(awk '/MemTotal/ { printf "%.0f GB", $2 / 1048576 }' /proc/meminfo); $(uname -sr)"
echo "load at start: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "voxels: $voxel mm"

# input NAME SOURCE: the volume at the chosen voxel size
input() {
    if [ "$voxel" = 2 ]; then "$make_volumes" halve "$2" "$1" > /dev/null
    else gunzip -c "$2" > "$1" 2> /dev/null || cp "$2" "$1"; fi
}
input tpl.nii "$templates/ch2bet.nii.gz"
input head.nii "$templates/ch2.nii.gz"
$tool centre tpl.nii tpl_c.nii tpl_mask.nii

moderate="3 -2 4 4 -3 2 1.03 0.97 1.02"
large="12 -10 14 12 -15 10 1.06 0.95 1.04 0.02 -0.03 0.01"
warp="2 -1.5 1 2 1 0 1.02 0.99 1.01"

# make_case NAME: the individual NAME.nii and its truth field truth_NAME.nii
make_case() {
    case "$1" in
    moderate | large)
        eval "p=\$$1"
        "$make_volumes" moved head.nii "$1.nii" $p > /dev/null
        "$make_volumes" truth-field tpl.nii "truth_$1.nii" 0 $p > /dev/null ;;
    inverted)
        "$make_volumes" moved head.nii moved_for_inverted.nii $moderate > /dev/null
        "$make_volumes" truth-field tpl.nii truth_inverted.nii 0 $moderate > /dev/null
        $py - <<'END'
import nibabel as nib, numpy as np
im = nib.load("moved_for_inverted.nii")
d = np.asarray(im.dataobj, dtype=np.float32)
nib.save(nib.Nifti1Image(np.where(d < 20, 0, 300 - d).astype(np.float32), im.affine, im.header), "inverted.nii")
END
        ;;
    better)
        input better.nii "$templates/ch2better.nii.gz"
        # world relation of the original files, in align's centred frames: constant shift
        $py - "$templates/ch2bet.nii.gz" "$templates/ch2better.nii.gz" <<'END'
import sys, nibabel as nib, numpy as np
def centre(name):
    im = nib.load(name)
    n = np.array(im.shape[:3], dtype=float)
    return im.affine[:3, :3] @ ((n - 1) / 2) + im.affine[:3, 3]
shift = centre(sys.argv[1]) - centre(sys.argv[2])
t = nib.load("tpl.nii")
field = np.broadcast_to(shift.astype(np.float32), t.shape[:3] + (3,)).copy()
nib.save(nib.Nifti1Image(field, t.affine), "truth_better.nii")
print("better: world truth moves the template's centred frame by %.3f %.3f %.3f mm" % tuple(shift))
END
        ;;
    warp)
        "$make_volumes" warped head.nii warp.nii 3.5 $warp > /dev/null
        "$make_volumes" truth-field tpl.nii truth_warp.nii 3.5 $warp > /dev/null ;;
    esac
}

printf "\n%-9s | %-48s | %-30s\n" case "align-batch: mean (median) mm, s (registration s)" "elastix: mean (median) mm, s"
for c in $cases; do
    make_case "$c"
    extra=""; params="-p $here/elastix/affine.txt"; last=0
    if [ "$c" = warp ]; then extra="--nonlinear"; params="$params -p $here/elastix/bspline.txt"; last=1; fi

    start=$(date +%s%N)
    "$batch" "$c.nii" tpl.nii --out "ab_$c" $extra > "ab_$c.log" 2>&1
    ab_time=$(awk -v a="$start" -v b="$(date +%s%N)" 'BEGIN { print (b - a) / 1e9 }')
    "$make_volumes" mapping-error tpl.nii "ab_$c/align.com" --truth "truth_$c.nii" > "ab_$c.err"
    ab_mean=$(awk '$1 == "mean_error_mm" { print $2 }' "ab_$c.err")
    ab_median=$(awk '$1 == "median_error_mm" { print $2 }' "ab_$c.err")

    $tool centre "$c.nii" "${c}_c.nii"
    mkdir -p "el_$c"
    start=$(date +%s%N)
    elastix -f tpl_c.nii -m "${c}_c.nii" -fMask tpl_mask.nii $params -out "el_$c" > /dev/null
    el_time=$(awk -v a="$start" -v b="$(date +%s%N)" 'BEGIN { print (b - a) / 1e9 }')
    transformix -def all -tp "el_$c/TransformParameters.$last.txt" -out "el_$c" > /dev/null
    $tool error tpl_c.nii "el_$c/deformationField.nii" "truth_$c.nii" > "el_$c.err"
    el_mean=$(awk '$1 == "mean_error_mm" { print $2 }' "el_$c.err")
    el_median=$(awk '$1 == "median_error_mm" { print $2 }' "el_$c.err")

    # registration alone: reading and the searches, without writing aligned.nii.gz and qc.png
    ab_reg=$($py -c "import json; s = json.load(open('ab_$c/summary.json'))['seconds']
print('%.1f' % (s['read'] + s['affine'] + s['nonlinear']))")
    printf "%-9s | %8s (%s) %7.1f s (%6s s)          | %8s (%s) %7.1f s\n" "$c" "$ab_mean" "$ab_median" "$ab_time" \
        "$ab_reg" "$el_mean" "$el_median" "$el_time"
    if [ "$c" = warp ]; then
        $py -c "import json; d = json.load(open('ab_warp/summary.json'))['deformation']
print('          | align-batch: %d folded voxels, Jacobian %.3f to %.3f' % (d['folded_voxels'], d['jacobian_min'], d['jacobian_max']))"
    fi
done
echo "load at end: $(cut -d' ' -f1-3 /proc/loadavg)"
