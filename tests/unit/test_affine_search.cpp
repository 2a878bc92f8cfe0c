// Tests of the automatic affine search: the parabola, the line scan, one pass, the level
// thresholds, and a headless recovery of a known shift of a small phantom.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "affine_search.h"
#include "align_model.h"
#include "display_hooks.h"
#include "filters.h"
#include "globals.h"
#include "numerics.h"
#include "prepare.h"
#include "resample.h"
#include "similarity.h"
#include "test_support.h"
#include "volume.h"

namespace {

// An analytic similarity of Alignment.value, installed in place of resampling and measuring.
float (*g_similarity)(const float *value) = nullptr;
int g_resamples = 0, g_costs = 0;
int g_info_calls = 0;
std::vector<int> g_info_at_level_line;
std::string g_levels;  // the level digits shown on the information line, in order

void counting_resample(int, int) { g_resamples++; }
float analytic_cost(int) { g_costs++; return g_similarity(Alignment.value); }
void count_info(void) { g_info_calls++; }
void record_level_line(const char *text, const char *, const char *)
{
    g_info_at_level_line.push_back(g_info_calls);
    if (strncmp(text, "level ", 6) == 0) g_levels += text + 6;
}

// Records as initialize_alignment leaves them, for a template of 1 mm voxels and 256 mm fields
// of view (base step 1 mm: level 1 translations 1, level 3 translations 4).
void use_analytic_similarity(float (*f)(const float *))
{
    g_similarity = f;
    g_resamples = g_costs = g_info_calls = 0;
    g_info_at_level_line.clear();
    g_levels.clear();
    AffineTrial.resample = counting_resample;
    AffineTrial.cost = analytic_cost;
    DisplayHooks = {};
    DisplayHooks.show_alignment_info = count_info;
    DisplayHooks.show_on_info_line = record_level_line;
    template_.resolution = {1.0f, 1.0f, 1.0f};
    template_.fov = {256.0f, 256.0f, 256.0f};
    template_.dim = {256, 256, 256};
    template_unfiltered.resolution = template_.resolution;
    template_unfiltered.fov = template_.fov;
    template_unfiltered.dim = template_.dim;
    for (int j = 0; j < 12; j++) {
        Alignment.value[j] = (j >= 6 && j <= 8) ? 1.0f : 0.0f;
        AlignAid.Adjust[j] = 0;
        AlignAid.increment[j] = 0.0f;
    }
    AlignAid.DisplayType = 0;
    AlignAid.DisplaySet = 1;
}

float peak_at_3_3(const float *v) { return 10.0f - (v[0] - 3.3f) * (v[0] - 3.3f); }
float peak_at_0_2(const float *v) { return 10.0f - (v[0] - 0.2f) * (v[0] - 0.2f); }

}  // namespace

TEST(ParabolicInterpolation, UnevenBracketOfAQuadratic)
{
    // y = 3 - (x - 2.5)^2 sampled at 1, 2, 4: the fit is exact, vertex (2.5, 3).
    float X[3] = {1.0f, 2.0f, 4.0f}, Y[3] = {0.75f, 2.75f, 0.75f}, x, y;
    ParabolicInterpolation(X, Y, &x, &y);
    EXPECT_NEAR(x, 2.5f, 1e-5);
    EXPECT_NEAR(y, 3.0f, 1e-5);
}

TEST(ParabolicInterpolationDeathTest, RepeatedAbscissaIsFatal)
{
    float X[3] = {0.0f, 0.0f, 1.0f}, Y[3] = {0.0f, 1.0f, 0.0f}, x, y;
    EXPECT_EXIT(
        {
            dup2(2, 1);
            ParabolicInterpolation(X, Y, &x, &y);
        },
        testing::ExitedWithCode(1),
        "maximize:\nX: 0.000000 0.000000 1.000000\nY: -1.000000 0.000000 -1.000000\n"
        "Error: singular matrix in ParabolicInterpolation");
}

TEST(LineScan, MarchesUpToTheFallThenFitsTheBracket)
{
    use_analytic_similarity(peak_at_3_3);
    AlignAid.iParameter = 0;
    AlignAid.increment[0] = 1.0f;
    float best, offset;
    line_scan_1d(0, peak_at_3_3(Alignment.value), &best, &offset);
    // probes at -1 and 1, then 2, 3, 4 (4 falls): five resamplings, bracket (2, 3, 4).
    EXPECT_EQ(g_resamples, 5);
    EXPECT_NEAR(offset, 3.3f, 1e-4);
    EXPECT_NEAR(best, 10.0f, 1e-4);
    EXPECT_FLOAT_EQ(AlignAid.increment[0], 1.0f);  // not halved: the best lay outside the first bracket
}

