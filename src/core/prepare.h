#pragma once
/* Working volumes, resolution changes of the template grid, down-sampling. No X11. */
#include "types.h"
void initialize_mosaic_ovl(int number_panels);
void action_change_resolution(void);
void downsample_stack(data_stack *stack, IPOINT3D new_dim);
