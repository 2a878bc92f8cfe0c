#!/usr/bin/python3
"""align-cohort: aligns many subjects to one template by running align-batch once per subject,
through GNU parallel on a workstation or as one Slurm array job, and collects a report.

Standard library only. Writes OUT/<subject>/ (align-batch's outputs, log.txt, exit-status),
OUT/cohort-job.sh (the job script), OUT/report.tsv and OUT/report.html."""

import argparse
import datetime
import html
import json
import os
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse

PROGRAM = "align-cohort"

DESCRIPTION = """\
Aligns every subject of a table to one template with align-batch, one run per subject, through
GNU parallel on this machine (--engine parallel, the default) or as one Slurm array job
(--engine slurm), and writes a report of the cohort.

The subject table is tab-separated, one subject a line: subject id, individual file, and
optionally a mask file (in template space; empty, "-" or "n/a" for none) and align-batch options
for that subject ("--nonlinear", "--search specified"). Lines starting with "#" and empty lines
are skipped. A first line whose first column is "id", "subject", "subject_id" or
"participant_id" is a header: then the second column is the individual, columns named "mask"
and "options" are used and any other column is ignored. Relative file names are taken from the
table's directory. Subject ids name directories: letters, digits, ".", "_", "-".

Writes OUT/<subject>/ (align.com, distortions.nii, aligned.nii.gz, qc.png, summary.json from
align-batch, log.txt with its output), OUT/cohort-job.sh (the job script: read it, or run one
subject with "bash OUT/cohort-job.sh N"), OUT/report.tsv (one row per subject: id, status,
similarity, folded voxels, parameters, time) and OUT/report.html (every subject's QC picture).

Resumable: a subject whose summary.json is in place and was made with the same settings is
skipped, so running the same command again after an interruption or a failure runs only what is
left. A failed subject does not stop the others; the status is 0 only when every subject is
aligned."""

EPILOG = """\
examples:
  align-cohort --template tpl.nii --subjects subjects.tsv --out cohort
  align-cohort --template tpl.nii --subjects subjects.tsv --out cohort --nonlinear \\
      --engine slurm --partition short --time 1:00:00 --mem 4G --cpus-per-task 2"""

# Files of OUT that a subject directory must not shadow.
RESERVED_NAMES = {"report.tsv", "report.html", "cohort-job.sh", "slurm"}
ID_PATTERN = re.compile(r"^[A-Za-z0-9][A-Za-z0-9._-]*$")
HEADER_IDS = {"id", "subject", "subject_id", "participant_id"}
NO_FILE = {"", "-", "n/a", "na", "none"}
SEARCHES = ("accurate", "specified")
PARAMETERS = ("x", "y", "z", "phi_xy", "phi_xz", "phi_yz",
              "size_x", "size_y", "size_z", "skew_xy", "skew_xz", "skew_yz")
LOCK_NAME = ".align-cohort.lock"
POLL_SECONDS = 5


class Failure(Exception):
    """A problem the user must fix: the message names the file or option."""


def note(text=""):
    print(text, flush=True)


# --------------------------------------------------------------------------------------------
# Command line


class Parser(argparse.ArgumentParser):
    def error(self, message):
        sys.stderr.write("%s: %s\n(%s --help lists the options)\n" % (PROGRAM, message, PROGRAM))
        sys.exit(1)


def positive_int(text):
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError("'%s' is not a whole number" % text)
    if value < 1:
        raise argparse.ArgumentTypeError("'%s' must be 1 or more" % text)
    return value


