/* The AVX-512 row of the resampling: positions of 16 template voxels at a time (the plain float
   arithmetic, lane by lane), Gaussian weights by a vector exponential, and each voxel's weighted
   sum over whole rows of samples. A voxel's float result is taken from the vector sum only when
   it provably equals the plain sequential one (exact_round.h); otherwise, and for every voxel
   whose samples wrap or leave the grid, the plain arithmetic runs. Every function here carries
   the target attribute and is called only when simd_level() says AVX-512. No globals, no X11. */
#include "avx512_target.h"

#include <cfloat>
#include <cstdint>
#include <cstring>

#include "exact_round.h"
#include "resample_internal.h"

namespace {

/* Sample weights of one batch of up to 16 voxels: per axis, the first sample, the count, and
   the weights of samples k = 0..count-1 (lane = voxel). */
struct batch_weights {
    int lo[3][16];
    int count[3][16];
    float w[3][8][16];
    /* for voxels of 4 samples per axis: the double sums of the float products wz*wx and of
       the weights wy */
    double sum_zx[16], sum_y[16];
};

/* The largest half-width whose samples (2w+2 per axis) fit in one 8-lane row. */
const int vector_half_max = 3;

/* Lanes whose exponential is decided: the double result lies more than 2^12 ulps from a
   float rounding midpoint. The admissible error of the vector weight is far smaller (the
   argument s*c instead of ((s*-0.5)/sigma)/sigma: 5 ulps relative, at most 5*87 = 435 ulps of
   the exponential for arguments down to -87; the table and polynomial: under 16 ulps; libm's
   exp: under 1 ulp), so libm's double rounds to the same float. Arguments below -87 (results
   near the float underflow) and NaN are not decided. */
AVX512_TARGET inline __mmask8 exp_decided(__m512d x, __m512d e)
{
    const __m512i low_mask = _mm512_set1_epi64(0x1FFFFFFF), mid = _mm512_set1_epi64(0x10000000);
    __m512i low = _mm512_and_si512(_mm512_castpd_si512(e), low_mask);
    __m512i dist = _mm512_abs_epi64(_mm512_sub_epi64(low, mid));
    __mmask8 far = _mm512_cmpgt_epi64_mask(dist, _mm512_set1_epi64(4096));
    return far & _mm512_cmp_pd_mask(x, _mm512_set1_pd(-87.0), _CMP_GE_OQ);
}

/* exp(x) of 8 doubles, x in [-87, 0]: x = k ln2/16 + r, |r| <= ln2/32, e = 2^(k/16) e^r with a
   table of 2^(j/16) (two registers, one permute) and the degree-6 Taylor polynomial. k ln2/16
   is exact in two parts (k has at most 11 bits, the high part 42), and x minus the high part
   is exact (Sterbenz), so the fused steps round once each. */
AVX512_TARGET inline __m512d exp8(__m512d x, __m512d tab0, __m512d tab1)
{
    __m512d kf = _mm512_roundscale_pd(_mm512_mul_pd(x, _mm512_set1_pd(exp_k_per_unit)),
                                      _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    __m512d r = _mm512_fnmadd_pd(kf, _mm512_set1_pd(exp_ln2_16_hi), x);
    r = _mm512_fnmadd_pd(kf, _mm512_set1_pd(exp_ln2_16_lo), r);
    /* 1 + r + r^2/2 + ... + r^6/720 by Estrin's scheme */
    __m512d r2 = _mm512_mul_pd(r, r);
    __m512d p01 = _mm512_add_pd(_mm512_set1_pd(1.0), r);
    __m512d p23 = _mm512_fmadd_pd(_mm512_set1_pd(exp_c3), r, _mm512_set1_pd(exp_c2));
    __m512d p45 = _mm512_fmadd_pd(_mm512_set1_pd(exp_c5), r, _mm512_set1_pd(exp_c4));
    __m512d p46 = _mm512_fmadd_pd(_mm512_set1_pd(exp_c6), r2, p45);
    __m512d p26 = _mm512_fmadd_pd(p46, r2, p23);
    __m512d p = _mm512_fmadd_pd(p26, r2, p01);
    __m512i k = _mm512_cvtpd_epi64(kf);
    __m512d t = _mm512_permutex2var_pd(tab0, k, tab1);
    return _mm512_scalef_pd(_mm512_mul_pd(t, p), _mm512_mul_pd(kf, _mm512_set1_pd(0.0625)));
}

/* Gauss(d, 0, sigma) of 16 distances: the vector weights, and in *decided the lanes whose
   float equals libm's. c = (-0.5 / sigma) / sigma in double. */
AVX512_TARGET inline __m512 gauss16(__m512 d, __m512d c, __m512d tab0, __m512d tab1, __mmask16 *decided)
{
    /* d*d + 0*0 of numerics is d*d: a square is never -0, and NaN goes to libm below */
    __m512 s = _mm512_mul_ps(d, d);
    __m512d x0 = _mm512_mul_pd(_mm512_cvtps_pd(_mm512_castps512_ps256(s)), c);
    __m512d x1 = _mm512_mul_pd(_mm512_cvtps_pd(_mm512_extractf32x8_ps(s, 1)), c);
    __m512d e0 = exp8(x0, tab0, tab1), e1 = exp8(x1, tab0, tab1);
    *decided = (__mmask16)((unsigned)exp_decided(x0, e0) | ((unsigned)exp_decided(x1, e1) << 8));
    return _mm512_insertf32x8(_mm512_castps256_ps512(_mm512_cvtpd_ps(e0)), _mm512_cvtpd_ps(e1), 1);
}

AVX512_TARGET inline double hsum(__m512d v) { return _mm512_reduce_add_pd(v); }

/* The sums of one voxel whose samples are 4 per axis, all inside the grid: rows of 4 values
   taken two at a time. The weight of a sample is (wz*wx)*wy and its term value*weight, both in
   float exactly as in the plain sum; the terms are summed in double in another order. The
   weights are not summed here: *E is the float sum of their rounding errors
   e = (wz*wx)*wy - fl((wz*wx)*wy), which a fused multiply-subtract gives exactly, for the weight
   sum of quotients_settled8. *neg is set when a value is negative (or -0), since the bound
   takes sum|t| = sum t. */
AVX512_TARGET inline void sums_4x4x4(const float *base, size_t onx, size_t on2d, const batch_weights *b, int l,
                                     __m512d *S, float *E, int *neg)
{
    __m128 wxv = _mm_set_ps(b->w[0][3][l], b->w[0][2][l], b->w[0][1][l], b->w[0][0][l]);
    __m256 wx2 = _mm256_set_m128(wxv, wxv);
    __m256 wyA = _mm256_set_m128(_mm_set1_ps(b->w[1][1][l]), _mm_set1_ps(b->w[1][0][l]));
    __m256 wyB = _mm256_set_m128(_mm_set1_ps(b->w[1][3][l]), _mm_set1_ps(b->w[1][2][l]));
    __m512d S0 = _mm512_setzero_pd(), S1 = _mm512_setzero_pd();
    __m256 err = _mm256_setzero_ps();
    __m256i sign = _mm256_setzero_si256();
    for (int kz = 0; kz < 4; kz++) {
        __m256 wzx = _mm256_mul_ps(_mm256_set1_ps(b->w[2][kz][l]), wx2);
        const float *plane = base + on2d * (size_t)kz;
        __m256 vA = _mm256_loadu2_m128(plane + onx, plane);
        __m256 vB = _mm256_loadu2_m128(plane + 3 * onx, plane + 2 * onx);
        __m256 wA = _mm256_mul_ps(wzx, wyA), wB = _mm256_mul_ps(wzx, wyB);
        __m256 tA = _mm256_mul_ps(vA, wA), tB = _mm256_mul_ps(vB, wB);
        S0 = _mm512_add_pd(S0, _mm512_cvtps_pd(tA));
        S1 = _mm512_add_pd(S1, _mm512_cvtps_pd(tB));
        err = _mm256_add_ps(err, _mm256_add_ps(_mm256_fmsub_ps(wzx, wyA, wA), _mm256_fmsub_ps(wzx, wyB, wB)));
        sign = _mm256_or_si256(sign, _mm256_or_si256(_mm256_castps_si256(vA), _mm256_castps_si256(vB)));
    }
    *S = _mm512_add_pd(S0, S1);
    __m128 e4 = _mm_add_ps(_mm256_castps256_ps128(err), _mm256_extractf128_ps(err, 1));
    e4 = _mm_add_ps(e4, _mm_movehl_ps(e4, e4));
    *E = _mm_cvtss_f32(_mm_add_ss(e4, _mm_movehdup_ps(e4)));
    *neg = _mm256_movemask_ps(_mm256_castsi256_ps(sign)) != 0;
}

/* For each of the 16 voxels: the double sum of the 16 float products wz*wx (the same products
   as in the sums) and of the 4 weights wy. */
AVX512_TARGET inline void weight_sums(batch_weights *b)
{
    for (int h = 0; h < 2; h++) {
        __m512d zx = _mm512_setzero_pd(), yy = _mm512_setzero_pd();
        for (int kz = 0; kz < 4; kz++) {
            __m256 wz = _mm256_loadu_ps(b->w[2][kz] + 8 * h);
            for (int kx = 0; kx < 4; kx++)
                zx = _mm512_add_pd(zx, _mm512_cvtps_pd(_mm256_mul_ps(wz, _mm256_loadu_ps(b->w[0][kx] + 8 * h))));
            yy = _mm512_add_pd(yy, _mm512_cvtps_pd(_mm256_loadu_ps(b->w[1][kz] + 8 * h)));
        }
        _mm512_storeu_pd(b->sum_zx + 8 * h, zx);
        _mm512_storeu_pd(b->sum_y + 8 * h, yy);
    }
}

/* The eight sums of eight vectors, in order, by three rounds of pairing. */
AVX512_TARGET inline __m512d sum8(const __m512d v[8])
{
    __m512d a[4], b[2];
    for (int k = 0; k < 4; k++)
        a[k] = _mm512_add_pd(_mm512_unpacklo_pd(v[2 * k], v[2 * k + 1]), _mm512_unpackhi_pd(v[2 * k], v[2 * k + 1]));
    for (int k = 0; k < 2; k++)
        b[k] = _mm512_add_pd(_mm512_shuffle_f64x2(a[2 * k], a[2 * k + 1], 0x88),
                             _mm512_shuffle_f64x2(a[2 * k], a[2 * k + 1], 0xDD));
    return _mm512_add_pd(_mm512_shuffle_f64x2(b[0], b[1], 0x88), _mm512_shuffle_f64x2(b[0], b[1], 0xDD));
}

/* float_quotient_settled for eight voxels at once of 64 non-negative terms each: the lanes
   decided and their floats. S is the double sum of the terms in another order than the plain
   one: two orders differ by less than 2.02 * 64 u S, and 256 u S is used (u = 2^-53). The
   weight sum is W = A Y - E, A the double sum of the 16 products wz*wx (error at most 15u A),
   Y the double sum of the 4 weights wy (3u), E the float sum of the 64 exact errors
   e = a wy - fl(a wy) (each at most 2^-24 a wy, so the float sum errs by at most
   63 * 2^-48 A Y = 2016u A Y); the plain weight sum is within 63u of the exact sum A Y - sum e.
   So the plain and this W differ by about 2100u W at most; 4096u W is used, plus 2^-140 for
   products below the float range, whose error is not exact. A float of 0 (whose lower
   neighbour is not a float) and results beyond the float range are left undecided. */
AVX512_TARGET inline __mmask8 quotients_settled8(__m512d S, __m512d W, __m256 *f)
{
    const double u = 0x1p-53;
    const __m512d four = _mm512_set1_pd(4.0), big = _mm512_set1_pd(DBL_MAX);
    __m512d eS = _mm512_mul_pd(_mm512_set1_pd(4.0 * 64.0 * u), S);
    __m512d eW = _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(4096.0 * u), W), _mm512_set1_pd(0x1p-140));
    __mmask8 ok = _mm512_cmp_pd_mask(S, big, _CMP_LT_OQ) & _mm512_cmp_pd_mask(W, big, _CMP_LT_OQ) &
                  _mm512_cmp_pd_mask(W, _mm512_mul_pd(four, eW), _CMP_GT_OQ) &
                  _mm512_cmp_pd_mask(S, _mm512_mul_pd(four, eS), _CMP_GT_OQ);
    __m512d inv = _mm512_div_pd(_mm512_set1_pd(1.0), W);
    __m512d q = _mm512_mul_pd(S, inv);
    __m512d h = _mm512_add_pd(_mm512_mul_pd(_mm512_mul_pd(_mm512_set1_pd(2.0), _mm512_add_pd(eS, _mm512_mul_pd(q, eW))), inv),
                              _mm512_mul_pd(_mm512_set1_pd(8.0 * u), q));
    *f = _mm512_cvtpd_ps(q);
    __m256i bits = _mm256_castps_si256(*f), one = _mm256_set1_epi32(1);
    __m512d fd = _mm512_cvtps_pd(*f);
    __m512d up = _mm512_cvtps_pd(_mm256_castsi256_ps(_mm256_add_epi32(bits, one)));
    __m512d down = _mm512_cvtps_pd(_mm256_castsi256_ps(_mm256_sub_epi32(bits, one)));
    __m512d half = _mm512_set1_pd(0.5);
    __m512d mlo = _mm512_mul_pd(_mm512_add_pd(fd, down), half), mhi = _mm512_mul_pd(_mm512_add_pd(fd, up), half);
    ok &= _mm512_cmp_pd_mask(_mm512_sub_pd(q, h), mlo, _CMP_GT_OQ) & _mm512_cmp_pd_mask(_mm512_add_pd(q, h), mhi, _CMP_LT_OQ);
    ok &= _mm256_cmp_ps_mask(*f, _mm256_setzero_ps(), _CMP_GT_OQ);
    return ok;
}

