// The accurate searches of align-batch on analytic phantoms with known mappings: the affine
// search recovers a twelve-parameter transform and a quarter-turn orientation, the non-linear
// stage a smooth displacement without folds; and the pyramid and residual pieces they stand on.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "accurate_nonlinear.h"
#include "accurate_search.h"
#include "align_model.h"
#include "globals.h"
#include "numerics.h"
#include "search_pyramid.h"
#include "session.h"
#include "test_support.h"
#include "volume.h"

namespace {

// A head-like phantom (mm, centred frame): an ellipsoid whose edge falls off over a few mm (as a
// brain's does at the resolution of a scan) and is zero beyond, with a folded texture inside and
// two bright blobs of different size, so that no symmetry of the box fits it.
double phantom(double x, double y, double z)
{
    double r = sqrt(x * x / (30.0 * 30.0) + y * y / (36.0 * 36.0) + z * z / (25.0 * 25.0));
    if (r > 1.15) return 0.0;
    double edge = 1.0 / (1.0 + exp((r - 1.0) / 0.05));
    double b1 = ((x - 8) * (x - 8) + (y + 6) * (y + 6) + (z - 3) * (z - 3)) / (2.0 * 6.0 * 6.0);
    double b2 = ((x + 12) * (x + 12) + (y - 14) * (y - 14) + (z + 8) * (z + 8)) / (2.0 * 4.0 * 4.0);
    double folds = 25.0 * sin(x / 4.0) * sin(y / 5.0 + 1.0) * sin(z / 4.5 + 2.0);
    return edge * (80.0 + 20.0 * x / 30.0 + folds + 100.0 * exp(-b1) + 60.0 * exp(-b2));
}

struct Affine {
    double m[3][4];
};

// The program's template -> individual mapping (centred mm) for parameters p and an orientation.
Affine mapping_of(const float p[12], IPOINT3D orientation)
{
    for (int j = 0; j < 12; j++) Alignment.value[j] = p[j];
    Alignment.RigidBody = 1;
    Alignment.OrientRotation = orientation;
    Alignment.OrientSwapZ = 0;
    define_affine_matrix();
    Affine a;
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 4; c++) a.m[r][c] = Alignment.Affine[r][c];
    return a;
}

Affine inverse_of(const Affine &a)
{
    const double(*m)[4] = a.m;
    double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                 m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    Affine b;
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++) {
            int r1 = (c + 1) % 3, r2 = (c + 2) % 3, c1 = (r + 1) % 3, c2 = (r + 2) % 3;
            b.m[r][c] = (m[r1][c1] * m[r2][c2] - m[r1][c2] * m[r2][c1]) / det;
        }
    for (int r = 0; r < 3; r++) b.m[r][3] = -(b.m[r][0] * m[0][3] + b.m[r][1] * m[1][3] + b.m[r][2] * m[2][3]);
    return b;
}

void apply(const Affine &a, const double p[3], double q[3])
{
    for (int r = 0; r < 3; r++) q[r] = a.m[r][0] * p[0] + a.m[r][1] * p[1] + a.m[r][2] * p[2] + a.m[r][3];
}

void centred(const data_stack &s, int x, int y, int z, double p[3])
{
    p[0] = (x - (s.dim.x - 1) / 2.0) * s.resolution.x;
    p[1] = (y - (s.dim.y - 1) / 2.0) * s.resolution.y;
    p[2] = (z - (s.dim.z - 1) / 2.0) * s.resolution.z;
}

// A smooth displacement (mm) added to the affine image of template point p.
void displacement(const double p[3], double amp, double d[3])
{
    d[0] = amp * sin(M_PI * p[1] / 40.0) * cos(M_PI * p[2] / 45.0);
    d[1] = amp * sin(M_PI * p[2] / 35.0) * cos(M_PI * p[0] / 40.0);
    d[2] = 0.8 * amp * sin(M_PI * p[0] / 38.0) * cos(M_PI * p[1] / 50.0);
}

