/* The fuzz targets. Each writes its input, split into parts, as the files of one reader into
   the private directory, calls the reader inside fuzz_call exactly as align does, checks what
   a successful read promises the rest of the program, and releases what the reader allocated
   so that the next input starts from the same state. The session targets (align.com,
   distortion maps, overlays, wire frames) start once from a small individual and template
   taken through align's start-up without a display, and are set back to that state after
   each input. Writes the program's records as the readers do. No X11. */
#include "fuzz_targets.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <nifti1.h>

#include "align_model.h"
#include "display_hooks.h"
#include "display_model.h"
#include "filters.h"
#include "fuzz_harness.h"
#include "globals.h"
#include "numerics.h"
#include "overlay_ops.h"
#include "persist.h"
#include "prepare.h"
#include "resample.h"
#include "side_files.h"
#include "text.h"
#include "volume.h"
#include "volume_load.h"

/* The leak checker's switches, present when the program is built with a sanitizer. */
extern "C" void __lsan_disable(void) __attribute__((weak));
extern "C" void __lsan_enable(void) __attribute__((weak));

namespace {

const int MAX_PARTS = 70;

/* ---- small NIfTI volumes of the harness's own ---- */

/* A single-file float NIfTI-1 volume, method 1, cubic voxels of res mm, holding a smooth blob
   off the centre (so that resampling and similarities have something to work on). */
void write_blob_nifti(const char *name, int nx, int ny, int nz, float res)
{
    nifti_1_header h;
    memset(&h, 0, sizeof h);
    h.sizeof_hdr = 348;
    h.dim[0] = 3;
    h.dim[1] = (short)nx;
    h.dim[2] = (short)ny;
    h.dim[3] = (short)nz;
    h.dim[4] = h.dim[5] = h.dim[6] = h.dim[7] = 1;
    h.datatype = DT_FLOAT32;
    h.bitpix = 32;
    h.pixdim[0] = 1.0f;
    h.pixdim[1] = h.pixdim[2] = h.pixdim[3] = res;
    h.vox_offset = 352.0f;
    memcpy(h.magic, "n+1", 4);
    std::vector<uint8_t> bytes(352 + 4 * (size_t)nx * ny * nz, 0);
    memcpy(bytes.data(), &h, 348);
    float *v = (float *)(bytes.data() + 352);
    for (int z = 0; z < nz; z++)
        for (int y = 0; y < ny; y++)
            for (int x = 0; x < nx; x++) {
                double dx = x - 0.45 * nx, dy = y - 0.55 * ny, dz = z - 0.5 * nz;
                *v++ = (float)(100.0 * exp(-(dx * dx + dy * dy + dz * dz) / 6.0));
            }
    fuzz_write_file(name, {bytes.data(), bytes.size()});
}

/* ---- volume lists ---- */

/* The stack the volume targets load into, in the place of original_unfiltered. */
data_stack loaded;

struct volume_load {
    file_list *list;
    int result;
};

void run_load(void *p)
{
    volume_load *l = (volume_load *)p;
    int nfiles = 0;
    l->result = read_SpaceTime_data(0, &loaded, l->list, &nfiles);
}

/* What a successful load promises the preparation, the alignment and the display. */
void check_loaded(const data_stack *s, const file_list *nodes)
{
    fuzz_require(s->dim.x > 0 && s->dim.y > 0 && s->dim.z > 0 && s->nt > 0,
                 "a loaded stack has positive sizes and at least one volume");
    long long n2d = (long long)s->dim.x * s->dim.y, n3d = n2d * s->dim.z;
    fuzz_require(s->n2d == n2d && s->n3d == n3d, "n2d and n3d are the products of the sizes");
    fuzz_require(s->npts_volume == n3d * (s->data_type != 0 ? 2 : 1), "npts_volume is n3d (twice for complex)");
    fuzz_require((long long)s->npts_volume * s->nt < (1LL << 30), "the array fits one 32-bit float block");
    const float r[3] = {s->resolution.x, s->resolution.y, s->resolution.z};
    for (float v : r) fuzz_require(std::isfinite(v) && v > 0.0f, "voxel sizes are positive and finite");
    fuzz_require(s->SpaceTime.fData != NULL, "the voxel array is allocated");
    int next = 0;
    for (const file_list *f = nodes; f != NULL; f = f->next) {
        fuzz_require(f->start_image == next && f->end_image == next + f->nt - 1 && f->nt > 0,
                     "the files' volumes follow one another");
        next = f->end_image + 1;
    }
    fuzz_require(next == s->nt, "the files' volumes make up the stack");
}

/* Loads the named files as align loads the individual's list, as the first list of the run. */
void load_as_individual(const char *const *names, int n)
{
    file_list nodes[3];
    memset(nodes, 0, sizeof nodes);
    for (int i = 0; i < n; i++) {
        snprintf(nodes[i].file_name, sizeof nodes[i].file_name, "%s", names[i]);
        nodes[i].next = i + 1 < n ? &nodes[i + 1] : NULL;
    }
    memset(&loaded, 0, sizeof loaded);
    forget_SpaceTime_reference();
    volume_load l = {nodes, 1};
    int status = fuzz_call(run_load, &l);
    if (status < 0 && l.result == 0) check_loaded(&loaded, nodes);
    free_float_vector(loaded.SpaceTime.fData); /* a failed load leaves its array to the caller */
    memset(&loaded, 0, sizeof loaded);
}

/* Byte 0: the number of files, 1 + b % 3; then one part per file, v0.nii, v1.nii, v2.nii. */
void fuzz_nifti(const uint8_t *data, size_t size)
{
    fuzz_enter_directory();
    if (size == 0) return;
    static const char *names[3] = {"v0.nii", "v1.nii", "v2.nii"};
    int n = 1 + data[0] % 3;
    fuzz_part parts[3];
    int np = fuzz_split(data + 1, size - 1, parts, 3);
    for (int k = 0; k < n && k < np; k++) fuzz_write_file(names[k], parts[k]);
    load_as_individual(names, n);
}

/* Part 0 the header v.hdr, part 1 the data v.img; loaded as v.img. */
void fuzz_nifti_pair(const uint8_t *data, size_t size)
{
    fuzz_enter_directory();
    fuzz_part parts[2];
    int np = fuzz_split(data, size, parts, 2);
    fuzz_write_file("v.hdr", parts[0]);
    if (np > 1) fuzz_write_file("v.img", parts[1]);
    static const char *names[1] = {"v.img"};
    load_as_individual(names, 1);
}

/* Byte 0: the data files' extension, b % 8, and their number, 1 + (b / 8) % 3; then for file
   k the header q<k>.hdr (part 2k) and the data (part 2k + 1; none when the data file is the
   header itself, as for the extension ".hdr"). */
void fuzz_quill(const uint8_t *data, size_t size)
{
    fuzz_enter_directory();
    if (size == 0) return;
    static const char *extensions[8] = {".bshort", ".bfloat", ".blong", ".ushort", ".dat", "", ".hdr", ".BSHORT"};
    const char *extension = extensions[data[0] % 8];
    int n = 1 + (data[0] / 8) % 3;
    fuzz_part parts[6];
    int np = fuzz_split(data + 1, size - 1, parts, 6);
    char names[3][64];
    const char *list[3];
    for (int k = 0; k < n; k++) {
        char header[64];
        snprintf(names[k], sizeof names[k], "q%d%s", k, extension);
        snprintf(header, sizeof header, "q%d.hdr", k);
        list[k] = names[k];
        if (2 * k < np) fuzz_write_file(header, parts[2 * k]);
        if (2 * k + 1 < np && strcmp(header, names[k]) != 0) fuzz_write_file(names[k], parts[2 * k + 1]);
    }
    load_as_individual(list, n);
}

/* Byte 0: bit 0 the slices' storage (bshort, bfloat); (b >> 1) % 3 the list: the stack f_
   alone, f_ then a 4x3x2 NIfTI volume w.nii, or w.nii then f_. Then part 0 the geometry f.bhdr,
   part 1 the first slice header f_000.hdr, parts 2... the slices f_000, f_001, ... */
void fuzz_freesurfer(const uint8_t *data, size_t size)
{
    fuzz_enter_directory();
    if (size == 0) return;
    const char *extension = data[0] & 1 ? "bfloat" : "bshort";
    int arrangement = (data[0] >> 1) % 3;
    fuzz_part parts[MAX_PARTS];
    int np = fuzz_split(data + 1, size - 1, parts, MAX_PARTS);
    fuzz_write_file("f.bhdr", parts[0]);
    if (np > 1) fuzz_write_file("f_000.hdr", parts[1]);
    for (int z = 0; z + 2 < np; z++) {
        char slice[64];
        snprintf(slice, sizeof slice, "f_%03d.%s", z, extension);
        fuzz_write_file(slice, parts[z + 2]);
    }
    if (arrangement != 0) write_blob_nifti("w.nii", 4, 3, 2, 1.0f);
    static const char *alone[1] = {"f_"}, *first[2] = {"f_", "w.nii"}, *last[2] = {"w.nii", "f_"};
    if (arrangement == 0) load_as_individual(alone, 1);
    else load_as_individual(arrangement == 1 ? first : last, 2);
}

/* ---- the session: an individual and a template after align's start-up, without display ---- */

struct session_state {
    alignment_record alignment;
    align_aid_record align_aid;
    align_nl_record align_nl;
    std::vector<float> nl_value, nl_increment;
    std::vector<int> nl_adjust;
    std::vector<float> maps[4];
    mosaic_display mosaic_record;
    ovl_list ovl;
    wire_list wire;
    std::vector<float> map_weight;
    std::vector<short> map_color;
    int map_number;
};
session_state saved;
bool session_started = false;
data_stack *const MAPS[4] = {&distort_x, &distort_y, &distort_z, &distort_d};

size_t map_size(const data_stack *s) { return (size_t)s->npts_volume * (size_t)s->nt; }

/* Start-up steps 6 to 14 of align on a 10x8x6 individual of 1.5 mm voxels and an 8x8x6
   template of 2 mm voxels, then a snapshot of everything the session targets change.
   The start-up's first filter_image_data replaces the template_ and individual arrays that
   initialize_mosaic_ovl made without freeing them: a once-only loss of the start-up, not of
   the readers under test, so the leak checker is told to ignore what the start-up allocates. */
void start_session(void)
{
    if (session_started) return;
    session_started = true;
    if (__lsan_disable != NULL) __lsan_disable();
    fuzz_enter_directory();
    write_blob_nifti("ind.nii", 10, 8, 6, 1.5f);
    write_blob_nifti("tpl.nii", 8, 8, 6, 2.0f);
    add_image_file(&individual_files, "ind.nii", 0, 0);
    add_image_file(&template_files, "tpl.nii", 0, 0);
    int nfiles = 0;
    fuzz_require(read_SpaceTime_data(0, &original_unfiltered, &individual_files, &nfiles) == 0 &&
                     read_SpaceTime_data(0, &template_unfiltered, &template_files, &nfiles) == 0,
                 "the session's volumes load");
    initialize_mosaic_ovl(0);
    initialize_alignment();
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_unfiltered);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);
    filter_image_data();
    transform_coordinates(1, 0);
    AlignAid.DisplayType = 1;
    point_mosaic_to_stack_data();
    rescale_image(1);
    rescale_image_settings();
    AlignAid.DisplayType = 0;
    point_mosaic_to_stack_data();
    rescale_image(1);
    rescale_image_settings();

    saved.alignment = Alignment;
    saved.align_aid = AlignAid;
    saved.align_nl = AlignNL;
    size_t nb = 3 * (size_t)AlignNL.NBasis;
    saved.nl_value.assign(AlignNL.value, AlignNL.value + nb);
    saved.nl_increment.assign(AlignNL.increment, AlignNL.increment + nb);
    saved.nl_adjust.assign(AlignNL.Adjust3D, AlignNL.Adjust3D + nb);
    for (int m = 0; m < 4; m++)
        saved.maps[m].assign(MAPS[m]->SpaceTime.fData, MAPS[m]->SpaceTime.fData + map_size(MAPS[m]));
    saved.mosaic_record = mosaic;
    saved.ovl = ovl_root;
    saved.wire = wire_root;
    int n3d = mosaic.stack->n3d;
    saved.map_weight.assign(overlay_map.weight, overlay_map.weight + n3d);
    saved.map_color.assign(overlay_map.color, overlay_map.color + n3d);
    saved.map_number = overlay_map.number;
    if (__lsan_enable != NULL) __lsan_enable();
}

