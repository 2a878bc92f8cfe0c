/* Typed allocation, matrix inversion and products, complex arithmetic, kernels and the
   incomplete beta function. Stateless; no globals; no X11. */
#include "numerics.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void alloc_error(const char *message)
{
    fflush(stdout);
    fprintf(stderr, "Fatal Error:\n");
    fprintf(stderr, "%s\n", message);
    fprintf(stderr, "Program aborted.\n");
    exit(1);
}

/* 32-bit byte count: a product that wraps gives a small or failing block, as on the original
   32-bit arithmetic; negative counts are refused outright. */
static void *alloc_block(int n, unsigned size, const char *message)
{
    if (n < 0) alloc_error(message);
    unsigned bytes = (unsigned)n * size;
    void *p = malloc(bytes == 0 ? 1 : bytes);
    if (p == NULL) alloc_error(message);
    return p;
}

#define VECTOR_PAIR(type, name, message)                                                     \
    type *name(int n) { return (type *)alloc_block(n, sizeof(type), message); }            \
    void free_##name(type *v) { free(v); }

VECTOR_PAIR(char, char_vector, "Allocation error in char_vector().")
VECTOR_PAIR(unsigned char, unsigned_char_vector, "Allocation error in char_vector().")
VECTOR_PAIR(float, float_vector, "Allocation error in float_vector().")
VECTOR_PAIR(POINT3D, point3d_vector, "Allocation error in point3d_vector().")
VECTOR_PAIR(IPOINT3D, ipoint3d_vector, "Allocation error in ipoint3d_vector().")
VECTOR_PAIR(double, double_vector, "Allocation error in double_vector().")
VECTOR_PAIR(int, int_vector, "Allocation error in int_vector().")
VECTOR_PAIR(short, short_vector, "Allocation error in short_vector().")
VECTOR_PAIR(unsigned short, unsigned_short_vector, "Allocation error in short_vector().")
VECTOR_PAIR(long, long_vector, "Allocation error in long_vector().")
VECTOR_PAIR(FCOMPLEX, fcomplex_vector, "Allocation error in fcomplex_vector().")
VECTOR_PAIR(DCOMPLEX, dcomplex_vector, "Allocation error in fcomplex_vector().")
VECTOR_PAIR(LCOMPLEX, lcomplex_vector, "Allocation error in lcomplex_vector().")
VECTOR_PAIR(SCOMPLEX, scomplex_vector, "Allocation error in scomplex_vector().")

#define MATRIX_PAIR(type, name, message1, message2)                                          \
    type **name(int nrows, int ncols)                                                        \
    {                                                                                        \
        type **m = (type **)alloc_block(nrows, sizeof(type *), message1);                   \
        for (int i = 0; i < nrows; i++) m[i] = (type *)alloc_block(ncols, sizeof(type), message2); \
        return m;                                                                            \
    }                                                                                        \
    void free_##name(type **m, int nrows, int ncols)                                         \
    {                                                                                        \
        (void)ncols;                                                                         \
        for (int i = nrows - 1; i >= 0; i--) free(m[i]);                                     \
        free(m);                                                                             \
    }

MATRIX_PAIR(float, float_matrix, "Allocation failure 1 in float_matrix().", "Allocation failure 2 in float_matrix().")
MATRIX_PAIR(double, double_matrix, "Allocation failure 1 in double_matrix().", "Allocation failure 2 in double_matrix().")
MATRIX_PAIR(int, int_matrix, "Allocation failure 1 in integer_matrix().", "Allocation failure 2 in integer_matrix().")
MATRIX_PAIR(short, short_matrix, "Allocation failure 1 in short_matrix().", "Allocation failure 2 in short_matrix().")
MATRIX_PAIR(long, long_matrix, "Allocation failure 1 in long_matrix().", "Allocation failure 2 in long_matrix().")

int is_upper_case(int c) { return c >= 65 && c <= 90; }
int to_lower_case(int c) { return c + 32; }

void convert_to_lower(char *s)
{
    for (; *s; s++)
        if (is_upper_case((unsigned char)*s)) *s = (char)to_lower_case((unsigned char)*s);
}

char *next_non_white(char *s)
{
    while (*s == ' ' || *s == '\t') s++;
    return s;
}

