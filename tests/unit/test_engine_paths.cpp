// Every vector level and thread count of the resampling and the similarity against the reference
// engine, on synthetic volumes with the awkward values the brain pair lacks (negative, NaN,
// huge, zero), and the listed trials of the affine search against full resamplings.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "globals.h"
#include "reference_engine.h"
#include "resample.h"
#include "similarity.h"
#include "simd.h"
#include "test_support.h"
#include "trial_volumes.h"
#include "volume.h"

namespace {

// Template (n^3 of voxel size rt) with a zero border and zero holes, individual (on^3 of voxel
// size ro) of smooth values plus noise, maps on the template grid, parameters off identity.
void make_scene(int n, float rt, int on, float ro, unsigned seed)
{
    make_stack(&template_, n, n, n, 1, rt, rt, rt);
    make_stack(&individual, n, n, n, 1, rt, rt, rt);
    make_stack(&original, on, on, on, 1, ro, ro, ro);
    make_stack(&distort_x, n, n, n, 2, rt, rt, rt);
    make_stack(&distort_y, n, n, n, 2, rt, rt, rt);
    make_stack(&distort_z, n, n, n, 2, rt, rt, rt);
    std::mt19937 rng{seed};
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (int z = 0; z < n; z++)
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++) {
                int i = x + n * (y + n * z);
                bool border = x < 2 || y < 2 || z < 2 || x >= n - 2 || y >= n - 2 || z >= n - 2;
                template_.SpaceTime.fData[i] = border || u(rng) < 0.1f ? 0.0f : 1.0f + 10.0f * u(rng);
            }
    for (int i = 0; i < original.n3d; i++) {
        int x = i % on, y = (i / on) % on;
        original.SpaceTime.fData[i] = 50.0f + 40.0f * sinf(0.3f * x) * cosf(0.2f * y) + 5.0f * u(rng);
    }
    Alignment = {};
    graph = {};
    iTime_Template = 0;
    Alignment.RigidBody = 1;
    const float v[12] = {0.6f, -1.3f, 0.9f, 6.0f, -3.0f, 4.0f, 1.04f, 0.97f, 1.02f, 0.02f, -0.01f, 0.0f};
    for (int j = 0; j < 12; j++) Alignment.value[j] = v[j];
    Alignment.dimension = template_.dim;
    Alignment.resolution = template_.resolution;
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original);
}

std::vector<const char *> level_names()
{
    std::vector<const char *> l = {"scalar"};
    if (simd_level_supported() >= SIMD_AVX512) l.push_back("avx512");
    return l;
}

bool same_bits(float a, float b) { return memcmp(&a, &b, sizeof a) == 0; }

int differing_voxels(const std::vector<float> &want)
{
    int n = 0;
    for (size_t i = 0; i < want.size(); i++) n += !same_bits(want[i], individual.SpaceTime.fData[i]);
    return n;
}

// The reference resampling and both similarities, then every level with 1 and 3 threads from
// the same target content.
void expect_paths_equal(const std::string &what, int all_voxels, int accurate)
{
    std::vector<float> start(individual.SpaceTime.fData, individual.SpaceTime.fData + individual.n3d);
    reference_transform_coordinates(all_voxels, accurate);
    std::vector<float> want(individual.SpaceTime.fData, individual.SpaceTime.fData + individual.n3d);
    float cost[2] = {reference_cost_function(0), reference_cost_function(1)};
    for (const char *level : level_names())
        for (const char *threads : {"1", "3"}) {
            setenv("ALIGN_SIMD", level, 1);
            setenv("ALIGN_THREADS", threads, 1);
            memcpy(individual.SpaceTime.fData, start.data(), sizeof(float) * start.size());
            transform_coordinates(all_voxels, accurate);
            EXPECT_EQ(differing_voxels(want), 0) << what << ", " << level << ", threads " << threads;
            for (int icost = 0; icost < 2; icost++) {
                float got = cost_function(icost);
                EXPECT_TRUE(same_bits(got, cost[icost]))
                    << what << ", " << level << ", cost " << icost << ": " << got << " vs " << cost[icost];
            }
        }
    unsetenv("ALIGN_SIMD");
    unsetenv("ALIGN_THREADS");
}

}  // namespace

TEST(EnginePaths, NegativeNaNHugeAndZeroValuesGiveTheReferenceVoxelsAndSimilarities)
{
    make_scene(24, 1.0f, 24, 1.0f, 1);
    std::mt19937 rng{2};
    std::uniform_int_distribution<int> at(0, original.n3d - 1);
    for (int k = 0; k < 60; k++) original.SpaceTime.fData[at(rng)] = -30.0f;   // negative samples
    for (int k = 0; k < 60; k++) original.SpaceTime.fData[at(rng)] = 0.0f;     // zero samples and centres
    for (int k = 0; k < 3; k++) original.SpaceTime.fData[at(rng)] = NAN;       // undefined samples
    original.SpaceTime.fData[at(rng)] = 3.0e37f;                              // a huge sample
    template_.SpaceTime.fData[10 + 24 * (10 + 24 * 10)] = NAN;                 // a NaN template voxel takes part
    for (int accurate = 0; accurate < 2; accurate++)
        expect_paths_equal(accurate ? "awkward values, accurate" : "awkward values", 1, accurate);
}

