/* NIfTI-1 output files with a reference geometry, written through znz under a temporary name
   and renamed when complete (see nifti_out.h). No globals; no X11. */
#include "nifti_out.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "header_quill.h"
#include "safe_save.h"

/* 1 when name ends in suffix. */
static int ends_with(const char *name, const char *suffix)
{
    size_t n = strlen(name), k = strlen(suffix);
    return n >= k && strcmp(name + n - k, suffix) == 0;
}

int reference_nifti_header(const char *file_name, const data_stack *stack, nifti_1_header *header)
{
    char hdr_name[1024];
    int is_nifti = 1;
    if (is_gzipped_nifti_name(file_name) || ends_with(file_name, ".nii")) {
        snprintf(hdr_name, sizeof hdr_name, "%s", file_name);
    } else if (ends_with(file_name, ".img")) {
        size_t n = strlen(file_name);
        if (n >= sizeof hdr_name) n = sizeof hdr_name - 1;
        memcpy(hdr_name, file_name, n);
        hdr_name[n] = '\0';
        memcpy(hdr_name + n - 3, "hdr", 3);
    } else {
        is_nifti = 0;
    }

    if (is_nifti) {
        int swapped = 0;
        nifti_1_header *h = nifti_read_header(hdr_name, &swapped, 0);
        if (h == NULL) {
            printf("Error: cannot read the NIfTI header of %s\n", file_name);
            return 1;
        }
        *header = *h;
        free(h);
        return 0;
    }

    /* A quill or FreeSurfer volume: its matrix as both the sform and the qform. */
    memset(header, 0, sizeof *header);
    header->sizeof_hdr = 348;
    header->regular = 'r';
    header->dim[0] = 3;
    header->dim[1] = (short)stack->dim.x;
    header->dim[2] = (short)stack->dim.y;
    header->dim[3] = (short)stack->dim.z;
    for (int i = 4; i < 8; i++) header->dim[i] = 1;
    mat44 m = stack->ijk_to_xyz;
    float dx, dy, dz, qfac;
    nifti_mat44_to_quatern(m, &header->quatern_b, &header->quatern_c, &header->quatern_d,
                           &header->qoffset_x, &header->qoffset_y, &header->qoffset_z, &dx, &dy, &dz, &qfac);
    header->pixdim[0] = qfac;
    header->pixdim[1] = dx;
    header->pixdim[2] = dy;
    header->pixdim[3] = dz;
    for (int c = 0; c < 4; c++) {
        header->srow_x[c] = m.m[0][c];
        header->srow_y[c] = m.m[1][c];
        header->srow_z[c] = m.m[2][c];
    }
    header->qform_code = NIFTI_XFORM_SCANNER_ANAT;
    header->sform_code = NIFTI_XFORM_SCANNER_ANAT;
    header->xyzt_units = NIFTI_UNITS_MM;
    header->datatype = DT_FLOAT32;
    header->bitpix = 32;
    header->vox_offset = 352.0f;
    memcpy(header->magic, "n+1", 4);
    return 0;
}

void make_output_header(nifti_1_header *header, int nt, int datatype, const char *description)
{
    int nbyper = 0, swapsize = 0;
    nifti_datatype_sizes(datatype, &nbyper, &swapsize);
    header->sizeof_hdr = 348;
    memset(header->data_type, 0, sizeof header->data_type);
    memset(header->db_name, 0, sizeof header->db_name);
    header->extents = 0;
    header->session_error = 0;
    header->regular = 'r';
    header->dim[0] = nt > 1 ? 4 : 3;
    header->dim[4] = (short)nt;
    header->dim[5] = header->dim[6] = header->dim[7] = 1;
    header->intent_p1 = header->intent_p2 = header->intent_p3 = 0.0f;
    header->intent_code = 0;
    memset(header->intent_name, 0, sizeof header->intent_name);
    header->datatype = (short)datatype;
    header->bitpix = (short)(8 * nbyper);
    header->slice_start = header->slice_end = 0;
    header->slice_code = 0;
    header->slice_duration = 0.0f;
    header->toffset = 0.0f;
    header->vox_offset = 352.0f;
    header->scl_slope = 0.0f;
    header->scl_inter = 0.0f;
    header->cal_max = header->cal_min = 0.0f;
    header->glmax = header->glmin = 0;
    memset(header->descrip, 0, sizeof header->descrip);
    snprintf(header->descrip, sizeof header->descrip, "%s", description);
    memset(header->aux_file, 0, sizeof header->aux_file);
    memcpy(header->magic, "n+1", 4);
}

