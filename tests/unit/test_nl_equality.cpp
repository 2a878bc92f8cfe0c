// The non-linear cost, map update and coefficient search equal the straightforward reference
// (tests/tools/nl_reference) bit for bit: every value returned, every running total, every map
// and resampled voxel, every printed line. Synthetic cases cover partial boxes at the grid's
// upper edges, wrap-around, zero and NaN template values, each combination of adjusted
// components and both cost codes; the warped brain pair at 2 mm covers real histograms.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "align_model.h"
#include "brain_case.h"
#include "display_hooks.h"
#include "globals.h"
#include "nl_cost.h"
#include "nl_model.h"
#include "nl_reference.h"
#include "nl_search.h"
#include "numerics.h"
#include "resample.h"
#include "test_support.h"
#include "volume.h"

namespace {

unsigned bits(float f)
{
    unsigned u;
    memcpy(&u, &f, sizeof u);
    return u;
}

// Equal bits, or both NaN: which NaN an operation on two NaNs returns follows the operand order
// the compiler picks, even in the reference, so a NaN's sign and payload are not compared.
bool same(float a, float b) { return bits(a) == bits(b) || (std::isnan(a) && std::isnan(b)); }

#define EXPECT_SAME_FLOAT(a, b) EXPECT_TRUE(same(a, b)) << (a) << " vs " << (b)

void expect_same_totals(const char *where)
{
    nl_cost_totals fast = *nonlinear_cost_totals();
    const nl_cost_totals *ref = reference_cost_totals();
    EXPECT_EQ(memcmp(&fast, ref, sizeof fast), 0) << where;
}

void expect_same_volume(const data_stack &s, const std::vector<float> &want, const char *what)
{
    size_t differ = 0;
    for (int k = 0; k < s.n3d; k++) differ += bits(s.SpaceTime.fData[k]) != bits(want[k]);
    EXPECT_EQ(differ, 0u) << what;
}

// The first fold count of each side prints its summary and rebuilds its running totals; done
// here on both, the later counts of a test run alike whatever ran before in the process.
void use_up_first_summaries(void)
{
    testing::internal::CaptureStdout();
    number_invalid_distortions(1, 0, 0);
    reference_number_invalid_distortions(1, 0, 0);
    testing::internal::GetCapturedStdout();
}

// Synthetic case: a template holding a noisy ellipsoid that reaches the x and y faces of the
// grid (so that the partial boxes at the upper edges hold template voxels), with a NaN voxel;
// an individual blob under a small rotation and shift; smooth maps sampled into the basis grid.
void set_up_synthetic(int nx, int ny, int nz, POINT3D res, IPOINT3D grid, IPOINT3D wrap)
{
    make_stack(&template_, nx, ny, nz, 1, res.x, res.y, res.z);
    make_stack(&original, nx, ny, nz, 1, res.x, res.y, res.z);
    make_stack(&individual, nx, ny, nz, 1, res.x, res.y, res.z);
    for (data_stack *s : {&distort_x, &distort_y, &distort_z, &distort_d, &NL_bases})
        make_stack(s, nx, ny, nz, 2, res.x, res.y, res.z);
    std::mt19937 rng{7};
    std::uniform_real_distribution<float> noise(0.0f, 1.0f);
    float cx = (nx - 1) / 2.0f, cy = (ny - 1) / 2.0f, cz = (nz - 1) / 2.0f;
    for (int z = 0; z < nz; z++)
        for (int y = 0; y < ny; y++)
            for (int x = 0; x < nx; x++) {
                size_t k = ((size_t)z * ny + y) * nx + x;
                float ex = (x - cx) / (0.55f * nx), ey = (y - cy) / (0.52f * ny), ez = (z - cz) / (0.4f * nz);
                float r2 = ex * ex + ey * ey + ez * ez;
                template_.SpaceTime.fData[k] = r2 < 1.0f ? 20.0f + 80.0f * (1.0f - r2) + 10.0f * noise(rng) : 0.0f;
                float dx = x - cx - 0.7f, dy = y - cy + 0.4f, dz = z - cz;
                original.SpaceTime.fData[k] =
                    5.0f + 90.0f * std::exp(-(dx * dx + 2 * dy * dy + dz * dz) / (0.2f * nx * nx)) + 8.0f * noise(rng);
            }
    template_.SpaceTime.fData[((size_t)(nz / 2) * ny + ny / 2) * nx + nx / 2] = NAN;
    iTime_Template = 0;
    graph.iTime = 0;
    Alignment = {};
    Alignment.dimension = {nx, ny, nz};
    Alignment.resolution = res;
    Alignment.direction = {1, 1, 1};
    Alignment.RigidBody = 1;
    Alignment.WrapAround = wrap;
    const float v[12] = {0.6f, -0.4f, 0.3f, 3.0f, -1.5f, 2.0f, 1.02f, 0.99f, 1.01f, 0.01f, 0.0f, -0.01f};
    for (int j = 0; j < 12; j++) Alignment.value[j] = v[j];
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original);
    AlignAid = {};
    AlignAid.DisplaySet = 2;
    AlignNL = {};
    AlignNL.Adjust = {1, 1, 1};
    AlignNL.Lambda_reg = 10;
    AlignNL.stiffness = 0.5f;
    AlignNL.BasisGrid = grid;
    for (int z = 0; z < nz; z++)
        for (int y = 0; y < ny; y++)
            for (int x = 0; x < nx; x++) {
                size_t k = ((size_t)z * ny + y) * nx + x;
                distort_x.SpaceTime.fData[k] = 1.5f * std::sin(0.4f * y) * std::cos(0.3f * z);
                distort_y.SpaceTime.fData[k] = 1.2f * std::sin(0.35f * z + 0.2f * x);
                distort_z.SpaceTime.fData[k] = 1.0f * std::cos(0.25f * x) * std::sin(0.3f * y);
            }
    update_nonlinear_alignment_parameters(1);
    transform_coordinates(1, 0);
    use_up_first_summaries();
}

