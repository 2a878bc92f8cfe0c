/* Writers of small quill, NIfTI-1 and FreeSurfer volume files for tests. */
#include "fixture_writers.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <nifti1_io.h>

int fixture_storage_bytes(int storage_type)
{
    switch (storage_type) {
    case 1: return 2;
    case 2: return 4;
    case 3: return 4;
    case 4: return 2;
    case 5: return 1;
    default: return 0;
    }
}

int fixture_machine_byte_order()
{
    uint16_t one = 1;
    unsigned char b;
    memcpy(&b, &one, 1);
    return b == 1 ? 1 : 0;
}

std::vector<unsigned char> encode_values(const std::vector<double> &values, int storage_type,
                                         int byte_order)
{
    int n = fixture_storage_bytes(storage_type);
    std::vector<unsigned char> out;
    out.reserve(values.size() * (size_t)n);
    bool reverse = byte_order != fixture_machine_byte_order();
    for (double v : values) {
        unsigned char b[4];
        switch (storage_type) {
        case 1: { int16_t x = (int16_t)v; memcpy(b, &x, 2); break; }
        case 2: { float x = (float)v; memcpy(b, &x, 4); break; }
        case 3: { int32_t x = (int32_t)v; memcpy(b, &x, 4); break; }
        case 4: { uint16_t x = (uint16_t)v; memcpy(b, &x, 2); break; }
        default: { b[0] = (unsigned char)v; break; }
        }
        if (reverse)
            for (int i = 0; i < n / 2; i++) std::swap(b[i], b[n - 1 - i]);
        out.insert(out.end(), b, b + n);
    }
    return out;
}

bool write_binary_file(const std::string &name, const std::vector<unsigned char> &bytes)
{
    std::ofstream out(name, std::ios::binary);
    out.write((const char *)bytes.data(), (std::streamsize)bytes.size());
    return (bool)out;
}

static bool write_text(const std::string &name, const std::string &text)
{
    std::ofstream out(name, std::ios::binary);
    out << text;
    return (bool)out;
}

std::string quill_header_name(const std::string &data_name)
{
    size_t dot = data_name.rfind('.');
    size_t slash = data_name.rfind('/');
    if (dot == std::string::npos || dot + 1 == data_name.size() ||
        (slash != std::string::npos && dot < slash))
        return data_name + ".hdr";
    return data_name.substr(0, dot + 1) + "hdr";
}

bool write_quill_header(const std::string &data_name, const std::string &header_text)
{
    return write_text(quill_header_name(data_name), header_text);
}

static const char *storage_keyword(int storage_type)
{
    switch (storage_type) {
    case 1: return "short";
    case 2: return "float";
    case 3: return "long";
    case 4: return "unsigned-short";
    case 5: return "unsigned-char";
    default: return "";
    }
}

bool write_quill_volume(const std::string &data_name, int nx, int ny, int nz, int nt,
                        int storage_type, int byte_order, const std::vector<double> &values,
                        const std::string &extra_lines)
{
    std::ostringstream h;
    h << "x " << nx << "\ny " << ny << "\nz " << nz << "\nt " << nt << "\n";
    h << "byte-order " << byte_order << "\n";
    if (storage_type > 0) h << "storage-type " << storage_keyword(storage_type) << "\n";
    h << extra_lines;
    if (!write_quill_header(data_name, h.str())) return false;
    return write_binary_file(data_name, encode_values(values, storage_type > 0 ? storage_type : 2,
                                                       byte_order));
}

NiftiFixture nifti_fixture(int nx, int ny, int nz, int nt, float res, int datatype)
{
    NiftiFixture f;
    memset(&f, 0, sizeof f);
    nifti_1_header &h = f.h;
    h.sizeof_hdr = 348;
    h.dim[0] = (short)(nt == 1 ? 3 : 4);
    h.dim[1] = (short)nx;
    h.dim[2] = (short)ny;
    h.dim[3] = (short)nz;
    h.dim[4] = (short)nt;
    for (int i = 5; i < 8; i++) h.dim[i] = 1;
    h.pixdim[0] = 1.0f;
    h.pixdim[1] = h.pixdim[2] = h.pixdim[3] = res;
    h.pixdim[4] = 1.0f;
    h.datatype = (short)datatype;
    int bitpix = 8;
    switch (datatype) {
    case DT_INT16: case DT_UINT16: bitpix = 16; break;
    case DT_INT32: case DT_FLOAT32: bitpix = 32; break;
    case DT_COMPLEX64: case DT_FLOAT64: bitpix = 64; break;
    default: break;
    }
    h.bitpix = (short)bitpix;
    h.vox_offset = 352.0f;
    memcpy(h.magic, "n+1", 4);
    return f;
}

void set_nifti_method2(NiftiFixture *f, float b, float c, float d, float qx, float qy, float qz,
                       float qfac)
{
    f->h.qform_code = 1;
    f->h.sform_code = 0;
    f->h.quatern_b = b;
    f->h.quatern_c = c;
    f->h.quatern_d = d;
    f->h.qoffset_x = qx;
    f->h.qoffset_y = qy;
    f->h.qoffset_z = qz;
    f->h.pixdim[0] = qfac;
}

