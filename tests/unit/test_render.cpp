/* Unit tests of the display library: pixel layers, colour schemes, thresholds, neighbourhoods,
   the pixel buffers, key codes (against an X server) and the window rules. */
/* gtest before Xlib: Xlib defines macros (None, Bool) that gtest uses as names. */
#include <gtest/gtest.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/keysym.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "globals.h"
#include "interaction.h"
#include "render.h"
#include "test_support.h"
#include "x11_display.h"
#include "x11_events.h"

static unsigned long rgb(int r, int g, int b) { return (unsigned long)(r * 65536 + g * 256 + b); }

/* Grey window 0..100: slope 2.55, offset 0. */
static void grey_window_0_100(void)
{
    mosaic = {};
    image_scale_min = 0.0f;
    image_scale_max = 100.0f;
    image_scale_slope = 255.0f / 100.0f;
    image_scale_offset = 255.0f - image_scale_slope * 100.0f;
}

TEST(ImagePixel, OverlayTintsBlendWithGreyByWeight)
{
    grey_window_0_100();
    /* full weight: pure tint */
    EXPECT_EQ(image_pixel(40.0f, 0, 1.0f, 0, 0, 2), rgb(255, 0, 0));
    EXPECT_EQ(image_pixel(40.0f, 0, 1.0f, 0, 0, 3), rgb(0, 255, 0));
    EXPECT_EQ(image_pixel(40.0f, 0, 1.0f, 0, 0, 4), rgb(0, 0, 255));
    EXPECT_EQ(image_pixel(40.0f, 0, 1.0f, 0, 0, 5), rgb(255, 255, 255));
    EXPECT_EQ(image_pixel(40.0f, 0, 1.0f, 0, 0, 6), rgb(255, 0, 255));
    EXPECT_EQ(image_pixel(40.0f, 0, 1.0f, 0, 0, 7), rgb(255, 255, 0));
    EXPECT_EQ(image_pixel(40.0f, 0, 1.0f, 0, 0, 9), rgb(255, 127, 0));
    /* grey 102 (2.55*40), weight 0.5: 102*0.5 + 127.5 = 178.5 -> 178, cyan */
    EXPECT_EQ(image_pixel(40.0f, 0, 0.5f, 0, 0, 1), rgb(0, 178, 178));
}

TEST(ImagePixel, CrosshairStyleOneBlendsWithGreyNotWithOverlay)
{
    grey_window_0_100();
    mosaic.display_crosshairs = 1;
    EXPECT_EQ(image_pixel(40.0f, 0, 0, 1.0f, 0, 0), rgb(0, 255, 255));
    /* under a red overlay the half-weight crosshair still mixes with grey 102 */
    EXPECT_EQ(image_pixel(40.0f, 0, 1.0f, 0.5f, 0, 2), rgb(0, 178, 178));
    mosaic.display_crosshairs = 2;
    EXPECT_EQ(image_pixel(40.0f, 0, 0, 1.0f, 0, 0), rgb(102, 102, 102));
}

static void activation_scheme(int scheme, float low, float high)
{
    mosaic.activation.visible = 1;
    mosaic.activation.color_scheme = scheme;
    mosaic.activation.color_sign = 1;
    mosaic.activation.thresh_lin_low = low;
    mosaic.activation.thresh_lin_high = high;
    act_scale_slope = 1.0f;
    act_scale_offset = 0.0f;
}

TEST(ImagePixel, RainbowSchemeEndsAndThresholds)
{
    grey_window_0_100();
    activation_scheme(2, 10.0f, 5000.0f);
    EXPECT_EQ(image_pixel(40.0f, 767.0f, 0, 0, 0, 0), rgb(0, 255, 0));
    EXPECT_EQ(image_pixel(40.0f, 1279.0f, 0, 0, 0, 0), rgb(255, 0, 0));
    EXPECT_EQ(image_pixel(40.0f, 300.0f, 0, 0, 0, 0), rgb(0, 44, 255));
    /* at or below the low threshold the voxel is grey */
    EXPECT_EQ(image_pixel(40.0f, 10.0f, 0, 0, 0, 0), rgb(102, 102, 102));
    /* above the high threshold: the top index (red) */
    mosaic.activation.thresh_lin_high = 1000.0f;
    EXPECT_EQ(image_pixel(40.0f, 1200.0f, 0, 0, 0, 0), rgb(255, 0, 0));
    /* not visible: grey */
    mosaic.activation.visible = 0;
    EXPECT_EQ(image_pixel(40.0f, 767.0f, 0, 0, 0, 0), rgb(102, 102, 102));
}

