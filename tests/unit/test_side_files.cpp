// Overlay and wire-frame files, their list files, and the region statistics printout.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "globals.h"
#include "overlay_ops.h"
#include "side_files.h"
#include "test_support.h"

namespace {

/* A 6x5x4 displayed stack with fresh overlay records and an empty root wire frame. */
struct SideFiles : ::testing::Test {
    ScopedTempDir dir;
    void SetUp() override
    {
        set_displayed_stack_for_test(6, 5, 4, 1);
        initialize_overlay_records();
    }
    void TearDown() override
    {
        ovl_list *o = ovl_root.next;
        while (o != NULL) {
            ovl_list *n = o->next;
            free(o);
            o = n;
        }
        ovl_root.next = NULL;
        wire_list *w = wire_root.next;
        while (w != NULL) {
            wire_list *n = w->next;
            free(w->control);
            free(w);
            w = n;
        }
        wire_root.next = NULL;
        free(wire_root.control);
        wire_root.control = NULL;
        wire_root.npts = 0;
    }
    static int index(int x, int y, int z) { return (z * 5 + y) * 6 + x; }
};

TEST_F(SideFiles, OverlayFileRejectsWeightsOutsideUnitRangeAndBadLines)
{
    // a weight that is not a number lies in no range either
    const char *bad_weights[] = {"3 4 2 1.5\n", "3 4 2 -0.1\n", "3 4 2 nan\n", "3 4 2 -nan\n"};
    for (const char *content : bad_weights) {
        write_text_file("b.ovl", content);
        testing::internal::CaptureStdout();
        EXPECT_EQ(read_overlay_file("b.ovl", &ovl_root), 1) << content;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: use weight values <= 1. in overlays.\n");
    }
    write_text_file("c.ovl", "3 4\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_overlay_file("c.ovl", &ovl_root), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: The syntax in an overlay file can be one of the following:\n"
              "1)  x y z         (voxel indices), OR\n"
              "2)  x y z weight  (for variable weight in range 0:1)\n");
    // x = 6 is one past the last column; the message names ".ovl" whatever the file.
    write_text_file("d.ovl", "6 0 0\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_overlay_file("d.ovl", &ovl_root), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: the overlay in file .ovl does not agree with the image dimensions.\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_overlay_file("missing.ovl", &ovl_root), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error opening file missing.ovl\n");
}

TEST_F(SideFiles, WrittenOverlayWithFullWeightHasThreeColumnsAndMismatchIsReported)
{
    overlay_map.weight[index(2, 3, 1)] = 1.0f;
    overlay_map.weight[index(0, 0, 0)] = 0.75f;
    // The root still claims no points: the count check must complain.
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_overlay_file(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "2 pixels (total weight = 1.75) written to file .ovl\n"
              "Programming error: # overlay pixels not consistent (2 versus 0)\n");
    EXPECT_EQ(read_text_file(".ovl"), "0 0 0 0.75\n2 3 1\n");
}

TEST_F(SideFiles, ListMessagesNumberTheEntries)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_overlay_list((char *)"nope"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: cannot open the file nope.\n");

    write_text_file("one.ovl", "1 1 1\n");
    write_text_file("list", "# heading\nfirst one.ovl\n\nsecond\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_overlay_list((char *)"list"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error reading the file name for overlay 2.\n");
    // The entry before the bad line stays loaded.
    ASSERT_NE(ovl_root.next, nullptr);
    EXPECT_EQ(ovl_root.next->next, nullptr);

    write_text_file("wires", "w1\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_wire_list((char *)"wires"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error reading the file name for wire 1.\n");
}

TEST_F(SideFiles, WireColourOneTakesTheListColourAndSecondFileAppends)
{
    write_text_file("a.wire", "1.5 2 3 1\n4 5\n6 3\n");
    write_text_file("b.wire", "7 8 9 1 10 11 12 4\n");
    write_text_file("wires", "frame a.wire red\n");
    ASSERT_EQ(read_wire_list((char *)"wires"), 0);
    wire_list *w = wire_root.next;
    ASSERT_NE(w, nullptr);
    EXPECT_STREQ(w->name, "frame");
    ASSERT_EQ(w->npts, 2);
    EXPECT_EQ(w->control[0].point.x, 1.5f);
    EXPECT_EQ(w->control[0].color, 2);
    EXPECT_EQ(w->control[1].point.z, 6.0f);
    EXPECT_EQ(w->control[1].color, 3);

    ASSERT_EQ(read_wire_file("b.wire", w, 0), 0);
    ASSERT_EQ(w->npts, 4);
    EXPECT_EQ(w->control[0].point.x, 1.5f); // old points kept in order
    EXPECT_EQ(w->control[1].color, 3);
    EXPECT_EQ(w->control[2].point.x, 7.0f);
    EXPECT_EQ(w->control[2].color, 1); // new_color 0 keeps colour 1
    EXPECT_EQ(w->control[3].point.z, 12.0f);
    EXPECT_EQ(w->control[3].color, 4);

    write_text_file("empty.wire", "");
    EXPECT_EQ(read_wire_file("empty.wire", w, 5), 0);
    EXPECT_EQ(w->npts, 4);
}

TEST_F(SideFiles, AFullDiskKeepsTheOldOvlAndWireFiles)
{
    // 120 voxels of weight 0.5 ("x y z 0.5" lines, about 1 kB) and 50 control points (about
    // 1.5 kB) on a disk of 256 bytes a file.
    write_text_file(".ovl", "1 1 1\n");
    write_text_file(".wire", "1.000000 2.000000 3.000000  1\n");
    for (int i = 0; i < 6 * 5 * 4; i++) overlay_map.weight[i] = 0.5f;
    ovl_root.npts = 6 * 5 * 4;
    wire_root.control = (CONTROL_POINT *)calloc(50, sizeof(CONTROL_POINT));
    wire_root.npts = 50;
    std::string out;
    int ovl_status, wire_status;
    testing::internal::CaptureStdout();
    {
        ScopedFileSizeLimit disk(256);
        ovl_status = write_overlay_file();
        wire_status = write_wire_file();
    }
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(ovl_status, 1);
    EXPECT_EQ(wire_status, 1);
    EXPECT_EQ(out, "Error: .ovl could not be written (File too large); the previous file is kept.\n"
                   "Error: .wire could not be written (File too large); the previous file is kept.\n");
    EXPECT_EQ(read_text_file(".ovl"), "1 1 1\n");
    EXPECT_EQ(read_text_file(".wire"), "1.000000 2.000000 3.000000  1\n");
    EXPECT_EQ(leftover_temporaries(), 0);
}

using WriteRoiStats = SideFiles;

TEST_F(WriteRoiStats, HistogramHeadingOverThreeColumnRows)
{
    float averages[3] = {1.5f, 2.0f, 4.25f};
    float stdevs[3] = {0.5f, 0.25f, 1.0f};
    graph.yVector = averages;
    graph.yVector1 = stdevs;
    graph.npoints = 3;
    graph.iTime = 1;

    // No overlay voxels: no name, Npts 1.
    graph.type = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_roi_stats(1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "X\tNpts\tAverage\n0\t1\t1.5\n1\t1\t2\n2\t1\t4.25\n");

    overlay_map.weight[index(0, 0, 0)] = 1.0f;
    overlay_map.weight[index(1, 0, 0)] = 1.0f;
    update_root_overlay(1);
    graph.type = 3;
    testing::internal::CaptureStdout();
    write_roi_stats(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Overlay name: ovl1\nImage\tNpts\tAverage\tStDev\n1\t2\t2\t0.25\n");

    // A histogram gets the four-column heading above three-column rows.
    graph.type = 4;
    testing::internal::CaptureStdout();
    write_roi_stats(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Overlay name: ovl1\nImage\tNpts\tAverage\tStDev\n1\t2\t2\n");

    graph.type = 2;
    testing::internal::CaptureStdout();
    write_roi_stats(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Overlay name: ovl1\nZ\tNpts\tAverage\n1\t2\t2\n");
    graph.yVector = graph.yVector1 = nullptr;
    graph.npoints = 0;
}

} // namespace
