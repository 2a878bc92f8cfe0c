/* Allocation failures, inversion, products, complex helpers, kernels and the incomplete beta
   function. Expected values are worked by hand or come from small oracles written here. */
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "numerics.h"

namespace {

float **make_float_matrix(int rows, int cols, std::initializer_list<float> values)
{
    float **a = float_matrix(rows, cols);
    auto it = values.begin();
    for (int i = 0; i < rows; i++)
        for (int j = 0; j < cols; j++) a[i][j] = *it++;
    return a;
}

/* I_x(a, b) for whole a, b: the binomial tail sum over j = a .. a+b-1, each term through
   logarithms so that large orders stay finite. */
double binomial_ibeta(int a, int b, double x)
{
    int n = a + b - 1;
    double sum = 0.0;
    for (int j = a; j <= n; j++)
        sum += exp(lgamma(n + 1.0) - lgamma(j + 1.0) - lgamma(n - j + 1.0) + j * log(x) +
                   (n - j) * log1p(-x));
    return sum;
}

/* I0 by its power series sum (x/2)^2k / (k!)^2. */
double series_i0(double x)
{
    double term = 1.0, sum = 1.0;
    for (int k = 1; k < 200; k++) {
        term *= (x / 2.0) * (x / 2.0) / ((double)k * k);
        sum += term;
    }
    return sum;
}

} // namespace

TEST(AllocError, VectorFailurePrintsTheFatalTextAndExits)
{
    EXPECT_EXIT(float_vector(-1), testing::ExitedWithCode(1),
                "Fatal Error:\nAllocation error in float_vector\\(\\)\\.\nProgram aborted\\.\n");
}

TEST(DInvertSquareMatrix, RandomMatrixTimesItsInverseIsTheIdentity)
{
    std::mt19937 rng{1};
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    const int n = 6;
    double **a = double_matrix(n, n), **orig = double_matrix(n, n);
    for (int i = 0; i < n; i++)
        for (int j = 0; j < n; j++) orig[i][j] = a[i][j] = u(rng);
    int error_row;
    ASSERT_EQ(dInvertSquareMatrix(n, a, &error_row), 0);
    for (int i = 0; i < n; i++)
        for (int j = 0; j < n; j++) {
            double s = 0.0, t = 0.0;
            for (int k = 0; k < n; k++) {
                s += orig[i][k] * a[k][j];
                t += a[i][k] * orig[k][j];
            }
            EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-12);
            EXPECT_NEAR(t, i == j ? 1.0 : 0.0, 1e-12);
        }
    free_double_matrix(a, n, n);
    free_double_matrix(orig, n, n);
}

TEST(RInvertSquareMatrix, CopiesThePartialFactorisationBackAfterAFailure)
{
    /* column 0 pivots on row 2 (value 4); multipliers 0.5 and 0.25 leave column 1 zero */
    float **a = make_float_matrix(3, 3, {1, 2, 1, 2, 4, 0, 4, 8, 2});
    int error_row;
    EXPECT_EQ(rInvertSquareMatrix(3, a, &error_row), 1);
    EXPECT_EQ(error_row, 1);
    float want[3][3] = {{4, 8, 2}, {0.5f, 0, -1}, {0.25f, 0, 0.5f}};
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) EXPECT_EQ(a[i][j], want[i][j]) << i << "," << j;
    free_float_matrix(a, 3, 3);
}

TEST(RInvertSquareMatrix, EqualPivotCandidatesKeepTheFirstRow)
{
    /* |1| and |-1| tie in column 0: row 0 stays the pivot, row 1 gets the multiplier -1 */
    float **a = make_float_matrix(3, 3, {1, 2, 3, -1, -2, 5, 0, 0, 0});
    int error_row;
    EXPECT_EQ(rInvertSquareMatrix(3, a, &error_row), 1);
    EXPECT_EQ(error_row, 1);
    float want[3][3] = {{1, 2, 3}, {-1, 0, 8}, {0, 0, 0}};
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) EXPECT_EQ(a[i][j], want[i][j]) << i << "," << j;
    free_float_matrix(a, 3, 3);
}

