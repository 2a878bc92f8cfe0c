/* The reference non-linear cost, map update and coefficient search: the straightforward loops,
   one voxel and one histogram cell at a time. Reads template_, individual, distort_*, AlignNL,
   AlignAid; writes its own running totals, the maps (through reference_Set_AlignNL_Value) and
   AlignNL's coefficients, steps and flags. */
#include "nl_reference.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "affine_search.h"
#include "display_hooks.h"
#include "globals.h"
#include "numerics.h"
#include "resample.h"
#include "similarity.h"

#define NBINS 50

namespace {

int MI_number_voxels = 0;
float MI_prob_I[NBINS], MI_prob_T[NBINS], MI_prob_IT[NBINS][NBINS];
float av_individual = 1.0f, av_template = 1.0f, min = 0.0f, max = 0.0f;
float DEF_sum2 = 0.0f;
int DEF_nvoxels = 0;
int MI_save_voxels;
float MI_save_I[NBINS], MI_save_T[NBINS], MI_save_IT[NBINS][NBINS];

void region(int whole, IPOINT3D *start, IPOINT3D *end)
{
    if (whole) {
        *start = {0, 0, 0};
        *end = template_.dim;
    } else {
        *start = AlignNL.Index3DStart[AlignNL.iBasis];
        *end = AlignNL.Index3DEnd[AlignNL.iBasis];
    }
}

const float *template_volume(void) { return template_.SpaceTime.fData + (size_t)iTime_Template * template_.n3d; }
const float *individual_volume(void) { return individual.SpaceTime.fData + (size_t)graph.iTime * individual.n3d; }

int intensity_bin(float v, float lo, float range)
{
    float f = (v - lo) * NBINS / range;
    if (f > 49) return 49;
    if (!(f >= 0)) return 0;
    return (int)f;
}

}  // namespace

const nl_cost_totals *reference_cost_totals(void)
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

void set_reference_cost_totals(const nl_cost_totals *t)
{
    MI_number_voxels = t->MI_number_voxels;
    memcpy(MI_prob_I, t->MI_prob_I, sizeof MI_prob_I);
    memcpy(MI_prob_T, t->MI_prob_T, sizeof MI_prob_T);
    memcpy(MI_prob_IT, t->MI_prob_IT, sizeof MI_prob_IT);
    av_individual = t->av_individual;
    av_template = t->av_template;
    min = t->min;
    max = t->max;
    DEF_sum2 = t->DEF_sum2;
    DEF_nvoxels = t->DEF_nvoxels;
}

float reference_cost_function_nonlinear(int icost, int InitProbeSet)
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
        if (InitProbeSet == 0) reference_calculate_volume_averages_nonlinear(1, &av_individual, &av_template, &min, &max);
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
                similarity = reference_mutual_information(MI_number_voxels, MI_prob_I, MI_prob_T, &MI_prob_IT[0][0]);
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
        return (float)(similarity + reference_cost_deformation(InitProbeSet, 1) * ((float)L2 / -10.0));
    }
    return similarity;
}

float reference_mutual_information(int number_voxels, const float *prob_I, const float *prob_T, const float *prob_IT)
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

void reference_calculate_volume_averages_nonlinear(int all_bases, float *av_ind, float *av_tpl, float *vmin, float *vmax)
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

float reference_bending_penalty(int valid_plus, int valid_minus, float delta_plus, float delta_minus, float res2)
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

namespace {

float regular_axis_term(const float *D, int idx, int stride, int vp, int vm, float d0, float res2,
                        float *delta_plus, float *delta_minus, float *d_next)
{
    if (vp) { *d_next = D[idx + stride]; *delta_plus = *d_next - d0; }
    if (vm) *delta_minus = d0 - D[idx - stride];
    return reference_bending_penalty(vp, vm, *delta_plus, *delta_minus, res2);
}

}  // namespace

float reference_cost_deformation(int InitProbeSet, int normalize)
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
                    fAdd += reference_bending_penalty(vp, vm, delta_plus, delta_minus, r2x);
                    vp = yp; vm = ym;
                    if (vp) { d_next = D[idx + nx]; delta_plus = d_next - d0; }
                    if (vm) delta_minus = d_next - d0;
                    fAdd += reference_bending_penalty(vp, vm, delta_plus, delta_minus, r2y);
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

int reference_number_invalid_distortions(int all_voxels, int ilevel, int ipass)
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
        float c_nl = reference_cost_function_nonlinear(AlignAid.CostFunction, 0);
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

namespace {

float axis_factor(int c, int F, int odd)
{
    double arg = odd ? (c - F) * 1.570796327 / F : c * 1.570796327 / F;
    double cs = cos(arg);
    if (cs == 0.0) return 0.0f;
    return (float)(cs * cs);
}

float basis_value(int iBasis, int x, int y, int z)
{
    IPOINT3D b = AlignNL.iBasis1D[iBasis];
    float fx = axis_factor(x, AlignNL.BasisFWHM.x, b.x % 2);
    float fy = axis_factor(y, AlignNL.BasisFWHM.y, b.y % 2);
    float fz = axis_factor(z, AlignNL.BasisFWHM.z, b.z % 2);
    return fz * fx * fy;
}

}  // namespace

