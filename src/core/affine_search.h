#pragma once
/* Automatic affine alignment: levels, passes, line scans, parabola. No X11. */

/* The interactive action: button 1 allows the reduced resolutions of the coarse stages, any
   other value keeps the resolution in force. The first call of the process runs the staged
   search (translations, rotations, inflations), later calls refine only. Refused with
   "No parameter is allowed to change: automatic alignment not started." when no Adjust flag
   is set. Ends with the final values printed and "done". */
void action_auto_adjust_affine(int button);
/* Levels ilevel_max down to ilevel_min (both included) of cycles of passes; icost 0 mutual
   information, otherwise normalized correlation. Thresholds on a cycle's relative gain: 0.05,
   or at level 1 0.005 when ilevel_max is 1 and 0.02 otherwise. */
void auto_adjust_affine_iterations(int icost, int ilevel_max, int ilevel_min);
/* The affine alignment of align -a from the parameters in force: the orientation rotation and
   the alignment brought up to date, parameter 0 selected, the individual shown, then the levels
   3 down to 1 on mutual information. */
void batch_affine_alignment(void);
/* One pass over the adjustable parameters from the same starting values; all move together
   by their best offsets weighted by gain / norm of gains. Returns 1 when a move reached an
   eighth of the level's starting increment; smaller moves freeze their parameter. */
int adjust_affine_1pass(int icost, int ilevel);
/* Line search of parameter AlignAid.iParameter from its value v (similarity cost_initial):
   returns the best similarity and the best value minus v. Leaves the value changed (the
   caller restores it); halves the increment when the best lies inside the first bracket.
   A similarity that is not a number ends the process ("Programming or memory error in
   line_scan_1d"). The march has no step limit; it stops early, with a message, only when a
   step leaves the similarity exactly and the resampled individual but for rounding as the
   previous step did (nothing changes any more); the best point so far is then returned. */
void line_scan_1d(int icost, float cost_initial, float *cost_final, float *increment_final);
/* Vertex of the parabola through three points, fitted in float on coordinates centred and
   scaled on the middle point. A singular fit ends the process with status 1. */
void ParabolicInterpolation(float X3Point[3], float Y3Point[3], float *XMax, float *YMax);

/* The two calls behind every trial value of the search: resample the individual
   (transform_coordinates) and measure the similarity (cost_function). Tests install an
   analytic similarity here; the program never changes them. */
struct affine_trial_hooks {
    void (*resample)(int all_voxels, int most_accurate);
    float (*cost)(int icost);
};
extern affine_trial_hooks AffineTrial;
