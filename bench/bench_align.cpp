// Speed of the inner loops of the affine search on a real brain pair: the skull-stripped
// ch2bet as template and ch2 as individual (Debian mricron-data, 181 x 217 x 181 at 1 mm).
// transform_coordinates with both kernels and cost_function with both measures, reported as
// template voxels per second. The thread count of the resampling follows ALIGN_THREADS.
#include <benchmark/benchmark.h>

#include <nifti1_io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "globals.h"
#include "numerics.h"
#include "resample.h"
#include "similarity.h"
#include "volume.h"

namespace {

const char *template_file = "/usr/share/mricron/templates/ch2bet.nii.gz";
const char *individual_file = "/usr/share/mricron/templates/ch2.nii.gz";

// Reads a NIfTI-1 volume (compressed or not) into a one-time-point float stack with the plain
// voxel geometry; only dimensions, voxel sizes and values matter here.
int load_volume(const char *name, data_stack *s)
{
    nifti_image *nim = nifti_image_read(name, 1);
    if (nim == NULL) return 1;
    memset(s, 0, sizeof *s);
    s->dim = {(int)nim->nx, (int)nim->ny, (int)nim->nz};
    s->resolution = {nim->dx, nim->dy, nim->dz};
    s->direction = {1.0f, 1.0f, 1.0f};
    s->fov = {s->dim.x * s->resolution.x, s->dim.y * s->resolution.y, s->dim.z * s->resolution.z};
    s->nt = 1;
    s->n2d = s->dim.x * s->dim.y;
    s->n3d = s->n2d * s->dim.z;
    s->n4d = s->n3d;
    s->npts_volume = s->n3d;
    s->ijk_to_xyz = scale_and_shift_to_mat44(s->resolution, s->origin, s->direction);
    s->xyz_to_ijk = invert_mat44(s->ijk_to_xyz);
    s->SpaceTime.fData = float_vector(s->n3d);
    for (int i = 0; i < s->n3d; i++) {
        double v;
        switch (nim->datatype) {
        case DT_UINT8: v = ((unsigned char *)nim->data)[i]; break;
        case DT_INT16: v = ((short *)nim->data)[i]; break;
        case DT_UINT16: v = ((unsigned short *)nim->data)[i]; break;
        case DT_INT32: v = ((int *)nim->data)[i]; break;
        case DT_FLOAT32: v = ((float *)nim->data)[i]; break;
        case DT_FLOAT64: v = ((double *)nim->data)[i]; break;
        default: nifti_image_free(nim); return 1;
        }
        if (nim->scl_slope != 0.0f) v = v * nim->scl_slope + nim->scl_inter;
        s->SpaceTime.fData[i] = (float)v;
    }
    nifti_image_free(nim);
    return 0;
}

void zeroed_like(data_stack *s, const data_stack *like, int nt)
{
    *s = *like;
    s->nt = nt;
    s->n4d = s->n3d * nt;
    s->SpaceTime.fData = float_vector(s->n4d);
    memset(s->SpaceTime.fData, 0, sizeof(float) * (size_t)s->n4d);
}

// Loads the pair once and sets a realistic trial: a few millimetres and degrees off.
bool prepare_pair(void)
{
    static int state = 0;  // 0 not tried, 1 ready, 2 failed
    if (state == 0) {
        state = 2;
        if (load_volume(template_file, &template_) != 0 || load_volume(individual_file, &original) != 0) {
            fprintf(stderr, "cannot read %s or %s\n", template_file, individual_file);
            return false;
        }
        zeroed_like(&individual, &template_, 1);
        zeroed_like(&distort_x, &template_, 2);
        zeroed_like(&distort_y, &template_, 2);
        zeroed_like(&distort_z, &template_, 2);
        Alignment = {};
        Alignment.RigidBody = 1;
        Alignment.dimension = template_.dim;
        Alignment.resolution = template_.resolution;
        Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_);
        Alignment.xyz_to_ijk = centered_xyz_to_ijk(original);
        const float trial[12] = {2.5f, -1.5f, 3.0f, 4.0f, -2.0f, 3.0f, 1.02f, 0.98f, 1.01f, 0.01f, 0.0f, -0.01f};
        for (int j = 0; j < 12; j++) Alignment.value[j] = trial[j];
        state = 1;
    }
    return state == 1;
}

void set_counters(benchmark::State &state)
{
    int nonzero = 0;
    for (int i = 0; i < template_.n3d; i++) nonzero += template_.SpaceTime.fData[i] != 0.0f;
    state.counters["tpl_voxels/s"] =
        benchmark::Counter((double)template_.n3d * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["nonzero_tpl_voxels/s"] =
        benchmark::Counter((double)nonzero * state.iterations(), benchmark::Counter::kIsRate);
    const char *env = getenv("ALIGN_THREADS");
    state.SetLabel(env != NULL ? std::string("ALIGN_THREADS=") + env : std::string("threads=machine"));
}

void BM_TransformCoordinates(benchmark::State &state)
{
    if (!prepare_pair()) {
        state.SkipWithError("brain volumes not available");
        return;
    }
    int accurate = (int)state.range(0);
    for (auto _ : state) {
        transform_coordinates(1, accurate);
        benchmark::DoNotOptimize(individual.SpaceTime.fData[individual.n3d / 2]);
    }
    set_counters(state);
}
BENCHMARK(BM_TransformCoordinates)->Arg(0)->Arg(1)->ArgName("accurate")->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CostFunction(benchmark::State &state)
{
    if (!prepare_pair()) {
        state.SkipWithError("brain volumes not available");
        return;
    }
    transform_coordinates(1, 0);
    int icost = (int)state.range(0);
    for (auto _ : state) benchmark::DoNotOptimize(cost_function(icost));
    set_counters(state);
}
BENCHMARK(BM_CostFunction)->Arg(0)->Arg(1)->ArgName("icost")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