/* The vector sum of one voxel with at most 8 samples per axis, all inside the grid, weights of
   any sign: one row of samples at a time, absolute sums kept for the bound. */
AVX512_TARGET int sum_rows(const float *base, size_t onx, size_t on2d, const batch_weights *b, int l, float *out)
{
    const int cx = b->count[0][l], cy = b->count[1][l], cz = b->count[2][l];
    __mmask8 m = (__mmask8)((1u << cx) - 1u);
    alignas(32) float wx[8];
    for (int k = 0; k < 8; k++) wx[k] = k < cx ? b->w[0][k][l] : 0.0f;
    __m256 wxv = _mm256_load_ps(wx);
    __m512d S = _mm512_setzero_pd(), W = _mm512_setzero_pd(), A = _mm512_setzero_pd(), B = _mm512_setzero_pd();
    for (int kz = 0; kz < cz; kz++) {
        __m256 wzx = _mm256_mul_ps(_mm256_set1_ps(b->w[2][kz][l]), wxv);
        const float *plane = base + on2d * (size_t)kz;
        for (int ky = 0; ky < cy; ky++) {
            __m256 v = _mm256_maskz_loadu_ps(m, plane + onx * (size_t)ky);
            __m256 w = _mm256_mul_ps(wzx, _mm256_set1_ps(b->w[1][ky][l]));
            __m512d t = _mm512_cvtps_pd(_mm256_mul_ps(v, w)), wd = _mm512_cvtps_pd(w);
            S = _mm512_add_pd(S, t);
            W = _mm512_add_pd(W, wd);
            A = _mm512_add_pd(A, _mm512_abs_pd(t));
            B = _mm512_add_pd(B, _mm512_abs_pd(wd));
        }
    }
    return float_quotient_settled(hsum(S), hsum(A), hsum(W), hsum(B), cx * cy * cz, out);
}

