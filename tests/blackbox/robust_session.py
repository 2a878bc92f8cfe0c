#!/usr/bin/python3
"""Unusual inputs that once stopped align or lost data, run as a user would.

batch_<case>: batch mode (-a) on inputs whose similarity is flat or undefined along some
parameter must end, each within a time limit, with the messages that explain why:
  nan, inf      a translation or rotation in align.com that is not a number
  huge          a translation of 1e30 mm: every template voxel maps off the individual
  inflation0    an inflation of 0
  empty, const  an individual of zeros, or of one value
  slice         a template of one slice (its size-z changes nothing)
save_full_disk: a batch run whose save fails (a file-size limit stands in for a full disk)
  ends with status 1 and leaves align.com and distortions.nii byte for byte as they were.
quit_save_fails: "q" then "y" when align.com cannot be written (a directory of that name)
  keeps the session open, so the alignment is not lost; once the way is clear, quitting
  again saves and ends with status 0.
resolution_redraw: 'a' over the image with an individual whose resolution differs per axis
  (64 x 8 x 8 voxels of 1 x 2 x 2 mm against a 1 mm template of 64 x 16 x 16) reduces the
  template grid and redraws it; the session goes on to "done" and quits normally.

usage: robust_session.py <align binary> <scenario>
Run inside xvfb-run (screen 1280x1024x24)."""
import math
import os
import resource
import signal
import struct
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from display_session import Session, check, fail, run_scenario  # noqa: E402

N, RES = 24, 2.0  # phantom grid: 24^3 voxels of 2 mm


def write_nifti(name, dims, res, fn, nt=1):
    """A NIfTI-1 single file of float32 voxels; fn(x, y, z, t) gives each value."""
    nx, ny, nz = dims
    hdr = bytearray(348)
    struct.pack_into("<i", hdr, 0, 348)
    struct.pack_into("<8h", hdr, 40, 4 if nt > 1 else 3, nx, ny, nz, nt, 1, 1, 1)
    struct.pack_into("<h", hdr, 70, 16)
    struct.pack_into("<h", hdr, 72, 32)
    struct.pack_into("<8f", hdr, 76, 1.0, res[0], res[1], res[2], 1.0, 1.0, 1.0, 1.0)
    struct.pack_into("<f", hdr, 108, 352.0)
    struct.pack_into("<f", hdr, 112, 1.0)
    hdr[344:348] = b"n+1\0"
    data = bytearray()
    for t in range(nt):
        for z in range(nz):
            for y in range(ny):
                data += b"".join(struct.pack("<f", fn(x, y, z, t)) for x in range(nx))
    with open(name, "wb") as f:
        f.write(bytes(hdr) + b"\0\0\0\0" + bytes(data))


def phantom(x, y, z, shift=0.0):
    """An ellipsoid with two bright blobs, in mm about the grid centre, moved by shift along x."""
    c = (N - 1) / 2.0
    px, py, pz = (x - c) * RES - shift, (y - c) * RES, (z - c) * RES
    if px * px / 19.0 ** 2 + py * py / 21.0 ** 2 + pz * pz / 17.0 ** 2 > 1.0:
        return 0.0
    b1 = ((px - 6) ** 2 + (py + 4) ** 2 + (pz - 2) ** 2) / (2 * 4.0 ** 2)
    b2 = ((px + 7) ** 2 + (py - 7) ** 2 + (pz + 4) ** 2) / (2 * 3.0 ** 2)
    return 60.0 + 20.0 * px / 19.0 + 100.0 * math.exp(-b1) + 60.0 * math.exp(-b2)