void reference_Set_AlignNL_Value(int iCoeff, float value)
{
    data_stack *map;
    if (AlignNL.iCoeff < AlignNL.NBasis)
        map = &distort_x;
    else if (AlignNL.iCoeff < 2 * AlignNL.NBasis)
        map = &distort_y;
    else
        map = &distort_z;
    float *m = map->SpaceTime.fData;
    float old = AlignNL.value[iCoeff];
    IPOINT3D s = AlignNL.Index3DStart[AlignNL.iBasis], e = AlignNL.Index3DEnd[AlignNL.iBasis];
    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++)
            for (int x = s.x; x < e.x; x++) {
                float B = basis_value(AlignNL.iBasis, x, y, z);
                size_t i = (size_t)x + (size_t)template_.dim.x * ((size_t)y + (size_t)template_.dim.y * (size_t)z);
                m[i] -= old * B;
                m[i] += value * B;
            }
    AlignNL.value[iCoeff] = value;
    transform_coordinates(0, 0);
}

namespace {

int folds(int b0)
{
    return b0 == 0 && reference_number_invalid_distortions(0, 0, 0) != 0;
}

int adjusted_components(void)
{
    return (AlignNL.Adjust.x != 0) + (AlignNL.Adjust.y != 0) + (AlignNL.Adjust.z != 0);
}

}  // namespace

int reference_line_scan_1d_nonlinear(float cost_initial, int icost)
{
    int c = AlignNL.iCoeff;
    float h = AlignNL.increment[c];
    int b0 = reference_number_invalid_distortions(0, 0, 0);
    float value_initial = AlignNL.value[c];
    reference_cost_function_nonlinear(icost, 1);

    float X[3] = {value_initial - h, value_initial, value_initial + h};
    reference_Set_AlignNL_Value(c, X[0]);
    float cost0 = reference_cost_function_nonlinear(icost, 2);
    reference_Set_AlignNL_Value(c, X[2]);
    float cost2 = reference_cost_function_nonlinear(icost, 2);
    float Y[3] = {cost0, cost_initial, cost2};
    float xbest, ybest;

    if (cost_initial > cost0 && cost_initial > cost2) {
        ParabolicInterpolation(X, Y, &xbest, &ybest);
        if (std::isnan(xbest) || std::isnan(ybest)) {
            printf("NAN instance 1\n");
            fflush(stdout);
            exit(1);
        }
        reference_Set_AlignNL_Value(c, xbest);
        if (folds(b0)) {
            reference_Set_AlignNL_Value(c, value_initial);
            AlignNL.increment[c] = h / 2;
            return 0;
        }
        float cost = reference_cost_function_nonlinear(icost, 2);
        if (cost > cost_initial) {
            AlignNL.increment[c] = h / 2;
            return 1;
        }
        reference_Set_AlignNL_Value(c, value_initial);
        return 0;
    }

    if (cost_initial == cost0 || cost_initial == cost2) {
        if (folds(b0)) {
            reference_Set_AlignNL_Value(c, value_initial);
            AlignNL.increment[c] = h / 2;
        }
        return 0;
    }

    int sign;
    if (cost0 > cost_initial)
        sign = -1;
    else if (cost2 > cost_initial)
        sign = 1;
    else {
        printf("Programming or memory error in line_scan_1d_nonlinear\n");
        printf("X3Point = (%g %g %g), Y3Point = (%g %g %g)\n", X[0], X[1], X[2], Y[0], Y[1], Y[2]);
        fflush(stdout);
        exit(1);
    }

    float value = sign < 0 ? X[0] : X[2];
    float cost_best = sign < 0 ? cost0 : cost2;
    reference_Set_AlignNL_Value(c, value);
    if (folds(b0)) {
        reference_Set_AlignNL_Value(c, value_initial);
        AlignNL.increment[c] = h / 2;
        return 0;
    }
    if ((cost_best - cost_initial) / cost_best < 1e-5) return 1;

    float cost_previous = cost_best;
    for (int step = 0; step < 10; step++) {
        value += sign * h;
        reference_Set_AlignNL_Value(c, value);
        float cost = reference_cost_function_nonlinear(icost, 2);
        if (sign < 0) {
            X[2] = X[1]; X[1] = X[0]; X[0] = value;
            Y[2] = Y[1]; Y[1] = Y[0]; Y[0] = cost;
        } else {
            X[0] = X[1]; X[1] = X[2]; X[2] = value;
            Y[0] = Y[1]; Y[1] = Y[2]; Y[2] = cost;
        }
        if (cost < cost_previous) break;
        cost_previous = cost;
    }

    ParabolicInterpolation(X, Y, &xbest, &ybest);
    if (std::isnan(xbest)) {
        reference_Set_AlignNL_Value(c, value_initial);
        printf("NAN instance 2: (%g %g %g) and (%g %g %g)\n", X[0], X[1], X[2], Y[0], Y[1], Y[2]);
        fflush(stdout);
        exit(1);
    }
    reference_Set_AlignNL_Value(c, xbest);
    if (folds(b0)) {
        reference_Set_AlignNL_Value(c, value_initial);
        AlignNL.increment[c] = h / 2;
        return 0;
    }
    float cost = reference_cost_function_nonlinear(icost, 2);
    if (!(cost > cost_initial)) {
        reference_Set_AlignNL_Value(c, value_initial);
        return 0;
    }
    return 1;
}

