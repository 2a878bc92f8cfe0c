#pragma once
/* Loading a role's list of data files into one data_stack. Reads and writes the stack given;
   recognises activation_stack by identity. No X11. */
#include "types.h"
int read_SpaceTime_data(int common_dimensions, data_stack *stack1, file_list *file_info, int *nfiles);
int read_quill_file(data_stack *stack1, file_list *file_info);
int read_freesurfer_file(data_stack *stack1, file_list *file_info);
/* Appends a file to a role's list (fills the head node when its name is empty). */
void add_image_file(file_list *list, const char *name, int scale_log, int type);
