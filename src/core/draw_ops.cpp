/* Geometry of the regions drawn with the mouse: outline fill of one slice, the smooth curves of
   wire-frames, closing, filling and mirroring of wires, connected activated regions. Reads
   mosaic; writes overlay_map and wire_root, and the root overlay through update_root_overlay.
   Redraws go through display_hooks. No X11. */
#include "draw_ops.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "display_hooks.h"
#include "globals.h"
#include "numerics.h"
#include "overlay_ops.h"
#include "volume.h"

void plane_axes_of_kind(int plane, int *h, int *v, int *n)
{
    switch (plane) {
    case 1: *h = 2; *v = 1; *n = 0; break;
    case 2: *h = 0; *v = 2; *n = 1; break;
    case 3: *h = 1; *v = 2; *n = 0; break;
    default: *h = 0; *v = 1; *n = 2; break;
    }
}

int plane_kind_of_bits(int cursor_selection)
{
    if (cursor_selection & 128) return 0;
    if (cursor_selection & 256) return 1;
    if (cursor_selection & 512) return 2;
    if (cursor_selection & 1024) return 3;
    return -1;
}

static float *axis_of(POINT3D *p, int axis) { return axis == 0 ? &p->x : (axis == 1 ? &p->y : &p->z); }
static int *axis_of(IPOINT3D *p, int axis) { return axis == 0 ? &p->x : (axis == 1 ? &p->y : &p->z); }

POINT3D pointer_rvoxel(void)
{
    data_stack *s = mosaic.stack;
    int sel = mosaic.cursor_selection;
    POINT3D p = mosaic.cursor;
    if (sel & (128 | 512)) p.x += s->resolution.x * s->direction.x / 2.0f;
    if (sel & (128 | 256 | 1024)) p.y += s->resolution.y * s->direction.y / 2.0f;
    if (sel & (256 | 1024)) p.z += s->resolution.z * s->direction.z / 2.0f;
    /* Here a voxel spans i..i+1, as the region test measures it. */
    POINT3D r = Convert_Space_to_rVoxel(p, s);
    int h, v, n;
    plane_axes_of_kind(plane_kind_of_bits(sel), &h, &v, &n);
    *axis_of(&r, h) -= 0.5f;
    *axis_of(&r, v) -= 0.5f;
    IPOINT3D c = mosaic.icursor;
    *axis_of(&r, n) = (float)*axis_of(&c, n);
    return r;
}

int point_in_outline(const POINT2D *outline, int n, float h, float v)
{
    int inside = 0;
    for (int i = 0, j = n - 1; i < n; j = i++) {
        const POINT2D &a = outline[i], &b = outline[j];
        if ((a.y > v) == (b.y > v)) continue;
        double cross = (double)a.x + ((double)v - a.y) * ((double)b.x - a.x) / ((double)b.y - a.y);
        if ((double)h < cross) inside = !inside;
    }
    return inside;
}

/* Index in the overlay map of in-plane voxel (i, j) on `slice`, or -1 outside the stack. */
static int plane_voxel_index(int plane, int i, int j, int slice)
{
    int h, v, n;
    plane_axes_of_kind(plane, &h, &v, &n);
    IPOINT3D p;
    *axis_of(&p, h) = i;
    *axis_of(&p, v) = j;
    *axis_of(&p, n) = slice;
    IPOINT3D d = mosaic.stack->dim;
    if (p.x < 0 || p.x >= d.x || p.y < 0 || p.y >= d.y || p.z < 0 || p.z >= d.z) return -1;
    return (p.z * d.y + p.y) * d.x + p.x;
}

static void set_map(int index, float weight, short color)
{
    overlay_map.weight[index] = weight;
    overlay_map.color[index] = weight != 0.0f ? color : 0;
}

