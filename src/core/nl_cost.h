#pragma once
/* Non-linear cost with running totals and the probe protocol, bending penalty, fold count. */
float cost_function_nonlinear(int icost, int InitProbeSet);
float mutual_information(int number_voxels, float *prob_I, float *prob_T, float *prob_IT);
void calculate_volume_averages_nonlinear(int all_bases, float *av_individual, float *av_template,
                                         float *min, float *max);
float cost_deformation(int InitProbeSet, int normalize);
float bending_penalty(int valid_plus, int valid_minus, float delta_plus, float delta_minus, float res2);
int number_invalid_distortions(int all_voxels, int ilevel, int ipass);

/* A copy of the running totals (similarity histograms, normalisation values, penalty sums)
   as they stand, for diagnostics and tests. */
struct nl_cost_totals {
    int MI_number_voxels;
    float MI_prob_I[50], MI_prob_T[50], MI_prob_IT[50][50];
    float av_individual, av_template, min, max;
    float DEF_sum2;
    int DEF_nvoxels;
};
const nl_cost_totals *nonlinear_cost_totals(void);