int invert_3x3_matrix(float **m)
{
    float det = m[0][0] * m[1][1] * m[2][2] + m[0][1] * m[1][2] * m[2][0] + m[0][2] * m[1][0] * m[2][1]
              - m[0][2] * m[1][1] * m[2][0] - m[0][0] * m[1][2] * m[2][1] - m[0][1] * m[1][0] * m[2][2];
    if (det == 0.0f) return 1;
    double inv = 1.0 / (double)det;
    float c[3][3];
    c[0][0] = m[1][1] * m[2][2] - m[1][2] * m[2][1];
    c[0][1] = m[0][2] * m[2][1] - m[0][1] * m[2][2];
    c[0][2] = m[0][1] * m[1][2] - m[0][2] * m[1][1];
    c[1][0] = m[1][2] * m[2][0] - m[1][0] * m[2][2];
    c[1][1] = m[0][0] * m[2][2] - m[0][2] * m[2][0];
    c[1][2] = m[0][2] * m[1][0] - m[0][0] * m[1][2];
    c[2][0] = m[1][0] * m[2][1] - m[1][1] * m[2][0];
    c[2][1] = m[0][1] * m[2][0] - m[0][0] * m[2][1];
    c[2][2] = m[0][0] * m[1][1] - m[0][1] * m[1][0];
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) m[i][j] = (float)(c[i][j] * inv);
    return 0;
}

int dInvertSquareMatrix(int n, double **a, int *error_row)
{
    *error_row = -1;
    if (n < 0) {
        printf("Error: the matrix order is %d\n", n);
        return 1;
    }
    if (n == 0) return 0;
    int *p = int_vector(n);
    double *w = double_vector(n);

    /* LU factorisation with partial pivoting */
    for (int k = 0; k < n; k++) {
        int pivot = k;
        double big = fabs(a[k][k]);
        for (int r = k + 1; r < n; r++)
            if (fabs(a[r][k]) > big) { big = fabs(a[r][k]); pivot = r; }
        p[k] = pivot;
        if (a[pivot][k] == 0.0) {
            *error_row = k;
            free_int_vector(p);
            free_double_vector(w);
            return 1;
        }
        if (pivot != k)
            for (int j = 0; j < n; j++) { double t = a[k][j]; a[k][j] = a[pivot][j]; a[pivot][j] = t; }
        for (int i = k + 1; i < n; i++) a[i][k] /= a[k][k];
        for (int i = k + 1; i < n; i++)
            for (int j = k + 1; j < n; j++) a[i][j] -= a[i][k] * a[k][j];
    }

    /* invert U in place, column by column */
    for (int j = 0; j < n; j++) {
        a[j][j] = 1.0 / a[j][j];
        for (int k = 0; k < j; k++) {
            for (int i = 0; i < k; i++) a[i][j] += a[k][j] * a[i][k];
            a[k][j] = a[k][k] * a[k][j];
        }
        for (int k = 0; k < j; k++) a[k][j] *= -a[j][j];
    }

    /* apply the inverse of L from the right */
    for (int k = n - 1; k >= 0; k--) {
        for (int i = k + 1; i < n; i++) { w[i] = a[i][k]; a[i][k] = 0.0; }
        for (int c = k + 1; c < n; c++)
            for (int r = 0; r < n; r++) a[r][k] -= a[r][c] * w[c];
    }

    /* undo the pivoting by column exchanges */
    for (int k = n - 2; k >= 0; k--)
        if (p[k] != k)
            for (int r = 0; r < n; r++) { double t = a[r][k]; a[r][k] = a[r][p[k]]; a[r][p[k]] = t; }

    free_int_vector(p);
    free_double_vector(w);
    return 0;
}

int rInvertSquareMatrix(int n, float **a, int *error_row)
{
    if (n <= 0) return dInvertSquareMatrix(n, NULL, error_row);
    double **d = double_matrix(n, n);
    for (int i = 0; i < n; i++)
        for (int j = 0; j < n; j++) d[i][j] = a[i][j];
    int status = dInvertSquareMatrix(n, d, error_row);
    for (int i = 0; i < n; i++)
        for (int j = 0; j < n; j++) a[i][j] = (float)d[i][j];
    free_double_matrix(d, n, n);
    return status;
}

