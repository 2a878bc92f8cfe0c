/* The rolloff filter of the working volumes and the frequency-domain Gaussian behind it.
   Reads template_unfiltered, original_unfiltered and AlignAid (smooth_fov_fraction, nmask,
   mask); writes template_, original and the allocation of individual. FFTW3; no X11. */
#include "filters.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fftw3.h>

#include "globals.h"
#include "numerics.h"

/* A stack with the header of `from` and its own copy of from's nt*n3d floats. */
static void copy_stack_with_data(data_stack *to, const data_stack *from)
{
    int n = from->nt * from->n3d;
    *to = *from;
    to->next = NULL;
    to->SpaceTime.fData = float_vector(n);
    memcpy(to->SpaceTime.fData, from->SpaceTime.fData, sizeof(float) * (size_t)n);
}

/* Rebuilds template_ (data of template_unfiltered.nt * n3d floats), individual (the template's
   header with the individual's time points; allocation only) and original from the unfiltered
   volumes: copied when smooth_fov_fraction is 0, else divided by a copy smoothed with a FWHM of
   fov / smooth_fov_fraction per axis, printing "smooth template by (...), " and "smooth original
   by (...)\n". Then template voxels with mask entry 0 are zeroed when nmask is set. The first
   call allocates; later calls free the previous template_ and individual data first. */
void filter_image_data(void)
{
    static int first_call = 1;
    int n_template = template_unfiltered.nt * template_unfiltered.n3d;

    if (!first_call) {
        free_float_vector(template_.SpaceTime.fData);
        free_float_vector(individual.SpaceTime.fData);
    }
    first_call = 0;

    template_.SpaceTime.fData = float_vector(n_template);

    char name[1024];
    snprintf(name, sizeof name, "%s", individual.name);
    individual = template_unfiltered;
    snprintf(individual.name, sizeof individual.name, "%s", name);
    individual.next = NULL;
    individual.nt = original.nt;
    individual.n4d = individual.n3d * individual.nt;
    individual.SpaceTime.fData = float_vector(individual.n3d * individual.nt);

    int n_original = original.nt * original.n3d;
    if (AlignAid.smooth_fov_fraction == 0) {
        memcpy(template_.SpaceTime.fData, template_unfiltered.SpaceTime.fData, sizeof(float) * (size_t)n_template);
        memcpy(original.SpaceTime.fData, original_unfiltered.SpaceTime.fData, sizeof(float) * (size_t)n_original);
    } else {
        float fraction = (float)AlignAid.smooth_fov_fraction;
        data_stack temporary;

        POINT3D width = {template_.fov.x / fraction, template_.fov.y / fraction, template_.fov.z / fraction};
        printf("smooth template by (%g %g %g), ", width.x, width.y, width.z);
        copy_stack_with_data(&temporary, &template_unfiltered);
        smooth_or_sharpen_isotropic(0, &temporary, width);
        float *raw = template_unfiltered.SpaceTime.fData, *smooth = temporary.SpaceTime.fData;
        for (int i = 0; i < n_template; i++)
            template_.SpaceTime.fData[i] = smooth[i] > 1e-6f ? raw[i] / smooth[i] : 0.0f;
        free_float_vector(temporary.SpaceTime.fData);

        width = {original.fov.x / fraction, original.fov.y / fraction, original.fov.z / fraction};
        printf("smooth original by (%g %g %g)\n", width.x, width.y, width.z);
        copy_stack_with_data(&temporary, &original_unfiltered);
        smooth_or_sharpen_isotropic(0, &temporary, width);
        raw = original_unfiltered.SpaceTime.fData;
        smooth = temporary.SpaceTime.fData;
        /* Deliberate: no guard here, unlike the template; a zero smoothed value gives inf or
           nan. Pinned by FilterImageData.TemplateDivisionIsGuardedButIndividualDivisionIsNotGuarded. */
        for (int i = 0; i < n_original; i++) original.SpaceTime.fData[i] = raw[i] / smooth[i];
        free_float_vector(temporary.SpaceTime.fData);
        fflush(stdout);
    }

    if (AlignAid.nmask != 0) {
        int n3d = template_unfiltered.n3d;
        for (int t = 0; t < template_unfiltered.nt; t++)
            for (int v = 0; v < n3d; v++)
                if (AlignAid.mask[v] == 0.0f) template_.SpaceTime.fData[t * n3d + v] = 0.0f;
    }
}

/* Per-axis factor of the frequency-domain Gaussian at frequency index i of n, centred at n/2.
   Deliberate: the half-sample shift gives the centre exp(-0.125/var), not 1, and an odd line
   (whose zero frequency the shift routine puts at n/2 + 1) exp(-1.125/var). Pinned by
   SmoothOrSharpenIsotropic.ConstantVolumeIsScaledByTheZeroFrequencyFactor. */
static float gauss_factor(int i, int n, float variance)
{
    float f = (float)(i - n / 2) + 0.5f;
    return (float)exp((double)(-f * f / 2.0f / variance));
}

/* Filters the stack's first n4d floats in place with an isotropic Gaussian of the given FWHM
   (mm per axis) applied in the frequency domain: sharpen 0 smooths, nonzero keeps one minus
   the Gaussian (a high-pass). Scratch: one complex copy of the stack. */
