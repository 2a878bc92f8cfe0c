#pragma once
/* The accurate affine search of align-batch. Runs on a pyramid of reduced copies of the working
   volumes: a robust start (centres of mass, and optionally the quarter turns of the orientation),
   then at each level Gauss-Newton steps on a robust intensity-remapped residual, the finest level
   with the accurate kernel. Reads template_ and original; writes Alignment.value,
   Alignment.OrientRotation and Orient, and individual (resampled at the end with the accurate
   kernel). The engines are called through transform_coordinates and cost_function. No X11. */
#include "types.h"

#define SEARCH_MAX_LEVELS 8

struct search_level_report {
    float voxel_mm;    /* voxel size of the level's template grid along x, mm */
    IPOINT3D dim;      /* the level's template grid */
    int kernel;        /* 0 fast Gaussian, 1 accurate Lanczos */
    int residual_steps;    /* Gauss-Newton steps on the remapped residual accepted */
    int information_steps; /* steps that raised the mutual information */
    float residual;    /* robust scale of the intensity residual at the end of the level */
    float similarity;  /* mutual information (cost_function(0)) on the level's grid at its end;
                          for the finest level, at full resolution with the accurate kernel */
    double seconds;    /* wall time of the level */
};

struct accurate_search_report {
    int nlevels;
    search_level_report level[SEARCH_MAX_LEVELS];
    float start_translation[3];  /* translations that match the centres of mass, mm */
    int orientations_tried;      /* quarter-turn orientations compared (0: not searched) */
    float orientation_similarity[24]; /* their mutual information after a rigid fit */
    IPOINT3D orientation_tried[24];
    IPOINT3D orientation;        /* Alignment.OrientRotation chosen */
    float similarity;            /* mutual information at full resolution, accurate kernel */
};

/* The search. search_orientation nonzero: compare the 24 quarter-turn orientations at the
   coarsest level and keep the best (the present one unless another is clearly better).
   Parameters whose AlignAid.Adjust flag is 0 keep their values. Prints one progress line per
   step and a summary line per level. Returns 0, or 1 after a message when the template has no
   voxel to compare or the individual is empty. On return the working volumes, Alignment's
   geometry and individual are those of the full resolution again. */
int accurate_affine_search(int search_orientation, accurate_search_report *report);
