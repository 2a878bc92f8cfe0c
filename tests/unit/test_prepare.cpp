// Working volumes, the display's starting layout, down-sampling and resolution changes.
#include <gtest/gtest.h>

#include <cmath>
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "align_model.h"
#include "display_hooks.h"
#include "display_model.h"
#include "filters.h"
#include "globals.h"
#include "nl_model.h"
#include "nl_search.h"
#include "numerics.h"
#include "prepare.h"
#include "resample.h"
#include "test_support.h"
#include "volume.h"

namespace {

/* Template and individual as read, the start-up order up to the filtered working copies. */
void start_up(int tx, int ty, int tz, int ix, int iy, int iz, int individual_nt, int panels)
{
    make_stack(&template_unfiltered, tx, ty, tz, 1, 1.0f, 1.5f, 2.0f);
    template_unfiltered.origin = {-10.0f, 4.0f, 30.0f};
    template_unfiltered.direction = {-1.0f, 1.0f, 1.0f};
    template_unfiltered.ijk_to_xyz = scale_and_shift_to_mat44(
        template_unfiltered.resolution, template_unfiltered.origin, template_unfiltered.direction);
    template_unfiltered.xyz_to_ijk = invert_mat44(template_unfiltered.ijk_to_xyz);
    for (int i = 0; i < template_unfiltered.n3d; i++) template_unfiltered.SpaceTime.fData[i] = (float)(i % 17);
    make_stack(&original_unfiltered, ix, iy, iz, individual_nt, 2.0f, 2.0f, 2.0f);
    for (int i = 0; i < original_unfiltered.n4d; i++) original_unfiltered.SpaceTime.fData[i] = (float)(i % 5);
    mosaic.DimPanels.x = 0;
    mosaic.flip_X11_y = 1;
    initialize_mosaic_ovl(panels);
}

bool same_matrix(const mat44 &a, const mat44 &b)
{
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++)
            if (a.m[r][c] != b.m[r][c]) return false;
    return true;
}

int redraws = 0, panel_redraws = 0, graph_redraws = 0;
void count_window(void) { redraws++; }
void count_panel(void) { panel_redraws++; }
void count_graph(int, int) { graph_redraws++; }
void install_counting_hooks(void)
{
    DisplayHooks = {};
    DisplayHooks.update_XWindow_image = count_window;
    DisplayHooks.build_image_display = [](int) { redraws++; };
    DisplayHooks.refresh_display_image = count_window;
    DisplayHooks.show_alignment_info = count_panel;
    DisplayHooks.update_graph_data = count_graph;
    redraws = panel_redraws = graph_redraws = 0;
}

}  // namespace

TEST(InitializeMosaicOvl, WorkingVolumesTakeTheirHeadersAndZeroedFields)
{
    contrast_low = 0.3f;
    contrast_high = 0.6f;
    start_up(6, 5, 4, 3, 3, 3, 3, 0);
    EXPECT_EQ(contrast_low, 0.0f);
    EXPECT_EQ(contrast_high, 1.0f);

    EXPECT_EQ(original.dim.x * 10 + original.nt, 33);
    EXPECT_TRUE(same_matrix(template_.ijk_to_xyz, template_unfiltered.ijk_to_xyz));
    EXPECT_EQ(individual.dim.y * 10 + individual.nt, 53);  // template grid, individual's time points
    EXPECT_EQ(NL_bases.dim.z * 10 + NL_bases.nt, 41);
    data_stack *fields[4] = {&distort_x, &distort_y, &distort_z, &distort_d};
    for (data_stack *f : fields) {
        EXPECT_EQ(f->nt, 2);
        EXPECT_EQ(f->n3d, 120);
        for (int i = 0; i < 240; i++) ASSERT_EQ(f->SpaceTime.fData[i], 0.0f);
    }
    for (int i = 0; i < 120; i++) ASSERT_EQ(NL_bases.SpaceTime.fData[i], 0.0f);
    EXPECT_NE(distort_x.SpaceTime.fData, distort_y.SpaceTime.fData);  // each its own block

    EXPECT_EQ(mosaic.stack, &template_);
    EXPECT_EQ(mosaic.icross.x * 100 + mosaic.icross.y * 10 + mosaic.icross.z, 322);
    EXPECT_EQ(mosaic.nx_RightPanel, ALIGN_RIGHT_PANEL_WIDTH);
    EXPECT_EQ(mosaic.DimPanels.z, 4);
    EXPECT_EQ(mosaic.DimPanels.x, 2);  // the display size is computed: 4 panels, 2 x 2
    EXPECT_GT(mosaic.ImageRegionPixels.x, 0);
}

