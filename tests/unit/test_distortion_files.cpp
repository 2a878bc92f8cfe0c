// Tests of the distortion-map files: NIfTI-1 single file and text header + float data, the
// refusal of unknown names, and reading back in either byte order.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "distortion_files.h"
#include "globals.h"
#include "header_quill.h"
#include "test_support.h"
#include "volume.h"

namespace {

const int NX = 5, NY = 4, NZ = 3, N = NX * NY * NZ;

// Template geometry with distinct sizes and origin; three maps with distinct values.
void set_up_maps(float dir_x = 1.0f)
{
    make_stack(&template_, NX, NY, NZ, 1, 2.0f, 3.0f, 4.0f);
    template_.origin = {-10.0f, 5.5f, 7.0f};
    template_.direction = {dir_x, 1.0f, 1.0f};
    make_stack(&distort_x, NX, NY, NZ, 2);
    make_stack(&distort_y, NX, NY, NZ, 2);
    make_stack(&distort_z, NX, NY, NZ, 2);
    for (int i = 0; i < N; i++) {
        distort_x.SpaceTime.fData[i] = 0.25f * i;
        distort_y.SpaceTime.fData[i] = -1.5f * i;
        distort_z.SpaceTime.fData[i] = 100.0f + i;
    }
    AlignNL = {};
}

std::vector<float> saved_maps()
{
    std::vector<float> v;
    for (data_stack *s : {&distort_x, &distort_y, &distort_z})
        v.insert(v.end(), s->SpaceTime.fData, s->SpaceTime.fData + N);
    return v;
}

void clear_maps(float value)
{
    for (data_stack *s : {&distort_x, &distort_y, &distort_z})
        for (int i = 0; i < N; i++) s->SpaceTime.fData[i] = value;
}

long file_size(const char *name)
{
    struct stat st;
    return stat(name, &st) == 0 ? (long)st.st_size : -1;
}

std::vector<char> read_bytes(const char *name)
{
    std::string s = read_text_file(name);
    return std::vector<char>(s.begin(), s.end());
}

} // namespace

TEST(WriteDistortionFiles, NiftiHeaderFieldsAndData)
{
    ScopedTempDir dir;
    set_up_maps();
    std::vector<float> want = saved_maps();
    char name[1024] = "distortions.nii";
    ASSERT_EQ(write_distortion_files(name), 0);
    EXPECT_STREQ(name, "distortions");
    ASSERT_EQ(file_size("distortions.nii"), 352 + 3L * N * 4);
    std::vector<char> bytes = read_bytes("distortions.nii");
    nifti_1_header h;
    memcpy(&h, bytes.data(), 348);
    EXPECT_EQ(h.sizeof_hdr, 348);
    EXPECT_EQ(h.regular, 'r');
    EXPECT_EQ(h.dim[0], 4);
    EXPECT_EQ(h.dim[1], NX);
    EXPECT_EQ(h.dim[2], NY);
    EXPECT_EQ(h.dim[3], NZ);
    EXPECT_EQ(h.dim[4], 3);
    EXPECT_EQ(h.dim[5], 1);
    EXPECT_EQ(h.dim[7], 1);
    EXPECT_EQ(h.datatype, 16);
    EXPECT_EQ(h.bitpix, 32);
    EXPECT_EQ(h.pixdim[1], 2.0f);
    EXPECT_EQ(h.pixdim[2], 3.0f);
    EXPECT_EQ(h.pixdim[3], 4.0f);
    EXPECT_EQ(h.pixdim[4], 0.0f);
    EXPECT_EQ(h.vox_offset, 352.0f);
    EXPECT_EQ(h.xyzt_units, 2);
    EXPECT_EQ(h.qform_code, 1);
    EXPECT_EQ(h.sform_code, 0);
    EXPECT_EQ(h.srow_x[0], 2.0f);
    EXPECT_EQ(h.srow_x[3], -10.0f);
    EXPECT_EQ(h.srow_y[1], 3.0f);
    EXPECT_EQ(h.srow_y[3], 5.5f);
    EXPECT_EQ(h.srow_z[2], 4.0f);
    EXPECT_EQ(h.srow_z[3], 7.0f);
    EXPECT_EQ(memcmp(h.magic, "n+1\0", 4), 0);
    EXPECT_EQ(h.descrip[0], 0);
    for (int i = 348; i < 352; i++) EXPECT_EQ(bytes[i], 0) << i;
    // The quaternion gives back the voxel-to-space matrix.
    mat44 q = nifti_quatern_to_mat44(h.quatern_b, h.quatern_c, h.quatern_d, h.qoffset_x, h.qoffset_y,
                                     h.qoffset_z, h.pixdim[1], h.pixdim[2], h.pixdim[3], h.pixdim[0]);
    float expect_diag[3] = {2.0f, 3.0f, 4.0f}, expect_off[3] = {-10.0f, 5.5f, 7.0f};
    for (int r = 0; r < 3; r++) {
        for (int c = 0; c < 3; c++) EXPECT_NEAR(q.m[r][c], r == c ? expect_diag[r] : 0.0f, 1e-5) << r << c;
        EXPECT_NEAR(q.m[r][3], expect_off[r], 1e-5);
    }
    std::vector<float> data(3 * N);
    memcpy(data.data(), bytes.data() + 352, sizeof(float) * 3 * N);
    EXPECT_EQ(data, want);
}

