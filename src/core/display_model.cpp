/* The geometry of the image window without X11: display order, panels, window size, the
   region test and the two-way conversion between window pixels and voxels, the crosshair
   reset and the grey window. Reads and writes mosaic, the grey-window globals and
   overlay_map / ovl_root (clearing only). No X11; the graph redraw goes through a hook. */
#include "display_model.h"

#include <cmath>
#include <cstdlib>

#include "display_hooks.h"
#include "globals.h"
#include "volume.h"

/* Data extrema of the last scan of rescale_image(1), reused when only the contrast moves. */
static float scanned_min = 0.0f, scanned_max = 1.0f;

static int max_int(int a, int b) { return a > b ? a : b; }

/* No screen is this many pixels wide: a panel stretched beyond it (extreme voxel-size ratios)
   is held here, so the window sums stay in range and the window is refused as too big. */
static const int largest_panel_pixels = 1 << 20;

/* Pixels at zoom 1 for `n` voxels stretched by `r`, rounded up when not whole; at most
   largest_panel_pixels (also for a stretch that is not a number). */
static int pixels_for(float r, int n)
{
    float f = r * (float)n;
    if (!(f < (float)largest_panel_pixels)) return largest_panel_pixels;
    int i = (int)f;
    return (float)i == f ? i : i + 1;
}

/* Panel width and height (zoom 1) and the in-panel pixel resolutions of a mosaic orientation. */
static void panel_axes(int orientation, int *hw, int *vh, float *res_h, float *res_v)
{
    IPOINT3D d = mosaic.PixelDim;
    POINT3D r = mosaic.PixelResolution;
    switch (orientation) {
    case 1: *hw = d.z; *vh = d.y; *res_h = r.z; *res_v = r.y; break;
    case 2: *hw = d.x; *vh = d.z; *res_h = r.x; *res_v = r.z; break;
    case 3: *hw = d.y; *vh = d.z; *res_h = r.y; *res_v = r.z; break;
    default: *hw = d.x; *vh = d.y; *res_h = r.x; *res_v = r.y; break;
    }
}

/* Mosaic slice shown by panel number `panel` (counting shown slices in order), or -1. */
static int slice_of_panel(int panel)
{
    int count = 0;
    for (int k = 0; k < mosaic.n_display_slice; k++)
        if (mosaic.display_slice[k]) {
            if (count == panel) return k;
            count++;
        }
    return -1;
}

/* Derives the display order, pixel sizes, shown slices, panels, image area and colour bar of
   the displayed stack, and returns the window size (image area + colour bar + right panel
   wide, image area + 75 high). RoughDisplaySize, when not null, receives the image area. */
