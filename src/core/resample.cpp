/* Resampling of original (at graph.iTime) onto the template grid under Alignment.Affine plus
   distort_x/y/z, into individual. Reads template_, Alignment and the AlignNL boxes. No X11.
   Output voxels are independent: z-slices are shared out over threads (parallel_ranges), each
   voxel computed with the same arithmetic whatever the thread count. */
#include "resample.h"

#include <atomic>
#include <cmath>
#include <cstring>

#include "align_model.h"
#include "globals.h"
#include "numerics.h"
#include "resample_internal.h"
#include "simd.h"
#include "threads.h"

/* Voxels computed by the vector sums and by the plain arithmetic since the start. */
static std::atomic<long long> path_counts[2];

void resample_path_counts(long long *vector_sums, long long *plain_sums)
{
    *vector_sums = path_counts[0];
    *plain_sums = path_counts[1];
}

/* Regions of fewer voxels are resampled on the calling thread. */
static const long long small_region = 4096;

/* The weighted average of one voxel: z outer, then y, then x; weight (wz*wx)*wy in float,
   value*weight and the weights summed in double in that order. wzx: scratch of the x count. */
static inline void accumulate_one(const resample_setup *s, const voxel_job *j, float *wzx)
{
    const axis_samples &ax = j->a[0], &ay = j->a[1], &az = j->a[2];
    const size_t onx = (size_t)s->odim.x, on2d = onx * (size_t)s->odim.y;
    double sum = 0.0, wsum = 0.0;
    for (int kz = 0; kz < az.count; kz++) {
        const float wz = az.weight[kz];
        for (int kx = 0; kx < ax.count; kx++) wzx[kx] = wz * ax.weight[kx];
        const float *plane = s->src + on2d * (size_t)az.index[kz];
        for (int ky = 0; ky < ay.count; ky++) {
            const float wy = ay.weight[ky];
            const float *row = plane + onx * (size_t)ay.index[ky];
            for (int kx = 0; kx < ax.count; kx++) {
                float w = wzx[kx] * wy;
                sum += (double)(row[ax.index[kx]] * w);
                wsum += (double)w;
            }
        }
    }
    s->dst[j->vox] = wsum != 0.0 ? (float)(sum / wsum) : 0.0f;
}

/* Two voxels with the same sample counts on every axis, summed side by side: each keeps its
   own sums in its own order (so the results equal accumulate_one's), but the two chains of
   dependent double additions overlap. */
static inline void accumulate_pair(const resample_setup *s, const voxel_job *j0, const voxel_job *j1,
                                   float *wzx0, float *wzx1)
{
    const axis_samples &ax0 = j0->a[0], &ay0 = j0->a[1], &az0 = j0->a[2];
    const axis_samples &ax1 = j1->a[0], &ay1 = j1->a[1], &az1 = j1->a[2];
    const size_t onx = (size_t)s->odim.x, on2d = onx * (size_t)s->odim.y;
    const int nkx = ax0.count, nky = ay0.count, nkz = az0.count;
    double sum0 = 0.0, wsum0 = 0.0, sum1 = 0.0, wsum1 = 0.0;
    for (int kz = 0; kz < nkz; kz++) {
        const float wz0 = az0.weight[kz], wz1 = az1.weight[kz];
        for (int kx = 0; kx < nkx; kx++) {
            wzx0[kx] = wz0 * ax0.weight[kx];
            wzx1[kx] = wz1 * ax1.weight[kx];
        }
        const float *plane0 = s->src + on2d * (size_t)az0.index[kz];
        const float *plane1 = s->src + on2d * (size_t)az1.index[kz];
        for (int ky = 0; ky < nky; ky++) {
            const float wy0 = ay0.weight[ky], wy1 = ay1.weight[ky];
            const float *row0 = plane0 + onx * (size_t)ay0.index[ky];
            const float *row1 = plane1 + onx * (size_t)ay1.index[ky];
            for (int kx = 0; kx < nkx; kx++) {
                float w0 = wzx0[kx] * wy0, w1 = wzx1[kx] * wy1;
                sum0 += (double)(row0[ax0.index[kx]] * w0);
                wsum0 += (double)w0;
                sum1 += (double)(row1[ax1.index[kx]] * w1);
                wsum1 += (double)w1;
            }
        }
    }
    s->dst[j0->vox] = wsum0 != 0.0 ? (float)(sum0 / wsum0) : 0.0f;
    s->dst[j1->vox] = wsum1 != 0.0 ? (float)(sum1 / wsum1) : 0.0f;
}

