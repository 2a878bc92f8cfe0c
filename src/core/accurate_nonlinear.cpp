/* The accurate non-linear stage (see accurate_nonlinear.h). At every voxel of a level the step
   is the Gauss-Newton step of the robust remapped residual along the individual's gradient,
   bounded to a quarter voxel (r g / (|g|^2 + r^2/h^2)); the steps are smoothed with a narrow
   Gaussian, added to the field, and the field is smoothed with a wider one, which keeps it
   smooth and one-to-one. Reads template_, original and Alignment; writes distort_x/y/z, AlignNL
   and individual. No X11. */
#include "accurate_nonlinear.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "globals.h"
#include "nl_model.h"
#include "numerics.h"
#include "resample.h"
#include "search_pyramid.h"
#include "similarity.h"
#include "threads.h"

/* Regularisation in voxels of the level: the Gaussian window over which each voxel's step is
   fitted, and the Gaussian that smooths the field after each step. */
static const double window_sigma = 3.0, field_sigma = 1.5;

/* Smooths a grid in place with a separable Gaussian of sigma voxels (weights renormalised where
   the kernel leaves the grid), computing only the box [lo, hi) and taking the values outside it
   as 0: exact for data that are 0 farther than 3 sigma outside the box. Float sums; along y and z
   whole rows of x are summed at once. */
static void smooth_box(float *data, IPOINT3D d, IPOINT3D lo, IPOINT3D hi, double sigma)
{
    if (!(sigma > 0.0) || hi.x <= lo.x || hi.y <= lo.y || hi.z <= lo.z) return;
    int half = (int)ceil(3.0 * sigma);
    std::vector<float> w((size_t)(2 * half + 1));
    for (int k = -half; k <= half; k++) w[(size_t)(k + half)] = (float)exp(-0.5 * k * k / (sigma * sigma));
    int blo[3] = {lo.x, lo.y, lo.z}, bhi[3] = {hi.x, hi.y, hi.z}, dim[3] = {d.x, d.y, d.z};
    /* 1 / the sum of the weights that fall inside the grid, per position along each axis */
    std::vector<float> norm[3];
    for (int a = 0; a < 3; a++) {
        norm[a].resize((size_t)dim[a]);
        for (int i = 0; i < dim[a]; i++) {
            double sum = 0.0;
            for (int k = -half; k <= half; k++)
                if (i + k >= 0 && i + k < dim[a]) sum += w[(size_t)(k + half)];
            norm[a][(size_t)i] = (float)(1.0 / sum);
        }
    }
    const size_t sy = (size_t)d.x, sz = (size_t)d.x * d.y;
    const int nxb = hi.x - lo.x;

    /* along x: each line padded with zeros */
    parallel_ranges(hi.z - lo.z, [&](int z0, int z1) {
        std::vector<float> line((size_t)(nxb + 2 * half), 0.0f);
        for (int z = lo.z + z0; z < lo.z + z1; z++)
            for (int y = lo.y; y < hi.y; y++) {
                float *row = data + sz * z + sy * y;
                for (int x = 0; x < nxb; x++) line[(size_t)(x + half)] = row[lo.x + x];
                for (int x = 0; x < nxb; x++) {
                    float sum = 0.0f;
                    const float *l = &line[(size_t)x];
                    for (int k = 0; k <= 2 * half; k++) sum += w[(size_t)k] * l[k];
                    row[lo.x + x] = sum * norm[0][(size_t)(lo.x + x)];
                }
            }
    });
    /* along y and along z: rows of x summed together, through a scratch of the box's lines */
    for (int axis = 1; axis < 3; axis++) {
        int n = bhi[axis] - blo[axis];
        size_t stride = axis == 1 ? sy : sz;
        int outer_lo = axis == 1 ? lo.z : lo.y, outer_hi = axis == 1 ? hi.z : hi.y;
        size_t outer_stride = axis == 1 ? sz : sy;
        parallel_ranges(outer_hi - outer_lo, [&](int o0, int o1) {
            std::vector<float> in((size_t)(n + 2 * half) * nxb), acc((size_t)nxb);
            for (int o = outer_lo + o0; o < outer_lo + o1; o++) {
                float *base = data + outer_stride * o + lo.x;
                std::fill(in.begin(), in.end(), 0.0f);
                for (int i = 0; i < n; i++)
                    memcpy(&in[(size_t)(i + half) * nxb], base + stride * (size_t)(blo[axis] + i), sizeof(float) * nxb);
                for (int i = 0; i < n; i++) {
                    std::fill(acc.begin(), acc.end(), 0.0f);
                    for (int k = 0; k <= 2 * half; k++) {
                        const float wk = w[(size_t)k], *src = &in[(size_t)(i + k) * nxb];
                        for (int x = 0; x < nxb; x++) acc[(size_t)x] += wk * src[x];
                    }
                    float f = norm[axis][(size_t)(blo[axis] + i)];
                    float *dst = base + stride * (size_t)(blo[axis] + i);
                    for (int x = 0; x < nxb; x++) dst[x] = acc[(size_t)x] * f;
                }
            }
        });
    }
}

