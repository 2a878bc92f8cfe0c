/* The automatic affine alignment: coarse-to-fine levels of coordinate-wise line searches on the
   similarity, and the staged first search of the interactive action. Reads and writes
   Alignment.value and AlignAid (Adjust, increment, iParameter, DisplaySet, SubSample*);
   resamples individual. Redraws only through display_hooks. No X11. */
#include "affine_search.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "align_model.h"
#include "display_hooks.h"
#include "globals.h"
#include "numerics.h"
#include "panel_model.h"
#include "prepare.h"
#include "resample.h"
#include "similarity.h"
#include "trial_volumes.h"

affine_trial_hooks AffineTrial = {transform_coordinates, cost_function};

/* The listed trials of the levels in progress (NULL outside them, or when tests have put other
   trials in AffineTrial): the same resampling and similarity, restricted to the template's
   taking-part voxels. */
static trial_volumes *listed_trials = NULL;

static void resample_trial(void)
{
    if (listed_trials != NULL) resample_listed(listed_trials);
    else AffineTrial.resample(1, 0);
}

static float current_cost(int icost)
{
    if (listed_trials != NULL) return measure_listed(listed_trials, icost);
    return AffineTrial.cost(icost);
}

/* One trial of the current parameter values: resample, then measure. */
static float evaluate_trial(int icost)
{
    resample_trial();
    return current_cost(icost);
}

static int first_allowed_parameter(void)
{
    for (int j = 0; j < 12; j++)
        if (AlignAid.Adjust[j]) return j;
    return -1;
}

void ParabolicInterpolation(float X3Point[3], float Y3Point[3], float *XMax, float *YMax)
{
    float xs = 0.0f, ys = 0.0f, x[3], y[3];
    int error_row = 0;

    for (int k = 0; k < 3; k++) {
        float dx = fabsf(X3Point[k] - X3Point[1]), dy = fabsf(Y3Point[k] - Y3Point[1]);
        if (dx > xs) xs = dx;
        if (dy > ys) ys = dy;
    }
    for (int k = 0; k < 3; k++) {
        x[k] = (X3Point[k] - X3Point[1]) / xs;
        y[k] = (Y3Point[k] - Y3Point[1]) / ys;
    }

    float **A = float_matrix(3, 3), **N = float_matrix(3, 3), **P = float_matrix(3, 3);
    for (int k = 0; k < 3; k++) {
        A[k][0] = x[k] * x[k];
        A[k][1] = x[k];
        A[k][2] = 1.0f;
    }
    Matrix_Product(N, 3, 3, A, 1, 3, A, 0);
    if (rInvertSquareMatrix(3, N, &error_row) != 0) {
        printf("maximize:\n");
        printf("X: %f %f %f\n", x[0], x[1], x[2]);
        printf("Y: %f %f %f\n", y[0], y[1], y[2]);
        printf("Error: singular matrix in ParabolicInterpolation\n");
        fflush(stdout);
        exit(1);
    }
    /* (a, b, e) = (N^-1 A') y', all in float */
    Matrix_Product(P, 3, 3, N, 0, 3, A, 1);
    float coef[3];
    for (int i = 0; i < 3; i++) {
        coef[i] = 0.0f;
        for (int k = 0; k < 3; k++) coef[i] += P[i][k] * y[k];
    }
    free_float_matrix(P, 3, 3);
    free_float_matrix(N, 3, 3);
    free_float_matrix(A, 3, 3);

    float a = coef[0], b = coef[1], e = coef[2];
    float xv = (-b / 2.0f) / a;
    float yv = e + a * xv * xv + b * xv;
    *XMax = xv * xs + X3Point[1];
    *YMax = yv * ys + Y3Point[1];
}

/* The end of a line scan that met a similarity that is not a number. */
[[noreturn]] static void undefined_similarity(const float X3Point[3], const float Y3Point[3])
{
    printf("Programming or memory error in line_scan_1d\n");
    printf("X3Point = (%g %g %g), Y3Point = (%g %g %g)\n", X3Point[0], X3Point[1], X3Point[2],
           Y3Point[0], Y3Point[1], Y3Point[2]);
    fflush(stdout);
    exit(1);
}

/* Two resamplings that differ by rounding at most: every voxel within a millionth of its
   earlier value (a constant individual comes back as its value give or take an ulp, however
   it is moved). */