TEST(ImagePixel, NegativeAndTwoSidedSchemes)
{
    grey_window_0_100();
    activation_scheme(-1, 10.0f, 5000.0f);
    /* -m = 300: scheme 1 index 300 -> red 255, green 44, blue 0 */
    EXPECT_EQ(image_pixel(40.0f, -300.0f, 0, 0, 0, 0), rgb(255, 44, 0));
    EXPECT_EQ(image_pixel(40.0f, 300.0f, 0, 0, 0, 0), rgb(102, 102, 102));
    activation_scheme(0, 10.0f, 5000.0f);
    EXPECT_EQ(image_pixel(40.0f, 100.0f, 0, 0, 0, 0), rgb(228, 0, 0));
    EXPECT_EQ(image_pixel(40.0f, 200.0f, 0, 0, 0, 0), rgb(255, 72, 0));
    EXPECT_EQ(image_pixel(40.0f, -100.0f, 0, 0, 0, 0), rgb(0, 0, 228));
    EXPECT_EQ(image_pixel(40.0f, -200.0f, 0, 0, 0, 0), rgb(0, 72, 183));
    /* the colour sign flips the two sides of scheme 0 */
    mosaic.activation.color_sign = -1;
    EXPECT_EQ(image_pixel(40.0f, -100.0f, 0, 0, 0, 0), rgb(228, 0, 0));
    /* an unknown scheme draws activated voxels black */
    activation_scheme(7, 10.0f, 5000.0f);
    EXPECT_EQ(image_pixel(40.0f, 100.0f, 0, 0, 0, 0), 0ul);
}

TEST(ActivationThreshold, NegativeLowKeptOnlyForLinearTwoSidedScheme)
{
    mosaic = {};
    mosaic.activation.color_scheme = 0;
    set_activation_threshold(-1, -3.0f);
    EXPECT_EQ(get_activation_threshold(-1), -3.0f);
    set_activation_threshold(1, 9.0f);
    EXPECT_EQ(get_activation_threshold(1), 9.0f);
    mosaic.activation.color_scheme = 1;
    set_activation_threshold(-1, -3.0f);
    EXPECT_EQ(get_activation_threshold(-1), 0.0f);
    mosaic.activation.color_scheme = 0;
    mosaic.activation.scale_log = 1;
    set_activation_threshold(-1, -2.0f);
    EXPECT_EQ(get_activation_threshold(-1), 0.0f);
    set_activation_threshold(1, 4.0f);
    EXPECT_EQ(mosaic.activation.thresh_log_high, 4.0f);
    EXPECT_EQ(mosaic.activation.thresh_lin_high, 9.0f);
}

/* ---- neighbourhoods ---- */

static double lanczos2(double x)
{
    if (fabs(x) < 0.00001) return 1.0;
    if (fabs(x / 2.0) > 1.0) return 0.0;
    double pi = 3.141592654;
    return 2.0 * sin(pi * x) * sin(pi * x / 2.0) / (pi * pi * x * x);
}

static void plane_layout(int nx, int ny, int nz, float rx, float ry, float rz, int zoom)
{
    mosaic = {};
    set_displayed_stack_for_test(nx, ny, nz, 1);
    float p = rx < ry ? rx : ry;
    if (rz < p) p = rz;
    mosaic.PixelResolution = {rx / p, ry / p, rz / p};
    mosaic.PixelDim = {(int)ceilf(nx * rx / p), (int)ceilf(ny * ry / p), (int)ceilf(nz * rz / p)};
    mosaic.zoom = zoom;
}

