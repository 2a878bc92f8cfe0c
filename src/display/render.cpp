/* Image rendering without X11: every pixel of the image area comes from image_pixel, fed by the
   neighbourhood tables of the plane kinds. Reads mosaic, overlay_map, image_scale_*,
   act_scale_*; writes image_scale_slope/offset and mosaic.Neighbors* / OnGrid*. */
#include "render.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "globals.h"
#include "numerics.h"
#include "threads.h"
#include "volume.h"

static unsigned long rgb(int red, int green, int blue)
{
    return (unsigned long)red * 65536ul + (unsigned long)green * 256ul + (unsigned long)blue;
}

/* Truncation towards zero of a value that may be out of range or not a number. */
static int safe_trunc(float v, int lo, int hi)
{
    if (!(v == v)) return lo;
    if (v <= (float)lo) return lo;
    if (v >= (float)hi) return hi;
    return (int)v;
}

/* The unsigned colour index of x: below the low threshold 0, above the high one the top. */
static int activation_index(float x, int top)
{
    if (x > get_activation_threshold(1)) return top;
    if (x < get_activation_threshold(-1)) return 0;
    float k = act_scale_slope * x + act_scale_offset;
    if (!(k >= 0.0f)) return 0;
    if (k >= (float)top) return top;
    return (int)(unsigned int)k;
}

unsigned long activation_color_scheme0(float x)
{
    int k = activation_index(fabsf(x), 383);
    if (x >= 0.0f) {
        if (k <= 127) return rgb(k + 128, 0, 0);
        return rgb(255, k - 128, 0);
    }
    if (k <= 127) return rgb(0, 0, k + 128);
    return rgb(0, k - 128, 383 - k);
}

unsigned long activation_color_scheme1(float x)
{
    int k = activation_index(x, 511);
    int red = k < 255 ? k : 255;
    int green = k >= 256 ? k - 256 : 0;
    int blue = k < 256 ? 255 - k : 0;
    return rgb(red, green, blue);
}

unsigned long activation_color_scheme2(float x)
{
    int k = activation_index(x, 1279);
    if (k < 256) return rgb(255 - k, 0, 255);
    if (k < 512) return rgb(0, k - 256, 255);
    if (k < 768) return rgb(0, 255, 767 - k);
    if (k < 1024) return rgb(k - 768, 255, 0);
    return rgb(255, 1279 - k, 0);
}

float get_activation_threshold(int low_or_high)
{
    Activation *a = &mosaic.activation;
    if (a->scale_log) return low_or_high == -1 ? a->thresh_log_low : a->thresh_log_high;
    return low_or_high == -1 ? a->thresh_lin_low : a->thresh_lin_high;
}

void set_activation_threshold(int low_or_high, float value)
{
    Activation *a = &mosaic.activation;
    if (low_or_high == -1 && value < 0.0f && (a->scale_log || a->color_scheme != 0)) value = 0.0f;
    if (a->scale_log) {
        if (low_or_high == -1) a->thresh_log_low = value;
        else a->thresh_log_high = value;
    } else {
        if (low_or_high == -1) a->thresh_lin_low = value;
        else a->thresh_lin_high = value;
    }
}

/* Tint v of the grey g with weight w kept for the grey. */
static int blend(int g, float w)
{
    float v = (float)g * w + 255.0f * (1.0f - w);
    return safe_trunc(v, 0, 255);
}

