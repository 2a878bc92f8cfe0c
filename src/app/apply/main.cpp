/* align-apply: applies an alignment saved by align (align.com and its distortion maps) to an
   image, from the individual's grid to the template's or back. Parses the options, starts a
   session without a display (the template and the individual's grid), recalls the alignment and
   hands over to the core. Core only; no X11. */
#include <csignal>
#include <cstdio>

#include "apply_images.h"
#include "apply_options.h"
#include "persist.h"
#include "session.h"

int main(int argc, char **argv)
{
    /* every message line reaches a log file or a pipe as it is printed */
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);

    apply_command command;
    if (parse_apply_command(argc, argv, &command) != 0) return 1;
    if (command.help) {
        print_apply_help();
        return 0;
    }
    /* a file-size limit then fails a write (reported, nothing lost) instead of killing us */
    signal(SIGXFSZ, SIG_IGN);

    /* The individual's grid: the file named by --individual, else the input itself (forward).
       Only its first volume is read here; the input is read whole later. */
    const char *individual = command.individual_name[0] != '\0' ? command.individual_name : command.input_name;
    if (start_session(individual, command.template_name, 3) != 0) return 1;
    if (recall_alignment_parameters_from(command.alignment_name) != 0) return 1;

    apply_request request;
    request.inverse = command.inverse;
    request.kernel = command.kernel;
    request.template_name = command.template_name;
    request.individual_name = individual;
    request.input_name = command.input_name;
    request.output_name = command.output_name;
    request.jacobian_name = command.jacobian_name[0] != '\0' ? command.jacobian_name : NULL;
    request.field_name = command.field_name[0] != '\0' ? command.field_name : NULL;
    if (apply_alignment(&request) != 0) return 1;
    printf("Wrote %s\n", command.output_name);
    return 0;
}
