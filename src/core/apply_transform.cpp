/* Positions, resampling, Jacobian and world field of an alignment applied to whole images (see
   apply_transform.h). Reads Alignment, template_unfiltered and distort_x/y/z. No X11.
   Every output voxel is computed independently with the same arithmetic, so the slices are
   shared out over threads (parallel_ranges). */
#include "apply_transform.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "align_model.h"
#include "globals.h"
#include "numerics.h"
#include "threads.h"
#include "volume.h"
#include "voxel_walk.h"

int apply_kernel_from_name(const char *name)
{
    if (strcmp(name, "accurate") == 0) return APPLY_ACCURATE;
    if (strcmp(name, "linear") == 0) return APPLY_LINEAR;
    if (strcmp(name, "nearest") == 0) return APPLY_NEAREST;
    return -1;
}

void free_voxel_positions(voxel_positions *p)
{
    if (p->xyz != NULL) free_float_vector(p->xyz);
    p->xyz = NULL;
}

/* The displacement maps when they exist on the template's grid; *maps NULL when they were never
   allocated (no deformation). 1 after the message when they lie on another grid. */
static int displacement_maps(const float *maps[3])
{
    maps[0] = maps[1] = maps[2] = NULL;
    if (distort_x.SpaceTime.fData == NULL || distort_y.SpaceTime.fData == NULL || distort_z.SpaceTime.fData == NULL)
        return 0;
    const IPOINT3D &t = template_unfiltered.dim;
    const data_stack *d[3] = {&distort_x, &distort_y, &distort_z};
    for (int k = 0; k < 3; k++)
        if (d[k]->dim.x != t.x || d[k]->dim.y != t.y || d[k]->dim.z != t.z) {
            printf("Error: the displacement maps are not on the template's grid.\n");
            return 1;
        }
    for (int k = 0; k < 3; k++) maps[k] = d[k]->SpaceTime.fData;
    return 0;
}

/* The centred space-to-voxel matrix of a grid of dim voxels of resolution mm. */
static mat44 grid_centered_xyz_to_ijk(IPOINT3D dim, POINT3D resolution)
{
    data_stack g;
    memset(&g, 0, sizeof g);
    g.dim = dim;
    g.resolution = resolution;
    return centered_xyz_to_ijk(g);
}

static mat44 grid_centered_ijk_to_xyz(IPOINT3D dim, POINT3D resolution)
{
    data_stack g;
    memset(&g, 0, sizeof g);
    g.dim = dim;
    g.resolution = resolution;
    return centered_ijk_to_xyz(g);
}

int forward_positions(IPOINT3D individual_dim, POINT3D individual_resolution, voxel_positions *p)
{
    const float *maps[3];
    if (displacement_maps(maps)) return 1;
    define_affine_matrix();
    mat44 to_space = centered_ijk_to_xyz(template_unfiltered);
    mat44 to_voxel = grid_centered_xyz_to_ijk(individual_dim, individual_resolution);
    float affine[4][4];
    memcpy(affine, Alignment.Affine, sizeof affine);

    IPOINT3D dim = template_unfiltered.dim;
    p->dim = dim;
    p->xyz = float_vector(3 * dim.x * dim.y * dim.z);
    float *xyz = p->xyz;
    parallel_ranges(dim.z, [&](int first, int last) {
        for (int z = first; z < last; z++)
            for (int y = 0; y < dim.y; y++)
                for (int x = 0; x < dim.x; x++) {
                    size_t i = (size_t)x + (size_t)dim.x * ((size_t)y + (size_t)dim.y * (size_t)z);
                    POINT3D s = apply_rows(to_space.m, (float)x, (float)y, (float)z);
                    POINT3D q = apply_rows(affine, s.x, s.y, s.z);
                    if (maps[0] != NULL) {
                        q.x += maps[0][i];
                        q.y += maps[1][i];
                        q.z += maps[2][i];
                    }
                    POINT3D v = apply_rows(to_voxel.m, q.x, q.y, q.z);
                    xyz[3 * i] = v.x;
                    xyz[3 * i + 1] = v.y;
                    xyz[3 * i + 2] = v.z;
                }
    });
    return 0;
}