TEST(WriteDistortionFiles, NiftiReadByNibabel)
{
    if (system("/usr/bin/python3 -c 'import nibabel' 2>/dev/null") != 0) GTEST_SKIP() << "no nibabel";
    ScopedTempDir dir;
    set_up_maps();
    char name[1024] = "distortions.nii";
    ASSERT_EQ(write_distortion_files(name), 0);
    const char *script =
        "/usr/bin/python3 -c \"import nibabel as nb, numpy as np\n"
        "im = nb.load('distortions.nii'); d = np.asarray(im.dataobj)\n"
        "h = nb.Nifti1Header.from_fileobj(open('distortions.nii', 'rb'))\n"
        "print(d.shape, d.dtype, int(h['vox_offset']), int(im.dataobj.offset), int(h['qform_code']),"
        " int(h['sform_code']))\n"
        "print(' '.join('%g' % v for v in im.get_qform().ravel()))\n"
        "print('%g %g %g' % (d[1,0,0,0], d[0,1,0,1], d[4,3,2,2]))\"";
    FILE *p = popen(script, "r");
    ASSERT_NE(p, nullptr);
    char line1[1024] = "", line2[1024] = "", line3[1024] = "";
    EXPECT_NE(fgets(line1, sizeof line1, p), nullptr);
    EXPECT_NE(fgets(line2, sizeof line2, p), nullptr);
    EXPECT_NE(fgets(line3, sizeof line3, p), nullptr);
    EXPECT_EQ(pclose(p), 0);
    EXPECT_STREQ(line1, "(5, 4, 3, 3) float32 352 352 1 0\n");
    EXPECT_STREQ(line2, "2 0 0 -10 0 3 0 5.5 0 0 4 7 0 0 0 1\n");
    // x map at voxel 1 (0.25), y map at voxel 5 (-7.5), z map at the last voxel (159).
    EXPECT_STREQ(line3, "0.25 -7.5 159\n");
}

