/* Drawing of the image window: the image area from the rendered pixels, the two top menu
   rows, the bottom menu and the information line, the colour bar, the crosshair styles, the
   wire-frames, and the copy of the off-screen pixmap to the window. Reads mosaic, the grey
   window and the lists; writes only X11 resources. Xlib. */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "display_hooks.h"
#include "display_model.h"
#include "draw_overlay.h"
#include "globals.h"
#include "numerics.h"
#include "render.h"
#include "volume.h"
#include "x11_display.h"
#include "x11_globals.h"

void build_image_display_x11(int show_info_line);
void refresh_display_image_x11(void);
void draw_selectable_text_image_x11(void);
void show_on_info_line_x11(const char *a, const char *b, const char *c);

static int window_width(void) { return mosaic.ImageRegionPixels.x + mosaic.nx_ColorBar + mosaic.nx_RightPanel; }
static int window_height(void) { return mosaic.ImageRegionPixels.y + 75; }
static int info_band_y(void) { return mosaic.ImageRegionPixels.y + 30; }
static int bottom_menu_x(void) { return mosaic.ImageRegionPixels.x < 302 ? mosaic.ImageRegionPixels.x - 1 : 300; }

static int window_ready(void) { return XServerDisplay != NULL && XWindow_image != 0 && XPixmap_image != 0; }

/* Copies one region of the off-screen pixmap to the window. */
static void copy_to_window(int x, int y, int w, int h)
{
    if (!window_ready() || w <= 0 || h <= 0) return;
    XCopyArea(XServerDisplay, XPixmap_image, XWindow_image, XGC_image, x, y, (unsigned)w, (unsigned)h, x, y);
}

void refresh_display_image_x11(void)
{
    copy_to_window(0, 0, window_width(), window_height());
    XFlush(XServerDisplay);
}

/* ---- selectable text items ---- */

struct menu_entry { const char *text; int row; int field; int bit; };
static const menu_entry menu_entries[] = {
    {"?", 0, 0, 1},           {"overlay", 0, 2, 2},     {"interp", 0, 0, 4},
    {"cross", 0, 0, 8},       {"3-plane", 0, 0, 16},    {"flip", 0, 0, 32},
    {"display", 1, 0, 64},    {"data", 1, 4, 128},      {"reset/recall", 1, 0, 256},
    {"full align", 1, 0, 512}, {"save", 2, 0, 1024},    {"quit", 2, 0, 2048},
};

void initialize_selectable_text(void)
{
    SelectableText *head = NULL, **tail = &head;
    int x_row[3] = {4, 4, 4};
    for (const menu_entry &e : menu_entries) {
        SelectableText *t = (SelectableText *)calloc(1, sizeof(SelectableText));
        if (t == NULL) alloc_error("allocation failure in initialize_selectable_text()");
        snprintf(t->text, sizeof t->text, "%s", e.text);
        t->row = e.row;
        t->field = e.field;
        t->bit = e.bit;
        t->width = 6 * (int)strlen(e.text) + 4;
        t->x = x_row[e.row];
        x_row[e.row] += t->width + 12;
        *tail = t;
        tail = &t->next;
    }
    mosaic.SelectText = head;
}

/* The bottom menu follows the width of the image area. */
static void place_bottom_menu(void)
{
    int x = bottom_menu_x() + 4;
    for (SelectableText *t = mosaic.SelectText; t != NULL; t = t->next)
        if (t->row == 2) {
            t->x = x;
            x += t->width + 12;
        }
}

static int item_is_inert(const SelectableText *t)
{
    if (t->field == 4 && (mosaic.stack == NULL || mosaic.stack->data_type == 0)) return 1;
    if (t->field == 2 && mosaic.toggle_overlays == 0) return 1;
    return 0;
}

