# -H runs the help browser on standard input and ends with status 0.
align=$1 root=$2
. "$(dirname "$0")/driver_lib.sh"

sep='----------------------------------------------\n--- choose item: 0 = main menu, return = back \n----------------------------------------------\n'
doc=$work/home/documentation
mkdir -p "$doc"
cat > "$doc/align-menu.txt" <<'MENU'
!0 0
Main
 1 Colours
 2 More
!1 0
Colours
!1 1
Red text
!1 2
Blue text
!2 0
More menus
!2 1
> extra-menu.txt
MENU
cat > "$doc/extra-menu.txt" <<'MENU'
!0 0
Extra main
!1 0
Extra one
!1 1
Extra item
MENU

main="Main\n 1 Colours\n 2 More\n${sep}help > "
colours="Colours\n${sep}help >> "
head="Help from file $doc/align-menu.txt\n"

# numbers choose, b goes back one level, q at the main menu quits
printf '1\n2\nb\nb\nq\n' > answers.txt
input=answers.txt QOR_HOME=$work/home run "$align" -H
expect "numbers, b and q" 0 \
    "$head$main$colours""Blue text\n${sep}help >> $colours$main"

# a number beyond the items is refused; 0 returns to the main menu; q inside a menu is b
printf '1\n3\n1\n0\n1\nq\nq\n' > answers.txt
input=answers.txt QOR_HOME=$work/home run "$align" -H
expect "bad number, 0 and q inside a menu" 0 \
    "$head$main$colours""Bad option. Choose '0', 'b', 'q', or a number from 1 to 2\n$colours""Red text\n${sep}help >> $main$colours$main"

# a menu number without items shows the main menu; the end of the answers quits
printf '9\n' > answers.txt
input=answers.txt QOR_HOME=$work/home run "$align" -H
expect "menu without items, end of input" 0 "$head$main$main"

# an item whose text names another menu file: browse it, then the main file again
printf '2\n1\n1\n1\nb\nb\nq\nq\n' > answers.txt
input=answers.txt QOR_HOME=$work/home run "$align" -H
expect "chained menu file" 0 \
    "$head$main""More menus\n${sep}help >> Help from file $doc/extra-menu.txt\nExtra main\n${sep}help > Extra one\n${sep}help >> Extra item\n${sep}help >> Extra one\n${sep}help >> Extra main\n${sep}help > $head$main"

# headers out of order are refused with a warning; status 0 all the same
printf '!0 0\nMain\n!1 0\none\n!1 1\nx\n!3 5\ny\n' > "$doc/align-menu.txt"
QOR_HOME=$work/home run "$align" -H
expect "headers out of order" 0 \
    "${head}Warning: menu entry 3 in file $doc/align-menu.txt is 3 5,\nbut it should be either 1 2 or 2 1,\n"

run "$align" -H
expect "no QOR_HOME" 0 'For help, quit and define the environment variable QOR_HOME, and then re-start.\n'

QOR_HOME=$work/none run "$align" -H
expect "missing menu file" 0 \
    "Error: cannot open the file $work/none/documentation/align-menu.txt.\nThe environment variable QOR_HOME is set to $work/none\nIf this is incorrect, quit, define this environment variable, and re-start.\n"

# the installed menus: every menu opens, the chained alignment menus are reached, no warning
printf '1\n1\nb\nb\n2\nb\n3\nb\n4\nb\n5\n2\n1\n1\nb\nb\n2\nb\nq\n6\nb\nq\n' > answers.txt
input=answers.txt QOR_HOME=$root run "$align" -H
if [ "$status" != 0 ] || grep -q Warning out.txt || ! grep -q "Help from file $root/documentation/align-menu-alignment.txt" out.txt; then
    echo "FAIL: the installed help menus"; cat out.txt; fail=1
fi
[ "$(grep -c "Help from file $root/documentation/align-menu.txt" out.txt)" = 2 ] || {
    echo "FAIL: the main menu file is not browsed again after the chained one"; fail=1; }
finish
