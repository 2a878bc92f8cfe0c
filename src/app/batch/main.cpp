/* align-batch: headless affine and non-linear alignment for pipelines. Parses the command line
   and hands the run to the core (batch_pipeline); never opens a display. Exit status 0 when
   every output was written, 1 with a message otherwise. */
#include <cstdio>
#include <cstring>
#include <getopt.h>

#include "batch_pipeline.h"

static void usage(FILE *out)
{
    fprintf(out,
            "usage: align-batch INDIVIDUAL TEMPLATE --out DIR [--nonlinear] [--mask FILE]\n"
            "                   [--search accurate|specified]\n"
            "Aligns the individual volume to the template without a display and writes into DIR:\n"
            "  align.com        the alignment parameters (read by align and align-apply)\n"
            "  distortions.nii  the displacement maps (after --nonlinear)\n"
            "  aligned.nii.gz   the individual resampled onto the template's grid\n"
            "  qc.png           template slices with the individual's edges, before and after\n"
            "  summary.json     parameters, similarity per level, folded voxels, times; written last\n"
            "Options:\n"
            "  --out DIR        output directory, created when missing (required)\n"
            "  --nonlinear      add the non-linear alignment after the affine one\n"
            "  --mask FILE      brain mask on the template's grid (non-zero voxels are compared)\n"
            "  --search KIND    accurate (default): multi-resolution search that runs to convergence,\n"
            "                   with a start from the centres of mass and the quarter-turn orientations;\n"
            "                   specified: the search of align -a, which it reproduces exactly\n"
            "  --help           this text\n"
            "Exit status: 0 on success, 1 on any failure.\n");
}

int main(int argc, char **argv)
{
    static const struct option options[] = {
        {"out", required_argument, NULL, 'o'},    {"nonlinear", no_argument, NULL, 'n'},
        {"mask", required_argument, NULL, 'm'},   {"search", required_argument, NULL, 's'},
        {"help", no_argument, NULL, 'h'},         {NULL, 0, NULL, 0},
    };
    batch_options o = {NULL, NULL, NULL, NULL, 0, BATCH_SEARCH_ACCURATE};
    int c;
    opterr = 0;
    while ((c = getopt_long(argc, argv, "", options, NULL)) != -1) {
        switch (c) {
        case 'o': o.out_dir = optarg; break;
        case 'n': o.nonlinear = 1; break;
        case 'm': o.mask = optarg; break;
        case 's':
            if (strcmp(optarg, "accurate") == 0) o.search = BATCH_SEARCH_ACCURATE;
            else if (strcmp(optarg, "specified") == 0) o.search = BATCH_SEARCH_SPECIFIED;
            else {
                printf("Error: --search takes accurate or specified, not %s\n", optarg);
                return 1;
            }
            break;
        case 'h': usage(stdout); return 0;
        default:
            if (optopt != 0) {
                const struct option *known = NULL;
                for (const struct option *p = options; p->name != NULL; p++)
                    if (p->val == optopt) known = p;
                if (known != NULL) printf("Error: option --%s needs an argument.\n", known->name);
                else printf("Error: unknown option %s\n", argv[optind - 1]);
            } else {
                printf("Error: unknown option %s\n", argv[optind - 1]);
            }
            usage(stdout);
            return 1;
        }
    }
    if (argc - optind != 2) {
        printf("Error: align-batch needs an individual and a template file (%d given).\n", argc - optind);
        usage(stdout);
        return 1;
    }
    o.individual = argv[optind];
    o.template_name = argv[optind + 1];
    if (o.out_dir == NULL) {
        printf("Error: the output directory is not given (--out DIR).\n");
        usage(stdout);
        return 1;
    }
    return run_batch_alignment(&o) == 0 ? 0 : 1;
}
