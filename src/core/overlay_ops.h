#pragma once
/* The overlay map and the root overlay kept in step; clear, move, mirror and list stepping
   of overlays and wire-frames. Reads mosaic.stack; writes overlay_map, ovl_root, wire_root. */
void initialize_overlay_records(void);
void update_overlay_map(void);
void update_root_overlay(int rename);
void action_clear_overlay(void);
void action_clear_wires(void);
void move_overlay_in_one_direction(int axis, int step);
void action_mirror_overlay(void);
void action_step_overlay_list(int forward, int add);
