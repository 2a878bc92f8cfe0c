// Float results decided from faster double arithmetic: the quotient of sums taken in another
// order, and the Gaussian weights of the vector exponential, against the plain arithmetic.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "exact_round.h"
#include "numerics.h"
#include "simd.h"

namespace {

bool same_bits(float a, float b) { return memcmp(&a, &b, sizeof a) == 0; }

// The float just above f (f positive).
float next_up(float f) { return nextafterf(f, INFINITY); }

}  // namespace

TEST(FloatQuotientSettled, EveryDecidedQuotientIsThatOfThePlainOrder)
{
    // 64 terms value*weight as the resampling makes them; the plain order is the sequential
    // one, the other the reverse; decided quotients of the reverse sums must be the plain float.
    std::mt19937 rng{3};
    std::uniform_real_distribution<float> value(0.0f, 300.0f), expo(-30.0f, 0.0f);
    int decided = 0, trials = 20000;
    for (int k = 0; k < trials; k++) {
        float t[64], w[64];
        for (int i = 0; i < 64; i++) {
            w[i] = expf(expo(rng));
            t[i] = value(rng) * w[i];
        }
        double S = 0, W = 0, S2 = 0, W2 = 0;
        for (int i = 0; i < 64; i++) {
            S += (double)t[i];
            W += (double)w[i];
        }
        for (int i = 63; i >= 0; i--) {
            S2 += (double)t[i];
            W2 += (double)w[i];
        }
        float f;
        if (float_quotient_settled(S2, S2, W2, W2, 64, &f)) {
            decided++;
            ASSERT_TRUE(same_bits(f, (float)(S / W))) << k;
        }
    }
    EXPECT_GT(decided, trials * 999 / 1000);
}

TEST(FloatQuotientSettled, AQuotientOnOrNearAFloatMidpointIsLeftToThePlainArithmetic)
{
    float f;
    // 1 + 2^-24 lies halfway between the floats 1 and 1 + 2^-23
    double mid = 1.0 + 0x1p-24;
    EXPECT_EQ(float_quotient_settled(mid, mid, 1.0, 1.0, 64, &f), 0);
    EXPECT_EQ(float_quotient_settled(mid + 1e-14, mid, 1.0, 1.0, 64, &f), 0);  // within the bound
    ASSERT_EQ(float_quotient_settled(mid + 1e-9, mid, 1.0, 1.0, 64, &f), 1);   // well above it
    EXPECT_EQ(f, next_up(1.0f));
    ASSERT_EQ(float_quotient_settled(mid - 1e-9, mid, 1.0, 1.0, 64, &f), 1);
    EXPECT_EQ(f, 1.0f);
    // a larger count of terms widens the interval
    EXPECT_EQ(float_quotient_settled(mid + 1e-12, mid, 1.0, 1.0, 1, &f), 1);
    EXPECT_EQ(float_quotient_settled(mid + 1e-12, mid, 1.0, 1.0, 100000, &f), 0);
}

TEST(FloatQuotientSettled, UndefinedInfiniteAndCancellingSumsAreLeftToThePlainArithmetic)
{
    float f;
    EXPECT_EQ(float_quotient_settled(NAN, 1.0, 1.0, 1.0, 64, &f), 0);
    EXPECT_EQ(float_quotient_settled(1.0, NAN, 1.0, 1.0, 64, &f), 0);
    EXPECT_EQ(float_quotient_settled(1.0, INFINITY, 1.0, 1.0, 64, &f), 0);
    EXPECT_EQ(float_quotient_settled(1.0, 1.0, 1.0, INFINITY, 64, &f), 0);
    // weights of both signs that cancel: the sign of W itself is not known
    EXPECT_EQ(float_quotient_settled(1.0, 1.0, 1e-16, 1.0, 64, &f), 0);
    // values that cancel likewise
    EXPECT_EQ(float_quotient_settled(1e-16, 1.0, 1.0, 1.0, 64, &f), 0);
    // a quotient beyond the float range
    EXPECT_EQ(float_quotient_settled(1e300, 1e300, 1e-10, 1e-10, 64, &f), 0);
}

TEST(FloatQuotientSettled, AllZeroTermsGiveTheSignedZeroOfThePlainQuotient)
{
    float f;
    ASSERT_EQ(float_quotient_settled(0.0, 0.0, 2.0, 2.0, 64, &f), 1);
    EXPECT_TRUE(same_bits(f, 0.0f));
    ASSERT_EQ(float_quotient_settled(0.0, 0.0, -2.0, 2.0, 64, &f), 1);
    EXPECT_TRUE(same_bits(f, -0.0f));
}

