/* Test tool: sends a window the close request a window manager would send (a ClientMessage
   WM_PROTOCOLS carrying WM_DELETE_WINDOW). No window manager runs under Xvfb.
   usage: send_wm_delete <window id, decimal or 0x hex>. Xlib. */
#include <X11/Xlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: send_wm_delete <window id>\n");
        return 2;
    }
    Display *d = XOpenDisplay(NULL);
    if (d == NULL) {
        fprintf(stderr, "send_wm_delete: no display\n");
        return 1;
    }
    XEvent e;
    memset(&e, 0, sizeof e);
    e.xclient.type = ClientMessage;
    e.xclient.window = (Window)strtoul(argv[1], NULL, 0);
    e.xclient.message_type = XInternAtom(d, "WM_PROTOCOLS", False);
    e.xclient.format = 32;
    e.xclient.data.l[0] = (long)XInternAtom(d, "WM_DELETE_WINDOW", False);
    e.xclient.data.l[1] = CurrentTime;
    int ok = XSendEvent(d, e.xclient.window, False, NoEventMask, &e);
    XSync(d, False);
    XCloseDisplay(d);
    return ok ? 0 : 1;
}
