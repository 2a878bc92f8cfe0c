/* "align.com": the affine parameters, the template geometry they refer to and the name of the
   distortion maps, kept as `set keyword value' lines in the current directory.
   Reads and writes Alignment, AlignAid.Adjust and (through the map files) distort_x/y/z. No X11. */
#include "persist.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "align_model.h"
#include "distortion_files.h"
#include "globals.h"
#include "header_quill.h"
#include "nl_model.h"
#include "numerics.h"
#include "safe_save.h"
#include "text.h"

/* A deformation exists when any element of the three maps is non-zero or NaN. */
static int deformation_exists(void)
{
    data_stack *maps[3] = {&distort_x, &distort_y, &distort_z};
    int n = distort_x.n3d;
    for (int m = 0; m < 3; m++) {
        const float *d = maps[m]->SpaceTime.fData;
        if (d == NULL) continue;
        for (int i = 0; i < n; i++)
            if (d[i] != 0.0f || std::isnan(d[i])) return 1;
    }
    return 0;
}

/* Every file of the save is written to a temporary in the current directory and checked; the
   maps are renamed over the old ones first and align.com last, only when both are complete.
   Any failure prints its message, leaves align.com and the maps as they were and returns 1
   (the getcwd failure too, which used to leave align.com with lines 1 to 12). */
int save_alignment_parameters(void)
{
    FILE *fp;
    safe_file sf;
    char cwd[1024], map_name[1024];

    if ((fp = safe_save_open(&sf, "align.com", "w")) == NULL) {
        printf("\nError: cannot open file align.com\n");
        return 1;
    }
    if (Alignment.RigidBody == 0) fprintf(fp, "set registration-type deck-of-cards\n");
    if (Alignment.registration == REG_PW_RAT_OLD) fprintf(fp, "set registration-space paxinos-rat\n");
    else if (Alignment.registration == REG_PW_RAT) fprintf(fp, "set registration-space PW-rat\n");
    fprintf(fp, "set registration-matrix %d %d %d\n", Alignment.dimension.x, Alignment.dimension.y,
            Alignment.dimension.z);
    fprintf(fp, "set registration-resolution %g %g %g\n", Alignment.resolution.x,
            Alignment.resolution.y, Alignment.resolution.z);
    fprintf(fp, "set registration-origin %g %g %g\n", Alignment.origin.x, Alignment.origin.y,
            Alignment.origin.z);
    fprintf(fp, "set registration-direction %g %g %g\n", Alignment.direction.x,
            Alignment.direction.y, Alignment.direction.z);
    fprintf(fp, "set registration-orientation %d %d %d %d\n", Alignment.OrientRotation.x,
            Alignment.OrientRotation.y, Alignment.OrientRotation.z, Alignment.OrientSwapZ);
    if (Alignment.WrapAround.x != 0 || Alignment.WrapAround.y != 0 || Alignment.WrapAround.z != 0)
        fprintf(fp, "set registration-wrapping %d %d %d\n", Alignment.WrapAround.x,
                Alignment.WrapAround.y, Alignment.WrapAround.z);
    fprintf(fp, "set registration-translations %g %g %g\n", Alignment.value[0], Alignment.value[1],
            Alignment.value[2]);
    fprintf(fp, "set registration-rotations %g %g %g\n", Alignment.value[3], Alignment.value[4],
            Alignment.value[5]);
    fprintf(fp, "set registration-inflations %g %g %g\n", Alignment.value[6], Alignment.value[7],
            Alignment.value[8]);
    fprintf(fp, "set registration-skews %g %g %g\n", Alignment.value[9], Alignment.value[10],
            Alignment.value[11]);

    int maps = deformation_exists();
    if (maps) {
        if (getcwd(cwd, sizeof cwd) == NULL) {
            printf("Error: non-linear alignment parameters not saved.\n");
            safe_save_discard(&sf);
            return 1;
        }
        printf("cwd = %s\n", cwd);
        size_t len = strlen(cwd);
        if (len + strlen("/distortions.nii") >= sizeof map_name) {
            printf("Error: non-linear alignment parameters not saved.\n");
            safe_save_discard(&sf);
            return 1;
        }
        memcpy(map_name, cwd, len);
        memcpy(map_name + len, "/distortions.nii", strlen("/distortions.nii") + 1);
        int status = write_distortion_temporaries(map_name);
        /* the writer cuts the name at its last '.'; put the extension back */
        len = strlen(map_name);
        if (len + 4 < sizeof map_name) memcpy(map_name + len, ".nii", 5);
        if (status != 0) {
            printf("Error writing file %s\n", map_name);
            safe_save_discard(&sf);
            return 1;
        }
        fprintf(fp, "set registration-distortions %s\n", map_name);
    }
    if (safe_save_finish(&sf) != 0) {
        if (maps) discard_distortion_temporaries();
        return 1;
    }
    if (maps && rename_distortion_temporaries() != 0) {
        printf("Error writing file %s\n", map_name);
        safe_save_discard(&sf);
        return 1;
    }
    if (safe_save_rename(sf.temp_name, "align.com") != 0) return 1;
    printf("Alignment parameters were saved in file align.com\n");
    fflush(stdout);
    return 0;
}

