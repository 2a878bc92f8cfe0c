// The affine parameter model: matrix composition, re-orientation, increments, the printed
// parameter table, start-up defaults, and pointing the display at the chosen volume.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "align_model.h"
#include "display_hooks.h"
#include "globals.h"
#include "test_support.h"
#include "volume.h"

namespace {

void reset_parameters(void)
{
    Alignment = {};
    Alignment.RigidBody = 1;
    Alignment.value[6] = Alignment.value[7] = Alignment.value[8] = 1.0f;
}

void expect_block(const float m[4][4], const float want[3][3], float tol)
{
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) EXPECT_NEAR(m[i][j], want[i][j], tol) << "(" << i << "," << j << ")";
}

// Template and individual of the given sizes, with the maps the start-up allocates.
void make_volumes(int nx, int ny, int nz, float rx, float ry, float rz, int onx, POINT3D ores)
{
    make_stack(&template_, nx, ny, nz, 1, rx, ry, rz);
    make_stack(&individual, nx, ny, nz, 1, rx, ry, rz);
    make_stack(&distort_x, nx, ny, nz, 2, rx, ry, rz);
    make_stack(&distort_y, nx, ny, nz, 2, rx, ry, rz);
    make_stack(&distort_z, nx, ny, nz, 2, rx, ry, rz);
    make_stack(&distort_d, nx, ny, nz, 2, rx, ry, rz);
    make_stack(&NL_bases, nx, ny, nz, 1, rx, ry, rz);
    original_unfiltered = {};
    original_unfiltered.dim = {onx, 4, 4};
    original_unfiltered.resolution = ores;
}

std::string printed(int header, int level)
{
    testing::internal::CaptureStdout();
    print_parameter_set(header, level);
    return testing::internal::GetCapturedStdout();
}

int build_calls, build_arg;
void count_build(int arg)
{
    build_calls++;
    build_arg = arg;
}

}  // namespace

TEST(DefineAffineMatrix, DefaultsGiveTheIdentity)
{
    reset_parameters();
    define_affine_matrix();
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) EXPECT_EQ(Alignment.Affine[i][j], i == j ? 1.0f : 0.0f);
}

TEST(DefineAffineMatrix, TranslationsEnterWithAMinusSign)
{
    reset_parameters();
    Alignment.value[0] = 5.0f;
    Alignment.value[2] = -2.5f;
    define_affine_matrix();
    EXPECT_EQ(Alignment.Affine[0][3], -5.0f);
    EXPECT_EQ(Alignment.Affine[1][3], 0.0f);
    EXPECT_EQ(Alignment.Affine[2][3], 2.5f);
}

TEST(DefineAffineMatrix, InflationsAndSkewsEnterAsReciprocals)
{
    reset_parameters();
    Alignment.value[6] = 2.0f;
    Alignment.value[8] = 4.0f;
    Alignment.value[9] = 0.5f;   // skew_xy / size-x
    Alignment.value[11] = 2.0f;  // skew_yz / size-y
    define_affine_matrix();
    const float want[3][3] = {{0.5f, 0.25f, 0.0f}, {0.0f, 1.0f, 2.0f}, {0.0f, 0.0f, 0.25f}};
    expect_block(Alignment.Affine, want, 0.0f);
}

TEST(DefineAffineMatrix, EachRigidAngleRotatesInItsPlane)
{
    reset_parameters();
    Alignment.value[3] = 90.0f;  // phi_xy: x -> y
    define_affine_matrix();
    const float xy[3][3] = {{0, -1, 0}, {1, 0, 0}, {0, 0, 1}};
    expect_block(Alignment.Affine, xy, 1e-6f);

    reset_parameters();
    Alignment.value[4] = 30.0f;  // phi_xz acts on y and z
    define_affine_matrix();
    const float c = (float)cos(M_PI / 6), s = 0.5f;
    const float xz[3][3] = {{1, 0, 0}, {0, c, s}, {0, -s, c}};
    expect_block(Alignment.Affine, xz, 1e-6f);

    reset_parameters();
    Alignment.value[5] = 30.0f;  // phi_yz acts on x and z
    define_affine_matrix();
    const float yz[3][3] = {{c, 0, s}, {0, 1, 0}, {-s, 0, c}};
    expect_block(Alignment.Affine, yz, 1e-6f);
}

