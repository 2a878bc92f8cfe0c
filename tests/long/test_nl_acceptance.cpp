// Acceptance of the non-linear alignment on brain data: the template is ch2bet, the individual
// is ch2 under a known small affine plus a smooth displacement of a few millimetres, both reduced
// to 2 mm voxels by averaging 2x2x2 blocks (ALIGN_ACCEPT_VOXEL_MM=1 keeps the 1 mm voxels, for
// timing the full-resolution run by hand). The engine runs as the start-up and the batch mode
// do (no window), then the automatic non-linear alignment. The mean mapping error over the brain
// must fall well below the affine-only error, with no folded voxel.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "affine_search.h"
#include "align_model.h"
#include "filters.h"
#include "globals.h"
#include "nl_cost.h"
#include "nl_search.h"
#include "prepare.h"
#include "resample.h"
#include "test_support.h"
#include "volume.h"

namespace {

// Voxel size of the test grids in mm: 2 by default, 1 on request.
int voxel_mm()
{
    const char *v = getenv("ALIGN_ACCEPT_VOXEL_MM");
    return v != NULL && atoi(v) == 1 ? 1 : 2;
}

struct Grid {
    int nx, ny, nz;
    std::vector<float> v;
    float at(int x, int y, int z) const { return v[((size_t)z * ny + y) * nx + x]; }
};

// Reads a uint8 NIfTI volume and averages f x f x f blocks (an odd last plane is dropped).
bool read_reduced(const char *name, int f, Grid *g)
{
    nifti_image *im = nifti_image_read(name, 1);
    if (im == NULL || im->datatype != DT_UINT8) return false;
    const unsigned char *d = (const unsigned char *)im->data;
    int NX = im->nx, NY = im->ny;
    g->nx = im->nx / f;
    g->ny = im->ny / f;
    g->nz = im->nz / f;
    g->v.assign((size_t)g->nx * g->ny * g->nz, 0.0f);
    for (int z = 0; z < g->nz; z++)
        for (int y = 0; y < g->ny; y++)
            for (int x = 0; x < g->nx; x++) {
                float s = 0;
                for (int c = 0; c < f * f * f; c++)
                    s += d[((size_t)(f * z + c / (f * f)) * NY + f * y + (c / f) % f) * NX + f * x + c % f];
                g->v[((size_t)z * g->ny + y) * g->nx + x] = s / (float)(f * f * f);
            }
    nifti_image_free(im);
    return true;
}

// The known mapping from individual space to template space (centred frames, mm):
// F(y) = M y + t + u(y), with a small rotation, inflation and shift and a smooth displacement.
struct Warp {
    double M[3][3], Minv[3][3], t[3];
};

Warp make_warp()
{
    Warp w;
    double a = 2.0 * M_PI / 180, b = 1.0 * M_PI / 180;
    double Rz[3][3] = {{cos(a), -sin(a), 0}, {sin(a), cos(a), 0}, {0, 0, 1}};
    double Rx[3][3] = {{1, 0, 0}, {0, cos(b), -sin(b)}, {0, sin(b), cos(b)}};
    double S[3] = {1.02, 0.99, 1.01};
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++) {
            double s = 0;
            for (int k = 0; k < 3; k++) s += Rz[r][k] * Rx[k][c];
            w.M[r][c] = s * S[c];
        }
    // Inverse by cofactors.
    double (*m)[3] = w.M;
    double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                 m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++) {
            int r1 = (c + 1) % 3, r2 = (c + 2) % 3, c1 = (r + 1) % 3, c2 = (r + 2) % 3;
            w.Minv[r][c] = (m[r1][c1] * m[r2][c2] - m[r1][c2] * m[r2][c1]) / det;
        }
    w.t[0] = 2.0;
    w.t[1] = -1.5;
    w.t[2] = 1.0;
    return w;
}

void displacement(const double y[3], double u[3])
{
    u[0] = 3.0 * sin(M_PI * y[1] / 80) * cos(M_PI * y[2] / 90);
    u[1] = 3.0 * sin(M_PI * y[2] / 70) * cos(M_PI * y[0] / 80);
    u[2] = 2.5 * sin(M_PI * y[0] / 75) * cos(M_PI * y[1] / 100);
}

void forward(const Warp &w, const double y[3], double p[3])
{
    double u[3];
    displacement(y, u);
    for (int r = 0; r < 3; r++) p[r] = w.M[r][0] * y[0] + w.M[r][1] * y[1] + w.M[r][2] * y[2] + w.t[r] + u[r];
}

// y with F(y) = x, by fixed-point iteration (the displacement is small and smooth).
void inverse(const Warp &w, const double x[3], double y[3])
{
    double u[3] = {0, 0, 0};
    for (int it = 0; it < 30; it++) {
        double r[3] = {x[0] - w.t[0] - u[0], x[1] - w.t[1] - u[1], x[2] - w.t[2] - u[2]};
        for (int k = 0; k < 3; k++) y[k] = w.Minv[k][0] * r[0] + w.Minv[k][1] * r[1] + w.Minv[k][2] * r[2];
        displacement(y, u);
    }
}

