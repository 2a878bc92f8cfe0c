#pragma once
/* Applying a session's alignment to image files: the input read in any format align reads,
   checked against the grid it must lie on, resampled volume by volume (with progress lines) and
   written as NIfTI-1 (".nii" or ".nii.gz") with the geometry of the output grid's own file;
   optionally the Jacobian determinant map and the world-space displacement field.
   Needs a session (start_session) whose template is the alignment's and whose individual gives
   the individual's grid, and the alignment recalled into Alignment and distort_x/y/z. Reads
   template_unfiltered, original_unfiltered, Alignment and the maps. No X11. */
#include "types.h"

struct apply_request {
    int inverse;                  /* 0: individual grid -> template grid; 1: the other way */
    int kernel;                   /* APPLY_ACCURATE, APPLY_LINEAR or APPLY_NEAREST */
    const char *template_name;    /* the template file read into template_unfiltered */
    const char *individual_name;  /* the file read into original_unfiltered (the individual's grid) */
    const char *input_name;       /* the image to move */
    const char *output_name;      /* ".nii" or ".nii.gz" */
    const char *jacobian_name;    /* NULL, or where the Jacobian determinant map goes */
    const char *field_name;       /* NULL, or where the displacement field goes */
};

/* Reads the input (every volume), refuses complex data and an input that is not on the grid it
   must lie on (forward: the individual's; inverse: the template's: same dimensions and voxel
   sizes within 1e-4 of each other), maps the output grid into the input's (inverse: prints the
   largest residual and the count of voxels where folds make the mapping not invertible),
   resamples every volume and writes the output; then the optional outputs. The output's
   datatype is float, except that the nearest-neighbour kernel keeps the input's stored integer
   type (and its scaling) whenever every value can be stored back exactly. Returns 0, or 1 after
   a message; a failed write leaves any earlier file of that name as it was. */
int apply_alignment(const apply_request *request);

/* For programs that hold the individual in memory: every volume of `input' (a stack on the
   individual's grid, such as original_unfiltered) resampled onto the template's full grid under
   the session's alignment with the accurate kernel, written as float NIfTI-1 to output_name
   with the geometry of the template file template_name. The displacement maps must be on the
   template's full grid (after a search at reduced resolution, bring the session back to full
   resolution first). Returns 0, or 1 after a message. */
int write_aligned_volume(const data_stack *input, const char *template_name, const char *output_name);