TEST(DefineAffineMatrix, RigidRotationIsOrthonormalForAnyAngles)
{
    reset_parameters();
    Alignment.value[3] = 23.0f;
    Alignment.value[4] = -41.0f;
    Alignment.value[5] = 67.0f;
    define_affine_matrix();
    const float(*a)[4] = Alignment.Affine;
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) {
            double dot = 0;
            for (int k = 0; k < 3; k++) dot += a[i][k] * a[j][k];
            EXPECT_NEAR(dot, i == j ? 1.0 : 0.0, 1e-6);
        }
    double det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) - a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                 a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    EXPECT_NEAR(det, 1.0, 1e-6);
    EXPECT_NEAR(a[2][1], -sin(-41.0 * M_PI / 180), 1e-6);  // row 2 = (-c1 s2, -s1, c2 c1)
}

TEST(DefineAffineMatrix, RigidBodyZeroTurnsTheOtherAnglesIntoTilts)
{
    reset_parameters();
    Alignment.RigidBody = 0;
    Alignment.value[3] = 90.0f;
    Alignment.value[4] = 45.0f;
    Alignment.value[5] = 30.0f;
    define_affine_matrix();
    const float want[3][3] = {{0, -1, (float)tan(M_PI / 6)}, {1, 0, 1}, {0, 0, 1}};
    expect_block(Alignment.Affine, want, 1e-6f);
    EXPECT_EQ(Alignment.Affine[2][0], 0.0f);
    EXPECT_EQ(Alignment.Affine[2][1], 0.0f);
    EXPECT_EQ(Alignment.Affine[2][2], 1.0f);
}

TEST(DefineAffineMatrix, OrientIsAppliedBeforeTheInflations)
{
    reset_parameters();
    Alignment.OrientRotation = {0, 0, 1};
    Alignment.value[6] = 2.0f;
    define_affine_matrix();
    // S * Orient = diag(1/2, 1, 1) * rows (0,-1,0), (1,0,0), (0,0,1)
    const float want[3][3] = {{0, -0.5f, 0}, {1, 0, 0}, {0, 0, 1}};
    expect_block(Alignment.Affine, want, 0.0f);
}

TEST(CalculateOrientationRotation, QuarterTurnsAboutEachAxis)
{
    reset_parameters();
    Alignment.OrientRotation = {0, 0, 1};
    calculate_orientation_rotation();
    const float z1[3][3] = {{0, -1, 0}, {1, 0, 0}, {0, 0, 1}};
    expect_block(Alignment.Orient, z1, 0.0f);

    Alignment.OrientRotation = {1, 0, 0};
    calculate_orientation_rotation();
    const float x1[3][3] = {{1, 0, 0}, {0, 0, -1}, {0, 1, 0}};
    expect_block(Alignment.Orient, x1, 0.0f);

    Alignment.OrientRotation = {0, -1, 0};
    calculate_orientation_rotation();
    const float ym1[3][3] = {{0, 0, -1}, {0, 1, 0}, {1, 0, 0}};
    expect_block(Alignment.Orient, ym1, 0.0f);

    Alignment.OrientRotation = {0, 0, 2};
    calculate_orientation_rotation();
    const float z2[3][3] = {{-1, 0, 0}, {0, -1, 0}, {0, 0, 1}};
    expect_block(Alignment.Orient, z2, 0.0f);

    // Rx * Ry: a quarter turn about y first, then about x
    Alignment.OrientRotation = {1, 1, 0};
    calculate_orientation_rotation();
    const float xy[3][3] = {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}};
    expect_block(Alignment.Orient, xy, 0.0f);
}

TEST(CalculateOrientationRotation, ThreeQuarterTurnsAreDegenerate)
{
    reset_parameters();
    Alignment.OrientRotation = {0, 0, 3};
    calculate_orientation_rotation();
    const float want[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 1}};
    expect_block(Alignment.Orient, want, 0.0f);
    float c = 5, s = 5;
    define_cosine_sine(-2, &c, &s);
    EXPECT_EQ(c, 0.0f);
    EXPECT_EQ(s, 0.0f);
}

