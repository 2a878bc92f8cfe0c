/* Applying a session's alignment to image files (see apply_images.h). Reads
   template_unfiltered, original_unfiltered, Alignment and distort_x/y/z. No X11. */
#include "apply_images.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "apply_transform.h"
#include "globals.h"
#include "nifti_out.h"
#include "numerics.h"
#include "volume_load.h"

/* How the output stores its values: float, or the input's integer type with its scaling. */
struct stored_type {
    int datatype;   /* DT_FLOAT32, DT_UINT8, DT_INT16, DT_UINT16 or DT_INT32 */
    float slope;    /* the input's scl_slope (0: unscaled) */
    float inter;
};

static int nifti_datatype_of_storage(int storage_type)
{
    switch (storage_type) {
    case FILE_UCHAR: return DT_UINT8;
    case FILE_BSHORT: return DT_INT16;
    case FILE_USHORT: return DT_UINT16;
    case FILE_BLONG: return DT_INT32;
    default: return DT_FLOAT32;
    }
}

/* The stored integer that the reader turns into v (v = inter + slope * stored, in float, as
   read_quill_file scales; unscaled when slope is 0); 1 when there is none in the type's range. */
static int stored_integer(float v, const stored_type *t, double *stored)
{
    double lo, hi;
    switch (t->datatype) {
    case DT_UINT8: lo = 0.0; hi = 255.0; break;
    case DT_INT16: lo = -32768.0; hi = 32767.0; break;
    case DT_UINT16: lo = 0.0; hi = 65535.0; break;
    default: lo = -2147483648.0; hi = 2147483647.0; break;
    }
    double r = t->slope != 0.0f ? rint(((double)v - t->inter) / t->slope) : rint((double)v);
    if (!(r >= lo && r <= hi)) return 1; /* NaN too */
    float back = (float)r;
    if (t->slope != 0.0f) {
        back = t->slope * back;
        back = t->inter + back;
    }
    if (!(back == v)) return 1;
    *stored = r;
    return 0;
}

/* Nearest-neighbour outputs hold only input values and 0: they keep the input's integer type
   when every one of those values can be stored back exactly. */
static stored_type output_type(const QL_HEADER *h, const data_stack *in, int kernel)
{
    stored_type t = {DT_FLOAT32, 0.0f, 0.0f};
    if (kernel != APPLY_NEAREST) return t;
    stored_type keep = {nifti_datatype_of_storage(h->storage_type), h->scale_slope, h->scale_offset};
    if (keep.datatype == DT_FLOAT32) return t;
    double stored;
    if (stored_integer(0.0f, &keep, &stored)) return t;
    size_t n = (size_t)in->n3d * (size_t)in->nt;
    for (size_t i = 0; i < n; i++)
        if (stored_integer(in->SpaceTime.fData[i], &keep, &stored)) {
            printf("Note: the values of %s cannot all be stored back in their integer type; the output is float.\n",
                   h->file_name);
            return t;
        }
    return keep;
}

/* One volume of floats into the output's stored type (values checked by output_type). */
static void store_volume(const float *v, size_t n, const stored_type *t, void *out)
{
    double s = 0.0;
    for (size_t i = 0; i < n; i++) {
        if (t->datatype == DT_FLOAT32) {
            ((float *)out)[i] = v[i];
            continue;
        }
        stored_integer(v[i], t, &s);
        switch (t->datatype) {
        case DT_UINT8: ((unsigned char *)out)[i] = (unsigned char)s; break;
        case DT_INT16: ((short *)out)[i] = (short)s; break;
        case DT_UINT16: ((unsigned short *)out)[i] = (unsigned short)s; break;
        default: ((int *)out)[i] = (int)s; break;
        }
    }
}

/* Resamples every volume of input through the positions and writes them as one file on the
   grid of `reference'. time_step and time_units describe a series (nt > 1). */
