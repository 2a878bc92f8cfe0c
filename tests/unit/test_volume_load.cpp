// Loading lists of volume files into a stack: stacking, checks, conversion, errors.
// The reference of the run is the first file any test reads; each test runs in its own process.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <malloc.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "fixture_writers.h"
#include "globals.h"
#include "header_quill.h"
#include "numerics.h"
#include "test_support.h"
#include "volume_load.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

/* A role's list of files; type 3 entries contribute one volume. */
struct Files {
    std::vector<file_list> nodes;
    explicit Files(std::vector<std::pair<std::string, int>> files) : nodes(files.size())
    {
        for (size_t i = 0; i < files.size(); i++) {
            memset(&nodes[i], 0, sizeof nodes[i]);
            snprintf(nodes[i].file_name, sizeof nodes[i].file_name, "%s", files[i].first.c_str());
            nodes[i].type = files[i].second;
            if (i > 0) nodes[i - 1].next = &nodes[i];
        }
    }
};

struct Load {
    int result;
    int nfiles;
    std::string out;
};

Load load(data_stack *s, Files &f, int common_dimensions = 0)
{
    Load l;
    CaptureStdout();
    l.result = read_SpaceTime_data(common_dimensions, s, &f.nodes[0], &l.nfiles);
    l.out = GetCapturedStdout();
    return l;
}

Load load_one(data_stack *s, const char *name, int common_dimensions = 0)
{
    Files f({{name, 0}});
    return load(s, f, common_dimensions);
}

data_stack empty_stack()
{
    data_stack s;
    memset(&s, 0, sizeof s);
    return s;
}

/* The writer puts a pair's data at offset 0: rewrite vox_offset (byte 108) by hand. */
void set_vox_offset(const char *hdr_name, float offset)
{
    FILE *fp = fopen(hdr_name, "r+b");
    if (fp == NULL || fseek(fp, 108, SEEK_SET) != 0 || fwrite(&offset, 4, 1, fp) != 1) abort();
    fclose(fp);
}

std::vector<double> ramp(int n, double start, double step)
{
    std::vector<double> v(n);
    for (int i = 0; i < n; i++) v[i] = start + i * step;
    return v;
}

}  // namespace

TEST(ReadSpaceTimeData, FilesAreStackedAlongTime)
{
    ScopedTempDir dir;
    write_quill_volume("a.bfloat", 2, 2, 1, 10, 2, 1, ramp(40, 0, 1), "resolution 1 1 1 1.5\n");
    write_quill_volume("b.bshort", 2, 2, 1, 5, 1, 0, ramp(20, 1000, 1), "resolution 1 1 1 3\n");
    Files f({{"a.bfloat", 0}, {"b.bshort", 0}});
    data_stack s = empty_stack();
    Load l = load(&s, f, 1);
    ASSERT_EQ(l.result, 0) << l.out;
    EXPECT_EQ(l.out, "");
    EXPECT_EQ(l.nfiles, 2);
    EXPECT_EQ(s.nt, 15);
    EXPECT_EQ(f.nodes[1].start_image, 10);
    EXPECT_EQ(f.nodes[1].end_image, 14);
    EXPECT_EQ(f.nodes[0].end_image, 9);
    EXPECT_EQ(f.nodes[1].header.storage_type, 1);
    EXPECT_EQ(s.npts_volume, 4);
    EXPECT_EQ(s.n4d, 20);                   // the last file's series
    EXPECT_FLOAT_EQ(s.resolution_t, 1.5f);  // from the first file only
    EXPECT_FLOAT_EQ(s.SpaceTime.fData[39], 39.0f);
    EXPECT_FLOAT_EQ(s.SpaceTime.fData[40], 1000.0f);
    EXPECT_FLOAT_EQ(s.SpaceTime.fData[59], 1019.0f);
    free_float_vector(s.SpaceTime.fData);
}

