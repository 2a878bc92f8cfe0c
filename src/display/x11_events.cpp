/* The event loop of the image window: key translation, the common key and mouse tables, the
   program's own keys, the contrast drag, arrows and in/out, re-flow on resize, the slice
   selection and the context help. Reads and writes mosaic, contrast_low/high, AlignAid (through
   the panel rules). Xlib. */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "affine_search.h"
#include "align_model.h"
#include "display_hooks.h"
#include "display_model.h"
#include "draw_ops.h"
#include "draw_overlay.h"
#include "globals.h"
#include "graph.h"
#include "interaction.h"
#include "nl_search.h"
#include "numerics.h"
#include "overlay_ops.h"
#include "panel_model.h"
#include "persist.h"
#include "resample.h"
#include "side_files.h"
#include "text.h"
#include "x11_display.h"
#include "x11_events.h"

static int last_xbut, last_ybut;

/* ---- reading events ---- */

int get_next_event(XEvent *event)
{
    XNextEvent(XServerDisplay, event);
    if (XWindow_image != 0 && event->xany.window == XWindow_image) return 1;
    if (XWindow_graph != 0 && event->xany.window == XWindow_graph) return 2;
    return 0;
}

void reset_cursor_selections(void)
{
    mosaic.cursor_selection = 0;
    mosaic.text_selection = 0;
    graph.cursor_selection = 0;
    graph.text_selection = 0;
    for (SelectableText *t = mosaic.SelectText; t != NULL; t = t->next) t->selected = 0;
    for (SelectableText *t = graph.SelectText; t != NULL; t = t->next) t->selected = 0;
}

/* Marks the menu item under the pointer, whose bit the region test put in text_selection. */
static void mark_selected_text(void)
{
    if (!(mosaic.cursor_selection & 4)) return;
    for (SelectableText *t = mosaic.SelectText; t != NULL; t = t->next)
        if (t->bit == mosaic.text_selection) t->selected = 1;
}

static void say(const char *what)
{
    show_on_info_line(what, "", "");
}

static void redraw_panel(void)
{
    show_alignment_info();
    show_alignment_help_text();
}

/* ---- crosshair and slices ---- */

static int plane_kind_of_selection(void)
{
    int s = mosaic.cursor_selection;
    if (s & 128) return 0;
    if (s & 256) return 1;
    if (s & 512) return 2;
    if (s & 1024) return 3;
    return -1;
}

/* Moves one crosshair coordinate by step; 0 when it would leave the volume. */
static int step_cross(int *coordinate, int n, int step)
{
    int v = *coordinate + step;
    if (v < 0 || v >= n) return 0;
    *coordinate = v;
    return 1;
}

static int graph_shows_profile(void) { return graph.type == 0 || graph.type == 1 || graph.type == 2; }

static int overlays_exist(void) { return ovl_root.npts > 0; }

static void action_image_arrow_up_down(int up)
{
    int s = mosaic.cursor_selection;
    if (s & 16) return; /* colour bar: the activation scale is not adjustable here */
    if (s & 32) {
        panel_select_item(up);
        redraw_panel();
        return;
    }
    int kind = plane_kind_of_selection();
    int step = (up != 0) != (mosaic.flip_X11_y != 0) ? -1 : 1;
    if ((s & 4) && (mosaic.text_selection & 2)) {
        action_step_overlay_list(!up, 0);
    } else if ((s & 2) && (mosaic.display_crosshairs || graph_shows_profile()) && kind >= 0) {
        IPOINT3D d = mosaic.stack->dim;
        int ok = (kind == 0 || kind == 1) ? step_cross(&mosaic.icross.y, d.y, step)
                                          : step_cross(&mosaic.icross.z, d.z, step);
        if (!ok) return;
        update_image_and_graph(1);
    } else if (overlays_exist()) {
        move_overlay_in_one_direction(kind == 2 || kind == 3 ? 2 : 1, step);
    } else {
        apply_contrast_shift(up);
        rescale_image(0);
        rescale_image_settings();
    }
    build_image_display(1);
}

