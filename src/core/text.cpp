/* Line readers, the option scanner my_getopt, the start-up file ".align", the start-up and
   interactive help texts and the menu-driven help browser. Reads QOR_HOME and program_name;
   the option application writes mosaic, Alignment.WrapAround and the file lists. No X11. */
#include "text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "globals.h"
#include "numerics.h"
#include "volume_load.h"

char *get_line(FILE *fp, char *buffer, int size)
{
    (void)size; /* Deliberate: callers always pass 1024-character buffers. */
    return fgets(buffer, 1024, fp);
}

char *get_line_with_comment(FILE *fp, char *buffer, int size)
{
    if (get_line(fp, buffer, size) == NULL) return NULL;
    char *hash = strchr(buffer, '#');
    if (hash != NULL) *hash = '\0';
    return buffer;
}

/* The scanner's position: the words are scanned once per process (see restart_my_getopt). */
static int position = 1;

void restart_my_getopt(void) { position = 1; }

int my_getopt(int argc, char **argv, const char *options, int *which_arg)
{

    if (position >= argc) return 0;
    const char *word = argv[position];
    if (word[0] != '-') {
        *which_arg = position;
        position++;
        return 'i';
    }
    char letter = word[1]; /* only the second character counts; "-tabc" is "-t" */
    const char *found = NULL;
    for (const char *o = options; *o != '\0'; o++)
        if (*o == letter) { found = o; break; }
    if (found == NULL) {
        *which_arg = position;
        return -1;
    }
    if (found[1] == ':') position++; /* the argument is the next word */
    *which_arg = position > argc ? argc : position;
    position++;
    return letter;
}

void read_program_init_file(const char *init_file_name, char arguments[][1024], int *myargc)
{
    FILE *fp = fopen(init_file_name, "r");
    if (fp == NULL) return;
    char line[1024];
    if (get_line(fp, line, sizeof line) == NULL) {
        fclose(fp);
        return;
    }
    /* The line is a whole command line: its first word, at the very start, names the program. */
    char *p = line;
    while (*p != '\0' && *p != ' ' && *p != '\t' && *p != '\n' && *p != '\r') p++;
    char word[1024];
    int used;
    while (*myargc < 100 && sscanf(p, "%1023s%n", word, &used) == 1) {
        snprintf(arguments[*myargc], 1024, "%s", word);
        (*myargc)++;
        p += used;
    }
    fclose(fp);
}

/* $QOR_HOME/documentation/<name> into path; 1 when QOR_HOME is not set. */
static int help_path(char *path, size_t size, const char *name)
{
    const char *home = getenv("QOR_HOME");
    if (home == NULL) return 1;
    if (snprintf(path, size, "%s/documentation/%s", home, name) >= (int)size)
        path[size - 1] = '\0'; /* a longer path is cut and then fails to open */
    return 0;
}

void action_help(int which, int variant)
{
    char name[1024], path[1024], line[1024];
    const char *suffix = which == 0 ? "-startup.txt"
                       : variant == 1 ? "-interactive-help1.txt" : "-interactive-help2.txt";
    if (snprintf(name, sizeof name, "%s%s", program_name, suffix) >= (int)sizeof name)
        name[sizeof name - 1] = '\0'; /* cut like every 1024-character text */
    if (help_path(path, sizeof path, name) != 0) {
        printf("For help, quit and define the environment variable QOR_HOME, and then re-start.\n");
        return;
    }
    FILE *fp = fopen(path, "r");
    if (fp == NULL) {
        printf("Error: cannot open the file %s.\n", path);
        printf("The environment variable QOR_HOME is set to %s\n", getenv("QOR_HOME"));
        printf("If this is incorrect, quit, define this environment variable, and re-start.\n");
        return;
    }
    printf("\n");
    while (get_line_with_comment(fp, line, sizeof line) != NULL) printf("%s", line);
    fclose(fp);
    fflush(stdout);
}

/* The main menu file of the browser, remembered by the first (unchained) call. */
static char main_menu_file[1024];

/* The tables of one open menu file. An entry is one "!menu item" header and its text. */
struct help_tables {
    int nentries;
    int *menu;        /* menu number of each entry */
    int *item;        /* item number of each entry */
    int *start_line;  /* line number at which the entry's text starts */
    int *nlines;      /* number of text lines of the entry */
    int nmenus;       /* last header's menu number + 1 */
    int ntable;       /* size of items_per_menu */
    int *items_per_menu;
};

static void free_help_tables(help_tables *t)
{
    free_int_vector(t->menu);
    free_int_vector(t->item);
    free_int_vector(t->start_line);
    free_int_vector(t->nlines);
    free_int_vector(t->items_per_menu);
}