void Matrix_Product(float **C, int nrows, int ncols, float **A, int transpose_A, int ninner,
                    float **B, int transpose_B)
{
    for (int i = 0; i < nrows; i++)
        for (int j = 0; j < ncols; j++) {
            C[i][j] = 0.0f;
            for (int k = 0; k < ninner; k++) {
                float a = transpose_A ? A[k][i] : A[i][k];
                float b = transpose_B ? B[j][k] : B[k][j];
                C[i][j] += a * b;
            }
        }
}

void Matrix_Vector_Product(float *y, int n, float **A, int transpose, int m, float *x)
{
    for (int i = 0; i < n; i++) {
        float sum = 0.0f;
        for (int k = 0; k < m; k++) sum += (transpose ? A[k][i] : A[i][k]) * x[k];
        y[i] = sum;
    }
}

float Trace_of_Matrix(int n, float **A)
{
    float sum = 0.0f;
    for (int i = 0; i < n; i++) sum += A[i][i];
    return sum;
}

void Matrix_PseudoInverse(float **A, int nrows, int ncols, float **result)
{
    float **M = float_matrix(ncols, ncols);
    int error_row;
    Matrix_Product(M, ncols, ncols, A, 1, nrows, A, 0);
    rInvertSquareMatrix(ncols, M, &error_row); /* deliberately not checked */
    Matrix_Product(result, ncols, nrows, M, 0, ncols, A, 1);
    free_float_matrix(M, ncols, ncols);
}

FCOMPLEX FCMult(FCOMPLEX a, FCOMPLEX b)
{
    FCOMPLEX c;
    c.real = a.real * b.real - a.imag * b.imag;
    c.imag = a.real * b.imag + a.imag * b.real;
    return c;
}

FCOMPLEX FCMultStar(FCOMPLEX a, FCOMPLEX b)
{
    FCOMPLEX c;
    c.real = a.real * b.real + a.imag * b.imag;
    c.imag = a.imag * b.real - a.real * b.imag;
    return c;
}

FCOMPLEX FCAdd(FCOMPLEX a, FCOMPLEX b)
{
    FCOMPLEX c;
    c.real = a.real + b.real;
    c.imag = a.imag + b.imag;
    return c;
}

float compute_amplitude(FCOMPLEX z)
{
    return (float)sqrt((double)(z.real * z.real + z.imag * z.imag));
}

float compute_phase(FCOMPLEX z)
{
    if (z.real == 0.0f) {
        if (z.imag == 0.0f) return 0.0f;
        return z.imag > 0.0f ? 1.5707964f : -1.5707964f;
    }
    float quotient = z.imag / z.real;
    double angle = atan((double)quotient);
    /* the half turn is added to the arctangent in double, and the sum is rounded once */
    if (z.real < 0.0f) angle += 3.141592654;
    float theta = (float)angle;
    if ((double)theta > 3.141592654) theta = (float)((double)theta - 6.283185308);
    return theta;
}

float Kaiser_Bessel(double x, double width, double beta)
{
    double s = 1.0 - 4.0 * x * x / (width * width);
    if (s < 0.0) return 0.0f;
    return (float)(bessi0(beta * sqrt(s)) / width);
}

FCOMPLEX inverse_Kaiser_Bessel(double x, double width, double beta)
{
    FCOMPLEX result = {0.0f, 0.0f};
    double t = 9.869604403666765 * width * width * x * x - beta * beta;
    double norm = sinh(beta) / beta;
    if (t >= 0.0) {
        double r = sqrt(t);
        double v = r < 0.0001 ? 1.0 : sin(r) / r;
        result.real = (float)(v / norm);
    } else {
        double r = sqrt(-t);
        double v = r < 0.0001 ? 1.0 : sinh(r) / r;
        result.imag = (float)(v / norm);
    }
    return result;
}

double bessi0(double x)
{
    double ax = fabs(x);
    if (ax < 3.75) {
        double y = x / 3.75;
        y *= y;
        return 1.0 + y * (3.5156229 + y * (3.0899424 + y * (1.2067492 + y * (0.2659732 +
               y * (0.360768e-1 + y * 0.45813e-2)))));
    }
    double y = 3.75 / ax;
    return (exp(ax) / sqrt(ax)) * (0.39894228 + y * (0.1328592e-1 + y * (0.225319e-2 +
           y * (-0.157565e-2 + y * (0.916281e-2 + y * (-0.2057706e-1 + y * (0.2635537e-1 +
           y * (-0.1647633e-1 + y * 0.392377e-2))))))));
}

