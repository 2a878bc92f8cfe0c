/* The listed trials of the automatic affine search (see trial_volumes.h). The resampling runs
   the same per-voxel code as transform_coordinates over runs of taking-part voxels; the
   similarity runs the walks of cost_function over the packed values, in voxel order where the
   order matters. No X11. */
#include "trial_volumes.h"

#include <cmath>
#include <cstring>
#include <mutex>
#include <vector>

#include "align_model.h"
#include "globals.h"
#include "numerics.h"
#include "resample_internal.h"
#include "similarity_internal.h"
#include "simd.h"
#include "threads.h"

/* A run of taking-part voxels along x: [x0, x1) of row (y, z), packed from index first on. */
struct trial_run {
    int y, z, x0, x1;
    size_t first;
};

struct trial_volumes {
    std::vector<trial_run> runs;
    size_t count;       /* taking-part voxels */
    float *tpl;         /* their template values */
    float *tsc;         /* the same divided by the template's average */
    float *ind;         /* their values in individual as it stands */
    int maps;           /* a displacement map is not 0 at some taking-part voxel */
    /* the sums of the plain walks that depend on the template only */
    float sum_t, av_t, min_t, max_t, sum_tt, nc_count;
    /* the similarity of individual as it stands, when known */
    int known[2];
    float value[2];
};

trial_volumes *begin_trial_volumes(void)
{
    trial_volumes *t = new trial_volumes();
    const IPOINT3D d = template_.dim;
    const size_t n3d = (size_t)d.x * (size_t)d.y * (size_t)d.z;
    const float *tpl = template_.SpaceTime.fData + (size_t)iTime_Template * n3d;
    float *ind = individual.SpaceTime.fData + (size_t)graph.iTime * n3d;
    size_t count = 0;
    for (int z = 0; z < d.z; z++)
        for (int y = 0; y < d.y; y++) {
            const size_t row = (size_t)d.x * ((size_t)y + (size_t)d.y * (size_t)z);
            int x = 0;
            while (x < d.x) {
                if (tpl[row + (size_t)x] == 0.0f) {
                    ind[row + (size_t)x] = 0.0f;
                    x++;
                    continue;
                }
                trial_run r = {y, z, x, x, count};
                while (x < d.x && tpl[row + (size_t)x] != 0.0f) x++;
                r.x1 = x;
                count += (size_t)(r.x1 - r.x0);
                t->runs.push_back(r);
            }
        }
    t->count = count;
    size_t room = count > 0 ? count : 1;
    t->tpl = float_vector((int)room);
    t->tsc = float_vector((int)room);
    t->ind = float_vector((int)room);
    t->maps = 0;
    int have_maps = distort_x.SpaceTime.fData != NULL && distort_y.SpaceTime.fData != NULL &&
                    distort_z.SpaceTime.fData != NULL;
    for (const trial_run &r : t->runs) {
        const size_t row = (size_t)d.x * ((size_t)r.y + (size_t)d.y * (size_t)r.z);
        for (int x = r.x0; x < r.x1; x++) {
            size_t v = row + (size_t)x, k = r.first + (size_t)(x - r.x0);
            t->tpl[k] = tpl[v];
            t->ind[k] = ind[v];
            if (have_maps && (distort_x.SpaceTime.fData[v] != 0.0f || distort_y.SpaceTime.fData[v] != 0.0f ||
                              distort_z.SpaceTime.fData[v] != 0.0f))
                t->maps = 1;
        }
    }
    /* the template's share of the walks, in voxel order */
    float sum_t = 0.0f, sum_tt = 0.0f, n = 0.0f;
    t->min_t = INFINITY;
    t->max_t = -INFINITY;
    for (size_t k = 0; k < count; k++) {
        float v = t->tpl[k];
        sum_t += v;
        sum_tt += v * v;
        n += 1.0f;
        if (v < t->min_t) t->min_t = v;
        if (v > t->max_t) t->max_t = v;
    }
    t->sum_t = sum_t;
    t->sum_tt = sum_tt;
    t->nc_count = n;
    t->av_t = sum_t / (float)(int)count;
    for (size_t k = 0; k < count; k++) t->tsc[k] = t->tpl[k] / t->av_t;
    t->known[0] = t->known[1] = 0;
    return t;
}

void end_trial_volumes(trial_volumes *t)
{
    if (t == NULL) return;
    free_float_vector(t->tpl);
    free_float_vector(t->tsc);
    free_float_vector(t->ind);
    delete t;
}

/* Runs [first, last) of the list, resampled into individual and into the packed values. */
static void resample_runs(const resample_setup *s, trial_volumes *t, size_t first, size_t last)
{
    resample_scratch w;
    resample_scratch_alloc(s, &w);
    for (size_t i = first; i < last; i++) {
        const trial_run &r = t->runs[i];
        resample_segment(s, &w, r.y, r.z, r.x0, r.x1, t->ind + r.first);
    }
    resample_scratch_free(&w);
}