TEST(ExpTwoSixteenths, IsTheTableOfTwoToTheSixteenths)
{
    const double *t = exp2_sixteenths();
    for (int j = 0; j < 16; j++) EXPECT_NEAR(t[j], pow(2.0, j / 16.0), 2e-16 * t[j]) << j;
    EXPECT_EQ(t[0], 1.0);
    EXPECT_EQ(t[8] * t[8], 2.0000000000000004);  // sqrt 2 rounded up, squared
}

namespace {

// The distance, in ulps of the double, of libm's exp at Gauss's argument from the nearest float
// rounding midpoint: where a faster exponential could round differently.
long midpoint_distance(float d, float sigma)
{
    double e = exp((double)(d * d + 0.0f * 0.0f) * (-0.5) / sigma / sigma);
    uint64_t bits;
    memcpy(&bits, &e, sizeof bits);
    return labs((long)(bits & 0x1FFFFFFF) - 0x10000000L);
}

void expect_weights_of_libm(const std::vector<float> &d, float sigma, int *fallbacks)
{
    std::vector<float> got(d.size());
    gauss_weights_batch(d.data(), (int)d.size(), sigma, got.data(), fallbacks);
    for (size_t i = 0; i < d.size(); i++)
        ASSERT_TRUE(same_bits(got[i], Gauss(d[i], 0.0f, sigma))) << "d " << d[i] << " sigma " << sigma;
}

}  // namespace

TEST(GaussWeightsBatch, EqualsNumericsGaussForTheKernelWidthsOfTheResampling)
{
    // sigma = 0.425 r for template/individual voxel ratios r of 0.5 .. 4; distances up to the
    // kernel's reach floor(v) - w .. ceil(v) + w
    std::mt19937 rng{5};
    for (float r : {0.5f, 1.0f, 1.5f, 2.0f, 4.0f}) {
        float sigma = (float)(0.425 * r), reach = (float)(std::max(1, (int)floorf(r)) + 1);
        std::uniform_real_distribution<float> u(-reach, reach);
        std::vector<float> d(200000);
        for (float &x : d) x = u(rng);
        d[0] = 0.0f;
        d[1] = -0.0f;
        d[2] = reach;
        int fallbacks = 0;
        expect_weights_of_libm(d, sigma, &fallbacks);
        if (simd_level() >= SIMD_AVX512) {
            EXPECT_LT(fallbacks, 200) << "sigma " << sigma;
        }
    }
}

TEST(GaussWeightsBatch, DistancesWhoseExponentialSitsNearAFloatBoundaryGoToLibm)
{
    // distances whose libm exponential lies within 2^11 ulps of a float midpoint: the vector
    // exponential, within a few hundred ulps of libm's, is then within its 2^12-ulp margin and
    // must not decide them
    std::mt19937 rng{8};
    std::uniform_real_distribution<float> u(-2.0f, 2.0f);
    const float sigma = 0.425f;
    std::vector<float> close;
    while (close.size() < 32) {
        float d = u(rng);
        if (midpoint_distance(d, sigma) < 2048) close.push_back(d);
    }
    int fallbacks = 0;
    expect_weights_of_libm(close, sigma, &fallbacks);
    if (simd_level() >= SIMD_AVX512) {
        EXPECT_EQ(fallbacks, 32);
    }
}

TEST(GaussWeightsBatch, ArgumentsBelowTheFloatRangeAndNaNGoToLibm)
{
    // sigma 0.1: d = 1.5 gives exp(-112.5), below the smallest normal float
    std::vector<float> d = {1.5f, 1.4f, NAN, -NAN, 0.5f, 0.25f, 0.75f, 1.0f,
                            1.3f, 1.2f, 0.1f, 0.2f, 0.3f, 0.4f, 0.6f, 0.7f};
    int fallbacks = 0;
    std::vector<float> got(d.size());
    gauss_weights_batch(d.data(), (int)d.size(), 0.1f, got.data(), &fallbacks);
    for (size_t i = 0; i < d.size(); i++) {
        float want = Gauss(d[i], 0.0f, 0.1f);
        if (std::isnan(want)) {
            EXPECT_TRUE(std::isnan(got[i]));
        } else {
            EXPECT_TRUE(same_bits(got[i], want)) << d[i];
        }
    }
    if (simd_level() >= SIMD_AVX512) {
        EXPECT_GE(fallbacks, 4);
    }
}
