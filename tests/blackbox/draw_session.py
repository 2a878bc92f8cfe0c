#!/usr/bin/python3
"""Drawing with the mouse in the image window under Xvfb (xdotool), checked on the ".ovl" and
".wire" files written. usage: draw_session.py <align binary> outline|wire"""
import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from display_session import NX, NY, NZ, Session, check, fail, run, run_scenario, value, write_nifti  # noqa: E402

Z = 8  # zoom: 2 x 2 panels of XY slices, shown bottom-up


def window(slice_, dx, dy):
    """Window pixel at (dx, dy) inside the panel of a slice."""
    return Z + Z * (slice_ % 2) * (NX + 1) + dx, 30 + Z + Z * (slice_ // 2) * (NY + 1) + dy


def to_voxel(dx, dy, zoom=Z, nv=NY):
    """(dx, dy) inside a plane shown bottom-up -> voxel coordinates, a centre at whole numbers."""
    return dx / zoom - 0.5, nv - dy / zoom - 0.5


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


def written(s, key, name):
    s.key(key)
    return [line.split() for line in open(name)]


def overlay(s):
    rows = written(s, "w", ".ovl")
    check(all(len(r) == 3 for r in rows), ".ovl holds voxels of weight 1 only")
    return {tuple(int(v) for v in r) for r in rows}


def stroke(s, button, origin, points, zoom=Z, nv=NY):
    """Button down at the first point, through the others, up at the last; voxel outline back."""
    for k, (dx, dy) in enumerate(points):
        s.move(origin[0] + dx, origin[1] + dy)
        if k == 0:
            run("xdotool", "mousedown", str(button))
            time.sleep(0.15)
    run("xdotool", "mouseup", str(button))
    s.settle()
    return [to_voxel(x, y, zoom, nv) for x, y in points]


def scenario_outline(s):
    drawn = {(i, j, 1) for i, j in enclosed(stroke(s, 2, window(1, 0, 0), [(3, 2), (30, 5), (61, 10), (20, 45)]))}
    check(overlay(s) == drawn, "button 2 fills the voxels inside the outline (%d)" % len(drawn))
    erased = {(i, j, 1) for i, j in enclosed(stroke(s, 3, window(1, 0, 0), [(30, 1), (63, 1), (63, 29), (30, 29)]))}
    s.click(*window(3, Z * 1 + 3, Z * (NY - 1 - 4) + 5), button=2)  # voxel (1, 4) of slice 3
    want = (drawn - erased) | {(1, 4, 3)}
    check(erased & drawn and want != drawn, "the erased rectangle crosses the outline")
    check(overlay(s) == want, "button 3 erases inside its outline, a click sets one voxel")
    s.key("3")  # three planes at zoom 9: the XZ plane through the crosshair's y = 3 below the XY plane
    outline = stroke(s, 2, (Z + 1, 30 + (NY + 2) * (Z + 1)), [(4, 3), (60, 10), (30, 33)], Z + 1, NZ)
    want |= {(i, 3, k) for i, k in enclosed(outline, NX, NZ)}
    check(overlay(s) == want, "an outline on the XZ plane fills its slice y = 3")


def scenario_wire(s):
    s.key("N")
    # The corners of the square 0.125..3.875 in voxels; the last click, near the first, closes it.
    clicks = [(5, 43), (35, 43), (35, 13), (5, 13), (6, 42)]
    for p in clicks:
        s.click(*window(2, *p))
    s.key("Return")
    corners = [to_voxel(*p) for p in clicks[:4]]
    want = [(x, y, 2.0, 1.0) for x, y in corners] + [(corners[0][0], corners[0][1], 2.0, 0.0)]
    got = [tuple(float(v) for v in r) for r in written(s, "W", ".wire")]
    check(len(got) == 5 and all(abs(a - b) < 1e-4 for w, g in zip(want, got) for a, b in zip(w, g)),
          "'.wire' holds the clicked points, the last put on the first and ending the wire %s" % got)
    check(s.shot()(*window(2, *clicks[1])) == (0, 255, 255), "the control point is drawn in cyan")
    s.key("f")
    # The smooth curve through the corners bulges by side/8 = 0.47 at mid-edges, to -0.34 and
    # 4.34: it takes in the centres of rows and columns 0 and 4 between the corners.
    filled = {(i, j, 2) for i in range(5) for j in range(5)} - {(0, 0, 2), (4, 0, 2), (0, 4, 2), (4, 4, 2)}
    check(overlay(s) == filled, "f fills the smooth closed curve")
    s.key("M")
    mirrored = [tuple(float(v) for v in r) for r in written(s, "W", ".wire")]
    check(all(abs(m[0] - (NX - 1 - g[0])) < 1e-4 and m[1:] == g[1:] for m, g in zip(mirrored, got)),
          "M mirrors the control points about the centre in x")


def main():
    align, scenario = os.path.abspath(sys.argv[1]), sys.argv[2]
    work = tempfile.mkdtemp(prefix="align-draw-")
    os.chdir(work)
    write_nifti("tpl.nii", value)
    write_nifti("ind.nii", value)

    def body(s):
        s.move(10, 40)
        s.key("Z", "Z", "Z", "Z")
        check(s.title() == "align (zoom = %d)" % Z, "zoom %d" % Z)
        {"outline": scenario_outline, "wire": scenario_wire}[scenario](s)
    run_scenario(Session(align), body, work, scenario)


if __name__ == "__main__":
    main()
