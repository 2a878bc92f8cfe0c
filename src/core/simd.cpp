/* Run-time choice of the vector instruction level (see simd.h). No X11. */
#include "simd.h"

#include <cstdlib>
#include <cstring>

int simd_level_supported(void)
{
#if defined(__x86_64__) || defined(__i386__)
    static const int level = [] {
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
            __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("fma"))
            return (int)SIMD_AVX512;
        if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return (int)SIMD_AVX2;
        return (int)SIMD_SCALAR;
    }();
    return level;
#else
    return SIMD_SCALAR;
#endif
}

int simd_level(void)
{
    int level = simd_level_supported();
    const char *env = getenv("ALIGN_SIMD");
    if (env == NULL) return level;
    int asked = level;
    if (strcmp(env, "scalar") == 0) asked = SIMD_SCALAR;
    else if (strcmp(env, "avx2") == 0) asked = SIMD_AVX2;
    else if (strcmp(env, "avx512") == 0) asked = SIMD_AVX512;
    return asked < level ? asked : level;
}
