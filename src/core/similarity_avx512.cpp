/* The AVX-512 walks of the similarity measures: 16 template voxels tested at a time, the
   taking-part values packed in voxel order and summed one by one in that order (the float sums
   are those of the plain walk), ranges by vector minimum and maximum, histogram bins computed
   16 at a time with the plain float arithmetic. Every function carries the target attribute and
   is called only when simd_level() says AVX-512. No globals, no X11. */

#include "avx512_target.h"

#include <cmath>
#include <cstring>

#include "similarity_internal.h"

namespace {

/* Counts bins idx[0..k-1] into four histograms taken in turn, so that equal neighbouring bins
   do not wait on each other. */
inline void count_bins(int counts[4][NBINS * NBINS], const int *idx, int k)
{
    int j = 0;
    for (; j + 4 <= k; j += 4) {
        counts[0][idx[j]]++;
        counts[1][idx[j + 1]]++;
        counts[2][idx[j + 2]]++;
        counts[3][idx[j + 3]]++;
    }
    for (; j < k; j++) counts[0][idx[j]]++;
}

/* The four histograms added into the joint counts. */
inline void add_counts(const int counts[4][NBINS * NBINS], long long *joint)
{
    for (int b = 0; b < NBINS * NBINS; b++)
        joint[b] += (long long)counts[0][b] + counts[1][b] + counts[2][b] + counts[3][b];
}

/* The taking-part lanes of the 16 voxels at v (fewer at the end), and their values. */
AVX512_TARGET inline __mmask16 taking_part(const float *tpl, const float *ind, size_t v, size_t n, __m512 *t,
                                           __m512 *i)
{
    __mmask16 lanes = n - v >= 16 ? (__mmask16)0xFFFF : (__mmask16)((1u << (n - v)) - 1u);
    *t = _mm512_maskz_loadu_ps(lanes, tpl + v);
    __mmask16 m = _mm512_mask_cmp_ps_mask(lanes, *t, _mm512_setzero_ps(), _CMP_NEQ_UQ);
    *i = _mm512_maskz_loadu_ps(m, ind + v);
    return m;
}

/* mi_bin of 16 scaled values. */
AVX512_TARGET inline __m512i bins16(__m512 scaled, __m512 vmin, __m512 range)
{
    __m512 b = _mm512_div_ps(_mm512_mul_ps(_mm512_sub_ps(scaled, vmin), _mm512_set1_ps((float)NBINS)), range);
    __mmask16 in_range = _mm512_cmp_ps_mask(b, _mm512_setzero_ps(), _CMP_GE_OQ);
    __mmask16 above = _mm512_cmp_ps_mask(b, _mm512_set1_ps((float)(NBINS - 1)), _CMP_GT_OQ);
    __m512i bin = _mm512_maskz_cvttps_epi32((__mmask16)(in_range & ~above), b);
    return _mm512_mask_mov_epi32(bin, above, _mm512_set1_epi32(NBINS - 1));
}

}  // namespace

AVX512_TARGET void taking_part_sums_avx512(const float *tpl, const float *ind, size_t n, taking_part_sums *r)
{
    float sum_i = 0.0f, sum_t = 0.0f;
    int count = 0;
    const float inf = INFINITY;
    __m512 min_i = _mm512_set1_ps(inf), max_i = _mm512_set1_ps(-inf);
    __m512 min_t = _mm512_set1_ps(inf), max_t = _mm512_set1_ps(-inf);
    alignas(64) float pi[16], pt[16];
    for (size_t v = 0; v < n; v += 16) {
        __m512 t, i;
        __mmask16 m = taking_part(tpl, ind, v, n, &t, &i);
        if (m == 0) continue;
        _mm512_store_ps(pi, _mm512_maskz_compress_ps(m, i));
        _mm512_store_ps(pt, _mm512_maskz_compress_ps(m, t));
        int k = __builtin_popcount((unsigned)m);
        for (int j = 0; j < k; j++) {
            sum_i += pi[j];
            sum_t += pt[j];
        }
        count += k;
        __mmask16 oi = _mm512_mask_cmp_ps_mask(m, i, i, _CMP_ORD_Q), ot = _mm512_mask_cmp_ps_mask(m, t, t, _CMP_ORD_Q);
        min_i = _mm512_mask_min_ps(min_i, oi, min_i, i);
        max_i = _mm512_mask_max_ps(max_i, oi, max_i, i);
        min_t = _mm512_mask_min_ps(min_t, ot, min_t, t);
        max_t = _mm512_mask_max_ps(max_t, ot, max_t, t);
    }
    r->sum_i = sum_i;
    r->sum_t = sum_t;
    r->count = count;
    r->min_i = _mm512_reduce_min_ps(min_i);
    r->max_i = _mm512_reduce_max_ps(max_i);
    r->min_t = _mm512_reduce_min_ps(min_t);
    r->max_t = _mm512_reduce_max_ps(max_t);
}