unsigned long image_pixel(float data, float map, float ovl, float cross, float proj, int ovl_color)
{
    int g = safe_trunc(image_scale_slope * data + image_scale_offset, 0, 255);
    if (data < image_scale_min) g = 0;
    if (data > image_scale_max) g = 255;

    Activation *a = &mosaic.activation;
    float m = a->color_scheme == 0 ? map * (float)a->color_sign : map;
    float low = get_activation_threshold(-1);
    int activated = 0;
    if (a->visible) {
        if (a->color_scheme == 0) activated = fabsf(m) > low;
        else if (a->color_scheme < 0) activated = -m > low;
        else activated = m > low;
    }

    unsigned long pixel;
    if (proj != 0.0f) {
        float w = 1.0f - proj < 1.0f ? 1.0f - proj : 1.0f;
        int v = blend(g, w);
        pixel = rgb(v, v, 0);
    } else if (ovl != 0.0f) {
        float w = mosaic.transparent_overlay ? 0.85f : (1.0f - ovl < 1.0f ? 1.0f - ovl : 1.0f);
        int v = blend(g, w);
        switch (ovl_color) {
        case 1: pixel = rgb(0, v, v); break;
        case 2: pixel = rgb(v, 0, 0); break;
        case 3: pixel = rgb(0, v, 0); break;
        case 4: pixel = rgb(0, 0, v); break;
        case 5: pixel = rgb(v, v, v); break;
        case 6: pixel = rgb(v, 0, v); break;
        case 7: pixel = rgb(v, v, 0); break;
        default: pixel = rgb(v, v / 2, 0); break;
        }
    } else if (!activated) {
        pixel = (unsigned long)g * 65793ul;
    } else {
        switch (a->color_scheme) {
        case 0: pixel = activation_color_scheme0(m); break;
        case 1: pixel = activation_color_scheme1(m); break;
        case -1: pixel = activation_color_scheme1(-m); break;
        case 2: pixel = activation_color_scheme2(m); break;
        case -2: pixel = activation_color_scheme2(-m); break;
        default: pixel = 0; break;
        }
    }

    if (mosaic.display_crosshairs == 1 && cross != 0.0f) {
        float w = mosaic.transparent_overlay ? 0.85f : (1.0f - cross < 1.0f ? 1.0f - cross : 1.0f);
        int v = blend(g, w);
        pixel = rgb(0, v, v);
    }
    return pixel;
}

/* ---- neighbourhoods ---- */

/* Horizontal and vertical volume axes of a plane kind: 0 x, 1 y, 2 z. */
static const int plane_h_axis[4] = {0, 2, 0, 1};
static const int plane_v_axis[4] = {1, 1, 2, 2};

static int axis_of(IPOINT3D p, int axis) { return axis == 0 ? p.x : (axis == 1 ? p.y : p.z); }
static float axis_of(POINT3D p, int axis) { return axis == 0 ? p.x : (axis == 1 ? p.y : p.z); }

static Neighborhood **neighborhood_slot(int which_slice)
{
    switch (which_slice) {
    case 0: return &mosaic.NeighborsXY;
    case 1: return &mosaic.NeighborsZY;
    case 2: return &mosaic.NeighborsXZ;
    default: return &mosaic.NeighborsYZ;
    }
}

static int *ongrid_slot(int which_slice)
{
    switch (which_slice) {
    case 0: return &mosaic.OnGridXY;
    case 1: return &mosaic.OnGridZY;
    case 2: return &mosaic.OnGridXZ;
    default: return &mosaic.OnGridYZ;
    }
}

static int zoom_factor(void) { return mosaic.zoom > 1 ? mosaic.zoom : 1; }

IPOINT2D neighborhood_size(int which_slice)
{
    int z = zoom_factor();
    IPOINT2D s;
    s.x = axis_of(mosaic.PixelDim, plane_h_axis[which_slice]) * z;
    s.y = axis_of(mosaic.PixelDim, plane_v_axis[which_slice]) * z;
    return s;
}

/* Lower and upper voxel of a fractional position along an axis of n voxels, wrapped, with
   their Lanczos(2) weights; returns 1 when the position is whole (one voxel). */
static int axis_neighbors(float p, int n, int index[2], float weight[2])
{
    float lo = floorf(p), hi = ceilf(p);
    for (int i = 0; i < 2; i++) {
        int k = (int)(i == 0 ? lo : hi);
        float d = fabsf(p - (i == 0 ? lo : hi));
        if (d > (float)(n / 2)) d = fabsf((float)n - d);
        if (k < 0) k += n;
        if (k >= n) k -= n;
        index[i] = k;
        weight[i] = Lanczos_filter(2, d);
    }
    return lo == hi;
}

