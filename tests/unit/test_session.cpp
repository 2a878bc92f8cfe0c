// The session start without a display: reading order, the template warning, list types and the
// records that align's start-up leaves before its display opens.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "apply_images.h"
#include "apply_transform.h"
#include "fixture_writers.h"
#include "globals.h"
#include "session.h"
#include "test_support.h"
#include "volume_load.h"
#include "volume.h"

namespace {

/* An individual of 6x5x4 voxels of 2 mm with nt volumes whose value is 10*(t+1) everywhere, and
   a template of 8x8x6 voxels of 1.5 mm holding 1 everywhere. */
void write_pair(int individual_nt, bool rotated_template)
{
    std::vector<float> ind(6 * 5 * 4 * individual_nt);
    for (int t = 0; t < individual_nt; t++)
        for (int i = 0; i < 6 * 5 * 4; i++) ind[(size_t)t * 120 + i] = 10.0f * (t + 1);
    ASSERT_TRUE(write_nifti_float("ind.nii", 6, 5, 4, individual_nt, 2.0f, ind.data()));
    std::vector<float> tpl(8 * 8 * 6, 1.0f);
    NiftiFixture f = nifti_fixture(8, 8, 6, 1, 1.5f, DT_FLOAT32);
    if (rotated_template) {
        const float rx[4] = {1.5f, 0.1f, 0.0f, -5.0f}, ry[4] = {0.0f, 1.5f, 0.0f, 3.0f},
                    rz[4] = {0.0f, 0.0f, 1.5f, 7.0f};
        set_nifti_method3(&f, rx, ry, rz);
    }
    std::vector<unsigned char> bytes((const unsigned char *)tpl.data(),
                                     (const unsigned char *)(tpl.data() + tpl.size()));
    ASSERT_TRUE(write_nifti("tpl.nii", f, bytes));
}

bool same_matrix(const mat44 &a, const mat44 &b)
{
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++)
            if (a.m[r][c] != b.m[r][c]) return false;
    return true;
}

}  // namespace

TEST(Session, ReadsTheIndividualFirstAndLeavesTheStartUpRecords)
{
    ScopedTempDir dir;
    write_pair(3, false);
    testing::internal::CaptureStdout();
    int status = start_session("ind.nii", "tpl.nii", 3);  // list type 3: the first volume only
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0) << out;
    EXPECT_EQ(out, "\nThe NIFTI header for file ind.nii uses Method 1: the old analyze format\n"
                   "\nThe NIFTI header for file tpl.nii uses Method 1: the old analyze format\n");
    EXPECT_EQ(original_unfiltered.nt, 1);
    EXPECT_TRUE(same_matrix(Alignment.ijk_to_xyz, centered_ijk_to_xyz(template_unfiltered)));
    EXPECT_TRUE(same_matrix(Alignment.xyz_to_ijk, centered_xyz_to_ijk(original_unfiltered)));
    EXPECT_EQ(Alignment.dimension.z, 6);
    EXPECT_EQ(distort_x.dim.x, 8);
    ASSERT_NE(distort_x.SpaceTime.fData, nullptr);
    // The first resampling ran: the constant first volume fills the template's centre voxel.
    EXPECT_FLOAT_EQ(individual.SpaceTime.fData[4 + 8 * (4 + 8 * 3)], 10.0f);
}

TEST(Session, OffDiagonalTemplateWarnsWithThePeriodOnTheNextLine)
{
    ScopedTempDir dir;
    write_pair(1, true);
    testing::internal::CaptureStdout();
    int status = read_session_volumes();  // lists empty: the individual is missing
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "Error: no files for the individual subject.\n");

    add_image_file(&individual_files, "ind.nii", 0, 0);
    add_image_file(&template_files, "tpl.nii", 0, 0);
    testing::internal::CaptureStdout();
    status = read_session_volumes();
    out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0);
    EXPECT_NE(out.find("Method 3: affine transformation of voxel indices\n"
                       "Warning: the template file has voxel indices    (i,j,k)\n"
                       "         that are not parallel with coordinates (x,y,z)\n"
                       ".         When applying the transformation to image data using qor,\n"),
              std::string::npos)
        << out;
}

TEST(Session, ProgramsNamingTheirFilesKeepTheTemplatesOrientationWithoutTheWarning)
{
    ScopedTempDir dir;
    write_pair(1, true);
    testing::internal::CaptureStdout();
    int status = start_session("ind.nii", "tpl.nii", 0);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0);
    EXPECT_EQ(template_unfiltered.off_diagonal, 1);
    EXPECT_EQ(out.find("Warning"), std::string::npos) << out;
}

TEST(Session, AlignedVolumeOfTheSessionIsTheForwardApplyOfTheIndividual)
{
    ScopedTempDir dir;
    write_pair(2, false);
    testing::internal::CaptureStdout();
    ASSERT_EQ(start_session("ind.nii", "tpl.nii", 0), 0);
    Alignment.value[0] = 1.5f;
    Alignment.value[4] = 3.0f;
    int written = write_aligned_volume(&original_unfiltered, "tpl.nii", "aligned.nii.gz");
    apply_request r = {0, APPLY_ACCURATE, "tpl.nii", "ind.nii", "ind.nii", "applied.nii.gz", nullptr, nullptr};
    int applied = apply_alignment(&r);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(written, 0) << out;
    ASSERT_EQ(applied, 0) << out;
    EXPECT_NE(out.find("\rResampling aligned.nii.gz: volume 2 of 2\n"), std::string::npos) << out;
    ASSERT_TRUE(read_text_file("aligned.nii.gz") == read_text_file("applied.nii.gz"));
}