float trilinear(const Grid &g, double vx, double vy, double vz)
{
    int x0 = (int)floor(vx), y0 = (int)floor(vy), z0 = (int)floor(vz);
    if (x0 < 0 || y0 < 0 || z0 < 0 || x0 + 1 >= g.nx || y0 + 1 >= g.ny || z0 + 1 >= g.nz) return 0.0f;
    double fx = vx - x0, fy = vy - y0, fz = vz - z0, s = 0;
    for (int c = 0; c < 8; c++) {
        int dx = c & 1, dy = (c >> 1) & 1, dz = c >> 2;
        s += (dx ? fx : 1 - fx) * (dy ? fy : 1 - fy) * (dz ? fz : 1 - fz) * g.at(x0 + dx, y0 + dy, z0 + dz);
    }
    return (float)s;
}

// Centred position (mm) of a voxel of the test grid.
void centred(const Grid &g, int x, int y, int z, double p[3])
{
    double mm = voxel_mm();
    p[0] = mm * (x - (g.nx - 1) / 2.0);
    p[1] = mm * (y - (g.ny - 1) / 2.0);
    p[2] = mm * (z - (g.nz - 1) / 2.0);
}

// Mean distance between the engine's mapping (Affine, plus the maps when asked) and the true
// inverse warp, over the template's brain voxels.
double mean_mapping_error(const Grid &tpl, const Warp &w, int with_maps)
{
    define_affine_matrix();
    double sum = 0;
    long n = 0;
    for (int z = 0; z < tpl.nz; z++)
        for (int y = 0; y < tpl.ny; y++)
            for (int x = 0; x < tpl.nx; x++) {
                if (tpl.at(x, y, z) == 0.0f) continue;
                size_t idx = ((size_t)z * tpl.ny + y) * tpl.nx + x;
                double p[3], truth[3], q[3];
                centred(tpl, x, y, z, p);
                inverse(w, p, truth);
                for (int r = 0; r < 3; r++)
                    q[r] = Alignment.Affine[r][0] * p[0] + Alignment.Affine[r][1] * p[1] +
                           Alignment.Affine[r][2] * p[2] + Alignment.Affine[r][3];
                if (with_maps) {
                    q[0] += distort_x.SpaceTime.fData[idx];
                    q[1] += distort_y.SpaceTime.fData[idx];
                    q[2] += distort_z.SpaceTime.fData[idx];
                }
                sum += sqrt((q[0] - truth[0]) * (q[0] - truth[0]) + (q[1] - truth[1]) * (q[1] - truth[1]) +
                            (q[2] - truth[2]) * (q[2] - truth[2]));
                n++;
            }
    return sum / n;
}

void load_stack(data_stack *s, const Grid &g, const char *name)
{
    float mm = (float)voxel_mm();
    make_stack(s, g.nx, g.ny, g.nz, 1, mm, mm, mm);
    memcpy(s->SpaceTime.fData, g.v.data(), sizeof(float) * g.v.size());
    snprintf(s->name, sizeof s->name, "%s", name);
}

} // namespace

TEST(NonlinearAcceptance, Ch2UnderKnownWarpIsRecoveredBeyondTheAffineFit)
{
    Grid tpl, raw;
    int f = voxel_mm();
    if (!read_reduced("/usr/share/mricron/templates/ch2bet.nii.gz", f, &tpl) ||
        !read_reduced("/usr/share/mricron/templates/ch2.nii.gz", f, &raw))
        GTEST_SKIP() << "mricron-data is not installed";
    Warp w = make_warp();
    Grid ind = raw;
    for (int z = 0; z < ind.nz; z++)
        for (int y = 0; y < ind.ny; y++)
            for (int x = 0; x < ind.nx; x++) {
                double yy[3], p[3];
                centred(ind, x, y, z, yy);
                forward(w, yy, p);
                ind.v[((size_t)z * ind.ny + y) * ind.nx + x] =
                    trilinear(raw, p[0] / f + (raw.nx - 1) / 2.0, p[1] / f + (raw.ny - 1) / 2.0,
                              p[2] / f + (raw.nz - 1) / 2.0);
            }

    // Start-up order without a window, then the batch-mode affine alignment.
    load_stack(&original_unfiltered, ind, "individual");
    load_stack(&template_unfiltered, tpl, "template");
    initialize_mosaic_ovl(1);
    initialize_alignment();
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_unfiltered);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);
    filter_image_data();
    transform_coordinates(1, 0);
    double none = mean_mapping_error(tpl, w, 0);
    auto t0 = std::chrono::steady_clock::now();
    auto_adjust_affine_iterations(0, 3, 1);
    auto t1 = std::chrono::steady_clock::now();
    double affine = mean_mapping_error(tpl, w, 0);

    action_auto_adjust_nonlinear(1);
    auto t2 = std::chrono::steady_clock::now();
    double nonlinear = mean_mapping_error(tpl, w, 1);
    int nbad = number_invalid_distortions(1, 0, 0);

    double ta = std::chrono::duration<double>(t1 - t0).count();
    double tn = std::chrono::duration<double>(t2 - t1).count();
    printf("mean mapping error: start %.3f mm, affine %.3f mm, non-linear %.3f mm\n", none, affine, nonlinear);
    printf("run time: affine %.1f s, non-linear %.1f s\n", ta, tn);
    RecordProperty("affine_error_mm", std::to_string(affine));
    RecordProperty("nonlinear_error_mm", std::to_string(nonlinear));
    RecordProperty("nonlinear_seconds", std::to_string(tn));
    EXPECT_GT(affine, 1.0);  // the warp is not affine: a residual of a few mm remains
    EXPECT_LT(nonlinear, 0.6 * affine);
    EXPECT_EQ(nbad, 0);
}
