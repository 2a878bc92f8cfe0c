// NIfTI-1 outputs: the reference geometry kept as in the file, .nii and .nii.gz written through a
// temporary name, and failed writes that leave the previous file alone.
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <vector>

#include "fixture_writers.h"
#include "nifti_out.h"
#include "test_support.h"
#include "volume.h"
#include "volume_load.h"

namespace {

// A reference file: 4x3x2 voxels, a rotated sform (code 2) and a different qform (code 1).
void write_reference(const char *name, bool other_byte_order)
{
    NiftiFixture f = nifti_fixture(4, 3, 2, 1, 1.5f, DT_INT16);
    const float sx[4] = {0.0f, -1.5f, 0.0f, 12.0f}, sy[4] = {1.5f, 0.0f, 0.0f, -3.5f}, sz[4] = {0.0f, 0.0f, 1.5f, 8.25f};
    set_nifti_method3(&f, sx, sy, sz);
    f.h.sform_code = 2;
    f.h.quatern_d = 0.7071068f;
    f.h.qoffset_x = 11.0f;
    f.h.pixdim[0] = -1.0f;
    f.h.xyzt_units = NIFTI_UNITS_MM | NIFTI_UNITS_SEC;
    f.other_byte_order = other_byte_order;
    ASSERT_TRUE(write_nifti(name, f, encode_values(std::vector<double>(24, 1.0), 1, other_byte_order ? 1 - fixture_machine_byte_order() : fixture_machine_byte_order())));
}

nifti_1_header raw_header(const std::string &bytes)
{
    nifti_1_header h;
    memcpy(&h, bytes.data(), sizeof h);
    return h;
}

// Writes 24 floats 0.5 * i on the reference's grid to name; returns the status.
int write_floats(const nifti_1_header &reference, const char *name)
{
    nifti_1_header h = reference;
    make_output_header(&h, 1, DT_FLOAT32, "test");
    std::vector<float> v(24);
    for (int i = 0; i < 24; i++) v[i] = 0.5f * i;
    nifti_output out;
    if (nifti_output_open(&out, name, &h)) return 1;
    if (nifti_output_write(&out, v.data(), v.size() * sizeof(float))) return 1;
    return nifti_output_close(&out);
}

// In a child process: a file-size limit of 64 kB makes the writes fail as a full disk would.
void write_under_a_size_limit(const nifti_1_header &reference, const char *name)
{
    fflush(stdout);
    dup2(2, 1);
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {65536, 65536};
    setrlimit(RLIMIT_FSIZE, &limit);
    nifti_1_header h = reference;
    make_output_header(&h, 1, DT_FLOAT32, "test");
    std::vector<float> v(40 * 40 * 40);
    std::mt19937 rng{5};
    for (float &x : v) x = (float)rng();  // random bits: zlib cannot pack them under the limit
    nifti_output out;
    int status = nifti_output_open(&out, name, &h);
    if (status == 0) status = nifti_output_write(&out, v.data(), v.size() * sizeof(float));
    if (status == 0) status = nifti_output_close(&out);
    exit(status == 1 ? 0 : 2);
}

bool no_temporary_files(void)
{
    DIR *d = opendir(".");
    bool clean = true;
    while (struct dirent *e = readdir(d))
        if (strncmp(e->d_name, ".part-", 6) == 0) clean = false;
    closedir(d);
    return clean;
}

}  // namespace

