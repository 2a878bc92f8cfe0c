#pragma once
/* Non-linear cost with running totals and the probe protocol, bending penalty, fold count. */
float cost_function_nonlinear(int icost, int InitProbeSet);
float mutual_information(int number_voxels, float *prob_I, float *prob_T, float *prob_IT);

/* The histograms and terms behind the last value of mutual_information_cached: for each row
   (individual bin) a few versions of its counts with their terms, the one in use, and the sum
   before each row. Zero-initialise before the first use. */
#define MI_ROW_VERSIONS 3
struct mi_row_version {
    int valid, nterms;
    float prob_I, prob_IT[50];
    double term[50];
};
struct mi_row_cache {
    int valid, number_voxels;
    float prob_T[50];
    mi_row_version row[50][MI_ROW_VERSIONS];
    int current[50], next_version[50];
    float before_row[51];
};
/* mutual_information(number_voxels, prob_I, prob_T, prob_IT), bit for bit, recomputing only the
   terms of rows whose counts are new and summing from the first row that differs from the last
   call: the logarithms of rows seen before and the sum before the first changed row are reused.
   maybe_changed (50 flags) names the only rows that can differ from the last call; NULL: any. */
float mutual_information_cached(mi_row_cache *cache, int number_voxels, const float *prob_I, const float *prob_T,
                                const float *prob_IT, const unsigned char *maybe_changed);
void calculate_volume_averages_nonlinear(int all_bases, float *av_individual, float *av_template,
                                         float *min, float *max);
float cost_deformation(int InitProbeSet, int normalize);
float bending_penalty(int valid_plus, int valid_minus, float delta_plus, float delta_minus, float res2);
/* penalty[i] = bending_penalty(valid_plus[i] != 0, valid_minus[i] != 0, delta_plus[i], delta_minus[i],
   res2) for i < n, bit for bit; the flags are 0 or -1. simd nonzero: four at a time where the
   processor has SSE2 (every x86-64), the rest one by one. */
void bending_penalty_run(int n, const float *delta_plus, const float *delta_minus, const int *valid_plus,
                         const int *valid_minus, float res2, float *penalty, int simd);
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