void nifti_world_matrix(const nifti_1_header *h, double m[4][4])
{
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) m[r][c] = r == c ? 1.0 : 0.0;
    if (h->sform_code > 0) {
        for (int c = 0; c < 4; c++) {
            m[0][c] = h->srow_x[c];
            m[1][c] = h->srow_y[c];
            m[2][c] = h->srow_z[c];
        }
    } else if (h->qform_code > 0) {
        mat44 q = nifti_quatern_to_mat44(h->quatern_b, h->quatern_c, h->quatern_d, h->qoffset_x, h->qoffset_y,
                                         h->qoffset_z, h->pixdim[1], h->pixdim[2], h->pixdim[3], h->pixdim[0]);
        for (int r = 0; r < 3; r++)
            for (int c = 0; c < 4; c++) m[r][c] = q.m[r][c];
    } else {
        for (int a = 0; a < 3; a++) {
            double zoom = h->pixdim[a + 1] > 0.0f ? h->pixdim[a + 1] : 1.0;
            double sign = a == 0 ? -1.0 : 1.0;
            m[a][a] = sign * zoom;
            m[a][3] = -sign * zoom * (h->dim[a + 1] - 1) / 2.0;
        }
    }
}

static int report_write_failure(nifti_output *out, int err)
{
    if (!znz_isnull(out->fp)) znzclose(out->fp);
    out->fp = NULL;
    unlink(out->temp_name);
    fflush(stdout);
    printf("Error: %s could not be written (%s); the previous file is kept.\n", out->final_name, strerror(err));
    fflush(stdout);
    return 1;
}

int nifti_output_open(nifti_output *out, const char *final_name, const nifti_1_header *header)
{
    out->fp = NULL;
    snprintf(out->final_name, sizeof out->final_name, "%s", final_name);
    if (strlen(final_name) >= sizeof out->final_name ||
        safe_save_temp_name(final_name, out->temp_name, sizeof out->temp_name) != 0) {
        printf("Error: cannot open the output file %s\n", final_name);
        return 1;
    }
    out->fp = znzopen(out->temp_name, "wb", is_gzipped_nifti_name(final_name));
    if (znz_isnull(out->fp)) {
        out->fp = NULL;
        printf("Error: cannot open the output file %s\n", final_name);
        return 1;
    }
    size_t values = 1;
    for (int i = 1; i <= header->dim[0] && i < 8; i++) values *= (size_t)(header->dim[i] > 0 ? header->dim[i] : 1);
    out->bytes_left = values * (size_t)(header->bitpix / 8);

    char extender[4] = {0, 0, 0, 0};
    errno = 0;
    if (znzwrite(header, 1, sizeof *header, out->fp) != sizeof *header || znzwrite(extender, 1, 4, out->fp) != 4)
        return report_write_failure(out, errno != 0 ? errno : EIO);
    return 0;
}

int nifti_output_write(nifti_output *out, const void *data, size_t bytes)
{
    errno = 0;
    if (bytes > out->bytes_left || znzwrite(data, 1, bytes, out->fp) != bytes)
        return report_write_failure(out, errno != 0 ? errno : EIO);
    out->bytes_left -= bytes;
    return 0;
}

int nifti_output_close(nifti_output *out)
{
    if (out->bytes_left != 0) return report_write_failure(out, EIO);
    errno = 0;
    int status = znzclose(out->fp);
    out->fp = NULL;
    if (status != 0) return report_write_failure(out, errno != 0 ? errno : EIO);
    /* zlib keeps the descriptor to itself: sync through a second one */
    int fd = open(out->temp_name, O_RDONLY);
    if (fd >= 0) {
        int failed = fsync(fd) != 0 && errno != EINVAL && errno != EROFS;
        int err = errno;
        close(fd);
        if (failed) return report_write_failure(out, err);
    }
    return safe_save_rename(out->temp_name, out->final_name);
}

void nifti_output_discard(nifti_output *out)
{
    if (!znz_isnull(out->fp)) znzclose(out->fp);
    out->fp = NULL;
    unlink(out->temp_name);
}
