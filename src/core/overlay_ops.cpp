/* The overlay map (overlay_map: a weight and a colour per voxel of the displayed stack) and the
   root overlay ovl_root, kept in step: every change of one is followed by a rebuild of the
   other. Also clearing, moving, mirroring and stepping through the overlay and wire-frame lists.
   Reads mosaic.stack and mosaic.toggle_overlays; writes overlay_map, ovl_root, wire_root.
   Redraws go through display_hooks. No X11. */
#include "overlay_ops.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "display_hooks.h"
#include "globals.h"
#include "numerics.h"

static int displayed_n3d(void) { return mosaic.stack != NULL ? mosaic.stack->n3d : 0; }

static void clear_map(void)
{
    int n = displayed_n3d();
    for (int i = 0; i < n; i++) {
        overlay_map.weight[i] = 0.0f;
        overlay_map.color[i] = 0;
    }
}

/* Start values: the map for n3d voxels of the displayed stack, cleared, numbering from 1;
   the root overlay "none" in colour 7 with room for every voxel; an empty root wire frame. */
void initialize_overlay_records(void)
{
    int n = displayed_n3d();
    overlay_map.weight = float_vector(n);
    overlay_map.color = short_vector(n);
    overlay_map.number = 1;
    clear_map();

    snprintf(ovl_root.name, sizeof ovl_root.name, "none");
    ovl_root.color = 7;
    ovl_root.npts = 0;
    ovl_root.active = 1;
    ovl_root.next = NULL;
    ovl_root.voxel = ipoint3d_vector(n);
    ovl_root.weight = float_vector(n);
    memset(ovl_root.voxel, 0, sizeof(IPOINT3D) * (size_t)n);
    memset(ovl_root.weight, 0, sizeof(float) * (size_t)n);

    snprintf(wire_root.name, sizeof wire_root.name, "none");
    wire_root.active = 1;
    wire_root.control = NULL;
    wire_root.npts = 0;
    wire_root.next = NULL;

    mosaic.toggle_overlays = 0;
}

static int voxel_index(IPOINT3D v)
{
    return v.z * mosaic.stack->dim.x * mosaic.stack->dim.y + v.y * mosaic.stack->dim.x + v.x;
}

void update_overlay_map(void)
{
    clear_map();
    for (int k = 0; k < ovl_root.npts; k++) {
        if (ovl_root.weight[k] == 0.0f) continue;
        int i = voxel_index(ovl_root.voxel[k]);
        overlay_map.weight[i] = ovl_root.weight[k];
        overlay_map.color[i] = ovl_root.color;
    }
}

/* Root overlay := the voxels of non-zero map weight (a NaN weight belongs), z outermost. */
void update_root_overlay(int rename)
{
    data_stack *s = mosaic.stack;
    ovl_root.npts = 0;
    int i = 0;
    for (int z = 0; z < s->dim.z; z++)
        for (int y = 0; y < s->dim.y; y++)
            for (int x = 0; x < s->dim.x; x++, i++) {
                if (overlay_map.weight[i] == 0.0f) continue;
                ovl_root.voxel[ovl_root.npts].x = x;
                ovl_root.voxel[ovl_root.npts].y = y;
                ovl_root.voxel[ovl_root.npts].z = z;
                ovl_root.weight[ovl_root.npts] = overlay_map.weight[i];
                ovl_root.npts++;
            }
    if (rename) {
        if (ovl_root.npts > 0)
            snprintf(ovl_root.name, sizeof ovl_root.name, "ovl%d", overlay_map.number);
        else
            snprintf(ovl_root.name, sizeof ovl_root.name, "none");
    }
    draw_selectable_text_image();
}

void action_clear_overlay(void)
{
    clear_map();
    ovl_root.npts = 0;
    update_root_overlay(1);
    build_image_display(1);
    if (mosaic.cursor_selection < 1025) update_graph_data(0, 1);
    draw_selectable_text_image();
}

void action_clear_wires(void)
{
    wire_root.npts = 0;
    free(wire_root.control);
    wire_root.control = NULL;
    snprintf(wire_root.name, sizeof wire_root.name, "none");
    build_image_display(1);
}

/* Moves the overlay by one voxel along axis (0 x, 1 y, 2 z). Deliberate: the wrap handles
   exactly one voxel beyond each face (below 0 -> size-1, size -> 0), all a unit step needs.
   Pinned by the overlay moves of
   tests/blackbox/panel_session.py. */
void move_overlay_in_one_direction(int axis, int step)
{
    if (ovl_root.npts == 0) return;
    data_stack *s = mosaic.stack;
    int n = s->n3d;
    float *weight = float_vector(n);
    short *color = short_vector(n);
    memcpy(weight, overlay_map.weight, sizeof(float) * (size_t)n);
    memcpy(color, overlay_map.color, sizeof(short) * (size_t)n);
    int size = axis == 0 ? s->dim.x : axis == 1 ? s->dim.y : s->dim.z;

    int i = 0;
    for (int z = 0; z < s->dim.z; z++)
        for (int y = 0; y < s->dim.y; y++)
            for (int x = 0; x < s->dim.x; x++, i++) {
                IPOINT3D d = {x, y, z};
                int *c = axis == 0 ? &d.x : axis == 1 ? &d.y : &d.z;
                *c += step;
                if (*c < 0) *c = size - 1;
                else if (*c == size) *c = 0;
                int j = voxel_index(d);
                overlay_map.weight[j] = weight[i];
                overlay_map.color[j] = color[i];
            }
    free_float_vector(weight);
    free_short_vector(color);
    update_root_overlay(1);
    update_graph_data(0, 1);
}

