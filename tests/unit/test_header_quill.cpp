// Header dispatch by file name, the quill header keywords and files, extensions, byte order.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "fixture_writers.h"
#include "header_quill.h"
#include "test_support.h"
#include "volume.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

struct Decoded {
    int result;
    std::string out;
    QL_HEADER h;
};

Decoded decode(const char *text)
{
    Decoded d;
    char line[1024];
    snprintf(line, sizeof line, "%s", text);
    set_header_defaults(&d.h);
    CaptureStdout();
    d.result = decode_quill_header_keyword(line, &d.h);
    d.out = GetCapturedStdout();
    return d;
}

/* Reads the header of data_name (written from text first) through read_volume_header. */
Decoded read_volume(const char *data_name, const char *text)
{
    write_quill_header(data_name, text);
    Decoded d;
    char name[1024];
    snprintf(name, sizeof name, "%s", data_name);
    CaptureStdout();
    d.result = read_volume_header(name, &d.h);
    d.out = GetCapturedStdout();
    return d;
}

const char *SIZES = "x 4\ny 3\nz 2\nt 5\n";

}  // namespace

TEST(GetExtension, ClassifiesTheTextAfterTheLastDotExactly)
{
    const struct { const char *name; int code; } cases[] = {
        {"a.bshort", 1}, {"a.bfloat", 2}, {"a.blong", 3}, {"a.ushort", 4}, {"a.nii", 6},
        {"a.img", 7}, {"a.nii.bshort", 1}, {"scan.BSHORT", -1}, {"a.hdr", -1}, {"a.nii.gz", -1},
    };
    for (const auto &c : cases) {
        char name[1024];
        snprintf(name, sizeof name, "%s", c.name);
        int type = 99;
        EXPECT_EQ(get_extension(name, &type), 0) << c.name;
        EXPECT_EQ(type, c.code) << c.name;
    }
    char bare[] = "brain";
    int type;
    CaptureStdout();
    EXPECT_EQ(get_extension(bare, &type), 1);
    EXPECT_EQ(GetCapturedStdout(), "The file name has no extension!\n");
}

TEST(DecodeQuillHeaderKeyword, BadLinesAreErrorsWithTheirMessages)
{
    for (const char *bad : {"X 4", "xx 4", "x four", "t", "matrix 1 2", "resolution 1 2", "origin 1 2",
                            "direction 1 1", "bogus 1", ""}) {
        Decoded d = decode(bad);
        EXPECT_EQ(d.result, 1) << bad;
        EXPECT_EQ(d.out, "") << bad;
    }
    Decoded dir = decode("direction 1 -1 0.5");
    EXPECT_EQ(dir.result, 1);
    EXPECT_EQ(dir.out, "Error: allowed values for direction (1,-1,0.5) are 1 and -1.\n");
    EXPECT_FLOAT_EQ(dir.h.direction.z, 1.0f);
    EXPECT_EQ(decode("data-type polar").out,
              "Error: arguments for data-type are\n1) magnitude (this is the default),\n"
              "2) complex (or real-imaginary),\n3) magnitude-phase\n");
    EXPECT_EQ(decode("storage-type double").out,
              "Error: arguments for storage-type are ...\n    short, float, long, unsigned-short, unsigned-char\n");
    Decoded reg = decode("registration MNI");
    EXPECT_EQ(reg.result, 1);
    EXPECT_EQ(reg.out, "Error: arguments for registration are\n1) paxinos-rat, and\n"
                       "2) nothing else (paxinos-monkey later?)\n");
}

TEST(ReadVolumeHeader, QuillHeaderGivesTheGeometryAndTheDerivedSizes)
{
    ScopedTempDir dir;
    Decoded d = read_volume("brain.bshort",
                            "x 4   # sizes\ny 3\nz 2\nt 5\n\nresolution 2 3 4 1.5\norigin 10 0 0\n"
                            "direction -1 1 1\nbyte-order 0\nstorage-type float\ninfo: x 99\nx 98\n");
    ASSERT_EQ(d.result, 0) << d.out;
    EXPECT_EQ(d.h.dim.x, 4);  // the free text after "info:" is not read
    EXPECT_EQ(d.h.file_type, 1);
    EXPECT_EQ(d.h.storage_type, 2);
    EXPECT_EQ(d.h.byte_order, 0);
    EXPECT_EQ(d.h.n2d, 12);
    EXPECT_EQ(d.h.n3d, 24);
    EXPECT_EQ(d.h.n4d, 120);
    EXPECT_FLOAT_EQ(d.h.fov.y, 9.0f);
    EXPECT_STREQ(d.h.file_name, "brain.bshort");
    POINT3D p = apply_mat44(d.h.ijk_to_xyz, 3, 1, 1);  // x = -1*2*3 + 10
    EXPECT_FLOAT_EQ(p.x, 4.0f);
    EXPECT_FLOAT_EQ(p.y, 3.0f);
    POINT3D back = apply_mat44(d.h.xyz_to_ijk, p.x, p.y, p.z);
    EXPECT_NEAR(back.x, 3.0f, 1e-6);
    EXPECT_NEAR(back.z, 1.0f, 1e-6);
}

