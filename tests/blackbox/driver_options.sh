# File lists and the messages of the options, up to the check of both lists.
align=$1
. "$(dirname "$0")/driver_lib.sh"

run "$align" -W 101
expect "-W 101" 1 'Wrapping in (x,y,z) = (1,0,1)\nError: no files for the individual subject.\n'

small_nifti a.nii
small_nifti b.nii
read_a='\nThe NIFTI header for file a.nii uses Method 1: the old analyze format\n'
read_b='The NIFTI header for file b.nii uses Method 1: the old analyze format\n'
no_template='Error: no files for the template subject.\n'

run "$align" -W 11 a.nii
expect "-W 11" 1 "Wrapping in (x,y,z) = (0,1,1)\n$read_a$no_template"

# the letters after -t are ignored: -tfoo takes t.nii as the template
run "$align" a.nii -tfoo t.nii
reaches_volumes "-tfoo t.nii"

run "$align" a.nii -T t.nii
reaches_volumes "-T"

run "$align" -I a.nii -t t.nii
reaches_volumes "-I"

# a plain word is an individual file, never a template
run "$align" a.nii b.nii
expect "two plain words" 1 "$read_a$read_b$no_template"

run "$align" -t t.nii
expect "template only" 1 'Error: no files for the individual subject.\n'

# an argument-taking option as the last word receives an empty name
run "$align" a.nii -t
expect "-t as the last word" 1 "$read_a$no_template"

# options without a file effect leave the lists alone
run "$align" -z 11 -m 4 -3 -y -Y -o x.ovl -w x.wire -O y.ovl a.nii
expect "display options" 1 "$read_a$no_template"
finish