TEST(LineScan, BestInsideFirstBracketHalvesTheIncrement)
{
    use_analytic_similarity(peak_at_0_2);
    AlignAid.iParameter = 0;
    AlignAid.increment[0] = 1.0f;
    float best, offset;
    line_scan_1d(0, peak_at_0_2(Alignment.value), &best, &offset);
    EXPECT_EQ(g_resamples, 2);
    EXPECT_NEAR(offset, 0.2f, 1e-5);
    EXPECT_NEAR(Alignment.value[0], 0.2f, 1e-5);
    EXPECT_NEAR(best, 10.0f, 1e-5);
    EXPECT_FLOAT_EQ(AlignAid.increment[0], 0.5f);
}

namespace {
// Similarities that become undefined. A scan that never ends is cut off after 1000 trials
// with status 3, so that such a fault fails the test instead of hanging it.
float undefined_from_2_5(const float *v)
{
    if (g_costs > 1000) exit(3);
    return v[0] >= 2.5f ? NAN : v[0];
}
float undefined_left_probe(const float *v)
{
    if (g_costs > 1000) exit(3);
    return v[0] <= -0.5f ? NAN : -(v[0] - 3.0f) * (v[0] - 3.0f);
}
// A scan of parameter 0 from 0 in steps of 1 under the similarity f, then status 0.
void scan_then_exit(float (*f)(const float *), float cost_initial)
{
    dup2(2, 1);
    use_analytic_similarity(f);
    AlignAid.iParameter = 0;
    AlignAid.increment[0] = 1.0f;
    float best, offset;
    line_scan_1d(0, cost_initial, &best, &offset);
    exit(0);
}
}  // namespace

TEST(LineScanDeathTest, ASimilarityThatIsNotANumberEndsTheProcessWhereverItArises)
{
    // In the march: up from 0 through 1 and 2, then 3 is not a number.
    EXPECT_EXIT(scan_then_exit(undefined_from_2_5, 0.0f), testing::ExitedWithCode(1),
        "Programming or memory error in line_scan_1d\nX3Point = \\(1 2 3\\), Y3Point = \\(1 2 nan\\)");
    // At a probe, though the other probe alone would give a direction.
    EXPECT_EXIT(scan_then_exit(undefined_left_probe, -9.0f), testing::ExitedWithCode(1),
        "Programming or memory error in line_scan_1d\nX3Point = \\(-1 0 1\\), Y3Point = \\(nan -9 -4\\)");
}

namespace {
float separable_peak(const float *v)
{
    return 10.0f - (v[0] - 0.05f) * (v[0] - 0.05f) - (v[2] - 4.0f) * (v[2] - 4.0f);
}
float peak_y(const float *v) { return 10.0f - (v[1] + 2.6f) * (v[1] + 2.6f); }
}  // namespace

TEST(AffinePass, SingleParameterMovesByItsFullOffset)
{
    use_analytic_similarity(peak_y);
    AlignAid.Adjust[1] = 1;
    AlignAid.increment[1] = 1.0f;
    AlignAid.iParameter = 7;
    EXPECT_EQ(adjust_affine_1pass(0, 1), 1);
    EXPECT_NEAR(Alignment.value[1], -2.6f, 1e-4);
    EXPECT_FLOAT_EQ(Alignment.value[0], 0.0f);
    EXPECT_FLOAT_EQ(Alignment.value[6], 1.0f);
    EXPECT_EQ(AlignAid.iParameter, 1);
    EXPECT_EQ(g_info_calls, 2);  // after the scan and after the final resampling
}

TEST(AffinePass, MovesWeightedByGainsAndFreezesSmallMoves)
{
    // Parameter 0 gains 0.0025 with offset 0.05, parameter 2 gains 16 with offset 4.
    use_analytic_similarity(separable_peak);
    AlignAid.Adjust[0] = AlignAid.Adjust[2] = 1;
    AlignAid.increment[0] = AlignAid.increment[2] = 1.0f;
    EXPECT_EQ(adjust_affine_1pass(0, 1), 1);
    double g0 = 0.0025, g2 = 16.0, n = std::sqrt(g0 * g0 + g2 * g2);
    EXPECT_NEAR(Alignment.value[2], 4.0 * g2 / n, 1e-4);
    EXPECT_NEAR(Alignment.value[0], 0.05 * g0 / n, 1e-6);
    EXPECT_EQ(AlignAid.increment[0], 0.0f);  // moved less than 1/8 of the level-1 step: frozen
    EXPECT_EQ(AlignAid.increment[2], 1.0f);
    EXPECT_EQ(AlignAid.iParameter, 0);
}

