// Display geometry: panels, window size, region test, pixel <-> voxel, grey window.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "display_hooks.h"
#include "display_model.h"
#include "globals.h"
#include "numerics.h"
#include "test_support.h"
#include "volume.h"

namespace {

/* A displayed stack of the given size and voxel sizes, mosaic defaults of the start-up. */
void show_stack(int nx, int ny, int nz, float rx = 1.0f, float ry = 1.0f, float rz = 1.0f)
{
    make_stack(&image_stack, nx, ny, nz, 1, rx, ry, rz);
    mosaic = {};
    mosaic.stack = &image_stack;
    mosaic.fSpaceMatrix = image_stack.SpaceTime.fData;
    mosaic.DimPanels = {0, 0, 0};
    mosaic.nx_RightPanel = ALIGN_RIGHT_PANEL_WIDTH;
    mosaic.activation.imap = 0;
}

int build_graph_calls = 0;
void count_build_graph(int) { build_graph_calls++; }

}  // namespace

TEST(AutomaticallySetPanels, TableRowsAndTheLastRow)
{
    struct { int n, c, r; } rows[] = {
        {1, 1, 1},   {2, 2, 1},   {3, 3, 1},   {4, 2, 2},   {5, 3, 2},     {6, 3, 2},     {0, 3, 2},
        {-7, 3, 2},  {7, 4, 2},   {9, 3, 3},   {10, 5, 2},  {12, 4, 3},    {13, 5, 3},    {16, 4, 4},
        {17, 5, 4},  {18, 6, 3},  {19, 5, 4},  {20, 5, 4},  {21, 7, 3},    {24, 6, 4},    {25, 5, 5},
        {26, 7, 4},  {30, 6, 5},  {31, 6, 6},  {40, 8, 5},  {41, 7, 6},    {48, 8, 6},    {49, 7, 7},
        {50, 8, 7},  {64, 8, 8},  {65, 9, 9},  {100, 10, 10}, {101, 12, 9}, {121, 11, 11}, {122, 16, 8},
        {144, 12, 12}, {169, 13, 13}, {196, 14, 14}, {225, 15, 15}, {226, 16, 16}, {300, 16, 16},
    };
    for (auto &row : rows) {
        int c = -1, r = -1;
        automatically_set_panels(row.n, &c, &r);
        EXPECT_EQ(c, row.c) << row.n;
        EXPECT_EQ(r, row.r) << row.n;
    }
    // Every count up to 256 fits its grid; 300 panels leave 44 unplaced.
    for (int n = 1; n <= 256; n++) {
        int c, r;
        automatically_set_panels(n, &c, &r);
        ASSERT_GE(c * r, n) << n;
    }
    int c, r;
    automatically_set_panels(300, &c, &r);
    EXPECT_EQ(300 - c * r, 44);
}

TEST(ComputeDisplaySize, CoarseAxisIsStretchedInPixels)
{
    show_stack(8, 6, 5, 1.0f, 1.0f, 3.0f);
    mosaic.mosaic_orientation = 2;  // XZ panels through y
    mosaic.zoom = 1;
    compute_display_size(NULL);
    EXPECT_FLOAT_EQ(mosaic.PixelResolution.x, 1.0f);
    EXPECT_FLOAT_EQ(mosaic.PixelResolution.y, 1.0f);
    EXPECT_FLOAT_EQ(mosaic.PixelResolution.z, 3.0f);
    EXPECT_EQ(mosaic.PixelDim.z, 15);
    EXPECT_EQ(mosaic.DisplayVolumeDim.x, 8);
    EXPECT_EQ(mosaic.DisplayVolumeDim.y, 5);
    EXPECT_EQ(mosaic.DisplayVolumeDim.z, 6);
    EXPECT_EQ(mosaic.n_display_slice, 6);  // one panel per y slice
    EXPECT_EQ(mosaic.ImageRegionPixels.y, (2 * 15 + 2 + 1));

    // A fractional stretch is rounded up: 5 voxels of 1.5 pixels take 8 pixels.
    show_stack(4, 5, 3, 2.0f, 3.0f, 2.0f);
    mosaic.mosaic_orientation = 0;
    compute_display_size(NULL);
    EXPECT_FLOAT_EQ(mosaic.PixelResolution.y, 1.5f);
    EXPECT_EQ(mosaic.PixelDim.y, 8);
    EXPECT_EQ(mosaic.PixelDim.x, 4);
}