IPOINT2D compute_display_size(IPOINT2D *RoughDisplaySize)
{
    static int last_orientation = -1;
    static IPOINT3D last_dim = {-1, -1, -1};
    data_stack *s = mosaic.stack;
    int nx = s->dim.x, ny = s->dim.y, nz = s->dim.z;
    float rx = s->resolution.x, ry = s->resolution.y, rz = s->resolution.z;
    float p;

    if (mosaic.display_3orthogonal) {
        mosaic.DisplayVolumeDim = {nx, ny, nz};
        mosaic.DisplayVolumeRes = {rx, ry, rz};
        p = fminf(rx, fminf(ry, rz));
    } else {
        switch (mosaic.mosaic_orientation) {
        case 1:
            mosaic.DisplayVolumeDim = {nz, ny, nx};
            mosaic.DisplayVolumeRes = {rz, ry, rx};
            p = fminf(rz, ry);
            break;
        case 2:
            mosaic.DisplayVolumeDim = {nx, nz, ny};
            mosaic.DisplayVolumeRes = {rx, rz, ry};
            p = fminf(rx, rz);
            break;
        case 3:
            mosaic.DisplayVolumeDim = {ny, nz, nx};
            mosaic.DisplayVolumeRes = {ry, rz, rx};
            p = fminf(ry, rz);
            break;
        default:
            mosaic.DisplayVolumeDim = {nx, ny, nz};
            mosaic.DisplayVolumeRes = {rx, ry, rz};
            p = fminf(rx, ry);
            break;
        }
    }

    mosaic.PixelResolution = {rx / p, ry / p, rz / p};
    mosaic.PixelDim = {pixels_for(mosaic.PixelResolution.x, nx), pixels_for(mosaic.PixelResolution.y, ny),
                       pixels_for(mosaic.PixelResolution.z, nz)};

    int nslices = mosaic.DisplayVolumeDim.z;
    IPOINT3D d = mosaic.DisplayVolumeDim;
    if (mosaic.display_slice == NULL || mosaic.mosaic_orientation != last_orientation || d.x != last_dim.x ||
        d.y != last_dim.y || d.z != last_dim.z) {
        last_orientation = mosaic.mosaic_orientation;
        last_dim = d;
        free(mosaic.display_slice);
        mosaic.display_slice = (int *)calloc((size_t)(nslices > 0 ? nslices : 1), sizeof(int));
        mosaic.n_display_slice = nslices;
        for (int k = 0; k < nslices; k++) mosaic.display_slice[k] = 1;
        if (mosaic.DimPanels.z <= 0 || mosaic.DimPanels.z > nslices) mosaic.DimPanels.z = nslices;
        int n = mosaic.DimPanels.z;
        if (n < nslices) {
            int first = nslices / 2 - n / 2;
            int last = n % 2 == 0 ? nslices / 2 + n / 2 - 1 : nslices / 2 + n / 2;
            for (int k = 0; k < nslices; k++) mosaic.display_slice[k] = (k >= first && k <= last);
        }
    }
    if (mosaic.DimPanels.z <= 0 || mosaic.DimPanels.z > nslices) mosaic.DimPanels.z = nslices;

    if (mosaic.DimPanels.x == 0)
        automatically_set_panels(mosaic.DimPanels.z, &mosaic.DimPanels.x, &mosaic.DimPanels.y);
    else
        mosaic.DimPanels.y = (mosaic.DimPanels.z + mosaic.DimPanels.x - 1) / mosaic.DimPanels.x;

    int Z = max_int(1, mosaic.zoom);
    IPOINT3D D = mosaic.PixelDim;
    if (mosaic.display_3orthogonal) {
        int second = mosaic.display_ortho_ZY ? D.z : D.y;
        mosaic.ImageRegionPixels.x = (D.x + 3 + second) * Z;
        mosaic.ImageRegionPixels.y = (D.y + 3 + D.z) * Z;
    } else {
        int hw, vh;
        float rh, rv;
        panel_axes(mosaic.mosaic_orientation, &hw, &vh, &rh, &rv);
        int cols = mosaic.DimPanels.x, rows = mosaic.DimPanels.y;
        mosaic.ImageRegionPixels.x = (cols * hw + cols + 1) * Z;
        mosaic.ImageRegionPixels.y = (rows * vh + rows + 1) * Z;
    }

    if (mosaic.activation.imap == 0)
        mosaic.nx_ColorBar = 0;
    else {
        int w = mosaic.ImageRegionPixels.x / 8;
        mosaic.nx_ColorBar = w < 50 ? 50 : (w > 100 ? 100 : w);
    }

    if (RoughDisplaySize != NULL) *RoughDisplaySize = mosaic.ImageRegionPixels;
    IPOINT2D size = {mosaic.ImageRegionPixels.x + mosaic.nx_ColorBar + mosaic.nx_RightPanel,
                     mosaic.ImageRegionPixels.y + 75};
    return size;
}

/* Columns and rows of a mosaic of `nslices` panels, by the fixed table; the first matching
   row wins. Deliberate: above 225 panels the grid stays 16 x 16, so panels beyond 256 are not
   placed. Pinned by AutomaticallySetPanels.TableRowsAndTheLastRow. */