// Template: the phantom on n^3 voxels of 2 mm. Individual: the phantom seen through the true
// mapping q = A p + d(p), sampled exactly (p found by fixed-point iteration), on the same grid.
void make_pair(int n, const Affine &truth, double amp)
{
    make_stack(&template_unfiltered, n, n, n, 1, 2.0f, 2.0f, 2.0f);
    make_stack(&original_unfiltered, n, n, n, 1, 2.0f, 2.0f, 2.0f);
    Affine inverse = inverse_of(truth);
    for (int z = 0; z < n; z++)
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++) {
                size_t i = (size_t)x + (size_t)n * (y + (size_t)n * z);
                double p[3], q[3];
                centred(template_unfiltered, x, y, z, p);
                template_unfiltered.SpaceTime.fData[i] = (float)phantom(p[0], p[1], p[2]);
                centred(original_unfiltered, x, y, z, q);
                apply(inverse, q, p);
                for (int it = 0; it < 40 && amp != 0.0; it++) {
                    double d[3], r[3];
                    displacement(p, amp, d);
                    for (int k = 0; k < 3; k++) r[k] = q[k] - d[k];
                    apply(inverse, r, p);
                }
                original_unfiltered.SpaceTime.fData[i] = (float)phantom(p[0], p[1], p[2]);
            }
    prepare_session(0);
}

// Mean distance (mm) over the template's non-zero voxels between the true mapping and the
// program's (Affine of the present parameters, plus the maps when asked).
double mapping_error(const Affine &truth, double amp, int with_maps)
{
    define_affine_matrix();
    const data_stack &t = template_unfiltered;
    double sum = 0.0;
    long count = 0;
    for (int z = 0; z < t.dim.z; z++)
        for (int y = 0; y < t.dim.y; y++)
            for (int x = 0; x < t.dim.x; x++) {
                size_t i = (size_t)x + (size_t)t.dim.x * (y + (size_t)t.dim.y * z);
                if (t.SpaceTime.fData[i] == 0.0f) continue;
                double p[3], a[3], d[3] = {0, 0, 0}, b[3];
                centred(t, x, y, z, p);
                apply(truth, p, a);
                if (amp != 0.0) displacement(p, amp, d);
                for (int r = 0; r < 3; r++)
                    b[r] = Alignment.Affine[r][0] * p[0] + Alignment.Affine[r][1] * p[1] + Alignment.Affine[r][2] * p[2] +
                           Alignment.Affine[r][3];
                if (with_maps) {
                    b[0] += distort_x.SpaceTime.fData[i];
                    b[1] += distort_y.SpaceTime.fData[i];
                    b[2] += distort_z.SpaceTime.fData[i];
                }
                double e = 0.0;
                for (int r = 0; r < 3; r++) e += (a[r] + d[r] - b[r]) * (a[r] + d[r] - b[r]);
                sum += sqrt(e);
                count++;
            }
    return sum / count;
}

}  // namespace

TEST(ReduceGrid, AveragesKeepARampAndTheGridCentre)
{
    // a ramp along x (value = x in mm) keeps its values at the centred positions of the coarser grid
    grid_volume in = {{40, 6, 6}, {1.0f, 1.0f, 1.0f}, float_vector(40 * 36)};
    for (int i = 0; i < 40 * 36; i++) in.data[i] = (float)((i % 40) - 19.5);
    grid_volume out;
    reduce_grid(&in, IPOINT3D{10, 6, 6}, &out);
    EXPECT_EQ(out.dim.x, 10);
    EXPECT_FLOAT_EQ(out.res.x, 4.0f);
    for (int x = 3; x < 7; x++) EXPECT_NEAR(out.data[x], (x - 4.5) * 4.0, 1e-4) << x;
    EXPECT_FLOAT_EQ(out.data[0] + out.data[9], 0.0f);  // symmetric about the centre, edges included
    free_grid(&out);
    free_float_vector(in.data);
}