TEST(ReadQuillFile, EveryStorageTypeInBothByteOrdersConvertsByValue)
{
    ScopedTempDir dir;
    const std::vector<double> values[6] = {
        {}, {-32768, -1, 0, 32767}, {-1.5, 3.25e10, 0, 7}, {-16777216, -1, 0, 2000000000},
        {0, 1, 65535, 40000}, {0, 1, 255, 128},
    };
    const char *extension[6] = {"", "bshort", "bfloat", "blong", "ushort", "x"};
    for (int storage = 1; storage <= 5; storage++)
        for (int order = 0; order <= 1; order++) {
            std::string name = "v" + std::to_string(order) + "." + extension[storage];
            const char *keyword = storage == 5 ? "storage-type unsigned-char\n" : "";
            write_quill_volume(name, 2, 2, 1, 1, storage == 5 ? 0 : storage, order, {}, keyword);
            write_binary_file(name, encode_values(values[storage], storage, order));
            data_stack s = empty_stack();
            Load l = load_one(&s, name.c_str());
            ASSERT_EQ(l.result, 0) << name << l.out;
            for (int j = 0; j < 4; j++)
                EXPECT_EQ(s.SpaceTime.fData[j], (float)values[storage][j]) << name << " value " << j;
        }
}

TEST(ReadSpaceTimeData, NiftiScalingAndVoxelsAsStored)
{
    ScopedTempDir dir;
    // a not-a-number slope counts as set: it is applied
    const struct { float slope, offset, want; } cases[] = {{2, 10, 20}, {0, 10, 5}, {-1, 0.5f, -4.5f}, {NAN, 0, NAN}};
    for (const auto &c : cases) {
        NiftiFixture f = nifti_fixture(2, 1, 1, 1, 1.0f, DT_INT16);
        f.h.scl_slope = c.slope;
        f.h.scl_inter = c.offset;
        write_nifti("s.nii", f, encode_values({5, 5}, 1, machine_byte_order()));
        data_stack s = empty_stack();
        ASSERT_EQ(load_one(&s, "s.nii").result, 0);
        float got = s.SpaceTime.fData[1];
        if (std::isnan(c.want)) EXPECT_TRUE(std::isnan(got));
        else EXPECT_FLOAT_EQ(got, c.want) << c.slope;
    }
}

TEST(ReadSpaceTimeData, ComplexDataHoldsInterleavedPairs)
{
    ScopedTempDir dir;
    NiftiFixture f = nifti_fixture(2, 1, 1, 3, 1.0f, DT_COMPLEX64);
    write_nifti("c.nii", f, encode_values(ramp(12, 0, 0.5), 2, machine_byte_order()));
    data_stack s = empty_stack();
    ASSERT_EQ(load_one(&s, "c.nii").result, 0);
    EXPECT_EQ(s.data_type, 1);
    EXPECT_EQ(s.npts_volume, 4);
    EXPECT_EQ(s.n3d, 2);
    EXPECT_FLOAT_EQ(s.SpaceTime.fcData[5].real, 5.0f);  // volume 2, voxel 1
    EXPECT_FLOAT_EQ(s.SpaceTime.fcData[5].imag, 5.5f);
    write_quill_volume("q.bfloat", 2, 1, 1, 1, 2, 1, {1, 2, 3, 4}, "data-type real-imaginary\n");
    data_stack q = empty_stack();
    ASSERT_EQ(load_one(&q, "q.bfloat").result, 0);
    EXPECT_EQ(q.npts_volume, 4);
    EXPECT_FLOAT_EQ(q.SpaceTime.fData[3], 4.0f);
}

TEST(ReadSpaceTimeData, DataTypesMustMatchTheRunsFirstFileExceptForActivations)
{
    ScopedTempDir dir;
    write_quill_volume("real.bfloat", 2, 1, 1, 1, 2, 1, {1, 2});
    write_quill_volume("cplx.bfloat", 2, 1, 1, 1, 2, 1, {1, 2, 3, 4}, "data-type complex\n");
    ASSERT_EQ(load_one(&original_unfiltered, "real.bfloat").result, 0);
    Load l = load_one(&template_unfiltered, "cplx.bfloat");
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "Don't mix real and complex data types between files.\n");
    l = load_one(&activation_stack, "cplx.bfloat");
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "Activation overlays cannot be complex.\n");
}

