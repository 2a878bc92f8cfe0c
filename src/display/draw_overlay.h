#pragma once
/* Overlays and wire-frames drawn with the mouse in the image window, and the activated region
   picked with 'n'. No X11 types here (the implementation in x11_draw_overlay.cpp uses Xlib). */
#include "types.h"

/* The button (2 draw, 3 erase) of the outline that the next action_image_draw_overlay(1)
   starts. */
void overlay_draw_button(int button);
/* 1: start an outline at the pointer (the region test has just run); 0: add the pointer
   position while it stays on the outline's slice; -1: close the outline, fill it into the
   overlay map (weight 1 and the root overlay's colour, or weight 0 when erasing), bring the
   root overlay in step and redraw. */
void action_image_draw_overlay(int stage);
/* Modal: button-1 clicks add control points to a new curve of wire_root until Return or
   Escape; a last point near the first closes the curve. */
void action_draw_wires(void);
/* Adds to the overlay the connected activated region under the pointer. */
void action_select_activated_point(void);
/* Draws the curves of one wire list into the image pixmap, on the planes shown. */
void draw_wire_list(const wire_list *wire);
