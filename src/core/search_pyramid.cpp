/* The shared machinery of the accurate searches (see search_pyramid.h): reduced copies, levels,
   the engines pointed at a level, the remapped residual's table and cutoff. Reads and, between
   enter_level and leave_level, replaces template_, original, individual, the displacement maps'
   data and Alignment's geometry. No X11. */
#include "search_pyramid.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "globals.h"
#include "numerics.h"
#include "resample.h"
#include "similarity.h"
#include "threads.h"
#include "volume.h"

/* ---- reduced copies of a volume ---- */


size_t grid_size(IPOINT3D d) { return (size_t)d.x * (size_t)d.y * (size_t)d.z; }

void free_grid(grid_volume *g)
{
    if (g->data != NULL) free_float_vector(g->data);
    g->data = NULL;
}

static int axis_of(IPOINT3D d, int axis) { return axis == 0 ? d.x : axis == 1 ? d.y : d.z; }

/* One axis of a reduction: n_new samples whose centres keep the grid's centre, each the
   normalised Gaussian average (FWHM = the size ratio, as downsample_stack) of the old samples. */
static void reduce_axis(const grid_volume *in, grid_volume *out, int axis, int n_new)
{
    int n_old = axis_of(in->dim, axis);
    double s = (double)n_old / n_new, sigma = 0.425 * s;
    int half = (int)ceil(2.5 * sigma);
    out->dim = in->dim;
    out->res = in->res;
    if (axis == 0) { out->dim.x = n_new; out->res.x = (float)(in->res.x * s); }
    if (axis == 1) { out->dim.y = n_new; out->res.y = (float)(in->res.y * s); }
    if (axis == 2) { out->dim.z = n_new; out->res.z = (float)(in->res.z * s); }
    out->data = float_vector((int)grid_size(out->dim));

    int width = 2 * half + 2;
    std::vector<int> first(n_new), count(n_new);
    std::vector<double> weight((size_t)n_new * width);
    for (int i = 0; i < n_new; i++) {
        double centre = (n_old - 1) / 2.0 + s * (i - (n_new - 1) / 2.0), sum = 0.0;
        int lo = (int)floor(centre) - half, hi = (int)ceil(centre) + half;
        if (lo < 0) lo = 0;
        if (hi > n_old - 1) hi = n_old - 1;
        first[i] = lo;
        count[i] = hi - lo + 1;
        for (int j = lo; j <= hi; j++) {
            double d = (centre - j) / sigma;
            weight[(size_t)i * width + (j - lo)] = exp(-0.5 * d * d);
            sum += weight[(size_t)i * width + (j - lo)];
        }
        for (int j = 0; j < count[i]; j++) weight[(size_t)i * width + j] /= sum;
    }
    size_t in_stride = axis == 0 ? 1 : axis == 1 ? (size_t)in->dim.x : (size_t)in->dim.x * in->dim.y;
    size_t out_stride = axis == 0 ? 1 : axis == 1 ? (size_t)out->dim.x : (size_t)out->dim.x * out->dim.y;
    /* lines along the axis, indexed by the other two coordinates (a inner, b outer) */
    int na = axis == 0 ? in->dim.y : in->dim.x, nb = axis == 2 ? in->dim.y : in->dim.z;
    parallel_ranges(nb, [&](int b0, int b1) {
        for (int b = b0; b < b1; b++)
            for (int a = 0; a < na; a++) {
                size_t in_base, out_base;
                if (axis == 0) {
                    in_base = ((size_t)b * in->dim.y + a) * in->dim.x;
                    out_base = ((size_t)b * out->dim.y + a) * out->dim.x;
                } else if (axis == 1) {
                    in_base = (size_t)b * in->dim.x * in->dim.y + a;
                    out_base = (size_t)b * out->dim.x * out->dim.y + a;
                } else {
                    in_base = (size_t)b * in->dim.x + a;
                    out_base = (size_t)b * out->dim.x + a;
                }
                for (int i = 0; i < n_new; i++) {
                    double sum = 0.0;
                    const double *w = &weight[(size_t)i * width];
                    for (int j = 0; j < count[i]; j++) sum += w[j] * in->data[in_base + in_stride * (size_t)(first[i] + j)];
                    out->data[out_base + out_stride * (size_t)i] = (float)sum;
                }
            }
    });
}

