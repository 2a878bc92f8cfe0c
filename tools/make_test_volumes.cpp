/* make_test_volumes: volumes with a known alignment for the tests and the README example.
   Uses the program's own volume reader and affine matrix (align_core); writes minimal NIfTI-1
   float volumes. Sets Alignment (value, RigidBody, Orient) for its own use. No X11. */
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <algorithm>

#include <nifti1.h>

#include "align_model.h"
#include "globals.h"
#include "numerics.h"
#include "persist.h"
#include "volume.h"
#include "volume_load.h"

static void usage(void)
{
    printf("usage:\n"
           "  make_test_volumes moved <in.nii[.gz]> <out.nii> tx ty tz phi_xy phi_xz phi_yz sx sy sz [kxy kxz kyz]\n"
           "      writes out.nii on the grid of in.nii such that aligning out.nii (individual) to in.nii\n"
           "      (template) gives exactly these parameters (mm, degrees, factors; skews default 0).\n"
           "  make_test_volumes mapping-error <template.nii[.gz]> <align.com> tx ty tz phi_xy phi_xz phi_yz sx sy sz [kxy kxz kyz]\n"
           "      mean and max distance in mm, over the template's non-zero voxels, between the\n"
           "      template-to-individual mappings of the given parameters and of the ones in align.com\n"
           "      (the individual is taken to share the template's grid). When align.com names a\n"
           "      distortion file (registration-distortions), its displacements are added to the\n"
           "      recovered mapping. Prints \"mean_error_mm <m>\" and \"max_error_mm <m>\".\n"
           "  make_test_volumes warped <in.nii[.gz]> <out.nii> amp_mm tx ty tz phi_xy phi_xz phi_yz sx sy sz [kxy kxz kyz]\n"
           "      as moved, with a smooth displacement d(p) of amplitude amp_mm added to the affine image of\n"
           "      each template point p (centred mm): d = amp (sin(pi py/80) cos(pi pz/90),\n"
           "      sin(pi pz/70) cos(pi px/80), 0.8 sin(pi px/75) cos(pi py/100)).\n"
           "  make_test_volumes truth-field <template.nii[.gz]> <field.nii> amp_mm tx ty tz ... [kxy kxz kyz]\n"
           "      the true mapping of a moved (amp_mm 0) or warped volume as three float volumes on the\n"
           "      template grid: the individual's point minus the template's point, x, y, z, in the\n"
           "      centred frame (mm).\n"
           "  make_test_volumes mapping-error <template.nii[.gz]> <align.com> --truth <field.nii>\n"
           "      as mapping-error, the true mapping read from a truth-field file.\n"
           "  make_test_volumes halve <in.nii[.gz]> <out.nii>\n"
           "      averages the 2 mm cube around each new voxel (2x2x2 blocks for even sizes) and\n"
           "      doubles the voxel size; n voxels become n/2 with the same centred frame.\n"
           "  make_test_volumes shifted-phantom <shift_mm> <ind.nii> <tpl.nii>\n"
           "      a 48^3 phantom of 2 mm voxels (tpl.nii) and the same moved by shift_mm along x\n"
           "      (ind.nii); prints the parameters that undo the shift: \"translation <x> 0 0\".\n"
           "  make_test_volumes align-com <template.nii[.gz]> <warp_mm> tx ty tz phi_xy phi_xz phi_yz sx sy sz [kxy kxz kyz]\n"
           "      writes align.com in the current directory as align saves it, for the template's grid\n"
           "      and these parameters. With warp_mm > 0 it also writes distortions.nii (named by\n"
           "      align.com): the smooth displacement d_x = w sin(pi u_y) sin(pi u_z), d_y = w sin(pi u_z)\n"
           "      sin(pi u_x), d_z = w sin(pi u_x) sin(pi u_y) in mm, u = voxel index / (size - 1).\n");
}

