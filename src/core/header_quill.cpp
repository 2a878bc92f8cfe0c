/* Volume header detection by file name, the quill plain-text header and its keywords, file
   name extensions and the byte-order helpers. Writes only the caller's QL_HEADER and, where
   noted, the caller's name string. Reads no globals. No X11. */
#include "header_quill.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "header_freesurfer.h"
#include "header_nifti.h"
#include "numerics.h"
#include "text.h"
#include "volume.h"

/* The largest number of floats one file may describe: the allocators count bytes in 32 bits,
   so a float block must stay under 4 GiB. */
static const long long MAX_FLOATS_PER_FILE = (1LL << 30) - 1;

void set_header_defaults(QL_HEADER *header)
{
    memset(header, 0, sizeof *header);
    header->resolution = {1.0f, 1.0f, 1.0f};
    header->direction = {1.0f, 1.0f, 1.0f};
    header->byte_order = machine_byte_order();
    POINT3D zero = {0.0f, 0.0f, 0.0f};
    header->ijk_to_xyz = scale_and_shift_to_mat44(header->resolution, zero, header->direction);
    header->xyz_to_ijk = header->ijk_to_xyz;
}

/* A name has an extension when its last '.' exists, is not its last character, and lies
   after its last '/' (or the name ends in '/'). */
static int has_extension(const char *name)
{
    const char *dot = strrchr(name, '.');
    if (dot == NULL || dot[1] == '\0') return 0;
    size_t len = strlen(name);
    const char *slash = strrchr(name, '/');
    if (slash == NULL || dot > slash) return 1;
    return len > 0 && name[len - 1] == '/';
}

/* Refuses sizes that the stack arithmetic cannot hold: non-positive dimensions (only a quill
   or FreeSurfer header can give them) and files whose value count overflows the 32-bit
   counts and byte sizes of the allocators. */
static int check_sizes(const QL_HEADER *header)
{
    if (header->dim.x <= 0 || header->dim.y <= 0 || header->dim.z <= 0 || header->nt <= 0) {
        printf("Error: the dimensions (%d,%d,%d) and %d volumes given for %s must be positive.\n",
               header->dim.x, header->dim.y, header->dim.z, header->nt, header->file_name);
        return 1;
    }
    long long n = (long long)header->dim.x * header->dim.y;
    if (n <= MAX_FLOATS_PER_FILE) n *= header->dim.z;
    if (n <= MAX_FLOATS_PER_FILE) n *= header->nt;
    if (n <= MAX_FLOATS_PER_FILE && header->data_type != 0) n *= 2;
    if (n > MAX_FLOATS_PER_FILE) {
        printf("Error: the dimensions (%d,%d,%d) and %d volumes given for %s are too large.\n",
               header->dim.x, header->dim.y, header->dim.z, header->nt, header->file_name);
        return 1;
    }
    return 0;
}

/* Refuses voxel sizes that no geometry can use: not a number, infinite, zero or negative,
   whichever header gave them (NIfTI pixdim, a quill "resolution" line, FreeSurfer corners
   and slice thickness). A negative size would make negative image widths downstream. */
static int check_voxel_size(const QL_HEADER *header)
{
    const POINT3D &r = header->resolution;
    if (std::isfinite(r.x) && std::isfinite(r.y) && std::isfinite(r.z) && r.x > 0.0f && r.y > 0.0f &&
        r.z > 0.0f)
        return 0;
    printf("Error: the voxel size (%g,%g,%g) given for %s must be positive and finite.\n", r.x, r.y, r.z,
           header->file_name);
    return 1;
}

/* Refuses a voxel-to-space matrix that invert_mat44 would stop the program on (singular, such
   as an sform of zero rows) or whose inverse is not finite (not-a-number or infinite entries),
   inverting a copy the same way. */
static int check_orientation(const QL_HEADER *header)
{
    float **a = float_matrix(4, 4);
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) a[r][c] = header->ijk_to_xyz.m[r][c];
    int error_row;
    int failed = rInvertSquareMatrix(4, a, &error_row);
    for (int r = 0; r < 4 && !failed; r++)
        for (int c = 0; c < 4; c++)
            if (!std::isfinite(a[r][c])) failed = 1;
    free_float_matrix(a, 4, 4);
    if (failed)
        printf("Error: the voxel-to-space matrix of %s is singular or not finite.\n", header->file_name);
    return failed;
}

