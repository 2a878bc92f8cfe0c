// Speed of the non-linear alignment on the warped brain pair of the acceptance run (ch2bet as
// template, ch2 under a known warp as individual, reduced to ALIGN_BENCH_VOXEL_MM mm voxels, 2 by
// default): one coefficient trial (the map update with the box's resampling, and the probe cost
// of the box) on the finest grid, and one whole pass over the coefficients at each grid level.
// Reported as box voxels per second for the trials and coefficients per second for the passes.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

#include "align_model.h"
#include "brain_case.h"
#include "globals.h"
#include "nl_cost.h"
#include "nl_model.h"
#include "nl_search.h"
#include "resample.h"

namespace {

int bench_voxel_mm()
{
    const char *v = getenv("ALIGN_BENCH_VOXEL_MM");
    return v != NULL && atoi(v) == 1 ? 1 : 2;
}

// Loads the pair once, with affine parameters near the fit that the affine search finds.
bool prepare_case(void)
{
    static int state = 0;  // 0 not tried, 1 ready, 2 failed
    if (state == 0) {
        state = 2;
        BrainCase c;
        if (!make_brain_case(bench_voxel_mm(), &c)) return false;
        start_brain_case(c);
        const float fit[12] = {1.76f, -1.22f, 0.84f, -0.72f, 0.40f, 0.95f, 1.021f, 0.996f, 1.008f, -0.004f, -0.012f, -0.019f};
        for (int j = 0; j < 12; j++) Alignment.value[j] = fit[j];
        transform_coordinates(1, 0);
        state = 1;
    }
    return state == 1;
}

// The grid of one level of the first automatic run (3 coarse .. 1 fine).
IPOINT3D level_grid(int ilevel)
{
    auto from_x = [](int g) {
        float w = template_.fov.x / (float)g;
        return IPOINT3D{g, (int)rint(template_.fov.y / w), (int)rint(template_.fov.z / w)};
    };
    IPOINT3D G = from_x((int)rint(template_.fov.x / (2 * template_.resolution.x)));
    if (ilevel >= 2) G = from_x((int)(G.x / 2.0));
    if (ilevel >= 3) G = from_x(G.x / 2);
    if (ilevel <= 2) {
        if (G.y > template_.dim.y / 2) G.y = template_.dim.y / 2;
        if (G.z > template_.dim.z / 2) G.z = template_.dim.z / 2;
    }
    return G;
}

// Builds the grid of a level from zero maps.
void set_level(int ilevel)
{
    memset(distort_x.SpaceTime.fData, 0, sizeof(float) * (size_t)distort_x.n3d);
    memset(distort_y.SpaceTime.fData, 0, sizeof(float) * (size_t)distort_y.n3d);
    memset(distort_z.SpaceTime.fData, 0, sizeof(float) * (size_t)distort_z.n3d);
    AlignNL.BasisGrid = level_grid(ilevel);
    AlignNL.Lambda_reg = ilevel == 3 ? 1 : 10;
    update_nonlinear_alignment_parameters(1);
    transform_coordinates(1, 0);
}


// Runs f with standard output sent to /dev/null (the passes print their summaries).
template <class F> void quietly(F f)
{
    fflush(stdout);
    int saved = dup(1);
    FILE *null = fopen("/dev/null", "w");
    if (null != NULL) dup2(fileno(null), 1);
    f();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    if (null != NULL) fclose(null);
}

std::string label(void)
{
    char text[128];
    const char *env = getenv("ALIGN_THREADS");
    snprintf(text, sizeof text, "%d mm, %s", bench_voxel_mm(), env != NULL ? (std::string("ALIGN_THREADS=") + env).c_str() : "threads=machine");
    return text;
}

// The timed part of one trial (a function of its own so that a profiler can pick it out).
__attribute__((noinline)) float coefficient_trial(int n, float value)
{
    Set_AlignNL_Value(n, value);
    return cost_function_nonlinear(0, 2);
}

// One coefficient trial on a level's grid: the map update with its box resampling
// (Set_AlignNL_Value) and the probe cost of the box (code 2), for the x coefficients of every
// basis whose box holds brain, in turn. Each basis is taken out of the totals (code 1) and put
// back unchanged (code 3) outside the timing.
void BM_NonlinearTrial(benchmark::State &state)
{
    if (!prepare_case()) {
        state.SkipWithError("brain volumes not available");
        return;
    }
    set_level((int)state.range(0));
    std::vector<int> bases;
    for (int n = 0; n < AlignNL.NBasis; n++) {
        IPOINT3D s = AlignNL.Index3DStart[n], e = AlignNL.Index3DEnd[n];
        int brain = 0;
        for (int z = s.z; z < e.z; z++)
            for (int y = s.y; y < e.y; y++)
                for (int x = s.x; x < e.x; x++)
                    brain += template_.SpaceTime.fData[((size_t)z * template_.dim.y + y) * template_.dim.x + x] != 0.0f;
        if (brain > 0) bases.push_back(n);
    }
    cost_function_nonlinear(0, 0);
    size_t k = 0;
    long long voxels = 0;
    for (auto _ : state) {
        state.PauseTiming();
        int n = bases[(k++ * 7919) % bases.size()];  // spread over the grid
        AlignNL.iBasis = AlignNL.iCoeff = n;
        float v = AlignNL.value[n], h = AlignNL.increment[n];
        cost_function_nonlinear(0, 1);
        IPOINT3D s = AlignNL.Index3DStart[n], e = AlignNL.Index3DEnd[n];
        voxels += (long long)(e.x - s.x) * (e.y - s.y) * (e.z - s.z);
        state.ResumeTiming();
        benchmark::DoNotOptimize(coefficient_trial(n, v + h));
        state.PauseTiming();
        Set_AlignNL_Value(n, v);
        cost_function_nonlinear(0, 3);
        state.ResumeTiming();
    }
    state.counters["box_voxels/s"] = benchmark::Counter((double)voxels, benchmark::Counter::kIsRate);
    state.SetLabel(label());
}
BENCHMARK(BM_NonlinearTrial)->Arg(1)->Arg(2)->Arg(3)->ArgName("level")->Unit(benchmark::kMicrosecond)->UseRealTime();

// One whole pass (adjust_nonlinear_1pass, with the code-0 cost that precedes it) over every
// coefficient of a level's grid, starting from zero maps each time.
void BM_NonlinearPass(benchmark::State &state)
{
    if (!prepare_case()) {
        state.SkipWithError("brain volumes not available");
        return;
    }
    int ilevel = (int)state.range(0);
    set_level(ilevel);
    NlSearchState start;
    save_nl_search_state(&start);
    for (auto _ : state) {
        quietly([&]() {
            float cost = cost_function_nonlinear(0, 0);
            adjust_nonlinear_1pass(ilevel, 1, 0, cost);
        });
        state.PauseTiming();
        restore_nl_search_state(start);
        state.ResumeTiming();
    }
    double coefficients = 3.0 * AlignNL.NBasis * state.iterations();
    state.counters["coefficients/s"] = benchmark::Counter(coefficients, benchmark::Counter::kIsRate);
    state.counters["tpl_voxels/s"] =
        benchmark::Counter((double)template_.n3d * state.iterations(), benchmark::Counter::kIsRate);
    state.SetLabel(label());
}
BENCHMARK(BM_NonlinearPass)->Arg(3)->Arg(2)->Arg(1)->ArgName("level")->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);

}  // namespace