/* Reads a volume (".nii.gz" included) with the program's own reader. */
static int read_volume(const char *name, data_stack *stack)
{
    file_list list;
    memset(&list, 0, sizeof list);
    add_image_file(&list, name, 0, 0);
    int nfiles = 0;
    return read_SpaceTime_data(0, stack, &list, &nfiles);
}

static int write_float_nifti_nt(const char *name, IPOINT3D dim, POINT3D res, int nt, const float *data);
static int write_float_nifti(const char *name, IPOINT3D dim, POINT3D res, const float *data)
{
    return write_float_nifti_nt(name, dim, res, 1, data);
}

static int write_float_nifti_nt(const char *name, IPOINT3D dim, POINT3D res, int nt, const float *data)
{
    nifti_1_header h;
    memset(&h, 0, sizeof h);
    h.sizeof_hdr = 348;
    h.dim[0] = nt > 1 ? 4 : 3;
    h.dim[1] = (short)dim.x;
    h.dim[2] = (short)dim.y;
    h.dim[3] = (short)dim.z;
    h.dim[4] = (short)nt;
    h.datatype = DT_FLOAT32;
    h.bitpix = 32;
    h.pixdim[0] = 1.0f;
    h.pixdim[1] = res.x;
    h.pixdim[2] = res.y;
    h.pixdim[3] = res.z;
    h.vox_offset = 352.0f;
    h.scl_slope = 1.0f;
    h.xyzt_units = NIFTI_UNITS_MM;
    memcpy(h.magic, "n+1", 4);
    FILE *fp = fopen(name, "wb");
    if (fp == NULL) {
        printf("Error: cannot open %s\n", name);
        return 1;
    }
    char extender[4] = {0, 0, 0, 0};
    size_t n = (size_t)dim.x * dim.y * dim.z * (size_t)nt;
    int ok = fwrite(&h, 348, 1, fp) == 1 && fwrite(extender, 4, 1, fp) == 1 && fwrite(data, sizeof(float), n, fp) == n;
    if (fclose(fp) != 0) ok = 0;
    if (!ok) {
        printf("Error: cannot write %s\n", name);
        return 1;
    }
    return 0;
}

/* 4x4 products and inverse in double. */
typedef double dmat[4][4];
static void to_double(const float m[4][4], dmat out)
{
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) out[i][j] = m[i][j];
}
static void multiply(const dmat a, const dmat b, dmat out)
{
    dmat c;
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) {
            c[i][j] = 0.0;
            for (int k = 0; k < 4; k++) c[i][j] += a[i][k] * b[k][j];
        }
    memcpy(out, c, sizeof c);
}
static int invert(const dmat a, dmat out)
{
    double m[4][8];
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 8; j++) m[i][j] = j < 4 ? a[i][j] : (j - 4 == i ? 1.0 : 0.0);
    for (int c = 0; c < 4; c++) {
        int p = c;
        for (int r = c + 1; r < 4; r++)
            if (fabs(m[r][c]) > fabs(m[p][c])) p = r;
        if (m[p][c] == 0.0) return 1;
        for (int j = 0; j < 8; j++) std::swap(m[c][j], m[p][j]);
        double d = m[c][c];
        for (int j = 0; j < 8; j++) m[c][j] /= d;
        for (int r = 0; r < 4; r++)
            if (r != c) {
                double f = m[r][c];
                for (int j = 0; j < 8; j++) m[r][j] -= f * m[c][j];
            }
    }
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) out[i][j] = m[i][j + 4];
    return 0;
}

/* The program's template-voxel -> individual-voxel mapping for parameters p on one grid:
   centred space-to-voxel . Affine . centred voxel-to-space. */
/* Quarter turns and z swap of the recovered parameters (align.com's registration-orientation);
   the true parameters have none. */
static IPOINT3D recovered_orientation = {0, 0, 0};
static int recovered_swap_z = 0;