def batch(args, limit_bytes=None, timeout=240):
    """align <args> -a under the virtual server this script runs in; (status, output, seconds)."""
    def limit():
        if limit_bytes is not None:
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (limit_bytes, resource.RLIM_INFINITY))
    start = time.time()
    try:
        r = subprocess.run([ALIGN] + args + ["-a"], capture_output=True, text=True, timeout=timeout,
                           preexec_fn=limit)
    except subprocess.TimeoutExpired as e:
        out = e.stdout.decode() if isinstance(e.stdout, bytes) else (e.stdout or "")
        fail("batch mode did not end within %d s:\n%s" % (timeout, out[-2000:]))
    took = time.time() - start
    print("batch run: status %d, %.0f s" % (r.returncode, took))
    print(r.stdout[-1500:])
    return r.returncode, r.stdout + r.stderr, took


STOP = "its steps no longer change the resampled individual"

# case: (align.com text or None, individual, template, expected texts)
CASES = {
    "nan": ("set registration-translations nan 0 0\n", "ind", "tpl",
            ["Error reading the value of `set registration-translations'"]),
    "inf": ("set registration-rotations 0 inf 0\n", "ind", "tpl",
            ["Error reading the value of `set registration-rotations'"]),
    "huge": ("set registration-translations 1e30 0 0\n", "ind", "tpl", [STOP]),
    "inflation0": ("set registration-inflations 0 1 1\n", "ind", "tpl", []),
    "empty": (None, "empty", "tpl", [STOP]),
    "const": (None, "const", "tpl", []),
    "slice": (None, "ind", "slice", ["The line search of size-z stops at", STOP]),
}


def scenario_batch(case):
    com, ind, tpl, texts = CASES[case]
    c = (N - 1) / 2.0
    if ind == "ind":
        write_nifti("ind.nii", (N, N, N), (RES,) * 3, lambda x, y, z, t: phantom(x, y, z, 3.0))
    elif ind == "empty":
        write_nifti("empty.nii", (N, N, N), (RES,) * 3, lambda x, y, z, t: 0.0)
    else:
        write_nifti("const.nii", (N, N, N), (RES,) * 3, lambda x, y, z, t: 7.0)
    if tpl == "tpl":
        write_nifti("tpl.nii", (N, N, N), (RES,) * 3, lambda x, y, z, t: phantom(x, y, z))
    else:
        zc = int(c)
        write_nifti("slice.nii", (N, N, 1), (RES,) * 3, lambda x, y, z, t: phantom(x, y, zc))
    if com is not None:
        open("align.com", "w").write(com)
    status, out, _ = batch([ind + ".nii", "-t", tpl + ".nii"])
    check(status == 0, "batch mode ended with status 0")
    check("Alignment parameters were saved in file align.com" in out, "the result was saved")
    for text in texts:
        check(text in out, "the output says '%s'" % text)
    values = [float(v) for line in open("align.com") if line.startswith("set registration-")
              and line.split()[1] in ("registration-translations", "registration-rotations",
                                      "registration-inflations", "registration-skews")
              for v in line.split()[2:]]
    check(len(values) == 12 and all(not math.isnan(v) for v in values), "align.com holds 12 numbers")


def scenario_save_full_disk():
    write_nifti("ind.nii", (N, N, N), (RES,) * 3, lambda x, y, z, t: phantom(x, y, z, 3.0))
    write_nifti("tpl.nii", (N, N, N), (RES,) * 3, lambda x, y, z, t: phantom(x, y, z))
    # maps of 0.25 mm along x recalled from align.com: the save writes them back
    write_nifti("distortions.nii", (N, N, N), (RES,) * 3, lambda x, y, z, t: 0.25 if t == 0 else 0.0, nt=3)
    maps = os.path.join(os.getcwd(), "distortions.nii")
    open("align.com", "w").write("set registration-translations -3 0 0\nset registration-distortions %s\n" % maps)
    old_com, old_maps = open("align.com", "rb").read(), open("distortions.nii", "rb").read()
    status, out, _ = batch(["ind.nii", "-t", "tpl.nii"], limit_bytes=65536)
    check(status == 1, "a batch run whose save fails ends with status 1 (%d)" % status)
    check("Error: %s could not be written (File too large); the previous file is kept." % maps in out,
          "the failed file and the reason are printed")
    check("Error writing file %s" % maps in out, "the map-writing message is printed")
    check("were saved" not in out, "no success message")
    check(open("align.com", "rb").read() == old_com, "align.com is byte for byte as it was")
    check(open("distortions.nii", "rb").read() == old_maps, "distortions.nii is byte for byte as it was")
    check(not [f for f in os.listdir(".") if f.startswith(".part-")], "no temporary file is left")