static void smooth_grid(float *data, IPOINT3D d, double sigma)
{
    smooth_box(data, d, IPOINT3D{0, 0, 0}, d, sigma);
}

/* Trilinear value of a grid at a real-valued voxel position, the position clamped to the grid. */
static float grid_value(const float *f, IPOINT3D d, double x, double y, double z)
{
    double p[3] = {x, y, z};
    int n[3] = {d.x, d.y, d.z}, i0[3];
    double t[3];
    for (int a = 0; a < 3; a++) {
        if (p[a] < 0.0) p[a] = 0.0;
        if (p[a] > n[a] - 1) p[a] = n[a] - 1;
        i0[a] = (int)floor(p[a]);
        if (i0[a] > n[a] - 2) i0[a] = n[a] - 2 < 0 ? 0 : n[a] - 2;
        t[a] = p[a] - i0[a];
    }
    double sum = 0.0;
    for (int c = 0; c < 8; c++) {
        int dx = c & 1, dy = (c >> 1) & 1, dz = c >> 2;
        int xx = i0[0] + dx < n[0] ? i0[0] + dx : n[0] - 1, yy = i0[1] + dy < n[1] ? i0[1] + dy : n[1] - 1,
            zz = i0[2] + dz < n[2] ? i0[2] + dz : n[2] - 1;
        double wgt = (dx ? t[0] : 1.0 - t[0]) * (dy ? t[1] : 1.0 - t[1]) * (dz ? t[2] : 1.0 - t[2]);
        sum += wgt * f[(size_t)xx + (size_t)d.x * ((size_t)yy + (size_t)d.y * zz)];
    }
    return (float)sum;
}

/* The field of grid `from` carried to grid `to` (trilinear in the centred frame). */
static void carry_field(float *const from[3], const grid_volume *gf, float *to[3], const grid_volume *gt)
{
    for (int z = 0; z < gt->dim.z; z++)
        for (int y = 0; y < gt->dim.y; y++)
            for (int x = 0; x < gt->dim.x; x++) {
                double p[3];
                centred_mm(gt, x, y, z, p);
                double vx = p[0] / gf->res.x + (gf->dim.x - 1) / 2.0, vy = p[1] / gf->res.y + (gf->dim.y - 1) / 2.0,
                       vz = p[2] / gf->res.z + (gf->dim.z - 1) / 2.0;
                size_t i = (size_t)x + (size_t)gt->dim.x * ((size_t)y + (size_t)gt->dim.y * z);
                for (int c = 0; c < 3; c++) to[c][i] = grid_value(from[c], gf->dim, vx, vy, vz);
            }
}

double forward_jacobian(const float *const u[3], size_t i, size_t sy, size_t sz, POINT3D res)
{
    double J[3][3];
    for (int c = 0; c < 3; c++) {
        J[0][c] = (u[c][i + 1] - u[c][i]) / res.x;
        J[1][c] = (u[c][i + sy] - u[c][i]) / res.y;
        J[2][c] = (u[c][i + sz] - u[c][i]) / res.z;
    }
    J[0][0] += 1.0;
    J[1][1] += 1.0;
    J[2][2] += 1.0;
    return J[0][0] * (J[1][1] * J[2][2] - J[1][2] * J[2][1]) -
           J[0][1] * (J[1][0] * J[2][2] - J[1][2] * J[2][0]) +
           J[0][2] * (J[1][0] * J[2][1] - J[1][1] * J[2][0]);
}