TEST(WriteDistortionFiles, BshortNameWritesHeaderAndFloatData)
{
    ScopedTempDir dir;
    set_up_maps();
    std::vector<float> want = saved_maps();
    char name[1024] = "maps.bshort";
    ASSERT_EQ(write_distortion_files(name), 0);
    EXPECT_STREQ(name, "maps");
    EXPECT_EQ(file_size("maps.bshort"), -1);
    char expected[1024];
    snprintf(expected, sizeof expected,
             "x 5\ny 4\nz 3\nt 3\nbyte-order %d\nresolution 2 3 4\norigin -10 5.5 7\ndirection 1 1 1\n"
             "information:\nx,y,z distortion maps from qor-align\n",
             machine_byte_order());
    EXPECT_EQ(read_text_file("maps.hdr"), expected);
    std::vector<char> bytes = read_bytes("maps.bfloat");
    ASSERT_EQ(bytes.size(), sizeof(float) * 3 * N);
    std::vector<float> data(3 * N);
    memcpy(data.data(), bytes.data(), bytes.size());
    EXPECT_EQ(data, want);
}

TEST(WriteDistortionFiles, AFullDiskKeepsBothFilesOfTheOldPair)
{
    // The .hdr (about 120 bytes) fits a disk of 512 bytes a file, the .bfloat (720) does not:
    // neither file of the pair changes, and nothing is left behind.
    ScopedTempDir dir;
    set_up_maps();
    char name[1024] = "maps.bfloat";
    ASSERT_EQ(write_distortion_files(name), 0);
    std::string old_hdr = read_text_file("maps.hdr"), old_data = read_text_file("maps.bfloat");
    template_.origin.x = 99.0f;
    clear_maps(3.0f);
    snprintf(name, sizeof name, "maps.bfloat");
    testing::internal::CaptureStdout();
    int status;
    {
        ScopedFileSizeLimit disk(512);
        status = write_distortion_files(name);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: maps.bfloat could not be written (File too large); the previous file is kept.\n");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(read_text_file("maps.hdr"), old_hdr);
    EXPECT_EQ(read_text_file("maps.bfloat"), old_data);
    EXPECT_EQ(leftover_temporaries(), 0);
}

TEST(WriteDistortionFiles, UnwritableNiftiPrintsOnlyItsOwnMessage)
{
    ScopedTempDir dir;
    set_up_maps();
    char root[1024] = "missing/distortions";
    FILE *fp = (FILE *)1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(open_output_file(3, 6, root, &fp), 0);
    EXPECT_EQ(fp, nullptr);
    char name[1024] = "missing/distortions.nii";
    EXPECT_EQ(write_distortion_files(name), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: cannot open the header file missing/distortions.nii.\n"
              "Error: cannot open the header file missing/distortions.nii.\n");
}

TEST(ReadDistortionFile, OtherByteOrderSwapsAndSetsAdjusted)
{
    ScopedTempDir dir;
    set_up_maps();
    for (int i = 0; i < N; i++) distort_y.SpaceTime.fData[i] = 0.0f;  // y map all zero
    std::vector<float> want = saved_maps();
    // Write the data with every float's bytes reversed, behind a 16-byte preamble.
    std::vector<float> swapped = want;
    for (float &f : swapped) swap_32(&f);
    FILE *fp = fopen("other.bfloat", "wb");
    ASSERT_NE(fp, nullptr);
    char pre[16] = {};
    fwrite(pre, 1, 16, fp);
    fwrite(swapped.data(), sizeof(float), swapped.size(), fp);
    fclose(fp);
    QL_HEADER header;
    memset(&header, 0, sizeof header);
    header.storage_type = 2;
    header.voxel_offset = 16.9f;  // truncated to 16
    header.byte_order = 1 - machine_byte_order();
    template_.npts_volume = N;
    clear_maps(-3.0f);
    char name[1024] = "other.bfloat";
    ASSERT_EQ(read_distortion_file(name, header), 0);
    EXPECT_EQ(saved_maps(), want);
    EXPECT_EQ(AlignNL.Adjusted.x, 1);
    EXPECT_EQ(AlignNL.Adjusted.y, 0);
    EXPECT_EQ(AlignNL.Adjusted.z, 1);
}

TEST(ReadDistortionFile, OnlyAnAllShortReadFails)
{
    ScopedTempDir dir;
    set_up_maps();
    std::vector<float> xs(distort_x.SpaceTime.fData, distort_x.SpaceTime.fData + N);
    FILE *fp = fopen("short.bfloat", "wb");
    ASSERT_NE(fp, nullptr);
    fwrite(xs.data(), sizeof(float), N, fp);  // the x map in full, nothing else
    fclose(fp);
    QL_HEADER header;
    memset(&header, 0, sizeof header);
    header.storage_type = 2;
    header.byte_order = machine_byte_order();
    template_.npts_volume = N;
    clear_maps(9.0f);
    AlignNL.Adjusted = {0, 1, 0};
    char name[1024] = "short.bfloat";
    ASSERT_EQ(read_distortion_file(name, header), 0);
    for (int i = 0; i < N; i++) {
        ASSERT_EQ(distort_x.SpaceTime.fData[i], xs[i]);
        ASSERT_EQ(distort_y.SpaceTime.fData[i], 9.0f);
        ASSERT_EQ(distort_z.SpaceTime.fData[i], 9.0f);
    }
    EXPECT_EQ(AlignNL.Adjusted.x, 0);
    EXPECT_EQ(AlignNL.Adjusted.y, 1);
    // An empty data file: all three reads fall short.
    fclose(fopen("empty.bfloat", "wb"));
    char empty[1024] = "empty.bfloat";
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_distortion_file(empty, header), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error reading the distortion map data from file empty.bfloat\n");
    // Wrong storage type.
    header.storage_type = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_distortion_file(name, header), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\nError: the storage type for distortion file short.bfloat should be binary floats\n");
}

TEST(ReadDistortionFile, GzippedNiftiMapsReadLikeThePlainFile)
{
    ScopedTempDir dir;
    set_up_maps();
    std::vector<float> want = saved_maps();
    char name[1024] = "maps.nii";
    testing::internal::CaptureStdout();
    ASSERT_EQ(write_distortion_files(name), 0);
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(gzip_file("maps.nii", "maps.nii.gz"));
    clear_maps(0.0f);
    char packed[1024] = "maps.nii.gz";
    QL_HEADER header;
    testing::internal::CaptureStdout();
    ASSERT_EQ(read_volume_header(packed, &header), 0);
    template_.npts_volume = N;
    int status = read_distortion_file(packed, header);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0) << out;
    EXPECT_EQ(header.nt, 3);
    EXPECT_EQ(saved_maps(), want);
}

