// The basis-function deformation: the grid along one axis, the basis shape, building the
// grid and the maps, changing one coefficient, and the basis image.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "display_hooks.h"
#include "globals.h"
#include "nl_model.h"
#include "numerics.h"
#include "test_support.h"
#include "volume.h"

namespace {

struct triple { int start, peak, end; };

std::vector<triple> axis_grid(int nvoxels, int fwhm)
{
    int *peak, *start, *end;
    int n = calc_number_NL_basis_functions(nvoxels, fwhm, &peak, &start, &end);
    std::vector<triple> out;
    for (int i = 0; i < n; i++) out.push_back({start[i], peak[i], end[i]});
    free_int_vector(peak);
    free_int_vector(start);
    free_int_vector(end);
    return out;
}

void expect_grid(const std::vector<triple> &got, const std::vector<triple> &want)
{
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < want.size(); i++) {
        EXPECT_EQ(got[i].start, want[i].start) << "basis " << i;
        EXPECT_EQ(got[i].peak, want[i].peak) << "basis " << i;
        EXPECT_EQ(got[i].end, want[i].end) << "basis " << i;
    }
}

// Template grid with its maps; AlignNL with the requested grid, built by the first call.
void make_model(int nx, int ny, int nz, IPOINT3D grid, int smoothing = 0)
{
    make_stack(&template_, nx, ny, nz, 1);
    make_stack(&individual, nx, ny, nz, 1);
    make_stack(&original, nx, ny, nz, 1);
    make_stack(&distort_x, nx, ny, nz, 2);
    make_stack(&distort_y, nx, ny, nz, 2);
    make_stack(&distort_z, nx, ny, nz, 2);
    make_stack(&distort_d, nx, ny, nz, 2);
    make_stack(&NL_bases, nx, ny, nz, 1);
    AlignAid = {};
    AlignNL = {};
    AlignNL.Adjust = {1, 1, 1};
    AlignNL.BasisGrid = grid;
    AlignNL.Gaussian_smoothing = smoothing;
    update_nonlinear_alignment_parameters(0);
}

float map_at(data_stack *s, int x, int y, int z) { return s->SpaceTime.fData[index4d_stack(s, x, y, z, 0)]; }

bool in_box(int n, int x, int y, int z)
{
    IPOINT3D s = AlignNL.Index3DStart[n], e = AlignNL.Index3DEnd[n];
    return x >= s.x && x < e.x && y >= s.y && y < e.y && z >= s.z && z < e.z;
}

// Brute force: the x map at a voxel is the sum over the bases whose box (end exclusive)
// holds it of coefficient * basis value.
double x_map_oracle(int x, int y, int z)
{
    double sum = 0;
    for (int n = 0; n < AlignNL.NBasis; n++)
        if (in_box(n, x, y, z)) sum += AlignNL.value[n] * NL_Basis_function(n, {x, y, z});
    return sum;
}


}  // namespace

TEST(CalcNumberNLBasisFunctions, WorkedExamples)
{
    expect_grid(axis_grid(64, 8), {{0, 0, 8}, {0, 8, 16}, {8, 16, 24}, {16, 24, 32}, {24, 32, 40},
                                   {32, 40, 48}, {40, 48, 56}, {48, 56, 64}, {56, 63, 64}});
    // last basis odd: the last even one still takes peak 59 and end 60, overlapping it
    expect_grid(axis_grid(60, 8), {{0, 0, 8}, {0, 8, 16}, {8, 16, 24}, {16, 24, 32}, {24, 32, 40},
                                   {32, 40, 48}, {40, 59, 60}, {48, 56, 60}});
    expect_grid(axis_grid(10, 4), {{0, 0, 4}, {0, 4, 10}, {4, 9, 10}});
}