namespace {
// Peak of height C at x = 2 (levels 3 and 1 both find it exactly in one pass).
float g_height = 0.0f;
float peak_at_2(const float *v) { return g_height - (v[0] - 2.0f) * (v[0] - 2.0f); }
float peak_at_1(const float *v) { return g_height - (v[0] - 1.0f) * (v[0] - 1.0f); }
}  // namespace

TEST(AffineLevels, LevelThreeEndsOnAFourPercentGain)
{
    use_analytic_similarity(peak_at_2);
    g_height = 104.0f;  // 100 -> 104 in the first cycle: 4 % < 5 %
    AlignAid.Adjust[0] = 1;
    auto_adjust_affine_iterations(0, 3, 3);
    EXPECT_EQ(g_info_at_level_line.size(), 1u);
    EXPECT_NEAR(Alignment.value[0], 2.0f, 1e-4);
}

TEST(AffineLevels, FinishingRunAtLevelOneUsesTheFinerThreshold)
{
    use_analytic_similarity(peak_at_1);
    g_height = 101.0f;  // 100 -> 101: 1 %, above 0.5 %, so a second cycle runs
    AlignAid.Adjust[0] = 1;
    auto_adjust_affine_iterations(0, 1, 1);
    EXPECT_EQ(g_info_at_level_line.size(), 2u);

    use_analytic_similarity(peak_at_1);
    AlignAid.Adjust[0] = 1;
    auto_adjust_affine_iterations(0, 3, 3);  // the same 1 % at level 3 ends at once
    EXPECT_EQ(g_info_at_level_line.size(), 1u);
}

namespace {
// A peak one step ahead of the value reached after k passes (two panel refreshes per pass
// with one parameter), 1 % higher after each pass, until it stops moving after 25 passes.
float running_peak(const float *v)
{
    int k = g_info_calls / 2;
    if (k > 25) k = 25;
    float height = 100.0f * (float)std::pow(1.01, k);
    float centre = (float)(k + 1);
    return height - (v[0] - centre) * (v[0] - centre);
}
}  // namespace

TEST(AffineLevels, CycleStopsAfterTwentyOnePasses)
{
    use_analytic_similarity(running_peak);
    AlignAid.Adjust[0] = 1;
    auto_adjust_affine_iterations(0, 1, 1);
    ASSERT_GE(g_info_at_level_line.size(), 2u);
    EXPECT_EQ(g_info_at_level_line[1] - g_info_at_level_line[0], 2 * 21);
    EXPECT_NEAR(Alignment.value[0], 26.0f, 1e-3);
}

namespace {
// A 32^3 phantom of 2 mm voxels: two ellipsoids of distinct intensity, centred at c_mm.
void fill_phantom(data_stack *s, float cx_mm)
{
    for (int z = 0; z < 32; z++)
        for (int y = 0; y < 32; y++)
            for (int x = 0; x < 32; x++) {
                float px = (x - 15.5f) * 2.0f - cx_mm, py = (y - 15.5f) * 2.0f, pz = (z - 15.5f) * 2.0f;
                float r1 = px * px / 400.0f + py * py / 576.0f + pz * pz / 324.0f;
                float r2 = (px - 6.0f) * (px - 6.0f) / 49.0f + (py + 4.0f) * (py + 4.0f) / 64.0f + pz * pz / 36.0f;
                float v = 0.0f;
                if (r1 <= 1.0f) v = 100.0f;
                if (r2 <= 1.0f) v = 200.0f;
                s->SpaceTime.fData[x + 32 * (y + 32 * z)] = v;
            }
}
}  // namespace

TEST(AffineSearch, RecoversTheShiftOfAPhantom)
{
    // The individual is the template moved by +5 mm along x; the translation that undoes it
    // enters the affine matrix with a minus sign, so the search must find x = -5.
    make_stack(&original_unfiltered, 32, 32, 32, 1, 2.0f, 2.0f, 2.0f);
    make_stack(&template_unfiltered, 32, 32, 32, 1, 2.0f, 2.0f, 2.0f);
    fill_phantom(&original_unfiltered, 5.0f);
    fill_phantom(&template_unfiltered, 0.0f);
    snprintf(original_unfiltered.name, sizeof original_unfiltered.name, "individual");
    snprintf(template_unfiltered.name, sizeof template_unfiltered.name, "template");
    DisplayHooks = {};
    AffineTrial.resample = transform_coordinates;
    AffineTrial.cost = cost_function;
    initialize_mosaic_ovl(0);
    initialize_alignment();
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_unfiltered);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);
    filter_image_data();
    transform_coordinates(1, 0);
    for (int j = 3; j < 12; j++) AlignAid.Adjust[j] = 0;
    AlignAid.DisplaySet = 1;
    auto_adjust_affine_iterations(0, 3, 1);
    EXPECT_NEAR(Alignment.value[0], -5.0f, 0.5f);
    EXPECT_NEAR(Alignment.value[1], 0.0f, 0.5f);
    EXPECT_NEAR(Alignment.value[2], 0.0f, 0.5f);
}

