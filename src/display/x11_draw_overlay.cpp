/* Drawing overlays and wire-frames with the mouse in the image window: the outline of buttons
   2 and 3, the modal entry of wire control points, the curves of the wire lists on screen and
   the activated region of 'n'. The geometry is in draw_ops. Reads mosaic; writes overlay_map,
   ovl_root (through update_root_overlay) and wire_root. Xlib. */
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "display_hooks.h"
#include "display_model.h"
#include "draw_ops.h"
#include "draw_overlay.h"
#include "globals.h"
#include "numerics.h"
#include "overlay_ops.h"
#include "render.h"
#include "x11_display.h"
#include "x11_events.h"

static GC gc_of_color(int color)
{
    switch (color) {
    case 1: return XGC_cyan;
    case 2: return XGC_red;
    case 3: return XGC_green;
    case 4: return XGC_blue;
    case 5: return XGC_white;
    case 6: return XGC_purple;
    case 7: return XGC_yellow;
    default: return XGC_orange;
    }
}

static float axis_value(POINT3D p, int axis) { return axis == 0 ? p.x : (axis == 1 ? p.y : p.z); }
static int axis_value(IPOINT3D p, int axis) { return axis == 0 ? p.x : (axis == 1 ? p.y : p.z); }

/* Window pixel of a voxel position on a plane kind; 0 when the plane or its slice is not
   shown. A voxel spans i..i+1 in the conversion, so the in-plane axes move by half a voxel. */
static int window_pixel(int kind, POINT3D p, XPoint *q)
{
    int h, v, n;
    plane_axes_of_kind(kind, &h, &v, &n);
    float *c[3] = {&p.x, &p.y, &p.z};
    *c[h] += 0.5f;
    *c[v] += 0.5f;
    IPOINT2D r;
    if (mosaic.display_3orthogonal) {
        if (fabsf(*c[n] - (float)axis_value(mosaic.icross, n)) > 0.01f) return 0;
        r = Convert_rVoxel_to_Pixel(kind, p, 0);
    } else {
        r = Convert_rVoxel_to_Pixel(-1, p, 0);
        if (r.x < 0) return 0;
    }
    q->x = (short)r.x;
    q->y = (short)(r.y + 30);
    return 1;
}

/* ---- outlines of buttons 2 and 3 ---- */

static struct {
    int erase, plane, slice;
    int n, room;
    POINT2D *points;
    POINT3D last;
} outline;
static int next_button = 2;

void overlay_draw_button(int button) { next_button = button; }

static void add_outline_point(POINT3D p)
{
    if (outline.n == outline.room) {
        outline.room = outline.room > 0 ? 2 * outline.room : 256;
        POINT2D *grown = (POINT2D *)realloc(outline.points, sizeof(POINT2D) * (size_t)outline.room);
        if (grown == NULL) alloc_error("allocation failure in action_image_draw_overlay()");
        outline.points = grown;
    }
    int h, v, n;
    plane_axes_of_kind(outline.plane, &h, &v, &n);
    outline.points[outline.n].x = axis_value(p, h);
    outline.points[outline.n].y = axis_value(p, v);
    outline.n++;
    outline.last = p;
}

/* The pointer's voxel position when it is on the outline's plane and slice. */
static int pointer_on_outline_slice(POINT3D *p)
{
    int sel = mosaic.cursor_selection;
    if (!(sel & 2) || plane_kind_of_bits(sel) != outline.plane) return 0;
    int h, v, n;
    plane_axes_of_kind(outline.plane, &h, &v, &n);
    if (axis_value(mosaic.icursor, n) != outline.slice) return 0;
    *p = pointer_rvoxel();
    return 1;
}

