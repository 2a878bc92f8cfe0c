# The brain template ch2 moved by a moderate known affine (a few mm, a few degrees, a few per
# cent of scale) is aligned to its skull-stripped twin ch2bet in batch mode; the recovered
# template-to-individual mapping must lie within 1 mm of the true one on average.
align=$1 make_volumes=$2
. "$(dirname "$0")/batch_lib.sh"

templates=/usr/share/mricron/templates
if [ ! -f "$templates/ch2.nii.gz" ] || [ ! -f "$templates/ch2bet.nii.gz" ]; then
    echo "SKIP: mricron-data is not installed"
    exit 77
fi
gunzip -c "$templates/ch2bet.nii.gz" > ch2bet.nii || exit 1
set -- 3 -2 4 4 -3 2 1.03 0.97 1.02
"$make_volumes" moved "$templates/ch2.nii.gz" ind.nii "$@" || exit 1
batch_run ind.nii ch2bet.nii
grep "^set registration" align.com
"$make_volumes" mapping-error ch2bet.nii align.com "$@" > error.txt || exit 1
cat error.txt
awk '$1 == "mean_error_mm" { found = 1; ok = ($2 < 1.0) } END { exit !(found && ok) }' error.txt ||
    { echo "FAIL: mean mapping error not below 1 mm"; exit 1; }
echo "PASS"