void reduce_grid(const grid_volume *in, IPOINT3D new_dim, grid_volume *out)
{
    grid_volume a = *in, b = {{0, 0, 0}, {0, 0, 0}, NULL}, c = {{0, 0, 0}, {0, 0, 0}, NULL};
    a.data = float_vector((int)grid_size(in->dim));
    for (size_t i = 0; i < grid_size(in->dim); i++) a.data[i] = std::isfinite(in->data[i]) ? in->data[i] : 0.0f;
    if (new_dim.x != in->dim.x) { reduce_axis(&a, &b, 0, new_dim.x); free_grid(&a); a = b; }
    if (new_dim.y != a.dim.y) { reduce_axis(&a, &c, 1, new_dim.y); free_grid(&a); a = c; }
    if (new_dim.z != a.dim.z) { reduce_axis(&a, &b, 2, new_dim.z); free_grid(&a); a = b; }
    *out = a;
}

/* ---- one level of the pyramid ---- */


static const float rim_value = 1.0e-20f;

void free_level(search_level *L)
{
    free_grid(&L->tpl);
    free_grid(&L->support);
    free_grid(&L->compare);
    free_grid(&L->ind);
    if (L->inside != NULL) free_unsigned_char_vector(L->inside);
    L->inside = NULL;
}


IPOINT3D reduced_dim(IPOINT3D dim, POINT3D res, POINT3D voxel_mm)
{
    int n[3] = {dim.x, dim.y, dim.z};
    float r[3] = {res.x, res.y, res.z}, v[3] = {voxel_mm.x, voxel_mm.y, voxel_mm.z};
    for (int a = 0; a < 3; a++) {
        int m = (int)lrint(n[a] * (double)r[a] / v[a]);
        if (m > n[a] || r[a] >= v[a]) m = n[a];
        n[a] = m < 1 ? 1 : m;
    }
    IPOINT3D d = {n[0], n[1], n[2]};
    return d;
}