static int same_but_for_rounding(const float *now, const float *before, size_t n)
{
    for (size_t i = 0; i < n; i++)
        if (!(fabsf(now[i] - before[i]) <= 1e-6f * fabsf(before[i]))) return 0;
    return 1;
}

/* For a march step that left the similarity as it was: 1 when the resampled individual is
   also as the previous such step left it (but for rounding), so that the step changed
   nothing; otherwise 0, after keeping a copy of it in *copy (allocated here, freed by the
   caller) for the next step. Always 0 while no individual is allocated. */
static int step_changed_nothing(float **copy, int *have_copy)
{
    size_t n = individual.n3d > 0 ? (size_t)individual.n3d : 0;
    if (individual.SpaceTime.fData == NULL || n == 0 || graph.iTime < 0 || graph.iTime >= individual.nt)
        return 0;
    const float *now = individual.SpaceTime.fData + (size_t)graph.iTime * n;
    if (*copy == NULL) *copy = float_vector((int)n);
    else if (*have_copy && same_but_for_rounding(now, *copy, n)) return 1;
    memcpy(*copy, now, n * sizeof(float));
    *have_copy = 1;
    return 0;
}

/* The march of a line scan may stop only where nothing changes any more: a step whose
   similarity equals the best so far and whose resampled individual equals the previous such
   step's but for rounding (an empty or constant individual, a parameter without effect on the
   template grid, or every template voxel moved off the individual's grid). A real similarity
   never does both, so those scans are not touched. */
void line_scan_1d(int icost, float cost_initial, float *cost_final, float *increment_final)
{
    int p = AlignAid.iParameter;
    float v = Alignment.value[p], h = AlignAid.increment[p];
    float X3Point[3], Y3Point[3], xbest, ybest;

    X3Point[0] = v - h;
    X3Point[1] = v;
    X3Point[2] = v + h;
    Alignment.value[p] = X3Point[0];
    Y3Point[0] = evaluate_trial(icost);
    Y3Point[1] = cost_initial;
    Alignment.value[p] = X3Point[2];
    Y3Point[2] = evaluate_trial(icost);

    if (Y3Point[1] > Y3Point[0] && Y3Point[1] > Y3Point[2]) {
        ParabolicInterpolation(X3Point, Y3Point, &xbest, &ybest);
        Alignment.value[p] = xbest;
        AlignAid.increment[p] = h / 2.0f;
        *cost_final = ybest;
        *increment_final = xbest - v;
        return;
    }

    /* Any similarity that is not a number takes the error path, not only one that leaves
       no direction. */
    if (std::isnan(Y3Point[0]) || std::isnan(Y3Point[1]) || std::isnan(Y3Point[2]))
        undefined_similarity(X3Point, Y3Point);
    int direction;
    if (Y3Point[0] >= Y3Point[1]) direction = -1;
    else if (Y3Point[2] >= Y3Point[1]) direction = 1;
    else undefined_similarity(X3Point, Y3Point);

    /* March from the better end while the similarity does not fall; the bracket's middle
       point is always the best seen before the newest point. No step limit. */
    float *flat_copy = NULL;
    int have_flat_copy = 0;
    for (;;) {
        float xnew, ynew;
        if (direction < 0) {
            xnew = X3Point[0] - h;
            Alignment.value[p] = xnew;
            ynew = evaluate_trial(icost);
            X3Point[2] = X3Point[1]; Y3Point[2] = Y3Point[1];
            X3Point[1] = X3Point[0]; Y3Point[1] = Y3Point[0];
            X3Point[0] = xnew;       Y3Point[0] = ynew;
        } else {
            xnew = X3Point[2] + h;
            Alignment.value[p] = xnew;
            ynew = evaluate_trial(icost);
            X3Point[0] = X3Point[1]; Y3Point[0] = Y3Point[1];
            X3Point[1] = X3Point[2]; Y3Point[1] = Y3Point[2];
            X3Point[2] = xnew;       Y3Point[2] = ynew;
        }
        if (std::isnan(ynew)) undefined_similarity(X3Point, Y3Point);
        if (ynew < Y3Point[1]) break;
        if (ynew > Y3Point[1]) {
            have_flat_copy = 0;
            continue;
        }
        if (step_changed_nothing(&flat_copy, &have_flat_copy)) {
            const char *name = AlignAid.name[p];
            while (*name == ' ') name++;
            printf("The line search of %s stops at %g: its steps no longer change the resampled individual\n",
                   name, X3Point[1]);
            printf("(an empty or constant individual, a parameter without effect, or no template voxel left on its grid).\n");
            fflush(stdout);
            free_float_vector(flat_copy);
            *cost_final = Y3Point[1];
            *increment_final = X3Point[1] - v;
            return;
        }
    }
    if (flat_copy != NULL) free_float_vector(flat_copy);
    ParabolicInterpolation(X3Point, Y3Point, &xbest, &ybest);
    *cost_final = ybest;
    *increment_final = xbest - v;
}

