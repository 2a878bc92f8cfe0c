#pragma once
/* Writing NIfTI-1 single files (".nii", or ".nii.gz" packed with zlib) through nifticlib's znz,
   with the geometry of a reference volume, without ever leaving a partial file under the final
   name: the data go to a temporary name in the same directory (keeping the extension, see
   safe_save.h), every write and the close are checked, and the file is renamed when complete.
   Also the reference geometry itself and its world matrix. No globals; no X11. */
#include <cstddef>

#include <nifti1_io.h>
#include <znzlib.h>

#include "types.h"

/* The NIfTI-1 header that gives an output the geometry of the volume file `file_name' (already
   read into `stack'): for a NIfTI file (".nii", ".nii.gz", ".img" with its ".hdr") its own
   header as stored, put into this machine's byte order, so that the qform and sform (codes,
   quaternion, offsets, qfac, rows), voxel sizes and units are those of the file; for a quill or
   FreeSurfer volume a header whose sform is the stack's ijk_to_xyz and whose qform is the same
   matrix as a quaternion (both codes 1, millimetres). Returns 0, or 1 after
   "Error: cannot read the NIfTI header of %s\n". */
int reference_nifti_header(const char *file_name, const data_stack *stack, nifti_1_header *header);

/* Makes `header' (a reference header from reference_nifti_header) the header of a new file on
   the same grid: nt volumes (dim[0] 3 for one, else 4) of `datatype' (DT_UINT8, DT_INT16,
   DT_UINT16, DT_INT32 or DT_FLOAT32), unscaled (scl_slope 0), no intent, the description text
   `description', data at byte 352. The geometry fields are left as they are. */
void make_output_header(nifti_1_header *header, int nt, int datatype, const char *description);

/* voxel -> world (mm) of a NIfTI header as nibabel reads it: the sform when sform_code is set,
   else the qform when qform_code is set, else voxel sizes about the grid's centre with x
   flipped. In double. */
void nifti_world_matrix(const nifti_1_header *header, double m[4][4]);

/* One output file being written. */
struct nifti_output {
    znzFile fp;
    char final_name[1024];
    char temp_name[1024];
    size_t bytes_left;   /* data bytes the header announces and that are not yet written */
};

/* Opens the temporary file for final_name (packed when final_name ends in ".nii.gz") and writes
   the header and the 4-byte extender. Returns 0, or 1 after "Error: cannot open the output file
   %s\n" (final name) or the failure message of nifti_output_close (nothing is left behind). */
int nifti_output_open(nifti_output *out, const char *final_name, const nifti_1_header *header);

/* Writes `bytes' bytes of data. Returns 0, or 1 after the failure message (the temporary file is
   removed; the final name keeps its previous file). */
int nifti_output_write(nifti_output *out, const void *data, size_t bytes);

/* Checks that all announced data were written, closes (flushing zlib's stream), syncs and
   renames the file to its final name. Returns 0, or 1 after
   "Error: %s could not be written (%s); the previous file is kept.\n" (final name, reason);
   the temporary file is then removed. */
int nifti_output_close(nifti_output *out);

/* Gives up a file: closes and removes the temporary file, prints nothing. */
void nifti_output_discard(nifti_output *out);
