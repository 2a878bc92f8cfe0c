#pragma once
/* Volume header detection by file name, the quill text header, byte order helpers.
   Writes only the caller's QL_HEADER (and, deliberately, the caller's name strings). No X11. */

#include "types.h"

/* Fills header for the data file name: dispatch by name (trailing '_' FreeSurfer, ".nii",
   ".nii.gz" and ".img" NIfTI-1, anything else a quill header), then xyz_to_ijk, fov, n2d, n3d, n4d. Returns 0, or 1
   after the reader's message. Dimensions that are not positive or whose value count exceeds
   what one 32-bit float block can hold are refused with a message, and so is a voxel size that
   is not a positive finite number on every axis, or a voxel-to-space matrix that is singular
   or whose inverse is not finite. A name's trailing newline
   is cut (see get_extension). */
int read_volume_header(char *name, QL_HEADER *header);
/* Reads the quill header of name (its extension replaced by "hdr"); 0, or 1 after a message. */
int read_quill_header(char *name, QL_HEADER *header);
/* 0 applied, 1 error, -1 the free-text information section starts. */
int decode_quill_header_keyword(char *line, QL_HEADER *header);
/* *type = code of the text after the last '.' (1 bshort, 3 blong, 2 bfloat, 4 ushort, 6 nii,
   7 img, else -1). 1 and a message when name has no '.'. Cuts a trailing newline from name. */
int get_extension(char *name, int *type);
/* 1 when name ends in ".nii.gz": a gzipped single-file NIfTI-1 volume, read through znz (any
   other name ending in ".gz" is a quill data file with the extension "gz"). */
int is_gzipped_nifti_name(const char *name);
/* result (1024 chars) = name with the text after its last '.' replaced; 1 when get_extension fails. */
int replace_extension(char *name, int *type, const char *new_extension, char *result);
/* Format code of an output name; cuts the caller's name at its last '.'. */
int quill_format(char *name);
/* 1 when the machine stores the least significant byte first, else 0. */
int machine_byte_order(void);
void swap_16(void *p);
void swap_32(void *p);
/* The defaults of a fresh header (dimensions 0, resolution 1, direction 1, machine order). */
void set_header_defaults(QL_HEADER *header);
