// Panel rules: labels and rows, selection with skipped items, value changes of the three sets,
// adjust toggles, reset/recall and the full alignment's printed order.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "align_model.h"
#include "display_hooks.h"
#include "filters.h"
#include "globals.h"
#include "overlay_ops.h"
#include "panel_model.h"
#include "prepare.h"
#include "resample.h"
#include "test_support.h"

namespace {

// A small pair of volumes through the start-up sequence, so that rules which resample run.
// Voxels of 2 x 1 x 4 mm make the down-sampling coupling visible.
class Panel : public ::testing::Test {
protected:
    void SetUp() override
    {
        DisplayHooks = {};
        make_stack(&original_unfiltered, 16, 16, 16, 1, 2.0f, 1.0f, 4.0f);
        make_stack(&template_unfiltered, 16, 16, 16, 1, 2.0f, 1.0f, 4.0f);
        for (int i = 0; i < 16 * 16 * 16; i++) {
            original_unfiltered.SpaceTime.fData[i] = (float)(i % 7);
            template_unfiltered.SpaceTime.fData[i] = (float)(i % 5);
        }
        snprintf(original_unfiltered.name, sizeof original_unfiltered.name, "individual");
        snprintf(template_unfiltered.name, sizeof template_unfiltered.name, "template");
        initialize_mosaic_ovl(0);
        initialize_alignment();
        filter_image_data();
        transform_coordinates(1, 0);
        mosaic.ImageRegionPixels.y = 300;
        panel_rolloff_prompt = NULL;
    }
    std::string row(int r)
    {
        char buf[1024];
        if (!panel_item_text(r, buf)) return "<empty>";
        return buf;
    }
};

TEST_F(Panel, DownSamplingStaysWithinOneToEightAndCouplesYZ)
{
    AlignAid.DisplaySet = 0;
    AlignAid.iParameter = 6;
    AlignAid.SubSampleSetting = {2, 1, 1};
    panel_change_value(1);
    // x = 1: y = rint(1*2/1) = 2, z = max(1, rint(2/4 = 0.5)) = 1.
    EXPECT_EQ(AlignAid.SubSampleSetting.x, 1);
    EXPECT_EQ(AlignAid.SubSampleSetting.y, 2);
    EXPECT_EQ(AlignAid.SubSampleSetting.z, 1);
    panel_change_value(1);
    EXPECT_EQ(AlignAid.SubSampleSetting.x, 1);
    for (int k = 0; k < 10; k++) panel_change_value(0);
    EXPECT_EQ(AlignAid.SubSampleSetting.x, 8);
    EXPECT_EQ(AlignAid.SubSampleSetting.y, 16);
    EXPECT_EQ(AlignAid.SubSampleSetting.z, 4);
    AlignAid.SubSampleSetting.x = 3;
    panel_change_value(1);
    // 3 Left gives 2: y = rint(2*2/1) = 4, z = rint(2*2/4) = 1.
    EXPECT_EQ(AlignAid.SubSampleSetting.x, 2);
    EXPECT_EQ(AlignAid.SubSampleSetting.y, 4);
    EXPECT_EQ(AlignAid.SubSampleSetting.z, 1);
    // y alone does not move x or z.
    AlignAid.iParameter = 7;
    panel_change_value(0);
    EXPECT_EQ(AlignAid.SubSampleSetting.x, 2);
    EXPECT_EQ(AlignAid.SubSampleSetting.y, 5);
    EXPECT_EQ(AlignAid.SubSampleSetting.z, 1);
}

TEST_F(Panel, AffineIncrementsStepAndNeverReachZero)
{
    AlignAid.DisplaySet = 1;
    update_display_set();
    AlignAid.ChangeValue = 0;
    AlignAid.iParameter = 0;
    AlignAid.increment[0] = 0.025f;
    panel_change_value(1);
    EXPECT_FLOAT_EQ(AlignAid.increment[0], 0.025f);
    panel_change_value(0);
    EXPECT_FLOAT_EQ(AlignAid.increment[0], 0.05f);
    AlignAid.iParameter = 4;
    AlignAid.increment[4] = 0.1f;
    panel_change_value(1);
    EXPECT_FLOAT_EQ(AlignAid.increment[4], 0.25f);
    panel_change_value(0);
    EXPECT_FLOAT_EQ(AlignAid.increment[4], 0.5f);
    AlignAid.iParameter = 11;
    AlignAid.increment[11] = 0.02f;
    panel_change_value(1);
    EXPECT_FLOAT_EQ(AlignAid.increment[11], 0.015f);
    EXPECT_FLOAT_EQ(Alignment.value[11], 0.0f);
}

TEST_F(Panel, NonLinearRowsByteExact)
{
    AlignAid.DisplaySet = 2;
    AlignNL.Adjust = {1, 0, 1};
    AlignNL.BasisGrid = {8, 12, 4};
    AlignNL.ViewBasis = 1;
    AlignNL.iBasis = 3;
    AlignNL.NBasis = 20;
    AlignNL.Lambda_reg = 5;
    AlignNL.stiffness = 0.5f;
    EXPECT_EQ(row(0), "Nonlinear fields");
    EXPECT_EQ(row(1), "x X Field");
    EXPECT_EQ(row(2), "  Y Field");
    EXPECT_EQ(row(3), "x Z Field");
    EXPECT_EQ(row(4), "Basis Grid");
    EXPECT_EQ(row(5), "  X  8");
    EXPECT_EQ(row(6), "  Y  12");
    EXPECT_EQ(row(7), "  Z  4");
    EXPECT_EQ(row(8), "FWHM (mm)");
    EXPECT_EQ(row(11), "x  3 / 20 ");
    EXPECT_EQ(row(12), "Regularization");
    EXPECT_EQ(row(13), " Rigidity  5 ");
    EXPECT_EQ(row(14), "smooth<->stiff");
    EXPECT_EQ(row(15), "-  -  X  -  -");
    EXPECT_EQ(panel_row_item(9), -1);
    EXPECT_EQ(panel_row_item(15), 8);
}

TEST_F(Panel, BasisGridSpacingDoublesAndHalvesWithYZFollowing)
{
    // Template 16^3 of 2 x 1 x 4 mm: fov 32, 16, 64 mm.
    ASSERT_EQ(template_.dim.x, 16);
    ASSERT_FLOAT_EQ(template_.fov.x, 32.0f);
    ASSERT_FLOAT_EQ(template_.fov.z, 64.0f);
    AlignAid.DisplaySet = 2;
    AlignAid.iParameter = 3;
    AlignNL.BasisGrid = {4, 4, 4};
    // Spacing 4 halves to 2: grid 8, d = 4 mm, y = rint(16/4) = 4, z = rint(64/4) = 16.
    panel_change_value(0);
    EXPECT_EQ(AlignNL.BasisGrid.x, 8);
    EXPECT_EQ(AlignNL.BasisGrid.y, 4);
    EXPECT_EQ(AlignNL.BasisGrid.z, 16);
    // Spacing 2 halves to 1: grid 16; z = rint(64/2) = 32 is held at 16.
    panel_change_value(0);
    EXPECT_EQ(AlignNL.BasisGrid.x, 16);
    EXPECT_EQ(AlignNL.BasisGrid.y, 8);
    EXPECT_EQ(AlignNL.BasisGrid.z, 16);
    // Spacing 1 doubles to 2 and then to 4; 16/8 = 2 is held at 4.
    panel_change_value(1);
    EXPECT_EQ(AlignNL.BasisGrid.x, 8);
    panel_change_value(1);
    panel_change_value(1);
    EXPECT_EQ(AlignNL.BasisGrid.x, 4);
    // The y item moves y alone.
    AlignAid.iParameter = 4;
    int x = AlignNL.BasisGrid.x, z = AlignNL.BasisGrid.z;
    AlignNL.BasisGrid.y = 4;
    panel_change_value(0);
    EXPECT_EQ(AlignNL.BasisGrid.y, 8);
    EXPECT_EQ(AlignNL.BasisGrid.x, x);
    EXPECT_EQ(AlignNL.BasisGrid.z, z);
}

TEST_F(Panel, RigidityRunsOneFiveTenAndStiffnessClamps)
{
    AlignAid.DisplaySet = 2;
    AlignAid.iParameter = 7;
    AlignNL.Lambda_reg = 1;
    panel_change_value(0);
    EXPECT_EQ(AlignNL.Lambda_reg, 5);
    panel_change_value(0);
    EXPECT_EQ(AlignNL.Lambda_reg, 10);
    AlignNL.Lambda_reg = 5;
    panel_change_value(1);
    EXPECT_EQ(AlignNL.Lambda_reg, 1);
    panel_change_value(1);
    EXPECT_EQ(AlignNL.Lambda_reg, 1);

    AlignAid.iParameter = 8;
    AlignNL.stiffness = 0.75f;
    panel_change_value(0);
    EXPECT_FLOAT_EQ(AlignNL.stiffness, 1.0f);
    panel_change_value(0);
    EXPECT_FLOAT_EQ(AlignNL.stiffness, 1.0f);
    EXPECT_EQ(row(15), "-  -  -  -  X");
    for (int k = 0; k < 5; k++) panel_change_value(1);
    EXPECT_FLOAT_EQ(AlignNL.stiffness, 0.0f);
    EXPECT_EQ(row(15), "X  -  -  -  -");
}

TEST_F(Panel, FullAlignmentWithNothingSelectedPrintsInOrder)
{
    AlignAid.smooth_fov_fraction = 4;
    mosaic.toggle_overlays = 0;
    for (int j = 0; j < 12; j++) AlignAid.Adjust[j] = 0;
    AlignNL.Adjust = {0, 0, 0};
    testing::internal::CaptureStdout();
    action_do_full_alignment();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out,
              "An overlay is not active.\n"
              "This is OK if the template has already been skull-stripped.\n"
              "Otherwise, use a brain overlay before this step.\n"
              "No affine parameters are selected; skip affine alignment.\n");
    for (int j = 0; j < 12; j++) EXPECT_EQ(AlignAid.Adjust[j], 1) << j;
}

