/* The non-linear cost: mutual information or correlation of individual against template_, minus
   the bending penalty of distort_x/y/z, kept as running totals so that one basis box can be
   probed cheaply; and the count of folded voxels. Reads template_, individual, distort_*,
   AlignNL, AlignAid; prints the fold summary. No X11. */
#include "nl_cost.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "globals.h"
#include "similarity.h"

#define NBINS 50

/* Running totals, valid between a code-0 call and the next change of the maps made outside the
   probe protocol. */
static int MI_number_voxels = 0;
static float MI_prob_I[NBINS], MI_prob_T[NBINS], MI_prob_IT[NBINS][NBINS];
static float av_individual = 1.0f, av_template = 1.0f, min = 0.0f, max = 0.0f;
static float DEF_sum2 = 0.0f;
static int DEF_nvoxels = 0;

/* Local histograms of the box under probe. */
static int MI_save_voxels;
static float MI_save_I[NBINS], MI_save_T[NBINS], MI_save_IT[NBINS][NBINS];

const nl_cost_totals *nonlinear_cost_totals(void)
{
    static nl_cost_totals t;
    t.MI_number_voxels = MI_number_voxels;
    memcpy(t.MI_prob_I, MI_prob_I, sizeof MI_prob_I);
    memcpy(t.MI_prob_T, MI_prob_T, sizeof MI_prob_T);
    memcpy(t.MI_prob_IT, MI_prob_IT, sizeof MI_prob_IT);
    t.av_individual = av_individual;
    t.av_template = av_template;
    t.min = min;
    t.max = max;
    t.DEF_sum2 = DEF_sum2;
    t.DEF_nvoxels = DEF_nvoxels;
    return &t;
}

/* The walked region: the whole grid, or the current basis box with an exclusive end. */
static void region(int whole, IPOINT3D *start, IPOINT3D *end)
{
    if (whole) {
        *start = {0, 0, 0};
        *end = template_.dim;
    } else {
        *start = AlignNL.Index3DStart[AlignNL.iBasis];
        *end = AlignNL.Index3DEnd[AlignNL.iBasis];
    }
}

static const float *template_volume(void) { return template_.SpaceTime.fData + (size_t)iTime_Template * template_.n3d; }
static const float *individual_volume(void) { return individual.SpaceTime.fData + (size_t)graph.iTime * individual.n3d; }

/* Bin of a scaled value in the common range; a NaN value falls into bin 0. */
static int intensity_bin(float v, float lo, float range)
{
    float f = (v - lo) * NBINS / range;
    if (f > 49) return 49;
    if (!(f >= 0)) return 0;
    return (int)f;
}

