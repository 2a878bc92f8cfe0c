#pragma once
/* What the start-up and the display files call: the selectable menu texts, the graph record,
   the X11 connection, the image window and the event loop, the modal prompts and the actions
   bound to keys. No X11 types here (x11_globals.h and x11_events.h hold those). */

/* The menu items of the image window (mosaic.SelectText). */
void initialize_selectable_text(void);
/* The graph record at rest: no graph window, nothing plotted. */
void initialize_graph(void);
/* Opens the display (TrueColor visual, WM_DELETE_WINDOW atom) and installs the X11 display
   hooks. Without a display prints two lines and ends the program with status 1. */
void initialize_XWindows(void);
/* The main loop; never returns (the program ends through action_quit). */
void loop_X_events(void);

/* The image window at the current layout: first zoom, fall-backs, pixmaps and images. */
void make_XWindow_image(void);
void create_colorbar(void);
/* The window title "<program> (zoom = %d)". */
void change_window_name(void);

/* One character code of a keysym (Home/End 13, Left 12, Up 21, Right 11, Down 4, Prior '+',
   Next '-', Help 'h'); 0 for any other keysym (the looked-up string decides then). */
int keysym_to_code(unsigned long keysym);

/* Modal one-line input on the information line (where 0 image, 1 graph, 2 both); mode 0 any
   character, 1 letters, 2 digits, 3 letters or digits; multi 0 ends after one character.
   Returns 0 on Escape, 1 otherwise with the answer in result (1024 characters). */
int get_X11_string(int where, const char *prompt, const char *hint, const char *deflt, int mode, int multi,
                   char *result);
/* "Really quit?": y or Y saves the alignment and ends the program with status 0; when the save
   fails the session goes on. */
void action_quit(void);
/* The program's part of quitting: saves the alignment; 0, or 1 when the save failed. */
int action_quit_specific(void);

void reset_cursor_selections(void);
void action_select_slices(void);
void action_key_question_mark(void);
void show_information_text_image(int pointer_moved);
void draw_crosshairs(void);
void draw_wire_frames(void);
/* The right panel of the image window. */
void draw_right_panel(void);