TEST_F(Panel, DisplayTypesStepThroughFieldsAndBasisWithAGreyWindowOfTheirOwn)
{
    const data_stack *shown_by_type[6] = {&individual, &template_, &distort_x, &distort_y, &distort_z, &NL_bases};
    AlignAid.DisplayType = 0;
    for (int k = 1; k <= 6; k++) {
        action_change_display_type(1);
        EXPECT_EQ(AlignAid.DisplayType, k % 6);
        EXPECT_EQ(mosaic.stack, shown_by_type[k % 6]) << k;
    }
    action_change_display_type(-1);
    EXPECT_EQ(AlignAid.DisplayType, 5);
    action_change_display_type(0);  // space: any type but the individual goes back to it
    EXPECT_EQ(AlignAid.DisplayType, 0);

    /* an x field of -3..1.5 mm is shown with that range; the remembered window then stays */
    distort_scale_min = distort_scale_max = 0.0f;
    contrast_low = 0.0f;
    contrast_high = 1.0f;
    distort_x.SpaceTime.fData[5] = -3.0f;
    distort_x.SpaceTime.fData[9] = 1.5f;
    AlignAid.DisplayType = 1;
    action_change_display_type(1);
    EXPECT_EQ(image_scale_min, -3.0f);
    EXPECT_EQ(image_scale_max, 1.5f);
    image_scale_min = -1.0f;  // as after a contrast drag
    action_change_display_type(-1);
    action_change_display_type(1);
    EXPECT_EQ(image_scale_min, -1.0f);
    EXPECT_EQ(image_scale_max, 1.5f);
}

