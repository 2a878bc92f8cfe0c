#pragma once
/* The distortion-map files: "distortions.nii" (NIfTI-1, one file) or a text header with float
   data. Reads and writes distort_x, distort_y, distort_z; geometry from template_. No X11. */
#include <cstdio>
#include "types.h"
/* Writes the three maps under the name's root; the extension picks the kind ("nii": root.nii;
   "bfloat", "bshort", "ushort", "img": root.hdr and root.bfloat, float data whatever the
   extension says). Cuts file_name at its last '.' (the caller restores it). Each file is
   written to a temporary in the same directory and renamed over the old one only when
   complete. Returns 0, or 1 after a message with every previous file intact. */
int write_distortion_files(char *file_name);
/* The two halves of write_distortion_files, for a save that renames several files only when
   all are complete: the first writes, checks and closes the temporaries (0, or 1 after a
   message with nothing left behind), the second renames them over their final names (0, or 1
   after a message) and discard removes them instead. */
int write_distortion_temporaries(char *file_name);
int rename_distortion_temporaries(void);
void discard_distortion_temporaries(void);
int open_output_file(int ntime, int format, char *file_name_root, FILE **file);
int write_nifti_header(int ntime, char *file_name_root, FILE **file);
int read_distortion_file(char *file_name, QL_HEADER header);