void reference_adjust_the_adjust_flags(int icost)
{
    (void)icost;
    int NBasis = AlignNL.NBasis;
    int k = adjusted_components();
    float total = reference_cost_deformation(0, 0);
    float ignored = 0.0f, reinstated = 0.0f;
    int comp_adjust[3] = {AlignNL.Adjust.x, AlignNL.Adjust.y, AlignNL.Adjust.z};
    for (int n = 0; n < NBasis; n++) {
        int off = 0;
        for (int a = 0; a < 3; a++)
            if (comp_adjust[a] && AlignNL.Adjust3D[a * NBasis + n] == 0) off++;
        if (off == 0) continue;
        ignored += off;
        AlignNL.iBasis = n;
        float local = reference_cost_deformation(4, 0);
        if (pow(2.0, k) * total / NBasis < local || reference_number_invalid_distortions(0, 0, 0) != 0) {
            for (int a = 0; a < 3; a++)
                if (comp_adjust[a]) {
                    AlignNL.Adjust3D[a * NBasis + n] = 1;
                    reinstated += 1;
                }
        }
    }
    printf("Percent ignored %g, Percent reinstated = %g\n", ignored * 100 / (float)(NBasis * k),
           reinstated * 100 / (float)(NBasis * k));
    fflush(stdout);
}

void reference_adjust_nonlinear_1pass(int ilevel, int ipass, int icost, float cost_start)
{
    int NBasis = AlignNL.NBasis;
    int NCoeff = NBasis * adjusted_components();
    int interval = NCoeff < 1000 ? 10 : NCoeff < 10000 ? 100 : NCoeff < 100000 ? 1000 : 5000;

    int nbad = reference_number_invalid_distortions(1, ilevel, ipass);
    if (nbad != 0 && ilevel == 1)
        for (int n = 0; n < NBasis; n++) {
            if (AlignNL.Adjust.x) AlignNL.Adjust3D[n] = 1;
            if (AlignNL.Adjust.y) AlignNL.Adjust3D[NBasis + n] = 1;
            if (AlignNL.Adjust.z) AlignNL.Adjust3D[2 * NBasis + n] = 1;
        }

    char text1[1024], text2[1024], text3[1024];
    if (icost == 0)
        snprintf(text1, sizeof text1, "MI = %5.3f            , level #%d, bad links = %d",
                 cost_function(AlignAid.CostFunction), ilevel, nbad);
    else
        snprintf(text1, sizeof text1, "normalized correlation, level %d", ilevel);

    float cost = cost_start;
    int j = 0;
    for (AlignNL.iCoeff = 0; AlignNL.iCoeff < 3 * NBasis; AlignNL.iCoeff++) {
        int c = AlignNL.iCoeff;
        if (AlignNL.Adjust3D[c] == 0) continue;
        if (j % interval == 0) {
            snprintf(text2, sizeof text2, "coefficients: %7d ,  pass #%d", NCoeff, ipass + 1);
            snprintf(text3, sizeof text3, "coefficent  : %7d", j);
            show_on_info_line(text1, text2, text3);
        }
        float r;
        if (c < NBasis) {
            AlignNL.iBasis = c;
            r = template_.resolution.x;
        } else if (c < 2 * NBasis) {
            AlignNL.iBasis = c - NBasis;
            r = template_.resolution.y;
        } else {
            AlignNL.iBasis = c - 2 * NBasis;
            r = template_.resolution.z;
        }
        float old_value = AlignNL.value[c];
        int moved = reference_line_scan_1d_nonlinear(cost, icost);
        if (moved == 0 || fabs(AlignNL.value[c] - old_value) < r / 10) AlignNL.Adjust3D[c] = 0;
        cost = reference_cost_function_nonlinear(icost, 3);
        j++;
    }

    reference_adjust_the_adjust_flags(icost);
    transform_coordinates(1, 0);
    show_alignment_info();
    update_image_selectable_text();
    draw_selectable_text_image();
    build_image_display(0);
}