TEST(ComputeDisplaySize, ExtremeVoxelSizeRatioGivesAWindowWiderThanAnyScreen)
{
    // x voxels 1e30 times the y voxels: the panels would be 4e30 pixels wide. The window comes
    // out wider than any screen (so it is refused as too big) instead of a wrapped-round size.
    show_stack(4, 4, 2, 1e30f, 1.0f, 1.0f);
    IPOINT2D size = compute_display_size(NULL);
    EXPECT_GT(size.x, 1 << 16);
    EXPECT_GT(mosaic.ImageRegionPixels.x, 1 << 16);
    EXPECT_EQ(mosaic.PixelDim.y, 4);
    EXPECT_EQ(size.y, mosaic.ImageRegionPixels.y + 75);
}

TEST(CursorSelectionOnImageWindow, MosaicPixelsRoundTripToVoxelsInEveryOrientation)
{
    for (int flip = 0; flip <= 1; flip++)
        for (int orientation = 0; orientation < 4; orientation++) {
            show_stack(5, 4, 3, 1.0f, 1.0f, 2.0f);
            mosaic.display_3orthogonal = 0;
            mosaic.mosaic_orientation = orientation;
            mosaic.flip_X11_y = flip;
            mosaic.zoom = 3;
            compute_display_size(NULL);
            for (int z = 0; z < 3; z++)
                for (int y = 0; y < 4; y++)
                    for (int x = 0; x < 5; x++) {
                        POINT3D v = {(float)x, (float)y, (float)z};
                        IPOINT2D p = Convert_rVoxel_to_Pixel(-1, v, 1);
                        ASSERT_GE(p.x, 0);
                        mosaic.cursor_selection = 1;
                        CursorSelection_OnImageWindow(p.x, p.y + 30);
                        ASSERT_EQ(mosaic.icursor.x, x) << flip << orientation;
                        ASSERT_EQ(mosaic.icursor.y, y) << flip << orientation;
                        ASSERT_EQ(mosaic.icursor.z, z) << flip << orientation;
                        ASSERT_TRUE(mosaic.cursor_selection & 2);
                        ASSERT_TRUE(mosaic.cursor_selection & 64);
                        ASSERT_FALSE(mosaic.cursor_selection & 8);
                        ASSERT_TRUE(mosaic.cursor_selection & (128 << orientation)) << orientation;
                    }
        }
}

TEST(CursorSelectionOnImageWindow, BordersMissingPanelsAndNegativePixelsAreNotOnTheImage)
{
    show_stack(4, 4, 3);
    mosaic.mosaic_orientation = 0;
    mosaic.flip_X11_y = 0;
    mosaic.zoom = 1;
    compute_display_size(NULL);  // 3 x 1 panels of 4 x 4
    mosaic.cursor_selection = 1;
    CursorSelection_OnImageWindow(0, 30);  // the outer border
    EXPECT_EQ(mosaic.cursor_selection, 1 | 8);
    mosaic.cursor_selection = 1;
    CursorSelection_OnImageWindow(5, 31);  // the border between panels 0 and 1
    EXPECT_TRUE(mosaic.cursor_selection & 8);
    EXPECT_FALSE(mosaic.cursor_selection & 2);
    mosaic.cursor_selection = 1;
    CursorSelection_OnImageWindow(6 + 1, 31 + 2);  // panel 1, voxel (1, 2): slice 1
    EXPECT_EQ(mosaic.cursor_selection, 1 | 2 | 64 | 128);
    EXPECT_EQ(mosaic.icursor.z, 1);

    // Only two slices shown: the third panel position has no slice.
    mosaic.display_slice[2] = 0;
    mosaic.DimPanels.z = 2;
    mosaic.cursor_selection = 1;
    CursorSelection_OnImageWindow(11 + 1, 31 + 2);
    EXPECT_TRUE(mosaic.cursor_selection & 8);
    EXPECT_EQ(mosaic.icursor.z, 0);
    EXPECT_EQ(mosaic.icursor.x, 1);
    // ... and the hidden slice has no pixel.
    POINT3D hidden = {1.0f, 1.0f, 2.0f};
    IPOINT2D p = Convert_rVoxel_to_Pixel(-1, hidden, 0);
    EXPECT_EQ(p.x, -1);
    EXPECT_EQ(p.y, -1);
}

