#pragma once
/* The numbers of the graph window: profiles through a voxel, the time course, the histogram of
   the displayed volume, averages and standard deviations over the overlay region, axis ranges
   and ticks, and the pixel <-> point mapping of the plot area. Reads mosaic, overlay_map,
   ovl_root and the grey window; writes graph's vectors and ranges. No X11. */
#include "types.h"

/* Bins of the histogram graph (type 4). */
#define GRAPH_HISTOGRAM_BINS 64
/* The plot area of the graph window starts 15 pixels below its top edge. */
#define GRAPH_TOP_BAND 15

/* Points of a graph type for the displayed stack: 0 nx, 1 ny, 2 nz (profiles), 3 nt (time
   course), 4 GRAPH_HISTOGRAM_BINS; 0 for any other type or without a displayed stack. */
int graph_npoints(int type);

/* Fills graph.npoints, xVector (the abscissa of each point), yVector (values or averages) and
   yVector1 (standard deviations) for graph.type through the voxel `at` of the displayed stack.
   Profiles read the displayed time point (mosaic.iTime), the time course every time point, the
   histogram the displayed volume between image_scale_min and image_scale_max (ends included).
   The region is every voxel of overlay weight > 0 while the root overlay has voxels: a profile
   point i is then the mean over the region voxels whose coordinate along the axis is i, a time
   point the mean over the whole region, and the histogram counts region voxels only. Without
   a region a point is the single voxel on the line through `at`. Standard deviations divide by
   n - 1 (0 for fewer than two voxels); sums are taken in double. Also sets graph.xmin/xmax:
   -0.5 and npoints - 0.5 for types 0..3, the grey window for the histogram.
   `at` outside the stack or an unknown type leaves npoints 0. */
void fill_graph_values(IPOINT3D at);

/* The point whose abscissa the graph marks as current: the crosshair coordinate along the
   axis for profiles, the displayed time point for the time course, and the bin of the
   crosshair voxel's value for the histogram (-1 when that value lies outside the bins). */
int graph_current_point(void);

/* Data range of the filled graph for an automatic y axis: the least and greatest of
   yVector -/+ yVector1 over the points. For the histogram 0 and the greatest count of the bins
   other than the one holding the value 0 (the background), or that bin's count when no other
   bin has any; the background's bar then reaches past the top. */
void graph_data_range(float *lo, float *hi);

/* A tick step of 1, 2 or 5 times a power of ten that cuts lo..hi into about nticks intervals,
   and the range widened outwards to whole steps. Equal ends are first widened to lo - 1 ..
   hi + 1 (by a tenth of |lo| when that is larger). */
void graph_axis_range(float lo, float hi, int nticks, float *amin, float *amax, float *step);

/* Tick values amin, amin + step, ... up to amax (within a thousandth of a step); at most
   max_ticks of them into ticks. Returns the count. */
int graph_ticks(float amin, float amax, float step, float *ticks, int max_ticks);

/* The y range after a zoom about value v: up narrows it to 0.8 of its height, down widens it
   by 1.25, v keeping its place. */
void graph_zoom_range(int up, float v, float *ymin, float *ymax);

/* Pointer to data: point index of window column x (clamped to 0..npoints-1) and value of
   window row y (y - 15 clamped to 0..nheight-1), as the graph window dispatch maps them. */
int graph_index_of_pixel(int x, int nwidth, int npoints);
float graph_value_of_pixel(int y, int nheight, float ymin, float ymax);
/* Data to pixels: window column of abscissa u over xmin..xmax, and window row of value v
   (clamped to the plot area). */
int graph_x_of_value(float u, int nwidth, float xmin, float xmax);
int graph_y_of_value(float v, int nheight, float ymin, float ymax);