TEST(Invert3x3Matrix, ScaledMatrixInverseIsTheAdjugateOverTheDeterminant)
{
    /* Sarrus: 2*4*8 + 0 + 0 - 0 - 0 - 1*1*8 = 56 */
    float **m = make_float_matrix(3, 3, {2, 1, 0, 1, 4, 0, 0, 0, 8});
    float orig[3][3] = {{2, 1, 0}, {1, 4, 0}, {0, 0, 8}};
    ASSERT_EQ(invert_3x3_matrix(m), 0);
    EXPECT_FLOAT_EQ(m[0][0], 32.0f / 56.0f);
    EXPECT_FLOAT_EQ(m[0][1], -8.0f / 56.0f);
    EXPECT_FLOAT_EQ(m[2][2], 7.0f / 56.0f);
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) {
            float s = 0.0f;
            for (int k = 0; k < 3; k++) s += orig[i][k] * m[k][j];
            EXPECT_NEAR(s, i == j ? 1.0f : 0.0f, 1e-6f);
        }
    free_float_matrix(m, 3, 3);
}

TEST(MatrixProduct, TransposeFlagsSelectTheOperands)
{
    float **A = make_float_matrix(2, 3, {1, 2, 3, 4, 5, 6});
    float **B = make_float_matrix(3, 2, {1, 0, 0, 1, 1, 1});
    float **C = make_float_matrix(2, 2, {99, 99, 99, 99});
    Matrix_Product(C, 2, 2, A, 0, 3, B, 0);
    EXPECT_EQ(C[0][0], 4);  EXPECT_EQ(C[0][1], 5);
    EXPECT_EQ(C[1][0], 10); EXPECT_EQ(C[1][1], 11);
    /* A'A' style: (A transposed)(B transposed) is 3x3 */
    float **D = float_matrix(3, 3);
    Matrix_Product(D, 3, 3, A, 1, 2, B, 1);
    /* D[i][j] = sum_k A[k][i] * B[j][k] */
    EXPECT_EQ(D[0][0], 1 * 1 + 4 * 0);
    EXPECT_EQ(D[2][1], 3 * 0 + 6 * 1);
    EXPECT_EQ(D[1][2], 2 * 1 + 5 * 1);
    float x[3] = {1, -1, 2}, y[2] = {0, 0}, z[3];
    Matrix_Vector_Product(y, 2, A, 0, 3, x);
    EXPECT_EQ(y[0], 5); EXPECT_EQ(y[1], 11);
    float v[2] = {1, 1};
    Matrix_Vector_Product(z, 3, A, 1, 2, v);
    EXPECT_EQ(z[0], 5); EXPECT_EQ(z[1], 7); EXPECT_EQ(z[2], 9);
    EXPECT_EQ(Trace_of_Matrix(2, C), 15);
    free_float_matrix(A, 2, 3);
    free_float_matrix(B, 3, 2);
    free_float_matrix(C, 2, 2);
    free_float_matrix(D, 3, 3);
}

TEST(MatrixPseudoInverse, LeastSquaresInverseOfATallMatrix)
{
    /* A'A = [[2,1],[1,2]], its inverse [[2,-1],[-1,2]]/3, times A' */
    float **A = make_float_matrix(3, 2, {1, 0, 0, 1, 1, 1});
    float **P = float_matrix(2, 3);
    Matrix_PseudoInverse(A, 3, 2, P);
    float want[2][3] = {{2.0f / 3, -1.0f / 3, 1.0f / 3}, {-1.0f / 3, 2.0f / 3, 1.0f / 3}};
    for (int i = 0; i < 2; i++)
        for (int j = 0; j < 3; j++) EXPECT_NEAR(P[i][j], want[i][j], 1e-6) << i << "," << j;
    /* fitting y = 3 u + 1 v exactly through the pseudo-inverse recovers (3, 1) */
    float y[3] = {3, 1, 4}, coef[2];
    Matrix_Vector_Product(coef, 2, P, 0, 3, y);
    EXPECT_NEAR(coef[0], 3.0f, 1e-5);
    EXPECT_NEAR(coef[1], 1.0f, 1e-5);
    free_float_matrix(A, 3, 2);
    free_float_matrix(P, 2, 3);
}

TEST(ComputePhase, NegativeRealAxisWraps)
{
    /* 0 + 3.141592654 held in a float is 3.1415927, above the limit, so it wraps */
    EXPECT_EQ(compute_phase({-1, 0}), -3.1415925f);
}

TEST(ComputePhase, HalfTurnIsAddedInDoubleAndRoundedOnce)
{
    /* atan(-4) = -1.32581766366803; + 3.141592654 = 1.81577499033197, whose nearest floats are
       1.81577492 (7.3e-8 below) and 1.81577504 (4.6e-8 above). Rounding the arctangent to the
       float -1.32581770 first would give 1.81577495 and so 1.81577492. */
    EXPECT_EQ(compute_phase({-1, 4}), 1.81577504f);
    /* atan(1) + 3.141592654 = 3.92699082 held as 3.9269907, wrapped to -3 pi / 4 */
    EXPECT_EQ(compute_phase({-1, -1}), -2.35619450f);
    EXPECT_EQ(compute_phase({2, 2}), 0.78539819f);
}

