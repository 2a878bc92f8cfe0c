/* The basis-function deformation: the grid of cos^2 basis functions on the template grid,
   their boxes and coefficients (AlignNL), and the displacement maps distort_x/y/z (and the
   zeroing of distort_d) built from them. Reads template_ geometry; writes AlignNL, the maps
   and NL_bases. No X11: the display refresh goes through display_hooks. */
#include "nl_model.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "display_hooks.h"
#include "filters.h"
#include "globals.h"
#include "numerics.h"
#include "resample.h"
#include "volume.h"

/* Basis functions along one axis of nvoxels voxels with half-width fwhm: even bases peak at
   multiples of 2*fwhm, odd ones at odd multiples of fwhm. Fills start/peak/end (allocated
   here, freed by the caller) and returns the count.
   Deliberate: the last even basis always gets peak nvoxels-1 and end nvoxels, even when an odd
   basis comes last, so their boxes overlap (60 voxels, half-width 8: (40,59,60)).
   Pinned by CalcNumberNLBasisFunctions.WorkedExamples. */
int calc_number_NL_basis_functions(int nvoxels, int fwhm, int **peak, int **start, int **end)
{
    float f = (float)((nvoxels / 2.0) / fwhm);
    int nOdd = (int)floor(f);
    int nEven = (int)floor(f - 0.5 + 1.0);
    if (f - nOdd > 0.25) nOdd++;
    if ((f - 0.5 - nEven) + 1.0 > 0.25) nEven++;
    int count = nOdd + nEven;
    int *p = int_vector(count), *s = int_vector(count), *e = int_vector(count);
    for (int j = 0; j < nEven; j++) {
        int n = 2 * j;
        if (n >= count) break;
        s[n] = (2 * j - 1) * fwhm > 0 ? (2 * j - 1) * fwhm : 0;
        p[n] = j == 0 ? 0 : s[n] + fwhm;
        if (j == 0)
            e[n] = fwhm;
        else
            e[n] = s[n] + 2 * fwhm < nvoxels ? s[n] + 2 * fwhm : nvoxels;
    }
    if (2 * nEven - 2 >= count) {
        printf("Programming error nEven in calc_number_NL_basis_functions\n");
        printf("arg1 = %d, arg2 = %d\n", 2 * nEven - 2, count);
        fflush(stdout);
        exit(1);
    }
    p[2 * nEven - 2] = nvoxels - 1;
    e[2 * nEven - 2] = nvoxels;
    for (int j = 0; j < nOdd; j++) {
        int n = 2 * j + 1;
        if (n >= count) break;
        s[n] = 2 * j * fwhm;
        p[n] = s[n] + fwhm;
        e[n] = s[n] + 2 * fwhm < nvoxels ? s[n] + 2 * fwhm : nvoxels;
    }
    if (2 * nOdd - 1 >= count) {
        printf("Programming error nOdd in calc_number_NL_basis_functions\n");
        printf("arg1 = %d, arg2 = %d\n", 2 * nOdd - 1, count);
        fflush(stdout);
        exit(1);
    }
    if (nOdd > 0) e[2 * nOdd - 1] = nvoxels;
    *peak = p;
    *start = s;
    *end = e;
    return count;
}

/* cos^2 factor of one axis: c*1.570796327/F for an even per-axis index, (c-F)*1.570796327/F
   for an odd one; cosine in double, 0 when it is exactly 0, else its square as float.
   Deliberate: the literal 1.570796327, so the zeros of the shape are tiny but not 0.
   Pinned by NLBasisFunction.BoxEndIsInclusiveAndUsesTheLiteralQuarterTurn. */
static inline float axis_factor(int c, int F, int odd)
{
    double arg = odd ? (c - F) * 1.570796327 / F : c * 1.570796327 / F;
    double cs = cos(arg);
    if (cs == 0.0) return 0.0f;
    return (float)(cs * cs);
}

/* Value of basis iBasis at a template voxel: z factor * x factor * y factor in float, 0 outside
   the box. Deliberate: here the box end is inclusive, while the map builders walk it
   exclusively, so the end voxel never receives the basis's contribution.
   Pinned by UpdateNonlinearAlignmentParameters.BoxEndGetsNoContribution. */