float cost_function_nonlinear(int icost, int InitProbeSet)
{
    IPOINT3D s, e;
    region(InitProbeSet == 0, &s, &e);
    const float *T = template_volume();
    const float *I = individual_volume();
    int nx = template_.dim.x, n2d = template_.dim.x * template_.dim.y;
    float similarity = 0.0f;

    if (icost != 0) {
        float sII = 0.0f, sTT = 0.0f, sIT = 0.0f;
        for (int z = s.z; z < e.z; z++)
            for (int y = s.y; y < e.y; y++) {
                int row = z * n2d + y * nx;
                for (int x = s.x; x < e.x; x++) {
                    float t = T[row + x];
                    if (t == 0.0f) continue;
                    float i = I[row + x];
                    sII += i * i;
                    sTT += t * t;
                    sIT += i * t;
                }
            }
        if (sII != 0.0f && sTT != 0.0f) similarity = (float)(sIT / sqrt((double)sII) / sqrt((double)sTT));
    } else {
        if (InitProbeSet == 0) calculate_volume_averages_nonlinear(1, &av_individual, &av_template, &min, &max);
        float range = max - min;
        if (range > 0) {
            if (InitProbeSet == 0) {
                memset(MI_prob_I, 0, sizeof MI_prob_I);
                memset(MI_prob_T, 0, sizeof MI_prob_T);
                memset(MI_prob_IT, 0, sizeof MI_prob_IT);
                MI_number_voxels = 0;
            }
            memset(MI_save_I, 0, sizeof MI_save_I);
            memset(MI_save_T, 0, sizeof MI_save_T);
            memset(MI_save_IT, 0, sizeof MI_save_IT);
            MI_save_voxels = 0;
            int into_totals = InitProbeSet != 1;
            int into_box = InitProbeSet == 1 || InitProbeSet == 2;
            for (int z = s.z; z < e.z; z++)
                for (int y = s.y; y < e.y; y++) {
                    int row = z * n2d + y * nx;
                    for (int x = s.x; x < e.x; x++) {
                        float t = T[row + x];
                        if (t == 0.0f) continue;
                        int bi = intensity_bin(I[row + x] / av_individual, min, range);
                        int bt = intensity_bin(t / av_template, min, range);
                        if (into_totals) {
                            MI_prob_I[bi] += 1;
                            MI_prob_T[bt] += 1;
                            MI_prob_IT[bi][bt] += 1;
                            MI_number_voxels++;
                        }
                        if (into_box) {
                            MI_save_I[bi] += 1;
                            MI_save_T[bt] += 1;
                            MI_save_IT[bi][bt] += 1;
                            MI_save_voxels++;
                        }
                    }
                }
            if (MI_number_voxels != 0)
                similarity = mutual_information(MI_number_voxels, MI_prob_I, MI_prob_T, &MI_prob_IT[0][0]);
            if (into_box) {
                for (int a = 0; a < NBINS; a++) {
                    MI_prob_I[a] -= MI_save_I[a];
                    if (MI_prob_I[a] < 0) MI_prob_I[a] = 0;
                    MI_prob_T[a] -= MI_save_T[a];
                    if (MI_prob_T[a] < 0) MI_prob_T[a] = 0;
                    for (int b = 0; b < NBINS; b++) {
                        MI_prob_IT[a][b] -= MI_save_IT[a][b];
                        if (MI_prob_IT[a][b] < 0) MI_prob_IT[a][b] = 0;
                    }
                }
                MI_number_voxels -= MI_save_voxels;
            }
        }
    }

    if (AlignNL.Lambda_reg != 0) {
        int L2 = AlignNL.Lambda_reg * AlignNL.Lambda_reg;
        return (float)(similarity + cost_deformation(InitProbeSet, 1) * ((float)L2 / -10.0));
    }
    return similarity;
}

float mutual_information(int number_voxels, float *prob_I, float *prob_T, float *prob_IT)
{
    float mi = 0.0f;
    if (number_voxels <= 0) return mi;
    float N = (float)number_voxels;
    for (int a = 0; a < NBINS; a++) {
        if (!(prob_I[a] > 0)) continue;
        for (int b = 0; b < NBINS; b++) {
            float nab = prob_IT[a * NBINS + b];
            if (!(nab > 0) || !(prob_T[b] > 0)) continue;
            float ratio = nab * N / prob_I[a] / prob_T[b];
            mi += (nab / N) * log((double)ratio);
        }
    }
    return mi;
}

void calculate_volume_averages_nonlinear(int all_bases, float *av_ind, float *av_tpl, float *vmin, float *vmax)
{
    IPOINT3D s, e;
    region(all_bases != 0, &s, &e);
    const float *T = template_volume();
    const float *I = individual_volume();
    int nx = template_.dim.x, n2d = template_.dim.x * template_.dim.y;
    float sum_i = 0.0f, sum_t = 0.0f;
    int n = 0;
    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++) {
            int row = z * n2d + y * nx;
            for (int x = s.x; x < e.x; x++) {
                if (T[row + x] == 0.0f) continue;
                sum_i += I[row + x];
                sum_t += T[row + x];
                n++;
            }
        }
    *av_ind = sum_i / (float)n;
    *av_tpl = sum_t / (float)n;
    if (*av_ind == 0.0f) *av_ind = 1.0f;
    float lo = 1e10f, hi = 0.0f;
    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++) {
            int row = z * n2d + y * nx;
            for (int x = s.x; x < e.x; x++) {
                if (T[row + x] == 0.0f) continue;
                float i = I[row + x] / *av_ind;
                float t = T[row + x] / *av_tpl;
                if (i < lo) lo = i;
                if (t < lo) lo = t;
                if (i > hi) hi = i;
                if (t > hi) hi = t;
            }
        }
    *vmin = lo;
    *vmax = hi;
}

