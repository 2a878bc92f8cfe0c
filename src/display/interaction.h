#pragma once
/* The rules of the image window that need no X11: contrast drags and shifts, the re-flow of
   the mosaic on a resize, the choice of central slices, the slice window of the in/out keys
   and the time point of the displayed stack. Reads and writes mosaic and contrast_low/high. */

/* A button-1 release counts as a drag only when both x and y moved.
   Deliberate: a purely horizontal or vertical drag is a click (ContrastDrag.OneAxisIsAClick). */
int is_contrast_drag(int x_press, int y_press, int x_release, int y_release);
/* Moves contrast_low/high for a drag; the levels move towards -0.5 and 1.75. */
void apply_contrast_drag(int x_press, int y_press, int x_release, int y_release);
/* Arrow contrast shift: up lowers both levels, down raises them, by at most 0.05. */
void apply_contrast_shift(int up);
/* New panel columns and rows for a window resized to width x height; 1 when they changed. */
int reflow_panels(int width, int height);
/* selection[k] = 1 for the n central of nslices slices (rule of the display size), else 0. */
void select_central_slices(int *selection, int nslices, int n);
/* Number of slices along the mosaic axis of the displayed stack. */
int mosaic_slice_count(void);
/* Slides the window of shown slices by one (in: towards lower numbers) and moves the crosshair
   with it; 1 when it moved, 0 when all slices are shown or the end is reached. */
int slide_shown_slices(int in);
/* Shows time point t (0..nt-1) of the displayed stack; for the individual it becomes the graph's
   time point, resampled under the current alignment. Other t change nothing. */
void set_displayed_time_point(int t);
/* The displayed time point of the stack, one step up or down with wrap. */
void action_increment_image(void);
void action_decrement_image(void);

/* One key of the modal text input applied to result (1024 characters): Escape (27) cancels
   (-1); Return (13) ends (1); Backspace (8) or Delete (127) removes the last character only
   while more than one remains; a character accepted by mode (0 any printable, 1 letters,
   2 digits, 3 letters or digits) is appended and ends the input when multi is 0 (1).
   Returns 0 while the input goes on. */
int prompt_edit(char *result, int c, int mode, int multi);
