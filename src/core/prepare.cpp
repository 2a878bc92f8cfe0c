/* The working volumes beside the two volumes read, the display's starting layout, and the
   change of the template grid between full and reduced resolution. Reads the unfiltered
   volumes and AlignAid; writes the working volumes, distort_*, NL_bases, Alignment geometry
   and mosaic. Redraws go through display_hooks. No X11. */
#include "prepare.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "align_model.h"
#include "display_hooks.h"
#include "display_model.h"
#include "filters.h"
#include "globals.h"
#include "numerics.h"
#include "overlay_ops.h"
#include "resample.h"
#include "volume.h"

/* `to` takes the header of `from` with nt time points, its own name and a fresh data array of
   n3d*nt floats, zeroed when `zero` is set. */
static void make_working_volume(data_stack *to, const data_stack *from, int nt, const char *name, int zero)
{
    *to = *from;
    to->next = NULL;
    to->nt = nt;
    to->n4d = to->n3d * nt;
    snprintf(to->name, sizeof to->name, "%s", name);
    to->SpaceTime.fData = float_vector(to->n3d * nt);
    if (zero) memset(to->SpaceTime.fData, 0, sizeof(float) * (size_t)to->n3d * (size_t)nt);
}

/* `to` takes the header of `from` but keeps its own data array and name. */
static void take_header_keep_data(data_stack *to, const data_stack *from)
{
    union SpaceTime data = to->SpaceTime;
    char name[1024];
    snprintf(name, sizeof name, "%s", to->name);
    *to = *from;
    to->SpaceTime = data;
    to->next = NULL;
    snprintf(to->name, sizeof to->name, "%s", name);
}

/* Creates the working volumes (original, template_, individual, NL_bases, distort_x/y/z/d;
   the last five zeroed), sets the display defaults (contrast 0..1, right panel width), points
   the display at template_ with number_panels panels (0: every slice; above the slice count:
   capped; negative: 4, with mosaic.negative_panels set), computes the display size, puts the
   crosshair and cursor at the centre voxel and sets up the overlay records. Start-up only. */
void initialize_mosaic_ovl(int number_panels)
{
    contrast_low = 0.0f;
    contrast_high = 1.0f;
    mosaic.drawing_overlay = 0;
    mosaic.nx_RightPanel = ALIGN_RIGHT_PANEL_WIDTH;

    make_working_volume(&original, &original_unfiltered, original_unfiltered.nt, "original", 0);
    make_working_volume(&template_, &template_unfiltered, template_unfiltered.nt, "template", 0);
    make_working_volume(&individual, &template_unfiltered, original_unfiltered.nt, "individual", 0);
    make_working_volume(&NL_bases, &template_, 1, "NL_bases", 1);
    make_working_volume(&distort_x, &template_, 2, "distort_x", 1);
    make_working_volume(&distort_y, &template_, 2, "distort_y", 1);
    make_working_volume(&distort_z, &template_, 2, "distort_z", 1);
    make_working_volume(&distort_d, &template_, 2, "distort_d", 1);

    mosaic.stack = &template_;
    mosaic.fSpaceMatrix = template_.SpaceTime.fData;
    mosaic.iTime = 0;
    mosaic.negative_panels = 0;
    if (number_panels >= 1)
        mosaic.DimPanels.z = number_panels < template_.dim.z ? number_panels : template_.dim.z;
    else if (number_panels < 0) {
        mosaic.DimPanels.z = 4;
        mosaic.negative_panels = 1;
    } else
        mosaic.DimPanels.z = template_.dim.z;

    compute_display_size(NULL);
    IPOINT3D centre = {template_.dim.x / 2, template_.dim.y / 2, template_.dim.z / 2};
    mosaic.icross = centre;
    mosaic.icursor = centre;

    initialize_overlay_records();
}

/* Brings the template grid and the displacement fields to the steps of
   AlignAid.SubSampleSetting (nothing when they equal AlignAid.SubSample): rebuilds the working
   volumes at full resolution, then down-samples template_ (or restores its own header and
   matrices at steps 1,1,1), updates Alignment's grid and centred matrices, re-points and
   resamples, and asks the display for a new window, panel and graph. */