TEST(NLBasisFunction, CosineSquaredOfTheAbsoluteCoordinate)
{
    make_model(16, 16, 16, {4, 4, 4});  // half-width 4
    ASSERT_EQ(AlignNL.BasisFWHM.x, 4);
    int nx = AlignNL.NBasis1D.x, nxy = nx * AlignNL.NBasis1D.y;
    int b0 = 0, b1 = 1, b2 = 2 + 2 * nx + 2 * nxy;  // per-axis indices (0,0,0), (1,0,0), (2,2,2)
    EXPECT_EQ(NL_Basis_function(b0, {0, 0, 0}), 1.0f);
    EXPECT_NEAR(NL_Basis_function(b0, {2, 0, 0}), 0.5f, 1e-7f);
    EXPECT_NEAR(NL_Basis_function(b0, {2, 2, 2}), 0.125f, 1e-7f);
    EXPECT_EQ(NL_Basis_function(b1, {4, 0, 0}), 1.0f);  // odd bases peak at odd multiples of F
    EXPECT_EQ(NL_Basis_function(b2, {8, 8, 8}), 1.0f);  // even ones at multiples of 2F
    // an even and an odd neighbour sum to 1 along the axis inside their common box
    for (int x = 0; x <= 4; x++)
        EXPECT_NEAR(NL_Basis_function(b0, {x, 0, 0}) + NL_Basis_function(b1, {x, 0, 0}), 1.0f, 1e-6f) << x;
    EXPECT_EQ(NL_Basis_function(b2, {3, 8, 8}), 0.0f);  // outside the box (starts at 4)
    EXPECT_EQ(NL_Basis_function(b0, {5, 0, 0}), 0.0f);
}

TEST(NLBasisFunction, BoxEndIsInclusiveAndUsesTheLiteralQuarterTurn)
{
    make_model(16, 16, 16, {4, 4, 4});
    // voxel 4 is basis 0's box end: cos(4 * 1.570796327 / 4) = -2.05103e-10 is not 0,
    // so the factor is its square, 4.2067e-20 (cos(pi/2) would give 3.7e-33)
    float v = NL_Basis_function(0, {4, 0, 0});
    EXPECT_NEAR(v, 4.2067e-20f, 1e-23f);
    EXPECT_GT(v, 0.0f);
}

