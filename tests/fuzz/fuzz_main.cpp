/* The libFuzzer entry of one target, chosen when compiled (ALIGN_FUZZ_TARGET, its name). */
#include <cstdio>
#include <cstdlib>

#include "fuzz_harness.h"
#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const fuzz_target *target = find_fuzz_target(ALIGN_FUZZ_TARGET);
    if (target == NULL) {
        fprintf(stderr, "no fuzz target named %s\n", ALIGN_FUZZ_TARGET);
        abort();
    }
    target->run(data, size);
    fuzz_leave_directory();
    return 0;
}