TEST(ReadSpaceTimeData, DimensionsMustMatchAndResolutionOnlyWarns)
{
    ScopedTempDir dir;
    std::vector<float> v(4 * 4 * 5, 1.0f);
    write_nifti_float("ref.nii", 4, 4, 4, 1, 2.0f, v.data());
    write_nifti_float("z5.nii", 4, 4, 5, 1, 2.0f, v.data());
    NiftiFixture f = nifti_fixture(4, 4, 4, 1, 2.0f, DT_FLOAT32);
    f.h.pixdim[3] = 2.0001f;
    write_nifti("fine.nii", f, encode_values(std::vector<double>(64, 3.0), 2, machine_byte_order()));
    data_stack s = empty_stack();
    ASSERT_EQ(load_one(&s, "ref.nii", 1).result, 0);
    Load l = load_one(&s, "z5.nii", 1);
    EXPECT_EQ(l.result, 1);
    EXPECT_NE(l.out.find("Error: dimensions for z5.nii (4,4,5)\ndon't match previous image dimensions (4,4,4)\n"),
              std::string::npos) << l.out;
    data_stack other = empty_stack();
    EXPECT_EQ(load_one(&other, "z5.nii", 0).result, 0);
    data_stack warned = empty_stack();
    l = load_one(&warned, "fine.nii", 1);
    EXPECT_EQ(l.result, 0);
    EXPECT_NE(l.out.find("Warning: resolution for fine.nii (2,2,2.0001)\ndoesn't match previous resolution (2,2,2)\n"),
              std::string::npos) << l.out;
    EXPECT_FLOAT_EQ(warned.SpaceTime.fData[63], 3.0f);
}

TEST(ReadQuillFile, ProgressFiguresRunPastOneHundred)
{
    ScopedTempDir dir;
    // 25 volumes of 40001 bytes: 1000025 values, so the progress line is on; nt/10 = 2
    write_quill_volume("p.x", 40001, 1, 1, 25, 0, 1, {}, "storage-type unsigned-char\n");
    write_binary_file("p.x", std::vector<unsigned char>(1000025, 7));
    data_stack s = empty_stack();
    Load l = load_one(&s, "p.x");
    ASSERT_EQ(l.result, 0);
    std::string want;
    for (int figure : {0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120})
        want += "\rp.x: " + std::to_string(figure) + " %";
    EXPECT_EQ(l.out, want + "\rp.x: 100 %\n");
    EXPECT_FLOAT_EQ(s.SpaceTime.fData[1000024], 7.0f);
    // ten volumes are never reported, however large
    write_quill_volume("q.x", 200000, 1, 1, 10, 0, 1, {}, "storage-type unsigned-char\n");
    write_binary_file("q.x", std::vector<unsigned char>(2000000, 1));
    data_stack q = empty_stack();
    EXPECT_EQ(load_one(&q, "q.x").out, "");
}

TEST(ReadSpaceTimeData, MissingShortOrMisplacedDataFailsBeforeAllocating)
{
    ScopedTempDir dir;
    write_quill_volume("a.bfloat", 4, 4, 4, 2, 2, 1, ramp(127, 0, 1));  // one value short
    data_stack s = empty_stack();
    Load l = load_one(&s, "a.bfloat");
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "Error reading the data from file a.bfloat\n");
    EXPECT_EQ(s.SpaceTime.fData, nullptr);

    const float past_end[] = {1e6f, NAN, 3e30f};
    for (float offset : past_end) {
        NiftiFixture f = nifti_fixture(2, 2, 2, 1, 1.0f, DT_UINT8);
        f.h.vox_offset = offset;
        write_nifti("x.img", f, std::vector<unsigned char>(8, 1));
        set_vox_offset("x.hdr", offset);
        data_stack n = empty_stack();
        l = load_one(&n, "x.img");
        EXPECT_EQ(l.result, 1) << offset;
        EXPECT_NE(l.out.find("Error reading the data from file x.img\n"), std::string::npos) << l.out;
    }

    remove("a.bfloat");
    l = load_one(&s, "a.bfloat");
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "\nError: cannot open file a.bfloat.\n");
    l = load_one(&s, "nothing.bshort");
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "Error: cannot open quill file nothing.hdr.\n");
}

