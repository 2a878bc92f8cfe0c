/* The numbers of the graph window against hand-computed values on tiny stacks. */
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "globals.h"
#include "graph_data.h"
#include "test_support.h"

/* Displayed stack nx*ny*nz*nt with value f(x, y, z, t); no region. */
template <class F>
static void displayed_stack(int nx, int ny, int nz, int nt, F f)
{
    set_displayed_stack_for_test(nx, ny, nz, nt);
    for (int t = 0; t < nt; t++)
        for (int z = 0; z < nz; z++)
            for (int y = 0; y < ny; y++)
                for (int x = 0; x < nx; x++)
                    image_stack.SpaceTime.fData[((t * nz + z) * ny + y) * nx + x] = f(x, y, z, t);
    mosaic.iTime = 0;
    ovl_root.npts = 0;
}

/* Region of weight 1 on the given voxels of the displayed stack. */
static std::vector<float> region_weights;
static void region(std::initializer_list<IPOINT3D> voxels)
{
    data_stack *s = mosaic.stack;
    region_weights.assign((size_t)s->n3d, 0.0f);
    for (IPOINT3D v : voxels) region_weights[(size_t)((v.z * s->dim.y + v.y) * s->dim.x + v.x)] = 1.0f;
    overlay_map.weight = region_weights.data();
    ovl_root.npts = (int)voxels.size();
}

static std::vector<float> y_values() { return std::vector<float>(graph.yVector, graph.yVector + graph.npoints); }
static std::vector<float> sd_values() { return std::vector<float>(graph.yVector1, graph.yVector1 + graph.npoints); }

TEST(FillGraphValues, ProfilesFollowEachAxisThroughTheVoxelAtTheDisplayedTimePoint)
{
    displayed_stack(4, 3, 2, 2, [](int x, int y, int z, int t) { return (float)(x + 10 * y + 100 * z + 1000 * t); });
    mosaic.iTime = 1;
    graph.type = 0;
    fill_graph_values({1, 2, 1});
    EXPECT_EQ(y_values(), (std::vector<float>{1120, 1121, 1122, 1123}));
    EXPECT_EQ(sd_values(), (std::vector<float>{0, 0, 0, 0}));
    EXPECT_FLOAT_EQ(graph.xmin, -0.5f);
    EXPECT_FLOAT_EQ(graph.xmax, 3.5f);
    graph.type = 1;
    fill_graph_values({3, 0, 1});
    EXPECT_EQ(y_values(), (std::vector<float>{1103, 1113, 1123}));
    graph.type = 2;
    fill_graph_values({0, 1, 0});
    EXPECT_EQ(y_values(), (std::vector<float>{1010, 1110}));
    /* A voxel outside the stack plots nothing. */
    fill_graph_values({0, 3, 0});
    EXPECT_EQ(graph.npoints, 0);
}

TEST(FillGraphValues, ProfileWithARegionAveragesTheRegionSlabAtEachPoint)
{
    displayed_stack(4, 3, 2, 1, [](int x, int y, int z, int) { return (float)(x + 10 * y + 100 * z); });
    region({{0, 0, 0}, {0, 1, 0}, {1, 1, 1}});
    graph.type = 0;
    fill_graph_values({3, 2, 1}); /* the voxel does not matter with a region */
    /* x = 0: values 0 and 10, mean 5, sd sqrt((25 + 25) / 1); x = 1: 111 alone; no region at 2, 3. */
    EXPECT_EQ(y_values(), (std::vector<float>{5, 111, 0, 0}));
    EXPECT_NEAR(graph.yVector1[0], std::sqrt(50.0), 1e-5);
    EXPECT_EQ(graph.yVector1[1], 0.0f);
}

TEST(FillGraphValues, TimeCourseOfAVoxelAndOfARegionWithItsStandardDeviation)
{
    /* (1,0,0) rises and falls 0 2 4 2 0; (0,1,0) grows 10 t; the rest is 100. */
    const float tri[5] = {0, 2, 4, 2, 0};
    displayed_stack(2, 2, 1, 5, [&](int x, int y, int, int t) {
        if (x == 1 && y == 0) return tri[t];
        if (x == 0 && y == 1) return 10.0f * t;
        return 100.0f;
    });
    graph.type = 3;
    fill_graph_values({1, 0, 0});
    EXPECT_EQ(graph.npoints, 5);
    EXPECT_EQ(y_values(), (std::vector<float>{0, 2, 4, 2, 0}));
    EXPECT_FLOAT_EQ(graph.xmax, 4.5f);
    region({{1, 0, 0}, {0, 1, 0}});
    fill_graph_values({1, 0, 0});
    /* means (tri + 10t) / 2; sd of two values a, b is |a - b| / sqrt 2 */
    EXPECT_EQ(y_values(), (std::vector<float>{0, 6, 12, 16, 20}));
    const float diff[5] = {0, 8, 16, 28, 40};
    for (int t = 0; t < 5; t++) EXPECT_NEAR(graph.yVector1[t], diff[t] / std::sqrt(2.0), 1e-5) << t;
    float lo, hi;
    graph_data_range(&lo, &hi);
    EXPECT_NEAR(lo, 20 - 40 / std::sqrt(2.0), 1e-4); /* the error bars count */
    EXPECT_NEAR(hi, 20 + 40 / std::sqrt(2.0), 1e-4);
}

