// Outlines filled into a slice, smooth wire curves, closing and filling of wires, connected
// activated regions.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

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
    for (int kind = 0; kind < 4; kind++) {
        show(6, 5, 3);
        fill_outline_in_slice(triangle, 3, kind, 1, 1.0f, 7);
        for (int z = 0; z < 3; z++)
            for (int y = 0; y < 5; y++)
                for (int x = 0; x < 6; x++) {
                    // In-plane (h, v) and slice of the voxel for plane kinds XY, ZY, XZ, YZ.
                    const int p[4][3] = {{x, y, z}, {z, y, x}, {x, z, y}, {y, z, x}};
                    float want = p[kind][2] == 1 && p[kind][0] + p[kind][1] <= 4 ? 1.0f : 0.0f;
                    EXPECT_EQ(weight_at(x, y, z), want) << kind << ": " << x << " " << y << " " << z;
                }
    }
    EXPECT_EQ(overlay_map.color[(1 * 5 + 0) * 6 + 1], 7);  // YZ kind: voxel (1, 0, 1)
}

TEST(FillOutlineInSlice, ErasingAConcaveOutlineSparesItsNotch)
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
}

TEST(SampleCurve, ClosedSquarePassesThroughItsCornersAndBulgesOneEighthOfItsSide)
{
    const POINT3D square[4] = {{0, 0, 2}, {4, 0, 2}, {4, 4, 2}, {0, 4, 2}};
    // Mid-edges: (B0 + 3 B1 + 3 B2 + B3) / 8 with B1 = P1 + (P2 - P0)/6, B2 = P2 - (P3 - P1)/6.
    const float want[8][2] = {{0, 0}, {2, -0.5f}, {4, 0}, {4.5f, 2}, {4, 4}, {2, 4.5f}, {0, 4}, {-0.5f, 2}};
    POINT3D out[8];
    ASSERT_EQ(curve_sample_count(4, 1, 2), 8);
    ASSERT_EQ(sample_curve(square, 4, 1, 2, out), 8);
    for (int i = 0; i < 8; i++) {
        EXPECT_NEAR(out[i].x, want[i][0], 1e-5) << i;
        EXPECT_NEAR(out[i].y, want[i][1], 1e-5) << i;
        EXPECT_FLOAT_EQ(out[i].z, 2.0f);
    }
}

TEST(Wires, OnlyClosedCurvesAreFilledEachOnItsOwnSlice)
{
    show(7, 7, 3);
    // A square on z = 1 whose fifth point, 1.0 from the first, closes it; an open curve on z = 2.
    CONTROL_POINT c[8] = {{{0.2f, 0.2f, 1}, 1}, {{3.8f, 0.2f, 1}, 1}, {{3.8f, 3.8f, 1}, 1}, {{0.2f, 3.8f, 1}, 1},
                          {{0.8f, 1.0f, 1}, 1}, {{1, 1, 2}, 1},         {{3, 1, 2}, 1},         {{3, 3, 2}, 1}};
    EXPECT_EQ(close_wire_curve(c, 3, 10.0f), 0);  // three points cannot close
    c[2].color = 1;
    EXPECT_EQ(close_wire_curve(c, 5, 0.9f), 0);
    EXPECT_EQ(close_wire_curve(c, 5, 1.5f), 1);
    wire_root.control = (CONTROL_POINT *)malloc(sizeof c);
    memcpy(wire_root.control, c, sizeof c);
    wire_root.npts = 8;
    EXPECT_EQ(wire_curve_end(wire_root.control, 8, 0), 5);
    int slice = -1;
    const CONTROL_POINT on_x2[2] = {{{2, 0, 0}, 1}, {{2, 3, 1}, 1}}, skew[2] = {{{0, 0, 0}, 1}, {{1, 1, 1}, 1}};
    EXPECT_EQ(wire_curve_plane(on_x2, 2, &slice), 3);
    EXPECT_EQ(slice, 2);
    EXPECT_EQ(wire_curve_plane(skew, 2, &slice), -1);
    // Along the bottom edge the curve runs at y = 0.2 - 1.8 t (1 - t): under the centres x = 1, 2
    // and 3 (t = 0.27, 0.5, 0.73) at y = -0.15, -0.25, -0.15. So it holds the centres 0..4 but
    // the four corners, where the control square holds only 1..3.
    EXPECT_EQ(fill_closed_wires(), 1);
    EXPECT_EQ(ovl_root.npts, 21);
    for (int y = 0; y < 7; y++)
        for (int x = 0; x < 7; x++) {
            int corner = (x == 0 || x == 4) && (y == 0 || y == 4);
            EXPECT_EQ(weight_at(x, y, 1), x <= 4 && y <= 4 && !corner ? 1.0f : 0.0f) << x << " " << y;
        }
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
    // Negative values count for the negative schemes and for the two-sided one.
    EXPECT_TRUE(activation_shows(-5, 3, -1, 1) && activation_shows(-5, 3, 0, -1));
    EXPECT_FALSE(activation_shows(5, 3, -2, 1));
}
