/* The numbers of the graph window: profiles, time course, histogram, region statistics, axis
   ranges and the pixel <-> point mapping. Reads mosaic, overlay_map, ovl_root and the grey
   window; writes graph's vectors and ranges. No X11. */
#include "graph_data.h"

#include <cmath>
#include <cstdlib>

#include "globals.h"
#include "numerics.h"
#include "volume.h"

int graph_npoints(int type)
{
    data_stack *s = mosaic.stack;
    if (s == NULL) return 0;
    switch (type) {
    case 0: return s->dim.x;
    case 1: return s->dim.y;
    case 2: return s->dim.z;
    case 3: return s->nt;
    case 4: return GRAPH_HISTOGRAM_BINS;
    default: return 0;
    }
}

/* The vectors hold npoints entries; they are made again only when the count changes. */
static void size_graph_vectors(int n)
{
    static int allocated = 0;
    if (n == allocated && graph.xVector != NULL) return;
    if (graph.xVector != NULL) free_float_vector(graph.xVector);
    if (graph.yVector != NULL) free_float_vector(graph.yVector);
    if (graph.yVector1 != NULL) free_float_vector(graph.yVector1);
    graph.xVector = float_vector(n);
    graph.yVector = float_vector(n);
    graph.yVector1 = float_vector(n);
    allocated = n;
}

static int region_exists(void) { return ovl_root.npts > 0 && overlay_map.weight != NULL; }

/* Running sums of one point: count, sum and sum of squares in double. */
struct point_sums {
    int n;
    double sum, sum2;
};

static void add_value(point_sums *p, float v)
{
    p->n += 1;
    p->sum += (double)v;
    p->sum2 += (double)v * (double)v;
}

/* Mean and standard deviation (n - 1) of one point into yVector[i], yVector1[i]. */
static void store_point(int i, const point_sums *p)
{
    if (p->n == 0) {
        graph.yVector[i] = 0.0f;
        graph.yVector1[i] = 0.0f;
        return;
    }
    double mean = p->sum / p->n;
    double var = p->n > 1 ? (p->sum2 - p->sum * mean) / (p->n - 1) : 0.0;
    graph.yVector[i] = (float)mean;
    graph.yVector1[i] = (float)(var > 0.0 ? sqrt(var) : 0.0);
}

static int axis_coordinate(IPOINT3D v, int axis) { return axis == 0 ? v.x : (axis == 1 ? v.y : v.z); }

/* Adds the region's voxels of time point t: each to the point of its coordinate along axis, or
   all to sums[0] when axis is negative. */
static void add_region_values(point_sums *sums, int axis, int t)
{
    data_stack *s = mosaic.stack;
    IPOINT3D v;
    for (v.z = 0; v.z < s->dim.z; v.z++)
        for (v.y = 0; v.y < s->dim.y; v.y++)
            for (v.x = 0; v.x < s->dim.x; v.x++)
                if (overlay_map.weight[voxel3D_to_1D(v)] > 0.0f)
                    add_value(&sums[axis < 0 ? 0 : axis_coordinate(v, axis)], stack_data_4d(v.x, v.y, v.z, t));
}

static void fill_profile(IPOINT3D at, int axis, int n)
{
    point_sums *sums = (point_sums *)calloc((size_t)n, sizeof(point_sums));
    if (sums == NULL) alloc_error("allocation failure in fill_graph_values()");
    if (region_exists()) {
        add_region_values(sums, axis, mosaic.iTime);
    } else {
        for (int i = 0; i < n; i++) {
            IPOINT3D v = at;
            if (axis == 0) v.x = i;
            else if (axis == 1) v.y = i;
            else v.z = i;
            add_value(&sums[i], stack_data_4d(v.x, v.y, v.z, mosaic.iTime));
        }
    }
    for (int i = 0; i < n; i++) {
        store_point(i, &sums[i]);
        graph.xVector[i] = (float)i;
    }
    free(sums);
}

static void fill_time_course(IPOINT3D at, int n)
{
    for (int t = 0; t < n; t++) {
        point_sums p = {0, 0.0, 0.0};
        if (region_exists()) {
            add_region_values(&p, -1, t);
        } else {
            add_value(&p, stack_data_4d(at.x, at.y, at.z, t));
        }
        store_point(t, &p);
        graph.xVector[t] = (float)t;
    }
}

/* Bin of a value in the grey window lo..hi; -1 outside. The top end falls into the last bin. */
static int histogram_bin(float v, float lo, float hi)
{
    if (!(v >= lo && v <= hi)) return -1;
    if (!(hi > lo)) return 0;
    int b = (int)(((double)v - (double)lo) * GRAPH_HISTOGRAM_BINS / ((double)hi - (double)lo));
    return b < GRAPH_HISTOGRAM_BINS ? b : GRAPH_HISTOGRAM_BINS - 1;
}

static void fill_histogram(void)
{
    float lo = image_scale_min, hi = image_scale_max;
    double width = ((double)hi - (double)lo) / GRAPH_HISTOGRAM_BINS;
    for (int b = 0; b < GRAPH_HISTOGRAM_BINS; b++) {
        graph.xVector[b] = (float)((double)lo + (b + 0.5) * width);
        graph.yVector[b] = 0.0f;
        graph.yVector1[b] = 0.0f;
    }
    int restrict_to_region = region_exists();
    for (int i = 0; i < mosaic.stack->n3d; i++) {
        if (restrict_to_region && !(overlay_map.weight[i] > 0.0f)) continue;
        int b = histogram_bin(mosaic_data_1d(i), lo, hi);
        if (b >= 0) graph.yVector[b] += 1.0f;
    }
    graph.xmin = lo;
    graph.xmax = hi;
}