void automatically_set_panels(int nslices, int *nx, int *ny)
{
    int n = nslices, c, r;
    if (n == 1) { c = 1; r = 1; }
    else if (n == 2) { c = 2; r = 1; }
    else if (n == 3) { c = 3; r = 1; }
    else if (n == 4) { c = 2; r = 2; }
    else if (n < 1 || n <= 6) { c = 3; r = 2; }
    else if (n <= 8) { c = 4; r = 2; }
    else if (n == 9) { c = 3; r = 3; }
    else if (n == 10) { c = 5; r = 2; }
    else if (n <= 12) { c = 4; r = 3; }
    else if (n <= 15) { c = 5; r = 3; }
    else if (n == 16) { c = 4; r = 4; }
    else if (n == 18) { c = 6; r = 3; }
    else if (n <= 20) { c = 5; r = 4; }
    else if (n == 21) { c = 7; r = 3; }
    else if (n <= 24) { c = 6; r = 4; }
    else if (n == 25) { c = 5; r = 5; }
    else if (n <= 28) { c = 7; r = 4; }
    else if (n <= 30) { c = 6; r = 5; }
    else if (n <= 36) { c = 6; r = 6; }
    else if (n <= 40) { c = 8; r = 5; }
    else if (n <= 42) { c = 7; r = 6; }
    else if (n <= 48) { c = 8; r = 6; }
    else if (n == 49) { c = 7; r = 7; }
    else if (n <= 56) { c = 8; r = 7; }
    else if (n <= 64) { c = 8; r = 8; }
    else if (n <= 81) { c = 9; r = 9; }
    else if (n <= 100) { c = 10; r = 10; }
    else if (n <= 108) { c = 12; r = 9; }
    else if (n <= 121) { c = 11; r = 11; }
    else if (n <= 128) { c = 16; r = 8; }
    else if (n <= 144) { c = 12; r = 12; }
    else if (n <= 169) { c = 13; r = 13; }
    else if (n <= 196) { c = 14; r = 14; }
    else if (n <= 225) { c = 15; r = 15; }
    else { c = 16; r = 16; }
    *nx = c;
    *ny = r;
}

/* An active menu item of `row` (0, 1 top; 2 bottom) under (x, y_in_row), or null. Items of
   field 4 are inert for real data, of field 2 while overlays are off. */
static SelectableText *menu_item_at(int row, int x, int y_in_row)
{
    if (y_in_row < 1 || y_in_row > 14) return NULL;
    for (SelectableText *t = mosaic.SelectText; t != NULL; t = t->next) {
        if (t->row != row || x < t->x || x >= t->x + t->width) continue;
        if (t->field == 4 && (mosaic.stack == NULL || mosaic.stack->data_type == 0)) continue;
        if (t->field == 2 && mosaic.toggle_overlays == 0) continue;
        return t;
    }
    return NULL;
}

static void select_menu_item(SelectableText *t)
{
    if (t == NULL) {
        mosaic.cursor_selection |= 8;
        return;
    }
    mosaic.cursor_selection |= 4;
    mosaic.text_selection = t->bit;
    t->selected = 1;
}

/* Adds to cursor_selection (and text_selection) the bits of the window region under (x, y):
   menu bands, image area (through CursorSelection_OnImageWindow), colour bar, right panel. */
void define_mosaic_cursor_location(int x, int y)
{
    int area_bottom = mosaic.ImageRegionPixels.y + 30;
    if (y < 30) {
        if (y >= 1 && y <= 14) select_menu_item(menu_item_at(0, x, y));
        else if (y >= 16 && y <= 29) select_menu_item(menu_item_at(1, x, y - 15));
        else mosaic.cursor_selection |= 8;
    } else if (y < area_bottom) {
        if (x > mosaic.ImageRegionPixels.x + mosaic.nx_ColorBar)
            mosaic.cursor_selection |= 32;
        else if (x <= mosaic.ImageRegionPixels.x)
            CursorSelection_OnImageWindow(x, y);
        else {
            mosaic.cursor_selection |= 16;
            int Z = max_int(1, mosaic.zoom);
            mosaic.cursor_selection |= (y - 30 - Z < mosaic.ImageRegionPixels.y / 2) ? 2048 : 4096;
        }
    } else {
        select_menu_item(menu_item_at(2, x, y - area_bottom));
    }
}