/* ---- small double 4x4 helpers ---- */

typedef double dmat44[4][4];

static void to_dmat(const float m[4][4], dmat44 out)
{
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) out[r][c] = m[r][c];
}

/* Gauss-Jordan with partial pivoting; 1 for a singular matrix. */
static int invert_dmat(const dmat44 a, dmat44 out)
{
    double m[4][8];
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 8; c++) m[r][c] = c < 4 ? a[r][c] : (c - 4 == r ? 1.0 : 0.0);
    for (int c = 0; c < 4; c++) {
        int pivot = c;
        for (int r = c + 1; r < 4; r++)
            if (fabs(m[r][c]) > fabs(m[pivot][c])) pivot = r;
        if (m[pivot][c] == 0.0) return 1;
        for (int k = 0; k < 8; k++) {
            double t = m[c][k];
            m[c][k] = m[pivot][k];
            m[pivot][k] = t;
        }
        double d = m[c][c];
        for (int k = 0; k < 8; k++) m[c][k] /= d;
        for (int r = 0; r < 4; r++)
            if (r != c) {
                double f = m[r][c];
                for (int k = 0; k < 8; k++) m[r][k] -= f * m[c][k];
            }
    }
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) out[r][c] = m[r][c + 4];
    return 0;
}

static inline void apply_d(const dmat44 m, const double v[3], double out[3])
{
    for (int r = 0; r < 3; r++) out[r] = m[r][0] * v[0] + m[r][1] * v[1] + m[r][2] * v[2] + m[r][3];
}

/* The three maps at template voxel position u, trilinear, u clamped to the grid. */
static inline void interpolate_maps(const float *const maps[3], IPOINT3D dim, const double u[3], double d[3])
{
    const int n[3] = {dim.x, dim.y, dim.z};
    int i0[3], i1[3];
    double f[3];
    for (int a = 0; a < 3; a++) {
        double c = u[a];
        if (!(c > 0.0)) c = 0.0; /* NaN too */
        if (c > n[a] - 1) c = n[a] - 1;
        i0[a] = (int)floor(c);
        if (i0[a] > n[a] - 2) i0[a] = n[a] - 2 < 0 ? 0 : n[a] - 2;
        i1[a] = i0[a] + 1 < n[a] ? i0[a] + 1 : i0[a];
        f[a] = c - i0[a];
    }
    for (int k = 0; k < 3; k++) {
        double s = 0.0;
        for (int corner = 0; corner < 8; corner++) {
            int ix = corner & 1 ? i1[0] : i0[0], iy = corner & 2 ? i1[1] : i0[1], iz = corner & 4 ? i1[2] : i0[2];
            double w = (corner & 1 ? f[0] : 1.0 - f[0]) * (corner & 2 ? f[1] : 1.0 - f[1]) *
                       (corner & 4 ? f[2] : 1.0 - f[2]);
            if (w != 0.0) s += w * maps[k][(size_t)ix + (size_t)n[0] * ((size_t)iy + (size_t)n[1] * (size_t)iz)];
        }
        d[k] = s;
    }
}

