#pragma once
/* Event reading and dispatch of the image window, shared by the event loop and the modal
   prompts. Xlib. */
#include "x11_globals.h"

/* Blocks for one event: 1 for the image window, 2 for the graph window, 0 otherwise. */
int get_next_event(XEvent *event);
/* One character code of a key press; 1 when it lies in 1..127, else 0 (ignore the key). */
int get_key_press(XKeyEvent *event, char *key);
int image_event_handler_general(XEvent *event);
int image_event_handler_specific(XEvent *event);