/* Every failure of a recall closes the file and returns 1 (the values stored so far stay). */
static int recall_failed(FILE *fp)
{
    fclose(fp);
    fflush(stdout);
    return 1;
}

/* Three floats read with "%g"; 1 when they do not all compare equal to the stored ones (a
   value that is not finite never matches a template that was read, so it is refused here). */
static int read_and_compare(const char *value, POINT3D stored, const char *keyword, const char *what)
{
    POINT3D p;
    if (sscanf(value, "%g %g %g", &p.x, &p.y, &p.z) != 3) {
        printf("Error reading the value of `set %s'\n", keyword);
        return 1;
    }
    /* Deliberate: exact float equality after parsing, so a value that "%g" cannot carry
       (1/3, say) is refused by the same program. Pinned by Recall.UnprintableResolutionRefused. */
    if (!(p.x == stored.x && p.y == stored.y && p.z == stored.z)) {
        printf("Error: the new %s (%g,%g,%g) does not match the template (%g,%g,%g)\n", what, p.x, p.y,
               p.z, stored.x, stored.y, stored.z);
        return 1;
    }
    return 0;
}

/* Three parameter values read with "%f" into Alignment.value[first..first+2]; 1 after the
   message naming message_keyword when the line does not hold three finite numbers. A line
   that stops early keeps the numbers read before the fault, as sscanf leaves them; a number
   that is not finite (nan, inf, or beyond the float range) is not stored at all, so that no
   search ever starts from it. */
static int read_three_values(const char *value, int first, const char *message_keyword)
{
    float v[3] = {Alignment.value[first], Alignment.value[first + 1], Alignment.value[first + 2]};
    int n = sscanf(value, "%f %f %f", &v[0], &v[1], &v[2]);
    int finite = std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
    if (finite)
        for (int i = 0; i < 3; i++) Alignment.value[first + i] = v[i];
    if (n != 3 || !finite) {
        printf("Error reading the value of `set %s'\n", message_keyword);
        return 1;
    }
    return 0;
}

int recall_alignment_parameters(void)
{
    return recall_alignment_parameters_from("align.com");
}

