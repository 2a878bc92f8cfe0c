/* Reference similarity: cost_function as first written, every walk over the template grid in
   voxel order on one thread, float histograms raised by 1. Reads template_, individual,
   iTime_Template and graph.iTime. No X11. */
#include <cmath>
#include <cstring>

#include "globals.h"
#include "reference_engine.h"

#define NBINS 50

namespace {

void compared_volumes(const float **tpl, const float **ind, size_t *n3d)
{
    *n3d = (size_t)template_.dim.x * (size_t)template_.dim.y * (size_t)template_.dim.z;
    *tpl = template_.SpaceTime.fData + (size_t)iTime_Template * *n3d;
    *ind = individual.SpaceTime.fData + (size_t)graph.iTime * *n3d;
}

int mi_bin(float v, float vmin, float vmax)
{
    float b = (v - vmin) * (float)NBINS / (vmax - vmin);
    if (b > (float)(NBINS - 1)) return NBINS - 1;
    if (!(b >= 0.0f)) return 0;
    return (int)b;
}

float mutual_information(const float *tpl, const float *ind, size_t n3d)
{
    float av_individual, av_template;
    reference_calculate_volume_averages(&av_individual, &av_template);
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

float normalized_correlation(const float *tpl, const float *ind, size_t n3d)
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

}  // namespace

void reference_calculate_volume_averages(float *av_individual, float *av_template)
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

float reference_cost_function(int icost)
{
    const float *tpl, *ind;
    size_t n3d;
    compared_volumes(&tpl, &ind, &n3d);
    if (icost == 0) return mutual_information(tpl, ind, n3d);
    return normalized_correlation(tpl, ind, n3d);
}