TEST(TemplateMask, MarksNonZeroVoxelsAndRefusesAnEmptyTemplate)
{
    float values[4] = {0.0f, 3.0f, -1.0f, 0.0f};
    grid_volume tpl = {{2, 2, 1}, {1.5f, 2.0f, 3.0f}, values};
    grid_volume mask;
    ASSERT_EQ(template_mask(&tpl, &mask), 0);
    EXPECT_EQ(mask.dim.x, 2);
    EXPECT_EQ(mask.dim.y, 2);
    EXPECT_EQ(mask.dim.z, 1);
    EXPECT_EQ(mask.res.y, 2.0f);
    EXPECT_NE(mask.data, values);
    const float expected[4] = {0.0f, 1.0f, 1.0f, 0.0f};
    for (int i = 0; i < 4; i++) EXPECT_EQ(mask.data[i], expected[i]) << i;
    free_float_vector(mask.data);

    values[1] = values[2] = 0.0f;
    testing::internal::CaptureStdout();
    EXPECT_EQ(template_mask(&tpl, &mask), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: the template has no non-zero voxel to compare.\n");
    EXPECT_EQ(mask.data, nullptr);
}

TEST(AffineLinearInverse, UndoesAShearedScalingAndIsZeroWhenSingular)
{
    float saved[4][4];
    memcpy(saved, Alignment.Affine, sizeof saved);
    const float A[3][3] = {{2.0f, 1.0f, 0.0f}, {0.0f, 4.0f, 0.5f}, {1.0f, 0.0f, 0.5f}};
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++) Alignment.Affine[r][c] = A[r][c];
    Alignment.Affine[0][3] = 7.0f;  // the translation takes no part
    double inv[3][3];
    affine_linear_inverse(inv);
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++) {
            double p = 0.0;
            for (int k = 0; k < 3; k++) p += A[r][k] * inv[k][c];
            EXPECT_NEAR(p, r == c ? 1.0 : 0.0, 1e-12) << r << " " << c;
        }
    // the determinant is 2 (2 - 0) - 1 (0 - 0.5) + 0 = 4.5, so inv[0][0] = (4 * 0.5 - 0.5 * 0) / 4.5
    EXPECT_NEAR(inv[0][0], 2.0 / 4.5, 1e-15);
    for (int c = 0; c < 3; c++) Alignment.Affine[2][c] = 0.0f;
    affine_linear_inverse(inv);
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++) EXPECT_EQ(inv[r][c], 0.0);
    memcpy(Alignment.Affine, saved, sizeof saved);
}

TEST(ForwardJacobian, DeterminantOfALinearFieldOnAnAnisotropicGrid)
{
    // u_x = 0.5 X + 0.5 Y, u_y = X + 0.25 Z, u_z = -0.5 Z (mm, voxels of 2 x 1 x 0.5 mm). The
    // mapping's derivative, rows d/dX d/dY d/dZ: (1.5 1 0), (0.5 1 0), (0 0.25 0.5), whose
    // determinant is 1.5 (0.5 - 0) - 1 (0.25 - 0) = 0.5 at every voxel.
    const POINT3D res = {2.0f, 1.0f, 0.5f};
    std::vector<float> ux(27), uy(27), uz(27);
    for (int z = 0; z < 3; z++)
        for (int y = 0; y < 3; y++)
            for (int x = 0; x < 3; x++) {
                int i = x + 3 * y + 9 * z;
                float X = x * res.x, Y = y * res.y, Z = z * res.z;
                ux[i] = 0.5f * X + 0.5f * Y;
                uy[i] = X + 0.25f * Z;
                uz[i] = -0.5f * Z;
            }
    const float *u[3] = {ux.data(), uy.data(), uz.data()};
    EXPECT_DOUBLE_EQ(forward_jacobian(u, 0, 3, 9, res), 0.5);
    EXPECT_DOUBLE_EQ(forward_jacobian(u, 13, 3, 9, res), 0.5);
    // a compression beyond the voxel along x folds it: 1 - 1.5 = -0.5 times the rest
    for (int i = 0; i < 27; i++) {
        ux[i] = -1.5f * (float)(i % 3) * res.x;
        uy[i] = uz[i] = 0.0f;
    }
    EXPECT_DOUBLE_EQ(forward_jacobian(u, 13, 3, 9, res), -0.5);
}