void create_neighborhood(int which_slice)
{
    int hax = plane_h_axis[which_slice], vax = plane_v_axis[which_slice];
    int nh = axis_of(mosaic.stack->dim, hax), nv = axis_of(mosaic.stack->dim, vax);
    float rh = axis_of(mosaic.PixelResolution, hax), rv = axis_of(mosaic.PixelResolution, vax);
    int zoom = zoom_factor();
    IPOINT2D size = neighborhood_size(which_slice);

    invert_neighborhood(which_slice);
    size_t count = (size_t)(size.x > 0 ? size.x : 0) * (size_t)(size.y > 0 ? size.y : 0);
    Neighborhood *nb = (Neighborhood *)calloc(count > 0 ? count : 1, sizeof(Neighborhood));
    if (nb == NULL) alloc_error("allocation failure in create_neighborhood()");

    int ongrid = 1;
    for (int jy = 0; jy < size.y; jy++) {
        float pv = mosaic.interpolate ? ((float)jy + 0.5f) / (float)zoom - 0.5f : (float)(jy / zoom);
        pv /= rv;
        int iv[2];
        float wv[2];
        int whole_v = axis_neighbors(pv, nv, iv, wv);
        for (int jx = 0; jx < size.x; jx++) {
            float ph = mosaic.interpolate ? ((float)jx + 0.5f) / (float)zoom - 0.5f : (float)(jx / zoom);
            ph /= rh;
            int ih[2];
            float wh[2];
            int whole_h = axis_neighbors(ph, nh, ih, wh);
            Neighborhood *e = &nb[(size_t)jy * size.x + jx];
            if (whole_h && whole_v) {
                e->number = 1;
                e->address[0] = {ih[0], iv[0]};
                e->weight[0] = 1.0f;
            } else if (whole_v) {
                e->number = 2;
                for (int i = 0; i < 2; i++) { e->address[i] = {ih[i], iv[0]}; e->weight[i] = wh[i]; }
            } else if (whole_h) {
                e->number = 2;
                for (int i = 0; i < 2; i++) { e->address[i] = {ih[0], iv[i]}; e->weight[i] = wv[i]; }
            } else {
                e->number = 4;
                for (int j = 0; j < 2; j++)
                    for (int i = 0; i < 2; i++) {
                        e->address[2 * j + i] = {ih[i], iv[j]};
                        e->weight[2 * j + i] = wh[i] * wv[j];
                    }
            }
            float sum = 0.0f;
            for (int i = 0; i < e->number; i++) sum += e->weight[i];
            if (sum != 0.0f)
                for (int i = 0; i < e->number; i++) e->weight[i] /= sum;
            if (e->number != 1) ongrid = 0;
            /* Panels shown bottom-up read their rows from the top of the volume. */
            if (mosaic.flip_X11_y)
                for (int i = 0; i < e->number; i++) e->address[i].y = nv - 1 - e->address[i].y;
        }
    }
    *neighborhood_slot(which_slice) = nb;
    *ongrid_slot(which_slice) = ongrid;
}

void invert_neighborhood(int which_slice)
{
    Neighborhood **slot = neighborhood_slot(which_slice);
    if (*slot != NULL) free(*slot);
    *slot = NULL;
    *ongrid_slot(which_slice) = 0;
}

void create_neighorhoods(void)
{
    for (int k = 0; k < 4; k++) invert_neighborhood(k);
    if (mosaic.display_3orthogonal) {
        create_neighborhood(0);
        create_neighborhood(2);
        create_neighborhood(mosaic.display_ortho_ZY ? 1 : 3);
    } else {
        int o = mosaic.mosaic_orientation;
        create_neighborhood(o >= 0 && o <= 3 ? o : 0);
    }
}

/* ---- pixels ---- */

static IPOINT3D plane_voxel(int which_slice, int h, int v, int slice)
{
    switch (which_slice) {
    case 0: return {h, v, slice};
    case 1: return {slice, v, h};
    case 2: return {h, slice, v};
    default: return {slice, h, v};
    }
}

static int on_crosshair(int which_slice, IPOINT3D p)
{
    IPOINT3D c = mosaic.icross;
    switch (which_slice) {
    case 0: return p.x == c.x || p.y == c.y;
    case 1: return p.z == c.z || p.y == c.y;
    case 2: return p.x == c.x || p.z == c.z;
    default: return p.y == c.y || p.z == c.z;
    }
}

unsigned long interpolate_2d(const Neighborhood *nb, int which_slice, int slice)
{
    data_stack *s = mosaic.stack;
    const float *map = (mosaic.activation.imap != 0) ? mosaic.activation.fSpaceMatrix : NULL;
    const float *ovl_weight = overlay_map.weight;
    float data = 0.0f, act = 0.0f, ovl = 0.0f, cross = 0.0f;
    int ovl_color = 0;
    float best = -1.0f;
    for (int i = 0; i < nb->number; i++) {
        IPOINT3D p = plane_voxel(which_slice, nb->address[i].x, nb->address[i].y, slice);
        int index = (p.z * s->dim.y + p.y) * s->dim.x + p.x;
        float w = nb->weight[i];
        data += w * mosaic_data_1d(index);
        if (map != NULL) act += w * map[index];
        if (ovl_weight != NULL && ovl_weight[index] != 0.0f) {
            ovl += w * ovl_weight[index];
            /* The colour of an edge pixel is the one of its heaviest overlay neighbour. */
            if (w > best) { best = w; ovl_color = overlay_map.color[index]; }
        }
        if (mosaic.display_crosshairs == 1 && on_crosshair(which_slice, p)) cross += w;
    }
    return image_pixel(data, act, ovl, cross, 0.0f, ovl_color);
}