TEST(DefineMosaicCursorLocation, RegionsOfTheWindow)
{
    show_stack(16, 16, 4);
    mosaic.zoom = 1;
    mosaic.activation.imap = 1;
    compute_display_size(NULL);  // image 35 x 35 (2 x 2 panels), colour bar 50
    auto where = [](int x, int y) {
        mosaic.cursor_selection = 1;
        define_mosaic_cursor_location(x, y);
        return mosaic.cursor_selection;
    };
    EXPECT_EQ(where(6, 5), 1 | 8);  // no menu items at all
    SelectableText items[2] = {};
    items[0] = {"?", 0, 4, 10, 0, 1, 0, &items[1]};
    items[1] = {"data", 1, 4, 20, 4, 128, 0, NULL};
    mosaic.SelectText = &items[0];
    EXPECT_EQ(where(6, 5), 1 | 4);
    EXPECT_EQ(mosaic.text_selection, 1);
    EXPECT_EQ(where(6, 15), 1 | 8);  // between the rows
    EXPECT_EQ(where(6, 20), 1 | 8);  // complex-data item on real data: inert
    image_stack.data_type = 1;
    EXPECT_EQ(where(6, 20), 1 | 4);
    EXPECT_EQ(mosaic.text_selection, 128);

    EXPECT_EQ(where(35 + 51, 40), 1 | 32);
    EXPECT_EQ(where(35 + 10, 33), 1 | 16 | 2048);
    EXPECT_EQ(where(35 + 10, 63), 1 | 16 | 4096);
    EXPECT_EQ(where(3, 33), 1 | 2 | 64 | 128);
    EXPECT_EQ(where(5, 30 + 35 + 40), 1 | 8);  // bottom band, no bottom item
}

TEST(RescaleImage, RangeFromTheDataAndTheContrastLevels)
{
    show_stack(4, 2, 1);
    float data[8] = {3, -2, 7, 5, 0, 1, 2, 6};
    memcpy(image_stack.SpaceTime.fData, data, sizeof data);
    contrast_low = 0.25f;
    contrast_high = 0.5f;
    rescale_image(1);
    EXPECT_FLOAT_EQ(image_scale_min, -2.0f + 9.0f * 0.25f);
    EXPECT_FLOAT_EQ(image_scale_max, -2.0f + 9.0f * 0.5f);
    // Without a new scan only the contrast moves.
    image_stack.SpaceTime.fData[2] = 100.0f;
    contrast_low = 0.0f;
    contrast_high = 1.0f;
    rescale_image(0);
    EXPECT_FLOAT_EQ(image_scale_min, -2.0f);
    EXPECT_FLOAT_EQ(image_scale_max, 7.0f);

    // With overlay points, only voxels of positive weight count.
    overlay_map.weight = float_vector(8);
    for (int i = 0; i < 8; i++) overlay_map.weight[i] = (i == 3 || i == 5) ? 1.0f : 0.0f;
    ovl_root.npts = 2;
    rescale_image(1);
    EXPECT_FLOAT_EQ(image_scale_min, 1.0f);
    EXPECT_FLOAT_EQ(image_scale_max, 5.0f);
    overlay_map = {};
    ovl_root.npts = 0;
}

TEST(RescaleImage, AllNegativeDataKeepsMinusOneAsMaximumAndTheHistogramIsRebuilt)
{
    show_stack(2, 2, 1);
    float data[4] = {-5, -3, -4, -8};
    memcpy(image_stack.SpaceTime.fData, data, sizeof data);
    contrast_low = 0.0f;
    contrast_high = 1.0f;
    DisplayHooks.build_graph_display = count_build_graph;
    graph.type = 3;
    rescale_image(1);
    EXPECT_FLOAT_EQ(image_scale_min, -8.0f);
    EXPECT_FLOAT_EQ(image_scale_max, -1.0f);
    EXPECT_EQ(build_graph_calls, 0);
    graph.type = 4;
    rescale_image(0);
    EXPECT_EQ(build_graph_calls, 1);
    DisplayHooks = {};
}
