// The fast resampling and similarity against the reference engine on the real brain pair: ch2
// (individual) onto ch2bet (template), reduced to 2 mm (and 4 mm) by averaging blocks, prepared
// as the start-up does (rolloff filter on). Every voxel of individual and every similarity value
// must equal the reference's bit for bit, for several parameter sets, both kernels, every vector
// level the processor has and one or several threads; with displacement maps, wrap-around and
// the basis-box (partial) resampling.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "align_model.h"
#include "brain_case.h"
#include "filters.h"
#include "globals.h"
#include "nl_model.h"
#include "numerics.h"
#include "prepare.h"
#include "reference_engine.h"
#include "resample.h"
#include "similarity.h"
#include "simd.h"
#include "test_support.h"
#include "volume.h"

namespace {

const char *ch2_file = "/usr/share/mricron/templates/ch2.nii.gz";
const char *ch2bet_file = "/usr/share/mricron/templates/ch2bet.nii.gz";

// A uint8 NIfTI volume averaged over f x f x f blocks, as a stack of f mm voxels.
bool load_reduced(const char *name, int f, data_stack *s)
{
    BrainGrid g;
    if (!read_reduced(name, f, &g)) return false;
    make_stack(s, g.nx, g.ny, g.nz, 1, (float)f, (float)f, (float)f);
    memcpy(s->SpaceTime.fData, g.v.data(), sizeof(float) * g.v.size());
    return true;
}

// Start-up without a window: the two volumes (template voxels of tf mm, individual of inf mm),
// the alignment records, the centred matrices and the rolloff-filtered working volumes.
bool prepare_pair(int tf, int inf)
{
    if (!load_reduced(ch2_file, inf, &original_unfiltered) || !load_reduced(ch2bet_file, tf, &template_unfiltered))
        return false;
    initialize_mosaic_ovl(1);
    initialize_alignment();
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_unfiltered);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);
    AlignAid.smooth_fov_fraction = 4;
    filter_image_data();
    return true;
}

struct Parameters {
    const char *name;
    float v[12];
};

const Parameters parameter_sets[] = {
    {"identity", {0, 0, 0, 0, 0, 0, 1, 1, 1, 0, 0, 0}},
    {"example", {4, -3, 2, 3, -2, 2, 1.03f, 0.98f, 1.02f, 0, 0, 0}},
    {"skewed", {-2.7f, 1.3f, 5.1f, -8, 4.5f, 11, 0.93f, 1.08f, 0.97f, 0.04f, -0.03f, 0.02f}},
    {"far", {30, -22, 14, 25, -17, 9, 1.2f, 0.85f, 1.1f, 0, 0.01f, 0}},
    {"half-voxel", {1, 1, 1, 0, 0, 0, 1, 1, 1, 0, 0, 0}},
};

void set_parameters(const Parameters &p)
{
    for (int j = 0; j < 12; j++) Alignment.value[j] = p.v[j];
}

std::vector<int> levels()
{
    std::vector<int> l = {SIMD_SCALAR};
    if (simd_level_supported() >= SIMD_AVX512) l.push_back(SIMD_AVX512);
    return l;
}

const char *level_name(int level) { return level == SIMD_AVX512 ? "avx512" : (level == SIMD_AVX2 ? "avx2" : "scalar"); }

float *target() { return individual.SpaceTime.fData + (size_t)graph.iTime * individual.n3d; }

// The same starting content in the target before each run: a pattern that no resampling makes.
void fill_target(unsigned seed)
{
    std::mt19937 rng{seed};
    std::uniform_real_distribution<float> u(-3.0f, -1.0f);
    for (int i = 0; i < individual.n3d; i++) target()[i] = u(rng);
}

std::string first_difference(const std::vector<float> &want, const float *got)
{
    size_t n = 0, first = want.size();
    for (size_t i = 0; i < want.size(); i++)
        if (memcmp(&want[i], &got[i], sizeof(float)) != 0) {
            if (first == want.size()) first = i;
            n++;
        }
    if (n == 0) return "";
    char text[256];
    snprintf(text, sizeof text, "%zu voxels differ, first %zu: want %.9g got %.9g", n, first, want[first], got[first]);
    return text;
}

bool same_bits(float a, float b) { return memcmp(&a, &b, sizeof a) == 0; }

// Runs one resampling (all_voxels, kernel) by the reference and by the fast engine at every
// vector level and 1 and 3 threads, from the same target content; compares every voxel, and
// after full resamplings both similarity measures. The case must compute some voxels (a
// twentieth of the grid when full, least_computed in a box).
void expect_equal_resampling(const std::string &what, int all_voxels, int accurate, unsigned seed,
                             size_t least_computed = 0)
{
    fill_target(seed);
    reference_transform_coordinates(all_voxels, accurate);
    std::vector<float> want(target(), target() + individual.n3d);
    float want_cost[2] = {0, 0};
    if (all_voxels)
        for (int icost = 0; icost < 2; icost++) want_cost[icost] = reference_cost_function(icost);
    size_t computed = 0;
    for (float v : want) computed += v > 0.0f;
    EXPECT_GE(computed, all_voxels ? want.size() / 20 : least_computed) << what;  // the case does compute voxels

    for (int level : levels())
        for (const char *threads : {"1", "3"}) {
            setenv("ALIGN_SIMD", level_name(level), 1);
            setenv("ALIGN_THREADS", threads, 1);
            fill_target(seed);
            transform_coordinates(all_voxels, accurate);
            EXPECT_EQ(first_difference(want, target()), "")
                << what << ", " << level_name(level) << ", threads " << threads;
            if (all_voxels)
                for (int icost = 0; icost < 2; icost++) {
                    float got = cost_function(icost);
                    EXPECT_TRUE(same_bits(got, want_cost[icost]))
                        << what << ", cost " << icost << ": want " << want_cost[icost] << " got " << got;
                }
        }
    unsetenv("ALIGN_SIMD");
    unsetenv("ALIGN_THREADS");
}

