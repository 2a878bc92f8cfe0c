/* align-apply's command line (see apply_options.h). No globals; no X11. */
#include "apply_options.h"

#include <cstdio>
#include <cstring>
#include <getopt.h>

#include "apply_transform.h"

void print_apply_help(void)
{
    printf("usage: align-apply --template TEMPLATE --alignment ALIGN_COM [--inverse]\n"
           "                   [--interp accurate|linear|nearest] [--jacobian FILE] [--field FILE]\n"
           "                   [--individual FILE] INPUT OUTPUT\n"
           "\n"
           "Applies an alignment saved by align (its align.com and the distortion maps it names) to\n"
           "an image. Without --inverse, INPUT lies on the individual's grid and OUTPUT on the\n"
           "template's: the image is resampled as align maps template voxels into the individual\n"
           "(affine and displacement), e.g. another contrast or a 4-D series of the same session.\n"
           "With --inverse, INPUT lies on the template's grid (atlas labels, a template mask) and\n"
           "OUTPUT on the individual's, named by --individual: the affine is inverted exactly and the\n"
           "displacement by fixed-point iteration; the largest residual and the number of voxels\n"
           "where folds make the mapping not invertible are printed.\n"
           "\n"
           "  --template FILE     the template the alignment was made for (its grid and geometry)\n"
           "  --alignment FILE    the align.com of the session; it must match the template\n"
           "  --individual FILE   the individual the alignment was made for: its grid (needed with\n"
           "                      --inverse; going forward INPUT must then lie on it, and without\n"
           "                      it INPUT's own grid, centred as align centres grids, stands for\n"
           "                      the individual's)\n"
           "  --inverse           from the template's grid to the individual's\n"
           "  --interp KERNEL     accurate (default): align's Lanczos kernel; linear: trilinear;\n"
           "                      nearest: nearest neighbour for label maps (values copied exactly,\n"
           "                      the integer type kept)\n"
           "  --jacobian FILE     also write the Jacobian determinant of the mapping on the output's\n"
           "                      grid (input volume per unit output volume; <= 0 where it folds)\n"
           "  --field FILE        also write the mapping as a displacement field on the output's\n"
           "                      grid in the ITK/ANTs convention: a 5-D float NIfTI vector file\n"
           "                      (intent 1007) of world displacements in mm in LPS coordinates,\n"
           "                      output point + displacement = input point\n"
           "  --help              this text\n"
           "\n"
           "Volumes are read in any format align reads, gzipped NIfTI (.nii.gz) included; every\n"
           "volume of a 4-D INPUT is moved. Outputs are NIfTI-1 with the geometry (qform and sform)\n"
           "of the output grid's file, gzipped when the name ends in .nii.gz. Exit status 0 on\n"
           "success, 1 with a message on any failure.\n");
}

/* 1 when name ends in ".nii" or ".nii.gz". */
static int nifti_output_name(const char *name)
{
    size_t n = strlen(name);
    return (n > 4 && strcmp(name + n - 4, ".nii") == 0) || (n > 7 && strcmp(name + n - 7, ".nii.gz") == 0);
}

/* Copies an option's value; 1 after a message when it does not fit. */
static int copy_name(char *to, const char *value, const char *what)
{
    if (strlen(value) >= 1024) {
        printf("Error: the name given for %s is too long.\n", what);
        return 1;
    }
    snprintf(to, 1024, "%s", value);
    return 0;
}

static int refuse(void)
{
    printf("Run align-apply --help for the usage.\n");
    return 1;
}

int parse_apply_command(int argc, char **argv, apply_command *c)
{
    static const struct option options[] = {
        {"template", required_argument, NULL, 't'}, {"alignment", required_argument, NULL, 'a'},
        {"individual", required_argument, NULL, 'i'}, {"inverse", no_argument, NULL, 'v'},
        {"interp", required_argument, NULL, 'k'},     {"jacobian", required_argument, NULL, 'j'},
        {"field", required_argument, NULL, 'f'},      {"help", no_argument, NULL, 'h'},
        {NULL, 0, NULL, 0}};
    memset(c, 0, sizeof *c);
    c->kernel = APPLY_ACCURATE;

    optind = 0; /* a fresh scan, also when called again */
    opterr = 0; /* the messages are ours */
    int option;
    while ((option = getopt_long(argc, argv, "-:", options, NULL)) != -1) {
        switch (option) {
        case 1: /* a file name */
            if (c->input_name[0] == '\0') {
                if (copy_name(c->input_name, optarg, "INPUT")) return refuse();
            } else if (c->output_name[0] == '\0') {
                if (copy_name(c->output_name, optarg, "OUTPUT")) return refuse();
            } else {
                printf("Error: align-apply takes one INPUT and one OUTPUT; %s is one file too many.\n", optarg);
                return refuse();
            }
            break;
        case 't': if (copy_name(c->template_name, optarg, "--template")) return refuse(); break;
        case 'a': if (copy_name(c->alignment_name, optarg, "--alignment")) return refuse(); break;
        case 'i': if (copy_name(c->individual_name, optarg, "--individual")) return refuse(); break;
        case 'j': if (copy_name(c->jacobian_name, optarg, "--jacobian")) return refuse(); break;
        case 'f': if (copy_name(c->field_name, optarg, "--field")) return refuse(); break;
        case 'v': c->inverse = 1; break;
        case 'h': c->help = 1; break;
        case 'k':
            c->kernel = apply_kernel_from_name(optarg);
            if (c->kernel < 0) {
                printf("Error: --interp %s is not a kernel: use accurate, linear or nearest.\n", optarg);
                return refuse();
            }
            break;
        case ':':
            printf("Error: the option %s needs a value.\n", argv[optind - 1]);
            return refuse();
        default:
            printf("Error: %s is not an option of align-apply.\n", argv[optind - 1]);
            return refuse();
        }
    }
    if (c->help) return 0;
    if (c->template_name[0] == '\0') {
        printf("Error: align-apply needs --template TEMPLATE.\n");
        return refuse();
    }
    if (c->alignment_name[0] == '\0') {
        printf("Error: align-apply needs --alignment ALIGN_COM.\n");
        return refuse();
    }
    if (c->output_name[0] == '\0') {
        printf("Error: align-apply needs an INPUT and an OUTPUT file.\n");
        return refuse();
    }
    if (c->inverse && c->individual_name[0] == '\0') {
        printf("Error: --inverse needs --individual FILE, the individual whose grid the output takes.\n");
        return refuse();
    }
    const char *outputs[3] = {c->output_name, c->jacobian_name, c->field_name};
    for (const char *name : outputs)
        if (name[0] != '\0' && !nifti_output_name(name)) {
            printf("Error: the output %s must be a NIfTI-1 file name ending in .nii or .nii.gz.\n", name);
            return refuse();
        }
    return 0;
}
