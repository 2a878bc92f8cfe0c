#pragma once
/* FreeSurfer bshort/bfloat slice stacks: the ".bhdr" geometry and the first slice header. */
#include "types.h"
/* name is the stem ending in '_' (else a programming error ends the program). Reads stem.bhdr,
   the byte order of stem000.hdr and the storage of stem000.bshort/.bfloat; 0, or 1 after a
   message. */
int read_freesurfer_header(char *name, QL_HEADER *header);
/* One ".bhdr" line; corners is the caller's scratch of 16 floats. 0, or 1 for an unknown keyword. */
int decode_freesurfer_header_keyword(char *line, QL_HEADER *header, float *corners);
