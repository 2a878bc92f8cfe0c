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

}  // namespace

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

TEST(CalculateOrientationRotation, TurnCountsAtTheEndsOfTheIntRangeAreDegenerate)
{
    // Counts an edited align.com can hold: neither is -1, 0, 1 or 2 quarter turns, so both
    // give cosine = sine = 0 (times 90 they would wrap round to -90 and to 0 degrees).
    float c = 5, s = 5;
    define_cosine_sine(2147483647, &c, &s);
    EXPECT_EQ(c, 0.0f);
    EXPECT_EQ(s, 0.0f);
    define_cosine_sine(-2147483647 - 1, &c, &s);
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

TEST(InitializeAlignment, SubSamplingStaysWithinTheTemplateForExtremeVoxelSizes)
{
    // 64 wide at 1 mm: x step 2 = 2 mm. y voxels of 1e-30 mm give a ratio beyond any int: the
    // step is held at the template's 8 voxels along y; z voxels of no size (NaN) give 1.
    make_volumes(8, 8, 8, 1, 1, 1, 64, {1.0f, 1e-30f, NAN});
    initialize_alignment();
    EXPECT_EQ(AlignAid.SubSampleSetting.x, 2);
    EXPECT_EQ(AlignAid.SubSampleSetting.y, 8);
    EXPECT_EQ(AlignAid.SubSampleSetting.z, 1);
    // 256 wide at 1 mm: x step 6; a template of 4 x 3 x 8 voxels bounds x at 4 and y at 3
    // (6 mm over 1 mm voxels), z at 4 mm gives 1.5 -> 2.
    make_volumes(4, 3, 8, 1, 1, 1, 256, {1.0f, 1.0f, 4.0f});
    initialize_alignment();
    EXPECT_EQ(AlignAid.SubSampleSetting.x, 4);
    EXPECT_EQ(AlignAid.SubSampleSetting.y, 3);
    EXPECT_EQ(AlignAid.SubSampleSetting.z, 2);
}
