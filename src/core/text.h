#pragma once
/* Line readers, the option scanner, the start-up file ".align", the start-up help and the
   menu-driven help browser. Reads QOR_HOME and program_name. No X11. */

#include <cstdio>

/* One line of at most 1023 characters, newline kept; NULL at end of file.
   Deliberate: always reads at most 1024 bytes whatever size says (callers pass 1024-character
   buffers). Pinned by GetLine.ReadsUpTo1023CharactersWhateverSizeSays. */
char *get_line(FILE *fp, char *buffer, int size);
/* The same, then the line ends at its first '#' (a trailing comment takes the newline too). */
char *get_line_with_comment(FILE *fp, char *buffer, int size);

/* Returns the option letter, 0 at the end, -1 for an unknown option (position not advanced).
   A word without a leading '-' is an implicit 'i' whose argument is the word itself; only the
   second character of an option word counts. which_arg: the argument's position (never past
   argc), or the option word's own for options without argument. The position is a static that
   starts at 1 and is never reset: the words are scanned once per process. */
int my_getopt(int argc, char **argv, const char *options, int *which_arg);
/* Sets the scanner back to the first word. align never calls it; programs that scan several
   argument tables in one process (the fuzz targets) do. */
void restart_my_getopt(void);
/* Appends the words of the first line of the start-up file (its first word, the program's
   name, skipped) to arguments, at most up to 100 entries. A missing file does nothing. */
void read_program_init_file(const char *init_file_name, char arguments[][1024], int *myargc);

/* Prints $QOR_HOME/documentation/ + program_name + "-startup.txt" (which 0),
   "-interactive-help1.txt" (variant 1) or "-interactive-help2.txt" to standard output after an
   empty line, without comments. An unset QOR_HOME or a missing file only prints a message. */
void action_help(int which, int variant);
/* Interactive help browser on standard input over a menu file in $QOR_HOME/documentation
   ("!menu item" headers, each followed by its text; a '>' line inside a menu chains to another
   menu file). Returns 0 after a quit, 1 after an error (no QOR_HOME, no file, headers out of
   order), each with its message. */
int help_menu(int chained, const char *file);

/* What the command-line options carry to the start-up steps besides the global records. */
struct startup_options {
    char ovl_name[1024];  /* overlay list file, "" when none */
    char wire_name[1024]; /* wire-frame list file, "" when none */
    int number_panels;    /* 0: the display chooses */
    int batch_mode;
    int iWrap;            /* the digits of -W */
};
/* Applies one option letter from my_getopt with its argument word: the file lists, mosaic.zoom,
   mosaic.flip_X11_y / display_ortho_ZY / display_3orthogonal, Alignment.WrapAround (prints
   "Wrapping in (x,y,z) = ..."), and the fields of opts. Returns 1 for a letter that has no
   action here (-h, -H, -1 and unknown letters are the caller's), else 0. */
int apply_startup_option(int option, const char *arg, startup_options *opts);
/* Start-up steps 1 to 3 of align: program_name = "align"; the first 100 command-line words
   into arguments and myargv (myargv[100] points at an empty word, the argument of an option
   that ends the table); the words of ".align" appended when the command line is bare or a lone
   -y or -Y. Returns the number of words; with fewer than 2 it prints the usage lines and the
   start-up help and ends the process with status 1. */
int gather_startup_arguments(int argc, char **argv, char arguments[100][1024], char *myargv[101]);
/* Start-up steps 4 and 5 of align: sets the defaults (opts, mosaic's zoom, flips and panel
   flags, Alignment.WrapAround, template_unfiltered.nt and .registration), then applies every
   option of myargv[0..myargc) in turn. Ends the process: -h (start-up help) and -H (help
   browser) with status 0; an unknown option, "Option %s not valid." (the word from argv when
   it lies among the argc command-line words, else from the table), and an option without an
   action, "Valid option -%c not yet programmed.", each then "Program exiting." and status 1. */
void scan_startup_options(int argc, char **argv, int myargc, char **myargv, startup_options *opts);
