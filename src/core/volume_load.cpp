/* Loading a role's list of data files into one data_stack: every header first, the checks of
   the files against the run's first file, one allocation, then the voxel values of each file
   converted to float, each file's data checked in its turn. Reads and writes the stack given;
   recognises activation_stack by identity. No X11. */
#include "volume_load.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <znzlib.h>

#include "globals.h"
#include "header_quill.h"
#include "numerics.h"

/* The float array of a stack is allocated with a 32-bit byte count: it must stay under 4 GiB. */
static const long long MAX_STACK_FLOATS = (1LL << 30) - 1;

/* Bytes of one stored value of a storage type, 0 for a storage that is not read. */
static int storage_bytes(int storage_type)
{
    switch (storage_type) {
    case FILE_BSHORT: return 2;
    case FILE_BFLOAT: return 4;
    case FILE_BLONG: return 4;
    case FILE_USHORT: return 2;
    case FILE_UCHAR: return 1;
    default: return 0;
    }
}

/* One volume's (or slice's) read buffer of n values of a storage type (1 to 5). */
static void *storage_vector(int storage_type, int n)
{
    switch (storage_type) {
    case FILE_BFLOAT: return float_vector(n);
    case FILE_BSHORT: return short_vector(n);
    case FILE_BLONG: return int_vector(n);
    case FILE_USHORT: return unsigned_short_vector(n);
    default: return unsigned_char_vector(n);
    }
}

static void free_storage_vector(int storage_type, void *v)
{
    switch (storage_type) {
    case FILE_BFLOAT: free_float_vector((float *)v); break;
    case FILE_BSHORT: free_short_vector((short *)v); break;
    case FILE_BLONG: free_int_vector((int *)v); break;
    case FILE_USHORT: free_unsigned_short_vector((unsigned short *)v); break;
    default: free_unsigned_char_vector((unsigned char *)v); break;
    }
}

/* The file of slice z of a FreeSurfer volume: base name, the slice number with at least
   three digits, and the extension of the storage (1 bshort, else bfloat). */
static void slice_file_name(char slice[1024], const char *base, int z, int storage_type)
{
    const char *extension = storage_type == FILE_BSHORT ? "bshort" : "bfloat";
    if (snprintf(slice, 1024, "%s%03d.%s", base, z, extension) >= 1024) slice[1023] = '\0';
}

/* 1 when the file exists and has been sized, 0 when it cannot be looked at. */
static int file_size(const char *name, long long *size)
{
    struct stat st;
    if (stat(name, &st) != 0 || !S_ISREG(st.st_mode)) return 0;
    *size = (long long)st.st_size;
    return 1;
}

/* For a gzipped file the size on disk says nothing about the data: 1 when it unpacks to at
   least `need' bytes (zlib skips forward by unpacking into its own buffer, so nothing of the
   data's size is allocated), 0 when it is shorter or cannot be read. */
static int unpacks_to_at_least(const char *name, double need)
{
    if (need <= 0.0) return 1;
    znzFile fp = znzopen(name, "rb", 1);
    if (znz_isnull(fp)) return 0;
    unsigned char last;
    int ok = znzseek(fp, (znz_off_t)(need - 1.0), SEEK_SET) >= 0 && znzread(&last, 1, 1, fp) == 1;
    znzclose(fp);
    return ok;
}

/* Ends the program as a failing seek does: the offset cannot be reached in that file. */
static void seek_failed(long offset, const char *name)
{
    fflush(stdout);
    fprintf(stderr, "\nError doing fseek() to %ld in data file %s\n", offset, name);
    exit(1);
}

/* A whole byte count for fseek: the float truncated; a value no long can hold gives -1,
   which the seek refuses. */
static long seek_offset(float voxel_offset)
{
    if (!(voxel_offset > -9.0e18f && voxel_offset < 9.0e18f)) return -1;
    return (long)voxel_offset;
}