/* Frees what an input added to the lists and sets every record back to the snapshot. */
void restore_session(void)
{
    for (ovl_list *o = ovl_root.next; o != NULL;) {
        ovl_list *next = o->next;
        free_ipoint3d_vector(o->voxel);
        free_float_vector(o->weight);
        free(o);
        o = next;
    }
    for (wire_list *w = wire_root.next; w != NULL;) {
        wire_list *next = w->next;
        free(w->control);
        free(w);
        w = next;
    }
    if (wire_root.control != saved.wire.control) free(wire_root.control);
    ovl_root = saved.ovl;
    wire_root = saved.wire;
    memcpy(overlay_map.weight, saved.map_weight.data(), sizeof(float) * saved.map_weight.size());
    memcpy(overlay_map.color, saved.map_color.data(), sizeof(short) * saved.map_color.size());
    overlay_map.number = saved.map_number;
    mosaic = saved.mosaic_record;

    fuzz_require(AlignNL.value == saved.align_nl.value && AlignNL.NBasis == saved.align_nl.NBasis,
                 "the session's basis grid stays as it was built");
    Alignment = saved.alignment;
    AlignAid = saved.align_aid;
    AlignNL = saved.align_nl;
    memcpy(AlignNL.value, saved.nl_value.data(), sizeof(float) * saved.nl_value.size());
    memcpy(AlignNL.increment, saved.nl_increment.data(), sizeof(float) * saved.nl_increment.size());
    memcpy(AlignNL.Adjust3D, saved.nl_adjust.data(), sizeof(int) * saved.nl_adjust.size());
    for (int m = 0; m < 4; m++)
        memcpy(MAPS[m]->SpaceTime.fData, saved.maps[m].data(), sizeof(float) * saved.maps[m].size());
}