float bending_penalty(int valid_plus, int valid_minus, float delta_plus, float delta_minus, float res2)
{
    float s = AlignNL.stiffness;
    float p = 0.0f;
    if (valid_plus && delta_plus != 0.0f) {
        float q = delta_plus * delta_plus / res2;
        p += s / 2 * (q * q);
    }
    if (valid_minus && delta_minus != 0.0f) {
        float q = delta_minus * delta_minus / res2;
        p += s / 2 * (q * q);
    }
    if (!valid_plus || !valid_minus) return p;
    float m = (delta_plus + delta_minus) / 2;
    float k = m * m + res2;
    float d = delta_plus - delta_minus;
    return p + (1 - s) * (d * d) * (res2 * res2) / (k * k * k);
}

/* One axis of one map at one voxel: the forward and backward differences (each only when that
   neighbour lies inside the grid; otherwise the previous value stays, as the z map's slips
   rely on) and their bending penalty. */
static inline float regular_axis_term(const float *D, int idx, int stride, int vp, int vm, float d0,
                                      float res2, float *delta_plus, float *delta_minus, float *d_next)
{
    if (vp) { *d_next = D[idx + stride]; *delta_plus = *d_next - d0; }
    if (vm) *delta_minus = d0 - D[idx - stride];
    return bending_penalty(vp, vm, *delta_plus, *delta_minus, res2);
}

/* Deliberate: the z map keeps two slips (backward x difference stored as delta_plus with a stale
   delta_minus; the y backward difference taken from the last "next" value loaded). The deltas and
   the last "next" value live across components and voxels, as the slips require. Pinned by
   CostDeformation.ZMapKeepsItsTwoSlips. */
float cost_deformation(int InitProbeSet, int normalize)
{
    IPOINT3D s, e;
    region(InitProbeSet == 0, &s, &e);
    if (InitProbeSet == 0 || InitProbeSet == 4) {
        DEF_sum2 = 0.0f;
        DEF_nvoxels = 0;
    }
    IPOINT3D dim = template_.dim;
    int nx = dim.x, n2d = dim.x * dim.y;
    float r2x = template_.resolution.x * template_.resolution.x;
    float r2y = template_.resolution.y * template_.resolution.y;
    float r2z = template_.resolution.z * template_.resolution.z;
    const float *DX = distort_x.SpaceTime.fData;
    const float *DY = distort_y.SpaceTime.fData;
    const float *DZ = distort_z.SpaceTime.fData;
    float box_sum = 0.0f;
    int box_n = 0;
    float delta_plus = 0.0f, delta_minus = 0.0f, d_next = 0.0f;
    int vp, vm;

    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++)
            for (int x = s.x; x < e.x; x++) {
                int idx = z * n2d + y * nx + x;
                float fAdd = 0.0f;
                int xp = x + 1 < dim.x, xm = x - 1 >= 0;
                int yp = y + 1 < dim.y, ym = y - 1 >= 0;
                int zp = z + 1 < dim.z, zm = z - 1 >= 0;
                if (AlignNL.Adjust.x) {
                    const float *D = DX;
                    float d0 = D[idx];
                    fAdd += regular_axis_term(D, idx, 1, xp, xm, d0, r2x, &delta_plus, &delta_minus, &d_next);
                    fAdd += regular_axis_term(D, idx, nx, yp, ym, d0, r2y, &delta_plus, &delta_minus, &d_next);
                    fAdd += regular_axis_term(D, idx, n2d, zp, zm, d0, r2z, &delta_plus, &delta_minus, &d_next);
                }
                if (AlignNL.Adjust.y) {
                    const float *D = DY;
                    float d0 = D[idx];
                    fAdd += regular_axis_term(D, idx, nx, yp, ym, d0, r2y, &delta_plus, &delta_minus, &d_next);
                    fAdd += regular_axis_term(D, idx, 1, xp, xm, d0, r2x, &delta_plus, &delta_minus, &d_next);
                    fAdd += regular_axis_term(D, idx, n2d, zp, zm, d0, r2z, &delta_plus, &delta_minus, &d_next);
                }
                if (AlignNL.Adjust.z) {
                    const float *D = DZ;
                    float d0 = D[idx];
                    fAdd += regular_axis_term(D, idx, n2d, zp, zm, d0, r2z, &delta_plus, &delta_minus, &d_next);
                    vp = xp; vm = xm;
                    if (vp) { d_next = D[idx + 1]; delta_plus = d_next - d0; }
                    if (vm) delta_plus = d0 - D[idx - 1];
                    fAdd += bending_penalty(vp, vm, delta_plus, delta_minus, r2x);
                    vp = yp; vm = ym;
                    if (vp) { d_next = D[idx + nx]; delta_plus = d_next - d0; }
                    if (vm) delta_minus = d_next - d0;
                    fAdd += bending_penalty(vp, vm, delta_plus, delta_minus, r2y);
                }
                if (InitProbeSet != 1) {
                    DEF_sum2 += fAdd;
                    DEF_nvoxels++;
                }
                if (InitProbeSet == 1 || InitProbeSet == 2) {
                    box_sum += fAdd;
                    box_n++;
                }
            }

    float result = DEF_sum2;
    if (normalize) result = DEF_nvoxels == 0 ? 1e10f : DEF_sum2 / (float)DEF_nvoxels;
    if (InitProbeSet == 1 || InitProbeSet == 2) {
        DEF_sum2 -= box_sum;
        DEF_nvoxels -= box_n;
    }
    return result;
}

