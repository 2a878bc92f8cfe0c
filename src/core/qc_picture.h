#pragma once
/* The quality-control picture of align-batch: a PNG mosaic of template slices with the edges of
   the individual resampled onto the template grid drawn over them, one row before and one row
   after the alignment. No globals; no X11. */
#include "types.h"

/* The volumes of one picture, all on the template grid of dim voxels of res mm: the template,
   and the individual resampled before and after the alignment. */
struct qc_volumes {
    IPOINT3D dim;
    POINT3D res;
    const float *tpl;
    const float *before;
    const float *after;
};

/* Geometry of the picture: five panels a row (axial slices at 30, 50 and 70 % of the extent of
   the template's non-zero voxels, a coronal and a sagittal slice through its middle), rows
   "before" (top) and "after" (bottom), square cells of cell_pixels. */
struct qc_layout {
    int cell_pixels;
    int width, height;
    int slice[5];   /* the slice index of each panel along its axis (z, z, z, y, x) */
};

/* The layout for a template: cells of about 256 pixels, whole pixels per voxel where that is at
   least one. Returns 1 when the template has no non-zero voxel. */
int qc_plan(const qc_volumes *v, qc_layout *layout);

/* Renders the picture into rgb (layout.width x layout.height x 3 bytes, row by row): the
   template in grey (1st to 99th percentile of its non-zero values), and in orange the voxels
   where the individual's gradient is among the strongest 10 % of the after row's over the
   template's non-zero voxels. The individual volumes are read only on the drawn slices and
   their neighbours. */
void qc_render(const qc_volumes *v, const qc_layout *layout, unsigned char *rgb);

/* Plans, renders and writes the picture as an 8-bit RGB PNG through a safe save. Returns 0, or
   1 after a message naming the file. */
int write_qc_picture(const char *file_name, const qc_volumes *v);
