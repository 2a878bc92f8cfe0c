# align-batch refuses bad command lines and bad inputs with a message naming the option or file
# and status 1, before or without writing a summary; --help prints the usage with status 0.
batch=$1 make_volumes=$2
. "$(dirname "$0")/align_batch_lib.sh"

"$make_volumes" shifted-phantom 2 ind.nii tpl.nii > /dev/null || exit 1

"$batch" --help > help.txt 2>&1 && head -1 help.txt | grep -q "^usage: align-batch INDIVIDUAL TEMPLATE --out DIR" &&
    grep -q -- "--search KIND" help.txt && echo "ok help" || { echo "FAIL help"; cat help.txt; fail=1; }

expect_failure no_files "Error: align-batch needs an individual and a template file (0 given)." --out out
expect_failure one_file "Error: align-batch needs an individual and a template file (1 given)." ind.nii --out out
expect_failure no_out "Error: the output directory is not given (--out DIR)." ind.nii tpl.nii
expect_failure out_without_argument "Error: option --out needs an argument." ind.nii tpl.nii --out
expect_failure unknown_option "Error: unknown option --fast" ind.nii tpl.nii --out out --fast
expect_failure bad_search "Error: --search takes accurate or specified, not quick" ind.nii tpl.nii --out out --search quick
expect_failure missing_individual "nothing.nii" nothing.nii tpl.nii --out out
expect_failure missing_template "nothing.nii" ind.nii nothing.nii --out out

# an earlier run's summary is removed before the work starts, so a failed run does not look done
mkdir -p out && echo "{}" > out/summary.json
expect_failure missing_mask "nomask.nii" ind.nii tpl.nii --out out --mask nomask.nii

# a mask on another grid, and an empty one
"$make_volumes" halve tpl.nii small.nii > /dev/null || exit 1
expect_failure mask_grid "Error: the mask small.nii has 24 x 24 x 24 voxels, the template 48 x 48 x 48." \
    ind.nii tpl.nii --out out --mask small.nii
"$make_volumes" moved tpl.nii empty.nii 500 0 0 0 0 0 1 1 1 > /dev/null || exit 1
expect_failure mask_empty "Error: the mask empty.nii has no non-zero voxel." ind.nii tpl.nii --out out --mask empty.nii
# an empty template leaves nothing to compare
expect_failure empty_template "Error: the template empty.nii has no non-zero voxel." ind.nii empty.nii --out out

# the output directory cannot be made where a file stands
echo text > afile
expect_failure out_is_file "Error: afile is not a directory." ind.nii tpl.nii --out afile
expect_failure out_below_file "Error: afile is not a directory." ind.nii tpl.nii --out afile/sub

[ "$fail" = 0 ] && echo PASS
exit $fail
