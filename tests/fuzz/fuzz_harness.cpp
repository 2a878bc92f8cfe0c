/* The shared part of the fuzz targets: splitting inputs, the private directory, and calls in
   which exit() and the files left open are caught. Reads and writes no program records. */
#include "fuzz_harness.h"

#include <cctype>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
[[noreturn]] void __real_exit(int status);
FILE *__real_fopen(const char *name, const char *mode);
int __real_fclose(FILE *fp);
}

/* Set while fuzz_call runs fn: where exit() jumps to, and the files opened meanwhile. */
static jmp_buf *exit_jump = NULL;
static int exit_status = 0;
static const int MAX_OPEN = 256;
static FILE *open_files[MAX_OPEN];
static int n_open = 0;

extern "C" [[noreturn]] void __wrap_exit(int status)
{
    if (exit_jump != NULL) {
        jmp_buf *jump = exit_jump;
        exit_jump = NULL;
        exit_status = status;
        longjmp(*jump, 1);
    }
    __real_exit(status);
}

extern "C" FILE *__wrap_fopen(const char *name, const char *mode)
{
    FILE *fp = __real_fopen(name, mode);
    if (fp != NULL && exit_jump != NULL) {
        if (n_open == MAX_OPEN) fuzz_require(false, "more than 256 files open at once");
        open_files[n_open++] = fp;
    }
    return fp;
}

extern "C" int __wrap_fclose(FILE *fp)
{
    for (int i = 0; i < n_open; i++)
        if (open_files[i] == fp) {
            open_files[i] = open_files[--n_open];
            break;
        }
    return __real_fclose(fp);
}

void fuzz_require(bool ok, const char *what)
{
    if (ok) return;
    fflush(stdout);
    fprintf(stderr, "\nfuzz target: broken promise: %s\n", what);
    abort();
}

int fuzz_split(const uint8_t *data, size_t size, fuzz_part *parts, int max_parts)
{
    static const size_t sep_len = strlen(FUZZ_SEPARATOR);
    int n = 0;
    const uint8_t *p = data;
    size_t left = size;
    while (n < max_parts - 1) {
        const void *hit = left >= sep_len ? memmem(p, left, FUZZ_SEPARATOR, sep_len) : NULL;
        if (hit == NULL) break;
        size_t len = (size_t)((const uint8_t *)hit - p);
        parts[n++] = {p, len};
        p += len + sep_len;
        left -= len + sep_len;
    }
    parts[n++] = {p, left};
    return n;
}

/* Plain POSIX writes, so that the harness's own files never pass through the wrapped fopen. */
static void write_all(const char *name, const void *data, size_t size)
{
    int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const char *p = (const char *)data;
    while (fd >= 0 && size > 0) {
        ssize_t done = write(fd, p, size);
        if (done <= 0) break;
        p += done;
        size -= (size_t)done;
    }
    if (fd < 0 || size != 0 || close(fd) != 0) {
        fprintf(stderr, "fuzz target: cannot write %s\n", name);
        abort();
    }
}

void fuzz_write_file(const char *name, fuzz_part part) { write_all(name, part.data, part.size); }

void fuzz_write_text(const char *name, const char *text) { write_all(name, text, strlen(text)); }

static std::string private_directory;
static std::string starting_directory;

/* Removes every entry of the directory path (and, when whole, the directory itself). Readers
   never make sub-directories, but an input may name one that a test made: one level deep. */
static void empty_directory(const std::string &path, bool whole)
{
    DIR *d = opendir(path.c_str());
    if (d != NULL) {
        struct dirent *e;
        while ((e = readdir(d)) != NULL) {
            if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
            std::string entry = path + "/" + e->d_name;
            if (unlink(entry.c_str()) != 0) empty_directory(entry, true);
        }
        closedir(d);
    }
    if (whole) rmdir(path.c_str());
}

static void remove_private_directory(void)
{
    if (!private_directory.empty()) empty_directory(private_directory, true);
}

void fuzz_enter_directory(void)
{
    if (starting_directory.empty()) {
        char here[4096];
        if (getcwd(here, sizeof here) == NULL) {
            fprintf(stderr, "fuzz target: cannot tell the current directory\n");
            abort();
        }
        starting_directory = here;
    }
    if (private_directory.empty()) {
        const char *tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp != NULL && tmp[0] != '\0' ? tmp : "/tmp") + "/align-fuzz-XXXXXX";
        char name[1024];
        snprintf(name, sizeof name, "%s", pattern.c_str());
        if (mkdtemp(name) == NULL) {
            fprintf(stderr, "fuzz target: cannot make a private directory from %s\n", name);
            abort();
        }
        private_directory = name;
        atexit(remove_private_directory);
    }
    if (chdir(private_directory.c_str()) != 0) {
        fprintf(stderr, "fuzz target: cannot change into %s\n", private_directory.c_str());
        abort();
    }
    empty_directory(private_directory, false);
}

