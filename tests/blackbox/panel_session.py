#!/usr/bin/python3
"""A user's alignment session in the image window of align under Xvfb: the overlay list given
with -o, the right panel (sets, items, values), the automatic affine and non-linear alignment
started with 'A', the full alignment of the top menu, and what quitting leaves behind
(".ovl", "align.com", "distortions.nii"). Checked on screenshots, standard output and files.

usage: panel_session.py <align> <make_test_volumes> <scenario>
Run inside xvfb-run (screen 1280x1024x24)."""
import gzip
import math
import os
import struct
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from display_session import Session, check, fail, run_scenario, write_nifti  # noqa: E402

RIGHT = 160  # width of the right panel


def grid_pixel(x, y, z, zoom, nx, ny, cols=2):
    """Window pixel at the centre of voxel (x, y, z) in a mosaic of XY panels, y flipped."""
    c, r = z % cols, z // cols
    return (nx * c + c + 1 + x) * zoom + zoom // 2, 30 + (ny * r + r + 1 + ny - 1 - y) * zoom + zoom // 2


def colour_name(p):
    r, g, b = p
    if r == g == b:
        return "grey"
    return {(1, 0, 0): "red", (0, 1, 0): "green", (0, 1, 1): "cyan", (1, 1, 0): "yellow"}.get(
        (int(r > 100), int(g > 100), int(b > 100)), "other")


def wait_for(s, text, count=1, timeout=600):
    """Waits until standard output holds `text` as a line `count` times; returns the seconds."""
    start = time.time()
    while time.time() - start < timeout:
        s.out.flush()
        if open("stdout.txt").read().splitlines().count(text) >= count:
            return time.time() - start
        if s.proc.poll() is not None:
            fail("align ended while waiting for '%s'" % text)
        time.sleep(1.0)
    fail("no '%s' on standard output within %d s" % (text, timeout))


def quit_yes(s):
    s.key("q", "y")
    s.proc.wait(timeout=120)
    check(s.proc.returncode == 0, "q then y ends with status 0")


def align_com():
    """The set lines of align.com as {keyword: [words]}."""
    lines = {}
    for line in open("align.com"):
        w = line.split()
        if len(w) >= 2:
            lines[w[1]] = w[2:]
    return lines


# ---- 1: overlay list, stepping, moving, mirroring, writing .ovl ----

NX, NY, NZ = 8, 6, 4
OVERLAYS = [  # name, colour word, voxels {(x, y, z): weight}
    ("a", "red", {(0, 1, 0): 1.0, (1, 1, 0): 1.0, (0, 5, 1): 1.0, (3, 2, 1): 0.5}),
    ("b", "green", {(5, 4, 2): 1.0, (6, 4, 2): 1.0, (6, 3, 3): 1.0}),
    ("c", "", {(2, 2, 0): 1.0}),
]


def shown_overlay(s):
    """{voxel: colour} of the voxels drawn in colour."""
    pix = s.shot()
    found = {}
    for z in range(NZ):
        for y in range(NY):
            for x in range(NX):
                c = colour_name(pix(*grid_pixel(x, y, z, 4, NX, NY)))
                if c != "grey":
                    found[(x, y, z)] = c
    return found


def expect_overlay(s, voxels, colour, what):
    got = shown_overlay(s)
    want = {v: colour for v in voxels}
    check(got == want, "%s: overlay drawn on %s (got %s)" % (what, sorted(want.items()), sorted(got.items())))


