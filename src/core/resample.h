#pragma once
/* Resampling of the individual onto the template grid under the affine parameters plus the
   displacement fields. Reads original, template_, Alignment, AlignNL boxes, distort_*;
   writes individual. No X11. */
#include "types.h"

void transform_coordinates(int all_voxels, int most_accurate);

/* The resampling of transform_coordinates for the box [start, end) of the template grid, into
   target (one volume on the template grid), under the given affine matrix (Alignment.Affine is
   neither recomputed nor read). clear nonzero: every voxel of the box is written, 0 where
   nothing is computed (as the full resampling after its clearing); 0: voxels that map off the
   grid or onto a zero voxel keep their value (as the basis-box resampling). nthreads 1 runs on
   the calling thread; 0 follows align_thread_count. The result equals transform_coordinates's
   bit for bit, whatever the thread count and vector level. */
void resample_region(float *target, const float affine[4][4], IPOINT3D start, IPOINT3D end, int clear,
                     int most_accurate, int nthreads);

/* How many voxels the resamplings of the process computed by the vector sums and by the plain
   arithmetic (the vector path hands a voxel to the plain one when its samples leave the grid
   or its float result is not decided): for tests and benchmarks. */
void resample_path_counts(long long *vector_sums, long long *plain_sums);