TEST(CreateNeighborhood, InterpolationWrapsTheFirstPixelToTheLastVoxel)
{
    plane_layout(4, 4, 1, 1, 1, 1, 2);
    mosaic.interpolate = 1;
    create_neighborhood(0);
    EXPECT_EQ(mosaic.OnGridXY, 0);
    /* pixel (0,0): position (0.5/2 - 0.5) = -0.25 per axis: voxels -1 (wrapped to 3) and 0 */
    const Neighborhood &e = mosaic.NeighborsXY[0];
    ASSERT_EQ(e.number, 4);
    double wlo = lanczos2(0.75), whi = lanczos2(0.25);
    double sum = (wlo + whi) * (wlo + whi);
    EXPECT_EQ(e.address[0].x, 3);
    EXPECT_EQ(e.address[0].y, 3);
    EXPECT_EQ(e.address[3].x, 0);
    EXPECT_EQ(e.address[3].y, 0);
    EXPECT_NEAR(e.weight[0], wlo * wlo / sum, 1e-6);
    EXPECT_NEAR(e.weight[3], whi * whi / sum, 1e-6);
    float total = e.weight[0] + e.weight[1] + e.weight[2] + e.weight[3];
    EXPECT_NEAR(total, 1.0f, 1e-6);
    /* pixel (1,1) of zoom 2: position 0.75/1 - 0.5 = 0.25 -> voxels 0 and 1 */
    const Neighborhood &f = mosaic.NeighborsXY[1 * 8 + 1];
    EXPECT_EQ(f.address[0].x, 0);
    EXPECT_EQ(f.address[3].x, 1);
    invert_neighborhood(0);
    free_stack(&image_stack);
}

TEST(CreateNeighborhood, DistancesBeyondHalfTheAxisAreMeasuredAroundTheWrap)
{
    /* one voxel along y: n/2 is 0, so every distance d becomes |1 - d| */
    plane_layout(4, 1, 1, 1, 1, 1, 2);
    mosaic.interpolate = 1;
    create_neighborhood(0);
    /* pixel (1, 0): x = 0.25 (voxels 0, 1), y = -0.25 (voxel -1 wrapped to 0, and voxel 0) */
    const Neighborhood &e = mosaic.NeighborsXY[1];
    ASSERT_EQ(e.number, 4);
    for (int i = 0; i < 4; i++) EXPECT_EQ(e.address[i].y, 0);
    double lx0 = lanczos2(0.25), lx1 = lanczos2(0.75);
    double ly_lo = lanczos2(1.0 - 0.75), ly_hi = lanczos2(1.0 - 0.25);
    double sum = (lx0 + lx1) * (ly_lo + ly_hi);
    EXPECT_NEAR(e.weight[0], lx0 * ly_lo / sum, 1e-6);
    EXPECT_NEAR(e.weight[2], lx0 * ly_hi / sum, 1e-6);
    invert_neighborhood(0);
    free_stack(&image_stack);
}

TEST(CreateNeighborhood, StretchedAxisBlendsTwoVoxelsWithoutInterpolation)
{
    /* voxels 1 x 3 mm in y: each y voxel spans three screen rows */
    plane_layout(2, 2, 1, 1, 3, 1, 1);
    create_neighborhood(0);
    EXPECT_EQ(mosaic.OnGridXY, 0);
    const Neighborhood &e = mosaic.NeighborsXY[1 * 2 + 0]; /* row 1: y = 1/3 */
    ASSERT_EQ(e.number, 2);
    EXPECT_EQ(e.address[0].y, 0);
    EXPECT_EQ(e.address[1].y, 1);
    double a = lanczos2(1.0 / 3.0), b = lanczos2(2.0 / 3.0);
    EXPECT_NEAR(e.weight[0], a / (a + b), 1e-6);
    EXPECT_EQ(mosaic.NeighborsXY[3 * 2 + 1].number, 1); /* row 3: y = 1 exactly */
    invert_neighborhood(0);
    free_stack(&image_stack);
}

/* ---- pixel buffers ---- */

/* A 5 x 4 x 3 stack whose voxel value encodes its position, shown 2 x 2 at zoom z. */
static void mosaic_of_coded_voxels(int zoom)
{
    plane_layout(5, 4, 3, 1, 1, 1, zoom);
    float *d = image_stack.SpaceTime.fData;
    for (int z = 0; z < 3; z++)
        for (int y = 0; y < 4; y++)
            for (int x = 0; x < 5; x++) d[(z * 4 + y) * 5 + x] = (float)(x + 5 * y + 20 * z);
    static int shown[3];
    shown[0] = shown[1] = shown[2] = 1;
    mosaic.display_slice = shown;
    mosaic.DimPanels = {2, 2, 3};
    mosaic.ImageRegionPixels = {(2 * 5 + 3) * zoom, (2 * 4 + 3) * zoom};
    image_scale_min = 0.0f;
    image_scale_max = 255.0f;
    prepare_image_display();
}

static int grey_of(unsigned int p) { return (int)(p & 255u); }