TEST(ReadSpaceTimeData, EachFileIsCheckedInItsTurnAndAShortOneCostsNoMemory)
{
    ScopedTempDir dir;
    // p.x: 11 volumes of 100000 bytes, enough for progress lines (nt / 10 = 1: every volume);
    // h.x promises 2000 volumes (800 MB as floats) and holds 10 bytes; c.x is the last file
    // and gives the stack its 100000 voxels.
    const char *uchar = "storage-type unsigned-char\n";
    write_quill_volume("p.x", 100000, 1, 1, 11, 0, 1, {}, uchar);
    write_binary_file("p.x", std::vector<unsigned char>(1100000, 9));
    write_quill_volume("h.x", 100000, 1, 1, 2000, 0, 1, {}, uchar);
    write_binary_file("h.x", std::vector<unsigned char>(10, 1));
    write_quill_volume("c.x", 100000, 1, 1, 1, 0, 1, {}, uchar);
    write_binary_file("c.x", std::vector<unsigned char>(100000, 2));
    Files f({{"p.x", 0}, {"h.x", 0}, {"c.x", 0}});
    data_stack s = empty_stack();
    Load l = load(&s, f);
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.nfiles, 1);
    std::string want;
    for (int figure = 0; figure <= 100; figure += 10) want += "\rp.x: " + std::to_string(figure) + " %";
    EXPECT_EQ(l.out, want + "\rp.x: 100 %\n" + "Error reading the data from file h.x\n");
    ASSERT_NE(s.SpaceTime.fData, nullptr);
    EXPECT_FLOAT_EQ(s.SpaceTime.fData[1099999], 9.0f);
    // room for p.x's 11 volumes only, not for the 2012 volumes of the list
    EXPECT_LT(malloc_usable_size(s.SpaceTime.fData), (size_t)12 * 100000 * sizeof(float));

    // an earlier file that cannot be opened is reported first, the short one never
    remove("p.x");
    data_stack m = empty_stack();
    l = load(&m, f);
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "\nError: cannot open file p.x.\n");
}

TEST(ReadSpaceTimeData, GzippedNiftiReadsLikeItsPlainTwin)
{
    ScopedTempDir dir;
    NiftiFixture f = nifti_fixture(5, 4, 3, 2, 1.5f, DT_INT16);
    f.h.scl_slope = 0.5f;
    f.h.scl_inter = -3.0f;
    const float sx[4] = {-1.5f, 0.0f, 0.0f, 20.0f}, sy[4] = {0.0f, 1.5f, 0.0f, -7.0f}, sz[4] = {0.0f, 0.0f, 1.5f, 4.0f};
    set_nifti_method3(&f, sx, sy, sz);
    f.dof_extension = true;
    f.dof = 17;
    ASSERT_TRUE(write_nifti("v.nii", f, encode_values(ramp(120, -50, 3), 1, machine_byte_order())));
    ASSERT_TRUE(gzip_file("v.nii", "v.nii.gz"));

    data_stack plain = empty_stack(), packed = empty_stack();
    Load a = load_one(&plain, "v.nii");
    Load b = load_one(&packed, "v.nii.gz");
    ASSERT_EQ(a.result, 0) << a.out;
    ASSERT_EQ(b.result, 0) << b.out;
    EXPECT_EQ(b.out, "The NIFTI header for file v.nii.gz uses Method 3: affine transformation of voxel indices\n");
    EXPECT_EQ(packed.nt, 2);
    EXPECT_EQ(packed.origin.x, 20.0f);
    EXPECT_EQ(packed.direction.x, -1.0f);
    EXPECT_EQ(memcmp(plain.SpaceTime.fData, packed.SpaceTime.fData, sizeof(float) * 120), 0);
    EXPECT_EQ(packed.SpaceTime.fData[119], 0.5f * (-50 + 3 * 119) - 3.0f);

    // a packed file whose data stop short is refused before the stack is allocated
    std::string whole = read_text_file("v.nii.gz");
    ASSERT_TRUE(gzip_file("v.nii", "cut.nii.gz", (long)whole.size() / 2));
    data_stack cut = empty_stack();
    Load c = load_one(&cut, "cut.nii.gz");
    EXPECT_EQ(c.result, 1);
    EXPECT_NE(c.out.find("Error reading the data from file cut.nii.gz\n"), std::string::npos) << c.out;
    EXPECT_EQ(cut.SpaceTime.fData, nullptr);

    // only ".nii.gz" is NIfTI: another ".gz" data file is a quill file with the extension "gz"
    write_quill_volume("q.gz", 2, 1, 1, 1, 2, machine_byte_order(), {1.25, -2.0});
    data_stack q = empty_stack();
    Load d = load_one(&q, "q.gz");
    ASSERT_EQ(d.result, 0) << d.out;
    EXPECT_EQ(q.SpaceTime.fData[1], -2.0f);
}