TEST(ReadVolumeHeader, NamesWithoutExtensionAppendHdrAndNeedAStorageType)
{
    ScopedTempDir dir;
    ASSERT_EQ(system("mkdir dir.v2"), 0);
    Decoded d = read_volume("dir.v2/scan", (std::string(SIZES) + "storage-type long\n").c_str());
    ASSERT_EQ(d.result, 0) << d.out;
    EXPECT_EQ(d.h.file_type, 3);
    EXPECT_EQ(d.h.storage_type, 3);

    Decoded none = read_volume("scan.", SIZES);  // a final '.' is no extension: scan..hdr
    EXPECT_EQ(none.result, 1);
    EXPECT_EQ(none.out, "Error: the file type is not recognized,\n"
                        "so it was assumed to be an quill file without an extension.\n"
                        "However, the storage type was not read from file scan..hdr\n"
                        "Valid types end in .nii, .img, .bshort, .bfloat, .blong, or _'\n");
}

TEST(ReadQuillHeader, FirstLineRules)
{
    ScopedTempDir dir;
    Decoded old = read_volume("a.bshort", "64 64 30 10\nx 4\ny 3\nz 2\nt 1\n");
    ASSERT_EQ(old.result, 0);
    EXPECT_EQ(old.h.dim.x * old.h.dim.y * old.h.dim.z * old.h.nt, 24);  // the four numbers are ignored
    EXPECT_EQ(read_volume("a.bshort", "\n# note\nx 4\ny 3\nz 2\nt 1\n").result, 0);
    for (const char *first : {"info: scan\n", "64 64 30\n", "direction 1 -1 0.5\n"}) {
        Decoded d = read_volume("a.bshort", (std::string(first) + SIZES).c_str());
        EXPECT_EQ(d.result, 1) << first;
        EXPECT_NE(d.out.find("Error reading the 1st line of the qll header file 'a.hdr'.\n"), std::string::npos)
            << d.out;
    }
}

TEST(ReadQuillHeader, ReportedLineNumberCountsAppliedLinesFromOne)
{
    ScopedTempDir dir;
    // non-blank lines: x (1st), y (2nd), bogus (3rd): reported as line 2
    Decoded d = read_volume("a.bshort", "x 4\n\ny 3\n   # only a comment\nbogus 1\nz 2\nt 1\n");
    EXPECT_EQ(d.result, 1);
    EXPECT_EQ(d.out, "Error reading line 2 of file 'a.hdr'\n");
    Decoded dir_line = read_volume("a.bshort", "x 4\ndirection 1 -1 0.5\n");
    EXPECT_EQ(dir_line.out, "Error: allowed values for direction (1,-1,0.5) are 1 and -1.\n"
                            "Error reading line 1 of file 'a.hdr'\n");
}

TEST(ReadQuillHeader, EveryDimensionIsRequiredInOrder)
{
    ScopedTempDir dir;
    const char *partial[3][2] = {{"y 3\nz 2\n", "x"}, {"x 3\nt 2\n", "y"}, {"x 3\ny 2\n", "z"}};
    for (auto &c : partial)
        EXPECT_EQ(read_volume("a.bshort", c[0]).out,
                  std::string("Error: Value for ") + c[1] + " dimension not found in header file 'a.hdr'\n");
    Decoded no_t = read_volume("a.bshort", "x 64\ny 64\nz 30\n");
    EXPECT_EQ(no_t.result, 1);
    EXPECT_EQ(no_t.out, "Error: Value for t dimension not found in header file 'a.hdr'\n");
    char missing[] = "absent.bfloat";
    QL_HEADER h;
    CaptureStdout();
    EXPECT_EQ(read_volume_header(missing, &h), 1);
    EXPECT_EQ(GetCapturedStdout(), "Error: cannot open quill file absent.hdr.\n");
}