TEST(MakeMosaicImages, HiddenSlicesAreSkippedAndFlipTurnsPanels)
{
    mosaic_of_coded_voxels(1);
    static int shown[3] = {0, 1, 1};
    mosaic.display_slice = shown;
    mosaic.flip_X11_y = 1;
    prepare_image_display();
    std::vector<unsigned int> px((size_t)mosaic.ImageRegionPixels.x * mosaic.ImageRegionPixels.y);
    make_mosaic_images(px.data());
    int W = mosaic.ImageRegionPixels.x;
    /* first panel is slice 1; its top row shows y = 3 */
    EXPECT_EQ(grey_of(px[(size_t)1 * W + 1]), 0 + 5 * 3 + 20);
    EXPECT_EQ(grey_of(px[(size_t)4 * W + 1]), 0 + 20);
    EXPECT_EQ(grey_of(px[(size_t)1 * W + 7 + 2]), 2 + 15 + 40);
    free_stack(&image_stack);
}

namespace {
// The displayed stack in two XY panels at zoom 1, each voxel's grey its code x + nx*y + 4*nx*z.
void two_panels_of_coded_voxels(int nx, float rx)
{
    plane_layout(nx, 4, 2, rx, 1, 1, 1);
    for (int i = 0; i < image_stack.n3d; i++) image_stack.SpaceTime.fData[i] = (float)i;
    static int shown[2] = {1, 1};
    mosaic.display_slice = shown;
    mosaic.DimPanels = {2, 1, 2};
    mosaic.ImageRegionPixels = {2 * mosaic.PixelDim.x + 3, 4 + 2};
    image_scale_min = 0.0f;
    image_scale_max = 255.0f;
}
}  // namespace

TEST(PrepareImageDisplay, ARedrawAfterAResolutionChangeReadsTheNewGrid)
{
    // 8 x 4 x 2 voxels of 1 mm, then the same stack at 4 x 4 x 2 voxels of 2 x 1 x 1 mm: the
    // panels keep their 8 x 4 pixels, but every even pixel column 2k now shows voxel k.
    two_panels_of_coded_voxels(8, 1.0f);
    prepare_image_display();
    std::vector<unsigned int> px((size_t)mosaic.ImageRegionPixels.x * mosaic.ImageRegionPixels.y);
    make_mosaic_images(px.data());
    int W = mosaic.ImageRegionPixels.x;
    EXPECT_EQ(grey_of(px[(size_t)1 * W + 1 + 6]), 6);
    free_stack(&image_stack);

    two_panels_of_coded_voxels(4, 2.0f);
    ASSERT_EQ(mosaic.PixelDim.x, 8);
    ASSERT_EQ(W, mosaic.ImageRegionPixels.x);
    prepare_image_display();
    make_mosaic_images(px.data());
    for (int z = 0; z < 2; z++)
        for (int y = 0; y < 4; y++)
            for (int k = 0; k < 4; k++)
                EXPECT_EQ(grey_of(px[(size_t)(1 + y) * W + z * 9 + 1 + 2 * k]), k + 4 * y + 16 * z) << k << y << z;
    free_stack(&image_stack);
}

TEST(MakeMosaicImages, OneThreadAndSeveralGiveTheSamePixels)
{
    plane_layout(17, 13, 6, 1, 1.5f, 2, 3);
    std::mt19937 rng{1};
    std::uniform_real_distribution<float> u(-10.0f, 300.0f);
    for (int i = 0; i < image_stack.n3d; i++) image_stack.SpaceTime.fData[i] = u(rng);
    static int shown[6] = {1, 1, 1, 1, 1, 1};
    mosaic.display_slice = shown;
    mosaic.interpolate = 1;
    mosaic.display_crosshairs = 1;
    mosaic.icross = {5, 6, 2};
    mosaic.DimPanels = {3, 2, 6};
    mosaic.ImageRegionPixels = {(3 * mosaic.PixelDim.x + 4) * 3, (2 * mosaic.PixelDim.y + 3) * 3};
    image_scale_min = 0.0f;
    image_scale_max = 255.0f;
    prepare_image_display();
    size_t n = (size_t)mosaic.ImageRegionPixels.x * mosaic.ImageRegionPixels.y;
    std::vector<unsigned int> one(n), many(n);
    setenv("ALIGN_THREADS", "1", 1);
    make_mosaic_images(one.data());
    setenv("ALIGN_THREADS", "4", 1);
    make_mosaic_images(many.data());
    unsetenv("ALIGN_THREADS");
    EXPECT_EQ(0, memcmp(one.data(), many.data(), n * sizeof(unsigned int)));
    free_stack(&image_stack);
}

