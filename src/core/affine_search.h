#pragma once
/* Automatic affine alignment: levels, passes, line scans, parabola. No X11. */
void action_auto_adjust_affine(int button);
void auto_adjust_affine_iterations(int icost, int ilevel_max, int ilevel_min);
int adjust_affine_1pass(int icost, int ilevel);
void line_scan_1d(int icost, float cost_initial, float *cost_final, float *increment_final);
void ParabolicInterpolation(float X3Point[3], float Y3Point[3], float *XMax, float *YMax);

/* The two calls behind every trial value of the search: resample the individual
   (transform_coordinates) and measure the similarity (cost_function). Tests install an
   analytic similarity here; the program never changes them. */
struct affine_trial_hooks {
    void (*resample)(int all_voxels, int most_accurate);
    float (*cost)(int icost);
};
extern affine_trial_hooks AffineTrial;
