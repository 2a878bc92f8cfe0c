/* The automatic non-linear alignment: coarse-to-fine grid levels, passes over the coefficients,
   the one-coefficient line scan with fold rejection and the re-enabling of dropped coefficients.
   Reads and writes AlignNL (coefficients, steps, flags) and the maps through Set_AlignNL_Value;
   reads template_, AlignAid. Redraws through display_hooks. No X11. */
#include "nl_search.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "affine_search.h"
#include "align_model.h"
#include "display_hooks.h"
#include "globals.h"
#include "nl_cost.h"
#include "nl_model.h"
#include "panel_model.h"
#include "resample.h"
#include "similarity.h"

static void limit(int *v, int top)
{
    if (*v > top) *v = top;
}

/* The grid whose x count is g, with y and z counts giving cells as near cubic as the grid allows. */
static IPOINT3D grid_from_x(int g)
{
    IPOINT3D G;
    G.x = g;
    float w = template_.fov.x / (float)g;
    G.y = (int)rint(template_.fov.y / w);
    G.z = (int)rint(template_.fov.z / w);
    return G;
}

static void run_level(IPOINT3D grid, int ilevel, int with_update_alignment)
{
    AlignNL.BasisGrid = grid;
    update_nonlinear_alignment_parameters(1);
    if (with_update_alignment) update_alignment(0);
    show_alignment_info();
    auto_adjust_nonlinear_iterations(0, ilevel);
}

/* Button 1: the first use runs three levels from the finest grid (the coarsest with Lambda_reg 1),
   later uses run the current grid and the one twice as coarse. Any other button: level 1 on the
   current grid. Ends with "done". */
void action_auto_adjust_nonlinear(int button)
{
    static int first_use = 1;
    IPOINT3D dim = template_.dim;
    /* After a resolution change the boxes were laid out for the template's former dimensions:
       lay them out again (coefficients from the resampled maps) before any coefficient moves. */
    if (!nonlinear_grid_current()) update_nonlinear_alignment_parameters(0);
    if (button == 1 && first_use) {
        IPOINT3D G1 = grid_from_x((int)rint(template_.fov.x / (2 * template_.resolution.x)));
        IPOINT3D G2 = grid_from_x((int)(G1.x / 2.0));
        /* Deliberate: the coarsest grid is not limited to half the voxel counts (not observable
           after the run, so no unit test pins it). */
        IPOINT3D G3 = grid_from_x(G2.x / 2);
        limit(&G1.y, dim.y / 2);
        limit(&G2.y, dim.y / 2);
        limit(&G1.z, dim.z / 2);
        limit(&G2.z, dim.z / 2);
        int saved_lambda = AlignNL.Lambda_reg;
        AlignNL.Lambda_reg = 1;
        run_level(G3, 3, 1);
        AlignNL.Lambda_reg = saved_lambda;
        run_level(G2, 2, 1);
        AlignNL.Lambda_reg = saved_lambda;
        run_level(G1, 1, 1);
    } else if (button == 1) {
        int g = AlignNL.BasisGrid.x;
        IPOINT3D fine = grid_from_x(g);
        IPOINT3D coarse = grid_from_x(g / 2);
        limit(&fine.y, dim.y / 2);
        limit(&fine.z, dim.z / 2);
        limit(&coarse.y, dim.y / 2);
        limit(&coarse.z, dim.z / 2);
        run_level(coarse, 2, 0);
        run_level(fine, 1, 0);
    } else {
        auto_adjust_nonlinear_iterations(0, 1);
    }
    first_use = 0;
    update_alignment(1);
    show_on_info_line("done", "", "");
    printf("done\n");
    fflush(stdout);
}

static float level_tolerance(int ilevel)
{
    if (ilevel == 1) return 0.01f;
    if (ilevel == 2) return 0.05f;
    return 0.1f;
}