/* Converts a pixel of the image area to the voxel under it: icursor (integer voxel), cursor
   (space coordinates, shifted by half a voxel) and the plane bits of cursor_selection
   (bit 2 on the volume, bit 8 elsewhere). */
void CursorSelection_OnImageWindow(int x2d, int y2d)
{
    int Z = max_int(1, mosaic.zoom);
    int h = (x2d - Z) / Z, v = (y2d - 30 - Z) / Z;
    float fh = (float)(x2d - Z) / (float)Z, fv = (float)(y2d - 30 - Z) / (float)Z;
    if (fh < 0.0f || fv < 0.0f) {
        mosaic.cursor_selection |= 8;
        return;
    }
    data_stack *s = mosaic.stack;
    IPOINT3D dim = s->dim;
    POINT3D R = mosaic.PixelResolution;
    IPOINT3D D = mosaic.PixelDim;
    POINT3D c = {0.0f, 0.0f, 0.0f};
    int plane = 0; /* 128 XY, 256 ZY, 512 XZ, 1024 YZ */

    if (!mosaic.display_3orthogonal) {
        int hw, vh, col = 0, row = 0;
        float rh, rv;
        panel_axes(mosaic.mosaic_orientation, &hw, &vh, &rh, &rv);
        while (h >= hw) { h -= hw + 1; fh -= (float)(hw + 1); col++; }
        while (v >= vh) { v -= vh + 1; fv -= (float)(vh + 1); row++; }
        mosaic.cursor_selection |= 64;
        float ph = fh / rh, pv = fv / rv;
        int slice = col < mosaic.DimPanels.x ? slice_of_panel(row * mosaic.DimPanels.x + col) : -1;
        float fs = (float)slice;
        switch (mosaic.mosaic_orientation) {
        case 1: c = {fs, pv, ph}; plane = 256; break;
        case 2: c = {ph, fs, pv}; plane = 512; break;
        case 3: c = {fs, ph, pv}; plane = 1024; break;
        default: c = {ph, pv, fs}; plane = 128; break;
        }
    } else {
        int right = 0, bottom = 0;
        if (h >= D.x) { h -= D.x + 1; fh -= (float)(D.x + 1); right = 1; }
        if (v >= D.y) { v -= D.y + 1; fv -= (float)(D.y + 1); bottom = 1; }
        if (!right && !bottom) {
            c = {fh / R.x, fv / R.y, (float)mosaic.icross.z};
            plane = 128;
        } else if (!right && bottom) {
            c = {fh / R.x, (float)mosaic.icross.y, fv / R.z};
            plane = 512;
        } else if (right && bottom) {
            plane = 1024;
            if (mosaic.display_ortho_ZY) mosaic.cursor_selection |= 8;
            else c = {(float)mosaic.icross.x, fh / R.y, fv / R.z};
        } else {
            plane = 256;
            if (mosaic.display_ortho_ZY) c = {(float)mosaic.icross.x, fv / R.y, fh / R.z};
            else mosaic.cursor_selection |= 8;
        }
    }
    mosaic.cursor_selection |= plane;

    IPOINT3D iv = {(int)floorf(c.x), (int)floorf(c.y), (int)floorf(c.z)};
    int inside = iv.x >= 0 && iv.x < dim.x && iv.y >= 0 && iv.y < dim.y && iv.z >= 0 && iv.z < dim.z;
    if (!(mosaic.cursor_selection & 8) && inside) mosaic.cursor_selection |= 2;
    else mosaic.cursor_selection |= 8;
    if (iv.x < 0 || iv.x >= dim.x) iv.x = 0;
    if (iv.y < 0 || iv.y >= dim.y) iv.y = 0;
    if (iv.z < 0 || iv.z >= dim.z) iv.z = 0;
    mosaic.icursor = iv;
    mosaic.cursor = c;

    if (mosaic.flip_X11_y) flip_vertical_CursorIndex();

    POINT3D space = Convert_rVoxel_to_Space(mosaic.cursor, s);
    int sel = mosaic.cursor_selection;
    if (sel & (128 | 512)) space.x -= s->resolution.x * s->direction.x / 2.0f;
    if (sel & (128 | 256 | 1024)) space.y -= s->resolution.y * s->direction.y / 2.0f;
    if (sel & (256 | 1024)) space.z -= s->resolution.z * s->direction.z / 2.0f;
    mosaic.cursor = space;
}

