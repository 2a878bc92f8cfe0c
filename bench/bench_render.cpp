// Speed of the redraw of the image area without an X server: render_image_area (the pixels a
// redraw hands to the window) on a 181 x 217 x 181 stack at 1 mm, in the three-plane view and in
// the mosaic of all 181 axial slices at zoom 1, plain grey pixels and interpolated. Reported as
// milliseconds a redraw and pixels per second; the thread count follows ALIGN_THREADS. With the
// resampling (bench_align, BM_TransformCoordinates) this is the processing of one panel step;
// bench/panel_step.sh measures the same step from key to image under Xvfb.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "render.h"
#include "test_support.h"
#include "globals.h"
#include "volume.h"
#include "x11_display.h"

namespace {

const int nx = 181, ny = 217, nz = 181;

// The displayed stack with values of a brain's range, laid out as the window does at zoom 1.
void layout(int three_planes, int interpolate)
{
    static bool made = false;
    if (!made) {
        set_displayed_stack_for_test(nx, ny, nz, 1);
        std::mt19937 rng{7};
        std::uniform_real_distribution<float> u(0.0f, 120.0f);
        for (int i = 0; i < image_stack.n3d; i++) image_stack.SpaceTime.fData[i] = u(rng);
        made = true;
    }
    static std::vector<int> shown(nz, 1);
    mosaic.display_slice = shown.data();
    mosaic.PixelResolution = {1.0f, 1.0f, 1.0f};
    mosaic.PixelDim = {nx, ny, nz};
    mosaic.zoom = 1;
    mosaic.interpolate = interpolate;
    mosaic.display_crosshairs = 0;
    mosaic.icross = {nx / 2, ny / 2, nz / 2};
    mosaic.mosaic_orientation = 0;
    mosaic.display_3orthogonal = three_planes;
    mosaic.display_ortho_ZY = 0;
    if (three_planes) {
        mosaic.ImageRegionPixels = {nx + nz + 3, ny + nz + 3};
    } else {
        // all slices in 22 columns of 9 rows, each panel with its 1-pixel border
        mosaic.DimPanels = {22, 9, nz};
        mosaic.ImageRegionPixels = {22 * (nx + 1) + 1, 9 * (ny + 1) + 1};
    }
    image_scale_min = 0.0f;
    image_scale_max = 120.0f;
    prepare_image_display();
}

void BM_RenderImageArea(benchmark::State &state)
{
    layout((int)state.range(0), (int)state.range(1));
    size_t n = (size_t)mosaic.ImageRegionPixels.x * (size_t)mosaic.ImageRegionPixels.y;
    std::vector<unsigned int> pixels(n);
    for (auto _ : state) {
        render_image_area(pixels.data());
        benchmark::DoNotOptimize(pixels[n / 2]);
    }
    state.counters["pixels/s"] = benchmark::Counter((double)n * state.iterations(), benchmark::Counter::kIsRate);
    const char *env = getenv("ALIGN_THREADS");
    state.SetLabel(env != NULL ? std::string("ALIGN_THREADS=") + env : std::string("threads=machine"));
}

double fastest(const std::vector<double> &v)
{
    double m = v.empty() ? 0.0 : v[0];
    for (double x : v) m = x < m ? x : m;
    return m;
}

BENCHMARK(BM_RenderImageArea)
    ->ArgsProduct({{1, 0}, {0, 1}})
    ->ArgNames({"three_planes", "interpolate"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->ComputeStatistics("min", fastest);

}  // namespace
