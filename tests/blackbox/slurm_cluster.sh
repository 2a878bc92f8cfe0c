# A one-node Slurm cluster on this machine for the tests, sourced by bash scripts.
#   slurm_cluster_start   starts munged (as the munge user, on its own socket and key), slurmctld
#                         and slurmd (as root, with a slurm.conf of their own, on two free ports),
#                         all in a new directory under /tmp (the munge user must reach it), waits
#                         until the node is idle and a trivial array job has run. Exports
#                         SLURM_CONF. Returns 1 with the reason in $slurm_cluster_reason when the
#                         daemons cannot start here (the caller skips).
#   slurm_cluster_stop    cancels the jobs left, stops the three daemons it started (by their
#                         process ids, waiting for each) and removes the directory.
# Nothing else is written; the machine's own /etc/slurm and /run/munge are not touched.

slurm_cluster_pids=""
slurm_cluster_dir=""
slurm_cluster_reason=""

# _slurm_cluster_fail REASON [LOG...]: records the reason, prints it with the tails of the logs.
_slurm_cluster_fail() {
    slurm_cluster_reason=$1
    shift
    echo "cluster: $slurm_cluster_reason"
    for log in "$@"; do
        [ -s "$log" ] && { echo "--- tail of $log"; tail -n 15 "$log"; }
    done
    return 1
}

# _slurm_free_ports: prints two TCP ports that are free on 127.0.0.1 now.
_slurm_free_ports() {
    python3 -c '
import socket
s = [socket.socket() for _ in range(2)]
for x in s:
    x.bind(("127.0.0.1", 0))
print(*[x.getsockname()[1] for x in s])'
}

# _slurm_wait_for SECONDS COMMAND...: runs COMMAND every half second until it succeeds.
_slurm_wait_for() {
    local tries=$(( $1 * 2 ))
    shift
    while [ "$tries" -gt 0 ]; do
        "$@" > /dev/null 2>&1 && return 0
        sleep 0.5
        tries=$(( tries - 1 ))
    done
    return 1
}

_slurm_node_idle() {
    [ "$(sinfo -h -N -o %t 2>/dev/null)" = idle ]
}

slurm_cluster_start() {
    local d tool
    if [ "$(id -u)" != 0 ]; then
        _slurm_cluster_fail "not root: slurmd and a munged under the munge user need root"; return 1
    fi
    for tool in munged munge slurmctld slurmd sbatch squeue sinfo scancel setpriv python3; do
        command -v "$tool" > /dev/null 2>&1 || { _slurm_cluster_fail "$tool is not installed"; return 1; }
    done
    id munge > /dev/null 2>&1 || { _slurm_cluster_fail "there is no munge user"; return 1; }

    # munged checks that its directories are not writable by others and that the key is private.
    d=$(mktemp -d /tmp/align-slurm-XXXXXX) || { _slurm_cluster_fail "cannot make a directory in /tmp"; return 1; }
    slurm_cluster_dir=$d
    chmod 755 "$d"
    mkdir -p "$d/munge" "$d/state" "$d/spool"
    head -c 1024 /dev/urandom > "$d/munge/munge.key"
    chown -R munge:munge "$d/munge"
    chmod 755 "$d/munge"
    chmod 600 "$d/munge/munge.key"
    setpriv --reuid=munge --regid=munge --init-groups \
        munged --foreground --socket="$d/munge/munge.socket" --key-file="$d/munge/munge.key" \
        --pid-file="$d/munge/munged.pid" --log-file="$d/munge/munged.log" \
        --seed-file="$d/munge/munged.seed" > "$d/munged.out" 2>&1 &
    slurm_cluster_pids="$!"
    if ! _slurm_wait_for 10 sh -c "munge -S '$d/munge/munge.socket' -n | unmunge -S '$d/munge/munge.socket'"; then
        _slurm_cluster_fail "munged did not start" "$d/munged.out" "$d/munge/munged.log"; return 1
    fi

    local ports node host
    ports=$(_slurm_free_ports) || { _slurm_cluster_fail "no free ports"; return 1; }
    node=$(slurmd -C 2>/dev/null | head -n 1)
    host=$(hostname -s)
    case "$node" in
        NodeName=*) ;;
        *) _slurm_cluster_fail "slurmd -C does not describe this machine"; return 1 ;;
    esac
    cat > "$d/slurm.conf" <<EOF
ClusterName=aligntest
SlurmctldHost=$host(127.0.0.1)
SlurmctldPort=${ports% *}
SlurmdPort=${ports#* }
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$d/munge/munge.socket
StateSaveLocation=$d/state
SlurmdSpoolDir=$d/spool
SlurmctldPidFile=$d/slurmctld.pid
SlurmdPidFile=$d/slurmd.pid
SlurmctldLogFile=$d/slurmctld.log
SlurmdLogFile=$d/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
MpiDefault=none
MailProg=/bin/true
ReturnToService=2
$node NodeAddr=127.0.0.1 State=UNKNOWN
PartitionName=aligntest Nodes=ALL Default=YES MaxTime=INFINITE State=UP
EOF
    export SLURM_CONF="$d/slurm.conf"
    slurmctld -D > "$d/slurmctld.out" 2>&1 &
    slurm_cluster_pids="$slurm_cluster_pids $!"
    slurmd -D > "$d/slurmd.out" 2>&1 &
    slurm_cluster_pids="$slurm_cluster_pids $!"
    if ! _slurm_wait_for 30 _slurm_node_idle; then
        _slurm_cluster_fail "the node did not become idle: $(sinfo -h -N -o '%t %E' 2>&1)" \
            "$d/slurmctld.log" "$d/slurmd.log" "$d/slurmctld.out" "$d/slurmd.out"
        return 1
    fi

    # A trivial array job shows that jobs run here (containers may refuse what slurmstepd needs).
    local job
    job=$(sbatch --parsable --array=0-1 --output="$d/probe-%a.out" --wrap 'echo task $SLURM_ARRAY_TASK_ID' 2>&1)
    if ! _slurm_wait_for 30 sh -c "[ -z \"\$(squeue -h -j ${job%%;*} 2>/dev/null)\" ]" ||
       [ "$(cat "$d/probe-0.out" "$d/probe-1.out" 2>/dev/null)" != "$(printf 'task 0\ntask 1')" ]; then
        _slurm_cluster_fail "a trivial array job did not run (sbatch: $job)" \
            "$d/slurmctld.log" "$d/slurmd.log" "$d/probe-0.out"
        return 1
    fi
    echo "cluster: node $host up (slurm.conf in $d)"
    return 0
}

slurm_cluster_stop() {
    [ -n "$slurm_cluster_dir" ] || return 0
    if [ -n "${SLURM_CONF:-}" ] && [ -f "$SLURM_CONF" ]; then
        scancel --full --quiet --partition=aligntest > /dev/null 2>&1
        _slurm_wait_for 20 sh -c '[ -z "$(squeue -h 2>/dev/null)" ]'
    fi
    local pid reversed=""
    for pid in $slurm_cluster_pids; do reversed="$pid $reversed"; done
    # slurmd, then slurmctld, then munged: each by the id this script started it under.
    for pid in $reversed; do
        kill -TERM "$pid" 2>/dev/null
        _slurm_wait_for 15 sh -c "! kill -0 $pid" || kill -KILL "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    slurm_cluster_pids=""
    rm -rf "$slurm_cluster_dir"
    slurm_cluster_dir=""
}
