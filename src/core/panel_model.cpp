/* The state side of the alignment control panel: its rows and labels, selection and value rules
   of the three sets, the display type, the overlay filter, the rolloff setting, reset/recall and
   the full alignment. Each changes the records first and then asks the display to redraw through
   display_hooks. Reads and writes AlignAid, the working volumes and the overlay map. No X11. */
#include "panel_model.h"

#include <cmath>
#include <cstdio>

#include "affine_search.h"
#include "align_model.h"
#include "display_hooks.h"
#include "display_model.h"
#include "filters.h"
#include "globals.h"
#include "nl_model.h"
#include "nl_search.h"
#include "overlay_ops.h"
#include "prepare.h"
#include "resample.h"

void action_change_display_type(int step)
{
    rescale_image_settings();
    if (step == 1)
        AlignAid.DisplayType = AlignAid.DisplayType >= 5 ? 0 : AlignAid.DisplayType + 1;
    else if (step == -1)
        AlignAid.DisplayType = AlignAid.DisplayType <= 0 ? 5 : AlignAid.DisplayType - 1;
    else
        AlignAid.DisplayType = AlignAid.DisplayType == 0 ? 1 : 0;
    point_mosaic_to_stack_data();
    /* The fields and the basis image share one remembered grey window, empty until one of
       them is first shown: an empty window is filled from the range of the image shown. */
    if (AlignAid.DisplayType >= 2 && AlignAid.DisplayType <= 5 && !(distort_scale_max > distort_scale_min)) {
        rescale_image(1);
        rescale_image_settings();
    }
    update_XWindow_image();
    fill_graph_vector(0);
    build_graph_display(1);
}

/* After the working volumes changed: rescale the images of display types 0 and 1 in turn and
   come back to the type shown before. */
static void rescale_both_display_types(void)
{
    rescale_image_settings();
    int shown = AlignAid.DisplayType;
    for (int type = 0; type <= 1; type++) {
        AlignAid.DisplayType = type;
        point_mosaic_to_stack_data();
        rescale_image(1);
        rescale_image_settings();
    }
    AlignAid.DisplayType = shown;
    point_mosaic_to_stack_data();
}

/* The overlay map becomes the alignment mask over the unfiltered template: 1 where the overlay
   weight is non-zero, 0 elsewhere; an empty overlay therefore removes the filter. */
void action_filter_overlay(void)
{
    int n = template_unfiltered.n3d;
    AlignAid.nmask = 0;
    for (int i = 0; i < n; i++) {
        int inside = overlay_map.weight != NULL && overlay_map.weight[i] != 0.0f;
        AlignAid.mask[i] = inside ? 1.0f : 0.0f;
        if (inside) AlignAid.nmask++;
    }
    filter_image_data();
    transform_coordinates(1, 0);
    rescale_both_display_types();
    action_clear_overlay();
    build_image_display(1);
}

void action_reduce_rolloff_with(int (*prompt)(const char *deflt, char *answer))
{
    if (prompt != NULL) {
        char answer[1024];
        if (prompt(AlignAid.smooth_fov_fraction == 0 ? "04" : "0", answer) == 1) {
            int n;
            if (sscanf(answer, "%d", &n) == 1) AlignAid.smooth_fov_fraction = n;
        }
    } else {
        AlignAid.smooth_fov_fraction = AlignAid.smooth_fov_fraction == 0 ? 4 : 0;
    }
    filter_image_data();
    transform_coordinates(1, 0);
    rescale_both_display_types();
    build_image_display(1);
}

int (*panel_rolloff_prompt)(const char *deflt, char *answer) = NULL;

void action_reduce_rolloff(int PromptForScale)
{
    action_reduce_rolloff_with(PromptForScale ? panel_rolloff_prompt : NULL);
}

/* ---- rows and labels ---- */

/* Row layout of set 0 with a tall image area (17 rows); the short layout (15 rows) drops the
   two parity rows 4 and 5. -1 marks a heading, a parity line or an empty row. */
