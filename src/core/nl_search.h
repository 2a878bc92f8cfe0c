#pragma once
/* Automatic non-linear alignment: levels, passes, coefficient line scans. No X11. */
void action_auto_adjust_nonlinear(int button);
void auto_adjust_nonlinear_iterations(int icost, int ilevel);
void adjust_nonlinear_1pass(int ilevel, int ipass, int icost, float cost_start);
int line_scan_1d_nonlinear(float cost_initial, int icost);
void adjust_the_adjust_flags(int icost);