TEST(RemappedResidual, TableFollowsAnInvertedContrastAndBiweightDropsOutliers)
{
    const float identity[12] = {0, 0, 0, 0, 0, 0, 1, 1, 1, 0, 0, 0};
    make_pair(24, mapping_of(identity, IPOINT3D{0, 0, 0}), 0.0);
    grid_volume tpl = volume_of(&template_, 0), ind = volume_of(&original, 0);
    grid_volume mask = tpl;
    mask.data = float_vector(tpl.dim.x * tpl.dim.y * tpl.dim.z);
    for (size_t i = 0; i < grid_size(tpl.dim); i++) mask.data[i] = tpl.data[i] != 0.0f;
    search_level L;
    build_level(&L, &tpl, &mask, &ind, 2.0, 1, 1, 1);
    // an individual of the inverted contrast I = 500 - 2 T: the table follows it to within the
    // slope times half a bin (bin means are taken at bin centres)
    std::vector<float> I(grid_size(L.tpl.dim));
    for (size_t i = 0; i < I.size(); i++) I[i] = 500.0f - 2.0f * L.tpl.data[i];
    remap_table m;
    estimate_remap(&L, I.data(), &m);
    for (float t : {70.0f, 100.0f, 140.0f}) EXPECT_NEAR(remapped(&m, t), 500.0 - 2.0 * t, m.width) << t;
    double w;
    EXPECT_DOUBLE_EQ(biweight_loss(0.0, 2.0, &w), 0.0);
    EXPECT_DOUBLE_EQ(w, 1.0);
    EXPECT_DOUBLE_EQ(biweight_loss(5.0, 2.0, &w), 4.0 / 6.0);  // beyond the cutoff: c^2/6, no weight
    EXPECT_DOUBLE_EQ(w, 0.0);
    EXPECT_DOUBLE_EQ(biweight_loss(1.0, 2.0, &w), 4.0 / 6.0 * (1.0 - 0.75 * 0.75 * 0.75));
    EXPECT_DOUBLE_EQ(w, 0.75 * 0.75);
    free_level(&L);
    free_float_vector(mask.data);
}

TEST(AccurateAffineSearch, RecoversTwelveParametersOnAPhantom)
{
    const float truth_p[12] = {3.0f, -2.0f, 4.0f, 4.0f, -3.0f, 2.0f, 1.03f, 0.97f, 1.02f, 0.01f, -0.02f, 0.015f};
    Affine truth = mapping_of(truth_p, IPOINT3D{0, 0, 0});
    make_pair(48, truth, 0.0);
    double before = mapping_error(truth, 0.0, 0);
    accurate_search_report report;
    testing::internal::CaptureStdout();
    int status = accurate_affine_search(0, &report);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0) << out;
    double after = mapping_error(truth, 0.0, 0);
    EXPECT_GT(before, 3.0);
    EXPECT_LT(after, 0.1) << out;
    // the engines are pointed back at the full grid
    EXPECT_EQ(Alignment.dimension.x, 48);
    EXPECT_FLOAT_EQ(Alignment.resolution.x, 2.0f);
    EXPECT_EQ(template_.dim.x, 48);
    EXPECT_GE(report.nlevels, 2);
    EXPECT_EQ(report.level[report.nlevels - 1].kernel, 1);
}

TEST(AccurateAffineSearch, FindsAQuarterTurnOfTheOrientation)
{
    // the individual lies a quarter turn about z (and a few mm) away from the template
    const float truth_p[12] = {4.0f, 3.0f, -2.0f, 3.0f, 0.0f, 0.0f, 1.0f, 1.0f, 1.0f, 0.0f, 0.0f, 0.0f};
    Affine truth = mapping_of(truth_p, IPOINT3D{0, 0, 1});
    make_pair(48, truth, 0.0);
    accurate_search_report report;
    testing::internal::CaptureStdout();
    int status = accurate_affine_search(1, &report);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0) << out;
    EXPECT_EQ(report.orientations_tried, 24);
    EXPECT_LT(mapping_error(truth, 0.0, 0), 0.1) << out;
}

