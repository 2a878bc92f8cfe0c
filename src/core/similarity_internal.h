#pragma once
/* Shared by the similarity measures (similarity.cpp) and their vector walks
   (similarity_avx512.cpp): the walks over the taking-part voxels (template value not 0, NaN
   included) that the measures are made of. Every path gives the same results bit for bit:
   float sums run in voxel order, ranges and counts are order-free. No globals, no X11. */
#include <cstddef>

#define NBINS 50

/* What one walk in voxel order over [0, n) yields: the float sums of the individual's and the
   template's values in voxel order, their count, and the smallest and largest value of each
   that is not NaN (+inf and -inf when there is none). */
struct taking_part_sums {
    float sum_i, sum_t;
    int count;
    float min_i, max_i, min_t, max_t;
};

/* Bin of a scaled value: (v - min) * 50 / (max - min) in float, 49 above 49, else truncated.
   An undefined value (NaN, from a NaN voxel or an empty range) goes to bin 0 so that it
   stays inside the histogram. */
static inline int mi_bin(float v, float vmin, float vmax)
{
    float b = (v - vmin) * (float)NBINS / (vmax - vmin);
    if (b > (float)(NBINS - 1)) return NBINS - 1;
    if (!(b >= 0.0f)) return 0;
    return (int)b;
}

/* The common range of the scaled values (min from 1e10, max from 0, strict comparisons, as the
   plain walk over i = ind / av_i and t = tpl / av_t) from the raw extremes of a walk. Division by
   a finite nonzero average is monotonic (increasing for a positive one, decreasing for a
   negative one) and maps NaN and only NaN to NaN, so the scaled extremes are the scaled raw
   extremes; the sign of a zero extreme changes no bin. Returns 0, leaving the range to the
   plain walk, when an average is 0, not finite or NaN. */
int scaled_range_of_extremes(const taking_part_sums &r, float av_i, float av_t, float *vmin, float *vmax);

/* The mutual information of a 50 x 50 joint histogram of counts (first index the individual's
   bin): marginals as its row and column sums, each count as the float that 1.0f raised so many
   times (it stops at 2^24), all divided by the float voxel count, and the float sum of
   p_IT ln(p_IT / p_I / p_T) over the nonzero terms, bin_I outer. */
float mutual_information_of_joint(const long long *joint);

/* The vector walks; defined only where the compiler has the target attribute and called only
   when simd_level() says AVX-512. */
void taking_part_sums_avx512(const float *tpl, const float *ind, size_t n, taking_part_sums *r);
/* Adds to joint[bin_I * 50 + bin_T] the voxels of [first, last) that take part, with
   bin_I = mi_bin(ind / av_i) and bin_T = mi_bin(tpl / av_t). */
void joint_counts_avx512(const float *tpl, const float *ind, size_t first, size_t last, float av_i, float av_t,
                         float vmin, float vmax, long long *joint);
/* The float sums of I*I, T*T, I*T and of 1 over the taking-part voxels, in voxel order. */
void correlation_sums_avx512(const float *tpl, const float *ind, size_t n, float sums[4]);
/* Over a packed list of n values (every one taking part): the float sum in order and the
   smallest and largest value that is not NaN (+inf and -inf when there is none). */
void ordered_sum_avx512(const float *v, size_t n, float *sum, float *vmin, float *vmax);
/* joint_counts_avx512 over packed lists: bin_I of ind[k] / av_i, bin_T of the template values
   already divided by their average, for k in [first, last). */
void joint_counts_listed_avx512(const float *ind, const float *tsc, size_t first, size_t last, float av_i,
                                float vmin, float vmax, long long *joint);