TEST(ReadVolumeHeader, RefusesNegativeAndOversizedDimensions)
{
    ScopedTempDir dir;
    Decoded neg = read_volume("a.bshort", "x 4\ny -3\nz 2\nt 1\n");
    EXPECT_EQ(neg.result, 1);
    EXPECT_EQ(neg.out, "Error: the dimensions (4,-3,2) and 1 volumes given for a.bshort must be positive.\n");
    // 65536^2 * 2 wraps a 32-bit int to 0; 1024^3 floats would need a 4 GiB block
    for (const char *big : {"x 65536\ny 65536\nz 2\nt 1\n", "x 1024\ny 1024\nz 1024\nt 1\n",
                            "x 1024\ny 1024\nz 512\nt 1\ndata-type complex\n"}) {
        Decoded d = read_volume("a.bshort", big);
        EXPECT_EQ(d.result, 1) << big;
        EXPECT_NE(d.out.find("are too large.\n"), std::string::npos) << d.out;
    }
    EXPECT_EQ(read_volume("a.bshort", "x 1024\ny 1024\nz 512\nt 1\n").result, 0);
}

/* Every header kind passes through the same check, which names the data file given. */
TEST(ReadVolumeHeader, RefusesVoxelSizesThatAreNotPositiveAndFinite)
{
    ScopedTempDir dir;
    const char *quill[][2] = {{"resolution 1 0 1\n", "(1,0,1)"},
                              {"resolution 1 1 -2\n", "(1,1,-2)"},
                              {"resolution nan 1 1\n", "(nan,1,1)"},
                              {"resolution 1 inf 1\n", "(1,inf,1)"}};
    for (auto &q : quill) {
        Decoded d = read_volume("q.bshort", (std::string(SIZES) + q[0]).c_str());
        EXPECT_EQ(d.result, 1) << q[0];
        EXPECT_EQ(d.out, std::string("Error: the voxel size ") + q[1] +
                             " given for q.bshort must be positive and finite.\n");
    }
    EXPECT_EQ(read_volume("q.bshort", (std::string(SIZES) + "resolution 1e-3 2 3\n").c_str()).result, 0);

    // NIfTI pixdim 2 -2 2 and a NaN, in a single file and in a pair
    NiftiFixture f = nifti_fixture(4, 3, 2, 1, 2.0f, DT_FLOAT32);
    f.h.pixdim[2] = -2.0f;
    write_nifti("n.nii", f, std::vector<unsigned char>(96));
    HeaderRead r = read_header_printing("n.nii");
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.out, "The NIFTI header for file n.nii uses Method 1: the old analyze format\n"
                     "Error: the voxel size (2,-2,2) given for n.nii must be positive and finite.\n");
    f.h.pixdim[2] = 2.0f;
    f.h.pixdim[3] = NAN;
    write_nifti("n.img", f, std::vector<unsigned char>(96));
    r = read_header_printing("n.img");
    EXPECT_EQ(r.result, 1);
    EXPECT_NE(r.out.find("Error: the voxel size (2,2,nan) given for n.img must be positive and finite.\n"),
              std::string::npos) << r.out;

    // FreeSurfer: corners that coincide along the columns, and a negative slice thickness
    std::vector<double> v(4 * 3 * 2, 1.0);
    write_freesurfer_volume("fs_", 4, 3, 2, 1, 1.0f, 1.0f, 2.0f, 1, 1, v);
    write_text_file("fs.bhdr", "cols: 4\nrows: 3\nnslices: 2\nn_time_points: 1\nslice_thick: 1\n"
                               "top_right_a: 0\nbottom_right_a: 3\n");
    r = read_header_printing("fs_");
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.out, "Error: the voxel size (0,1,1) given for fs_ must be positive and finite.\n");
    write_text_file("fs.bhdr", "cols: 4\nrows: 3\nnslices: 2\nn_time_points: 1\nslice_thick: -1\n"
                               "top_right_r: 4\nbottom_right_r: 4\nbottom_right_a: 3\n");
    r = read_header_printing("fs_");
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.out, "Error: the voxel size (1,1,-1) given for fs_ must be positive and finite.\n");
}
