/* The graph record while the graph window is not built: the record at rest and the graph
   redraw requests, which have nothing to draw. Writes graph. No X11 calls. */
#include "globals.h"
#include "x11_display.h"

void initialize_graph(void)
{
    /* No graph window: type -1, so that clicks in the image move the crosshair. */
    graph.type = -1;
    graph.nwidth = 0;
    graph.nheight = 0;
    graph.npoints = 0;
    graph.yrange_fixed = 0;
    graph.cursor_selection = 0;
    graph.text_selection = 0;
}

/* Without a graph window there is no plot to refresh. */
void update_graph_data_x11(int a, int b) { (void)a; (void)b; }
void build_graph_display_x11(int a) { (void)a; }
void fill_graph_vector_x11(int a) { (void)a; }
