/* Float results decided from faster double arithmetic (see exact_round.h). No X11. */
#include "exact_round.h"

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "resample_internal.h"
#include "simd.h"

const double *exp2_sixteenths(void)
{
    static const struct table { double v[16]; } t = [] {
        table r;
        for (int j = 0; j < 16; j++) r.v[j] = (double)exp2l((long double)j / 16.0L);
        return r;
    }();
    return t.v;
}

double exp_table_poly(double x)
{
    const double *tab = exp2_sixteenths();
    double kf = nearbyint(x * exp_k_per_unit);
    double r = (x - kf * exp_ln2_16_hi) - kf * exp_ln2_16_lo;
    double p = exp_c6;
    p = p * r + exp_c5;
    p = p * r + exp_c4;
    p = p * r + exp_c3;
    p = p * r + exp_c2;
    p = p * r + 1.0;
    p = p * r + 1.0;
    long k = (long)kf;
    double e = tab[k & 15] * p;
    return ldexp(e, (int)(k >> 4));
}

void gauss_weights_batch(const float *d, int n, float sigma, float *out, int *nfallback)
{
    *nfallback = 0;
    int i = 0;
    if (simd_level() >= SIMD_AVX512) i = gauss_weights_avx512(d, n, sigma, out, nfallback);
    for (; i < n; i++) out[i] = gauss_weight(d[i], sigma);
}