void select_coefficient(int c)
{
    AlignNL.iCoeff = c;
    AlignNL.iBasis = c % AlignNL.NBasis;
}

// Everything the search changes, to run the program's and the reference's search from one start.
using SearchState = NlSearchState;

void expect_same_search_state(const SearchState &want)
{
    expect_same_volume(distort_x, want.dx, "distort_x");
    expect_same_volume(distort_y, want.dy, "distort_y");
    expect_same_volume(distort_z, want.dz, "distort_z");
    expect_same_volume(individual, want.ind, "individual");
    size_t nc = 3 * (size_t)AlignNL.NBasis;
    EXPECT_EQ(memcmp(AlignNL.value, want.value.data(), sizeof(float) * nc), 0) << "value";
    EXPECT_EQ(memcmp(AlignNL.increment, want.increment.data(), sizeof(float) * nc), 0) << "increment";
    EXPECT_EQ(memcmp(AlignNL.Adjust3D, want.adjust.data(), sizeof(int) * nc), 0) << "Adjust3D";
}

// The box of the current basis in the maps and the resampled individual (where a map update
// writes), walked over four volumes given by their first voxels.
template <class F> void for_box_voxels(float *const vol[4], F f)
{
    IPOINT3D s = AlignNL.Index3DStart[AlignNL.iBasis], e = AlignNL.Index3DEnd[AlignNL.iBasis];
    for (int v = 0; v < 4; v++)
        for (int z = s.z; z < e.z; z++)
            for (int y = s.y; y < e.y; y++)
                for (int x = s.x; x < e.x; x++) f(vol[v][((size_t)z * template_.dim.y + y) * template_.dim.x + x]);
}

// A map update of coefficient c to v by the program, compared over every voxel of the maps and
// of individual with the reference's update from the same start. mirror holds the state before
// the update and is brought up to date with the reference's result.
void expect_same_map_update(int c, float v, SearchState *mirror)
{
    float *live[4] = {distort_x.SpaceTime.fData, distort_y.SpaceTime.fData, distort_z.SpaceTime.fData,
                      individual.SpaceTime.fData};
    float *kept[4] = {mirror->dx.data(), mirror->dy.data(), mirror->dz.data(), mirror->ind.data()};
    std::vector<float> before, after;
    for_box_voxels(live, [&](float &x) { before.push_back(x); });
    float old = AlignNL.value[c];
    reference_Set_AlignNL_Value(c, v);
    for_box_voxels(live, [&](float &x) { after.push_back(x); });
    size_t i = 0, j = 0;
    for_box_voxels(kept, [&](float &x) { x = after[i++]; });
    for_box_voxels(live, [&](float &x) { x = before[j++]; });
    AlignNL.value[c] = old;
    Set_AlignNL_Value(c, v);
    mirror->value[c] = v;
    expect_same_search_state(*mirror);
}

std::string info_texts;
void record_info_line(const char *a, const char *b, const char *c)
{
    info_texts += std::string(a) + "|" + b + "|" + c + "\n";
}

