# align-cohort refuses bad input before it runs anything: each case ends with status 1, a
# message naming the table line, file or option, and no output directory. A good table with
# --dry-run shows the plan and writes nothing.
cohort=$1 make_volumes=$2
here=$(cd "$(dirname "$0")" && pwd)
. "$here/cohort_lib.sh"
make_subjects
mkdir elsewhere

# refused NAME PATTERN ARGS...: align-cohort ARGS ends with status 1, prints PATTERN, writes nothing.
refused() {
    local name=$1 pattern=$2
    shift 2
    "$cohort" "$@" > "$name.txt" 2>&1
    local status=$?
    [ "$status" = 1 ] || { cat "$name.txt"; fail "$name: status $status, not 1"; }
    grep -qE -- "$pattern" "$name.txt" || { cat "$name.txt"; fail "$name: no message matching '$pattern'"; }
    [ ! -e out ] || fail "$name: the output directory was made"
}
table() { printf "$2" > "$data/$1.tsv"; }
common=(--template "$data/tpl.nii" --out out)

table duplicate 'a1\ta.nii\nb1\tb.nii\na1\tb.nii\n'
refused duplicate "line 3: subject id 'a1' again \(first on line 1\)" \
    "${common[@]}" --subjects "$data/duplicate.tsv"
table case 'Rat1\ta.nii\nrat1\tb.nii\n'
refused case "line 2: subject id 'rat1' differs from 'Rat1' \(line 1\) only in case" \
    "${common[@]}" --subjects "$data/case.tsv"
table unsafe '../up\ta.nii\n'
refused unsafe "line 1: subject id '../up' cannot name a directory" "${common[@]}" --subjects "$data/unsafe.tsv"
table reserved 'report.tsv\ta.nii\n'
refused reserved "line 1: subject id 'report.tsv' is a name that align-cohort uses" \
    "${common[@]}" --subjects "$data/reserved.tsv"
table spaces 'a1 a.nii\n'
refused spaces "line 1: no tab" "${common[@]}" --subjects "$data/spaces.tsv"
table options 'a1\ta.nii\t-\t--fast\n'
refused options "line 1: unknown option '--fast'" "${common[@]}" --subjects "$data/options.tsv"
table empty '# nothing yet\n\n'
refused empty "lists no subjects" "${common[@]}" --subjects "$data/empty.tsv"
# Every problem of a table at once, each with its line.
table several 'a1\ta.nii\na2\tmissing.nii\na3\tb.nii\tnomask.nii\na1\tb.nii\n'
refused several "line 2: individual file .*/missing.nii does not exist" "${common[@]}" --subjects "$data/several.tsv"
grep -q "line 3: mask file .*/nomask.nii does not exist" several.txt || fail "several: the missing mask is not named"
grep -q "line 4: subject id 'a1' again" several.txt || fail "several: the duplicate is not named"

refused template "template .*/none.nii does not exist" \
    --template "$data/none.nii" --subjects "$data/subjects.tsv" --out out
refused mask "--mask: mask file .*/none.nii does not exist" "${common[@]}" --subjects "$data/subjects.tsv" \
    --mask "$data/none.nii"
refused table "subject table .*/none.tsv does not exist" "${common[@]}" --subjects "$data/none.tsv"
refused slurm_only "--time only applies with --engine slurm" "${common[@]}" --subjects "$data/subjects.tsv" \
    --time 1:00:00
refused jobs "--jobs: invalid positive_int value|must be 1 or more" "${common[@]}" \
    --subjects "$data/subjects.tsv" --jobs 0
touch out-file
refused out_file "--out .*/out-file exists and is not a directory" --template "$data/tpl.nii" \
    --subjects "$data/subjects.tsv" --out out-file

# A good table from another directory, with Windows line ends: relative names are the table's.
tr -d '\r' < "$data/subjects.tsv" | sed 's/$/\r/' > "$data/crlf.tsv"
(cd elsewhere && "$cohort" --template "$data/tpl.nii" --subjects "$data/crlf.tsv" --out ../out \
    --nonlinear --dry-run) > dry.txt 2>&1
status=$?
cat dry.txt
[ "$status" = 0 ] || fail "dry run: status $status"
[ ! -e out ] || fail "the dry run made the output directory"
grep -q "3 subject(s) in .*; 0 aligned already (skipped), 3 to align" dry.txt || fail "dry run: no plan line"
grep -qF "s data/b.nii' " dry.txt || fail "dry run: rat_b's file is not taken from the table's directory"
[ "$(grep -c -- '--nonlinear' dry.txt)" = 3 ] || fail "dry run: --nonlinear is not passed on for each subject"
echo "PASS"
