// Acceptance of the non-linear alignment on brain data: the template is ch2bet, the individual
// is ch2 under a known small affine plus a smooth displacement of a few millimetres, both reduced
// to 2 mm voxels by averaging 2x2x2 blocks (ALIGN_ACCEPT_VOXEL_MM=1 keeps the 1 mm voxels, for
// timing the full-resolution run by hand). The engine runs as the start-up and the batch mode
// do (no window), then the automatic non-linear alignment. The mean mapping error over the brain
// must fall well below the affine-only error, with no folded voxel. The run prints a checksum of
// the maps and of the resampled individual, so that two builds can be compared run against run.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "affine_search.h"
#include "align_model.h"
#include "brain_case.h"
#include "globals.h"
#include "nl_cost.h"
#include "nl_search.h"

namespace {

// Voxel size of the test grids in mm: 2 by default, 1 on request.
int voxel_mm()
{
    const char *v = getenv("ALIGN_ACCEPT_VOXEL_MM");
    return v != NULL && atoi(v) == 1 ? 1 : 2;
}

// Mean distance between the engine's mapping (Affine, plus the maps when asked) and the true
// inverse warp, over the template's brain voxels.
double mean_mapping_error(const BrainCase &c, int with_maps)
{
    define_affine_matrix();
    const BrainGrid &tpl = c.tpl;
    double sum = 0;
    long n = 0;
    for (int z = 0; z < tpl.nz; z++)
        for (int y = 0; y < tpl.ny; y++)
            for (int x = 0; x < tpl.nx; x++) {
                if (tpl.at(x, y, z) == 0.0f) continue;
                size_t idx = ((size_t)z * tpl.ny + y) * tpl.nx + x;
                double p[3], truth[3], q[3];
                brain_voxel_position(c, tpl, x, y, z, p);
                brain_warp_inverse(c.warp, p, truth);
                for (int r = 0; r < 3; r++)
                    q[r] = Alignment.Affine[r][0] * p[0] + Alignment.Affine[r][1] * p[1] +
                           Alignment.Affine[r][2] * p[2] + Alignment.Affine[r][3];
                if (with_maps) {
                    q[0] += distort_x.SpaceTime.fData[idx];
                    q[1] += distort_y.SpaceTime.fData[idx];
                    q[2] += distort_z.SpaceTime.fData[idx];
                }
                sum += sqrt((q[0] - truth[0]) * (q[0] - truth[0]) + (q[1] - truth[1]) * (q[1] - truth[1]) +
                            (q[2] - truth[2]) * (q[2] - truth[2]));
                n++;
            }
    return sum / n;
}

// FNV-1a over the bytes of one volume.
unsigned checksum(const data_stack &s)
{
    unsigned h = 2166136261u;
    const unsigned char *p = (const unsigned char *)s.SpaceTime.fData;
    for (size_t i = 0; i < sizeof(float) * (size_t)s.n3d; i++) h = (h ^ p[i]) * 16777619u;
    return h;
}

// Processor time of the whole process (every thread) in seconds: on a shared machine the wall
// clock says little.
double processor_seconds()
{
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + 1e-9 * t.tv_nsec;
}

} // namespace

TEST(NonlinearAcceptance, Ch2UnderKnownWarpIsRecoveredBeyondTheAffineFit)
{
    BrainCase c;
    if (!make_brain_case(voxel_mm(), &c)) GTEST_SKIP() << "mricron-data is not installed";

    // Start-up order without a window, then the batch-mode affine alignment.
    start_brain_case(c);
    double none = mean_mapping_error(c, 0);
    auto t0 = std::chrono::steady_clock::now();
    double p0 = processor_seconds();
    auto_adjust_affine_iterations(0, 3, 1);
    auto t1 = std::chrono::steady_clock::now();
    double p1 = processor_seconds();
    double affine = mean_mapping_error(c, 0);

    action_auto_adjust_nonlinear(1);
    auto t2 = std::chrono::steady_clock::now();
    double p2 = processor_seconds();
    double nonlinear = mean_mapping_error(c, 1);
    int nbad = number_invalid_distortions(1, 0, 0);

    double ta = std::chrono::duration<double>(t1 - t0).count();
    double tn = std::chrono::duration<double>(t2 - t1).count();
    printf("mean mapping error: start %.3f mm, affine %.3f mm, non-linear %.3f mm\n", none, affine, nonlinear);
    printf("checksums: distort_x %08x, distort_y %08x, distort_z %08x, individual %08x\n", checksum(distort_x),
           checksum(distort_y), checksum(distort_z), checksum(individual));
    printf("run time: affine %.1f s, non-linear %.1f s\n", ta, tn);
    printf("processor time: affine %.1f s, non-linear %.1f s\n", p1 - p0, p2 - p1);
    RecordProperty("affine_error_mm", std::to_string(affine));
    RecordProperty("nonlinear_error_mm", std::to_string(nonlinear));
    RecordProperty("nonlinear_seconds", std::to_string(tn));
    EXPECT_GT(affine, 1.0);  // the warp is not affine: a residual of a few mm remains
    EXPECT_LT(nonlinear, 0.6 * affine);
    EXPECT_EQ(nbad, 0);
}