def scenario_resolution_redraw():
    write_nifti("tpl.nii", (64, 16, 16), (1.0, 1.0, 1.0),
                lambda x, y, z, t: 100.0 + (x - 32) ** 2 / 10.0 + (y - 8) ** 2 + (z - 8) ** 2)
    write_nifti("ind.nii", (64, 8, 8), (1.0, 2.0, 2.0),
                lambda x, y, z, t: 100.0 + (x - 32) ** 2 / 10.0 + (2 * y - 8) ** 2 + (2 * z - 8) ** 2)
    s = Session(ALIGN, ("ind.nii", "-t", "tpl.nii"))

    def body(s):
        s.move(40, 60)
        s.key("a")
        start = time.time()
        while time.time() - start < 300:
            s.out.flush()
            text = open("stdout.txt").read()
            if "done" in text.splitlines() or s.proc.poll() is not None:
                break
            time.sleep(1.0)
        text = open("stdout.txt").read()
        check(s.proc.poll() is None, "the session is still running after 'a'")
        check("Programming error" not in text, "no programming error")
        check("done" in text.splitlines(), "the automatic alignment ended with done")
        s.find()
        check(s.win is not None, "the image window is still there")
        s.key("q", "y")
        s.proc.wait(timeout=120)
        check(s.proc.returncode == 0, "q then y ends with status 0")
        check(os.path.exists("align.com"), "align.com was saved")
    return s, body


def scenario_quit_save_fails():
    write_nifti("ind.nii", (N, N, N), (RES,) * 3, lambda x, y, z, t: phantom(x, y, z, 3.0))
    write_nifti("tpl.nii", (N, N, N), (RES,) * 3, lambda x, y, z, t: phantom(x, y, z))
    os.mkdir("align.com")
    s = Session(ALIGN, ("ind.nii", "-t", "tpl.nii"))

    def body(s):
        s.move(40, 60)
        s.key("q", "y")
        time.sleep(1.0)
        s.out.flush()
        text = open("stdout.txt").read()
        check(s.proc.poll() is None, "a quit whose save fails leaves the session running")
        check("Error: align.com could not be written (Is a directory); the previous file is kept." in text,
              "the failed save is reported")
        check(not [f for f in os.listdir(".") if f.startswith(".part-")], "no temporary file is left")
        os.rmdir("align.com")
        s.key("q", "y")
        s.proc.wait(timeout=120)
        check(s.proc.returncode == 0, "the second quit saves and ends with status 0")
        check("set registration-translations" in open("align.com").read(), "align.com was saved")
    return s, body


def main():
    global ALIGN
    ALIGN, scenario = os.path.abspath(sys.argv[1]), sys.argv[2]
    work = tempfile.mkdtemp(prefix="align-robust-")
    os.chdir(work)
    os.environ.pop("QOR_HOME", None)
    if scenario in ("resolution_redraw", "quit_save_fails"):
        s, body = scenario_resolution_redraw() if scenario == "resolution_redraw" else scenario_quit_save_fails()
        run_scenario(s, body, work, scenario)
        return
    try:
        if scenario == "save_full_disk":
            scenario_save_full_disk()
        else:
            scenario_batch(scenario[len("batch_"):])
    finally:
        os.chdir("/")
        subprocess.run(["rm", "-rf", work])
    print("PASS " + scenario)


if __name__ == "__main__":
    main()
