#pragma once
/* NIfTI-1 header reading (".nii" and ".hdr"/".img") into QL_HEADER. No X11. */
#include "types.h"
int read_nifti_header(char *name, QL_HEADER *header);
