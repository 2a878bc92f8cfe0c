#pragma once
/* Which vector instructions the fast loops may use, chosen at run time so that one binary runs
   on any x86-64. ALIGN_SIMD=scalar|avx2|avx512 asks for a level (never above what the processor
   has), so that tests can compare every path. No X11. */

enum simd_levels { SIMD_SCALAR = 0, SIMD_AVX2 = 1, SIMD_AVX512 = 2 };

/* The level in force: the processor's best, lowered by ALIGN_SIMD. */
int simd_level(void);
/* The processor's best level, ignoring ALIGN_SIMD. */
int simd_level_supported(void);
