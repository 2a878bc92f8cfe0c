/* The right panel of the image window drawn plainly: the heading and the rows of the shown
   set, the selected item marked, rows evenly spaced over the panel height less 15 pixels.
   Reads AlignAid through panel_model; writes only the X11 pixmap. Xlib through x11_globals. */
#include <cstdio>
#include <cstring>

#include "globals.h"
#include "panel_model.h"
#include "x11_display.h"
#include "x11_globals.h"

/* Rows of the shown set: 15 or 17 in set 0 by the height of the image area, one per parameter
   in set 1, 17 in set 2. */
static int panel_rows(void)
{
    if (AlignAid.DisplaySet == 0) return mosaic.ImageRegionPixels.y < 200 ? 15 : 17;
    if (AlignAid.DisplaySet == 1) {
        int n = AlignAid.iLastParShown - AlignAid.iFirstParShown + 1;
        return n > 0 ? n : 12;
    }
    return 17;
}

void draw_right_panel(void)
{
    if (XServerDisplay == NULL || XPixmap_image == 0 || mosaic.nx_RightPanel <= 0) return;
    int x0 = mosaic.ImageRegionPixels.x + mosaic.nx_ColorBar;
    int w = mosaic.nx_RightPanel, h = mosaic.ImageRegionPixels.y;
    XFillRectangle(XServerDisplay, XPixmap_image, XGC_black, x0, 30, (unsigned)w, (unsigned)h);
    XDrawLine(XServerDisplay, XPixmap_image, XGC_blue, x0, 30, x0, 30 + h - 1);
    const char *heading = panel_heading();
    if (heading != NULL)
        XDrawString(XServerDisplay, XPixmap_image, XGC_cyan_text, x0 + 8, 30 + 12, heading, (int)strlen(heading));
    int nrows = panel_rows();
    /* Every row is drawn, however short the image area: the rows close up rather than the
       last ones (the z step, "change res.") being left out. Only an area too short to hold
       the heading and the rows at all loses the rows that would fall outside the panel. */
    float spacing = (float)(h - 15) / (float)(nrows + 1);
    for (int row = 0; row < nrows; row++) {
        int item = AlignAid.DisplaySet == 1 ? AlignAid.iFirstParShown + row : row;
        char text[1024];
        if (!panel_item_text(item, text)) continue;
        int y = 30 + 15 + (int)((float)(row + 1) * spacing);
        if (y < 30 + 15 || y > 30 + h - 2) continue;
        /* sets 0 and 2 interleave headings with their items: the row's own item is marked */
        int row_item = AlignAid.DisplaySet == 1 ? item : panel_row_item(row);
        GC gc = row_item == AlignAid.iParameter ? XGC_yellow_text : XGC_white_text;
        XDrawString(XServerDisplay, XPixmap_image, gc, x0 + 8, y, text, (int)strlen(text));
    }
    XCopyArea(XServerDisplay, XPixmap_image, XWindow_image, XGC_image, x0, 30, (unsigned)w, (unsigned)h, x0, 30);
}
