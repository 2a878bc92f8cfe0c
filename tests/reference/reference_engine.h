#pragma once
/* The reference engine: the resampling and similarity arithmetic as the program first wrote
   them, one template voxel at a time, kernels from numerics (libm exp and sin), every sum in
   its plain sequential order, one thread. The fast engines of src/core must equal it bit for
   bit; the equality tests and the align_reference program use it. Reads and writes the same
   globals as transform_coordinates and cost_function. No X11. */
#include <cstddef>

/* transform_coordinates, written plainly. */
void reference_transform_coordinates(int all_voxels, int most_accurate);
/* cost_function, written plainly (mutual information for icost 0, else normalized correlation). */
float reference_cost_function(int icost);
/* The averages of calculate_volume_averages, written plainly. */
void reference_calculate_volume_averages(float *av_individual, float *av_template);
