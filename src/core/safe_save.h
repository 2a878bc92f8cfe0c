#pragma once
/* Saving without losing the previous file: the new contents go to a temporary file in the
   same directory, every write and the close are checked, and the temporary file is renamed
   over the final name only when it is complete. A failed save leaves the old file as it was
   and no temporary file behind. No globals; no X11. */
#include <cstddef>
#include <cstdio>

struct safe_file {
    FILE *fp;                 /* the temporary file's stream; NULL when not open */
    char final_name[1024];    /* the name the file takes when complete */
    char temp_name[1024];     /* ".part-<pid>-<base name>" in the same directory */
};

/* The temporary name for final_name: same directory, base name prefixed with ".part-<pid>-",
   so that the extension (".nii.gz", ".hdr") is kept. 0, or 1 when the name does not fit. */
int safe_save_temp_name(const char *final_name, char *temp_name, size_t size);

/* Opens the temporary file for final_name with fopen mode `mode' ("w" or "wb"). Returns the
   stream, or NULL (errno set, nothing printed: the caller prints its own message). */
FILE *safe_save_open(safe_file *sf, const char *final_name, const char *mode);

/* Checks the stream for earlier write errors, flushes, syncs and closes it, then renames the
   temporary file over the final name. 0 on success. On any failure: prints
   "Error: %s could not be written (%s); the previous file is kept.\n" with the final name and
   the system's reason, removes the temporary file and returns 1. */
int safe_save_close(safe_file *sf);

/* The first half of safe_save_close, for saves of several files that are all written before
   any is renamed: checks the stream for earlier write errors, flushes, syncs and closes it,
   keeping the temporary file for safe_save_rename. 0 on success; on failure the message of
   safe_save_close, the temporary file removed (temp_name emptied), 1. */
int safe_save_finish(safe_file *sf);

/* Gives up a save: closes the stream (if open) and removes the temporary file. */
void safe_save_discard(safe_file *sf);

/* For writers that make the temporary file themselves (a library writing temp_name): renames
   temp_name over final_name; on failure prints the message of safe_save_close, removes
   temp_name and returns 1. */
int safe_save_rename(const char *temp_name, const char *final_name);