int adjust_affine_1pass(int icost, int ilevel)
{
    float gain[12], step[12], start_increment[12];
    float cost0 = current_cost(icost);

    for (int j = 0; j < 12; j++) {
        gain[j] = step[j] = 0.0f;
        if (!AlignAid.Adjust[j] || AlignAid.increment[j] == 0.0f) continue;
        AlignAid.iParameter = j;
        float remembered = Alignment.value[j], best_cost, best_offset;
        line_scan_1d(icost, cost0, &best_cost, &best_offset);
        Alignment.value[j] = remembered;
        gain[j] = best_cost - cost0;
        step[j] = best_offset;
        refresh_display_image();
        show_alignment_info();
    }

    float sum = 0.0f;
    for (int j = 0; j < 12; j++) sum += gain[j] * gain[j];
    float norm = (float)sqrt((double)sum);
    if (norm == 0.0f) return 0;

    for (int j = 0; j < 12; j++) start_increment[j] = AlignAid.increment[j];
    get_starting_increments(ilevel, start_increment);
    int changed = 0;
    for (int j = 0; j < 12; j++) {
        if (!AlignAid.Adjust[j]) continue;
        float move = step[j] * gain[j] / norm;
        Alignment.value[j] += move;
        if (fabsf(move) >= start_increment[j] / 8.0f) changed = 1;
        else AlignAid.increment[j] = 0.0f;
    }
    int first = first_allowed_parameter();
    if (first >= 0) AlignAid.iParameter = first;

    resample_trial();
    show_alignment_info();
    refresh_display_image();
    return changed;
}

void batch_affine_alignment(void)
{
    calculate_orientation_rotation();
    update_alignment(0);
    AlignAid.iParameter = 0;
    AlignAid.DisplaySet = 1;
    show_alignment_info();
    auto_adjust_affine_iterations(0, 3, 1);
}

void auto_adjust_affine_iterations(int icost, int ilevel_max, int ilevel_min)
{
    char text[1024];
    const char *cost_name = icost == 0 ? "mutual information" : "normalized correlation";

    if (AlignAid.DisplayType != 0) action_change_display_type(0);
    if (AlignAid.DisplaySet != 1) {
        AlignAid.DisplaySet = 1;
        update_display_set();
        show_alignment_info();
    }

    /* Nothing below changes the template, the grids or the maps: the taking-part voxels are
       listed once for all trials. */
    int own_list = listed_trials == NULL && AffineTrial.resample == transform_coordinates &&
                   AffineTrial.cost == cost_function;
    if (own_list) listed_trials = begin_trial_volumes();

    for (int level = ilevel_max; level >= ilevel_min; level--) {
        print_parameter_set(1, level);
        /* A finishing run that starts at level 1 is held to the finer threshold. */
        float threshold = level != 1 ? 0.05f : (ilevel_max == 1 ? 0.005f : 0.02f);
        float relative_gain;
        do {
            action_set_increments(level);
            snprintf(text, sizeof text, "level %d", level);
            show_on_info_line(text, cost_name, "");

            float cost_start = current_cost(icost), cost_prev = cost_start, cost;
            float saved[12];
            for (int j = 0; j < 12; j++) saved[j] = Alignment.value[j];
            int npass = 0;
            do {
                /* Deliberate: the pass is run before the count is tested, so a cycle runs up
                   to 21 passes and applies the last one too.
                   Pinned by AffineLevels.CycleStopsAfterTwentyOnePasses. */
                for (;;) {
                    int completed_before = npass;
                    int changed = adjust_affine_1pass(icost, level);
                    cost = current_cost(icost);
                    int improved = cost / cost_prev > 1.005f;
                    cost_prev = cost;
                    npass++;
                    if (!changed || completed_before >= 20 || !improved) break;
                }
                /* Deliberate: nothing changes since the last evaluation, so this test
                   normally ends the cycle; kept as it is. */
                cost = current_cost(icost);
            } while (cost / cost_prev > 1.01f && npass < 20);

            action_set_increments(level);
            /* Deliberate: the restore does not resample; the next cycle starts from the
               resampling of the discarded values. */
            if (cost_start > cost)
                for (int j = 0; j < 12; j++) Alignment.value[j] = saved[j];
            relative_gain = (cost - cost_start) / cost_start;
            print_parameter_set(0, level);
        } while (relative_gain >= threshold);
    }
    if (own_list) {
        end_trial_volumes(listed_trials);
        listed_trials = NULL;
    }
}

