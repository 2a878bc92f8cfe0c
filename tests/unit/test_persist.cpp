// Tests of "align.com": the lines written, the checks and messages of a recall, and the
// deformation line.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "fixture_writers.h"
#include "globals.h"
#include "numerics.h"
#include "persist.h"
#include "test_support.h"

namespace {

// A template geometry of 10 x 12 x 8 voxels of 2 mm, origin (-9, 11, 7.5).
void set_geometry(void)
{
    data_stack *maps[3] = {&distort_x, &distort_y, &distort_z};
    for (data_stack *m : maps) {
        free_stack(m);
        m->n3d = 0;
    }
    Alignment.dimension = {10, 12, 8};
    Alignment.resolution = {2.0f, 2.0f, 2.0f};
    Alignment.origin = {-9.0f, 11.0f, 7.5f};
    Alignment.direction = {1.0f, -1.0f, 1.0f};
    Alignment.RigidBody = 1;
    Alignment.registration = 0;
    Alignment.OrientRotation = {0, 0, 0};
    Alignment.OrientSwapZ = 0;
    Alignment.WrapAround = {0, 0, 0};
    for (int j = 0; j < 12; j++) {
        Alignment.value[j] = (j >= 6 && j <= 8) ? 1.0f : 0.0f;
        AlignAid.Adjust[j] = 0;
        AlignAid.increment[j] = 1.0f;
    }
}

const char *kHead =
    "set registration-matrix 10 12 8\n"
    "set registration-resolution 2 2 2\n"
    "set registration-origin -9 11 7.5\n"
    "set registration-direction 1 -1 1\n";

std::string recall_output(int *status)
{
    testing::internal::CaptureStdout();
    *status = recall_alignment_parameters();
    return testing::internal::GetCapturedStdout();
}

std::string save_output(int *status)
{
    testing::internal::CaptureStdout();
    *status = save_alignment_parameters();
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(Save, WritesTheLinesInOrderUnderTheirConditions)
{
    ScopedTempDir dir;
    set_geometry();
    Alignment.RigidBody = 0;
    Alignment.registration = REG_PW_RAT;
    Alignment.OrientRotation = {1, 0, -1};
    Alignment.OrientSwapZ = 1;
    Alignment.WrapAround = {0, 1, 0};
    float v[12] = {1.5f, -2.0f, 0.25f, 3.0f, 0.0f, -1.0f, 1.1f, 0.9f, 1.0f, 0.01f, 0.0f, -0.02f};
    for (int j = 0; j < 12; j++) Alignment.value[j] = v[j];
    int status;
    std::string out = save_output(&status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "Alignment parameters were saved in file align.com\n");
    EXPECT_EQ(read_text_file("align.com"),
              "set registration-type deck-of-cards\n"
              "set registration-space PW-rat\n" +
                  std::string(kHead) +
                  "set registration-orientation 1 0 -1 1\n"
                  "set registration-wrapping 0 1 0\n"
                  "set registration-translations 1.5 -2 0.25\n"
                  "set registration-rotations 3 0 -1\n"
                  "set registration-inflations 1.1 0.9 1\n"
                  "set registration-skews 0.01 0 -0.02\n");
}

TEST(Save, ANaNInAMapWritesTheDistortionLine)
{
    ScopedTempDir dir;
    set_geometry();
    make_stack(&template_, 4, 4, 4, 1, 2.0f, 2.0f, 2.0f);
    make_stack(&distort_x, 4, 4, 4, 2, 2.0f, 2.0f, 2.0f);
    make_stack(&distort_y, 4, 4, 4, 2, 2.0f, 2.0f, 2.0f);
    make_stack(&distort_z, 4, 4, 4, 2, 2.0f, 2.0f, 2.0f);
    distort_z.SpaceTime.fData[63] = NAN;
    int status;
    std::string out = save_output(&status);
    EXPECT_EQ(status, 0);
    std::string expected_name = dir.path + "/distortions.nii";
    EXPECT_NE(out.find("cwd = " + dir.path + "\n"), std::string::npos);
    std::string text = read_text_file("align.com");
    EXPECT_NE(text.find("set registration-distortions " + expected_name + "\n"), std::string::npos);
}

namespace {

// Maps of n x n x n voxels on a 2 mm template, each voxel a distinct value plus `offset`.
void make_maps(int n, float offset)
{
    make_stack(&template_, n, n, n, 1, 2.0f, 2.0f, 2.0f);
    for (data_stack *m : {&distort_x, &distort_y, &distort_z}) {
        make_stack(m, n, n, n, 2, 2.0f, 2.0f, 2.0f);
        for (int i = 0; i < m->n3d; i++) m->SpaceTime.fData[i] = offset + 0.5f * i;
    }
}

}  // namespace

TEST(Save, AFullDiskKeepsAlignComAndTheMapsAndFails)
{
    ScopedTempDir dir;
    set_geometry();
    make_maps(8, 1.0f);  // distortions.nii: 352 + 3 * 512 * 4 = 6496 bytes
    int status;
    save_output(&status);
    ASSERT_EQ(status, 0);
    std::string old_com = read_text_file("align.com"), old_maps = read_text_file("distortions.nii");
    ASSERT_EQ(old_maps.size(), 6496u);

    Alignment.value[0] = 7.0f;
    make_maps(8, 2.0f);
    std::string out;
    {
        ScopedFileSizeLimit disk(4096);  // room for align.com, not for the maps
        out = save_output(&status);
    }
    EXPECT_EQ(status, 1);
    std::string maps = dir.path + "/distortions.nii";
    EXPECT_NE(out.find("Error: " + maps + " could not be written (File too large); the previous file is kept.\n"),
              std::string::npos) << out;
    EXPECT_NE(out.find("Error writing file " + maps + "\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("were saved"), std::string::npos);
    EXPECT_EQ(read_text_file("align.com"), old_com);
    EXPECT_EQ(read_text_file("distortions.nii"), old_maps);
    EXPECT_EQ(leftover_temporaries(), 0);
}

TEST(Save, MapsWrittenInFullAreNotRenamedWhenAlignComFails)
{
    // One voxel: the maps (364 bytes) are smaller than align.com with its distortion line, so
    // a disk of 400 bytes a file takes the maps but not align.com: neither file may change.
    ScopedTempDir dir;
    set_geometry();
    Alignment.RigidBody = 0;  // three more lines
    Alignment.registration = REG_PW_RAT;
    Alignment.WrapAround = {1, 0, 0};
    make_maps(1, 1.0f);
    int status;
    save_output(&status);
    ASSERT_EQ(status, 0);
    std::string old_com = read_text_file("align.com"), old_maps = read_text_file("distortions.nii");
    ASSERT_EQ(old_maps.size(), 364u);
    ASSERT_GT(old_com.size(), 400u);

    make_maps(1, 5.0f);
    std::string out;
    {
        ScopedFileSizeLimit disk(400);
        out = save_output(&status);
    }
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("Error: align.com could not be written (File too large); the previous file is kept.\n"),
              std::string::npos) << out;
    EXPECT_EQ(read_text_file("distortions.nii"), old_maps);
    EXPECT_EQ(read_text_file("align.com"), old_com);
    EXPECT_EQ(leftover_temporaries(), 0);
}

TEST(Recall, RoundTripRestoresValuesAndSetsAdjustFlags)
{
    ScopedTempDir dir;
    set_geometry();
    Alignment.RigidBody = 0;
    Alignment.registration = REG_PW_RAT_OLD;
    Alignment.OrientRotation = {-1, 2, 0};
    Alignment.WrapAround = {1, 0, 1};
    float v[12] = {1.5f, 0.0f, -7.25f, 0.0f, 2.5f, 0.0f, 1.0f, 0.0f, 1.25f, 0.0f, 0.0f, 0.125f};
    for (int j = 0; j < 12; j++) Alignment.value[j] = v[j];
    int status;
    save_output(&status);
    ASSERT_EQ(status, 0);

    set_geometry();  // forget everything but the geometry
    AlignAid.Adjust[1] = 1;
    std::string out = recall_output(&status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out.rfind("Alignment parameters were recalled from file align.com\n", 0), 0u);
    for (int j = 0; j < 12; j++) EXPECT_EQ(Alignment.value[j], v[j]) << j;
    EXPECT_EQ(Alignment.RigidBody, 0);
    EXPECT_EQ(Alignment.registration, REG_PW_RAT_OLD);
    EXPECT_EQ(Alignment.OrientRotation.x, -1);
    EXPECT_EQ(Alignment.OrientRotation.y, 2);
    EXPECT_EQ(Alignment.WrapAround.z, 1);
    // non-zero values switch their flags on; zero values keep theirs (1 was on before)
    int expected_adjust[12] = {1, 1, 1, 0, 1, 0, 1, 0, 1, 0, 0, 1};
    for (int j = 0; j < 12; j++) EXPECT_EQ(AlignAid.Adjust[j], expected_adjust[j]) << j;
}

TEST(Recall, BadValuesPrintTheirMessages)
{
    struct Case {
        const char *line, *message;
    } cases[] = {
        {"set registration-matrix 10 12\n", "Error reading the value of `set registration-orientation'\n"},
        {"set registration-matrix 10 12 9\n",
         "Error: the new matrix size (10,12,9) does not match the template (10,12,8)\n"},
        {"set registration-resolution 2 2\n", "Error reading the value of `set registration-resolution'\n"},
        {"set registration-resolution 2 2 2.5\n",
         "Error: the new resolution (2,2,2.5) does not match the template (2,2,2)\n"},
        {"set registration-origin -9 11 x\n", "Error reading the value of `set registration-origin'\n"},
        {"set registration-origin -9 11 7.25\n",
         "Error: the new origin (-9,11,7.25) does not match the template (-9,11,7.5)\n"},
        {"set registration-direction 1 1\n", "Error reading the value of `set registration-direction'\n"},
        {"set registration-direction 1 1 1\n",
         "Error: the new direction (1,1,1) does not match the template (1,-1,1)\n"},
        {"set registration-orientation 0 0 0\n", "Error reading the value of `set registration-orientation'\n"},
        {"set registration-wrapping 1\n", "Error reading the value of `set registration-wrapping'\n"},
        {"set registration-translations 1 2\n", "Error reading the value of `set registration-translations'\n"},
        {"set registration-rotations a b c\n", "Error reading the value of `set registration-rotations'\n"},
        {"set registration-inflations 1 1\n", "Error reading the value of `set registration-inflations'\n"},
        {"set registration-skews 0 0\n", "Error reading the value of `set registration-inflations'\n"},
        {"set registration-skews\n", "Error reading the value of `set registration-inflations'\n"},
    };
    for (const Case &c : cases) {
        ScopedTempDir dir;
        set_geometry();
        write_text_file("align.com", c.line);
        int status;
        EXPECT_EQ(recall_output(&status), c.message) << c.line;
        EXPECT_EQ(status, 1) << c.line;
    }
}

TEST(Recall, NumbersThatAreNotFiniteAreReadErrorsOfTheirKeyword)
{
    // Not stored either, so that no search starts from them; the skews keep the inflations text.
    struct Case {
        const char *line, *message;
        int first;
    } cases[] = {
        {"set registration-translations nan 0 0\n", "Error reading the value of `set registration-translations'\n", 0},
        {"set registration-rotations 0 inf 0\n", "Error reading the value of `set registration-rotations'\n", 3},
        {"set registration-inflations 1 1 1e39\n", "Error reading the value of `set registration-inflations'\n", 6},
        {"set registration-skews 0 0 -nan\n", "Error reading the value of `set registration-inflations'\n", 9},
    };
    for (const Case &c : cases) {
        ScopedTempDir dir;
        set_geometry();
        for (int j = 0; j < 12; j++) Alignment.value[j] = 0.5f * j;
        write_text_file("align.com", c.line);
        int status;
        EXPECT_EQ(recall_output(&status), c.message) << c.line;
        EXPECT_EQ(status, 1) << c.line;
        for (int j = c.first; j < c.first + 3; j++) EXPECT_EQ(Alignment.value[j], 0.5f * j) << c.line << j;
    }
    // 1e30 is a float: it is read and kept.
    ScopedTempDir dir;
    set_geometry();
    write_text_file("align.com", "set registration-translations 1e30 0 0\n");
    int status;
    recall_output(&status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Alignment.value[0], 1e30f);
}

TEST(Recall, NaNGeometryNeverMatches)
{
    ScopedTempDir dir;
    set_geometry();
    Alignment.resolution.y = NAN;
    int status;
    save_output(&status);  // writes "nan" for y
    std::string out = recall_output(&status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("Error: the new resolution (2,nan,2) does not match the template (2,nan,2)"),
              std::string::npos);
}

TEST(Recall, FirstWordNotChecked)
{
    ScopedTempDir dir;
    set_geometry();
    write_text_file("align.com",
                    "# saved by hand\n"
                    "\n"
                    "setenv registration-skews 0.5 0 0 # trailing comment\n"
                    "set registration-colour blue\n"
                    "set\tregistration-translations\t4 5 6\n"
                    "   \t  \n"
                    "let registration-type rigid\n"
                    "set registration-rotations 1 2 3\n"
                    "set registration-matrix 10 12 8\n");
    Alignment.RigidBody = 0;
    int status;
    recall_output(&status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Alignment.value[9], 0.5f);
    EXPECT_EQ(Alignment.value[0], 4.0f);
    EXPECT_EQ(Alignment.value[2], 6.0f);
    EXPECT_EQ(Alignment.value[5], 3.0f);
    EXPECT_EQ(Alignment.RigidBody, 1);  // any word but deck-of-cards
}

TEST(Recall, StopsAtTheFirstErrorKeepingEarlierValues)
{
    ScopedTempDir dir;
    set_geometry();
    write_text_file("align.com",
                    "set registration-translations 1 2 3\n"
                    "set registration-orientation 1 0 0 1\n"
                    "set registration-rotations 4 5\n"
                    "set registration-skews 7 8 9\n");
    int status;
    std::string out = recall_output(&status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "Error reading the value of `set registration-rotations'\n");
    EXPECT_EQ(Alignment.value[1], 2.0f);
    EXPECT_EQ(Alignment.OrientSwapZ, 1);
    EXPECT_EQ(Alignment.value[9], 0.0f);
    EXPECT_EQ(AlignAid.Adjust[1], 0);  // the flags are only set after a complete recall
}

TEST(Recall, DistortionMapOfAnotherSizeIsRefused)
{
    ScopedTempDir dir;
    set_geometry();
    make_stack(&template_, 5, 5, 5, 1);
    std::vector<float> zeros(4 * 4 * 4 * 2, 0.0f);
    ASSERT_TRUE(write_nifti_float("maps.nii", 4, 4, 4, 2, 1.0f, zeros.data()));
    write_text_file("align.com", "set registration-translations 1 1 1\nset registration-distortions " + dir.path +
                                     "/maps.nii\n");
    int status;
    std::string out = recall_output(&status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("Error: the distortion map dimensions (4,4,4) don't match the template (5,5,5)\n"),
              std::string::npos);
    EXPECT_EQ(Alignment.value[0], 1.0f);
}

TEST(Recall, ANamedFileIsReadLikeAlignComWithItsNameInTheMessages)
{
    ScopedTempDir dir;
    set_geometry();
    mkdir("session", 0700);
    write_text_file("session/subject.com", std::string(kHead) + "set registration-translations 1 -2 3\n");
    write_text_file("align.com", "set registration-translations 9 9 9\n");
    testing::internal::CaptureStdout();
    int status = recall_alignment_parameters_from("session/subject.com");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out.rfind("Alignment parameters were recalled from file session/subject.com\n", 0), 0u) << out;
    EXPECT_EQ(Alignment.value[1], -2.0f);

    testing::internal::CaptureStdout();
    status = recall_alignment_parameters_from("session/none.com");
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "\nError: cannot open file session/none.com\n");
}
