#pragma once
/* Splitting independent per-slice work over threads. The count follows the machine and can be
   set with the environment variable ALIGN_THREADS (1 runs everything on the calling thread).
   Only for loops whose every output value is computed independently with the same arithmetic,
   so that any thread count gives bit-identical results. */
#include <thread>
#include <vector>

int align_thread_count(void);

/* Calls f(first, last) on disjoint ranges covering [0, n), in parallel. */
template <class F> void parallel_ranges(int n, F f)
{
    int nthreads = align_thread_count();
    if (nthreads > n) nthreads = n;
    if (nthreads <= 1) { if (n > 0) f(0, n); return; }
    std::vector<std::thread> pool;
    int chunk = (n + nthreads - 1) / nthreads;
    for (int first = chunk; first < n; first += chunk) {
        int last = first + chunk < n ? first + chunk : n;
        pool.emplace_back([=]() { f(first, last); });
    }
    f(0, chunk < n ? chunk : n);
    for (auto &t : pool) t.join();
}