static void voxel_mapping(const float p[12], int rigid_body, const data_stack &grid, dmat out, int recovered = 0)
{
    for (int j = 0; j < 12; j++) Alignment.value[j] = p[j];
    Alignment.RigidBody = rigid_body;
    Alignment.OrientRotation = recovered ? recovered_orientation : IPOINT3D{0, 0, 0};
    Alignment.OrientSwapZ = recovered ? recovered_swap_z : 0;
    define_affine_matrix();
    mat44 to_space = centered_ijk_to_xyz(grid);
    dmat c, ci, a;
    to_double(to_space.m, c);
    invert(c, ci);
    to_double(Alignment.Affine, a);
    multiply(a, c, out);
    multiply(ci, out, out);
}

static void apply(const dmat m, double x, double y, double z, double *o)
{
    for (int r = 0; r < 3; r++) o[r] = m[r][0] * x + m[r][1] * y + m[r][2] * z + m[r][3];
}

static float trilinear(const data_stack &s, const double v[3])
{
    int x0 = (int)floor(v[0]), y0 = (int)floor(v[1]), z0 = (int)floor(v[2]);
    double fx = v[0] - x0, fy = v[1] - y0, fz = v[2] - z0, sum = 0.0;
    for (int dz = 0; dz < 2; dz++)
        for (int dy = 0; dy < 2; dy++)
            for (int dx = 0; dx < 2; dx++) {
                int x = x0 + dx, y = y0 + dy, z = z0 + dz;
                if (x < 0 || y < 0 || z < 0 || x >= s.dim.x || y >= s.dim.y || z >= s.dim.z) continue;
                double w = (dx ? fx : 1.0 - fx) * (dy ? fy : 1.0 - fy) * (dz ? fz : 1.0 - fz);
                sum += w * s.SpaceTime.fData[x + s.dim.x * (y + s.dim.y * z)];
            }
    return (float)sum;
}

/* Twelve parameters from argv (skews optional); returns 1 on a bad count or number. */
static int read_parameters(int argc, char **argv, int first, float p[12])
{
    int n = argc - first;
    if (n != 9 && n != 12) return 1;
    for (int j = 0; j < 12; j++) p[j] = 0.0f;
    for (int j = 0; j < n; j++) {
        char *end;
        p[j] = strtof(argv[first + j], &end);
        if (*end != '\0') return 1;
    }
    return 0;
}

static void print_parameters(const char *title, const float p[12])
{
    printf("%s translations %g %g %g rotations %g %g %g inflations %g %g %g skews %g %g %g\n", title, p[0],
           p[1], p[2], p[3], p[4], p[5], p[6], p[7], p[8], p[9], p[10], p[11]);
}

/* The voxel mapping of parameters p on volume in and its inverse; 1 after a message when it is
   singular. */
static int invertible_mapping(const float p[12], const data_stack &in, dmat map, dmat inverse)
{
    voxel_mapping(p, 1, in, map);
    if (invert(map, inverse)) {
        printf("Error: the parameters give a singular mapping\n");
        return 1;
    }
    return 0;
}

static int command_moved(int argc, char **argv)
{
    float p[12];
    if (argc < 4 || read_parameters(argc, argv, 4, p)) {
        usage();
        return 1;
    }
    data_stack in;
    memset(&in, 0, sizeof in);
    if (read_volume(argv[2], &in)) return 1;
    dmat map, inverse;
    if (invertible_mapping(p, in, map, inverse)) return 1;
    std::vector<float> out((size_t)in.n3d, 0.0f);
    for (int z = 0; z < in.dim.z; z++)
        for (int y = 0; y < in.dim.y; y++)
            for (int x = 0; x < in.dim.x; x++) {
                double t[3];
                apply(inverse, x, y, z, t);
                out[(size_t)x + (size_t)in.dim.x * (y + (size_t)in.dim.y * z)] = trilinear(in, t);
            }
    if (write_float_nifti(argv[3], in.dim, in.resolution, out.data())) return 1;
    print_parameters("moved by", p);
    return 0;
}

