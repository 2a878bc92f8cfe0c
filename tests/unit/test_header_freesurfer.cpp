// FreeSurfer ".bhdr" geometry, first slice header and storage detection.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>

#include "fixture_writers.h"
#include "header_freesurfer.h"
#include "header_quill.h"
#include "test_support.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

using Read = HeaderRead;

/* A 4 x 3 x 2 stack of 16-bit slices written by the fixture, then the .bhdr replaced. */
void write_stack(int storage, int byte_order)
{
    std::vector<double> v(4 * 3 * 2, 1.0);
    write_freesurfer_volume("subj_", 4, 3, 2, 1, 1.0f, 1.0f, 2.0f, storage, byte_order, v);
}

}  // namespace

TEST(ReadFreesurferHeader, CornersGiveOnlyTheVoxelSize)
{
    ScopedTempDir dir;
    write_stack(1, 1);
    // 256 columns and rows between (0,0,0), (256,0,0) and (256,256,0): 1 x 1
    write_text_file("subj.bhdr", "cols: 256\nrows: 256\nnslices: 2\nn_time_points: 3\nslice_thick: 1.5\n"
                                 "top_left_r: 0\ntop_right_r: 256\nbottom_right_r: 256\nbottom_right_a: 256\n"
                                 "image_tr: 2000 # ms\n");
    Read r = read_header_printing("subj_");
    ASSERT_EQ(r.result, 0) << r.out;
    EXPECT_EQ(r.h.file_type, 8);
    EXPECT_FLOAT_EQ(r.h.resolution.x, 1.0f);
    EXPECT_FLOAT_EQ(r.h.resolution.y, 1.0f);
    EXPECT_FLOAT_EQ(r.h.resolution.z, 1.5f);
    EXPECT_FLOAT_EQ(r.h.resolution_t, 2000.0f);
    EXPECT_EQ(r.h.nt, 3);
    EXPECT_EQ(r.h.n3d, 256 * 256 * 2);

    // an oblique plane far from the scanner origin: steps (0,2,0)/col and (0,0,3)/row
    write_text_file("subj.bhdr", "cols: 4\nrows: 3\nnslices: 2\nn_time_points: 1\nslice_thick: 5\n"
                                 "top_left_r: 10\ntop_left_a: 20\ntop_left_s: 30\n"
                                 "top_right_r: 10\ntop_right_a: 28\ntop_right_s: 30\n"
                                 "bottom_right_r: 10\nbottom_right_a: 28\nbottom_right_s: 39\n"
                                 "normal_r: 1\nimage_te: 3\nimage_ti: 4\nflip_angle: 90\n");
    r = read_header_printing("subj_");
    ASSERT_EQ(r.result, 0) << r.out;
    EXPECT_FLOAT_EQ(r.h.resolution.x, 2.0f);
    EXPECT_FLOAT_EQ(r.h.resolution.y, 3.0f);
    EXPECT_FLOAT_EQ(r.h.origin.x + r.h.origin.y + r.h.origin.z, 0.0f);
    EXPECT_FLOAT_EQ(r.h.direction.x + r.h.direction.y + r.h.direction.z, 3.0f);
    EXPECT_FLOAT_EQ(r.h.ijk_to_xyz.m[2][2], 5.0f);
    EXPECT_FLOAT_EQ(r.h.ijk_to_xyz.m[0][3], 0.0f);
}

TEST(ReadFreesurferHeader, ByteOrderComesFromTheFirstSliceHeader)
{
    ScopedTempDir dir;
    write_stack(1, 1);
    write_text_file("subj_000.hdr", "256 256 1 1\n");
    EXPECT_EQ(read_header_printing("subj_").h.byte_order, 1);
    write_text_file("subj_000.hdr", "256 256 1 0\n");
    EXPECT_EQ(read_header_printing("subj_").h.byte_order, 0);
    write_text_file("subj_000.hdr", "256 256 1\n");
    Read r = read_header_printing("subj_");
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.out, "Error: the byte order was not found in freesurfer file subj_000.hdr.\n");
    remove("subj_000.hdr");
    EXPECT_EQ(read_header_printing("subj_").out, "Error: cannot open freesurfer file subj_000.hdr.\n");
}

TEST(ReadFreesurferHeader, GeometryFileErrors)
{
    ScopedTempDir dir;
    write_stack(1, 1);
    // three lines decoded, the fourth unknown (the colon is part of the keyword)
    write_text_file("subj.bhdr", "cols: 4\n\n# note\nrows: 3\nnslices: 2\ncols 4\n");
    Read r = read_header_printing("subj_");
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.out, "Error reading line 4 of file 'subj.bhdr'\n");
    // a missing or unreadable number keeps the field: rows stays 3
    write_text_file("subj.bhdr", "cols: 4\nrows: 3\nrows: many\nnslices:\nn_time_points: 1\n");
    r = read_header_printing("subj_");
    EXPECT_EQ(r.out, "Error: Value for z dimension not found in header file 'subj.bhdr'\n");
    EXPECT_EQ(r.h.dim.y, 3);
    write_text_file("subj.bhdr", "cols: 4\nrows: 3\nnslices: 2\n");
    EXPECT_EQ(read_header_printing("subj_").out, "Error: Value for t dimension not found in header file 'subj.bhdr'\n");
    write_text_file("subj.bhdr", "rows: 3\n");
    EXPECT_EQ(read_header_printing("subj_").out, "Error: Value for x dimension not found in header file 'subj.bhdr'\n");
    remove("subj.bhdr");
    EXPECT_EQ(read_header_printing("subj_").out, "Error: cannot open freesurfer bhdr file subj.bhdr.\n");
}