void run_recall(void *) { recall_alignment_parameters(); }

/* Part 0 align.com; parts 1 to 3 the files d.nii, d.hdr and d.bfloat that it may name. */
void fuzz_recall(const uint8_t *data, size_t size)
{
    start_session();
    fuzz_enter_directory();
    fuzz_part parts[4];
    int np = fuzz_split(data, size, parts, 4);
    static const char *names[4] = {"align.com", "d.nii", "d.hdr", "d.bfloat"};
    for (int k = 0; k < np; k++) fuzz_write_file(names[k], parts[k]);
    fuzz_call(run_recall, NULL);
    restore_session();
}

/* Byte 0: the kind of map file, b % 3: d.nii (part 0), d.bfloat with its text header d.hdr
   (parts 0 and 1), or the NIfTI pair d.img with d.hdr (parts 0 and 1); recalled through an
   align.com that names it. */
void fuzz_distortion(const uint8_t *data, size_t size)
{
    start_session();
    fuzz_enter_directory();
    if (size == 0) return;
    int kind = data[0] % 3;
    fuzz_part parts[2];
    int np = fuzz_split(data + 1, size - 1, parts, 2);
    static const char *map_names[3] = {"d.nii", "d.bfloat", "d.img"};
    if (kind == 0) {
        fuzz_write_file("d.nii", parts[0]);
    } else {
        fuzz_write_file("d.hdr", parts[0]);
        if (np > 1) fuzz_write_file(map_names[kind], parts[1]);
    }
    char line[128];
    snprintf(line, sizeof line, "set registration-distortions %s\n", map_names[kind]);
    fuzz_write_text("align.com", line);
    fuzz_call(run_recall, NULL);
    restore_session();
}

