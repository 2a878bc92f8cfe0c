#pragma once
/* Bringing whole images through an alignment: for every voxel of an output grid its position in
   the input's voxel grid (forward: template grid -> individual, as transform_coordinates maps
   voxels; inverse: individual grid -> template, the affine inverted exactly and the
   displacement by fixed-point iteration), resampling through those positions with the accurate
   (Lanczos), trilinear or nearest-neighbour kernel, the Jacobian determinant of the mapping and
   the mapping as a world-space displacement field. Reads Alignment (values, orientation),
   template_unfiltered and distort_x/y/z; writes only what the caller passes. No X11. */
#include "types.h"

enum apply_kernel_code { APPLY_ACCURATE = 0, APPLY_LINEAR = 1, APPLY_NEAREST = 2 };

/* The kernel code of "accurate", "linear" or "nearest"; -1 for any other name. */
int apply_kernel_from_name(const char *name);

/* For each voxel of an output grid (x fastest, then y, z) the real-valued voxel position
   (x, y, z) in the input's grid that the output voxel takes its value from. */
struct voxel_positions {
    IPOINT3D dim;   /* output grid */
    float *xyz;     /* 3 floats per output voxel, allocated with float_vector */
};
void free_voxel_positions(voxel_positions *p);

/* Forward mapping on the template's full grid (template_unfiltered): the template voxel's
   centred position, Alignment.Affine (rebuilt here from Alignment.value), plus the displacement
   maps at that voxel, then the individual's centred space-to-voxel matrix for a grid of
   individual_dim voxels of individual_resolution mm; the same float arithmetic as
   transform_coordinates. Returns 0, or 1 after "Error: the displacement maps are not on the
   template's grid.\n". */
int forward_positions(IPOINT3D individual_dim, POINT3D individual_resolution, voxel_positions *p);

/* What the inversion found, over the individual voxels whose pre-image lies inside the
   template's grid (within half a voxel of its outer voxel centres). */
struct inverse_report {
    long inside;               /* voxels with a pre-image inside the template's grid */
    long not_invertible;       /* of those: in a folded region (Jacobian <= 0) or not solved */
    double largest_residual;   /* largest |T(p) - q| in mm of the solutions counted as inside */
};

/* Inverse mapping on an individual grid of individual_dim voxels of individual_resolution mm:
   for each voxel's centred position q the template point p with Affine p + d(p) = q, where d is
   the displacement maps interpolated trilinearly (clamped at the grid's faces). p starts at
   Affine^-1 q (the 4x4 inverse in double, exact for a purely affine alignment) and iterates
   p <- p - s Affine^-1 (Affine p + d(p) - q), the step s halved while the residual grows, until
   the residual is below 1e-5 mm or 200 steps. A voxel is counted as not invertible when its
   residual stays above 0.01 mm or the forward Jacobian at the nearest template voxel is <= 0.
   p is stored as template voxel position. Returns 0, or 1 after the message of
   forward_positions or "Error: the affine alignment is singular and cannot be inverted.\n"
   (as a degenerate re-orientation of three quarter turns makes it). */
int inverse_positions(IPOINT3D individual_dim, POINT3D individual_resolution, voxel_positions *p,
                      inverse_report *report);

/* One volume of the input (source, source_dim voxels, x fastest) resampled through the
   positions into out (one float per output voxel).
   APPLY_ACCURATE: Lanczos_filter(w, v - j) weights over floor(v)-w .. ceil(v)+w per axis,
     w = max(2, floor(ratio)) where ratio = output voxel size / input voxel size;
   APPLY_LINEAR: weights 1-f and f on floor(v) and floor(v)+1;
   APPLY_NEAREST: the value at rint(v), copied.
   As in transform_coordinates: a voxel whose nearest input voxel lies off the grid (after the
   one wrap of each axis whose `wrap' is nonzero) is 0; samples off the grid are skipped; the
   weight is (wz*wx)*wy in float, value*weight and the weights summed in double, z outer, x
   inner; the result is their quotient (0 for a zero weight sum). Unlike transform_coordinates,
   neither zero template voxels nor zero input voxels mask anything. Threads split the slices;
   the result does not depend on their number. */
void resample_through_positions(const voxel_positions *p, const float *source, IPOINT3D source_dim,
                                POINT3D ratio, IPOINT3D wrap, int kernel, float *out);

/* The Jacobian determinant of the output-to-input mapping, in mm per mm: the determinant of the
   positions' derivative along the output grid (central differences inside, one-sided at the
   faces) times the input's voxel volume over the output's. For the forward mapping this is
   det(Affine + grad d): the individual's volume per unit volume of template. */
void jacobian_of_positions(const voxel_positions *p, POINT3D input_resolution, POINT3D output_resolution,
                           float *out);

/* The mapping as a displacement field in world millimetres, in the ITK/ANTs convention: for
   each output voxel, input world point minus output world point, in LPS (the x and y of the
   RAS difference negated). world_out and world_in are the voxel-to-world matrices of the two
   grids (nifti_world_matrix). out holds the three components one after the other, each a whole
   volume (x fastest), ready for a 5-D NIfTI vector file. */
void world_displacement_field(const voxel_positions *p, const double world_out[4][4],
                              const double world_in[4][4], float *out);
