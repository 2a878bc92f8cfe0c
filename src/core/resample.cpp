/* Resampling of original (at graph.iTime) onto the template grid under Alignment.Affine plus
   distort_x/y/z, into individual. Reads template_, Alignment and the AlignNL boxes. No X11.
   Output voxels are independent: z-slices are shared out over threads (parallel_ranges), each
   voxel computed with the same arithmetic whatever the thread count. */
#include "resample.h"

#include <cmath>
#include <cstring>

#include "align_model.h"
#include "globals.h"
#include "numerics.h"
#include "threads.h"

/* (x,y,z,1) through rows 0..2 of m, each row summed in float over the four columns in order:
   the arithmetic of apply_mat44, kept here so that the compiler can inline it. */
static inline POINT3D apply_rows(const float m[4][4], float x, float y, float z)
{
    POINT3D r;
    float s;
    s = 0.0f; s += x * m[0][0]; s += y * m[0][1]; s += z * m[0][2]; s += 1.0f * m[0][3]; r.x = s;
    s = 0.0f; s += x * m[1][0]; s += y * m[1][1]; s += z * m[1][2]; s += 1.0f * m[1][3]; r.y = s;
    s = 0.0f; s += x * m[2][0]; s += y * m[2][1]; s += z * m[2][2]; s += 1.0f * m[2][3]; r.z = s;
    return r;
}

/* Everything a slice range needs, fixed for the whole call. */
struct resample_setup {
    IPOINT3D dim;          /* template grid (Alignment.dimension) */
    IPOINT3D start, end;   /* region walked, end exclusive */
    IPOINT3D odim;         /* individual's grid */
    IPOINT3D wrap;         /* nonzero: that axis of the individual wraps around */
    IPOINT3D half;         /* kernel half-widths */
    POINT3D sigma;         /* Gaussian widths (fast kernel) */
    int accurate;
    const float *tpl;      /* template_ volume in use */
    const float *src;      /* original volume in use */
    float *dst;            /* individual volume in use */
    const float *dx, *dy, *dz; /* displacement maps (time point 0) or NULL */
    float ijk_to_xyz[4][4], affine[4][4], xyz_to_ijk[4][4];
};

/* The kernels of numerics.cpp, Gauss(d, 0, sigma) and Lanczos_filter(n, d), with the same
   arithmetic, here so that the compiler can inline them into the per-voxel weight loops. */
static inline float gauss_weight(float d, float sigma)
{
    double arg = (double)(d * d + 0.0f * 0.0f) * (-0.5) / sigma / sigma;
    return (float)exp(arg);
}

static inline float lanczos_weight(int n, float d)
{
    if (fabs((double)d) < 0.00001) return 1.0f;
    if (fabs((double)d / n) > 1.0) return 0.0f;
    double px = 3.141592654 * d;
    return (float)(n * sin(px) * sin(px / n) / (px * px));
}

/* Valid samples of one axis for one voxel: wrapped grid index and weight, in sample order. */
struct axis_samples {
    int count;
    int *index;
    float *weight;
};

static inline int wrap_once(int j, int n, int wraps)
{
    if (wraps) {
        if (j < 0) j += n;
        else if (j >= n) j -= n;
    }
    return j;
}

/* Fills the samples floor(v)-w .. ceil(v)+w of one axis, dropping those outside the grid
   (after the one wrap). Weights: Lanczos_filter(w, v - j) or Gauss(v - j, 0, sigma). */
static inline void axis_weights(axis_samples *a, float v, int n, int wraps, int w, int accurate,
                                float sigma)
{
    int lo = (int)floorf(v) - w, hi = (int)ceilf(v) + w;
    a->count = 0;
    for (int j = lo; j <= hi; j++) {
        int jj = wrap_once(j, n, wraps);
        if (jj < 0 || jj >= n) continue;
        float d = v - (float)j;
        a->index[a->count] = jj;
        a->weight[a->count] = accurate ? lanczos_weight(w, d) : gauss_weight(d, sigma);
        a->count++;
    }
}

/* Regions of fewer voxels are resampled on the calling thread. */
static const long long small_region = 4096;

/* Positions beyond this many voxels are treated as off the grid (also catches NaN). */
static const float far_off_grid = 1.0e8f;

/* One voxel waiting for its weighted sum: its element and its samples along x, y, z. */
struct voxel_job {
    size_t vox;
    axis_samples a[3];
};

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