TEST(CalculateOrientationRotation, SwapZMirrorsTheZAxis)
{
    reset_parameters();
    Alignment.OrientSwapZ = 1;
    calculate_orientation_rotation();
    const float want[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, -1}};
    expect_block(Alignment.Orient, want, 0.0f);
    // the mirror is applied first: Rx(1) * F is Rx(1) with its z column negated
    Alignment.OrientRotation = {1, 0, 0};
    calculate_orientation_rotation();
    const float xf[3][3] = {{1, 0, 0}, {0, 0, 1}, {0, 1, 0}};
    expect_block(Alignment.Orient, xf, 0.0f);
}

TEST(GetStartingIncrements, BaseStepIsTheSmallerOfVoxelSizeAndASixteenthOfTheView)
{
    template_ = {};
    template_.resolution = {1.0f, 1.0f, 1.0f};
    template_.fov = {256.0f, 300.0f, 256.0f};  // b = 1
    float inc[12];
    get_starting_increments(3, inc);
    EXPECT_EQ(inc[2], 4.0f);
    EXPECT_EQ(inc[5], 10.0f);
    EXPECT_FLOAT_EQ(inc[11], 0.1f);
    template_.resolution = {3.0f, 2.0f, 3.0f};
    template_.fov = {48.0f, 32.0f, 60.0f};  // f / 16 = 2 < 3
    const int level[3] = {2, 1, 0};
    const float translation[3] = {4.0f, 2.0f, 0.5f}, rotation[3] = {5.0f, 2.0f, 0.5f}, other[3] = {0.05f, 0.02f, 0.01f};
    for (int k = 0; k < 3; k++) {
        get_starting_increments(level[k], inc);
        EXPECT_EQ(inc[1], translation[k]) << level[k];
        EXPECT_EQ(inc[4], rotation[k]) << level[k];
        EXPECT_FLOAT_EQ(inc[9], other[k]) << level[k];
    }
}

TEST(GetStartingIncrements, OtherLevelsLeaveTheArrayAlone)
{
    make_stack(&template_, 16, 16, 16, 1);
    float inc[12];
    for (float &v : inc) v = -7.0f;
    get_starting_increments(4, inc);
    get_starting_increments(-1, inc);
    for (float v : inc) EXPECT_EQ(v, -7.0f);
    AlignAid = {};
    action_set_increments(3);
    EXPECT_EQ(AlignAid.increment[0], 4.0f);  // b = min(1, 16/16)
    EXPECT_EQ(AlignAid.increment[3], 10.0f);
}

TEST(PrintParameterSet, HeaderValuesDittosAndFrozenMarks)
{
    make_volumes(8, 8, 8, 1, 1, 1, 64, {1, 1, 1});
    initialize_alignment();
    const std::string title =
        "level   x,      y,      z, phi_xy, phi_xz, phi_yz, size-x, size-y, size-z,skew_xy,skew_xz,skew_yz\n";
    EXPECT_EQ(printed(1, 3), title +
                                 " 3)   0.000,  0.000,  0.000,  0.000,  0.000,  0.000,  1.000,  1.000,  1.000,"
                                 "  0.000,  0.000,  0.000\n");
    Alignment.value[1] = -12.3456f;
    AlignAid.increment[4] = 0.0f;
    EXPECT_EQ(printed(0, 2), " 2)      \"\",-12.346,     \"\",     \"\",     **,     \"\",     \"\",     \"\","
                             "     \"\",     \"\",     \"\",     \"\"\n");
    // a frozen parameter prints its mark even when unchanged; parameter 0 never does
    AlignAid.increment[0] = 0.0f;
    Alignment.value[0] = 1.5f;
    EXPECT_EQ(printed(0, 1), " 1)   1.500,     \"\",     \"\",     \"\",     **,     \"\",     \"\",     \"\","
                             "     \"\",     \"\",     \"\",     \"\"\n");
}

TEST(PrintParameterSet, ParameterZeroIsNeverMarkedFrozen)
{
    make_volumes(8, 8, 8, 1, 1, 1, 64, {1, 1, 1});
    initialize_alignment();
    for (float &v : AlignAid.increment) v = 0.0f;
    std::string line = printed(1, 0);
    EXPECT_EQ(line.substr(line.find('\n') + 1, 19), " 0)   0.000,     **");
    // header 2 prints the title, then the first value without level or ditto
    line = printed(2, 9);
    EXPECT_EQ(line.substr(line.find('\n') + 1, 19), "     0.000,     **,");
}



