// Tests of the non-linear cost: running totals under the probe protocol, mutual information,
// normalisation values, bending penalty, and the fold count with its summary.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>

#include "globals.h"
#include "nl_cost.h"
#include "numerics.h"
#include "test_support.h"

namespace {

const int NX = 12, NY = 10, NZ = 8;

// Template with a zero border (so only inner voxels take part), random individual, zero maps,
// and two basis boxes set by hand.
void set_up_volumes(float rx = 1.0f, float ry = 1.0f, float rz = 1.0f)
{
    make_stack(&template_, NX, NY, NZ, 1, rx, ry, rz);
    make_stack(&individual, NX, NY, NZ, 1, rx, ry, rz);
    make_stack(&distort_x, NX, NY, NZ, 1, rx, ry, rz);
    make_stack(&distort_y, NX, NY, NZ, 1, rx, ry, rz);
    make_stack(&distort_z, NX, NY, NZ, 1, rx, ry, rz);
    std::mt19937 rng{1};
    std::uniform_real_distribution<float> u(1.0f, 100.0f);
    for (int z = 0; z < NZ; z++)
        for (int y = 0; y < NY; y++)
            for (int x = 0; x < NX; x++) {
                int i = z * NX * NY + y * NX + x;
                int inside = x > 0 && y > 0 && z > 0 && x < NX - 1 && y < NY - 1;
                template_.SpaceTime.fData[i] = inside ? u(rng) : 0.0f;
                individual.SpaceTime.fData[i] = u(rng);
            }
    iTime_Template = 0;
    graph.iTime = 0;
    AlignNL = {};
    AlignNL.Adjust = {1, 1, 1};
    AlignNL.Lambda_reg = 0;
    AlignNL.stiffness = 0.5f;
    AlignNL.NBasis = 2;
    AlignNL.Index3DStart = ipoint3d_vector(2);
    AlignNL.Index3DEnd = ipoint3d_vector(2);
    AlignNL.Index3DStart[0] = {2, 3, 1};
    AlignNL.Index3DEnd[0] = {7, 8, 5};
    AlignNL.Index3DStart[1] = {0, 0, 4};
    AlignNL.Index3DEnd[1] = {NX, NY, NZ};
    AlignNL.iBasis = 0;
    AlignAid = {};
}

float *at(data_stack &s, int x, int y, int z) { return s.SpaceTime.fData + z * NX * NY + y * NX + x; }

struct Oracle {
    float av_i, av_t, lo, hi;
    int n;
    double I[50], T[50], IT[50][50];
};

// Normalisation values over the whole grid, as a plain brute-force pass.
void oracle_normalisation(Oracle &o)
{
    double si = 0, st = 0;
    int n = 0;
    for (int k = 0; k < template_.n3d; k++)
        if (template_.SpaceTime.fData[k] != 0.0f) {
            si += individual.SpaceTime.fData[k];
            st += template_.SpaceTime.fData[k];
            n++;
        }
    o.av_i = (float)(si / n);
    o.av_t = (float)(st / n);
}

// The common range of the scaled values for the averages in o.
void oracle_range(Oracle &o)
{
    o.lo = 1e10f;
    o.hi = 0.0f;
    for (int k = 0; k < template_.n3d; k++)
        if (template_.SpaceTime.fData[k] != 0.0f) {
            float a = individual.SpaceTime.fData[k] / o.av_i, b = template_.SpaceTime.fData[k] / o.av_t;
            o.lo = std::min(o.lo, std::min(a, b));
            o.hi = std::max(o.hi, std::max(a, b));
        }
}

int oracle_bin(float v, const Oracle &o)
{
    float f = (v - o.lo) * 50 / (o.hi - o.lo);
    return f > 49 ? 49 : f < 0 ? 0 : (int)f;
}

// Whole-grid joint histogram with given normalisation values.
void oracle_count(Oracle &o)
{
    memset(o.I, 0, sizeof o.I);
    memset(o.T, 0, sizeof o.T);
    memset(o.IT, 0, sizeof o.IT);
    o.n = 0;
    for (int k = 0; k < template_.n3d; k++)
        if (template_.SpaceTime.fData[k] != 0.0f) {
            int a = oracle_bin(individual.SpaceTime.fData[k] / o.av_i, o);
            int b = oracle_bin(template_.SpaceTime.fData[k] / o.av_t, o);
            o.I[a]++;
            o.T[b]++;
            o.IT[a][b]++;
            o.n++;
        }
}

double oracle_mi(const Oracle &o)
{
    double mi = 0;
    for (int a = 0; a < 50; a++)
        for (int b = 0; b < 50; b++)
            if (o.IT[a][b] > 0) mi += o.IT[a][b] / o.n * std::log(o.IT[a][b] * o.n / o.I[a] / o.T[b]);
    return mi;
}

void expect_totals_equal(const Oracle &o)
{
    const nl_cost_totals *t = nonlinear_cost_totals();
    ASSERT_EQ(t->MI_number_voxels, o.n);
    for (int a = 0; a < 50; a++) {
        EXPECT_EQ(t->MI_prob_I[a], (float)o.I[a]) << "bin " << a;
        EXPECT_EQ(t->MI_prob_T[a], (float)o.T[a]) << "bin " << a;
        for (int b = 0; b < 50; b++) ASSERT_EQ(t->MI_prob_IT[a][b], (float)o.IT[a][b]) << a << "," << b;
    }
}

void set_box(float value_scale)
{
    IPOINT3D s = AlignNL.Index3DStart[0], e = AlignNL.Index3DEnd[0];
    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++)
            for (int x = s.x; x < e.x; x++) *at(individual, x, y, z) = value_scale * (x + 2 * y + 3 * z);
}

} // namespace

