# ".align" is read when the command line is empty or only -y / -Y.
align=$1
. "$(dirname "$0")/driver_lib.sh"

printf 'align a.nii -t b.nii\nalign other.nii\n' > .align
run "$align" -y
reaches_volumes "-y with .align"

run "$align" -Y
reaches_volumes "-Y with .align"

run "$align"
reaches_volumes "no words with .align"

# -a is not a flip toggle: ".align" is not read
run "$align" -a
expect "-a does not read .align" 1 'Error: no files for the individual subject.\n'

# two words on the command line: not read either
run "$align" -y -y
expect "-y -y does not read .align" 1 'Error: no files for the individual subject.\n'

# only the first line counts, and its words are options like any others
small_nifti a.nii
printf 'align -W 11 a.nii\nalign -t b.nii\n' > .align
run "$align" -y
expect "first line only" 1 'Wrapping in (x,y,z) = (0,1,1)\n\nThe NIFTI header for file a.nii uses Method 1: the old analyze format\nError: no files for the template subject.\n'

# the first word is skipped whatever it is
printf 'whatever -W 101 a.nii -T b.nii\n' > .align
run "$align"
head -n 1 out.txt > first.txt
printf 'Wrapping in (x,y,z) = (1,0,1)\n' > want.txt
cmp -s want.txt first.txt || { echo "FAIL: first word of .align not skipped"; cat out.txt; fail=1; }
reaches_volumes "-T from .align"
finish