/* Passes at one grid level until a pass gains less than the level's tolerance times the
   similarity, or 10 passes; then the final fold summary. */
void auto_adjust_nonlinear_iterations(int icost, int ilevel)
{
    define_affine_matrix();
    if (AlignAid.DisplayType != 0) action_change_display_type(0);
    if (AlignAid.DisplaySet != 2) {
        AlignAid.DisplaySet = 2;
        update_display_set();
        show_alignment_info();
    }
    int NBasis = AlignNL.NBasis;
    for (int c = 0; c < 3 * NBasis; c++) AlignNL.Adjust3D[c] = 0;
    if (AlignNL.ViewBasis == 0) {
        for (int n = 0; n < NBasis; n++) {
            if (AlignNL.Adjust.x) AlignNL.Adjust3D[n] = 1;
            if (AlignNL.Adjust.y) AlignNL.Adjust3D[NBasis + n] = 1;
            if (AlignNL.Adjust.z) AlignNL.Adjust3D[2 * NBasis + n] = 1;
        }
    } else if (AlignNL.Adjust.x) {
        AlignNL.Adjust3D[AlignNL.iBasis] = 1;
    } else if (AlignNL.Adjust.y) {
        AlignNL.Adjust3D[NBasis + AlignNL.iBasis] = 1;
    } else {
        AlignNL.Adjust3D[2 * NBasis + AlignNL.iBasis] = 1;
    }
    AlignNL.Adjusted = AlignNL.Adjust;

    float cost_initial = cost_function_nonlinear(icost, 0);
    float s = cost_function(AlignAid.CostFunction);
    float tolerance = level_tolerance(ilevel);
    int converged = 0;
    for (int ipass = 0; ipass < 10 && !converged; ipass++) {
        adjust_nonlinear_1pass(ilevel, ipass, icost, cost_initial);
        float cost_final = cost_function_nonlinear(icost, 0);
        if (cost_final - cost_initial < tolerance * s) converged = 1;
        s = cost_function(AlignAid.CostFunction);
        cost_initial = cost_final;
    }
    int nbad = number_invalid_distortions(1, ilevel, -1);
    if (nbad != 0) {
        printf("There are %d bad links in x, y, or z\n", nbad);
        printf("Increase rigidity & repeat.\n");
        fflush(stdout);
    }
}

static int adjusted_components(void)
{
    return (AlignNL.Adjust.x != 0) + (AlignNL.Adjust.y != 0) + (AlignNL.Adjust.z != 0);
}

static void enable_adjusted_coefficients(int n)
{
    int NBasis = AlignNL.NBasis;
    if (AlignNL.Adjust.x) AlignNL.Adjust3D[n] = 1;
    if (AlignNL.Adjust.y) AlignNL.Adjust3D[NBasis + n] = 1;
    if (AlignNL.Adjust.z) AlignNL.Adjust3D[2 * NBasis + n] = 1;
}

/* One sweep over the enabled coefficients, each line-scanned from the cost the previous one left;
   a coefficient that did not move (by a tenth of a voxel) is dropped from later passes. */