void resample_voxel_plain(const resample_setup *s, resample_scratch *w, size_t vox, POINT3D v)
{
    w->nplain++;
    voxel_job *j = &w->job[0];
    j->vox = vox;
    axis_weights(&j->a[0], v.x, s->odim.x, s->wrap.x, s->half.x, s->accurate, s->sigma.x);
    axis_weights(&j->a[1], v.y, s->odim.y, s->wrap.y, s->half.y, s->accurate, s->sigma.y);
    axis_weights(&j->a[2], v.z, s->odim.z, s->wrap.z, s->half.z, s->accurate, s->sigma.z);
    accumulate_one(s, j, w->wzx0);
}

/* The plain row: voxels x in [xbegin, xend) of row (y, z), one at a time, summed two at a
   time when their sample counts agree. */
static void resample_row_plain(const resample_setup *s, resample_scratch *w, int y, int z, int xbegin, int xend,
                               float *listed)
{
    const int nx = s->dim.x, ny = s->dim.y;
    const int onx = s->odim.x, ony = s->odim.y, onz = s->odim.z;
    const size_t on2d = (size_t)onx * (size_t)ony;
    const size_t row0 = (size_t)nx * ((size_t)y + (size_t)ny * (size_t)z);
    int pending = 0;
    for (int x = xbegin; x < xend; x++) {
        size_t vox = row0 + (size_t)x;
        if (listed == NULL && s->tpl[vox] == 0.0f) {
            s->dst[vox] = 0.0f;
            continue;
        }
        if (s->clear) s->dst[vox] = 0.0f;
        POINT3D p = apply_rows(s->ijk_to_xyz, (float)x, (float)y, (float)z);
        POINT3D q = apply_rows(s->affine, p.x, p.y, p.z);
        if (s->dx != NULL) {
            q.x += s->dx[vox];
            q.y += s->dy[vox];
            q.z += s->dz[vox];
        }
        POINT3D v = apply_rows(s->xyz_to_ijk, q.x, q.y, q.z);
        if (!(fabsf(v.x) < far_off_grid && fabsf(v.y) < far_off_grid && fabsf(v.z) < far_off_grid)) continue;
        int ix = wrap_once((int)rintf(v.x), onx, s->wrap.x);
        int iy = wrap_once((int)rintf(v.y), ony, s->wrap.y);
        int iz = wrap_once((int)rintf(v.z), onz, s->wrap.z);
        if (ix < 0 || ix >= onx || iy < 0 || iy >= ony || iz < 0 || iz >= onz) continue;
        if (s->src[(size_t)ix + (size_t)onx * (size_t)iy + on2d * (size_t)iz] == 0.0f) continue;

        voxel_job *j = &w->job[pending];
        j->vox = vox;
        w->nplain++;
        axis_weights(&j->a[0], v.x, onx, s->wrap.x, s->half.x, s->accurate, s->sigma.x);
        axis_weights(&j->a[1], v.y, ony, s->wrap.y, s->half.y, s->accurate, s->sigma.y);
        axis_weights(&j->a[2], v.z, onz, s->wrap.z, s->half.z, s->accurate, s->sigma.z);
        if (++pending < 2) continue;
        pending = 0;
        voxel_job *j0 = &w->job[0], *j1 = &w->job[1];
        if (j0->a[0].count == j1->a[0].count && j0->a[1].count == j1->a[1].count &&
            j0->a[2].count == j1->a[2].count) {
            accumulate_pair(s, j0, j1, w->wzx0, w->wzx1);
        } else {
            accumulate_one(s, j0, w->wzx0);
            accumulate_one(s, j1, w->wzx0);
        }
    }
    if (pending == 1) accumulate_one(s, &w->job[0], w->wzx0);
    if (listed != NULL)
        for (int x = xbegin; x < xend; x++) listed[x - xbegin] = s->dst[row0 + (size_t)x];
}

