/* The distortion-map files: three float volumes (x, y, z maps) written as a single-file NIfTI-1
   volume or as a text header with a .bfloat data file, and read back into distort_x/y/z.
   Geometry from template_; reading may set AlignNL.Adjusted. No X11. */
#include "distortion_files.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <znzlib.h>

#include "globals.h"
#include "header_quill.h"
#include "safe_save.h"
#include "volume.h"

/* The map save in progress: its data file (".nii" or ".bfloat") and, for the bfloat kind, its
   text header, each written to a temporary file in the same directory and renamed over its
   final name only by rename_distortion_temporaries. */
static safe_file map_data = {NULL, "", ""}, map_header = {NULL, "", ""};

static void forget_temporary(safe_file *sf)
{
    sf->fp = NULL;
    sf->temp_name[0] = '\0';
}

void discard_distortion_temporaries(void)
{
    safe_save_discard(&map_header);
    safe_save_discard(&map_data);
    forget_temporary(&map_header);
    forget_temporary(&map_data);
}

/* Every write and the close are checked: a short write sets the stream's error flag, which
   safe_save_finish reports, so a map cut short by a full disk fails the save whichever of the
   three writes fell short, and the previous files are kept. */
int write_distortion_temporaries(char *file_name)
{
    discard_distortion_temporaries();
    int format = quill_format(file_name);
    if (format < 0) {
        printf("Error: that output file format is not supported.\n");
        printf("Use the `bfloat' extension or use `bshort' after `rescale'.\n");
        return 1;
    }
    size_t n = (size_t)distort_x.n3d;
    FILE *fp = NULL;
    if (open_output_file(3, format, file_name, &fp) != 0 || fp == NULL) {
        discard_distortion_temporaries();
        return 1;
    }
    fwrite(distort_x.SpaceTime.fData, sizeof(float), n, fp);
    fwrite(distort_y.SpaceTime.fData, sizeof(float), n, fp);
    fwrite(distort_z.SpaceTime.fData, sizeof(float), n, fp);
    if (safe_save_finish(&map_data) != 0) {
        discard_distortion_temporaries();
        return 1;
    }
    return 0;
}

int rename_distortion_temporaries(void)
{
    int status = 0;
    if (map_data.temp_name[0] == '\0') status = 1;
    else if (safe_save_rename(map_data.temp_name, map_data.final_name) != 0) status = 1;
    forget_temporary(&map_data);
    if (status == 0 && map_header.temp_name[0] != '\0' &&
        safe_save_rename(map_header.temp_name, map_header.final_name) != 0)
        status = 1;
    forget_temporary(&map_header);
    if (status != 0) discard_distortion_temporaries();
    return status;
}

int write_distortion_files(char *file_name)
{
    if (write_distortion_temporaries(file_name) != 0) return 1;
    return rename_distortion_temporaries();
}

/* Writes the header for ntime volumes of kind format under file_name_root and hands back the data
   stream positioned at the data. Returns 0, or 1 after a message. Both files are the temporaries
   of the map save in progress; the text header is complete and closed when this returns.
   Deliberate: a NIfTI header failure returns 0 (its own messages report it, the stream stays
   NULL). Pinned by WriteDistortionFiles.UnwritableNiftiPrintsOnlyItsOwnMessage. */
int open_output_file(int ntime, int format, char *file_name_root, FILE **file)
{
    char name[1024];
    if (format == 6) {
        write_nifti_header(ntime, file_name_root, file);
        return 0;
    }
    snprintf(name, sizeof name, "%s.hdr", file_name_root);
    FILE *fp = safe_save_open(&map_header, name, "w");
    if (fp == NULL) {
        printf("Error: cannot open the output file %s\n", name);
        return 1;
    }
    fprintf(fp, "x %d\ny %d\nz %d\nt %d\nbyte-order %d\n", template_.dim.x, template_.dim.y,
            template_.dim.z, ntime, machine_byte_order());
    fprintf(fp, "resolution %g %g %g\norigin %g %g %g\ndirection %g %g %g\n", template_.resolution.x,
            template_.resolution.y, template_.resolution.z, template_.origin.x, template_.origin.y,
            template_.origin.z, template_.direction.x, template_.direction.y, template_.direction.z);
    fprintf(fp, "information:\n");
    fprintf(fp, "x,y,z distortion maps from qor-align\n");
    if (safe_save_finish(&map_header) != 0) return 1;

    snprintf(name, sizeof name, "%s.bfloat", file_name_root);
    if ((*file = safe_save_open(&map_data, name, "wb")) == NULL) {
        printf("Error: cannot open the output file %s\n", name);
        return 1;
    }
    return 0;
}

/* Writes root + ".nii" (the temporary of the map save in progress) up to byte 352 (348-byte
   header in native order, 4 zero extender bytes) for ntime float volumes on the template grid;
   the open stream is handed back. Returns 0, or 1 after a message (the stream handed back is
   NULL when the file could not be opened). */
