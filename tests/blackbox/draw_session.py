#!/usr/bin/python3
"""Drawing overlays and wire-frames with the mouse in the image window of align under Xvfb: an
outline drawn with button 2 and partly erased with button 3, a click, and a wire-frame entered
with N, filled with f and mirrored with M; checked on the ".ovl" and ".wire" files written.

usage: draw_session.py <align binary> <scenario>   (inside xvfb-run, screen 1280x1024x24)"""
import os
import shutil
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from display_session import NX, NY, NZ, Session, check, fail, run, value, write_nifti  # noqa: E402

Z = 8  # zoom: 2 x 2 panels of XY slices, shown bottom-up


def panel_origin(slice_):
    c, r = slice_ % 2, slice_ // 2
    return Z + Z * c * (NX + 1), 30 + Z + Z * r * (NY + 1)


def to_voxel(px, py, slice_):
    """Window pixel -> in-plane voxel coordinates, a voxel's centre at whole numbers."""
    x0, y0 = panel_origin(slice_)
    return (px - x0) / Z - 0.5, NY - (py - y0) / Z - 0.5


def window(slice_, dx, dy):
    x0, y0 = panel_origin(slice_)
    return x0 + dx, y0 + dy


def enclosed(poly, nh=NX, nv=NY):
    """Voxel centres (i, j) inside the closed polygon (even-odd); none may lie on an edge."""
    got = set()
    for j in range(nv):
        for i in range(nh):
            inside = False
            for (ax, ay), (bx, by) in zip(poly, poly[-1:] + poly[:-1]):
                vx, vy = bx - ax, by - ay
                t = max(0.0, min(1.0, ((i - ax) * vx + (j - ay) * vy) / (vx * vx + vy * vy or 1)))
                if (ax + t * vx - i) ** 2 + (ay + t * vy - j) ** 2 < 1e-4:
                    fail("voxel centre (%d, %d) lies on the outline: choose other points" % (i, j))
                if (ay > j) != (by > j) and i < ax + (j - ay) * vx / vy:
                    inside = not inside
            if inside:
                got.add((i, j))
    return got


def catmull_rom(pts, steps=16):
    """The closed smooth curve through the points, as cubic Bezier segments."""
    out, n = [], len(pts)
    for k in range(n):
        p0, p1, p2, p3 = (pts[(k + d) % n] for d in (-1, 0, 1, 2))
        b1 = [p1[a] + (p2[a] - p0[a]) / 6 for a in (0, 1)]
        b2 = [p2[a] - (p3[a] - p1[a]) / 6 for a in (0, 1)]
        for s in range(steps):
            t = s / steps
            u = 1 - t
            out.append(tuple(u ** 3 * p1[a] + 3 * u * u * t * b1[a] + 3 * u * t * t * b2[a] + t ** 3 * p2[a]
                             for a in (0, 1)))
    return out


def written_overlay(s):
    s.key("w")
    rows = [line.split() for line in open(".ovl")]
    check(all(len(r) == 3 for r in rows), ".ovl holds voxels of weight 1 only")
    return {tuple(int(v) for v in r) for r in rows}


def written_wire(s):
    s.key("W")
    return [tuple(float(v) for v in line.split()) for line in open(".wire")]


def stroke(s, button, points):
    """Button down at the first window point, through the others, up at the last."""
    s.move(*points[0])
    run("xdotool", "mousedown", str(button))
    time.sleep(0.15)
    for p in points[1:]:
        s.move(*p)
    run("xdotool", "mouseup", str(button))
    s.settle()


def panel_stroke(s, button, slice_, points):
    stroke(s, button, [window(slice_, *p) for p in points])
    return [to_voxel(*window(slice_, *p), slice_) for p in points]


def zoom_in(s):
    s.move(10, 40)
    s.key("Z", "Z", "Z", "Z")
    check(s.title() == "align (zoom = %d)" % Z, "zoom %d" % Z)


def scenario_outline(s):
    zoom_in(s)
    drawn = {(i, j, 1) for i, j in enclosed(panel_stroke(s, 2, 1, [(3, 2), (30, 5), (61, 10), (20, 45)]))}
    check(written_overlay(s) == drawn, "button 2 fills the voxels inside the outline (%d)" % len(drawn))
    r, g, b = s.shot()(*window(1, Z * 2 + 4, Z * (NY - 1 - 3) + 4))  # voxel (2, 3), in the outline
    check((2, 3, 1) in drawn and r == g > 0 and b == 0, "drawn in the overlay's yellow (%d %d %d)" % (r, g, b))
    erased = {(i, j, 1) for i, j in enclosed(panel_stroke(s, 3, 1, [(30, 1), (63, 1), (63, 29), (30, 29)]))}
    s.click(*window(3, Z * 1 + 3, Z * (NY - 1 - 4) + 5), button=2)  # voxel (1, 4) of slice 3
    want = (drawn - erased) | {(1, 4, 3)}
    check(erased & drawn and want != drawn, "the erased rectangle crosses the outline")
    check(written_overlay(s) == want, "button 3 erases inside its outline, a click sets one voxel")
    # Three planes at zoom 9: the XZ plane through the crosshair's y = 3 lies below the XY plane.
    s.key("3")
    z3, points = Z + 1, [(4, 3), (60, 10), (30, 33)]
    x0, y0 = z3, 30 + (NY + 2) * z3
    stroke(s, 2, [(x0 + h, y0 + v) for h, v in points])
    outline = [(h / z3 - 0.5, NZ - v / z3 - 0.5) for h, v in points]
    want |= {(i, 3, k) for i, k in enclosed(outline, NX, NZ)}
    check(written_overlay(s) == want, "an outline on the XZ plane fills its slice y = 3")


def scenario_wire(s):
    zoom_in(s)
    s.key("N")
    clicks = [(5, 6), (50, 4), (58, 41), (9, 37), (7, 9)]  # the last near the first closes it
    for p in clicks:
        s.click(*window(2, *p))
    s.key("Return")
    corners = [to_voxel(*window(2, *p), 2) for p in clicks[:4]]
    want = [(x, y, 2.0, 1.0) for x, y in corners + corners[:1]]
    want[4] = want[4][:3] + (0.0,)
    got = written_wire(s)
    check(len(got) == 5 and all(abs(a - b) < 1e-4 for w, g in zip(want, got) for a, b in zip(w, g)),
          "'.wire' holds the clicked points, the last put on the first and ending the wire %s" % got)
    check(s.shot()(*window(2, *clicks[1])) == (0, 255, 255), "the control point is drawn in cyan")
    s.key("f")
    filled = {(i, j, 2) for i, j in enclosed(catmull_rom(corners))}
    check(written_overlay(s) == filled, "f fills the smooth closed curve (%d voxels)" % len(filled))
    s.key("M")
    mirrored = written_wire(s)
    check(all(abs(m[0] - (NX - 1 - g[0])) < 1e-4 and m[1:] == g[1:] for m, g in zip(mirrored, got)),
          "M mirrors the control points about the centre in x")


def main():
    align, scenario = os.path.abspath(sys.argv[1]), sys.argv[2]
    work = tempfile.mkdtemp(prefix="align-draw-")
    os.chdir(work)
    write_nifti("tpl.nii", value)
    write_nifti("ind.nii", value)
    s = Session(align)
    try:
        {"outline": scenario_outline, "wire": scenario_wire}[scenario](s)
    finally:
        s.finish()
        print(open("stdout.txt").read()[-2000:])
    os.chdir("/")
    shutil.rmtree(work, ignore_errors=True)
    print("PASS " + scenario)


if __name__ == "__main__":
    main()
