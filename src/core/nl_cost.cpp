/* The non-linear cost: mutual information or correlation of individual against template_, minus
   the bending penalty of distort_x/y/z, kept as running totals so that one basis box can be
   probed cheaply; and the count of folded voxels. Reads template_, individual, distort_*,
   AlignNL, AlignAid; prints the fold summary. No X11. */
#include "nl_cost.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "globals.h"
#include "numerics.h"
#include "similarity.h"

#define NBINS 50

/* Running totals, valid between a code-0 call and the next change of the maps made outside the
   probe protocol. */
static int MI_number_voxels = 0;
static float MI_prob_I[NBINS], MI_prob_T[NBINS], MI_prob_IT[NBINS][NBINS];
static float av_individual = 1.0f, av_template = 1.0f, min = 0.0f, max = 0.0f;
static float DEF_sum2 = 0.0f;
static int DEF_nvoxels = 0;

/* Local histograms of the box under probe. They are zero between calls: the cells a probe fills
   are listed, subtracted from the running totals and cleared one by one (subtracting an empty
   cell changes nothing, the totals never being negative). */
static int MI_save_voxels;
static float MI_save_I[NBINS], MI_save_T[NBINS], MI_save_IT[NBINS][NBINS];
static int filled_I[NBINS], filled_T[NBINS], filled_IT[NBINS * NBINS];
static int n_filled_I, n_filled_T, n_filled_IT;

/* The mutual information of the running totals, with the terms of unchanged rows kept; the rows
   of the totals written since its last evaluation are marked. */
static mi_row_cache totals_mi_cache;
static unsigned char rows_written[NBINS];

/* The template's bin at every grid voxel (NO_BIN where the template is 0), written by the last
   code-0 walk with the averages and range it set; the probes read it instead of binning the
   template again while the template volume, the grid and those values are the ones it was made
   with. The template's values are not changed in place between a code-0 call and its probes. */
#define NO_BIN 255
static unsigned char *template_bins;
static size_t template_bins_size;
static struct {
    int valid;
    const float *T;
    IPOINT3D dim;
    float av_template, min, range;
} bins_made_for;

static int template_bins_usable(const float *T, float range)
{
    return bins_made_for.valid && bins_made_for.T == T && bins_made_for.dim.x == template_.dim.x &&
           bins_made_for.dim.y == template_.dim.y && bins_made_for.dim.z == template_.dim.z &&
           memcmp(&bins_made_for.av_template, &av_template, sizeof(float)) == 0 &&
           memcmp(&bins_made_for.min, &min, sizeof(float)) == 0 &&
           memcmp(&bins_made_for.range, &range, sizeof(float)) == 0;
}

/* Room for the bins of the whole grid; NULL when it cannot be had (the probes then bin as they go). */
static unsigned char *template_bins_room(void)
{
    size_t n = (size_t)template_.dim.x * template_.dim.y * template_.dim.z;
    if (n > template_bins_size) {
        free(template_bins);
        template_bins = (unsigned char *)malloc(n);
        template_bins_size = template_bins != NULL ? n : 0;
    }
    return template_bins;
}

/* Takes the box histograms out of the running totals (a result below 0 becoming 0) and clears them. */
static void subtract_box_histograms(void)
{
    for (int k = 0; k < n_filled_I; k++) {
        int a = filled_I[k];
        rows_written[a] = 1;
        MI_prob_I[a] -= MI_save_I[a];
        if (MI_prob_I[a] < 0) MI_prob_I[a] = 0;
        MI_save_I[a] = 0;
    }
    for (int k = 0; k < n_filled_T; k++) {
        int b = filled_T[k];
        MI_prob_T[b] -= MI_save_T[b];
        if (MI_prob_T[b] < 0) MI_prob_T[b] = 0;
        MI_save_T[b] = 0;
    }
    float *IT = &MI_prob_IT[0][0], *save = &MI_save_IT[0][0];
    for (int k = 0; k < n_filled_IT; k++) {
        int c = filled_IT[k];
        rows_written[c / NBINS] = 1;
        IT[c] -= save[c];
        if (IT[c] < 0) IT[c] = 0;
        save[c] = 0;
    }
    n_filled_I = n_filled_T = n_filled_IT = 0;
    MI_number_voxels -= MI_save_voxels;
}

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
                memset(rows_written, 1, sizeof rows_written);
            }
            MI_save_voxels = 0;
            int into_totals = InitProbeSet != 1;
            int into_box = InitProbeSet == 1 || InitProbeSet == 2;
            /* The whole-grid walk writes the template's bins, a box walk reads them. */
            unsigned char *write_bins = NULL;
            const unsigned char *read_bins = NULL;
            if (InitProbeSet == 0) {
                bins_made_for.valid = 0;
                write_bins = template_bins_room();
            } else if (template_bins_usable(T, range)) {
                read_bins = template_bins;
            }
            for (int z = s.z; z < e.z; z++)
                for (int y = s.y; y < e.y; y++) {
                    int row = z * n2d + y * nx;
                    for (int x = s.x; x < e.x; x++) {
                        int bt;
                        if (read_bins != NULL) {
                            bt = read_bins[row + x];
                            if (bt == NO_BIN) continue;
                        } else {
                            float t = T[row + x];
                            if (t == 0.0f) {
                                if (write_bins != NULL) write_bins[row + x] = NO_BIN;
                                continue;
                            }
                            bt = intensity_bin(t / av_template, min, range);
                            if (write_bins != NULL) write_bins[row + x] = (unsigned char)bt;
                        }
                        int bi = intensity_bin(I[row + x] / av_individual, min, range);
                        if (into_totals) {
                            rows_written[bi] = 1;
                            MI_prob_I[bi] += 1;
                            MI_prob_T[bt] += 1;
                            MI_prob_IT[bi][bt] += 1;
                            MI_number_voxels++;
                        }
                        if (into_box) {
                            if (MI_save_I[bi] == 0) filled_I[n_filled_I++] = bi;
                            if (MI_save_T[bt] == 0) filled_T[n_filled_T++] = bt;
                            if (MI_save_IT[bi][bt] == 0) filled_IT[n_filled_IT++] = bi * NBINS + bt;
                            MI_save_I[bi] += 1;
                            MI_save_T[bt] += 1;
                            MI_save_IT[bi][bt] += 1;
                            MI_save_voxels++;
                        }
                    }
                }
            if (write_bins != NULL) {
                bins_made_for.valid = 1;
                bins_made_for.T = T;
                bins_made_for.dim = template_.dim;
                bins_made_for.av_template = av_template;
                bins_made_for.min = min;
                bins_made_for.range = range;
            }
            if (MI_number_voxels != 0)
            {
                similarity = mutual_information_cached(&totals_mi_cache, MI_number_voxels, MI_prob_I, MI_prob_T,
                                                       &MI_prob_IT[0][0], rows_written);
                memset(rows_written, 0, sizeof rows_written);
            }
            if (into_box) subtract_box_histograms();
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