void action_image_draw_overlay(int stage)
{
    if (stage == 1) {
        int sel = mosaic.cursor_selection, plane = plane_kind_of_bits(sel);
        if (!(sel & 2) || plane < 0 || overlay_map.weight == NULL) return;
        int h, v, n;
        plane_axes_of_kind(plane, &h, &v, &n);
        outline.erase = next_button == 3;
        outline.plane = plane;
        outline.slice = axis_value(mosaic.icursor, n);
        outline.n = 0;
        add_outline_point(pointer_rvoxel());
        mosaic.drawing_overlay = 1;
        show_on_info_line(outline.erase ? "erase: outline the region with button 3 down," : "draw: outline the region with button 2 down,",
                          "release to fill it", "a click sets one voxel");
        return;
    }
    if (!mosaic.drawing_overlay) return;
    POINT3D p;
    int on_slice = pointer_on_outline_slice(&p);
    if (on_slice) {
        XPoint a, b;
        if (window_pixel(outline.plane, outline.last, &a) && window_pixel(outline.plane, p, &b)) {
            GC gc = outline.erase ? XGC_white : gc_of_color(ovl_root.color);
            XDrawLine(XServerDisplay, XPixmap_image, gc, a.x, a.y, b.x, b.y);
            XDrawLine(XServerDisplay, XWindow_image, gc, a.x, a.y, b.x, b.y);
            XFlush(XServerDisplay);
        }
        add_outline_point(p);
    }
    if (stage == 0) return;

    mosaic.drawing_overlay = 0;
    int count = fill_outline_in_slice(outline.points, outline.n, outline.plane, outline.slice,
                                      outline.erase ? 0.0f : 1.0f, ovl_root.color);
    update_root_overlay(1);
    update_image_and_graph(1);
    char line[1024];
    snprintf(line, sizeof line, "%d voxel%s %s", count, count == 1 ? "" : "s", outline.erase ? "erased" : "drawn");
    show_on_info_line(line, "", "");
}

/* ---- wire-frames ---- */

static void append_control_point(POINT3D p, int color)
{
    CONTROL_POINT *grown =
        (CONTROL_POINT *)realloc(wire_root.control, sizeof(CONTROL_POINT) * (size_t)(wire_root.npts + 1));
    if (grown == NULL) alloc_error("allocation failure in action_draw_wires()");
    wire_root.control = grown;
    wire_root.control[wire_root.npts].point = p;
    wire_root.control[wire_root.npts].color = color;
    wire_root.npts++;
}

void action_draw_wires(void)
{
    if (mosaic.stack == NULL) return;
    int start = wire_root.npts, normal = -1, slice = 0;
    show_on_info_line("wire-frame: button 1 adds a control point,", "Return or Escape ends",
                      "a last point near the first closes the wire");
    for (;;) {
        XEvent event;
        int which = get_next_event(&event);
        if (event.type == KeyPress) {
            char key;
            if (get_key_press(&event.xkey, &key) && (key == 13 || key == 27)) break;
            continue;
        }
        if (which != 1) continue;
        if (event.type == Expose) refresh_display_image();
        if (event.type != ButtonPress || event.xbutton.button != 1) continue;
        reset_cursor_selections();
        mosaic.cursor_selection = 1;
        define_mosaic_cursor_location(event.xbutton.x, event.xbutton.y);
        int kind = plane_kind_of_bits(mosaic.cursor_selection);
        if (!(mosaic.cursor_selection & 2) || kind < 0) continue;
        int h, v, n;
        plane_axes_of_kind(kind, &h, &v, &n);
        int s = axis_value(mosaic.icursor, n);
        if (wire_root.npts > start && (n != normal || s != slice)) {
            show_on_info_line("wire-frame: the control points of one wire lie on one slice,", "Return or Escape ends", "");
            continue;
        }
        if (wire_root.npts == start) {
            normal = n;
            slice = s;
            /* The curve before this one ends where this one starts. */
            if (start > 0) wire_root.control[start - 1].color = 0;
        }
        append_control_point(pointer_rvoxel(), 1);
        build_image_display(0);
        char line[1024];
        snprintf(line, sizeof line, "wire-frame: %d control point%s,", wire_root.npts - start,
                 wire_root.npts - start == 1 ? "" : "s");
        show_on_info_line(line, "Return or Escape ends", "a last point near the first closes the wire");
    }
    int n = wire_root.npts - start;
    if (n == 1) {
        wire_root.npts = start;
        show_on_info_line("wire-frame: one control point is not a wire; nothing added", "", "");
    } else if (n > 1) {
        /* Near: within WIRE_CLOSE_DISTANCE voxels or 8 screen pixels. */
        float near = fmaxf(WIRE_CLOSE_DISTANCE, 8.0f / (float)(mosaic.zoom > 1 ? mosaic.zoom : 1));
        int closed = close_wire_curve(wire_root.control + start, n, near);
        show_on_info_line(closed ? "wire-frame closed" : "wire-frame open",
                          closed ? "(f fills it into the overlay)" : "", "");
    } else {
        show_on_info_line("wire-frame: no control point added", "", "");
    }
}

