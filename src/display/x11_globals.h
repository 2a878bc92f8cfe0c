#pragma once
/* The X11 state of the display: connection, visual, the image and graph windows, their
   off-screen pixmaps, client-side images and graphics contexts. Includes Xlib. */
#include <X11/Xlib.h>
#include <X11/Xutil.h>

extern Display *XServerDisplay;
extern int XScreen;
extern Window XRoot_Window;
extern int XScreen_depth;
extern Colormap XColorMap;
extern Visual *XVisual;
extern Atom wm_delete_window;

extern Window XWindow_image;
extern Window XWindow_graph;

extern Pixmap XPixmap_image, XPixmap_TopMenu, XPixmap_BottomMenu, XPixmap_ImageInfoArea,
    XPixmap_RightPanel, XPixmap_GraphData, XPixmap_GraphInfoArea;

/* The image area and the colour bar as client-side images, each over its own byte buffer. */
extern XImage *XImage_background, *XImage_colorbar;
extern char *XData_background, *XData_colorbar;

extern GC XGC_image, XGC_black, XGC_white, XGC_red, XGC_green, XGC_blue, XGC_yellow, XGC_cyan,
    XGC_orange, XGC_purple;
extern GC XGC_black_text, XGC_white_text, XGC_red_text, XGC_green_text, XGC_blue_text,
    XGC_yellow_text, XGC_cyan_text, XGC_orange_text, XGC_purple_text;
extern XFontStruct *XFont_text;

/* A graphics context drawing in the colour (red, green, blue) with the menu font, for drawables
   of the same screen and depth as where. */
GC make_text_gc(Drawable where, int red, int green, int blue);
/* Width in pixels of a text in the menu font. */
int x11_text_width(const char *text);
