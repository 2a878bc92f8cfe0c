/* align-batch's run (see batch_pipeline.h): the session, the mask, the affine and non-linear
   stages, and the outputs, summary.json last. Reads and writes the process-wide alignment
   records and volumes; changes the working directory only while align.com is saved. No X11. */
#include "batch_pipeline.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "accurate_nonlinear.h"
#include "accurate_search.h"
#include "affine_search.h"
#include "apply_images.h"
#include "align_model.h"
#include "batch_summary.h"
#include "display_hooks.h"
#include "filters.h"
#include "globals.h"
#include "nl_model.h"
#include "nl_search.h"
#include "numerics.h"
#include "persist.h"
#include "qc_picture.h"
#include "resample.h"
#include "safe_save.h"
#include "session.h"
#include "similarity.h"
#include "threads.h"
#include "volume_load.h"

#ifndef ALIGN_VERSION
#define ALIGN_VERSION "unknown"
#endif

typedef std::chrono::steady_clock batch_clock;

static double seconds_since(batch_clock::time_point t0)
{
    return std::chrono::duration<double>(batch_clock::now() - t0).count();
}

/* ---- the output directory ---- */

/* Creates dir and its missing parents. 0, or 1 after a message. */
static int make_directories(const char *dir)
{
    char path[1024];
    if (snprintf(path, sizeof path, "%s", dir) >= (int)sizeof path) {
        printf("Error: the output directory name %s is too long.\n", dir);
        return 1;
    }
    for (char *p = path + 1;; p++) {
        if (*p != '/' && *p != '\0') continue;
        char keep = *p;
        *p = '\0';
        struct stat st;
        if (stat(path, &st) != 0) {
            if (mkdir(path, 0777) != 0 && errno != EEXIST) {
                printf("Error: cannot create the output directory %s (%s)\n", path, strerror(errno));
                return 1;
            }
        } else if (!S_ISDIR(st.st_mode)) {
            printf("Error: %s is not a directory.\n", path);
            return 1;
        }
        *p = keep;
        if (keep == '\0') break;
    }
    return 0;
}

/* dir created, its absolute name in abs, writable (a trial file is made and removed), and an
   earlier summary.json removed. 0, or 1 after a message. */
static int prepare_output_directory(const char *dir, char abs[1024])
{
    char resolved[PATH_MAX];
    if (dir[0] == '\0') {
        printf("Error: the output directory (--out) is empty.\n");
        return 1;
    }
    if (make_directories(dir) != 0) return 1;
    if (realpath(dir, resolved) == NULL) {
        printf("Error: cannot resolve the output directory %s (%s)\n", dir, strerror(errno));
        return 1;
    }
    if (strlen(resolved) > 1000) {
        printf("Error: the output directory name %s is too long.\n", resolved);
        return 1;
    }
    memcpy(abs, resolved, strlen(resolved) + 1);
    char probe[1100];
    snprintf(probe, sizeof probe, "%s/summary.json", abs);
    if (unlink(probe) != 0 && errno != ENOENT) {
        printf("Error: cannot remove the earlier %s (%s)\n", probe, strerror(errno));
        return 1;
    }
    safe_file sf;
    if (safe_save_open(&sf, probe, "w") == NULL) {
        printf("Error: cannot write into the output directory %s (%s)\n", abs, strerror(errno));
        return 1;
    }
    safe_save_discard(&sf);
    return 0;
}

/* ---- inputs ---- */

/* The brain mask: a volume on the template's grid whose non-zero voxels are the brain. Sets
   AlignAid.mask and nmask and rebuilds the working volumes. 0, or 1 after a message. */
static int apply_template_mask(const char *name)
{
    data_stack m;
    memset(&m, 0, sizeof m);
    file_list list;
    memset(&list, 0, sizeof list);
    add_image_file(&list, name, 0, 3);
    int nfiles = 0;
    printf("\n");
    if (read_SpaceTime_data(0, &m, &list, &nfiles) != 0) {
        printf("Error: the mask %s could not be read.\n", name);
        return 1;
    }
    if (m.dim.x != template_unfiltered.dim.x || m.dim.y != template_unfiltered.dim.y ||
        m.dim.z != template_unfiltered.dim.z) {
        printf("Error: the mask %s has %d x %d x %d voxels, the template %d x %d x %d.\n", name, m.dim.x, m.dim.y,
               m.dim.z, template_unfiltered.dim.x, template_unfiltered.dim.y, template_unfiltered.dim.z);
        free_float_vector(m.SpaceTime.fData);
        return 1;
    }
    int n = 0;
    for (int v = 0; v < template_unfiltered.n3d; v++) {
        float w = m.SpaceTime.fData[v];
        AlignAid.mask[v] = w != 0.0f && w == w ? 1.0f : 0.0f;
        n += AlignAid.mask[v] != 0.0f;
    }
    free_float_vector(m.SpaceTime.fData);
    if (n == 0) {
        printf("Error: the mask %s has no non-zero voxel.\n", name);
        return 1;
    }
    AlignAid.nmask = n;
    filter_image_data();
    transform_coordinates(1, 0);
    printf("mask: %d template voxels of %s\n", n, name);
    return 0;
}