static void action_image_arrow_left_right(int left)
{
    int s = mosaic.cursor_selection;
    if (s & 16) return;
    if (s & 32) {
        panel_change_value(left);
        redraw_panel();
        draw_selectable_text_image();
        return;
    }
    int kind = plane_kind_of_selection();
    int step = left ? -1 : 1;
    /* The horizontal axis of each plane kind. */
    int axis = (kind == 1) ? 2 : (kind == 3 ? 1 : 0);
    if ((s & 4) && (mosaic.text_selection & 2)) {
        action_step_overlay_list(!left, 0);
    } else if ((s & 2) && (mosaic.display_crosshairs || graph_shows_profile()) && kind >= 0) {
        IPOINT3D d = mosaic.stack->dim;
        int ok = axis == 0 ? step_cross(&mosaic.icross.x, d.x, step)
                           : (axis == 1 ? step_cross(&mosaic.icross.y, d.y, step)
                                        : step_cross(&mosaic.icross.z, d.z, step));
        if (!ok) return;
        update_image_and_graph(1);
    } else if (overlays_exist()) {
        move_overlay_in_one_direction(axis, step);
    } else {
        apply_contrast_shift(left);
        rescale_image(0);
        rescale_image_settings();
    }
    build_image_display(1);
}

static void action_image_arrow_in_out(int in)
{
    if ((mosaic.cursor_selection & 64) && !mosaic.display_3orthogonal) {
        if (slide_shown_slices(in)) {
            build_image_display(1);
            return;
        }
    }
    /* Through the slices as the arrows move the crosshair. */
    int kind = plane_kind_of_selection();
    IPOINT3D d = mosaic.stack->dim;
    int step = in ? -1 : 1;
    int ok;
    if (kind == 0 || (kind < 0 && mosaic.mosaic_orientation == 0)) ok = step_cross(&mosaic.icross.z, d.z, step);
    else if (kind == 2) ok = step_cross(&mosaic.icross.y, d.y, step);
    else ok = step_cross(&mosaic.icross.x, d.x, step);
    if (!ok) return;
    update_image_and_graph(1);
}

/* ---- menu items ---- */

static void toggle_three_planes(void)
{
    mosaic.display_3orthogonal = !mosaic.display_3orthogonal;
    if (mosaic.display_3orthogonal) mosaic.zoom += 1;
    else mosaic.zoom = mosaic.zoom - 1 > 1 ? mosaic.zoom - 1 : 1;
    show_alignment_info();
    update_XWindow_image();
}

static void action_image_toggle_text_selection(int button)
{
    switch (mosaic.text_selection) {
    case 1: action_key_question_mark(); break;
    case 2: action_step_overlay_list(button == 1, 0); build_image_display(1); break;
    case 4: mosaic.interpolate = !mosaic.interpolate; build_image_display(1); break;
    case 8: mosaic.display_crosshairs = (mosaic.display_crosshairs + 1) % 3; build_image_display(1); break;
    case 16: toggle_three_planes(); break;
    case 32: mosaic.flip_X11_y = !mosaic.flip_X11_y; build_image_display(1); break;
    /* button 1 steps on through individual, template, x, y and z fields and the basis image;
       buttons 2 and 3 step back. The space key keeps to individual and template. */
    case 64: action_change_display_type(button == 1 ? 1 : -1); break;
    case 128:
        mosaic.display_data_type = (mosaic.display_data_type + 1) % 4;
        rescale_image(1);
        rescale_image_settings();
        build_image_display(1);
        break;
    case 256: reset_or_recall_parameters(); build_image_display(1); show_alignment_info(); break;
    case 512: action_do_full_alignment(); build_image_display(1); show_alignment_info(); break;
    case 1024: save_alignment_parameters(); break;
    case 2048: action_quit(); break;
    default: break;
    }
}

/* ---- mouse ---- */

static void move_crosshair_to_cursor(void)
{
    int s = mosaic.cursor_selection;
    IPOINT3D c = mosaic.icursor;
    if ((s & 64) && mosaic.display_crosshairs) mosaic.icross = c;
    else if (s & 128) { mosaic.icross.x = c.x; mosaic.icross.y = c.y; }
    else if (s & 256) { mosaic.icross.y = c.y; mosaic.icross.z = c.z; }
    else if (s & 512) { mosaic.icross.x = c.x; mosaic.icross.z = c.z; }
    else if (s & 1024) { mosaic.icross.y = c.y; mosaic.icross.z = c.z; }
    update_image_and_graph(1);
}

