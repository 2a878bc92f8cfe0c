#pragma once
/* Helpers shared by the unit tests: synthetic stacks and temporary working directories. */
#include <string>

#include "types.h"
#include "header_quill.h"

/* Allocates a zeroed stack of nx*ny*nz*nt floats with the plain geometry
   ijk_to_xyz = scale_and_shift(resolution, origin 0, direction +1) and its inverse. */
void make_stack(data_stack *s, int nx, int ny, int nz, int nt, float rx = 1.0f, float ry = 1.0f,
                float rz = 1.0f);
void free_stack(data_stack *s);
/* A resampling scene: template_unfiltered and template_ (all ones, so that nothing is masked)
   and individual of n^3 voxels of rt mm, original of on^3 voxels of ro mm, zero displacement
   maps (two time points) on the template grid, identity parameters and the centred matrices
   the driver stores in Alignment. */
void make_resample_scene(int n, float rt, int on, float ro);
/* The first n3d values of s drawn uniformly from [lo, hi) with the given seed. */
void fill_uniform(data_stack *s, float lo, float hi, unsigned seed);
/* Points the display (mosaic.stack, mosaic.fSpaceMatrix) at image_stack made with make_stack. */
void set_displayed_stack_for_test(int nx, int ny, int nz, int nt);

/* A fresh directory under /tmp; the test changes into it and back out when it ends. */
struct ScopedTempDir {
    std::string path;
    std::string previous;
    ScopedTempDir();
    ~ScopedTempDir();
};
/* A disk that takes at most `bytes` in any one file while this lives: RLIMIT_FSIZE with SIGXFSZ
   ignored, so that a write past it fails (EFBIG) as on a full disk. */
struct ScopedFileSizeLimit {
    long saved_cur;
    explicit ScopedFileSizeLimit(long bytes);
    ~ScopedFileSizeLimit();
};
/* Number of temporary save files (".part-...") left in the current directory. */
int leftover_temporaries(void);

std::string read_text_file(const std::string &name);
void write_text_file(const std::string &name, const std::string &content);
/* Packs the file `from' into `to' in gzip format with zlib; keep_bytes >= 0 then cuts the packed
   file to that many bytes. False on any failure. */
bool gzip_file(const std::string &from, const std::string &to, long keep_bytes = -1);

/* read_volume_header on a copy of name, with what it printed. */
struct HeaderRead {
    int result;
    std::string out;
    QL_HEADER h;
};
HeaderRead read_header_printing(const char *name);
