#pragma once
/* Resampling of the individual onto the template grid under the affine parameters plus the
   displacement fields. Reads original, template_, Alignment, AlignNL boxes, distort_*;
   writes individual. No X11. */
void transform_coordinates(int all_voxels, int most_accurate);
