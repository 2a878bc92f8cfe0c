#pragma once
/* The display model without X11: window geometry, panels, zoom-free layout, pixel <-> voxel
   conversions, the grey window (rescale_image) and the crosshair reset. Reads and writes
   mosaic and the grey-window globals. */
#include "types.h"

/* Width in pixels of the alignment control panel at the right of the image window. */
#define ALIGN_RIGHT_PANEL_WIDTH 160
IPOINT2D compute_display_size(IPOINT2D *RoughDisplaySize);
void automatically_set_panels(int nslices, int *nx, int *ny);
void define_mosaic_cursor_location(int x, int y);
void CursorSelection_OnImageWindow(int x2d, int y2d);
IPOINT2D Convert_rVoxel_to_Pixel(int which_slice, POINT3D DataIndex, int CenterPixel);
IPOINT2D Convert_3DMosaicIndex_to_Pixel(int which_orientation, POINT3D DataIndex, int CenterPixel);
void flip_vertical_CursorIndex(void);
POINT3D flip_vertical_DataIndex(POINT3D DataIndex, int which_panel);
void update_display_settings(void);
void rescale_image(int find_extrema);
