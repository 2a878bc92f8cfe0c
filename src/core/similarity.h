#pragma once
/* Mutual information and normalized correlation of individual against template_. No X11. */
float cost_function(int icost);
void calculate_volume_averages(float *av_individual, float *av_template);