static const int set0_tall_rows[17] = {0, 1, 2, 3, -1, -1, -1, -1, 4, 5, -1, -1, 6, 7, 8, -1, 9};
static const int set0_short_rows[15] = {0, 1, 2, 3, -1, -1, 4, 5, -1, -1, 6, 7, 8, -1, 9};
static const int set2_rows[17] = {-1, 0, 1, 2, -1, 3, 4, 5, -1, -1, -1, 6, -1, 7, -1, 8, -1};

/* The requested down-sampling differs from the one in use in some axis. */
static int subsampling_changed(void)
{
    return AlignAid.SubSampleSetting.x != AlignAid.SubSample.x || AlignAid.SubSampleSetting.y != AlignAid.SubSample.y ||
           AlignAid.SubSampleSetting.z != AlignAid.SubSample.z;
}

static int parity_rows_shown(void) { return mosaic.ImageRegionPixels.y > 200; }

static int set0_row_count(void) { return mosaic.ImageRegionPixels.y < 200 ? 15 : 17; }

int panel_row_item(int row)
{
    if (row < 0) return -1;
    switch (AlignAid.DisplaySet) {
    case 0:
        if (set0_row_count() == 17) return row < 17 ? set0_tall_rows[row] : -1;
        return row < 15 ? set0_short_rows[row] : -1;
    case 1:
        return AlignAid.iFirstParShown + row <= AlignAid.iLastParShown ? AlignAid.iFirstParShown + row : -1;
    case 2:
        return row < 17 ? set2_rows[row] : -1;
    default:
        return -1;
    }
}

/* Text of a row of set 0 that carries no item: headings and the parity lines. With 17 rows
   in a 200-pixel area the parity rows stay empty (the lines need a taller area). */
static int set0_fixed_text(int row, char *buf)
{
    int tall = set0_row_count() == 17;
    int filters = tall ? 7 : 5, sampling = tall ? 11 : 9;
    if (tall && (row == 4 || row == 5)) {
        if (!parity_rows_shown()) return 0;
        if (row == 4) snprintf(buf, 1024, "%s", Alignment.OrientSwapZ ? "swaps parity" : "conserves parity");
        else snprintf(buf, 1024, "%s", Alignment.OrientSwapZ ? "RHC <--> LHC" : "RHC <--> RHC");
        return 1;
    }
    if (row == filters) { snprintf(buf, 1024, "Filters:"); return 1; }
    if (row == sampling) { snprintf(buf, 1024, "Down-sampling"); return 1; }
    return 0;
}

static int set0_item_text(int item, char *buf)
{
    static const char axis_name[3] = {'x', 'y', 'z'};
    const int rot[3] = {Alignment.OrientRotation.x, Alignment.OrientRotation.y, Alignment.OrientRotation.z};
    const int sub[3] = {AlignAid.SubSampleSetting.x, AlignAid.SubSampleSetting.y, AlignAid.SubSampleSetting.z};
    switch (item) {
    case 0: case 1: case 2:
        snprintf(buf, 1024, "Rot. %c  %d", axis_name[item], rot[item] * 90);
        return 1;
    case 3:
        snprintf(buf, 1024, "%s", Alignment.OrientSwapZ ? "Swap z: Yes" : "Swap z: No");
        return 1;
    case 4:
        snprintf(buf, 1024, "rolloff %d", AlignAid.smooth_fov_fraction);
        return 1;
    case 5:
        snprintf(buf, 1024, "overlay");
        return 1;
    case 6: case 7: case 8:
        snprintf(buf, 1024, " %c    %d", axis_name[item - 6], sub[item - 6]);
        return 1;
    case 9:
        if (!subsampling_changed()) return 0;
        snprintf(buf, 1024, "change res.");
        return 1;
    default:
        return 0;
    }
}

static const char *mark(int flag) { return flag ? "x " : "  "; }

static int set1_item_text(int item, char *buf)
{
    if (item < 0 || item > 11) return 0;
    if (item == AlignAid.iParameter && !AlignAid.ChangeValue)
        snprintf(buf, 1024, "%sincrement %g", mark(AlignAid.Adjust[item]), (double)AlignAid.increment[item]);
    else
        snprintf(buf, 1024, "%s%s %6.2f", mark(AlignAid.Adjust[item]), AlignAid.name[item], (double)Alignment.value[item]);
    return 1;
}

