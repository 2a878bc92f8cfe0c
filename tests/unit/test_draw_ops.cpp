// Outlines filled into a slice, smooth wire curves, closing, filling and mirroring of wires,
// connected activated regions, and the pointer position in voxels.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "display_model.h"
#include "draw_ops.h"
#include "globals.h"
#include "overlay_ops.h"
#include "test_support.h"

namespace {

void show(int nx, int ny, int nz)
{
    set_displayed_stack_for_test(nx, ny, nz, 1);
    initialize_overlay_records();
}

float weight_at(int x, int y, int z)
{
    IPOINT3D d = mosaic.stack->dim;
    return overlay_map.weight[(z * d.y + y) * d.x + x];
}

int map_count(void)
{
    int n = 0;
    for (int i = 0; i < mosaic.stack->n3d; i++) n += overlay_map.weight[i] != 0.0f;
    return n;
}

}  // namespace

TEST(FillOutlineInSlice, TriangleOnEachPlaneKindSetsTheVoxelsWhoseCentresAreInside)
{
    // Legs along the in-plane axes from -0.5, hypotenuse h + v = 4.5: centres with h + v <= 4.
    const POINT2D triangle[3] = {{-0.5f, -0.5f}, {5.0f, -0.5f}, {-0.5f, 5.0f}};
    // In-plane (h, v) and slice of voxel (x, y, z), per plane kind XY, ZY, XZ, YZ.
    auto hvn = [](int kind, int x, int y, int z, int *h, int *v) {
        const int p[4][3] = {{x, y, z}, {z, y, x}, {x, z, y}, {y, z, x}};
        *h = p[kind][0];
        *v = p[kind][1];
        return p[kind][2];
    };
    for (int kind = 0; kind < 4; kind++) {
        show(6, 5, 3);
        fill_outline_in_slice(triangle, 3, kind, 1, 1.0f, 7);
        for (int z = 0; z < 3; z++)
            for (int y = 0; y < 5; y++)
                for (int x = 0; x < 6; x++) {
                    int h, v, n = hvn(kind, x, y, z, &h, &v);
                    float want = n == 1 && h + v <= 4 ? 1.0f : 0.0f;
                    EXPECT_EQ(weight_at(x, y, z), want) << kind << ": " << x << " " << y << " " << z;
                }
    }
    EXPECT_EQ(overlay_map.color[(1 * 5 + 0) * 6 + 1], 7);  // YZ kind: voxel (1, 0, 1)
}

TEST(FillOutlineInSlice, ErasingAConcaveOutlineSparesItsNotchAndAClickSetsOneVoxel)
{
    show(5, 5, 1);
    const POINT2D square[4] = {{-0.5f, -0.5f}, {4.5f, -0.5f}, {4.5f, 4.5f}, {-0.5f, 4.5f}};
    EXPECT_EQ(fill_outline_in_slice(square, 4, 0, 0, 1.0f, 3), 25);
    // A U open at the top, its notch over (2, 2) and (2, 3).
    const POINT2D u[8] = {{0.5f, 0.5f}, {3.5f, 0.5f}, {3.5f, 3.5f}, {2.5f, 3.5f},
                          {2.5f, 1.5f}, {1.5f, 1.5f}, {1.5f, 3.5f}, {0.5f, 3.5f}};
    EXPECT_EQ(fill_outline_in_slice(u, 8, 0, 0, 0.0f, 3), 7);
    EXPECT_EQ(map_count(), 18);
    EXPECT_NE(weight_at(2, 2, 0), 0.0f);
    EXPECT_NE(weight_at(2, 3, 0), 0.0f);
    EXPECT_EQ(weight_at(1, 3, 0), 0.0f);
    EXPECT_EQ(overlay_map.color[3 * 5 + 1], 0);

    show(5, 5, 1);
    const POINT2D click[2] = {{2.4f, 1.6f}, {2.2f, 1.9f}};  // one voxel, two points
    EXPECT_EQ(fill_outline_in_slice(click, 2, 0, 0, 1.0f, 3), 1);
    EXPECT_EQ(weight_at(2, 2, 0), 1.0f);
    EXPECT_EQ(map_count(), 1);
}

TEST(SampleCurve, ClosedSquarePassesThroughItsCornersAndBulgesOneEighthOfItsSide)
{
    const POINT3D square[4] = {{0, 0, 2}, {4, 0, 2}, {4, 4, 2}, {0, 4, 2}};
    POINT3D out[8];
    ASSERT_EQ(curve_sample_count(4, 1, 2), 8);
    ASSERT_EQ(sample_curve(square, 4, 1, 2, out), 8);
    for (int i = 0; i < 4; i++) {
        EXPECT_FLOAT_EQ(out[2 * i].x, square[i].x);
        EXPECT_FLOAT_EQ(out[2 * i].y, square[i].y);
    }
    // Mid-edges: (B0 + 3 B1 + 3 B2 + B3) / 8 with B1 = P1 + (P2 - P0)/6, B2 = P2 - (P3 - P1)/6.
    const float mid[4][2] = {{2, -0.5f}, {4.5f, 2}, {2, 4.5f}, {-0.5f, 2}};
    for (int i = 0; i < 4; i++) {
        EXPECT_NEAR(out[2 * i + 1].x, mid[i][0], 1e-5) << i;
        EXPECT_NEAR(out[2 * i + 1].y, mid[i][1], 1e-5) << i;
        EXPECT_FLOAT_EQ(out[2 * i + 1].z, 2.0f);
    }
    // An open curve ends on its last point.
    ASSERT_EQ(sample_curve(square, 3, 0, 2, out), 5);
    EXPECT_FLOAT_EQ(out[4].x, 4.0f);
    EXPECT_FLOAT_EQ(out[4].y, 4.0f);
}