TEST(OverlayFilter, ClearedOverlayLeavesAnEmptyMask)
{
    DisplayHooks = {};
    make_stack(&original_unfiltered, 8, 8, 8, 1, 2.0f, 2.0f, 2.0f);
    make_stack(&template_unfiltered, 8, 8, 8, 1, 2.0f, 2.0f, 2.0f);
    for (int i = 0; i < 512; i++) {
        original_unfiltered.SpaceTime.fData[i] = (float)(i % 3);
        template_unfiltered.SpaceTime.fData[i] = (float)(i % 4);
    }
    initialize_mosaic_ovl(0);
    initialize_alignment();
    filter_image_data();
    transform_coordinates(1, 0);
    ASSERT_EQ(mosaic.stack->n3d, 512);
    overlay_map.weight[10] = 1.0f;
    overlay_map.weight[20] = NAN;
    update_root_overlay(1);
    action_filter_overlay();
    EXPECT_EQ(AlignAid.nmask, 2);
    EXPECT_EQ(AlignAid.mask[20], 1.0f);
    // The filter itself clears the overlay: name "none", map all zero.
    EXPECT_STREQ(ovl_root.name, "none");
    int nonzero = 0;
    for (int i = 0; i < 512; i++) nonzero += overlay_map.weight[i] != 0.0f;
    EXPECT_EQ(nonzero, 0);
    action_clear_overlay();
    action_filter_overlay();
    EXPECT_EQ(AlignAid.nmask, 0);
}

}  // namespace