int fill_outline_in_slice(const POINT2D *outline, int n, int plane, int slice, float weight, short color)
{
    if (n <= 0) return 0;
    float lo_h = outline[0].x, hi_h = outline[0].x, lo_v = outline[0].y, hi_v = outline[0].y;
    for (int k = 1; k < n; k++) {
        lo_h = fminf(lo_h, outline[k].x);
        hi_h = fmaxf(hi_h, outline[k].x);
        lo_v = fminf(lo_v, outline[k].y);
        hi_v = fmaxf(hi_v, outline[k].y);
    }
    /* The outline's box, clipped to the plane before it becomes integer. */
    int h, v, axis;
    plane_axes_of_kind(plane, &h, &v, &axis);
    IPOINT3D d = mosaic.stack->dim;
    int nh = *axis_of(&d, h), nv = *axis_of(&d, v);
    int i0 = (int)fmaxf(0.0f, ceilf(lo_h)), i1 = (int)fminf((float)(nh - 1), floorf(hi_h));
    int j0 = (int)fmaxf(0.0f, ceilf(lo_v)), j1 = (int)fminf((float)(nv - 1), floorf(hi_v));
    int count = 0;
    if (n >= 3)
        for (int j = j0; j <= j1; j++)
            for (int i = i0; i <= i1; i++) {
                int index = plane_voxel_index(plane, i, j, slice);
                if (index < 0 || !point_in_outline(outline, n, (float)i, (float)j)) continue;
                set_map(index, weight, color);
                count++;
            }
    if (count > 0) return count;
    /* Nothing enclosed: the voxels under the points, each counted once. */
    for (int k = 0; k < n; k++) {
        float fi = floorf(outline[k].x + 0.5f), fj = floorf(outline[k].y + 0.5f);
        if (!(fi >= 0.0f && fi < (float)nh && fj >= 0.0f && fj < (float)nv)) continue;
        int i = (int)fi, j = (int)fj;
        int index = plane_voxel_index(plane, i, j, slice);
        if (index < 0) continue;
        int again = 0;
        for (int e = 0; e < k && !again; e++)
            again = floorf(outline[e].x + 0.5f) == fi && floorf(outline[e].y + 0.5f) == fj;
        set_map(index, weight, color);
        count += !again;
    }
    return count;
}

int curve_sample_count(int n, int closed, int steps)
{
    if (n <= 0) return 0;
    if (n == 1) return 1;
    return closed ? n * steps : (n - 1) * steps + 1;
}

static POINT3D control_at(const POINT3D *points, int n, int closed, int i)
{
    if (closed) return points[((i % n) + n) % n];
    return points[i < 0 ? 0 : (i >= n ? n - 1 : i)];
}

int sample_curve(const POINT3D *points, int n, int closed, int steps, POINT3D *out)
{
    if (n <= 0) return 0;
    if (n == 1) {
        out[0] = points[0];
        return 1;
    }
    int k = 0, segments = closed ? n : n - 1;
    for (int i = 0; i < segments; i++) {
        POINT3D p0 = control_at(points, n, closed, i - 1), p1 = control_at(points, n, closed, i);
        POINT3D p2 = control_at(points, n, closed, i + 1), p3 = control_at(points, n, closed, i + 2);
        double b0[3] = {p1.x, p1.y, p1.z}, b3[3] = {p2.x, p2.y, p2.z};
        double b1[3] = {p1.x + ((double)p2.x - p0.x) / 6.0, p1.y + ((double)p2.y - p0.y) / 6.0,
                        p1.z + ((double)p2.z - p0.z) / 6.0};
        double b2[3] = {p2.x - ((double)p3.x - p1.x) / 6.0, p2.y - ((double)p3.y - p1.y) / 6.0,
                        p2.z - ((double)p3.z - p1.z) / 6.0};
        for (int s = 0; s < steps; s++) {
            double t = (double)s / steps, u = 1.0 - t;
            double w0 = u * u * u, w1 = 3.0 * u * u * t, w2 = 3.0 * u * t * t, w3 = t * t * t;
            out[k].x = (float)(w0 * b0[0] + w1 * b1[0] + w2 * b2[0] + w3 * b3[0]);
            out[k].y = (float)(w0 * b0[1] + w1 * b1[1] + w2 * b2[1] + w3 * b3[1]);
            out[k].z = (float)(w0 * b0[2] + w1 * b1[2] + w2 * b2[2] + w3 * b3[2]);
            k++;
        }
    }
    if (!closed) out[k++] = points[n - 1];
    return k;
}

int wire_curve_end(const CONTROL_POINT *control, int npts, int start)
{
    for (int i = start; i < npts; i++)
        if (control[i].color == 0) return i + 1;
    return npts;
}

static float distance3d(POINT3D a, POINT3D b)
{
    float dx = a.x - b.x, dy = a.y - b.y, dz = a.z - b.z;
    return sqrtf(dx * dx + dy * dy + dz * dz);
}

int wire_curve_is_closed(const CONTROL_POINT *curve, int n)
{
    return n >= 4 && distance3d(curve[n - 1].point, curve[0].point) <= WIRE_CLOSE_DISTANCE;
}

int wire_curve_plane(const CONTROL_POINT *curve, int n, int *slice)
{
    static const int kinds[3] = {0, 2, 3};
    for (int kind : kinds) {
        int h, v, axis;
        plane_axes_of_kind(kind, &h, &v, &axis);
        POINT3D first = curve[0].point;
        float s = floorf(*axis_of(&first, axis) + 0.5f);
        int on_slice = 1;
        for (int i = 0; i < n && on_slice; i++) {
            POINT3D p = curve[i].point;
            on_slice = fabsf(*axis_of(&p, axis) - s) < 0.01f;
        }
        if (on_slice) {
            *slice = (int)s;
            return kind;
        }
    }
    return -1;
}