static int write_resampled(const data_stack *input, const stored_type *type, const voxel_positions *pos,
                           POINT3D ratio, IPOINT3D wrap, int kernel, const nifti_1_header *reference,
                           float time_step, int time_units, const char *output_name)
{
    nifti_1_header h = *reference;
    make_output_header(&h, input->nt, type->datatype, "align-apply");
    h.xyzt_units = (char)(XYZT_TO_SPACE(reference->xyzt_units) | XYZT_TO_TIME(time_units));
    h.pixdim[4] = input->nt > 1 ? time_step : 0.0f;
    if (type->datatype != DT_FLOAT32 && type->slope != 0.0f) {
        h.scl_slope = type->slope;
        h.scl_inter = type->inter;
    }
    nifti_output out;
    if (nifti_output_open(&out, output_name, &h)) return 1;

    size_t n3d = (size_t)pos->dim.x * pos->dim.y * pos->dim.z;
    size_t bytes = n3d * (size_t)(h.bitpix / 8);
    float *volume = float_vector((int)n3d);
    unsigned char *stored = unsigned_char_vector((int)bytes);
    int failed = 0;
    for (int t = 0; t < input->nt && !failed; t++) {
        printf("\rResampling %s: volume %d of %d", output_name, t + 1, input->nt);
        fflush(stdout);
        const float *source = input->SpaceTime.fData + (size_t)t * (size_t)input->npts_volume;
        resample_through_positions(pos, source, input->dim, ratio, wrap, kernel, volume);
        store_volume(volume, n3d, type, stored);
        if (nifti_output_write(&out, stored, bytes)) failed = 1;
    }
    printf("\n");
    fflush(stdout);
    free_float_vector(volume);
    free_unsigned_char_vector(stored);
    if (failed) return 1;
    return nifti_output_close(&out);
}

/* A float map (one volume, or `components' volumes as a 5-D vector file) on the grid of
   `reference'. */
static int write_float_map(const float *data, int components, const nifti_1_header *reference,
                           const char *description, const char *name)
{
    nifti_1_header h = *reference;
    make_output_header(&h, 1, DT_FLOAT32, description);
    h.xyzt_units = (char)XYZT_TO_SPACE(reference->xyzt_units);
    if (components > 1) {
        h.dim[0] = 5;
        h.dim[4] = 1;
        h.dim[5] = (short)components;
        h.pixdim[4] = h.pixdim[5] = 1.0f;
        h.intent_code = NIFTI_INTENT_VECTOR;
    }
    size_t n = (size_t)h.dim[1] * h.dim[2] * h.dim[3] * (size_t)components;
    nifti_output out;
    if (nifti_output_open(&out, name, &h)) return 1;
    if (nifti_output_write(&out, data, n * sizeof(float))) return 1;
    return nifti_output_close(&out);
}

/* 1 when the two grids have the same dimensions and voxel sizes (within 1e-4 relative). */
static int same_grid(const data_stack *a, const data_stack *b)
{
    if (a->dim.x != b->dim.x || a->dim.y != b->dim.y || a->dim.z != b->dim.z) return 0;
    const float ra[3] = {a->resolution.x, a->resolution.y, a->resolution.z};
    const float rb[3] = {b->resolution.x, b->resolution.y, b->resolution.z};
    for (int k = 0; k < 3; k++)
        if (!(fabs((double)ra[k] - rb[k]) <= 1e-4 * fabs((double)rb[k]))) return 0;
    return 1;
}

static POINT3D voxel_size_ratio(POINT3D output, POINT3D input)
{
    POINT3D r = {output.x / input.x, output.y / input.y, output.z / input.z};
    return r;
}

int write_aligned_volume(const data_stack *input, const char *template_name, const char *output_name)
{
    nifti_1_header reference;
    if (reference_nifti_header(template_name, &template_unfiltered, &reference)) return 1;
    voxel_positions pos = {{0, 0, 0}, NULL};
    if (forward_positions(input->dim, input->resolution, &pos)) return 1;
    stored_type type = {DT_FLOAT32, 0.0f, 0.0f};
    int status = write_resampled(input, &type, &pos, voxel_size_ratio(template_unfiltered.resolution, input->resolution),
                                 Alignment.WrapAround, APPLY_ACCURATE, &reference, input->resolution_t, 0, output_name);
    free_voxel_positions(&pos);
    return status;
}

