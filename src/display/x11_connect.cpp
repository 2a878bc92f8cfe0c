/* The X11 connection and the image window: visual, colormap, atom, window creation with its
   zoom and size fall-backs, pixmaps, client-side images and graphics contexts. Reads and writes
   mosaic (zoom, layout flags) and the X11 globals. Xlib. */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "display_model.h"
#include "globals.h"
#include "interaction.h"
#include "numerics.h"
#include "render.h"
#include "x11_display.h"
#include "x11_globals.h"

void install_x11_display_hooks(void);

void initialize_XWindows(void)
{
    XServerDisplay = XOpenDisplay(NULL);
    if (XServerDisplay == NULL) {
        printf("Error trying to open the display.\n");
        printf("If you are using ssh to connect from another system, try 'ssh -X'\n");
        exit(1);
    }
    XScreen = DefaultScreen(XServerDisplay);
    XRoot_Window = RootWindow(XServerDisplay, XScreen);
    XScreen_depth = DefaultDepth(XServerDisplay, XScreen);
    XColorMap = DefaultColormap(XServerDisplay, XScreen);
    XInstallColormap(XServerDisplay, XColorMap);
    XVisualInfo info;
    if (XMatchVisualInfo(XServerDisplay, XScreen, XScreen_depth, TrueColor, &info))
        XVisual = info.visual;
    else
        XVisual = DefaultVisual(XServerDisplay, XScreen);
    wm_delete_window = XInternAtom(XServerDisplay, "WM_DELETE_WINDOW", False);
    XFont_text = XLoadQueryFont(XServerDisplay, "fixed");
    /* The control panel on the right of the image window. */
    if (mosaic.nx_RightPanel == 0) mosaic.nx_RightPanel = 150;
    install_x11_display_hooks();
}

void change_window_name(void)
{
    char title[1100];
    snprintf(title, sizeof title, "%s (zoom = %d)", program_name, mosaic.zoom);
    XStoreName(XServerDisplay, XWindow_image, title);
}

static unsigned long pixel_of(int red, int green, int blue)
{
    return (unsigned long)red * 65536ul + (unsigned long)green * 256ul + (unsigned long)blue;
}

GC make_text_gc(Drawable where, int red, int green, int blue)
{
    XGCValues values;
    values.foreground = pixel_of(red, green, blue);
    values.background = 0;
    unsigned long mask = GCForeground | GCBackground;
    if (XFont_text != NULL) {
        values.font = XFont_text->fid;
        mask |= GCFont;
    }
    return XCreateGC(XServerDisplay, where, mask, &values);
}

static XImage *make_image(int width, int height, char **data)
{
    if (width < 1) width = 1;
    if (height < 1) height = 1;
    *data = (char *)calloc((size_t)width * (size_t)height, 4);
    if (*data == NULL) alloc_error("allocation failure in make_XWindow_image()");
    XImage *image = XCreateImage(XServerDisplay, XVisual, (unsigned)XScreen_depth, ZPixmap, 0, *data,
                                 (unsigned)width, (unsigned)height, 32, 0);
    if (image == NULL) alloc_error("allocation failure in make_XWindow_image()");
    return image;
}

static void destroy_image(XImage **image, char **data)
{
    if (*image != NULL) XDestroyImage(*image); /* frees the data as well */
    *image = NULL;
    *data = NULL;
}

static void destroy_window_resources(void)
{
    GC *gcs[] = {&XGC_image, &XGC_black, &XGC_white, &XGC_red, &XGC_green, &XGC_blue, &XGC_yellow,
                 &XGC_cyan, &XGC_orange, &XGC_purple, &XGC_black_text, &XGC_white_text,
                 &XGC_red_text, &XGC_green_text, &XGC_blue_text, &XGC_yellow_text, &XGC_cyan_text,
                 &XGC_orange_text, &XGC_purple_text};
    for (GC *g : gcs)
        if (*g != NULL) { XFreeGC(XServerDisplay, *g); *g = NULL; }
    if (XPixmap_image) { XFreePixmap(XServerDisplay, XPixmap_image); XPixmap_image = 0; }
    destroy_image(&XImage_background, &XData_background);
    destroy_image(&XImage_colorbar, &XData_colorbar);
    if (XWindow_image) { XDestroyWindow(XServerDisplay, XWindow_image); XWindow_image = 0; }
}

/* The number of slices along the mosaic axis, for the single-panel last resort. */
static void show_middle_slice_only(void)
{
    int n = mosaic_slice_count();
    if (mosaic.display_slice != NULL)
        for (int k = 0; k < n; k++) mosaic.display_slice[k] = (k == n / 2);
    mosaic.DimPanels.x = 1;
    mosaic.DimPanels.y = 1;
    mosaic.DimPanels.z = 1;
}