void build_level(search_level *L, const grid_volume *tpl, const grid_volume *mask, const grid_volume *ind,
                 double voxel_mm, int full, int erode, int lattice)
{
    memset(L, 0, sizeof *L);
    POINT3D target = {(float)(voxel_mm / tpl->res.x * tpl->res.x), (float)(voxel_mm / tpl->res.x * tpl->res.y),
                      (float)(voxel_mm / tpl->res.x * tpl->res.z)};
    IPOINT3D td = full ? tpl->dim : reduced_dim(tpl->dim, tpl->res, target);
    reduce_grid(tpl, td, &L->tpl);
    grid_volume m;
    reduce_grid(mask, td, &m);
    /* the individual at the level's voxel sizes (never finer than it is) */
    reduce_grid(ind, reduced_dim(ind->dim, ind->res, L->tpl.res), &L->ind);

    size_t n = grid_size(td);
    L->inside = unsigned_char_vector((int)n);
    L->support = L->tpl;
    L->support.data = float_vector((int)n);
    L->compare = L->tpl;
    L->compare.data = float_vector((int)n);
    for (size_t i = 0; i < n; i++) {
        L->inside[i] = m.data[i] >= 0.5f;
        L->compare.data[i] = L->inside[i] ? (L->tpl.data[i] != 0.0f ? L->tpl.data[i] : rim_value) : 0.0f;
    }
    int nx = td.x, ny = td.y, nz = td.z;
    /* the mask's outer voxels (and the grid's faces) do not take part: a template's mask edge
       is where the two volumes differ most (skull beside a stripped brain, partial volumes) */
    std::vector<unsigned char> keep(n);
    for (int pass = 0; pass < erode; pass++) {
        for (size_t i = 0; i < n; i++) keep[i] = L->inside[i];
        for (int z = 0; z < nz; z++)
            for (int y = 0; y < ny; y++)
                for (int x = 0; x < nx; x++) {
                    size_t i = (size_t)x + (size_t)nx * ((size_t)y + (size_t)ny * z);
                    if (!keep[i]) continue;
                    if (x == 0 || y == 0 || z == 0 || x == nx - 1 || y == ny - 1 || z == nz - 1) {
                        L->inside[i] = 0;
                        continue;
                    }
                    size_t st[3] = {1, (size_t)nx, (size_t)nx * ny};
                    for (int a = 0; a < 3; a++)
                        if (!keep[i + st[a]] || !keep[i - st[a]]) L->inside[i] = 0;
                }
    }
    if (lattice > 1)
        for (int z = 0; z < nz; z++)
            for (int y = 0; y < ny; y++)
                for (int x = 0; x < nx; x++)
                    if (x % lattice != 0 || y % lattice != 0 || z % lattice != 0)
                        L->inside[(size_t)x + (size_t)nx * ((size_t)y + (size_t)ny * z)] = 0;
    free_grid(&m);
    double sum[4][4];
    memset(sum, 0, sizeof sum);
    L->ninside = 0;
    for (int z = 0; z < nz; z++)
        for (int y = 0; y < ny; y++)
            for (int x = 0; x < nx; x++) {
                size_t i = (size_t)x + (size_t)nx * ((size_t)y + (size_t)ny * z);
                if (L->inside[i]) {
                    L->support.data[i] = L->compare.data[i];
                    double p[4];
                    centred_mm(&L->tpl, x, y, z, p);
                    p[3] = 1.0;
                    for (int a = 0; a < 4; a++)
                        for (int b = 0; b < 4; b++) sum[a][b] += p[a] * p[b];
                    L->ninside++;
                    continue;
                }
                int near = 0;
                for (int dz = -1; dz <= 1 && !near && lattice <= 1; dz++)
                    for (int dy = -1; dy <= 1 && !near; dy++)
                        for (int dx = -1; dx <= 1 && !near; dx++) {
                            int xx = x + dx, yy = y + dy, zz = z + dz;
                            if (xx < 0 || yy < 0 || zz < 0 || xx >= nx || yy >= ny || zz >= nz) continue;
                            if (L->inside[(size_t)xx + (size_t)nx * ((size_t)yy + (size_t)ny * zz)]) near = 1;
                        }
                L->support.data[i] = near ? rim_value : 0.0f;
            }
    for (int a = 0; a < 4; a++)
        for (int b = 0; b < 4; b++) L->moments[a][b] = L->ninside > 0 ? sum[a][b] / (double)L->ninside : 0.0;
}

/* ---- the engines on a level's grid ---- */


/* A single-volume stack with the header of `like` and the grid of g, holding `data`. */
static data_stack level_stack(const data_stack *like, const grid_volume *g, float *data)
{
    data_stack s = *like;
    s.dim = g->dim;
    s.resolution = g->res;
    s.fov.x = g->dim.x * g->res.x;
    s.fov.y = g->dim.y * g->res.y;
    s.fov.z = g->dim.z * g->res.z;
    s.nt = 1;
    s.n2d = g->dim.x * g->dim.y;
    s.n3d = s.n2d * g->dim.z;
    s.n4d = s.n3d;
    s.npts_volume = s.n3d;
    s.data_type = 0;
    s.next = NULL;
    s.SpaceTime.fData = data;
    s.ijk_to_xyz = centered_ijk_to_xyz(s);
    s.xyz_to_ijk = invert_mat44(s.ijk_to_xyz);
    return s;
}

/* Points the engines at level L: template_ walks `walk` (L's support or compare volume),
   original is L's individual, individual a scratch volume on L's grid; the displacement maps
   are set aside (they belong to the full grid and are zero during the affine search). */