/* The affine values of the set lines of align.com (other lines are ignored). */
static int read_align_com(const char *name, float p[12], int *rigid_body, char distortions[1024])
{
    distortions[0] = '\0';
    FILE *fp = fopen(name, "r");
    if (fp == NULL) {
        printf("Error: cannot open %s\n", name);
        return 1;
    }
    char line[1024], word[1024], keyword[1024], type[1024];
    const char *names[4] = {"registration-translations", "registration-rotations", "registration-inflations",
                            "registration-skews"};
    int found = 0;
    for (int j = 0; j < 12; j++) p[j] = (j >= 6 && j <= 8) ? 1.0f : 0.0f;
    *rigid_body = 1;
    while (fgets(line, sizeof line, fp) != NULL) {
        float a, b, c;
        if (sscanf(line, "%1023s %1023s", word, keyword) != 2) continue;
        if (strcmp(keyword, "registration-type") == 0 && sscanf(line, "%*s %*s %1023s", type) == 1)
            *rigid_body = strcmp(type, "deck-of-cards") == 0 ? 0 : 1;
        if (strcmp(keyword, "registration-distortions") == 0) sscanf(line, "%*s %*s %1023s", distortions);
        if (strcmp(keyword, "registration-orientation") == 0)
            sscanf(line, "%*s %*s %d %d %d %d", &recovered_orientation.x, &recovered_orientation.y,
                   &recovered_orientation.z, &recovered_swap_z);
        for (int k = 0; k < 4; k++)
            if (strcmp(keyword, names[k]) == 0 && sscanf(line, "%*s %*s %f %f %f", &a, &b, &c) == 3) {
                p[3 * k] = a;
                p[3 * k + 1] = b;
                p[3 * k + 2] = c;
                found |= 1 << k;
            }
    }
    fclose(fp);
    if (found != 15) {
        printf("Error: %s lacks some of the parameter lines\n", name);
        return 1;
    }
    return 0;
}

