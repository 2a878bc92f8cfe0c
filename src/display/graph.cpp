/* The graph window: profiles along x, y, z through the crosshair (types 0, 1, 2), the time
   course of the displayed stack (3) and the histogram of the displayed volume (4), with axes,
   the current point, a bottom menu and an information line. Reads mosaic, ovl_root and the
   grey window; writes graph, the crosshair and the displayed time point. Xlib.
   Window rows: 0..14 title, 15..nheight+14 plot, nheight+15 information line, nheight+30
   menu, nheight+45 the current point's value. */
#include "graph.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "display_hooks.h"
#include "globals.h"
#include "graph_data.h"
#include "interaction.h"
#include "numerics.h"
#include "resample.h"
#include "side_files.h"
#include "volume.h"
#include "x11_display.h"
#include "x11_events.h"

void update_graph_data_x11(int use_cursor, int refill);
void build_graph_display_x11(int show_info_line);
void fill_graph_vector_x11(int use_cursor);

static GC XGC_graph_black, XGC_graph_white, XGC_graph_grey, XGC_graph_dark_red, XGC_graph_red,
    XGC_graph_yellow, XGC_graph_cyan, XGC_graph_green, XGC_graph_bar;
/* A closed graph window is only unmapped; the next one replaces it. */
static Window closed_graph_window;
static int pointer_index, pointer_value_known;
static float pointer_value;
static IPOINT3D graph_voxel;  /* the voxel of the last fill */
static float press_value;     /* value under the pointer at a button 2 or 3 press */

static const char *const type_names[5] = {"profile along x", "profile along y", "profile along z", "time course",
                                          "histogram"};

static int graph_open(void) { return XServerDisplay != NULL && XWindow_graph != 0 && XPixmap_GraphData != 0; }
static int window_height(void) { return graph.nheight + 60; }

/* ---- record and window ---- */

struct graph_menu_entry { const char *text; int bit; };
static const graph_menu_entry graph_menu[] = {
    {"next type", 1}, {"stats", 2}, {"all stats", 4}, {"auto y", 8},
};

void initialize_graph(void)
{
    static int first_call = 1;
    if (first_call) {
        graph.type = -1;
        first_call = 0;
    }
    graph.npoints = 0;
    graph.yrange_fixed = 0;
    graph.xmin = graph.ymin = 0.0f;
    graph.xmax = graph.ymax = 1.0f;
    graph.cursor_selection = 0;
    graph.text_selection = 0;
    if (graph.SelectText == NULL) {
        SelectableText *head = NULL, **tail = &head;
        for (const graph_menu_entry &e : graph_menu) {
            SelectableText *t = (SelectableText *)calloc(1, sizeof(SelectableText));
            if (t == NULL) alloc_error("allocation failure in initialize_graph()");
            snprintf(t->text, sizeof t->text, "%s", e.text);
            t->row = 2;
            t->bit = e.bit;
            t->width = 6 * (int)strlen(e.text) + 4;
            *tail = t;
            tail = &t->next;
        }
        graph.SelectText = head;
    }
}

void update_graph_selectable_text(void)
{
    int x = 4;
    for (SelectableText *t = graph.SelectText; t != NULL; t = t->next) {
        t->width = x11_text_width(t->text) + 4;
        t->x = x;
        x += t->width + 12;
    }
}

static GC graph_gc(int red, int green, int blue) { return make_text_gc(XRoot_Window, red, green, blue); }

static void make_graph_pixmap(void)
{
    if (XPixmap_GraphData) XFreePixmap(XServerDisplay, XPixmap_GraphData);
    XPixmap_GraphData = XCreatePixmap(XServerDisplay, XWindow_graph, (unsigned)graph.nwidth,
                                      (unsigned)window_height(), (unsigned)XScreen_depth);
}