float Gauss(float x, float y, float sigma)
{
    double arg = (double)(x * x + y * y) * (-0.5) / sigma / sigma;
    return (float)exp(arg);
}

float inverse_Gauss(float x, float y, float sigma)
{
    double arg = -19.73920880733353 * (double)sigma * (double)sigma * (double)(x * x + y * y);
    return (float)exp(arg);
}

float ham_sinc(int n, float x)
{
    if (fabs((double)x) < 0.00001) return 1.0f;
    if (fabs((double)x / n) > 1.0) return 0.0f;
    double px = 3.141592654 * x;
    return (float)(sin(px) / px * (0.54 + 0.46 * cos(px / n)));
}

float Lanczos_filter(int n, float x)
{
    if (fabs((double)x) < 0.00001) return 1.0f;
    if (fabs((double)x / n) > 1.0) return 0.0f;
    double px = 3.141592654 * x;
    return (float)(n * sin(px) * sin(px / n) / (px * px));
}

void swap_x(FCOMPLEX *data, int n, int shift)
{
    if (n <= 0) return;
    if (n % 2 == 0) {
        int half = n / 2;
        for (int i = 0; i < half; i++) {
            FCOMPLEX t = data[i];
            data[i] = data[i + half];
            data[i + half] = t;
        }
        return;
    }
    FCOMPLEX *copy = fcomplex_vector(n);
    memcpy(copy, data, sizeof(FCOMPLEX) * (size_t)n);
    for (int i = 0; i < n; i++) {
        int j = n / 2 + i + shift;
        if (j >= n) j -= n;
        if (j >= 0 && j < n) data[j] = copy[i];
    }
    free_fcomplex_vector(copy);
}

int is_power_of_2(int n, int *lower, int *upper)
{
    int p = 2;
    while (p < n) p *= 2;
    if (p == n) {
        *lower = n / 2;
        *upper = 2 * n;
        return 1;
    }
    *lower = p / 2;
    *upper = p;
    return 0;
}

/* ---- incomplete beta integral (continued fractions and power series) ---- */

static const double MACHEP = 1.1102230246251565e-16;
static const double MAXLOG = 709.782712893384;
static const double MINLOG = -745.1332191019412;
static const double MAXGAM = 171.6243769563027;
static const double BIG = 4503599627370496.0;
static const double BIGINV = 2.220446049250313e-16;

double ibeta(double a, double b, double x)
{
    if (a <= 0.0 || b <= 0.0) {
        printf("ibeta: Domain error!, a = %g, b = %g\n", a, b);
        fflush(stdout);
        exit(1);
    }
    if (x == 0.0) return 0.0;
    if (x == 1.0) return 1.0;
    if (b * x <= 1.0 && x <= 0.95) return pseries(a, b, x);

    int flag = 0;
    double w = 1.0 - x;
    double aa, bb, xx, xc, t;
    if (x > a / (a + b)) {
        flag = 1;
        aa = b; bb = a; xc = x; xx = w;
    } else {
        aa = a; bb = b; xc = w; xx = x;
    }
    if (flag == 1 && bb * xx <= 1.0 && xx <= 0.95) {
        t = pseries(aa, bb, xx);
        return t <= MACHEP ? 1.0 - MACHEP : 1.0 - t;
    }

    double y = xx * (aa + bb - 2.0) - (aa - 1.0);
    if (y < 0.0)
        w = incbcf(aa, bb, xx);
    else
        w = incbd(aa, bb, xx) / xc;

    y = aa * log(xx);
    t = bb * log(xc);
    if (aa + bb < MAXGAM && fabs(y) < MAXLOG && fabs(t) < MAXLOG) {
        t = pow(xc, bb);
        t *= pow(xx, aa);
        t /= aa;
        t *= w;
        t *= tgamma(aa + bb) / (tgamma(aa) * tgamma(bb));
    } else {
        y += t + lgamma(aa + bb) - lgamma(aa) - lgamma(bb);
        y += log(w / aa);
        t = y < MINLOG ? 0.0 : exp(y);
    }
    if (flag == 1) t = t <= MACHEP ? 1.0 - MACHEP : 1.0 - t;
    return t;
}

