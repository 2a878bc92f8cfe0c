/* The twelve-parameter affine model: defaults of Alignment and AlignAid (and the starting
   AlignNL grid), the composed matrix Alignment.Affine and the fixed re-orientation, step sizes,
   the printed parameter table, and the pointing of the display (mosaic) at the chosen volume.
   Reads template_ (geometry) and original_unfiltered (sub-sampling). No X11: redraws go
   through display_hooks. */
#include "align_model.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "display_hooks.h"
#include "globals.h"
#include "nl_model.h"
#include "numerics.h"
#include "resample.h"

/* Exact cosine and sine of quarter_turns * 90 degrees. Only -1, 0, 1 and 2 quarter turns are
   meaningful; any other multiple leaves both at 0.
   Deliberate: 3 quarter turns (270 degrees) gives cosine = sine = 0, a degenerate rotation.
   Pinned by CalculateOrientationRotation.ThreeQuarterTurnsAreDegenerate. */
void define_cosine_sine(int quarter_turns, float *cosine, float *sine)
{
    /* The turns are compared, not turns * 90 degrees: that product overflows for the large
       counts an edited align.com can hold (2147483647 * 90 would wrap round to -90). */
    *cosine = 0.0f;
    *sine = 0.0f;
    if (quarter_turns == 0) *cosine = 1.0f;
    if (quarter_turns == 2) *cosine = -1.0f;
    if (quarter_turns == 1) *sine = 1.0f;
    if (quarter_turns == -1) *sine = -1.0f;
}

/* c = a * b for 3x3 blocks, each element summed in float over k = 0, 1, 2 from 0. */
static void product_3x3(float c[3][3], const float a[3][3], const float b[3][3])
{
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) {
            float sum = 0.0f;
            for (int k = 0; k < 3; k++) sum += a[i][k] * b[k][j];
            c[i][j] = sum;
        }
}

/* Orient's upper-left 3x3 block = Rx * (Ry * Rz) * F from the quarter turns and the z mirror.
   The rest of Orient is neither written nor read. */
void calculate_orientation_rotation(void)
{
    float cx, sx, cy, sy, cz, sz;
    define_cosine_sine(Alignment.OrientRotation.x, &cx, &sx);
    define_cosine_sine(Alignment.OrientRotation.y, &cy, &sy);
    define_cosine_sine(Alignment.OrientRotation.z, &cz, &sz);
    const float rx[3][3] = {{1.0f, 0.0f, 0.0f}, {0.0f, cx, -sx}, {0.0f, sx, cx}};
    const float ry[3][3] = {{cy, 0.0f, sy}, {0.0f, 1.0f, 0.0f}, {-sy, 0.0f, cy}};
    const float rz[3][3] = {{cz, -sz, 0.0f}, {sz, cz, 0.0f}, {0.0f, 0.0f, 1.0f}};
    float f[3][3] = {{1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 1.0f}};
    if (Alignment.OrientSwapZ) f[2][2] = -1.0f;
    float ryz[3][3], rxyz[3][3], result[3][3];
    product_3x3(ryz, ry, rz);
    product_3x3(rxyz, rx, ryz);
    product_3x3(result, rxyz, f);
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) Alignment.Orient[i][j] = result[i][j];
}

/* Affine = [R * S * Orient | -t] mapping centred template space into centred individual space.
   Angles: degrees times the double 0.017453292522222223 (3.141592654/180), kept as float;
   trigonometry in double, stored as float. Inflations and skews enter as reciprocals. */