/* Voxels of the level's mask (inside set or its rim) whose Jacobian determinant of
   p -> p + u(p), by forward differences, is at most `limit`. */
static long low_jacobians(const search_level *L, float *const u[3], double limit)
{
    IPOINT3D d = L->tpl.dim;
    size_t sy = (size_t)d.x, sz = (size_t)d.x * d.y;
    long count = 0;
    for (int z = 0; z + 1 < d.z; z++)
        for (int y = 0; y + 1 < d.y; y++)
            for (int x = 0; x + 1 < d.x; x++) {
                size_t i = (size_t)x + sy * y + sz * z;
                if (L->support.data[i] == 0.0f) continue;
                if (forward_jacobian(u, i, sy, sz, L->tpl.res) <= limit) count++;
            }
    return count;
}

/* The sums of one step at every inside voxel of L from the present resampling I: b = w r g and
   the six entries of w g g' (xx, xy, xz, yy, yz, zz), g the individual's gradient in its own
   space (mm), r the remapped residual, w its biweight. Returns the robust loss. */
static double step_sums_at_voxels(const search_level *L, const float *I, float *sums[9])
{
    remap_table m;
    estimate_remap(L, I, &m);
    double c = robust_cutoff(L, I, &m);
    const grid_volume *T = &L->tpl;
    const int nx = T->dim.x, ny = T->dim.y, nz = T->dim.z;
    const size_t sy = (size_t)nx, sz = (size_t)nx * ny;
    double inv[3][3];
    affine_linear_inverse(inv);
    std::vector<double> loss((size_t)nz, 0.0);
    parallel_ranges(nz, [&](int z0, int z1) {
        for (int z = z0; z < z1; z++)
            for (int y = 0; y < ny; y++)
                for (int x = 0; x < nx; x++) {
                    size_t i = (size_t)x + sy * y + sz * z;
                    for (int k = 0; k < 9; k++) sums[k][i] = 0.0f;
                    if (!L->inside[i]) continue;
                    double r = I[i] - remapped(&m, T->data[i]), w;
                    loss[(size_t)z] += biweight_loss(r, c, &w);
                    if (w == 0.0 || x == 0 || y == 0 || z == 0 || x == nx - 1 || y == ny - 1 || z == nz - 1) continue;
                    double G[3] = {(I[i + 1] - I[i - 1]) / (2.0 * T->res.x), (I[i + sy] - I[i - sy]) / (2.0 * T->res.y),
                                   (I[i + sz] - I[i - sz]) / (2.0 * T->res.z)};
                    double g[3];
                    for (int a = 0; a < 3; a++) g[a] = inv[0][a] * G[0] + inv[1][a] * G[1] + inv[2][a] * G[2];
                    for (int a = 0; a < 3; a++) sums[a][i] = (float)(w * r * g[a]);
                    sums[3][i] = (float)(w * g[0] * g[0]);
                    sums[4][i] = (float)(w * g[0] * g[1]);
                    sums[5][i] = (float)(w * g[0] * g[2]);
                    sums[6][i] = (float)(w * g[1] * g[1]);
                    sums[7][i] = (float)(w * g[1] * g[2]);
                    sums[8][i] = (float)(w * g[2] * g[2]);
                }
    });
    double total = 0.0;
    for (int z = 0; z < nz; z++) total += loss[(size_t)z];
    return total;
}

/* The step at each voxel from the window-smoothed sums: -(M + damping)^-1 b, at most one voxel
   long. Returns the mean length (mm) over the voxels that moved. */
