/* Similarity of individual (at graph.iTime) against template_ (at iTime_Template) over the
   template's nonzero voxels: mutual information on a 50 x 50 joint histogram, or a normalized
   correlation. Reads only; no globals written. No X11.
   The float sums run in voxel order (x fastest, then y, z): their rounding is part of the
   result, so they run on one thread, one value after the other. The range and the histogram
   counts do not depend on the order of the voxels (exact integer counts; comparisons that keep
   the extreme value), so those walks are vectorised and shared out over threads. */
#include "similarity.h"

#include <cmath>
#include <cstring>
#include <mutex>
#include <vector>

#include "globals.h"
#include "numerics.h"
#include "similarity_internal.h"
#include "simd.h"
#include "threads.h"

/* The two volumes compared and the size of their common grid. */
static void compared_volumes(const float **tpl, const float **ind, size_t *n3d)
{
    *n3d = (size_t)template_.dim.x * (size_t)template_.dim.y * (size_t)template_.dim.z;
    *tpl = template_.SpaceTime.fData + (size_t)iTime_Template * *n3d;
    *ind = individual.SpaceTime.fData + (size_t)graph.iTime * *n3d;
}

/* The walk in voxel order: float sums, count, and the smallest and largest values that are not
   NaN. */
static void taking_part_sums_plain(const float *tpl, const float *ind, size_t n, taking_part_sums *r)
{
    float sum_i = 0.0f, sum_t = 0.0f;
    int count = 0;
    r->min_i = r->min_t = INFINITY;
    r->max_i = r->max_t = -INFINITY;
    for (size_t v = 0; v < n; v++) {
        if (tpl[v] == 0.0f) continue;
        float i = ind[v], t = tpl[v];
        sum_i += i;
        sum_t += t;
        count++;
        if (i < r->min_i) r->min_i = i;
        if (i > r->max_i) r->max_i = i;
        if (t < r->min_t) r->min_t = t;
        if (t > r->max_t) r->max_t = t;
    }
    r->sum_i = sum_i;
    r->sum_t = sum_t;
    r->count = count;
}

static void taking_part_walk(const float *tpl, const float *ind, size_t n, taking_part_sums *r)
{
    if (simd_level() >= SIMD_AVX512) taking_part_sums_avx512(tpl, ind, n, r);
    else taking_part_sums_plain(tpl, ind, n, r);
}

/* Averages of individual and template over the voxels whose template value is not 0 (NaN
   counts as not 0), float sums in voxel order divided by the float count. No voxel taking
   part divides by zero; callers do not guard it. */
void calculate_volume_averages(float *av_individual, float *av_template)
{
    const float *tpl, *ind;
    size_t n3d;
    compared_volumes(&tpl, &ind, &n3d);
    taking_part_sums r;
    taking_part_walk(tpl, ind, n3d, &r);
    *av_individual = r.sum_i / (float)r.count;
    *av_template = r.sum_t / (float)r.count;
}

/* Splits [0, n3d) into ranges of whole slices over threads and calls f(first, last, joint)
   with a zeroed joint histogram of its own for each; returns the sum of the histograms. */
template <class F> static std::vector<long long> joint_over_ranges(size_t n3d, size_t n2d, F f)
{
    const int nb = NBINS * NBINS;
    std::vector<long long> total(nb, 0);
    std::mutex lock;
    int nslices = n2d == 0 ? 0 : (int)(n3d / n2d);
    parallel_ranges(nslices, [&](int zfirst, int zlast) {
        std::vector<long long> part(nb, 0);
        f((size_t)zfirst * n2d, (size_t)zlast * n2d, part.data());
        std::lock_guard<std::mutex> hold(lock);
        for (int b = 0; b < nb; b++) total[b] += part[b];
    });
    return total;
}

/* A float count that was raised by 1.0f n times: exact up to 2^24, where it stops growing. */
static inline float float_count(long long n) { return n < 16777216 ? (float)n : 16777216.0f; }

/* The common range of the scaled values: min from 1e10 and max from 0, over the taking-part
   voxels' i = ind / av_i and t = tpl / av_t, with the strict comparisons of the plain walk.
   An average that is 0, not finite or NaN takes the plain walk. */
