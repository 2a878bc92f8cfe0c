/* Similarity of individual (at graph.iTime) against template_ (at iTime_Template) over the
   template's nonzero voxels: mutual information on a 50 x 50 joint histogram, or a normalized
   correlation. Reads only; no globals written. No X11.
   The float sums run in voxel order (x fastest, then y, z): their rounding is part of the
   result, so they are not split over threads; only order-free walks are. */
#include "similarity.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <vector>

#include "globals.h"
#include "numerics.h"
#include "threads.h"

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

/* What one range of voxels contributes to the mutual information: the smallest and largest
   scaled value (found with the same comparisons, in the same order, as one sequential walk)
   and exact integer counts of the histograms. */
struct mi_part {
    size_t first;
    float vmin, vmax;
    int *counts; /* NBINS individual, NBINS template, NBINS*NBINS joint */
    int number_voxels;
};

/* Splits [0, n3d) into ranges of whole slices over threads and calls f(part, first, last) for
   each range [first, last) of voxels; the parts come back sorted by their first voxel. */
template <class F> static std::vector<mi_part> over_ranges(size_t n3d, size_t n2d, F f)
{
    std::vector<mi_part> parts;
    std::mutex lock;
    int nslices = n2d == 0 ? 0 : (int)(n3d / n2d);
    parallel_ranges(nslices, [&](int zfirst, int zlast) {
        mi_part part = {(size_t)zfirst * n2d, 1e10f, 0.0f, NULL, 0};
        f(&part, (size_t)zfirst * n2d, (size_t)zlast * n2d);
        std::lock_guard<std::mutex> hold(lock);
        parts.push_back(part);
    });
    std::sort(parts.begin(), parts.end(), [](const mi_part &x, const mi_part &y) { return x.first < y.first; });
    return parts;
}

/* A float count that was raised by 1.0f n times: exact up to 2^24, where it stops growing. */
static inline float float_count(int n) { return n < 16777216 ? (float)n : 16777216.0f; }

/* Mutual information of individual and template scaled by their averages. The averages are a
   float sum and stay sequential; the range and the histogram counts do not depend on the
   order of the voxels (strict comparisons merged in voxel order keep the first extreme, and
   integer counts are exact), so those two walks are shared out over threads.
   Deliberate: an individual average of 0 is replaced by 1, the template's is not guarded.
   Pinned by CostFunction.ZeroIndividualAverageScalesByOne. */
static float mutual_information_affine(const float *tpl, const float *ind, size_t n3d, size_t n2d)
{
    float av_individual, av_template;
    calculate_volume_averages(&av_individual, &av_template);
    if (av_individual == 0.0f) av_individual = 1.0f;

    std::vector<mi_part> ranges = over_ranges(n3d, n2d, [&](mi_part *part, size_t first, size_t last) {
        float vmin = 1e10f, vmax = 0.0f;
        for (size_t v = first; v < last; v++) {
            if (tpl[v] == 0.0f) continue;
            float i = ind[v] / av_individual, t = tpl[v] / av_template;
            if (i < vmin) vmin = i;
            if (t < vmin) vmin = t;
            if (i > vmax) vmax = i;
            if (t > vmax) vmax = t;
        }
        part->vmin = vmin;
        part->vmax = vmax;
    });
    float vmin = 1e10f, vmax = 0.0f;
    for (const mi_part &part : ranges) {
        if (part.vmin < vmin) vmin = part.vmin;
        if (part.vmax > vmax) vmax = part.vmax;
    }

    const int ncounts = 2 * NBINS + NBINS * NBINS;
    std::vector<mi_part> parts = over_ranges(n3d, n2d, [&](mi_part *part, size_t first, size_t last) {
        int *c = int_vector(ncounts);
        memset(c, 0, sizeof(int) * ncounts);
        int *count_I = c, *count_T = c + NBINS, *count_IT = c + 2 * NBINS;
        int n = 0;
        for (size_t v = first; v < last; v++) {
            if (tpl[v] == 0.0f) continue;
            int bi = mi_bin(ind[v] / av_individual, vmin, vmax);
            int bt = mi_bin(tpl[v] / av_template, vmin, vmax);
            count_I[bi]++;
            count_T[bt]++;
            count_IT[bi * NBINS + bt]++;
            n++;
        }
        part->counts = c;
        part->number_voxels = n;
    });
    std::vector<long long> total(ncounts, 0);
    int number_voxels = 0;
    for (mi_part &part : parts) {
        for (int k = 0; k < ncounts; k++) total[k] += part.counts[k];
        number_voxels += part.number_voxels;
        free_int_vector(part.counts);
    }
    float prob_I[NBINS], prob_T[NBINS], prob_IT[NBINS][NBINS];
    for (int a = 0; a < NBINS; a++) {
        prob_I[a] = float_count((int)total[a]);
        prob_T[a] = float_count((int)total[NBINS + a]);
        for (int b = 0; b < NBINS; b++) prob_IT[a][b] = float_count((int)total[2 * NBINS + a * NBINS + b]);
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
    if (icost == 0)
        return mutual_information_affine(tpl, ind, n3d, (size_t)template_.dim.x * (size_t)template_.dim.y);
    return normalized_correlation(tpl, ind, n3d);
}