/* The terms of row a (individual bin a) in template-bin order, as mutual_information forms them. */
static void row_terms(mi_row_version *v, float N, float prob_I, const float *prob_T)
{
    int n = 0;
    if (prob_I > 0)
        for (int b = 0; b < NBINS; b++) {
            float nab = v->prob_IT[b];
            if (!(nab > 0) || !(prob_T[b] > 0)) continue;
            float ratio = nab * N / prob_I / prob_T[b];
            v->term[n++] = (nab / N) * log((double)ratio);
        }
    v->nterms = n;
}

static inline int same_row(const mi_row_version *v, float prob_I, const float *row)
{
    return memcmp(&v->prob_I, &prob_I, sizeof prob_I) == 0 && memcmp(v->prob_IT, row, sizeof v->prob_IT) == 0;
}

float mutual_information_cached(mi_row_cache *c, int number_voxels, const float *prob_I, const float *prob_T,
                                const float *prob_IT, const unsigned char *maybe_changed)
{
    if (number_voxels <= 0) return 0.0f;
    float N = (float)number_voxels;
    int first = NBINS;
    if (!c->valid || c->number_voxels != number_voxels || memcmp(c->prob_T, prob_T, sizeof c->prob_T) != 0) {
        /* Every term changes: forget all versions. */
        c->valid = 1;
        c->number_voxels = number_voxels;
        memcpy(c->prob_T, prob_T, sizeof c->prob_T);
        for (int a = 0; a < NBINS; a++) {
            for (int k = 0; k < MI_ROW_VERSIONS; k++) c->row[a][k].valid = 0;
            mi_row_version *v = &c->row[a][0];
            v->valid = 1;
            v->prob_I = prob_I[a];
            memcpy(v->prob_IT, prob_IT + a * NBINS, sizeof v->prob_IT);
            row_terms(v, N, prob_I[a], prob_T);
            c->current[a] = 0;
            c->next_version[a] = 1;
        }
        first = 0;
        c->before_row[0] = 0.0f;
    } else {
        for (int a = 0; a < NBINS; a++) {
            if (maybe_changed != NULL && !maybe_changed[a]) continue;
            const float *row = prob_IT + a * NBINS;
            if (same_row(&c->row[a][c->current[a]], prob_I[a], row)) continue;
            if (first == NBINS) first = a;
            int k = 0;
            while (k < MI_ROW_VERSIONS && !(c->row[a][k].valid && same_row(&c->row[a][k], prob_I[a], row))) k++;
            if (k == MI_ROW_VERSIONS) {  /* a new version replaces the oldest */
                k = c->next_version[a];
                c->next_version[a] = (k + 1) % MI_ROW_VERSIONS;
                mi_row_version *v = &c->row[a][k];
                v->valid = 1;
                v->prob_I = prob_I[a];
                memcpy(v->prob_IT, row, sizeof v->prob_IT);
                row_terms(v, N, prob_I[a], prob_T);
            }
            c->current[a] = k;
        }
    }
    /* Deliberate: the sum runs in float over every term in row order from the first changed row
       on, each term added in double and rounded back, exactly as mutual_information does. */
    float mi = c->before_row[first];
    for (int a = first; a < NBINS; a++) {
        const mi_row_version *v = &c->row[a][c->current[a]];
        for (int k = 0; k < v->nterms; k++) mi += v->term[k];
        c->before_row[a + 1] = mi;
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


/* ALIGN_SIMD=scalar in the environment keeps every loop of this file on its one-voxel-at-a-time
   path (the path of processors without SSE2), so that the tests can compare both with the
   reference. */
static int simd_enabled(void)
{
    static int enabled = -1;
    if (enabled < 0) {
        const char *env = getenv("ALIGN_SIMD");
        enabled = env != NULL && strcmp(env, "scalar") == 0 ? 0 : 1;
    }
    return enabled;
}

/* bending_penalty with the stiffness as an argument, for the loops below. */
static inline float penalty_one(int valid_plus, int valid_minus, float delta_plus, float delta_minus, float res2,
                                float s)
{
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

float bending_penalty(int valid_plus, int valid_minus, float delta_plus, float delta_minus, float res2)
{
    return penalty_one(valid_plus, valid_minus, delta_plus, delta_minus, res2, AlignNL.stiffness);
}

#ifdef __SSE2__
struct penalty_constants {
    __m128 zero, two, r2, r2sq, half_s, one_minus_s;
};

static inline penalty_constants make_penalty_constants(float res2, float s)
{
    penalty_constants c;
    c.zero = _mm_setzero_ps();
    c.two = _mm_set1_ps(2.0f);
    c.r2 = _mm_set1_ps(res2);
    c.r2sq = _mm_set1_ps(res2 * res2);
    c.half_s = _mm_set1_ps(s / 2);
    c.one_minus_s = _mm_set1_ps(1 - s);
    return c;
}

/* penalty_one on four lanes, the operations in the same order; each branch becomes a blend, so a
   lane that the scalar routine would skip keeps p as it was. vp, vm: all ones or all zeros. */
static inline __m128 penalty_four(__m128 dp, __m128 dm, __m128 vp, __m128 vm, const penalty_constants &c)
{
    __m128 q = _mm_div_ps(_mm_mul_ps(dp, dp), c.r2);
    __m128 p1 = _mm_add_ps(c.zero, _mm_mul_ps(c.half_s, _mm_mul_ps(q, q)));
    __m128 take = _mm_and_ps(vp, _mm_cmpneq_ps(dp, c.zero));
    __m128 p = _mm_and_ps(take, p1);
    q = _mm_div_ps(_mm_mul_ps(dm, dm), c.r2);
    __m128 p2 = _mm_add_ps(p, _mm_mul_ps(c.half_s, _mm_mul_ps(q, q)));
    take = _mm_and_ps(vm, _mm_cmpneq_ps(dm, c.zero));
    p = _mm_or_ps(_mm_and_ps(take, p2), _mm_andnot_ps(take, p));
    __m128 m = _mm_div_ps(_mm_add_ps(dp, dm), c.two);
    __m128 k = _mm_add_ps(_mm_mul_ps(m, m), c.r2);
    __m128 d = _mm_sub_ps(dp, dm);
    __m128 curv = _mm_div_ps(_mm_mul_ps(_mm_mul_ps(c.one_minus_s, _mm_mul_ps(d, d)), c.r2sq),
                             _mm_mul_ps(_mm_mul_ps(k, k), k));
    __m128 both = _mm_and_ps(vp, vm);
    return _mm_or_ps(_mm_and_ps(both, _mm_add_ps(p, curv)), _mm_andnot_ps(both, p));
}
#endif

void bending_penalty_run(int n, const float *delta_plus, const float *delta_minus, const int *valid_plus,
                         const int *valid_minus, float res2, float *penalty, int simd)
{
    float s = AlignNL.stiffness;
    int i = 0;
#ifdef __SSE2__
    if (simd) {
        penalty_constants c = make_penalty_constants(res2, s);
        for (; i + 4 <= n; i += 4) {
            __m128 vp = _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_loadu_si128((const __m128i *)(valid_plus + i)),
                                                         _mm_setzero_si128()));
            __m128 vm = _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_loadu_si128((const __m128i *)(valid_minus + i)),
                                                         _mm_setzero_si128()));
            __m128 all = _mm_castsi128_ps(_mm_set1_epi32(-1));
            _mm_storeu_ps(penalty + i, penalty_four(_mm_loadu_ps(delta_plus + i), _mm_loadu_ps(delta_minus + i),
                                                    _mm_xor_ps(vp, all), _mm_xor_ps(vm, all), c));
        }
    }
