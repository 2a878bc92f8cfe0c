// Resampling of the individual onto the template grid: kernels, masking rules, wrap-around,
// partial (basis-box) resampling, displacement maps and thread independence.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "globals.h"
#include "numerics.h"
#include "resample.h"
#include "similarity.h"
#include "test_support.h"
#include "volume.h"

namespace {

// Template (all ones) and individual on their own grids, maps on the template grid, identity
// parameters and the centred matrices the driver stores in Alignment.
void make_scene(int n, float rt, int on, float ro)
{
    make_stack(&template_, n, n, n, 1, rt, rt, rt);
    make_stack(&individual, n, n, n, 1, rt, rt, rt);
    make_stack(&original, on, on, on, 1, ro, ro, ro);
    make_stack(&distort_x, n, n, n, 2, rt, rt, rt);
    make_stack(&distort_y, n, n, n, 2, rt, rt, rt);
    make_stack(&distort_z, n, n, n, 2, rt, rt, rt);
    for (int i = 0; i < template_.n3d; i++) template_.SpaceTime.fData[i] = 1.0f;
    Alignment = {};
    graph = {};
    iTime_Template = 0;
    Alignment.RigidBody = 1;
    Alignment.value[6] = Alignment.value[7] = Alignment.value[8] = 1.0f;
    Alignment.dimension = template_.dim;
    Alignment.resolution = template_.resolution;
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original);
}

void fill_random(data_stack *s, float lo, float hi, unsigned seed)
{
    std::mt19937 rng{seed};
    std::uniform_real_distribution<float> u(lo, hi);
    for (int i = 0; i < s->n3d; i++) s->SpaceTime.fData[i] = u(rng);
}

float at(data_stack *s, int x, int y, int z) { return s->SpaceTime.fData[index4d_stack(s, x, y, z, 0)]; }
float &ref(data_stack *s, int x, int y, int z) { return s->SpaceTime.fData[index4d_stack(s, x, y, z, 0)]; }

double gauss_weight(double d, double sigma) { return exp(-d * d / (2.0 * sigma * sigma)); }

// Brute-force fast-kernel value at an individual position v (all samples inside the grid):
// separable Gaussian of the given sigma over floor(v)-w .. ceil(v)+w, normalised.
double gauss_oracle(const data_stack *s, double vx, double vy, double vz, int w, double sigma,
                    int wrap_x)
{
    double sum = 0.0, wsum = 0.0;
    for (int k = (int)floor(vz) - w; k <= (int)ceil(vz) + w; k++)
        for (int j = (int)floor(vy) - w; j <= (int)ceil(vy) + w; j++)
            for (int i = (int)floor(vx) - w; i <= (int)ceil(vx) + w; i++) {
                int ii = i;
                if (wrap_x) ii = (i + s->dim.x) % s->dim.x;
                if (ii < 0 || ii >= s->dim.x || j < 0 || j >= s->dim.y || k < 0 || k >= s->dim.z) continue;
                double wt = gauss_weight(vx - i, sigma) * gauss_weight(vy - j, sigma) * gauss_weight(vz - k, sigma);
                sum += wt * s->SpaceTime.fData[ii + s->dim.x * (j + s->dim.y * k)];
                wsum += wt;
            }
    return sum / wsum;
}

}  // namespace

TEST(TransformCoordinates, IdentityWithTheAccurateKernelReproducesTheIndividual)
{
    make_scene(8, 1.0f, 8, 1.0f);
    fill_random(&original, 1.0f, 100.0f, 1);
    transform_coordinates(1, 1);
    for (int i = 0; i < individual.n3d; i++)
        ASSERT_NEAR(individual.SpaceTime.fData[i], original.SpaceTime.fData[i], 1e-4f) << i;
}