def scenario_overlays(s):
    a, b, c = (dict(o[2]) for o in OVERLAYS)
    expect_overlay(s, a, "red", "at the start the first entry of the list")
    item = (40, 8)  # the top menu item that steps through the list
    s.click(*item)
    expect_overlay(s, b, "green", "button 1 on the overlay item steps forward")
    s.click(*item, button=3)
    expect_overlay(s, a, "red", "button 3 steps back")
    s.click(*item, button=3)
    expect_overlay(s, c, "cyan", "back from the first entry wraps to the last (default colour cyan)")
    s.move(*item)
    s.key("Down")
    expect_overlay(s, a, "red", "Down over the item: forward from the last wraps to the first")
    s.key("Up")
    expect_overlay(s, c, "cyan", "Up over the item steps back")
    s.key("Down")
    # over the image, with no crosshair shown, the arrows move the overlay by one voxel and
    # what leaves one face comes back at the opposite one
    s.move(*grid_pixel(4, 3, 2, 4, NX, NY))
    s.key("Left")
    moved = {((x - 1) % NX, y, z): w for (x, y, z), w in a.items()}
    expect_overlay(s, moved, "red", "Left moves it by -1 in x, x = 0 wrapping to 7")
    s.key("Up")  # the display is flipped: up on the screen is +y
    moved = {(x, (y + 1) % NY, z): w for (x, y, z), w in moved.items()}
    expect_overlay(s, moved, "red", "Up moves it by +1 in y, y = 5 wrapping to 0")
    s.key("m")
    mirrored = {(NX - 1 - x, y, z): w for (x, y, z), w in moved.items()}
    expect_overlay(s, mirrored, "yellow", "'m' mirrors it in x, in the root overlay's colour")
    s.key("w")
    rows = [line.split() for line in open(".ovl")]
    want = sorted(mirrored.items(), key=lambda vw: (vw[0][2], vw[0][1], vw[0][0]))
    expected = [[str(x), str(y), str(z)] + ([] if w == 1.0 else ["%g" % w]) for (x, y, z), w in want]
    check(rows == expected, ".ovl lists the mirrored voxels, z outermost, weights other than 1 (%s)" % rows)
    s.key("d")
    expect_overlay(s, {}, "", "'d' clears the overlay")
    s.key("r")
    expect_overlay(s, mirrored, "yellow", "'r' reads .ovl back")
    quit_yes(s)
    check("4 pixels (total weight = 3.5) written to file .ovl" in open("stdout.txt").read(),
          "the count and total weight are reported")


def prepare_overlays():
    write_nifti("tpl.nii", lambda x, y, z: 10.0 + 7.0 * x + 20.0 * y + 2.0 * z)
    write_nifti("ind.nii", lambda x, y, z: 10.0 + 7.0 * x + 20.0 * y + 2.0 * z)
    with open("list.txt", "w") as lst:
        lst.write("# name, file, colour\n")
        for name, colour, voxels in OVERLAYS:
            lst.write("%s %s.ovl %s\n" % (name, name, colour))
            with open(name + ".ovl", "w") as f:
                for (x, y, z), w in voxels.items():
                    f.write("%d %d %d\n" % (x, y, z) if w == 1.0 else "%d %d %d %g\n" % (x, y, z, w))
    return ["ind.nii", "-t", "tpl.nii", "-o", "list.txt"]


# ---- 2: the right panel ----

PN = 32  # 32 x 32 x 4 voxels of 1 mm: a 268 x 268 image area at zoom 4, the panel at x = 268
AREA = (2 * PN + 3) * 4


def panel_rows(s, nrows, height=AREA):
    """Per row of the panel: 'empty', 'text' or 'selected' (yellow text). The rows are evenly
    spaced over the image area's height less 15 pixels; the pixel rows from 7 above a row's
    baseline to the baseline hold ink of every character and none of the neighbouring rows
    while rows lie at least 10 pixels apart."""
    pix = s.shot()
    spacing = (height - 15) / (nrows + 1)
    rows = []
    for row in range(nrows):
        base = 30 + 15 + int((row + 1) * spacing)
        seen = set()
        for y in range(base - 7, base + 1):
            for x in range(AREA + 4, AREA + RIGHT - 2):
                p = pix(x, y)
                if p != (0, 0, 0):
                    seen.add("selected" if p == (255, 255, 0) else "text")
        rows.append("selected" if "selected" in seen else ("text" if seen else "empty"))
    return rows


def expect_rows(s, nrows, text_rows, selected, what, height=AREA):
    rows = panel_rows(s, nrows, height)
    want = ["selected" if r == selected else ("text" if r in text_rows else "empty") for r in range(nrows)]
    check(rows == want, "%s: panel rows %s (got %s)" % (what, want, rows))


SET0 = {0, 1, 2, 3, 4, 5, 7, 8, 9, 11, 12, 13, 14}  # rows with text in the setup set


def image_row(pix, y, z):
    return [pix(*grid_pixel(x, y, z, 4, PN, PN)) for x in range(PN)]