#else
    (void)simd;
#endif
    for (; i < n; i++)
        penalty[i] = penalty_one(valid_plus[i] != 0, valid_minus[i] != 0, delta_plus[i], delta_minus[i], res2, s);
}

/* The walk of cost_deformation: the maps, which of them are penalised, and the differences and
   the last "next" value carried from term to term and voxel to voxel. */
struct deformation_walk {
    const float *D[3];
    int adjust[3];
    int nx, n2d;
    float res2x, res2y, res2z, s;
    float delta_plus, delta_minus, d_next;
};

/* One map along one axis at one voxel: the forward and backward differences (each only when that
   neighbour lies inside the grid; otherwise the previous value stays, as the z map's slips rely
   on) and their bending penalty. */
static inline float regular_axis_term(deformation_walk *w, const float *D, int idx, int stride, int vp, int vm,
                                      float d0, float res2)
{
    if (vp) { w->d_next = D[idx + stride]; w->delta_plus = w->d_next - d0; }
    if (vm) w->delta_minus = d0 - D[idx - stride];
    return penalty_one(vp, vm, w->delta_plus, w->delta_minus, res2, w->s);
}

/* The penalty of one voxel (fAdd), term by term in the order of the straightforward walk. */
static inline float voxel_penalty(deformation_walk *w, int idx, int xp, int xm, int yp, int ym, int zp, int zm)
{
    int nx = w->nx, n2d = w->n2d;
    float fAdd = 0.0f;
    if (w->adjust[0]) {
        const float *D = w->D[0];
        float d0 = D[idx];
        fAdd += regular_axis_term(w, D, idx, 1, xp, xm, d0, w->res2x);
        fAdd += regular_axis_term(w, D, idx, nx, yp, ym, d0, w->res2y);
        fAdd += regular_axis_term(w, D, idx, n2d, zp, zm, d0, w->res2z);
    }
    if (w->adjust[1]) {
        const float *D = w->D[1];
        float d0 = D[idx];
        fAdd += regular_axis_term(w, D, idx, nx, yp, ym, d0, w->res2y);
        fAdd += regular_axis_term(w, D, idx, 1, xp, xm, d0, w->res2x);
        fAdd += regular_axis_term(w, D, idx, n2d, zp, zm, d0, w->res2z);
    }
    if (w->adjust[2]) {
        const float *D = w->D[2];
        float d0 = D[idx];
        fAdd += regular_axis_term(w, D, idx, n2d, zp, zm, d0, w->res2z);
        if (xp) { w->d_next = D[idx + 1]; w->delta_plus = w->d_next - d0; }
        if (xm) w->delta_plus = d0 - D[idx - 1];
        fAdd += penalty_one(xp, xm, w->delta_plus, w->delta_minus, w->res2x, w->s);
        if (yp) { w->d_next = D[idx + nx]; w->delta_plus = w->d_next - d0; }
        if (ym) w->delta_minus = w->d_next - d0;
        fAdd += penalty_one(yp, ym, w->delta_plus, w->delta_minus, w->res2y, w->s);
    }
    return fAdd;
}

