#pragma once

// The small OpenMP helpers through which the engines and filters use threads.
//
// Two rules keep the parallel code deterministic and cheap:
//  - every parallel loop hands whole output rows to threads (schedule(static))
//    and reduces into one double per row; the rows are then combined in row
//    order by sumInOrder(), so a result never depends on the thread count;
//  - waking a sleeping team costs from tens of microseconds up to a
//    millisecond on a loaded machine, so small problems run on the calling
//    thread (threadsForWork) and engines open few regions per call.

#include <algorithm>
#include <cstddef>

#ifdef _OPENMP
#include <omp.h>
#endif

namespace velmor {
namespace kro {
namespace detail {

// Below this many elementary operations per thread a second thread does not
// pay for its wake-up.
constexpr std::size_t kOmpMinWorkPerThread = std::size_t(1) << 20;

// Threads a new parallel region would get right now.
inline int ompMaxThreads()
{
#ifdef _OPENMP
    return omp_get_max_threads();
#else
    return 1;
#endif
}

// Index of the calling thread in its team (0 outside a parallel region).
inline int ompThreadNum()
{
#ifdef _OPENMP
    return omp_get_thread_num();
#else
    return 0;
#endif
}

// Number of threads in the current team (1 outside a parallel region).
inline int ompTeamSize()
{
#ifdef _OPENMP
    return omp_get_num_threads();
#else
    return 1;
#endif
}

// True inside an active parallel region (steps written with orphaned
// work-sharing loops then share the enclosing team instead of opening one).
inline bool ompInParallel()
{
#ifdef _OPENMP
    return omp_in_parallel() != 0;
#else
    return false;
#endif
}

// Number of per-thread work buffers an object should allocate in its
// constructor: enough for every thread a later region may use, whatever the
// thread count is set to between construction and use. Regions are then
// capped to this number (threadsForWork's `capacity`).
inline int ompThreadCapacity()
{
#ifdef _OPENMP
    return std::max(1, std::max(omp_get_max_threads(), omp_get_num_procs()));
#else
    return 1;
#endif
}

// Threads worth using for `work` elementary operations: 1 for small
// problems, never more than the current maximum nor than `capacity`.
inline int threadsForWork(std::size_t work, int capacity,
                          std::size_t minWorkPerThread = kOmpMinWorkPerThread)
{
    const std::size_t byWork = std::max<std::size_t>(1, work / std::max<std::size_t>(1, minWorkPerThread));
    const int limit = std::max(1, std::min(ompMaxThreads(), capacity));
    return static_cast<int>(std::min<std::size_t>(byWork, static_cast<std::size_t>(limit)));
}

// Sum of per-row partial sums in row order: the fixed combination that makes
// a reduction independent of how rows were shared among threads.
inline double sumInOrder(const double* parts, int count)
{
    double sum = 0.0;
    for (int i = 0; i < count; ++i)
        sum += parts[i];
    return sum;
}

} // namespace detail
} // namespace kro
} // namespace velmor