void enter_level(engine_state *saved, search_level *L, grid_volume *walk, float *scratch, float *maps[3])
{
    saved->template_ = template_;
    saved->original = original;
    saved->individual = individual;
    saved->maps[0] = distort_x.SpaceTime.fData;
    saved->maps[1] = distort_y.SpaceTime.fData;
    saved->maps[2] = distort_z.SpaceTime.fData;
    saved->dimension = Alignment.dimension;
    saved->resolution = Alignment.resolution;
    saved->ijk_to_xyz = Alignment.ijk_to_xyz;
    saved->xyz_to_ijk = Alignment.xyz_to_ijk;
    saved->iTime_Template = iTime_Template;
    saved->graph_iTime = graph.iTime;

    template_ = level_stack(&saved->template_, walk, walk->data);
    original = level_stack(&saved->original, &L->ind, L->ind.data);
    individual = level_stack(&saved->individual, walk, scratch);
    distort_x.SpaceTime.fData = maps != NULL ? maps[0] : NULL;
    distort_y.SpaceTime.fData = maps != NULL ? maps[1] : NULL;
    distort_z.SpaceTime.fData = maps != NULL ? maps[2] : NULL;
    Alignment.dimension = template_.dim;
    Alignment.resolution = template_.resolution;
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original);
    iTime_Template = 0;
    graph.iTime = 0;
}

void leave_level(const engine_state *saved)
{
    template_ = saved->template_;
    original = saved->original;
    individual = saved->individual;
    distort_x.SpaceTime.fData = saved->maps[0];
    distort_y.SpaceTime.fData = saved->maps[1];
    distort_z.SpaceTime.fData = saved->maps[2];
    Alignment.dimension = saved->dimension;
    Alignment.resolution = saved->resolution;
    Alignment.ijk_to_xyz = saved->ijk_to_xyz;
    Alignment.xyz_to_ijk = saved->xyz_to_ijk;
    iTime_Template = saved->iTime_Template;
    graph.iTime = saved->graph_iTime;
}

/* Mutual information of the individual resampled on level L (kernel given) against L's
   template; the engines are pointed at L for the call. */
float level_similarity(search_level *L, float *scratch, int kernel, float *maps[3])
{
    engine_state saved;
    enter_level(&saved, L, &L->compare, scratch, maps);
    transform_coordinates(1, kernel);
    float mi = cost_function(0);
    leave_level(&saved);
    return mi;
}

/* ---- the robust remapped residual ---- */

#define REMAP_BINS 64


double remapped(const remap_table *m, float t)
{
    double f = (t - m->tmin) / m->width - 0.5;
    if (!(f > 0.0)) return m->mean[0];
    if (f >= REMAP_BINS - 1) return m->mean[REMAP_BINS - 1];
    int i = (int)f;
    double a = f - i;
    return m->mean[i] * (1.0 - a) + m->mean[i + 1] * a;
}

void estimate_remap(const search_level *L, const float *I, remap_table *m)
{
    size_t n = grid_size(L->tpl.dim);
    double lo = 0.0, hi = 0.0;
    int any = 0;
    for (size_t i = 0; i < n; i++) {
        if (!L->inside[i]) continue;
        double t = L->tpl.data[i];
        if (!any || t < lo) lo = t;
        if (!any || t > hi) hi = t;
        any = 1;
    }
    m->tmin = lo;
    m->width = hi > lo ? (hi - lo) / REMAP_BINS : 1.0;
    double sum[REMAP_BINS], weight[REMAP_BINS];
    memset(sum, 0, sizeof sum);
    memset(weight, 0, sizeof weight);
    for (size_t i = 0; i < n; i++) {
        if (!L->inside[i]) continue;
        double f = (L->tpl.data[i] - m->tmin) / m->width - 0.5;
        int b = (int)floor(f);
        double a = f - b;
        if (b >= 0 && b < REMAP_BINS) { sum[b] += (1.0 - a) * I[i]; weight[b] += 1.0 - a; }
        if (b + 1 >= 0 && b + 1 < REMAP_BINS) { sum[b + 1] += a * I[i]; weight[b + 1] += a; }
    }
    /* empty bins take the line between their filled neighbours */
    int last = -1;
    for (int b = 0; b < REMAP_BINS; b++) {
        if (weight[b] <= 1e-9) continue;
        m->mean[b] = sum[b] / weight[b];
        if (last < 0)
            for (int k = 0; k < b; k++) m->mean[k] = m->mean[b];
        else
            for (int k = last + 1; k < b; k++)
                m->mean[k] = m->mean[last] + (m->mean[b] - m->mean[last]) * (k - last) / (b - last);
        last = b;
    }
    if (last < 0)
        for (int b = 0; b < REMAP_BINS; b++) m->mean[b] = 0.0;
    else
        for (int k = last + 1; k < REMAP_BINS; k++) m->mean[k] = m->mean[last];
}

