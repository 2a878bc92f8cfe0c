/* Similarity of individual (at graph.iTime) against template_ (at iTime_Template) over the
   template's nonzero voxels: mutual information on a 50 x 50 joint histogram, or a normalized
   correlation. Reads only; no globals written. No X11.
   The float sums run in voxel order (x fastest, then y, z): their rounding is part of the
   result, so they are not split over threads. */
#include "similarity.h"

#include <cmath>
#include <cstring>

#include "globals.h"

#define NBINS 50

/* The two volumes compared and the size of their common grid. */
static void compared_volumes(const float **tpl, const float **ind, size_t *n3d)
{
    *n3d = (size_t)template_.dim.x * (size_t)template_.dim.y * (size_t)template_.dim.z;
    *tpl = template_.SpaceTime.fData + (size_t)iTime_Template * *n3d;
    *ind = individual.SpaceTime.fData + (size_t)graph.iTime * *n3d;
}

/* Averages of individual and template over the voxels whose template value is not 0 (NaN
   counts as not 0), float sums in voxel order divided by the float count. No voxel taking
   part divides by zero; callers do not guard it. */
void calculate_volume_averages(float *av_individual, float *av_template)
{
    const float *tpl, *ind;
    size_t n3d;
    compared_volumes(&tpl, &ind, &n3d);
    float sum_i = 0.0f, sum_t = 0.0f;
    int count = 0;
    for (size_t v = 0; v < n3d; v++) {
        if (tpl[v] == 0.0f) continue;
        sum_i += ind[v];
        sum_t += tpl[v];
        count++;
    }
    *av_individual = sum_i / (float)count;
    *av_template = sum_t / (float)count;
}

/* Bin of a scaled value: (v - min) * 50 / (max - min) in float, 49 above 49, else truncated.
   An undefined value (NaN, from a NaN voxel or an empty range) goes to bin 0 so that it
   stays inside the histogram. */
static inline int mi_bin(float v, float vmin, float vmax)
{
    float b = (v - vmin) * (float)NBINS / (vmax - vmin);
    if (b > (float)(NBINS - 1)) return NBINS - 1;
    if (!(b >= 0.0f)) return 0;
    return (int)b;
}

/* Mutual information of individual and template scaled by their averages.
   Deliberate: an individual average of 0 is replaced by 1, the template's is not guarded.
   Pinned by CostFunction.ZeroIndividualAverageScalesByOne. */
static float mutual_information_affine(const float *tpl, const float *ind, size_t n3d)
{
    float av_individual, av_template;
    calculate_volume_averages(&av_individual, &av_template);
    if (av_individual == 0.0f) av_individual = 1.0f;

    float vmin = 1e10f, vmax = 0.0f;
    for (size_t v = 0; v < n3d; v++) {
        if (tpl[v] == 0.0f) continue;
        float i = ind[v] / av_individual, t = tpl[v] / av_template;
        if (i < vmin) vmin = i;
        if (t < vmin) vmin = t;
        if (i > vmax) vmax = i;
        if (t > vmax) vmax = t;
    }

    float prob_I[NBINS], prob_T[NBINS], prob_IT[NBINS][NBINS];
    memset(prob_I, 0, sizeof prob_I);
    memset(prob_T, 0, sizeof prob_T);
    memset(prob_IT, 0, sizeof prob_IT);
    int number_voxels = 0;
    for (size_t v = 0; v < n3d; v++) {
        if (tpl[v] == 0.0f) continue;
        int bi = mi_bin(ind[v] / av_individual, vmin, vmax);
        int bt = mi_bin(tpl[v] / av_template, vmin, vmax);
        prob_I[bi] += 1.0f;
        prob_T[bt] += 1.0f;
        prob_IT[bi][bt] += 1.0f;
        number_voxels++;
    }
    float count = (float)number_voxels;
    for (int a = 0; a < NBINS; a++) {
        prob_I[a] /= count;
        prob_T[a] /= count;
        for (int b = 0; b < NBINS; b++) prob_IT[a][b] /= count;
    }

    float mi = 0.0f;
    for (int a = 0; a < NBINS; a++)
        for (int b = 0; b < NBINS; b++) {
            if (prob_I[a] == 0.0f || prob_IT[a][b] == 0.0f || prob_T[b] == 0.0f) continue;
            float ratio = prob_IT[a][b] / prob_I[a] / prob_T[b];
            mi = (float)((double)mi + (double)prob_IT[a][b] * log((double)ratio));
        }
    return mi;
}

/* (sum I*T / sqrt(sum I^2)) / sqrt(sum T^2) / n over the taking-part voxels, raw values, float
   sums. Deliberate: no centring, and the quotient is divided once more by the voxel count n
   (the optimizer's thresholds are relative changes of this number).
   Pinned by CostFunction.CorrelationOfEqualVolumesIsOneOverN. */
static float normalized_correlation(const float *tpl, const float *ind, size_t n3d)
{
    float sum_ii = 0.0f, sum_tt = 0.0f, sum_it = 0.0f, n = 0.0f;
    for (size_t v = 0; v < n3d; v++) {
        float t = tpl[v];
        if (t == 0.0f) continue;
        float i = ind[v];
        sum_ii += i * i;
        sum_tt += t * t;
        sum_it += i * t;
        n += 1.0f;
    }
    return (float)(((double)sum_it / sqrt((double)sum_ii)) / sqrt((double)sum_tt) / (double)n);
}

/* icost 0: mutual information (natural logarithm, float sum); any other: normalized
   correlation. Larger is better for both. */
float cost_function(int icost)
{
    const float *tpl, *ind;
    size_t n3d;
    compared_volumes(&tpl, &ind, &n3d);
    if (icost == 0) return mutual_information_affine(tpl, ind, n3d);
    return normalized_correlation(tpl, ind, n3d);
}