TEST(InitializeAlignment, SetsEveryDefault)
{
    make_volumes(16, 8, 4, 1.0f, 2.0f, 4.0f, 64, {1, 1, 1});
    template_.origin = {1, 2, 3};
    template_.registration = REG_PW_RAT;
    Alignment.value[6] = 5;
    initialize_alignment();
    EXPECT_STREQ(AlignAid.name[0], "  x");
    EXPECT_STREQ(AlignAid.name[11], "skew_yz");
    EXPECT_STREQ(AlignAid.name[14], "Z field");
    for (int j = 0; j < 12; j++) {
        float want = (j >= 6 && j <= 8) ? 1.0f : 0.0f;
        EXPECT_EQ(Alignment.value[j], want);
        EXPECT_EQ(AlignAid.saved_value[j], want);
    }
    EXPECT_EQ(AlignAid.increment[0], 2.0f);  // level 2: 2 * min(4, 16/16)
    EXPECT_EQ(Alignment.dimension.z, 4);
    EXPECT_EQ(Alignment.resolution.y, 2.0f);
    EXPECT_EQ(Alignment.origin.z, 3.0f);
    EXPECT_EQ(Alignment.registration, REG_PW_RAT);
    for (int i = 0; i < template_.n3d; i++) ASSERT_EQ(AlignAid.mask[i], 0.0f);
    // fov 16 mm on every axis: 8 cells of 2 mm along x, hence 8 along y and z too; the grid
    // is built with half-widths rint(16/8), rint(8/8) and rint(4/8) raised to 1
    EXPECT_EQ(AlignNL.BasisGrid.y, 8);
    EXPECT_EQ(AlignNL.BasisGrid.z, 8);
    EXPECT_EQ(AlignNL.BasisFWHM.x, 2);
    EXPECT_EQ(AlignNL.BasisFWHM.z, 1);
}

TEST(InitializeAlignment, SubSamplingFollowsTheIndividualsWidth)
{
    const int widths[] = {256, 128, 64, 63, 32, 31, 512, 2048};
    const int steps[] = {6, 4, 2, 1, 1, 1, 8, 8};
    for (int k = 0; k < 8; k++) {
        make_volumes(8, 8, 8, 1, 1, 1, widths[k], {1, 1, 1});
        initialize_alignment();
        EXPECT_EQ(AlignAid.SubSampleSetting.x, steps[k]) << widths[k];
        EXPECT_EQ(AlignAid.SubSampleSetting.y, steps[k]) << widths[k];
        EXPECT_EQ(AlignAid.SubSample.x, 1);
    }
}

TEST(InitializeAlignment, SubSamplingOfYAndZMatchesTheMillimetresOfX)
{
    // 64 wide at 5 mm: step 2 = 10 mm; y at 3 mm -> 3.33 -> 3; z at 4 mm -> 2.5 -> 2 (ties to even)
    make_volumes(8, 8, 8, 1, 1, 1, 64, {5, 3, 4});
    initialize_alignment();
    EXPECT_EQ(AlignAid.SubSampleSetting.x, 2);
    EXPECT_EQ(AlignAid.SubSampleSetting.y, 3);
    EXPECT_EQ(AlignAid.SubSampleSetting.z, 2);
    // coarse axes never go below 1
    make_volumes(8, 8, 8, 1, 1, 1, 40, {1, 5, 9});
    initialize_alignment();
    EXPECT_EQ(AlignAid.SubSampleSetting.y, 1);
    EXPECT_EQ(AlignAid.SubSampleSetting.z, 1);
}

TEST(UpdateDisplaySet, ChoosesTheRangeOfParametersShown)
{
    AlignAid = {};
    const int sets[4] = {1, 2, 0, 5}, last[4] = {11, 8, 9, 9};
    for (int k = 0; k < 4; k++) {
        AlignAid.DisplaySet = sets[k];
        update_display_set();
        EXPECT_EQ(AlignAid.iLastParShown, last[k]) << sets[k];  // an unknown set changes nothing
    }
}