/* The message a read gives when a data file ends before the values its header promises. */
static void report_short_data(const file_list *node)
{
    if (node->header.file_type == FILE_FREESURFER)
        /* Deliberate: float slices get the same "short data" text.
           Pinned by ReadFreesurferFile.SlicesFillTheirPlanesOfEveryVolume. */
        printf("Error reading the short data from file %s\n", node->file_name);
    else
        printf("Error reading the data from file %s\n", node->file_name);
}

/* The first problem of a FreeSurfer stack's slice files, looked at in order. */
enum { SLICES_OK, SLICE_MISSING, SLICE_NOT_REGULAR, SLICE_SHORT };
static int first_slice_problem(const file_list *node)
{
    const QL_HEADER *h = &node->header;
    int bytes = h->storage_type == FILE_BSHORT ? 2 : 4;
    long long need = (long long)node->nt * h->n2d * bytes;
    for (int z = 0; z < h->dim.z; z++) {
        char slice[1024];
        struct stat st;
        slice_file_name(slice, node->file_name, z, h->storage_type);
        if (stat(slice, &st) != 0) return SLICE_MISSING;
        if (!S_ISREG(st.st_mode)) return SLICE_NOT_REGULAR;
        if ((long long)st.st_size < need) return SLICE_SHORT;
    }
    return SLICES_OK;
}

/* 1 when a data file of the list holds fewer bytes than its header promises for its volumes
   of the stack (every slice file, in order, for a FreeSurfer stack). 0 when it holds them, or
   when a file cannot be looked at or has no storage to read: the read then reports that in
   its turn. A voxel offset that is not a number counts as short. Prints nothing. */
static int data_file_is_short(const data_stack *stack1, const file_list *node)
{
    const QL_HEADER *h = &node->header;
    long long size;
    if (h->file_type == FILE_FREESURFER) return first_slice_problem(node) == SLICE_SHORT;
    int bytes = storage_bytes(h->storage_type);
    if (bytes == 0 || !file_size(node->file_name, &size)) return 0;
    double offset = (double)h->voxel_offset;
    if (offset < 0.0) return 0; /* the seek reports it */
    double need = floor(offset) + (double)node->nt * (double)stack1->npts_volume * bytes;
    if (is_gzipped_nifti_name(node->file_name)) return !(need == need && unpacks_to_at_least(node->file_name, need));
    return !((double)size >= need);
}

/* 1 when nothing vouches for the values a file's header promises: its data file (a slice
   file, for a FreeSurfer stack) is short, missing or not a regular file, or its offset is
   negative. The load stops at the first such file, in its turn, and the array is sized for
   the files before it, so that a header without its data costs no memory. Prints nothing. */
static int data_file_is_unusable(const data_stack *stack1, const file_list *node)
{
    const QL_HEADER *h = &node->header;
    long long size;
    if (data_file_is_short(stack1, node)) return 1;
    if (h->file_type == FILE_FREESURFER) return first_slice_problem(node) != SLICES_OK;
    return !file_size(node->file_name, &size) || h->voxel_offset < 0.0f;
}

/* The refusal of an unusable file in its turn, in the words of its read: "cannot open" for a
   missing data file (a missing slice names the stack; slices are looked at in order), the
   seek's fatal message for a negative offset, the short-data message otherwise; a data file
   that is there but no regular file has a message of its own. Never reads into the array,
   which has no room for the file. */
static void report_unusable(const file_list *node)
{
    const QL_HEADER *h = &node->header;
    struct stat st;
    if (h->file_type == FILE_FREESURFER) {
        if (first_slice_problem(node) == SLICE_MISSING)
            printf("\nError: cannot open file %s\n", node->file_name);
        else
            report_short_data(node);
        return;
    }
    if (stat(node->file_name, &st) != 0) {
        printf("\nError: cannot open file %s.\n", node->file_name);
        return;
    }
    if (!S_ISREG(st.st_mode)) {
        printf("\nError: %s is not a regular file.\n", node->file_name);
        return;
    }
    if (h->voxel_offset < 0.0f) seek_failed(seek_offset(h->voxel_offset), node->file_name);
    report_short_data(node);
}