/* Vertical flip of icursor and of the fractional cursor: y on XY and ZY planes (integer
   ny - y - 1, fractional ny - y), z on XZ and YZ planes likewise. */
void flip_vertical_CursorIndex(void)
{
    IPOINT3D dim = mosaic.stack->dim;
    int sel = mosaic.cursor_selection;
    if (sel & (128 | 256)) {
        mosaic.icursor.y = dim.y - mosaic.icursor.y - 1;
        mosaic.cursor.y = (float)dim.y - mosaic.cursor.y;
    } else if (sel & (512 | 1024)) {
        mosaic.icursor.z = dim.z - mosaic.icursor.z - 1;
        mosaic.cursor.z = (float)dim.z - mosaic.cursor.z;
    }
}

/* With flip_X11_y: y := ny - y on XY (0) and ZY (1) panels, z := nz - z on XZ (2) and YZ (3);
   which_panel -1 takes the plane of the mosaic orientation. Without the flag: unchanged. */
POINT3D flip_vertical_DataIndex(POINT3D DataIndex, int which_panel)
{
    if (!mosaic.flip_X11_y) return DataIndex;
    int plane = which_panel >= 0 ? which_panel : mosaic.mosaic_orientation;
    IPOINT3D dim = mosaic.stack->dim;
    if (plane == 0 || plane == 1) DataIndex.y = (float)dim.y - DataIndex.y;
    else if (plane == 2 || plane == 3) DataIndex.z = (float)dim.z - DataIndex.z;
    return DataIndex;
}

/* Pixel of a (fractional) voxel in the image area, y relative to the area's top. which_slice
   0 XY, 1 ZY, 2 XZ, 3 YZ (three-plane layout) or -1 (mosaic). CenterPixel moves to the middle
   of the zoomed voxel. A voxel with no pixel (mosaic slice not shown) gives (-1, -1). */
IPOINT2D Convert_rVoxel_to_Pixel(int which_slice, POINT3D DataIndex, int CenterPixel)
{
    POINT3D p = flip_vertical_DataIndex(DataIndex, which_slice);
    if (which_slice < 0) return Convert_3DMosaicIndex_to_Pixel(mosaic.mosaic_orientation, p, CenterPixel);
    int Z = max_int(1, mosaic.zoom);
    POINT3D R = mosaic.PixelResolution;
    IPOINT3D D = mosaic.PixelDim;
    IPOINT2D q;
    switch (which_slice) {
    case 1:
        q.x = (int)(((float)D.x + R.z * p.z + 2.0f) * (float)Z);
        q.y = (int)((R.y * p.y + 1.0f) * (float)Z);
        break;
    case 2:
        q.x = (int)((R.x * p.x + 1.0f) * (float)Z);
        q.y = (int)(((float)D.y + R.z * p.z + 2.0f) * (float)Z);
        break;
    case 3:
        q.x = (int)(((float)D.x + R.y * p.y + 2.0f) * (float)Z);
        q.y = (int)(((float)D.y + R.z * p.z + 2.0f) * (float)Z);
        break;
    default:
        q.x = (int)((R.x * p.x + 1.0f) * (float)Z);
        q.y = (int)((R.y * p.y + 1.0f) * (float)Z);
        break;
    }
    if (CenterPixel) {
        q.x += Z / 2;
        q.y += mosaic.flip_X11_y ? -(Z / 2) : Z / 2;
    }
    return q;
}

