#pragma once
/* The per-voxel arithmetic every walk from the template's grid into the individual's shares:
   the resampling of the engines (resample.cpp and its vector kernels) and the whole-image
   mapping of align-apply (apply_transform.cpp) must give the same positions bit for bit. */
#include "types.h"

/* (x,y,z,1) through rows 0..2 of m, each row summed in float over the four columns in order:
   the arithmetic of apply_mat44 and of transform_coordinates. */
static inline POINT3D apply_rows(const float m[4][4], float x, float y, float z)
{
    POINT3D r;
    float s;
    s = 0.0f; s += x * m[0][0]; s += y * m[0][1]; s += z * m[0][2]; s += 1.0f * m[0][3]; r.x = s;
    s = 0.0f; s += x * m[1][0]; s += y * m[1][1]; s += z * m[1][2]; s += 1.0f * m[1][3]; r.y = s;
    s = 0.0f; s += x * m[2][0]; s += y * m[2][1]; s += z * m[2][2]; s += 1.0f * m[2][3]; r.z = s;
    return r;
}

/* Grid index j of an axis of n voxels, brought back once by n when the axis wraps around
   (still outside the grid when it lay more than one length off). */
static inline int wrap_once(int j, int n, int wraps)
{
    if (wraps) {
        if (j < 0) j += n;
        else if (j >= n) j -= n;
    }
    return j;
}

/* Positions beyond this many voxels are treated as off the grid (also catches NaN). */
static const float far_off_grid = 1.0e8f;
