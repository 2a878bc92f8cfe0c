/* The state side of the alignment control panel: the display type, the overlay filter and the
   rolloff setting. Each changes the records first and then asks the display to redraw through
   display_hooks. Reads and writes AlignAid, the working volumes and the overlay map. No X11. */
#include "panel_model.h"

#include <cstdio>

#include "align_model.h"
#include "display_hooks.h"
#include "display_model.h"
#include "filters.h"
#include "globals.h"
#include "overlay_ops.h"
#include "resample.h"

/* step 1: next type (5 wraps to 0); -1: previous (0 wraps to 5); 0: 0 and 1 swap, any other
   type returns to 0. Then the display is re-pointed and the image and the graph rebuilt. */
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