void set_nifti_method3(NiftiFixture *f, const float srow_x[4], const float srow_y[4],
                       const float srow_z[4])
{
    f->h.qform_code = 1;
    f->h.sform_code = 1;
    memcpy(f->h.srow_x, srow_x, sizeof f->h.srow_x);
    memcpy(f->h.srow_y, srow_y, sizeof f->h.srow_y);
    memcpy(f->h.srow_z, srow_z, sizeof f->h.srow_z);
}

static bool ends_with(const std::string &s, const char *tail)
{
    size_t n = strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

bool write_nifti(const std::string &path, const NiftiFixture &fixture,
                 const std::vector<unsigned char> &data_bytes)
{
    bool single = ends_with(path, ".nii");
    nifti_1_header h = fixture.h;
    int32_t extension[4] = {16, 20, fixture.dof, 0}; /* esize, ecode, dof, padding */
    h.vox_offset = single ? (fixture.dof_extension ? 368.0f : 352.0f) : 0.0f;
    memcpy(h.magic, single ? "n+1" : "ni1", 4);
    if (fixture.other_byte_order) swap_nifti_header(&h, 1);

    std::vector<unsigned char> header_bytes((const unsigned char *)&h,
                                            (const unsigned char *)&h + sizeof h);
    unsigned char extender[4] = {(unsigned char)(fixture.dof_extension ? 1 : 0), 0, 0, 0};
    header_bytes.insert(header_bytes.end(), extender, extender + 4);
    if (fixture.dof_extension)
        header_bytes.insert(header_bytes.end(), (const unsigned char *)extension,
                            (const unsigned char *)extension + sizeof extension);

    std::string stem = path.substr(0, path.rfind('.'));
    if (single) {
        std::vector<unsigned char> all = header_bytes;
        all.insert(all.end(), data_bytes.begin(), data_bytes.end());
        if (fixture.truncate_at > 0 && (size_t)fixture.truncate_at < all.size())
            all.resize((size_t)fixture.truncate_at);
        return write_binary_file(path, all);
    }
    if (fixture.truncate_at > 0 && (size_t)fixture.truncate_at < header_bytes.size())
        header_bytes.resize((size_t)fixture.truncate_at);
    return write_binary_file(stem + ".hdr", header_bytes) && write_binary_file(stem + ".img", data_bytes);
}

bool write_nifti_float(const std::string &path, int nx, int ny, int nz, int nt, float res,
                       const float *data)
{
    NiftiFixture f = nifti_fixture(nx, ny, nz, nt, res, DT_FLOAT32);
    const unsigned char *bytes = (const unsigned char *)data;
    size_t n = (size_t)nx * ny * nz * nt * sizeof(float);
    return write_nifti(path, f, std::vector<unsigned char>(bytes, bytes + n));
}

bool write_freesurfer_volume(const std::string &stem, int nx, int ny, int nz, int nt, float res_xy,
                             float slice_thick, float tr, int storage_type, int byte_order,
                             const std::vector<double> &values, const std::string &extra_bhdr_lines)
{
    std::ostringstream g;
    float wx = nx * res_xy, wy = ny * res_xy;
    g << "cols: " << nx << "\nrows: " << ny << "\nnslices: " << nz << "\nn_time_points: " << nt << "\n";
    g << "slice_thick: " << slice_thick << "\n";
    g << "top_left_r: 0\ntop_left_a: 0\ntop_left_s: 0\n";
    g << "top_right_r: " << wx << "\ntop_right_a: 0\ntop_right_s: 0\n";
    g << "bottom_right_r: " << wx << "\nbottom_right_a: " << wy << "\nbottom_right_s: 0\n";
    g << "normal_r: 0\nnormal_a: 0\nnormal_s: 1\n";
    g << "image_te: 0\nimage_tr: " << tr << "\nimage_ti: 0\nflip_angle: 0\n";
    g << extra_bhdr_lines;
    if (!write_text(stem.substr(0, stem.size() - 1) + ".bhdr", g.str())) return false;

    size_t n2d = (size_t)nx * ny, n3d = n2d * nz;
    for (int z = 0; z < nz; z++) {
        char number[16];
        snprintf(number, sizeof number, "%03d", z);
        std::ostringstream sh;
        sh << ny << " " << nx << " " << nt << " " << byte_order << "\n";
        if (!write_text(stem + number + ".hdr", sh.str())) return false;
        std::vector<double> slice;
        for (int t = 0; t < nt; t++)
            for (size_t j = 0; j < n2d; j++) slice.push_back(values[(size_t)t * n3d + z * n2d + j]);
        std::string ext = storage_type == 1 ? ".bshort" : ".bfloat";
        if (!write_binary_file(stem + number + ext, encode_values(slice, storage_type, byte_order)))
            return false;
    }
    return true;
}