TEST(EnginePaths, MapsWrapAroundBoxesAndOtherVoxelRatiosGiveTheReferenceVoxels)
{
    make_scene(20, 1.0f, 20, 1.0f, 3);
    std::mt19937 rng{4};
    std::uniform_real_distribution<float> u(-1.5f, 1.5f);
    for (data_stack *m : {&distort_x, &distort_y, &distort_z})
        for (int i = 0; i < m->n3d; i++) m->SpaceTime.fData[i] = u(rng);
    expect_paths_equal("maps", 1, 0);
    Alignment.WrapAround = {1, 0, 1};
    Alignment.value[0] = 7.0f;
    Alignment.value[2] = -6.0f;
    expect_paths_equal("maps, wrap x and z", 1, 0);
    expect_paths_equal("maps, wrap x and z, accurate", 1, 1);
    IPOINT3D start[2] = {{3, 2, 4}, {0, 0, 0}}, end[2] = {{17, 9, 15}, {20, 20, 20}};
    AlignNL = {};
    AlignNL.Index3DStart = start;
    AlignNL.Index3DEnd = end;
    AlignNL.iBasis = 0;
    expect_paths_equal("box", 0, 0);
    AlignNL = {};  // the boxes above live on this stack

    make_scene(16, 1.6f, 24, 1.0f, 5);  // ratio 1.6: half-width 1, wider Gaussian
    expect_paths_equal("ratio 1.6", 1, 0);
    make_scene(12, 2.5f, 30, 1.0f, 6);  // ratio 2.5: half-width 2, six samples an axis
    expect_paths_equal("ratio 2.5", 1, 0);
    expect_paths_equal("ratio 2.5, accurate", 1, 1);
    make_scene(24, 1.0f, 12, 2.0f, 7);  // ratio 0.5: a narrow Gaussian
    expect_paths_equal("ratio 0.5", 1, 0);
}

TEST(EnginePaths, TheVectorLevelSumsMostVoxelsItself)
{
    if (simd_level_supported() < SIMD_AVX512) GTEST_SKIP() << "no AVX-512 on this processor";
    // a brain-like template: voxels within 13 of the centre, well inside the individual
    make_scene(40, 1.0f, 40, 1.0f, 8);
    for (int z = 0; z < 40; z++)
        for (int y = 0; y < 40; y++)
            for (int x = 0; x < 40; x++)
                if ((x - 19.5f) * (x - 19.5f) + (y - 19.5f) * (y - 19.5f) + (z - 19.5f) * (z - 19.5f) > 169.0f)
                    template_.SpaceTime.fData[x + 40 * (y + 40 * z)] = 0.0f;
    long long v0, p0, v1, p1;
    resample_path_counts(&v0, &p0);
    transform_coordinates(1, 0);
    resample_path_counts(&v1, &p1);
    EXPECT_GT(v1 - v0, 100 * (p1 - p0));
    EXPECT_GT(v1 - v0, 8000);
}

TEST(ListedTrials, EqualFullResamplingsAndSimilaritiesAndKeepTheLastValue)
{
    make_scene(24, 1.0f, 24, 1.0f, 9);
    template_.SpaceTime.fData[9 + 24 * (12 + 24 * 12)] = NAN;
    for (int maps = 0; maps < 2; maps++) {
        if (maps)
            for (int i = 0; i < distort_y.n3d; i++) distort_y.SpaceTime.fData[i] = 0.7f * sinf(0.1f * i);
        for (const char *level : level_names()) {
            setenv("ALIGN_SIMD", level, 1);
            transform_coordinates(1, 0);
            trial_volumes *t = begin_trial_volumes();
            // the similarity of the individual as it stands, before any listed resampling
            EXPECT_TRUE(same_bits(measure_listed(t, 0), reference_cost_function(0)));
            for (int k = 0; k < 3; k++) {
                Alignment.value[0] += 0.37f;
                Alignment.value[4] -= 1.1f;
                resample_listed(t);
                float mi = measure_listed(t, 0), nc = measure_listed(t, 1);
                std::vector<float> got(individual.SpaceTime.fData, individual.SpaceTime.fData + individual.n3d);
                reference_transform_coordinates(1, 0);
                EXPECT_EQ(differing_voxels(got), 0) << level << ", maps " << maps << ", trial " << k;
                EXPECT_TRUE(same_bits(mi, reference_cost_function(0))) << level << " " << k;
                EXPECT_TRUE(same_bits(nc, reference_cost_function(1))) << level << " " << k;
                // asked again before the next resampling: the same value, however individual changed
                individual.SpaceTime.fData[10 + 24 * (10 + 24 * 10)] += 1.0f;
                EXPECT_TRUE(same_bits(measure_listed(t, 0), mi));
            }
            end_trial_volumes(t);
        }
    }
    unsetenv("ALIGN_SIMD");
}
