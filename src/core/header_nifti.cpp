/* NIfTI-1 header reading for ".nii" and ".nii.gz" files and ".hdr"/".img" pairs into the common QL_HEADER:
   sizes, spacing, scaling, the value type, the degrees-of-freedom extension and the
   orientation (methods 1, 2 and 3). Writes only the caller's header. No X11. */
#include "header_nifti.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <nifti1.h>
#include <nifti1_io.h>
#include <znzlib.h>

#include "header_quill.h"
#include "volume.h"

/* The code of the extension that carries the degrees of freedom of a statistical map. */
static const int DOF_EXTENSION_CODE = 20;

/* Reverses every field this reader uses, plus dim[0..7]. */
static void swap_used_fields(nifti_1_header *h)
{
    for (int i = 0; i < 8; i++) swap_16(&h->dim[i]);
    for (int i = 0; i < 8; i++) swap_32(&h->pixdim[i]);
    swap_16(&h->datatype);
    swap_32(&h->vox_offset);
    swap_32(&h->scl_slope);
    swap_32(&h->scl_inter);
    swap_16(&h->qform_code);
    swap_16(&h->sform_code);
    swap_32(&h->quatern_b);
    swap_32(&h->quatern_c);
    swap_32(&h->quatern_d);
    swap_32(&h->qoffset_x);
    swap_32(&h->qoffset_y);
    swap_32(&h->qoffset_z);
    for (int i = 0; i < 4; i++) {
        swap_32(&h->srow_x[i]);
        swap_32(&h->srow_y[i]);
        swap_32(&h->srow_z[i]);
    }
}

/* Reads the extender after the 348 bytes and, when it announces extensions, the first one.
   A header file that ends right after the 348 bytes has no extender: no extensions. */
static int read_extension(znzFile fp, QL_HEADER *header)
{
    unsigned char extender[4];
    if (znzread(extender, 1, 4, fp) != 4 || extender[0] == 0) return 0;

    int esize, ecode;
    if (znzread(&esize, 4, 1, fp) != 1) {
        printf("Error: A NIFTI1 extension was indicated, but it is missing.\n");
        return 1;
    }
    if (znzread(&ecode, 4, 1, fp) != 1) {
        printf("Error: A NIFTI1 extension was indicated, but the ecode is missing.\n");
        return 1;
    }
    /* Extension values are taken as stored, whatever the byte order of the header. */
    if (ecode == DOF_EXTENSION_CODE && znzread(&header->lDOF, 4, 1, fp) != 1) {
        printf("Error read degrees of freedom.\n");
        return 1;
    }
    return 0;
}