/* ---- what the outputs need ---- */

/* The individual resampled (fast kernel) onto the planes that the QC picture draws and their
   neighbours on either side (for its edges), whether the template is zero there or not, into
   out (template n3d values, 0 off those planes). */
static void resample_picture_planes(const qc_layout *layout, float *out)
{
    size_t n = (size_t)template_.n3d;
    IPOINT3D d = template_.dim;
    float *tpl = template_.SpaceTime.fData + (size_t)iTime_Template * n;
    float *saved = float_vector((int)n);
    memcpy(saved, tpl, sizeof(float) * n);
    for (int z = 0; z < d.z; z++)
        for (int y = 0; y < d.y; y++)
            for (int x = 0; x < d.x; x++) {
                int drawn = 0;
                for (int p = 0; p < 3; p++) drawn |= abs(z - layout->slice[p]) <= 1;
                drawn |= abs(y - layout->slice[3]) <= 1;
                drawn |= abs(x - layout->slice[4]) <= 1;
                size_t i = (size_t)x + (size_t)d.x * ((size_t)y + (size_t)d.y * z);
                tpl[i] = !drawn ? 0.0f : tpl[i] != 0.0f ? tpl[i] : 1.0e-20f;
            }
    transform_coordinates(1, 0);
    memcpy(out, individual.SpaceTime.fData + (size_t)graph.iTime * n, sizeof(float) * n);
    memcpy(tpl, saved, sizeof(float) * n);
    free_float_vector(saved);
}

/* Jacobian determinants of the template-to-individual mapping's displacement part over the
   template's non-zero voxels (forward differences, as align counts its bad links). */
static void deformation_statistics(batch_record *r)
{
    IPOINT3D d = template_.dim;
    POINT3D res = template_.resolution;
    const float *t = template_.SpaceTime.fData + (size_t)iTime_Template * (size_t)template_.n3d;
    const float *u[3] = {distort_x.SpaceTime.fData, distort_y.SpaceTime.fData, distort_z.SpaceTime.fData};
    r->folded_voxels = r->low_jacobian_voxels = 0;
    r->jacobian_min = 1e30f;
    r->jacobian_max = -1e30f;
    size_t sy = (size_t)d.x, sz = (size_t)d.x * d.y;
    for (int z = 0; z + 1 < d.z; z++)
        for (int y = 0; y + 1 < d.y; y++)
            for (int x = 0; x + 1 < d.x; x++) {
                size_t i = (size_t)x + sy * y + sz * z;
                if (t[i] == 0.0f) continue;
                double det = forward_jacobian(u, i, sy, sz, res);
                if (det <= 0.0) r->folded_voxels++;
                if (det <= 0.2) r->low_jacobian_voxels++;
                if (det < r->jacobian_min) r->jacobian_min = (float)det;
                if (det > r->jacobian_max) r->jacobian_max = (float)det;
            }
}

/* align.com (and distortions.nii when a deformation exists) written by align's own saver in
   the output directory. 0, or 1 after a message. */
static int save_parameters_in(const char *dir)
{
    int here = open(".", O_RDONLY | O_DIRECTORY);
    if (here < 0) {
        printf("Error: cannot note the working directory (%s)\n", strerror(errno));
        return 1;
    }
    if (chdir(dir) != 0) {
        printf("Error: cannot enter the output directory %s (%s)\n", dir, strerror(errno));
        close(here);
        return 1;
    }
    int status = save_alignment_parameters();
    if (fchdir(here) != 0) {
        printf("Error: cannot return to the working directory (%s)\n", strerror(errno));
        status = 1;
    }
    close(here);
    return status;
}