TEST(TransformCoordinates, VoxelsMappingOffTheGridOrOntoZeroAreZeroInAFullResampling)
{
    make_scene(6, 1.0f, 6, 1.0f);
    fill_random(&original, 1.0f, 2.0f, 4);
    ref(&original, 3, 3, 3) = 0.0f;
    for (int i = 0; i < individual.n3d; i++) individual.SpaceTime.fData[i] = 7.0f;
    Alignment.value[0] = 1.0f;  // template x maps to individual x - 1
    transform_coordinates(1, 0);
    EXPECT_EQ(at(&individual, 0, 2, 2), 0.0f);   // lands at x = -1
    EXPECT_EQ(at(&individual, 4, 3, 3), 0.0f);   // nearest individual voxel holds 0
    EXPECT_NE(at(&individual, 1, 2, 2), 0.0f);
    // the neighbour of the zero voxel still averages it in (samples of value 0 are included)
    EXPECT_NEAR(at(&individual, 3, 3, 3), gauss_oracle(&original, 2, 3, 3, 1, 0.425, 0), 2e-4);
}

TEST(TransformCoordinates, WrapAroundInXTakesTheLastColumnAndWrapsTheKernel)
{
    make_scene(8, 1.0f, 8, 1.0f);
    fill_random(&original, 1.0f, 100.0f, 5);
    Alignment.value[0] = 1.0f;  // template x = 0 maps to individual x = -1
    Alignment.WrapAround = {1, 0, 0};
    transform_coordinates(1, 1);
    for (int y = 0; y < 8; y += 3)
        EXPECT_NEAR(at(&individual, 0, y, 4), at(&original, 7, y, 4), 1e-4f);
    transform_coordinates(1, 0);
    // fast kernel: samples x = -2, -1, 0 are columns 6, 7 and 0
    EXPECT_NEAR(at(&individual, 0, 3, 4), gauss_oracle(&original, -1, 3, 4, 1, 0.425, 1), 2e-4);
    Alignment.WrapAround = {0, 0, 0};
    transform_coordinates(1, 0);
    EXPECT_EQ(at(&individual, 0, 3, 4), 0.0f);
}

TEST(TransformCoordinates, PartialResamplingTouchesOnlyTheBasisBox)
{
    make_scene(8, 1.0f, 8, 1.0f);
    fill_random(&original, 1.0f, 100.0f, 6);
    IPOINT3D start[2] = {{0, 0, 0}, {2, 1, 3}}, end[2] = {{8, 8, 8}, {5, 4, 6}};
    AlignNL = {};
    AlignNL.Index3DStart = start;
    AlignNL.Index3DEnd = end;
    AlignNL.iBasis = 1;
    for (int i = 0; i < individual.n3d; i++) individual.SpaceTime.fData[i] = -5.0f;
    ref(&template_, 3, 2, 4) = 0.0f;
    Alignment.value[0] = 3.0f;  // template x = 2 lands off the grid
    transform_coordinates(0, 1);
    for (int z = 0; z < 8; z++)
        for (int y = 0; y < 8; y++)
            for (int x = 0; x < 8; x++) {
                bool inside = x >= 2 && x < 5 && y >= 1 && y < 4 && z >= 3 && z < 6;
                float got = at(&individual, x, y, z);
                if (!inside || x == 2)
                    EXPECT_EQ(got, -5.0f) << x << " " << y << " " << z;  // untouched, also off-grid
                else if (x == 3 && y == 2 && z == 4)
                    EXPECT_EQ(got, 0.0f);
                else
                    EXPECT_NEAR(got, at(&original, x - 3, y, z), 1e-4f);
            }
}

TEST(TransformCoordinates, CoarserTemplateWidensBothKernelsToHalfWidthTwo)
{
    // 2 mm template over a 1 mm individual: r = 2, sigma = 0.85, samples floor(v)-2..ceil(v)+2
    make_scene(6, 2.0f, 12, 1.0f);
    fill_random(&original, 1.0f, 100.0f, 7);
    transform_coordinates(1, 0);
    // template voxel i sits at individual position 2i + 0.5
    for (int x = 1; x < 5; x++)
        EXPECT_NEAR(at(&individual, x, 2, 3), gauss_oracle(&original, 2 * x + 0.5, 4.5, 6.5, 2, 0.85, 0), 2e-4);
    transform_coordinates(1, 1);
    double sum = 0, wsum = 0;  // Lanczos oracle, half-width 2
    for (int k = 4; k <= 9; k++)
        for (int j = 2; j <= 7; j++)
            for (int i = 2; i <= 7; i++) {
                double w = Lanczos_filter(2, 6.5f - k) * Lanczos_filter(2, 4.5f - j) * Lanczos_filter(2, 4.5f - i);
                sum += w * at(&original, i, j, k);
                wsum += w;
            }
    EXPECT_NEAR(at(&individual, 2, 2, 3), sum / wsum, 2e-3);
}

