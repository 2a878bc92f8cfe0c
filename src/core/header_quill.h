#pragma once
/* Volume header detection by file name, the quill text header, byte order helpers.
   Writes only the caller's QL_HEADER (and, deliberately, the caller's name strings). No X11. */

#include "types.h"

int read_volume_header(char *name, QL_HEADER *header);
int read_quill_header(char *name, QL_HEADER *header);
/* 0 applied, 1 error, -1 the free-text information section starts. */
int decode_quill_header_keyword(char *line, QL_HEADER *header);
int get_extension(char *name, int *type);
int replace_extension(char *name, int *type, const char *new_extension, char *result);
/* Format code of an output name; cuts the caller's name at its last '.'. */
int quill_format(char *name);
int machine_byte_order(void);
void swap_16(void *p);
void swap_32(void *p);
/* The defaults of a fresh header (dimensions 0, resolution 1, direction 1, machine order). */
void set_header_defaults(QL_HEADER *header);
