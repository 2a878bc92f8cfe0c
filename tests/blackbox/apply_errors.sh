# align-apply refuses every bad input with its message and status 1, and leaves the output
# name as it was: a bad option, missing files, an align.com made for another template, missing
# distortion maps, an input on the wrong grid, an output that cannot be written. (Every option
# refusal is checked by the ParseApplyCommand unit tests.)
apply=$1 make_volumes=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/align-apply-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
fail=0

"$make_volumes" shifted-phantom 4 ind.nii tpl.nii > /dev/null || exit 1
"$make_volumes" halve tpl.nii small.nii > /dev/null || exit 1
"$make_volumes" align-com tpl.nii 0 -4 0 0 0 0 0 1 1 1 > /dev/null || exit 1
mv align.com good.com
"$make_volumes" align-com tpl.nii 1 -4 0 0 0 0 0 1 1 1 > /dev/null || exit 1
mv align.com warped.com
echo "previous" > out.nii

# refused <label> <expected message line> <align-apply arguments...>
refused() {
    label=$1 message=$2
    shift 2
    "$apply" "$@" > out.txt 2>&1
    status=$?
    if [ "$status" != 1 ] || ! grep -qF -- "$message" out.txt || [ "$(cat out.nii)" != previous ] ||
        ls -a | grep -q '^\.part-'; then
        echo "FAIL: $label (status $status)"
        cat out.txt
        fail=1
    else
        echo "ok   $label"
    fi
}

T="--template tpl.nii"
refused "inverse without the individual" "Error: --inverse needs --individual FILE" $T --alignment good.com --inverse tpl.nii out.nii
refused "missing template" "Error: cannot open Nifti file none.nii." --template none.nii --alignment good.com ind.nii out.nii
refused "missing input" "Error: cannot open Nifti file none.nii." $T --alignment good.com none.nii out.nii
refused "missing align.com" "Error: cannot open file none.com" $T --alignment none.com ind.nii out.nii

sed 's/^set registration-matrix .*/set registration-matrix 24 24 24/' good.com > matrix.com
refused "align.com of another template (matrix)" \
    "Error: the new matrix size (24,24,24) does not match the template (48,48,48)" $T --alignment matrix.com ind.nii out.nii
sed 's/^set registration-resolution .*/set registration-resolution 1 1 1/' good.com > resolution.com
refused "align.com of another template (resolution)" \
    "Error: the new resolution (1,1,1) does not match the template (2,2,2)" $T --alignment resolution.com ind.nii out.nii
refused "align.com of another template (the template given)" \
    "Error: the new matrix size (48,48,48) does not match the template (24,24,24)" --template small.nii --alignment good.com small.nii out.nii

maps=$(awk '$2 == "registration-distortions" { print $3 }' warped.com)
mv "$maps" moved-away.nii
refused "missing distortion maps" "Error: cannot open Nifti file $maps." $T --alignment warped.com ind.nii out.nii
mv moved-away.nii "$maps"

refused "forward input on another grid than the individual" \
    "Error: small.nii has 24x24x24 voxels of 4 x 4 x 4 mm, not the grid of the individual ind.nii (48x48x48 voxels of 2 x 2 x 2 mm)." \
    $T --alignment good.com --individual ind.nii small.nii out.nii
refused "inverse input on another grid than the template" \
    "Error: small.nii has 24x24x24 voxels of 4 x 4 x 4 mm, not the grid of the template tpl.nii (48x48x48 voxels of 2 x 2 x 2 mm)." \
    $T --alignment good.com --inverse --individual ind.nii small.nii out.nii
refused "output in a missing directory" "Error: cannot open the output file no/dir/out.nii" \
    $T --alignment good.com ind.nii no/dir/out.nii

# and the same command with good inputs works and replaces the output
"$apply" $T --alignment warped.com ind.nii out.nii > out.txt 2>&1 || { echo "FAIL: good run"; cat out.txt; fail=1; }
[ "$(head -c 4 out.nii)" != previous ] || { echo "FAIL: out.nii not replaced"; fail=1; }

[ "$fail" = 0 ] && echo PASS
exit "$fail"