def parse_arguments(argv):
    p = Parser(prog=PROGRAM, description=DESCRIPTION, epilog=EPILOG,
               formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--template", required=True, help="the template every subject is aligned to")
    p.add_argument("--subjects", required=True, metavar="TABLE.tsv", help="the subject table")
    p.add_argument("--out", required=True, metavar="DIR", help="output directory")
    p.add_argument("--engine", choices=("parallel", "slurm"), default="parallel",
                   help="GNU parallel on this machine (default) or a Slurm array job")
    p.add_argument("--jobs", type=positive_int, metavar="N",
                   help="subjects aligned at once (parallel: default the number of cores; "
                        "slurm: array tasks running at once, default no limit)")
    p.add_argument("--dry-run", action="store_true",
                   help="check the table and show what would run; write nothing")
    p.add_argument("--report-only", action="store_true",
                   help="write the report from what OUT holds; run nothing")
    b = p.add_argument_group("align-batch options, passed on for every subject")
    b.add_argument("--nonlinear", action="store_true", help="non-linear stage after the affine one")
    b.add_argument("--mask", metavar="FILE",
                   help="brain mask in template space (a mask column of the table overrides it)")
    b.add_argument("--search", choices=SEARCHES, help="affine search (align-batch's default: accurate)")
    s = p.add_argument_group("Slurm options (--engine slurm)")
    s.add_argument("--partition", help="partition to submit to")
    s.add_argument("--time", metavar="LIMIT", help="time limit per subject, e.g. 2:00:00")
    s.add_argument("--mem", metavar="SIZE", help="memory per subject, e.g. 8G")
    s.add_argument("--cpus-per-task", type=positive_int, metavar="N",
                   help="CPUs per subject (align-batch uses that many threads)")
    s.add_argument("--account", help="account to charge")
    s.add_argument("--sbatch-option", action="append", default=[], metavar="OPTION",
                   help="any further sbatch option, e.g. --sbatch-option=--qos=short (repeatable)")
    s.add_argument("--no-wait", action="store_true",
                   help="submit and return; run again with --report-only when the job has ended")
    args = p.parse_args(argv)
    if args.dry_run and args.report_only:
        p.error("--dry-run and --report-only exclude each other")
    if args.engine != "slurm":
        used = [name for name, value in (("--partition", args.partition), ("--time", args.time),
                                         ("--mem", args.mem), ("--cpus-per-task", args.cpus_per_task),
                                         ("--account", args.account), ("--no-wait", args.no_wait),
                                         ("--sbatch-option", args.sbatch_option)) if value]
        if used:
            p.error("%s only applies with --engine slurm" % ", ".join(used))
    return args


# --------------------------------------------------------------------------------------------
# The subject table


class Subject:
    def __init__(self, line, sid, individual, mask, nonlinear, search):
        self.line = line
        self.id = sid
        self.individual = individual
        self.mask = mask
        self.nonlinear = nonlinear
        self.search = search
        self.state = None     # set by plan(): "complete" or "run"

    def settings(self, template):
        """What the alignment depends on, as align-batch's summary.json records it."""
        return {"individual": self.individual, "template": template, "mask": self.mask,
                "nonlinear": self.nonlinear, "search": self.search}

    def batch_arguments(self):
        """align-batch's options after INDIVIDUAL TEMPLATE --out DIR."""
        out = []
        if self.nonlinear:
            out.append("--nonlinear")
        if self.mask:
            out += ["--mask", self.mask]
        if self.search:
            out += ["--search", self.search]
        return out


def check_input_file(path, what):
    """Returns None when path is a readable file, else the problem."""
    if not os.path.exists(path):
        return "%s %s does not exist" % (what, path)
    if not os.path.isfile(path):
        return "%s %s is not a file" % (what, path)
    if not os.access(path, os.R_OK):
        return "%s %s cannot be read" % (what, path)
    return None


def parse_options_cell(text):
    """Per-subject align-batch options: returns (nonlinear, search, problem)."""
    try:
        words = shlex.split(text)
    except ValueError as e:
        return False, None, "cannot split the options '%s': %s" % (text, e)
    nonlinear, search = False, None
    i = 0
    while i < len(words):
        w = words[i]
        if w == "--nonlinear":
            nonlinear = True
        elif w == "--search" or w.startswith("--search="):
            if w == "--search":
                i += 1
                value = words[i] if i < len(words) else ""
            else:
                value = w[len("--search="):]
            if value not in SEARCHES:
                return False, None, "--search takes accurate or specified, not '%s'" % value
            search = value
        else:
            return False, None, ("unknown option '%s' in the options column (allowed: --nonlinear, "
                                 "--search accurate|specified; the mask has its own column)" % w)
        i += 1
    return nonlinear, search, None


def read_table(path, default_mask, default_nonlinear, default_search):
    """Reads and checks the whole table. Raises Failure listing every problem with its line."""
    problem = check_input_file(path, "subject table")
    if problem:
        raise Failure(problem)
    try:
        with open(path, "rb") as f:
            raw = f.read()
    except OSError as e:
        raise Failure("cannot read the subject table %s: %s" % (path, e.strerror))
    try:
        text = raw.decode("utf-8-sig")
    except UnicodeDecodeError:
        raise Failure("the subject table %s is not UTF-8 text" % path)
    base = os.path.dirname(os.path.abspath(path))
    problems, subjects = [], []
    seen, seen_folded = {}, {}
    mask_col, options_col = 2, 3
    header_done = False

    def resolve(name):
        return os.path.normpath(os.path.join(base, os.path.expanduser(name)))

    for number, line in enumerate(text.splitlines(), 1):
        if not line.strip() or line.lstrip().startswith("#"):
            continue
        cells = [c.strip() for c in line.split("\t")]
        where = "line %d" % number
        if not header_done:
            header_done = True
            if cells[0].lower() in HEADER_IDS:
                names = [c.lower() for c in cells]
                mask_col = names.index("mask") if "mask" in names else None
                options_col = names.index("options") if "options" in names else None
                if len(cells) < 2:
                    problems.append("%s: the header names no individual column" % where)
                continue
        if len(cells) < 2:
            if " " in line:
                problems.append("%s: no tab; columns are separated by tabs, not spaces" % where)
            else:
                problems.append("%s: a subject needs an id and an individual file" % where)
            continue
        sid, individual = cells[0], cells[1]
        if not ID_PATTERN.match(sid) or sid in RESERVED_NAMES or len(sid) > 128:
            problems.append("%s: subject id '%s' cannot name a directory (use letters, digits and "
                            "'.', '_', '-', starting with a letter or digit)" % (where, sid)
                            if sid not in RESERVED_NAMES else
                            "%s: subject id '%s' is a name that %s uses for its own files"
                            % (where, sid, PROGRAM))
            continue
        if sid in seen:
            problems.append("%s: subject id '%s' again (first on line %d)" % (where, sid, seen[sid]))
            continue
        if sid.lower() in seen_folded:
            other = seen_folded[sid.lower()]
            problems.append("%s: subject id '%s' differs from '%s' (line %d) only in case"
                            % (where, sid, other[0], other[1]))
            continue
        seen[sid] = number
        seen_folded[sid.lower()] = (sid, number)
        if not individual:
            problems.append("%s: subject %s has no individual file" % (where, sid))
            continue
        individual = resolve(individual)
        problem = check_input_file(individual, "individual file")
        if problem:
            problems.append("%s: %s" % (where, problem))
        mask = default_mask
        if mask_col is not None and mask_col < len(cells) and cells[mask_col].lower() not in NO_FILE:
            mask = resolve(cells[mask_col])
            problem = check_input_file(mask, "mask file")
            if problem:
                problems.append("%s: %s" % (where, problem))
        nonlinear, search = default_nonlinear, default_search
        if options_col is not None and options_col < len(cells) and cells[options_col]:
            own_nonlinear, own_search, problem = parse_options_cell(cells[options_col])
            if problem:
                problems.append("%s: %s" % (where, problem))
            nonlinear = nonlinear or own_nonlinear
            search = own_search or search
        subjects.append(Subject(number, sid, individual, mask, nonlinear, search))
    if problems:
        shown = problems[:20]
        if len(problems) > 20:
            shown.append("... and %d more" % (len(problems) - 20))
        raise Failure("problems in the subject table %s:\n  %s" % (path, "\n  ".join(shown)))
    if not subjects:
        raise Failure("the subject table %s lists no subjects" % path)
    return subjects


# --------------------------------------------------------------------------------------------
# What each subject directory holds


def read_json(path):
    """The parsed JSON object in path, or None when it is missing, unreadable or not an object."""
    try:
        with open(path, encoding="utf-8") as f:
            value = json.load(f)
    except (OSError, ValueError):
        return None
    return value if isinstance(value, dict) else None


def subject_dir(out, subject):
    return os.path.join(out, subject.id)


def classify(out, subject, template):
    """("complete", None), ("stale", reasons) or ("run", None) for one subject directory.
    Complete: align-batch's summary.json (written last) parses and records the inputs and
    options asked for now."""
    summary = read_json(os.path.join(subject_dir(out, subject), "summary.json"))
    if summary is None:
        return "run", None
    diff = summary_mismatch(summary, subject.settings(template))
    return ("stale", diff) if diff else ("complete", None)


def read_exit_status(d):
    """(status, seconds) from the job script's exit-status file, or None."""
    try:
        with open(os.path.join(d, "exit-status")) as f:
            words = f.read().split()
        return int(words[0]), int(words[1])
    except (OSError, ValueError, IndexError):
        return None


def log_tail(path, lines=25):
    try:
        with open(path, "rb") as f:
            f.seek(0, os.SEEK_END)
            size = f.tell()
            f.seek(max(0, size - 65536))
            text = f.read().decode("utf-8", "replace")
    except OSError:
        return ""
    # align-batch rewrites progress lines with a carriage return: keep the last state of each.
    rows = [row.split("\r")[-1] for row in text.splitlines()]
    return "\n".join(rows[-lines:])


def slurm_output_of(out, d):
    """The Slurm output file of the task that last ran this subject, named in its log's first line."""
    try:
        with open(os.path.join(d, "log.txt"), errors="replace") as f:
            first = f.readline()
    except OSError:
        return None
    m = re.search(r"Slurm job (\d+)_(\d+)", first)
    if not m:
        return None
    path = os.path.join(out, "slurm", "%s_%s.out" % (m.group(1), m.group(2)))
    return path if os.path.exists(path) else None


# --------------------------------------------------------------------------------------------
# Reading align-batch's summary.json


def number(value):
    return value if isinstance(value, (int, float)) and not isinstance(value, bool) else None


def summary_values(summary):
    """(similarity, folded voxels, {parameter: value}, seconds) from align-batch's summary.json;
    None where the summary has no such value (folded voxels without a non-linear stage)."""
    def group(name):
        value = summary.get(name)
        return value if isinstance(value, dict) else {}

    similarity = number(group("similarity").get("final"))
    folded = number(group("deformation").get("folded_voxels"))
    values = []
    for key in ("translations_mm", "rotations_degrees", "inflations", "skews"):
        triple = group("parameters").get(key)
        values += [number(v) for v in triple] if isinstance(triple, list) and len(triple) == 3 else [None] * 3
    seconds = number(group("seconds").get("total"))
    return similarity, folded, dict(zip(PARAMETERS, values)), seconds


def summary_mismatch(summary, settings):
    """What differs between align-batch's record of its inputs and options and the subject's
    settings now; a summary that records no individual or template cannot be matched."""
    if not isinstance(summary.get("individual"), str) or not isinstance(summary.get("template"), str):
        return ["its summary.json does not name the individual and the template"]
    out = []
    for key in ("individual", "template", "mask"):
        recorded, wanted = summary.get(key), settings[key]
        if isinstance(recorded, str) and isinstance(wanted, str):
            # The same file under either name (a link in the path, or "a/../b").
            recorded, wanted = os.path.realpath(recorded), os.path.realpath(wanted)
        if recorded != wanted:
            out.append("%s %s, now %s" % (key, json.dumps(summary.get(key)), json.dumps(settings[key])))
    if bool(summary.get("nonlinear")) != settings["nonlinear"]:
        out.append("nonlinear %s, now %s" % (json.dumps(summary.get("nonlinear")), json.dumps(settings["nonlinear"])))
    if summary.get("search", "accurate") != (settings["search"] or "accurate"):
        out.append("search %s, now %s" % (json.dumps(summary.get("search")), json.dumps(settings["search"] or "accurate")))
    return out


# --------------------------------------------------------------------------------------------
# The job script: one task per subject, for GNU parallel and for sbatch --array alike


def sbatch_directives(args, out, count):
    array = "0-%d" % (count - 1)
    if args.jobs:
        array += "%%%d" % args.jobs
    lines = ["--job-name=align-cohort", "--array=" + array,
             "--output=" + os.path.join(out, "slurm", "%A_%a.out")]
    for option, value in (("--partition", args.partition), ("--time", args.time),
                          ("--mem", args.mem), ("--cpus-per-task", args.cpus_per_task),
                          ("--account", args.account)):
        if value:
            lines.append("%s=%s" % (option, value))
    lines += args.sbatch_option
    return lines


def job_script(args, out, template, align_batch, subjects, table):
    q = shlex.quote
    now = datetime.datetime.now().strftime("%Y-%m-%d %H:%M:%S")
    last = len(subjects) - 1
    text = ["#!/bin/bash",
            "# Written by %s on %s: %d subject(s) of %s to align to %s." % (PROGRAM, now, len(subjects),
                                                                           table, template),
            "# Task N runs align-batch for the N-th subject below into %s/<subject>/, with its" % out,
            "# output in <subject>/log.txt and its exit status and seconds in <subject>/exit-status.",
            "# One subject by hand:   bash %s N      (N from 0 to %d)" % (q(os.path.join(out, "cohort-job.sh")),
                                                                         last)]
    if args.engine == "slurm":
        text.append("# All of them on Slurm: sbatch %s" % q(os.path.join(out, "cohort-job.sh")))
        for directive in sbatch_directives(args, out, len(subjects)):
            text.append("#SBATCH " + (directive if " " not in directive else '"%s"' % directive))
    else:
        text.append("# All of them with GNU parallel: parallel bash %s ::: $(seq 0 %d)"
                    % (q(os.path.join(out, "cohort-job.sh")), last))
    text += ["",
             "align_batch=%s" % q(align_batch),
             "template=%s" % q(template),
             "out=%s" % q(out),
             "# align-batch's threads: one per CPU the task has.",
             "export ALIGN_THREADS=${ALIGN_THREADS:-${SLURM_CPUS_PER_TASK:-1}}",
             "",
             "# run_subject ID INDIVIDUAL [OPTION...]: aligns one subject; summary.json is removed",
             "# first so that an interrupted run never looks complete.",
             "run_subject() {",
             "    local id=$1 individual=$2 dir=$out/$1 start=$SECONDS status where",
             "    shift 2",
             "    mkdir -p \"$dir\" || return 1",
             "    rm -f \"$dir/summary.json\" \"$dir/exit-status\"",
             "    [ -f \"$dir/log.txt\" ] && mv -f \"$dir/log.txt\" \"$dir/log.previous.txt\"",
             "    where=\"on $(hostname -s)\"",
             "    [ -n \"${SLURM_ARRAY_JOB_ID:-}\" ] && where=\"(Slurm job ${SLURM_ARRAY_JOB_ID}_${SLURM_ARRAY_TASK_ID}) $where\"",
             "    {",
             "        echo \"align-cohort: subject $id $where, $(date '+%Y-%m-%d %H:%M:%S')\"",
             "        echo \"+ $align_batch $individual $template --out $dir $*\"",
             "    } > \"$dir/log.txt\"",
             "    \"$align_batch\" \"$individual\" \"$template\" --out \"$dir\" \"$@\" >> \"$dir/log.txt\" 2>&1 < /dev/null",
             "    status=$?",
             "    echo \"align-cohort: exit status $status after $((SECONDS - start)) s\" >> \"$dir/log.txt\"",
             "    echo \"$status $((SECONDS - start))\" > \"$dir/exit-status.tmp\" && mv -f \"$dir/exit-status.tmp\" \"$dir/exit-status\"",
             "    if [ \"$status\" = 0 ] && [ -s \"$dir/summary.json\" ]; then",
             "        echo \"$id: done in $((SECONDS - start)) s\"",
             "    elif [ \"$status\" = 0 ]; then",
             "        echo \"$id: FAILED: align-batch wrote no summary.json, see $dir/log.txt\"",
             "    else",
             "        echo \"$id: FAILED with status $status after $((SECONDS - start)) s, see $dir/log.txt\"",
             "    fi",
             "    return \"$status\"",
             "}",
             "",
             "task=${1:-${SLURM_ARRAY_TASK_ID:-}}",
             "case \"$task\" in"]
    for i, s in enumerate(subjects):
        words = [s.id, s.individual] + s.batch_arguments()
        text.append("    %d) run_subject %s ;;" % (i, " ".join(q(w) for w in words)))
    text += ["    *) echo \"cohort-job.sh: no task '$task' (0 to %d)\" >&2; exit 2 ;;" % last,
             "esac",
             ""]
    return "\n".join(text)


def write_file(path, content, mode=0o644):
    """Writes content to a temporary name beside path and renames it into place."""
    directory = os.path.dirname(path)
    fd, temporary = tempfile.mkstemp(prefix="." + os.path.basename(path) + ".", dir=directory)
    try:
        with os.fdopen(fd, "w", encoding="utf-8") as f:
            f.write(content)
        os.chmod(temporary, mode)
        os.replace(temporary, path)
    except OSError as e:
        try:
            os.unlink(temporary)
        except OSError:
            pass
        raise Failure("cannot write %s: %s" % (path, e.strerror))


# --------------------------------------------------------------------------------------------
# One run at a time in an output directory


def lock_holder(out):
    """Description of a run that still holds OUT's lock, or None when the lock is free or stale."""
    record = read_json(os.path.join(out, LOCK_NAME))
    if record is None:
        return None
    if record.get("engine") == "slurm" and record.get("job"):
        job = str(record["job"])
        try:
            r = subprocess.run(["squeue", "-h", "-j", job, "-o", "%i"], capture_output=True,
                               text=True, timeout=60)
        except (OSError, subprocess.TimeoutExpired):
            return ("Slurm job %s (squeue cannot tell whether it is still queued; remove %s when it "
                    "has ended)" % (job, os.path.join(out, LOCK_NAME)))
        if r.returncode == 0 and r.stdout.strip():
            return "Slurm job %s (cancel it with: scancel %s)" % (job, job)
        return None
    pid = record.get("pid")
    if record.get("host") != socket.gethostname():
        return ("a run on %s (remove %s if it has ended)" % (record.get("host"), os.path.join(out, LOCK_NAME)))
    try:
        with open("/proc/%d/cmdline" % int(pid), "rb") as f:
            alive = PROGRAM.encode() in f.read()
    except (OSError, ValueError, TypeError):
        alive = False
    return "process %s on this machine" % pid if alive else None


def take_lock(out, engine):
    path = os.path.join(out, LOCK_NAME)
    holder = lock_holder(out)
    if holder:
        raise Failure("%s is in use by %s" % (out, holder))
    write_file(path, json.dumps({"engine": engine, "pid": os.getpid(), "host": socket.gethostname(),
                                 "started": time.strftime("%Y-%m-%d %H:%M:%S")}) + "\n")


def update_lock(out, **fields):
    path = os.path.join(out, LOCK_NAME)
    record = read_json(path) or {}
    record.update(fields)
    write_file(path, json.dumps(record) + "\n")


def release_lock(out):
    try:
        os.unlink(os.path.join(out, LOCK_NAME))
    except OSError:
        pass


# --------------------------------------------------------------------------------------------
# Engines


def find_align_batch():
    here = os.path.dirname(os.path.realpath(__file__))
    beside = os.path.join(here, "align-batch")
    if os.access(beside, os.X_OK):
        return beside
    found = shutil.which("align-batch")
    if found:
        return os.path.abspath(found)
    raise Failure("cannot find align-batch: it is neither in %s nor on PATH" % here)


def core_count():
    try:
        return len(os.sched_getaffinity(0))
    except (AttributeError, OSError):
        return os.cpu_count() or 1


def clock(seconds):
    seconds = int(seconds + 0.5)
    return "%d:%02d:%02d" % (seconds // 3600, seconds // 60 % 60, seconds % 60)


class Progress:
    """Counts finished subjects and estimates the time left: from the mean time of a subject
    and the number run at once when that is known (GNU parallel), else from the rate so far."""

    def __init__(self, total, at_once=None):
        self.total, self.at_once, self.done, self.start = total, at_once, 0, time.time()
        self.seconds = []

    def finished(self, text, seconds=None):
        self.done += 1
        if seconds is not None:
            self.seconds.append(seconds)
        elapsed = time.time() - self.start
        left = ""
        if self.done < self.total:
            if self.at_once and self.seconds:
                estimate = sum(self.seconds) / len(self.seconds) * (self.total - self.done) / self.at_once
            else:
                estimate = elapsed / self.done * (self.total - self.done)
            left = ", about %s left" % clock(estimate)
        note("[%*d/%d] %s (%s elapsed%s)" % (len(str(self.total)), self.done, self.total, text,
                                            clock(elapsed), left))


def run_parallel(args, out, script, count):
    parallel = shutil.which("parallel")
    if not parallel:
        raise Failure("GNU parallel is not installed (Debian: apt-get install parallel); "
                      "or use --engine slurm")
    try:
        version = subprocess.run([parallel, "--version"], capture_output=True, text=True,
                                 timeout=60, stdin=subprocess.DEVNULL).stdout
    except (OSError, subprocess.TimeoutExpired):
        version = ""
    if not version.startswith("GNU parallel"):
        raise Failure("%s is not GNU parallel (moreutils has a program of the same name; "
                      "Debian: apt-get install parallel)" % parallel)
    jobs = args.jobs or core_count()
    env = dict(os.environ)
    env.setdefault("ALIGN_THREADS", str(max(1, core_count() // jobs)))
    note("running %d subject(s) with GNU parallel, %d at a time; logs in %s/<subject>/log.txt"
         % (count, jobs, out))
    command = [parallel, "--will-cite", "--jobs", str(jobs), "--halt", "never",
               "bash", script, ":::"] + [str(i) for i in range(count)]
    progress = Progress(count, jobs)
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                               text=True, env=env, start_new_session=False)
    try:
        for line in process.stdout:
            line = line.rstrip("\n")
            if re.match(r"^\S+: (done|FAILED)", line):
                took = re.search(r" (?:in|after) (\d+) s\b", line)
                progress.finished(line, int(took.group(1)) if took else None)
            elif line:
                note(line)
        process.wait()
    except KeyboardInterrupt:
        # Parallel stops the runs (their whole process groups) on SIGTERM and ends.
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(timeout=30)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        raise


def submit_slurm(args, out, script):
    if not shutil.which("sbatch"):
        raise Failure("sbatch is not on PATH: --engine slurm needs a Slurm submit host")
    os.makedirs(os.path.join(out, "slurm"), exist_ok=True)
    try:
        r = subprocess.run(["sbatch", "--parsable", script], capture_output=True, text=True,
                           timeout=300, stdin=subprocess.DEVNULL)
    except (OSError, subprocess.TimeoutExpired) as e:
        raise Failure("sbatch did not run: %s" % e)
    if r.returncode != 0 or not r.stdout.strip():
        raise Failure("sbatch refused the job script %s:\n%s" % (script, (r.stderr or r.stdout).strip()))
    return r.stdout.strip().split(";")[0]


def squeue_states(job):
    """{state: count} of the job's tasks still in the queue, {} when none is, None when unknown."""
    try:
        r = subprocess.run(["squeue", "-h", "-r", "-j", job, "-o", "%T"], capture_output=True,
                           text=True, timeout=120, stdin=subprocess.DEVNULL)
    except (OSError, subprocess.TimeoutExpired):
        return None
    if r.returncode != 0:
        # A job that has left slurmctld's memory is "invalid": it has ended.
        return {} if "Invalid job id" in r.stderr else None
    states = {}
    for word in r.stdout.split():
        states[word.lower()] = states.get(word.lower(), 0) + 1
    return states


def wait_for_slurm(out, job, subjects):
    progress = Progress(len(subjects))
    reported, last_states, unknown_since = set(), None, None
    while True:
        states = squeue_states(job)
        for s in subjects:
            if s.id in reported:
                continue
            d = subject_dir(out, s)
            result = read_exit_status(d)
            if result is None:
                continue
            reported.add(s.id)
            status, seconds = result
            log = os.path.join(d, "log.txt")
            if status != 0:
                progress.finished("%s: FAILED with status %d after %d s, see %s" % (s.id, status, seconds, log))
            elif read_json(os.path.join(d, "summary.json")) is None:
                progress.finished("%s: FAILED: align-batch wrote no summary.json, see %s" % (s.id, log))
            else:
                progress.finished("%s: done in %d s" % (s.id, seconds))
        if states is None:
            unknown_since = unknown_since or time.time()
            if time.time() - unknown_since > 600:
                raise Failure("squeue has not answered for 10 minutes; the job %s may still run. "
                              "Run the same command with --report-only when it has ended" % job)
        else:
            unknown_since = None
            if not states:
                return
            if states != last_states:
                note("Slurm job %s: %s" % (job, ", ".join("%d %s" % (n, state)
                                                          for state, n in sorted(states.items()))))
                last_states = states
        time.sleep(POLL_SECONDS)


# --------------------------------------------------------------------------------------------
# The report


def fmt(value, digits=6):
    if value is None:
        return ""
    if isinstance(value, int):
        return str(value)
    return ("%%.%dg" % digits) % value


def collect(out, subjects):
    """One record per subject: status ok, failed, incomplete or not-run, values and message."""
    rows = []
    for s in subjects:
        d = subject_dir(out, s)
        summary = read_json(os.path.join(d, "summary.json"))
        exit_status = read_exit_status(d)
        row = {"id": s.id, "similarity": None, "folded": None, "parameters": {}, "seconds": None,
               "message": "", "log": os.path.join(d, "log.txt"), "tail": ""}
        if exit_status is not None:
            row["seconds"] = exit_status[1]
        if summary is not None:
            row["status"] = "ok"
            similarity, folded, parameters, seconds = summary_values(summary)
            row.update(similarity=similarity, folded=folded, parameters=parameters)
            if seconds is not None:
                row["seconds"] = seconds
        else:
            if exit_status is not None and exit_status[0] != 0:
                row["status"] = "failed"
                row["message"] = "align-batch ended with status %d" % exit_status[0]
            elif exit_status is not None:
                row["status"] = "failed"
                row["message"] = "align-batch ended with status 0 but left no readable summary.json"
            elif os.path.exists(row["log"]):
                row["status"] = "incomplete"
                row["message"] = "started but did not finish (interrupted or stopped by the scheduler)"
            else:
                row["status"] = "not-run"
                row["message"] = "not run yet"
            tail = log_tail(row["log"])
            last = [l for l in tail.splitlines() if l.strip() and not l.startswith("align-cohort:")]
            if last and row["status"] == "failed":
                row["message"] += ": " + last[-1].strip()[:200]
            extra = slurm_output_of(out, d)
            if extra:
                slurm_tail = log_tail(extra, 10)
                if slurm_tail:
                    tail += "\n--- %s\n%s" % (extra, slurm_tail)
            row["tail"] = tail
        rows.append(row)
    return rows


def report_tsv(rows):
    columns = ["id", "status", "similarity", "folded_voxels"] + list(PARAMETERS) + ["seconds", "message"]
    lines = ["\t".join(columns)]
    for r in rows:
        cells = [r["id"], r["status"], fmt(r["similarity"]), fmt(r["folded"])]
        cells += [fmt(r["parameters"].get(name)) for name in PARAMETERS]
        cells += [fmt(r["seconds"]), r["message"].replace("\t", " ").replace("\n", " ")]
        lines.append("\t".join(cells))
    return "\n".join(lines) + "\n"


STYLE = """
body { font-family: sans-serif; margin: 1em; background: #fafafa; }
table { border-collapse: collapse; }
td, th { border: 1px solid #ccc; padding: 4px 8px; vertical-align: top; text-align: left; }
tr.ok td.status { background: #d8f0d8; }
tr.failed td, tr.incomplete td, tr.not-run td { background: #fbe0e0; }
td.status { font-weight: bold; }
tr.failed td.status, tr.incomplete td.status, tr.not-run td.status { color: #a00000; }
td.qc img { width: 800px; max-width: 100%; }
pre { font-size: 85%; white-space: pre-wrap; max-width: 1000px; }
.warn { color: #a06000; font-weight: bold; }
"""


def report_html(rows, template, table, settings_text):
    e = html.escape
    counts = {}
    for r in rows:
        counts[r["status"]] = counts.get(r["status"], 0) + 1
    bad = [r for r in rows if r["status"] != "ok"]
    parts = ["<!DOCTYPE html>", "<html><head><meta charset=\"utf-8\">",
             "<title>align-cohort: %d subjects</title>" % len(rows),
             "<style>%s</style></head><body>" % STYLE,
             "<h1>Cohort alignment: %d subjects</h1>" % len(rows),
             "<p>Template <code>%s</code>, subjects from <code>%s</code>%s. Written %s.</p>"
             % (e(template), e(table), e(settings_text), e(time.strftime("%Y-%m-%d %H:%M:%S"))),
             "<p><b>%s</b></p>" % e(", ".join("%d %s" % (counts[k], k) for k in
                                              ("ok", "failed", "incomplete", "not-run") if k in counts))]
    if bad:
        parts.append("<p>Not aligned: %s</p>" % ", ".join(
            "<a href=\"#%s\">%s</a> (%s)" % (e(r["id"]), e(r["id"]), e(r["status"])) for r in bad))
    parts.append("<table><tr><th>subject</th><th>status</th><th>similarity (mutual information)</th>"
                 "<th>folded voxels</th><th>time</th><th>QC picture: the template with the individual's edges, "
                 "before (top) and after (bottom) alignment; click for full size</th></tr>")
    for r in rows:
        folded = fmt(r["folded"])
        if r["folded"]:
            folded = "<span class=\"warn\">%s</span>" % folded
        seconds = clock(r["seconds"]) if r["seconds"] is not None else ""
        link = urllib.parse.quote(r["id"])
        if r["status"] == "ok":
            cell = ("<a href=\"%s/qc.png\"><img loading=\"lazy\" src=\"%s/qc.png\" alt=\"QC picture of %s\"></a>"
                    % (link, link, e(r["id"])))
        else:
            cell = "<b>%s</b><br><a href=\"%s/log.txt\">log</a><pre>%s</pre>" % (
                e(r["message"]), link, e(r["tail"]))
        parts.append("<tr class=\"%s\" id=\"%s\"><td>%s</td><td class=\"status\">%s</td><td>%s</td>"
                     "<td>%s</td><td>%s</td><td class=\"qc\">%s</td></tr>"
                     % (r["status"], e(r["id"]), e(r["id"]), e(r["status"].upper()),
                        fmt(r["similarity"]), folded, seconds, cell))
    parts += ["</table>", "</body></html>", ""]
    return "\n".join(parts)


def write_report(out, subjects, template, table, settings_text):
    rows = collect(out, subjects)
    write_file(os.path.join(out, "report.tsv"), report_tsv(rows))
    write_file(os.path.join(out, "report.html"), report_html(rows, template, table, settings_text))
    return rows


def print_summary(out, rows):
    counts = {}
    for r in rows:
        counts.setdefault(r["status"], []).append(r["id"])
    note("report: %s and %s" % (os.path.join(out, "report.tsv"), os.path.join(out, "report.html")))
    parts = []
    for status in ("ok", "failed", "incomplete", "not-run"):
        ids = counts.get(status, [])
        if not ids:
            continue
        if status == "ok":
            parts.append("%d ok" % len(ids))
        else:
            shown = ", ".join(ids[:10]) + (", ..." if len(ids) > 10 else "")
            parts.append("%d %s (%s)" % (len(ids), status, shown))
    note("%d subject(s): %s" % (len(rows), "; ".join(parts)))
    return all(r["status"] == "ok" for r in rows)


# --------------------------------------------------------------------------------------------


def settings_text(args):
    words = []
    if args.nonlinear:
        words.append("--nonlinear")
    if args.mask:
        words.append("--mask " + args.mask)
    if args.search:
        words.append("--search " + args.search)
    return (", options " + " ".join(words)) if words else ""


def main(argv):
    args = parse_arguments(argv)
    template = os.path.abspath(args.template)
    problem = check_input_file(template, "template")
    if problem:
        raise Failure(problem)
    default_mask = None
    if args.mask:
        default_mask = os.path.abspath(args.mask)
        problem = check_input_file(default_mask, "mask file")
        if problem:
            raise Failure("--mask: " + problem)
    table = os.path.abspath(args.subjects)
    subjects = read_table(args.subjects, default_mask, args.nonlinear, args.search)
    out = os.path.abspath(args.out)
    if os.path.exists(out) and not os.path.isdir(out):
        raise Failure("--out %s exists and is not a directory" % out)
    align_batch = find_align_batch() if not args.report_only else None

    stale = []
    for s in subjects:
        s.state, reasons = classify(out, s, template)
        if s.state == "stale":
            stale.append("%s (%s)" % (s.id, "; ".join(reasons)))
    if stale:
        raise Failure("%d subject(s) in %s were aligned with other settings:\n  %s\n"
                      "Their results are kept: use another --out, or remove those subject "
                      "directories to align them again." % (len(stale), out, "\n  ".join(stale[:20])))
    pending = [s for s in subjects if s.state == "run"]
    plan = ("%s: %d subject(s) in %s; %d aligned already (skipped), %d to align"
            % (PROGRAM, len(subjects), args.subjects, len(subjects) - len(pending), len(pending)))

    if args.dry_run:
        note(plan)
        for s in subjects:
            words = [align_batch, s.individual, template, "--out", subject_dir(out, s)] + s.batch_arguments()
            note("  %-10s %s" % ("skip" if s.state == "complete" else "align",
                                 " ".join(shlex.quote(w) for w in words)))
        if args.engine == "slurm" and pending:
            note("would submit one array job of %d task(s) with: sbatch %s"
                 % (len(pending), " ".join(sbatch_directives(args, out, len(pending)))))
        note("dry run: nothing written")
        return 0

    if args.report_only:
        if not os.path.isdir(out):
            raise Failure("--out %s does not exist: nothing to report" % out)
        holder = lock_holder(out)
        if holder:
            note("note: %s is still running; the report shows the cohort as it stands" % holder)
        note(plan.replace("to align", "not aligned"))
        rows = write_report(out, subjects, template, table, settings_text(args))
        return 0 if print_summary(out, rows) else 1

    try:
        os.makedirs(out, exist_ok=True)
    except OSError as e:
        raise Failure("cannot make the output directory %s: %s" % (out, e.strerror))
    take_lock(out, args.engine)
    note(plan)
    keep_lock = False
    try:
        if pending:
            for s in pending:
                d = subject_dir(out, s)
                os.makedirs(d, exist_ok=True)
                # An exit status from an earlier run must not be taken for this run's.
                if os.path.exists(os.path.join(d, "exit-status")):
                    os.unlink(os.path.join(d, "exit-status"))
            script = os.path.join(out, "cohort-job.sh")
            write_file(script, job_script(args, out, template, align_batch, pending, table), 0o755)
            if args.engine == "parallel":
                run_parallel(args, out, script, len(pending))
            else:
                job = submit_slurm(args, out, script)
                update_lock(out, job=job)
                keep_lock = True
                note("submitted Slurm job %s: %d array task(s); job script %s, Slurm output in %s"
                     % (job, len(pending), script, os.path.join(out, "slurm")))
                if args.no_wait:
                    again = [PROGRAM] + [a for a in argv if a != "--no-wait"] + ["--report-only"]
                    note("follow it with: squeue -j %s\nwhen it has ended, write the report with:\n  %s"
                         % (job, " ".join(shlex.quote(a) for a in again)))
                    return 0
                try:
                    wait_for_slurm(out, job, pending)
                except KeyboardInterrupt:
                    note("\nstopped waiting; Slurm job %s goes on (scancel %s stops it). Run the same "
                         "command with --report-only when it has ended." % (job, job))
                    return 130
                keep_lock = False
        rows = write_report(out, subjects, template, table, settings_text(args))
        return 0 if print_summary(out, rows) else 1
    except KeyboardInterrupt:
        note("\ninterrupted; subjects that finished are kept. Run the same command again to align the rest.")
        rows = write_report(out, subjects, template, table, settings_text(args))
        print_summary(out, rows)
        return 130
    finally:
        if not keep_lock:
            release_lock(out)


def interrupted(number, frame):
    raise KeyboardInterrupt()


if __name__ == "__main__":
    # A termination request is handled as an interrupt from the terminal: runs stop, the report
    # is written. Signals ignored by whoever started us (nohup, a background job) stay ignored.
    for caught in (signal.SIGTERM, signal.SIGHUP):
        if signal.getsignal(caught) != signal.SIG_IGN:
            signal.signal(caught, interrupted)
    try:
        sys.exit(main(sys.argv[1:]))
    except Failure as failure:
        sys.stdout.flush()
        sys.stderr.write("%s: %s\n" % (PROGRAM, failure))
        sys.exit(1)
    except BrokenPipeError:
        sys.exit(1)