void make_XWindow_graph(void)
{
    if (XGC_graph_black == NULL) {
        XGC_graph_black = graph_gc(0, 0, 0);
        XGC_graph_white = graph_gc(255, 255, 255);
        XGC_graph_grey = graph_gc(70, 70, 70);
        XGC_graph_dark_red = graph_gc(140, 0, 0);
        XGC_graph_red = graph_gc(255, 0, 0);
        XGC_graph_yellow = graph_gc(255, 255, 0);
        XGC_graph_cyan = graph_gc(0, 255, 255);
        XGC_graph_green = graph_gc(0, 255, 0);
        XGC_graph_bar = graph_gc(150, 150, 150);
    }
    if (XWindow_graph != 0) {
        XRaiseWindow(XServerDisplay, XWindow_graph);
        return;
    }
    if (closed_graph_window != 0) {
        XDestroyWindow(XServerDisplay, closed_graph_window);
        closed_graph_window = 0;
    }
    if (graph.nwidth <= 0 || graph.nheight <= 0) {
        graph.nwidth = 500;
        graph.nheight = 250;
    }
    /* Beside the image window (whose border is 100 pixels wide), else over it. */
    int x = mosaic.ImageRegionPixels.x + mosaic.nx_ColorBar + mosaic.nx_RightPanel + 210;
    if (x + graph.nwidth > DisplayWidth(XServerDisplay, XScreen)) x = 1;
    XWindow_graph = XCreateSimpleWindow(XServerDisplay, XRoot_Window, x, 1, (unsigned)graph.nwidth,
                                        (unsigned)window_height(), 2, 255, 0);
    XSelectInput(XServerDisplay, XWindow_graph, 0x2806d);
    char title[1100];
    snprintf(title, sizeof title, "%s graph", program_name);
    XStoreName(XServerDisplay, XWindow_graph, title);
    XSetWMProtocols(XServerDisplay, XWindow_graph, &wm_delete_window, 1);
    make_graph_pixmap();
    XFillRectangle(XServerDisplay, XPixmap_GraphData, XGC_graph_black, 0, 0, (unsigned)graph.nwidth,
                   (unsigned)window_height());
    update_graph_selectable_text();
    XMapWindow(XServerDisplay, XWindow_graph);
    XFlush(XServerDisplay);
}

/* The close box: the window is unmapped and the record returns to rest (type -1). */
static void close_graph_window(void)
{
    XUnmapWindow(XServerDisplay, XWindow_graph);
    closed_graph_window = XWindow_graph;
    graph.type = -1;
    initialize_graph();
    graph.nwidth = graph.nheight = 0;
    XWindow_graph = 0;
    if (XPixmap_GraphData) XFreePixmap(XServerDisplay, XPixmap_GraphData);
    XPixmap_GraphData = 0;
    build_image_display(1);
}

/* ---- data ---- */

/* The individual is resampled one time point at a time (the one shown). Before its time course
   is read, the others are brought up to date; a copy of the shown one tells whether the
   alignment changed since (every change resamples the shown time point). */
static void resample_individual_time_points(void)
{
    static float *copy = NULL;
    static int copy_time = -1, copy_n = 0;
    static const float *copy_of = NULL;
    if (mosaic.stack != &individual || individual.nt <= 1 || individual.SpaceTime.fData == NULL) return;
    int n = individual.n3d;
    const float *now = individual.SpaceTime.fData + (size_t)graph.iTime * (size_t)n;
    if (copy != NULL && copy_time == graph.iTime && copy_n == n && copy_of == individual.SpaceTime.fData &&
        memcmp(copy, now, sizeof(float) * (size_t)n) == 0)
        return;
    int keep = graph.iTime;
    for (int t = 0; t < individual.nt; t++) {
        if (t == keep) continue;
        graph.iTime = t;
        transform_coordinates(1, 0);
    }
    graph.iTime = keep;
    if (copy != NULL && copy_n != n) {
        free_float_vector(copy);
        copy = NULL;
    }
    if (copy == NULL) copy = float_vector(n);
    memcpy(copy, now, sizeof(float) * (size_t)n);
    copy_time = keep;
    copy_n = n;
    copy_of = individual.SpaceTime.fData;
}