/* The map becomes its left-right mirror image; voxels not mirrored onto are cleared. */
void action_mirror_overlay(void)
{
    if (ovl_root.npts == 0) return;
    data_stack *s = mosaic.stack;
    int n = s->dim.x * s->dim.y * s->dim.z;
    float *weight = float_vector(n);
    short *color = short_vector(n);
    memset(weight, 0, sizeof(float) * (size_t)n);
    memset(color, 0, sizeof(short) * (size_t)n);
    int i = 0;
    for (int z = 0; z < s->dim.z; z++)
        for (int y = 0; y < s->dim.y; y++)
            for (int x = 0; x < s->dim.x; x++, i++) {
                if (overlay_map.weight[i] == 0.0f) continue;
                IPOINT3D d = {s->dim.x - 1 - x, y, z};
                int j = voxel_index(d);
                weight[j] = overlay_map.weight[i];
                color[j] = ovl_root.color;
            }
    memcpy(overlay_map.weight, weight, sizeof(float) * (size_t)n);
    memcpy(overlay_map.color, color, sizeof(short) * (size_t)n);
    free_float_vector(weight);
    free_short_vector(color);
}

static void step_overlays(int forward, int add)
{
    ovl_list *first = ovl_root.next;
    if (first == NULL) return;
    ovl_list *last = NULL, *active = NULL, *before_active = NULL, *prev = NULL;
    for (ovl_list *o = first; o != NULL; o = o->next) {
        if (o->active) { active = o; before_active = prev; }
        last = o;
        prev = o;
    }
    if (active == NULL) {
        active = &ovl_root;
        before_active = last;
    }

    ovl_list *entry;
    if (forward)
        entry = active->next != NULL ? active->next : first;
    else
        entry = active == first ? last : before_active;

    for (ovl_list *o = first; o != NULL; o = o->next) o->active = 0;
    entry->active = 1;

    if (add) {
        for (int k = 0; k < entry->npts; k++) {
            int i = voxel_index(entry->voxel[k]);
            if (entry->weight[k] > overlay_map.weight[i]) overlay_map.color[i] = entry->color;
            float w = overlay_map.weight[i] + entry->weight[k];
            overlay_map.weight[i] = w > 1.0f ? 1.0f : w;
        }
        update_root_overlay(0);
        snprintf(ovl_root.name, sizeof ovl_root.name, "ovl%d", overlay_map.number);
    } else {
        clear_map();
        for (int k = 0; k < entry->npts; k++) {
            int i = voxel_index(entry->voxel[k]);
            overlay_map.weight[i] = entry->weight[k];
            overlay_map.color[i] = entry->color;
        }
        update_root_overlay(0);
        snprintf(ovl_root.name, sizeof ovl_root.name, "%s", entry->name);
    }
    update_graph_data(0, 1);
    show_on_info_line(entry->name, "", "");
}

static void step_wires(int forward, int add)
{
    wire_list *first = wire_root.next;
    if (first == NULL) return;
    wire_list *last = NULL;
    for (wire_list *w = first; w != NULL; w = w->next) last = w;
    /* Deliberate: unlike the overlays, the search starts at the root itself, whose own
       active flag is then cleared. Pinned by StepWireList.RootActiveFlagIsCleared. */
    wire_list *active = NULL, *before_active = NULL, *prev = NULL;
    for (wire_list *w = &wire_root; w != NULL; w = w->next) {
        if (w->active) { active = w; before_active = prev; break; }
        prev = w;
    }
    if (active == NULL) return;
    if (active == &wire_root) before_active = last;

    wire_list *entry;
    if (forward)
        entry = active->next != NULL ? active->next : first;
    else
        entry = active == first ? last : before_active;

    active->active = 0;
    entry->active = 1;

    if (add) {
        int n = wire_root.npts + entry->npts;
        CONTROL_POINT *points = (CONTROL_POINT *)malloc(sizeof(CONTROL_POINT) * (size_t)(n > 0 ? n : 1));
        if (points == NULL) alloc_error("Allocation error in wire list.");
        if (wire_root.npts > 0) memcpy(points, wire_root.control, sizeof(CONTROL_POINT) * (size_t)wire_root.npts);
        if (entry->npts > 0)
            memcpy(points + wire_root.npts, entry->control, sizeof(CONTROL_POINT) * (size_t)entry->npts);
        free(wire_root.control);
        wire_root.control = points;
        wire_root.npts = n;
    } else {
        CONTROL_POINT *points =
            (CONTROL_POINT *)malloc(sizeof(CONTROL_POINT) * (size_t)(entry->npts > 0 ? entry->npts : 1));
        if (points == NULL) alloc_error("Allocation error in wire list.");
        if (entry->npts > 0) memcpy(points, entry->control, sizeof(CONTROL_POINT) * (size_t)entry->npts);
        free(wire_root.control);
        wire_root.control = points;
        wire_root.npts = entry->npts;
        snprintf(wire_root.name, sizeof wire_root.name, "%s", entry->name);
    }
    show_on_info_line(entry->name, "", "");
    build_image_display(1);
}

void action_step_overlay_list(int forward, int add)
{
    if (mosaic.toggle_overlays == 1)
        step_overlays(forward, add);
    else if (mosaic.toggle_overlays == 2)
        step_wires(forward, add);
}