static double solve_steps(float *sums[9], size_t n, double voxel_mm, float *step[3])
{
    double total = 0.0;
    long moved = 0;
    for (size_t i = 0; i < n; i++) {
        double M[3][3] = {{sums[3][i], sums[4][i], sums[5][i]},
                          {sums[4][i], sums[6][i], sums[7][i]},
                          {sums[5][i], sums[7][i], sums[8][i]}};
        double trace = M[0][0] + M[1][1] + M[2][2];
        step[0][i] = step[1][i] = step[2][i] = 0.0f;
        if (!(trace > 0.0)) continue;
        double damping = 1e-3 * trace;
        for (int a = 0; a < 3; a++) M[a][a] += damping;
        double det = M[0][0] * (M[1][1] * M[2][2] - M[1][2] * M[2][1]) - M[0][1] * (M[1][0] * M[2][2] - M[1][2] * M[2][0]) +
                     M[0][2] * (M[1][0] * M[2][1] - M[1][1] * M[2][0]);
        if (!(det > 0.0)) continue;
        double b[3] = {sums[0][i], sums[1][i], sums[2][i]}, d[3];
        for (int r = 0; r < 3; r++) {
            int r1 = (r + 1) % 3, r2 = (r + 2) % 3;
            /* row r of the inverse (symmetric matrix: cofactors) */
            double inv_r[3];
            for (int q = 0; q < 3; q++) {
                int q1 = (q + 1) % 3, q2 = (q + 2) % 3;
                inv_r[q] = (M[q1][r1] * M[q2][r2] - M[q1][r2] * M[q2][r1]) / det;
            }
            d[r] = -(inv_r[0] * b[0] + inv_r[1] * b[1] + inv_r[2] * b[2]);
        }
        double len = sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
        if (len > voxel_mm) {
            for (int a = 0; a < 3; a++) d[a] *= voxel_mm / len;
            len = voxel_mm;
        }
        for (int a = 0; a < 3; a++) step[a][i] = (float)d[a];
        total += len;
        moved++;
    }
    return moved > 0 ? total / moved : 0.0;
}