/* Reads the headers of an open menu file into t. Returns 1 after the order warning. */
static int read_help_tables(FILE *fp, const char *path, help_tables *t)
{
    char line[1024];

    /* first pass: count the headers */
    t->nentries = 0;
    rewind(fp);
    while (get_line(fp, line, sizeof line) != NULL)
        if (line[0] == '!') t->nentries++;
    t->menu = int_vector(t->nentries);
    t->item = int_vector(t->nentries);
    t->start_line = int_vector(t->nentries);
    t->nlines = int_vector(t->nentries);
    t->items_per_menu = NULL;

    /* second pass: their pairs, in a running order (m, i) that starts at (0, 0) */
    rewind(fp);
    int n = 0, m = 0, i = 0, largest_item = 0, largest_menu = 0;
    while (n < t->nentries && get_line(fp, line, sizeof line) != NULL) {
        if (line[0] != '!') continue;
        int a = 0, b = 0;
        sscanf(line + 1, "%d %d", &a, &b);
        if (a != m && a != m + 1 && b != i + 1 && b != i) {
            printf("Warning: menu entry %d in file %s is %d %d,\n", n, path, a, b);
            printf("but it should be either %d %d or %d %d,\n", m, i + 1, m + 1, i);
            t->items_per_menu = int_vector(0);
            return 1;
        }
        if (a == m + 1) { m = m + 1; i = 0; }
        else if (b == i + 1) i = i + 1;
        if (b > largest_item) largest_item = b;
        if (a > largest_menu) largest_menu = a;
        t->menu[n] = a;
        t->item[n] = b;
        n++;
    }

    /* third pass: where each entry's text starts and how many lines it has */
    rewind(fp);
    int line_number = 0, current = -1;
    while (get_line(fp, line, sizeof line) != NULL) {
        line_number++;
        if (line[0] == '!') {
            current++;
            t->start_line[current] = line_number + 1;
            t->nlines[current] = 0;
        } else if (current >= 0) {
            t->nlines[current]++;
        }
    }
    t->nmenus = t->nentries > 0 ? t->menu[t->nentries - 1] + 1 : 0;
    if (t->nmenus < 0) t->nmenus = 0;
    t->ntable = largest_menu + 1 > t->nmenus ? largest_menu + 1 : t->nmenus;
    t->items_per_menu = int_vector(t->ntable);
    for (int k = 0; k < t->ntable; k++) t->items_per_menu[k] = 0;
    for (int k = 0; k < t->nentries; k++)
        if (t->menu[k] >= 0 && t->item[k] > t->items_per_menu[t->menu[k]])
            t->items_per_menu[t->menu[k]] = t->item[k];
    (void)largest_item;
    return 0;
}

static int items_of_menu(const help_tables *t, int menu)
{
    if (menu < 0 || menu >= t->nmenus) return 0;
    return t->items_per_menu[menu];
}

/* Prints the text of entry (menu, item). Inside a menu other than the main menu a line that
   starts with '>' ends the listing and its word names a chained menu file, copied to chain. */
static int print_help_entry(FILE *fp, const help_tables *t, int menu, int item, char *chain)
{
    char line[1024];
    int entry = -1;
    for (int k = 0; k < t->nentries; k++)
        if (t->menu[k] == menu && t->item[k] == item) { entry = k; break; }
    if (entry < 0) return 0;
    rewind(fp);
    int line_number = 0;
    while (line_number < t->start_line[entry] - 1 && get_line(fp, line, sizeof line) != NULL)
        line_number++;
    for (int k = 0; k < t->nlines[entry]; k++) {
        if (get_line(fp, line, sizeof line) == NULL) break;
        if (menu != 0 && line[0] == '>' && sscanf(line + 1, "%1023s", chain) == 1) return 1;
        printf("%s", line);
    }
    return 0;
}

int help_menu(int chained, const char *file)
{
    char path[1024], answer[1024], chain[1024];
    if (help_path(path, sizeof path, file) != 0) {
        printf("For help, quit and define the environment variable QOR_HOME, and then re-start.\n");
        return 1;
    }
    FILE *fp = fopen(path, "r");
    if (fp == NULL) {
        printf("Error: cannot open the file %s.\n", path);
        printf("The environment variable QOR_HOME is set to %s\n", getenv("QOR_HOME"));
        printf("If this is incorrect, quit, define this environment variable, and re-start.\n");
        return 1;
    }
    if (chained == 0 && file != main_menu_file) snprintf(main_menu_file, sizeof main_menu_file, "%s", file);
    printf("Help from file %s\n", path);

    help_tables t;
    if (read_help_tables(fp, path, &t) != 0) {
        free_help_tables(&t);
        fclose(fp);
        return 1;
    }

    int menu = 0, item = 0;
    for (;;) {
        if (print_help_entry(fp, &t, menu, item, chain)) {
            fclose(fp);
            free_help_tables(&t);
            help_menu(1, chain);
            if (main_menu_file[0] == '\0') return 0;
            char again[1024];
            snprintf(again, sizeof again, "%s", main_menu_file);
            return help_menu(0, again);
        }
        printf("----------------------------------------------\n");
        printf("--- choose item: 0 = main menu, return = back \n");
        printf("----------------------------------------------\n");
        printf(menu == 0 ? "help > " : "help >> ");
        fflush(stdout);
        if (fgets(answer, sizeof answer, stdin) == NULL) answer[0] = '\0';

        int n;
        if (sscanf(answer, "%d", &n) == 1) {
            if (n == 0) {
                menu = 0;
                item = 0;
            } else if (menu == 0) {
                /* a menu without items shows the main menu */
                if (items_of_menu(&t, n) > 0) { menu = n; item = 0; }
            } else if (n < 0 || n > items_of_menu(&t, menu)) {
                printf("Bad option. Choose '0', 'b', 'q', or a number from 1 to %d\n",
                       items_of_menu(&t, menu));
            } else {
                item = n;
            }
            continue;
        }
        /* Deliberate: any other answer is "b" inside a menu and "q" at the main menu, so q
           inside a menu only goes back one level. Pinned by HelpMenu.QInsideAMenuGoesBack. */
        if (menu != 0) {
            if (item != 0) item = 0;
            else menu = 0;
            continue;
        }
        fclose(fp);
        free_help_tables(&t);
        return 0;
    }
}