AVX512_TARGET void joint_counts_avx512(const float *tpl, const float *ind, size_t first, size_t last, float av_i,
                                       float av_t, float vmin, float vmax, long long *joint)
{
    /* four histograms taken in turn, so that equal neighbouring bins do not wait on each other */
    int counts[4][NBINS * NBINS];
    memset(counts, 0, sizeof counts);
    const __m512 avi = _mm512_set1_ps(av_i), avt = _mm512_set1_ps(av_t);
    const __m512 lo = _mm512_set1_ps(vmin), range = _mm512_set1_ps(vmax - vmin);
    alignas(64) int idx[16];
    for (size_t v = first; v < last; v += 16) {
        __m512 t, i;
        __mmask16 m = taking_part(tpl, ind, v, last, &t, &i);
        if (m == 0) continue;
        __m512i bi = bins16(_mm512_div_ps(i, avi), lo, range);
        __m512i bt = bins16(_mm512_div_ps(t, avt), lo, range);
        __m512i at = _mm512_add_epi32(_mm512_mullo_epi32(bi, _mm512_set1_epi32(NBINS)), bt);
        _mm512_store_si512(idx, _mm512_maskz_compress_epi32(m, at));
        int k = __builtin_popcount((unsigned)m);
        count_bins(counts, idx, k);
    }
    add_counts(counts, joint);
}

AVX512_TARGET void correlation_sums_avx512(const float *tpl, const float *ind, size_t n, float sums[4])
{
    float sum_ii = 0.0f, sum_tt = 0.0f, sum_it = 0.0f, count = 0.0f;
    alignas(64) float pi[16], pt[16];
    for (size_t v = 0; v < n; v += 16) {
        __m512 t, i;
        __mmask16 m = taking_part(tpl, ind, v, n, &t, &i);
        if (m == 0) continue;
        _mm512_store_ps(pi, _mm512_maskz_compress_ps(m, i));
        _mm512_store_ps(pt, _mm512_maskz_compress_ps(m, t));
        int k = __builtin_popcount((unsigned)m);
        for (int j = 0; j < k; j++) {
            sum_ii += pi[j] * pi[j];
            sum_tt += pt[j] * pt[j];
            sum_it += pi[j] * pt[j];
            count += 1.0f;
        }
    }
    sums[0] = sum_ii;
    sums[1] = sum_tt;
    sums[2] = sum_it;
    sums[3] = count;
}

AVX512_TARGET void ordered_sum_avx512(const float *v, size_t n, float *sum, float *vmin, float *vmax)
{
    float s = 0.0f;
    const float inf = INFINITY;
    __m512 lo = _mm512_set1_ps(inf), hi = _mm512_set1_ps(-inf);
    size_t k = 0;
    for (; k + 16 <= n; k += 16) {
        __m512 x = _mm512_loadu_ps(v + k);
        __mmask16 ord = _mm512_cmp_ps_mask(x, x, _CMP_ORD_Q);
        lo = _mm512_mask_min_ps(lo, ord, lo, x);
        hi = _mm512_mask_max_ps(hi, ord, hi, x);
        for (int j = 0; j < 16; j++) s += v[k + j];
    }
    float l = _mm512_reduce_min_ps(lo), h = _mm512_reduce_max_ps(hi);
    for (; k < n; k++) {
        s += v[k];
        if (v[k] < l) l = v[k];
        if (v[k] > h) h = v[k];
    }
    *sum = s;
    *vmin = l;
    *vmax = h;
}

AVX512_TARGET void joint_counts_listed_avx512(const float *ind, const float *tsc, size_t first, size_t last, float av_i,
                                              float vmin, float vmax, long long *joint)
{
    int counts[4][NBINS * NBINS];
    memset(counts, 0, sizeof counts);
    const __m512 avi = _mm512_set1_ps(av_i);
    const __m512 lo = _mm512_set1_ps(vmin), range = _mm512_set1_ps(vmax - vmin);
    alignas(64) int idx[16];
    for (size_t k = first; k < last; k += 16) {
        int n = last - k >= 16 ? 16 : (int)(last - k);
        __mmask16 m = (__mmask16)((1u << n) - 1u);
        __m512i bi = bins16(_mm512_div_ps(_mm512_maskz_loadu_ps(m, ind + k), avi), lo, range);
        __m512i bt = bins16(_mm512_maskz_loadu_ps(m, tsc + k), lo, range);
        _mm512_store_si512(idx, _mm512_add_epi32(_mm512_mullo_epi32(bi, _mm512_set1_epi32(NBINS)), bt));
        count_bins(counts, idx, n);
    }
    add_counts(counts, joint);
}