int close_wire_curve(CONTROL_POINT *curve, int n, float distance)
{
    if (n <= 0) return 0;
    int closed = n >= 4 && distance3d(curve[n - 1].point, curve[0].point) <= distance;
    if (closed) curve[n - 1].point = curve[0].point;
    curve[n - 1].color = 0;
    return closed;
}

/* Fills one closed curve (n points, the last only closing it) on its slice; 0 when it lies in
   no plane. */
static int fill_wire_curve(const CONTROL_POINT *curve, int n)
{
    int slice, plane = wire_curve_plane(curve, n, &slice);
    if (plane < 0) return 0;
    int m = n - 1;
    POINT3D *points = point3d_vector(m);
    for (int i = 0; i < m; i++) points[i] = curve[i].point;
    int count = curve_sample_count(m, 1, WIRE_CURVE_STEPS);
    POINT3D *samples = point3d_vector(count);
    sample_curve(points, m, 1, WIRE_CURVE_STEPS, samples);
    POINT2D *outline = (POINT2D *)malloc(sizeof(POINT2D) * (size_t)count);
    if (outline == NULL) alloc_error("allocation failure in fill_closed_wires()");
    int h, v, axis;
    plane_axes_of_kind(plane, &h, &v, &axis);
    for (int k = 0; k < count; k++) {
        outline[k].x = *axis_of(&samples[k], h);
        outline[k].y = *axis_of(&samples[k], v);
    }
    fill_outline_in_slice(outline, count, plane, slice, 1.0f, ovl_root.color);
    free(outline);
    free_point3d_vector(samples);
    free_point3d_vector(points);
    return 1;
}

int fill_closed_wires(void)
{
    int filled = 0;
    for (int start = 0, end; start < wire_root.npts; start = end) {
        end = wire_curve_end(wire_root.control, wire_root.npts, start);
        const CONTROL_POINT *curve = wire_root.control + start;
        if (wire_curve_is_closed(curve, end - start)) filled += fill_wire_curve(curve, end - start);
    }
    if (filled > 0) {
        update_root_overlay(1);
        update_image_and_graph(1);
    }
    char line[1024];
    snprintf(line, sizeof line, "%d closed wire-frame%s filled into the overlay", filled, filled == 1 ? "" : "s");
    show_on_info_line(line, "", filled == 0 ? "(a wire is closed when its last point is near its first)" : "");
    return filled;
}

void action_mirror_wires(void)
{
    float last_x = (float)(mosaic.stack->dim.x - 1);
    for (int i = 0; i < wire_root.npts; i++) wire_root.control[i].point.x = last_x - wire_root.control[i].point.x;
}

int activation_shows(float map, float low, int scheme, int sign)
{
    if (scheme == 0) return fabsf(map * (float)sign) > low;
    if (scheme < 0) return -map > low;
    return map > low;
}

int select_activated_region(const float *map, IPOINT3D seed, float low, int scheme, int sign, short color)
{
    IPOINT3D d = mosaic.stack->dim;
    if (seed.x < 0 || seed.x >= d.x || seed.y < 0 || seed.y >= d.y || seed.z < 0 || seed.z >= d.z) return 0;
    int n3d = d.x * d.y * d.z;
    int first = (seed.z * d.y + seed.y) * d.x + seed.x;
    if (!activation_shows(map[first], low, scheme, sign)) return 0;
    unsigned char *seen = unsigned_char_vector(n3d);
    memset(seen, 0, (size_t)n3d);
    int *queue = int_vector(n3d);
    int head = 0, tail = 0;
    queue[tail++] = first;
    seen[first] = 1;
    while (head < tail) {
        int i = queue[head++];
        set_map(i, 1.0f, color);
        int x = i % d.x, y = (i / d.x) % d.y, z = i / (d.x * d.y);
        const int step[6][3] = {{-1, 0, 0}, {1, 0, 0}, {0, -1, 0}, {0, 1, 0}, {0, 0, -1}, {0, 0, 1}};
        for (const int *s : step) {
            int nx = x + s[0], ny = y + s[1], nz = z + s[2];
            if (nx < 0 || nx >= d.x || ny < 0 || ny >= d.y || nz < 0 || nz >= d.z) continue;
            int j = (nz * d.y + ny) * d.x + nx;
            if (seen[j] || !activation_shows(map[j], low, scheme, sign)) continue;
            seen[j] = 1;
            queue[tail++] = j;
        }
    }
    free_int_vector(queue);
    free_unsigned_char_vector(seen);
    return tail;
}