TEST(PointMosaicToStackData, ChoosesVolumeTimePointAndScale)
{
    make_volumes(4, 4, 4, 1, 1, 1, 32, {1, 1, 1});
    make_stack(&individual, 4, 4, 4, 3);
    make_stack(&template_, 4, 4, 4, 2);
    individual_scale_min = 1; individual_scale_max = 2;
    template_scale_min = 3; template_scale_max = 4;
    distort_scale_min = -5; distort_scale_max = 5;
    graph = {};
    graph.iTime = 2;
    iTime_Template = 1;
    AlignAid = {};
    AlignAid.DisplayType = 0;
    point_mosaic_to_stack_data();
    EXPECT_EQ(mosaic.stack, &individual);
    EXPECT_EQ(mosaic.iTime, 2);
    EXPECT_EQ(mosaic.fSpaceMatrix, individual.SpaceTime.fData + 2 * 64);
    EXPECT_EQ(image_scale_max, 2.0f);
    AlignAid.DisplayType = 1;
    point_mosaic_to_stack_data();
    EXPECT_EQ(mosaic.stack, &template_);
    EXPECT_EQ(mosaic.fSpaceMatrix, template_.SpaceTime.fData + 64);
    EXPECT_EQ(image_scale_min, 3.0f);
    AlignAid.DisplayType = 4;
    point_mosaic_to_stack_data();
    EXPECT_EQ(mosaic.stack, &distort_z);
    EXPECT_EQ(mosaic.iTime, 0);
    EXPECT_EQ(mosaic.fSpaceMatrix, distort_z.SpaceTime.fData);
    EXPECT_EQ(image_scale_min, -5.0f);
}

TEST(PointMosaicToStackData, BasisImageIsRebuiltOnlyWhenAsked)
{
    make_volumes(8, 8, 8, 1, 1, 1, 32, {1, 1, 1});
    initialize_alignment();
    AlignNL.iBasis = AlignNL.NBasis / 2;
    AlignAid.DisplayType = 5;
    point_mosaic_to_stack_data();
    EXPECT_EQ(mosaic.stack, &NL_bases);
    float total = 0;
    for (int i = 0; i < NL_bases.n3d; i++) total += NL_bases.SpaceTime.fData[i];
    EXPECT_EQ(total, 0.0f);
    AlignNL.ViewBasis = 1;
    point_mosaic_to_stack_data();
    for (int i = 0; i < NL_bases.n3d; i++) total += NL_bases.SpaceTime.fData[i];
    EXPECT_GT(total, 0.0f);
}

TEST(RescaleImageSettings, StoresTheScaleOfTheKindShown)
{
    AlignAid = {};
    const int types[3] = {1, 5, 0};
    float *maxima[3] = {&template_scale_max, &distort_scale_max, &individual_scale_max};
    for (int k = 0; k < 3; k++) {
        AlignAid.DisplayType = types[k];
        image_scale_max = 11.0f + k;
        rescale_image_settings();
        EXPECT_EQ(*maxima[k], 11.0f + k) << types[k];
    }
    EXPECT_EQ(template_scale_max, 11.0f);
}

TEST(ConvertActivationScale, TurnsNaturalLogarithmsIntoBaseTenOnTheChosenTimePoints)
{
    make_stack(&activation_stack, 2, 1, 1, 3);
    for (int i = 0; i < 6; i++) activation_stack.SpaceTime.fData[i] = (float)log(100.0);
    convert_activation_scale(1, 2);
    EXPECT_FLOAT_EQ(activation_stack.SpaceTime.fData[0], (float)log(100.0));
    EXPECT_NEAR(activation_stack.SpaceTime.fData[2], 2.0f, 1e-4f);
    EXPECT_NEAR(activation_stack.SpaceTime.fData[5], 2.0f, 1e-4f);
}

TEST(UpdateAlignment, ResamplesAndRedrawsWithTheInformationLine)
{
    make_volumes(6, 6, 6, 1, 1, 1, 32, {1, 1, 1});
    make_stack(&original, 6, 6, 6, 1);
    initialize_alignment();
    for (int i = 0; i < 216; i++) template_.SpaceTime.fData[i] = original.SpaceTime.fData[i] = 1.0f + i;
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original);
    DisplayHooks = {};
    DisplayHooks.build_image_display = count_build;
    build_calls = 0;
    update_alignment(1);
    EXPECT_EQ(build_calls, 1);
    EXPECT_EQ(build_arg, 1);
    EXPECT_NEAR(individual.SpaceTime.fData[100], 101.0f, 1e-3f);
    DisplayHooks = {};
}