double incbcf(double a, double b, double x)
{
    double k1 = a, k2 = a + b, k3 = a, k4 = a + 1.0, k5 = 1.0, k6 = b - 1.0, k7 = k4, k8 = a + 2.0;
    double pkm2 = 0.0, qkm2 = 1.0, pkm1 = 1.0, qkm1 = 1.0, ans = 1.0, r = 1.0;
    double thresh = 3.0 * MACHEP;
    for (int n = 0; n < 300; n++) {
        double xk = -(x * k1 * k2) / (k3 * k4);
        double pk = pkm1 + pkm2 * xk;
        double qk = qkm1 + qkm2 * xk;
        pkm2 = pkm1; pkm1 = pk; qkm2 = qkm1; qkm1 = qk;
        xk = (x * k5 * k6) / (k7 * k8);
        pk = pkm1 + pkm2 * xk;
        qk = qkm1 + qkm2 * xk;
        pkm2 = pkm1; pkm1 = pk; qkm2 = qkm1; qkm1 = qk;
        if (qk != 0.0) r = pk / qk;
        double t;
        if (r != 0.0) { t = fabs((ans - r) / r); ans = r; }
        else t = 1.0;
        if (t < thresh) break;
        k1 += 1.0; k2 += 1.0; k3 += 2.0; k4 += 2.0; k5 += 1.0; k6 -= 1.0; k7 += 2.0; k8 += 2.0;
        if (fabs(qk) + fabs(pk) > BIG) { pkm2 *= BIGINV; pkm1 *= BIGINV; qkm2 *= BIGINV; qkm1 *= BIGINV; }
        if (fabs(qk) < BIGINV || fabs(pk) < BIGINV) { pkm2 *= BIG; pkm1 *= BIG; qkm2 *= BIG; qkm1 *= BIG; }
    }
    return ans;
}

double incbd(double a, double b, double x)
{
    double k1 = a, k2 = b - 1.0, k3 = a, k4 = a + 1.0, k5 = 1.0, k6 = a + b, k7 = a + 1.0, k8 = a + 2.0;
    double pkm2 = 0.0, qkm2 = 1.0, pkm1 = 1.0, qkm1 = 1.0;
    double z = x / (1.0 - x), ans = 1.0, r = 1.0;
    double thresh = 3.0 * MACHEP;
    for (int n = 0; n < 300; n++) {
        double xk = -(z * k1 * k2) / (k3 * k4);
        double pk = pkm1 + pkm2 * xk;
        double qk = qkm1 + qkm2 * xk;
        pkm2 = pkm1; pkm1 = pk; qkm2 = qkm1; qkm1 = qk;
        xk = (z * k5 * k6) / (k7 * k8);
        pk = pkm1 + pkm2 * xk;
        qk = qkm1 + qkm2 * xk;
        pkm2 = pkm1; pkm1 = pk; qkm2 = qkm1; qkm1 = qk;
        if (qk != 0.0) r = pk / qk;
        double t;
        if (r != 0.0) { t = fabs((ans - r) / r); ans = r; }
        else t = 1.0;
        if (t < thresh) break;
        k1 += 1.0; k2 -= 1.0; k3 += 2.0; k4 += 2.0; k5 += 1.0; k6 += 1.0; k7 += 2.0; k8 += 2.0;
        if (fabs(qk) + fabs(pk) > BIG) { pkm2 *= BIGINV; pkm1 *= BIGINV; qkm2 *= BIGINV; qkm1 *= BIGINV; }
        if (fabs(qk) < BIGINV || fabs(pk) < BIGINV) { pkm2 *= BIG; pkm1 *= BIG; qkm2 *= BIG; qkm1 *= BIG; }
    }
    return ans;
}

double pseries(double a, double b, double x)
{
    double ai = 1.0 / a;
    double u = (1.0 - b) * x;
    double v = u / (a + 1.0);
    double t1 = v;
    double t = u;
    double n = 2.0;
    double s = 0.0;
    double z = MACHEP * ai;
    while (fabs(v) > z) {
        u = (n - b) * x / n;
        t *= u;
        v = t / (a + n);
        s += v;
        n += 1.0;
    }
    s += t1;
    s += ai;
    u = a * log(x);
    if (a + b < MAXGAM && fabs(u) < MAXLOG) {
        t = tgamma(a + b) / (tgamma(a) * tgamma(b));
        s = s * t * pow(x, a);
    } else {
        t = lgamma(a + b) - lgamma(a) - lgamma(b) + u + log(s);
        s = t < MINLOG ? 0.0 : exp(t);
    }
    return s;
}
