#pragma once
/* "align.com" and the distortion-map files. No X11. */
#include <cstdio>
#include "types.h"
int save_alignment_parameters(void);
int recall_alignment_parameters(void);
int write_distortion_files(char *file_name);
int open_output_file(int ntime, int format, char *file_name_root, FILE **file);
int write_nifti_header(int ntime, char *file_name_root, FILE **file);
int read_distortion_file(char *file_name, QL_HEADER header);