/* use_cursor: the voxel under the pointer when it is over the image, else the crosshair. */
void fill_graph_vector_x11(int use_cursor)
{
    if (graph.type < 0 || mosaic.stack == NULL) return;
    graph_voxel = (use_cursor && (mosaic.cursor_selection & 2)) ? mosaic.icursor : mosaic.icross;
    if (graph.type == 3) resample_individual_time_points();
    fill_graph_values(graph_voxel);
}

void update_graph_data_x11(int use_cursor, int refill)
{
    if (!graph_open()) return;
    if (refill || graph.npoints == 0) fill_graph_vector_x11(use_cursor);
    build_graph_display_x11(1);
}

/* ---- drawing ---- */

static void text_at(GC gc, int x, int y, const char *s)
{
    XDrawString(XServerDisplay, XPixmap_GraphData, gc, x, y, s, (int)strlen(s));
}

/* An axis label on a black ground, readable over bars and grid lines. */
static void label_at(int x, int y, const char *s)
{
    XDrawImageString(XServerDisplay, XPixmap_GraphData, XGC_graph_green, x, y, s, (int)strlen(s));
}

static void copy_graph(int y, int h)
{
    XCopyArea(XServerDisplay, XPixmap_GraphData, XWindow_graph, XGC_graph_white, 0, y, (unsigned)graph.nwidth,
              (unsigned)h, 0, y);
}

static void draw_graph_selectable_text(void)
{
    int y = graph.nheight + 30;
    XFillRectangle(XServerDisplay, XPixmap_GraphData, XGC_graph_black, 0, y, (unsigned)graph.nwidth, 15);
    for (SelectableText *t = graph.SelectText; t != NULL; t = t->next) {
        if (t->selected)
            XDrawRectangle(XServerDisplay, XPixmap_GraphData, XGC_graph_yellow, t->x - 2, y + 1, (unsigned)t->width, 13);
        text_at(t->selected ? XGC_graph_yellow : XGC_graph_white, t->x, y + 12, t->text);
    }
    copy_graph(y, 15);
}

static void format_point(char *line, size_t size, int i)
{
    const char *axis = graph.type == 0 ? "x" : (graph.type == 1 ? "y" : (graph.type == 2 ? "z" : "t"));
    if (graph.type == 4)
        snprintf(line, size, "bin %d (%g): %g voxels", i, graph.xVector[i], graph.yVector[i]);
    else if (graph.yVector1[i] != 0.0f || (graph.type == 3 && ovl_root.npts > 0))
        snprintf(line, size, "%s = %d: %g (sd %g)", axis, i, graph.yVector[i], graph.yVector1[i]);
    else
        snprintf(line, size, "%s = %d: %g", axis, i, graph.yVector[i]);
}

/* The value of the current point on the last row. */
static void draw_current_point_line(void)
{
    int y = graph.nheight + 45;
    XFillRectangle(XServerDisplay, XPixmap_GraphData, XGC_graph_black, 0, y, (unsigned)graph.nwidth, 15);
    int c = graph_current_point();
    if (c >= 0 && c < graph.npoints) {
        char line[1024];
        format_point(line, sizeof line, c);
        text_at(XGC_graph_red, 4, y + 12, line);
    }
    copy_graph(y, 15);
}

void show_information_graph(int pointer_moved)
{
    if (!graph_open()) return;
    int y = graph.nheight + 15;
    XFillRectangle(XServerDisplay, XPixmap_GraphData, XGC_graph_black, 0, y, (unsigned)graph.nwidth, 15);
    if (pointer_moved && (graph.cursor_selection & 2) && graph.npoints > 0) {
        char line[1024], value[1100];
        format_point(line, sizeof line, pointer_index);
        snprintf(value, sizeof value, "%s   pointer %g", line, pointer_value_known ? pointer_value : 0.0f);
        text_at(XGC_graph_white, 4, y + 12, value);
    }
    copy_graph(y, 15);
    XFlush(XServerDisplay);
}