int accurate_nonlinear_search(accurate_nonlinear_report *report)
{
    memset(report, 0, sizeof *report);
    grid_volume tpl = volume_of(&template_, iTime_Template), ind = volume_of(&original, graph.iTime);
    size_t nt = grid_size(tpl.dim);
    grid_volume mask;
    if (template_mask(&tpl, &mask) != 0) return 1;
    /* Levels at 4, 2 and 1 times a base voxel: the template's, doubled while the shortest axis
       would have more than 256 voxels (a finer field is interpolated onto the template's grid),
       each coarse level keeping at least 16 voxels along every axis. */
    int base = 1, shortest = tpl.dim.x < tpl.dim.y ? tpl.dim.x : tpl.dim.y;
    if (tpl.dim.z < shortest) shortest = tpl.dim.z;
    while (shortest / base > 256) base *= 2;
    int factors[3] = {4, 2, 1}, iterations[3] = {40, 30, 20}, nlevels = 0;
    double level_mm[3];
    int level_iterations[3], level_full[3];
    for (int f = 0; f < 3; f++) {
        int k = factors[f] * base;
        if (f < 2 && (tpl.dim.x / k < 16 || tpl.dim.y / k < 16 || tpl.dim.z / k < 16)) continue;
        level_mm[nlevels] = tpl.res.x * k;
        level_full[nlevels] = k == 1;
        level_iterations[nlevels++] = iterations[f];
    }

    float *u[3] = {NULL, NULL, NULL};
    grid_volume previous = {{0, 0, 0}, {0, 0, 0}, NULL};
    for (int l = 0; l < nlevels; l++) {
        auto t0 = std::chrono::steady_clock::now();
        search_level L;
        build_level(&L, &tpl, &mask, &ind, level_mm[l], level_full[l], 1, 1);
        int n = (int)grid_size(L.tpl.dim);
        float *field[3], *step[3], *sums[9];
        for (int c = 0; c < 3; c++) {
            field[c] = float_vector(n);
            step[c] = float_vector(n);
            memset(field[c], 0, sizeof(float) * (size_t)n);
        }
        for (int k = 0; k < 9; k++) sums[k] = float_vector(n);
        if (u[0] != NULL) {
            carry_field(u, &previous, field, &L.tpl);
            for (int c = 0; c < 3; c++) free_float_vector(u[c]);
        }
        float *scratch = float_vector(n);
        nonlinear_level_report *r = &report->level[report->nlevels++];
        r->voxel_mm = L.tpl.res.x;
        r->dim = L.tpl.dim;

        /* the sums are 0 outside the inside voxels: their smoothing needs only the box around
           those voxels widened by the window's reach */
        IPOINT3D lo = L.tpl.dim, hi = {0, 0, 0};
        for (int z = 0; z < L.tpl.dim.z; z++)
            for (int y = 0; y < L.tpl.dim.y; y++)
                for (int x = 0; x < L.tpl.dim.x; x++) {
                    if (!L.inside[(size_t)x + (size_t)L.tpl.dim.x * ((size_t)y + (size_t)L.tpl.dim.y * z)]) continue;
                    if (x < lo.x) lo.x = x;
                    if (y < lo.y) lo.y = y;
                    if (z < lo.z) lo.z = z;
                    if (x + 1 > hi.x) hi.x = x + 1;
                    if (y + 1 > hi.y) hi.y = y + 1;
                    if (z + 1 > hi.z) hi.z = z + 1;
                }
        int reach = (int)ceil(3.0 * window_sigma) + 1;
        lo = {lo.x - reach > 0 ? lo.x - reach : 0, lo.y - reach > 0 ? lo.y - reach : 0, lo.z - reach > 0 ? lo.z - reach : 0};
        hi = {hi.x + reach < L.tpl.dim.x ? hi.x + reach : L.tpl.dim.x, hi.y + reach < L.tpl.dim.y ? hi.y + reach : L.tpl.dim.y,
              hi.z + reach < L.tpl.dim.z ? hi.z + reach : L.tpl.dim.z};
        if (hi.x <= lo.x) lo = hi = IPOINT3D{0, 0, 0};
        engine_state saved;
        enter_level(&saved, &L, &L.support, scratch, field);
        double previous_loss = 0.0;
        int flat = 0;
        for (int it = 0; it < level_iterations[l]; it++) {
            transform_coordinates(1, 0);
            double loss = step_sums_at_voxels(&L, individual.SpaceTime.fData, sums);
            /* the loss stops falling: three steps that each gain less than 0.1 % */
            if (previous_loss > 0.0 && loss > previous_loss * 0.999) {
                if (++flat >= 3) break;
            } else {
                flat = 0;
            }
            previous_loss = loss;
            for (int k = 0; k < 9; k++) smooth_box(sums[k], L.tpl.dim, lo, hi, window_sigma);
            solve_steps(sums, (size_t)n, L.tpl.res.x, step);
            r->iterations++;
            for (int c = 0; c < 3; c++) {
                for (int i = 0; i < n; i++) field[c][i] += step[c][i];
                smooth_grid(field[c], L.tpl.dim, field_sigma);
            }
        }
        leave_level(&saved);
        while (low_jacobians(&L, field, 0.05) > 0 && r->smoothing_passes < 20) {
            for (int c = 0; c < 3; c++) smooth_grid(field[c], L.tpl.dim, 1.0);
            r->smoothing_passes++;
        }
        r->similarity = level_similarity(&L, scratch, 0, field);
        r->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        printf("non-linear level %d of %d (%.3g mm): %d iterations, %d smoothings against folds, mutual information "
               "%.4f, %.1f s\n",
               l + 1, nlevels, (double)L.tpl.res.x, r->iterations, r->smoothing_passes, r->similarity, r->seconds);
        fflush(stdout);
        for (int c = 0; c < 3; c++) {
            u[c] = field[c];
            free_float_vector(step[c]);
        }
        for (int k = 0; k < 9; k++) free_float_vector(sums[k]);
        previous = L.tpl;
        previous.data = NULL; /* only its grid is needed */
        free_float_vector(scratch);
        free_level(&L);
    }
    free_float_vector(mask.data);

    /* the finest level's field onto the template grid, into the maps */
    grid_volume full = tpl;
    float *maps[3] = {distort_x.SpaceTime.fData, distort_y.SpaceTime.fData, distort_z.SpaceTime.fData};
    if (previous.dim.x == tpl.dim.x && previous.dim.y == tpl.dim.y && previous.dim.z == tpl.dim.z)
        for (int c = 0; c < 3; c++) memcpy(maps[c], u[c], sizeof(float) * nt);
    else
        carry_field(u, &previous, maps, &full);
    for (int c = 0; c < 3; c++) free_float_vector(u[c]);
    update_nonlinear_alignment_parameters(0);
    AlignNL.Adjusted.x = AlignNL.Adjusted.y = AlignNL.Adjusted.z = 1;
    transform_coordinates(1, 1);
    return 0;
}