// The probe protocol for coefficient c, program and reference in lockstep on the same maps:
// code 1, trials (each a map update and a code-2 probe), code 3.
void expect_same_protocol(int c, int icost, std::mt19937 &rng)
{
    select_coefficient(c);
    SearchState mirror;
    save_nl_search_state(&mirror);
    EXPECT_SAME_FLOAT(cost_function_nonlinear(icost, 1), reference_cost_function_nonlinear(icost, 1));
    expect_same_totals("code 1");
    std::uniform_real_distribution<float> step(-1.5f, 1.5f);
    float v0 = AlignNL.value[c];
    for (int trial = 0; trial < 4; trial++) {
        float v = trial == 3 ? v0 : v0 + step(rng);  // the last trial restores, as rejections do
        expect_same_map_update(c, v, &mirror);
        EXPECT_SAME_FLOAT(cost_function_nonlinear(icost, 2), reference_cost_function_nonlinear(icost, 2));
        expect_same_totals("code 2");
        EXPECT_EQ(number_invalid_distortions(0, 0, 0), reference_number_invalid_distortions(0, 0, 0));
    }
    EXPECT_SAME_FLOAT(cost_function_nonlinear(icost, 3), reference_cost_function_nonlinear(icost, 3));
    expect_same_totals("code 3");
}

// One whole pass from the current state, program and reference, with every output compared.
void expect_same_pass(int ilevel, int ipass)
{
    SearchState start, want;
    save_nl_search_state(&start);
    DisplayHooks.show_on_info_line = record_info_line;

    info_texts.clear();
    testing::internal::CaptureStdout();
    float c_ref = reference_cost_function_nonlinear(0, 0);
    reference_adjust_nonlinear_1pass(ilevel, ipass, 0, c_ref);
    float end_ref = reference_cost_function_nonlinear(0, 0);
    std::string out_ref = testing::internal::GetCapturedStdout(), info_ref = info_texts;
    save_nl_search_state(&want);

    restore_nl_search_state(start);
    info_texts.clear();
    testing::internal::CaptureStdout();
    float c_fast = cost_function_nonlinear(0, 0);
    adjust_nonlinear_1pass(ilevel, ipass, 0, c_fast);
    float end_fast = cost_function_nonlinear(0, 0);
    std::string out_fast = testing::internal::GetCapturedStdout();

    EXPECT_SAME_FLOAT(c_fast, c_ref);
    EXPECT_SAME_FLOAT(end_fast, end_ref);
    EXPECT_EQ(out_fast, out_ref);
    EXPECT_EQ(info_texts, info_ref);
    expect_same_search_state(want);
    expect_same_totals("after the pass");
    DisplayHooks.show_on_info_line = NULL;
}

}  // namespace

TEST(NonlinearEquality, PenaltiesSideBySideEqualOneAtATimeForSpecialValues)
{
    const float special[] = {0.0f, -0.0f, 1.0f, -2.5f, 1e-20f, -3e-39f, 1e20f, INFINITY, -INFINITY, NAN, 0.37f, -1e-3f};
    const int ns = sizeof special / sizeof special[0];
    std::vector<float> dp, dm;
    std::vector<int> vp, vm;
    for (int a = 0; a < ns; a++)
        for (int b = 0; b < ns; b++)
            for (int f = 0; f < 4; f++) {
                dp.push_back(special[a]);
                dm.push_back(special[b]);
                vp.push_back(f & 1 ? -1 : 0);
                vm.push_back(f & 2 ? -1 : 0);
            }
    int n = (int)dp.size() - 1;  // not a multiple of four: the tail goes one by one
    std::vector<float> one(n), four(n);
    for (float stiffness : {0.5f, 0.0f, 1.0f, 0.3f})
        for (float res2 : {1.0f, 4.0f, 0.0f, 0.64f}) {
            AlignNL.stiffness = stiffness;
            bending_penalty_run(n, dp.data(), dm.data(), vp.data(), vm.data(), res2, one.data(), 0);
            bending_penalty_run(n, dp.data(), dm.data(), vp.data(), vm.data(), res2, four.data(), 1);
            for (int i = 0; i < n; i++) {
                float want = reference_bending_penalty(vp[i] != 0, vm[i] != 0, dp[i], dm[i], res2);
                ASSERT_TRUE(same(one[i], want)) << i << " " << dp[i] << " " << dm[i];
                ASSERT_TRUE(same(four[i], want)) << i << " " << dp[i] << " " << dm[i];
            }
        }
}