void prepare_image_display(void)
{
    static int last_zoom = -1, last_interpolate = -1, last_3orthogonal = -1, last_ortho_ZY = -1;
    static int last_orientation = -1, last_flip = -1;
    static IPOINT3D last_pixel_dim = {-1, -1, -1}, last_grid = {-1, -1, -1};
    static data_stack *last_stack = NULL;

    image_scale_slope = 255.0f / (image_scale_max - image_scale_min);
    image_scale_offset = 255.0f - image_scale_slope * image_scale_max;

    /* The tables hold voxel addresses, so they follow the grid in force as well as the
       on-screen size: a resolution change can keep the one and change the other. */
    IPOINT3D d = mosaic.PixelDim, g = mosaic.stack->dim;
    if (mosaic.zoom != last_zoom || mosaic.interpolate != last_interpolate ||
        mosaic.display_3orthogonal != last_3orthogonal || mosaic.display_ortho_ZY != last_ortho_ZY ||
        mosaic.mosaic_orientation != last_orientation || mosaic.flip_X11_y != last_flip ||
        d.x != last_pixel_dim.x || d.y != last_pixel_dim.y || d.z != last_pixel_dim.z ||
        g.x != last_grid.x || g.y != last_grid.y || g.z != last_grid.z || mosaic.stack != last_stack) {
        create_neighorhoods();
        last_zoom = mosaic.zoom;
        last_interpolate = mosaic.interpolate;
        last_3orthogonal = mosaic.display_3orthogonal;
        last_ortho_ZY = mosaic.display_ortho_ZY;
        last_orientation = mosaic.mosaic_orientation;
        last_flip = mosaic.flip_X11_y;
        last_pixel_dim = d;
        last_grid = g;
        last_stack = mosaic.stack;
    }
}

static int clamp_index(int v, int n) { return v < 0 ? 0 : (v >= n ? n - 1 : v); }

/* What a plain pixel needs: one voxel of magnitude data, no activation map, no crosshair of
   style 1, and an activation test that fails for a map value of 0. Such a pixel is the grey of
   its voxel, as image_pixel makes it; the others go through interpolate_2d. */
struct grey_path {
    int on;
    const float *data;
    const float *ovl_weight;
    IPOINT3D dim;
};

static grey_path plain_pixels(void)
{
    grey_path g = {0, NULL, overlay_map.weight, mosaic.stack->dim};
    Activation *a = &mosaic.activation;
    float low = get_activation_threshold(-1);
    int activated_at_zero = a->visible && (a->color_scheme == 0 ? 0.0f > low : (a->color_scheme < 0 ? -0.0f > low : 0.0f > low));
    g.on = mosaic.stack->data_type == 0 && a->imap == 0 && mosaic.display_crosshairs != 1 && !activated_at_zero;
    g.data = mosaic.fSpaceMatrix;
    return g;
}

/* image_pixel's grey of a value that the neighbourhood summed as 0 + 1 * v. */
static inline unsigned int grey_pixel(float v)
{
    float data = 0.0f + 1.0f * v;
    int g = safe_trunc(image_scale_slope * data + image_scale_offset, 0, 255);
    if (data < image_scale_min) g = 0;
    if (data > image_scale_max) g = 255;
    return (unsigned int)g * 65793u;
}

/* One row of a plane's pixels: the neighbourhoods nb[0 .. n-1] of plane kind which_slice at
   slice `slice`, into out[0 .. n-1]. */
static void plane_row(const grey_path &g, const Neighborhood *nb, int n, int which_slice, int slice,
                      unsigned int *out)
{
    for (int jx = 0; jx < n; jx++) {
        const Neighborhood *e = &nb[jx];
        if (g.on && e->number == 1) {
            IPOINT3D p = plane_voxel(which_slice, e->address[0].x, e->address[0].y, slice);
            int index = (p.z * g.dim.y + p.y) * g.dim.x + p.x;
            if ((unsigned)index < (unsigned)(g.dim.x * g.dim.y * g.dim.z) &&
                (g.ovl_weight == NULL || g.ovl_weight[index] == 0.0f)) {
                out[jx] = grey_pixel(g.data[index]);
                continue;
            }
        }
        out[jx] = (unsigned int)interpolate_2d(e, which_slice, slice);
    }
}

