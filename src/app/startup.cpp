/* The start-up of align after the options are parsed: read the individual and the template,
   prepare the working volumes and the alignment records, open the display, read the
   wire-frame and overlay lists, and then either run the batch alignment or the event loop.
   Reads the file lists filled by the options; writes every process-wide record. */
#include "startup.h"

#include <cstdio>

#include "affine_search.h"
#include "align_model.h"
#include "display_hooks.h"
#include "display_model.h"
#include "filters.h"
#include "globals.h"
#include "overlay_ops.h"
#include "persist.h"
#include "prepare.h"
#include "resample.h"
#include "side_files.h"
#include "volume.h"
#include "volume_load.h"
#include "x11_display.h"

int run_startup_steps(int number_panels, int batch_mode, char *ovl_name, char *wire_name)
{
    int nfiles = 0;

    /* the individual is always read before the template */
    if (individual_files.file_name[0] == '\0') {
        printf("Error: no files for the individual subject.\n");
        return 1;
    }
    printf("\n");
    if (read_SpaceTime_data(0, &original_unfiltered, &individual_files, &nfiles) != 0) return 1;

    if (template_files.file_name[0] == '\0') {
        printf("Error: no files for the template subject.\n");
        return 1;
    }
    printf("\n");
    if (read_SpaceTime_data(0, &template_unfiltered, &template_files, &nfiles) != 0) return 1;

    if (template_unfiltered.off_diagonal) {
        printf("Warning: the template file has voxel indices    (i,j,k)\n");
        printf("         that are not parallel with coordinates (x,y,z)\n.");
        printf("         When applying the transformation to image data using qor,\n");
        printf("         output file will have parallel voxels and coordinates.\n");
        printf("         Modify the template to make these parallel.\n");
    }

    initialize_mosaic_ovl(number_panels);
    initialize_alignment();

    /* the two ends of the chain template voxel -> individual voxel */
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_unfiltered);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);

    filter_image_data();
    transform_coordinates(1, 0);

    initialize_selectable_text();
    /* the grey window of both display types, the individual's (type 0) shown at the end */
    AlignAid.DisplayType = 1;
    point_mosaic_to_stack_data();
    rescale_image(1);
    rescale_image_settings();
    AlignAid.DisplayType = 0;
    point_mosaic_to_stack_data();
    rescale_image(1);
    rescale_image_settings();

    initialize_graph();
    initialize_XWindows();
    update_XWindow_image();
    show_alignment_info();
    update_graph_data(0, 1);

    if (wire_name[0] != '\0') {
        if (read_wire_list(wire_name) != 0) return 1;
        mosaic.toggle_overlays = 2;
    }
    if (ovl_name[0] != '\0') {
        if (read_overlay_list(ovl_name) != 0) return 1;
        mosaic.toggle_overlays = 1;
        action_step_overlay_list(1, 0);
        build_image_display(1);
    }

    if (batch_mode) {
        recall_alignment_parameters();
        calculate_orientation_rotation();
        update_alignment(0);
        AlignAid.iParameter = 0;
        AlignAid.DisplaySet = 1;
        show_alignment_info();
        auto_adjust_affine_iterations(0, 3, 1);
        /* a save that failed has printed why and kept the previous files */
        return save_alignment_parameters() != 0 ? 1 : 0;
    }

    loop_X_events();
    return 1;
}