float NL_Basis_function(int iBasis, IPOINT3D voxel)
{
    IPOINT3D s = AlignNL.Index3DStart[iBasis], e = AlignNL.Index3DEnd[iBasis];
    if (voxel.x < s.x || voxel.y < s.y || voxel.z < s.z || voxel.x > e.x || voxel.y > e.y ||
        voxel.z > e.z)
        return 0.0f;
    IPOINT3D b = AlignNL.iBasis1D[iBasis];
    float fx = axis_factor(voxel.x, AlignNL.BasisFWHM.x, b.x % 2);
    float fy = axis_factor(voxel.y, AlignNL.BasisFWHM.y, b.y % 2);
    float fz = axis_factor(voxel.z, AlignNL.BasisFWHM.z, b.z % 2);
    return fz * fx * fy;
}

/* The per-axis factors of basis n over its box (end exclusive), so that a walk of the box
   gives fz*fx*fy exactly as NL_Basis_function does, with each cosine taken once. */
struct box_factors {
    IPOINT3D start, end;
    float *fx, *fy, *fz;
};

static void make_box_factors(box_factors *b, int n)
{
    b->start = AlignNL.Index3DStart[n];
    b->end = AlignNL.Index3DEnd[n];
    IPOINT3D i1 = AlignNL.iBasis1D[n];
    int nx = b->end.x - b->start.x, ny = b->end.y - b->start.y, nz = b->end.z - b->start.z;
    b->fx = float_vector(nx > 0 ? nx : 1);
    b->fy = float_vector(ny > 0 ? ny : 1);
    b->fz = float_vector(nz > 0 ? nz : 1);
    for (int i = 0; i < nx; i++) b->fx[i] = axis_factor(b->start.x + i, AlignNL.BasisFWHM.x, i1.x % 2);
    for (int i = 0; i < ny; i++) b->fy[i] = axis_factor(b->start.y + i, AlignNL.BasisFWHM.y, i1.y % 2);
    for (int i = 0; i < nz; i++) b->fz[i] = axis_factor(b->start.z + i, AlignNL.BasisFWHM.z, i1.z % 2);
}

static void free_box_factors(box_factors *b)
{
    free_float_vector(b->fx);
    free_float_vector(b->fy);
    free_float_vector(b->fz);
}

/* Template-grid element of a voxel within one volume. */
static inline size_t grid_index(int x, int y, int z)
{
    return (size_t)x + (size_t)template_.dim.x * ((size_t)y + (size_t)template_.dim.y * (size_t)z);
}

/* Brings the grid up to date with AlignNL.BasisGrid and the template's dimensions (rebuilding
   the boxes, coefficients, increments and flags when either changed), optionally smooths the maps (Gaussian_smoothing),
   takes the coefficients from the maps at the basis peaks and, when recalculate_distortions
   is nonzero, rebuilds distort_x/y/z from the coefficients (distort_d is zeroed). Refreshes
   the display when it shows a map or the basis image (DisplayType > 1). */
/* The grid last built and the template dimensions it was built for. */
static int grid_built = 0;
static IPOINT3D built = {0, 0, 0}, built_dim = {0, 0, 0};

int nonlinear_grid_current(void)
{
    IPOINT3D g = AlignNL.BasisGrid, d = template_.dim;
    return grid_built && built.x == g.x && built.y == g.y && built.z == g.z && built_dim.x == d.x &&
           built_dim.y == d.y && built_dim.z == d.z;
}