/* One curve of n control points on one plane kind: the smooth curve when every point lies on
   the plane's slice, and a small square at each control point shown. */
static void draw_curve_on_plane(const CONTROL_POINT *curve, int n, int kind)
{
    GC gc = gc_of_color(curve[0].color);
    int closed = wire_curve_is_closed(curve, n);
    int m = closed ? n - 1 : n;
    POINT3D *points = point3d_vector(m);
    int all_shown = 1;
    XPoint q;
    for (int i = 0; i < m; i++) {
        points[i] = curve[i].point;
        if (window_pixel(kind, points[i], &q)) XFillRectangle(XServerDisplay, XPixmap_image, gc, q.x - 1, q.y - 1, 3, 3);
        else all_shown = 0;
    }
    int slice, plane = wire_curve_plane(curve, n, &slice);
    int h, v, normal, curve_normal = -1;
    plane_axes_of_kind(kind, &h, &v, &normal);
    if (plane >= 0) plane_axes_of_kind(plane, &h, &v, &curve_normal);
    if (all_shown && m > 1 && curve_normal == normal) {
        int count = curve_sample_count(m, closed, WIRE_CURVE_STEPS);
        POINT3D *samples = point3d_vector(count);
        sample_curve(points, m, closed, WIRE_CURVE_STEPS, samples);
        XPoint *pixels = (XPoint *)malloc(sizeof(XPoint) * (size_t)(count + 1));
        if (pixels == NULL) alloc_error("allocation failure in draw_wire_frames()");
        int k = 0;
        for (int i = 0; i < count; i++)
            if (window_pixel(kind, samples[i], &pixels[k])) k++;
        if (closed && k > 0) pixels[k++] = pixels[0];
        XDrawLines(XServerDisplay, XPixmap_image, gc, pixels, k, CoordModeOrigin);
        free(pixels);
        free_point3d_vector(samples);
    }
    free_point3d_vector(points);
}

void draw_wire_list(const wire_list *wire)
{
    int kinds[3] = {mosaic.mosaic_orientation, -1, -1};
    if (mosaic.display_3orthogonal) {
        kinds[0] = 0;
        kinds[1] = 2;
        kinds[2] = mosaic.display_ortho_ZY ? 1 : 3;
    }
    for (int start = 0, end; start < wire->npts; start = end) {
        end = wire_curve_end(wire->control, wire->npts, start);
        for (int kind : kinds)
            if (kind >= 0) draw_curve_on_plane(wire->control + start, end - start, kind);
    }
}

/* ---- activated regions ---- */

void action_select_activated_point(void)
{
    Activation *a = &mosaic.activation;
    const float *map = a->imap != 0 ? a->fSpaceMatrix : NULL;
    if (map == NULL || overlay_map.weight == NULL || !(mosaic.cursor_selection & 2)) {
        show_on_info_line("n: point at an activated voxel of the image", "", "");
        return;
    }
    int count = select_activated_region(map, mosaic.icursor, get_activation_threshold(-1), a->color_scheme,
                                        a->color_sign, ovl_root.color);
    char line[1024];
    snprintf(line, sizeof line, "%d activated voxel%s added to the overlay", count, count == 1 ? "" : "s");
    show_on_info_line(line, "", "");
}