int recall_alignment_parameters_from(const char *file_name)
{
    FILE *fp;
    char line[1024], word[1024], keyword[1024];

    if ((fp = fopen(file_name, "r")) == NULL) {
        printf("\nError: cannot open file %s\n", file_name);
        return 1;
    }
    while (get_line_with_comment(fp, line, sizeof line) != NULL) {
        /* Deliberate: the first word is never compared with "set".
           Pinned by Recall.FirstWordNotChecked. */
        if (sscanf(line, "%s", word) != 1) continue;
        char *p = strstr(line, word) + strlen(word);
        p = next_non_white(p);
        if (sscanf(p, "%s", keyword) != 1) continue;
        p = strstr(p, keyword) + strlen(keyword);
        char *value = next_non_white(p);

        if (strcmp(keyword, "registration-type") == 0) {
            char type[1024];
            if (sscanf(value, "%s", type) == 1 && strcmp(type, "deck-of-cards") == 0) Alignment.RigidBody = 0;
            else Alignment.RigidBody = 1;
        } else if (strcmp(keyword, "registration-space") == 0) {
            char space[1024];
            if (sscanf(value, "%s", space) == 1 && strcmp(space, "paxinos-rat") == 0)
                Alignment.registration = REG_PW_RAT_OLD;
            else Alignment.registration = REG_PW_RAT;
        } else if (strcmp(keyword, "registration-matrix") == 0) {
            IPOINT3D d;
            if (sscanf(value, "%d %d %d", &d.x, &d.y, &d.z) != 3) {
                /* Deliberate: the orientation keyword is named here.
                   Pinned by Recall.MalformedMatrixNamesOrientation. */
                printf("Error reading the value of `set registration-orientation'\n");
                return recall_failed(fp);
            }
            if (d.x != Alignment.dimension.x || d.y != Alignment.dimension.y || d.z != Alignment.dimension.z) {
                printf("Error: the new matrix size (%d,%d,%d) does not match the template (%d,%d,%d)\n", d.x,
                       d.y, d.z, Alignment.dimension.x, Alignment.dimension.y, Alignment.dimension.z);
                return recall_failed(fp);
            }
        } else if (strcmp(keyword, "registration-resolution") == 0) {
            if (read_and_compare(value, Alignment.resolution, keyword, "resolution")) return recall_failed(fp);
        } else if (strcmp(keyword, "registration-origin") == 0) {
            if (read_and_compare(value, Alignment.origin, keyword, "origin")) return recall_failed(fp);
        } else if (strcmp(keyword, "registration-direction") == 0) {
            if (read_and_compare(value, Alignment.direction, keyword, "direction")) return recall_failed(fp);
        } else if (strcmp(keyword, "registration-orientation") == 0) {
            if (sscanf(value, "%d %d %d %d", &Alignment.OrientRotation.x, &Alignment.OrientRotation.y,
                       &Alignment.OrientRotation.z, &Alignment.OrientSwapZ) != 4) {
                printf("Error reading the value of `set registration-orientation'\n");
                return recall_failed(fp);
            }
        } else if (strcmp(keyword, "registration-wrapping") == 0) {
            if (sscanf(value, "%d %d %d", &Alignment.WrapAround.x, &Alignment.WrapAround.y,
                       &Alignment.WrapAround.z) != 3) {
                printf("Error reading the value of `set registration-wrapping'\n");
                return recall_failed(fp);
            }
        } else if (strcmp(keyword, "registration-translations") == 0) {
            if (read_three_values(value, 0, "registration-translations")) return recall_failed(fp);
        } else if (strcmp(keyword, "registration-rotations") == 0) {
            if (read_three_values(value, 3, "registration-rotations")) return recall_failed(fp);
        } else if (strcmp(keyword, "registration-inflations") == 0) {
            if (read_three_values(value, 6, "registration-inflations")) return recall_failed(fp);
        } else if (strcmp(keyword, "registration-skews") == 0) {
            /* Deliberate: the inflations text; there is no skews message.
               Pinned by Recall.MalformedSkewsNamesInflations. */
            if (read_three_values(value, 9, "registration-inflations")) return recall_failed(fp);
        } else if (strcmp(keyword, "registration-distortions") == 0) {
            /* The header reader strips the line feed from the name in place; the cleaned
               name is used from here on. */
            QL_HEADER header;
            memset(&header, 0, sizeof header);
            if (read_volume_header(value, &header) != 0) return recall_failed(fp);
            if (header.dim.x != template_.dim.x || header.dim.y != template_.dim.y ||
                header.dim.z != template_.dim.z) {
                printf("Error: the distortion map dimensions (%d,%d,%d) don't match the template (%d,%d,%d)\n",
                       header.dim.x, header.dim.y, header.dim.z, template_.dim.x, template_.dim.y,
                       template_.dim.z);
                return recall_failed(fp);
            }
            if (read_distortion_file(value, header) != 0) return recall_failed(fp);
            update_nonlinear_alignment_parameters(0);
        }
    }
    fclose(fp);
    printf("Alignment parameters were recalled from file %s\n", file_name);
    for (int j = 0; j < 12; j++)
        if (Alignment.value[j] != 0.0f) AlignAid.Adjust[j] = 1; /* NaN is != 0 too */
    print_parameter_set(1, 0);
    return 0;
}