int read_volume_header(char *name, QL_HEADER *header)
{
    set_header_defaults(header);
    snprintf(header->file_name, sizeof header->file_name, "%s", name);

    size_t len = strlen(name);
    if (len > 0 && name[len - 1] == '_') {
        if (read_freesurfer_header(name, header)) return 1;
    } else if (has_extension(name)) {
        int type;
        if (get_extension(name, &type)) return 1;
        if (type == FILE_UNKNOWN && is_gzipped_nifti_name(name)) type = FILE_NII;
        if (type == FILE_NII || type == FILE_IMG) {
            header->file_type = type;
            if (read_nifti_header(name, header)) return 1;
        } else {
            header->file_type = type;
            header->storage_type = type;
            if (read_quill_header(name, header)) return 1;
        }
    } else {
        char hdr_name[1024];
        header->storage_type = FILE_UNKNOWN;
        snprintf(hdr_name, sizeof hdr_name, "%s.hdr", name);
        if (read_quill_header(hdr_name, header)) return 1;
        if (header->storage_type <= 0) {
            printf("Error: the file type is not recognized,\n");
            printf("so it was assumed to be an quill file without an extension.\n");
            printf("However, the storage type was not read from file %s\n", hdr_name);
            printf("Valid types end in .nii, .img, .bshort, .bfloat, .blong, or _'\n");
            return 1;
        }
        header->file_type = header->storage_type;
    }

    if (check_sizes(header) || check_voxel_size(header) || check_orientation(header)) return 1;
    header->xyz_to_ijk = invert_mat44(header->ijk_to_xyz);
    header->fov.x = header->dim.x * header->resolution.x;
    header->fov.y = header->dim.y * header->resolution.y;
    header->fov.z = header->dim.z * header->resolution.z;
    header->n2d = header->dim.x * header->dim.y;
    header->n3d = header->n2d * header->dim.z;
    header->n4d = header->n3d * header->nt;
    return 0;
}

int is_gzipped_nifti_name(const char *name)
{
    size_t n = strlen(name);
    return n >= 7 && strcmp(name + n - 7, ".nii.gz") == 0;
}

int get_extension(char *name, int *type)
{
    char *dot = strrchr(name, '.');
    if (dot == NULL) {
        printf("The file name has no extension!\n");
        return 1;
    }
    char *ext = dot + 1;
    size_t n = strlen(ext);
    /* Deliberate: a trailing newline is cut from the caller's own string.
       Pinned by GetExtension.TrailingNewlineIsCutFromTheCallersName. */
    if (n > 0 && ext[n - 1] == '\n') ext[n - 1] = '\0';

    if (strcmp(ext, "bshort") == 0) *type = FILE_BSHORT;
    else if (strcmp(ext, "blong") == 0) *type = FILE_BLONG;
    else if (strcmp(ext, "bfloat") == 0) *type = FILE_BFLOAT;
    else if (strcmp(ext, "ushort") == 0) *type = FILE_USHORT;
    else if (strcmp(ext, "nii") == 0) *type = FILE_NII;
    else if (strcmp(ext, "img") == 0) *type = FILE_IMG;
    else *type = FILE_UNKNOWN;
    return 0;
}

int replace_extension(char *name, int *type, const char *new_extension, char *result)
{
    if (get_extension(name, type)) return 1;
    snprintf(result, 1024, "%s", name);
    char *dot = strrchr(result, '.');
    if (dot == NULL) {
        printf("Programming error in replace_extension.\n");
        fflush(stdout);
        exit(1);
    }
    snprintf(dot + 1, (size_t)(1024 - (dot + 1 - result)), "%s", new_extension);
    return 0;
}

int quill_format(char *name)
{
    char *dot = strrchr(name, '.');
    if (dot == NULL) return -1;
    char word[1024] = "";
    if (sscanf(dot + 1, "%1023s", word) != 1) word[0] = '\0';
    /* Deliberate: the caller's name loses its extension so that it can append its own.
       Pinned by QuillFormat.CutsTheCallersNameAtTheLastDot. */
    *dot = '\0';
    if (strcmp(word, "bfloat") == 0) return FILE_BFLOAT;
    if (strcmp(word, "bshort") == 0) return FILE_BSHORT;
    if (strcmp(word, "ushort") == 0) return FILE_USHORT;
    if (strcmp(word, "img") == 0) return FILE_IMG;
    if (strcmp(word, "nii") == 0) return FILE_NII;
    return -1;
}

