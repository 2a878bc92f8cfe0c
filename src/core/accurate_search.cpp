/* The accurate affine search (see accurate_search.h). The similarity that drives the steps is a
   robust least-squares fit of the resampled individual to a remapped template: each template
   intensity is mapped to the mean individual intensity of its bin (so any one-to-one relation of
   contrasts is allowed), and residuals beyond a few robust standard deviations (skull, lesions,
   edges of a brain mask) lose their weight. Its Gauss-Newton steps use the gradient of the
   resampled individual, so a level needs a handful of resamplings rather than hundreds of
   line-search trials. Mutual information is measured at the end of every level for the report
   and decides between orientations.
   Reads template_, original; writes Alignment, individual; swaps the working volumes for reduced
   copies while a level runs and puts them back. No X11. */
#include "accurate_search.h"
#include "search_pyramid.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "align_model.h"
#include "globals.h"
#include "numerics.h"
#include "resample.h"
#include "similarity.h"
#include "threads.h"
#include "volume.h"

/* Sums of one step: E = sum of biweight losses; K = sum w v v', b = sum w v r, with v the
   derivative of the residual with respect to the twelve entries of rows 0..2 of the mapping
   (template mm -> individual mm). The individual's gradient comes from central differences of
   I on the grid, or, when given, from resamplings `shifted' moved by eps_mm along its axes. */
struct step_sums {
    double E;
    double K[12][12];
    double b[12];
    long n;
};

static void accumulate(const search_level *L, const float *I, const remap_table *m, double c, int derivatives,
                       step_sums *S, float *const shifted[3] = NULL, const double *eps_mm = NULL)
{
    const grid_volume *T = &L->tpl;
    const int nx = T->dim.x, ny = T->dim.y, nz = T->dim.z;
    const size_t sx = 1, sy = (size_t)nx, sz = (size_t)nx * ny;
    /* the individual's gradient in its own space is the transposed inverse of the linear block
       applied to the gradient of the resampled volume on the template grid */
    double inv[3][3];
    affine_linear_inverse(inv);
    std::vector<step_sums> part((size_t)nz);
    parallel_ranges(nz, [&](int z0, int z1) {
        for (int z = z0; z < z1; z++) {
            step_sums &P = part[(size_t)z];
            memset(&P, 0, sizeof P);
            for (int y = 0; y < ny; y++)
                for (int x = 0; x < nx; x++) {
                    size_t i = (size_t)x + sy * y + sz * z;
                    if (!L->inside[i]) continue;
                    double r = I[i] - remapped(m, T->data[i]), u = r / c;
                    P.n++;
                    if (fabs(u) >= 1.0) {
                        P.E += c * c / 6.0;
                        continue;
                    }
                    double one = 1.0 - u * u;
                    P.E += c * c / 6.0 * (1.0 - one * one * one);
                    if (!derivatives) continue;
                    double w = one * one, g[3];
                    if (shifted != NULL) {
                        for (int a = 0; a < 3; a++) g[a] = (shifted[a][i] - I[i]) / eps_mm[a];
                    } else {
                        if (x == 0 || y == 0 || z == 0 || x == nx - 1 || y == ny - 1 || z == nz - 1) continue;
                        double G[3] = {(I[i + sx] - I[i - sx]) / (2.0 * T->res.x),
                                       (I[i + sy] - I[i - sy]) / (2.0 * T->res.y),
                                       (I[i + sz] - I[i - sz]) / (2.0 * T->res.z)};
                        for (int a = 0; a < 3; a++) g[a] = inv[0][a] * G[0] + inv[1][a] * G[1] + inv[2][a] * G[2];
                    }
                    double p[4];
                    centred_mm(T, x, y, z, p);
                    p[3] = 1.0;
                    double v[12];
                    for (int a = 0; a < 3; a++)
                        for (int b = 0; b < 4; b++) v[4 * a + b] = g[a] * p[b];
                    for (int a = 0; a < 12; a++) {
                        double wv = w * v[a];
                        P.b[a] += wv * r;
                        for (int b = a; b < 12; b++) P.K[a][b] += wv * v[b];
                    }
                }
        }
    });
    /* slice order, whatever the thread count */
    memset(S, 0, sizeof *S);
    for (int z = 0; z < nz; z++) {
        const step_sums &P = part[(size_t)z];
        S->E += P.E;
        S->n += P.n;
        for (int a = 0; a < 12; a++) {
            S->b[a] += P.b[a];
            for (int b = a; b < 12; b++) S->K[a][b] += P.K[a][b];
        }
    }
    for (int a = 0; a < 12; a++)
        for (int b = 0; b < a; b++) S->K[a][b] = S->K[b][a];
}