static void action_image_button1(int press, int x, int y)
{
    int s = mosaic.cursor_selection;
    if (press) {
        last_xbut = x;
        last_ybut = y;
        return;
    }
    if (s & 32) {
        panel_change_set(1);
        draw_selectable_text_image();
        redraw_panel();
        return;
    }
    if (s & 4) {
        action_image_toggle_text_selection(1);
        return;
    }
    if (is_contrast_drag(last_xbut, last_ybut, x, y)) {
        apply_contrast_drag(last_xbut, last_ybut, x, y);
        rescale_image(0);
        rescale_image_settings();
        build_image_display(1);
        return;
    }
    if ((s & 2) && !(s & 8)) {
        if (graph_shows_profile()) action_set_projection_location();
        else move_crosshair_to_cursor();
    }
}

static void action_image_button23(int press, int button)
{
    int s = mosaic.cursor_selection;
    if (!press) {
        if (mosaic.drawing_overlay) action_image_draw_overlay(-1);
        return;
    }
    if (s & 32) {
        panel_change_set(0);
        draw_selectable_text_image();
        redraw_panel();
    } else if (s & 4) {
        action_image_toggle_text_selection(2);
    } else if (s & 2) {
        if (graph_shows_profile()) {
            action_set_projection_location();
        } else {
            overlay_draw_button(button);
            action_image_draw_overlay(1);
        }
    }
}

static void action_image_wheel(int up)
{
    int s = mosaic.cursor_selection;
    if (s & 2) action_image_arrow_in_out(up);
    else if (s & 32) { panel_select_item(up); redraw_panel(); }
    else action_image_arrow_up_down(up);
}

static void action_image_motion_notify(void)
{
    static int previous_cursor = 0, previous_text = 0;
    if (mosaic.drawing_overlay) action_image_draw_overlay(0);
    else if ((mosaic.cursor_selection & 2) && graph.type == 3 && !overlays_exist()) update_graph_data(1, 1);
    show_information_text_image(1);
    int now_c = mosaic.cursor_selection, now_t = mosaic.text_selection;
    int text_changed = now_t != previous_text && now_t != 0 && previous_text != 0;
    if (now_c != previous_cursor || text_changed) {
        int menus = 4 | 16 | 32;
        if ((previous_cursor & menus) || (now_c & menus)) draw_selectable_text_image();
        else if (mosaic.display_3orthogonal) refresh_display_image();
        if ((previous_cursor & 32) || (now_c & 32)) show_alignment_info();
    }
    previous_cursor = now_c;
    previous_text = now_t;
}

/* ---- keys ---- */

static void step_overlay_colour(void)
{
    int c = ovl_root.color + 1;
    if (c > 8) c = 1;
    ovl_root.color = (short)c;
    if (overlay_map.weight != NULL && mosaic.stack != NULL)
        for (int i = 0; i < mosaic.stack->n3d; i++)
            if (overlay_map.weight[i] != 0.0f) overlay_map.color[i] = (short)c;
}

static void step_wire_colours(void)
{
    for (int i = 0; i < wire_root.npts; i++)
        if (i == 0 || wire_root.control[i - 1].color == 0) {
            int c = wire_root.control[i].color + 1;
            wire_root.control[i].color = c > 8 ? 1 : c;
        }
}

/* The common keys; 0 when the key is not one of them.
   Deliberate: 'r' and 'R' read the overlay and wire files here, so the program's own meaning
   of those keys (recall of align.com) never runs: the common table is looked at first. */