void action_change_resolution(void)
{
    IPOINT3D want = AlignAid.SubSampleSetting, now = AlignAid.SubSample;
    if (want.x == now.x && want.y == now.y && want.z == now.z) return;

    AlignAid.LowResolution = (want.x == 1 && want.y == 1 && want.z == 1) ? 0 : 1;

    IPOINT3D full = template_unfiltered.dim;
    POINT3D res = template_unfiltered.resolution;
    Alignment.dimension = {full.x / want.x, full.y / want.y, full.z / want.z};
    /* A step above the template's size along an axis leaves it one voxel, not none. */
    if (Alignment.dimension.x < 1) Alignment.dimension.x = 1;
    if (Alignment.dimension.y < 1) Alignment.dimension.y = 1;
    if (Alignment.dimension.z < 1) Alignment.dimension.z = 1;
    Alignment.resolution.x = res.x * ((float)full.x / (float)Alignment.dimension.x);
    Alignment.resolution.y = res.y * ((float)full.y / (float)Alignment.dimension.y);
    Alignment.resolution.z = res.z * ((float)full.z / (float)Alignment.dimension.z);

    filter_image_data();

    take_header_keep_data(&template_, &template_unfiltered);
    if (AlignAid.LowResolution == 0) {
        template_.ijk_to_xyz = scale_and_shift_to_mat44(template_.resolution, template_.origin, template_.direction);
        template_.xyz_to_ijk = invert_mat44(template_.ijk_to_xyz);
    } else {
        downsample_stack(&template_, Alignment.dimension);
    }

    IPOINT3D grid = distort_x.dim, target = Alignment.dimension;
    if (grid.x != target.x || grid.y != target.y || grid.z != target.z) {
        downsample_stack(&distort_x, target);
        downsample_stack(&distort_y, target);
        downsample_stack(&distort_z, target);
        downsample_stack(&distort_d, target);
    }

    AlignAid.SubSample = AlignAid.SubSampleSetting;

    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);

    take_header_keep_data(&individual, &template_);
    individual.nt = original.nt;
    individual.n4d = individual.n3d * individual.nt;

    point_mosaic_to_stack_data();
    update_display_settings();
    transform_coordinates(1, 0);
    /* The template grid changed size, so the window is re-made around it. */
    update_XWindow_image();
    show_alignment_info();
    update_graph_data(0, 1);
}

/* Resamples every time point of the stack in place onto new_dim voxels with a Gaussian of FWHM
   equal to the size ratio per axis; the voxel size grows by that ratio, origin and directions
   stay. More than 5 time points print a progress line per time point. */