static int command_mapping_error(int argc, char **argv)
{
    float truth[12], recovered[12];
    int rigid_body;
    int from_field = argc == 6 && strcmp(argv[4], "--truth") == 0;
    if (argc < 4 || (!from_field && read_parameters(argc, argv, 4, truth))) {
        usage();
        return 1;
    }
    if (from_field)
        for (int j = 0; j < 12; j++) truth[j] = (j >= 6 && j <= 8) ? 1.0f : 0.0f;
    data_stack tpl;
    memset(&tpl, 0, sizeof tpl);
    if (read_volume(argv[2], &tpl)) return 1;
    /* the true mapping from a truth-field file: individual point minus template point, mm */
    data_stack field;
    memset(&field, 0, sizeof field);
    if (from_field) {
        if (read_volume(argv[5], &field)) return 1;
        if (field.dim.x != tpl.dim.x || field.dim.y != tpl.dim.y || field.dim.z != tpl.dim.z || field.nt < 3) {
            printf("Error: %s does not hold three maps on the template grid\n", argv[5]);
            return 1;
        }
    }
    char distortion_name[1024];
    if (read_align_com(argv[3], recovered, &rigid_body, distortion_name)) return 1;
    /* The deformation found by the non-linear alignment: x, y, z maps in mm on the template
       grid, added to the affine image of each template point. */
    data_stack maps;
    memset(&maps, 0, sizeof maps);
    const float *shift[3] = {NULL, NULL, NULL};
    if (distortion_name[0] != '\0') {
        if (read_volume(distortion_name, &maps)) return 1;
        if (maps.dim.x != tpl.dim.x || maps.dim.y != tpl.dim.y || maps.dim.z != tpl.dim.z || maps.nt < 3) {
            printf("Error: %s does not hold three maps on the template grid\n", distortion_name);
            return 1;
        }
        for (int k = 0; k < 3; k++) shift[k] = maps.SpaceTime.fData + (size_t)k * (size_t)tpl.n3d;
        printf("distortions %s\n", distortion_name);
    }
    dmat true_map, found_map;
    voxel_mapping(truth, 1, tpl, true_map);
    voxel_mapping(recovered, rigid_body, tpl, found_map, 1);
    double sum = 0.0, largest = 0.0;
    long count = 0;
    std::vector<float> errors;
    for (int z = 0; z < tpl.dim.z; z++)
        for (int y = 0; y < tpl.dim.y; y++)
            for (int x = 0; x < tpl.dim.x; x++) {
                size_t i = (size_t)x + (size_t)tpl.dim.x * (y + (size_t)tpl.dim.y * z);
                if (tpl.SpaceTime.fData[i] == 0.0f) continue;
                double a[3], b[3];
                apply(true_map, x, y, z, a);
                if (from_field) {
                    a[0] = x + field.SpaceTime.fData[i] / tpl.resolution.x;
                    a[1] = y + field.SpaceTime.fData[(size_t)tpl.n3d + i] / tpl.resolution.y;
                    a[2] = z + field.SpaceTime.fData[2 * (size_t)tpl.n3d + i] / tpl.resolution.z;
                }
                apply(found_map, x, y, z, b);
                /* in mm: the centred frame scales voxel differences by the voxel size */
                double dx = (a[0] - b[0]) * tpl.resolution.x, dy = (a[1] - b[1]) * tpl.resolution.y,
                       dz = (a[2] - b[2]) * tpl.resolution.z;
                if (shift[0] != NULL) {
                    dx -= shift[0][i];
                    dy -= shift[1][i];
                    dz -= shift[2][i];
                }
                double d = sqrt(dx * dx + dy * dy + dz * dz);
                errors.push_back((float)d);
                sum += d;
                if (d > largest) largest = d;
                count++;
            }
    if (count == 0) {
        printf("Error: the template has no non-zero voxel\n");
        return 1;
    }
    print_parameters("true", truth);
    print_parameters("recovered", recovered);
    printf("voxels %ld\n", count);
    printf("mean_error_mm %.4f\n", sum / count);
    printf("max_error_mm %.4f\n", largest);
    std::sort(errors.begin(), errors.end());
    printf("median_error_mm %.4f\n", errors[errors.size() / 2]);
    printf("p90_error_mm %.4f\n", errors[errors.size() * 9 / 10]);
    return 0;
}

/* The smooth displacement of the warped test volumes at centred template point p (mm). */
static void test_warp(double amp, const double p[3], double d[3])
{
    d[0] = amp * sin(M_PI * p[1] / 80.0) * cos(M_PI * p[2] / 90.0);
    d[1] = amp * sin(M_PI * p[2] / 70.0) * cos(M_PI * p[0] / 80.0);
    d[2] = 0.8 * amp * sin(M_PI * p[0] / 75.0) * cos(M_PI * p[1] / 100.0);
}

static void centred_point(const data_stack &g, double x, double y, double z, double p[3])
{
    p[0] = (x - (g.dim.x - 1) / 2.0) * g.resolution.x;
    p[1] = (y - (g.dim.y - 1) / 2.0) * g.resolution.y;
    p[2] = (z - (g.dim.z - 1) / 2.0) * g.resolution.z;
}

/* The true template-voxel -> individual-voxel mapping of a warped volume (amp 0: of a moved
   one) at template voxel (x, y, z), in individual voxels (the grids are the same). */
static void true_voxel_map(const dmat map, double amp, const data_stack &g, int x, int y, int z, double v[3])
{
    apply(map, x, y, z, v);
    if (amp == 0.0) return;
    double p[3], d[3];
    centred_point(g, x, y, z, p);
    test_warp(amp, p, d);
    v[0] += d[0] / g.resolution.x;
    v[1] += d[1] / g.resolution.y;
    v[2] += d[2] / g.resolution.z;
}

