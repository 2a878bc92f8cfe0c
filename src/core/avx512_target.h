#pragma once
/* What every AVX-512 kernel starts from: the intrinsics, and the target attribute that each of
   its functions carries (they are called only when simd_level() says AVX-512). */

/* GCC 12's AVX-512 headers start some intrinsics from a self-initialised "undefined" value,
   which -Wuninitialized reports at every use (GCC bug 105593). */
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#else
#include <immintrin.h>
#endif

#define AVX512_TARGET __attribute__((target("avx512f,avx512vl,avx512dq,avx512bw,fma")))
