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
#include "globals.h"
#include "overlay_ops.h"
#include "persist.h"
#include "session.h"
#include "side_files.h"
#include "x11_display.h"

int run_startup_steps(int number_panels, int batch_mode, char *ovl_name, char *wire_name)
{
    /* the individual is always read before the template */
    if (read_session_volumes() != 0) return 1;
    prepare_session(number_panels);

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
        batch_affine_alignment();
        /* a save that failed has printed why and kept the previous files */
        return save_alignment_parameters() != 0 ? 1 : 0;
    }

    loop_X_events();
    return 1;
}