TEST(UpdateNonlinearAlignmentParameters, BuildsTheGridInBasisOrder)
{
    testing::internal::CaptureStdout();  // the first build never smooths, whatever is asked
    make_model(16, 8, 8, {4, 2, 8}, 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(AlignNL.BasisFWHM.x, 4);
    EXPECT_EQ(AlignNL.BasisFWHM.y, 4);
    EXPECT_EQ(AlignNL.BasisFWHM.z, 1);
    EXPECT_EQ(AlignNL.NBasis1D.x, 5);  // 16 voxels, half-width 4
    EXPECT_EQ(AlignNL.NBasis1D.y, 3);  // 8 voxels, half-width 4
    EXPECT_EQ(AlignNL.NBasis1D.z, 9);  // 8 voxels, half-width 1
    ASSERT_EQ(AlignNL.NBasis, 5 * 3 * 9);
    int n = 1 + 5 * 2 + 15 * 4;  // (i, j, k) = (1, 2, 4)
    EXPECT_EQ(AlignNL.iBasis1D[n].x, 1);
    EXPECT_EQ(AlignNL.iBasis1D[n].y, 2);
    EXPECT_EQ(AlignNL.iBasis1D[n].z, 4);
    EXPECT_EQ(AlignNL.Index3DPeak[n].x, 4);
    EXPECT_EQ(AlignNL.Index3DPeak[n].y, 7);  // last even basis of 8 voxels
    EXPECT_EQ(AlignNL.Index3DStart[n].y, 4);
    EXPECT_EQ(AlignNL.Index3DEnd[n].x, 8);
    EXPECT_EQ(AlignNL.Index3DStart[n].z, 3);
    EXPECT_EQ(AlignNL.Index3DPeak[n].z, 4);
    EXPECT_EQ(AlignNL.Index3DEnd[n].z, 5);
    for (int c = 0; c < 3 * AlignNL.NBasis; c++) EXPECT_EQ(AlignNL.Adjust3D[c], 1);
    EXPECT_EQ(AlignNL.increment[n], 1.0f);
    EXPECT_EQ(AlignNL.increment[AlignNL.NBasis + n], 1.0f);
    EXPECT_EQ(AlignNL.increment[2 * AlignNL.NBasis + n], 0.25f);
}

TEST(UpdateNonlinearAlignmentParameters, CoefficientsComeFromTheMapsAtThePeaks)
{
    make_model(16, 16, 16, {4, 4, 4});
    for (int i = 0; i < distort_x.n3d; i++) {
        distort_x.SpaceTime.fData[i] = (float)i;
        distort_y.SpaceTime.fData[i] = (float)-i;
        distort_z.SpaceTime.fData[i] = 0.5f * i;
    }
    float *values = AlignNL.value;
    AlignNL.increment[3] = 0.125f;
    update_nonlinear_alignment_parameters(0);  // unchanged grid: arrays and increments kept
    EXPECT_EQ(AlignNL.value, values);
    EXPECT_EQ(AlignNL.increment[3], 0.125f);
    int nb = AlignNL.NBasis;
    for (int n = 0; n < nb; n += 7) {
        IPOINT3D p = AlignNL.Index3DPeak[n];
        float e = (float)(p.x + 16 * (p.y + 16 * p.z));
        EXPECT_EQ(AlignNL.value[n], e);
        EXPECT_EQ(AlignNL.value[nb + n], -e);
        EXPECT_EQ(AlignNL.value[2 * nb + n], 0.5f * e);
    }
    EXPECT_EQ(distort_x.SpaceTime.fData[100], 100.0f);  // the maps themselves stay as they were
}

TEST(UpdateNonlinearAlignmentParameters, MapsAreTheSumOfTheBasesInTheirBoxes)
{
    make_model(12, 10, 8, {3, 2, 2});
    std::mt19937 rng{4};
    std::uniform_real_distribution<float> u(-1, 1);
    // the last odd basis along x peaks at x = 12, one past the grid: its element is the next
    // row's first, or for the very last basis one in the maps' second time point
    for (int i = 0; i < distort_x.n4d; i++) distort_x.SpaceTime.fData[i] = u(rng);
    update_nonlinear_alignment_parameters(1);
    int nonzero = 0;
    for (int n = 0; n < AlignNL.NBasis; n++) nonzero += AlignNL.value[n] != 0.0f;
    EXPECT_EQ(nonzero, AlignNL.NBasis);
    for (int z = 0; z < 8; z++)
        for (int y = 0; y < 10; y++)
            for (int x = 0; x < 12; x++) ASSERT_NEAR(map_at(&distort_x, x, y, z), x_map_oracle(x, y, z), 1e-5);
}

TEST(UpdateNonlinearAlignmentParameters, GaussianSmoothingSpreadsTheMapsBeforeSampling)
{
    make_model(16, 16, 16, {4, 4, 2});  // half-widths 4, 4, 8
    int b = 1 + 5 * 2;                 // peak (4, 8, 0)
    IPOINT3D p = AlignNL.Index3DPeak[b];
    distort_y.SpaceTime.fData[index4d_stack(&distort_y, p.x, p.y, p.z, 0)] = 10.0f;
    AlignNL.Gaussian_smoothing = 2;
    testing::internal::CaptureStdout();
    update_nonlinear_alignment_parameters(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "smoothed distortion fields by 4 4 8mm\n");
    float spread = AlignNL.value[AlignNL.NBasis + b];
    EXPECT_GT(spread, 0.0f);
    EXPECT_LT(spread, 5.0f);
    EXPECT_GT(map_at(&distort_y, p.x + 1, p.y, p.z), 0.0f);
}

TEST(SetAlignNLValue, ChangesTheMapOnlyInsideTheBasisBox)
{
    make_model(12, 12, 12, {3, 3, 3});
    for (int i = 0; i < original.n3d; i++) template_.SpaceTime.fData[i] = original.SpaceTime.fData[i] = 1.0f;
    Alignment = {};
    Alignment.RigidBody = 1;
    Alignment.value[6] = Alignment.value[7] = Alignment.value[8] = 1.0f;
    Alignment.dimension = template_.dim;
    Alignment.resolution = template_.resolution;
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original);
    std::mt19937 rng{5};
    std::uniform_real_distribution<float> u(-0.3f, 0.3f);
    for (data_stack *s : {&distort_x, &distort_y, &distort_z})
        for (int i = 0; i < s->n3d; i++) s->SpaceTime.fData[i] = u(rng);
    update_nonlinear_alignment_parameters(1);
    for (int i = 0; i < individual.n3d; i++) individual.SpaceTime.fData[i] = -3.0f;
    std::vector<float> before_x(distort_x.SpaceTime.fData, distort_x.SpaceTime.fData + distort_x.n3d);
    std::vector<float> before_y(distort_y.SpaceTime.fData, distort_y.SpaceTime.fData + distort_y.n3d);

    int nb = AlignNL.NBasis, b = nb / 2;
    AlignNL.iBasis = b;
    AlignNL.iCoeff = nb + b;  // the y coefficient of basis b
    float old = AlignNL.value[nb + b];
    Set_AlignNL_Value(nb + b, old + 0.75f);
    EXPECT_EQ(AlignNL.value[nb + b], old + 0.75f);
    for (int z = 0; z < 12; z++)
        for (int y = 0; y < 12; y++)
            for (int x = 0; x < 12; x++) {
                int i = x + 12 * (y + 12 * z);
                EXPECT_EQ(distort_x.SpaceTime.fData[i], before_x[i]);
                if (in_box(b, x, y, z)) {
                    EXPECT_NEAR(distort_y.SpaceTime.fData[i] - before_y[i], 0.75f * NL_Basis_function(b, {x, y, z}), 1e-6f);
                    EXPECT_NE(individual.SpaceTime.fData[i], -3.0f);  // the box was resampled
                } else {
                    EXPECT_EQ(distort_y.SpaceTime.fData[i], before_y[i]);
                    EXPECT_EQ(individual.SpaceTime.fData[i], -3.0f);
                }
            }
}

