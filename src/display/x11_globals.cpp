/* Definitions of the X11 state declared in x11_globals.h. Xlib. */
#include "x11_globals.h"

#include <cstring>

Display *XServerDisplay;
int XScreen;
Window XRoot_Window;
int XScreen_depth;
Colormap XColorMap;
Visual *XVisual;
Atom wm_delete_window;

Window XWindow_image;
Window XWindow_graph;

Pixmap XPixmap_image, XPixmap_TopMenu, XPixmap_BottomMenu, XPixmap_ImageInfoArea, XPixmap_RightPanel,
    XPixmap_GraphData, XPixmap_GraphInfoArea;

XImage *XImage_background, *XImage_colorbar;
char *XData_background, *XData_colorbar;

GC XGC_image, XGC_black, XGC_white, XGC_red, XGC_green, XGC_blue, XGC_yellow, XGC_cyan, XGC_orange,
    XGC_purple;
GC XGC_black_text, XGC_white_text, XGC_red_text, XGC_green_text, XGC_blue_text, XGC_yellow_text,
    XGC_cyan_text, XGC_orange_text, XGC_purple_text;
XFontStruct *XFont_text;

int x11_text_width(const char *text)
{
    if (XFont_text != NULL) return XTextWidth(XFont_text, text, (int)strlen(text));
    return 6 * (int)strlen(text);
}
