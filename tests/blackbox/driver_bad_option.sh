# Unknown option letters end the program before any file is read.
align=$1
. "$(dirname "$0")/driver_lib.sh"

run "$align" -q
expect "-q" 1 'Option -q not valid.\nProgram exiting.\n'

run "$align" a.nii -t t.nii -qx
expect "-qx after the files" 1 'Option -qx not valid.\nProgram exiting.\n'

# a lone hyphen has no letter
run "$align" a.nii -
expect "lone hyphen" 1 'Option - not valid.\nProgram exiting.\n'

# an option read from ".align" is named by the word in the start-up file
printf 'align a.nii -k t.nii\n' > .align
run "$align"
expect "-k from .align" 1 'Option -k not valid.\nProgram exiting.\n'

# the options before the bad one have taken effect: -W prints before the refusal
run "$align" -W 11 -q
expect "-W then -q" 1 'Wrapping in (x,y,z) = (0,1,1)\nOption -q not valid.\nProgram exiting.\n'
finish
