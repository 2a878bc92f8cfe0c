# The test-volume tool agrees with itself and with the program's sign convention: moving the
# phantom template by the translation that undoes a +6 mm shift gives the shifted phantom
# bit for bit (a whole number of 2 mm voxels, zero borders); identity parameters copy the
# volume; a 0.5 mm translation error is measured as 0.5 mm everywhere.
make_volumes=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/align-volumes-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
fail=0

"$make_volumes" shifted-phantom 6 ind.nii tpl.nii > phantom.txt || exit 1
grep -qx "translation -6 0 0" phantom.txt || { echo "FAIL: phantom: $(cat phantom.txt)"; fail=1; }
[ "$(wc -c < tpl.nii)" = 442720 ] || { echo "FAIL: tpl.nii is not 352 + 4 * 48^3 bytes"; fail=1; }

"$make_volumes" moved tpl.nii moved.nii -6 0 0 0 0 0 1 1 1 > /dev/null || exit 1
cmp -s moved.nii ind.nii || { echo "FAIL: moved template differs from the shifted phantom"; fail=1; }
"$make_volumes" moved tpl.nii copy.nii 0 0 0 0 0 0 1 1 1 0 0 0 > /dev/null || exit 1
cmp -s copy.nii tpl.nii || { echo "FAIL: identity parameters do not copy the volume"; fail=1; }

printf 'set registration-translations -5.5 0 0\nset registration-rotations 0 0 0\n' > align.com
printf 'set registration-inflations 1 1 1\nset registration-skews 0 0 0\n' >> align.com
"$make_volumes" mapping-error tpl.nii align.com -6 0 0 0 0 0 1 1 1 > error.txt || exit 1
grep -qx "mean_error_mm 0.5000" error.txt && grep -qx "max_error_mm 0.5000" error.txt ||
    { echo "FAIL: mapping error:"; cat error.txt; fail=1; }

"$make_volumes" moved tpl.nii x.nii 1 2 > /dev/null && { echo "FAIL: a short parameter list was accepted"; fail=1; }
[ $fail = 0 ] && echo PASS
exit $fail