/* The five positions of the stiffness scale, "X" at the nearest quarter. */
static void stiffness_scale(char *buf)
{
    int at = (int)rint(AlignNL.stiffness * 4.0f);
    if (at < 0) at = 0;
    if (at > 4) at = 4;
    char *p = buf;
    for (int k = 0; k < 5; k++) {
        if (k > 0) { *p++ = ' '; *p++ = ' '; }
        *p++ = k == at ? 'X' : '-';
    }
    *p = '\0';
}

static int set2_row_text(int row, char *buf)
{
    switch (row) {
    case 0: snprintf(buf, 1024, "Nonlinear fields"); return 1;
    case 1: snprintf(buf, 1024, "%sX Field", mark(AlignNL.Adjust.x)); return 1;
    case 2: snprintf(buf, 1024, "%sY Field", mark(AlignNL.Adjust.y)); return 1;
    case 3: snprintf(buf, 1024, "%sZ Field", mark(AlignNL.Adjust.z)); return 1;
    case 4: snprintf(buf, 1024, "Basis Grid"); return 1;
    case 5: snprintf(buf, 1024, "  X  %d", AlignNL.BasisGrid.x); return 1;
    case 6: snprintf(buf, 1024, "  Y  %d", AlignNL.BasisGrid.y); return 1;
    case 7: snprintf(buf, 1024, "  Z  %d", AlignNL.BasisGrid.z); return 1;
    case 8: snprintf(buf, 1024, "FWHM (mm)"); return 1;
    case 9:
        snprintf(buf, 1024, "%5.2g %5.2g %5.2g", (double)(template_.resolution.x * (float)AlignNL.BasisFWHM.x),
                 (double)(template_.resolution.y * (float)AlignNL.BasisFWHM.y),
                 (double)(template_.resolution.z * (float)AlignNL.BasisFWHM.z));
        return 1;
    case 10: snprintf(buf, 1024, "View basis"); return 1;
    case 11: snprintf(buf, 1024, "%s %d / %d ", mark(AlignNL.ViewBasis), AlignNL.iBasis, AlignNL.NBasis); return 1;
    case 12: snprintf(buf, 1024, "Regularization"); return 1;
    case 13: snprintf(buf, 1024, " Rigidity  %d ", AlignNL.Lambda_reg); return 1;
    case 14: snprintf(buf, 1024, "smooth<->stiff"); return 1;
    case 15: stiffness_scale(buf); return 1;
    default: return 0;
    }
}

int panel_item_text(int item, char *buf)
{
    buf[0] = '\0';
    switch (AlignAid.DisplaySet) {
    case 0: {
        int it = panel_row_item(item);
        return it >= 0 ? set0_item_text(it, buf) : set0_fixed_text(item, buf);
    }
    case 1:
        return set1_item_text(item, buf);
    case 2:
        return set2_row_text(item, buf);
    default:
        return 0;
    }
}

const char *panel_heading(void)
{
    switch (AlignAid.DisplaySet) {
    case 0: return "  Setup  ";
    case 1: return Alignment.RigidBody ? " Affine " : "deck-of-cards";
    case 2: return "Non-linear";
    default: return "";
    }
}

/* ---- set and item selection ---- */

static void redraw_panel_and_menus(void)
{
    show_alignment_info();
    draw_selectable_text_image();
}

void panel_change_set(int forward)
{
    if (forward) AlignAid.DisplaySet = AlignAid.DisplaySet >= 2 ? 0 : AlignAid.DisplaySet + 1;
    else AlignAid.DisplaySet = AlignAid.DisplaySet <= 0 ? 2 : AlignAid.DisplaySet - 1;
    update_display_set();
    AlignAid.iParameter = AlignAid.iFirstParShown;
    draw_selectable_text_image();
    show_alignment_info();
    show_alignment_help_text();
}

/* Items of set 0 that cannot be chosen in the present state. */
static int set0_item_skipped(int item)
{
    if (item == 4) return AlignAid.LowResolution;
    if (item == 5) return AlignAid.LowResolution || ovl_root.npts == AlignAid.nmask;
    if (item == 9) return !subsampling_changed();
    return 0;
}

