# -1 is a valid letter of the scanner without an action; the message prints the hyphen.
align=$1
. "$(dirname "$0")/driver_lib.sh"

run "$align" -1
expect "-1" 1 'Valid option -- not yet programmed.\nProgram exiting.\n'

run "$align" a.nii -t t.nii -1abc
expect "-1abc after the files" 1 'Valid option -- not yet programmed.\nProgram exiting.\n'
finish