void run_overlays(void *)
{
    char list[] = "o.list";
    if (read_overlay_list(list) == 0) { /* as the start-up does after -o */
        mosaic.toggle_overlays = 1;
        action_step_overlay_list(1, 0);
        build_image_display(1);
    }
    read_overlay_file(".ovl", &ovl_root); /* as the 'r' key does */
    update_root_overlay(1);
}

/* Part 0 the overlay list o.list, part 1 the file .ovl, parts 2... the files o2, o3, ... */
void fuzz_overlay(const uint8_t *data, size_t size)
{
    start_session();
    fuzz_enter_directory();
    fuzz_part parts[10];
    int np = fuzz_split(data, size, parts, 10);
    fuzz_write_file("o.list", parts[0]);
    if (np > 1) fuzz_write_file(".ovl", parts[1]);
    for (int k = 2; k < np; k++) {
        char name[16];
        snprintf(name, sizeof name, "o%d", k);
        fuzz_write_file(name, parts[k]);
    }
    if (fuzz_call(run_overlays, NULL) < 0) {
        const data_stack *s = mosaic.stack;
        for (int i = 0; i < s->n3d; i++)
            fuzz_require(overlay_map.weight[i] >= 0.0f && overlay_map.weight[i] <= 1.0f,
                         "overlay weights lie within 0..1");
        fuzz_require(ovl_root.npts >= 0 && ovl_root.npts <= s->n3d, "the root overlay fits the volume");
        for (const ovl_list *o = ovl_root.next; o != NULL; o = o->next) {
            fuzz_require(o->npts >= 0 && o->npts <= s->n3d, "a listed overlay fits the volume");
            for (int k = 0; k < o->npts; k++) {
                IPOINT3D v = o->voxel[k];
                fuzz_require(v.x >= 0 && v.y >= 0 && v.z >= 0 && v.x < s->dim.x && v.y < s->dim.y &&
                                 v.z < s->dim.z && o->weight[k] >= 0.0f && o->weight[k] <= 1.0f,
                             "a listed overlay's voxels lie inside with weights within 0..1");
            }
        }
    }
    restore_session();
}

