# The batch alignment of the real pair (ch2 moved by a known affine, aligned to ch2bet, both
# reduced to 2 mm) by align and by align_reference, the same program built with the reference
# engine: the printed tables and align.com must be equal byte for byte, also when align is held
# to its plain loops on one thread.
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

# align as it runs here (the best vector level, every core), align forced to the plain loops on
# one thread, and align_reference
run() {  # run <name> <program> [environment assignments...]
    name=$1 align=$2
    shift 2
    rm -f align.com
    (for assignment in "$@"; do export "$assignment"; done; batch_run ind.nii tpl.nii) || exit 1
    mv out.txt "out-$name.txt"
    mv align.com "align-$name.com"
}
run fast "$1"
run plain "$1" ALIGN_SIMD=scalar ALIGN_THREADS=1
run reference "$align_reference"
cat out-reference.txt
for name in fast plain; do
    cmp "out-$name.txt" out-reference.txt || { echo "FAIL: printed output of the $name run differs"; exit 1; }
    cmp "align-$name.com" align-reference.com || { echo "FAIL: align.com of the $name run differs"; exit 1; }
done
echo "PASS"
