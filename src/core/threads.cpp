/* Thread count for the parallel loops: ALIGN_THREADS, else the machine's core count. */
#include "threads.h"
#include <cstdlib>

int align_thread_count(void)
{
    const char *env = getenv("ALIGN_THREADS");
    if (env != NULL && atoi(env) > 0) return atoi(env);
    unsigned n = std::thread::hardware_concurrency();
    return n == 0 ? 1 : (int)n;
}