TEST(CostFunctionNonlinear, ProbeSequenceLeavesTotalsEqualToWholeGridCount)
{
    set_up_volumes();
    Oracle o;
    oracle_normalisation(o);
    float c0 = cost_function_nonlinear(0, 0);
    const nl_cost_totals *t = nonlinear_cost_totals();
    EXPECT_FLOAT_EQ(t->av_individual, o.av_i);
    EXPECT_FLOAT_EQ(t->av_template, o.av_t);
    // From here on the oracle uses the averages in force (float sums may differ in the last bit).
    o.av_i = t->av_individual;
    o.av_t = t->av_template;
    oracle_range(o);
    EXPECT_EQ(t->min, o.lo);
    EXPECT_EQ(t->max, o.hi);
    oracle_count(o);
    expect_totals_equal(o);
    EXPECT_NEAR(c0, oracle_mi(o), 1e-4);

    // Code 1 returns the cost with the box and takes the box out.
    EXPECT_EQ(cost_function_nonlinear(0, 1), c0);
    EXPECT_LT(nonlinear_cost_totals()->MI_number_voxels, o.n);

    // Trials: each returns the cost of the grid with the trial box, then takes it out again.
    for (float scale : {0.5f, 2.0f, 3.5f}) {
        set_box(scale);
        oracle_count(o);
        float trial = cost_function_nonlinear(0, 2);
        EXPECT_NEAR(trial, oracle_mi(o), 1e-4) << scale;
        EXPECT_LT(nonlinear_cost_totals()->MI_number_voxels, o.n);
    }

    // Code 3 puts the box back with its settled content.
    set_box(1.5f);
    oracle_count(o);
    float c3 = cost_function_nonlinear(0, 3);
    expect_totals_equal(o);
    EXPECT_NEAR(c3, oracle_mi(o), 1e-4);
    // And a fresh code-0 count over the same data agrees (the normalisation values are those in
    // force, unchanged by the probes).
    EXPECT_EQ(nonlinear_cost_totals()->min, o.lo);
}

TEST(CostFunctionNonlinear, CorrelationOfABoxProbeIsThatOfTheBoxAlone)
{
    set_up_volumes();
    IPOINT3D s = AlignNL.Index3DStart[0], e = AlignNL.Index3DEnd[0];
    for (int z = s.z; z < e.z; z++)
        for (int y = s.y; y < e.y; y++)
            for (int x = s.x; x < e.x; x++) *at(individual, x, y, z) = 3.0f * *at(template_, x, y, z);
    EXPECT_NEAR(cost_function_nonlinear(1, 2), 1.0, 1e-6);
    float whole = cost_function_nonlinear(1, 0);
    EXPECT_LT(whole, 0.99f);
    // Brute force over the whole grid: no mean subtraction, no division by the count.
    double sii = 0, stt = 0, sit = 0;
    for (int k = 0; k < template_.n3d; k++) {
        double t = template_.SpaceTime.fData[k], i = individual.SpaceTime.fData[k];
        if (t == 0) continue;
        sii += i * i;
        stt += t * t;
        sit += i * t;
    }
    EXPECT_NEAR(whole, sit / std::sqrt(sii) / std::sqrt(stt), 1e-4);
}