void show_on_graph_info_line(const char *line, const char *hint)
{
    if (!graph_open()) return;
    int y = graph.nheight + 15;
    XFillRectangle(XServerDisplay, XPixmap_GraphData, XGC_graph_black, 0, y, (unsigned)graph.nwidth, 15);
    char text[2100];
    snprintf(text, sizeof text, "%s %s", line, hint);
    text_at(XGC_graph_yellow, 4, y + 12, text);
    copy_graph(y, 15);
    XFlush(XServerDisplay);
}

static int x_of(float u) { return graph_x_of_value(u, graph.nwidth, graph.xmin, graph.xmax); }
static int y_of(float v) { return graph_y_of_value(v, graph.nheight, graph.ymin, graph.ymax); }

/* Grid lines (labels 0, under the data) or their labels (labels 1, over it): values up the
   left side, abscissae along the bottom of the plot clear of the value labels. */
static void draw_axes(int labels)
{
    float ticks[64], amin, amax, step;
    char label[64];
    int bottom = GRAPH_TOP_BAND + graph.nheight - 1;
    graph_axis_range(graph.ymin, graph.ymax, 5, &amin, &amax, &step);
    int n = graph_ticks(amin, amax, step, ticks, 64);
    for (int k = 0; k < n; k++) {
        if (ticks[k] < graph.ymin || ticks[k] > graph.ymax) continue;
        int y = y_of(ticks[k]);
        if (!labels) {
            XDrawLine(XServerDisplay, XPixmap_GraphData, XGC_graph_grey, 0, y, graph.nwidth - 1, y);
            continue;
        }
        snprintf(label, sizeof label, "%g", ticks[k]);
        label_at(2, y > GRAPH_TOP_BAND + 12 ? y - 2 : y + 11, label);
    }
    float lo = graph.type == 4 ? graph.xmin : 0.0f;
    float hi = graph.type == 4 ? graph.xmax : (float)(graph.npoints - 1);
    graph_axis_range(lo, hi, 6, &amin, &amax, &step);
    if (graph.type != 4 && step < 1.0f) step = 1.0f;
    n = graph_ticks(amin, amax, step, ticks, 64);
    for (int k = 0; k < n; k++) {
        if (ticks[k] < graph.xmin || ticks[k] > graph.xmax) continue;
        int x = x_of(ticks[k]);
        if (!labels) {
            XDrawLine(XServerDisplay, XPixmap_GraphData, XGC_graph_grey, x, bottom - 3, x, bottom);
            continue;
        }
        snprintf(label, sizeof label, "%g", ticks[k]);
        int w = x11_text_width(label);
        int tx = x - w / 2;
        if (tx + w > graph.nwidth) tx = graph.nwidth - w;
        if (tx >= 40) label_at(tx, bottom - 5, label);
    }
}

static void draw_histogram(int current)
{
    int bottom = GRAPH_TOP_BAND + graph.nheight - 1;
    for (int b = 0; b < graph.npoints; b++) {
        int x0 = graph_x_of_value(graph.xmin + (graph.xmax - graph.xmin) * (float)b / (float)graph.npoints,
                                  graph.nwidth, graph.xmin, graph.xmax);
        int x1 = graph_x_of_value(graph.xmin + (graph.xmax - graph.xmin) * (float)(b + 1) / (float)graph.npoints,
                                  graph.nwidth, graph.xmin, graph.xmax);
        int y = y_of(graph.yVector[b]);
        if (graph.yVector[b] <= 0.0f || x1 - x0 < 1) continue;
        unsigned w = (unsigned)(x1 - x0 > 1 ? x1 - x0 - 1 : 1);
        XFillRectangle(XServerDisplay, XPixmap_GraphData, b == current ? XGC_graph_red : XGC_graph_bar, x0, y, w,
                       (unsigned)(bottom - y + 1));
    }
}

