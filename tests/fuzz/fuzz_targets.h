#pragma once
/* The fuzz targets: one per reader of the program, each turning one input into the files the
   reader needs and calling it as align does. The table serves the libFuzzer programs (one per
   target), the replay driver and the seed writer. */
#include <cstddef>
#include <cstdint>

struct fuzz_target {
    const char *name;
    /* Runs one input. Returns normally for every outcome the program allows (success, a
       refusal with a message, a fatal exit); aborts on a broken promise. */
    void (*run)(const uint8_t *data, size_t size);
    /* What an input is, for the seed writer and for people: the parts and what they become. */
    const char *layout;
};

extern const fuzz_target FUZZ_TARGETS[];
extern const int FUZZ_NTARGETS;

/* The target of that name, or NULL. */
const fuzz_target *find_fuzz_target(const char *name);
