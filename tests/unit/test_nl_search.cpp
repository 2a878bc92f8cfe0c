// Tests of the non-linear optimizer: tied probes, the single-basis mode, the re-enabling of
// dropped coefficients and the grid schedule of the automatic run.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

#include "align_model.h"
#include "display_hooks.h"
#include "globals.h"
#include "nl_cost.h"
#include "nl_model.h"
#include "nl_search.h"
#include "numerics.h"
#include "resample.h"
#include "test_support.h"
#include "volume.h"

namespace {

// Template and individual on the same grid, identity affine, zero maps, basis grid given.
void set_up_alignment(int nx, int ny, int nz, POINT3D res, IPOINT3D grid)
{
    make_stack(&template_, nx, ny, nz, 1, res.x, res.y, res.z);
    make_stack(&original, nx, ny, nz, 1, res.x, res.y, res.z);
    make_stack(&individual, nx, ny, nz, 1, res.x, res.y, res.z);
    for (data_stack *s : {&distort_x, &distort_y, &distort_z, &distort_d, &NL_bases})
        make_stack(s, nx, ny, nz, 2, res.x, res.y, res.z);
    iTime_Template = 0;
    graph.iTime = 0;
    Alignment = {};
    Alignment.dimension = {nx, ny, nz};
    Alignment.resolution = res;
    Alignment.direction = {1, 1, 1};
    Alignment.RigidBody = 1;
    Alignment.value[6] = Alignment.value[7] = Alignment.value[8] = 1.0f;
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original);
    AlignAid = {};
    AlignAid.DisplaySet = 2;
    AlignNL = {};
    AlignNL.Adjust = {1, 1, 1};
    AlignNL.Lambda_reg = 10;
    AlignNL.stiffness = 0.5f;
    AlignNL.BasisGrid = grid;
    update_nonlinear_alignment_parameters(0);
}

float *at(data_stack &s, int x, int y, int z) { return s.SpaceTime.fData + (z * s.dim.y + y) * s.dim.x + x; }

// A smooth blob centred at c (voxels) on every voxel of a stack.
void fill_blob(data_stack &s, float cx, float cy, float cz, float width)
{
    for (int z = 0; z < s.dim.z; z++)
        for (int y = 0; y < s.dim.y; y++)
            for (int x = 0; x < s.dim.x; x++) {
                float r2 = (x - cx) * (x - cx) + (y - cy) * (y - cy) + (z - cz) * (z - cz);
                *at(s, x, y, z) = 10.0f + 100.0f * std::exp(-r2 / (2 * width * width));
            }
}

std::string info_texts;
void record_info_line(const char *a, const char *b, const char *c)
{
    info_texts += std::string(a) + "|" + b + "|" + c + "\n";
}

} // namespace

TEST(LineScan1dNonlinear, TiedProbesLeaveValuePlusStepAndDropTheCoefficient)
{
    set_up_alignment(8, 8, 8, {1, 1, 1}, {1, 1, 1});
    ASSERT_EQ(AlignNL.NBasis, 8);
    std::mt19937 rng{1};
    std::uniform_real_distribution<float> u(1.0f, 50.0f);
    for (int k = 0; k < template_.n3d; k++) {
        template_.SpaceTime.fData[k] = u(rng);
        original.SpaceTime.fData[k] = 5.0f;  // a constant individual: every probe has MI 0
    }
    AlignNL.Lambda_reg = 0;
    transform_coordinates(1, 0);
    float steps[24];
    for (int c = 0; c < 24; c++) {
        AlignNL.Adjust3D[c] = 1;
        steps[c] = AlignNL.increment[c];
        ASSERT_GT(steps[c], 0.0f);
    }
    testing::internal::CaptureStdout();
    float start = cost_function_nonlinear(0, 0);
    adjust_nonlinear_1pass(1, 0, 0, start);
    std::string out = testing::internal::GetCapturedStdout();
    for (int c = 0; c < 24; c++) {
        EXPECT_EQ(AlignNL.value[c], steps[c]) << c;      // left at value + h
        EXPECT_EQ(AlignNL.increment[c], steps[c]) << c;  // no fold, so no halving
        EXPECT_EQ(AlignNL.Adjust3D[c], 0) << c;          // dropped
    }
    EXPECT_NE(out.find("Percent ignored 100, Percent reinstated = 0\n"), std::string::npos) << out;
}

TEST(AutoAdjustNonlinearIterations, ViewBasisOptimisesOnlyTheShownBasis)
{
    set_up_alignment(16, 16, 16, {1, 1, 1}, {1, 1, 1});
    ASSERT_EQ(AlignNL.NBasis, 8);
    fill_blob(template_, 7.5f, 7.5f, 7.5f, 3.0f);
    fill_blob(original, 7.0f, 7.5f, 7.5f, 3.0f);  // the individual lies 0.5 mm lower in x
    AlignNL.Lambda_reg = 1;
    AlignNL.ViewBasis = 1;
    AlignNL.iBasis = 5;
    transform_coordinates(1, 0);
    testing::internal::CaptureStdout();
    auto_adjust_nonlinear_iterations(0, 1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("on final pass for level 1\n"), std::string::npos) << out;
    EXPECT_EQ(AlignNL.Adjusted.x, 1);
    EXPECT_EQ(AlignNL.Adjusted.z, 1);
    for (int c = 0; c < 24; c++) {
        if (c == 5)
            EXPECT_LT(AlignNL.value[c], 0.0f);  // the map moves samples towards lower x
        else
            EXPECT_EQ(AlignNL.value[c], 0.0f) << c;
    }
}