#ifdef __SSE2__
/* fAdd of four voxels idx..idx+3 whose six neighbours all lie inside the grid. There every
   difference the walk uses is the voxel's own: the z map's stale delta_minus along x is its own
   backward z difference and its y "backward" difference is the forward one. */
static inline __m128 interior_penalty_four(const deformation_walk *w, int idx, const penalty_constants c[3])
{
    const __m128 all = _mm_castsi128_ps(_mm_set1_epi32(-1));
    const int nx = w->nx, n2d = w->n2d;
    __m128 fAdd = _mm_setzero_ps();
    if (w->adjust[0]) {
        const float *D = w->D[0] + idx;
        __m128 d0 = _mm_loadu_ps(D);
        fAdd = _mm_add_ps(fAdd, penalty_four(_mm_sub_ps(_mm_loadu_ps(D + 1), d0), _mm_sub_ps(d0, _mm_loadu_ps(D - 1)), all, all, c[0]));
        fAdd = _mm_add_ps(fAdd, penalty_four(_mm_sub_ps(_mm_loadu_ps(D + nx), d0), _mm_sub_ps(d0, _mm_loadu_ps(D - nx)), all, all, c[1]));
        fAdd = _mm_add_ps(fAdd, penalty_four(_mm_sub_ps(_mm_loadu_ps(D + n2d), d0), _mm_sub_ps(d0, _mm_loadu_ps(D - n2d)), all, all, c[2]));
    }
    if (w->adjust[1]) {
        const float *D = w->D[1] + idx;
        __m128 d0 = _mm_loadu_ps(D);
        fAdd = _mm_add_ps(fAdd, penalty_four(_mm_sub_ps(_mm_loadu_ps(D + nx), d0), _mm_sub_ps(d0, _mm_loadu_ps(D - nx)), all, all, c[1]));
        fAdd = _mm_add_ps(fAdd, penalty_four(_mm_sub_ps(_mm_loadu_ps(D + 1), d0), _mm_sub_ps(d0, _mm_loadu_ps(D - 1)), all, all, c[0]));
        fAdd = _mm_add_ps(fAdd, penalty_four(_mm_sub_ps(_mm_loadu_ps(D + n2d), d0), _mm_sub_ps(d0, _mm_loadu_ps(D - n2d)), all, all, c[2]));
    }
    if (w->adjust[2]) {
        const float *D = w->D[2] + idx;
        __m128 d0 = _mm_loadu_ps(D);
        __m128 back_z = _mm_sub_ps(d0, _mm_loadu_ps(D - n2d));
        fAdd = _mm_add_ps(fAdd, penalty_four(_mm_sub_ps(_mm_loadu_ps(D + n2d), d0), back_z, all, all, c[2]));
        fAdd = _mm_add_ps(fAdd, penalty_four(_mm_sub_ps(d0, _mm_loadu_ps(D - 1)), back_z, all, all, c[0]));
        __m128 fwd_y = _mm_sub_ps(_mm_loadu_ps(D + nx), d0);
        fAdd = _mm_add_ps(fAdd, penalty_four(fwd_y, fwd_y, all, all, c[1]));
    }
    return fAdd;
}

#endif

/* The three penalty terms of one map at each voxel of a box, kept with everything they were
   computed from: the box, the grid, the voxel sizes, the stiffness and the map's values over the
   box grown by one voxel on each side (within the grid). During the probes of one coefficient only
   one map changes, so the other two maps' terms are taken from here. */
struct map_terms {
    int valid;
    IPOINT3D dim, start, end, mstart, mend;
    float res2x, res2y, res2z, s;
    int nvalues, nterms;
    float *values, *terms;
};

