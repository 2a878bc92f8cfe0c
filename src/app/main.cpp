/* The align program's entry: gathers the arguments (command line or ".align"), applies the
   options to the display, alignment and file-list records, and hands over to the start-up
   steps. Writes program_name, mosaic, Alignment, template_unfiltered and the file lists. */
#include <cstdio>

#include "startup.h"
#include "text.h"

/* The argument table: command-line words first, then the words of ".align". */
static char arguments[100][1024];
static char *myargv[101];

int main(int argc, char **argv)
{
    startup_options opts;

    /* Every message line reaches a file or a pipe (align ... | tee log) as it is printed, not
       when the program ends; progress lines without a newline are flushed where printed. */
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);

    /* 1 to 3: the program's name, the argument table, ".align", the usage check */
    int myargc = gather_startup_arguments(argc, argv, arguments, myargv);

    /* 4 and 5: the defaults, then the options */
    scan_startup_options(argc, argv, myargc, myargv, &opts);

    /* 6 onwards: the volumes (the individual first), preparation, display, batch or loop */
    return run_startup_steps(opts.number_panels, opts.batch_mode, opts.ovl_name, opts.wire_name);
}