TEST(AdjustTheAdjustFlags, RoughBoxesAreReinstated)
{
    set_up_alignment(12, 10, 8, {1, 1, 1}, {1, 1, 1});
    // Four hand-made boxes: a rough spot inside box 0 only.
    free_ipoint3d_vector(AlignNL.Index3DStart);
    free_ipoint3d_vector(AlignNL.Index3DEnd);
    AlignNL.NBasis = 4;
    AlignNL.Index3DStart = ipoint3d_vector(4);
    AlignNL.Index3DEnd = ipoint3d_vector(4);
    AlignNL.Index3DStart[0] = {2, 3, 1};  AlignNL.Index3DEnd[0] = {7, 8, 5};
    AlignNL.Index3DStart[1] = {0, 0, 4};  AlignNL.Index3DEnd[1] = {12, 10, 8};
    AlignNL.Index3DStart[2] = {0, 0, 0};  AlignNL.Index3DEnd[2] = {1, 1, 1};
    AlignNL.Index3DStart[3] = {11, 0, 0}; AlignNL.Index3DEnd[3] = {12, 1, 1};
    for (int c = 0; c < 12; c++) AlignNL.Adjust3D[c] = 0;
    AlignNL.Adjust = {1, 0, 0};
    *at(distort_x, 4, 5, 2) = 0.3f;
    testing::internal::CaptureStdout();
    adjust_the_adjust_flags(0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Percent ignored 100, Percent reinstated = 25\n"), std::string::npos) << out;
    EXPECT_EQ(AlignNL.Adjust3D[0], 1);
    for (int c = 1; c < 12; c++) EXPECT_EQ(AlignNL.Adjust3D[c], 0) << c;
}

TEST(AdjustTheAdjustFlags, FoldedBoxesAreReinstated)
{
    set_up_alignment(12, 10, 8, {1, 1, 1}, {1, 1, 1});
    free_ipoint3d_vector(AlignNL.Index3DStart);
    free_ipoint3d_vector(AlignNL.Index3DEnd);
    AlignNL.NBasis = 2;
    AlignNL.Index3DStart = ipoint3d_vector(2);
    AlignNL.Index3DEnd = ipoint3d_vector(2);
    AlignNL.Index3DStart[0] = {0, 0, 0}; AlignNL.Index3DEnd[0] = {6, 10, 8};
    AlignNL.Index3DStart[1] = {6, 0, 0}; AlignNL.Index3DEnd[1] = {12, 10, 8};
    for (int c = 0; c < 6; c++) AlignNL.Adjust3D[c] = 0;
    AlignNL.Adjust = {0, 1, 0};
    AlignNL.stiffness = 0.0f;  // a linear field then has no penalty at all
    for (int z = 0; z < 8; z++)
        for (int y = 0; y < 10; y++)
            for (int x = 0; x < 12; x++) {
                *at(distort_y, x, y, z) = -0.9f * y;
                *at(template_, x, y, z) = x >= 6 ? 1.0f : 0.0f;  // only box 1 is examined for folds
            }
    testing::internal::CaptureStdout();
    adjust_the_adjust_flags(0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Percent ignored 100, Percent reinstated = 50\n"), std::string::npos) << out;
    EXPECT_EQ(AlignNL.Adjust3D[2 + 1], 1);  // y coefficient of basis 1
    EXPECT_EQ(AlignNL.Adjust3D[2 + 0], 0);
    EXPECT_EQ(AlignNL.Adjust3D[1], 0);      // x is not optimised: left alone
    EXPECT_EQ(AlignNL.Adjust3D[4 + 1], 0);
}

TEST(ActionAutoAdjustNonlinear, FirstUseEndsOnTheFinestLimitedGrid)
{
    set_up_alignment(16, 4, 12, {1, 4, 1}, {8, 2, 6});
    fill_blob(template_, 7.5f, 1.5f, 5.5f, 3.0f);
    fill_blob(original, 7.0f, 1.5f, 5.5f, 3.0f);
    transform_coordinates(1, 0);
    info_texts.clear();
    DisplayHooks.show_on_info_line = record_info_line;
    testing::internal::CaptureStdout();
    action_auto_adjust_nonlinear(1);
    std::string out = testing::internal::GetCapturedStdout();
    DisplayHooks.show_on_info_line = nullptr;
    // Finest grid: 8 cells of 2 mm along x; y (16 mm) would take 8 but is limited to 4/2 = 2.
    EXPECT_EQ(AlignNL.BasisGrid.x, 8);
    EXPECT_EQ(AlignNL.BasisGrid.y, 2);
    EXPECT_EQ(AlignNL.BasisGrid.z, 6);
    EXPECT_EQ(AlignNL.Lambda_reg, 10);
    // Three levels ran, coarse to fine, and the run ended with "done".
    size_t l3 = out.find("on final pass for level 3"), l2 = out.find("on final pass for level 2"),
           l1 = out.find("on final pass for level 1");
    ASSERT_NE(l3, std::string::npos) << out;
    ASSERT_NE(l2, std::string::npos);
    ASSERT_NE(l1, std::string::npos);
    EXPECT_LT(l3, l2);
    EXPECT_LT(l2, l1);
    EXPECT_EQ(out.substr(out.size() - 5), "done\n");
    EXPECT_NE(info_texts.find("done||\n"), std::string::npos);
    EXPECT_NE(info_texts.find("coefficients: "), std::string::npos);
    // A later run works on the current grid and the one twice as coarse: two levels.
    testing::internal::CaptureStdout();
    action_auto_adjust_nonlinear(1);
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("on final pass for level 3"), std::string::npos);
    EXPECT_NE(out.find("on final pass for level 2"), std::string::npos);
    EXPECT_EQ(AlignNL.BasisGrid.x, 8);
    EXPECT_EQ(AlignNL.BasisGrid.y, 2);
}
