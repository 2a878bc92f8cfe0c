#pragma once
/* Loading a role's list of data files into one data_stack. Reads and writes the stack given;
   recognises activation_stack by identity. No X11. */
#include "types.h"
/* Reads every header of the list (checked against the first file the run ever read), then
   allocates npts_volume*nt floats and reads each file in order; *nfiles = files read. Returns
   0, or 1 after a message. Stacks beyond one 32-bit float block and files whose storage type
   is not known (their values would never be read) are refused before anything is allocated.
   A data file that is missing, not a regular file, shorter than its header says or placed at
   a negative offset is refused when its turn comes, after the files before it, in the words
   of its read (a negative offset stops the program as the seek does); the array then has room
   only for those files (never for the values the refused file promised). The stack has the geometry of the last file; a FreeSurfer file
   earlier in the list stores its planes from start_image*npts_volume on and is refused only
   when they would run past the end of the array. */
int read_SpaceTime_data(int common_dimensions, data_stack *stack1, file_list *file_info, int *nfiles);
/* Forgets the run's reference, so that the next file read sets it anew. align reads one run a
   process and never calls it; programs that load independent runs in one process (the fuzz
   targets) call it before each. */
void forget_SpaceTime_reference(void);
/* The voxels of one quill or NIfTI file into its volumes of the stack (swapped, scaled). 0 or 1;
   a file that cannot be opened or is shorter than its header says is refused before any read. */
int read_quill_file(data_stack *stack1, file_list *file_info);
/* The same for a FreeSurfer stack of slice files: value j of plane z of volume t goes to
   element start_image*npts_volume + t*npts_volume + z*n2d + j. 0 or 1; refused before any
   read when a slice file is short or the planes would run past the stack's array. */
int read_freesurfer_file(data_stack *stack1, file_list *file_info);
/* Appends a file to a role's list (fills the head node when its name is empty). */
void add_image_file(file_list *list, const char *name, int scale_log, int type);
