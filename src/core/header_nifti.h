#pragma once
/* NIfTI-1 header reading (".nii" and ".hdr"/".img") into QL_HEADER. No X11. */
#include "types.h"
/* header holds the defaults and file_type (6 ".nii", 7 ".img" read from its ".hdr"). Fills the
   sizes, spacing, scaling, storage, lDOF (extension code 20) and ijk_to_xyz by method 1, 2 or
   3, and prints the method line. Returns 0, or 1 after a message; a header file shorter than
   348 bytes ends the program (status 1). */
int read_nifti_header(char *name, QL_HEADER *header);
