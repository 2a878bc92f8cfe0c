#pragma once
/* Geometry of the regions drawn with the mouse: outlines filled into one slice of the overlay
   map, the smooth curves of wire-frames, closing, filling and mirroring of wires, and the
   selection of a connected activated region. Reads mosaic (stack, cursor, activation);
   writes overlay_map and wire_root. No X11.

   Coordinates are voxel coordinates of the displayed stack with a voxel's centre at whole
   numbers: voxel (3, 4, 2) spans 2.5..3.5 in x. A plane kind is the display's: 0 XY, 1 ZY,
   2 XZ, 3 YZ. */
#include "types.h"

/* Samples per curve segment between two control points, on screen and when filling. */
#define WIRE_CURVE_STEPS 16
/* A wire whose last point lies this close to its first (in voxels) is closed. */
#define WIRE_CLOSE_DISTANCE 1.5f

/* The stack axes (0 x, 1 y, 2 z) running across (h) and down (v) a plane kind, and the one
   through it (n): XY (x, y; z), ZY (z, y; x), XZ (x, z; y), YZ (y, z; x). */
void plane_axes_of_kind(int plane, int *h, int *v, int *n);
/* The plane kind of the cursor_selection bits (128 XY, 256 ZY, 512 XZ, 1024 YZ), or -1. */
int plane_kind_of_bits(int cursor_selection);

/* The pointer position of the last region test (CursorSelection_OnImageWindow) in voxel
   coordinates: the cursor's space position taken back through the stack's space-to-voxel
   matrix, the half voxel of the region test undone, and the coordinate across the plane set
   to the slice of icursor. Meaningful while cursor_selection has bit 2. */
POINT3D pointer_rvoxel(void);

/* Even-odd rule: 1 when (h, v) lies inside the closed outline of n points. */
int point_in_outline(const POINT2D *outline, int n, float h, float v);

/* Every voxel of slice `slice` of plane kind `plane` whose centre lies inside the closed
   outline (in-plane coordinates h, v of the plane kind) takes `weight` and `color` in
   overlay_map. An outline that encloses no voxel centre (a click, a short stroke) sets the
   voxels under its points instead. Returns the number of voxels set; the root overlay is not
   touched (the caller runs update_root_overlay). */
int fill_outline_in_slice(const POINT2D *outline, int n, int plane, int slice, float weight, short color);

/* Points on the smooth curve through n control points: a Catmull-Rom spline, drawn segment by
   segment as the cubic Bezier curve with inner control points P[i] + (P[i+1] - P[i-1])/6 and
   P[i+1] - (P[i+2] - P[i])/6; the ends of an open curve repeat their end point, a closed curve
   wraps. `steps` samples per segment from each control point on; an open curve adds its last
   point. `out` needs curve_sample_count(n, closed, steps) entries; returns that count. */
int curve_sample_count(int n, int closed, int steps);
int sample_curve(const POINT3D *points, int n, int closed, int steps, POINT3D *out);

/* Wires under edit hold several curves one after the other in wire_root; a control point of
   colour 0 ends its curve, and the first point's colour is the curve's.
   wire_curve_end: one past the last point of the curve that starts at `start`. */
int wire_curve_end(const CONTROL_POINT *control, int npts, int start);
/* 1 when the curve of n points is closed: at least four points and the last within
   WIRE_CLOSE_DISTANCE of the first; the last point then only marks the closing. */
int wire_curve_is_closed(const CONTROL_POINT *curve, int n);
/* The plane kind (0 XY, 2 XZ, 3 YZ, tried in this order) in which every point of the curve
   lies on one slice, with that slice; -1 when the curve lies in none. */
int wire_curve_plane(const CONTROL_POINT *curve, int n, int *slice);
/* Ends the curve being drawn (the last n points of wire_root): when it has at least four points
   and the last lies within `distance` of the first, the last is put on the first. The last
   point gets colour 0. Returns 1 when the curve is now closed. */
int close_wire_curve(CONTROL_POINT *curve, int n, float distance);

/* Fills every closed curve of wire_root into the overlay map on its slice (weight 1, the root
   overlay's colour) with the same curve as drawn, then update_root_overlay(1), redraws and
   reports on the information line. Returns the number of curves filled. */
int fill_closed_wires(void);
/* Mirrors the control points of wire_root left-right about the volume's centre in x, as the
   overlay is mirrored: x becomes dim.x - 1 - x. */
void action_mirror_wires(void);

/* 1 when an activation value shows in colour: |m| > low for the two-sided scheme 0 (with m the
   value times `sign`), -m > low for the negative schemes, m > low for the positive ones. */
int activation_shows(float map, float low, int scheme, int sign);
/* Adds to the overlay map (weight 1, `color`) the 6-connected region of voxels whose values in
   `map` (one per voxel of the displayed stack) show in colour and that contains `seed`.
   Returns the region's size, 0 when the seed itself does not show. */
int select_activated_region(const float *map, IPOINT3D seed, float low, int scheme, int sign, short color);
