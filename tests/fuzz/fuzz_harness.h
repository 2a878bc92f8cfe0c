#pragma once
/* What every fuzz target shares: an input split into the files a reader needs, written into a
   private directory, and reader calls in which exit() ends the call instead of the process.
   Used alike by the libFuzzer programs (clang) and by the replay driver that ctest runs.
   The programs are linked with -Wl,--wrap=exit,--wrap=fopen,--wrap=fclose (see CMakeLists). */
#include <cstddef>
#include <cstdint>
#include <vector>

/* One part of an input: the bytes between two separators. */
struct fuzz_part {
    const uint8_t *data;
    size_t size;
};

/* The separator between the parts of one input (a line holding three hyphens). */
#define FUZZ_SEPARATOR "\n---\n"

/* Splits data at each separator into at most max_parts parts (the last part takes the rest,
   separators included). Returns the number of parts, at least 1 (an empty input is one empty
   part). */
int fuzz_split(const uint8_t *data, size_t size, fuzz_part *parts, int max_parts);

/* Writes a part, or a text, as the whole content of the file name (in the current directory).
   A failing write ends the process with a message: the harness, not the reader, is broken. */
void fuzz_write_file(const char *name, fuzz_part part);
void fuzz_write_text(const char *name, const char *text);

/* The first call makes a private directory under $TMPDIR (removed when the process ends); every
   call changes into it and empties it, so that each input starts from nothing. */
void fuzz_enter_directory(void);
/* Changes back to the directory the process started in (the fuzzer's own paths may be
   relative): called after each input by the programs that run the targets. */
void fuzz_leave_directory(void);

/* Runs fn(arg). An exit() during the call (the readers' fatal paths) returns to here as a
   normal outcome: the files the call left open are closed and the exit status is returned.
   Returns -1 when fn returned by itself. An exit after an internal error ("Programming error",
   "failed on row", a failed allocation) is a broken promise instead. The call's standard
   output is caught for that and dropped, or passed on after the call (fuzz_echo_output). */
int fuzz_call(void (*fn)(void *), void *arg);
void fuzz_echo_output(bool echo);

/* A broken promise of a reader that the sanitizers would not see (a stack with a negative
   voxel size, a weight outside 0..1): prints what and aborts, which the fuzzer reports. */
void fuzz_require(bool ok, const char *what);

/* The bytes of a kept input file: a name ending in ".hex" holds hexadecimal digits, with white
   space and lines that start with '#' (a description of the input) skipped; any other file is
   taken as it is. false when the file cannot be read or decoded. */
bool fuzz_read_input(const char *path, std::vector<uint8_t> *input);
