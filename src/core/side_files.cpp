/* Overlay and wire-frame list files, the ".ovl" and ".wire" files, and the region statistics
   of the graph window. Coordinates refer to the displayed stack (mosaic.stack). Writes
   ovl_root, wire_root and overlay_map; reads graph. No X11. */
#include "side_files.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "globals.h"
#include "numerics.h"
#include "safe_save.h"
#include "text.h"

static int color_code(const char *word)
{
    static const char *names[] = {"cyan", "red", "green", "blue", "white", "purple", "yellow", "orange"};
    for (int i = 0; i < 8; i++)
        if (strcmp(word, names[i]) == 0) return i + 1;
    return 1;
}

/* One entry of a list file: name, file name and an optional colour word. Returns 0, or 1 (name
   missing) or 2 (file name missing) for a non-blank line; -1 for a blank line. */
static int parse_list_line(char *line, char *name, char *file, int *color)
{
    char word[1024];
    name[0] = file[0] = word[0] = '\0';
    int n = sscanf(line, "%1023s %1023s %1023s", name, file, word);
    if (n <= 0) return -1;
    if (n < 2) return 2;
    *color = n == 3 ? color_code(word) : 1;
    return 0;
}

/* What differs between the two kinds of list file: the texts and what one entry loads. */
struct list_kind {
    const char *name_error;  /* "%d": entry number from 1 */
    const char *file_error;
    void (*load)(const char *name, const char *file, int color);
};

static void load_overlay_entry(const char *name, const char *file, int color)
{
    ovl_list *node = (ovl_list *)calloc(1, sizeof(ovl_list));
    if (node == NULL) {
        printf("Error: memory problem creating a new ovl structure in the list.\n");
        exit(1);
    }
    int n3d = mosaic.stack->n3d;
    snprintf(node->name, sizeof node->name, "%s", name);
    node->color = (short)color;
    node->voxel = ipoint3d_vector(n3d);
    node->weight = float_vector(n3d);
    memset(node->voxel, 0, sizeof(IPOINT3D) * (size_t)n3d);
    memset(node->weight, 0, sizeof(float) * (size_t)n3d);
    ovl_list *tail = &ovl_root;
    while (tail->next != NULL) tail = tail->next;
    tail->next = node;
    read_overlay_file(file, node); /* its result is not checked by the list */
}

static void load_wire_entry(const char *name, const char *file, int color)
{
    wire_list *node = (wire_list *)calloc(1, sizeof(wire_list));
    if (node == NULL) {
        printf("Error: memory problem creating a new wire structure in the list.\n");
        exit(1);
    }
    snprintf(node->name, sizeof node->name, "%s", name);
    wire_list *tail = &wire_root;
    while (tail->next != NULL) tail = tail->next;
    tail->next = node;
    read_wire_file(file, node, color);
}

/* Reads a list file line by line (comments and blank lines skipped) and loads each entry.
   The first bad entry stops the reading; entries already loaded stay. */
static int read_list_file(const char *list_file_name, const list_kind *kind)
{
    FILE *fp = fopen(list_file_name, "r");
    if (fp == NULL) {
        printf("Error: cannot open the file %s.\n", list_file_name);
        return 1;
    }
    char line[1024], name[1024], file[1024];
    int entry = 0;
    while (get_line_with_comment(fp, line, sizeof line) != NULL) {
        int color = 1;
        int status = parse_list_line(line, name, file, &color);
        if (status < 0) continue;
        entry++;
        if (status != 0) {
            printf(status == 1 ? kind->name_error : kind->file_error, entry);
            fclose(fp);
            return 1;
        }
        kind->load(name, file, color);
    }
    fclose(fp);
    return 0;
}

int read_overlay_list(char *list_file_name)
{
    static const list_kind overlays = {"Error reading the overlay name for overay %d.\n",
                                       "Error reading the file name for overlay %d.\n",
                                       load_overlay_entry};
    return read_list_file(list_file_name, &overlays);
}

int read_wire_list(char *list_file_name)
{
    static const list_kind wires = {"Error reading the wire name for overay %d.\n",
                                    "Error reading the file name for wire %d.\n",
                                    load_wire_entry};
    return read_list_file(list_file_name, &wires);
}

/* One voxel a line: "x y z weight" or "x y z" (weight 1). The root overlay's voxels go into
   the overlay map with the root's colour; any other overlay collects them in its arrays. */
int read_overlay_file(const char *file_name, ovl_list *ovl)
{
    FILE *fp = fopen(file_name, "r");
    if (fp == NULL) {
        printf("Error opening file %s\n", file_name);
        return 1;
    }
    data_stack *s = mosaic.stack;
    char line[1024];
    while (get_line_with_comment(fp, line, sizeof line) != NULL) {
        char *p = next_non_white(line);
        if (*p == '\0' || *p == '\n' || *p == '\r') continue;
        int x, y, z;
        float weight = 1.0f;
        char extra[2];
        int n = sscanf(p, "%d %d %d %f %1s", &x, &y, &z, &weight, extra);
        if (n != 3 && n != 4) {
            printf("Error: The syntax in an overlay file can be one of the following:\n");
            printf("1)  x y z         (voxel indices), OR\n");
            printf("2)  x y z weight  (for variable weight in range 0:1)\n");
            fclose(fp);
            return 1;
        }
        if (n == 3) weight = 1.0f;
        if (!(weight >= 0.0f && weight <= 1.0f)) { /* a NaN weight is refused too */
            printf("Error: use weight values <= 1. in overlays.\n");
            fclose(fp);
            return 1;
        }
        if (x < 0 || y < 0 || z < 0 || x >= s->dim.x || y >= s->dim.y || z >= s->dim.z) {
            printf("Error: the overlay in file .ovl does not agree with the image dimensions.\n");
            fclose(fp);
            return 1;
        }
        if (ovl == &ovl_root) {
            int i = z * s->dim.x * s->dim.y + y * s->dim.x + x;
            overlay_map.weight[i] = weight;
            overlay_map.color[i] = ovl_root.color;
        } else if (ovl->npts < s->n3d) {
            ovl->voxel[ovl->npts].x = x;
            ovl->voxel[ovl->npts].y = y;
            ovl->voxel[ovl->npts].z = z;
            ovl->weight[ovl->npts] = weight;
            ovl->npts++;
        }
    }
    fclose(fp);
    return 0;
}