def scenario_panel(s):
    s.move(*s.panel)
    expect_rows(s, 17, SET0, 0, "setup set at the start, Rot. x selected")
    s.key("Down", "Down", "Down", "Down", "Down")
    # 1, 2, 3, rolloff (4), then the overlay filter (5) is passed over without an overlay:
    # x down-sampling (item 6) on row 12
    expect_rows(s, 17, SET0, 12, "Down five times: the overlay filter is passed over")
    s.key("Right")
    # x down-sampling 2 sets y and z to 2 too, and the change of resolution is offered (row 16)
    expect_rows(s, 17, SET0 | {16}, 12, "Right on down-sampling x offers 'change res.'")
    s.click(*s.panel, button=5)
    s.click(*s.panel, button=5)
    s.click(*s.panel, button=5)
    expect_rows(s, 17, SET0 | {16}, 16, "the wheel selects the offered item")
    s.click(*s.panel, button=5)
    expect_rows(s, 17, SET0 | {16}, 0, "wheel down from the last item wraps to the first")
    s.key("Up")
    expect_rows(s, 17, SET0 | {16}, 16, "Up from the first item wraps to the last")

    before = s.shot()
    s.click(*s.panel)
    expect_rows(s, 12, set(range(12)), 0, "button 1: the affine set, one row per parameter")
    # x translation += its increment, 2·min(voxel 1 mm, smallest field of view 4 mm / 16) =
    # 0.5 mm: four steps make 2 mm, twice the template's 1 mm voxels
    s.key("Right", "Right", "Right", "Right")
    after = s.shot()
    for y, z in ((0, 0), (20, 1), (31, 3)):
        old, new = image_row(before, y, z), image_row(after, y, z)
        check(new[2:] == old[:-2] and new[:2] == [(0, 0, 0)] * 2,
              "x translation 2 mm shifts row y = %d, z = %d of the image by two voxels" % (y, z))
    check(old[15] != old[17], "the row shows the individual's edge")
    s.click(130, 22)  # "reset/recall" in the top menu: the identity, then the values again
    check(image_row(s.shot(), 20, 1) == image_row(before, 20, 1), "reset/recall resets the affine parameters")
    s.click(130, 22)
    check(image_row(s.shot(), 20, 1) == image_row(after, 20, 1), "reset/recall a second time recalls them")
    s.move(*s.panel)
    s.key("ctrl+a")  # deck-of-cards: saved as the registration type
    s.key("Tab", "Right", "Tab", "Left")  # increment 0.5 -> 0.525, then x -= 0.525
    s.click(*s.panel, button=3)
    expect_rows(s, 17, SET0 | {16}, 0, "button 3: back to the setup set")
    s.key("Left", "Left")  # Rot. x: 0 -> -1 -> 2 quarter turns
    s.click(*s.panel, button=3)
    expect_rows(s, 17, set(range(16)), 1, "button 3 again wraps to the non-linear set, X Field selected")
    quit_yes(s)
    p = align_com()
    check(p.get("registration-type") == ["deck-of-cards"], "control-A made it a deck of cards")
    check(p["registration-orientation"] == ["2", "0", "0", "0"], "Left twice on Rot. x wraps -1 to 2")
    check(p["registration-translations"] == ["1.475", "0", "0"],
          "align.com holds x = 2 - 0.525 (got %s)" % p["registration-translations"])


def prepare_panel():
    write_nifti("tpl.nii", lambda x, y, z: 10.0 + x + 2.0 * y + 3.0 * z, PN, PN, NZ)
    # the individual: an edge between x = 15 and 16, no zero voxel (zeros mask the result)
    write_nifti("ind.nii", lambda x, y, z: (50.0 if x < 16 else 200.0) + y + z, PN, PN, NZ)
    return ["ind.nii", "-t", "tpl.nii"]


# ---- 2b: the right panel over a short image area ----

SHORT_NY = 21  # 32 x 21 x 4 voxels: a 268 x 180 image area at zoom 4, rows 10.3 pixels apart
SHORT_AREA = (2 * SHORT_NY + 3) * 4
SET0_SHORT = {0, 1, 2, 3, 5, 6, 7, 9, 10, 11, 12}  # under 200 pixels: 15 rows, no parity lines


def prepare_short_panel():
    write_nifti("tpl.nii", lambda x, y, z: 10.0 + x + 2.0 * y + 3.0 * z, PN, SHORT_NY, NZ)
    write_nifti("ind.nii", lambda x, y, z: 50.0 + x + y + z, PN, SHORT_NY, NZ)
    return ["ind.nii", "-t", "tpl.nii"]


