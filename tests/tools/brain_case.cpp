/* The warped brain pair of the non-linear acceptance run. Writes original_unfiltered,
   template_unfiltered and, through the start-up steps, the working volumes. */
#include "brain_case.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include <nifti1_io.h>

#include "align_model.h"
#include "filters.h"
#include "globals.h"
#include "prepare.h"
#include "resample.h"
#include "test_support.h"
#include "volume.h"

namespace {

BrainWarp make_warp()
{
    BrainWarp w;
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

void forward(const BrainWarp &w, const double y[3], double p[3])
{
    double u[3];
    displacement(y, u);
    for (int r = 0; r < 3; r++) p[r] = w.M[r][0] * y[0] + w.M[r][1] * y[1] + w.M[r][2] * y[2] + w.t[r] + u[r];
}

float trilinear(const BrainGrid &g, double vx, double vy, double vz)
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

void load_stack(data_stack *s, const BrainGrid &g, int mm, const char *name)
{
    make_stack(s, g.nx, g.ny, g.nz, 1, (float)mm, (float)mm, (float)mm);
    memcpy(s->SpaceTime.fData, g.v.data(), sizeof(float) * g.v.size());
    snprintf(s->name, sizeof s->name, "%s", name);
}

}  // namespace

bool read_reduced(const char *name, int f, BrainGrid *g)
{
    nifti_image *im = nifti_image_read(name, 1);
    if (im == NULL) return false;
    if (im->datatype != DT_UINT8) {
        nifti_image_free(im);
        return false;
    }
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

void brain_warp_inverse(const BrainWarp &w, const double x[3], double y[3])
{
    // Fixed-point iteration: the displacement is small and smooth.
    double u[3] = {0, 0, 0};
    for (int it = 0; it < 30; it++) {
        double r[3] = {x[0] - w.t[0] - u[0], x[1] - w.t[1] - u[1], x[2] - w.t[2] - u[2]};
        for (int k = 0; k < 3; k++) y[k] = w.Minv[k][0] * r[0] + w.Minv[k][1] * r[1] + w.Minv[k][2] * r[2];
        displacement(y, u);
    }
}

void brain_voxel_position(const BrainCase &c, const BrainGrid &g, int x, int y, int z, double p[3])
{
    double mm = c.voxel_mm;
    p[0] = mm * (x - (g.nx - 1) / 2.0);
    p[1] = mm * (y - (g.ny - 1) / 2.0);
    p[2] = mm * (z - (g.nz - 1) / 2.0);
}

bool make_brain_case(int voxel_mm, BrainCase *c)
{
    int f = voxel_mm;
    BrainGrid raw;
    c->voxel_mm = voxel_mm;
    if (!read_reduced("/usr/share/mricron/templates/ch2bet.nii.gz", f, &c->tpl) ||
        !read_reduced("/usr/share/mricron/templates/ch2.nii.gz", f, &raw))
        return false;
    c->warp = make_warp();
    c->ind = raw;
    for (int z = 0; z < c->ind.nz; z++)
        for (int y = 0; y < c->ind.ny; y++)
            for (int x = 0; x < c->ind.nx; x++) {
                double yy[3], p[3];
                brain_voxel_position(*c, c->ind, x, y, z, yy);
                forward(c->warp, yy, p);
                c->ind.v[((size_t)z * c->ind.ny + y) * c->ind.nx + x] =
                    trilinear(raw, p[0] / f + (raw.nx - 1) / 2.0, p[1] / f + (raw.ny - 1) / 2.0,
                              p[2] / f + (raw.nz - 1) / 2.0);
            }
    return true;
}

void start_brain_case(const BrainCase &c)
{
    load_stack(&original_unfiltered, c.ind, c.voxel_mm, "individual");
    load_stack(&template_unfiltered, c.tpl, c.voxel_mm, "template");
    initialize_mosaic_ovl(1);
    initialize_alignment();
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_unfiltered);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);
    filter_image_data();
    transform_coordinates(1, 0);
}

static std::vector<float> volume_copy(const data_stack &s)
{
    return std::vector<float>(s.SpaceTime.fData, s.SpaceTime.fData + s.n3d);
}

static void restore_volume(data_stack *s, const std::vector<float> &v)
{
    memcpy(s->SpaceTime.fData, v.data(), sizeof(float) * v.size());
}

void save_nl_search_state(NlSearchState *s)
{
    size_t nc = 3 * (size_t)AlignNL.NBasis;
    s->dx = volume_copy(distort_x);
    s->dy = volume_copy(distort_y);
    s->dz = volume_copy(distort_z);
    s->ind = volume_copy(individual);
    s->value.assign(AlignNL.value, AlignNL.value + nc);
    s->increment.assign(AlignNL.increment, AlignNL.increment + nc);
    s->adjust.assign(AlignNL.Adjust3D, AlignNL.Adjust3D + nc);
}

void restore_nl_search_state(const NlSearchState &s)
{
    restore_volume(&distort_x, s.dx);
    restore_volume(&distort_y, s.dy);
    restore_volume(&distort_z, s.dz);
    restore_volume(&individual, s.ind);
    memcpy(AlignNL.value, s.value.data(), sizeof(float) * s.value.size());
    memcpy(AlignNL.increment, s.increment.data(), sizeof(float) * s.increment.size());
    memcpy(AlignNL.Adjust3D, s.adjust.data(), sizeof(int) * s.adjust.size());
}