void make_mosaic_images(unsigned int *pixels)
{
    int W = mosaic.ImageRegionPixels.x, H = mosaic.ImageRegionPixels.y;
    int o = mosaic.mosaic_orientation;
    if (o < 0 || o > 3) o = 0;
    const Neighborhood *nb = *neighborhood_slot(o);
    IPOINT2D size = neighborhood_size(o);
    int zoom = zoom_factor();
    int cols = mosaic.DimPanels.x > 0 ? mosaic.DimPanels.x : 1;
    int rows = mosaic.DimPanels.y > 0 ? mosaic.DimPanels.y : 1;
    int slice_axis = (o == 0) ? 2 : (o == 2 ? 1 : 0);
    int nslices = axis_of(mosaic.stack->dim, slice_axis);

    /* Slices in panel order. */
    int *panel_slice = (int *)malloc(sizeof(int) * (size_t)(nslices > 0 ? nslices : 1));
    if (panel_slice == NULL) alloc_error("allocation failure in make_mosaic_images()");
    int npanels = 0;
    for (int k = 0; k < nslices; k++)
        if (mosaic.display_slice == NULL || mosaic.display_slice[k]) panel_slice[npanels++] = k;

    const grey_path g = plain_pixels();
    int step_x = size.x + zoom, step_y = size.y + zoom;
    parallel_ranges(H, [&](int first, int last) {
        for (int py = first; py < last; py++) {
            unsigned int *row_out = pixels + (size_t)py * W;
            memset(row_out, 0, sizeof(unsigned int) * (size_t)W);
            int r = py / step_y, jy = py - r * step_y - zoom;
            if (nb == NULL || jy < 0 || jy >= size.y || r >= rows) continue;
            /* each panel of the row: its pixels from x = c * step_x + zoom on */
            for (int c = 0; c < cols; c++) {
                int panel = r * cols + c, x0 = c * step_x + zoom;
                if (panel >= npanels || x0 >= W) break;
                int n = size.x < W - x0 ? size.x : W - x0;
                plane_row(g, &nb[(size_t)jy * size.x], n, o, panel_slice[panel], row_out + x0);
            }
        }
    });
    free(panel_slice);
}

void make_orthogonal_images(unsigned int *pixels)
{
    int W = mosaic.ImageRegionPixels.x, H = mosaic.ImageRegionPixels.y;
    int zoom = zoom_factor();
    IPOINT3D D = mosaic.PixelDim;
    IPOINT3D dim = mosaic.stack->dim;
    IPOINT3D c = {clamp_index(mosaic.icross.x, dim.x), clamp_index(mosaic.icross.y, dim.y),
                  clamp_index(mosaic.icross.z, dim.z)};
    int right_kind = mosaic.display_ortho_ZY ? 1 : 3;
    struct plane { int kind, x0, y0, slice; IPOINT2D size; const Neighborhood *nb; };
    plane planes[3] = {
        {0, zoom, zoom, c.z, neighborhood_size(0), mosaic.NeighborsXY},
        {2, zoom, (D.y + 2) * zoom, c.y, neighborhood_size(2), mosaic.NeighborsXZ},
        {right_kind, (D.x + 2) * zoom, right_kind == 1 ? zoom : (D.y + 2) * zoom, c.x,
         neighborhood_size(right_kind), right_kind == 1 ? mosaic.NeighborsZY : mosaic.NeighborsYZ},
    };
    const grey_path g = plain_pixels();
    parallel_ranges(H, [&](int first, int last) {
        for (int py = first; py < last; py++) {
            unsigned int *row_out = pixels + (size_t)py * W;
            memset(row_out, 0, sizeof(unsigned int) * (size_t)W);
            for (const plane &p : planes) {
                int jy = py - p.y0;
                if (p.nb == NULL || jy < 0 || jy >= p.size.y || p.x0 >= W) continue;
                int n = p.size.x < W - p.x0 ? p.size.x : W - p.x0;
                plane_row(g, &p.nb[(size_t)jy * p.size.x], n, p.kind, p.slice, row_out + p.x0);
            }
        }
    });
}

void render_image_area(unsigned int *pixels)
{
    if (mosaic.display_3orthogonal) make_orthogonal_images(pixels);
    else make_mosaic_images(pixels);
}
