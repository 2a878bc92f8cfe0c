# align-apply on real brains at 2 mm (ch2 and its skull-stripped twin ch2bet, halved): the ch2
# moved by a known affine and brought back with that transform matches ch2 on ch2bet's brain
# voxels; the inverse of the forward returns the moved volume; with the align.com that a batch
# run of align recovers, the forward result is as good as that alignment. Bounds, as relative
# mean absolute differences over the brain (sum |a - b| / sum |b|):
#   known transform      < 0.035  (the moved volume was made with trilinear interpolation,
#                                  which smooths; measured 0.023, and 0.19 before the move back)
#   inverse of forward   < 0.015  (two accurate resamplings; measured 0.007)
#   recovered transform  < 0.06   (align -a at 2 mm is within about 0.8 mm; measured 0.041)
apply=$1 align=$2 make_volumes=$3
templates=/usr/share/mricron/templates
if [ ! -f "$templates/ch2.nii.gz" ] || [ ! -f "$templates/ch2bet.nii.gz" ]; then
    echo "SKIP: mricron-data is not installed"
    exit 77
fi
/usr/bin/python3 -c 'import nibabel' 2> /dev/null || { echo "SKIP: nibabel is not installed"; exit 77; }
work=$(mktemp -d "${TMPDIR:-/tmp}/align-apply-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
unset QOR_HOME

"$make_volumes" halve "$templates/ch2.nii.gz" ch2.nii > /dev/null || exit 1
"$make_volumes" halve "$templates/ch2bet.nii.gz" bet.nii > /dev/null || exit 1
gzip -c bet.nii > bet.nii.gz
set -- 3 -2 4 4 -3 2 1.03 0.97 1.02
"$make_volumes" moved ch2.nii ind.nii "$@" > /dev/null || exit 1
mkdir known batch
(cd known && "$make_volumes" align-com ../bet.nii 0 "$@" > /dev/null) || exit 1

# rel_mad <a> <b> <mask>: sum |a - b| / sum |b| over the mask's non-zero voxels
rel_mad() {
    /usr/bin/python3 -c '
import sys, nibabel as nib, numpy as np
a, b, m = (nib.load(f).get_fdata() for f in sys.argv[1:4])
m = m != 0
print("%.4f" % (np.abs(a[m] - b[m]).sum() / np.abs(b[m]).sum()))' "$@"
}
# below <value> <bound> <label>
below() {
    echo "$3: $1 (bound $2)"
    awk -v v="$1" -v b="$2" 'BEGIN { exit !(v < b) }' || { echo "FAIL: $3"; exit 1; }
}

start=$(date +%s)
"$apply" --template bet.nii --alignment known/align.com ind.nii fw.nii > fw.txt || { cat fw.txt; exit 1; }
"$apply" --template bet.nii.gz --alignment known/align.com ind.nii fw_gz.nii > /dev/null || exit 1
cmp fw.nii fw_gz.nii || { echo "FAIL: a gzipped template gives another output"; exit 1; }
"$apply" --template bet.nii --alignment known/align.com --inverse --individual ind.nii fw.nii back.nii > back.txt ||
    { cat back.txt; exit 1; }
grep "^Inverse mapping" back.txt
"$apply" --template bet.nii --alignment known/align.com --inverse --individual ind.nii --interp nearest \
    bet.nii brain_ind.nii > /dev/null || exit 1
echo "four align-apply runs: $(( $(date +%s) - start )) s"

before=$(rel_mad ind.nii ch2.nii bet.nii)
echo "before the move back: $before"
awk -v v="$before" 'BEGIN { exit !(v > 0.15) }' ||
    { echo "FAIL: the moved volume is too close to ch2 for the test to mean anything"; exit 1; }
below "$(rel_mad fw.nii ch2.nii bet.nii)" 0.035 "known transform, forward"
below "$(rel_mad back.nii ind.nii brain_ind.nii)" 0.015 "inverse of forward"

cd batch || exit 1
start=$(date +%s)
xvfb-run -a -s "-screen 0 1280x1024x24" "$align" ../ind.nii -t ../bet.nii -a > align.txt 2>&1 ||
    { tail -20 align.txt; exit 1; }
echo "batch alignment: $(( $(date +%s) - start )) s"
"$make_volumes" mapping-error ../bet.nii align.com "$@" | grep _error_mm
"$apply" --template ../bet.nii --alignment align.com ../ind.nii fw.nii > /dev/null || exit 1
below "$(rel_mad fw.nii ../ch2.nii ../bet.nii)" 0.06 "recovered transform, forward"
echo "PASS"
