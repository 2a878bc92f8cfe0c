/* Installs the X11 drawing routines into DisplayHooks, so that the engines' redraw requests
   reach the window. Xlib through the drawing files. */
#include "display_hooks.h"
#include "globals.h"
#include "panel_model.h"
#include "x11_display.h"
#include "x11_globals.h"

void build_image_display_x11(int show_info_line);
void refresh_display_image_x11(void);
void draw_selectable_text_image_x11(void);
void show_on_info_line_x11(const char *a, const char *b, const char *c);
void update_graph_data_x11(int a, int b);
void build_graph_display_x11(int a);
void fill_graph_vector_x11(int a);

static void show_alignment_info_x11(void) { draw_right_panel(); }

static void update_image_and_graph_x11(int show_info_line)
{
    build_image_display_x11(show_info_line);
    update_graph_data_x11(0, 1);
}

static void update_XWindow_image_x11(void)
{
    make_XWindow_image();
    create_colorbar();
    build_image_display_x11(1);
}

static void show_alignment_help_text_x11(void)
{
    if (!(mosaic.cursor_selection & 32)) return;
    show_on_info_line_x11("panel: Up/Down select, Left/Right change,", "Tab value/increment,",
                          "x adjust flag, buttons: next/previous set");
}

/* The rolloff item of the setup set asks for n on the information line (digits only). */
static int rolloff_prompt_x11(const char *deflt, char *answer)
{
    return get_X11_string(0, "Input n", "(Flatten by FOV/n)", deflt, 2, 1, answer);
}

void install_x11_display_hooks(void)
{
    panel_rolloff_prompt = rolloff_prompt_x11;
    DisplayHooks.refresh_display_image = refresh_display_image_x11;
    DisplayHooks.show_alignment_info = show_alignment_info_x11;
    DisplayHooks.build_image_display = build_image_display_x11;
    DisplayHooks.show_on_info_line = show_on_info_line_x11;
    DisplayHooks.update_image_and_graph = update_image_and_graph_x11;
    DisplayHooks.draw_selectable_text_image = draw_selectable_text_image_x11;
    DisplayHooks.update_image_selectable_text = draw_selectable_text_image_x11;
    DisplayHooks.update_graph_data = update_graph_data_x11;
    DisplayHooks.build_graph_display = build_graph_display_x11;
    DisplayHooks.fill_graph_vector = fill_graph_vector_x11;
    DisplayHooks.update_XWindow_image = update_XWindow_image_x11;
    DisplayHooks.show_alignment_help_text = show_alignment_help_text_x11;
}