void adjust_nonlinear_1pass(int ilevel, int ipass, int icost, float cost_start)
{
    int NBasis = AlignNL.NBasis;
    int NCoeff = NBasis * adjusted_components();
    int interval = NCoeff < 1000 ? 10 : NCoeff < 10000 ? 100 : NCoeff < 100000 ? 1000 : 5000;

    int nbad = number_invalid_distortions(1, ilevel, ipass);
    if (nbad != 0 && ilevel == 1)
        for (int n = 0; n < NBasis; n++) enable_adjusted_coefficients(n);

    char text1[1024], text2[1024], text3[1024];
    if (icost == 0)
        snprintf(text1, sizeof text1, "MI = %5.3f            , level #%d, bad links = %d",
                 cost_function(AlignAid.CostFunction), ilevel, nbad);
    else
        snprintf(text1, sizeof text1, "normalized correlation, level %d", ilevel);

    float cost = cost_start;
    int j = 0;
    for (AlignNL.iCoeff = 0; AlignNL.iCoeff < 3 * NBasis; AlignNL.iCoeff++) {
        int c = AlignNL.iCoeff;
        if (AlignNL.Adjust3D[c] == 0) continue;
        if (j % interval == 0) {
            snprintf(text2, sizeof text2, "coefficients: %7d ,  pass #%d", NCoeff, ipass + 1);
            snprintf(text3, sizeof text3, "coefficent  : %7d", j);
            show_on_info_line(text1, text2, text3);
        }
        float r;
        if (c < NBasis) {
            AlignNL.iBasis = c;
            r = template_.resolution.x;
        } else if (c < 2 * NBasis) {
            AlignNL.iBasis = c - NBasis;
            r = template_.resolution.y;
        } else {
            AlignNL.iBasis = c - 2 * NBasis;
            r = template_.resolution.z;
        }
        float old_value = AlignNL.value[c];
        int moved = line_scan_1d_nonlinear(cost, icost);
        if (moved == 0 || fabs(AlignNL.value[c] - old_value) < r / 10) AlignNL.Adjust3D[c] = 0;
        cost = cost_function_nonlinear(icost, 3);
        j++;
    }

    adjust_the_adjust_flags(icost);
    transform_coordinates(1, 0);
    show_alignment_info();
    update_image_selectable_text();
    draw_selectable_text_image();
    build_image_display(0);
}

/* A trial folds when the box was free of bad voxels at the start and is no longer. */
static int folds(int b0)
{
    return b0 == 0 && number_invalid_distortions(0, 0, 0) != 0;
}

/* Line search of coefficient AlignNL.iCoeff (basis AlignNL.iBasis) from cost_initial, the cost at
   its present value. Returns 1 when it was moved to a better value, 0 when it was left or put
   back. Rejections (fold, no gain after the fit) halve the coefficient's step.
   Deliberate: when a probe ties with the middle, the coefficient stays at value + h (the last
   value set) and 0 is returned. Pinned by
   LineScan1dNonlinear.TiedProbesLeaveValuePlusStepAndDropTheCoefficient. */
