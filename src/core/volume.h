#pragma once
/* Voxel indexing of the displayed stack, space <-> voxel conversions and matrix constructors.
   Reads mosaic.stack and mosaic.fSpaceMatrix / mosaic.display_data_type. No X11. */

#include "types.h"

/* Element index t*n3d + z*nx*ny + y*nx + x of the displayed stack; out of range ends the program. */
int index4d(int x, int y, int z, int t);
/* The same for an explicit stack (no display involved). */
int index4d_stack(data_stack *stack, int x, int y, int z, int t);
int voxel3D_to_1D(IPOINT3D voxel);
float stack_data_4d(int x, int y, int z, int t);
float mosaic_data_1d(int index);
float mosaic_data_3d(IPOINT3D voxel);
/* The value table of stack_data_4d for one element pair of a given data type. */
float sample_value(int data_type, int display_data_type, float p0, float p1);

POINT3D Convert_rVoxel_to_Space(POINT3D voxel, data_stack *stack);
POINT3D Convert_Voxel_to_Space(IPOINT3D voxel, data_stack *stack);
POINT3D Convert_Space_to_rVoxel(POINT3D point, data_stack *stack);
/* (x,y,z,1) through rows 0..2 of m, each row summed in float over c = 0..3 in order. */
POINT3D apply_mat44(const mat44 &m, float x, float y, float z);

mat44 scale_and_shift_to_mat44(POINT3D scale, POINT3D shift, POINT3D direction);
mat44 general_affine_to_mat44(float row0[4], float row1[4], float row2[4]);
/* Full 4x4 inverse; a singular matrix prints "failed on row %d\n" and ends the program. */
mat44 invert_mat44(mat44 m);
/* Voxel grid centred on the space origin, index running in +space whatever direction says. */
mat44 centered_ijk_to_xyz(data_stack stack);
mat44 centered_xyz_to_ijk(data_stack stack);