static int map_terms_match(const map_terms *m, const deformation_walk *w, IPOINT3D dim, IPOINT3D s, IPOINT3D e)
{
    return m->valid && m->dim.x == dim.x && m->dim.y == dim.y && m->dim.z == dim.z && m->start.x == s.x &&
           m->start.y == s.y && m->start.z == s.z && m->end.x == e.x && m->end.y == e.y && m->end.z == e.z &&
           memcmp(&m->res2x, &w->res2x, sizeof(float)) == 0 && memcmp(&m->res2y, &w->res2y, sizeof(float)) == 0 &&
           memcmp(&m->res2z, &w->res2z, sizeof(float)) == 0 && memcmp(&m->s, &w->s, sizeof(float)) == 0;
}

/* Copies (copy nonzero) or compares, bit for bit, the map's values over the grown box; returns 1
   when equal. */
static int margin_values(map_terms *m, const float *D, int copy)
{
    int nx = m->dim.x, n2d = m->dim.x * m->dim.y, len = m->mend.x - m->mstart.x;
    size_t bytes = sizeof(float) * (size_t)len;
    float *kept = m->values;
    for (int z = m->mstart.z; z < m->mend.z; z++)
        for (int y = m->mstart.y; y < m->mend.y; y++) {
            const float *row = D + z * n2d + y * nx + m->mstart.x;
            if (copy)
                memcpy(kept, row, bytes);
            else if (memcmp(kept, row, bytes) != 0)
                return 0;
            kept += len;
        }
    return 1;
}

/* The terms of map c at one voxel where none of them reads a carried value (see
   box_terms_are_local), into t[0], t[stride], t[2 * stride]. */
static inline void local_map_terms(const deformation_walk *w, int c, int idx, int xp, int xm, int yp, int ym, int zp,
                                   int zm, float *t, int stride)
{
    const float *D = w->D[c];
    const int nx = w->nx, n2d = w->n2d;
    float d0 = D[idx];
    float fx = xp ? D[idx + 1] - d0 : 0.0f, bx = xm ? d0 - D[idx - 1] : 0.0f;
    float fy = yp ? D[idx + nx] - d0 : 0.0f, by = ym ? d0 - D[idx - nx] : 0.0f;
    float fz = zp ? D[idx + n2d] - d0 : 0.0f, bz = zm ? d0 - D[idx - n2d] : 0.0f;
    if (c == 0) {
        t[0] = penalty_one(xp, xm, fx, bx, w->res2x, w->s);
        t[stride] = penalty_one(yp, ym, fy, by, w->res2y, w->s);
        t[2 * stride] = penalty_one(zp, zm, fz, bz, w->res2z, w->s);
    } else if (c == 1) {
        t[0] = penalty_one(yp, ym, fy, by, w->res2y, w->s);
        t[stride] = penalty_one(xp, xm, fx, bx, w->res2x, w->s);
        t[2 * stride] = penalty_one(zp, zm, fz, bz, w->res2z, w->s);
    } else {
        t[0] = penalty_one(zp, zm, fz, bz, w->res2z, w->s);
        t[stride] = penalty_one(xp, xm, xm ? bx : fx, bz, w->res2x, w->s);
        float next = yp ? D[idx + nx] : xp ? D[idx + 1] : D[idx + n2d];
        t[2 * stride] = penalty_one(yp, ym, fy, next - d0, w->res2y, w->s);
    }
}

#ifdef __SSE2__
/* local_map_terms of four voxels away from the grid's faces, into t[0..3], t[stride..], t[2 stride..]. */
static inline void interior_map_terms_four(const deformation_walk *w, int c, int idx, const penalty_constants pc[3],
                                           float *t, int stride)
{
    const __m128 all = _mm_castsi128_ps(_mm_set1_epi32(-1));
    const int nx = w->nx, n2d = w->n2d;
    const float *D = w->D[c] + idx;
    __m128 d0 = _mm_loadu_ps(D);
    __m128 fx = _mm_sub_ps(_mm_loadu_ps(D + 1), d0), bx = _mm_sub_ps(d0, _mm_loadu_ps(D - 1));
    __m128 fy = _mm_sub_ps(_mm_loadu_ps(D + nx), d0), by = _mm_sub_ps(d0, _mm_loadu_ps(D - nx));
    __m128 fz = _mm_sub_ps(_mm_loadu_ps(D + n2d), d0), bz = _mm_sub_ps(d0, _mm_loadu_ps(D - n2d));
    if (c == 0) {
        _mm_storeu_ps(t, penalty_four(fx, bx, all, all, pc[0]));
        _mm_storeu_ps(t + stride, penalty_four(fy, by, all, all, pc[1]));
        _mm_storeu_ps(t + 2 * stride, penalty_four(fz, bz, all, all, pc[2]));
    } else if (c == 1) {
        _mm_storeu_ps(t, penalty_four(fy, by, all, all, pc[1]));
        _mm_storeu_ps(t + stride, penalty_four(fx, bx, all, all, pc[0]));
        _mm_storeu_ps(t + 2 * stride, penalty_four(fz, bz, all, all, pc[2]));
    } else {
        _mm_storeu_ps(t, penalty_four(fz, bz, all, all, pc[2]));
        _mm_storeu_ps(t + stride, penalty_four(bx, bz, all, all, pc[0]));
        _mm_storeu_ps(t + 2 * stride, penalty_four(fy, fy, all, all, pc[1]));
    }
}
#endif

/* Fills m->terms with map c's three terms for each voxel of the box: term j of the i-th voxel in
   walk order at j * n + i, n the box's voxel count. */
