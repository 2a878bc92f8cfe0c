#!/usr/bin/python3
"""A user's session with the image window of align under Xvfb: start align on two small
synthetic volumes, press keys and buttons with xdotool, take screenshots of the root window
and check the window's size and title and the colours of known voxels.

usage: display_session.py <align binary> <scenario>
Run inside xvfb-run (screen 1280x1024x24), in a scratch directory of its own."""
import gzip
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import time

NX, NY, NZ = 8, 6, 4


def value(x, y, z):
    """Voxel values of the template: every voxel differs from its neighbours."""
    return 10.0 + 7.0 * x + 20.0 * y + 2.0 * z


def write_nifti(name, fn, NX=NX, NY=NY, NZ=NZ):
    """A NIfTI-1 single file of float32 voxels, 1 mm, qform off, sform off."""
    hdr = bytearray(348)
    struct.pack_into("<i", hdr, 0, 348)
    struct.pack_into("<8h", hdr, 40, 3, NX, NY, NZ, 1, 1, 1, 1)
    struct.pack_into("<h", hdr, 70, 16)    # datatype float32
    struct.pack_into("<h", hdr, 72, 32)    # bitpix
    struct.pack_into("<8f", hdr, 76, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0)
    struct.pack_into("<f", hdr, 108, 352.0)  # vox_offset
    struct.pack_into("<f", hdr, 112, 1.0)    # scl_slope
    hdr[344:348] = b"n+1\0"
    data = bytearray()
    for z in range(NZ):
        for y in range(NY):
            for x in range(NX):
                data += struct.pack("<f", fn(x, y, z))
    with open(name, "wb") as f:
        f.write(bytes(hdr) + b"\0\0\0\0" + bytes(data))


def run(*cmd):
    return subprocess.run(cmd, check=True, capture_output=True, text=True).stdout


def fail(msg):
    print("FAIL: " + msg)
    sys.exit(1)


def check(cond, msg):
    if not cond:
        fail(msg)
    print("ok: " + msg)