static void add_level(batch_record *r, const char *stage, float voxel_mm, IPOINT3D dim, int kernel, int steps,
                      float similarity, double seconds)
{
    if (r->nlevels >= BATCH_MAX_LEVELS) return;
    batch_level *b = &r->level[r->nlevels++];
    snprintf(b->stage, sizeof b->stage, "%s", stage);
    b->voxel_mm = voxel_mm;
    b->dim = dim;
    snprintf(b->kernel, sizeof b->kernel, "%s", kernel ? "accurate" : "fast");
    b->steps = steps;
    b->similarity = similarity;
    b->seconds = seconds;
}

static void absolute_name(const char *name, char out[1024])
{
    char resolved[PATH_MAX];
    const char *use = realpath(name, resolved) != NULL ? resolved : name;
    size_t n = strlen(use);
    if (n > 1023) n = 1023;
    memcpy(out, use, n);
    out[n] = '\0';
}

/* ---- the stages ---- */

static void specified_affine(batch_record *r)
{
    /* align -a after its (here absent) align.com */
    batch_affine_alignment();
    add_level(r, "affine", Alignment.resolution.x, Alignment.dimension, 0, 0, NAN, 0.0);
}

static int accurate_affine(batch_record *r)
{
    accurate_search_report rep;
    if (accurate_affine_search(1, &rep) != 0) return 1;
    r->similarity_affine = rep.similarity; /* individual holds the accurate resampling */
    for (int k = 0; k < 3; k++) r->start_translation[k] = rep.start_translation[k];
    r->orientations_tried = rep.orientations_tried;
    for (int l = 0; l < rep.nlevels; l++)
        add_level(r, "affine", rep.level[l].voxel_mm, rep.level[l].dim, rep.level[l].kernel,
                  rep.level[l].residual_steps + rep.level[l].information_steps,
                  rep.level[l].similarity, rep.level[l].seconds);
    return 0;
}

/* The non-linear stage. Specified: as align's full-alignment item runs it after the affine
   one: the mask removed, every affine flag set, then the automatic non-linear alignment on the
   current grid (button 2). Accurate: the field search of accurate_nonlinear, the mask kept. */
static int nonlinear_stage(batch_record *r, int search)
{
    if (search == BATCH_SEARCH_ACCURATE) {
        accurate_nonlinear_report rep;
        if (accurate_nonlinear_search(&rep) != 0) return 1;
        for (int l = 0; l < rep.nlevels; l++)
            add_level(r, "nonlinear", rep.level[l].voxel_mm, rep.level[l].dim, 0, rep.level[l].iterations,
                      rep.level[l].similarity, rep.level[l].seconds);
        return 0;
    }
    batch_clock::time_point t0 = batch_clock::now();
    if (AlignAid.nmask != 0) {
        printf("Remove the overlay filter for non-linear alignment.\n");
        AlignAid.nmask = 0;
        filter_image_data();
        transform_coordinates(1, 0);
    }
    for (int j = 0; j < 12; j++) AlignAid.Adjust[j] = 1;
    printf("Perform non-linear alignment by adjusting: x y z field(s).\n");
    fflush(stdout);
    action_auto_adjust_nonlinear(2);
    AlignNL.Adjusted.x = AlignNL.Adjusted.y = AlignNL.Adjusted.z = 1;
    add_level(r, "nonlinear", Alignment.resolution.x, Alignment.dimension, 0, 0, cost_function(0), seconds_since(t0));
    return 0;
}

