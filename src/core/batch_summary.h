#pragma once
/* The record of one align-batch run and its JSON summary (summary.json). No globals; no X11. */
#include "types.h"

#define BATCH_MAX_LEVELS 16

/* One level of one stage (affine or non-linear) as the summary reports it. */
struct batch_level {
    char stage[32];     /* "affine" or "nonlinear" */
    float voxel_mm;     /* voxel size of the level's template grid along x */
    IPOINT3D dim;       /* the level's template grid */
    char kernel[16];    /* "fast" or "accurate" */
    int steps;          /* steps taken (search-specific) */
    float similarity;   /* mutual information on the level's grid at its end; NaN when not measured */
    double seconds;
};

struct batch_record {
    char version[64];
    char individual[1024], template_name[1024], mask[1024], out_dir[1024];
    char search[16];                /* "accurate" or "specified" */
    int nonlinear;                  /* 1 when a non-linear stage ran */
    float parameters[12];           /* Alignment.value[0..11] at the end */
    IPOINT3D orientation;           /* quarter turns */
    int swap_z;
    float start_translation[3];     /* accurate search: from the centres of mass */
    int orientations_tried;         /* accurate search: quarter-turn orientations compared */
    float similarity_before;        /* mutual information before the alignment (fast kernel) */
    float similarity_affine;        /* after the affine stage (accurate kernel) */
    float similarity_final;         /* at the end (accurate kernel) */
    int nlevels;
    batch_level level[BATCH_MAX_LEVELS];
    long folded_voxels;             /* template voxels whose Jacobian determinant is <= 0 */
    long low_jacobian_voxels;       /* ... is <= 0.2 (align's "bad links") */
    float jacobian_min, jacobian_max;
    double seconds_read, seconds_affine, seconds_nonlinear, seconds_outputs, seconds_total;
    int threads;
    char outputs[6][1100];          /* absolute names of the files written, empty when unused */
};

/* Writes the record as JSON to file_name through a safe save. Numbers that are not finite are
   written as null. Returns 0, or 1 after a message naming the file. */
int write_batch_summary(const char *file_name, const batch_record *r);