void draw_selectable_text_image_x11(void)
{
    if (!window_ready()) return;
    place_bottom_menu();
    int W = window_width();
    int band = info_band_y();
    int bx = bottom_menu_x();
    XFillRectangle(XServerDisplay, XPixmap_image, XGC_black, 0, 0, (unsigned)W, 30);
    /* The bottom menu is the first text row of the bottom band, right of bx; the information
       text uses the two rows below it. */
    XFillRectangle(XServerDisplay, XPixmap_image, XGC_black, bx, band, (unsigned)(W - bx > 1 ? W - bx : 1), 15);
    for (SelectableText *t = mosaic.SelectText; t != NULL; t = t->next) {
        int y = t->row == 0 ? 12 : (t->row == 1 ? 27 : band + 12);
        GC gc = item_is_inert(t) ? XGC_blue_text : (t->selected ? XGC_yellow_text : XGC_white_text);
        if (t->selected && !item_is_inert(t))
            XDrawRectangle(XServerDisplay, XPixmap_image, XGC_yellow, t->x - 2, y - 11, (unsigned)t->width, 13);
        XDrawString(XServerDisplay, XPixmap_image, gc, t->x, y, t->text, (int)strlen(t->text));
    }
    /* What the two menu items with a state show now. */
    char state[1100];
    static const char *const shown_names[6] = {"individual", "template", "x field", "y field", "z field", "basis"};
    const char *shown = AlignAid.DisplayType >= 0 && AlignAid.DisplayType <= 5 ? shown_names[AlignAid.DisplayType] : "";
    snprintf(state, sizeof state, "zoom %d  %s  ovl %s", mosaic.zoom, shown, ovl_root.name);
    int sx = W - x11_text_width(state) - 4;
    if (sx > 400) XDrawString(XServerDisplay, XPixmap_image, XGC_cyan_text, sx, 27, state, (int)strlen(state));
    copy_to_window(0, 0, W, 30);
    copy_to_window(bx, band, W - bx, 15);
    XFlush(XServerDisplay);
}

/* ---- information line ---- */

/* The information text: the left part of the first row of the bottom band and the two full
   rows below it (the bottom menu holds the rest of the first row). */
static void clear_info_line(void)
{
    int band = info_band_y();
    XFillRectangle(XServerDisplay, XPixmap_image, XGC_black, 0, band, (unsigned)(bottom_menu_x() > 1 ? bottom_menu_x() : 1), 15);
    XFillRectangle(XServerDisplay, XPixmap_image, XGC_black, 0, band + 15, (unsigned)window_width(), 30);
}

static void copy_info_line(void)
{
    int band = info_band_y();
    copy_to_window(0, band, bottom_menu_x(), 15);
    copy_to_window(0, band + 15, window_width(), 30);
}

void show_information_text_image(int pointer_moved)
{
    if (!window_ready()) return;
    int band = info_band_y();
    clear_info_line();
    if (pointer_moved && (mosaic.cursor_selection & 2) && mosaic.stack != NULL) {
        char line1[1024], line2[1024];
        float value = mosaic_data_3d(mosaic.icursor);
        snprintf(line1, sizeof line1, "(%d, %d, %d) = %g", mosaic.icursor.x, mosaic.icursor.y,
                 mosaic.icursor.z, value);
        snprintf(line2, sizeof line2, "%.2f %.2f %.2f mm", mosaic.cursor.x, mosaic.cursor.y, mosaic.cursor.z);
        XDrawString(XServerDisplay, XPixmap_image, XGC_white_text, 4, band + 27, line1, (int)strlen(line1));
        XDrawString(XServerDisplay, XPixmap_image, XGC_white_text, 4, band + 42, line2, (int)strlen(line2));
    } else if (mosaic.cursor_selection != 0 && mosaic.stack != NULL) {
        /* Not over the image: the crosshair voxel and its value. */
        IPOINT3D c = mosaic.icross;
        IPOINT3D d = mosaic.stack->dim;
        if (c.x >= 0 && c.x < d.x && c.y >= 0 && c.y < d.y && c.z >= 0 && c.z < d.z) {
            char line[1024];
            snprintf(line, sizeof line, "cross (%d, %d, %d) = %g", c.x, c.y, c.z, mosaic_data_3d(c));
            XDrawString(XServerDisplay, XPixmap_image, XGC_cyan_text, 4, band + 27, line, (int)strlen(line));
        }
    }
    copy_info_line();
    XFlush(XServerDisplay);
}

void show_on_info_line_x11(const char *a, const char *b, const char *c)
{
    if (!window_ready()) return;
    int band = info_band_y();
    clear_info_line();
    char line[2100];
    snprintf(line, sizeof line, "%s %s", a != NULL ? a : "", b != NULL ? b : "");
    XDrawString(XServerDisplay, XPixmap_image, XGC_yellow_text, 4, band + 27, line, (int)strlen(line));
    if (c != NULL && c[0] != '\0')
        XDrawString(XServerDisplay, XPixmap_image, XGC_yellow_text, 4, band + 42, c, (int)strlen(c));
    copy_info_line();
    XFlush(XServerDisplay);
}

/* ---- image area ---- */

/* The image area's pixels as the XImage wants them: rendered straight into its data when it
   holds 32-bit pixels in this machine's byte order, row after row; else into a buffer kept from
   one redraw to the next and copied pixel by pixel. */