TEST(CreateBasisFunctionImage, WritesTheCurrentBasisInsideItsBoxOnly)
{
    make_model(16, 16, 16, {2, 2, 2});
    for (int i = 0; i < NL_bases.n3d; i++) NL_bases.SpaceTime.fData[i] = 9.0f;
    int b = 1 + 3 * 1 + 9 * 2;  // per-axis (1, 1, 2): box x, y 0..16, z 8..16
    AlignNL.iBasis = b;
    create_basis_function_image();
    for (int z = 0; z < 16; z++)
        for (int y = 0; y < 16; y += 3)
            for (int x = 0; x < 16; x += 2) {
                float want = z >= 8 ? NL_Basis_function(b, {x, y, z}) : 0.0f;
                ASSERT_EQ(map_at(&NL_bases, x, y, z), want) << x << " " << y << " " << z;
            }
    EXPECT_NEAR(map_at(&NL_bases, 8, 8, 15), NL_Basis_function(b, {8, 8, 15}), 0.0f);
    EXPECT_GT(map_at(&NL_bases, 8, 8, 15), 0.9f);
}

TEST(UpdateNonlinearAlignmentParameters, AGridOfNoCellAlongAnAxisSpansThatAxis)
{
    // A thin template rounds its z cell count to 0: the z half-width is the whole axis, 2.
    make_model(16, 16, 2, {8, 8, 0});
    EXPECT_EQ(AlignNL.BasisFWHM.x, 2);
    EXPECT_EQ(AlignNL.BasisFWHM.z, 2);
    for (int n = 0; n < AlignNL.NBasis; n++) ASSERT_LE(AlignNL.Index3DEnd[n].z, 2) << n;
}

TEST(UpdateNonlinearAlignmentParameters, NewTemplateDimensionsLayTheGridOutAgain)
{
    // 16 voxels, 4 cells: half-width 4. A resolution change halves the template along x
    // (and the maps with it) under the same BasisGrid: half-width rint(8 / 4) = 2 and every
    // box ends within the 8 voxels.
    make_model(16, 16, 16, {4, 4, 4});
    EXPECT_EQ(AlignNL.BasisFWHM.x, 4);
    EXPECT_EQ(nonlinear_grid_current(), 1);
    for (data_stack *s : {&template_, &individual, &original, &NL_bases})
        make_stack(s, 8, 16, 16, 1);
    for (data_stack *s : {&distort_x, &distort_y, &distort_z, &distort_d})
        make_stack(s, 8, 16, 16, 2);
    EXPECT_EQ(nonlinear_grid_current(), 0);
    update_nonlinear_alignment_parameters(1);
    EXPECT_EQ(AlignNL.BasisFWHM.x, 2);
    EXPECT_EQ(AlignNL.BasisFWHM.y, 4);
    int widest = 0;
    for (int n = 0; n < AlignNL.NBasis; n++)
        if (AlignNL.Index3DEnd[n].x > widest) widest = AlignNL.Index3DEnd[n].x;
    EXPECT_EQ(widest, 8);
    EXPECT_EQ(nonlinear_grid_current(), 1);
}
