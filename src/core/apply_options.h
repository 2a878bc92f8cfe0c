#pragma once
/* The command line of align-apply, parsed with getopt_long into a plain record, and its help
   text. No globals; no X11. */

struct apply_command {
    int help;                      /* --help given: print the help, do nothing else */
    int inverse;                   /* --inverse */
    int kernel;                    /* --interp: APPLY_ACCURATE (default), APPLY_LINEAR, APPLY_NEAREST */
    char template_name[1024];      /* --template */
    char alignment_name[1024];     /* --alignment */
    char individual_name[1024];    /* --individual, "" when not given */
    char jacobian_name[1024];      /* --jacobian, "" when not given */
    char field_name[1024];         /* --field, "" when not given */
    char input_name[1024];
    char output_name[1024];
};

/* Parses argv (getopt_long; options and the two file names in any order; each option's last
   occurrence wins). Returns 0 with the record filled, or 1 after a message that names the
   option or what is missing, followed by "Run align-apply --help for the usage.\n". Refused:
   unknown options, a missing option value, an --interp other than accurate, linear or nearest,
   no --template or --alignment, not exactly two file names, --inverse without --individual,
   output names (OUTPUT, --jacobian, --field) that end neither in ".nii" nor in ".nii.gz", and
   names of 1024 characters or more. */
int parse_apply_command(int argc, char **argv, apply_command *command);

/* The usage and option text of align-apply, on standard output. */
void print_apply_help(void);