static int common_key(int code)
{
    switch (code) {
    case 3: mosaic.display_crosshairs = (mosaic.display_crosshairs + 1) % 3; build_image_display(1); return 1;
    case 4: action_image_arrow_up_down(0); return 1;
    case 21: action_image_arrow_up_down(1); return 1;
    case 11: action_image_arrow_left_right(0); return 1;
    case 12: action_image_arrow_left_right(1); return 1;
    case 9:
        if (mosaic.cursor_selection & 32) {
            AlignAid.ChangeValue = !AlignAid.ChangeValue;
            redraw_panel();
        } else {
            mosaic.interpolate = !mosaic.interpolate;
            build_image_display(1);
        }
        return 1;
    case 13: {
        /* A button-1 release at (0, 0). */
        reset_cursor_selections();
        mosaic.cursor_selection = 1;
        define_mosaic_cursor_location(0, 0);
        action_image_button1(0, 0, 0);
        return 1;
    }
    case '#': action_select_slices(); return 1;
    case ',': case '<': action_image_arrow_in_out(1); return 1;
    case '.': case '>': action_image_arrow_in_out(0); return 1;
    case '3': toggle_three_planes(); return 1;
    case '?': case 'h': action_help(1, 1); return 1;
    case 'H': action_help(1, 2); return 1;
    case 'c': if (overlays_exist()) { step_overlay_colour(); build_image_display(1); } return 1;
    case 'C': if (wire_root.npts > 0) { step_wire_colours(); build_image_display(1); } return 1;
    case 'd': if (overlays_exist()) action_clear_overlay(); return 1;
    case 'D': if (wire_root.npts > 0) action_clear_wires(); return 1;
    case 'f': case 'F': fill_closed_wires(); return 1;
    case 'i': case 'I':
        contrast_low = 0.0f;
        contrast_high = 1.0f;
        rescale_image(1);
        rescale_image_settings();
        build_image_display(1);
        return 1;
    case 'm': action_mirror_overlay(); update_root_overlay(1); update_image_and_graph(1); return 1;
    case 'M': action_mirror_wires(); update_image_and_graph(0); return 1;
    case 'n':
        if (mosaic.activation.visible) {
            action_select_activated_point();
            update_root_overlay(1);
            update_image_and_graph(1);
            return 1;
        }
        action_draw_wires();
        update_image_and_graph(0);
        return 1;
    case 'N': action_draw_wires(); update_image_and_graph(0); return 1;
    case 'q': case 'Q': action_quit(); return 1;
    case 'r': read_overlay_file(".ovl", &ovl_root); update_root_overlay(1); update_image_and_graph(1); return 1;
    case 'R': read_wire_file(".wire", &wire_root, 0); update_image_and_graph(0); return 1;
    case 't': case 'T': if (overlays_exist()) { mosaic.transparent_overlay = !mosaic.transparent_overlay; build_image_display(1); } return 1;
    case 'v': graph.yrange_fixed = 0; build_graph_display(1); return 1;
    case 'w': if (overlays_exist()) write_overlay_file(); return 1;
    case 'W': if (wire_root.npts > 0) write_wire_file(); return 1;
    case 'z':
        mosaic.zoom = mosaic.zoom - 1 > 1 ? mosaic.zoom - 1 : 1;
        update_XWindow_image();
        return 1;
    case 'Z':
        mosaic.zoom += 1;
        update_XWindow_image();
        return 1;
    default: return 0;
    }
}

int image_event_handler_specific(XEvent *event)
{
    if (event->type != KeyPress) return 0;
    char key;
    if (!get_key_press(&event->xkey, &key)) return 0;
    switch (key) {
    case 1:
        Alignment.RigidBody = !Alignment.RigidBody;
        transform_coordinates(1, 0);
        update_image_and_graph(1);
        return 1;
    case ' ': action_change_display_type(0); return 1;
    case '+': case '=':
        action_increment_image();
        build_image_display(1);
        update_graph_data(0, graph.type != 3);
        return 1;
    case '-': case '_':
        action_decrement_image();
        build_image_display(1);
        update_graph_data(0, graph.type != 3);
        return 1;
    case 'a': case 'A': {
        int mode = key == 'a' ? 1 : 2;
        int affine = 0;
        for (int i = 0; i < 12; i++)
            if (AlignAid.Adjust[i]) affine = 1;
        int nonlinear = AlignNL.Adjust.x || AlignNL.Adjust.y || AlignNL.Adjust.z;
        if (affine && nonlinear) {
            if (AlignAid.DisplaySet == 2) affine = 0;
            else nonlinear = 0;
        }
        if (affine) action_auto_adjust_affine(mode);
        else if (nonlinear) action_auto_adjust_nonlinear(mode);
        return 1;
    }
    case 'x': case 'X':
        panel_toggle_adjust();
        draw_selectable_text_image();
        show_alignment_info();
        return 1;
    case 'g': action_key_g(); return 1;
    default:
        /* The graph's own keys work from the image window too. */
        if (event->xany.window == XWindow_image) return graph_event_handler_general(event);
        return 0;
    }
}

