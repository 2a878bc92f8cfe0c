#pragma once
/* What the automatic affine search reuses for all its trials: the template's taking-part voxels
   (value not 0, NaN included) listed once in voxel order with their template values and the
   sums that depend on the template only. With it a trial resamples only those voxels and
   measures the similarity on the list, with results equal bit for bit to
   transform_coordinates(1, 0) and cost_function. The list stays valid while template_, the
   grids, iTime_Template, graph.iTime and the displacement maps do not change: the search makes
   it at its start and releases it at its end, and nothing between changes them.
   Reads template_, original, Alignment, distort_*; writes individual. No X11. */

struct trial_volumes;

/* Lists the taking-part voxels and sets individual (time point graph.iTime) to 0 at every
   other voxel, as every full resampling does. */
trial_volumes *begin_trial_volumes(void);
/* Releases the list (NULL is allowed). */
void end_trial_volumes(trial_volumes *t);
/* transform_coordinates(1, 0). */
void resample_listed(trial_volumes *t);
/* cost_function(icost) of individual as it stands; the value of the last resampling is kept,
   so asking again before the next resampling costs nothing. */
float measure_listed(trial_volumes *t, int icost);