void resample_segment(const resample_setup *s, resample_scratch *w, int y, int z, int xbegin, int xend, float *listed)
{
    if (s->level >= SIMD_AVX512) resample_row_avx512(s, w, y, z, xbegin, xend, listed);
    else resample_row_plain(s, w, y, z, xbegin, xend, listed);
}

void resample_scratch_alloc(const resample_setup *s, resample_scratch *w)
{
    int maxw = s->half.x;
    if (s->half.y > maxw) maxw = s->half.y;
    if (s->half.z > maxw) maxw = s->half.z;
    w->nsamples = 2 * maxw + 2;
    w->nvector = w->nplain = 0;
    int *index = int_vector(6 * w->nsamples);
    float *weight = float_vector(8 * w->nsamples);
    for (int j = 0; j < 2; j++)
        for (int a = 0; a < 3; a++) {
            w->job[j].a[a].index = index + (3 * j + a) * w->nsamples;
            w->job[j].a[a].weight = weight + (3 * j + a) * w->nsamples;
        }
    w->wzx0 = weight + 6 * w->nsamples;
    w->wzx1 = weight + 7 * w->nsamples;
    int row_room = s->dim.x + 16;
    w->job_x = s->level >= SIMD_AVX512 ? int_vector(row_room) : NULL;
    w->job_v = s->level >= SIMD_AVX512 ? float_vector(3 * row_room) : NULL;
    w->chunk_at = s->level >= SIMD_AVX512 ? int_vector(row_room) : NULL;
    w->chunk_ok = s->level >= SIMD_AVX512 ? unsigned_short_vector(2 * (row_room / 16 + 1)) : NULL;
}

void resample_scratch_free(resample_scratch *w)
{
    path_counts[0] += w->nvector;
    path_counts[1] += w->nplain;
    if (w->job_x != NULL) free_int_vector(w->job_x);
    if (w->job_v != NULL) free_float_vector(w->job_v);
    if (w->chunk_at != NULL) free_int_vector(w->chunk_at);
    if (w->chunk_ok != NULL) free_unsigned_short_vector(w->chunk_ok);
    free_int_vector(w->job[0].a[0].index);
    free_float_vector(w->job[0].a[0].weight);
}

/* Rows y in [yfirst, ylast) of every slice of the region. */
static void resample_rows(const resample_setup *s, int yfirst, int ylast)
{
    resample_scratch w;
    resample_scratch_alloc(s, &w);
    for (int z = s->start.z; z < s->end.z; z++)
        for (int y = yfirst; y < ylast; y++) resample_segment(s, &w, y, z, s->start.x, s->end.x, NULL);
    resample_scratch_free(&w);
}

/* max(floor_w, floor(r)), but at most 3n + 2 for an individual axis of n voxels: a voxel is
   resampled only when its nearest sample lies within one wrap of the grid (-n - 1/2 .. 2n),
   and from there every sample beyond that half-width lies off the grid even after the one
   wrap. So the fast kernel's result is the same, and extreme voxel-size ratios (or one that
   is not a number) stay in range. */
static int kernel_half_width(float r, int floor_w, int n)
{
    int most = 3 * (n > 0 ? n : 0) + 2;
    if (!(r < (float)most)) return r != r ? floor_w : (most > floor_w ? most : floor_w);
    int w = (int)floorf(r);
    return w > floor_w ? w : floor_w;
}