void run_wires(void *)
{
    char list[] = "w.list";
    if (read_wire_list(list) == 0) mosaic.toggle_overlays = 2; /* as the start-up does after -w */
    read_wire_file(".wire", &wire_root, 0);                     /* as the 'R' key does */
}

/* Part 0 the wire list w.list, part 1 the file .wire, parts 2... the files w2, w3, ... */
void fuzz_wire(const uint8_t *data, size_t size)
{
    start_session();
    fuzz_enter_directory();
    fuzz_part parts[10];
    int np = fuzz_split(data, size, parts, 10);
    fuzz_write_file("w.list", parts[0]);
    if (np > 1) fuzz_write_file(".wire", parts[1]);
    for (int k = 2; k < np; k++) {
        char name[16];
        snprintf(name, sizeof name, "w%d", k);
        fuzz_write_file(name, parts[k]);
    }
    if (fuzz_call(run_wires, NULL) < 0)
        for (const wire_list *w = &wire_root; w != NULL; w = w->next)
            fuzz_require(w->npts >= 0 && (w->npts == 0 || w->control != NULL), "wire frames hold their points");
    restore_session();
}

/* ---- the start-up file ---- */

struct startup_call {
    int argc;
    char **argv;
    startup_options opts;
};

void run_startup(void *p)
{
    static char arguments[100][1024];
    static char *myargv[101];
    startup_call *c = (startup_call *)p;
    restart_my_getopt();
    int myargc = gather_startup_arguments(c->argc, c->argv, arguments, myargv);
    scan_startup_options(c->argc, c->argv, myargc, myargv, &c->opts);
}

