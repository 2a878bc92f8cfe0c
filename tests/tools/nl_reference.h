#pragma once
/* The straightforward non-linear cost, map update and coefficient search, kept as the reference
   that the program's faster code must equal bit for bit: every value returned, every running
   total, every map voxel and every printed line. Same contracts as the program's routines of
   the same names without the reference_ prefix; the reference keeps its own running totals and
   its own first-call flag, and uses the program's resampling, affine cost and parabola fit. */
#include "nl_cost.h"

float reference_cost_function_nonlinear(int icost, int InitProbeSet);
float reference_mutual_information(int number_voxels, const float *prob_I, const float *prob_T, const float *prob_IT);
void reference_calculate_volume_averages_nonlinear(int all_bases, float *av_individual, float *av_template,
                                                   float *min, float *max);
float reference_cost_deformation(int InitProbeSet, int normalize);
float reference_bending_penalty(int valid_plus, int valid_minus, float delta_plus, float delta_minus, float res2);
int reference_number_invalid_distortions(int all_voxels, int ilevel, int ipass);
const nl_cost_totals *reference_cost_totals(void);
/* Sets the reference's running totals, for instance to the program's after a code-0 call. */
void set_reference_cost_totals(const nl_cost_totals *t);

void reference_Set_AlignNL_Value(int iCoeff, float value);
int reference_line_scan_1d_nonlinear(float cost_initial, int icost);
void reference_adjust_nonlinear_1pass(int ilevel, int ipass, int icost, float cost_start);
void reference_adjust_the_adjust_flags(int icost);