/* Every pixel of the mosaic and of the three planes against interpolate_2d on its own
   neighbourhood (the general pixel), also where overlay weights, a crosshair of style 1 or an
   activation test that passes at 0 make the plain grey pixel wrong. */
static void expect_general_pixels(const char *what)
{
    prepare_image_display();
    size_t W = (size_t)mosaic.ImageRegionPixels.x, H = (size_t)mosaic.ImageRegionPixels.y;
    std::vector<unsigned int> px(W * H);
    render_image_area(px.data());
    int kinds[3] = {0, 2, mosaic.display_ortho_ZY ? 1 : 3}, checked = 0, wrong = 0;
    int zoom = mosaic.zoom > 1 ? mosaic.zoom : 1;
    if (mosaic.display_3orthogonal) {
        IPOINT3D D = mosaic.PixelDim, c = mosaic.icross;
        for (int kind : kinds) {
            const Neighborhood *nb = kind == 0 ? mosaic.NeighborsXY
                                             : (kind == 2 ? mosaic.NeighborsXZ : (kind == 1 ? mosaic.NeighborsZY : mosaic.NeighborsYZ));
            IPOINT2D size = neighborhood_size(kind);
            int x0 = kind == 0 || kind == 2 ? zoom : (D.x + 2) * zoom;
            int y0 = kind == 0 || kind == 1 ? zoom : (D.y + 2) * zoom;
            int slice = kind == 0 ? c.z : (kind == 2 ? c.y : c.x);
            for (int jy = 0; jy < size.y; jy++)
                for (int jx = 0; jx < size.x; jx++) {
                    unsigned int want = (unsigned int)interpolate_2d(&nb[(size_t)jy * size.x + jx], kind, slice);
                    wrong += px[(size_t)(y0 + jy) * W + (size_t)(x0 + jx)] != want;
                    checked++;
                }
        }
    } else {
        const Neighborhood *nb = mosaic.NeighborsXY;
        IPOINT2D size = neighborhood_size(0);
        for (int panel = 0; panel < mosaic.DimPanels.z; panel++) {
            int x0 = (panel % mosaic.DimPanels.x) * (size.x + zoom) + zoom;
            int y0 = (panel / mosaic.DimPanels.x) * (size.y + zoom) + zoom;
            for (int jy = 0; jy < size.y; jy++)
                for (int jx = 0; jx < size.x; jx++) {
                    unsigned int want = (unsigned int)interpolate_2d(&nb[(size_t)jy * size.x + jx], 0, panel);
                    wrong += px[(size_t)(y0 + jy) * W + (size_t)(x0 + jx)] != want;
                    checked++;
                }
        }
    }
    EXPECT_EQ(wrong, 0) << what << ": " << checked << " pixels checked";
    EXPECT_GT(checked, 100) << what;
}

TEST(RenderImageArea, EveryPixelIsThatOfInterpolate2d)
{
    plane_layout(9, 7, 5, 1, 1, 1, 1);
    std::mt19937 rng{3};
    std::uniform_real_distribution<float> u(-20.0f, 300.0f);
    for (int i = 0; i < image_stack.n3d; i++) image_stack.SpaceTime.fData[i] = u(rng);
    image_stack.SpaceTime.fData[3] = -0.0f;
    image_stack.SpaceTime.fData[4] = NAN;
    static int shown[5] = {1, 1, 1, 1, 1};
    mosaic.display_slice = shown;
    mosaic.DimPanels = {3, 2, 5};
    mosaic.ImageRegionPixels = {3 * 9 + 4, 2 * 7 + 3};
    image_scale_min = 10.0f;
    image_scale_max = 200.0f;
    expect_general_pixels("grey mosaic");
    std::vector<float> weight(image_stack.n3d, 0.0f);
    std::vector<short> colour(image_stack.n3d, 0);
    weight[5] = 0.5f;
    weight[40] = 1.0f;
    colour[40] = 3;
    overlay_map.weight = weight.data();
    overlay_map.color = colour.data();
    expect_general_pixels("overlay weights");
    overlay_map.weight = NULL;
    overlay_map.color = NULL;
    mosaic.display_crosshairs = 1;
    mosaic.icross = {4, 3, 2};
    expect_general_pixels("crosshair style 1");
    mosaic.display_crosshairs = 0;
    activation_scheme(0, -1.0f, 5.0f);  // two-sided scheme, negative low threshold: 0 is activated
    mosaic.activation.visible = 1;
    expect_general_pixels("activated at 0");
    mosaic.activation = {};
    mosaic.interpolate = 1;
    mosaic.zoom = 2;
    mosaic.ImageRegionPixels = {(3 * 9 + 4) * 2, (2 * 7 + 3) * 2};
    expect_general_pixels("interpolated, zoom 2");
    mosaic.interpolate = 0;
    mosaic.zoom = 1;
    mosaic.display_3orthogonal = 1;
    mosaic.ImageRegionPixels = {9 + 3 + 7, 7 + 3 + 5};
    expect_general_pixels("three planes");
    free_stack(&image_stack);
}