int image_event_handler_general(XEvent *event)
{
    static int previous_expose = 0, previous_reparent = 0;
    int type = event->type;
    int on_image = event->xany.window == XWindow_image;
    if (on_image) {
        int x = 0, y = 0;
        if (type == KeyPress) { x = event->xkey.x; y = event->xkey.y; }
        else if (type == ButtonPress || type == ButtonRelease) { x = event->xbutton.x; y = event->xbutton.y; }
        else if (type == MotionNotify) { x = event->xmotion.x; y = event->xmotion.y; }
        else if (type == LeaveNotify) { x = event->xcrossing.x; y = event->xcrossing.y; }
        if (type == KeyPress || type == ButtonPress || type == ButtonRelease || type == MotionNotify ||
            type == LeaveNotify) {
            define_mosaic_cursor_location(x, y);
            mark_selected_text();
        }
    } else if (type != KeyPress) {
        return 0;
    }

    int was_expose = previous_expose, was_reparent = previous_reparent;
    previous_expose = (type == Expose);
    previous_reparent = (type == ReparentNotify);

    switch (type) {
    case KeyPress: {
        char key;
        if (!get_key_press(&event->xkey, &key)) return 0;
        if (!common_key((unsigned char)key)) image_event_handler_specific(event);
        return 1;
    }
    case ButtonPress:
        switch (event->xbutton.button) {
        case 1: action_image_button1(1, event->xbutton.x, event->xbutton.y); break;
        case 2: case 3: action_image_button23(1, (int)event->xbutton.button); break;
        case 4: action_image_wheel(1); break;
        case 5: action_image_wheel(0); break;
        default: break;
        }
        return 1;
    case ButtonRelease:
        if (event->xbutton.button == 1) action_image_button1(0, event->xbutton.x, event->xbutton.y);
        else if (event->xbutton.button == 2 || event->xbutton.button == 3) action_image_button23(0, (int)event->xbutton.button);
        return 1;
    case MotionNotify: action_image_motion_notify(); return 1;
    case LeaveNotify:
        mosaic.cursor_selection = 0;
        show_information_text_image(0);
        return 1;
    case Expose:
        if (!was_expose) refresh_display_image();
        return 1;
    case ReparentNotify: return 1;
    case ConfigureNotify:
        if (!was_reparent &&
            reflow_panels(event->xconfigure.width, event->xconfigure.height))
            update_XWindow_image();
        return 1;
    default: return 0;
    }
}

void loop_X_events(void)
{
    for (;;) {
        XEvent event;
        int which = get_next_event(&event);
        reset_cursor_selections();
        if (which == 1) {
            mosaic.cursor_selection = 1;
            image_event_handler_general(&event);
        } else if (which == 2) {
            graph.cursor_selection = 1;
            graph_event_handler_general(&event);
        }
        XSync(XServerDisplay, False);
    }
}

/* ---- slice selection ---- */

/* Yellow frames around the panels whose slices are in the private selection. */
static void update_borders_for_slices(const int *selection, int nslices)
{
    int zoom = mosaic.zoom > 1 ? mosaic.zoom : 1;
    int o = mosaic.mosaic_orientation;
    int hw = o == 1 ? mosaic.PixelDim.z : (o == 3 ? mosaic.PixelDim.y : mosaic.PixelDim.x);
    int vh = o == 0 || o == 1 ? mosaic.PixelDim.y : mosaic.PixelDim.z;
    int cols = mosaic.DimPanels.x > 0 ? mosaic.DimPanels.x : 1;
    int panel = 0;
    for (int k = 0; k < nslices; k++) {
        if (mosaic.display_slice != NULL && !mosaic.display_slice[k]) continue;
        int c = panel % cols, r = panel / cols;
        int x = (hw * c + c) * zoom, y = 30 + (vh * r + r) * zoom;
        GC gc = selection[k] ? XGC_yellow : XGC_black;
        XDrawRectangle(XServerDisplay, XPixmap_image, gc, x, y, (unsigned)((hw + 1) * zoom), (unsigned)((vh + 1) * zoom));
        panel++;
    }
    refresh_display_image();
}