/* Derivatives of rows 0..2 of Alignment.Affine (12 entries, row-major) with respect to the
   twelve parameters, by central differences of define_affine_matrix; leaves Affine as it was. */
static void affine_derivatives(double D[12][12])
{
    float saved[12];
    for (int j = 0; j < 12; j++) saved[j] = Alignment.value[j];
    for (int j = 0; j < 12; j++) {
        float h = j < 6 ? 0.05f : 5e-4f;
        float plus[3][4];
        Alignment.value[j] = saved[j] + h;
        define_affine_matrix();
        for (int a = 0; a < 3; a++)
            for (int b = 0; b < 4; b++) plus[a][b] = Alignment.Affine[a][b];
        Alignment.value[j] = saved[j] - h;
        define_affine_matrix();
        double span = (double)(saved[j] + h) - (double)(saved[j] - h);
        for (int a = 0; a < 3; a++)
            for (int b = 0; b < 4; b++) D[4 * a + b][j] = ((double)plus[a][b] - (double)Alignment.Affine[a][b]) / span;
        Alignment.value[j] = saved[j];
    }
    define_affine_matrix();
}

/* Solves the n x n system by Gaussian elimination with partial pivoting; 1 when singular. */
static int solve_system(int n, double M[12][13], double x[12])
{
    for (int c = 0; c < n; c++) {
        int p = c;
        for (int r = c + 1; r < n; r++)
            if (fabs(M[r][c]) > fabs(M[p][c])) p = r;
        if (!(fabs(M[p][c]) > 0.0)) return 1;
        for (int j = 0; j <= n; j++) std::swap(M[c][j], M[p][j]);
        for (int r = 0; r < n; r++) {
            if (r == c) continue;
            double f = M[r][c] / M[c][c];
            for (int j = c; j <= n; j++) M[r][j] -= f * M[c][j];
        }
    }
    for (int i = 0; i < n; i++) x[i] = M[i][n] / M[i][i];
    return 0;
}

/* Root mean square, over L's inside voxels, of the displacement that the change dA of the 12
   matrix entries makes. */
static double mapping_change(const search_level *L, const double dA[12])
{
    double s = 0.0;
    for (int a = 0; a < 3; a++)
        for (int p = 0; p < 4; p++)
            for (int q = 0; q < 4; q++) s += dA[4 * a + p] * L->moments[p][q] * dA[4 * a + q];
    return s > 0.0 ? sqrt(s) : 0.0;
}

/* The indices j with active[j] set, in increasing order; returns how many. */
static int active_indices(const int active[12], int idx[12])
{
    int n = 0;
    for (int j = 0; j < 12; j++)
        if (active[j]) idx[n++] = j;
    return n;
}

/* Gauss-Newton (Levenberg-Marquardt damped) steps on level L over the parameters with
   active[j] set, until a step moves the mapping by less than tolerance_mm (RMS over the level's
   voxels), no step lowers the loss, or max_steps were taken. Returns the steps accepted;
   *scale gets the robust residual scale at the end. Prints a line per step after `label'
   unless it is NULL. */
