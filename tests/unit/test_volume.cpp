/* Bounds-checked indexing of the displayed stack, the sample-value table, the voxel <-> space
   conversions and the 4x4 constructors. Geometry expectations are worked by hand. */
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <unistd.h>

#include "globals.h"
#include "numerics.h"
#include "test_support.h"
#include "volume.h"

namespace {

void expect_point(POINT3D p, float x, float y, float z, float tol = 0.0f)
{
    EXPECT_NEAR(p.x, x, tol);
    EXPECT_NEAR(p.y, y, tol);
    EXPECT_NEAR(p.z, z, tol);
}

data_stack cube(int n, float res)
{
    data_stack s = {};
    s.dim = {n, n, n};
    s.resolution = {res, res, res};
    s.direction = {1, 1, 1};
    return s;
}

/* A displayed complex (or magnitude-phase) stack of nx*ny*nz voxels and nt volumes. */
void set_displayed_pair_stack(int data_type, int nx, int ny, int nz, int nt)
{
    make_stack(&image_stack, nx, ny, nz, nt);
    free_float_vector(image_stack.SpaceTime.fData);
    image_stack.data_type = data_type;
    image_stack.npts_volume = 2 * image_stack.n3d;
    image_stack.SpaceTime.fData = float_vector(2 * image_stack.n3d * nt);
    for (int k = 0; k < 2 * image_stack.n3d * nt; k++) image_stack.SpaceTime.fData[k] = (float)k;
    mosaic.stack = &image_stack;
    mosaic.fSpaceMatrix = image_stack.SpaceTime.fData;
}

} // namespace

TEST(Index4d, CoordinateEqualToDimensionStopsTheProgram)
{
    set_displayed_stack_for_test(4, 3, 2, 2);
    EXPECT_EXIT({ fflush(stdout); dup2(2, 1); index4d(4, 0, 0, 0); }, testing::ExitedWithCode(1),
                "Programming error: index out of range in index4d\\.\n\\(x,y,z,t\\) = \\(4,0,0,0\\)");
    EXPECT_EXIT({ fflush(stdout); dup2(2, 1); index4d(0, 0, 0, 2); }, testing::ExitedWithCode(1),
                "\\(x,y,z,t\\) = \\(0,0,0,2\\)");
    EXPECT_EXIT({ fflush(stdout); dup2(2, 1); index4d(0, -1, 0, 0); }, testing::ExitedWithCode(1),
                "index out of range in index4d");
}

TEST(StackData4d, ComplexStacksAreIndexedByPairs)
{
    set_displayed_pair_stack(1, 2, 2, 1, 2); /* float k holds the value k */
    mosaic.display_data_type = 2;
    /* voxel (1,0,0) of volume 1 is pair 4 + 1 = 5: floats 10 and 11 */
    EXPECT_EQ(stack_data_4d(1, 0, 0, 1), 10.0f);
    mosaic.display_data_type = 3;
    EXPECT_EQ(stack_data_4d(1, 0, 0, 1), 11.0f);
    mosaic.display_data_type = 0;
    EXPECT_FLOAT_EQ(stack_data_4d(0, 1, 0, 0), (float)sqrt(4.0 * 4.0 + 5.0 * 5.0));
    EXPECT_FLOAT_EQ(mosaic_data_1d(3), (float)sqrt(6.0 * 6.0 + 7.0 * 7.0));
    IPOINT3D v = {1, 1, 0};
    mosaic.display_data_type = 2;
    EXPECT_EQ(mosaic_data_3d(v), 6.0f);
}

TEST(CenteredIjkToXyz, EvenGridPutsTheOriginBetweenTheMiddleVoxels)
{
    data_stack s = cube(4, 2.0f);
    s.ijk_to_xyz = centered_ijk_to_xyz(s);
    expect_point(Convert_Voxel_to_Space({0, 0, 0}, &s), -3, -3, -3);
    expect_point(Convert_Voxel_to_Space({3, 3, 3}, &s), 3, 3, 3);
    expect_point(Convert_Voxel_to_Space({1, 2, 3}, &s), -1, 1, 3);
}

TEST(CenteredIjkToXyz, IgnoresTheStacksOwnOriginDirectionAndMatrix)
{
    data_stack s = {};
    s.dim = {4, 5, 6};
    s.resolution = {1.0f, 2.0f, 3.0f};
    s.origin = {10, 20, 30};
    s.direction = {-1, -1, 1};
    s.ijk_to_xyz = scale_and_shift_to_mat44(s.resolution, s.origin, s.direction);
    mat44 m = centered_ijk_to_xyz(s);
    s.ijk_to_xyz = m;
    expect_point(Convert_Voxel_to_Space({0, 0, 0}, &s), -1.5f, -4.0f, -7.5f);
    EXPECT_EQ(m.m[0][0], 1.0f);
    EXPECT_EQ(m.m[1][1], 2.0f);
    EXPECT_EQ(m.m[3][3], 1.0f);
    EXPECT_EQ(m.m[3][0], 0.0f);
}

TEST(ConvertVoxelToSpace, NegativeDirectionRunsTheIndexBackwardsFromTheOrigin)
{
    data_stack s = {};
    s.dim = {8, 8, 8};
    s.resolution = {2, 2, 2};
    s.origin = {10, 0, 0};
    s.direction = {-1, 1, 1};
    s.ijk_to_xyz = scale_and_shift_to_mat44(s.resolution, s.origin, s.direction);
    s.xyz_to_ijk = invert_mat44(s.ijk_to_xyz);
    expect_point(Convert_Voxel_to_Space({3, 0, 0}, &s), 4, 0, 0);
    expect_point(Convert_Voxel_to_Space({0, 1, 2}, &s), 10, 2, 4);
    expect_point(Convert_Space_to_rVoxel({4, 0, 0}, &s), 3, 0, 0, 1e-6f);
    expect_point(Convert_Space_to_rVoxel({9, 1, 0}, &s), 0.5f, 0.5f, 0, 1e-6f);
}

TEST(ConvertSpaceToRVoxel, RoundTripThroughAGeneralAffine)
{
    float r0[4] = {0.9f, -0.3f, 0.1f, 5.0f}, r1[4] = {0.25f, 1.1f, -0.2f, -7.0f},
          r2[4] = {0.05f, 0.4f, 1.8f, 2.5f};
    data_stack s = {};
    s.ijk_to_xyz = general_affine_to_mat44(r0, r1, r2);
    s.xyz_to_ijk = invert_mat44(s.ijk_to_xyz);
    std::mt19937 rng{1};
    std::uniform_real_distribution<float> u(-20.0f, 60.0f);
    for (int n = 0; n < 50; n++) {
        POINT3D v = {u(rng), u(rng), u(rng)};
        POINT3D back = Convert_Space_to_rVoxel(Convert_rVoxel_to_Space(v, &s), &s);
        expect_point(back, v.x, v.y, v.z, 1e-4f);
    }
}

TEST(InvertMat44, FullInverseOfAnAffineMatrix)
{
    float r0[4] = {0, 2, 0, 1}, r1[4] = {4, 0, 0, -2}, r2[4] = {0, 0, 0.5f, 3};
    mat44 m = general_affine_to_mat44(r0, r1, r2);
    mat44 inv = invert_mat44(m);
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) {
            float s = 0.0f;
            for (int k = 0; k < 4; k++) s += m.m[i][k] * inv.m[k][j];
            EXPECT_NEAR(s, i == j ? 1.0f : 0.0f, 1e-6f) << i << "," << j;
        }
    EXPECT_EQ(inv.m[1][0], 0.5f);
    EXPECT_EQ(inv.m[1][3], -0.5f);
}
