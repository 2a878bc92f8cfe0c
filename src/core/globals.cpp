/* Definitions of the process-wide records declared in globals.h. */
#include "globals.h"

data_stack original_unfiltered, template_unfiltered;
data_stack original, template_, individual;
data_stack distort_x, distort_y, distort_z, distort_d, NL_bases;
data_stack activation_stack, atlas, image_stack;

float individual_scale_min, individual_scale_max;
float template_scale_min, template_scale_max;
float distort_scale_min, distort_scale_max;
int iTime_Template;

alignment_record Alignment;
align_aid_record AlignAid;
align_nl_record AlignNL;

mosaic_display mosaic;
graph_struct graph;
float image_scale_min, image_scale_max, image_scale_slope, image_scale_offset;
float contrast_low = 0.0f, contrast_high = 1.0f;
float act_scale_slope, act_scale_offset;

ovl_list ovl_root;
wire_list wire_root;
ovl_map overlay_map;
file_list individual_files, template_files, activation_files, atlas_files;

char program_name[1024];