TEST(TransformCoordinates, TemplateVoxelsVastlyWiderThanTheIndividualsAverageTheWholeAxis)
{
    // x voxels of the template 1e30 times the individual's: the fast kernel's sigma (0.425e30)
    // weighs every sample along x alike and its half-width takes in the whole axis, so each
    // voxel is the mean of the individual's x profile 1, 2, 3, 4 (constant along y and z).
    make_scene(4, 1.0f, 4, 1.0f);
    for (int z = 0; z < 4; z++)
        for (int y = 0; y < 4; y++)
            for (int x = 0; x < 4; x++) ref(&original, x, y, z) = (float)(x + 1);
    Alignment.resolution.x = 1e30f;
    transform_coordinates(1, 0);
    for (int z = 0; z < 4; z++)
        for (int y = 0; y < 4; y++)
            for (int x = 0; x < 4; x++) ASSERT_NEAR(at(&individual, x, y, z), 2.5f, 1e-5) << x << y << z;
}

TEST(TransformCoordinates, DisplacementMapsActLikeATranslation)
{
    make_scene(8, 1.0f, 8, 1.0f);
    fill_random(&original, 1.0f, 100.0f, 8);
    for (int i = 0; i < distort_y.n3d; i++) distort_y.SpaceTime.fData[i] = 1.25f;
    transform_coordinates(1, 0);
    std::vector<float> displaced(individual.SpaceTime.fData, individual.SpaceTime.fData + individual.n3d);
    for (int i = 0; i < distort_y.n3d; i++) distort_y.SpaceTime.fData[i] = 0.0f;
    Alignment.value[1] = -1.25f;  // the translation enters with a minus sign
    transform_coordinates(1, 0);
    EXPECT_EQ(0, memcmp(displaced.data(), individual.SpaceTime.fData, sizeof(float) * displaced.size()));
}

TEST(TransformCoordinates, OneThreadAndSeveralGiveBitIdenticalResults)
{
    make_scene(20, 1.5f, 24, 1.0f);
    fill_random(&original, 0.0f, 50.0f, 9);
    fill_random(&distort_x, -1.0f, 1.0f, 10);
    fill_random(&distort_z, -0.5f, 0.5f, 11);
    Alignment.value[0] = 1.3f;
    Alignment.value[3] = 7.0f;
    Alignment.value[5] = -4.0f;
    Alignment.value[7] = 1.1f;
    Alignment.value[9] = 0.05f;
    Alignment.WrapAround = {0, 1, 0};
    for (int accurate = 0; accurate < 2; accurate++) {
        setenv("ALIGN_THREADS", "1", 1);
        transform_coordinates(1, accurate);
        std::vector<float> one(individual.SpaceTime.fData, individual.SpaceTime.fData + individual.n3d);
        setenv("ALIGN_THREADS", "3", 1);
        transform_coordinates(1, accurate);
        EXPECT_EQ(0, memcmp(one.data(), individual.SpaceTime.fData, sizeof(float) * one.size()));
        size_t nonzero = 0;
        for (float v : one) nonzero += v != 0.0f;
        EXPECT_GT(nonzero, one.size() / 2);
    }
    unsetenv("ALIGN_THREADS");
}

namespace {

// A smooth, asymmetric phantom in centred millimetres, positive everywhere.
double phantom(double x, double y, double z)
{
    double a = (x - 3) * (x - 3) + (y + 2) * (y + 2) + z * z;
    double b = (x + 4) * (x + 4) + (y - 5) * (y - 5) + (z - 3) * (z - 3);
    return 5.0 + 100.0 * exp(-a / 72.0) + 60.0 * exp(-b / 18.0);
}

// Individual = phantom on its grid. Template = the phantom seen through the parameters
// (translation t, angle phi_xy in degrees): T(p) = f(R p - t), zero outside a sphere so
// that only voxels mapping inside the individual are compared.
void make_moved_phantom(float tx, float ty, float degrees)
{
    make_scene(32, 1.0f, 32, 1.0f);
    double c = cos(degrees * M_PI / 180), s = sin(degrees * M_PI / 180);
    for (int z = 0; z < 32; z++)
        for (int y = 0; y < 32; y++)
            for (int x = 0; x < 32; x++) {
                double px = x - 15.5, py = y - 15.5, pz = z - 15.5;
                ref(&original, x, y, z) = (float)phantom(px, py, pz);
                double r2 = px * px + py * py + pz * pz;
                ref(&template_, x, y, z) =
                    r2 > 144.0 ? 0.0f : (float)phantom(c * px - s * py - tx, s * px + c * py - ty, pz);
            }
}

}  // namespace

