// The overlay map and the root overlay, and the clear/move/mirror/step operations.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "globals.h"
#include "numerics.h"
#include "overlay_ops.h"
#include "test_support.h"

namespace {

const int NX = 5, NY = 4, NZ = 3;

struct OverlayOps : ::testing::Test {
    void SetUp() override
    {
        set_displayed_stack_for_test(NX, NY, NZ, 1);
        initialize_overlay_records();
        mosaic.toggle_overlays = 1;
    }
    void TearDown() override
    {
        ovl_list *o = ovl_root.next;
        while (o != NULL) {
            ovl_list *n = o->next;
            free_ipoint3d_vector(o->voxel);
            free_float_vector(o->weight);
            delete o;
            o = n;
        }
        ovl_root.next = NULL;
        wire_list *w = wire_root.next;
        while (w != NULL) {
            wire_list *n = w->next;
            free(w->control);
            delete w;
            w = n;
        }
        wire_root.next = NULL;
        free(wire_root.control);
        wire_root.control = NULL;
        wire_root.npts = 0;
        mosaic.toggle_overlays = 0;
    }
    static int at(int x, int y, int z) { return (z * NY + y) * NX + x; }
    static int count_map(void)
    {
        int n = 0;
        for (int i = 0; i < NX * NY * NZ; i++)
            if (overlay_map.weight[i] != 0.0f) n++;
        return n;
    }
    /* Appends a list overlay holding the given voxels, all of one weight. */
    static ovl_list *add_overlay(const char *name, short color, const IPOINT3D *v, int n, float w)
    {
        ovl_list *o = new ovl_list();
        snprintf(o->name, sizeof o->name, "%s", name);
        o->color = color;
        o->voxel = ipoint3d_vector(NX * NY * NZ);
        o->weight = float_vector(NX * NY * NZ);
        for (int k = 0; k < n; k++) {
            o->voxel[k] = v[k];
            o->weight[k] = w;
        }
        o->npts = n;
        ovl_list *tail = &ovl_root;
        while (tail->next != NULL) tail = tail->next;
        tail->next = o;
        return o;
    }
    static wire_list *add_wire(const char *name, int n, float base)
    {
        wire_list *w = new wire_list();
        snprintf(w->name, sizeof w->name, "%s", name);
        w->control = (CONTROL_POINT *)malloc(sizeof(CONTROL_POINT) * (size_t)n);
        for (int k = 0; k < n; k++) {
            w->control[k].point.x = base + (float)k;
            w->control[k].point.y = w->control[k].point.z = 0.0f;
            w->control[k].color = 2;
        }
        w->npts = n;
        wire_list *tail = &wire_root;
        while (tail->next != NULL) tail = tail->next;
        tail->next = w;
        return w;
    }
};

TEST_F(OverlayOps, RootAndMapRebuildEachOtherInVoxelOrderWithNaNBelonging)
{
    overlay_map.weight[at(4, 0, 2)] = 0.5f;
    overlay_map.weight[at(1, 3, 0)] = NAN;
    overlay_map.weight[at(2, 2, 1)] = 1.0f;
    update_root_overlay(1);
    ASSERT_EQ(ovl_root.npts, 3);
    EXPECT_STREQ(ovl_root.name, "ovl1");
    // z outermost: (1,3,0), (2,2,1), (4,0,2)
    EXPECT_EQ(ovl_root.voxel[0].x, 1);
    EXPECT_TRUE(std::isnan(ovl_root.weight[0]));
    EXPECT_EQ(ovl_root.voxel[1].z, 1);
    EXPECT_EQ(ovl_root.voxel[2].x, 4);
    EXPECT_EQ(ovl_root.weight[2], 0.5f);

    std::memset(overlay_map.weight, 0, sizeof(float) * NX * NY * NZ);
    update_overlay_map();
    EXPECT_TRUE(std::isnan(overlay_map.weight[at(1, 3, 0)]));
    EXPECT_EQ(overlay_map.color[at(1, 3, 0)], 7);
    EXPECT_EQ(overlay_map.weight[at(4, 0, 2)], 0.5f);
    EXPECT_EQ(count_map(), 3);
}

using MoveOverlay = OverlayOps;

TEST_F(OverlayOps, SteppingWalksTheListBothWaysAndAddKeepsColourOfTheHeavier)
{
    IPOINT3D a[1] = {{0, 0, 0}}, b[1] = {{1, 0, 0}}, c[1] = {{0, 0, 0}};
    ovl_list *A = add_overlay("a", 2, a, 1, 0.25f);
    ovl_list *B = add_overlay("b", 3, b, 1, 1.0f);
    ovl_list *C = add_overlay("c", 5, c, 1, 0.5f);
    action_step_overlay_list(0, 0); // none active: backward from the root goes to the last
    EXPECT_STREQ(ovl_root.name, "c");
    EXPECT_EQ(C->active, 1);
    action_step_overlay_list(1, 0); // wraps to the first
    EXPECT_STREQ(ovl_root.name, "a");
    EXPECT_EQ(C->active, 0);
    action_step_overlay_list(0, 0); // first -> last
    EXPECT_STREQ(ovl_root.name, "c");
    action_step_overlay_list(0, 0);
    EXPECT_STREQ(ovl_root.name, "b");
    EXPECT_EQ(B->active, 1);
    EXPECT_EQ(A->active + C->active, 0);
    EXPECT_EQ(overlay_map.weight[at(0, 0, 0)], 0.0f); // replaced, not added

    action_step_overlay_list(1, 1); // add c: weight 0.5 over 0 takes its colour
    EXPECT_EQ(overlay_map.color[at(0, 0, 0)], 5);
    action_step_overlay_list(1, 1); // add a: 0.25 is not above 0.5, colour stays
    EXPECT_EQ(overlay_map.weight[at(0, 0, 0)], 0.75f);
    EXPECT_EQ(overlay_map.color[at(0, 0, 0)], 5);
    EXPECT_EQ(overlay_map.weight[at(1, 0, 0)], 1.0f);

    mosaic.toggle_overlays = 0;
    action_step_overlay_list(1, 0);
    EXPECT_EQ(A->active, 1);
    EXPECT_EQ(overlay_map.weight[at(0, 0, 0)], 0.75f);
}

using StepWireList = OverlayOps;

TEST_F(StepWireList, RootActiveFlagIsCleared)
{
    mosaic.toggle_overlays = 2;
    wire_list *a = add_wire("a", 2, 10.0f);
    wire_list *b = add_wire("b", 3, 20.0f);
    action_step_overlay_list(1, 0);
    EXPECT_EQ(wire_root.active, 0);
    EXPECT_EQ(a->active, 1);
    EXPECT_STREQ(wire_root.name, "a");
    ASSERT_EQ(wire_root.npts, 2);
    EXPECT_EQ(wire_root.control[1].point.x, 11.0f);

    action_step_overlay_list(1, 1);
    EXPECT_EQ(a->active, 0);
    EXPECT_EQ(b->active, 1);
    EXPECT_STREQ(wire_root.name, "a"); // adding keeps the name
    ASSERT_EQ(wire_root.npts, 5);
    EXPECT_EQ(wire_root.control[0].point.x, 10.0f);
    EXPECT_EQ(wire_root.control[2].point.x, 20.0f);
    EXPECT_EQ(wire_root.control[4].point.x, 22.0f);

    action_step_overlay_list(1, 0); // last wraps to the first
    EXPECT_STREQ(wire_root.name, "a");
    action_step_overlay_list(0, 0); // first goes back to the last
    EXPECT_STREQ(wire_root.name, "b");
    EXPECT_EQ(wire_root.npts, 3);
}

} // namespace