static int run_level_steps(search_level *L, const int active[12], int kernel, int max_steps, double tolerance_mm,
                           float *scratch, const char *label, float *scale)
{
    engine_state saved;
    enter_level(&saved, L, &L->support, scratch, NULL);
    const float *I = individual.SpaceTime.fData;
    int idx[12], n = active_indices(active, idx);
    remap_table m;
    step_sums S, trial;
    double lambda = 1e-3, c = 1.0;
    int accepted = 0;

    transform_coordinates(1, kernel);
    for (int step = 0; step < max_steps && n > 0; step++) {
        estimate_remap(L, I, &m);
        c = robust_cutoff(L, I, &m);
        accumulate(L, I, &m, c, 1, &S);
        double D[12][12];
        affine_derivatives(D);
        double H[12][12], g[12];
        for (int a = 0; a < n; a++) {
            g[a] = 0.0;
            for (int k = 0; k < 12; k++) g[a] += D[k][idx[a]] * S.b[k];
            for (int b = 0; b < n; b++) {
                double h = 0.0;
                for (int k = 0; k < 12; k++) {
                    double dk = D[k][idx[a]];
                    if (dk == 0.0) continue;
                    for (int l = 0; l < 12; l++) h += dk * S.K[k][l] * D[l][idx[b]];
                }
                H[a][b] = h;
            }
        }
        float start[12];
        for (int j = 0; j < 12; j++) start[j] = Alignment.value[j];
        int moved = 0;
        double moved_mm = 0.0;
        for (int attempt = 0; attempt < 8 && !moved; attempt++) {
            double M[12][13], dp[12];
            for (int a = 0; a < n; a++) {
                for (int b = 0; b < n; b++) M[a][b] = H[a][b];
                M[a][a] += lambda * (H[a][a] > 0.0 ? H[a][a] : 1.0);
                M[a][n] = -g[a];
            }
            if (solve_system(n, M, dp)) break;
            double dA[12];
            for (int k = 0; k < 12; k++) {
                dA[k] = 0.0;
                for (int a = 0; a < n; a++) dA[k] += D[k][idx[a]] * dp[a];
            }
            moved_mm = mapping_change(L, dA);
            for (int a = 0; a < n; a++) Alignment.value[idx[a]] = start[idx[a]] + (float)dp[a];
            transform_coordinates(1, kernel);
            accumulate(L, I, &m, c, 0, &trial);
            if (trial.E < S.E) {
                moved = 1;
                lambda = lambda / 10.0 > 1e-7 ? lambda / 10.0 : 1e-7;
            } else {
                lambda *= 10.0;
                for (int j = 0; j < 12; j++) Alignment.value[j] = start[j];
            }
        }
        if (!moved) {
            transform_coordinates(1, kernel);
            break;
        }
        accepted++;
        if (label != NULL) {
            printf("%s step %d: residual scale %.4g, mapping moved %.4f mm\n", label, accepted, c / 4.685, moved_mm);
            fflush(stdout);
        }
        if (moved_mm < tolerance_mm) break;
    }
    *scale = (float)(c / 4.685);
    leave_level(&saved);
    return accepted;
}

/* ---- mutual information with a partial-volume histogram ---- */

#define MI_BINS 50

/* Fixed bin edges for one refinement: template and individual intensity ranges. */
struct mi_bins {
    double tmin, tmax, imin, imax;
};

static void choose_bins(const search_level *L, const float *I, mi_bins *b)
{
    size_t n = grid_size(L->tpl.dim);
    int any = 0;
    for (size_t i = 0; i < n; i++) {
        if (!L->inside[i]) continue;
        double t = L->tpl.data[i], v = I[i];
        if (!any) { b->tmin = b->tmax = t; b->imin = b->imax = v; any = 1; }
        if (t < b->tmin) b->tmin = t;
        if (t > b->tmax) b->tmax = t;
        if (v < b->imin) b->imin = v;
        if (v > b->imax) b->imax = v;
    }
    double margin = 0.02 * (b->imax - b->imin);
    b->imin -= margin;
    b->imax += margin;
    if (!(b->tmax > b->tmin)) b->tmax = b->tmin + 1.0;
    if (!(b->imax > b->imin)) b->imax = b->imin + 1.0;
}

static inline int template_bin(const mi_bins *b, double t)
{
    int k = (int)((t - b->tmin) / (b->tmax - b->tmin) * MI_BINS);
    return k < 0 ? 0 : k > MI_BINS - 1 ? MI_BINS - 1 : k;
}