static void compute_map_terms(map_terms *m, const deformation_walk *w, int c)
{
    IPOINT3D dim = m->dim, s = m->start, e = m->end;
    int n = (e.x - s.x) * (e.y - s.y) * (e.z - s.z), i = 0;
    float *t = m->terms;
#ifdef __SSE2__
    int simd = simd_enabled();
    penalty_constants pc[3] = {make_penalty_constants(w->res2x, w->s), make_penalty_constants(w->res2y, w->s),
                               make_penalty_constants(w->res2z, w->s)};
#endif
    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++) {
            int yp = y + 1 < dim.y, ym = y - 1 >= 0, zp = z + 1 < dim.z, zm = z - 1 >= 0;
            int row = z * w->n2d + y * w->nx, x = s.x;
#ifdef __SSE2__
            int x_simd_end = e.x < dim.x - 1 ? e.x : dim.x - 1;
            if (simd && yp && ym && zp && zm) {
                for (; x < 1 && x < e.x; x++, i++)
                    local_map_terms(w, c, row + x, x + 1 < dim.x, x - 1 >= 0, yp, ym, zp, zm, t + i, n);
                for (; x + 4 <= x_simd_end; x += 4, i += 4) interior_map_terms_four(w, c, row + x, pc, t + i, n);
            }
#endif
            for (; x < e.x; x++, i++)
                local_map_terms(w, c, row + x, x + 1 < dim.x, x - 1 >= 0, yp, ym, zp, zm, t + i, n);
        }
}

/* Brings map c's kept terms up to date for the box [s, e). */
static const float *terms_of_map(map_terms *m, const deformation_walk *w, int c, IPOINT3D dim, IPOINT3D s, IPOINT3D e)
{
    if (map_terms_match(m, w, dim, s, e) && margin_values(m, w->D[c], 0)) return m->terms;
    m->valid = 0;
    m->dim = dim;
    m->start = s;
    m->end = e;
    m->mstart = {s.x > 0 ? s.x - 1 : 0, s.y > 0 ? s.y - 1 : 0, s.z > 0 ? s.z - 1 : 0};
    m->mend = {e.x < dim.x ? e.x + 1 : dim.x, e.y < dim.y ? e.y + 1 : dim.y, e.z < dim.z ? e.z + 1 : dim.z};
    int nvalues = (m->mend.x - m->mstart.x) * (m->mend.y - m->mstart.y) * (m->mend.z - m->mstart.z);
    int nterms = 3 * (e.x - s.x) * (e.y - s.y) * (e.z - s.z);
    if (nvalues > m->nvalues) {
        if (m->values != NULL) free_float_vector(m->values);
        m->values = float_vector(nvalues);
        m->nvalues = nvalues;
    }
    if (nterms > m->nterms) {
        if (m->terms != NULL) free_float_vector(m->terms);
        m->terms = float_vector(nterms);
        m->nterms = nterms;
    }
    m->res2x = w->res2x;
    m->res2y = w->res2y;
    m->res2z = w->res2z;
    m->s = w->s;
    margin_values(m, w->D[c], 1);
    compute_map_terms(m, w, c);
    m->valid = 1;
    return m->terms;
}

/* Whether every term of every voxel of the box reads only its own map around the voxel: a
   carried value is read from an earlier voxel or map only on the z = 0 plane (the z map's
   delta_minus along x) and at the grid's far corner (the last "next" value). */
static int box_terms_are_local(IPOINT3D s, IPOINT3D e, IPOINT3D dim)
{
    return s.z >= 1 && !(e.x == dim.x && e.y == dim.y && e.z == dim.z);
}

/* Deliberate: the z map keeps two slips (backward x difference stored as delta_plus with a stale
   delta_minus; the y backward difference taken from the last "next" value loaded). The deltas and
   the last "next" value live across components and voxels, as the slips require. Pinned by
   CostDeformation.ZMapKeepsItsTwoSlips. Runs of four voxels away from the grid's faces are
   computed side by side; each voxel's terms are still added in order and the voxels summed one
   by one in walk order. The runs leave the carried values as they were: a carried value is read
   from an earlier voxel only on the z = 0 plane (the z map's delta_minus along x, when neither
   other map is penalised) and at the grid's far corner (the last "next" value), and the voxels
   walked before those are all on a face of the grid, never in a run. */