const double robust_cutoff_sd = 3.0;

double robust_cutoff(const search_level *L, const float *I, const remap_table *m)
{
    if (L->ninside == 0) return 1.0;
    float *r = float_vector((int)L->ninside);
    size_t n = grid_size(L->tpl.dim), k = 0;
    for (size_t i = 0; i < n; i++)
        if (L->inside[i]) r[k++] = (float)fabs(I[i] - remapped(m, L->tpl.data[i]));
    std::nth_element(r, r + k / 2, r + k);
    double mad = r[k / 2];
    free_float_vector(r);
    double c = robust_cutoff_sd * 1.4826 * mad;
    return c > 1e-12 ? c : 1e-12;
}

grid_volume volume_of(const data_stack *s, int t)
{
    grid_volume g;
    g.dim = s->dim;
    g.res = s->resolution;
    g.data = s->SpaceTime.fData + (size_t)t * (size_t)s->n3d;
    return g;
}

int template_mask(const grid_volume *tpl, grid_volume *mask)
{
    size_t nt = grid_size(tpl->dim);
    *mask = *tpl;
    mask->data = float_vector((int)nt);
    long ntaking = 0;
    for (size_t i = 0; i < nt; i++) {
        mask->data[i] = tpl->data[i] != 0.0f ? 1.0f : 0.0f;
        ntaking += tpl->data[i] != 0.0f;
    }
    if (ntaking == 0) {
        printf("Error: the template has no non-zero voxel to compare.\n");
        free_float_vector(mask->data);
        mask->data = NULL;
        return 1;
    }
    return 0;
}

void affine_linear_inverse(double inv[3][3])
{
    double A[3][3];
    for (int a = 0; a < 3; a++)
        for (int b = 0; b < 3; b++) A[a][b] = Alignment.Affine[a][b];
    double det = A[0][0] * (A[1][1] * A[2][2] - A[1][2] * A[2][1]) - A[0][1] * (A[1][0] * A[2][2] - A[1][2] * A[2][0]) +
                 A[0][2] * (A[1][0] * A[2][1] - A[1][1] * A[2][0]);
    for (int r = 0; r < 3; r++)
        for (int q = 0; q < 3; q++) {
            int r1 = (q + 1) % 3, r2 = (q + 2) % 3, c1 = (r + 1) % 3, c2 = (r + 2) % 3;
            inv[r][q] = det != 0.0 ? (A[r1][c1] * A[r2][c2] - A[r1][c2] * A[r2][c1]) / det : 0.0;
        }
}

int centre_of_mass(const grid_volume *g, double c[3])
{
    size_t n = grid_size(g->dim);
    double mean = 0.0;
    for (size_t i = 0; i < n; i++) mean += g->data[i];
    mean /= (double)n;
    double sum = 0.0;
    c[0] = c[1] = c[2] = 0.0;
    for (int z = 0; z < g->dim.z; z++)
        for (int y = 0; y < g->dim.y; y++)
            for (int x = 0; x < g->dim.x; x++) {
                double v = g->data[(size_t)x + (size_t)g->dim.x * ((size_t)y + (size_t)g->dim.y * z)];
                if (!(v > mean)) continue;
                double p[3];
                centred_mm(g, x, y, z, p);
                for (int k = 0; k < 3; k++) c[k] += v * p[k];
                sum += v;
            }
    if (!(sum > 0.0)) return 1;
    for (int k = 0; k < 3; k++) c[k] /= sum;
    return 0;
}