static int any_allowed(void)
{
    return first_allowed_parameter() >= 0;
}

/* The user's flags restricted to parameters 0 .. nlast-1. */
static int allow_first_parameters(const int saved[12], int nlast)
{
    for (int j = 0; j < 12; j++) AlignAid.Adjust[j] = j < nlast ? saved[j] : 0;
    return any_allowed();
}

static void halve_sub_sampling(void)
{
    AlignAid.SubSampleSetting.x = AlignAid.SubSample.x / 2 > 1 ? AlignAid.SubSample.x / 2 : 1;
    AlignAid.SubSampleSetting.y = AlignAid.SubSample.y / 2 > 1 ? AlignAid.SubSample.y / 2 : 1;
    AlignAid.SubSampleSetting.z = AlignAid.SubSample.z / 2 > 1 ? AlignAid.SubSample.z / 2 : 1;
}

void action_auto_adjust_affine(int button)
{
    static int first_call = 1;

    if (!any_allowed()) {
        printf("No parameter is allowed to change: automatic alignment not started.\n");
        fflush(stdout);
        return;
    }
    if (AlignAid.DisplaySet != 1) {
        AlignAid.DisplaySet = 1;
        update_display_set();
        show_alignment_info();
    }
    if (AlignAid.smooth_fov_fraction == 0) printf("\nThe rolloff filter is not applied. Is this a mistake??\n");

    if (first_call) {
        if (mosaic.toggle_overlays != 0 && ovl_root.npts > 0) {
            printf("\nApply the overlay filter to remove extra-cerebral tissue.\n");
            action_filter_overlay();
        } else {
            printf("An overlay is not active.\n");
            printf("This is OK if the template has already been skull-stripped.\n");
            printf("Otherwise, use a brain overlay before this step.\n");
        }
        fflush(stdout);
        int saved[12];
        for (int j = 0; j < 12; j++) saved[j] = AlignAid.Adjust[j];

        /* Stage A: translations at the coarsest resolution */
        if (allow_first_parameters(saved, 3)) {
            IPOINT3D s = AlignAid.SubSampleSetting;
            if (button == 1 && s.x * s.y * s.z != 1) action_change_resolution();
            auto_adjust_affine_iterations(0, 3, 3);
        }
        /* Stage B: translations and rotations, then at half the sub-sampling */
        if (allow_first_parameters(saved, 6)) {
            IPOINT3D s = AlignAid.SubSample;
            if (button == 1 && s.x * s.y * s.z != 1) {
                auto_adjust_affine_iterations(0, 3, 1);
                halve_sub_sampling();
                action_change_resolution();
                auto_adjust_affine_iterations(0, 2, 1);
            } else {
                auto_adjust_affine_iterations(0, 3, 1);
            }
        }
        /* Stage C: the inflations join */
        if (allow_first_parameters(saved, 9)) auto_adjust_affine_iterations(0, 2, 2);

        for (int j = 0; j < 12; j++) AlignAid.Adjust[j] = saved[j];
        first_call = 0;
    }

    AlignAid.iParameter = first_allowed_parameter();
    if (button == 1) {
        action_change_resolution();
        auto_adjust_affine_iterations(0, 2, 2);
        IPOINT3D s = AlignAid.SubSample;
        if (s.x != 1 || s.y != 1 || s.z != 1) {
            halve_sub_sampling();
            action_change_resolution();
        }
    }
    auto_adjust_affine_iterations(0, 1, 1);

    print_parameter_set(2, 0);
    update_alignment(1);
    show_on_info_line("done", "", "");
    printf("done\n");
    fflush(stdout);
}