float cost_deformation(int InitProbeSet, int normalize)
{
    IPOINT3D s, e;
    region(InitProbeSet == 0, &s, &e);
    if (InitProbeSet == 0 || InitProbeSet == 4) {
        DEF_sum2 = 0.0f;
        DEF_nvoxels = 0;
    }
    IPOINT3D dim = template_.dim;
    deformation_walk w;
    w.nx = dim.x;
    w.n2d = dim.x * dim.y;
    w.D[0] = distort_x.SpaceTime.fData;
    w.D[1] = distort_y.SpaceTime.fData;
    w.D[2] = distort_z.SpaceTime.fData;
    w.adjust[0] = AlignNL.Adjust.x != 0;
    w.adjust[1] = AlignNL.Adjust.y != 0;
    w.adjust[2] = AlignNL.Adjust.z != 0;
    w.res2x = template_.resolution.x * template_.resolution.x;
    w.res2y = template_.resolution.y * template_.resolution.y;
    w.res2z = template_.resolution.z * template_.resolution.z;
    w.s = AlignNL.stiffness;
    w.delta_plus = w.delta_minus = w.d_next = 0.0f;
    float box_sum = 0.0f;
    int box_n = 0;
    int into_totals = InitProbeSet != 1, into_box = InitProbeSet == 1 || InitProbeSet == 2;
#ifdef __SSE2__
    int simd = simd_enabled() && (w.adjust[0] || w.adjust[1] || w.adjust[2]);
    penalty_constants c[3] = {make_penalty_constants(w.res2x, w.s), make_penalty_constants(w.res2y, w.s),
                              make_penalty_constants(w.res2z, w.s)};
#endif

    if ((InitProbeSet == 1 || InitProbeSet == 2 || InitProbeSet == 3) && box_terms_are_local(s, e, dim)) {
        /* The probes of one coefficient: each map's terms kept while its values stay. */
        static map_terms kept[3];
        const float *t[3] = {NULL, NULL, NULL};
        for (int m = 0; m < 3; m++)
            if (w.adjust[m]) t[m] = terms_of_map(&kept[m], &w, m, dim, s, e);
        int n = (e.x - s.x) * (e.y - s.y) * (e.z - s.z), i = 0;
        const float *terms[9];
        int nterms = 0;
        for (int m = 0; m < 3; m++)
            if (t[m] != NULL)
                for (int j = 0; j < 3; j++) terms[nterms++] = t[m] + j * n;
        float f4[4];
        while (i < n) {
            int k = n - i < 4 ? n - i : 4;
#ifdef __SSE2__
            if (k == 4 && simd) {
                __m128 sum = _mm_setzero_ps();
                for (int j = 0; j < nterms; j++) sum = _mm_add_ps(sum, _mm_loadu_ps(terms[j] + i));
                _mm_storeu_ps(f4, sum);
            } else
#endif
                for (int l = 0; l < k; l++) {
                    float fAdd = 0.0f;
                    for (int j = 0; j < nterms; j++) fAdd += terms[j][i + l];
                    f4[l] = fAdd;
                }
            if (into_totals)
                for (int l = 0; l < k; l++) DEF_sum2 += f4[l];
            if (into_box)
                for (int l = 0; l < k; l++) box_sum += f4[l];
            i += k;
        }
        if (into_totals) DEF_nvoxels += n;
        if (into_box) box_n += n;
        e.z = s.z;  /* nothing left to walk */
    }

    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++) {
            int yp = y + 1 < dim.y, ym = y - 1 >= 0;
            int zp = z + 1 < dim.z, zm = z - 1 >= 0;
            int row = z * w.n2d + y * w.nx;
            int x = s.x;
#ifdef __SSE2__
            /* Four at a time from the first voxel with a previous one in x up to the last with a
               next one, when the row is away from the y and z faces. */
            int x_simd_end = e.x < dim.x - 1 ? e.x : dim.x - 1;
            if (simd && yp && ym && zp && zm)
                while (x + 4 <= x_simd_end) {
                    if (x < 1) {
                        float fAdd = voxel_penalty(&w, row + x, x + 1 < dim.x, x - 1 >= 0, yp, ym, zp, zm);
                        if (into_totals) { DEF_sum2 += fAdd; DEF_nvoxels++; }
                        if (into_box) { box_sum += fAdd; box_n++; }
                        x++;
                        continue;
                    }
                    float f4[4];
                    _mm_storeu_ps(f4, interior_penalty_four(&w, row + x, c));
                    for (int i = 0; i < 4; i++) {
                        if (into_totals) { DEF_sum2 += f4[i]; DEF_nvoxels++; }
                        if (into_box) { box_sum += f4[i]; box_n++; }
                    }
                    x += 4;
                }
#endif
            for (; x < e.x; x++) {
                float fAdd = voxel_penalty(&w, row + x, x + 1 < dim.x, x - 1 >= 0, yp, ym, zp, zm);
                if (into_totals) { DEF_sum2 += fAdd; DEF_nvoxels++; }
                if (into_box) { box_sum += fAdd; box_n++; }
            }
        }

    float result = DEF_sum2;
    if (normalize) result = DEF_nvoxels == 0 ? 1e10f : DEF_sum2 / (float)DEF_nvoxels;
    if (into_box) {
        DEF_sum2 -= box_sum;
        DEF_nvoxels -= box_n;
    }
    return result;
}

/* Determinant of the Jacobian of the maps at voxel idx (forward differences over the voxel sizes). */
static inline float jacobian_determinant(const float *DX, const float *DY, const float *DZ, int idx, int nx,
                                         int n2d, POINT3D r)
{
    float a00 = 1 + (DX[idx + 1] - DX[idx]) / r.x;
    float a01 = (DY[idx + 1] - DY[idx]) / r.x;
    float a02 = (DZ[idx + 1] - DZ[idx]) / r.x;
    float a10 = (DX[idx + nx] - DX[idx]) / r.y;
    float a11 = 1 + (DY[idx + nx] - DY[idx]) / r.y;
    float a12 = (DZ[idx + nx] - DZ[idx]) / r.y;
    float a20 = (DX[idx + n2d] - DX[idx]) / r.z;
    float a21 = (DY[idx + n2d] - DY[idx]) / r.z;
    float a22 = 1 + (DZ[idx + n2d] - DZ[idx]) / r.z;
    return a00 * (a11 * a22 - a12 * a21) - a01 * (a10 * a22 - a12 * a20) + a02 * (a10 * a21 - a11 * a20);
}