void define_affine_matrix(void)
{
    calculate_orientation_rotation();
    const float *value = Alignment.value;
    float a0 = (float)(value[3] * 0.017453292522222223);
    float a1 = (float)(value[4] * 0.017453292522222223);
    float a2 = (float)(value[5] * 0.017453292522222223);
    float c0 = (float)cos((double)a0), s0 = (float)sin((double)a0);
    float c1 = (float)cos((double)a1), s1 = (float)sin((double)a1);
    float c2 = (float)cos((double)a2), s2 = (float)sin((double)a2);
    float sx = value[6], sy = value[7], sz = value[8];
    float kxy = value[9], kxz = value[10], kyz = value[11];

    float r[3][3];
    if (Alignment.RigidBody) {
        r[0][0] = s2 * s0 * s1 + c0 * c2;
        r[0][1] = -s0 * c1;
        r[0][2] = c0 * s2 - c2 * s0 * s1;
        r[1][0] = s0 * c2 - s2 * c0 * s1;
        r[1][1] = c1 * c0;
        r[1][2] = c2 * c0 * s1 + s0 * s2;
        r[2][0] = -c1 * s2;
        r[2][1] = -s1;
        r[2][2] = c2 * c1;
    } else {
        r[0][0] = c0;
        r[0][1] = -s0;
        r[0][2] = (float)tan((double)a2);
        r[1][0] = s0;
        r[1][1] = c0;
        r[1][2] = (float)tan((double)a1);
        r[2][0] = 0.0f;
        r[2][1] = 0.0f;
        r[2][2] = 1.0f;
    }
    float s[3][3] = {{1.0f / sx, kxy / sx, kxz / sx}, {0.0f, 1.0f / sy, kyz / sy}, {0.0f, 0.0f, 1.0f / sz}};
    float orient[3][3];
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) orient[i][j] = Alignment.Orient[i][j];
    float rs[3][3], linear[3][3];
    product_3x3(rs, r, s);
    product_3x3(linear, rs, orient);
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) Alignment.Affine[i][j] = linear[i][j];
        Alignment.Affine[i][3] = -value[i];
    }
    Alignment.Affine[3][0] = Alignment.Affine[3][1] = Alignment.Affine[3][2] = 0.0f;
    Alignment.Affine[3][3] = 1.0f;
}

/* Steps of the twelve parameters at a level (3 coarsest .. 0 finest) from the base step
   b = min(largest template voxel size, smallest template field of view / 16).
   Any other level leaves the array as it was. */
void get_starting_increments(int level, float increment[12])
{
    POINT3D res = template_.resolution, fov = template_.fov;
    float r = res.x;
    if (res.y > r) r = res.y;
    if (res.z > r) r = res.z;
    float f = fov.x;
    if (fov.y < f) f = fov.y;
    if (fov.z < f) f = fov.z;
    float b = f / 16.0f < r ? f / 16.0f : r;
    float translation, rotation, other;
    switch (level) {
    case 3: translation = 4.0f * b; rotation = 10.0f; other = 0.1f; break;
    case 2: translation = 2.0f * b; rotation = 5.0f; other = 0.05f; break;
    case 1: translation = b; rotation = 2.0f; other = 0.02f; break;
    case 0: translation = b / 4.0f; rotation = 0.5f; other = 0.01f; break;
    default: return;
    }
    for (int j = 0; j < 3; j++) increment[j] = translation;
    for (int j = 3; j < 6; j++) increment[j] = rotation;
    for (int j = 6; j < 12; j++) increment[j] = other;
}

void action_set_increments(int level) { get_starting_increments(level, AlignAid.increment); }

void update_display_set(void)
{
    switch (AlignAid.DisplaySet) {
    case 0: AlignAid.iFirstParShown = 0; AlignAid.iLastParShown = 9; break;
    case 1: AlignAid.iFirstParShown = 0; AlignAid.iLastParShown = 11; break;
    case 2: AlignAid.iFirstParShown = 0; AlignAid.iLastParShown = 8; break;
    default: break;
    }
}

/* Sub-sampling step along x for the coarsest cost level from the individual's width:
   2 per halving of width/32 above 1, at most 8; 1 when width/32 is at most 1. */
static int coarse_subsample_x(int nx)
{
    int n = nx / 32, h = 0;
    while (n > 1) {
        n /= 2;
        h++;
    }
    if (h == 0) return 1;
    return 2 * h < 8 ? 2 * h : 8;
}

/* Nearest integer of a float, ties to even, at least 1 and at most `most`, the template's size
   along the axis: a larger step would leave the reduced grid without a voxel, and the bound
   also keeps the ratios of extreme voxel sizes (and one that is not a number, which gives 1)
   within the range of an int. */
