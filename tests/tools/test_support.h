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