void panel_select_item(int up)
{
    int first = AlignAid.iFirstParShown, last = AlignAid.iLastParShown;
    if (last < first) return;
    int item = AlignAid.iParameter;
    for (int tries = 0; tries <= last - first; tries++) {
        if (up) item = item <= first ? last : item - 1;
        else item = item >= last ? first : item + 1;
        if (AlignAid.DisplaySet != 0 || !set0_item_skipped(item)) break;
    }
    AlignAid.iParameter = item;
    show_alignment_info();
    show_alignment_help_text();
}

/* ---- value changes ---- */

static int quarter_turn(int r, int left)
{
    if (left) return r <= -1 ? 2 : r - 1;
    return r >= 2 ? -1 : r + 1;
}

static int clamp_int(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }

static void change_subsampling(int item, int left)
{
    int *axis = item == 6 ? &AlignAid.SubSampleSetting.x
                          : (item == 7 ? &AlignAid.SubSampleSetting.y : &AlignAid.SubSampleSetting.z);
    int v = clamp_int(*axis + (left ? -1 : 1), 1, 8);
    *axis = v;
    if (item != 6) return;
    float rx = template_unfiltered.resolution.x;
    int y = (int)rint((float)v * rx / template_unfiltered.resolution.y);
    int z = (int)rint((float)v * rx / template_unfiltered.resolution.z);
    AlignAid.SubSampleSetting.y = y > 1 ? y : 1;
    AlignAid.SubSampleSetting.z = z > 1 ? z : 1;
}

static void change_set0(int item, int left)
{
    if (item <= 3 && AlignAid.DisplayType != 0) action_change_display_type(0);
    switch (item) {
    case 0: Alignment.OrientRotation.x = quarter_turn(Alignment.OrientRotation.x, left); break;
    case 1: Alignment.OrientRotation.y = quarter_turn(Alignment.OrientRotation.y, left); break;
    case 2: Alignment.OrientRotation.z = quarter_turn(Alignment.OrientRotation.z, left); break;
    case 3: Alignment.OrientSwapZ = !Alignment.OrientSwapZ; break;
    case 4: action_reduce_rolloff(1); break;
    case 5: action_filter_overlay(); break;
    case 6: case 7: case 8: change_subsampling(item, left); break;
    case 9: action_change_resolution(); break;
    default: break;
    }
    if (item <= 3) {
        calculate_orientation_rotation();
        update_alignment(0);
    }
}

/* Step of the increment of parameter i: rotations, translations, then scales and shears. */
static float increment_step(int i)
{
    if (i <= 2) return 0.025f;
    if (i <= 5) return 0.25f;
    if (i <= 11) return 0.005f;
    return 0.0f;
}

static void change_set1(int i, int left)
{
    if (i < 0 || i > 11) return;
    if (AlignAid.ChangeValue) {
        if (AlignAid.DisplayType != 0) action_change_display_type(0);
        if (left) Alignment.value[i] -= AlignAid.increment[i];
        else Alignment.value[i] += AlignAid.increment[i];
        AlignAid.Adjust[i] = 1;
        update_alignment(0);
        return;
    }
    float step = increment_step(i);
    if (left) AlignAid.increment[i] -= step;
    else AlignAid.increment[i] += step;
    if (AlignAid.increment[i] <= 0.0f) AlignAid.increment[i] = step;
}

/* Basis grid of one axis from its spacing doubled or halved. */
static int grid_from_spacing(int n, int grid, int left)
{
    int s = (int)rint((double)n / (double)(grid > 0 ? grid : 1));
    s = left ? s * 2 : s / 2;
    return clamp_int(n / (s > 1 ? s : 1), 4, n);
}

