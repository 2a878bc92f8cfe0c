#pragma once
/* The accurate non-linear stage of align-batch: a displacement field on the template grid,
   refined coarse to fine on the pyramid of the affine search by robust Gauss-Newton steps on the
   remapped residual at every voxel, each update and the field smoothed with Gaussians (the
   field's regularisation), folds removed by further smoothing. The result is written into
   distort_x, distort_y and distort_z (mm, template grid) and the coefficients of AlignNL are
   taken from them. Reads template_, original, Alignment (fixed); writes the maps, AlignNL and
   individual (resampled with the accurate kernel at the end). No X11. */
#include <cstddef>

#include "types.h"

#define NONLINEAR_MAX_LEVELS 4

struct nonlinear_level_report {
    float voxel_mm;     /* voxel size of the level's grid along x */
    IPOINT3D dim;
    int iterations;
    int smoothing_passes;  /* extra smoothings that removed folds */
    float similarity;   /* mutual information on the level's grid at its end (fast kernel) */
    double seconds;
};

struct accurate_nonlinear_report {
    int nlevels;
    nonlinear_level_report level[NONLINEAR_MAX_LEVELS];
};

/* Runs the stage from the present affine alignment and zero maps. Prints a line per level.
   Returns 0, or 1 after a message when the template has no voxel to compare. */
int accurate_nonlinear_search(accurate_nonlinear_report *report);

/* Jacobian determinant of p -> p + u(p) at element i of a field on a grid of res mm, by forward
   differences towards i+1 (x), i+sy (y) and i+sz (z), each difference divided by the voxel size
   in float before it is widened, the sum with the identity and the determinant in double.
   The caller keeps i off the last voxel of every axis. */
double forward_jacobian(const float *const u[3], size_t i, size_t sy, size_t sz, POINT3D res);