TEST(LanczosFilter, OneAtZeroAndZeroAtAndBeyondTheSupport)
{
    EXPECT_EQ(Lanczos_filter(3, 0.0f), 1.0f);
    EXPECT_EQ(Lanczos_filter(3, 0.000009f), 1.0f);
    EXPECT_NEAR(Lanczos_filter(3, 3.0f), 0.0f, 1e-6);
    EXPECT_NEAR(Lanczos_filter(3, 1.0f), 0.0f, 1e-6);
    EXPECT_EQ(Lanczos_filter(3, 3.5f), 0.0f);
    EXPECT_EQ(Lanczos_filter(3, -3.01f), 0.0f);
    /* 3 sin(pi/2) sin(pi/6) / (pi^2/4) = 6 / pi^2 */
    EXPECT_NEAR(Lanczos_filter(3, 0.5f), 6.0 / (M_PI * M_PI), 1e-6);
    EXPECT_FLOAT_EQ(Lanczos_filter(3, -0.5f), Lanczos_filter(3, 0.5f));
}

TEST(Bessi0, AgreesWithThePowerSeriesOnBothSidesOfTheSplit)
{
    for (double x : {0.0, 0.5, 1.0, 2.5, 3.7, 3.75, 3.8, 6.0, 12.0, -2.0, -8.0})
        EXPECT_NEAR(bessi0(x) / series_i0(x), 1.0, 4e-7) << "x = " << x;
}

TEST(KaiserBessel, ZeroOutsideHalfTheWidthAndScaledI0Inside)
{
    EXPECT_EQ(Kaiser_Bessel(2.01, 4.0, 3.0), 0.0f);
    EXPECT_EQ(Kaiser_Bessel(-2.5, 4.0, 3.0), 0.0f);
    EXPECT_NEAR(Kaiser_Bessel(0.0, 4.0, 3.0), series_i0(3.0) / 4.0, 1e-6);
    /* s = 1 - 4 * 1 / 16 = 0.75 */
    EXPECT_NEAR(Kaiser_Bessel(1.0, 4.0, 3.0), series_i0(3.0 * sqrt(0.75)) / 4.0, 1e-6);
    EXPECT_NEAR(Kaiser_Bessel(2.0, 4.0, 3.0), 0.25, 1e-6); /* edge: I0(0) / width */
}

TEST(SwapX, EvenLengthExchangesHalvesAndIgnoresTheShift)
{
    FCOMPLEX d[4] = {{0, 0}, {1, 10}, {2, 20}, {3, 30}};
    swap_x(d, 4, 7);
    float want[4] = {2, 3, 0, 1};
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(d[i].real, want[i]);
        EXPECT_EQ(d[i].imag, 10 * want[i]);
    }
}

TEST(IsPowerOf2, OneIsNotAPowerHere)
{
    int lo = -1, hi = -1;
    EXPECT_EQ(is_power_of_2(1, &lo, &hi), 0);
    EXPECT_EQ(lo, 1);
    EXPECT_EQ(hi, 2);
}

TEST(Ibeta, EveryBranchAgreesWithTheBinomialSum)
{
    struct { int a, b; double x; const char *branch; } cases[] = {
        {2, 3, 0.3, "power series, b x < 1"},
        {3, 4, 0.25, "power series, b x exactly 1"},
        {2, 1, 0.95, "power series, x exactly 0.95"},
        {2, 1, 0.951, "exchanged power series just above 0.95"},
        {3, 10, 0.9, "exchanged power series"},
        {10, 12, 0.3, "first continued fraction"},
        {10, 12, 0.452, "second continued fraction"},
        {10, 12, 10.0 / 22.0, "at a/(a+b), not exchanged"},
        {10, 12, 10.0 / 22.0 + 1e-9, "just above a/(a+b), exchanged"},
        {12, 10, 0.7, "exchanged continued fraction"},
        {90, 110, 0.45, "a+b beyond the gamma limit: logarithms"},
        {150, 60, 0.74, "logarithm path, exchanged"},
    };
    for (auto &c : cases)
        EXPECT_NEAR(ibeta(c.a, c.b, c.x), binomial_ibeta(c.a, c.b, c.x), 1e-12) << c.branch;
}
