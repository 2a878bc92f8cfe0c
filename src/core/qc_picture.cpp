/* The quality-control picture (see qc_picture.h): grey template slices with the resampled
   individual's strongest edges in orange, before and after the alignment, written with libpng
   through a safe save. No globals; no X11. */
#include "qc_picture.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <png.h>

#include "numerics.h"
#include "safe_save.h"

static const int qc_panels = 5;

static size_t voxel_index(IPOINT3D d, int x, int y, int z)
{
    return (size_t)x + (size_t)d.x * ((size_t)y + (size_t)d.y * (size_t)z);
}

int qc_plan(const qc_volumes *v, qc_layout *layout)
{
    IPOINT3D lo = {v->dim.x, v->dim.y, v->dim.z}, hi = {-1, -1, -1};
    for (int z = 0; z < v->dim.z; z++)
        for (int y = 0; y < v->dim.y; y++)
            for (int x = 0; x < v->dim.x; x++) {
                if (v->tpl[voxel_index(v->dim, x, y, z)] == 0.0f) continue;
                lo.x = std::min(lo.x, x); hi.x = std::max(hi.x, x);
                lo.y = std::min(lo.y, y); hi.y = std::max(hi.y, y);
                lo.z = std::min(lo.z, z); hi.z = std::max(hi.z, z);
            }
    if (hi.x < 0) return 1;
    double fov = std::max(v->dim.x * v->res.x, std::max(v->dim.y * v->res.y, v->dim.z * v->res.z));
    double finest = std::min(v->res.x, std::min(v->res.y, v->res.z));
    int per_voxel = (int)(256.0 / (fov / finest));
    if (per_voxel < 1) per_voxel = 1;
    double pixel_mm = finest / per_voxel;
    layout->cell_pixels = (int)ceil(fov / pixel_mm - 1e-6);
    layout->width = qc_panels * layout->cell_pixels;
    layout->height = 2 * layout->cell_pixels;
    const double fraction[3] = {0.3, 0.5, 0.7};
    for (int p = 0; p < 3; p++) layout->slice[p] = lo.z + (int)lrint(fraction[p] * (hi.z - lo.z));
    layout->slice[3] = (lo.y + hi.y) / 2;
    layout->slice[4] = (lo.x + hi.x) / 2;
    return 0;
}

/* The value at fraction q (0..1) of the first n values (reordered); 0 for none. */
static float percentile(float *values, size_t n, double q)
{
    if (n == 0) return 0.0f;
    size_t k = (size_t)(q * (double)(n - 1));
    std::nth_element(values, values + k, values + n);
    return values[k];
}

/* Gradient magnitude (per mm) of a volume at a voxel, central differences inside the grid. */
static float gradient_magnitude(const float *f, IPOINT3D d, POINT3D r, int x, int y, int z)
{
    if (x < 1 || y < 1 || z < 1 || x >= d.x - 1 || y >= d.y - 1 || z >= d.z - 1) return 0.0f;
    size_t i = voxel_index(d, x, y, z), sy = (size_t)d.x, sz = (size_t)d.x * d.y;
    double gx = (f[i + 1] - f[i - 1]) / (2.0 * r.x), gy = (f[i + sy] - f[i - sy]) / (2.0 * r.y),
           gz = (f[i + sz] - f[i - sz]) / (2.0 * r.z);
    return (float)sqrt(gx * gx + gy * gy + gz * gz);
}