#ifdef __SSE2__
/* jacobian_determinant of the four voxels idx..idx+3, the operations in the same order. */
static inline __m128 jacobian_determinant_four(const float *DX, const float *DY, const float *DZ, int idx, int nx,
                                               int n2d, __m128 rx, __m128 ry, __m128 rz)
{
    const __m128 one = _mm_set1_ps(1.0f);
    __m128 x0 = _mm_loadu_ps(DX + idx), y0 = _mm_loadu_ps(DY + idx), z0 = _mm_loadu_ps(DZ + idx);
    __m128 a00 = _mm_add_ps(one, _mm_div_ps(_mm_sub_ps(_mm_loadu_ps(DX + idx + 1), x0), rx));
    __m128 a01 = _mm_div_ps(_mm_sub_ps(_mm_loadu_ps(DY + idx + 1), y0), rx);
    __m128 a02 = _mm_div_ps(_mm_sub_ps(_mm_loadu_ps(DZ + idx + 1), z0), rx);
    __m128 a10 = _mm_div_ps(_mm_sub_ps(_mm_loadu_ps(DX + idx + nx), x0), ry);
    __m128 a11 = _mm_add_ps(one, _mm_div_ps(_mm_sub_ps(_mm_loadu_ps(DY + idx + nx), y0), ry));
    __m128 a12 = _mm_div_ps(_mm_sub_ps(_mm_loadu_ps(DZ + idx + nx), z0), ry);
    __m128 a20 = _mm_div_ps(_mm_sub_ps(_mm_loadu_ps(DX + idx + n2d), x0), rz);
    __m128 a21 = _mm_div_ps(_mm_sub_ps(_mm_loadu_ps(DY + idx + n2d), y0), rz);
    __m128 a22 = _mm_add_ps(one, _mm_div_ps(_mm_sub_ps(_mm_loadu_ps(DZ + idx + n2d), z0), rz));
    __m128 t0 = _mm_mul_ps(a00, _mm_sub_ps(_mm_mul_ps(a11, a22), _mm_mul_ps(a12, a21)));
    __m128 t1 = _mm_mul_ps(a01, _mm_sub_ps(_mm_mul_ps(a10, a22), _mm_mul_ps(a12, a20)));
    __m128 t2 = _mm_mul_ps(a02, _mm_sub_ps(_mm_mul_ps(a10, a21), _mm_mul_ps(a11, a20)));
    return _mm_add_ps(_mm_sub_ps(t0, t1), t2);
}
#endif

/* The largest float f with (double)f <= 0.2, so that f compares with a float determinant as
   0.2 does with the determinant converted to double. */
static float fold_threshold(void)
{
    float f = 0.2f;
    while ((double)f > 0.2) f = nextafterf(f, 0.0f);
    return f;
}

/* The number of region voxels with a non-zero template value, a next voxel inside the grid along
   each axis and a determinant of at most 0.2: the count of number_invalid_distortions alone. */
static int count_folded(IPOINT3D s, IPOINT3D e)
{
    IPOINT3D dim = template_.dim;
    int nx = dim.x, n2d = dim.x * dim.y;
    POINT3D r = template_.resolution;
    const float *T = template_volume();
    const float *DX = distort_x.SpaceTime.fData;
    const float *DY = distort_y.SpaceTime.fData;
    const float *DZ = distort_z.SpaceTime.fData;
    int nbad = 0;
    if (e.z > dim.z - 1) e.z = dim.z - 1;
    if (e.y > dim.y - 1) e.y = dim.y - 1;
    if (e.x > dim.x - 1) e.x = dim.x - 1;
#ifdef __SSE2__
    int simd = simd_enabled();
    const __m128 rx = _mm_set1_ps(r.x), ry = _mm_set1_ps(r.y), rz = _mm_set1_ps(r.z);
    const __m128 limit = _mm_set1_ps(fold_threshold()), zero = _mm_setzero_ps();
#endif
    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++) {
            int row = z * n2d + y * nx, x = s.x;
#ifdef __SSE2__
            if (simd)
                for (; x + 4 <= e.x; x += 4) {
                    __m128 det = jacobian_determinant_four(DX, DY, DZ, row + x, nx, n2d, rx, ry, rz);
                    __m128 bad = _mm_and_ps(_mm_cmple_ps(det, limit), _mm_cmpneq_ps(_mm_loadu_ps(T + row + x), zero));
                    int m = _mm_movemask_ps(bad);
                    nbad += (m & 1) + ((m >> 1) & 1) + ((m >> 2) & 1) + ((m >> 3) & 1);
                }
#endif
            for (; x < e.x; x++) {
                int idx = row + x;
                if (T[idx] == 0.0f) continue;
                if ((double)jacobian_determinant(DX, DY, DZ, idx, nx, n2d, r) <= 0.2) nbad++;
            }
        }
    return nbad;
}

/* Only the first call and the calls with a non-zero pass print, and only they need the spacing
   and determinant extremes; the others count folded voxels alone. */
int number_invalid_distortions(int all_voxels, int ilevel, int ipass)
{
    static int first_call = 1;
    IPOINT3D s, e;
    region(all_voxels != 0, &s, &e);
    if (!first_call && ipass == 0) return count_folded(s, e);
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
                float det = jacobian_determinant(DX, DY, DZ, idx, nx, n2d, r);
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
