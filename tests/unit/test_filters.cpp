// Rolloff filter, frequency-domain Gaussian and the one-dimensional transforms.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

#include "filters.h"
#include "globals.h"
#include "numerics.h"
#include "test_support.h"

namespace {

/* The unfiltered volumes, and the working headers that the start-up gives before filtering:
   template_ with the template's header, original with the individual's header and data room. */
void set_up_volumes(int nx, int ny, int nz, int nt_template, int nt_individual)
{
    make_stack(&template_unfiltered, nx, ny, nz, nt_template);
    make_stack(&original_unfiltered, nx, ny, nz, nt_individual);
    make_stack(&original, nx, ny, nz, nt_individual);
    template_ = template_unfiltered;
    template_.SpaceTime.fData = NULL;
    AlignAid = {};
}

/* The frequency-domain factor at the index where a transformed constant line puts its energy:
   N/2 for an even length, N/2 + 1 for an odd one (the odd shift moves by half + 1), giving a
   centred frequency of 0.5 or 1.5 samples. */
double dc_factor(int n, double delta, double fwhm)
{
    double var = (n * delta) * (n * delta) * 0.1404824543408127 / (fwhm * fwhm);
    double f = n % 2 == 0 ? 0.5 : 1.5;
    return exp(-f * f / 2.0 / var);
}

}  // namespace

TEST(FilterImageData, RolloffPrintsBothWidthsAndFlattensASmoothBiasField)
{
    const int n = 32;
    set_up_volumes(n, n, n, 1, 1);
    // Two tissue classes (100 and 160 in stripes 8 voxels wide along y) under a bias rising with x.
    for (int z = 0; z < n; z++)
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++) {
                float tissue = (y / 8) % 2 == 0 ? 100.0f : 160.0f;
                float bias = 1.0f + 0.5f * (float)sin(2.0 * M_PI * (x + 0.5) / n);
                int i = (z * n + y) * n + x;
                template_unfiltered.SpaceTime.fData[i] = tissue * bias;
                original_unfiltered.SpaceTime.fData[i] = 2.0f * tissue * bias;
            }
    AlignAid.smooth_fov_fraction = 8;

    testing::internal::CaptureStdout();
    filter_image_data();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "smooth template by (4 4 4), smooth original by (4 4 4)\n");

    // Mean of tissue 100 near the bias peak (x around 8) against near its trough (x around 24).
    auto region_mean = [&](const float *d, int x0) {
        double s = 0;
        int count = 0;
        for (int z = 8; z < 24; z++)
            for (int y = 0; y < n; y++)
                for (int x = x0; x < x0 + 3; x++)
                    if ((y / 8) % 2 == 0) {
                        s += d[(z * n + y) * n + x];
                        count++;
                    }
        return s / count;
    };
    double before = region_mean(template_unfiltered.SpaceTime.fData, 7) /
                    region_mean(template_unfiltered.SpaceTime.fData, 23);
    double after_t = region_mean(template_.SpaceTime.fData, 7) / region_mean(template_.SpaceTime.fData, 23);
    double after_o = region_mean(original.SpaceTime.fData, 7) / region_mean(original.SpaceTime.fData, 23);
    EXPECT_GT(before, 2.5);
    EXPECT_NEAR(after_t, 1.0, 0.1);
    EXPECT_NEAR(after_o, 1.0, 0.1);
    // At stripe centres the ratio to the local mean keeps the order of the two tissues.
    int a = (16 * n + 3) * n + 16, b = (16 * n + 11) * n + 16;
    EXPECT_GT(template_.SpaceTime.fData[b], 1.01f * template_.SpaceTime.fData[a]);
}

TEST(FilterImageData, TemplateDivisionIsGuardedButIndividualDivisionIsNotGuarded)
{
    // Template values of 1e-7 smooth to about 1e-7 (at most 1e-6): the ratio is set to 0.
    // The individual is all zeros, so its unguarded 0/0 gives nan.
    set_up_volumes(8, 4, 4, 1, 1);
    for (int i = 0; i < template_unfiltered.n3d; i++) template_unfiltered.SpaceTime.fData[i] = 1e-7f;
    AlignAid.smooth_fov_fraction = 1;
    testing::internal::CaptureStdout();
    filter_image_data();
    for (int i = 0; i < template_unfiltered.n3d; i++) {
        ASSERT_EQ(template_.SpaceTime.fData[i], 0.0f) << i;
        ASSERT_TRUE(std::isnan(original.SpaceTime.fData[i])) << i;
    }
    // Scaled up by 1000 the smoothed values pass the guard and the ratio is about 1.
    for (int i = 0; i < template_unfiltered.n3d; i++) template_unfiltered.SpaceTime.fData[i] = 1e-4f;
    filter_image_data();
    testing::internal::GetCapturedStdout();
    for (int i = 0; i < template_unfiltered.n3d; i++) ASSERT_GT(template_.SpaceTime.fData[i], 0.5f) << i;
}

TEST(FilterImageData, MaskZeroesTemplateVoxelsInEveryTimePoint)
{
    set_up_volumes(3, 3, 2, 2, 1);
    for (int i = 0; i < template_unfiltered.n4d; i++) template_unfiltered.SpaceTime.fData[i] = 1.0f + i;
    AlignAid.nmask = 18;
    AlignAid.mask = float_vector(18);
    for (int v = 0; v < 18; v++) AlignAid.mask[v] = (v % 3 == 0) ? 0.0f : 1.0f;
    filter_image_data();
    for (int t = 0; t < 2; t++)
        for (int v = 0; v < 18; v++) {
            float want = v % 3 == 0 ? 0.0f : 1.0f + (t * 18 + v);
            ASSERT_EQ(template_.SpaceTime.fData[t * 18 + v], want) << t << " " << v;
        }

    // An all-zero mask zeroes the whole template; nmask 0 ignores the mask.
    for (int v = 0; v < 18; v++) AlignAid.mask[v] = 0.0f;
    filter_image_data();
    for (int i = 0; i < 36; i++) ASSERT_EQ(template_.SpaceTime.fData[i], 0.0f) << i;
    AlignAid.nmask = 0;
    filter_image_data();
    for (int i = 0; i < 36; i++) ASSERT_EQ(template_.SpaceTime.fData[i], 1.0f + i) << i;
    free_float_vector(AlignAid.mask);
}

TEST(SmoothOrSharpenIsotropic, ConstantVolumeIsScaledByTheZeroFrequencyFactor)
{
    // Even and odd lengths and unequal voxel sizes.
    data_stack s;
    make_stack(&s, 8, 6, 5, 2, 1.0f, 2.0f, 1.5f);
    for (int i = 0; i < s.n4d; i++) s.SpaceTime.fData[i] = 3.0f;
    POINT3D fwhm = {4.0f, 6.0f, 5.0f};
    smooth_or_sharpen_isotropic(0, &s, fwhm);
    double f = dc_factor(8, 1.0, 4.0) * dc_factor(6, 2.0, 6.0) * dc_factor(5, 1.5, 5.0);
    ASSERT_LT(f, 0.999);  // the half-sample shift makes the factor visibly below 1
    for (int i = 0; i < s.n4d; i++) ASSERT_NEAR(s.SpaceTime.fData[i], 3.0 * f, 1e-5) << i;

    for (int i = 0; i < s.n4d; i++) s.SpaceTime.fData[i] = 3.0f;
    smooth_or_sharpen_isotropic(1, &s, fwhm);
    for (int i = 0; i < s.n4d; i++) ASSERT_NEAR(s.SpaceTime.fData[i], 3.0 * (1.0 - f), 1e-5) << i;
    free_stack(&s);
}