TEST(MutualInformation, CountsGiveLn2ForTwoDependentBinsAndZeroForIndependent)
{
    float I[50] = {}, T[50] = {}, IT[50 * 50] = {};
    I[0] = 2; I[1] = 2; T[3] = 2; T[4] = 2;
    IT[0 * 50 + 3] = 2; IT[1 * 50 + 4] = 2;
    EXPECT_NEAR(mutual_information(4, I, T, IT), std::log(2.0), 1e-6);
    IT[0 * 50 + 3] = 1; IT[0 * 50 + 4] = 1; IT[1 * 50 + 3] = 1; IT[1 * 50 + 4] = 1;
    EXPECT_NEAR(mutual_information(4, I, T, IT), 0.0, 1e-7);
    EXPECT_EQ(mutual_information(0, I, T, IT), 0.0f);
}

TEST(BendingPenalty, HandComputedValues)
{
    AlignNL.stiffness = 0.5f;
    // Both sides: 0.25*(1/4)^2 + 0.25*(9/4)^2 + 0.5*(1-3)^2*16/((2^2+4)^3)
    EXPECT_FLOAT_EQ(bending_penalty(1, 1, 1.0f, 3.0f, 4.0f), 1.28125f + 0.0625f);
    EXPECT_FLOAT_EQ(bending_penalty(1, 0, 1.0f, 3.0f, 4.0f), 0.015625f);
    EXPECT_FLOAT_EQ(bending_penalty(0, 1, 1.0f, 3.0f, 4.0f), 1.265625f);
    EXPECT_EQ(bending_penalty(1, 0, 0.0f, 0.0f, 0.0f), 0.0f);  // a zero difference needs no division
    AlignNL.stiffness = 0.0f;
    EXPECT_FLOAT_EQ(bending_penalty(1, 1, 2.0f, 2.0f, 1.0f), 0.0f);
}

TEST(CostDeformation, ZeroFieldGivesZeroAndQuadraticXMapMatchesHand)
{
    set_up_volumes(2.0f, 1.0f, 1.0f);
    EXPECT_EQ(cost_deformation(0, 0), 0.0f);
    EXPECT_EQ(cost_deformation(0, 1), 0.0f);
    // x map = a*x^2: at x the forward difference is a(2x+1), the backward one a(2x-1).
    float a = 0.1f;
    for (int z = 0; z < NZ; z++)
        for (int y = 0; y < NY; y++)
            for (int x = 0; x < NX; x++) *at(distort_x, x, y, z) = a * x * x;
    AlignNL.stiffness = 0.5f;
    double r2 = 4.0, row = 0;
    for (int x = 0; x < NX; x++) {
        double dp = a * (2 * x + 1), dm = a * (2 * x - 1);
        int vp = x + 1 < NX, vm = x > 0;
        if (vp) row += 0.25 * std::pow(dp * dp / r2, 2);
        if (vm) row += 0.25 * std::pow(dm * dm / r2, 2);
        if (vp && vm) {
            double m = (dp + dm) / 2, k = m * m + r2;
            row += 0.5 * (dp - dm) * (dp - dm) * r2 * r2 / (k * k * k);
        }
    }
    EXPECT_NEAR(cost_deformation(0, 0), row * NY * NZ, 1e-4 * row * NY * NZ);
    EXPECT_NEAR(cost_deformation(0, 1), row / NX, 1e-4 * row / NX);
    // Only the adjusted components count.
    AlignNL.Adjust.x = 0;
    EXPECT_EQ(cost_deformation(0, 0), 0.0f);
}

