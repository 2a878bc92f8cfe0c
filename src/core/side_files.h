#pragma once
/* Overlay and wire-frame list files, ".ovl" and ".wire" files, ROI statistics.
   Reads mosaic.stack; writes ovl_root, wire_root, overlay_map. No X11. */
#include "types.h"
int read_overlay_list(char *list_file_name);
int read_wire_list(char *list_file_name);
int read_overlay_file(const char *file_name, ovl_list *ovl);
int write_overlay_file(void);
int read_wire_file(const char *file_name, wire_list *wire, int new_color);
int write_wire_file(void);
int write_roi_stats(int all_points);
