#pragma once
/* The twelve-parameter affine model: initialisation of Alignment, AlignAid (and the starting
   AlignNL), the affine matrix, increments, the printed parameter table, and the pointing of
   the display at the chosen volume. No X11; redraws go through display_hooks. */
#include "types.h"
void initialize_alignment(void);
void define_affine_matrix(void);
void calculate_orientation_rotation(void);
void define_cosine_sine(int quarter_turns, float *cosine, float *sine);
void update_alignment(int arg);
void print_parameter_set(int header, int level);
void update_display_set(void);
void point_mosaic_to_stack_data(void);
void rescale_image_settings(void);
void convert_activation_scale(int first, int last);
void get_starting_increments(int level, float increment[12]);
void action_set_increments(int level);
