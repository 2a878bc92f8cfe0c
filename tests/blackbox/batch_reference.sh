# The batch alignment of the real pair (ch2 moved by a known affine, aligned to ch2bet, both
# reduced to 2 mm) by align and by align_reference, the same program built with the reference
# engine: the printed tables and align.com must be equal byte for byte.
align=$1 make_volumes=$2 align_reference=$3
. "$(dirname "$0")/batch_lib.sh"

templates=/usr/share/mricron/templates
if [ ! -f "$templates/ch2.nii.gz" ] || [ ! -f "$templates/ch2bet.nii.gz" ]; then
    echo "SKIP: mricron-data is not installed"
    exit 77
fi
"$make_volumes" halve "$templates/ch2bet.nii.gz" tpl.nii > /dev/null || exit 1
"$make_volumes" halve "$templates/ch2.nii.gz" ch2.nii > /dev/null || exit 1
"$make_volumes" moved ch2.nii ind.nii 4 -3 2 3 -2 2 1.03 0.98 1.02 0.01 0 -0.01 || exit 1

for program in "$align" "$align_reference"; do
    rm -f align.com
    align=$program
    batch_run ind.nii tpl.nii
    mv out.txt "out-$(basename "$program").txt"
    mv align.com "align-$(basename "$program").com"
done
cat "out-$(basename "$align_reference").txt"
cmp "out-$(basename "$1").txt" "out-$(basename "$align_reference").txt" || { echo "FAIL: printed output differs"; exit 1; }
cmp "align-$(basename "$1").com" "align-$(basename "$align_reference").com" || { echo "FAIL: align.com differs"; exit 1; }
echo "PASS"