void free_file_list(file_list *head)
{
    for (file_list *f = head->next; f != NULL;) {
        file_list *next = f->next;
        free(f);
        f = next;
    }
    memset(head, 0, sizeof *head);
}

/* Byte 0: the command line, b % 3: "align", "align -y" or "align -Y" (the three that read the
   start-up file); the rest is the file .align. */
void fuzz_init_file(const uint8_t *data, size_t size)
{
    fuzz_enter_directory();
    if (size == 0) return;
    static char word0[] = "align", word_y[] = "-y", word_Y[] = "-Y";
    char *argv[3] = {word0, data[0] % 3 == 2 ? word_Y : word_y, NULL};
    startup_call c;
    memset(&c, 0, sizeof c);
    c.argc = data[0] % 3 == 0 ? 1 : 2;
    c.argv = argv;
    fuzz_write_file(".align", {data + 1, size - 1});
    unsetenv("QOR_HOME"); /* -h and -H print their help-less message and end */
    mosaic_display mosaic_before = mosaic;
    if (fuzz_call(run_startup, &c) < 0)
        fuzz_require(mosaic.zoom >= 0 && mosaic.zoom <= 10, "the zoom is automatic or 1..10");
    free_file_list(&individual_files);
    free_file_list(&template_files);
    mosaic = mosaic_before;
    Alignment.WrapAround = {0, 0, 0};
}

}  // namespace

const fuzz_target FUZZ_TARGETS[] = {
    {"nifti", fuzz_nifti, "byte 0: 1 + b % 3 files; parts: v0.nii, v1.nii, v2.nii (one list)"},
    {"nifti_pair", fuzz_nifti_pair, "parts: v.hdr, v.img"},
    {"quill", fuzz_quill,
     "byte 0: extension b % 8 of .bshort .bfloat .blong .ushort .dat (none) .hdr .BSHORT, 1 + (b / 8) % 3 "
     "files; parts: q0.hdr, q0 data, q1.hdr, q1 data, ..."},
    {"freesurfer", fuzz_freesurfer,
     "byte 0: bit 0 bfloat slices, (b >> 1) % 3 list f_ | f_ w.nii | w.nii f_; parts: f.bhdr, f_000.hdr, "
     "slices f_000, f_001, ..."},
    {"recall", fuzz_recall, "parts: align.com, d.nii, d.hdr, d.bfloat"},
    {"distortion", fuzz_distortion, "byte 0: b % 3 map d.nii | d.hdr + d.bfloat | d.hdr + d.img; parts: the files"},
    {"overlay", fuzz_overlay, "parts: o.list, .ovl, o2, o3, ..."},
    {"wire", fuzz_wire, "parts: w.list, .wire, w2, w3, ..."},
    {"init_file", fuzz_init_file, "byte 0: b % 3 command line align | align -y | align -Y; rest: .align"},
};
const int FUZZ_NTARGETS = (int)(sizeof FUZZ_TARGETS / sizeof FUZZ_TARGETS[0]);

const fuzz_target *find_fuzz_target(const char *name)
{
    for (int i = 0; i < FUZZ_NTARGETS; i++)
        if (strcmp(FUZZ_TARGETS[i].name, name) == 0) return &FUZZ_TARGETS[i];
    return NULL;
}