int number_invalid_distortions(int all_voxels, int ilevel, int ipass)
{
    static int first_call = 1;
    IPOINT3D s, e;
    region(all_voxels != 0, &s, &e);
    IPOINT3D dim = template_.dim;
    int nx = dim.x, n2d = dim.x * dim.y;
    POINT3D r = template_.resolution;
    const float *T = template_volume();
    const float *DX = distort_x.SpaceTime.fData;
    const float *DY = distort_y.SpaceTime.fData;
    const float *DZ = distort_z.SpaceTime.fData;
    POINT3D cmin = {1e10f, 1e10f, 1e10f}, cmax = {-1e10f, -1e10f, -1e10f};
    float det_min = 1e10f, det_max = -1e10f;
    int nbad = 0;

    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++)
            for (int x = s.x; x < e.x; x++) {
                int idx = z * n2d + y * nx + x;
                if (T[idx] == 0.0f) continue;
                if (x + 1 >= dim.x || y + 1 >= dim.y || z + 1 >= dim.z) continue;
                float sx = r.x + DX[idx + 1] - DX[idx];
                float sy = r.y + DY[idx + nx] - DY[idx];
                float sz = r.z + DZ[idx + n2d] - DZ[idx];
                if (sx < cmin.x) cmin.x = sx;
                if (sy < cmin.y) cmin.y = sy;
                if (sz < cmin.z) cmin.z = sz;
                if (sx > cmax.x) cmax.x = sx;
                if (sy > cmax.y) cmax.y = sy;
                if (sz > cmax.z) cmax.z = sz;
                float a00 = 1 + (DX[idx + 1] - DX[idx]) / r.x;
                float a01 = (DY[idx + 1] - DY[idx]) / r.x;
                float a02 = (DZ[idx + 1] - DZ[idx]) / r.x;
                float a10 = (DX[idx + nx] - DX[idx]) / r.y;
                float a11 = 1 + (DY[idx + nx] - DY[idx]) / r.y;
                float a12 = (DZ[idx + nx] - DZ[idx]) / r.y;
                float a20 = (DX[idx + n2d] - DX[idx]) / r.z;
                float a21 = (DY[idx + n2d] - DY[idx]) / r.z;
                float a22 = 1 + (DZ[idx + n2d] - DZ[idx]) / r.z;
                float det = a00 * (a11 * a22 - a12 * a21) - a01 * (a10 * a22 - a12 * a20) +
                            a02 * (a10 * a21 - a11 * a20);
                if (det < det_min) det_min = det;
                if (det > det_max) det_max = det;
                if ((double)det <= 0.2) nbad++;
            }

    if (first_call) printf("\nresolution: %g %g %g\n", r.x, r.y, r.z);
    if (first_call || ipass != 0) {
        printf("\n");
        printf("min dist (contraction): %g %g %g\n", cmin.x, cmin.y, cmin.z);
        printf("max dist (expansion)  : %g %g %g\n", cmax.x, cmax.y, cmax.z);
        printf("min & max determinant : %g %g    (# bad = %d)\n", det_min, det_max, nbad);
        first_call = 0;
        float c_nl = cost_function_nonlinear(AlignAid.CostFunction, 0);
        float c_aff = cost_function(AlignAid.CostFunction);
        if (ipass < 0)
            printf("MI = %g / %g on final pass for level %d\n", c_aff, c_nl, ilevel);
        else
            printf("MI = %g / %g for level %d and pass %d\n", c_aff, c_nl, ilevel, ipass);
        fflush(stdout);
    }
    first_call = 0;
    return nbad;
}