def scenario_short_panel(s):
    _, _, _, height = s.geometry()
    check(height == SHORT_AREA + 75, "image area %d pixels high" % SHORT_AREA)
    s.move(*s.panel)
    expect_rows(s, 15, SET0_SHORT, 0, "every row of the setup set, the z step included", SHORT_AREA)
    s.key("Down", "Down", "Down", "Down", "Down", "Right")
    expect_rows(s, 15, SET0_SHORT | {14}, 10, "'change res.' on the last row once offered", SHORT_AREA)
    s.key("Down", "Down", "Down")
    expect_rows(s, 15, SET0_SHORT | {14}, 14, "Down past y and z selects 'change res.'", SHORT_AREA)
    quit_yes(s)


# ---- 2c: the "display" menu item steps through what the image area shows ----

DISPLAY_ITEM = (25, 22)  # first item of the second menu row


def shown(s):
    """What row y = 20 of each of the four panels shows: 'flat' (one grey: an empty map),
    'edge' (a few greys: the individual's two levels and the resampled edge between them) or
    'ramp' (a grey per voxel: the template)."""
    pix = s.shot()
    kinds = set()
    for z in range(NZ):
        n = len(set(image_row(pix, 20, z)))
        kinds.add("flat" if n == 1 else ("edge" if n <= 6 else ("ramp" if n >= PN - 2 else "other %d" % n)))
    return " ".join(sorted(kinds))


def basis_image(s):
    """The colours of every voxel of the four panels."""
    pix = s.shot()
    return [pix(*grid_pixel(x, y, z, 4, PN, PN)) for z in range(NZ) for y in range(PN) for x in range(PN)]


def scenario_display_types(s):
    check(shown(s) == "edge", "the individual at the start")
    s.click(*DISPLAY_ITEM)
    check(shown(s) == "ramp", "button 1 on 'display': the template")
    for what in ("x field", "y field", "z field", "basis image"):
        s.click(*DISPLAY_ITEM)
        check(shown(s) == "flat", "button 1 again: the %s, empty so far" % what)
    s.click(*DISPLAY_ITEM)
    check(shown(s) == "edge", "button 1 on the basis image wraps to the individual")
    s.click(*s.panel)
    s.click(*s.panel)  # the non-linear set: item 6 marks the basis function n of N for viewing
    s.move(*s.panel)
    s.key(*["Down"] * 6, "x")
    s.click(*DISPLAY_ITEM, button=3)
    first = basis_image(s)
    check(len(set(first)) > 2, "button 3 from the individual: the marked basis function, in greys")
    s.move(*s.panel)
    s.key("Right")
    second = basis_image(s)
    check(len(set(second)) > 2 and second != first, "Right on it shows the next basis function")
    s.click(*DISPLAY_ITEM, button=2)
    check(shown(s) == "flat", "button 2 steps back to the z field")
    s.key("space")
    check(shown(s) == "edge", "space from a field returns to the individual")
    quit_yes(s)


# ---- 2d: the help texts and the context help ----

ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))


def printed_help(name):
    """A help file as align prints it: an empty line first, and on every line the text from
    the first hash mark on (the line's end included) left out."""
    text = "\n"
    for line in open(os.path.join(ROOT, "documentation", name)):
        text += line[:line.index("#")] if "#" in line else line
    return text


def text_cells(pix, baseline, ncells):
    """Per character cell of the fixed 6-pixel font from x = 4 on a line of yellow text:
    True where the cell holds ink."""
    return [any(pix(4 + 6 * i + dx, y) == (255, 255, 0) for dx in range(6) for y in range(baseline - 9, baseline + 3))
            for i in range(ncells)]


def expect_text(pix, baseline, text, what):
    got = text_cells(pix, baseline, len(text) + 2)
    want = [c != " " for c in text] + [False, False]
    show = lambda cells: "".join("x" if c else "." for c in cells)
    check(got == want, "%s: the line reads '%s' (ink %s, wanted %s)" % (what, text, show(got), show(want)))