static int slice_of_cursor(void)
{
    switch (mosaic.mosaic_orientation) {
    case 0: return mosaic.icursor.z;
    case 2: return mosaic.icursor.y;
    default: return mosaic.icursor.x;
    }
}

void action_select_slices(void)
{
    static int saved = 0, saved_cols, saved_rows, saved_zoom;
    int nslices = mosaic_slice_count();
    if (nslices <= 0) return;
    int all = 1;
    for (int k = 0; k < nslices; k++)
        if (mosaic.display_slice != NULL && !mosaic.display_slice[k]) all = 0;

    if (!all && !mosaic.display_3orthogonal) {
        for (int k = 0; k < nslices; k++) mosaic.display_slice[k] = 1;
        mosaic.DimPanels.z = nslices;
        if (saved) {
            mosaic.DimPanels.x = saved_cols;
            mosaic.DimPanels.y = saved_rows;
            mosaic.zoom = saved_zoom;
        } else {
            automatically_set_panels(nslices, &mosaic.DimPanels.x, &mosaic.DimPanels.y);
            if (mosaic.zoom < 1) mosaic.zoom = 1;
        }
        update_XWindow_image();
        return;
    }

    char prompt[1024], hint[1024];
    if (mosaic.display_3orthogonal) {
        snprintf(prompt, sizeof prompt, "Input the number of slices >");
        snprintf(hint, sizeof hint, "Valid numbers are 1 to %d", nslices);
    } else {
        snprintf(prompt, sizeof prompt, "Select slices >");
        snprintf(hint, sizeof hint, "text input or button selection:");
    }
    const char *hint2 = mosaic.display_3orthogonal ? "" : "(number, button1, return, escape)";
    char typed[1024] = " ";
    int *selection = int_vector(nslices);
    for (int k = 0; k < nslices; k++) selection[k] = 0;
    int clicked = 0, canceled = 0;
    char line[2100];
    snprintf(line, sizeof line, "%s%s", prompt, typed);
    show_on_info_line(line, hint, hint2);

    for (;;) {
        XEvent event;
        get_next_event(&event);
        if (event.type == KeyPress) {
            char key;
            if (!get_key_press(&event.xkey, &key)) continue;
            if (key == 27) { canceled = 1; break; }
            if (key == 13) break;
            size_t n = strlen(typed);
            if ((key == 8 || key == 127) && n > 1) typed[n - 1] = '\0';
            else if (key >= '0' && key <= '9' && n + 1 < sizeof typed) { typed[n] = key; typed[n + 1] = '\0'; }
            snprintf(line, sizeof line, "%s%s", prompt, typed);
            show_on_info_line(line, hint, hint2);
        } else if (event.type == ButtonPress && event.xany.window == XWindow_image) {
            if (mosaic.display_3orthogonal) {
                show_on_info_line("Mouse button not allowed for this option", "", "when 3-plane mode is used.");
                continue;
            }
            if (event.xbutton.button != 1) continue;
            mosaic.cursor_selection = 1;
            mosaic.text_selection = 0;
            define_mosaic_cursor_location(event.xbutton.x, event.xbutton.y);
            if (!(mosaic.cursor_selection & 64) || !(mosaic.cursor_selection & 2)) continue;
            int k = slice_of_cursor();
            if (k < 0 || k >= nslices) {
                printf("Programming error: iDisplayVolumeCursor.z out of range.\n");
                exit(1);
            }
            selection[k] = !selection[k];
            clicked = 0;
            for (int j = 0; j < nslices; j++) clicked += selection[j];
            update_borders_for_slices(selection, nslices);
            char list[1024];
            int used = snprintf(list, sizeof list, "Select slices (number, button1, return, escape) >");
            int first = 1;
            for (int j = 0; j < nslices && used < (int)sizeof list - 16; j++)
                if (selection[j]) {
                    used += snprintf(list + used, sizeof list - (size_t)used, first ? " %d " : ", %d", j);
                    first = 0;
                }
            show_on_info_line(list, "", "");
        }
    }

    int n = atoi(typed);
    if (canceled || (n <= 0 && clicked == 0)) {
        say("canceled");
        free_int_vector(selection);
        build_image_display(0);
        return;
    }
    if (n > 0) {
        int shown = 0;
        for (int k = 0; k < nslices; k++) shown += mosaic.display_slice == NULL || mosaic.display_slice[k];
        if (!mosaic.display_3orthogonal && n >= shown) {
            say("all slices shown");
            free_int_vector(selection);
            build_image_display(0);
            return;
        }
        select_central_slices(selection, nslices, n);
    }
    int count = 0, first_shown = -1;
    for (int k = 0; k < nslices; k++) {
        mosaic.display_slice[k] = selection[k];
        if (selection[k]) {
            count++;
            if (first_shown < 0) first_shown = k;
        }
    }
    free_int_vector(selection);
    mosaic.DimPanels.z = count;
    int *cross = mosaic.mosaic_orientation == 0 ? &mosaic.icross.z
                 : (mosaic.mosaic_orientation == 2 ? &mosaic.icross.y : &mosaic.icross.x);
    if (*cross < 0 || *cross >= nslices || !mosaic.display_slice[*cross]) {
        mosaic.icross.x = mosaic.stack->dim.x / 2;
        mosaic.icross.y = mosaic.stack->dim.y / 2;
        mosaic.icross.z = mosaic.stack->dim.z / 2;
        *cross = first_shown;
    }
    saved = 1;
    saved_cols = mosaic.DimPanels.x;
    saved_rows = mosaic.DimPanels.y;
    saved_zoom = mosaic.zoom;
    int old_cols = mosaic.DimPanels.x > 0 ? mosaic.DimPanels.x : 1;
    automatically_set_panels(count, &mosaic.DimPanels.x, &mosaic.DimPanels.y);
    int z = mosaic.zoom * old_cols / (mosaic.DimPanels.x > 0 ? mosaic.DimPanels.x : 1);
    mosaic.zoom = z < 1 ? 1 : z;
    mosaic.display_3orthogonal = 0;
    update_XWindow_image();
}

