# align-cohort on Slurm: a one-node cluster on this machine runs the three phantom subjects
# (one broken) as one array job; the outputs and the report are checked, a second run sends
# only the failed subject again, and the daemons are stopped. Skipped (77) with the reason when
# the daemons cannot start here.
cohort=$1 make_volumes=$2
here=$(cd "$(dirname "$0")" && pwd)
. "$here/cohort_lib.sh"
. "$here/slurm_cluster.sh"
trap 'slurm_cluster_stop; cleanup' EXIT
# Stopped from outside (ctest, Ctrl-C, a closed terminal): the daemons are stopped all the same.
# align-cohort runs in the background so that a signal is handled at once, not after its run.
child=""
on_signal() {
    [ -n "$child" ] && kill -TERM "$child" 2> /dev/null && wait "$child"
    exit "$1"
}
trap 'on_signal 143' TERM
trap 'on_signal 130' INT
trap 'on_signal 129' HUP
# cohort_run OUTPUT: runs "${run[@]}" into OUTPUT; its status is the status of align-cohort.
cohort_run() {
    "${run[@]}" > "$1" 2>&1 &
    child=$!
    wait "$child"
    local status=$?
    child=""
    return "$status"
}
slurm_cluster_start || { echo "SKIP: $slurm_cluster_reason"; exit 77; }
make_subjects
out="$work/slurm out"   # the job script's #SBATCH --output must be quoted
run=("$cohort" --template "$data/tpl.nii" --subjects "$data/subjects.tsv" --out "$out"
     --engine slurm --jobs 2 --time 20:00 --mem 1G --cpus-per-task 1)

start=$(date +%s)
cohort_run first.txt
status=$?
cat first.txt
echo "array job: $(( $(date +%s) - start )) s"
[ "$status" = 1 ] || fail "the cohort with a broken subject ended with status $status, not 1"
job=$(sed -n 's/^submitted Slurm job \([0-9]*\):.*/\1/p' first.txt)
[ -n "$job" ] || fail "no job submitted"
grep -q '^#SBATCH --array=0-2%2$' "$out/cohort-job.sh" || fail "the job script has no array of three tasks"
grep -q '^#SBATCH --time=20:00$' "$out/cohort-job.sh" || fail "the time limit is not passed on"
for task in 0 1 2; do
    [ -f "$out/slurm/${job}_$task.out" ] || fail "no Slurm output for task $task"
done
for id in rat-a rat_b rat.c; do
    head -n 1 "$out/$id/log.txt" | grep -q "(Slurm job ${job}_[0-2])" || fail "$id did not run as a task of job $job"
done
check_cohort "$out"
[ ! -e "$out/.align-cohort.lock" ] || fail "the finished run left its lock"

# Again: only the failed subject is sent, as an array of one task.
cohort_run second.txt
status=$?
cat second.txt
[ "$status" = 1 ] || fail "the second run ended with status $status"
grep -q "2 aligned already (skipped), 1 to align" second.txt || fail "the second run did not skip the aligned subjects"
grep -q '^#SBATCH --array=0-0%2$' "$out/cohort-job.sh" || fail "the second job script is not one task"
check_cohort "$out"
echo "PASS"