/* Weights of one batch: per axis the sample range floor(v)-w .. ceil(v)+w and, for voxels
   whose range lies inside the grid (*regular), the weights; the Gaussian through the vector
   exponential where decided, libm otherwise; the Lanczos window through libm. */
AVX512_TARGET void batch_axis(const resample_setup *s, int axis, __m512 v, __mmask16 lanes, __m512d tab0,
                              __m512d tab1, batch_weights *b, __mmask16 *regular)
{
    const int n = axis == 0 ? s->odim.x : (axis == 1 ? s->odim.y : s->odim.z);
    const int w = axis == 0 ? s->half.x : (axis == 1 ? s->half.y : s->half.z);
    const float sigma = axis == 0 ? s->sigma.x : (axis == 1 ? s->sigma.y : s->sigma.z);
    __m512i lo = _mm512_sub_epi32(_mm512_cvtps_epi32(_mm512_roundscale_ps(v, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC)),
                                  _mm512_set1_epi32(w));
    __m512i hi = _mm512_add_epi32(_mm512_cvtps_epi32(_mm512_roundscale_ps(v, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC)),
                                  _mm512_set1_epi32(w));
    *regular &= _mm512_mask_cmpge_epi32_mask(lanes, lo, _mm512_setzero_si512()) &
                _mm512_mask_cmplt_epi32_mask(lanes, hi, _mm512_set1_epi32(n));
    _mm512_storeu_si512(b->lo[axis], lo);
    _mm512_storeu_si512(b->count[axis], _mm512_add_epi32(_mm512_sub_epi32(hi, lo), _mm512_set1_epi32(1)));
    const int nk = 2 * w + 2;
    const __m512d c = _mm512_set1_pd(-0.5 / (double)sigma / (double)sigma);
    __m512 d[8];
    for (int k = 0; k < nk; k++) d[k] = _mm512_sub_ps(v, _mm512_cvtepi32_ps(_mm512_add_epi32(lo, _mm512_set1_epi32(k))));
    if (s->accurate) {
        for (int k = 0; k < nk; k++) {
            alignas(64) float dl[16];
            _mm512_store_ps(dl, d[k]);
            for (int l = 0; l < 16; l++)
                if ((*regular >> l) & 1) b->w[axis][k][l] = lanczos_weight(w, dl[l]);
        }
        return;
    }
    __mmask16 decided[8];
    for (int k = 0; k < nk; k++) _mm512_storeu_ps(b->w[axis][k], gauss16(d[k], c, tab0, tab1, &decided[k]));
    for (int k = 0; k < nk; k++) {
        __mmask16 redo = *regular & (__mmask16)~decided[k];
        if (redo == 0) continue;
        alignas(64) float dl[16];
        _mm512_store_ps(dl, d[k]);
        for (int l = 0; l < 16; l++)
            if ((redo >> l) & 1) b->w[axis][k][l] = gauss_weight(dl[l], sigma);
    }
}

}  // namespace