void downsample_stack(data_stack *stack, IPOINT3D new_dim)
{
    IPOINT3D old_dim = stack->dim;
    POINT3D old_res = stack->resolution;
    POINT3D s = {(float)old_dim.x / (float)new_dim.x, (float)old_dim.y / (float)new_dim.y,
                 (float)old_dim.z / (float)new_dim.z};
    POINT3D new_res = {s.x * old_res.x, s.y * old_res.y, s.z * old_res.z};
    IPOINT3D w = {(int)floor((double)s.x), (int)floor((double)s.y), (int)floor((double)s.z)};
    if (w.x < 1) w.x = 1;
    if (w.y < 1) w.y = 1;
    if (w.z < 1) w.z = 1;
    /* FWHM = s: sigma = 0.425 s in double, rounded once, as the resampling computes it */
    POINT3D sigma = {(float)(0.425 * (double)s.x), (float)(0.425 * (double)s.y), (float)(0.425 * (double)s.z)};

    int complex_data = stack->data_type != 0;
    int per_voxel = complex_data ? 2 : 1;
    int old_n3d = old_dim.x * old_dim.y * old_dim.z;
    int old_n2d = old_dim.x * old_dim.y;
    int new_n3d = new_dim.x * new_dim.y * new_dim.z;
    int nt = stack->nt;
    float *old_data = stack->SpaceTime.fData;
    float *new_data = float_vector(new_n3d * nt * per_voxel);

    POINT3D saved_origin = stack->origin, saved_direction = stack->direction;
    data_stack old_grid = *stack;
    stack->xyz_to_ijk = centered_xyz_to_ijk(old_grid);

    POINT3D ones = {1.0f, 1.0f, 1.0f};
    POINT3D centred_origin = {(1.0f - (float)new_dim.x) * new_res.x / 2.0f,
                              (1.0f - (float)new_dim.y) * new_res.y / 2.0f,
                              (1.0f - (float)new_dim.z) * new_res.z / 2.0f};
    stack->resolution = new_res;
    stack->origin = centred_origin;
    stack->direction = ones;
    stack->ijk_to_xyz = scale_and_shift_to_mat44(new_res, centred_origin, ones);

    for (int t = 0; t < nt; t++) {
        for (int k = 0; k < new_dim.z; k++)
            for (int j = 0; j < new_dim.y; j++)
                for (int i = 0; i < new_dim.x; i++) {
                    POINT3D p = apply_mat44(stack->ijk_to_xyz, (float)i, (float)j, (float)k);
                    POINT3D v = apply_mat44(stack->xyz_to_ijk, p.x, p.y, p.z);
                    int x0 = (int)floor((double)v.x) - w.x, x1 = (int)ceil((double)v.x) + w.x;
                    int y0 = (int)floor((double)v.y) - w.y, y1 = (int)ceil((double)v.y) + w.y;
                    int z0 = (int)floor((double)v.z) - w.z, z1 = (int)ceil((double)v.z) + w.z;
                    double sum = 0.0, sum_im = 0.0, weight_sum = 0.0;
                    for (int kz = z0; kz <= z1; kz++) {
                        if (kz < 0 || kz >= old_dim.z) continue;
                        float wz = Gauss(v.z - (float)kz, 0.0f, sigma.z);
                        for (int jy = y0; jy <= y1; jy++) {
                            if (jy < 0 || jy >= old_dim.y) continue;
                            float wy = Gauss(v.y - (float)jy, 0.0f, sigma.y);
                            for (int ix = x0; ix <= x1; ix++) {
                                if (ix < 0 || ix >= old_dim.x) continue;
                                float wx = Gauss(v.x - (float)ix, 0.0f, sigma.x);
                                float weight = wz * wx * wy;
                                int n = t * old_n3d + kz * old_n2d + jy * old_dim.x + ix;
                                if (complex_data) {
                                    sum += (double)weight * (double)old_data[2 * n];
                                    sum_im += (double)weight * (double)old_data[2 * n + 1];
                                } else {
                                    sum += (double)weight * (double)old_data[n];
                                }
                                weight_sum += (double)weight;
                            }
                        }
                    }
                    int m = t * new_n3d + k * new_dim.x * new_dim.y + j * new_dim.x + i;
                    if (complex_data) {
                        new_data[2 * m] = weight_sum == 0.0 ? 0.0f : (float)(sum / weight_sum);
                        new_data[2 * m + 1] = weight_sum == 0.0 ? 0.0f : (float)(sum_im / weight_sum);
                    } else {
                        new_data[m] = weight_sum == 0.0 ? 0.0f : (float)(sum / weight_sum);
                    }
                }
        if (nt > 5) {
            printf("\rFinished %d of %d time points for stack `%s'.", t + 1, nt, stack->name);
            fflush(stdout);
        }
    }
    if (nt > 5) printf("\n");

    stack->origin = saved_origin;
    stack->direction = saved_direction;
    stack->ijk_to_xyz = scale_and_shift_to_mat44(new_res, saved_origin, saved_direction);
    stack->xyz_to_ijk = invert_mat44(stack->ijk_to_xyz);
    stack->dim = new_dim;
    stack->n2d = new_dim.x * new_dim.y;
    stack->n3d = stack->n2d * new_dim.z;
    stack->n4d = stack->n3d * nt;
    stack->npts_volume = complex_data ? 2 * stack->n3d : stack->n3d;
    free_float_vector(old_data);
    stack->SpaceTime.fData = new_data;
}