static void resample_slices(const resample_setup *s, int zfirst, int zlast)
{
    int maxw = s->half.x;
    if (s->half.y > maxw) maxw = s->half.y;
    if (s->half.z > maxw) maxw = s->half.z;
    int nsamples = 2 * maxw + 2;
    int *index = int_vector(6 * nsamples);
    float *weight = float_vector(8 * nsamples);
    voxel_job job[2];
    for (int j = 0; j < 2; j++)
        for (int a = 0; a < 3; a++) {
            job[j].a[a].index = index + (3 * j + a) * nsamples;
            job[j].a[a].weight = weight + (3 * j + a) * nsamples;
        }
    float *wzx0 = weight + 6 * nsamples, *wzx1 = weight + 7 * nsamples;
    int pending = 0;

    const int nx = s->dim.x, ny = s->dim.y;
    const int onx = s->odim.x, ony = s->odim.y, onz = s->odim.z;
    const size_t on2d = (size_t)onx * (size_t)ony;

    for (int z = zfirst; z < zlast; z++)
        for (int y = s->start.y; y < s->end.y; y++)
            for (int x = s->start.x; x < s->end.x; x++) {
                size_t vox = (size_t)x + (size_t)nx * ((size_t)y + (size_t)ny * (size_t)z);
                if (s->tpl[vox] == 0.0f) {
                    s->dst[vox] = 0.0f;
                    continue;
                }
                POINT3D p = apply_rows(s->ijk_to_xyz, (float)x, (float)y, (float)z);
                POINT3D q = apply_rows(s->affine, p.x, p.y, p.z);
                if (s->dx != NULL) {
                    q.x += s->dx[vox];
                    q.y += s->dy[vox];
                    q.z += s->dz[vox];
                }
                POINT3D v = apply_rows(s->xyz_to_ijk, q.x, q.y, q.z);
                if (!(fabsf(v.x) < far_off_grid && fabsf(v.y) < far_off_grid &&
                      fabsf(v.z) < far_off_grid))
                    continue;
                int ix = wrap_once((int)rintf(v.x), onx, s->wrap.x);
                int iy = wrap_once((int)rintf(v.y), ony, s->wrap.y);
                int iz = wrap_once((int)rintf(v.z), onz, s->wrap.z);
                if (ix < 0 || ix >= onx || iy < 0 || iy >= ony || iz < 0 || iz >= onz) continue;
                if (s->src[(size_t)ix + (size_t)onx * (size_t)iy + on2d * (size_t)iz] == 0.0f) continue;

                voxel_job *j = &job[pending];
                j->vox = vox;
                axis_weights(&j->a[0], v.x, onx, s->wrap.x, s->half.x, s->accurate, s->sigma.x);
                axis_weights(&j->a[1], v.y, ony, s->wrap.y, s->half.y, s->accurate, s->sigma.y);
                axis_weights(&j->a[2], v.z, onz, s->wrap.z, s->half.z, s->accurate, s->sigma.z);
                if (++pending < 2) continue;
                pending = 0;
                if (job[0].a[0].count == job[1].a[0].count && job[0].a[1].count == job[1].a[1].count &&
                    job[0].a[2].count == job[1].a[2].count) {
                    accumulate_pair(s, &job[0], &job[1], wzx0, wzx1);
                } else {
                    accumulate_one(s, &job[0], wzx0);
                    accumulate_one(s, &job[1], wzx0);
                }
            }
    if (pending == 1) accumulate_one(s, &job[0], wzx0);

    free_int_vector(index);
    free_float_vector(weight);
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

    resample_setup s;
    s.dim = Alignment.dimension;
    s.odim = original.dim;
    s.wrap = Alignment.WrapAround;
    s.accurate = most_accurate;
    int floor_w = most_accurate ? 2 : 1;
    POINT3D r;
    r.x = Alignment.resolution.x / original.resolution.x;
    r.y = Alignment.resolution.y / original.resolution.y;
    r.z = Alignment.resolution.z / original.resolution.z;
    s.half.x = kernel_half_width(r.x, floor_w, s.odim.x);
    s.half.y = kernel_half_width(r.y, floor_w, s.odim.y);
    s.half.z = kernel_half_width(r.z, floor_w, s.odim.z);
    s.sigma.x = (float)(0.425 * r.x);
    s.sigma.y = (float)(0.425 * r.y);
    s.sigma.z = (float)(0.425 * r.z);

    size_t n3d = (size_t)s.dim.x * (size_t)s.dim.y * (size_t)s.dim.z;
    size_t on3d = (size_t)s.odim.x * (size_t)s.odim.y * (size_t)s.odim.z;
    s.tpl = template_.SpaceTime.fData + (size_t)iTime_Template * n3d;
    s.src = original.SpaceTime.fData + (size_t)graph.iTime * on3d;
    s.dst = individual.SpaceTime.fData + (size_t)graph.iTime * n3d;
    if (distort_x.SpaceTime.fData != NULL && distort_y.SpaceTime.fData != NULL &&
        distort_z.SpaceTime.fData != NULL) {
        s.dx = distort_x.SpaceTime.fData;
        s.dy = distort_y.SpaceTime.fData;
        s.dz = distort_z.SpaceTime.fData;
    } else {
        s.dx = s.dy = s.dz = NULL;
    }
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) {
            s.ijk_to_xyz[i][j] = Alignment.ijk_to_xyz.m[i][j];
            s.affine[i][j] = Alignment.Affine[i][j];
            s.xyz_to_ijk[i][j] = Alignment.xyz_to_ijk.m[i][j];
        }

    if (all_voxels) {
        s.start = {0, 0, 0};
        s.end = s.dim;
        memset(s.dst, 0, sizeof(float) * n3d);
    } else {
        s.start = AlignNL.Index3DStart[AlignNL.iBasis];
        s.end = AlignNL.Index3DEnd[AlignNL.iBasis];
    }
    int nslices = s.end.z - s.start.z;
    long long nvoxels = (long long)nslices * (s.end.y - s.start.y) * (s.end.x - s.start.x);
    const resample_setup *setup = &s;
    if (nvoxels < small_region) {  /* a small basis box: starting threads would cost more */
        resample_slices(setup, s.start.z, s.end.z);
        return;
    }
    parallel_ranges(nslices, [setup](int first, int last) {
        resample_slices(setup, setup->start.z + first, setup->start.z + last);
    });
}