namespace {
// The real resampling and similarity, counted; a search that never ends is cut off after
// 1000 resamplings with status 3.
void bounded_resample(int all_voxels, int most_accurate)
{
    if (++g_resamples > 1000) exit(3);
    transform_coordinates(all_voxels, most_accurate);
}

// The phantom as template and an individual of zeros on the same grid, set up as the start-up
// does, searched with the real similarity.
void start_up_empty_individual(void)
{
    make_stack(&original_unfiltered, 32, 32, 32, 1, 2.0f, 2.0f, 2.0f);
    make_stack(&template_unfiltered, 32, 32, 32, 1, 2.0f, 2.0f, 2.0f);
    fill_phantom(&template_unfiltered, 0.0f);
    DisplayHooks = {};
    initialize_mosaic_ovl(0);
    initialize_alignment();
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_unfiltered);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);
    filter_image_data();
    transform_coordinates(1, 0);
    g_resamples = 0;
    AffineTrial.resample = bounded_resample;
    AffineTrial.cost = cost_function;
}
}  // namespace

TEST(LineScan, StopsWhereItsStepsNoLongerChangeTheResampledIndividual)
{
    // Every resampling of an empty individual is all zeros and its similarity 0: the probes
    // tie, the march goes down, -2 only ties again and -3 changes nothing: the scan stops
    // there and reports the best point so far, with no gain.
    start_up_empty_individual();
    AlignAid.iParameter = 0;
    AlignAid.increment[0] = 1.0f;
    float best = -1.0f, offset = 0.0f;
    testing::internal::CaptureStdout();
    line_scan_1d(0, cost_function(0), &best, &offset);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(g_resamples, 4);
    EXPECT_EQ(best, 0.0f);
    EXPECT_EQ(offset, -2.0f);
    EXPECT_EQ(out, "The line search of x stops at -2: its steps no longer change the resampled individual\n"
                   "(an empty or constant individual, a parameter without effect, or no template voxel left "
                   "on its grid).\n");
    AffineTrial.resample = transform_coordinates;
}

namespace {
float peak_at_origin(const float *v)
{
    float s = 100.0f;
    for (int j = 0; j < 12; j++) {
        float d = v[j] - ((j >= 6 && j <= 8) ? 1.0f : 0.0f);
        s -= d * d;
    }
    return s;
}

// Start-up records for a small phantom pair, then the analytic similarity in place of the
// resampling (the final accurate resampling of the action still runs on the phantom).
void start_up_phantom(void)
{
    make_stack(&original_unfiltered, 32, 32, 32, 1, 2.0f, 2.0f, 2.0f);
    make_stack(&template_unfiltered, 32, 32, 32, 1, 2.0f, 2.0f, 2.0f);
    fill_phantom(&original_unfiltered, 0.0f);
    fill_phantom(&template_unfiltered, 0.0f);
    DisplayHooks = {};
    initialize_mosaic_ovl(0);
    initialize_alignment();
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_unfiltered);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);
    filter_image_data();
    transform_coordinates(1, 0);
    g_similarity = peak_at_origin;
    g_levels.clear();
    AffineTrial.resample = counting_resample;
    AffineTrial.cost = analytic_cost;
    DisplayHooks.show_on_info_line = record_level_line;
}
}  // namespace

TEST(AutoAdjustAction, FirstCallIsStagedLaterCallsRefine)
{
    start_up_phantom();
    AlignAid.Adjust[10] = 0;
    action_auto_adjust_affine(2);
    // stage A level 3; stage B levels 3 to 1; stage C level 2; then level 1 with all
    EXPECT_EQ(g_levels, "332121");
    EXPECT_EQ(AlignAid.Adjust[10], 0);  // the user's flags are back
    EXPECT_EQ(AlignAid.Adjust[11], 1);
    EXPECT_EQ(AlignAid.DisplaySet, 1);
    g_levels.clear();
    action_auto_adjust_affine(2);
    EXPECT_EQ(g_levels, "1");
}

TEST(AutoAdjustAction, RefusedWhenNoParameterIsAllowed)
{
    start_up_phantom();
    for (int j = 0; j < 12; j++) AlignAid.Adjust[j] = 0;
    g_costs = 0;
    testing::internal::CaptureStdout();
    action_auto_adjust_affine(1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "No parameter is allowed to change: automatic alignment not started.\n");
    EXPECT_EQ(g_costs, 0);
    EXPECT_EQ(g_levels, "");
}