void fill_graph_values(IPOINT3D at)
{
    data_stack *s = mosaic.stack;
    int n = graph_npoints(graph.type);
    graph.npoints = 0;
    if (n <= 0 || mosaic.fSpaceMatrix == NULL) return;
    if (at.x < 0 || at.x >= s->dim.x || at.y < 0 || at.y >= s->dim.y || at.z < 0 || at.z >= s->dim.z) return;
    size_graph_vectors(n);
    if (graph.type <= 2) fill_profile(at, graph.type, n);
    else if (graph.type == 3) fill_time_course(at, n);
    else fill_histogram();
    if (graph.type <= 3) {
        graph.xmin = -0.5f;
        graph.xmax = (float)n - 0.5f;
    }
    graph.npoints = n;
}

int graph_current_point(void)
{
    switch (graph.type) {
    case 0: return mosaic.icross.x;
    case 1: return mosaic.icross.y;
    case 2: return mosaic.icross.z;
    case 3: return mosaic.iTime;
    case 4: {
        data_stack *s = mosaic.stack;
        IPOINT3D c = mosaic.icross;
        if (s == NULL || c.x < 0 || c.x >= s->dim.x || c.y < 0 || c.y >= s->dim.y || c.z < 0 || c.z >= s->dim.z)
            return -1;
        return histogram_bin(mosaic_data_3d(c), image_scale_min, image_scale_max);
    }
    default: return -1;
    }
}

void graph_data_range(float *lo, float *hi)
{
    if (graph.npoints <= 0) {
        *lo = 0.0f;
        *hi = 1.0f;
        return;
    }
    float a = graph.yVector[0] - graph.yVector1[0], b = graph.yVector[0] + graph.yVector1[0];
    for (int i = 1; i < graph.npoints; i++) {
        float l = graph.yVector[i] - graph.yVector1[i], h = graph.yVector[i] + graph.yVector1[i];
        if (l < a) a = l;
        if (h > b) b = h;
    }
    if (graph.type == 4) {
        /* The background fills the bin of value 0 and would flatten the rest against the axis:
           the scale follows the largest other bin while any other bin has counts. */
        a = 0.0f;
        int background = histogram_bin(0.0f, graph.xmin, graph.xmax);
        float others = 0.0f;
        for (int i = 0; i < graph.npoints; i++)
            if (i != background && graph.yVector[i] > others) others = graph.yVector[i];
        if (others > 0.0f) b = others;
    }
    *lo = a;
    *hi = b;
}

void graph_axis_range(float lo, float hi, int nticks, float *amin, float *amax, float *step)
{
    double l = lo, h = hi;
    if (h < l) {
        double t = l;
        l = h;
        h = t;
    }
    if (h == l) {
        double w = fabs(l) / 10.0 > 1.0 ? fabs(l) / 10.0 : 1.0;
        l -= w;
        h += w;
    }
    double rough = (h - l) / (nticks > 0 ? nticks : 1);
    double power = pow(10.0, floor(log10(rough)));
    double r = rough / power;
    double nice = r < 1.5 ? 1.0 : (r < 3.0 ? 2.0 : (r < 7.0 ? 5.0 : 10.0));
    double s = nice * power;
    *step = (float)s;
    *amin = (float)(floor(l / s + 1e-9) * s);
    *amax = (float)(ceil(h / s - 1e-9) * s);
}

int graph_ticks(float amin, float amax, float step, float *ticks, int max_ticks)
{
    int n = 0;
    if (!(step > 0.0f)) return 0;
    for (int k = 0; n < max_ticks; k++) {
        double v = (double)amin + k * (double)step;
        if (v > (double)amax + 1e-3 * (double)step) break;
        ticks[n++] = (float)v;
    }
    return n;
}

void graph_zoom_range(int up, float v, float *ymin, float *ymax)
{
    float f = up ? 0.8f : 1.25f;
    *ymin = v + (*ymin - v) * f;
    *ymax = v + (*ymax - v) * f;
}

int graph_index_of_pixel(int x, int nwidth, int npoints)
{
    if (npoints <= 0 || nwidth <= 0) return 0;
    int i = x > 0 ? (int)((float)x / ((float)nwidth / (float)npoints)) : 0;
    return i < npoints ? i : npoints - 1;
}

float graph_value_of_pixel(int y, int nheight, float ymin, float ymax)
{
    int yy = y - GRAPH_TOP_BAND;
    if (yy > nheight - 1) yy = nheight - 1;
    if (yy < 0) yy = 0;
    return ymax - (float)yy / ((float)nheight / (ymax - ymin));
}

int graph_x_of_value(float u, int nwidth, float xmin, float xmax)
{
    if (!(xmax > xmin)) return nwidth / 2;
    return (int)floor(((double)u - (double)xmin) * nwidth / ((double)xmax - (double)xmin));
}

int graph_y_of_value(float v, int nheight, float ymin, float ymax)
{
    if (!(ymax > ymin)) return GRAPH_TOP_BAND + nheight / 2;
    double d = floor(((double)ymax - (double)v) * nheight / ((double)ymax - (double)ymin));
    if (d < 0.0) d = 0.0;
    if (d > nheight - 1) d = nheight - 1;
    return GRAPH_TOP_BAND + (int)d;
}