static int subsample_step(float v, int most)
{
    if (most < 1) most = 1;
    if (!(v >= 1.0f)) return 1;
    if (v >= (float)most) return most;
    int n = (int)rintf(v);
    return n > 1 ? n : 1;
}

/* All defaults of Alignment, AlignAid and the starting AlignNL grid; call once after the
   volumes are read and before the first resampling. Needs template_ (geometry, n3d) and
   original_unfiltered (width and voxel size), and the displacement maps allocated on the
   template grid (their values at the basis peaks become the starting coefficients). */
void initialize_alignment(void)
{
    iTime_Template = 0;
    graph.iTime = 0;
    AlignAid.DisplayType = 0;
    AlignAid.DisplaySet = 0;
    AlignAid.iParameter = 0;
    AlignAid.iFirstParShown = 0;
    AlignAid.iLastParShown = 9;
    AlignAid.ChangeValue = 1;
    AlignAid.CostFunction = 0;
    AlignAid.LowResolution = 0;
    AlignAid.smooth_fov_fraction = 0;
    AlignAid.SubSampleSetting = {1, 1, 1};
    AlignAid.SubSample = {1, 1, 1};

    Alignment.RigidBody = 1;
    Alignment.OrientRotation = {0, 0, 0};
    Alignment.OrientSwapZ = 0;

    Alignment.origin = template_.origin;
    Alignment.direction = template_.direction;
    Alignment.registration = template_.registration;
    calculate_orientation_rotation();

    static const char *names[15] = {"  x",     "  y",     "  z",       "phi_xy",  "phi_xz",
                                    "phi_yz",  "size-x",  "size-y",    "size-z",  "skew_xy",
                                    "skew_xz", "skew_yz", "X field",   "Y field", "Z field"};
    for (int j = 0; j < 15; j++) snprintf(AlignAid.name[j], sizeof AlignAid.name[j], "%s", names[j]);

    for (int j = 0; j < 12; j++) {
        Alignment.value[j] = (j >= 6 && j <= 8) ? 1.0f : 0.0f;
        AlignAid.Adjust[j] = 1;
        AlignAid.saved_value[j] = Alignment.value[j];
    }
    action_set_increments(2);

    Alignment.resolution = template_.resolution;
    Alignment.dimension = template_.dim;

    int step_x = coarse_subsample_x(original_unfiltered.dim.x);
    float d = (float)step_x * original_unfiltered.resolution.x;
    AlignAid.SubSampleSetting.x = subsample_step((float)step_x, template_.dim.x);
    AlignAid.SubSampleSetting.y = subsample_step(d / original_unfiltered.resolution.y, template_.dim.y);
    AlignAid.SubSampleSetting.z = subsample_step(d / original_unfiltered.resolution.z, template_.dim.z);

    AlignAid.nmask = 0;
    AlignAid.mask = float_vector(template_.n3d);
    memset(AlignAid.mask, 0, sizeof(float) * (size_t)template_.n3d);

    AlignNL.Adjust = {1, 1, 1};
    AlignNL.ViewBasis = 0;
    AlignNL.Adjusted = {0, 0, 0};
    AlignNL.Lambda_reg = 10;
    AlignNL.Gaussian_smoothing = 0;
    AlignNL.stiffness = 0.5f;
    POINT3D fov = template_.fov;
    AlignNL.BasisGrid.x = (int)rintf(fov.x / (2.0f * template_.resolution.x));
    float cell = fov.x / (float)AlignNL.BasisGrid.x;
    AlignNL.BasisGrid.y = (int)rintf(fov.y / cell);
    AlignNL.BasisGrid.z = (int)rintf(fov.z / cell);
    update_nonlinear_alignment_parameters(0);
}

/* Resample the whole individual (arg nonzero: accurate kernel) and redraw. */
void update_alignment(int arg)
{
    transform_coordinates(1, arg);
    build_image_display(1);
}