void fuzz_leave_directory(void)
{
    if (!starting_directory.empty() && chdir(starting_directory.c_str()) != 0) {
        fprintf(stderr, "fuzz target: cannot change back into %s\n", starting_directory.c_str());
        abort();
    }
}

/* The reader's standard output during a call goes to an unnamed temporary file, so that an
   exit can be judged by its message; standard error (where the sanitizers report) is left
   alone. */
static int capture_fd = -1;
static int saved_stdout = -1;
static bool echo_output = false;

void fuzz_echo_output(bool echo) { echo_output = echo; }

static void begin_capture(void)
{
    if (capture_fd < 0) {
        const char *tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp != NULL && tmp[0] != '\0' ? tmp : "/tmp") + "/align-fuzz-out-XXXXXX";
        char name[1024];
        snprintf(name, sizeof name, "%s", pattern.c_str());
        capture_fd = mkstemp(name);
        if (capture_fd < 0) {
            fprintf(stderr, "fuzz target: cannot make a file for the reader's output\n");
            abort();
        }
        unlink(name);
    }
    fflush(stdout);
    saved_stdout = dup(1);
    if (saved_stdout < 0 || ftruncate(capture_fd, 0) != 0 || lseek(capture_fd, 0, SEEK_SET) != 0 ||
        dup2(capture_fd, 1) < 0) {
        fprintf(stderr, "fuzz target: cannot catch the reader's output\n");
        abort();
    }
}

/* Puts standard output back and returns the end of what the call printed. */
static std::string end_capture(void)
{
    fflush(stdout);
    dup2(saved_stdout, 1);
    close(saved_stdout);
    off_t size = lseek(capture_fd, 0, SEEK_END);
    if (echo_output) {
        char buffer[65536];
        ssize_t n;
        lseek(capture_fd, 0, SEEK_SET);
        while ((n = read(capture_fd, buffer, sizeof buffer)) > 0)
            if (write(1, buffer, (size_t)n) != n) break;
    }
    off_t from = size > 4096 ? size - 4096 : 0;
    std::string tail((size_t)(size - from), '\0');
    ssize_t n = pread(capture_fd, &tail[0], tail.size(), from);
    tail.resize(n > 0 ? (size_t)n : 0);
    return tail;
}

int fuzz_call(void (*fn)(void *), void *arg)
{
    jmp_buf here;
    volatile int status = -1;
    n_open = 0;
    begin_capture();
    if (setjmp(here) == 0) {
        exit_jump = &here;
        fn(arg);
    } else {
        status = exit_status;
    }
    exit_jump = NULL;
    std::string printed = end_capture();
    /* Left open by the fatal paths, or deliberately by a failing read; closed for the next input. */
    while (n_open > 0) __real_fclose(open_files[--n_open]);
    /* The fatal paths a reader may take (a short NIfTI header, a seek that fails, the option
       scan) are outcomes; an internal inconsistency or a failed allocation is a report. */
    static const char *internal[] = {"Programming error", "failed on row", "memory problem", "Domain error"};
    if (status >= 0)
        for (const char *marker : internal)
            if (printed.find(marker) != std::string::npos) {
                fprintf(stderr, "\nfuzz target: the program ended on an internal error:\n%s\n", printed.c_str());
                fuzz_require(false, "no input ends the program on an internal error");
            }
    return status;
}

bool fuzz_read_input(const char *path, std::vector<uint8_t> *input)
{
    std::vector<uint8_t> bytes;
    int fd = open(path, O_RDONLY);
    if (fd < 0) return false;
    uint8_t buffer[65536];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
    close(fd);
    if (n < 0) return false;
    size_t len = strlen(path);
    if (len < 4 || strcmp(path + len - 4, ".hex") != 0) {
        *input = bytes;
        return true;
    }
    input->clear();
    int high = -1;
    bool comment = false, line_start = true;
    for (uint8_t c : bytes) {
        if (line_start && c == '#') comment = true;
        line_start = c == '\n';
        if (comment) {
            if (c == '\n') comment = false;
            continue;
        }
        if (isspace(c)) continue;
        if (!isxdigit(c)) return false;
        int v = isdigit(c) ? c - '0' : tolower(c) - 'a' + 10;
        if (high < 0) {
            high = v;
        } else {
            input->push_back((uint8_t)(high * 16 + v));
            high = -1;
        }
    }
    return high < 0;
}