int read_nifti_header(char *name, QL_HEADER *header)
{
    char hdr_name[1024];
    nifti_1_header h;

    if (header->file_type == FILE_IMG) {
        int type;
        if (replace_extension(name, &type, "hdr", hdr_name)) return 1;
    } else {
        snprintf(hdr_name, sizeof hdr_name, "%s", name);
    }

    /* A ".nii.gz" file is read through zlib; every other name as a plain file. */
    znzFile fp = znzopen(hdr_name, "rb", is_gzipped_nifti_name(hdr_name));
    if (znz_isnull(fp)) {
        printf("Error: cannot open Nifti file %s.\n", hdr_name);
        return 1;
    }
    if (znzread(&h, 348, 1, fp) != 1) {
        znzclose(fp);
        fflush(stdout);
        fprintf(stderr, "\nError reading header file %s\n", hdr_name);
        exit(1);
    }
    int failed = read_extension(fp, header);
    znzclose(fp);
    if (failed) return 1;

    /* Only the header's byte order is decided here; the data of a NIfTI file keeps the
       machine's order (byte_order stays at its default), so its voxels are never swapped.
       Deliberate: pinned by ReadSpaceTimeData.NiftiVoxelsAreNeverSwapped. */
    if (h.dim[0] < 1 || h.dim[0] > 7) swap_used_fields(&h);

    header->dim = {h.dim[1], h.dim[2], h.dim[3]};
    if (h.dim[0] > 4) {
        printf("Error: qor does not currently handle data of dimensionality (%d) > 4.\n", h.dim[0]);
        return 1;
    }
    header->nt = h.dim[0] == 4 ? h.dim[4] : 1;

    header->resolution = {h.pixdim[1], h.pixdim[2], h.pixdim[3]};
    header->resolution_t = h.pixdim[4];
    header->scale_slope = h.scl_slope;
    header->scale_offset = h.scl_inter;
    header->qfac = h.pixdim[0];
    header->quaternion = {h.quatern_b, h.quatern_c, h.quatern_d};
    header->voxel_offset = h.vox_offset;

    switch (h.datatype) {
    case DT_UINT8: header->storage_type = FILE_UCHAR; break;
    case DT_INT16: header->storage_type = FILE_BSHORT; break;
    case DT_UINT16: header->storage_type = FILE_USHORT; break;
    case DT_INT32: header->storage_type = FILE_BLONG; break;
    case DT_FLOAT32: header->storage_type = FILE_BFLOAT; break;
    case DT_COMPLEX64:
        header->storage_type = FILE_BFLOAT;
        header->data_type = 1;
        break;
    default:
        printf("Error: the Nifti data storage type %d is not supported.\n", h.datatype);
        return 1;
    }

    if (header->dim.x < 1) {
        printf("Error: Value for x dimension not found in header file '%s'\n", hdr_name);
        return 1;
    }
    if (header->dim.y <= 0) {
        printf("Error: Value for y dimension not found in header file '%s'\n", hdr_name);
        return 1;
    }
    if (header->dim.z <= 0) {
        printf("Error: Value for z dimension not found in header file '%s'\n", hdr_name);
        return 1;
    }
    if (header->nt <= 0) {
        printf("Error: Value for t dimension not found in header file '%s'\n", hdr_name);
        return 1;
    }

    int method;
    if (h.qform_code == 0) {
        /* Deliberate: without a qform the sform is ignored, even when it is set.
           Pinned by ReadNiftiHeader.QformZeroIgnoresTheSform. */
        method = 1;
        header->origin = {0.0f, 0.0f, 0.0f};
        header->ijk_to_xyz = scale_and_shift_to_mat44(header->resolution, header->origin, header->direction);
    } else if (h.sform_code != 0) {
        method = 3;
        header->ijk_to_xyz = general_affine_to_mat44(h.srow_x, h.srow_y, h.srow_z);
    } else {
        method = 2;
        header->ijk_to_xyz = nifti_quatern_to_mat44(h.quatern_b, h.quatern_c, h.quatern_d, h.qoffset_x,
                                                    h.qoffset_y, h.qoffset_z, h.pixdim[1], h.pixdim[2],
                                                    h.pixdim[3], h.pixdim[0]);
    }

    const mat44 &m = header->ijk_to_xyz;
    header->origin = {m.m[0][3], m.m[1][3], m.m[2][3]};
    header->direction.x = m.m[0][0] > 0.0f ? 1.0f : -1.0f;
    header->direction.y = m.m[1][1] > 0.0f ? 1.0f : -1.0f;
    header->direction.z = m.m[2][2] > 0.0f ? 1.0f : -1.0f;
    header->off_diagonal = 0;
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++)
            if (r != c && m.m[r][c] != 0.0f) header->off_diagonal = 1; /* NaN counts as set */

    if (method == 1)
        printf("The NIFTI header for file %s uses Method 1: the old analyze format\n", name);
    else if (method == 2)
        printf("The NIFTI header for file %s uses Method 2: quaternion rotations\n", name);
    else
        printf("The NIFTI header for file %s uses Method 3: affine transformation of voxel indices\n", name);
    return 0;
}