/* The arguments of "<volume> <out> amp params": the parameters, the warp's amplitude and the
   volume read; 1 after the usage or the read's message. */
static int warp_arguments(int argc, char **argv, float p[12], double *amp, data_stack *volume)
{
    char *end;
    if (argc < 5 || read_parameters(argc, argv, 5, p)) {
        usage();
        return 1;
    }
    *amp = strtod(argv[4], &end);
    if (*end != '\0') {
        usage();
        return 1;
    }
    memset(volume, 0, sizeof *volume);
    return read_volume(argv[2], volume);
}

/* warped <in> <out> amp params: out(q) = in(p) where q is the true image of p. */
static int command_warped(int argc, char **argv)
{
    float p[12];
    double amp;
    data_stack in;
    if (warp_arguments(argc, argv, p, &amp, &in)) return 1;
    dmat map, inverse;
    if (invertible_mapping(p, in, map, inverse)) return 1;
    std::vector<float> out((size_t)in.n3d, 0.0f);
    for (int z = 0; z < in.dim.z; z++)
        for (int y = 0; y < in.dim.y; y++)
            for (int x = 0; x < in.dim.x; x++) {
                /* p with map(p) + d(p) = q, by fixed-point iteration from the affine answer */
                double t[3], q[3] = {(double)x, (double)y, (double)z};
                apply(inverse, q[0], q[1], q[2], t);
                for (int it = 0; it < 50; it++) {
                    double c[3], d[3], r[3];
                    centred_point(in, t[0], t[1], t[2], c);
                    test_warp(amp, c, d);
                    r[0] = q[0] - d[0] / in.resolution.x;
                    r[1] = q[1] - d[1] / in.resolution.y;
                    r[2] = q[2] - d[2] / in.resolution.z;
                    apply(inverse, r[0], r[1], r[2], t);
                }
                out[(size_t)x + (size_t)in.dim.x * (y + (size_t)in.dim.y * z)] = trilinear(in, t);
            }
    if (write_float_nifti(argv[3], in.dim, in.resolution, out.data())) return 1;
    printf("warped by %g mm and ", amp);
    print_parameters("moved by", p);
    return 0;
}

/* truth-field <template> <field> amp params: individual point minus template point, in mm. */
static int command_truth_field(int argc, char **argv)
{
    float p[12];
    double amp;
    data_stack tpl;
    if (warp_arguments(argc, argv, p, &amp, &tpl)) return 1;
    dmat map;
    voxel_mapping(p, 1, tpl, map);
    size_t n = (size_t)tpl.n3d;
    std::vector<float> field(3 * n);
    for (int z = 0; z < tpl.dim.z; z++)
        for (int y = 0; y < tpl.dim.y; y++)
            for (int x = 0; x < tpl.dim.x; x++) {
                double v[3];
                true_voxel_map(map, amp, tpl, x, y, z, v);
                size_t i = (size_t)x + (size_t)tpl.dim.x * (y + (size_t)tpl.dim.y * z);
                field[i] = (float)((v[0] - x) * tpl.resolution.x);
                field[n + i] = (float)((v[1] - y) * tpl.resolution.y);
                field[2 * n + i] = (float)((v[2] - z) * tpl.resolution.z);
            }
    return write_float_nifti_nt(argv[3], tpl.dim, tpl.resolution, 3, field.data());
}

/* A head-like phantom in a 96 mm cube: an ellipsoid (zero outside) whose inside varies
   smoothly, with two brighter blobs of distinct size, so that the similarity has a clear peak. */