/* Position of an individual value on the bin axis: lower bin and the weight of the next one;
   *slope is 0 where the value is clamped to the first or last bin. */
static inline int individual_bin(const mi_bins *b, double v, double *upper_weight, int *inside_range)
{
    double f = (v - b->imin) / (b->imax - b->imin) * MI_BINS - 0.5;
    if (!(f > 0.0)) { *upper_weight = 0.0; *inside_range = 0; return 0; }
    if (f >= MI_BINS - 1) { *upper_weight = 0.0; *inside_range = 0; return MI_BINS - 1; }
    int a = (int)f;
    *upper_weight = f - a;
    *inside_range = 1;
    return a;
}

/* Mutual information of L's template (hard bins) and the resampled individual I (each value
   shared linearly between its two nearest bins), over L's inside voxels. With gradient set,
   also its derivatives with respect to the twelve entries of rows 0..2 of the mapping, the
   individual's gradient at each voxel taken from `shifted': I resampled with the mapping moved
   by eps_mm[0..2] along the individual's x, y and z axes. */
static double partial_volume_mi(const search_level *L, const float *I, const mi_bins *b, double gradient[12],
                                float *const shifted[3] = NULL, const double *eps_mm = NULL)
{
    const grid_volume *T = &L->tpl;
    const int nx = T->dim.x, ny = T->dim.y, nz = T->dim.z;
    const size_t sy = (size_t)nx, sz = (size_t)nx * ny;
    std::vector<double> slices((size_t)nz * MI_BINS * MI_BINS, 0.0);
    parallel_ranges(nz, [&](int z0, int z1) {
        for (int z = z0; z < z1; z++) {
            double *h = &slices[(size_t)z * MI_BINS * MI_BINS];
            for (size_t i = sz * z; i < sz * (z + 1); i++) {
                if (!L->inside[i]) continue;
                double w;
                int ok, a = individual_bin(b, I[i], &w, &ok), t = template_bin(b, T->data[i]);
                h[a * MI_BINS + t] += 1.0 - w;
                if (ok) h[(a + 1) * MI_BINS + t] += w;
            }
        }
    });
    double joint[MI_BINS][MI_BINS];
    double pa[MI_BINS], pt[MI_BINS], total = 0.0;
    memset(joint, 0, sizeof joint);
    for (int z = 0; z < nz; z++)
        for (int k = 0; k < MI_BINS * MI_BINS; k++) joint[k / MI_BINS][k % MI_BINS] += slices[(size_t)z * MI_BINS * MI_BINS + k];
    for (int a = 0; a < MI_BINS; a++) pa[a] = 0.0;
    for (int t = 0; t < MI_BINS; t++) pt[t] = 0.0;
    for (int a = 0; a < MI_BINS; a++)
        for (int t = 0; t < MI_BINS; t++) {
            pa[a] += joint[a][t];
            pt[t] += joint[a][t];
            total += joint[a][t];
        }
    if (!(total > 0.0)) {
        if (gradient != NULL) memset(gradient, 0, 12 * sizeof(double));
        return 0.0;
    }
    double mi = 0.0;
    for (int a = 0; a < MI_BINS; a++)
        for (int t = 0; t < MI_BINS; t++)
            if (joint[a][t] > 0.0) mi += joint[a][t] / total * log(joint[a][t] * total / (pa[a] * pt[t]));
    if (gradient == NULL) return mi;

    /* d MI / d I(x) = slope / N * (log(h(a+1,t)/h(a)) - log(h(a,t)/h(a))), slope = bins per unit */
    double slope = MI_BINS / (b->imax - b->imin) / total;
    std::vector<double> parts((size_t)nz * 12, 0.0);
    parallel_ranges(nz, [&](int z0, int z1) {
        for (int z = z0; z < z1; z++) {
            double *g = &parts[(size_t)z * 12];
            for (int y = 0; y < ny; y++)
                for (int x = 0; x < nx; x++) {
                    size_t i = (size_t)x + sy * y + sz * z;
                    if (!L->inside[i]) continue;
                    double w;
                    int ok, a = individual_bin(b, I[i], &w, &ok), t = template_bin(b, T->data[i]);
                    if (!ok) continue;
                    double lo = joint[a][t] > 0.0 ? log(joint[a][t] / pa[a]) : 0.0;
                    double hi = joint[a + 1][t] > 0.0 ? log(joint[a + 1][t] / pa[a + 1]) : 0.0;
                    double dI = slope * (hi - lo);
                    double p[4];
                    centred_mm(T, x, y, z, p);
                    p[3] = 1.0;
                    for (int r = 0; r < 3; r++) {
                        double gi = (shifted[r][i] - I[i]) / eps_mm[r];
                        for (int c = 0; c < 4; c++) g[4 * r + c] += dI * gi * p[c];
                    }
                }
        }
    });
    for (int k = 0; k < 12; k++) gradient[k] = 0.0;
    for (int z = 0; z < nz; z++)
        for (int k = 0; k < 12; k++) gradient[k] += parts[(size_t)z * 12 + k];
    return mi;
}