void qc_render(const qc_volumes *v, const qc_layout *layout, unsigned char *rgb)
{
    const IPOINT3D d = v->dim;
    const POINT3D r = v->res;
    size_t nvox = (size_t)d.x * d.y * d.z, count = 0;
    float *values = float_vector((int)nvox);
    for (size_t i = 0; i < nvox; i++)
        if (v->tpl[i] != 0.0f && std::isfinite(v->tpl[i])) values[count++] = v->tpl[i];
    float grey_lo = percentile(values, count, 0.01), grey_hi = percentile(values, count, 0.99);
    if (!(grey_hi > grey_lo)) grey_hi = grey_lo + 1.0f;
    /* the edge threshold from the drawn slices only (the volumes need not be known elsewhere) */
    count = 0;
    for (int z = 0; z < d.z; z++)
        for (int y = 0; y < d.y; y++)
            for (int x = 0; x < d.x; x++) {
                int drawn = z == layout->slice[0] || z == layout->slice[1] || z == layout->slice[2] ||
                            y == layout->slice[3] || x == layout->slice[4];
                if (drawn && v->tpl[voxel_index(d, x, y, z)] != 0.0f)
                    values[count++] = gradient_magnitude(v->after, d, r, x, y, z);
            }
    float edge = percentile(values, count, 0.9);
    free_float_vector(values);
    if (!(edge > 0.0f)) edge = 1e30f;

    double fov = std::max(d.x * r.x, std::max(d.y * r.y, d.z * r.z));
    double pixel_mm = fov / layout->cell_pixels;
    memset(rgb, 0, (size_t)layout->width * layout->height * 3);
    for (int row = 0; row < 2; row++) {
        const float *ind = row == 0 ? v->before : v->after;
        for (int p = 0; p < qc_panels; p++) {
            /* horizontal and vertical axes of the panel: axial x,y; coronal x,z; sagittal y,z */
            int haxis = p == 4 ? 1 : 0, vaxis = p < 3 ? 1 : 2;
            int nh = haxis == 0 ? d.x : d.y, nv = vaxis == 1 ? d.y : d.z;
            double rh = haxis == 0 ? r.x : r.y, rv = vaxis == 1 ? r.y : r.z;
            double off_h = (fov - nh * rh) / 2.0, off_v = (fov - nv * rv) / 2.0;
            for (int py = 0; py < layout->cell_pixels; py++) {
                int vv = (int)floor(((py + 0.5) * pixel_mm - off_v) / rv);
                if (vv < 0 || vv >= nv) continue;
                int iv = nv - 1 - vv; /* anterior and superior at the top */
                for (int px = 0; px < layout->cell_pixels; px++) {
                    int ih = (int)floor(((px + 0.5) * pixel_mm - off_h) / rh);
                    if (ih < 0 || ih >= nh) continue;
                    int x, y, z;
                    if (p < 3) { x = ih; y = iv; z = layout->slice[p]; }
                    else if (p == 3) { x = ih; y = layout->slice[3]; z = iv; }
                    else { x = layout->slice[4]; y = ih; z = iv; }
                    float t = v->tpl[voxel_index(d, x, y, z)];
                    double g = (t - grey_lo) / (grey_hi - grey_lo);
                    if (!(g > 0.0)) g = 0.0;
                    if (g > 1.0) g = 1.0;
                    unsigned char *out = rgb + 3 * ((size_t)(row * layout->cell_pixels + py) * layout->width +
                                                    (size_t)p * layout->cell_pixels + px);
                    out[0] = out[1] = out[2] = (unsigned char)lrint(255.0 * g);
                    if (gradient_magnitude(ind, d, r, x, y, z) >= edge) {
                        out[0] = 255;
                        out[1] = 140;
                        out[2] = 0;
                    }
                }
            }
        }
    }
}

static void png_failed(png_structp png, png_const_charp message)
{
    (void)message;
    longjmp(png_jmpbuf(png), 1);
}

static void png_warned(png_structp, png_const_charp) {}

/* Writes the rows with libpng into an open stream; 0, or 1 when libpng reports an error. */
static int encode_png(FILE *fp, const unsigned char *rgb, int width, int height, png_bytep *rows)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, NULL, png_failed, png_warned);
    if (png == NULL) return 1;
    png_infop info = png_create_info_struct(png);
    if (info == NULL) {
        png_destroy_write_struct(&png, NULL);
        return 1;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return 1;
    }
    for (int y = 0; y < height; y++) rows[y] = (png_bytep)(rgb + (size_t)y * width * 3);
    png_init_io(png, fp);
    png_set_IHDR(png, info, (png_uint_32)width, (png_uint_32)height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, NULL);
    png_destroy_write_struct(&png, &info);
    return 0;
}

int write_qc_picture(const char *file_name, const qc_volumes *v)
{
    qc_layout layout;
    if (qc_plan(v, &layout) != 0) {
        printf("Error: %s not written: the template has no non-zero voxel.\n", file_name);
        return 1;
    }
    size_t bytes = (size_t)layout.width * layout.height * 3;
    unsigned char *rgb = unsigned_char_vector((int)bytes);
    png_bytep *rows = (png_bytep *)malloc(sizeof(png_bytep) * (size_t)layout.height);
    if (rows == NULL) alloc_error("allocating the rows of the QC picture");
    qc_render(v, &layout, rgb);

    safe_file sf;
    int status = 1;
    if (safe_save_open(&sf, file_name, "wb") == NULL) {
        printf("Error: cannot open the output file %s (%s)\n", file_name, strerror(errno));
    } else if (encode_png(sf.fp, rgb, layout.width, layout.height, rows) != 0) {
        printf("Error: %s could not be written (PNG encoding failed); the previous file is kept.\n", file_name);
        safe_save_discard(&sf);
    } else {
        status = safe_save_close(&sf);
    }
    free(rows);
    free_unsigned_char_vector(rgb);
    return status;
}
