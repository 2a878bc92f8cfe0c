#!/usr/bin/python3
"""A user's session with the graph window of align under Xvfb: a 4-D individual whose voxels
all rise for six time points and fall for five, the graph opened with 'g', checked on
screenshots of the plot, on the statistics printed and on the close box.

usage: graph_session.py <align binary> <send_wm_delete tool> <scenario>"""
import os
import re
import struct
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from display_session import NX, NY, NZ, Session, check, fail, mosaic_pixel, run, run_scenario, value, write_nifti  # noqa: E402

NT = 12
PLOT_W, PLOT_H = 500, 250  # the graph window's first plot size
YELLOW, RED, CYAN = (255, 255, 0), (255, 0, 0), (0, 255, 255)


def tri(t):
    """The known time course shape: up by one per time point to t = 6, then down."""
    return t if t <= 6 else 12 - t


def write_nifti_4d(name):
    """Float32 NIfTI-1, dim[4] = NT, voxel (x, y, z, t) = value(x, y, z) + 30 tri(t)."""
    hdr = bytearray(348)
    struct.pack_into("<i", hdr, 0, 348)
    struct.pack_into("<8h", hdr, 40, 4, NX, NY, NZ, NT, 1, 1, 1)
    struct.pack_into("<2h", hdr, 70, 16, 32)
    struct.pack_into("<8f", hdr, 76, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0)
    struct.pack_into("<2f", hdr, 108, 352.0, 1.0)  # vox_offset, scl_slope
    hdr[344:348] = b"n+1\0"
    data = b"".join(struct.pack("<f", value(x, y, z) + 30.0 * tri(t))
                    for t in range(NT) for z in range(NZ) for y in range(NY) for x in range(NX))
    with open(name, "wb") as f:
        f.write(bytes(hdr) + b"\0\0\0\0" + data)


def graph_id():
    r = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", r"^align graph$"],
                       capture_output=True, text=True)
    ids = r.stdout.split()
    return ids[-1] if ids else None


def on_graph(s, method, *args):
    """A Session method applied to the graph window instead of the image window."""
    saved, s.win = s.win, graph_id()
    if s.win is None:
        s.win = saved
        fail("no graph window")
    try:
        return getattr(s, method)(*args)
    finally:
        s.win = saved


def point_x(t, n=NT):
    return int((t + 0.5) * PLOT_W / n)


def curve(s, n=NT):
    """Centre row of each point's marker (yellow 3 x 3, red 5 x 5 for the current point) and the
    current point."""
    pix = on_graph(s, "shot")
    rows, current = [], None
    for t in range(n):
        hit = [(y, pix(point_x(t, n), y)) for y in range(15, 15 + PLOT_H) if pix(point_x(t, n), y) in (YELLOW, RED)]
        if not hit:
            fail("no marker for point %d" % t)
        rows.append(hit[0][0] + (2 if hit[0][1] == RED else 1))
        if hit[0][1] == RED:
            current = t
    return rows, current


def open_time_course(s):
    s.move(10, 40)
    s.key("g")
    check(graph_id() is not None, "'g' opens the graph window")
    on_graph(s, "move", 250, 100)
    s.key("G", "G", "G")  # profile x -> y -> z -> time course
    rows, current = curve(s)
    check(all(rows[t + 1] < rows[t] for t in range(6)), "the time course rises up to t = 6 %s" % rows)
    check(all(rows[t + 1] > rows[t] for t in range(6, NT - 1)), "and falls after it")
    check(current == 0, "the current point is the displayed time point 0")
    return rows


def scenario_time_course(s):
    open_time_course(s)
    image_before = s.shot()(*mosaic_pixel(2, 2, 1, 4))
    on_graph(s, "move", 250, 100)
    s.key("Right")
    check(curve(s)[1] == 1, "Right moves the current point to t = 1")
    image_after = s.shot()(*mosaic_pixel(2, 2, 1, 4))
    check(image_after[0] > image_before[0], "the image shows the brighter time point 1 %s %s" % (image_before, image_after))
    on_graph(s, "move", point_x(9), 100)
    run("xdotool", "click", "1")
    s.settle()
    check(curve(s)[1] == 9, "button 1 selects time point 9")
    s.key("s", "S")
    out = open("stdout.txt").read()
    rows = re.findall(r"^(\d+)\t1\t([-0-9.e+]+)\t0$", out.split("Image\tNpts\tAverage\tStDev\n", 1)[-1], re.M)
    check(len(rows) == 1 + NT and rows[0][0] == "9", "'s' prints point 9, 'S' all %d points %s" % (NT, rows[:2]))
    avg = [float(a) for _, a in rows[1:]]
    check(all(abs(avg[t + 1] - avg[t] - 30 * (tri(t + 1) - tri(t))) < 0.01 for t in range(NT - 1)),
          "the averages step by +-30 like the stack %s" % avg)
    check(abs(float(rows[0][1]) - avg[9]) < 1e-3, "the single row is the value of point 9")


def scenario_y_range(s):
    auto = open_time_course(s)
    on_graph(s, "move", 250, 15 + PLOT_H // 2)
    s.key("Up")  # zoom in about the middle of the plot: the y range is fixed
    zoomed = curve(s)[0]
    check(abs(zoomed[6] - 15 - PLOT_H // 2) > abs(auto[6] - 15 - PLOT_H // 2), "Up spreads the curve %s" % zoomed)
    s.key("Right")  # the next time point: the graph is drawn again in the fixed range
    check(curve(s) == (zoomed, 1), "the fixed y range holds while the graph is redrawn")
    s.key("v")
    check(curve(s)[0] == auto, "'v' returns to the automatic y range")


def scenario_close_box(s, send_wm_delete):
    s.move(10, 40)
    s.key("g")
    gid = graph_id()
    check(gid is not None, "'g' opens the graph window")
    run(send_wm_delete, gid)
    time.sleep(0.8)
    check(graph_id() is None, "the close request unmaps the graph window")
    check(s.proc.poll() is None, "align still runs")
    s.key("ctrl+c")  # crosshair style 1 (cyan)
    s.click(*mosaic_pixel(1, 1, 0, 4))
    pix = s.shot()
    check(pix(*mosaic_pixel(1, 5, 1, 4)) == CYAN and pix(*mosaic_pixel(6, 1, 2, 4)) == CYAN,
          "a click in the image moves the crosshair to (1, 1)")
    s.move(10, 40)
    s.key("g")
    check(graph_id() is not None, "'g' opens the graph window again")
    rows, current = curve(s, NX)
    check(all(rows[x + 1] < rows[x] for x in range(NX - 1)), "the profile along x rises with x %s" % rows)
    check(current == 1, "its current point is the crosshair's x")


def main():
    align, tool, scenario = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]), sys.argv[3]
    work = tempfile.mkdtemp(prefix="align-graph-")
    os.chdir(work)
    write_nifti("tpl.nii", value)
    write_nifti_4d("ind.nii")
    bodies = {"time_course": scenario_time_course, "y_range": scenario_y_range,
              "close_box": lambda s: scenario_close_box(s, tool)}
    run_scenario(Session(align), bodies[scenario], work, scenario)


if __name__ == "__main__":
    main()
