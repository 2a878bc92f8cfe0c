// The QC picture of align-batch: its layout from the template's non-zero extent, the grey
// template with anterior and superior at the top, the individual's edges where they are, and a
// PNG that reads back with the rendered pixels.
#include <gtest/gtest.h>

#include <png.h>
#include <vector>

#include "qc_picture.h"
#include "test_support.h"

namespace {

// 20 x 30 x 10 voxels of 2 mm; the template is non-zero on x 2..17, y 5..24, z 2..7 and grows
// with y (so anterior is brighter); the individual is bright for x < 10 and dark beyond.
struct Volumes {
    std::vector<float> tpl, ind;
    qc_volumes v;
    Volumes() : tpl(20 * 30 * 10, 0.0f), ind(20 * 30 * 10, 0.0f)
    {
        for (int z = 0; z < 10; z++)
            for (int y = 0; y < 30; y++)
                for (int x = 0; x < 20; x++) {
                    size_t i = (size_t)x + 20 * (y + 30 * (size_t)z);
                    if (x >= 2 && x <= 17 && y >= 5 && y <= 24 && z >= 2 && z <= 7) tpl[i] = 50.0f + 4.0f * y;
                    ind[i] = x < 10 ? 100.0f : 0.0f;
                }
        v = {IPOINT3D{20, 30, 10}, POINT3D{2.0f, 2.0f, 2.0f}, tpl.data(), ind.data(), ind.data()};
    }
};

const unsigned char *pixel(const std::vector<unsigned char> &rgb, const qc_layout &l, int x, int y)
{
    return &rgb[3 * ((size_t)y * l.width + x)];
}

bool orange(const unsigned char *p) { return p[0] == 255 && p[1] == 140 && p[2] == 0; }

}  // namespace

TEST(QcPlan, CellsFitTheLargestFieldAndSlicesFollowTheTemplatesExtent)
{
    Volumes vol;
    qc_layout l;
    ASSERT_EQ(qc_plan(&vol.v, &l), 0);
    // 60 mm field of view in 2 mm voxels: 8 pixels a voxel, 240-pixel cells
    EXPECT_EQ(l.cell_pixels, 240);
    EXPECT_EQ(l.width, 1200);
    EXPECT_EQ(l.height, 480);
    // z extent 2..7: 30 %, 50 %, 70 % (rounded to even) -> 4, 4, 6; middles of y 5..24 and x 2..17
    EXPECT_EQ(l.slice[0], 4);
    EXPECT_EQ(l.slice[1], 4);
    EXPECT_EQ(l.slice[2], 6);
    EXPECT_EQ(l.slice[3], 14);
    EXPECT_EQ(l.slice[4], 9);
    std::vector<float> empty(20 * 30 * 10, 0.0f);
    vol.v.tpl = empty.data();
    EXPECT_EQ(qc_plan(&vol.v, &l), 1);
}

TEST(QcRender, GreyTemplateWithAnteriorUpAndEdgesOnlyWhereTheIndividualHasThem)
{
    Volumes vol;
    qc_layout l;
    ASSERT_EQ(qc_plan(&vol.v, &l), 0);
    std::vector<unsigned char> rgb((size_t)l.width * l.height * 3);
    qc_render(&vol.v, &l, rgb.data());
    // first axial panel, bottom row: the grid's 30 y voxels fill the cell's height (8 pixels
    // each), the 20 x voxels its middle 160 pixels (from pixel 40)
    int top = l.cell_pixels, left = 40;
    // anterior (high y) is brighter and at the top: voxel y 24 at pixel rows 40..47, y 8 at 168..175
    const unsigned char *front = pixel(rgb, l, left + 8 * 5 + 4, top + 8 * (29 - 24) + 4);
    const unsigned char *back = pixel(rgb, l, left + 8 * 5 + 4, top + 8 * (29 - 8) + 4);
    EXPECT_FALSE(orange(front));
    EXPECT_EQ(front[0], front[1]);
    EXPECT_GT(front[0], back[0]);
    EXPECT_GT(back[0], 0);
    // outside the template: black
    const unsigned char *outside = pixel(rgb, l, left + 8 * 0 + 4, top + 8 * 15 + 4);
    EXPECT_EQ(outside[0] + outside[1] + outside[2], 0);
    // the individual's step lies between voxels 9 and 10: orange there and nowhere else in the row
    int row = top + 8 * (29 - 15) + 4;
    for (int x = 2; x <= 17; x++) {
        bool edge = orange(pixel(rgb, l, left + 8 * x + 4, row));
        EXPECT_EQ(edge, x == 9 || x == 10) << "voxel x " << x;
    }
}

TEST(WriteQcPicture, ThePngReadsBackAsRendered)
{
    ScopedTempDir dir;
    Volumes vol;
    testing::internal::CaptureStdout();
    ASSERT_EQ(write_qc_picture("qc.png", &vol.v), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    qc_layout l;
    qc_plan(&vol.v, &l);
    std::vector<unsigned char> rgb((size_t)l.width * l.height * 3);
    qc_render(&vol.v, &l, rgb.data());

    png_image image;
    memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&image, "qc.png"));
    image.format = PNG_FORMAT_RGB;
    std::vector<unsigned char> back(PNG_IMAGE_SIZE(image));
    ASSERT_TRUE(png_image_finish_read(&image, NULL, back.data(), 0, NULL));
    EXPECT_EQ((int)image.width, l.width);
    EXPECT_EQ((int)image.height, l.height);
    EXPECT_TRUE(back == rgb);
}

TEST(WriteQcPicture, AnUnwritableDirectoryLeavesNothingAndSaysSo)
{
    Volumes vol;
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_qc_picture("/nonexistent-directory/qc.png", &vol.v), 1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("/nonexistent-directory/qc.png"), std::string::npos) << out;
}