void resample_listed(trial_volumes *t)
{
    define_affine_matrix();
    size_t n3d = (size_t)Alignment.dimension.x * (size_t)Alignment.dimension.y * (size_t)Alignment.dimension.z;
    resample_setup s;
    resample_setup_init(&s, individual.SpaceTime.fData + (size_t)graph.iTime * n3d, Alignment.Affine, 1, 0);
    /* Maps that are 0 at every taking-part voxel add only zeros, which change no position:
       a position's sum starts from +0, so the sign of a zero term never shows. */
    if (!t->maps) s.dx = s.dy = s.dz = NULL;
    t->known[0] = t->known[1] = 0;

    /* runs shared out over threads by equal numbers of voxels */
    int nthreads = align_thread_count();
    size_t nruns = t->runs.size();
    if (nthreads <= 1 || t->count < 4096) {
        resample_runs(&s, t, 0, nruns);
        return;
    }
    std::vector<size_t> cut(1, 0);
    for (int k = 1; k < nthreads; k++) {
        size_t goal = t->count * (size_t)k / (size_t)nthreads, i = cut.back();
        while (i < nruns && t->runs[i].first < goal) i++;
        cut.push_back(i);
    }
    cut.push_back(nruns);
    const resample_setup *setup = &s;
    parallel_ranges(nthreads, [&](int first, int last) {
        for (int k = first; k < last; k++) resample_runs(setup, t, cut[k], cut[k + 1]);
    });
}

/* Mutual information over the packed values: the walks of cost_function in the same order. */
static float listed_mutual_information(trial_volumes *t)
{
    taking_part_sums r;
    r.count = (int)t->count;
    r.sum_t = t->sum_t;
    r.min_t = t->min_t;
    r.max_t = t->max_t;
    int vector = simd_level() >= SIMD_AVX512;
    if (vector) {
        ordered_sum_avx512(t->ind, t->count, &r.sum_i, &r.min_i, &r.max_i);
    } else {
        float sum = 0.0f, lo = INFINITY, hi = -INFINITY;
        for (size_t k = 0; k < t->count; k++) {
            float v = t->ind[k];
            sum += v;
            if (v < lo) lo = v;
            if (v > hi) hi = v;
        }
        r.sum_i = sum;
        r.min_i = lo;
        r.max_i = hi;
    }
    float av_i = r.sum_i / (float)r.count, av_t = t->av_t;
    if (av_i == 0.0f) av_i = 1.0f;
    float vmin, vmax;
    if (!scaled_range_of_extremes(r, av_i, av_t, &vmin, &vmax)) {
        vmin = 1e10f;
        vmax = 0.0f;
        for (size_t k = 0; k < t->count; k++) {
            float i = t->ind[k] / av_i, s = t->tpl[k] / av_t;
            if (i < vmin) vmin = i;
            if (s < vmin) vmin = s;
            if (i > vmax) vmax = i;
            if (s > vmax) vmax = s;
        }
    }

    const int nb = NBINS * NBINS;
    std::vector<long long> joint(nb, 0);
    std::mutex lock;
    size_t chunk = 65536, nchunks = (t->count + chunk - 1) / chunk;
    parallel_ranges((int)nchunks, [&](int first, int last) {
        std::vector<long long> part(nb, 0);
        size_t k0 = (size_t)first * chunk, k1 = (size_t)last * chunk < t->count ? (size_t)last * chunk : t->count;
        if (vector) {
            joint_counts_listed_avx512(t->ind, t->tsc, k0, k1, av_i, vmin, vmax, part.data());
        } else {
            for (size_t k = k0; k < k1; k++)
                part[mi_bin(t->ind[k] / av_i, vmin, vmax) * NBINS + mi_bin(t->tsc[k], vmin, vmax)]++;
        }
        std::lock_guard<std::mutex> hold(lock);
        for (int b = 0; b < nb; b++) joint[b] += part[b];
    });
    return mutual_information_of_joint(joint.data());
}

/* Normalized correlation over the packed values, float sums in voxel order. */
static float listed_correlation(const trial_volumes *t)
{
    float sum_ii = 0.0f, sum_it = 0.0f;
    for (size_t k = 0; k < t->count; k++) {
        float i = t->ind[k];
        sum_ii += i * i;
        sum_it += i * t->tpl[k];
    }
    return (float)(((double)sum_it / sqrt((double)sum_ii)) / sqrt((double)t->sum_tt) / (double)t->nc_count);
}

float measure_listed(trial_volumes *t, int icost)
{
    int which = icost == 0 ? 0 : 1;
    if (!t->known[which]) {
        t->value[which] = which == 0 ? listed_mutual_information(t) : listed_correlation(t);
        t->known[which] = 1;
    }
    return t->value[which];
}
