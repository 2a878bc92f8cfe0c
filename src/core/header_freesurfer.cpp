/* FreeSurfer bshort/bfloat slice stacks: the ".bhdr" geometry file, the byte order of the
   first slice header and the storage of the first slice file. Writes only the caller's
   QL_HEADER. No X11. */
#include "header_freesurfer.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "text.h"
#include "volume.h"

/* Keywords of the ".bhdr" file that fill a corner slot (position, normal or scan timing). */
struct corner_keyword {
    const char *keyword;
    int slot;
};
static const corner_keyword CORNER_KEYWORDS[] = {
    {"top_left_r:", 0},     {"top_left_a:", 1},     {"top_left_s:", 2},
    {"top_right_r:", 3},    {"top_right_a:", 4},    {"top_right_s:", 5},
    {"bottom_right_r:", 6}, {"bottom_right_a:", 7}, {"bottom_right_s:", 8},
    {"normal_r:", 9},       {"normal_a:", 10},      {"normal_s:", 11},
    {"image_te:", 12},      {"image_tr:", 13},      {"image_ti:", 14},
    {"flip_angle:", 15},
};

int decode_freesurfer_header_keyword(char *line, QL_HEADER *header, float *corners)
{
    char keyword[1024];
    int n = 0;
    if (sscanf(line, "%1023s%n", keyword, &n) != 1) return 1;
    const char *args = line + n;

    /* A missing or unreadable number leaves the field as it was. */
    if (strcmp(keyword, "cols:") == 0) { sscanf(args, "%d", &header->dim.x); return 0; }
    if (strcmp(keyword, "rows:") == 0) { sscanf(args, "%d", &header->dim.y); return 0; }
    if (strcmp(keyword, "nslices:") == 0) { sscanf(args, "%d", &header->dim.z); return 0; }
    if (strcmp(keyword, "n_time_points:") == 0) { sscanf(args, "%d", &header->nt); return 0; }
    if (strcmp(keyword, "slice_thick:") == 0) { sscanf(args, "%f", &header->resolution.z); return 0; }
    for (const corner_keyword &k : CORNER_KEYWORDS) {
        if (strcmp(keyword, k.keyword) != 0) continue;
        if (sscanf(args, "%f", &corners[k.slot]) == 1 && k.slot == 13)
            header->resolution_t = corners[13];
        return 0;
    }
    return 1;
}

/* Length of the step (b - a)/n between two corners, each component in float. */
static float corner_step_length(const float *a, const float *b, int n)
{
    float d[3];
    for (int i = 0; i < 3; i++) d[i] = (b[i] - a[i]) / (float)n;
    return (float)sqrt((double)(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]));
}

static int is_blank_line(const char *line)
{
    for (; *line; line++)
        if (*line != ' ' && *line != '\t' && *line != '\n' && *line != '\r') return 0;
    return 1;
}

int read_freesurfer_header(char *name, QL_HEADER *header)
{
    char geometry_name[1024];
    char file_name[1024];
    char line[1024];
    float corners[16];

    header->file_type = FILE_FREESURFER;
    size_t len = strlen(name);
    if (len == 0 || name[len - 1] != '_') {
        printf("Programming error: file name should end with '_' in read_freesurfer_header\n");
        fflush(stdout);
        exit(1);
    }

    snprintf(geometry_name, sizeof geometry_name, "%.*s.bhdr", (int)(len - 1), name);
    FILE *fp = fopen(geometry_name, "r");
    if (fp == NULL) {
        printf("Error: cannot open freesurfer bhdr file %s.\n", geometry_name);
        return 1;
    }
    memset(corners, 0, sizeof corners);
    int line_number = 1;
    while (get_line_with_comment(fp, line, sizeof line) != NULL) {
        if (is_blank_line(line)) continue;
        if (decode_freesurfer_header_keyword(line, header, corners)) {
            printf("Error reading line %d of file '%s'\n", line_number, geometry_name);
            fclose(fp);
            return 1;
        }
        line_number++;
    }
    fclose(fp);

    if (header->dim.x == 0) {
        printf("Error: Value for x dimension not found in header file '%s'\n", geometry_name);
        return 1;
    }
    if (header->dim.y == 0) {
        printf("Error: Value for y dimension not found in header file '%s'\n", geometry_name);
        return 1;
    }
    if (header->dim.z == 0) {
        printf("Error: Value for z dimension not found in header file '%s'\n", geometry_name);
        return 1;
    }
    if (header->nt == 0) {
        printf("Error: Value for t dimension not found in header file '%s'\n", geometry_name);
        return 1;
    }

    /* Deliberate: the corners give only the in-plane voxel size; origin and direction keep
       their defaults, so the volume is not placed in scanner space.
       Pinned by ReadFreesurferHeader.CornersGiveOnlyTheVoxelSize. */
    header->resolution.x = corner_step_length(&corners[0], &corners[3], header->dim.x);
    header->resolution.y = corner_step_length(&corners[3], &corners[6], header->dim.y);

    snprintf(file_name, sizeof file_name, "%s000.hdr", name);
    fp = fopen(file_name, "r");
    if (fp == NULL) {
        printf("Error: cannot open freesurfer file %s.\n", file_name);
        return 1;
    }
    int ignored[3], byte_order;
    int n = fscanf(fp, "%d %d %d %d", &ignored[0], &ignored[1], &ignored[2], &byte_order);
    fclose(fp);
    if (n != 4) {
        printf("Error: the byte order was not found in freesurfer file %s.\n", file_name);
        return 1;
    }
    header->byte_order = byte_order;

    snprintf(file_name, sizeof file_name, "%s000.bshort", name);
    if ((fp = fopen(file_name, "rb")) != NULL) {
        header->storage_type = FILE_BSHORT;
    } else {
        snprintf(file_name, sizeof file_name, "%s000.bfloat", name);
        if ((fp = fopen(file_name, "rb")) != NULL) {
            header->storage_type = FILE_BFLOAT;
        } else {
            printf("\nError: cannot open file %s as bshort or bfloat.\n", name);
            return 1;
        }
    }
    fclose(fp);

    header->ijk_to_xyz = scale_and_shift_to_mat44(header->resolution, header->origin, header->direction);
    return 0;
}