void make_XWindow_image(void)
{
    /* The fall-backs are tried afresh on every call, so that a later layout change that does
       not fit falls back again instead of ending the program. */
    int tried_3orthogonal = 0, last_resort = 0;
    IPOINT2D rough = {0, 0};
    int screen_w = DisplayWidth(XServerDisplay, XScreen);
    int screen_h = DisplayHeight(XServerDisplay, XScreen);

    if (mosaic.zoom == 0) {
        compute_display_size(&rough);
        int a = mosaic.DimPanels.x * mosaic.PixelDim.x, b = mosaic.PixelDim.y * mosaic.DimPanels.y;
        int m = a > b ? a : b;
        int z = m > 0 ? (int)(0.75 * (double)(screen_w / m)) : 1;
        mosaic.zoom = z < 1 ? 1 : (z > 4 ? 4 : z);
    }
    destroy_window_resources();

    IPOINT2D size;
    for (;;) {
        size = compute_display_size(&rough);
        if (size.x <= screen_w && size.y <= screen_h) break;
        if (mosaic.zoom > 1) {
            mosaic.zoom -= 1;
            continue;
        }
        if (!mosaic.display_3orthogonal && !tried_3orthogonal) {
            tried_3orthogonal = 1;
            mosaic.display_3orthogonal = 1;
            continue;
        }
        if (!last_resort) {
            last_resort = 1;
            mosaic.display_3orthogonal = 0;
            show_middle_slice_only();
            continue;
        }
        printf("The image is too big for your display.\n");
        printf("Image : %d x %d pixels\n", size.x, size.y);
        printf("Screen: %d x %d pixels\n", screen_w, screen_h);
        exit(1);
    }

    XWindow_image = XCreateSimpleWindow(XServerDisplay, XRoot_Window, 1, 1, (unsigned)size.x,
                                        (unsigned)size.y, 100, 255, 0);
    XSelectInput(XServerDisplay, XWindow_image, 0x2806d);
    change_window_name();

    XPixmap_image = XCreatePixmap(XServerDisplay, XWindow_image, (unsigned)size.x, (unsigned)size.y,
                                  (unsigned)XScreen_depth);
    XImage_background = make_image(mosaic.ImageRegionPixels.x, mosaic.ImageRegionPixels.y, &XData_background);
    XImage_colorbar = make_image(mosaic.nx_ColorBar, mosaic.ImageRegionPixels.y, &XData_colorbar);

    XGC_image = make_text_gc(XWindow_image, 255, 255, 255);
    XGC_black = make_text_gc(XWindow_image, 0, 0, 0);
    XGC_white = make_text_gc(XWindow_image, 255, 255, 255);
    XGC_red = make_text_gc(XWindow_image, 255, 0, 0);
    XGC_green = make_text_gc(XWindow_image, 0, 255, 0);
    XGC_blue = make_text_gc(XWindow_image, 0, 0, 255);
    XGC_yellow = make_text_gc(XWindow_image, 255, 255, 0);
    XGC_cyan = make_text_gc(XWindow_image, 0, 255, 255);
    XGC_orange = make_text_gc(XWindow_image, 255, 128, 0);
    XGC_purple = make_text_gc(XWindow_image, 255, 0, 255);
    XGC_black_text = make_text_gc(XWindow_image, 0, 0, 0);
    XGC_white_text = make_text_gc(XWindow_image, 255, 255, 255);
    XGC_red_text = make_text_gc(XWindow_image, 255, 0, 0);
    XGC_green_text = make_text_gc(XWindow_image, 0, 255, 0);
    XGC_blue_text = make_text_gc(XWindow_image, 0, 0, 255);
    XGC_yellow_text = make_text_gc(XWindow_image, 255, 255, 0);
    XGC_cyan_text = make_text_gc(XWindow_image, 0, 255, 255);
    XGC_orange_text = make_text_gc(XWindow_image, 255, 128, 0);
    XGC_purple_text = make_text_gc(XWindow_image, 255, 0, 255);

    XFillRectangle(XServerDisplay, XPixmap_image, XGC_black, 0, 0, (unsigned)size.x, (unsigned)size.y);
    XMapWindow(XServerDisplay, XWindow_image);
    XFlush(XServerDisplay);
}

void create_colorbar(void)
{
    if (mosaic.nx_ColorBar <= 0 || XImage_colorbar == NULL) return;
    int w = mosaic.nx_ColorBar, h = mosaic.ImageRegionPixels.y;
    float low = get_activation_threshold(-1), high = get_activation_threshold(1);
    int scheme = mosaic.activation.color_scheme;
    /* The top of the bar is the high threshold; the two-sided scheme shows -high at the bottom. */
    if (scheme == 0) low = -high;
    for (int y = 0; y < h; y++) {
        float f = h > 1 ? (float)(h - 1 - y) / (float)(h - 1) : 0.0f;
        float value = low + f * (high - low);
        unsigned long p;
        if (scheme == 0) p = activation_color_scheme0(value);
        else if (scheme == 1 || scheme == -1) p = activation_color_scheme1(value);
        else if (scheme == 2 || scheme == -2) p = activation_color_scheme2(value);
        else p = 0;
        for (int x = 0; x < w; x++) XPutPixel(XImage_colorbar, x, y, p);
    }
}
