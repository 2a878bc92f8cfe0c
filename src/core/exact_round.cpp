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

void gauss_weights_batch(const float *d, int n, float sigma, float *out, int *nfallback)
{
    *nfallback = 0;
    int i = 0;
    if (simd_level() >= SIMD_AVX512) i = gauss_weights_avx512(d, n, sigma, out, nfallback);
    for (; i < n; i++) out[i] = gauss_weight(d[i], sigma);
}