TEST(CostDeformation, ZMapKeepsItsTwoSlips)
{
    set_up_volumes();
    AlignNL.Adjust = {0, 0, 1};
    AlignNL.stiffness = 0.0f;  // curvature term only: a linear field should give nothing
    // z map = x: along x the backward difference 1 lands in delta_plus while delta_minus keeps
    // the z step's backward difference 0, so each voxel interior in x (and z > 0) adds
    // (1-0)^2 / ((1/2)^2 + 1)^3.
    for (int z = 0; z < NZ; z++)
        for (int y = 0; y < NY; y++)
            for (int x = 0; x < NX; x++) *at(distort_z, x, y, z) = (float)x;
    AlignNL.Index3DStart[1] = {0, 0, 1};
    AlignNL.iBasis = 1;
    double per_voxel = 1.0 / std::pow(1.25, 3);
    double expected = per_voxel * (NX - 2) * NY * (NZ - 1);
    EXPECT_NEAR(cost_deformation(4, 0), expected, 1e-4 * expected);

    // z map = y^2: the y step takes the forward difference twice, so the curvature term is 0
    // where the correct backward difference would give (2)^2 / ((2y)^2 + 1)^3.
    for (int z = 0; z < NZ; z++)
        for (int y = 0; y < NY; y++)
            for (int x = 0; x < NX; x++) *at(distort_z, x, y, z) = (float)(y * y);
    EXPECT_EQ(cost_deformation(4, 0), 0.0f);
    // The same field in the x map is penalised by its curvature.
    AlignNL.Adjust = {1, 0, 0};
    for (int k = 0; k < distort_x.n3d; k++) distort_x.SpaceTime.fData[k] = distort_z.SpaceTime.fData[k];
    EXPECT_GT(cost_deformation(4, 0), 0.0f);
}

TEST(NumberInvalidDistortions, ZeroFieldPrintsUnitDeterminantAndVoxelSpacing)
{
    set_up_volumes(2.0f, 3.0f, 1.5f);
    testing::internal::CaptureStdout();
    int nbad = number_invalid_distortions(1, 2, 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(nbad, 0);
    EXPECT_NE(out.find("\nresolution: 2 3 1.5\n\nmin dist (contraction): 2 3 1.5\n"
                       "max dist (expansion)  : 2 3 1.5\n"
                       "min & max determinant : 1 1    (# bad = 0)\n"
                       "MI = "), std::string::npos) << out;
    EXPECT_NE(out.find(" for level 2 and pass 0\n"), std::string::npos) << out;
    // Later calls with pass 0 print nothing; a negative pass prints the final line.
    testing::internal::CaptureStdout();
    number_invalid_distortions(1, 2, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    testing::internal::CaptureStdout();
    number_invalid_distortions(1, 3, -1);
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("resolution"), std::string::npos);
    EXPECT_NE(out.find(" on final pass for level 3\n"), std::string::npos) << out;
}

TEST(NumberInvalidDistortions, FoldedFieldsAreCountedButNeverAtUpperEdges)
{
    set_up_volumes();
    for (int k = 0; k < template_.n3d; k++) template_.SpaceTime.fData[k] = 1.0f;
    testing::internal::CaptureStdout();
    number_invalid_distortions(1, 1, 0);  // first call prints; keep it out of the way
    testing::internal::GetCapturedStdout();
    // Shear-like field: each spacing stays 1, but the determinant is 1 - 0.95*0.95.
    for (int z = 0; z < NZ; z++)
        for (int y = 0; y < NY; y++)
            for (int x = 0; x < NX; x++) {
                *at(distort_x, x, y, z) = 0.95f * y;
                *at(distort_y, x, y, z) = 0.95f * x;
            }
    EXPECT_EQ(number_invalid_distortions(1, 0, 0), (NX - 1) * (NY - 1) * (NZ - 1));
    // Only the box of basis 0 (5 x 5 x 4 voxels, none at an upper edge).
    EXPECT_EQ(number_invalid_distortions(0, 0, 0), 5 * 5 * 4);
    // A pure shear keeps the determinant at 1.
    for (int k = 0; k < distort_y.n3d; k++) distort_y.SpaceTime.fData[k] = 0.0f;
    EXPECT_EQ(number_invalid_distortions(1, 0, 0), 0);
    // Template only on the upper-edge planes: nothing is examined.
    for (int z = 0; z < NZ; z++)
        for (int y = 0; y < NY; y++)
            for (int x = 0; x < NX; x++) {
                *at(template_, x, y, z) = (x == NX - 1 || y == NY - 1 || z == NZ - 1) ? 1.0f : 0.0f;
                *at(distort_x, x, y, z) = -0.9f * x;  // contraction to 0.1 of a voxel
            }
    EXPECT_EQ(number_invalid_distortions(1, 0, 0), 0);
    *at(template_, 3, 4, 5) = 1.0f;
    EXPECT_EQ(number_invalid_distortions(1, 0, 0), 1);
}