TEST(ReadSpaceTimeData, StacksTooLargeForTheAllocatorAreRefused)
{
    ScopedTempDir dir;
    // each file alone fits a 32-bit byte count; together they would need 4 GiB
    write_quill_header("h1.bfloat", "x 1024\ny 1024\nz 256\nt 2\n");
    write_quill_header("h2.bfloat", "x 1024\ny 1024\nz 256\nt 2\n");
    Files f({{"h1.bfloat", 0}, {"h2.bfloat", 0}});
    data_stack s = empty_stack();
    Load l = load(&s, f);
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "Error: 4 volumes of 268435456 values each are too many to hold in memory.\n");
    EXPECT_EQ(s.SpaceTime.fData, nullptr);
}

TEST(ReadFreesurferFile, SlicesFillTheirPlanesOfEveryVolume)
{
    ScopedTempDir dir;
    // 2 x 2 x 3, two volumes; value = 100 t + 10 z + j
    std::vector<double> v;
    for (int t = 0; t < 2; t++)
        for (int z = 0; z < 3; z++)
            for (int j = 0; j < 4; j++) v.push_back(100 * t + 10 * z + j);
    for (int storage = 1; storage <= 2; storage++) {
        std::string stem = "s" + std::to_string(storage) + "_";
        write_freesurfer_volume(stem, 2, 2, 3, 2, 1.0f, 1.0f, 2.0f, storage, 1 - machine_byte_order(), v);
        data_stack s = empty_stack();
        Load l = load_one(&s, stem.c_str());
        ASSERT_EQ(l.result, 0) << l.out;
        EXPECT_EQ(l.out, "");
        for (int i = 0; i < 24; i++) EXPECT_FLOAT_EQ(s.SpaceTime.fData[i], (float)v[i]) << stem << i;
    }
    data_stack one = empty_stack();
    Files first({{"s1_", 3}});
    ASSERT_EQ(load(&one, first).result, 0);
    EXPECT_EQ(one.nt, 1);
    EXPECT_FLOAT_EQ(one.SpaceTime.fData[11], 23.0f);

    write_binary_file("s1_002.bshort", std::vector<unsigned char>(15, 0));
    data_stack s = empty_stack();
    Load l = load_one(&s, "s1_");
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "Error reading the short data from file s1_\n");
    write_binary_file("s2_001.bfloat", std::vector<unsigned char>(31, 0));  // float slices: same text
    EXPECT_EQ(load_one(&s, "s2_").out, "Error reading the short data from file s2_\n");
    remove("s1_001.bshort");
    l = load_one(&s, "s1_");
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "\nError: cannot open file s1_\n");
}