static float phantom_value(double px, double py, double pz)
{
    double r1 = px * px / (30.0 * 30.0) + py * py / (36.0 * 36.0) + pz * pz / (27.0 * 27.0);
    if (r1 > 1.0) return 0.0f;
    double b1 = ((px - 8.0) * (px - 8.0) + (py + 6.0) * (py + 6.0) + (pz - 3.0) * (pz - 3.0)) / (2.0 * 6.0 * 6.0);
    double b2 = ((px + 12.0) * (px + 12.0) + (py - 14.0) * (py - 14.0) + (pz + 8.0) * (pz + 8.0)) / (2.0 * 4.0 * 4.0);
    return (float)(60.0 + 20.0 * px / 30.0 + 10.0 * py / 36.0 + 100.0 * exp(-b1) + 60.0 * exp(-b2));
}

static int command_shifted_phantom(int argc, char **argv)
{
    char *end;
    if (argc != 5) {
        usage();
        return 1;
    }
    double shift = strtod(argv[2], &end);
    if (*end != '\0') {
        usage();
        return 1;
    }
    const int n = 48;
    const float res = 2.0f;
    std::vector<float> ind((size_t)n * n * n), tpl((size_t)n * n * n);
    for (int z = 0; z < n; z++)
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++) {
                /* positions in the centred frame: the origin midway between the middle voxels */
                double px = (x - (n - 1) / 2.0) * res, py = (y - (n - 1) / 2.0) * res, pz = (z - (n - 1) / 2.0) * res;
                size_t i = (size_t)x + (size_t)n * (y + (size_t)n * z);
                tpl[i] = phantom_value(px, py, pz);
                ind[i] = phantom_value(px - shift, py, pz);
            }
    IPOINT3D dim = {n, n, n};
    POINT3D r = {res, res, res};
    if (write_float_nifti(argv[3], dim, r, ind.data()) || write_float_nifti(argv[4], dim, r, tpl.data())) return 1;
    /* the individual at template point q is found at q + shift, and the affine matrix adds
       minus the translation: the undoing translation is -shift */
    printf("translation %g 0 0\n", -shift);
    return 0;
}

/* Weights of the old voxels 0..n-1 that the new voxel i of n/2 covers: its 2-voxel-wide cube
   is centred at old position (n-1)/2 + 2(i - (n/2-1)/2), so that both grids share their
   centre; each old voxel weighs by its overlap with the cube (1, or 1/2 at the cube's faces
   for odd n). Returns the first old index; w[0..3] the weights from there. */
static int halve_weights(int n, int i, double w[4])
{
    double centre = (n - 1) / 2.0 + 2.0 * (i - (n / 2 - 1) / 2.0);
    int first = (int)floor(centre - 1.0 + 0.5);
    for (int k = 0; k < 4; k++) {
        double lo = first + k - 0.5, hi = first + k + 0.5;
        double a = lo > centre - 1.0 ? lo : centre - 1.0, b = hi < centre + 1.0 ? hi : centre + 1.0;
        w[k] = b > a && first + k < n ? (b - a) / 2.0 : 0.0;
    }
    return first;
}

static int command_halve(int argc, char **argv)
{
    if (argc != 4) {
        usage();
        return 1;
    }
    data_stack in;
    memset(&in, 0, sizeof in);
    if (read_volume(argv[2], &in)) return 1;
    IPOINT3D n = {in.dim.x / 2, in.dim.y / 2, in.dim.z / 2};
    if (n.x < 1 || n.y < 1 || n.z < 1) {
        printf("Error: %s is too small to halve\n", argv[2]);
        return 1;
    }
    std::vector<float> out((size_t)n.x * n.y * n.z, 0.0f);
    for (int z = 0; z < n.z; z++)
        for (int y = 0; y < n.y; y++)
            for (int x = 0; x < n.x; x++) {
                double wx[4], wy[4], wz[4], sum = 0.0;
                int x0 = halve_weights(in.dim.x, x, wx), y0 = halve_weights(in.dim.y, y, wy),
                    z0 = halve_weights(in.dim.z, z, wz);
                for (int c = 0; c < 4; c++)
                    for (int b = 0; b < 4; b++)
                        for (int a = 0; a < 4; a++) {
                            double w = wx[a] * wy[b] * wz[c];
                            if (w == 0.0) continue;
                            sum += w * in.SpaceTime.fData[(size_t)(x0 + a) + (size_t)in.dim.x * ((y0 + b) + (size_t)in.dim.y * (z0 + c))];
                        }
                out[(size_t)x + (size_t)n.x * (y + (size_t)n.y * z)] = (float)sum;
            }
    POINT3D r = {2.0f * in.resolution.x, 2.0f * in.resolution.y, 2.0f * in.resolution.z};
    return write_float_nifti(argv[3], n, r, out.data());
}