TEST(NonlinearEquality, CachedMutualInformationFollowsChangingHistograms)
{
    // Histograms as the probes leave them: a few rows change at a time, sometimes the template
    // marginal or the count; now and then back to an earlier state.
    std::mt19937 rng{9};
    std::uniform_int_distribution<int> bin(0, 49), count(0, 40);
    float I[50] = {}, T[50] = {}, IT[50 * 50] = {};
    int n = 0;
    for (int k = 0; k < 3000; k++) {
        int a = bin(rng), b = bin(rng) / 2 + 10;
        float c = (float)count(rng);
        IT[a * 50 + b] += c;
        I[a] += c;
        T[b] += c;
        n += (int)c;
    }
    mi_row_cache cache = {};
    float keep_I[50], keep_T[50], keep_IT[2500];
    int keep_n = n;
    memcpy(keep_I, I, sizeof I);
    memcpy(keep_T, T, sizeof T);
    memcpy(keep_IT, IT, sizeof IT);
    unsigned char written[50] = {};
    for (int step = 0; step < 300; step++) {
        int kind = step % 10;
        if (kind == 9) {  // back to the kept state
            memcpy(I, keep_I, sizeof I);
            memcpy(T, keep_T, sizeof T);
            memcpy(IT, keep_IT, sizeof IT);
            n = keep_n;
            memset(written, 1, sizeof written);
        } else {
            for (int m = 0; m < 1 + kind; m++) {  // move a few voxels between individual bins
                int a0 = bin(rng), a1 = bin(rng), b = bin(rng) / 2 + 10;
                if (IT[a0 * 50 + b] < 1) continue;
                IT[a0 * 50 + b] -= 1;
                I[a0] -= 1;
                IT[a1 * 50 + b] += 1;
                I[a1] += 1;
                written[a0] = written[a1] = 1;
            }
            if (kind == 4) {  // a voxel leaves the totals
                int a = bin(rng), b = bin(rng) / 2 + 10;
                if (IT[a * 50 + b] >= 1) {
                    IT[a * 50 + b] -= 1;
                    I[a] -= 1;
                    T[b] -= 1;
                    n -= 1;
                    written[a] = 1;
                }
            }
        }
        float want = reference_mutual_information(n, I, T, IT);
        // Every other step names the rows written; the others leave the cache to find them.
        ASSERT_EQ(bits(mutual_information_cached(&cache, n, I, T, IT, step % 2 ? written : NULL)), bits(want))
            << "step " << step;
        memset(written, 0, sizeof written);
        ASSERT_EQ(bits(mutual_information(n, I, T, IT)), bits(want)) << "step " << step;
    }
    EXPECT_EQ(mutual_information_cached(&cache, 0, I, T, IT, NULL), 0.0f);
}

