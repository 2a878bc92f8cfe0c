/* The align program built with the reference engine: its link wraps every call of
   transform_coordinates and cost_function (-Wl,--wrap) so that they run the reference
   arithmetic. The black-box equality test runs it beside align on the same case. */
#include "reference_engine.h"

extern "C" void __wrap__Z21transform_coordinatesii(int all_voxels, int most_accurate)
{
    reference_transform_coordinates(all_voxels, most_accurate);
}

extern "C" float __wrap__Z13cost_functioni(int icost)
{
    return reference_cost_function(icost);
}

/* No listed trials: the search resamples and measures through the two calls above. */
struct trial_volumes;
extern "C" trial_volumes *__wrap__Z19begin_trial_volumesv(void)
{
    return nullptr;
}