/* Prints one line of the parameter table and remembers the values printed.
   header nonzero: a title line first, after which every value of the line prints.
   header 2: parameter 0 prints as "   %7.3f" without level and without ditto.
   Deliberate: parameter 0 never shows the frozen mark " **", even with increment 0.
   Pinned by PrintParameterSet.ParameterZeroIsNeverMarkedFrozen. */
void print_parameter_set(int header, int level)
{
    static float remembered[12] = {1e10f, 1e10f, 1e10f, 1e10f, 1e10f, 1e10f,
                                   1e10f, 1e10f, 1e10f, 1e10f, 1e10f, 1e10f};
    const float *value = Alignment.value;
    if (header) {
        printf("level %3s", AlignAid.name[0]);
        for (int j = 1; j < 12; j++) printf(",%7s", AlignAid.name[j]);
        printf("\n");
        for (int j = 0; j < 12; j++) remembered[j] = 1e10f;
    }
    if (header == 2)
        printf("   %7.3f", value[0]);
    else if (value[0] == remembered[0])
        printf("%2d) %7s", level, " \"\"");
    else
        printf("%2d) %7.3f", level, value[0]);
    for (int j = 1; j < 12; j++) {
        if (AlignAid.increment[j] == 0.0f)
            printf(",%7s", " **");
        else if (value[j] != remembered[j])
            printf(",%7.3f", value[j]);
        else
            printf(",%7s", " \"\"");
    }
    printf("\n");
    fflush(stdout);
    for (int j = 0; j < 12; j++) remembered[j] = value[j];
}

/* Points mosaic.stack and mosaic.fSpaceMatrix at the volume chosen by AlignAid.DisplayType
   (0 individual, 1 template_, 2..4 distort_x..z, 5 NL_bases, rebuilt first when
   AlignNL.ViewBasis is set), sets the displayed time point mosaic.iTime and loads the
   remembered display scale into image_scale_min/max. Other display types change nothing. */
void point_mosaic_to_stack_data(void)
{
    data_stack *stack;
    int itime = 0;
    float scale_min = distort_scale_min, scale_max = distort_scale_max;
    switch (AlignAid.DisplayType) {
    case 0:
        stack = &individual;
        itime = graph.iTime;
        scale_min = individual_scale_min;
        scale_max = individual_scale_max;
        break;
    case 1:
        stack = &template_;
        itime = iTime_Template;
        scale_min = template_scale_min;
        scale_max = template_scale_max;
        break;
    case 2: stack = &distort_x; break;
    case 3: stack = &distort_y; break;
    case 4: stack = &distort_z; break;
    case 5:
        if (AlignNL.ViewBasis) create_basis_function_image();
        stack = &NL_bases;
        break;
    default: return;
    }
    mosaic.stack = stack;
    mosaic.iTime = itime;
    mosaic.fSpaceMatrix = stack->SpaceTime.fData + (size_t)itime * (size_t)stack->npts_volume;
    image_scale_min = scale_min;
    image_scale_max = scale_max;
}

/* Stores the display's scale into the pair of the kind shown: 0 individual, 1 template,
   any other the distortion pair. */
void rescale_image_settings(void)
{
    if (AlignAid.DisplayType == 0) {
        individual_scale_min = image_scale_min;
        individual_scale_max = image_scale_max;
    } else if (AlignAid.DisplayType == 1) {
        template_scale_min = image_scale_min;
        template_scale_max = image_scale_max;
    } else {
        distort_scale_min = image_scale_min;
        distort_scale_max = image_scale_max;
    }
}

/* Multiplies every value of activation time points first..last (inclusive, limited to the
   stack's time points) by 0.4343: natural logarithms become base-10 ones. */
void convert_activation_scale(int first, int last)
{
    if (first < 0) first = 0;
    if (last > activation_stack.nt - 1) last = activation_stack.nt - 1;
    float *data = activation_stack.SpaceTime.fData;
    size_t n = (size_t)activation_stack.npts_volume;
    for (int t = first; t <= last; t++)
        for (size_t i = 0; i < n; i++) data[(size_t)t * n + i] = (float)(data[(size_t)t * n + i] * 0.4343);
}
