# align without words and without ".align": usage lines, start-up help, status 1.
align=$1 root=$2
. "$(dirname "$0")/driver_lib.sh"

usage='Error: this program should be invoked as\n  align <individual file> -t <template file> [optional arguments]\n\n'

# the help file is printed without its comment lines; it must have no trailing comments
if grep -v '^#' "$root/documentation/align-startup.txt" | grep -n '#'; then
    echo "FAIL: align-startup.txt has a comment after text"; fail=1
fi
{ printf "$usage"; printf '\n'; grep -v '^#' "$root/documentation/align-startup.txt"; } > help.txt
QOR_HOME=$root run "$align"
expect_file "no arguments, QOR_HOME set" 1 help.txt

run "$align"
expect "no arguments, QOR_HOME unset" 1 \
    "${usage}For help, quit and define the environment variable QOR_HOME, and then re-start.\n"

QOR_HOME=$work/nowhere run "$align"
expect "no arguments, QOR_HOME wrong" 1 \
    "${usage}Error: cannot open the file $work/nowhere/documentation/align-startup.txt.\nThe environment variable QOR_HOME is set to $work/nowhere\nIf this is incorrect, quit, define this environment variable, and re-start.\n"

# an empty ".align" gives no words either
: > .align
run "$align"
expect "empty .align" 1 \
    "${usage}For help, quit and define the environment variable QOR_HOME, and then re-start.\n"
finish
