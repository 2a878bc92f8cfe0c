/* Modal text input on the information line and the quit dialog. Reads X11 events itself and
   drops every event that is not a key press. Xlib. */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "display_hooks.h"
#include "graph.h"
#include "interaction.h"
#include "persist.h"
#include "x11_display.h"
#include "x11_events.h"

/* where: 0 the image window's information line, 1 the graph's, 2 both. */
static void show_prompt(int where, const char *prompt, const char *hint, const char *result)
{
    char line[2100];
    snprintf(line, sizeof line, "%s >%s", prompt, result);
    if (where != 1) show_on_info_line(line, hint, "");
    if (where != 0) show_on_graph_info_line(line, hint);
}

int get_X11_string(int where, const char *prompt, const char *hint, const char *deflt, int mode, int multi,
                   char *result)
{
    if (where == 1 && XWindow_graph == 0) where = 0; /* no graph window: the image line serves */
    snprintf(result, 1024, "%s", deflt);
    show_prompt(where, prompt, hint, result);
    for (;;) {
        XEvent event;
        get_next_event(&event);
        if (event.type != KeyPress) continue;
        char key = 0;
        if (!get_key_press(&event.xkey, &key)) continue;
        int state = prompt_edit(result, (unsigned char)key, mode, multi);
        if (state < 0) return 0;
        show_prompt(where, prompt, hint, result);
        if (state > 0) break;
    }
    if (strcmp(result, " ") == 0) snprintf(result, 1024, "%s", deflt);
    return 1;
}

int action_quit_specific(void) { return save_alignment_parameters(); }

/* A quit whose save fails does not end the session, so that the alignment in memory is not
   lost: the save has printed why, and the user can make room and quit again. */
void action_quit(void)
{
    char answer[1024];
    if (get_X11_string(2, "Really quit?", "(y,Y,other)", "", 0, 0, answer) == 1 &&
        (strcmp(answer, "y") == 0 || strcmp(answer, "Y") == 0)) {
        if (action_quit_specific() == 0) exit(0);
        show_on_info_line("The alignment could not be saved (see the terminal):", "continuing...", "");
        return;
    }
    show_on_info_line("continuing...", "", "");
}