/* The partial-volume information at start + alpha d (the active parameters idx[0..n-1]),
   resampled with the kernel; *last notes alpha, since individual now holds this resampling. */
static double information_along(search_level *L, const int idx[12], int n, const float start[12], const double d[12],
                                double alpha, int kernel, const mi_bins *bins, double *last)
{
    for (int a = 0; a < n; a++) Alignment.value[idx[a]] = start[idx[a]] + (float)(alpha * d[a]);
    transform_coordinates(1, kernel);
    *last = alpha;
    return partial_volume_mi(L, individual.SpaceTime.fData, bins, NULL);
}

/* Ascent of the partial-volume mutual information on level L from the present parameters:
   each step goes along the Gauss-Newton metric of the remapped residual applied to the
   information's gradient, its length set by a parabola through the present value, the slope
   and one trial. Ends when a step moves the mapping by less than tolerance_mm or no longer
   raises the information. Returns the steps accepted. */
static int run_mi_steps(search_level *L, const int active[12], int kernel, int max_steps, double tolerance_mm,
                        float *scratch, const char *label)
{
    engine_state saved;
    enter_level(&saved, L, &L->support, scratch, NULL);
    const float *I = individual.SpaceTime.fData;
    int idx[12], n = active_indices(active, idx);
    transform_coordinates(1, kernel);
    mi_bins bins;
    choose_bins(L, I, &bins);
    int accepted = 0;
    double eps_mm = 0.1 * L->ind.res.x;
    int nvox = (int)grid_size(L->tpl.dim);
    float *base = float_vector(nvox), *shifted[3] = {float_vector(nvox), float_vector(nvox), float_vector(nvox)};
    double trial_mm = 4.0 * tolerance_mm;
    for (int step = 0; step < max_steps && n > 0; step++) {
        /* the individual's gradient from three resamplings with the mapping moved a little along
           its axes: the derivative of what the kernel interpolates, edges included */
        float start_t[3] = {Alignment.value[0], Alignment.value[1], Alignment.value[2]};
        size_t nbytes = sizeof(float) * grid_size(L->tpl.dim);
        double eps_used[3];
        memcpy(base, I, nbytes);
        for (int k = 0; k < 3; k++) {
            /* the translation enters with a minus sign: lowering it moves the mapping up the axis */
            Alignment.value[k] = start_t[k] - (float)eps_mm;
            eps_used[k] = (double)start_t[k] - (double)Alignment.value[k];
            transform_coordinates(1, kernel);
            memcpy(shifted[k], I, nbytes);
            Alignment.value[k] = start_t[k];
        }
        memcpy(individual.SpaceTime.fData, base, nbytes);
        remap_table m;
        estimate_remap(L, I, &m);
        double c = robust_cutoff(L, I, &m);
        step_sums S;
        accumulate(L, I, &m, c, 1, &S, shifted, eps_used);
        double gA[12], D[12][12];
        double mi0 = partial_volume_mi(L, I, &bins, gA, shifted, eps_used);
        affine_derivatives(D);
        double M[12][13], g[12], d[12];
        for (int a = 0; a < n; a++) {
            g[a] = 0.0;
            for (int k = 0; k < 12; k++) g[a] += D[k][idx[a]] * gA[k];
            for (int bb = 0; bb < n; bb++) {
                double h = 0.0;
                for (int k = 0; k < 12; k++)
                    for (int l = 0; l < 12; l++) h += D[k][idx[a]] * S.K[k][l] * D[l][idx[bb]];
                M[a][bb] = h;
            }
            M[a][n] = g[a];
        }
        if (solve_system(n, M, d)) break;
        double dA[12], slope = 0.0;
        for (int k = 0; k < 12; k++) {
            dA[k] = 0.0;
            for (int a = 0; a < n; a++) dA[k] += D[k][idx[a]] * d[a];
        }
        for (int a = 0; a < n; a++) slope += g[a] * d[a];
        double unit_mm = mapping_change(L, dA);
        if (!(unit_mm > 0.0) || !(slope > 0.0)) break;
        float start[12];
        for (int j = 0; j < 12; j++) start[j] = Alignment.value[j];
        /* Step length from values only (the gradient's size is not trusted, only its
           direction): a trial, its double when it gained, and the parabola through the three;
           a trial that lost is shortened. */
        double best_alpha = 0.0, best_mi = mi0, last_alpha = 0.0;
        for (int attempt = 0; attempt < 4 && best_alpha == 0.0; attempt++) {
            double a1 = trial_mm / unit_mm;
            double mi1 = information_along(L, idx, n, start, d, a1, kernel, &bins, &last_alpha);
            if (mi1 > best_mi) {
                best_mi = mi1;
                best_alpha = a1;
                double a2 = 2.0 * a1;
                double mi2 = information_along(L, idx, n, start, d, a2, kernel, &bins, &last_alpha);
                if (mi2 > best_mi) {
                    best_mi = mi2;
                    best_alpha = a2;
                } else {
                    /* vertex of the parabola through (0, mi0), (a1, mi1), (2 a1, mi2) */
                    double curvature = mi2 - 2.0 * mi1 + mi0;
                    if (curvature < 0.0) {
                        double a3 = a1 * (0.5 + (mi0 - mi1) / curvature);
                        if (a3 > 0.0 && a3 < a2 && fabs(a3 - a1) > 0.1 * a1) {
                            double mi3 = information_along(L, idx, n, start, d, a3, kernel, &bins, &last_alpha);
                            if (mi3 > best_mi) {
                                best_mi = mi3;
                                best_alpha = a3;
                            }
                        }
                    }
                }
            } else {
                trial_mm /= 4.0;
            }
        }
        /* individual holds the last trial; resample only when another value won */
        if (best_alpha != last_alpha) {
            for (int a = 0; a < n; a++) Alignment.value[idx[a]] = start[idx[a]] + (float)(best_alpha * d[a]);
            transform_coordinates(1, kernel);
        }
        if (best_alpha == 0.0) break;
        accepted++;
        double moved = best_alpha * unit_mm;
        trial_mm = moved > tolerance_mm ? moved : tolerance_mm;
        if (label != NULL) {
            printf("%s information step %d: %.5f, mapping moved %.4f mm\n", label, accepted, best_mi, moved);
            fflush(stdout);
        }
        if (moved < tolerance_mm) break;
    }
    free_float_vector(base);
    for (int k = 0; k < 3; k++) free_float_vector(shifted[k]);
    leave_level(&saved);
    return accepted;
}