// Smooth displacement fields of a few millimetres on the template grid (time point 0).
void fill_displacements(float amplitude)
{
    IPOINT3D d = template_.dim;
    for (int z = 0; z < d.z; z++)
        for (int y = 0; y < d.y; y++)
            for (int x = 0; x < d.x; x++) {
                size_t i = (size_t)x + (size_t)d.x * ((size_t)y + (size_t)d.y * (size_t)z);
                distort_x.SpaceTime.fData[i] = amplitude * (float)sin(0.21 * y + 0.1 * z);
                distort_y.SpaceTime.fData[i] = amplitude * (float)cos(0.17 * z - 0.05 * x);
                distort_z.SpaceTime.fData[i] = 0.8f * amplitude * (float)sin(0.13 * x + 0.19 * y);
            }
}

}  // namespace

TEST(EngineEquality, EveryVoxelAndSimilarityOfTheBrainPairForBothKernels)
{
    if (!prepare_pair(2, 2)) GTEST_SKIP() << "mricron-data is not installed";
    unsigned seed = 1;
    for (const Parameters &p : parameter_sets) {
        set_parameters(p);
        for (int accurate = 0; accurate < 2; accurate++)
            expect_equal_resampling(std::string(p.name) + (accurate ? ", accurate" : ", fast"), 1, accurate, seed++);
    }
}

TEST(EngineEquality, DisplacementMapsAndWrapAround)
{
    if (!prepare_pair(2, 2)) GTEST_SKIP() << "mricron-data is not installed";
    fill_displacements(3.0f);
    set_parameters(parameter_sets[1]);
    expect_equal_resampling("maps", 1, 0, 11);
    expect_equal_resampling("maps, accurate", 1, 1, 12);
    // a shift of a third of the field of view along each axis: many voxels wrap
    Alignment.WrapAround = {1, 1, 1};
    Alignment.value[0] = 60.0f;
    Alignment.value[1] = -70.0f;
    Alignment.value[2] = 55.0f;
    expect_equal_resampling("maps, wrap xyz", 1, 0, 13);
    Alignment.WrapAround = {0, 1, 0};
    expect_equal_resampling("maps, wrap y, accurate", 1, 1, 14);
}

TEST(EngineEquality, BasisBoxResamplingLeavesTheSameTarget)
{
    if (!prepare_pair(2, 2)) GTEST_SKIP() << "mricron-data is not installed";
    fill_displacements(2.0f);
    set_parameters(parameter_sets[2]);
    // the starting basis grid (boxes of a few voxels, resampled on the calling thread) and a
    // coarse one (boxes of thousands of voxels, shared out over threads)
    for (int coarse = 0; coarse < 2; coarse++) {
        if (coarse) {
            AlignNL.BasisGrid = {8, 10, 8};
            update_nonlinear_alignment_parameters(0);
        }
        // boxes whose peak lies in the brain: the first, a middle and the last one
        std::vector<int> chosen;
        for (int b = 0; b < AlignNL.NBasis; b++) {
            IPOINT3D p = AlignNL.Index3DPeak[b], d = template_.dim;
            if (p.x >= 0 && p.y >= 0 && p.z >= 0 && p.x < d.x && p.y < d.y && p.z < d.z &&
                template_.SpaceTime.fData[index4d_stack(&template_, p.x, p.y, p.z, 0)] != 0.0f)
                chosen.push_back(b);
        }
        ASSERT_GE(chosen.size(), 3u);
        for (int b : {chosen[0], chosen[chosen.size() / 2], chosen.back()}) {
            AlignNL.iBasis = b;
            IPOINT3D s0 = AlignNL.Index3DStart[b], e0 = AlignNL.Index3DEnd[b];
            size_t box = (size_t)(e0.x - s0.x) * (e0.y - s0.y) * (e0.z - s0.z);
            for (int accurate = 0; accurate < 2; accurate++)
                expect_equal_resampling("basis " + std::to_string(b) + " of " + std::to_string(box) + " voxels" +
                                            (accurate ? ", accurate" : ", fast"),
                                        0, accurate, 100 + b, coarse ? box / 10 : 1);
        }
    }
}

TEST(EngineEquality, CoarserAndFinerTemplateGridsWidenOrNarrowTheKernel)
{
    // template of 4 mm voxels on the 2 mm individual: half-width 2 in both kernels
    if (!prepare_pair(4, 2)) GTEST_SKIP() << "mricron-data is not installed";
    set_parameters(parameter_sets[1]);
    expect_equal_resampling("4 mm over 2 mm", 1, 0, 21);
    expect_equal_resampling("4 mm over 2 mm, accurate", 1, 1, 22);
    // template of 2 mm voxels on a 4 mm individual: a narrow Gaussian (sigma 0.2125)
    free_stack(&original_unfiltered);
    free_stack(&template_unfiltered);
    if (!prepare_pair(2, 4)) GTEST_SKIP() << "mricron-data is not installed";
    set_parameters(parameter_sets[2]);
    expect_equal_resampling("2 mm over 4 mm", 1, 0, 23);
    expect_equal_resampling("2 mm over 4 mm, accurate", 1, 1, 24);
}