int scaled_range_of_extremes(const taking_part_sums &r, float av_i, float av_t, float *vmin, float *vmax)
{
    if (!(std::isfinite(av_i) && av_i != 0.0f && std::isfinite(av_t) && av_t != 0.0f)) return 0;
    float cand[4] = {(av_i > 0.0f ? r.min_i : r.max_i) / av_i, (av_t > 0.0f ? r.min_t : r.max_t) / av_t,
                     (av_i > 0.0f ? r.max_i : r.min_i) / av_i, (av_t > 0.0f ? r.max_t : r.min_t) / av_t};
    float lo = 1e10f, hi = 0.0f;
    for (int k = 0; k < 2; k++)
        if (cand[k] < lo) lo = cand[k];
    for (int k = 2; k < 4; k++)
        if (cand[k] > hi) hi = cand[k];
    *vmin = lo;
    *vmax = hi;
    return 1;
}

static void scaled_range(const float *tpl, const float *ind, size_t n3d, const taking_part_sums &r, float av_i,
                         float av_t, float *vmin, float *vmax)
{
    if (scaled_range_of_extremes(r, av_i, av_t, vmin, vmax)) return;
    float lo = 1e10f, hi = 0.0f;
    {
        for (size_t v = 0; v < n3d; v++) {
            if (tpl[v] == 0.0f) continue;
            float i = ind[v] / av_i, t = tpl[v] / av_t;
            if (i < lo) lo = i;
            if (t < lo) lo = t;
            if (i > hi) hi = i;
            if (t > hi) hi = t;
        }
    }
    *vmin = lo;
    *vmax = hi;
}

float mutual_information_of_joint(const long long *joint)
{
    float prob_I[NBINS], prob_T[NBINS], prob_IT[NBINS][NBINS];
    long long number_voxels = 0;
    for (int a = 0; a < NBINS; a++) {
        long long row = 0, column = 0;
        for (int b = 0; b < NBINS; b++) {
            row += joint[a * NBINS + b];
            column += joint[b * NBINS + a];
            prob_IT[a][b] = float_count(joint[a * NBINS + b]);
        }
        prob_I[a] = float_count(row);
        prob_T[a] = float_count(column);
        number_voxels += row;
    }
    float count = (float)(int)number_voxels;
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


/* Mutual information of individual and template scaled by their averages: one walk in voxel
   order for the averages and the raw extremes, the range from those, then the joint histogram
   over threads; the marginal histograms are its row and column sums.
   Deliberate: an individual average of 0 is replaced by 1, the template's is not guarded.
   Pinned by CostFunction.ZeroIndividualAverageScalesByOne. */
static float mutual_information_affine(const float *tpl, const float *ind, size_t n3d, size_t n2d)
{
    taking_part_sums r;
    taking_part_walk(tpl, ind, n3d, &r);
    float av_individual = r.sum_i / (float)r.count, av_template = r.sum_t / (float)r.count;
    if (av_individual == 0.0f) av_individual = 1.0f;

    float vmin, vmax;
    scaled_range(tpl, ind, n3d, r, av_individual, av_template, &vmin, &vmax);

    int vector = simd_level() >= SIMD_AVX512;
    std::vector<long long> joint = joint_over_ranges(n3d, n2d, [&](size_t first, size_t last, long long *c) {
        if (vector) {
            joint_counts_avx512(tpl, ind, first, last, av_individual, av_template, vmin, vmax, c);
            return;
        }
        for (size_t v = first; v < last; v++) {
            if (tpl[v] == 0.0f) continue;
            int bi = mi_bin(ind[v] / av_individual, vmin, vmax);
            int bt = mi_bin(tpl[v] / av_template, vmin, vmax);
            c[bi * NBINS + bt]++;
        }
    });
    return mutual_information_of_joint(joint.data());
}

/* (sum I*T / sqrt(sum I^2)) / sqrt(sum T^2) / n over the taking-part voxels, raw values, float
   sums. Deliberate: no centring, and the quotient is divided once more by the voxel count n
   (the optimizer's thresholds are relative changes of this number).
   Pinned by CostFunction.CorrelationOfEqualVolumesIsOneOverN. */
static float normalized_correlation(const float *tpl, const float *ind, size_t n3d)
{
    float sum_ii = 0.0f, sum_tt = 0.0f, sum_it = 0.0f, n = 0.0f;
    if (simd_level() >= SIMD_AVX512) {
        float sums[4];
        correlation_sums_avx512(tpl, ind, n3d, sums);
        sum_ii = sums[0];
        sum_tt = sums[1];
        sum_it = sums[2];
        n = sums[3];
    } else {
        for (size_t v = 0; v < n3d; v++) {
            float t = tpl[v];
            if (t == 0.0f) continue;
            float i = ind[v];
            sum_ii += i * i;
            sum_tt += t * t;
            sum_it += i * t;
            n += 1.0f;
        }
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