TEST(CostFunction, SimilarityPeaksAtTheMatchingParameters)
{
    make_moved_phantom(2.0f, -1.5f, 10.0f);
    const float truth[3] = {2.0f, -1.5f, 10.0f};
    const int index[3] = {0, 1, 3};
    const float step[3] = {1.0f, 1.0f, 3.0f};
    for (int icost = 0; icost < 2; icost++) {
        Alignment.value[0] = truth[0];
        Alignment.value[1] = truth[1];
        Alignment.value[3] = truth[2];
        transform_coordinates(1, 0);
        float best = cost_function(icost);
        for (int k = 0; k < 3; k++)
            for (int sign = -1; sign <= 1; sign += 2) {
                Alignment.value[index[k]] = truth[k] + sign * step[k];
                transform_coordinates(1, 0);
                EXPECT_LT(cost_function(icost), best) << "cost " << icost << " parameter " << index[k] << " " << sign;
                Alignment.value[index[k]] = truth[k];
            }
    }
}

namespace {

// The specified arithmetic for one template voxel, written out plainly: positions through the
// three matrices, kernel weights from numerics, weight (wz*wx)*wy in float, value*weight and
// weight summed in double, z outer and x inner. No wrap-around, all samples inside the grid.
float one_voxel_oracle(int x, int y, int z, int accurate)
{
    data_stack tgrid = template_, ogrid = original;
    tgrid.ijk_to_xyz = Alignment.ijk_to_xyz;
    ogrid.xyz_to_ijk = Alignment.xyz_to_ijk;
    mat44 affine;
    memcpy(affine.m, Alignment.Affine, sizeof affine.m);
    POINT3D p = Convert_Voxel_to_Space({x, y, z}, &tgrid);
    POINT3D q = apply_mat44(affine, p.x, p.y, p.z);
    POINT3D v = Convert_Space_to_rVoxel(q, &ogrid);
    float r = Alignment.resolution.x / original.resolution.x;
    int w = accurate ? std::max(2, (int)floorf(r)) : std::max(1, (int)floorf(r));
    float sigma = (float)(0.425 * r);
    auto weight = [&](float d) { return accurate ? Lanczos_filter(w, d) : Gauss(d, 0.0f, sigma); };
    double sum = 0, wsum = 0;
    for (int k = (int)floorf(v.z) - w; k <= (int)ceilf(v.z) + w; k++)
        for (int j = (int)floorf(v.y) - w; j <= (int)ceilf(v.y) + w; j++)
            for (int i = (int)floorf(v.x) - w; i <= (int)ceilf(v.x) + w; i++) {
                float wt = weight(v.z - k) * weight(v.x - i) * weight(v.y - j);
                sum += (double)(at(&original, i, j, k) * wt);
                wsum += wt;
            }
    return (float)(sum / wsum);
}

}  // namespace

TEST(TransformCoordinates, FollowsTheReferenceArithmeticBitForBit)
{
    make_scene(16, 1.25f, 16, 1.0f);
    fill_random(&original, 1.0f, 1000.0f, 12);
    Alignment.value[0] = 0.7f;
    Alignment.value[2] = -1.1f;
    Alignment.value[3] = 9.0f;
    Alignment.value[4] = -4.0f;
    Alignment.value[6] = 1.07f;
    Alignment.value[10] = 0.03f;
    for (int accurate = 0; accurate < 2; accurate++) {
        transform_coordinates(1, accurate);
        for (int z = 5; z <= 10; z += 5)
            for (int y = 6; y <= 9; y += 3)
                for (int x = 5; x <= 10; x++)
                    EXPECT_EQ(at(&individual, x, y, z), one_voxel_oracle(x, y, z, accurate))
                        << accurate << ": " << x << " " << y << " " << z;
    }
}
