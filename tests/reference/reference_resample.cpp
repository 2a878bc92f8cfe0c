/* Reference resampling: transform_coordinates as first written, one voxel at a time on one
   thread, with Gauss and Lanczos_filter from numerics. Reads original, template_, Alignment,
   the AlignNL boxes and distort_*; writes individual. No X11. */
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "align_model.h"
#include "globals.h"
#include "numerics.h"
#include "reference_engine.h"

namespace {

POINT3D apply_rows(const float m[4][4], float x, float y, float z)
{
    POINT3D r;
    float s;
    s = 0.0f; s += x * m[0][0]; s += y * m[0][1]; s += z * m[0][2]; s += 1.0f * m[0][3]; r.x = s;
    s = 0.0f; s += x * m[1][0]; s += y * m[1][1]; s += z * m[1][2]; s += 1.0f * m[1][3]; r.y = s;
    s = 0.0f; s += x * m[2][0]; s += y * m[2][1]; s += z * m[2][2]; s += 1.0f * m[2][3]; r.z = s;
    return r;
}

int wrap_once(int j, int n, int wraps)
{
    if (wraps) {
        if (j < 0) j += n;
        else if (j >= n) j -= n;
    }
    return j;
}

struct axis_samples {
    int count;
    std::vector<int> index;
    std::vector<float> weight;
};

void axis_weights(axis_samples *a, float v, int n, int wraps, int w, int accurate, float sigma)
{
    int lo = (int)floorf(v) - w, hi = (int)ceilf(v) + w;
    a->count = 0;
    for (int j = lo; j <= hi; j++) {
        int jj = wrap_once(j, n, wraps);
        if (jj < 0 || jj >= n) continue;
        float d = v - (float)j;
        a->index[a->count] = jj;
        a->weight[a->count] = accurate ? Lanczos_filter(w, d) : Gauss(d, 0.0f, sigma);
        a->count++;
    }
}

}  // namespace

void reference_transform_coordinates(int all_voxels, int most_accurate)
{
    define_affine_matrix();

    IPOINT3D dim = Alignment.dimension, odim = original.dim, wrap = Alignment.WrapAround;
    int floor_w = most_accurate ? 2 : 1;
    POINT3D r;
    r.x = Alignment.resolution.x / original.resolution.x;
    r.y = Alignment.resolution.y / original.resolution.y;
    r.z = Alignment.resolution.z / original.resolution.z;
    IPOINT3D half;
    half.x = (int)floorf(r.x) > floor_w ? (int)floorf(r.x) : floor_w;
    half.y = (int)floorf(r.y) > floor_w ? (int)floorf(r.y) : floor_w;
    half.z = (int)floorf(r.z) > floor_w ? (int)floorf(r.z) : floor_w;
    POINT3D sigma;
    sigma.x = (float)(0.425 * r.x);
    sigma.y = (float)(0.425 * r.y);
    sigma.z = (float)(0.425 * r.z);

    size_t n3d = (size_t)dim.x * (size_t)dim.y * (size_t)dim.z;
    size_t on3d = (size_t)odim.x * (size_t)odim.y * (size_t)odim.z;
    const float *tpl = template_.SpaceTime.fData + (size_t)iTime_Template * n3d;
    const float *src = original.SpaceTime.fData + (size_t)graph.iTime * on3d;
    float *dst = individual.SpaceTime.fData + (size_t)graph.iTime * n3d;
    const float *dx = NULL, *dy = NULL, *dz = NULL;
    if (distort_x.SpaceTime.fData != NULL && distort_y.SpaceTime.fData != NULL &&
        distort_z.SpaceTime.fData != NULL) {
        dx = distort_x.SpaceTime.fData;
        dy = distort_y.SpaceTime.fData;
        dz = distort_z.SpaceTime.fData;
    }
    IPOINT3D start = {0, 0, 0}, end = dim;
    if (all_voxels) {
        memset(dst, 0, sizeof(float) * n3d);
    } else {
        start = AlignNL.Index3DStart[AlignNL.iBasis];
        end = AlignNL.Index3DEnd[AlignNL.iBasis];
    }

    const int onx = odim.x, ony = odim.y, onz = odim.z;
    const size_t on2d = (size_t)onx * (size_t)ony;
    int maxw = std::max(half.x, std::max(half.y, half.z));
    axis_samples ax, ay, az;
    for (axis_samples *a : {&ax, &ay, &az}) {
        a->index.resize(2 * maxw + 2);
        a->weight.resize(2 * maxw + 2);
    }
    std::vector<float> wzx(2 * maxw + 2);
    for (int z = start.z; z < end.z; z++)
        for (int y = start.y; y < end.y; y++)
            for (int x = start.x; x < end.x; x++) {
                size_t vox = (size_t)x + (size_t)dim.x * ((size_t)y + (size_t)dim.y * (size_t)z);
                if (tpl[vox] == 0.0f) {
                    dst[vox] = 0.0f;
                    continue;
                }
                POINT3D p = apply_rows(Alignment.ijk_to_xyz.m, (float)x, (float)y, (float)z);
                POINT3D q = apply_rows(Alignment.Affine, p.x, p.y, p.z);
                if (dx != NULL) {
                    q.x += dx[vox];
                    q.y += dy[vox];
                    q.z += dz[vox];
                }
                POINT3D v = apply_rows(Alignment.xyz_to_ijk.m, q.x, q.y, q.z);
                /* positions beyond 1e8 voxels (and NaN) count as off the grid */
                if (!(fabsf(v.x) < 1.0e8f && fabsf(v.y) < 1.0e8f && fabsf(v.z) < 1.0e8f)) continue;
                int ix = wrap_once((int)rintf(v.x), onx, wrap.x);
                int iy = wrap_once((int)rintf(v.y), ony, wrap.y);
                int iz = wrap_once((int)rintf(v.z), onz, wrap.z);
                if (ix < 0 || ix >= onx || iy < 0 || iy >= ony || iz < 0 || iz >= onz) continue;
                if (src[(size_t)ix + (size_t)onx * (size_t)iy + on2d * (size_t)iz] == 0.0f) continue;

                axis_weights(&ax, v.x, onx, wrap.x, half.x, most_accurate, sigma.x);
                axis_weights(&ay, v.y, ony, wrap.y, half.y, most_accurate, sigma.y);
                axis_weights(&az, v.z, onz, wrap.z, half.z, most_accurate, sigma.z);

                double sum = 0.0, wsum = 0.0;
                for (int kz = 0; kz < az.count; kz++) {
                    const float wz = az.weight[kz];
                    for (int kx = 0; kx < ax.count; kx++) wzx[kx] = wz * ax.weight[kx];
                    const float *plane = src + on2d * (size_t)az.index[kz];
                    for (int ky = 0; ky < ay.count; ky++) {
                        const float wy = ay.weight[ky];
                        const float *row = plane + (size_t)onx * (size_t)ay.index[ky];
                        for (int kx = 0; kx < ax.count; kx++) {
                            float w = wzx[kx] * wy;
                            sum += (double)(row[ax.index[kx]] * w);
                            wsum += (double)w;
                        }
                    }
                }
                dst[vox] = wsum != 0.0 ? (float)(sum / wsum) : 0.0f;
            }
}
