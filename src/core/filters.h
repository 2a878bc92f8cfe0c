#pragma once
/* The rolloff filter and the frequency-domain Gaussian (FFTW). Writes template_, original,
   individual (allocation). No X11. */
#include "types.h"
void filter_image_data(void);
void smooth_or_sharpen_isotropic(int sharpen, data_stack *stack, POINT3D fwhm_mm);
int ft_1d(int axis, int direction, data_stack *stack);
