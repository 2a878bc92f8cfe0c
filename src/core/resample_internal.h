#pragma once
/* Shared by the resampling (resample.cpp) and its vector kernels (resample_avx512.cpp): the
   fixed inputs of one call, the per-thread scratch, and the plain per-voxel arithmetic that
   every path must reproduce bit for bit. No globals, no X11. */
#include <cmath>
#include <cstddef>

#include "types.h"
#include "voxel_walk.h"

/* Everything a range of slices needs, fixed for the whole call. */
struct resample_setup {
    IPOINT3D dim;          /* template grid (Alignment.dimension) */
    IPOINT3D start, end;   /* region walked, end exclusive */
    IPOINT3D odim;         /* individual's grid */
    IPOINT3D wrap;         /* nonzero: that axis of the individual wraps around */
    IPOINT3D half;         /* kernel half-widths */
    POINT3D sigma;         /* Gaussian widths (fast kernel) */
    int accurate;          /* Lanczos kernel */
    int clear;             /* every voxel of the region is written: 0 where nothing is computed */
    int level;             /* simd_level() of the call */
    const float *tpl;      /* template_ volume in use */
    const float *src;      /* original volume in use */
    float *dst;            /* target volume on the template grid */
    const float *dx, *dy, *dz; /* displacement maps (time point 0) or NULL */
    float ijk_to_xyz[4][4], affine[4][4], xyz_to_ijk[4][4];
};

/* The kernels of numerics.cpp, Gauss(d, 0, sigma) and Lanczos_filter(n, d), with the same
   arithmetic, here so that they inline into the weight loops. */
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

/* One voxel waiting for its weighted sum: its element and its samples along x, y, z. */
struct voxel_job {
    size_t vox;
    axis_samples a[3];
};

/* Per-thread scratch of one call: the plain path's sample lists and the vector path's voxel
   lists, for one row of the region. */
struct resample_scratch {
    int nsamples;          /* 2 * largest half-width + 2 */
    voxel_job job[2];
    float *wzx0, *wzx1;
    long long nvector;     /* voxels whose vector sum was decided */
    long long nplain;      /* voxels computed by the plain arithmetic */
    int *job_x;            /* vector path: x of each voxel to compute in the row */
    float *job_v;          /* its position in the individual: x, y, z blocks of the row length */
    int *chunk_at;         /* vector path: the nearest voxel's element of each voxel of the row */
    unsigned short *chunk_ok; /* vector path: per 16 voxels, those taking part and those to compute */
};

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

/* The plain arithmetic of one voxel at individual position v, whose nearest voxel was found
   inside the grid and nonzero: samples and weights per axis, then the weighted average. */
void resample_voxel_plain(const resample_setup *s, resample_scratch *w, size_t vox, POINT3D v);

/* The voxels x in [xbegin, xend) of row (y, z). listed NULL: the plain walk of the region,
   testing each template value. listed not NULL: every voxel of the segment takes part (its
   template value is not 0) and the region is cleared; each voxel's result (0 when nothing is
   computed) is also written to listed[x - xbegin]. */
void resample_segment(const resample_setup *s, resample_scratch *w, int y, int z, int xbegin, int xend, float *listed);
/* The same by the AVX-512 row; defined only where the compiler supports the target attribute. */
void resample_row_avx512(const resample_setup *s, resample_scratch *w, int y, int z, int xbegin, int xend, float *listed);
/* Fills a setup for the current globals: the target, the affine matrix, clear and kernel. */
void resample_setup_init(resample_setup *s, float *target, const float affine[4][4], int clear, int most_accurate);
/* Per-thread scratch for a setup, and its release (adding its path counts to the totals). */
void resample_scratch_alloc(const resample_setup *s, resample_scratch *w);
void resample_scratch_free(resample_scratch *w);
/* Gaussian weights of n distances by the vector exponential; returns how many were done
   (a multiple of 8; the caller finishes the rest) and counts libm fallbacks. */
int gauss_weights_avx512(const float *d, int n, float sigma, float *out, int *nfallback);

/* The exponential's constants: 16/ln 2, ln 2/16 in a high part of 42 bits (so that k times it
   is exact for |k| < 2^11) and a low part, and the Taylor coefficients 1/n!. */
static const double exp_k_per_unit = 0x1.71547652b82fep+4;
static const double exp_ln2_16_hi = 0x1.62e42fefa3800p-5;
static const double exp_ln2_16_lo = 0x1.ef35793c76730p-49;
static const double exp_c2 = 0x1.0000000000000p-1;
static const double exp_c3 = 0x1.5555555555555p-3;
static const double exp_c4 = 0x1.5555555555555p-5;
static const double exp_c5 = 0x1.1111111111111p-7;
static const double exp_c6 = 0x1.6c16c16c16c17p-10;
