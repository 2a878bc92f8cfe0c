#pragma once
/* The warped brain pair of the non-linear acceptance run, shared by the long test, the equality
   tests and the benchmarks: the template is ch2bet, the individual is ch2 under a known small
   affine plus a smooth displacement of a few millimetres, both reduced to f mm voxels by averaging
   f x f x f blocks (f = 1 keeps the 1 mm voxels). */
#include <cstddef>
#include <vector>

struct BrainGrid {
    int nx, ny, nz;
    std::vector<float> v;
    float at(int x, int y, int z) const { return v[((size_t)z * ny + y) * nx + x]; }
};

/* The known mapping from individual space to template space (centred frames, mm):
   F(y) = M y + t + u(y). */
struct BrainWarp {
    double M[3][3], Minv[3][3], t[3];
};

struct BrainCase {
    int voxel_mm;
    BrainGrid tpl, ind;
    BrainWarp warp;
};

/* Reads a uint8 NIfTI volume and averages f x f x f blocks (an odd last plane is dropped);
   false when it cannot be read or holds another type. */
bool read_reduced(const char *name, int f, BrainGrid *g);

/* Reads the pair (Debian mricron-data) and warps the individual; false when the files are
   missing. */
bool make_brain_case(int voxel_mm, BrainCase *c);

/* Loads the pair into original_unfiltered and template_unfiltered and runs the start-up steps
   without a window (alignment records, centred matrices, filtered copies, first resampling). */
void start_brain_case(const BrainCase &c);

/* y with F(y) = x. */
void brain_warp_inverse(const BrainWarp &w, const double x[3], double y[3]);

/* Centred position (mm) of a voxel of a grid of the case. */
void brain_voxel_position(const BrainCase &c, const BrainGrid &g, int x, int y, int z, double p[3]);

/* Everything a non-linear search changes: the three maps and the resampled individual, the
   coefficients, their increments and adjust flags; saved to run a search again from one start. */
struct NlSearchState {
    std::vector<float> dx, dy, dz, ind, value, increment;
    std::vector<int> adjust;
};
void save_nl_search_state(NlSearchState *s);
void restore_nl_search_state(const NlSearchState &s);