/* ---- keys and window rules ---- */

TEST(ContrastDrag, OneAxisIsAClick)
{
    EXPECT_FALSE(is_contrast_drag(10, 10, 40, 10));
    EXPECT_FALSE(is_contrast_drag(10, 10, 10, 40));
    EXPECT_TRUE(is_contrast_drag(10, 10, 40, 41));
}

TEST(ReflowPanels, WiderTallerNarrowerAndUnchanged)
{
    mosaic = {};
    mosaic.ImageRegionPixels = {400, 200};
    mosaic.nx_RightPanel = 100; /* window 500 x 275 */
    mosaic.DimPanels = {4, 2, 8};
    EXPECT_TRUE(reflow_panels(600, 275));
    EXPECT_EQ(mosaic.DimPanels.x, 5);
    EXPECT_EQ(mosaic.DimPanels.y, 2);
    mosaic.DimPanels = {4, 2, 8};
    EXPECT_TRUE(reflow_panels(500, 400));
    EXPECT_EQ(mosaic.DimPanels.y, 3);
    EXPECT_EQ(mosaic.DimPanels.x, 3);
    mosaic.DimPanels = {4, 2, 8};
    EXPECT_TRUE(reflow_panels(300, 275));
    EXPECT_EQ(mosaic.DimPanels.x, 3);
    EXPECT_EQ(mosaic.DimPanels.y, 3);
    mosaic.DimPanels = {4, 2, 8};
    EXPECT_FALSE(reflow_panels(500, 275));
    EXPECT_EQ(mosaic.DimPanels.x, 4);
    EXPECT_EQ(mosaic.DimPanels.y, 2);
    /* window 1900 wide: 1901 is a ratio of 1.0005, inside the dead band */
    mosaic.ImageRegionPixels = {1800, 200};
    EXPECT_FALSE(reflow_panels(1901, 275));
    EXPECT_FALSE(reflow_panels(1899, 275));
    EXPECT_TRUE(reflow_panels(1897, 275));
}

/* Real key events need a server: ctest runs these tests against a private Xvfb. */
TEST(GetKeyPress, ControlLettersActAsArrowsAndShiftGivesCapitals)
{
    Display *d = XOpenDisplay(NULL);
    ASSERT_NE(d, nullptr) << "no X display: run through ctest, which starts Xvfb";
    XKeyEvent e = {};
    e.type = KeyPress;
    e.display = d;
    char key = 0;
    struct { KeySym sym; unsigned state; int code; } cases[] = {
        {XK_d, ControlMask, 4},   {XK_k, ControlMask, 11}, {XK_l, ControlMask, 12},
        {XK_u, ControlMask, 21},  {XK_Down, 0, 4},         {XK_Left, 0, 12},
        {XK_z, ShiftMask, 'Z'},   {XK_z, 0, 'z'},          {XK_numbersign, ShiftMask, '#'},
        {XK_Home, 0, 13},         {XK_Return, 0, 13},      {XK_Prior, 0, '+'},
        {XK_c, ControlMask, 3},   {XK_a, ControlMask, 1},  {XK_space, 0, ' '},
    };
    for (auto &c : cases) {
        e.keycode = XKeysymToKeycode(d, c.sym);
        e.state = c.state;
        if (e.keycode == 0) continue;
        ASSERT_EQ(get_key_press(&e, &key), 1) << c.sym;
        EXPECT_EQ(key, (char)c.code) << c.sym;
    }
    e.keycode = XKeysymToKeycode(d, XK_Shift_L);
    e.state = 0;
    EXPECT_EQ(get_key_press(&e, &key), 0);
    XCloseDisplay(d);
}