static int command_align_com(int argc, char **argv)
{
    float p[12];
    char *end;
    if (argc < 5 || read_parameters(argc, argv, 4, p)) {
        usage();
        return 1;
    }
    double warp = strtod(argv[3], &end);
    if (*end != '\0' || !(warp >= 0.0)) {
        usage();
        return 1;
    }
    data_stack tpl;
    memset(&tpl, 0, sizeof tpl);
    if (read_volume(argv[2], &tpl)) return 1;
    Alignment.dimension = tpl.dim;
    Alignment.resolution = tpl.resolution;
    Alignment.origin = tpl.origin;
    Alignment.direction = tpl.direction;
    Alignment.registration = 0;
    Alignment.RigidBody = 1;
    Alignment.OrientRotation = {0, 0, 0};
    Alignment.OrientSwapZ = 0;
    Alignment.WrapAround = {0, 0, 0};
    for (int j = 0; j < 12; j++) Alignment.value[j] = p[j];
    if (warp > 0.0) {
        /* the saver writes the maps with the geometry of template_ */
        template_ = tpl;
        data_stack *maps[3] = {&distort_x, &distort_y, &distort_z};
        for (data_stack *m : maps) {
            *m = tpl;
            m->nt = 1;
            m->SpaceTime.fData = float_vector(tpl.n3d);
        }
        const double pi = 3.141592653589793;
        for (int z = 0; z < tpl.dim.z; z++)
            for (int y = 0; y < tpl.dim.y; y++)
                for (int x = 0; x < tpl.dim.x; x++) {
                    double ux = sin(pi * x / (tpl.dim.x > 1 ? tpl.dim.x - 1 : 1));
                    double uy = sin(pi * y / (tpl.dim.y > 1 ? tpl.dim.y - 1 : 1));
                    double uz = sin(pi * z / (tpl.dim.z > 1 ? tpl.dim.z - 1 : 1));
                    size_t i = (size_t)x + (size_t)tpl.dim.x * (y + (size_t)tpl.dim.y * z);
                    distort_x.SpaceTime.fData[i] = (float)(warp * uy * uz);
                    distort_y.SpaceTime.fData[i] = (float)(warp * uz * ux);
                    distort_z.SpaceTime.fData[i] = (float)(warp * ux * uy);
                }
    }
    return save_alignment_parameters();
}

int main(int argc, char **argv)
{
    if (argc < 2) {
        usage();
        return 1;
    }
    if (strcmp(argv[1], "moved") == 0) return command_moved(argc, argv);
    if (strcmp(argv[1], "mapping-error") == 0) return command_mapping_error(argc, argv);
    if (strcmp(argv[1], "shifted-phantom") == 0) return command_shifted_phantom(argc, argv);
    if (strcmp(argv[1], "halve") == 0) return command_halve(argc, argv);
    if (strcmp(argv[1], "warped") == 0) return command_warped(argc, argv);
    if (strcmp(argv[1], "truth-field") == 0) return command_truth_field(argc, argv);
    if (strcmp(argv[1], "align-com") == 0) return command_align_com(argc, argv);
    usage();
    return 1;
}
