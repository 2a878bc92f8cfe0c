// Whole images through an alignment: the forward mapping against transform_coordinates, the
// kernels, the inversion of the mapping, the Jacobian and the world displacement field.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "apply_transform.h"
#include "globals.h"
#include "resample.h"
#include "test_support.h"
#include "volume.h"

namespace {

// A template of n^3 voxels of rt mm (all ones, so that nothing is masked), an individual of
// on^3 voxels of ro mm, displacement maps on the template grid (zero), identity parameters.
void make_scene(int n, float rt, int on, float ro)
{
    make_stack(&template_unfiltered, n, n, n, 1, rt, rt, rt);
    make_stack(&template_, n, n, n, 1, rt, rt, rt);
    make_stack(&individual, n, n, n, 1, rt, rt, rt);
    make_stack(&original, on, on, on, 1, ro, ro, ro);
    for (data_stack *m : {&distort_x, &distort_y, &distort_z}) make_stack(m, n, n, n, 2, rt, rt, rt);
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

// Smooth maps: d_a = amplitude * sin(2 pi k / n) along the next axis, in mm.
void smooth_maps(int n, double amplitude)
{
    for (int z = 0; z < n; z++)
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++) {
                size_t i = (size_t)x + (size_t)n * (y + (size_t)n * z);
                distort_x.SpaceTime.fData[i] = (float)(amplitude * sin(2 * M_PI * y / n));
                distort_y.SpaceTime.fData[i] = (float)(amplitude * sin(2 * M_PI * z / n));
                distort_z.SpaceTime.fData[i] = (float)(amplitude * cos(2 * M_PI * x / n));
            }
}

void some_affine(void)
{
    Alignment.value[0] = 1.3f;
    Alignment.value[2] = -0.7f;
    Alignment.value[3] = 7.0f;
    Alignment.value[5] = -4.0f;
    Alignment.value[7] = 1.1f;
    Alignment.value[9] = 0.05f;
}

std::vector<float> resample_with(const voxel_positions &p, int kernel, IPOINT3D wrap = {0, 0, 0})
{
    std::vector<float> out((size_t)p.dim.x * p.dim.y * p.dim.z);
    POINT3D ratio = {template_unfiltered.resolution.x / original.resolution.x,
                     template_unfiltered.resolution.y / original.resolution.y,
                     template_unfiltered.resolution.z / original.resolution.z};
    resample_through_positions(&p, original.SpaceTime.fData, original.dim, ratio, wrap, kernel, out.data());
    return out;
}

// The forward mapping of template voxel (x,y,z) into individual voxels, in double: the oracle.
void forward_oracle(double x, double y, double z, const double d[3], double v[3])
{
    mat44 a = Alignment.ijk_to_xyz, c = Alignment.xyz_to_ijk;
    double p[3], q[3];
    for (int r = 0; r < 3; r++) p[r] = a.m[r][0] * x + a.m[r][1] * y + a.m[r][2] * z + a.m[r][3];
    for (int r = 0; r < 3; r++)
        q[r] = Alignment.Affine[r][0] * p[0] + Alignment.Affine[r][1] * p[1] + Alignment.Affine[r][2] * p[2] +
               Alignment.Affine[r][3] + d[r];
    for (int r = 0; r < 3; r++) v[r] = c.m[r][0] * q[0] + c.m[r][1] * q[1] + c.m[r][2] * q[2] + c.m[r][3];
}

// Trilinear value of a map at template voxel position u (inside the grid).
double trilinear(const data_stack *s, const double u[3])
{
    int i0[3];
    double f[3], sum = 0.0;
    int n[3] = {s->dim.x, s->dim.y, s->dim.z};
    for (int a = 0; a < 3; a++) {
        i0[a] = std::min((int)floor(u[a]), n[a] - 2);
        f[a] = u[a] - i0[a];
    }
    for (int c = 0; c < 8; c++) {
        int ix = i0[0] + (c & 1), iy = i0[1] + ((c >> 1) & 1), iz = i0[2] + ((c >> 2) & 1);
        double w = ((c & 1) ? f[0] : 1 - f[0]) * ((c & 2) ? f[1] : 1 - f[1]) * ((c & 4) ? f[2] : 1 - f[2]);
        sum += w * s->SpaceTime.fData[ix + n[0] * (iy + n[1] * iz)];
    }
    return sum;
}

}  // namespace