int inverse_positions(IPOINT3D individual_dim, POINT3D individual_resolution, voxel_positions *p,
                      inverse_report *report)
{
    const float *maps[3];
    if (displacement_maps(maps)) return 1;
    IPOINT3D tdim = template_unfiltered.dim;
    size_t tn3d = (size_t)tdim.x * tdim.y * tdim.z;

    /* the forward Jacobian on the template's grid marks the folded regions */
    std::vector<float> folds;
    if (maps[0] != NULL) {
        voxel_positions forward = {{0, 0, 0}, NULL};
        if (forward_positions(individual_dim, individual_resolution, &forward)) return 1;
        folds.resize(tn3d);
        jacobian_of_positions(&forward, individual_resolution, template_unfiltered.resolution, folds.data());
        free_voxel_positions(&forward);
    }

    define_affine_matrix();
    dmat44 affine, inverse, tpl_to_space, tpl_to_voxel, ind_to_space;
    to_dmat(Alignment.Affine, affine);
    to_dmat(centered_ijk_to_xyz(template_unfiltered).m, tpl_to_space);
    if (invert_dmat(affine, inverse) || invert_dmat(tpl_to_space, tpl_to_voxel)) {
        printf("Error: the affine alignment is singular and cannot be inverted.\n");
        return 1;
    }
    to_dmat(grid_centered_ijk_to_xyz(individual_dim, individual_resolution).m, ind_to_space);

    IPOINT3D dim = individual_dim;
    p->dim = dim;
    p->xyz = float_vector(3 * dim.x * dim.y * dim.z);
    std::vector<long> inside((size_t)dim.z, 0), bad((size_t)dim.z, 0);
    std::vector<double> largest((size_t)dim.z, 0.0);
    float *xyz = p->xyz;
    const float *fold_map = folds.empty() ? NULL : folds.data();

    parallel_ranges(dim.z, [&](int first, int last) {
        for (int z = first; z < last; z++)
            for (int y = 0; y < dim.y; y++)
                for (int x = 0; x < dim.x; x++) {
                    double v[3] = {(double)x, (double)y, (double)z}, q[3], pt[3], u[3], r[3], d[3] = {0, 0, 0};
                    apply_d(ind_to_space, v, q);
                    apply_d(inverse, q, pt);
                    /* residual r = Affine p + d(p) - q and its length */
                    auto residual = [&](const double at[3], double out[3]) {
                        double w[3];
                        apply_d(tpl_to_voxel, at, w);
                        if (maps[0] != NULL) interpolate_maps(maps, tdim, w, d);
                        apply_d(affine, at, out);
                        for (int a = 0; a < 3; a++) out[a] += d[a] - q[a];
                        return sqrt(out[0] * out[0] + out[1] * out[1] + out[2] * out[2]);
                    };
                    double res = residual(pt, r);
                    double step = 1.0;
                    for (int it = 0; it < 200 && res >= 1e-5; it++) {
                        double move[3], next[3], rn[3];
                        for (int a = 0; a < 3; a++)
                            move[a] = inverse[a][0] * r[0] + inverse[a][1] * r[1] + inverse[a][2] * r[2];
                        for (int a = 0; a < 3; a++) next[a] = pt[a] - step * move[a];
                        double resn = residual(next, rn);
                        if (resn < res) {
                            memcpy(pt, next, sizeof pt);
                            memcpy(r, rn, sizeof r);
                            res = resn;
                            if (step < 1.0) step *= 2.0;
                        } else {
                            step *= 0.5;
                            if (step < 1e-3) break;
                        }
                    }
                    apply_d(tpl_to_voxel, pt, u);
                    size_t i = (size_t)x + (size_t)dim.x * ((size_t)y + (size_t)dim.y * (size_t)z);
                    xyz[3 * i] = (float)u[0];
                    xyz[3 * i + 1] = (float)u[1];
                    xyz[3 * i + 2] = (float)u[2];
                    if (!(u[0] >= -0.5 && u[0] <= tdim.x - 0.5 && u[1] >= -0.5 && u[1] <= tdim.y - 0.5 &&
                          u[2] >= -0.5 && u[2] <= tdim.z - 0.5))
                        continue;
                    inside[(size_t)z]++;
                    if (!(res <= largest[(size_t)z])) largest[(size_t)z] = res;
                    int folded = 0;
                    if (fold_map != NULL) {
                        int n[3], lim[3] = {tdim.x, tdim.y, tdim.z};
                        for (int a = 0; a < 3; a++) {
                            n[a] = (int)rint(u[a]);
                            if (n[a] < 0) n[a] = 0;
                            if (n[a] > lim[a] - 1) n[a] = lim[a] - 1;
                        }
                        folded = !(fold_map[(size_t)n[0] + (size_t)lim[0] * ((size_t)n[1] + (size_t)lim[1] * (size_t)n[2])] > 0.0f);
                    }
                    if (folded || !(res <= 0.01)) bad[(size_t)z]++;
                }
    });

    report->inside = 0;
    report->not_invertible = 0;
    report->largest_residual = 0.0;
    for (int z = 0; z < dim.z; z++) {
        report->inside += inside[(size_t)z];
        report->not_invertible += bad[(size_t)z];
        if (!(largest[(size_t)z] <= report->largest_residual)) report->largest_residual = largest[(size_t)z];
    }
    return 0;
}