int write_nifti_header(int ntime, char *file_name_root, FILE **file)
{
    nifti_1_header h;
    memset(&h, 0, sizeof h);
    *file = NULL;

    mat44 m = scale_and_shift_to_mat44(template_.resolution, template_.origin, template_.direction);
    float qb, qc, qd, qx, qy, qz, dx, dy, dz, qfac;
    nifti_mat44_to_quatern(m, &qb, &qc, &qd, &qx, &qy, &qz, &dx, &dy, &dz, &qfac);

    h.sizeof_hdr = 348;
    h.regular = 'r';
    h.dim[0] = 4;
    h.dim[1] = (short)template_.dim.x;
    h.dim[2] = (short)template_.dim.y;
    h.dim[3] = (short)template_.dim.z;
    h.dim[4] = (short)ntime;
    h.dim[5] = h.dim[6] = h.dim[7] = 1;
    h.datatype = 16;
    h.bitpix = 32;
    h.pixdim[0] = qfac;
    h.pixdim[1] = template_.resolution.x;
    h.pixdim[2] = template_.resolution.y;
    h.pixdim[3] = template_.resolution.z;
    h.vox_offset = 352.0f;
    h.xyzt_units = 2;
    h.qform_code = 1;
    h.sform_code = 0;
    h.quatern_b = qb;
    h.quatern_c = qc;
    h.quatern_d = qd;
    h.qoffset_x = qx;
    h.qoffset_y = qy;
    h.qoffset_z = qz;
    h.srow_x[0] = template_.direction.x * template_.resolution.x;
    h.srow_x[3] = template_.origin.x;
    h.srow_y[1] = template_.direction.y * template_.resolution.y;
    h.srow_y[3] = template_.origin.y;
    h.srow_z[2] = template_.direction.z * template_.resolution.z;
    h.srow_z[3] = template_.origin.z;
    memcpy(h.magic, "n+1", 4);

    char name[1024];
    snprintf(name, sizeof name, "%s.nii", file_name_root);
    FILE *fp = safe_save_open(&map_data, name, "wb");
    if (fp == NULL) {
        printf("Error: cannot open the header file %s.\n", name);
        return 1;
    }
    *file = fp;
    if (fwrite(&h, 348, 1, fp) != 1) {
        printf("Error writing the NIFTI header into file %s\n", name);
        return 1;
    }
    char pad[4] = {0, 0, 0, 0};
    if (fwrite(pad, 4, 1, fp) != 1) {
        fflush(stdout);
        fprintf(stderr, "\nError writing header file extension pad %s\n", name);
        return 1;
    }
    return 0;
}

/* Reads the three maps of a distortion file whose header was read by read_volume_header into
   distort_x/y/z (allocated on the template grid). Returns 0, or 1 after a message; a data offset
   past the end of the file is reported as a short read, and a failed seek (a negative offset)
   ends the program.
   Deliberate: only a file from a machine of the other byte order sets AlignNL.Adjusted (for each
   map holding a non-zero or NaN value), and only the all-short read fails. Pinned by
   ReadDistortionFile.OtherByteOrderSwapsAndSetsAdjusted. */
int read_distortion_file(char *file_name, QL_HEADER header)
{
    /* Maps in a ".nii.gz" file are unpacked by zlib as they are read. */
    znzFile fp = znzopen(file_name, "rb", is_gzipped_nifti_name(file_name));
    if (znz_isnull(fp)) {
        printf("\nError: cannot open file %s.\n", file_name);
        return 1;
    }
    if (header.storage_type != 2) {
        printf("\nError: the storage type for distortion file %s should be binary floats\n", file_name);
        znzclose(fp);
        return 1;
    }
    /* An offset no long can hold (or NaN) lies past the end of any file: the three reads would
       fall short, and that is what is reported. A negative offset goes to the seek, which
       refuses it. An offset past the end of the file leaves the reads short as well. */
    float voxel_offset = header.voxel_offset;
    if (!(voxel_offset < 9.0e18f)) {
        printf("Error reading the distortion map data from file %s\n", file_name);
        znzclose(fp);
        return 1;
    }
    long offset = voxel_offset > -9.0e18f ? (long)voxel_offset : -1;
    if (offset < 0 || znzseek(fp, (znz_off_t)offset, SEEK_SET) < 0) {
        znzclose(fp);
        fflush(stdout);
        fprintf(stderr, "\nError doing fseek() to %ld in data file %s\n", offset, file_name);
        exit(1);
    }
    size_t n = (size_t)template_.npts_volume;
    int short_x = znzread(distort_x.SpaceTime.fData, sizeof(float), n, fp) < n;
    int short_y = znzread(distort_y.SpaceTime.fData, sizeof(float), n, fp) < n;
    int short_z = znzread(distort_z.SpaceTime.fData, sizeof(float), n, fp) < n;
    if (short_x && short_y && short_z) {
        znzclose(fp);
        printf("Error reading the distortion map data from file %s\n", file_name);
        return 1;
    }
    if (machine_byte_order() != header.byte_order) {
        for (size_t i = 0; i < n; i++) {
            float *vx = distort_x.SpaceTime.fData + i;
            float *vy = distort_y.SpaceTime.fData + i;
            float *vz = distort_z.SpaceTime.fData + i;
            swap_32(vx);
            swap_32(vy);
            swap_32(vz);
            if (*vx != 0.0f) AlignNL.Adjusted.x = 1;
            if (*vy != 0.0f) AlignNL.Adjusted.y = 1;
            if (*vz != 0.0f) AlignNL.Adjusted.z = 1;
        }
    }
    znzclose(fp);
    return 0;
}
