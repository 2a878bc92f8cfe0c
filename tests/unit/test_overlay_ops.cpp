// Overlay map and root overlay kept in step; move, mirror, clear and list stepping.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "display_hooks.h"
#include "filters.h"
#include "globals.h"
#include "align_model.h"
#include "overlay_ops.h"
#include "panel_model.h"
#include "prepare.h"
#include "resample.h"
#include "test_support.h"

namespace {

const int NX = 5, NY = 3, NZ = 2;

int at(int x, int y, int z) { return x + NX * (y + NY * z); }

class Overlays : public ::testing::Test {
protected:
    void SetUp() override
    {
        DisplayHooks = {};
        set_displayed_stack_for_test(NX, NY, NZ, 1);
        initialize_overlay_records();
        mosaic.cursor_selection = 0;
    }
    // A list node of n voxels, each of weight w, colour c.
    ovl_list *make_node(const char *name, const IPOINT3D *v, int n, float w, short c)
    {
        ovl_list *o = (ovl_list *)calloc(1, sizeof(ovl_list));
        snprintf(o->name, sizeof o->name, "%s", name);
        o->npts = n;
        o->color = c;
        o->voxel = (IPOINT3D *)calloc((size_t)n, sizeof(IPOINT3D));
        o->weight = (float *)calloc((size_t)n, sizeof(float));
        for (int k = 0; k < n; k++) {
            o->voxel[k] = v[k];
            o->weight[k] = w;
        }
        return o;
    }
};

using MoveOverlay = Overlays;
using StepWireList = Overlays;

TEST_F(Overlays, StartValues)
{
    EXPECT_STREQ(ovl_root.name, "none");
    EXPECT_EQ(ovl_root.color, 7);
    EXPECT_EQ(ovl_root.npts, 0);
    EXPECT_EQ(ovl_root.active, 1);
    EXPECT_EQ(overlay_map.number, 1);
    EXPECT_STREQ(wire_root.name, "none");
    EXPECT_EQ(mosaic.toggle_overlays, 0);
}

TEST_F(Overlays, RootIsBuiltZOutermostAndNaNBelongs)
{
    overlay_map.weight[at(4, 0, 1)] = 0.5f;
    overlay_map.weight[at(1, 2, 0)] = NAN;
    overlay_map.weight[at(0, 1, 0)] = 1.0f;
    update_root_overlay(1);
    ASSERT_EQ(ovl_root.npts, 3);
    EXPECT_EQ(ovl_root.voxel[0].x, 0);
    EXPECT_EQ(ovl_root.voxel[0].y, 1);
    EXPECT_EQ(ovl_root.voxel[1].x, 1);
    EXPECT_TRUE(std::isnan(ovl_root.weight[1]));
    EXPECT_EQ(ovl_root.voxel[2].z, 1);
    EXPECT_STREQ(ovl_root.name, "ovl1");
    // And back: the map from the root keeps the NaN voxel and paints the root colour.
    update_overlay_map();
    EXPECT_TRUE(std::isnan(overlay_map.weight[at(1, 2, 0)]));
    EXPECT_EQ(overlay_map.color[at(4, 0, 1)], 7);
}

TEST_F(MoveOverlay, LeavingAtXZeroReentersAtTheLastColumn)
{
    overlay_map.weight[at(0, 1, 1)] = 0.25f;
    overlay_map.weight[at(2, 1, 1)] = NAN;
    update_root_overlay(1);
    move_overlay_in_one_direction(0, -1);
    EXPECT_FLOAT_EQ(overlay_map.weight[at(NX - 1, 1, 1)], 0.25f);
    EXPECT_TRUE(std::isnan(overlay_map.weight[at(1, 1, 1)]));
    EXPECT_EQ(overlay_map.weight[at(0, 1, 1)], 0.0f);
    EXPECT_EQ(ovl_root.npts, 2);
    move_overlay_in_one_direction(0, 1);
    EXPECT_FLOAT_EQ(overlay_map.weight[at(0, 1, 1)], 0.25f);
    move_overlay_in_one_direction(2, 1);
    EXPECT_FLOAT_EQ(overlay_map.weight[at(0, 1, 0)], 0.25f);
    EXPECT_TRUE(std::isnan(overlay_map.weight[at(2, 1, 0)]));
}

TEST_F(Overlays, MirrorTwiceRestoresAndCarriesNaN)
{
    overlay_map.weight[at(0, 0, 0)] = 0.5f;
    overlay_map.weight[at(1, 2, 1)] = NAN;
    update_root_overlay(1);
    action_mirror_overlay();
    EXPECT_FLOAT_EQ(overlay_map.weight[at(4, 0, 0)], 0.5f);
    EXPECT_TRUE(std::isnan(overlay_map.weight[at(3, 2, 1)]));
    EXPECT_EQ(overlay_map.weight[at(0, 0, 0)], 0.0f);
    update_root_overlay(1);
    action_mirror_overlay();
    EXPECT_FLOAT_EQ(overlay_map.weight[at(0, 0, 0)], 0.5f);
    EXPECT_TRUE(std::isnan(overlay_map.weight[at(1, 2, 1)]));
    EXPECT_EQ(overlay_map.weight[at(4, 0, 0)], 0.0f);
}

TEST_F(Overlays, OneListEntryIsAlwaysSelectedAndAddSaturates)
{
    IPOINT3D v[2] = {{1, 1, 0}, {2, 1, 1}};
    ovl_list *only = make_node("brain", v, 2, 0.4f, 3);
    ovl_root.next = only;
    mosaic.toggle_overlays = 1;
    action_step_overlay_list(1, 0);
    EXPECT_EQ(only->active, 1);
    EXPECT_STREQ(ovl_root.name, "brain");
    EXPECT_FLOAT_EQ(overlay_map.weight[at(1, 1, 0)], 0.4f);
    EXPECT_EQ(overlay_map.color[at(1, 1, 0)], 3);
    action_step_overlay_list(0, 1);
    EXPECT_EQ(only->active, 1);
    EXPECT_FLOAT_EQ(overlay_map.weight[at(2, 1, 1)], 0.8f);
    EXPECT_STREQ(ovl_root.name, "ovl1");
    action_step_overlay_list(1, 1);
    EXPECT_FLOAT_EQ(overlay_map.weight[at(2, 1, 1)], 1.0f);
    EXPECT_EQ(ovl_root.npts, 2);
    ovl_root.next = NULL;
}

TEST_F(Overlays, SteppingWalksTheListBothWays)
{
    IPOINT3D v[1] = {{0, 0, 0}};
    ovl_list *a = make_node("a", v, 1, 1.0f, 1), *b = make_node("b", v, 1, 1.0f, 2),
             *c = make_node("c", v, 1, 1.0f, 3);
    ovl_root.next = a;
    a->next = b;
    b->next = c;
    mosaic.toggle_overlays = 1;
    // Nothing active: backward from the root goes to the last entry.
    action_step_overlay_list(0, 0);
    EXPECT_STREQ(ovl_root.name, "c");
    action_step_overlay_list(1, 0);
    EXPECT_STREQ(ovl_root.name, "a");
    action_step_overlay_list(1, 0);
    EXPECT_STREQ(ovl_root.name, "b");
    EXPECT_EQ(a->active + b->active + c->active, 1);
    EXPECT_EQ(ovl_root.active, 1);
    ovl_root.next = NULL;
}

TEST_F(StepWireList, RootActiveFlagIsCleared)
{
    wire_list *w = (wire_list *)calloc(1, sizeof(wire_list));
    snprintf(w->name, sizeof w->name, "outline");
    w->npts = 2;
    w->control = (CONTROL_POINT *)calloc(2, sizeof(CONTROL_POINT));
    w->control[1].point.x = 7.0f;
    wire_root.next = w;
    mosaic.toggle_overlays = 2;
    action_step_overlay_list(1, 0);
    EXPECT_EQ(wire_root.active, 0);
    EXPECT_EQ(w->active, 1);
    EXPECT_STREQ(wire_root.name, "outline");
    ASSERT_EQ(wire_root.npts, 2);
    EXPECT_FLOAT_EQ(wire_root.control[1].point.x, 7.0f);
    action_step_overlay_list(1, 1);
    EXPECT_EQ(wire_root.npts, 4);
    EXPECT_FLOAT_EQ(wire_root.control[3].point.x, 7.0f);
    action_clear_wires();
    EXPECT_EQ(wire_root.npts, 0);
    EXPECT_STREQ(wire_root.name, "none");
    wire_root.next = NULL;
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
