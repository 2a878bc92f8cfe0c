/* Helpers shared by the unit tests. */
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <csignal>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include "globals.h"
#include "numerics.h"
#include "volume.h"

void make_stack(data_stack *s, int nx, int ny, int nz, int nt, float rx, float ry, float rz)
{
    memset(s, 0, sizeof *s);
    s->dim = {nx, ny, nz};
    s->resolution = {rx, ry, rz};
    s->direction = {1.0f, 1.0f, 1.0f};
    s->fov = {nx * rx, ny * ry, nz * rz};
    s->nt = nt;
    s->n2d = nx * ny;
    s->n3d = s->n2d * nz;
    s->n4d = s->n3d * nt;
    s->npts_volume = s->n3d;
    s->ijk_to_xyz = scale_and_shift_to_mat44(s->resolution, s->origin, s->direction);
    s->xyz_to_ijk = invert_mat44(s->ijk_to_xyz);
    s->SpaceTime.fData = float_vector(s->n4d);
    memset(s->SpaceTime.fData, 0, sizeof(float) * (size_t)s->n4d);
}

void free_stack(data_stack *s)
{
    if (s->SpaceTime.fData) free_float_vector(s->SpaceTime.fData);
    s->SpaceTime.fData = NULL;
}

void set_displayed_stack_for_test(int nx, int ny, int nz, int nt)
{
    make_stack(&image_stack, nx, ny, nz, nt);
    mosaic.stack = &image_stack;
    mosaic.fSpaceMatrix = image_stack.SpaceTime.fData;
}

ScopedTempDir::ScopedTempDir()
{
    char tmpl[] = "/tmp/align-test-XXXXXX";
    char *made = mkdtemp(tmpl);
    if (made == NULL) abort();
    path = made;
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) != NULL) previous = cwd;
    if (chdir(path.c_str()) != 0) abort();
}

ScopedTempDir::~ScopedTempDir()
{
    if (!previous.empty() && chdir(previous.c_str()) != 0) return;
    std::string cmd = "rm -rf '" + path + "'";
    if (system(cmd.c_str()) != 0) return;
}

ScopedFileSizeLimit::ScopedFileSizeLimit(long bytes)
{
    struct rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    saved_cur = (long)limit.rlim_cur;
    signal(SIGXFSZ, SIG_IGN);
    limit.rlim_cur = (rlim_t)bytes;
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) abort();
}

ScopedFileSizeLimit::~ScopedFileSizeLimit()
{
    struct rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = (rlim_t)saved_cur;
    setrlimit(RLIMIT_FSIZE, &limit);
}

int leftover_temporaries(void)
{
    int n = 0;
    for (const auto &entry : std::filesystem::directory_iterator("."))
        if (entry.path().filename().string().rfind(".part-", 0) == 0) n++;
    return n;
}

std::string read_text_file(const std::string &name)
{
    std::ifstream in(name, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_text_file(const std::string &name, const std::string &content)
{
    std::ofstream out(name, std::ios::binary);
    out << content;
}

HeaderRead read_header_printing(const char *data_name)
{
    HeaderRead r;
    char name[1024];
    snprintf(name, sizeof name, "%s", data_name);
    testing::internal::CaptureStdout();
    r.result = read_volume_header(name, &r.h);
    r.out = testing::internal::GetCapturedStdout();
    return r;
}

bool gzip_file(const std::string &from, const std::string &to, long keep_bytes)
{
    std::string data = read_text_file(from);
    gzFile gz = gzopen(to.c_str(), "wb");
    if (gz == NULL) return false;
    bool ok = gzwrite(gz, data.data(), (unsigned)data.size()) == (int)data.size();
    if (gzclose(gz) != Z_OK) ok = false;
    if (ok && keep_bytes >= 0) ok = truncate(to.c_str(), keep_bytes) == 0;
    return ok;
}