/* ---- resampling ---- */

/* Samples of one axis: the grid indices (wrapped once) and weights, off-grid ones dropped. */
static inline int axis_samples(float v, int n, int wraps, int kernel, int w, int *index, float *weight)
{
    int count = 0;
    if (kernel == APPLY_LINEAR) {
        int j0 = (int)floorf(v);
        float f = v - (float)j0;
        for (int k = 0; k < 2; k++) {
            int j = wrap_once(j0 + k, n, wraps);
            if (j < 0 || j >= n) continue;
            index[count] = j;
            weight[count] = k == 0 ? 1.0f - f : f;
            count++;
        }
        return count;
    }
    int lo = (int)floorf(v) - w, hi = (int)ceilf(v) + w;
    for (int j = lo; j <= hi; j++) {
        int jj = wrap_once(j, n, wraps);
        if (jj < 0 || jj >= n) continue;
        index[count] = jj;
        weight[count] = Lanczos_filter(w, v - (float)j);
        count++;
    }
    return count;
}

void resample_through_positions(const voxel_positions *p, const float *source, IPOINT3D source_dim,
                                POINT3D ratio, IPOINT3D wrap, int kernel, float *out)
{
    IPOINT3D half;
    half.x = (int)floorf(ratio.x) > 2 ? (int)floorf(ratio.x) : 2;
    half.y = (int)floorf(ratio.y) > 2 ? (int)floorf(ratio.y) : 2;
    half.z = (int)floorf(ratio.z) > 2 ? (int)floorf(ratio.z) : 2;
    int maxw = half.x > half.y ? half.x : half.y;
    if (half.z > maxw) maxw = half.z;
    const int nsamples = 2 * maxw + 2;
    const IPOINT3D dim = p->dim;
    const int snx = source_dim.x, sny = source_dim.y, snz = source_dim.z;
    const size_t s2d = (size_t)snx * (size_t)sny;

    parallel_ranges(dim.z, [&](int first, int last) {
        std::vector<int> index((size_t)3 * nsamples);
        std::vector<float> weight((size_t)4 * nsamples);
        int *ix = index.data(), *iy = ix + nsamples, *iz = iy + nsamples;
        float *wx = weight.data(), *wy = wx + nsamples, *wz = wy + nsamples, *wzx = wz + nsamples;
        for (int z = first; z < last; z++)
            for (int y = 0; y < dim.y; y++)
                for (int x = 0; x < dim.x; x++) {
                    size_t i = (size_t)x + (size_t)dim.x * ((size_t)y + (size_t)dim.y * (size_t)z);
                    float vx = p->xyz[3 * i], vy = p->xyz[3 * i + 1], vz = p->xyz[3 * i + 2];
                    out[i] = 0.0f;
                    if (!(fabsf(vx) < far_off_grid && fabsf(vy) < far_off_grid && fabsf(vz) < far_off_grid)) continue;
                    int nx = wrap_once((int)rintf(vx), snx, wrap.x);
                    int ny = wrap_once((int)rintf(vy), sny, wrap.y);
                    int nz = wrap_once((int)rintf(vz), snz, wrap.z);
                    if (nx < 0 || nx >= snx || ny < 0 || ny >= sny || nz < 0 || nz >= snz) continue;
                    if (kernel == APPLY_NEAREST) {
                        out[i] = source[(size_t)nx + (size_t)snx * (size_t)ny + s2d * (size_t)nz];
                        continue;
                    }
                    int cx = axis_samples(vx, snx, wrap.x, kernel, half.x, ix, wx);
                    int cy = axis_samples(vy, sny, wrap.y, kernel, half.y, iy, wy);
                    int cz = axis_samples(vz, snz, wrap.z, kernel, half.z, iz, wz);
                    double sum = 0.0, wsum = 0.0;
                    for (int kz = 0; kz < cz; kz++) {
                        for (int kx = 0; kx < cx; kx++) wzx[kx] = wz[kz] * wx[kx];
                        const float *plane = source + s2d * (size_t)iz[kz];
                        for (int ky = 0; ky < cy; ky++) {
                            const float *row = plane + (size_t)snx * (size_t)iy[ky];
                            for (int kx = 0; kx < cx; kx++) {
                                float w = wzx[kx] * wy[ky];
                                sum += (double)(row[ix[kx]] * w);
                                wsum += (double)w;
                            }
                        }
                    }
                    out[i] = wsum != 0.0 ? (float)(sum / wsum) : 0.0f;
                }
    });
}

