/* Voxel indexing of the displayed stack (mosaic.stack, mosaic.fSpaceMatrix), conversions
   between voxel indices and space, and the 4x4 matrix constructors. No X11. */
#include "volume.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "globals.h"
#include "numerics.h"

int index4d_stack(data_stack *stack, int x, int y, int z, int t)
{
    if (x < 0 || x >= stack->dim.x || y < 0 || y >= stack->dim.y || z < 0 || z >= stack->dim.z ||
        t < 0 || t >= stack->nt) {
        printf("Programming error: index out of range in index4d.\n");
        printf("(x,y,z,t) = (%d,%d,%d,%d)\n", x, y, z, t);
        fflush(stdout);
        exit(1);
    }
    return t * stack->n3d + z * stack->dim.x * stack->dim.y + y * stack->dim.x + x;
}

int index4d(int x, int y, int z, int t) { return index4d_stack(mosaic.stack, x, y, z, t); }

int voxel3D_to_1D(IPOINT3D voxel)
{
    data_stack *s = mosaic.stack;
    if (voxel.x < 0 || voxel.x >= s->dim.x || voxel.y < 0 || voxel.y >= s->dim.y || voxel.z < 0 ||
        voxel.z >= s->dim.z) {
        printf("Programming error: index out of range in voxel3D_to_1D\n");
        printf("(i,j,k) = (%d,%d,%d)\n", voxel.x, voxel.y, voxel.z);
        fflush(stdout);
        exit(1);
    }
    return voxel.z * s->dim.x * s->dim.y + voxel.y * s->dim.x + voxel.x;
}

float sample_value(int data_type, int display_data_type, float p0, float p1)
{
    if (data_type == 0) return p0;
    if (data_type == 1) {
        FCOMPLEX z = {p0, p1};
        switch (display_data_type) {
        case 0: return compute_amplitude(z);
        case 1: return (float)(57.29577950560105 * compute_phase(z));
        case 2: return p0;
        case 3: return p1;
        default: return 0.0f;
        }
    }
    if (data_type == 2) {
        switch (display_data_type) {
        case 0: return p0;
        case 1: return p1;
        case 2: return (float)(p0 * cos((double)p1));
        case 3: return (float)(p0 * sin((double)p1));
        default: return 0.0f;
        }
    }
    printf("Programming error: data type = %d in function stack_data\n", data_type);
    fflush(stdout);
    exit(1);
}

float stack_data_4d(int x, int y, int z, int t)
{
    data_stack *s = mosaic.stack;
    int n = index4d(x, y, z, t);
    if (s->data_type == 0) return s->SpaceTime.fData[n];
    float p0 = 0.0f, p1 = 0.0f;
    if (s->data_type == 1 || s->data_type == 2) {
        p0 = s->SpaceTime.fData[2 * n];
        p1 = s->SpaceTime.fData[2 * n + 1];
    }
    return sample_value(s->data_type, mosaic.display_data_type, p0, p1);
}

float mosaic_data_1d(int index)
{
    data_stack *s = mosaic.stack;
    if (index < 0 || index >= s->n3d) {
        printf("Programming error: index (%d) out of range (%d) in mosaic_data_1d\n", index, s->n3d);
        fflush(stdout);
        exit(1);
    }
    if (s->data_type == 0) return mosaic.fSpaceMatrix[index];
    float p0 = 0.0f, p1 = 0.0f;
    if (s->data_type == 1 || s->data_type == 2) {
        p0 = mosaic.fSpaceMatrix[2 * index];
        p1 = mosaic.fSpaceMatrix[2 * index + 1];
    }
    return sample_value(s->data_type, mosaic.display_data_type, p0, p1);
}

float mosaic_data_3d(IPOINT3D voxel) { return mosaic_data_1d(voxel3D_to_1D(voxel)); }

POINT3D apply_mat44(const mat44 &m, float x, float y, float z)
{
    float v[4] = {x, y, z, 1.0f};
    float r[3];
    for (int row = 0; row < 3; row++) {
        float sum = 0.0f;
        for (int c = 0; c < 4; c++) sum += v[c] * m.m[row][c];
        r[row] = sum;
    }
    POINT3D p = {r[0], r[1], r[2]};
    return p;
}

POINT3D Convert_rVoxel_to_Space(POINT3D voxel, data_stack *stack)
{
    return apply_mat44(stack->ijk_to_xyz, voxel.x, voxel.y, voxel.z);
}

POINT3D Convert_Voxel_to_Space(IPOINT3D voxel, data_stack *stack)
{
    POINT3D v = {(float)voxel.x, (float)voxel.y, (float)voxel.z};
    return Convert_rVoxel_to_Space(v, stack);
}

POINT3D Convert_Space_to_rVoxel(POINT3D point, data_stack *stack)
{
    return apply_mat44(stack->xyz_to_ijk, point.x, point.y, point.z);
}

static mat44 identity_mat44(void)
{
    mat44 m;
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) m.m[r][c] = r == c ? 1.0f : 0.0f;
    return m;
}

mat44 scale_and_shift_to_mat44(POINT3D scale, POINT3D shift, POINT3D direction)
{
    mat44 m = identity_mat44();
    m.m[0][0] = scale.x * direction.x;
    m.m[1][1] = scale.y * direction.y;
    m.m[2][2] = scale.z * direction.z;
    m.m[0][3] = shift.x;
    m.m[1][3] = shift.y;
    m.m[2][3] = shift.z;
    return m;
}

mat44 general_affine_to_mat44(float row0[4], float row1[4], float row2[4])
{
    mat44 m = identity_mat44();
    for (int c = 0; c < 4; c++) {
        m.m[0][c] = row0[c];
        m.m[1][c] = row1[c];
        m.m[2][c] = row2[c];
    }
    return m;
}

mat44 invert_mat44(mat44 m)
{
    float **a = float_matrix(4, 4);
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) a[r][c] = m.m[r][c];
    int error_row;
    if (rInvertSquareMatrix(4, a, &error_row) != 0) {
        printf("failed on row %d\n", error_row);
        fflush(stdout);
        exit(1);
    }
    mat44 inv;
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) inv.m[r][c] = a[r][c];
    free_float_matrix(a, 4, 4);
    return inv;
}

mat44 centered_ijk_to_xyz(data_stack stack)
{
    POINT3D shift, direction = {1.0f, 1.0f, 1.0f};
    shift.x = (float)(1 - stack.dim.x) * stack.resolution.x / 2.0f;
    shift.y = (float)(1 - stack.dim.y) * stack.resolution.y / 2.0f;
    shift.z = (float)(1 - stack.dim.z) * stack.resolution.z / 2.0f;
    return scale_and_shift_to_mat44(stack.resolution, shift, direction);
}

mat44 centered_xyz_to_ijk(data_stack stack) { return invert_mat44(centered_ijk_to_xyz(stack)); }