TEST(ReadFreesurferFile, AStackBeforeTheLastFileRunsOnIntoTheNextVolumesWithinTheArray)
{
    ScopedTempDir dir;
    // a.bfloat and b.bfloat hold 2 x 2 x 2 volumes; the stack f_ between them is 2 x 2 x 4, so
    // its planes 2 and 3 run on into the stack's next volume, which b.bfloat then fills.
    std::vector<double> f16 = ramp(16, 100, 1);
    write_quill_volume("a.bfloat", 2, 2, 2, 1, 2, 1, ramp(8, 0, 1));
    write_freesurfer_volume("f_", 2, 2, 4, 1, 1.0f, 1.0f, 2.0f, 2, machine_byte_order(), f16);
    write_quill_volume("b.bfloat", 2, 2, 2, 2, 2, 1, ramp(16, 200, 1));
    Files fit({{"a.bfloat", 0}, {"f_", 0}, {"b.bfloat", 0}});
    data_stack s = empty_stack();
    Load l = load(&s, fit);
    ASSERT_EQ(l.result, 0) << l.out;
    EXPECT_EQ(l.out, "");
    EXPECT_EQ(s.nt, 4);
    EXPECT_EQ(fit.nodes[1].start_image, 1);
    for (int i = 0; i < 32; i++) {
        double want = i < 8 ? i : (i < 16 ? 100 + (i - 8) : 200 + (i - 16));
        EXPECT_FLOAT_EQ(s.SpaceTime.fData[i], (float)want) << i;
    }

    // five planes from volume 1 of a 3-volume stack would end at element 28 of 24: refused
    write_freesurfer_volume("g_", 2, 2, 5, 1, 1.0f, 1.0f, 2.0f, 2, machine_byte_order(), ramp(20, 0, 1));
    write_quill_volume("c.bfloat", 2, 2, 2, 1, 2, 1, ramp(8, 0, 1));
    Files past({{"a.bfloat", 0}, {"g_", 0}, {"c.bfloat", 0}});
    data_stack p = empty_stack();
    l = load(&p, past);
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "Error: the 5 slices of g_ reach past the end of the stack.\n");
}

/* The brain templates of mricron-data, read here and by nibabel at the same voxels. */
TEST(ReadSpaceTimeData, RealTemplatesAgreeWithASecondReader)
{
    ScopedTempDir dir;
    if (system("/usr/bin/python3 -c 'import nibabel' 2>/dev/null") != 0) GTEST_SKIP() << "no nibabel";
    for (const char *name : {"ch2", "ch2bet", "ch2better"}) {
        std::string gz = std::string("/usr/share/mricron/templates/") + name + ".nii.gz";
        if (access(gz.c_str(), R_OK) != 0) GTEST_SKIP() << "mricron-data is not installed";
        std::string nii = std::string(name) + ".nii";
        ASSERT_EQ(system(("gzip -dc " + gz + " > " + nii).c_str()), 0);
        data_stack s = empty_stack(), packed = empty_stack();
        Load l = load_one(&s, nii.c_str());
        ASSERT_EQ(l.result, 0) << l.out;
        // the gzipped file as shipped reads to the same values
        l = load_one(&packed, gz.c_str());
        ASSERT_EQ(l.result, 0) << l.out;
        ASSERT_EQ(packed.n3d, s.n3d);
        EXPECT_EQ(memcmp(packed.SpaceTime.fData, s.SpaceTime.fData, sizeof(float) * (size_t)s.n3d), 0) << name;
        free_float_vector(packed.SpaceTime.fData);
        std::mt19937 rng{1};
        std::string args;
        std::vector<int> index;
        for (int k = 0; k < 40; k++) {
            int i = (int)(rng() % s.dim.x), j = (int)(rng() % s.dim.y), z = (int)(rng() % s.dim.z);
            if (k == 0) { i = s.dim.x / 2; j = s.dim.y / 2; z = s.dim.z / 2; }  // inside the brain
            args += " " + std::to_string(i) + "," + std::to_string(j) + "," + std::to_string(z);
            index.push_back(i + s.dim.x * (j + s.dim.y * z));
        }
        std::string script =
            "import sys, nibabel\n"
            "d = nibabel.load(sys.argv[1]).dataobj\n"
            "for a in sys.argv[2:]:\n"
            "    i, j, k = map(int, a.split(','))\n"
            "    print(float(d[i, j, k]))\n";
        write_text_file("check.py", script);
        ASSERT_EQ(system(("/usr/bin/python3 check.py " + nii + args + " > values.txt").c_str()), 0);
        FILE *fp = fopen("values.txt", "r");
        ASSERT_NE(fp, nullptr);
        int nonzero = 0;
        for (int n : index) {
            double want;
            ASSERT_EQ(fscanf(fp, "%lf", &want), 1);
            EXPECT_EQ(s.SpaceTime.fData[n], (float)want) << name << " element " << n;
            nonzero += want != 0.0;
        }
        fclose(fp);
        EXPECT_GT(nonzero, 0) << name;
        free_float_vector(s.SpaceTime.fData);
    }
}