void update_nonlinear_alignment_parameters(int recalculate_distortions)
{
    int first = !grid_built;
    /* A resolution change gives the template other dimensions under the same BasisGrid: the
       boxes then have to be laid out again too. */
    int new_grid = !nonlinear_grid_current();
    IPOINT3D dim = template_.dim;
    int *peak[3] = {NULL, NULL, NULL}, *start[3] = {NULL, NULL, NULL}, *end[3] = {NULL, NULL, NULL};

    if (new_grid) {
        int fw[3];
        int d[3] = {dim.x, dim.y, dim.z};
        int g[3] = {AlignNL.BasisGrid.x, AlignNL.BasisGrid.y, AlignNL.BasisGrid.z};
        int count[3];
        for (int a = 0; a < 3; a++) {
            /* A grid of no cell along an axis (a one-slice template gets 0 from its cell
               rounding) is as wide as the axis: d / g grows without bound as g falls to 0. */
            float f = g[a] != 0 ? (float)d[a] / (float)g[a] : (float)d[a];
            fw[a] = (int)rintf(f);
            if (fw[a] < 1) fw[a] = 1;
            count[a] = calc_number_NL_basis_functions(d[a], fw[a], &peak[a], &start[a], &end[a]);
        }
        AlignNL.BasisFWHM = {fw[0], fw[1], fw[2]};
        AlignNL.NBasis1D = {count[0], count[1], count[2]};
        AlignNL.NBasis = count[0] * count[1] * count[2];
        if (!first) {
            free_ipoint3d_vector(AlignNL.Index3DPeak);
            free_ipoint3d_vector(AlignNL.Index3DStart);
            free_ipoint3d_vector(AlignNL.Index3DEnd);
            free_ipoint3d_vector(AlignNL.iBasis1D);
            free_float_vector(AlignNL.value);
            free_float_vector(AlignNL.increment);
            free_int_vector(AlignNL.Adjust3D);
        }
        AlignNL.Index3DPeak = ipoint3d_vector(AlignNL.NBasis);
        AlignNL.Index3DStart = ipoint3d_vector(AlignNL.NBasis);
        AlignNL.Index3DEnd = ipoint3d_vector(AlignNL.NBasis);
        AlignNL.iBasis1D = ipoint3d_vector(AlignNL.NBasis);
        AlignNL.value = float_vector(3 * AlignNL.NBasis);
        AlignNL.increment = float_vector(3 * AlignNL.NBasis);
        AlignNL.Adjust3D = int_vector(3 * AlignNL.NBasis);
    }

    if (!first && AlignNL.Gaussian_smoothing != 0) {
        POINT3D fwhm;
        fwhm.x = AlignNL.BasisFWHM.x * template_.resolution.x * AlignNL.Gaussian_smoothing / 2;
        fwhm.y = AlignNL.BasisFWHM.y * template_.resolution.y * AlignNL.Gaussian_smoothing / 2;
        fwhm.z = AlignNL.BasisFWHM.z * template_.resolution.z * AlignNL.Gaussian_smoothing / 2;
        smooth_or_sharpen_isotropic(0, &distort_x, fwhm);
        smooth_or_sharpen_isotropic(0, &distort_y, fwhm);
        smooth_or_sharpen_isotropic(0, &distort_z, fwhm);
        smooth_or_sharpen_isotropic(0, &distort_d, fwhm);
        printf("smoothed distortion fields by %g %g %gmm\n", fwhm.x, fwhm.y, fwhm.z);
    }

    int nb = AlignNL.NBasis;
    int n = 0;
    for (int k = 0; k < AlignNL.NBasis1D.z; k++)
        for (int j = 0; j < AlignNL.NBasis1D.y; j++)
            for (int i = 0; i < AlignNL.NBasis1D.x; i++, n++) {
                AlignNL.iBasis1D[n] = {i, j, k};
                if (new_grid) {
                    AlignNL.Index3DPeak[n] = {peak[0][i], peak[1][j], peak[2][k]};
                    AlignNL.Index3DStart[n] = {start[0][i], start[1][j], start[2][k]};
                    AlignNL.Index3DEnd[n] = {end[0][i], end[1][j], end[2][k]};
                }
                /* A last odd basis can peak one past the grid (12 voxels, half-width 4:
                   peak 12); its element is then the next row's first, or at the very end one
                   of the maps' second time point, which they always have. */
                IPOINT3D p = AlignNL.Index3DPeak[n];
                size_t e = grid_index(p.x, p.y, p.z);
                AlignNL.value[n] = distort_x.SpaceTime.fData[e];
                AlignNL.value[nb + n] = distort_y.SpaceTime.fData[e];
                AlignNL.value[2 * nb + n] = distort_z.SpaceTime.fData[e];
                if (new_grid) {
                    AlignNL.increment[n] = AlignNL.BasisFWHM.x / 4.0f;
                    AlignNL.increment[nb + n] = AlignNL.BasisFWHM.y / 4.0f;
                    AlignNL.increment[2 * nb + n] = AlignNL.BasisFWHM.z / 4.0f;
                    AlignNL.Adjust3D[n] = AlignNL.Adjust3D[nb + n] = AlignNL.Adjust3D[2 * nb + n] = 1;
                }
            }

    if (new_grid)
        for (int a = 0; a < 3; a++) {
            free_int_vector(peak[a]);
            free_int_vector(start[a]);
            free_int_vector(end[a]);
        }

    if (recalculate_distortions) {
        size_t n3d = (size_t)dim.x * (size_t)dim.y * (size_t)dim.z;
        float *mx = distort_x.SpaceTime.fData, *my = distort_y.SpaceTime.fData;
        float *mz = distort_z.SpaceTime.fData;
        memset(mx, 0, sizeof(float) * n3d);
        memset(my, 0, sizeof(float) * n3d);
        memset(mz, 0, sizeof(float) * n3d);
        memset(distort_d.SpaceTime.fData, 0, sizeof(float) * n3d);
        for (int b = 0; b < nb; b++) {
            float cx = AlignNL.value[b], cy = AlignNL.value[nb + b], cz = AlignNL.value[2 * nb + b];
            box_factors f;
            make_box_factors(&f, b);
            for (int z = f.start.z; z < f.end.z; z++)
                for (int y = f.start.y; y < f.end.y; y++)
                    for (int x = f.start.x; x < f.end.x; x++) {
                        float B = f.fz[z - f.start.z] * f.fx[x - f.start.x] * f.fy[y - f.start.y];
                        size_t e = grid_index(x, y, z);
                        mx[e] += cx * B;
                        my[e] += cy * B;
                        mz[e] += cz * B;
                    }
            free_box_factors(&f);
        }
    }

    if (AlignAid.DisplayType > 1) update_image_and_graph(1);
    built = AlignNL.BasisGrid;
    built_dim = dim;
    grid_built = 1;
}