static void change_basis_grid(int item, int left)
{
    const data_stack *t = &template_;
    if (item == 3) {
        AlignNL.BasisGrid.x = grid_from_spacing(t->dim.x, AlignNL.BasisGrid.x, left);
        float d = t->fov.x / (float)AlignNL.BasisGrid.x;
        AlignNL.BasisGrid.y = clamp_int((int)rint(t->fov.y / d), 4, t->dim.y);
        AlignNL.BasisGrid.z = clamp_int((int)rint(t->fov.z / d), 4, t->dim.z);
    } else if (item == 4) {
        AlignNL.BasisGrid.y = grid_from_spacing(t->dim.y, AlignNL.BasisGrid.y, left);
    } else {
        AlignNL.BasisGrid.z = grid_from_spacing(t->dim.z, AlignNL.BasisGrid.z, left);
    }
    update_nonlinear_alignment_parameters(1);
}

static void change_set2(int item, int left)
{
    switch (item) {
    case 0: AlignNL.Adjust.x = !AlignNL.Adjust.x; break;
    case 1: AlignNL.Adjust.y = !AlignNL.Adjust.y; break;
    case 2: AlignNL.Adjust.z = !AlignNL.Adjust.z; break;
    case 3: case 4: case 5: change_basis_grid(item, left); break;
    case 6:
        if (AlignNL.NBasis <= 0) break;
        if (left) AlignNL.iBasis = AlignNL.iBasis <= 0 ? AlignNL.NBasis - 1 : AlignNL.iBasis - 1;
        else AlignNL.iBasis = AlignNL.iBasis >= AlignNL.NBasis - 1 ? 0 : AlignNL.iBasis + 1;
        if (AlignNL.ViewBasis && AlignAid.DisplayType == 5) {
            create_basis_function_image();
            build_image_display(1);
        }
        break;
    case 7:
        /* Deliberate: 1 rises straight to 5 so that the rigidity runs 1, 5, 10, 15 ...
           Pinned by Panel.RigidityRunsOneFiveTenAndStiffnessClamps. */
        if (left) AlignNL.Lambda_reg = AlignNL.Lambda_reg - 5 < 1 ? 1 : AlignNL.Lambda_reg - 5;
        else AlignNL.Lambda_reg = AlignNL.Lambda_reg == 1 ? 5 : AlignNL.Lambda_reg + 5;
        break;
    case 8: {
        float s = AlignNL.stiffness + (left ? -0.25f : 0.25f);
        AlignNL.stiffness = s < 0.0f ? 0.0f : (s > 1.0f ? 1.0f : s);
        break;
    }
    default: break;
    }
}

void panel_change_value(int left)
{
    int item = AlignAid.iParameter;
    if (AlignAid.DisplaySet == 0) change_set0(item, left);
    else if (AlignAid.DisplaySet == 1) change_set1(item, left);
    else if (AlignAid.DisplaySet == 2) change_set2(item, left);
    redraw_panel_and_menus();
}

void panel_toggle_adjust(void)
{
    int i = AlignAid.iParameter;
    if (AlignAid.DisplaySet == 1) {
        if (i >= 0 && i < 12) AlignAid.Adjust[i] = !AlignAid.Adjust[i];
    } else if (AlignAid.DisplaySet == 2) {
        if (i == 0) AlignNL.Adjust.x = !AlignNL.Adjust.x;
        else if (i == 1) AlignNL.Adjust.y = !AlignNL.Adjust.y;
        else if (i == 2) AlignNL.Adjust.z = !AlignNL.Adjust.z;
        else if (i == 6) AlignNL.ViewBasis = !AlignNL.ViewBasis;
    }
    redraw_panel_and_menus();
}

/* ---- reset or recall ---- */

/* True when the twelve values differ from the identity; a NaN counts as different. */
static int differs_from_identity(const float *v)
{
    for (int i = 0; i < 12; i++) {
        float identity = (i >= 6 && i <= 8) ? 1.0f : 0.0f;
        if (!(v[i] == identity)) return 1;
    }
    return 0;
}

/* Any non-zero value in half `half` (0 current, 1 saved) of the displacement volumes. */
static int displacement_half_nonzero(data_stack *s, int half)
{
    if (s->SpaceTime.fData == NULL || s->nt < 2) return 0;
    const float *p = s->SpaceTime.fData + (size_t)half * (size_t)s->n3d;
    for (int i = 0; i < s->n3d; i++)
        if (p[i] != 0.0f) return 1;
    return 0;
}

