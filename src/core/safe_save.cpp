/* Temporary-file-and-rename saving (see safe_save.h). No globals; no X11. */
#include "safe_save.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

int safe_save_temp_name(const char *final_name, char *temp_name, size_t size)
{
    const char *slash = strrchr(final_name, '/');
    int dir_len = slash == NULL ? 0 : (int)(slash - final_name) + 1;
    const char *base = final_name + dir_len;
    int n = snprintf(temp_name, size, "%.*s.part-%ld-%s", dir_len, final_name, (long)getpid(), base);
    return n < 0 || (size_t)n >= size ? 1 : 0;
}

FILE *safe_save_open(safe_file *sf, const char *final_name, const char *mode)
{
    sf->fp = NULL;
    sf->temp_name[0] = '\0';
    int n = snprintf(sf->final_name, sizeof sf->final_name, "%s", final_name);
    if (n < 0 || (size_t)n >= sizeof sf->final_name ||
        safe_save_temp_name(final_name, sf->temp_name, sizeof sf->temp_name) != 0) {
        sf->temp_name[0] = '\0';
        errno = ENAMETOOLONG;
        return NULL;
    }
    sf->fp = fopen(sf->temp_name, mode);
    if (sf->fp == NULL) sf->temp_name[0] = '\0';
    return sf->fp;
}

static int report_failure(const char *final_name, const char *temp_name, int err)
{
    fflush(stdout);
    printf("Error: %s could not be written (%s); the previous file is kept.\n", final_name,
           strerror(err));
    fflush(stdout);
    if (temp_name[0] != '\0') unlink(temp_name);
    return 1;
}

int safe_save_finish(safe_file *sf)
{
    int err = 0;
    if (sf->fp == NULL) err = EBADF;
    else {
        if (ferror(sf->fp)) err = errno != 0 ? errno : EIO;
        if (err == 0 && fflush(sf->fp) != 0) err = errno;
        if (err == 0 && fsync(fileno(sf->fp)) != 0 && errno != EINVAL && errno != EROFS) err = errno;
        if (fclose(sf->fp) != 0 && err == 0) err = errno;
        sf->fp = NULL;
    }
    if (err != 0) {
        report_failure(sf->final_name, sf->temp_name, err);
        sf->temp_name[0] = '\0';
        return 1;
    }
    return 0;
}

int safe_save_close(safe_file *sf)
{
    if (safe_save_finish(sf) != 0) return 1;
    return safe_save_rename(sf->temp_name, sf->final_name);
}

void safe_save_discard(safe_file *sf)
{
    if (sf->fp != NULL) fclose(sf->fp);
    sf->fp = NULL;
    if (sf->temp_name[0] != '\0') unlink(sf->temp_name);
}

int safe_save_rename(const char *temp_name, const char *final_name)
{
    if (rename(temp_name, final_name) != 0) return report_failure(final_name, temp_name, errno);
    return 0;
}