/* Pixel of a voxel (already flipped) in its mosaic panel, or (-1, -1) when its slice is not
   shown or the point lies off the slice. */
IPOINT2D Convert_3DMosaicIndex_to_Pixel(int which_orientation, POINT3D DataIndex, int CenterPixel)
{
    IPOINT2D none = {-1, -1};
    float h, v, s;
    switch (which_orientation) {
    case 1: h = DataIndex.z; v = DataIndex.y; s = DataIndex.x; break;
    case 2: h = DataIndex.x; v = DataIndex.z; s = DataIndex.y; break;
    case 3: h = DataIndex.y; v = DataIndex.z; s = DataIndex.x; break;
    default: h = DataIndex.x; v = DataIndex.y; s = DataIndex.z; break;
    }
    int hw, vh;
    float rh, rv;
    panel_axes(which_orientation, &hw, &vh, &rh, &rv);

    float tolerance = mosaic.DisplayVolumeRes.z / 100.0f;
    int panel = -1, count = 0;
    for (int k = 0; k < mosaic.n_display_slice; k++) {
        int shown = mosaic.display_slice[k];
        if (fabsf((float)k - s) < tolerance) {
            if (shown || mosaic.display_3orthogonal) panel = count;
            break;
        }
        if (shown) count++;
    }
    if (panel < 0) return none;

    int column = 0, row = 0;
    if (!mosaic.display_3orthogonal && mosaic.DimPanels.x > 0) {
        column = panel % mosaic.DimPanels.x;
        row = panel / mosaic.DimPanels.x;
    }
    int Z = max_int(1, mosaic.zoom);
    IPOINT2D q;
    q.x = (int)(h * (float)Z * rh) + (hw * column + column + 1) * Z;
    q.y = (int)(v * (float)Z * rv) + (vh * row + row + 1) * Z;
    if (CenterPixel) {
        q.x += Z / 2;
        q.y += mosaic.flip_X11_y ? -(Z / 2) : Z / 2;
    }
    return q;
}

/* Crosshair to the centre voxel of the displayed stack; an existing overlay map is cleared
   (weights and colours 0) and the root overlay emptied. */
void update_display_settings(void)
{
    data_stack *s = mosaic.stack;
    mosaic.icross = {s->dim.x / 2, s->dim.y / 2, s->dim.z / 2};
    if (overlay_map.weight != NULL) {
        for (int i = 0; i < s->n3d; i++) {
            overlay_map.weight[i] = 0.0f;
            if (overlay_map.color != NULL) overlay_map.color[i] = 0;
        }
        ovl_root.npts = 0;
    }
}

/* Sets the grey window image_scale_min/max from the data range and the contrast levels.
   With find_extrema the displayed volume is scanned again (restricted to voxels of overlay
   weight > 0 while the root overlay has points); otherwise the last scan is reused.
   Deliberate: the scan starts from maximum -1 and minimum 1e20, so an all-negative selection
   keeps -1 as its maximum. Pinned by
   RescaleImage.AllNegativeDataKeepsMinusOneAsMaximumAndTheHistogramIsRebuilt. */
void rescale_image(int find_extrema)
{
    if (find_extrema) {
        int restrict_to_overlay = ovl_root.npts > 0 && overlay_map.weight != NULL;
        float lo = 1e20f, hi = -1.0f;
        int n = mosaic.stack->n3d;
        for (int i = 0; i < n; i++) {
            if (restrict_to_overlay && !(overlay_map.weight[i] > 0.0f)) continue;
            float value = mosaic_data_1d(i);
            if (value > hi) hi = value;
            if (value < lo) lo = value;
        }
        scanned_min = lo;
        scanned_max = hi;
    }
    image_scale_min = scanned_min + (scanned_max - scanned_min) * contrast_low;
    image_scale_max = scanned_min + (scanned_max - scanned_min) * contrast_high;
    if (graph.type == 4) build_graph_display(1);
}