TEST(ApplyForward, AccurateKernelMapsVoxelsExactlyAsTransformCoordinates)
{
    // 2 mm over 1 mm (half-width 2) and 3 mm over 1 mm (half-width 3), with wrap-around in y
    const float template_mm[2] = {2.0f, 3.0f};
    for (float rt : template_mm) {
        make_scene(12, rt, 26, 1.0f);
        fill_random(&original, 1.0f, 100.0f, 3);  // no zeros: transform_coordinates masks nothing
        fill_random(&distort_x, -1.5f, 1.5f, 4);
        fill_random(&distort_z, -0.5f, 0.5f, 5);
        some_affine();
        Alignment.WrapAround = {0, 1, 0};
        transform_coordinates(1, 1);
        voxel_positions p = {{0, 0, 0}, nullptr};
        ASSERT_EQ(forward_positions(original.dim, original.resolution, &p), 0);
        std::vector<float> out = resample_with(p, APPLY_ACCURATE, Alignment.WrapAround);
        EXPECT_EQ(0, memcmp(out.data(), individual.SpaceTime.fData, sizeof(float) * out.size())) << rt;
        size_t zeros = 0;
        for (float v : out) zeros += v == 0.0f;
        EXPECT_GT(zeros, 0u);                  // some voxels map off the individual's grid
        EXPECT_LT(zeros, out.size() / 2);
        free_voxel_positions(&p);
    }
}

TEST(ApplyForward, NearestCopiesValuesAndLinearFollowsARamp)
{
    make_scene(10, 2.0f, 12, 1.5f);  // 20 mm of template over 18 mm of individual
    // a ramp exact in float, and no zero, so a 0 in the output means "off the grid"
    for (int z = 0; z < 12; z++)
        for (int y = 0; y < 12; y++)
            for (int x = 0; x < 12; x++) original.SpaceTime.fData[x + 12 * (y + 12 * z)] = 3.0f * x - 2.0f * y + 5.0f * z + 40.0f;
    some_affine();
    voxel_positions p = {{0, 0, 0}, nullptr};
    ASSERT_EQ(forward_positions(original.dim, original.resolution, &p), 0);
    std::vector<float> nearest = resample_with(p, APPLY_NEAREST), linear = resample_with(p, APPLY_LINEAR);
    int inside = 0, off = 0;
    for (size_t i = 0; i < nearest.size(); i++) {
        double v[3] = {p.xyz[3 * i], p.xyz[3 * i + 1], p.xyz[3 * i + 2]};
        double n[3] = {rint(v[0]), rint(v[1]), rint(v[2])};
        if (n[0] < 0 || n[0] > 11 || n[1] < 0 || n[1] > 11 || n[2] < 0 || n[2] > 11) {
            EXPECT_EQ(nearest[i], 0.0f);
            EXPECT_EQ(linear[i], 0.0f);
            off++;
            continue;
        }
        EXPECT_EQ(nearest[i], (float)(3 * n[0] - 2 * n[1] + 5 * n[2] + 40));
        if (v[0] >= 0 && v[0] <= 11 && v[1] >= 0 && v[1] <= 11 && v[2] >= 0 && v[2] <= 11) {
            EXPECT_NEAR(linear[i], 3 * v[0] - 2 * v[1] + 5 * v[2] + 40, 2e-4);
            inside++;
        }
    }
    EXPECT_GT(inside, 200);
    EXPECT_GT(off, 10);
    free_voxel_positions(&p);
}

TEST(ApplyInverse, PositionsUndoTheForwardMapping)
{
    for (double amplitude : {0.0, 1.5}) {
        make_scene(14, 2.0f, 18, 1.5f);
        some_affine();
        smooth_maps(14, amplitude);
        voxel_positions p = {{0, 0, 0}, nullptr};
        inverse_report report;
        ASSERT_EQ(inverse_positions(original.dim, original.resolution, &p, &report), 0);
        EXPECT_EQ(report.not_invertible, 0);
        EXPECT_GT(report.inside, 18 * 18 * 18 / 2);
        EXPECT_LT(report.largest_residual, amplitude == 0.0 ? 1e-9 : 1e-5);
        // the forward mapping (oracle) of each inverse position lands on its individual voxel
        double worst = 0.0;
        for (int z = 0; z < 18; z++)
            for (int y = 0; y < 18; y++)
                for (int x = 0; x < 18; x++) {
                    size_t i = (size_t)x + 18 * (y + 18 * (size_t)z);
                    double u[3] = {p.xyz[3 * i], p.xyz[3 * i + 1], p.xyz[3 * i + 2]};
                    if (u[0] < 0 || u[0] > 13 || u[1] < 0 || u[1] > 13 || u[2] < 0 || u[2] > 13) continue;
                    double d[3] = {trilinear(&distort_x, u), trilinear(&distort_y, u), trilinear(&distort_z, u)}, v[3];
                    forward_oracle(u[0], u[1], u[2], d, v);
                    worst = std::max(worst, std::max(fabs(v[0] - x), std::max(fabs(v[1] - y), fabs(v[2] - z))));
                }
        EXPECT_LT(worst, 1e-4) << amplitude;  // float storage of the positions
        free_voxel_positions(&p);
    }
}

