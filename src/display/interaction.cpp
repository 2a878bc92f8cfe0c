/* Window rules without X11: contrast, re-flow, slice windows and the displayed time point.
   Reads and writes mosaic, contrast_low, contrast_high, iTime_Template, graph.iTime. */
#include "interaction.h"

#include <cmath>
#include <cstring>

#include "globals.h"
#include "resample.h"

int is_contrast_drag(int x_press, int y_press, int x_release, int y_release)
{
    return x_release != x_press && y_release != y_press;
}

void apply_contrast_drag(int x_press, int y_press, int x_release, int y_release)
{
    float dx = (float)(x_release - x_press) / (float)mosaic.ImageRegionPixels.x;
    float dy = (float)(y_release - y_press) / (float)mosaic.ImageRegionPixels.y;
    if (dx > 0.0f) {
        contrast_high += dx * (1.75f - contrast_high) / 2.0f;
        contrast_low -= dx * (contrast_low + 0.5f) / 2.0f;
    } else {
        float s = -dx * (contrast_high - contrast_low);
        contrast_low += s / 2.0f;
        contrast_high -= s / 2.0f;
    }
    if (dy > 0.0f) {
        float s = dy * (1.75f - contrast_high);
        contrast_low += s;
        contrast_high += s;
    } else {
        float s = -dy * (contrast_low + 0.5f);
        contrast_low -= s;
        contrast_high -= s;
    }
}

void apply_contrast_shift(int up)
{
    if (up) {
        float s = (contrast_low + 0.5f) / 2.0f;
        if (s > 0.05f) s = 0.05f;
        contrast_low -= s;
        contrast_high -= s;
    } else {
        float s = (1.75f - contrast_high) / 2.0f;
        if (s > 0.05f) s = 0.05f;
        contrast_low += s;
        contrast_high += s;
    }
}

int reflow_panels(int width, int height)
{
    float W = (float)(mosaic.ImageRegionPixels.x + mosaic.nx_ColorBar + mosaic.nx_RightPanel);
    float H = (float)(mosaic.ImageRegionPixels.y + 75);
    float rx = (float)width / W, ry = (float)height / H;
    /* Equal distances from 1 take the height ratio, yet the width rules apply whenever the
       chosen ratio equals rx. */
    float r = fabsf(rx - 1.0f) > fabsf(ry - 1.0f) ? rx : ry;
    int is_x = (r == rx);
    int c = mosaic.DimPanels.x, rows = mosaic.DimPanels.y, n = mosaic.DimPanels.z;
    if (r > 1.001f) {
        if (is_x) {
            c += 1;
            while (c * (rows - 1) >= n && rows > 1) rows -= 1;
        } else {
            rows += 1;
            while (rows * (c - 1) >= n && c > 1) c -= 1;
        }
    } else if (r < 0.999f) {
        if (is_x) {
            c = c - 1 > 1 ? c - 1 : 1;
            while (c * rows < n) rows += 1;
        } else {
            rows = rows - 1 > 1 ? rows - 1 : 1;
            while (c * rows < n) c += 1;
        }
    } else {
        return 0;
    }
    int changed = (c != mosaic.DimPanels.x || rows != mosaic.DimPanels.y);
    mosaic.DimPanels.x = c;
    mosaic.DimPanels.y = rows;
    return changed;
}

void select_central_slices(int *selection, int nslices, int n)
{
    int first = nslices / 2 - n / 2;
    int last = nslices / 2 + n / 2; /* included for odd n */
    for (int k = 0; k < nslices; k++)
        selection[k] = (k >= first && (n % 2 == 1 ? k <= last : k < last)) ? 1 : 0;
}

int mosaic_slice_count(void)
{
    if (mosaic.stack == NULL) return 0;
    switch (mosaic.mosaic_orientation) {
    case 0: return mosaic.stack->dim.z;
    case 2: return mosaic.stack->dim.y;
    default: return mosaic.stack->dim.x;
    }
}

static int *cross_along_mosaic_axis(void)
{
    switch (mosaic.mosaic_orientation) {
    case 0: return &mosaic.icross.z;
    case 2: return &mosaic.icross.y;
    default: return &mosaic.icross.x;
    }
}

int slide_shown_slices(int in)
{
    int n = mosaic_slice_count();
    int *shown = mosaic.display_slice;
    if (shown == NULL || n <= 0) return 0;
    int all = 1;
    for (int k = 0; k < n; k++)
        if (!shown[k]) all = 0;
    if (all) return 0;
    if (in) {
        if (shown[0]) return 0;
        for (int k = 0; k < n - 1; k++) shown[k] = shown[k + 1];
        shown[n - 1] = 0;
    } else {
        if (shown[n - 1]) return 0;
        for (int k = n - 1; k > 0; k--) shown[k] = shown[k - 1];
        shown[0] = 0;
    }
    int *c = cross_along_mosaic_axis();
    *c += in ? -1 : 1;
    if (*c < 0) *c = 0;
    if (*c >= n) *c = n - 1;
    return 1;
}

void set_displayed_time_point(int t)
{
    data_stack *s = mosaic.stack;
    if (s == NULL || t < 0 || t >= s->nt) return;
    mosaic.iTime = t;
    if (s == &template_) iTime_Template = t;
    if (s == &individual && graph.iTime != t) {
        /* The individual is resampled one time point at a time: the graph's time point. */
        graph.iTime = t;
        transform_coordinates(1, 0);
    }
    mosaic.fSpaceMatrix = s->SpaceTime.fData + (size_t)t * (size_t)s->npts_volume;
}

static void step_time_point(int step)
{
    data_stack *s = mosaic.stack;
    if (s == NULL || s->nt <= 1) return;
    int t = mosaic.iTime + step;
    if (t < 0) t = s->nt - 1;
    if (t >= s->nt) t = 0;
    set_displayed_time_point(t);
}

void action_increment_image(void) { step_time_point(1); }
void action_decrement_image(void) { step_time_point(-1); }

static int prompt_accepts(int mode, int c)
{
    int letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    int digit = c >= '0' && c <= '9';
    switch (mode) {
    case 0: return c >= 32 && c < 127;
    case 1: return letter;
    case 2: return digit;
    case 3: return letter || digit;
    default: return 0;
    }
}

int prompt_edit(char *result, int c, int mode, int multi)
{
    size_t n = strlen(result);
    if (c == 27) return -1;
    if (c == 13) return 1;
    if (c == 8 || c == 127) {
        if (n > 1) result[n - 1] = '\0';
        return 0;
    }
    if (!prompt_accepts(mode, c)) return 0;
    if (n + 1 < 1024) {
        result[n] = (char)c;
        result[n + 1] = '\0';
    }
    return multi ? 0 : 1;
}
