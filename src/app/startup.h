#pragma once
/* The start-up steps that follow the command line: reading the volumes, preparing them,
   opening the display, the side files, and then batch mode or the event loop. */

/* Runs the start-up from reading the individual's volume onwards. Returns the process's exit
   status when it ends (batch mode 0, failures 1); the interactive loop does not return. */
int run_startup_steps(int number_panels, int batch_mode, char *ovl_name, char *wire_name);