/* One past the last element of the stack's array that a file's read writes: its volumes, and
   for a FreeSurfer stack the planes of its last volume, which may reach past the stack's
   volume size. */
static long long end_of_file_values(const data_stack *stack1, const file_list *node)
{
    long long npts = stack1->npts_volume, start = (long long)node->start_image * npts;
    if (node->header.file_type != FILE_FREESURFER || node->nt <= 0) return start + node->nt * npts;
    long long planes = start + (node->nt - 1) * npts + (long long)node->header.dim.z * node->header.n2d;
    return planes > start + node->nt * npts ? planes : start + node->nt * npts;
}

/* The run's reference: the very first file ever read, of whatever role. align never resets
   it; forget_SpaceTime_reference does, for programs that load independent runs. */
static int have_reference = 0;
static IPOINT3D reference_dim;
static POINT3D reference_resolution;
static int reference_data_type;

void forget_SpaceTime_reference(void) { have_reference = 0; }

int read_SpaceTime_data(int common_dimensions, data_stack *stack1, file_list *file_info, int *nfiles)
{

    *nfiles = 0;
    if (file_info == NULL || file_info->file_name[0] == '\0') return 0;

    for (file_list *node = file_info; node != NULL; node = node->next) {
        QL_HEADER header;
        if (read_volume_header(node->file_name, &header)) return 1;
        if (header.file_type != FILE_FREESURFER && storage_bytes(header.storage_type) == 0) {
            /* its values would never be read: refused before anything is allocated */
            printf("Error: no storage type is given for %s; its header needs a storage-type line\n",
                   node->file_name);
            printf("(short, float, long, unsigned-short or unsigned-char).\n");
            return 1;
        }

        if (!have_reference) {
            have_reference = 1;
            reference_dim = header.dim;
            reference_resolution = header.resolution;
            reference_data_type = header.data_type;
        } else {
            if (header.data_type != reference_data_type && stack1 != &activation_stack) {
                printf("Don't mix real and complex data types between files.\n");
                return 1;
            }
            if (stack1 == &activation_stack && header.data_type != 0) {
                printf("Activation overlays cannot be complex.\n");
                return 1;
            }
            if (common_dimensions) {
                if (header.dim.x != reference_dim.x || header.dim.y != reference_dim.y ||
                    header.dim.z != reference_dim.z) {
                    printf("Error: dimensions for %s (%d,%d,%d)\n", node->file_name, header.dim.x,
                           header.dim.y, header.dim.z);
                    printf("don't match previous image dimensions (%d,%d,%d)\n", reference_dim.x,
                           reference_dim.y, reference_dim.z);
                    return 1;
                }
                if (header.resolution.x != reference_resolution.x ||
                    header.resolution.y != reference_resolution.y ||
                    header.resolution.z != reference_resolution.z) {
                    printf("Warning: resolution for %s (%g,%g,%g)\n", node->file_name,
                           header.resolution.x, header.resolution.y, header.resolution.z);
                    printf("doesn't match previous resolution (%g,%g,%g)\n", reference_resolution.x,
                           reference_resolution.y, reference_resolution.z);
                }
            }
        }

        /* The geometry of the stack is that of its last file. */
        stack1->dim = header.dim;
        stack1->n2d = header.n2d;
        stack1->n3d = header.n3d;
        stack1->npts_volume = header.n3d;
        stack1->n4d = header.n4d;
        stack1->resolution = header.resolution;
        stack1->origin = header.origin;
        stack1->direction = header.direction;
        stack1->fov = header.fov;
        stack1->ijk_to_xyz = header.ijk_to_xyz;
        stack1->xyz_to_ijk = header.xyz_to_ijk;
        stack1->off_diagonal = header.off_diagonal;
        stack1->registration = header.registration;
        stack1->data_type = header.data_type;
        if (stack1->resolution_t == 0.0f) stack1->resolution_t = header.resolution_t;
        if (stack1->data_type != 0) stack1->npts_volume *= 2;

        node->header = header;
        node->nt = node->type == 3 ? 1 : header.nt;
        if ((long long)stack1->nt + node->nt > MAX_STACK_FLOATS) {
            printf("Error: with %s the list holds %lld volumes, too many to hold in memory.\n",
                   node->file_name, (long long)stack1->nt + node->nt);
            return 1;
        }
        node->start_image = stack1->nt;
        stack1->nt += node->nt;
        node->end_image = stack1->nt - 1;
    }

    long long total = (long long)stack1->npts_volume * stack1->nt;
    if (total > MAX_STACK_FLOATS) {
        printf("Error: %d volumes of %d values each are too many to hold in memory.\n", stack1->nt,
               stack1->npts_volume);
        return 1;
    }
    /* Each file's data are checked in its turn, when it is read. A file whose data cannot
       give what its header promises (short, missing, a negative offset) ends the load there,
       so the array needs room only for the files before it: an absurd header costs no memory. */
    file_list *stop_node = NULL;
    long long room = total;
    for (file_list *node = file_info; node != NULL; node = node->next)
        if (data_file_is_unusable(stack1, node)) {
            stop_node = node;
            break;
        }
    if (stop_node != NULL) {
        room = 0;
        for (file_list *node = file_info; node != stop_node; node = node->next) {
            long long end = end_of_file_values(stack1, node);
            if (end > room) room = end;
        }
        if (room > total) room = total;
    }
    if (room != 0) stack1->SpaceTime.fData = float_vector((int)room);

    for (file_list *node = file_info; node != NULL; node = node->next) {
        /* The array has no room for the stopping file: it is refused here, as its read would. */
        if (node == stop_node) {
            report_unusable(node);
            return 1;
        }
        int failed = node->header.file_type == FILE_FREESURFER ? read_freesurfer_file(stack1, node)
                                                               : read_quill_file(stack1, node);
        if (failed) return 1;
        (*nfiles)++;
    }
    return 0;
}

