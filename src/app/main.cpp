/* The align program's entry: gathers the arguments (command line or ".align"), applies the
   options to the display, alignment and file-list records, and hands over to the start-up
   steps. Writes program_name, mosaic, Alignment, template_unfiltered and the file lists. */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "globals.h"
#include "startup.h"
#include "text.h"

/* The argument table: command-line words first, then the words of ".align". One pointer more
   than entries, always at an empty word, so that an option whose argument would lie past the
   last word reads an empty argument. */
static char arguments[100][1024];
static char *myargv[101];
static char no_word[1] = "";

int main(int argc, char **argv)
{
    int myargc, which_arg = 0, option;
    startup_options opts;

    /* Every message line reaches a file or a pipe (align ... | tee log) as it is printed, not
       when the program ends; progress lines without a newline are flushed where printed. */
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);

    /* 1: the program's name and the argument table */
    snprintf(program_name, sizeof program_name, "%s", "align");
    for (int i = 0; i < argc && i < 100; i++) snprintf(arguments[i], sizeof arguments[i], "%s", argv[i]);
    for (int i = 0; i < 100; i++) myargv[i] = arguments[i];
    myargv[100] = no_word;
    /* Words beyond the hundredth are not copied; the scan stops at the table's end. */
    myargc = argc > 100 ? 100 : argc;

    /* 2: a bare command line (or a lone flip toggle) takes its words from ".align" */
    if (argc == 1 || (argc == 2 && (strcmp(argv[1], "-y") == 0 || strcmp(argv[1], "-Y") == 0)))
        read_program_init_file(".align", arguments, &myargc);

    /* 3 */
    if (myargc < 2) {
        printf("Error: this program should be invoked as\n");
        printf("  align <individual file> -t <template file> [optional arguments]\n\n");
        action_help(0, 1);
        exit(1);
    }

    /* 4: defaults */
    opts.ovl_name[0] = '\0';
    opts.wire_name[0] = '\0';
    opts.number_panels = 0;
    opts.batch_mode = 0;
    opts.iWrap = 0;
    mosaic.DimPanels.x = 0;
    mosaic.display_3orthogonal = 0;
    mosaic.zoom = 0;
    mosaic.flip_X11_y = 1;
    mosaic.display_ortho_ZY = 1;
    Alignment.WrapAround.x = 0;
    Alignment.WrapAround.y = 0;
    Alignment.WrapAround.z = 0;
    template_unfiltered.nt = 0;
    template_unfiltered.registration = 0;

    /* 5: the options */
    while ((option = my_getopt(myargc, myargv, "z:Z:w:W:o:O:t:T:m:M:i:I:13aAhHyY", &which_arg)) != 0) {
        switch (option) {
        case -1:
            /* the word as the user typed it; words from ".align" exist only in the table */
            printf("Option %s not valid.\n", which_arg < argc ? argv[which_arg] : myargv[which_arg]);
            printf("Program exiting.\n");
            exit(1);
        case 'h':
            action_help(0, 1);
            exit(0);
        case 'H':
            help_menu(0, "align-menu.txt");
            exit(0);
        default:
            if (apply_startup_option(option, myargv[which_arg], &opts) != 0) {
                /* Deliberate: the character printed is the word's first, the hyphen, so the
                   text reads "-- not yet programmed". Pinned by the driver_option_one test. */
                printf("Valid option -%c not yet programmed.\n", myargv[which_arg][0]);
                printf("Program exiting.\n");
                exit(1);
            }
            break;
        }
    }

    /* 6 onwards: the volumes (the individual first), preparation, display, batch or loop */
    return run_startup_steps(opts.number_panels, opts.batch_mode, opts.ovl_name, opts.wire_name);
}