int apply_startup_option(int option, const char *arg, startup_options *opts)
{
    switch (option) {
    case 'i': case 'I':
        add_image_file(&individual_files, arg, 0, 0);
        break;
    case 't': case 'T':
        add_image_file(&template_files, arg, 0, 0);
        break;
    case 'o': case 'O':
        snprintf(opts->ovl_name, sizeof opts->ovl_name, "%s", arg);
        break;
    case 'w':
        snprintf(opts->wire_name, sizeof opts->wire_name, "%s", arg);
        break;
    case 'W':
        sscanf(arg, "%d", &opts->iWrap);
        Alignment.WrapAround.x = opts->iWrap / 100;
        Alignment.WrapAround.y = (opts->iWrap % 100) / 10;
        Alignment.WrapAround.z = (opts->iWrap % 100) - 10 * Alignment.WrapAround.y;
        printf("Wrapping in (x,y,z) = (%d,%d,%d)\n", Alignment.WrapAround.x, Alignment.WrapAround.y,
               Alignment.WrapAround.z);
        break;
    case 'm': case 'M':
        sscanf(arg, "%d", &opts->number_panels);
        break;
    case 'z': case 'Z':
        sscanf(arg, "%d", &mosaic.zoom);
        if (mosaic.zoom < 1 || mosaic.zoom > 10) mosaic.zoom = 0;
        break;
    case '3':
        mosaic.display_3orthogonal = 1;
        break;
    case 'a': case 'A':
        opts->batch_mode = 1;
        break;
    case 'y':
        mosaic.flip_X11_y = !mosaic.flip_X11_y;
        break;
    case 'Y':
        mosaic.display_ortho_ZY = !mosaic.display_ortho_ZY;
        break;
    default:
        return 1;
    }
    return 0;
}

void scan_startup_options(int argc, char **argv, int myargc, char **myargv, startup_options *opts)
{
    int which_arg = 0, option;

    /* 4: defaults */
    opts->ovl_name[0] = '\0';
    opts->wire_name[0] = '\0';
    opts->number_panels = 0;
    opts->batch_mode = 0;
    opts->iWrap = 0;
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
            fflush(stdout);
            exit(1);
        case 'h':
            action_help(0, 1);
            exit(0);
        case 'H':
            help_menu(0, "align-menu.txt");
            exit(0);
        default:
            if (apply_startup_option(option, myargv[which_arg], opts) != 0) {
                /* Deliberate: the character printed is the word's first, the hyphen, so the
                   text reads "-- not yet programmed". Pinned by the driver_option_one test. */
                printf("Valid option -%c not yet programmed.\n", myargv[which_arg][0]);
                printf("Program exiting.\n");
                fflush(stdout);
                exit(1);
            }
            break;
        }
    }
}

int gather_startup_arguments(int argc, char **argv, char arguments[100][1024], char *myargv[101])
{
    static char no_word[1] = "";

    /* 1: the program's name and the argument table */
    snprintf(program_name, sizeof program_name, "%s", "align");
    for (int i = 0; i < argc && i < 100; i++) snprintf(arguments[i], 1024, "%s", argv[i]);
    for (int i = 0; i < 100; i++) myargv[i] = arguments[i];
    myargv[100] = no_word;
    /* Words beyond the hundredth are not copied; the scan stops at the table's end. */
    int myargc = argc > 100 ? 100 : argc;

    /* 2: a bare command line (or a lone flip toggle) takes its words from ".align" */
    if (argc == 1 || (argc == 2 && (strcmp(argv[1], "-y") == 0 || strcmp(argv[1], "-Y") == 0)))
        read_program_init_file(".align", arguments, &myargc);

    /* 3 */
    if (myargc < 2) {
        printf("Error: this program should be invoked as\n");
        printf("  align <individual file> -t <template file> [optional arguments]\n\n");
        action_help(0, 1);
        fflush(stdout);
        exit(1);
    }
    return myargc;
}
