#pragma once
/* Float results decided from faster double arithmetic. The program's resampling rounds double
   sums and libm exponentials to float; a vector loop may sum in another order or use its own
   exponential only when the float it yields provably equals the one of the plain arithmetic:
   its double result must lie far enough from a float rounding boundary that every admissible
   error keeps it on the same side. Otherwise the caller falls back to the plain arithmetic.
   No globals, no X11. */
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

/* The 16 doubles 2^(j/16), j = 0..15, rounded to nearest. */
const double *exp2_sixteenths(void);

/* The Gaussian weights Gauss(d[i], 0, sigma) of numerics (float result of libm's exp), n of
   them, by the fastest path in force (simd_level): the vector exponential where its result is
   far from a float rounding boundary, libm otherwise. *nfallback counts libm calls. */
void gauss_weights_batch(const float *d, int n, float sigma, float *out, int *nfallback);

/* Sums of nterms float terms accumulated in double (values S with absolute sum A, weights W
   with absolute sum B), in any order. Returns 1 and *out = (float)(S_plain / W_plain) when every
   summation order of the same terms, the plain sequential one included, rounds the quotient to
   the same float; else 0 (also for NaN and infinite inputs). nterms may be an upper bound.
   Error bound of recursive summation in double (Higham, Accuracy and Stability of Numerical
   Algorithms, 4.2): any order of n terms lies within gamma_{n-1} * sum|t| of the exact sum,
   gamma_k = k u / (1 - k u) < 1.01 k u, u = 2^-53. Two orders therefore differ by less than
   eS = 2.02 n u A for the values and eW = 2.02 n u B for the weights; 4 n u is used, a factor
   two to spare. With |S| > 4 eS and |W| > 4 eW, the plain quotient S'/W' lies within
   (4/3)(eS/|S| + eW/|W|) |S/W| of S/W, that is within (4/3)(eS + |S/W| eW)/|W|. The centre
   q = S * (1/W) is within 2.01 u |S/W| of S/W, and the double rounding of S'/W' adds u. The half
   width h = 2 (eS + |q| eW) * (1/|W|) + 8 u |q| covers all of it with room for the roundings of
   h itself. When [|q| - h, |q| + h] lies strictly between the midpoints around the float f
   nearest |q|, the plain quotient rounds to f as well. */
static inline int float_quotient_settled(double S, double A, double W, double B, int nterms, float *out)
{
    const double u = 0x1p-53;
    if (!(A < DBL_MAX) || !(B < DBL_MAX)) return 0;
    double eS = 4.0 * (double)nterms * u * A, eW = 4.0 * (double)nterms * u * B;
    double aW = fabs(W), aS = fabs(S);
    if (!(aW > 4.0 * eW) || !(aS > 4.0 * eS || A == 0.0)) return 0;
    /* every term a zero: every order sums to +0 */
    if (A == 0.0) {
        *out = (float)(S / W);
        return 1;
    }
    double inv = 1.0 / W;
    double q = S * inv, aq = fabs(q);
    double h = 2.0 * (eS + aq * eW) * fabs(inv) + 8.0 * u * aq;
    float f = (float)aq;
    if (!(f < FLT_MAX)) return 0;
    uint32_t bits;
    memcpy(&bits, &f, sizeof bits);
    uint32_t up_bits = bits + 1u, down_bits = bits - 1u;
    float up, down;
    memcpy(&up, &up_bits, sizeof up);
    memcpy(&down, &down_bits, sizeof down);
    double mlo = f == 0.0f ? -0x1p-150 : ((double)f + (double)down) * 0.5;
    double mhi = ((double)f + (double)up) * 0.5;
    if (!(aq - h > mlo && aq + h < mhi)) return 0;
    *out = q < 0.0 ? -f : f;
    return 1;
}