/* A header that would cost memory without data to fill it is refused before the allocation:
   512^3 values with no storage type, a pair whose data file is missing, a FreeSurfer stack
   missing a slice, a negative offset (which stops the program as the seek would). */
TEST(ReadSpaceTimeData, HeadersWithoutReadableDataAllocateNothing)
{
    ScopedTempDir dir;
    write_quill_header("big.dat", "x 512\ny 512\nz 512\nt 1\n");
    write_binary_file("big.dat", std::vector<unsigned char>(16, 0));
    data_stack s = empty_stack();
    Load l = load_one(&s, "big.dat");
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "Error: no storage type is given for big.dat; its header needs a storage-type line\n"
                     "(short, float, long, unsigned-short or unsigned-char).\n");
    EXPECT_EQ(s.SpaceTime.fData, nullptr);
    EXPECT_EQ(s.nt, 0);

    NiftiFixture f = nifti_fixture(512, 512, 512, 1, 1.0f, DT_FLOAT32);
    write_nifti("pair.img", f, {});
    remove("pair.img");
    l = load_one(&s, "pair.img");
    EXPECT_EQ(l.result, 1);
    EXPECT_NE(l.out.find("\nError: cannot open file pair.img.\n"), std::string::npos) << l.out;
    EXPECT_EQ(s.SpaceTime.fData, nullptr);
    ASSERT_EQ(mkdir("dir.img", 0700), 0);
    write_nifti("dir.hdr", f, {});
    l = load_one(&s, "dir.img");
    EXPECT_EQ(l.result, 1);
    EXPECT_NE(l.out.find("\nError: dir.img is not a regular file.\n"), std::string::npos) << l.out;
    EXPECT_EQ(s.SpaceTime.fData, nullptr);

    std::vector<double> v(4 * 3 * 3, 1.0);
    write_freesurfer_volume("fs_", 4, 3, 3, 1, 1.0f, 1.0f, 2.0f, 2, 1, v);
    remove("fs_002.bfloat");
    write_text_file("fs.bhdr", "cols: 4\nrows: 3\nnslices: 4000\nn_time_points: 1\nslice_thick: 1\n"
                               "top_right_r: 4\nbottom_right_r: 4\nbottom_right_a: 3\n");
    l = load_one(&s, "fs_");
    EXPECT_EQ(l.result, 1);
    EXPECT_EQ(l.out, "\nError: cannot open file fs_\n");
    EXPECT_EQ(s.SpaceTime.fData, nullptr);

    f.h.vox_offset = -1e30f;
    write_nifti("neg.nii", f, std::vector<unsigned char>(64));
    set_vox_offset("neg.nii", -1e30f);
    EXPECT_EXIT(load_one(&s, "neg.nii"), testing::ExitedWithCode(1),
                "\nError doing fseek\\(\\) to -1 in data file neg.nii\n");
}
