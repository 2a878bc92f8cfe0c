#pragma once
/* Process-wide records: volumes, alignment state, display model and lists. Each is defined
   once in globals.cpp; their defaults are set by the initialisation routines that own them.
   No X11 here. */

#include "types.h"

/* ---- volumes ---- */
extern data_stack original_unfiltered, template_unfiltered;
extern data_stack original, template_, individual;
extern data_stack distort_x, distort_y, distort_z, distort_d, NL_bases;
extern data_stack activation_stack, atlas, image_stack;

/* display scale remembered per kind of image, and the template time point in use */
extern float individual_scale_min, individual_scale_max;
extern float template_scale_min, template_scale_max;
extern float distort_scale_min, distort_scale_max;
extern int iTime_Template;

/* ---- alignment ---- */
extern alignment_record Alignment;
extern align_aid_record AlignAid;
extern align_nl_record AlignNL;

/* ---- display model ---- */
extern mosaic_display mosaic;
extern graph_struct graph;
extern float image_scale_min, image_scale_max, image_scale_slope, image_scale_offset;
extern float contrast_low, contrast_high;
extern float act_scale_slope, act_scale_offset;

/* ---- lists ---- */
extern ovl_list ovl_root;
extern wire_list wire_root;
extern ovl_map overlay_map;
extern file_list individual_files, template_files, activation_files, atlas_files;

/* ---- program ---- */
extern char program_name[1024];