def scenario_help(s):
    out = lambda: open("stdout.txt").read()
    s.move(40, 60)
    start = len(out())
    s.key("h")
    keys = out()[start:]
    check(keys == printed_help("align-interactive-help1.txt"), "'h' prints the key help whole")
    check("  number sign (the key of the hash mark)" in keys.splitlines(), "the key help names the slice selection key")
    start = len(out())
    s.key("H")
    panel = out()[start:]
    check(panel == printed_help("align-interactive-help2.txt"), "'H' prints the mouse and panel help whole")
    check("  Left/Right change the value of the selected parameter by its step." in panel.splitlines(),
          "the panel help says that Left/Right change the value")

    s.click(8, 8)  # "?", the first item of the top menu: context help
    band = AREA + 30
    pix = s.shot()
    expect_text(pix, band + 27, "select a region with a mouse press (output to shell window)", "context help prompt")
    expect_text(pix, band + 42, "other keys cancel", "context help prompt, second row")
    start = len(out())
    s.click(*s.panel)
    lines = out()[start:].splitlines()
    entry = ["The alignment control panel. Button 1 shows the next panel, buttons 2",
             "and 3 the previous one. Up/Down (or the wheel) choose an item, and",
             "Left/Right change it. Press x to mark a parameter for the automatic",
             "search, a or A to start it."]
    want = ["Help from file %s/documentation/align-question-mark.txt" % ROOT, "message code 33 0"] + entry
    check(lines == want, "a click on the panel prints its help entry (%s)" % lines)
    quit_yes(s)


# ---- 3: automatic affine alignment of a shifted phantom ----

SHIFT = 6.0  # mm along x; the phantom has 2 mm voxels


def scenario_affine(s):
    s.click(*s.panel)  # the affine set
    s.key(*["Down", "x"] * 11)  # only the x translation stays adjustable
    s.move(40, 60)
    s.key("A")
    took = wait_for(s, "done", 1, 600)
    print("affine alignment: %.0f s" % took)
    quit_yes(s)
    p = align_com()
    t = float(p["registration-translations"][0])
    # within a quarter of a voxel of the translation that undoes the shift
    check(abs(t + SHIFT) < 0.5 and p["registration-translations"][1:] == ["0", "0"],
          "translations %s recover -6 0 0" % p["registration-translations"])
    check((p["registration-rotations"], p["registration-inflations"], p["registration-skews"]) ==
          (["0"] * 3, ["1"] * 3, ["0"] * 3), "the parameters switched off with 'x' kept their values")


def prepare_affine(make_volumes):
    out = subprocess.run([make_volumes, "shifted-phantom", "%g" % SHIFT, "ind.nii", "tpl.nii"],
                         capture_output=True, text=True, check=True).stdout
    check(out.strip() == "translation -6 0 0", "the phantom's undoing translation")
    return ["ind.nii", "-t", "tpl.nii"]


# ---- 4: non-linear alignment of a locally deformed phantom ----

DN, DRES = 32, 2.0  # 32^3 voxels of 2 mm
BUMP = (6.0, -4.0, 2.0)  # centre of the deformation, mm, centred frame
AMPLITUDE, WIDTH = 3.0, 8.0


def phantom(px, py, pz):
    if px * px / 26.0 ** 2 + py * py / 28.0 ** 2 + pz * pz / 24.0 ** 2 > 1.0:
        return 0.0
    b1 = ((px - 8) ** 2 + (py + 6) ** 2 + (pz - 3) ** 2) / (2 * 5.0 ** 2)
    b2 = ((px + 10) ** 2 + (py - 10) ** 2 + (pz + 6) ** 2) / (2 * 4.0 ** 2)
    return 60.0 + 20.0 * px / 26.0 + 10.0 * py / 28.0 + 100.0 * math.exp(-b1) + 60.0 * math.exp(-b2)


def bump(px, py, pz):
    r2 = (px - BUMP[0]) ** 2 + (py - BUMP[1]) ** 2 + (pz - BUMP[2]) ** 2
    return AMPLITUDE * math.exp(-r2 / (2 * WIDTH ** 2))


def centred(i):
    return (i - (DN - 1) / 2.0) * DRES


def prepare_nonlinear():
    def at(fn):
        return lambda x, y, z: fn(centred(x), centred(y), centred(z))
    write_nifti_res("tpl.nii", at(phantom))
    # the individual at q shows the template at q - u(q), u a smooth bump along x: the
    # displacement that undoes it is about +u
    write_nifti_res("ind.nii", at(lambda px, py, pz: phantom(px - bump(px, py, pz), py, pz)))
    return ["ind.nii", "-t", "tpl.nii"]


def write_nifti_res(name, fn):
    write_nifti(name, fn, DN, DN, DN)
    with open(name, "r+b") as f:  # 2 mm voxels
        f.seek(80)
        f.write(struct.pack("<3f", DRES, DRES, DRES))