TEST(DownsampleStack, HalvingKeepsConstantsAndInteriorRampsAndSetsTheCoarseGeometry)
{
    data_stack s;
    make_stack(&s, 8, 6, 4, 2, 1.0f, 2.0f, 3.0f);
    s.origin = {5.0f, -3.0f, 2.0f};
    s.direction = {1.0f, -1.0f, 1.0f};
    s.ijk_to_xyz = scale_and_shift_to_mat44(s.resolution, s.origin, s.direction);
    snprintf(s.name, sizeof s.name, "ramp");
    // Time point 0: a ramp along x; time point 1: a constant.
    for (int z = 0; z < 4; z++)
        for (int y = 0; y < 6; y++)
            for (int x = 0; x < 8; x++) {
                s.SpaceTime.fData[(z * 6 + y) * 8 + x] = (float)x;
                s.SpaceTime.fData[s.n3d + (z * 6 + y) * 8 + x] = 7.0f;
            }
    testing::internal::CaptureStdout();
    downsample_stack(&s, {4, 3, 2});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // at most 5 time points: silent

    EXPECT_EQ(s.dim.x * 100 + s.dim.y * 10 + s.dim.z, 432);
    EXPECT_EQ(s.n2d * 10000 + s.n3d * 100 + s.n4d, 122448);
    EXPECT_EQ(s.npts_volume, 24);
    EXPECT_FLOAT_EQ(s.resolution.x, 2.0f);
    EXPECT_FLOAT_EQ(s.resolution.y, 4.0f);
    EXPECT_FLOAT_EQ(s.resolution.z, 6.0f);
    // origin and directions kept; matrices rebuilt from them and the new voxel size
    EXPECT_FLOAT_EQ(s.origin.x, 5.0f);
    EXPECT_FLOAT_EQ(s.direction.y, -1.0f);
    EXPECT_FLOAT_EQ(s.ijk_to_xyz.m[0][0], 2.0f);
    EXPECT_FLOAT_EQ(s.ijk_to_xyz.m[1][1], -4.0f);
    EXPECT_FLOAT_EQ(s.ijk_to_xyz.m[0][3], 5.0f);
    EXPECT_FLOAT_EQ(s.xyz_to_ijk.m[1][1], -0.25f);
    EXPECT_FLOAT_EQ(s.xyz_to_ijk.m[0][3], -2.5f);

    for (int v = 0; v < 24; v++) ASSERT_NEAR(s.SpaceTime.fData[24 + v], 7.0f, 1e-5) << v;
    // New voxel i lies at old x = 2i + 0.5; its kernel (2i-2 .. 2i+3) is symmetric inside.
    for (int z = 0; z < 2; z++)
        for (int y = 0; y < 3; y++)
            for (int i = 1; i <= 2; i++) ASSERT_NEAR(s.SpaceTime.fData[(z * 3 + y) * 4 + i], 2 * i + 0.5f, 1e-4);
    // At the edge the kernel is cut off: the first voxel leans inwards.
    EXPECT_GT(s.SpaceTime.fData[0], 0.5f);
    free_stack(&s);
}

/* Brute-force reduction of one real volume: every old voxel within the kernel's reach of the
   new voxel's position, Gauss weights multiplied z, x, y in float, sums in double. The
   Gaussian's sigma is 0.425 s rounded once from double, or with float_sigma the product
   0.425f * s taken in float. */