void jacobian_of_positions(const voxel_positions *p, POINT3D input_resolution, POINT3D output_resolution,
                           float *out)
{
    const IPOINT3D dim = p->dim;
    const int n[3] = {dim.x, dim.y, dim.z};
    const double in_res[3] = {input_resolution.x, input_resolution.y, input_resolution.z};
    const double out_res[3] = {output_resolution.x, output_resolution.y, output_resolution.z};
    const double volume_ratio = in_res[0] * in_res[1] * in_res[2] / (out_res[0] * out_res[1] * out_res[2]);
    const size_t stride[3] = {1, (size_t)dim.x, (size_t)dim.x * (size_t)dim.y};
    parallel_ranges(dim.z, [&](int first, int last) {
        for (int z = first; z < last; z++)
            for (int y = 0; y < dim.y; y++)
                for (int x = 0; x < dim.x; x++) {
                    const int c[3] = {x, y, z};
                    size_t i = (size_t)x + stride[1] * (size_t)y + stride[2] * (size_t)z;
                    double m[3][3];
                    for (int a = 0; a < 3; a++) {
                        if (n[a] < 2) { /* one voxel thick: a pure scaling along that axis */
                            for (int r = 0; r < 3; r++) m[r][a] = r == a ? out_res[a] / in_res[a] : 0.0;
                            continue;
                        }
                        size_t lo = c[a] > 0 ? i - stride[a] : i, hi = c[a] < n[a] - 1 ? i + stride[a] : i;
                        double span = (c[a] > 0) + (c[a] < n[a] - 1);
                        for (int r = 0; r < 3; r++)
                            m[r][a] = ((double)p->xyz[3 * hi + r] - (double)p->xyz[3 * lo + r]) / span;
                    }
                    double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                                 m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                                 m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
                    out[i] = (float)(det * volume_ratio);
                }
    });
}

void world_displacement_field(const voxel_positions *p, const double world_out[4][4],
                              const double world_in[4][4], float *out)
{
    const IPOINT3D dim = p->dim;
    const size_t n3d = (size_t)dim.x * dim.y * dim.z;
    parallel_ranges(dim.z, [&](int first, int last) {
        for (int z = first; z < last; z++)
            for (int y = 0; y < dim.y; y++)
                for (int x = 0; x < dim.x; x++) {
                    size_t i = (size_t)x + (size_t)dim.x * ((size_t)y + (size_t)dim.y * (size_t)z);
                    double v[3] = {(double)x, (double)y, (double)z};
                    double s[3] = {p->xyz[3 * i], p->xyz[3 * i + 1], p->xyz[3 * i + 2]};
                    double u[3];
                    for (int r = 0; r < 3; r++) {
                        double from = world_out[r][0] * v[0] + world_out[r][1] * v[1] + world_out[r][2] * v[2] +
                                      world_out[r][3];
                        double to = world_in[r][0] * s[0] + world_in[r][1] * s[1] + world_in[r][2] * s[2] +
                                    world_in[r][3];
                        u[r] = to - from;
                    }
                    /* RAS -> LPS */
                    out[i] = (float)-u[0];
                    out[n3d + i] = (float)-u[1];
                    out[2 * n3d + i] = (float)u[2];
                }
    });
}