TEST(AccurateAffineSearch, KeepsThePresentOrientationWhenNothingIsTurned)
{
    const float truth_p[12] = {2.0f, -1.0f, 1.0f, 2.0f, 1.0f, -1.0f, 1.0f, 1.0f, 1.0f, 0.0f, 0.0f, 0.0f};
    Affine truth = mapping_of(truth_p, IPOINT3D{0, 0, 0});
    make_pair(48, truth, 0.0);
    accurate_search_report report;
    testing::internal::CaptureStdout();
    ASSERT_EQ(accurate_affine_search(1, &report), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(report.orientation.x, 0);
    EXPECT_EQ(report.orientation.y, 0);
    EXPECT_EQ(report.orientation.z, 0);
    EXPECT_LT(mapping_error(truth, 0.0, 0), 0.1);
}

TEST(AccurateAffineSearch, RefusesAnEmptyTemplate)
{
    const float identity[12] = {0, 0, 0, 0, 0, 0, 1, 1, 1, 0, 0, 0};
    make_pair(24, mapping_of(identity, IPOINT3D{0, 0, 0}), 0.0);
    memset(template_.SpaceTime.fData, 0, sizeof(float) * (size_t)template_.n3d);
    accurate_search_report report;
    testing::internal::CaptureStdout();
    EXPECT_EQ(accurate_affine_search(0, &report), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: the template has no non-zero voxel to compare.\n");
}

TEST(AccurateNonlinearSearch, RecoversASmoothDisplacementWithoutFolds)
{
    const float truth_p[12] = {1.0f, -1.0f, 0.5f, 1.0f, 0.0f, 0.0f, 1.0f, 1.0f, 1.0f, 0.0f, 0.0f, 0.0f};
    Affine truth = mapping_of(truth_p, IPOINT3D{0, 0, 0});
    make_pair(48, truth, 3.0);
    // start from the true affine part, so that only the displacement is left to find
    for (int j = 0; j < 12; j++) Alignment.value[j] = truth_p[j];
    double affine_only = mapping_error(truth, 3.0, 0);
    accurate_nonlinear_report report;
    testing::internal::CaptureStdout();
    int status = accurate_nonlinear_search(&report);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0) << out;
    double nonlinear = mapping_error(truth, 3.0, 1);
    EXPECT_GT(affine_only, 1.5);
    EXPECT_LT(nonlinear, 0.3 * affine_only) << out;
    // no template voxel folds: forward-difference Jacobian determinants stay positive
    const data_stack &t = template_;
    size_t sy = (size_t)t.dim.x, sz = sy * t.dim.y;
    long folded = 0;
    for (int z = 0; z + 1 < t.dim.z; z++)
        for (int y = 0; y + 1 < t.dim.y; y++)
            for (int x = 0; x + 1 < t.dim.x; x++) {
                size_t i = (size_t)x + sy * y + sz * z;
                const float *u[3] = {distort_x.SpaceTime.fData, distort_y.SpaceTime.fData, distort_z.SpaceTime.fData};
                double J[3][3];
                for (int c = 0; c < 3; c++) {
                    J[0][c] = (u[c][i + 1] - u[c][i]) / 2.0 + (c == 0);
                    J[1][c] = (u[c][i + sy] - u[c][i]) / 2.0 + (c == 1);
                    J[2][c] = (u[c][i + sz] - u[c][i]) / 2.0 + (c == 2);
                }
                double det = J[0][0] * (J[1][1] * J[2][2] - J[1][2] * J[2][1]) -
                             J[0][1] * (J[1][0] * J[2][2] - J[1][2] * J[2][0]) +
                             J[0][2] * (J[1][0] * J[2][1] - J[1][1] * J[2][0]);
                folded += det <= 0.0;
            }
    EXPECT_EQ(folded, 0);
}