/* Changes coefficient iCoeff to value: in the box of basis AlignNL.iBasis (end exclusive) the
   map of component AlignNL.iCoeff loses old*B and gains value*B (two float steps), then the
   box is resampled (transform_coordinates(0, 0)).
   Deliberate: the map is chosen by AlignNL.iCoeff, the old value by the argument; callers set
   AlignNL.iCoeff and AlignNL.iBasis to match first.
   Pinned by SetAlignNLValue.TheMapFollowsTheRecordsCurrentCoefficient. */
void Set_AlignNL_Value(int iCoeff, float value)
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
    box_factors f;
    make_box_factors(&f, AlignNL.iBasis);
    for (int z = f.start.z; z < f.end.z; z++)
        for (int y = f.start.y; y < f.end.y; y++)
            for (int x = f.start.x; x < f.end.x; x++) {
                float B = f.fz[z - f.start.z] * f.fx[x - f.start.x] * f.fy[y - f.start.y];
                size_t e = grid_index(x, y, z);
                m[e] -= old * B;
                m[e] += value * B;
            }
    free_box_factors(&f);
    AlignNL.value[iCoeff] = value;
    transform_coordinates(0, 0);
}

/* NL_bases (time point 0) = the current basis AlignNL.iBasis inside its box (end exclusive),
   0 elsewhere. */
void create_basis_function_image(void)
{
    int ib = AlignNL.iBasis;
    IPOINT3D s = AlignNL.Index3DStart[ib], e = AlignNL.Index3DEnd[ib];
    for (int z = 0; z < template_.dim.z; z++)
        for (int y = 0; y < template_.dim.y; y++)
            for (int x = 0; x < template_.dim.x; x++) {
                IPOINT3D v = {x, y, z};
                int inside = x >= s.x && x < e.x && y >= s.y && y < e.y && z >= s.z && z < e.z;
                NL_bases.SpaceTime.fData[index4d_stack(&NL_bases, x, y, z, 0)] =
                    inside ? NL_Basis_function(ib, v) : 0.0f;
            }
}