/* Value j of a buffer of the given storage, as float, its bytes reversed first if asked. */
static float stored_value(const void *buffer, int storage_type, size_t j, int swap)
{
    switch (storage_type) {
    case FILE_BFLOAT: {
        float v = ((const float *)buffer)[j];
        if (swap) swap_32(&v);
        return v;
    }
    case FILE_BSHORT: {
        short v = ((const short *)buffer)[j];
        if (swap) swap_16(&v);
        return (float)v;
    }
    case FILE_BLONG: {
        int v = ((const int *)buffer)[j];
        if (swap) swap_32(&v);
        return (float)v;
    }
    case FILE_USHORT: {
        unsigned short v = ((const unsigned short *)buffer)[j];
        if (swap) swap_16(&v);
        return (float)v;
    }
    default: /* FILE_UCHAR: single bytes are never swapped */
        return (float)((const unsigned char *)buffer)[j];
    }
}

int read_quill_file(data_stack *stack1, file_list *file_info)
{
    const QL_HEADER *h = &file_info->header;
    const char *name = file_info->file_name;
    int nt = file_info->nt;
    int npts = stack1->npts_volume;
    int swap = h->byte_order != machine_byte_order();
    int progress = (int)((unsigned)nt * (unsigned)npts) > 1000000 && nt > 10;

    /* A ".nii.gz" file is unpacked by zlib as it is read; every other file is read as is. */
    znzFile fp = znzopen(name, "rb", is_gzipped_nifti_name(name));
    if (znz_isnull(fp)) {
        printf("\nError: cannot open file %s.\n", name);
        return 1;
    }
    if (data_file_is_short(stack1, file_info)) { /* nothing of a short file is read */
        report_short_data(file_info);
        znzclose(fp);
        return 1;
    }
    long offset = seek_offset(h->voxel_offset);
    if (offset < 0 || znzseek(fp, (znz_off_t)offset, SEEK_SET) < 0) {
        znzclose(fp);
        seek_failed(offset, name);
    }

    int bytes = storage_bytes(h->storage_type);
    if (bytes == 0) { /* no storage type known: nothing is read */
        znzclose(fp);
        return 0;
    }
    void *buffer = storage_vector(h->storage_type, npts);

    float *data = stack1->SpaceTime.fData;
    size_t base = (size_t)file_info->start_image * (size_t)npts;
    for (int t = 0; t < nt; t++) {
        if (progress && t % (nt / 10) == 0) {
            /* Deliberate: the figure runs past 100 when nt is not a multiple of 10.
               Pinned by ReadQuillFile.ProgressFiguresRunPastOneHundred. */
            printf("\r%s: %lld %c", name, (long long)t * 10 / (nt / 10), '%');
            fflush(stdout);
        }
        if (znzread(buffer, (size_t)bytes, (size_t)npts, fp) != (size_t)npts) {
            printf("Error reading the data from file %s\n", name);
            free_storage_vector(h->storage_type, buffer);
            znzclose(fp);
            return 1;
        }
        float *out = data + base + (size_t)t * (size_t)npts;
        for (int j = 0; j < npts; j++) {
            float v = stored_value(buffer, h->storage_type, (size_t)j, swap);
            if (h->scale_slope != 0.0f) { /* NaN counts as nonzero */
                v = h->scale_slope * v;
                v = h->scale_offset + v;
            }
            out[j] = v;
        }
    }
    free_storage_vector(h->storage_type, buffer);
    znzclose(fp);
    if (progress) {
        printf("\r%s: 100 %c\n", name, '%');
        fflush(stdout);
    }
    return 0;
}