static void save_and_zero(data_stack *s)
{
    if (s->SpaceTime.fData == NULL || s->nt < 2) return;
    float *cur = s->SpaceTime.fData, *saved = cur + s->n3d;
    for (int i = 0; i < s->n3d; i++) {
        saved[i] = cur[i];
        cur[i] = 0.0f;
    }
}

static void restore_saved(data_stack *s)
{
    if (s->SpaceTime.fData == NULL || s->nt < 2) return;
    float *cur = s->SpaceTime.fData, *saved = cur + s->n3d;
    for (int i = 0; i < s->n3d; i++) cur[i] = saved[i];
}

void reset_or_recall_parameters(void)
{
    if (AlignAid.DisplaySet == 1) {
        if (differs_from_identity(Alignment.value)) {
            for (int i = 0; i < 12; i++) {
                AlignAid.saved_value[i] = Alignment.value[i];
                Alignment.value[i] = (i >= 6 && i <= 8) ? 1.0f : 0.0f;
            }
        } else if (differs_from_identity(AlignAid.saved_value)) {
            for (int i = 0; i < 12; i++) Alignment.value[i] = AlignAid.saved_value[i];
        } else {
            return;
        }
    } else if (AlignAid.DisplaySet == 2) {
        data_stack *d[3] = {&distort_x, &distort_y, &distort_z};
        int current = 0, saved = 0;
        for (int k = 0; k < 3; k++) {
            current |= displacement_half_nonzero(d[k], 0);
            saved |= displacement_half_nonzero(d[k], 1);
        }
        if (current) {
            for (int k = 0; k < 3; k++) save_and_zero(d[k]);
            save_and_zero(&distort_d);
            AlignNL.Adjusted.x = AlignNL.Adjusted.y = AlignNL.Adjusted.z = 0;
        } else if (saved) {
            for (int k = 0; k < 3; k++) restore_saved(d[k]);
            restore_saved(&distort_d);
            AlignNL.Adjusted.x = displacement_half_nonzero(&distort_x, 0);
            AlignNL.Adjusted.y = displacement_half_nonzero(&distort_y, 0);
            AlignNL.Adjusted.z = displacement_half_nonzero(&distort_z, 0);
        } else {
            return;
        }
    } else {
        return;
    }
    update_alignment(0);
    redraw_panel_and_menus();
}

/* ---- full alignment ---- */

void action_do_full_alignment(void)
{
    if (AlignAid.smooth_fov_fraction == 0) {
        printf("\nApply the rolloff filter\n");
        action_reduce_rolloff(0);
    }
    if (mosaic.toggle_overlays) {
        printf("\nApply the overlay filter to remove extra-cerebral tissue.\n");
        action_filter_overlay();
    } else {
        printf("An overlay is not active.\n");
        printf("This is OK if the template has already been skull-stripped.\n");
        printf("Otherwise, use a brain overlay before this step.\n");
    }
    int any_affine = 0;
    for (int i = 0; i < 12; i++) any_affine |= AlignAid.Adjust[i] != 0;
    if (any_affine) {
        printf("Perform affine alignment using all selected parameters.\n");
        action_auto_adjust_affine(2);
    } else {
        printf("No affine parameters are selected; skip affine alignment.\n");
    }
    if (mosaic.toggle_overlays && AlignAid.nmask > 0) {
        printf("Remove the overlay filter for non-linear alignment.\n");
        action_filter_overlay();
    }
    /* Deliberate: every affine parameter is marked for adjustment afterwards, whatever the
       user had chosen. Pinned by Panel.FullAlignmentWithNothingSelectedPrintsInOrder. */
    for (int i = 0; i < 12; i++) AlignAid.Adjust[i] = 1;
    if (!AlignNL.Adjust.x && !AlignNL.Adjust.y && !AlignNL.Adjust.z) return;
    printf("Perform non-linear alignment by adjusting: ");
    if (AlignNL.Adjust.x) printf("x ");
    if (AlignNL.Adjust.y) printf("y ");
    if (AlignNL.Adjust.z) printf("z ");
    printf("field(s).\n");
    action_auto_adjust_nonlinear(2);
    AlignNL.Adjusted.x = AlignNL.Adjusted.y = AlignNL.Adjusted.z = 1;
}