class Session:
    def __init__(self, align, args=("ind.nii", "-t", "tpl.nii")):
        self.win = None
        # A server that has just started may refuse the first connection: try again then.
        for attempt in range(4):
            self.out = open("stdout.txt", "w")
            self.proc = subprocess.Popen([align] + list(args), stdout=self.out,
                                         stderr=subprocess.STDOUT)
            if self.wait_for_window(attempt == 3):
                break
            time.sleep(1.0)
        if self.win is None:
            fail("no image window appeared")
        time.sleep(0.5)

    def wait_for_window(self, last_attempt):
        """True when the window is up; False when align could not reach the server."""
        for _ in range(100):
            if self.proc.poll() is not None:
                self.out.flush()
                text = open("stdout.txt").read()
                if "not built yet" in text:
                    print("SKIP: the start-up does not reach the display yet")
                    sys.exit(77)
                if "Error trying to open the display." in text and not last_attempt:
                    return False
                fail("align ended early with status %d:\n%s" % (self.proc.returncode, text))
            if self.find():
                return True
            time.sleep(0.2)
        return True

    def find(self):
        r = subprocess.run(["xdotool", "search", "--name", r"^align \(zoom = "], capture_output=True, text=True)
        ids = r.stdout.split()
        self.win = ids[-1] if ids else None
        return self.win is not None

    def settle(self):
        time.sleep(0.6)
        self.find()

    def geometry(self):
        """(left, top) of the window's inside on the root, width, height."""
        info = run("xwininfo", "-id", self.win)
        g = {}
        for line in info.splitlines():
            line = line.strip()
            for key in ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height", "Border width"):
                if line.startswith(key + ":"):
                    g[key] = int(line.split(":")[1])
        b = g.get("Border width", 0)
        return g["Absolute upper-left X"] + b, g["Absolute upper-left Y"] + b, g["Width"], g["Height"]

    def title(self):
        return run("xdotool", "getwindowname", self.win).strip()

    def move(self, x, y):
        """Pointer to window coordinates (x, y)."""
        left, top, _, _ = self.geometry()
        run("xdotool", "mousemove", str(left + x), str(top + y))
        time.sleep(0.15)

    def key(self, *names):
        for n in names:
            run("xdotool", "key", n)
            time.sleep(0.25)
        self.settle()

    def click(self, x, y, button=1):
        self.move(x, y)
        run("xdotool", "click", str(button))
        self.settle()

    def drag(self, x0, y0, x1, y1):
        self.move(x0, y0)
        run("xdotool", "mousedown", "1")
        time.sleep(0.15)
        self.move(x1, y1)
        run("xdotool", "mouseup", "1")
        self.settle()

    def shot(self):
        """Pixels of the window as a function (x, y) -> (r, g, b) in window coordinates."""
        ppm = subprocess.run("xwd -root -silent | convert xwd:- ppm:-", shell=True, check=True,
                             capture_output=True).stdout
        fields, pos = [], 0
        while len(fields) < 4:  # magic, width, height, maximum; '#' starts a comment
            while ppm[pos:pos + 1].isspace():
                pos += 1
            if ppm[pos:pos + 1] == b"#":
                pos = ppm.index(b"\n", pos) + 1
                continue
            end = pos
            while not ppm[end:end + 1].isspace():
                end += 1
            fields.append(ppm[pos:end])
            pos = end
        w, h = int(fields[1]), int(fields[2])
        data = ppm[pos + 1:]
        left, top, _, _ = self.geometry()

        def pixel(x, y):
            i = ((top + y) * w + (left + x)) * 3
            return data[i], data[i + 1], data[i + 2]
        return pixel

    def finish(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()


def run_scenario(s, body, work, scenario):
    """Runs body(s), ends align and shows the end of its output, removes the scratch directory."""
    try:
        body(s)
    finally:
        s.finish()
        print(open("stdout.txt").read()[-3000:])
    os.chdir("/")
    shutil.rmtree(work, ignore_errors=True)
    print("PASS " + scenario)


def float32(v):
    return struct.unpack("<f", struct.pack("<f", v))[0]


def grey(v, low=0.0, high=1.0):
    """Grey level of a template value under the contrast levels, in single precision."""
    vmin, vmax = value(0, 0, 0), value(NX - 1, NY - 1, NZ - 1)
    smin = float32(vmin + float32(float32(vmax - vmin) * float32(low)))
    smax = float32(vmin + float32(float32(vmax - vmin) * float32(high)))
    slope = float32(255.0 / float32(smax - smin))
    offset = float32(255.0 - float32(slope * smax))
    g = int(float32(float32(slope * v) + offset))
    if v < smin:
        g = 0
    if v > smax:
        g = 255
    return max(0, min(255, g))


def mosaic_pixel(x, y, z, zoom, cols=2, first_slice=0, flip=True):
    """Window pixel at the centre of voxel (x, y, z) in a mosaic of XY panels."""
    p = z - first_slice
    c, r = p % cols, p // cols
    v = (NY - 1 - y) if flip else y
    px = (NX * c + c + 1 + x) * zoom + zoom // 2
    py = (NY * r + r + 1 + v) * zoom + zoom // 2
    return px, 30 + py


def check_template_pixels(s, zoom, slices=range(NZ), cols=2, first_slice=0, low=0.0, high=1.0, what=""):
    pix = s.shot()
    bad = []
    for z in slices:
        for y in range(NY):
            for x in range(NX):
                px, py = mosaic_pixel(x, y, z, zoom, cols, first_slice)
                g = grey(value(x, y, z), low, high)
                r = pix(px, py)
                if max(abs(r[0] - g), abs(r[1] - g), abs(r[2] - g)) > 1:
                    bad.append(((x, y, z), r, g))
    check(not bad, "template voxels drawn with their grey values %s %s" % (what, bad[:3]))
    return pix


def expect_size(s, width, height, zoom):
    _, _, w, h = s.geometry()
    check((w, h) == (width, height), "window %dx%d (got %dx%d)" % (width, height, w, h))
    check(s.title() == "align (zoom = %d)" % zoom, "title '%s'" % s.title())


# First zoom: trunc(0.75 * (1280 / max(2*8, 6*2))) = 60, limited to 4. Right panel: 160.
RIGHT = 160


def mosaic_size(zoom, cols=2, rows=2):
    return (cols * NX + cols + 1) * zoom + RIGHT, (rows * NY + rows + 1) * zoom + 75


def scenario_layout_zoom(s):
    expect_size(s, *mosaic_size(4), 4)
    s.move(10, 40)
    s.key("space")  # the template itself
    check_template_pixels(s, 4, what="at zoom 4, flipped")
    pix = s.shot()
    check(pix(1, 31) == (0, 0, 0), "outer border black")
    check(pix(9 * 4 + 1, 31 + 8) == (0, 0, 0), "border between panels black")
    s.key("z")
    expect_size(s, *mosaic_size(3), 3)
    check_template_pixels(s, 3, what="at zoom 3")
    s.move(10, 40)
    s.key("Z", "Z")
    expect_size(s, *mosaic_size(5), 5)
    check_template_pixels(s, 5, what="at zoom 5")
    s.move(10, 40)
    for _ in range(6):
        s.key("z")
    expect_size(s, *mosaic_size(1), 1)


def scenario_three_planes(s):
    s.move(10, 40)
    s.key("space", "3")
    zoom = 5
    # the ZY plane is shown top right by default, so the width counts z
    expect_size(s, (NX + 3 + NZ) * zoom + RIGHT, (NY + 3 + NZ) * zoom + 75, zoom)
    pix = s.shot()
    # crosshair at the centre voxel (4, 3, 2); XY plane at (zoom, zoom), flipped vertically
    bad = []
    for y in range(NY):
        for x in range(NX):
            px = (1 + x) * zoom + zoom // 2
            py = 30 + (1 + NY - 1 - y) * zoom + zoom // 2
            g = grey(value(x, y, 2))
            r = pix(px, py)
            if max(abs(c - g) for c in r) > 1:
                bad.append(((x, y), r, g))
    check(not bad, "XY plane through z = 2 %s" % bad[:3])
    # XZ plane below it through y = 3, z flipped
    for z in range(NZ):
        px = (1 + 5) * zoom + 2
        py = 30 + (NY + 2 + NZ - 1 - z) * zoom + 2
        g = grey(value(5, 3, z))
        check(max(abs(c - g) for c in pix(px, py)) <= 1, "XZ plane voxel (5, 3, %d)" % z)
    # ZY plane top right through x = 4: z across, y up
    for z in range(NZ):
        for y in (0, NY - 1):
            px = (NX + 2 + z) * zoom + 2
            py = 30 + (1 + NY - 1 - y) * zoom + 2
            g = grey(value(4, y, z))
            check(max(abs(c - g) for c in pix(px, py)) <= 1, "ZY plane voxel (4, %d, %d)" % (y, z))
    s.key("3")
    expect_size(s, *mosaic_size(4), 4)


def scenario_crosshair(s):
    s.move(10, 40)
    s.key("space", "ctrl+c")  # crosshair style 1
    pix = s.shot()
    cyan = (0, 255, 255)
    check(pix(*mosaic_pixel(4, 0, 0, 4)) == cyan, "crosshair column x = 4 is cyan")
    check(pix(*mosaic_pixel(0, 3, 3, 4)) == cyan, "crosshair row y = 3 is cyan")
    check(pix(*mosaic_pixel(1, 1, 0, 4)) != cyan, "voxel off the crosshair keeps its grey")
    s.click(*mosaic_pixel(1, 1, 0, 4))
    pix = s.shot()
    check(pix(*mosaic_pixel(1, 5, 1, 4)) == cyan, "after a click the crosshair column is x = 1")
    check(pix(*mosaic_pixel(6, 1, 2, 4)) == cyan, "after a click the crosshair row is y = 1")
    check(pix(*mosaic_pixel(4, 0, 0, 4)) != cyan, "the old crosshair column is gone")
    # Up with the flip on moves y by +1: the row drawn higher up on the screen
    s.move(*mosaic_pixel(2, 2, 0, 4))
    s.key("Up")
    pix = s.shot()
    check(pix(*mosaic_pixel(6, 2, 0, 4)) == cyan, "Up moved the crosshair row to y = 2")
    check(pix(*mosaic_pixel(6, 1, 0, 4)) != cyan, "row y = 1 is grey again")
    s.key("Left")
    pix = s.shot()
    check(pix(*mosaic_pixel(0, 4, 0, 4)) == cyan, "Left moved the crosshair column to x = 0")


def scenario_contrast(s):
    s.move(10, 40)
    # 'i' rescans the grey range of the volume shown, the template, for the drags that follow
    s.key("space", "i")
    before = check_template_pixels(s, 4, what="before the drags")
    # a purely horizontal drag is a click: the contrast does not change
    s.drag(*mosaic_pixel(1, 4, 0, 4), *mosaic_pixel(6, 4, 0, 4))
    check_template_pixels(s, 4, what="after a horizontal drag")
    # a diagonal drag changes it: dx = 20/76 right, dy = 12/60 down
    x0, y0 = mosaic_pixel(1, 4, 0, 4)
    s.drag(x0, y0, x0 + 20, y0 + 12)
    dx, dy = float32(20 / 76), float32(12 / 60)
    high = float32(1 + float32(dx * float32(0.75) / 2))
    low = float32(0 - float32(dx * float32(0.5) / 2))
    shift = float32(dy * float32(1.75 - high))
    low, high = float32(low + shift), float32(high + shift)
    after = check_template_pixels(s, 4, low=low, high=high, what="after a diagonal drag")
    check(before(*mosaic_pixel(3, 3, 1, 4)) != after(*mosaic_pixel(3, 3, 1, 4)), "the drag changed the greys")
    s.key("i")
    check_template_pixels(s, 4, what="after the contrast reset")


def scenario_select_slices(s):
    s.move(10, 40)
    s.key("space", "numbersign", "2", "Return")
    # the two central slices of four (1 and 2), two panels side by side, zoom 4*2/2
    expect_size(s, *mosaic_size(4, cols=2, rows=1), 4)
    check_template_pixels(s, 4, slices=[1, 2], first_slice=1, what="of slices 1 and 2")
    s.move(10, 40)
    s.key("numbersign")  # all slices again
    expect_size(s, *mosaic_size(4), 4)
    check_template_pixels(s, 4, what="of all slices again")


def scenario_quit_answers(s):
    # standard output goes to a file: the start-up lines are there while align still runs
    text = open("stdout.txt").read()
    for role in ("ind", "tpl"):
        line = "The NIFTI header for file %s.nii uses Method 1: the old analyze format" % role
        check(line in text.splitlines(), "'%s' written to the file as printed" % line)
    s.move(10, 40)
    s.key("q", "n")
    check(s.proc.poll() is None, "answer n continues")
    s.key("q", "Return")
    check(s.proc.poll() is None, "an empty answer continues")
    s.key("q", "Escape")
    check(s.proc.poll() is None, "Escape continues")
    check(not os.path.exists("align.com"), "nothing saved yet")
    s.key("Q", "Y")
    s.proc.wait(timeout=20)
    check(s.proc.returncode == 0, "answer Y ends with status 0")
    check(os.path.exists("align.com"), "align.com written")
    with open("align.com") as f:
        text = f.read()
    check("set registration-" in text, "align.com holds registration lines")


def scenario_quit_yes(s):
    s.move(10, 40)
    s.key("q", "y")
    s.proc.wait(timeout=20)
    check(s.proc.returncode == 0, "answer y ends with status 0")
    check(os.path.exists("align.com"), "align.com written")


def zoom_of(s):
    return int(s.title().split("= ")[1].rstrip(")"))


def scenario_real_pair(s):
    # ch2 (individual) against ch2bet (template), 181 x 217 x 181 at 1 mm: a mosaic of every
    # slice cannot fit 1280 x 1024, so the window falls back to three planes at zoom 1.
    expect_size(s, 181 + 3 + 181 + 160, 217 + 3 + 181 + 75, 1)  # the ZY plane sits top right
    centre = (90, 108)  # XY plane, middle of the brain, in image-area pixels (+30 for the menus)
    px = s.shot()(centre[0], 30 + centre[1])
    check(px[0] > 0 and px[0] == px[1] == px[2], "the resampled individual shows grey brain at the centre %s" % (px,))
    s.move(*centre)
    s.key("space")
    tpl = s.shot()(centre[0], 30 + centre[1])
    check(tpl[0] > 0 and tpl[0] == tpl[1] == tpl[2], "the template shows grey brain at the centre %s" % (tpl,))
    s.key("space")
    # four central slices as a 2 x 2 mosaic
    s.key("numbersign", "4", "Return")
    z = zoom_of(s)
    expect_size(s, (2 * 181 + 3) * z + 160, (2 * 217 + 3) * z + 75, z)
    s.key("z", "z")
    check(zoom_of(s) == 1, "z zooms out down to 1")
    s.key("Z")
    check(zoom_of(s) == 2, "Z zooms in (2 x 2 panels at zoom 2 still fit the screen)")
    expect_size(s, (2 * 181 + 3) * 2 + 160, (2 * 217 + 3) * 2 + 75, 2)
    before = s.shot()
    s.drag(100, 130, 180, 200)
    after = s.shot()
    changed = sum(1 for x in range(20, 500, 7) for y in range(40, 600, 11) if before(x, y) != after(x, y))
    check(changed > 50, "a diagonal drag changes the contrast (%d sampled pixels changed)" % changed)
    s.key("q", "y")
    s.proc.wait(timeout=30)
    check(s.proc.returncode == 0, "quit with y ends with status 0")
    check(os.path.exists("align.com"), "align.com written")


SCENARIOS = {
    "real_pair": scenario_real_pair,
    "layout_zoom": scenario_layout_zoom,
    "three_planes": scenario_three_planes,
    "crosshair": scenario_crosshair,
    "contrast": scenario_contrast,
    "select_slices": scenario_select_slices,
    "quit_answers": scenario_quit_answers,
    "quit_yes": scenario_quit_yes,
}


def main():
    align, scenario = os.path.abspath(sys.argv[1]), sys.argv[2]
    work = tempfile.mkdtemp(prefix="align-display-")
    os.chdir(work)
    write_nifti("tpl.nii", value)
    write_nifti("ind.nii", value)
    if scenario == "too_big":
        # 64 x 64 x 4 on a 200 x 150 screen: 2 x 2 panels, then three planes, then one panel
        # (66 + 160 right panel) x (66 + 75) are all too big.
        write_nifti("big.nii", value, 64, 64, 4)
        r = subprocess.run([align, "big.nii", "-t", "big.nii"], capture_output=True, text=True, timeout=60)
        print(r.stdout[-2000:])
        if "not built yet" in r.stdout:
            sys.exit(77)
        check(r.returncode == 1, "status 1 when the window cannot fit (got %d)" % r.returncode)
        want = ["The image is too big for your display.", "Image : 226 x 141 pixels",
                "Screen: 200 x 150 pixels"]
        check(r.stdout.splitlines()[-3:] == want, "the three lines about the size end the output")
        print("PASS " + scenario)
        return
    if scenario == "no_display":
        env = dict(os.environ)
        env.pop("DISPLAY", None)
        r = subprocess.run([align, "ind.nii", "-t", "tpl.nii"], capture_output=True, text=True, env=env, timeout=60)
        print(r.stdout[-2000:])
        if "not built yet" in r.stdout:
            sys.exit(77)
        check(r.returncode == 1, "status 1 without a display (got %d)" % r.returncode)
        lines = r.stdout.splitlines()
        want = ["Error trying to open the display.",
                "If you are using ssh to connect from another system, try 'ssh -X'"]
        check(lines[-2:] == want, "the two lines about the display end the output")
        print("PASS " + scenario)
        return
    if scenario == "real_pair":
        for gz, name in (("ch2.nii.gz", "ind.nii"), ("ch2bet.nii.gz", "tpl.nii")):
            path = "/usr/share/mricron/templates/" + gz
            if not os.path.exists(path):
                print("SKIP: mricron-data is not installed")
                sys.exit(77)
            with gzip.open(path, "rb") as f, open(name, "wb") as out:
                out.write(f.read())
    run_scenario(Session(align), SCENARIOS[scenario], work, scenario)


if __name__ == "__main__":
    main()
