#pragma once
/* Loading a role's list of data files into one data_stack. Reads and writes the stack given;
   recognises activation_stack by identity. No X11. */
#include "types.h"
/* Reads every header of the list (checked against the first file the run ever read), then
   allocates npts_volume*nt floats and reads each file; *nfiles = files read. Returns 0, or 1
   after a message. Stacks beyond one 32-bit float block, files whose storage type is not known
   (their values would never be read), and data files that are missing or shorter than their
   headers say are refused before anything is allocated. */
int read_SpaceTime_data(int common_dimensions, data_stack *stack1, file_list *file_info, int *nfiles);
/* Forgets the run's reference, so that the next file read sets it anew. align reads one run a
   process and never calls it; programs that load independent runs in one process (the fuzz
   targets) call it before each. */
void forget_SpaceTime_reference(void);
/* The voxels of one quill or NIfTI file into its volumes of the stack (swapped, scaled). 0 or 1. */
int read_quill_file(data_stack *stack1, file_list *file_info);
/* The same for a FreeSurfer stack of slice files. 0 or 1. */
int read_freesurfer_file(data_stack *stack1, file_list *file_info);
/* Appends a file to a role's list (fills the head node when its name is empty). */
void add_image_file(file_list *list, const char *name, int scale_log, int type);