TEST(NonlinearEquality, ProbeProtocolOnEveryCoefficientWithEachComponentSet)
{
    // 23 x 19 x 17 voxels with half-width 4: the last boxes of every axis are partial.
    set_up_synthetic(23, 19, 17, {1.0f, 1.2f, 0.9f}, {6, 5, 4}, {0, 0, 0});
    std::mt19937 rng{3};
    const IPOINT3D sets[] = {{1, 1, 1}, {0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {1, 1, 0}, {0, 1, 0}};
    for (IPOINT3D adjust : sets) {
        AlignNL.Adjust = adjust;
        SCOPED_TRACE(testing::Message() << "Adjust " << adjust.x << adjust.y << adjust.z);
        EXPECT_SAME_FLOAT(cost_function_nonlinear(0, 0), reference_cost_function_nonlinear(0, 0));
        expect_same_totals("code 0");
        for (int c = 0; c < 3 * AlignNL.NBasis; c += adjust.x && adjust.y && adjust.z ? 1 : 5)
            expect_same_protocol(c, 0, rng);
    }
}

TEST(NonlinearEquality, CorrelationAndNoPenaltyAndWrapAround)
{
    set_up_synthetic(21, 18, 14, {1.0f, 1.0f, 1.0f}, {5, 4, 3}, {1, 0, 1});
    std::mt19937 rng{5};
    for (int lambda : {0, 3}) {
        AlignNL.Lambda_reg = lambda;
        for (int icost : {1, 0}) {
            EXPECT_SAME_FLOAT(cost_function_nonlinear(icost, 0), reference_cost_function_nonlinear(icost, 0));
            for (int c = 0; c < 3 * AlignNL.NBasis; c += 7) expect_same_protocol(c, icost, rng);
        }
    }
}

TEST(NonlinearEquality, TemplateChangedBetweenWholeGridCostsIsBinnedAgain)
{
    // Whole-number template values without the NaN voxel: the averages and range are exact sums,
    // so that swapping two values leaves them bit for bit as they were while the two voxels change
    // bins. Probes after the next code-0 call must see the swapped template.
    set_up_synthetic(23, 19, 17, {1.0f, 1.0f, 1.0f}, {6, 5, 4}, {0, 0, 0});
    float *T = template_.SpaceTime.fData;
    size_t lo = 0, hi = 0;
    for (size_t k = 0; k < (size_t)template_.n3d; k++) {
        T[k] = std::isnan(T[k]) ? 50.0f : rintf(T[k]);
        if (T[k] != 0.0f && (T[lo] == 0.0f || T[k] < T[lo])) lo = k;
        if (T[k] > T[hi]) hi = k;
    }
    std::mt19937 rng{11};
    EXPECT_SAME_FLOAT(cost_function_nonlinear(0, 0), reference_cost_function_nonlinear(0, 0));
    for (int c = 0; c < AlignNL.NBasis; c += 9) expect_same_protocol(c, 0, rng);
    nl_cost_totals before = *nonlinear_cost_totals();

    std::swap(T[lo], T[hi]);
    EXPECT_SAME_FLOAT(cost_function_nonlinear(0, 0), reference_cost_function_nonlinear(0, 0));
    nl_cost_totals after = *nonlinear_cost_totals();
    ASSERT_TRUE(same(after.av_template, before.av_template) && same(after.min, before.min) &&
                same(after.max, before.max));
    int filled = 0;  // the template spreads over the bins (no NaN average putting it all in one)
    for (float count : after.MI_prob_T) filled += count != 0.0f;
    ASSERT_GT(filled, 10);
    for (int c = 0; c < AlignNL.NBasis; c++) expect_same_protocol(c, 0, rng);
}

TEST(NonlinearEquality, DeformationCostOfEveryBoxAndCode)
{
    set_up_synthetic(20, 17, 13, {1.0f, 0.8f, 1.5f}, {5, 3, 3}, {0, 0, 0});
    for (int adjust = 1; adjust < 8; adjust++) {
        AlignNL.Adjust = {adjust & 1, (adjust >> 1) & 1, (adjust >> 2) & 1};
        for (int normalize = 0; normalize < 2; normalize++) {
            EXPECT_SAME_FLOAT(cost_deformation(0, normalize), reference_cost_deformation(0, normalize));
            for (int n = 0; n < AlignNL.NBasis; n++) {
                AlignNL.iBasis = n;
                for (int code : {1, 2, 3, 4}) {
                    EXPECT_SAME_FLOAT(cost_deformation(code, normalize), reference_cost_deformation(code, normalize))
                        << "basis " << n << " code " << code;
                    expect_same_totals("deformation");
                }
            }
        }
    }
}

TEST(NonlinearEquality, FoldCountAndSummaryOfEveryBox)
{
    set_up_synthetic(20, 17, 13, {1.0f, 1.0f, 1.0f}, {4, 4, 3}, {0, 0, 0});
    // A strong compression along x so that some boxes hold folded voxels.
    for (int k = 0; k < distort_x.n3d; k++) distort_x.SpaceTime.fData[k] += 2.0f * std::sin(0.9f * (k % 20));
    int folded = 0;
    for (int n = 0; n < AlignNL.NBasis; n++) {
        AlignNL.iBasis = n;
        int nbad = number_invalid_distortions(0, 0, 0);
        EXPECT_EQ(nbad, reference_number_invalid_distortions(0, 0, 0)) << "basis " << n;
        folded += nbad > 0;
    }
    EXPECT_GT(folded, 0);
    // Determinants on both sides of 0.2 by a unit in the last place, 0.2f itself included: x map
    // -0.75 x (so a00 = 1/4), y map 0 on even y and q on odd y with q a few units around
    // 0.2f - 1 (so a11 = 1 + q on even y), z map 0: the determinant is a00 a11 exactly.
    memset(distort_z.SpaceTime.fData, 0, sizeof(float) * (size_t)distort_z.n3d);
    float q0 = -nextafterf(0.2f, 0.0f);  // 1 + q0 = 0.8f, so a00 a11 = 0.2f
    for (int z = 0; z < template_.dim.z; z++)
        for (int y = 0; y < template_.dim.y; y++)
            for (int x = 0; x < template_.dim.x; x++) {
                size_t k = ((size_t)z * template_.dim.y + y) * template_.dim.x + x;
                float q = q0;
                for (int u = (x + 3 * z) % 7 - 3; u != 0; u += u < 0 ? 1 : -1) q = nextafterf(q, u < 0 ? -1.0f : 1.0f);
                distort_x.SpaceTime.fData[k] = -0.75f * x;
                distort_y.SpaceTime.fData[k] = y % 2 ? q : 0.0f;
            }
    int near = 0;
    for (int n = 0; n < AlignNL.NBasis; n++) {
        AlignNL.iBasis = n;
        int nbad = number_invalid_distortions(0, 0, 0);
        EXPECT_EQ(nbad, reference_number_invalid_distortions(0, 0, 0)) << "basis " << n;
        near += nbad;
    }
    EXPECT_GT(near, 0);
    for (int ipass : {0, 2, -1}) {
        testing::internal::CaptureStdout();
        int fast = number_invalid_distortions(1, 2, ipass);
        std::string out_fast = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        int ref = reference_number_invalid_distortions(1, 2, ipass);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), out_fast);
        EXPECT_EQ(fast, ref);
        expect_same_totals("summary");
    }
}

