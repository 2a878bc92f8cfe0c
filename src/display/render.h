#pragma once
/* Pixel maths of the image area: the grey window, activation colour schemes, overlay tints,
   highlight and crosshair blending, the per-pixel interpolation neighbourhoods and the pixel
   buffers of the mosaic and of the three orthogonal planes. Reads mosaic, overlay_map and the
   grey-window globals; writes the neighbourhood arrays of mosaic. No X11. */
#include "types.h"

/* One 24-bit pixel red*65536 + green*256 + blue from a data value, an activation value, an
   overlay weight, a crosshair weight and a highlight weight (0..1 each; 0 means absent), and an
   overlay colour code 1..8. Priority: highlight, overlay, activation, grey; a style-1
   crosshair overrides all of them.
   Deliberate: the crosshair blends with the grey value, not with the colour beneath it
   (ImagePixel.CrosshairStyleOneBlendsWithGreyNotWithOverlay). */
unsigned long image_pixel(float data, float map, float ovl, float cross, float proj, int ovl_color);

/* Colour ramps of an activation value (thresholds of mosaic.activation, index through
   act_scale_slope / act_scale_offset). Scheme 0 is two-sided. */
unsigned long activation_color_scheme0(float x);
unsigned long activation_color_scheme1(float x);
unsigned long activation_color_scheme2(float x);

/* -1: the low threshold, otherwise the high one; the log pair when scale_log is set. */
float get_activation_threshold(int low_or_high);
/* Stores a threshold likewise; a negative low threshold becomes 0 except a linear one
   under the two-sided scheme 0. */
void set_activation_threshold(int low_or_high, float value);

/* Rebuilds the neighbourhood arrays of the plane kinds the current layout shows.
   Deliberate: the name keeps its historical spelling. */
void create_neighorhoods(void);
/* Neighbourhood array of one plane kind (0 XY, 1 ZY, 2 XZ, 3 YZ): one entry per screen pixel
   of the plane at the current zoom, row by row. Sets the plane's OnGrid flag. */
void create_neighborhood(int which_slice);
/* Frees the array of one plane kind. */
void invert_neighborhood(int which_slice);
/* Screen width and height in pixels of one plane kind at the current zoom. */
IPOINT2D neighborhood_size(int which_slice);

/* The displayed pixel of one screen pixel of a plane: the weighted sums over its neighbourhood
   of data, activation, overlay, crosshair and highlight, through image_pixel. `slice` is the
   voxel index along the axis across the plane. */
unsigned long interpolate_2d(const Neighborhood *nb, int which_slice, int slice);

/* Steps 1 and 2 of a display build: the grey slope and offset, and the neighbourhoods when
   zoom, interpolation, display type or panel geometry changed since the last build. */
void prepare_image_display(void);
/* The image area, ImageRegionPixels.x by ImageRegionPixels.y pixels, row by row; borders and
   unused cells are black. Rows are rendered in parallel; every pixel is computed alone. */
void make_mosaic_images(unsigned int *pixels);
void make_orthogonal_images(unsigned int *pixels);
/* The one of the two above that the display flags select. */
void render_image_area(unsigned int *pixels);