void smooth_or_sharpen_isotropic(int sharpen, data_stack *stack, POINT3D fwhm_mm)
{
    int n_complex = stack->n3d * stack->nt;
    int n_copy = stack->n4d < n_complex ? stack->n4d : n_complex;
    FCOMPLEX *c = fcomplex_vector(n_complex);
    for (int i = 0; i < n_complex; i++) {
        c[i].real = i < n_copy ? stack->SpaceTime.fData[i] : 0.0f;
        c[i].imag = 0.0f;
    }

    data_stack work = *stack;
    work.SpaceTime.fcData = c;
    for (int axis = 1; axis <= 3; axis++) ft_1d(axis, -1, &work);

    int nx = stack->dim.x, ny = stack->dim.y, nz = stack->dim.z;
    /* (2.355 / 2 pi)^2: the frequency-domain variance, in samples, of a spatial Gaussian of
       the given full width at half maximum over a field of view N * delta. */
    const double k = 0.1404824543408127;
    float fov_x = (float)nx * stack->resolution.x, fov_y = (float)ny * stack->resolution.y;
    float fov_z = (float)nz * stack->resolution.z;
    float varx = (float)((double)(fov_x * fov_x) * k / (double)(fwhm_mm.x * fwhm_mm.x));
    float vary = (float)((double)(fov_y * fov_y) * k / (double)(fwhm_mm.y * fwhm_mm.y));
    float varz = (float)((double)(fov_z * fov_z) * k / (double)(fwhm_mm.z * fwhm_mm.z));

    float *fx = float_vector(nx), *fy = float_vector(ny), *fz = float_vector(nz);
    for (int i = 0; i < nx; i++) fx[i] = gauss_factor(i, nx, varx);
    for (int j = 0; j < ny; j++) fy[j] = gauss_factor(j, ny, vary);
    for (int kz = 0; kz < nz; kz++) fz[kz] = gauss_factor(kz, nz, varz);

    for (int t = 0; t < stack->nt; t++)
        for (int kz = 0; kz < nz; kz++)
            for (int j = 0; j < ny; j++)
                for (int i = 0; i < nx; i++) {
                    float factor = fx[i] * fy[j] * fz[kz];
                    if (sharpen) factor = 1.0f - factor;
                    FCOMPLEX *v = &c[t * stack->n3d + kz * nx * ny + j * nx + i];
                    v->real *= factor;
                    v->imag *= factor;
                }
    free_float_vector(fx);
    free_float_vector(fy);
    free_float_vector(fz);

    for (int axis = 1; axis <= 3; axis++) ft_1d(axis, 1, &work);
    for (int i = 0; i < n_copy; i++) stack->SpaceTime.fData[i] = c[i].real;
    free_fcomplex_vector(c);
}

/* One-dimensional DFTs along axis 1 (x), 2 (y) or 3 (z) of every line of every time point of a
   stack holding complex pairs, with the zero frequency moved to the line's centre. direction 1
   is FFTW's forward transform (sign -1) divided by the length; -1 the unnormalised backward one.
   One FFTW plan (planning flags 0) serves every line of the call. Returns 0. */
int ft_1d(int axis, int direction, data_stack *stack)
{
    int nx = stack->dim.x, ny = stack->dim.y, nz = stack->dim.z;
    int n, stride, n_outer, n_inner, outer_step, inner_step;
    /* A line is n samples `stride` apart; the lines are addressed by two other indices. */
    if (axis == 1) {
        n = nx; stride = 1;
        n_outer = nz; outer_step = nx * ny; n_inner = ny; inner_step = nx;
    } else if (axis == 2) {
        n = ny; stride = nx;
        n_outer = nz; outer_step = nx * ny; n_inner = nx; inner_step = 1;
    } else {
        n = nz; stride = nx * ny;
        n_outer = ny; outer_step = nx; n_inner = nx; inner_step = 1;
    }
    if (n <= 0) return 0;

    fftw_complex *buffer = (fftw_complex *)fftw_malloc(sizeof(fftw_complex) * (size_t)n);
    FCOMPLEX *line = fcomplex_vector(n);
    fftw_plan plan = NULL;
    int sign = direction == 1 ? FFTW_FORWARD : FFTW_BACKWARD;
    float scale = (float)n;

    for (int t = 0; t < stack->nt; t++)
        for (int a = 0; a < n_outer; a++)
            for (int b = 0; b < n_inner; b++) {
                FCOMPLEX *base = stack->SpaceTime.fcData + (size_t)t * stack->n3d + a * outer_step + b * inner_step;
                if (plan == NULL) plan = fftw_plan_dft_1d(n, buffer, buffer, sign, 0);
                for (int i = 0; i < n; i++) line[i] = base[i * stride];
                swap_x(line, n, 0);
                for (int i = 0; i < n; i++) {
                    buffer[i][0] = line[i].real;
                    buffer[i][1] = line[i].imag;
                }
                fftw_execute(plan);
                for (int i = 0; i < n; i++) {
                    line[i].real = (float)buffer[i][0];
                    line[i].imag = (float)buffer[i][1];
                }
                swap_x(line, n, 1);
                for (int i = 0; i < n; i++) {
                    FCOMPLEX v = line[i];
                    if (direction == 1) {
                        v.real /= scale;
                        v.imag /= scale;
                    }
                    base[i * stride] = v;
                }
            }

    if (plan != NULL) fftw_destroy_plan(plan);
    fftw_free(buffer);
    free_fcomplex_vector(line);
    return 0;
}