TEST(NonlinearEquality, WholePassesOnASyntheticCase)
{
    set_up_synthetic(22, 19, 15, {1.0f, 1.0f, 1.2f}, {5, 4, 4}, {1, 0, 0});
    for (int c = 0; c < 3 * AlignNL.NBasis; c++) AlignNL.Adjust3D[c] = 1;
    expect_same_pass(2, 1);
    // A second pass from where the first left, with the dropped coefficients as it left them.
    expect_same_pass(1, 2);
    AlignNL.Adjust = {0, 1, 1};
    expect_same_pass(2, 3);
}

// The warped brain pair at 2 mm: the probe protocol at the corners and centre of the finest grid
// and a pass over a spread of coefficients of the middle grid.
TEST(NonlinearEquality, BrainPairAt2mm)
{
    BrainCase bc;
    if (!make_brain_case(2, &bc)) GTEST_SKIP() << "mricron-data is not installed";
    start_brain_case(bc);
    use_up_first_summaries();
    const float fit[12] = {1.76f, -1.22f, 0.84f, -0.72f, 0.40f, 0.95f, 1.021f, 0.996f, 1.008f, -0.004f, -0.012f, -0.019f};
    for (int j = 0; j < 12; j++) Alignment.value[j] = fit[j];
    for (int k = 0; k < distort_x.n3d; k++) {
        int x = k % template_.dim.x, y = (k / template_.dim.x) % template_.dim.y, z = k / template_.n2d;
        distort_x.SpaceTime.fData[k] = 2.0f * std::sin(0.08f * y) * std::cos(0.07f * z);
        distort_y.SpaceTime.fData[k] = 1.5f * std::sin(0.09f * z + 0.05f * x);
        distort_z.SpaceTime.fData[k] = 1.5f * std::cos(0.06f * x) * std::sin(0.07f * y);
    }
    AlignNL.BasisGrid = {45, 54, 45};
    update_nonlinear_alignment_parameters(1);
    transform_coordinates(1, 0);
    std::mt19937 rng{11};
    EXPECT_SAME_FLOAT(cost_function_nonlinear(0, 0), reference_cost_function_nonlinear(0, 0));
    IPOINT3D nb = AlignNL.NBasis1D;
    for (int k = 0; k < 2; k++)
        for (int j = 0; j < 2; j++)
            for (int i = 0; i < 3; i++) {
                int n = (k * (nb.z - 1)) * nb.x * nb.y + (j * (nb.y - 1)) * nb.x + i * (nb.x - 1) / 2;
                expect_same_protocol(n, 0, rng);
                expect_same_protocol(2 * AlignNL.NBasis + n, 0, rng);
            }
    for (int n = AlignNL.NBasis / 2 - 40; n < AlignNL.NBasis / 2 + 40; n += 3) expect_same_protocol(n, 0, rng);

    AlignNL.BasisGrid = {22, 26, 22};
    update_nonlinear_alignment_parameters(1);
    transform_coordinates(1, 0);
    for (int c = 0; c < 3 * AlignNL.NBasis; c++) AlignNL.Adjust3D[c] = c % 29 == 0;
    expect_same_pass(2, 1);
}
