#pragma once
/* The distortion-map files: "distortions.nii" (NIfTI-1, one file) or a text header with float
   data. Reads and writes distort_x, distort_y, distort_z; geometry from template_. No X11. */
#include <cstdio>
#include "types.h"
int write_distortion_files(char *file_name);
int open_output_file(int ntime, int format, char *file_name_root, FILE **file);
int write_nifti_header(int ntime, char *file_name_root, FILE **file);
int read_distortion_file(char *file_name, QL_HEADER header);