int read_freesurfer_file(data_stack *stack1, file_list *file_info)
{
    const QL_HEADER *h = &file_info->header;
    const char *name = file_info->file_name;
    int nt = file_info->nt;
    int n2d = h->n2d;
    int npts = stack1->npts_volume;
    int swap = h->byte_order != machine_byte_order();
    int progress = (int)((unsigned)nt * (unsigned)h->dim.z * (unsigned)n2d) > 1000000 && h->dim.z > 1;
    int is_short = h->storage_type == FILE_BSHORT;
    size_t bytes = is_short ? 2 : 4;

    /* The stack has the geometry of the last file of its list, so the planes of a larger
       volume run on into the stack's next volume; they must stay within the array. */
    if (end_of_file_values(stack1, file_info) > (long long)npts * stack1->nt) {
        printf("Error: the %d slices of %s reach past the end of the stack.\n", h->dim.z, name);
        return 1;
    }
    if (data_file_is_short(stack1, file_info)) { /* nothing of a short stack is read */
        report_short_data(file_info);
        return 1;
    }

    int storage = is_short ? FILE_BSHORT : FILE_BFLOAT;
    void *buffer = storage_vector(storage, n2d);
    float *data = stack1->SpaceTime.fData;
    size_t base = (size_t)file_info->start_image * (size_t)npts;
    for (int z = 0; z < h->dim.z; z++) {
        char slice[1024];
        slice_file_name(slice, name, z, storage);
        if (progress) {
            printf("\r%s: slice %d", name, z);
            fflush(stdout);
        }
        FILE *fp = fopen(slice, "rb");
        if (fp == NULL) {
            printf("\nError: cannot open file %s\n", name);
            free_storage_vector(storage, buffer);
            return 1;
        }
        for (int t = 0; t < nt; t++) {
            if (fread(buffer, bytes, (size_t)n2d, fp) != (size_t)n2d) {
                /* Deliberate: the text says "short" for float slices too. */
                printf("Error reading the short data from file %s\n", name);
                free_storage_vector(storage, buffer);
                fclose(fp);
                return 1;
            }
            float *out = data + base + (size_t)t * (size_t)npts + (size_t)z * (size_t)n2d;
            for (int j = 0; j < n2d; j++)
                out[j] = stored_value(buffer, storage, (size_t)j, swap);
        }
        fclose(fp);
    }
    free_storage_vector(storage, buffer);
    if (progress) {
        printf("\r%s: 100 %c\n", name, '%');
        fflush(stdout);
    }
    return 0;
}
