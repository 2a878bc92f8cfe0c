// NIfTI-1 headers: sizes, value types, orientation methods, byte order, the extension.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <unistd.h>

#include "fixture_writers.h"
#include "header_quill.h"
#include "test_support.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

using Read = HeaderRead;

Read write_and_read(const char *path, const NiftiFixture &f)
{
    std::vector<unsigned char> data(4 * 3 * 2 * 8 * 4);
    write_nifti(path, f, data);
    return read_header_printing(path);
}

void expect_matrix(const mat44 &m, const float want[3][4])
{
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 4; c++) EXPECT_NEAR(m.m[r][c], want[r][c], 1e-6) << r << "," << c;
}

const float ROTATED_X[4] = {0.0f, -2.0f, 0.0f, 5.0f};  // a 90-degree turn in the x-y plane
const float ROTATED_Y[4] = {3.0f, 0.0f, 0.0f, -6.0f};
const float ROTATED_Z[4] = {0.0f, 0.0f, 4.0f, 7.0f};

}  // namespace

TEST(ReadNiftiHeader, Method1ScalesFromVoxelZero)
{
    ScopedTempDir dir;
    NiftiFixture f = nifti_fixture(4, 3, 2, 1, 2.5f, DT_INT16);
    f.h.dim[4] = 7;  // ignored by a 3-D file
    f.h.scl_slope = 2.0f;
    f.h.scl_inter = 10.0f;
    f.h.quatern_c = 0.5f;
    f.h.pixdim[0] = -1.0f;
    Read r = write_and_read("a.nii", f);
    ASSERT_EQ(r.result, 0);
    EXPECT_EQ(r.out, "The NIFTI header for file a.nii uses Method 1: the old analyze format\n");
    EXPECT_EQ(r.h.file_type, 6);
    EXPECT_EQ(r.h.storage_type, 1);
    EXPECT_EQ(r.h.nt, 1);
    EXPECT_EQ(r.h.n3d, 24);
    EXPECT_FLOAT_EQ(r.h.voxel_offset, 352.0f);
    EXPECT_FLOAT_EQ(r.h.scale_slope, 2.0f);
    EXPECT_FLOAT_EQ(r.h.scale_offset, 10.0f);
    EXPECT_FLOAT_EQ(r.h.qfac, -1.0f);
    EXPECT_FLOAT_EQ(r.h.quaternion.y, 0.5f);
    EXPECT_FLOAT_EQ(r.h.fov.x, 10.0f);
    const float want[3][4] = {{2.5f, 0, 0, 0}, {0, 2.5f, 0, 0}, {0, 0, 2.5f, 0}};
    expect_matrix(r.h.ijk_to_xyz, want);
    EXPECT_EQ(r.h.off_diagonal, 0);
    EXPECT_EQ(r.h.byte_order, machine_byte_order());
}

TEST(ReadNiftiHeader, Method3UsesTheSformRows)
{
    ScopedTempDir dir;
    NiftiFixture f = nifti_fixture(4, 3, 2, 1, 1.0f, DT_UINT16);
    set_nifti_method3(&f, ROTATED_X, ROTATED_Y, ROTATED_Z);
    Read r = write_and_read("a.nii", f);
    ASSERT_EQ(r.result, 0);
    EXPECT_EQ(r.out, "The NIFTI header for file a.nii uses Method 3: affine transformation of voxel indices\n");
    const float want[3][4] = {{0, -2, 0, 5}, {3, 0, 0, -6}, {0, 0, 4, 7}};
    expect_matrix(r.h.ijk_to_xyz, want);
    EXPECT_EQ(r.h.off_diagonal, 1);
    // zero diagonal elements give -1: the direction sees only the diagonal's signs
    EXPECT_FLOAT_EQ(r.h.direction.x, -1.0f);
    EXPECT_FLOAT_EQ(r.h.direction.y, -1.0f);
    EXPECT_FLOAT_EQ(r.h.direction.z, 1.0f);
    EXPECT_FLOAT_EQ(r.h.origin.y, -6.0f);
    EXPECT_EQ(r.h.storage_type, 4);
}

