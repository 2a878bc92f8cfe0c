#pragma once
/* FreeSurfer bshort/bfloat slice stacks: the ".bhdr" geometry and the first slice header. */
#include "types.h"
int read_freesurfer_header(char *name, QL_HEADER *header);
int decode_freesurfer_header_keyword(char *line, QL_HEADER *header, float *corners);