static int image_holds_native_pixels(const XImage *im, int W)
{
    static const unsigned int probe = 1;
    int native_lsb = *(const unsigned char *)&probe == 1;
    return im->bits_per_pixel == 32 && (im->byte_order == LSBFirst) == native_lsb && im->bytes_per_line == 4 * W &&
           im->width >= W && im->height >= mosaic.ImageRegionPixels.y;
}

static void render_and_put_pixels(void)
{
    XImage *im = XImage_background;
    int W = mosaic.ImageRegionPixels.x, H = mosaic.ImageRegionPixels.y;
    if (image_holds_native_pixels(im, W)) {
        render_image_area((unsigned int *)(void *)im->data);
    } else {
        static unsigned int *pixels = NULL;
        static size_t room = 0;
        size_t n = (size_t)(W > 0 ? W : 1) * (size_t)(H > 0 ? H : 1);
        if (n > room) {
            free(pixels);
            pixels = (unsigned int *)malloc(sizeof(unsigned int) * n);
            if (pixels == NULL) alloc_error("allocation failure in build_image_display()");
            room = n;
        }
        render_image_area(pixels);
        for (int y = 0; y < H && y < im->height; y++)
            for (int x = 0; x < W && x < im->width; x++) XPutPixel(im, x, y, pixels[(size_t)y * W + x]);
    }
    XPutImage(XServerDisplay, XPixmap_image, XGC_image, im, 0, 0, 0, 30, (unsigned)W, (unsigned)H);
}

void draw_crosshairs(void)
{
    IPOINT3D c = mosaic.icross;
    POINT3D p = {(float)c.x, (float)c.y, (float)c.z};
    int zoom = mosaic.zoom > 1 ? mosaic.zoom : 1;
    if (mosaic.display_3orthogonal) {
        int kinds[3] = {0, 2, mosaic.display_ortho_ZY ? 1 : 3};
        for (int kind : kinds) {
            IPOINT2D q = Convert_rVoxel_to_Pixel(kind, p, 1);
            IPOINT2D size = neighborhood_size(kind);
            /* The plane's top-left corner. */
            int x0 = kind == 0 || kind == 2 ? zoom : (mosaic.PixelDim.x + 2) * zoom;
            int y0 = kind == 0 || kind == 1 ? zoom : (mosaic.PixelDim.y + 2) * zoom;
            XDrawLine(XServerDisplay, XPixmap_image, XGC_red, x0, 30 + q.y, x0 + size.x - 1, 30 + q.y);
            XDrawLine(XServerDisplay, XPixmap_image, XGC_red, q.x, 30 + y0, q.x, 30 + y0 + size.y - 1);
        }
        return;
    }
    IPOINT2D q = Convert_rVoxel_to_Pixel(-1, p, 1);
    if (q.x < 0 || q.y < 0) return;
    int len = 5 * zoom;
    XDrawLine(XServerDisplay, XPixmap_image, XGC_red, q.x - len, 30 + q.y, q.x + len, 30 + q.y);
    XDrawLine(XServerDisplay, XPixmap_image, XGC_red, q.x, 30 + q.y - len, q.x, 30 + q.y + len);
}

void draw_wire_frames(void)
{
    for (wire_list *w = &wire_root; w != NULL; w = w->next)
        if (w->active && w->control != NULL) draw_wire_list(w);
}

void build_image_display_x11(int show_info_line)
{
    if (!window_ready() || mosaic.stack == NULL || mosaic.fSpaceMatrix == NULL) return;
    int W = mosaic.ImageRegionPixels.x, H = mosaic.ImageRegionPixels.y;
    prepare_image_display();
    render_and_put_pixels();
    if (mosaic.display_crosshairs == 2 && graph.type != 0 && graph.type != 1 && graph.type != 2) draw_crosshairs();
    if (wire_root.npts > 0 || wire_root.next != NULL) draw_wire_frames();
    if (mosaic.nx_ColorBar > 0 && XImage_colorbar != NULL) {
        create_colorbar();
        XPutImage(XServerDisplay, XPixmap_image, XGC_image, XImage_colorbar, 0, 0, W, 30,
                  (unsigned)mosaic.nx_ColorBar, (unsigned)H);
    }
    draw_right_panel();
    copy_to_window(0, 30, window_width(), H);
    draw_selectable_text_image_x11();
    if (show_info_line) show_information_text_image(0);
    XFlush(XServerDisplay);
}