TEST(FillGraphValues, HistogramCountsTheGreyWindowWithBothEndsAndTheRegionOnly)
{
    const float v[6] = {0.0f, 0.5f, 63.9f, 64.0f, 70.0f, -1.0f};
    displayed_stack(6, 1, 1, 1, [&](int x, int, int, int) { return v[x]; });
    image_scale_min = 0.0f;
    image_scale_max = 64.0f; /* one unit per bin */
    graph.type = 4;
    fill_graph_values({0, 0, 0});
    ASSERT_EQ(graph.npoints, GRAPH_HISTOGRAM_BINS);
    EXPECT_EQ(graph.yVector[0], 2.0f);
    EXPECT_EQ(graph.yVector[GRAPH_HISTOGRAM_BINS - 1], 2.0f);
    float total = 0.0f;
    for (int b = 0; b < graph.npoints; b++) total += graph.yVector[b];
    EXPECT_EQ(total, 4.0f); /* 70 and -1 lie outside */
    EXPECT_FLOAT_EQ(graph.xVector[0], 0.5f);
    EXPECT_FLOAT_EQ(graph.xmax, 64.0f);
    mosaic.icross = {2, 0, 0};
    EXPECT_EQ(graph_current_point(), 63);
    mosaic.icross = {4, 0, 0};
    EXPECT_EQ(graph_current_point(), -1);
    float lo, hi;
    graph_data_range(&lo, &hi);
    EXPECT_EQ(lo, 0.0f);
    EXPECT_EQ(hi, 2.0f);
    region({{1, 0, 0}, {3, 0, 0}, {4, 0, 0}});
    fill_graph_values({0, 0, 0});
    EXPECT_EQ(graph.yVector[0], 1.0f);
    EXPECT_EQ(graph.yVector[GRAPH_HISTOGRAM_BINS - 1], 1.0f);
}

TEST(GraphDataRange, HistogramIsScaledToTheLargestBinOtherThanTheBackgrounds)
{
    /* 6 background zeros, 3 voxels at 10 and 1 at 20 */
    const float v[10] = {0, 0, 0, 10, 0, 20, 0, 10, 0, 10};
    displayed_stack(10, 1, 1, 1, [&](int x, int, int, int) { return v[x]; });
    graph.type = 4;
    float lo, hi;
    /* one unit per bin: zero falls into bin 0, then into bin 32 */
    const struct { float low, high; int zero_bin; } windows[] = {{0.0f, 64.0f, 0}, {-32.0f, 32.0f, 32}};
    for (const auto &w : windows) {
        image_scale_min = w.low;
        image_scale_max = w.high;
        fill_graph_values({0, 0, 0});
        ASSERT_EQ(graph.yVector[w.zero_bin], 6.0f);
        graph_data_range(&lo, &hi);
        EXPECT_EQ(lo, 0.0f);
        EXPECT_EQ(hi, 3.0f) << w.low;
    }
    /* an image of background only keeps its one bar on the scale */
    displayed_stack(10, 1, 1, 1, [](int, int, int, int) { return 0.0f; });
    image_scale_min = 0.0f;
    image_scale_max = 64.0f;
    fill_graph_values({0, 0, 0});
    graph_data_range(&lo, &hi);
    EXPECT_EQ(hi, 10.0f);
}

TEST(GraphAxisRange, NiceStepsOfOneTwoOrFiveWidenTheRangeToWholeSteps)
{
    struct Case { float lo, hi, amin, amax, step; };
    const Case cases[] = {
        {0.3f, 9.2f, 0.0f, 10.0f, 2.0f},     /* rough 1.78 -> 2 */
        {-3.0f, 47.0f, -10.0f, 50.0f, 10.0f}, /* rough 10 */
        {5.0f, 5.0f, 4.0f, 6.0f, 0.5f},       /* flat: widened by 1, rough 0.4 -> 0.5 */
        {300.0f, 300.0f, 270.0f, 330.0f, 10.0f}, /* flat: widened by a tenth, rough 12 -> 10 */
        {0.0012f, 0.0049f, 0.001f, 0.005f, 0.001f}, /* rough 0.00074 -> 0.001 */
        {4.0f, 1.0f, 1.0f, 4.0f, 0.5f},       /* reversed ends; rough 0.6 -> 0.5 */
    };
    for (const Case &c : cases) {
        float amin, amax, step;
        graph_axis_range(c.lo, c.hi, 5, &amin, &amax, &step);
        EXPECT_NEAR(step, c.step, c.step * 1e-5) << c.lo << " " << c.hi;
        EXPECT_NEAR(amin, c.amin, c.step * 1e-4) << c.lo << " " << c.hi;
        EXPECT_NEAR(amax, c.amax, c.step * 1e-4) << c.lo << " " << c.hi;
    }
    float t[10];
    ASSERT_EQ(graph_ticks(-10.0f, 50.0f, 10.0f, t, 10), 7);
    EXPECT_EQ(t[0], -10.0f);
    EXPECT_EQ(t[6], 50.0f);
    EXPECT_EQ(graph_ticks(0.0f, 100.0f, 1.0f, t, 10), 10);
}

TEST(GraphZoomRange, UpNarrowsAndDownWidensAboutThePointerValue)
{
    float lo = 0.0f, hi = 10.0f;
    graph_zoom_range(1, 5.0f, &lo, &hi);
    EXPECT_FLOAT_EQ(lo, 1.0f);
    EXPECT_FLOAT_EQ(hi, 9.0f);
    lo = 0.0f;
    hi = 10.0f;
    graph_zoom_range(0, 0.0f, &lo, &hi);
    EXPECT_FLOAT_EQ(lo, 0.0f);
    EXPECT_FLOAT_EQ(hi, 12.5f);
}
