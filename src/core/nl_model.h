#pragma once
/* The basis-function deformation: grid, basis shape, coefficients and maps. No X11. */
#include "types.h"
int calc_number_NL_basis_functions(int nvoxels, int fwhm, int **peak, int **start, int **end);
float NL_Basis_function(int iBasis, IPOINT3D voxel);
void Set_AlignNL_Value(int iCoeff, float value);
void update_nonlinear_alignment_parameters(int recalculate_distortions);
/* 1 when the grid in AlignNL was built for the current BasisGrid and template dimensions;
   0 before the first build and after a resolution change. */
int nonlinear_grid_current(void);
void create_basis_function_image(void);
