# align-cohort with GNU parallel: three phantom subjects, one broken. A first run is stopped
# (SIGTERM) once the first subject is aligned; the second run skips that subject, aligns the
# rest, reports the broken one and ends with status 1; a third run with other options refuses
# to touch the results.
cohort=$1 make_volumes=$2
here=$(cd "$(dirname "$0")" && pwd)
. "$here/cohort_lib.sh"
command -v parallel > /dev/null 2>&1 || { echo "SKIP: GNU parallel is not installed"; exit 77; }
make_subjects
run=("$cohort" --template "$data/tpl.nii" --subjects "$data/subjects.tsv" --out out)

# The interruption: one subject at a time, stopped when rat-a's summary.json is in place.
"${run[@]}" --jobs 1 > first.txt 2>&1 &
pid=$!
for _ in $(seq 1 1200); do
    [ -s out/rat-a/summary.json ] && break
    kill -0 "$pid" 2> /dev/null || break
    sleep 0.1
done
[ -s out/rat-a/summary.json ] || { cat first.txt; fail "rat-a was not aligned by the first run"; }
# A second run into the same directory while the first goes on is refused.
"${run[@]}" > concurrent.txt 2>&1 && fail "a second run started beside the first"
grep -q "is in use by process $pid on this machine" concurrent.txt || { cat concurrent.txt; fail "no message about the run in progress"; }
kill -TERM "$pid"
wait "$pid"
status=$?
cat first.txt
[ "$status" = 130 ] || fail "the interrupted run ended with status $status, not 130"
[ ! -e out/.align-cohort.lock ] || fail "the interrupted run left its lock"
[ "$(tsv_value rat-a status)" = ok ] || fail "after the interruption rat-a is $(tsv_value rat-a status)"
for id in rat_b rat.c; do
    case "$(tsv_value "$id" status)" in
        incomplete|not-run) ;;
        *) fail "after the interruption $id is '$(tsv_value "$id" status)'" ;;
    esac
    [ ! -e "out/$id/summary.json" ] || fail "$id looks complete after the interruption"
done
touch -d '2001-01-01' out/rat-a/summary.json   # a skipped subject keeps this date
# The lock of a run that was killed outright does not stop the next one.
dead=$(sh -c 'echo $$')
printf '{"engine": "parallel", "pid": %s, "host": "%s"}\n' "$dead" "$(python3 -c 'import socket; print(socket.gethostname())')" \
    > out/.align-cohort.lock

# The resumed run: rat-a skipped, the others run two at a time.
start=$(date +%s)
"${run[@]}" > second.txt 2>&1
status=$?
cat second.txt
echo "resumed run: $(( $(date +%s) - start )) s"
[ "$status" = 1 ] || fail "the resumed run with a broken subject ended with status $status, not 1"
grep -q "1 aligned already (skipped), 2 to align" second.txt || fail "the resumed run did not skip rat-a"
[ "$(date -r out/rat-a/summary.json +%Y)" = 2001 ] || fail "rat-a was aligned again"
grep -q "rat.c: FAILED" second.txt || fail "no progress line for the broken subject"
check_cohort out
[ -x out/cohort-job.sh ] || fail "no job script kept"

# Other settings for the same output: refused, nothing changed.
cp out/report.tsv report-before.tsv
"${run[@]}" --search specified > third.txt 2>&1
status=$?
cat third.txt
[ "$status" = 1 ] || fail "a run with other settings ended with status $status"
grep -q "aligned with other settings" third.txt || fail "no message about the changed settings"
cmp -s out/report.tsv report-before.tsv || fail "the refused run changed the report"
[ "$(date -r out/rat-a/summary.json +%Y)" = 2001 ] || fail "the refused run touched rat-a"
echo "PASS"