int line_scan_1d_nonlinear(float cost_initial, int icost)
{
    int c = AlignNL.iCoeff;
    float h = AlignNL.increment[c];
    int b0 = number_invalid_distortions(0, 0, 0);
    float value_initial = AlignNL.value[c];
    cost_function_nonlinear(icost, 1);

    float X[3] = {value_initial - h, value_initial, value_initial + h};
    Set_AlignNL_Value(c, X[0]);
    float cost0 = cost_function_nonlinear(icost, 2);
    Set_AlignNL_Value(c, X[2]);
    float cost2 = cost_function_nonlinear(icost, 2);
    float Y[3] = {cost0, cost_initial, cost2};
    float xbest, ybest;

    if (cost_initial > cost0 && cost_initial > cost2) {
        ParabolicInterpolation(X, Y, &xbest, &ybest);
        if (std::isnan(xbest) || std::isnan(ybest)) {
            printf("NAN instance 1\n");
            fflush(stdout);
            exit(1);
        }
        Set_AlignNL_Value(c, xbest);
        if (folds(b0)) {
            Set_AlignNL_Value(c, value_initial);
            AlignNL.increment[c] = h / 2;
            return 0;
        }
        float cost = cost_function_nonlinear(icost, 2);
        if (cost > cost_initial) {
            AlignNL.increment[c] = h / 2;
            return 1;
        }
        Set_AlignNL_Value(c, value_initial);
        return 0;
    }

    if (cost_initial == cost0 || cost_initial == cost2) {
        if (folds(b0)) {
            Set_AlignNL_Value(c, value_initial);
            AlignNL.increment[c] = h / 2;
        }
        return 0;
    }

    int sign;
    if (cost0 > cost_initial)
        sign = -1;
    else if (cost2 > cost_initial)
        sign = 1;
    else {
        printf("Programming or memory error in line_scan_1d_nonlinear\n");
        printf("X3Point = (%g %g %g), Y3Point = (%g %g %g)\n", X[0], X[1], X[2], Y[0], Y[1], Y[2]);
        fflush(stdout);
        exit(1);
    }

    float value = sign < 0 ? X[0] : X[2];
    float cost_best = sign < 0 ? cost0 : cost2;
    Set_AlignNL_Value(c, value);
    if (folds(b0)) {
        Set_AlignNL_Value(c, value_initial);
        AlignNL.increment[c] = h / 2;
        return 0;
    }
    if ((cost_best - cost_initial) / cost_best < 1e-5) return 1;

    float cost_previous = cost_best;
    for (int step = 0; step < 10; step++) {
        value += sign * h;
        Set_AlignNL_Value(c, value);
        float cost = cost_function_nonlinear(icost, 2);
        if (sign < 0) {
            X[2] = X[1]; X[1] = X[0]; X[0] = value;
            Y[2] = Y[1]; Y[1] = Y[0]; Y[0] = cost;
        } else if (sign > 0) {
            X[0] = X[1]; X[1] = X[2]; X[2] = value;
            Y[0] = Y[1]; Y[1] = Y[2]; Y[2] = cost;
        } else {
            printf("Programming error: sign == 0.\n");
            fflush(stdout);
            exit(1);
        }
        if (cost < cost_previous) break;
        cost_previous = cost;
    }

    ParabolicInterpolation(X, Y, &xbest, &ybest);
    if (std::isnan(xbest)) {
        Set_AlignNL_Value(c, value_initial);
        printf("NAN instance 2: (%g %g %g) and (%g %g %g)\n", X[0], X[1], X[2], Y[0], Y[1], Y[2]);
        fflush(stdout);
        exit(1);
    }
    Set_AlignNL_Value(c, xbest);
    if (folds(b0)) {
        Set_AlignNL_Value(c, value_initial);
        AlignNL.increment[c] = h / 2;
        return 0;
    }
    float cost = cost_function_nonlinear(icost, 2);
    if (!(cost > cost_initial)) {
        Set_AlignNL_Value(c, value_initial);
        return 0;
    }
    return 1;
}

/* Re-enables the dropped coefficients of every basis whose box is rough (its penalty above 2^k
   times the average per basis, k the number of optimised components) or holds folded voxels.
   Prints the percentages ignored and reinstated. The cost code is not used. */
void adjust_the_adjust_flags(int icost)
{
    (void)icost;
    int NBasis = AlignNL.NBasis;
    int k = adjusted_components();
    float total = cost_deformation(0, 0);
    float ignored = 0.0f, reinstated = 0.0f;
    int comp_adjust[3] = {AlignNL.Adjust.x, AlignNL.Adjust.y, AlignNL.Adjust.z};
    for (int n = 0; n < NBasis; n++) {
        int off = 0;
        for (int a = 0; a < 3; a++)
            if (comp_adjust[a] && AlignNL.Adjust3D[a * NBasis + n] == 0) off++;
        if (off == 0) continue;
        ignored += off;
        AlignNL.iBasis = n;
        float local = cost_deformation(4, 0);
        if (pow(2.0, k) * total / NBasis < local || number_invalid_distortions(0, 0, 0) != 0) {
            for (int a = 0; a < 3; a++)
                if (comp_adjust[a]) {
                    AlignNL.Adjust3D[a * NBasis + n] = 1;
                    reinstated += 1;
                }
        }
    }
    printf("Percent ignored %g, Percent reinstated = %g\n", ignored * 100 / (float)(NBasis * k),
           reinstated * 100 / (float)(NBasis * k));
    fflush(stdout);
}