TEST(ReadDistortionFile, OffsetsPastTheEndReadNothingAndNegativeOnesStopTheProgram)
{
    ScopedTempDir dir;
    set_up_maps();
    FILE *fp = fopen("maps.bfloat", "wb");
    ASSERT_NE(fp, nullptr);
    std::vector<float> data(3 * N, 1.0f);
    fwrite(data.data(), sizeof(float), data.size(), fp);
    fclose(fp);
    QL_HEADER header;
    memset(&header, 0, sizeof header);
    header.storage_type = 2;
    header.byte_order = machine_byte_order();
    template_.npts_volume = N;
    char name[1024] = "maps.bfloat";
    // one byte past the 3 * 60 floats, a float no long holds, and NaN
    for (float offset : {3.0f * N * 4 + 1, 1e30f, NAN}) {
        clear_maps(5.0f);
        header.voxel_offset = offset;
        testing::internal::CaptureStdout();
        EXPECT_EQ(read_distortion_file(name, header), 1) << offset;
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Error reading the distortion map data from file maps.bfloat\n");
        EXPECT_EQ(saved_maps(), std::vector<float>(3 * N, 5.0f));
    }
    header.voxel_offset = -1e30f;
    EXPECT_EXIT(read_distortion_file(name, header), testing::ExitedWithCode(1),
                "\nError doing fseek\\(\\) to -1 in data file maps.bfloat\n");
}
