// Speed of the inner loops of the affine search on a real brain pair: the skull-stripped
// ch2bet as template and ch2 as individual (Debian mricron-data, 181 x 217 x 181 at 1 mm).
// transform_coordinates with both kernels and cost_function with both measures, reported as
// template voxels per second. The thread count of the resampling follows ALIGN_THREADS.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "globals.h"
#include "numerics.h"
#include "resample.h"
#include "similarity.h"
#include "trial_volumes.h"
#include "volume.h"
#include "volume_load.h"

namespace {

// Other volumes (for instance the pair reduced to 2 mm) can be named with ALIGN_BENCH_TEMPLATE
// and ALIGN_BENCH_INDIVIDUAL.
const char *volume_name(const char *variable, const char *fallback)
{
    const char *name = getenv(variable);
    return name != NULL ? name : fallback;
}
const char *template_file = volume_name("ALIGN_BENCH_TEMPLATE", "/usr/share/mricron/templates/ch2bet.nii.gz");
const char *individual_file = volume_name("ALIGN_BENCH_INDIVIDUAL", "/usr/share/mricron/templates/ch2.nii.gz");

// Unpacks a (compressed) volume into a temporary directory and reads it with the program's
// own loader, as the start-up does.
int load_volume(const char *gz, const char *role_name, file_list *role, data_stack *s)
{
    static char dir[] = "/tmp/align-bench-XXXXXX";
    static int made = 0;
    if (!made) {
        if (mkdtemp(dir) == NULL) return 1;
        made = 1;
    }
    char nii[1024], cmd[4096];
    snprintf(nii, sizeof nii, "%s/%s.nii", dir, role_name);
    snprintf(cmd, sizeof cmd, "gzip -dcf '%s' > '%s'", gz, nii);
    if (system(cmd) != 0) return 1;
    add_image_file(role, nii, 0, 0);
    int nfiles = 0;
    int status = read_SpaceTime_data(0, s, role, &nfiles);
    remove(nii);
    return status != 0 || nfiles == 0;
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
        if (load_volume(individual_file, "individual", &individual_files, &original) != 0 ||
            load_volume(template_file, "template", &template_files, &template_) != 0) {
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
    long long nvector, nplain;
    resample_path_counts(&nvector, &nplain);
    state.counters["plain_share"] = nvector + nplain > 0 ? (double)nplain / (double)(nvector + nplain) : 0.0;
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
// Wall-clock figures on a shared machine: the fastest of the repetitions is the one least
// disturbed by other work, so it is reported beside the mean.
double fastest(const std::vector<double> &v)
{
    double m = v.empty() ? 0.0 : v[0];
    for (double x : v) m = x < m ? x : m;
    return m;
}

BENCHMARK(BM_TransformCoordinates)->Arg(0)->Arg(1)->ArgName("accurate")->Unit(benchmark::kMillisecond)->UseRealTime()
    ->ComputeStatistics("min", fastest);

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
BENCHMARK(BM_CostFunction)->Arg(0)->Arg(1)->ArgName("icost")->Unit(benchmark::kMillisecond)->UseRealTime()
    ->ComputeStatistics("min", fastest);

// One similarity evaluation of the affine search: the fast-kernel resampling and the mutual
// information.
void BM_SimilarityEvaluation(benchmark::State &state)
{
    if (!prepare_pair()) {
        state.SkipWithError("brain volumes not available");
        return;
    }
    for (auto _ : state) {
        transform_coordinates(1, 0);
        benchmark::DoNotOptimize(cost_function(0));
    }
    set_counters(state);
}
BENCHMARK(BM_SimilarityEvaluation)->Unit(benchmark::kMillisecond)->UseRealTime()->ComputeStatistics("min", fastest);

// One trial of the automatic affine search: the same evaluation over the listed taking-part
// voxels (the list made once, as the search does at its start).
void BM_SearchTrial(benchmark::State &state)
{
    if (!prepare_pair()) {
        state.SkipWithError("brain volumes not available");
        return;
    }
    transform_coordinates(1, 0);
    trial_volumes *t = begin_trial_volumes();
    for (auto _ : state) {
        resample_listed(t);
        benchmark::DoNotOptimize(measure_listed(t, 0));
    }
    end_trial_volumes(t);
    set_counters(state);
}
BENCHMARK(BM_SearchTrial)->Unit(benchmark::kMillisecond)->UseRealTime()->ComputeStatistics("min", fastest);

}  // namespace
