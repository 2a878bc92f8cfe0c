/* Writes the seed inputs of every fuzz target: align_fuzz_seeds <output directory>
   [<regression directory>]. Each target gets <output>/<target>/ with a few well-formed inputs
   (so that the fuzzers start past the readers' first checks) and, when a regression directory
   is given, every kept input of <regression directory>/<target>/ as plain bytes (".hex" files
   decoded). The seeds are made here, at build time, so that no binary input is kept in git. */
#include <cmath>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <nifti1.h>

#include "fuzz_harness.h"
#include "fuzz_targets.h"

namespace {

typedef std::string bytes;

const bytes SEP = FUZZ_SEPARATOR;

bytes floats(int n, float first, float step)
{
    bytes b;
    for (int i = 0; i < n; i++) {
        float v = first + step * (float)i;
        b.append((const char *)&v, 4);
    }
    return b;
}

bytes shorts(int n, short first)
{
    bytes b;
    for (int i = 0; i < n; i++) {
        short v = (short)(first + i);
        b.append((const char *)&v, 2);
    }
    return b;
}

void swap_bytes(void *p, int n)
{
    char *c = (char *)p;
    for (int i = 0; i < n / 2; i++) std::swap(c[i], c[n - 1 - i]);
}

/* A NIfTI-1 header of nx*ny*nz*nt values of datatype, voxels res mm, method 1; single files
   get vox_offset 352 and the magic n+1, pairs 0 and ni1. */
nifti_1_header nifti_header(int nx, int ny, int nz, int nt, float res, int datatype, bool single)
{
    nifti_1_header h;
    memset(&h, 0, sizeof h);
    h.sizeof_hdr = 348;
    h.dim[0] = nt > 1 ? 4 : 3;
    h.dim[1] = (short)nx;
    h.dim[2] = (short)ny;
    h.dim[3] = (short)nz;
    h.dim[4] = (short)nt;
    h.dim[5] = h.dim[6] = h.dim[7] = 1;
    h.datatype = (short)datatype;
    h.pixdim[0] = 1.0f;
    h.pixdim[1] = h.pixdim[2] = h.pixdim[3] = res;
    h.pixdim[4] = 1.0f;
    h.vox_offset = single ? 352.0f : 0.0f;
    memcpy(h.magic, single ? "n+1" : "ni1", 4);
    return h;
}

bytes header_bytes(const nifti_1_header &h) { return bytes((const char *)&h, 348); }

/* Header, extender (with the degrees-of-freedom extension when dof > 0) and data. */
bytes nifti_file(nifti_1_header h, const bytes &data, int dof = 0)
{
    bytes b;
    if (dof > 0) {
        h.vox_offset = 368.0f;
        b = header_bytes(h) + bytes("\1\0\0\0", 4);
        int ext[3] = {16, 20, dof};
        b.append((const char *)ext, 12);
        b.append(4, '\0');
    } else {
        b = header_bytes(h) + bytes(4, '\0');
    }
    return b + data;
}

std::vector<bytes> nifti_seeds(void)
{
    std::vector<bytes> s;
    s.push_back(bytes(1, 0) + nifti_file(nifti_header(4, 3, 2, 1, 2.0f, DT_FLOAT32, true), floats(24, 0, 1)));
    nifti_1_header q = nifti_header(4, 3, 2, 2, 1.5f, DT_INT16, true);
    q.qform_code = 1;
    q.quatern_d = 0.5f;
    q.qoffset_x = -3.0f;
    q.scl_slope = 2.0f;
    q.scl_inter = 1.0f;
    s.push_back(bytes(1, 0) + nifti_file(q, shorts(48, -5), 7));
    nifti_1_header a = nifti_header(3, 3, 3, 1, 1.0f, DT_UINT8, true);
    a.qform_code = a.sform_code = 1;
    a.srow_x[1] = 1.0f;
    a.srow_y[0] = 1.0f;
    a.srow_z[2] = -1.0f;
    s.push_back(bytes(1, 0) + nifti_file(a, bytes(27, 'x')));
    s.push_back(bytes(1, 0) + nifti_file(nifti_header(2, 2, 1, 1, 1.0f, DT_COMPLEX64, true), floats(8, 1, 0.5f)));
    nifti_1_header other = nifti_header(2, 2, 2, 1, 1.0f, DT_INT32, true);
    swap_bytes(&other.sizeof_hdr, 4);
    for (short &d : other.dim) swap_bytes(&d, 2);
    for (float &p : other.pixdim) swap_bytes(&p, 4);
    swap_bytes(&other.datatype, 2);
    swap_bytes(&other.vox_offset, 4);
    s.push_back(bytes(1, 0) + nifti_file(other, bytes(32, '\1')));
    s.push_back(bytes(1, 1) + nifti_file(nifti_header(2, 2, 2, 1, 1.0f, DT_UINT16, true), shorts(8, 3)) + SEP +
                nifti_file(nifti_header(2, 2, 2, 3, 1.0f, DT_UINT16, true), shorts(24, 9)));
    return s;
}

std::vector<bytes> nifti_pair_seeds(void)
{
    return {header_bytes(nifti_header(4, 3, 2, 1, 1.0f, DT_FLOAT32, false)) + SEP + floats(24, 1, 1),
            header_bytes(nifti_header(2, 2, 2, 2, 3.0f, DT_INT16, false)) + bytes(4, '\0') + SEP + shorts(16, 0)};
}

std::vector<bytes> quill_seeds(void)
{
    const bytes sizes = "x 4\ny 3\nz 2\nt 1\n";
    return {
        bytes(1, 0) + sizes + "byte-order 0\nresolution 1 2 3\norigin 1 2 3\ndirection 1 -1 1\n" + SEP + shorts(24, 1),
        bytes(1, 1) + "matrix 2 2 2 2\nresolution 2 2 2 1.5\ndata-type complex\ninfo: a test\n" + SEP + floats(32, 0, 1),
        bytes(1, 4) + sizes + "storage-type unsigned-char\nregistration PW-rat\n" + SEP + bytes(24, 'a'),
        bytes(1, 5) + "4 3 2 1 # old sizes\n" + sizes + "storage-type long\ndegrees-of-freedom 3\n" + SEP + bytes(96, 1),
        bytes(1, 3 + 8) + sizes + SEP + shorts(24, 0) + SEP + sizes + "byte-order 1\n" + SEP + shorts(24, 5),
        bytes(1, 6) + sizes + "storage-type unsigned-char\n",
    };
}

std::vector<bytes> freesurfer_seeds(void)
{
    const bytes bhdr = "cols: 4\nrows: 3\nnslices: 2\nn_time_points: 1\nslice_thick: 2\n"
                       "top_left_r: 0\ntop_right_r: 4\nbottom_right_r: 4\nbottom_right_a: 3\nimage_tr: 2\n";
    return {
        bytes(1, 0) + bhdr + SEP + "3 4 1 1\n" + SEP + shorts(12, 0) + SEP + shorts(12, 100),
        bytes(1, 1) + bhdr + SEP + "3 4 1 0\n" + SEP + floats(12, 0, 1) + SEP + floats(12, 5, 1),
        bytes(1, 2) + bhdr + SEP + "3 4 1 1\n" + SEP + shorts(12, 0) + SEP + shorts(12, 100),
        bytes(1, 4) + bhdr + SEP + "3 4 1 1\n" + SEP + shorts(12, 0) + SEP + shorts(12, 100),
    };
}

/* The session's template (tests/fuzz/fuzz_targets.cpp): 8 x 8 x 6 voxels of 2 mm, method 1. */
const bytes RECALL_HEAD = "set registration-matrix 8 8 6\nset registration-resolution 2 2 2\n"
                          "set registration-origin 0 0 0\nset registration-direction 1 1 1\n";
const int MAP_VALUES = 8 * 8 * 6 * 3;

std::vector<bytes> recall_seeds(void)
{
    const bytes values = "set registration-translations 1 -2 0.5\nset registration-rotations 3 0 -1\n"
                         "set registration-inflations 1.1 0.9 1\nset registration-skews 0.01 0 0\n";
    return {
        "set registration-type deck-of-cards\nset registration-space PW-rat\n" + RECALL_HEAD +
            "set registration-orientation 1 0 0 0\nset registration-wrapping 0 1 0\n" + values,
        RECALL_HEAD + values + "set registration-distortions d.nii\n" + SEP +
            nifti_file(nifti_header(8, 8, 6, 3, 2.0f, DT_FLOAT32, true), floats(MAP_VALUES, -1, 0.01f)),
        RECALL_HEAD + "set registration-distortions d.bfloat\n" + SEP + SEP + "x 8\ny 8\nz 6\nt 3\n" + SEP +
            floats(MAP_VALUES, 0, 0.001f),
        "# a comment line\nset registration-space paxinos-rat\nset registration-type rigid\n\n" + RECALL_HEAD +
            "set registration-skews 1 2\n",
    };
}

std::vector<bytes> distortion_seeds(void)
{
    return {
        bytes(1, 0) + nifti_file(nifti_header(8, 8, 6, 3, 2.0f, DT_FLOAT32, true), floats(MAP_VALUES, -1, 0.01f)),
        bytes(1, 1) + "x 8\ny 8\nz 6\nt 3\nbyte-order 0\nresolution 2 2 2\n" + SEP + floats(MAP_VALUES, 0, 0.5f),
        bytes(1, 2) + header_bytes(nifti_header(8, 8, 6, 3, 2.0f, DT_FLOAT32, false)) + SEP +
            floats(MAP_VALUES, 2, -0.25f),
        bytes(1, 0) + nifti_file(nifti_header(8, 8, 6, 3, 2.0f, DT_INT16, true), shorts(MAP_VALUES, 0)),
    };
}

std::vector<bytes> overlay_seeds(void)
{
    return {
        "first o2 red\nsecond o3   # no colour\n\nthird o4 orange\n" + SEP + "1 2 3\n2 2 2 0.5\n" + SEP +
            "0 0 0\n1 1 1 0.25\n" + SEP + "3 3 3\n7 7 5 1\n" + SEP + "4 4 4 0\n",
        "only o2 blue\n" + SEP + SEP + "5 5 5\n",
    };
}

std::vector<bytes> wire_seeds(void)
{
    return {
        "frame w2 green\nother w3\n" + SEP + "1.5 2 3 1\n4 5 6 2\n" + SEP + "0 0 0 1\n1 1 1 1\n" + SEP + "9 9 9 3",
        "frame w2 yellow\n" + SEP + SEP + "",
    };
}

std::vector<bytes> init_file_seeds(void)
{
    return {
        bytes(1, 0) + "align a.nii b.nii -t t.nii -z 3 -W 101 -m 4 -o ovl.list -w wire.list -3 -a\n",
        bytes(1, 1) + "align x.nii -T t.nii -Y -Z 11 -M x\n",
        bytes(1, 2) + "align x.nii -t t.nii -q\n",
        bytes(1, 0) + "align -h\n",
        bytes(1, 0) + "align x.nii -1\n",
    };
}

bool write_file(const std::string &name, const bytes &b)
{
    FILE *fp = fopen(name.c_str(), "wb");
    if (fp == NULL) return false;
    bool ok = fwrite(b.data(), 1, b.size(), fp) == b.size();
    return fclose(fp) == 0 && ok;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: align_fuzz_seeds <output directory> [<regression directory>]\n");
        return 2;
    }
    struct {
        const char *target;
        std::vector<bytes> (*seeds)(void);
    } sets[] = {{"nifti", nifti_seeds},           {"nifti_pair", nifti_pair_seeds}, {"quill", quill_seeds},
                {"freesurfer", freesurfer_seeds}, {"recall", recall_seeds},         {"distortion", distortion_seeds},
                {"overlay", overlay_seeds},       {"wire", wire_seeds},             {"init_file", init_file_seeds}};
    std::string out = argv[1];
    mkdir(out.c_str(), 0755);
    int written = 0;
    for (const auto &set : sets) {
        if (find_fuzz_target(set.target) == NULL) {
            fprintf(stderr, "seeds for an unknown target %s\n", set.target);
            return 1;
        }
        std::string dir = out + "/" + set.target;
        mkdir(dir.c_str(), 0755);
        std::vector<bytes> seeds = set.seeds();
        for (size_t i = 0; i < seeds.size(); i++) {
            char name[32];
            snprintf(name, sizeof name, "/seed-%02zu", i);
            if (!write_file(dir + name, seeds[i])) {
                fprintf(stderr, "cannot write %s%s\n", dir.c_str(), name);
                return 1;
            }
            written++;
        }
        if (argc < 3) continue;
        std::string kept_dir = std::string(argv[2]) + "/" + set.target;
        DIR *d = opendir(kept_dir.c_str());
        struct dirent *e;
        while (d != NULL && (e = readdir(d)) != NULL) {
            if (e->d_name[0] == '.') continue;
            std::vector<uint8_t> kept;
            std::string base = e->d_name, plain = base;
            if (plain.size() > 4 && plain.compare(plain.size() - 4, 4, ".hex") == 0) plain.resize(plain.size() - 4);
            if (!fuzz_read_input((kept_dir + "/" + base).c_str(), &kept) ||
                !write_file(dir + "/regression-" + plain, bytes(kept.begin(), kept.end()))) {
                fprintf(stderr, "cannot copy the kept input %s/%s\n", kept_dir.c_str(), base.c_str());
                return 1;
            }
            written++;
        }
        if (d != NULL) closedir(d);
    }
    printf("%d seed inputs written under %s\n", written, out.c_str());
    return 0;
}