TEST(NiftiOutput, KeepsTheReferenceGeometryInPlainAndGzippedFiles)
{
    ScopedTempDir dir;
    for (bool swapped : {false, true}) {
        write_reference("ref.nii", swapped);
        data_stack none;
        memset(&none, 0, sizeof none);
        nifti_1_header ref;
        ASSERT_EQ(reference_nifti_header("ref.nii", &none, &ref), 0);
        for (const char *name : {"out.nii", "out.nii.gz"}) {
            ASSERT_EQ(write_floats(ref, name), 0);
            std::string bytes = read_text_file(name);
            bool gz = strstr(name, ".gz") != nullptr;
            EXPECT_EQ((unsigned char)bytes[0] == 0x1f && (unsigned char)bytes[1] == 0x8b, gz) << name;
            if (gz) {
                ASSERT_EQ(system("gzip -dc out.nii.gz > unpacked.nii"), 0);
                EXPECT_EQ(read_text_file("unpacked.nii"), read_text_file("out.nii"));
                continue;
            }
            nifti_1_header h = raw_header(bytes);  // this machine's byte order
            EXPECT_EQ(h.dim[0], 3);
            EXPECT_EQ(h.dim[1], 4);
            EXPECT_EQ(h.datatype, DT_FLOAT32);
            EXPECT_EQ(h.vox_offset, 352.0f);
            EXPECT_EQ(h.sform_code, 2);
            EXPECT_EQ(h.qform_code, 1);
            EXPECT_EQ(h.srow_x[1], -1.5f);
            EXPECT_EQ(h.srow_z[3], 8.25f);
            EXPECT_EQ(h.quatern_d, 0.7071068f);
            EXPECT_EQ(h.qoffset_x, 11.0f);
            EXPECT_EQ(h.pixdim[0], -1.0f);
            EXPECT_EQ(h.pixdim[2], 1.5f);
            EXPECT_EQ(XYZT_TO_SPACE(h.xyzt_units), NIFTI_UNITS_MM);
            EXPECT_EQ(bytes.size(), 352u + 24 * 4);
        }
        // both read back by the program's own reader to the same values
        for (const char *name : {"out.nii", "out.nii.gz"}) {
            data_stack s;
            memset(&s, 0, sizeof s);
            file_list node;
            memset(&node, 0, sizeof node);
            snprintf(node.file_name, sizeof node.file_name, "%s", name);
            int n = 0;
            testing::internal::CaptureStdout();
            ASSERT_EQ(read_SpaceTime_data(0, &s, &node, &n), 0);
            testing::internal::GetCapturedStdout();
            EXPECT_EQ(s.SpaceTime.fData[23], 11.5f) << name;
            EXPECT_EQ(s.ijk_to_xyz.m[0][1], -1.5f) << name;
        }
        EXPECT_TRUE(no_temporary_files());
    }
}

TEST(NiftiOutput, AQuillReferenceGivesItsMatrixAsSformAndQform)
{
    data_stack s;
    memset(&s, 0, sizeof s);
    s.dim = {5, 4, 3};
    POINT3D res = {2.0f, 3.0f, 4.0f}, origin = {-10.0f, 6.0f, 1.0f}, dir = {-1.0f, 1.0f, 1.0f};
    s.ijk_to_xyz = scale_and_shift_to_mat44(res, origin, dir);
    nifti_1_header h;
    ASSERT_EQ(reference_nifti_header("scan.bshort", &s, &h), 0);
    EXPECT_EQ(h.srow_x[0], -2.0f);
    EXPECT_EQ(h.srow_x[3], -10.0f);
    EXPECT_EQ(h.srow_z[2], 4.0f);
    EXPECT_EQ(h.pixdim[1], 2.0f);
    mat44 q = nifti_quatern_to_mat44(h.quatern_b, h.quatern_c, h.quatern_d, h.qoffset_x, h.qoffset_y, h.qoffset_z,
                                     h.pixdim[1], h.pixdim[2], h.pixdim[3], h.pixdim[0]);
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 4; c++) EXPECT_NEAR(q.m[r][c], s.ijk_to_xyz.m[r][c], 1e-5) << r << c;
}

TEST(NiftiOutput, FailedWritesLeaveThePreviousFileAndNoTemporaryFile)
{
    ScopedTempDir dir;
    write_reference("ref.nii", false);
    data_stack none;
    memset(&none, 0, sizeof none);
    nifti_1_header ref;
    ASSERT_EQ(reference_nifti_header("ref.nii", &none, &ref), 0);
    ref.dim[1] = ref.dim[2] = ref.dim[3] = 40;  // 256000 bytes of floats
    for (const char *name : {"big.nii", "big.nii.gz"}) {
        write_text_file(name, "previous contents");
        EXPECT_EXIT(write_under_a_size_limit(ref, name), testing::ExitedWithCode(0),
                    std::string("Error: ") + name + " could not be written \\(File too large\\); the previous file is kept.");
        EXPECT_TRUE(read_text_file(name) == "previous contents") << name;
        EXPECT_TRUE(no_temporary_files());
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_floats(ref, "no/such/dir/out.nii"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: cannot open the output file no/such/dir/out.nii\n");
}
