#pragma once
/* What the accurate affine and non-linear searches of align-batch share: reduced copies of the
   working volumes (a pyramid of levels), the pointing of the engines (transform_coordinates,
   cost_function) at a level's grid and back, and the robust intensity-remapped residual.
   A level swaps template_, original, individual, the displacement maps and Alignment's geometry
   for its own while the engines run on it, and puts them back. No X11. */
#include <cstddef>

#include "types.h"

/* A volume of dim voxels of res mm in the centred frame of align (voxel i at (i-(n-1)/2)*res). */
struct grid_volume {
    IPOINT3D dim;
    POINT3D res;
    float *data; /* dim.x*dim.y*dim.z values, x fastest; from float_vector unless borrowed */
};

size_t grid_size(IPOINT3D d);
void free_grid(grid_volume *g);
/* Volume t of a stack, borrowed (not copied). */
grid_volume volume_of(const data_stack *s, int t);
/* The voxels of the template that take part: mask gets tpl's grid and a new volume of 1 where
   tpl is non-zero, 0 elsewhere (free_float_vector(mask->data) when done). 0, or 1 after a
   message (and nothing to free) when the template has no non-zero voxel. */
int template_mask(const grid_volume *tpl, grid_volume *mask);
/* out = in reduced to new_dim by a separable Gaussian of FWHM equal to the size ratio per axis,
   the grids sharing their centre (a copy when the grid is the same); non-finite values count as
   0. The voxel size grows by the ratio. */
void reduce_grid(const grid_volume *in, IPOINT3D new_dim, grid_volume *out);
/* The grid of a volume reduced to voxels of about voxel_mm per axis: never finer than the
   volume itself, at least one voxel. */
IPOINT3D reduced_dim(IPOINT3D dim, POINT3D res, POINT3D voxel_mm);
/* Centred position in mm of voxel (x, y, z) of a grid. */
inline void centred_mm(const grid_volume *g, int x, int y, int z, double p[3])
{
    p[0] = (x - (g->dim.x - 1) / 2.0) * g->res.x;
    p[1] = (y - (g->dim.y - 1) / 2.0) * g->res.y;
    p[2] = (z - (g->dim.z - 1) / 2.0) * g->res.z;
}

/* One level: the template and the individual reduced to about the same voxel size. */
struct search_level {
    grid_volume tpl;        /* reduced template */
    unsigned char *inside;  /* 1 where the reduced template takes part (its mask, less its outer layers) */
    grid_volume support;    /* tpl inside the mask, a tiny value on a one-voxel rim around it, 0 elsewhere:
                               what the resampling walks, so that gradients are defined up to the rim */
    grid_volume compare;    /* tpl inside the mask, 0 elsewhere: what mutual information compares */
    grid_volume ind;        /* reduced individual */
    long ninside;
    double moments[4][4];   /* mean of (x,y,z,1)(x,y,z,1)' over the inside voxels, centred mm */
};

/* Builds level L from the template (values, and a mask volume of 1 where it takes part), and the
   individual, both reduced to voxels of about voxel_mm along the template's x axis (the
   template's own grid when full is set). The inside set is the reduced mask less `erode'
   layers of voxels; with lattice above 1, only the voxels whose indices are all multiples of it
   (and then the resampling walks those alone: no rim, so no central differences). */
void build_level(search_level *L, const grid_volume *tpl, const grid_volume *mask, const grid_volume *ind,
                 double voxel_mm, int full, int erode, int lattice);
void free_level(search_level *L);

/* What enter_level replaced, for leave_level. */
struct engine_state {
    data_stack template_, original, individual;
    float *maps[3];
    IPOINT3D dimension;
    POINT3D resolution;
    mat44 ijk_to_xyz, xyz_to_ijk;
    int iTime_Template, graph_iTime;
};

/* Points the engines at level L: template_ walks `walk` (L's support or compare volume),
   original is L's individual, individual is `scratch` (L's grid), and the displacement maps are
   maps[0..2] on L's grid (NULL: none). */
void enter_level(engine_state *saved, search_level *L, grid_volume *walk, float *scratch, float *maps[3]);
void leave_level(const engine_state *saved);
/* Mutual information (cost_function(0)) of the individual resampled on level L with the kernel
   given (and the maps, if any) against L's template. */
float level_similarity(search_level *L, float *scratch, int kernel, float *maps[3]);

/* Template intensity -> expected individual intensity: the mean individual intensity of each
   template bin, linear between bin centres, so any one-to-one relation of contrasts fits. */
#define REMAP_BINS 64
struct remap_table {
    double tmin, width;
    double mean[REMAP_BINS];
};
double remapped(const remap_table *m, float t);
void estimate_remap(const search_level *L, const float *I, remap_table *m);
/* The cutoff of Tukey's biweight for the residuals I - remapped(T) over L's inside voxels:
   robust_cutoff_sd robust standard deviations (1.4826 x the median absolute residual). */
extern const double robust_cutoff_sd;
double robust_cutoff(const search_level *L, const float *I, const remap_table *m);
/* Biweight loss and weight of residual r for cutoff c: loss c^2/6 (1-(1-u^2)^3), weight
   (1-u^2)^2 with u = r/c, and c^2/6 and 0 beyond the cutoff. */
inline double biweight_loss(double r, double c, double *weight)
{
    double u = r / c;
    if (!(u * u < 1.0)) {
        *weight = 0.0;
        return c * c / 6.0;
    }
    double one = 1.0 - u * u;
    *weight = one * one;
    return c * c / 6.0 * (1.0 - one * one * one);
}

/* The inverse of the linear block of Alignment.Affine, by cofactors over the determinant (all
   zeros when it is singular). Its transpose takes the gradient of a volume resampled on the
   template grid to the individual's gradient in its own space. */
void affine_linear_inverse(double inv[3][3]);

/* Centre of mass (centred mm) of the voxels above the volume's mean value, weighted by value.
   1 when there is none. */
int centre_of_mass(const grid_volume *g, double c[3]);