TEST(Wires, ClosingSplittingFillingAndMirroring)
{
    show(7, 7, 3);
    CONTROL_POINT c[8] = {{{0.5f, 0.5f, 1}, 1}, {{4.5f, 0.5f, 1}, 1}, {{4.5f, 4.5f, 1}, 1},
                          {{0.5f, 4.5f, 1}, 1}, {{1.1f, 1.3f, 1}, 1},  // ends 1.0 from the start
                          {{1, 1, 2}, 1},         {{3, 1, 2}, 1},         {{3, 3, 2}, 1}};
    EXPECT_EQ(close_wire_curve(c, 3, 10.0f), 0);  // three points cannot close
    EXPECT_EQ(c[2].color, 0);
    c[2].color = 1;
    EXPECT_EQ(close_wire_curve(c, 5, 0.9f), 0);
    EXPECT_EQ(close_wire_curve(c, 5, 1.5f), 1);
    EXPECT_FLOAT_EQ(c[4].point.x, 0.5f);
    EXPECT_FLOAT_EQ(c[4].point.y, 0.5f);
    EXPECT_EQ(c[4].color, 0);
    wire_root.control = (CONTROL_POINT *)malloc(sizeof c);
    memcpy(wire_root.control, c, sizeof c);
    wire_root.npts = 8;
    EXPECT_EQ(wire_curve_end(wire_root.control, 8, 0), 5);
    EXPECT_EQ(wire_curve_end(wire_root.control, 8, 5), 8);
    EXPECT_FALSE(wire_curve_is_closed(wire_root.control + 5, 3));
    int slice = -1;
    EXPECT_EQ(wire_curve_plane(c, 5, &slice), 0);
    EXPECT_EQ(slice, 1);
    const CONTROL_POINT on_x2[2] = {{{2, 0, 0}, 1}, {{2, 3, 1}, 1}}, skew[2] = {{{0, 0, 0}, 1}, {{1, 1, 1}, 1}};
    EXPECT_EQ(wire_curve_plane(on_x2, 2, &slice), 3);
    EXPECT_EQ(slice, 2);
    EXPECT_EQ(wire_curve_plane(skew, 2, &slice), -1);

    // The curve bulges by side/8 = 0.5 at mid-edges, so the centres 1..4 are inside and the
    // centres of row 0 and column 0 stay outside; the open curve on z = 2 is not filled.
    EXPECT_EQ(fill_closed_wires(), 1);
    EXPECT_EQ(ovl_root.npts, 16);
    for (int y = 0; y < 7; y++)
        for (int x = 0; x < 7; x++) EXPECT_EQ(weight_at(x, y, 1), x >= 1 && x <= 4 && y >= 1 && y <= 4 ? 1.0f : 0.0f);
    EXPECT_EQ(overlay_map.color[(1 * 7 + 2) * 7 + 2], ovl_root.color);

    action_mirror_wires();
    EXPECT_FLOAT_EQ(wire_root.control[0].point.x, 5.5f);
    EXPECT_FLOAT_EQ(wire_root.control[6].point.x, 3.0f);
    action_mirror_wires();
    EXPECT_FLOAT_EQ(wire_root.control[0].point.x, 0.5f);
}

TEST(SelectActivatedRegion, SixConnectedVoxelsAboveTheLowThreshold)
{
    show(4, 4, 3);
    float map[48] = {};
    auto set = [&](int x, int y, int z, float v) { map[(z * 4 + y) * 4 + x] = v; };
    set(0, 0, 0, 5); set(1, 0, 0, 5); set(1, 1, 0, 5); set(1, 1, 1, 5);  // the region
    set(2, 2, 0, 5);   // touches (1, 1, 0) only along an edge
    set(0, 0, 1, 3);   // at the threshold
    set(0, 1, 0, 2);
    EXPECT_EQ(select_activated_region(map, {0, 1, 0}, 3.0f, 1, 1, 6), 0);
    EXPECT_EQ(select_activated_region(map, {0, 0, 0}, 3.0f, 1, 1, 6), 4);
    EXPECT_EQ(map_count(), 4);
    EXPECT_EQ(weight_at(1, 1, 1), 1.0f);
    EXPECT_EQ(weight_at(2, 2, 0), 0.0f);
    EXPECT_EQ(overlay_map.color[(1 * 4 + 1) * 4 + 1], 6);
    // Negative values count for the negative schemes and, signed, for the two-sided one.
    EXPECT_TRUE(activation_shows(-5, 3, -1, 1));
    EXPECT_FALSE(activation_shows(5, 3, -2, 1));
    EXPECT_TRUE(activation_shows(-5, 3, 0, -1));
    EXPECT_FALSE(activation_shows(-3, 3, 0, 1));
}

TEST(PointerRvoxel, PixelOfAMosaicPanelGivesItsVoxelPositionWithAndWithoutTheFlip)
{
    set_displayed_stack_for_test(8, 6, 4, 1);
    mosaic.zoom = 4;
    compute_display_size(NULL);  // 2 x 2 panels of XY slices
    // Panel 1 (slice 1) starts at x = (8 + 2) * 4; 13 pixels in are 3.25 voxels, 10 down 2.5.
    for (int flip = 0; flip < 2; flip++) {
        mosaic.flip_X11_y = flip;
        mosaic.cursor_selection = 1;
        CursorSelection_OnImageWindow(40 + 13, 30 + 4 + 10);
        POINT3D p = pointer_rvoxel();
        EXPECT_NEAR(p.x, 2.75f, 1e-5);
        EXPECT_NEAR(p.y, flip ? 3.0f : 2.0f, 1e-5);  // flipped: 6 - 2.5 = 3.5, centre at 3
        EXPECT_EQ(p.z, 1.0f);
    }
}