TEST(ReadNiftiHeader, Method2TurnsTheQuaternionIntoTheMatrix)
{
    ScopedTempDir dir;
    // b = c = 0, d = 1: half a turn about z (a = 0); qfac -1 flips the k axis
    NiftiFixture f = nifti_fixture(4, 3, 2, 1, 1.0f, DT_INT32);
    f.h.pixdim[1] = 2.0f;
    f.h.pixdim[2] = 3.0f;
    f.h.pixdim[3] = 4.0f;
    set_nifti_method2(&f, 0.0f, 0.0f, 1.0f, 10.0f, 20.0f, 30.0f, -1.0f);
    Read r = write_and_read("a.nii", f);
    ASSERT_EQ(r.result, 0);
    EXPECT_EQ(r.out, "The NIFTI header for file a.nii uses Method 2: quaternion rotations\n");
    const float want[3][4] = {{-2, 0, 0, 10}, {0, -3, 0, 20}, {0, 0, -4, 30}};
    expect_matrix(r.h.ijk_to_xyz, want);
    EXPECT_EQ(r.h.off_diagonal, 0);
    EXPECT_FLOAT_EQ(r.h.direction.x + r.h.direction.y + r.h.direction.z, -3.0f);
    EXPECT_EQ(r.h.storage_type, 3);

    // a quarter turn about z: d = sqrt(1/2) puts the rotation off the diagonal
    set_nifti_method2(&f, 0.0f, 0.0f, (float)sqrt(0.5), 0.0f, 0.0f, 0.0f, 1.0f);
    r = write_and_read("a.nii", f);
    EXPECT_EQ(r.h.off_diagonal, 1);
    EXPECT_NEAR(r.h.ijk_to_xyz.m[0][1], -3.0f, 1e-5);
    EXPECT_NEAR(r.h.ijk_to_xyz.m[1][0], 2.0f, 1e-5);
}

TEST(ReadNiftiHeader, OtherByteOrderGivesTheSameGeometryAsItsNativeTwin)
{
    ScopedTempDir dir;
    NiftiFixture f = nifti_fixture(5, 3, 2, 4, 1.5f, DT_INT16);
    f.h.scl_slope = 3.0f;
    f.h.scl_inter = -1.0f;
    for (int method = 1; method <= 3; method++) {
        if (method == 2) set_nifti_method2(&f, 0.1f, 0.2f, 0.3f, 1.0f, 2.0f, 3.0f, -1.0f);
        if (method == 3) set_nifti_method3(&f, ROTATED_X, ROTATED_Y, ROTATED_Z);
        f.other_byte_order = false;
        Read native = write_and_read("native.nii", f);
        f.other_byte_order = true;
        Read other = write_and_read("other.nii", f);
        short dim0;
        FILE *fp = fopen("other.nii", "rb");
        ASSERT_EQ(fseek(fp, 40, SEEK_SET), 0);
        ASSERT_EQ(fread(&dim0, 2, 1, fp), 1u);
        fclose(fp);
        EXPECT_EQ(dim0, 4 * 256);  // as the machine reads it
        ASSERT_EQ(native.result, 0);
        ASSERT_EQ(other.result, 0) << other.out;
        // every field read from the header agrees; file_name differs, byte_order stays the machine's
        snprintf(other.h.file_name, sizeof other.h.file_name, "%s", native.h.file_name);
        EXPECT_EQ(memcmp(&native.h, &other.h, sizeof(QL_HEADER)), 0) << method;
    }
}

TEST(ReadNiftiHeader, DimensionChecksNameTheHeaderFile)
{
    ScopedTempDir dir;
    const struct { int index, value; const char *message; } cases[] = {
        {1, 0, "Error: Value for x dimension not found in header file 'a.hdr'\n"},
        {2, -2, "Error: Value for y dimension not found in header file 'a.hdr'\n"},
        {3, 0, "Error: Value for z dimension not found in header file 'a.hdr'\n"},
        {4, 0, "Error: Value for t dimension not found in header file 'a.hdr'\n"},
    };
    for (const auto &c : cases) {
        NiftiFixture f = nifti_fixture(2, 2, 2, 3, 1.0f, DT_FLOAT32);
        f.h.dim[c.index] = (short)c.value;
        Read r = write_and_read("a.img", f);
        EXPECT_EQ(r.result, 1);
        EXPECT_EQ(r.out, c.message);
    }
    Read huge = write_and_read("a.nii", nifti_fixture(32767, 32767, 32767, 1, 1.0f, DT_UINT8));
    EXPECT_EQ(huge.result, 1);
    EXPECT_NE(huge.out.find("are too large.\n"), std::string::npos) << huge.out;
}