static void draw_curve(int current)
{
    int have_sd = 0;
    for (int i = 0; i < graph.npoints; i++)
        if (graph.yVector1[i] != 0.0f) have_sd = 1;
    if (current >= 0 && current < graph.npoints) {
        int x = x_of((float)current);
        XDrawLine(XServerDisplay, XPixmap_GraphData, XGC_graph_dark_red, x, GRAPH_TOP_BAND, x,
                  GRAPH_TOP_BAND + graph.nheight - 1);
    }
    for (int i = 0; i < graph.npoints; i++) {
        int x = x_of((float)i);
        if (have_sd) {
            int y0 = y_of(graph.yVector[i] - graph.yVector1[i]), y1 = y_of(graph.yVector[i] + graph.yVector1[i]);
            XDrawLine(XServerDisplay, XPixmap_GraphData, XGC_graph_cyan, x, y0, x, y1);
            XDrawLine(XServerDisplay, XPixmap_GraphData, XGC_graph_cyan, x - 2, y0, x + 2, y0);
            XDrawLine(XServerDisplay, XPixmap_GraphData, XGC_graph_cyan, x - 2, y1, x + 2, y1);
        }
        if (i > 0)
            XDrawLine(XServerDisplay, XPixmap_GraphData, XGC_graph_white, x_of((float)(i - 1)),
                      y_of(graph.yVector[i - 1]), x, y_of(graph.yVector[i]));
    }
    for (int i = 0; i < graph.npoints; i++) {
        int x = x_of((float)i), y = y_of(graph.yVector[i]);
        if (i == current) XFillRectangle(XServerDisplay, XPixmap_GraphData, XGC_graph_red, x - 2, y - 2, 5, 5);
        else XFillRectangle(XServerDisplay, XPixmap_GraphData, XGC_graph_yellow, x - 1, y - 1, 3, 3);
    }
}

static void draw_title(void)
{
    char title[1200];
    if (graph.type == 4) {
        snprintf(title, sizeof title, "histogram %g .. %g", graph.xmin, graph.xmax);
    } else if (ovl_root.npts > 0) {
        snprintf(title, sizeof title, "%s, overlay %s (%d voxels)", type_names[graph.type], ovl_root.name,
                 ovl_root.npts);
    } else {
        snprintf(title, sizeof title, "%s at (%d, %d, %d)", type_names[graph.type], graph_voxel.x, graph_voxel.y,
                 graph_voxel.z);
    }
    text_at(XGC_graph_white, 4, 12, title);
    if (graph.yrange_fixed) {
        const char *fixed = "y fixed (v: auto)";
        text_at(XGC_graph_cyan, graph.nwidth - x11_text_width(fixed) - 4, 12, fixed);
    }
}

void build_graph_display_x11(int show_info_line)
{
    if (!graph_open() || graph.type < 0 || graph.type > 4) return;
    /* The histogram follows the grey window, which may have changed since the last fill. */
    if (graph.type == 4 || graph.npoints == 0) fill_graph_vector_x11(0);
    if (!graph.yrange_fixed) {
        float lo, hi, step;
        graph_data_range(&lo, &hi);
        /* A margin of a twentieth of the range keeps the end points off the frame and labels. */
        float margin = (hi - lo) / 20.0f;
        graph_axis_range(graph.type == 4 ? lo : lo - margin, hi + margin, 5, &graph.ymin, &graph.ymax, &step);
    }
    XFillRectangle(XServerDisplay, XPixmap_GraphData, XGC_graph_black, 0, 0, (unsigned)graph.nwidth,
                   (unsigned)window_height());
    if (graph.npoints > 0) {
        int current = graph_current_point();
        draw_axes(0);
        if (graph.type == 4) draw_histogram(current);
        else draw_curve(current);
        draw_axes(1);
        draw_title();
    }
    copy_graph(0, GRAPH_TOP_BAND + graph.nheight);
    draw_graph_selectable_text();
    draw_current_point_line();
    if (show_info_line) show_information_graph(0);
    else copy_graph(graph.nheight + 15, 15);
    XFlush(XServerDisplay);
}

/* ---- actions ---- */

static void step_type(int step)
{
    graph.type = (graph.type + step + 5) % 5;
    graph.yrange_fixed = 0;
    fill_graph_vector_x11(0);
    build_image_display(1); /* the crosshair style depends on the type */
    build_graph_display_x11(1);
}

