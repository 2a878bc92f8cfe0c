/* The keysym table of the image window: navigation keys become control codes, so that the
   control letters typed on the keyboard act as the arrows. Xlib keysyms only. */
#include <X11/keysym.h>

#include "x11_display.h"
#include "x11_events.h"

/* Deliberate: Left 12, Right 11, Up 21, Down 4 are control-L, -K, -U, -D, which therefore act
   as the arrows (KeysymToCode.NavigationKeysBecomeControlCodes). */
int keysym_to_code(unsigned long keysym)
{
    switch (keysym) {
    case XK_Home:
    case XK_End: return 13;
    case XK_Left: return 12;
    case XK_Up: return 21;
    case XK_Right: return 11;
    case XK_Down: return 4;
    case XK_Prior: return '+';
    case XK_Next: return '-';
    case XK_Help: return 'h';
    default: return 0;
    }
}


int get_key_press(XKeyEvent *event, char *key)
{
    int code = keysym_to_code(XLookupKeysym(event, 0));
    if (code == 0) {
        char buffer[32] = {0};
        KeySym keysym;
        if (XLookupString(event, buffer, sizeof buffer, &keysym, NULL) > 0) code = (unsigned char)buffer[0];
    }
    *key = (char)code;
    return code >= 1 && code <= 127;
}