def scenario_nonlinear(s):
    s.click(*s.panel)
    s.click(*s.panel)  # the non-linear set, X Field selected
    s.move(*s.panel)
    s.key("Down", "Down", "x")  # Z Field off
    s.move(40, 60)
    s.key("A")
    took = wait_for(s, "done", 1, 900)
    print("non-linear alignment: %.0f s" % took)
    quit_yes(s)
    line = align_com().get("registration-distortions")
    check(line == [os.path.join(os.getcwd(), "distortions.nii")], "align.com names the maps (%s)" % line)
    import nibabel
    import numpy
    d = numpy.asarray(nibabel.load("distortions.nii").dataobj, dtype=numpy.float64)
    c = [int(round(v / DRES + (DN - 1) / 2.0)) for v in BUMP]
    near = d[c[0] - 1:c[0] + 2, c[1] - 1:c[1] + 2, c[2] - 1:c[2] + 2, 0].mean()
    print("x displacement near the bump centre %g mm" % near)
    check(d.shape == (DN, DN, DN, 3), "distortions.nii holds three maps on the template grid")
    check(abs(d[..., 2]).max() == 0, "the z map stays zero (Z Field off)")
    check(near > AMPLITUDE / 4, "x displacement near the bump undoes the applied %g mm" % AMPLITUDE)


# ---- 5: full alignment of a real brain from the menu ----

TRUTH = ["3", "-2", "4", "4", "-3", "2", "1.03", "0.97", "1.02"]


def prepare_realdata(make_volumes):
    src = "/usr/share/mricron/templates/"
    if not os.path.exists(src + "ch2.nii.gz") or not os.path.exists(src + "ch2bet.nii.gz"):
        print("SKIP: mricron-data is not installed")
        sys.exit(77)
    with gzip.open(src + "ch2bet.nii.gz", "rb") as f, open("ch2bet.nii", "wb") as out:
        out.write(f.read())
    run = lambda *a: subprocess.run([make_volumes] + list(a), check=True, capture_output=True)
    run("moved", src + "ch2.nii.gz", "moved.nii", *TRUTH)
    run("halve", "moved.nii", "ind.nii")
    run("halve", "ch2bet.nii", "tpl.nii")
    return ["ind.nii", "-t", "tpl.nii"]


def scenario_realdata(s, make_volumes):
    start = time.time()
    s.click(220, 22)  # "full align" in the second row of the top menu
    wait_for(s, "done", 2, 3000)  # the affine and then the non-linear alignment
    print("full alignment: %.0f s" % (time.time() - start))
    text = open("stdout.txt").read()
    check("Perform non-linear alignment by adjusting: x y z field(s)." in text, "both stages ran")
    quit_yes(s)
    check(os.path.exists("distortions.nii"), "distortions.nii written")
    r = subprocess.run([make_volumes, "mapping-error", "tpl.nii", "align.com"] + TRUTH,
                       capture_output=True, text=True)
    print(r.stdout)
    err = [float(line.split()[1]) for line in r.stdout.splitlines() if line.startswith("mean_error_mm")]
    check(r.returncode == 0 and "distortions " in r.stdout and err and err[0] < 1.0,
          "mean mapping error over the brain below 1 mm with the displacements (%s)" % err)


def main():
    align, make_volumes, scenario = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]), sys.argv[3]
    work = tempfile.mkdtemp(prefix="align-panel-")
    os.chdir(work)
    os.environ.pop("QOR_HOME", None)
    if scenario == "overlays":
        args = prepare_overlays()
    elif scenario == "panel":
        args = prepare_panel()
    elif scenario == "short_panel":
        args = prepare_short_panel()
    elif scenario == "display_types":
        args = prepare_panel()
    elif scenario == "help":
        os.environ["QOR_HOME"] = ROOT
        args = prepare_panel()
    elif scenario == "affine":
        args = prepare_affine(make_volumes)
    elif scenario == "nonlinear":
        args = prepare_nonlinear()
    else:
        args = prepare_realdata(make_volumes)
    s = Session(align, args)
    _, _, width, _ = s.geometry()
    s.panel = (width - RIGHT // 2, 60)
    bodies = {"overlays": scenario_overlays, "panel": scenario_panel, "short_panel": scenario_short_panel,
              "display_types": scenario_display_types, "help": scenario_help,
              "affine": scenario_affine,
              "nonlinear": scenario_nonlinear, "realdata": lambda s: scenario_realdata(s, make_volumes)}
    run_scenario(s, bodies[scenario], work, scenario)


if __name__ == "__main__":
    main()