/* A time point of the displayed stack, as '+' and '-' step it. */
static void show_time_point(int t)
{
    if (mosaic.stack == NULL || mosaic.stack->nt <= 1) return;
    int n = mosaic.stack->nt;
    set_displayed_time_point((t % n + n) % n);
    build_image_display(1);
    update_graph_data_x11(0, 0);
}

/* The crosshair coordinate along a profile's axis. */
static int *profile_coordinate(int *n)
{
    IPOINT3D d = mosaic.stack->dim;
    switch (graph.type) {
    case 0: *n = d.x; return &mosaic.icross.x;
    case 1: *n = d.y; return &mosaic.icross.y;
    default: *n = d.z; return &mosaic.icross.z;
    }
}

static void action_graph_arrow_left_right(int left)
{
    if (mosaic.stack == NULL) return;
    int step = left ? -1 : 1;
    if (graph.type == 3) {
        show_time_point(mosaic.iTime + step);
    } else if (graph.type >= 0 && graph.type <= 2) {
        int n, *c = profile_coordinate(&n);
        if (*c + step < 0 || *c + step >= n) return;
        *c += step;
        update_image_and_graph(1);
    }
}

static void action_graph_arrow_up_down(int up, float v)
{
    if (graph.npoints <= 0) return;
    graph_zoom_range(up, v, &graph.ymin, &graph.ymax);
    graph.yrange_fixed = 1;
    build_graph_display_x11(1);
}

static void action_graph_toggle_text_selection(int button)
{
    switch (graph.text_selection) {
    case 1: step_type(button == 1 ? 1 : -1); break;
    case 2: write_roi_stats(0); break;
    case 4: write_roi_stats(1); break;
    case 8: graph.yrange_fixed = 0; build_graph_display_x11(1); break;
    default: break;
    }
    fflush(stdout);
}

static void action_graph_button1(int i)
{
    if (graph.cursor_selection & 4) {
        action_graph_toggle_text_selection(1);
        return;
    }
    if (!(graph.cursor_selection & 2) || mosaic.stack == NULL || graph.npoints <= 0) return;
    if (graph.type == 3) {
        show_time_point(i);
    } else if (graph.type >= 0 && graph.type <= 2) {
        int n, *c = profile_coordinate(&n);
        if (i < 0 || i >= n) return;
        *c = i;
        update_image_and_graph(1);
    }
}

/* Buttons 2 and 3: a drag up or down the plot fixes the y range to the values at its two ends;
   a click centres the range on the value under the pointer. Over the menu: backwards. */
static void action_graph_button23(int press, int i)
{
    (void)i;
    if (graph.cursor_selection & 4) {
        if (press) action_graph_toggle_text_selection(2);
        return;
    }
    if (!(graph.cursor_selection & 2) || graph.npoints <= 0) return;
    if (press) {
        press_value = pointer_value;
        return;
    }
    float a = press_value, b = pointer_value;
    if (a == b) {
        float half = (graph.ymax - graph.ymin) / 2.0f;
        graph.ymin = a - half;
        graph.ymax = a + half;
    } else {
        graph.ymin = a < b ? a : b;
        graph.ymax = a < b ? b : a;
    }
    graph.yrange_fixed = 1;
    build_graph_display_x11(1);
}

static void action_graph_motion_notify(void)
{
    static int previous_text = 0;
    show_information_graph(1);
    if (graph.text_selection != previous_text) draw_graph_selectable_text();
    previous_text = graph.text_selection;
}

void define_graph_cursor_location(int x, int y)
{
    pointer_value_known = 0;
    graph.text_selection = 0;
    if (y >= GRAPH_TOP_BAND && y < GRAPH_TOP_BAND + graph.nheight) {
        graph.cursor_selection |= 2;
        pointer_index = graph_index_of_pixel(x, graph.nwidth, graph.npoints);
        pointer_value = graph_value_of_pixel(y, graph.nheight, graph.ymin, graph.ymax);
        pointer_value_known = 1;
        return;
    }
    if (y >= graph.nheight + 30 && y < graph.nheight + 45)
        for (SelectableText *t = graph.SelectText; t != NULL; t = t->next)
            if (x >= t->x - 2 && x < t->x - 2 + t->width) {
                graph.cursor_selection |= 4;
                graph.text_selection = t->bit;
                t->selected = 1;
                return;
            }
    graph.cursor_selection |= 8;
}