/* The steps of apply_alignment after the input is read; returns 0 or 1 after a message. */
static int apply_to_input(const apply_request *r, const data_stack *input, const QL_HEADER *input_header)
{
    const data_stack *out_grid = r->inverse ? &original_unfiltered : &template_unfiltered;
    const data_stack *in_grid = r->inverse ? &template_unfiltered : &original_unfiltered;
    const char *out_grid_name = r->inverse ? r->individual_name : r->template_name;
    const char *in_grid_name = r->inverse ? r->template_name : r->individual_name;

    if (input->data_type != 0) {
        printf("Error: %s holds complex data, which align-apply does not resample.\n", r->input_name);
        return 1;
    }
    if (!same_grid(input, in_grid)) {
        printf("Error: %s has %dx%dx%d voxels of %g x %g x %g mm, not the grid of the %s %s "
               "(%dx%dx%d voxels of %g x %g x %g mm).\n",
               r->input_name, input->dim.x, input->dim.y, input->dim.z, input->resolution.x, input->resolution.y,
               input->resolution.z, r->inverse ? "template" : "individual", in_grid_name, in_grid->dim.x,
               in_grid->dim.y, in_grid->dim.z, in_grid->resolution.x, in_grid->resolution.y, in_grid->resolution.z);
        return 1;
    }
    nifti_1_header out_reference, in_reference, input_nifti;
    if (reference_nifti_header(out_grid_name, out_grid, &out_reference) ||
        reference_nifti_header(in_grid_name, in_grid, &in_reference) ||
        reference_nifti_header(r->input_name, input, &input_nifti))
        return 1;

    voxel_positions pos = {{0, 0, 0}, NULL};
    if (r->inverse) {
        inverse_report report;
        if (inverse_positions(original_unfiltered.dim, original_unfiltered.resolution, &pos, &report)) return 1;
        printf("Inverse mapping: largest residual %.3g mm over the %ld voxels that map into the template; "
               "%ld voxels where folds make the mapping not invertible\n",
               report.largest_residual, report.inside, report.not_invertible);
    } else if (forward_positions(original_unfiltered.dim, original_unfiltered.resolution, &pos)) {
        return 1;
    }

    stored_type type = output_type(input_header, input, r->kernel);
    IPOINT3D wrap = r->inverse ? IPOINT3D{0, 0, 0} : Alignment.WrapAround;
    int failed = write_resampled(input, &type, &pos, voxel_size_ratio(out_grid->resolution, in_grid->resolution),
                                 wrap, r->kernel, &out_reference, input->resolution_t, input_nifti.xyzt_units,
                                 r->output_name);
    if (!failed && r->jacobian_name != NULL) {
        float *jacobian = float_vector(out_grid->n3d);
        jacobian_of_positions(&pos, in_grid->resolution, out_grid->resolution, jacobian);
        failed = write_float_map(jacobian, 1, &out_reference, "align-apply Jacobian determinant", r->jacobian_name);
        free_float_vector(jacobian);
    }
    if (!failed && r->field_name != NULL) {
        double world_out[4][4], world_in[4][4];
        nifti_world_matrix(&out_reference, world_out);
        nifti_world_matrix(&in_reference, world_in);
        float *field = float_vector(3 * out_grid->n3d);
        world_displacement_field(&pos, world_out, world_in, field);
        failed = write_float_map(field, 3, &out_reference, "align-apply displacement (LPS mm)", r->field_name);
        free_float_vector(field);
    }
    free_voxel_positions(&pos);
    return failed;
}

int apply_alignment(const apply_request *r)
{
    data_stack input;
    memset(&input, 0, sizeof input);
    file_list node;
    memset(&node, 0, sizeof node);
    snprintf(node.file_name, sizeof node.file_name, "%s", r->input_name);
    int nfiles = 0;
    if (read_SpaceTime_data(0, &input, &node, &nfiles)) return 1;
    int status = apply_to_input(r, &input, &node.header);
    free_float_vector(input.SpaceTime.fData);
    return status;
}