/* Written to a temporary file and renamed over ".ovl" when complete: a failed write leaves the
   previous ".ovl" intact and returns 1 after the message. */
int write_overlay_file(void)
{
    safe_file sf;
    FILE *fp = safe_save_open(&sf, ".ovl", "w");
    if (fp == NULL) {
        printf("Error opening file (.ovl).\n");
        return 1;
    }
    data_stack *s = mosaic.stack;
    int count = 0;
    float total = 0.0f;
    int i = 0;
    for (int z = 0; z < s->dim.z; z++)
        for (int y = 0; y < s->dim.y; y++)
            for (int x = 0; x < s->dim.x; x++, i++) {
                float w = overlay_map.weight[i];
                if (w == 0.0f) continue;
                if (w == 1.0f)
                    fprintf(fp, "%d %d %d\n", x, y, z);
                else
                    fprintf(fp, "%d %d %d %g\n", x, y, z, w);
                count++;
                total += w;
            }
    if (safe_save_close(&sf) != 0) return 1;
    printf("%d pixels (total weight = %g) written to file .ovl\n", count, total);
    if (count != ovl_root.npts) {
        printf("Programming error: # overlay pixels not consistent (%d versus %d)\n", count, ovl_root.npts);
        return 1;
    }
    return 0;
}

/* Records "x y z color", free format. They are appended to the frame's control points; colour 1
   takes new_color when that is non-zero. */
int read_wire_file(const char *file_name, wire_list *wire, int new_color)
{
    FILE *fp = fopen(file_name, "r");
    if (fp == NULL) {
        printf("Error opening file %s\n", file_name);
        return 1;
    }
    float x, y, z;
    int color, count = 0;
    while (fscanf(fp, "%f %f %f %d", &x, &y, &z, &color) == 4) count++;
    if (count > 0) {
        rewind(fp);
        CONTROL_POINT *points = (CONTROL_POINT *)malloc(sizeof(CONTROL_POINT) * (size_t)(wire->npts + count));
        if (points == NULL) alloc_error("Allocation error in read_wire_file().");
        if (wire->npts > 0) memcpy(points, wire->control, sizeof(CONTROL_POINT) * (size_t)wire->npts);
        free(wire->control);
        wire->control = points;
        for (int k = 0; k < count && fscanf(fp, "%f %f %f %d", &x, &y, &z, &color) == 4; k++) {
            CONTROL_POINT *c = &wire->control[wire->npts];
            c->point.x = x;
            c->point.y = y;
            c->point.z = z;
            c->color = (color == 1 && new_color != 0) ? new_color : color;
            wire->npts++;
        }
    }
    fclose(fp);
    return 0;
}

/* Written to a temporary file and renamed over ".wire" when complete, as ".ovl" is. */
int write_wire_file(void)
{
    safe_file sf;
    FILE *fp = safe_save_open(&sf, ".wire", "w");
    if (fp == NULL) {
        printf("Error opening file (.wire).\n");
        return 1;
    }
    for (int k = 0; k < wire_root.npts; k++)
        fprintf(fp, "%f %f %f  %d\n", wire_root.control[k].point.x, wire_root.control[k].point.y,
                wire_root.control[k].point.z, wire_root.control[k].color);
    if (safe_save_close(&sf) != 0) return 1;
    printf("%d control points for a wireframe were written to file .wire\n", wire_root.npts);
    return 0;
}

/* Deliberate: the heading follows type 0/1/2/other while the row shape follows type 3 or
   negative, so a histogram (type 4) gets the four-column heading over three-column rows.
   Pinned by WriteRoiStats.HistogramHeadingOverThreeColumnRows. */
int write_roi_stats(int all_points)
{
    if (ovl_root.npts > 0) printf("Overlay name: %s\n", ovl_root.name);
    switch (graph.type) {
    case 0: printf("X\tNpts\tAverage\n"); break;
    case 1: printf("Y\tNpts\tAverage\n"); break;
    case 2: printf("Z\tNpts\tAverage\n"); break;
    default: printf("Image\tNpts\tAverage\tStDev\n"); break;
    }
    int npts = ovl_root.npts > 1 ? ovl_root.npts : 1;
    int first = all_points ? 0 : graph.iTime;
    int last = all_points ? graph.npoints : graph.iTime + 1;
    for (int i = first; i < last; i++) {
        float average = graph.yVector != NULL && i >= 0 && i < graph.npoints ? graph.yVector[i] : 0.0f;
        float stdev = graph.yVector1 != NULL && i >= 0 && i < graph.npoints ? graph.yVector1[i] : 0.0f;
        if (graph.type == 3 || graph.type < 0)
            printf("%d\t%d\t%g\t%g\n", i, npts, average, stdev);
        else
            printf("%d\t%d\t%g\n", i, npts, average);
    }
    return 0;
}