int graph_event_handler_specific(XEvent *event)
{
    if (event->type != KeyPress) return 0;
    char key;
    if (!get_key_press(&event->xkey, &key)) return 0;
    if (XWindow_graph != 0) switch (key) {
        case 'G': step_type(1); return 1;
        case 's': write_roi_stats(0); fflush(stdout); return 1;
        case 'S': write_roi_stats(1); fflush(stdout); return 1;
        default: break;
        }
    /* Keys typed in the graph window that the graph does not bind act as in the image window. */
    if (XWindow_graph != 0 && event->xany.window == XWindow_graph) return image_event_handler_general(event);
    return 0;
}

int graph_event_handler_general(XEvent *event)
{
    int type = event->type;
    int on_graph = XWindow_graph != 0 && event->xany.window == XWindow_graph;
    if (!on_graph && type != KeyPress) return 0;
    if (on_graph) {
        int x = 0, y = 0, located = 1;
        if (type == KeyPress) { x = event->xkey.x; y = event->xkey.y; }
        else if (type == ButtonPress || type == ButtonRelease) { x = event->xbutton.x; y = event->xbutton.y; }
        else if (type == MotionNotify) { x = event->xmotion.x; y = event->xmotion.y; }
        else if (type == LeaveNotify) { x = event->xcrossing.x; y = event->xcrossing.y; }
        else located = 0;
        if (located) define_graph_cursor_location(x, y);
    }
    switch (type) {
    case KeyPress: {
        char key;
        if (!get_key_press(&event->xkey, &key)) return 0;
        if (on_graph && key == 11) action_graph_arrow_left_right(0);
        else if (on_graph && key == 12) action_graph_arrow_left_right(1);
        else if (on_graph && key == 21) action_graph_arrow_up_down(1, pointer_value);
        else if (on_graph && key == 4) action_graph_arrow_up_down(0, pointer_value);
        else return graph_event_handler_specific(event);
        return 1;
    }
    case ButtonPress:
        switch (event->xbutton.button) {
        case 1: action_graph_button1(pointer_index); break;
        case 2: case 3: action_graph_button23(1, pointer_index); break;
        case 4: action_graph_arrow_up_down(1, pointer_value); break;
        case 5: action_graph_arrow_up_down(0, pointer_value); break;
        default: fflush(stdout); fprintf(stderr, "more than 5 buttons?\n"); break;
        }
        return 1;
    case ButtonRelease:
        if (event->xbutton.button == 2 || event->xbutton.button == 3) action_graph_button23(0, pointer_index);
        return 1;
    case MotionNotify: action_graph_motion_notify(); return 1;
    case LeaveNotify:
        graph.cursor_selection = 0;
        show_information_graph(0);
        return 1;
    case Expose: build_graph_display_x11(0); return 1;
    case ConfigureNotify: {
        int w = event->xconfigure.width, h = event->xconfigure.height - 60;
        if ((w != graph.nwidth || h != graph.nheight) && w > 0 && h > 0) {
            graph.nwidth = w;
            graph.nheight = h;
            make_graph_pixmap();
            update_graph_selectable_text();
            build_graph_display_x11(1);
        }
        return 1;
    }
    case ClientMessage:
        if ((Atom)event->xclient.data.l[0] == wm_delete_window) close_graph_window();
        return 1;
    default: return 0;
    }
}

/* ---- started from the image window ---- */

void action_key_g(void)
{
    if (graph.type != 0 || graph.nwidth == 0 || XWindow_graph == 0) {
        graph.type = 0;
        initialize_graph();
        make_XWindow_graph();
        update_image_and_graph(1);
    } else {
        XRaiseWindow(XServerDisplay, XWindow_graph);
        update_image_and_graph(1);
    }
}

void action_set_projection_location(void)
{
    mosaic.icross = mosaic.icursor;
    update_image_and_graph(1);
}