static std::vector<float> reduce_by_brute_force(const data_stack &old, IPOINT3D nd, bool float_sigma)
{
    IPOINT3D od = old.dim;
    float s[3] = {(float)od.x / (float)nd.x, (float)od.y / (float)nd.y, (float)od.z / (float)nd.z};
    float sigma[3];
    int w[3];
    for (int a = 0; a < 3; a++) {
        sigma[a] = float_sigma ? 0.425f * s[a] : (float)(0.425 * (double)s[a]);
        w[a] = std::max(1, (int)std::floor(s[a]));
    }
    POINT3D res = {s[0] * old.resolution.x, s[1] * old.resolution.y, s[2] * old.resolution.z};
    POINT3D origin = {(1.0f - (float)nd.x) * res.x / 2.0f, (1.0f - (float)nd.y) * res.y / 2.0f,
                      (1.0f - (float)nd.z) * res.z / 2.0f};
    mat44 to_space = scale_and_shift_to_mat44(res, origin, {1.0f, 1.0f, 1.0f});
    mat44 to_old = centered_xyz_to_ijk(old);
    std::vector<float> out;
    for (int k = 0; k < nd.z; k++)
        for (int j = 0; j < nd.y; j++)
            for (int i = 0; i < nd.x; i++) {
                POINT3D p = apply_mat44(to_space, (float)i, (float)j, (float)k);
                POINT3D v = apply_mat44(to_old, p.x, p.y, p.z);
                double sum = 0.0, weights = 0.0;
                for (int z = 0; z < od.z; z++)
                    for (int y = 0; y < od.y; y++)
                        for (int x = 0; x < od.x; x++) {
                            if (x < std::floor(v.x) - w[0] || x > std::ceil(v.x) + w[0]) continue;
                            if (y < std::floor(v.y) - w[1] || y > std::ceil(v.y) + w[1]) continue;
                            if (z < std::floor(v.z) - w[2] || z > std::ceil(v.z) + w[2]) continue;
                            float weight = Gauss(v.z - (float)z, 0.0f, sigma[2]) * Gauss(v.x - (float)x, 0.0f, sigma[0]) *
                                           Gauss(v.y - (float)y, 0.0f, sigma[1]);
                            sum += (double)weight * (double)old.SpaceTime.fData[(z * od.y + y) * od.x + x];
                            weights += (double)weight;
                        }
                out.push_back(weights == 0.0 ? 0.0f : (float)(sum / weights));
            }
    return out;
}

TEST(DownsampleStack, GaussianWidthIsComputedInDoubleAsTheResamplingDoes)
{
    data_stack s;
    make_stack(&s, 24, 21, 19, 1);
    std::mt19937 rng{1};
    std::uniform_real_distribution<float> u(0.0f, 1000.0f);
    for (int i = 0; i < s.n3d; i++) s.SpaceTime.fData[i] = u(rng);
    std::vector<float> want = reduce_by_brute_force(s, {12, 10, 9}, false);
    std::vector<float> float_width = reduce_by_brute_force(s, {12, 10, 9}, true);
    int differ = 0;
    for (size_t v = 0; v < want.size(); v++) differ += want[v] != float_width[v];
    ASSERT_GT(differ, 20);  // the two widths are told apart on this reduction

    downsample_stack(&s, {12, 10, 9});
    ASSERT_EQ(s.n3d, 1080);
    int wrong = 0;
    for (int v = 0; v < 1080; v++) wrong += s.SpaceTime.fData[v] != want[v];
    EXPECT_EQ(wrong, 0);
    free_stack(&s);
}

