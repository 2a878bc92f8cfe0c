# -h prints the start-up help and ends with status 0, also when the help cannot be found.
align=$1 root=$2
. "$(dirname "$0")/driver_lib.sh"

{ printf '\n'; grep -v '^#' "$root/documentation/align-startup.txt"; } > help.txt
QOR_HOME=$root run "$align" -h
expect_file "-h with QOR_HOME" 0 help.txt

run "$align" -h
expect "-h without QOR_HOME" 0 \
    'For help, quit and define the environment variable QOR_HOME, and then re-start.\n'

# -h ends the scan at once: the bad option after it is never seen, no file is needed
QOR_HOME=$root run "$align" a.nii -h -q
expect_file "-h before a bad option" 0 help.txt

# a help text of one's own under another QOR_HOME
mkdir -p home/documentation
printf '# hidden\nfirst line\nsecond # cut\nthird\n' > home/documentation/align-startup.txt
QOR_HOME=$work/home run "$align" -h
expect "-h with a private help file" 0 '\nfirst line\nsecond third\n'
finish