TEST(ApplyInverse, FoldedRegionsAreCountedAndASingularAffineRefused)
{
    make_scene(16, 2.0f, 16, 2.0f);
    // d_x = 8 sin(2 pi x / 16) mm: slope 8 * 2pi / 32 mm > 1, so x folds back on itself
    for (int z = 0; z < 16; z++)
        for (int y = 0; y < 16; y++)
            for (int x = 0; x < 16; x++)
                distort_x.SpaceTime.fData[x + 16 * (y + 16 * z)] = (float)(8.0 * sin(2 * M_PI * x / 16));
    voxel_positions p = {{0, 0, 0}, nullptr};
    inverse_report report;
    ASSERT_EQ(inverse_positions(original.dim, original.resolution, &p, &report), 0);
    EXPECT_GT(report.not_invertible, 16 * 16);  // at least a slab of voxels
    EXPECT_LT(report.not_invertible, report.inside);
    free_voxel_positions(&p);

    // three quarter turns about z give a re-orientation with two zero rows: nothing to invert
    Alignment.OrientRotation.z = 3;
    testing::internal::CaptureStdout();
    EXPECT_EQ(inverse_positions(original.dim, original.resolution, &p, &report), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: the affine alignment is singular and cannot be inverted.\n");
}

TEST(ApplyJacobian, ScalingAndLinearDisplacementGiveTheirDeterminant)
{
    make_scene(10, 2.0f, 12, 1.5f);
    Alignment.value[6] = 1.25f;  // inflations enter as reciprocals: 0.8, 1.25, 0.5
    Alignment.value[7] = 0.8f;
    Alignment.value[8] = 2.0f;
    // d_x = 0.1 * x in centred template mm adds 0.1 to the (0,0) element: (0.8+0.1)*1.25*0.5
    for (int z = 0; z < 10; z++)
        for (int y = 0; y < 10; y++)
            for (int x = 0; x < 10; x++) distort_x.SpaceTime.fData[x + 10 * (y + 10 * z)] = 0.1f * 2.0f * (x - 4.5f);
    voxel_positions p = {{0, 0, 0}, nullptr};
    ASSERT_EQ(forward_positions(original.dim, original.resolution, &p), 0);
    std::vector<float> jacobian(1000);
    jacobian_of_positions(&p, original.resolution, template_unfiltered.resolution, jacobian.data());
    for (float j : jacobian) ASSERT_NEAR(j, 0.5625, 1e-4);
    free_voxel_positions(&p);

    inverse_report report;
    ASSERT_EQ(inverse_positions(original.dim, original.resolution, &p, &report), 0);
    std::vector<float> inverse(12 * 12 * 12);
    jacobian_of_positions(&p, template_unfiltered.resolution, original.resolution, inverse.data());
    EXPECT_NEAR(inverse[6 + 12 * (6 + 12 * 6)], 1.0 / 0.5625, 1e-3);
    free_voxel_positions(&p);
}

TEST(ApplyField, ATranslationIsOneLpsVectorInWorldMillimetres)
{
    make_scene(8, 1.0f, 8, 1.0f);
    Alignment.value[0] = 2.0f;  // template point p maps to p - (2, -1, 3)
    Alignment.value[1] = -1.0f;
    Alignment.value[2] = 3.0f;
    voxel_positions p = {{0, 0, 0}, nullptr};
    ASSERT_EQ(forward_positions(original.dim, original.resolution, &p), 0);
    // both grids turned a quarter about z in the world: voxel x runs along world y
    const double world[4][4] = {{0, -1, 0, 10}, {1, 0, 0, -4}, {0, 0, 1, 7}, {0, 0, 0, 1}};
    std::vector<float> field(3 * 512);
    world_displacement_field(&p, world, world, field.data());
    // RAS displacement: the quarter turn of (-2, 1, -3) is (-1, -2, -3); LPS (1, 2, -3)
    for (int i = 0; i < 512; i++) {
        ASSERT_NEAR(field[i], 1.0f, 1e-5);
        ASSERT_NEAR(field[512 + i], 2.0f, 1e-5);
        ASSERT_NEAR(field[1024 + i], -3.0f, 1e-5);
    }
    free_voxel_positions(&p);
}

TEST(ApplyThreads, OneThreadAndSeveralGiveBitIdenticalResults)
{
    make_scene(14, 2.0f, 20, 1.0f);
    fill_random(&original, 0.0f, 50.0f, 7);
    some_affine();
    smooth_maps(14, 1.0);
    std::vector<float> first[3];
    for (const char *threads : {"1", "3"}) {
        setenv("ALIGN_THREADS", threads, 1);
        voxel_positions f = {{0, 0, 0}, nullptr}, b = {{0, 0, 0}, nullptr};
        inverse_report report;
        ASSERT_EQ(forward_positions(original.dim, original.resolution, &f), 0);
        ASSERT_EQ(inverse_positions(original.dim, original.resolution, &b, &report), 0);
        std::vector<float> got[3] = {resample_with(f, APPLY_ACCURATE),
                                     std::vector<float>(f.xyz, f.xyz + 3 * 14 * 14 * 14),
                                     std::vector<float>(b.xyz, b.xyz + 3 * 20 * 20 * 20)};
        for (int k = 0; k < 3; k++) {
            if (first[k].empty()) first[k] = got[k];
            else EXPECT_EQ(0, memcmp(first[k].data(), got[k].data(), sizeof(float) * got[k].size())) << k;
        }
        free_voxel_positions(&f);
        free_voxel_positions(&b);
    }
    unsetenv("ALIGN_THREADS");
}