int machine_byte_order(void)
{
    unsigned short one = 1;
    unsigned char first;
    memcpy(&first, &one, 1);
    return first == 1 ? 1 : 0;
}

void swap_16(void *p)
{
    unsigned char *b = (unsigned char *)p;
    unsigned char t = b[0];
    b[0] = b[1];
    b[1] = t;
}

void swap_32(void *p)
{
    unsigned char *b = (unsigned char *)p;
    unsigned char t = b[0];
    b[0] = b[3];
    b[3] = t;
    t = b[1];
    b[1] = b[2];
    b[2] = t;
}

/* Nothing but blanks, tabs and the line end (the comment is already cut off). */
static int is_blank_line(const char *line)
{
    for (; *line; line++)
        if (*line != ' ' && *line != '\t' && *line != '\n' && *line != '\r') return 0;
    return 1;
}

/* Splits a header line into its keyword (the first word after blanks and tabs) and the
   arguments (from the first character after the keyword that is not a blank or tab). */
static char *split_keyword(char *line, char *keyword, size_t size)
{
    char *p = line;
    while (*p == ' ' || *p == '\t') p++;
    size_t n = 0;
    while (p[n] != '\0' && p[n] != ' ' && p[n] != '\t' && p[n] != '\n' && p[n] != '\r') n++;
    if (n >= size) n = size - 1;
    memcpy(keyword, p, n);
    keyword[n] = '\0';
    p += n;
    while (*p == ' ' || *p == '\t') p++;
    return p;
}

/* The first word of the arguments, empty when there is none. */
static void first_word(const char *args, char *word)
{
    if (sscanf(args, "%1023s", word) != 1) word[0] = '\0';
}

int decode_quill_header_keyword(char *line, QL_HEADER *header)
{
    char keyword[1024];
    char word[1024];
    char *args = split_keyword(line, keyword, sizeof keyword);

    if (strcmp(keyword, "info") == 0 || strcmp(keyword, "info:") == 0 ||
        strcmp(keyword, "information") == 0 || strcmp(keyword, "information:") == 0)
        return -1;

    if (strcmp(keyword, "x") == 0) return sscanf(args, "%d", &header->dim.x) == 1 ? 0 : 1;
    if (strcmp(keyword, "y") == 0) return sscanf(args, "%d", &header->dim.y) == 1 ? 0 : 1;
    if (strcmp(keyword, "z") == 0) return sscanf(args, "%d", &header->dim.z) == 1 ? 0 : 1;
    if (strcmp(keyword, "t") == 0) return sscanf(args, "%d", &header->nt) == 1 ? 0 : 1;
    if (strcmp(keyword, "byte-order") == 0)
        return sscanf(args, "%d", &header->byte_order) == 1 ? 0 : 1;
    if (strcmp(keyword, "degrees-of-freedom") == 0)
        return sscanf(args, "%d", &header->lDOF) == 1 ? 0 : 1;

    if (strcmp(keyword, "matrix") == 0) {
        int v[4];
        int n = sscanf(args, "%d %d %d %d", &v[0], &v[1], &v[2], &v[3]);
        if (n < 3) return 1;
        header->dim = {v[0], v[1], v[2]};
        if (n == 4) header->nt = v[3];
        return 0;
    }
    if (strcmp(keyword, "resolution") == 0) {
        float v[4];
        int n = sscanf(args, "%f %f %f %f", &v[0], &v[1], &v[2], &v[3]);
        if (n < 3) return 1;
        header->resolution = {v[0], v[1], v[2]};
        if (n == 4) header->resolution_t = v[3];
        return 0;
    }
    if (strcmp(keyword, "origin") == 0) {
        float v[3];
        if (sscanf(args, "%f %f %f", &v[0], &v[1], &v[2]) != 3) return 1;
        header->origin = {v[0], v[1], v[2]};
        return 0;
    }
    if (strcmp(keyword, "direction") == 0) {
        float v[3];
        if (sscanf(args, "%f %f %f", &v[0], &v[1], &v[2]) != 3) return 1;
        if (fabsf(v[0]) != 1.0f || fabsf(v[1]) != 1.0f || fabsf(v[2]) != 1.0f) {
            printf("Error: allowed values for direction (%g,%g,%g) are 1 and -1.\n", v[0], v[1], v[2]);
            return 1;
        }
        header->direction = {v[0], v[1], v[2]};
        return 0;
    }
    if (strcmp(keyword, "data-type") == 0) {
        header->data_type = 0;
        first_word(args, word);
        if (strcmp(word, "magnitude") == 0) header->data_type = 0;
        else if (strcmp(word, "complex") == 0 || strcmp(word, "real-imaginary") == 0)
            header->data_type = 1;
        else if (strcmp(word, "magnitude-phase") == 0) header->data_type = 2;
        else {
            printf("Error: arguments for data-type are\n");
            printf("1) magnitude (this is the default),\n");
            printf("2) complex (or real-imaginary),\n");
            printf("3) magnitude-phase\n");
            return 1;
        }
        return 0;
    }
    if (strcmp(keyword, "storage-type") == 0) {
        first_word(args, word);
        if (strcmp(word, "short") == 0) header->storage_type = FILE_BSHORT;
        else if (strcmp(word, "float") == 0) header->storage_type = FILE_BFLOAT;
        else if (strcmp(word, "long") == 0) header->storage_type = FILE_BLONG;
        else if (strcmp(word, "unsigned-short") == 0) header->storage_type = FILE_USHORT;
        else if (strcmp(word, "unsigned-char") == 0) header->storage_type = FILE_UCHAR;
        else {
            printf("Error: arguments for storage-type are ...\n");
            printf("    short, float, long, unsigned-short, unsigned-char\n");
            return 1;
        }
        return 0;
    }
    if (strcmp(keyword, "registration") == 0) {
        /* Deliberate: naming a registration space makes the data magnitude again.
           Pinned by DecodeQuillHeaderKeyword.RegistrationResetsTheDataType. */
        header->data_type = 0;
        first_word(args, word);
        if (strcmp(word, "paxinos-rat") == 0) header->registration = REG_PW_RAT_OLD;
        else if (strcmp(word, "PW-rat") == 0) header->registration = REG_PW_RAT;
        else {
            printf("Error: arguments for registration are\n");
            printf("1) paxinos-rat, and\n");
            printf("2) nothing else (paxinos-monkey later?)\n");
            return 1;
        }
        return 0;
    }
    return 1;
}