int run_batch_alignment(const batch_options *o)
{
    batch_clock::time_point start = batch_clock::now();
    static batch_record r;
    memset(&r, 0, sizeof r);
    snprintf(r.version, sizeof r.version, "%s", ALIGN_VERSION);
    snprintf(r.search, sizeof r.search, "%s", o->search == BATCH_SEARCH_SPECIFIED ? "specified" : "accurate");
    r.nonlinear = o->nonlinear;
    r.threads = align_thread_count();

    char dir[1024];
    if (prepare_output_directory(o->out_dir, dir) != 0) return 1;
    snprintf(r.out_dir, sizeof r.out_dir, "%s", dir);
    absolute_name(o->individual, r.individual);
    absolute_name(o->template_name, r.template_name);
    if (o->mask != NULL) absolute_name(o->mask, r.mask);
    printf("align-batch %s: %s to %s, %s search%s, results in %s\n", ALIGN_VERSION, r.individual, r.template_name,
           r.search, o->nonlinear ? " and non-linear stage" : "", dir);
    fflush(stdout);

    if (start_session(o->individual, o->template_name, 0) != 0) return 1;
    if (o->mask != NULL && apply_template_mask(o->mask) != 0) return 1;
    r.seconds_read = seconds_since(start);

    size_t n3d = (size_t)template_.n3d;
    float *before = float_vector((int)n3d), *after = float_vector((int)n3d);
    qc_volumes picture = {template_unfiltered.dim, template_unfiltered.resolution,
                          template_unfiltered.SpaceTime.fData + (size_t)iTime_Template * n3d, before, after};
    qc_layout layout;
    if (qc_plan(&picture, &layout) != 0) {
        printf("Error: the template %s has no non-zero voxel.\n", o->template_name);
        free_float_vector(before);
        free_float_vector(after);
        return 1;
    }
    /* the session's first resampling is the start's; the picture's planes then take its place
       (both searches resample before they read individual) */
    r.similarity_before = cost_function(0);
    resample_picture_planes(&layout, before);
    printf("read in %.1f s; mutual information before alignment %.4f\n", r.seconds_read, r.similarity_before);
    fflush(stdout);

    batch_clock::time_point t0 = batch_clock::now();
    if (o->search == BATCH_SEARCH_SPECIFIED) {
        specified_affine(&r);
        transform_coordinates(1, 1);
        r.similarity_affine = cost_function(0);
    } else if (accurate_affine(&r) != 0) {
        free_float_vector(before);
        free_float_vector(after);
        return 1;
    }
    r.seconds_affine = seconds_since(t0);
    printf("affine alignment done in %.1f s; mutual information %.4f\n", r.seconds_affine, r.similarity_affine);
    fflush(stdout);

    if (o->nonlinear) {
        t0 = batch_clock::now();
        if (nonlinear_stage(&r, o->search) != 0) {
            free_float_vector(before);
            free_float_vector(after);
            return 1;
        }
        r.seconds_nonlinear = seconds_since(t0);
        deformation_statistics(&r);
        printf("non-linear alignment done in %.1f s; %ld folded voxels, Jacobian %.3f to %.3f\n", r.seconds_nonlinear,
               r.folded_voxels, r.jacobian_min, r.jacobian_max);
        fflush(stdout);
    }
    /* both non-linear stages end with the accurate resampling */
    r.similarity_final = o->nonlinear ? cost_function(0) : r.similarity_affine;
    for (int j = 0; j < 12; j++) r.parameters[j] = Alignment.value[j];
    r.orientation = Alignment.OrientRotation;
    r.swap_z = Alignment.OrientSwapZ;

    t0 = batch_clock::now();
    int status = save_parameters_in(dir);
    if (status == 0) {
        snprintf(r.outputs[0], sizeof r.outputs[0], "%s/align.com", dir);
        if (o->nonlinear) snprintf(r.outputs[1], sizeof r.outputs[1], "%s/distortions.nii", dir);
    }
    if (status == 0) {
        char name[1100];
        snprintf(name, sizeof name, "%s/aligned.nii.gz", dir);
        printf("writing %s\n", name);
        fflush(stdout);
        batch_clock::time_point t1 = batch_clock::now();
        status = write_aligned_volume(&original_unfiltered, o->template_name, name);
        if (status == 0) {
            snprintf(r.outputs[2], sizeof r.outputs[2], "%s", name);
            printf("aligned.nii.gz written in %.1f s\n", seconds_since(t1));
        }
    }
    if (status == 0) {
        char name[1100];
        snprintf(name, sizeof name, "%s/qc.png", dir);
        batch_clock::time_point t1 = batch_clock::now();
        resample_picture_planes(&layout, after);
        status = write_qc_picture(name, &picture);
        if (status == 0) {
            snprintf(r.outputs[3], sizeof r.outputs[3], "%s", name);
            printf("qc.png written in %.1f s\n", seconds_since(t1));
        }
    }
    free_float_vector(before);
    free_float_vector(after);
    r.seconds_outputs = seconds_since(t0);
    r.seconds_total = seconds_since(start);
    if (status == 0) {
        char name[1100];
        snprintf(name, sizeof name, "%s/summary.json", dir);
        snprintf(r.outputs[4], sizeof r.outputs[4], "%s", name);
        status = write_batch_summary(name, &r);
    }
    if (status == 0) printf("align-batch finished in %.1f s\n", r.seconds_total);
    else printf("align-batch failed: the outputs in %s are not complete.\n", dir);
    fflush(stdout);
    return status;
}
