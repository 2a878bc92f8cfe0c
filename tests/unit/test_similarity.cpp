// Mutual information and normalized correlation of individual against template_, and the
// volume averages over the template's nonzero voxels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "globals.h"
#include "similarity.h"
#include "test_support.h"

namespace {

// A 1-D grid of template and individual values (the grid walk does not care about shape).
void set_pair(const std::vector<float> &tpl, const std::vector<float> &ind)
{
    int n = (int)tpl.size();
    make_stack(&template_, n, 1, 1, 1);
    make_stack(&individual, n, 1, 1, 1);
    for (int i = 0; i < n; i++) {
        template_.SpaceTime.fData[i] = tpl[i];
        individual.SpaceTime.fData[i] = ind[i];
    }
    iTime_Template = 0;
    graph = {};
}

}  // namespace

TEST(CalculateVolumeAverages, ReadsTheSelectedTimePoints)
{
    make_stack(&template_, 2, 1, 1, 2);
    make_stack(&individual, 2, 1, 1, 3);
    float t[4] = {0, 0, 1, 3}, d[6] = {9, 9, 9, 9, 4, 8};
    for (int i = 0; i < 4; i++) template_.SpaceTime.fData[i] = t[i];
    for (int i = 0; i < 6; i++) individual.SpaceTime.fData[i] = d[i];
    iTime_Template = 1;
    graph = {};
    graph.iTime = 2;
    float ai, at;
    calculate_volume_averages(&ai, &at);
    EXPECT_FLOAT_EQ(ai, 6.0f);
    EXPECT_FLOAT_EQ(at, 2.0f);
}

TEST(CostFunction, TheLargestScaledValueLandsInBin49)
{
    // averages 49.75 and 2.5: individual (0, 0, 1.99, 2.01), template (0.4, 0.8, 1.2, 1.6);
    // the range is 0..2.01, so the individual's bins are 0, 0, 49 (49.5) and 49 (exactly 50).
    // Every template bin differs, so MI = H(I) = ln 2. A 50th bin would give 1.5 ln 2.
    set_pair({1, 2, 3, 4, 0, 0}, {0, 0, 99, 100, 500, -3});
    EXPECT_NEAR(cost_function(0), log(2.0), 1e-6);
}

TEST(CostFunction, IdenticalVolumesGiveTheEntropyOfTheirHistogram)
{
    // scaled (0.4, 0.8, 1.2, 1.6): bins 0, 16, 33, 49, all different: MI = ln 4
    set_pair({1, 2, 3, 4}, {1, 2, 3, 4});
    EXPECT_NEAR(cost_function(0), log(4.0), 1e-6);
    // two voxels share a bin: H = -(1/2 ln 1/2 + 2 * 1/4 ln 1/4) = 1.5 ln 2
    set_pair({1, 1, 3, 4}, {1, 1, 3, 4});
    EXPECT_NEAR(cost_function(0), 1.5 * log(2.0), 1e-6);
}

TEST(CostFunction, ZeroIndividualAverageScalesByOne)
{
    // individual average 0 -> divided by 1: (-1, 1, -2, 2); template (0.4 .. 1.6); range -2..2
    // gives individual bins 12, 37, 0, 49 and template bins 30, 35, 40, 45: all pairs distinct
    // and every individual bin single, so MI = ln 4. Against that, the individual bins of
    // a template of (1, 1, 2, 2) are paired two by two: MI = ln 2.
    set_pair({1, 2, 3, 4}, {-1, 1, -2, 2});
    EXPECT_NEAR(cost_function(0), log(4.0), 1e-6);
    set_pair({1, 1, 2, 2}, {-1, 1, -2, 2});
    EXPECT_NEAR(cost_function(0), log(2.0), 1e-6);
}

TEST(CostFunction, CorrelationIsNotCentredAndIsDividedByTheCount)
{
    // sum IT = 4, sum I^2 = sum T^2 = 5: (4 / sqrt 5) / sqrt 5 / 2 = 0.4
    set_pair({2, 1, 0}, {1, 2, 6});
    EXPECT_NEAR(cost_function(1), 0.4f, 1e-6);
    EXPECT_NEAR(cost_function(7), 0.4f, 1e-6);  // any nonzero code selects the correlation
}

TEST(CostFunction, OneThreadAndSeveralGiveBitIdenticalInformation)
{
    make_stack(&template_, 12, 9, 11, 1);
    make_stack(&individual, 12, 9, 11, 1);
    std::mt19937 rng{7};
    std::uniform_real_distribution<float> u(-3.0f, 40.0f);
    for (int i = 0; i < template_.n3d; i++) {
        float t = u(rng);
        template_.SpaceTime.fData[i] = t < 0.0f ? 0.0f : t;
        individual.SpaceTime.fData[i] = 0.5f * t + u(rng);
    }
    iTime_Template = 0;
    graph = {};
    setenv("ALIGN_THREADS", "1", 1);
    float one = cost_function(0);
    for (const char *n : {"2", "3", "7"}) {
        setenv("ALIGN_THREADS", n, 1);
        float several = cost_function(0);
        EXPECT_EQ(memcmp(&one, &several, sizeof one), 0) << n << " threads: " << several << " vs " << one;
    }
    unsetenv("ALIGN_THREADS");
    EXPECT_GT(one, 0.1f);
}