TEST(ActionChangeResolution, ReducingAndRestoringTheTemplateGrid)
{
    start_up(4, 4, 181, 4, 4, 20, 1, 0);
    initialize_alignment();
    filter_image_data();
    install_counting_hooks();

    AlignAid.SubSampleSetting = {1, 1, 2};
    action_change_resolution();
    EXPECT_EQ(AlignAid.LowResolution, 1);
    EXPECT_EQ(AlignAid.SubSample.z, 2);
    EXPECT_EQ(Alignment.dimension.z, 90);
    EXPECT_EQ(Alignment.dimension.x, 4);
    EXPECT_FLOAT_EQ(Alignment.resolution.z, 2.0f * (181.0f / 90.0f));
    EXPECT_EQ(template_.dim.z, 90);
    EXPECT_EQ(template_.n3d, 4 * 4 * 90);
    EXPECT_FLOAT_EQ(template_.resolution.z, 2.0f * 181.0f / 90.0f);
    EXPECT_FLOAT_EQ(template_.resolution.x, 1.0f);
    EXPECT_EQ(distort_x.dim.z, 90);
    EXPECT_EQ(distort_d.dim.z, 90);
    EXPECT_EQ(distort_z.nt, 2);
    EXPECT_EQ(individual.dim.z, 90);
    EXPECT_EQ(individual.nt, original.nt);
    EXPECT_TRUE(same_matrix(Alignment.ijk_to_xyz, centered_ijk_to_xyz(template_)));
    EXPECT_TRUE(same_matrix(Alignment.xyz_to_ijk, centered_xyz_to_ijk(original_unfiltered)));
    EXPECT_GE(redraws, 1);
    EXPECT_EQ(panel_redraws, 1);
    EXPECT_EQ(graph_redraws, 1);

    AlignAid.SubSampleSetting = {1, 1, 1};
    action_change_resolution();
    EXPECT_EQ(AlignAid.LowResolution, 0);
    EXPECT_EQ(template_.dim.z, 181);
    EXPECT_EQ(template_.n3d, template_unfiltered.n3d);
    EXPECT_FLOAT_EQ(template_.resolution.z, 2.0f);
    EXPECT_TRUE(same_matrix(template_.ijk_to_xyz, template_unfiltered.ijk_to_xyz));
    EXPECT_TRUE(same_matrix(template_.xyz_to_ijk, template_unfiltered.xyz_to_ijk));
    EXPECT_EQ(Alignment.dimension.z, 181);
    EXPECT_FLOAT_EQ(Alignment.resolution.z, 2.0f);
    EXPECT_EQ(distort_y.dim.z, 181);
    EXPECT_EQ(individual.dim.z, 181);
    EXPECT_TRUE(same_matrix(Alignment.ijk_to_xyz, centered_ijk_to_xyz(template_unfiltered)));
    // The full-resolution template holds the unfiltered data again (rolloff off).
    for (int i = 0; i < template_.n3d; i++)
        ASSERT_EQ(template_.SpaceTime.fData[i], template_unfiltered.SpaceTime.fData[i]) << i;
    EXPECT_EQ(mosaic.icross.z, 90);
    DisplayHooks = {};
}

TEST(ActionChangeResolution, NonlinearRunAfterwardsLaysItsGridOutOnTheReducedTemplate)
{
    // The grid built at start-up is for 8 x 8 x 8 voxels; after halving every axis the run of
    // 'A' (button 2) must walk boxes of the 4 x 4 x 4 template, not past its maps.
    start_up(8, 8, 8, 8, 8, 8, 1, 0);
    initialize_alignment();
    filter_image_data();
    install_counting_hooks();
    AlignAid.SubSampleSetting = {2, 2, 2};
    action_change_resolution();
    ASSERT_EQ(template_.dim.x, 4);
    testing::internal::CaptureStdout();
    action_auto_adjust_nonlinear(2);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("Programming"), std::string::npos) << out;
    EXPECT_EQ(out.substr(out.size() - 5), "done\n");
    for (int n = 0; n < AlignNL.NBasis; n++) {
        ASSERT_LE(AlignNL.Index3DEnd[n].x, 4) << n;
        ASSERT_LE(AlignNL.Index3DEnd[n].y, 4) << n;
        ASSERT_LE(AlignNL.Index3DEnd[n].z, 4) << n;
    }
    DisplayHooks = {};
}

TEST(ActionChangeResolution, AStepAboveTheTemplateSizeLeavesOneVoxel)
{
    start_up(4, 4, 3, 4, 4, 4, 1, 0);
    initialize_alignment();
    filter_image_data();
    install_counting_hooks();
    AlignAid.SubSampleSetting = {1, 1, 6};
    action_change_resolution();
    EXPECT_EQ(Alignment.dimension.z, 1);
    EXPECT_EQ(template_.dim.z, 1);
    EXPECT_FLOAT_EQ(Alignment.resolution.z, 2.0f * 3.0f);
    DisplayHooks = {};
}
