#pragma once
/* The graph window: its record at rest, the window, the plot, its menu and information line,
   its event dispatch and the graph actions that the image window starts. Xlib. */
#include "x11_globals.h"

/* The graph record at rest (no plot, automatic y range, the menu items). The first call, at
   start-up, also sets graph type -1: no graph window, clicks in the image move the crosshair. */
void initialize_graph(void);
/* Creates the graph window (500 x 250 plot unless it has a size already) beside the image
   window, registers WM_DELETE_WINDOW and maps it. */
void make_XWindow_graph(void);
/* Places the menu items of the bottom band for the current width. */
void update_graph_selectable_text(void);
void define_graph_cursor_location(int x, int y);
/* The information line of the graph window: the point and value under the pointer when
   pointer_moved, else the current point. */
void show_information_graph(int pointer_moved);
/* A prompt of get_X11_string on the graph's information line (nothing without a window). */
void show_on_graph_info_line(const char *line, const char *hint);

int graph_event_handler_general(XEvent *event);
/* The graph's own keys; any other key typed in the graph window goes to the image window. */
int graph_event_handler_specific(XEvent *event);

/* Key 'g' of the image window: opens the graph window at type 0, or raises it. */
void action_key_g(void);
/* The profiles (types 0, 1, 2) pass through the voxel under the pointer: crosshair there. */
void action_set_projection_location(void);