AVX512_TARGET int gauss_weights_avx512(const float *d, int n, float sigma, float *out, int *nfallback)
{
    const double *tab = exp2_sixteenths();
    __m512d tab0 = _mm512_loadu_pd(tab), tab1 = _mm512_loadu_pd(tab + 8);
    const __m512d c = _mm512_set1_pd(-0.5 / (double)sigma / (double)sigma);
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        __mmask16 decided;
        _mm512_storeu_ps(out + i, gauss16(_mm512_loadu_ps(d + i), c, tab0, tab1, &decided));
        for (int l = 0; l < 16; l++)
            if (!((decided >> l) & 1)) {
                out[i + l] = gauss_weight(d[i + l], sigma);
                (*nfallback)++;
            }
    }
    return i;
}

AVX512_TARGET void resample_row_avx512(const resample_setup *s, resample_scratch *sc, int y, int z, int xbegin, int xend,
                                       float *listed)
{
    const int nx = s->dim.x, ny = s->dim.y;
    const int onx = s->odim.x, ony = s->odim.y, onz = s->odim.z;
    const size_t on2d = (size_t)onx * (size_t)ony;
    const size_t row0 = (size_t)nx * ((size_t)y + (size_t)ny * (size_t)z);
    const float yf = (float)y, zf = (float)z;
    int *job_x = sc->job_x;
    float *job_vx = sc->job_v, *job_vy = job_vx + nx + 16, *job_vz = job_vy + nx + 16;
    int njobs = 0;

    /* Positions: for each matrix row r, the constant part of its sum in this row of voxels
       is added term by term after the x term, in the plain order. */
    const __m512 zero = _mm512_setzero_ps();
    __m512 m_x[3], c_y[3], c_z[3], c_1[3];
    for (int r = 0; r < 3; r++) {
        m_x[r] = _mm512_set1_ps(s->ijk_to_xyz[r][0]);
        c_y[r] = _mm512_set1_ps(yf * s->ijk_to_xyz[r][1]);
        c_z[r] = _mm512_set1_ps(zf * s->ijk_to_xyz[r][2]);
        c_1[r] = _mm512_set1_ps(1.0f * s->ijk_to_xyz[r][3]);
    }
    const __m512 far = _mm512_set1_ps(far_off_grid);
    const __m512i lane_index = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const int n3[3] = {onx, ony, onz};
    const int wraps[3] = {s->wrap.x, s->wrap.y, s->wrap.z};
    int *chunk_at = sc->chunk_at;
    __mmask16 *chunk_ok = sc->chunk_ok;

    /* First the positions of the whole segment, kept in place in the job arrays, and the
       samples of each chunk's two ends asked for; then the centres are read and the voxels to
       compute packed, by which time their samples are arriving. */
    for (int x0 = xbegin; x0 < xend; x0 += 16) {
        const int c = (x0 - xbegin) / 16, at0 = x0 - xbegin;
        int nl = xend - x0 < 16 ? xend - x0 : 16;
        __mmask16 tail = (__mmask16)((1u << nl) - 1u);
        size_t vox0 = row0 + (size_t)x0;
        __mmask16 taking = tail;
        if (listed == NULL) taking = _mm512_mask_cmp_ps_mask(tail, _mm512_maskz_loadu_ps(tail, s->tpl + vox0), zero, _CMP_NEQ_UQ);
        chunk_ok[2 * c] = taking;
        if (taking == 0) {
            chunk_ok[2 * c + 1] = 0;
            continue;
        }
        __m512 xf = _mm512_cvtepi32_ps(_mm512_add_epi32(_mm512_set1_epi32(x0), lane_index));
        __m512 p[3], q[3], v[3];
        for (int r = 0; r < 3; r++)
            p[r] = _mm512_add_ps(_mm512_add_ps(_mm512_add_ps(_mm512_add_ps(zero, _mm512_mul_ps(xf, m_x[r])), c_y[r]), c_z[r]),
                                 c_1[r]);
        for (int r = 0; r < 3; r++) {
            __m512 a = _mm512_add_ps(zero, _mm512_mul_ps(p[0], _mm512_set1_ps(s->affine[r][0])));
            a = _mm512_add_ps(a, _mm512_mul_ps(p[1], _mm512_set1_ps(s->affine[r][1])));
            a = _mm512_add_ps(a, _mm512_mul_ps(p[2], _mm512_set1_ps(s->affine[r][2])));
            q[r] = _mm512_add_ps(a, _mm512_set1_ps(1.0f * s->affine[r][3]));
        }
        if (s->dx != NULL) {
            q[0] = _mm512_add_ps(q[0], _mm512_maskz_loadu_ps(tail, s->dx + vox0));
            q[1] = _mm512_add_ps(q[1], _mm512_maskz_loadu_ps(tail, s->dy + vox0));
            q[2] = _mm512_add_ps(q[2], _mm512_maskz_loadu_ps(tail, s->dz + vox0));
        }
        for (int r = 0; r < 3; r++) {
            __m512 a = _mm512_add_ps(zero, _mm512_mul_ps(q[0], _mm512_set1_ps(s->xyz_to_ijk[r][0])));
            a = _mm512_add_ps(a, _mm512_mul_ps(q[1], _mm512_set1_ps(s->xyz_to_ijk[r][1])));
            a = _mm512_add_ps(a, _mm512_mul_ps(q[2], _mm512_set1_ps(s->xyz_to_ijk[r][2])));
            v[r] = _mm512_add_ps(a, _mm512_set1_ps(1.0f * s->xyz_to_ijk[r][3]));
        }
        __mmask16 ok = taking;
        for (int r = 0; r < 3; r++) ok &= _mm512_cmp_ps_mask(_mm512_abs_ps(v[r]), far, _CMP_LT_OQ);
        __m512i idx[3];
        for (int r = 0; r < 3; r++) {
            __m512 rounded = _mm512_roundscale_ps(v[r], _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
            __m512i i = _mm512_maskz_cvtps_epi32(ok, rounded);
            __m512i n = _mm512_set1_epi32(n3[r]);
            if (wraps[r]) {
                i = _mm512_mask_add_epi32(i, _mm512_cmplt_epi32_mask(i, _mm512_setzero_si512()), i, n);
                i = _mm512_mask_sub_epi32(i, _mm512_cmpge_epi32_mask(i, n), i, n);
            }
            ok &= _mm512_cmpge_epi32_mask(i, _mm512_setzero_si512()) & _mm512_cmplt_epi32_mask(i, n);
            idx[r] = i;
        }
        __m512i at = _mm512_add_epi32(idx[0], _mm512_mullo_epi32(idx[1], _mm512_set1_epi32(onx)));
        at = _mm512_add_epi32(at, _mm512_mullo_epi32(idx[2], _mm512_set1_epi32((int)on2d)));
        chunk_ok[2 * c + 1] = ok;
        _mm512_storeu_si512(chunk_at + at0, at);
        _mm512_storeu_ps(job_vx + at0, v[0]);
        _mm512_storeu_ps(job_vy + at0, v[1]);
        _mm512_storeu_ps(job_vz + at0, v[2]);
        if (ok == 0) continue;
        /* the sample rows of the chunk's first and last voxel to compute */
        int ends[2] = {__builtin_ctz((unsigned)ok), 31 - __builtin_clz((unsigned)ok)};
        for (int e = 0; e < 2; e++) {
            int l = ends[e];
            int iy = (int)floorf(job_vy[at0 + l]) - s->half.y, iz = (int)floorf(job_vz[at0 + l]) - s->half.z;
            int ix = (int)floorf(job_vx[at0 + l]) - s->half.x;
            if (ix < 0 || iy < 0 || iz < 0 || iy + 2 * s->half.y + 1 >= ony || iz + 2 * s->half.z + 1 >= onz) continue;
            const float *corner = s->src + on2d * (size_t)iz + (size_t)onx * (size_t)iy + (size_t)ix;
            for (int kz = 0; kz < 2 * s->half.z + 2; kz++)
                for (int ky = 0; ky < 2 * s->half.y + 2; ky++)
                    _mm_prefetch((const char *)(corner + on2d * (size_t)kz + (size_t)onx * (size_t)ky), _MM_HINT_T0);
        }
    }
    for (int x0 = xbegin; x0 < xend; x0 += 16) {
        const int c = (x0 - xbegin) / 16, at0 = x0 - xbegin;
        int nl = xend - x0 < 16 ? xend - x0 : 16;
        __mmask16 tail = (__mmask16)((1u << nl) - 1u);
        size_t vox0 = row0 + (size_t)x0;
        __mmask16 taking = chunk_ok[2 * c], ok = chunk_ok[2 * c + 1];
        if (ok != 0) {
            __m512 centre = _mm512_mask_i32gather_ps(zero, ok, _mm512_loadu_si512(chunk_at + at0), s->src, 4);
            ok &= _mm512_cmp_ps_mask(centre, zero, _CMP_NEQ_UQ);
        }
        /* Nothing computed: 0 where the template is 0, and everywhere in a full resampling. */
        __mmask16 zeroed = s->clear ? (__mmask16)(tail & ~ok) : (__mmask16)(tail & ~taking);
        _mm512_mask_storeu_ps(s->dst + vox0, zeroed, zero);
        if (listed != NULL) _mm512_mask_storeu_ps(listed + at0, zeroed, zero);
        if (ok == 0) continue;
        __m512 vx = _mm512_loadu_ps(job_vx + at0), vy = _mm512_loadu_ps(job_vy + at0), vz = _mm512_loadu_ps(job_vz + at0);
        _mm512_storeu_si512(job_x + njobs, _mm512_maskz_compress_epi32(ok, _mm512_add_epi32(_mm512_set1_epi32(x0), lane_index)));
        _mm512_storeu_ps(job_vx + njobs, _mm512_maskz_compress_ps(ok, vx));
        _mm512_storeu_ps(job_vy + njobs, _mm512_maskz_compress_ps(ok, vy));
        _mm512_storeu_ps(job_vz + njobs, _mm512_maskz_compress_ps(ok, vz));
        njobs += __builtin_popcount((unsigned)ok);
    }

    /* Weights and sums, 16 voxels at a time. */
    const double *tab = exp2_sixteenths();
    const __m512d tab0 = _mm512_loadu_pd(tab), tab1 = _mm512_loadu_pd(tab + 8);
    const int vector_ok = s->half.x <= vector_half_max && s->half.y <= vector_half_max &&
                          s->half.z <= vector_half_max;
    const int fast4 = !s->accurate && s->half.x == 1 && s->half.y == 1 && s->half.z == 1;
    batch_weights b;
    for (int j0 = 0; j0 < njobs; j0 += 16) {
        int nl = njobs - j0 < 16 ? njobs - j0 : 16;
        __mmask16 lanes = (__mmask16)((1u << nl) - 1u);
        __mmask16 regular = vector_ok ? lanes : 0;
        /* The samples of the batch's first, middle and last voxel are asked for while the
           weights are computed. */
        if (regular) {
            const int probe[3] = {j0, j0 + nl / 2, j0 + nl - 1};
            for (int p = 0; p < 3; p++) {
                int ix = (int)floorf(job_vx[probe[p]]) - s->half.x, iy = (int)floorf(job_vy[probe[p]]) - s->half.y;
                int iz = (int)floorf(job_vz[probe[p]]) - s->half.z;
                if (ix < 0 || iy < 0 || iz < 0 || ix + 4 > onx || iy + 2 * s->half.y + 2 > ony || iz + 2 * s->half.z + 2 > onz)
                    continue;
                const float *corner = s->src + on2d * (size_t)iz + (size_t)onx * (size_t)iy + (size_t)ix;
                for (int kz = 0; kz < 2 * s->half.z + 2; kz++)
                    for (int ky = 0; ky < 2 * s->half.y + 2; ky++)
                        _mm_prefetch((const char *)(corner + on2d * (size_t)kz + (size_t)onx * (size_t)ky), _MM_HINT_T0);
            }
        }
        if (regular) {
            batch_axis(s, 0, _mm512_maskz_loadu_ps(lanes, job_vx + j0), lanes, tab0, tab1, &b, &regular);
            batch_axis(s, 1, _mm512_maskz_loadu_ps(lanes, job_vy + j0), lanes, tab0, tab1, &b, &regular);
            batch_axis(s, 2, _mm512_maskz_loadu_ps(lanes, job_vz + j0), lanes, tab0, tab1, &b, &regular);
        }
        /* Voxels of 4 samples per axis, eight at a time; the rest one by one. */
        __mmask16 four = 0;
        if (fast4) {
            const __m512i c4 = _mm512_set1_epi32(4);
            four = regular & _mm512_cmpeq_epi32_mask(_mm512_loadu_si512(b.count[0]), c4) &
                   _mm512_cmpeq_epi32_mask(_mm512_loadu_si512(b.count[1]), c4) &
                   _mm512_cmpeq_epi32_mask(_mm512_loadu_si512(b.count[2]), c4);
            if (four) weight_sums(&b);
        }
        __mmask16 done = 0;
        unsigned pending = four;
        while (pending) {
            int lane[8], k = 0;
            while (pending && k < 8) {
                lane[k++] = __builtin_ctz(pending);
                pending &= pending - 1;
            }
            __m512d S[8];
            alignas(32) float E[8];
            alignas(64) double A[8], Y[8];
            unsigned neg = 0;
            for (int j = 0; j < 8; j++) {
                int l = lane[j < k ? j : 0], n;
                const float *base = s->src + on2d * (size_t)b.lo[2][l] + (size_t)onx * (size_t)b.lo[1][l] + (size_t)b.lo[0][l];
                A[j] = b.sum_zx[l];
                Y[j] = b.sum_y[l];
                sums_4x4x4(base, (size_t)onx, on2d, &b, l, &S[j], &E[j], &n);
                neg |= (unsigned)n << j;
            }
            __m256 f;
            __m512d W = _mm512_sub_pd(_mm512_mul_pd(_mm512_load_pd(A), _mm512_load_pd(Y)), _mm512_cvtps_pd(_mm256_load_ps(E)));
            __mmask8 ok = quotients_settled8(sum8(S), W, &f) & (__mmask8)((1u << k) - 1u) & (__mmask8)~neg;
            alignas(32) float result[8];
            _mm256_store_ps(result, f);
            for (int j = 0; j < k; j++)
                if ((ok >> j) & 1) {
                    int x = job_x[j0 + lane[j]];
                    s->dst[row0 + (size_t)x] = result[j];
                    if (listed != NULL) listed[x - xbegin] = result[j];
                    done |= (__mmask16)(1u << lane[j]);
                }
            sc->nvector += __builtin_popcount((unsigned)ok);
        }
        for (int l = 0; l < nl; l++) {
            if ((done >> l) & 1) continue;
            size_t vox = row0 + (size_t)job_x[j0 + l];
            if ((regular >> l) & 1) {
                const float *base = s->src + on2d * (size_t)b.lo[2][l] + (size_t)onx * (size_t)b.lo[1][l] + (size_t)b.lo[0][l];
                float result;
                if (sum_rows(base, (size_t)onx, on2d, &b, l, &result)) {
                    s->dst[vox] = result;
                    if (listed != NULL) listed[job_x[j0 + l] - xbegin] = result;
                    sc->nvector++;
                    continue;
                }
            }
            POINT3D pos = {job_vx[j0 + l], job_vy[j0 + l], job_vz[j0 + l]};
            resample_voxel_plain(s, sc, vox, pos);
            if (listed != NULL) listed[job_x[j0 + l] - xbegin] = s->dst[vox];
        }
    }
}