int read_quill_header(char *name, QL_HEADER *header)
{
    char hdr_name[1024];
    char line[1024];
    int type;

    if (replace_extension(name, &type, "hdr", hdr_name)) return 1;
    FILE *fp = fopen(hdr_name, "r");
    if (fp == NULL) {
        printf("Error: cannot open quill file %s.\n", hdr_name);
        return 1;
    }

    /* The first line is a keyword line or the old form of four sizes, which are discarded. */
    if (get_line_with_comment(fp, line, sizeof line) != NULL && !is_blank_line(line)) {
        int old[4];
        if (decode_quill_header_keyword(line, header) != 0 &&
            sscanf(line, "%d %d %d %d", &old[0], &old[1], &old[2], &old[3]) != 4) {
            printf("Error reading the 1st line of the qll header file '%s'.\n", hdr_name);
            fclose(fp);
            return 1;
        }
    }

    /* Deliberate: the line number reported counts the lines applied after the first one,
       starting at 1, so it is one less than the failing line's place among the non-blank
       lines. Pinned by ReadQuillHeader.ReportedLineNumberCountsAppliedLinesFromOne. */
    int line_number = 1;
    while (get_line_with_comment(fp, line, sizeof line) != NULL) {
        if (is_blank_line(line)) continue;
        int result = decode_quill_header_keyword(line, header);
        if (result == -1) break;
        if (result == 1) {
            printf("Error reading line %d of file '%s'\n", line_number, hdr_name);
            fclose(fp);
            return 1;
        }
        line_number++;
    }
    fclose(fp);

    if (header->dim.x == 0) {
        printf("Error: Value for x dimension not found in header file '%s'\n", hdr_name);
        return 1;
    }
    if (header->dim.y == 0) {
        printf("Error: Value for y dimension not found in header file '%s'\n", hdr_name);
        return 1;
    }
    if (header->dim.z == 0) {
        printf("Error: Value for z dimension not found in header file '%s'\n", hdr_name);
        return 1;
    }
    if (header->nt == 0) {
        printf("Error: Value for t dimension not found in header file '%s'\n", hdr_name);
        return 1;
    }
    header->ijk_to_xyz = scale_and_shift_to_mat44(header->resolution, header->origin, header->direction);
    return 0;
}