/* invert_mat44 would stop the program on these with "failed on row 0": the header is refused. */
TEST(ReadNiftiHeader, OrientationsThatCannotBeInvertedAreRefused)
{
    ScopedTempDir dir;
    const float zero[4] = {0, 0, 0, 0};
    NiftiFixture flat = nifti_fixture(2, 2, 2, 1, 1.0f, DT_FLOAT32);
    set_nifti_method3(&flat, ROTATED_X, zero, ROTATED_Z);  // the y row is zero
    Read r = write_and_read("flat.nii", flat);
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.out, "The NIFTI header for file flat.nii uses Method 3: affine transformation of voxel indices\n"
                     "Error: the voxel-to-space matrix of flat.nii is singular or not finite.\n");
    NiftiFixture lost = nifti_fixture(2, 2, 2, 1, 1.0f, DT_FLOAT32);
    set_nifti_method2(&lost, 0, 0, 0, NAN, 0, 0, 1);  // an offset that is not a number
    r = write_and_read("lost.nii", lost);
    EXPECT_EQ(r.result, 1);
    EXPECT_NE(r.out.find("Error: the voxel-to-space matrix of lost.nii is singular or not finite.\n"),
              std::string::npos) << r.out;
    set_nifti_method2(&lost, 0, 0, 0, 1e30f, 0, 0, 1);  // large, but the inverse is finite
    EXPECT_EQ(write_and_read("lost.nii", lost).result, 0);
}

TEST(ReadNiftiHeader, DegreesOfFreedomExtension)
{
    ScopedTempDir dir;
    NiftiFixture f = nifti_fixture(2, 2, 2, 1, 1.0f, DT_FLOAT32);
    f.dof_extension = true;
    f.dof = 27;
    Read r = write_and_read("t.nii", f);
    ASSERT_EQ(r.result, 0);
    EXPECT_EQ(r.h.lDOF, 27);
    EXPECT_FLOAT_EQ(r.h.voxel_offset, 368.0f);
    const struct { long cut; const char *message; } cuts[] = {
        {354, "Error: A NIFTI1 extension was indicated, but it is missing.\n"},
        {358, "Error: A NIFTI1 extension was indicated, but the ecode is missing.\n"},
        {362, "Error read degrees of freedom.\n"},
    };
    for (const auto &c : cuts) {
        f.truncate_at = c.cut;
        Read cut = write_and_read("t.img", f);
        EXPECT_EQ(cut.result, 1) << c.cut;
        EXPECT_EQ(cut.out, c.message);
    }
}

TEST(ReadNiftiHeaderDeathTest, FileShorterThanTheHeaderStopsTheProgram)
{
    ScopedTempDir dir;
    NiftiFixture f = nifti_fixture(2, 2, 2, 1, 1.0f, DT_FLOAT32);
    f.truncate_at = 300;
    write_nifti("cut.nii", f, {});
    char name[] = "cut.nii";
    QL_HEADER h;
    EXPECT_EXIT(read_volume_header(name, &h), testing::ExitedWithCode(1), "\nError reading header file cut.nii\n");
}

/* The brain templates of the mricron-data package, unpacked for the test. */
TEST(ReadNiftiHeader, RealTemplatesGiveTheirGridAndMethod)
{
    ScopedTempDir dir;
    const struct { const char *name; int nx, ny, nz; float res; const char *method; float origin[3]; } cases[] = {
        {"ch2", 181, 217, 181, 1.0f, "Method 1: the old analyze format", {0, 0, 0}},
        {"ch2bet", 181, 217, 181, 1.0f, "Method 1: the old analyze format", {0, 0, 0}},
        {"ch2better", 301, 370, 316, 0.5f, "Method 3: affine transformation of voxel indices", {-75, -107, -69.5f}},
    };
    for (const auto &c : cases) {
        std::string gz = std::string("/usr/share/mricron/templates/") + c.name + ".nii.gz";
        if (access(gz.c_str(), R_OK) != 0) GTEST_SKIP() << "mricron-data is not installed";
        std::string nii = std::string(c.name) + ".nii";
        ASSERT_EQ(system(("gzip -dc " + gz + " > " + nii).c_str()), 0);
        Read r = read_header_printing(nii.c_str());
        ASSERT_EQ(r.result, 0);
        EXPECT_EQ(r.out, "The NIFTI header for file " + nii + " uses " + c.method + "\n");
        EXPECT_EQ(r.h.dim.x, c.nx);
        EXPECT_EQ(r.h.dim.y, c.ny);
        EXPECT_EQ(r.h.dim.z, c.nz);
        EXPECT_EQ(r.h.nt, 1);
        EXPECT_EQ(r.h.storage_type, 5);
        const float want[3][4] = {{c.res, 0, 0, c.origin[0]}, {0, c.res, 0, c.origin[1]}, {0, 0, c.res, c.origin[2]}};
        expect_matrix(r.h.ijk_to_xyz, want);
        EXPECT_FLOAT_EQ(r.h.resolution.y, c.res);
    }
}