/* ---- context help ---- */

void action_key_question_mark(void)
{
    reset_cursor_selections();
    /* The information line joins its first two texts with a blank: the second is put in
       brackets so that the two read apart. */
    char prompt[1024];
    snprintf(prompt, sizeof prompt, "%s (%s)", "select a region with a mouse press", "output to shell window");
    show_on_info_line(prompt, "", "other keys cancel");
    for (;;) {
        XEvent event;
        int which = get_next_event(&event);
        if (which != 1) continue;
        if (event.type == KeyPress) {
            build_image_display(1);
            return;
        }
        if (event.type == ButtonRelease) {
            reset_cursor_selections();
            mosaic.cursor_selection = 1;
            define_mosaic_cursor_location(event.xbutton.x, event.xbutton.y);
            break;
        }
    }
    const char *home = getenv("QOR_HOME");
    if (home == NULL) {
        printf("Define the environment variable QOR_HOME for more help.\n");
        return;
    }
    char file_name[2100];
    snprintf(file_name, sizeof file_name, "%s/documentation/%s-question-mark.txt", home, program_name);
    FILE *fp = fopen(file_name, "r");
    if (fp == NULL) {
        printf("Error: cannot open the file %s.\n", file_name);
        printf("The environment variable QOR_HOME is set to %s\n", home);
        return;
    }
    printf("Help from file %s\n", file_name);
    printf("message code %d %d\n", mosaic.cursor_selection, mosaic.text_selection);
    char line[1024];
    int found = 0;
    while (fgets(line, sizeof line, fp) != NULL) {
        char mark;
        int a, b;
        if (sscanf(line, "%c %d %d", &mark, &a, &b) == 3 && mark == '!' && a == mosaic.cursor_selection &&
            b == mosaic.text_selection) {
            found = 1;
            while (fgets(line, sizeof line, fp) != NULL && line[0] != '\n' && line[0] != '\0') printf("%s", line);
            break;
        }
    }
    fclose(fp);
    if (!found) printf("Context-sensitive help text not found; add to file.\n");
    fflush(stdout);
}