/* ---- the robust start ---- */


/* Identity parameters with the translations that carry the template's centre of mass onto the
   individual's under the present orientation (the affine maps p to Orient p - t). */
static void start_from_centres(const double ct[3], const double ci[3], const int adjust[12])
{
    float identity[12] = {0, 0, 0, 0, 0, 0, 1, 1, 1, 0, 0, 0};
    for (int j = 0; j < 12; j++)
        if (adjust[j]) Alignment.value[j] = identity[j];
    calculate_orientation_rotation();
    for (int k = 0; k < 3; k++) {
        if (!adjust[k]) continue;
        double oc = 0.0;
        for (int a = 0; a < 3; a++) oc += Alignment.Orient[k][a] * ct[a];
        Alignment.value[k] = (float)(oc - ci[k]);
    }
}

static double elapsed(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

/* Quarter turns of a setting: a half turn counts two. */
static int turns_of(IPOINT3D r) { return abs(r.x) + abs(r.y) + abs(r.z) + (r.x == 2) + (r.y == 2) + (r.z == 2); }

/* The 24 distinct quarter-turn orientations, the present one first, then each by its setting
   with the fewest turns (so a turn about z is written 0 0 1, not 2 2 -1). */
static int orientation_candidates(IPOINT3D out[24])
{
    IPOINT3D present = Alignment.OrientRotation, settings[65];
    settings[0] = present;
    for (int k = 0; k < 64; k++) settings[k + 1] = {k % 4 - 1, (k / 4) % 4 - 1, k / 16 - 1};
    std::stable_sort(settings + 1, settings + 65,
                     [](IPOINT3D a, IPOINT3D b) { return turns_of(a) < turns_of(b); });
    float seen[24][3][3];
    int count = 0;
    for (int k = 0; k < 65 && count < 24; k++) {
        IPOINT3D r = settings[k];
        Alignment.OrientRotation = r;
        calculate_orientation_rotation();
        int known = 0;
        for (int s = 0; s < count && !known; s++) {
            int same = 1;
            for (int a = 0; a < 3; a++)
                for (int b = 0; b < 3; b++)
                    if (seen[s][a][b] != Alignment.Orient[a][b]) same = 0;
            known = same;
        }
        if (known) continue;
        for (int a = 0; a < 3; a++)
            for (int b = 0; b < 3; b++) seen[count][a][b] = Alignment.Orient[a][b];
        out[count++] = r;
    }
    Alignment.OrientRotation = present;
    calculate_orientation_rotation();
    return count;
}

/* ---- the search ---- */


/* The finest level compares every second voxel along each axis (an eighth of them) on the
   template's own grid: it needs no neighbours (its gradients come from moved resamplings), and
   an eighth of the brain's voxels still fix the information's maximum, at an eighth of the
   cost of each resampling. */
static const int finest_lattice = 2;

int accurate_affine_search(int search_orientation, accurate_search_report *report)
{
    memset(report, 0, sizeof *report);
    grid_volume tpl = volume_of(&template_, iTime_Template), ind = volume_of(&original, graph.iTime);
    grid_volume mask;
    if (template_mask(&tpl, &mask) != 0) return 1;

    /* levels: the template's voxels grouped by 8, 4, 2 and 1, keeping at least 16 voxels along
       every axis at the coarse levels */
    double base = tpl.res.x;
    int factors[4] = {8, 4, 2, 1}, nlevels = 0;
    double level_mm[4];
    for (int f = 0; f < 4; f++) {
        int k = factors[f];
        if (k > 1 && (tpl.dim.x / k < 16 || tpl.dim.y / k < 16 || tpl.dim.z / k < 16)) continue;
        level_mm[nlevels++] = base * k;
    }
    int adjust[12], rigid[12];
    for (int j = 0; j < 12; j++) {
        adjust[j] = AlignAid.Adjust[j];
        rigid[j] = j < 6 ? AlignAid.Adjust[j] : 0;
    }

    search_level coarse;
    build_level(&coarse, &tpl, &mask, &ind, level_mm[0], nlevels == 1, 1, 1);
    float *scratch = float_vector((int)grid_size(coarse.tpl.dim));
    double ct[3], ci[3];
    if (centre_of_mass(&coarse.compare, ct) || centre_of_mass(&coarse.ind, ci)) {
        printf("Error: the individual or the template has no voxel above its mean value.\n");
        free_float_vector(scratch);
        free_level(&coarse);
        free_float_vector(mask.data);
        return 1;
    }
    start_from_centres(ct, ci, adjust);
    for (int k = 0; k < 3; k++) report->start_translation[k] = Alignment.value[k];
    printf("start: centres of mass give the translations %.2f %.2f %.2f mm\n", Alignment.value[0],
           Alignment.value[1], Alignment.value[2]);
    fflush(stdout);

    if (search_orientation) {
        IPOINT3D candidates[24];
        float fitted[24][12];
        int n = orientation_candidates(candidates), best = 0;
        for (int o = 0; o < n; o++) {
            Alignment.OrientRotation = candidates[o];
            start_from_centres(ct, ci, adjust);
            float scale;
            char label[1024];
            snprintf(label, sizeof label, "orientation %d of %d (%d %d %d):", o + 1, n, candidates[o].x,
                     candidates[o].y, candidates[o].z);
            run_level_steps(&coarse, rigid, 0, 10, 0.05 * level_mm[0], scratch, NULL, &scale);
            report->orientation_similarity[o] = level_similarity(&coarse, scratch, 0, NULL);
            report->orientation_tried[o] = candidates[o];
            for (int j = 0; j < 12; j++) fitted[o][j] = Alignment.value[j];
            printf("%s mutual information %.4f\n", label, report->orientation_similarity[o]);
            fflush(stdout);
            if (report->orientation_similarity[o] > report->orientation_similarity[best]) best = o;
        }
        report->orientations_tried = n;
        /* another orientation must beat the present one clearly */
        if (best != 0 && !(report->orientation_similarity[best] > 1.1f * report->orientation_similarity[0])) best = 0;
        Alignment.OrientRotation = candidates[best];
        calculate_orientation_rotation();
        for (int j = 0; j < 12; j++) Alignment.value[j] = fitted[best][j];
        printf("orientation: quarter turns %d %d %d\n", candidates[best].x, candidates[best].y, candidates[best].z);
        fflush(stdout);
    }
    report->orientation = Alignment.OrientRotation;
    free_float_vector(scratch);

    for (int l = 0; l < nlevels; l++) {
        auto t0 = std::chrono::steady_clock::now();
        int finest = l == nlevels - 1;
        search_level L;
        if (l == 0) L = coarse;
        else build_level(&L, &tpl, &mask, &ind, level_mm[l], finest, 1, finest ? finest_lattice : 1);
        scratch = float_vector((int)grid_size(L.tpl.dim));
        search_level_report *r = &report->level[report->nlevels++];
        r->voxel_mm = L.tpl.res.x;
        r->dim = L.tpl.dim;
        r->kernel = finest ? 1 : 0;
        char label[1024];
        snprintf(label, sizeof label, "level %d of %d (%.3g mm):", l + 1, nlevels, (double)L.tpl.res.x);
        /* The residual's steps bring the coarse levels close quickly; from the last coarse level
           on, the mutual information decides (the residual's optimum can lie a few hundredths
           of a millimetre off where skull or contrast differ). The finest level starts close
           enough for the information's steps alone. */
        double tolerance = (finest ? 0.005 : 0.02) * L.tpl.res.x;
        if (!finest || nlevels == 1)
            r->residual_steps = run_level_steps(&L, adjust, r->kernel, 30, tolerance, scratch, label, &r->residual);
        if (l >= nlevels - 2)
            r->information_steps = run_mi_steps(&L, adjust, r->kernel, 20, tolerance, scratch, label);
        /* the finest level's information is measured at full resolution below */
        r->similarity = finest ? NAN : level_similarity(&L, scratch, r->kernel, NULL);
        r->seconds = elapsed(t0);
        if (finest)
            printf("%s %d + %d steps, %.1f s\n", label, r->residual_steps, r->information_steps, r->seconds);
        else
            printf("%s %d + %d steps, mutual information %.4f, %.1f s\n", label, r->residual_steps, r->information_steps,
                   r->similarity, r->seconds);
        fflush(stdout);
        free_float_vector(scratch);
        free_level(&L);
    }
    free_float_vector(mask.data);

    transform_coordinates(1, 1);
    report->similarity = cost_function(0);
    report->level[report->nlevels - 1].similarity = report->similarity;
    return 0;
}
