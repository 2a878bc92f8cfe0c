// Time of one control-panel step of align, key to redrawn image, seen from another X client.
// usage: panel_step <window id> <panel x> <panel y> <probe x> <probe y> <steps> [key]
// The pointer is put over the panel (window coordinates), then for each step the key (Right
// by default) is sent to the window and the 32 x 32 pixels around the probe point (a point of
// the image area that the step changes) are read back until they differ: the image area
// reaches the window in one copy, so that moment is the end of the redraw. Prints one line per
// step and the median in milliseconds.
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/keysym.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

double now_ms()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A checksum of the probe block.
unsigned long long probe(Display *d, Window w, int x, int y)
{
    XImage *im = XGetImage(d, w, x - 16, y - 16, 32, 32, AllPlanes, ZPixmap);
    if (im == NULL) return 0;
    unsigned long long h = 1469598103934665603ull;
    for (int j = 0; j < 32; j++)
        for (int i = 0; i < 32; i++) h = (h ^ XGetPixel(im, i, j)) * 1099511628211ull;
    XDestroyImage(im);
    return h;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 7) {
        fprintf(stderr, "usage: panel_step <window id> <panel x> <panel y> <probe x> <probe y> <steps> [key]\n");
        return 2;
    }
    Window w = (Window)strtoul(argv[1], NULL, 0);
    int px = atoi(argv[2]), py = atoi(argv[3]), qx = atoi(argv[4]), qy = atoi(argv[5]), steps = atoi(argv[6]);
    KeySym sym = XStringToKeysym(argc > 7 ? argv[7] : "Right");
    Display *d = XOpenDisplay(NULL);
    if (d == NULL) {
        fprintf(stderr, "panel_step: no display\n");
        return 1;
    }
    XWarpPointer(d, None, w, 0, 0, 0, 0, px, py);
    XSync(d, False);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));

    Window root = DefaultRootWindow(d);
    std::vector<double> times;
    for (int s = 0; s < steps; s++) {
        unsigned long long before = probe(d, w, qx, qy);
        XKeyEvent e;
        memset(&e, 0, sizeof e);
        e.type = KeyPress;
        e.display = d;
        e.window = w;
        e.root = root;
        e.subwindow = None;
        e.time = CurrentTime;
        e.x = px;
        e.y = py;
        e.same_screen = True;
        e.keycode = XKeysymToKeycode(d, sym);
        double t0 = now_ms();
        XSendEvent(d, w, True, KeyPressMask, (XEvent *)&e);
        XFlush(d);
        double t1 = t0;
        while (probe(d, w, qx, qy) == before) {
            t1 = now_ms();
            if (t1 - t0 > 10000) break;
        }
        t1 = now_ms();
        times.push_back(t1 - t0);
        printf("step %d: %.1f ms\n", s + 1, t1 - t0);
        fflush(stdout);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
    }
    std::vector<double> sorted = times;
    std::sort(sorted.begin(), sorted.end());
    printf("median %.1f ms, fastest %.1f ms over %d steps\n", sorted[sorted.size() / 2], sorted[0], steps);
    XCloseDisplay(d);
    return 0;
}