void resample_setup_init(resample_setup *s, float *target, const float affine[4][4], int clear, int most_accurate)
{
    s->dim = Alignment.dimension;
    s->odim = original.dim;
    s->wrap = Alignment.WrapAround;
    s->accurate = most_accurate;
    s->clear = clear;
    s->level = simd_level();
    int floor_w = most_accurate ? 2 : 1;
    POINT3D r;
    r.x = Alignment.resolution.x / original.resolution.x;
    r.y = Alignment.resolution.y / original.resolution.y;
    r.z = Alignment.resolution.z / original.resolution.z;
    s->half.x = kernel_half_width(r.x, floor_w, s->odim.x);
    s->half.y = kernel_half_width(r.y, floor_w, s->odim.y);
    s->half.z = kernel_half_width(r.z, floor_w, s->odim.z);
    s->sigma.x = (float)(0.425 * r.x);
    s->sigma.y = (float)(0.425 * r.y);
    s->sigma.z = (float)(0.425 * r.z);

    size_t n3d = (size_t)s->dim.x * (size_t)s->dim.y * (size_t)s->dim.z;
    size_t on3d = (size_t)s->odim.x * (size_t)s->odim.y * (size_t)s->odim.z;
    s->tpl = template_.SpaceTime.fData + (size_t)iTime_Template * n3d;
    s->src = original.SpaceTime.fData + (size_t)graph.iTime * on3d;
    s->dst = target;
    if (distort_x.SpaceTime.fData != NULL && distort_y.SpaceTime.fData != NULL &&
        distort_z.SpaceTime.fData != NULL) {
        s->dx = distort_x.SpaceTime.fData;
        s->dy = distort_y.SpaceTime.fData;
        s->dz = distort_z.SpaceTime.fData;
    } else {
        s->dx = s->dy = s->dz = NULL;
    }
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) {
            s->ijk_to_xyz[i][j] = Alignment.ijk_to_xyz.m[i][j];
            s->affine[i][j] = affine[i][j];
            s->xyz_to_ijk[i][j] = Alignment.xyz_to_ijk.m[i][j];
        }
    s->start = {0, 0, 0};
    s->end = s->dim;
}

void resample_region(float *target, const float affine[4][4], IPOINT3D start, IPOINT3D end, int clear,
                     int most_accurate, int nthreads)
{
    resample_setup s;
    resample_setup_init(&s, target, affine, clear, most_accurate);
    s.start = start;
    s.end = end;
    int nrows = s.end.y - s.start.y;
    if (nrows <= 0 || s.end.z <= s.start.z || s.end.x <= s.start.x) return;
    long long nvoxels = (long long)nrows * (s.end.z - s.start.z) * (s.end.x - s.start.x);
    const resample_setup *setup = &s;
    if (nthreads == 1 || nvoxels < small_region) {  /* a small basis box: starting threads would cost more */
        resample_rows(setup, s.start.y, s.end.y);
        return;
    }
    parallel_ranges(nrows, [setup](int first, int last) {
        resample_rows(setup, setup->start.y + first, setup->start.y + last);
    });
}


/* Resamples original into individual on the template grid.
   all_voxels nonzero: the whole grid, after clearing the target time point; 0: only the box of
   basis AlignNL.iBasis (start inclusive, end exclusive), the rest of the target untouched.
   most_accurate nonzero: Lanczos kernel, half-width max(2, floor(r)); 0: Gaussian of FWHM r,
   half-width max(1, floor(r)); r = template voxel size / individual voxel size per axis.
   Template voxels of value 0 give 0. A voxel whose nearest individual voxel lies off the grid
   (after the wrap-around of Alignment.WrapAround) or holds 0 is left as it was. Each sample's
   weight is wz*wx*wy in float; value*weight and the weight sum accumulate in double, z outer,
   x inner. The centred matrices Alignment.ijk_to_xyz / xyz_to_ijk are used directly in place
   of the stacks' own. Displacement maps not yet allocated count as zero. */
void transform_coordinates(int all_voxels, int most_accurate)
{
    define_affine_matrix();
    size_t n3d = (size_t)Alignment.dimension.x * (size_t)Alignment.dimension.y * (size_t)Alignment.dimension.z;
    float *dst = individual.SpaceTime.fData + (size_t)graph.iTime * n3d;
    if (all_voxels) {
        IPOINT3D origin = {0, 0, 0};
        resample_region(dst, Alignment.Affine, origin, Alignment.dimension, 1, most_accurate, 0);
    } else {
        resample_region(dst, Alignment.Affine, AlignNL.Index3DStart[AlignNL.iBasis],
                        AlignNL.Index3DEnd[AlignNL.iBasis], 0, most_accurate, 0);
    }
}
